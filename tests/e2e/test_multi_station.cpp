// Several stations on one line (ComInfo.multiStation): each variable names
// its station, no local image and no cyclic list are kept, and a failure
// purges only the failed station's queued work.
#include "e2e_host.h"

namespace e2e {
namespace {

using MultiStation = EndToEnd;

constexpr int kN7 = 7 * 256;

TEST_F(MultiStation, FailureOfOneStationPurgesOnlyThatStationsWork) {
    info.multiStation = 1;
    info.retryLimit = 0;
    EXPECT_EQ(SetCyclicList({{ABCL_WORD_B, "7:0", 2}}), 0);  // no cyclic list
    SimWords('N', 7, 40, {1, 2, 3, 4});

    EXPECT_GT(WriteWords(ABCL_WORD_B, "7:30", {11}, 1, /*station=*/1), 0);
    EXPECT_GT(WriteWords(ABCL_WORD_B, "7:31", {22}, 2, /*station=*/2), 0);
    EXPECT_GT(WriteWords(ABCL_WORD_B, "7:32", {33}, 3, /*station=*/1), 0);
    EXPECT_GT(WriteWords(ABCL_WORD_B, "7:33", {44}, 4, /*station=*/2), 0);
    EXPECT_GT(OnceRead(ABCL_WORD_B, "7:40", 2, 7, 70, /*station=*/1), 0);
    EXPECT_GT(OnceRead(ABCL_WORD_B, "7:42", 2, 8, 80, /*station=*/2), 0);

    // Station 1's first write gets no reply.
    const auto steps = RunUntilIdle(20, [this](const Step& s) {
        if (s.request.station == 1 && s.request.address == kN7 + 30) DropNext(1);
    });

    std::vector<const Step*> writes;
    std::vector<const Step*> reads;
    for (const Step& s : steps) {
        if (!s.sent) continue;
        // The driver's DF1 frames name destination 0 whatever the station;
        // the controller answers them all.
        EXPECT_EQ(ByteAt(s.frame, 4), 0x00);
        (s.isWrite() ? writes : reads).push_back(&s);
    }
    ASSERT_EQ(writes.size(), 3u);
    EXPECT_EQ(writes[0]->request.address, kN7 + 30);
    EXPECT_EQ(writes[0]->result, 42);  // no reply, varId 1
    EXPECT_EQ(writes[0]->station, 1);
    EXPECT_EQ(writes[1]->request.address, kN7 + 31);
    EXPECT_EQ(writes[1]->result, 1);
    EXPECT_EQ(writes[2]->request.address, kN7 + 33);
    EXPECT_EQ(writes[2]->result, 1);
    // Station 2's one-shot read: learning, then the data.
    ASSERT_EQ(reads.size(), 2u);
    for (const Step* r : reads) {
        EXPECT_EQ(r->request.station, 2);
        EXPECT_EQ(r->result, 1);
    }

    ASSERT_EQ(Callbacks().size(), 1u);
    EXPECT_EQ(Callbacks()[0].varId, 8);
    EXPECT_EQ(Callbacks()[0].varSubId, 80);
    EXPECT_EQ(Callbacks()[0].status, 1);

    // Station 2's writes arrived, station 1's second write was dropped from
    // the queue (its first was carried out, only the reply was lost).
    EXPECT_EQ(SimWordsAt('N', 7, 30, 4), (std::vector<uint16_t>{11, 22, 0, 44}));

    // No image is kept for several stations.
    EXPECT_TRUE(ImageWords(ABCL_WORD_B, "7:42", 2).empty());
    EXPECT_TRUE(ImageWords(ABCL_WORD_B, "7:31", 1).empty());
}

TEST_F(MultiStation, OneStationFailingAfterRetriesLeavesTheOtherStationsQueue) {
    info.multiStation = 1;
    info.retryLimit = 1;

    EXPECT_GT(WriteWords(ABCL_WORD_B, "7:30", {11}, 1, /*station=*/2), 0);
    EXPECT_GT(WriteWords(ABCL_WORD_B, "7:31", {22}, 2, /*station=*/5), 0);
    EXPECT_GT(WriteWords(ABCL_WORD_B, "7:32", {33}, 3, /*station=*/2), 0);
    EXPECT_GT(WriteWords(ABCL_WORD_B, "7:33", {44}, 4, /*station=*/5), 0);

    // Station 5 corrupts every reply.
    const auto steps = RunUntilIdle(20, [this](const Step& s) {
        if (s.request.station == 5) CorruptNext(1);
    });
    std::vector<int> results;
    std::vector<int> addresses;
    for (const Step& s : steps) {
        if (!s.sent) continue;
        results.push_back(s.result);
        addresses.push_back(s.request.address - kN7);
    }
    // N7:30 good; N7:31 retried once then reported bad (varId 2: 13), which
    // purges N7:33; N7:32 of station 2 still goes out.
    EXPECT_EQ(addresses, (std::vector<int>{30, 31, 31, 32}));
    EXPECT_EQ(results, (std::vector<int>{1, 0, 13, 1}));
    EXPECT_EQ(SimWordsAt('N', 7, 30, 4), (std::vector<uint16_t>{11, 22, 33, 0}));
}

}  // namespace
}  // namespace e2e
