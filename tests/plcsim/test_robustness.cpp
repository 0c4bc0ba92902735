// Whatever bytes arrive, the controller answers only with well-formed frames
// or link symbols, and never reads or writes outside its buffers (this runs
// under the sanitizers with the rest of the suite).
#include "driver_frames.h"
#include "plcsim_test_support.h"

#include "peer/cip.h"
#include "peer/controller.h"
#include "peer/df1.h"

#include <gtest/gtest.h>

#include <random>

using namespace peer;

namespace {

// A reply frame, DLE NAK or DLE ACK; nothing else may leave the controller.
::testing::AssertionResult WellFormed(const Bytes& out) {
    if (out == Hex("10 15") || out == Hex("10 06")) return ::testing::AssertionSuccess();
    if (out.size() < 13) return ::testing::AssertionFailure() << "short: " << ToHex(out);
    if (!(out[0] == 0x10 && out[1] == 0x06 && out[2] == 0x10 && out[3] == 0x02))
        return ::testing::AssertionFailure() << "lead-in: " << ToHex(out);
    Bytes body;
    std::size_t i = 4;
    for (; i + 3 < out.size(); ++i) {
        if (out[i] == 0x10) {
            if (out[i + 1] != 0x10)
                return ::testing::AssertionFailure() << "lone DLE: " << ToHex(out);
            ++i;
        }
        body.push_back(out[i]);
    }
    if (i != out.size() - 3 || out[i] != 0x10 || out[i + 1] != 0x03)
        return ::testing::AssertionFailure() << "trailer: " << ToHex(out);
    if (BlockCheck(body) != out.back())
        return ::testing::AssertionFailure() << "check: " << ToHex(out);
    return ::testing::AssertionSuccess();
}

}  // namespace

TEST(Robustness, RandomStreamsInDirectMode) {
    std::mt19937 random(2024);
    TagMemory memory;
    Controller controller(memory);
    for (int round = 0; round < 3000; ++round) {
        const std::size_t size = random() % 200;
        const Bytes stream = LinkNoise(random, size, 6);
        for (const auto& t : controller.receive(stream, round)) ASSERT_TRUE(WellFormed(t.bytes));
    }
}

TEST(Robustness, MutatedDriverRequestsWithValidChecks) {
    // Change one or two bytes of each request's body and send it with a
    // correct block check, so every mutation reaches the CIP decoder.
    std::mt19937 random(77);
    TagMemory memory;
    Controller controller(memory);
    int answered = 0;
    for (int round = 0; round < 20000; ++round) {
        const auto& row =
            kDriverFrames[random() % (sizeof kDriverFrames / sizeof kDriverFrames[0])];
        Bytes body = FirstBody(Hex(row.hex));
        const int changes = 1 + static_cast<int>(random() % 2);
        for (int c = 0; c < changes; ++c)
            body[random() % body.size()] = static_cast<uint8_t>(random());
        if (random() % 4 == 0) body.resize(random() % body.size());
        for (const auto& t : controller.receive(peer::FrameRequest(body), round)) {
            ASSERT_TRUE(WellFormed(t.bytes)) << ToHex(body);
            ++answered;
        }
    }
    EXPECT_GT(answered, 15000);
}

TEST(Robustness, RandomStreamsInRemoteMode) {
    std::mt19937 random(99);
    TagMemory memory;
    ControllerOptions options;
    options.mode = LinkMode::kRemote;
    Controller controller(memory, options);
    for (int round = 0; round < 3000; ++round) {
        Bytes stream(random() % 300);
        for (auto& b : stream) b = static_cast<uint8_t>(random());
        // Now and then a frame whose checksum is right but whose fields are
        // random, so it reaches the memory access.
        if (round % 3 == 0) {
            Bytes frame(22 + random() % 40);
            for (auto& b : frame)
                b = static_cast<uint8_t>(random() % 4 == 0 ? random() % 5 : random());
            frame[0] = static_cast<uint8_t>(frame.size());
            frame.back() = RemoteChecksum(frame.data(), frame.size() - 1);
            controller.resetReceiver();
            stream = frame;
        }
        for (const auto& t : controller.receive(stream, round)) ASSERT_TRUE(WellFormed(t.bytes));
    }
    EXPECT_GT(controller.counters().replies, 500u);
}

TEST(Robustness, CipDecoderOnRandomMessages) {
    std::mt19937 random(5);
    TagMemory memory;
    for (int round = 0; round < 20000; ++round) {
        Bytes message(random() % 64);
        for (auto& b : message) b = static_cast<uint8_t>(random());
        if (!message.empty() && random() % 2) message[0] = cip::kMultipleServicePacket;
        const Bytes reply = AnswerCipMessage(message.data(), message.size(), memory, 242);
        ASSERT_GE(reply.size(), 4u);
        ASSERT_EQ(reply[0] & cip::kReplyFlag, cip::kReplyFlag);
    }
}
