// Reply processing: what DataCom does with each reply (or its absence) to the
// request on the wire, and the result codes it hands back.
#include "test_support.h"

#include "Func_Read.h"
#include "Func_Write.h"
#include "queue_helpers.h"
#include "reply_builder.h"

#include <functional>
#include <random>
#include <tuple>
#include <utility>
#include <vector>

namespace {

using replies::Framed;
using replies::ReplyBody;
using replies::RequestTns;
using replies::WordReadReply;
using replies::WriteReply;

constexpr uint8_t kTns = 0x21;

struct CallbackCall {
    int context, varId, varSubId, status;
    bool operator==(const CallbackCall& o) const {
        return std::tie(context, varId, varSubId, status) ==
               std::tie(o.context, o.varId, o.varSubId, o.status);
    }
};
std::vector<CallbackCall> g_calls;
int RecordCallback(int context, int varId, int varSubId, int status) {
    g_calls.push_back({context, varId, varSubId, status});
    return 0;
}

bool IsKnownResult(int r) {
    if (r == 0 || r == 1 || r == 100) return true;
    for (int base : {10, 40, 70, 110, 140, 170})
        if (r >= base + 1 && r <= base + 12) return true;
    return false;
}

// A one-shot word read whose sub id tells the callback which piece finished.
RW_VAR OnceRead(int varId, int varSubId, int element, int count) {
    RW_VAR v = WordRead(varId, element, count);
    v.varSubId = varSubId;
    return v;
}

class ReplyProcessing : public DriverTest {
protected:
    void SetUp() override {
        DriverTest::SetUp();
        PLC_driver.tns = kTns;
        g_calls.clear();
    }

    // (cycleCount, cycleDone): the cycle as the driver counts it and as the host sees it.
    using CycleState = std::pair<int, int>;
    CycleState Cycle() const { return {PLC_driver.cycleCount, info.cycleDone}; }

    // Sends the next request and answers it as a read: the reply's result, or
    // -1 when no request went out.
    int AnswerNextRead() {
        Protocol* p = ComCommunication();
        if (p == nullptr) {
            ADD_FAILURE() << "no request went out";
            return -1;
        }
        return AnswerRead(p)->result;
    }

    RW_VAR* AckWrite(const Protocol* p) {
        const QByteArray reply = WriteReply(RequestTns(*p));
        return DataCom(reply, reply.size());
    }

    QByteArray ReadReplyFor(const Protocol* p, uint16_t fill = 0x0102) {
        return WordReadReply(RequestTns(*p),
                             std::vector<uint16_t>(static_cast<size_t>(p->var.count), fill));
    }

    // The length-learning exchange of a read; the request stays on the wire.
    void LearnLength(Protocol* p, const QByteArray& reply) {
        ASSERT_EQ(p->replyLen, -1);
        ASSERT_EQ(DataCom(reply, reply.size())->result, 1);
        ASSERT_EQ(ComCommunication(), p);
        ASSERT_EQ(p->replyLen, reply.size());
    }

    RW_VAR* AnswerRead(Protocol* p, uint16_t fill = 0x0102) {
        const QByteArray reply = ReadReplyFor(p, fill);
        LearnLength(p, reply);
        return DataCom(reply, reply.size());
    }

    // Queues a request directly, as a builder would have: with the frame the
    // word builders make for the record at the current transaction number
    // (what a reply answers), and the reply bookkeeping as given.
    Protocol& PushRequest(const RW_VAR& v, int replyLen, int dataPos = 0, int dataBytes = 0) {
        Protocol p;
        p.frame = FrameOf(v);
        p.frameLen = p.frame.size();
        p.replyLen = replyLen;
        p.dataPos = dataPos;
        p.dataBytes = dataBytes;
        p.var = v;
        PLC_driver.protocolList.append(p);
        return PLC_driver.protocolList.last();
    }

    // The word read or write frame of a record (aux2 1: a write), built aside
    // so that the queue, the reply counters and the image stay as they are.
    QByteArray FrameOf(RW_VAR v) {
        QList<Protocol> queued;
        queued.swap(PLC_driver.protocolList);
        const int replyDone = info.replyDone;
        const int replyTotal = info.replyTotal;
        if (v.aux2 == 1)
            WriteAnalog(&v);
        else
            ReadAnalog(&v);
        const QByteArray frame = PLC_driver.protocolList.isEmpty()
                                     ? QByteArray()
                                     : PLC_driver.protocolList.first().frame;
        PLC_driver.protocolList.swap(queued);
        info.replyDone = replyDone;
        info.replyTotal = replyTotal;
        EXPECT_FALSE(frame.isEmpty()) << "no frame for varId " << v.varId;
        return frame;
    }
};

// ---- the test peer itself ----------------------------------------------------

TEST(ReplyFraming, FramedMatchesPublishedRequestFrames) {
    // The request frames of the frame layout use the same lead-in, doubling and
    // block check as replies, so they check the framing helper byte for byte.
    EXPECT_EQ(
        ToHex(Framed(Hex("00 00 0B 00 21 00 00 00 0A 02 20 02 24 01 01 00 04 00 52 05 91 04 4E "
                         "30 30 37 29 00 00 00 0A 00 00 00 00 00 00 00"))),
        "10 06 10 02 00 00 0B 00 21 00 00 00 0A 02 20 02 24 01 01 00 04 00 52 05 91 04 4E 30 "
        "30 37 29 00 00 00 0A 00 00 00 00 00 00 00 10 03 78");
    EXPECT_EQ(
        ToHex(Framed(Hex("00 00 0B 00 05 00 00 00 0A 02 20 02 24 01 01 00 04 00 52 05 91 04 42 "
                         "30 30 33 29 00 10 00 02 00 00 00 00 00 00 00"))),
        "10 06 10 02 00 00 0B 00 05 00 00 00 0A 02 20 02 24 01 01 00 04 00 52 05 91 04 42 30 "
        "30 33 29 00 10 10 00 02 00 00 00 00 00 00 00 10 03 9C");
}

TEST(ReplyFraming, WriteReplyIs27BytesAndReadDataStartsAt26) {
    EXPECT_EQ(WriteReply(0x21).size(), 27);
    const QByteArray r = WordReadReply(0x21, {0x1234});
    ASSERT_EQ(r.size(), 31);
    EXPECT_EQ(static_cast<uint8_t>(r[26]), 0x34);
    EXPECT_EQ(static_cast<uint8_t>(r[27]), 0x12);
}

// ---- nothing queued, transaction counter -----------------------------------------

TEST_F(ReplyProcessing, NothingQueued_ResultOneAndTnsUnchanged) {
    PLC_driver.tns = 77;
    PLC_driver.current.varId = 55;
    PLC_driver.current.result = 9;
    const QByteArray reply = WriteReply(77);
    RW_VAR* r = DataCom(reply, reply.size());
    EXPECT_EQ(r, &PLC_driver.current);
    EXPECT_EQ(r->result, 1);
    EXPECT_EQ(r->varId, 55);
    EXPECT_EQ(PLC_driver.tns, 77);
    EXPECT_EQ(info.retryCount, 0);
}

struct TnsRow {
    int before;
    int after;
};

class TnsStep : public ReplyProcessing, public ::testing::WithParamInterface<TnsRow> {};

TEST_P(TnsStep, AdvancedAfterEachProcessedReply) {
    PLC_driver.tns = GetParam().before;
    info.retryLimit = 5;
    QueueWrite(WordWrite(1, 1, 0x0203));
    Protocol* p = ComCommunication();
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(RequestTns(*p), GetParam().before);
    EXPECT_EQ(DataCom(QByteArray(), 0)->result, 0);
    EXPECT_EQ(PLC_driver.tns, GetParam().after);
}

INSTANTIATE_TEST_SUITE_P(Rows, TnsStep,
                         ::testing::Values(TnsRow{254, 1}, TnsRow{15, 17}, TnsRow{16, 17},
                                           TnsRow{0, 1}, TnsRow{1, 2}, TnsRow{17, 18},
                                           TnsRow{253, 254}, TnsRow{0x21, 0x22}));

TEST_F(ReplyProcessing, TnsAdvancedByGoodReply_WrapsFrom254To1) {
    PLC_driver.tns = 254;
    QueueWrite(WordWrite(1, 1, 0x0203));
    Protocol* p = ComCommunication();
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(AckWrite(p)->result, 1);
    EXPECT_EQ(PLC_driver.tns, 1);
    QueueWrite(WordWrite(2, 2, 0x0203));
    p = ComCommunication();
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(RequestTns(*p), 1) << "the next request carries the stepped counter";
}

// ---- retries ---------------------------------------------------------------------

TEST_F(ReplyProcessing, RetryLimit2_ThreeSilentRepliesGiveZeroZeroThenFailureCode) {
    QueueWrite(WordWrite(1, 1, 0x0203));
    QueueWrite(WordWrite(2, 2, 0x0203));
    QueueOnce(WordRead(21, 30, 1));
    QueueCyclic(WordRead(100, 0, 4));
    info.cycleDone = 1;

    for (int attempt = 1; attempt <= 2; ++attempt) {
        Protocol* p = ComCommunication();
        ASSERT_NE(p, nullptr);
        EXPECT_EQ(p->var.varId, 1) << "the same entry is rebuilt";
        RW_VAR* r = DataCom(QByteArray(), 0);
        EXPECT_EQ(r->result, 0) << "attempt " << attempt;
        EXPECT_EQ(info.retryCount, attempt);
        EXPECT_EQ(PLC_driver.commError, 1);
        EXPECT_EQ(info.cycleDone, 0);
        EXPECT_TRUE(PLC_driver.protocolList.isEmpty());
        EXPECT_EQ(PLC_driver.writeList.size(), 2);
        EXPECT_EQ(PLC_driver.onceReadList.size(), 1);
    }

    ASSERT_NE(ComCommunication(), nullptr);
    RW_VAR* r = DataCom(QByteArray(), 0);
    EXPECT_EQ(r->result, 42) << "no reply to a local request of varId 1: 40 + 1 + 1";
    EXPECT_EQ(r->varId, 1);
    EXPECT_TRUE(r->data.isEmpty());
    EXPECT_EQ(info.retryCount, 0);
    EXPECT_EQ(PLC_driver.commError, 1);
    EXPECT_TRUE(PLC_driver.writeList.isEmpty()) << "write consumed, the rest purged";
    EXPECT_TRUE(PLC_driver.onceReadList.isEmpty());
    EXPECT_EQ(PLC_driver.readList.size(), 1) << "the cyclic list is never purged";

    Protocol* p = ComCommunication();
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(p->var.varId, 100);
    EXPECT_EQ(AnswerRead(p)->result, 1);
    EXPECT_EQ(PLC_driver.commError, 0) << "the link is good again";
}

TEST_F(ReplyProcessing, RetryCount_NotResetByGoodReply) {
    QueueWrite(WordWrite(1, 1, 0x0203));
    QueueWrite(WordWrite(2, 2, 0x0203));

    ASSERT_NE(ComCommunication(), nullptr);
    ASSERT_EQ(DataCom(QByteArray(), 0)->result, 0);
    Protocol* p = ComCommunication();
    ASSERT_NE(p, nullptr);
    ASSERT_EQ(AckWrite(p)->result, 1);
    EXPECT_EQ(info.retryCount, 1);

    ASSERT_NE(ComCommunication(), nullptr);
    EXPECT_EQ(DataCom(QByteArray(), 0)->result, 0);
    EXPECT_EQ(info.retryCount, 2);
    ASSERT_NE(ComCommunication(), nullptr);
    EXPECT_EQ(DataCom(QByteArray(), 0)->result, 43) << "second failure of varId 2 is reported";
    EXPECT_EQ(info.retryCount, 0);
}

TEST_F(ReplyProcessing, RetryCountAboveLimitAlready_FirstFailureReported) {
    info.retryCount = 5;
    QueueWrite(WordWrite(4, 1, 0x0203));
    ASSERT_NE(ComCommunication(), nullptr);
    EXPECT_EQ(DataCom(QByteArray(), 0)->result, 45);
    EXPECT_EQ(info.retryCount, 0);
}

TEST_F(ReplyProcessing, OneShotRead_ThirdFailedFullReplyReportedAndCallsBackWithFailure) {
    info.hostContext = 4242;
    RegistCallBackFuncIntf(&RecordCallback, 0);
    RW_VAR once = OnceRead(4, 8, 30, 2);
    QueueOnce(once);
    QueueOnce(WordRead(5, 40, 1));
    QueueCyclic(WordRead(100, 0, 4));

    for (int attempt = 1; attempt <= 3; ++attempt) {
        Protocol* p = ComCommunication();
        ASSERT_NE(p, nullptr);
        ASSERT_EQ(p->var.varId, 4);
        LearnLength(p, ReadReplyFor(p));
        const int result = DataCom(QByteArray(), 0)->result;
        if (attempt < 3) {
            EXPECT_EQ(result, 0);
            EXPECT_TRUE(g_calls.empty());
        } else {
            EXPECT_EQ(result, 45) << "no reply to a local request of varId 4: 40 + 4 + 1";
        }
    }
    EXPECT_EQ(g_calls, (std::vector<CallbackCall>{{4242, 4, 8, 2}}));
    EXPECT_TRUE(PLC_driver.onceReadList.isEmpty());
    EXPECT_EQ(PLC_driver.readList.size(), 1);
    EXPECT_EQ(PLC_driver.current.varId, 4);
}

constexpr const char* kHardenedBuildFailsLearning =
    "the hardened build fails a length-learning exchange without a usable reply like any other";

TEST_F(ReplyProcessing, UnfixedLengthRead_FailedFirstReplyIsNotCountedAsRetry) {
    ABCL_DEFAULT_BUILD_ONLY(kHardenedBuildFailsLearning);
    QueueCyclic(WordRead(100, 0, 4));
    Protocol* p = ComCommunication();
    ASSERT_NE(p, nullptr);
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(DataCom(QByteArray(), 0)->result, 0);
        EXPECT_EQ(ComCommunication(), p);
    }
    EXPECT_EQ(p->replyLen, -1);
    EXPECT_EQ(info.retryCount, 0);
    EXPECT_EQ(PLC_driver.tns, kTns);
    EXPECT_EQ(PLC_driver.commError, 0);
}

constexpr const char* kDefaultBuildLeavesLearningUncounted =
    "the default build leaves a failed length-learning exchange uncounted";

TEST_F(ReplyProcessing, UnfixedLengthRead_FailedFirstReplyIsAFailedExchange_Hardened) {
    ABCL_HARDENED_BUILD_ONLY(kDefaultBuildLeavesLearningUncounted);
    QueueCyclic(WordRead(100, 0, 4));
    info.cycleDone = 1;
    for (int attempt = 1; attempt <= 3; ++attempt) {
        Protocol* p = ComCommunication();
        ASSERT_NE(p, nullptr);
        EXPECT_EQ(p->replyLen, -1) << "every try learns its length";
        EXPECT_EQ(RequestTns(*p), kTns + attempt - 1) << "every try has a TNS of its own";
        const int result = DataCom(QByteArray(), 0)->result;
        EXPECT_EQ(PLC_driver.tns, kTns + attempt);
        EXPECT_EQ(PLC_driver.commError, 1);
        EXPECT_EQ(info.cycleDone, 0);
        EXPECT_TRUE(PLC_driver.protocolList.isEmpty());
        if (attempt < 3) {
            EXPECT_EQ(result, 0) << "attempt " << attempt;
            EXPECT_EQ(info.retryCount, attempt);
        } else {
            // retryLimit 2: no reply to the cyclic list (varId 100): 40 + 1.
            EXPECT_EQ(result, 41);
            EXPECT_EQ(PLC_driver.current.varId, 100);
            EXPECT_EQ(info.retryCount, 0);
        }
    }
    EXPECT_EQ(PLC_driver.readList.size(), 1) << "the cyclic list is never purged";
}

TEST_F(ReplyProcessing, OneShotRead_FailedLengthLearningReportedWithCallbackStatusTwo_Hardened) {
    ABCL_HARDENED_BUILD_ONLY(kDefaultBuildLeavesLearningUncounted);
    info.hostContext = 4242;
    info.retryLimit = 1;
    RegistCallBackFuncIntf(&RecordCallback, 0);
    QueueOnce(OnceRead(4, 8, 30, 2));
    QueueOnce(OnceRead(5, 9, 40, 1));
    QueueWrite(WordWrite(6, 50, 0x0203));

    // The write goes first and is answered; then the read fails twice.
    Protocol* w = ComCommunication();
    ASSERT_NE(w, nullptr);
    ASSERT_EQ(AckWrite(w)->result, 1);
    std::vector<int> results;
    for (int attempt = 1; attempt <= 2; ++attempt) {
        Protocol* p = ComCommunication();
        ASSERT_NE(p, nullptr);
        ASSERT_EQ(p->var.varId, 4);
        ASSERT_EQ(p->replyLen, -1);
        results.push_back(DataCom(QByteArray(), 0)->result);
    }
    EXPECT_EQ(results, (std::vector<int>{0, 45})) << "no reply for varId 4: 40 + 4 + 1";
    EXPECT_EQ(g_calls, (std::vector<CallbackCall>{{4242, 4, 8, 2}}));
    EXPECT_TRUE(PLC_driver.onceReadList.isEmpty()) << "the read consumed, the other purged";
    EXPECT_EQ(PLC_driver.commError, 1);
}

TEST_F(ReplyProcessing, Failure_DropsEveryQueuedRequest) {
    info.retryLimit = 5;
    PushRequest(WordWrite(1, 1, 0), 27);
    PushRequest(WordWrite(2, 2, 0), 27);
    EXPECT_EQ(DataCom(QByteArray(), 0)->result, 0);
    EXPECT_TRUE(PLC_driver.protocolList.isEmpty());
}

// ---- outcomes and codes ------------------------------------------------------------

enum class Reply { Good, BadCheck, BadEnvelope, Silent, WrongLength, NegativeLength };

struct OutcomeRow {
    const char* name;
    int linkNo;
    int varId;
    Reply reply;
    int expected;
};

using OutcomeCodes = RowTest<OutcomeRow, ReplyProcessing>;

TEST_P(OutcomeCodes, ReportedWithVariableSubCode) {
    const OutcomeRow& row = GetParam();
    info.retryLimit = 0;
    QueueWrite(WordWrite(row.varId, 3, 0x0203, 1, row.linkNo));
    Protocol* p = ComCommunication();
    ASSERT_NE(p, nullptr);
    const uint8_t tns = RequestTns(*p);
    QByteArray reply = WriteReply(tns);
    int len = reply.size();
    switch (row.reply) {
        case Reply::Good: break;
        case Reply::BadCheck: reply[26] = static_cast<char>(reply[26] ^ 0x01); break;
        case Reply::BadEnvelope: reply[1] = 0x15; break;
        case Reply::Silent:
            reply.clear();
            len = 0;
            break;
        case Reply::WrongLength:
            reply = Framed(ReplyBody(tns, 0x53, Hex("00 00")));
            len = reply.size();
            break;
        case Reply::NegativeLength: len = -1; break;
    }
    RW_VAR* r = DataCom(reply, len);
    EXPECT_EQ(r->result, row.expected);
    EXPECT_EQ(r->varId, row.varId);
    EXPECT_TRUE(PLC_driver.writeList.isEmpty());
    EXPECT_EQ(PLC_driver.commError, (row.expected == 1 || row.expected == 100) ? 0 : 1);
}

// Codes: 1 local good, 100 remote good; failures are base + varId + 1 for
// varId 1..11, else base + 1, with base 10 / 40 / 70 (local bad reply / no
// reply / wrong length) and 110 / 140 / 170 for remote requests.
INSTANTIATE_TEST_SUITE_P(
    Rows, OutcomeCodes,
    ::testing::Values(OutcomeRow{"LocalGood", 0, 3, Reply::Good, 1},
                      OutcomeRow{"LocalBadCheckVarId5", 0, 5, Reply::BadCheck, 16},
                      OutcomeRow{"LocalBadCheckVarId0", 0, 0, Reply::BadCheck, 11},
                      OutcomeRow{"LocalBadCheckVarId11", 0, 11, Reply::BadCheck, 22},
                      OutcomeRow{"LocalBadEnvelopeVarId1", 0, 1, Reply::BadEnvelope, 12},
                      OutcomeRow{"LocalSilentVarId5", 0, 5, Reply::Silent, 46},
                      OutcomeRow{"LocalSilentVarId11", 0, 11, Reply::Silent, 52},
                      OutcomeRow{"LocalSilentVarId12", 0, 12, Reply::Silent, 41},
                      OutcomeRow{"LocalWrongLengthVarId3", 0, 3, Reply::WrongLength, 74},
                      OutcomeRow{"LocalWrongLengthVarId12", 0, 12, Reply::WrongLength, 71},
                      OutcomeRow{"LocalWrongLengthVarId11", 0, 11, Reply::WrongLength, 82},
                      OutcomeRow{"LocalNegativeLengthVarId2", 0, 2, Reply::NegativeLength, 73},
                      OutcomeRow{"RemoteGood", 5, 3, Reply::Good, 100},
                      OutcomeRow{"RemoteBadCheckVarId5", 5, 5, Reply::BadCheck, 116},
                      OutcomeRow{"RemoteBadCheckVarId11", 5, 11, Reply::BadCheck, 122},
                      OutcomeRow{"RemoteBadCheckVarIdMinus1", 5, -1, Reply::BadCheck, 111},
                      OutcomeRow{"RemoteSilentVarId1", 5, 1, Reply::Silent, 142},
                      OutcomeRow{"RemoteSilentVarId11", 5, 11, Reply::Silent, 152},
                      OutcomeRow{"RemoteWrongLengthVarId5", 5, 5, Reply::WrongLength, 176},
                      OutcomeRow{"RemoteWrongLengthVarId11", 5, 11, Reply::WrongLength, 182},
                      OutcomeRow{"RemoteWrongLengthVarId0", 5, 0, Reply::WrongLength, 171}),
    [](const ::testing::TestParamInfo<OutcomeRow>& row) { return std::string(row.param.name); });

struct ReturnValueRow {
    int outcome;
    int expected;
};

class DriverReturnValue : public ReplyProcessing,
                          public ::testing::WithParamInterface<ReturnValueRow> {};

TEST_P(DriverReturnValue, MapsOutcomeToCodeForVarId4) {
    PushRequest(WordWrite(4, 1, 0), 27);
    EXPECT_EQ(GetDriverReturnValue(GetParam().outcome), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(Rows, DriverReturnValue,
                         ::testing::Values(ReturnValueRow{0, 1}, ReturnValueRow{1, 15},
                                           ReturnValueRow{2, 45}, ReturnValueRow{3, 75},
                                           ReturnValueRow{4, 100}, ReturnValueRow{5, 115},
                                           ReturnValueRow{6, 145}, ReturnValueRow{7, 175},
                                           ReturnValueRow{8, 200}, ReturnValueRow{-1, 200},
                                           ReturnValueRow{100, 200}));

TEST_F(ReplyProcessing, SwitchErrorReturn_SubCodeFromVarIdOfRequestOnWire) {
    const std::vector<std::pair<int, int>> rows = {{1, 42}, {2, 43},  {11, 52}, {12, 41},
                                                   {0, 41}, {-1, 41}, {100, 41}};
    for (const auto& row : rows) {
        PLC_driver.protocolList.clear();
        PushRequest(WordWrite(row.first, 1, 0), 27);
        EXPECT_EQ(SwitchErrorReturn(40), row.second) << "varId " << row.first;
    }
}

TEST_F(ReplyProcessing, LocalReplyConfirmingOnly_StoresNothingAndYieldsOne) {
    RW_VAR once = WordRead(21, 0, 2);
    once.aux2 = 1;
    QueueOnce(once);
    Protocol* p = ComCommunication();
    ASSERT_NE(p, nullptr);
    const QByteArray reply = WordReadReply(RequestTns(*p), {0x1234, 0x5678});
    LearnLength(p, reply);
    EXPECT_EQ(DataCom(reply, reply.size())->result, 1);
    EXPECT_EQ(PLC_driver.areaB[1792], 0);
    EXPECT_EQ(PLC_driver.areaB[1793], 0);
    EXPECT_EQ(PLC_driver.commError, 0);
}

TEST_F(ReplyProcessing, DealDataOfLocalArea_StoresGoodDataReply) {
    const QByteArray reply = WordReadReply(kTns, {0x1234, 0x0010});
    RW_VAR v = WordRead(0, 100 - 7 * 256, 2);
    v.address = 100;
    PushRequest(v, reply.size(), 26, 4);
    EXPECT_EQ(DealDataOfLocalArea(reply, reply.size()), 1);
    EXPECT_EQ(PLC_driver.areaB[100], 0x1234);
    EXPECT_EQ(PLC_driver.areaB[101], 0x0010);
}

TEST_F(ReplyProcessing, DealDataOfLocalArea_NoReplyBeforeLengthCheck) {
    PushRequest(WordWrite(3, 1, 0), 27);
    EXPECT_EQ(DealDataOfLocalArea(QByteArray(), 0), 44);
    EXPECT_EQ(DealDataOfLocalArea(WriteReply(kTns), 26), 74);
    EXPECT_EQ(DealDataOfLocalArea(WriteReply(kTns), 27), 1);
}

TEST_F(ReplyProcessing, DealDataOfLocalArea_ZeroLengthExpected_CheckDecides) {
    ABCL_DEFAULT_BUILD_ONLY("the hardened build takes no empty reply as an answer");
    // A request expecting no bytes at all: an empty reply is checked, and only a
    // second-or-later reply (replyDone 1) confirms it.
    PushRequest(WordWrite(3, 1, 0), 0);
    EXPECT_EQ(DealDataOfLocalArea(QByteArray(), 0), 14);
    info.replyDone = 1;
    EXPECT_EQ(DealDataOfLocalArea(QByteArray(), 0), 1);
}

TEST_F(ReplyProcessing, DealDataOfLocalArea_ZeroLengthExpected_EmptyReplyIsBad_Hardened) {
    ABCL_HARDENED_BUILD_ONLY("the default build confirms a later reply of no bytes");
    PushRequest(WordWrite(3, 1, 0), 0);
    EXPECT_EQ(DealDataOfLocalArea(QByteArray(), 0), 14);
    info.replyDone = 1;
    EXPECT_EQ(DealDataOfLocalArea(QByteArray(), 0), 14);
}

TEST_F(ReplyProcessing, RemoteModeReplyShorterThanItsData_TrailerNeverStored_Hardened) {
    ABCL_HARDENED_BUILD_ONLY("the default build reads data bytes up to the reply's last byte");
    info.remoteMode = 1;
    // Two words asked for, one carried: DLE ETX and the block check follow it.
    const QByteArray reply = WordReadReply(kTns, {0x1234});
    RW_VAR v = WordRead(0, 0, 2);
    v.address = 100;
    PushRequest(v, reply.size(), 26, 4);
    PLC_driver.areaB[101] = 0xBEEF;
    EXPECT_EQ(DealDataOfLocalArea(reply, reply.size()), 1);
    EXPECT_EQ(PLC_driver.areaB[100], 0x1234);
    EXPECT_EQ(PLC_driver.areaB[101], 0xBEEF);
}

TEST_F(ReplyProcessing, DealDataOfRemoteArea_GoodReplyNeverStored) {
    const QByteArray reply = WordReadReply(kTns, {0x1234});
    RW_VAR v = WordRead(2, 0, 1, 1, 5);
    v.address = 100;
    PushRequest(v, reply.size(), 26, 2);
    EXPECT_EQ(DealDataOfRemoteArea(reply, reply.size()), 100);
    EXPECT_EQ(PLC_driver.areaB[100], 0);
    EXPECT_EQ(DealDataOfRemoteArea(QByteArray(), 0), 143);
    EXPECT_EQ(DealDataOfRemoteArea(reply, reply.size() + 1), 173);
}

TEST_F(ReplyProcessing, RemoteReplyWhileReplyDoneSet_GoodOnlyAsEmptyFirstConfirmation) {
    RW_VAR v = WordWrite(2, 1, 0, 1, 5);
    PushRequest(v, 0);
    info.replyDone = 1;
    EXPECT_EQ(DealDataOfRemoteArea(QByteArray(), 0), 1) << "good, but not the remote-good code";
    info.replyDone = 2;
    EXPECT_EQ(DealDataOfRemoteArea(QByteArray(), 0), 113);
}

TEST_F(ReplyProcessing, RemoteModeWriteAfterGoodExchange_FailsUnlessHostZeroesReplyDone) {
    // A remote write leaves the reply counters alone, so the count of the
    // previous good exchange is still there when its reply is checked.
    info.retryLimit = 0;
    QueueWrite(WordWrite(1, 1, 0x0203, 1, 5));
    Protocol* p = ComCommunication();
    ASSERT_NE(p, nullptr);
    ASSERT_EQ(AckWrite(p)->result, 100);
    ASSERT_EQ(info.replyDone, 1);

    info.remoteMode = 1;
    const QByteArray ack = Framed(Hex("00 00 4B 00 21 00 00"));  // 14 bytes
    ASSERT_EQ(ack.size(), 14);
    QueueWrite(WordWrite(2, 2, 0x0203, 1, 5));
    p = ComCommunication();
    ASSERT_NE(p, nullptr);
    ASSERT_EQ(p->replyLen, 14);
    EXPECT_EQ(info.replyDone, 1);
    EXPECT_EQ(DataCom(ack, ack.size())->result, 113);

    QueueWrite(WordWrite(3, 3, 0x0203, 1, 5));
    p = ComCommunication();
    ASSERT_NE(p, nullptr);
    info.replyDone = 0;
    EXPECT_EQ(DataCom(ack, ack.size())->result, 100);
}

// ---- two exchanges per read ----------------------------------------------------------

TEST_F(ReplyProcessing, TwoExchangeRead_FirstReplyOnlyFixesLength) {
    QueueCyclic(WordRead(100, 0, 2));
    QueueCyclic(WordRead(101, 8, 2));
    info.retryCount = 1;
    PLC_driver.current.varId = 55;
    Protocol* p = ComCommunication();
    ASSERT_NE(p, nullptr);
    const QByteArray reply = WordReadReply(RequestTns(*p), {0x1234, 0x5678});

    RW_VAR* r = DataCom(reply, reply.size());
    EXPECT_EQ(r->result, 1);
    EXPECT_EQ(r->varId, 55) << "no queue step";
    EXPECT_EQ(p->replyLen, reply.size());
    EXPECT_EQ(PLC_driver.areaB[1792], 0) << "no data stored";
    EXPECT_EQ(PLC_driver.tns, kTns) << "no transaction step";
    EXPECT_EQ(PLC_driver.readList.first().varId, 100);
    EXPECT_EQ(PLC_driver.protocolList.size(), 1);
    EXPECT_EQ(info.retryCount, 1);
    EXPECT_EQ(info.replyDone, 0);
    EXPECT_EQ(PLC_driver.cycleCount, 0);

    ASSERT_EQ(ComCommunication(), p);
    r = DataCom(reply, reply.size());
    EXPECT_EQ(r->result, 1);
    EXPECT_EQ(r->varId, 100);
    EXPECT_EQ(PLC_driver.areaB[1792], 0x1234);
    EXPECT_EQ(PLC_driver.areaB[1793], 0x5678);
    EXPECT_EQ(PLC_driver.tns, kTns + 1);
    EXPECT_EQ(PLC_driver.readList.first().varId, 101);
    EXPECT_TRUE(PLC_driver.protocolList.isEmpty());
    EXPECT_EQ(info.replyDone, 1);
}

TEST_F(ReplyProcessing, TwoExchangeRead_LearntLengthIsTheReplySize) {
    QueueCyclic(WordRead(100, 0, 2));
    Protocol* p = ComCommunication();
    ASSERT_NE(p, nullptr);
    const QByteArray reply = WordReadReply(RequestTns(*p), {0x1234, 0x5678});
    EXPECT_EQ(DataCom(reply, 5)->result, 1);
    EXPECT_EQ(p->replyLen, reply.size());
}

TEST_F(ReplyProcessing, TwoExchangeRead_FirstReplyShorterThan27ChangesNothing) {
    ABCL_DEFAULT_BUILD_ONLY(kHardenedBuildFailsLearning);
    QueueCyclic(WordRead(100, 0, 2));
    Protocol* p = ComCommunication();
    ASSERT_NE(p, nullptr);
    const QByteArray shortReply = Framed(ReplyBody(RequestTns(*p), 0x52, QByteArray()).left(19));
    ASSERT_EQ(shortReply.size(), 26);
    EXPECT_EQ(DataCom(shortReply, shortReply.size())->result, 0);
    EXPECT_EQ(p->replyLen, -1);
    EXPECT_EQ(PLC_driver.tns, kTns);
    EXPECT_EQ(info.retryCount, 0);
    EXPECT_EQ(PLC_driver.commError, 0);
    EXPECT_EQ(PLC_driver.protocolList.size(), 1);
    EXPECT_EQ(ComCommunication(), p);
}

TEST_F(ReplyProcessing, TwoExchangeRead_FirstReplyWithBadBlockCheckChangesNothing) {
    ABCL_DEFAULT_BUILD_ONLY(kHardenedBuildFailsLearning);
    QueueCyclic(WordRead(100, 0, 2));
    Protocol* p = ComCommunication();
    ASSERT_NE(p, nullptr);
    QByteArray reply = WordReadReply(RequestTns(*p), {0x1234, 0x5678});
    reply[reply.size() - 1] = static_cast<char>(reply[reply.size() - 1] ^ 0x40);
    EXPECT_EQ(DataCom(reply, reply.size())->result, 0);
    EXPECT_EQ(p->replyLen, -1);
    EXPECT_EQ(info.retryCount, 0);
}

TEST_F(ReplyProcessing, TwoExchangeRead_UnusableFirstReplyIsRetriedThenReported_Hardened) {
    ABCL_HARDENED_BUILD_ONLY(kDefaultBuildLeavesLearningUncounted);
    info.retryLimit = 3;
    QueueCyclic(WordRead(100, 0, 2));
    PLC_driver.areaB[1792] = 0xAAAA;

    const auto shortReply = [](uint8_t tns) {
        return Framed(ReplyBody(tns, 0x52, QByteArray()).left(19));
    };
    const auto badBlockCheck = [](uint8_t tns) {
        QByteArray reply = WordReadReply(tns, {0x1234, 0x5678});
        reply[reply.size() - 1] = static_cast<char>(reply[reply.size() - 1] ^ 0x40);
        return reply;
    };
    const auto wrongTns = [](uint8_t tns) {
        return WordReadReply(static_cast<uint8_t>(tns + 1), {0x1234, 0x5678});
    };
    const std::vector<std::function<QByteArray(uint8_t)>> unusable = {shortReply, badBlockCheck,
                                                                      wrongTns};
    std::vector<int> results;
    for (const auto& make : unusable) {
        Protocol* p = ComCommunication();
        ASSERT_NE(p, nullptr);
        ASSERT_EQ(p->replyLen, -1);
        const QByteArray reply = make(RequestTns(*p));
        results.push_back(DataCom(reply, reply.size())->result);
        EXPECT_EQ(PLC_driver.commError, 1);
        EXPECT_TRUE(PLC_driver.protocolList.isEmpty());
    }
    EXPECT_EQ(results, (std::vector<int>{0, 0, 0}));
    EXPECT_EQ(info.retryCount, 3);
    EXPECT_EQ(PLC_driver.tns, kTns + 3);
    EXPECT_EQ(PLC_driver.areaB[1792], 0xAAAA);

    // The fourth: reported as a bad reply of the cyclic list (10 + 1).
    Protocol* p = ComCommunication();
    ASSERT_NE(p, nullptr);
    const QByteArray reply = wrongTns(RequestTns(*p));
    EXPECT_EQ(DataCom(reply, reply.size())->result, 11);
    EXPECT_EQ(info.retryCount, 0);

    // A good pair recovers the link.
    p = ComCommunication();
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(AnswerRead(p, 0x0707)->result, 1);
    EXPECT_EQ(PLC_driver.areaB[1792], 0x0707);
    EXPECT_EQ(PLC_driver.commError, 0);
}

TEST_F(ReplyProcessing, TwoExchangeRead_SecondReplyOfOtherLengthIsRetried) {
    QueueCyclic(WordRead(100, 0, 2));
    Protocol* p = ComCommunication();
    ASSERT_NE(p, nullptr);
    LearnLength(p, WordReadReply(RequestTns(*p), {0x0001, 0x0002}));
    // The value gained a 0x10 byte, sent twice: one byte longer.
    const QByteArray longer = WordReadReply(RequestTns(*p), {0x0010, 0x0002});
    EXPECT_EQ(DataCom(longer, longer.size())->result, 0);
    EXPECT_EQ(info.retryCount, 1);
    EXPECT_EQ(PLC_driver.areaB[1792], 0);
    Protocol* again = ComCommunication();
    ASSERT_NE(again, nullptr);
    EXPECT_EQ(again->replyLen, -1) << "the rebuilt request learns its length again";
}

// ---- replies matched to their request (hardened build) ------------------------------

// One byte of a good two-word read reply's body (from DST, undoubled)
// changed, or a reply with another number of words; none of them answers
// the request.
struct MatchRow {
    const char* name;
    int position;  // -1: the body as it is
    uint8_t value;
    int words;
};

// The reply to a read of two words of N7:0, made unanswering by `row`.
QByteArray Unanswering(const MatchRow& row, uint8_t tns) {
    QByteArray payload = Hex("C3 00");
    for (int i = 0; i < row.words; ++i) payload.append(Hex("34 12"));
    QByteArray body = ReplyBody(tns, 0x52, payload);
    if (row.position >= 0) body[row.position] = static_cast<char>(row.value);
    return Framed(body);
}

using ReplyMatching = RowTest<MatchRow, ReplyProcessing>;

TEST_P(ReplyMatching, UnansweringReadReplyIsABadReplyAndStoresNothing_Hardened) {
    ABCL_HARDENED_BUILD_ONLY("the default build takes any well-framed reply of the right length");
    const MatchRow& row = GetParam();
    info.retryLimit = 0;
    info.hostContext = 4242;
    RegistCallBackFuncIntf(&RecordCallback, 0);
    PLC_driver.areaB[1792] = 0xAAAA;
    PLC_driver.areaB[1793] = 0xBBBB;

    // As the reply a read learns its length from.
    QueueOnce(OnceRead(3, 7, 0, 2));
    Protocol* p = ComCommunication();
    ASSERT_NE(p, nullptr);
    const QByteArray first = Unanswering(row, RequestTns(*p));
    EXPECT_EQ(DataCom(first, first.size())->result, 14) << ToHex(first);
    std::vector<CallbackCall> expected = {{4242, 3, 7, 2}};

    // As the reply carrying the data, when it is as long as the good one.
    QueueOnce(OnceRead(3, 8, 0, 2));
    p = ComCommunication();
    ASSERT_NE(p, nullptr);
    LearnLength(p, ReadReplyFor(p));
    const QByteArray second = Unanswering(row, RequestTns(*p));
    if (second.size() == p->replyLen) {
        EXPECT_EQ(DataCom(second, second.size())->result, 14) << ToHex(second);
        expected.push_back({4242, 3, 8, 2});
    }
    EXPECT_EQ(g_calls, expected);
    EXPECT_EQ(PLC_driver.areaB[1792], 0xAAAA);
    EXPECT_EQ(PLC_driver.areaB[1793], 0xBBBB);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, ReplyMatching,
    ::testing::Values(
        MatchRow{"DestinationIsNotTheRequestsSource", 0, 0x01, 2},
        MatchRow{"SourceIsNotTheRequestsDestination", 1, 0x01, 2},
        MatchRow{"CommandWithoutReplyFlag", 2, 0x0B, 2}, MatchRow{"Df1StatusNotZero", 3, 0xF0, 2},
        MatchRow{"OtherTns", 4, 0x55, 2}, MatchRow{"TnsHighByteNotZero", 5, 0x01, 2},
        MatchRow{"PacketServiceNotAReply", 8, 0x0A, 2},
        MatchRow{"PacketGeneralStatus", 10, 0x1E, 2}, MatchRow{"PacketExtendedStatus", 11, 0x01, 2},
        MatchRow{"TwoEmbeddedReplies", 12, 0x02, 2},
        MatchRow{"EmbeddedReplyOffsetSix", 14, 0x06, 2},
        MatchRow{"EmbeddedReplyOfAWrite", 16, 0xD3, 2},
        MatchRow{"EmbeddedGeneralStatusPathSegmentError", 18, 0x04, 2},
        MatchRow{"EmbeddedGeneralStatusWithExtendedStatus", 18, 0xFF, 2},
        MatchRow{"EmbeddedExtendedStatus", 19, 0x01, 2}, MatchRow{"DataTypeReal", 20, 0xCA, 2},
        MatchRow{"DataTypeHighByte", 21, 0x01, 2}, MatchRow{"OneWordShort", -1, 0x00, 1},
        MatchRow{"OneWordOver", -1, 0x00, 3}, MatchRow{"NoData", -1, 0x00, 0}),
    RowName());

TEST_F(ReplyProcessing, UnansweringWriteReplyIsABadReply_Hardened) {
    ABCL_HARDENED_BUILD_ONLY("the default build takes any well-framed reply of the right length");
    info.retryLimit = 0;
    const std::vector<std::function<QByteArray(uint8_t)>> unanswering = {
        [](uint8_t tns) { return WriteReply(static_cast<uint8_t>(tns + 1)); },
        [](uint8_t tns) { return WriteReply(tns, 0x52); },
        [](uint8_t tns) { return Framed(ReplyBody(tns, 0x53, QByteArray(), 0x04)); },
    };
    int varId = 1;
    for (const auto& make : unanswering) {
        QueueWrite(WordWrite(varId, 60 + varId, 0x0203));
        Protocol* p = ComCommunication();
        ASSERT_NE(p, nullptr);
        const QByteArray reply = make(RequestTns(*p));
        ASSERT_EQ(reply.size(), p->replyLen) << ToHex(reply);
        RW_VAR* r = DataCom(reply, reply.size());
        EXPECT_EQ(r->result, 10 + varId + 1) << ToHex(reply);
        EXPECT_EQ(r->varId, varId);
        EXPECT_EQ(PLC_driver.commError, 1);
        ++varId;
    }
    QueueWrite(WordWrite(9, 70, 0x0203));
    Protocol* p = ComCommunication();
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(AckWrite(p)->result, 1) << "the answering reply is good";
    EXPECT_EQ(PLC_driver.commError, 0);
}

// ---- handing the record back ---------------------------------------------------------

TEST_F(ReplyProcessing, PassRetValue_CopiesEveryFieldButEmptiesData) {
    RW_VAR src = RecordBuilder()
                     .Ids(1, 2)
                     .Host(3, 4, 11, 12)
                     .Link(5, 6)
                     .Texts("7:10", "second")
                     .At(7, 8, 10, 9)
                     .Data(Hex("AA BB"));
    RW_VAR expected = src;
    expected.data.clear();
    RW_VAR dst;
    dst.data = Hex("01 02 03");
    dst.addrText = "old";
    passRetValue(&src, &dst);
    ExpectSameRecord(expected, dst);
    EXPECT_EQ(ToHex(src.data), "AA BB") << "the source keeps its data";
}

TEST_F(ReplyProcessing, GoodWrite_CurrentIsTheWriteWithoutData) {
    RW_VAR w = WordWrite(6, 4, 0xBEEF);
    w.varSubId = 17;
    w.addrText2 = "label";
    QueueWrite(w);
    Protocol* p = ComCommunication();
    ASSERT_NE(p, nullptr);
    RW_VAR* r = AckWrite(p);
    EXPECT_EQ(r->result, 1);
    EXPECT_EQ(r->varId, 6);
    EXPECT_EQ(r->varSubId, 17);
    EXPECT_EQ(r->addrText2, QString("label"));
    EXPECT_EQ(r->address, 7 * 256 + 4);
    EXPECT_TRUE(r->data.isEmpty());
}

TEST_F(ReplyProcessing, QueueNamedByModeEmpty_CurrentKeepsPreviousFields) {
    PLC_driver.current.varId = 55;
    PLC_driver.current.addrText = "previous";
    PLC_driver.mode = 1;
    PushRequest(WordWrite(3, 1, 0), 27);
    const QByteArray reply = WriteReply(kTns);
    RW_VAR* r = DataCom(reply, reply.size());
    EXPECT_EQ(r->result, 1);
    EXPECT_EQ(r->varId, 55);
    EXPECT_EQ(r->addrText, QString("previous"));
}

TEST_F(ReplyProcessing, ReplyTotalAboveOne_GoodReplyLeavesEntryQueued) {
    QueueWrite(WordWrite(6, 4, 0x0203));
    PLC_driver.current.varId = 55;
    Protocol* p = ComCommunication();
    ASSERT_NE(p, nullptr);
    info.replyTotal = 2;
    RW_VAR* r = AckWrite(p);
    EXPECT_EQ(r->result, 1);
    EXPECT_EQ(r->varId, 55);
    EXPECT_EQ(info.replyDone, 1);
    EXPECT_TRUE(PLC_driver.protocolList.isEmpty());
    EXPECT_EQ(PLC_driver.writeList.size(), 1);
    EXPECT_EQ(PLC_driver.commError, 0);
}

// ---- cycle completion ------------------------------------------------------------------

TEST_F(ReplyProcessing, CycleDone_SetAfterMoreGoodLocalRepliesThanCyclicEntries) {
    QueueCyclic(WordRead(100, 0, 2));
    QueueCyclic(WordRead(101, 8, 2));
    info.cycleDone = 0;
    for (int n = 1; n <= 2; ++n) {
        ASSERT_EQ(AnswerNextRead(), 1);
        EXPECT_EQ(Cycle(), (CycleState{n, 0}));
    }
    ASSERT_EQ(AnswerNextRead(), 1);
    EXPECT_EQ(Cycle(), (CycleState{0, 1}));

    ASSERT_EQ(AnswerNextRead(), 1);
    EXPECT_EQ(Cycle(), (CycleState{0, 1})) << "not counted while the cycle is done";
}

TEST_F(ReplyProcessing, CycleDone_ClearedByFailureWithCountRestarted) {
    QueueCyclic(WordRead(100, 0, 2));
    QueueCyclic(WordRead(101, 8, 2));
    ASSERT_EQ(AnswerNextRead(), 1);
    ASSERT_EQ(PLC_driver.cycleCount, 1);

    Protocol* p = ComCommunication();
    ASSERT_NE(p, nullptr);
    LearnLength(p, ReadReplyFor(p));
    info.cycleDone = 1;
    EXPECT_EQ(DataCom(QByteArray(), 0)->result, 0);
    EXPECT_EQ(Cycle(), (CycleState{0, 0}));
}

TEST_F(ReplyProcessing, CycleCount_RemoteGoodRepliesNotCounted) {
    QueueCyclic(WordRead(100, 0, 2, 1, 5));
    ASSERT_EQ(AnswerNextRead(), 100);
    EXPECT_EQ(Cycle(), (CycleState{0, 0}));
}

TEST_F(ReplyProcessing, CycleDone_GoodWriteWithEmptyCyclicListCompletesCycle) {
    QueueWrite(WordWrite(1, 1, 0x0203));
    Protocol* p = ComCommunication();
    ASSERT_NE(p, nullptr);
    ASSERT_EQ(AckWrite(p)->result, 1);
    EXPECT_EQ(Cycle(), (CycleState{0, 1}));
}

// ---- queue advance and purge -----------------------------------------------------------

TEST_F(ReplyProcessing, GoodCyclicReply_RotatesReadListAndReturnsEntry) {
    RW_VAR a = WordRead(100, 0, 2);
    a.data = Hex("01 02");
    QueueCyclic(a);
    QueueCyclic(WordRead(101, 8, 2));
    QueueCyclic(WordRead(102, 16, 2));
    Protocol* p = ComCommunication();
    ASSERT_NE(p, nullptr);
    RW_VAR* r = AnswerRead(p);
    EXPECT_EQ(r->result, 1);
    EXPECT_EQ(r->varId, 100);
    EXPECT_TRUE(r->data.isEmpty());
    ASSERT_EQ(PLC_driver.readList.size(), 3);
    EXPECT_EQ(PLC_driver.readList[0].varId, 101);
    EXPECT_EQ(PLC_driver.readList[1].varId, 102);
    EXPECT_EQ(PLC_driver.readList[2].varId, 100);
    EXPECT_EQ(ToHex(PLC_driver.readList[2].data), "01 02") << "the list keeps its own record";
}

TEST_F(ReplyProcessing, ReportedCyclicFailure_RotatesAndPurgesOnlyPriorityQueues) {
    info.retryLimit = 0;
    QueueCyclic(WordRead(100, 0, 2));
    QueueCyclic(WordRead(101, 8, 2));
    QueueWrite(WordWrite(1, 1, 0x0203));
    QueueOnce(WordRead(21, 30, 1));
    PLC_driver.writeBurst = 5;
    PLC_driver.onceBurst = 5;
    Protocol* p = ComCommunication();
    ASSERT_NE(p, nullptr);
    ASSERT_EQ(p->var.varId, 100);
    QByteArray reply = ReadReplyFor(p);
    LearnLength(p, reply);
    reply[reply.size() - 1] = static_cast<char>(reply[reply.size() - 1] ^ 0x01);
    RW_VAR* r = DataCom(reply, reply.size());
    EXPECT_EQ(r->result, 11) << "bad reply to a local request of varId 100: 10 + 1";
    EXPECT_EQ(r->varId, 100);
    ASSERT_EQ(PLC_driver.readList.size(), 2);
    EXPECT_EQ(PLC_driver.readList[0].varId, 101);
    EXPECT_TRUE(PLC_driver.writeList.isEmpty());
    EXPECT_TRUE(PLC_driver.onceReadList.isEmpty());
}

class Purge : public ReplyProcessing {
protected:
    void QueueMixedStations() {
        info.retryLimit = 0;
        QueueWrite(WordWrite(1, 1, 0x0203, 2));
        QueueWrite(WordWrite(2, 2, 0x0203, 3));
        QueueWrite(WordWrite(3, 3, 0x0203, 2));
        QueueWrite(WordWrite(4, 4, 0x0203, 3));
        QueueOnce(WordRead(21, 30, 1, 2));
        QueueOnce(WordRead(22, 31, 1, 3));
        QueueOnce(WordRead(23, 32, 1, 2));
        QueueCyclic(WordRead(100, 0, 2, 2));
        Protocol* p = ComCommunication();
        ASSERT_NE(p, nullptr);
        ASSERT_EQ(p->var.station, 2);
        RW_VAR* r = DataCom(QByteArray(), 0);
        ASSERT_EQ(r->result, 42);
        ASSERT_EQ(r->station, 2);
    }

    static std::vector<int> Ids(const QList<RW_VAR>& list) {
        std::vector<int> ids;
        for (const RW_VAR& v : list) ids.push_back(v.varId);
        return ids;
    }
};

TEST_F(Purge, MultiStation_RemovesOnlyFailedStationsEntries) {
    info.multiStation = 1;
    QueueMixedStations();
    EXPECT_EQ(Ids(PLC_driver.writeList), (std::vector<int>{2, 4}));
    EXPECT_EQ(Ids(PLC_driver.onceReadList), (std::vector<int>{22}));
    EXPECT_EQ(Ids(PLC_driver.readList), (std::vector<int>{100}));
}

TEST_F(Purge, SingleStation_EmptiesWriteAndOnceQueues) {
    QueueMixedStations();
    EXPECT_TRUE(PLC_driver.writeList.isEmpty());
    EXPECT_TRUE(PLC_driver.onceReadList.isEmpty());
    EXPECT_EQ(Ids(PLC_driver.readList), (std::vector<int>{100}));
}

TEST_F(Purge, RetriedFailure_PurgesNothing) {
    info.retryLimit = 1;
    QueueWrite(WordWrite(1, 1, 0x0203));
    QueueWrite(WordWrite(2, 2, 0x0203));
    QueueOnce(WordRead(21, 30, 1));
    ASSERT_NE(ComCommunication(), nullptr);
    ASSERT_EQ(DataCom(QByteArray(), 0)->result, 0);
    EXPECT_EQ(PLC_driver.writeList.size(), 2);
    EXPECT_EQ(PLC_driver.onceReadList.size(), 1);
}

// ---- one-shot reads and the callback --------------------------------------------------------

TEST_F(ReplyProcessing, OneShotQueuedTwice_OneCallbackWhenTheLastFinishes) {
    info.hostContext = 4242;
    RegistCallBackFuncIntf(&RecordCallback, 99);
    RW_VAR once = OnceRead(7, 3, 30, 1);
    QueueOnce(once);
    once.address += 5;  // same variable ids, another piece
    QueueOnce(once);
    ASSERT_EQ(PLC_driver.onceReadList.size(), 2);

    Protocol* p = ComCommunication();
    ASSERT_NE(p, nullptr);
    ASSERT_EQ(AnswerRead(p)->result, 1);
    EXPECT_TRUE(g_calls.empty()) << "another read of the same variable is still queued";
    EXPECT_EQ(PLC_driver.onceReadList.size(), 1);

    p = ComCommunication();
    ASSERT_NE(p, nullptr);
    ASSERT_EQ(AnswerRead(p)->result, 1);
    EXPECT_EQ(g_calls, (std::vector<CallbackCall>{{4242, 7, 3, 1}}));
    EXPECT_TRUE(PLC_driver.onceReadList.isEmpty());
}

TEST_F(ReplyProcessing, OneShotExactDuplicate_OneSuccessCallbackAfterTheSecond) {
    info.hostContext = 3;
    RegistCallBackFuncIntf(&RecordCallback, 0);
    RW_VAR once = OnceRead(7, 3, 30, 2);
    QueueOnce(once);
    QueueOnce(once);
    for (int served = 1; served <= 2; ++served) {
        Protocol* p = ComCommunication();
        ASSERT_NE(p, nullptr);
        ASSERT_EQ(AnswerRead(p)->result, 1);
        EXPECT_EQ(g_calls.size(), static_cast<size_t>(served - 1)) << "after read " << served;
    }
    EXPECT_EQ(g_calls, (std::vector<CallbackCall>{{3, 7, 3, 1}}));
}

TEST_F(ReplyProcessing, OneShotOtherSubId_CalledBackSeparately) {
    RegistCallBackFuncIntf(&RecordCallback, 0);
    RW_VAR once = OnceRead(7, 3, 30, 1);
    QueueOnce(once);
    once.varSubId = 4;
    QueueOnce(once);
    for (int i = 0; i < 2; ++i) {
        Protocol* p = ComCommunication();
        ASSERT_NE(p, nullptr);
        ASSERT_EQ(AnswerRead(p)->result, 1);
    }
    EXPECT_EQ(g_calls, (std::vector<CallbackCall>{{0, 7, 3, 1}, {0, 7, 4, 1}}));
}

TEST_F(ReplyProcessing, OneShotReportedFailure_CallsBackWithStatusTwo) {
    info.retryLimit = 0;
    info.hostContext = 8;
    RegistCallBackFuncIntf(&RecordCallback, 0);
    RW_VAR once = OnceRead(7, 3, 30, 1);
    QueueOnce(once);
    Protocol* p = ComCommunication();
    ASSERT_NE(p, nullptr);
    LearnLength(p, ReadReplyFor(p));
    EXPECT_EQ(DataCom(QByteArray(), 0)->result, 48);
    EXPECT_EQ(g_calls, (std::vector<CallbackCall>{{8, 7, 3, 2}}));
}

TEST_F(ReplyProcessing, OneShotFailsWhileDuplicateQueued_PurgedWithoutCallback) {
    info.retryLimit = 0;
    RegistCallBackFuncIntf(&RecordCallback, 0);
    RW_VAR once = WordRead(7, 30, 1);
    QueueOnce(once);
    QueueOnce(once);
    Protocol* p = ComCommunication();
    ASSERT_NE(p, nullptr);
    LearnLength(p, ReadReplyFor(p));
    EXPECT_EQ(DataCom(QByteArray(), 0)->result, 48);
    EXPECT_TRUE(g_calls.empty());
    EXPECT_TRUE(PLC_driver.onceReadList.isEmpty());
}

TEST_F(ReplyProcessing, RemoteOneShot_NeverCallsBack) {
    RegistCallBackFuncIntf(&RecordCallback, 0);
    QueueOnce(WordRead(7, 30, 1, 1, 5));
    Protocol* p = ComCommunication();
    ASSERT_NE(p, nullptr);
    RW_VAR* r = AnswerRead(p);
    EXPECT_EQ(r->result, 100);
    EXPECT_EQ(r->varId, 7);
    EXPECT_TRUE(g_calls.empty());
    EXPECT_TRUE(PLC_driver.onceReadList.isEmpty());

    info.retryLimit = 0;
    QueueOnce(WordRead(8, 30, 1, 1, 5));
    p = ComCommunication();
    ASSERT_NE(p, nullptr);
    LearnLength(p, ReadReplyFor(p));
    EXPECT_EQ(DataCom(QByteArray(), 0)->result, 149);
    EXPECT_TRUE(g_calls.empty());
}

TEST_F(ReplyProcessing, OneShotWithoutRegisteredCallback_StillAdvances) {
    QueueOnce(WordRead(7, 30, 1));
    Protocol* p = ComCommunication();
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(AnswerRead(p)->result, 1);
    EXPECT_TRUE(PLC_driver.onceReadList.isEmpty());
}

// ---- malformed input --------------------------------------------------------------------------

TEST_F(ReplyProcessing, Garbage_NothingQueued_AlwaysResultOne) {
    std::mt19937 rng(7);
    for (int i = 0; i < 200; ++i) {
        QByteArray junk;
        const int size = static_cast<int>(rng() % 64);
        for (int k = 0; k < size; ++k) junk.append(static_cast<char>(rng() & 0xFF));
        const int len = static_cast<int>(rng() % 200) - 100;
        EXPECT_EQ(DataCom(junk, len)->result, 1);
    }
    EXPECT_EQ(PLC_driver.tns, kTns);
}

TEST_F(ReplyProcessing, Garbage_LenBeyondReceivedBytes_IsBadReply) {
    info.retryLimit = 0;
    QueueWrite(WordWrite(2, 1, 0x0203));
    Protocol* p = ComCommunication();
    ASSERT_NE(p, nullptr);
    const QByteArray truncated = WriteReply(RequestTns(*p)).left(10);
    EXPECT_EQ(DataCom(truncated, 27)->result, 13) << "bad reply to a local request of varId 2";
}

TEST_F(ReplyProcessing, ReplyArrayLongerThanLen_CheckedUpToLen) {
    QueueWrite(WordWrite(2, 1, 0x0203));
    Protocol* p = ComCommunication();
    ASSERT_NE(p, nullptr);
    QByteArray reply = WriteReply(RequestTns(*p));
    reply.append(Hex("55 66 77 88 99"));
    EXPECT_EQ(DataCom(reply, 27)->result, 1);
}

TEST_F(ReplyProcessing, Garbage_RandomRepliesAndLengths_NeverCrashOrInventCodes) {
    std::mt19937 rng(12345);
    info.retryLimit = 1;
    for (int i = 0; i < 3000; ++i) {
        if (PLC_driver.writeList.isEmpty() && (rng() & 1))
            QueueWrite(WordWrite(static_cast<int>(rng() % 14), 1, 0x0203));
        if (PLC_driver.onceReadList.isEmpty() && (rng() & 1))
            QueueOnce(WordRead(static_cast<int>(rng() % 14), 30, 1 + static_cast<int>(rng() % 3)));
        if (PLC_driver.readList.isEmpty())
            QueueCyclic(WordRead(100, 0, 1 + static_cast<int>(rng() % 4)));
        Protocol* p = (rng() % 8) ? ComCommunication() : nullptr;

        QByteArray reply;
        const unsigned kind = rng() % 4;
        if (kind == 0 && p) {
            // A valid reply for the request, perhaps damaged in one byte.
            reply = p->replyLen == 27 ? WriteReply(RequestTns(*p))
                                      : ReadReplyFor(p, static_cast<uint16_t>(rng()));
            if (rng() & 1)
                reply[static_cast<int>(rng() % static_cast<unsigned>(reply.size()))] =
                    static_cast<char>(rng());
        } else {
            const int size = static_cast<int>(rng() % 80);
            for (int k = 0; k < size; ++k) reply.append(static_cast<char>(rng() & 0xFF));
            if (kind == 1 && size >= 9) {
                reply[0] = 0x10;
                reply[1] = 0x06;
                reply[2] = 0x10;
                reply[3] = 0x02;
                reply[size - 3] = 0x10;
                reply[size - 2] = 0x03;
            }
        }
        int len = reply.size();
        switch (rng() % 6) {
            case 0: len = 0; break;
            case 1: len = -static_cast<int>(rng() % 1000) - 1; break;
            case 2: len = reply.size() + 1 + static_cast<int>(rng() % 100); break;
            case 3: len = static_cast<int>(rng() % static_cast<unsigned>(reply.size() + 1)); break;
            case 4: len = 100000; break;
            default: break;
        }
        const int result = DataCom(reply, len)->result;
        ASSERT_TRUE(IsKnownResult(result)) << "iteration " << i << " result " << result;
        ASSERT_LE(PLC_driver.protocolList.size(), 1);
        // Started at 0x21, the counter only ever takes 1..254 and skips DLE.
        ASSERT_GE(PLC_driver.tns, 1);
        ASSERT_LE(PLC_driver.tns, 254);
        ASSERT_NE(PLC_driver.tns, 16);
    }
}

}  // namespace
