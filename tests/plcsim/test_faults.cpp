// Fault injection and counters of the controller, driven by explicit time.
#include "driver_frames.h"
#include "plcsim_test_support.h"

#include "peer/controller.h"
#include "peer/df1.h"

#include <gtest/gtest.h>

using namespace peer;

namespace {

const Bytes& WriteFrame() {
    static const Bytes frame = Hex(kDriverFrames[7].hex);  // B3:0 = 5, TNS 0x42
    return frame;
}

class FaultTest : public ::testing::Test {
protected:
    std::vector<Transmission> Send(int64_t nowMs = 0) {
        return controller.receive(WriteFrame(), nowMs);
    }
    // Sends a request that must get exactly one transmission back.
    Transmission SendOne(int64_t nowMs = 0) {
        std::vector<Transmission> out = Send(nowMs);
        EXPECT_EQ(out.size(), 1u);
        return out.at(0);  // throws, failing the test, when nothing came
    }
    // Sends n requests; which of them got a reply (1-based).
    std::vector<int> Answered(int n) {
        std::vector<int> out;
        for (int i = 1; i <= n; ++i) {
            if (!Send().empty()) out.push_back(i);
        }
        return out;
    }

    TagMemory memory;
    Controller controller{memory};
};

bool GoodReply(const Bytes& reply) {
    if (reply.size() < 9) return false;
    Bytes body;
    for (std::size_t i = 4; i + 3 < reply.size(); ++i) {
        body.push_back(reply[i]);
        if (reply[i] == 0x10) ++i;
    }
    return BlockCheck(body) == reply.back();
}

}  // namespace

TEST_F(FaultTest, NoFaultsEveryRequestIsAnswered) {
    EXPECT_EQ(Answered(5), (std::vector<int>{1, 2, 3, 4, 5}));
    const auto c = controller.counters();
    EXPECT_EQ(c.framesReceived, 5u);
    EXPECT_EQ(c.replies, 5u);
    EXPECT_EQ(c.repliesSent, 5u);
    EXPECT_EQ(c.dropped, 0u);
}

TEST_F(FaultTest, DropEveryThird) {
    FaultPlan plan;
    plan.drop.every = 3;
    controller.setFaults(plan);
    EXPECT_EQ(Answered(7), (std::vector<int>{1, 2, 4, 5, 7}));
    EXPECT_EQ(controller.counters().dropped, 2u);
    // The request is still carried out; only its reply is lost.
    EXPECT_EQ(memory.word('B', 3, 0), 5);
}

TEST_F(FaultTest, DropNextTwoThenNormal) {
    FaultPlan plan;
    plan.drop.next = 2;
    controller.setFaults(plan);
    EXPECT_EQ(Answered(4), (std::vector<int>{3, 4}));
    EXPECT_EQ(controller.faults().drop.next, 0u);
}

TEST_F(FaultTest, CorruptBlockCheck) {
    FaultPlan plan;
    plan.corruptCheck.next = 1;
    controller.setFaults(plan);
    const Bytes bad = SendOne().bytes;
    EXPECT_EQ(bad.size(), 27u);
    EXPECT_FALSE(GoodReply(bad));
    const Bytes good = SendOne().bytes;
    EXPECT_TRUE(GoodReply(good));
    EXPECT_EQ(bad.back(), static_cast<uint8_t>(~good.back()));
    EXPECT_EQ(controller.counters().corrupted, 1u);
}

TEST_F(FaultTest, TruncateCutsTheEnd) {
    FaultPlan plan;
    plan.truncate.every = 2;
    plan.truncateBytes = 5;
    controller.setFaults(plan);
    const Bytes first = SendOne().bytes;
    const Bytes second = SendOne().bytes;
    ASSERT_EQ(first.size(), 27u);
    EXPECT_EQ(second.size(), 22u);
    EXPECT_EQ(Bytes(first.begin(), first.begin() + 22), second);
    EXPECT_EQ(controller.counters().truncated, 1u);
}

TEST_F(FaultTest, LateRepliesCarryTheirDelay) {
    FaultPlan plan;
    plan.late.next = 1;
    plan.lateMs = 750;
    controller.setFaults(plan);
    const Transmission late = SendOne();
    EXPECT_EQ(late.delayMs, 750u);
    EXPECT_TRUE(GoodReply(late.bytes));
    EXPECT_EQ(SendOne().delayMs, 0u);
    EXPECT_EQ(controller.counters().delayed, 1u);
}

TEST_F(FaultTest, WrongTransactionNumber) {
    FaultPlan plan;
    plan.wrongTns.next = 1;
    controller.setFaults(plan);
    const Bytes wrong = SendOne().bytes;
    EXPECT_EQ(wrong.at(8), 0x43);  // request TNS 0x42
    EXPECT_TRUE(GoodReply(wrong));
    EXPECT_EQ(SendOne().bytes.at(8), 0x42);
    EXPECT_EQ(controller.counters().wrongTns, 1u);
}

TEST_F(FaultTest, SilenceSwallowsEverythingForItsPeriod) {
    controller.silenceFor(1000, 3000);
    EXPECT_EQ(Send(999).size(), 1u);
    EXPECT_TRUE(Send(1000).empty());
    EXPECT_TRUE(Send(3999).empty());
    Bytes bad = WriteFrame();
    bad.back() ^= 0xFF;
    EXPECT_TRUE(controller.receive(bad, 2000).empty());  // not even a NAK
    EXPECT_EQ(Send(4000).size(), 1u);
    const auto c = controller.counters();
    EXPECT_EQ(c.silenced, 2u);
    EXPECT_EQ(c.naks, 0u);
    EXPECT_EQ(c.badFrames, 1u);
    // Requests are still carried out during silence.
    EXPECT_EQ(memory.word('B', 3, 0), 5);
}

TEST_F(FaultTest, EndSilenceAndSilenceBetween) {
    controller.silenceBetween(100, 200);
    EXPECT_EQ(Send(50).size(), 1u);
    EXPECT_TRUE(Send(150).empty());
    controller.endSilence();
    EXPECT_EQ(Send(150).size(), 1u);
}

TEST_F(FaultTest, FaultsChangeWhileRunning) {
    EXPECT_EQ(Send().size(), 1u);
    FaultPlan plan;
    plan.drop.every = 1;
    controller.setFaults(plan);
    EXPECT_TRUE(Send().empty());
    controller.setFaults(FaultPlan{});
    EXPECT_EQ(Send().size(), 1u);
}

TEST_F(FaultTest, FaultsCombineOnOneReply) {
    FaultPlan plan;
    plan.wrongTns.next = 1;
    plan.corruptCheck.next = 1;
    plan.late.next = 1;
    plan.lateMs = 10;
    controller.setFaults(plan);
    const Transmission out = SendOne();
    EXPECT_EQ(out.bytes.at(8), 0x43);
    EXPECT_FALSE(GoodReply(out.bytes));
    EXPECT_EQ(out.delayMs, 10u);
}

TEST_F(FaultTest, DroppedReplyTakesNoOtherFault) {
    FaultPlan plan;
    plan.drop.next = 1;
    plan.corruptCheck.every = 1;
    controller.setFaults(plan);
    EXPECT_TRUE(Send().empty());
    EXPECT_EQ(controller.counters().corrupted, 0u);
}

TEST(Nak, BadBlockCheckIsAnsweredWithDleNak) {
    TagMemory memory;
    Controller controller(memory);
    Bytes bad = WriteFrame();
    bad.back() ^= 0x01;
    const auto out = controller.receive(bad, 0);
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(ToHex(out[0].bytes), "10 15");
    EXPECT_EQ(controller.counters().naks, 1u);
    EXPECT_EQ(memory.word('B', 3, 0), 0);
}

TEST(Nak, CanBeSwitchedOff) {
    TagMemory memory;
    ControllerOptions options;
    options.nakBadFrames = false;
    Controller controller(memory, options);
    Bytes bad = WriteFrame();
    bad.back() ^= 0x01;
    EXPECT_TRUE(controller.receive(bad, 0).empty());
    EXPECT_EQ(controller.counters().badFrames, 1u);
}

TEST(Duplicates, RepeatedMessageIsAcknowledgedButNotAnswered) {
    TagMemory memory;
    ControllerOptions options;
    options.detectDuplicates = true;
    Controller controller(memory, options);
    const Bytes read = Hex(kDriverFrames[0].hex);
    EXPECT_EQ(controller.receive(read, 0).at(0).bytes.size(), 49u);
    const auto again = controller.receive(read, 0);
    ASSERT_EQ(again.size(), 1u);
    EXPECT_EQ(ToHex(again[0].bytes), "10 06");
    EXPECT_EQ(controller.counters().duplicates, 1u);
    // Another transaction number is a new message.
    EXPECT_EQ(controller.receive(WriteFrame(), 0).at(0).bytes.size(), 27u);
}

TEST(Duplicates, OffByDefault) {
    TagMemory memory;
    Controller controller(memory);
    const Bytes read = Hex(kDriverFrames[0].hex);
    EXPECT_EQ(controller.receive(read, 0).at(0).bytes.size(), 49u);
    EXPECT_EQ(controller.receive(read, 0).at(0).bytes.size(), 49u);
}

TEST(Counters, CountBadOverflowAndPartial) {
    TagMemory memory;
    Controller controller(memory);
    const Bytes frame = Hex(kDriverFrames[0].hex);
    controller.receive(Bytes(frame.begin(), frame.begin() + 20), 0);
    EXPECT_FALSE(controller.receiverIdle());
    controller.resetReceiver();
    EXPECT_TRUE(controller.receiverIdle());
    Bytes huge = {0x10, 0x02};
    huge.insert(huge.end(), 2000, 0x55);
    controller.receive(huge, 0);
    EXPECT_EQ(controller.counters().overflows, 1u);
    EXPECT_EQ(controller.receive(frame, 0).size(), 1u);
    EXPECT_EQ(controller.counters().framesReceived, 1u);
}

// ---- noise before the reply ----------------------------------------------

namespace {

// True when the bytes hold DLE STX anywhere.
bool HoldsFrameStart(const Bytes& bytes) {
    for (std::size_t i = 0; i + 1 < bytes.size(); ++i)
        if (bytes[i] == df1::kDle && bytes[i + 1] == df1::kStx) return true;
    return false;
}

// The reply a controller without faults gives the write frame.
Bytes CleanReply() {
    TagMemory memory;
    Controller controller(memory);
    return OnlyReply(controller, WriteFrame());
}

}  // namespace

TEST_F(FaultTest, NoiseGoesBeforeTheReplyAndNeverStartsAFrame) {
    FaultPlan plan;
    plan.noise.every = 1;
    plan.noiseBytes = 64;
    plan.noiseSeed = 7;
    controller.setFaults(plan);
    const Bytes clean = CleanReply();
    // Many bursts: DLE and STX each come about once in 256 bytes.
    constexpr int kBursts = 200;
    for (int i = 0; i < kBursts; ++i) {
        const Bytes sent = SendOne().bytes;
        ASSERT_EQ(sent.size(), plan.noiseBytes + clean.size());
        const Bytes noise(sent.begin(), sent.begin() + plan.noiseBytes);
        EXPECT_EQ(Bytes(sent.begin() + plan.noiseBytes, sent.end()), clean);
        EXPECT_FALSE(HoldsFrameStart(noise)) << ToHex(noise);
        EXPECT_NE(noise.back(), df1::kDle) << ToHex(noise);
        // The host's ear still finds the reply's own frame behind the noise.
        Df1Receiver ear(Side::kReplies);
        std::optional<Df1Event> frame;
        for (uint8_t b : sent)
            if (auto event = ear.push(b); event && event->complete()) frame = event;
        ASSERT_TRUE(frame);
        EXPECT_EQ(frame->kind, Df1Event::Kind::kFrame);
        EXPECT_EQ(frame->body, FirstBody(clean));
    }
    EXPECT_EQ(controller.counters().noise, static_cast<uint64_t>(kBursts));
}

TEST_F(FaultTest, NoiseEveryThirdLeavesTheOthersClean) {
    FaultPlan plan;
    plan.noise.every = 3;
    plan.noiseBytes = 5;
    controller.setFaults(plan);
    const std::size_t clean = CleanReply().size();
    std::vector<std::size_t> sizes;
    for (int i = 0; i < 6; ++i) sizes.push_back(SendOne().bytes.size());
    EXPECT_EQ(sizes, (std::vector<std::size_t>{clean, clean, clean + 5, clean, clean, clean + 5}));
    EXPECT_EQ(controller.counters().noise, 2u);
}

TEST(Noise, RepeatsFromItsSeed) {
    const auto bursts = [](uint32_t seed) {
        TagMemory memory;
        Controller controller(memory);
        FaultPlan plan;
        plan.noise.every = 1;
        plan.noiseSeed = seed;
        controller.setFaults(plan);
        Bytes all;
        for (int i = 0; i < 5; ++i) all = Concat(all, OnlyReply(controller, WriteFrame()));
        return all;
    };
    EXPECT_EQ(bursts(11), bursts(11));
    EXPECT_NE(bursts(11), bursts(12));
}

TEST_F(FaultTest, SettingTheSamePlanAgainContinuesTheNoise) {
    // A plan re-armed before each exchange (as the end-to-end tests do) must
    // not replay one burst for ever.
    FaultPlan plan;
    plan.noise.next = 1;
    const Bytes first = (controller.setFaults(plan), SendOne().bytes);
    const Bytes second = (controller.setFaults(plan), SendOne().bytes);
    EXPECT_NE(first, second);
}
