// The block checks taken in place against the way they are defined: undo the
// DLE doubling into a copy, then CalLRC over the covered bytes with a 16-bit
// length. Random byte strings rich in DLEs (runs of one to five, at the ends
// too), short and longer than a 16-bit length can count.
#include "Func_Check.h"
#include "df1_frame.h"
#include "protocol_constants.h"

#include <gtest/gtest.h>

#include <QtCore/QByteArray>

#include <cstdint>
#include <random>
#include <vector>

namespace {

// A request frame's check by definition: the whole frame through ETX
// undoubled, then the bytes from DST up to the byte before DLE ETX.
uint8_t RequestCheckByDefinition(const QByteArray& frame) {
    const QByteArray undoubled = UnstuffReplyBody(frame, 0, frame.size() - 1);
    constexpr int kLeadInAndTrailer = frame_offset::kDst + 2;
    if (undoubled.size() < kLeadInAndTrailer) return 0;
    const int lrc =
        CalLRC(reinterpret_cast<const unsigned char*>(undoubled.constData()) + frame_offset::kDst,
               static_cast<unsigned short>(undoubled.size() - kLeadInAndTrailer));
    return static_cast<uint8_t>(lrc & 0xFF);
}

// A reply body's check by definition: positions [first, last] undoubled, all
// of them summed.
uint8_t BodyCheckByDefinition(const QByteArray& reply, int first, int last) {
    const QByteArray body = UnstuffReplyBody(reply, first, last);
    const int lrc = CalLRC(reinterpret_cast<const unsigned char*>(body.constData()),
                           static_cast<unsigned short>(body.size()));
    return static_cast<uint8_t>(lrc & 0xFF);
}

class Bytes {
public:
    explicit Bytes(uint32_t seed) : rng_(seed) {}
    QByteArray next(int size) {
        QByteArray bytes;
        while (bytes.size() < size) {
            if (rng_() % 4 == 0) {
                bytes.append(QByteArray(static_cast<int>(1 + rng_() % 5), char(df1::kDle)));
            } else {
                bytes.append(static_cast<char>(rng_() & 0xFF));
            }
        }
        bytes.truncate(size);
        return bytes;
    }
    int below(int n) { return static_cast<int>(rng_() % static_cast<uint32_t>(n)); }

private:
    std::mt19937 rng_;
};

TEST(BlockCheckReading, RequestCheck_EqualsTheCheckOfTheUndoubledCopy) {
    Bytes draw(11u);
    for (int i = 0; i < 20000; ++i) {
        const QByteArray frame = draw.next(draw.below(120));
        ASSERT_EQ(RequestBlockCheck(frame), RequestCheckByDefinition(frame))
            << frame.toHex().toStdString();
    }
}

TEST(BlockCheckReading, BodyCheck_EqualsTheCheckOfTheUndoubledCopy) {
    Bytes draw(12u);
    for (int i = 0; i < 20000; ++i) {
        const QByteArray reply = draw.next(1 + draw.below(120));
        const int first = draw.below(reply.size());
        const int last = first + draw.below(reply.size() - first);
        ASSERT_EQ(UnstuffedBlockCheck(reinterpret_cast<const uint8_t*>(reply.constData()), first,
                                      last, 0, 0),
                  BodyCheckByDefinition(reply, first, last))
            << reply.toHex().toStdString() << " [" << first << ", " << last << "]";
    }
}

// Past 65,535 covered bytes the length wraps: only the bytes within the
// wrapped count are summed, in place as in the copy.
TEST(BlockCheckReading, LongerThanASixteenBitLength_SumsTheWrappedCount) {
    Bytes draw(13u);
    for (const int size : {65535, 65536, 65541, 65542, 65543, 70000, 131078, 140000}) {
        const QByteArray frame = draw.next(size);
        EXPECT_EQ(RequestBlockCheck(frame), RequestCheckByDefinition(frame)) << size;
        EXPECT_EQ(UnstuffedBlockCheck(reinterpret_cast<const uint8_t*>(frame.constData()), 0,
                                      frame.size() - 1, 0, 0),
                  BodyCheckByDefinition(frame, 0, frame.size() - 1))
            << size;
    }
}

}  // namespace
