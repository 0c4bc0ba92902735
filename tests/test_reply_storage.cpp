// Storing the data of a read reply into the local image: area selection, DLE
// skipping, short replies, area bounds, and a full read round trip.
#include "test_support.h"

#include "Func_Check.h"
#include "Func_DealData.h"
#include "Func_Read.h"
#include "reply_builder.h"

#include <climits>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <string>
#include <vector>

namespace {

constexpr uint16_t kWordSentinel = 0xA5A5;
constexpr uint32_t kRealSentinel = 0xA5A5A5A5u;
constexpr int kDataPos = 26;

// Every 0x10 sent twice, as a controller sends data bytes.
const auto Stuff = replies::Stuffed;

QByteArray Words(std::initializer_list<uint16_t> values) {
    QByteArray out;
    for (uint16_t v : values) {
        out.append(static_cast<char>(v & 0xFF));
        out.append(static_cast<char>(v >> 8));
    }
    return out;
}

QByteArray Reals(std::initializer_list<uint32_t> values) {
    QByteArray out;
    for (uint32_t v : values)
        for (int shift = 0; shift < 32; shift += 8)
            out.append(static_cast<char>((v >> shift) & 0xFF));
    return out;
}

// A reply whose value bytes (already stuffed) start at dataPos, after filler
// bytes that are never DLE.
QByteArray ReplyWithData(int dataPos, const QByteArray& stuffedData) {
    return QByteArray(dataPos, static_cast<char>(0xEE)) + stuffedData;
}

template <typename T>
int CountNotEqual(const T* area, T sentinel) {
    int n = 0;
    for (int i = 0; i < kAreaElements; ++i)
        if (area[i] != sentinel) ++n;
    return n;
}

class ReplyStorage : public DriverTest {
protected:
    void SetUp() override {
        DriverTest::SetUp();
        std::memset(PLC_driver.areaA, 0xA5, sizeof PLC_driver.areaA);
        std::memset(PLC_driver.areaB, 0xA5, sizeof PLC_driver.areaB);
        std::memset(PLC_driver.areaD, 0xA5, sizeof PLC_driver.areaD);
    }

    static void QueueRead(int dataType, int address, int dataBytes, int dataPos = kDataPos) {
        Protocol p;
        p.var.dataType = dataType;
        p.var.address = address;
        p.dataPos = dataPos;
        p.dataBytes = dataBytes;
        p.replyLen = -1;
        PLC_driver.protocolList.append(p);
    }

    static int ChangedA() { return CountNotEqual(PLC_driver.areaA, kWordSentinel); }
    static int ChangedB() { return CountNotEqual(PLC_driver.areaB, kWordSentinel); }
    static int ChangedD() { return CountNotEqual(PLC_driver.areaD, kRealSentinel); }
};

// `n` elements of an area from `first` on, to compare a stretch at once.
template <class T>
std::vector<T> Slice(const T* area, int first, int n) {
    return std::vector<T>(area + first, area + first + n);
}

// ------------------------------------------------------------ area selection

struct AreaRow {
    const char* name;
    int dataType;
    char area;  // 'A', 'B', 'D' or '-' (nothing stored)
};

class AreaByType : public ReplyStorage, public ::testing::WithParamInterface<AreaRow> {};

TEST_P(AreaByType, StoresIntoTheTypesAreaOnly) {
    const AreaRow& row = GetParam();
    QueueRead(row.dataType, 100, 8);
    SaveToLocalDataErea(ReplyWithData(kDataPos, Stuff(Words({0x1234, 0x5678, 0x9ABC, 0xDEF0}))));
    switch (row.area) {
        case 'A':
            EXPECT_EQ(Slice(PLC_driver.areaA, 100, 4),
                      (std::vector<uint16_t>{0x1234, 0x5678, 0x9ABC, 0xDEF0}));
            EXPECT_EQ(ChangedA(), 4);
            EXPECT_EQ(ChangedB(), 0);
            EXPECT_EQ(ChangedD(), 0);
            break;
        case 'B':
            EXPECT_EQ(PLC_driver.areaB[100], 0x1234);
            EXPECT_EQ(PLC_driver.areaB[103], 0xDEF0);
            EXPECT_EQ(ChangedA(), 0);
            EXPECT_EQ(ChangedB(), 4);
            EXPECT_EQ(ChangedD(), 0);
            break;
        case 'D':
            EXPECT_EQ(Slice(PLC_driver.areaD, 100, 2),
                      (std::vector<uint32_t>{0x56781234u, 0xDEF09ABCu}));
            EXPECT_EQ(ChangedA(), 0);
            EXPECT_EQ(ChangedB(), 0);
            EXPECT_EQ(ChangedD(), 2);
            break;
        default:
            EXPECT_EQ(ChangedA(), 0);
            EXPECT_EQ(ChangedB(), 0);
            EXPECT_EQ(ChangedD(), 0);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Rows, AreaByType,
    ::testing::Values(AreaRow{"BitA", 0, 'A'}, AreaRow{"BitB", 1, 'B'}, AreaRow{"WordA", 2, 'A'},
                      AreaRow{"WordB", 3, 'B'}, AreaRow{"Real", 4, 'D'}, AreaRow{"Type5", 5, '-'},
                      AreaRow{"TypeMinus1", -1, '-'}, AreaRow{"TypeHuge", INT_MAX, '-'}),
    [](const ::testing::TestParamInfo<AreaRow>& row) { return std::string(row.param.name); });

TEST_F(ReplyStorage, BitTypeOfSecondAreaNeverTouchesFirstArea) {
    QueueRead(1, 0, 2);
    SaveToLocalDataErea(ReplyWithData(kDataPos, Words({0x0001})));
    EXPECT_EQ(PLC_driver.areaB[0], 0x0001);
    EXPECT_EQ(PLC_driver.areaA[0], kWordSentinel);
    EXPECT_EQ(ChangedA(), 0);
}

TEST_F(ReplyStorage, MultiStationStoresNothing) {
    info.multiStation = 1;
    for (int type : {0, 1, 2, 3, 4}) {
        PLC_driver.protocolList.clear();
        QueueRead(type, 10, 8);
        SaveToLocalDataErea(ReplyWithData(kDataPos, Words({1, 2, 3, 4})));
    }
    EXPECT_EQ(ChangedA(), 0);
    EXPECT_EQ(ChangedB(), 0);
    EXPECT_EQ(ChangedD(), 0);
}

TEST_F(ReplyStorage, MultiStationAnyNonZeroValue) {
    info.multiStation = -5;
    QueueRead(3, 10, 2);
    SaveToLocalDataErea(ReplyWithData(kDataPos, Words({1})));
    EXPECT_EQ(ChangedB(), 0);
}

TEST_F(ReplyStorage, DataPositionComesFromTheRequest) {
    QueueRead(3, 5, 4, 3);
    SaveToLocalDataErea(ReplyWithData(3, Words({0x0102, 0x0304})));
    EXPECT_EQ(Slice(PLC_driver.areaB, 5, 2), (std::vector<uint16_t>{0x0102, 0x0304}));
}

TEST_F(ReplyStorage, OnlyTheFirstQueuedRequestGuidesStorage) {
    QueueRead(3, 5, 2);
    QueueRead(2, 9, 8);
    SaveToLocalDataErea(ReplyWithData(kDataPos, Words({0x1111, 0x2222})));
    EXPECT_EQ(PLC_driver.areaB[5], 0x1111);
    EXPECT_EQ(ChangedB(), 1);
    EXPECT_EQ(ChangedA(), 0);
}

// ------------------------------------------------------------- value widths

TEST_F(ReplyStorage, ThreeDataBytesIntoWordAreaStoreOneWord) {
    QueueRead(2, 40, 3);
    SaveToLocalDataErea(ReplyWithData(kDataPos, Hex("34 12 56 78 9A")));
    EXPECT_EQ(Slice(PLC_driver.areaA, 40, 2), (std::vector<uint16_t>{0x1234, kWordSentinel}));
    EXPECT_EQ(ChangedA(), 1);
}

TEST_F(ReplyStorage, ThreeDataBytesIntoRealAreaStoreNothing) {
    QueueRead(4, 40, 3);
    SaveToLocalDataErea(ReplyWithData(kDataPos, Hex("34 12 56 78 9A")));
    EXPECT_EQ(ChangedD(), 0);
}

TEST_F(ReplyStorage, FewerThanTwoDataBytesStoreNothing) {
    for (int bytes : {1, 0, -1, -2, INT_MIN}) {
        PLC_driver.protocolList.clear();
        QueueRead(3, 40, bytes);
        SaveToLocalDataErea(ReplyWithData(kDataPos, Hex("34 12 56 78")));
        EXPECT_EQ(ChangedB(), 0) << "dataBytes " << bytes;
    }
}

TEST_F(ReplyStorage, FewerThanFourDataBytesStoreNoReal) {
    for (int bytes : {3, 2, 0, -4, INT_MIN}) {
        PLC_driver.protocolList.clear();
        QueueRead(4, 40, bytes);
        SaveToLocalDataErea(ReplyWithData(kDataPos, Hex("34 12 56 78 9A BC")));
        EXPECT_EQ(ChangedD(), 0) << "dataBytes " << bytes;
    }
}

TEST_F(ReplyStorage, SevenDataBytesIntoRealAreaStoreOneValue) {
    QueueRead(4, 40, 7);
    SaveToLocalDataErea(ReplyWithData(kDataPos, Hex("01 02 03 04 05 06 07 08")));
    EXPECT_EQ(PLC_driver.areaD[40], 0x04030201u);
    EXPECT_EQ(ChangedD(), 1);
}

TEST_F(ReplyStorage, RealsAreLittleEndian) {
    QueueRead(4, 7, 8);
    SaveToLocalDataErea(ReplyWithData(kDataPos, Reals({0x3F800000u, 0xC0490FDBu})));
    EXPECT_EQ(Slice(PLC_driver.areaD, 7, 2), (std::vector<uint32_t>{0x3F800000u, 0xC0490FDBu}));
}

// -------------------------------------------------------------- DLE skipping

TEST_F(ReplyStorage, StuffedDleFollowedBy34StoresWord3410) {
    QueueRead(3, 0, 2);
    SaveToLocalDataErea(ReplyWithData(kDataPos, Hex("10 10 34")));
    EXPECT_EQ(PLC_driver.areaB[0], 0x3410);
}

TEST_F(ReplyStorage, WordSaverSkipsDoubledDlesInEveryPosition) {
    // Low byte, high byte, both, neither, then after three earlier doublings.
    const QByteArray raw = Words({0x1010, 0x0010, 0x1000, 0x2233, 0x1044, 0x5510});
    const QByteArray stuffed = Stuff(raw);
    ASSERT_EQ(stuffed.size(), raw.size() + 6);
    QueueRead(2, 300, raw.size());
    SaveToLocalDataErea(ReplyWithData(kDataPos, stuffed));
    EXPECT_EQ(std::vector<uint16_t>(PLC_driver.areaA + 300, PLC_driver.areaA + 306),
              (std::vector<uint16_t>{0x1010, 0x0010, 0x1000, 0x2233, 0x1044, 0x5510}));
    EXPECT_EQ(ChangedA(), 6);
}

TEST_F(ReplyStorage, WordSaverCalledDirectlyWritesTheGivenArea) {
    static uint16_t area[kAreaElements];
    std::memset(area, 0, sizeof area);
    QueueRead(2, 3, 4);
    SaveWordToUS(ReplyWithData(kDataPos, Stuff(Words({0x0110, 0x1001}))), area);
    EXPECT_EQ(area[3], 0x0110);
    EXPECT_EQ(area[4], 0x1001);
    EXPECT_EQ(area[5], 0);
    EXPECT_EQ(ChangedA(), 0);
}

TEST_F(ReplyStorage, RealSaverSkipsDoubledDlesInEveryPosition) {
    const QByteArray raw = Reals({0x10101010u, 0x00100000u, 0x12345610u, 0x10000000u, 0x0A0B0C0Du});
    const QByteArray stuffed = Stuff(raw);
    ASSERT_EQ(stuffed.size(), raw.size() + 7);
    QueueRead(4, 1000, raw.size());
    SaveToLocalDataErea(ReplyWithData(kDataPos, stuffed));
    EXPECT_EQ(
        Slice(PLC_driver.areaD, 1000, 5),
        (std::vector<uint32_t>{0x10101010u, 0x00100000u, 0x12345610u, 0x10000000u, 0x0A0B0C0Du}));
    EXPECT_EQ(ChangedD(), 5);
}

// Timer/counter structures: three words per element. Doubled DLEs sit in the
// first, second and third word of different elements.
QByteArray TimerElements() {
    return Stuff(Words({0x1010, 0x0102, 0x1004,     // element 0: DLEs in words 0 and 2
                        0x0001, 0x1020, 0x0010,     // element 1: DLEs in words 1 and 2
                        0x0510, 0x0607, 0x1008}));  // element 2: DLEs in words 0 and 2
}

TEST_F(ReplyStorage, PresetSaverTakesSecondWordOfEachElement) {
    QueueRead(2, 50, 18);
    SaveT_C_PRE(ReplyWithData(kDataPos, TimerElements()), PLC_driver.areaA);
    EXPECT_EQ(Slice(PLC_driver.areaA, 50, 3), (std::vector<uint16_t>{0x0102, 0x1020, 0x0607}));
    EXPECT_EQ(ChangedA(), 3);
}

TEST_F(ReplyStorage, AccumulatorSaverTakesThirdWordOfEachElement) {
    QueueRead(2, 50, 18);
    SaveT_C_ACC(ReplyWithData(kDataPos, TimerElements()), PLC_driver.areaA);
    EXPECT_EQ(Slice(PLC_driver.areaA, 50, 3), (std::vector<uint16_t>{0x1004, 0x0010, 0x1008}));
    EXPECT_EQ(ChangedA(), 3);
}

TEST_F(ReplyStorage, TimerSaversWithoutDles) {
    const QByteArray raw = Words({0x0A01, 0x0B02, 0x0C03, 0x0D04, 0x0E05, 0x0F06});
    QueueRead(3, 7, 12);
    SaveT_C_PRE(ReplyWithData(kDataPos, raw), PLC_driver.areaB);
    EXPECT_EQ(Slice(PLC_driver.areaB, 7, 2), (std::vector<uint16_t>{0x0B02, 0x0E05}));
    SaveT_C_ACC(ReplyWithData(kDataPos, raw), PLC_driver.areaA);
    EXPECT_EQ(Slice(PLC_driver.areaA, 7, 2), (std::vector<uint16_t>{0x0C03, 0x0F06}));
}

TEST_F(ReplyStorage, TimerSaversNeedSixBytesPerElement) {
    const QByteArray raw = Words({0x0A01, 0x0B02, 0x0C03, 0x0D04, 0x0E05, 0x0F06});
    QueueRead(2, 7, 5);
    SaveT_C_PRE(ReplyWithData(kDataPos, raw), PLC_driver.areaA);
    SaveT_C_ACC(ReplyWithData(kDataPos, raw), PLC_driver.areaA);
    EXPECT_EQ(ChangedA(), 0);
    PLC_driver.protocolList.first().dataBytes = 11;
    SaveT_C_PRE(ReplyWithData(kDataPos, raw), PLC_driver.areaA);
    EXPECT_EQ(PLC_driver.areaA[7], 0x0B02);
    EXPECT_EQ(ChangedA(), 1);
}

TEST_F(ReplyStorage, SaveToLocalNeverUsesTimerLayout) {
    QueueRead(3, 50, 18);
    const QByteArray raw =
        Words({0x0001, 0x0002, 0x0003, 0x0004, 0x0005, 0x0006, 0x0007, 0x0008, 0x0009});
    SaveToLocalDataErea(ReplyWithData(kDataPos, raw));
    for (int i = 0; i < 9; ++i) EXPECT_EQ(PLC_driver.areaB[50 + i], i + 1) << i;
}

// ---------------------------------------------------------------- short replies

TEST_F(ReplyStorage, ShortReplyLeavesUncoveredWordsUntouched) {
    // Four words promised, two and a half delivered.
    QueueRead(2, 10, 8);
    SaveToLocalDataErea(ReplyWithData(kDataPos, Hex("01 02 03 04 05")));
    EXPECT_EQ(Slice(PLC_driver.areaA, 10, 4),
              (std::vector<uint16_t>{0x0201, 0x0403, kWordSentinel, kWordSentinel}));
    EXPECT_EQ(ChangedA(), 2);
}

TEST_F(ReplyStorage, ShortReplyEndingInsideADoubledDleLeavesWordUntouched) {
    // The low byte's DLE pair is complete but the high byte is missing.
    QueueRead(2, 10, 4);
    SaveToLocalDataErea(ReplyWithData(kDataPos, Hex("01 02 10 10")));
    EXPECT_EQ(Slice(PLC_driver.areaA, 10, 2), (std::vector<uint16_t>{0x0201, kWordSentinel}));
}

TEST_F(ReplyStorage, ShortReplyLeavesUncoveredRealsUntouched) {
    QueueRead(4, 10, 12);
    SaveToLocalDataErea(ReplyWithData(kDataPos, Hex("01 02 03 04 05 06 07")));
    EXPECT_EQ(Slice(PLC_driver.areaD, 10, 3),
              (std::vector<uint32_t>{0x04030201u, kRealSentinel, kRealSentinel}));
}

TEST_F(ReplyStorage, ShortReplyEndingInsideStuffedRealLeavesItUntouched) {
    // 0x10101010 needs eight bytes on the wire; five arrive.
    QueueRead(4, 10, 4);
    SaveToLocalDataErea(ReplyWithData(kDataPos, Hex("10 10 10 10 10")));
    EXPECT_EQ(PLC_driver.areaD[10], kRealSentinel);
}

TEST_F(ReplyStorage, ShortReplyLeavesUncoveredTimerElementsUntouched) {
    QueueRead(2, 20, 18);
    const QByteArray part = Words({0x0001, 0x0002, 0x0003, 0x0004, 0x0005});
    SaveT_C_PRE(ReplyWithData(kDataPos, part), PLC_driver.areaA);
    EXPECT_EQ(Slice(PLC_driver.areaA, 20, 3),
              (std::vector<uint16_t>{0x0002, kWordSentinel, kWordSentinel}));
    SaveT_C_ACC(ReplyWithData(kDataPos, part), PLC_driver.areaB);
    EXPECT_EQ(Slice(PLC_driver.areaB, 20, 3),
              (std::vector<uint16_t>{0x0003, kWordSentinel, kWordSentinel}));
}

TEST_F(ReplyStorage, AccumulatorMissingAfterStuffingIsUntouched) {
    // One element, its first word 0x0010 doubled: the last byte is not in the reply.
    QueueRead(2, 20, 6);
    SaveT_C_ACC(ReplyWithData(kDataPos, Hex("10 10 00 11 11 22")), PLC_driver.areaA);
    EXPECT_EQ(PLC_driver.areaA[20], kWordSentinel);
}

TEST_F(ReplyStorage, EmptyReplyStoresNothing) {
    QueueRead(2, 20, 8);
    SaveToLocalDataErea(QByteArray());
    QueueRead(4, 20, 8);
    PLC_driver.protocolList.removeFirst();
    SaveToLocalDataErea(QByteArray());
    SaveT_C_PRE(QByteArray(), PLC_driver.areaA);
    SaveT_C_ACC(QByteArray(), PLC_driver.areaA);
    EXPECT_EQ(ChangedA(), 0);
    EXPECT_EQ(ChangedD(), 0);
}

TEST_F(ReplyStorage, HugeWordCountWithShortReplyStoresWhatArrived) {
    QueueRead(3, 0, INT_MAX);
    SaveToLocalDataErea(ReplyWithData(kDataPos, Words({0x1111, 0x2222})));
    EXPECT_EQ(Slice(PLC_driver.areaB, 0, 2), (std::vector<uint16_t>{0x1111, 0x2222}));
    EXPECT_EQ(ChangedB(), 2);
}

TEST_F(ReplyStorage, HugeRealCountWithShortReplyStoresWhatArrived) {
    QueueRead(4, 0, INT_MAX);
    SaveToLocalDataErea(ReplyWithData(kDataPos, Reals({0x11112222u})));
    EXPECT_EQ(PLC_driver.areaD[0], 0x11112222u);
    EXPECT_EQ(ChangedD(), 1);
}

TEST_F(ReplyStorage, HugeTimerCountWithShortReplyStoresWhatArrived) {
    QueueRead(2, 0, INT_MAX);
    const QByteArray raw = ReplyWithData(kDataPos, Words({0x0001, 0x0002, 0x0003}));
    SaveT_C_PRE(raw, PLC_driver.areaA);
    SaveT_C_ACC(raw, PLC_driver.areaB);
    EXPECT_EQ(PLC_driver.areaA[0], 0x0002);
    EXPECT_EQ(PLC_driver.areaB[0], 0x0003);
    EXPECT_EQ(ChangedA(), 1);
    EXPECT_EQ(ChangedB(), 1);
}

// ----------------------------------------------------------------- area bounds

TEST_F(ReplyStorage, WordsPastEndOfFirstAreaAreSkipped) {
    QueueRead(2, 65534, 8);
    SaveToLocalDataErea(ReplyWithData(kDataPos, Words({0x0101, 0x0202, 0x0303, 0x0404})));
    EXPECT_EQ(Slice(PLC_driver.areaA, 65534, 2), (std::vector<uint16_t>{0x0101, 0x0202}));
    EXPECT_EQ(Slice(PLC_driver.areaB, 0, 2), (std::vector<uint16_t>{kWordSentinel, kWordSentinel}));
    EXPECT_EQ(ChangedA(), 2);
    EXPECT_EQ(ChangedB(), 0);
    EXPECT_EQ(ChangedD(), 0);
}

TEST_F(ReplyStorage, WordsPastEndOfSecondAreaAreSkipped) {
    QueueRead(3, 65535, 8);
    SaveToLocalDataErea(ReplyWithData(kDataPos, Words({0x0101, 0x0202, 0x0303, 0x0404})));
    EXPECT_EQ(PLC_driver.areaB[65535], 0x0101);
    EXPECT_EQ(PLC_driver.areaD[0], kRealSentinel);
    EXPECT_EQ(ChangedB(), 1);
    EXPECT_EQ(ChangedD(), 0);
}

TEST_F(ReplyStorage, RealsPastEndOfRealAreaAreSkipped) {
    QueueRead(4, 65535, 12);
    SaveToLocalDataErea(ReplyWithData(kDataPos, Reals({0x01010101u, 0x02020202u, 0x03030303u})));
    EXPECT_EQ(PLC_driver.areaD[65535], 0x01010101u);
    EXPECT_EQ(ChangedD(), 1);
}

TEST_F(ReplyStorage, TimerElementsPastEndOfAreaAreSkipped) {
    QueueRead(2, 65535, 18);
    const QByteArray raw = ReplyWithData(kDataPos, Words({1, 2, 3, 4, 5, 6, 7, 8, 9}));
    SaveT_C_PRE(raw, PLC_driver.areaA);
    EXPECT_EQ(PLC_driver.areaA[65535], 2);
    EXPECT_EQ(Slice(PLC_driver.areaB, 0, 2), (std::vector<uint16_t>{kWordSentinel, kWordSentinel}));
    EXPECT_EQ(ChangedA(), 1);
    EXPECT_EQ(ChangedB(), 0);
}

TEST_F(ReplyStorage, NegativeAddressSkipsElementsBeforeTheArea) {
    PLC_driver.commError = 0;
    PLC_driver.commError2 = 0;
    PLC_driver.tns = 42;
    // The skipped elements' doubled DLEs are still stepped over.
    QueueRead(2, -2, 6);
    SaveToLocalDataErea(ReplyWithData(kDataPos, Stuff(Words({0x1010, 0x0210, 0x0303}))));
    EXPECT_EQ(PLC_driver.areaA[0], 0x0303);
    EXPECT_EQ(ChangedA(), 1);
    EXPECT_EQ(PLC_driver.commError, 0);
    EXPECT_EQ(PLC_driver.commError2, 0);
    EXPECT_EQ(PLC_driver.tns, 42);
    EXPECT_EQ(PLC_driver.mode, 100);
}

TEST_F(ReplyStorage, NegativeAddressInSecondAreaLeavesFirstAreaAlone) {
    QueueRead(3, -1, 4);
    SaveToLocalDataErea(ReplyWithData(kDataPos, Words({0x0101, 0x0202})));
    EXPECT_EQ(PLC_driver.areaB[0], 0x0202);
    EXPECT_EQ(PLC_driver.areaA[65535], kWordSentinel);
    EXPECT_EQ(ChangedA(), 0);
    EXPECT_EQ(ChangedB(), 1);
}

TEST_F(ReplyStorage, NegativeAddressInRealAreaLeavesSecondAreaAlone) {
    QueueRead(4, -1, 8);
    SaveToLocalDataErea(ReplyWithData(kDataPos, Reals({0x01010101u, 0x02020202u})));
    EXPECT_EQ(PLC_driver.areaD[0], 0x02020202u);
    EXPECT_EQ(PLC_driver.areaB[65535], kWordSentinel);
    EXPECT_EQ(PLC_driver.areaB[65534], kWordSentinel);
    EXPECT_EQ(ChangedB(), 0);
    EXPECT_EQ(ChangedD(), 1);
}

TEST_F(ReplyStorage, NegativeTimerAddressSkipsElementsBeforeTheArea) {
    QueueRead(3, -1, 12);
    const QByteArray raw = ReplyWithData(kDataPos, Stuff(Words({0x0010, 2, 0x1000, 4, 5, 6})));
    SaveT_C_ACC(raw, PLC_driver.areaB);
    EXPECT_EQ(PLC_driver.areaB[0], 6);
    EXPECT_EQ(PLC_driver.areaA[65535], kWordSentinel);
    EXPECT_EQ(ChangedB(), 1);
}

TEST_F(ReplyStorage, ExtremeAddressesStoreNothing) {
    for (int address : {INT_MIN, INT_MIN + 1, -65536, 65536, INT_MAX - 1, INT_MAX}) {
        for (int type : {2, 3, 4}) {
            PLC_driver.protocolList.clear();
            QueueRead(type, address, 16);
            SaveToLocalDataErea(ReplyWithData(kDataPos, Reals({1, 2, 3, 4})));
        }
    }
    EXPECT_EQ(ChangedA(), 0);
    EXPECT_EQ(ChangedB(), 0);
    EXPECT_EQ(ChangedD(), 0);
}

// ---------------------------------------------------------------- round trip

// A controller's reply to a read: DF1 header, Multiple Service Packet reply
// holding one Read Tag Fragmented reply, the values from byte 26 on, every
// 0x10 of the body sent twice, DLE ETX and the block check.
QByteArray ReadReply(uint8_t tnsByte, uint8_t typeCode, const QByteArray& values) {
    QByteArray body = Hex("00 00 4B 00");         // DST SRC CMD STS
    body.append(static_cast<char>(tnsByte));      // TNS
    body.append(Hex("00 00 00"));                 // TNS high, zero
    body.append(Hex("8A 00 00 00 01 00 04 00"));  // MSP reply, 1 service at 4
    body.append(Hex("D2 00 00 00"));              // Read Tag Fragmented reply, status 0
    body.append(static_cast<char>(typeCode));
    body.append('\x00');
    body.append(values);
    return replies::Framed(body);
}

struct RoundTripRow {
    const char* name;
    int dataType;
    int file, element;  // the address as the host writes it
    int count;
    int tns;
};

using ReadRoundTrip = RowTest<RoundTripRow, ReplyStorage>;

TEST_P(ReadRoundTrip, ReplyPassesChecksAndLandsAtTheRequestedElements) {
    const RoundTripRow& row = GetParam();
    const int address = row.file * 256 + row.element;
    PLC_driver.tns = row.tns;
    RW_VAR v;
    v.dataType = row.dataType;
    v.address = address;
    v.count = row.count;
    ReadRegister(&v);
    ASSERT_EQ(PLC_driver.protocolList.size(), 1);
    const Protocol p = PLC_driver.protocolList.first();
    ASSERT_EQ(p.dataPos, 26);

    const bool real = row.dataType == ABCL_REAL;
    const int elements = real ? (row.count > 1 ? row.count - 1 : 1) : row.count;
    QByteArray values;
    std::vector<uint32_t> expected;
    for (int i = 0; i < elements; ++i) {
        // Every third value carries DLE bytes, so stuffing shifts later values.
        const uint32_t value = (i % 3 == 0) ? 0x10101010u >> (8 * (i % 4))
                                            : 0x01020304u * static_cast<uint32_t>(i + 1);
        const uint32_t stored = real ? value : (value & 0xFFFF);
        expected.push_back(stored);
        for (int b = 0; b < (real ? 4 : 2); ++b)
            values.append(static_cast<char>((stored >> (8 * b)) & 0xFF));
    }
    ASSERT_EQ(values.size(), p.dataBytes);
    const QByteArray reply = ReadReply(static_cast<uint8_t>(row.tns), real ? 0xCA : 0xC3, values);
    ASSERT_EQ(static_cast<uint8_t>(reply[26]), static_cast<uint8_t>(values[0]));

    EXPECT_EQ(NotFixReturnCheck(reply), 1);
    EXPECT_EQ(CheckGetData(reply, reply.size()), 1);
    SaveToLocalDataErea(reply);

    for (int i = 0; i < elements; ++i) {
        const uint32_t want = expected[static_cast<size_t>(i)];
        if (real) {
            EXPECT_EQ(PLC_driver.areaD[address + i], want) << i;
        } else if (row.dataType == ABCL_BIT_A || row.dataType == ABCL_WORD_A) {
            EXPECT_EQ(PLC_driver.areaA[address + i], want) << i;
        } else {
            EXPECT_EQ(PLC_driver.areaB[address + i], want) << i;
        }
    }
    EXPECT_EQ(ChangedA() + ChangedB() + ChangedD(), elements);
}

INSTANTIATE_TEST_SUITE_P(Rows, ReadRoundTrip,
                         ::testing::Values(RoundTripRow{"N007_Words", 3, 7, 5, 7, 0x21},
                                           RoundTripRow{"N010_BitWords", 1, 10, 16, 4, 0x33},
                                           RoundTripRow{"B003_Words", 2, 3, 16, 5, 0x05},
                                           RoundTripRow{"B003_BitWords", 0, 3, 0, 3, 0x7F},
                                           RoundTripRow{"F008_Reals", 4, 8, 4, 5, 0x21},
                                           RoundTripRow{"F008_OneReal", 4, 8, 255, 1, 0x44}),
                         [](const ::testing::TestParamInfo<RoundTripRow>& row) {
                             return std::string(row.param.name);
                         });

TEST_F(ReplyStorage, ReadRoundTripThroughDataCom) {
    // The first reply only fixes the reply length; the second is stored.
    PLC_driver.tns = 0x21;
    RW_VAR v;
    v.dataType = ABCL_WORD_B;
    v.address = 7 * 256 + 5;
    v.count = 3;
    ReadRegister(&v);
    ASSERT_EQ(PLC_driver.protocolList.size(), 1);
    const QByteArray reply = ReadReply(0x21, 0xC3, Words({0x1010, 0x0010, 0x7FFF}));

    RW_VAR* first = DataCom(reply, reply.size());
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(first->result, 1);
    ASSERT_EQ(PLC_driver.protocolList.size(), 1);
    EXPECT_EQ(PLC_driver.protocolList.first().replyLen, reply.size());
    EXPECT_EQ(ChangedB(), 0);

    RW_VAR* second = DataCom(reply, reply.size());
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(second->result, 1);
    EXPECT_TRUE(PLC_driver.protocolList.isEmpty());
    EXPECT_EQ(PLC_driver.areaB[7 * 256 + 5], 0x1010);
    EXPECT_EQ(PLC_driver.areaB[7 * 256 + 6], 0x0010);
    EXPECT_EQ(PLC_driver.areaB[7 * 256 + 7], 0x7FFF);
    EXPECT_EQ(ChangedB(), 3);
}

}  // namespace
