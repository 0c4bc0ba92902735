// The plug-in in a crowded panel runtime. A foreign library exporting the
// same 13 names is loaded first, then two copies of the plug-in (two file
// names), all with RTLD_GLOBAL, so each name resolves to the foreign library
// in the global scope. Each copy is wired to its own settings record,
// callback and controller, and both run at the same time on threads of their
// own. Nothing may cross: each copy's cyclic list, queues, image, callbacks
// and counters stay its own, and the foreign library is never called.
#include "../linked_controller.h"
#include "ab_controllogix_compactlogix.h"
#include "peer/controller.h"
#include "peer/host_loop.h"
#include "peer/tag_memory.h"

#include <gtest/gtest.h>

#include <QtCore/QByteArray>
#include <QtCore/QList>
#include <QtCore/QString>

#include <dlfcn.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

// Copies the plug-in to `to`: the same library under another file name is
// loaded as a second, independent library.
bool CopyFile(const std::string& from, const std::string& to) {
    std::ifstream in(from, std::ios::binary);
    std::ofstream out(to, std::ios::binary);
    out << in.rdbuf();
    return in.good() && out.good();
}

void* LoadGlobally(const std::string& path) {
    return dlopen(path.c_str(), RTLD_NOW | RTLD_GLOBAL);
}

// The entry points of one loaded library, looked up in that library.
bool Resolve(void* handle, peer::PluginApi* api) {
    bool all = true;
#define ABCL_RESOLVE(name)                                                   \
    api->name = reinterpret_cast<decltype(api->name)>(dlsym(handle, #name)); \
    all = all && api->name != nullptr;
    PEER_PLUGIN_ENTRY_POINTS(ABCL_RESOLVE)
#undef ABCL_RESOLVE
    return all;
}

// One-shot read completions, by the host context of the copy that made them.
struct Completions {
    std::mutex mutex;
    std::vector<std::pair<int, int>> seen;  // (hostContext, varId)
};
Completions g_completions;

int OnceReadDone(int hostContext, int varId, int /*varSubId*/, int /*status*/) {
    std::lock_guard<std::mutex> lock(g_completions.mutex);
    g_completions.seen.emplace_back(hostContext, varId);
    return 0;
}

// One copy of the plug-in with everything it is wired to.
struct Copy {
    peer::PluginApi api;
    ComInfo info{};
    peer::TagMemory memory{peer::TagMemory::DefaultLayout()};
    peer::Controller controller{memory};
    std::vector<ReadVarItem> items;
    QList<ReadVarItem*> list;
    int rebuilt = -1;
    int writeQueued = -1;
    int onceQueued = -1;

    Copy(int hostContext, uint16_t base) {
        info.maxCount = 32;
        info.defaultStation = 1;
        info.retryLimit = 2;
        info.writeMode = 2;
        info.hostContext = hostContext;
        for (int i = 0; i < 10; ++i) memory.setWord('N', 7, i, static_cast<uint16_t>(base + i));
        items.resize(2);
        items[0].dataType = ABCL_WORD_B;
        items[0].addrText = QStringLiteral("7:0");
        items[0].count = 10;
        items[1].dataType = ABCL_WORD_B;
        items[1].addrText = QStringLiteral("7:100");
        items[1].count = 4;
        for (ReadVarItem& item : items) list.append(&item);
    }

    QByteArray answer(const QByteArray& frame) { return replies::AnswerOf(controller, frame); }

    // The host's start-up, then its loop: a write and a one-shot read handed
    // in on the way, as screens do.
    void run(uint16_t written, int onceVarId) {
        api.SetComInfo(&info);
        api.RegistCallBackFuncIntf(&OnceReadDone, 0);
        rebuilt = api.ReCreatReadVarList(&list);
        for (int turn = 0; turn < 400; ++turn) {
            if (turn == 50) {
                QByteArray value(2, '\0');
                value[0] = static_cast<char>(written & 0xFF);
                value[1] = static_cast<char>(written >> 8);
                writeQueued = api.SetRegisterData(QString(), ABCL_WORD_B, QStringLiteral("7:50"), 1,
                                                  &value, 1, 3, 0);
            }
            if (turn == 100) {
                RW_VAR once;
                once.varId = onceVarId;
                once.dataType = ABCL_WORD_B;
                once.addrText = QStringLiteral("7:200");
                once.count = 2;
                onceQueued = api.AddListOnceReadVar(&once, 0);
            }
            Protocol* request = api.ComCommunication();
            if (!request) continue;
            const QByteArray reply = answer(request->frame);
            api.DataCom(reply, reply.size());
        }
    }

    uint16_t imageWord(int element) {
        QByteArray out;
        api.GetRegisterData(0, ABCL_WORD_B, QStringLiteral("7:%1").arg(element), 0, &out, 1);
        if (out.size() < 2) return 0xDEAD;
        return static_cast<uint16_t>(static_cast<uint8_t>(out[0]) |
                                     (static_cast<uint8_t>(out[1]) << 8));
    }
};

class CrowdedRuntime : public ::testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/abcl-crowded-XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        folder_ = pattern;
        const std::string first = folder_ + "/libfirst.so";
        const std::string second = folder_ + "/libsecond.so";
        ASSERT_TRUE(CopyFile(ABCL_PLUGIN_PATH, first));
        ASSERT_TRUE(CopyFile(ABCL_PLUGIN_PATH, second));
        foreign_ = LoadGlobally(ABCL_FOREIGN_DRIVER_PATH);
        ASSERT_NE(foreign_, nullptr) << dlerror();
        firstHandle_ = LoadGlobally(first);
        ASSERT_NE(firstHandle_, nullptr) << dlerror();
        secondHandle_ = LoadGlobally(second);
        ASSERT_NE(secondHandle_, nullptr) << dlerror();
    }
    void TearDown() override {
        for (void* handle : {secondHandle_, firstHandle_, foreign_})
            if (handle) dlclose(handle);
        if (!folder_.empty()) {
            std::remove((folder_ + "/libfirst.so").c_str());
            std::remove((folder_ + "/libsecond.so").c_str());
            rmdir(folder_.c_str());
        }
    }
    int foreignCalls() const {
        using Count = int (*)();
        const auto count = reinterpret_cast<Count>(dlsym(foreign_, "ForeignDriverCalls"));
        return count ? count() : -1;
    }

    std::string folder_;
    void* foreign_ = nullptr;
    void* firstHandle_ = nullptr;
    void* secondHandle_ = nullptr;
};

// The global scope really does put the foreign library first: a lookup by
// name without a handle finds it, so any call through the global scope would
// reach it.
TEST_F(CrowdedRuntime, TheGlobalScopeResolvesTheNamesToTheForeignLibrary) {
    void* global = dlsym(RTLD_DEFAULT, "AddListReadVar");
    EXPECT_EQ(global, dlsym(foreign_, "AddListReadVar"));
}

TEST_F(CrowdedRuntime, TwoCopiesRunningAtOnceShareNothing) {
    Copy first(101, 0x1100);
    Copy second(202, 0x2200);
    ASSERT_TRUE(Resolve(firstHandle_, &first.api));
    ASSERT_TRUE(Resolve(secondHandle_, &second.api));
    ASSERT_NE(reinterpret_cast<void*>(first.api.ComCommunication),
              reinterpret_cast<void*>(second.api.ComCommunication));
    {
        std::lock_guard<std::mutex> lock(g_completions.mutex);
        g_completions.seen.clear();
    }

    std::thread a([&first] { first.run(0x1234, 7); });
    std::thread b([&second] { second.run(0x5678, 9); });
    a.join();
    b.join();

    // Each rebuild built its own two requests, in its own library.
    EXPECT_EQ(first.rebuilt, 2);
    EXPECT_EQ(second.rebuilt, 2);
    // Each write went into its own queue: the first in an empty queue.
    EXPECT_EQ(first.writeQueued, 1);
    EXPECT_EQ(second.writeQueued, 1);
    EXPECT_GE(first.onceQueued, 1);
    EXPECT_GE(second.onceQueued, 1);
    // Each image holds its own controller's words, and each controller
    // received only its own host's write.
    for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(first.imageWord(i), 0x1100 + i) << i;
        EXPECT_EQ(second.imageWord(i), 0x2200 + i) << i;
    }
    EXPECT_EQ(first.memory.word('N', 7, 50).value_or(0), 0x1234);
    EXPECT_EQ(second.memory.word('N', 7, 50).value_or(0), 0x5678);
    // Each callback came from its own copy, for its own variable.
    {
        std::lock_guard<std::mutex> lock(g_completions.mutex);
        const std::vector<std::pair<int, int>> expected{{101, 7}, {202, 9}};
        std::vector<std::pair<int, int>> seen = g_completions.seen;
        std::sort(seen.begin(), seen.end());
        EXPECT_EQ(seen, expected);
    }
    // The foreign library never received a call.
    EXPECT_EQ(foreignCalls(), 0);
}

}  // namespace
