// The driver object, the request scheduler and reply processing.
#include "ab_controllogix_compactlogix_p.h"

#include "Func_Check.h"
#include "Func_DealData.h"
#include "Func_Read.h"
#include "Func_Remote.h"
#include "Func_Write.h"
#include "protocol_constants.h"

#include <QtCore/QTime>
#include <QtCore/QtGlobal>

#include <cstring>
#include <new>

AB_ControlLogix_CompactLogix PLC_driver;

void* LB = nullptr;
void* LW = nullptr;
void* RWI = nullptr;

namespace {

// Used until the host hands over its record; never written by the host.
ComInfo g_defaultSettings{};

constexpr int32_t kFirstTransactionNumber = 1;
constexpr int32_t kLastTransactionNumber = 254;

// Queues a request's transaction number may take before the first reply: any
// value 0..254, drawn from the process's generator seeded with the time of day.
int32_t InitialTransactionNumber() {
    const QTime now = QTime::currentTime();
    // qsrand/qrand are the process-wide generator the host may also seed;
    // the driver keeps to it rather than owning another.
    QT_WARNING_PUSH
    QT_WARNING_DISABLE_DEPRECATED
    qsrand(static_cast<uint>(now.msec() + 1000 * now.second()));
    return qrand() % (kLastTransactionNumber + 1);
    QT_WARNING_POP
}

// Result outcomes of one exchange, mapped to codes by GetDriverReturnValue.
enum Outcome {
    kLocalGood = 0,
    kLocalBadReply = 1,
    kLocalNoReply = 2,
    kLocalWrongLength = 3,
    kRemoteGood = 4,
    kRemoteBadReply = 5,
    kRemoteNoReply = 6,
    kRemoteWrongLength = 7,
};

enum QueueMode { kModeCyclic = 0, kModeWrite = 1, kModeOnce = 2, kModeNone = 100 };

// Steps the transaction number: 1..254, never 0 and never DLE.
int32_t NextTransactionNumber(int32_t tns) {
    int32_t next = tns + 1;
    if (next > kLastTransactionNumber) next = kFirstTransactionNumber;
    if (next == df1::kDle) next = df1::kDle + 1;
    return next;
}

void BuildWrite(RW_VAR* var) {
    if (settings().remoteMode != 0)
        Remote_WriteVar(var);
    else
        WriteRegister(var);
}

void BuildRead(RW_VAR* var, bool oneShot) {
    // One-shot bit reads are queued with a bit address (a multiple of 16) so
    // that duplicates are recognised bit-exactly; the frame must still name the
    // word that holds the bits, and the reply must land on that word.
    RW_VAR wordRequest;
    if (oneShot && IsBitType(var->dataType)) {
        wordRequest = *var;
        wordRequest.address = var->address >> 4;
        var = &wordRequest;
    }
    if (settings().remoteMode != 0)
        Remote_ReadVar(var);
    else
        ReadRegister(var);
}

// Removes from `list` every entry of the given station.
void RemoveStation(QList<RW_VAR>& list, int32_t station) {
    for (int i = list.size() - 1; i >= 0; --i)
        if (list.at(i).station == station) list.removeAt(i);
}

}  // namespace

AB_ControlLogix_CompactLogix::AB_ControlLogix_CompactLogix()
    : comInfo(nullptr),
      callBack(nullptr),
      callBackCtx(0),
      mode(kModeNone),
      writeBurst(0),
      onceBurst(0),
      cycleCount(0),
      tns(0),
      commError(0),
      commError2(0) {
    readList.clear();
    writeList.clear();
    onceReadList.clear();
    spareList.clear();
    protocolList.clear();
    extendList.clear();
    std::memset(areaA, 0, sizeof areaA);
    std::memset(areaB, 0, sizeof areaB);
    std::memset(areaD, 0, sizeof areaD);
    tns = InitialTransactionNumber();
}

AB_ControlLogix_CompactLogix::~AB_ControlLogix_CompactLogix() = default;

ComInfo& settings() {
    return PLC_driver.comInfo ? *PLC_driver.comInfo : g_defaultSettings;
}

void ResetDriverForTest() {
    // Exactly the state after loading: the object is built afresh in place.
    PLC_driver.~AB_ControlLogix_CompactLogix();
    new (&PLC_driver) AB_ControlLogix_CompactLogix();
    g_defaultSettings = ComInfo{};
    LB = LW = RWI = nullptr;
}

// ---- scheduler -------------------------------------------------------------

namespace {

// Hardened build: the entry at the head of the queue `mode` names built no
// frame (its count or type is out of range). It is taken out of its queue and
// reported as failed, in `current` and, for a one-shot read, through the
// callback, instead of blocking the entries behind it. listMutex is held.
void DropUnbuildable(int mode) {
    AB_ControlLogix_CompactLogix& d = PLC_driver;
    QList<RW_VAR>& queue =
        mode == kModeWrite ? d.writeList : (mode == kModeOnce ? d.onceReadList : d.readList);
    if (queue.isEmpty()) return;
    const RW_VAR entry = queue.takeFirst();
    passRetValue(&entry, &d.current);
    d.current.result =
        FailureCodeOf(entry.linkNo == settings().localLinkNo ? 10 : 110, entry.varId);
    if (mode == kModeOnce && d.callBack)
        d.callBack(settings().hostContext, entry.varId, entry.varSubId, 2);
}

// Builds the next request from the queues, by priority; false when no queue
// has work.
bool BuildNext() {
    AB_ControlLogix_CompactLogix& d = PLC_driver;
    if (!d.writeList.isEmpty() && d.writeBurst < kBurstLimit) {
        d.mode = kModeWrite;
        BuildWrite(&d.writeList.first());
        ++d.writeBurst;
    } else if (!d.onceReadList.isEmpty() && d.onceBurst < kBurstLimit) {
        d.mode = kModeOnce;
        BuildRead(&d.onceReadList.first(), true);
        ++d.onceBurst;
    } else if (!d.readList.isEmpty()) {
        d.mode = kModeCyclic;
        BuildRead(&d.readList.first(), false);
        d.writeBurst = 0;
        d.onceBurst = 0;
    } else {
        d.writeBurst = 0;
        d.onceBurst = 0;
        settings().cycleDone = 1;
        return false;
    }
    return true;
}

Protocol* NextRequest() {
    AB_ControlLogix_CompactLogix& d = PLC_driver;
    DriverLock lock(&d.listMutex);
    if (!d.protocolList.isEmpty()) return &d.protocolList.first();

    if (kHardened) {
        // Every pass either builds a frame or takes an entry out of a queue,
        // so the loop ends.
        while (BuildNext() && d.protocolList.isEmpty()) DropUnbuildable(d.mode);
        return d.protocolList.isEmpty() ? nullptr : &d.protocolList.first();
    }

    if (!BuildNext()) return nullptr;
    // A builder queues nothing for an unsupported data type; the entry stays at
    // the head of its queue and the burst limit lets the other queues run.
    return d.protocolList.isEmpty() ? nullptr : &d.protocolList.first();
}

}  // namespace

Protocol* ComCommunication() {
    return AtTheBoundary<Protocol*>(nullptr, [] { return NextRequest(); });
}

// ---- reply processing --------------------------------------------------------

int GetDriverReturnValue(int outcome) {
    switch (outcome) {
        case kLocalGood: return 1;
        case kLocalBadReply: return SwitchErrorReturn(10);
        case kLocalNoReply: return SwitchErrorReturn(40);
        case kLocalWrongLength: return SwitchErrorReturn(70);
        case kRemoteGood: return 100;
        case kRemoteBadReply: return SwitchErrorReturn(110);
        case kRemoteNoReply: return SwitchErrorReturn(140);
        case kRemoteWrongLength: return SwitchErrorReturn(170);
        default: return 200;
    }
}

int FailureCodeOf(int base, int32_t varId) {
    if (varId >= 1 && varId <= 11) return base + varId + 1;
    return base + 1;
}

int SwitchErrorReturn(int base) {
    if (PLC_driver.protocolList.isEmpty()) return base + 1;
    return FailureCodeOf(base, PLC_driver.protocolList.first().var.varId);
}

void passRetValue(const RW_VAR* source, RW_VAR* destination) {
    if (!source || !destination) return;
    *destination = *source;
    destination->data = QByteArray();
}

namespace {

// Hardened build, direct mode: a reply is good only when it answers the
// request on the wire, and its values come from its data field alone.
int DealMatchedReply(const Protocol& p, const QByteArray& reply, int len, int check) {
    QByteArray data;
    if (check == 0 || !DirectReplyAnswers(p, reply, len, &data))
        return GetDriverReturnValue(kLocalBadReply);
    if (check == 1) {
        DriverLock lock(&PLC_driver.imageMutex);
        SaveDataFieldToLocalDataErea(data);
    }
    return GetDriverReturnValue(kLocalGood);
}

}  // namespace

int DealDataOfLocalArea(const QByteArray& reply, int len) {
    const Protocol& p = PLC_driver.protocolList.first();
    if (len == 0 && p.replyLen != 0) return GetDriverReturnValue(kLocalNoReply);
    if (p.replyLen != len) return GetDriverReturnValue(kLocalWrongLength);
    const int check = CheckGetData(reply, len);
    if (kHardened && settings().remoteMode == 0) return DealMatchedReply(p, reply, len, check);
    if (check == 1) {
        DriverLock lock(&PLC_driver.imageMutex);
        // The hardened build never reads the trailer (DLE ETX BCC) as data.
        if (kHardened)
            SaveToLocalDataErea(reply.left(len - frame_offset::kEtxDleFromEnd));
        else
            SaveToLocalDataErea(reply);
        return GetDriverReturnValue(kLocalGood);
    }
    if (check == 2) return GetDriverReturnValue(kLocalGood);
    return GetDriverReturnValue(kLocalBadReply);
}

int DealDataOfRemoteArea(const QByteArray& reply, int len) {
    const Protocol& p = PLC_driver.protocolList.first();
    if (len == 0 && p.replyLen != 0) return GetDriverReturnValue(kRemoteNoReply);
    if (p.replyLen != len) return GetDriverReturnValue(kRemoteWrongLength);
    const int check = CheckGetData(reply, len);
    if (check == 1 || check == 2)
        return GetDriverReturnValue(settings().replyDone != 0 ? kLocalGood : kRemoteGood);
    return GetDriverReturnValue(kRemoteBadReply);
}

namespace {

// Finishes the exchange in the queue it came from; listMutex is held.
void AdvanceQueue(bool local) {
    AB_ControlLogix_CompactLogix& d = PLC_driver;
    switch (d.mode) {
        case kModeWrite:
            if (!d.writeList.isEmpty()) {
                passRetValue(&d.writeList.first(), &d.current);
                d.writeList.removeFirst();
            }
            break;
        case kModeOnce:
            if (local && !d.onceReadList.isEmpty()) {
                const RW_VAR& e = d.onceReadList.first();
                bool laterDuplicate = false;
                for (int i = 1; i < d.onceReadList.size() && !laterDuplicate; ++i) {
                    const RW_VAR& other = d.onceReadList.at(i);
                    laterDuplicate = other.varId == e.varId && other.varSubId == e.varSubId;
                }
                // Only the last of several queued reads of one variable reports.
                if (!laterDuplicate && d.callBack)
                    d.callBack(settings().hostContext, e.varId, e.varSubId, commErrorSet() ? 2 : 1);
            }
            if (!d.onceReadList.isEmpty()) {
                passRetValue(&d.onceReadList.first(), &d.current);
                d.onceReadList.removeFirst();
            }
            break;
        case kModeCyclic:
            if (!d.readList.isEmpty()) {
                passRetValue(&d.readList.first(), &d.current);
                d.readList.move(0, d.readList.size() - 1);
            }
            break;
        default: break;
    }
}

// After a reported failure nothing queued for the failed link is kept: the
// host re-issues what it still needs once the link is back.
void PurgeAfterFailure() {
    AB_ControlLogix_CompactLogix& d = PLC_driver;
    if (settings().multiStation != 0) {
        RemoveStation(d.onceReadList, d.current.station);
        RemoveStation(d.writeList, d.current.station);
    } else {
        d.onceReadList.clear();
        d.writeList.clear();
    }
}

// The first reply to a request of unknown length only fixes the length; the
// same request goes out again and its reply is checked in full. Returns the
// result code: 1 when the length is fixed, 0 when the reply was not usable.
int FixReplyLength(Protocol& p, const QByteArray& reply) {
    if (NotFixReturnCheck(reply) != 1) return 0;
    // The hardened build learns a length only from a reply that answers
    // this request: a late reply to an earlier one must not set it.
    if (kHardened && settings().remoteMode == 0 &&
        !DirectReplyAnswers(p, reply, reply.size(), nullptr))
        return 0;
    p.replyLen = reply.size();
    return 1;
}

// Hardened build: the failure code of a length-learning exchange that got no
// usable reply, in the family its link reports.
int FailedLearningCode(bool local, const QByteArray& reply) {
    if (reply.isEmpty()) return GetDriverReturnValue(local ? kLocalNoReply : kRemoteNoReply);
    return GetDriverReturnValue(local ? kLocalBadReply : kRemoteBadReply);
}

}  // namespace

namespace {

RW_VAR* TakeReply(const QByteArray& reply, int len) {
    AB_ControlLogix_CompactLogix& d = PLC_driver;
    ComInfo& s = settings();
    d.current.result = 1;
    if (d.protocolList.isEmpty()) return &d.current;

    Protocol& p = d.protocolList.first();
    const bool local = p.var.linkNo == s.localLinkNo;
    int code = 0;
    if (p.replyLen == kUnknownReplyLength) {
        d.current.result = FixReplyLength(p, reply);
        // The default build leaves a failed length-learning exchange uncounted, so
        // a silent controller is never reported while only reads are
        // queued; the hardened build fails it like any other exchange.
        if (!kHardened || d.current.result == 1) return &d.current;
        code = FailedLearningCode(local, reply);
    } else {
        code = local ? DealDataOfLocalArea(reply, len) : DealDataOfRemoteArea(reply, len);
    }
    d.tns = NextTransactionNumber(d.tns);

    // The scheduler, the list entry points and a rebuild of the cyclic list on
    // another thread meet here; one lock covers the whole bookkeeping.
    DriverLock lock(&d.listMutex);
    if (code != 1 && code != 100) {
        d.cycleCount = 0;
        setCommError(true);
        s.cycleDone = 0;
        d.protocolList.clear();
        s.retryCount += 1;
        if (s.retryCount <= s.retryLimit) {
            // Retried: the list entry is still at the head of its queue.
            d.current.result = 0;
            return &d.current;
        }
        s.retryCount = 0;
    } else {
        setCommError(false);
        d.protocolList.removeFirst();
        s.replyDone += 1;
        if (s.replyDone < s.replyTotal) {
            d.current.result = code;
            return &d.current;
        }
        if (s.cycleDone == 0 && local) {
            d.cycleCount += 1;
            if (d.cycleCount > d.readList.size()) {
                d.cycleCount = 0;
                s.cycleDone = 1;
            }
        }
    }

    AdvanceQueue(local);
    if (commErrorSet()) PurgeAfterFailure();
    d.current.result = code;
    return &d.current;
}

}  // namespace

RW_VAR* DataCom(QByteArray reply, int len) {
    return AtTheBoundary(&PLC_driver.current, [&reply, len] { return TakeReply(reply, len); });
}
