#include "options.h"

#include "serial_port.h"

#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <fstream>

namespace hostsim {

namespace {

bool ParseInt(const std::string& text, long min, long max, long* value) {
    if (text.empty()) return false;
    char* end = nullptr;
    errno = 0;
    const long v = std::strtol(text.c_str(), &end, 10);
    if (*end != '\0' || errno == ERANGE || v < min || v > max) return false;
    *value = v;
    return true;
}

}  // namespace

std::vector<TagAddress> DefaultTags() {
    std::vector<TagAddress> tags;
    for (const char* text : {"N10:0", "N10:1/0", "F9:0", "N7:0 x4"}) {
        TagAddress a;
        std::string ignored;
        ParseTagAddress(text, &a, &ignored);
        tags.push_back(a);
    }
    return tags;
}

bool ReadTagFile(const std::string& path, std::vector<TagAddress>* tags, std::string* error) {
    std::ifstream in(path);
    if (!in) {
        if (error) *error = "cannot read tag file " + path;
        return false;
    }
    std::string line;
    int number = 0;
    while (std::getline(in, line)) {
        ++number;
        const std::size_t hash = line.find('#');
        if (hash != std::string::npos) line.erase(hash);
        line = Trim(line);
        if (line.empty()) continue;
        TagAddress a;
        std::string why;
        if (!ParseTagAddress(line, &a, &why)) {
            if (error) *error = path + ":" + std::to_string(number) + ": " + why;
            return false;
        }
        tags->push_back(a);
    }
    return true;
}

bool ParseOptions(const std::vector<std::string>& args, Options* out, std::string* error) {
    Options o;
    const auto fail = [&](const std::string& why) {
        if (error) *error = why;
        return false;
    };
    for (std::size_t i = 0; i < args.size(); ++i) {
        std::string name = args[i];
        std::string value;
        bool hasInlineValue = false;
        if (name.rfind("--", 0) == 0) {
            const std::size_t eq = name.find('=');
            if (eq != std::string::npos) {
                value = name.substr(eq + 1);
                name = name.substr(0, eq);
                hasInlineValue = true;
            }
        }
        const auto next = [&](std::string* v) {
            if (hasInlineValue) {
                *v = value;
                return true;
            }
            if (i + 1 >= args.size()) return false;
            *v = args[++i];
            return true;
        };
        const auto intOption = [&](long min, long max, long* v) {
            std::string text;
            if (!next(&text)) return fail("option " + name + " needs a value");
            if (!ParseInt(text, min, max, v))
                return fail("option " + name + ": '" + text + "' is not a number from " +
                            std::to_string(min) + " to " + std::to_string(max));
            return true;
        };
        const auto flag = [&](bool* f) {
            if (hasInlineValue) return fail("option " + name + " takes no value");
            *f = true;
            return true;
        };
        long n = 0;
        std::string text;
        if (name == "--help" || name == "-h") {
            if (!flag(&o.help)) return false;
        } else if (name == "--plugin") {
            if (!next(&o.pluginPath) || o.pluginPath.empty())
                return fail("option --plugin needs a path");
        } else if (name == "--port") {
            if (!next(&o.port) || o.port.empty()) return fail("option --port needs a device path");
        } else if (name == "--baud") {
            if (!intOption(1, INT_MAX, &n)) return false;
            if (!IsSupportedBaud(static_cast<int>(n)))
                return fail("option --baud: unsupported rate " + std::to_string(n) +
                            " (1200, 2400, 4800, 9600, 19200, 38400, 57600, 115200, 230400)");
            o.baud = static_cast<int>(n);
        } else if (name == "--timeout-ms") {
            if (!intOption(1, 600000, &n)) return false;
            o.timeoutMs = static_cast<int>(n);
        } else if (name == "--max-count") {
            if (!intOption(0, 65535, &n)) return false;
            o.maxCount = static_cast<int>(n);
        } else if (name == "--retry-limit") {
            if (!intOption(0, 1000000, &n)) return false;
            o.retryLimit = static_cast<int>(n);
        } else if (name == "--station") {
            if (!intOption(0, 255, &n)) return false;
            o.station = static_cast<int>(n);
        } else if (name == "--write-mode") {
            if (!intOption(INT_MIN, INT_MAX, &n)) return false;
            o.writeMode = static_cast<int>(n);
        } else if (name == "--local-link") {
            if (!intOption(INT_MIN, INT_MAX, &n)) return false;
            o.localLink = static_cast<int>(n);
        } else if (name == "--remote") {
            if (!flag(&o.remote)) return false;
        } else if (name == "--multi-station") {
            if (!flag(&o.multiStation)) return false;
        } else if (name == "--tag") {
            if (!next(&text)) return fail("option --tag needs an address such as N7:0x10");
            TagAddress a;
            if (!ParseTagAddress(text, &a, error)) return false;
            o.tags.push_back(a);
        } else if (name == "--tags") {
            if (!next(&text)) return fail("option --tags needs a file name");
            if (!ReadTagFile(text, &o.tags, error)) return false;
        } else if (name == "--write") {
            if (!next(&text)) return fail("option --write needs ADDRESS=VALUE, e.g. N7:3=1234");
            WriteRequest w;
            if (!ParseWriteRequest(text, &w, error)) return false;
            o.writes.push_back(w);
        } else if (name == "--read") {
            if (!next(&text)) return fail("option --read needs an address such as N7:10x4");
            TagAddress a;
            if (!ParseTagAddress(text, &a, error)) return false;
            o.reads.push_back(a);
        } else if (name == "--duration") {
            if (!next(&text)) return fail("option --duration needs a number of seconds");
            char* end = nullptr;
            const double d = std::strtod(text.c_str(), &end);
            if (text.empty() || *end != '\0' || !std::isfinite(d) || d <= 0)
                return fail("option --duration: '" + text +
                            "' is not a positive number of seconds");
            o.durationSeconds = d;
        } else if (name == "--exchanges") {
            if (!intOption(1, LONG_MAX, &n)) return false;
            o.exchanges = static_cast<uint64_t>(n);
        } else if (name == "--cip-errors-fail") {
            if (!flag(&o.cipErrorsFail)) return false;
        } else if (name == "--keep-reply-done") {
            if (!flag(&o.keepReplyDone)) return false;
        } else if (name == "--interval-ms") {
            if (!intOption(10, 3600000, &n)) return false;
            o.intervalMs = static_cast<int>(n);
        } else if (name == "--plain") {
            if (!flag(&o.plain)) return false;
        } else if (name == "--sim-set") {
            if (!next(&text)) return fail("option --sim-set needs ADDRESS=VALUE, e.g. N7:5=42");
            WriteRequest w;
            if (!ParseWriteRequest(text, &w, error)) return false;
            o.simSets.push_back(w);
        } else if (name == "--sim-turnaround-ms") {
            if (!intOption(0, 10000, &n)) return false;
            o.simTurnaroundMs = static_cast<int>(n);
        } else if (name == "--sim-drop-every") {
            if (!intOption(0, 1000000, &n)) return false;
            o.simDropEvery = static_cast<uint32_t>(n);
        } else if (name == "--sim-corrupt-every") {
            if (!intOption(0, 1000000, &n)) return false;
            o.simCorruptEvery = static_cast<uint32_t>(n);
        } else if (name == "--sim-truncate-every") {
            if (!intOption(0, 1000000, &n)) return false;
            o.simTruncateEvery = static_cast<uint32_t>(n);
        } else {
            return fail("unknown option '" + args[i] + "' (see --help)");
        }
    }
    if (!o.port.empty()) {
        const bool simOnly =
            !o.simSets.empty() || o.simDropEvery || o.simCorruptEvery || o.simTruncateEvery;
        if (simOnly) return fail("the --sim-* options need the built-in simulator (no --port)");
    }
    *out = o;
    return true;
}

std::string UsageText(const std::string& program) {
    return "Usage: " + program + R"( [options]

Loads the controller communication plug-in as an HMI runtime does, polls a
list of tags through it and shows their values live. Without --port it talks
to the built-in controller simulator over a pseudo-terminal.

Plug-in and link:
  --plugin PATH          plug-in to load (default: the one built with hostsim)
  --port DEVICE          serial device, e.g. /dev/ttyUSB0 (raw 8N1);
                         default: the built-in simulator on a pseudo-terminal
  --baud N               line rate (default 19200); on the built-in simulator's
                         pseudo-terminal both sides pace their bytes at it
  --timeout-ms N         reply timeout (default 500)

Settings record (ComInfo):
  --max-count N          largest element count of one request (default 32)
  --retry-limit N        failed exchanges tolerated before a failure is
                         reported (default 3)
  --station N            station of the requests (default 1)
  --write-mode N         2: writes go to the controller; other: image only
                         (default 2)
  --remote               remote mode (the plug-in's short frames)
  --multi-station        per-variable stations, no local image
  --local-link N         link number that counts as local (default 0)

Tags, writes and reads (addresses: N7:0, B3:0 for words, B3:0/5 or N7:2/15
for bits, F8:0 for REALs; a count is written x10: "N7:0 x10", N7:0x10):
  --tag ADDRESS          add a tag to the cyclic list (repeatable)
  --tags FILE            read tags from FILE, one a line ('#' comments)
  --write ADDR=VALUE     write at start: N7:3=1234, N7:3=1,2,3, B3:0/5=1,
                         F8:1=2.5 (repeatable)
  --read ADDRESS         one-shot read at start, result shown by the
                         callback: N7:10x4 (repeatable)
  Without --tag/--tags: N10:0 (simulator counter), N10:1/0 (toggle bit),
  F9:0 (ramp), N7:0 x4.

Running:
  --duration SECONDS     stop after this long
  --exchanges N          stop after N exchanges
  --cip-errors-fail      hand the plug-in a reply whose DF1 or CIP status is
                         not 0 as no reply (length 0), so it counts as a
                         failure (direct mode; not for the exchange that
                         learns a read's reply length)
  --keep-reply-done      remote mode: do not zero ComInfo.replyDone before each
                         exchange (shows why a host must: a write that follows
                         a good exchange then fails)
  --plain                plain lines even when stdout is a terminal
  --interval-ms N        time between snapshots (default: 200 on a terminal,
                         1000 for plain lines)
  --help                 this text

Built-in simulator only:
  --sim-set ADDR=VALUE   put a value into the simulator before the start
  --sim-turnaround-ms N  controller turnaround (default 5)
  --sim-drop-every N     the simulator drops every Nth reply
  --sim-corrupt-every N  ... sends every Nth reply with a wrong block check
  --sim-truncate-every N ... cuts the last 3 bytes off every Nth reply

At the prompt (when stdin is a terminal): N7:3=1234, B3:0/5=1, F8:1=2.5,
read N7:10 x4, tag N7:20 x2, help, quit.

Exit codes: 0 done, 2 bad option or address, 3 plug-in cannot be loaded or
lacks an entry point, 4 port cannot be opened, 5 the line failed.
)";
}

}  // namespace hostsim
