// The host's ear: a reply taken off the line byte by byte or in pieces, kept
// as received (lead-in, doubled DLEs, trailer) for the plug-in to judge; and
// the CIP status such a reply carries.
#include "controller_end.h"

#include "peer/df1.h"
#include "peer/reply_status.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <optional>
#include <vector>

namespace {

using peer::Df1Event;
using peer::Df1Receiver;
using peer::Side;

// Feeds bytes until an event; the event (if any) and how many bytes it took.
struct Fed {
    std::optional<Df1Event> event;
    std::size_t taken = 0;
};

Fed Feed(Df1Receiver& receiver, const std::vector<uint8_t>& bytes, std::size_t from = 0,
         std::size_t to = SIZE_MAX) {
    Fed fed;
    for (std::size_t i = from; i < bytes.size() && i < to; ++i) {
        ++fed.taken;
        fed.event = receiver.push(bytes[i]);
        if (fed.event) break;
    }
    return fed;
}

Df1Receiver ReplyReceiver() {
    return Df1Receiver(Side::kReplies);
}

const char kReadReplyBody[] =
    "00 00 4B 00 21 00 00 00 8A 00 00 00 01 00 04 00 D2 00 00 00 C3 00 34 12";

}  // namespace

// ---- reception -------------------------------------------------------------

TEST(ReplyReception, CompleteAfterTrailerAndBlockCheck) {
    const std::vector<uint8_t> reply =
        peer::FrameReply(Bytes("00 00 4B 00 21 00 00 00 8A 00 00 00"));
    Df1Receiver r = ReplyReceiver();
    EXPECT_FALSE(Feed(r, reply, 0, reply.size() - 1).event);
    const Fed last = Feed(r, reply, reply.size() - 1);
    ASSERT_TRUE(last.event);
    EXPECT_EQ(last.event->kind, Df1Event::Kind::kFrame);
    EXPECT_EQ(last.event->raw, reply);
}

TEST(ReplyReception, LeadInMayComeInTwoPieces) {
    Df1Receiver r = ReplyReceiver();
    EXPECT_FALSE(Feed(r, Bytes("10 06")).event);
    EXPECT_EQ(r.pending(), Bytes("10 06"));
    const Fed rest = Feed(r, Bytes("10 02 01 02 10 03 FD"));
    ASSERT_TRUE(rest.event);
    EXPECT_EQ(rest.event->kind, Df1Event::Kind::kFrame);
    EXPECT_EQ(rest.event->raw, Bytes("10 06 10 02 01 02 10 03 FD"));
}

TEST(ReplyReception, DoubledDleFollowedByEtxIsData) {
    // 10 10 is one data DLE; the 03 after it is data, not the trailer.
    const std::vector<uint8_t> reply = Bytes("10 06 10 02 AA 10 10 03 BB 10 03 CC");
    Df1Receiver r = ReplyReceiver();
    EXPECT_FALSE(Feed(r, reply, 0, 11).event);
    const Fed last = Feed(r, reply, 11);
    ASSERT_TRUE(last.event);
    EXPECT_TRUE(last.event->complete());
    EXPECT_EQ(last.event->body, Bytes("AA 10 03 BB"));
    EXPECT_EQ(last.event->blockCheck, 0xCC);
}

TEST(ReplyReception, ByteByByteGivesTheSameEnd) {
    const std::vector<uint8_t> reply = peer::FrameReply(
        Bytes("00 10 4B 00 10 00 00 00 8A 00 00 00 01 00 04 00 D2 00 00 00 C3 00 10 10"));
    Df1Receiver r = ReplyReceiver();
    for (std::size_t i = 0; i + 1 < reply.size(); ++i)
        ASSERT_FALSE(r.push(reply[i])) << "byte " << i;
    const std::optional<Df1Event> event = r.push(reply.back());
    ASSERT_TRUE(event);
    EXPECT_EQ(event->kind, Df1Event::Kind::kFrame);
    EXPECT_EQ(event->raw, reply);
}

TEST(ReplyReception, BlockCheckOf0x10IsOneByte) {
    const std::vector<uint8_t> reply = Bytes("10 06 10 02 F0 10 03 10");
    Df1Receiver r = ReplyReceiver();
    const Fed fed = Feed(r, reply);
    ASSERT_TRUE(fed.event);
    EXPECT_EQ(fed.event->kind, Df1Event::Kind::kFrame);
    EXPECT_EQ(fed.taken, reply.size());
}

TEST(ReplyReception, BytesAfterTheReplyAreNotTaken) {
    const std::vector<uint8_t> stream = Bytes("10 06 10 02 01 10 03 FF 10 06");
    Df1Receiver r = ReplyReceiver();
    const Fed fed = Feed(r, stream);
    ASSERT_TRUE(fed.event);
    EXPECT_EQ(fed.taken, 8u);
    EXPECT_EQ(fed.event->raw, Bytes("10 06 10 02 01 10 03 FF"));
    EXPECT_TRUE(r.pending().empty());
}

TEST(ReplyReception, DleNakEndsReceptionAsRefused) {
    Df1Receiver r = ReplyReceiver();
    const Fed fed = Feed(r, Bytes("10 15"));
    ASSERT_TRUE(fed.event);
    EXPECT_EQ(fed.event->kind, Df1Event::Kind::kRefused);
    EXPECT_EQ(fed.event->raw, Bytes("10 15"));
}

TEST(ReplyReception, DleNakInsideAReplyIsData) {
    Df1Receiver r = ReplyReceiver();
    const Fed fed = Feed(r, peer::FrameReply(Bytes("01 10 15 02")));
    ASSERT_TRUE(fed.event);
    EXPECT_EQ(fed.event->kind, Df1Event::Kind::kFrame);
    EXPECT_EQ(fed.event->body, Bytes("01 10 15 02"));
}

TEST(ReplyReception, AckAloneIsIncomplete) {
    Df1Receiver r = ReplyReceiver();
    EXPECT_FALSE(Feed(r, Bytes("10 06")).event);
    EXPECT_TRUE(r.idle());
}

TEST(ReplyReception, NoiseBeforeTheReplyIsKeptInRaw) {
    const std::vector<uint8_t> noise = Bytes("FF 00 10 06 7E");
    std::vector<uint8_t> stream = noise;
    const std::vector<uint8_t> reply = peer::FrameReply(Bytes("01 02"));
    stream.insert(stream.end(), reply.begin(), reply.end());
    Df1Receiver r = ReplyReceiver();
    const Fed fed = Feed(r, stream);
    ASSERT_TRUE(fed.event);
    EXPECT_EQ(fed.event->raw, stream);
    EXPECT_EQ(fed.event->body, Bytes("01 02"));
}

TEST(ReplyReception, WrongBlockCheckIsStillAWholeReply) {
    std::vector<uint8_t> reply = peer::FrameReply(Bytes("01 02"));
    reply.back() ^= 0x01;
    Df1Receiver r = ReplyReceiver();
    const Fed fed = Feed(r, reply);
    ASSERT_TRUE(fed.event);
    EXPECT_EQ(fed.event->kind, Df1Event::Kind::kBadBlockCheck);
    EXPECT_TRUE(fed.event->complete());
    EXPECT_EQ(fed.event->raw, reply);
}

TEST(ReplyReception, BodyIsUnstuffed) {
    const auto body = peer::MessageBody(Bytes("10 06 10 02 01 10 10 02 10 10 10 10 10 03 00"));
    ASSERT_TRUE(body.has_value());
    EXPECT_EQ(*body, Bytes("01 10 02 10 10"));
    EXPECT_FALSE(peer::MessageBody(Bytes("10 06 01 02 10 03 00")).has_value());
}

// ---- CIP status of a reply ---------------------------------------------------

struct StatusRow {
    const char* name;
    const char* body;  // framed as the controller sends it
    bool hasCip;
    uint8_t cipGeneral;
    bool hasEmbedded;
    uint8_t embeddedGeneral;
    uint8_t df1Status;
    bool failed;
};

class ReplyStatus : public ::testing::TestWithParam<StatusRow> {};

TEST_P(ReplyStatus, IsReadFromTheBody) {
    const StatusRow& row = GetParam();
    const peer::ReplyStatus s = peer::ReadReplyStatus(peer::FrameReply(Bytes(row.body)));
    EXPECT_TRUE(s.parsed);
    EXPECT_EQ(s.df1Status, row.df1Status);
    EXPECT_EQ(s.hasCip, row.hasCip);
    if (row.hasCip) {
        EXPECT_EQ(s.cipGeneral, row.cipGeneral);
    }
    EXPECT_EQ(s.hasEmbedded, row.hasEmbedded);
    if (row.hasEmbedded) {
        EXPECT_EQ(s.embeddedGeneral, row.embeddedGeneral);
    }
    EXPECT_EQ(s.failed(), row.failed);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, ReplyStatus,
    ::testing::Values(
        StatusRow{"SuccessfulReadIsNotAFailure", kReadReplyBody, true, 0, true, 0, 0, false},
        // Multiple Service Packet status 0x1E (embedded service error), the
        // embedded read's status 0x05 (path destination unknown).
        StatusRow{"EmbeddedErrorIsAFailure",
                  "00 00 4B 00 21 00 00 00 8A 00 1E 00 01 00 04 00 D2 00 05 00", true, 0x1E, true,
                  0x05, 0, true},
        // General error 0xFF with one extended status word in the embedded
        // reply; a doubled TNS byte before it shifts every later reply byte.
        StatusRow{"ExtendedStatusMovesTheEmbeddedReply",
                  "00 00 4B 00 10 00 00 00 8A 00 1E 00 01 00 04 00 D2 00 FF 01 05 21", true, 0x1E,
                  true, 0xFF, 0, true},
        StatusRow{"Df1StatusAloneIsAFailure", "00 00 4B 10 21 00", false, 0, false, 0, 0x10, true},
        StatusRow{"WriteConfirmationIsNotAFailure",
                  "00 00 4B 00 21 00 00 00 8A 00 00 00 01 00 04 00 D3 00 00 00", true, 0, true, 0,
                  0, false}),
    [](const ::testing::TestParamInfo<StatusRow>& row) { return std::string(row.param.name); });

TEST(ReplyStatusOf, NoBodyIsNotParsed) {
    const auto s = peer::ReadReplyStatus(Bytes("10 15"));
    EXPECT_FALSE(s.parsed);
    EXPECT_FALSE(s.failed());
}
