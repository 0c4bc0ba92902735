// The built-in controller: the controller simulator served in this process,
// on its own thread, at the far end of a fresh pseudo-terminal. hostsim then
// opens the pseudo-terminal's peer exactly as it would open a serial port.
#ifndef HOSTSIM_BUILTIN_SIM_H
#define HOSTSIM_BUILTIN_SIM_H

#include "options.h"

#include <memory>
#include <string>

namespace hostsim {

// Neither copied nor moved: the serving thread keeps pointers into State.
class BuiltinSimulator {
public:
    BuiltinSimulator();
    ~BuiltinSimulator();

    // Makes the memory (with the --sim-set values), the controller (direct
    // or remote mode, with the --sim-* faults) and the pseudo-terminal, and
    // starts serving. False with a reason.
    bool start(const Options& options, std::string* error);
    void stop();
    // The path to open: the pseudo-terminal's peer.
    std::string peerPath() const;

private:
    struct State;
    std::unique_ptr<State> state_;
};

}  // namespace hostsim

#endif
