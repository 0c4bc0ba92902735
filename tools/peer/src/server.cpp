#include "peer/server.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <deque>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace peer {

namespace {

constexpr int64_t kNsPerMs = 1000000;
constexpr int64_t kNsPerSecond = 1000000000;
constexpr int64_t kForever = INT64_MAX;

int64_t MsToNs(uint32_t ms) {
    return static_cast<int64_t>(ms) * kNsPerMs;
}

}  // namespace

struct Server::Session {
    // A reply waiting for its time, or on its way out.
    struct Pending {
        std::vector<uint8_t> bytes;
        int64_t notBeforeNs = 0;
        int64_t startNs = -1;  // when its first byte went out
        std::size_t sent = 0;
    };

    Session(int64_t startNs, int64_t runEndNs, uint64_t repliesBefore)
        : endNs(runEndNs), lastTickNs(startNs), lastRxNs(startNs), repliesAtStart(repliesBefore) {}

    const int64_t endNs;
    int64_t lastTickNs;
    int64_t lastRxNs;
    // The controller's replies sent before this run (for a due restart).
    const uint64_t repliesAtStart;
    std::deque<Pending> queue;
    // Set by each sending step: the line is full, or the head reply's next
    // byte may not start before nextByteNs.
    bool waitWritable = false;
    int64_t nextByteNs = kForever;
};

Server::Server(Controller& controller, TagMemory& memory, SerialLine& line, ServerOptions options)
    : controller_(controller), memory_(memory), line_(&line), options_(options) {
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
    if (stopFd_ < 0) return kLineFailed;
    if (running_.exchange(true)) return kLineFailed;
    return loop();
}

void Server::resume(SerialLine& line) {
    if (running_.load()) return;
    line_ = &line;
    resumed_ = true;
}

bool Server::waitForStop(uint32_t ms) {
    pollfd stop = {stopFd_, POLLIN, 0};
    const int timeoutMs = ms > static_cast<uint32_t>(INT32_MAX) ? INT32_MAX : static_cast<int>(ms);
    if (poll(&stop, 1, timeoutMs) <= 0) return false;
    uint64_t requests;
    ssize_t ignored = read(stopFd_, &requests, sizeof requests);
    (void)ignored;
    return true;
}

bool Server::restartDue(const Session& session) const {
    return options_.restartAfterReplies != 0 && session.queue.empty() &&
           controller_.counters().repliesSent - session.repliesAtStart >=
               options_.restartAfterReplies;
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

void Server::announceReady() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        ready_ = true;
        error_.clear();
    }
    readyChanged_.notify_all();
}

int Server::loop() {
    announceReady();
    const int64_t startNs = MonotonicNs();
    if (!resumed_) endNs_ = options_.runForMs ? startNs + MsToNs(options_.runForMs) : kForever;
    resumed_ = false;
    Session session(startNs, endNs_, controller_.counters().repliesSent);
    int result = kStopped;
    for (;;) {
        const int64_t now = MonotonicNs();
        if (now >= session.endNs) break;
        tick(session, now);
        if (!sendDue(session, now)) {
            result = kLineFailed;
            break;
        }
        short lineEvents = 0;
        const Wake wake = waitForWork(session, now, &lineEvents);
        if (wake == Wake::kInterrupted) continue;
        if (wake == Wake::kStop) break;
        // The restart waits for the next request, so the last reply has
        // surely been taken: closing a line drops what it still holds.
        if (wake == Wake::kWork && (lineEvents & POLLIN) && restartDue(session)) {
            result = kRestartDue;
            break;
        }
        const int64_t woke = MonotonicNs();
        if (wake == Wake::kFailed || !takeInput(session, lineEvents, woke)) {
            result = kLineFailed;
            break;
        }
        resetAfterGap(session, woke);
    }
    running_.store(false);
    return result;
}

void Server::tick(Session& session, int64_t nowNs) {
    if (!options_.tickIntervalMs || nowNs - session.lastTickNs < MsToNs(options_.tickIntervalMs))
        return;
    const int64_t ms = (nowNs - session.lastTickNs) / kNsPerMs;
    memory_.tick(static_cast<uint32_t>(ms));
    session.lastTickNs += ms * kNsPerMs;
}

bool Server::sendDue(Session& session, int64_t nowNs) {
    session.waitWritable = false;
    session.nextByteNs = kForever;
    auto& queue = session.queue;
    while (!queue.empty() && queue.front().notBeforeNs <= nowNs) {
        Session::Pending& head = queue.front();
        // The reply's first bit goes out when it is due, not when this loop
        // came round to it: a late loop catches up with the bytes the line
        // would have carried by now.
        if (head.startNs < 0) head.startNs = head.notBeforeNs;
        const std::size_t allowed =
            PacedBytesAllowed(nowNs - head.startNs, options_.paceBaud, head.bytes.size());
        if (allowed > head.sent) {
            const ssize_t n =
                write(line_->fd(), head.bytes.data() + head.sent, allowed - head.sent);
            if (n < 0 && errno != EAGAIN && errno != EINTR) {
                fail("write");
                return false;
            }
            if (n < 0) {
                session.waitWritable = true;
                return true;
            }
            if (observer_)
                observer_(Traffic::kSent, head.bytes.data() + head.sent,
                          static_cast<std::size_t>(n), nowNs);
            head.sent += static_cast<std::size_t>(n);
            std::lock_guard<std::mutex> lock(mutex_);
            counters_.bytesSent += static_cast<uint64_t>(n);
        }
        if (head.sent >= head.bytes.size()) {
            const int64_t endedNs =
                options_.paceBaud > 0
                    ? head.startNs + PacedDueNs(head.bytes.size() - 1, options_.paceBaud)
                    : nowNs;
            queue.pop_front();
            // The next reply starts no sooner than this one ended.
            if (!queue.empty())
                queue.front().notBeforeNs = std::max(queue.front().notBeforeNs, endedNs);
            continue;
        }
        if (allowed < head.bytes.size() && head.sent == allowed)
            session.nextByteNs = head.startNs + PacedDueNs(head.sent, options_.paceBaud);
        else
            session.waitWritable = true;
        return true;
    }
    return true;
}

int64_t Server::wakeTime(const Session& session, int64_t nowNs) const {
    int64_t wakeNs = std::min(session.endNs, session.nextByteNs);
    if (!session.queue.empty() && session.queue.front().notBeforeNs > nowNs)
        wakeNs = std::min(wakeNs, session.queue.front().notBeforeNs);
    if (options_.tickIntervalMs)
        wakeNs = std::min(wakeNs, session.lastTickNs + MsToNs(options_.tickIntervalMs));
    if (options_.gapResetMs && !controller_.receiverIdle())
        wakeNs = std::min(wakeNs, session.lastRxNs + MsToNs(options_.gapResetMs));
    return wakeNs;
}

Server::Wake Server::waitForWork(const Session& session, int64_t nowNs, short* lineEvents) {
    const short lineWants = static_cast<short>(POLLIN | (session.waitWritable ? POLLOUT : 0));
    pollfd fds[2] = {{line_->fd(), lineWants, 0}, {stopFd_, POLLIN, 0}};
    const int64_t wakeNs = wakeTime(session, nowNs);
    timespec timeout{};
    if (wakeNs != kForever) {
        const int64_t wait = std::max<int64_t>(0, wakeNs - nowNs);
        timeout.tv_sec = static_cast<time_t>(wait / kNsPerSecond);
        timeout.tv_nsec = static_cast<long>(wait % kNsPerSecond);
    }
    if (ppoll(fds, 2, wakeNs != kForever ? &timeout : nullptr, nullptr) < 0) {
        if (errno == EINTR) return Wake::kInterrupted;
        fail("ppoll");
        return Wake::kFailed;
    }
    if (fds[1].revents & POLLIN) {
        uint64_t requests;
        ssize_t ignored = read(stopFd_, &requests, sizeof requests);
        (void)ignored;
        return Wake::kStop;
    }
    *lineEvents = fds[0].revents;
    return Wake::kWork;
}

bool Server::takeInput(Session& session, short lineEvents, int64_t nowNs) {
    if (!(lineEvents & POLLIN)) {
        if (!(lineEvents & (POLLERR | POLLHUP | POLLNVAL))) return true;
        errno = EIO;
        fail("line");
        return false;
    }
    uint8_t buffer[4096];
    const ssize_t n = read(line_->fd(), buffer, sizeof buffer);
    if (n < 0 && errno != EAGAIN && errno != EINTR) {
        fail("read");
        return false;
    }
    if (n == 0 && (lineEvents & (POLLERR | POLLHUP))) {
        // A hung-up device (a USB adapter unplugged) reads as end of file
        // for ever: it is gone, not quiet.
        errno = EIO;
        fail("line hung up");
        return false;
    }
    if (n <= 0) return true;
    if (observer_) observer_(Traffic::kReceived, buffer, static_cast<std::size_t>(n), nowNs);
    session.lastRxNs = nowNs;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        counters_.bytesReceived += static_cast<uint64_t>(n);
    }
    queueReplies(session,
                 controller_.receive(buffer, static_cast<std::size_t>(n), nowNs / kNsPerMs), nowNs);
    return true;
}

void Server::queueReplies(Session& session, std::vector<Transmission> replies, int64_t nowNs) {
    for (auto& reply : replies) {
        if (reply.bytes.empty()) continue;
        Session::Pending pending;
        pending.notBeforeNs = nowNs + MsToNs(options_.turnaroundMs + reply.delayMs);
        pending.bytes = std::move(reply.bytes);
        session.queue.push_back(std::move(pending));
    }
}

void Server::resetAfterGap(const Session& session, int64_t nowNs) {
    if (!options_.gapResetMs || controller_.receiverIdle() ||
        nowNs - session.lastRxNs < MsToNs(options_.gapResetMs))
        return;
    controller_.resetReceiver();
    std::lock_guard<std::mutex> lock(mutex_);
    ++counters_.gapResets;
}

void Server::fail(const std::string& what) {
    std::lock_guard<std::mutex> lock(mutex_);
    error_ = what + ": " + std::strerror(errno);
}

}  // namespace peer
