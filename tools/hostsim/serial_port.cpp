#include "serial_port.h"

#include "df1_reply.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

namespace hostsim {

namespace {

struct BaudEntry {
    int baud;
    speed_t code;
};

constexpr BaudEntry kBauds[] = {
    {1200, B1200},   {2400, B2400},   {4800, B4800},     {9600, B9600},     {19200, B19200},
    {38400, B38400}, {57600, B57600}, {115200, B115200}, {230400, B230400},
};

bool BaudCode(int baud, speed_t* code) {
    for (const BaudEntry& e : kBauds) {
        if (e.baud == baud) {
            *code = e.code;
            return true;
        }
    }
    return false;
}

std::string ErrnoText() {
    return std::strerror(errno);
}

}  // namespace

bool IsSupportedBaud(int baud) {
    speed_t code;
    return BaudCode(baud, &code);
}

SerialPort::~SerialPort() {
    close();
}

void SerialPort::close() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
}

bool SerialPort::open(const std::string& path, int baud, std::string* error) {
    close();
    speed_t code;
    if (!BaudCode(baud, &code)) {
        if (error) *error = "unsupported baud rate " + std::to_string(baud);
        return false;
    }
    // Non-blocking, so opening does not wait for a carrier; all waiting is
    // done with poll().
    const int fd = ::open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        if (error) *error = "cannot open port " + path + ": " + ErrnoText();
        return false;
    }
    termios tio{};
    if (!isatty(fd) || tcgetattr(fd, &tio) != 0) {
        if (error) *error = "cannot use " + path + " as a serial port: not a terminal device";
        ::close(fd);
        return false;
    }
    cfmakeraw(&tio);
    tio.c_cflag &= ~static_cast<tcflag_t>(CSIZE | PARENB | CSTOPB | CRTSCTS);
    tio.c_cflag |= CS8 | CLOCAL | CREAD;
    tio.c_iflag &= ~static_cast<tcflag_t>(IXON | IXOFF | IXANY);
    tio.c_cc[VMIN] = 0;
    tio.c_cc[VTIME] = 0;
    cfsetispeed(&tio, code);
    cfsetospeed(&tio, code);
    if (tcsetattr(fd, TCSANOW, &tio) != 0) {
        if (error) *error = "cannot set up port " + path + ": " + ErrnoText();
        ::close(fd);
        return false;
    }
    fd_ = fd;
    path_ = path;
    return true;
}

SerialPort::Outcome SerialPort::exchange(const uint8_t* request, std::size_t n, int timeoutMs,
                                         int wakeFd, std::vector<uint8_t>* reply) {
    using Clock = std::chrono::steady_clock;
    reply->clear();
    if (fd_ < 0) {
        error_ = "port not open";
        return Outcome::kError;
    }
    // A reply that came too late for the previous request must not be taken
    // for the answer to this one.
    tcflush(fd_, TCIFLUSH);

    // Each byte goes out no earlier than its place on a line of paceBaud_
    // (one byte a 10 bit times), in steps of about a millisecond.
    const auto start = Clock::now();
    std::size_t written = 0;
    while (written < n) {
        std::size_t due = n;
        if (paceBaud_ > 0) {
            const auto us =
                std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - start).count();
            due = std::min(n, static_cast<std::size_t>(us * paceBaud_ / 10000000) + 1);
        }
        if (due > written) {
            const ssize_t w = ::write(fd_, request + written, due - written);
            if (w > 0) {
                written += static_cast<std::size_t>(w);
                continue;
            }
            if (w < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) {
                error_ = "write to " + path_ + " failed: " + ErrnoText();
                return Outcome::kError;
            }
        }
        pollfd fds[2] = {{fd_, POLLOUT, 0}, {wakeFd, POLLIN, 0}};
        if (due > written) {
            poll(fds, 1, 50);
        } else if (poll(&fds[1], wakeFd >= 0 ? 1 : 0, 1) > 0) {
            return Outcome::kStopped;
        }
    }
    // A real port: the reply timeout starts once the request is out.
    if (paceBaud_ <= 0) tcdrain(fd_);

    ReplyAssembler assembler;
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    uint8_t buffer[512];
    while (true) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
        if (left <= 0) break;
        pollfd fds[2] = {{fd_, POLLIN, 0}, {wakeFd, POLLIN, 0}};
        const int ready = poll(fds, wakeFd >= 0 ? 2 : 1, static_cast<int>(left));
        if (ready < 0) {
            if (errno == EINTR) continue;
            error_ = "poll on " + path_ + " failed: " + ErrnoText();
            return Outcome::kError;
        }
        if (wakeFd >= 0 && (fds[1].revents & POLLIN)) {
            *reply = assembler.bytes();
            return Outcome::kStopped;
        }
        if (fds[0].revents & (POLLERR | POLLNVAL)) {
            error_ = "the line " + path_ + " failed";
            return Outcome::kError;
        }
        if (!(fds[0].revents & (POLLIN | POLLHUP))) continue;
        const ssize_t r = ::read(fd_, buffer, sizeof buffer);
        if (r < 0) {
            if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) continue;
            error_ = "read from " + path_ + " failed: " + ErrnoText();
            return Outcome::kError;
        }
        if (r == 0) {
            // A hung-up line reads as end of file; wait out the timeout
            // without spinning.
            pollfd w{wakeFd, POLLIN, 0};
            const int ms = static_cast<int>(
                std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now())
                    .count());
            if (ms > 0) poll(&w, wakeFd >= 0 ? 1 : 0, ms);
            break;
        }
        const auto status = assembler.push(buffer, static_cast<std::size_t>(r));
        if (status != ReplyAssembler::Status::kIncomplete) {
            *reply = assembler.bytes();
            return status == ReplyAssembler::Status::kComplete ? Outcome::kReply
                                                               : Outcome::kRefused;
        }
    }
    *reply = assembler.bytes();
    return Outcome::kTimeout;
}

}  // namespace hostsim
