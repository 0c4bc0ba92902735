// Direct-mode read requests: the DF1 envelope around a Read Tag Fragmented
// request, DLE doubling, the block check, and the Protocol bookkeeping.
#include "test_support.h"

#include "Func_Check.h"
#include "Func_Read.h"
#include "df1_frame.h"

#include <climits>
#include <cstdint>
#include <string>
#include <utility>

namespace {

constexpr int kTypeBitA = 0;
constexpr int kTypeBitB = 1;
constexpr int kTypeWordA = 2;
constexpr int kTypeWordB = 3;
constexpr int kTypeReal = 4;

int WordAddress(int file, int element) {
    return file * 256 + element;
}

// A record with every field set, so that copying can be checked field by field.
RW_VAR Record(int dataType, int address, int count) {
    return RecordBuilder()
        .Ids(31, 32)
        .Host(0, 34, 38, 39)
        .Link(35, 36)
        .Texts(QStringLiteral("7:0"), QStringLiteral("second text"))
        .At(dataType, address, count, 37)
        .Data(Hex("DE AD BE EF"));
}

class ReadFrames : public DriverTest {
protected:
    // Builds through the dispatcher and returns the one queued request.
    Protocol BuildOne(int dataType, int address, int count, int tns) {
        PLC_driver.tns = tns;
        RW_VAR v = Record(dataType, address, count);
        ReadRegister(&v);
        EXPECT_EQ(PLC_driver.protocolList.size(), 1);
        if (PLC_driver.protocolList.isEmpty()) return Protocol();
        return PLC_driver.protocolList.first();
    }
};

// ------------------------------------------------------ frames, byte for byte

struct FrameRow {
    const char* name;
    int dataType;
    int address;
    int count;
    int tns;
    const char* hex;
    int dataBytes;
};

class ReadFrameBytes : public ReadFrames, public ::testing::WithParamInterface<FrameRow> {};

// The hardened build's ReadRegister builds no frame for these rows (see
// CountBelowOneOrReplyBeyondAFrame_NoFrame_Hardened); the builders themselves
// still encode them.
constexpr const char* kNoHardenedReadBelowOne =
    "the hardened build asks for no read of fewer than one element";

TEST_P(ReadFrameBytes, FrameAndBookkeeping) {
    const FrameRow& row = GetParam();
    if (row.count < 1) ABCL_DEFAULT_BUILD_ONLY(kNoHardenedReadBelowOne);
    const Protocol p = BuildOne(row.dataType, row.address, row.count, row.tns);
    const QByteArray expected = Hex(row.hex);
    EXPECT_EQ(ToHex(p.frame), ToHex(expected));
    EXPECT_EQ(p.frameLen, expected.size());
    EXPECT_EQ(p.frameLen, p.frame.size());
    EXPECT_EQ(p.replyLen, -1);
    EXPECT_EQ(p.dataPos, 26);
    EXPECT_EQ(p.dataBytes, row.dataBytes);
    EXPECT_EQ(p.extra1, 0);
    EXPECT_EQ(p.extra2, 0);
    EXPECT_EQ(p.extra3, 0);
}

TEST_P(ReadFrameBytes, BuilderCalledDirectlyGivesTheSameFrame) {
    const FrameRow& row = GetParam();
    PLC_driver.tns = row.tns;
    RW_VAR v = Record(row.dataType, row.address, row.count);
    if (row.dataType == kTypeReal)
        ReadAnalog_F(&v);
    else
        ReadAnalog(&v);
    ASSERT_EQ(PLC_driver.protocolList.size(), 1);
    EXPECT_EQ(ToHex(PLC_driver.protocolList.first().frame), ToHex(Hex(row.hex)));
    EXPECT_EQ(PLC_driver.protocolList.first().dataBytes, row.dataBytes);
}

TEST_P(ReadFrameBytes, FrameEndsInDleEtxAndItsBlockCheck) {
    const FrameRow& row = GetParam();
    if (row.count < 1) ABCL_DEFAULT_BUILD_ONLY(kNoHardenedReadBelowOne);
    const Protocol p = BuildOne(row.dataType, row.address, row.count, row.tns);
    ASSERT_GE(p.frame.size(), 45);
    const QByteArray throughEtx = p.frame.left(p.frame.size() - 1);
    EXPECT_EQ(ToHex(throughEtx.right(2)), "10 03");
    EXPECT_EQ(RequestBlockCheck(throughEtx), static_cast<uint8_t>(p.frame[p.frame.size() - 1]));
}

const FrameRow kFrameRows[] = {
    // The three worked examples.
    {"N007_Element0_Count10_Tns21", kTypeWordB, WordAddress(7, 0), 10, 0x21,
     "10 06 10 02 00 00 0B 00 21 00 00 00 0A 02 20 02 24 01 01 00 04 00 52 05 91 04 4E 30 30 37 29 "
     "00 00 00 0A 00 00 00 00 00 00 00 10 03 78",
     20},
    {"B003_Element16_Count2_Tns05", kTypeWordA, WordAddress(3, 16), 2, 0x05,
     "10 06 10 02 00 00 0B 00 05 00 00 00 0A 02 20 02 24 01 01 00 04 00 52 05 91 04 42 30 30 33 29 "
     "00 10 10 00 02 00 00 00 00 00 00 00 10 03 9C",
     4},
    {"F008_Element4_Count2_Tns21", kTypeReal, WordAddress(8, 4), 2, 0x21,
     "10 06 10 02 00 00 0B 00 21 00 00 00 0A 02 20 02 24 01 01 00 04 00 52 05 91 04 46 30 30 38 29 "
     "00 04 00 01 00 00 00 00 00 00 00 10 03 84",
     4},
    // The same requests for the bit types of the same files.
    {"N007_BitType_SameFrame", kTypeBitB, WordAddress(7, 0), 10, 0x21,
     "10 06 10 02 00 00 0B 00 21 00 00 00 0A 02 20 02 24 01 01 00 04 00 52 05 91 04 4E 30 30 37 29 "
     "00 00 00 0A 00 00 00 00 00 00 00 10 03 78",
     20},
    {"B003_BitType_SameFrame", kTypeBitA, WordAddress(3, 16), 2, 0x05,
     "10 06 10 02 00 00 0B 00 05 00 00 00 0A 02 20 02 24 01 01 00 04 00 52 05 91 04 42 30 30 33 29 "
     "00 10 10 00 02 00 00 00 00 00 00 00 10 03 9C",
     4},
    // Element counts.
    {"Count16_DoublesLowCountByte", kTypeWordB, WordAddress(7, 0), 16, 0x21,
     "10 06 10 02 00 00 0B 00 21 00 00 00 0A 02 20 02 24 01 01 00 04 00 52 05 91 04 4E 30 30 37 29 "
     "00 00 00 10 10 00 00 00 00 00 00 00 10 03 72",
     32},
    {"Count256_HighByteFirst", kTypeWordB, WordAddress(7, 0), 256, 0x21,
     "10 06 10 02 00 00 0B 00 21 00 00 00 0A 02 20 02 24 01 01 00 04 00 52 05 91 04 4E 30 30 37 29 "
     "00 00 01 00 00 00 00 00 00 00 00 10 03 81",
     512},
    {"Count4096_DoublesHighCountByte", kTypeWordB, WordAddress(7, 0), 4096, 0x21,
     "10 06 10 02 00 00 0B 00 21 00 00 00 0A 02 20 02 24 01 01 00 04 00 52 05 91 04 4E 30 30 37 29 "
     "00 00 10 10 00 00 00 00 00 00 00 00 10 03 72",
     8192},
    {"Count0x1010_DoublesBothCountBytes", kTypeWordB, WordAddress(7, 0), 0x1010, 0x21,
     "10 06 10 02 00 00 0B 00 21 00 00 00 0A 02 20 02 24 01 01 00 04 00 52 05 91 04 4E 30 30 37 29 "
     "00 00 10 10 10 10 00 00 00 00 00 00 00 10 03 62",
     8224},
    {"CountMinusOne_EncodedByteForByte", kTypeWordB, WordAddress(7, 0), -1, 0x21,
     "10 06 10 02 00 00 0B 00 21 00 00 00 0A 02 20 02 24 01 01 00 04 00 52 05 91 04 4E 30 30 37 29 "
     "00 00 FF FF 00 00 00 00 00 00 00 10 03 84",
     -2},
    // The 32-bit read asks for one element less than the count, at least one.
    {"Real_CountMinus7_RequestsOne", kTypeReal, WordAddress(8, 4), -7, 0x21,
     "10 06 10 02 00 00 0B 00 21 00 00 00 0A 02 20 02 24 01 01 00 04 00 52 05 91 04 46 30 30 38 29 "
     "00 04 00 01 00 00 00 00 00 00 00 10 03 84",
     4},
    {"Real_Count5_RequestsFour", kTypeReal, WordAddress(8, 4), 5, 0x21,
     "10 06 10 02 00 00 0B 00 21 00 00 00 0A 02 20 02 24 01 01 00 04 00 52 05 91 04 46 30 30 38 29 "
     "00 04 00 04 00 00 00 00 00 00 00 10 03 81",
     16},
    {"Real_Count1_RequestsOne", kTypeReal, WordAddress(8, 4), 1, 0x21,
     "10 06 10 02 00 00 0B 00 21 00 00 00 0A 02 20 02 24 01 01 00 04 00 52 05 91 04 46 30 30 38 29 "
     "00 04 00 01 00 00 00 00 00 00 00 10 03 84",
     4},
    {"Real_Count0_RequestsOne", kTypeReal, WordAddress(8, 4), 0, 0x21,
     "10 06 10 02 00 00 0B 00 21 00 00 00 0A 02 20 02 24 01 01 00 04 00 52 05 91 04 46 30 30 38 29 "
     "00 04 00 01 00 00 00 00 00 00 00 10 03 84",
     4},
    {"Real_Count17_RequestsSixteenDoubled", kTypeReal, WordAddress(8, 4), 17, 0x21,
     "10 06 10 02 00 00 0B 00 21 00 00 00 0A 02 20 02 24 01 01 00 04 00 52 05 91 04 46 30 30 38 29 "
     "00 04 00 10 10 00 00 00 00 00 00 00 10 03 75",
     64},
    // Element 16 is doubled and shifts everything after it.
    {"Element16_DoublesElementByte", kTypeWordB, WordAddress(7, 16), 10, 0x21,
     "10 06 10 02 00 00 0B 00 21 00 00 00 0A 02 20 02 24 01 01 00 04 00 52 05 91 04 4E 30 30 37 29 "
     "00 10 10 00 0A 00 00 00 00 00 00 00 10 03 68",
     20},
    // File digits past 9.
    {"File10_NameEndsInA", kTypeWordB, WordAddress(10, 0), 1, 0x21,
     "10 06 10 02 00 00 0B 00 21 00 00 00 0A 02 20 02 24 01 01 00 04 00 52 05 91 04 4E 30 30 41 29 "
     "00 00 00 01 00 00 00 00 00 00 00 10 03 77",
     2},
    {"File11_NameEndsInB", kTypeWordB, WordAddress(11, 0), 1, 0x21,
     "10 06 10 02 00 00 0B 00 21 00 00 00 0A 02 20 02 24 01 01 00 04 00 52 05 91 04 4E 30 30 42 29 "
     "00 00 00 01 00 00 00 00 00 00 00 10 03 76",
     2},
    {"File12_NameEndsInC", kTypeWordB, WordAddress(12, 0), 1, 0x21,
     "10 06 10 02 00 00 0B 00 21 00 00 00 0A 02 20 02 24 01 01 00 04 00 52 05 91 04 4E 30 30 43 29 "
     "00 00 00 01 00 00 00 00 00 00 00 10 03 75",
     2},
    {"File13_NameEndsInD", kTypeWordB, WordAddress(13, 0), 1, 0x21,
     "10 06 10 02 00 00 0B 00 21 00 00 00 0A 02 20 02 24 01 01 00 04 00 52 05 91 04 4E 30 30 44 29 "
     "00 00 00 01 00 00 00 00 00 00 00 10 03 74",
     2},
    {"File14_NameEndsInE", kTypeWordB, WordAddress(14, 0), 1, 0x21,
     "10 06 10 02 00 00 0B 00 21 00 00 00 0A 02 20 02 24 01 01 00 04 00 52 05 91 04 4E 30 30 45 29 "
     "00 00 00 01 00 00 00 00 00 00 00 10 03 73",
     2},
    {"File15_NameEndsInF", kTypeWordB, WordAddress(15, 0), 1, 0x21,
     "10 06 10 02 00 00 0B 00 21 00 00 00 0A 02 20 02 24 01 01 00 04 00 52 05 91 04 4E 30 30 46 29 "
     "00 00 00 01 00 00 00 00 00 00 00 10 03 72",
     2},
    {"File16_NameEndsInG", kTypeWordB, WordAddress(16, 0), 1, 0x21,
     "10 06 10 02 00 00 0B 00 21 00 00 00 0A 02 20 02 24 01 01 00 04 00 52 05 91 04 4E 30 30 47 29 "
     "00 00 00 01 00 00 00 00 00 00 00 10 03 71",
     2},
    // DigitalToASCII(217) is 0x110: not DLE as a whole, so 0x10 goes out once.
    {"File217_NameByte0x10_NotDoubled", kTypeWordB, WordAddress(217, 0), 1, 0x21,
     "10 06 10 02 00 00 0B 00 21 00 00 00 0A 02 20 02 24 01 01 00 04 00 52 05 91 04 4E 30 30 10 29 "
     "00 00 00 01 00 00 00 00 00 00 00 10 03 A8",
     2},
    // Only the low byte of the file number names the tag.
    {"File473_SameNameAsFile217", kTypeWordB, WordAddress(473, 0), 1, 0x21,
     "10 06 10 02 00 00 0B 00 21 00 00 00 0A 02 20 02 24 01 01 00 04 00 52 05 91 04 4E 30 30 10 29 "
     "00 00 00 01 00 00 00 00 00 00 00 10 03 A8",
     2},
    // A block check of 0x10 goes out once.
    {"BlockCheck0x10_NotDoubled", kTypeWordB, WordAddress(7, 0), 114, 0x21,
     "10 06 10 02 00 00 0B 00 21 00 00 00 0A 02 20 02 24 01 01 00 04 00 52 05 91 04 4E 30 30 37 29 "
     "00 00 00 72 00 00 00 00 00 00 00 10 03 10",
     228},
    // A first transaction number of 0x10 goes out once and counts once.
    {"Tns0x10_NotDoubled", kTypeWordB, WordAddress(7, 0), 10, 0x10,
     "10 06 10 02 00 00 0B 00 10 00 00 00 0A 02 20 02 24 01 01 00 04 00 52 05 91 04 4E 30 30 37 29 "
     "00 00 00 0A 00 00 00 00 00 00 00 10 03 89",
     20},
    // Only the low byte of the transaction counter is sent.
    {"Tns0x121_SendsLowByte", kTypeWordB, WordAddress(7, 0), 10, 0x121,
     "10 06 10 02 00 00 0B 00 21 00 00 00 0A 02 20 02 24 01 01 00 04 00 52 05 91 04 4E 30 30 37 29 "
     "00 00 00 0A 00 00 00 00 00 00 00 10 03 78",
     20},
    // Negative addresses: truncating division, pad byte 0xFF for a negative element.
    {"AddressMinus1_PadAndElementFF", kTypeWordA, -1, 1, 0x21,
     "10 06 10 02 00 00 0B 00 21 00 00 00 0A 02 20 02 24 01 01 00 04 00 52 05 91 04 42 30 30 30 29 "
     "FF FF 00 01 00 00 00 00 00 00 00 10 03 96",
     2},
    {"AddressMinus240_ElementByte0x10Doubled", kTypeWordA, -240, 1, 0x21,
     "10 06 10 02 00 00 0B 00 21 00 00 00 0A 02 20 02 24 01 01 00 04 00 52 05 91 04 42 30 30 30 29 "
     "FF 10 10 00 01 00 00 00 00 00 00 00 10 03 85",
     2},
    {"AddressMinus256_FileMinus1", kTypeWordA, -256, 1, 0x21,
     "10 06 10 02 00 00 0B 00 21 00 00 00 0A 02 20 02 24 01 01 00 04 00 52 05 91 04 42 30 30 36 29 "
     "00 00 00 01 00 00 00 00 00 00 00 10 03 8E",
     2},
};

INSTANTIATE_TEST_SUITE_P(Rows, ReadFrameBytes, ::testing::ValuesIn(kFrameRows),
                         [](const ::testing::TestParamInfo<FrameRow>& row) {
                             return std::string(row.param.name);
                         });

// ------------------------------------------------------------- dispatch rules

TEST_F(ReadFrames, WordAndBitTypesOfOneAreaGiveIdenticalFrames) {
    for (int address :
         {WordAddress(7, 0), WordAddress(3, 16), WordAddress(217, 255), WordAddress(16, 16)}) {
        for (int count : {1, 16, 300}) {
            const QByteArray bitA = BuildOne(kTypeBitA, address, count, 0x33).frame;
            PLC_driver.protocolList.clear();
            const QByteArray wordA = BuildOne(kTypeWordA, address, count, 0x33).frame;
            PLC_driver.protocolList.clear();
            const QByteArray bitB = BuildOne(kTypeBitB, address, count, 0x33).frame;
            PLC_driver.protocolList.clear();
            const QByteArray wordB = BuildOne(kTypeWordB, address, count, 0x33).frame;
            PLC_driver.protocolList.clear();
            EXPECT_EQ(ToHex(bitA), ToHex(wordA));
            EXPECT_EQ(ToHex(bitB), ToHex(wordB));
            EXPECT_EQ(bitA[26], 'B');
            EXPECT_EQ(bitB[26], 'N');
        }
    }
}

TEST_F(ReadFrames, RealBuilderAlwaysWritesLetterF) {
    for (int type : {kTypeBitA, kTypeBitB, kTypeWordA, kTypeWordB, kTypeReal, 9}) {
        PLC_driver.protocolList.clear();
        RW_VAR v = Record(type, WordAddress(8, 4), 2);
        ReadAnalog_F(&v);
        ASSERT_EQ(PLC_driver.protocolList.size(), 1);
        EXPECT_EQ(PLC_driver.protocolList.first().frame[26], 'F') << "type " << type;
    }
}

class UnsupportedType : public ReadFrames, public ::testing::WithParamInterface<int> {};

TEST_P(UnsupportedType, QueuesNothingAndLeavesReplyCountersAlone) {
    info.replyDone = 7;
    info.replyTotal = 9;
    RW_VAR v = Record(GetParam(), WordAddress(7, 0), 10);
    ReadRegister(&v);
    EXPECT_TRUE(PLC_driver.protocolList.isEmpty());
    EXPECT_EQ(info.replyDone, 7);
    EXPECT_EQ(info.replyTotal, 9);
}

TEST_P(UnsupportedType, LeavesExistingQueueAsItWas) {
    Protocol existing;
    existing.frame = Hex("AA BB");
    existing.frameLen = 2;
    PLC_driver.protocolList.append(existing);
    RW_VAR v = Record(GetParam(), WordAddress(7, 0), 10);
    ReadRegister(&v);
    ASSERT_EQ(PLC_driver.protocolList.size(), 1);
    EXPECT_EQ(ToHex(PLC_driver.protocolList.first().frame), "AA BB");
}

INSTANTIATE_TEST_SUITE_P(Types, UnsupportedType,
                         ::testing::Values(5, -1, 6, 100, INT_MIN, INT_MAX));

// ---------------------------------------------------------------- queuing

TEST_F(ReadFrames, QueuingAppendsAndRearmsReplyCounters) {
    Protocol existing;
    existing.frame = Hex("AA BB");
    existing.frameLen = 2;
    existing.replyLen = 27;
    PLC_driver.protocolList.append(existing);
    info.replyDone = 7;
    info.replyTotal = 9;

    PLC_driver.tns = 0x21;
    RW_VAR v = Record(kTypeWordB, WordAddress(7, 0), 10);
    ReadRegister(&v);

    ASSERT_EQ(PLC_driver.protocolList.size(), 2);
    EXPECT_EQ(ToHex(PLC_driver.protocolList[0].frame), "AA BB");
    EXPECT_EQ(PLC_driver.protocolList[0].replyLen, 27);
    EXPECT_EQ(PLC_driver.protocolList[1].frameLen, 45);
    EXPECT_EQ(info.replyDone, 0);
    EXPECT_EQ(info.replyTotal, 1);
}

TEST_F(ReadFrames, RealReadAlsoRearmsReplyCounters) {
    info.replyDone = -3;
    info.replyTotal = 0;
    RW_VAR v = Record(kTypeReal, WordAddress(8, 4), 2);
    ReadRegister(&v);
    EXPECT_EQ(PLC_driver.protocolList.size(), 1);
    EXPECT_EQ(info.replyDone, 0);
    EXPECT_EQ(info.replyTotal, 1);
}

TEST_F(ReadFrames, SuccessiveBuildsQueueInOrder) {
    RW_VAR a = Record(kTypeWordB, WordAddress(7, 0), 1);
    RW_VAR b = Record(kTypeWordA, WordAddress(3, 0), 2);
    RW_VAR c = Record(kTypeReal, WordAddress(8, 0), 3);
    ReadRegister(&a);
    ReadRegister(&b);
    ReadRegister(&c);
    ASSERT_EQ(PLC_driver.protocolList.size(), 3);
    EXPECT_EQ(PLC_driver.protocolList[0].frame[26], 'N');
    EXPECT_EQ(PLC_driver.protocolList[1].frame[26], 'B');
    EXPECT_EQ(PLC_driver.protocolList[2].frame[26], 'F');
}

TEST_F(ReadFrames, ProtocolHoldsAFullCopyOfTheRecord) {
    RW_VAR v = Record(kTypeWordB, WordAddress(7, 3), 10);
    ReadRegister(&v);
    ASSERT_EQ(PLC_driver.protocolList.size(), 1);
    const RW_VAR& c = PLC_driver.protocolList.first().var;
    ExpectSameRecord(Record(kTypeWordB, WordAddress(7, 3), 10), c);

    // A copy, not a reference: changing the caller's record changes nothing queued.
    v.addrText = QStringLiteral("changed");
    v.data[0] = 0;
    v.count = 99;
    EXPECT_EQ(c.addrText, QStringLiteral("7:0"));
    EXPECT_EQ(ToHex(c.data), "DE AD BE EF");
    EXPECT_EQ(c.count, 10);
}

TEST_F(ReadFrames, RealProtocolKeepsTheOriginalCount) {
    RW_VAR v = Record(kTypeReal, WordAddress(8, 4), 17);
    ReadRegister(&v);
    ASSERT_EQ(PLC_driver.protocolList.size(), 1);
    EXPECT_EQ(PLC_driver.protocolList.first().var.count, 17);
    EXPECT_EQ(PLC_driver.protocolList.first().var.aux2, 0);
}

TEST_F(ReadFrames, BuilderLeavesTransactionCounterAndRecordAlone) {
    PLC_driver.tns = 0x10;
    RW_VAR v = Record(kTypeWordB, WordAddress(7, 16), 16);
    ReadRegister(&v);
    EXPECT_EQ(PLC_driver.tns, 0x10);
    EXPECT_EQ(v.count, 16);
    EXPECT_EQ(v.address, WordAddress(7, 16));
    EXPECT_EQ(ToHex(v.data), "DE AD BE EF");
}

TEST_F(ReadFrames, ShortCountDataBytesWrapLikeThe32BitPanel) {
    ABCL_DEFAULT_BUILD_ONLY("the hardened build asks for no read of these counts");
    // dataBytes is count x 2 in 32-bit arithmetic.
    EXPECT_EQ(BuildOne(kTypeWordB, WordAddress(7, 0), 0x40000000, 0x21).dataBytes, INT_MIN);
    PLC_driver.protocolList.clear();
    EXPECT_EQ(BuildOne(kTypeWordB, WordAddress(7, 0), INT_MAX, 0x21).dataBytes, -2);
    PLC_driver.protocolList.clear();
    EXPECT_EQ(BuildOne(kTypeWordB, WordAddress(7, 0), 0, 0x21).dataBytes, 0);
}

TEST_F(ReadFrames, ElementCountBytesAreBits8To15And0To7) {
    ABCL_DEFAULT_BUILD_ONLY(
        "the hardened build asks for no read of more elements than an area holds");
    // 0x12345 names 0x23 0x45: only the low 16 bits go out.
    const Protocol p = BuildOne(kTypeWordB, WordAddress(7, 0), 0x12345, 0x21);
    ASSERT_EQ(p.frame.size(), 45);
    EXPECT_EQ(static_cast<uint8_t>(p.frame[33]), 0x23);
    EXPECT_EQ(static_cast<uint8_t>(p.frame[34]), 0x45);
    EXPECT_EQ(p.dataBytes, 0x12345 * 2);
}

TEST_F(ReadFrames, CountBelowOneOrReplyBeyondAFrame_NoFrame_Hardened) {
    ABCL_HARDENED_BUILD_ONLY("the default build encodes any count");
    info.replyDone = 7;
    info.replyTotal = 9;
    for (const int type : {kTypeBitA, kTypeBitB, kTypeWordA, kTypeWordB, kTypeReal}) {
        for (const int count : {0, -1, -7, INT_MIN, kAreaElements + 1, 0x12345, INT_MAX}) {
            RW_VAR v = Record(type, WordAddress(7, 0), count);
            ReadRegister(&v);
            EXPECT_TRUE(PLC_driver.protocolList.isEmpty()) << "type " << type << " count " << count;
        }
    }
    EXPECT_EQ(info.replyDone, 7);
    EXPECT_EQ(info.replyTotal, 9);

    // The reply's body (22 bytes before the data) must stay within the
    // block check's 16-bit byte count: 32,756 words or 16,378 REALs.
    for (const auto& [type, largest] :
         {std::pair<int, int>{kTypeWordB, 32756}, std::pair<int, int>{kTypeBitA, 32756},
          std::pair<int, int>{kTypeReal, 16379}}) {
        RW_VAR tooLong = Record(type, WordAddress(7, 0), largest + 1);
        ReadRegister(&tooLong);
        EXPECT_TRUE(PLC_driver.protocolList.isEmpty()) << "type " << type;
        RW_VAR fits = Record(type, WordAddress(7, 0), largest);
        ReadRegister(&fits);
        ASSERT_EQ(PLC_driver.protocolList.size(), 1) << "type " << type;
        EXPECT_EQ(22 + PLC_driver.protocolList.first().dataBytes, 65534) << "type " << type;
        PLC_driver.protocolList.clear();
    }

    // Counts from one on are asked for.
    EXPECT_EQ(BuildOne(kTypeWordB, WordAddress(7, 0), 1, 0x21).dataBytes, 2);
    PLC_driver.protocolList.clear();
    EXPECT_EQ(BuildOne(kTypeReal, WordAddress(8, 4), 1, 0x21).dataBytes, 4);
    PLC_driver.protocolList.clear();
    EXPECT_EQ(BuildOne(kTypeWordA, WordAddress(3, 0), 300, 0x21).dataBytes, 600);
}

// ---------------------------------------------------------- block check walk

// A request frame and the block check over its de-stuffed body.
struct BlockCheckRow {
    const char* name;
    const char* frame;
    int check;
};

class BlockCheckWalk : public ::testing::TestWithParam<BlockCheckRow> {};

TEST_P(BlockCheckWalk, SumsTheDeStuffedBody) {
    EXPECT_EQ(RequestBlockCheck(Hex(GetParam().frame)), GetParam().check);
}

INSTANTIATE_TEST_SUITE_P(
    RequestBlockCheck, BlockCheckWalk,
    ::testing::Values(
        BlockCheckRow{"ExamplesWithoutDoubling",
                      "10 06 10 02 00 00 0B 00 21 00 00 00 0A 02 20 02 24 01 01 00 04 00 52 05 "
                      "91 04 4E 30 30 37 29 00 00 00 0A 00 00 00 00 00 00 00 10 03",
                      0x78},
        BlockCheckRow{"DoubledElementCountsOnce",
                      "10 06 10 02 00 00 0B 00 05 00 00 00 0A 02 20 02 24 01 01 00 04 00 52 05 "
                      "91 04 42 30 30 33 29 00 10 10 00 02 00 00 00 00 00 00 00 10 03",
                      0x9C},
        // 10 10 10 03 at the end de-stuffs to 10 10 03: one data DLE, then DLE
        // ETX. Body 00 00 0B 00 21 00 05 10 sums to 0x41.
        BlockCheckRow{"DoubledDleRightBeforeTrailerCountsOnce",
                      "10 06 10 02 00 00 0B 00 21 00 05 10 10 10 03", 0x100 - 0x41},
        // Were 10 06 10 02 or the trailer misread, the summed window would move.
        BlockCheckRow{"LeadInIsNotTakenForADoubledDle", "10 06 10 02 01 02 03 10 03", 0x100 - 0x06},
        BlockCheckRow{"FourDlesCountAsTwo", "10 06 10 02 01 10 10 10 10 02 10 03", 0x100 - 0x23},
        // A TNS or name byte of 0x10 is sent once and summed once.
        BlockCheckRow{"LoneDleCountsOnce", "10 06 10 02 00 00 0B 00 10 00 29 10 03", 0x100 - 0x44},
        BlockCheckRow{"SumOfZeroGivesZero", "10 06 10 02 01 FF 10 03", 0x00}),
    RowName());

}  // namespace
