// The communication thread and the screens' thread at the same time: one runs
// the exchange loop against a controller model while the other reads and
// writes values and queues one-shot reads without pause. Neither may block the
// other for good, and no value may appear that nobody wrote or read.
//
// ABCL_TEST_LABEL_THREAD: also run under ThreadSanitizer.
#include "test_support.h"

#include "linked_controller.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

// Values without a 0x10 byte: replies keep one length between the exchange
// that learns it and the one that is checked against it.
const std::vector<uint16_t> kWords = {0x0000, 0x1234, 0x2345, 0x0102,
                                      0xA5A5, 0x7FFF, 0x8001, 0xFFFF};
const std::vector<uint32_t> kReals = {0x3FC00000u, 0x40400000u, 0xC2C80000u,
                                      0x00000000u, 0x41200000u, 0x3F800000u};

std::atomic<int> g_callbacks{0};
int CountCallback(int, int, int, int) {
    g_callbacks.fetch_add(1, std::memory_order_relaxed);
    return 0;
}

bool IsKnownWord(uint16_t w) {
    return std::find(kWords.begin(), kWords.end(), w) != kWords.end();
}
bool IsKnownReal(uint32_t v) {
    return std::find(kReals.begin(), kReals.end(), v) != kReals.end();
}

class Concurrency : public DriverTest {
protected:
    void SetUp() override {
        DriverTest::SetUp();
        PLC_driver.tns = 0x21;
        g_callbacks = 0;
        RegistCallBackFuncIntf(&CountCallback, 0);
    }

    // Waits for `done` to become true for at most `seconds`; a watchdog
    // against a deadlock, not a timing requirement.
    bool WaitFor(std::atomic<int>& finished, int expected, int seconds) {
        std::unique_lock<std::mutex> lock(doneMutex);
        return doneSignal.wait_for(lock, std::chrono::seconds(seconds),
                                   [&] { return finished.load() == expected; });
    }

    void Finished(std::atomic<int>& finished) {
        std::lock_guard<std::mutex> lock(doneMutex);
        finished.fetch_add(1);
        doneSignal.notify_all();
    }

    std::mutex doneMutex;
    std::condition_variable doneSignal;
};

TEST_F(Concurrency, ExchangeLoopAndScreenAccess_NoDeadlockNoForeignValues) {
    // N6 holds the bits and words of the third list entry.
    replies::LinkedController model(replies::LayoutWith({{'N', 6, 256}}));
    for (size_t i = 0; i < 64; ++i) model.memory.setWord('N', 7, i, kWords[i % kWords.size()]);
    for (size_t i = 0; i < 16; ++i)
        model.memory.setReal(8, i, replies::BitsToFloat(kReals[i % kReals.size()]));
    const peer::PluginApi api = replies::LinkedDriverApi();

    std::vector<ReadVarItem> items(3);
    items[0].dataType = ABCL_WORD_B;
    items[0].addrText = "7:0";
    items[0].count = 10;
    items[1].dataType = ABCL_REAL;
    items[1].addrText = "8:0";
    items[1].count = 8;
    items[2].dataType = ABCL_WORD_B;
    items[2].addrText = "6:0";
    items[2].count = 2;
    QList<ReadVarItem*> list;
    for (auto& item : items) list.append(&item);
    ASSERT_EQ(ReCreatReadVarList(&list), 3);

    std::atomic<bool> loopDone{false};
    std::atomic<int> finished{0};
    std::atomic<long> exchanges{0};
    std::atomic<long> failedExchanges{0};
    std::atomic<int> firstBadResult{0};
    std::atomic<long> screenRounds{0};
    std::atomic<long> foreignValues{0};
    std::atomic<long> overfullQueues{0};
    std::atomic<long> refusedCalls{0};

    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(2);

    std::thread communication([&] {
        // Runs for about two seconds, and on until the other thread has had
        // its turns and a one-shot read has been served (bounded all the same).
        auto keepGoing = [&] {
            return std::chrono::steady_clock::now() < deadline || screenRounds.load() < 200 ||
                   g_callbacks.load() == 0;
        };
        for (long i = 0; i < 2000000 && keepGoing(); ++i) {
            const replies::Turn turn = replies::TurnLoop(api, model);
            if (!turn.sent) continue;
            model.log.clear();
            const int result = turn.result;
            exchanges.fetch_add(1, std::memory_order_relaxed);
            if (result != 1) {
                failedExchanges.fetch_add(1, std::memory_order_relaxed);
                int none = 0;
                firstBadResult.compare_exchange_strong(none, result);
            }
        }
        loopDone = true;
        Finished(finished);
    });

    std::thread screens([&] {
        for (long i = 0; i < 5000000 && !loopDone.load(); ++i) {
            const int element = static_cast<int>(i % 10);
            const uint16_t word = kWords[static_cast<size_t>(i * 7) % kWords.size()];
            QByteArray bytes;
            replies::AppendLe16(bytes, word);
            const QString wordAddress = QString("7:%1").arg(element);
            const int queued =
                SetRegisterData(QString(), ABCL_WORD_B, wordAddress, 1, &bytes, 1, 3, 0);
            if (queued <= 0) refusedCalls.fetch_add(1);
            if (queued > 1024) overfullQueues.fetch_add(1);

            QByteArray realBytes;
            replies::AppendLe32(realBytes, kReals[static_cast<size_t>(i * 5) % kReals.size()]);
            const int queuedReal = SetRegisterData(
                QString(), ABCL_REAL, QString("8:%1").arg(element % 4), 1, &realBytes, 2, 4, 0);
            if (queuedReal <= 0) refusedCalls.fetch_add(1);
            if (queuedReal > 1024) overfullQueues.fetch_add(1);

            if (i % 8 == 0) {
                QByteArray bit(1, static_cast<char>(i & 1));
                if (SetRegisterData(QString(), ABCL_BIT_B, QString("6:0/%1").arg(i % 16), 1, &bit,
                                    1, 2, 0) > 1024)
                    overfullQueues.fetch_add(1);
            }
            if (i % 16 == 0) {
                RW_VAR once;
                once.varId = 50;
                once.varSubId = static_cast<int>(i % 4);
                once.dataType = ABCL_WORD_B;
                once.addrText = "7:0";
                once.count = 4;
                const int length = AddListOnceReadVar(&once, 0);
                if (length <= 0) refusedCalls.fetch_add(1);
                if (length > 1024) overfullQueues.fetch_add(1);
            }

            QByteArray words;
            if (GetRegisterData(0, ABCL_WORD_B, "7:0", 0, &words, 10) != 1 || words.size() != 20) {
                refusedCalls.fetch_add(1);
            } else {
                for (int k = 0; k < 10; ++k) {
                    const uint16_t w =
                        static_cast<uint16_t>(static_cast<uint8_t>(words[2 * k]) |
                                              (static_cast<uint8_t>(words[2 * k + 1]) << 8));
                    if (!IsKnownWord(w)) foreignValues.fetch_add(1);
                }
            }
            QByteArray reals;
            if (GetRegisterData(0, ABCL_REAL, "8:0", 0, &reals, 8) != 1 || reals.size() != 16) {
                refusedCalls.fetch_add(1);
            } else {
                for (int k = 0; k < 4; ++k) {
                    uint32_t v = 0;
                    for (int b = 0; b < 4; ++b)
                        v |= uint32_t(static_cast<uint8_t>(reals[4 * k + b])) << (8 * b);
                    // Elements never read nor written yet are still zero.
                    if (!IsKnownReal(v)) foreignValues.fetch_add(1);
                }
            }
            QByteArray bits;
            if (GetRegisterData(0, ABCL_BIT_B, "6:0/0", 0, &bits, 16) != 1)
                refusedCalls.fetch_add(1);
            for (char c : bits)
                if (c != 0 && c != 1) foreignValues.fetch_add(1);
            screenRounds.fetch_add(1, std::memory_order_relaxed);
        }
        Finished(finished);
    });

    if (!WaitFor(finished, 2, 60)) {
        std::fprintf(stderr, "deadlock: the threads did not finish within 60 s\n");
        std::fflush(nullptr);
        std::_Exit(3);
    }
    communication.join();
    screens.join();

    RecordProperty("exchanges", std::to_string(exchanges.load()));
    RecordProperty("screenRounds", std::to_string(screenRounds.load()));
    EXPECT_GT(exchanges.load(), 0);
    EXPECT_GT(screenRounds.load(), 0);
    EXPECT_EQ(failedExchanges.load(), 0) << "first bad result " << firstBadResult.load();
    EXPECT_EQ(foreignValues.load(), 0);
    EXPECT_EQ(overfullQueues.load(), 0);
    EXPECT_EQ(refusedCalls.load(), 0);
    EXPECT_LE(PLC_driver.writeList.size(), 1024);
    EXPECT_LE(PLC_driver.onceReadList.size(), 1024);
    EXPECT_LE(PLC_driver.protocolList.size(), 1);
    EXPECT_EQ(PLC_driver.commError, 0);
    EXPECT_GT(g_callbacks.load(), 0) << "one-shot reads were served";
    for (int k = 0; k < 10; ++k) EXPECT_TRUE(IsKnownWord(model.Word('N', 7, k))) << k;
}

}  // namespace
