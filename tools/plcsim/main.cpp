// plcsim: answers a Logix controller's serial port on a pseudo-terminal or a
// real serial device, for running the driver without a controller.
#include "peer/controller.h"
#include "peer/line.h"
#include "peer/server.h"
#include "peer/tag_memory.h"

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

namespace {

const char kUsage[] =
    "Usage: plcsim [options]\n"
    "Answers DF1/CIP requests (or remote-mode frames) as a Logix controller's\n"
    "serial port would, on a new pseudo-terminal or on a serial device.\n"
    "\n"
    "Line:\n"
    "  --device PATH          serve this serial device instead of a pseudo-terminal\n"
    "  --link PATH            make PATH a symbolic link to the pseudo-terminal's peer\n"
    "  --print-path           print the path to open as the first line of stdout\n"
    "  --baud N               line speed (default 19200); on a pseudo-terminal the\n"
    "                         replies are paced at N baud, 10 bits a byte; 0: no pacing\n"
    "  --turnaround MS        pause between a request and its reply (default 5)\n"
    "  --gap MS               forget a partial frame after MS of silence (default 200)\n"
    "\n"
    "Tag memory:\n"
    "  --file LN:COUNT        a data file, such as N7:256, F8:64, B3:32; repeatable;\n"
    "                         replaces the default B3, N7, F8, F9, N10 (256 each)\n"
    "  --no-live              no tags that change by themselves\n"
    "  --tick MS              tick the live tags every MS (default 100; 0: never)\n"
    "\n"
    "Protocol:\n"
    "  --remote               remote mode: raw remote frames instead of DF1/CIP\n"
    "  --no-nak               ignore frames with a wrong block check (default: DLE NAK)\n"
    "  --detect-duplicates    DF1 duplicate detection: a repeated SRC/CMD/TNS is\n"
    "                         acknowledged but not answered\n"
    "  --max-reply-data N     application bytes a reply may carry (default 244)\n"
    "  --remote-tns N         first transaction byte of remote replies (default 1)\n"
    "\n"
    "Faults (N: every Nth reply; K: the next K replies):\n"
    "  --drop-every N, --drop-next K            send no reply\n"
    "  --corrupt-every N, --corrupt-next K      invert the block check byte\n"
    "  --truncate-every N, --truncate-next K    cut the last bytes off the reply\n"
    "  --truncate-bytes N                       how many (default 3)\n"
    "  --late-every N, --late-next K            answer late\n"
    "  --late-ms MS                             how late (default 500)\n"
    "  --wrong-tns-every N, --wrong-tns-next K  answer with the transaction number + 1\n"
    "  --silence AT:FOR       answer nothing for FOR ms, starting AT ms after start\n"
    "\n"
    "Run:\n"
    "  --duration SECONDS     stop after this long (default: until SIGINT/SIGTERM)\n"
    "  --quiet                no status lines on stderr\n"
    "  --help                 this text\n";

// Lock-free, so the signal handler may read it.
std::atomic<peer::Server*> gServer{nullptr};

void OnSignal(int) {
    if (peer::Server* server = gServer.load()) server->requestStop();
}

bool ParseUnsigned(const std::string& text, unsigned long max, unsigned long* value) {
    if (text.empty() || text.size() > 10) return false;
    unsigned long v = 0;
    for (char c : text) {
        if (c < '0' || c > '9') return false;
        v = v * 10 + static_cast<unsigned long>(c - '0');
    }
    if (v > max) return false;
    *value = v;
    return true;
}

bool ParseSeconds(const std::string& text, uint32_t* ms) {
    char* end = nullptr;
    const double seconds = std::strtod(text.c_str(), &end);
    if (text.empty() || *end != '\0' || !(seconds > 0) || seconds > 4000000.0) return false;
    *ms = static_cast<uint32_t>(seconds * 1000.0 + 0.5);
    return *ms > 0;
}

int Fail(const std::string& message) {
    std::cerr << "plcsim: " << message << "\nTry 'plcsim --help'.\n";
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<std::string> args(argv + 1, argv + argc);
    std::string device;
    std::string linkPath;
    bool printPath = false;
    bool quiet = false;
    int baud = 19200;
    std::vector<peer::DataFile> files;
    bool live = true;
    peer::ControllerOptions controllerOptions;
    peer::ServerOptions serverOptions;
    peer::FaultPlan faults;
    bool silence = false;
    unsigned long silenceAt = 0;
    unsigned long silenceFor = 0;

    for (std::size_t i = 0; i < args.size(); ++i) {
        const std::string& opt = args[i];
        auto value = [&](std::string* out) {
            if (i + 1 >= args.size()) return false;
            *out = args[++i];
            return true;
        };
        auto number = [&](unsigned long max, unsigned long* out) -> bool {
            std::string text;
            if (!value(&text)) return false;
            return ParseUnsigned(text, max, out);
        };
        auto u32 = [&](uint32_t* out) {
            unsigned long v;
            if (!number(0xFFFFFFFFul, &v)) return false;
            *out = static_cast<uint32_t>(v);
            return true;
        };
        std::string text;
        unsigned long v = 0;
        bool ok = true;

        if (opt == "--help" || opt == "-h") {
            std::cout << kUsage;
            return 0;
        } else if (opt == "--device") {
            ok = value(&device) && !device.empty();
        } else if (opt == "--link") {
            ok = value(&linkPath) && !linkPath.empty();
        } else if (opt == "--print-path") {
            printPath = true;
        } else if (opt == "--quiet") {
            quiet = true;
        } else if (opt == "--baud") {
            ok = number(4000000, &v) && (v == 0 || peer::IsSupportedBaud(static_cast<int>(v)));
            baud = static_cast<int>(v);
            if (!ok)
                return Fail(
                    "--baud wants 0 or one of 300, 600, 1200, 2400, 4800, 9600, 19200, "
                    "38400, 57600, 115200, 230400");
        } else if (opt == "--turnaround") {
            ok = u32(&serverOptions.turnaroundMs);
        } else if (opt == "--gap") {
            ok = u32(&serverOptions.gapResetMs);
        } else if (opt == "--file") {
            peer::DataFile file;
            std::string error;
            if (!value(&text)) return Fail("--file wants a value such as N7:256");
            if (!peer::ParseDataFile(text, &file, &error)) return Fail(error);
            files.push_back(file);
        } else if (opt == "--no-live") {
            live = false;
        } else if (opt == "--tick") {
            ok = u32(&serverOptions.tickIntervalMs);
        } else if (opt == "--remote") {
            controllerOptions.mode = peer::LinkMode::kRemote;
        } else if (opt == "--no-nak") {
            controllerOptions.nakBadFrames = false;
        } else if (opt == "--detect-duplicates") {
            controllerOptions.detectDuplicates = true;
        } else if (opt == "--max-reply-data") {
            ok = number(65535, &v) && v >= 16;
            controllerOptions.maxReplyData = v;
            if (!ok) return Fail("--max-reply-data wants 16 to 65535");
        } else if (opt == "--remote-tns") {
            ok = number(255, &v);
            controllerOptions.remoteTransactionStart = static_cast<uint8_t>(v);
        } else if (opt == "--drop-every") {
            ok = u32(&faults.drop.every);
        } else if (opt == "--drop-next") {
            ok = u32(&faults.drop.next);
        } else if (opt == "--corrupt-every") {
            ok = u32(&faults.corruptCheck.every);
        } else if (opt == "--corrupt-next") {
            ok = u32(&faults.corruptCheck.next);
        } else if (opt == "--truncate-every") {
            ok = u32(&faults.truncate.every);
        } else if (opt == "--truncate-next") {
            ok = u32(&faults.truncate.next);
        } else if (opt == "--truncate-bytes") {
            ok = u32(&faults.truncateBytes);
        } else if (opt == "--late-every") {
            ok = u32(&faults.late.every);
        } else if (opt == "--late-next") {
            ok = u32(&faults.late.next);
        } else if (opt == "--late-ms") {
            ok = u32(&faults.lateMs);
        } else if (opt == "--wrong-tns-every") {
            ok = u32(&faults.wrongTns.every);
        } else if (opt == "--wrong-tns-next") {
            ok = u32(&faults.wrongTns.next);
        } else if (opt == "--silence") {
            if (!value(&text)) return Fail("--silence wants AT:FOR in milliseconds");
            const auto sep = text.find(':');
            ok = sep != std::string::npos &&
                 ParseUnsigned(text.substr(0, sep), 0xFFFFFFFFul, &silenceAt) &&
                 ParseUnsigned(text.substr(sep + 1), 0xFFFFFFFFul, &silenceFor) && silenceFor > 0;
            silence = true;
        } else if (opt == "--duration") {
            ok = value(&text) && ParseSeconds(text, &serverOptions.runForMs);
        } else {
            return Fail("unknown option '" + opt + "'");
        }
        if (!ok) return Fail("bad or missing value for " + opt);
    }
    if (!device.empty() && !linkPath.empty()) return Fail("--link is for pseudo-terminals only");
    if (!device.empty() && baud == 0) return Fail("a device needs a real baud rate");

    peer::TagMemory memory(files.empty() ? peer::TagMemory::DefaultLayout() : files);
    peer::LiveTags liveTags = memory.liveTags();
    liveTags.enabled = live;
    memory.setLiveTags(liveTags);

    std::string error;
    std::unique_ptr<peer::SerialLine> line =
        device.empty() ? peer::SerialLine::OpenPty(linkPath, &error)
                       : peer::SerialLine::OpenDevice(device, baud, &error);
    if (!line) {
        std::cerr << "plcsim: " << error << "\n";
        return 1;
    }
    // A device is paced by its UART; only a pseudo-terminal needs pacing.
    serverOptions.paceBaud = line->isPty() ? baud : 0;

    peer::Controller controller(memory, controllerOptions);
    controller.setFaults(faults);
    if (silence) {
        const int64_t from = peer::MonotonicMs() + static_cast<int64_t>(silenceAt);
        controller.silenceBetween(from, from + static_cast<int64_t>(silenceFor));
    }
    peer::Server server(controller, memory, *line, serverOptions);
    gServer = &server;
    struct sigaction action {};
    action.sa_handler = OnSignal;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);

    if (printPath) {
        std::cout << line->peerPath() << std::endl;
    }
    if (!quiet) {
        std::cerr << "plcsim: serving " << line->peerPath()
                  << (line->linkPath().empty() ? "" : " (link " + line->linkPath() + ")")
                  << (controllerOptions.mode == peer::LinkMode::kRemote ? ", remote mode" : "")
                  << ", " << baud << " baud\n";
    }
    const int result = server.run();
    gServer = nullptr;

    if (!quiet) {
        const auto c = controller.counters();
        const auto s = server.counters();
        std::cerr << "plcsim: frames " << c.framesReceived << ", bad " << c.badFrames
                  << ", replies " << c.repliesSent << ", naks " << c.naks << ", dropped "
                  << c.dropped << ", corrupted " << c.corrupted << ", truncated " << c.truncated
                  << ", late " << c.delayed << ", wrong-tns " << c.wrongTns << ", silenced "
                  << c.silenced << ", duplicates " << c.duplicates << ", bytes in "
                  << s.bytesReceived << ", bytes out " << s.bytesSent << ", gap resets "
                  << s.gapResets << "\n";
    }
    if (result != 0) {
        std::cerr << "plcsim: " << server.error() << "\n";
        return 1;
    }
    return 0;
}
