// The command line of df1tap.
#ifndef DF1TAP_OPTIONS_H
#define DF1TAP_OPTIONS_H

#include <string>
#include <vector>

namespace df1tap {

// Exit codes, as plcsim's.
constexpr int kExitOk = 0;
constexpr int kExitDevice = 1;  // a device cannot be opened, or failed while forwarding
constexpr int kExitUsage = 2;   // a bad option or value, or a capture file that cannot be written

struct Options {
    // Side A: the panel (host); side B: the controller. Side A is a device,
    // or with aPty a new pseudo-terminal for a host program to open.
    std::string deviceA;
    bool aPty = false;
    std::string deviceB;
    bool printPath = false;
    int baud = 19200;
    bool remote = false;
    std::string capturePath;
    bool quiet = false;
    bool help = false;
    bool version = false;
};

// Parses argv (argv[0] excluded), in order. False with the one-line reason
// printed before the hint to try --help.
bool ParseOptions(const std::vector<std::string>& args, Options* out, std::string* error);

// What --help prints.
const char* UsageText();

}  // namespace df1tap

#endif
