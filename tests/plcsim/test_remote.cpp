// The remote-mode partner: decoding the remote link's raw frames, carrying
// them out on the tag memory and the replies' layout.
#include "plcsim_test_support.h"

#include "peer/controller.h"
#include "peer/df1.h"
#include "peer/remote_link.h"

#include <gtest/gtest.h>

#include <optional>

using namespace peer;

namespace {

const char kReadExample[] = "16 01 00 01 02 00 03 00 00 07 05 00 0A 00 00 00 00 00 00 00 00 33";
const char kWriteExample[] =
    "18 01 00 01 02 00 03 00 00 07 05 00 01 00 00 00 00 00 00 00 00 34 12 72";

// A remote frame with the given fields, length and checksum filled in.
Bytes RemoteFrame(uint8_t station, uint16_t dataType, uint32_t address, uint16_t count,
                  const Bytes& data = {}, uint8_t aux2 = 0) {
    Bytes f = {0,
               0x07,
               aux2,
               0x01,
               station,
               static_cast<uint8_t>(dataType >> 8),
               static_cast<uint8_t>(dataType),
               static_cast<uint8_t>(address >> 24),
               static_cast<uint8_t>(address >> 16),
               static_cast<uint8_t>(address >> 8),
               static_cast<uint8_t>(address),
               static_cast<uint8_t>(count >> 8),
               static_cast<uint8_t>(count),
               0,
               0,
               0,
               0,
               0,
               0,
               0,
               0};
    f.insert(f.end(), data.begin(), data.end());
    f[0] = static_cast<uint8_t>(f.size() + 1);
    f.push_back(RemoteChecksum(f));
    return f;
}

std::optional<RemoteRequest> DecodeHex(const char* hex) {
    const Bytes frame = Hex(hex);
    return DecodeRemoteFrame(frame.data(), frame.size());
}

class RemoteTest : public ::testing::Test {
protected:
    RemoteTest() : controller(memory, Options()) {}
    static ControllerOptions Options() {
        ControllerOptions o;
        o.mode = LinkMode::kRemote;
        return o;
    }
    Bytes Ask(const Bytes& frame) { return OnlyReply(controller, frame); }

    TagMemory memory;
    Controller controller;
};

}  // namespace

TEST(RemoteFrame, DecodesTheReadExample) {
    const auto r = DecodeHex(kReadExample);
    ASSERT_TRUE(r.has_value());
    EXPECT_EQ(r->length, 22);
    EXPECT_EQ(r->varId, 0x01);
    EXPECT_EQ(r->aux2, 0);
    EXPECT_EQ(r->linkNo, 1);
    EXPECT_EQ(r->station, 2);
    EXPECT_EQ(r->dataType, remote::kWordOfN);
    EXPECT_EQ(r->address, 0x705u);
    EXPECT_EQ(r->count, 10);
    EXPECT_TRUE(r->data.empty());
    EXPECT_FALSE(r->isWrite());
}

TEST(RemoteFrame, DecodesTheWriteExample) {
    const auto r = DecodeHex(kWriteExample);
    ASSERT_TRUE(r.has_value());
    EXPECT_EQ(r->length, 24);
    EXPECT_EQ(r->count, 1);
    EXPECT_EQ(ToHex(r->data), "34 12");
    EXPECT_TRUE(r->isWrite());
}

TEST(RemoteFrame, RejectsWrongLengthChecksumOrSize) {
    Bytes frame = Hex(kReadExample);
    EXPECT_FALSE(DecodeRemoteFrame(frame.data(), frame.size() - 1).has_value());
    frame.back() ^= 1;
    EXPECT_FALSE(DecodeRemoteFrame(frame.data(), frame.size()).has_value());
    Bytes shortFrame = Hex("04 00 00 04");
    EXPECT_FALSE(DecodeRemoteFrame(shortFrame.data(), shortFrame.size()).has_value());
}

TEST(RemoteReceiver, FindsFramesSplitAndAfterNoise) {
    RemoteReceiver receiver;
    std::vector<RemoteEvent> events;
    // Bytes below 22 cannot start a frame.
    for (uint8_t b : Hex("00 05 10 15")) receiver.push(b, &events);
    EXPECT_TRUE(events.empty());
    EXPECT_TRUE(receiver.idle());
    const Bytes frame = Hex(kWriteExample);
    for (uint8_t b : frame) receiver.push(b, &events);
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].kind, RemoteEvent::Kind::kFrame);
    EXPECT_EQ(events[0].frame, frame);
}

TEST(RemoteReceiver, ResynchronisesAfterABadChecksum) {
    RemoteReceiver receiver;
    std::vector<RemoteEvent> events;
    // A stray 0x20 looks like the start of a 32-byte frame; it swallows the
    // next frame until its checksum fails, then the search restarts one byte
    // on and finds the real frame.
    const Bytes frame = Hex(kReadExample);
    Bytes stream = Concat(Hex("20"), frame);
    stream = Concat(stream, Hex(kWriteExample));
    for (uint8_t b : stream) receiver.push(b, &events);
    ASSERT_GE(events.size(), 3u);
    EXPECT_EQ(events[0].kind, RemoteEvent::Kind::kBadChecksum);
    EXPECT_EQ(events[events.size() - 2].frame, frame);
    EXPECT_EQ(events.back().frame, Hex(kWriteExample));
}

TEST(RemoteTransaction, SkipsDleAndZero) {
    EXPECT_EQ(NextRemoteTransaction(1), 2);
    EXPECT_EQ(NextRemoteTransaction(15), 17);
    EXPECT_EQ(NextRemoteTransaction(16), 17);
    EXPECT_EQ(NextRemoteTransaction(254), 1);
    EXPECT_EQ(NextRemoteTransaction(255), 1);
}

TEST_F(RemoteTest, ReadReplyHasDataFromPosition10) {
    for (int i = 0; i < 10; ++i)
        memory.setWord('N', 7, 5 + i, static_cast<uint16_t>(0x0100 * i + 0x21));
    const Bytes reply = Ask(Hex(kReadExample));
    ASSERT_EQ(reply.size(), 33u);
    EXPECT_EQ(ToHex(Bytes(reply.begin(), reply.begin() + 14)),
              "10 06 10 02 02 00 41 00 01 00 21 00 21 01");
    EXPECT_EQ(reply[reply.size() - 3], df1::kDle);
    EXPECT_EQ(reply[reply.size() - 2], df1::kEtx);
    const Bytes body(reply.begin() + 4, reply.end() - 3);
    EXPECT_EQ(BlockCheck(body), reply.back());
}

TEST_F(RemoteTest, ShortReadReplyIsPaddedTo27Bytes) {
    memory.setWord('B', 3, 1, 0xA55A);
    const Bytes reply = Ask(RemoteFrame(2, remote::kWordOfB, 0x301, 1));
    ASSERT_EQ(reply.size(), 27u);
    EXPECT_EQ(ToHex(reply),
              "10 06 10 02 02 00 41 00 01 00 5A A5 00 00 00 00 00 00 00 00 00 00 00 "
              "00 10 03 " +
                  ToHex({reply.back()}));
}

TEST_F(RemoteTest, WriteReplyIs14BytesAndChangesMemory) {
    const Bytes reply = Ask(Hex(kWriteExample));
    EXPECT_EQ(memory.word('N', 7, 5), 0x1234);
    ASSERT_EQ(reply.size(), 14u);
    EXPECT_EQ(ToHex(Bytes(reply.begin(), reply.end() - 1)),
              "10 06 10 02 02 00 42 00 01 00 06 10 03");
    EXPECT_EQ(reply.back(), BlockCheck(Hex("02 00 42 00 01 00 06")));
}

TEST_F(RemoteTest, StationAndTransaction0x10AreDoubled) {
    const Bytes write = Ask(RemoteFrame(0x10, remote::kWordOfN, 0x700, 1, Hex("01 00"), 1));
    ASSERT_EQ(write.size(), 15u);
    EXPECT_EQ(ToHex(Bytes(write.begin(), write.begin() + 6)), "10 06 10 02 10 10");

    ControllerOptions options;
    options.mode = LinkMode::kRemote;
    options.remoteTransactionStart = 0x10;
    Controller sixteen(memory, options);
    memory.setWord('N', 7, 0, 0x0201);
    const auto out = sixteen.receive(RemoteFrame(0x10, remote::kWordOfN, 0x700, 1), 0);
    ASSERT_EQ(out.size(), 1u);
    const Bytes& read = out[0].bytes;
    // Station and transaction both doubled: the data start at 12.
    EXPECT_EQ(ToHex(Bytes(read.begin(), read.begin() + 14)),
              "10 06 10 02 10 10 00 41 00 10 10 00 01 02");
    EXPECT_EQ(read.size(), 29u);
    // The next reply carries transaction 0x11.
    const auto next = sixteen.receive(RemoteFrame(0x02, remote::kWordOfN, 0x700, 1), 0);
    ASSERT_EQ(next.size(), 1u);
    EXPECT_EQ(next[0].bytes[8], 0x11);
}

TEST_F(RemoteTest, TransactionAdvancesPerReply) {
    const Bytes a = Ask(RemoteFrame(2, remote::kWordOfN, 0x700, 1));
    const Bytes b = Ask(RemoteFrame(2, remote::kWordOfN, 0x700, 1));
    EXPECT_EQ(a[8], 0x01);
    EXPECT_EQ(b[8], 0x02);
}

TEST_F(RemoteTest, RealsAreReadAndWrittenFourBytesEach) {
    memory.setReal(8, 3, 1.5f);
    const Bytes read = Ask(RemoteFrame(2, remote::kReal, 0x803, 2));
    ASSERT_EQ(read.size(), 27u);
    EXPECT_EQ(ToHex(Bytes(read.begin() + 10, read.begin() + 18)), "00 00 C0 3F 00 00 00 00");

    // A write carries count in 16-bit words (4 for two REALs) and 8 bytes.
    Ask(RemoteFrame(2, remote::kReal, 0x800, 4, Hex("00 00 80 3F 00 00 00 40"), 1));
    EXPECT_EQ(memory.real(8, 0), 1.0f);
    EXPECT_EQ(memory.real(8, 1), 2.0f);
}

TEST_F(RemoteTest, BitWritesUseTheBitAddress) {
    memory.setWord('N', 7, 10, 0x0000);
    // N7:10/3, one byte per bit: 1 sets, anything else clears.
    const uint32_t bit = (7 * 256 + 10) * 16 + 3;
    Ask(RemoteFrame(2, remote::kBitOfN, bit, 1, Hex("01"), 1));
    EXPECT_EQ(memory.word('N', 7, 10), 0x0008);
    Ask(RemoteFrame(2, remote::kBitOfN, bit, 3, Hex("00 01 05"), 1));
    EXPECT_EQ(memory.word('N', 7, 10), 0x0010);
    memory.setWord('B', 3, 255, 0);
    const Bytes reply =
        Ask(RemoteFrame(2, remote::kBitOfB, (3 * 256 + 255) * 16 + 15, 2, Hex("01 01"), 1));
    EXPECT_EQ(reply[10], remote::kWriteRefused);  // the second bit lies past B3's end
    EXPECT_EQ(memory.word('B', 3, 255), 0);
}

TEST_F(RemoteTest, BitTypeReadsAreWordReads) {
    memory.setWord('B', 3, 4, 0x8001);
    const Bytes reply = Ask(RemoteFrame(2, remote::kBitOfB, 0x304, 1));
    EXPECT_EQ(ToHex(Bytes(reply.begin() + 10, reply.begin() + 12)), "01 80");
}

TEST_F(RemoteTest, ErrorsKeepTheReplyLengths) {
    const Bytes unknown = Ask(RemoteFrame(2, remote::kWordOfN, 0x300, 1));  // N3 does not exist
    ASSERT_EQ(unknown.size(), 27u);
    EXPECT_EQ(unknown[7], remote::kStsNoSuchAddress);
    const Bytes past = Ask(RemoteFrame(2, remote::kWordOfN, 0x7FF, 2));
    EXPECT_EQ(past[7], remote::kStsNoSuchAddress);
    const Bytes type = Ask(RemoteFrame(2, 9, 0x700, 1));
    EXPECT_EQ(type[7], remote::kStsTypeNotSupported);
    const Bytes refused = Ask(RemoteFrame(2, remote::kWordOfN, 0x7FF, 2, Hex("01 00 02 00"), 1));
    ASSERT_EQ(refused.size(), 14u);
    EXPECT_EQ(refused[7], remote::kStsNoSuchAddress);
    EXPECT_EQ(refused[10], remote::kWriteRefused);
    EXPECT_EQ(memory.word('N', 7, 255), 0);
    const Bytes odd = Ask(RemoteFrame(2, remote::kWordOfN, 0x700, 1, Hex("01"), 1));
    EXPECT_EQ(odd[7], remote::kStsNotEnoughData);
}

TEST_F(RemoteTest, EmptyWriteMarkedInAux2IsAWriteOfNothing) {
    const Bytes reply = Ask(RemoteFrame(2, remote::kWordOfN, 0x700, 0, {}, 1));
    ASSERT_EQ(reply.size(), 14u);
    EXPECT_EQ(reply[10], remote::kWriteDone);
}

TEST_F(RemoteTest, DirectModeFramesAreNotRemoteFrames) {
    // A DF1 request starts with 0x10, which cannot be a remote frame length.
    EXPECT_TRUE(controller.receive(Hex("10 06 10 02 00 00 0B 00 21 00 00 00 10 03 D4"), 0).empty());
    EXPECT_EQ(controller.counters().framesReceived, 0u);
}

TEST_F(RemoteTest, BadChecksumIsCountedAndNotAnswered) {
    Bytes frame = Hex(kReadExample);
    frame.back() ^= 0x01;
    EXPECT_TRUE(controller.receive(frame, 0).empty());
    EXPECT_EQ(controller.counters().badFrames, 1u);
    controller.resetReceiver();
    EXPECT_EQ(controller.receive(Hex(kReadExample), 0).size(), 1u);
}
