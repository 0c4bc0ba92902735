// The commands typed at hostsim's prompt: writes, one-shot reads, new tags,
// help and quit.
#ifndef HOSTSIM_COMMANDS_H
#define HOSTSIM_COMMANDS_H

#include "host.h"

#include <string>

namespace hostsim {

// The one-line summary shown under the screen and for "help".
extern const char kPromptHelp[];

// Carries out one command line, its outcome noted in the host's events;
// false when it asks to quit.
bool Execute(Host& host, const std::string& line);

}  // namespace hostsim

#endif
