// The host's end of a line over a pseudo-terminal: one exchange, its
// timeout, a refusal, a stop, bytes after a reply left out of it, paced
// requests arriving whole; the baud table and the pacing arithmetic.
#include "controller_end.h"

#include "peer/df1.h"
#include "peer/line.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <fcntl.h>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

// Long enough for a loaded machine: a reply that is on its way arrives well
// within it.
constexpr int kReplyTimeoutMs = 3000;
// For the exchanges that are meant to time out.
constexpr int kShortTimeoutMs = 50;

const std::vector<uint8_t> kRequest = peer::FrameRequest(Bytes("01 00 0B 00 21 00 10 20"));
const std::vector<uint8_t> kReply = peer::FrameReply(Bytes("00 01 4B 00 21 00 10 10"));

class HostPortOverPty : public ::testing::Test {
protected:
    void SetUp() override {
        std::string error;
        ASSERT_TRUE(port.open(controller.peerPath(), 19200, &error)) << error;
    }
    peer::LineOutcome Exchange(int timeoutMs, int wakeFd = -1) {
        return port.exchange(kRequest.data(), kRequest.size(), timeoutMs, wakeFd, &reply);
    }

    ControllerEnd controller;
    peer::HostPort port;
    std::vector<uint8_t> reply;
};

}  // namespace

TEST_F(HostPortOverPty, ExchangeSendsTheRequestAndTakesTheWholeReply) {
    controller.answer(kRequest.size(), kReply);
    EXPECT_EQ(Exchange(kReplyTimeoutMs), peer::LineOutcome::kReply);
    EXPECT_EQ(reply, kReply);
    EXPECT_EQ(controller.request(), kRequest);
}

TEST_F(HostPortOverPty, NothingCompleteIsATimeoutWithWhatCame) {
    controller.answer(kRequest.size(), Bytes("10 06 10 02 01"));
    EXPECT_EQ(Exchange(kShortTimeoutMs), peer::LineOutcome::kTimeout);
    std::vector<uint8_t> taken = reply;
    // The partial reply came within the exchange, or comes just after it.
    EXPECT_EQ(controller.request(), kRequest);
    EXPECT_EQ(port.collect(kShortTimeoutMs, -1, &reply), peer::LineOutcome::kTimeout);
    taken.insert(taken.end(), reply.begin(), reply.end());
    EXPECT_EQ(taken, Bytes("10 06 10 02 01"));
}

TEST_F(HostPortOverPty, SilenceIsATimeout) {
    controller.answer(kRequest.size(), {});
    EXPECT_EQ(Exchange(kShortTimeoutMs), peer::LineOutcome::kTimeout);
    EXPECT_TRUE(reply.empty());
    EXPECT_EQ(controller.request(), kRequest);
}

TEST_F(HostPortOverPty, DleNakIsARefusal) {
    controller.answer(kRequest.size(), Bytes("10 15"));
    EXPECT_EQ(Exchange(kReplyTimeoutMs), peer::LineOutcome::kRefused);
    EXPECT_EQ(reply, Bytes("10 15"));
}

TEST_F(HostPortOverPty, BytesAfterTheReplyAreNotPartOfIt) {
    std::vector<uint8_t> answer = kReply;
    answer.push_back(peer::df1::kDle);
    answer.push_back(peer::df1::kAck);
    controller.answer(kRequest.size(), answer);
    EXPECT_EQ(Exchange(kReplyTimeoutMs), peer::LineOutcome::kReply);
    EXPECT_EQ(reply, kReply);
}

TEST_F(HostPortOverPty, AReadableWakeDescriptorStopsTheExchange) {
    int wake[2];
    ASSERT_EQ(pipe(wake), 0);
    const char byte = 1;
    ASSERT_EQ(write(wake[1], &byte, 1), 1);
    controller.answer(kRequest.size(), {});
    EXPECT_EQ(Exchange(kReplyTimeoutMs, wake[0]), peer::LineOutcome::kStopped);
    controller.request();
    close(wake[0]);
    close(wake[1]);
}

TEST_F(HostPortOverPty, PacedRequestArrivesWhole) {
    std::vector<uint8_t> body;
    for (int i = 0; i < 60; ++i) body.push_back(static_cast<uint8_t>(i * 7));
    const std::vector<uint8_t> request = peer::FrameRequest(body);
    port.setPaceBaud(38400);
    controller.answer(request.size(), kReply);
    EXPECT_EQ(port.exchange(request.data(), request.size(), kReplyTimeoutMs, -1, &reply),
              peer::LineOutcome::kReply);
    EXPECT_EQ(controller.request(), request);
    EXPECT_EQ(reply, kReply);
}

TEST_F(HostPortOverPty, SettleDropsWhatComesUntilTheLineIsQuiet) {
    // The reply, then a second frame (a late answer) 30 ms after it.
    const std::vector<uint8_t> late = peer::FrameReply(Bytes("00 01 4B 00 22 00 10 10"));
    std::vector<uint8_t> seen;
    port.setObserver([&seen](peer::Traffic traffic, const uint8_t* bytes, std::size_t n, int64_t) {
        if (traffic == peer::Traffic::kReceived) seen.insert(seen.end(), bytes, bytes + n);
    });
    controller.answerThen(kRequest.size(), kReply, 30, {late});
    ASSERT_EQ(Exchange(kReplyTimeoutMs), peer::LineOutcome::kReply);
    port.settle(kReplyTimeoutMs / 2, 2 * kReplyTimeoutMs, -1);
    controller.request();  // every byte has been written
    // The late frame was taken off the line (and shown to the observer).
    EXPECT_EQ(port.collect(kShortTimeoutMs, -1, &reply), peer::LineOutcome::kTimeout);
    EXPECT_TRUE(reply.empty());
    std::vector<uint8_t> both = kReply;
    both.insert(both.end(), late.begin(), late.end());
    EXPECT_EQ(seen, both);
}

TEST_F(HostPortOverPty, SettleEndsAfterItsLongestWaitOnABusyLine) {
    // A byte every 10 ms for about two seconds: the line is never quiet for
    // 100 ms, and settling gives up after 200 ms with bytes still coming.
    std::vector<std::vector<uint8_t>> stream(200, Bytes("55"));
    controller.answerThen(kRequest.size(), kReply, 10, stream);
    ASSERT_EQ(Exchange(kReplyTimeoutMs), peer::LineOutcome::kReply);
    port.settle(100, 200, -1);
    EXPECT_EQ(port.collect(kShortTimeoutMs, -1, &reply), peer::LineOutcome::kTimeout);
    EXPECT_FALSE(reply.empty()) << "settling went on past its longest wait";
    controller.request();
}

TEST(HostPort, ExchangeOnAClosedPortIsAnError) {
    peer::HostPort port;
    std::vector<uint8_t> reply;
    EXPECT_EQ(port.exchange(kRequest.data(), kRequest.size(), 10, -1, &reply),
              peer::LineOutcome::kError);
    EXPECT_EQ(port.error(), "port not open");
}

TEST(HostPort, OpeningSaysWhyItFailed) {
    peer::HostPort port;
    std::string error;
    EXPECT_FALSE(port.open("/nonexistent/tty", 19200, &error));
    EXPECT_EQ(error.rfind("cannot open port /nonexistent/tty: ", 0), 0u) << error;
    EXPECT_FALSE(port.open("/dev/null", 19200, &error));
    EXPECT_EQ(error, "cannot use /dev/null as a serial port: not a terminal device");
    EXPECT_FALSE(port.open("/dev/null", 12345, &error));
    EXPECT_EQ(error, "unsupported baud rate 12345");
    EXPECT_FALSE(port.isOpen());
}

// ---- the baud table and the pacing ------------------------------------------------

TEST(BaudTable, TakesEveryTermiosRate) {
    for (int baud : {50, 75, 110, 300, 1200, 9600, 19200, 38400, 57600, 115200, 230400})
        EXPECT_TRUE(peer::IsSupportedBaud(baud)) << baud;
#ifdef __linux__
    for (int baud : {460800, 921600, 1000000, 4000000})
        EXPECT_TRUE(peer::IsSupportedBaud(baud)) << baud;
#endif
}

TEST(BaudTable, RefusesOtherRates) {
    for (int baud : {0, 1, -9600, 12345, 19201, 4000001}) EXPECT_FALSE(peer::IsSupportedBaud(baud));
}

TEST(Pacing, EachByteIsHandedOverExactlyWhenItHasCrossed) {
    const std::size_t total = 100;
    for (int baud : {50, 1200, 19200, 115200, 4000000}) {
        for (std::size_t k = 0; k < total; k += 7) {
            const int64_t due = peer::PacedDueNs(k, baud);
            EXPECT_EQ(peer::PacedBytesAllowed(due, baud, total), k + 1) << baud << " " << k;
            EXPECT_EQ(peer::PacedBytesAllowed(due - 1, baud, total), k) << baud << " " << k;
        }
    }
}

// A message of n bytes takes n byte times, as on a real line: nothing is
// handed over before the first byte has crossed.
TEST(Pacing, ByteTimesAreTenBitTimes) {
    EXPECT_EQ(peer::PacedDueNs(0, 9600), 1041667);  // 10 / 9600 s, rounded up
    EXPECT_EQ(peer::PacedDueNs(95, 9600), 100000000);
    EXPECT_EQ(peer::PacedBytesAllowed(0, 9600, 42), 0u);
}

TEST(Pacing, NoRateSendsEverythingAtOnce) {
    EXPECT_EQ(peer::PacedBytesAllowed(0, 0, 42), 42u);
    EXPECT_EQ(peer::PacedDueNs(41, 0), 0);
    EXPECT_EQ(peer::PacedBytesAllowed(-1, 9600, 42), 0u);
    EXPECT_EQ(peer::PacedBytesAllowed(int64_t{1} << 40, 9600, 42), 42u);
}
