// The remote-mode partner: the short raw frames of the remote link (length
// first, additive checksum last, no DLE framing) and their replies, which
// come back in the DF1 envelope.
#ifndef PEER_REMOTE_LINK_H
#define PEER_REMOTE_LINK_H

#include "peer/df1.h"
#include "peer/tag_memory.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

namespace peer {

// One request frame, its fields as they were sent (multi-byte fields high
// byte first).
struct RemoteRequest {
    uint8_t length = 0;
    uint8_t varId = 0;
    uint8_t aux2 = 0;
    uint8_t linkNo = 0;
    uint8_t station = 0;
    uint16_t dataType = 0;
    uint32_t address = 0;
    uint16_t count = 0;
    uint32_t aux12 = 0;
    uint32_t aux13 = 0;
    std::vector<uint8_t> data;  // writes only
    uint8_t checksum = 0;

    // A frame with value bytes, or one marked as a write in aux2 (the write
    // records have aux2 1, the read records 0), is a write.
    bool isWrite() const { return !data.empty() || aux2 == 1; }
};

// Decodes a complete frame of n bytes: n must be at least 22, the length
// byte must be n's low 8 bits and the checksum must match.
std::optional<RemoteRequest> DecodeRemoteFrame(const uint8_t* bytes, std::size_t n);

// What the remote receiver found.
struct RemoteEvent {
    enum class Kind { kFrame, kBadChecksum };
    Kind kind = Kind::kFrame;
    std::vector<uint8_t> frame;  // the raw bytes, checksum included
};

// Takes the line's bytes one at a time. The first byte of a frame is its
// length; a byte below 22 cannot start a frame and is passed over. When the
// length is reached the checksum is checked; on a mismatch the first byte is
// dropped and the rest searched again for a frame start.
class RemoteReceiver {
public:
    void push(uint8_t byte, std::vector<RemoteEvent>* events);
    void reset() { buffer_.clear(); }
    bool idle() const { return buffer_.empty(); }

private:
    void scan(std::vector<RemoteEvent>* events);
    std::vector<uint8_t> buffer_;
};

// Carries out a request on the memory and returns the reply body (the bytes
// between DLE STX and DLE ETX, un-stuffed):
//   station, 0x00, command (0x41 read, 0x42 write), status, transaction, 0x00,
//   then for a read the data (low byte first) padded with zeros so the framed
//   reply has at least 27 bytes, for a write one byte 0x06 (written) or 0x15
//   (refused).
// Data types 0 and 2 use the B file, 1 and 3 the N file, 4 the F file; file =
// address / 256, element = address % 256. Reads of types 0 to 3 read count
// words, type 4 reads count REALs. Writes write what their data carry: whole
// words (2, 3), whole REALs (4), or for bit types (0, 1) one bit per byte at
// the bit address file*4096 + element*16 + bit, a byte 1 setting the bit.
std::vector<uint8_t> AnswerRemoteRequest(const RemoteRequest& request, TagMemory& memory,
                                         uint8_t transaction);

// The transaction byte that follows t: t + 1, 255 wraps to 1, 16 is skipped.
uint8_t NextRemoteTransaction(uint8_t t);

}  // namespace peer

#endif
