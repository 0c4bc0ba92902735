// The command line of plcsim.
#ifndef PLCSIM_OPTIONS_H
#define PLCSIM_OPTIONS_H

#include "peer/controller.h"
#include "peer/server.h"
#include "peer/tag_memory.h"

#include <cstdint>
#include <string>
#include <vector>

namespace plcsim {

// Exit codes.
constexpr int kExitOk = 0;
constexpr int kExitLine = 1;   // the line cannot be opened, or failed while serving
constexpr int kExitUsage = 2;  // a bad option or value

struct Options {
    // Line: a serial device, or (empty) a new pseudo-terminal.
    std::string device;
    std::string linkPath;
    bool printPath = false;
    int baud = 19200;

    // Tag memory: empty files means the default layout.
    std::vector<peer::DataFile> files;
    bool live = true;

    peer::ControllerOptions controller;
    // Its paceBaud is decided once the line is open.
    peer::ServerOptions server;
    peer::FaultPlan faults;

    // A silent period, in milliseconds after the start.
    bool silence = false;
    uint32_t silenceAtMs = 0;
    uint32_t silenceForMs = 0;

    // Both directions of the line are written here as a pcapng capture.
    std::string capturePath;

    bool quiet = false;
    // --help was given: everything after it is left unread.
    bool help = false;
};

// Parses argv (argv[0] excluded), in order. False with the one-line reason
// the program prints before its hint to try --help.
bool ParseOptions(const std::vector<std::string>& args, Options* out, std::string* error);

// What --help prints.
const char* UsageText();

}  // namespace plcsim

#endif
