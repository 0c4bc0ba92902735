// The requester's side of a test line: opens a pseudo-terminal's peer raw
// and reads with poll timeouts (never sleeps).
#ifndef PLCSIM_LINE_CLIENT_H
#define PLCSIM_LINE_CLIENT_H

#include "plcsim_test_support.h"

#include <cerrno>
#include <fcntl.h>
#include <poll.h>
#include <string>
#include <termios.h>
#include <unistd.h>

class LineClient {
public:
    explicit LineClient(const std::string& path) {
        fd_ = open(path.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
        if (fd_ < 0) return;
        termios tio;
        if (tcgetattr(fd_, &tio) == 0) {
            cfmakeraw(&tio);
            tcsetattr(fd_, TCSANOW, &tio);
        }
    }
    // Talks through an already open descriptor (not owned).
    static LineClient OnDescriptor(int fd) {
        LineClient client;
        client.fd_ = fd;
        client.owned_ = false;
        return client;
    }
    LineClient(LineClient&& other) noexcept : fd_(other.fd_), owned_(other.owned_) {
        other.fd_ = -1;
    }
    ~LineClient() {
        if (fd_ >= 0 && owned_) close(fd_);
    }
    bool ok() const { return fd_ >= 0; }

    bool send(const Bytes& bytes) {
        std::size_t done = 0;
        while (done < bytes.size()) {
            const ssize_t n = write(fd_, bytes.data() + done, bytes.size() - done);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) return false;
            done += static_cast<std::size_t>(n);
        }
        return true;
    }

    // Reads until n bytes have come or nothing more comes for timeoutMs.
    Bytes receive(std::size_t n, int timeoutMs = 5000) {
        Bytes out;
        uint8_t buffer[512];
        while (out.size() < n) {
            pollfd pfd = {fd_, POLLIN, 0};
            const int ready = poll(&pfd, 1, timeoutMs);
            if (ready < 0 && errno == EINTR) continue;
            if (ready <= 0) break;
            const ssize_t got = read(fd_, buffer, std::min(sizeof buffer, n - out.size()));
            if (got <= 0) break;
            out.insert(out.end(), buffer, buffer + got);
        }
        return out;
    }

    // True when nothing at all arrives within timeoutMs.
    bool quiet(int timeoutMs) {
        pollfd pfd = {fd_, POLLIN, 0};
        return poll(&pfd, 1, timeoutMs) == 0;
    }

private:
    LineClient() = default;
    int fd_ = -1;
    bool owned_ = true;
};

#endif
