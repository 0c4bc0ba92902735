// The df1tap program's command line: help, version, and a clear message and
// exit code for every bad invocation, a device that cannot be opened and a
// capture file that cannot be written.
#include "../spawned_program.h"
#include "options.h"

#include "peer/line.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

struct Outcome {
    int exitCode;
    std::string out;
    std::string err;
};

Outcome RunTap(const std::vector<std::string>& args) {
    SpawnedProgram program(TOOL_LAUNCHER, DF1TAP_PATH, args);
    EXPECT_TRUE(program.started());
    const int code = program.wait();
    return {code, program.out(), program.err()};
}

}  // namespace

TEST(Df1tapProgram, HelpAndVersion) {
    const Outcome help = RunTap({"--help"});
    EXPECT_EQ(help.exitCode, 0);
    EXPECT_EQ(help.out.rfind("Usage: df1tap", 0), 0u) << help.out;
    for (const char* option : {"--a DEVICE", "--a-pty", "--b DEVICE", "--baud N", "--remote",
                               "--capture FILE", "--quiet", "--print-path", "--version"})
        EXPECT_NE(help.out.find(option), std::string::npos) << option;
    const Outcome version = RunTap({"--version"});
    EXPECT_EQ(version.exitCode, 0);
    EXPECT_EQ(version.out, std::string("df1tap ") + DF1TAP_VERSION + "\n");
}

TEST(Df1tapProgram, BadInvocationsExitTwoWithAMessage) {
    struct Row {
        std::vector<std::string> args;
        const char* message;
    };
    const Row rows[] = {
        {{"--bogus"}, "unknown option '--bogus'"},
        {{"--b", "/dev/null", "--capture", "x"}, "give side A: --a DEVICE or --a-pty"},
        {{"--a", "/dev/null", "--a-pty", "--b", "/dev/null", "--capture", "x"},
         "give side A: --a DEVICE or --a-pty"},
        {{"--a", "/dev/null", "--capture", "x"}, "give side B: --b DEVICE"},
        {{"--a", "/dev/null", "--b", "/dev/null"}, "give the capture file: --capture FILE"},
        {{"--a"}, "--a wants a device path"},
        {{"--capture"}, "--capture wants a file name"},
        {{"--baud", "12345"}, "--baud wants"},
        {{"--baud", "-1"}, "--baud wants"},
        {{"--baud"}, "--baud wants"},
    };
    for (const Row& row : rows) {
        const Outcome outcome = RunTap(row.args);
        EXPECT_EQ(outcome.exitCode, df1tap::kExitUsage) << row.message;
        EXPECT_NE(outcome.err.find(std::string("df1tap: ") + row.message), std::string::npos)
            << outcome.err;
        EXPECT_NE(outcome.err.find("Try 'df1tap --help'."), std::string::npos) << outcome.err;
    }
}

TEST(Df1tapProgram, ADeviceThatCannotBeOpenedExitsOne) {
    const Outcome missing =
        RunTap({"--a", "/nonexistent/ttyA", "--b", "/dev/null", "--capture", "/tmp/x.pcapng"});
    EXPECT_EQ(missing.exitCode, df1tap::kExitDevice);
    EXPECT_NE(missing.err.find("cannot open port /nonexistent/ttyA"), std::string::npos)
        << missing.err;
    const Outcome notATerminal =
        RunTap({"--a-pty", "--b", "/dev/null", "--capture", "/tmp/x.pcapng"});
    EXPECT_EQ(notATerminal.exitCode, df1tap::kExitDevice);
    EXPECT_NE(notATerminal.err.find("cannot use /dev/null as a serial port"), std::string::npos)
        << notATerminal.err;
}

TEST(Df1tapProgram, ACaptureFileThatCannotBeWrittenIsAUsageError) {
    std::string error;
    auto line = peer::SerialLine::OpenPty("", &error);
    ASSERT_TRUE(line) << error;
    const Outcome outcome =
        RunTap({"--a-pty", "--b", line->peerPath(), "--capture", "/nonexistent/dir/x.pcapng"});
    EXPECT_EQ(outcome.exitCode, df1tap::kExitUsage);
    EXPECT_NE(outcome.err.find("cannot write capture file /nonexistent/dir/x.pcapng"),
              std::string::npos)
        << outcome.err;
}

TEST(Df1tapOptions, ParsedInOrder) {
    df1tap::Options o;
    std::string error;
    ASSERT_TRUE(df1tap::ParseOptions({"--a", "/dev/ttyUSB0", "--b", "/dev/ttyUSB1", "--baud",
                                      "115200", "--remote", "--capture", "line.pcapng", "--quiet"},
                                     &o, &error))
        << error;
    EXPECT_EQ(o.deviceA, "/dev/ttyUSB0");
    EXPECT_EQ(o.deviceB, "/dev/ttyUSB1");
    EXPECT_EQ(o.baud, 115200);
    EXPECT_TRUE(o.remote);
    EXPECT_TRUE(o.quiet);
    EXPECT_FALSE(o.aPty);
    EXPECT_EQ(o.capturePath, "line.pcapng");

    df1tap::Options defaults;
    ASSERT_TRUE(df1tap::ParseOptions({"--a-pty", "--b", "/dev/ttyS0", "--capture", "c"}, &defaults,
                                     &error));
    EXPECT_EQ(defaults.baud, 19200);
    EXPECT_FALSE(defaults.remote);
    EXPECT_FALSE(defaults.quiet);
}
