// The peer side's reading of the serial protocol: every DF1, CIP and
// remote-frame number the simulators, host tools and tests use, the block
// check and the remote checksum, DLE doubling, the message envelope and one
// incremental receiver for either side of the line.
//
// Written from the frame rules alone and kept apart from the driver's own
// code, so that talking to the peer checks the driver against an
// independent reading of the protocol.
#ifndef PEER_DF1_H
#define PEER_DF1_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

namespace peer {

namespace df1 {
// Link control characters.
enum ControlByte : uint8_t {
    kStx = 0x02,
    kEtx = 0x03,
    kEnq = 0x05,
    kAck = 0x06,
    kDle = 0x10,
    kNak = 0x15,
};

// Command byte of a message that carries a CIP request; a reply carries the
// same command with kReplyFlag set.
enum Command : uint8_t { kCmdCip = 0x0B, kReplyFlag = 0x40 };

// Header status: the command was understood / it was not.
enum HeaderStatus : uint8_t { kStsSuccess = 0x00, kStsIllegalCommand = 0x10 };

// Positions in the un-stuffed body: DST SRC CMD STS TNS-low TNS-high, then
// the message's own data.
enum HeaderOffset : int {
    kHeaderDst,
    kHeaderSrc,
    kHeaderCmd,
    kHeaderSts,
    kHeaderTnsLow,
    kHeaderTnsHigh,
    kHeaderSize
};

// An embedded-CIP message carries two bytes between the DF1 header and the
// CIP message itself (a reply echoes them).
enum CipPlacement : int { kCipPrefixSize = 2, kCipStart = kHeaderSize + kCipPrefixSize };

// A message's lead-in (DLE ACK for the other side's last message, then
// DLE STX) and trailer (DLE ETX and the block check character).
enum EnvelopeSize : int { kLeadInSize = 4, kTrailerSize = 3 };
}  // namespace df1

namespace cip {
enum Service : uint8_t {
    kMultipleServicePacket = 0x0A,
    kReadTag = 0x4C,
    kWriteTag = 0x4D,
    kReadModifyWriteTag = 0x4E,
    kReadTagFragmented = 0x52,
    kWriteTagFragmented = 0x53,
    kReplyFlag = 0x80,  // set in a reply's service byte
};

enum PathSegment : uint8_t {
    kClassMessageRouter = 0x02,  // the class a logical class segment names
    kLogicalClass8 = 0x20,
    kLogicalInstance8 = 0x24,
    kMember8 = 0x28,
    kMember16 = 0x29,
    kMember32 = 0x2A,
    kAnsiExtendedSymbol = 0x91,
};

// Elementary data types (16-bit codes, low byte first on the wire).
enum ElementType : uint16_t { kTypeInt = 0x00C3, kTypeReal = 0x00CA };

enum GeneralStatus : uint8_t {
    kSuccess = 0x00,
    kPathSegmentError = 0x04,
    kPathDestinationUnknown = 0x05,
    kPartialTransfer = 0x06,
    kServiceNotSupported = 0x08,
    kReplyDataTooLarge = 0x11,
    kNotEnoughData = 0x13,
    kTooMuchData = 0x15,
    kEmbeddedServiceError = 0x1E,
    kInvalidParameter = 0x20,
    kPathSizeInvalid = 0x26,
    kGeneralError = 0xFF,
};

// Extended status words that go with kGeneralError.
enum ExtendedStatus : uint16_t {
    kExtOffsetBeyondEnd = 0x2104,
    kExtElementsBeyondEnd = 0x2105,
    kExtDataTypeMismatch = 0x2107,
};
}  // namespace cip

namespace remote {
// Request: length, varId, aux2, linkNo, station, dataType(2), address(4),
// count(2), aux12(4), aux13(4), [data], checksum.
enum RequestOffset : int {
    kOffsetLength = 0,
    kOffsetVarId = 1,
    kOffsetAux2 = 2,
    kOffsetLinkNo = 3,
    kOffsetStation = 4,
    kOffsetDataType = 5,
    kOffsetAddress = 7,
    kOffsetCount = 11,
    kOffsetAux12 = 13,
    kOffsetAux13 = 17,
    kOffsetData = 21,
    kRequestFixedSize = 22,  // a request without data, checksum included
};

// The variable kinds a request names: bits or words of the B files, bits
// or words of the N files, REALs of the F files.
enum VariableType : uint16_t { kBitOfB = 0, kBitOfN = 1, kWordOfB = 2, kWordOfN = 3, kReal = 4 };

// Reply header commands and the write acknowledgement byte.
enum ReplyCode : uint8_t {
    kCmdReadReply = 0x41,
    kCmdWriteReply = 0x42,
    kWriteDone = 0x06,
    kWriteRefused = 0x15,
};

// Reply header status: never 0x10, so the header never grows by doubling
// except through the station and transaction bytes.
enum ReplyStatus : uint8_t {
    kStsOk = 0x00,
    kStsNoSuchAddress = 0x05,
    kStsTypeNotSupported = 0x08,
    kStsNotEnoughData = 0x13,
};

// A reply to a read is padded to this many bytes: the requester takes a
// first reply of unknown length only when it has at least this size.
constexpr int kMinReadReplySize = 27;
}  // namespace remote

// Block check character: the two's complement of the 8-bit sum of the bytes
// (the un-stuffed body from DST up to the byte before DLE ETX).
uint8_t BlockCheck(const uint8_t* bytes, std::size_t n);
inline uint8_t BlockCheck(const std::vector<uint8_t>& bytes) {
    return BlockCheck(bytes.data(), bytes.size());
}

// Remote frames' checksum: the low 8 bits of the plain sum of the bytes.
uint8_t RemoteChecksum(const uint8_t* bytes, std::size_t n);
inline uint8_t RemoteChecksum(const std::vector<uint8_t>& bytes) {
    return RemoteChecksum(bytes.data(), bytes.size());
}

// CIP's multi-byte fields go low byte first.
inline uint16_t Le16(const uint8_t* bytes) {
    return static_cast<uint16_t>(bytes[0] | (bytes[1] << 8));
}

// Puts one body byte, doubled when it is DLE.
void AppendStuffed(std::vector<uint8_t>* out, uint8_t byte);

// The envelope around bytes exactly as they go on the line (already stuffed,
// or on purpose not): DLE ACK DLE STX, the bytes, DLE ETX, the block check
// as given. FrameMessage is this envelope around a stuffed body and its own
// block check; a test builds a damaged message with it directly.
std::vector<uint8_t> Envelope(const std::vector<uint8_t>& lineBytes, uint8_t blockCheck);

// A complete message as either side sends it: DLE ACK (for the other side's
// last message) DLE STX, the body with every DLE doubled, DLE ETX and the
// block check over the un-stuffed body. The block check goes out as it is,
// even when it is 0x10. Requests and replies share this envelope.
std::vector<uint8_t> FrameMessage(const std::vector<uint8_t>& body);
inline std::vector<uint8_t> FrameReply(const std::vector<uint8_t>& body) {
    return FrameMessage(body);
}
inline std::vector<uint8_t> FrameRequest(const std::vector<uint8_t>& body) {
    return FrameMessage(body);
}

// The body of a complete message as received, DLE pairs made single: DST up
// to the byte before DLE ETX. Nothing when the bytes do not open with DLE
// STX (after an optional DLE ACK) or have no DLE ETX.
std::optional<std::vector<uint8_t>> MessageBody(const std::vector<uint8_t>& message);

// Which side of the line a receiver listens to.
//   kRequests: the controller's ear. Outside a message it waits for DLE STX
//     (DLE ACK, DLE NAK and any other byte are passed over); DLE STX inside
//     a message starts it afresh.
//   kReplies: the host's ear. As above, but DLE NAK outside a message ends
//     the reception (the controller refused the request and sends nothing
//     more), and DLE STX inside a message is data: a reply is taken as the
//     controller sent it, for the plug-in to judge.
enum class Side { kRequests, kReplies };

// What a receiver found.
struct Df1Event {
    enum class Kind {
        kFrame,          // a complete message whose block check is right
        kBadBlockCheck,  // a complete message whose block check is wrong
        kOverflow,       // a message longer than the receiver takes; dropped
        kRefused,        // DLE NAK (replies side only)
    };
    Kind kind = Kind::kFrame;
    std::vector<uint8_t> body;  // un-stuffed, DST up to the byte before DLE ETX
    uint8_t blockCheck = 0;     // as received
    // Every byte taken since the previous event (or reset), as received:
    // link symbols and noise before the message, doubled DLEs, trailer.
    std::vector<uint8_t> raw;

    // A complete message, whatever its block check says.
    bool complete() const { return kind == Kind::kFrame || kind == Kind::kBadBlockCheck; }
};

// Takes the line's bytes one at a time. Inside a message DLE DLE is one data
// byte, DLE ETX ends the body and the next byte is the block check. A DLE
// followed by any other byte is kept as a data byte together with that byte:
// a requester that sends its first transaction number 0x10 undoubled is
// still understood, and its block check counts that byte once.
class Df1Receiver {
public:
    static constexpr std::size_t kDefaultMaxBody = 1024;
    explicit Df1Receiver(Side side = Side::kRequests, std::size_t maxBody = kDefaultMaxBody)
        : side_(side), maxBody_(maxBody) {}

    std::optional<Df1Event> push(uint8_t byte);
    // Forgets a partial message (the line went quiet in the middle of one).
    void reset();
    // True when no message is in progress.
    bool idle() const { return state_ == State::kIdle; }
    // The bytes taken since the last event or reset, as received.
    const std::vector<uint8_t>& pending() const { return raw_; }

private:
    enum class State { kIdle, kIdleDle, kBody, kBodyDle, kBlockCheck };
    std::optional<Df1Event> addBodyByte(uint8_t byte);
    std::optional<Df1Event> idleDle(uint8_t byte);
    std::optional<Df1Event> bodyDle(uint8_t byte);
    Df1Event finish(Df1Event::Kind kind);

    Side side_;
    std::size_t maxBody_;
    State state_ = State::kIdle;
    std::vector<uint8_t> body_;
    std::vector<uint8_t> raw_;
};

}  // namespace peer

#endif
