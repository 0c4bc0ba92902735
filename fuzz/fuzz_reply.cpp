// Reply handling under arbitrary replies: one request of a kind taken from the
// input is queued (a cyclic or one-shot read of any data type, a write, direct
// or remote), then several exchanges hand DataCom arbitrary bytes with
// arbitrary lengths (the true size, shorter, longer, zero, negative). The reply
// savers also run on the same bytes with arbitrary data positions, data sizes
// and addresses, and are held against the stepping rule of their data.
//
// Input layout (an exhausted input reads zeros):
//   0      flags: bit 0 remote mode, bit 1 several stations, bit 2 the
//          variable's link is not the local one, bit 3 small address and
//          count, bits 4-5 queue (0 cyclic, 1 write, 2 one-shot, 3 write and
//          cyclic), bit 6 the host zeroes replyDone before each exchange
//   1      data type (value % 7 - 1: -1 to 5)
//   2-5    address, 6-9 count (little-endian)
//   10     reply kind aux2 (% 3), 11 varId (% 14), 12 station,
//   13     transaction number (% 255), 14 retry limit (% 4)
//   15     n (% 65), then n value bytes
//   then up to 8 exchanges, each:
//          control: bits 0-2 length handed over (0-2 the reply's size, 3 zero,
//          4 size - d, 5 size + d, 6 -(d + 1), 7 a 32-bit value read next),
//          bit 3 frame the bytes as a DF1 reply (envelope and block check),
//          bit 4 also run the savers, bit 5 the request has already learnt
//          the reply's length, bit 6 a 16-bit reply size, bit 7 set replyDone
//          [replyDone byte if bit 7], d, size (8 or 16 bits), the bytes,
//          [32-bit length if mode 7],
//          [savers: dataPos, dataBytes, address (32-bit each), data type]
#include "fuzz_support.h"

#include "Func_DealData.h"

#include <QtCore/QList>

#include <algorithm>
#include <vector>

namespace {

// ABCL_FUZZ_TRACE=1 prints each exchange's outcome, to see what an input does.
bool Tracing() {
    static const bool on = std::getenv("ABCL_FUZZ_TRACE") != nullptr;
    return on;
}

enum QueueKind { kCyclic = 0, kWrite = 1, kOneShot = 2, kWriteAndCyclic = 3 };

int OnOneShotDone(int /*hostContext*/, int /*varId*/, int /*varSubId*/, int status) {
    FUZZ_CHECK(status == 1 || status == 2);
    return 0;
}

// 1 and 100 are the good codes; 0 a retry or a length being learnt; a
// failure is a base (10, 40, 70, 110, 140, 170) plus 1 to 12.
bool IsResultCode(int r) {
    if (r == 0 || r == 1 || r == 100) return true;
    for (int base : {10, 40, 70, 110, 140, 170})
        if (r > base && r <= base + 12) return true;
    return false;
}

void Queue(QueueKind kind, RW_VAR var) {
    if (kind == kWrite || kind == kWriteAndCyclic) AddListWriteVar(&var, 1);
    if (kind == kOneShot) AddListOnceReadVar(&var, 1);
    if (kind == kCyclic || kind == kWriteAndCyclic) AddListReadVar(&var);
}

// What a saver should leave in its area: the elements it stores, element i
// taking bytes from reply position dataPos + elementBytes * i + j + s, where s
// counts the 0x10 bytes read so far (each is followed by its double, which is
// never data). Storing ends at the first element not wholly inside the reply
// (positions before the reply included).
std::vector<uint32_t> ExpectedElements(const QByteArray& reply, int64_t dataPos, int64_t dataBytes,
                                       int elementBytes, int firstKept, int keptBytes) {
    std::vector<uint32_t> values;
    if (dataBytes < elementBytes) return values;
    const int64_t count = dataBytes / elementBytes;
    int64_t s = 0;
    for (int64_t i = 0; i < count; ++i) {
        const int64_t e = dataPos + elementBytes * i;
        if (e + elementBytes - 1 + s >= reply.size()) break;
        uint32_t value = 0;
        bool whole = true;
        for (int j = 0; j < elementBytes && whole; ++j) {
            const int64_t at = e + j + s;
            if (at < 0 || at >= reply.size()) {
                whole = false;
                break;
            }
            const uint8_t b = static_cast<uint8_t>(reply.at(static_cast<int>(at)));
            if (j >= firstKept && j < firstKept + keptBytes)
                value |= static_cast<uint32_t>(b) << (8 * (j - firstKept));
            if (b == fuzz::kDle) ++s;
        }
        if (!whole) break;
        values.push_back(value);
    }
    return values;
}

template <typename T>
std::vector<T> Snapshot(const T* area, int64_t first, int64_t last) {
    std::vector<T> out;
    for (int64_t i = first; i < last; ++i) out.push_back(area[i]);
    return out;
}

// Runs one saver into `area` with the request `p` on the wire and checks the
// area against the expected elements: stored where they lie inside the area,
// untouched just before the run and just after what was stored.
template <typename T, typename Saver>
void CheckSaver(Saver saver, const QByteArray& reply, const Protocol& p, T* area, int elementBytes,
                int firstKept, int keptBytes) {
    const std::vector<uint32_t> expected =
        ExpectedElements(reply, p.dataPos, p.dataBytes, elementBytes, firstKept, keptBytes);
    // The elements stored, one before them and some after them.
    const int64_t address = p.var.address;
    const int64_t lo = std::max<int64_t>(0, std::min<int64_t>(address - 1, kAreaElements));
    const int64_t hi = std::max<int64_t>(
        lo, std::min<int64_t>(address + static_cast<int64_t>(expected.size()) + 64, kAreaElements));
    const std::vector<T> old = Snapshot(area, lo, hi);

    QList<Protocol> onWire = PLC_driver.protocolList;
    PLC_driver.protocolList.clear();
    PLC_driver.protocolList.append(p);
    saver(reply, area);
    PLC_driver.protocolList = onWire;

    if (p.dataPos < 0) return;  // positions before the reply: nothing defined beyond safety
    for (int64_t i = lo; i < hi; ++i) {
        const int64_t k = i - address;
        const T want = (k >= 0 && k < static_cast<int64_t>(expected.size()))
                           ? static_cast<T>(expected[static_cast<size_t>(k)])
                           : old[static_cast<size_t>(i - lo)];
        FUZZ_CHECK(area[i] == want);
    }
}

void RunSavers(fuzz::Input& in, const QByteArray& reply) {
    Protocol p;
    p.dataPos = in.i32();
    p.dataBytes = in.i32();
    p.var.address = in.i32();
    p.var.dataType = static_cast<int>(in.u8() % 7) - 1;
    AB_ControlLogix_CompactLogix& d = PLC_driver;
    CheckSaver<uint16_t>(SaveWordToUS, reply, p, d.areaA, 2, 0, 2);
    CheckSaver<uint32_t>(SaveWordToUI, reply, p, d.areaD, 4, 0, 4);
    CheckSaver<uint16_t>(SaveT_C_PRE, reply, p, d.areaB, 6, 2, 2);
    CheckSaver<uint16_t>(SaveT_C_ACC, reply, p, d.areaB, 6, 4, 2);

    QList<Protocol> onWire = d.protocolList;
    d.protocolList.clear();
    d.protocolList.append(p);
    SaveToLocalDataErea(reply);
    d.protocolList = onWire;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::Input in(data, size);
    ComInfo& info = fuzz::ResetDriver();
    RegistCallBackFuncIntf(OnOneShotDone, 0);

    const uint8_t flags = in.u8();
    info.remoteMode = flags & 1;
    info.multiStation = (flags >> 1) & 1;
    const bool smallNumbers = (flags >> 3) & 1;
    const auto kind = static_cast<QueueKind>((flags >> 4) & 3);
    const bool hostZeroesReplyDone = (flags >> 6) & 1;

    RW_VAR var;
    var.dataType = static_cast<int>(in.u8() % 7) - 1;
    var.address = in.i32();
    var.count = in.i32();
    if (smallNumbers) {
        var.address = static_cast<uint16_t>(var.address);
        var.count = static_cast<uint8_t>(var.count) % 128;
    }
    // Write frames are as long as their values; keep them to a sensible size.
    if (kind == kWrite || kind == kWriteAndCyclic) var.count = fuzz::Clamp(var.count, -8, 2048);
    var.aux2 = in.u8() % 3;
    var.varId = in.u8() % 14;
    var.varSubId = 7;
    var.station = in.u8();
    var.linkNo = (flags >> 2) & 1;
    PLC_driver.tns = in.u8() % 255;
    info.retryLimit = in.u8() % 4;
    var.data = in.bytes(in.u8() % 65);
    var.addrText = QStringLiteral("7:0");
    Queue(kind, var);

    for (int exchange = 0; exchange < 8 && !in.empty(); ++exchange) {
        const uint8_t control = in.u8();
        if (control & 0x80) info.replyDone = in.u8() % 3;
        if (hostZeroesReplyDone) info.replyDone = 0;
        const int delta = in.u8();
        const size_t n = (control & 0x40) ? in.u16() % 1024 : in.u8();
        const QByteArray raw = in.bytes(n);
        const QByteArray reply = (control & 0x08) ? fuzz::Framed(raw) : raw;
        int len = reply.size();
        switch (control & 7) {
            case 3: len = 0; break;
            case 4: len = reply.size() - delta; break;
            case 5: len = reply.size() + delta; break;
            case 6: len = -(delta + 1); break;
            case 7: len = in.i32(); break;
            default: break;
        }

        Protocol* request = ComCommunication();
        if (!request)
            request = ComCommunication();  // after a burst of five the scheduler rests once
        if (!request) {
            Queue(kind, var);
            request = ComCommunication();
        }
        if (request) {
            FUZZ_CHECK(request == &PLC_driver.protocolList.first());
            FUZZ_CHECK(request->frameLen == request->frame.size());
            if (control & 0x20) request->replyLen = reply.size();
        }
        const bool processed = request && request->replyLen != -1;

        RW_VAR* current = DataCom(reply, len);
        FUZZ_CHECK(current == &PLC_driver.current);
        FUZZ_CHECK(IsResultCode(current->result));
        FUZZ_CHECK(PLC_driver.protocolList.size() <= 1);
        FUZZ_CHECK(PLC_driver.writeList.size() <= 1 + exchange + 1);
        FUZZ_CHECK(PLC_driver.onceReadList.size() <= 1 + exchange + 1);
        if (processed) {
            // The transaction number runs 1 to 254 and skips DLE.
            FUZZ_CHECK(PLC_driver.tns >= 1 && PLC_driver.tns <= 254 &&
                       PLC_driver.tns != fuzz::kDle);
        }
        if (!request) FUZZ_CHECK(current->result == 1);

        if (Tracing())
            std::fprintf(stderr, "exchange %d: %s request, reply %d bytes, len %d -> result %d\n",
                         exchange, request ? "with" : "no", reply.size(), len, current->result);
        if (control & 0x10) RunSavers(in, reply);
    }
    return 0;
}
