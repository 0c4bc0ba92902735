// Runs a Controller on a SerialLine: reads requests as they arrive, waits
// the turnaround time, and sends the replies paced at the line's baud rate,
// ticking the tag memory on the way. Runs on its own thread (start/stop) or
// in the caller's (run).
#ifndef PEER_SERVER_H
#define PEER_SERVER_H

#include "peer/controller.h"
#include "peer/line.h"
#include "peer/tag_memory.h"

#include <atomic>
#include <cstddef>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace peer {

// The server hands MonotonicMs() (peer/line.h) to Controller::receive; use
// the same clock for Controller::silenceFor and silenceBetween while a
// server runs.

struct ServerOptions {
    // Output pace in bits per second, 10 bits per byte (start, 8 data, stop).
    // 0 sends each reply at once. A real device paces itself; this is for
    // pseudo-terminals, which would otherwise deliver instantly.
    int paceBaud = 19200;
    // Time from the last byte of a request to the first byte of the reply.
    uint32_t turnaroundMs = 5;
    // A partial frame is forgotten when the line stays quiet this long.
    uint32_t gapResetMs = 200;
    // The memory is ticked this often with the time that really passed;
    // 0: the server never ticks it.
    uint32_t tickIntervalMs = 100;
    // Stop by itself after this long; 0: run until stopped. The time counts
    // from the first run: a run resumed on a new line keeps the deadline.
    uint32_t runForMs = 0;
    // End a run with kRestartDue once this many replies have gone out whole
    // since it began and the next request starts to arrive (that request is
    // not taken), so the caller can close its end of the line and open it
    // again, as a controller that restarts would; 0: never.
    uint32_t restartAfterReplies = 0;
};

struct ServerCounters {
    uint64_t bytesReceived = 0;
    uint64_t bytesSent = 0;
    uint64_t gapResets = 0;
};

class Server {
public:
    // What run() returns.
    static constexpr int kStopped = 0;     // stopped on request, or runForMs passed
    static constexpr int kLineFailed = 1;  // the line failed (error() says how)
    static constexpr int kRestartDue = 2;  // restartAfterReplies replies went out

    // The controller, memory and line must outlive the server (or, for the
    // line, its use: see resume).
    Server(Controller& controller, TagMemory& memory, SerialLine& line, ServerOptions options);
    ~Server();
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    // Starts the server thread and returns once it is serving: bytes written
    // to the line from then on are answered. False (with a reason) if the
    // server cannot run or is already running.
    bool start(std::string* error = nullptr);
    // Stops the thread and waits for it; harmless when not running.
    void stop();

    // Serves in the calling thread until requestStop(), runForMs, a line
    // error or a due restart: kStopped, kLineFailed (error() says which) or
    // kRestartDue.
    int run();
    // Asks run() to return. Async-signal-safe: may be called from a signal
    // handler.
    void requestStop() noexcept;

    // Serves line from the next run() on, instead of the line it served
    // before (which may be gone by then); the controller, the memory, the
    // counters and the runForMs deadline go on. Not while running.
    void resume(SerialLine& line);
    // Sleeps up to ms, ending early when a stop is asked for; true then (the
    // request is taken). For a caller waiting to reopen a line between runs.
    bool waitForStop(uint32_t ms);

    // Sees every chunk of requests read and of replies written, with the
    // time of the read or the write (a capture). Set it before start() or
    // run(); it is called on the serving thread.
    void setObserver(TrafficObserver observer) { observer_ = std::move(observer); }

    bool running() const { return running_.load(); }
    ServerCounters counters() const;
    std::string error() const;

private:
    // What one run of the loop keeps between its turns.
    struct Session;
    enum class Wake { kWork, kInterrupted, kStop, kFailed };

    int loop();
    void announceReady();
    void tick(Session& session, int64_t nowNs);
    // Writes what the pace allows of the queued replies; false after a line
    // error.
    bool sendDue(Session& session, int64_t nowNs);
    // When the loop must next look at the line, the queue or the clock.
    int64_t wakeTime(const Session& session, int64_t nowNs) const;
    // Sleeps until the line or the stop request wants attention or the wake
    // time has come; *lineEvents says what the line had.
    Wake waitForWork(const Session& session, int64_t nowNs, short* lineEvents);
    // Takes what the line has and queues the controller's replies; false
    // after a line error.
    bool takeInput(Session& session, short lineEvents, int64_t nowNs);
    void queueReplies(Session& session, std::vector<Transmission> replies, int64_t nowNs);
    // Forgets a partial frame once the line has been quiet for the gap time.
    void resetAfterGap(const Session& session, int64_t nowNs);
    // Records the failing call and errno's reason for error().
    void fail(const std::string& what);

    // A due restart: restartAfterReplies replies of this run have all gone
    // out.
    bool restartDue(const Session& session) const;

    Controller& controller_;
    TagMemory& memory_;
    SerialLine* line_;
    const ServerOptions options_;
    // The runForMs deadline, kept by resume() for the next run.
    int64_t endNs_ = 0;
    bool resumed_ = false;
    TrafficObserver observer_;
    int stopFd_ = -1;
    std::thread thread_;
    std::atomic<bool> running_{false};
    mutable std::mutex mutex_;
    std::condition_variable readyChanged_;
    bool ready_ = false;
    ServerCounters counters_;
    std::string error_;
};

}  // namespace peer

#endif
