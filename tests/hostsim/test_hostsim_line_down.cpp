// hostsim on a line that vanishes and comes back: a controller served in this
// process on a pseudo-terminal behind a symbolic link, hostsim --port on the
// link. The controller's line is closed (as when its program ends) and a new
// one is made behind the same link later. hostsim must show the line down,
// go on calling the plug-in at the pace of the reply timeout, reopen the link
// and show the new controller's values, without ever exiting.
// ABCL_TEST_LABEL_THREAD
#include "../served_controller.h"
#include "../spawned_program.h"

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

// The far end with N7:5 holding `value`.
std::unique_ptr<ServedController> Serve(const std::string& linkPath, uint16_t value) {
    return std::make_unique<ServedController>(
        linkPath, kBaud, 1, [value](peer::TagMemory& memory) { memory.setWord('N', 7, 5, value); });
}

using HostsimLineDown = LinkFolder;

}  // namespace

TEST_F(HostsimLineDown, KeepsCallingThePluginAndShowsValuesAgainOnceTheLineIsBack) {
    auto first = Serve(link_, 4242);
    SpawnedProgram host(
        HOSTSIM_LAUNCHER, HOSTSIM_PATH,
        {"--port", link_, "--baud", std::to_string(kBaud), "--tag", "N7:5", "--timeout-ms",
         std::to_string(kTimeoutMs), "--plain", "--interval-ms", "100"},
        SpawnedProgram::Stderr::kWithStdout);
    ASSERT_TRUE(host.started());
    std::size_t at = host.waitFor(R"(\n  N7:5 +word\(3\) +1 good +4242\n)", 0, kWaitMs);
    ASSERT_NE(at, std::string::npos) << host.out();

    const int64_t lost = peer::MonotonicMs();
    first->close();
    at =
        host.waitFor(R"(event \[ *[0-9.]+ s\] line down: [^\n]*; reopening )" + link_, at, kWaitMs);
    ASSERT_NE(at, std::string::npos) << host.out();
    // The plug-in is called for every exchange while down, each taking the
    // reply timeout: it reports a failure or asks for the same request
    // again, as it would for any exchange that got no reply.
    at = host.waitFor(R"(down exchanges [1-9][0-9]+ \| LINE DOWN)", at, kWaitMs);
    ASSERT_NE(at, std::string::npos) << host.out();
    EXPECT_GE(peer::MonotonicMs() - lost, (kDownExchanges - 1) * kTimeoutMs);
    ASSERT_NE(host.waitFor(R"(\n  N7:5 +word\(3\) +(0 no length yet|0 retrying|4[1-9] no reply) +)",
                           at, kWaitMs),
              std::string::npos)
        << host.out();
    EXPECT_TRUE(host.running());

    auto second = Serve(link_, 777);
    at = host.waitFor(R"(event \[ *[0-9.]+ s\] line up again: )" + link_ + R"( reopened after )",
                      at, kWaitMs);
    ASSERT_NE(at, std::string::npos) << host.out();
    at = host.waitFor(R"(\n  N7:5 +word\(3\) +1 good +777\n)", at, kWaitMs);
    ASSERT_NE(at, std::string::npos) << host.out();

    host.signal(SIGTERM);
    EXPECT_EQ(host.wait(), 0) << host.out();
    const std::string output = host.out();
    EXPECT_NE(output.find("stopped after a signal"), std::string::npos) << output;
    EXPECT_NE(output.find("| line-down periods 1 | down exchanges "), std::string::npos) << output;
    EXPECT_EQ(output.find("a line failure"), std::string::npos) << output;
}

TEST_F(HostsimLineDown, SoundLineShowsNoLineState) {
    auto served = Serve(link_, 1);
    SpawnedProgram host(HOSTSIM_LAUNCHER, HOSTSIM_PATH,
                        {"--port", link_, "--baud", std::to_string(kBaud), "--tag", "N7:5",
                         "--exchanges", "6", "--plain"},
                        SpawnedProgram::Stderr::kWithStdout);
    ASSERT_TRUE(host.started());
    EXPECT_EQ(host.wait(), 0) << host.out();
    EXPECT_EQ(host.out().find("line-down"), std::string::npos) << host.out();
    EXPECT_EQ(host.out().find("line down"), std::string::npos) << host.out();
}
