// hostsim: loads the communication plug-in as an HMI runtime does, runs the
// host's exchange loop against the built-in controller simulator or a serial
// port, and shows the controller's data live.
#include "builtin_sim.h"
#include "display.h"
#include "host.h"
#include "options.h"
#include "peer/host_loop.h"
#include "serial_port.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <deque>
#include <utility>
#include <algorithm>
#include <fcntl.h>
#include <iostream>
#include <poll.h>
#include <string>
#include <sys/ioctl.h>
#include <termios.h>
#include <thread>
#include <unistd.h>
#include <vector>

#ifndef HOSTSIM_DEFAULT_PLUGIN
#define HOSTSIM_DEFAULT_PLUGIN "libAB_ControlLogix_CompactLogix.so"
#endif

namespace {

using hostsim::Host;
using hostsim::Options;
using Clock = std::chrono::steady_clock;

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

// The terminal's input: raw keys with a line editor of our own when the
// table is redrawn in place (typed text would otherwise be overwritten),
// plain lines otherwise.
class Console {
public:
    Console(bool interactive, bool ansi) : interactive_(interactive), ansi_(ansi) {
        if (interactive_ && ansi_ && tcgetattr(STDIN_FILENO, &saved_) == 0) {
            termios raw = saved_;
            raw.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
            raw.c_cc[VMIN] = 0;
            raw.c_cc[VTIME] = 0;
            if (tcsetattr(STDIN_FILENO, TCSANOW, &raw) == 0) rawMode_ = true;
        }
    }
    ~Console() { restore(); }
    void restore() {
        if (rawMode_) tcsetattr(STDIN_FILENO, TCSANOW, &saved_);
        rawMode_ = false;
    }

    bool interactive() const { return interactive_; }
    const std::string& line() const { return line_; }

    // Reads what is there; returns complete lines. *eof when input ended.
    std::vector<std::string> read(bool* eof) {
        std::vector<std::string> lines;
        char buffer[256];
        const ssize_t n = ::read(STDIN_FILENO, buffer, sizeof buffer);
        if (n == 0) {
            // End of input (a closed pipe, or Ctrl-D at the start of a line).
            *eof = true;
            return lines;
        }
        for (ssize_t i = 0; i < n; ++i) {
            const unsigned char c = static_cast<unsigned char>(buffer[i]);
            if (c == '\n' || c == '\r') {
                lines.push_back(line_);
                line_.clear();
            } else if (c == 0x7F || c == 0x08) {
                if (!line_.empty()) line_.pop_back();
            } else if (c == 0x15) {  // Ctrl-U
                line_.clear();
            } else if (c == 0x04) {  // Ctrl-D
                if (line_.empty()) *eof = true;
            } else if (c == 0x1B) {
                // An escape sequence (arrow keys): skip it.
                escape_ = true;
            } else if (escape_) {
                if ((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '~') escape_ = false;
            } else if (c >= 0x20) {
                line_.push_back(static_cast<char>(c));
            }
        }
        return lines;
    }

private:
    bool interactive_;
    bool ansi_;
    bool rawMode_ = false;
    bool escape_ = false;
    termios saved_{};
    std::string line_;
};

// Columns and rows of the terminal (100 x 30 when it does not say).
std::pair<std::size_t, std::size_t> TerminalSize() {
    winsize ws{};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &ws) == 0 && ws.ws_col > 0 && ws.ws_row > 0)
        return {ws.ws_col, ws.ws_row};
    return {100, 30};
}

const char kPromptHelp[] =
    "commands: N7:3=1234 | N7:3=1,2,3 | B3:0/5=1 | F8:1=2.5 | read N7:10 x4 | tag N7:20 x2 | quit";

// Carries out one command line; false when it asks to quit.
bool Execute(Host& host, const std::string& raw) {
    const std::string command = hostsim::Trim(raw);
    if (command.empty()) return true;
    if (command == "quit" || command == "exit" || command == "q") return false;
    if (command == "help" || command == "?") {
        host.note(kPromptHelp);
        return true;
    }
    std::string message;
    const auto startsWith = [&](const char* word) {
        const std::size_t n = std::strlen(word);
        return command.compare(0, n, word) == 0 && command.size() > n && command[n] == ' ';
    };
    if (startsWith("read") || startsWith("tag")) {
        const bool read = startsWith("read");
        hostsim::TagAddress a;
        if (!hostsim::ParseTagAddress(command.substr(read ? 5 : 4), &a, &message)) {
            host.note(message);
            return true;
        }
        if (read)
            host.queueRead(a, &message);
        else
            host.addTag(a, &message);
        host.note(message);
        return true;
    }
    if (command.find('=') != std::string::npos) {
        hostsim::WriteRequest w;
        if (hostsim::ParseWriteRequest(command, &w, &message)) host.queueWrite(w, &message);
        host.note(message);
        return true;
    }
    host.note("unknown command '" + command + "'; " + kPromptHelp);
    return true;
}

void PrintPlain(const hostsim::Snapshot& s, const char* marker) {
    const std::vector<std::string> stats = hostsim::StatsLines(s);
    std::string out = std::string(marker) + " " + stats[0] + " | " + stats[1] + "\n";
    for (const std::string& row : hostsim::TableRows(s, 0)) out += "  " + row + "\n";
    std::fputs(out.c_str(), stdout);
    std::fflush(stdout);
}

void DrawScreen(const std::vector<std::string>& title, const hostsim::Snapshot& s,
                const std::deque<std::string>& events, const Console& console) {
    const auto [width, height] = TerminalSize();
    const auto cut = [&](std::string text) {
        if (text.size() > width) text.resize(width);
        return text;
    };
    // Everything must fit on the screen, or the terminal scrolls and the
    // redraw in place falls apart: events give way first, then tag rows.
    std::vector<std::string> head = title;
    for (const std::string& line : hostsim::StatsLines(s)) head.push_back(line);
    head.push_back("");
    std::vector<std::string> table = hostsim::TableRows(s, width);
    std::vector<std::string> tail;
    if (console.interactive()) tail = {"", kPromptHelp};
    const std::size_t prompt = console.interactive() ? 1 : 0;
    const std::size_t fixed = head.size() + tail.size() + prompt + 2;  // blank + "events:"
    std::size_t room = height > fixed ? height - fixed : 0;
    if (table.size() > room) {
        const std::size_t shown = room > 1 ? room - 1 : 0;
        const std::size_t hidden = table.size() - shown;
        table.resize(shown);
        table.push_back("... " + std::to_string(hidden) + " more row(s): enlarge the window");
        room = 0;
    } else {
        room -= table.size();
    }
    const std::size_t eventCount = std::min(room, events.size());

    std::string out = "\x1b[H";
    for (const std::string& line : head) out += cut(line) + "\x1b[K\n";
    for (const std::string& line : table) out += cut(line) + "\x1b[K\n";
    out += "\x1b[K\nevents:\x1b[K\n";
    for (std::size_t i = events.size() - eventCount; i < events.size(); ++i)
        out += cut("  " + events[i]) + "\x1b[K\n";
    for (const std::string& line : tail) out += cut(line) + "\x1b[K\n";
    if (console.interactive()) out += cut("> " + console.line());
    out += "\x1b[J";
    std::fputs(out.c_str(), stdout);
    std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<std::string> args(argv + 1, argv + argc);
    Options options;
    std::string error;
    if (!hostsim::ParseOptions(args, &options, &error))
        return Fail(hostsim::kExitUsage, error + "\nTry 'hostsim --help'.");
    if (options.help) {
        std::cout << hostsim::UsageText("hostsim");
        return hostsim::kExitOk;
    }
    const std::vector<hostsim::TagAddress> tags =
        options.tags.empty() ? hostsim::DefaultTags() : options.tags;
    const std::string pluginPath =
        options.pluginPath.empty() ? std::string(HOSTSIM_DEFAULT_PLUGIN) : options.pluginPath;

    peer::Plugin plugin;
    if (!plugin.load(pluginPath, &error)) return Fail(hostsim::kExitPlugin, error);

    // The link: the built-in simulator's pseudo-terminal or a serial device.
    hostsim::BuiltinSimulator simulator;
    std::string portPath = options.port;
    std::string linkText;
    if (portPath.empty()) {
        if (!simulator.start(options, &error)) return Fail(hostsim::kExitPort, error);
        portPath = simulator.peerPath();
        linkText = "built-in simulator on " + portPath;
    } else {
        linkText = "serial port " + portPath;
    }
    hostsim::SerialPort port;
    if (!port.open(portPath, options.baud, &error)) return Fail(hostsim::kExitPort, error);
    if (options.port.empty()) port.setPaceBaud(options.baud);
    linkText += " at " + std::to_string(options.baud) + " baud";

    if (pipe2(g_wake, O_CLOEXEC | O_NONBLOCK) != 0)
        return Fail(hostsim::kExitPort, std::string("pipe: ") + std::strerror(errno));
    struct sigaction sa {};
    sa.sa_handler = OnSignal;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
    signal(SIGPIPE, SIG_IGN);

    Host host(plugin.api(), options);
    if (!host.start(tags, &error)) return Fail(hostsim::kExitUsage, error);

    const bool ansi = !options.plain && isatty(STDOUT_FILENO);
    const bool interactive = isatty(STDIN_FILENO);
    const std::vector<std::string> titleLines = {
        "hostsim | plug-in " + plugin.path() + " (FlashLocalRegister " +
            std::to_string(host.flashResult()) + ")",
        linkText + " | " + (options.remote ? "remote" : "direct") + " mode, station " +
            std::to_string(options.station) + ", maxCount " + std::to_string(options.maxCount) +
            ", retryLimit " + std::to_string(options.retryLimit) + ", writeMode " +
            std::to_string(options.writeMode) + (options.multiStation ? ", multi-station" : "") +
            (options.cipErrorsFail ? ", cip-errors-fail" : "")};
    const std::string title = titleLines[0] + " | " + titleLines[1];

    if (options.multiStation)
        host.note(
            "multi-station mode: the plug-in keeps no local image and builds no cyclic list; "
            "writes and one-shot reads go to station " +
            std::to_string(options.station));
    for (const hostsim::WriteRequest& w : options.writes) {
        std::string message;
        host.queueWrite(w, &message);
        host.note(message);
    }
    for (const hostsim::TagAddress& r : options.reads) {
        std::string message;
        host.queueRead(r, &message);
        host.note(message);
    }

    bool lineOk = true;
    std::thread exchanges([&] {
        lineOk = host.run(port, g_wake[0]);
        Wake();
    });

    Console console(interactive, ansi);
    std::deque<std::string> recentEvents;
    if (ansi) {
        std::fputs("\x1b[?1049h\x1b[H\x1b[2J", stdout);  // the alternate screen
    } else {
        std::printf("%s\n", title.c_str());
        std::fflush(stdout);
    }
    const auto started = Clock::now();
    const auto refresh = std::chrono::milliseconds(options.intervalMs > 0 ? options.intervalMs
                                                   : ansi                 ? 200
                                                                          : 1000);
    auto nextDraw = started + (ansi ? std::chrono::milliseconds(0) : refresh);
    bool quit = false;
    bool timeUp = false;
    bool inputOpen = interactive;
    while (!quit && !g_signalled && !host.stopping()) {
        const auto now = Clock::now();
        if (options.durationSeconds > 0 &&
            std::chrono::duration<double>(now - started).count() >= options.durationSeconds) {
            timeUp = true;
            break;
        }
        for (const std::string& e : host.takeEvents()) {
            if (ansi) {
                recentEvents.push_back(e);
                while (recentEvents.size() > 10) recentEvents.pop_front();
            } else {
                std::printf("event %s\n", e.c_str());
                std::fflush(stdout);
            }
        }
        if (Clock::now() >= nextDraw) {
            const hostsim::Snapshot s = host.snapshot();
            if (ansi)
                DrawScreen(titleLines, s, recentEvents, console);
            else
                PrintPlain(s, "---");
            nextDraw += refresh;
            if (nextDraw < Clock::now()) nextDraw = Clock::now() + refresh;
        }
        auto wait =
            std::chrono::duration_cast<std::chrono::milliseconds>(nextDraw - Clock::now()).count();
        wait = std::max<long long>(0, std::min<long long>(wait, 100));
        pollfd fds[2] = {{g_wake[0], POLLIN, 0}, {STDIN_FILENO, POLLIN, 0}};
        poll(fds, inputOpen ? 2 : 1, static_cast<int>(wait));
        if (inputOpen && (fds[1].revents & (POLLIN | POLLHUP))) {
            bool eof = false;
            for (const std::string& line : console.read(&eof))
                if (!Execute(host, line)) quit = true;
            if (eof) quit = true;
            if (ansi) nextDraw = Clock::now();  // show the typed key at once
        }
    }

    host.stop();
    Wake();
    exchanges.join();
    simulator.stop();
    console.restore();
    if (ansi) std::fputs("\x1b[?1049l", stdout);

    // The last state, as plain lines, stays on the screen.
    for (const std::string& e : host.takeEvents()) {
        if (ansi)
            recentEvents.push_back(e);
        else
            std::printf("event %s\n", e.c_str());
    }
    if (ansi) {
        std::printf("%s\n", title.c_str());
        for (const std::string& e : recentEvents) std::printf("event %s\n", e.c_str());
    }
    PrintPlain(host.snapshot(), "===");
    const int finish = plugin.api().QueryFinishFlag();
    const char* reason = g_signalled ? "a signal"
                         : quit      ? "quit"
                         : !lineOk   ? "a line failure"
                         : timeUp    ? "the time limit"
                                     : "the exchange limit";
    std::printf("QueryFinishFlag %d; stopped after %s\n", finish, reason);
    std::fflush(stdout);
    plugin.unload();
    if (!lineOk) return Fail(hostsim::kExitLink, host.lineError());
    return hostsim::kExitOk;
}
