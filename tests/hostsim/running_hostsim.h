// hostsim started from a test and left running: stdout and stderr read into
// one text by a thread of their own, waited on for a pattern with a time
// limit (a condition variable, never a sleep), stopped by a signal.
#ifndef HOSTSIM_TEST_RUNNING_HOSTSIM_H
#define HOSTSIM_TEST_RUNNING_HOSTSIM_H

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <fcntl.h>
#include <mutex>
#include <regex>
#include <spawn.h>
#include <sstream>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

extern char** environ;

class RunningHostsim {
public:
    // program: the hostsim to start, through launcher's words (an emulator
    // for a cross build; empty natively). stdin is /dev/null.
    RunningHostsim(const std::string& launcher, const std::string& program,
                   const std::vector<std::string>& args) {
        int out[2];
        if (pipe2(out, O_CLOEXEC) != 0) return;
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
        posix_spawn_file_actions_adddup2(&actions, out[1], 1);
        posix_spawn_file_actions_adddup2(&actions, out[1], 2);
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
        reader_ = std::thread([this, fd = out[0]] { collect(fd); });
    }
    ~RunningHostsim() {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
        if (reader_.joinable()) reader_.join();
    }
    RunningHostsim(const RunningHostsim&) = delete;
    RunningHostsim& operator=(const RunningHostsim&) = delete;

    bool started() const { return pid_ > 0; }
    void signal(int sig) {
        if (pid_ > 0) kill(pid_, sig);
    }

    // Waits until the output from position from on matches pattern; the
    // position just after the match, or std::string::npos when the program
    // ends or timeoutMs passes first.
    std::size_t waitFor(const std::string& pattern, std::size_t from, int timeoutMs) {
        const std::regex re(pattern);
        std::size_t found = std::string::npos;
        const auto matched = [&] {
            std::smatch m;
            const std::string tail = from < output_.size() ? output_.substr(from) : "";
            if (!std::regex_search(tail, m, re)) return ended_;
            found = from + static_cast<std::size_t>(m.position(0) + m.length(0));
            return true;
        };
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait_for(lock, std::chrono::milliseconds(timeoutMs), matched);
        return found;
    }

    // Waits for the program to end (all its output read); its exit code, or
    // -1 when a signal ended it.
    int wait() {
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

    std::string output() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return output_;
    }

private:
    void collect(int fd) {
        char buffer[4096];
        ssize_t n;
        while ((n = read(fd, buffer, sizeof buffer)) != 0) {
            if (n < 0) {
                if (errno == EINTR) continue;
                break;
            }
            std::lock_guard<std::mutex> lock(mutex_);
            output_.append(buffer, static_cast<std::size_t>(n));
            changed_.notify_all();
        }
        close(fd);
        std::lock_guard<std::mutex> lock(mutex_);
        ended_ = true;
        changed_.notify_all();
    }

    pid_t pid_ = -1;
    int status_ = 0;
    std::thread reader_;
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::string output_;
    bool ended_ = false;
};

#endif
