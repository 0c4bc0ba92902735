// Write request frames: single bits through Read-Modify-Write Tag, 16-bit and
// 32-bit runs through Write Tag Fragmented, the dispatch in WriteRegister and
// the mirror of written values into the local image.
#include "test_support.h"

#include "Func_Write.h"
#include "reply_builder.h"
#include "protocol_constants.h"

#include <climits>
#include <cstdint>
#include <cstring>
#include <vector>

namespace {

RW_VAR Record(int dataType, int address, int count, const QByteArray& data) {
    return RecordBuilder()
        .Ids(0x101, 7)
        .Host(1, 0, 12, 13)
        .Texts(QStringLiteral("7:0"), QStringLiteral("second"))
        .At(dataType, address, count, 1)
        .Data(data);
}

// The block check a request frame must carry, worked out by the peer.
const auto BlockCheckOf = replies::BlockCheckOfFrame;

// The one queued request must be this write frame with a write's bookkeeping:
// a 27-byte reply without data.
void ExpectOneWrite(const QByteArray& expected) {
    ASSERT_EQ(PLC_driver.protocolList.size(), 1);
    const Protocol& p = PLC_driver.protocolList.first();
    EXPECT_EQ(ToHex(expected), ToHex(p.frame));
    EXPECT_EQ(expected.size(), p.frameLen);
    EXPECT_EQ(p.frame.size(), p.frameLen);
    EXPECT_EQ(27, p.replyLen);
    EXPECT_EQ(0, p.dataPos);
    EXPECT_EQ(0, p.dataBytes);
}

bool BitOf(const uint16_t* area, int bitAddress) {
    return ((area[bitAddress / 16] >> (bitAddress % 16)) & 1) != 0;
}

// ---- frames written out byte for byte ----------------------------------------

using Builder = void (*)(RW_VAR*);

struct FrameRow {
    const char* name;
    Builder build;
    int dataType;
    int address;
    int count;
    const char* data;
    int tns;
    const char* frame;
};

void PrintTo(const FrameRow& row, std::ostream* os) {
    *os << row.name;
}

using WriteFrameRows = RowTest<FrameRow>;

TEST_P(WriteFrameRows, BuildsFrameByteForByte) {
    const FrameRow& row = GetParam();
    if (row.build != WriteBool && row.count < 1)
        ABCL_DEFAULT_BUILD_ONLY("the hardened build writes no words or REALs for a count below 1");
    const QByteArray expected = Hex(row.frame);
    // The row's own block check must agree with the rule, so a typing slip in a
    // row cannot pass unnoticed.
    ASSERT_EQ(BlockCheckOf(expected), static_cast<uint8_t>(expected.back())) << "row BCC";

    PLC_driver.tns = row.tns;
    RW_VAR var = Record(row.dataType, row.address, row.count, Hex(row.data));
    info.replyDone = 5;
    info.replyTotal = 9;
    row.build(&var);

    ASSERT_NO_FATAL_FAILURE(ExpectOneWrite(expected));
    ExpectSameRecord(var, PLC_driver.protocolList.first().var);
    EXPECT_EQ(0, info.replyDone);
    EXPECT_EQ(1, info.replyTotal);
    EXPECT_EQ(row.tns, PLC_driver.tns)
        << "a builder reads the transaction number, never changes it";
}

const FrameRow kBitRows[] = {
    {"SetBit5_Element10_B003", WriteBool, 0, 12453, 1, "01", 0x21,
     "10 06 10 02 00 00 0B 00 21 00 00 00 0A 02 20 02 24 01 01 00 04 00 4E 05 91 04 42 30 30 33 29 "
     "00 0A 00 02 00 20 00 FF FF 00 00 10 03 6C"},
    {"ClearBit4_N007", WriteBool, 1, 28676, 1, "00", 0x05,
     "10 06 10 02 00 00 0B 00 05 00 00 00 0A 02 20 02 24 01 01 00 04 00 4E 05 91 04 4E 30 30 37 29 "
     "00 00 00 02 00 00 00 EF FF 00 00 10 03 B2"},
    {"SetBit4_DoublesOrMaskLowByte", WriteBool, 1, 28676, 1, "01", 0x05,
     "10 06 10 02 00 00 0B 00 05 00 00 00 0A 02 20 02 24 01 01 00 04 00 4E 05 91 04 4E 30 30 37 29 "
     "00 00 00 02 00 10 10 00 FF FF 00 00 10 03 92"},
    {"SetBit12_DoublesOrMaskHighByte", WriteBool, 1, 28684, 1, "01", 0x05,
     "10 06 10 02 00 00 0B 00 05 00 00 00 0A 02 20 02 24 01 01 00 04 00 4E 05 91 04 4E 30 30 37 29 "
     "00 00 00 02 00 00 10 10 FF FF 00 00 10 03 92"},
    {"ClearBit12_AndMaskNotDoubled", WriteBool, 1, 28684, 1, "00", 0x05,
     "10 06 10 02 00 00 0B 00 05 00 00 00 0A 02 20 02 24 01 01 00 04 00 4E 05 91 04 4E 30 30 37 29 "
     "00 00 00 02 00 00 00 FF EF 00 00 10 03 B2"},
    {"Element16_DoublesElementByte", WriteBool, 1, 28928, 1, "01", 0x21,
     "10 06 10 02 00 00 0B 00 21 00 00 00 0A 02 20 02 24 01 01 00 04 00 4E 05 91 04 4E 30 30 37 29 "
     "00 10 10 00 02 00 01 00 FF FF 00 00 10 03 75"},
    {"File256_NameCharacters10", WriteBool, 0, 1048576, 1, "01", 0x21,
     "10 06 10 02 00 00 0B 00 21 00 00 00 0A 02 20 02 24 01 01 00 04 00 4E 05 91 04 42 30 31 30 29 "
     "00 00 00 02 00 01 00 FF FF 00 00 10 03 97"},
    {"File10_NameEndsA", WriteBool, 1, 10 * 4096 + 3, 1, "01", 0x21,
     "10 06 10 02 00 00 0B 00 21 00 00 00 0A 02 20 02 24 01 01 00 04 00 4E 05 91 04 4E 30 30 41 29 "
     "00 00 00 02 00 08 00 FF FF 00 00 10 03 74"},
    {"File16_NameEndsG", WriteBool, 1, 16 * 4096 + 3, 1, "01", 0x21,
     "10 06 10 02 00 00 0B 00 21 00 00 00 0A 02 20 02 24 01 01 00 04 00 4E 05 91 04 4E 30 30 47 29 "
     "00 00 00 02 00 08 00 FF FF 00 00 10 03 6E"},
    // DigitalToASCII(217) is 0x110: the byte 0x10 goes out once, the doubling
    // test looking at the whole value.
    {"File217_NameByte10NotDoubled", WriteBool, 1, 217 * 4096, 1, "01", 0x21,
     "10 06 10 02 00 00 0B 00 21 00 00 00 0A 02 20 02 24 01 01 00 04 00 4E 05 91 04 4E 30 30 10 29 "
     "00 00 00 02 00 01 00 FF FF 00 00 10 03 AC"},
    // Both name characters 0x110: two single 0x10 bytes side by side, which the
    // block check's de-stuffed copy counts as one.
    {"File55769_TwoUndoubledNameBytes", WriteBool, 1, 55769 * 4096, 1, "01", 0x21,
     "10 06 10 02 00 00 0B 00 21 00 00 00 0A 02 20 02 24 01 01 00 04 00 4E 05 91 04 4E 30 10 10 29 "
     "00 00 00 02 00 01 00 FF FF 00 00 10 03 DC"},
    {"FirstByte2_Clears", WriteBool, 0, 12453, 1, "02", 0x21,
     "10 06 10 02 00 00 0B 00 21 00 00 00 0A 02 20 02 24 01 01 00 04 00 4E 05 91 04 42 30 30 33 29 "
     "00 0A 00 02 00 00 00 DF FF 00 00 10 03 AC"},
    {"FirstByteFF_Clears", WriteBool, 0, 12453, 1, "FF", 0x21,
     "10 06 10 02 00 00 0B 00 21 00 00 00 0A 02 20 02 24 01 01 00 04 00 4E 05 91 04 42 30 30 33 29 "
     "00 0A 00 02 00 00 00 DF FF 00 00 10 03 AC"},
    {"EmptyData_Clears", WriteBool, 0, 12453, 1, "", 0x21,
     "10 06 10 02 00 00 0B 00 21 00 00 00 0A 02 20 02 24 01 01 00 04 00 4E 05 91 04 42 30 30 33 29 "
     "00 0A 00 02 00 00 00 DF FF 00 00 10 03 AC"},
    {"Count3_StillOneBit", WriteBool, 0, 12453, 3, "01 00 01", 0x21,
     "10 06 10 02 00 00 0B 00 21 00 00 00 0A 02 20 02 24 01 01 00 04 00 4E 05 91 04 42 30 30 33 29 "
     "00 0A 00 02 00 20 00 FF FF 00 00 10 03 6C"},
    {"NegativeAddress_SetAsksNoChange", WriteBool, 0, -5, 1, "01", 0x21,
     "10 06 10 02 00 00 0B 00 21 00 00 00 0A 02 20 02 24 01 01 00 04 00 4E 05 91 04 42 30 30 30 29 "
     "00 00 00 02 00 00 00 FF FF 00 00 10 03 99"},
    {"NegativeAddress_ClearAsksNoChange", WriteBool, 0, -5, 1, "00", 0x21,
     "10 06 10 02 00 00 0B 00 21 00 00 00 0A 02 20 02 24 01 01 00 04 00 4E 05 91 04 42 30 30 30 29 "
     "00 00 00 02 00 00 00 FF FF 00 00 10 03 99"},
    {"NegativeElement_PadFF_SetAsksNoChange", WriteBool, 1, -100, 1, "01", 0x21,
     "10 06 10 02 00 00 0B 00 21 00 00 00 0A 02 20 02 24 01 01 00 04 00 4E 05 91 04 4E 30 30 30 29 "
     "FF FA 00 02 00 00 00 FF FF 00 00 10 03 94"},
    {"NegativeElement_PadFF_ClearAsksNoChange", WriteBool, 1, -100, 1, "00", 0x21,
     "10 06 10 02 00 00 0B 00 21 00 00 00 0A 02 20 02 24 01 01 00 04 00 4E 05 91 04 4E 30 30 30 29 "
     "FF FA 00 02 00 00 00 FF FF 00 00 10 03 94"},
    {"NegativeFile_NameCharactersFromFF", WriteBool, 1, -4100, 1, "01", 0x21,
     "10 06 10 02 00 00 0B 00 21 00 00 00 0A 02 20 02 24 01 01 00 04 00 4E 05 91 04 4E 30 36 36 29 "
     "00 00 00 02 00 00 00 FF FF 00 00 10 03 81"},
    // The transaction byte goes out as it is and counts once in the block check.
    {"Tns10_SentOnce", WriteBool, 1, 28677, 1, "01", 0x10,
     "10 06 10 02 00 00 0B 00 10 00 00 00 0A 02 20 02 24 01 01 00 04 00 4E 05 91 04 4E 30 30 37 29 "
     "00 00 00 02 00 20 00 FF FF 00 00 10 03 77"},
    // The letter follows the area: types 2 and 3 name the same files as 0 and 1.
    {"WordTypeA_LetterB", WriteBool, 2, 12453, 1, "01", 0x21,
     "10 06 10 02 00 00 0B 00 21 00 00 00 0A 02 20 02 24 01 01 00 04 00 4E 05 91 04 42 30 30 33 29 "
     "00 0A 00 02 00 20 00 FF FF 00 00 10 03 6C"},
};
INSTANTIATE_TEST_SUITE_P(Bits, WriteFrameRows, ::testing::ValuesIn(kBitRows),
                         [](const ::testing::TestParamInfo<FrameRow>& i) {
                             return std::string(i.param.name);
                         });

const FrameRow kWordRows[] = {
    {"TwoValues_N007_DoublesValueByte", WriteAnalog, 3, 1794, 2, "34 12 10 00", 0x21,
     "10 06 10 02 00 00 0B 00 21 00 00 00 0A 02 20 02 24 01 01 00 04 00 53 05 91 04 4E 30 30 37 29 "
     "00 02 00 C3 00 02 00 00 00 00 00 34 12 10 10 00 10 03 64"},
    {"OneValue_B003", WriteAnalog, 2, 768, 1, "05 00", 0x42,
     "10 06 10 02 00 00 0B 00 42 00 00 00 0A 02 20 02 24 01 01 00 04 00 53 05 91 04 42 30 30 33 29 "
     "00 00 00 C3 00 01 00 00 00 00 00 05 00 10 03 A7"},
    {"TypeA_SameFrameButLetterAndBcc", WriteAnalog, 2, 1794, 2, "34 12 10 00", 0x21,
     "10 06 10 02 00 00 0B 00 21 00 00 00 0A 02 20 02 24 01 01 00 04 00 53 05 91 04 42 30 30 37 29 "
     "00 02 00 C3 00 02 00 00 00 00 00 34 12 10 10 00 10 03 70"},
    {"Count0_NoValues", WriteAnalog, 3, 1792, 0, "34 12", 0x21,
     "10 06 10 02 00 00 0B 00 21 00 00 00 0A 02 20 02 24 01 01 00 04 00 53 05 91 04 4E 30 30 37 29 "
     "00 00 00 C3 00 00 00 00 00 00 00 10 03 BE"},
    {"CountMinus1_TrailerAt40", WriteAnalog, 3, 1792, -1, "34 12", 0x21,
     "10 06 10 02 00 00 0B 00 21 00 00 00 0A 02 20 02 24 01 01 00 04 00 53 05 91 04 4E 30 30 37 29 "
     "00 00 00 C3 FF FF 00 00 00 10 03 C0"},
    {"CountMinus2_TrailerAt38", WriteAnalog, 3, 1792, -2, "34 12", 0x21,
     "10 06 10 02 00 00 0B 00 21 00 00 00 0A 02 20 02 24 01 01 00 04 00 53 05 91 04 4E 30 30 37 29 "
     "00 00 00 C3 FF FE 00 10 03 C1"},
    {"CountMinus3_TrailerAt36", WriteAnalog, 3, 1792, -3, "34 12", 0x21,
     "10 06 10 02 00 00 0B 00 21 00 00 00 0A 02 20 02 24 01 01 00 04 00 53 05 91 04 4E 30 30 37 29 "
     "00 00 00 C3 FF 10 03 BF"},
    {"CountMinus4_TrailerAt34", WriteAnalog, 3, 1792, -4, "34 12", 0x21,
     "10 06 10 02 00 00 0B 00 21 00 00 00 0A 02 20 02 24 01 01 00 04 00 53 05 91 04 4E 30 30 37 29 "
     "00 00 00 10 03 81"},
    {"Count16_DoublesLowCountByte", WriteAnalog, 3, 1792, 16,
     "20 21 22 23 24 25 26 27 28 29 2A 2B 2C 2D 2E 2F 30 31 32 33 34 35 36 37 38 39 3A 3B 3C 3D 3E "
     "3F",
     0x21,
     "10 06 10 02 00 00 0B 00 21 00 00 00 0A 02 20 02 24 01 01 00 04 00 53 05 91 04 4E 30 30 37 29 "
     "00 00 00 C3 00 10 10 00 00 00 00 00 "
     "20 21 22 23 24 25 26 27 28 29 2A 2B 2C 2D 2E 2F 30 31 32 33 34 35 36 37 38 39 3A 3B 3C 3D 3E "
     "3F 10 03 BE"},
    {"Element16_DoublesElementByte", WriteAnalog, 3, 1792 + 16, 1, "01 00", 0x21,
     "10 06 10 02 00 00 0B 00 21 00 00 00 0A 02 20 02 24 01 01 00 04 00 53 05 91 04 4E 30 30 37 29 "
     "00 10 10 00 C3 00 01 00 00 00 00 00 01 00 10 03 AC"},
    // A word builder names file 256 '0' '0' (only its low byte is converted),
    // where a bit write names it '1' '0'.
    {"File256_NameCharacters00", WriteAnalog, 2, 256 * 256, 1, "05 00", 0x21,
     "10 06 10 02 00 00 0B 00 21 00 00 00 0A 02 20 02 24 01 01 00 04 00 53 05 91 04 42 30 30 30 29 "
     "00 00 00 C3 00 01 00 00 00 00 00 05 00 10 03 CB"},
    {"ShortData_MissingBytesSentAsZero", WriteAnalog, 3, 1792, 3, "34 12", 0x21,
     "10 06 10 02 00 00 0B 00 21 00 00 00 0A 02 20 02 24 01 01 00 04 00 53 05 91 04 4E 30 30 37 29 "
     "00 00 00 C3 00 03 00 00 00 00 00 34 12 00 00 00 00 10 03 75"},
    {"OddData_LastHighByteSentAsZero", WriteAnalog, 3, 1792, 2, "34 12 56", 0x21,
     "10 06 10 02 00 00 0B 00 21 00 00 00 0A 02 20 02 24 01 01 00 04 00 53 05 91 04 4E 30 30 37 29 "
     "00 00 00 C3 00 02 00 00 00 00 00 34 12 56 00 10 03 20"},
};
INSTANTIATE_TEST_SUITE_P(Words, WriteFrameRows, ::testing::ValuesIn(kWordRows),
                         [](const ::testing::TestParamInfo<FrameRow>& i) {
                             return std::string(i.param.name);
                         });

const FrameRow kRealRows[] = {
    {"OneAndAHalf_Element4_F008", WriteAnalog_F, 4, 2052, 2, "00 00 C0 3F", 0x21,
     "10 06 10 02 00 00 0B 00 21 00 00 00 0A 02 20 02 24 01 01 00 04 00 53 05 91 04 46 30 30 38 29 "
     "00 04 00 CA 00 01 00 00 00 00 00 00 00 C0 3F 10 03 BA"},
    {"OneAndTwo_Count4_TwoElements", WriteAnalog_F, 4, 2048, 4, "00 00 80 3F 00 00 00 40", 0x0A,
     "10 06 10 02 00 00 0B 00 0A 00 00 00 0A 02 20 02 24 01 01 00 04 00 53 05 91 04 46 30 30 38 29 "
     "00 00 00 CA 00 02 00 00 00 00 00 00 00 80 3F 00 00 00 40 10 03 D4"},
    {"Count1_EmptyData_OneZeroValue", WriteAnalog_F, 4, 2049, 1, "", 0x21,
     "10 06 10 02 00 00 0B 00 21 00 00 00 0A 02 20 02 24 01 01 00 04 00 53 05 91 04 46 30 30 38 29 "
     "00 01 00 CA 00 01 00 00 00 00 00 00 00 00 00 10 03 BC"},
    {"Count1_OneElement", WriteAnalog_F, 4, 2052, 1, "00 00 C0 3F", 0x21,
     "10 06 10 02 00 00 0B 00 21 00 00 00 0A 02 20 02 24 01 01 00 04 00 53 05 91 04 46 30 30 38 29 "
     "00 04 00 CA 00 01 00 00 00 00 00 00 00 C0 3F 10 03 BA"},
    {"Count0_OneElement", WriteAnalog_F, 4, 2052, 0, "00 00 C0 3F", 0x21,
     "10 06 10 02 00 00 0B 00 21 00 00 00 0A 02 20 02 24 01 01 00 04 00 53 05 91 04 46 30 30 38 29 "
     "00 04 00 CA 00 01 00 00 00 00 00 00 00 C0 3F 10 03 BA"},
    {"CountMinus3_OneElement", WriteAnalog_F, 4, 2052, -3, "00 00 C0 3F", 0x21,
     "10 06 10 02 00 00 0B 00 21 00 00 00 0A 02 20 02 24 01 01 00 04 00 53 05 91 04 46 30 30 38 29 "
     "00 04 00 CA 00 01 00 00 00 00 00 00 00 C0 3F 10 03 BA"},
    {"CountIntMin_OneElement", WriteAnalog_F, 4, 2052, INT_MIN, "00 00 C0 3F", 0x21,
     "10 06 10 02 00 00 0B 00 21 00 00 00 0A 02 20 02 24 01 01 00 04 00 53 05 91 04 46 30 30 38 29 "
     "00 04 00 CA 00 01 00 00 00 00 00 00 00 C0 3F 10 03 BA"},
    {"Count3_OneElement", WriteAnalog_F, 4, 2052, 3, "00 00 C0 3F 00 00 80 3F", 0x21,
     "10 06 10 02 00 00 0B 00 21 00 00 00 0A 02 20 02 24 01 01 00 04 00 53 05 91 04 46 30 30 38 29 "
     "00 04 00 CA 00 01 00 00 00 00 00 00 00 C0 3F 10 03 BA"},
    {"Count5_TwoElements", WriteAnalog_F, 4, 2048, 5, "00 00 80 3F 00 00 00 40", 0x0A,
     "10 06 10 02 00 00 0B 00 0A 00 00 00 0A 02 20 02 24 01 01 00 04 00 53 05 91 04 46 30 30 38 29 "
     "00 00 00 CA 00 02 00 00 00 00 00 00 00 80 3F 00 00 00 40 10 03 D4"},
    {"Count4_SixBytes_SecondElementZero", WriteAnalog_F, 4, 2048, 4, "00 00 80 3F 11 22", 0x0A,
     "10 06 10 02 00 00 0B 00 0A 00 00 00 0A 02 20 02 24 01 01 00 04 00 53 05 91 04 46 30 30 38 29 "
     "00 00 00 CA 00 02 00 00 00 00 00 00 00 80 3F 00 00 00 00 10 03 14"},
    {"TwoAndAQuarter_DoublesValueByte", WriteAnalog_F, 4, 2052, 2, "00 00 10 40", 0x21,
     "10 06 10 02 00 00 0B 00 21 00 00 00 0A 02 20 02 24 01 01 00 04 00 53 05 91 04 46 30 30 38 29 "
     "00 04 00 CA 00 01 00 00 00 00 00 00 00 10 10 40 10 03 69"},
    {"Count32_DoublesLowCountByte", WriteAnalog_F, 4, 2048, 32,
     "40 41 42 43 44 45 46 47 48 49 4A 4B 4C 4D 4E 4F 50 51 52 53 54 55 56 57 58 59 5A 5B 5C 5D 5E "
     "5F "
     "60 61 62 63 64 65 66 67 68 69 6A 6B 6C 6D 6E 6F 70 71 72 73 74 75 76 77 78 79 7A 7B 7C 7D 7E "
     "7F",
     0x21,
     "10 06 10 02 00 00 0B 00 21 00 00 00 0A 02 20 02 24 01 01 00 04 00 53 05 91 04 46 30 30 38 29 "
     "00 00 00 CA 00 10 10 00 00 00 00 00 "
     "40 41 42 43 44 45 46 47 48 49 4A 4B 4C 4D 4E 4F 50 51 52 53 54 55 56 57 58 59 5A 5B 5C 5D 5E "
     "5F "
     "60 61 62 63 64 65 66 67 68 69 6A 6B 6C 6D 6E 6F 70 71 72 73 74 75 76 77 78 79 7A 7B 7C 7D 7E "
     "7F 10 03 CE"},
    {"Count33_SameAsCount32", WriteAnalog_F, 4, 2048, 33,
     "40 41 42 43 44 45 46 47 48 49 4A 4B 4C 4D 4E 4F 50 51 52 53 54 55 56 57 58 59 5A 5B 5C 5D 5E "
     "5F "
     "60 61 62 63 64 65 66 67 68 69 6A 6B 6C 6D 6E 6F 70 71 72 73 74 75 76 77 78 79 7A 7B 7C 7D 7E "
     "7F",
     0x21,
     "10 06 10 02 00 00 0B 00 21 00 00 00 0A 02 20 02 24 01 01 00 04 00 53 05 91 04 46 30 30 38 29 "
     "00 00 00 CA 00 10 10 00 00 00 00 00 "
     "40 41 42 43 44 45 46 47 48 49 4A 4B 4C 4D 4E 4F 50 51 52 53 54 55 56 57 58 59 5A 5B 5C 5D 5E "
     "5F "
     "60 61 62 63 64 65 66 67 68 69 6A 6B 6C 6D 6E 6F 70 71 72 73 74 75 76 77 78 79 7A 7B 7C 7D 7E "
     "7F 10 03 CE"},
    // The 32-bit builder names an 'F' tag whatever type the record carries.
    {"WordType_StillLetterF", WriteAnalog_F, 3, 2052, 2, "00 00 C0 3F", 0x21,
     "10 06 10 02 00 00 0B 00 21 00 00 00 0A 02 20 02 24 01 01 00 04 00 53 05 91 04 46 30 30 38 29 "
     "00 04 00 CA 00 01 00 00 00 00 00 00 00 C0 3F 10 03 BA"},
    {"BitType_StillLetterF", WriteAnalog_F, 0, 2052, 2, "00 00 C0 3F", 0x21,
     "10 06 10 02 00 00 0B 00 21 00 00 00 0A 02 20 02 24 01 01 00 04 00 53 05 91 04 46 30 30 38 29 "
     "00 04 00 CA 00 01 00 00 00 00 00 00 00 C0 3F 10 03 BA"},
};
INSTANTIATE_TEST_SUITE_P(Reals, WriteFrameRows, ::testing::ValuesIn(kRealRows),
                         [](const ::testing::TestParamInfo<FrameRow>& i) {
                             return std::string(i.param.name);
                         });

// ---- frames checked by structure ---------------------------------------------

using WordWrites = DriverTest;

// Head of a Write Tag Fragmented frame for N007 element 0, up to the INT type byte.
const char* const kN007WriteHead =
    "10 06 10 02 00 00 0B 00 21 00 00 00 0A 02 20 02 24 01 01 00 04 00 53 05 91 04 4E 30 30 37 29 "
    "00 00 00 C3";

TEST_F(WordWrites, Count256_CountBytes0100_All512ValuesFollow) {
    PLC_driver.tns = 0x21;
    RW_VAR var = Record(3, 1792, 256, QByteArray(512, '\x55'));
    WriteAnalog(&var);

    QByteArray expected =
        Hex(kN007WriteHead) + Hex("01 00 00 00 00 00 00") + QByteArray(512, '\x55') + Hex("10 03");
    expected.append(static_cast<char>(0));
    expected[expected.size() - 1] = static_cast<char>(BlockCheckOf(expected));
    ExpectOneWrite(expected);
    EXPECT_EQ(45 + 512, expected.size());
}

TEST_F(WordWrites, Count4096_DoublesHighCountByte) {
    PLC_driver.tns = 0x21;
    RW_VAR var = Record(3, 1792, 4096, QByteArray(8192, '\x01'));
    WriteAnalog(&var);

    QByteArray expected = Hex(kN007WriteHead) + Hex("10 10 00 00 00 00 00 00") +
                          QByteArray(8192, '\x01') + Hex("10 03");
    expected.append(static_cast<char>(0));
    expected[expected.size() - 1] = static_cast<char>(BlockCheckOf(expected));
    ExpectOneWrite(expected);
    EXPECT_EQ(45 + 8192 + 1, expected.size());
}

TEST_F(WordWrites, ValueByte10_BlockCheckAsWithoutTheAddedByte) {
    PLC_driver.tns = 0x21;
    RW_VAR var = Record(3, 1794, 2, Hex("34 12 10 00"));
    WriteAnalog(&var);
    ASSERT_EQ(PLC_driver.protocolList.size(), 1);
    const QByteArray frame = PLC_driver.protocolList.first().frame;
    ASSERT_EQ(50, frame.size());
    ASSERT_EQ(ToHex(Hex("34 12 10 10 00")), ToHex(frame.mid(42, 5)));

    // Dropping the added DLE leaves the frame the block check was made over.
    QByteArray undoubled = frame;
    undoubled.remove(45, 1);
    unsigned sum = 0;
    for (int i = 4; i < undoubled.size() - 3; ++i) sum += static_cast<uint8_t>(undoubled[i]);
    EXPECT_EQ(static_cast<uint8_t>(0x100 - (sum & 0xFF)), static_cast<uint8_t>(frame.back()));
}

TEST_F(WordWrites, TypesAAndB_DifferOnlyInLetterAndBlockCheck) {
    PLC_driver.tns = 0x33;
    RW_VAR a = Record(2, 0x0A05, 3, Hex("01 02 03 04 10 06"));
    RW_VAR b = a;
    b.dataType = ABCL_WORD_B;
    WriteAnalog(&a);
    WriteAnalog(&b);
    ASSERT_EQ(PLC_driver.protocolList.size(), 2);
    const QByteArray fa = PLC_driver.protocolList[0].frame;
    const QByteArray fb = PLC_driver.protocolList[1].frame;
    ASSERT_EQ(fa.size(), fb.size());
    for (int i = 0; i < fa.size() - 1; ++i) {
        if (i == 26) continue;
        EXPECT_EQ(fa[i], fb[i]) << "byte " << i;
    }
    EXPECT_EQ('B', fa[26]);
    EXPECT_EQ('N', fb[26]);
    // 'N' is 12 above 'B', so its block check is 12 below.
    EXPECT_EQ(static_cast<uint8_t>(static_cast<uint8_t>(fa.back()) - 12),
              static_cast<uint8_t>(fb.back()));
}

TEST_F(WordWrites, CountsBelowMinus4_BuildNoFrame) {
    for (int count : {-5, -6, -21, -22, -100, INT_MIN}) {
        PLC_driver.protocolList.clear();
        RW_VAR var = Record(3, 1792, count, Hex("34 12"));
        WriteAnalog(&var);
        EXPECT_EQ(0, PLC_driver.protocolList.size()) << "count " << count;
    }
}

TEST_F(WordWrites, CountBelowOne_BuildsNoFrame_Hardened) {
    ABCL_HARDENED_BUILD_ONLY("the default build moves the trailer back for counts down to -4");
    for (const int count : {0, -1, -2, -3, -4}) {
        RW_VAR var = Record(3, 1792, count, Hex("34 12"));
        WriteAnalog(&var);
        EXPECT_EQ(0, PLC_driver.protocolList.size()) << "count " << count;
        WriteRegister(&var);
        EXPECT_EQ(0, PLC_driver.protocolList.size()) << "count " << count;
    }
    RW_VAR one = Record(3, 1792, 1, Hex("34 12"));
    WriteAnalog(&one);
    EXPECT_EQ(1, PLC_driver.protocolList.size());
}

// From DST up to the byte before DLE ETX a write frame holds 38 bytes, then
// its values; the block check counts at most 65,535 of them.
TEST_F(WordWrites, BodyLongerThanTheBlockCheckCounts_BuildsNoFrame_Hardened) {
    ABCL_HARDENED_BUILD_ONLY("the default build sends a block check of the first 65,535 bytes");
    RW_VAR longest = Record(3, 1792, 32748, QByteArray(2 * 32748, '\x22'));
    WriteAnalog(&longest);
    ASSERT_EQ(1, PLC_driver.protocolList.size());
    EXPECT_EQ(4 + 65534 + 3, PLC_driver.protocolList.first().frame.size());
    PLC_driver.protocolList.clear();

    RW_VAR longer = Record(3, 1792, 32749, QByteArray(2 * 32749, '\x22'));
    WriteAnalog(&longer);
    EXPECT_EQ(0, PLC_driver.protocolList.size());
}

TEST_F(WordWrites, CountAboveWriteLimit_BuildsNoFrame) {
    RW_VAR var = Record(3, 1792, kMaxWriteCount + 1, Hex("34 12"));
    WriteAnalog(&var);
    EXPECT_EQ(0, PLC_driver.protocolList.size());
    var.count = INT_MAX;
    WriteAnalog(&var);
    EXPECT_EQ(0, PLC_driver.protocolList.size());
}

using RealWrites = DriverTest;

TEST_F(RealWrites, CountAboveWriteLimit_BuildsNoFrame) {
    RW_VAR var = Record(4, 2048, kMaxWriteCount + 1, Hex("00 00 80 3F"));
    WriteAnalog_F(&var);
    EXPECT_EQ(0, PLC_driver.protocolList.size());
    var.count = INT_MAX;
    WriteAnalog_F(&var);
    EXPECT_EQ(0, PLC_driver.protocolList.size());
}

TEST_F(RealWrites, CountBelowOne_BuildsNoFrame_Hardened) {
    ABCL_HARDENED_BUILD_ONLY("the default build writes one value for a count below 1");
    for (const int count : {0, -1, -3, INT_MIN}) {
        RW_VAR var = Record(4, 2052, count, Hex("00 00 C0 3F"));
        WriteAnalog_F(&var);
        EXPECT_EQ(0, PLC_driver.protocolList.size()) << "count " << count;
        WriteRegister(&var);
        EXPECT_EQ(0, PLC_driver.protocolList.size()) << "count " << count;
    }
    RW_VAR one = Record(4, 2052, 1, Hex("00 00 C0 3F"));
    WriteAnalog_F(&one);
    EXPECT_EQ(1, PLC_driver.protocolList.size());
}

TEST_F(RealWrites, BodyLongerThanTheBlockCheckCounts_BuildsNoFrame_Hardened) {
    ABCL_HARDENED_BUILD_ONLY("the default build sends a block check of the first 65,535 bytes");
    // 16,374 values: 38 + 65,496 bytes; one more value is past 65,535.
    RW_VAR longest = Record(4, 2048, 2 * 16374, QByteArray(4 * 16374, '\x22'));
    WriteAnalog_F(&longest);
    ASSERT_EQ(1, PLC_driver.protocolList.size());
    EXPECT_EQ(4 + 38 + 4 * 16374 + 3, PLC_driver.protocolList.first().frame.size());
    PLC_driver.protocolList.clear();

    RW_VAR longer = Record(4, 2048, 2 * 16375, QByteArray(4 * 16375, '\x22'));
    WriteAnalog_F(&longer);
    EXPECT_EQ(0, PLC_driver.protocolList.size());
}

TEST_F(RealWrites, Count600_ElementCount300_HighByteFirst) {
    PLC_driver.tns = 0x21;
    RW_VAR var = Record(4, 2048, 600, QByteArray(1200, '\x22'));
    WriteAnalog_F(&var);
    QByteArray expected = Hex("10 06 10 02 00 00 0B 00 21 00 00 00 0A 02 20 02 24 01 01 00 04 00 "
                              "53 05 91 04 46 30 30 38 29 00 00 00 CA 01 2C 00 00 00 00 00") +
                          QByteArray(1200, '\x22') + Hex("10 03");
    expected.append(static_cast<char>(0));
    expected[expected.size() - 1] = static_cast<char>(BlockCheckOf(expected));
    ExpectOneWrite(expected);
}

// ---- WriteRegister: dispatch, counters, mirror -------------------------------

using WriteDispatch = DriverTest;

TEST_F(WriteDispatch, EachTypeReachesItsBuilder) {
    struct Case {
        int dataType;
        int address;
        uint8_t service;
        char letter;
        uint8_t dataTypeByte;  // byte at offset 34
    };
    const Case cases[] = {
        {0, 12453, 0x4E, 'B', 0x02}, {1, 28676, 0x4E, 'N', 0x02}, {2, 768, 0x53, 'B', 0xC3},
        {3, 1794, 0x53, 'N', 0xC3},  {4, 2052, 0x53, 'F', 0xCA},
    };
    for (const Case& c : cases) {
        PLC_driver.protocolList.clear();
        PLC_driver.tns = 0x21;
        RW_VAR var = Record(c.dataType, c.address, 2, Hex("00 00 C0 3F"));
        info.replyDone = 3;
        info.replyTotal = 4;
        WriteRegister(&var);
        ASSERT_EQ(1, PLC_driver.protocolList.size()) << "type " << c.dataType;
        const Protocol& p = PLC_driver.protocolList.first();
        EXPECT_EQ(c.service, static_cast<uint8_t>(p.frame[22])) << "type " << c.dataType;
        EXPECT_EQ(c.letter, p.frame[26]) << "type " << c.dataType;
        EXPECT_EQ(c.dataTypeByte, static_cast<uint8_t>(p.frame[34])) << "type " << c.dataType;
        EXPECT_EQ(27, p.replyLen);
        EXPECT_EQ(0, p.dataPos);
        EXPECT_EQ(0, p.dataBytes);
        EXPECT_EQ(p.frame.size(), p.frameLen);
        EXPECT_EQ(0, info.replyDone);
        EXPECT_EQ(1, info.replyTotal);
    }
}

TEST_F(WriteDispatch, DirectBuilderCallsRearmReplyCounters) {
    for (Builder build : {WriteBool, WriteAnalog, WriteAnalog_F}) {
        info.replyDone = 7;
        info.replyTotal = 9;
        RW_VAR var = Record(1, 28676, 2, Hex("01 00 00 00"));
        build(&var);
        EXPECT_EQ(0, info.replyDone);
        EXPECT_EQ(1, info.replyTotal);
    }
    EXPECT_EQ(3, PLC_driver.protocolList.size());
}

TEST_F(WriteDispatch, UnknownTypes_QueueNothingAndChangeNothing) {
    for (int dataType : {5, -1, 100, INT_MIN}) {
        PLC_driver.areaA[1792] = 0x1111;
        PLC_driver.areaB[1792] = 0x2222;
        PLC_driver.areaD[1792] = 0x33333333u;
        const ImageSnapshot before;
        info.replyDone = 7;
        info.replyTotal = 9;
        RW_VAR var = Record(dataType, 1792, 2, Hex("34 12 78 56"));
        WriteRegister(&var);
        EXPECT_EQ(0, PLC_driver.protocolList.size()) << "type " << dataType;
        EXPECT_TRUE(before.Unchanged()) << "type " << dataType;
        EXPECT_EQ(7, info.replyDone);
        EXPECT_EQ(9, info.replyTotal);
    }
}

TEST_F(WriteDispatch, BitWrite_Count3_OneFrame_MirrorSetsClearsSets) {
    PLC_driver.tns = 0x21;
    // Start from the opposite pattern, so every one of the three bits must move.
    const int a = 12453;
    PLC_driver.areaA[a / 16] = static_cast<uint16_t>(1u << ((a + 1) % 16));
    RW_VAR var = Record(0, a, 3, Hex("01 00 01"));
    WriteRegister(&var);

    ExpectOneWrite(Hex(kBitRows[0].frame));
    EXPECT_TRUE(BitOf(PLC_driver.areaA, a));
    EXPECT_FALSE(BitOf(PLC_driver.areaA, a + 1));
    EXPECT_TRUE(BitOf(PLC_driver.areaA, a + 2));
    EXPECT_EQ(static_cast<uint16_t>((1u << 5) | (1u << 7)), PLC_driver.areaA[a / 16]);
}

TEST_F(WriteDispatch, BitWrite_TypeB_MirrorsIntoSecondArea) {
    PLC_driver.tns = 0x05;
    RW_VAR var = Record(1, 28676, 1, Hex("01"));
    WriteRegister(&var);
    ExpectOneWrite(Hex(kBitRows[2].frame));
    EXPECT_EQ(0x0010, PLC_driver.areaB[28676 / 16]);
    EXPECT_EQ(0, PLC_driver.areaA[28676 / 16]);
}

TEST_F(WriteDispatch, WordWrite_MirrorsValuesLowByteFirst) {
    PLC_driver.tns = 0x21;
    RW_VAR var = Record(3, 1794, 2, Hex("34 12 10 00"));
    WriteRegister(&var);
    ExpectOneWrite(Hex(kWordRows[0].frame));
    EXPECT_EQ(0x1234, PLC_driver.areaB[1794]);
    EXPECT_EQ(0x0010, PLC_driver.areaB[1795]);
    EXPECT_EQ(0, PLC_driver.areaA[1794]);
}

TEST_F(WriteDispatch, RealWrite_Count4SixBytes_FrameSendsZeroMirrorKeepsOldValue) {
    PLC_driver.tns = 0x0A;
    PLC_driver.areaD[2048] = 0x11111111u;
    PLC_driver.areaD[2049] = 0xDEADBEEFu;
    RW_VAR var = Record(4, 2048, 4, Hex("00 00 80 3F 11 22"));
    WriteRegister(&var);
    ExpectOneWrite(Hex(kRealRows[9].frame));
    EXPECT_EQ(0x3F800000u, PLC_driver.areaD[2048]);
    EXPECT_EQ(0xDEADBEEFu, PLC_driver.areaD[2049]);
}

TEST_F(WriteDispatch, RealWrite_Count1_FrameSendsOneValueMirrorStoresNone) {
    PLC_driver.tns = 0x21;
    PLC_driver.areaD[2052] = 0xCAFEF00Du;
    RW_VAR var = Record(4, 2052, 1, Hex("00 00 C0 3F"));
    WriteRegister(&var);
    ExpectOneWrite(Hex(kRealRows[3].frame));
    EXPECT_EQ(0xCAFEF00Du, PLC_driver.areaD[2052]);
}

TEST_F(WriteDispatch, RealWrite_Count2_MirrorsOneValue) {
    PLC_driver.tns = 0x21;
    RW_VAR var = Record(4, 2052, 2, Hex("00 00 C0 3F"));
    WriteRegister(&var);
    ExpectOneWrite(Hex(kRealRows[0].frame));
    EXPECT_EQ(0x3FC00000u, PLC_driver.areaD[2052]);
}

TEST_F(WriteDispatch, CommErrorSet_SameFrameQueued_ImageUntouched) {
    for (const FrameRow* row :
         {&kBitRows[0], &kBitRows[2], &kWordRows[0], &kWordRows[1], &kRealRows[0], &kRealRows[1]}) {
        PLC_driver.protocolList.clear();
        PLC_driver.tns = row->tns;
        setCommError(true);
        const ImageSnapshot before;
        RW_VAR var = Record(row->dataType, row->address, row->count, Hex(row->data));
        info.replyDone = 7;
        info.replyTotal = 9;
        WriteRegister(&var);
        SCOPED_TRACE(row->name);
        ExpectOneWrite(Hex(row->frame));
        EXPECT_TRUE(before.Unchanged());
        EXPECT_EQ(0, info.replyDone);
        EXPECT_EQ(1, info.replyTotal);

        // The same record with the link good: the same bytes, and now mirrored.
        PLC_driver.protocolList.clear();
        setCommError(false);
        WriteRegister(&var);
        ExpectOneWrite(Hex(row->frame));
        EXPECT_FALSE(before.Unchanged());
    }
}

TEST_F(WriteDispatch, MultiStation_FrameQueued_ImageUntouched) {
    info.multiStation = 1;
    PLC_driver.tns = 0x21;
    const ImageSnapshot before;
    RW_VAR var = Record(3, 1794, 2, Hex("34 12 10 00"));
    WriteRegister(&var);
    ExpectOneWrite(Hex(kWordRows[0].frame));
    EXPECT_TRUE(before.Unchanged());
}

TEST_F(WriteDispatch, FramesQueueBehindEachOther) {
    PLC_driver.tns = 0x21;
    RW_VAR first = Record(0, 12453, 1, Hex("01"));
    RW_VAR second = Record(3, 1794, 2, Hex("34 12 10 00"));
    WriteRegister(&first);
    WriteRegister(&second);
    ASSERT_EQ(2, PLC_driver.protocolList.size());
    EXPECT_EQ(ToHex(Hex(kBitRows[0].frame)), ToHex(PLC_driver.protocolList[0].frame));
    EXPECT_EQ(ToHex(Hex(kWordRows[0].frame)), ToHex(PLC_driver.protocolList[1].frame));
    ExpectSameRecord(second, PLC_driver.protocolList[1].var);
}

}  // namespace
