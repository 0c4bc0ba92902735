#include "df1_reply.h"

namespace hostsim {

namespace {

// Body positions of a reply to the plug-in's requests: the DF1 header (DST,
// SRC, CMD, STS, TNS low, TNS high), the two bytes the request carries
// before its CIP part (echoed), then the CIP reply: service, reserved,
// general status, size of the extended status in words.
constexpr std::size_t kStsPos = 3;
constexpr std::size_t kCipPos = 8;
constexpr uint8_t kMultipleServiceReply = 0x8A;

uint16_t Le16(const std::vector<uint8_t>& b, std::size_t pos) {
    return static_cast<uint16_t>(b[pos] | (b[pos + 1] << 8));
}

}  // namespace

void ReplyAssembler::reset() {
    state_ = State::kIdle;
    status_ = Status::kIncomplete;
    bytes_.clear();
    consumed_ = 0;
}

ReplyAssembler::Status ReplyAssembler::push(const uint8_t* bytes, std::size_t n) {
    for (std::size_t i = 0; i < n && state_ != State::kDone; ++i) {
        const uint8_t b = bytes[i];
        bytes_.push_back(b);
        ++consumed_;
        switch (state_) {
            case State::kIdle:
                if (b == kDle) state_ = State::kIdleDle;
                break;
            case State::kIdleDle:
                // DLE ACK acknowledges the request, DLE STX opens the reply.
                if (b == kStx) {
                    state_ = State::kBody;
                } else if (b == kNak) {
                    state_ = State::kDone;
                    status_ = Status::kRefused;
                } else if (b != kDle) {
                    state_ = State::kIdle;
                }
                break;
            case State::kBody:
                if (b == kDle) state_ = State::kBodyDle;
                break;
            case State::kBodyDle:
                // DLE DLE is one data byte; only DLE ETX ends the body. A lone
                // DLE followed by another byte is data as well.
                state_ = b == kEtx ? State::kBlockCheck : State::kBody;
                break;
            case State::kBlockCheck:
                state_ = State::kDone;
                status_ = Status::kComplete;
                break;
            case State::kDone:
                break;
        }
    }
    return status_;
}

std::optional<std::vector<uint8_t>> ReplyBody(const std::vector<uint8_t>& reply) {
    std::size_t p = 0;
    if (reply.size() >= 2 && reply[0] == kDle && reply[1] == kAck) p = 2;
    if (reply.size() < p + 2 || reply[p] != kDle || reply[p + 1] != kStx) return std::nullopt;
    p += 2;
    std::vector<uint8_t> body;
    while (p < reply.size()) {
        const uint8_t b = reply[p];
        if (b == kDle && p + 1 < reply.size()) {
            const uint8_t next = reply[p + 1];
            if (next == kEtx) return body;
            if (next == kDle) {
                body.push_back(kDle);
                p += 2;
                continue;
            }
        }
        body.push_back(b);
        ++p;
    }
    return std::nullopt;
}

ReplyStatus ReadReplyStatus(const std::vector<uint8_t>& reply) {
    ReplyStatus s;
    const auto body = ReplyBody(reply);
    if (!body || body->size() <= kStsPos + 2) return s;
    const std::vector<uint8_t>& b = *body;
    s.parsed = true;
    s.df1Status = b[kStsPos];
    if (b.size() < kCipPos + 4) return s;
    s.hasCip = true;
    const uint8_t service = b[kCipPos];
    s.cipGeneral = b[kCipPos + 2];
    const std::size_t countPos = kCipPos + 4 + 2u * b[kCipPos + 3];
    if (service != kMultipleServiceReply || b.size() < countPos + 4) return s;
    if (Le16(b, countPos) < 1) return s;
    const std::size_t embedded = countPos + Le16(b, countPos + 2);
    if (b.size() < embedded + 4) return s;
    s.hasEmbedded = true;
    s.embeddedGeneral = b[embedded + 2];
    return s;
}

}  // namespace hostsim
