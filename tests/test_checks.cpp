// Reply validation (envelope, DLE de-stuffing, block check, reply kind) and the
// checksum and hex-digit helpers.
#include "test_support.h"

#include "Func_Check.h"
#include "reply_builder.h"

#include <QtCore/QByteArray>

#include <cstdint>
#include <string>
#include <vector>

namespace {

constexpr char kDle = replies::kDle;

using replies::Framed;

// A body of n bytes without any DLE in it.
QByteArray PlainBody(int n) {
    QByteArray body;
    for (int i = 0; i < n; ++i) body.append(static_cast<char>(0x20 + i));
    return body;
}

// The envelope around the body as given (stuffed by hand), with a chosen BCC.
QByteArray RawReply(const char* stuffedBodyHex, uint8_t bcc) {
    return replies::Envelope(Hex(stuffedBodyHex), bcc);
}

class ReplyCheck : public DriverTest {
protected:
    void SetUp() override {
        DriverTest::SetUp();
        QueueRequest(0);
    }
    static void QueueRequest(int aux2) {
        Protocol p;
        p.var.aux2 = aux2;
        PLC_driver.protocolList.append(p);
    }
};

// ---------------------------------------------------------------- CheckGetData

TEST_F(ReplyCheck, GoodReplyCarryingData_Returns1) {
    const QByteArray reply = Framed(Hex("00 00 4B 00 21 00 01 02 03 04"));
    EXPECT_EQ(CheckGetData(reply, reply.size()), 1);
}

TEST_F(ReplyCheck, NineByteReply_IsLongEnough) {
    const QByteArray reply = Framed(Hex("01 02"));
    ASSERT_EQ(reply.size(), 9);
    EXPECT_EQ(CheckGetData(reply, 9), 1);
}

TEST_F(ReplyCheck, EightByteReplyWithCorrectEnvelope_IsBad) {
    const QByteArray reply = Framed(Hex("01"));
    ASSERT_EQ(reply.size(), 8);
    EXPECT_EQ(CheckGetData(reply, 8), 0);
}

TEST_F(ReplyCheck, LengthBelowNine_IsBadWhateverTheArrayHolds) {
    const QByteArray reply = Framed(PlainBody(10));
    for (int len = 0; len < 9; ++len) EXPECT_EQ(CheckGetData(reply, len), 0) << "len " << len;
}

TEST_F(ReplyCheck, NegativeLength_IsBad) {
    const QByteArray reply = Framed(PlainBody(10));
    EXPECT_EQ(CheckGetData(reply, -1), 0);
    EXPECT_EQ(CheckGetData(reply, -100000), 0);
}

TEST_F(ReplyCheck, ReplyDoneOneAndNoReply_Returns2WithoutLookingAtReply) {
    info.replyDone = 1;
    EXPECT_EQ(CheckGetData(QByteArray(), 0), 2);
    EXPECT_EQ(CheckGetData(Hex("FF FF FF"), 0), 2);
}

TEST_F(ReplyCheck, ReplyDoneOneAndNoReply_IgnoresReplyKind) {
    info.replyDone = 1;
    PLC_driver.protocolList.first().var.aux2 = 7;
    EXPECT_EQ(CheckGetData(QByteArray(), 0), 2);
}

TEST_F(ReplyCheck, ReplyDoneOneAndNoReply_NeedsNoQueuedRequest) {
    info.replyDone = 1;
    PLC_driver.protocolList.clear();
    EXPECT_EQ(CheckGetData(QByteArray(), 0), 2);
}

TEST_F(ReplyCheck, ReplyDoneTwoAndNoReply_IsBad) {
    info.replyDone = 2;
    EXPECT_EQ(CheckGetData(QByteArray(), 0), 0);
}

TEST_F(ReplyCheck, ReplyDoneNegativeAndNoReply_IsBad) {
    info.replyDone = -1;
    EXPECT_EQ(CheckGetData(QByteArray(), 0), 0);
}

TEST_F(ReplyCheck, ReplyDoneNonZeroWithGoodReply_IsBad) {
    const QByteArray reply = Framed(PlainBody(10));
    for (int done : {1, 2, -1, 1000}) {
        info.replyDone = done;
        EXPECT_EQ(CheckGetData(reply, reply.size()), 0) << "replyDone " << done;
    }
}

class LeadInByte : public ReplyCheck, public ::testing::WithParamInterface<int> {};

TEST_P(LeadInByte, WrongLeadInByte_IsBad) {
    QByteArray reply = Framed(PlainBody(10));
    const int pos = GetParam();
    reply[pos] = static_cast<char>(reply[pos] ^ 0x01);
    EXPECT_EQ(CheckGetData(reply, reply.size()), 0) << ToHex(reply);
}

INSTANTIATE_TEST_SUITE_P(Positions0To3, LeadInByte, ::testing::Values(0, 1, 2, 3));

TEST_F(ReplyCheck, LeadInOfNakOrEnq_IsBad) {
    QByteArray nak = Framed(PlainBody(10));
    nak[1] = 0x15;
    EXPECT_EQ(CheckGetData(nak, nak.size()), 0);
    QByteArray swapped = Framed(PlainBody(10));
    swapped[1] = 0x02;
    swapped[3] = 0x06;
    EXPECT_EQ(CheckGetData(swapped, swapped.size()), 0);
}

TEST_F(ReplyCheck, NoEtxBeforeBlockCheck_IsBad) {
    QByteArray reply = Framed(PlainBody(10));
    reply[reply.size() - 2] = 0x04;
    EXPECT_EQ(CheckGetData(reply, reply.size()), 0);
}

TEST_F(ReplyCheck, NoDleBeforeEtx_IsBad) {
    QByteArray reply = Framed(PlainBody(10));
    reply[reply.size() - 3] = 0x11;
    EXPECT_EQ(CheckGetData(reply, reply.size()), 0);
}

TEST_F(ReplyCheck, BytesAfterLength_AreIgnored) {
    const QByteArray good = Framed(PlainBody(12));
    QByteArray longer = good;
    longer.append(Hex("AA BB CC 10 03"));
    EXPECT_EQ(CheckGetData(longer, good.size()), 1);
}

TEST_F(ReplyCheck, EnvelopeIsLookedForAtLengthNotAtArrayEnd) {
    // The array ends with a correct envelope, but the length says it ends earlier.
    const QByteArray reply = Framed(PlainBody(12));
    EXPECT_EQ(CheckGetData(reply, reply.size() - 1), 0);
    EXPECT_EQ(CheckGetData(reply, reply.size() - 2), 0);
}

TEST_F(ReplyCheck, LengthBeyondArray_IsBad) {
    const QByteArray reply = Framed(PlainBody(12));
    ASSERT_NE(static_cast<unsigned char>(reply[reply.size() - 1]), 0x03u);
    EXPECT_EQ(CheckGetData(reply, reply.size() + 1), 0);
    EXPECT_EQ(CheckGetData(reply, reply.size() + 2), 0);
    EXPECT_EQ(CheckGetData(reply, reply.size() + 1000), 0);
}

TEST_F(ReplyCheck, WrongBlockCheck_IsBad) {
    QByteArray reply = Framed(PlainBody(12));
    for (int delta : {1, 0x10, 0x80, 0xFF}) {
        QByteArray bad = reply;
        bad[bad.size() - 1] =
            static_cast<char>(static_cast<unsigned char>(reply[reply.size() - 1]) + delta);
        EXPECT_EQ(CheckGetData(bad, bad.size()), 0) << "delta " << delta;
    }
}

TEST_F(ReplyCheck, BodySummingToZero_BlockCheckZeroIsGood) {
    // The sum's low byte is 0: the computed check is 256, whose low byte 0 is sent.
    const QByteArray reply = RawReply("01 FF 00", 0x00);
    EXPECT_EQ(CheckGetData(reply, reply.size()), 1);
    const QByteArray wrong = RawReply("01 FF 00", 0x01);
    EXPECT_EQ(CheckGetData(wrong, wrong.size()), 0);
}

TEST_F(ReplyCheck, BodyLongerThanTheBlockCheckCounts_IsBad_Hardened) {
    ABCL_HARDENED_BUILD_ONLY("the default build checks the bytes within the check's 16-bit count");
    // Zero bytes sum to zero however many of them are counted: a check of 0
    // fits the whole body and a count wrapped to 16 bits alike, so only the
    // body's length can fail these replies.
    const QByteArray longest = Framed(QByteArray(0xFFFF, '\0'));
    EXPECT_EQ(CheckGetData(longest, longest.size()), 1);
    for (const int size : {0x10000, 0x10001, 0x20000}) {
        const QByteArray reply = Framed(QByteArray(size, '\0'));
        EXPECT_EQ(CheckGetData(reply, reply.size()), 0) << size << " bytes";
    }
}

TEST_F(ReplyCheck, BlockCheckOf0x10_IsReadAsOneByte) {
    // 0x70 + 0x80 = 0xF0, whose two's complement is 0x10.
    const QByteArray reply = Hex("10 06 10 02 70 80 10 03 10");
    EXPECT_EQ(CheckGetData(reply, reply.size()), 1);
}

// A body as sent (DLEs doubled or not) and the bytes the block check is
// computed over: the reply is good only when those are the body un-stuffed.
struct StuffingRow {
    const char* name;
    const char* sentBody;
    const char* checkedBody;
    int expected;
};

class Stuffing : public ReplyCheck, public ::testing::WithParamInterface<StuffingRow> {};

TEST_P(Stuffing, BlockCheckCoversTheUnstuffedBody) {
    const StuffingRow& row = GetParam();
    const QByteArray reply = RawReply(row.sentBody, replies::BlockCheck(Hex(row.checkedBody)));
    EXPECT_EQ(CheckGetData(reply, reply.size()), row.expected);
}

// Two DLEs are one data byte; a DLE before anything but DLE or ETX is itself.
INSTANTIATE_TEST_SUITE_P(
    Rows, Stuffing,
    ::testing::Values(
        StuffingRow{"DoubledDleInBody_CountsOnce", "00 10 10 22", "00 10 22", 1},
        StuffingRow{"DoubledDleInBody_CountedTwiceIsBad", "00 10 10 22", "00 10 10 22", 0},
        StuffingRow{"LoneDleInBody_IsKept", "00 10 05", "00 10 05", 1},
        StuffingRow{"LoneDleInBody_DroppedIsBad", "00 10 05", "00 05", 0},
        StuffingRow{"FourDles_UnstuffToTwo", "01 10 10 10 10 02", "01 10 10 02", 1},
        StuffingRow{"FourDles_NotToOne", "01 10 10 10 10 02", "01 10 02", 0},
        StuffingRow{"FourDles_NotKeptAsFour", "01 10 10 10 10 02", "01 10 10 10 10 02", 0},
        // The first pair is one doubled DLE; the third DLE stands alone.
        StuffingRow{"ThreeDles_UnstuffToTwo", "01 10 10 10 05", "01 10 10 05", 1},
        StuffingRow{"ThreeDles_NotToOne", "01 10 10 10 05", "01 10 05", 0},
        StuffingRow{"DoubledDleRightBeforeTrailer_CountsOnce", "01 02 10 10", "01 02 10", 1},
        StuffingRow{"LoneDleRightBeforeTrailer_IsKept", "01 02 10", "01 02 10", 1}),
    RowName());

TEST_F(ReplyCheck, DoubledDleRightBeforeTrailer_IsHowAControllerSendsIt) {
    EXPECT_EQ(ToHex(RawReply("01 02 10 10", replies::BlockCheck(Hex("01 02 10")))),
              ToHex(Framed(Hex("01 02 10"))));
}

TEST_F(ReplyCheck, ManyDoubledDles_AllCountOnce) {
    QByteArray body;
    for (int i = 0; i < 40; ++i) body.append(i % 3 == 0 ? kDle : static_cast<char>(0x40 + i));
    const QByteArray reply = Framed(body);
    EXPECT_EQ(CheckGetData(reply, reply.size()), 1);
}

struct ReplyKindRow {
    const char* name;
    int aux2;
    int expected;
};

class ReplyKind : public ReplyCheck, public ::testing::WithParamInterface<ReplyKindRow> {};

TEST_P(ReplyKind, FirstQueuedRequestDecidesTheResult) {
    PLC_driver.protocolList.first().var.aux2 = GetParam().aux2;
    const QByteArray reply = Framed(PlainBody(20));
    EXPECT_EQ(CheckGetData(reply, reply.size()), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, ReplyKind,
    ::testing::Values(ReplyKindRow{"CarriesData", 0, 1}, ReplyKindRow{"OnlyConfirms", 1, 2},
                      ReplyKindRow{"Two", 2, 0}, ReplyKindRow{"MinusOne", -1, 0},
                      ReplyKindRow{"Hundred", 100, 0}, ReplyKindRow{"Huge", 0x7FFFFFFF, 0}),
    RowName());

TEST_F(ReplyCheck, OnlyFirstQueuedRequestIsLookedAt) {
    const QByteArray reply = Framed(PlainBody(20));
    PLC_driver.protocolList.first().var.aux2 = 1;
    QueueRequest(0);
    QueueRequest(5);
    EXPECT_EQ(CheckGetData(reply, reply.size()), 2);
    PLC_driver.protocolList.first().var.aux2 = 0;
    PLC_driver.protocolList[1].var.aux2 = 1;
    EXPECT_EQ(CheckGetData(reply, reply.size()), 1);
}

TEST_F(ReplyCheck, BadReplyKindIsOnlyLookedAtAfterGoodEnvelope) {
    PLC_driver.protocolList.first().var.aux2 = 1;
    QByteArray reply = Framed(PlainBody(20));
    reply[reply.size() - 1] = static_cast<char>(reply[reply.size() - 1] + 1);
    EXPECT_EQ(CheckGetData(reply, reply.size()), 0);
}

TEST_F(ReplyCheck, ChangesNoState) {
    info.replyDone = 0;
    info.replyTotal = 1;
    PLC_driver.tns = 77;
    const QByteArray reply = Framed(PlainBody(20));
    const ComInfo before = info;
    EXPECT_EQ(CheckGetData(reply, reply.size()), 1);
    EXPECT_EQ(NotFixReturnCheck(reply), 1);
    EXPECT_EQ(std::memcmp(&before, &info, sizeof info), 0);
    EXPECT_EQ(PLC_driver.tns, 77);
    EXPECT_EQ(PLC_driver.protocolList.size(), 1);
    EXPECT_EQ(PLC_driver.protocolList.first().replyLen, 0);
}

// ----------------------------------------------------------- NotFixReturnCheck

TEST_F(ReplyCheck, NotFix_CorrectReplyOf26Bytes_IsTooShort) {
    const QByteArray reply = Framed(PlainBody(19));
    ASSERT_EQ(reply.size(), 26);
    EXPECT_EQ(CheckGetData(reply, reply.size()), 1);
    EXPECT_EQ(NotFixReturnCheck(reply), 0);
}

TEST_F(ReplyCheck, NotFix_CorrectReplyOf27Bytes_IsGood) {
    const QByteArray reply = Framed(PlainBody(20));
    ASSERT_EQ(reply.size(), 27);
    EXPECT_EQ(NotFixReturnCheck(reply), 1);
}

TEST_F(ReplyCheck, NotFix_LongerCorrectReplies_AreGood) {
    for (int n : {21, 22, 40, 200}) EXPECT_EQ(NotFixReturnCheck(Framed(PlainBody(n))), 1) << n;
}

TEST_F(ReplyCheck, NotFix_SizeCountsDoubledDles) {
    // 19 body bytes, one of them a DLE sent twice: 27 bytes on the wire.
    QByteArray body = PlainBody(19);
    body[5] = kDle;
    const QByteArray reply = Framed(body);
    ASSERT_EQ(reply.size(), 27);
    EXPECT_EQ(NotFixReturnCheck(reply), 1);
}

TEST_F(ReplyCheck, NotFix_ReplyThatOnlyConfirms_IsGood) {
    PLC_driver.protocolList.first().var.aux2 = 1;
    EXPECT_EQ(NotFixReturnCheck(Framed(PlainBody(20))), 1);
}

TEST_F(ReplyCheck, NotFix_UnknownReplyKind_IsBad) {
    PLC_driver.protocolList.first().var.aux2 = 3;
    EXPECT_EQ(NotFixReturnCheck(Framed(PlainBody(20))), 0);
}

TEST_F(ReplyCheck, NotFix_BadEnvelope_IsBad) {
    const QByteArray good = Framed(PlainBody(24));
    for (int pos : {0, 1, 2, 3, good.size() - 3, good.size() - 2}) {
        QByteArray bad = good;
        bad[pos] = static_cast<char>(bad[pos] ^ 0x40);
        EXPECT_EQ(NotFixReturnCheck(bad), 0) << "position " << pos;
    }
}

TEST_F(ReplyCheck, NotFix_BadBlockCheck_IsBad) {
    QByteArray reply = Framed(PlainBody(24));
    reply[reply.size() - 1] = static_cast<char>(reply[reply.size() - 1] ^ 0x01);
    EXPECT_EQ(NotFixReturnCheck(reply), 0);
}

TEST_F(ReplyCheck, NotFix_TrailingByteAfterGoodReply_IsBad) {
    QByteArray reply = Framed(PlainBody(24));
    reply.append('\x00');
    EXPECT_EQ(NotFixReturnCheck(reply), 0);
}

TEST_F(ReplyCheck, NotFix_ReplyDoneNonZero_IsBad) {
    const QByteArray reply = Framed(PlainBody(24));
    info.replyDone = 1;
    EXPECT_EQ(NotFixReturnCheck(reply), 0);
    info.replyDone = 0;
    EXPECT_EQ(NotFixReturnCheck(reply), 1);
}

TEST_F(ReplyCheck, NotFix_EmptyAndShortReplies_AreBad) {
    EXPECT_EQ(NotFixReturnCheck(QByteArray()), 0);
    EXPECT_EQ(NotFixReturnCheck(Hex("10 06 10 02 10 03 00")), 0);
}

// ------------------------------------------------------------ UnstuffReplyBody

TEST(UnstuffReplyBody, DoubledDlesCountOnceLoneDlesStay) {
    const QByteArray reply = Hex("10 06 10 02 10 10 10 10 10 05 10 10 10 03 00");
    // Positions 4 to 11: 10 10 10 10 10 05 10 10.
    EXPECT_EQ(ToHex(UnstuffReplyBody(reply, 4, 11)), "10 10 10 05 10");
    EXPECT_EQ(ToHex(UnstuffReplyBody(Hex("01 10 10 10 05"), 0, 4)), "01 10 10 05");
}

// ---------------------------------------------------------------------- CalLRC

TEST(CalLRC, ZeroLowByteGives256) {
    const unsigned char bytes[] = {0x01, 0xFF};
    EXPECT_EQ(CalLRC(bytes, 2), 256);
    const unsigned char zero[] = {0x00};
    EXPECT_EQ(CalLRC(zero, 1), 256);
}

TEST(CalLRC, SingleOneGives255) {
    const unsigned char bytes[] = {0x01};
    EXPECT_EQ(CalLRC(bytes, 1), 255);
}

TEST(CalLRC, NothingGives256) {
    const unsigned char bytes[] = {0x33};
    EXPECT_EQ(CalLRC(bytes, 0), 256);
}

TEST(CalLRC, IsTwosComplementOfSumLowByte) {
    const unsigned char bytes[] = {0x00, 0x00, 0x0B, 0x00, 0x21, 0x00};
    EXPECT_EQ(CalLRC(bytes, 6), 0x100 - 0x2C);
    const unsigned char half[] = {0x80};
    EXPECT_EQ(CalLRC(half, 1), 0x80);
}

TEST(CalLRC, SumBeyondOneByteUsesOnlyItsLowByte) {
    const std::vector<unsigned char> bytes(300, 0xFF);  // sum 76,500, low byte 0xD4
    EXPECT_EQ(CalLRC(bytes.data(), 300), 0x100 - 0xD4);
}

TEST(CalLRC, LengthLimitsTheBytesSummed) {
    const unsigned char bytes[] = {0x01, 0x02, 0x03};
    EXPECT_EQ(CalLRC(bytes, 2), 0x100 - 3);
}

TEST(CalLRC, ResultAlwaysInOneTo256) {
    std::vector<unsigned char> bytes(1);
    for (int b = 0; b < 256; ++b) {
        bytes[0] = static_cast<unsigned char>(b);
        const int r = CalLRC(bytes.data(), 1);
        EXPECT_GE(r, 1);
        EXPECT_LE(r, 256);
        EXPECT_EQ((r + b) & 0xFF, 0) << "byte " << b;
    }
}

// ---------------------------------------------------------------------- CalSUM

TEST(CalSUM, SumsTheBytes) {
    const unsigned char bytes[] = {0x01, 0x02, 0xFF};
    EXPECT_EQ(CalSUM(bytes, 3), 0x102);
    EXPECT_EQ(CalSUM(bytes, 2), 3);
}

TEST(CalSUM, NothingGivesZero) {
    const unsigned char bytes[] = {0x44};
    EXPECT_EQ(CalSUM(bytes, 0), 0);
}

TEST(CalSUM, TruncatesTo16Bits) {
    const std::vector<unsigned char> bytes(300, 0xFF);  // 76,500 = 0x12AD4
    EXPECT_EQ(CalSUM(bytes.data(), 300), 0x2AD4);
    const std::vector<unsigned char> exact(257, 0xFF);  // 65,535
    EXPECT_EQ(CalSUM(exact.data(), 257), 0xFFFF);
    std::vector<unsigned char> wrap(258, 0xFF);  // 65,790 = 0x100FE
    EXPECT_EQ(CalSUM(wrap.data(), 258), 0x00FE);
}

// ---------------------------------------------------------------------- CalCRC

// CRC-16 with the reflected polynomial 0xA001, initial value 0, no final XOR.
uint16_t ReferenceCrc(const std::vector<unsigned char>& bytes) {
    uint16_t crc = 0;
    for (unsigned char b : bytes) {
        crc ^= b;
        for (int i = 0; i < 8; ++i)
            crc = (crc & 1) ? static_cast<uint16_t>((crc >> 1) ^ 0xA001)
                            : static_cast<uint16_t>(crc >> 1);
    }
    return crc;
}

TEST(CalCRC, CheckValueOfDigitsOneToNine) {
    const unsigned char digits[] = {'1', '2', '3', '4', '5', '6', '7', '8', '9'};
    EXPECT_EQ(CalCRC(digits, 9), 0xBB3D);
}

TEST(CalCRC, NothingGivesZero) {
    const unsigned char bytes[] = {0x31};
    EXPECT_EQ(CalCRC(bytes, 0), 0);
}

TEST(CalCRC, SingleBytes) {
    const struct {
        unsigned char byte;
        int crc;
    } cases[] = {{0x01, 0xC0C1}, {0x00, 0x0000}, {0xFF, 0x4040}};
    for (const auto& c : cases) EXPECT_EQ(CalCRC(&c.byte, 1), c.crc) << "byte " << int{c.byte};
}

TEST(CalCRC, MatchesBitwiseDefinition) {
    std::vector<unsigned char> bytes;
    uint32_t x = 12345;
    for (int len = 0; len < 64; ++len) {
        EXPECT_EQ(CalCRC(bytes.data(), static_cast<unsigned short>(bytes.size())),
                  ReferenceCrc(bytes))
            << "length " << len;
        x = x * 1103515245u + 12345u;
        bytes.push_back(static_cast<unsigned char>(x >> 16));
    }
}

// ---------------------------------------------------------------------- CalXOR

TEST(CalXOR, SingleByteIsItself) {
    const unsigned char bytes[] = {0x5A};
    EXPECT_EQ(CalXOR(bytes, 1), 0x5A);
}

TEST(CalXOR, LengthZeroStillReadsFirstByte) {
    const unsigned char bytes[] = {0x77, 0x11};
    EXPECT_EQ(CalXOR(bytes, 0), 0x77);
}

TEST(CalXOR, XorsAllBytes) {
    const unsigned char bytes[] = {0x01, 0x02, 0x04, 0x80, 0xFF};
    EXPECT_EQ(CalXOR(bytes, 4), 0x87);
    EXPECT_EQ(CalXOR(bytes, 5), 0x78);
    EXPECT_EQ(CalXOR(bytes, 2), 0x03);
}

TEST(CalXOR, EqualBytesCancel) {
    const unsigned char bytes[] = {0xFF, 0xFF};
    EXPECT_EQ(CalXOR(bytes, 2), 0);
}

// -------------------------------------------------------------- hex-digit codes

TEST(DigitalToASCII, DigitsZeroToNine) {
    for (int v = 0; v <= 9; ++v) EXPECT_EQ(DigitalToASCII(v), 0x30 + v) << v;
}

TEST(DigitalToASCII, TenToFifteenAreLettersAToF) {
    for (int v = 10; v <= 15; ++v) EXPECT_EQ(DigitalToASCII(v), 'A' + (v - 10)) << v;
}

TEST(DigitalToASCII, NoRangeCheck) {
    EXPECT_EQ(DigitalToASCII(16), 'G');
    EXPECT_EQ(DigitalToASCII(217), 0x110);
    EXPECT_EQ(DigitalToASCII(255), 0x136);
    EXPECT_EQ(DigitalToASCII(-1), 0x2F);
    EXPECT_EQ(DigitalToASCII(-0x30), 0);
    EXPECT_EQ(DigitalToASCII(-100), -100 + 0x30);
}

TEST(ASCIIToDigital, BelowDigitZeroGivesZero) {
    for (int c : {-5, 0, 0x10, 0x20, 0x2F}) EXPECT_EQ(ASCIIToDigital(c), 0) << c;
}

TEST(ASCIIToDigital, ThirtyToThreeF) {
    for (int c = 0x30; c <= 0x3F; ++c) EXPECT_EQ(ASCIIToDigital(c), c - 0x30) << c;
}

TEST(ASCIIToDigital, AtSignGivesZero) {
    EXPECT_EQ(ASCIIToDigital(0x40), 0);
}

TEST(ASCIIToDigital, UpperCaseLetters) {
    for (int c = 'A'; c <= 'F'; ++c) EXPECT_EQ(ASCIIToDigital(c), 10 + (c - 'A')) << c;
    EXPECT_EQ(ASCIIToDigital('G'), 16);
}

TEST(ASCIIToDigital, LowerCaseIsNotFolded) {
    EXPECT_EQ(ASCIIToDigital('a'), 42);
    EXPECT_EQ(ASCIIToDigital('f'), 47);
    EXPECT_EQ(ASCIIToDigital(0xFF), 0xFF - 0x37);
}

TEST(HexDigits, RoundTripOfZeroToFifteen) {
    for (int v = 0; v <= 15; ++v) EXPECT_EQ(ASCIIToDigital(DigitalToASCII(v)), v) << v;
}

}  // namespace
