// The host side of the plug-in: the settings record, the cyclic list, the
// exchange loop (ComCommunication, send, receive, DataCom) and the bookkeeping
// that the display shows.
#ifndef HOSTSIM_HOST_H
#define HOSTSIM_HOST_H

#include "addresses.h"
#include "options.h"
#include "peer/host_loop.h"

#include <atomic>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace hostsim {

using peer::Plugin;
using peer::PluginApi;

// The result codes of DataCom's record that mean the exchange was good.
bool IsGoodResult(int code);

// One host list entry as ReCreatReadVarList takes it: a data type, the
// plug-in's address text and a count in the plug-in's units.
struct ReadItem {
    int dataType = 0;
    std::string text;
    int count = 0;
};

// The entries a tag becomes. Runs longer than maxCount are cut here, at
// whole blocks, because the plug-in's own cut of a variable longer than
// twice maxCount starts each later piece further on than the one before.
// A REAL entry of count c reads c - 1 values in direct mode (remote mode
// reads c), so n values are asked for with count n + 1 (at most maxCount - 1
// values an entry); with maxCount 1 each value is its own entry of count 1.
std::vector<ReadItem> ReadItemsFor(const TagAddress& tag, int maxCount, bool remote);

// The records ReCreatReadVarList takes for the tags: every entry of each tag
// (as ReadItemsFor cuts it), in the order of the tags.
std::vector<ReadVarItem> ReadVarItemsFor(const std::vector<TagAddress>& tags, int maxCount,
                                         bool remote);

// The count of a tag for GetRegisterData: bits, words, or for REALs two
// per value (the image counts 32-bit values in 16-bit units).
int ImageCount(const TagAddress& tag);

struct HostStats {
    uint64_t exchanges = 0;    // DataCom calls
    uint64_t learning = 0;     // exchanges that learnt a reply length
    uint64_t good = 0;         // result 1 or 100
    uint64_t retried = 0;      // result 0
    uint64_t failures = 0;     // reported failures (11..182)
    uint64_t noReply = 0;      // timeouts: DataCom got length 0
    uint64_t refused = 0;      // DLE NAK
    uint64_t cipRejected = 0;  // replies handed over as length 0 by --cip-errors-fail
    uint64_t writesDone = 0;   // write exchanges that finished
    uint64_t readsDone = 0;    // one-shot read callbacks
    int retryCount = 0;        // ComInfo::retryCount after the last exchange
    int cycleDone = 0;         // ComInfo::cycleDone after the last exchange
    uint64_t zeroStreak = 0;   // result 0 in a row, up to the last exchange
    // The line vanished (read, write or poll error, hang-up) this many
    // times; the exchanges while it was down went to DataCom with length 0.
    uint64_t lineDownPeriods = 0;
    uint64_t downExchanges = 0;
    bool lineDown = false;  // down now, being reopened
};

struct TagView {
    TagAddress tag;
    std::string values;
    int lastResult = INT_MIN;  // INT_MIN: no exchange yet
    bool learning = false;     // the last exchange was to learn a reply length
};

struct Snapshot {
    double elapsedSeconds = 0;
    double exchangesPerSecond = 0;
    HostStats stats;
    int cyclicRequests = 0;  // ReCreatReadVarList's result
    std::vector<TagView> tags;
};

class Host {
public:
    Host(const PluginApi& api, const Options& options);
    ~Host();
    Host(const Host&) = delete;
    Host& operator=(const Host&) = delete;

    // FlashLocalRegister, SetComInfo and RegistCallBackFuncIntf; then the
    // address texts are checked with PLCAddressChangeIntef and the cyclic
    // list is built. False with a reason for an address the plug-in refuses.
    bool start(const std::vector<TagAddress>& tags, std::string* error);

    // Adds a tag; the cyclic list is rebuilt on the exchange thread before
    // its next request, so every write into the settings record (the
    // rebuild clears cycleDone) comes from that one thread.
    bool addTag(const TagAddress& tag, std::string* message);
    // SetRegisterData for a write; *message says what was queued.
    bool queueWrite(const WriteRequest& write, std::string* message);
    // AddListOnceReadVar for a one-shot read.
    bool queueRead(const TagAddress& read, std::string* message);

    // The exchange loop; returns when stop() is called or the exchange
    // limit is reached. A line that vanishes is shown down and reopened by
    // the port (HostPort::setReopen) while the loop goes on; only a port
    // that cannot do that ends the loop on a failure (then false, with
    // lineError()).
    bool run(peer::HostPort& port, int wakeFd);
    void stop();
    bool stopping() const { return stop_.load(); }
    std::string lineError() const;

    Snapshot snapshot();
    // Events since the last call (write results, callbacks, failures).
    std::vector<std::string> takeEvents();
    // Adds a line of the host's own to the events.
    void note(const std::string& text);

    ComInfo& settings() { return info_; }
    int flashResult() const { return flashResult_; }

    // Called through the plug-in's callback (on the exchange thread, with the
    // plug-in's list lock held: only the image may be read here).
    void onCallback(int hostContext, int varId, int varSubId, int status);

private:
    struct PendingRead {
        TagAddress tag;
    };
    struct PendingWrite {
        WriteRequest write;
        int pieces = 0;  // write requests it became in the plug-in's queue
    };

    int rebuildCyclicList();
    void rebuildIfAsked();
    void waitForWork();
    // Notes the line going down and coming back, as the port reports it.
    void watchLine(const peer::HostPort& port);
    // What DataCom is handed: StandardHandOver, or with --cip-errors-fail
    // nothing for a reply whose status says the request failed.
    QByteArray handOver(const peer::Exchange& exchange, bool* cipRejected) const;
    std::string imageValues(const TagAddress& tag);
    void record(const peer::Exchange& exchange, bool cipRejected);
    // --log-exchanges: the exchange just recorded, and the values it left.
    void logExchange(const peer::Exchange& exchange);
    void countExchange(const peer::Exchange& exchange, bool cipRejected);
    void markTagResults(const RW_VAR& request, bool learning, int result);
    void reportWrite(const RW_VAR& request, int result);
    void reportDroppedQueues();
    void addEvent(const std::string& text);
    std::string describeRequest(const RW_VAR& request) const;
    int nextVarId();

    const PluginApi& api_;
    const Options options_;
    ComInfo info_{};
    int flashResult_ = 0;
    std::atomic<bool> stop_{false};
    std::chrono::steady_clock::time_point started_;

    mutable std::mutex mutex_;  // everything below
    std::condition_variable workQueued_;
    bool work_ = false;
    bool rebuildPending_ = false;
    bool running_ = false;  // run() has started: rebuilds go to its thread
    std::vector<TagAddress> tags_;
    std::vector<int> tagResults_;
    std::vector<bool> tagLearning_;
    int cyclicRequests_ = 0;
    HostStats stats_;
    std::deque<std::chrono::steady_clock::time_point> recent_;  // exchange times, last second
    std::vector<std::string> events_;
    std::map<int, PendingRead> reads_;    // by varId
    std::map<int, PendingWrite> writes_;  // by varId
    int varIdCounter_ = 100;
    std::string lineError_;
    uint64_t linesLostSeen_ = 0;  // the port's count of lost lines, last seen
};

}  // namespace hostsim

#endif
