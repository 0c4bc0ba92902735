#include "builtin_sim.h"

#include "peer/controller.h"
#include "peer/line.h"
#include "peer/profile.h"
#include "peer/server.h"
#include "peer/tag_memory.h"

#include <iterator>

namespace hostsim {

struct BuiltinSimulator::State {
    peer::TagMemory memory;
    std::unique_ptr<peer::Controller> controller;
    std::unique_ptr<peer::SerialLine> line;
    std::unique_ptr<peer::Server> server;
};

BuiltinSimulator::BuiltinSimulator() = default;

BuiltinSimulator::~BuiltinSimulator() {
    stop();
}

namespace {

// "B3, N7, F8, F9 and N10 of 256 elements": the simulator's files.
std::string FilesText() {
    std::string text;
    const std::size_t n = std::size(peer::profile::kDefaultFiles);
    for (std::size_t i = 0; i < n; ++i) {
        const peer::profile::FileSpec& f = peer::profile::kDefaultFiles[i];
        if (i > 0) text += i + 1 == n ? " and " : ", ";
        text += f.letter + std::to_string(f.file);
    }
    return text + " of " + std::to_string(peer::profile::kDefaultFiles[0].elements) + " elements";
}

bool ApplySet(peer::TagMemory& memory, const WriteRequest& set, std::string* error) {
    const TagAddress& a = set.address;
    bool ok = true;
    if (a.letter == 'F') {
        for (std::size_t i = 0; i < set.reals.size() && ok; ++i)
            ok = memory.setReal(a.file, static_cast<std::size_t>(a.element) + i, set.reals[i]);
    } else if (a.isBit()) {
        for (std::size_t i = 0; i < set.words.size() && ok; ++i) {
            const std::size_t bit = static_cast<std::size_t>(a.bit) + i;
            ok = memory.setBit(a.letter, a.file, static_cast<std::size_t>(a.element) + bit / 16,
                               static_cast<int>(bit % 16), set.words[i] != 0);
        }
    } else {
        for (std::size_t i = 0; i < set.words.size() && ok; ++i)
            ok = memory.setWord(a.letter, a.file, static_cast<std::size_t>(a.element) + i,
                                static_cast<uint16_t>(set.words[i]));
    }
    if (!ok && error)
        *error = "--sim-set " + set.display() +
                 ": the simulator has no such element (its files are " + FilesText() + ")";
    return ok;
}

}  // namespace

bool BuiltinSimulator::start(const Options& options, std::string* error) {
    stop();
    auto state = std::make_unique<State>();
    for (const WriteRequest& set : options.simSets)
        if (!ApplySet(state->memory, set, error)) return false;

    peer::ControllerOptions controllerOptions;
    controllerOptions.mode = options.remote ? peer::LinkMode::kRemote : peer::LinkMode::kDirect;
    state->controller = std::make_unique<peer::Controller>(state->memory, controllerOptions);
    peer::FaultPlan faults;
    faults.drop.every = options.simDropEvery;
    faults.corruptCheck.every = options.simCorruptEvery;
    faults.truncate.every = options.simTruncateEvery;
    state->controller->setFaults(faults);

    std::string why;
    state->line = peer::SerialLine::OpenPty("", &why);
    if (!state->line) {
        if (error) *error = "cannot open a pseudo-terminal for the built-in simulator: " + why;
        return false;
    }
    peer::ServerOptions serverOptions;
    serverOptions.paceBaud = options.baud;
    serverOptions.turnaroundMs = static_cast<uint32_t>(options.simTurnaroundMs);
    state->server = std::make_unique<peer::Server>(*state->controller, state->memory, *state->line,
                                                   serverOptions);
    if (!state->server->start(&why)) {
        if (error) *error = "cannot start the built-in simulator: " + why;
        return false;
    }
    state_ = std::move(state);
    return true;
}

void BuiltinSimulator::stop() {
    if (state_ && state_->server) state_->server->stop();
    state_.reset();
}

std::string BuiltinSimulator::peerPath() const {
    return state_ ? state_->line->peerPath() : std::string();
}

}  // namespace hostsim
