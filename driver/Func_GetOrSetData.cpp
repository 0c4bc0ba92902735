// Host access to the local image: the screens read values out of it and hand
// new values in, without ever waiting for the controller.
#include "Func_GetOrSetData.h"

#include "Func_Initi.h"
#include "ab_controllogix_compactlogix_p.h"
#include "protocol_constants.h"

#include <algorithm>
#include <cstring>
#include <unordered_map>

namespace {

constexpr int64_t kAreaBits = static_cast<int64_t>(kAreaElements) * kBitsPerWord;

// The elements i in [first, last) of a run of n starting at `index` that lie
// inside an area of `size` elements. Indexes come from host texts and records
// and are not trusted: elements outside the area are skipped, the rest handled.
struct Span {
    int64_t first;
    int64_t last;
    bool empty() const { return last <= first; }
};

Span InsideArea(int64_t index, int64_t n, int64_t size) {
    return {std::max<int64_t>(0, -index), std::min<int64_t>(n, size - index)};
}

// Grows `out` so that it holds `bytes` bytes (new bytes read 0) and returns
// its bytes for writing: the host's array is written in place, detached from
// any copy it shares its bytes with.
char* GrowTo(QByteArray* out, int64_t bytes) {
    const int old = out->size();
    if (bytes > old) {
        out->resize(static_cast<int>(bytes));
        std::memset(out->data() + old, 0, static_cast<size_t>(bytes - old));
    }
    return out->data();
}

uint8_t InByte(const QByteArray& in, int64_t i) {
    return static_cast<uint8_t>(in.at(static_cast<int>(i)));
}

}  // namespace

int QueryFinishFlag() {
    return 1;
}

int ExtendFindSameVar(int a, int b, int c) {
    QList<EXTENDVAR>& list = PLC_driver.extendList;
    for (int i = 0; i < list.size(); ++i) {
        const EXTENDVAR& e = list.at(i);
        if (e.extA == a && e.extB == b && e.extC == c) return i;
    }
    EXTENDVAR entry;
    entry.extA = a;
    entry.extB = b;
    entry.extC = c;
    entry.extData = QByteArray(2, '\0');
    list.append(entry);
    return list.size() - 1;
}

// ---- area <-> byte array helpers ------------------------------------------------

void GetBitFromUS(QByteArray* out, const uint16_t* area, int index, int n) {
    const Span span = InsideArea(index, n, kAreaBits);
    if (!out || !area || span.empty()) return;
    char* bytes = GrowTo(out, span.last);
    for (int64_t i = span.first; i < span.last; ++i) {
        const int64_t bit = index + i;
        bytes[i] = static_cast<char>((area[bit >> 4] >> (bit & 15)) & 1);
    }
}

void GetWordFromUS(QByteArray* out, const uint16_t* area, int index, int n) {
    const Span span = InsideArea(index, n, kAreaElements);
    if (!out || !area || span.empty()) return;
    char* bytes = GrowTo(out, 2 * span.last);
    for (int64_t i = span.first; i < span.last; ++i) {
        const uint16_t word = area[index + i];
        bytes[2 * i] = static_cast<char>(word & 0xFF);
        bytes[2 * i + 1] = static_cast<char>(word >> 8);
    }
}

// The host counts 32-bit variables in 16-bit units: n units are n / 2 values.
void GetWordFromUI(QByteArray* out, const uint32_t* area, int index, int n) {
    if (n < 2) return;
    const Span span = InsideArea(index, n / 2, kAreaElements);
    if (!out || !area || span.empty()) return;
    char* bytes = GrowTo(out, 4 * span.last);
    for (int64_t k = span.first; k < span.last; ++k) {
        const uint32_t value = area[index + k];
        for (int b = 0; b < 4; ++b) bytes[4 * k + b] = static_cast<char>((value >> (8 * b)) & 0xFF);
    }
}

// Only the byte value 1 sets a bit; every other value clears it.
void SetBitToUS(int index, uint16_t* area, const QByteArray& in, int n) {
    const Span span = InsideArea(index, std::min<int64_t>(n, in.size()), kAreaBits);
    if (!area) return;
    for (int64_t i = span.first; i < span.last; ++i) {
        const int64_t bit = index + i;
        const uint16_t mask = static_cast<uint16_t>(1u << (bit & 15));
        if (InByte(in, i) == 1)
            area[bit >> 4] |= mask;
        else
            area[bit >> 4] &= static_cast<uint16_t>(~mask);
    }
}

// Elements whose bytes are missing from `in` keep their old value.
void SetWordToUS(int index, uint16_t* area, const QByteArray& in, int n) {
    const Span span = InsideArea(index, std::min<int64_t>(n, in.size() / 2), kAreaElements);
    if (!area) return;
    for (int64_t i = span.first; i < span.last; ++i)
        area[index + i] = static_cast<uint16_t>(InByte(in, 2 * i) | (InByte(in, 2 * i + 1) << 8));
}

void SetWordToUI(int index, uint32_t* area, const QByteArray& in, int n) {
    if (n < 2) return;
    const Span span = InsideArea(index, std::min<int64_t>(n / 2, in.size() / 4), kAreaElements);
    if (!area) return;
    for (int64_t k = span.first; k < span.last; ++k) {
        uint32_t value = 0;
        for (int b = 3; b >= 0; --b) value = (value << 8) | InByte(in, 4 * k + b);
        area[index + k] = value;
    }
}

// ---- image entry points ------------------------------------------------------------

void WriteDataToLocal(RW_VAR* var) {
    if (!var) return;
    AB_ControlLogix_CompactLogix& d = PLC_driver;
    DriverLock lock(&d.imageMutex);
    if (settings().multiStation != 0) return;  // several stations: no image is kept
    switch (var->dataType) {
        case ABCL_BIT_A: SetBitToUS(var->address, d.areaA, var->data, var->count); break;
        case ABCL_BIT_B: SetBitToUS(var->address, d.areaB, var->data, var->count); break;
        case ABCL_WORD_A: SetWordToUS(var->address, d.areaA, var->data, var->count); break;
        case ABCL_WORD_B: SetWordToUS(var->address, d.areaB, var->data, var->count); break;
        case ABCL_REAL: SetWordToUI(var->address, d.areaD, var->data, var->count); break;
        default: break;
    }
}

namespace {

int CopyFromImage(int dataType, const QString& addr, QByteArray* out, int count) {
    const int a = StringAddressToInt(dataType, addr);
    if (a < 0) return 0;
    AB_ControlLogix_CompactLogix& d = PLC_driver;
    DriverLock lock(&d.imageMutex);
    if (!out) return 1;
    if (settings().multiStation == 0) {
        switch (dataType) {
            case ABCL_BIT_A: GetBitFromUS(out, d.areaA, a, count); break;
            case ABCL_BIT_B: GetBitFromUS(out, d.areaB, a, count); break;
            case ABCL_WORD_A: GetWordFromUS(out, d.areaA, a, count); break;
            case ABCL_WORD_B: GetWordFromUS(out, d.areaB, a, count); break;
            case ABCL_REAL: GetWordFromUI(out, d.areaD, a, count); break;
            default: break;
        }
    }
    return 1;
}

// `bytes` bytes of `source` from `offset` on; bytes past its end read 0.
QByteArray SliceZeroPadded(const QByteArray& source, int64_t offset, int64_t bytes) {
    if (bytes <= 0) return QByteArray();
    // The whole array: shared, not copied.
    if (offset == 0 && bytes == source.size()) return source;
    QByteArray slice(static_cast<int>(bytes), '\0');
    const int64_t from = std::max<int64_t>(0, offset);
    const int64_t to = std::min<int64_t>(source.size(), offset + bytes);
    if (to > from)
        std::memcpy(slice.data() + (from - offset), source.constData() + from,
                    static_cast<size_t>(to - from));
    return slice;
}

// Queues one write and, while the link is failing (no frame will be built to
// mirror it), shows the value in the image at once.
int QueueWrite(RW_VAR* w) {
    const int length = QueueWriteRequest(w, 0);
    if (commErrorSet()) WriteDataToLocal(w);
    return length;
}

// Queues parts [0, parts) of a host write, each as if queued on its own and
// shown in the image at once while the link is failing. makePart(k, &w)
// fills in part k, starting from the write's record. While the queue has
// room, as many parts as fit are queued under one hold of the list lock (made
// before it is taken); once it is full, a part can only replace a queued
// write of the same place and size, so replaceRest(k) matches parts [k,
// parts) against the queue in one pass and returns its length, or -1 if the
// queue has room again.
template <typename MakePart, typename ReplaceRest>
int QueueParts(RW_VAR* w, int parts, MakePart makePart, ReplaceRest replaceRest) {
    int length = 0;
    std::vector<RW_VAR> batch;
    for (int k = 0; k < parts;) {
        if (length >= kQueueLimit) {
            const int full = replaceRest(k);
            if (full >= 0) return full;
        }
        if (k == parts - 1) {  // a lone part needs no batch
            makePart(k, w);
            return QueueWrite(w);
        }
        // No more than a queue's worth of parts can be queued in one go.
        batch.assign(static_cast<size_t>(std::min(parts - k, kQueueLimit)), *w);
        for (size_t i = 0; i < batch.size(); ++i) makePart(k + static_cast<int>(i), &batch[i]);
        size_t taken = 0;
        length = QueueWritesWhileRoom(batch, &taken);
        for (size_t i = 0; i < taken; ++i)
            if (commErrorSet()) WriteDataToLocal(&batch[i]);
        k += static_cast<int>(taken);
    }
    return length;
}

// Shows bits [next, count) of a write in the image at once, while the link is
// failing, as queuing each bit on its own would.
void MirrorBits(const RW_VAR& bit, int32_t first, int next, int count, const QByteArray& values) {
    if (!commErrorSet()) return;
    RW_VAR bits = bit;
    bits.address = Wrap32(static_cast<int64_t>(first) + next);
    bits.count = count - next;
    // A bit whose byte is missing from the host's array is written as 0.
    bits.data = SliceZeroPadded(values, next, count - next);
    WriteDataToLocal(&bits);
}

// Every bit is its own write request.
int QueueBitWrites(RW_VAR* w, int32_t first, const QByteArray& values, int count) {
    const auto makeBit = [&](int i, RW_VAR* bit) {
        bit->count = 1;
        bit->address = Wrap32(static_cast<int64_t>(first) + i);
        bit->data = QByteArray(1, i < values.size() ? values.at(i) : '\0');
    };
    const auto replaceRest = [&](int next) {
        // Bit `index` of the write is at first + index.
        const int full = ReplaceQueuedWritesIfFull(*w, [&](const RW_VAR& queued, RW_VAR* bit) {
            const uint32_t index =
                static_cast<uint32_t>(queued.address) - static_cast<uint32_t>(first);
            if (queued.count != 1 || index < static_cast<uint32_t>(next) ||
                index >= static_cast<uint32_t>(count))
                return false;
            makeBit(static_cast<int>(index), bit);
            return true;
        });
        if (full >= 0) MirrorBits(*w, first, next, count, values);
        return full;
    };
    return QueueParts(w, count, makeBit, replaceRest);
}

// Piece k of a word write: the address advances by maxCount elements and the
// byte offset by two bytes per count unit, also for 32-bit values.
void MakeWordPiece(RW_VAR* w, int32_t first, const QByteArray& values, const PieceSplit& split,
                   int maxCount, int k) {
    const int64_t offset = static_cast<int64_t>(k) * maxCount;
    w->address = Wrap32(first + offset);
    w->count = (k == split.pieces - 1) ? split.lastCount : maxCount;
    w->data = SliceZeroPadded(values, 2 * offset, 2 * static_cast<int64_t>(w->count));
}

// Pieces [next, pieces) of a word write, by place and size, each mapped to
// the last piece with that place and size (which a piece queued on its own
// after the others would leave in the queue). Made outside listMutex.
PlaceKeyMap<int> LastPieceByPlace(int32_t first, const PieceSplit& split, int maxCount, int next) {
    PlaceKeyMap<int> last;
    for (int k = next; k < split.pieces; ++k) {
        const int32_t address = Wrap32(first + static_cast<int64_t>(k) * maxCount);
        const int32_t count = (k == split.pieces - 1) ? split.lastCount : maxCount;
        last[PlaceKey(address, count)] = k;
    }
    return last;
}

// Every piece is its own write request.
int QueueWordWrites(RW_VAR* w, int32_t first, const QByteArray& values, const PieceSplit& split,
                    int maxCount) {
    const auto makePiece = [&](int k, RW_VAR* piece) {
        MakeWordPiece(piece, first, values, split, maxCount, k);
    };
    const auto replaceRest = [&](int next) {
        const PlaceKeyMap<int> last = LastPieceByPlace(first, split, maxCount, next);
        const int full = ReplaceQueuedWritesIfFull(*w, [&](const RW_VAR& queued, RW_VAR* piece) {
            const auto found = last.find(PlaceKey(queued.address, queued.count));
            if (found == last.end()) return false;
            makePiece(found->second, piece);
            return true;
        });
        if (full >= 0) {
            // While the link is failing each piece shows in the image at
            // once, in order.
            RW_VAR piece = *w;
            for (int k = next; k < split.pieces; ++k) {
                if (!commErrorSet()) continue;
                makePiece(k, &piece);
                WriteDataToLocal(&piece);
            }
        }
        return full;
    };
    return QueueParts(w, split.pieces, makePiece, replaceRest);
}

int HandInValues(const QString& addr2, int dataType, const QString& addr, int station,
                 QByteArray* in, int count, int varId, int varSubId) {
    const int a = StringAddressToInt(dataType, addr);
    if (a < 0) return 0;
    if (count > kMaxWriteCount) return 0;  // no area holds that many elements

    const ComInfo& s = settings();
    const QByteArray values = in ? *in : QByteArray();
    RW_VAR w;
    w.varId = varId;
    w.varSubId = varSubId;
    w.aux2 = 1;  // a write's reply only confirms
    w.aux3 = s.remoteMode;
    w.linkNo = s.localLinkNo;
    w.addrText2 = addr2;
    w.addrText = addr;
    w.dataType = dataType;
    w.station = s.multiStation == 0 ? s.defaultStation : station;
    w.aux12 = 0;
    w.aux13 = 0;

    if (s.writeMode != 2) {  // the value only goes into the image
        w.address = a;
        w.count = count;
        w.data = values;
        WriteDataToLocal(&w);
        return 1;
    }

    if (IsBitType(dataType)) {
        if (count <= 0) return 0;
        return QueueBitWrites(&w, a, values, count);
    }

    if (dataType >= ABCL_WORD_A && dataType <= ABCL_REAL) {
        const PieceSplit split = SplitIntoPieces(count, s.maxCount);
        if (split.pieces == 0) return 0;
        return QueueWordWrites(&w, a, values, split, s.maxCount);
    }
    return 0;
}

}  // namespace

int GetRegisterData(int /*unused1*/, int dataType, QString addr, int /*unused2*/, QByteArray* out,
                    int count) {
    return AtTheBoundary(0, [&] { return CopyFromImage(dataType, addr, out, count); });
}

int SetRegisterData(QString addr2, int dataType, QString addr, int station, QByteArray* in,
                    int count, int varId, int varSubId) {
    return AtTheBoundary(0, [&] {
        return HandInValues(addr2, dataType, addr, station, in, count, varId, varSubId);
    });
}
