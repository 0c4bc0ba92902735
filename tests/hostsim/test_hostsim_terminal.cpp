// hostsim on a terminal: the table redrawn in place and commands typed at its
// prompt. The test plays the operator on a pseudo-terminal, typing each
// command once the screen shows the result of the one before
// (ABCL_TEST_LABEL_THREAD: hostsim's threads run under ThreadSanitizer too).
#include "hostsim_run.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <poll.h>
#include <pty.h>
#include <string>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

namespace {

class TerminalSession {
public:
    explicit TerminalSession(const std::string& args) {
        winsize size{};
        size.ws_row = 40;
        size.ws_col = 160;
        pid_ = forkpty(&master_, nullptr, nullptr, &size);
        if (pid_ == 0) {
            const std::string command = "exec " + std::string(HOSTSIM_LAUNCHER) + " " +
                                        ShellQuote(HOSTSIM_PATH) + " " + args;
            execl("/bin/sh", "sh", "-c", command.c_str(), static_cast<char*>(nullptr));
            _exit(127);
        }
    }
    ~TerminalSession() {
        if (pid_ > 0 && !reaped_) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
        if (master_ >= 0) close(master_);
    }

    bool started() const { return pid_ > 0 && master_ >= 0; }

    // Reads the screen output until it holds text after position from;
    // false when the program ends or a minute passes first (a hang).
    bool waitFor(const std::string& text, std::size_t from = 0) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        while (output_.find(text, from) == std::string::npos) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                                  deadline - std::chrono::steady_clock::now())
                                  .count();
            if (left <= 0 || !readSome(static_cast<int>(left))) return false;
        }
        return true;
    }

    void type(const std::string& keys) {
        const ssize_t n = write(master_, keys.data(), keys.size());
        EXPECT_EQ(n, static_cast<ssize_t>(keys.size()));
    }

    // Reads to the end and returns the exit code: -1 if it did not exit
    // within ten seconds of its last output (then it is killed), so a
    // program that hangs on its way out fails the test rather than stalling
    // it.
    int finish() {
        while (readSome(60000)) {
        }
        int status = 0;
        for (int waited = 0; waitpid(pid_, &status, WNOHANG) != pid_; waited += 10) {
            if (waited >= 10000) {
                output_ += "\n[hostsim did not exit]\n";
                return -1;  // the destructor kills it
            }
            usleep(10000);
        }
        reaped_ = true;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    const std::string& output() const { return output_; }

private:
    bool readSome(int timeoutMs) {
        pollfd pfd{master_, POLLIN, 0};
        const int ready = poll(&pfd, 1, timeoutMs);
        if (ready <= 0) return false;
        char buffer[4096];
        const ssize_t n = read(master_, buffer, sizeof buffer);
        if (n <= 0) return false;  // EIO: the program closed its terminal
        output_.append(buffer, static_cast<std::size_t>(n));
        return true;
    }

    pid_t pid_ = -1;
    int master_ = -1;
    bool reaped_ = false;
    std::string output_;
};

}  // namespace

TEST(HostsimTerminal, TypedWriteAndReadAreCarriedOutAndShown) {
    TerminalSession session("--baud 115200 --tag 'N7:0 x4'");
    ASSERT_TRUE(session.started());
    // The alternate screen, the prompt, and a first good read of the tag.
    ASSERT_TRUE(session.waitFor("\x1b[?1049h")) << session.output();
    ASSERT_TRUE(session.waitFor("\n> ")) << session.output();
    ASSERT_TRUE(session.waitFor("1 good")) << session.output();

    std::size_t mark = session.output().size();
    session.type("N7:3=99\r");
    ASSERT_TRUE(session.waitFor("write N7:3=99: result 1 good", mark)) << session.output();

    mark = session.output().size();
    session.type("read N7:0 x4\r");
    ASSERT_TRUE(session.waitFor("status 1): read N7:0 x4 = 0 0 0 99", mark)) << session.output();

    // A tag added at the prompt joins the cyclic list: N7:10..11 merges with
    // N7:0..3 into one request.
    mark = session.output().size();
    session.type("tag N7:10 x2\r");
    ASSERT_TRUE(session.waitFor("the cyclic list has 1 request(s)", mark)) << session.output();
    ASSERT_TRUE(session.waitFor("N7:10 x2  word(3)   1 good", mark)) << session.output();

    mark = session.output().size();
    session.type("N7:x=1\r");
    ASSERT_TRUE(session.waitFor("invalid address 'N7:x'", mark)) << session.output();

    session.type("quit\r");
    EXPECT_EQ(session.finish(), 0) << session.output();
    // Back on the normal screen, the last table stays as plain lines.
    const std::size_t left = session.output().rfind("\x1b[?1049l");
    ASSERT_NE(left, std::string::npos) << session.output();
    const std::string after = session.output().substr(left);
    EXPECT_TRUE(std::regex_search(after, std::regex(R"(N7:0 x4 +word\(3\) +1 good +0 0 0 99)")))
        << after;
    EXPECT_TRUE(std::regex_search(after, std::regex(R"(N7:10 x2 +word\(3\) +1 good +0 0)")))
        << after;
    EXPECT_NE(after.find("stopped after quit"), std::string::npos) << after;
}

TEST(HostsimTerminal, CtrlCEndsTheRunCleanly) {
    TerminalSession session("--baud 115200 --tag N7:0");
    ASSERT_TRUE(session.started());
    ASSERT_TRUE(session.waitFor("1 good")) << session.output();
    session.type("\x03");  // the terminal turns Ctrl-C into SIGINT
    EXPECT_EQ(session.finish(), 0) << session.output();
    EXPECT_NE(session.output().find("stopped after a signal"), std::string::npos)
        << session.output();
}

TEST(HostsimTerminal, LineLongerThanTheLimitIsIgnoredWhole) {
    TerminalSession session("--baud 115200 --tag N7:0");
    ASSERT_TRUE(session.started());
    ASSERT_TRUE(session.waitFor("1 good")) << session.output();
    // Typed in pieces the terminal's input buffer holds, each waited for
    // by its redraw, so neither side ever blocks on a full buffer.
    constexpr std::size_t kPiece = 1000;
    constexpr std::size_t kTyped = 5000;  // past the 4,096-character limit
    for (std::size_t typed = 0; typed < kTyped; typed += kPiece) {
        const std::size_t mark = session.output().size();
        session.type(std::string(kPiece, '7'));
        ASSERT_TRUE(session.waitFor("\x1b[H", mark)) << "after " << typed;
    }
    std::size_t mark = session.output().size();
    session.type("=1\r");
    ASSERT_TRUE(session.waitFor("input line longer than 4096 characters ignored", mark))
        << session.output().substr(mark);
    // The prompt goes on as before.
    mark = session.output().size();
    session.type("N7:3=5\r");
    ASSERT_TRUE(session.waitFor("write N7:3=5: result 1 good", mark)) << session.output();
    session.type("quit\r");
    EXPECT_EQ(session.finish(), 0);
    EXPECT_EQ(session.output().find("unknown command '777"), std::string::npos);
}
