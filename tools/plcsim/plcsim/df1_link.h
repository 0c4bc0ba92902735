// DF1 full-duplex framing on the controller's side: the receiver that finds
// request frames in a byte stream, and the writer that frames replies.
#ifndef PLCSIM_DF1_LINK_H
#define PLCSIM_DF1_LINK_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

namespace plcsim {

// Block check character: the two's complement of the 8-bit sum of the bytes
// (the un-stuffed body from DST up to the byte before DLE ETX).
uint8_t BlockCheck(const uint8_t* bytes, std::size_t n);
inline uint8_t BlockCheck(const std::vector<uint8_t>& bytes) {
    return BlockCheck(bytes.data(), bytes.size());
}

// Puts one body byte, doubled when it is DLE.
void AppendStuffed(std::vector<uint8_t>* out, uint8_t byte);

// A complete reply: DLE ACK (for the request) DLE STX, the body with every
// DLE doubled, DLE ETX and the block check over the un-stuffed body. The
// block check goes out as it is, even when it is 0x10.
std::vector<uint8_t> FrameReply(const std::vector<uint8_t>& body);

// What the receiver found.
struct Df1Event {
    enum class Kind {
        kFrame,          // a complete frame whose block check is right
        kBadBlockCheck,  // a complete frame whose block check is wrong
        kOverflow,       // a frame longer than the receiver takes; dropped
    };
    Kind kind = Kind::kFrame;
    std::vector<uint8_t> body;  // un-stuffed, DST up to the byte before DLE ETX
    uint8_t blockCheck = 0;     // as received
};

// Takes the line's bytes one at a time. Outside a frame it waits for DLE STX
// (a request's leading DLE ACK, or any other byte, is passed over). Inside a
// frame DLE DLE is one data byte, DLE ETX ends the body and the next byte is
// the block check, and DLE STX starts the frame afresh. A DLE followed by any
// other byte is kept as a data byte together with that byte: a requester
// that sends its first transaction number 0x10 undoubled is still
// understood, and its block check counts that byte once.
class Df1Receiver {
public:
    static constexpr std::size_t kDefaultMaxBody = 1024;
    explicit Df1Receiver(std::size_t maxBody = kDefaultMaxBody) : maxBody_(maxBody) {}

    std::optional<Df1Event> push(uint8_t byte);
    // Forgets a partial frame (the line went quiet in the middle of one).
    void reset();
    // True when no frame is in progress.
    bool idle() const { return state_ == State::kIdle; }

private:
    enum class State { kIdle, kIdleDle, kBody, kBodyDle, kBlockCheck };
    std::optional<Df1Event> addBodyByte(uint8_t byte);

    std::size_t maxBody_;
    State state_ = State::kIdle;
    std::vector<uint8_t> body_;
};

}  // namespace plcsim

#endif
