// The driver object: all state of the plug-in, in one static instance.
// Internal to the library and its tests; hosts include only
// ab_controllogix_compactlogix.h.
#ifndef AB_CONTROLLOGIX_COMPACTLOGIX_P_H
#define AB_CONTROLLOGIX_COMPACTLOGIX_P_H

#include "ab_controllogix_compactlogix.h"

#include <QtCore/QList>
#include <QtCore/QMutex>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#if defined(__SANITIZE_THREAD__)
#define ABCL_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define ABCL_TSAN 1
#endif
#endif
#if defined(ABCL_TSAN)
extern "C" void __tsan_acquire(void* addr);
extern "C" void __tsan_release(void* addr);
#endif

// Holds one of the driver's mutexes for a scope. The system's Qt is not built
// for ThreadSanitizer, so a contended QMutex hands over inside a library the
// sanitizer cannot see; under ThreadSanitizer the guard tells it about the
// hand-over itself, so real races still show and false ones do not.
class DriverLock {
public:
    explicit DriverLock(QMutex* mutex) : mutex_(mutex) {
        mutex_->lock();
#if defined(ABCL_TSAN)
        __tsan_acquire(mutex_);
#endif
    }
    ~DriverLock() {
#if defined(ABCL_TSAN)
        __tsan_release(mutex_);
#endif
        mutex_->unlock();
    }
    DriverLock(const DriverLock&) = delete;
    DriverLock& operator=(const DriverLock&) = delete;

private:
    QMutex* mutex_;
};

#ifndef ABCL_HARDENED
#define ABCL_HARDENED 0
#endif
// The hardened plug-in (-DABCL_HARDENED=ON) matches every reply to its request
// and refuses input that builds no sound frame; the default one reads the
// line as the protocol's own description does. Both paths are compiled in
// every build, and this constant picks one, so neither goes stale.
constexpr bool kHardened = ABCL_HARDENED != 0;

// Elements in each local area (word areas and the 32-bit area alike).
constexpr int kAreaElements = 65536;

// Hardened build: caps a run of `*count` elements from `address` at the end
// of a local area. False when none of it lies in an area, or the count is
// below 1: such a run is not queued.
inline bool CapToArea(int64_t address, int32_t* count) {
    if (*count < 1 || address < 0 || address >= kAreaElements) return false;
    if (*count > kAreaElements - address) *count = static_cast<int32_t>(kAreaElements - address);
    return true;
}

// Packed addresses: word address = file x 256 + element, bit address = word
// address x 16 + bit.
constexpr int kElementsPerFile = 256;
constexpr int kBitsPerWord = 16;

class AB_ControlLogix_CompactLogix {
public:
    AB_ControlLogix_CompactLogix();
    ~AB_ControlLogix_CompactLogix();
    AB_ControlLogix_CompactLogix(const AB_ControlLogix_CompactLogix&) = delete;
    AB_ControlLogix_CompactLogix& operator=(const AB_ControlLogix_CompactLogix&) = delete;

    ComInfo* comInfo;              // the host's settings; null until SetComInfo
    QList<RW_VAR> readList;        // cyclic reads, rotated as they are served
    QList<RW_VAR> writeList;       // pending writes
    QList<RW_VAR> onceReadList;    // pending one-shot reads
    QList<RW_VAR> spareList;       // kept for the record layout; never filled
    QList<Protocol> protocolList;  // built and not yet answered; [0] is on the wire
    QList<EXTENDVAR> extendList;   // find-or-add registry
    CallBackFunc callBack;
    int32_t callBackCtx;
    QMutex listMutex;   // the four variable lists and protocolList
    QMutex imageMutex;  // the three local areas; taken after listMutex
    RW_VAR current;     // the record DataCom returns
    int32_t mode;       // queue of the request on the wire: 0 cyclic, 1 write, 2 one-shot
    int32_t writeBurst;
    int32_t onceBurst;
    int32_t cycleCount;
    int32_t tns;        // transaction number of the next request
    uint8_t commError;  // 1 while the last exchange failed
    uint8_t commError2;
    uint16_t areaA[kAreaElements];  // types 0 and 2
    uint16_t areaB[kAreaElements];  // types 1 and 3
    uint32_t areaD[kAreaElements];  // type 4
};

#if UINTPTR_MAX == 0xFFFFFFFFu
static_assert(sizeof(AB_ControlLogix_CompactLogix) == 524416,
              "the driver object is 524,416 bytes on the 32-bit panel");
#endif

extern AB_ControlLogix_CompactLogix PLC_driver;

// Globals beside the object: the three addresses handed to FlashLocalRegister.
extern void* LB;
extern void* LW;
extern void* RWI;

// The settings record the driver works on. Until the host calls SetComInfo this
// is a private zeroed record, so a host that calls out of order gets defaults
// instead of a null dereference.
ComInfo& settings();

// Packed addresses, counts and byte counts are 32-bit values on the panel;
// arithmetic on them wraps there, and does so here too instead of overflowing.
inline int32_t Wrap32(int64_t value) {
    return static_cast<int32_t>(static_cast<uint32_t>(value));
}

inline bool IsBitType(int dataType) {
    return dataType == ABCL_BIT_A || dataType == ABCL_BIT_B;
}

// commError is written by the communication thread and read by the screens'
// SetRegisterData; these accessors make that one unlocked flag race-free.
inline bool commErrorSet() {
    return __atomic_load_n(&PLC_driver.commError, __ATOMIC_RELAXED) != 0;
}
inline void setCommError(bool failed) {
    __atomic_store_n(&PLC_driver.commError, static_cast<uint8_t>(failed ? 1 : 0), __ATOMIC_RELAXED);
}

// The entry points are called from the host's C code, and nothing may unwind
// into it: under memory pressure Qt's containers throw std::bad_alloc. An
// entry point runs its body through this and, if anything is thrown, returns
// what it returns when it has done nothing. Locks are released on the way
// out; a request or list entry that could not be made is simply not there.
template <typename Result, typename Body>
Result AtTheBoundary(Result nothingDone, Body body) noexcept {
    try {
        return body();
    } catch (...) {
        return nothingDone;
    }
}

// AddListWriteVar's work, also used inside the driver: internal code never
// calls an exported name, so no other library loaded into the host can take
// those calls over.
int QueueWriteRequest(RW_VAR* var, int mode);
// One number for a request's place and size, to find queued entries and
// pieces by both at once.
inline uint64_t PlaceKey(int32_t address, int32_t count) {
    return (uint64_t{static_cast<uint32_t>(address)} << 32) | static_cast<uint32_t>(count);
}
// The hash of a place key for the sets and maps that look entries up by it.
// The standard library's hash of a 64-bit integer is the integer cast to
// size_t: on a 32-bit panel that keeps only the count, so every piece of one
// split (all maxCount long) would fall into one bucket and each lookup would
// walk all of them. Folding the address into the low half keeps the pieces of
// a split (one count, distinct addresses) on distinct hashes on any width of
// size_t, and keeps neighbouring addresses in neighbouring buckets, as the
// plain cast does on a 64-bit machine.
struct PlaceKeyHash {
    size_t operator()(uint64_t key) const { return static_cast<size_t>(key ^ (key >> 32)); }
};
using PlaceKeySet = std::unordered_set<uint64_t, PlaceKeyHash>;
template <typename Value>
using PlaceKeyMap = std::unordered_map<uint64_t, Value, PlaceKeyHash>;

// Queues `writes` (all of one station and type) in order, as QueueWriteRequest
// in mode 0 would one by one: the first always, the following ones while the
// queue has room, all under one hold of listMutex, so that a screen thread
// queuing a long write does not take the lock again and again while the
// communication thread waits for it. Sets `taken` to how many were queued and
// returns the queue's length.
int QueueWritesWhileRoom(const std::vector<RW_VAR>& writes, size_t* taken);
// For a write whose remaining pieces are still to be queued one by one: when
// the write queue is full none of them can be appended, and each can only
// replace a queued write of the same place and size, so the queue's entries
// are looked at instead of the pieces. For each entry after the one on the
// wire with the write's station and type, `replacement` fills in the piece
// that would replace it (starting from `write`) and says whether there is
// one. Returns the queue's length then, or -1 (having done nothing) while the
// queue has room.
int ReplaceQueuedWritesIfFull(const RW_VAR& write,
                              const std::function<bool(const RW_VAR&, RW_VAR*)>& replacement);

// Returns the driver object to its state right after loading (lists empty,
// areas zeroed, mode 100, a fresh transaction number) and forgets the settings
// record and callback. For tests and tools that link the driver statically.
void ResetDriverForTest();

// Scheduler and reply processing.
int DealDataOfLocalArea(const QByteArray& reply, int len);
int DealDataOfRemoteArea(const QByteArray& reply, int len);
int GetDriverReturnValue(int outcome);
// The last digits of a failure code tell the host which kind of variable
// failed: base + varId + 1 for varId 1 to 11, else base + 1.
int FailureCodeOf(int base, int32_t varId);
// FailureCodeOf for the request at the head of the frame queue.
int SwitchErrorReturn(int base);
void passRetValue(const RW_VAR* source, RW_VAR* destination);

#endif
