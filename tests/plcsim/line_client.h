// The requester's side of a test line: opens a pseudo-terminal's peer raw
// and reads with poll timeouts (never sleeps).
#ifndef PLCSIM_LINE_CLIENT_H
#define PLCSIM_LINE_CLIENT_H

#include "plcsim_test_support.h"

#include "peer/line.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <poll.h>
#include <string>
#include <unistd.h>

class LineClient {
public:
    // Raw at whatever rate the terminal has: a pseudo-terminal has no rate
    // of its own to set.
    explicit LineClient(const std::string& path) {
        fd_ = open(path.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
        if (fd_ >= 0) peer::ConfigureRaw(fd_, kKeepRate, 1, nullptr);
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

    bool send(const Bytes& bytes) { return peer::WriteAll(fd_, bytes.data(), bytes.size()); }

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
    // No rate IsSupportedBaud accepts, so ConfigureRaw leaves it alone.
    static constexpr int kKeepRate = 0;

    LineClient() = default;
    int fd_ = -1;
    bool owned_ = true;
};

#endif
