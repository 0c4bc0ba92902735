// The host's side of the plug-in, as an HMI runtime runs it: loading the
// plug-in with dlopen and resolving its 13 entry points once, and one turn
// of the exchange loop (ComCommunication, send the frame, collect the reply,
// DataCom). hostsim, the end-to-end rig and the host-loop tests all turn the
// loop through here.
//
// Only the plug-in's public header is used: its records and entry-point
// signatures. The driver itself is reached through the entry points.
#ifndef PEER_HOST_LOOP_H
#define PEER_HOST_LOOP_H

#include "ab_controllogix_compactlogix.h"

#include "peer/line.h"

#include <QtCore/QByteArray>

#include <functional>
#include <memory>
#include <string>

namespace peer {

// The plug-in's entry points, listed once: PluginApi's members and
// Plugin::load's resolution both come from this list, in this order.
#define PEER_PLUGIN_ENTRY_POINTS(X) \
    X(FlashLocalRegister)           \
    X(SetComInfo)                   \
    X(RegistCallBackFuncIntf)       \
    X(QueryFinishFlag)              \
    X(ComCommunication)             \
    X(DataCom)                      \
    X(PLCAddressChangeIntef)        \
    X(AddListReadVar)               \
    X(ReCreatReadVarList)           \
    X(AddListWriteVar)              \
    X(AddListOnceReadVar)           \
    X(GetRegisterData)              \
    X(SetRegisterData)

struct PluginApi {
#define PEER_DECLARE_ENTRY_POINT(name) decltype(&::name) name = nullptr;
    PEER_PLUGIN_ENTRY_POINTS(PEER_DECLARE_ENTRY_POINT)
#undef PEER_DECLARE_ENTRY_POINT
};

// Not copyable: the library handle is owned, and closing it destroys the
// driver's state.
class Plugin {
public:
    // Loads the library and resolves every entry point. False with a reason
    // (the loader's message, or the first entry point that is missing); the
    // library is not kept loaded then.
    bool load(const std::string& path, std::string* error);
    // Unloads the library, which destroys the driver's state.
    void unload();

    const PluginApi& api() const { return api_; }
    const std::string& path() const { return path_; }

private:
    struct Closer {
        void operator()(void* handle) const;
    };
    std::unique_ptr<void, Closer> handle_;
    std::string path_;
    PluginApi api_;
};

// One turn of the host's loop.
struct Exchange {
    bool sent = false;      // ComCommunication returned a request
    bool learning = false;  // the request's reply length was not known yet
    RW_VAR request;         // the variable the request serves, as queued
    QByteArray frame;       // the request as sent
    int timeoutMs = 0;      // how long its reply is waited for
    LineOutcome outcome = LineOutcome::kTimeout;
    QByteArray received;  // every byte that came off the line
    QByteArray handed;    // the bytes handed to DataCom
    int result = -1;      // DataCom's record: result and identity
    int varId = 0;
    int varSubId = 0;
    int station = 0;

    bool isWrite() const { return request.aux2 == 1; }  // write records only confirm
    // A complete reply or a refusal came.
    bool answered() const {
        return outcome == LineOutcome::kReply || outcome == LineOutcome::kRefused;
    }
};

// What the host hands DataCom for what came off the line. The runtime's
// rule: a complete reply (or a refusal) as it was received, nothing (length
// 0) otherwise.
QByteArray StandardHandOver(const Exchange& exchange);

struct ExchangeHooks {
    // Sees the request before it goes out (to arm a fault for exactly that
    // exchange, or to zero replyDone in remote mode); it may shorten the
    // exchange's timeoutMs when it knows no complete reply will come.
    std::function<void(Exchange&)> beforeSend;
    // Chooses the bytes handed to DataCom; StandardHandOver when empty.
    std::function<QByteArray(const Exchange&)> handOver;
};

// One turn: ComCommunication; when it returns a request, send its frame on
// the port, collect the reply within timeoutMs (or what beforeSend set) (wakeFd as for
// HostPort::exchange), hand DataCom what handOver chooses and read its
// record. A turn whose ComCommunication returns nothing has sent false and
// calls nothing else; one whose port reports kStopped or kError calls no
// DataCom (result stays -1): the host is stopping or its line has failed.
// A turn whose port reports kLineDown (the line is being reopened) still
// calls DataCom, with what handOver chooses; StandardHandOver gives length 0,
// as for a timeout, so the plug-in goes on as for a request with no reply.
Exchange RunExchange(const PluginApi& api, HostPort& port, int timeoutMs, int wakeFd = -1,
                     const ExchangeHooks& hooks = ExchangeHooks());

}  // namespace peer

#endif
