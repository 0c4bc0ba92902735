// Hostile records against the list entry points' bounded loops.
//
// One-shot reads: whatever the count, maxCount and the queue already hold,
// AddListOnceReadVar leaves the queue and the host's record exactly as
// splitting the read piece by piece and scanning the whole queue for each
// piece would (the model below), although the driver stops once the queue is
// full and looks pieces up in a set. The hardened build first caps the read
// at the end of its local area, and queues none that starts outside it.
//
// Bit writes: SetRegisterData of many bits leaves the write queue, the image
// and its result exactly as queuing every bit on its own would, although the
// driver looks at the queue's entries instead of the bits once it is full.
// Word writes of many pieces: the same, piece by piece.
#include "test_support.h"

#include "Func_GetOrSetData.h"
#include "Func_Initi.h"
#include "ab_controllogix_compactlogix_p.h"
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

// The longest bucket of a set holding every key: what one lookup may walk.
size_t LongestBucket(const PlaceKeySet& set) {
    size_t longest = 0;
    for (size_t b = 0; b < set.bucket_count(); ++b) longest = std::max(longest, set.bucket_size(b));
    return longest;
}

// The pieces of one split share their count and differ in their address: a
// hash that kept only the low half of the key (size_t on a 32-bit panel)
// would put them all into one bucket.
TEST(PlaceKeyHash, PiecesOfOneSplitSpreadOverTheBuckets) {
    PlaceKeySet set;
    for (int32_t k = 0; k < 65536; ++k) set.insert(PlaceKey(k * 4, 4));
    ASSERT_EQ(set.size(), 65536u);
    EXPECT_LE(LongestBucket(set), 16u);
}

TEST(PlaceKeyHash, OnePlaceWithManyCountsSpreadsOverTheBuckets) {
    PlaceKeySet set;
    for (int32_t count = 1; count <= 65536; ++count) set.insert(PlaceKey(100, count));
    ASSERT_EQ(set.size(), 65536u);
    EXPECT_LE(LongestBucket(set), 16u);
}

TEST(PlaceKeyHash, TheHashUsesBothHalvesOfTheKeyWhateverTheWidthOfSizeT) {
    const PlaceKeyHash hash;
    const uint32_t addressOnly = static_cast<uint32_t>(hash(PlaceKey(1, 0)) ^ hash(PlaceKey(2, 0)));
    const uint32_t countOnly = static_cast<uint32_t>(hash(PlaceKey(0, 1)) ^ hash(PlaceKey(0, 2)));
    EXPECT_NE(addressOnly, 0u);
    EXPECT_NE(countOnly, 0u);
}

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
    if (kHardenedBuild) {
        // Only what the local areas hold: from an element inside them, at
        // least one, at most up to the last element.
        const int64_t first = bits ? var->address >> 4 : var->address;
        if (var->count < 1 || first < 0 || first >= kAreaElements) return;
        if (var->count > kAreaElements - first)
            var->count = static_cast<int32_t>(kAreaElements - first);
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

// ---- writes ------------------------------------------------------------------

// The record SetRegisterData starts a host write of `dataType` at `text` from.
RW_VAR HostWrite(const QString& text, int dataType) {
    RW_VAR w;
    w.varId = 4;
    w.varSubId = 0;
    w.aux2 = 1;
    w.addrText = text;
    w.dataType = dataType;
    w.station = 1;
    return w;
}

// The driver's write queue and area after a host write are the model's.
void ExpectQueueAndArea(const QList<RW_VAR>& model, const std::vector<uint16_t>& modelArea,
                        const uint16_t* area, int run) {
    ASSERT_EQ(PLC_driver.writeList.size(), model.size()) << "run " << run;
    for (int i = 0; i < model.size(); ++i)
        ExpectSameRecord(model.at(i), PLC_driver.writeList.at(i));
    ASSERT_TRUE(std::equal(modelArea.begin(), modelArea.end(), area)) << "run " << run;
}

// ---- bit writes ------------------------------------------------------------

// QueueWriteRequest in write mode 0, on a model queue.
int ModelQueueWrite(QList<RW_VAR>& queue, const RW_VAR& w) {
    if (queue.size() <= 1) {
        queue.append(w);
        return queue.size();
    }
    for (int i = 1; i < queue.size(); ++i) {
        const RW_VAR& e = queue.at(i);
        if (e.station == w.station && e.dataType == w.dataType && e.address == w.address &&
            e.count == w.count) {
            queue[i] = w;
            return queue.size();
        }
    }
    if (queue.size() < kQueueLimit) queue.append(w);
    return queue.size();
}

// Every bit queued on its own, and mirrored into the (model) area while the
// link is failing.
int ModelBitWrites(QList<RW_VAR>& queue, uint16_t* area, RW_VAR w, int32_t first,
                   const QByteArray& values, int count, bool failing) {
    int length = 0;
    for (int i = 0; i < count; ++i) {
        w.count = 1;
        w.address = Wrap(static_cast<int64_t>(first) + i);
        w.data = QByteArray(1, i < values.size() ? values.at(i) : '\0');
        length = ModelQueueWrite(queue, w);
        if (failing) SetBitToUS(w.address, area, w.data, 1);
    }
    return length;
}

TEST(BoundedBitWrites, ManyBits_QueueImageAndResultAsBitByBit) {
    static const int kCounts[] = {1, 5, 100, 1023, 1024, 1025, 3000, 20000};
    Draw draw(7u);
    static std::vector<uint16_t> modelArea(kAreaElements);
    for (int run = 0; run < 60; ++run) {
        WireFreshDriver(g_info, 32);
        const bool failing = draw.below(2) == 0;
        setCommError(failing);
        // A queue already holding writes, some of them bits the write will
        // touch, some of them twice (a write queued in mode 1 is appended as
        // it is).
        const int prefill = static_cast<int>(draw.below(1100));
        for (int i = 0; i < prefill; ++i) {
            RW_VAR e;
            e.station = 1;
            e.dataType = draw.below(3) == 0 ? ABCL_WORD_B : ABCL_BIT_A;
            e.count = draw.below(5) == 0 ? 2 : 1;
            e.address = static_cast<int32_t>(3 * 4096 + draw.below(4000));
            e.data = QByteArray(1, '\x07');
            AddListWriteVar(&e, draw.below(4) == 0 ? 1 : 0);
        }
        QList<RW_VAR> model = PLC_driver.writeList;
        std::copy(PLC_driver.areaA, PLC_driver.areaA + kAreaElements, modelArea.begin());

        const int count = draw.pick(kCounts);
        QByteArray values(static_cast<int>(draw.below(static_cast<uint32_t>(count) + 2)), '\0');
        for (int i = 0; i < values.size(); ++i) values[i] = static_cast<char>(draw.below(3));
        const QString text = QStringLiteral("3:%1/%2").arg(draw.below(256)).arg(draw.below(16));
        const int first = StringAddressToInt(ABCL_BIT_A, text);

        const int expected = ModelBitWrites(model, modelArea.data(), HostWrite(text, ABCL_BIT_A),
                                            first, values, count, failing);
        const int length = SetRegisterData(QString(), ABCL_BIT_A, text, 1, &values, count, 4, 0);

        ASSERT_EQ(length, expected) << "run " << run;
        ExpectQueueAndArea(model, modelArea, PLC_driver.areaA, run);
    }
}

// Every piece of a word write queued on its own, and mirrored into the
// (model) area while the link is failing.
int ModelWordWrites(QList<RW_VAR>& queue, uint16_t* area, RW_VAR w, int32_t first,
                    const QByteArray& values, int count, int maxCount, bool failing) {
    const PieceSplit split = SplitIntoPieces(count, maxCount);
    int length = 0;
    for (int k = 0; k < split.pieces; ++k) {
        const int64_t offset = static_cast<int64_t>(k) * maxCount;
        w.address = Wrap(first + offset);
        w.count = (k == split.pieces - 1) ? split.lastCount : maxCount;
        QByteArray data(2 * w.count, '\0');
        for (int b = 0; b < data.size(); ++b) {
            const int64_t from = 2 * offset + b;
            if (from >= 0 && from < values.size()) data[b] = values.at(static_cast<int>(from));
        }
        w.data = data;
        length = ModelQueueWrite(queue, w);
        if (failing) SetWordToUS(w.address, area, w.data, w.count);
    }
    return length;
}

TEST(BoundedWordWrites, ManyPieces_QueueImageAndResultAsPieceByPiece) {
    static const int kCounts[] = {1, 40, 1000, 1025, 5000, 70000};
    static const int kMaxCounts[] = {1, 2, 3, 32, 65536, 1 << 30};
    Draw draw(8u);
    static std::vector<uint16_t> modelArea(kAreaElements);
    for (int run = 0; run < 40; ++run) {
        const int maxCount = draw.pick(kMaxCounts);
        WireFreshDriver(g_info, maxCount);
        const bool failing = draw.below(2) == 0;
        setCommError(failing);
        const int prefill = static_cast<int>(draw.below(1100));
        for (int i = 0; i < prefill; ++i) {
            RW_VAR e;
            e.station = 1;
            e.dataType = ABCL_WORD_B;
            e.count = draw.below(3) == 0 ? 2 : maxCount;
            e.address = static_cast<int32_t>(7 * 256 + maxCount * draw.below(3000));
            e.data = QByteArray(2, '\x07');
            AddListWriteVar(&e, draw.below(4) == 0 ? 1 : 0);
        }
        QList<RW_VAR> model = PLC_driver.writeList;
        std::copy(PLC_driver.areaB, PLC_driver.areaB + kAreaElements, modelArea.begin());

        const int count = draw.pick(kCounts);
        QByteArray values(static_cast<int>(draw.below(2 * static_cast<uint32_t>(count) + 3)), '\0');
        for (int i = 0; i < values.size(); ++i) values[i] = static_cast<char>(draw.below(256));
        const QString text = QStringLiteral("7:%1").arg(draw.below(256));
        const int first = StringAddressToInt(ABCL_WORD_B, text);

        const int expected = ModelWordWrites(model, modelArea.data(), HostWrite(text, ABCL_WORD_B),
                                             first, values, count, maxCount, failing);
        const int length = SetRegisterData(QString(), ABCL_WORD_B, text, 1, &values, count, 4, 0);

        ASSERT_EQ(length, expected) << "run " << run;
        ExpectQueueAndArea(model, modelArea, PLC_driver.areaB, run);
    }
}

}  // namespace
