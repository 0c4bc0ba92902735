#include "options.h"

#include "peer/line.h"
#include "peer/numbers.h"

#include <cstdlib>
#include <map>
#include <utility>

namespace plcsim {

namespace {

const char kUsage[] =
    "Usage: plcsim [options]\n"
    "Answers DF1/CIP requests (or remote-mode frames) as a Logix controller's\n"
    "serial port would, on a new pseudo-terminal or on a serial device.\n"
    "\n"
    "Line:\n"
    "  --device PATH          serve this serial device instead of a pseudo-terminal;\n"
    "                         a device that goes away is reopened (every %FIRST% ms\n"
    "                         doubling to %LONGEST% ms) until it is back\n"
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
    "  --noise-every N, --noise-next K          send a burst of random bytes (never\n"
    "                                           DLE STX) just before the reply\n"
    "  --noise-bytes K                          bytes a burst (default 8)\n"
    "  --noise-seed S                           seed of the noise (default 1)\n"
    "  --silence AT:FOR       answer nothing for FOR ms, starting AT ms after start\n"
    "  --restart-after N      after every N replies, at the next request, close this\n"
    "                         end of the line and open it again: a new\n"
    "                         pseudo-terminal behind the same --link, or the device\n"
    "                         reopened; the host sees the line vanish and come back\n"
    "\n"
    "Run:\n"
    "  --duration SECONDS     stop after this long (default: until SIGINT/SIGTERM)\n"
    "  --capture FILE         write what crosses the line, both ways, to FILE as a\n"
    "                         pcapng capture for Wireshark (one packet per frame)\n"
    "  --quiet                no status lines on stderr\n"
    "  --help                 this text\n";

constexpr unsigned long kMaxU32 = 0xFFFFFFFFul;
constexpr unsigned long kMaxBaud = 4000000;
constexpr unsigned long kMinReplyData = 16;
constexpr unsigned long kMaxReplyData = 65535;
constexpr unsigned long kMaxTransaction = 255;
constexpr unsigned long kMinNoiseBytes = 1;
constexpr unsigned long kMaxNoiseBytes = 4096;
// The tag memory the --file options may ask for together, so a mistyped
// list is refused instead of taking the machine's memory (the default
// layout takes 6 KiB).
constexpr std::size_t kMaxMemoryBytes = 16 * 1024 * 1024;
// Longer than any test or session runs, and still whole milliseconds in 32 bits.
constexpr double kMaxSeconds = 4000000.0;

bool ParseU32(const std::string& text, uint32_t* value) {
    unsigned long v = 0;
    if (!peer::ParseDecimal(text, kMaxU32, &v)) return false;
    *value = static_cast<uint32_t>(v);
    return true;
}

bool ParseSeconds(const std::string& text, uint32_t* ms) {
    char* end = nullptr;
    const double seconds = std::strtod(text.c_str(), &end);
    if (text.empty() || *end != '\0' || !(seconds > 0) || seconds > kMaxSeconds) return false;
    *ms = static_cast<uint32_t>(seconds * 1000.0 + 0.5);
    return *ms > 0;
}

// AT:FOR, both in milliseconds; FOR must not be 0.
bool ParseSilence(const std::string& text, uint32_t* atMs, uint32_t* forMs) {
    const auto sep = text.find(':');
    return sep != std::string::npos && ParseU32(text.substr(0, sep), atMs) &&
           ParseU32(text.substr(sep + 1), forMs) && *forMs > 0;
}

bool Refuse(std::string* error, const std::string& why) {
    if (error) *error = why;
    return false;
}

// The command line, one word at a time in order.
class ArgCursor {
public:
    explicit ArgCursor(const std::vector<std::string>& args) : args_(args) {}
    bool atEnd() const { return next_ >= args_.size(); }
    const std::string& take() { return args_[next_++]; }
    // The word after an option; false when there is none.
    bool value(std::string* out) {
        if (atEnd()) return false;
        *out = take();
        return true;
    }
    bool number(unsigned long max, unsigned long* out) {
        std::string text;
        return value(&text) && peer::ParseDecimal(text, max, out);
    }
    bool u32(uint32_t* out) {
        std::string text;
        return value(&text) && ParseU32(text, out);
    }

private:
    const std::vector<std::string>& args_;
    std::size_t next_ = 0;
};

// An option without a value and what it sets its field to.
struct FlagOption {
    const char* name;
    bool* field;
    bool value;
};

std::vector<FlagOption> FlagOptions(Options* o) {
    return {
        {"--print-path", &o->printPath, true},
        {"--quiet", &o->quiet, true},
        {"--no-live", &o->live, false},
        {"--no-nak", &o->controller.nakBadFrames, false},
        {"--detect-duplicates", &o->controller.detectDuplicates, true},
    };
}

// An option whose value is any 32-bit number.
struct NumberOption {
    const char* name;
    uint32_t* field;
};

std::vector<NumberOption> NumberOptions(Options* o) {
    return {
        {"--turnaround", &o->server.turnaroundMs},
        {"--gap", &o->server.gapResetMs},
        {"--tick", &o->server.tickIntervalMs},
        {"--drop-every", &o->faults.drop.every},
        {"--drop-next", &o->faults.drop.next},
        {"--corrupt-every", &o->faults.corruptCheck.every},
        {"--corrupt-next", &o->faults.corruptCheck.next},
        {"--truncate-every", &o->faults.truncate.every},
        {"--truncate-next", &o->faults.truncate.next},
        {"--truncate-bytes", &o->faults.truncateBytes},
        {"--late-every", &o->faults.late.every},
        {"--late-next", &o->faults.late.next},
        {"--late-ms", &o->faults.lateMs},
        {"--wrong-tns-every", &o->faults.wrongTns.every},
        {"--wrong-tns-next", &o->faults.wrongTns.next},
        {"--noise-every", &o->faults.noise.every},
        {"--noise-next", &o->faults.noise.next},
        {"--noise-seed", &o->faults.noiseSeed},
        {"--restart-after", &o->server.restartAfterReplies},
    };
}

bool ApplyBaud(ArgCursor* cursor, Options* o, std::string* error) {
    unsigned long v = 0;
    if (!cursor->number(kMaxBaud, &v) || (v != 0 && !peer::IsSupportedBaud(static_cast<int>(v))))
        return Refuse(error,
                      "--baud wants 0 or one of 300, 600, 1200, 2400, 4800, 9600, 19200, "
                      "38400, 57600, 115200, 230400");
    o->baud = static_cast<int>(v);
    return true;
}

bool ApplyFile(ArgCursor* cursor, Options* o, std::string* error) {
    std::string text;
    if (!cursor->value(&text)) return Refuse(error, "--file wants a value such as N7:256");
    peer::DataFile file;
    if (!peer::ParseDataFile(text, &file, error)) return false;
    o->files.push_back(file);
    return true;
}

bool ApplyMaxReplyData(ArgCursor* cursor, Options* o, std::string* error) {
    unsigned long v = 0;
    if (!cursor->number(kMaxReplyData, &v) || v < kMinReplyData)
        return Refuse(error, "--max-reply-data wants 16 to 65535");
    o->controller.maxReplyData = v;
    return true;
}

bool ApplyNoiseBytes(ArgCursor* cursor, Options* o, std::string* error) {
    unsigned long v = 0;
    if (!cursor->number(kMaxNoiseBytes, &v) || v < kMinNoiseBytes)
        return Refuse(error, "--noise-bytes wants " + std::to_string(kMinNoiseBytes) + " to " +
                                 std::to_string(kMaxNoiseBytes));
    o->faults.noiseBytes = static_cast<uint32_t>(v);
    return true;
}

bool ApplySilence(ArgCursor* cursor, Options* o, std::string* error) {
    std::string text;
    if (!cursor->value(&text)) return Refuse(error, "--silence wants AT:FOR in milliseconds");
    o->silence = true;
    return ParseSilence(text, &o->silenceAtMs, &o->silenceForMs) ||
           Refuse(error, "bad or missing value for --silence");
}

// The options that take a value of their own kind; false with the reason,
// also for a name that is no option at all.
bool ApplyValueOption(const std::string& name, ArgCursor* cursor, Options* o, std::string* error) {
    if (name == "--baud") return ApplyBaud(cursor, o, error);
    if (name == "--file") return ApplyFile(cursor, o, error);
    if (name == "--max-reply-data") return ApplyMaxReplyData(cursor, o, error);
    if (name == "--silence") return ApplySilence(cursor, o, error);
    if (name == "--noise-bytes") return ApplyNoiseBytes(cursor, o, error);
    bool ok = false;
    if (name == "--device") {
        ok = cursor->value(&o->device) && !o->device.empty();
    } else if (name == "--link") {
        ok = cursor->value(&o->linkPath) && !o->linkPath.empty();
    } else if (name == "--capture") {
        ok = cursor->value(&o->capturePath) && !o->capturePath.empty();
    } else if (name == "--remote-tns") {
        unsigned long v = 0;
        ok = cursor->number(kMaxTransaction, &v);
        o->controller.remoteTransactionStart = static_cast<uint8_t>(v);
    } else if (name == "--duration") {
        std::string text;
        ok = cursor->value(&text) && ParseSeconds(text, &o->server.runForMs);
    } else {
        return Refuse(error, "unknown option '" + name + "'");
    }
    return ok || Refuse(error, "bad or missing value for " + name);
}

bool ApplyOption(const std::string& name, ArgCursor* cursor, Options* o, std::string* error) {
    for (const auto& flag : FlagOptions(o)) {
        if (name != flag.name) continue;
        *flag.field = flag.value;
        return true;
    }
    for (const auto& number : NumberOptions(o)) {
        if (name != number.name) continue;
        return cursor->u32(number.field) || Refuse(error, "bad or missing value for " + name);
    }
    if (name == "--remote") {
        o->controller.mode = peer::LinkMode::kRemote;
        return true;
    }
    return ApplyValueOption(name, cursor, o, error);
}

// The memory the files take, each file counted once (a later --file for
// the same file replaces the earlier).
std::size_t MemoryBytes(const std::vector<peer::DataFile>& files) {
    std::map<std::pair<char, int>, std::size_t> sizes;
    for (const peer::DataFile& f : files)
        sizes[{f.letter, f.number}] = f.elements * peer::ElementSize(f.letter);
    std::size_t total = 0;
    for (const auto& entry : sizes) total += entry.second;
    return total;
}

}  // namespace

bool ParseOptions(const std::vector<std::string>& args, Options* out, std::string* error) {
    Options o;
    for (ArgCursor cursor(args); !cursor.atEnd();) {
        const std::string& name = cursor.take();
        if (name == "--help" || name == "-h") {
            o.help = true;
            *out = o;
            return true;
        }
        if (!ApplyOption(name, &cursor, &o, error)) return false;
    }
    if (!o.device.empty() && !o.linkPath.empty())
        return Refuse(error, "--link is for pseudo-terminals only");
    if (!o.device.empty() && o.baud == 0) return Refuse(error, "a device needs a real baud rate");
    if (MemoryBytes(o.files) > kMaxMemoryBytes)
        return Refuse(error, "the --file options ask for more than " +
                                 std::to_string(kMaxMemoryBytes) + " bytes of tag memory");
    *out = o;
    return true;
}

const char* UsageText() {
    // The reopening schedule is the peer's, named once there.
    static const std::string text = [] {
        std::string t = kUsage;
        const auto put = [&t](const std::string& mark, int value) {
            t.replace(t.find(mark), mark.size(), std::to_string(value));
        };
        put("%FIRST%", peer::kReopenFirstMs);
        put("%LONGEST%", peer::kReopenLongestMs);
        return t;
    }();
    return text.c_str();
}

}  // namespace plcsim
