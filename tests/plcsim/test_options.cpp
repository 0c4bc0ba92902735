// The plcsim command line: what each option sets, the order rules and the
// messages a bad value gets.
#include "options.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using plcsim::Options;
using plcsim::ParseOptions;

namespace {

// Parses args that must be accepted.
Options Parsed(const std::vector<std::string>& args) {
    Options options;
    std::string error;
    EXPECT_TRUE(ParseOptions(args, &options, &error)) << error;
    return options;
}

// The reason args are refused with; a test failure when they are accepted.
std::string Refusal(const std::vector<std::string>& args) {
    Options options;
    std::string error;
    EXPECT_FALSE(ParseOptions(args, &options, &error)) << args.front();
    return error;
}

}  // namespace

TEST(Options, DefaultsWithoutArguments) {
    const Options o = Parsed({});
    EXPECT_TRUE(o.device.empty());
    EXPECT_TRUE(o.linkPath.empty());
    EXPECT_FALSE(o.printPath);
    EXPECT_EQ(o.baud, 19200);
    EXPECT_TRUE(o.files.empty());
    EXPECT_TRUE(o.live);
    EXPECT_EQ(o.controller.mode, peer::LinkMode::kDirect);
    EXPECT_TRUE(o.controller.nakBadFrames);
    EXPECT_EQ(o.server.turnaroundMs, 5u);
    EXPECT_EQ(o.server.runForMs, 0u);
    EXPECT_FALSE(o.silence);
    EXPECT_FALSE(o.quiet);
    EXPECT_FALSE(o.help);
}

TEST(Options, FlagsSetTheirFields) {
    const Options o = Parsed(
        {"--print-path", "--quiet", "--no-live", "--no-nak", "--detect-duplicates", "--remote"});
    EXPECT_TRUE(o.printPath);
    EXPECT_TRUE(o.quiet);
    EXPECT_FALSE(o.live);
    EXPECT_FALSE(o.controller.nakBadFrames);
    EXPECT_TRUE(o.controller.detectDuplicates);
    EXPECT_EQ(o.controller.mode, peer::LinkMode::kRemote);
}

TEST(Options, EachNumberReachesItsOwnField) {
    // Distinct values, so a number that lands in the wrong field shows.
    const Options o = Parsed({"--turnaround",
                              "1",
                              "--gap",
                              "2",
                              "--tick",
                              "3",
                              "--drop-every",
                              "4",
                              "--drop-next",
                              "5",
                              "--corrupt-every",
                              "6",
                              "--corrupt-next",
                              "7",
                              "--truncate-every",
                              "8",
                              "--truncate-next",
                              "9",
                              "--truncate-bytes",
                              "10",
                              "--late-every",
                              "11",
                              "--late-next",
                              "12",
                              "--late-ms",
                              "13",
                              "--wrong-tns-every",
                              "14",
                              "--wrong-tns-next",
                              "4294967295"});
    EXPECT_EQ(o.server.turnaroundMs, 1u);
    EXPECT_EQ(o.server.gapResetMs, 2u);
    EXPECT_EQ(o.server.tickIntervalMs, 3u);
    EXPECT_EQ(o.faults.drop.every, 4u);
    EXPECT_EQ(o.faults.drop.next, 5u);
    EXPECT_EQ(o.faults.corruptCheck.every, 6u);
    EXPECT_EQ(o.faults.corruptCheck.next, 7u);
    EXPECT_EQ(o.faults.truncate.every, 8u);
    EXPECT_EQ(o.faults.truncate.next, 9u);
    EXPECT_EQ(o.faults.truncateBytes, 10u);
    EXPECT_EQ(o.faults.late.every, 11u);
    EXPECT_EQ(o.faults.late.next, 12u);
    EXPECT_EQ(o.faults.lateMs, 13u);
    EXPECT_EQ(o.faults.wrongTns.every, 14u);
    EXPECT_EQ(o.faults.wrongTns.next, 4294967295u);
}

TEST(Options, ValuesOfTheirOwnKind) {
    const Options o = Parsed({"--link", "/tmp/plc", "--baud", "0", "--file", "N7:16", "--file",
                              "F8:4", "--max-reply-data", "16", "--remote-tns", "255", "--silence",
                              "100:250", "--duration", "1.5"});
    EXPECT_EQ(o.linkPath, "/tmp/plc");
    EXPECT_EQ(o.baud, 0);
    ASSERT_EQ(o.files.size(), 2u);
    EXPECT_EQ(o.files[0].letter, 'N');
    EXPECT_EQ(o.files[0].number, 7);
    EXPECT_EQ(o.files[0].elements, 16u);
    EXPECT_EQ(o.files[1].letter, 'F');
    EXPECT_EQ(o.controller.maxReplyData, 16u);
    EXPECT_EQ(o.controller.remoteTransactionStart, 255);
    EXPECT_TRUE(o.silence);
    EXPECT_EQ(o.silenceAtMs, 100u);
    EXPECT_EQ(o.silenceForMs, 250u);
    EXPECT_EQ(o.server.runForMs, 1500u);
}

TEST(Options, EveryTermiosRateAndNoPacing) {
    for (const char* rate : {"0", "300", "19200", "460800", "4000000"})
        EXPECT_EQ(Parsed({"--baud", rate}).baud, std::stoi(rate)) << rate;
}

TEST(Options, DurationRoundsToWholeMilliseconds) {
    EXPECT_EQ(Parsed({"--duration", "0.0015"}).server.runForMs, 2u);
    EXPECT_EQ(Parsed({"--duration", "4000000"}).server.runForMs, 4000000000u);
}

TEST(Options, HelpStopsReadingTheRest) {
    const Options o = Parsed({"--quiet", "--help", "--bogus"});
    EXPECT_TRUE(o.help);
    EXPECT_TRUE(o.quiet);
    EXPECT_TRUE(Parsed({"-h"}).help);
    // An error before --help still counts.
    EXPECT_EQ(Refusal({"--bogus", "--help"}), "unknown option '--bogus'");
}

TEST(Options, BadNumbersNameTheOption) {
    const std::vector<std::vector<std::string>> rows = {
        {"--turnaround", "-1"},
        {"--gap", "4294967296"},
        {"--tick", "x"},
        {"--drop-every"},
        {"--late-ms", " 1"},
        {"--wrong-tns-next", "+1"},
        {"--remote-tns", "256"},
        {"--device", ""},
        {"--link"},
        {"--duration", "0"},
        {"--duration", "abc"},
        {"--duration", "0.0001"},
        {"--duration", "4000001"},
        {"--silence", "5"},
        {"--silence", "5:0"},
        {"--silence", ":5"},
        {"--truncate-bytes", "12345678901"},
    };
    for (const auto& args : rows)
        EXPECT_EQ(Refusal(args), "bad or missing value for " + args.front()) << args.back();
}

TEST(Options, ValuesWithTheirOwnMessages) {
    const std::string baud =
        "--baud wants 0 or one of 300, 600, 1200, 2400, 4800, 9600, 19200, 38400, 57600, "
        "115200, 230400";
    EXPECT_EQ(Refusal({"--baud", "1234"}), baud);
    EXPECT_EQ(Refusal({"--baud", "4000001"}), baud);
    EXPECT_EQ(Refusal({"--baud"}), baud);
    EXPECT_EQ(Refusal({"--max-reply-data", "15"}), "--max-reply-data wants 16 to 65535");
    EXPECT_EQ(Refusal({"--max-reply-data", "65536"}), "--max-reply-data wants 16 to 65535");
    EXPECT_EQ(Refusal({"--file"}), "--file wants a value such as N7:256");
    EXPECT_EQ(Refusal({"--silence"}), "--silence wants AT:FOR in milliseconds");
    EXPECT_NE(Refusal({"--file", "X7:2"}).find("X7:2"), std::string::npos);
    EXPECT_EQ(Refusal({"--duration=1"}), "unknown option '--duration=1'");
}

TEST(Options, DeviceRules) {
    EXPECT_EQ(Parsed({"--device", "/dev/ttyS0"}).device, "/dev/ttyS0");
    EXPECT_EQ(Refusal({"--device", "/dev/ttyS0", "--link", "/tmp/x"}),
              "--link is for pseudo-terminals only");
    EXPECT_EQ(Refusal({"--baud", "0", "--device", "/dev/ttyS0"}),
              "a device needs a real baud rate");
}

TEST(Options, UsageNamesEveryOption) {
    const std::string usage = plcsim::UsageText();
    EXPECT_EQ(usage.rfind("Usage: plcsim [options]\n", 0), 0u);
    for (const char* name : {"--device",
                             "--link",
                             "--print-path",
                             "--baud",
                             "--turnaround",
                             "--gap",
                             "--file",
                             "--no-live",
                             "--tick",
                             "--remote",
                             "--no-nak",
                             "--detect-duplicates",
                             "--max-reply-data",
                             "--remote-tns",
                             "--drop-every",
                             "--corrupt-next",
                             "--truncate-bytes",
                             "--late-ms",
                             "--wrong-tns-every",
                             "--noise-every",
                             "--noise-next",
                             "--noise-bytes",
                             "--noise-seed",
                             "--restart-after",
                             "--silence",
                             "--duration",
                             "--quiet",
                             "--help"})
        EXPECT_NE(usage.find(name), std::string::npos) << name;
}

TEST(Options, LineFaultSwitches) {
    const Options o = Parsed({"--noise-every", "7", "--noise-next", "2", "--noise-bytes", "4096",
                              "--noise-seed", "4294967295", "--restart-after", "50"});
    EXPECT_EQ(o.faults.noise.every, 7u);
    EXPECT_EQ(o.faults.noise.next, 2u);
    EXPECT_EQ(o.faults.noiseBytes, 4096u);
    EXPECT_EQ(o.faults.noiseSeed, 4294967295u);
    EXPECT_EQ(o.server.restartAfterReplies, 50u);
    const Options defaults = Parsed({});
    EXPECT_FALSE(defaults.faults.noise.active());
    EXPECT_EQ(defaults.faults.noiseBytes, 8u);
    EXPECT_EQ(defaults.server.restartAfterReplies, 0u);
    const std::string noiseBytes = "--noise-bytes wants 1 to 4096";
    EXPECT_EQ(Refusal({"--noise-bytes", "0"}), noiseBytes);
    EXPECT_EQ(Refusal({"--noise-bytes", "4097"}), noiseBytes);
    EXPECT_EQ(Refusal({"--noise-bytes"}), noiseBytes);
    EXPECT_EQ(Refusal({"--restart-after", "-1"}), "bad or missing value for --restart-after");
}

// The 32-bit options at and past their limit, and texts that are not plain
// numbers: one parser for every tool, the same on a 32-bit panel.
TEST(Options, ThirtyTwoBitValuesAtTheirEdges) {
    EXPECT_EQ(Parsed({"--turnaround", "2147483647"}).server.turnaroundMs, 2147483647u);
    EXPECT_EQ(Parsed({"--turnaround", "2147483648"}).server.turnaroundMs, 2147483648u);
    EXPECT_EQ(Parsed({"--drop-every", "4294967295"}).faults.drop.every, 4294967295u);
    EXPECT_EQ(Parsed({"--gap", "0004294967295"}).server.gapResetMs, 4294967295u);
    for (const char* text :
         {"4294967296", "9999999999", "99999999999999999999", "-1", "", "+5", " 5", "5x", "0x10"})
        EXPECT_EQ(Refusal({"--late-ms", text}), "bad or missing value for --late-ms") << text;
    for (const char* text : {"2147483648", "99999999999999999999", "-0"})
        EXPECT_NE(Refusal({"--baud", text}).find("--baud wants"), std::string::npos) << text;
}

TEST(Options, TagMemoryIsLimited) {
    // 64 REAL files of 65,535 elements: just under 16 MiB.
    std::vector<std::string> args;
    for (int file = 0; file < 64; ++file) {
        args.push_back("--file");
        args.push_back("F" + std::to_string(file) + ":65535");
    }
    EXPECT_EQ(Parsed(args).files.size(), 64u);
    // The same file again replaces the first: still within the limit.
    args.push_back("--file");
    args.push_back("F0:65535");
    EXPECT_EQ(Parsed(args).files.size(), 65u);
    args.push_back("--file");
    args.push_back("N0:65535");
    EXPECT_EQ(Refusal(args), "the --file options ask for more than 16777216 bytes of tag memory");
}
