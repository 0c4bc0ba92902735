// Reply reception on the host's side of a DF1 full-duplex link: knowing when
// a controller's reply (DLE ACK, DLE STX, body, DLE ETX, block check) has
// arrived completely, and reading the CIP status it carries.
#ifndef HOSTSIM_DF1_REPLY_H
#define HOSTSIM_DF1_REPLY_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

namespace hostsim {

constexpr uint8_t kDle = 0x10;
constexpr uint8_t kStx = 0x02;
constexpr uint8_t kEtx = 0x03;
constexpr uint8_t kAck = 0x06;
constexpr uint8_t kNak = 0x15;

// Collects the bytes of one reply as they come off the line, in any pieces
// (the lead-in may come as 10 06 and, after the controller's turnaround, as
// 10 02). Every byte is kept as received, doubled DLEs included, because the
// plug-in checks the reply as it was sent. The reply is complete after
// DLE ETX and the block check that follows; a DLE ETX counts as the trailer
// only when its DLE is not the second byte of a doubled pair (10 10 03 is a
// data DLE followed by a data 03). A DLE NAK outside a message also ends the
// reception: the controller refused the request and sends nothing more.
class ReplyAssembler {
public:
    enum class Status { kIncomplete, kComplete, kRefused };

    // Adds bytes; returns the status after them. Bytes after the end of the
    // reply are not taken (consumed() tells how many were).
    Status push(const uint8_t* bytes, std::size_t n);
    Status status() const { return status_; }
    std::size_t consumed() const { return consumed_; }
    const std::vector<uint8_t>& bytes() const { return bytes_; }
    void reset();

private:
    enum class State { kIdle, kIdleDle, kBody, kBodyDle, kBlockCheck, kDone };
    State state_ = State::kIdle;
    Status status_ = Status::kIncomplete;
    std::vector<uint8_t> bytes_;
    std::size_t consumed_ = 0;
};

// The body of a complete reply, DLE pairs made single: DST up to the byte
// before DLE ETX. Nothing when the reply does not open with DLE STX (after
// an optional DLE ACK) or has no DLE ETX.
std::optional<std::vector<uint8_t>> ReplyBody(const std::vector<uint8_t>& reply);

// What a direct-mode reply says about its request: the DF1 header status
// (STS), and when the body carries a CIP Multiple Service Packet reply, its
// general status and the general status of the embedded service's reply.
struct ReplyStatus {
    bool parsed = false;  // a body with at least the DF1 header
    uint8_t df1Status = 0;
    bool hasCip = false;       // the CIP reply header is present
    uint8_t cipGeneral = 0;    // the Multiple Service Packet reply's status
    bool hasEmbedded = false;  // the embedded reply's header is present
    uint8_t embeddedGeneral = 0;

    // True when any status present is not 0.
    bool failed() const {
        return parsed && (df1Status != 0 || (hasCip && cipGeneral != 0) ||
                          (hasEmbedded && embeddedGeneral != 0));
    }
};
ReplyStatus ReadReplyStatus(const std::vector<uint8_t>& reply);

}  // namespace hostsim

#endif
