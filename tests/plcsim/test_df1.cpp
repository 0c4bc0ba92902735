// DF1 framing on the controller's side: finding request frames in the byte
// stream, de-stuffing, block checks, and the framing of replies.
#include "driver_frames.h"
#include "plcsim_test_support.h"

#include "peer/df1.h"

#include <gtest/gtest.h>

#include <optional>
#include <random>

using peer::BlockCheck;
using peer::Df1Event;
using peer::Df1Receiver;
using peer::FrameReply;

namespace {

std::vector<Df1Event> Feed(Df1Receiver& receiver, const Bytes& bytes) {
    std::vector<Df1Event> events;
    for (uint8_t b : bytes) {
        if (auto event = receiver.push(b)) events.push_back(*event);
    }
    return events;
}

// The body between DLE STX and DLE ETX of a frame, de-stuffed by hand.
Bytes BodyOf(const Bytes& frame) {
    Bytes body;
    for (std::size_t i = 4; i + 3 < frame.size(); ++i) {
        body.push_back(frame[i]);
        if (frame[i] == 0x10 && frame[i + 1] == 0x10) ++i;
    }
    return body;
}

}  // namespace

TEST(BlockCheck, IsTwosComplementOfByteSum) {
    EXPECT_EQ(BlockCheck(Hex("01")), 0xFF);
    EXPECT_EQ(BlockCheck(Hex("01 FF")), 0x00);
    EXPECT_EQ(BlockCheck(Bytes{}), 0x00);
    EXPECT_EQ(BlockCheck(Hex("00 00 4B 00 21 00")), 0x94);
}

class DriverFrameTest : public ::testing::TestWithParam<DriverFrame> {};

TEST_P(DriverFrameTest, Receiver_AcceptsFrameAndDestuffsBody) {
    const DriverFrame& row = GetParam();
    const Bytes frame = Hex(row.hex);
    Df1Receiver receiver;
    const auto events = Feed(receiver, frame);
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].kind, Df1Event::Kind::kFrame);
    EXPECT_EQ(events[0].body.size(), frame.size() - 7 - row.doubled);
    EXPECT_EQ(events[0].body, BodyOf(frame));
    EXPECT_EQ(events[0].body[4], row.tns);
    EXPECT_EQ(events[0].blockCheck, frame.back());
    EXPECT_TRUE(receiver.idle());
}

TEST_P(DriverFrameTest, Receiver_AnyChangedBlockCheckIsRejected) {
    Bytes frame = Hex(GetParam().hex);
    frame.back() = static_cast<uint8_t>(frame.back() + 1);
    Df1Receiver receiver;
    const auto events = Feed(receiver, frame);
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].kind, Df1Event::Kind::kBadBlockCheck);
}

TEST_P(DriverFrameTest, FrameRequest_RebuildsTheFrameFromItsBody) {
    const Bytes frame = Hex(GetParam().hex);
    EXPECT_EQ(ToHex(peer::FrameRequest(BodyOf(frame))), ToHex(frame));
}

INSTANTIATE_TEST_SUITE_P(DriverFrames, DriverFrameTest, ::testing::ValuesIn(kDriverFrames),
                         [](const ::testing::TestParamInfo<DriverFrame>& row) {
                             return std::string(row.param.name);
                         });

TEST(Df1Receiver, ElementSixteenIsOneDestuffedByte) {
    Df1Receiver receiver;
    const auto events = Feed(receiver, Hex(kDriverFrames[1].hex));
    ASSERT_EQ(events.size(), 1u);
    // DST at body 0, so the frame's offset 32 (element) is body offset 28.
    EXPECT_EQ(ToHex(Bytes(events[0].body.begin() + 26, events[0].body.begin() + 31)),
              "29 00 10 00 02");
}

TEST(Df1Receiver, AcceptsBareDleStx) {
    Bytes frame = Hex(kDriverFrames[0].hex);
    frame.erase(frame.begin(), frame.begin() + 2);  // no DLE ACK
    Df1Receiver receiver;
    const auto events = Feed(receiver, frame);
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].kind, Df1Event::Kind::kFrame);
}

TEST(Df1Receiver, SkipsNoiseAndLinkSymbolsBeforeAFrame) {
    const Bytes frame = Hex(kDriverFrames[0].hex);
    Df1Receiver receiver;
    const auto events = Feed(receiver, Concat(Hex("00 FF 10 06 10 15 03 10 10 02 10 05"), frame));
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].kind, Df1Event::Kind::kFrame);
    EXPECT_EQ(events[0].body, BodyOf(frame));
}

TEST(Df1Receiver, TwoFramesBackToBack) {
    const Bytes a = Hex(kDriverFrames[0].hex);
    const Bytes b = Hex(kDriverFrames[6].hex);
    Df1Receiver receiver;
    const auto events = Feed(receiver, Concat(a, b));
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[0].body, BodyOf(a));
    EXPECT_EQ(events[1].body, BodyOf(b));
}

TEST(Df1Receiver, LoneDleIsKeptWithTheByteAfterIt) {
    // A first request may carry its transaction number 0x10 undoubled; the
    // block check counts that byte once.
    const Bytes body = Hex("00 00 0B 00 10 00 00 00 0A");
    Bytes frame = Hex("10 06 10 02");
    frame.insert(frame.end(), body.begin(), body.end());
    frame.push_back(0x10);
    frame.push_back(0x03);
    frame.push_back(BlockCheck(body));
    Df1Receiver receiver;
    const auto events = Feed(receiver, frame);
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].kind, Df1Event::Kind::kFrame);
    EXPECT_EQ(events[0].body, body);
}

TEST(Df1Receiver, DoubledDleRightBeforeTrailer) {
    const Bytes body = Hex("00 00 0B 00 21 00 10");
    Df1Receiver receiver;
    const auto events = Feed(receiver, peer::FrameRequest(body));
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].kind, Df1Event::Kind::kFrame);
    EXPECT_EQ(events[0].body, body);
}

TEST(Df1Receiver, BlockCheckOf0x10IsOneByte) {
    // Sum 0xF0 -> block check 0x10, sent once after DLE ETX.
    const Bytes body = Hex("00 00 0B 00 E5 00");
    ASSERT_EQ(BlockCheck(body), 0x10);
    Df1Receiver receiver;
    const auto events = Feed(receiver, Concat(peer::FrameRequest(body), Hex(kDriverFrames[0].hex)));
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[0].kind, Df1Event::Kind::kFrame);
    EXPECT_EQ(events[0].body, body);
    EXPECT_EQ(events[1].kind, Df1Event::Kind::kFrame);
}

TEST(Df1Receiver, DleStxInsideAFrameStartsAgain) {
    const Bytes frame = Hex(kDriverFrames[0].hex);
    Bytes broken(frame.begin(), frame.begin() + 20);  // cut off mid-body
    Df1Receiver receiver;
    const auto events = Feed(receiver, Concat(broken, frame));
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].kind, Df1Event::Kind::kFrame);
    EXPECT_EQ(events[0].body, BodyOf(frame));
}

TEST(Df1Receiver, ResetForgetsAPartialFrame) {
    const Bytes frame = Hex(kDriverFrames[0].hex);
    Df1Receiver receiver;
    EXPECT_TRUE(Feed(receiver, Bytes(frame.begin(), frame.begin() + 30)).empty());
    EXPECT_FALSE(receiver.idle());
    receiver.reset();
    EXPECT_TRUE(receiver.idle());
    // The rest of the old frame is noise now; no frame comes out of it.
    EXPECT_TRUE(Feed(receiver, Bytes(frame.begin() + 30, frame.end())).empty());
    EXPECT_EQ(Feed(receiver, frame).size(), 1u);
}

TEST(Df1Receiver, OverlongFrameIsDroppedAndTheNextOneTaken) {
    Df1Receiver receiver(peer::Side::kRequests, 64);
    Bytes longBody(100, 0x55);
    const auto events =
        Feed(receiver, Concat(peer::FrameRequest(longBody), Hex(kDriverFrames[0].hex)));
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[0].kind, Df1Event::Kind::kOverflow);
    EXPECT_EQ(events[1].kind, Df1Event::Kind::kFrame);
}

TEST(Df1Receiver, RandomBytesNeverHideAFollowingFrame) {
    std::mt19937 random(12345);
    const Bytes frame = Hex(kDriverFrames[6].hex);
    for (int round = 0; round < 2000; ++round) {
        Df1Receiver receiver(peer::Side::kRequests, 256);
        // Plenty of DLEs, STXs and ETXs.
        const std::size_t size = random() % 300;
        const Bytes noise = LinkNoise(random, size, 8);
        auto events = Feed(receiver, noise);
        // Whatever state the noise left, DLE STX opens the frame afresh; a
        // pending DLE could swallow the first DLE, so lead in with a byte
        // that is not DLE.
        events = Feed(receiver, Concat(Hex("00"), frame));
        ASSERT_FALSE(events.empty()) << "round " << round;
        EXPECT_EQ(events.back().kind, Df1Event::Kind::kFrame) << "round " << round;
        EXPECT_EQ(events.back().body, BodyOf(frame)) << "round " << round;
    }
}

TEST(FrameReply, LeadInDoublingTrailerAndBlockCheck) {
    const Bytes body = Hex("00 00 4B 00 10 00 00 00 10");
    const Bytes framed = FrameReply(body);
    EXPECT_EQ(ToHex(framed),
              "10 06 10 02 00 00 4B 00 10 10 00 00 00 10 10 10 03 " + ToHex({BlockCheck(body)}));
    // The block check is over the un-stuffed body.
    EXPECT_EQ(BlockCheck(body), static_cast<uint8_t>(0x100 - 0x6B));
}

TEST(FrameReply, BlockCheck0x10IsNotDoubled) {
    const Bytes body = Hex("00 00 4B 00 A5 00");
    ASSERT_EQ(BlockCheck(body), 0x10);
    const Bytes framed = FrameReply(body);
    EXPECT_EQ(framed.size(), 4u + 6u + 3u);
    EXPECT_EQ(ToHex(Bytes(framed.end() - 3, framed.end())), "10 03 10");
}
