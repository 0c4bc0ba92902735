// The fault matrix: the hostsim program against the plcsim program over a
// pseudo-terminal, one run for each fault plcsim can put on the line, at
// 19,200 and 115,200 baud. hostsim logs every exchange (--log-exchanges);
// at the end the test reads plcsim's memory through the line and measures,
// per run: the fault episodes and the exchanges each took until good data
// showed again, the failures the plug-in reported, the writes reported good
// that the controller does not hold (lost beyond what the plug-in's purge
// owns up to), and the exchanges after which hostsim showed values the
// controller does not hold. The table is printed, and written to the file
// named by ABCL_FAULT_MATRIX_TABLE when that is set.
#include "../spawned_program.h"

#include "peer/df1.h"
#include "peer/line.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <iostream>
#include <map>
#include <regex>
#include <sstream>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

// Exchanges of one run: enough for several episodes of every periodic fault.
constexpr int kExchanges = 40;
// Replies between two hits of a periodic fault (and the first reply, a
// write, is hit too).
constexpr int kEvery = 9;
constexpr int kNoiseEvery = 5;
constexpr int kWrongTnsEvery = 3;
constexpr int kRestartAfter = 15;
// Attempts to read the controller's memory at the end, past its faults.
constexpr int kMemoryReadAttempts = 20;
// Frames listened for after each of those requests.
constexpr int kFramesPerRead = 3;

// What a run at one rate needs: the reply timeout (a few times the longest
// exchange), a late reply that arrives inside the next exchange, and a
// silent period after the writes.
struct Rate {
    int baud;
    int timeoutMs;
    int lateMs;  // timeout + half a timeout
    int silenceAtMs;
    int silenceForMs;
};
constexpr Rate kRates[] = {{19200, 250, 375, 1000, 1000}, {115200, 100, 150, 250, 500}};

// The tags every run polls, the writes it queues at start, and what the
// controller holds once the writes are done.
const std::vector<std::string> kTags = {"N7:0 x4", "N10:0 x4"};
const std::vector<std::string> kWrites = {"N7:0=1,2,3,4", "N10:0=11,12,13,14"};

struct Fault {
    const char* name;
    std::function<std::vector<std::string>(const Rate&)> plcsim;
    std::vector<std::string> hostsimTags;    // added to kTags
    std::vector<std::string> hostsimWrites;  // added to kWrites
};

std::vector<std::string> Every(const char* fault, int every) {
    return {std::string("--") + fault + "-next", "1", std::string("--") + fault + "-every",
            std::to_string(every)};
}

std::vector<Fault> Faults() {
    const auto none = [](const Rate&) { return std::vector<std::string>(); };
    return {
        {"none", none, {}, {}},
        {"drop", [](const Rate&) { return Every("drop", kEvery); }, {}, {}},
        {"bad block check", [](const Rate&) { return Every("corrupt", kEvery); }, {}, {}},
        {"truncation", [](const Rate&) { return Every("truncate", kEvery); }, {}, {}},
        {"late beyond the timeout",
         [](const Rate& r) {
             auto args = Every("late", kEvery);
             args.insert(args.end(), {"--late-ms", std::to_string(r.lateMs)});
             return args;
         },
         {},
         {}},
        {"wrong transaction number",
         [](const Rate&) { return Every("wrong-tns", kWrongTnsEvery); },
         {},
         {}},
        {"noise", [](const Rate&) { return Every("noise", kNoiseEvery); }, {}, {}},
        {"silence",
         [](const Rate& r) {
             return std::vector<std::string>{
                 "--silence", std::to_string(r.silenceAtMs) + ":" + std::to_string(r.silenceForMs)};
         },
         {},
         {}},
        {"restart",
         [](const Rate&) {
             return std::vector<std::string>{"--restart-after", std::to_string(kRestartAfter)};
         },
         {},
         {}},
        // The controller has no N12: every request for it is answered with
        // a CIP error status in a well-framed reply.
        {"CIP error status", none, {"N12:0"}, {"N12:0=5"}},
    };
}

// ---- one exchange of hostsim's log -----------------------------------------

struct LoggedExchange {
    int number = 0;
    bool write = false;
    bool learning = false;
    std::string tag;      // the variable the request served
    std::string outcome;  // reply, timeout, refused, line down
    int result = -1;
    std::map<std::string, std::string> values;  // tag -> values shown after it
};

std::vector<LoggedExchange> ParseLog(const std::string& output) {
    static const std::regex line(
        R"(exchange (\d+): (read|write) ([^,\n]*), ([a-z ]+), result (-?\d+)[^|\n]*([^\n]*))");
    static const std::regex value(R"(\|\s*([^=|]+?)\s*=\s*([^|]*))");
    std::vector<LoggedExchange> log;
    for (auto it = std::sregex_iterator(output.begin(), output.end(), line);
         it != std::sregex_iterator(); ++it) {
        LoggedExchange e;
        e.number = std::stoi((*it)[1]);
        e.write = (*it)[2] == "write";
        std::string request = (*it)[3];
        static const std::string kLearning = " learning";
        if (request.size() > kLearning.size() &&
            request.compare(request.size() - kLearning.size(), kLearning.size(), kLearning) == 0) {
            e.learning = true;
            request.resize(request.size() - kLearning.size());
        }
        e.tag = request;
        e.outcome = (*it)[4];
        e.result = std::stoi((*it)[5]);
        const std::string tail = (*it)[6];
        for (auto v = std::sregex_iterator(tail.begin(), tail.end(), value);
             v != std::sregex_iterator(); ++v)
            e.values[(*v)[1]] = std::regex_replace(std::string((*v)[2]), std::regex(" +$"), "");
        log.push_back(e);
    }
    return log;
}

// ---- the controller's memory, read through the line --------------------------

// A transaction number of its own for every read, so a reply that comes
// late (or carries another number) is never taken for the answer to it.
uint8_t NextTransaction() {
    static uint8_t tns = 0x20;
    if (++tns == peer::df1::kDle || tns == 0) tns = 0x20;
    return tns;
}

// The INT values of a tag's reply body ("1 2 3 4"); "(none)" for a CIP
// error (the controller has no such tag); "" when the body does not answer
// a read of count elements with transaction tns.
std::string ReadReplyValues(const std::vector<uint8_t>& r, uint8_t tns, int count) {
    // Header (6), two echoed bytes, then CC 00 status size, type, data.
    constexpr std::size_t kTns = 4;
    constexpr std::size_t kService = 8;
    constexpr std::size_t kStatus = 10;
    constexpr std::size_t kData = 14;
    if (r.size() <= kStatus || r[kTns] != tns || r[kService] != 0xCC) return "";
    if (r[kStatus] != 0) return "(none)";
    if (r.size() != kData + 2 * static_cast<std::size_t>(count)) return "";
    std::string text;
    for (std::size_t i = kData; i + 1 < r.size(); i += 2)
        text += (text.empty() ? "" : " ") +
                std::to_string(static_cast<int16_t>(r[i] | (r[i + 1] << 8)));
    return text;
}

// ReadReplyValues of the frame in reply, as received; "" without one.
std::string ValuesOf(const std::vector<uint8_t>& reply, uint8_t tns, int count) {
    peer::Df1Receiver ear(peer::Side::kReplies);
    for (uint8_t b : reply) {
        const auto event = ear.push(b);
        if (event && event->kind == peer::Df1Event::Kind::kFrame)
            return ReadReplyValues(event->body, tns, count);
    }
    return "";
}

// The values of a run of INT elements from element 0 of a tag, as the table
// shows them ("1 2 3 4"); "(none)" when the controller has no such tag.
std::string ReadFromController(peer::HostPort& port, const std::string& tagName, int count,
                               int timeoutMs) {
    for (int attempt = 0; attempt < kMemoryReadAttempts; ++attempt) {
        const uint8_t tns = NextTransaction();
        std::vector<uint8_t> body = {0x00, 0x00, 0x0B, 0x00, tns,  0x00,
                                     0x00, 0x00, 0x4C, 0x03, 0x91, 0x04};
        for (char c : tagName) body.push_back(static_cast<uint8_t>(c));
        body.insert(body.end(), {static_cast<uint8_t>(count), 0x00});
        const std::vector<uint8_t> request = peer::FrameRequest(body);
        std::vector<uint8_t> reply;
        peer::LineOutcome outcome =
            port.exchange(request.data(), request.size(), timeoutMs, -1, &reply);
        // A reply to an earlier request (a late one) may come first: its own
        // follows it, so the line is listened to again before asking again.
        for (int frame = 0; frame < kFramesPerRead && outcome == peer::LineOutcome::kReply;
             ++frame) {
            const std::string values = ValuesOf(reply, tns, count);
            if (!values.empty()) return values;
            outcome = port.collect(timeoutMs, -1, &reply);
        }
    }
    return "(unreadable)";
}

// Tag display ("N7:0 x4", "N12:0") -> what the controller holds there.
std::map<std::string, std::string> ControllerMemory(const std::string& link, const Rate& rate) {
    peer::HostPort port;
    std::string error;
    std::map<std::string, std::string> held;
    if (!port.open(link, rate.baud, &error)) return held;
    port.setReopen(true);
    port.setPaceBaud(rate.baud);
    held["N7:0 x4"] = ReadFromController(port, "N007", 4, rate.timeoutMs);
    held["N10:0 x4"] = ReadFromController(port, "N00A", 4, rate.timeoutMs);
    held["N12:0"] = ReadFromController(port, "N00C", 1, rate.timeoutMs);
    return held;
}

// ---- one run and what it measured ------------------------------------------

struct Measured {
    int hostsimExit = -1;
    int exchanges = 0;
    int episodes = 0;
    double meanRecovery = 0;  // exchanges until good data, per episode
    int maxRecovery = 0;
    bool recovered = true;  // the last episode ended before the run did
    int failures = -1;
    int writesLost = 0;
    int wrongValueExchanges = 0;
    int lineDownPeriods = 0;
    // Exchanges from the first that got no reply to the first failure
    // reported, both counted; 0 when there was no such exchange or no report.
    int silenceReportedAfter = 0;
    bool memoryRead = true;  // the controller's memory was read at the end
    std::string plcsimCounters;
};

int NumberAfter(const std::string& text, const std::string& label) {
    std::smatch m;
    if (!std::regex_search(text, m, std::regex(label + " (\\d+)"))) return 0;
    return std::stoi(m[1]);
}

// Writes reported good (result 1) whose values the controller does not hold.
int WritesLost(const std::string& output, const std::map<std::string, std::string>& held) {
    static const std::regex good(R"(write (N\d+):0=([-0-9,]+)[^:\n]*: result 1 good)");
    int lost = 0;
    for (auto it = std::sregex_iterator(output.begin(), output.end(), good);
         it != std::sregex_iterator(); ++it) {
        std::string values = (*it)[2];
        std::replace(values.begin(), values.end(), ',', ' ');
        const std::string count = std::to_string(std::count(values.begin(), values.end(), ' ') + 1);
        const std::string tag = std::string((*it)[1]) + ":0" + (count == "1" ? "" : " x" + count);
        const auto h = held.find(tag);
        if (h == held.end() || h->second != values) ++lost;
    }
    return lost;
}

// Whether a read's result tells the host its tag is good (1), failed (a
// failure code), or leaves that as it was (0: being retried, or learning).
void NoteReadResult(const LoggedExchange& e, std::map<std::string, bool>* shownGood) {
    if (e.write || e.result == 0) return;
    if (e.result == 1) {
        if (!e.learning) (*shownGood)[e.tag] = true;
    } else {
        (*shownGood)[e.tag] = false;
    }
}

// Episodes: runs of exchanges that were not clean (a reply, result 1, and
// once the writes are done the values the controller holds). A tag whose
// last read was reported failed is shown as failed, not as a value.
void MeasureEpisodes(const std::vector<LoggedExchange>& log,
                     const std::map<std::string, std::string>& held, Measured* m) {
    int lastWrite = 0;
    for (const auto& e : log)
        if (e.write) lastWrite = e.number;
    int run = 0;
    int total = 0;
    std::map<std::string, bool> shownGood;
    for (const auto& e : log) {
        NoteReadResult(e, &shownGood);
        bool valuesRight = true;
        for (const auto& [tag, shown] : e.values) {
            // Before its first good read a tag shows nothing of the controller.
            const auto good = shownGood.find(tag);
            const bool shownAsGood = good != shownGood.end() && good->second;
            if (shownAsGood && held.count(tag) && held.at(tag) != shown) valuesRight = false;
        }
        if (e.number > lastWrite && !valuesRight) ++m->wrongValueExchanges;
        const bool clean =
            e.outcome == "reply" && e.result == 1 && (e.number <= lastWrite || valuesRight);
        if (!clean) {
            ++run;
            continue;
        }
        if (run == 0) continue;
        ++m->episodes;
        total += run;
        m->maxRecovery = std::max(m->maxRecovery, run);
        run = 0;
    }
    if (run > 0) {
        m->recovered = false;
        ++m->episodes;
        total += run;
        m->maxRecovery = std::max(m->maxRecovery, run);
    }
    m->meanRecovery = m->episodes ? static_cast<double>(total) / m->episodes : 0;
}

void MeasureSilenceReport(const std::vector<LoggedExchange>& log, Measured* m) {
    int firstSilent = 0;
    for (const auto& e : log) {
        if (firstSilent == 0 && e.outcome == "timeout") firstSilent = e.number;
        if (firstSilent != 0 && e.result > 1) {
            m->silenceReportedAfter = e.number - firstSilent + 1;
            return;
        }
    }
}

std::vector<std::string> HostsimArgs(const Fault& fault, const Rate& rate, const std::string& link,
                                     const std::string& plugin) {
    std::vector<std::string> args = {"--port",       link,
                                     "--baud",       std::to_string(rate.baud),
                                     "--timeout-ms", std::to_string(rate.timeoutMs),
                                     "--exchanges",  std::to_string(kExchanges),
                                     "--plain",      "--interval-ms",
                                     "3600000",      "--log-exchanges"};
    std::vector<std::string> tags = kTags;
    tags.insert(tags.end(), fault.hostsimTags.begin(), fault.hostsimTags.end());
    for (const auto& t : tags) args.insert(args.end(), {"--tag", t});
    std::vector<std::string> writes = kWrites;
    writes.insert(writes.end(), fault.hostsimWrites.begin(), fault.hostsimWrites.end());
    for (const auto& w : writes) args.insert(args.end(), {"--write", w});
    if (!plugin.empty()) args.insert(args.end(), {"--plugin", plugin});
    return args;
}

Measured RunOne(const Fault& fault, const Rate& rate, const std::string& link,
                const std::string& plugin) {
    std::vector<std::string> plcsimArgs = {
        "--print-path", "--link", link,       "--baud", std::to_string(rate.baud),
        "--turnaround", "1",      "--no-live"};
    const auto faultArgs = fault.plcsim(rate);
    plcsimArgs.insert(plcsimArgs.end(), faultArgs.begin(), faultArgs.end());
    SpawnedProgram plcsim(TOOLS_LAUNCHER, PLCSIM_PATH, plcsimArgs);
    Measured m;
    if (plcsim.firstLine().empty()) return m;
    SpawnedProgram hostsim(TOOLS_LAUNCHER, HOSTSIM_PATH, HostsimArgs(fault, rate, link, plugin));
    m.hostsimExit = hostsim.wait();
    const std::string output = hostsim.out();
    const auto held = ControllerMemory(link, rate);
    for (const auto& [tag, values] : held) m.memoryRead &= values != "(unreadable)";
    m.memoryRead &= !held.empty();
    plcsim.signal(SIGTERM);
    plcsim.wait();
    m.plcsimCounters = plcsim.err();

    const auto log = ParseLog(output);
    m.exchanges = static_cast<int>(log.size());
    m.failures = NumberAfter(output, "=== .*\\| failures");
    m.lineDownPeriods = NumberAfter(output, "=== .*\\| line-down periods");
    m.writesLost = WritesLost(output, held);
    MeasureEpisodes(log, held, &m);
    MeasureSilenceReport(log, &m);
    return m;
}

std::string Switches(const Fault& fault) {
    std::string text;
    for (const auto& a : fault.plcsim(kRates[0])) text += (text.empty() ? "" : " ") + a;
    for (const auto& t : fault.hostsimTags)
        text += (text.empty() ? "" : "; ") + ("hostsim --tag " + t);
    for (const auto& w : fault.hostsimWrites) text += " --write " + w;
    return text.empty() ? "-" : "`" + text + "`";
}

bool IsSilence(const Fault& fault) {
    return std::string(fault.name) == "silence";
}

std::string Row(const Fault& fault, const Rate& rate, const Measured& m) {
    char recovery[64];
    std::snprintf(recovery, sizeof recovery, "%.1f / %d%s", m.meanRecovery, m.maxRecovery,
                  m.recovered ? "" : " (run ended in one)");
    std::ostringstream row;
    row << "| " << fault.name << " | " << Switches(fault) << " | " << rate.baud << " | "
        << m.exchanges << " | " << m.episodes << " | " << (m.episodes ? recovery : "-") << " | "
        << m.failures << " | " << m.writesLost << " | " << m.wrongValueExchanges << " | "
        << (IsSilence(fault) && m.silenceReportedAfter ? std::to_string(m.silenceReportedAfter)
                                                       : "-")
        << " |";
    return row.str();
}

class FaultMatrix : public ::testing::Test {
protected:
    void SetUp() override {
        char dir[] = "/tmp/e2e_matrix_XXXXXX";
        ASSERT_NE(mkdtemp(dir), nullptr);
        dir_ = dir;
    }
    void TearDown() override { rmdir(dir_.c_str()); }
    std::string dir_;
};

// Every fault at both rates with the plug-in given (the build's default one
// when empty): the measurements by fault name, and the table.
std::map<std::string, std::vector<Measured>> RunMatrix(const std::string& dir,
                                                       const std::string& plugin,
                                                       const char* tableVariable) {
    std::string table =
        "| fault | switches (19,200 baud) | baud | exchanges | episodes | exchanges until good "
        "data (mean / max) | failures reported | writes lost beyond the purge | exchanges "
        "showing as good values the controller does not hold | exchanges until silence "
        "reported |\n"
        "|---|---|---|---|---|---|---|---|---|---|\n";
    std::map<std::string, std::vector<Measured>> results;
    for (const Fault& fault : Faults()) {
        for (const Rate& rate : kRates) {
            const std::string link = dir + "/plc";
            const Measured m = RunOne(fault, rate, link, plugin);
            unlink(link.c_str());
            SCOPED_TRACE(std::string(fault.name) + " at " + std::to_string(rate.baud));
            // hostsim never gives up, whatever the line does.
            EXPECT_EQ(m.hostsimExit, 0) << m.plcsimCounters;
            EXPECT_EQ(m.exchanges, kExchanges) << m.plcsimCounters;
            EXPECT_TRUE(m.memoryRead);
            table += Row(fault, rate, m) + "\n";
            results[fault.name].push_back(m);
        }
    }
    std::cout << "\n" << table << std::flush;
    if (const char* path = std::getenv(tableVariable)) std::ofstream(path) << table;
    return results;
}

}  // namespace

TEST_F(FaultMatrix, EveryFaultAtBothRates) {
    auto results = RunMatrix(dir_, "", "ABCL_FAULT_MATRIX_TABLE");

    for (const Measured& m : results["none"]) {
        EXPECT_EQ(m.failures, 0);
        EXPECT_EQ(m.writesLost, 0);
        EXPECT_EQ(m.wrongValueExchanges, 0);
    }
    // The plug-in compares nothing of a reply with its request: a wrong
    // transaction number goes unnoticed and costs nothing.
    for (const Measured& m : results["wrong transaction number"]) {
        EXPECT_EQ(m.failures, 0);
        EXPECT_EQ(m.wrongValueExchanges, 0);
    }
    // A write to a tag the controller lacks is reported good and lost, and
    // the value it put into the image stays on show.
    for (const Measured& m : results["CIP error status"]) {
        EXPECT_GE(m.writesLost, 1);
        EXPECT_GT(m.wrongValueExchanges, 0);
        EXPECT_FALSE(m.recovered);
    }
    // hostsim rides out the far end's restarts.
    for (const Measured& m : results["restart"]) EXPECT_GE(m.lineDownPeriods, 1);
}

#ifdef HOSTSIM_HARDENED_PLUGIN
// The same matrix with the hardened plug-in: whatever the line does, no tag
// shows as good a value the controller does not hold, no write is reported
// good and lost, and a silent controller is reported within retryLimit + 1
// exchanges.
TEST_F(FaultMatrix, HardenedPluginUnderEveryFault) {
    constexpr int kRetryLimit = 3;  // hostsim's default
    auto results = RunMatrix(dir_, HOSTSIM_HARDENED_PLUGIN, "ABCL_FAULT_MATRIX_HARDENED_TABLE");
    for (const auto& [fault, runs] : results) {
        for (const Measured& m : runs) {
            SCOPED_TRACE(fault);
            EXPECT_EQ(m.writesLost, 0);
            EXPECT_EQ(m.wrongValueExchanges, 0);
        }
    }
    for (const Measured& m : results["none"]) EXPECT_EQ(m.failures, 0);
    for (const Measured& m : results["silence"]) {
        EXPECT_GT(m.silenceReportedAfter, 0);
        EXPECT_LE(m.silenceReportedAfter, kRetryLimit + 1);
    }
    // The controller's error replies are failures, not good data.
    for (const Measured& m : results["CIP error status"]) EXPECT_GT(m.failures, 0);
}
#endif
