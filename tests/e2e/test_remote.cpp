// Remote mode end to end: the simulator is the remote link's partner, the
// host sets ComInfo.remoteMode and zeroes replyDone before each exchange.
#include "e2e_host.h"

namespace e2e {
namespace {

class RemoteMode : public EndToEnd {
protected:
    SimConfig Config() const override {
        SimConfig config;
        config.mode = peer::LinkMode::kRemote;
        return config;
    }
};

TEST_F(RemoteMode, CyclicReadsConvergeAndWritesRoundTrip) {
    SimWords('N', 7, 5, {0x1010, 0x0010, 5});
    SimWords('B', 3, 0, {0x1000, 0x0001});
    SimWords('B', 3, 4, {0x0008});
    SimReals(8, 0, {RealBits(1.5f), 0x10101010u});

    // Remote REAL entries read as many values as their count.
    ASSERT_EQ(SetCyclicList({{ABCL_WORD_B, "7:5", 3},
                             {ABCL_WORD_A, "3:0", 2},
                             {ABCL_REAL, "8:0", 2},
                             {ABCL_BIT_A, "3:4/3", 1}}),
              4);
    RunUntilCycleDone();
    EXPECT_EQ(ImageWords(ABCL_WORD_B, "7:5", 3), (std::vector<uint16_t>{0x1010, 0x0010, 5}));
    EXPECT_EQ(ImageWords(ABCL_WORD_A, "3:0", 2), (std::vector<uint16_t>{0x1000, 0x0001}));
    EXPECT_EQ(ImageReals("8:0", 2), (std::vector<uint32_t>{RealBits(1.5f), 0x10101010u}));
    EXPECT_EQ(ImageBits(ABCL_BIT_A, "3:4/3", 1), std::vector<int>{1});

    EXPECT_GT(WriteWords(ABCL_WORD_B, "7:6", {0x1010}, 3), 0);
    EXPECT_GT(WriteReals("8:1", {RealBits(-0.5f)}, 5), 0);
    EXPECT_GT(WriteBit(ABCL_BIT_A, "3:4/3", false, 1), 0);
    EXPECT_GT(WriteBit(ABCL_BIT_B, "7:7/4", true, 2), 0);
    int writes = 0;
    RunUntil(
        [&](const Step& s) {
            if (s.isWrite()) {
                ++writes;
                EXPECT_EQ(s.result, 1) << "write " << writes << ": " << ToHex(s.received);
                // Station, 00, 42, status 00, transaction, 00, then 06: written.
                EXPECT_EQ(s.received.size(), 14) << ToHex(s.received);
                EXPECT_EQ(ByteAt(s.received, 6), 0x42);
                EXPECT_EQ(ByteAt(s.received, 10), 0x06);
            }
            return writes == 4;
        },
        20);

    EXPECT_EQ(SimWordsAt('N', 7, 5, 3), (std::vector<uint16_t>{0x1010, 0x1010, 0x0015}));
    EXPECT_EQ(SimRealsAt(8, 0, 2), (std::vector<uint32_t>{RealBits(1.5f), RealBits(-0.5f)}));
    EXPECT_EQ(SimWordsAt('B', 3, 4, 1), std::vector<uint16_t>{0});

    RunPass();
    EXPECT_EQ(ImageWords(ABCL_WORD_B, "7:5", 3), (std::vector<uint16_t>{0x1010, 0x1010, 0x0015}));
    EXPECT_EQ(ImageReals("8:0", 2), (std::vector<uint32_t>{RealBits(1.5f), RealBits(-0.5f)}));
    EXPECT_EQ(ImageBits(ABCL_BIT_A, "3:4/3", 1), std::vector<int>{0});
}

TEST_F(RemoteMode, OneShotReadsOfTheLocalLinkCallBack) {
    SimWords('N', 7, 50, {0x0010, 51});
    SimReals(8, 20, {RealBits(3.25f), RealBits(-1.0f)});
    EXPECT_GT(OnceRead(ABCL_WORD_B, "7:50", 2, 6, 60), 0);
    EXPECT_GT(OnceRead(ABCL_REAL, "8:20", 2, 8, 80), 0);  // remote: count values

    RunUntil([](const Step&) { return Callbacks().size() == 2; }, 8);
    ASSERT_EQ(Callbacks().size(), 2u);
    EXPECT_EQ(Callbacks()[0].context, kHostContext);
    EXPECT_EQ(Callbacks()[0].varId, 6);
    EXPECT_EQ(Callbacks()[0].varSubId, 60);
    EXPECT_EQ(Callbacks()[0].status, 1);
    EXPECT_EQ(Callbacks()[1].varId, 8);
    EXPECT_EQ(Callbacks()[1].varSubId, 80);
    EXPECT_EQ(Callbacks()[1].status, 1);
    EXPECT_EQ(ImageWords(ABCL_WORD_B, "7:50", 2), (std::vector<uint16_t>{0x0010, 51}));
    EXPECT_EQ(ImageReals("8:20", 2), (std::vector<uint32_t>{RealBits(3.25f), RealBits(-1.0f)}));
}

TEST_F(RemoteMode, StationSixteenIsDoubledInTheReplyAndTheDataStillLandRight) {
    info.defaultStation = 0x10;
    SimWords('N', 7, 5, {0x0021, 0x0121, 0x1010});
    ASSERT_EQ(SetCyclicList({{ABCL_WORD_B, "7:5", 3}}), 1);
    const auto steps = RunUntilCycleDone();
    ASSERT_FALSE(steps.empty());
    // The request names the station once; the reply doubles it.
    EXPECT_EQ(ByteAt(steps.back().frame, 4), 0x10);
    EXPECT_EQ(ByteAt(steps.back().received, 4), 0x10);
    EXPECT_EQ(ByteAt(steps.back().received, 5), 0x10);
    EXPECT_EQ(ImageWords(ABCL_WORD_B, "7:5", 3), (std::vector<uint16_t>{0x0021, 0x0121, 0x1010}));

    EXPECT_GT(WriteWords(ABCL_WORD_B, "7:6", {0x4242}, 3), 0);
    const Step w = Turn();
    ASSERT_TRUE(w.isWrite());
    EXPECT_EQ(w.received.size(), 15) << ToHex(w.received);
    EXPECT_EQ(w.result, 1);
    EXPECT_EQ(SimWordsAt('N', 7, 6, 1), std::vector<uint16_t>{0x4242});
}

TEST_F(RemoteMode, HostThatKeepsReplyDoneSeesItsWritesFail) {
    info.retryLimit = 1;
    ASSERT_EQ(SetCyclicList({{ABCL_WORD_B, "7:5", 1}}), 1);
    RunUntilCycleDone();

    // The read's good exchange left replyDone at 1; the write builder does
    // not re-arm it, so its reply is judged bad on every try.
    zeroReplyDone = false;
    EXPECT_GT(WriteWords(ABCL_WORD_B, "7:6", {77}, 3), 0);
    const auto steps = RunUntil([](const Step& s) { return s.result != 0; }, 4);
    ASSERT_EQ(steps.size(), 2u);
    EXPECT_EQ(steps[0].outcome, LineOutcome::kReply);
    EXPECT_EQ(steps[1].outcome, LineOutcome::kReply);
    EXPECT_EQ(steps[1].result, 14);  // bad reply, varId 3
    // The partner carried the write out all the same.
    EXPECT_EQ(SimWordsAt('N', 7, 6, 1), std::vector<uint16_t>{77});

    zeroReplyDone = true;
    EXPECT_GT(WriteWords(ABCL_WORD_B, "7:7", {88}, 3), 0);
    const Step w = Turn();
    EXPECT_TRUE(w.isWrite());
    EXPECT_EQ(w.result, 1);
    EXPECT_EQ(SimWordsAt('N', 7, 7, 1), std::vector<uint16_t>{88});
}

}  // namespace
}  // namespace e2e
