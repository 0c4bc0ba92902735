// hostsim --capture against the built-in controller simulator: every request
// the plug-in framed and every reply that came back is in the file, exchange
// by exchange, as it crossed the pseudo-terminal; remote mode's requests are
// remote frames; replies the simulator cuts short or damages are kept as they
// came. ABCL_TEST_LABEL_THREAD
#include "../capture_file.h"
#include "hostsim_run.h"
#include "options.h"

#include "peer/df1.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

constexpr uint8_t kToController = 0;
constexpr uint8_t kToHost = 1;
constexpr uint8_t kItem = 0;
constexpr uint8_t kRemote = 1;
constexpr uint8_t kUnframed = 2;
const std::vector<uint8_t> kAck = {peer::df1::kDle, peer::df1::kAck};

class HostsimCapture : public ::testing::Test {
protected:
    void TearDown() override { std::remove(path.c_str()); }

    HostsimRun Run(std::vector<std::string> args) {
        args.insert(args.end(), {"--baud", "115200", "--capture", path});
        return RunHostsim(args);
    }

    const std::string path = "/tmp/abcl_hostsim_" + std::to_string(getpid()) + "_" +
                             ::testing::UnitTest::GetInstance()->current_test_info()->name() +
                             ".pcapng";
};

// The body of a data frame packet whose block check is right; empty (and a
// test failure) otherwise.
std::vector<uint8_t> GoodBody(const FilePacket& packet) {
    const auto body = peer::MessageBody(packet.bytes);
    if (!body || body->size() < static_cast<std::size_t>(peer::df1::kHeaderSize) ||
        peer::BlockCheck(*body) != packet.bytes.back()) {
        ADD_FAILURE() << "not a good data frame";
        return {};
    }
    return *body;
}

// The packets as exchanges: DLE ACK and a request from the host, then DLE
// ACK and a reply from the controller. Returns the request and reply bodies.
std::vector<std::pair<std::vector<uint8_t>, std::vector<uint8_t>>> Exchanges(
    const CaptureFile& file) {
    std::vector<std::pair<std::vector<uint8_t>, std::vector<uint8_t>>> out;
    const auto& p = file.packets;
    EXPECT_EQ(p.size() % 4, 0u);
    for (std::size_t i = 0; i + 3 < p.size(); i += 4) {
        const uint8_t ways[] = {kToController, kToController, kToHost, kToHost};
        for (int k = 0; k < 4; ++k) {
            EXPECT_EQ(int(p[i + k].direction), int(ways[k])) << "packet " << i + k;
            EXPECT_EQ(int(p[i + k].kind), int(kItem)) << "packet " << i + k;
        }
        EXPECT_EQ(p[i].bytes, kAck);
        EXPECT_EQ(p[i + 2].bytes, kAck);
        out.emplace_back(GoodBody(p[i + 1]), GoodBody(p[i + 3]));
    }
    return out;
}

}  // namespace

TEST_F(HostsimCapture, EveryRequestAndItsReplyAreCapturedInOrder) {
    const HostsimRun run = Run({"--sim-set", "N7:2=4112", "--tag", "N7:0 x4", "--write",
                                "N7:3=1234", "--exchanges", "12", "--plain"});
    ASSERT_EQ(run.exitCode, 0) << run.output;
    EXPECT_TRUE(run.contains(", capture " + path)) << run.output;
    const CaptureFile file = ReadCaptureFile(path);
    EXPECT_EQ(file.interfaceName.rfind("hostsim /dev/pts/", 0), 0u) << file.interfaceName;
    const auto exchanges = Exchanges(file);
    ASSERT_EQ(exchanges.size(), 12u);
    for (const auto& [request, reply] : exchanges) {
        if (request.empty() || reply.empty()) continue;
        EXPECT_EQ(request[peer::df1::kHeaderCmd], peer::df1::kCmdCip);
        EXPECT_EQ(reply[peer::df1::kHeaderCmd], peer::df1::kCmdCip | peer::df1::kReplyFlag);
        // Each reply answers the request before it.
        EXPECT_EQ(reply[peer::df1::kHeaderTnsLow], request[peer::df1::kHeaderTnsLow]);
    }
    // The write goes first: Write Tag Fragmented inside the Multiple
    // Service Packet, the value 1234 (D2 04) among its bytes.
    const std::vector<uint8_t>& write = exchanges[0].first;
    ASSERT_EQ(write.size(), 40u);  // one INT: 47 bytes framed
    EXPECT_EQ(write[peer::df1::kCipStart + 10], peer::cip::kWriteTagFragmented);
    EXPECT_EQ(write[write.size() - 2], 0xD2);
    EXPECT_EQ(write[write.size() - 1], 0x04);
    EXPECT_TRUE(run.matches(R"(N7:0 x4 +word\(3\) +1 good +0 0 4112 1234)")) << run.output;
}

TEST_F(HostsimCapture, RemoteRequestsAreRemoteFrames) {
    const HostsimRun run =
        Run({"--remote", "--tag", "N7:0 x2", "--write", "N7:1=7", "--exchanges", "6"});
    ASSERT_EQ(run.exitCode, 0) << run.output;
    const CaptureFile file = ReadCaptureFile(path);
    ASSERT_EQ(file.packets.size(), 6u * 3);
    for (std::size_t i = 0; i < file.packets.size(); i += 3) {
        const FilePacket& request = file.packets[i];
        EXPECT_EQ(int(request.direction), int(kToController));
        EXPECT_EQ(int(request.kind), int(kRemote));
        ASSERT_FALSE(request.bytes.empty());
        EXPECT_EQ(request.bytes[0], request.bytes.size());
        EXPECT_EQ(file.packets[i + 1].bytes, kAck);
        EXPECT_EQ(int(file.packets[i + 2].direction), int(kToHost));
        const std::vector<uint8_t> reply = GoodBody(file.packets[i + 2]);
        if (reply.empty()) continue;
        const uint8_t command = reply[peer::df1::kHeaderCmd];
        EXPECT_TRUE(command == peer::remote::kCmdReadReply ||
                    command == peer::remote::kCmdWriteReply);
    }
}

TEST_F(HostsimCapture, RepliesCutShortOrDamagedAreKeptAsTheyCame) {
    // Every third reply loses its last 3 bytes (DLE ETX and the block
    // check); every fourth has its block check inverted.
    const HostsimRun run = Run({"--tag", "N7:0", "--sim-truncate-every", "3", "--sim-corrupt-every",
                                "4", "--timeout-ms", "150", "--exchanges", "12"});
    ASSERT_EQ(run.exitCode, 0) << run.output;
    const CaptureFile file = ReadCaptureFile(path);
    int cut = 0;
    int damaged = 0;
    int good = 0;
    for (const FilePacket& p : file.packets) {
        if (p.direction != kToHost || p.bytes == kAck) continue;
        if (p.kind == kUnframed) {
            // What came of the reply: DLE STX and its body, no trailer.
            ++cut;
            EXPECT_EQ(p.bytes[0], peer::df1::kDle);
            EXPECT_EQ(p.bytes[1], peer::df1::kStx);
            continue;
        }
        const auto body = peer::MessageBody(p.bytes);
        ASSERT_TRUE(body);
        if (peer::BlockCheck(*body) == p.bytes.back())
            ++good;
        else
            ++damaged;
    }
    // Replies 3, 6, 9 and 12 are cut; 4 and 8 damaged (12 is cut as well).
    EXPECT_EQ(cut, 4);
    EXPECT_EQ(damaged, 2);
    EXPECT_EQ(good, 6);
}

TEST_F(HostsimCapture, AFileThatCannotBeWrittenIsAUsageError) {
    const HostsimRun run =
        RunHostsim({"--capture", "/nonexistent/dir/x.pcapng", "--exchanges", "1"});
    EXPECT_EQ(run.exitCode, hostsim::kExitUsage);
    EXPECT_TRUE(run.contains("cannot write capture file /nonexistent/dir/x.pcapng")) << run.output;
}

TEST(HostsimCaptureOptions, CaptureTakesAFileName) {
    hostsim::Options options;
    std::string error;
    ASSERT_TRUE(hostsim::ParseOptions({"--capture", "line.pcapng"}, &options, &error)) << error;
    EXPECT_EQ(options.capturePath, "line.pcapng");
    ASSERT_TRUE(hostsim::ParseOptions({"--capture=x.pcapng"}, &options, &error)) << error;
    EXPECT_EQ(options.capturePath, "x.pcapng");
    EXPECT_FALSE(hostsim::ParseOptions({"--capture"}, &options, &error));
    EXPECT_EQ(error, "option --capture needs a file name");
    EXPECT_NE(hostsim::UsageText("hostsim").find("--capture FILE"), std::string::npos);
}
