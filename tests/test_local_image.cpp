// The host's view of the local image: GetRegisterData copies values out,
// SetRegisterData queues controller writes and mirrors them, and the byte
// helpers between the areas and the host's arrays. Indexes past an area's end
// are skipped, never used.
#include "test_support.h"

#include "Func_GetOrSetData.h"
#include "protocol_constants.h"

#include <climits>
#include <cstdint>
#include <string>
#include <tuple>
#include <vector>

namespace {

using Names = std::vector<std::string>;

// (dataType, address, count, data) of every queued write.
using Queued = std::tuple<int, int, int, std::string>;

std::vector<Queued> Writes() {
    std::vector<Queued> out;
    for (const RW_VAR& v : PLC_driver.writeList)
        out.emplace_back(v.dataType, v.address, v.count, ToHex(v.data));
    return out;
}

// Bytes 00 01 02 ... (n - 1).
QByteArray Ramp(int n) {
    QByteArray bytes;
    for (int i = 0; i < n; ++i) bytes.append(static_cast<char>(i));
    return bytes;
}

class ImageTest : public DriverTest {
protected:
    int Get(int dataType, const char* text, QByteArray* out, int count) {
        return GetRegisterData(0, dataType, QString::fromLatin1(text), 0, out, count);
    }
    int Set(int dataType, const char* text, QByteArray in, int count, int station = 1,
            int varId = 1, int varSubId = 2) {
        return SetRegisterData(QStringLiteral("second"), dataType, QString::fromLatin1(text),
                               station, &in, count, varId, varSubId);
    }
};

// ---- GetRegisterData ----------------------------------------------------------

using GetData = ImageTest;

TEST_F(GetData, Bits_ZeroImage_FillsZeroBytes) {
    QByteArray out;
    EXPECT_EQ(Get(0, "7:10/3", &out, 3), 1);
    EXPECT_EQ(ToHex(out), "00 00 00");
}

TEST_F(GetData, Bits_SetBitReadsAsOne) {
    PLC_driver.areaA[1802] = 0x0008;
    QByteArray out;
    EXPECT_EQ(Get(0, "7:10/3", &out, 3), 1);
    EXPECT_EQ(ToHex(out), "01 00 00");
}

TEST_F(GetData, BitsOfType1_ComeFromTheSecondArea) {
    PLC_driver.areaA[1802] = 0xFFFF;
    PLC_driver.areaB[1802] = 0x0010;
    QByteArray out;
    EXPECT_EQ(Get(1, "7:10/3", &out, 3), 1);
    EXPECT_EQ(ToHex(out), "00 01 00");
}

TEST_F(GetData, Bits_CrossIntoTheNextWord) {
    PLC_driver.areaA[1802] = 0x8000;
    PLC_driver.areaA[1803] = 0x0001;
    QByteArray out;
    EXPECT_EQ(Get(0, "7:10/14", &out, 4), 1);
    EXPECT_EQ(ToHex(out), "00 01 01 00");
}

TEST_F(GetData, Words_LeastSignificantByteFirst) {
    PLC_driver.areaA[1802] = 0x1234;
    PLC_driver.areaA[1803] = 0x5678;
    PLC_driver.areaB[1802] = 0xAAAA;
    QByteArray out;
    EXPECT_EQ(Get(2, "7:10", &out, 2), 1);
    EXPECT_EQ(ToHex(out), "34 12 78 56");
}

TEST_F(GetData, WordsOfType3_ComeFromTheSecondArea) {
    PLC_driver.areaA[1802] = 0xAAAA;
    PLC_driver.areaB[1802] = 0xBEEF;
    QByteArray out;
    EXPECT_EQ(Get(3, "7:10", &out, 1), 1);
    EXPECT_EQ(ToHex(out), "EF BE");
}

TEST_F(GetData, TenByteArray_TwoWordsRewriteFourBytesKeepTheRest) {
    PLC_driver.areaA[1802] = 0x1234;
    PLC_driver.areaA[1803] = 0x5678;
    QByteArray out = Hex("E0 E1 E2 E3 E4 E5 E6 E7 E8 E9");
    EXPECT_EQ(Get(2, "7:10", &out, 2), 1);
    EXPECT_EQ(ToHex(out), "34 12 78 56 E4 E5 E6 E7 E8 E9");
}

TEST_F(GetData, ShortArray_Grows) {
    PLC_driver.areaA[1802] = 0x1234;
    PLC_driver.areaA[1803] = 0x5678;
    QByteArray out = Hex("EE");
    EXPECT_EQ(Get(2, "7:10", &out, 2), 1);
    EXPECT_EQ(ToHex(out), "34 12 78 56");
}

TEST_F(GetData, Real_Count1_ArrayUnchanged) {
    PLC_driver.areaD[1802] = 0x11223344;
    QByteArray out = Hex("AA BB");
    EXPECT_EQ(Get(4, "7:10", &out, 1), 1);
    EXPECT_EQ(ToHex(out), "AA BB");
}

TEST_F(GetData, Real_CountInWordUnits) {
    PLC_driver.areaD[2048] = 0x11223344;
    PLC_driver.areaD[2049] = 0xAABBCCDD;
    PLC_driver.areaD[2050] = 0x55555555;
    QByteArray out;
    EXPECT_EQ(Get(4, "8:0", &out, 4), 1);
    EXPECT_EQ(ToHex(out), "44 33 22 11 DD CC BB AA");
    QByteArray odd;
    EXPECT_EQ(Get(4, "8:0", &odd, 3), 1);
    EXPECT_EQ(ToHex(odd), "44 33 22 11");
}

TEST_F(GetData, MultiStation_ArrayUnchanged) {
    info.multiStation = 1;
    PLC_driver.areaA[1802] = 0x1234;
    QByteArray out = Hex("AA BB CC");
    EXPECT_EQ(Get(2, "7:10", &out, 2), 1);
    EXPECT_EQ(Get(0, "7:10/3", &out, 2), 1);
    EXPECT_EQ(ToHex(out), "AA BB CC");
}

TEST_F(GetData, InvalidAddress_ReturnsZeroArrayUntouched) {
    QByteArray out = Hex("AA BB");
    EXPECT_EQ(Get(2, "710", &out, 2), 0);
    EXPECT_EQ(Get(0, "7:10", &out, 2), 0);
    EXPECT_EQ(Get(5, "-1", &out, 2), 0);
    EXPECT_EQ(ToHex(out), "AA BB");
}

TEST_F(GetData, OtherDataType_ReturnsOneArrayUnchanged) {
    PLC_driver.areaA[12] = 0x1234;
    QByteArray out = Hex("AA BB");
    EXPECT_EQ(Get(5, "12", &out, 2), 1);
    EXPECT_EQ(Get(-1, "12", &out, 2), 1);
    EXPECT_EQ(ToHex(out), "AA BB");
}

TEST_F(GetData, ZeroOrNegativeCount_ArrayUnchanged) {
    PLC_driver.areaA[1802] = 0x1234;
    QByteArray out = Hex("AA");
    EXPECT_EQ(Get(2, "7:10", &out, 0), 1);
    EXPECT_EQ(Get(2, "7:10", &out, -3), 1);
    EXPECT_EQ(Get(0, "7:10/3", &out, -3), 1);
    EXPECT_EQ(Get(4, "7:10", &out, -4), 1);
    EXPECT_EQ(ToHex(out), "AA");
}

TEST_F(GetData, UnusedArguments_Ignored) {
    PLC_driver.areaA[1802] = 0x1234;
    QByteArray out;
    EXPECT_EQ(GetRegisterData(-7, 2, QStringLiteral("7:10"), 99, &out, 1), 1);
    EXPECT_EQ(ToHex(out), "34 12");
}

TEST_F(GetData, ImageUnchangedByReading) {
    PLC_driver.areaA[1802] = 0x1234;
    const ImageSnapshot before;
    QByteArray out;
    Get(0, "7:10/0", &out, 40);
    Get(2, "7:10", &out, 40);
    Get(4, "7:10", &out, 40);
    EXPECT_EQ(before.Changes(), Names{});
}

// ---- SetRegisterData: rejected and image-only writes ------------------------------

using SetData = ImageTest;

TEST_F(SetData, InvalidAddress_ReturnsZeroNothingQueuedOrWritten) {
    setCommError(true);
    const ImageSnapshot before;
    EXPECT_EQ(Set(2, "710", Hex("01 00"), 1), 0);
    EXPECT_EQ(Set(0, "7:10", Hex("01"), 1), 0);
    EXPECT_EQ(Set(0, "0:0/-1", Hex("01"), 1), 0);
    info.writeMode = 1;
    EXPECT_EQ(Set(3, "", Hex("01 00"), 1), 0);
    EXPECT_TRUE(PLC_driver.writeList.isEmpty());
    EXPECT_EQ(before.Changes(), Names{});
}

TEST_F(SetData, WriteMode1_OnlyTheImageChanges) {
    info.writeMode = 1;
    EXPECT_EQ(Set(2, "7:10", Hex("34 12 78 56"), 2), 1);
    EXPECT_TRUE(PLC_driver.writeList.isEmpty());
    EXPECT_EQ(PLC_driver.areaA[1802], 0x1234);
    EXPECT_EQ(PLC_driver.areaA[1803], 0x5678);
}

TEST_F(SetData, WriteMode1_EveryTypeGoesToItsArea) {
    info.writeMode = 1;
    const ImageSnapshot before;
    EXPECT_EQ(Set(0, "7:10/3", Hex("01 00 01"), 3), 1);
    EXPECT_EQ(Set(1, "7:10/0", Hex("01"), 1), 1);
    EXPECT_EQ(Set(3, "1:0", Hex("EF BE"), 1), 1);
    EXPECT_EQ(Set(4, "8:0", Hex("44 33 22 11 DD CC BB AA"), 4), 1);
    EXPECT_TRUE(PLC_driver.writeList.isEmpty());
    EXPECT_EQ(PLC_driver.areaA[1802], 0x0028);  // bits 3 and 5
    EXPECT_EQ(PLC_driver.areaB[1802], 0x0001);
    EXPECT_EQ(PLC_driver.areaB[256], 0xBEEF);
    EXPECT_EQ(PLC_driver.areaD[2048], 0x11223344u);
    EXPECT_EQ(PLC_driver.areaD[2049], 0xAABBCCDDu);
    EXPECT_EQ(before.Changes(), (Names{"A1802", "B256", "B1802", "D2048", "D2049"}));
}

TEST_F(SetData, AnyWriteModeButTwo_OnlyTheImage) {
    for (int mode : {0, 1, 3, -1, 100}) {
        SCOPED_TRACE(mode);
        info.writeMode = mode;
        PLC_driver.areaA[5] = 0;
        EXPECT_EQ(Set(2, "0:5", Hex("07 00"), 1), 1);
        EXPECT_EQ(PLC_driver.areaA[5], 7);
    }
    EXPECT_TRUE(PLC_driver.writeList.isEmpty());
}

TEST_F(SetData, WriteMode1_OtherDataTypeReturnsOneChangesNothing) {
    info.writeMode = 1;
    const ImageSnapshot before;
    EXPECT_EQ(Set(5, "12", Hex("01 02 03 04"), 2), 1);
    EXPECT_EQ(before.Changes(), Names{});
    EXPECT_TRUE(PLC_driver.writeList.isEmpty());
}

TEST_F(SetData, WriteMode1_MultiStationKeepsNoImage) {
    info.writeMode = 1;
    info.multiStation = 1;
    const ImageSnapshot before;
    EXPECT_EQ(Set(2, "7:10", Hex("34 12"), 1), 1);
    EXPECT_EQ(before.Changes(), Names{});
}

TEST_F(SetData, WriteMode1_ShortArrayKeepsMissingElements) {
    info.writeMode = 1;
    PLC_driver.areaA[1803] = 0x5678;
    EXPECT_EQ(Set(2, "7:10", Hex("34 12 99"), 2), 1);
    EXPECT_EQ(PLC_driver.areaA[1802], 0x1234);
    EXPECT_EQ(PLC_driver.areaA[1803], 0x5678);
}

// ---- SetRegisterData: bit writes ----------------------------------------------

TEST_F(SetData, Bits_OneWritePerBitAtConsecutiveAddresses) {
    EXPECT_EQ(Set(1, "7:10/3", Hex("01 00 05"), 3), 3);
    EXPECT_EQ(Writes(),
              (std::vector<Queued>{{1, 28835, 1, "01"}, {1, 28836, 1, "00"}, {1, 28837, 1, "05"}}));
}

TEST_F(SetData, Bits_MirroredWhileTheLinkHasFailed_OnlyOneSets) {
    setCommError(true);
    PLC_driver.areaB[1802] = 0xFFFF;
    const ImageSnapshot before;
    EXPECT_EQ(Set(1, "7:10/3", Hex("01 00 05"), 3), 3);
    EXPECT_EQ(PLC_driver.areaB[1802], 0xFFCF);  // bit 3 set, bits 4 and 5 cleared
    QByteArray out;
    Get(1, "7:10/3", &out, 3);
    EXPECT_EQ(ToHex(out), "01 00 00");
    EXPECT_EQ(before.Changes(), Names{"B1802"});
}

TEST_F(SetData, Bits_NotMirroredWhileTheLinkIsGood) {
    const ImageSnapshot before;
    EXPECT_EQ(Set(0, "7:10/3", Hex("01 01 01"), 3), 3);
    EXPECT_EQ(before.Changes(), Names{});
}

TEST_F(SetData, Bits_ShortArrayWritesZero) {
    EXPECT_EQ(Set(0, "7:10/3", Hex("01"), 3), 3);
    EXPECT_EQ(Writes(),
              (std::vector<Queued>{{0, 28835, 1, "01"}, {0, 28836, 1, "00"}, {0, 28837, 1, "00"}}));
}

TEST_F(SetData, Bits_ZeroOrNegativeCount_ReturnsZero) {
    setCommError(true);
    EXPECT_EQ(Set(0, "7:10/3", Hex("01"), 0), 0);
    EXPECT_EQ(Set(1, "7:10/3", Hex("01"), -1), 0);
    EXPECT_TRUE(PLC_driver.writeList.isEmpty());
    EXPECT_EQ(PLC_driver.areaA[1802], 0);
}

TEST_F(SetData, Bits_ResultIsTheQueueLength) {
    RW_VAR other = RecordBuilder().At(ABCL_WORD_A, 1, 1);
    AddListWriteVar(&other, 0);
    EXPECT_EQ(Set(0, "7:10/3", Hex("01 01"), 2), 3);
    // The same bits again: each replaces its pending write.
    EXPECT_EQ(Set(0, "7:10/3", Hex("00 00"), 2), 3);
    EXPECT_EQ(ToHex(PLC_driver.writeList[1].data), "00");
    EXPECT_EQ(ToHex(PLC_driver.writeList[2].data), "00");
}

TEST_F(SetData, WriteRecord_FieldsFromArgumentsAndSettings) {
    info.remoteMode = 5;
    info.localLinkNo = 6;
    info.defaultStation = 7;
    QByteArray in = Hex("34 12");
    EXPECT_EQ(SetRegisterData(QStringLiteral("tag"), 2, QStringLiteral("7:10"), 99, &in, 1, 11, 12),
              1);
    ASSERT_EQ(PLC_driver.writeList.size(), 1);
    ExpectSameRecord(RecordBuilder()
                         .Ids(11, 12)
                         .Host(1, 5)
                         .Link(6)
                         .Texts(QStringLiteral("7:10"), QStringLiteral("tag"))
                         .At(2, 1802, 1, 7)
                         .Data(Hex("34 12")),
                     PLC_driver.writeList[0]);
}

TEST_F(SetData, MultiStation_StationFromTheArgumentAndNoMirror) {
    info.multiStation = 1;
    info.defaultStation = 7;
    setCommError(true);
    const ImageSnapshot before;
    EXPECT_EQ(Set(0, "7:10/3", Hex("01"), 1, 42), 1);
    EXPECT_EQ(Set(2, "7:10", Hex("34 12"), 1, 43), 2);
    EXPECT_EQ(PLC_driver.writeList[0].station, 42);
    EXPECT_EQ(PLC_driver.writeList[1].station, 43);
    EXPECT_EQ(before.Changes(), Names{});
}

// ---- SetRegisterData: word and 32-bit writes -------------------------------------

TEST_F(SetData, Words_SplitByMaxCountWithByteSlices) {
    info.maxCount = 4;
    EXPECT_EQ(Set(2, "7:10", Ramp(20), 10), 3);
    EXPECT_EQ(Writes(), (std::vector<Queued>{
                            {2, 1802, 4, "00 01 02 03 04 05 06 07"},
                            {2, 1806, 4, "08 09 0A 0B 0C 0D 0E 0F"},
                            {2, 1810, 2, "10 11 12 13"},
                        }));
}

TEST_F(SetData, Words_MissingBytesAreZero) {
    info.maxCount = 4;
    EXPECT_EQ(Set(3, "7:10", Ramp(11), 10), 3);
    EXPECT_EQ(Writes(), (std::vector<Queued>{
                            {3, 1802, 4, "00 01 02 03 04 05 06 07"},
                            {3, 1806, 4, "08 09 0A 00 00 00 00 00"},
                            {3, 1810, 2, "00 00 00 00"},
                        }));
}

TEST_F(SetData, Words_MirroredWhileTheLinkHasFailed) {
    info.maxCount = 4;
    setCommError(true);
    const ImageSnapshot before;
    EXPECT_EQ(Set(2, "7:10", Ramp(20), 10), 3);
    for (int i = 0; i < 10; ++i)
        EXPECT_EQ(PLC_driver.areaA[1802 + i], (2 * i) + 256 * (2 * i + 1)) << "word " << i;
    EXPECT_EQ(before.Changes().size(), 10u);
}

TEST_F(SetData, Words_NotMirroredWhileTheLinkIsGood) {
    const ImageSnapshot before;
    EXPECT_EQ(Set(2, "7:10", Ramp(20), 10), 1);
    EXPECT_EQ(before.Changes(), Names{});
}

TEST_F(SetData, Real_ByteOffsetTwoPerCountUnitAddressStepMaxCount) {
    info.maxCount = 4;
    EXPECT_EQ(Set(4, "8:0", Ramp(20), 10), 3);
    EXPECT_EQ(Writes(), (std::vector<Queued>{
                            {4, 2048, 4, "00 01 02 03 04 05 06 07"},
                            {4, 2052, 4, "08 09 0A 0B 0C 0D 0E 0F"},
                            {4, 2056, 2, "10 11 12 13"},
                        }));
}

TEST_F(SetData, Real_MirroredPiecesLeaveGaps) {
    info.maxCount = 4;
    setCommError(true);
    const ImageSnapshot before;
    EXPECT_EQ(Set(4, "8:0", Ramp(20), 10), 3);
    EXPECT_EQ(PLC_driver.areaD[2048], 0x03020100u);
    EXPECT_EQ(PLC_driver.areaD[2049], 0x07060504u);
    EXPECT_EQ(PLC_driver.areaD[2052], 0x0B0A0908u);
    EXPECT_EQ(PLC_driver.areaD[2053], 0x0F0E0D0Cu);
    EXPECT_EQ(PLC_driver.areaD[2056], 0x13121110u);
    EXPECT_EQ(before.Changes(), (Names{"D2048", "D2049", "D2052", "D2053", "D2056"}));
}

TEST_F(SetData, ZeroMaxCount_OneWriteOfTheFullCount) {
    info.maxCount = 0;
    EXPECT_EQ(Set(2, "7:10", Ramp(20), 10), 1);
    EXPECT_EQ(Writes(), (std::vector<Queued>{{2, 1802, 10, ToHex(Ramp(20))}}));
}

TEST_F(SetData, ExactMultipleOfMaxCount_LastPieceFull) {
    info.maxCount = 5;
    EXPECT_EQ(Set(2, "0:0", Ramp(20), 10), 2);
    EXPECT_EQ(Writes(), (std::vector<Queued>{{2, 0, 5, "00 01 02 03 04 05 06 07 08 09"},
                                             {2, 5, 5, "0A 0B 0C 0D 0E 0F 10 11 12 13"}}));
}

TEST_F(SetData, Words_ZeroCount_ReturnsZero) {
    EXPECT_EQ(Set(2, "7:10", Ramp(4), 0), 0);
    EXPECT_TRUE(PLC_driver.writeList.isEmpty());
}

TEST_F(SetData, WriteMode2_OtherDataType_ReturnsZero) {
    setCommError(true);
    const ImageSnapshot before;
    EXPECT_EQ(Set(5, "12", Ramp(4), 2), 0);
    EXPECT_EQ(Set(-1, "12", Ramp(4), 2), 0);
    EXPECT_TRUE(PLC_driver.writeList.isEmpty());
    EXPECT_EQ(before.Changes(), Names{});
}

TEST_F(SetData, RepeatedWrite_ReplacesThePendingOne) {
    EXPECT_EQ(Set(2, "7:10", Hex("01 00"), 1), 1);
    EXPECT_EQ(Set(2, "7:10", Hex("02 00"), 1), 2);
    EXPECT_EQ(Set(2, "7:10", Hex("03 00"), 1), 2);
    EXPECT_EQ(ToHex(PLC_driver.writeList[1].data), "03 00");
}

TEST_F(SetData, HostArray_NotChanged) {
    QByteArray in = Ramp(6);
    info.maxCount = 2;
    setCommError(true);
    EXPECT_EQ(SetRegisterData(QString(), 2, QStringLiteral("0:0"), 1, &in, 3, 1, 1), 2);
    EXPECT_EQ(ToHex(in), "00 01 02 03 04 05");
}

// ---- SetRegisterData: counts no area can hold ------------------------------------

TEST_F(SetData, CountsAboveTheWriteLimit_Refused) {
    setCommError(true);
    const ImageSnapshot before;
    const QByteArray in(64, '\x01');
    EXPECT_EQ(Set(0, "0:0/0", in, kMaxWriteCount + 1), 0);
    EXPECT_EQ(Set(1, "0:0/0", in, INT_MAX), 0);
    EXPECT_EQ(Set(2, "0:0", in, kMaxWriteCount + 1), 0);
    EXPECT_EQ(Set(3, "0:0", in, INT_MAX), 0);
    EXPECT_EQ(Set(4, "0:0", in, INT_MAX), 0);
    EXPECT_TRUE(PLC_driver.writeList.isEmpty());
    EXPECT_EQ(before.Changes(), Names{});
}

TEST_F(SetData, WriteMode1_CountsAboveTheWriteLimit_Refused) {
    info.writeMode = 1;
    const ImageSnapshot before;
    const QByteArray in(64, '\x01');
    EXPECT_EQ(Set(0, "0:0/0", in, INT_MAX), 0);
    EXPECT_EQ(Set(2, "0:0", in, kMaxWriteCount + 1), 0);
    EXPECT_EQ(Set(4, "0:0", in, INT_MAX), 0);
    EXPECT_EQ(before.Changes(), Names{});
}

// ---- range safety at the ends of the areas ----------------------------------------

class AreaEdges : public ImageTest {
protected:
    void SetUp() override {
        ImageTest::SetUp();
        // Recognisable values in the elements next to each area's end.
        PLC_driver.areaA[65534] = 0x1111;
        PLC_driver.areaB[0] = 0x1234;
        PLC_driver.areaB[1] = 0x5678;
        PLC_driver.areaB[65535] = 0x0000;
        PLC_driver.areaD[0] = 0xDEADBEEF;
        PLC_driver.areaD[1] = 0xCAFEF00D;
    }
};

TEST_F(AreaEdges, GetWordAtTopWithCount3_OneElementCopied) {
    PLC_driver.areaA[65535] = 0xA1A2;
    QByteArray out;
    EXPECT_EQ(Get(2, "255:255", &out, 3), 1);
    EXPECT_EQ(ToHex(out), "A2 A1");
}

TEST_F(AreaEdges, GetSecondAreaWordAtTop_OneElementCopied) {
    PLC_driver.areaB[65535] = 0xB1B2;
    QByteArray out = Hex("EE");
    EXPECT_EQ(Get(3, "255:255", &out, 3), 1);
    EXPECT_EQ(ToHex(out), "B2 B1");
}

TEST_F(AreaEdges, GetRealAtTop_OneValueCopied) {
    PLC_driver.areaD[65535] = 0x01020304;
    QByteArray out;
    EXPECT_EQ(Get(4, "255:255", &out, 6), 1);
    EXPECT_EQ(ToHex(out), "04 03 02 01");
}

TEST_F(AreaEdges, GetBitsNearTop_TwoBitsCopied) {
    PLC_driver.areaA[65535] = 0x8000;
    QByteArray out;
    EXPECT_EQ(Get(0, "255:255/14", &out, 4), 1);  // bit index 1,048,574
    EXPECT_EQ(ToHex(out), "00 01");
}

TEST_F(AreaEdges, GetPastTheEnd_NothingCopied) {
    QByteArray out;
    EXPECT_EQ(Get(4, "300:0", &out, 4), 1);  // index 76,800
    EXPECT_EQ(Get(2, "300:0", &out, 4), 1);
    EXPECT_EQ(Get(0, "4096:0/0", &out, 4), 1);  // bit index 16,777,216
    EXPECT_TRUE(out.isEmpty());
}

TEST_F(AreaEdges, SetWordAtTopWithCount3_GuardUntouched) {
    info.writeMode = 1;
    const ImageSnapshot before;
    EXPECT_EQ(Set(2, "255:255", Hex("11 22 33 44 55 66"), 3), 1);
    EXPECT_EQ(PLC_driver.areaA[65535], 0x2211);
    EXPECT_EQ(before.Changes(), Names{"A65535"});
}

TEST_F(AreaEdges, SetSecondAreaWordAtTop_GuardUntouched) {
    info.writeMode = 1;
    const ImageSnapshot before;
    EXPECT_EQ(Set(3, "255:255", Hex("11 22 33 44 55 66"), 3), 1);
    EXPECT_EQ(PLC_driver.areaB[65535], 0x2211);
    EXPECT_EQ(before.Changes(), Names{"B65535"});
}

TEST_F(AreaEdges, MirroredWordWriteAtTop_GuardUntouched) {
    setCommError(true);
    const ImageSnapshot before;
    EXPECT_EQ(Set(2, "255:255", Hex("11 22 33 44 55 66"), 3), 1);
    EXPECT_EQ(Writes(), (std::vector<Queued>{{2, 65535, 3, "11 22 33 44 55 66"}}));
    EXPECT_EQ(before.Changes(), Names{"A65535"});
}

TEST_F(AreaEdges, SetRealAtTop_OnlyTheLastValue) {
    info.writeMode = 1;
    const ImageSnapshot before;
    EXPECT_EQ(Set(4, "255:255", Ramp(12), 6), 1);
    EXPECT_EQ(PLC_driver.areaD[65535], 0x03020100u);
    EXPECT_EQ(before.Changes(), Names{"D65535"});
}

TEST_F(AreaEdges, SetBitsNearTop_TwoBitsWritten) {
    info.writeMode = 1;
    const ImageSnapshot before;
    EXPECT_EQ(Set(0, "255:255/14", Hex("01 01 01 01"), 4), 1);
    EXPECT_EQ(PLC_driver.areaA[65535], 0xC000);
    EXPECT_EQ(before.Changes(), Names{"A65535"});
}

TEST_F(AreaEdges, SecondAreaBitsNearTop_TwoBitsWritten) {
    info.writeMode = 1;
    const ImageSnapshot before;
    EXPECT_EQ(Set(1, "255:255/14", Hex("01 01 01 01"), 4), 1);
    EXPECT_EQ(PLC_driver.areaB[65535], 0xC000);
    EXPECT_EQ(before.Changes(), Names{"B65535"});
}

TEST_F(AreaEdges, MirroredBitWritesNearTop_TwoBitsWritten) {
    setCommError(true);
    const ImageSnapshot before;
    EXPECT_EQ(Set(0, "255:255/14", Hex("01 01 01 01"), 4), 4);
    EXPECT_EQ(Writes(), (std::vector<Queued>{{0, 1048574, 1, "01"},
                                             {0, 1048575, 1, "01"},
                                             {0, 1048576, 1, "01"},
                                             {0, 1048577, 1, "01"}}));
    EXPECT_EQ(PLC_driver.areaA[65535], 0xC000);
    EXPECT_EQ(before.Changes(), Names{"A65535"});
}

TEST_F(AreaEdges, SetPastTheEnd_NothingChanges) {
    info.writeMode = 1;
    const ImageSnapshot before;
    EXPECT_EQ(Set(4, "300:0", Ramp(16), 8), 1);
    EXPECT_EQ(Set(3, "300:0", Ramp(16), 8), 1);
    EXPECT_EQ(Set(0, "4096:0/0", Hex("01 01"), 2), 1);
    EXPECT_EQ(before.Changes(), Names{});
}

TEST_F(AreaEdges, MirroredRealWritePastTheEnd_NothingChanges) {
    setCommError(true);
    const ImageSnapshot before;
    EXPECT_EQ(Set(4, "300:0", Ramp(16), 8), 1);
    EXPECT_EQ(before.Changes(), Names{});
}

TEST_F(AreaEdges, GetHugeCounts_CopyTheAreaOnly) {
    PLC_driver.areaA[0] = 0x0201;
    PLC_driver.areaA[65535] = 0x0403;
    QByteArray words;
    EXPECT_EQ(Get(2, "0:0", &words, INT_MAX), 1);
    ASSERT_EQ(words.size(), 2 * kAreaElements);
    EXPECT_EQ(ToHex(words.left(2)), "01 02");
    EXPECT_EQ(ToHex(words.right(2)), "03 04");

    QByteArray bits;
    EXPECT_EQ(Get(0, "0:0/0", &bits, INT_MAX), 1);
    ASSERT_EQ(bits.size(), 16 * kAreaElements);
    EXPECT_EQ(ToHex(bits.left(2)), "01 00");
    EXPECT_EQ(ToHex(bits.right(2)), "00 00");
    EXPECT_EQ(ToHex(bits.mid(16 * 65535, 3)), "01 01 00");

    QByteArray reals;
    EXPECT_EQ(Get(4, "0:0", &reals, INT_MAX), 1);
    ASSERT_EQ(reals.size(), 4 * kAreaElements);
    EXPECT_EQ(ToHex(reals.left(4)), "EF BE AD DE");

    QByteArray top;
    EXPECT_EQ(Get(3, "255:255", &top, INT_MAX), 1);
    EXPECT_EQ(ToHex(top), "00 00");
}

TEST_F(AreaEdges, SetHelpersHugeCounts_StopAtTheArea) {
    const ImageSnapshot before;
    SetWordToUS(65534, PLC_driver.areaA, Hex("01 02 03 04 05 06"), INT_MAX);
    SetBitToUS(16 * 65535 + 14, PLC_driver.areaB, Hex("01 01 00 00"), INT_MAX);
    SetWordToUI(65535, PLC_driver.areaD, Ramp(16), INT_MAX);
    EXPECT_EQ(PLC_driver.areaA[65534], 0x0201);
    EXPECT_EQ(PLC_driver.areaA[65535], 0x0403);
    EXPECT_EQ(PLC_driver.areaB[65535], 0xC000);
    EXPECT_EQ(PLC_driver.areaD[65535], 0x03020100u);
    EXPECT_EQ(before.Changes(), (Names{"A65534", "A65535", "B65535", "D65535"}));
}

TEST_F(AreaEdges, SetHelpersNegativeIndex_SkipThoseElements) {
    const ImageSnapshot before;
    SetWordToUS(-1, PLC_driver.areaB, Hex("11 22 33 44"), 2);
    SetBitToUS(-2, PLC_driver.areaB, Hex("01 01 00"), 3);  // only bit 0 of word 0
    SetWordToUI(-1, PLC_driver.areaD, Ramp(8), 4);
    EXPECT_EQ(PLC_driver.areaB[0], 0x4432);
    EXPECT_EQ(PLC_driver.areaD[0], 0x07060504u);
    EXPECT_EQ(before.Changes(), (Names{"B0", "D0"}));
}

TEST_F(AreaEdges, GetHelpersNegativeIndex_SkippedBytesKept) {
    PLC_driver.areaA[0] = 0x0201;
    QByteArray words = Hex("EE EE EE EE");
    GetWordFromUS(&words, PLC_driver.areaA, -1, 2);
    EXPECT_EQ(ToHex(words), "EE EE 01 02");
    QByteArray bits = Hex("EE EE EE");
    GetBitFromUS(&bits, PLC_driver.areaA, -2, 3);
    EXPECT_EQ(ToHex(bits), "EE EE 01");
    QByteArray reals = Hex("EE EE EE EE EE EE EE EE");
    GetWordFromUI(&reals, PLC_driver.areaD, -1, 4);
    EXPECT_EQ(ToHex(reals), "EE EE EE EE EF BE AD DE");
}

TEST_F(AreaEdges, WriteDataToLocalHugeCount_StaysInTheArea) {
    const ImageSnapshot before;
    RW_VAR w;
    w.dataType = ABCL_WORD_A;
    w.address = 65535;
    w.count = INT_MAX;
    w.data = Hex("01 02 03 04");
    WriteDataToLocal(&w);
    w.dataType = ABCL_REAL;
    w.data = Ramp(8);
    WriteDataToLocal(&w);
    w.dataType = ABCL_BIT_B;
    w.address = 16 * 65535 + 15;
    w.data = Hex("01 00");  // the second bit would clear bit 0 of the next area
    WriteDataToLocal(&w);
    EXPECT_EQ(PLC_driver.areaA[65535], 0x0201);
    EXPECT_EQ(PLC_driver.areaD[65535], 0x03020100u);
    EXPECT_EQ(PLC_driver.areaB[65535], 0x8000);
    EXPECT_EQ(before.Changes(), (Names{"A65535", "B65535", "D65535"}));
}

TEST_F(AreaEdges, WriteDataToLocalIndexesPastTheEnd_NothingChanges) {
    const ImageSnapshot before;
    for (int type = 0; type <= 4; ++type) {
        RW_VAR w;
        w.dataType = type;
        w.address = (type <= 1) ? 16 * kAreaElements : kAreaElements;
        w.count = 4;
        w.data = Hex("01 01 01 01 01 01 01 01");
        WriteDataToLocal(&w);
        w.address = INT_MAX;
        WriteDataToLocal(&w);
        w.address = INT_MIN;
        WriteDataToLocal(&w);
    }
    EXPECT_EQ(before.Changes(), Names{});
}

// ---- WriteDataToLocal ---------------------------------------------------------

using LocalWrite = ImageTest;

TEST_F(LocalWrite, EachTypeToItsArea) {
    const ImageSnapshot before;
    RW_VAR w;
    w.count = 2;
    w.dataType = ABCL_BIT_A;
    w.address = 16 * 3 + 2;
    w.data = Hex("01 01");
    WriteDataToLocal(&w);
    w.dataType = ABCL_BIT_B;
    WriteDataToLocal(&w);
    w.dataType = ABCL_WORD_A;
    w.address = 10;
    w.data = Hex("01 02 03 04");
    WriteDataToLocal(&w);
    w.dataType = ABCL_WORD_B;
    WriteDataToLocal(&w);
    w.dataType = ABCL_REAL;
    w.data = Hex("01 02 03 04");
    WriteDataToLocal(&w);
    EXPECT_EQ(PLC_driver.areaA[3], 0x000C);
    EXPECT_EQ(PLC_driver.areaB[3], 0x000C);
    EXPECT_EQ(PLC_driver.areaA[10], 0x0201);
    EXPECT_EQ(PLC_driver.areaA[11], 0x0403);
    EXPECT_EQ(PLC_driver.areaB[10], 0x0201);
    EXPECT_EQ(PLC_driver.areaB[11], 0x0403);
    EXPECT_EQ(PLC_driver.areaD[10], 0x04030201u);
    EXPECT_EQ(before.Changes(), (Names{"A3", "A10", "A11", "B3", "B10", "B11", "D10"}));
}

TEST_F(LocalWrite, MultiStationOrOtherType_NothingChanges) {
    const ImageSnapshot before;
    RW_VAR w;
    w.dataType = 5;
    w.address = 10;
    w.count = 2;
    w.data = Hex("01 02 03 04");
    WriteDataToLocal(&w);
    w.dataType = -1;
    WriteDataToLocal(&w);
    info.multiStation = 1;
    w.dataType = ABCL_WORD_A;
    WriteDataToLocal(&w);
    EXPECT_EQ(before.Changes(), Names{});
}

// ---- the byte helpers -----------------------------------------------------------

class Helpers : public ::testing::Test {
protected:
    std::vector<uint16_t> words = std::vector<uint16_t>(kAreaElements, 0);
    std::vector<uint32_t> reals = std::vector<uint32_t>(kAreaElements, 0);
};

TEST_F(Helpers, GetBitFromUS_LeastSignificantBitFirst) {
    words[1] = 0x8005;
    words[2] = 0x0001;
    QByteArray out;
    GetBitFromUS(&out, words.data(), 16, 18);
    EXPECT_EQ(ToHex(out), "01 00 01 00 00 00 00 00 00 00 00 00 00 00 00 01 01 00");
}

TEST_F(Helpers, GetWordFromUS_LowByteThenHighByte) {
    words[7] = 0xA1B2;
    QByteArray out;
    GetWordFromUS(&out, words.data(), 7, 1);
    EXPECT_EQ(ToHex(out), "B2 A1");
}

TEST_F(Helpers, GetWordFromUI_FewerThanTwoDoesNothing) {
    reals[0] = 0x11223344;
    QByteArray out = Hex("AA");
    GetWordFromUI(&out, reals.data(), 0, 1);
    GetWordFromUI(&out, reals.data(), 0, 0);
    GetWordFromUI(&out, reals.data(), 0, -5);
    EXPECT_EQ(ToHex(out), "AA");
}

TEST_F(Helpers, GetWordFromUI_HalfTheCountInValues) {
    reals[4] = 0x11223344;
    reals[5] = 0x55667788;
    QByteArray out;
    GetWordFromUI(&out, reals.data(), 4, 5);
    EXPECT_EQ(ToHex(out), "44 33 22 11 88 77 66 55");
}

TEST_F(Helpers, Getters_GrowNeverShrink) {
    words[0] = 0x0201;
    reals[0] = 0x04030201;
    QByteArray out = Hex("E0 E1 E2 E3 E4 E5 E6 E7 E8 E9");
    GetWordFromUS(&out, words.data(), 0, 1);
    EXPECT_EQ(ToHex(out), "01 02 E2 E3 E4 E5 E6 E7 E8 E9");
    GetBitFromUS(&out, words.data(), 0, 2);
    EXPECT_EQ(ToHex(out), "01 00 E2 E3 E4 E5 E6 E7 E8 E9");
    GetWordFromUI(&out, reals.data(), 0, 2);
    EXPECT_EQ(ToHex(out), "01 02 03 04 E4 E5 E6 E7 E8 E9");
    QByteArray small = Hex("E0");
    GetWordFromUS(&small, words.data(), 0, 2);
    EXPECT_EQ(ToHex(small), "01 02 00 00");
}

TEST_F(Helpers, SetBitToUS_OnlyByteValueOneSetsABit) {
    words[0] = 0xFFFF;
    SetBitToUS(0, words.data(), Hex("01 00 02 FF 01 80 10"), 7);
    EXPECT_EQ(words[0], 0xFF91);  // bits 0 and 4 kept, 1-3, 5, 6 cleared
}

TEST_F(Helpers, SetBitToUS_StopsAtTheEndOfTheArray) {
    words[0] = 0x00F0;
    SetBitToUS(4, words.data(), Hex("00 00"), 4);
    EXPECT_EQ(words[0], 0x00C0);
}

TEST_F(Helpers, SetWordToUS_ChangesOnlyWholeWords) {
    words[5] = 0x1111;
    words[6] = 0x2222;
    SetWordToUS(5, words.data(), Hex("34 12 56"), 2);
    EXPECT_EQ(words[5], 0x1234);
    EXPECT_EQ(words[6], 0x2222);
    EXPECT_EQ(words[4], 0);
    EXPECT_EQ(words[7], 0);
}

TEST_F(Helpers, SetWordToUS_CountLimitsTheWords) {
    SetWordToUS(0, words.data(), Hex("01 00 02 00 03 00"), 2);
    EXPECT_EQ(words[0], 1);
    EXPECT_EQ(words[1], 2);
    EXPECT_EQ(words[2], 0);
}

TEST_F(Helpers, SetWordToUI_FewerThanTwoDoesNothing) {
    SetWordToUI(0, reals.data(), Hex("01 02 03 04"), 1);
    SetWordToUI(0, reals.data(), Hex("01 02 03 04"), 0);
    EXPECT_EQ(reals[0], 0u);
}

TEST_F(Helpers, SetWordToUI_OnlyWholeValues) {
    reals[1] = 0xEEEEEEEE;
    SetWordToUI(0, reals.data(), Hex("01 02 03 04 05 06 07"), 4);
    EXPECT_EQ(reals[0], 0x04030201u);
    EXPECT_EQ(reals[1], 0xEEEEEEEEu);
    SetWordToUI(2, reals.data(), Hex("01 02 03 04 05 06 07 08 09 0A 0B 0C"), 5);
    EXPECT_EQ(reals[2], 0x04030201u);
    EXPECT_EQ(reals[3], 0x08070605u);
    EXPECT_EQ(reals[4], 0u);
}

TEST_F(Helpers, Setters_ZeroOrNegativeCountDoNothing) {
    SetBitToUS(0, words.data(), Hex("01"), 0);
    SetBitToUS(0, words.data(), Hex("01"), -1);
    SetWordToUS(0, words.data(), Hex("01 00"), -1);
    SetWordToUI(0, reals.data(), Hex("01 00 00 00"), -2);
    EXPECT_EQ(words[0], 0);
    EXPECT_EQ(reals[0], 0u);
}

}  // namespace
