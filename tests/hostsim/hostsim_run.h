// Running the hostsim program from a test and picking its output apart.
#ifndef HOSTSIM_TEST_RUN_H
#define HOSTSIM_TEST_RUN_H

#include <cstdio>
#include <regex>
#include <sstream>
#include <string>
#include <sys/wait.h>
#include <vector>

struct HostsimRun {
    int exitCode = -1;
    std::string output;  // stdout and stderr together

    // The row of a tag in the last table hostsim printed (the one after
    // "===", printed when it stops), or "" when there is none.
    std::string finalRow(const std::string& tag) const {
        const std::size_t last = output.rfind("\n=== ");
        if (last == std::string::npos) return "";
        std::istringstream lines(output.substr(last + 1));
        std::string line;
        while (std::getline(lines, line))
            if (line.rfind("  " + tag + " ", 0) == 0) return line;
        return "";
    }
    bool contains(const std::string& text) const { return output.find(text) != std::string::npos; }
    bool matches(const std::string& pattern) const {
        return std::regex_search(output, std::regex(pattern));
    }
};

inline std::string ShellQuote(const std::string& arg) {
    std::string out = "'";
    for (char c : arg) {
        if (c == '\'')
            out += "'\\''";
        else
            out += c;
    }
    return out + "'";
}

// Longest a hostsim run from a test may take. A run that hangs is stopped
// then and fails its test with what it printed so far, instead of stalling
// until ctest gives up on the whole test program.
constexpr int kHostsimRunLimitS = 120;
constexpr int kTimedOut = 124;  // timeout(1)'s exit code when it stopped the run

// Runs hostsim with args, stdin from /dev/null, and waits for it to end.
inline HostsimRun RunHostsim(const std::vector<std::string>& args) {
    std::string command = "timeout -k 5 " + std::to_string(kHostsimRunLimitS) + " " +
                          std::string(HOSTSIM_LAUNCHER) + " " + ShellQuote(HOSTSIM_PATH);
    for (const std::string& a : args) command += " " + ShellQuote(a);
    command += " </dev/null 2>&1";
    HostsimRun run;
    FILE* pipe = popen(command.c_str(), "r");
    if (!pipe) return run;
    char buffer[4096];
    std::size_t n;
    while ((n = fread(buffer, 1, sizeof buffer, pipe)) > 0) run.output.append(buffer, n);
    const int status = pclose(pipe);
    run.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    if (run.exitCode == kTimedOut)
        run.output += "\n[hostsim did not end within " + std::to_string(kHostsimRunLimitS) +
                      " s and was stopped]\n";
    return run;
}

#endif
