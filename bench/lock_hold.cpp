// How long the communication thread can be kept waiting for listMutex by a
// list entry point called with a hostile record.
//
//   lock_hold [REPEATS]
//
// For each case, a screen thread makes the call (REPEATS times, default 3)
// while the communication thread calls ComCommunication in a loop, timing
// each call: ComCommunication takes listMutex, so its longest time is the
// longest the entry point held the lock. The first repeat of a case is shown
// apart from the later ones: the first time a process appends a whole
// queue's worth of entries takes several times as long as the later times.
// A call during which the communication thread was
// preempted (an involuntary context switch, as on a machine busy with other
// work) measures the scheduler, not the lock, and is left out and counted.
// Printed as a Markdown table; bench/lock_hold.sh runs it.
#include "ab_controllogix_compactlogix.h"
#include "ab_controllogix_compactlogix_p.h"
#include "fresh_driver.h"

#include <QtCore/QByteArray>
#include <QtCore/QList>
#include <QtCore/QString>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <sys/resource.h>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

ComInfo g_info;

struct Case {
    const char* description;
    int maxCount;
    std::function<void()> prepare;  // not timed, before each call
    std::function<void()> call;
};

double Microseconds(Clock::duration d) {
    return std::chrono::duration<double, std::micro>(d).count();
}

RW_VAR OnceRead(int count) {
    RW_VAR var;
    var.varId = 1;
    var.dataType = ABCL_WORD_B;
    var.addrText = QStringLiteral("7:0");
    var.count = count;
    return var;
}

// 1,000 one-shot reads of the same variable already queued.
void FillOnceQueue() {
    for (int i = 0; i < 1000; ++i) {
        RW_VAR var = OnceRead(1);
        var.addrText = QStringLiteral("9:%1").arg(i);
        AddListOnceReadVar(&var, 0);
    }
}

void FillWriteQueue() {
    QByteArray value(2, '\x11');
    for (int i = 0; i < 1000; ++i)
        SetRegisterData(QString(), ABCL_WORD_B, QStringLiteral("9:%1").arg(i), 1, &value, 1, 3, 0);
}

std::vector<ReadVarItem> g_items;
QList<ReadVarItem*> g_itemList;

void HugeItems(int n) {
    g_items.assign(static_cast<size_t>(n), ReadVarItem());
    g_itemList.clear();
    for (int i = 0; i < n; ++i) {
        g_items[i].dataType = ABCL_WORD_B;
        g_items[i].addrText = QStringLiteral("%1:0").arg(i);
        g_items[i].count = INT_MAX;
        g_itemList.append(&g_items[i]);
    }
}

std::vector<Case> Cases() {
    static QByteArray megabyte(1 << 20, '\x22');
    static QByteArray bits(1 << 20, '\x01');
    return {
        {"AddListOnceReadVar, count INT_MAX, maxCount 1 (65,536 pieces)", 1, [] {},
         [] {
             RW_VAR var = OnceRead(INT_MAX);
             AddListOnceReadVar(&var, 0);
         }},
        {"AddListOnceReadVar, the same, 1,000 reads of the variable queued", 1, FillOnceQueue,
         [] {
             RW_VAR var = OnceRead(INT_MAX);
             AddListOnceReadVar(&var, 0);
         }},
        {"AddListOnceReadVar, count -2147483648, dataType 99", 32, [] {},
         [] {
             RW_VAR var = OnceRead(INT_MIN);
             var.dataType = 99;
             AddListOnceReadVar(&var, 0);
         }},
        {"ReCreatReadVarList, 8 items of count INT_MAX, maxCount 1 (524,288 requests)", 1,
         [] { HugeItems(8); }, [] { ReCreatReadVarList(&g_itemList); }},
        {"SetRegisterData, 1,048,576 bits, 1,000 writes queued", 32, FillWriteQueue,
         [] {
             SetRegisterData(QString(), ABCL_BIT_A, QStringLiteral("3:0/0"), 1, &bits, 1 << 20, 3,
                             0);
         }},
        {"SetRegisterData, 1,048,576 words from a 1 MB array, maxCount 1", 1, [] {},
         [] {
             SetRegisterData(QString(), ABCL_WORD_B, QStringLiteral("7:0"), 1, &megabyte, 1 << 20,
                             3, 0);
         }},
        {"AddListWriteVar, a 1 MB data array, 1,000 writes queued", 32, FillWriteQueue,
         [] {
             RW_VAR var;
             var.dataType = ABCL_WORD_B;
             var.address = 7 * 256;
             var.count = 1 << 19;
             var.data = megabyte;
             AddListWriteVar(&var, 0);
         }},
        {"AddListReadVar, a 1 MB data array, dataType -7", 32, [] {},
         [] {
             RW_VAR var;
             var.dataType = -7;
             var.count = -1;
             var.data = megabyte;
             AddListReadVar(&var);
         }},
    };
}

struct Measured {
    double firstWaitUs = 0;    // the first repeat's
    double longestWaitUs = 0;  // the later repeats
    double longestCallUs = 0;
    long preempted = 0;
};

// Involuntary context switches of the calling thread so far.
long Preemptions() {
    struct rusage usage;
    getrusage(RUSAGE_THREAD, &usage);
    return usage.ru_nivcsw;
}

Measured Run(const Case& c, int repeats) {
    Measured m;
    for (int r = 0; r < repeats; ++r) {
        WireFreshDriver(g_info, c.maxCount);
        c.prepare();
        std::atomic<bool> running{true};
        double longestWait = 0;
        long preempted = 0;
        std::thread communication([&] {
            while (running.load()) {
                const long before = Preemptions();
                const auto start = Clock::now();
                ComCommunication();
                const double wait = Microseconds(Clock::now() - start);
                if (Preemptions() != before) {
                    ++preempted;
                    continue;
                }
                longestWait = std::max(longestWait, wait);
            }
        });
        const auto start = Clock::now();
        c.call();
        const double call = Microseconds(Clock::now() - start);
        running.store(false);
        communication.join();
        if (r == 0)
            m.firstWaitUs = longestWait;
        else
            m.longestWaitUs = std::max(m.longestWaitUs, longestWait);
        m.longestCallUs = std::max(m.longestCallUs, call);
        m.preempted += preempted;
    }
    return m;
}

}  // namespace

int main(int argc, char** argv) {
    const int repeats = argc > 1 ? std::max(1, std::atoi(argv[1])) : 3;
    std::printf(
        "| hostile call | longest wait of ComCommunication (µs), first call | the same, later "
        "calls | whole call (µs) | calls left out (preempted) |\n");
    std::printf("|---|---:|---:|---:|---:|\n");
    for (const Case& c : Cases()) {
        const Measured m = Run(c, repeats);
        std::printf("| %s | %.0f | %.0f | %.0f | %ld |\n", c.description, m.firstWaitUs,
                    m.longestWaitUs, m.longestCallUs, m.preempted);
    }
    return 0;
}
