#include "peer/reply_status.h"

#include "peer/df1.h"

namespace peer {

namespace {

// Body positions of a reply to the plug-in's requests: the DF1 header, the
// two bytes the request carries before its CIP part (echoed), then the CIP
// reply: service, reserved, general status, size of the extended status in
// words.
constexpr std::size_t kCipPos = df1::kCipStart;
constexpr std::size_t kCipHeaderSize = 4;
constexpr uint8_t kMultipleServiceReply = cip::kMultipleServicePacket | cip::kReplyFlag;

// The embedded reply's general status, when the Multiple Service Packet
// reply lists at least one reply and the first one's header is there.
void ReadEmbedded(const std::vector<uint8_t>& b, ReplyStatus* s) {
    const std::size_t countPos = kCipPos + kCipHeaderSize + 2u * b[kCipPos + 3];
    if (b[kCipPos] != kMultipleServiceReply || b.size() < countPos + 4) return;
    if (Le16(&b[countPos]) < 1) return;
    const std::size_t embedded = countPos + Le16(&b[countPos + 2]);
    if (b.size() < embedded + kCipHeaderSize) return;
    s->hasEmbedded = true;
    s->embeddedGeneral = b[embedded + 2];
}

}  // namespace

ReplyStatus ReadReplyStatus(const std::vector<uint8_t>& reply) {
    ReplyStatus s;
    const auto body = MessageBody(reply);
    if (!body || body->size() <= df1::kHeaderTnsHigh) return s;
    const std::vector<uint8_t>& b = *body;
    s.parsed = true;
    s.df1Status = b[df1::kHeaderSts];
    if (b.size() < kCipPos + kCipHeaderSize) return s;
    s.hasCip = true;
    s.cipGeneral = b[kCipPos + 2];
    ReadEmbedded(b, &s);
    return s;
}

}  // namespace peer
