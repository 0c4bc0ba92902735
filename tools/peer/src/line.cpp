#include "peer/line.h"

#include "peer/df1.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <termios.h>
#include <unistd.h>

namespace peer {

namespace {

struct BaudEntry {
    int baud;
    speed_t speed;
};

// Every rate termios names; the ones above 230,400 are Linux's.
const BaudEntry kBauds[] = {
    {50, B50},           {75, B75},           {110, B110},         {134, B134},
    {150, B150},         {200, B200},         {300, B300},         {600, B600},
    {1200, B1200},       {1800, B1800},       {2400, B2400},       {4800, B4800},
    {9600, B9600},       {19200, B19200},     {38400, B38400},     {57600, B57600},
    {115200, B115200},   {230400, B230400},
#ifdef B460800
    {460800, B460800},   {500000, B500000},   {576000, B576000},   {921600, B921600},
    {1000000, B1000000}, {1152000, B1152000}, {1500000, B1500000}, {2000000, B2000000},
    {2500000, B2500000}, {3000000, B3000000}, {3500000, B3500000}, {4000000, B4000000},
#endif
};

bool SpeedOf(int baud, speed_t* speed) {
    for (const auto& entry : kBauds) {
        if (entry.baud == baud) {
            *speed = entry.speed;
            return true;
        }
    }
    return false;
}

std::string Describe(const std::string& what, int err) {
    return what + ": " + std::strerror(err);
}

}  // namespace

bool IsSupportedBaud(int baud) {
    speed_t speed;
    return SpeedOf(baud, &speed);
}

bool ConfigureRaw(int fd, int baud, int vmin, std::string* error) {
    termios tio;
    if (tcgetattr(fd, &tio) != 0) {
        if (error) *error = Describe("tcgetattr", errno);
        return false;
    }
    cfmakeraw(&tio);
    tio.c_cflag &= ~static_cast<tcflag_t>(CSIZE | PARENB | CSTOPB | CRTSCTS);
    tio.c_cflag |= CS8 | CLOCAL | CREAD;
    tio.c_iflag &= ~static_cast<tcflag_t>(IXON | IXOFF | IXANY);
    tio.c_cc[VMIN] = static_cast<cc_t>(vmin);
    tio.c_cc[VTIME] = 0;
    speed_t speed;
    if (SpeedOf(baud, &speed)) {
        cfsetispeed(&tio, speed);
        cfsetospeed(&tio, speed);
    }
    if (tcsetattr(fd, TCSANOW, &tio) != 0) {
        if (error) *error = Describe("tcsetattr", errno);
        return false;
    }
    return true;
}

int OpenTerminal(const std::string& path, int baud, std::string* error) {
    if (!IsSupportedBaud(baud)) {
        if (error) *error = "unsupported baud rate " + std::to_string(baud);
        return -1;
    }
    const int fd = open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        if (error) *error = "cannot open port " + path + ": " + std::strerror(errno);
        return -1;
    }
    termios probe;
    if (!isatty(fd) || tcgetattr(fd, &probe) != 0) {
        if (error) *error = "cannot use " + path + " as a serial port: not a terminal device";
        close(fd);
        return -1;
    }
    std::string why;
    if (!ConfigureRaw(fd, baud, 0, &why)) {
        if (error) *error = "cannot set up port " + path + ": " + why;
        close(fd);
        return -1;
    }
    return fd;
}

bool WriteAll(int fd, const uint8_t* bytes, std::size_t n) {
    std::size_t done = 0;
    while (done < n) {
        const ssize_t w = write(fd, bytes + done, n - done);
        if (w > 0) {
            done += static_cast<std::size_t>(w);
            continue;
        }
        if (w < 0 && errno != EINTR && errno != EAGAIN && errno != EWOULDBLOCK) return false;
        if (w == 0) return false;
        pollfd pfd = {fd, POLLOUT, 0};
        poll(&pfd, 1, 50);
    }
    return true;
}

int64_t MonotonicNs() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

int64_t MonotonicMs() {
    return MonotonicNs() / 1000000;
}

std::size_t PacedBytesAllowed(int64_t elapsedNs, int baud, std::size_t total) {
    if (baud <= 0) return total;
    if (elapsedNs < 0) return 0;
    // Byte k has crossed the line (k + 1) * 1e10 / baud ns after the first
    // bit (10 bits a byte). Whole multiples of 1e10 ns are split off so the
    // products stay exact in 64 bits.
    const uint64_t tenSeconds = 10000000000ULL;
    const uint64_t elapsed = static_cast<uint64_t>(elapsedNs);
    const uint64_t rate = static_cast<uint64_t>(baud);
    const uint64_t crossed =
        (elapsed / tenSeconds) * rate + (elapsed % tenSeconds) * rate / tenSeconds;
    return crossed < total ? static_cast<std::size_t>(crossed) : total;
}

int64_t PacedDueNs(std::size_t index, int baud) {
    if (baud <= 0) return 0;
    // The smallest t with floor(t * baud / 1e10) >= index + 1.
    const uint64_t tenSeconds = 10000000000ULL;
    const uint64_t rate = static_cast<uint64_t>(baud);
    const uint64_t k = static_cast<uint64_t>(index) + 1;
    const uint64_t whole = k / rate;
    const uint64_t rest = k % rate;
    return static_cast<int64_t>(whole * tenSeconds + (rest * tenSeconds + rate - 1) / rate);
}

void UseTightTimers() {
    // The kernel may otherwise let a sleep run up to 50 us long, which on a
    // fast line is half a character.
    prctl(PR_SET_TIMERSLACK, 1UL, 0UL, 0UL, 0UL);
}

bool IsPseudoTerminal(int fd) {
    struct stat st;
    if (fstat(fd, &st) != 0 || !S_ISCHR(st.st_mode)) return false;
    // The Unix 98 pseudo-terminal peers: majors 136 to 143.
    const unsigned int kind = major(st.st_rdev);
    return kind >= 136 && kind <= 143;
}

std::unique_ptr<SerialLine> SerialLine::OpenPty(const std::string& linkPath, std::string* error) {
    std::unique_ptr<SerialLine> line(new SerialLine);
    line->fd_ = posix_openpt(O_RDWR | O_NOCTTY);
    if (line->fd_ < 0) {
        if (error) *error = Describe("posix_openpt", errno);
        return nullptr;
    }
    if (grantpt(line->fd_) != 0 || unlockpt(line->fd_) != 0) {
        if (error) *error = Describe("grantpt/unlockpt", errno);
        return nullptr;
    }
    char name[128];
    if (ptsname_r(line->fd_, name, sizeof name) != 0) {
        if (error) *error = Describe("ptsname_r", errno);
        return nullptr;
    }
    line->peerPath_ = name;
    line->peerFd_ = open(name, O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (line->peerFd_ < 0) {
        if (error) *error = Describe("open " + line->peerPath_, errno);
        return nullptr;
    }
    if (!ConfigureRaw(line->peerFd_, 19200, 1, error)) return nullptr;
    const int flags = fcntl(line->fd_, F_GETFL);
    fcntl(line->fd_, F_SETFL, flags | O_NONBLOCK);
    fcntl(line->fd_, F_SETFD, FD_CLOEXEC);

    if (!linkPath.empty()) {
        struct stat st;
        if (lstat(linkPath.c_str(), &st) == 0) {
            if (!S_ISLNK(st.st_mode)) {
                if (error) *error = linkPath + " exists and is not a symbolic link";
                return nullptr;
            }
            unlink(linkPath.c_str());
        }
        if (symlink(name, linkPath.c_str()) != 0) {
            if (error) *error = Describe("symlink " + linkPath, errno);
            return nullptr;
        }
        line->linkPath_ = linkPath;
    }
    return line;
}

std::unique_ptr<SerialLine> SerialLine::OpenDevice(const std::string& path, int baud,
                                                   std::string* error) {
    if (!IsSupportedBaud(baud)) {
        if (error) *error = "unsupported baud rate " + std::to_string(baud);
        return nullptr;
    }
    std::unique_ptr<SerialLine> line(new SerialLine);
    line->fd_ = open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (line->fd_ < 0) {
        if (error) *error = Describe("open " + path, errno);
        return nullptr;
    }
    if (!ConfigureRaw(line->fd_, baud, 1, error)) return nullptr;
    tcflush(line->fd_, TCIOFLUSH);
    line->peerPath_ = path;
    return line;
}

SerialLine::~SerialLine() {
    if (!linkPath_.empty()) {
        // Only our own link: someone may have replaced it meanwhile.
        char target[256];
        const ssize_t n = readlink(linkPath_.c_str(), target, sizeof target - 1);
        if (n >= 0) {
            target[n] = '\0';
            if (peerPath_ == target) unlink(linkPath_.c_str());
        }
    }
    if (peerFd_ >= 0) close(peerFd_);
    if (fd_ >= 0) close(fd_);
}

const char* LineOutcomeName(LineOutcome outcome) {
    switch (outcome) {
        case LineOutcome::kReply: return "reply";
        case LineOutcome::kRefused: return "refused";
        case LineOutcome::kTimeout: return "timeout";
        case LineOutcome::kStopped: return "stopped";
        case LineOutcome::kError: return "error";
        case LineOutcome::kLineDown: return "line down";
    }
    return "?";
}

HostPort::~HostPort() {
    close();
}

void HostPort::close() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
    down_ = false;
}

bool HostPort::open(const std::string& path, int baud, std::string* error) {
    close();
    const int fd = OpenTerminal(path, baud, error);
    if (fd < 0) return false;
    fd_ = fd;
    path_ = path;
    baud_ = baud;
    linesLost_ = 0;
    return true;
}

void HostPort::goDown() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
    down_ = true;
    ++linesLost_;
    downSinceMs_ = MonotonicMs();
    reopenAttempts_ = 0;
    reopenError_.clear();
    reopenDelayMs_ = kReopenFirstMs;
    nextAttemptMs_ = downSinceMs_ + reopenDelayMs_;
}

bool HostPort::reopenIfDue() {
    if (!down_) return fd_ >= 0;
    const int64_t now = MonotonicMs();
    if (now < nextAttemptMs_) return false;
    ++reopenAttempts_;
    const int fd = OpenTerminal(path_, baud_, &reopenError_);
    if (fd < 0) {
        reopenDelayMs_ = std::min(reopenDelayMs_ * 2, kReopenLongestMs);
        nextAttemptMs_ = now + reopenDelayMs_;
        return false;
    }
    fd_ = fd;
    down_ = false;
    return true;
}

LineOutcome HostPort::waitWhileDown(int64_t deadlineMs, int wakeFd) {
    for (;;) {
        if (down_) reopenIfDue();
        const int64_t now = MonotonicMs();
        if (now >= deadlineMs) return LineOutcome::kLineDown;
        // Wake for the next attempt while down; once the line is back, the
        // request that was never sent still takes its whole timeout.
        const int64_t until = down_ ? std::min(deadlineMs, nextAttemptMs_) : deadlineMs;
        pollfd wake{wakeFd, POLLIN, 0};
        const int waitMs = static_cast<int>(std::max<int64_t>(0, until - now));
        if (poll(&wake, wakeFd >= 0 ? 1 : 0, waitMs) > 0 && (wake.revents & POLLIN))
            return LineOutcome::kStopped;
    }
}

LineOutcome HostPort::afterFailure(int64_t deadlineMs, int wakeFd, std::vector<uint8_t>* reply) {
    if (!reopen_) return LineOutcome::kError;
    // Bytes of a reply cut off by the failure are no reply.
    reply->clear();
    goDown();
    return waitWhileDown(deadlineMs, wakeFd);
}

LineOutcome HostPort::send(const uint8_t* request, std::size_t n, int wakeFd) {
    // Each byte is handed over once it would have crossed a line of
    // paceBaud_, timed from the start of the request on the monotonic clock.
    const int64_t start = MonotonicNs();
    std::size_t written = 0;
    while (written < n) {
        const int64_t now = MonotonicNs();
        const std::size_t due = PacedBytesAllowed(now - start, paceBaud_, n);
        if (due > written) {
            const ssize_t w = ::write(fd_, request + written, due - written);
            if (w > 0) {
                observe(Traffic::kSent, request + written, static_cast<std::size_t>(w), now);
                written += static_cast<std::size_t>(w);
                continue;
            }
            if (w < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) {
                error_ = "write to " + path_ + " failed: " + std::strerror(errno);
                return LineOutcome::kError;
            }
        }
        if (waitToSend(due > written, start + PacedDueNs(written, paceBaud_), wakeFd))
            return LineOutcome::kStopped;
    }
    // A real port: the reply timeout starts once the request is out.
    if (paceBaud_ <= 0) tcdrain(fd_);
    return LineOutcome::kReply;
}

bool HostPort::waitToSend(bool full, int64_t dueNs, int wakeFd) {
    // A full output queue: wait until it takes bytes again. Otherwise sleep
    // exactly until the next byte is due.
    pollfd fds[2] = {{fd_, POLLOUT, 0}, {wakeFd, POLLIN, 0}};
    if (full) {
        poll(fds, 1, 50);
        return false;
    }
    const int64_t waitNs = std::max<int64_t>(0, dueNs - MonotonicNs());
    const timespec timeout{static_cast<time_t>(waitNs / 1000000000),
                           static_cast<long>(waitNs % 1000000000)};
    return ppoll(&fds[1], wakeFd >= 0 ? 1 : 0, &timeout, nullptr) > 0;
}

void HostPort::dropStaleInput() {
    // A reply that came too late for the previous request must not be taken
    // for the answer to this one. An observer is shown those bytes: they
    // crossed the line all the same.
    if (observer_) {
        uint8_t buffer[512];
        ssize_t r;
        while ((r = ::read(fd_, buffer, sizeof buffer)) > 0)
            observe(Traffic::kReceived, buffer, static_cast<std::size_t>(r), MonotonicNs());
    }
    tcflush(fd_, TCIFLUSH);
}

void HostPort::settle(int quietMs, int maxMs, int wakeFd) {
    if (fd_ < 0 || down_) return;
    const int64_t endMs = MonotonicMs() + maxMs;
    int64_t quietUntilMs = MonotonicMs() + quietMs;
    uint8_t buffer[512];
    while (true) {
        const int64_t waitMs = std::min(quietUntilMs, endMs) - MonotonicMs();
        if (waitMs <= 0) return;
        pollfd fds[2] = {{fd_, POLLIN, 0}, {wakeFd, POLLIN, 0}};
        const int ready = poll(fds, wakeFd >= 0 ? 2 : 1, static_cast<int>(waitMs));
        if (ready < 0 && errno == EINTR) continue;
        // Quiet, stopped, or a failing line: the next exchange deals with it.
        if (ready <= 0 || (wakeFd >= 0 && (fds[1].revents & POLLIN))) return;
        if (!(fds[0].revents & POLLIN)) return;
        const ssize_t r = ::read(fd_, buffer, sizeof buffer);
        if (r > 0) {
            observe(Traffic::kReceived, buffer, static_cast<std::size_t>(r), MonotonicNs());
            quietUntilMs = MonotonicMs() + quietMs;
        } else if (r == 0 || (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR)) {
            return;
        }
    }
}

LineOutcome HostPort::exchange(const uint8_t* request, std::size_t n, int timeoutMs, int wakeFd,
                               std::vector<uint8_t>* reply) {
    reply->clear();
    const int64_t deadlineMs = MonotonicMs() + timeoutMs;
    if (down_ && !reopenIfDue()) return waitWhileDown(deadlineMs, wakeFd);
    if (fd_ < 0) {
        error_ = "port not open";
        return LineOutcome::kError;
    }
    dropStaleInput();
    LineOutcome outcome = send(request, n, wakeFd);
    if (outcome == LineOutcome::kReply) outcome = receive(timeoutMs, wakeFd, reply);
    if (outcome != LineOutcome::kError) return outcome;
    return afterFailure(deadlineMs, wakeFd, reply);
}

LineOutcome HostPort::collect(int timeoutMs, int wakeFd, std::vector<uint8_t>* reply) {
    reply->clear();
    const int64_t deadlineMs = MonotonicMs() + timeoutMs;
    if (down_ && !reopenIfDue()) return waitWhileDown(deadlineMs, wakeFd);
    if (fd_ < 0) {
        error_ = "port not open";
        return LineOutcome::kError;
    }
    const LineOutcome outcome = receive(timeoutMs, wakeFd, reply);
    if (outcome != LineOutcome::kError) return outcome;
    return afterFailure(deadlineMs, wakeFd, reply);
}

LineOutcome HostPort::receive(int timeoutMs, int wakeFd, std::vector<uint8_t>* reply) {
    Df1Receiver receiver(Side::kReplies, 65536);
    const int64_t deadline = MonotonicMs() + timeoutMs;
    uint8_t buffer[512];
    while (true) {
        const int64_t left = deadline - MonotonicMs();
        if (left <= 0) break;
        pollfd fds[2] = {{fd_, POLLIN, 0}, {wakeFd, POLLIN, 0}};
        const int ready = poll(fds, wakeFd >= 0 ? 2 : 1, static_cast<int>(left));
        if (ready < 0) {
            if (errno == EINTR) continue;
            error_ = "poll on " + path_ + " failed: " + std::strerror(errno);
            return LineOutcome::kError;
        }
        if (wakeFd >= 0 && (fds[1].revents & POLLIN)) {
            *reply = receiver.pending();
            return LineOutcome::kStopped;
        }
        if (fds[0].revents & (POLLERR | POLLNVAL)) {
            error_ = "the line " + path_ + " failed";
            return LineOutcome::kError;
        }
        if (!(fds[0].revents & (POLLIN | POLLHUP))) continue;
        const ssize_t r = ::read(fd_, buffer, sizeof buffer);
        if (r < 0) {
            if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) continue;
            error_ = "read from " + path_ + " failed: " + std::strerror(errno);
            return LineOutcome::kError;
        }
        if (r > 0) observe(Traffic::kReceived, buffer, static_cast<std::size_t>(r), MonotonicNs());
        if (r == 0 && reopen_) {
            // A hung-up line reads as end of file: the device is gone (a
            // USB adapter unplugged), and only opening it again helps.
            error_ = "the line " + path_ + " hung up";
            return LineOutcome::kError;
        }
        if (r == 0) {
            // A hung-up line reads as end of file; wait out the timeout
            // without spinning.
            pollfd w{wakeFd, POLLIN, 0};
            const int ms = static_cast<int>(deadline - MonotonicMs());
            if (ms > 0) poll(&w, wakeFd >= 0 ? 1 : 0, ms);
            break;
        }
        for (ssize_t i = 0; i < r; ++i) {
            std::optional<Df1Event> event = receiver.push(buffer[i]);
            if (!event) continue;
            if (event->kind == Df1Event::Kind::kOverflow) continue;
            // Bytes after the end of the reply are not taken.
            *reply = std::move(event->raw);
            return event->kind == Df1Event::Kind::kRefused ? LineOutcome::kRefused
                                                           : LineOutcome::kReply;
        }
    }
    *reply = receiver.pending();
    return LineOutcome::kTimeout;
}

}  // namespace peer
