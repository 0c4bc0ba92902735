// Tag memory: layout, byte access, bounds and the ticking live tags.
#include "peer/tag_memory.h"

#include <gtest/gtest.h>

#include <cstring>

using namespace peer;

TEST(DataFileText, Parses) {
    DataFile file;
    std::string error;
    ASSERT_TRUE(ParseDataFile("N7:256", &file, &error));
    EXPECT_EQ(file.letter, 'N');
    EXPECT_EQ(file.number, 7);
    EXPECT_EQ(file.elements, 256u);
    ASSERT_TRUE(ParseDataFile("F200:1", &file, &error));
    EXPECT_EQ(file.number, 200);
    EXPECT_EQ(file.elements, 1u);
}

TEST(DataFileText, ReadsNumbersAsTheCommandLineDoes) {
    // Leading zeros are allowed, as in every number the tools read.
    DataFile file;
    std::string error;
    ASSERT_TRUE(ParseDataFile("N007:0000000000256", &file, &error)) << error;
    EXPECT_EQ(file.number, 7);
    EXPECT_EQ(file.elements, 256u);
}

TEST(DataFileText, RejectsWithAReason) {
    for (const char* bad : {"", "N7", "N7:", "X7:10", "n7:10", "N:10", "N7:0", "N201:10",
                            "N7:65536", "N-1:5", "N7:1x", "N 7:10", "F8:+5",
                            "N7:99999999999999999999", "N4294967303:10", "N7:4294967297"}) {
        DataFile file;
        std::string error;
        EXPECT_FALSE(ParseDataFile(bad, &file, &error)) << bad;
        EXPECT_FALSE(error.empty()) << bad;
    }
}

TEST(TagMemory, DefaultLayout) {
    TagMemory memory;
    EXPECT_EQ(memory.elementCount('B', 3), 256u);
    EXPECT_EQ(memory.elementCount('N', 7), 256u);
    EXPECT_EQ(memory.elementCount('F', 8), 256u);
    EXPECT_EQ(memory.elementCount('F', 9), 256u);
    EXPECT_EQ(memory.elementCount('N', 10), 256u);
    EXPECT_FALSE(memory.elementCount('N', 3).has_value());
    EXPECT_EQ(memory.layout().size(), 5u);
}

TEST(TagMemory, CustomLayoutLaterSpecWins) {
    TagMemory memory({{'N', 7, 10}, {'F', 8, 4}, {'N', 7, 20}, {'X', 1, 5}, {'N', 300, 5}});
    EXPECT_EQ(memory.elementCount('N', 7), 20u);
    EXPECT_EQ(memory.elementCount('F', 8), 4u);
    EXPECT_EQ(memory.layout().size(), 2u);
}

TEST(TagMemory, BytesAreLittleEndianElements) {
    TagMemory memory;
    const uint8_t bytes[] = {0x34, 0x12, 0x78, 0x56};
    EXPECT_EQ(memory.write('N', 7, 2, bytes, 4), Access::kOk);
    EXPECT_EQ(memory.word('N', 7, 1), 0x1234);
    EXPECT_EQ(memory.word('N', 7, 2), 0x5678);
    std::vector<uint8_t> out;
    EXPECT_EQ(memory.read('N', 7, 1, 4, &out), Access::kOk);
    EXPECT_EQ(out, (std::vector<uint8_t>{0x00, 0x34, 0x12, 0x78}));
    memory.setReal(8, 0, 1.5f);
    out.clear();
    memory.read('F', 8, 0, 4, &out);
    EXPECT_EQ(out, (std::vector<uint8_t>{0x00, 0x00, 0xC0, 0x3F}));
}

TEST(TagMemory, BoundsAreChecked) {
    TagMemory memory({{'N', 7, 4}});
    std::vector<uint8_t> out;
    EXPECT_EQ(memory.read('N', 7, 0, 8, &out), Access::kOk);
    EXPECT_EQ(memory.read('N', 7, 0, 9, &out), Access::kOutOfRange);
    EXPECT_EQ(memory.read('N', 7, 9, 0, &out), Access::kOutOfRange);
    EXPECT_EQ(memory.read('N', 7, SIZE_MAX, 2, &out), Access::kOutOfRange);
    EXPECT_EQ(memory.read('N', 8, 0, 1, &out), Access::kNoSuchFile);
    const uint8_t b[2] = {1, 2};
    EXPECT_EQ(memory.write('N', 7, 7, b, 2), Access::kOutOfRange);
    EXPECT_EQ(memory.modifyWord('N', 7, 4, 1, 0xFFFF), Access::kOutOfRange);
    EXPECT_FALSE(memory.setWord('N', 7, 4, 1));
    EXPECT_FALSE(memory.word('N', 7, 4).has_value());
    EXPECT_FALSE(memory.real(8, 0).has_value());
    EXPECT_FALSE(memory.bit('N', 7, 0, 16).has_value());
}

TEST(TagMemory, ModifyWordOrThenAnd) {
    TagMemory memory;
    memory.setWord('B', 3, 0, 0x00F0);
    EXPECT_EQ(memory.modifyWord('B', 3, 0, 0x0101, 0xFF7F), Access::kOk);
    EXPECT_EQ(memory.word('B', 3, 0), 0x0171);
    EXPECT_TRUE(memory.setBit('B', 3, 0, 15, true));
    EXPECT_EQ(memory.bit('B', 3, 0, 15), true);
    EXPECT_TRUE(memory.setBit('B', 3, 0, 0, false));
    EXPECT_EQ(memory.word('B', 3, 0), 0x8170);
    EXPECT_EQ(memory.modifyWord('F', 8, 0, 1, 0xFFFF), Access::kOutOfRange);
}

TEST(LiveTags, CounterToggleAndRampFollowTickedTime) {
    TagMemory memory;
    memory.tick(2500);
    EXPECT_EQ(memory.word('N', 10, 0), 2);
    EXPECT_EQ(memory.bit('N', 10, 1, 0), true);  // 5 half-seconds: odd
    EXPECT_FLOAT_EQ(*memory.real(9, 0), 25.0f);
    memory.tick(500);
    EXPECT_EQ(memory.word('N', 10, 0), 3);
    EXPECT_EQ(memory.bit('N', 10, 1, 0), false);
    EXPECT_FLOAT_EQ(*memory.real(9, 0), 30.0f);
    memory.tick(7123);
    EXPECT_FLOAT_EQ(*memory.real(9, 0), 1.23f);  // 10123 ms: the ramp started again
    EXPECT_EQ(memory.tickedMs(), 10123u);
}

TEST(LiveTags, UnevenTicksGiveTheSameValues) {
    TagMemory even;
    TagMemory uneven;
    for (int i = 0; i < 70; ++i) even.tick(100);
    for (uint32_t ms : {1u, 499u, 1u, 1999u, 3000u, 1500u}) uneven.tick(ms);
    EXPECT_EQ(even.word('N', 10, 0), uneven.word('N', 10, 0));
    EXPECT_EQ(even.word('N', 10, 1), uneven.word('N', 10, 1));
    EXPECT_EQ(even.real(9, 0), uneven.real(9, 0));
    EXPECT_EQ(even.word('N', 10, 0), 7);
}

TEST(LiveTags, CounterAddsToWrittenValueAndOthersStayStill) {
    TagMemory memory;
    memory.setWord('N', 10, 0, 100);
    memory.setWord('N', 10, 1, 0xFF00);
    memory.tick(1000);
    EXPECT_EQ(memory.word('N', 10, 0), 101);
    EXPECT_EQ(memory.word('N', 10, 1), 0xFF00);  // two flips
    EXPECT_EQ(memory.word('N', 7, 0), 0);
    EXPECT_EQ(memory.word('B', 3, 0), 0);
}

TEST(LiveTags, CanBeSwitchedOffOrMissing) {
    TagMemory memory;
    LiveTags live = memory.liveTags();
    live.enabled = false;
    memory.setLiveTags(live);
    memory.tick(5000);
    EXPECT_EQ(memory.word('N', 10, 0), 0);
    EXPECT_EQ(memory.real(9, 0), 0.0f);

    TagMemory small({{'N', 7, 8}});
    small.tick(5000);  // no N10, no F9: nothing to do, nothing breaks
    EXPECT_EQ(small.word('N', 7, 0), 0);
}
