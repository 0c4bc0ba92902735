// The command line of hostsim.
#ifndef HOSTSIM_OPTIONS_H
#define HOSTSIM_OPTIONS_H

#include "addresses.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace hostsim {

// Exit codes.
constexpr int kExitOk = 0;
constexpr int kExitUsage = 2;   // a bad option, value or address text
constexpr int kExitPlugin = 3;  // the plug-in cannot be loaded or lacks an entry point
constexpr int kExitPort = 4;    // the port (or the built-in simulator's line) cannot be used
// The port failed in a way reopening does not cover. A device that vanishes
// while running (unplugged, its far end restarted) is not one: the line is
// shown down and reopened, and the run goes on.
constexpr int kExitLink = 5;

// Limits of what hostsim reads, so that a wrong input (a device, a binary
// file, a line that never ends) is refused with a reason instead of
// filling memory: a line of a tag file or of the prompt, a tag file's size,
// and the tags of one run (--tag and tag files together).
constexpr std::size_t kMaxLineLength = 4096;
constexpr std::size_t kMaxTagFileBytes = 16 * 1024 * 1024;
constexpr std::size_t kMaxTags = 100000;

struct Options {
    std::string pluginPath;  // empty: the plug-in built with this program
    // Link: a serial device, or (empty) the built-in controller simulator on
    // a pseudo-terminal.
    std::string port;
    int baud = 19200;
    int timeoutMs = 500;
    // Both directions of the line are written here as a pcapng capture.
    std::string capturePath;

    // The settings record.
    int maxCount = 32;
    int retryLimit = 3;
    int station = 1;
    int writeMode = 2;
    bool remote = false;
    bool multiStation = false;
    int localLink = 0;

    std::vector<TagAddress> tags;      // the cyclic list, in the order given
    std::vector<WriteRequest> writes;  // queued at start
    std::vector<TagAddress> reads;     // one-shot reads queued at start

    double durationSeconds = 0;  // 0: no limit
    uint64_t exchanges = 0;      // 0: no limit
    bool cipErrorsFail = false;
    // Remote mode without zeroing replyDone before each exchange, to show
    // why a host must zero it.
    bool keepReplyDone = false;
    bool plain = false;  // plain lines even on a terminal
    // Every exchange as an event: the request, what came back, DataCom's
    // result and then every tag's values.
    bool logExchanges = false;
    int intervalMs = 0;  // between snapshots; 0: 200 on a terminal, 1000 otherwise

    // Built-in simulator only.
    std::vector<WriteRequest> simSets;  // values put into its memory before the start
    int simTurnaroundMs = 5;
    uint32_t simDropEvery = 0;
    uint32_t simCorruptEvery = 0;
    uint32_t simTruncateEvery = 0;

    bool help = false;
};

// Parses argv (argv[0] excluded). False with a one-line reason. Tag files
// named with --tags are read here.
bool ParseOptions(const std::vector<std::string>& args, Options* out, std::string* error);

// Reads a tag file: one tag a line, as --tag takes it; blank lines and text
// after '#' are ignored. Refused with the path (and line) and the reason: a
// file that cannot be read, a byte no text holds, a line longer than
// kMaxLineLength, a file larger than kMaxTagFileBytes, more than kMaxTags
// tags in *tags, or an address the line does not hold.
bool ReadTagFile(const std::string& path, std::vector<TagAddress>* tags, std::string* error);

// The tags shown when none are given: the built-in simulator's live tags
// and the first words of N7.
std::vector<TagAddress> DefaultTags();

std::string UsageText(const std::string& program);

}  // namespace hostsim

#endif
