// The CIP side: what a controller reads from the driver's requests, what the
// services do to the tag memory, the replies' byte layout and the errors.
#include "driver_frames.h"
#include "plcsim_test_support.h"

#include "peer/cip.h"
#include "peer/controller.h"
#include "peer/df1.h"
#include "peer/tag_memory.h"

#include <gtest/gtest.h>

#include <cstring>
#include <ostream>

using namespace peer;

namespace {

// The CIP request of a frame: the body after the 6-byte header and the two
// bytes before the Multiple Service Packet.
CipMessage DecodeFrame(const Bytes& frame) {
    const Bytes body = FirstBody(frame);
    if (body.size() < 8) return {};
    return DecodeCipMessage(body.data() + 8, body.size() - 8);
}

// Un-stuffed reply body of a framed reply (checked for its envelope).
Bytes ReplyBody(const Bytes& reply) {
    EXPECT_GE(reply.size(), 9u);
    EXPECT_EQ(ToHex(Bytes(reply.begin(), reply.begin() + 4)), "10 06 10 02");
    EXPECT_EQ(reply[reply.size() - 3], df1::kDle);
    EXPECT_EQ(reply[reply.size() - 2], df1::kEtx);
    const Bytes body = MessageBody(reply).value_or(Bytes{});
    EXPECT_EQ(BlockCheck(body), reply.back());
    return body;
}

// One embedded request, given as hex text.
TagRequest DecodeHex(const std::string& hex) {
    const Bytes bytes = Hex(hex);
    return DecodeTagRequest(bytes.data(), bytes.size());
}

class ControllerTest : public ::testing::Test {
protected:
    // Answers one framed request; the reply as it goes on the line.
    Bytes Ask(const Bytes& frame) { return OnlyReply(controller, frame); }
    Bytes AskCip(uint8_t tns, const Bytes& cip) {
        return Ask(peer::FrameRequest(Concat(Header(tns), cip)));
    }

    TagMemory memory;
    Controller controller{memory};
};

Bytes ReadRequest(const std::string& tag, uint16_t element, uint16_t count) {
    Bytes r = TagService(cip::kReadTagFragmented, tag, element);
    r.push_back(static_cast<uint8_t>(count & 0xFF));
    r.push_back(static_cast<uint8_t>(count >> 8));
    return Concat(Multiple(r), Hex("00 00 00 00 00 00"));
}

Bytes WriteRequest(const std::string& tag, uint16_t element, uint16_t type, uint16_t count,
                   const Bytes& values) {
    Bytes r = TagService(cip::kWriteTagFragmented, tag, element);
    r.push_back(static_cast<uint8_t>(type & 0xFF));
    r.push_back(static_cast<uint8_t>(type >> 8));
    r.push_back(static_cast<uint8_t>(count & 0xFF));
    r.push_back(static_cast<uint8_t>(count >> 8));
    return Multiple(Concat(Concat(r, Hex("00 00 00 00")), values));
}

}  // namespace

// ---------------------------------------------------------------- decoding

class DriverRequestDecode : public ::testing::TestWithParam<DriverFrame> {};

TEST_P(DriverRequestDecode, ReadsServiceTagElementCountAndValues) {
    const DriverFrame& row = GetParam();
    const CipMessage message = DecodeFrame(Hex(row.hex));
    EXPECT_TRUE(message.status.ok());
    EXPECT_TRUE(message.multiple);
    EXPECT_EQ(message.service, cip::kMultipleServicePacket);
    ASSERT_EQ(message.requests.size(), 1u);
    const TagRequest& r = message.requests[0];
    EXPECT_TRUE(r.status.ok()) << int(r.status.general);
    EXPECT_EQ(r.service, row.service);
    EXPECT_EQ(r.path.symbol, row.tag);
    EXPECT_TRUE(r.path.named);
    EXPECT_EQ(r.path.letter, row.letter);
    EXPECT_EQ(r.path.file, row.file);
    EXPECT_EQ(r.path.element, row.element);
    EXPECT_EQ(r.count, row.count);
    EXPECT_EQ(r.byteOffset, 0u);
    EXPECT_EQ(r.dataType, row.dataType);
    EXPECT_EQ(ToHex(r.values), row.values);
    if (row.service == cip::kReadModifyWriteTag) {
        EXPECT_EQ(r.maskSize, 2);
        EXPECT_EQ(r.orMask, row.orMask);
        EXPECT_EQ(r.andMask, row.andMask);
    }
    // Reads and bit writes carry two zero bytes after their own fields.
    EXPECT_EQ(r.extraBytes, row.service == cip::kWriteTagFragmented ? 0u : 2u);
}

INSTANTIATE_TEST_SUITE_P(DriverFrames, DriverRequestDecode, ::testing::ValuesIn(kDriverFrames),
                         [](const ::testing::TestParamInfo<DriverFrame>& row) {
                             return std::string(row.param.name);
                         });

TEST(TagName, DigitsThenLettersUpward) {
    char letter = 0;
    int file = -1;
    EXPECT_TRUE(DecodeTagName("N007", &letter, &file));
    EXPECT_EQ(letter, 'N');
    EXPECT_EQ(file, 7);
    EXPECT_TRUE(DecodeTagName("F00A", &letter, &file));
    EXPECT_EQ(file, 10);
    EXPECT_TRUE(DecodeTagName("B00G", &letter, &file));
    EXPECT_EQ(file, 16);
    EXPECT_TRUE(DecodeTagName("N010", &letter, &file));
    EXPECT_EQ(file, 256);
    EXPECT_TRUE(DecodeTagName(std::string("N0") + '0' + '\xFF', &letter, &file));
    EXPECT_EQ(file, 200);
}

TEST(TagName, RejectsOtherNames) {
    char letter = 0;
    int file = -1;
    EXPECT_FALSE(DecodeTagName("N7", &letter, &file));
    EXPECT_FALSE(DecodeTagName("N0007", &letter, &file));
    EXPECT_FALSE(DecodeTagName("n007", &letter, &file));
    EXPECT_FALSE(DecodeTagName("T004", &letter, &file));
    EXPECT_FALSE(DecodeTagName("N107", &letter, &file));
    EXPECT_FALSE(DecodeTagName("N00:", &letter, &file));
    EXPECT_FALSE(DecodeTagName(std::string("N0") + '0' + '\x10', &letter, &file));
}

struct MemberRow {
    const char* hex;
    uint32_t element;
    int count;
};

void PrintTo(const MemberRow& row, std::ostream* os) {
    *os << row.hex;
}

class DecodeMembers : public ::testing::TestWithParam<MemberRow> {};

TEST_P(DecodeMembers, ElementAndCountOfEachMemberSizeAndNoMember) {
    const TagRequest request = DecodeHex(GetParam().hex);
    EXPECT_TRUE(request.status.ok());
    EXPECT_EQ(request.path.element, GetParam().element);
    EXPECT_EQ(request.count, GetParam().count);
}

INSTANTIATE_TEST_SUITE_P(
    Decode, DecodeMembers,
    ::testing::Values(
        // The driver writes a count's high byte where the member segment's
        // high byte is; a controller reads element 256 and a count of 0.
        MemberRow{"52 05 91 04 4E 30 30 37 29 00 00 01 00 00 00 00 00 00 00 00", 256, 0},
        MemberRow{"52 04 91 04 4E 30 30 37 28 05 02 00 00 00 00 00", 5, 2},              // 8-bit
        MemberRow{"52 06 91 04 4E 30 30 37 2A 00 07 00 00 00 02 00 00 00 00 00", 7, 2},  // 32-bit
        MemberRow{"52 03 91 04 4E 30 30 37 02 00 00 00 00 00", 0, 2}));                  // none

TEST(Decode, OddSymbolLengthIsPadded) {
    const TagRequest request = DecodeHex("52 05 91 03 4E 30 37 00 29 00 01 00 01 00 00 00 00 00");
    EXPECT_TRUE(request.status.ok());
    EXPECT_EQ(request.path.symbol, "N07");
    EXPECT_FALSE(request.path.named);
    EXPECT_EQ(request.path.element, 1u);
}

TEST(Decode, MalformedRequestsGetAStatusNeverAnOverrun) {
    struct Row {
        const char* hex;
        uint8_t status;
    };
    const Row rows[] = {
        {"", cip::kNotEnoughData},
        {"52", cip::kNotEnoughData},
        {"52 05 91 04 4E 30", cip::kPathSizeInvalid},  // path longer than the request
        {"52 05 92 04 4E 30 30 37 29 00 00 00 01 00 00 00 00 00",
         cip::kPathSegmentError},                                      // not a symbol
        {"52 02 91 09 4E 30", cip::kPathSegmentError},                 // name longer than the path
        {"52 05 91 04 4E 30 30 37 29 00 00 00", cip::kNotEnoughData},  // no count
        {"52 05 91 04 4E 30 30 37 29 00 00 00 01 00 00", cip::kNotEnoughData},  // short offset
        {"52 05 91 04 4E 30 30 37 2B 00 00 00 01 00 00 00 00 00",
         cip::kPathSegmentError},  // unknown segment
        {"52 04 91 04 4E 30 30 37 29 00 01 00 00 00 00 00",
         cip::kPathSegmentError},  // member cut short
        {"53 05 91 04 4E 30 30 37 29 00 00 00 C3 00 01 00 00 00", cip::kNotEnoughData},
        {"4E 05 91 04 4E 30 30 37 29 00 00 00 02 00 FF", cip::kNotEnoughData},
        {"4E 05 91 04 4E 30 30 37 29 00 00 00 FF FF 00 00", cip::kNotEnoughData},
        {"4B 05 91 04 4E 30 30 37 29 00 00 00 01 00", cip::kServiceNotSupported},
    };
    for (const auto& row : rows) {
        const TagRequest request = DecodeHex(row.hex);
        EXPECT_EQ(request.status.general, row.status) << row.hex;
    }
}

// ---------------------------------------------------------------- effects

TEST_F(ControllerTest, WriteThenReadIntegers) {
    const Bytes write = Ask(Hex(kDriverFrames[6].hex));  // N7:2 = 0x1234, N7:3 = 0x0010
    EXPECT_EQ(write.size(), 27u);
    EXPECT_EQ(memory.word('N', 7, 2), 0x1234);
    EXPECT_EQ(memory.word('N', 7, 3), 0x0010);
    EXPECT_EQ(memory.word('N', 7, 4), 0);

    const Bytes body = ReplyBody(AskCip(0x22, ReadRequest("N007", 2, 2)));
    ASSERT_EQ(body.size(), 26u);
    EXPECT_EQ(ToHex(Bytes(body.begin() + 20, body.end())), "C3 00 34 12 10 00");
}

TEST_F(ControllerTest, WriteReals) {
    Ask(Hex(kDriverFrames[8].hex));
    EXPECT_EQ(memory.real(8, 4), 1.5f);
    Ask(Hex(kDriverFrames[9].hex));
    EXPECT_EQ(memory.real(8, 0), 1.0f);
    EXPECT_EQ(memory.real(8, 1), 2.0f);
    Ask(Hex(kDriverFrames[10].hex));
    EXPECT_EQ(memory.real(8, 1), 0.0f);
    EXPECT_EQ(memory.real(8, 0), 1.0f);
}

TEST_F(ControllerTest, ReadModifyWriteSetsAndClearsOneBit) {
    memory.setWord('B', 3, 10, 0x8001);
    Ask(Hex(kDriverFrames[3].hex));  // set bit 5 of B3:10
    EXPECT_EQ(memory.word('B', 3, 10), 0x8021);

    memory.setWord('N', 7, 0, 0xFFFF);
    Ask(Hex(kDriverFrames[4].hex));  // clear bit 4 of N7:0
    EXPECT_EQ(memory.word('N', 7, 0), 0xFFEF);
    Ask(Hex(kDriverFrames[5].hex));  // set it again
    EXPECT_EQ(memory.word('N', 7, 0), 0xFFFF);
}

TEST_F(ControllerTest, BAndNFilesAreSeparate) {
    Ask(Hex(kDriverFrames[7].hex));  // B3:0 = 5
    EXPECT_EQ(memory.word('B', 3, 0), 5);
    memory.setWord('N', 3, 0, 0);  // no N3 in the default layout: nothing happens
    EXPECT_FALSE(memory.word('N', 3, 0).has_value());
}

// ---------------------------------------------------------------- layouts

TEST_F(ControllerTest, ReadReplyPutsFirstDataByteAt26) {
    memory.setWord('N', 7, 0, 0x0201);
    memory.setWord('N', 7, 1, 0x0403);
    const Bytes reply = Ask(Hex(kDriverFrames[0].hex));  // N7:0, 10 elements, TNS 0x21
    ASSERT_EQ(reply.size(), 49u);
    EXPECT_EQ(ToHex(Bytes(reply.begin(), reply.begin() + 30)),
              "10 06 10 02 00 00 4B 00 21 00 00 00 8A 00 00 00 01 00 04 00 D2 00 00 00 C3 00 01 "
              "02 03 04");
    EXPECT_EQ(reply[26], 0x01);
    EXPECT_EQ(ToHex(Bytes(reply.end() - 3, reply.end() - 1)), "10 03");
    ReplyBody(reply);
}

TEST_F(ControllerTest, RealReadReplyCarriesRealType) {
    memory.setReal(8, 4, 1.5f);
    const Bytes reply = Ask(Hex(kDriverFrames[2].hex));
    EXPECT_EQ(ToHex(reply),
              "10 06 10 02 00 00 4B 00 21 00 00 00 8A 00 00 00 01 00 04 00 D2 00 00 "
              "00 CA 00 00 00 C0 3F 10 03 " +
                  ToHex({reply.back()}));
    EXPECT_EQ(reply.size(), 33u);
}

TEST_F(ControllerTest, WriteReplyIs27Bytes) {
    for (int i : {6, 7, 8, 9, 10}) {
        const Bytes reply = Ask(Hex(kDriverFrames[i].hex));
        ASSERT_EQ(reply.size(), 27u) << kDriverFrames[i].name;
        EXPECT_EQ(reply[20], cip::kWriteTagFragmented | cip::kReplyFlag);
        EXPECT_EQ(reply[22], 0x00);
        ReplyBody(reply);
    }
    for (int i : {3, 4, 5}) {
        const Bytes reply = Ask(Hex(kDriverFrames[i].hex));
        ASSERT_EQ(reply.size(), 27u) << kDriverFrames[i].name;
        EXPECT_EQ(reply[20], cip::kReadModifyWriteTag | cip::kReplyFlag);
    }
    const Bytes reply = Ask(Hex(kDriverFrames[7].hex));
    EXPECT_EQ(ToHex(reply),
              "10 06 10 02 00 00 4B 00 42 00 00 00 8A 00 00 00 01 00 04 00 D3 00 00 00 10 03 " +
                  ToHex({reply.back()}));
    EXPECT_EQ(reply.back(),
              BlockCheck(Hex("00 00 4B 00 42 00 00 00 8A 00 00 00 01 00 04 00 D3 00 00 00")));
}

TEST_F(ControllerTest, DataByte0x10IsDoubledInTheReply) {
    memory.setWord('N', 7, 0, 0x1010);
    memory.setWord('N', 7, 1, 0x0001);
    const Bytes reply = AskCip(0x21, ReadRequest("N007", 0, 2));
    ASSERT_EQ(reply.size(), 35u);  // 33 + two doublings
    EXPECT_EQ(ToHex(Bytes(reply.begin() + 26, reply.end() - 3)), "10 10 10 10 01 00");
    EXPECT_EQ(ToHex(ReplyBody(reply)),
              "00 00 4B 00 21 00 00 00 8A 00 00 00 01 00 04 00 D2 00 00 00 "
              "C3 00 10 10 01 00");
}

TEST_F(ControllerTest, TransactionNumber0x10IsDoubledInTheReply) {
    // A requester's first frame may carry TNS 0x10 undoubled; the reply
    // doubles it, which moves every later byte up by one.
    const Bytes body = Concat(Header(0x10), ReadRequest("N007", 0, 1));
    Bytes frame = Hex("10 06 10 02");
    frame.insert(frame.end(), body.begin(), body.end());
    frame.push_back(0x10);
    frame.push_back(0x03);
    frame.push_back(BlockCheck(body));
    memory.setWord('N', 7, 0, 0x0302);
    const Bytes reply = Ask(frame);
    ASSERT_EQ(reply.size(), 32u);
    EXPECT_EQ(ToHex(Bytes(reply.begin(), reply.begin() + 11)), "10 06 10 02 00 00 4B 00 10 10 00");
    EXPECT_EQ(reply[27], 0x02);
    EXPECT_EQ(reply[28], 0x03);
    ReplyBody(reply);
}

TEST_F(ControllerTest, SwapsDstAndSrcAndEchoesTnsHighByte) {
    Bytes body = Concat(Hex("05 09 0B 00 33 44 00 00"), ReadRequest("N007", 0, 1));
    const Bytes reply = ReplyBody(Ask(peer::FrameRequest(body)));
    EXPECT_EQ(ToHex(Bytes(reply.begin(), reply.begin() + 6)), "09 05 4B 00 33 44");
}

// ---------------------------------------------------------------- errors

TEST_F(ControllerTest, UnknownTagIsPathSegmentError) {
    const Bytes reply = AskCip(0x21, ReadRequest("N009", 0, 10));
    EXPECT_EQ(ToHex(Bytes(reply.begin() + 12, reply.end() - 3)),
              "8A 00 1E 00 01 00 04 00 D2 00 04 00");
    EXPECT_EQ(reply.size(), 27u);
    const Bytes other = AskCip(0x21, ReadRequest("X007", 0, 1));
    EXPECT_EQ(other[22], cip::kPathSegmentError);
}

TEST_F(ControllerTest, ElementOutsideTheTagIsDestinationUnknown) {
    const Bytes reply = AskCip(0x21, ReadRequest("N007", 256, 1));
    EXPECT_EQ(reply.size(), 27u);
    EXPECT_EQ(reply[22], cip::kPathDestinationUnknown);
    EXPECT_EQ(reply[23], 0x00);
}

TEST_F(ControllerTest, RunningPastTheEndIsGeneralErrorWithExtendedStatus) {
    const Bytes reply = AskCip(0x21, ReadRequest("N007", 250, 10));
    ASSERT_EQ(reply.size(), 29u);
    EXPECT_EQ(ToHex(Bytes(reply.begin() + 12, reply.end() - 3)),
              "8A 00 1E 00 01 00 04 00 D2 00 FF 01 05 21");
    EXPECT_EQ(memory.word('N', 7, 250), 0);

    const Bytes write =
        AskCip(0x22, WriteRequest("N007", 255, cip::kTypeInt, 2, Hex("01 00 02 00")));
    ASSERT_EQ(write.size(), 29u);
    EXPECT_EQ(ToHex(Bytes(write.begin() + 20, write.end() - 3)), "D3 00 FF 01 05 21");
    EXPECT_EQ(memory.word('N', 7, 255), 0);
}

TEST_F(ControllerTest, WrongDataTypeOnWriteIsRefused) {
    const Bytes reply =
        AskCip(0x21, WriteRequest("N007", 0, cip::kTypeReal, 1, Hex("00 00 80 3F")));
    ASSERT_EQ(reply.size(), 29u);
    EXPECT_EQ(ToHex(Bytes(reply.begin() + 20, reply.end() - 3)), "D3 00 FF 01 07 21");
    EXPECT_EQ(memory.word('N', 7, 0), 0);
}

TEST_F(ControllerTest, DriverWriteOf256IntsNamesAnotherDataType) {
    // The count's high byte lands in the data type field: 0x01C3.
    Bytes values(512, 0x11);
    Bytes r = TagService(cip::kWriteTagFragmented, "N007", 0);
    r = Concat(r, Hex("C3 01 00 00 00 00 00 00"));
    const Bytes reply = AskCip(0x21, Multiple(Concat(r, values)));
    EXPECT_EQ(ToHex(Bytes(reply.begin() + 20, reply.end() - 3)), "D3 00 FF 01 07 21");
    EXPECT_EQ(memory.word('N', 7, 0), 0);
}

TEST_F(ControllerTest, ReadModifyWriteOnARealTagIsRefused) {
    Bytes r =
        Concat(TagService(cip::kReadModifyWriteTag, "F008", 0), Hex("02 00 01 00 FF FF 00 00"));
    const Bytes reply = AskCip(0x21, Multiple(r));
    EXPECT_EQ(ToHex(Bytes(reply.begin() + 20, reply.end() - 3)), "CE 00 FF 01 07 21");
}

TEST_F(ControllerTest, TooMuchAndTooLittleWriteData) {
    const Bytes more = AskCip(0x21, WriteRequest("N007", 0, cip::kTypeInt, 1, Hex("01 00 02 00")));
    EXPECT_EQ(more[22], cip::kTooMuchData);
    EXPECT_EQ(memory.word('N', 7, 0), 0);
    // Fewer bytes than the count asks for: a fragment, written as it is.
    const Bytes fragment = AskCip(0x22, WriteRequest("N007", 0, cip::kTypeInt, 2, Hex("07 00")));
    EXPECT_EQ(fragment[22], cip::kSuccess);
    EXPECT_EQ(memory.word('N', 7, 0), 7);
}

TEST_F(ControllerTest, NotEnoughDataAndUnsupportedService) {
    Bytes shortRead = Concat(TagService(cip::kReadTagFragmented, "N007", 0), Hex("01"));
    const Bytes a = AskCip(0x21, Multiple(shortRead));
    EXPECT_EQ(ToHex(Bytes(a.begin() + 20, a.end() - 3)), "D2 00 13 00");
    EXPECT_EQ(a[14], cip::kEmbeddedServiceError);

    Bytes other = Concat(TagService(0x4B, "N007", 0), Hex("01 00"));
    const Bytes b = AskCip(0x22, Multiple(other));
    EXPECT_EQ(ToHex(Bytes(b.begin() + 20, b.end() - 3)), "CB 00 08 00");
}

TEST_F(ControllerTest, MessageLevelErrors) {
    // Not the Message Router.
    const Bytes a = AskCip(0x21, Hex("0A 02 20 06 24 01 01 00 04 00"));
    EXPECT_EQ(ToHex(Bytes(a.begin() + 12, a.end() - 3)), "8A 00 05 00");
    // A service the controller does not offer here.
    const Bytes b = AskCip(0x22, Hex("01 02 20 01 24 01"));
    EXPECT_EQ(ToHex(Bytes(b.begin() + 12, b.end() - 3)), "81 00 08 00");
    // The offset table runs past the message.
    const Bytes c = AskCip(0x23, Hex("0A 02 20 02 24 01 03 00 08 00"));
    EXPECT_EQ(ToHex(Bytes(c.begin() + 12, c.end() - 3)), "8A 00 13 00");
    // An offset that points into the table.
    const Bytes d = AskCip(0x24, Hex("0A 02 20 02 24 01 01 00 01 00 52 00"));
    EXPECT_EQ(ToHex(Bytes(d.begin() + 12, d.end() - 3)), "8A 00 20 00");
}

TEST_F(ControllerTest, OtherCommandsGetIllegalCommandStatus) {
    const Bytes reply = ReplyBody(Ask(peer::FrameRequest(Hex("01 02 0F 00 07 00 00 00 0A"))));
    EXPECT_EQ(ToHex(reply), "02 01 4F 10 07 00");
    const Bytes empty = ReplyBody(Ask(peer::FrameRequest(Hex("01 02 0B 00 07 00 00 00"))));
    EXPECT_EQ(ToHex(empty), "02 01 4B 10 07 00");
}

TEST_F(ControllerTest, RepliesAndShortFramesAreNotAnswered) {
    EXPECT_TRUE(controller.receive(peer::FrameRequest(Hex("00 00 4B 00 21 00 00 00")), 0).empty());
    EXPECT_TRUE(controller.receive(peer::FrameRequest(Hex("00 00 0B 00 21")), 0).empty());
    EXPECT_EQ(controller.counters().ignored, 2u);
}

TEST_F(ControllerTest, LongReadIsAPartialTransferOfWholeElements) {
    // 244 application bytes: 8 before the embedded reply, 4 + 2 in it, so
    // 228 data bytes (114 INT) fit.
    const Bytes fits = ReplyBody(AskCip(0x21, ReadRequest("N007", 0, 114)));
    EXPECT_EQ(fits[18], cip::kSuccess);
    EXPECT_EQ(fits.size(), 6u + 244u);
    const Bytes partial = ReplyBody(AskCip(0x22, ReadRequest("N007", 0, 115)));
    EXPECT_EQ(partial[8], cip::kMultipleServicePacket | cip::kReplyFlag);
    EXPECT_EQ(partial[10], cip::kEmbeddedServiceError);
    EXPECT_EQ(partial[18], cip::kPartialTransfer);
    EXPECT_EQ(partial.size(), 6u + 244u);
    const Bytes reals = ReplyBody(AskCip(0x23, ReadRequest("F008", 0, 60)));
    EXPECT_EQ(reals[18], cip::kPartialTransfer);
    EXPECT_EQ(reals.size() - 22u, 57u * 4u);
}

TEST_F(ControllerTest, FragmentedReadHonoursByteOffset) {
    memory.setWord('N', 7, 3, 0xBEEF);
    Bytes r = Concat(TagService(cip::kReadTagFragmented, "N007", 0), Hex("05 00 06 00 00 00"));
    const Bytes body = ReplyBody(AskCip(0x21, Multiple(r)));
    EXPECT_EQ(ToHex(Bytes(body.begin() + 20, body.end())), "C3 00 EF BE 00 00");
    Bytes past = Concat(TagService(cip::kReadTagFragmented, "N007", 0), Hex("01 00 02 00 00 00"));
    const Bytes err = ReplyBody(AskCip(0x22, Multiple(past)));
    EXPECT_EQ(ToHex(Bytes(err.begin() + 16, err.end())), "D2 00 FF 01 04 21");
}

TEST_F(ControllerTest, SeveralEmbeddedServicesInOnePacket) {
    memory.setWord('N', 7, 1, 0x0102);
    Bytes read = Concat(TagService(cip::kReadTagFragmented, "N007", 1), Hex("01 00 00 00 00 00"));
    Bytes write = Concat(TagService(cip::kWriteTagFragmented, "B003", 2),
                         Hex("C3 00 01 00 00 00 00 00 AA 55"));
    Bytes cip = Hex("0A 02 20 02 24 01 02 00");
    cip.push_back(6);
    cip.push_back(0);
    cip.push_back(static_cast<uint8_t>(6 + read.size()));
    cip.push_back(0);
    cip = Concat(Concat(cip, read), write);
    const Bytes body = ReplyBody(AskCip(0x21, cip));
    EXPECT_EQ(ToHex(Bytes(body.begin() + 8, body.end())),
              "8A 00 00 00 02 00 06 00 0E 00 D2 00 00 00 C3 00 02 01 D3 00 00 00");
    EXPECT_EQ(memory.word('B', 3, 2), 0x55AA);
}

TEST_F(ControllerTest, UnwrappedServicesAreAnsweredToo) {
    memory.setWord('N', 7, 0, 0x4321);
    Bytes cip = Concat(TagService(cip::kReadTagFragmented, "N007", 0), Hex("01 00 00 00 00 00"));
    const Bytes body = ReplyBody(AskCip(0x21, cip));
    EXPECT_EQ(ToHex(Bytes(body.begin() + 8, body.end())), "D2 00 00 00 C3 00 21 43");
    Bytes plain = Concat(TagService(cip::kWriteTag, "N007", 1), Hex("C3 00 01 00 44 00"));
    const Bytes w = ReplyBody(AskCip(0x22, plain));
    EXPECT_EQ(ToHex(Bytes(w.begin() + 8, w.end())), "CD 00 00 00");
    EXPECT_EQ(memory.word('N', 7, 1), 0x44);
}

TEST(Cip, ArbitraryRequestBytesAreAnsweredSafely) {
    // Every prefix of every driver request, and byte-flipped copies of them,
    // decode and execute without reading outside the buffer.
    TagMemory memory;
    for (const auto& row : kDriverFrames) {
        const Bytes body = FirstBody(Hex(row.hex));
        const Bytes cip(body.begin() + 8, body.end());
        for (std::size_t n = 0; n <= cip.size(); ++n) {
            const Bytes part(cip.begin(), cip.begin() + static_cast<std::ptrdiff_t>(n));
            const Bytes reply = AnswerCipMessage(part.data(), part.size(), memory, 242);
            ASSERT_GE(reply.size(), 4u);
            EXPECT_EQ(reply[0] & 0x80, 0x80);
        }
        for (std::size_t i = 0; i < cip.size(); ++i) {
            for (uint8_t value : {0x00, 0x01, 0x10, 0x7F, 0x80, 0xFF}) {
                Bytes changed = cip;
                changed[i] = value;
                const Bytes reply = AnswerCipMessage(changed.data(), changed.size(), memory, 242);
                ASSERT_GE(reply.size(), 4u);
            }
        }
    }
}
