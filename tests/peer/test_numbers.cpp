// The tools' one number parser: edge values against each tool's own limits,
// texts that are not plain decimal numbers, and numbers too large for any
// word size, which must be refused rather than wrap.
#include "peer/numbers.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <ostream>
#include <string>

namespace {

// The tools' limits, as their option tables hold them.
constexpr unsigned long kPlcsimU32 = 0xFFFFFFFFul;                // plcsim's periods and times
constexpr unsigned long kBaudLimit = 4000000;                     // plcsim's and df1tap's --baud
constexpr int64_t kIntMin = std::numeric_limits<int32_t>::min();  // hostsim --write-mode
constexpr int64_t kIntMax = std::numeric_limits<int32_t>::max();
constexpr int64_t kInt64Max = std::numeric_limits<int64_t>::max();  // hostsim --exchanges
constexpr int64_t kInt64Min = std::numeric_limits<int64_t>::min();

// A sentinel: a refused text leaves the value alone.
constexpr unsigned long kUntouched = 12345;
constexpr int64_t kUntouchedSigned = -777;

bool Decimal(const std::string& text, unsigned long max, unsigned long* value) {
    *value = kUntouched;
    return peer::ParseDecimal(text, max, value);
}

bool Integer(const std::string& text, int64_t min, int64_t max, int64_t* value) {
    *value = kUntouchedSigned;
    return peer::ParseInteger(text, min, max, value);
}

struct Row {
    const char* text;
    bool accepted;
    int64_t value;  // when accepted
};

void PrintTo(const Row& row, std::ostream* os) {
    *os << "'" << row.text << "'";
}

}  // namespace

// ---- unsigned values: plcsim's 32-bit periods -----------------------------

class DecimalToU32 : public ::testing::TestWithParam<Row> {};

TEST_P(DecimalToU32, AcceptsPlainDigitsWithinTheLimitOnly) {
    const Row& row = GetParam();
    unsigned long v = 0;
    EXPECT_EQ(Decimal(row.text, kPlcsimU32, &v), row.accepted);
    if (row.accepted)
        EXPECT_EQ(static_cast<int64_t>(v), row.value);
    else
        EXPECT_EQ(v, kUntouched);
}

INSTANTIATE_TEST_SUITE_P(
    EdgeValues, DecimalToU32,
    ::testing::Values(Row{"0", true, 0}, Row{"5", true, 5}, Row{"007", true, 7},
                      Row{"2147483647", true, 2147483647}, Row{"2147483648", true, 2147483648},
                      Row{"4294967295", true, 4294967295}, Row{"4294967296", false, 0},
                      // Wraps to 1410065407 in 32 bits: must be refused, not taken.
                      Row{"9999999999", false, 0}, Row{"99999999999999999999", false, 0},
                      Row{"000000000000000000000000004294967295", true, 4294967295},
                      Row{"-1", false, 0}, Row{"-0", false, 0}, Row{"", false, 0},
                      Row{"+5", false, 0}, Row{" 5", false, 0}, Row{"5 ", false, 0},
                      Row{"5x", false, 0}, Row{"0x10", false, 0}, Row{"1e3", false, 0},
                      Row{"1,000", false, 0}, Row{"-", false, 0}));

TEST(Decimal, BaudLimitOfPlcsimAndDf1tap) {
    unsigned long v = 0;
    EXPECT_TRUE(Decimal("4000000", kBaudLimit, &v));
    EXPECT_EQ(v, 4000000ul);
    EXPECT_FALSE(Decimal("4000001", kBaudLimit, &v));
    EXPECT_FALSE(Decimal("2147483648", kBaudLimit, &v));
    EXPECT_FALSE(Decimal("99999999999999999999", kBaudLimit, &v));
    EXPECT_EQ(v, kUntouched);
}

TEST(Decimal, MaximumOfZeroTakesOnlyZero) {
    unsigned long v = 0;
    EXPECT_TRUE(Decimal("0", 0, &v));
    EXPECT_EQ(v, 0ul);
    EXPECT_FALSE(Decimal("1", 0, &v));
}

// ---- signed values: hostsim's int options ---------------------------------

class IntegerToInt32 : public ::testing::TestWithParam<Row> {};

TEST_P(IntegerToInt32, AcceptsTheFullIntRangeAndNothingPastIt) {
    const Row& row = GetParam();
    int64_t v = 0;
    EXPECT_EQ(Integer(row.text, kIntMin, kIntMax, &v), row.accepted);
    EXPECT_EQ(v, row.accepted ? row.value : kUntouchedSigned);
}

INSTANTIATE_TEST_SUITE_P(
    EdgeValues, IntegerToInt32,
    ::testing::Values(Row{"2147483647", true, kIntMax}, Row{"2147483648", false, 0},
                      Row{"-2147483648", true, kIntMin}, Row{"-2147483649", false, 0},
                      Row{"-1", true, -1}, Row{"-0", true, 0}, Row{"0", true, 0},
                      Row{"99999999999999999999", false, 0}, Row{"-99999999999999999999", false, 0},
                      Row{"", false, 0}, Row{"+5", false, 0}, Row{" 5", false, 0},
                      Row{"5x", false, 0}, Row{"-", false, 0}, Row{"--1", false, 0},
                      Row{"- 1", false, 0}));

TEST(Integer, BoundsOfAnOptionAreKept) {
    // hostsim's --station: 0 to 255.
    int64_t v = 0;
    EXPECT_TRUE(Integer("255", 0, 255, &v));
    EXPECT_EQ(v, 255);
    EXPECT_FALSE(Integer("256", 0, 255, &v));
    EXPECT_FALSE(Integer("-1", 0, 255, &v));
    // hostsim's --interval-ms: 10 upwards.
    EXPECT_FALSE(Integer("9", 10, 3600000, &v));
    EXPECT_TRUE(Integer("10", 10, 3600000, &v));
    // A range of negative numbers only.
    EXPECT_TRUE(Integer("-7", -10, -5, &v));
    EXPECT_EQ(v, -7);
    EXPECT_FALSE(Integer("-3", -10, -5, &v));
    EXPECT_FALSE(Integer("7", -10, -5, &v));
    EXPECT_FALSE(Integer("-0", -10, -5, &v));
}

TEST(Integer, Whole64BitRangeWithoutOverflow) {
    int64_t v = 0;
    EXPECT_TRUE(Integer("9223372036854775807", kInt64Min, kInt64Max, &v));
    EXPECT_EQ(v, kInt64Max);
    EXPECT_FALSE(Integer("9223372036854775808", kInt64Min, kInt64Max, &v));
    EXPECT_TRUE(Integer("-9223372036854775808", kInt64Min, kInt64Max, &v));
    EXPECT_EQ(v, kInt64Min);
    EXPECT_FALSE(Integer("-9223372036854775809", kInt64Min, kInt64Max, &v));
    EXPECT_FALSE(Integer("18446744073709551616", kInt64Min, kInt64Max, &v));
    // hostsim's --exchanges: 1 upwards.
    EXPECT_FALSE(Integer("0", 1, kInt64Max, &v));
    EXPECT_TRUE(Integer("99999999999", 1, kInt64Max, &v));
    EXPECT_EQ(v, 99999999999);
}

TEST(Integer, EmptyRangeTakesNothing) {
    int64_t v = 0;
    EXPECT_FALSE(Integer("5", 10, 0, &v));
    EXPECT_EQ(v, kUntouchedSigned);
}
