// Data round trips between the loaded plug-in and the controller simulator on
// a clean line: cyclic reads, writes, one-shot reads and the controller's CIP
// error replies.
#include "e2e_host.h"

#include <algorithm>

namespace e2e {
namespace {

using CyclicReads = EndToEnd;
using Writes = EndToEnd;
using OnceReads = EndToEnd;
using CipErrors = EndToEnd;

// Values whose bytes include 0x10, which both sides double on the wire.
const std::vector<uint16_t> kN7Words = {0x1010, 0x0010, 0x1000, 0x0110, 1234, 0xFFFF, 0x1001, 0};
const std::vector<uint16_t> kB3Words = {0x1010, 0x0001, 0x8010, 0x0000};
const std::vector<uint32_t> kF8Reals = {RealBits(1.5f), 0x41100010u, RealBits(-2.25f), 0x10101010u};
const std::vector<uint16_t> kN7At16 = {0x0010, 0x1000};

TEST_F(CyclicReads, BNAndFTagsConvergeToTheControllerValues) {
    SimWords('N', 7, 0, kN7Words);
    SimWords('B', 3, 0, kB3Words);
    SimReals(8, 0, kF8Reals);
    SimWords('N', 7, 16, kN7At16);  // element 16 is doubled in the request too

    // REAL entries of count c read c - 1 values.
    ASSERT_GT(SetCyclicList({{ABCL_WORD_B, "7:0", 8},
                             {ABCL_WORD_A, "3:0", 4},
                             {ABCL_REAL, "8:0", 5},
                             {ABCL_WORD_B, "7:16", 2},
                             {ABCL_BIT_A, "3:0/4", 1},
                             {ABCL_BIT_B, "7:2/12", 1}}),
              0);
    RunUntilCycleDone();

    EXPECT_EQ(ImageWords(ABCL_WORD_B, "7:0", 8), kN7Words);
    EXPECT_EQ(ImageWords(ABCL_WORD_A, "3:0", 4), kB3Words);
    EXPECT_EQ(ImageReals("8:0", 4), kF8Reals);
    EXPECT_EQ(ImageWords(ABCL_WORD_B, "7:16", 2), kN7At16);
    EXPECT_EQ(ImageBits(ABCL_BIT_A, "3:0/4", 1), std::vector<int>{1});   // 0x1010 bit 4
    EXPECT_EQ(ImageBits(ABCL_BIT_B, "7:2/12", 1), std::vector<int>{1});  // 0x1000 bit 12
    EXPECT_EQ(ImageBits(ABCL_BIT_B, "7:2/11", 2), (std::vector<int>{0, 1}));
}

TEST_F(CyclicReads, LearntReplyLengthCountsEveryDoubledDataByte) {
    SimWords('N', 7, 0, kN7Words);
    SimReals(8, 0, kF8Reals);
    ASSERT_EQ(SetCyclicList({{ABCL_WORD_B, "7:0", 8}, {ABCL_REAL, "8:0", 5}}), 2);

    // Lead-in, header, CIP reply and data type (26 bytes), the data, DLE ETX
    // and the block check: 29 + data, plus one for each doubled 0x10.
    const int wordsReply = 29 + 2 * 8 + DleBytes(kN7Words);
    const int realsReply = 29 + 4 * 4 + DleBytes(kF8Reals);
    bool sawWords = false;
    bool sawReals = false;
    for (const Step& s : RunUntilCycleDone()) {
        if (s.learning) continue;
        if (s.request.dataType == ABCL_WORD_B) {
            sawWords = true;
            EXPECT_EQ(s.received.size(), wordsReply) << ToHex(s.received);
        } else if (s.request.dataType == ABCL_REAL) {
            sawReals = true;
            EXPECT_EQ(s.received.size(), realsReply) << ToHex(s.received);
        }
    }
    EXPECT_TRUE(sawWords);
    EXPECT_TRUE(sawReals);
    EXPECT_EQ(ImageWords(ABCL_WORD_B, "7:0", 8), kN7Words);
    EXPECT_EQ(ImageReals("8:0", 4), kF8Reals);
}

TEST_F(CyclicReads, LiveTagsFollowTheController) {
    ASSERT_EQ(SetCyclicList({{ABCL_WORD_B, "10:0", 2}, {ABCL_REAL, "9:0", 2}}), 2);
    RunUntilCycleDone();
    EXPECT_EQ(ImageWords(ABCL_WORD_B, "10:0", 2), (std::vector<uint16_t>{0, 0}));
    EXPECT_EQ(ImageReals("9:0", 1), std::vector<uint32_t>{RealBits(0.0f)});

    // 2.6 s: the counter at 2, the toggle flipped five times, the ramp at 26.
    memory.tick(2600);
    RunPass();
    EXPECT_EQ(ImageWords(ABCL_WORD_B, "10:0", 2), (std::vector<uint16_t>{2, 1}));
    EXPECT_EQ(ImageBits(ABCL_BIT_B, "10:1/0", 1), std::vector<int>{1});
    EXPECT_EQ(ImageReals("9:0", 1), std::vector<uint32_t>{RealBits(26.0f)});

    // 16.6 s: the counter reads 0x0010 (doubled on the wire), the toggle has
    // flipped 33 times (1) and the ramp has wrapped to 66.
    memory.tick(14000);
    RunPass();
    EXPECT_EQ(ImageWords(ABCL_WORD_B, "10:0", 2), (std::vector<uint16_t>{16, 1}));
    EXPECT_EQ(ImageReals("9:0", 1), std::vector<uint32_t>{RealBits(66.0f)});
    EXPECT_EQ(ImageWords(ABCL_WORD_B, "10:0", 2), SimWordsAt('N', 10, 0, 2));
    EXPECT_EQ(ImageReals("9:0", 1), SimRealsAt(9, 0, 1));
}

TEST_F(Writes, BitIntAndRealReachTheControllerAndReadBack) {
    SimWords('B', 3, 20, {0x1001});
    SimWords('N', 7, 43, {0x0001});
    ASSERT_EQ(
        SetCyclicList({{ABCL_WORD_B, "7:40", 4}, {ABCL_WORD_A, "3:20", 1}, {ABCL_REAL, "8:10", 3}}),
        3);
    RunUntilCycleDone();

    const std::vector<uint16_t> words = {0x1010, 7, 0xFFFF};
    const std::vector<uint32_t> reals = {RealBits(2.5f), 0x10101010u};
    EXPECT_GT(WriteWords(ABCL_WORD_B, "7:40", words, 3), 0);
    EXPECT_GT(WriteBit(ABCL_BIT_A, "3:20/5", true, 1), 0);
    EXPECT_GT(WriteBit(ABCL_BIT_B, "7:43/15", true, 2), 0);
    EXPECT_GT(WriteReals("8:10", reals, 5), 0);

    int writes = 0;
    const auto steps = RunUntil(
        [&](const Step& s) {
            if (s.isWrite()) {
                ++writes;
                EXPECT_EQ(s.result, 1) << "write " << writes << ": " << ToHex(s.received);
                EXPECT_EQ(s.received.size(), 27) << ToHex(s.received);
            }
            return writes == 4;
        },
        20);

    // The controller has them: the INT run, the single bits (the other bits
    // of their words kept) and the two REALs.
    EXPECT_EQ(SimWordsAt('N', 7, 40, 3), words);
    EXPECT_EQ(SimWordsAt('B', 3, 20, 1), std::vector<uint16_t>{0x1021});
    EXPECT_EQ(SimWordsAt('N', 7, 43, 1), std::vector<uint16_t>{0x8001});
    EXPECT_EQ(SimRealsAt(8, 10, 2), reals);

    // And the cyclic reads bring the same values back.
    RunPass();
    EXPECT_EQ(ImageWords(ABCL_WORD_B, "7:40", 4),
              (std::vector<uint16_t>{0x1010, 7, 0xFFFF, 0x8001}));
    EXPECT_EQ(ImageWords(ABCL_WORD_A, "3:20", 1), std::vector<uint16_t>{0x1021});
    EXPECT_EQ(ImageReals("8:10", 2), reals);

    // Clearing a bit leaves the others of its word alone.
    EXPECT_GT(WriteBit(ABCL_BIT_A, "3:20/12", false, 1), 0);
    const Step clear = Turn();
    EXPECT_TRUE(clear.isWrite());
    EXPECT_EQ(clear.result, 1);
    EXPECT_EQ(SimWordsAt('B', 3, 20, 1), std::vector<uint16_t>{0x0021});
    RunPass();
    EXPECT_EQ(ImageBits(ABCL_BIT_A, "3:20/0", 16),
              (std::vector<int>{1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
}

TEST_F(Writes, ElementSixteenIsAddressedThroughItsDoubledByte) {
    ASSERT_EQ(SetCyclicList({{ABCL_WORD_B, "7:16", 1}}), 1);
    RunUntilCycleDone();
    EXPECT_GT(WriteWords(ABCL_WORD_B, "7:16", {0x0110}, 3), 0);
    const Step w = Turn();
    ASSERT_TRUE(w.isWrite());
    EXPECT_EQ(w.result, 1);
    EXPECT_EQ(SimWordsAt('N', 7, 15, 3), (std::vector<uint16_t>{0, 0x0110, 0}));
    RunPass();
    EXPECT_EQ(ImageWords(ABCL_WORD_B, "7:16", 1), std::vector<uint16_t>{0x0110});
}

TEST_F(OnceReads, CallBackWithStatusOneAndStoreTheValues) {
    SimWords('N', 7, 50, {11, 0x1010, 13, 14});
    SimWords('B', 3, 7, {0x0014});  // bits 2 and 4
    SimReals(8, 20, {RealBits(-7.5f), 0x10100000u});

    EXPECT_GT(OnceRead(ABCL_WORD_B, "7:50", 4, 6, 60), 0);
    EXPECT_GT(OnceRead(ABCL_BIT_A, "3:7/2", 3, 7, 70), 0);
    EXPECT_GT(OnceRead(ABCL_REAL, "8:20", 3, 8, 80), 0);  // count c reads c - 1 values

    std::vector<Step> finished;
    RunUntil(
        [&](const Step& s) {
            EXPECT_EQ(s.result, 1) << ToHex(s.received);
            if (s.sent && !s.learning) finished.push_back(s);
            return Callbacks().size() == 3;
        },
        12);

    ASSERT_EQ(Callbacks().size(), 3u);
    const int ids[3][2] = {{6, 60}, {7, 70}, {8, 80}};
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(Callbacks()[i].context, kHostContext);
        EXPECT_EQ(Callbacks()[i].varId, ids[i][0]);
        EXPECT_EQ(Callbacks()[i].varSubId, ids[i][1]);
        EXPECT_EQ(Callbacks()[i].status, 1);
    }
    // DataCom's record names the variable that finished.
    ASSERT_EQ(finished.size(), 3u);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(finished[i].varId, ids[i][0]);
        EXPECT_EQ(finished[i].varSubId, ids[i][1]);
    }
    EXPECT_EQ(ImageWords(ABCL_WORD_B, "7:50", 4), (std::vector<uint16_t>{11, 0x1010, 13, 14}));
    EXPECT_EQ(ImageBits(ABCL_BIT_A, "3:7/2", 3), (std::vector<int>{1, 0, 1}));
    EXPECT_EQ(ImageReals("8:20", 2), (std::vector<uint32_t>{RealBits(-7.5f), 0x10100000u}));

    // Nothing else is queued.
    EXPECT_FALSE(Turn().sent);
}

constexpr const char* kHardenedBuildRejectsCipErrors =
    "the hardened build takes a reply with a CIP error status as a bad reply";
constexpr const char* kDefaultBuildTakesCipErrors =
    "the default build takes a CIP error reply of the right length as good";

TEST_F(CipErrors, ReadOfAnUnknownTagReportsGoodAndStoresNothing) {
    ABCL_DEFAULT_BUILD_ONLY(kHardenedBuildRejectsCipErrors);
    ASSERT_FALSE(memory.elementCount('N', 50).has_value());
    // A marker in the image, put there without a controller write.
    info.writeMode = 1;
    EXPECT_EQ(WriteWords(ABCL_WORD_B, "50:0", {0x1234, 0x5678}, 3), 1);
    info.writeMode = 2;

    ASSERT_EQ(SetCyclicList({{ABCL_WORD_B, "50:0", 2}}), 1);
    const auto steps = RunUntilCycleDone();
    for (const Step& s : steps) {
        // The controller's 27-byte error reply: general status 0x04 (path
        // segment error) in the embedded reply.
        EXPECT_EQ(s.received.size(), 27) << ToHex(s.received);
        EXPECT_EQ(ByteAt(s.received, 22), 0x04) << ToHex(s.received);
    }
    EXPECT_EQ(ImageWords(ABCL_WORD_B, "50:0", 2), (std::vector<uint16_t>{0x1234, 0x5678}));
}

TEST_F(CipErrors, ReadOfAnUnknownTagIsABadReplyAndStoresNothing_Hardened) {
    ABCL_HARDENED_BUILD_ONLY(kDefaultBuildTakesCipErrors);
    ASSERT_FALSE(memory.elementCount('N', 50).has_value());
    info.writeMode = 1;
    EXPECT_EQ(WriteWords(ABCL_WORD_B, "50:0", {0x1234, 0x5678}, 3), 1);
    info.writeMode = 2;
    info.retryLimit = 1;

    ASSERT_EQ(SetCyclicList({{ABCL_WORD_B, "50:0", 2}}), 1);
    const auto steps = RunUntilReported(4);
    ASSERT_EQ(steps.size(), 2u);
    for (const Step& s : steps) {
        // The error reply (general status 0x04) is no reply to learn from.
        EXPECT_TRUE(s.learning);
        EXPECT_EQ(s.received.size(), 27) << ToHex(s.received);
        EXPECT_EQ(ByteAt(s.received, 22), 0x04) << ToHex(s.received);
    }
    EXPECT_EQ(steps[0].result, 0);
    EXPECT_EQ(steps[1].result, 11);  // bad reply, the cyclic list (varId 0)
    EXPECT_EQ(info.cycleDone, 0);
    EXPECT_EQ(ImageWords(ABCL_WORD_B, "50:0", 2), (std::vector<uint16_t>{0x1234, 0x5678}));
}

TEST_F(CipErrors, WriteToAnUnknownTagIsReportedGoodAndLost) {
    ABCL_DEFAULT_BUILD_ONLY(kHardenedBuildRejectsCipErrors);
    EXPECT_GT(WriteWords(ABCL_WORD_B, "50:1", {77}, 4), 0);
    const Step w = Turn();
    ASSERT_TRUE(w.isWrite());
    EXPECT_EQ(w.result, 1);
    EXPECT_EQ(w.varId, 4);
    EXPECT_EQ(w.received.size(), 27) << ToHex(w.received);
    EXPECT_EQ(ByteAt(w.received, 22), 0x04) << ToHex(w.received);
    // The image shows the value, the controller has nowhere to keep it.
    EXPECT_EQ(ImageWords(ABCL_WORD_B, "50:1", 1), std::vector<uint16_t>{77});
    EXPECT_FALSE(memory.elementCount('N', 50).has_value());
}

TEST_F(CipErrors, WriteToAnUnknownTagIsReportedAsABadReply_Hardened) {
    ABCL_HARDENED_BUILD_ONLY(kDefaultBuildTakesCipErrors);
    info.retryLimit = 0;
    EXPECT_GT(WriteWords(ABCL_WORD_B, "50:1", {77}, 4), 0);
    const Step w = Turn();
    ASSERT_TRUE(w.isWrite());
    EXPECT_EQ(w.received.size(), 27) << ToHex(w.received);
    EXPECT_EQ(ByteAt(w.received, 22), 0x04) << ToHex(w.received);
    EXPECT_EQ(w.result, 15);  // bad reply, varId 4
    EXPECT_EQ(w.varId, 4);
    EXPECT_FALSE(memory.elementCount('N', 50).has_value());
}

TEST_F(CipErrors, WritePastTheFileEndFailsOnLength) {
    info.retryLimit = 1;
    // Two words from N7:255 run past the 256-element file: the controller
    // answers 29 bytes (general status 0xFF, extended 0x2105), not 27.
    EXPECT_GT(WriteWords(ABCL_WORD_B, "7:255", {5, 6}, 3), 0);
    const auto steps = RunUntilReported(4);
    ASSERT_EQ(steps.size(), 2u);
    EXPECT_EQ(steps[0].received.size(), 29) << ToHex(steps[0].received);
    EXPECT_EQ(steps[0].result, 0);
    EXPECT_EQ(steps[1].result, 74);  // wrong length, varId 3
    EXPECT_EQ(SimWordsAt('N', 7, 255, 1), std::vector<uint16_t>{0});
}

TEST_F(CipErrors, ReadPastTheFileEndStoresTheTrailerInTheFirstElement) {
    ABCL_DEFAULT_BUILD_ONLY(
        "the hardened build stores values from a matched reply's data field only");
    info.writeMode = 1;
    const std::vector<uint16_t> markers = {0xA0A0, 0xA1A1, 0xA2A2, 0xA3A3, 0xA4A4,
                                           0xA5A5, 0xA6A6, 0xA7A7, 0xA8A8, 0xA9A9};
    EXPECT_EQ(WriteWords(ABCL_WORD_B, "7:250", markers, 3), 1);
    info.writeMode = 2;

    ASSERT_EQ(SetCyclicList({{ABCL_WORD_B, "7:250", 10}}), 1);
    const auto steps = RunUntilCycleDone();
    ASSERT_FALSE(steps.empty());
    const QByteArray& reply = steps.back().received;
    ASSERT_EQ(reply.size(), 29) << ToHex(reply);
    EXPECT_EQ(ByteAt(reply, 22), 0xFF);
    // Data are taken from position 26 on, where DLE ETX and the block check
    // stand; the DLE's next byte is stepped over as its double.
    std::vector<uint16_t> expected = markers;
    expected[0] = static_cast<uint16_t>(0x10 | (ByteAt(reply, 28) << 8));
    EXPECT_EQ(ImageWords(ABCL_WORD_B, "7:250", 10), expected);
}

TEST_F(CipErrors, ReadPastTheFileEndIsABadReplyAndTheImageKeepsItsValues_Hardened) {
    ABCL_HARDENED_BUILD_ONLY("the default build stores the error reply's trailer as data");
    info.writeMode = 1;
    const std::vector<uint16_t> markers = {0xA0A0, 0xA1A1, 0xA2A2, 0xA3A3, 0xA4A4,
                                           0xA5A5, 0xA6A6, 0xA7A7, 0xA8A8, 0xA9A9};
    EXPECT_EQ(WriteWords(ABCL_WORD_B, "7:250", markers, 3), 1);
    info.writeMode = 2;
    info.retryLimit = 1;

    ASSERT_EQ(SetCyclicList({{ABCL_WORD_B, "7:250", 10}}), 1);
    const auto steps = RunUntilReported(4);
    ASSERT_EQ(steps.size(), 2u);
    for (const Step& s : steps) {
        // General status 0xFF with an extended status, and no data.
        EXPECT_EQ(s.received.size(), 29) << ToHex(s.received);
        EXPECT_EQ(ByteAt(s.received, 22), 0xFF) << ToHex(s.received);
    }
    EXPECT_EQ(steps[0].result, 0);
    EXPECT_EQ(steps[1].result, 11);  // bad reply, the cyclic list (varId 0)
    EXPECT_EQ(ImageWords(ABCL_WORD_B, "7:250", 10), markers);
}

}  // namespace
}  // namespace e2e
