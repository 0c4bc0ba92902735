#include "peer/server.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <deque>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace peer {

namespace {

using Clock = std::chrono::steady_clock;

int64_t NowNs() {
    return MonotonicNs();
}

constexpr int64_t kNsPerMs = 1000000;
constexpr int64_t kForever = INT64_MAX;

struct Pending {
    std::vector<uint8_t> bytes;
    int64_t notBeforeNs = 0;
    int64_t startNs = -1;  // when its first byte went out
    std::size_t sent = 0;
};

}  // namespace

Server::Server(Controller& controller, TagMemory& memory, SerialLine& line, ServerOptions options)
    : controller_(controller), memory_(memory), line_(line), options_(options) {
    stopFd_ = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
}

Server::~Server() {
    stop();
    if (stopFd_ >= 0) close(stopFd_);
}

bool Server::start(std::string* error) {
    if (stopFd_ < 0) {
        if (error) *error = "eventfd failed";
        return false;
    }
    if (running_.exchange(true)) {
        if (error) *error = "already running";
        return false;
    }
    {
        std::lock_guard<std::mutex> lock(mutex_);
        ready_ = false;
    }
    // Forget a stop asked for while nothing was running.
    uint64_t stale;
    while (read(stopFd_, &stale, sizeof stale) > 0) {
    }
    thread_ = std::thread([this] { loop(); });
    std::unique_lock<std::mutex> lock(mutex_);
    readyChanged_.wait(lock, [this] { return ready_; });
    return true;
}

void Server::stop() {
    if (thread_.joinable()) {
        requestStop();
        thread_.join();
    }
}

int Server::run() {
    if (stopFd_ < 0) return 1;
    if (running_.exchange(true)) return 1;
    return loop();
}

void Server::requestStop() noexcept {
    if (stopFd_ < 0) return;
    const uint64_t one = 1;
    ssize_t ignored = write(stopFd_, &one, sizeof one);
    (void)ignored;
}

ServerCounters Server::counters() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return counters_;
}

std::string Server::error() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return error_;
}

int Server::loop() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        ready_ = true;
        error_.clear();
    }
    readyChanged_.notify_all();

    const int64_t startNs = NowNs();
    const int64_t endNs =
        options_.runForMs ? startNs + static_cast<int64_t>(options_.runForMs) * kNsPerMs : kForever;
    int64_t lastTickNs = startNs;
    int64_t lastRxNs = startNs;
    std::deque<Pending> queue;
    int result = 0;
    uint8_t buffer[4096];

    auto fail = [&](const std::string& what) {
        std::lock_guard<std::mutex> lock(mutex_);
        error_ = what + ": " + std::strerror(errno);
        result = 1;
    };

    for (;;) {
        int64_t now = NowNs();
        if (now >= endNs) break;

        if (options_.tickIntervalMs &&
            now - lastTickNs >= static_cast<int64_t>(options_.tickIntervalMs) * kNsPerMs) {
            const int64_t ms = (now - lastTickNs) / kNsPerMs;
            memory_.tick(static_cast<uint32_t>(ms));
            lastTickNs += ms * kNsPerMs;
        }

        // Send what the pace allows of the reply at the head of the queue.
        bool waitWritable = false;
        int64_t nextByteNs = kForever;
        while (!queue.empty() && queue.front().notBeforeNs <= now) {
            Pending& head = queue.front();
            if (head.startNs < 0) head.startNs = now;
            const std::size_t allowed =
                PacedBytesAllowed(now - head.startNs, options_.paceBaud, head.bytes.size());
            if (allowed > head.sent) {
                const ssize_t n =
                    write(line_.fd(), head.bytes.data() + head.sent, allowed - head.sent);
                if (n < 0 && errno != EAGAIN && errno != EINTR) {
                    fail("write");
                    break;
                }
                if (n < 0) {
                    waitWritable = true;
                    break;
                }
                head.sent += static_cast<std::size_t>(n);
                std::lock_guard<std::mutex> lock(mutex_);
                counters_.bytesSent += static_cast<uint64_t>(n);
            }
            if (head.sent >= head.bytes.size()) {
                queue.pop_front();
                // The next reply starts no sooner than this one ended.
                if (!queue.empty())
                    queue.front().notBeforeNs = std::max(queue.front().notBeforeNs, now);
                continue;
            }
            if (allowed < head.bytes.size() && head.sent == allowed)
                // Byte k may start k * 10 / baud seconds after the first;
                // round up so the wake-up is never early.
                nextByteNs = head.startNs + (static_cast<int64_t>(head.sent) * 10000000000LL +
                                             options_.paceBaud - 1) /
                                                options_.paceBaud;
            else
                waitWritable = true;
            break;
        }
        if (result) break;

        // Sleep until the earliest thing to do.
        int64_t wakeNs = endNs;
        wakeNs = std::min(wakeNs, nextByteNs);
        if (!queue.empty() && queue.front().notBeforeNs > now)
            wakeNs = std::min(wakeNs, queue.front().notBeforeNs);
        if (options_.tickIntervalMs)
            wakeNs = std::min(
                wakeNs, lastTickNs + static_cast<int64_t>(options_.tickIntervalMs) * kNsPerMs);
        if (options_.gapResetMs && !controller_.receiverIdle())
            wakeNs =
                std::min(wakeNs, lastRxNs + static_cast<int64_t>(options_.gapResetMs) * kNsPerMs);

        pollfd fds[2] = {{line_.fd(), static_cast<short>(POLLIN | (waitWritable ? POLLOUT : 0)), 0},
                         {stopFd_, POLLIN, 0}};
        timespec timeout{};
        timespec* timeoutPtr = nullptr;
        if (wakeNs != kForever) {
            const int64_t wait = std::max<int64_t>(0, wakeNs - now);
            timeout.tv_sec = static_cast<time_t>(wait / 1000000000LL);
            timeout.tv_nsec = static_cast<long>(wait % 1000000000LL);
            timeoutPtr = &timeout;
        }
        const int ready = ppoll(fds, 2, timeoutPtr, nullptr);
        if (ready < 0) {
            if (errno == EINTR) continue;
            fail("ppoll");
            break;
        }
        if (fds[1].revents & POLLIN) {
            uint64_t requests;
            ssize_t ignored = read(stopFd_, &requests, sizeof requests);
            (void)ignored;
            break;
        }
        now = NowNs();

        if (fds[0].revents & POLLIN) {
            const ssize_t n = read(line_.fd(), buffer, sizeof buffer);
            if (n < 0 && errno != EAGAIN && errno != EINTR) {
                fail("read");
                break;
            }
            if (n > 0) {
                lastRxNs = now;
                {
                    std::lock_guard<std::mutex> lock(mutex_);
                    counters_.bytesReceived += static_cast<uint64_t>(n);
                }
                auto replies =
                    controller_.receive(buffer, static_cast<std::size_t>(n), now / kNsPerMs);
                for (auto& reply : replies) {
                    Pending pending;
                    pending.notBeforeNs =
                        now +
                        static_cast<int64_t>(options_.turnaroundMs + reply.delayMs) * kNsPerMs;
                    pending.bytes = std::move(reply.bytes);
                    if (!pending.bytes.empty()) queue.push_back(std::move(pending));
                }
            }
        } else if (fds[0].revents & (POLLERR | POLLHUP | POLLNVAL)) {
            errno = EIO;
            fail("line");
            break;
        }
        if (options_.gapResetMs && !controller_.receiverIdle() &&
            now - lastRxNs >= static_cast<int64_t>(options_.gapResetMs) * kNsPerMs) {
            controller_.resetReceiver();
            std::lock_guard<std::mutex> lock(mutex_);
            ++counters_.gapResets;
        }
    }
    running_.store(false);
    return result;
}

}  // namespace peer
