// The controller's serial port, without the port: bytes in, replies out.
// Receives DF1 requests (or remote-mode frames), answers them from the tag
// memory and applies the configured faults. Time comes from the caller, so
// everything here is deterministic.
#ifndef PEER_CONTROLLER_H
#define PEER_CONTROLLER_H

#include "peer/df1.h"
#include "peer/remote_link.h"
#include "peer/tag_memory.h"

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <optional>
#include <random>
#include <vector>

namespace peer {

enum class LinkMode {
    kDirect,  // DF1 full duplex carrying CIP
    kRemote,  // the remote link's raw frames, replies in the DF1 envelope
};

// Picks which replies a fault hits: every Nth reply (counting all replies
// the controller produced, 1-based) and/or the next K replies.
struct FaultRule {
    uint32_t every = 0;
    uint32_t next = 0;
    bool active() const { return every || next; }
};

struct FaultPlan {
    FaultRule drop;          // the reply is not sent at all
    FaultRule corruptCheck;  // the block check byte is inverted
    FaultRule truncate;      // the last truncateBytes bytes are cut off
    uint32_t truncateBytes = 3;
    FaultRule late;  // the reply starts lateMs later than usual
    uint32_t lateMs = 500;
    FaultRule wrongTns;  // the reply carries the transaction number + 1
    // A burst of noiseBytes random bytes goes out just before the reply,
    // as a line picking up interference between frames would carry it. The
    // bytes never hold DLE STX, and never end in DLE, so no frame is faked
    // and the reply's own start is not changed; any other link symbol may
    // occur. Drawn from a generator seeded with noiseSeed, so a run repeats.
    FaultRule noise;
    uint32_t noiseBytes = 8;
    uint32_t noiseSeed = 1;
};

struct ControllerOptions {
    LinkMode mode = LinkMode::kDirect;
    // A frame with a wrong block check is answered with DLE NAK, as a DF1
    // full-duplex receiver does; false: it is ignored.
    bool nakBadFrames = true;
    // DF1 duplicate message detection: a message with the same SRC, CMD and
    // TNS as the one before is acknowledged (DLE ACK) but not carried out or
    // answered again.
    bool detectDuplicates = false;
    // Bytes of application data (everything after the 6-byte header) that a
    // reply may carry on the link.
    std::size_t maxReplyData = 244;
    // First transaction byte of the remote replies.
    uint8_t remoteTransactionStart = 1;
};

struct ControllerCounters {
    uint64_t framesReceived = 0;  // good frames (either mode)
    uint64_t badFrames = 0;       // wrong block check or checksum
    uint64_t overflows = 0;       // frames too long to take
    uint64_t ignored = 0;         // good frames that get no reply (too short, a reply)
    uint64_t duplicates = 0;
    uint64_t replies = 0;      // replies produced, before faults
    uint64_t repliesSent = 0;  // replies handed out for sending
    uint64_t naks = 0;
    uint64_t dropped = 0;
    uint64_t corrupted = 0;
    uint64_t truncated = 0;
    uint64_t delayed = 0;
    uint64_t wrongTns = 0;
    uint64_t noise = 0;     // replies sent after a burst of noise
    uint64_t silenced = 0;  // replies swallowed by a silent period
};

// Bytes to put on the line, no earlier than delayMs after the request ended
// (on top of the line's usual turnaround).
struct Transmission {
    std::vector<uint8_t> bytes;
    uint32_t delayMs = 0;
};

// Answers the direct-mode message in body (un-stuffed, DST onwards); nothing
// when the message gets no reply. Shared by Controller and the tests.
std::optional<std::vector<uint8_t>> AnswerDf1Message(const std::vector<uint8_t>& body,
                                                     TagMemory& memory, std::size_t maxReplyData);

// Thread-safe: receive() runs on the line's thread while faults, counters and
// silence may be changed or read from any other.
class Controller {
public:
    explicit Controller(TagMemory& memory, ControllerOptions options = {});

    // Feeds received bytes; nowMs is the caller's monotonic time.
    std::vector<Transmission> receive(const uint8_t* bytes, std::size_t n, int64_t nowMs);
    std::vector<Transmission> receive(const std::vector<uint8_t>& bytes, int64_t nowMs) {
        return receive(bytes.data(), bytes.size(), nowMs);
    }
    // Forgets a partial frame (called after a gap on the line).
    void resetReceiver();
    bool receiverIdle() const;

    void setFaults(const FaultPlan& plan);
    FaultPlan faults() const;
    // Requests that arrive from nowMs until before nowMs + ms are received
    // but not answered (no reply, no NAK, no ACK).
    void silenceFor(int64_t nowMs, uint32_t ms);
    // The same for a period given by its start and end.
    void silenceBetween(int64_t fromMs, int64_t untilMs);
    void endSilence();

    ControllerCounters counters() const;
    const ControllerOptions& options() const { return options_; }
    TagMemory& memory() { return memory_; }

private:
    void handleDf1Event(const Df1Event& event, int64_t nowMs, std::vector<Transmission>* out);
    void handleRemoteEvent(const RemoteEvent& event, int64_t nowMs, std::vector<Transmission>* out);
    void sendReply(std::vector<uint8_t> body, int64_t nowMs, std::vector<Transmission>* out);
    bool silentAt(int64_t nowMs) const;
    static bool hits(FaultRule* rule, uint64_t sequence);
    std::vector<uint8_t> noiseBurst(std::size_t n);

    TagMemory& memory_;
    const ControllerOptions options_;
    mutable std::mutex mutex_;
    Df1Receiver df1_;
    RemoteReceiver remote_;
    FaultPlan faults_;
    ControllerCounters counters_;
    int64_t silentFrom_ = 0;
    int64_t silentUntil_ = 0;
    uint8_t remoteTransaction_;
    // mt19937's sequence is fixed by the language, so a seed gives the same
    // noise on every machine.
    std::mt19937 noiseRandom_;
    std::optional<std::vector<uint8_t>> lastHeader_;  // SRC CMD TNS of the last message
};

}  // namespace peer

#endif
