// plcsim --capture: the program serves a pseudo-terminal, a requester sends
// the driver's frames (and noise, and a frame with a wrong block check), and
// the capture must hold every request and every reply, cut as they crossed,
// in order, with the right directions. ABCL_TEST_LABEL_THREAD
#include "../capture_file.h"
#include "../spawned_program.h"
#include "driver_frames.h"
#include "line_client.h"
#include "options.h"
#include "plcsim_test_support.h"

#include "peer/controller.h"
#include "peer/tag_memory.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdio>
#include <ctime>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

constexpr uint8_t kToController = 0;
constexpr uint8_t kToHost = 1;
constexpr uint8_t kItem = 0;
constexpr uint8_t kRemote = 1;
constexpr uint8_t kUnframed = 2;

std::string CapturePath(const char* name) {
    return "/tmp/abcl_plcsim_" + std::to_string(getpid()) + "_" + name + ".pcapng";
}

uint64_t WallNs() {
    timespec t{};
    clock_gettime(CLOCK_REALTIME, &t);
    return static_cast<uint64_t>(t.tv_sec) * 1000000000u + static_cast<uint64_t>(t.tv_nsec);
}

FilePacket Packet(uint8_t direction, uint8_t kind, const Bytes& bytes) {
    FilePacket p;
    p.direction = direction;
    p.kind = kind;
    p.bytes = bytes;
    return p;
}

// A message as it is cut: DLE ACK, then DLE STX up to the block check.
void AddMessage(std::vector<FilePacket>* packets, uint8_t direction, const Bytes& message) {
    packets->push_back(Packet(direction, kItem, Bytes(message.begin(), message.begin() + 2)));
    packets->push_back(Packet(direction, kItem, Bytes(message.begin() + 2, message.end())));
}

void ExpectSamePackets(const CaptureFile& file, const std::vector<FilePacket>& expected) {
    ASSERT_EQ(file.packets.size(), expected.size());
    for (std::size_t i = 0; i < expected.size(); ++i) {
        EXPECT_EQ(int(file.packets[i].direction), int(expected[i].direction)) << "packet " << i;
        EXPECT_EQ(int(file.packets[i].kind), int(expected[i].kind)) << "packet " << i;
        EXPECT_EQ(ToHex(file.packets[i].bytes), ToHex(expected[i].bytes)) << "packet " << i;
    }
}

class PlcsimCapture : public ::testing::Test {
protected:
    void TearDown() override { std::remove(path.c_str()); }

    // Starts plcsim with a capture and opens its line.
    void Start(std::vector<std::string> args) {
        args.insert(args.end(), {"--print-path", "--baud", "0", "--no-live", "--capture", path});
        program = std::make_unique<SpawnedProgram>(PLCSIM_LAUNCHER, PLCSIM_PROGRAM_PATH, args);
        ASSERT_TRUE(program->started());
        linePath = program->firstLine();
        ASSERT_FALSE(linePath.empty()) << program->err();
        client = std::make_unique<LineClient>(linePath);
        ASSERT_TRUE(client->ok());
    }
    // Sends a request and takes the reply the in-process twin gives to it.
    Bytes Exchange(const Bytes& request) {
        const auto replies = twin.receive(request, 0);
        EXPECT_EQ(replies.size(), 1u);
        const Bytes expected = replies.empty() ? Bytes() : replies[0].bytes;
        EXPECT_TRUE(client->send(request));
        const Bytes reply = client->receive(expected.size());
        EXPECT_EQ(ToHex(reply), ToHex(expected));
        return reply;
    }
    CaptureFile Stop() {
        program->signal(SIGTERM);
        EXPECT_EQ(program->wait(), 0) << program->err();
        EXPECT_NE(program->err().find("packets captured in " + path), std::string::npos)
            << program->err();
        return ReadCaptureFile(path);
    }

    const std::string path =
        CapturePath(::testing::UnitTest::GetInstance()->current_test_info()->name());
    std::unique_ptr<SpawnedProgram> program;
    std::string linePath;
    std::unique_ptr<LineClient> client;
    peer::TagMemory twinMemory;
    peer::Controller twin{twinMemory};
};

}  // namespace

TEST_F(PlcsimCapture, EveryRequestAndReplyIsCapturedInOrder) {
    const uint64_t before = WallNs();
    Start({});
    std::vector<FilePacket> expected;
    for (const DriverFrame& frame : kDriverFrames) {
        const Bytes request = Hex(frame.hex);
        const Bytes reply = Exchange(request);
        AddMessage(&expected, kToController, request);
        AddMessage(&expected, kToHost, reply);
    }
    const CaptureFile file = Stop();
    EXPECT_EQ(file.interfaceName, "plcsim " + linePath);
    ExpectSamePackets(file, expected);
    const uint64_t after = WallNs();
    for (std::size_t i = 0; i < file.packets.size(); ++i) {
        EXPECT_GE(file.packets[i].timeNs, before);
        EXPECT_LE(file.packets[i].timeNs, after);
        if (i > 0) {
            EXPECT_GE(file.packets[i].timeNs, file.packets[i - 1].timeNs);
        }
    }
}

TEST_F(PlcsimCapture, NoiseAndABadBlockCheckAreCapturedAsTheyCame) {
    Start({});
    const Bytes request = Hex(kDriverFrames[0].hex);
    Bytes bad = request;
    bad.back() = static_cast<uint8_t>(~bad.back());
    const Bytes noise = Hex("01 02 55 AA");
    ASSERT_TRUE(client->send(Concat(noise, bad)));
    EXPECT_EQ(ToHex(client->receive(2)), "10 15");  // refused
    const Bytes reply = Exchange(request);

    std::vector<FilePacket> expected = {Packet(kToController, kUnframed, noise)};
    AddMessage(&expected, kToController, bad);
    expected.push_back(Packet(kToHost, kItem, Hex("10 15")));
    AddMessage(&expected, kToController, request);
    AddMessage(&expected, kToHost, reply);
    ExpectSamePackets(Stop(), expected);
}

TEST_F(PlcsimCapture, RemoteRequestsAreRemoteFramesAndTheirRepliesDf1) {
    Start({"--remote"});
    peer::ControllerOptions remote;
    remote.mode = peer::LinkMode::kRemote;
    peer::Controller remoteTwin(twinMemory, remote);
    const Bytes request = Hex("16 01 00 01 02 00 03 00 00 07 05 00 0A 00 00 00 00 00 00 00 00 33");
    const auto replies = remoteTwin.receive(request, 0);
    ASSERT_EQ(replies.size(), 1u);
    ASSERT_TRUE(client->send(request));
    EXPECT_EQ(ToHex(client->receive(replies[0].bytes.size())), ToHex(replies[0].bytes));

    std::vector<FilePacket> expected = {Packet(kToController, kRemote, request)};
    AddMessage(&expected, kToHost, replies[0].bytes);
    ExpectSamePackets(Stop(), expected);
}

TEST(PlcsimCaptureFile, AFileThatCannotBeWrittenIsAUsageError) {
    SpawnedProgram program(PLCSIM_LAUNCHER, PLCSIM_PROGRAM_PATH,
                           {"--capture", "/nonexistent/dir/x.pcapng", "--duration", "5"});
    ASSERT_TRUE(program.started());
    EXPECT_EQ(program.wait(), plcsim::kExitUsage);
    EXPECT_NE(program.err().find("cannot write capture file /nonexistent/dir/x.pcapng"),
              std::string::npos)
        << program.err();
}

TEST(PlcsimCaptureOptions, CaptureTakesAFileName) {
    plcsim::Options options;
    std::string error;
    ASSERT_TRUE(plcsim::ParseOptions({"--capture", "line.pcapng"}, &options, &error)) << error;
    EXPECT_EQ(options.capturePath, "line.pcapng");
    EXPECT_FALSE(plcsim::ParseOptions({"--capture"}, &options, &error));
    EXPECT_EQ(error, "bad or missing value for --capture");
    EXPECT_TRUE(plcsim::ParseOptions({}, &options, &error));
    EXPECT_TRUE(options.capturePath.empty());
    EXPECT_NE(std::string(plcsim::UsageText()).find("--capture FILE"), std::string::npos);
}
