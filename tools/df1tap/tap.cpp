#include "tap.h"

#include "peer/line.h"

#include <cerrno>
#include <climits>
#include <cstring>
#include <poll.h>
#include <unistd.h>

namespace df1tap {

namespace {

constexpr std::size_t kChunk = 4096;
constexpr int64_t kNsPerMs = 1000000;

}  // namespace

Tap::Tap(Side a, Side b, peer::LineCapture& capture)
    : a_(std::move(a)), b_(std::move(b)), capture_(capture) {
    a_.direction = peer::capture::kHostToController;
    b_.direction = peer::capture::kControllerToHost;
}

int Tap::waitMs() const {
    const int64_t deadline = capture_.quietDeadlineNs();
    if (deadline == INT64_MAX) return -1;
    const int64_t left = deadline - peer::MonotonicNs();
    // Rounded up: waking a little late only makes a cut of the line later,
    // waking early would spin.
    return left <= 0 ? 0 : static_cast<int>((left + kNsPerMs - 1) / kNsPerMs);
}

bool Tap::forward(Side& from, Side& to, short events) {
    if (events & POLLIN) {
        uint8_t buffer[kChunk];
        const ssize_t n = read(from.fd, buffer, sizeof buffer);
        if (n > 0) {
            const int64_t seenNs = peer::MonotonicNs();
            // Out first: the tap must not delay the line for its own records.
            if (!peer::WriteAll(to.fd, buffer, static_cast<std::size_t>(n))) {
                error_ = "cannot write to " + to.name + ": " + std::strerror(errno);
                return false;
            }
            from.bytesRead += static_cast<uint64_t>(n);
            capture_.record(from.direction, buffer, static_cast<std::size_t>(n), seenNs);
            return true;
        }
        if (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) {
            error_ = "cannot read from " + from.name + ": " + std::strerror(errno);
            return false;
        }
    }
    // Readable with nothing to read, or an error or hang-up alone: the
    // device is gone (unplugged, or the far end of a pseudo-terminal closed).
    if (events & (POLLERR | POLLHUP | POLLNVAL)) {
        error_ = from.name + " hung up or failed";
        return false;
    }
    return true;
}

bool Tap::run(int wakeFd) {
    for (;;) {
        pollfd fds[3] = {{a_.fd, POLLIN, 0}, {b_.fd, POLLIN, 0}, {wakeFd, POLLIN, 0}};
        const int ready = poll(fds, 3, waitMs());
        if (ready < 0 && errno != EINTR) {
            error_ = std::string("poll: ") + std::strerror(errno);
            return false;
        }
        if (ready > 0 && (fds[2].revents & POLLIN)) return true;
        if (ready > 0 && (!forward(a_, b_, fds[0].revents) || !forward(b_, a_, fds[1].revents)))
            return false;
        capture_.flushQuiet(peer::MonotonicNs());
    }
}

}  // namespace df1tap
