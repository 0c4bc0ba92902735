#include "peer/df1.h"

namespace peer {

uint8_t BlockCheck(const uint8_t* bytes, std::size_t n) {
    unsigned sum = 0;
    for (std::size_t i = 0; i < n; ++i) sum += bytes[i];
    return static_cast<uint8_t>(0x100 - (sum & 0xFF));
}

uint8_t RemoteChecksum(const uint8_t* bytes, std::size_t n) {
    unsigned sum = 0;
    for (std::size_t i = 0; i < n; ++i) sum += bytes[i];
    return static_cast<uint8_t>(sum & 0xFF);
}

void AppendStuffed(std::vector<uint8_t>* out, uint8_t byte) {
    out->push_back(byte);
    if (byte == df1::kDle) out->push_back(byte);
}

std::vector<uint8_t> Envelope(const std::vector<uint8_t>& lineBytes, uint8_t blockCheck) {
    std::vector<uint8_t> out;
    out.reserve(lineBytes.size() + df1::kLeadInSize + df1::kTrailerSize);
    out.push_back(df1::kDle);
    out.push_back(df1::kAck);
    out.push_back(df1::kDle);
    out.push_back(df1::kStx);
    out.insert(out.end(), lineBytes.begin(), lineBytes.end());
    out.push_back(df1::kDle);
    out.push_back(df1::kEtx);
    out.push_back(blockCheck);
    return out;
}

std::vector<uint8_t> FrameMessage(const std::vector<uint8_t>& body) {
    std::vector<uint8_t> stuffed;
    stuffed.reserve(body.size() + 8);
    for (uint8_t b : body) AppendStuffed(&stuffed, b);
    return Envelope(stuffed, BlockCheck(body));
}

std::optional<std::vector<uint8_t>> MessageBody(const std::vector<uint8_t>& message) {
    std::size_t p = 0;
    if (message.size() >= 2 && message[0] == df1::kDle && message[1] == df1::kAck) p = 2;
    if (message.size() < p + 2 || message[p] != df1::kDle || message[p + 1] != df1::kStx)
        return std::nullopt;
    p += 2;
    std::vector<uint8_t> body;
    while (p < message.size()) {
        const uint8_t b = message[p];
        if (b == df1::kDle && p + 1 < message.size()) {
            const uint8_t next = message[p + 1];
            if (next == df1::kEtx) return body;
            if (next == df1::kDle) {
                body.push_back(df1::kDle);
                p += 2;
                continue;
            }
        }
        body.push_back(b);
        ++p;
    }
    return std::nullopt;
}

void Df1Receiver::reset() {
    state_ = State::kIdle;
    body_.clear();
    raw_.clear();
}

Df1Event Df1Receiver::finish(Df1Event::Kind kind) {
    Df1Event event;
    event.kind = kind;
    event.raw.swap(raw_);
    reset();
    return event;
}

std::optional<Df1Event> Df1Receiver::addBodyByte(uint8_t byte) {
    if (body_.size() >= maxBody_) return finish(Df1Event::Kind::kOverflow);
    body_.push_back(byte);
    return std::nullopt;
}

std::optional<Df1Event> Df1Receiver::idleDle(uint8_t byte) {
    if (byte == df1::kStx) {
        body_.clear();
        state_ = State::kBody;
    } else if (byte == df1::kNak && side_ == Side::kReplies) {
        return finish(Df1Event::Kind::kRefused);
    } else if (byte != df1::kDle) {
        // DLE ACK and the like are link symbols, not messages.
        state_ = State::kIdle;
    }
    return std::nullopt;
}

std::optional<Df1Event> Df1Receiver::bodyDle(uint8_t byte) {
    if (byte == df1::kEtx) {
        state_ = State::kBlockCheck;
        return std::nullopt;
    }
    if (byte == df1::kStx && side_ == Side::kRequests) {
        body_.clear();
        state_ = State::kBody;
        return std::nullopt;
    }
    state_ = State::kBody;
    if (byte == df1::kDle) return addBodyByte(df1::kDle);
    // A lone DLE: keep it and the byte after it.
    if (auto overflow = addBodyByte(df1::kDle)) return overflow;
    return addBodyByte(byte);
}

std::optional<Df1Event> Df1Receiver::push(uint8_t byte) {
    // Noise outside a message is kept for the next event, but never more
    // than a message could hold: a line that streams garbage must not grow
    // the receiver without bound.
    if (state_ == State::kIdle && raw_.size() >= 2 * maxBody_ + 8) raw_.clear();
    raw_.push_back(byte);
    switch (state_) {
        case State::kIdle:
            if (byte == df1::kDle) state_ = State::kIdleDle;
            return std::nullopt;
        case State::kIdleDle: return idleDle(byte);
        case State::kBody:
            if (byte == df1::kDle) {
                state_ = State::kBodyDle;
                return std::nullopt;
            }
            return addBodyByte(byte);
        case State::kBodyDle: return bodyDle(byte);
        case State::kBlockCheck: {
            std::vector<uint8_t> body;
            body.swap(body_);
            const bool good = BlockCheck(body) == byte;
            Df1Event event = finish(good ? Df1Event::Kind::kFrame : Df1Event::Kind::kBadBlockCheck);
            event.body.swap(body);
            event.blockCheck = byte;
            return event;
        }
    }
    return std::nullopt;
}

}  // namespace peer
