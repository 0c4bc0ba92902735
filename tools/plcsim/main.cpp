// plcsim: answers a Logix controller's serial port on a pseudo-terminal or a
// real serial device, for running the driver without a controller.
#include "options.h"

#include "peer/capture.h"
#include "peer/controller.h"
#include "peer/line.h"
#include "peer/server.h"
#include "peer/tag_memory.h"

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdint>
#include <iostream>
#include <limits>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace {

// Lock-free, so the signal handler may read it.
std::atomic<peer::Server*> gServer{nullptr};

void OnSignal(int) {
    if (peer::Server* server = gServer.load()) server->requestStop();
}

void StopOnSignals() {
    struct sigaction action {};
    action.sa_handler = OnSignal;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

int FailUsage(const std::string& message) {
    std::cerr << "plcsim: " << message << "\nTry 'plcsim --help'.\n";
    return plcsim::kExitUsage;
}

int FailLine(const std::string& message) {
    std::cerr << "plcsim: " << message << "\n";
    return plcsim::kExitLine;
}

void SetUpMemory(const plcsim::Options& options, peer::TagMemory* memory) {
    peer::LiveTags liveTags = memory->liveTags();
    liveTags.enabled = options.live;
    memory->setLiveTags(liveTags);
}

std::unique_ptr<peer::SerialLine> OpenLine(const plcsim::Options& options, std::string* error) {
    return options.device.empty()
               ? peer::SerialLine::OpenPty(options.linkPath, error)
               : peer::SerialLine::OpenDevice(options.device, options.baud, error);
}

void SetUpController(const plcsim::Options& options, peer::Controller* controller) {
    controller->setFaults(options.faults);
    if (!options.silence) return;
    const int64_t from = peer::MonotonicMs() + static_cast<int64_t>(options.silenceAtMs);
    controller->silenceBetween(from, from + static_cast<int64_t>(options.silenceForMs));
}

void PrintServing(const plcsim::Options& options, const peer::SerialLine& line) {
    std::cerr << "plcsim: serving " << line.peerPath()
              << (line.linkPath().empty() ? "" : " (link " + line.linkPath() + ")")
              << (options.controller.mode == peer::LinkMode::kRemote ? ", remote mode" : "") << ", "
              << options.baud << " baud\n";
}

// How often the line was taken down and up again.
struct LineChanges {
    uint64_t restarts = 0;  // --restart-after
    uint64_t reopened = 0;  // a device that failed and came back
};

// The counts of the switches that were used follow the fixed ones, so a run
// without them prints what it always has.
void PrintCounters(const peer::Controller& controller, const peer::Server& server,
                   const LineChanges& changes) {
    const auto c = controller.counters();
    const auto s = server.counters();
    std::cerr << "plcsim: frames " << c.framesReceived << ", bad " << c.badFrames << ", replies "
              << c.repliesSent << ", naks " << c.naks << ", dropped " << c.dropped << ", corrupted "
              << c.corrupted << ", truncated " << c.truncated << ", late " << c.delayed
              << ", wrong-tns " << c.wrongTns << ", silenced " << c.silenced << ", duplicates "
              << c.duplicates << ", bytes in " << s.bytesReceived << ", bytes out " << s.bytesSent
              << ", gap resets " << s.gapResets;
    if (controller.faults().noise.active() || c.noise) std::cerr << ", noise " << c.noise;
    if (changes.restarts) std::cerr << ", restarts " << changes.restarts;
    if (changes.reopened) std::cerr << ", reopened " << changes.reopened;
    std::cerr << "\n";
}

// With --capture, the server's traffic goes into the capture; false with a
// reason when the file cannot be written.
bool StartCapture(const plcsim::Options& options, const peer::SerialLine& line,
                  peer::Server& server, peer::LineCapture& capture, std::string* error) {
    if (options.capturePath.empty()) return true;
    if (!capture.open(options.capturePath, "plcsim " + line.peerPath(), options.baud, error))
        return false;
    capture.setRemote(options.controller.mode == peer::LinkMode::kRemote);
    server.setObserver(
        [&capture](peer::Traffic traffic, const uint8_t* bytes, std::size_t n, int64_t nowNs) {
            capture.recordControllerTraffic(traffic, bytes, n, nowNs);
        });
    return true;
}

void FinishCapture(const plcsim::Options& options, peer::LineCapture& capture) {
    if (!capture.isOpen()) return;
    capture.close();
    const std::string error = capture.error();
    if (!error.empty())
        std::cerr << "plcsim: " << error << "\n";
    else if (!options.quiet)
        std::cerr << "plcsim: " << capture.packets() << " packets captured in "
                  << options.capturePath << "\n";
}

// Waits for a device to come back: the first attempt at once after a
// restart, kReopenFirstMs after a failure, then the same doubling back-off
// as the host's port. Nothing when a stop is asked for or the run's time is
// up first (*error empty then).
std::unique_ptr<peer::SerialLine> ReopenDevice(const plcsim::Options& options, peer::Server& server,
                                               int64_t endMs, bool restart, std::string* error) {
    const int64_t lostMs = peer::MonotonicMs();
    int delayMs = restart ? 0 : peer::kReopenFirstMs;
    for (int attempts = 1;; ++attempts) {
        const int64_t leftMs = endMs - peer::MonotonicMs();
        if (leftMs <= 0 ||
            server.waitForStop(static_cast<uint32_t>(std::min<int64_t>(delayMs, leftMs)))) {
            error->clear();
            return nullptr;
        }
        std::string why;
        auto line = peer::SerialLine::OpenDevice(options.device, options.baud, &why);
        if (line) {
            if (!options.quiet)
                std::cerr << "plcsim: " << options.device << " reopened after "
                          << (peer::MonotonicMs() - lostMs) << " ms (" << attempts
                          << " attempt(s))\n";
            return line;
        }
        delayMs =
            delayMs == 0 ? peer::kReopenFirstMs : std::min(delayMs * 2, peer::kReopenLongestMs);
    }
}

// A new line in place of the one closed: a new pseudo-terminal behind the
// same link, or the device again.
std::unique_ptr<peer::SerialLine> Reopen(const plcsim::Options& options, peer::Server& server,
                                         int64_t endMs, bool restart, std::string* error) {
    if (options.device.empty()) return peer::SerialLine::OpenPty(options.linkPath, error);
    return ReopenDevice(options, server, endMs, restart, error);
}

// Runs the server until a stop, taking the line down and up again for a due
// restart or a device that failed (a pseudo-terminal's master does not
// fail: a failure there ends the run). kExitOk, or kExitLine with *error.
int KeepServing(const plcsim::Options& options, peer::Server& server, peer::Controller& controller,
                std::unique_ptr<peer::SerialLine>& line, LineChanges* changes, std::string* error) {
    const int64_t endMs = options.server.runForMs ? peer::MonotonicMs() + options.server.runForMs
                                                  : std::numeric_limits<int64_t>::max();
    for (;;) {
        const int result = server.run();
        if (result == peer::Server::kStopped) return plcsim::kExitOk;
        const bool restart = result == peer::Server::kRestartDue;
        if (!restart && line->isPty()) {
            *error = server.error();
            return plcsim::kExitLine;
        }
        if (!options.quiet)
            std::cerr << "plcsim: "
                      << (restart
                              ? "restarting the line after " +
                                    std::to_string(options.server.restartAfterReplies) + " replies"
                              : "line lost (" + server.error() + "); reopening " + options.device)
                      << "\n";
        line.reset();  // the host sees its line vanish
        controller.resetReceiver();
        line = Reopen(options, server, endMs, restart, error);
        if (!line) return error->empty() ? plcsim::kExitOk : plcsim::kExitLine;
        ++(restart ? changes->restarts : changes->reopened);
        server.resume(*line);
        if (!options.quiet) PrintServing(options, *line);
    }
}

// Serves the line until a signal or the duration (or a line error on a
// pseudo-terminal).
int Serve(const plcsim::Options& options, peer::TagMemory& memory,
          std::unique_ptr<peer::SerialLine> line) {
    peer::ServerOptions serverOptions = options.server;
    // A device is paced by its UART; only a pseudo-terminal needs pacing.
    serverOptions.paceBaud = line->isPty() ? options.baud : 0;
    peer::Controller controller(memory, options.controller);
    SetUpController(options, &controller);
    peer::Server server(controller, memory, *line, serverOptions);
    peer::LineCapture capture;
    std::string error;
    if (!StartCapture(options, *line, server, capture, &error)) return FailUsage(error);
    gServer = &server;
    StopOnSignals();

    if (options.printPath) std::cout << line->peerPath() << std::endl;
    if (!options.quiet) PrintServing(options, *line);
    LineChanges changes;
    const int result = KeepServing(options, server, controller, line, &changes, &error);
    gServer = nullptr;

    if (!options.quiet) PrintCounters(controller, server, changes);
    FinishCapture(options, capture);
    if (result != plcsim::kExitOk) return FailLine(error);
    return plcsim::kExitOk;
}

}  // namespace

int main(int argc, char** argv) {
    plcsim::Options options;
    std::string error;
    if (!plcsim::ParseOptions(std::vector<std::string>(argv + 1, argv + argc), &options, &error))
        return FailUsage(error);
    if (options.help) {
        std::cout << plcsim::UsageText();
        return plcsim::kExitOk;
    }
    peer::UseTightTimers();  // replies paced to the byte

    peer::TagMemory memory(options.files.empty() ? peer::TagMemory::DefaultLayout()
                                                 : options.files);
    SetUpMemory(options, &memory);
    std::unique_ptr<peer::SerialLine> line = OpenLine(options, &error);
    if (!line) return FailLine(error);
    return Serve(options, memory, std::move(line));
}
