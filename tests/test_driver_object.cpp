// The driver object, the records shared with the host, and the entry points
// that wire the driver up (FlashLocalRegister, SetComInfo,
// RegistCallBackFuncIntf, QueryFinishFlag).
#include "test_support.h"

#include "Func_Check.h"
#include "Func_DealData.h"
#include "Func_Read.h"

#include <dlfcn.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <tuple>
#include <utility>

namespace {

constexpr std::size_t kPtr = sizeof(void*);

constexpr std::size_t RoundUp(std::size_t n, std::size_t to) {
    return (n + to - 1) / to * to;
}

template <typename T>
bool AllZero(const T* area) {
    for (int i = 0; i < kAreaElements; ++i)
        if (area[i] != 0) return false;
    return true;
}

template <typename Member>
std::size_t OffsetInDriver(const Member* member) {
    return static_cast<std::size_t>(reinterpret_cast<const char*>(member) -
                                    reinterpret_cast<const char*>(&PLC_driver));
}

// ------------------------------------------------------------- right after load

// The state of the driver object as the process starts, captured before any
// test touches it.
struct LoadState {
    bool captured = false;
    int queryFinishFlag = 0;
    bool comInfoNull = false;
    bool callBackNull = false;
    int mode = -1;
    int writeBurst = -1;
    int onceBurst = -1;
    int cycleCount = -1;
    int tns = -1;
    int commError = -1;
    int commError2 = -1;
    int listEntries = -1;
    bool areasZero = false;
    bool mutexesFree = false;
};

LoadState g_loadState;

class CaptureLoadState : public ::testing::Environment {
public:
    void SetUp() override {
        LoadState& s = g_loadState;
        s.queryFinishFlag = QueryFinishFlag();
        s.comInfoNull = PLC_driver.comInfo == nullptr;
        s.callBackNull = PLC_driver.callBack == nullptr;
        s.mode = PLC_driver.mode;
        s.writeBurst = PLC_driver.writeBurst;
        s.onceBurst = PLC_driver.onceBurst;
        s.cycleCount = PLC_driver.cycleCount;
        s.tns = PLC_driver.tns;
        s.commError = PLC_driver.commError;
        s.commError2 = PLC_driver.commError2;
        s.listEntries = PLC_driver.readList.size() + PLC_driver.writeList.size() +
                        PLC_driver.onceReadList.size() + PLC_driver.spareList.size() +
                        PLC_driver.protocolList.size() + PLC_driver.extendList.size();
        s.areasZero =
            AllZero(PLC_driver.areaA) && AllZero(PLC_driver.areaB) && AllZero(PLC_driver.areaD);
        const bool listFree = PLC_driver.listMutex.tryLock();
        if (listFree) PLC_driver.listMutex.unlock();
        const bool imageFree = PLC_driver.imageMutex.tryLock();
        if (imageFree) PLC_driver.imageMutex.unlock();
        s.mutexesFree = listFree && imageFree;
        s.captured = true;
    }
};

[[maybe_unused]] ::testing::Environment* const g_captureLoadState =
    ::testing::AddGlobalTestEnvironment(new CaptureLoadState);

TEST(DriverAfterLoad, QueryFinishFlagIsOneBeforeAnyOtherCall) {
    ASSERT_TRUE(g_loadState.captured);
    EXPECT_EQ(g_loadState.queryFinishFlag, 1);
}

TEST(DriverAfterLoad, NoSettingsAndNoCallback) {
    ASSERT_TRUE(g_loadState.captured);
    EXPECT_TRUE(g_loadState.comInfoNull);
    EXPECT_TRUE(g_loadState.callBackNull);
}

TEST(DriverAfterLoad, ModeIs100AndCountersZero) {
    ASSERT_TRUE(g_loadState.captured);
    // (mode, writeBurst, onceBurst, cycleCount, commError, commError2)
    EXPECT_EQ(
        std::make_tuple(g_loadState.mode, g_loadState.writeBurst, g_loadState.onceBurst,
                        g_loadState.cycleCount, g_loadState.commError, g_loadState.commError2),
        std::make_tuple(100, 0, 0, 0, 0, 0));
}

TEST(DriverAfterLoad, TransactionNumberIn0To254) {
    ASSERT_TRUE(g_loadState.captured);
    EXPECT_GE(g_loadState.tns, 0);
    EXPECT_LE(g_loadState.tns, 254);
}

TEST(DriverAfterLoad, ListsEmptyAreasZeroMutexesFree) {
    ASSERT_TRUE(g_loadState.captured);
    EXPECT_EQ(g_loadState.listEntries, 0);
    EXPECT_TRUE(g_loadState.areasZero);
    EXPECT_TRUE(g_loadState.mutexesFree);
}

// The plug-in as the host loads it: a fresh driver object of its own.
TEST(PluginLibrary, FreshlyLoadedEntryPointsAnswerAtOnce) {
    void* plugin = dlopen(ABCL_PLUGIN_PATH, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(plugin, nullptr) << dlerror();
    using QueryFn = int (*)();
    using FlashFn = int (*)(void*, void*, void*);
    auto query = reinterpret_cast<QueryFn>(dlsym(plugin, "QueryFinishFlag"));
    auto flash = reinterpret_cast<FlashFn>(dlsym(plugin, "FlashLocalRegister"));
    ASSERT_NE(query, nullptr);
    ASSERT_NE(flash, nullptr);
    EXPECT_EQ(query(), 1);
    EXPECT_EQ(flash(nullptr, nullptr, nullptr), 396);
    int words[3] = {};
    EXPECT_EQ(flash(&words[0], &words[1], &words[2]), 396);
    EXPECT_EQ(query(), 1);
    EXPECT_EQ(dlclose(plugin), 0);
}

// ---------------------------------------------------------- after a reset

class DriverReset : public DriverTest {};

TEST_F(DriverReset, ResetRestoresLoadState) {
    // Dirty everything a session can change.
    PLC_driver.mode = 1;
    PLC_driver.writeBurst = 3;
    PLC_driver.onceBurst = 4;
    PLC_driver.cycleCount = 5;
    PLC_driver.commError = 1;
    PLC_driver.commError2 = 1;
    PLC_driver.areaA[0] = 1;
    PLC_driver.areaB[65535] = 2;
    PLC_driver.areaD[12345] = 3;
    PLC_driver.readList.append(RW_VAR());
    PLC_driver.writeList.append(RW_VAR());
    PLC_driver.onceReadList.append(RW_VAR());
    PLC_driver.spareList.append(RW_VAR());
    PLC_driver.protocolList.append(Protocol());
    PLC_driver.extendList.append(EXTENDVAR());
    PLC_driver.current.varId = 9;
    PLC_driver.current.data = Hex("01 02");
    RegistCallBackFuncIntf([](int, int, int, int) { return 0; }, 7);

    ResetDriverForTest();

    EXPECT_EQ(PLC_driver.comInfo, nullptr);
    EXPECT_EQ(PLC_driver.callBack, nullptr);
    // (mode, writeBurst, onceBurst, cycleCount, commError, commError2)
    EXPECT_EQ(std::make_tuple(PLC_driver.mode, PLC_driver.writeBurst, PLC_driver.onceBurst,
                              PLC_driver.cycleCount, PLC_driver.commError, PLC_driver.commError2),
              std::make_tuple(100, 0, 0, 0, 0, 0));
    EXPECT_TRUE(AllZero(PLC_driver.areaA));
    EXPECT_TRUE(AllZero(PLC_driver.areaB));
    EXPECT_TRUE(AllZero(PLC_driver.areaD));
    EXPECT_TRUE(PLC_driver.readList.isEmpty());
    EXPECT_TRUE(PLC_driver.writeList.isEmpty());
    EXPECT_TRUE(PLC_driver.onceReadList.isEmpty());
    EXPECT_TRUE(PLC_driver.spareList.isEmpty());
    EXPECT_TRUE(PLC_driver.protocolList.isEmpty());
    EXPECT_TRUE(PLC_driver.extendList.isEmpty());
    EXPECT_EQ(PLC_driver.current.varId, 0);
    EXPECT_TRUE(PLC_driver.current.data.isEmpty());
    EXPECT_GE(PLC_driver.tns, 0);
    EXPECT_LE(PLC_driver.tns, 254);
}

TEST_F(DriverReset, TransactionNumberStaysIn0To254OverManyResets) {
    for (int i = 0; i < 300; ++i) {
        ResetDriverForTest();
        ASSERT_GE(PLC_driver.tns, 0) << "reset " << i;
        ASSERT_LE(PLC_driver.tns, 254) << "reset " << i;
    }
}

TEST_F(DriverReset, MutexesAreFreeAndNotRecursive) {
    ASSERT_TRUE(PLC_driver.listMutex.tryLock());
    EXPECT_FALSE(PLC_driver.listMutex.tryLock());
    PLC_driver.listMutex.unlock();
    ASSERT_TRUE(PLC_driver.imageMutex.tryLock());
    EXPECT_FALSE(PLC_driver.imageMutex.tryLock());
    PLC_driver.imageMutex.unlock();
}

TEST_F(DriverReset, WithoutSettingsRecordBuildersUseZeroedDefaults) {
    ResetDriverForTest();
    ASSERT_EQ(PLC_driver.comInfo, nullptr);
    const ComInfo& defaults = settings();
    EXPECT_EQ(defaults.multiStation, 0);
    EXPECT_EQ(defaults.replyDone, 0);
    EXPECT_EQ(defaults.remoteMode, 0);

    RW_VAR v;
    v.dataType = ABCL_WORD_B;
    v.address = 7 * 256;
    v.count = 1;
    ReadRegister(&v);
    EXPECT_EQ(PLC_driver.protocolList.size(), 1);
    EXPECT_EQ(settings().replyTotal, 1);
    EXPECT_EQ(settings().replyDone, 0);
    EXPECT_EQ(PLC_driver.comInfo, nullptr);
}

TEST_F(DriverReset, ResetForgetsWhatWasWrittenToTheDefaults) {
    ResetDriverForTest();
    RW_VAR v;
    v.dataType = ABCL_WORD_B;
    v.count = 1;
    ReadRegister(&v);
    ASSERT_EQ(settings().replyTotal, 1);
    ResetDriverForTest();
    EXPECT_EQ(settings().replyTotal, 0);
}

// --------------------------------------------------------- FlashLocalRegister

TEST_F(DriverReset, FlashLocalRegisterReturns396AndStoresItsArguments) {
    int lb = 0, lw = 0, rwi = 0;
    EXPECT_EQ(FlashLocalRegister(&lb, &lw, &rwi), 396);
    EXPECT_EQ(LB, static_cast<void*>(&lb));
    EXPECT_EQ(LW, static_cast<void*>(&lw));
    EXPECT_EQ(RWI, static_cast<void*>(&rwi));
}

TEST_F(DriverReset, FlashLocalRegisterWithNullArguments) {
    int word = 0;
    EXPECT_EQ(FlashLocalRegister(&word, &word, &word), 396);
    EXPECT_EQ(FlashLocalRegister(nullptr, nullptr, nullptr), 396);
    EXPECT_EQ(LB, nullptr);
    EXPECT_EQ(LW, nullptr);
    EXPECT_EQ(RWI, nullptr);
}

TEST_F(DriverReset, FlashLocalRegisterTouchesNothingElse) {
    info.replyDone = 5;
    PLC_driver.tns = 12;
    PLC_driver.mode = 2;
    int a = 1, b = 2, c = 3;
    EXPECT_EQ(FlashLocalRegister(&a, &b, &c), 396);
    EXPECT_EQ(a, 1);
    EXPECT_EQ(b, 2);
    EXPECT_EQ(c, 3);
    EXPECT_EQ(info.replyDone, 5);
    EXPECT_EQ(PLC_driver.tns, 12);
    EXPECT_EQ(PLC_driver.mode, 2);
    EXPECT_EQ(PLC_driver.comInfo, &info);
}

// ----------------------------------------------------------- QueryFinishFlag

TEST_F(DriverReset, QueryFinishFlagIsOneAfterOtherCalls) {
    EXPECT_EQ(QueryFinishFlag(), 1);
    FlashLocalRegister(nullptr, nullptr, nullptr);
    EXPECT_EQ(QueryFinishFlag(), 1);
    RegistCallBackFuncIntf(nullptr, 0);
    EXPECT_EQ(QueryFinishFlag(), 1);
    RW_VAR v;
    v.dataType = ABCL_WORD_A;
    v.count = 1;
    ReadRegister(&v);
    EXPECT_EQ(QueryFinishFlag(), 1);
    ResetDriverForTest();
    EXPECT_EQ(QueryFinishFlag(), 1);
}

// --------------------------------------------------------------- SetComInfo

TEST_F(DriverReset, SetComInfoZeroesBothStartFlagsOnly) {
    ComInfo other;
    std::memset(&other, 0x5A, sizeof other);
    SetComInfo(&other);
    EXPECT_EQ(PLC_driver.comInfo, &other);
    EXPECT_EQ(other.startFlagA, 0);
    EXPECT_EQ(other.startFlagB, 0);

    // Every other byte belongs to the host and keeps its value.
    const auto* bytes = reinterpret_cast<const unsigned char*>(&other);
    for (std::size_t i = 0; i < sizeof other; ++i) {
        const bool flagA =
            i >= offsetof(ComInfo, startFlagA) && i < offsetof(ComInfo, startFlagA) + 4;
        const bool flagB =
            i >= offsetof(ComInfo, startFlagB) && i < offsetof(ComInfo, startFlagB) + 4;
        if (!flagA && !flagB) {
            EXPECT_EQ(bytes[i], 0x5A) << "byte " << i;
        }
    }
}

TEST_F(DriverReset, SecondSetComInfoRedirectsAllSettings) {
    ComInfo second = {};
    second.startFlagA = 11;
    second.startFlagB = 12;
    info.startFlagA = 21;
    info.startFlagB = 22;
    SetComInfo(&second);

    EXPECT_EQ(PLC_driver.comInfo, &second);
    EXPECT_EQ(&settings(), &second);
    EXPECT_EQ(second.startFlagA, 0);
    EXPECT_EQ(second.startFlagB, 0);
    // The previous record is forgotten, not reset.
    EXPECT_EQ(info.startFlagA, 21);
    EXPECT_EQ(info.startFlagB, 22);

    // Writes go to the new record.
    info.replyDone = 7;
    info.replyTotal = 9;
    second.replyDone = 3;
    second.replyTotal = 4;
    RW_VAR v = RecordBuilder().At(ABCL_WORD_B, 10, 1);
    ReadRegister(&v);
    EXPECT_EQ(std::make_pair(second.replyDone, second.replyTotal), std::make_pair(0, 1));
    EXPECT_EQ(std::make_pair(info.replyDone, info.replyTotal), std::make_pair(7, 9));

    // Reads come from the new record: replyDone for the reply check...
    second.replyDone = 1;
    info.replyDone = 0;
    EXPECT_EQ(CheckGetData(QByteArray(), 0), 2);
    second.replyDone = 0;
    info.replyDone = 1;
    EXPECT_EQ(CheckGetData(QByteArray(), 0), 0);

    // ...and multiStation for storing reply data.
    QByteArray reply(26, static_cast<char>(0xEE));
    reply.append(Hex("34 12"));
    PLC_driver.protocolList.first().dataBytes = 2;
    PLC_driver.protocolList.first().dataPos = 26;
    second.multiStation = 1;
    info.multiStation = 0;
    SaveToLocalDataErea(reply);
    EXPECT_EQ(PLC_driver.areaB[10], 0);
    second.multiStation = 0;
    info.multiStation = 1;
    SaveToLocalDataErea(reply);
    EXPECT_EQ(PLC_driver.areaB[10], 0x1234);
}

TEST_F(DriverReset, SetComInfoAgainWithSameRecordZeroesFlagsAgain) {
    info.startFlagA = 5;
    info.startFlagB = 6;
    SetComInfo(&info);
    EXPECT_EQ(info.startFlagA, 0);
    EXPECT_EQ(info.startFlagB, 0);
    EXPECT_EQ(PLC_driver.comInfo, &info);
}

// ----------------------------------------------------- RegistCallBackFuncIntf

int RecordingCallBack(int, int, int, int) {
    return 42;
}

TEST_F(DriverReset, RegistCallBackStoresFunctionAndContext) {
    RegistCallBackFuncIntf(&RecordingCallBack, 0x12345678);
    EXPECT_EQ(PLC_driver.callBack, &RecordingCallBack);
    EXPECT_EQ(PLC_driver.callBackCtx, 0x12345678);
    EXPECT_EQ(PLC_driver.callBack(0, 0, 0, 0), 42);
}

TEST_F(DriverReset, RegistCallBackReplacesEarlierRegistration) {
    RegistCallBackFuncIntf(&RecordingCallBack, 1);
    RegistCallBackFuncIntf(nullptr, -7);
    EXPECT_EQ(PLC_driver.callBack, nullptr);
    EXPECT_EQ(PLC_driver.callBackCtx, -7);
}

// ------------------------------------------------------------------ layouts

TEST(RecordLayout, ComInfoFieldOffsets) {
    // Where the host puts each field of the settings record it shares.
    const struct {
        const char* field;
        std::size_t offset;
        std::size_t expected;
    } fields[] = {
        {"maxCount", offsetof(ComInfo, maxCount), 16},
        {"defaultStation", offsetof(ComInfo, defaultStation), 24},
        {"retryLimit", offsetof(ComInfo, retryLimit), 28},
        {"retryCount", offsetof(ComInfo, retryCount), 32},
        {"multiStation", offsetof(ComInfo, multiStation), 36},
        {"startFlagA", offsetof(ComInfo, startFlagA), 40},
        {"replyTotal", offsetof(ComInfo, replyTotal), 44},
        {"replyDone", offsetof(ComInfo, replyDone), 48},
        {"startFlagB", offsetof(ComInfo, startFlagB), 52},
        {"remoteMode", offsetof(ComInfo, remoteMode), 56},
        {"localLinkNo", offsetof(ComInfo, localLinkNo), 60},
        {"writeMode", offsetof(ComInfo, writeMode), 64},
        {"cycleDone", offsetof(ComInfo, cycleDone), 68},
        {"hostContext", offsetof(ComInfo, hostContext), 72},
    };
    for (const auto& f : fields) EXPECT_EQ(f.offset, f.expected) << f.field;
    EXPECT_EQ(sizeof(ComInfo().maxCount), 4u);
    EXPECT_GE(sizeof(ComInfo), 76u);
}

TEST(RecordLayout, RwVarFieldOffsetsAndSize) {
    EXPECT_EQ(offsetof(RW_VAR, varId), 0u);
    EXPECT_EQ(offsetof(RW_VAR, varSubId), 4u);
    EXPECT_EQ(offsetof(RW_VAR, aux2), 8u);
    EXPECT_EQ(offsetof(RW_VAR, aux3), 12u);
    EXPECT_EQ(offsetof(RW_VAR, linkNo), 16u);
    EXPECT_EQ(offsetof(RW_VAR, result), 20u);
    EXPECT_EQ(offsetof(RW_VAR, addrText2), 24u);
    EXPECT_EQ(offsetof(RW_VAR, addrText), 24u + kPtr);
    EXPECT_EQ(offsetof(RW_VAR, dataType), 24u + 2 * kPtr);
    EXPECT_EQ(offsetof(RW_VAR, address), 28u + 2 * kPtr);
    EXPECT_EQ(offsetof(RW_VAR, station), 32u + 2 * kPtr);
    EXPECT_EQ(offsetof(RW_VAR, count), 36u + 2 * kPtr);
    EXPECT_EQ(offsetof(RW_VAR, aux12), 40u + 2 * kPtr);
    EXPECT_EQ(offsetof(RW_VAR, aux13), 44u + 2 * kPtr);
    EXPECT_EQ(offsetof(RW_VAR, data), 48u + 2 * kPtr);
    EXPECT_EQ(sizeof(RW_VAR), 48u + 3 * kPtr);
}

TEST(RecordLayout, ProtocolFieldOffsetsAndSize) {
    EXPECT_EQ(offsetof(Protocol, frame), 0u);
    EXPECT_EQ(offsetof(Protocol, frameLen), kPtr);
    EXPECT_EQ(offsetof(Protocol, replyLen), kPtr + 4);
    EXPECT_EQ(offsetof(Protocol, dataPos), kPtr + 8);
    EXPECT_EQ(offsetof(Protocol, dataBytes), kPtr + 12);
    EXPECT_EQ(offsetof(Protocol, var), kPtr + 16);
    const std::size_t afterVar = kPtr + 16 + sizeof(RW_VAR);
    EXPECT_EQ(offsetof(Protocol, extra1), afterVar);
    EXPECT_EQ(offsetof(Protocol, extra2), afterVar + 4);
    EXPECT_EQ(offsetof(Protocol, extra3), afterVar + 8);
    EXPECT_EQ(sizeof(Protocol), RoundUp(afterVar + 12, kPtr));
}

TEST(RecordLayout, ExtendVarFieldOffsetsAndSize) {
    EXPECT_EQ(offsetof(EXTENDVAR, extA), 0u);
    EXPECT_EQ(offsetof(EXTENDVAR, extB), 4u);
    EXPECT_EQ(offsetof(EXTENDVAR, extC), 8u);
    EXPECT_EQ(offsetof(EXTENDVAR, extData), RoundUp(12, kPtr));
    EXPECT_EQ(sizeof(EXTENDVAR), RoundUp(12, kPtr) + kPtr);
}

TEST(RecordLayout, ReadVarItemFieldOffsets) {
    EXPECT_EQ(offsetof(ReadVarItem, dataType), 1u);
    EXPECT_EQ(sizeof(ReadVarItem().dataType), 1u);
    EXPECT_EQ(offsetof(ReadVarItem, addrText), 8u);
    EXPECT_EQ(offsetof(ReadVarItem, addrText2), 8u + kPtr);
    EXPECT_EQ(offsetof(ReadVarItem, count), 8u + 2 * kPtr);
    EXPECT_EQ(sizeof(ReadVarItem), RoundUp(12 + 2 * kPtr, kPtr));
}

TEST(RecordLayout, SizesOnThe32BitPanel) {
    if constexpr (sizeof(void*) == 4) {
        EXPECT_EQ(sizeof(RW_VAR), 60u);
        EXPECT_EQ(sizeof(Protocol), 92u);
        EXPECT_EQ(sizeof(EXTENDVAR), 16u);
        EXPECT_EQ(offsetof(ReadVarItem, addrText2), 12u);
        EXPECT_EQ(offsetof(ReadVarItem, count), 16u);
        EXPECT_EQ(sizeof(AB_ControlLogix_CompactLogix), 524416u);
    } else {
        GTEST_SKIP() << "the exact sizes apply where a pointer is 4 bytes";
    }
}

TEST(RecordLayout, DriverObjectFieldOrder) {
    const AB_ControlLogix_CompactLogix& d = PLC_driver;
    EXPECT_EQ(OffsetInDriver(&d.comInfo), 0u);
    // The members in the order the host's object has them.
    const std::size_t order[] = {OffsetInDriver(&d.comInfo),     OffsetInDriver(&d.readList),
                                 OffsetInDriver(&d.writeList),   OffsetInDriver(&d.onceReadList),
                                 OffsetInDriver(&d.spareList),   OffsetInDriver(&d.protocolList),
                                 OffsetInDriver(&d.extendList),  OffsetInDriver(&d.callBack),
                                 OffsetInDriver(&d.callBackCtx), OffsetInDriver(&d.listMutex),
                                 OffsetInDriver(&d.imageMutex),  OffsetInDriver(&d.current),
                                 OffsetInDriver(&d.mode)};
    for (std::size_t i = 1; i < sizeof order / sizeof order[0]; ++i)
        EXPECT_LT(order[i - 1], order[i]) << "member " << i << " of the list";
    EXPECT_EQ(OffsetInDriver(&d.writeBurst), OffsetInDriver(&d.mode) + 4);
    EXPECT_EQ(OffsetInDriver(&d.onceBurst), OffsetInDriver(&d.mode) + 8);
    EXPECT_EQ(OffsetInDriver(&d.cycleCount), OffsetInDriver(&d.mode) + 12);
    EXPECT_EQ(OffsetInDriver(&d.tns), OffsetInDriver(&d.mode) + 16);
    EXPECT_EQ(OffsetInDriver(&d.commError), OffsetInDriver(&d.mode) + 20);
    EXPECT_EQ(OffsetInDriver(&d.commError2), OffsetInDriver(&d.mode) + 21);
}

TEST(RecordLayout, AreasLieDirectlyBehindTheFlags) {
    const AB_ControlLogix_CompactLogix& d = PLC_driver;
    EXPECT_EQ(sizeof(d.areaA), 131072u);
    EXPECT_EQ(sizeof(d.areaB), 131072u);
    EXPECT_EQ(sizeof(d.areaD), 262144u);
    EXPECT_EQ(OffsetInDriver(&d.areaA[0]), RoundUp(OffsetInDriver(&d.commError2) + 1, 2));
    EXPECT_EQ(OffsetInDriver(&d.areaB[0]), OffsetInDriver(&d.areaA[0]) + 131072u);
    EXPECT_EQ(OffsetInDriver(&d.areaD[0]), RoundUp(OffsetInDriver(&d.areaB[0]) + 131072u, 4));
    EXPECT_EQ(sizeof(AB_ControlLogix_CompactLogix), RoundUp(OffsetInDriver(&d.areaD[0]) + 262144u,
                                                            alignof(AB_ControlLogix_CompactLogix)));
}

TEST(RecordLayout, MutexesAndListsAreOnePointerEach) {
    EXPECT_EQ(sizeof(QMutex), kPtr);
    EXPECT_EQ(sizeof(QList<RW_VAR>), kPtr);
    EXPECT_EQ(sizeof(CallBackFunc), kPtr);
}

}  // namespace
