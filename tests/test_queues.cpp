// The write queue (a newer value replaces a pending one), the one-shot read
// queue (split by maxCount, never queued twice) and the find-or-add registry.
#include "test_support.h"

#include "Func_GetOrSetData.h"
#include "protocol_constants.h"

#include <climits>
#include <string>
#include <tuple>
#include <vector>

namespace {

RW_VAR Write(int station, int dataType, int address, int count, const char* data, int varId = 1) {
    return RecordBuilder()
        .Ids(varId, 0)
        .Host(1, 0)
        .Texts(QStringLiteral("%1").arg(address))
        .At(dataType, address, count, station)
        .Data(Hex(data));
}

// Queues each record in turn through the full procedure (mode 0); the last
// call's result, the queue length it leaves.
int QueueWrites(std::vector<RW_VAR> writes) {
    int length = 0;
    for (RW_VAR& w : writes) length = AddListWriteVar(&w, 0);
    return length;
}

// The data of every queued write, in queue order.
std::vector<std::string> QueuedData() {
    std::vector<std::string> out;
    for (const RW_VAR& v : PLC_driver.writeList) out.push_back(ToHex(v.data));
    return out;
}

using Piece = std::tuple<int, int>;  // (address, count)

std::vector<Piece> OncePieces() {
    std::vector<Piece> out;
    for (const RW_VAR& v : PLC_driver.onceReadList) out.emplace_back(v.address, v.count);
    return out;
}

// ---- write queue ------------------------------------------------------------

using WriteQueue = DriverTest;

TEST_F(WriteQueue, TwoWritesOfOneVariable_TwoEntries) {
    EXPECT_EQ(QueueWrites({Write(1, 2, 100, 1, "01 00")}), 1);
    EXPECT_EQ(QueueWrites({Write(1, 2, 100, 1, "02 00")}), 2);
    EXPECT_EQ(QueuedData(), (std::vector<std::string>{"01 00", "02 00"}));
}

TEST_F(WriteQueue, ThirdWrite_ReplacesEntry1WithNewestData) {
    EXPECT_EQ(QueueWrites({Write(1, 2, 100, 1, "01 00"), Write(1, 2, 100, 1, "02 00"),
                           Write(1, 2, 100, 1, "03 00")}),
              2);
    // Entry 0 is on the wire: never replaced.
    EXPECT_EQ(QueuedData(), (std::vector<std::string>{"01 00", "03 00"}));
}

TEST_F(WriteQueue, EqualToEntry0WhileEntry1Differs_Appended) {
    EXPECT_EQ(QueueWrites({Write(1, 2, 100, 1, "01 00"), Write(1, 2, 200, 1, "05 00"),
                           Write(1, 2, 100, 1, "02 00")}),
              3);
    ASSERT_EQ(PLC_driver.writeList.size(), 3);
    EXPECT_EQ(ToHex(PLC_driver.writeList[0].data), "01 00");
    EXPECT_EQ(PLC_driver.writeList[1].address, 200);
    EXPECT_EQ(ToHex(PLC_driver.writeList[2].data), "02 00");
}

TEST_F(WriteQueue, DifferingOnlyInVarId_SameVariable) {
    EXPECT_EQ(
        QueueWrites({Write(1, 3, 100, 2, "01 00 02 00", 1), Write(1, 3, 100, 2, "01 00 02 00", 1),
                     Write(1, 3, 100, 2, "01 00 02 00", 9)}),
        2);
    EXPECT_EQ(PLC_driver.writeList[1].varId, 9);
}

TEST_F(WriteQueue, DifferingOnlyInData_SameVariable) {
    EXPECT_EQ(QueueWrites({Write(1, 3, 100, 2, "01 00 02 00"), Write(1, 3, 100, 2, "01 00 02 00"),
                           Write(1, 3, 100, 2, "AA BB")}),
              2);
    EXPECT_EQ(ToHex(PLC_driver.writeList[1].data), "AA BB");
}

TEST_F(WriteQueue, Replacement_CopiesEveryField) {
    QueueWrites({Write(1, 2, 100, 1, "01 00"), Write(1, 2, 100, 1, "02 00")});
    // Same station, type, address and count as the pending write; every other field new.
    const RW_VAR newer = RecordBuilder()
                             .Ids(7, 8)
                             .Host(5, 6, 12, 13)
                             .Link(4, 3)
                             .Texts(QStringLiteral("new text"), QStringLiteral("new text 2"))
                             .At(2, 100, 1, 1)
                             .Data(Hex("03 00"));
    RW_VAR sent = newer;
    EXPECT_EQ(AddListWriteVar(&sent, 0), 2);
    ExpectSameRecord(newer, PLC_driver.writeList[1]);
}

TEST_F(WriteQueue, SamenessNeedsStationTypeAddressAndCount) {
    QueueWrites({Write(1, 2, 100, 1, "01 00"), Write(1, 2, 100, 1, "02 00")});
    RW_VAR otherStation = Write(2, 2, 100, 1, "03 00");
    RW_VAR otherType = Write(1, 3, 100, 1, "03 00");
    RW_VAR otherAddress = Write(1, 2, 101, 1, "03 00");
    RW_VAR otherCount = Write(1, 2, 100, 2, "03 00 00 00");
    EXPECT_EQ(AddListWriteVar(&otherStation, 0), 3);
    EXPECT_EQ(AddListWriteVar(&otherType, 0), 4);
    EXPECT_EQ(AddListWriteVar(&otherAddress, 0), 5);
    EXPECT_EQ(AddListWriteVar(&otherCount, 0), 6);
    EXPECT_EQ(ToHex(PLC_driver.writeList[1].data), "02 00");
}

TEST_F(WriteQueue, DifferentAddressTextSameIndex_SameVariable) {
    RW_VAR a = Write(1, 2, 2092, 1, "01 00");
    RW_VAR b = Write(1, 2, 2092, 1, "02 00");
    b.addrText = QStringLiteral("7:300");
    RW_VAR c = Write(1, 2, 2092, 1, "03 00");
    c.addrText = QStringLiteral("8:44");
    AddListWriteVar(&a, 0);
    AddListWriteVar(&b, 0);
    EXPECT_EQ(AddListWriteVar(&c, 0), 2);
    EXPECT_EQ(PLC_driver.writeList[1].addrText, QStringLiteral("8:44"));
}

TEST_F(WriteQueue, OnlyTheFirstMatchIsReplaced) {
    RW_VAR head = Write(1, 2, 1, 1, "00 00");
    RW_VAR a = Write(1, 2, 100, 1, "01 00");
    AddListWriteVar(&head, 0);
    AddListWriteVar(&a, 1);
    AddListWriteVar(&a, 1);  // mode 1 queues the duplicate
    RW_VAR newest = Write(1, 2, 100, 1, "09 00");
    EXPECT_EQ(AddListWriteVar(&newest, 0), 3);
    EXPECT_EQ(ToHex(PLC_driver.writeList[1].data), "09 00");
    EXPECT_EQ(ToHex(PLC_driver.writeList[2].data), "01 00");
}

TEST_F(WriteQueue, OtherModeValues_RunTheFullProcedure) {
    RW_VAR a = Write(1, 2, 100, 1, "01 00");
    AddListWriteVar(&a, 7);
    AddListWriteVar(&a, -1);
    EXPECT_EQ(AddListWriteVar(&a, 2), 2);
}

TEST_F(WriteQueue, CallersRecordIsCopied) {
    RW_VAR a = Write(1, 2, 100, 1, "01 00");
    AddListWriteVar(&a, 0);
    a.data[0] = 0x55;
    a.address = 5;
    EXPECT_EQ(ToHex(PLC_driver.writeList[0].data), "01 00");
    EXPECT_EQ(PLC_driver.writeList[0].address, 100);
}

class FullWriteQueue : public DriverTest {
protected:
    void SetUp() override {
        DriverTest::SetUp();
        for (int i = 0; i < kQueueLimit; ++i) {
            RW_VAR v = Write(1, 2, 1000 + i, 1, "00 00");
            ASSERT_EQ(AddListWriteVar(&v, 0), i + 1);
        }
    }
};

TEST_F(FullWriteQueue, NewDifferentWrite_DroppedAndLengthReturned) {
    RW_VAR v = Write(1, 2, 50, 1, "01 00");
    EXPECT_EQ(AddListWriteVar(&v, 0), 1024);
    ASSERT_EQ(PLC_driver.writeList.size(), 1024);
    for (const RW_VAR& e : PLC_driver.writeList) EXPECT_NE(e.address, 50);
}

TEST_F(FullWriteQueue, WriteMatchingEntry5_StillReplacesIt) {
    RW_VAR v = Write(1, 2, 1005, 1, "77 66");
    EXPECT_EQ(AddListWriteVar(&v, 0), 1024);
    ASSERT_EQ(PLC_driver.writeList.size(), 1024);
    EXPECT_EQ(PLC_driver.writeList[5].address, 1005);
    EXPECT_EQ(ToHex(PLC_driver.writeList[5].data), "77 66");
}

TEST_F(FullWriteQueue, WriteMatchingOnlyEntry0_Dropped) {
    RW_VAR v = Write(1, 2, 1000, 1, "77 66");
    EXPECT_EQ(AddListWriteVar(&v, 0), 1024);
    EXPECT_EQ(ToHex(PLC_driver.writeList[0].data), "00 00");
}

TEST_F(FullWriteQueue, Mode1_AppendsEvenADuplicate) {
    RW_VAR v = Write(1, 2, 1005, 1, "77 66");
    EXPECT_EQ(AddListWriteVar(&v, 1), 1025);
    EXPECT_EQ(AddListWriteVar(&v, 1), 1026);
    EXPECT_EQ(ToHex(PLC_driver.writeList[5].data), "00 00");
    EXPECT_EQ(ToHex(PLC_driver.writeList[1025].data), "77 66");
}

TEST_F(WriteQueue, Mode1_AppendsDuplicatesWithoutSearching) {
    RW_VAR a = Write(1, 2, 100, 1, "01 00");
    EXPECT_EQ(AddListWriteVar(&a, 1), 1);
    EXPECT_EQ(AddListWriteVar(&a, 1), 2);
    EXPECT_EQ(AddListWriteVar(&a, 1), 3);
}

// ---- one-shot reads -----------------------------------------------------------

class OnceQueue : public DriverTest {
protected:
    RW_VAR Read(int dataType, const char* text, int count, int varId = 1, int varSubId = 0) {
        RW_VAR v;
        v.varId = varId;
        v.varSubId = varSubId;
        v.dataType = dataType;
        v.addrText = QString::fromLatin1(text);
        v.count = count;
        v.station = 1;
        return v;
    }
    // Queues one read that names `station`: the station its entry goes to.
    int QueuedStationOf(int station) {
        RW_VAR v = Read(2, "7:10", 1);
        v.station = station;
        AddListOnceReadVar(&v, 0);
        EXPECT_EQ(PLC_driver.onceReadList.size(), 1);
        return PLC_driver.onceReadList.isEmpty() ? -1 : PLC_driver.onceReadList[0].station;
    }
};

TEST_F(OnceQueue, SameVarIdSubIdAndAddress_QueuedOnce) {
    RW_VAR a = Read(2, "7:10", 2, 5, 6);
    RW_VAR b = Read(2, "7:10", 2, 5, 6);
    EXPECT_EQ(AddListOnceReadVar(&a, 0), 1);
    EXPECT_EQ(AddListOnceReadVar(&b, 0), 1);
    EXPECT_EQ(OncePieces(), (std::vector<Piece>{{1802, 2}}));
}

TEST_F(OnceQueue, OtherVarSubId_QueuedTwice) {
    RW_VAR a = Read(2, "7:10", 2, 5, 6);
    RW_VAR b = Read(2, "7:10", 2, 5, 7);
    EXPECT_EQ(AddListOnceReadVar(&a, 0), 1);
    EXPECT_EQ(AddListOnceReadVar(&b, 0), 2);
}

TEST_F(OnceQueue, OtherVarId_QueuedTwice) {
    RW_VAR a = Read(3, "7:10", 2, 5, 6);
    RW_VAR b = Read(3, "7:10", 2, 4, 6);
    EXPECT_EQ(AddListOnceReadVar(&a, 0), 1);
    EXPECT_EQ(AddListOnceReadVar(&b, 0), 2);
}

TEST_F(OnceQueue, OtherCountOrType_QueuedTwice) {
    RW_VAR a = Read(2, "7:10", 2);
    RW_VAR b = Read(2, "7:10", 3);
    RW_VAR c = Read(3, "7:10", 2);
    EXPECT_EQ(AddListOnceReadVar(&a, 0), 1);
    EXPECT_EQ(AddListOnceReadVar(&b, 0), 2);
    EXPECT_EQ(AddListOnceReadVar(&c, 0), 3);
}

TEST_F(OnceQueue, DuplicateOfEntry0_NotQueued) {
    // Unlike the write queue, the search starts at the head.
    RW_VAR a = Read(2, "7:10", 2);
    RW_VAR b = Read(2, "7:20", 2);
    AddListOnceReadVar(&a, 0);
    AddListOnceReadVar(&b, 0);
    RW_VAR again = Read(2, "7:10", 2);
    EXPECT_EQ(AddListOnceReadVar(&again, 0), 2);
}

// One variable split into pieces of at most maxCount, in the queue in order.
struct SplitRow {
    const char* name;
    int maxCount;
    int dataType;
    const char* text;
    int count;
    std::vector<Piece> pieces;  // (address, count) of each queued piece
};

using OnceSplit = RowTest<SplitRow, OnceQueue>;

TEST_P(OnceSplit, QueuesThePieces) {
    const SplitRow& row = GetParam();
    info.maxCount = row.maxCount;
    RW_VAR v = Read(row.dataType, row.text, row.count);
    EXPECT_EQ(AddListOnceReadVar(&v, 0), static_cast<int>(row.pieces.size()));
    EXPECT_EQ(OncePieces(), row.pieces);
}

INSTANTIATE_TEST_SUITE_P(
    OnceQueue, OnceSplit,
    ::testing::Values(
        SplitRow{
            "WordVariable_SplitWithPlainStep", 4, 2, "7:10", 10, {{1802, 4}, {1806, 4}, {1810, 2}}},
        SplitRow{"RealVariable_SplitWithPlainStep",
                 10,
                 4,
                 "8:0",
                 35,
                 {{2048, 10}, {2058, 10}, {2068, 10}, {2078, 5}}},
        SplitRow{
            "BitVariable_KeepsBitUnitsPerWordBlock", 1, 0, "7:10/3", 20, {{28832, 1}, {28848, 1}}},
        // 16 x 10 bits: 10 words.
        SplitRow{"BitVariable_BlockOfWordsStepsIn16BitUnits",
                 4,
                 1,
                 "7:0/0",
                 16 * 10,
                 {{28672, 4}, {28736, 4}, {28800, 2}}},
        SplitRow{"BitVariableInOneWord_OneWordCount", 32, 1, "7:10/15", 1, {{28832, 1}}},
        SplitRow{"ZeroMaxCount_OnePieceOfFullCount", 0, 2, "7:10", 500, {{1802, 500}}}),
    RowName());

TEST_F(OnceQueue, ZeroCount_QueuesNothingAndReturnsLength) {
    ABCL_DEFAULT_BUILD_ONLY("the hardened build returns 0 for a read it does not queue");
    RW_VAR first = Read(2, "7:10", 1);
    AddListOnceReadVar(&first, 0);
    RW_VAR v = Read(2, "7:20", 0);
    EXPECT_EQ(AddListOnceReadVar(&v, 0), 1);
}

TEST_F(OnceQueue, CountBelowOne_NotQueuedAndReturnsZero_Hardened) {
    ABCL_HARDENED_BUILD_ONLY("the default build returns the queue's length for a read of nothing");
    RW_VAR first = Read(2, "7:10", 1);
    ASSERT_EQ(AddListOnceReadVar(&first, 0), 1);
    for (const int count : {0, -1, INT_MIN}) {
        RW_VAR words = Read(3, "7:20", count);
        EXPECT_EQ(AddListOnceReadVar(&words, 0), 0) << "count " << count;
        RW_VAR reals = Read(4, "8:0", count);
        EXPECT_EQ(AddListOnceReadVar(&reals, 0), 0) << "count " << count;
    }
    EXPECT_EQ(OncePieces(), (std::vector<Piece>{{1802, 1}}));
}

TEST_F(OnceQueue, OtherDataType_KeepsTheHostsAddress) {
    info.maxCount = 4;
    RW_VAR v = Read(5, "abc", 10);  // converts to 0: valid, only a check
    v.address = 100;
    EXPECT_EQ(AddListOnceReadVar(&v, 0), 3);
    EXPECT_EQ(OncePieces(), (std::vector<Piece>{{100, 4}, {104, 4}, {108, 2}}));
}

TEST_F(OnceQueue, OtherDataTypeMinusOneText_Invalid) {
    RW_VAR v = Read(5, "-1", 10);
    EXPECT_EQ(AddListOnceReadVar(&v, 0), 0);
    EXPECT_TRUE(PLC_driver.onceReadList.isEmpty());
}

TEST_F(OnceQueue, SingleStation_StationIsTheDefault) {
    info.defaultStation = 3;
    EXPECT_EQ(QueuedStationOf(55), 3);
}

TEST_F(OnceQueue, MultiStation_KeepsItsOwnStation) {
    info.defaultStation = 3;
    info.multiStation = 1;
    EXPECT_EQ(QueuedStationOf(55), 55);
}

TEST_F(OnceQueue, MultiStation_OtherStationQueuedTwice) {
    info.multiStation = 1;
    RW_VAR a = Read(2, "7:10", 1);
    a.station = 5;
    RW_VAR b = Read(2, "7:10", 1);
    b.station = 6;
    EXPECT_EQ(AddListOnceReadVar(&a, 0), 1);
    EXPECT_EQ(AddListOnceReadVar(&b, 0), 2);
}

TEST_F(OnceQueue, HostFields12And13_Zeroed) {
    RW_VAR v = Read(2, "7:10", 1);
    v.aux12 = 12;
    v.aux13 = 13;
    v.aux2 = 0;
    v.aux3 = 33;
    v.addrText2 = QStringLiteral("t2");
    AddListOnceReadVar(&v, 0);
    ASSERT_EQ(PLC_driver.onceReadList.size(), 1);
    const RW_VAR& e = PLC_driver.onceReadList[0];
    EXPECT_EQ(e.aux12, 0);
    EXPECT_EQ(e.aux13, 0);
    EXPECT_EQ(e.aux3, 33);
    EXPECT_EQ(e.addrText2, QStringLiteral("t2"));
    EXPECT_EQ(e.addrText, QStringLiteral("7:10"));
    EXPECT_EQ(v.aux12, 0);
    EXPECT_EQ(v.aux13, 0);
}

TEST_F(OnceQueue, CallersRecord_HoldsTheLastPiece) {
    info.maxCount = 4;
    info.defaultStation = 8;
    RW_VAR v = Read(2, "7:10", 10);
    v.station = 55;
    v.aux12 = 1;
    AddListOnceReadVar(&v, 0);
    EXPECT_EQ(v.address, 1810);
    EXPECT_EQ(v.count, 2);
    EXPECT_EQ(v.station, 8);
    EXPECT_EQ(v.aux12, 0);
}

TEST_F(OnceQueue, CallersBitRecord_HoldsTheLastPieceInBitUnits) {
    info.maxCount = 1;
    RW_VAR v = Read(0, "7:10/3", 20);
    AddListOnceReadVar(&v, 0);
    EXPECT_EQ(v.address, 28848);
    EXPECT_EQ(v.count, 1);
}

TEST_F(OnceQueue, AddressWithoutColon_ReturnsZeroAndQueuesNothing) {
    RW_VAR queued = Read(2, "7:10", 1);
    ASSERT_EQ(AddListOnceReadVar(&queued, 0), 1);
    RW_VAR v = Read(2, "710", 3);
    v.address = 99;
    v.aux12 = 4;
    v.station = 55;
    EXPECT_EQ(AddListOnceReadVar(&v, 0), 0);
    EXPECT_EQ(PLC_driver.onceReadList.size(), 1);
    EXPECT_EQ(v.address, 99);
    EXPECT_EQ(v.aux12, 4);
    EXPECT_EQ(v.station, 55);
}

TEST_F(OnceQueue, Mode1_AppendsUnchangedWithoutParsing) {
    RW_VAR v = Read(0, "not an address", 20);
    v.address = 12345;
    v.aux12 = 12;
    v.station = 55;
    EXPECT_EQ(AddListOnceReadVar(&v, 1), 1);
    EXPECT_EQ(AddListOnceReadVar(&v, 1), 2);
    const RW_VAR& e = PLC_driver.onceReadList[1];
    EXPECT_EQ(e.address, 12345);
    EXPECT_EQ(e.count, 20);
    EXPECT_EQ(e.aux12, 12);
    EXPECT_EQ(e.station, 55);
}

class FullOnceQueue : public OnceQueue {
protected:
    void Fill(int entries) {
        for (int i = 0; i < entries; ++i) {
            RW_VAR v = Read(3, "0:0", 1, 1000 + i);
            ASSERT_EQ(AddListOnceReadVar(&v, 0), i + 1);
        }
    }
};

TEST_F(FullOnceQueue, At1024_NewReadDropped) {
    Fill(kQueueLimit);
    RW_VAR v = Read(2, "7:10", 1);
    EXPECT_EQ(AddListOnceReadVar(&v, 0), 1024);
    EXPECT_EQ(PLC_driver.onceReadList.size(), 1024);
}

TEST_F(FullOnceQueue, OnePlaceLeft_FirstPieceQueuedLaterOnesDropped) {
    Fill(kQueueLimit - 1);
    info.maxCount = 4;
    RW_VAR v = Read(2, "7:10", 10);
    EXPECT_EQ(AddListOnceReadVar(&v, 0), 1024);
    EXPECT_EQ(PLC_driver.onceReadList.last().address, 1802);
    EXPECT_EQ(PLC_driver.onceReadList.last().count, 4);
    // Every piece is still tried: the record ends on the last one.
    EXPECT_EQ(v.address, 1810);
    EXPECT_EQ(v.count, 2);
}

TEST_F(FullOnceQueue, OnePlaceLeft_QueuedPieceSkippedNextOneTakesThePlace) {
    info.maxCount = 4;
    RW_VAR first = Read(2, "7:10", 4, 7);
    ASSERT_EQ(AddListOnceReadVar(&first, 0), 1);
    for (int i = 1; i < kQueueLimit - 1; ++i) {
        RW_VAR filler = Read(3, "0:0", 1, 1000 + i);
        ASSERT_EQ(AddListOnceReadVar(&filler, 0), i + 1);
    }
    RW_VAR v = Read(2, "7:10", 10, 7);  // piece 0 is already queued
    EXPECT_EQ(AddListOnceReadVar(&v, 0), 1024);
    EXPECT_EQ(PLC_driver.onceReadList.last().address, 1806);
    EXPECT_EQ(PLC_driver.onceReadList.last().count, 4);
}

TEST_F(FullOnceQueue, Mode1_AppendsPastTheLimit) {
    Fill(kQueueLimit);
    RW_VAR v = Read(2, "7:10", 1);
    EXPECT_EQ(AddListOnceReadVar(&v, 1), 1025);
}

TEST_F(OnceQueue, HugeWordCount_BoundedAndNoCrash) {
    ABCL_DEFAULT_BUILD_ONLY("the hardened build caps the read at the end of the local area");
    // 32,768 pieces of 65,536 words; the last one starts at 2,147,483,647.
    info.maxCount = 1 << 16;
    RW_VAR words = Read(2, "255:255", INT_MAX);
    EXPECT_EQ(AddListOnceReadVar(&words, 0), kQueueLimit);
    EXPECT_EQ(PLC_driver.onceReadList[0].address, 65535);
    EXPECT_EQ(PLC_driver.onceReadList[1].address, 65535 + 65536);
    EXPECT_EQ(words.address, INT_MAX);
    EXPECT_EQ(words.count, 65535);
}

TEST_F(OnceQueue, HugeWordCount_CappedAtTheEndOfTheArea_Hardened) {
    ABCL_HARDENED_BUILD_ONLY("the default build queues pieces far past the local area");
    info.maxCount = 1 << 16;
    RW_VAR words = Read(2, "255:255", INT_MAX);
    EXPECT_EQ(AddListOnceReadVar(&words, 0), 1);
    EXPECT_EQ(OncePieces(), (std::vector<Piece>{{65535, 1}}));
    EXPECT_EQ(words.address, 65535);
    EXPECT_EQ(words.count, 1);
}

TEST_F(OnceQueue, ReadsRunningPastTheAreaEnd_CappedThenSplit_Hardened) {
    ABCL_HARDENED_BUILD_ONLY("the default build reads past the local area");
    info.maxCount = 4;
    // Elements 65530..65549: six of them lie in the area.
    RW_VAR words = Read(3, "255:250", 20, 1);
    EXPECT_EQ(AddListOnceReadVar(&words, 0), 2);
    // Bits 8..47 of the last word hold three words; one of them is in the area.
    RW_VAR bits = Read(0, "255:255/8", 40, 2);
    EXPECT_EQ(AddListOnceReadVar(&bits, 0), 3);
    // A run starting outside the area is not queued at all.
    RW_VAR outside = Read(3, "256:0", 1, 3);
    EXPECT_EQ(AddListOnceReadVar(&outside, 0), 0);
    EXPECT_EQ(OncePieces(), (std::vector<Piece>{{65530, 4}, {65534, 2}, {65535 * 16, 1}}));
}

TEST_F(OnceQueue, HugeBitCount_BoundedAndNoCrash) {
    info.maxCount = 1 << 16;
    RW_VAR bits = Read(0, "255:255/15", INT_MAX);
    EXPECT_LE(AddListOnceReadVar(&bits, 0), kQueueLimit);
}

TEST_F(OnceQueue, MostNegativeCountAndMinusOneMax_BoundedAndNoCrash) {
    info.maxCount = -1;
    RW_VAR negative = Read(3, "0:0", INT_MIN);
    EXPECT_LE(AddListOnceReadVar(&negative, 0), kQueueLimit);
}

// ---- the find-or-add registry -------------------------------------------------

using ExtendRegistry = DriverTest;

TEST_F(ExtendRegistry, FindOrAdd_ReturnsStablePositions) {
    EXPECT_EQ(ExtendFindSameVar(1, 2, 3), 0);
    EXPECT_EQ(ExtendFindSameVar(4, 5, 6), 1);
    EXPECT_EQ(ExtendFindSameVar(1, 2, 3), 0);
    EXPECT_EQ(ExtendFindSameVar(4, 5, 6), 1);
    ASSERT_EQ(PLC_driver.extendList.size(), 2);
    for (const EXTENDVAR& e : PLC_driver.extendList) EXPECT_EQ(ToHex(e.extData), "00 00");
    EXPECT_EQ(PLC_driver.extendList[1].extA, 4);
    EXPECT_EQ(PLC_driver.extendList[1].extB, 5);
    EXPECT_EQ(PLC_driver.extendList[1].extC, 6);
}

TEST_F(ExtendRegistry, PartialMatch_IsANewEntry) {
    EXPECT_EQ(ExtendFindSameVar(1, 2, 3), 0);
    EXPECT_EQ(ExtendFindSameVar(1, 2, 4), 1);
    EXPECT_EQ(ExtendFindSameVar(0, 2, 3), 2);
    EXPECT_EQ(ExtendFindSameVar(1, 0, 3), 3);
    EXPECT_EQ(ExtendFindSameVar(1, 2, 3), 0);
    EXPECT_EQ(PLC_driver.extendList.size(), 4);
}

}  // namespace
