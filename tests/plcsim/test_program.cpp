// The plcsim program: options, errors, and a round trip with the path it
// prints, ended by SIGTERM. ABCL_TEST_LABEL_THREAD
#include "../spawned_program.h"
#include "driver_frames.h"
#include "line_client.h"
#include "plcsim_test_support.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <memory>
#include <poll.h>
#include <sys/stat.h>

namespace {

// A running plcsim, through the emulator for a cross build as the test
// program itself is; its output is collected as it comes, and its first
// line is waited for with a time limit.
class Program : public SpawnedProgram {
public:
    explicit Program(const std::vector<std::string>& args)
        : SpawnedProgram(PLCSIM_LAUNCHER, PLCSIM_PROGRAM_PATH, args) {}
};

}  // namespace

TEST(Program, HelpExitsZero) {
    Program p({"--help"});
    ASSERT_TRUE(p.started());
    EXPECT_EQ(p.wait(), 0);
    EXPECT_NE(p.out().find("Usage: plcsim"), std::string::npos);
    EXPECT_NE(p.out().find("--print-path"), std::string::npos);
}

TEST(Program, BadOptionsExitTwoWithAMessage) {
    struct Row {
        std::vector<std::string> args;
        const char* message;
    };
    const Row rows[] = {
        {{"--bogus"}, "unknown option '--bogus'"},
        {{"--file", "X7:10"}, "the letter must be B, N or F"},
        {{"--file"}, "--file wants"},
        {{"--baud", "12345"}, "--baud wants"},
        {{"--turnaround", "-1"}, "bad or missing value for --turnaround"},
        {{"--drop-every"}, "bad or missing value for --drop-every"},
        {{"--silence", "100"}, "bad or missing value for --silence"},
        {{"--duration", "0"}, "bad or missing value for --duration"},
        {{"--device", "/dev/null", "--link", "/tmp/x"}, "--link is for pseudo-terminals only"},
        {{"--max-reply-data", "3"}, "--max-reply-data wants"},
    };
    for (const auto& row : rows) {
        Program p(row.args);
        ASSERT_TRUE(p.started());
        EXPECT_EQ(p.wait(), 2) << row.message;
        EXPECT_NE(p.err().find(row.message), std::string::npos) << p.err();
    }
}

TEST(Program, MissingDeviceExitsOne) {
    Program p({"--device", "/nonexistent/ttyS9", "--baud", "9600"});
    EXPECT_EQ(p.wait(), 1);
    EXPECT_NE(p.err().find("/nonexistent/ttyS9"), std::string::npos);
}

TEST(Program, ServesThePrintedPathUntilSigterm) {
    Program p({"--print-path", "--baud", "115200", "--turnaround", "0", "--file", "N7:16", "--file",
               "B3:16", "--no-live"});
    ASSERT_TRUE(p.started());
    const std::string path = p.firstLine();
    ASSERT_EQ(path.rfind("/dev/pts/", 0), 0u) << path;
    LineClient client(path);
    ASSERT_TRUE(client.ok());
    ASSERT_TRUE(client.send(Hex(kDriverFrames[6].hex)));  // N7:2..3
    EXPECT_EQ(client.receive(27).size(), 27u);
    ASSERT_TRUE(client.send(Hex(kDriverFrames[0].hex)));  // N7:0, 10 elements
    const Bytes reply = client.receive(49);
    ASSERT_EQ(reply.size(), 49u);
    EXPECT_EQ(ToHex(Bytes(reply.begin() + 26, reply.begin() + 34)), "00 00 00 00 34 12 10 10");
    p.signal(SIGTERM);
    EXPECT_EQ(p.wait(), 0);
    EXPECT_NE(p.err().find("frames 2"), std::string::npos) << p.err();
}

TEST(Program, RemoteModeAndLinkAndSigint) {
    const std::string link = testing::TempDir() + "plcsim_prog_link_" + std::to_string(getpid());
    Program p({"--print-path", "--remote", "--link", link, "--baud", "0", "--turnaround", "0"});
    ASSERT_TRUE(p.started());
    const std::string path = p.firstLine();
    ASSERT_FALSE(path.empty());
    char target[256] = {};
    ASSERT_GT(readlink(link.c_str(), target, sizeof target - 1), 0);
    EXPECT_EQ(path, target);
    LineClient client(link);
    ASSERT_TRUE(client.send(
        Hex("18 01 00 01 02 00 03 00 00 07 05 00 01 00 00 00 00 00 00 00 00 34 12 72")));
    EXPECT_EQ(ToHex(client.receive(13)), "10 06 10 02 02 00 42 00 01 00 06 10 03");
    p.signal(SIGINT);
    EXPECT_EQ(p.wait(), 0);
    struct stat st;
    EXPECT_NE(lstat(link.c_str(), &st), 0);
}

TEST(Program, DurationEndsIt) {
    Program p({"--duration", "0.05", "--quiet"});
    ASSERT_TRUE(p.started());
    EXPECT_EQ(p.wait(), 0);
    EXPECT_TRUE(p.err().empty()) << p.err();
}

TEST(Program, FaultOptionsReachTheController) {
    Program p({"--print-path", "--baud", "0", "--turnaround", "0", "--corrupt-next", "1",
               "--wrong-tns-every", "2"});
    const std::string path = p.firstLine();
    LineClient client(path);
    const Bytes write = Hex(kDriverFrames[7].hex);  // TNS 0x42
    ASSERT_TRUE(client.send(write));
    const Bytes first = client.receive(27);
    ASSERT_TRUE(client.send(write));
    const Bytes second = client.receive(27);
    ASSERT_TRUE(client.send(write));
    const Bytes third = client.receive(27);
    ASSERT_EQ(first.size(), 27u);
    ASSERT_EQ(second.size(), 27u);
    ASSERT_EQ(third.size(), 27u);
    EXPECT_EQ(first[8], 0x42);
    EXPECT_EQ(second[8], 0x43);
    EXPECT_EQ(third[8], 0x42);
    EXPECT_EQ(first.back(), static_cast<uint8_t>(~third.back()));
    p.signal(SIGTERM);
    EXPECT_EQ(p.wait(), 0);
    EXPECT_NE(p.err().find("corrupted 1"), std::string::npos);
    EXPECT_NE(p.err().find("wrong-tns 1"), std::string::npos);
}

// ---- the line going away and coming back -------------------------------------

namespace {

constexpr std::size_t kWriteReply = 27;
// How long a test waits for plcsim to serve again after its line went away:
// the back-off reaches 2 s between attempts only after 3 s.
constexpr int64_t kComeBackMs = 10000;
// A bounded pause between tries to open a path that is not there yet.
constexpr int kRetryPauseMs = 20;

const Bytes& WriteFrame() {
    static const Bytes frame = Hex(kDriverFrames[7].hex);  // B3:0 = 5, TNS 0x42
    return frame;
}

// Opens path and sends the write until a whole reply comes back, or
// kComeBackMs pass.
bool AnsweredAgain(const std::string& path) {
    const int64_t deadline = peer::MonotonicMs() + kComeBackMs;
    while (peer::MonotonicMs() < deadline) {
        LineClient client(path);
        if (client.ok() && client.send(WriteFrame()) &&
            client.receive(kWriteReply, 200).size() == kWriteReply)
            return true;
        poll(nullptr, 0, kRetryPauseMs);
    }
    return false;
}

// The master of a pseudo-terminal made by the test, whose peer plcsim opens
// as a serial device through a symbolic link; closing the master makes the
// device vanish under plcsim, as an unplugged adapter does.
class DeviceStandIn {
public:
    explicit DeviceStandIn(const std::string& link) {
        master_ = posix_openpt(O_RDWR | O_NOCTTY);
        // Not inherited by plcsim, or closing it here would not close it.
        if (master_ >= 0) fcntl(master_, F_SETFD, FD_CLOEXEC);
        char name[128] = {};
        if (master_ < 0 || grantpt(master_) != 0 || unlockpt(master_) != 0 ||
            ptsname_r(master_, name, sizeof name) != 0)
            return;
        peer::ConfigureRaw(master_, 19200, 1, nullptr);
        // Replaced in one step, so plcsim never finds a half-made link.
        const std::string temporary = link + ".new";
        unlink(temporary.c_str());
        if (symlink(name, temporary.c_str()) == 0) rename(temporary.c_str(), link.c_str());
    }
    ~DeviceStandIn() { vanish(); }
    void vanish() {
        if (master_ >= 0) close(master_);
        master_ = -1;
    }
    bool ok() const { return master_ >= 0; }
    // The controller's replies arrive here; requests are written here.
    LineClient client() const { return LineClient::OnDescriptor(master_); }

private:
    int master_ = -1;
};

// Writes the request until plcsim (which may still be opening the device,
// flushing what came before) answers it.
bool DeviceAnswers(const DeviceStandIn& device) {
    LineClient client = device.client();
    const int64_t deadline = peer::MonotonicMs() + kComeBackMs;
    while (peer::MonotonicMs() < deadline)
        if (client.send(WriteFrame()) && client.receive(kWriteReply, 200).size() == kWriteReply)
            return true;
    return false;
}

}  // namespace

TEST(Program, RestartAfterMakesANewPseudoTerminalBehindTheLink) {
    const std::string link = testing::TempDir() + "plcsim_restart_" + std::to_string(getpid());
    Program p({"--print-path", "--link", link, "--baud", "0", "--turnaround", "0", "--no-live",
               "--restart-after", "2"});
    ASSERT_TRUE(p.started());
    ASSERT_FALSE(p.firstLine().empty());
    {
        LineClient client(link);
        ASSERT_TRUE(client.ok());
        for (int i = 0; i < 2; ++i) {
            ASSERT_TRUE(client.send(WriteFrame()));
            EXPECT_EQ(client.receive(kWriteReply).size(), kWriteReply);
        }
        // The third request meets the restart: the line hangs up unanswered.
        ASSERT_TRUE(client.send(WriteFrame()));
        EXPECT_TRUE(client.receive(kWriteReply, 500).empty());
    }
    EXPECT_TRUE(AnsweredAgain(link));
    p.signal(SIGTERM);
    EXPECT_EQ(p.wait(), 0);
    EXPECT_NE(p.err().find("restarting the line after 2 replies"), std::string::npos) << p.err();
    EXPECT_NE(p.err().find("replies 3"), std::string::npos) << p.err();
    EXPECT_NE(p.err().find("restarts 1"), std::string::npos) << p.err();
    struct stat st;
    EXPECT_NE(lstat(link.c_str(), &st), 0) << "the link is removed at the end";
}

TEST(Program, DeviceThatVanishesIsReopened) {
    const std::string link = testing::TempDir() + "plcsim_device_" + std::to_string(getpid());
    auto device = std::make_unique<DeviceStandIn>(link);
    ASSERT_TRUE(device->ok());
    Program p({"--device", link, "--baud", "19200", "--turnaround", "0", "--no-live"});
    ASSERT_TRUE(p.started());
    ASSERT_TRUE(DeviceAnswers(*device));
    device->vanish();
    // While nothing is behind the link plcsim keeps trying; a new device
    // behind it is served again.
    device = std::make_unique<DeviceStandIn>(link);
    ASSERT_TRUE(device->ok());
    EXPECT_TRUE(DeviceAnswers(*device));
    p.signal(SIGTERM);
    EXPECT_EQ(p.wait(), 0) << p.err();
    EXPECT_NE(p.err().find("line lost ("), std::string::npos) << p.err();
    EXPECT_NE(p.err().find(link + " reopened after"), std::string::npos) << p.err();
    EXPECT_NE(p.err().find("reopened 1"), std::string::npos) << p.err();
    device.reset();
    unlink(link.c_str());
}

TEST(Program, NoiseGoesOutBeforeTheReply) {
    Program p({"--print-path", "--baud", "0", "--turnaround", "0", "--noise-next", "1",
               "--noise-bytes", "6", "--noise-seed", "3"});
    LineClient client(p.firstLine());
    ASSERT_TRUE(client.send(WriteFrame()));
    const Bytes first = client.receive(6 + kWriteReply);
    ASSERT_TRUE(client.send(WriteFrame()));
    const Bytes second = client.receive(kWriteReply);
    ASSERT_EQ(first.size(), 6 + kWriteReply) << ToHex(first);
    EXPECT_EQ(Bytes(first.begin() + 6, first.end()), second);
    EXPECT_TRUE(client.quiet(100));
    p.signal(SIGTERM);
    EXPECT_EQ(p.wait(), 0);
    EXPECT_NE(p.err().find("noise 1"), std::string::npos) << p.err();
}
