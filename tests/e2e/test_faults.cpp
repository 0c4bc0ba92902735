// What the loaded plug-in makes of a faulty line: each fault is injected by
// the controller simulator for exactly the exchange the test picks, and the
// driver's retries, result codes, queue purges and recovery are checked.
#include "e2e_host.h"

namespace e2e {
namespace {

using DroppedReplies = EndToEnd;
using CorruptBlockCheck = EndToEnd;
using LateReplies = EndToEnd;
using WrongTns = EndToEnd;
using Silence = EndToEnd;
using PartialReplies = EndToEnd;

constexpr int kN7 = 7 * 256;

// Arms `fault` for the reply to every write of N7:element.
Hook OnWriteTo(int element, const std::function<void()>& fault) {
    return [element, fault](const Step& s) {
        if (s.isWrite() && s.request.address == kN7 + element) fault();
    };
}

// Runs `fault` before the reply of every exchange that learns a read's length.
Hook WhileLearning(const std::function<void()>& fault) {
    return [fault](const Step& s) {
        if (s.learning) fault();
    };
}

// An exchange that tried to learn a read's length: what came back and the
// result DataCom gave.
void ExpectLearning(const Step& s, LineOutcome outcome, int result) {
    EXPECT_TRUE(s.learning);
    EXPECT_EQ(s.outcome, outcome);
    EXPECT_EQ(s.result, result);
}

TEST_F(DroppedReplies, WriteIsRetriedThenReportedAsNoReplyAndTheQueuesPurged) {
    info.retryLimit = 2;
    ASSERT_EQ(SetCyclicList({{ABCL_WORD_B, "7:20", 4}}), 1);
    RunUntilCycleDone();

    EXPECT_GT(WriteWords(ABCL_WORD_B, "7:20", {5}, 3), 0);
    EXPECT_GT(WriteWords(ABCL_WORD_B, "7:21", {6}, 3), 0);
    const auto steps = RunUntilReported(6, OnWriteTo(20, [this] { DropNext(1); }));
    ASSERT_EQ(steps.size(), 3u);
    for (const Step& s : steps) {
        EXPECT_TRUE(s.isWrite());
        EXPECT_EQ(s.request.address, kN7 + 20);
        EXPECT_EQ(s.outcome, LineOutcome::kTimeout);
    }
    // retryLimit 2: two retries, then no reply for varId 3 (40 + 3 + 1).
    EXPECT_EQ(steps[0].result, 0);
    EXPECT_EQ(steps[1].result, 0);
    EXPECT_EQ(steps[2].result, 44);
    EXPECT_EQ(steps[2].varId, 3);
    EXPECT_EQ(info.retryCount, 0);
    EXPECT_EQ(info.cycleDone, 0);

    // While the link is marked failed a new value shows in the image at once.
    EXPECT_GT(WriteWords(ABCL_WORD_B, "7:22", {7}, 3), 0);
    EXPECT_EQ(ImageWords(ABCL_WORD_B, "7:22", 1), std::vector<uint16_t>{7});

    // The next good reply recovers; the purged write to N7:21 never goes out.
    const Step recovered = Turn();
    EXPECT_TRUE(recovered.isWrite());
    EXPECT_EQ(recovered.request.address, kN7 + 22);
    EXPECT_EQ(recovered.result, 1);
    EXPECT_EQ(SimWordsAt('N', 7, 22, 1), std::vector<uint16_t>{7});

    // With the link good again a write shows in the image only once its
    // frame is built.
    EXPECT_GT(WriteWords(ABCL_WORD_B, "7:23", {8}, 3), 0);
    EXPECT_EQ(ImageWords(ABCL_WORD_B, "7:23", 1), std::vector<uint16_t>{0});
    const Step next = Turn();
    EXPECT_TRUE(next.isWrite());
    EXPECT_EQ(next.result, 1);
    EXPECT_EQ(ImageWords(ABCL_WORD_B, "7:23", 1), std::vector<uint16_t>{8});

    RunPass();
    EXPECT_EQ(SimWordsAt('N', 7, 21, 1), std::vector<uint16_t>{0});
    // The controller carried out the write whose replies were lost.
    EXPECT_EQ(ImageWords(ABCL_WORD_B, "7:20", 4), (std::vector<uint16_t>{5, 0, 7, 8}));
    EXPECT_EQ(info.cycleDone, 1);
}

constexpr const char* kHardenedBuildFailsLearning =
    "the hardened build fails a length-learning exchange without a usable reply like any other";
constexpr const char* kDefaultBuildLeavesLearningUncounted =
    "the default build leaves a failed length-learning exchange uncounted";

TEST_F(DroppedReplies, ReadLearningItsLengthYieldsZeroAndCountsNoRetry) {
    ABCL_DEFAULT_BUILD_ONLY(kHardenedBuildFailsLearning);
    info.retryLimit = 0;
    SimWords('N', 7, 0, {0x1010, 3});
    ASSERT_EQ(SetCyclicList({{ABCL_WORD_B, "7:0", 2}}), 1);
    RunUntilCycleDone();

    // A controller that stays silent while a read learns its length: result
    // 0 each time, the same request again, no retry counted, no failure.
    for (int i = 0; i < 5; ++i) {
        SCOPED_TRACE(i);
        ExpectLearning(Turn(WhileLearning([this] { DropNext(1); })), LineOutcome::kTimeout, 0);
    }
    EXPECT_EQ(info.retryCount, 0);
    EXPECT_EQ(info.cycleDone, 1);

    // Once the length is known, a lost reply counts: with retryLimit 0 it is
    // reported at once (varId 0 of the cyclic list: 41).
    const Step learnt = Turn();
    EXPECT_TRUE(learnt.learning);
    EXPECT_EQ(learnt.result, 1);
    const Step lost = Turn([this](const Step& s) {
        if (!s.learning) DropNext(1);
    });
    EXPECT_FALSE(lost.learning);
    EXPECT_EQ(lost.result, 41);
    EXPECT_EQ(info.cycleDone, 0);
    EXPECT_EQ(info.retryCount, 0);

    SimWords('N', 7, 0, {0x0010, 0x1000});
    RunUntilCycleDone();
    EXPECT_EQ(ImageWords(ABCL_WORD_B, "7:0", 2), (std::vector<uint16_t>{0x0010, 0x1000}));
}

TEST_F(DroppedReplies, ReadLearningItsLength_IsRetriedThenReportedAsNoReply_Hardened) {
    ABCL_HARDENED_BUILD_ONLY(kDefaultBuildLeavesLearningUncounted);
    info.retryLimit = 1;
    SimWords('N', 7, 0, {0x1010, 3});
    ASSERT_EQ(SetCyclicList({{ABCL_WORD_B, "7:0", 2}}), 1);
    RunUntilCycleDone();

    const Hook dropLearning = WhileLearning([this] { DropNext(1); });
    const Step retried = Turn(dropLearning);
    ExpectLearning(retried, LineOutcome::kTimeout, 0);
    EXPECT_EQ(info.retryCount, 1);
    EXPECT_EQ(info.cycleDone, 0);
    // retryLimit 1: the second is reported (no reply, the cyclic list: 41).
    const Step reported = Turn(dropLearning);
    ExpectLearning(reported, LineOutcome::kTimeout, 41);
    EXPECT_NE(ByteAt(reported.frame, 8), ByteAt(retried.frame, 8))
        << "the retry has a transaction number of its own";
    EXPECT_EQ(info.retryCount, 0);

    SimWords('N', 7, 0, {0x0010, 0x1000});
    RunUntilCycleDone();
    EXPECT_EQ(ImageWords(ABCL_WORD_B, "7:0", 2), (std::vector<uint16_t>{0x0010, 0x1000}));
}

TEST_F(CorruptBlockCheck, WriteIsRetriedThenReportedAsBadReply) {
    info.retryLimit = 1;
    EXPECT_GT(WriteWords(ABCL_WORD_B, "7:30", {9}, 5), 0);
    EXPECT_GT(WriteWords(ABCL_WORD_B, "7:31", {10}, 5), 0);
    const auto steps = RunUntilReported(4, OnWriteTo(30, [this] { CorruptNext(1); }));
    ASSERT_EQ(steps.size(), 2u);
    for (const Step& s : steps) {
        // The reply came whole; only its block check is wrong.
        EXPECT_EQ(s.outcome, LineOutcome::kReply);
        EXPECT_EQ(s.received.size(), 27) << ToHex(s.received);
    }
    EXPECT_EQ(steps[0].result, 0);
    EXPECT_EQ(steps[1].result, 16);  // bad reply, varId 5
    EXPECT_EQ(steps[1].varId, 5);

    // The write to N7:31 was purged: nothing is left to send.
    EXPECT_FALSE(Turn().sent);
    EXPECT_EQ(SimWordsAt('N', 7, 31, 1), std::vector<uint16_t>{0});

    EXPECT_GT(WriteWords(ABCL_WORD_B, "7:31", {10}, 5), 0);
    const Step again = Turn();
    EXPECT_EQ(again.result, 1);
    EXPECT_EQ(SimWordsAt('N', 7, 31, 1), std::vector<uint16_t>{10});
}

TEST_F(CorruptBlockCheck, ReadRetriesOnlyOnceItsLengthIsKnown) {
    ABCL_DEFAULT_BUILD_ONLY(kHardenedBuildFailsLearning);
    info.retryLimit = 1;
    ASSERT_EQ(SetCyclicList({{ABCL_WORD_B, "7:0", 2}}), 1);
    RunUntilCycleDone();
    SimWords('N', 7, 0, {21, 22});

    for (int i = 0; i < 3; ++i) {
        SCOPED_TRACE(i);
        ExpectLearning(Turn(WhileLearning([this] { CorruptNext(1); })), LineOutcome::kReply, 0);
    }
    EXPECT_EQ(info.retryCount, 0);

    EXPECT_EQ(Turn().result, 1);  // learns
    const Step bad = Turn([this](const Step& s) {
        if (!s.learning) CorruptNext(1);
    });
    EXPECT_EQ(bad.result, 0);  // retried: retryLimit 1
    EXPECT_EQ(info.retryCount, 1);
    EXPECT_EQ(ImageWords(ABCL_WORD_B, "7:0", 2), (std::vector<uint16_t>{0, 0}));

    // The retry is the request built afresh: it learns its length again.
    const Step relearn = Turn();
    EXPECT_TRUE(relearn.learning);
    EXPECT_EQ(relearn.result, 1);
    const Step good = Turn();
    EXPECT_FALSE(good.learning);
    EXPECT_EQ(good.result, 1);
    EXPECT_EQ(ImageWords(ABCL_WORD_B, "7:0", 2), (std::vector<uint16_t>{21, 22}));
    // A good reply does not reset the count of failed exchanges.
    EXPECT_EQ(info.retryCount, 1);
}

TEST_F(CorruptBlockCheck, ReadWithACorruptLearningReplyIsRetriedThenReported_Hardened) {
    ABCL_HARDENED_BUILD_ONLY(kDefaultBuildLeavesLearningUncounted);
    info.retryLimit = 1;
    ASSERT_EQ(SetCyclicList({{ABCL_WORD_B, "7:0", 2}}), 1);
    RunUntilCycleDone();
    SimWords('N', 7, 0, {21, 22});

    const Hook corruptLearning = WhileLearning([this] { CorruptNext(1); });
    ExpectLearning(Turn(corruptLearning), LineOutcome::kReply, 0);
    EXPECT_EQ(info.retryCount, 1);
    // Bad reply, the cyclic list (varId 0).
    ExpectLearning(Turn(corruptLearning), LineOutcome::kReply, 11);
    EXPECT_EQ(info.retryCount, 0);
    EXPECT_EQ(ImageWords(ABCL_WORD_B, "7:0", 2), (std::vector<uint16_t>{0, 0}));

    RunUntilCycleDone();
    EXPECT_EQ(ImageWords(ABCL_WORD_B, "7:0", 2), (std::vector<uint16_t>{21, 22}));
}

class TruncatedReplies : public EndToEnd, public ::testing::WithParamInterface<int> {};

TEST_P(TruncatedReplies, TimeOutAndCountAsNoReply) {
    info.retryLimit = 0;
    const int cut = GetParam();
    EXPECT_GT(WriteWords(ABCL_WORD_B, "7:31", {3}, 2), 0);
    const Step s =
        Turn(OnWriteTo(31, [this, cut] { TruncateNext(1, static_cast<uint32_t>(cut)); }));
    EXPECT_EQ(s.outcome, LineOutcome::kTimeout);
    EXPECT_EQ(s.received.size(), 27 - cut) << ToHex(s.received);
    EXPECT_EQ(s.result, 43);  // no reply, varId 2

    EXPECT_GT(WriteWords(ABCL_WORD_B, "7:32", {4}, 2), 0);
    EXPECT_EQ(Turn().result, 1);
    EXPECT_EQ(SimWordsAt('N', 7, 31, 2), (std::vector<uint16_t>{3, 4}));
}

// 3: DLE ETX and the block check are missing; 1: only the block check.
INSTANTIATE_TEST_SUITE_P(Cut, TruncatedReplies, ::testing::Values(3, 1));

TEST_F(PartialReplies, HandedOverAsReceivedFailOnLength) {
    info.retryLimit = 0;
    handPartialReplies = true;
    ASSERT_EQ(SetCyclicList({{ABCL_WORD_B, "7:0", 1}}), 1);
    RunUntilCycleDone();

    // While a read learns its length a short reply is simply not taken. The
    // hardened build counts it as a bad reply (10 + 1): without its trailer
    // it answers nothing.
    const Step learning = Turn([this](const Step&) { TruncateNext(1, 3); });
    EXPECT_TRUE(learning.learning);
    EXPECT_EQ(learning.handed.size(), 28) << ToHex(learning.handed);  // 31 - 3
    EXPECT_EQ(learning.result, kHardenedBuild ? 11 : 0);
    EXPECT_EQ(Turn().result, 1);
    EXPECT_EQ(Turn().result, 1);

    // A write expects 27 bytes: 24 are a wrong length (70 + 2 + 1).
    EXPECT_GT(WriteWords(ABCL_WORD_B, "7:31", {3}, 2), 0);
    const Step s = Turn(OnWriteTo(31, [this] { TruncateNext(1, 3); }));
    EXPECT_EQ(s.handed.size(), 24) << ToHex(s.handed);
    EXPECT_EQ(s.result, 73);
}

TEST_F(LateReplies, WithinTheTimeoutAreAccepted) {
    replyTimeoutMs = 2000;
    info.retryLimit = 0;
    EXPECT_GT(WriteWords(ABCL_WORD_B, "7:33", {0x1010}, 1), 0);
    const Step s = Turn(OnWriteTo(33, [this] { LateNext(1, 150); }));
    EXPECT_EQ(s.outcome, LineOutcome::kReply);
    EXPECT_EQ(s.result, 1);
    EXPECT_EQ(controller->counters().delayed, 1u);
    EXPECT_EQ(SimWordsAt('N', 7, 33, 1), std::vector<uint16_t>{0x1010});
}

TEST_F(LateReplies, BeyondTheTimeoutFailAsNoReplyThenTheLinkRecovers) {
    replyTimeoutMs = 150;
    info.retryLimit = 0;
    EXPECT_GT(WriteWords(ABCL_WORD_B, "7:33", {1}, 1), 0);
    const Step s = Turn(OnWriteTo(33, [this] { LateNext(1, 600); }));
    EXPECT_EQ(s.outcome, LineOutcome::kTimeout);
    EXPECT_TRUE(s.received.isEmpty()) << ToHex(s.received);
    EXPECT_EQ(s.result, 42);  // no reply, varId 1

    // The reply does come, after the host has given up on it.
    std::vector<uint8_t> late;
    EXPECT_EQ(host.collect(3000, -1, &late), LineOutcome::kReply);
    EXPECT_EQ(late.size(), 27u) << ToHex(
        QByteArray(reinterpret_cast<const char*>(late.data()), static_cast<int>(late.size())));
    replyTimeoutMs = 1000;

    EXPECT_GT(WriteWords(ABCL_WORD_B, "7:34", {2}, 1), 0);
    const Step next = Turn();
    EXPECT_EQ(next.outcome, LineOutcome::kReply);
    EXPECT_EQ(next.result, 1);
    EXPECT_EQ(SimWordsAt('N', 7, 33, 2), (std::vector<uint16_t>{1, 2}));
}

// The default build does not compare a reply's transaction number with its
// request's. (A request TNS of 0x0F is left alone: one higher is 0x10, which
// the reply doubles, and the length would change.)
TEST_F(WrongTns, RepliesAreAcceptedAsGood) {
    ABCL_DEFAULT_BUILD_ONLY("the hardened build takes a reply with another TNS as a bad reply");
    ASSERT_EQ(SetCyclicList({{ABCL_WORD_B, "7:0", 2}}), 1);
    RunUntilCycleDone();
    SimWords('N', 7, 0, {0x1234, 0x1010});

    const auto wrongTns = [this](const Step& s) {
        if (ByteAt(s.frame, 8) != 0x0F) WrongTnsNext(1);
    };
    int shifted = 0;
    for (int i = 0; i < 4; ++i) {
        const Step s = Turn(wrongTns);
        EXPECT_EQ(s.result, 1) << ToHex(s.received);
        if (ByteAt(s.frame, 8) != 0x0F) {
            ++shifted;
            EXPECT_EQ(ByteAt(s.received, 8), static_cast<uint8_t>(ByteAt(s.frame, 8) + 1));
        }
    }
    EXPECT_GE(shifted, 2);  // a request keeps its TNS for both of its exchanges
    EXPECT_EQ(ImageWords(ABCL_WORD_B, "7:0", 2), (std::vector<uint16_t>{0x1234, 0x1010}));

    EXPECT_GT(WriteWords(ABCL_WORD_B, "7:35", {35}, 1), 0);
    const Step w = Turn(wrongTns);
    EXPECT_TRUE(w.isWrite());
    EXPECT_EQ(w.result, 1);
    EXPECT_EQ(SimWordsAt('N', 7, 35, 1), std::vector<uint16_t>{35});
    EXPECT_EQ(info.retryCount, 0);
}

TEST_F(WrongTns, WrongTnsReplyIsAFailure_Hardened) {
    ABCL_HARDENED_BUILD_ONLY("the default build does not compare a reply's TNS with its request's");
    info.retryLimit = 1;
    ASSERT_EQ(SetCyclicList({{ABCL_WORD_B, "7:0", 2}}), 1);
    RunUntilCycleDone();
    SimWords('N', 7, 0, {0x1234, 0x1010});

    const auto wrongTns = [this](const Step&) { WrongTnsNext(1); };
    const Step retried = Turn(wrongTns);
    EXPECT_TRUE(retried.learning);
    EXPECT_EQ(retried.outcome, LineOutcome::kReply);
    EXPECT_NE(ByteAt(retried.received, 8), ByteAt(retried.frame, 8)) << ToHex(retried.received);
    EXPECT_EQ(retried.result, 0);
    EXPECT_EQ(info.retryCount, 1);
    const Step reported = Turn(wrongTns);
    EXPECT_TRUE(reported.learning);
    EXPECT_EQ(reported.result, 11);  // bad reply, the cyclic list (varId 0)
    EXPECT_EQ(info.retryCount, 0);
    EXPECT_EQ(ImageWords(ABCL_WORD_B, "7:0", 2), (std::vector<uint16_t>{0, 0}));

    // A write confirmed under another TNS is not taken as done.
    info.retryLimit = 0;
    EXPECT_GT(WriteWords(ABCL_WORD_B, "7:35", {35}, 1), 0);
    const Step w = Turn(wrongTns);
    EXPECT_TRUE(w.isWrite());
    EXPECT_EQ(w.result, 12);  // bad reply, varId 1

    RunUntilCycleDone();
    EXPECT_EQ(ImageWords(ABCL_WORD_B, "7:0", 2), (std::vector<uint16_t>{0x1234, 0x1010}));
}

// The silence tests' common course: a cyclic read of N7:0 x2 and a write of
// N7:5 queued (retryLimit 1), then two seconds without a word from the
// controller, run until the read gives a value again. The write's two tries
// and at least two of the read's time out within them.
class SilenceBehindAWrite : public EndToEnd {
protected:
    std::vector<Step> RunThroughTheSilence() {
        info.retryLimit = 1;
        EXPECT_EQ(SetCyclicList({{ABCL_WORD_B, "7:0", 2}}), 1);
        RunUntilCycleDone();
        SimWords('N', 7, 0, {4321, 0x1010});
        EXPECT_GT(WriteWords(ABCL_WORD_B, "7:5", {55}, 4), 0);

        replyTimeoutMs = 200;
        controller->silenceFor(peer::MonotonicMs(), 2000);
        auto steps = RunUntil(
            [](const Step& s) { return s.sent && !s.isWrite() && !s.learning && s.result == 1; },
            60);
        replyTimeoutMs = 1000;
        return steps;
    }

    // The write: tried twice, then reported (no reply, varId 4).
    static void ExpectTheWriteReportedAfterTwoTries(const std::vector<Step>& steps) {
        EXPECT_TRUE(steps[0].isWrite());
        EXPECT_EQ(steps[0].result, 0);
        EXPECT_TRUE(steps[1].isWrite());
        EXPECT_EQ(steps[1].result, 45);
    }

    // Between the write's tries and the recovery, each exchange was the
    // read's try to learn its length, and timed out; resultAt(i) is the
    // result exchange i gave.
    template <typename ResultAt>
    static void ExpectTheReadTimedOutLearning(const std::vector<Step>& steps, ResultAt resultAt) {
        for (std::size_t i = 2; i + 2 < steps.size(); ++i) {
            EXPECT_TRUE(steps[i].learning) << i;
            EXPECT_EQ(steps[i].outcome, LineOutcome::kTimeout) << i;
            EXPECT_EQ(steps[i].result, resultAt(i)) << i;
        }
    }

    // Once the controller answers: the read learns its length and shows the
    // controller's words, and a new write goes through.
    void ExpectBothRecover(const std::vector<Step>& steps) {
        const std::size_t n = steps.size();
        EXPECT_TRUE(steps[n - 2].learning);
        EXPECT_EQ(steps[n - 2].result, 1);
        EXPECT_EQ(ImageWords(ABCL_WORD_B, "7:0", 2), (std::vector<uint16_t>{4321, 0x1010}));

        RunUntilCycleDone();
        EXPECT_GT(WriteWords(ABCL_WORD_B, "7:6", {66}, 4), 0);
        EXPECT_EQ(Turn().result, 1);
        EXPECT_EQ(SimWordsAt('N', 7, 6, 1), std::vector<uint16_t>{66});
    }
};

TEST_F(SilenceBehindAWrite, ReadsShowZerosAWriteFailsAndBothRecoverAfterIt) {
    ABCL_DEFAULT_BUILD_ONLY(kHardenedBuildFailsLearning);
    const auto steps = RunThroughTheSilence();
    ASSERT_GE(steps.size(), 5u);
    ExpectTheWriteReportedAfterTwoTries(steps);
    // The cyclic read: a run of zeros while it cannot learn its length.
    ExpectTheReadTimedOutLearning(steps, [](std::size_t) { return 0; });
    EXPECT_EQ(info.retryCount, 0);
    EXPECT_GE(controller->counters().silenced, 3u);
    ExpectBothRecover(steps);
}

TEST_F(SilenceBehindAWrite, ReadsAreReportedEveryRetryLimitPlusOneExchanges_Hardened) {
    ABCL_HARDENED_BUILD_ONLY(kDefaultBuildLeavesLearningUncounted);
    const auto steps = RunThroughTheSilence();
    ASSERT_GE(steps.size(), 6u);
    ExpectTheWriteReportedAfterTwoTries(steps);
    // The cyclic read: every second try without a reply is reported (no
    // reply, the cyclic list: 41).
    ExpectTheReadTimedOutLearning(steps, [](std::size_t i) { return (i - 2) % 2 == 1 ? 41 : 0; });
    // A good reply leaves the count of the last unreported try.
    EXPECT_EQ(info.retryCount, static_cast<int>((steps.size() - 4) % 2));
    ExpectBothRecover(steps);
}

TEST_F(Silence, AOneShotReadIsReportedWithCallbackStatusTwo_Hardened) {
    ABCL_HARDENED_BUILD_ONLY(kDefaultBuildLeavesLearningUncounted);
    info.retryLimit = 1;
    EXPECT_GT(OnceRead(ABCL_WORD_B, "7:40", 1, 6, 60), 0);
    const auto steps = RunUntilReported(4, [this](const Step&) { DropNext(1); });
    ASSERT_EQ(steps.size(), 2u);
    for (const Step& s : steps) {
        EXPECT_TRUE(s.learning);
        EXPECT_EQ(s.outcome, LineOutcome::kTimeout);
    }
    EXPECT_EQ(steps[1].result, 47);  // no reply, varId 6
    ASSERT_EQ(Callbacks().size(), 1u);
    EXPECT_EQ(Callbacks()[0].context, kHostContext);
    EXPECT_EQ(Callbacks()[0].varId, 6);
    EXPECT_EQ(Callbacks()[0].varSubId, 60);
    EXPECT_EQ(Callbacks()[0].status, 2);
    EXPECT_FALSE(Turn().sent) << "nothing is left queued";
}

}  // namespace
}  // namespace e2e
