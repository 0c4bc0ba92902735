// Memory running out inside the driver. A full cycle of the host's calls (a
// rebuild of the cyclic list, cyclic passes, a write, a one-shot read, a bit
// write, a copy out of the image) is run once to count the allocations the
// driver makes; then, for every k up to that count, the cycle runs again with
// the k-th allocation failing. No exception may escape an entry point into
// the host, and once memory is back the driver must work as before: a fresh
// rebuild reads the controller's values, and a write reaches it.
//
// Each k runs in a child process, so that a failure Qt could not recover
// from would show as that child dying, with the call it died in named.
#include "test_support.h"

#include "fresh_driver.h"
#include "linked_controller.h"
#include "peer/controller.h"
#include "peer/tag_memory.h"

#include <sys/wait.h>
#include <unistd.h>

#include <QtCore/QByteArray>
#include <QtCore/QList>
#include <QtCore/QString>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define ABCL_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define ABCL_SANITIZED 1
#endif
#endif

#if !defined(ABCL_SANITIZED)
namespace {

// Counting and failing allocations made while a driver call runs.
bool g_counting = false;
long g_allocations = 0;
long g_failAt = -1;
const char* g_call = "";
int g_siteFd = -1;  // where the failing call is named, for the parent to read

bool FailThisOne() {
    if (!g_counting) return false;
    if (++g_allocations != g_failAt) return false;
    // Named before failing (with write, which does not allocate), so that a
    // child dying from here on can be told apart by the call it was in.
    if (g_siteFd >= 0 && write(g_siteFd, g_call, std::strlen(g_call)) < 0) g_siteFd = -1;
    return true;
}

}  // namespace

// The test program's allocation functions take precedence over the C
// library's for the whole process, Qt's included; each passes the call on
// unless it is the one to fail.
extern "C" {
void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* __libc_realloc(void*, size_t);
void __libc_free(void*);

void* malloc(size_t n) {
    return FailThisOne() ? nullptr : __libc_malloc(n);
}
void* calloc(size_t n, size_t size) {
    return FailThisOne() ? nullptr : __libc_calloc(n, size);
}
void* realloc(void* p, size_t n) {
    return FailThisOne() ? nullptr : __libc_realloc(p, n);
}
void free(void* p) {
    __libc_free(p);
}
}

namespace {

// A controller answering in this process, and the host's records.
struct Rig {
    ComInfo info{};
    peer::TagMemory memory{peer::TagMemory::DefaultLayout()};
    peer::Controller controller{memory};
    std::vector<ReadVarItem> items{3};
    QList<ReadVarItem*> list;
    const QString cyclicText = QStringLiteral("7:0");
    const QString writeText = QStringLiteral("7:60");
    const QString onceText = QStringLiteral("7:80");
    const QString bitText = QStringLiteral("3:0/5");
    QByteArray writeValue = QByteArray("\x34\x12\x78\x56", 4);
    QByteArray bitValue = QByteArray("\x01", 1);
    QByteArray out;
    bool escaped = false;

    Rig() {
        WireFreshDriver(info, 32);
        for (int i = 0; i < 10; ++i) memory.setWord('N', 7, i, static_cast<uint16_t>(0x3000 + i));
        const struct {
            int type;
            const char* text;
            int count;
        } vars[] = {{ABCL_WORD_B, "7:0", 10}, {ABCL_BIT_A, "3:0/0", 16}, {ABCL_REAL, "8:0", 4}};
        for (int i = 0; i < 3; ++i) {
            items[i].dataType = static_cast<uint8_t>(vars[i].type);
            items[i].addrText = QString::fromLatin1(vars[i].text);
            items[i].count = vars[i].count;
            list.append(&items[i]);
        }
    }

    // Runs one driver call with its allocations counted (and perhaps one
    // failing); an exception reaching here has escaped the entry point.
    template <typename Call>
    void drive(const char* name, Call call) {
        g_call = name;
        g_counting = true;
        try {
            call();
        } catch (...) {
            escaped = true;
        }
        g_counting = false;
    }

    void turns(int n) {
        for (int i = 0; i < n; ++i) {
            Protocol* request = nullptr;
            drive("ComCommunication", [&] { request = ComCommunication(); });
            if (!request) continue;
            const QByteArray reply = replies::AnswerOf(controller, request->frame);
            drive("DataCom", [&] { DataCom(reply, reply.size()); });
        }
    }

    void cycle() {
        drive("ReCreatReadVarList", [&] { ReCreatReadVarList(&list); });
        turns(8);
        drive("SetRegisterData (words)",
              [&] { SetRegisterData(QString(), ABCL_WORD_B, writeText, 1, &writeValue, 2, 3, 0); });
        turns(3);
        RW_VAR once;
        once.varId = 5;
        once.dataType = ABCL_WORD_B;
        once.addrText = onceText;
        once.count = 2;
        drive("AddListOnceReadVar", [&] { AddListOnceReadVar(&once, 0); });
        turns(3);
        drive("SetRegisterData (bit)",
              [&] { SetRegisterData(QString(), ABCL_BIT_A, bitText, 1, &bitValue, 1, 4, 0); });
        turns(3);
        drive("GetRegisterData", [&] { GetRegisterData(0, ABCL_WORD_B, cyclicText, 0, &out, 10); });
    }

    // After the failing cycle, with memory back: a rebuild reads the
    // controller's words, and a write reaches the controller.
    bool worksAgain() {
        memory.setWord('N', 7, 60, 0);
        cycle();
        turns(6);
        out.clear();
        GetRegisterData(0, ABCL_WORD_B, cyclicText, 0, &out, 10);
        if (out.size() != 20) return false;
        for (int i = 0; i < 10; ++i) {
            const int word =
                static_cast<uint8_t>(out[2 * i]) | (static_cast<uint8_t>(out[2 * i + 1]) << 8);
            if (word != 0x3000 + i) return false;
        }
        return memory.word('N', 7, 60).value_or(0) == 0x1234 && !escaped;
    }
};

enum ChildResult { kRecovered = 0, kEscaped = 1, kNotRecovered = 2 };

int RunFailingCycle(long failAt) {
    Rig rig;
    g_allocations = 0;
    g_failAt = failAt;
    rig.cycle();
    g_failAt = -1;
    if (rig.escaped) return kEscaped;
    return rig.worksAgain() ? kRecovered : kNotRecovered;
}

long AllocationsInACycle() {
    Rig rig;
    g_allocations = 0;
    g_failAt = -1;
    rig.cycle();
    return rig.escaped ? -1 : g_allocations;
}

}  // namespace
#endif

namespace {

TEST(AllocationFailure, EveryFailingAllocationOfACycle_NoExceptionEscapesAndTheDriverRecovers) {
#if defined(ABCL_SANITIZED)
    GTEST_SKIP() << "the sanitizers own the allocation functions";
#else
    const long total = AllocationsInACycle();
    ASSERT_GT(total, 20) << "the cycle should allocate";
    RecordProperty("allocations_in_a_cycle", static_cast<int>(total));
    {
        // Without a failure the cycle itself works.
        Rig rig;
        rig.cycle();
        ASSERT_TRUE(rig.worksAgain());
    }
    for (long k = 1; k <= total; ++k) {
        int site[2];
        ASSERT_EQ(pipe(site), 0);
        std::fflush(nullptr);
        const pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            close(site[0]);
            g_siteFd = site[1];
            _exit(RunFailingCycle(k));
        }
        close(site[1]);
        char call[128] = {};
        const ssize_t named = read(site[0], call, sizeof call - 1);
        close(site[0]);
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        ASSERT_GT(named, 0) << "allocation " << k << " was never made";
        ASSERT_TRUE(WIFEXITED(status)) << "allocation " << k << " of " << total << ", in " << call
                                       << ": the process died (signal " << WTERMSIG(status) << ")";
        EXPECT_NE(WEXITSTATUS(status), kEscaped)
            << "allocation " << k << ", in " << call << ": an exception escaped an entry point";
        EXPECT_NE(WEXITSTATUS(status), kNotRecovered)
            << "allocation " << k << ", in " << call << ": the driver did not work again";
    }
#endif
}

}  // namespace
