// One turn of the host's loop against a plug-in of fakes and a controller
// at the far end of a pseudo-terminal: what is sent, what DataCom is handed,
// what the turn records, and which turns call no DataCom.
#include "controller_end.h"

#include "peer/df1.h"
#include "peer/host_loop.h"

#include <gtest/gtest.h>

#include <QtCore/QByteArray>

#include <cstdint>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

constexpr int kReplyTimeoutMs = 3000;
constexpr int kShortTimeoutMs = 50;

const std::vector<uint8_t> kRequest = peer::FrameRequest(Bytes("01 00 0B 00 21 00 4C 02"));
const std::vector<uint8_t> kReply = peer::FrameReply(Bytes("00 01 4B 00 21 00 CC 00"));

QByteArray ToQ(const std::vector<uint8_t>& bytes) {
    return QByteArray(reinterpret_cast<const char*>(bytes.data()), static_cast<int>(bytes.size()));
}

// The fake plug-in: one queued request (or none), and DataCom's record.
struct FakePlugin {
    bool queued = false;
    Protocol protocol;
    RW_VAR record;
    int dataComCalls = 0;
    QByteArray handed;
    int handedLength = -1;
};
FakePlugin* g_fake = nullptr;

Protocol* FakeComCommunication() {
    return g_fake->queued ? &g_fake->protocol : nullptr;
}

RW_VAR* FakeDataCom(QByteArray reply, int len) {
    ++g_fake->dataComCalls;
    g_fake->handed = reply;
    g_fake->handedLength = len;
    // DataCom destroys the record it answers.
    g_fake->protocol = Protocol();
    g_fake->queued = false;
    return &g_fake->record;
}

class RunExchangeTurn : public ::testing::Test {
protected:
    void SetUp() override {
        g_fake = &fake;
        api.ComCommunication = &FakeComCommunication;
        api.DataCom = &FakeDataCom;
        std::string error;
        ASSERT_TRUE(port.open(controller.peerPath(), 19200, &error)) << error;
    }
    void TearDown() override { g_fake = nullptr; }

    // Queues a read of N7:3 whose reply length is known, or learnt when -1.
    void Queue(int replyLen = 14) {
        fake.queued = true;
        fake.protocol.frame = ToQ(kRequest);
        fake.protocol.frameLen = static_cast<int>(kRequest.size());
        fake.protocol.replyLen = replyLen;
        fake.protocol.var.varId = 7;
        fake.protocol.var.aux2 = 0;
        fake.record.result = 1;
        fake.record.varId = 7;
        fake.record.varSubId = 8;
        fake.record.station = 3;
    }

    FakePlugin fake;
    peer::PluginApi api;
    ControllerEnd controller;
    peer::HostPort port;
};

}  // namespace

TEST_F(RunExchangeTurn, NothingQueuedSendsNothingAndCallsNoDataCom) {
    const peer::Exchange e = peer::RunExchange(api, port, kShortTimeoutMs);
    EXPECT_FALSE(e.sent);
    EXPECT_EQ(fake.dataComCalls, 0);
    EXPECT_EQ(e.result, -1);
}

TEST_F(RunExchangeTurn, AReplyIsHandedToDataComAsReceived) {
    Queue(-1);
    controller.answer(kRequest.size(), kReply);
    const peer::Exchange e = peer::RunExchange(api, port, kReplyTimeoutMs);
    EXPECT_EQ(controller.request(), kRequest);
    EXPECT_TRUE(e.sent);
    EXPECT_TRUE(e.learning);
    EXPECT_FALSE(e.isWrite());
    EXPECT_EQ(e.request.varId, 7);
    EXPECT_EQ(e.frame, ToQ(kRequest));
    EXPECT_EQ(e.outcome, peer::LineOutcome::kReply);
    EXPECT_EQ(e.received, ToQ(kReply));
    EXPECT_EQ(e.handed, ToQ(kReply));
    EXPECT_EQ(fake.dataComCalls, 1);
    EXPECT_EQ(fake.handed, ToQ(kReply));
    EXPECT_EQ(fake.handedLength, static_cast<int>(kReply.size()));
    EXPECT_EQ(e.result, 1);
    EXPECT_EQ(e.varId, 7);
    EXPECT_EQ(e.varSubId, 8);
    EXPECT_EQ(e.station, 3);
}

TEST_F(RunExchangeTurn, NothingCompleteHandsDataComNothing) {
    Queue();
    controller.answer(kRequest.size(), Bytes("10 06 10 02 00"));
    fake.record.result = 41;
    const peer::Exchange e = peer::RunExchange(api, port, kShortTimeoutMs);
    controller.request();
    EXPECT_FALSE(e.learning);
    EXPECT_EQ(e.outcome, peer::LineOutcome::kTimeout);
    EXPECT_FALSE(e.answered());
    EXPECT_EQ(fake.dataComCalls, 1);
    EXPECT_EQ(fake.handedLength, 0);
    EXPECT_TRUE(e.handed.isEmpty());
    EXPECT_EQ(e.result, 41);
}

TEST_F(RunExchangeTurn, ARefusalIsHandedOver) {
    Queue();
    controller.answer(kRequest.size(), Bytes("10 15"));
    const peer::Exchange e = peer::RunExchange(api, port, kReplyTimeoutMs);
    EXPECT_EQ(e.outcome, peer::LineOutcome::kRefused);
    EXPECT_EQ(fake.handed, ToQ(Bytes("10 15")));
}

TEST_F(RunExchangeTurn, HooksSeeTheRequestFirstAndChooseWhatIsHanded) {
    Queue();
    controller.answer(kRequest.size(), {});
    peer::ExchangeHooks hooks;
    int seen = 0;
    hooks.beforeSend = [&](peer::Exchange& e) {
        ++seen;
        EXPECT_EQ(e.frame, ToQ(kRequest));
        EXPECT_EQ(e.timeoutMs, kReplyTimeoutMs);
        // The controller stays silent: no need to wait long.
        e.timeoutMs = kShortTimeoutMs;
    };
    hooks.handOver = [](const peer::Exchange& e) {
        EXPECT_EQ(e.outcome, peer::LineOutcome::kTimeout);
        return ToQ(Bytes("AB CD"));
    };
    const peer::Exchange e = peer::RunExchange(api, port, kReplyTimeoutMs, -1, hooks);
    EXPECT_EQ(seen, 1);
    EXPECT_EQ(e.timeoutMs, kShortTimeoutMs);
    EXPECT_EQ(e.handed, ToQ(Bytes("AB CD")));
    EXPECT_EQ(fake.handed, ToQ(Bytes("AB CD")));
    EXPECT_EQ(fake.handedLength, 2);
}

TEST_F(RunExchangeTurn, AStoppingHostCallsNoDataComAndKeepsTheRequest) {
    Queue();
    int wake[2];
    ASSERT_EQ(pipe(wake), 0);
    const char byte = 1;
    ASSERT_EQ(write(wake[1], &byte, 1), 1);
    controller.answer(kRequest.size(), {});
    const peer::Exchange e = peer::RunExchange(api, port, kReplyTimeoutMs, wake[0]);
    controller.request();
    EXPECT_TRUE(e.sent);
    EXPECT_EQ(e.outcome, peer::LineOutcome::kStopped);
    EXPECT_EQ(fake.dataComCalls, 0);
    EXPECT_EQ(e.result, -1);
    EXPECT_TRUE(fake.queued);
    close(wake[0]);
    close(wake[1]);
}
