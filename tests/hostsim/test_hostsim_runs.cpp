// Whole runs of the hostsim program: it loads the built plug-in, talks to the
// built-in controller simulator over a pseudo-terminal and stops after a set
// number of exchanges; its output and exit code are checked. hostsim runs an
// exchange thread, the simulator's thread and the display side together, so
// these runs also go under ThreadSanitizer (ABCL_TEST_LABEL_THREAD).
#include "../capture_file.h"
#include "../spawned_program.h"
#include "hostsim_run.h"

#include "peer/df1.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdio>
#include <ostream>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <string>
#include <sys/types.h>
#include <unistd.h>
#include <vector>

namespace {

// Every run: the fast line, so a pass over a few tags takes a few
// hundredths of a second.
std::vector<std::string> With(std::vector<std::string> args) {
    args.insert(args.begin(), {"--baud", "115200"});
    return args;
}

// Each text stands somewhere in the output.
void ExpectTexts(const HostsimRun& run, std::initializer_list<const char*> texts) {
    for (const char* text : texts) EXPECT_TRUE(run.contains(text)) << text << "\n" << run.output;
}

void ExpectRow(const HostsimRun& run, const std::string& tag, const std::string& pattern) {
    const std::string row = run.finalRow(tag);
    EXPECT_TRUE(std::regex_search(row, std::regex(pattern)))
        << "row of " << tag << ": '" << row << "'\nexpected /" << pattern << "/\n"
        << run.output;
}

// Whether the first request on the line went out with a transaction number
// of DLE: DLE STX, DST, SRC, CMD, STS, then the TNS byte, which the request
// carries once, undoubled. The controller doubles it in its reply, so that
// reply reads one place on wherever the plug-in counts raw offsets; later
// requests never carry DLE. One run in 255 starts so, and the runs under
// tests/first_tns_dle start so every time.
bool FirstTransactionNumberIsDle(const CaptureFile& file) {
    for (const FilePacket& p : file.packets) {
        if (p.direction != 0 || p.bytes.size() <= 8) continue;  // not a request
        return p.bytes[6] == peer::df1::kDle;
    }
    ADD_FAILURE() << "no request in the capture";
    return false;
}

// A run with its line captured, and whether its first TNS was DLE.
struct CapturedRun {
    HostsimRun run;
    bool firstTnsIsDle = false;
};

CapturedRun RunCaptured(std::vector<std::string> args, const std::string& name) {
    const std::string capture =
        "/tmp/abcl_hostsim_" + std::to_string(getpid()) + "_" + name + ".pcapng";
    args.insert(args.end(), {"--capture", capture});
    CapturedRun out;
    out.run = RunHostsim(With(std::move(args)));
    const CaptureFile file = ReadCaptureFile(capture);
    std::remove(capture.c_str());
    if (out.run.exitCode == 0) out.firstTnsIsDle = FirstTransactionNumberIsDle(file);
    // Set beside the preload of tests/first_tns_dle: a run that did not
    // start with DLE there would test only the usual branch.
    if (std::getenv("ABCL_EXPECT_FIRST_TNS_DLE") != nullptr) {
        EXPECT_TRUE(out.firstTnsIsDle) << "the preload did not make the first TNS DLE";
    }
    return out;
}

}  // namespace

TEST(HostsimRuns, KnownValuesOfTheSimulatorAppearInTheTable) {
    const HostsimRun run = RunHostsim(With(
        {"--sim-set", "N7:5=4242", "--sim-set", "N7:0=-7", "--sim-set",   "F8:2=2.5", "--sim-set",
         "B3:1/3=1",  "--tag",     "N7:5",      "--tag",   "F8:2",        "--tag",    "B3:1/3",
         "--tag",     "N7:0 x8",   "--tag",     "B3:1",    "--exchanges", "30"}));
    ASSERT_EQ(run.exitCode, 0) << run.output;
    ExpectRow(run, "N7:5", R"(word\(3\) +1 good +4242$)");
    ExpectRow(run, "F8:2", R"(real\(4\) +1 good +2\.5$)");
    ExpectRow(run, "B3:1/3", R"(bit\(0\) +1 good +1$)");
    ExpectRow(run, "N7:0 x8", R"(1 good +-7 0 0 0 0 4242 0 0$)");
    // Bit 3 of B3:1 is the word 0x0008.
    ExpectRow(run, "B3:1", R"(word\(2\) +1 good +0x0008$)");
    EXPECT_TRUE(run.contains("stopped after the exchange limit")) << run.output;
}

TEST(HostsimRuns, TheTitleNamesTheDefaultBuild) {
    const HostsimRun run = RunHostsim(With({"--tag", "N7:0", "--exchanges", "2"}));
    ASSERT_EQ(run.exitCode, 0) << run.output;
    EXPECT_TRUE(run.matches(R"(plug-in \S+ \([0-9.]+, default build; FlashLocalRegister 396\))"))
        << run.output;
}

#ifdef HOSTSIM_HARDENED_PLUGIN
TEST(HostsimRuns, TheHardenedPluginReadsAndWritesOnACleanLine) {
    // Also under a first TNS of DLE: the hardened plug-in matches the
    // doubled byte and reads the values from the data field, where they are.
    const HostsimRun run = RunHostsim(
        With({"--plugin", HOSTSIM_HARDENED_PLUGIN, "--sim-set", "N7:0=7,8", "--sim-set", "F8:2=2.5",
              "--write", "N7:5=3", "--tag", "N7:0 x6", "--tag", "F8:2", "--exchanges", "12"}));
    ASSERT_EQ(run.exitCode, 0) << run.output;
    EXPECT_TRUE(run.matches(R"(plug-in \S+ \([0-9.]+, hardened build; FlashLocalRegister 396\))"))
        << run.output;
    EXPECT_TRUE(run.contains("write N7:5=3: result 1 good")) << run.output;
    ExpectRow(run, "N7:0 x6", R"(1 good +7 8 0 0 0 3$)");
    ExpectRow(run, "F8:2", R"(1 good +2\.5$)");
}
#endif

TEST(HostsimRuns, DefaultTagsAreTheSimulatorsLiveOnes) {
    const HostsimRun run = RunHostsim(With({"--exchanges", "16"}));
    ASSERT_EQ(run.exitCode, 0) << run.output;
    // A live value that gains or loses a 0x10 byte between the exchange
    // that learns the reply length and the real one fails on length and is
    // retried: result 0 is possible at any moment for these three.
    ExpectRow(run, "N10:0", R"(word\(3\) +(1 good|0 retrying) +-?\d+$)");
    ExpectRow(run, "N10:1/0", R"(bit\(1\) +(1 good|0 retrying) +[01]$)");
    ExpectRow(run, "F9:0", R"(real\(4\) +(1 good|0 retrying) +[-0-9.e+]+$)");
    ExpectRow(run, "N7:0 x4", R"(1 good +0 0 0 0$)");
}

TEST(HostsimRuns, EveryReadCostsALengthLearningExchange) {
    // Nothing fails, so every cyclic read is one exchange that learns the
    // reply length and one that carries the data.
    const HostsimRun run =
        RunHostsim(With({"--tag", "N7:0 x4", "--tag", "F8:0", "--exchanges", "20"}));
    ASSERT_EQ(run.exitCode, 0) << run.output;
    EXPECT_TRUE(run.matches(
        R"(=== .*exchanges 20 \(.*\) \| length-learning 10 \| good 20 \| retried 0 \| failures 0)"))
        << run.output;
}

TEST(HostsimRuns, WritesGoToTheControllerAndAreReadBack) {
    const HostsimRun run = RunHostsim(
        With({"--write", "N7:3=1234", "--write", "F8:1=2.5", "--write", "B3:0/5=1", "--tag",
              "N7:0 x4", "--tag", "F8:0 x2", "--tag", "B3:0", "--exchanges", "30"}));
    ASSERT_EQ(run.exitCode, 0) << run.output;
    ExpectTexts(run, {"write N7:3=1234: result 1 good", "write F8:1=2.5: result 1 good",
                      "write B3:0/5=1: result 1 good"});
    // The cyclic reads after the writes store what the controller holds.
    ExpectRow(run, "N7:0 x4", R"(1 good +0 0 0 1234$)");
    ExpectRow(run, "F8:0 x2", R"(1 good +0 2\.5$)");
    ExpectRow(run, "B3:0", R"(1 good +0x0020$)");
}

TEST(HostsimRuns, ImageOnlyWriteIsReplacedByTheControllersValue) {
    // Write mode 1 puts the value into the local image only; the next
    // cyclic read brings back the controller's 0.
    const HostsimRun run = RunHostsim(With(
        {"--write-mode", "1", "--write", "N7:3=1234", "--tag", "N7:0 x4", "--exchanges", "10"}));
    ASSERT_EQ(run.exitCode, 0) << run.output;
    EXPECT_TRUE(run.contains("write N7:3=1234 put into the local image only")) << run.output;
    EXPECT_FALSE(run.contains("write N7:3=1234: result")) << run.output;
    ExpectRow(run, "N7:0 x4", R"(1 good +0 0 0 0$)");
}

TEST(HostsimRuns, WordWriteLongerThanMaxCountIsCutIntoRequests) {
    const HostsimRun run = RunHostsim(With({"--max-count", "2", "--write", "N7:0=1,2,3,4,5",
                                            "--tag", "N7:0 x6", "--exchanges", "24"}));
    ASSERT_EQ(run.exitCode, 0) << run.output;
    EXPECT_TRUE(run.contains("write N7:0=1,2,3,4,5 [request at N7:0 x2]: result 1 good"))
        << run.output;
    EXPECT_TRUE(run.contains("write N7:0=1,2,3,4,5 [request at N7:4]: result 1 good"))
        << run.output;
    ExpectRow(run, "N7:0 x6", R"(1 good +1 2 3 4 5 0$)");
}

TEST(HostsimRuns, OneShotReadsReportThroughTheCallback) {
    const CapturedRun captured =
        RunCaptured({"--sim-set", "N7:10=7,8,9,10", "--sim-set", "F8:0=1.5,-2", "--sim-set",
                     "B3:2=0x00F0", "--read", "N7:10x4", "--read", "F8:0 x2", "--read", "B3:2/3 x3",
                     "--tag", "N7:0", "--exchanges", "20"},
                    "one_shot");
    const HostsimRun& run = captured.run;
    ASSERT_EQ(run.exitCode, 0) << run.output;
    // The first read learns its length and reads its data under the same
    // TNS. When that is DLE, each value is read one byte early: 7 becomes
    // 0x0700, with the byte before it (0) below.
    const char* firstValues = captured.firstTnsIsDle ? "1792 2048 2304 2560" : "7 8 9 10";
    EXPECT_TRUE(run.matches(
        std::string(
            R"(callback\(context \d+, varId \d+, varSubId \d+, status 1\): read N7:10 x4 = )") +
        firstValues + "\n"))
        << run.output;
    EXPECT_TRUE(run.matches(R"(status 1\): read F8:0 x2 = 1\.5 -2)")) << run.output;
    // Bits 3, 4, 5 of 0x00F0.
    EXPECT_TRUE(run.matches(R"(status 1\): read B3:2/3 x3 = 0 1 1)")) << run.output;
}

TEST(HostsimRuns, RemoteModeReadsAndWrites) {
    // Two writes in a row: the second is checked as a first reply only
    // because hostsim zeroes replyDone before each exchange.
    const HostsimRun run = RunHostsim(
        With({"--remote", "--sim-set", "N7:5=4242", "--sim-set", "F8:2=0.25", "--write", "N7:6=77",
              "--write", "N7:7=88", "--tag", "N7:5 x3", "--tag", "F8:2", "--exchanges", "20"}));
    ASSERT_EQ(run.exitCode, 0) << run.output;
    ExpectTexts(run,
                {"remote mode", "write N7:6=77: result 1 good", "write N7:7=88: result 1 good"});
    ExpectRow(run, "N7:5 x3", R"(1 good +4242 77 88$)");
    ExpectRow(run, "F8:2", R"(1 good +0\.25$)");
}

TEST(HostsimRuns, RemoteWriteAfterAGoodExchangeFailsUnlessReplyDoneIsZeroed) {
    // The remote write builder leaves replyDone as the last good exchange
    // left it (1), and a reply checked with replyDone 1 fails. The
    // controller carries out every try all the same.
    const HostsimRun run =
        RunHostsim(With({"--remote", "--keep-reply-done", "--write", "N7:6=77", "--write",
                         "N7:7=88", "--tag", "N7:5 x3", "--exchanges", "20"}));
    ASSERT_EQ(run.exitCode, 0) << run.output;
    EXPECT_TRUE(run.contains("write N7:6=77: result 1 good")) << run.output;
    EXPECT_TRUE(run.contains("write N7:7=88: result 11 bad reply")) << run.output;
    ExpectRow(run, "N7:5 x3", R"(1 good +0 77 88$)");
}

TEST(HostsimRuns, ControllerErrorReplyCountsAsGoodByDefault) {
    // N12 does not exist in the simulator: it answers with a CIP error of
    // the right length, which the plug-in's checks accept, and which carries
    // no data, so the tag keeps 0. The first transaction number is drawn at
    // random, and when it is DLE (one run in 255) the doubled byte moves the
    // reply one place on, and that reply's trailer lands in the tag: the
    // capture says which.
    const CapturedRun captured =
        RunCaptured({"--tag", "N12:0", "--retry-limit", "1", "--exchanges", "8"}, "cip_error");
    const HostsimRun& run = captured.run;
    ASSERT_EQ(run.exitCode, 0) << run.output;
    ExpectRow(run, "N12:0", captured.firstTnsIsDle ? R"(1 good +[1-9]\d*$)" : R"(1 good +0$)");
    EXPECT_TRUE(run.matches(R"(=== .*\| failures 0 \|)")) << run.output;
}

TEST(HostsimRuns, CipErrorsFailTurnsTheErrorReplyIntoAFailure) {
    const HostsimRun run = RunHostsim(
        With({"--tag", "N12:0", "--retry-limit", "1", "--cip-errors-fail", "--exchanges", "8"}));
    ASSERT_EQ(run.exitCode, 0) << run.output;
    // Learn, reject (retried), learn, reject (reported), twice over.
    EXPECT_TRUE(run.contains("failure reported: cyclic read N12:0: result 41 no reply"))
        << run.output;
    EXPECT_TRUE(run.matches(R"(=== .*\| retried 2 \| failures 2 \|.*\| cip-rejected 4 \|)"))
        << run.output;
}

struct FaultRow {
    const char* name;
    const char* option;
    const char* code;  // the reported failure
};

void PrintTo(const FaultRow& row, std::ostream* os) {
    *os << row.option << " 2 -> " << row.code;
}

class HostsimFaults : public ::testing::TestWithParam<FaultRow> {};

TEST_P(HostsimFaults, SecondReplySpoiledReportsItsCode) {
    // Replies 1, 3, 5 learn the length; 2, 4, 6 are spoiled, and with a
    // retry limit of 0 each is reported at once.
    const HostsimRun run =
        RunHostsim(With({GetParam().option, "2", "--retry-limit", "0", "--timeout-ms", "300",
                         "--tag", "N7:0", "--exchanges", "6"}));
    ASSERT_EQ(run.exitCode, 0) << run.output;
    EXPECT_TRUE(
        run.contains(std::string("failure reported: cyclic read N7:0: result ") + GetParam().code))
        << run.output;
    EXPECT_TRUE(run.matches(R"(=== .*\| good 3 \| retried 0 \| failures 3 \|)")) << run.output;
    ExpectRow(run, "N7:0", std::string(R"(word\(3\) +)") + GetParam().code);
}

// A reply cut before its trailer never completes, so it counts as none.
INSTANTIATE_TEST_SUITE_P(
    Rows, HostsimFaults,
    ::testing::Values(FaultRow{"Corrupt", "--sim-corrupt-every", "11 bad reply"},
                      FaultRow{"Drop", "--sim-drop-every", "41 no reply"},
                      FaultRow{"Truncate", "--sim-truncate-every", "41 no reply"}),
    [](const ::testing::TestParamInfo<FaultRow>& row) { return std::string(row.param.name); });

TEST(HostsimRuns, SilentControllerFailsWritesButNeverReads) {
    // No reply at all: a write (whose reply length is fixed) is reported
    // after retryLimit + 1 tries; a read never gets past learning its reply
    // length, which only ever gives result 0.
    const HostsimRun run =
        RunHostsim(With({"--sim-drop-every", "1", "--timeout-ms", "50", "--retry-limit", "1",
                         "--write", "N7:1=5", "--tag", "N7:0", "--exchanges", "6"}));
    ASSERT_EQ(run.exitCode, 0) << run.output;
    EXPECT_TRUE(run.contains("write N7:1=5: result 41 no reply")) << run.output;
    EXPECT_TRUE(run.matches(
        R"(=== .*\| good 0 \| retried 5 \| failures 1 \| no reply 6 \|.*\| zeros in a row 4)"))
        << run.output;
    ExpectRow(run, "N7:0", R"(word\(3\) +0 no length yet +0$)");
}

TEST(HostsimRuns, TagFileGivesTheTable) {
    const HostsimRun run =
        RunHostsim(With({"--tags", HOSTSIM_SOURCE_DIR "/sample_tags.txt", "--exchanges", "12"}));
    ASSERT_EQ(run.exitCode, 0) << run.output;
    for (const char* tag : {"N7:0 x10", "B3:0/5", "F8:0 x4", "N10:0 x2"})
        EXPECT_FALSE(run.finalRow(tag).empty()) << tag << "\n" << run.output;
}

TEST(HostsimRuns, DurationEndsTheRun) {
    const HostsimRun run = RunHostsim(With({"--tag", "N7:0", "--duration", "0.3"}));
    EXPECT_EQ(run.exitCode, 0) << run.output;
    EXPECT_TRUE(run.contains("stopped after the time limit")) << run.output;
}

TEST(HostsimRuns, SigtermEndsTheRunCleanly) {
    SpawnedProgram hostsim(HOSTSIM_LAUNCHER, HOSTSIM_PATH, {"--baud", "115200", "--tag", "N7:0"},
                           SpawnedProgram::Stderr::kWithStdout);
    ASSERT_TRUE(hostsim.started());
    // The title line comes once the plug-in is loaded and the link is open.
    const std::string title = hostsim.firstLine();
    ASSERT_NE(title.find("hostsim | plug-in"), std::string::npos) << hostsim.out();
    hostsim.signal(SIGTERM);
    // Its last line, within a time limit (the program is killed otherwise).
    ASSERT_NE(hostsim.waitFor("QueryFinishFlag 1; stopped after a signal", 0, 10000),
              std::string::npos)
        << hostsim.out();
    EXPECT_EQ(hostsim.wait(), 0) << hostsim.out();
}

// ---- refusals -----------------------------------------------------------

struct RefusalRow {
    const char* name;
    std::vector<std::string> args;
    int exitCode;
    const char* message;
};

void PrintTo(const RefusalRow& row, std::ostream* os) {
    for (const std::string& a : row.args) *os << a << ' ';
    *os << "-> exit " << row.exitCode;
}

class HostsimRefusals : public ::testing::TestWithParam<RefusalRow> {};

TEST_P(HostsimRefusals, PrintAReasonAndExitNonZero) {
    const RefusalRow& row = GetParam();
    const HostsimRun run = RunHostsim(row.args);
    EXPECT_EQ(run.exitCode, row.exitCode) << run.output;
    EXPECT_TRUE(run.contains(row.message)) << run.output;
    EXPECT_FALSE(run.contains("=== ")) << "no run expected:\n" << run.output;
}

INSTANTIATE_TEST_SUITE_P(
    Rows, HostsimRefusals,
    ::testing::Values(
        RefusalRow{"MissingPlugin",
                   {"--plugin", "/nonexistent/libnothing.so"},
                   3,
                   "hostsim: cannot load plug-in /nonexistent/libnothing.so"},
        RefusalRow{"MissingEntryPoint",
                   {"--plugin", HOSTSIM_PLUGIN_WITHOUT_DATACOM},
                   3,
                   "has no entry point 'DataCom'"},
        RefusalRow{"BadTagAddress", {"--tag", "N7:x"}, 2, "hostsim: invalid address 'N7:x'"},
        RefusalRow{"BadTagLetter", {"--tag", "Q7:0"}, 2, "the file letter must be B, N or F"},
        RefusalRow{"BadReadAddress", {"--read", "N7:300"}, 2, "invalid address 'N7:300'"},
        RefusalRow{"BadWriteValue", {"--write", "N7:3=abc"}, 2, "invalid value 'abc'"},
        RefusalRow{"BadOption", {"--bogus"}, 2, "hostsim: unknown option '--bogus'"},
        RefusalRow{"BadBaud", {"--baud", "12345"}, 2, "unsupported rate 12345"},
        RefusalRow{"MissingValue", {"--max-count"}, 2, "option --max-count needs a value"},
        RefusalRow{"UnopenablePort",
                   {"--port", "/nonexistent/ttyX"},
                   4,
                   "hostsim: cannot open port /nonexistent/ttyX"},
        RefusalRow{"PortThatIsNotATerminal", {"--port", "/dev/null"}, 4, "not a terminal device"},
        RefusalRow{"EndlessTagFile",
                   {"--tags", "/dev/zero"},
                   2,
                   "hostsim: /dev/zero:1: not a text file (byte 0x00)"},
        RefusalRow{"BinaryTagFile",
                   {"--tags", HOSTSIM_PATH},
                   2,
                   HOSTSIM_PATH ":1: not a text file (byte 0x7F)"},
        RefusalRow{"NumberThatWouldWrap",
                   {"--station", "99999999999999999999"},
                   2,
                   "'99999999999999999999' is not a number from 0 to 255"}),
    [](const ::testing::TestParamInfo<RefusalRow>& row) { return std::string(row.param.name); });

TEST(HostsimRuns, HelpListsTheOptionsAndExitsZero) {
    const HostsimRun run = RunHostsim({"--help"});
    EXPECT_EQ(run.exitCode, 0);
    for (const char* option : {"--plugin",
                               "--port",
                               "--baud",
                               "--timeout-ms",
                               "--max-count",
                               "--retry-limit",
                               "--station",
                               "--write-mode",
                               "--remote",
                               "--multi-station",
                               "--local-link",
                               "--tag",
                               "--tags",
                               "--write",
                               "--read",
                               "--duration",
                               "--exchanges",
                               "--cip-errors-fail",
                               "--keep-reply-done",
                               "--plain",
                               "--log-exchanges",
                               "--interval-ms",
                               "--sim-set",
                               "--sim-drop-every",
                               "--sim-corrupt-every",
                               "--sim-truncate-every"})
        EXPECT_TRUE(run.contains(option)) << option;
}

TEST(HostsimRuns, LogExchangesShowsEveryExchangeAndTheValuesAfterIt) {
    const CapturedRun captured =
        RunCaptured({"--sim-set", "N7:0=7,8", "--tag", "N7:0 x2", "--write", "N7:5=3",
                     "--exchanges", "8", "--log-exchanges"},
                    "log_exchanges");
    const HostsimRun& run = captured.run;
    ASSERT_EQ(run.exitCode, 0) << run.output;
    // A write whose TNS was DLE gets a reply one byte longer than it
    // expects, and is tried again under the next TNS.
    if (captured.firstTnsIsDle) {
        EXPECT_TRUE(run.matches(
            R"(event \[ *[0-9.]+ s\] exchange 1: write N7:5, reply, result 0 retrying \| N7:0 x2 = )"))
            << run.output;
    }
    const std::string goodWrite = captured.firstTnsIsDle ? "2" : "1";
    EXPECT_TRUE(run.matches(R"(event \[ *[0-9.]+ s\] exchange )" + goodWrite +
                            R"(: write N7:5, reply, result 1 good \| N7:0 x2 = )"))
        << run.output;
    EXPECT_TRUE(run.matches(R"(exchange [2-8]: read N7:0 x2 learning, reply, result )"))
        << run.output;
    EXPECT_TRUE(
        run.matches(R"(exchange [2-8]: read N7:0 x2, reply, result 1 good \| N7:0 x2 = 7 8\n)"))
        << run.output;
    EXPECT_TRUE(run.contains("exchange 8: ")) << run.output;
    EXPECT_FALSE(run.contains("exchange 9: ")) << run.output;
}

TEST(HostsimRuns, WithoutLogExchangesNoExchangeIsLogged) {
    const HostsimRun run = RunHostsim(With({"--tag", "N7:0", "--exchanges", "4"}));
    ASSERT_EQ(run.exitCode, 0) << run.output;
    EXPECT_FALSE(run.contains("exchange 1: ")) << run.output;
}
