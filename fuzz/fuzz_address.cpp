// Address texts from arbitrary bytes (read as Latin-1 or as UTF-8), through
// the parser and the host's image entry points:
//   - StringAddressToInt for every data type, and PLCAddressChangeIntef and
//     the splitting reading StringAddressToIntBySplitting giving exactly the
//     same; the separator rules; plain decimal texts
//     giving the packed value computed here;
//   - SetRegisterData with the text, an arbitrary count and value bytes: an
//     invalid address changes nothing; otherwise the write queue and the local
//     image are held against the rules of the image and of the write queue,
//     modelled here on a shadow copy of the areas;
//   - GetRegisterData with the text: an invalid address returns 0 and leaves
//     the array; otherwise the array carries exactly the image's values and
//     nothing past them changes.
//
// Input layout (an exhausted input reads zeros):
//   0      flags: bit 0 the text is Latin-1 (else UTF-8), bit 1 writeMode 2
//          (else 1), bit 2 several stations, bit 3 the link has failed
//          (commError), bits 4-7 bytes already in the host's array
//   1      data type: as it is (signed) for the parser, value % 7 - 1 for the
//          image entry points
//   2-3    count (signed 16 bits), 4 maxCount (% 64; bit 7: long runs, else
//          the count is taken % 65), 5 station
//   6      n (% 64), then the n bytes of the text; the rest: value bytes
#include "fuzz_support.h"

#include "Func_Initi.h"

#include <QtCore/QList>

#include <string>

namespace {

constexpr int64_t kWords = kAreaElements;
constexpr int64_t kBits = kWords * 16;
constexpr int64_t kWriteQueueCapacity = 1024;  // a full write queue takes no new entry

// The areas as the rules say they must be after the call.
struct Shadow {
    uint16_t a[kAreaElements];
    uint16_t b[kAreaElements];
    uint32_t d[kAreaElements];
};
Shadow g_shadow;

uint8_t ByteAt(const QByteArray& bytes, int64_t i) {
    return (i >= 0 && i < bytes.size()) ? static_cast<uint8_t>(bytes.at(static_cast<int>(i))) : 0;
}

// Writing values into an area: elements outside it are skipped, elements
// whose bytes are missing keep their value, only the byte 1 sets a bit, and a
// 32-bit variable's count is in 16-bit units (count / 2 values).
void ModelWrite(uint16_t* words, uint32_t* reals, int dataType, int64_t index, int64_t count,
                const QByteArray& data) {
    switch (dataType) {
        case ABCL_BIT_A:
        case ABCL_BIT_B:
            for (int64_t i = 0; i < count && i < data.size(); ++i) {
                const int64_t bit = index + i;
                if (bit < 0 || bit >= kBits) continue;
                const uint16_t mask = static_cast<uint16_t>(1u << (bit % 16));
                if (ByteAt(data, i) == 1)
                    words[bit / 16] = static_cast<uint16_t>(words[bit / 16] | mask);
                else
                    words[bit / 16] = static_cast<uint16_t>(words[bit / 16] & ~mask);
            }
            break;
        case ABCL_WORD_A:
        case ABCL_WORD_B:
            for (int64_t i = 0; i < count && 2 * i + 1 < data.size(); ++i) {
                if (index + i < 0 || index + i >= kWords) continue;
                words[index + i] =
                    static_cast<uint16_t>(ByteAt(data, 2 * i) | (ByteAt(data, 2 * i + 1) << 8));
            }
            break;
        case ABCL_REAL:
            if (count < 2) break;
            for (int64_t k = 0; k < count / 2 && 4 * k + 3 < data.size(); ++k) {
                if (index + k < 0 || index + k >= kWords) continue;
                uint32_t v = 0;
                for (int b = 0; b < 4; ++b)
                    v |= static_cast<uint32_t>(ByteAt(data, 4 * k + b)) << (8 * b);
                reals[index + k] = v;
            }
            break;
        default: break;
    }
}

void ModelWrite(int dataType, int64_t index, int64_t count, const QByteArray& data) {
    uint16_t* words = (dataType == ABCL_BIT_B || dataType == ABCL_WORD_B) ? g_shadow.b : g_shadow.a;
    ModelWrite(words, g_shadow.d, dataType, index, count, data);
}

// `bytes` bytes of `values` from `offset` on, 0 for bytes past its end.
QByteArray ZeroPadded(const QByteArray& values, int64_t offset, int64_t bytes) {
    QByteArray out;
    for (int64_t i = 0; i < bytes; ++i) out.append(static_cast<char>(ByteAt(values, offset + i)));
    return out;
}

// A decimal number of one to nine digits with an optional '-', alone.
bool PlainNumber(const std::string& s, int64_t* value) {
    size_t i = 0;
    const bool negative = !s.empty() && s[0] == '-';
    if (negative) i = 1;
    if (s.size() == i || s.size() - i > 9) return false;
    int64_t v = 0;
    for (; i < s.size(); ++i) {
        if (s[i] < '0' || s[i] > '9') return false;
        v = v * 10 + (s[i] - '0');
    }
    *value = negative ? -v : v;
    return true;
}

// The packed address of a text of plain numbers, computed here from the
// packing rule; false when the text is not of that simple form.
bool PlainPackedAddress(int dataType, const std::string& text, int32_t* packed) {
    const size_t colon = text.find(':');
    if (colon == std::string::npos || text.find(':', colon + 1) != std::string::npos) return false;
    int64_t file = 0;
    if (!PlainNumber(text.substr(0, colon), &file)) return false;
    const std::string rest = text.substr(colon + 1);
    if (dataType == ABCL_BIT_A || dataType == ABCL_BIT_B) {
        const size_t slash = rest.find('/');
        int64_t element = 0;
        int64_t bit = 0;
        if (slash == std::string::npos || rest.find('/', slash + 1) != std::string::npos)
            return false;
        if (!PlainNumber(rest.substr(0, slash), &element) ||
            !PlainNumber(rest.substr(slash + 1), &bit))
            return false;
        *packed = fuzz::Wrap32(bit + (element + file * 256) * 16);
        return true;
    }
    int64_t element = 0;
    if (!rest.empty() && !PlainNumber(rest, &element)) return false;  // an empty element is 0
    *packed = fuzz::Wrap32(element + file * 256);
    return true;
}

void CheckParser(int dataType, const QString& text) {
    const int32_t a = StringAddressToInt(dataType, text);
    FUZZ_CHECK(a == PLCAddressChangeIntef(dataType, text));
    // The one-pass reading agrees with the splitting reading on every text.
    FUZZ_CHECK(a == StringAddressToIntBySplitting(dataType, text));
    const bool colon = text.contains(QLatin1Char(':'));
    const bool slash = text.contains(QLatin1Char('/'));
    if (dataType == ABCL_BIT_A || dataType == ABCL_BIT_B) {
        if (!colon || !slash) FUZZ_CHECK(a == -1);
    } else if (dataType >= ABCL_WORD_A && dataType <= ABCL_REAL) {
        if (!colon) FUZZ_CHECK(a == -1);
    } else {
        FUZZ_CHECK(a == text.toInt(nullptr, 10));  // the whole text, one number
    }
    int32_t packed = 0;
    if (dataType >= ABCL_BIT_A && dataType <= ABCL_REAL &&
        PlainPackedAddress(dataType, text.toStdString(), &packed))
        FUZZ_CHECK(a == packed);
}

bool SameAreas() {
    const AB_ControlLogix_CompactLogix& d = PLC_driver;
    return std::memcmp(d.areaA, g_shadow.a, sizeof g_shadow.a) == 0 &&
           std::memcmp(d.areaB, g_shadow.b, sizeof g_shadow.b) == 0 &&
           std::memcmp(d.areaD, g_shadow.d, sizeof g_shadow.d) == 0;
}

// SetRegisterData, with the queue and the image held against the rules.
void CheckSet(const ComInfo& info, int dataType, const QString& text, int station,
              const QByteArray& values, int count) {
    const AB_ControlLogix_CompactLogix& d = PLC_driver;
    std::memcpy(g_shadow.a, d.areaA, sizeof g_shadow.a);
    std::memcpy(g_shadow.b, d.areaB, sizeof g_shadow.b);
    std::memcpy(g_shadow.d, d.areaD, sizeof g_shadow.d);
    const int32_t a = StringAddressToInt(dataType, text);
    const bool mirrorsAtOnce = commErrorSet() && info.multiStation == 0;
    QByteArray in = values;

    const int result =
        SetRegisterData(QStringLiteral("text2"), dataType, text, station, &in, count, 5, 6);
    FUZZ_CHECK(in == values);  // the host's array is only read
    const QList<RW_VAR>& queued = d.writeList;
    const int expectedStation = info.multiStation == 0 ? info.defaultStation : station;

    if (a < 0) {
        FUZZ_CHECK(result == 0 && queued.isEmpty());
    } else if (info.writeMode != 2) {
        FUZZ_CHECK(result == 1 && queued.isEmpty());
        if (info.multiStation == 0) ModelWrite(dataType, a, count, values);
    } else if (dataType == ABCL_BIT_A || dataType == ABCL_BIT_B) {
        // Every bit its own write of one byte.
        const int64_t writes = count > 0 ? count : 0;
        FUZZ_CHECK(queued.size() == (writes < kWriteQueueCapacity ? writes : kWriteQueueCapacity));
        FUZZ_CHECK(result == (writes > 0 ? queued.size() : 0));
        for (int64_t i = 0; i < writes; ++i) {
            const QByteArray one(1, static_cast<char>(ByteAt(values, i)));
            if (i < queued.size()) {
                const RW_VAR& w = queued.at(static_cast<int>(i));
                FUZZ_CHECK(w.address == fuzz::Wrap32(a + i) && w.count == 1 && w.data == one);
                FUZZ_CHECK(w.dataType == dataType && w.aux2 == 1 && w.station == expectedStation);
                FUZZ_CHECK(w.varId == 5 && w.varSubId == 6 && w.addrText == text);
            }
            if (mirrorsAtOnce) ModelWrite(dataType, fuzz::Wrap32(a + i), 1, one);
        }
    } else if (dataType >= ABCL_WORD_A && dataType <= ABCL_REAL) {
        // Pieces of at most maxCount, the last taking the remainder; a zero
        // maxCount leaves one piece. The address steps by maxCount elements,
        // the value bytes by two bytes per count unit.
        const int64_t m = info.maxCount;
        const int64_t q = m == 0 ? 0 : count / m;
        const int64_t r = count - m * q;
        const int64_t pieces = r != 0 ? q + 1 : q;
        if (pieces <= 0) {
            FUZZ_CHECK(result == 0 && queued.isEmpty());
        } else {
            FUZZ_CHECK(queued.size() ==
                       (pieces < kWriteQueueCapacity ? pieces : kWriteQueueCapacity));
            FUZZ_CHECK(result == queued.size());
            for (int64_t k = 0; k < pieces; ++k) {
                const int64_t pieceCount = (k == pieces - 1) ? (r != 0 ? r : m) : m;
                const QByteArray bytes = ZeroPadded(values, 2 * k * m, 2 * pieceCount);
                const int32_t address = fuzz::Wrap32(a + k * m);
                if (k < queued.size()) {
                    const RW_VAR& w = queued.at(static_cast<int>(k));
                    FUZZ_CHECK(w.address == address && w.count == pieceCount && w.data == bytes);
                    FUZZ_CHECK(w.dataType == dataType && w.aux2 == 1 &&
                               w.station == expectedStation);
                }
                if (mirrorsAtOnce) ModelWrite(dataType, address, pieceCount, bytes);
            }
        }
    } else {
        FUZZ_CHECK(result == 0 && queued.isEmpty());
    }
    FUZZ_CHECK(SameAreas());
}

// GetRegisterData against the image as it stands.
void CheckGet(const ComInfo& info, int dataType, const QString& text, int count,
              const QByteArray& before) {
    const AB_ControlLogix_CompactLogix& d = PLC_driver;
    const int32_t a = StringAddressToInt(dataType, text);
    QByteArray out = before;
    const int result = GetRegisterData(0, dataType, text, 0, &out, count);
    if (a < 0) {
        FUZZ_CHECK(result == 0 && out == before);
        return;
    }
    FUZZ_CHECK(result == 1);
    if (info.multiStation != 0 || dataType < ABCL_BIT_A || dataType > ABCL_REAL) {
        FUZZ_CHECK(out == before);
        return;
    }
    // Bytes the call fills: one per bit, two per word, four per 32-bit value
    // (count / 2 of them); elements outside the area are left out.
    int64_t extent = 0;
    for (int64_t i = 0; i < count; ++i) {
        const uint16_t* words =
            (dataType == ABCL_BIT_B || dataType == ABCL_WORD_B) ? d.areaB : d.areaA;
        const int64_t index = a + i;
        if (dataType <= ABCL_BIT_B) {
            if (index < 0 || index >= kBits) continue;
            FUZZ_CHECK(ByteAt(out, i) == ((words[index / 16] >> (index % 16)) & 1));
            extent = i + 1;
        } else if (dataType <= ABCL_WORD_B) {
            if (index < 0 || index >= kWords) continue;
            FUZZ_CHECK(ByteAt(out, 2 * i) == (words[index] & 0xFF) &&
                       ByteAt(out, 2 * i + 1) == (words[index] >> 8));
            extent = 2 * i + 2;
        } else {
            if (i >= count / 2) break;
            if (index < 0 || index >= kWords) continue;
            for (int b = 0; b < 4; ++b)
                FUZZ_CHECK(ByteAt(out, 4 * i + b) == ((d.areaD[index] >> (8 * b)) & 0xFF));
            extent = 4 * i + 4;
        }
    }
    FUZZ_CHECK(out.size() == (before.size() > extent ? before.size() : extent));
    // Bytes past the values are the host's and stay as they were.
    for (int64_t i = extent; i < before.size(); ++i)
        FUZZ_CHECK(ByteAt(out, i) == ByteAt(before, i));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::Input in(data, size);
    ComInfo& info = fuzz::ResetDriver();
    const uint8_t flags = in.u8();
    const bool latin1 = flags & 1;
    info.writeMode = (flags & 2) ? 2 : 1;
    info.multiStation = (flags >> 2) & 1;
    setCommError((flags >> 3) & 1);
    const QByteArray hostArray(flags >> 4, '\xA5');
    const int rawType = static_cast<int8_t>(in.u8());
    const int dataType = (rawType & 0xFF) % 7 - 1;
    int rawCount = in.i16();
    const uint8_t maxCountByte = in.u8();
    info.maxCount = maxCountByte % 64;
    if (!(maxCountByte & 0x80)) rawCount %= 65;
    const int station = in.u8();
    const QString text = fuzz::Text(in.bytes(in.u8() % 64), latin1);
    const QByteArray values = in.bytes(4096);

    for (int t = -1; t <= 5; ++t) CheckParser(t, text);
    CheckParser(rawType, text);

    // Every queued write is looked for among those already queued: keep the
    // runs of writes short, though long enough to fill the write queue.
    const bool bits = dataType == ABCL_BIT_A || dataType == ABCL_BIT_B;
    const int setCount =
        fuzz::Clamp(rawCount, -64, info.writeMode == 2 ? (bits ? 256 : 1100) : 4096);
    CheckSet(info, dataType, text, station, values, setCount);

    const int getCount = fuzz::Clamp(rawCount, -64, 4096);
    for (int t = ABCL_BIT_A - 1; t <= ABCL_REAL + 1; ++t)
        CheckGet(info, t, text, getCount, hostArray);
    return 0;
}
