// The whole host interface at once: an input is a sequence of calls of all 13
// entry points with hostile records (counts huge and negative, data types out
// of range, address texts of every shape, null pointers where the signature
// allows them, odd settings), interleaved with exchanges whose replies are
// shaped for the request actually on the wire and then mutated. Rebuilds of
// the cyclic list, settings changes, redirects of the settings record, retries
// and purges happen in the middle of whatever is queued.
//
// After every call the target checks what the interface promises:
//   - every result is one of the documented values (396, 1, list lengths,
//     0 for an invalid address, DataCom's codes with the sub-code of the
//     variable that failed, 1 when nothing was on the wire);
//   - at most one request is on the wire, and ComCommunication hands out the
//     head of the queue it chose;
//   - the write and one-shot queues hold at most 1,024 entries, apart from
//     entries appended with mode 1 (which bypasses the limit);
//   - the transaction number steps by the rule (1 to 254, never 0x10) on every
//     processed reply and only then;
//   - retries, reported failures and purges leave the queues as documented;
//   - the one-shot callback runs only inside DataCom, with the list lock held,
//     status 1 or 2 matching the link's state, for the one-shot read at the
//     head of its queue that was queued through AddListOnceReadVar, exactly
//     when the documented rule says it must;
//   - GetRegisterData never grows the host's array past the bytes it
//     documents for the count and never changes a byte after them;
//   - SetRegisterData leaves the host's array alone.
// AddressSanitizer and UndefinedBehaviorSanitizer watch memory and arithmetic.
//
// Work per input is bounded: the driver accepts up to 65,536 pieces per
// variable and write frames of up to 2^20 elements, which would make single
// inputs take seconds. Counts are therefore capped so that one call splits
// into at most 4,096 pieces and a write carries at most 4,096 elements
// (counts above 2^20, which SetRegisterData refuses at once, pass through);
// the paths behind the caps are the same ones, only shorter.
//
// Input layout (an exhausted input reads zeros):
//   0      settings flags: bit 0 remote mode, bit 1 several stations, bits 2-3
//          write mode (0, 1, 2, 7), bit 4 no callback, bit 5 no settings
//          record (SetComInfo(nullptr)), bits 6-7 maxCount kind (0: byte % 65,
//          1: byte, 2: -(byte % 65), 3: extreme)
//   1      maxCount byte; 2 retry limit (signed byte % 5); 3 default station;
//   4      local link number (% 3); 5 transaction number (% 255)
//   then up to 64 operations, each an operation byte (% 16) and its fields:
//     0 FlashLocalRegister   1 SetComInfo        2 RegistCallBackFuncIntf
//     3 QueryFinishFlag      4 PLCAddressChangeIntef
//     5 AddListReadVar       6 ReCreatReadVarList 7 AddListWriteVar
//     8 AddListOnceReadVar   9 SetRegisterData   10 GetRegisterData
//     11, 13-15 exchanges    12 the host changes one settings field
//   A variable is: form (bit 0 and 7 together: null; bit 1 a 32-bit address;
//   bits 3-4 aux2; bits 5-6 link number), data type, count, varId, varSubId,
//   station, address, address text, n and n value bytes. Counts, data types
//   and texts are read by Count, DataType and AddressText below.
//   An exchange is: control (bits 0-1 reply source: shaped for the request,
//   the peer controller's answer, input bytes, silence; bit 2 frame the input
//   bytes; bits 3-5 length handed over: 0-2 the reply's size, 3 zero, 4 size
//   - d, 5 size + d, 6 -(d + 1), 7 a 32-bit value; bit 6 mutate; bit 7 the
//   host zeroes replyDone first), turns (% 8 + 1), d, a seed for the data,
//   [mutations], [input bytes], [32-bit length].
#include "fuzz_support.h"

#include "Func_Initi.h"
#include "linked_controller.h"
#include "peer/controller.h"
#include "peer/df1.h"
#include "peer/remote_link.h"
#include "peer/tag_memory.h"

#include <QtCore/QList>

#include <algorithm>
#include <climits>
#include <memory>
#include <set>
#include <utility>
#include <vector>

namespace {

constexpr int kQueueCapacity = 1024;  // write and one-shot queues, mode 1 aside
constexpr int kMaxOperations = 64;
constexpr int64_t kMaxPiecesPerCall = 4096;
constexpr int64_t kMaxWriteElements = 4096;
constexpr int64_t kMaxBitWrites = 1100;  // each bit is its own queued write
constexpr int64_t kRefusedWriteCount = int64_t{1} << 20;
constexpr int kMaxReplyDataBytes = 2048;
constexpr int kMaxListItems = 16;
constexpr int kLengthNotLearnt = -1;  // a read's reply length before its first reply
constexpr int kLowestTns = 1;
constexpr int kHighestTns = 254;

enum Queue { kCyclic = 0, kWrite = 1, kOneShot = 2 };

// ABCL_FUZZ_TRACE=1 prints each operation and exchange, to see what an input does.
bool Tracing() {
    static const bool on = std::getenv("ABCL_FUZZ_TRACE") != nullptr;
    return on;
}

// What the target remembers over one input.
struct History {
    std::set<std::pair<int, int>> queuedOnce;  // varId, varSubId of queued one-shot reads
    int forcedWrites = 0;                      // mode 1 appends, exempt from the limit
    int forcedOnce = 0;
    bool replyProcessed = false;
    bool inDataCom = false;
    bool inComCommunication = false;
    int callbacks = 0;
};
History g_history;

ComInfo& OtherRecord() {
    static ComInfo other;
    return other;
}

bool ListLockHeld() {
    if (!PLC_driver.listMutex.tryLock()) return true;
    PLC_driver.listMutex.unlock();
    return false;
}

int OnOneShotDone(int hostContext, int varId, int varSubId, int status) {
    const AB_ControlLogix_CompactLogix& d = PLC_driver;
    FUZZ_CHECK(ListLockHeld());
    if (kHardened && g_history.inComCommunication) {
        // A one-shot read that built no frame, taken out of its queue and
        // reported failed.
        FUZZ_CHECK(status == 2 && hostContext == settings().hostContext);
        FUZZ_CHECK(g_history.queuedOnce.count({varId, varSubId}) == 1);
        return 0;
    }
    FUZZ_CHECK(g_history.inDataCom);
    FUZZ_CHECK(status == 1 || status == 2);
    FUZZ_CHECK(status == (commErrorSet() ? 2 : 1));
    FUZZ_CHECK(hostContext == settings().hostContext);
    FUZZ_CHECK(g_history.queuedOnce.count({varId, varSubId}) == 1);
    FUZZ_CHECK(!d.onceReadList.isEmpty() && d.onceReadList.first().varId == varId &&
               d.onceReadList.first().varSubId == varSubId);
    ++g_history.callbacks;
    return 0;
}

// ---- values from the input ---------------------------------------------------

int32_t Count(fuzz::Input& in) {
    switch (in.u8() % 8) {
        case 0:
        case 1:
        case 2: return in.u8();
        case 3: return -static_cast<int32_t>(in.u8());
        case 4: return in.u16();
        case 5: return (in.u8() & 1) ? INT32_MAX : INT32_MIN;
        case 6: return in.i32();
        default: return static_cast<int32_t>(in.u8()) * 257;
    }
}

// Mostly -1 to 5; the top of the byte range gives far-off values.
int32_t DataType(uint8_t b) {
    if (b < 0xE0) return b % 7 - 1;
    if (b == 0xFF) return INT32_MAX;
    if (b == 0xFE) return INT32_MIN;
    return static_cast<int8_t>(b) * 65537;
}

int32_t MaxCount(uint8_t kind, uint8_t b) {
    switch (kind & 3) {
        case 0: return b % 65;
        case 1: return b;
        case 2: return -(b % 65);
        default: {
            static const int32_t extreme[] = {INT32_MAX, INT32_MIN, 65536, -65536, 1, -1, 4096, 0};
            return extreme[b % 8];
        }
    }
}

QString AddressText(fuzz::Input& in) {
    const uint8_t kind = in.u8();
    switch (kind % 10) {
        case 0: return QStringLiteral("%1:%2").arg(in.u8()).arg(in.u8());
        case 1: return QStringLiteral("%1:%2/%3").arg(in.u8()).arg(in.u8()).arg(in.u8() % 17);
        case 2: return fuzz::Text(in.bytes(in.u8() % 24), true);
        case 3: return fuzz::Text(in.bytes(in.u8() % 24), false);
        case 4: return QString();
        case 5: return QStringLiteral("-%1:%2").arg(in.u8()).arg(in.u8());
        case 6: {
            static const char* const edges[] = {"2147483647:0/0", "4095:255/15", "255:255",
                                                "256:0",          "7:",          "7/1:3",
                                                "99999999999:1",  " 7 : +10 "};
            return QString::fromLatin1(edges[in.u8() % 8]);
        }
        case 7: return QStringLiteral("N%1:%2").arg(in.u8()).arg(in.u16());
        case 8: return QStringLiteral("%1:%2").arg(in.u16() % 4097).arg(in.u16() % 300);
        default: return QStringLiteral("%1:%2/%3").arg(in.u16() % 4097).arg(in.u8()).arg(in.u8());
    }
}

// A count that splits into at most kMaxPiecesPerCall pieces of maxCount (a
// zero maxCount makes one piece of any count).
int32_t CapPieces(int32_t count, int32_t maxCount) {
    if (maxCount == 0) return count;
    const int64_t m = maxCount < 0 ? -static_cast<int64_t>(maxCount) : maxCount;
    const int64_t limit = m * (kMaxPiecesPerCall - 2);
    return fuzz::Clamp(count, -limit, limit);
}

// A write's count: frames grow with it, so it is kept to kMaxWriteElements;
// counts the driver refuses at once pass through.
int32_t CapWrite(int32_t count) {
    if (count > kRefusedWriteCount) return count;
    return fuzz::Clamp(count, -kMaxWriteElements, kMaxWriteElements);
}

struct HostVar {
    RW_VAR var;
    bool null = false;
};

HostVar ReadVar(fuzz::Input& in) {
    HostVar h;
    const uint8_t form = in.u8();
    h.null = (form & 0x81) == 0x81;
    RW_VAR& v = h.var;
    v.dataType = DataType(in.u8());
    v.count = Count(in);
    v.varId = in.u8() % 16;
    v.varSubId = static_cast<int>(in.u8() % 4) - 1;
    v.station = in.u8();
    v.address = (form & 2) ? in.i32() : in.u16();
    v.aux2 = (form >> 3) & 3;
    if (v.aux2 == 3) v.aux2 = -1;
    v.linkNo = (form >> 5) & 3;
    v.aux3 = form;
    v.aux12 = form * 3;
    v.aux13 = -form;
    v.addrText = AddressText(in);
    v.addrText2 = QStringLiteral("host");
    v.data = in.bytes(in.u8() % 65);
    return h;
}

// ---- checks that hold after every call ----------------------------------------------

void CheckAlways() {
    const AB_ControlLogix_CompactLogix& d = PLC_driver;
    FUZZ_CHECK(d.protocolList.size() <= 1);
    FUZZ_CHECK(d.writeList.size() <= kQueueCapacity + g_history.forcedWrites);
    FUZZ_CHECK(d.onceReadList.size() <= kQueueCapacity + g_history.forcedOnce);
    if (g_history.replyProcessed)
        FUZZ_CHECK(d.tns >= kLowestTns && d.tns <= kHighestTns && d.tns != fuzz::kDle);
}

int NextTns(int tns) {
    int next = tns + 1;
    if (next > kHighestTns) next = kLowestTns;
    if (next == fuzz::kDle) next = fuzz::kDle + 1;
    return next;
}

bool HasEntryOf(const QList<RW_VAR>& list, int32_t station) {
    return std::any_of(list.cbegin(), list.cend(),
                       [station](const RW_VAR& e) { return e.station == station; });
}

bool SameRequest(const RW_VAR& sent, const RW_VAR& head, int32_t address) {
    return sent.varId == head.varId && sent.varSubId == head.varSubId &&
           sent.station == head.station && sent.dataType == head.dataType &&
           sent.count == head.count && sent.address == address;
}

// ---- the exchange -----------------------------------------------------------------------

Protocol* CheckedComCommunication() {
    const AB_ControlLogix_CompactLogix& d = PLC_driver;
    const bool idle = d.protocolList.isEmpty();
    const int writes = d.writeList.size();
    const int once = d.onceReadList.size();
    const int cyclic = d.readList.size();
    g_history.inComCommunication = true;
    Protocol* p = ComCommunication();
    g_history.inComCommunication = false;
    if (kHardened) {
        // The hardened build drops entries that build no frame, from the head
        // of their queues; it never adds one.
        FUZZ_CHECK(d.writeList.size() <= writes && d.onceReadList.size() <= once &&
                   d.readList.size() <= cyclic);
    } else {
        FUZZ_CHECK(d.writeList.size() == writes && d.onceReadList.size() == once &&
                   d.readList.size() == cyclic);
    }
    if (!p) {
        FUZZ_CHECK(d.protocolList.isEmpty());
        if (d.writeList.isEmpty() && d.onceReadList.isEmpty() && d.readList.isEmpty())
            FUZZ_CHECK(settings().cycleDone == 1);
        return p;
    }
    FUZZ_CHECK(p == &d.protocolList.first());
    FUZZ_CHECK(p->frameLen == p->frame.size() && !p->frame.isEmpty());
    if (!idle) return p;
    // A request built now serves the head of the queue the scheduler chose.
    FUZZ_CHECK(d.mode == kWrite || d.mode == kOneShot || d.mode == kCyclic);
    switch (d.mode) {
        case kWrite:
            FUZZ_CHECK(writes > 0 &&
                       SameRequest(p->var, d.writeList.first(), d.writeList.first().address));
            break;
        case kOneShot: {
            FUZZ_CHECK(once > 0);
            const RW_VAR& head = d.onceReadList.first();
            const int32_t address = IsBitType(head.dataType) ? head.address >> 4 : head.address;
            FUZZ_CHECK(SameRequest(p->var, head, address));
            break;
        }
        case kCyclic:
            FUZZ_CHECK(cyclic > 0 &&
                       SameRequest(p->var, d.readList.first(), d.readList.first().address));
            break;
        default: break;
    }
    return p;
}

// The driver's state just before DataCom, for the checks after it.
struct BeforeDataCom {
    bool hadRequest = false;
    bool learning = false;
    bool local = false;
    int varId = 0;
    int mode = 0;
    int tns = 0;
    int writes = 0;
    int once = 0;
    int cyclic = 0;
    bool laterDuplicate = false;
    bool callBack = false;
};

BeforeDataCom Capture() {
    const AB_ControlLogix_CompactLogix& d = PLC_driver;
    BeforeDataCom b;
    b.hadRequest = !d.protocolList.isEmpty();
    if (b.hadRequest) {
        const Protocol& p = d.protocolList.first();
        b.learning = p.replyLen == kLengthNotLearnt;
        b.local = p.var.linkNo == settings().localLinkNo;
        b.varId = p.var.varId;
    }
    b.mode = d.mode;
    b.tns = d.tns;
    b.writes = d.writeList.size();
    b.once = d.onceReadList.size();
    b.cyclic = d.readList.size();
    if (!d.onceReadList.isEmpty()) {
        const RW_VAR& e = d.onceReadList.first();
        for (int i = 1; i < d.onceReadList.size() && !b.laterDuplicate; ++i)
            b.laterDuplicate = d.onceReadList.at(i).varId == e.varId &&
                               d.onceReadList.at(i).varSubId == e.varSubId;
    }
    b.callBack = d.callBack != nullptr;
    return b;
}

bool IsFailureCode(int result, bool local, int varId) {
    const int sub = (varId >= 1 && varId <= 11) ? varId + 1 : 1;
    const int bases[] = {10, 40, 70};
    for (int base : bases)
        if (result == (local ? base : base + 100) + sub) return true;
    return false;
}

// Queue lengths after a processed exchange that was finished (good and
// complete, or a reported failure).
void CheckAdvanced(const BeforeDataCom& b, bool good) {
    const AB_ControlLogix_CompactLogix& d = PLC_driver;
    const ComInfo& s = settings();
    FUZZ_CHECK(d.readList.size() == b.cyclic);
    if (!good) {
        // Nothing queued for the failed link is kept.
        if (s.multiStation == 0) {
            FUZZ_CHECK(d.writeList.isEmpty() && d.onceReadList.isEmpty());
        } else {
            FUZZ_CHECK(!HasEntryOf(d.writeList, d.current.station));
            FUZZ_CHECK(!HasEntryOf(d.onceReadList, d.current.station));
        }
        return;
    }
    const int writes = b.writes - (b.mode == kWrite && b.writes > 0 ? 1 : 0);
    const int once = b.once - (b.mode == kOneShot && b.once > 0 ? 1 : 0);
    FUZZ_CHECK(d.writeList.size() == writes && d.onceReadList.size() == once);
}

void CheckedDataCom(const QByteArray& reply, int len) {
    const AB_ControlLogix_CompactLogix& d = PLC_driver;
    const ComInfo& s = settings();
    const BeforeDataCom b = Capture();
    g_history.callbacks = 0;
    g_history.inDataCom = true;
    const RW_VAR* current = DataCom(reply, len);
    g_history.inDataCom = false;
    FUZZ_CHECK(current == &d.current);
    FUZZ_CHECK(current->data.isEmpty());
    const int result = current->result;
    const bool queuesKept = d.writeList.size() == b.writes && d.onceReadList.size() == b.once &&
                            d.readList.size() == b.cyclic;

    if (!b.hadRequest) {
        FUZZ_CHECK(result == 1 && d.tns == b.tns && g_history.callbacks == 0 && queuesKept);
        return;
    }
    // The hardened build fails a length-learning exchange without a usable
    // reply like any other exchange: only a learnt length is checked here.
    if (b.learning && (!kHardened || result == 1)) {
        // The first reply only fixes the length; the request stays on the wire.
        FUZZ_CHECK(result == 0 || result == 1);
        FUZZ_CHECK(d.tns == b.tns && g_history.callbacks == 0 && queuesKept);
        FUZZ_CHECK(d.protocolList.size() == 1);
        const int learnt = d.protocolList.first().replyLen;
        FUZZ_CHECK(result == 1 ? learnt == reply.size() : learnt == kLengthNotLearnt);
        return;
    }

    g_history.replyProcessed = true;
    FUZZ_CHECK(d.tns == NextTns(b.tns));
    FUZZ_CHECK(d.protocolList.isEmpty());
    if (result == 0) {
        // Retried: the entry is still at the head of its queue.
        FUZZ_CHECK(commErrorSet() && queuesKept && g_history.callbacks == 0);
        FUZZ_CHECK(s.retryCount >= 1 && s.retryCount <= s.retryLimit);
        return;
    }
    const bool good = result == 1 || result == 100;
    if (good) {
        FUZZ_CHECK(b.local ? result == 1 : true);
        FUZZ_CHECK(!commErrorSet());
    } else {
        FUZZ_CHECK(IsFailureCode(result, b.local, b.varId));
        FUZZ_CHECK(commErrorSet() && s.retryCount == 0);
    }
    const bool finished = !good || s.replyDone >= s.replyTotal;
    if (!finished) {
        FUZZ_CHECK(queuesKept && g_history.callbacks == 0);
        return;
    }
    CheckAdvanced(b, good);
    const bool callbackDue =
        b.mode == kOneShot && b.local && b.once > 0 && !b.laterDuplicate && b.callBack;
    FUZZ_CHECK(g_history.callbacks == (callbackDue ? 1 : 0));
}

bool IsRemoteFrame(const QByteArray& frame) {
    return !frame.isEmpty() && static_cast<uint8_t>(frame.at(0)) != fuzz::kDle;
}

// A reply as the request on the wire asks for it: the reply builder's read
// reply with exactly the data bytes the request expects, its write
// acknowledgement, or the remote partner's answer, each in the DF1 envelope
// with a correct block check.
QByteArray ShapedReply(const Protocol& p, uint8_t seed, peer::TagMemory& memory) {
    const uint8_t tns = replies::RequestTns(p);
    if (IsRemoteFrame(p.frame)) {
        const std::vector<uint8_t> frame = replies::ToBytes(p.frame);
        const auto request = peer::DecodeRemoteFrame(frame.data(), frame.size());
        const uint8_t transaction = static_cast<uint8_t>(PLC_driver.tns);
        if (request)
            return replies::Framed(
                replies::ToQt(peer::AnswerRemoteRequest(*request, memory, transaction)));
        return replies::Framed(QByteArray(20, static_cast<char>(seed)));
    }
    if (p.dataPos > 0) {
        const int bytes = std::max(0, std::min(p.dataBytes, kMaxReplyDataBytes));
        if (p.var.dataType == ABCL_REAL) {
            std::vector<uint32_t> values(static_cast<size_t>(bytes / 4));
            for (size_t i = 0; i < values.size(); ++i)
                values[i] = 0x3F800000u + seed * 0x10101u + static_cast<uint32_t>(i) * 0x1000u;
            return replies::RealReadReply(tns, values);
        }
        std::vector<uint16_t> words(static_cast<size_t>(bytes / 2));
        for (size_t i = 0; i < words.size(); ++i)
            words[i] = static_cast<uint16_t>(seed * 0x0101u + i * 0x1111u);
        return replies::WordReadReply(tns, words);
    }
    return replies::WriteReply(tns, IsBitType(p.var.dataType) ? peer::cip::kReadModifyWriteTag
                                                              : peer::cip::kWriteTagFragmented);
}

// What the peer controller answers to the frame, acknowledgement included.
QByteArray ControllerReply(const Protocol& p, peer::TagMemory& memory) {
    peer::ControllerOptions options;
    options.mode = IsRemoteFrame(p.frame) ? peer::LinkMode::kRemote : peer::LinkMode::kDirect;
    peer::Controller controller(memory, options);
    return replies::AnswerOf(controller, p.frame);
}

struct Mutation {
    uint8_t kind = 0;
    uint16_t position = 0;
    uint8_t value = 0;
    QByteArray extra;
};

void Mutate(QByteArray& reply, const Mutation& m) {
    const int size = reply.size();
    switch (m.kind % 4) {
        case 0:
            if (size > 0) {
                const int at = m.position % size;
                reply[at] = static_cast<char>(reply.at(at) ^ (m.value | 1));
            }
            break;
        case 1: reply.truncate(m.position % (size + 1)); break;
        case 2: reply.append(m.extra); break;
        default: reply.insert(m.position % (size + 1), static_cast<char>(fuzz::kDle)); break;
    }
}

void Exchange(fuzz::Input& in, peer::TagMemory& memory) {
    const uint8_t control = in.u8();
    const int turns = 1 + in.u8() % 8;
    const int delta = in.u8();
    const uint8_t seed = in.u8();
    std::vector<Mutation> mutations;
    if (control & 0x40) {
        for (int more = 1; more && mutations.size() < 3;) {
            Mutation m;
            m.kind = in.u8();
            m.position = in.u16();
            m.value = in.u8();
            if (m.kind % 4 == 2) m.extra = in.bytes(m.value % 32);
            more = m.kind & 0x80;
            mutations.push_back(m);
        }
    }
    const int source = control & 3;
    QByteArray raw;
    if (source == 2) {
        raw = in.bytes(in.u8());
        if (control & 4) raw = fuzz::Framed(raw);
    }
    const int lengthMode = (control >> 3) & 7;
    const int32_t chosenLength = lengthMode == 7 ? in.i32() : 0;

    for (int turn = 0; turn < turns; ++turn) {
        if ((control & 0x80) && PLC_driver.comInfo) PLC_driver.comInfo->replyDone = 0;
        const Protocol* p = CheckedComCommunication();
        CheckAlways();
        QByteArray reply;
        if (p && source == 0) reply = ShapedReply(*p, static_cast<uint8_t>(seed + turn), memory);
        if (p && source == 1) reply = ControllerReply(*p, memory);
        if (source == 2) reply = raw;
        for (const Mutation& m : mutations) Mutate(reply, m);
        int len = reply.size();
        switch (lengthMode) {
            case 3: len = 0; break;
            case 4: len = reply.size() - delta; break;
            case 5: len = reply.size() + delta; break;
            case 6: len = -(delta + 1); break;
            case 7: len = chosenLength; break;
            default: break;
        }
        CheckedDataCom(reply, len);
        CheckAlways();
        if (Tracing())
            std::fprintf(stderr,
                         "  turn %d: %s queue %d, reply %d bytes, len %d -> result %d, "
                         "%d callback(s); queues w%d o%d c%d\n",
                         turn, p ? "request from" : "nothing,", PLC_driver.mode, reply.size(), len,
                         PLC_driver.current.result, g_history.callbacks,
                         PLC_driver.writeList.size(), PLC_driver.onceReadList.size(),
                         PLC_driver.readList.size());
    }
}

// ---- the list and image entry points -----------------------------------------------------

void AddRead(fuzz::Input& in) {
    HostVar h = ReadVar(in);
    const int before = PLC_driver.readList.size();
    const int length = AddListReadVar(h.null ? nullptr : &h.var);
    FUZZ_CHECK(length == PLC_driver.readList.size());
    FUZZ_CHECK(length == before + (h.null ? 0 : 1));
}

void Rebuild(fuzz::Input& in) {
    const uint8_t form = in.u8();
    const bool noList = (form & 0x60) == 0x60;
    const bool nullEntries = form & 0x80;
    const int n = form % (kMaxListItems + 1);
    const ComInfo& s = settings();
    std::vector<std::unique_ptr<ReadVarItem>> owned;
    QList<ReadVarItem*> items;
    for (int i = 0; i < n; ++i) {
        auto item = std::make_unique<ReadVarItem>();
        const uint8_t type = in.u8();
        item->dataType = type < 0xF0 ? type % 6 : type;
        item->count = CapPieces(Count(in), s.maxCount);
        item->addrText = AddressText(in);
        item->addrText2 = QStringLiteral("item%1").arg(i);
        items.append(item.get());
        if (nullEntries && (type & 1)) items.append(nullptr);
        owned.push_back(std::move(item));
    }
    const int length = ReCreatReadVarList(noList ? nullptr : &items);
    const QList<RW_VAR>& built = PLC_driver.readList;
    FUZZ_CHECK(length == built.size());
    if (noList || items.isEmpty() || s.multiStation != 0) {
        FUZZ_CHECK(length == 0);
        return;
    }
    FUZZ_CHECK(s.cycleDone == 0 && PLC_driver.cycleCount == 0);
    int previousType = ABCL_BIT_A;
    for (const RW_VAR& r : built) {
        FUZZ_CHECK(r.dataType >= previousType && r.dataType <= ABCL_REAL);
        previousType = r.dataType;
        FUZZ_CHECK(r.varId == 0 && r.varSubId == -1 && r.aux2 == 0 && r.data.isEmpty());
        FUZZ_CHECK(r.station == s.defaultStation && r.linkNo == s.localLinkNo);
        if (s.maxCount > 0) FUZZ_CHECK(r.count <= s.maxCount);
    }
}

int QueueMode(uint8_t b) {
    static const int modes[] = {0, 1, 2, -1};
    return modes[b % 4];
}

void AddWrite(fuzz::Input& in) {
    const int mode = QueueMode(in.u8());
    HostVar h = ReadVar(in);
    h.var.count = CapWrite(h.var.count);
    const QList<RW_VAR>& list = PLC_driver.writeList;
    const int before = list.size();
    bool replaces = false;
    for (int i = 1; i < before && !replaces; ++i) {
        const RW_VAR& e = list.at(i);
        replaces = e.station == h.var.station && e.dataType == h.var.dataType &&
                   e.address == h.var.address && e.count == h.var.count;
    }
    const int length = AddListWriteVar(h.null ? nullptr : &h.var, mode);
    FUZZ_CHECK(length == list.size());
    int expected = before;
    if (h.null)
        expected = before;
    else if (mode == 1 || before <= 1)
        expected = before + 1;
    else if (!replaces && before < kQueueCapacity)
        expected = before + 1;
    FUZZ_CHECK(length == expected);
    if (!h.null && mode == 1 && before >= kQueueCapacity) ++g_history.forcedWrites;
}

void AddOnce(fuzz::Input& in) {
    const int mode = QueueMode(in.u8());
    HostVar h = ReadVar(in);
    const ComInfo& s = settings();
    h.var.count = CapPieces(h.var.count, s.maxCount);
    const QList<RW_VAR>& list = PLC_driver.onceReadList;
    const int before = list.size();
    const int address = StringAddressToInt(h.var.dataType, h.var.addrText);
    const int length = AddListOnceReadVar(h.null ? nullptr : &h.var, mode);
    if (h.null) {
        FUZZ_CHECK(length == 0 && list.size() == before);
        return;
    }
    if (mode == 1) {
        FUZZ_CHECK(length == before + 1 && length == list.size());
        if (before >= kQueueCapacity) ++g_history.forcedOnce;
    } else if (address < 0) {
        FUZZ_CHECK(length == 0 && list.size() == before);
        return;
    } else if (kHardened && length == 0) {
        // Nothing of the read lies in a local area, or its count is below
        // 1: the hardened build queues nothing.
        FUZZ_CHECK(list.size() == before);
        return;
    } else {
        FUZZ_CHECK(length == list.size() && length >= before);
        FUZZ_CHECK(length <= std::max(before, kQueueCapacity));
        FUZZ_CHECK(h.var.aux12 == 0 && h.var.aux13 == 0);
    }
    const int varId = h.var.varId;
    const int varSubId = h.var.varSubId;
    if (std::any_of(list.cbegin(), list.cend(),
                    [&](const RW_VAR& e) { return e.varId == varId && e.varSubId == varSubId; }))
        g_history.queuedOnce.insert({varId, varSubId});
}

void SetData(fuzz::Input& in) {
    const uint8_t form = in.u8();
    const int dataType = DataType(in.u8());
    const QString text = AddressText(in);
    const int station = in.u8();
    const QByteArray values = in.bytes(in.u8() % 65);
    int count = Count(in);
    const int varId = in.u8();
    const int varSubId = in.u8();
    const ComInfo& s = settings();
    if (s.writeMode == 2) {
        count = CapWrite(count);
        if (count <= kRefusedWriteCount) {
            const int64_t m = s.maxCount < 0 ? -static_cast<int64_t>(s.maxCount) : s.maxCount;
            const int64_t limit =
                IsBitType(dataType) ? kMaxBitWrites : std::max<int64_t>(1, m) * kMaxBitWrites;
            count = fuzz::Clamp(count, -limit, limit);
        }
    }
    QByteArray in2 = values;
    const QList<RW_VAR>& list = PLC_driver.writeList;
    const int before = list.size();
    const int result = SetRegisterData(QStringLiteral("text2"), dataType, text, station,
                                       (form & 1) ? nullptr : &in2, count, varId, varSubId);
    FUZZ_CHECK(in2 == values);  // the host's array is only read
    const int address = StringAddressToInt(dataType, text);
    if (address < 0 || count > kRefusedWriteCount) {
        FUZZ_CHECK(result == 0 && list.size() == before);
    } else if (s.writeMode != 2) {
        FUZZ_CHECK(result == 1 && list.size() == before);
    } else {
        FUZZ_CHECK(result == 0 || result == list.size());
        if (result == 0) FUZZ_CHECK(list.size() == before);
        FUZZ_CHECK(list.size() >= before && list.size() <= std::max(before, kQueueCapacity));
    }
}

// Bytes GetRegisterData may fill for a count: one per bit, two per word, four
// per 32-bit value (counted in 16-bit units).
int64_t DocumentedBytes(int dataType, int64_t count) {
    if (count <= 0) return 0;
    switch (dataType) {
        case ABCL_BIT_A:
        case ABCL_BIT_B: return count;
        case ABCL_WORD_A:
        case ABCL_WORD_B: return 2 * count;
        case ABCL_REAL: return 4 * (count / 2);
        default: return 0;
    }
}

void GetData(fuzz::Input& in) {
    const uint8_t form = in.u8();
    const int dataType = DataType(in.u8());
    const QString text = AddressText(in);
    const int count = Count(in);
    const QByteArray before((form >> 2) & 31, '\xA5');
    QByteArray out = before;
    const int result =
        GetRegisterData(in.u8(), dataType, text, form, (form & 1) ? nullptr : &out, count);
    const int address = StringAddressToInt(dataType, text);
    FUZZ_CHECK(result == (address < 0 ? 0 : 1));
    const bool untouched = address < 0 || settings().multiStation != 0;
    const int64_t extent = untouched ? 0 : DocumentedBytes(dataType, count);
    FUZZ_CHECK(out.size() >= before.size());
    FUZZ_CHECK(out.size() <= std::max<int64_t>(before.size(), extent));
    for (int64_t i = extent; i < before.size(); ++i)
        FUZZ_CHECK(out.at(static_cast<int>(i)) == before.at(static_cast<int>(i)));
}

void ConvertAddress(fuzz::Input& in) {
    const int dataType = DataType(in.u8());
    const QString text = AddressText(in);
    const int a = PLCAddressChangeIntef(dataType, text);
    FUZZ_CHECK(a == StringAddressToIntBySplitting(dataType, text));
    if (IsBitType(dataType) &&
        (!text.contains(QLatin1Char(':')) || !text.contains(QLatin1Char('/'))))
        FUZZ_CHECK(a == -1);
}

// ---- wiring and settings --------------------------------------------------------------------

void Register(fuzz::Input& in) {
    const uint8_t form = in.u8();
    void* const choices[] = {nullptr, &g_history, &OtherRecord(),
                             reinterpret_cast<void*>(static_cast<uintptr_t>(in.u16()) << 4)};
    void* lb = choices[form % 4];
    void* lw = choices[(form >> 2) % 4];
    void* rwi = choices[(form >> 4) % 4];
    FUZZ_CHECK(FlashLocalRegister(lb, lw, rwi) == 396);
    FUZZ_CHECK(LB == lb && LW == lw && RWI == rwi);
}

void Redirect(fuzz::Input& in) {
    const uint8_t which = in.u8() % 3;
    ComInfo* record = nullptr;
    if (which == 0) record = &fuzz::Settings();
    if (which == 1) {
        // The host moves its settings to another record.
        record = &OtherRecord();
        *record = settings();
    }
    if (record) record->startFlagA = record->startFlagB = -1;
    SetComInfo(record);
    FUZZ_CHECK(PLC_driver.comInfo == record);
    if (record) FUZZ_CHECK(record->startFlagA == 0 && record->startFlagB == 0);
}

void RegisterCallback(fuzz::Input& in) {
    const uint8_t form = in.u8();
    const int context = in.i32();
    const CallBackFunc f = (form & 1) ? nullptr : &OnOneShotDone;
    RegistCallBackFuncIntf(f, context);
    FUZZ_CHECK(PLC_driver.callBack == f && PLC_driver.callBackCtx == context);
}

void ChangeSettings(fuzz::Input& in) {
    const uint8_t field = in.u8();
    const uint8_t b = in.u8();
    ComInfo* s = PLC_driver.comInfo;
    if (!s) return;  // the driver's own defaults are not the host's to change
    switch (field % 12) {
        case 0: s->maxCount = MaxCount(field >> 4, b); break;
        case 1: s->multiStation = b & 1; break;
        case 2: s->remoteMode = b & 1; break;
        case 3: s->writeMode = b % 4; break;
        case 4: s->retryLimit = static_cast<int8_t>(b) % 5; break;
        case 5: s->retryCount = (b & 1) ? 0 : b % 4; break;
        case 6: s->replyDone = b % 3; break;
        case 7: s->replyTotal = b % 3; break;
        case 8: s->localLinkNo = b % 3; break;
        case 9: s->defaultStation = b; break;
        case 10: s->hostContext = b * 12345; break;
        default: s->cycleDone = b & 1; break;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::Input in(data, size);
    g_history = History();
    ComInfo& info = fuzz::ResetDriver();
    OtherRecord() = ComInfo{};
    peer::TagMemory memory;

    const uint8_t flags = in.u8();
    info.remoteMode = flags & 1;
    info.multiStation = (flags >> 1) & 1;
    static const int writeModes[] = {0, 1, 2, 7};
    info.writeMode = writeModes[(flags >> 2) & 3];
    info.maxCount = MaxCount(flags >> 6, in.u8());
    info.retryLimit = static_cast<int8_t>(in.u8()) % 5;
    info.defaultStation = in.u8();
    info.localLinkNo = in.u8() % 3;
    PLC_driver.tns = in.u8() % 255;
    if (!(flags & 0x10)) RegistCallBackFuncIntf(OnOneShotDone, 7);
    if (flags & 0x20) SetComInfo(nullptr);

    for (int op = 0; op < kMaxOperations && !in.empty(); ++op) {
        const int operation = in.u8() % 16;
        if (Tracing()) std::fprintf(stderr, "operation %d: %d\n", op, operation);
        switch (operation) {
            case 0: Register(in); break;
            case 1: Redirect(in); break;
            case 2: RegisterCallback(in); break;
            case 3: FUZZ_CHECK(QueryFinishFlag() == 1); break;
            case 4: ConvertAddress(in); break;
            case 5: AddRead(in); break;
            case 6: Rebuild(in); break;
            case 7: AddWrite(in); break;
            case 8: AddOnce(in); break;
            case 9: SetData(in); break;
            case 10: GetData(in); break;
            case 12: ChangeSettings(in); break;
            default: Exchange(in, memory); break;
        }
        CheckAlways();
    }
    return 0;
}
