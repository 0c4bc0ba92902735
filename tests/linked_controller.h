// The host's loop without a line: a peer controller (peer/controller.h) in
// the same process answers each request frame at once, so the tests of the
// whole loop need neither a terminal nor a second thread. Over a real line
// the host turns the loop with peer::RunExchange instead.
#ifndef ABCL_TESTS_LINKED_CONTROLLER_H
#define ABCL_TESTS_LINKED_CONTROLLER_H

#include "reply_builder.h"

#include "peer/controller.h"
#include "peer/host_loop.h"
#include "peer/tag_memory.h"

#include <QtCore/QByteArray>

#include <cstdint>
#include <functional>
#include <limits>
#include <optional>
#include <vector>

namespace replies {

// The default data files and the extra ones a test names.
inline std::vector<peer::DataFile> LayoutWith(const std::vector<peer::DataFile>& extra) {
    std::vector<peer::DataFile> layout = peer::TagMemory::DefaultLayout();
    layout.insert(layout.end(), extra.begin(), extra.end());
    return layout;
}

// Everything a controller sends in answer to a request frame arriving at
// nowMs, as the host would read it off the line; empty while it is silent.
inline QByteArray AnswerOf(peer::Controller& controller, const QByteArray& frame,
                           int64_t nowMs = 0) {
    QByteArray reply;
    for (const auto& t : controller.receive(ToBytes(frame), nowMs)) reply.append(ToQt(t.bytes));
    return reply;
}

// A controller whose memory the test sets and reads, and which keeps every
// request it received, decoded.
class LinkedController {
public:
    explicit LinkedController(
        const std::vector<peer::DataFile>& layout = peer::TagMemory::DefaultLayout())
        : memory(layout), controller(memory) {}

    // The reply bytes for a request frame; empty while silent.
    QByteArray Answer(const QByteArray& frame) {
        log.push_back(DecodeRequest(frame));
        return AnswerOf(controller, frame, kNowMs);
    }

    // Requests are still received, but nothing is answered.
    void SetSilent(bool silent) {
        silent_ = silent;
        if (silent) {
            controller.silenceBetween(kNowMs, std::numeric_limits<int64_t>::max());
        } else {
            controller.endSilence();
        }
    }
    bool silent() const { return silent_; }

    uint16_t Word(char letter, int file, int element) const {
        return memory.word(letter, file, static_cast<std::size_t>(element)).value_or(0xDEAD);
    }
    void SetWords(char letter, int file, int first, const std::vector<uint16_t>& words) {
        for (std::size_t i = 0; i < words.size(); ++i)
            memory.setWord(letter, file, static_cast<std::size_t>(first) + i, words[i]);
    }
    uint32_t RealBits(int file, int element) const {
        return FloatBits(memory.real(file, static_cast<std::size_t>(element)).value_or(-1.0f));
    }

    peer::TagMemory memory;
    peer::Controller controller;
    std::vector<std::optional<peer::TagRequest>> log;  // every request seen, in order

private:
    // The controller's clock stands still: every request arrives at once.
    static constexpr int64_t kNowMs = 0;
    bool silent_ = false;
};

// The entry points of the driver linked into the test program, for the
// loop that a loaded plug-in would otherwise serve.
inline peer::PluginApi LinkedDriverApi() {
    peer::PluginApi api;
#define ABCL_LINK_ENTRY_POINT(name) api.name = &::name;
    PEER_PLUGIN_ENTRY_POINTS(ABCL_LINK_ENTRY_POINT)
#undef ABCL_LINK_ENTRY_POINT
    return api;
}

// One turn of the host's loop against a linked controller.
struct Turn {
    bool sent = false;
    int result = -1;
    int varId = 0;
    std::optional<peer::TagRequest> request;
    QByteArray frame;
};

// ComCommunication; when it returns a request, the controller answers it and
// DataCom takes the reply. beforeReply sees the decoded request first (to
// silence the controller for exactly that exchange).
inline Turn TurnLoop(const peer::PluginApi& api, LinkedController& controller,
                     const std::function<void(const peer::TagRequest&)>& beforeReply = {}) {
    Turn turn;
    Protocol* p = api.ComCommunication();
    if (!p) return turn;
    turn.sent = true;
    turn.frame = p->frame;
    turn.request = DecodeRequest(p->frame);
    if (beforeReply && turn.request) beforeReply(*turn.request);
    const QByteArray reply = controller.Answer(p->frame);
    const RW_VAR* record = api.DataCom(reply, reply.size());
    turn.result = record->result;
    turn.varId = record->varId;
    return turn;
}

}  // namespace replies

#endif
