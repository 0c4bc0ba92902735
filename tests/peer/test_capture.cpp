// Line captures: how a direction's bytes are cut into packets (link symbols,
// data frames, remote frames, unframed bytes, the quiet gap, the size
// bound, the time of each packet's first byte), the pcapng file byte by
// byte (read while the writer still has it open), the capture of both
// directions, and the one-line descriptions.
#include "controller_end.h"

#include "peer/capture.h"
#include "peer/controller.h"
#include "peer/df1.h"
#include "peer/tag_memory.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

using peer::CapturedPacket;
using peer::CaptureSplitter;
namespace capture = peer::capture;
using Packets = std::vector<CapturedPacket>;

constexpr int64_t kGapNs = 50 * 1000 * 1000;
constexpr int64_t kStartNs = 1000 * 1000 * 1000;

// A read of N7:0, 10 elements, transaction 0x21, and a 16-bit write of
// 0x1234 and 0x0010 to N7:2 (its value byte 0x10 doubled), as the plug-in
// frames them.
const std::vector<uint8_t> kRead = Bytes(
    "10 06 10 02 00 00 0B 00 21 00 00 00 0A 02 20 02 24 01 01 00 04 00 52 05 91 04 4E 30 30 37 29 "
    "00 00 00 0A 00 00 00 00 00 00 00 10 03 78");
const std::vector<uint8_t> kWrite = Bytes(
    "10 06 10 02 00 00 0B 00 21 00 00 00 0A 02 20 02 24 01 01 00 04 00 53 05 91 04 4E 30 30 37 29 "
    "00 02 00 C3 00 02 00 00 00 00 00 34 12 10 10 00 10 03 64");
// Setting bit 5 of B3:10.
const std::vector<uint8_t> kSetBit = Bytes(
    "10 06 10 02 00 00 0B 00 21 00 00 00 0A 02 20 02 24 01 01 00 04 00 4E 05 91 04 42 30 30 33 29 "
    "00 0A 00 02 00 20 00 FF FF 00 00 10 03 6C");
// Remote read and write of N7:5 (station 2, link 1, var 0x01).
const std::vector<uint8_t> kRemoteRead =
    Bytes("16 01 00 01 02 00 03 00 00 07 05 00 0A 00 00 00 00 00 00 00 00 33");
const std::vector<uint8_t> kRemoteWrite =
    Bytes("18 01 00 01 02 00 03 00 00 07 05 00 01 00 00 00 00 00 00 00 00 34 12 72");

const std::vector<uint8_t> kAck = Bytes("10 06");

std::vector<uint8_t> Tail(const std::vector<uint8_t>& bytes, std::size_t from) {
    return std::vector<uint8_t>(bytes.begin() + static_cast<std::ptrdiff_t>(from), bytes.end());
}

std::vector<uint8_t> Join(std::initializer_list<std::vector<uint8_t>> parts) {
    std::vector<uint8_t> out;
    for (const auto& part : parts) out.insert(out.end(), part.begin(), part.end());
    return out;
}

// A splitter fed chunk by chunk; finish() cuts off the rest.
class Cutter {
public:
    explicit Cutter(capture::Direction direction = capture::kHostToController)
        : splitter(direction, kGapNs) {}
    Cutter& push(const std::vector<uint8_t>& bytes, int64_t atNs) {
        splitter.push(bytes.data(), bytes.size(), atNs, &packets);
        return *this;
    }
    // One byte a chunk, a microsecond apart, from atNs on.
    Cutter& trickle(const std::vector<uint8_t>& bytes, int64_t atNs) {
        for (std::size_t i = 0; i < bytes.size(); ++i)
            splitter.push(&bytes[i], 1, atNs + static_cast<int64_t>(i) * 1000, &packets);
        return *this;
    }
    Packets finish() {
        splitter.finish(&packets);
        return packets;
    }

    CaptureSplitter splitter;
    Packets packets;
};

struct Expected {
    capture::Kind kind;
    std::vector<uint8_t> bytes;
};

void ExpectPackets(const Packets& got, const std::vector<Expected>& want) {
    ASSERT_EQ(got.size(), want.size());
    for (std::size_t i = 0; i < want.size(); ++i) {
        EXPECT_EQ(got[i].kind, want[i].kind) << "packet " << i;
        EXPECT_EQ(got[i].bytes, want[i].bytes) << "packet " << i;
    }
}

std::vector<uint8_t> AllBytes(const Packets& packets) {
    std::vector<uint8_t> out;
    for (const auto& p : packets) out.insert(out.end(), p.bytes.begin(), p.bytes.end());
    return out;
}

}  // namespace

// ---- cutting ---------------------------------------------------------------

TEST(CaptureSplitter, LinkSymbolsArePacketsOfTheirOwn) {
    const Packets packets = Cutter().push(Bytes("10 06 10 15 10 05"), kStartNs).finish();
    ExpectPackets(packets, {{capture::kDf1Item, Bytes("10 06")},
                            {capture::kDf1Item, Bytes("10 15")},
                            {capture::kDf1Item, Bytes("10 05")}});
}

TEST(CaptureSplitter, AckAndFrameInOneChunkAreTwoPacketsWithDoubledDlesKept) {
    Cutter cutter;
    cutter.push(kWrite, kStartNs);
    // Complete when its block check came: nothing waits for the gap.
    ExpectPackets(cutter.packets,
                  {{capture::kDf1Item, kAck}, {capture::kDf1Item, Tail(kWrite, 2)}});
    EXPECT_TRUE(cutter.splitter.idle());
    EXPECT_EQ(cutter.packets[1].firstByteNs, kStartNs);
}

TEST(CaptureSplitter, FrameSplitIntoOneByteChunksIsCutTheSameWithItsFirstBytesTime) {
    Cutter cutter;
    cutter.trickle(kWrite, kStartNs);
    ExpectPackets(cutter.packets,
                  {{capture::kDf1Item, kAck}, {capture::kDf1Item, Tail(kWrite, 2)}});
    EXPECT_EQ(cutter.packets[0].firstByteNs, kStartNs);
    // The frame's DLE STX is the third byte.
    EXPECT_EQ(cutter.packets[1].firstByteNs, kStartNs + 2000);
}

TEST(CaptureSplitter, ChunksThatEndBetweenADleAndItsPartnerChangeNothing) {
    // Every cut of the write into two chunks, among them between the two
    // bytes of the doubled DLE and between DLE and ETX.
    for (std::size_t cut = 1; cut < kWrite.size(); ++cut) {
        Cutter cutter;
        cutter.push(std::vector<uint8_t>(kWrite.begin(), kWrite.begin() + static_cast<long>(cut)),
                    kStartNs);
        cutter.push(Tail(kWrite, cut), kStartNs + 1000);
        ExpectPackets(cutter.finish(),
                      {{capture::kDf1Item, kAck}, {capture::kDf1Item, Tail(kWrite, 2)}});
    }
}

TEST(CaptureSplitter, NoiseBeforeAndBetweenFramesIsUnframedAndCutWhenAFrameStarts) {
    Cutter cutter;
    cutter.push(Join({Bytes("01 02"), kRead, Bytes("FF 10 41 10 10"), kSetBit}), kStartNs);
    ExpectPackets(cutter.finish(), {{capture::kUnframed, Bytes("01 02")},
                                    {capture::kDf1Item, kAck},
                                    {capture::kDf1Item, Tail(kRead, 2)},
                                    {capture::kUnframed, Bytes("FF 10 41 10 10")},
                                    {capture::kDf1Item, kAck},
                                    {capture::kDf1Item, Tail(kSetBit, 2)}});
}

TEST(CaptureSplitter, UnframedBytesWaitForTheGap) {
    Cutter cutter;
    cutter.push(Bytes("55 AA"), kStartNs);
    cutter.push(Bytes("01"), kStartNs + kGapNs - 1);
    EXPECT_TRUE(cutter.packets.empty());
    EXPECT_EQ(cutter.splitter.quietDeadlineNs(), kStartNs + 2 * kGapNs - 1);
    cutter.splitter.flushQuiet(kStartNs + 2 * kGapNs - 2, &cutter.packets);
    EXPECT_TRUE(cutter.packets.empty());
    cutter.splitter.flushQuiet(kStartNs + 2 * kGapNs - 1, &cutter.packets);
    ExpectPackets(cutter.packets, {{capture::kUnframed, Bytes("55 AA 01")}});
    EXPECT_EQ(cutter.packets[0].firstByteNs, kStartNs);
    EXPECT_TRUE(cutter.splitter.idle());
    EXPECT_EQ(cutter.splitter.quietDeadlineNs(), INT64_MAX);
}

TEST(CaptureSplitter, TruncatedFrameFollowedByQuietIsUnframed) {
    const std::vector<uint8_t> cut(kRead.begin(), kRead.end() - 3);
    Cutter cutter;
    cutter.push(cut, kStartNs);
    ExpectPackets(cutter.packets, {{capture::kDf1Item, kAck}});
    cutter.splitter.flushQuiet(kStartNs + kGapNs, &cutter.packets);
    ExpectPackets(cutter.packets, {{capture::kDf1Item, kAck}, {capture::kUnframed, Tail(cut, 2)}});
    // The next frame, after the gap, is whole.
    cutter.push(kRead, kStartNs + 2 * kGapNs);
    EXPECT_EQ(cutter.packets.back().bytes, Tail(kRead, 2));
    EXPECT_EQ(cutter.packets.back().kind, capture::kDf1Item);
}

TEST(CaptureSplitter, FrameWithoutItsBlockCheckIsUnframedWhenTheLineGoesQuiet) {
    const std::vector<uint8_t> cut(kRead.begin(), kRead.end() - 1);
    Cutter cutter;
    cutter.push(cut, kStartNs);
    cutter.push(Bytes("78"), kStartNs + kGapNs);  // too late to be its block check
    ExpectPackets(cutter.finish(), {{capture::kDf1Item, kAck},
                                    {capture::kUnframed, Tail(cut, 2)},
                                    {capture::kUnframed, Bytes("78")}});
}

TEST(CaptureSplitter, FrameCutShortByTheNextOneIsUnframedWithoutWaiting) {
    const std::vector<uint8_t> cut(kRead.begin(), kRead.begin() + 20);
    Cutter cutter;
    cutter.push(Join({cut, kRead}), kStartNs);
    ExpectPackets(cutter.packets, {{capture::kDf1Item, kAck},
                                   {capture::kUnframed, Tail(cut, 2)},
                                   {capture::kDf1Item, kAck},
                                   {capture::kDf1Item, Tail(kRead, 2)}});
}

TEST(CaptureSplitter, LoneDleInsideAFrameIsData) {
    // A first transaction number 0x10 goes out undoubled: DLE 00.
    const std::vector<uint8_t> frame = Bytes("10 02 00 00 0B 00 10 00 00 00 10 03 E5");
    ExpectPackets(Cutter().push(frame, kStartNs).finish(), {{capture::kDf1Item, frame}});
}

TEST(CaptureSplitter, WrongBlockCheckIsStillAFrame) {
    std::vector<uint8_t> bad = kRead;
    bad.back() ^= 0xFF;
    ExpectPackets(Cutter().push(bad, kStartNs).finish(),
                  {{capture::kDf1Item, kAck}, {capture::kDf1Item, Tail(bad, 2)}});
}

TEST(CaptureSplitter, ZeroLengthChunksChangeNothing) {
    Cutter cutter;
    for (std::size_t i = 0; i < kRead.size(); ++i) {
        cutter.push({}, kStartNs + 10 * kGapNs);  // not even a late one
        cutter.push({kRead[i]}, kStartNs + static_cast<int64_t>(i));
    }
    cutter.push({}, kStartNs + 10 * kGapNs);
    ExpectPackets(cutter.finish(),
                  {{capture::kDf1Item, kAck}, {capture::kDf1Item, Tail(kRead, 2)}});
}

TEST(CaptureSplitter, SixtyFourKilobyteFrameIsOnePacket) {
    std::vector<uint8_t> body(65536);
    for (std::size_t i = 0; i < body.size(); ++i) body[i] = static_cast<uint8_t>(i * 7);
    const std::vector<uint8_t> frame = peer::FrameMessage(body);
    Cutter cutter;
    for (std::size_t at = 0; at < frame.size(); at += 4096)
        cutter.push(std::vector<uint8_t>(
                        frame.begin() + static_cast<long>(at),
                        frame.begin() + static_cast<long>(std::min(at + 4096, frame.size()))),
                    kStartNs + static_cast<int64_t>(at));
    ExpectPackets(cutter.finish(),
                  {{capture::kDf1Item, kAck}, {capture::kDf1Item, Tail(frame, 2)}});
}

TEST(CaptureSplitter, EndlessNoiseAndEndlessFramesAreCutIntoBoundedPackets) {
    // A megabyte of bytes that never form a frame, then one that starts a
    // frame and never ends it, then a good request.
    std::vector<uint8_t> noise(1 << 20, 0x55);
    std::vector<uint8_t> endless = Bytes("10 02");
    endless.resize(1 << 20, 0x66);
    Cutter cutter;
    for (const auto* part : {&noise, &endless}) {
        for (std::size_t at = 0; at < part->size(); at += 8192)
            cutter.push(std::vector<uint8_t>(part->begin() + static_cast<long>(at),
                                             part->begin() + static_cast<long>(at + 8192)),
                        kStartNs);
    }
    cutter.push(kRead, kStartNs);
    const Packets packets = cutter.finish();
    ASSERT_GE(packets.size(), 2u * (1 << 20) / capture::kLongestPacket);
    for (std::size_t i = 0; i + 2 < packets.size(); ++i) {
        EXPECT_EQ(packets[i].kind, capture::kUnframed);
        EXPECT_LE(packets[i].bytes.size(), capture::kLongestPacket + 2);
    }
    EXPECT_EQ(packets[packets.size() - 1].bytes, Tail(kRead, 2));
    EXPECT_EQ(AllBytes(packets), Join({noise, endless, kRead}));
}

TEST(CaptureSplitter, NoByteIsEverDroppedOrReordered) {
    std::mt19937 random(20240607);
    for (int round = 0; round < 50; ++round) {
        std::vector<uint8_t> line;
        while (line.size() < 4000) {
            const unsigned pick = random() % 4;
            const std::vector<uint8_t>& frame = pick == 0 ? kRead : pick == 1 ? kWrite : kSetBit;
            if (pick < 3) {
                line.insert(line.end(), frame.begin(),
                            frame.begin() + static_cast<long>(random() % frame.size() + 1));
            } else {
                for (unsigned i = random() % 20; i > 0; --i)
                    line.push_back(random() % 3 ? static_cast<uint8_t>(random())
                                                : static_cast<uint8_t>(peer::df1::kDle));
            }
        }
        Cutter cutter;
        int64_t now = kStartNs;
        for (std::size_t at = 0; at < line.size();) {
            const std::size_t n = std::min<std::size_t>(random() % 64, line.size() - at);
            cutter.push(std::vector<uint8_t>(line.begin() + static_cast<long>(at),
                                             line.begin() + static_cast<long>(at + n)),
                        now);
            at += n;
            now += random() % 3 == 0 ? kGapNs : 1000;
        }
        const Packets packets = cutter.finish();
        ASSERT_EQ(AllBytes(packets), line) << "round " << round;
        for (std::size_t i = 1; i < packets.size(); ++i)
            ASSERT_LE(packets[i - 1].firstByteNs, packets[i].firstByteNs);
    }
}

TEST(CaptureSplitter, RemoteFramesAreCutByTheirLengthByte) {
    Cutter cutter;
    cutter.splitter.setRemote(true);
    cutter.push(Join({Bytes("05 00"), kRemoteRead, kRemoteWrite}), kStartNs);
    ExpectPackets(cutter.finish(), {{capture::kUnframed, Bytes("05 00")},
                                    {capture::kRemoteFrame, kRemoteRead},
                                    {capture::kRemoteFrame, kRemoteWrite}});
}

TEST(CaptureSplitter, RemoteFrameCutShortIsUnframedAfterTheGap) {
    Cutter cutter;
    cutter.splitter.setRemote(true);
    cutter.trickle(std::vector<uint8_t>(kRemoteRead.begin(), kRemoteRead.begin() + 10), kStartNs);
    EXPECT_TRUE(cutter.packets.empty());
    cutter.push(kRemoteRead, kStartNs + kGapNs + 10000);
    ExpectPackets(
        cutter.finish(),
        {{capture::kUnframed, std::vector<uint8_t>(kRemoteRead.begin(), kRemoteRead.begin() + 10)},
         {capture::kRemoteFrame, kRemoteRead}});
    EXPECT_EQ(cutter.packets[0].firstByteNs, kStartNs);
    EXPECT_EQ(cutter.packets[1].firstByteNs, kStartNs + kGapNs + 10000);
}

TEST(CaptureSplitter, QuietGapIsTwentyByteTimesButNeverShort) {
    EXPECT_EQ(capture::QuietGapNs(1200), 20 * 10 * 1000000000LL / 1200);
    EXPECT_EQ(capture::QuietGapNs(115200), capture::kShortestQuietGapNs);
    EXPECT_EQ(capture::QuietGapNs(0), capture::kShortestQuietGapNs);
}

// ---- the file --------------------------------------------------------------

namespace {

class TempFile {
public:
    TempFile() {
        char name[] = "/tmp/abcl_capture_XXXXXX";
        const int fd = mkstemp(name);
        if (fd >= 0) close(fd);
        path = name;
    }
    ~TempFile() { std::remove(path.c_str()); }
    std::vector<uint8_t> read() const {
        std::ifstream in(path, std::ios::binary);
        return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), {});
    }
    std::string path;
};

uint32_t U32(const std::vector<uint8_t>& b, std::size_t at) {
    return static_cast<uint32_t>(b.at(at) | b.at(at + 1) << 8 | b.at(at + 2) << 16 |
                                 b.at(at + 3) << 24);
}
uint16_t U16(const std::vector<uint8_t>& b, std::size_t at) {
    return static_cast<uint16_t>(b.at(at) | b.at(at + 1) << 8);
}

// Walks the blocks of a pcapng file.
struct BlockView {
    uint32_t type;
    std::size_t start;
    uint32_t length;
};
std::vector<BlockView> Blocks(const std::vector<uint8_t>& file) {
    std::vector<BlockView> blocks;
    for (std::size_t at = 0; at + 12 <= file.size();) {
        const uint32_t length = U32(file, at + 4);
        if (length < 12 || length % 4 || at + length > file.size()) {
            ADD_FAILURE() << "bad block length " << length << " at " << at;
            break;
        }
        EXPECT_EQ(U32(file, at + length - 4), length) << "trailing length at " << at;
        blocks.push_back({U32(file, at), at, length});
        at += length;
    }
    return blocks;
}

CapturedPacket Packet(capture::Direction direction, capture::Kind kind, int64_t at,
                      std::vector<uint8_t> bytes) {
    CapturedPacket p;
    p.direction = direction;
    p.kind = kind;
    p.firstByteNs = at;
    p.bytes = std::move(bytes);
    return p;
}

int64_t NowNs(clockid_t clock) {
    timespec t{};
    clock_gettime(clock, &t);
    return static_cast<int64_t>(t.tv_sec) * 1000000000 + t.tv_nsec;
}

}  // namespace

TEST(CaptureWriter, HeadersAreASectionAndOneNanosecondUserZeroInterface) {
    TempFile file;
    peer::CaptureWriter writer;
    std::string error;
    ASSERT_TRUE(writer.open(file.path, "hostsim /dev/pts/3", &error)) << error;
    const std::vector<uint8_t> bytes = file.read();
    const std::vector<BlockView> blocks = Blocks(bytes);
    ASSERT_EQ(blocks.size(), 2u);

    EXPECT_EQ(blocks[0].type, 0x0A0D0D0Au);
    EXPECT_EQ(blocks[0].length, 28u);
    EXPECT_EQ(U32(bytes, 8), 0x1A2B3C4Du);
    EXPECT_EQ(U16(bytes, 12), 1u);
    EXPECT_EQ(U16(bytes, 14), 0u);
    EXPECT_EQ(std::vector<uint8_t>(bytes.begin() + 16, bytes.begin() + 24),
              std::vector<uint8_t>(8, 0xFF));

    const std::size_t idb = blocks[1].start;
    EXPECT_EQ(blocks[1].type, 1u);
    EXPECT_EQ(U16(bytes, idb + 8), 147u);
    EXPECT_EQ(U16(bytes, idb + 10), 0u);
    EXPECT_EQ(U32(bytes, idb + 12), 0u);  // snaplen: no limit
    // if_name: 18 characters padded to 20.
    EXPECT_EQ(U16(bytes, idb + 16), 2u);
    EXPECT_EQ(U16(bytes, idb + 18), 18u);
    EXPECT_EQ(std::string(bytes.begin() + static_cast<long>(idb) + 20,
                          bytes.begin() + static_cast<long>(idb) + 38),
              "hostsim /dev/pts/3");
    EXPECT_EQ(U16(bytes, idb + 38), 0u);
    // if_tsresol: 9, nanoseconds, padded to 4.
    EXPECT_EQ(U16(bytes, idb + 40), 9u);
    EXPECT_EQ(U16(bytes, idb + 42), 1u);
    EXPECT_EQ(U32(bytes, idb + 44), 9u);
    // End of options, then the trailing length.
    EXPECT_EQ(U32(bytes, idb + 48), 0u);
    EXPECT_EQ(blocks[1].length, 56u);
}

TEST(CaptureWriter, EachPacketIsAnEnhancedBlockInTheFileAtOnce) {
    TempFile file;
    peer::CaptureWriter writer;
    std::string error;
    ASSERT_TRUE(writer.open(file.path, "x", &error)) << error;
    const std::size_t headers = file.read().size();
    const CapturedPacket first =
        Packet(capture::kHostToController, capture::kDf1Item, 123456789, Tail(kRead, 2));
    const CapturedPacket second =
        Packet(capture::kControllerToHost, capture::kUnframed, 987654321012, Bytes("01 02 03"));

    ASSERT_TRUE(writer.write(first));
    // On disk while the writer is still open: nothing waits in a buffer.
    std::vector<uint8_t> bytes = file.read();
    ASSERT_EQ(Blocks(bytes).size(), 3u);
    ASSERT_TRUE(writer.write(second));
    bytes = file.read();
    const std::vector<BlockView> blocks = Blocks(bytes);
    ASSERT_EQ(blocks.size(), 4u);
    EXPECT_EQ(blocks[2].start, headers);

    const CapturedPacket* packets[] = {&first, &second};
    for (int i = 0; i < 2; ++i) {
        const BlockView& block = blocks[2 + i];
        const CapturedPacket& p = *packets[i];
        const std::size_t n = p.bytes.size() + 4;
        EXPECT_EQ(block.type, 6u);
        EXPECT_EQ(block.length, 32 + (n + 3) / 4 * 4) << "padded to 4";
        EXPECT_EQ(U32(bytes, block.start + 8), 0u);  // interface
        const uint64_t stamp = static_cast<uint64_t>(U32(bytes, block.start + 12)) << 32 |
                               U32(bytes, block.start + 16);
        EXPECT_EQ(stamp, static_cast<uint64_t>(p.firstByteNs + writer.wallOffsetNs()));
        EXPECT_EQ(U32(bytes, block.start + 20), n);  // captured
        EXPECT_EQ(U32(bytes, block.start + 24), n);  // original
        const auto data = bytes.begin() + static_cast<long>(block.start) + 28;
        EXPECT_EQ(std::vector<uint8_t>(data, data + 4),
                  std::vector<uint8_t>({p.direction, p.kind, 0, 0}));
        EXPECT_EQ(std::vector<uint8_t>(data + 4, data + static_cast<long>(n)), p.bytes);
        for (std::size_t pad = n; pad % 4; ++pad) EXPECT_EQ(*(data + static_cast<long>(pad)), 0);
    }
}

TEST(CaptureWriter, TimeStampsAreWallClockNanoseconds) {
    TempFile file;
    peer::CaptureWriter writer;
    ASSERT_TRUE(writer.open(file.path, "x", nullptr));
    const int64_t expected = NowNs(CLOCK_REALTIME) - NowNs(CLOCK_MONOTONIC);
    EXPECT_LT(std::llabs(writer.wallOffsetNs() - expected), 50 * 1000 * 1000);
}

TEST(CaptureWriter, AFileThatCannotBeWrittenIsAnErrorWithItsReason) {
    peer::CaptureWriter writer;
    std::string error;
    EXPECT_FALSE(writer.open("/nonexistent/dir/x.pcapng", "x", &error));
    EXPECT_NE(error.find("cannot write capture file /nonexistent/dir/x.pcapng"), std::string::npos)
        << error;
    EXPECT_FALSE(writer.isOpen());
    EXPECT_FALSE(writer.write(Packet(capture::kHostToController, capture::kUnframed, 0, {1})));
}

// ---- both directions -------------------------------------------------------

TEST(LineCapture, HostAndControllerTrafficGoTheirWaysAndCloseCutsOffTheRest) {
    TempFile file;
    peer::LineCapture line;
    std::string error;
    ASSERT_TRUE(line.open(file.path, "test", 19200, &error)) << error;
    Packets seen;
    line.setListener([&](const CapturedPacket& p) { seen.push_back(p); });

    const int64_t t = peer::MonotonicNs();
    line.recordHostTraffic(peer::Traffic::kSent, kRead.data(), kRead.size(), t);
    line.recordHostTraffic(peer::Traffic::kReceived, kAck.data(), kAck.size(), t + 1000);
    line.recordControllerTraffic(peer::Traffic::kReceived, kSetBit.data(), kSetBit.size(),
                                 t + 2000);
    line.recordControllerTraffic(peer::Traffic::kSent, Bytes("10 02 01").data(), 3, t + 3000);
    ASSERT_EQ(seen.size(), 5u);
    EXPECT_EQ(line.quietDeadlineNs(), t + 3000 + capture::QuietGapNs(19200));
    line.close();
    ASSERT_EQ(seen.size(), 6u);
    const capture::Direction ways[] = {capture::kHostToController, capture::kHostToController,
                                       capture::kControllerToHost, capture::kHostToController,
                                       capture::kHostToController, capture::kControllerToHost};
    for (std::size_t i = 0; i < seen.size(); ++i) EXPECT_EQ(seen[i].direction, ways[i]) << i;
    EXPECT_EQ(seen[5].kind, capture::kUnframed);
    EXPECT_EQ(line.packets(), 6u);
    EXPECT_EQ(Blocks(file.read()).size(), 8u);
}

TEST(LineCapture, StaleBytesOfTheOtherDirectionAreWrittenFirst) {
    TempFile file;
    peer::LineCapture line;
    ASSERT_TRUE(line.open(file.path, "test", 0, nullptr));
    Packets seen;
    line.setListener([&](const CapturedPacket& p) { seen.push_back(p); });
    const int64_t t = peer::MonotonicNs();
    line.record(capture::kControllerToHost, Bytes("AA BB").data(), 2, t);
    line.record(capture::kHostToController, kRead.data(), kRead.size(),
                t + capture::kShortestQuietGapNs);
    ASSERT_EQ(seen.size(), 3u);
    EXPECT_EQ(seen[0].bytes, Bytes("AA BB"));
    EXPECT_EQ(seen[1].bytes, kAck);
}

TEST(LineCapture, InRemoteModeOnlyTheRequestsAreRemoteFrames) {
    TempFile file;
    peer::LineCapture line;
    ASSERT_TRUE(line.open(file.path, "test", 0, nullptr));
    line.setRemote(true);
    Packets seen;
    line.setListener([&](const CapturedPacket& p) { seen.push_back(p); });
    const std::vector<uint8_t> reply = peer::FrameReply(Bytes("02 00 41 00 01 00 34 12"));
    line.record(capture::kHostToController, kRemoteRead.data(), kRemoteRead.size(), 1);
    line.record(capture::kControllerToHost, reply.data(), reply.size(), 2);
    ASSERT_EQ(seen.size(), 3u);
    EXPECT_EQ(seen[0].kind, capture::kRemoteFrame);
    EXPECT_EQ(seen[1].kind, capture::kDf1Item);
    EXPECT_EQ(seen[2].bytes, Tail(reply, 2));
}

// ---- one line a packet -----------------------------------------------------

namespace {

std::string DescribeLast(const std::vector<uint8_t>& bytes, bool remote = false,
                         capture::Direction direction = capture::kHostToController) {
    Cutter cutter(direction);
    cutter.splitter.setRemote(remote);
    const Packets packets = cutter.push(bytes, 0).finish();
    return packets.empty() ? "" : peer::DescribePacket(packets.back());
}

}  // namespace

TEST(DescribePacket, RequestsShowTheHeaderAndTheCipServiceInShort) {
    EXPECT_EQ(DescribeLast(kRead),
              "host>ctl DF1 DST 00 SRC 00 CMD 0B STS 00 TNS 0021 | Multiple Service Packet: "
              "Read Tag Fragmented N007[0] x10");
    EXPECT_EQ(DescribeLast(kWrite),
              "host>ctl DF1 DST 00 SRC 00 CMD 0B STS 00 TNS 0021 | Multiple Service Packet: "
              "Write Tag Fragmented N007[2] x2 = INT 4660 16");
    EXPECT_EQ(DescribeLast(kSetBit),
              "host>ctl DF1 DST 00 SRC 00 CMD 0B STS 00 TNS 0021 | Multiple Service Packet: "
              "Read-Modify-Write Tag B003[10] OR 0020 AND FFFF");
    const std::vector<uint8_t> real = Bytes(
        "10 06 10 02 00 00 0B 00 21 00 00 00 0A 02 20 02 24 01 01 00 04 00 53 05 91 04 46 30 30 38 "
        "29 00 04 00 CA 00 01 00 00 00 00 00 00 00 C0 3F 10 03 BA");
    EXPECT_NE(DescribeLast(real).find("Write Tag Fragmented F008[4] x1 = REAL 1.5"),
              std::string::npos);
}

TEST(DescribePacket, RepliesShowTheirStatusAndValues) {
    peer::TagMemory memory;
    memory.setWord('N', 7, 0, 4242);
    memory.setWord('N', 7, 1, static_cast<uint16_t>(-7));
    peer::Controller controller(memory);
    const auto replies = controller.receive(kRead, 0);
    ASSERT_EQ(replies.size(), 1u);
    EXPECT_EQ(
        DescribeLast(replies[0].bytes, false, capture::kControllerToHost),
        "ctl>host DF1 DST 00 SRC 00 CMD 4B STS 00 TNS 0021 | Multiple Service Packet reply "
        "status 00: Read Tag Fragmented reply status 00 INT 4242 -7 0 0 0 0 0 0 ... (10 values)");
    const auto written = controller.receive(kWrite, 0);
    ASSERT_EQ(written.size(), 1u);
    EXPECT_NE(DescribeLast(written[0].bytes).find("Write Tag Fragmented reply status 00"),
              std::string::npos);
}

TEST(DescribePacket, WrongBlockCheckIsSaid) {
    std::vector<uint8_t> bad = kRead;
    bad.back() = 0x77;
    const std::string line = DescribeLast(bad);
    EXPECT_NE(line.find("Read Tag Fragmented N007[0] x10"), std::string::npos) << line;
    EXPECT_NE(line.find("bad BCC 77, the body gives 78"), std::string::npos) << line;
    EXPECT_EQ(DescribeLast(kRead).find("bad BCC"), std::string::npos);
}

TEST(DescribePacket, RemoteFramesFieldByField) {
    EXPECT_EQ(DescribeLast(kRemoteRead, true),
              "host>ctl remote read len 22 var 01 aux2 00 link 01 station 02 type 3 address "
              "00000705 count 10 aux12 00000000 aux13 00000000 sum 33");
    EXPECT_EQ(DescribeLast(kRemoteWrite, true),
              "host>ctl remote write len 24 var 01 aux2 00 link 01 station 02 type 3 address "
              "00000705 count 1 aux12 00000000 aux13 00000000 data 34 12 sum 72");
    std::vector<uint8_t> bad = kRemoteRead;
    bad.back() = 0x34;
    EXPECT_NE(DescribeLast(bad, true).find("sum 34 | bad checksum, the bytes give 33"),
              std::string::npos);
    // The replies come back in the DF1 envelope.
    EXPECT_EQ(DescribeLast(peer::FrameReply(Bytes("02 00 41 00 01 00 34 12")), false,
                           capture::kControllerToHost),
              "ctl>host DF1 DST 02 SRC 00 CMD 41 STS 00 TNS 0001 | remote read reply: 34 12");
    EXPECT_EQ(DescribeLast(peer::FrameReply(Bytes("02 00 42 00 02 00 06")), false,
                           capture::kControllerToHost),
              "ctl>host DF1 DST 02 SRC 00 CMD 42 STS 00 TNS 0002 | remote write reply: written");
}

TEST(DescribePacket, LinkSymbolsAndUnframedBytes) {
    EXPECT_EQ(DescribeLast(Bytes("10 06")), "host>ctl DLE ACK");
    EXPECT_EQ(DescribeLast(Bytes("10 15"), false, capture::kControllerToHost), "ctl>host DLE NAK");
    EXPECT_EQ(DescribeLast(Bytes("10 05")), "host>ctl DLE ENQ");
    EXPECT_EQ(DescribeLast(Bytes("01 02 03")), "host>ctl 3 bytes not a frame: 01 02 03");
    EXPECT_EQ(DescribeLast(std::vector<uint8_t>(40, 0xAB)),
              "host>ctl 40 bytes not a frame: AB AB AB AB AB AB AB AB AB AB AB AB AB AB AB AB ...");
}

// ---- the host's end of a line ----------------------------------------------

TEST(HostPortObserver, SeesEveryByteSentAndReceivedIncludingWhatTheExchangeDrops) {
    ControllerEnd controller;
    peer::HostPort port;
    std::string error;
    ASSERT_TRUE(port.open(controller.peerPath(), 19200, &error)) << error;
    std::vector<uint8_t> sent;
    std::vector<uint8_t> received;
    int64_t lastNs = 0;
    bool timesInOrder = true;
    port.setObserver(
        [&](peer::Traffic traffic, const uint8_t* bytes, std::size_t n, int64_t nowNs) {
            std::vector<uint8_t>& to = traffic == peer::Traffic::kSent ? sent : received;
            to.insert(to.end(), bytes, bytes + n);
            timesInOrder = timesInOrder && nowNs >= lastNs;
            lastNs = nowNs;
        });
    const std::vector<uint8_t> reply = peer::FrameReply(Bytes("00 00 4B 00 21 00 00 00"));
    const std::vector<uint8_t> late = Bytes("55 66");
    std::vector<uint8_t> taken;

    // Bytes after the reply are not the exchange's, but they crossed the
    // line; so do the ones the next exchange drops as stale.
    controller.answer(kRead.size(), Join({reply, late}));
    EXPECT_EQ(port.exchange(kRead.data(), kRead.size(), 3000, -1, &taken),
              peer::LineOutcome::kReply);
    EXPECT_EQ(taken, reply);
    EXPECT_EQ(controller.request(), kRead);
    controller.answer(kRead.size(), reply);
    EXPECT_EQ(port.exchange(kRead.data(), kRead.size(), 3000, -1, &taken),
              peer::LineOutcome::kReply);
    EXPECT_EQ(taken, reply);
    EXPECT_EQ(controller.request(), kRead);

    EXPECT_EQ(sent, Join({kRead, kRead}));
    EXPECT_EQ(received, Join({reply, late, reply}));
    EXPECT_TRUE(timesInOrder);
}
