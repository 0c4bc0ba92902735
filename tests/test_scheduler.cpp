// The request scheduler: which queue ComCommunication serves next, the burst
// limit of five priority requests, the request on the wire being handed out
// again until its reply is processed, and the builder family chosen per frame.
#include "test_support.h"

#include "queue_helpers.h"
#include "reply_builder.h"

#include <vector>

namespace {

using replies::Framed;
using replies::RequestTns;

constexpr uint8_t kTns = 0x21;

class Scheduler : public DriverTest {
protected:
    void SetUp() override {
        DriverTest::SetUp();
        PLC_driver.tns = kTns;
    }

    // Acknowledges the write on the wire.
    RW_VAR* AckWrite(const Protocol* p) {
        const QByteArray reply = replies::WriteReply(RequestTns(*p));
        return DataCom(reply, reply.size());
    }

    // Answers the read on the wire: the first reply fixes the length, the
    // same request is handed out again and its reply is processed in full.
    RW_VAR* AnswerRead(Protocol* p) {
        std::vector<uint16_t> words(static_cast<size_t>(p->var.count), 0x0102);
        const QByteArray reply = replies::WordReadReply(RequestTns(*p), words);
        RW_VAR* first = DataCom(reply, reply.size());
        EXPECT_EQ(first->result, 1);
        EXPECT_EQ(ComCommunication(), p) << "the read goes out again after its length is known";
        return DataCom(reply, reply.size());
    }

    // Serves and answers whatever the scheduler hands out next; returns the
    // served record's varId, or -1000 when nothing was handed out.
    int ServeNext() {
        Protocol* p = ComCommunication();
        if (!p) return -1000;
        const int varId = p->var.varId;
        const RW_VAR* r = p->replyLen == -1 ? AnswerRead(p) : AckWrite(p);
        EXPECT_EQ(r->result, 1) << "exchange for varId " << varId;
        return varId;
    }
};

TEST_F(Scheduler, AllListsEmpty_ReturnsNullResetsBurstsAndSetsCycleDone) {
    PLC_driver.writeBurst = 3;
    PLC_driver.onceBurst = 4;
    info.cycleDone = 0;

    EXPECT_EQ(ComCommunication(), nullptr);
    EXPECT_EQ(PLC_driver.writeBurst, 0);
    EXPECT_EQ(PLC_driver.onceBurst, 0);
    EXPECT_EQ(info.cycleDone, 1);
    EXPECT_TRUE(PLC_driver.protocolList.isEmpty());
}

TEST_F(Scheduler, SixWrites_SixthCallIdlesAtBurstLimit_SeventhServesSixthWrite) {
    for (int id = 1; id <= 6; ++id)
        QueueWrite(WordWrite(id, id, static_cast<uint16_t>(0x100 + id)));

    for (int call = 1; call <= 5; ++call) {
        Protocol* p = ComCommunication();
        ASSERT_NE(p, nullptr) << "call " << call;
        EXPECT_EQ(p->var.varId, call);
        EXPECT_EQ(PLC_driver.mode, 1);
        EXPECT_EQ(PLC_driver.writeBurst, call);
        EXPECT_EQ(p->frame.size(), 47) << "a one-word write frame";
        EXPECT_EQ(AckWrite(p)->result, 1);
        EXPECT_EQ(PLC_driver.writeList.size(), 6 - call);
    }

    info.cycleDone = 0;
    EXPECT_EQ(ComCommunication(), nullptr) << "burst limit reached, nothing else to serve";
    EXPECT_EQ(PLC_driver.writeList.size(), 1) << "the sixth write is still pending";
    EXPECT_EQ(PLC_driver.writeBurst, 0);
    EXPECT_EQ(PLC_driver.onceBurst, 0);
    EXPECT_EQ(info.cycleDone, 1);

    Protocol* p = ComCommunication();
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(p->var.varId, 6);
    EXPECT_EQ(PLC_driver.writeBurst, 1);
}

TEST_F(Scheduler, WritesAndCyclicReads_FiveWritesThenOneCyclicReadResettingBursts) {
    for (int id = 1; id <= 8; ++id) QueueWrite(WordWrite(id, id, 0x0203));
    QueueCyclic(WordRead(100, 40, 2));
    QueueCyclic(WordRead(101, 50, 3));

    std::vector<int> served;
    for (int i = 0; i < 5; ++i) served.push_back(ServeNext());
    EXPECT_EQ(served, (std::vector<int>{1, 2, 3, 4, 5}));
    EXPECT_EQ(PLC_driver.writeBurst, 5);

    Protocol* p = ComCommunication();
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(p->var.varId, 100);
    EXPECT_EQ(PLC_driver.mode, 0);
    EXPECT_EQ(PLC_driver.writeBurst, 0) << "a cyclic read resets the burst counters";
    EXPECT_EQ(PLC_driver.onceBurst, 0);
    EXPECT_EQ(AnswerRead(p)->result, 1);

    served.clear();
    for (int i = 0; i < 4; ++i) served.push_back(ServeNext());
    EXPECT_EQ(served, (std::vector<int>{6, 7, 8, 101}))
        << "writes again, then the next cyclic read";
}

TEST_F(Scheduler, WritesOnceReadsAndCyclic_FiveOfEachPriorityQueueThenOneCyclicRead) {
    for (int id = 1; id <= 7; ++id) QueueWrite(WordWrite(id, id, 0x0405));
    for (int id = 21; id <= 27; ++id) QueueOnce(WordRead(id, id, 1));
    QueueCyclic(WordRead(100, 60, 2));

    std::vector<int> served;
    for (int i = 0; i < 14; ++i) served.push_back(ServeNext());
    EXPECT_EQ(served, (std::vector<int>{1, 2, 3, 4, 5, 21, 22, 23, 24, 25, 100, 6, 7, 26}));
}

TEST_F(Scheduler, OnceReadWhileWriteBurstSpent_LeavesWriteBurstAlone) {
    for (int id = 1; id <= 6; ++id) QueueWrite(WordWrite(id, id, 0x0405));
    QueueOnce(WordRead(21, 30, 1));
    for (int i = 0; i < 5; ++i) ServeNext();
    ASSERT_EQ(PLC_driver.writeBurst, 5);

    Protocol* p = ComCommunication();
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(p->var.varId, 21);
    EXPECT_EQ(PLC_driver.mode, 2);
    EXPECT_EQ(PLC_driver.onceBurst, 1);
    EXPECT_EQ(PLC_driver.writeBurst, 5);
}

TEST_F(Scheduler, WriteServed_LeavesOnceBurstAlone) {
    PLC_driver.onceBurst = 3;
    QueueWrite(WordWrite(1, 1, 0x0405));
    ASSERT_NE(ComCommunication(), nullptr);
    EXPECT_EQ(PLC_driver.writeBurst, 1);
    EXPECT_EQ(PLC_driver.onceBurst, 3);
}

TEST_F(Scheduler, OnceReadsOnly_SixthCallIdlesThenServesTheRest) {
    for (int id = 21; id <= 27; ++id) QueueOnce(WordRead(id, id, 1));
    std::vector<int> served;
    for (int i = 0; i < 9; ++i) served.push_back(ServeNext());
    EXPECT_EQ(served, (std::vector<int>{21, 22, 23, 24, 25, -1000, 26, 27, -1000}));
}

TEST_F(Scheduler, RequestOutstanding_SameAddressUntilDataComRemovesIt) {
    QueueWrite(WordWrite(1, 1, 0x0405));
    QueueWrite(WordWrite(2, 2, 0x0405));

    Protocol* p = ComCommunication();
    ASSERT_NE(p, nullptr);
    for (int i = 0; i < 4; ++i) EXPECT_EQ(ComCommunication(), p);
    EXPECT_EQ(PLC_driver.protocolList.size(), 1);
    EXPECT_EQ(PLC_driver.writeBurst, 1) << "nothing new was started";
    EXPECT_EQ(PLC_driver.writeList.size(), 2);

    ASSERT_EQ(AckWrite(p)->result, 1);
    EXPECT_TRUE(PLC_driver.protocolList.isEmpty());
    Protocol* next = ComCommunication();
    ASSERT_NE(next, nullptr);
    EXPECT_EQ(next->var.varId, 2);
}

TEST_F(Scheduler, ReadOutstanding_SameAddressWhileItsLengthIsLearnt) {
    QueueCyclic(WordRead(100, 0, 4));
    Protocol* p = ComCommunication();
    ASSERT_NE(p, nullptr);
    ASSERT_EQ(p->replyLen, -1);
    EXPECT_EQ(ComCommunication(), p);

    const QByteArray reply = replies::WordReadReply(RequestTns(*p), {1, 2, 3, 4});
    ASSERT_EQ(DataCom(reply, reply.size())->result, 1);
    EXPECT_EQ(ComCommunication(), p);
    EXPECT_EQ(p->replyLen, reply.size());
    ASSERT_EQ(DataCom(reply, reply.size())->result, 1);
    EXPECT_TRUE(PLC_driver.protocolList.isEmpty());
}

TEST_F(Scheduler, FailedWrite_RetriesAreCountedAsStartedRequests) {
    info.retryLimit = 5;
    QueueWrite(WordWrite(1, 1, 0x0405));
    for (int attempt = 1; attempt <= 3; ++attempt) {
        Protocol* p = ComCommunication();
        ASSERT_NE(p, nullptr);
        EXPECT_EQ(p->var.varId, 1);
        EXPECT_EQ(PLC_driver.writeBurst, attempt);
        EXPECT_EQ(DataCom(QByteArray(), 0)->result, 0);
    }
}

TEST_F(Scheduler, WriteOfUnsupportedType_ReturnsNullButModeAndBurstChangeAndEntryStays) {
    ABCL_DEFAULT_BUILD_ONLY("the hardened build drops an entry that builds no frame, as failed");
    RW_VAR bad = WordWrite(9, 1, 0x0405);
    bad.dataType = 7;
    QueueWrite(bad);
    PLC_driver.mode = 0;
    info.cycleDone = 0;

    EXPECT_EQ(ComCommunication(), nullptr);
    EXPECT_EQ(PLC_driver.mode, 1);
    EXPECT_EQ(PLC_driver.writeBurst, 1);
    ASSERT_EQ(PLC_driver.writeList.size(), 1);
    EXPECT_EQ(PLC_driver.writeList.first().varId, 9);
    EXPECT_TRUE(PLC_driver.protocolList.isEmpty());
    EXPECT_EQ(info.cycleDone, 0) << "the scheduler did not go idle";

    EXPECT_EQ(ComCommunication(), nullptr) << "the same entry is tried again";
    EXPECT_EQ(PLC_driver.writeBurst, 2);
    EXPECT_EQ(PLC_driver.writeList.size(), 1);
}

TEST_F(Scheduler, OnceReadOfUnsupportedType_ReturnsNullWithModeTwo) {
    ABCL_DEFAULT_BUILD_ONLY("the hardened build drops an entry that builds no frame, as failed");
    RW_VAR bad = WordRead(9, 1, 1);
    bad.dataType = -1;
    QueueOnce(bad);

    EXPECT_EQ(ComCommunication(), nullptr);
    EXPECT_EQ(PLC_driver.mode, 2);
    EXPECT_EQ(PLC_driver.onceBurst, 1);
    EXPECT_EQ(PLC_driver.onceReadList.size(), 1);
}

TEST_F(Scheduler, UnsupportedTypeAtHead_BurstLimitLetsCyclicReadsRun) {
    ABCL_DEFAULT_BUILD_ONLY("the hardened build drops an entry that builds no frame, as failed");
    RW_VAR bad = WordWrite(9, 1, 0x0405);
    bad.dataType = 7;
    QueueWrite(bad);
    QueueCyclic(WordRead(100, 0, 2));

    for (int call = 1; call <= 5; ++call) EXPECT_EQ(ComCommunication(), nullptr) << "call " << call;
    Protocol* p = ComCommunication();
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(p->var.varId, 100);
    EXPECT_EQ(PLC_driver.mode, 0);
    EXPECT_EQ(AnswerRead(p)->result, 1);
    EXPECT_EQ(ComCommunication(), nullptr) << "the write burst starts again on the bad entry";
    EXPECT_EQ(PLC_driver.writeBurst, 1);
}

// ---- entries that build no frame (hardened build) ----------------------------------

struct CallbackCall {
    int context, varId, varSubId, status;
    bool operator==(const CallbackCall& o) const {
        return context == o.context && varId == o.varId && varSubId == o.varSubId &&
               status == o.status;
    }
};
std::vector<CallbackCall> g_calls;
int RecordCallback(int context, int varId, int varSubId, int status) {
    g_calls.push_back({context, varId, varSubId, status});
    return 0;
}

constexpr const char* kDefaultKeepsUnbuildableEntries =
    "the default build leaves an entry that builds no frame at the head of its queue";

TEST_F(Scheduler, UnbuildableWrite_DroppedAsFailedAndTheNextWriteGoesOut_Hardened) {
    ABCL_HARDENED_BUILD_ONLY(kDefaultKeepsUnbuildableEntries);
    RW_VAR bad = WordWrite(9, 1, 0x0405);
    bad.dataType = 7;
    bad.varSubId = 3;
    QueueWrite(bad);
    QueueWrite(WordWrite(2, 5, 0x0607));
    info.retryCount = 1;

    Protocol* p = ComCommunication();
    ASSERT_NE(p, nullptr) << "the write behind it goes out in the same call";
    EXPECT_EQ(p->var.varId, 2);
    EXPECT_EQ(PLC_driver.mode, 1);
    // Reported as a bad reply of varId 9 (10 + 9 + 1); no exchange took place.
    EXPECT_EQ(PLC_driver.current.result, 20);
    EXPECT_EQ(PLC_driver.current.varId, 9);
    EXPECT_EQ(PLC_driver.current.varSubId, 3);
    EXPECT_EQ(PLC_driver.current.dataType, 7);
    EXPECT_TRUE(PLC_driver.current.data.isEmpty());
    ASSERT_EQ(PLC_driver.writeList.size(), 1);
    EXPECT_EQ(PLC_driver.writeList.first().varId, 2);
    EXPECT_EQ(info.retryCount, 1);
    EXPECT_EQ(PLC_driver.commError, 0);
    EXPECT_EQ(AckWrite(p)->result, 1);
    EXPECT_EQ(PLC_driver.current.varId, 2);
}

TEST_F(Scheduler, WriteWithCountBelowOne_DroppedAsFailed_Hardened) {
    ABCL_HARDENED_BUILD_ONLY(kDefaultKeepsUnbuildableEntries);
    RW_VAR none = WordWrite(4, 1, 0x0405);
    none.count = 0;
    RW_VAR real = WordWrite(12, 2, 0);
    real.dataType = ABCL_REAL;
    real.count = -2;
    QueueWrite(none);
    QueueWrite(real);
    QueueCyclic(WordRead(100, 0, 2));

    Protocol* p = ComCommunication();
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(p->var.varId, 100) << "both writes dropped, the cyclic read goes out";
    EXPECT_EQ(PLC_driver.mode, 0);
    EXPECT_TRUE(PLC_driver.writeList.isEmpty());
    // The last one dropped: varId 12 is none of 1..11, so 10 + 1.
    EXPECT_EQ(PLC_driver.current.varId, 12);
    EXPECT_EQ(PLC_driver.current.result, 11);
}

TEST_F(Scheduler, UnbuildableRemoteWrite_ReportedInTheRemoteFamily_Hardened) {
    ABCL_HARDENED_BUILD_ONLY(kDefaultKeepsUnbuildableEntries);
    RW_VAR bad = WordWrite(5, 1, 0x0405, 1, 5);  // link 5: not the local link
    bad.dataType = 7;
    QueueWrite(bad);
    EXPECT_EQ(ComCommunication(), nullptr);
    EXPECT_EQ(PLC_driver.current.varId, 5);
    EXPECT_EQ(PLC_driver.current.result, 116);  // 110 + 5 + 1
    EXPECT_TRUE(PLC_driver.writeList.isEmpty());
}

TEST_F(Scheduler, UnbuildableOnceRead_DroppedWithCallbackStatusTwo_Hardened) {
    ABCL_HARDENED_BUILD_ONLY(kDefaultKeepsUnbuildableEntries);
    g_calls.clear();
    info.hostContext = 4242;
    RegistCallBackFuncIntf(&RecordCallback, 0);
    RW_VAR bad = WordRead(3, 1, 1);
    bad.varSubId = 8;
    bad.dataType = -1;
    QueueOnce(bad);
    RW_VAR good = WordRead(21, 5, 1);
    good.varSubId = 9;
    QueueOnce(good);

    Protocol* p = ComCommunication();
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(p->var.varId, 21);
    EXPECT_EQ(PLC_driver.mode, 2);
    EXPECT_EQ(g_calls, (std::vector<CallbackCall>{{4242, 3, 8, 2}}));
    EXPECT_EQ(PLC_driver.current.varId, 3);
    EXPECT_EQ(PLC_driver.current.result, 14);  // 10 + 3 + 1
    ASSERT_EQ(PLC_driver.onceReadList.size(), 1);

    EXPECT_EQ(AnswerRead(p)->result, 1);
    EXPECT_EQ(g_calls, (std::vector<CallbackCall>{{4242, 3, 8, 2}, {4242, 21, 9, 1}}));
}

TEST_F(Scheduler, OnceReadOfTooManyElements_DroppedAndTheSchedulerGoesIdle_Hardened) {
    ABCL_HARDENED_BUILD_ONLY(kDefaultKeepsUnbuildableEntries);
    g_calls.clear();
    RegistCallBackFuncIntf(&RecordCallback, 0);
    RW_VAR huge = WordRead(6, 0, kAreaElements + 1);
    QueueOnce(huge);
    info.cycleDone = 0;

    EXPECT_EQ(ComCommunication(), nullptr);
    EXPECT_TRUE(PLC_driver.onceReadList.isEmpty());
    EXPECT_EQ(PLC_driver.current.result, 17);  // 10 + 6 + 1
    EXPECT_EQ(g_calls, (std::vector<CallbackCall>{{0, 6, -1, 2}}));
    EXPECT_EQ(info.cycleDone, 1) << "nothing left: the scheduler went idle";
}

TEST_F(Scheduler, ModeNamesTheQueueOfTheRequestOnTheWire) {
    EXPECT_EQ(PLC_driver.mode, 100) << "no request yet";
    QueueWrite(WordWrite(1, 1, 0x0405));
    QueueOnce(WordRead(21, 5, 1));
    QueueCyclic(WordRead(100, 0, 2));

    // Write (1), then one-shot read (2), then cyclic read (0), each answered
    // before the next goes out.
    for (const int mode : {1, 2, 0}) {
        Protocol* p = ComCommunication();
        ASSERT_NE(p, nullptr);
        EXPECT_EQ(PLC_driver.mode, mode);
        if (mode == 1)
            AckWrite(p);
        else
            AnswerRead(p);
    }
}

TEST_F(Scheduler, RemoteModeSwitchedBetweenCalls_NextWriteUsesRemoteFrame) {
    QueueWrite(WordWrite(1, 2, 0x1234));
    QueueWrite(WordWrite(2, 3, 0x1234));

    Protocol* p = ComCommunication();
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(ToHex(p->frame.left(4)), "10 06 10 02");
    EXPECT_EQ(static_cast<uint8_t>(p->frame[22]), 0x53);
    ASSERT_EQ(AckWrite(p)->result, 1);

    info.remoteMode = 1;
    p = ComCommunication();
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(p->var.varId, 2);
    // Length byte, varId, aux2, linkNo, station, dataType, address, count, aux12,
    // aux13, the two value bytes and the byte sum.
    QByteArray expected =
        Hex("18 02 01 00 01 00 03 00 00 07 03 00 01 00 00 00 00 00 00 00 00 34 12");
    unsigned sum = 0;
    for (char c : expected) sum += static_cast<uint8_t>(c);
    expected.append(static_cast<char>(sum & 0xFF));
    EXPECT_EQ(ToHex(p->frame), ToHex(expected));
    EXPECT_EQ(p->frameLen, 24);
}

TEST_F(Scheduler, RemoteModeSwitchedBack_NextReadUsesPlcFrame) {
    info.remoteMode = 1;
    QueueCyclic(WordRead(100, 0, 2));
    QueueCyclic(WordRead(101, 8, 2));

    Protocol* p = ComCommunication();
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(p->frame.size(), 22);
    EXPECT_EQ(static_cast<uint8_t>(p->frame[0]), 0x16);
    PLC_driver.protocolList.clear();  // as after a failed exchange

    info.remoteMode = 0;
    p = ComCommunication();
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(p->frame.size(), 45);
    EXPECT_EQ(ToHex(p->frame.left(4)), "10 06 10 02");
    EXPECT_EQ(static_cast<uint8_t>(p->frame[22]), 0x52);
}

TEST_F(Scheduler, RemoteModeSwitchedWhileRequestOutstanding_SameFrameHandedOut) {
    QueueWrite(WordWrite(1, 2, 0x1234));
    Protocol* p = ComCommunication();
    ASSERT_NE(p, nullptr);
    const QByteArray frame = p->frame;
    info.remoteMode = 1;
    EXPECT_EQ(ComCommunication(), p);
    EXPECT_EQ(ToHex(p->frame), ToHex(frame));
}

TEST_F(Scheduler, CyclicWordRead_FrameAndBookkeeping) {
    // 'N' file 7, element 0, ten elements, transaction 0x21.
    QueueCyclic(WordRead(100, 0, 10));
    Protocol* p = ComCommunication();
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(ToHex(p->frame),
              "10 06 10 02 00 00 0B 00 21 00 00 00 0A 02 20 02 24 01 01 00 04 00 52 05 91 04 4E 30 "
              "30 37 29 00 00 00 0A 00 00 00 00 00 00 00 10 03 78");
    EXPECT_EQ(p->frameLen, 45);
    EXPECT_EQ(p->replyLen, -1);
    EXPECT_EQ(p->dataPos, 26);
    EXPECT_EQ(p->dataBytes, 20);
    EXPECT_EQ(info.replyDone, 0);
    EXPECT_EQ(info.replyTotal, 1);
}

// One-shot bit reads are queued in bit units; the frame must name the word
// that holds the bits.
class OneShotBitRead : public Scheduler {
protected:
    void QueueBits() {
        RW_VAR v;
        v.varId = 9;
        v.varSubId = 1;
        v.dataType = ABCL_BIT_A;
        v.addrText = "7:10/3";
        v.count = 20;
        ASSERT_EQ(AddListOnceReadVar(&v, 0), 1);
        ASSERT_EQ(PLC_driver.onceReadList.first().address, 28832);
        ASSERT_EQ(PLC_driver.onceReadList.first().count, 2);
    }

    static int calls;
    static int lastStatus;
    static int Record(int, int, int, int status) {
        ++calls;
        lastStatus = status;
        return 0;
    }
};
int OneShotBitRead::calls = 0;
int OneShotBitRead::lastStatus = 0;

TEST_F(OneShotBitRead, FrameNamesWordAddress_QueueEntryKeepsBitUnits) {
    QueueBits();
    Protocol* p = ComCommunication();
    ASSERT_NE(p, nullptr);
    // 'B' file 7, element 10, two words.
    const QByteArray expected =
        Framed(Hex("00 00 0B 00 21 00 00 00 0A 02 20 02 24 01 01 00 04 00 52 05 91 04 42 30 30 37 "
                   "29 00 0A 00 02 "
                   "00 00 00 00 00 00 00"));
    EXPECT_EQ(ToHex(p->frame), ToHex(expected));
    EXPECT_EQ(p->frameLen, 45);
    EXPECT_EQ(p->replyLen, -1);
    EXPECT_EQ(p->dataPos, 26);
    EXPECT_EQ(p->dataBytes, 4);
    EXPECT_EQ(p->var.address, 1802) << "the request describes the word";
    EXPECT_EQ(PLC_driver.onceReadList.first().address, 28832) << "the queue entry keeps bit units";
}

TEST_F(OneShotBitRead, ReplyLandsOnTheWordAndCallsBack) {
    calls = 0;
    lastStatus = 0;
    RegistCallBackFuncIntf(&OneShotBitRead::Record, 0);
    QueueBits();
    Protocol* p = ComCommunication();
    ASSERT_NE(p, nullptr);
    // Bit 3 of word 1802 and bit 6 of word 1803 (bit 22 counted from word 1802).
    const QByteArray reply = replies::WordReadReply(RequestTns(*p), {0x0008, 0x0040});
    ASSERT_EQ(DataCom(reply, reply.size())->result, 1);
    ASSERT_EQ(ComCommunication(), p);
    ASSERT_EQ(DataCom(reply, reply.size())->result, 1);

    EXPECT_EQ(PLC_driver.areaA[1802], 0x0008);
    EXPECT_EQ(PLC_driver.areaA[1803], 0x0040);
    EXPECT_EQ(PLC_driver.areaA[28832 & 0xFFFF], 0) << "nothing stored at the bit address";
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(lastStatus, 1);
    EXPECT_TRUE(PLC_driver.onceReadList.isEmpty());
    EXPECT_EQ(PLC_driver.current.address, 28832) << "the host gets its own record back";

    QByteArray bits;
    ASSERT_EQ(GetRegisterData(0, ABCL_BIT_A, "7:10/3", 0, &bits, 20), 1);
    ASSERT_EQ(bits.size(), 20);
    for (int i = 0; i < 20; ++i)
        EXPECT_EQ(static_cast<int>(bits.at(i)), (i == 0 || i == 19) ? 1 : 0) << "bit " << i;
}

TEST_F(OneShotBitRead, RemoteFrameCarriesWordAddress) {
    info.remoteMode = 1;
    QueueBits();
    Protocol* p = ComCommunication();
    ASSERT_NE(p, nullptr);
    // Length, varId 9, aux2 0, linkNo 0, station 1, dataType 0, address 1802,
    // count 2, aux12 0, aux13 0, byte sum.
    QByteArray expected = Hex("16 09 00 00 01 00 00 00 00 07 0A 00 02 00 00 00 00 00 00 00 00");
    unsigned sum = 0;
    for (char c : expected) sum += static_cast<uint8_t>(c);
    expected.append(static_cast<char>(sum & 0xFF));
    EXPECT_EQ(ToHex(p->frame), ToHex(expected));
    EXPECT_EQ(PLC_driver.onceReadList.first().address, 28832);
}

TEST_F(Scheduler, CyclicBitEntry_BuiltWithItsWordAddressUnchanged) {
    // Cyclic entries already hold word addresses; they go out as they are.
    RW_VAR v = WordRead(100, 10, 2);
    v.dataType = ABCL_BIT_A;
    QueueCyclic(v);
    Protocol* p = ComCommunication();
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(p->var.address, 1802);
    EXPECT_EQ(static_cast<uint8_t>(p->frame[29]), 0x37);
    EXPECT_EQ(static_cast<uint8_t>(p->frame[32]), 0x0A);
}

}  // namespace
