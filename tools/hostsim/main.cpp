// hostsim: loads the communication plug-in as an HMI runtime does, runs the
// host's exchange loop against the built-in controller simulator or a serial
// port, and shows the controller's data live.
#include "builtin_sim.h"
#include "commands.h"
#include "console.h"
#include "display.h"
#include "host.h"
#include "options.h"
#include "plugin_locator.h"
#include "peer/capture.h"
#include "peer/host_loop.h"
#include "peer/line.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <deque>
#include <fcntl.h>
#include <iostream>
#include <poll.h>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

#ifndef HOSTSIM_DEFAULT_PLUGIN
#define HOSTSIM_DEFAULT_PLUGIN "libAB_ControlLogix_CompactLogix.so"
#endif
#ifndef HOSTSIM_INSTALLED_PLUGIN
#define HOSTSIM_INSTALLED_PLUGIN ""
#endif

namespace {

using hostsim::Host;
using hostsim::Options;
using Clock = std::chrono::steady_clock;

// The redrawn screen keeps this many of the latest events.
constexpr std::size_t kScreenEvents = 10;
// The display side wakes at least this often to check its limits.
constexpr long long kLongestWaitMs = 100;

// Self-pipe: a signal, or the exchange loop ending, makes it readable; every
// waiting poll() in the program includes its read end.
int g_wake[2] = {-1, -1};
volatile sig_atomic_t g_signalled = 0;

void Wake() {
    const char byte = 1;
    const ssize_t ignored = write(g_wake[1], &byte, 1);
    (void)ignored;
}

void OnSignal(int) {
    g_signalled = 1;
    Wake();
}

int Fail(int code, const std::string& message) {
    std::cerr << "hostsim: " << message << "\n";
    return code;
}

bool InstallSignals(std::string* error) {
    if (pipe2(g_wake, O_CLOEXEC | O_NONBLOCK) != 0) {
        *error = std::string("pipe: ") + std::strerror(errno);
        return false;
    }
    struct sigaction sa {};
    sa.sa_handler = OnSignal;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
    signal(SIGPIPE, SIG_IGN);
    return true;
}

// The line: the built-in simulator's pseudo-terminal or a serial device,
// and what crosses it when it is captured.
struct Link {
    peer::LineCapture capture;  // outlives the port, which reports to it
    hostsim::BuiltinSimulator simulator;
    peer::HostPort port;
    std::string text;  // what the title says about it
};

// Starts the simulator when there is no --port and opens the host's end; an
// exit code other than kExitOk with a reason when that fails.
int OpenLink(const Options& options, Link* link, std::string* error) {
    std::string portPath = options.port;
    if (portPath.empty()) {
        if (!link->simulator.start(options, error)) return hostsim::kExitPort;
        portPath = link->simulator.peerPath();
        link->text = "built-in simulator on " + portPath;
    } else {
        link->text = "serial port " + portPath;
    }
    if (!link->port.open(portPath, options.baud, error)) return hostsim::kExitPort;
    // Once open, a line that vanishes (an adapter unplugged, the far end
    // restarted) is shown down and reopened; the run goes on.
    link->port.setReopen(true);
    // A pseudo-terminal (the built-in simulator's, or plcsim's) delivers at
    // once, so both of its ends pace their bytes at the line's rate; a real
    // serial device paces itself.
    if (link->port.isPseudoTerminal()) link->port.setPaceBaud(options.baud);
    link->text += " at " + std::to_string(options.baud) + " baud";
    return hostsim::kExitOk;
}

// With --capture, every byte the port sends and receives goes into the
// capture: the requests as the plug-in framed them, and the replies (of the
// built-in simulator, too) as they came off the line. False with a reason
// when the file cannot be written.
bool StartCapture(const Options& options, Link* link, std::string* error) {
    if (options.capturePath.empty()) return true;
    peer::LineCapture& capture = link->capture;
    if (!capture.open(options.capturePath, "hostsim " + link->port.path(), options.baud, error))
        return false;
    capture.setRemote(options.remote);
    link->port.setObserver(
        [&capture](peer::Traffic traffic, const uint8_t* bytes, std::size_t n, int64_t nowNs) {
            capture.recordHostTraffic(traffic, bytes, n, nowNs);
        });
    link->text += ", capture " + options.capturePath;
    return true;
}

void FinishCapture(Link& link) {
    if (!link.capture.isOpen()) return;
    link.capture.close();
    const std::string error = link.capture.error();
    if (!error.empty()) std::cerr << "hostsim: " << error << "\n";
}

std::vector<std::string> TitleLines(const peer::Plugin& plugin, const Host& host,
                                    const Options& options, const std::string& linkText) {
    return {"hostsim | plug-in " + plugin.path() + " (" + hostsim::PluginBuildText(plugin.path()) +
                "; FlashLocalRegister " + std::to_string(host.flashResult()) + ")",
            linkText + " | " + (options.remote ? "remote" : "direct") + " mode, station " +
                std::to_string(options.station) + ", maxCount " + std::to_string(options.maxCount) +
                ", retryLimit " + std::to_string(options.retryLimit) + ", writeMode " +
                std::to_string(options.writeMode) +
                (options.multiStation ? ", multi-station" : "") +
                (options.cipErrorsFail ? ", cip-errors-fail" : "")};
}

// The writes and one-shot reads of the command line, and a word on what
// multi-station mode does without a cyclic list.
void QueueStartWork(Host& host, const Options& options) {
    if (options.multiStation)
        host.note(
            "multi-station mode: the plug-in keeps no local image and builds no cyclic list; "
            "writes and one-shot reads go to station " +
            std::to_string(options.station));
    std::string message;
    for (const hostsim::WriteRequest& w : options.writes) {
        host.queueWrite(w, &message);
        host.note(message);
    }
    for (const hostsim::TagAddress& r : options.reads) {
        host.queueRead(r, &message);
        host.note(message);
    }
}

// The display side of a run: events, snapshots and typed commands until a
// signal, quit, the end of input, the time limit or the host stops.
class Session {
public:
    Session(Host& host, const Options& options, std::vector<std::string> title)
        : host_(host),
          options_(options),
          ansi_(!options.plain && isatty(STDOUT_FILENO)),
          console_(isatty(STDIN_FILENO), ansi_, hostsim::kMaxLineLength),
          title_(std::move(title)) {}

    void run();
    // After the exchange loop has ended: the last state as plain lines, and
    // why the run stopped.
    void finish(const peer::Plugin& plugin, bool lineOk);

private:
    std::string joinedTitle() const { return title_[0] + " | " + title_[1]; }
    std::chrono::milliseconds refresh() const;
    void showEvents();
    void draw();
    void waitForInput();

    Host& host_;
    const Options& options_;
    const bool ansi_;
    hostsim::Console console_;
    std::vector<std::string> title_;
    std::deque<std::string> events_;
    Clock::time_point nextDraw_;
    bool quit_ = false;
    bool timeUp_ = false;
};

std::chrono::milliseconds Session::refresh() const {
    return std::chrono::milliseconds(options_.intervalMs > 0 ? options_.intervalMs
                                     : ansi_                 ? 200
                                                             : 1000);
}

void Session::showEvents() {
    for (const std::string& e : host_.takeEvents()) {
        if (ansi_) {
            events_.push_back(e);
            while (events_.size() > kScreenEvents) events_.pop_front();
        } else {
            std::printf("event %s\n", e.c_str());
            std::fflush(stdout);
        }
    }
}

void Session::draw() {
    const hostsim::Snapshot s = host_.snapshot();
    if (ansi_) {
        hostsim::ScreenParts parts;
        parts.title = title_;
        parts.events = events_;
        parts.prompt = console_.interactive();
        parts.helpLine = hostsim::kPromptHelp;
        parts.typed = console_.line();
        hostsim::DrawScreen(parts, s);
    } else {
        hostsim::PrintPlain(s, "---");
    }
    nextDraw_ += refresh();
    if (nextDraw_ < Clock::now()) nextDraw_ = Clock::now() + refresh();
}

void Session::waitForInput() {
    auto wait =
        std::chrono::duration_cast<std::chrono::milliseconds>(nextDraw_ - Clock::now()).count();
    wait = std::max<long long>(0, std::min<long long>(wait, kLongestWaitMs));
    const bool inputOpen = console_.interactive();
    pollfd fds[2] = {{g_wake[0], POLLIN, 0}, {STDIN_FILENO, POLLIN, 0}};
    poll(fds, inputOpen ? 2 : 1, static_cast<int>(wait));
    if (!inputOpen || !(fds[1].revents & (POLLIN | POLLHUP))) return;
    bool eof = false;
    for (const std::string& line : console_.read(&eof))
        if (!hostsim::Execute(host_, line)) quit_ = true;
    for (std::size_t n = console_.takeOverlongLines(); n > 0; --n)
        host_.note("input line longer than " + std::to_string(hostsim::kMaxLineLength) +
                   " characters ignored");
    if (eof) quit_ = true;
    if (ansi_) nextDraw_ = Clock::now();  // show the typed key at once
}

void Session::run() {
    if (ansi_) {
        std::fputs("\x1b[?1049h\x1b[H\x1b[2J", stdout);  // the alternate screen
    } else {
        std::printf("%s\n", joinedTitle().c_str());
        std::fflush(stdout);
    }
    const auto started = Clock::now();
    nextDraw_ = started + (ansi_ ? std::chrono::milliseconds(0) : refresh());
    while (!quit_ && !g_signalled && !host_.stopping()) {
        if (options_.durationSeconds > 0 &&
            std::chrono::duration<double>(Clock::now() - started).count() >=
                options_.durationSeconds) {
            timeUp_ = true;
            break;
        }
        showEvents();
        if (Clock::now() >= nextDraw_) draw();
        waitForInput();
    }
}

void Session::finish(const peer::Plugin& plugin, bool lineOk) {
    console_.restore();
    if (ansi_) std::fputs("\x1b[?1049l", stdout);
    for (const std::string& e : host_.takeEvents()) {
        if (ansi_)
            events_.push_back(e);
        else
            std::printf("event %s\n", e.c_str());
    }
    if (ansi_) {
        std::printf("%s\n", joinedTitle().c_str());
        for (const std::string& e : events_) std::printf("event %s\n", e.c_str());
    }
    hostsim::PrintPlain(host_.snapshot(), "===");
    const int finish = plugin.api().QueryFinishFlag();
    const char* reason = g_signalled ? "a signal"
                         : quit_     ? "quit"
                         : !lineOk   ? "a line failure"
                         : timeUp_   ? "the time limit"
                                     : "the exchange limit";
    std::printf("QueryFinishFlag %d; stopped after %s\n", finish, reason);
    std::fflush(stdout);
}

// Runs the exchange loop on its own thread and the display on this one.
int Run(const peer::Plugin& plugin, Link& link, Host& host, const Options& options) {
    Session session(host, options, TitleLines(plugin, host, options, link.text));
    bool lineOk = true;
    std::thread exchanges([&] {
        lineOk = host.run(link.port, g_wake[0]);
        Wake();
    });
    session.run();
    host.stop();
    Wake();
    exchanges.join();
    link.simulator.stop();
    FinishCapture(link);
    session.finish(plugin, lineOk);
    return lineOk ? hostsim::kExitOk : Fail(hostsim::kExitLink, host.lineError());
}

}  // namespace

int main(int argc, char** argv) {
    const std::vector<std::string> args(argv + 1, argv + argc);
    Options options;
    std::string error;
    if (!hostsim::ParseOptions(args, &options, &error))
        return Fail(hostsim::kExitUsage, error + "\nTry 'hostsim --help'.");
    if (options.help) {
        std::cout << hostsim::UsageText("hostsim");
        return hostsim::kExitOk;
    }
    peer::UseTightTimers();  // before the simulator's thread starts
    const std::vector<hostsim::TagAddress> tags =
        options.tags.empty() ? hostsim::DefaultTags() : options.tags;
    // --plugin wins; else the installed plug-in beside this program, else the
    // build tree's.
    const std::string pluginPath =
        options.pluginPath.empty()
            ? hostsim::LocatePlugin(hostsim::SelfExecutablePath(), HOSTSIM_INSTALLED_PLUGIN,
                                    HOSTSIM_DEFAULT_PLUGIN)
            : options.pluginPath;

    peer::Plugin plugin;
    if (!plugin.load(pluginPath, &error)) return Fail(hostsim::kExitPlugin, error);
    Link link;
    const int linkResult = OpenLink(options, &link, &error);
    if (linkResult != hostsim::kExitOk) return Fail(linkResult, error);
    if (!StartCapture(options, &link, &error))
        return Fail(hostsim::kExitUsage, error + "\nTry 'hostsim --help'.");
    if (!InstallSignals(&error)) return Fail(hostsim::kExitPort, error);

    Host host(plugin.api(), options);
    if (!host.start(tags, &error)) return Fail(hostsim::kExitUsage, error);
    QueueStartWork(host, options);
    const int result = Run(plugin, link, host, options);
    plugin.unload();
    return result;
}
