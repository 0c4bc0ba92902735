// plcsim: answers a Logix controller's serial port on a pseudo-terminal or a
// real serial device, for running the driver without a controller.
#include "options.h"

#include "peer/capture.h"
#include "peer/controller.h"
#include "peer/line.h"
#include "peer/server.h"
#include "peer/tag_memory.h"

#include <atomic>
#include <csignal>
#include <iostream>
#include <memory>
#include <string>
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

void PrintCounters(const peer::Controller& controller, const peer::Server& server) {
    const auto c = controller.counters();
    const auto s = server.counters();
    std::cerr << "plcsim: frames " << c.framesReceived << ", bad " << c.badFrames << ", replies "
              << c.repliesSent << ", naks " << c.naks << ", dropped " << c.dropped << ", corrupted "
              << c.corrupted << ", truncated " << c.truncated << ", late " << c.delayed
              << ", wrong-tns " << c.wrongTns << ", silenced " << c.silenced << ", duplicates "
              << c.duplicates << ", bytes in " << s.bytesReceived << ", bytes out " << s.bytesSent
              << ", gap resets " << s.gapResets << "\n";
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

// Serves the line until a signal, the duration or a line error.
int Serve(const plcsim::Options& options, peer::TagMemory& memory, peer::SerialLine& line) {
    peer::ServerOptions serverOptions = options.server;
    // A device is paced by its UART; only a pseudo-terminal needs pacing.
    serverOptions.paceBaud = line.isPty() ? options.baud : 0;
    peer::Controller controller(memory, options.controller);
    SetUpController(options, &controller);
    peer::Server server(controller, memory, line, serverOptions);
    peer::LineCapture capture;
    std::string error;
    if (!StartCapture(options, line, server, capture, &error)) return FailUsage(error);
    gServer = &server;
    StopOnSignals();

    if (options.printPath) std::cout << line.peerPath() << std::endl;
    if (!options.quiet) PrintServing(options, line);
    const int result = server.run();
    gServer = nullptr;

    if (!options.quiet) PrintCounters(controller, server);
    FinishCapture(options, capture);
    if (result != 0) return FailLine(server.error());
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
    return Serve(options, memory, *line);
}
