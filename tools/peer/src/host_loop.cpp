#include "peer/host_loop.h"

#include <dlfcn.h>

namespace peer {

namespace {

// DataCom's good results: a local and a remote request.
constexpr int kResultGood = 1;
constexpr int kResultRemoteGood = 100;

template <typename Fn>
bool Resolve(void* handle, const char* name, Fn* fn, std::string* missing) {
    void* symbol = dlsym(handle, name);
    if (!symbol) {
        if (missing->empty()) *missing = name;
        return false;
    }
    *fn = reinterpret_cast<Fn>(symbol);
    return true;
}

}  // namespace

void Plugin::Closer::operator()(void* handle) const {
    dlclose(handle);
}

void Plugin::unload() {
    handle_.reset();
    api_ = PluginApi();
}

bool Plugin::load(const std::string& path, std::string* error) {
    unload();
    dlerror();
    void* handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!handle) {
        const char* why = dlerror();
        if (error) *error = "cannot load plug-in " + path + ": " + (why ? why : "unknown reason");
        return false;
    }
    PluginApi api;
    std::string missing;
    bool ok = true;
#define PEER_RESOLVE_ENTRY_POINT(name) ok &= Resolve(handle, #name, &api.name, &missing);
    PEER_PLUGIN_ENTRY_POINTS(PEER_RESOLVE_ENTRY_POINT)
#undef PEER_RESOLVE_ENTRY_POINT
    if (!ok) {
        if (error) *error = "the plug-in " + path + " has no entry point '" + missing + "'";
        dlclose(handle);
        return false;
    }
    handle_.reset(handle);
    path_ = path;
    api_ = api;
    return true;
}

QByteArray StandardHandOver(const Exchange& exchange) {
    return exchange.answered() ? exchange.received : QByteArray();
}

Exchange RunExchange(const PluginApi& api, HostPort& port, int timeoutMs, int wakeFd,
                     const ExchangeHooks& hooks) {
    Exchange e;
    Protocol* p = api.ComCommunication();
    if (!p) return e;
    // DataCom destroys the record it answers: keep what is needed.
    e.sent = true;
    e.frame = p->frame;
    e.request = p->var;
    e.learning = p->replyLen == -1;
    e.timeoutMs = timeoutMs;
    if (hooks.beforeSend) hooks.beforeSend(e);

    std::vector<uint8_t> reply;
    e.outcome =
        port.exchange(reinterpret_cast<const uint8_t*>(e.frame.constData()),
                      static_cast<std::size_t>(e.frame.size()), e.timeoutMs, wakeFd, &reply);
    e.received =
        QByteArray(reinterpret_cast<const char*>(reply.data()), static_cast<int>(reply.size()));
    // The host is stopping or its line failed: the exchange is abandoned and
    // the request stays queued for the next turn.
    if (e.outcome == LineOutcome::kStopped || e.outcome == LineOutcome::kError) return e;
    e.handed = hooks.handOver ? hooks.handOver(e) : StandardHandOver(e);

    const RW_VAR* current = api.DataCom(e.handed, e.handed.size());
    e.result = current->result;
    // A refused reply may have been a late answer to an earlier request,
    // with the answer to this one still on its way: the line is let fall
    // quiet first, or that answer would meet the next request, be refused in
    // turn, and keep every later exchange one reply behind.
    if (e.outcome == LineOutcome::kReply && e.result != kResultGood &&
        e.result != kResultRemoteGood)
        port.settle(timeoutMs / 2, timeoutMs, wakeFd);
    e.varId = current->varId;
    e.varSubId = current->varSubId;
    e.station = current->station;
    return e;
}

}  // namespace peer
