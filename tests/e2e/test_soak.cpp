// A long run on a clean line: cyclic reads of every kind, writes, one-shot
// reads, the controller's values and live tags changing all along, and not
// one exchange may fail. ABCL_E2E_SOAK_EXCHANGES sets the number of
// exchanges (3,000 by default; fewer where the run is emulated).
#include "e2e_host.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <map>

namespace e2e {
namespace {

using Soak = EndToEnd;

int SoakExchanges() {
    const char* text = std::getenv("ABCL_E2E_SOAK_EXCHANGES");
    const int n = text ? std::atoi(text) : 0;
    return n > 0 ? n : 3000;
}

// Word values that carry 0x10 bytes now and then.
uint16_t WordValue(int k) {
    return static_cast<uint16_t>(k * 0x1001 + 0x10);
}

TEST_F(Soak, ThousandsOfExchangesOnACleanLineAllSucceed) {
    const int total = SoakExchanges();
    // The last exchanges queue no new work, so that everything queued is
    // served before the final comparison.
    const int quietTail = std::min(100, total / 3);

    SimWords('N', 7, 0, {0x1010, 0x0010, 0x1000, 3, 4, 5, 6, 7, 8, 9});
    SimWords('B', 3, 0, {0x1010, 1, 0x8010, 0});
    SimWords('B', 3, 4, {0x0008});
    SimReals(8, 0, {RealBits(1.5f), 0x41100010u, RealBits(-2.25f), 0x10101010u});
    const int requests = SetCyclicList({{ABCL_WORD_B, "7:0", 10},
                                        {ABCL_WORD_A, "3:0", 4},
                                        {ABCL_REAL, "8:0", 5},
                                        {ABCL_WORD_B, "10:0", 2},
                                        {ABCL_REAL, "9:0", 2},
                                        {ABCL_BIT_A, "3:4/3", 1}});
    ASSERT_EQ(requests, 6);

    std::map<int, uint16_t> words;  // N7:100.. as last written
    std::map<int, uint32_t> reals;  // F8:20..
    std::map<int, int> bits;        // B3:30/bit
    int onceReads = 0;
    int writeSteps = 0;
    int failures = 0;
    std::string firstFailure;
    const peer::ControllerCounters before = controller->counters();
    int sent = 0;
    bool pending = false;  // a read has learnt its length and goes out again
    const auto started = std::chrono::steady_clock::now();

    for (int i = 0; i < total; ++i) {
        const bool queueWork = i < total - quietTail;
        if (queueWork && i % 23 == 0) {
            const int k = i / 23;
            const int element = 100 + k % 20;
            const std::string address = "7:" + std::to_string(element);
            words[element] = WordValue(k);
            EXPECT_GT(WriteWords(ABCL_WORD_B, address.c_str(), {WordValue(k)}, 3), 0);
        }
        if (queueWork && i % 97 == 0) {
            const int k = i / 97;
            const int element = 20 + k % 8;
            const std::string address = "8:" + std::to_string(element);
            const uint32_t value = k % 2 ? RealBits(0.5f * static_cast<float>(k)) : 0x10100000u + k;
            reals[element] = value;
            EXPECT_GT(WriteReals(address.c_str(), {value}, 5), 0);
        }
        if (queueWork && i % 61 == 0) {
            const int k = i / 61;
            const std::string address = "3:30/" + std::to_string(k % 16);
            bits[k % 16] = k % 2;
            EXPECT_GT(WriteBit(ABCL_BIT_A, address.c_str(), k % 2 == 1, 1), 0);
        }
        if (queueWork && i % 150 == 75) {
            EXPECT_GT(OnceRead(ABCL_WORD_B, "7:100", 20, 9, i), 0);
            ++onceReads;
        }
        // The controller's own values change only between requests: a value
        // that gains or loses a 0x10 byte between a read's two exchanges
        // changes the reply's length, which the driver rightly refuses.
        if (!pending && i % 7 == 0) {
            EXPECT_TRUE(memory.setWord('N', 7, static_cast<std::size_t>(i % 10), WordValue(i)));
            memory.tick(100);
        }

        const Step s = Turn();
        if (!s.sent) {
            ++failures;
            if (firstFailure.empty())
                firstFailure = "exchange " + std::to_string(i) + ": nothing to send";
            continue;
        }
        ++sent;
        writeSteps += s.isWrite() ? 1 : 0;
        pending = s.learning;
        if (s.result != 1 || s.outcome != LineOutcome::kReply) {
            ++failures;
            if (firstFailure.empty())
                firstFailure = "exchange " + std::to_string(i) + ": result " +
                               std::to_string(s.result) + ", " + LineOutcomeName(s.outcome) +
                               ", reply " + ToHex(s.received);
        }
    }
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    RecordProperty("exchanges", sent);
    RecordProperty("exchanges_per_second", static_cast<int>(sent / (seconds > 0 ? seconds : 1)));

    EXPECT_EQ(failures, 0) << firstFailure;
    EXPECT_EQ(sent, total);
    EXPECT_GT(writeSteps, 0);

    const peer::ControllerCounters after = controller->counters();
    EXPECT_EQ(after.framesReceived - before.framesReceived, static_cast<uint64_t>(sent));
    EXPECT_EQ(after.repliesSent - before.repliesSent, static_cast<uint64_t>(sent));
    EXPECT_EQ(after.badFrames, 0u);
    EXPECT_EQ(after.naks, 0u);
    EXPECT_EQ(after.ignored, 0u);

    // Everything queued was served: every one-shot read called back good,
    // and the controller holds the last value written to each place.
    ASSERT_EQ(Callbacks().size(), static_cast<std::size_t>(onceReads));
    for (const Callback& c : Callbacks()) {
        EXPECT_EQ(c.varId, 9);
        EXPECT_EQ(c.status, 1);
    }
    for (const auto& [element, value] : words)
        EXPECT_EQ(SimWordsAt('N', 7, element, 1), std::vector<uint16_t>{value}) << element;
    for (const auto& [element, value] : reals)
        EXPECT_EQ(SimRealsAt(8, element, 1), std::vector<uint32_t>{value}) << element;
    for (const auto& [bit, value] : bits)
        EXPECT_EQ(memory.bit('B', 3, 30, bit).value_or(!value), value == 1) << bit;

    // A last pass from a fresh request: the image matches the controller.
    if (pending) {
        ASSERT_EQ(Turn().result, 1);
    }
    RunPass();
    EXPECT_EQ(ImageWords(ABCL_WORD_B, "7:0", 10), SimWordsAt('N', 7, 0, 10));
    EXPECT_EQ(ImageWords(ABCL_WORD_A, "3:0", 5), SimWordsAt('B', 3, 0, 5));
    EXPECT_EQ(ImageReals("8:0", 4), SimRealsAt(8, 0, 4));
    EXPECT_EQ(ImageWords(ABCL_WORD_B, "10:0", 2), SimWordsAt('N', 10, 0, 2));
    EXPECT_EQ(ImageReals("9:0", 1), SimRealsAt(9, 0, 1));
}

}  // namespace
}  // namespace e2e
