// One-shot reads under hostile records: whatever the count, maxCount and the
// queue already hold, AddListOnceReadVar leaves the queue and the host's
// record exactly as splitting the read piece by piece and scanning the whole
// queue for each piece would (the model below), although the driver stops
// once the queue is full and looks pieces up in a set.
#include "test_support.h"

#include "Func_Initi.h"
#include "fresh_driver.h"
#include "protocol_constants.h"

#include <QtCore/QList>
#include <QtCore/QString>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <random>
#include <vector>

namespace {

ComInfo g_info;

bool ModelSameOnceRead(const RW_VAR& a, const RW_VAR& b) {
    return a.varId == b.varId && a.varSubId == b.varSubId && a.station == b.station &&
           a.dataType == b.dataType && a.address == b.address && a.count == b.count;
}

int32_t Wrap(int64_t v) {
    return static_cast<int32_t>(static_cast<uint32_t>(v));
}

// The split, piece by piece, each piece scanned against the whole queue.
void ModelQueueOnceRead(QList<RW_VAR>& queue, RW_VAR* var, const ComInfo& s) {
    const int a = StringAddressToInt(var->dataType, var->addrText);
    if (a < 0) return;
    var->aux12 = 0;
    var->aux13 = 0;
    if (s.multiStation == 0) var->station = s.defaultStation;
    const bool bits = var->dataType == ABCL_BIT_A || var->dataType == ABCL_BIT_B;
    if (var->dataType >= ABCL_WORD_A && var->dataType <= ABCL_REAL) {
        var->address = a;
    } else if (bits) {
        var->address = a & ~15;
        const int64_t total = (a & 15) + static_cast<int64_t>(var->count);
        var->count = Wrap(total / 16 + (total % 16 != 0 ? 1 : 0));
    }
    const int64_t start = var->address;
    const PieceSplit split = SplitIntoPieces(var->count, s.maxCount);
    for (int k = 0; k < split.pieces; ++k) {
        var->address = Wrap(start + static_cast<int64_t>(k) * s.maxCount * (bits ? 16 : 1));
        var->count = (k == split.pieces - 1) ? split.lastCount : s.maxCount;
        if (queue.isEmpty()) {
            queue.append(*var);
            continue;
        }
        const bool queued = std::any_of(queue.cbegin(), queue.cend(), [var](const RW_VAR& e) {
            return ModelSameOnceRead(e, *var);
        });
        if (!queued && queue.size() < kQueueLimit) queue.append(*var);
    }
}

class Draw {
public:
    explicit Draw(uint32_t seed) : rng_(seed) {}
    uint32_t below(uint32_t n) { return rng_() % n; }
    template <typename T, size_t N>
    T pick(const T (&values)[N]) {
        return values[below(N)];
    }

private:
    std::mt19937 rng_;
};

RW_VAR RandomRead(Draw& draw, bool heavy) {
    static const int kCounts[] = {1, 2, 15, 16, 17, 100, 1000, -1, -5, 0, INT_MAX, INT_MIN};
    static const char* const kWordTexts[] = {"7:0", "7:200", "0:0", "255:255", "-1:5", "7:-3"};
    static const char* const kBitTexts[] = {"3:0/0", "3:5/15", "7:255/7", "0:0/1"};
    RW_VAR var;
    var.varId = static_cast<int32_t>(draw.below(3));
    var.varSubId = static_cast<int32_t>(draw.below(2));
    var.dataType = static_cast<int32_t>(draw.below(6)) - 1 + (draw.below(4) == 0 ? 0 : 1);
    var.dataType = std::min(var.dataType, 4);
    const bool bits = var.dataType == ABCL_BIT_A || var.dataType == ABCL_BIT_B;
    var.addrText = QString::fromLatin1(bits ? draw.pick(kBitTexts) : draw.pick(kWordTexts));
    var.count = heavy ? draw.pick(kCounts) : static_cast<int32_t>(draw.below(80)) - 4;
    return var;
}

TEST(BoundedOnceReads, HostileReads_QueueAndRecordAsPieceByPiece) {
    static const int kMaxCounts[] = {1, 2, 3, 16, 32, 65536, INT_MAX, 0, -1, -32};
    Draw draw(20261124u);
    int heavyLeft = 12;  // the model is slow for reads split into 65,536 pieces
    for (int run = 0; run < 400; ++run) {
        WireFreshDriver(g_info, draw.pick(kMaxCounts));
        g_info.multiStation = draw.below(5) == 0 ? 1 : 0;
        QList<RW_VAR> model;
        const int calls = 1 + static_cast<int>(draw.below(40));
        for (int c = 0; c < calls; ++c) {
            const bool heavy = heavyLeft > 0 && draw.below(20) == 0;
            if (heavy) --heavyLeft;
            RW_VAR var = RandomRead(draw, heavy);
            RW_VAR modelVar = var;
            const int mode = draw.below(6) == 0 ? 1 : 0;
            const int length = AddListOnceReadVar(&var, mode);
            if (mode == 1) {
                model.append(modelVar);
            } else {
                ModelQueueOnceRead(model, &modelVar, g_info);
            }
            ExpectSameRecord(var, modelVar);
            ASSERT_EQ(PLC_driver.onceReadList.size(), model.size()) << "run " << run;
            if (length != 0) {
                EXPECT_EQ(length, model.size());
            }
        }
        for (int i = 0; i < model.size(); ++i)
            ExpectSameRecord(PLC_driver.onceReadList.at(i), model.at(i));
    }
}

// A read split into 65,536 pieces against a queue that fills up: the queue
// ends at its limit, with the same pieces, and the record holds the last
// piece's place.
TEST(BoundedOnceReads, ReadOfManyPiecesFillsTheQueueAsPieceByPiece) {
    WireFreshDriver(g_info, 1);
    QList<RW_VAR> model;
    RW_VAR var;
    var.varId = 1;
    var.dataType = ABCL_WORD_B;
    var.addrText = QStringLiteral("7:0");
    var.count = INT_MAX;
    RW_VAR modelVar = var;
    AddListOnceReadVar(&var, 0);
    ModelQueueOnceRead(model, &modelVar, g_info);
    ASSERT_EQ(PLC_driver.onceReadList.size(), kQueueLimit);
    ASSERT_EQ(model.size(), kQueueLimit);
    for (int i = 0; i < model.size(); ++i)
        ExpectSameRecord(PLC_driver.onceReadList.at(i), model.at(i));
    ExpectSameRecord(var, modelVar);
}

}  // namespace
