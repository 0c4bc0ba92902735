#include "plcsim/df1_link.h"

#include "plcsim/protocol.h"

namespace plcsim {

uint8_t BlockCheck(const uint8_t* bytes, std::size_t n) {
    unsigned sum = 0;
    for (std::size_t i = 0; i < n; ++i) sum += bytes[i];
    return static_cast<uint8_t>(0x100 - (sum & 0xFF));
}

void AppendStuffed(std::vector<uint8_t>* out, uint8_t byte) {
    out->push_back(byte);
    if (byte == df1::kDle) out->push_back(byte);
}

std::vector<uint8_t> FrameReply(const std::vector<uint8_t>& body) {
    std::vector<uint8_t> out;
    out.reserve(body.size() + 16);
    out.push_back(df1::kDle);
    out.push_back(df1::kAck);
    out.push_back(df1::kDle);
    out.push_back(df1::kStx);
    for (uint8_t b : body) AppendStuffed(&out, b);
    out.push_back(df1::kDle);
    out.push_back(df1::kEtx);
    out.push_back(BlockCheck(body));
    return out;
}

void Df1Receiver::reset() {
    state_ = State::kIdle;
    body_.clear();
}

std::optional<Df1Event> Df1Receiver::addBodyByte(uint8_t byte) {
    if (body_.size() >= maxBody_) {
        reset();
        Df1Event event;
        event.kind = Df1Event::Kind::kOverflow;
        return event;
    }
    body_.push_back(byte);
    return std::nullopt;
}

std::optional<Df1Event> Df1Receiver::push(uint8_t byte) {
    switch (state_) {
        case State::kIdle:
            if (byte == df1::kDle) state_ = State::kIdleDle;
            return std::nullopt;

        case State::kIdleDle:
            if (byte == df1::kStx) {
                body_.clear();
                state_ = State::kBody;
            } else if (byte != df1::kDle) {
                // DLE ACK, DLE NAK and the like are link symbols, not frames.
                state_ = State::kIdle;
            }
            return std::nullopt;

        case State::kBody:
            if (byte == df1::kDle) {
                state_ = State::kBodyDle;
                return std::nullopt;
            }
            return addBodyByte(byte);

        case State::kBodyDle:
            if (byte == df1::kEtx) {
                state_ = State::kBlockCheck;
                return std::nullopt;
            }
            if (byte == df1::kStx) {
                body_.clear();
                state_ = State::kBody;
                return std::nullopt;
            }
            state_ = State::kBody;
            if (byte == df1::kDle) return addBodyByte(df1::kDle);
            // A lone DLE: keep it and the byte after it.
            if (auto overflow = addBodyByte(df1::kDle)) return overflow;
            return addBodyByte(byte);

        case State::kBlockCheck: {
            Df1Event event;
            event.body.swap(body_);
            event.blockCheck = byte;
            event.kind = BlockCheck(event.body) == byte ? Df1Event::Kind::kFrame
                                                        : Df1Event::Kind::kBadBlockCheck;
            reset();
            return event;
        }
    }
    return std::nullopt;
}

}  // namespace plcsim
