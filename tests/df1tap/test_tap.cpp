// hostsim -> df1tap -> plcsim over two pseudo-terminals: the values come out
// exactly as without the tap, and the three captures (the host's, the tap's,
// the controller's) hold the same packets. Then the tap between the test's
// own ends: noise, cut frames and 64 KiB bursts are forwarded unchanged,
// captured as unframed where they are no frames, and the tap keeps running;
// a side that goes away ends it with a clear message. ABCL_TEST_LABEL_THREAD
#include "../capture_file.h"
#include "../hostsim/hostsim_run.h"
#include "../plcsim/line_client.h"
#include "../spawned_program.h"

#include "peer/capture.h"
#include "peer/df1.h"
#include "peer/line.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <memory>
#include <regex>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

constexpr uint8_t kToController = 0;
constexpr uint8_t kToHost = 1;
constexpr uint8_t kItem = 0;
constexpr uint8_t kUnframed = 2;

// The host's and the controller's programs pace their bytes at this rate.
const char* const kLineBaud = "115200";
// The tap's own rate only sets its quiet gap (pseudo-terminals carry bytes
// at any rate): 20 byte times at 50 baud is 4 s, so no pause of a loaded
// machine in the middle of a frame makes the tap cut it.
const char* const kTapBaud = "50";

const std::vector<std::string> kHostArgs = {
    "--baud",   kLineBaud, "--plain",  "--timeout-ms", "2000",    "--tag",     "N7:0 x4",
    "--tag",    "F8:0 x2", "--tag",    "B3:0/5",       "--write", "N7:3=1234", "--write",
    "F8:1=2.5", "--write", "B3:0/5=1", "--exchanges",  "24"};
const char* const kTags[] = {"N7:0 x4", "F8:0 x2", "B3:0/5"};

std::string TempPath(const std::string& name) {
    return "/tmp/abcl_tap_" + std::to_string(getpid()) + "_" + name + ".pcapng";
}

// The captures a run leaves, removed with it.
struct Files {
    explicit Files(const std::string& run)
        : host(TempPath(run + "_host")), tap(TempPath(run + "_tap")), plc(TempPath(run + "_plc")) {}
    ~Files() {
        for (const std::string* path : {&host, &tap, &plc}) std::remove(path->c_str());
    }
    std::string host, tap, plc;
};

std::unique_ptr<SpawnedProgram> StartPlcsim(const std::string& capture,
                                            std::vector<std::string> more) {
    std::vector<std::string> args = {"--print-path", "--no-live", "--baud",
                                     kLineBaud,      "--capture", capture};
    args.insert(args.end(), more.begin(), more.end());
    return std::make_unique<SpawnedProgram>(TOOL_LAUNCHER, PLCSIM_PATH, args);
}

std::unique_ptr<SpawnedProgram> StartTap(const std::string& sideB, const std::string& capture,
                                         std::vector<std::string> more = {}) {
    std::vector<std::string> args = {"--a-pty", "--print-path", "--b",       sideB,
                                     "--baud",  kTapBaud,       "--capture", capture};
    args.insert(args.end(), more.begin(), more.end());
    return std::make_unique<SpawnedProgram>(TOOL_LAUNCHER, DF1TAP_PATH, args);
}

// Ends a program with SIGTERM; its exit code must be 0.
void Stop(SpawnedProgram& program, const char* what) {
    program.signal(SIGTERM);
    EXPECT_EQ(program.wait(), 0) << what << ":\n" << program.err();
}

// A packet in words, its transaction number left out: two runs of the
// plug-in start from different transaction numbers.
std::vector<std::string> Described(const CaptureFile& file) {
    std::vector<std::string> lines;
    for (const FilePacket& p : file.packets) {
        peer::CapturedPacket packet;
        packet.direction = static_cast<peer::capture::Direction>(p.direction);
        packet.kind = static_cast<peer::capture::Kind>(p.kind);
        packet.bytes = p.bytes;
        lines.push_back(std::regex_replace(peer::DescribePacket(packet),
                                           std::regex("TNS [0-9A-F]{4}"), "TNS ...."));
    }
    return lines;
}

// The exchanges in words (request and reply), a run of the same exchange
// taken once: the plug-in's very first request may carry the transaction
// number 0x10, whose reply is one byte longer than the plug-in expects, so
// by chance a run repeats its first exchange.
std::vector<std::string> DistinctExchanges(const CaptureFile& file) {
    const std::vector<std::string> lines = Described(file);
    std::vector<std::string> exchanges;
    for (std::size_t i = 0; i + 4 <= lines.size(); i += 4) {
        const std::string exchange = lines[i + 1] + " / " + lines[i + 3];
        if (exchanges.empty() || exchanges.back() != exchange) exchanges.push_back(exchange);
    }
    return exchanges;
}

// Two runs of the same number of exchanges went the same way: one's
// distinct exchanges begin the other's, and a repeat cost at most one.
void ExpectSameCourse(const CaptureFile& a, const CaptureFile& b) {
    const std::vector<std::string> first = DistinctExchanges(a);
    const std::vector<std::string> second = DistinctExchanges(b);
    const auto& shorter = first.size() <= second.size() ? first : second;
    const auto& longer = first.size() <= second.size() ? second : first;
    EXPECT_LE(longer.size() - shorter.size(), 1u);
    EXPECT_TRUE(std::equal(shorter.begin(), shorter.end(), longer.begin()))
        << ::testing::PrintToString(first) << "\n"
        << ::testing::PrintToString(second);
}

// The same bytes both ways. Each capture cuts its packets where the line
// falls quiet for a few characters' time, so on a loaded machine a pause
// inside a frame can cut it in one capture and not in another: the bytes
// are compared, and the packets only when they were cut alike.
void ExpectSamePackets(const CaptureFile& a, const CaptureFile& b, const char* what) {
    for (uint8_t direction : {uint8_t{0}, uint8_t{1}})
        EXPECT_EQ(a.stream(direction), b.stream(direction))
            << what << ", direction " << int(direction);
    if (a.packets.size() != b.packets.size()) return;
    for (std::size_t i = 0; i < a.packets.size(); ++i)
        EXPECT_TRUE(a.packets[i] == b.packets[i]) << what << ", packet " << i;
}

// Every packet a DLE ACK or a data frame, and every request answered.
void ExpectWholeExchanges(const CaptureFile& file, std::size_t exchanges) {
    ASSERT_EQ(file.packets.size(), 4 * exchanges);
    for (std::size_t i = 0; i < file.packets.size(); ++i) {
        EXPECT_EQ(int(file.packets[i].kind), int(kItem)) << i;
        EXPECT_EQ(int(file.packets[i].direction), int(i % 4 < 2 ? kToController : kToHost)) << i;
    }
}

// hostsim against plcsim, through the tap when `tapped`; every program in
// remote mode when `remote`.
HostsimRun RunLine(const Files& files, bool tapped, bool remote = false) {
    const std::vector<std::string> mode =
        remote ? std::vector<std::string>{"--remote"} : std::vector<std::string>{};
    auto plcsim = StartPlcsim(files.plc, mode);
    std::string port = plcsim->firstLine();
    EXPECT_FALSE(port.empty()) << plcsim->err();
    std::unique_ptr<SpawnedProgram> tap;
    if (tapped) {
        std::vector<std::string> tapArgs = {"--quiet"};
        tapArgs.insert(tapArgs.end(), mode.begin(), mode.end());
        tap = StartTap(port, files.tap, tapArgs);
        port = tap->firstLine();
        EXPECT_FALSE(port.empty()) << tap->err();
    }
    std::vector<std::string> args = kHostArgs;
    args.insert(args.end(), {"--port", port, "--capture", files.host});
    args.insert(args.end(), mode.begin(), mode.end());
    const HostsimRun run = RunHostsim(args);
    if (tap) Stop(*tap, "df1tap");
    Stop(*plcsim, "plcsim");
    return run;
}

}  // namespace

TEST(Tap, ValuesAndPacketsAreTheSameWithAndWithoutTheTap) {
    const Files direct("direct");
    const Files tapped("tapped");
    const HostsimRun without = RunLine(direct, false);
    const HostsimRun with = RunLine(tapped, true);
    ASSERT_EQ(without.exitCode, 0) << without.output;
    ASSERT_EQ(with.exitCode, 0) << with.output;
    for (const char* tag : kTags) {
        EXPECT_FALSE(without.finalRow(tag).empty()) << tag << "\n" << without.output;
        EXPECT_EQ(with.finalRow(tag), without.finalRow(tag)) << tag;
    }
    EXPECT_TRUE(std::regex_search(with.finalRow("N7:0 x4"), std::regex(R"(1 good +0 0 0 1234$)")))
        << with.output;
    EXPECT_TRUE(std::regex_search(with.finalRow("F8:0 x2"), std::regex(R"(1 good +0 2\.5$)")))
        << with.output;
    EXPECT_TRUE(std::regex_search(with.finalRow("B3:0/5"), std::regex(R"(1 good +1$)")))
        << with.output;

    // Without the tap the host and the controller saw the same bytes.
    const CaptureFile host = ReadCaptureFile(direct.host);
    ExpectWholeExchanges(host, 24);
    ExpectSamePackets(host, ReadCaptureFile(direct.plc), "direct: host and controller");
    // With it, the host, the tap and the controller all saw the same bytes...
    const CaptureFile tapHost = ReadCaptureFile(tapped.host);
    const CaptureFile tap = ReadCaptureFile(tapped.tap);
    ExpectSamePackets(tapHost, tap, "tapped: host and tap");
    ExpectSamePackets(tap, ReadCaptureFile(tapped.plc), "tapped: tap and controller");
    EXPECT_EQ(tap.interfaceName.rfind("df1tap A /dev/pts/", 0), 0u) << tap.interfaceName;
    // ... and the run went as without it.
    EXPECT_GT(DistinctExchanges(host).size(), 6u);
    ExpectSameCourse(tap, host);
}

TEST(Tap, RemoteFramesCrossTheTapAsRemoteFrames) {
    const Files files("remote");
    const HostsimRun run = RunLine(files, true, true);
    ASSERT_EQ(run.exitCode, 0) << run.output;
    EXPECT_TRUE(std::regex_search(run.finalRow("N7:0 x4"), std::regex(R"(1 good +0 0 0 1234$)")))
        << run.output;
    const CaptureFile tap = ReadCaptureFile(files.tap);
    ExpectSamePackets(ReadCaptureFile(files.host), tap, "remote: host and tap");
    ExpectSamePackets(tap, ReadCaptureFile(files.plc), "remote: tap and controller");
    ASSERT_FALSE(tap.packets.empty());
    for (const FilePacket& p : tap.packets)
        EXPECT_EQ(int(p.kind), p.direction == kToController ? 1 : int(kItem));
}

namespace {

// The tap between the test's own two ends: side A is the tap's
// pseudo-terminal, opened here as the host; side B a pseudo-terminal whose
// master the test holds as the controller.
class TapBetweenTestEnds : public ::testing::Test {
protected:
    void SetUp() override {
        std::string error;
        controllerLine = peer::SerialLine::OpenPty("", &error);
        ASSERT_TRUE(controllerLine) << error;
        tap = StartTap(controllerLine->peerPath(), capture);
        ASSERT_TRUE(tap->started());
        const std::string sideA = tap->firstLine();
        ASSERT_FALSE(sideA.empty()) << tap->err();
        host = std::make_unique<LineClient>(sideA);
        ASSERT_TRUE(host->ok());
        controller = std::make_unique<LineClient>(LineClient::OnDescriptor(controllerLine->fd()));
    }
    void TearDown() override { std::remove(capture.c_str()); }

    // Sends bytes one way a chunk at a time, taking each chunk at the far
    // end before the next (a pseudo-terminal holds a few KiB only), and
    // checks they came through unchanged.
    void Pass(LineClient& from, LineClient& to, const Bytes& bytes, std::vector<uint8_t>* sent) {
        constexpr std::size_t kChunk = 1024;
        for (std::size_t at = 0; at < bytes.size(); at += kChunk) {
            const Bytes chunk(
                bytes.begin() + static_cast<long>(at),
                bytes.begin() + static_cast<long>(std::min(at + kChunk, bytes.size())));
            ASSERT_TRUE(from.send(chunk));
            ASSERT_EQ(ToHex(to.receive(chunk.size())), ToHex(chunk)) << "at byte " << at;
        }
        sent->insert(sent->end(), bytes.begin(), bytes.end());
    }

    const std::string capture = TempPath("ends");
    std::unique_ptr<peer::SerialLine> controllerLine;
    std::unique_ptr<SpawnedProgram> tap;
    std::unique_ptr<LineClient> host;
    std::unique_ptr<LineClient> controller;
};

const Bytes kRead = Hex(
    "10 06 10 02 00 00 0B 00 21 00 00 00 0A 02 20 02 24 01 01 00 04 00 52 05 91 04 4E 30 30 37 29 "
    "00 00 00 0A 00 00 00 00 00 00 00 10 03 78");

// The kinds of a direction's packets, in order.
std::vector<int> Kinds(const CaptureFile& file, uint8_t direction) {
    std::vector<int> kinds;
    for (const FilePacket& p : file.packets)
        if (p.direction == direction) kinds.push_back(p.kind);
    return kinds;
}

}  // namespace

TEST_F(TapBetweenTestEnds, BadInputIsForwardedUnchangedAndCapturedAsUnframed) {
    std::vector<uint8_t> towardController;
    std::vector<uint8_t> towardHost;
    // Host to controller: noise, a request cut short by the next one, and
    // that one whole.
    const Bytes noise = Hex("01 02 55 AA 10 41");
    const Bytes cut(kRead.begin(), kRead.begin() + 20);
    Pass(*host, *controller, Concat(Concat(noise, cut), kRead), &towardController);
    // Controller to host: 64 KiB of bytes that form no frame, a 64 KiB
    // frame, then a short reply.
    Bytes burst(65536);
    for (std::size_t i = 0; i < burst.size(); ++i)
        burst[i] = static_cast<uint8_t>(i * 7 + 3) == peer::df1::kDle
                       ? 0x11
                       : static_cast<uint8_t>(i * 7 + 3);
    Bytes body(65536);
    for (std::size_t i = 0; i < body.size(); ++i) body[i] = static_cast<uint8_t>(i * 13);
    const Bytes bigFrame = peer::FrameMessage(body);
    const Bytes reply = peer::FrameReply(Hex("00 00 4B 00 21 00 00 00 8A 00 00 00"));
    Pass(*controller, *host, Concat(Concat(burst, bigFrame), reply), &towardHost);
    // Still forwarding.
    Pass(*host, *controller, kRead, &towardController);

    Stop(*tap, "df1tap");
    const CaptureFile file = ReadCaptureFile(capture);
    // Nothing dropped, nothing reordered.
    EXPECT_EQ(file.stream(kToController), towardController);
    EXPECT_EQ(file.stream(kToHost), towardHost);
    EXPECT_EQ(Kinds(file, kToController), std::vector<int>({2, 0, 2, 0, 0, 0, 0}));
    // The burst is unframed (in one packet, or more if the line paused in
    // it), then DLE ACK and the big frame, DLE ACK and the reply.
    std::vector<int> kinds = Kinds(file, kToHost);
    ASSERT_GE(kinds.size(), 5u);
    EXPECT_EQ(std::vector<int>(kinds.end() - 4, kinds.end()), std::vector<int>({0, 0, 0, 0}));
    for (std::size_t i = 0; i + 4 < kinds.size(); ++i) EXPECT_EQ(kinds[i], int(kUnframed));
    EXPECT_NE(tap->out().find("host>ctl 6 bytes not a frame: 01 02 55 AA 10 41"), std::string::npos)
        << tap->out();
    EXPECT_NE(tap->out().find("Read Tag Fragmented N007[0] x10"), std::string::npos) << tap->out();
}

TEST_F(TapBetweenTestEnds, ASideThatGoesAwayEndsTheTapWithItsName) {
    Bytes sent;
    Pass(*host, *controller, kRead, &sent);
    controller.reset();
    controllerLine.reset();  // the controller's end closes
    EXPECT_EQ(tap->wait(), 1);
    EXPECT_NE(tap->err().find("side B "), std::string::npos) << tap->err();
    // What crossed before is in the capture.
    EXPECT_EQ(ReadCaptureFile(capture).stream(kToController), sent);
}
