#include "options.h"

#include "peer/line.h"
#include "peer/numbers.h"
#include "peer/profile.h"

#include <climits>
#include <cmath>
#include <cstdlib>
#include <limits>

namespace hostsim {

namespace {

// Options that set a whole number within limits, and flags.
template <typename Field>
struct NumberOption {
    const char* name;
    int64_t min;
    int64_t max;
    Field Options::*field;
};
constexpr NumberOption<int> kIntOptions[] = {
    {"--timeout-ms", 1, 600000, &Options::timeoutMs},
    {"--max-count", 0, 65535, &Options::maxCount},
    {"--retry-limit", 0, 1000000, &Options::retryLimit},
    {"--station", 0, 255, &Options::station},
    {"--write-mode", INT_MIN, INT_MAX, &Options::writeMode},
    {"--local-link", INT_MIN, INT_MAX, &Options::localLink},
    {"--interval-ms", 10, 3600000, &Options::intervalMs},
    {"--sim-turnaround-ms", 0, 10000, &Options::simTurnaroundMs},
};
// The built-in simulator's fault periods.
constexpr int64_t kMaxPeriod = 1000000;
// --exchanges: any count a run could reach.
constexpr int64_t kMaxExchanges = std::numeric_limits<int64_t>::max();
constexpr NumberOption<uint32_t> kPeriodOptions[] = {
    {"--sim-drop-every", 0, kMaxPeriod, &Options::simDropEvery},
    {"--sim-corrupt-every", 0, kMaxPeriod, &Options::simCorruptEvery},
    {"--sim-truncate-every", 0, kMaxPeriod, &Options::simTruncateEvery},
};
struct FlagOption {
    const char* name;
    bool Options::*field;
};
constexpr FlagOption kFlagOptions[] = {
    {"--help", &Options::help},
    {"-h", &Options::help},
    {"--remote", &Options::remote},
    {"--multi-station", &Options::multiStation},
    {"--cip-errors-fail", &Options::cipErrorsFail},
    {"--keep-reply-done", &Options::keepReplyDone},
    {"--plain", &Options::plain},
    {"--log-exchanges", &Options::logExchanges},
};

// Walks the arguments: an option's name ("--name=value" split apart), its
// value from the same or the next argument, and the reasons for refusing.
class OptionReader {
public:
    OptionReader(const std::vector<std::string>& args, std::string* error)
        : args_(args), error_(error) {}

    // Moves to the next option; false when there is none.
    bool advance() {
        if (started_) ++i_;
        started_ = true;
        if (i_ >= args_.size()) return false;
        name_ = args_[i_];
        value_.clear();
        hasInlineValue_ = false;
        const std::size_t eq = name_.find('=');
        if (name_.rfind("--", 0) == 0 && eq != std::string::npos) {
            value_ = name_.substr(eq + 1);
            name_ = name_.substr(0, eq);
            hasInlineValue_ = true;
        }
        return true;
    }
    const std::string& name() const { return name_; }
    const std::string& argument() const { return args_[i_]; }

    bool fail(const std::string& why) {
        if (error_) *error_ = why;
        return false;
    }
    std::string* error() { return error_; }

    // The option's value; false when there is none.
    bool next(std::string* v) {
        if (hasInlineValue_) {
            *v = value_;
            return true;
        }
        if (i_ + 1 >= args_.size()) return false;
        *v = args_[++i_];
        return true;
    }
    bool intValue(int64_t min, int64_t max, int64_t* v) {
        std::string text;
        if (!next(&text)) return fail("option " + name_ + " needs a value");
        if (!peer::ParseInteger(text, min, max, v))
            return fail("option " + name_ + ": '" + text + "' is not a number from " +
                        std::to_string(min) + " to " + std::to_string(max));
        return true;
    }
    bool flag(bool* f) {
        if (hasInlineValue_) return fail("option " + name_ + " takes no value");
        *f = true;
        return true;
    }

private:
    const std::vector<std::string>& args_;
    std::string* error_;
    std::size_t i_ = 0;
    bool started_ = false;
    std::string name_;
    std::string value_;
    bool hasInlineValue_ = false;
};

// Whether an option was one of a group's, and if so whether it was taken.
enum class Taken { kNotMine, kYes, kRefused };

Taken Result(bool ok) {
    return ok ? Taken::kYes : Taken::kRefused;
}

template <typename Field, std::size_t N>
Taken TakeNumber(OptionReader& in, const NumberOption<Field> (&table)[N], Options& o) {
    for (const NumberOption<Field>& option : table) {
        if (in.name() != option.name) continue;
        int64_t n = 0;
        if (!in.intValue(option.min, option.max, &n)) return Taken::kRefused;
        o.*option.field = static_cast<Field>(n);
        return Taken::kYes;
    }
    return Taken::kNotMine;
}

Taken TakeTableOption(OptionReader& in, Options& o) {
    for (const Taken taken : {TakeNumber(in, kIntOptions, o), TakeNumber(in, kPeriodOptions, o)})
        if (taken != Taken::kNotMine) return taken;
    for (const FlagOption& option : kFlagOptions)
        if (in.name() == option.name) return Result(in.flag(&(o.*option.field)));
    return Taken::kNotMine;
}

Taken TakeLinkOption(OptionReader& in, Options& o) {
    if (in.name() == "--plugin") {
        if (!in.next(&o.pluginPath) || o.pluginPath.empty())
            return Result(in.fail("option --plugin needs a path"));
        return Taken::kYes;
    }
    if (in.name() == "--port") {
        if (!in.next(&o.port) || o.port.empty())
            return Result(in.fail("option --port needs a device path"));
        return Taken::kYes;
    }
    if (in.name() == "--capture") {
        if (!in.next(&o.capturePath) || o.capturePath.empty())
            return Result(in.fail("option --capture needs a file name"));
        return Taken::kYes;
    }
    if (in.name() != "--baud") return Taken::kNotMine;
    int64_t n = 0;
    if (!in.intValue(1, INT_MAX, &n)) return Taken::kRefused;
    if (!peer::IsSupportedBaud(static_cast<int>(n)))
        return Result(in.fail("option --baud: unsupported rate " + std::to_string(n) +
                              " (1200, 2400, 4800, 9600, 19200, 38400, 57600, 115200, 230400)"));
    o.baud = static_cast<int>(n);
    return Taken::kYes;
}

// An option whose value parse reads into one more item of a list.
template <typename Item>
Taken TakeParsed(OptionReader& in, const std::string& missing,
                 bool (*parse)(const std::string&, Item*, std::string*), std::vector<Item>* to) {
    std::string text;
    if (!in.next(&text)) return Result(in.fail(missing));
    Item item;
    if (!parse(text, &item, in.error())) return Taken::kRefused;
    to->push_back(item);
    return Taken::kYes;
}

Taken TakeListOption(OptionReader& in, Options& o) {
    const std::string& name = in.name();
    if (name == "--tag")
        return TakeParsed(in, "option --tag needs an address such as N7:0x10", ParseTagAddress,
                          &o.tags);
    if (name == "--read")
        return TakeParsed(in, "option --read needs an address such as N7:10x4", ParseTagAddress,
                          &o.reads);
    if (name == "--write")
        return TakeParsed(in, "option --write needs ADDRESS=VALUE, e.g. N7:3=1234",
                          ParseWriteRequest, &o.writes);
    if (name == "--sim-set")
        return TakeParsed(in, "option --sim-set needs ADDRESS=VALUE, e.g. N7:5=42",
                          ParseWriteRequest, &o.simSets);
    if (name != "--tags") return Taken::kNotMine;
    std::string text;
    if (!in.next(&text)) return Result(in.fail("option --tags needs a file name"));
    return Result(ReadTagFile(text, &o.tags, in.error()));
}

Taken TakeLimitOption(OptionReader& in, Options& o) {
    if (in.name() == "--exchanges") {
        int64_t n = 0;
        if (!in.intValue(1, kMaxExchanges, &n)) return Taken::kRefused;
        o.exchanges = static_cast<uint64_t>(n);
        return Taken::kYes;
    }
    if (in.name() != "--duration") return Taken::kNotMine;
    std::string text;
    if (!in.next(&text)) return Result(in.fail("option --duration needs a number of seconds"));
    char* end = nullptr;
    const double d = std::strtod(text.c_str(), &end);
    if (text.empty() || *end != '\0' || !std::isfinite(d) || d <= 0)
        return Result(
            in.fail("option --duration: '" + text + "' is not a positive number of seconds"));
    o.durationSeconds = d;
    return Taken::kYes;
}

Taken TakeOption(OptionReader& in, Options& o) {
    for (const auto take : {TakeTableOption, TakeLinkOption, TakeListOption, TakeLimitOption}) {
        const Taken taken = take(in, o);
        if (taken != Taken::kNotMine) return taken;
    }
    return Result(in.fail("unknown option '" + in.argument() + "' (see --help)"));
}

}  // namespace

std::vector<TagAddress> DefaultTags() {
    std::vector<TagAddress> tags;
    for (const char* text : peer::profile::kDefaultHostTags) {
        TagAddress a;
        std::string ignored;
        ParseTagAddress(text, &a, &ignored);
        tags.push_back(a);
    }
    return tags;
}

bool ParseOptions(const std::vector<std::string>& args, Options* out, std::string* error) {
    Options o;
    OptionReader in(args, error);
    while (in.advance())
        if (TakeOption(in, o) == Taken::kRefused) return false;
    if (o.tags.size() > kMaxTags)
        return in.fail("more than " + std::to_string(kMaxTags) + " tags (--tag and --tags)");
    if (!o.port.empty()) {
        const bool simOnly =
            !o.simSets.empty() || o.simDropEvery || o.simCorruptEvery || o.simTruncateEvery;
        if (simOnly) return in.fail("the --sim-* options need the built-in simulator (no --port)");
    }
    *out = o;
    return true;
}

namespace {

// The usage text, a section at a time.
std::string LinkUsage() {
    return R"(
Plug-in and link:
  --plugin PATH          plug-in to load (default: the one built with hostsim)
  --port DEVICE          serial device, e.g. /dev/ttyUSB0 (raw 8N1);
                         default: the built-in simulator on a pseudo-terminal.
                         A line that vanishes while running (adapter
                         unplugged, far end restarted) is shown down and
                         reopened every )" +
           std::to_string(peer::kReopenFirstMs) + " ms doubling to " +
           std::to_string(peer::kReopenLongestMs) + R"( ms; meanwhile
                         every exchange reaches the plug-in as no reply
  --baud N               line rate (default 19200); on a pseudo-terminal (the
                         built-in simulator's, or plcsim's) hostsim paces its
                         requests at it, byte by byte, as a real line would
  --timeout-ms N         reply timeout (default 500)
  --capture FILE         write what crosses the line, both ways, to FILE as a
                         pcapng capture for Wireshark (one packet per frame)
)";
}

std::string ListsUsage() {
    return R"(
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
  --tags FILE            read tags from FILE, one a line ('#' comments);
                         limits: )" +
           std::to_string(kMaxTags) + " tags, lines of " + std::to_string(kMaxLineLength) +
           " characters,\n                         " + std::to_string(kMaxTagFileBytes) +
           R"( bytes
  --write ADDR=VALUE     write at start: N7:3=1234, N7:3=1,2,3, B3:0/5=1,
                         F8:1=2.5 (repeatable)
  --read ADDRESS         one-shot read at start, result shown by the
                         callback: N7:10x4 (repeatable)
  Without --tag/--tags: N10:0 (simulator counter), N10:1/0 (toggle bit),
  F9:0 (ramp), N7:0 x4.
)";
}

}  // namespace

std::string UsageText(const std::string& program) {
    return "Usage: " + program + R"( [options]

Loads the controller communication plug-in as an HMI runtime does, polls a
list of tags through it and shows their values live. Without --port it talks
to the built-in controller simulator over a pseudo-terminal.
)" + LinkUsage() +
           ListsUsage() + R"(
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
  --log-exchanges        every exchange as an event: its number, the request,
                         what came back, DataCom's result and every tag's
                         values after it
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
read N7:10 x4, tag N7:20 x2, help, quit; a line longer than )" +
           std::to_string(kMaxLineLength) + R"( characters
is ignored whole.

Numbers are plain decimal digits (a '-' where negative values are allowed).

Exit codes: 0 done, 2 bad option, address or tag file, 3 plug-in cannot be
loaded or lacks an entry point, 4 port cannot be opened at start, 5 the port
failed in a way reopening cannot cover (not given for a line that vanishes:
that line is reopened and the run goes on).
)";
}

}  // namespace hostsim
