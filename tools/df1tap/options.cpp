#include "options.h"

#include "peer/line.h"
#include "peer/numbers.h"

namespace df1tap {

namespace {

const char kUsage[] =
    "Usage: df1tap --a DEVICE --b DEVICE --capture FILE [options]\n"
    "Forwards bytes both ways between two serial ports, unchanged and as soon\n"
    "as they arrive, captures both directions and prints one decoded line per\n"
    "frame: a tap between an HMI panel (side A) and a controller (side B).\n"
    "\n"
    "Line:\n"
    "  --a DEVICE             side A, the panel's line, e.g. /dev/ttyUSB0\n"
    "  --a-pty                side A is a new pseudo-terminal instead, for a host\n"
    "                         program on this machine to open (see --print-path)\n"
    "  --b DEVICE             side B, the controller's line, e.g. /dev/ttyUSB1\n"
    "  --baud N               line speed of both sides (default 19200), raw 8N1\n"
    "  --remote               the panel sends remote-mode frames (length first)\n"
    "  --print-path           print side A's path as the first line of stdout\n"
    "\n"
    "Output:\n"
    "  --capture FILE         write both directions to FILE as a pcapng capture for\n"
    "                         Wireshark (one packet per frame); required\n"
    "  --quiet                no decoded lines and no status lines\n"
    "  --help                 this text\n"
    "  --version              the version\n"
    "\n"
    "Each line: seconds since the first packet, the direction (host>ctl from A\n"
    "to B, ctl>host from B to A) and the packet: DLE ACK/NAK/ENQ, a data frame's\n"
    "DST SRC CMD STS TNS and CIP request or reply, a remote frame's fields, or\n"
    "bytes that form no frame. SIGINT or SIGTERM stops the tap; the capture is\n"
    "complete up to that moment.\n"
    "\n"
    "Exit codes: 0 stopped by a signal, 1 a device cannot be opened or failed,\n"
    "2 bad option or value, or the capture file cannot be written.\n";

constexpr unsigned long kMaxBaud = 4000000;

bool Refuse(std::string* error, const std::string& why) {
    if (error) *error = why;
    return false;
}

// An option without a value and the field it sets.
struct FlagOption {
    const char* name;
    bool Options::*field;
};
constexpr FlagOption kFlags[] = {
    {"--a-pty", &Options::aPty},
    {"--remote", &Options::remote},
    {"--print-path", &Options::printPath},
    {"--quiet", &Options::quiet},
    {"--help", &Options::help},
    {"-h", &Options::help},
    {"--version", &Options::version},
};

// An option whose value is a text.
struct TextOption {
    const char* name;
    std::string Options::*field;
    const char* wants;
};
constexpr TextOption kTexts[] = {
    {"--a", &Options::deviceA, "--a wants a device path"},
    {"--b", &Options::deviceB, "--b wants a device path"},
    {"--capture", &Options::capturePath, "--capture wants a file name"},
};

bool ApplyBaud(const std::string& text, Options* o, std::string* error) {
    unsigned long v = 0;
    if (!peer::ParseDecimal(text, kMaxBaud, &v) || !peer::IsSupportedBaud(static_cast<int>(v)))
        return Refuse(error,
                      "--baud wants one of 1200, 2400, 4800, 9600, 19200, 38400, 57600, "
                      "115200, 230400 (or another rate termios offers)");
    o->baud = static_cast<int>(v);
    return true;
}

// Takes the option at args[*i] (and its value); false with the reason.
bool ApplyOption(const std::vector<std::string>& args, std::size_t* i, Options* o,
                 std::string* error) {
    const std::string& name = args[*i];
    for (const FlagOption& flag : kFlags) {
        if (name != flag.name) continue;
        o->*flag.field = true;
        return true;
    }
    const bool hasValue = *i + 1 < args.size();
    for (const TextOption& option : kTexts) {
        if (name != option.name) continue;
        if (!hasValue || args[*i + 1].empty()) return Refuse(error, option.wants);
        o->*option.field = args[++*i];
        return true;
    }
    if (name == "--baud")
        return hasValue ? ApplyBaud(args[++*i], o, error) : ApplyBaud("", o, error);
    return Refuse(error, "unknown option '" + name + "'");
}

bool CheckComplete(const Options& o, std::string* error) {
    if (o.deviceA.empty() == !o.aPty) return Refuse(error, "give side A: --a DEVICE or --a-pty");
    if (o.deviceB.empty()) return Refuse(error, "give side B: --b DEVICE");
    if (o.capturePath.empty()) return Refuse(error, "give the capture file: --capture FILE");
    return true;
}

}  // namespace

bool ParseOptions(const std::vector<std::string>& args, Options* out, std::string* error) {
    Options o;
    for (std::size_t i = 0; i < args.size(); ++i) {
        if (!ApplyOption(args, &i, &o, error)) return false;
        // Nothing after --help or --version is read.
        if (o.help || o.version) {
            *out = o;
            return true;
        }
    }
    if (!CheckComplete(o, error)) return false;
    *out = o;
    return true;
}

const char* UsageText() {
    return kUsage;
}

}  // namespace df1tap
