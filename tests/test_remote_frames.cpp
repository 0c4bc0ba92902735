// Remote-mode request frames: a length byte, the variable's descriptor fields
// big-endian, the value bytes of a write and an additive checksum; no DLE
// framing and no transaction byte.
#include "test_support.h"

#include "Func_Remote.h"

#include <climits>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace {

struct Fields {
    int varId;
    int aux2;
    int linkNo;
    int station;
    int dataType;
    int address;
    int count;
    int aux12;
    int aux13;
};

// The descriptor used by the worked examples: N007 element 5 at station 2.
constexpr Fields kN007 = {0x101, 0, 1, 2, 3, 0x705, 10, 0, 0};

// The worked examples' descriptor with another station, type, address or count.
constexpr Fields Descriptor(int station, int dataType, int address, int count) {
    return {0x101, 0, 1, station, dataType, address, count, 0, 0};
}

// Every field wider than its place in the frame. The whole type (0x12345) is
// none of the five, so no data is expected.
constexpr Fields kEveryFieldWide = {0x12345678, 0x1FF,      0x2A5,
                                    0x310,      0x12345,    static_cast<int>(0x89ABCDEFu),
                                    0x10203,    0x01020304, static_cast<int>(0xF0E0D0C0u)};

RW_VAR Record(const Fields& f, const QByteArray& data = QByteArray()) {
    return RecordBuilder()
        .Ids(f.varId, 99)
        .Host(f.aux2, 1, f.aux12, f.aux13)
        .Link(f.linkNo)
        .Texts(QStringLiteral("7:5"), QStringLiteral("panel"))
        .At(f.dataType, f.address, f.count, f.station)
        .Data(data);
}

// Low byte of the plain byte sum of everything before the checksum byte.
uint8_t ChecksumOf(const QByteArray& frame) {
    unsigned sum = 0;
    for (int i = 0; i < frame.size() - 1; ++i) sum += static_cast<uint8_t>(frame[i]);
    return static_cast<uint8_t>(sum & 0xFF);
}

// ---- frames written out byte for byte ----------------------------------------

enum class Kind { Read, Write };

struct RemoteRow {
    const char* name;
    Kind kind;
    Fields fields;
    const char* data;
    int tns;
    const char* frame;
    int replyLen;
    int dataPos;
    int dataBytes;
};

using RemoteFrameRows = RowTest<RemoteRow>;

TEST_P(RemoteFrameRows, BuildsFrameAndBookkeeping) {
    const RemoteRow& row = GetParam();
    const QByteArray expected = Hex(row.frame);
    ASSERT_EQ(ChecksumOf(expected), static_cast<uint8_t>(expected.back())) << "row checksum";

    RW_VAR var = Record(row.fields, Hex(row.data));
    PLC_driver.tns = row.tns;
    if (row.kind == Kind::Read)
        Remote_ReadVar(&var);
    else
        Remote_WriteVar(&var);

    ASSERT_EQ(1, PLC_driver.protocolList.size());
    const Protocol& p = PLC_driver.protocolList.first();
    EXPECT_EQ(ToHex(expected), ToHex(p.frame));
    EXPECT_EQ(expected.size(), p.frameLen);
    EXPECT_EQ(row.replyLen, p.replyLen);
    EXPECT_EQ(row.dataPos, p.dataPos);
    EXPECT_EQ(row.dataBytes, p.dataBytes);
    ExpectSameRecord(var, p.var);
    EXPECT_EQ(row.tns, PLC_driver.tns);
}

const RemoteRow kRows[] = {
    {"Read_N007_10Elements", Kind::Read, kN007, "", 0x21,
     "16 01 00 01 02 00 03 00 00 07 05 00 0A 00 00 00 00 00 00 00 00 33", -1, 10, 20},
    {"Write_OneElement", Kind::Write, Descriptor(2, 3, 0x705, 1), "34 12", 0x21,
     "18 01 00 01 02 00 03 00 00 07 05 00 01 00 00 00 00 00 00 00 00 34 12 72", 14, 0, 0},
    {"Write_NoValueBytes_22BytesLikeARead", Kind::Write, Descriptor(2, 3, 0x705, 1), "", 0x21,
     "16 01 00 01 02 00 03 00 00 07 05 00 01 00 00 00 00 00 00 00 00 2A", 14, 0, 0},
    {"Read_Real_Count3_NoOneLessRule", Kind::Read, Descriptor(2, 4, 0x805, 3), "", 0x21,
     "16 01 00 01 02 00 04 00 00 08 05 00 03 00 00 00 00 00 00 00 00 2E", -1, 10, 12},
    {"Read_Count70000_Low16Bits", Kind::Read, Descriptor(2, 3, 0x705, 70000), "", 0x21,
     "16 01 00 01 02 00 03 00 00 07 05 11 70 00 00 00 00 00 00 00 00 AA", -1, 10, 140000},
    {"Read_BitTypeA_TwoBytesPerElement", Kind::Read, Descriptor(2, 0, 0x705, 10), "", 0x21,
     "16 01 00 01 02 00 00 00 00 07 05 00 0A 00 00 00 00 00 00 00 00 30", -1, 10, 20},
    {"Read_BitTypeB_TwoBytesPerElement", Kind::Read, Descriptor(2, 1, 0x705, 10), "", 0x21,
     "16 01 00 01 02 00 01 00 00 07 05 00 0A 00 00 00 00 00 00 00 00 31", -1, 10, 20},
    {"Read_WordTypeA_TwoBytesPerElement", Kind::Read, Descriptor(2, 2, 0x705, 10), "", 0x21,
     "16 01 00 01 02 00 02 00 00 07 05 00 0A 00 00 00 00 00 00 00 00 32", -1, 10, 20},
    // Every multi-byte field most significant byte first, each cut to its width;
    // the station's low byte 0x10 moves the reply's data by one.
    {"Read_FieldsBigEndianAndTruncated", Kind::Read, kEveryFieldWide, "", 0x21,
     "16 78 FF A5 10 23 45 89 AB CD EF 02 03 01 02 03 04 F0 E0 D0 C0 09", -1, 11, 0},
    {"Write_FieldsBigEndianAndTruncated", Kind::Write, kEveryFieldWide, "FF FE 10", 0x21,
     "19 78 FF A5 10 23 45 89 AB CD EF 02 03 01 02 03 04 F0 E0 D0 C0 FF FE 10 19", 15, 0, 0},
    {"Read_Station10_DataPos11", Kind::Read, Descriptor(0x10, 3, 0x705, 10), "", 0x21,
     "16 01 00 01 10 00 03 00 00 07 05 00 0A 00 00 00 00 00 00 00 00 41", -1, 11, 20},
    {"Write_Station10_ReplyLen15", Kind::Write, Descriptor(0x10, 3, 0x705, 1), "34 12", 0x21,
     "18 01 00 01 10 00 03 00 00 07 05 00 01 00 00 00 00 00 00 00 00 34 12 80", 15, 0, 0},
    {"Read_Tns10_DataPos11", Kind::Read, kN007, "", 0x10,
     "16 01 00 01 02 00 03 00 00 07 05 00 0A 00 00 00 00 00 00 00 00 33", -1, 11, 20},
    {"Write_Tns10_ReplyLen15", Kind::Write, Descriptor(2, 3, 0x705, 1), "34 12", 0x10,
     "18 01 00 01 02 00 03 00 00 07 05 00 01 00 00 00 00 00 00 00 00 34 12 72", 15, 0, 0},
    {"Read_Station10AndTns10_DataPos12", Kind::Read, Descriptor(0x10, 3, 0x705, 10), "", 0x10,
     "16 01 00 01 10 00 03 00 00 07 05 00 0A 00 00 00 00 00 00 00 00 41", -1, 12, 20},
    {"Write_Station10AndTns10_ReplyLen16", Kind::Write, Descriptor(0x10, 3, 0x705, 1), "34 12",
     0x10, "18 01 00 01 10 00 03 00 00 07 05 00 01 00 00 00 00 00 00 00 00 34 12 80", 16, 0, 0},
    // Only the low byte of the transaction counter is compared with 0x10.
    {"Read_TnsLowByte10_DataPos11", Kind::Read, kN007, "", 0x110,
     "16 01 00 01 02 00 03 00 00 07 05 00 0A 00 00 00 00 00 00 00 00 33", -1, 11, 20},
    {"Read_Tns11_NoCorrection", Kind::Read, kN007, "", 0x11,
     "16 01 00 01 02 00 03 00 00 07 05 00 0A 00 00 00 00 00 00 00 00 33", -1, 10, 20},
    // Types outside 0..4 carry no known reply layout: nothing to store.
    {"Read_TypeMinus1_NoData", Kind::Read, Descriptor(2, -1, 0x705, 10), "", 0x21,
     "16 01 00 01 02 FF FF 00 00 07 05 00 0A 00 00 00 00 00 00 00 00 2E", -1, 10, 0},
    {"Read_Type7_NoData", Kind::Read, Descriptor(2, 7, 0x705, 10), "", 0x21,
     "16 01 00 01 02 00 07 00 00 07 05 00 0A 00 00 00 00 00 00 00 00 37", -1, 10, 0},
    {"Read_Type7_Station10_DataPos11", Kind::Read, Descriptor(0x10, 7, 0x705, 10), "", 0x21,
     "16 01 00 01 10 00 07 00 00 07 05 00 0A 00 00 00 00 00 00 00 00 45", -1, 11, 0},
};
INSTANTIATE_TEST_SUITE_P(Remote, RemoteFrameRows, ::testing::ValuesIn(kRows),
                         [](const ::testing::TestParamInfo<RemoteRow>& i) {
                             return std::string(i.param.name);
                         });

// ---- properties of the pair ----------------------------------------------------

class RemoteFrames : public DriverTest {
protected:
    // Builds the remote write of `f` carrying `data`: the one frame it queues.
    std::string WriteFrame(const Fields& f, const char* data) {
        RW_VAR var = Record(f, Hex(data));
        Remote_WriteVar(&var);
        EXPECT_EQ(1, PLC_driver.protocolList.size());
        return PLC_driver.protocolList.isEmpty() ? std::string()
                                                 : ToHex(PLC_driver.protocolList.first().frame);
    }
};

TEST_F(RemoteFrames, ReadAndWriteOfOneRecord_SameOffsets1To20) {
    const Fields odd = {0x7F10, 0x55, 0x10, 0x1234, 4, 0x10101010, 0x3344, -2, 0x7FFFFFFF};
    RW_VAR var = Record(odd, Hex("01 02 03 04 05 06 07 08"));
    Remote_ReadVar(&var);
    Remote_WriteVar(&var);
    ASSERT_EQ(2, PLC_driver.protocolList.size());
    const QByteArray read = PLC_driver.protocolList[0].frame;
    const QByteArray write = PLC_driver.protocolList[1].frame;
    ASSERT_EQ(22, read.size());
    ASSERT_EQ(30, write.size());
    EXPECT_EQ(ToHex(read.mid(1, 20)), ToHex(write.mid(1, 20)));
    EXPECT_EQ(ToHex(Hex("10 55 10 34 00 04 10 10 10 10 33 44 FF FF FF FE 7F FF FF FF")),
              ToHex(read.mid(1, 20)));
    EXPECT_EQ(ToHex(Hex("01 02 03 04 05 06 07 08")), ToHex(write.mid(21, 8)));
    EXPECT_EQ(22, static_cast<uint8_t>(read[0]));
    EXPECT_EQ(30, static_cast<uint8_t>(write[0]));
    EXPECT_EQ(ChecksumOf(read), static_cast<uint8_t>(read.back()));
    EXPECT_EQ(ChecksumOf(write), static_cast<uint8_t>(write.back()));
}

TEST_F(RemoteFrames, ChecksumIsLowByteOfSumOverLengthByteAndFields) {
    // All fields 0xFF bytes: the sum runs far past 255 and only its low byte is sent.
    const Fields high = {-1, -1, -1, 0x7F, -1, -1, -1, -1, -1};
    RW_VAR var = Record(high, QByteArray(40, '\xFF'));
    Remote_ReadVar(&var);
    Remote_WriteVar(&var);
    ASSERT_EQ(2, PLC_driver.protocolList.size());
    const QByteArray read = PLC_driver.protocolList[0].frame;
    const QByteArray write = PLC_driver.protocolList[1].frame;
    // 0x16 + 0x7F + 19 x 0xFF = 0x1382.
    EXPECT_EQ(0x82, static_cast<uint8_t>(read.back()));
    // 62 (0x3E) + 0x7F + 59 x 0xFF = 0x3B82.
    ASSERT_EQ(62, write.size());
    EXPECT_EQ(0x82, static_cast<uint8_t>(write.back()));
}

TEST_F(RemoteFrames, WriteLongerThan255_LengthByteIsLow8Bits) {
    ABCL_DEFAULT_BUILD_ONLY("the hardened build builds no frame its length byte cannot count");
    RW_VAR var = Record({0x101, 0, 1, 2, 3, 0x705, 150, 0, 0}, QByteArray(300, '\xEE'));
    Remote_WriteVar(&var);
    ASSERT_EQ(1, PLC_driver.protocolList.size());
    const Protocol& p = PLC_driver.protocolList.first();
    ASSERT_EQ(322, p.frame.size());
    EXPECT_EQ(322, p.frameLen);
    EXPECT_EQ(322 & 0xFF, static_cast<uint8_t>(p.frame[0]));
    EXPECT_EQ(ToHex(Hex("01 00 01 02 00 03 00 00 07 05 00 96 00 00 00 00 00 00 00 00")),
              ToHex(p.frame.mid(1, 20)));
    EXPECT_EQ(ToHex(QByteArray(300, '\xEE')), ToHex(p.frame.mid(21, 300)));
    EXPECT_EQ(ChecksumOf(p.frame), static_cast<uint8_t>(p.frame.back()));
    EXPECT_EQ(14, p.replyLen);
}

TEST_F(RemoteFrames, WriteLongerThan255_NoFrame_Hardened) {
    ABCL_HARDENED_BUILD_ONLY("the default build sends the low 8 bits of the length");
    // 21 bytes of length and fields, the values, the checksum: 233 values
    // make 255 bytes, the most the length byte counts.
    RW_VAR longest = Record({0x101, 0, 1, 2, 3, 0x705, 150, 0, 0}, QByteArray(233, '\xEE'));
    Remote_WriteVar(&longest);
    ASSERT_EQ(1, PLC_driver.protocolList.size());
    EXPECT_EQ(255, PLC_driver.protocolList.first().frame.size());
    EXPECT_EQ(255, static_cast<uint8_t>(PLC_driver.protocolList.first().frame[0]));
    PLC_driver.protocolList.clear();

    for (const int values : {234, 300, 1000}) {
        RW_VAR var = Record({0x101, 0, 1, 2, 3, 0x705, 150, 0, 0}, QByteArray(values, '\xEE'));
        Remote_WriteVar(&var);
        EXPECT_TRUE(PLC_driver.protocolList.isEmpty()) << values << " value bytes";
    }
}

TEST_F(RemoteFrames, Write_NoDleFraming_ValueBytes10Undoubled) {
    RW_VAR var = Record({0x110, 0x10, 0x10, 0x10, 3, 0x1010, 2, 0x10, 0x10}, Hex("10 10 10 10"));
    Remote_WriteVar(&var);
    ASSERT_EQ(1, PLC_driver.protocolList.size());
    const QByteArray frame = PLC_driver.protocolList.first().frame;
    EXPECT_EQ(
        ToHex(Hex("1A 10 10 10 10 00 03 00 00 10 10 00 02 00 00 00 10 00 00 00 10 10 10 10 10")),
        ToHex(frame.left(25)));
    EXPECT_EQ(26, frame.size());
    EXPECT_EQ(ChecksumOf(frame), static_cast<uint8_t>(frame.back()));
}

TEST_F(RemoteFrames, Read_RearmsReplyCounters) {
    info.replyDone = 7;
    info.replyTotal = 9;
    RW_VAR var = Record(kN007);
    Remote_ReadVar(&var);
    EXPECT_EQ(0, info.replyDone);
    EXPECT_EQ(1, info.replyTotal);
}

TEST_F(RemoteFrames, Write_LeavesReplyCountersAsTheyWere) {
    info.replyDone = 7;
    info.replyTotal = 9;
    RW_VAR var = Record({0x101, 0, 1, 2, 3, 0x705, 1, 0, 0}, Hex("34 12"));
    Remote_WriteVar(&var);
    ASSERT_EQ(1, PLC_driver.protocolList.size());
    EXPECT_EQ(7, info.replyDone);
    EXPECT_EQ(9, info.replyTotal);
}

TEST_F(RemoteFrames, Write_MirrorsIntoImage) {
    RW_VAR var = Record({0x101, 0, 1, 2, 3, 0x705, 2, 0, 0}, Hex("34 12 78 56"));
    Remote_WriteVar(&var);
    EXPECT_EQ(0x1234, PLC_driver.areaB[0x705]);
    EXPECT_EQ(0x5678, PLC_driver.areaB[0x706]);
    EXPECT_EQ(0, PLC_driver.areaA[0x705]);
}

TEST_F(RemoteFrames, Write_MirrorsEvenWhileLinkFailing) {
    setCommError(true);
    RW_VAR word = Record({0x101, 0, 1, 2, 2, 0x705, 1, 0, 0}, Hex("34 12"));
    RW_VAR bits = Record({0x101, 0, 1, 2, 1, 0x7053, 3, 0, 0}, Hex("01 00 01"));
    RW_VAR real = Record({0x101, 0, 1, 2, 4, 0x805, 2, 0, 0}, Hex("00 00 C0 3F"));
    Remote_WriteVar(&word);
    Remote_WriteVar(&bits);
    Remote_WriteVar(&real);
    EXPECT_EQ(3, PLC_driver.protocolList.size());
    EXPECT_EQ(0x1234, PLC_driver.areaA[0x705]);
    EXPECT_EQ((1 << 3) | (1 << 5), PLC_driver.areaB[0x705]);
    EXPECT_EQ(0x3FC00000u, PLC_driver.areaD[0x805]);
}

TEST_F(RemoteFrames, Write_MultiStation_FrameQueuedImageUntouched) {
    info.multiStation = 1;
    const ImageSnapshot before;
    EXPECT_EQ(WriteFrame({0x101, 0, 1, 2, 3, 0x705, 1, 0, 0}, "34 12"),
              "18 01 00 01 02 00 03 00 00 07 05 00 01 00 00 00 00 00 00 00 00 34 12 72");
    EXPECT_TRUE(before.Unchanged());
}

TEST_F(RemoteFrames, Read_LeavesImageAlone) {
    const ImageSnapshot before;
    RW_VAR var = Record(kN007, Hex("34 12 78 56"));
    Remote_ReadVar(&var);
    ASSERT_EQ(1, PLC_driver.protocolList.size());
    EXPECT_EQ(22, PLC_driver.protocolList.first().frameLen);
    EXPECT_TRUE(before.Unchanged());
}

TEST_F(RemoteFrames, Write_UnknownType_QueuedButNothingMirrored) {
    const ImageSnapshot before;
    EXPECT_EQ(WriteFrame({0x101, 0, 1, 2, 9, 0x705, 1, 0, 0}, "34 12"),
              "18 01 00 01 02 00 09 00 00 07 05 00 01 00 00 00 00 00 00 00 00 34 12 78");
    EXPECT_TRUE(before.Unchanged());
}

TEST_F(RemoteFrames, FramesQueueBehindEachOther) {
    RW_VAR read = Record(kN007);
    RW_VAR write = Record({0x101, 0, 1, 2, 3, 0x705, 1, 0, 0}, Hex("34 12"));
    Remote_ReadVar(&read);
    Remote_WriteVar(&write);
    Remote_ReadVar(&read);
    ASSERT_EQ(3, PLC_driver.protocolList.size());
    EXPECT_EQ(22, PLC_driver.protocolList[0].frameLen);
    EXPECT_EQ(24, PLC_driver.protocolList[1].frameLen);
    EXPECT_EQ(22, PLC_driver.protocolList[2].frameLen);
}

}  // namespace
