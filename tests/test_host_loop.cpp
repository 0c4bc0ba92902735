// The built plug-in as a host sees it: loaded with dlopen, reached only through
// its 13 exported entry points, driven by the host's communication loop against
// a small controller model that answers from its own memory.
//
// The loaded plug-in has its own driver object, separate from the one linked
// into this test program; everything here goes through the entry points.
#include "ab_controllogix_compactlogix.h"
#include "ab_controllogix_compactlogix_p.h"
#include "test_support.h"

#include "linked_controller.h"

#include "peer/cip.h"
#include "peer/host_loop.h"

#include <cxxabi.h>
#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace {

using peer::TagRequest;
using replies::Framed;
using replies::LeValues;
using replies::LeWords;
using replies::LinkedController;

const char* const kEntryPoints[] = {
    "FlashLocalRegister", "SetComInfo",      "RegistCallBackFuncIntf", "QueryFinishFlag",
    "ComCommunication",   "DataCom",         "PLCAddressChangeIntef",  "AddListReadVar",
    "ReCreatReadVarList", "AddListWriteVar", "AddListOnceReadVar",     "GetRegisterData",
    "SetRegisterData"};

struct CallbackCall {
    int context, varId, varSubId, status;
};
std::vector<CallbackCall> g_calls;
int HostCallback(int context, int varId, int varSubId, int status) {
    g_calls.push_back({context, varId, varSubId, status});
    return 0;
}

int CallbacksFor(int varId) {
    int n = 0;
    for (const auto& c : g_calls) n += c.varId == varId ? 1 : 0;
    return n;
}

// Body of a direct-mode request (from DST up to the byte before DLE ETX).
QByteArray RequestBody(uint8_t tns, const char* fromService) {
    QByteArray body = Hex("00 00 0B 00");
    body.append(static_cast<char>(tns));
    body.append(Hex("00 00 00 0A 02 20 02 24 01 01 00 04 00"));
    body.append(Hex(fromService));
    return body;
}

using MaybeRequest = std::optional<TagRequest>;

class HostLoop : public ::testing::Test {
protected:
    void SetUp() override {
        g_calls.clear();
        std::string problem;
        ASSERT_TRUE(plugin.load(ABCL_PLUGIN_PATH, &problem)) << problem;
        DefaultSettings(info);
        info.hostContext = 31337;
        info.startFlagA = 7;
        info.startFlagB = 7;
    }

    const peer::PluginApi& api() const { return plugin.api(); }

    // One turn of the host's loop: take the next request, let the controller
    // answer it (or not), hand the reply over.
    replies::Turn Turn(const std::function<void(const TagRequest&)>& beforeReply = {}) {
        return replies::TurnLoop(api(), model, beforeReply);
    }

    // Turns of the loop with a healthy controller; every exchange must succeed.
    void RunGood(int turns) {
        for (int i = 0; i < turns; ++i) {
            const replies::Turn s = Turn();
            ASSERT_TRUE(s.sent) << "turn " << i;
            ASSERT_EQ(s.result, 1) << "turn " << i;
        }
    }

    // Turns until a request matching `match` has been answered; returns that turn.
    replies::Turn RunUntil(const std::function<bool(const MaybeRequest&)>& match, int limit = 40) {
        for (int i = 0; i < limit; ++i) {
            const replies::Turn s = Turn();
            EXPECT_TRUE(s.sent);
            if (s.sent && match(s.request)) return s;
            EXPECT_EQ(s.result, 1);
        }
        ADD_FAILURE() << "request not seen within " << limit << " turns";
        return replies::Turn();
    }

    QByteArray Get(int dataType, const char* address, int count) {
        QByteArray out;
        EXPECT_EQ(api().GetRegisterData(0, dataType, address, 0, &out, count), 1);
        return out;
    }

    int Set(int dataType, const char* address, const QByteArray& values, int count, int varId,
            int station = 1) {
        QByteArray in = values;
        return api().SetRegisterData(QString(), dataType, address, station, &in, count, varId, 0);
    }

    int OnceRead(int varId, int varSubId, const char* address, int count, int station = 1) {
        RW_VAR v;
        v.varId = varId;
        v.varSubId = varSubId;
        v.dataType = ABCL_WORD_B;
        v.addrText = address;
        v.count = count;
        v.station = station;
        return api().AddListOnceReadVar(&v, 0);
    }

    static bool IsN7(const MaybeRequest& r, uint8_t service, uint32_t element) {
        return r && r->service == service && r->path.letter == 'N' && r->path.file == 7 &&
               r->path.element == element;
    }
    static bool IsWordWrite(const MaybeRequest& r, uint32_t element) {
        return IsN7(r, peer::cip::kWriteTagFragmented, element);
    }
    static bool IsWordRead(const MaybeRequest& r, uint32_t element) {
        return IsN7(r, peer::cip::kReadTagFragmented, element);
    }
    uint16_t N7(int element) const { return model.Word('N', 7, element); }

    peer::Plugin plugin;
    ComInfo info;
    LinkedController model;
};

TEST(PluginExports, AllThirteenEntryPointsResolveByName) {
    void* handle = dlopen(ABCL_PLUGIN_PATH, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(handle, nullptr) << dlerror();
    for (const char* name : kEntryPoints) EXPECT_NE(dlsym(handle, name), nullptr) << name;
    dlclose(handle);
}

std::string Demangle(const std::string& name) {
    int status = 0;
    std::unique_ptr<char, void (*)(void*)> text(
        abi::__cxa_demangle(name.c_str(), nullptr, nullptr, &status), std::free);
    return status == 0 && text ? std::string(text.get()) : name;
}

TEST(PluginExports, DynamicSymbolTableHoldsExactlyTheEntryPoints) {
    const std::string command =
        std::string("nm -D --defined-only '") + ABCL_PLUGIN_PATH + "' 2>/dev/null";
    FILE* pipe = popen(command.c_str(), "r");
    if (!pipe) GTEST_SKIP() << "cannot run nm";
    std::vector<std::pair<char, std::string>> symbols;
    char line[4096];
    while (std::fgets(line, sizeof line, pipe)) {
        std::istringstream fields(line);
        std::vector<std::string> parts;
        std::string part;
        while (fields >> part) parts.push_back(part);
        if (parts.size() < 2) continue;
        std::string name = parts.back();
        const auto at = name.find('@');
        if (at != std::string::npos) name.erase(at);
        symbols.emplace_back(parts[parts.size() - 2][0], name);
    }
    const int status = pclose(pipe);
    if (symbols.empty()) GTEST_SKIP() << "nm is not available (status " << status << ")";

    const std::set<std::string> entryPoints(std::begin(kEntryPoints), std::end(kEntryPoints));
    // Names of the driver's own types, objects and internal functions: none of
    // them may be reachable from outside, not even inside a template instance.
    const char* const internalNames[] = {"AB_ControlLogix",
                                         "PLC_driver",
                                         "RW_VAR",
                                         "Protocol",
                                         "EXTENDVAR",
                                         "ComInfo",
                                         "ReadVarItem",
                                         "ReadAnalog",
                                         "WriteAnalog",
                                         "WriteBool",
                                         "WriteRegister",
                                         "ReadRegister",
                                         "CheckGetData",
                                         "NotFixReturnCheck",
                                         "SaveWordTo",
                                         "SaveToLocalDataErea",
                                         "SaveT_C",
                                         "StringAddressToInt",
                                         "WhetherGroup",
                                         "Bubble_Sort",
                                         "Remote_",
                                         "WriteDataToLocal",
                                         "CalLRC",
                                         "CalSUM",
                                         "CalCRC",
                                         "CalXOR",
                                         "DealDataOf",
                                         "GetDriverReturnValue",
                                         "SwitchErrorReturn",
                                         "passRetValue",
                                         "FrameWriter",
                                         "QueueProtocol",
                                         "settings()",
                                         "ResetDriverForTest",
                                         "ExtendFindSameVar",
                                         "GetBitFromUS",
                                         "GetWordFrom",
                                         "SetBitToUS",
                                         "SetWordTo",
                                         "DigitalToASCII",
                                         "ASCIIToDigital",
                                         "commError"};

    std::set<std::string> found;
    for (const auto& symbol : symbols) {
        const std::string& name = symbol.second;
        if (entryPoints.count(name)) {
            EXPECT_EQ(symbol.first, 'T') << name << " should be code";
            found.insert(name);
            continue;
        }
        // A plain C name that is not an entry point is an accidental export
        // (toolchain symbols such as _init, _fini, _end start with '_').
        EXPECT_EQ(name[0], '_') << "unexpected export " << name;
        if (name.rfind("_Z", 0) == 0) {
            const std::string readable = Demangle(name);
            for (const char* internal : internalNames)
                EXPECT_EQ(readable.find(internal), std::string::npos)
                    << "internal name exported: " << readable;
        }
    }
    for (const char* name : kEntryPoints) EXPECT_TRUE(found.count(name)) << name << " not exported";
}

// The plug-in's own calls of its entry points (a rebuild appending to the
// cyclic list, a host write queued) are bound inside it: no dynamic
// relocation names an entry point, so another driver loaded into the same
// process, exporting the same names, can never receive them.
TEST(PluginExports, NoDynamicRelocationNamesAnEntryPoint) {
    const std::string command = std::string("readelf -rW '") + ABCL_PLUGIN_PATH + "' 2>/dev/null";
    FILE* pipe = popen(command.c_str(), "r");
    if (!pipe) GTEST_SKIP() << "cannot run readelf";
    std::string relocations;
    char line[4096];
    while (std::fgets(line, sizeof line, pipe)) relocations += line;
    const int status = pclose(pipe);
    if (relocations.find("Relocation section") == std::string::npos)
        GTEST_SKIP() << "readelf is not available (status " << status << ")";
    std::istringstream lines(relocations);
    std::string entry;
    while (std::getline(lines, entry)) {
        std::istringstream fields(entry);
        std::string field;
        while (fields >> field)
            for (const char* name : kEntryPoints) EXPECT_NE(field, name) << entry;
    }
}

TEST_F(HostLoop, ScansWritesReadsOnceAndSurvivesASilentController) {
    // ---- wiring -------------------------------------------------------------------
    EXPECT_EQ(api().FlashLocalRegister(nullptr, nullptr, nullptr), 396);
    api().SetComInfo(&info);
    EXPECT_EQ(info.startFlagA, 0);
    EXPECT_EQ(info.startFlagB, 0);
    api().RegistCallBackFuncIntf(&HostCallback, 5);
    EXPECT_EQ(api().QueryFinishFlag(), 1);
    EXPECT_EQ(api().PLCAddressChangeIntef(0, "7:10/3"), 28835);
    EXPECT_EQ(api().PLCAddressChangeIntef(2, "7:10"), 1802);

    // ---- controller memory and the cyclic list --------------------------------------
    const std::vector<uint16_t> n7Start = {0x0001, 0x1234, 0x0010, 0x1010, 0xFFFF,
                                           0x8000, 0x7FFF, 0x0100, 0x00FF, 0xABCD};
    model.SetWords('N', 7, 0, n7Start);
    model.SetWords('N', 7, 20, {0x2020, 0x1000});
    model.SetWords('B', 3, 0, {0x0020 /* bit 5 */, 0x5555, 0x1001});
    const std::vector<float> f8 = {1.5f, -2.25f /* 00 00 10 C0: a doubled byte in the reply */,
                                   100.0f};
    for (std::size_t i = 0; i < f8.size(); ++i) model.memory.setReal(8, i, f8[i]);
    const auto f8Bits = [&](std::size_t i) { return replies::FloatBits(f8[i]); };

    std::vector<ReadVarItem> items(5);
    auto describe = [](ReadVarItem& item, int dataType, const char* text, int count) {
        item.dataType = static_cast<uint8_t>(dataType);
        item.addrText = text;
        item.count = count;
    };
    describe(items[0], ABCL_WORD_B, "7:0", 10);
    describe(items[1], ABCL_WORD_B, "7:20", 2);
    describe(items[2], ABCL_BIT_A, "3:0/5", 1);
    describe(items[3], ABCL_REAL, "8:0", 4);
    describe(items[4], ABCL_WORD_A, "3:1", 2);
    QList<ReadVarItem*> list;
    for (auto& item : items) list.append(&item);
    ASSERT_EQ(api().ReCreatReadVarList(&list), 4);

    // Three passes: two exchanges per read, four reads per pass.
    RunGood(24);
    EXPECT_EQ(info.cycleDone, 1);

    std::set<std::string> seen;
    for (size_t i = model.log.size() - 8; i < model.log.size(); ++i) {
        ASSERT_TRUE(model.log[i]);
        const TagRequest& r = *model.log[i];
        EXPECT_EQ(r.service, peer::cip::kReadTagFragmented);
        seen.insert(std::string(1, r.path.letter) + std::to_string(r.path.file) + ":" +
                    std::to_string(r.path.element) + "x" + std::to_string(r.count));
    }
    // 'N' 7:0 and 7:20 merged into 22 words; the bit's word; two 'B' words; three
    // 32-bit elements for a count of four.
    EXPECT_EQ(seen, (std::set<std::string>{"N7:0x22", "B3:0x1", "B3:1x2", "F8:0x3"}));

    EXPECT_EQ(ToHex(Get(ABCL_WORD_B, "7:0", 10)), ToHex(LeWords(n7Start)));
    EXPECT_EQ(ToHex(Get(ABCL_WORD_B, "7:20", 2)), "20 20 00 10");
    EXPECT_EQ(ToHex(Get(ABCL_BIT_A, "3:0/5", 1)), "01");
    EXPECT_EQ(ToHex(Get(ABCL_BIT_A, "3:0/4", 1)), "00");
    EXPECT_EQ(ToHex(Get(ABCL_WORD_A, "3:1", 2)), "55 55 01 10");
    EXPECT_EQ(ToHex(Get(ABCL_REAL, "8:0", 4)), ToHex(LeValues({f8Bits(0), f8Bits(1)})));
    EXPECT_EQ(ToHex(Get(ABCL_REAL, "8:2", 2)), ToHex(LeValues({f8Bits(2)})));

    // ---- writes: frames, mirror, controller --------------------------------------------
    ASSERT_EQ(Set(ABCL_WORD_B, "7:4", Hex("34 12"), 1, 3), 1);
    EXPECT_EQ(ToHex(Get(ABCL_WORD_B, "7:4", 1)), "FF FF") << "mirrored when its frame is built";
    bool mirroredWhenBuilt = false;
    replies::Turn written;
    for (int i = 0; i < 10 && !written.sent; ++i) {
        const replies::Turn s = Turn([&](const TagRequest& r) {
            if (IsWordWrite(r, 4)) mirroredWhenBuilt = ToHex(Get(ABCL_WORD_B, "7:4", 1)) == "34 12";
        });
        ASSERT_EQ(s.result, 1);
        if (IsWordWrite(s.request, 4)) written = s;
    }
    ASSERT_TRUE(written.sent);
    EXPECT_TRUE(mirroredWhenBuilt);
    EXPECT_EQ(written.varId, 3);
    const uint8_t tns = static_cast<uint8_t>(written.frame[8]);
    EXPECT_EQ(ToHex(written.frame),
              ToHex(Framed(RequestBody(tns,
                                       "53 05 91 04 4E 30 30 37 29 00 04 00 C3 00 01 00 00 00 "
                                       "00 00 34 12"))));
    EXPECT_EQ(N7(4), 0x1234);

    ASSERT_GT(Set(ABCL_BIT_A, "3:0/5", Hex("00"), 1, 2), 0);
    const replies::Turn bitWrite = RunUntil(
        [](const MaybeRequest& r) { return r && r->service == peer::cip::kReadModifyWriteTag; });
    EXPECT_EQ(bitWrite.result, 1);
    EXPECT_EQ(
        ToHex(bitWrite.frame),
        ToHex(Framed(RequestBody(static_cast<uint8_t>(bitWrite.frame[8]),
                                 "4E 05 91 04 42 30 30 33 29 00 00 00 02 00 00 00 DF FF 00 00"))));
    EXPECT_EQ(model.Word('B', 3, 0), 0x0000);

    ASSERT_GT(Set(ABCL_REAL, "8:1", LeValues({replies::FloatBits(3.0f)}), 2, 4), 0);
    const replies::Turn realWrite = RunUntil([](const MaybeRequest& r) {
        return r && r->service == peer::cip::kWriteTagFragmented && r->path.letter == 'F';
    });
    EXPECT_EQ(realWrite.result, 1);
    EXPECT_EQ(
        ToHex(realWrite.frame),
        ToHex(Framed(RequestBody(static_cast<uint8_t>(realWrite.frame[8]),
                                 "53 05 91 04 46 30 30 38 29 00 01 00 CA 00 01 00 00 00 00 00 "
                                 "00 00 40 40"))));
    EXPECT_EQ(model.memory.real(8, 1).value_or(0.0f), 3.0f);

    RunGood(16);
    EXPECT_EQ(ToHex(Get(ABCL_WORD_B, "7:4", 1)), "34 12");
    EXPECT_EQ(ToHex(Get(ABCL_BIT_A, "3:0/5", 1)), "00");
    EXPECT_EQ(ToHex(Get(ABCL_REAL, "8:1", 2)), "00 00 40 40");

    // ---- one-shot read ---------------------------------------------------------------
    model.SetWords('N', 7, 30, {0x4242, 0x0707});
    ASSERT_EQ(OnceRead(9, 4, "7:30", 2), 1);
    for (int i = 0; i < 20 && g_calls.empty(); ++i) ASSERT_EQ(Turn().result, 1);
    ASSERT_EQ(g_calls.size(), 1u);
    EXPECT_EQ(g_calls[0].context, 31337);
    EXPECT_EQ(g_calls[0].varId, 9);
    EXPECT_EQ(g_calls[0].varSubId, 4);
    EXPECT_EQ(g_calls[0].status, 1);
    EXPECT_EQ(ToHex(Get(ABCL_WORD_B, "7:30", 2)), "42 42 07 07");

    // ---- a silent controller during a read --------------------------------------------
    model.SetSilent(true);
    std::vector<int> silentReads;
    for (int i = 0; i < 6; ++i) silentReads.push_back(Turn().result);
    if (kHardenedBuild) {
        // Every exchange without a reply counts, the length-learning ones
        // too: retryLimit (2) retries, then no reply for the cyclic list
        // (varId 0: 40 + 1), and again.
        EXPECT_EQ(silentReads, (std::vector<int>{0, 0, 41, 0, 0, 41}));
    } else {
        // The read keeps learning its length, which costs at most the one
        // retry of an exchange whose length was already known.
        EXPECT_EQ(silentReads, std::vector<int>(6, 0));
        EXPECT_LE(info.retryCount, 1);
    }
    model.SetSilent(false);
    RunGood(8);
    info.retryCount = 0;  // the host's own bookkeeping

    // ---- a silent controller during a write: retries, failure, purge ---------------------
    ASSERT_EQ(Set(ABCL_WORD_B, "7:5", Hex("05 05"), 1, 5), 1);
    ASSERT_EQ(Set(ABCL_WORD_B, "7:6", Hex("06 06"), 1, 6), 2);
    ASSERT_EQ(OnceRead(10, 1, "7:50", 1), 1);
    std::vector<int> results;
    for (int i = 0; i < 20 && results.size() < 3; ++i) {
        const replies::Turn s = Turn([&](const TagRequest& r) {
            if (IsWordWrite(r, 5)) model.SetSilent(true);
        });
        if (model.silent()) {
            EXPECT_TRUE(IsWordWrite(s.request, 5)) << "the failed write is rebuilt";
            results.push_back(s.result);
            if (results.size() == 3) {
                EXPECT_EQ(s.varId, 5);
            }
        } else {
            ASSERT_EQ(s.result, 1);
        }
    }
    // No reply to a local request of varId 5: 40 + 5 + 1.
    EXPECT_EQ(results, (std::vector<int>{0, 0, 46}));
    EXPECT_EQ(info.retryCount, 0);
    EXPECT_EQ(info.cycleDone, 0);

    // While the link is down a new value goes into the image at once.
    ASSERT_EQ(Set(ABCL_WORD_B, "7:7", Hex("07 07"), 1, 7), 1) << "the old queue was purged";
    EXPECT_EQ(ToHex(Get(ABCL_WORD_B, "7:7", 1)), "07 07");
    EXPECT_EQ(ToHex(Get(ABCL_WORD_B, "7:6", 1)), "FF 7F")
        << "the purged write never reached the image";

    model.SetSilent(false);
    const size_t recoveredAt = model.log.size();
    const replies::Turn first = Turn();
    EXPECT_TRUE(IsWordWrite(first.request, 7));
    EXPECT_EQ(first.result, 1);
    EXPECT_EQ(N7(7), 0x0707);
    // The link is good again: values wait for their frame to be mirrored.
    ASSERT_EQ(Set(ABCL_WORD_B, "7:8", Hex("08 08"), 1, 8), 1);
    EXPECT_EQ(ToHex(Get(ABCL_WORD_B, "7:8", 1)), "FF 00");
    RunGood(16);
    EXPECT_EQ(N7(8), 0x0808);
    EXPECT_EQ(ToHex(Get(ABCL_WORD_B, "7:8", 1)), "08 08");
    EXPECT_EQ(N7(6), 0x7FFF);
    EXPECT_EQ(CallbacksFor(10), 0) << "the purged one-shot read is never reported";
    for (size_t i = recoveredAt; i < model.log.size(); ++i) {
        EXPECT_FALSE(IsWordWrite(model.log[i], 6));
        EXPECT_FALSE(IsWordRead(model.log[i], 50));
    }

    // ---- several stations: only the failed station's work is dropped ----------------------
    info.multiStation = 1;
    info.retryCount = 0;
    ASSERT_EQ(Set(ABCL_WORD_B, "7:1", Hex("11 11"), 1, 1, 2), 1);
    ASSERT_EQ(Set(ABCL_WORD_B, "7:2", Hex("22 22"), 1, 2, 3), 2);
    ASSERT_EQ(Set(ABCL_WORD_B, "7:3", Hex("33 33"), 1, 3, 2), 3);
    ASSERT_EQ(OnceRead(11, 1, "7:40", 1, 3), 1);
    ASSERT_EQ(OnceRead(12, 1, "7:41", 1, 2), 2);
    results.clear();
    for (int i = 0; i < 20 && results.size() < 3; ++i) {
        const replies::Turn s = Turn([&](const TagRequest& r) {
            if (IsWordWrite(r, 1)) model.SetSilent(true);
        });
        if (model.silent()) {
            results.push_back(s.result);
        } else {
            ASSERT_EQ(s.result, 1);
        }
    }
    EXPECT_EQ(results, (std::vector<int>{0, 0, 42}));
    model.SetSilent(false);
    const size_t multiFrom = model.log.size();
    for (int i = 0; i < 30 && CallbacksFor(11) == 0; ++i) ASSERT_EQ(Turn().result, 1);
    RunGood(10);
    bool station3WriteSent = false;
    bool station3ReadSent = false;
    for (size_t i = multiFrom; i < model.log.size(); ++i) {
        station3WriteSent = station3WriteSent || IsWordWrite(model.log[i], 2);
        station3ReadSent = station3ReadSent || IsWordRead(model.log[i], 40);
        EXPECT_FALSE(IsWordWrite(model.log[i], 3)) << "station 2's write was purged";
        EXPECT_FALSE(IsWordRead(model.log[i], 41)) << "station 2's read was purged";
    }
    EXPECT_TRUE(station3WriteSent);
    EXPECT_TRUE(station3ReadSent);
    EXPECT_EQ(CallbacksFor(11), 1);
    EXPECT_EQ(CallbacksFor(12), 0);
    EXPECT_EQ(N7(2), 0x2222);
    EXPECT_EQ(N7(3), 0x1010);

    // The test program's own linked driver was never touched.
    EXPECT_TRUE(PLC_driver.readList.isEmpty());
    EXPECT_EQ(PLC_driver.comInfo, nullptr);
}

}  // namespace
