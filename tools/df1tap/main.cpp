// df1tap: a serial tap between an HMI panel and a controller. It forwards
// every byte both ways unchanged and at once, writes both directions to a
// pcapng capture and prints one decoded line per frame.
#include "options.h"
#include "tap.h"

#include "peer/capture.h"
#include "peer/line.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <iostream>
#include <memory>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

// Self-pipe: a signal makes its read end readable, which the tap polls.
int gWake[2] = {-1, -1};

void OnSignal(int) {
    const char byte = 1;
    const ssize_t ignored = write(gWake[1], &byte, 1);
    (void)ignored;
}

bool StopOnSignals(std::string* error) {
    if (pipe2(gWake, O_CLOEXEC | O_NONBLOCK) != 0) {
        *error = std::string("pipe: ") + std::strerror(errno);
        return false;
    }
    struct sigaction action {};
    action.sa_handler = OnSignal;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    signal(SIGPIPE, SIG_IGN);
    return true;
}

int FailUsage(const std::string& message) {
    std::cerr << "df1tap: " << message << "\nTry 'df1tap --help'.\n";
    return df1tap::kExitUsage;
}

int FailDevice(const std::string& message) {
    std::cerr << "df1tap: " << message << "\n";
    return df1tap::kExitDevice;
}

// The two sides, open. Side A is a device or the master of a new
// pseudo-terminal (kept in aPty, which holds its peer open so a host program
// may come and go).
struct Sides {
    std::unique_ptr<peer::SerialLine> aPty;
    int a = -1;
    int b = -1;
    std::string aPath;
    ~Sides() {
        if (!aPty && a >= 0) close(a);
        if (b >= 0) close(b);
    }
};

bool OpenSides(const df1tap::Options& options, Sides* sides, std::string* error) {
    if (options.aPty) {
        sides->aPty = peer::SerialLine::OpenPty("", error);
        if (!sides->aPty) {
            *error = "cannot make a pseudo-terminal for side A: " + *error;
            return false;
        }
        sides->a = sides->aPty->fd();
        sides->aPath = sides->aPty->peerPath();
    } else {
        sides->a = peer::OpenTerminal(options.deviceA, options.baud, error);
        sides->aPath = options.deviceA;
        if (sides->a < 0) return false;
    }
    sides->b = peer::OpenTerminal(options.deviceB, options.baud, error);
    return sides->b >= 0;
}

// One decoded line per packet on stdout, timed from the first packet.
void PrintPackets(peer::LineCapture& capture) {
    auto firstNs = std::make_shared<int64_t>(-1);
    capture.setListener([firstNs](const peer::CapturedPacket& packet) {
        if (*firstNs < 0) *firstNs = packet.firstByteNs;
        std::printf("%12.6f %s\n", static_cast<double>(packet.firstByteNs - *firstNs) / 1e9,
                    peer::DescribePacket(packet).c_str());
        std::fflush(stdout);
    });
}

int Forward(const df1tap::Options& options, const Sides& sides, peer::LineCapture& capture) {
    df1tap::Side a{sides.a, "side A " + sides.aPath};
    df1tap::Side b{sides.b, "side B " + options.deviceB};
    df1tap::Tap tap(a, b, capture);
    if (!options.quiet)
        std::cerr << "df1tap: forwarding " << sides.aPath << " <-> " << options.deviceB << " at "
                  << options.baud << " baud, capture " << options.capturePath << "\n";
    const bool stopped = tap.run(gWake[0]);
    capture.close();
    const std::string captureError = capture.error();
    if (!captureError.empty()) std::cerr << "df1tap: " << captureError << "\n";
    if (!options.quiet)
        std::cerr << "df1tap: " << capture.packets() << " packets captured; " << tap.a().bytesRead
                  << " bytes A to B, " << tap.b().bytesRead << " bytes B to A\n";
    return stopped ? df1tap::kExitOk : FailDevice(tap.error());
}

}  // namespace

int main(int argc, char** argv) {
    df1tap::Options options;
    std::string error;
    if (!df1tap::ParseOptions(std::vector<std::string>(argv + 1, argv + argc), &options, &error))
        return FailUsage(error);
    if (options.help) {
        std::cout << df1tap::UsageText();
        return df1tap::kExitOk;
    }
    if (options.version) {
        std::cout << "df1tap " << DF1TAP_VERSION << "\n";
        return df1tap::kExitOk;
    }
    Sides sides;
    if (!OpenSides(options, &sides, &error)) return FailDevice(error);
    peer::LineCapture capture;
    const std::string interfaceName = "df1tap A " + sides.aPath + " B " + options.deviceB;
    if (!capture.open(options.capturePath, interfaceName, options.baud, &error))
        return FailUsage(error);
    capture.setRemote(options.remote);
    if (!options.quiet) PrintPackets(capture);
    if (!StopOnSignals(&error)) return FailDevice(error);
    if (options.printPath) std::cout << sides.aPath << std::endl;
    return Forward(options, sides, capture);
}
