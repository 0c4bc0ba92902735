#include "e2e_host.h"

#include "peer/profile.h"

#include <cstring>
#include <dlfcn.h>

namespace e2e {

namespace {

std::vector<Callback> g_callbacks;

// Runs on the exchange thread inside DataCom, with the plug-in's list lock
// held: it only records.
int RecordCallback(int context, int varId, int varSubId, int status) {
    g_callbacks.push_back({context, varId, varSubId, status});
    return 0;
}

// The host's own areas; the plug-in only keeps their addresses.
uint16_t g_hostBits[4096];
uint16_t g_hostWords[4096];
uint16_t g_hostRwi[256];

// A scratch word that no test reads: the first exchange of every test
// writes it.
const std::string kScratchAddress = std::to_string(peer::profile::kScratchFile) + ":" +
                                    std::to_string(peer::profile::kScratchElement);
constexpr int kPrimeVarId = 11;

}  // namespace

// ---- fixture ---------------------------------------------------------------------

void EndToEnd::SetUp() {
    g_callbacks.clear();
    // Each test needs a driver object as right after loading: the plug-in
    // must have been unloaded by the test before.
    if (void* stale = dlopen(ABCL_PLUGIN_PATH, RTLD_NOW | RTLD_NOLOAD)) {
        dlclose(stale);
        FAIL() << "the plug-in is still loaded from an earlier test";
    }
    std::string error;
    ASSERT_TRUE(plugin.load(ABCL_PLUGIN_PATH, &error)) << error;
    api = &plugin.api();

    const SimConfig config = Config();
    peer::ControllerOptions controllerOptions;
    controllerOptions.mode = config.mode;
    controller = std::make_unique<peer::Controller>(memory, controllerOptions);
    line = peer::SerialLine::OpenPty("", &error);
    ASSERT_TRUE(line) << error;
    peer::ServerOptions serverOptions;
    serverOptions.paceBaud = config.baud;
    serverOptions.turnaroundMs = config.turnaroundMs;
    serverOptions.tickIntervalMs = 0;  // the live tags move only when a test ticks them
    server = std::make_unique<peer::Server>(*controller, memory, *line, serverOptions);
    ASSERT_TRUE(server->start(&error)) << error;
    ASSERT_TRUE(host.open(line->peerPath(), config.baud, &error)) << error;

    info = ComInfo{};
    info.maxCount = 32;
    info.defaultStation = 1;
    info.retryLimit = 2;
    info.localLinkNo = 0;
    info.writeMode = 2;
    info.hostContext = kHostContext;
    info.remoteMode = config.mode == peer::LinkMode::kRemote ? 1 : 0;
    ASSERT_EQ(api->FlashLocalRegister(g_hostBits, g_hostWords, g_hostRwi), 396);
    api->SetComInfo(&info);
    api->RegistCallBackFuncIntf(&RecordCallback, 0);
    PrimeTransactionNumber();
}

void EndToEnd::TearDown() {
    if (server) server->stop();
    plugin.unload();
    api = nullptr;
}

// The driver's first transaction number is drawn at random from 0..254. When
// it is 16 the first reply carries it doubled and is one byte longer than the
// driver expects (a direct write fails on length, a remote reply is read one
// byte late). A scratch write, repeated until it is reported good, moves the
// counter on, so every test starts from an ordinary value whatever the draw.
void EndToEnd::PrimeTransactionNumber() {
    const int retryLimit = info.retryLimit;
    info.retryLimit = 3;
    ASSERT_GT(WriteWords(ABCL_WORD_B, kScratchAddress.c_str(),
                         SimWordsAt(peer::profile::kScratchLetter, peer::profile::kScratchFile,
                                    peer::profile::kScratchElement, 1),
                         kPrimeVarId),
              0);
    const std::vector<Step> steps = RunUntilReported(4);
    ASSERT_FALSE(steps.empty());
    ASSERT_TRUE(steps.back().isWrite());
    ASSERT_EQ(steps.back().result, 1)
        << "the scratch write failed: " << LineOutcomeName(steps.back().outcome) << " "
        << ToHex(steps.back().received);
    info.retryLimit = retryLimit;
    info.retryCount = 0;
    // Nothing left: the scheduler's counts of writes served in a row start
    // again from 0, whether the scratch write took one try or two.
    ASSERT_FALSE(Turn().sent);
    g_callbacks.clear();
}

// ---- the loop ----------------------------------------------------------------------

Step EndToEnd::Turn(const Hook& beforeSend) {
    peer::ExchangeHooks hooks;
    hooks.beforeSend = [&](Step& s) {
        if (beforeSend) beforeSend(s);
        // A remote write's reply is judged good only while replyDone is 0.
        if (info.remoteMode != 0 && zeroReplyDone) info.replyDone = 0;
        if (noCompleteReply_) s.timeoutMs = faultTimeoutMs;
        noCompleteReply_ = false;
    };
    // Nothing complete: the host hands over an empty array, or on request
    // whatever came before the timeout.
    hooks.handOver = [this](const Step& s) {
        return s.answered() || handPartialReplies ? s.received : QByteArray();
    };
    const Step s = peer::RunExchange(*api, host, replyTimeoutMs, -1, hooks);
    EXPECT_NE(s.outcome, LineOutcome::kError) << "the line failed: " << host.error();
    return s;
}

std::vector<Step> EndToEnd::RunUntil(const std::function<bool(const Step&)>& done, int limit,
                                     const Hook& beforeSend) {
    std::vector<Step> steps;
    for (int i = 0; i < limit; ++i) {
        steps.push_back(Turn(beforeSend));
        if (done(steps.back())) return steps;
    }
    ADD_FAILURE() << "not done within " << limit << " turns";
    return steps;
}

std::vector<Step> EndToEnd::RunUntilReported(int limit, const Hook& beforeSend) {
    return RunUntil([](const Step& s) { return s.result != 0; }, limit, beforeSend);
}

std::vector<Step> EndToEnd::RunUntilCycleDone(int limit) {
    std::vector<Step> steps = RunUntil([this](const Step&) { return info.cycleDone == 1; }, limit);
    for (std::size_t i = 0; i < steps.size(); ++i) {
        EXPECT_TRUE(steps[i].sent) << "turn " << i;
        EXPECT_EQ(steps[i].result, 1) << "turn " << i << ": " << LineOutcomeName(steps[i].outcome)
                                      << " " << ToHex(steps[i].received);
    }
    return steps;
}

std::vector<Step> EndToEnd::RunUntilIdle(int limit, const Hook& beforeSend) {
    bool idleBefore = false;
    return RunUntil(
        [&idleBefore](const Step& s) {
            const bool idle = !s.sent && idleBefore;
            idleBefore = !s.sent;
            return idle;
        },
        limit, beforeSend);
}

void EndToEnd::RunPass() {
    for (int i = 0; i < 2 * cyclicRequests_; ++i) {
        const Step s = Turn();
        ASSERT_TRUE(s.sent) << "turn " << i;
        EXPECT_FALSE(s.isWrite()) << "turn " << i;
        // Each request learns its reply length, then carries the data.
        EXPECT_EQ(s.learning, i % 2 == 0) << "turn " << i;
        ASSERT_EQ(s.result, 1) << "turn " << i << ": " << LineOutcomeName(s.outcome) << " "
                               << ToHex(s.received);
    }
}

// ---- host calls --------------------------------------------------------------------

int EndToEnd::SetCyclicList(const std::vector<Item>& items) {
    items_.clear();
    QList<ReadVarItem*> list;
    for (const Item& item : items) {
        auto entry = std::make_unique<ReadVarItem>();
        entry->dataType = static_cast<uint8_t>(item.dataType);
        entry->addrText = QString::fromLatin1(item.address);
        entry->count = item.count;
        list.append(entry.get());
        items_.push_back(std::move(entry));
    }
    cyclicRequests_ = api->ReCreatReadVarList(&list);
    return cyclicRequests_;
}

int EndToEnd::WriteWords(int dataType, const char* address, const std::vector<uint16_t>& values,
                         int varId, int station) {
    QByteArray bytes;
    for (uint16_t v : values) {
        bytes.append(static_cast<char>(v & 0xFF));
        bytes.append(static_cast<char>(v >> 8));
    }
    return api->SetRegisterData(QString(), dataType, QString::fromLatin1(address), station, &bytes,
                                static_cast<int>(values.size()), varId, 0);
}

int EndToEnd::WriteBit(int dataType, const char* address, bool value, int varId, int station) {
    QByteArray bytes(1, value ? '\1' : '\0');
    return api->SetRegisterData(QString(), dataType, QString::fromLatin1(address), station, &bytes,
                                1, varId, 0);
}

int EndToEnd::WriteReals(const char* address, const std::vector<uint32_t>& bitPatterns, int varId,
                         int station) {
    QByteArray bytes;
    for (uint32_t v : bitPatterns)
        for (int b = 0; b < 4; ++b) bytes.append(static_cast<char>((v >> (8 * b)) & 0xFF));
    return api->SetRegisterData(QString(), ABCL_REAL, QString::fromLatin1(address), station, &bytes,
                                2 * static_cast<int>(bitPatterns.size()), varId, 0);
}

int EndToEnd::OnceRead(int dataType, const char* address, int count, int varId, int varSubId,
                       int station) {
    RW_VAR v;
    v.varId = varId;
    v.varSubId = varSubId;
    v.aux2 = 0;  // the reply carries data
    v.linkNo = info.localLinkNo;
    v.dataType = dataType;
    v.addrText = QString::fromLatin1(address);
    v.count = count;
    v.station = station;
    return api->AddListOnceReadVar(&v, 0);
}

std::vector<uint16_t> EndToEnd::ImageWords(int dataType, const char* address, int count) {
    QByteArray out;
    EXPECT_EQ(api->GetRegisterData(0, dataType, QString::fromLatin1(address), 0, &out, count), 1);
    std::vector<uint16_t> words;
    for (int i = 0; i + 1 < out.size() && static_cast<int>(words.size()) < count; i += 2)
        words.push_back(static_cast<uint16_t>(ByteAt(out, i) | (ByteAt(out, i + 1) << 8)));
    return words;
}

std::vector<int> EndToEnd::ImageBits(int dataType, const char* address, int count) {
    QByteArray out;
    EXPECT_EQ(api->GetRegisterData(0, dataType, QString::fromLatin1(address), 0, &out, count), 1);
    std::vector<int> bits;
    for (int i = 0; i < out.size() && i < count; ++i) bits.push_back(ByteAt(out, i));
    return bits;
}

std::vector<uint32_t> EndToEnd::ImageReals(const char* address, int values) {
    QByteArray out;
    EXPECT_EQ(api->GetRegisterData(0, ABCL_REAL, QString::fromLatin1(address), 0, &out, 2 * values),
              1);
    std::vector<uint32_t> reals;
    for (int i = 0; i + 3 < out.size() && static_cast<int>(reals.size()) < values; i += 4) {
        uint32_t v = 0;
        for (int b = 3; b >= 0; --b) v = (v << 8) | ByteAt(out, i + b);
        reals.push_back(v);
    }
    return reals;
}

// ---- the controller's memory ----------------------------------------------------------

void EndToEnd::SimWords(char letter, int file, int element, const std::vector<uint16_t>& values) {
    for (std::size_t i = 0; i < values.size(); ++i)
        ASSERT_TRUE(memory.setWord(letter, file, static_cast<std::size_t>(element) + i, values[i]));
}

void EndToEnd::SimReals(int file, int element, const std::vector<uint32_t>& bitPatterns) {
    for (std::size_t i = 0; i < bitPatterns.size(); ++i)
        ASSERT_TRUE(memory.setReal(file, static_cast<std::size_t>(element) + i,
                                   RealFromBits(bitPatterns[i])));
}

std::vector<uint16_t> EndToEnd::SimWordsAt(char letter, int file, int element, int count) {
    std::vector<uint16_t> words;
    for (int i = 0; i < count; ++i) {
        const auto w = memory.word(letter, file, static_cast<std::size_t>(element + i));
        EXPECT_TRUE(w.has_value()) << letter << file << ":" << element + i;
        words.push_back(w.value_or(0));
    }
    return words;
}

std::vector<uint32_t> EndToEnd::SimRealsAt(int file, int element, int count) {
    std::vector<uint32_t> reals;
    for (int i = 0; i < count; ++i) {
        const auto r = memory.real(file, static_cast<std::size_t>(element + i));
        EXPECT_TRUE(r.has_value()) << "F" << file << ":" << element + i;
        reals.push_back(RealBits(r.value_or(0.0f)));
    }
    return reals;
}

// ---- faults ---------------------------------------------------------------------------

void EndToEnd::DropNext(uint32_t replies) {
    peer::FaultPlan plan;
    plan.drop.next = replies;
    controller->setFaults(plan);
    noCompleteReply_ = true;
}

void EndToEnd::CorruptNext(uint32_t replies) {
    peer::FaultPlan plan;
    plan.corruptCheck.next = replies;
    controller->setFaults(plan);
}

void EndToEnd::TruncateNext(uint32_t replies, uint32_t bytes) {
    peer::FaultPlan plan;
    plan.truncate.next = replies;
    plan.truncateBytes = bytes;
    controller->setFaults(plan);
    noCompleteReply_ = true;
}

void EndToEnd::LateNext(uint32_t replies, uint32_t ms) {
    peer::FaultPlan plan;
    plan.late.next = replies;
    plan.lateMs = ms;
    controller->setFaults(plan);
}

void EndToEnd::WrongTnsNext(uint32_t replies) {
    peer::FaultPlan plan;
    plan.wrongTns.next = replies;
    controller->setFaults(plan);
}

const std::vector<Callback>& EndToEnd::Callbacks() {
    return g_callbacks;
}

// ---- helpers --------------------------------------------------------------------------

uint32_t RealBits(float value) {
    uint32_t bits;
    std::memcpy(&bits, &value, sizeof bits);
    return bits;
}

float RealFromBits(uint32_t bits) {
    float value;
    std::memcpy(&value, &bits, sizeof value);
    return value;
}

int DleBytes(const std::vector<uint16_t>& words) {
    int n = 0;
    for (uint16_t w : words) n += ((w & 0xFF) == 0x10) + ((w >> 8) == 0x10);
    return n;
}

int DleBytes(const std::vector<uint32_t>& values) {
    int n = 0;
    for (uint32_t v : values)
        for (int b = 0; b < 4; ++b) n += ((v >> (8 * b)) & 0xFF) == 0x10;
    return n;
}

uint8_t ByteAt(const QByteArray& bytes, int position) {
    return position >= 0 && position < bytes.size() ? static_cast<uint8_t>(bytes.at(position)) : 0;
}

}  // namespace e2e
