// Public interface of the ControlLogix / CompactLogix communication plug-in.
//
// An HMI runtime loads libAB_ControlLogix_CompactLogix.so into its own process and
// talks to it only through the records and the 13 C-linkage entry points below.
// The runtime owns the serial port, the timing and the screens; the plug-in owns
// the protocol and a local image of the controller's data.
//
// The records cross the plug-in boundary by address, so their field order and
// widths are part of the interface. Each QString and QByteArray is one
// pointer-sized handle: on the 32-bit ARM panel RW_VAR is 60 bytes, Protocol 92
// and EXTENDVAR 16. The static_asserts at the end of this header hold the layout.
#ifndef AB_CONTROLLOGIX_COMPACTLOGIX_H
#define AB_CONTROLLOGIX_COMPACTLOGIX_H

#include <QtCore/QByteArray>
#include <QtCore/QList>
#include <QtCore/QString>

#include <cstddef>
#include <cstdint>
#include <type_traits>

#if defined(ABCL_BUILDING_DRIVER)
#define ABCL_EXPORT __attribute__((visibility("default")))
#else
#define ABCL_EXPORT
#endif

// Data types of a variable (RW_VAR::dataType, ReadVarItem::dataType).
enum AbclDataType : int32_t {
    ABCL_BIT_A = 0,   // a bit, kept in the first word area, 'B' files
    ABCL_BIT_B = 1,   // a bit, kept in the second word area, 'N' files
    ABCL_WORD_A = 2,  // a 16-bit word in the first word area, 'B' files
    ABCL_WORD_B = 3,  // a 16-bit word in the second word area, 'N' files
    ABCL_REAL = 4     // a 32-bit value in the 32-bit area, 'F' files
};

// The host's descriptor of one variable to read or write. Copied by value into
// the driver's lists; the driver never keeps a pointer to the host's instance.
struct RW_VAR {
    int32_t varId = 0;     // host identifier; 1 to 11 also select a failure sub-code
    int32_t varSubId = 0;  // second identifier (one-shot read sameness)
    int32_t aux2 = 0;      // reply kind: 0 carries data, 1 only confirms, other fails
    int32_t aux3 = 0;      // host field, copied through
    int32_t linkNo = 0;    // equal to ComInfo::localLinkNo: a local (direct) request
    int32_t result = 0;    // result code of the last exchange (in DataCom's record)
    QString addrText2;     // second host text, copied through
    QString addrText;      // address text, such as "7:10" or "7:10/3"
    int32_t dataType = 0;  // AbclDataType; other values build and store nothing
    int32_t address = 0;   // start index in the variable's local area
    int32_t station = 0;   // controller station
    int32_t count = 0;     // number of elements
    int32_t aux12 = 0;     // host field, copied through
    int32_t aux13 = 0;     // host field, copied through
    QByteArray data;       // value bytes of a write, least significant byte first
};

// One prepared request, queued by the driver; ComCommunication hands the host
// the address of the one to send.
struct Protocol {
    QByteArray frame;       // the bytes to send
    int32_t frameLen = 0;   // size of frame
    int32_t replyLen = 0;   // expected reply length; -1: learnt from the first reply
    int32_t dataPos = 0;    // position in the reply of the first data byte
    int32_t dataBytes = 0;  // data bytes the reply carries (without DLE doubling)
    RW_VAR var;             // copy of the variable this request serves
    int32_t extra1 = 0;     // carried along, never read
    int32_t extra2 = 0;
    int32_t extra3 = 0;
};

// One entry of the driver's find-or-add registry.
struct EXTENDVAR {
    int32_t extA = 0;
    int32_t extB = 0;
    int32_t extC = 0;
    QByteArray extData;
};

// The host's communication settings. The host owns the record and keeps it alive
// while the plug-in is loaded; the driver reads and writes the named fields in
// place. The reserved words belong to the host and are never touched.
struct ComInfo {
    int32_t hostReserved0[4];  // bytes 0..15
    int32_t maxCount;          // 16: largest element count of one request
    int32_t hostReserved20;    // 20
    int32_t defaultStation;    // 24: station of cyclic reads (and of all, single-station)
    int32_t retryLimit;        // 28: failed exchanges tolerated before a failure is reported
    int32_t retryCount;        // 32: failed exchanges so far (not reset by a good reply)
    int32_t multiStation;      // 36: non-zero: per-variable stations, no local image
    int32_t startFlagA;        // 40: zeroed by SetComInfo
    int32_t replyTotal;        // 44: replies the current request needs
    int32_t replyDone;         // 48: good replies received for the current request
    int32_t startFlagB;        // 52: zeroed by SetComInfo
    int32_t remoteMode;        // 56: non-zero: remote frames instead of DF1/CIP frames
    int32_t localLinkNo;       // 60: link number that counts as local
    int32_t writeMode;         // 64: 2: writes go to the controller; else only the image
    int32_t cycleDone;         // 68: 1 when idle or after a pass over the cyclic list
    int32_t hostContext;       // 72: first argument of every callback
};

// One entry of the host's list handed to ReCreatReadVarList. The driver reads
// dataType, addrText, addrText2 and count; the other bytes are the host's.
struct ReadVarItem {
    uint8_t hostByte0 = 0;
    uint8_t dataType = 0;  // byte 1: AbclDataType; other values are ignored
    uint8_t hostBytes2to7[6] = {};
    QString addrText;   // byte 8
    QString addrText2;  // byte 12 on the 32-bit panel
    int32_t count = 0;  // byte 16 on the 32-bit panel
};

// Called when a one-shot read ends: status 1 success, 2 failure. The driver
// ignores the result. It runs on the communication thread with the driver's list
// lock held, so it must not call the list entry points.
typedef int (*CallBackFunc)(int hostContext, int varId, int varSubId, int status);

extern "C" {

// Stores the three host addresses. Always returns 396. Call once at start.
ABCL_EXPORT int FlashLocalRegister(void* lb, void* lw, void* rwi);

// Hands the driver the settings record (zeroing its two start flags). Every other
// entry point reads the settings, so call this first; a later call redirects the
// driver to another record. No lock: call before communication starts.
ABCL_EXPORT void SetComInfo(ComInfo* info);

// Registers the one-shot read callback and a context word (stored, not passed back).
ABCL_EXPORT void RegistCallBackFuncIntf(CallBackFunc callBack, int context);

// Always 1: the driver has no background work.
ABCL_EXPORT int QueryFinishFlag();

// Communication thread. Returns the request to send next (the same one until
// DataCom finishes it), or null when there is nothing to send (then
// ComInfo::cycleDone is 1). The record stays owned by the driver.
ABCL_EXPORT Protocol* ComCommunication();

// Communication thread, after each ComCommunication that returned a request.
// Hands over the reply (len 0 when nothing came). Returns the driver's record of
// the finished variable; its result is 1 or 100 for a good exchange, 0 while a
// failure is being retried, and 11-22, 41-52, 71-82, 111-122, 141-152, 171-182
// for a reported failure. An exchange that learns a read's reply length
// returns 1 when it learnt it (with the record of the variable finished before)
// and 0 when it did not.
ABCL_EXPORT RW_VAR* DataCom(QByteArray reply, int len);

// Any thread. Converts an address text ("7:10", "7:10/3") of the given data type
// into the packed index; a negative result means an invalid address.
ABCL_EXPORT int PLCAddressChangeIntef(int dataType, QString text);

// Appends a ready-made request to the cyclic read list; no lock is taken.
// Returns the list's length.
ABCL_EXPORT int AddListReadVar(RW_VAR* var);

// Replaces the cyclic read list: parses, splits, sorts and merges the host's
// variables. Returns the list's length (0 when nothing was built).
ABCL_EXPORT int ReCreatReadVarList(QList<ReadVarItem*>* items);

// Any thread. Queues a write (mode 1: append as it is). A pending write of the
// same variable is replaced. Returns the queue's length (1,024 at most).
ABCL_EXPORT int AddListWriteVar(RW_VAR* var, int mode);

// Any thread. Queues a one-shot read (mode 1: append as it is), split by
// maxCount, without duplicates. Returns the queue's length, 0 for a bad address.
ABCL_EXPORT int AddListOnceReadVar(RW_VAR* var, int mode);

// Any thread. Copies count values from the local image into *out (growing it,
// never shrinking it). Returns 0 for an invalid address, else 1.
ABCL_EXPORT int GetRegisterData(int unused1, int dataType, QString addr, int unused2,
                                QByteArray* out, int count);

// Any thread. Writes count values from *in: with ComInfo::writeMode 2 they are
// queued as controller writes (result: the write queue's length, 0 when nothing
// was queued); otherwise they only go into the local image (result 1). 0 for an
// invalid address.
ABCL_EXPORT int SetRegisterData(QString addr2, int dataType, QString addr, int station,
                                QByteArray* in, int count, int varId, int varSubId);

}  // extern "C"

// ---- binary layout -------------------------------------------------------
static_assert(std::is_standard_layout<RW_VAR>::value, "RW_VAR layout");
static_assert(std::is_standard_layout<Protocol>::value, "Protocol layout");
static_assert(std::is_standard_layout<EXTENDVAR>::value, "EXTENDVAR layout");
static_assert(std::is_standard_layout<ComInfo>::value, "ComInfo layout");
static_assert(std::is_standard_layout<ReadVarItem>::value, "ReadVarItem layout");
static_assert(sizeof(QString) == sizeof(void*) && sizeof(QByteArray) == sizeof(void*),
              "Qt string handles must be one pointer wide");

static_assert(offsetof(ComInfo, maxCount) == 16, "ComInfo::maxCount");
static_assert(offsetof(ComInfo, defaultStation) == 24, "ComInfo::defaultStation");
static_assert(offsetof(ComInfo, retryLimit) == 28, "ComInfo::retryLimit");
static_assert(offsetof(ComInfo, retryCount) == 32, "ComInfo::retryCount");
static_assert(offsetof(ComInfo, multiStation) == 36, "ComInfo::multiStation");
static_assert(offsetof(ComInfo, startFlagA) == 40, "ComInfo::startFlagA");
static_assert(offsetof(ComInfo, replyTotal) == 44, "ComInfo::replyTotal");
static_assert(offsetof(ComInfo, replyDone) == 48, "ComInfo::replyDone");
static_assert(offsetof(ComInfo, startFlagB) == 52, "ComInfo::startFlagB");
static_assert(offsetof(ComInfo, remoteMode) == 56, "ComInfo::remoteMode");
static_assert(offsetof(ComInfo, localLinkNo) == 60, "ComInfo::localLinkNo");
static_assert(offsetof(ComInfo, writeMode) == 64, "ComInfo::writeMode");
static_assert(offsetof(ComInfo, cycleDone) == 68, "ComInfo::cycleDone");
static_assert(offsetof(ComInfo, hostContext) == 72, "ComInfo::hostContext");
static_assert(sizeof(ComInfo) >= 76, "ComInfo size");

static_assert(offsetof(ReadVarItem, dataType) == 1, "ReadVarItem::dataType");
static_assert(offsetof(ReadVarItem, addrText) == 8, "ReadVarItem::addrText");
static_assert(offsetof(ReadVarItem, addrText2) == 8 + sizeof(void*), "ReadVarItem::addrText2");
static_assert(offsetof(ReadVarItem, count) == 8 + 2 * sizeof(void*), "ReadVarItem::count");

static_assert(offsetof(RW_VAR, addrText2) == 24, "RW_VAR::addrText2");
static_assert(offsetof(RW_VAR, dataType) == 24 + 2 * sizeof(void*), "RW_VAR::dataType");
static_assert(offsetof(Protocol, var) == sizeof(void*) + 16, "Protocol::var");

#if UINTPTR_MAX == 0xFFFFFFFFu
static_assert(sizeof(RW_VAR) == 60, "RW_VAR is 60 bytes on the 32-bit panel");
static_assert(sizeof(Protocol) == 92, "Protocol is 92 bytes on the 32-bit panel");
static_assert(sizeof(EXTENDVAR) == 16, "EXTENDVAR is 16 bytes on the 32-bit panel");
static_assert(offsetof(ReadVarItem, addrText2) == 12, "ReadVarItem::addrText2 at 12");
static_assert(offsetof(ReadVarItem, count) == 16, "ReadVarItem::count at 16");
static_assert(offsetof(RW_VAR, data) == 56, "RW_VAR::data at 56");
#endif

#endif  // AB_CONTROLLOGIX_COMPACTLOGIX_H
