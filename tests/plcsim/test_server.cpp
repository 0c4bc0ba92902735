// The simulator on a real pseudo-terminal: round trips through the line, in
// both modes, with pacing, faults and a clean stop. ABCL_TEST_LABEL_THREAD
#include "driver_frames.h"
#include "line_client.h"
#include "plcsim_test_support.h"

#include "peer/controller.h"
#include "peer/line.h"
#include "peer/server.h"

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <memory>
#include <sys/stat.h>
#include <thread>

using namespace peer;

namespace {

ServerOptions FastOptions() {
    ServerOptions options;
    options.paceBaud = 0;
    options.turnaroundMs = 0;
    options.tickIntervalMs = 0;
    return options;
}

class PtyTest : public ::testing::Test {
protected:
    void SetUp() override {
        std::string error;
        line = SerialLine::OpenPty("", &error);
        ASSERT_TRUE(line) << error;
        ASSERT_TRUE(line->isPty());
        ASSERT_EQ(line->peerPath().rfind("/dev/pts/", 0), 0u) << line->peerPath();
    }
    void StartServer(ControllerOptions controllerOptions = {},
                     ServerOptions options = FastOptions()) {
        controller = std::make_unique<Controller>(memory, controllerOptions);
        server = std::make_unique<Server>(*controller, memory, *line, options);
        std::string error;
        ASSERT_TRUE(server->start(&error)) << error;
        ASSERT_TRUE(server->running());
    }

    TagMemory memory;
    std::unique_ptr<SerialLine> line;
    std::unique_ptr<Controller> controller;
    std::unique_ptr<Server> server;
};

}  // namespace

TEST(Pacing, BytesCrossOneByteTimeApart) {
    // 19200 baud: 520833 ns a byte; the first has crossed after one byte time.
    EXPECT_EQ(PacedBytesAllowed(0, 19200, 27), 0u);
    EXPECT_EQ(PacedBytesAllowed(520832, 19200, 27), 0u);
    EXPECT_EQ(PacedBytesAllowed(520834, 19200, 27), 1u);
    EXPECT_EQ(PacedBytesAllowed(13020834, 19200, 27), 25u);
    EXPECT_EQ(PacedBytesAllowed(1000000000, 19200, 27), 27u);
    EXPECT_EQ(PacedBytesAllowed(-5, 19200, 27), 0u);
    EXPECT_EQ(PacedBytesAllowed(0, 0, 27), 27u);
    // 115200 baud, one second: 11520 byte times.
    EXPECT_EQ(PacedBytesAllowed(1000000000, 115200, 100000), 11520u);
    EXPECT_EQ(PacedBytesAllowed(INT64_MAX, 230400, 5), 5u);
}

TEST_F(PtyTest, ReadRoundTrip) {
    memory.setWord('N', 7, 0, 0x1234);
    memory.setWord('N', 7, 9, 0xBEEF);
    StartServer();
    LineClient client(line->peerPath());
    ASSERT_TRUE(client.ok());
    ASSERT_TRUE(client.send(Hex(kDriverFrames[0].hex)));
    const Bytes reply = client.receive(49);
    ASSERT_EQ(reply.size(), 49u) << ToHex(reply);
    EXPECT_EQ(
        ToHex(Bytes(reply.begin(), reply.begin() + 28)),
        "10 06 10 02 00 00 4B 00 21 00 00 00 8A 00 00 00 01 00 04 00 D2 00 00 00 C3 00 34 12");
    EXPECT_EQ(reply[44], 0xEF);
    EXPECT_EQ(reply[45], 0xBE);
    EXPECT_TRUE(client.quiet(20));
    server->stop();
    EXPECT_FALSE(server->running());
    EXPECT_EQ(server->counters().bytesReceived, 45u);
    EXPECT_EQ(server->counters().bytesSent, 49u);
}

TEST_F(PtyTest, WritesThenPokesWhileRunning) {
    StartServer();
    LineClient client(line->peerPath());
    ASSERT_TRUE(client.send(Hex(kDriverFrames[6].hex)));
    EXPECT_EQ(client.receive(27).size(), 27u);
    EXPECT_EQ(memory.word('N', 7, 2), 0x1234);
    // Poked from the test's thread while the server runs.
    memory.setWord('N', 7, 0, 0x0102);
    ASSERT_TRUE(client.send(Hex(kDriverFrames[0].hex)));
    const Bytes reply = client.receive(49);
    ASSERT_EQ(reply.size(), 49u);
    EXPECT_EQ(reply[26], 0x02);
    EXPECT_EQ(reply[27], 0x01);
}

TEST_F(PtyTest, PacedRepliesArriveWhole) {
    ServerOptions options = FastOptions();
    options.paceBaud = 115200;
    options.turnaroundMs = 1;
    StartServer({}, options);
    LineClient client(line->peerPath());
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(client.send(Hex(kDriverFrames[0].hex)));
        const Bytes reply = client.receive(49);
        ASSERT_EQ(reply.size(), 49u);
        EXPECT_EQ(ToHex(Bytes(reply.begin(), reply.begin() + 4)), "10 06 10 02");
    }
}

TEST_F(PtyTest, RequestSentByteByByte) {
    StartServer();
    LineClient client(line->peerPath());
    for (uint8_t b : Hex(kDriverFrames[7].hex)) ASSERT_TRUE(client.send({b}));
    EXPECT_EQ(client.receive(27).size(), 27u);
    EXPECT_EQ(memory.word('B', 3, 0), 5);
}

TEST_F(PtyTest, BadBlockCheckGetsNak) {
    StartServer();
    LineClient client(line->peerPath());
    Bytes bad = Hex(kDriverFrames[0].hex);
    bad.back() ^= 0x40;
    ASSERT_TRUE(client.send(bad));
    EXPECT_EQ(ToHex(client.receive(2)), "10 15");
}

TEST_F(PtyTest, FaultsThroughTheLine) {
    StartServer();
    FaultPlan plan;
    plan.drop.next = 1;
    plan.late.next = 2;  // the dropped reply uses up none of these
    plan.lateMs = 30;
    plan.truncate.every = 3;
    plan.truncateBytes = 3;
    controller->setFaults(plan);
    LineClient client(line->peerPath());
    const Bytes write = Hex(kDriverFrames[7].hex);

    ASSERT_TRUE(client.send(write));
    // The dropped reply: nothing comes; the request was still carried out.
    EXPECT_TRUE(client.quiet(100));
    EXPECT_EQ(memory.word('B', 3, 0), 5);
    ASSERT_TRUE(client.send(write));
    EXPECT_EQ(client.receive(27).size(), 27u);  // late, but whole
    ASSERT_TRUE(client.send(write));
    EXPECT_EQ(client.receive(27, 300).size(), 24u);  // third reply: truncated (and late)
    const auto c = controller->counters();
    EXPECT_EQ(c.dropped, 1u);
    EXPECT_EQ(c.delayed, 2u);
    EXPECT_EQ(c.truncated, 1u);
}

TEST_F(PtyTest, SilenceThroughTheLine) {
    StartServer();
    LineClient client(line->peerPath());
    controller->silenceFor(MonotonicMs(), 60000);
    ASSERT_TRUE(client.send(Hex(kDriverFrames[7].hex)));
    EXPECT_TRUE(client.quiet(100));
    controller->endSilence();
    ASSERT_TRUE(client.send(Hex(kDriverFrames[7].hex)));
    EXPECT_EQ(client.receive(27).size(), 27u);
    EXPECT_EQ(controller->counters().silenced, 1u);
}

TEST_F(PtyTest, RemoteModeRoundTrip) {
    ControllerOptions options;
    options.mode = LinkMode::kRemote;
    memory.setWord('N', 7, 5, 0x0A0B);
    StartServer(options);
    LineClient client(line->peerPath());
    ASSERT_TRUE(
        client.send(Hex("16 01 00 01 02 00 03 00 00 07 05 00 0A 00 00 00 00 00 00 00 00 33")));
    const Bytes read = client.receive(33);
    ASSERT_EQ(read.size(), 33u);
    EXPECT_EQ(ToHex(Bytes(read.begin(), read.begin() + 12)), "10 06 10 02 02 00 41 00 01 00 0B 0A");
    ASSERT_TRUE(client.send(
        Hex("18 01 00 01 02 00 03 00 00 07 05 00 01 00 00 00 00 00 00 00 00 34 12 72")));
    EXPECT_EQ(client.receive(14).size(), 14u);
    EXPECT_EQ(memory.word('N', 7, 5), 0x1234);
}

TEST_F(PtyTest, StopsAndStartsAgain) {
    StartServer();
    server->stop();
    EXPECT_FALSE(server->running());
    server->stop();  // harmless
    std::string error;
    ASSERT_TRUE(server->start(&error)) << error;
    EXPECT_FALSE(server->start(&error));
    EXPECT_EQ(error, "already running");
    LineClient client(line->peerPath());
    ASSERT_TRUE(client.send(Hex(kDriverFrames[7].hex)));
    EXPECT_EQ(client.receive(27).size(), 27u);
}

TEST_F(PtyTest, RunInCallersThreadEndsOnRequest) {
    controller = std::make_unique<Controller>(memory);
    server = std::make_unique<Server>(*controller, memory, *line, FastOptions());
    int result = -1;
    std::thread runner([&] { result = server->run(); });
    // A request answered proves the loop is serving; then ask it to stop.
    LineClient client(line->peerPath());
    ASSERT_TRUE(client.send(Hex(kDriverFrames[7].hex)));
    EXPECT_EQ(client.receive(27).size(), 27u);
    server->requestStop();
    runner.join();
    EXPECT_EQ(result, 0);
    EXPECT_FALSE(server->running());
}

TEST_F(PtyTest, RunForEndsByItself) {
    ServerOptions options = FastOptions();
    options.runForMs = 20;
    controller = std::make_unique<Controller>(memory);
    server = std::make_unique<Server>(*controller, memory, *line, options);
    EXPECT_EQ(server->run(), 0);
    EXPECT_FALSE(server->running());
}

TEST_F(PtyTest, ServerTicksOnlyWhenAsked) {
    StartServer();  // tickIntervalMs 0
    LineClient client(line->peerPath());
    ASSERT_TRUE(client.send(Hex(kDriverFrames[7].hex)));
    EXPECT_EQ(client.receive(27).size(), 27u);
    server->stop();
    EXPECT_EQ(memory.tickedMs(), 0u);
}

TEST(SerialLineTest, SymbolicLinkIsMadeAndRemoved) {
    const std::string link = testing::TempDir() + "plcsim_link_" + std::to_string(getpid());
    std::string peer;
    {
        std::string error;
        auto line = SerialLine::OpenPty(link, &error);
        ASSERT_TRUE(line) << error;
        peer = line->peerPath();
        char target[256] = {};
        ASSERT_GT(readlink(link.c_str(), target, sizeof target - 1), 0);
        EXPECT_EQ(peer, target);
        LineClient client(link);
        EXPECT_TRUE(client.ok());
    }
    struct stat st;
    EXPECT_NE(lstat(link.c_str(), &st), 0);
}

TEST(SerialLineTest, RefusesToReplaceAFile) {
    const std::string path = testing::TempDir() + "plcsim_file_" + std::to_string(getpid());
    const int fd = open(path.c_str(), O_CREAT | O_WRONLY, 0600);
    ASSERT_GE(fd, 0);
    close(fd);
    std::string error;
    EXPECT_FALSE(SerialLine::OpenPty(path, &error));
    EXPECT_NE(error.find("not a symbolic link"), std::string::npos);
    struct stat st;
    EXPECT_EQ(lstat(path.c_str(), &st), 0);
    unlink(path.c_str());
}

TEST(SerialLineTest, DeviceErrors) {
    std::string error;
    EXPECT_FALSE(SerialLine::OpenDevice("/nonexistent/tty", 19200, &error));
    EXPECT_NE(error.find("/nonexistent/tty"), std::string::npos);
    EXPECT_FALSE(SerialLine::OpenDevice("/dev/null", 12345, &error));
    EXPECT_NE(error.find("12345"), std::string::npos);
    EXPECT_FALSE(IsSupportedBaud(0));
    EXPECT_TRUE(IsSupportedBaud(19200));
}

TEST(SerialLineTest, ServesATerminalDevice) {
    // A pseudo-terminal's peer stands in for a serial device: the server
    // serves the device, the test talks on the pseudo-terminal's master.
    std::string error;
    auto pty = SerialLine::OpenPty("", &error);
    ASSERT_TRUE(pty) << error;
    auto device = SerialLine::OpenDevice(pty->peerPath(), 19200, &error);
    ASSERT_TRUE(device) << error;
    EXPECT_FALSE(device->isPty());
    EXPECT_EQ(device->peerPath(), pty->peerPath());
    TagMemory memory;
    Controller controller(memory);
    Server server(controller, memory, *device, FastOptions());
    ASSERT_TRUE(server.start(&error)) << error;
    // The master is non-blocking; the client polls before reading.
    LineClient client = LineClient::OnDescriptor(pty->fd());
    ASSERT_TRUE(client.send(Hex(kDriverFrames[7].hex)));
    EXPECT_EQ(client.receive(27).size(), 27u);
    EXPECT_EQ(memory.word('B', 3, 0), 5);
    server.stop();
}

// ---- restarts and a line that comes back ------------------------------------

namespace {

constexpr std::size_t kWriteReplySize = 27;
// Quiet this long: no reply is on its way.
constexpr int kQuietMs = 200;

const Bytes& WriteRequest() {
    static const Bytes frame = Hex(kDriverFrames[7].hex);  // B3:0 = 5
    return frame;
}

// Sends the write and expects its whole reply.
void ExpectAnswered(LineClient& client) {
    ASSERT_TRUE(client.send(WriteRequest()));
    EXPECT_EQ(client.receive(kWriteReplySize).size(), kWriteReplySize);
}

}  // namespace

namespace {

// The result of a server loop run in the background, once it ends by
// itself; a loop still running after ten seconds fails the test and is asked
// to stop, so it cannot hang the test program.
int LoopResult(std::future<int>* loop, Server* server) {
    if (loop->wait_for(std::chrono::seconds(10)) != std::future_status::ready) {
        ADD_FAILURE() << "the server's loop did not end by itself";
        server->requestStop();
    }
    return loop->get();
}

}  // namespace

TEST_F(PtyTest, RestartIsDueAfterNRepliesWhenTheNextRequestComes) {
    ServerOptions options = FastOptions();
    options.restartAfterReplies = 2;
    controller = std::make_unique<Controller>(memory);
    server = std::make_unique<Server>(*controller, memory, *line, options);
    std::future<int> loop = std::async(std::launch::async, [&] { return server->run(); });
    // A failed assertion leaves early: the loop is stopped before the future
    // waits for it.
    const std::unique_ptr<Server, void (*)(Server*)> stopAtExit(
        server.get(), [](Server* s) { s->requestStop(); });
    LineClient client(line->peerPath());
    ExpectAnswered(client);
    ExpectAnswered(client);
    // The third request finds the server restarting: no reply.
    ASSERT_TRUE(client.send(WriteRequest()));
    EXPECT_EQ(LoopResult(&loop, server.get()), Server::kRestartDue);
    EXPECT_TRUE(client.quiet(kQuietMs));
    EXPECT_EQ(controller->counters().repliesSent, 2u);

    // Resumed on a new line, with the same controller and counters: two
    // more replies before the next restart.
    std::string error;
    auto second = SerialLine::OpenPty("", &error);
    ASSERT_TRUE(second) << error;
    server->resume(*second);
    loop = std::async(std::launch::async, [&] { return server->run(); });
    LineClient secondClient(second->peerPath());
    ExpectAnswered(secondClient);
    ExpectAnswered(secondClient);
    ASSERT_TRUE(secondClient.send(WriteRequest()));
    EXPECT_EQ(LoopResult(&loop, server.get()), Server::kRestartDue);
    EXPECT_EQ(controller->counters().repliesSent, 4u);
    EXPECT_EQ(server->counters().bytesSent, 4 * kWriteReplySize);
}

TEST_F(PtyTest, ResumedRunKeepsTheDeadlineOfTheFirst) {
    ServerOptions options = FastOptions();
    options.runForMs = 150;
    controller = std::make_unique<Controller>(memory);
    server = std::make_unique<Server>(*controller, memory, *line, options);
    const int64_t start = MonotonicMs();
    EXPECT_EQ(server->run(), Server::kStopped);
    EXPECT_GE(MonotonicMs() - start, 150 - 5);
    std::string error;
    auto second = SerialLine::OpenPty("", &error);
    ASSERT_TRUE(second) << error;
    server->resume(*second);
    const int64_t resumed = MonotonicMs();
    EXPECT_EQ(server->run(), Server::kStopped);
    EXPECT_LT(MonotonicMs() - resumed, 100);
}

TEST_F(PtyTest, WaitForStopEndsOnAStopRequest) {
    StartServer();
    server->stop();
    const int64_t start = MonotonicMs();
    EXPECT_FALSE(server->waitForStop(50));
    EXPECT_GE(MonotonicMs() - start, 50 - 5);
    server->requestStop();
    const int64_t asked = MonotonicMs();
    EXPECT_TRUE(server->waitForStop(5000));
    EXPECT_LT(MonotonicMs() - asked, 1000);
    // The request was taken.
    EXPECT_FALSE(server->waitForStop(0));
}
