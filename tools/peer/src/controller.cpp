#include "peer/controller.h"

#include "peer/cip.h"
#include "peer/df1.h"

#include <algorithm>

namespace peer {

std::optional<std::vector<uint8_t>> AnswerDf1Message(const std::vector<uint8_t>& body,
                                                     TagMemory& memory, std::size_t maxReplyData) {
    if (body.size() < static_cast<std::size_t>(df1::kHeaderSize)) return std::nullopt;
    // A reply that comes back to us is not a request.
    if (body[df1::kHeaderCmd] & df1::kReplyFlag) return std::nullopt;

    std::vector<uint8_t> reply = {body[df1::kHeaderSrc],
                                  body[df1::kHeaderDst],
                                  static_cast<uint8_t>(body[df1::kHeaderCmd] | df1::kReplyFlag),
                                  df1::kStsSuccess,
                                  body[df1::kHeaderTnsLow],
                                  body[df1::kHeaderTnsHigh]};
    const std::size_t application = body.size() - df1::kHeaderSize;
    // The two bytes before the CIP request go back in the same place.
    constexpr std::size_t kPrefix = df1::kCipPrefixSize;
    if (body[df1::kHeaderCmd] != df1::kCmdCip || application < kPrefix + 1) {
        reply[df1::kHeaderSts] = df1::kStsIllegalCommand;
        return reply;
    }
    const uint8_t* prefix = body.data() + df1::kHeaderSize;
    reply.insert(reply.end(), prefix, prefix + kPrefix);
    const std::size_t budget = maxReplyData > kPrefix ? maxReplyData - kPrefix : 0;
    const auto cipReply = AnswerCipMessage(prefix + kPrefix, application - kPrefix, memory, budget);
    reply.insert(reply.end(), cipReply.begin(), cipReply.end());
    return reply;
}

Controller::Controller(TagMemory& memory, ControllerOptions options)
    : memory_(memory),
      options_(options),
      remoteTransaction_(options.remoteTransactionStart),
      noiseRandom_(faults_.noiseSeed) {}

void Controller::resetReceiver() {
    std::lock_guard<std::mutex> lock(mutex_);
    df1_.reset();
    remote_.reset();
}

bool Controller::receiverIdle() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return options_.mode == LinkMode::kDirect ? df1_.idle() : remote_.idle();
}

void Controller::setFaults(const FaultPlan& plan) {
    std::lock_guard<std::mutex> lock(mutex_);
    // A new seed starts its own sequence; the same seed again (a plan
    // re-armed for the next exchange) goes on with the current one.
    if (plan.noiseSeed != faults_.noiseSeed) noiseRandom_.seed(plan.noiseSeed);
    faults_ = plan;
}

FaultPlan Controller::faults() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return faults_;
}

void Controller::silenceFor(int64_t nowMs, uint32_t ms) {
    silenceBetween(nowMs, nowMs + ms);
}

void Controller::silenceBetween(int64_t fromMs, int64_t untilMs) {
    std::lock_guard<std::mutex> lock(mutex_);
    silentFrom_ = fromMs;
    silentUntil_ = untilMs;
}

void Controller::endSilence() {
    silenceBetween(0, 0);
}

ControllerCounters Controller::counters() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return counters_;
}

bool Controller::silentAt(int64_t nowMs) const {
    return nowMs >= silentFrom_ && nowMs < silentUntil_;
}

bool Controller::hits(FaultRule* rule, uint64_t sequence) {
    bool hit = false;
    if (rule->next) {
        --rule->next;
        hit = true;
    }
    if (rule->every && sequence % rule->every == 0) hit = true;
    return hit;
}

std::vector<uint8_t> Controller::noiseBurst(std::size_t n) {
    constexpr uint32_t kByteMask = 0xFF;
    std::vector<uint8_t> burst;
    burst.reserve(n);
    while (burst.size() < n) {
        const auto b = static_cast<uint8_t>(noiseRandom_() & kByteMask);
        // DLE STX would start a frame of noise; a DLE last would pair with
        // the DLE that begins the reply.
        const bool afterDle = !burst.empty() && burst.back() == df1::kDle;
        if (afterDle && b == df1::kStx) continue;
        if (burst.size() + 1 == n && b == df1::kDle) continue;
        burst.push_back(b);
    }
    return burst;
}

std::vector<Transmission> Controller::receive(const uint8_t* bytes, std::size_t n, int64_t nowMs) {
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<Transmission> out;
    if (options_.mode == LinkMode::kDirect) {
        for (std::size_t i = 0; i < n; ++i) {
            if (auto event = df1_.push(bytes[i])) handleDf1Event(*event, nowMs, &out);
        }
    } else {
        std::vector<RemoteEvent> events;
        for (std::size_t i = 0; i < n; ++i) {
            remote_.push(bytes[i], &events);
            for (const auto& event : events) handleRemoteEvent(event, nowMs, &out);
            events.clear();
        }
    }
    return out;
}

void Controller::handleDf1Event(const Df1Event& event, int64_t nowMs,
                                std::vector<Transmission>* out) {
    switch (event.kind) {
        case Df1Event::Kind::kOverflow: ++counters_.overflows; return;
        case Df1Event::Kind::kRefused:  // a replies-side event; never seen here
            return;
        case Df1Event::Kind::kBadBlockCheck:
            ++counters_.badFrames;
            if (options_.nakBadFrames && !silentAt(nowMs)) {
                ++counters_.naks;
                out->push_back({{df1::kDle, df1::kNak}, 0});
            }
            return;
        case Df1Event::Kind::kFrame: break;
    }
    ++counters_.framesReceived;
    if (options_.detectDuplicates &&
        event.body.size() >= static_cast<std::size_t>(df1::kHeaderSize)) {
        std::vector<uint8_t> key = {event.body[df1::kHeaderSrc], event.body[df1::kHeaderCmd],
                                    event.body[df1::kHeaderTnsLow],
                                    event.body[df1::kHeaderTnsHigh]};
        if (lastHeader_ == key) {
            ++counters_.duplicates;
            if (!silentAt(nowMs)) out->push_back({{df1::kDle, df1::kAck}, 0});
            return;
        }
        lastHeader_ = std::move(key);
    }
    auto reply = AnswerDf1Message(event.body, memory_, options_.maxReplyData);
    if (!reply) {
        ++counters_.ignored;
        return;
    }
    sendReply(std::move(*reply), nowMs, out);
}

void Controller::handleRemoteEvent(const RemoteEvent& event, int64_t nowMs,
                                   std::vector<Transmission>* out) {
    if (event.kind == RemoteEvent::Kind::kBadChecksum) {
        ++counters_.badFrames;
        return;
    }
    ++counters_.framesReceived;
    auto request = DecodeRemoteFrame(event.frame.data(), event.frame.size());
    if (!request) {
        ++counters_.ignored;
        return;
    }
    auto body = AnswerRemoteRequest(*request, memory_, remoteTransaction_);
    remoteTransaction_ = NextRemoteTransaction(remoteTransaction_);
    sendReply(std::move(body), nowMs, out);
}

void Controller::sendReply(std::vector<uint8_t> body, int64_t nowMs,
                           std::vector<Transmission>* out) {
    const uint64_t sequence = ++counters_.replies;
    if (silentAt(nowMs)) {
        ++counters_.silenced;
        return;
    }
    if (hits(&faults_.drop, sequence)) {
        ++counters_.dropped;
        return;
    }
    if (hits(&faults_.wrongTns, sequence)) {
        ++counters_.wrongTns;
        body[df1::kHeaderTnsLow] = static_cast<uint8_t>(body[df1::kHeaderTnsLow] + 1);
    }
    Transmission transmission;
    transmission.bytes = FrameReply(body);
    if (hits(&faults_.corruptCheck, sequence)) {
        ++counters_.corrupted;
        transmission.bytes.back() = static_cast<uint8_t>(~transmission.bytes.back());
    }
    if (hits(&faults_.truncate, sequence)) {
        ++counters_.truncated;
        const std::size_t cut =
            std::min<std::size_t>(faults_.truncateBytes, transmission.bytes.size());
        transmission.bytes.resize(transmission.bytes.size() - cut);
    }
    if (hits(&faults_.noise, sequence)) {
        ++counters_.noise;
        const std::vector<uint8_t> burst = noiseBurst(faults_.noiseBytes);
        transmission.bytes.insert(transmission.bytes.begin(), burst.begin(), burst.end());
    }
    if (hits(&faults_.late, sequence)) {
        ++counters_.delayed;
        transmission.delayMs = faults_.lateMs;
    }
    ++counters_.repliesSent;
    out->push_back(std::move(transmission));
}

}  // namespace peer
