#include "host.h"

#include "display.h"
#include "peer/reply_status.h"

#include <QtCore/QByteArray>
#include <QtCore/QList>
#include <QtCore/QString>

#include <algorithm>
#include <cstdio>

namespace hostsim {

namespace {

using Clock = std::chrono::steady_clock;

// The callback carries no pointer, only the settings record's context word;
// there is one host per process.
Host* g_host = nullptr;

// Passed in ComInfo::hostContext and checked when the callback comes back.
constexpr int kHostContext = 0x5157;

int OnOnceReadFinished(int hostContext, int varId, int varSubId, int status) {
    if (g_host) g_host->onCallback(hostContext, varId, varSubId, status);
    return 0;
}

// The host's own local areas, whose addresses FlashLocalRegister records.
uint16_t g_localBits[4096];
uint16_t g_localWords[4096];
uint16_t g_localRwi[256];

QByteArray ToQByteArray(const std::vector<uint8_t>& bytes) {
    return QByteArray(reinterpret_cast<const char*>(bytes.data()), static_cast<int>(bytes.size()));
}

char LetterOf(int dataType) {
    switch (dataType) {
        case kBitA:
        case kWordA: return 'B';
        case kBitB:
        case kWordB: return 'N';
        case kReal: return 'F';
        default: return '?';
    }
}

}  // namespace

bool IsGoodResult(int code) {
    return code == 1 || code == 100;
}

std::vector<ReadVarItem> ReadVarItemsFor(const std::vector<TagAddress>& tags, int maxCount,
                                         bool remote) {
    std::vector<ReadVarItem> items;
    for (const TagAddress& tag : tags) {
        for (const ReadItem& r : ReadItemsFor(tag, maxCount, remote)) {
            ReadVarItem item;
            item.dataType = static_cast<uint8_t>(r.dataType);
            item.addrText = QString::fromStdString(r.text);
            item.count = r.count;
            items.push_back(item);
        }
    }
    return items;
}

int ImageCount(const TagAddress& tag) {
    return tag.letter == 'F' ? 2 * tag.count : tag.count;
}

std::vector<ReadItem> ReadItemsFor(const TagAddress& tag, int maxCount, bool remote) {
    std::vector<ReadItem> items;
    const int dataType = tag.dataType();
    const auto item = [&](int element, int bit, int count) {
        TagAddress a = tag;
        a.element = element;
        a.bit = bit;
        items.push_back({dataType, a.driverText(), count});
    };
    if (tag.letter == 'F') {
        // Values per entry and the count that reads them.
        const int perEntry = remote ? (maxCount > 0 ? maxCount : tag.count)
                                    : (maxCount >= 2   ? maxCount - 1
                                       : maxCount == 1 ? 1
                                                       : tag.count);
        for (int done = 0; done < tag.count; done += perEntry) {
            const int values = std::min(perEntry, tag.count - done);
            const int count = remote ? values : (maxCount == 1 ? 1 : values + 1);
            item(tag.element + done, -1, count);
        }
        return items;
    }
    if (tag.isBit()) {
        // Whole blocks of maxCount words; the first starts at the tag's bit.
        const int words = tag.wordCount();
        const int block = maxCount > 0 ? maxCount : words;
        int bitsLeft = tag.count;
        for (int w = 0; w < words; w += block) {
            const int firstBit = w == 0 ? tag.bit : 0;
            const int bits = std::min(bitsLeft, std::min(block, words - w) * 16 - firstBit);
            item(tag.element + w, firstBit, bits);
            bitsLeft -= bits;
        }
        return items;
    }
    const int block = maxCount > 0 ? maxCount : tag.count;
    for (int done = 0; done < tag.count; done += block)
        item(tag.element + done, -1, std::min(block, tag.count - done));
    return items;
}

Host::Host(const PluginApi& api, const Options& options) : api_(api), options_(options) {
    g_host = this;
}

Host::~Host() {
    if (g_host == this) g_host = nullptr;
}

int Host::nextVarId() {
    std::lock_guard<std::mutex> lock(mutex_);
    return ++varIdCounter_;
}

bool Host::start(const std::vector<TagAddress>& tags, std::string* error) {
    started_ = Clock::now();
    flashResult_ = api_.FlashLocalRegister(g_localBits, g_localWords, g_localRwi);

    info_ = ComInfo{};
    info_.maxCount = options_.maxCount;
    info_.defaultStation = options_.station;
    info_.retryLimit = options_.retryLimit;
    info_.multiStation = options_.multiStation ? 1 : 0;
    info_.remoteMode = options_.remote ? 1 : 0;
    info_.localLinkNo = options_.localLink;
    info_.writeMode = options_.writeMode;
    info_.hostContext = kHostContext;
    api_.SetComInfo(&info_);
    api_.RegistCallBackFuncIntf(&OnOnceReadFinished, kHostContext);

    for (const TagAddress& tag : tags) {
        // The plug-in's own reading of the text must be the packed address.
        const int packed =
            api_.PLCAddressChangeIntef(tag.dataType(), QString::fromStdString(tag.driverText()));
        if (packed != tag.packedAddress()) {
            if (error)
                *error = "the plug-in reads address '" + tag.display() + "' as " +
                         std::to_string(packed) + ", not " + std::to_string(tag.packedAddress());
            return false;
        }
    }
    {
        std::lock_guard<std::mutex> lock(mutex_);
        tags_ = tags;
        tagResults_.assign(tags_.size(), INT_MIN);
        tagLearning_.assign(tags_.size(), false);
    }
    rebuildCyclicList();
    return true;
}

int Host::rebuildCyclicList() {
    std::vector<TagAddress> tags;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        tags = tags_;
    }
    std::vector<ReadVarItem> items = ReadVarItemsFor(tags, options_.maxCount, options_.remote);
    QList<ReadVarItem*> list;
    for (ReadVarItem& item : items) list.append(&item);
    // Not under mutex_: the plug-in takes its list lock, which the callback
    // holds while it takes mutex_.
    const int requests = api_.ReCreatReadVarList(&list);
    {
        std::lock_guard<std::mutex> lock(mutex_);
        cyclicRequests_ = requests;
        work_ = true;
    }
    workQueued_.notify_all();
    return requests;
}

bool Host::addTag(const TagAddress& tag, std::string* message) {
    bool running = false;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        tags_.push_back(tag);
        tagResults_.push_back(INT_MIN);
        tagLearning_.push_back(false);
        running = running_;
        if (running) {
            rebuildPending_ = true;
            work_ = true;
        }
    }
    if (running) {
        workQueued_.notify_all();
        if (message) *message = "tag " + tag.display() + " added; the cyclic list is rebuilt";
        return true;
    }
    const int requests = rebuildCyclicList();
    if (message)
        *message = "tag " + tag.display() + " added; the cyclic list has " +
                   std::to_string(requests) + " request(s)";
    return true;
}

bool Host::queueWrite(const WriteRequest& write, std::string* message) {
    const TagAddress& a = write.address;
    const QString text = QString::fromStdString(a.driverText());
    const int varId = nextVarId();
    // The plug-in queues one request per bit, per REAL (one call each here)
    // and per block of maxCount words.
    int pieces = a.count;
    if (!a.isBit() && a.letter != 'F')
        pieces = options_.maxCount > 0 ? (a.count + options_.maxCount - 1) / options_.maxCount : 1;
    if (options_.writeMode == 2) {
        std::lock_guard<std::mutex> lock(mutex_);
        writes_[varId] = PendingWrite{write, pieces};
    }
    int result = 0;
    if (a.letter == 'F') {
        // One REAL a call: the image counts two units a value, and a call
        // longer than maxCount units would put later values at the wrong
        // place.
        for (std::size_t i = 0; i < write.reals.size(); ++i) {
            TagAddress one = a;
            one.element = a.element + static_cast<int>(i);
            QByteArray bytes = ToQByteArray(RealBytes(write.reals[i]));
            result =
                api_.SetRegisterData(QString(), kReal, QString::fromStdString(one.driverText()),
                                     options_.station, &bytes, 2, varId, varId);
            if (result == 0) break;
        }
    } else {
        QByteArray bytes = ToQByteArray(WriteBytes(write));
        result = api_.SetRegisterData(QString(), a.dataType(), text, options_.station, &bytes,
                                      a.count, varId, varId);
    }
    if (message) {
        if (result == 0)
            *message = "write " + write.display() + " refused by the plug-in (SetRegisterData 0)";
        else if (options_.writeMode != 2)
            *message = "write " + write.display() + " put into the local image only (write mode " +
                       std::to_string(options_.writeMode) + ")";
        else
            *message = "write " + write.display() + " queued (write queue length " +
                       std::to_string(result) + ")";
    }
    if (options_.writeMode == 2) {
        std::lock_guard<std::mutex> lock(mutex_);
        if (result != 0)
            work_ = true;
        else
            writes_.erase(varId);
    }
    workQueued_.notify_all();
    return result != 0;
}

bool Host::queueRead(const TagAddress& read, std::string* message) {
    const int varId = nextVarId();
    {
        std::lock_guard<std::mutex> lock(mutex_);
        reads_[varId] = PendingRead{read};
    }
    int result = 0;
    const auto add = [&](const std::string& text, int dataType, int count) {
        RW_VAR var;
        var.varId = varId;
        var.varSubId = varId;
        var.aux2 = 0;  // the reply carries data
        var.aux3 = options_.remote ? 1 : 0;
        var.linkNo = options_.localLink;
        var.addrText = QString::fromStdString(text);
        var.dataType = dataType;
        var.station = options_.station;
        var.count = count;
        return api_.AddListOnceReadVar(&var, 0);
    };
    if (read.letter == 'F') {
        // Same counts as the cyclic list: a REAL entry of count c reads c - 1
        // values in direct mode.
        for (const ReadItem& r : ReadItemsFor(read, options_.maxCount, options_.remote)) {
            result = add(r.text, r.dataType, r.count);
            if (result == 0) break;
        }
    } else {
        // The plug-in cuts one-shot reads at whole blocks itself.
        result = add(read.driverText(), read.dataType(), read.count);
    }
    if (result == 0) {
        std::lock_guard<std::mutex> lock(mutex_);
        reads_.erase(varId);
    } else {
        std::lock_guard<std::mutex> lock(mutex_);
        work_ = true;
    }
    workQueued_.notify_all();
    if (message)
        *message = result == 0 ? "read " + read.display() + " refused by the plug-in"
                               : "read " + read.display() + " queued (one-shot queue length " +
                                     std::to_string(result) + ")";
    return result != 0;
}

void Host::stop() {
    stop_.store(true);
    {
        std::lock_guard<std::mutex> lock(mutex_);
        work_ = true;
    }
    workQueued_.notify_all();
}

std::string Host::lineError() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return lineError_;
}

void Host::rebuildIfAsked() {
    bool rebuild = false;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        rebuild = rebuildPending_;
        rebuildPending_ = false;
    }
    if (!rebuild) return;
    const int requests = rebuildCyclicList();
    note("the cyclic list has " + std::to_string(requests) + " request(s)");
}

void Host::waitForWork() {
    // Nothing to send: wait for new work, briefly.
    std::unique_lock<std::mutex> lock(mutex_);
    workQueued_.wait_for(lock, std::chrono::milliseconds(20), [&] { return work_; });
    work_ = false;
}

QByteArray Host::handOver(const peer::Exchange& e, bool* cipRejected) const {
    // The plug-in checks the envelope, length and block check, not the CIP
    // status. On request a controller's error reply is handed over as no
    // reply. The exchange that learns a read's length is left alone:
    // failing it would only repeat it, never report.
    if (options_.cipErrorsFail && info_.remoteMode == 0 && !e.learning &&
        e.outcome == peer::LineOutcome::kReply) {
        const auto* bytes = reinterpret_cast<const uint8_t*>(e.received.constData());
        const std::vector<uint8_t> reply(bytes, bytes + e.received.size());
        if (peer::ReadReplyStatus(reply).failed()) {
            *cipRejected = true;
            return QByteArray();
        }
    }
    return peer::StandardHandOver(e);
}

bool Host::run(peer::HostPort& port, int wakeFd) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        running_ = true;
    }
    bool cipRejected = false;
    peer::ExchangeHooks hooks;
    // In remote mode a write's reply is checked as a first reply only while
    // replyDone is 0; the record is the host's to reset.
    hooks.beforeSend = [this](peer::Exchange&) {
        if (info_.remoteMode != 0 && !options_.keepReplyDone) info_.replyDone = 0;
    };
    hooks.handOver = [&](const peer::Exchange& e) { return handOver(e, &cipRejected); };
    while (!stop_.load()) {
        rebuildIfAsked();
        cipRejected = false;
        const peer::Exchange e = peer::RunExchange(api_, port, options_.timeoutMs, wakeFd, hooks);
        if (!e.sent) {
            // Nothing to send: a line that is down is still reopened.
            if (port.lineDown()) port.reopenIfDue();
            watchLine(port);
            waitForWork();
            continue;
        }
        if (e.outcome == peer::LineOutcome::kStopped) break;
        watchLine(port);
        if (e.outcome == peer::LineOutcome::kError) {
            std::lock_guard<std::mutex> lock(mutex_);
            lineError_ = port.error();
            stop_.store(true);
            return false;
        }
        record(e, cipRejected);
        if (options_.logExchanges) logExchange(e);
        if (options_.exchanges != 0) {
            std::lock_guard<std::mutex> lock(mutex_);
            if (stats_.exchanges >= options_.exchanges) stop_.store(true);
        }
    }
    return true;
}

void Host::watchLine(const peer::HostPort& port) {
    std::lock_guard<std::mutex> lock(mutex_);
    // Counted by the port, so a line that went down and came back within
    // one exchange is seen too.
    if (port.linesLost() > linesLostSeen_) {
        linesLostSeen_ = port.linesLost();
        stats_.lineDownPeriods = linesLostSeen_;
        addEvent("line down: " + port.error() + "; reopening " + port.path() + " every " +
                 std::to_string(peer::kReopenFirstMs) + " ms doubling to " +
                 std::to_string(peer::kReopenLongestMs) +
                 " ms, exchanges go to the plug-in as no reply meanwhile");
        stats_.lineDown = true;
    }
    if (!stats_.lineDown || port.lineDown()) return;
    stats_.lineDown = false;
    char seconds[32];
    std::snprintf(seconds, sizeof seconds, "%.1f",
                  static_cast<double>(peer::MonotonicMs() - port.downSinceMs()) / 1000.0);
    addEvent("line up again: " + port.path() + " reopened after " + seconds + " s (" +
             std::to_string(port.reopenAttempts()) + " attempt(s))");
}

std::string Host::describeRequest(const RW_VAR& r) const {
    // Reads name word addresses (file x 256 + element); bit writes name a
    // bit address ((file x 256 + element) x 16 + bit).
    std::string text(1, LetterOf(r.dataType));
    if ((r.dataType == kBitA || r.dataType == kBitB) && r.aux2 == 1) {
        text += std::to_string(r.address / 4096) + ":" + std::to_string((r.address / 16) % 256) +
                "/" + std::to_string(r.address % 16);
    } else {
        text += std::to_string(r.address / 256) + ":" + std::to_string(r.address % 256);
        // Requests count words, or for REALs 16-bit units (writes) and
        // elements plus one (direct-mode reads).
        int count = r.count;
        if (r.dataType == kReal)
            count = r.aux2 == 1        ? r.count / 2
                    : info_.remoteMode ? r.count
                                       : std::max(r.count - 1, 1);
        if (count != 1) text += " x" + std::to_string(count);
    }
    return text;
}

void Host::record(const peer::Exchange& e, bool cipRejected) {
    std::lock_guard<std::mutex> lock(mutex_);
    countExchange(e, cipRejected);
    const RW_VAR& request = e.request;
    const bool good = IsGoodResult(e.result);
    const bool reported = !good && e.result != 0;
    const bool isCyclic = !e.isWrite() && request.varId == 0 && request.varSubId == -1;
    if (isCyclic) markTagResults(request, e.learning, e.result);
    if (e.isWrite() && e.result != 0) {
        reportWrite(request, e.result);
    } else if (reported) {
        std::string what = isCyclic ? "cyclic read " : "one-shot read ";
        addEvent("failure reported: " + what + describeRequest(request) + ": result " +
                 std::to_string(e.result) + " " + ResultText(e.result));
    }
    if (reported && info_.multiStation == 0) reportDroppedQueues();
}

void Host::logExchange(const peer::Exchange& e) {
    uint64_t number = 0;
    std::vector<TagAddress> tags;
    std::string text;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        number = stats_.exchanges;
        tags = tags_;
        text = std::string(e.isWrite() ? "write " : "read ") + describeRequest(e.request);
    }
    text = "exchange " + std::to_string(number) + ": " + text +
           (e.learning ? " learning, " : ", ") + peer::LineOutcomeName(e.outcome) + ", result " +
           std::to_string(e.result) + " " + ResultText(e.result);
    // The image is read outside mutex_, as the snapshot reads it.
    for (const TagAddress& tag : tags) text += " | " + tag.display() + " = " + imageValues(tag);
    note(text);
}

void Host::countExchange(const peer::Exchange& e, bool cipRejected) {
    const auto now = Clock::now();
    ++stats_.exchanges;
    recent_.push_back(now);
    while (!recent_.empty() && now - recent_.front() > std::chrono::seconds(1)) recent_.pop_front();
    if (e.learning) ++stats_.learning;
    if (e.outcome == peer::LineOutcome::kTimeout) ++stats_.noReply;
    if (e.outcome == peer::LineOutcome::kLineDown) ++stats_.downExchanges;
    if (e.outcome == peer::LineOutcome::kRefused) ++stats_.refused;
    if (cipRejected) ++stats_.cipRejected;
    const bool good = IsGoodResult(e.result);
    if (good) ++stats_.good;
    if (e.result == 0) {
        ++stats_.retried;
        ++stats_.zeroStreak;
    } else {
        stats_.zeroStreak = 0;
    }
    if (!good && e.result != 0) ++stats_.failures;
    // Copied here, on the thread the plug-in writes them from.
    stats_.retryCount = info_.retryCount;
    stats_.cycleDone = info_.cycleDone;
}

void Host::markTagResults(const RW_VAR& request, bool learning, int result) {
    // The tags this request covers take its result.
    const int words = request.dataType == kReal && info_.remoteMode == 0
                          ? std::max(request.count - 1, 1)
                          : request.count;
    for (std::size_t i = 0; i < tags_.size(); ++i) {
        const TagAddress& t = tags_[i];
        if (t.dataType() != request.dataType) continue;
        const int start = t.file * kElementsPerFile + t.element;
        const int end = start + t.wordCount();
        if (start < request.address + words && request.address < end) {
            tagResults_[i] = result;
            tagLearning_[i] = learning;
        }
    }
}

void Host::reportWrite(const RW_VAR& request, int result) {
    ++stats_.writesDone;
    std::string text = "write ";
    auto it = writes_.find(request.varId);
    if (it != writes_.end()) {
        text += it->second.write.display();
        // A write the plug-in cut into several requests: name this one.
        if (it->second.pieces > 1 || it->second.write.address.count > 1)
            text += " [request at " + describeRequest(request) + "]";
        if (--it->second.pieces <= 0) writes_.erase(it);
    } else {
        text += describeRequest(request);
    }
    addEvent(text + ": result " + std::to_string(result) + " " + ResultText(result));
}

void Host::reportDroppedQueues() {
    // The plug-in empties its write and one-shot queues after a reported
    // failure; whatever was still queued is gone.
    if (writes_.empty() && reads_.empty()) return;
    int writes = 0;
    for (const auto& w : writes_) writes += w.second.pieces;
    if (writes > 0)
        addEvent("queued writes dropped by the failure (" + std::to_string(writes) + ")");
    writes_.clear();
    if (!reads_.empty()) {
        addEvent("queued one-shot reads dropped by the failure (" + std::to_string(reads_.size()) +
                 ")");
        reads_.clear();
    }
}

void Host::onCallback(int hostContext, int varId, int varSubId, int status) {
    TagAddress tag;
    bool known = false;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        auto it = reads_.find(varId);
        if (it != reads_.end() && varSubId == varId) {
            tag = it->second.tag;
            known = true;
            reads_.erase(it);
        }
        ++stats_.readsDone;
    }
    std::string text = "callback(context " + std::to_string(hostContext) + ", varId " +
                       std::to_string(varId) + ", varSubId " + std::to_string(varSubId) +
                       ", status " + std::to_string(status) + "): ";
    if (!known) {
        text += "unknown read";
    } else if (status == 1) {
        // The image may be read here: the plug-in holds only its list lock.
        text += "read " + tag.display() + " = " + imageValues(tag);
    } else {
        text += "read " + tag.display() + " failed";
    }
    std::lock_guard<std::mutex> lock(mutex_);
    addEvent(text);
}

std::string Host::imageValues(const TagAddress& tag) {
    QByteArray out;
    const int ok = api_.GetRegisterData(0, tag.dataType(), QString::fromStdString(tag.driverText()),
                                        0, &out, ImageCount(tag));
    if (!ok) return "(invalid address)";
    return FormatValues(tag, out);
}

void Host::addEvent(const std::string& text) {
    const double t = std::chrono::duration<double>(Clock::now() - started_).count();
    char stamp[32];
    std::snprintf(stamp, sizeof stamp, "[%7.3f s] ", t);
    events_.push_back(stamp + text);
}

void Host::note(const std::string& text) {
    std::lock_guard<std::mutex> lock(mutex_);
    addEvent(text);
}

std::vector<std::string> Host::takeEvents() {
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<std::string> out;
    out.swap(events_);
    return out;
}

Snapshot Host::snapshot() {
    Snapshot s;
    std::vector<int> results;
    std::vector<bool> learning;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        const auto now = Clock::now();
        while (!recent_.empty() && now - recent_.front() > std::chrono::seconds(1))
            recent_.pop_front();
        s.elapsedSeconds = std::chrono::duration<double>(now - started_).count();
        s.exchangesPerSecond =
            static_cast<double>(recent_.size()) / std::min(1.0, std::max(s.elapsedSeconds, 1e-3));
        s.stats = stats_;
        s.cyclicRequests = cyclicRequests_;
        for (const TagAddress& t : tags_) s.tags.push_back({t, std::string(), INT_MIN});
        results = tagResults_;
        learning = tagLearning_;
    }
    for (std::size_t i = 0; i < s.tags.size(); ++i) {
        s.tags[i].values = imageValues(s.tags[i].tag);
        s.tags[i].lastResult = results[i];
        s.tags[i].learning = learning[i];
    }
    return s;
}

}  // namespace hostsim
