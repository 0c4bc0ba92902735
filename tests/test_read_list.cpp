// The cyclic read list: the host's variables become read requests of at most
// maxCount elements, neighbours of one data type merged into one request.
#include "build_kind.h"
#include "test_support.h"

#include "Func_Initi.h"
#include "protocol_constants.h"

#include <climits>
#include <memory>
#include <tuple>
#include <vector>

namespace {

// The host's list as the runtime hands it over: a QList of pointers to records
// the host owns.
class HostItems {
public:
    ReadVarItem* Add(int dataType, const char* text, int count, const char* text2 = "") {
        items_.push_back(std::make_unique<ReadVarItem>());
        ReadVarItem* item = items_.back().get();
        item->dataType = static_cast<uint8_t>(dataType);
        item->addrText = QString::fromLatin1(text);
        item->addrText2 = QString::fromLatin1(text2);
        item->count = count;
        list_.append(item);
        return item;
    }
    QList<ReadVarItem*>* list() { return &list_; }

private:
    std::vector<std::unique_ptr<ReadVarItem>> items_;
    QList<ReadVarItem*> list_;
};

// (dataType, address, count) of every request, in list order.
using Request = std::tuple<int, int, int>;

std::vector<Request> Requests() {
    std::vector<Request> out;
    for (const RW_VAR& v : PLC_driver.readList) out.emplace_back(v.dataType, v.address, v.count);
    return out;
}

class ReadList : public DriverTest {
protected:
    int Rebuild() { return ReCreatReadVarList(host.list()); }
    HostItems host;
};

// ---- merging ----------------------------------------------------------------

TEST_F(ReadList, NearbyWords_MergeIntoOneRequestWithTheGap) {
    host.Add(2, "0:10", 5);
    host.Add(2, "0:20", 4);
    EXPECT_EQ(Rebuild(), 1);
    EXPECT_EQ(Requests(), (std::vector<Request>{{2, 10, 14}}));
}

TEST_F(ReadList, WordsTooFarApart_StayTwoRequests) {
    host.Add(2, "0:10", 5);
    host.Add(2, "0:40", 4);  // 10..43 would be 34 words, more than 32
    EXPECT_EQ(Rebuild(), 2);
    EXPECT_EQ(Requests(), (std::vector<Request>{{2, 10, 5}, {2, 40, 4}}));
}

TEST_F(ReadList, NeighboursAcrossAFileEnd_MergeIntoOneRequest) {
    ABCL_DEFAULT_BUILD_ONLY("the hardened build keeps a merged request inside its file");
    // Word 254 of file 7 and word 0 of file 8 lie two packed addresses apart.
    host.Add(3, "7:254", 2);
    host.Add(3, "8:0", 4);
    EXPECT_EQ(Rebuild(), 1);
    EXPECT_EQ(Requests(), (std::vector<Request>{{3, 7 * 256 + 254, 6}}));
}

TEST_F(ReadList, NeighboursAcrossAFileEnd_StayTwoRequests_Hardened) {
    ABCL_HARDENED_BUILD_ONLY("the default build merges by packed address alone");
    host.Add(3, "7:254", 2);
    host.Add(3, "8:0", 4);
    host.Add(3, "8:6", 2);  // still merged within file 8
    EXPECT_EQ(Rebuild(), 2);
    EXPECT_EQ(Requests(), (std::vector<Request>{{3, 7 * 256 + 254, 2}, {3, 8 * 256, 8}}));
}

TEST_F(ReadList, CoveredVariable_AddsNothing) {
    host.Add(2, "0:10", 5);
    host.Add(2, "0:12", 2);
    EXPECT_EQ(Rebuild(), 1);
    EXPECT_EQ(Requests(), (std::vector<Request>{{2, 10, 5}}));
}

TEST_F(ReadList, CoveredVariableEndingAtGroupEnd_AddsNothing) {
    host.Add(2, "0:10", 5);
    host.Add(2, "0:14", 1);
    EXPECT_EQ(Rebuild(), 1);
    EXPECT_EQ(Requests(), (std::vector<Request>{{2, 10, 5}}));
}

TEST_F(ReadList, AdjacentVariable_Merges) {
    host.Add(3, "0:10", 5);
    host.Add(3, "0:15", 5);
    EXPECT_EQ(Rebuild(), 1);
    EXPECT_EQ(Requests(), (std::vector<Request>{{3, 10, 10}}));
}

TEST_F(ReadList, Merge_ReachesExactlyMaxCount) {
    host.Add(2, "0:10", 5);
    host.Add(2, "0:38", 4);  // 10..41: exactly 32 words
    EXPECT_EQ(Rebuild(), 1);
    EXPECT_EQ(Requests(), (std::vector<Request>{{2, 10, 32}}));
}

TEST_F(ReadList, Merge_NeverExceedsMaxCount) {
    host.Add(2, "0:10", 5);
    host.Add(2, "0:38", 5);  // 10..42: 33 words
    EXPECT_EQ(Rebuild(), 2);
    EXPECT_EQ(Requests(), (std::vector<Request>{{2, 10, 5}, {2, 38, 5}}));
}

TEST_F(ReadList, FullGroup_NextWordStartsANewRequest) {
    host.Add(2, "0:10", 5);
    host.Add(2, "0:38", 4);
    host.Add(2, "0:42", 1);
    EXPECT_EQ(Rebuild(), 2);
    EXPECT_EQ(Requests(), (std::vector<Request>{{2, 10, 32}, {2, 42, 1}}));
}

TEST_F(ReadList, GrownGroup_CoversLaterVariables) {
    host.Add(2, "0:20", 4);
    host.Add(2, "0:10", 5);
    host.Add(2, "0:21", 2);  // inside 10..23 once the group has grown
    host.Add(2, "0:30", 2);  // 10..31: 22 words
    EXPECT_EQ(Rebuild(), 1);
    EXPECT_EQ(Requests(), (std::vector<Request>{{2, 10, 22}}));
}

TEST_F(ReadList, NewGroupStartsAtTheRequestThatDidNotFit) {
    info.maxCount = 10;
    host.Add(2, "0:0", 4);
    host.Add(2, "0:8", 4);   // 0..11: 12 > 10, new group at 8
    host.Add(2, "0:14", 4);  // 8..17: 10 words, merged into the second request
    EXPECT_EQ(Rebuild(), 2);
    EXPECT_EQ(Requests(), (std::vector<Request>{{2, 0, 4}, {2, 8, 10}}));
}

TEST_F(ReadList, UnsortedItems_AreSortedByAddressBeforeMerging) {
    host.Add(2, "0:40", 4);
    host.Add(2, "0:10", 5);
    host.Add(2, "0:100", 1);
    host.Add(2, "0:20", 4);
    EXPECT_EQ(Rebuild(), 3);
    EXPECT_EQ(Requests(), (std::vector<Request>{{2, 10, 14}, {2, 40, 4}, {2, 100, 1}}));
}

TEST_F(ReadList, WordAndRegisterTypesWithSameAddresses_NeverMerge) {
    host.Add(3, "0:10", 5);
    host.Add(2, "0:10", 5);
    host.Add(3, "0:12", 2);
    EXPECT_EQ(Rebuild(), 2);
    EXPECT_EQ(Requests(), (std::vector<Request>{{2, 10, 5}, {3, 10, 5}}));
}

TEST_F(ReadList, Requests_OrderedByDataType) {
    host.Add(4, "0:1", 2);
    host.Add(3, "0:2", 1);
    host.Add(2, "0:3", 1);
    host.Add(1, "0:4/0", 1);
    host.Add(0, "0:5/0", 1);
    EXPECT_EQ(Rebuild(), 5);
    EXPECT_EQ(Requests(),
              (std::vector<Request>{{0, 5, 1}, {1, 4, 1}, {2, 3, 1}, {3, 2, 1}, {4, 1, 2}}));
}

TEST_F(ReadList, GroupsRestartForEachDataType) {
    // Type 2 ends at word 14; the type-3 request right behind it is not merged.
    host.Add(2, "0:10", 5);
    host.Add(3, "0:15", 5);
    host.Add(3, "0:20", 2);
    EXPECT_EQ(Rebuild(), 2);
    EXPECT_EQ(Requests(), (std::vector<Request>{{2, 10, 5}, {3, 15, 7}}));
}

// ---- splitting ------------------------------------------------------------

TEST_F(ReadList, LongVariable_SplitWithAccumulatingOffset) {
    info.maxCount = 10;
    host.Add(2, "0:100", 35);
    EXPECT_EQ(Rebuild(), 4);
    EXPECT_EQ(Requests(),
              (std::vector<Request>{{2, 100, 10}, {2, 110, 10}, {2, 130, 10}, {2, 160, 5}}));
}

TEST_F(ReadList, TwiceMaxCount_TwoContiguousRequests) {
    info.maxCount = 10;
    host.Add(2, "0:100", 20);
    EXPECT_EQ(Rebuild(), 2);
    EXPECT_EQ(Requests(), (std::vector<Request>{{2, 100, 10}, {2, 110, 10}}));
}

TEST_F(ReadList, ThriceMaxCount_ThirdRequestOneBlockLate) {
    info.maxCount = 10;
    host.Add(2, "0:100", 30);
    EXPECT_EQ(Rebuild(), 3);
    EXPECT_EQ(Requests(), (std::vector<Request>{{2, 100, 10}, {2, 110, 10}, {2, 130, 10}}));
}

TEST_F(ReadList, CountWithinMaxCount_OneRequest) {
    info.maxCount = 10;
    host.Add(4, "1:0", 10);
    EXPECT_EQ(Rebuild(), 1);
    EXPECT_EQ(Requests(), (std::vector<Request>{{4, 256, 10}}));
}

TEST_F(ReadList, ZeroCount_NoRequest) {
    host.Add(2, "0:10", 0);
    EXPECT_EQ(Rebuild(), 0);
    EXPECT_TRUE(PLC_driver.readList.isEmpty());
}

TEST_F(ReadList, ZeroMaxCount_EveryVariableOneFullRequest) {
    info.maxCount = 0;
    host.Add(2, "0:10", 5);
    host.Add(2, "0:15", 5);  // adjacent, but 10 > 0: not merged
    host.Add(2, "0:100", 500);
    EXPECT_EQ(Rebuild(), 3);
    EXPECT_EQ(Requests(), (std::vector<Request>{{2, 10, 5}, {2, 15, 5}, {2, 100, 500}}));
}

TEST_F(ReadList, ZeroMaxCount_VariableInsideAnotherAddsNothing) {
    info.maxCount = 0;
    host.Add(2, "0:10", 50);
    host.Add(2, "0:20", 4);
    EXPECT_EQ(Rebuild(), 1);
    EXPECT_EQ(Requests(), (std::vector<Request>{{2, 10, 50}}));
}

TEST_F(ReadList, RangesCappedAtTheAreaEnd_Hardened) {
    ABCL_HARDENED_BUILD_ONLY("the default build lists reads past the local areas");
    info.maxCount = 4;
    host.Add(3, "255:250", 8);     // elements 65530..65537: six in the area
    host.Add(2, "256:0", 3);       // starts past the area: not listed
    host.Add(0, "255:255/8", 40);  // three words from the last one: one in the area
    host.Add(4, "0:0", -3);        // no element
    host.Add(4, "0:0", 0);
    EXPECT_EQ(Rebuild(), 3);
    EXPECT_EQ(Requests(), (std::vector<Request>{{0, 65535, 1}, {3, 65530, 4}, {3, 65534, 2}}));
}

TEST_F(ReadList, SplitPiecesCarriedPastTheAreaEnd_CutThere_Hardened) {
    ABCL_HARDENED_BUILD_ONLY("the default build lists the pieces where the split puts them");
    info.maxCount = 10;
    // 36 words from element 65480 fit the area, but the split's growing step
    // puts its pieces at 65480, 65490, 65510 and 65540.
    host.Add(2, "255:200", 36);
    EXPECT_EQ(Rebuild(), 3);
    EXPECT_EQ(Requests(), (std::vector<Request>{{2, 65480, 10}, {2, 65490, 10}, {2, 65510, 10}}));
}

TEST_F(ReadList, SplitPiecesCarriedPastTheAreaEnd_ListedAsSplit) {
    ABCL_DEFAULT_BUILD_ONLY("the hardened build cuts pieces at the area's end");
    info.maxCount = 10;
    host.Add(2, "255:200", 36);
    EXPECT_EQ(Rebuild(), 4);
    EXPECT_EQ(Requests(), (std::vector<Request>{
                              {2, 65480, 10}, {2, 65490, 10}, {2, 65510, 10}, {2, 65540, 6}}));
}

// ---- bit variables are read as whole words ------------------------------------

TEST_F(ReadList, BitVariable_ReadAsTheWordsHoldingIt) {
    host.Add(0, "7:10/3", 20);  // bits 3 to 22 of words 1802 and 1803
    EXPECT_EQ(Rebuild(), 1);
    EXPECT_EQ(Requests(), (std::vector<Request>{{0, 1802, 2}}));
}

TEST_F(ReadList, BitVariableFillingWholeWords_NoExtraWord) {
    host.Add(1, "7:10/0", 32);  // exactly words 1802 and 1803
    host.Add(1, "7:20/15", 1);  // last bit of word 1812
    EXPECT_EQ(Rebuild(), 1);
    EXPECT_EQ(Requests(), (std::vector<Request>{{1, 1802, 11}}));
}

TEST_F(ReadList, BitVariableCrossingAWord_TwoWords) {
    info.maxCount = 1;
    host.Add(0, "0:3/15", 2);
    EXPECT_EQ(Rebuild(), 2);
    EXPECT_EQ(Requests(), (std::vector<Request>{{0, 3, 1}, {0, 4, 1}}));
}

TEST_F(ReadList, LongBitVariable_SplitInWords) {
    info.maxCount = 10;
    host.Add(0, "7:0/0", 400);  // 25 words
    EXPECT_EQ(Rebuild(), 3);
    EXPECT_EQ(Requests(), (std::vector<Request>{{0, 1792, 10}, {0, 1802, 10}, {0, 1822, 5}}));
}

// ---- the template of every request ------------------------------------------

TEST_F(ReadList, Requests_FilledFromTheTemplate) {
    info.remoteMode = 7;
    info.localLinkNo = 3;
    info.defaultStation = 9;
    host.Add(2, "0:10", 5, "first");
    host.Add(2, "0:20", 4, "second");
    host.Add(0, "7:10/3", 20, "bits");
    ASSERT_EQ(Rebuild(), 2);

    // Every request: no identifiers, data expected back, the settings' fields.
    const auto request = [](int dataType, int address, int count, const char* text,
                            const char* text2) -> RW_VAR {
        return RecordBuilder()
            .Ids(0, -1)
            .Host(0, 7)
            .Link(3)
            .Texts(QString::fromLatin1(text), QString::fromLatin1(text2))
            .At(dataType, address, count, 9);
    };
    ExpectSameRecord(request(0, 1802, 2, "7:10/3", "bits"), PLC_driver.readList[0]);
    // A merged request keeps the texts of the variable that opened it.
    ExpectSameRecord(request(2, 10, 14, "0:10", "first"), PLC_driver.readList[1]);
}

TEST_F(ReadList, SettingsReadAtRebuildTime) {
    info.defaultStation = 4;
    info.localLinkNo = 1;
    host.Add(3, "0:1", 1);
    ASSERT_EQ(Rebuild(), 1);
    EXPECT_EQ(PLC_driver.readList[0].station, 4);
    info.defaultStation = 6;
    info.localLinkNo = 2;
    ASSERT_EQ(Rebuild(), 1);
    EXPECT_EQ(PLC_driver.readList[0].station, 6);
    EXPECT_EQ(PLC_driver.readList[0].linkNo, 2);
}

// ---- what is dropped ----------------------------------------------------------

TEST_F(ReadList, DataTypeAbove4_Dropped) {
    host.Add(5, "1802", 5);  // a valid address for this type, but no area
    host.Add(255, "0:10", 5);
    host.Add(2, "0:10", 1);
    EXPECT_EQ(Rebuild(), 1);
    EXPECT_EQ(Requests(), (std::vector<Request>{{2, 10, 1}}));
}

TEST_F(ReadList, InvalidAddresses_Dropped) {
    host.Add(0, "7:10", 5);
    host.Add(1, "0:0/-1", 5);
    host.Add(2, "710", 5);
    host.Add(4, "", 5);
    host.Add(3, "0:-5", 5);
    host.Add(3, "0:7", 2);
    EXPECT_EQ(Rebuild(), 1);
    EXPECT_EQ(Requests(), (std::vector<Request>{{3, 7, 2}}));
}

TEST_F(ReadList, OnlyDroppedItems_ReturnsZero) {
    host.Add(6, "1", 5);
    host.Add(2, "x", 5);
    EXPECT_EQ(Rebuild(), 0);
    EXPECT_TRUE(PLC_driver.readList.isEmpty());
}

TEST_F(ReadList, NullItemPointers_Skipped) {
    host.Add(2, "0:10", 5);
    host.list()->append(nullptr);
    host.Add(2, "0:20", 4);
    EXPECT_EQ(Rebuild(), 1);
    EXPECT_EQ(Requests(), (std::vector<Request>{{2, 10, 14}}));
}

// ---- empty lists, several stations, the cycle bookkeeping -----------------------

TEST_F(ReadList, EmptyHostList_EmptiesReadListAndReturnsZero) {
    host.Add(2, "0:10", 5);
    ASSERT_EQ(Rebuild(), 1);
    QList<ReadVarItem*> empty;
    EXPECT_EQ(ReCreatReadVarList(&empty), 0);
    EXPECT_TRUE(PLC_driver.readList.isEmpty());
}

TEST_F(ReadList, NullHostList_LikeAnEmptyList) {
    host.Add(2, "0:10", 5);
    ASSERT_EQ(Rebuild(), 1);
    EXPECT_EQ(ReCreatReadVarList(nullptr), 0);
    EXPECT_TRUE(PLC_driver.readList.isEmpty());
}

TEST_F(ReadList, EmptyHostList_LeavesCycleBookkeepingAlone) {
    // The list is emptied before the bookkeeping is reset.
    PLC_driver.cycleCount = 5;
    info.cycleDone = 1;
    QList<ReadVarItem*> empty;
    EXPECT_EQ(ReCreatReadVarList(&empty), 0);
    EXPECT_EQ(PLC_driver.cycleCount, 5);
    EXPECT_EQ(info.cycleDone, 1);
}

TEST_F(ReadList, MultiStation_BuildsNothing) {
    host.Add(2, "0:10", 5);
    ASSERT_EQ(Rebuild(), 1);
    info.multiStation = 1;
    EXPECT_EQ(Rebuild(), 0);
    EXPECT_TRUE(PLC_driver.readList.isEmpty());
}

TEST_F(ReadList, MultiStation_StillResetsCycleBookkeeping) {
    info.multiStation = 1;
    PLC_driver.cycleCount = 5;
    info.cycleDone = 1;
    host.Add(2, "0:10", 5);
    EXPECT_EQ(Rebuild(), 0);
    EXPECT_EQ(PLC_driver.cycleCount, 0);
    EXPECT_EQ(info.cycleDone, 0);
}

TEST_F(ReadList, Rebuild_ResetsCycleBookkeeping) {
    PLC_driver.cycleCount = 5;
    info.cycleDone = 1;
    host.Add(2, "0:10", 5);
    EXPECT_EQ(Rebuild(), 1);
    EXPECT_EQ(PLC_driver.cycleCount, 0);
    EXPECT_EQ(info.cycleDone, 0);
}

TEST_F(ReadList, Rebuild_ReplacesThePreviousList) {
    host.Add(2, "0:10", 5);
    ASSERT_EQ(Rebuild(), 1);
    HostItems other;
    other.Add(3, "1:0", 3);
    EXPECT_EQ(ReCreatReadVarList(other.list()), 1);
    EXPECT_EQ(Requests(), (std::vector<Request>{{3, 256, 3}}));
}

TEST_F(ReadList, Rebuild_LeavesQueuedRequestsAlone) {
    Protocol p;
    p.frameLen = 7;
    PLC_driver.protocolList.append(p);
    host.Add(2, "0:10", 5);
    EXPECT_EQ(Rebuild(), 1);
    ASSERT_EQ(PLC_driver.protocolList.size(), 1);
    EXPECT_EQ(PLC_driver.protocolList[0].frameLen, 7);
}

TEST_F(ReadList, HostItems_NotChanged) {
    ReadVarItem* item = host.Add(0, "7:10/3", 20, "t2");
    item->hostByte0 = 0x5A;
    EXPECT_EQ(Rebuild(), 1);
    EXPECT_EQ(item->hostByte0, 0x5A);
    EXPECT_EQ(item->dataType, 0);
    EXPECT_EQ(item->addrText, QStringLiteral("7:10/3"));
    EXPECT_EQ(item->addrText2, QStringLiteral("t2"));
    EXPECT_EQ(item->count, 20);
}

// ---- AddListReadVar ---------------------------------------------------------

TEST_F(ReadList, AddListReadVar_AppendsACopyWithoutParsing) {
    const RW_VAR original = RecordBuilder()
                                .Ids(3, 4)
                                .Host(9, 0, 12, 13)
                                .Texts(QStringLiteral("not an address"), QStringLiteral("t2"))
                                .At(9, 123456, -3, 77)
                                .Data(Hex("01 02"));
    RW_VAR var = original;
    EXPECT_EQ(AddListReadVar(&var), 1);
    EXPECT_EQ(AddListReadVar(&var), 2);  // duplicates too

    var.address = 1;
    var.data[0] = 0x7F;
    var.addrText = QStringLiteral("changed");
    ExpectSameRecord(original, PLC_driver.readList[0]);
}

TEST_F(ReadList, AddListReadVar_AppendsBehindARebuiltList) {
    host.Add(2, "0:10", 5);
    ASSERT_EQ(Rebuild(), 1);
    RW_VAR var;
    var.dataType = ABCL_WORD_B;
    var.address = 5;
    var.count = 1;
    EXPECT_EQ(AddListReadVar(&var), 2);
    EXPECT_EQ(Requests(), (std::vector<Request>{{2, 10, 5}, {3, 5, 1}}));
}

// ---- WhetherGroup on its own ------------------------------------------------

TEST(WhetherGroupSplit, AccumulatingStep_AndTemplateChangedInPlace) {
    RW_VAR var;
    var.address = 100;
    var.varId = 42;
    QList<RW_VAR> list;
    WhetherGroup(35, 10, &var, &list);
    ASSERT_EQ(list.size(), 4);
    const int starts[] = {100, 110, 130, 160};
    const int counts[] = {10, 10, 10, 5};
    for (int k = 0; k < 4; ++k) {
        EXPECT_EQ(list[k].address, starts[k]) << "piece " << k;
        EXPECT_EQ(list[k].count, counts[k]) << "piece " << k;
        EXPECT_EQ(list[k].varId, 42);
    }
    EXPECT_EQ(var.address, 160);
    EXPECT_EQ(var.count, 5);
}

TEST(WhetherGroupSplit, PieceStartsFollowTriangularOffsets) {
    RW_VAR var;
    var.address = 0;
    QList<RW_VAR> list;
    WhetherGroup(7 * 3, 3, &var, &list);
    ASSERT_EQ(list.size(), 7);
    for (int k = 0; k < 7; ++k) {
        EXPECT_EQ(list[k].address, 3 * k * (k + 1) / 2) << "piece " << k;
        EXPECT_EQ(list[k].count, 3);
    }
}

TEST(WhetherGroupSplit, ExactMultiple_LastPieceFull) {
    RW_VAR var;
    var.address = 0;
    QList<RW_VAR> list;
    WhetherGroup(8, 4, &var, &list);
    ASSERT_EQ(list.size(), 2);
    EXPECT_EQ(list[1].count, 4);
}

TEST(WhetherGroupSplit, ZeroMax_OnePieceOfTheTotal) {
    RW_VAR var;
    var.address = 9;
    QList<RW_VAR> list;
    WhetherGroup(1000, 0, &var, &list);
    ASSERT_EQ(list.size(), 1);
    EXPECT_EQ(list[0].address, 9);
    EXPECT_EQ(list[0].count, 1000);
}

TEST(WhetherGroupSplit, ZeroTotal_NoPiece) {
    RW_VAR var;
    QList<RW_VAR> list;
    WhetherGroup(0, 4, &var, &list);
    WhetherGroup(0, 0, &var, &list);
    EXPECT_TRUE(list.isEmpty());
}

TEST(WhetherGroupSplit, AppendsBehindExistingEntries) {
    RW_VAR var;
    var.address = 50;
    QList<RW_VAR> list;
    RW_VAR first;
    first.address = -1;
    list.append(first);
    WhetherGroup(3, 2, &var, &list);
    ASSERT_EQ(list.size(), 3);
    EXPECT_EQ(list[0].address, -1);
    EXPECT_EQ(list[1].address, 50);
    EXPECT_EQ(list[2].address, 52);
    EXPECT_EQ(list[2].count, 1);
}

TEST(WhetherGroupSplit, ExtremeArguments_BoundedAndNoCrash) {
    const int cases[][2] = {{INT_MAX, 1},       {INT_MIN, -1},      {INT_MAX, -1},     {INT_MIN, 1},
                            {INT_MAX, INT_MAX}, {INT_MIN, INT_MAX}, {INT_MAX, INT_MIN}};
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c[0]) + " / " + std::to_string(c[1]));
        RW_VAR var;
        var.address = INT_MAX - 5;
        QList<RW_VAR> list;
        WhetherGroup(c[0], c[1], &var, &list);
        EXPECT_LE(list.size(), kMaxPieces);
    }
}

TEST(WhetherGroupSplit, IntMaxTotal_CappedAtMaxPieces) {
    RW_VAR var;
    var.address = 0;
    QList<RW_VAR> list;
    WhetherGroup(INT_MAX, 1, &var, &list);
    EXPECT_EQ(list.size(), kMaxPieces);
    ASSERT_GE(list.size(), 3);
    EXPECT_EQ(list[0].address, 0);
    EXPECT_EQ(list[1].address, 1);
    EXPECT_EQ(list[2].address, 3);
}

TEST(PieceSplitting, QuotientRemainderAndZeroMax) {
    EXPECT_EQ(SplitIntoPieces(10, 4).pieces, 3);
    EXPECT_EQ(SplitIntoPieces(10, 4).lastCount, 2);
    EXPECT_EQ(SplitIntoPieces(20, 10).pieces, 2);
    EXPECT_EQ(SplitIntoPieces(20, 10).lastCount, 10);
    EXPECT_EQ(SplitIntoPieces(5, 0).pieces, 1);
    EXPECT_EQ(SplitIntoPieces(5, 0).lastCount, 5);
    EXPECT_LE(SplitIntoPieces(0, 4).pieces, 0);
    EXPECT_LE(SplitIntoPieces(INT_MIN, -1).pieces, kMaxPieces);
    EXPECT_EQ(SplitIntoPieces(INT_MAX, 1).pieces, kMaxPieces);
}

// ---- huge counts through the whole rebuild ----------------------------------------

TEST_F(ReadList, HugeCounts_NoCrashAndBounded) {
    info.maxCount = 1 << 20;  // a few thousand pieces, so the sort stays short
    host.Add(2, "0:0", INT_MAX);
    host.Add(0, "255:255/15", INT_MAX);
    host.Add(4, "255:255", INT_MAX);
    const int n = Rebuild();
    EXPECT_EQ(n, PLC_driver.readList.size());
    EXPECT_GT(n, 0);
    EXPECT_LE(n, 3 * kMaxPieces);
}

}  // namespace
