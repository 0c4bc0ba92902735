// A program started from a test: its stdout and stderr collected by a thread
// of their own (so a talkative program never blocks on a full pipe), its
// first line waited for with a time limit, stopped by signal or waited for.
// Shared by the tests that run the tools against each other.
#ifndef ABCL_TESTS_SPAWNED_PROGRAM_H
#define ABCL_TESTS_SPAWNED_PROGRAM_H

#include <chrono>
#include <condition_variable>
#include <csignal>
#include <fcntl.h>
#include <mutex>
#include <poll.h>
#include <regex>
#include <spawn.h>
#include <sstream>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

extern char** environ;

class SpawnedProgram {
public:
    // Where the program's stderr goes: a text of its own, or into stdout's
    // (in the order written) for a program whose story spans both.
    enum class Stderr { kApart, kWithStdout };

    // launcher: words put before the program (an emulator for a cross build;
    // empty natively). stdin is /dev/null.
    SpawnedProgram(const std::string& launcher, const std::string& program,
                   const std::vector<std::string>& args, Stderr stderrGoes = Stderr::kApart) {
        int out[2];
        int err[2];
        if (pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) return;
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
        posix_spawn_file_actions_adddup2(&actions, out[1], 1);
        posix_spawn_file_actions_adddup2(&actions, stderrGoes == Stderr::kApart ? err[1] : out[1],
                                         2);
        std::vector<std::string> all;
        std::istringstream words(launcher);
        for (std::string word; words >> word;) all.push_back(word);
        all.push_back(program);
        all.insert(all.end(), args.begin(), args.end());
        std::vector<char*> argv;
        for (auto& a : all) argv.push_back(a.data());
        argv.push_back(nullptr);
        if (posix_spawnp(&pid_, argv[0], &actions, nullptr, argv.data(), environ) != 0) pid_ = -1;
        posix_spawn_file_actions_destroy(&actions);
        close(out[1]);
        close(err[1]);
        reader_ = std::thread([this, o = out[0], e = err[0]] { collect(o, e); });
    }
    ~SpawnedProgram() {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
        if (reader_.joinable()) reader_.join();
    }
    SpawnedProgram(const SpawnedProgram&) = delete;
    SpawnedProgram& operator=(const SpawnedProgram&) = delete;

    bool started() const { return pid_ > 0; }
    void signal(int sig) {
        if (pid_ > 0) kill(pid_, sig);
    }

    // The first line of stdout; "" when none comes within timeoutMs.
    std::string firstLine(int timeoutMs = 10000) {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                          [this] { return out_.find('\n') != std::string::npos || ended_; });
        const std::size_t end = out_.find('\n');
        return end == std::string::npos ? "" : out_.substr(0, end);
    }

    // Waits until stdout from position `from` on matches pattern; the
    // position just after the match, or std::string::npos when the program
    // ends or timeoutMs passes first.
    std::size_t waitFor(const std::string& pattern, std::size_t from, int timeoutMs) {
        const std::regex re(pattern);
        std::size_t found = std::string::npos;
        const auto matched = [&] {
            std::smatch m;
            const std::string tail = from < out_.size() ? out_.substr(from) : "";
            if (!std::regex_search(tail, m, re)) return ended_;
            found = from + static_cast<std::size_t>(m.position(0) + m.length(0));
            return true;
        };
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait_for(lock, std::chrono::milliseconds(timeoutMs), matched);
        return found;
    }

    // Waits for the program to end (all its output read); its exit code, or
    // -1 when a signal ended it. A program still running after timeoutMs is
    // killed (and gives -1), so a hanging program fails its test instead of
    // stalling the whole run.
    int wait(int timeoutMs = 120000) {
        {
            std::unique_lock<std::mutex> lock(mutex_);
            if (!changed_.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                                   [this] { return ended_; }) &&
                pid_ > 0)
                kill(pid_, SIGKILL);
        }
        if (reader_.joinable()) reader_.join();
        if (pid_ > 0) waitpid(pid_, &status_, 0);
        pid_ = -1;
        return WIFEXITED(status_) ? WEXITSTATUS(status_) : -1;
    }
    // False once the program has ended (it is reaped then; wait() still
    // gives its exit code).
    bool running() {
        if (pid_ <= 0) return false;
        if (waitpid(pid_, &status_, WNOHANG) == 0) return true;
        pid_ = -1;
        return false;
    }

    std::string out() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return out_;
    }
    std::string err() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return err_;
    }

private:
    // Reads both pipes until both are closed (the program ended).
    void collect(int outFd, int errFd) {
        pollfd fds[2] = {{outFd, POLLIN, 0}, {errFd, POLLIN, 0}};
        int open = 2;
        while (open > 0) {
            if (poll(fds, 2, -1) < 0) continue;
            for (int i = 0; i < 2; ++i) {
                if (fds[i].fd < 0 || !(fds[i].revents & (POLLIN | POLLHUP | POLLERR))) continue;
                char buffer[4096];
                const ssize_t n = read(fds[i].fd, buffer, sizeof buffer);
                if (n <= 0) {
                    close(fds[i].fd);
                    fds[i].fd = -1;
                    --open;
                    continue;
                }
                std::lock_guard<std::mutex> lock(mutex_);
                (i == 0 ? out_ : err_).append(buffer, static_cast<std::size_t>(n));
                changed_.notify_all();
            }
        }
        std::lock_guard<std::mutex> lock(mutex_);
        ended_ = true;
        changed_.notify_all();
    }

    pid_t pid_ = -1;
    int status_ = 0;
    std::thread reader_;
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::string out_;
    std::string err_;
    bool ended_ = false;
};

#endif
