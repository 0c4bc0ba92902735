// The host's end of a line that vanishes: a controller served in-process on
// a pseudo-terminal behind a symbolic link goes away (its master closed, as
// when the far end's program ends) and comes back behind the same link. With
// reopening on, the port reports the line down, paces its exchanges at the
// reply timeout, backs off its attempts to reopen and carries replies again
// once the line is back. ABCL_TEST_LABEL_THREAD
#include "../served_controller.h"
#include "peer/controller.h"
#include "peer/df1.h"
#include "peer/line.h"
#include "peer/server.h"
#include "peer/tag_memory.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

constexpr int kBaud = 115200;
// Long enough for a reply on a loaded machine; exchanges meant to time out
// use the short one.
constexpr int kReplyTimeoutMs = 3000;
constexpr int kDownTimeoutMs = 200;
// poll() may wake a little before its time on a coarse clock.
constexpr int64_t kClockSlackMs = 5;
// Once the line is back, the next attempt comes within the longest back-off
// and an exchange of kDownTimeoutMs; this many exchanges cover it well.
constexpr int kExchangesToComeBack = 40;

// Read Tag (unwrapped) of one INT at N7:0, TNS 0x21: the controller answers
// it with a reply that holds the word.
const std::vector<uint8_t> kRequest =
    peer::FrameRequest({0x00, 0x00, 0x0B, 0x00, 0x21, 0x00, 0x00, 0x00, 0x4C, 0x03, 0x91, 0x04, 'N',
                        '0', '0', '7', 0x01, 0x00});

// The far end, answering at once.
std::unique_ptr<ServedController> Serve(const std::string& linkPath) {
    return std::make_unique<ServedController>(linkPath, 0, 0);
}

class ReopeningPort : public LinkFolder {
protected:
    peer::LineOutcome Exchange(int timeoutMs, int wakeFd = -1) {
        return port.exchange(kRequest.data(), kRequest.size(), timeoutMs, wakeFd, &reply);
    }
    // One exchange that must take at least its timeout: the line is down.
    void ExpectDownExchange() {
        const int64_t start = peer::MonotonicMs();
        EXPECT_EQ(Exchange(kDownTimeoutMs), peer::LineOutcome::kLineDown);
        EXPECT_GE(peer::MonotonicMs() - start, kDownTimeoutMs - kClockSlackMs);
        EXPECT_TRUE(reply.empty());
    }

    peer::HostPort port;
    std::vector<uint8_t> reply;
};

}  // namespace

TEST_F(ReopeningPort, LineThatVanishesIsShownDownAndCarriesRepliesOnceBack) {
    auto first = Serve(link_);
    std::string error;
    ASSERT_TRUE(port.open(link_, kBaud, &error)) << error;
    port.setReopen(true);
    ASSERT_EQ(Exchange(kReplyTimeoutMs), peer::LineOutcome::kReply);
    EXPECT_FALSE(port.lineDown());
    EXPECT_EQ(port.linesLost(), 0u);

    first.reset();  // the far end's program ends
    ExpectDownExchange();
    EXPECT_TRUE(port.lineDown());
    EXPECT_EQ(port.linesLost(), 1u);
    EXPECT_FALSE(port.error().empty());
    // Nothing behind the link yet: the next exchange waits out its timeout
    // too, and the attempts say why they failed.
    ExpectDownExchange();
    EXPECT_TRUE(port.lineDown());
    EXPECT_GE(port.reopenAttempts(), 1);
    EXPECT_NE(port.reopenError().find(link_), std::string::npos) << port.reopenError();

    auto second = Serve(link_);
    peer::LineOutcome outcome = peer::LineOutcome::kLineDown;
    for (int i = 0; i < kExchangesToComeBack && outcome != peer::LineOutcome::kReply; ++i)
        outcome =
            Exchange(outcome == peer::LineOutcome::kLineDown ? kDownTimeoutMs : kReplyTimeoutMs);
    EXPECT_EQ(outcome, peer::LineOutcome::kReply);
    EXPECT_FALSE(port.lineDown());
    EXPECT_EQ(port.linesLost(), 1u);
    ASSERT_GE(reply.size(), 4u);
    EXPECT_EQ(reply[1], peer::df1::kAck);
}

TEST_F(ReopeningPort, AttemptsBackOffInsteadOfSpinning) {
    auto served = Serve(link_);
    std::string error;
    ASSERT_TRUE(port.open(link_, kBaud, &error)) << error;
    port.setReopen(true);
    served.reset();
    // Attempts are due 100, 300, 700 and 1500 ms after the loss: about four
    // in eight exchanges of 200 ms, however often the port is asked.
    constexpr int kExchanges = 8;
    const int64_t start = peer::MonotonicMs();
    for (int i = 0; i < kExchanges; ++i) ExpectDownExchange();
    for (int i = 0; i < 1000; ++i) port.reopenIfDue();
    const int64_t elapsed = peer::MonotonicMs() - start;
    EXPECT_GE(elapsed, kExchanges * (kDownTimeoutMs - kClockSlackMs));
    EXPECT_GE(port.reopenAttempts(), 3) << elapsed << " ms";
    EXPECT_LE(port.reopenAttempts(), 5) << elapsed << " ms";
}

TEST_F(ReopeningPort, WakeDescriptorEndsTheWaitOfADownLine) {
    auto served = Serve(link_);
    std::string error;
    ASSERT_TRUE(port.open(link_, kBaud, &error)) << error;
    port.setReopen(true);
    served.reset();
    ExpectDownExchange();
    int wake[2];
    ASSERT_EQ(pipe(wake), 0);
    const char byte = 1;
    ASSERT_EQ(write(wake[1], &byte, 1), 1);
    const int64_t start = peer::MonotonicMs();
    EXPECT_EQ(Exchange(kReplyTimeoutMs, wake[0]), peer::LineOutcome::kStopped);
    EXPECT_LT(peer::MonotonicMs() - start, kReplyTimeoutMs);
    close(wake[0]);
    close(wake[1]);
}

TEST_F(ReopeningPort, WithoutReopeningAFailedLineIsAnError) {
    auto served = Serve(link_);
    std::string error;
    ASSERT_TRUE(port.open(link_, kBaud, &error)) << error;
    ASSERT_EQ(Exchange(kReplyTimeoutMs), peer::LineOutcome::kReply);
    served.reset();
    EXPECT_EQ(Exchange(kDownTimeoutMs), peer::LineOutcome::kError);
    EXPECT_FALSE(port.lineDown());
    EXPECT_EQ(port.linesLost(), 0u);
    EXPECT_FALSE(port.error().empty());
}
