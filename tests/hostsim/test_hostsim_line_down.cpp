// hostsim on a line that vanishes and comes back: a controller served in this
// process on a pseudo-terminal behind a symbolic link, hostsim --port on the
// link. The controller's line is closed (as when its program ends) and a new
// one is made behind the same link later. hostsim must show the line down,
// go on calling the plug-in at the pace of the reply timeout, reopen the link
// and show the new controller's values, without ever exiting.
// ABCL_TEST_LABEL_THREAD
#include "running_hostsim.h"

#include "peer/controller.h"
#include "peer/line.h"
#include "peer/server.h"
#include "peer/tag_memory.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <memory>
#include <string>
#include <unistd.h>

namespace {

constexpr int kBaud = 115200;
constexpr int kTimeoutMs = 100;
// Every wait for hostsim's output ends after this long (a hang).
constexpr int kWaitMs = 20000;
// Exchanges counted while down before the pace is judged: the first count
// of two digits.
constexpr int kDownExchanges = 10;

// A controller served on a fresh pseudo-terminal behind linkPath, N7:5
// holding value; closing it closes the master, hanging up the host's end.
class ServedController {
public:
    ServedController(const std::string& linkPath, uint16_t value) {
        memory_.setWord('N', 7, 5, value);
        std::string error;
        line_ = peer::SerialLine::OpenPty(linkPath, &error);
        EXPECT_TRUE(line_) << error;
        if (!line_) return;
        peer::ServerOptions options;
        options.paceBaud = kBaud;
        options.turnaroundMs = 1;
        options.tickIntervalMs = 0;
        server_ = std::make_unique<peer::Server>(controller_, memory_, *line_, options);
        EXPECT_TRUE(server_->start(&error)) << error;
    }
    ~ServedController() { close(); }
    void close() {
        if (server_) server_->stop();
        server_.reset();
        line_.reset();
    }

private:
    peer::TagMemory memory_;
    peer::Controller controller_{memory_};
    std::unique_ptr<peer::SerialLine> line_;
    std::unique_ptr<peer::Server> server_;
};

class HostsimLineDown : public ::testing::Test {
protected:
    void SetUp() override {
        char dir[] = "/tmp/hostsim_down_XXXXXX";
        ASSERT_NE(mkdtemp(dir), nullptr);
        dir_ = dir;
        link_ = dir_ + "/plc";
    }
    void TearDown() override {
        unlink(link_.c_str());
        rmdir(dir_.c_str());
    }
    std::string dir_;
    std::string link_;
};

}  // namespace

TEST_F(HostsimLineDown, KeepsCallingThePluginAndShowsValuesAgainOnceTheLineIsBack) {
    auto first = std::make_unique<ServedController>(link_, 4242);
    RunningHostsim host(
        HOSTSIM_LAUNCHER, HOSTSIM_PATH,
        {"--port", link_, "--baud", std::to_string(kBaud), "--tag", "N7:5", "--timeout-ms",
         std::to_string(kTimeoutMs), "--plain", "--interval-ms", "100"});
    ASSERT_TRUE(host.started());
    std::size_t at = host.waitFor(R"(\n  N7:5 +word\(3\) +1 good +4242\n)", 0, kWaitMs);
    ASSERT_NE(at, std::string::npos) << host.output();

    const int64_t lost = peer::MonotonicMs();
    first->close();
    at =
        host.waitFor(R"(event \[ *[0-9.]+ s\] line down: [^\n]*; reopening )" + link_, at, kWaitMs);
    ASSERT_NE(at, std::string::npos) << host.output();
    // The plug-in is called for every exchange while down, each taking the
    // reply timeout: it reports a failure or asks for the same request
    // again, as it would for any exchange that got no reply.
    at = host.waitFor(R"(down exchanges [1-9][0-9]+ \| LINE DOWN)", at, kWaitMs);
    ASSERT_NE(at, std::string::npos) << host.output();
    EXPECT_GE(peer::MonotonicMs() - lost, (kDownExchanges - 1) * kTimeoutMs);
    ASSERT_NE(host.waitFor(R"(\n  N7:5 +word\(3\) +(0 no length yet|0 retrying|4[1-9] no reply) +)",
                           at, kWaitMs),
              std::string::npos)
        << host.output();
    EXPECT_TRUE(host.running());

    ServedController second(link_, 777);
    at = host.waitFor(R"(event \[ *[0-9.]+ s\] line up again: )" + link_ + R"( reopened after )",
                      at, kWaitMs);
    ASSERT_NE(at, std::string::npos) << host.output();
    at = host.waitFor(R"(\n  N7:5 +word\(3\) +1 good +777\n)", at, kWaitMs);
    ASSERT_NE(at, std::string::npos) << host.output();

    host.signal(SIGTERM);
    EXPECT_EQ(host.wait(), 0) << host.output();
    const std::string output = host.output();
    EXPECT_NE(output.find("stopped after a signal"), std::string::npos) << output;
    EXPECT_NE(output.find("| line-down periods 1 | down exchanges "), std::string::npos) << output;
    EXPECT_EQ(output.find("a line failure"), std::string::npos) << output;
}

TEST_F(HostsimLineDown, SoundLineShowsNoLineState) {
    ServedController served(link_, 1);
    RunningHostsim host(HOSTSIM_LAUNCHER, HOSTSIM_PATH,
                        {"--port", link_, "--baud", std::to_string(kBaud), "--tag", "N7:5",
                         "--exchanges", "6", "--plain"});
    ASSERT_TRUE(host.started());
    EXPECT_EQ(host.wait(), 0) << host.output();
    EXPECT_EQ(host.output().find("line-down"), std::string::npos) << host.output();
    EXPECT_EQ(host.output().find("line down"), std::string::npos) << host.output();
}
