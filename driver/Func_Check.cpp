// Reply validation, checksums and hex-digit conversions: pure functions that
// read the request on the wire and the reply counter but change nothing.
#include "Func_Check.h"

#include "ab_controllogix_compactlogix_p.h"
#include "protocol_constants.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr int kShortestReply = 9;  // lead-in, a byte of body, DLE ETX, BCC

uint8_t ByteAt(const QByteArray& bytes, int position) {
    return static_cast<uint8_t>(bytes.at(position));
}

// DLE ACK DLE STX at the front, DLE ETX before the last byte (the block check).
bool HasReplyEnvelope(const QByteArray& reply, int len) {
    return ByteAt(reply, frame_offset::kAckDle) == df1::kDle &&
           ByteAt(reply, frame_offset::kAck) == df1::kAck &&
           ByteAt(reply, frame_offset::kStxDle) == df1::kDle &&
           ByteAt(reply, frame_offset::kStx) == df1::kStx &&
           ByteAt(reply, len - frame_offset::kEtxFromEnd) == df1::kEtx &&
           ByteAt(reply, len - frame_offset::kEtxDleFromEnd) == df1::kDle;
}

}  // namespace

namespace {

// Sum of the bytes in [from, to).
uint32_t SumOf(const uint8_t* from, const uint8_t* to) {
    uint32_t sum = 0;
    for (; from < to; ++from) sum += *from;
    return sum;
}

// Sum and number of the kept bytes of [first, last]. Plain stretches are
// summed as they are; a run of k DLEs keeps (k + 1) / 2 of them, since its
// DLEs pair up from the front.
struct KeptBytes {
    uint32_t sum;
    int count;
};
KeptBytes SumKept(const uint8_t* bytes, int first, int last) {
    const uint8_t* p = bytes + first;
    const uint8_t* end = bytes + last + 1;
    KeptBytes kept{0, 0};
    int dropped = 0;
    while (p < end) {
        const void* found = std::memchr(p, df1::kDle, static_cast<size_t>(end - p));
        const uint8_t* dle = found ? static_cast<const uint8_t*>(found) : end;
        kept.sum += SumOf(p, dle);
        const uint8_t* runEnd = dle;
        while (runEnd < end && *runEnd == df1::kDle) ++runEnd;
        const int run = static_cast<int>(runEnd - dle);
        kept.sum += static_cast<uint32_t>((run + 1) / 2) * df1::kDle;
        dropped += run / 2;
        p = runEnd;
    }
    kept.count = (last - first + 1) - dropped;
    return kept;
}

// Sum of the first n kept bytes of [first, last].
uint32_t SumOfFirstKept(const uint8_t* bytes, int first, int last, int n) {
    uint32_t sum = 0;
    bool previousWasKeptDle = false;
    for (int i = first; i <= last && n > 0; ++i) {
        const uint8_t b = bytes[i];
        if (b == df1::kDle && previousWasKeptDle) {
            previousWasKeptDle = false;  // the second DLE of a pair
            continue;
        }
        previousWasKeptDle = b == df1::kDle;
        sum += b;
        --n;
    }
    return sum;
}

// Sum of the last n kept bytes of [first, last], found from the back: each
// run of DLEs met there is taken whole, so its pairing is known.
uint32_t SumOfLastKept(const uint8_t* bytes, int first, int last, int n) {
    uint32_t sum = 0;
    int i = last;
    while (n > 0 && i >= first) {
        if (bytes[i] != df1::kDle) {
            sum += bytes[i--];
            --n;
            continue;
        }
        int runStart = i;
        while (runStart > first && bytes[runStart - 1] == df1::kDle) --runStart;
        const int keptDles = std::min((i - runStart + 2) / 2, n);
        sum += static_cast<uint32_t>(keptDles) * df1::kDle;
        n -= keptDles;
        i = runStart - 1;
    }
    return sum;
}

}  // namespace

int UnstuffedLength(const uint8_t* bytes, int first, int last) {
    if (last < first) return 0;
    return SumKept(bytes, first, last).count;
}

uint8_t UnstuffedBlockCheck(const uint8_t* bytes, int first, int last, int skip, int drop) {
    if (last < first) return 0;
    const KeptBytes kept = SumKept(bytes, first, last);
    const int summed = kept.count - skip - drop;
    if (summed <= 0) return 0;
    uint32_t sum = 0;
    if (summed <= kLongestDf1Body) {
        sum = kept.sum - SumOfFirstKept(bytes, first, last, skip) -
              SumOfLastKept(bytes, first, last, drop);
    } else {
        // CalLRC counts its length in 16 bits: of a longer body only the
        // bytes within that count are summed.
        const int end = skip + (summed & kLongestDf1Body);
        ForEachUnstuffed(bytes, first, last, [&](int index, uint8_t b) {
            if (index >= skip && index < end) sum += b;
        });
    }
    // Two's complement of the byte sum.
    return static_cast<uint8_t>(0u - sum);
}

QByteArray UnstuffReplyBody(const QByteArray& reply, int first, int last) {
    QByteArray body;
    if (first < 0) first = 0;
    if (last >= reply.size()) last = reply.size() - 1;
    if (last < first) return body;
    body.reserve(last - first + 1);
    ForEachUnstuffed(reinterpret_cast<const uint8_t*>(reply.constData()), first, last,
                     [&body](int, uint8_t b) { body.append(static_cast<char>(b)); });
    return body;
}

int CheckGetData(const QByteArray& reply, int len) {
    const ComInfo& s = settings();
    if (s.replyDone != 0) return (len == 0 && s.replyDone == 1) ? 2 : 0;
    if (len < kShortestReply) return 0;
    // Positions are counted by `len`; a length beyond the bytes actually
    // received cannot describe a good reply, and must not be read past.
    if (len > reply.size()) return 0;
    if (!HasReplyEnvelope(reply, len)) return 0;
    // The hardened build fails a reply longer than any DF1 frame can be,
    // rather than check part of it.
    if (kHardened &&
        UnstuffedLength(reinterpret_cast<const uint8_t*>(reply.constData()), frame_offset::kDst,
                        len - frame_offset::kEtxDleFromEnd - 1) > kLongestDf1Body)
        return 0;

    // From DST up to the byte before DLE ETX.
    const uint8_t bcc =
        UnstuffedBlockCheck(reinterpret_cast<const uint8_t*>(reply.constData()), frame_offset::kDst,
                            len - frame_offset::kEtxDleFromEnd - 1, 0, 0);
    if (bcc != ByteAt(reply, len - frame_offset::kBccFromEnd)) return 0;

    if (PLC_driver.protocolList.isEmpty()) return 0;
    switch (PLC_driver.protocolList.first().var.aux2) {
        case 0: return 1;
        case 1: return 2;
        default: return 0;
    }
}

namespace {

uint16_t Le16(const QByteArray& bytes, int low) {
    return static_cast<uint16_t>(ByteAt(bytes, low) | (ByteAt(bytes, low + 1) << 8));
}

// The data type code a read of this record's type gets back.
int ExpectedReadType(int32_t dataType) {
    return dataType == ABCL_REAL ? cip::kTypeReal : cip::kTypeInt;
}

bool DfHeaderAnswers(const QByteArray& request, const QByteArray& body) {
    namespace rb = reply_body;
    namespace fo = frame_offset;
    return ByteAt(body, rb::kDst) == ByteAt(request, fo::kSrc) &&
           ByteAt(body, rb::kSrc) == ByteAt(request, fo::kDst) &&
           ByteAt(body, rb::kCmd) == (ByteAt(request, fo::kCmd) | df1::kReplyFlag) &&
           ByteAt(body, rb::kSts) == 0 &&
           ByteAt(body, rb::kTnsLow) == ByteAt(request, fo::kTnsLow) &&
           ByteAt(body, rb::kTnsHigh) == ByteAt(request, fo::kTnsHigh);
}

bool CipReplyAnswers(const QByteArray& request, const QByteArray& body) {
    namespace rb = reply_body;
    const uint8_t service = ByteAt(request, frame_offset::kService);
    return ByteAt(body, rb::kPacketService) == (cip::kMultipleServicePacket | cip::kReplyFlag) &&
           ByteAt(body, rb::kPacketStatus) == 0 && ByteAt(body, rb::kPacketExtendedWords) == 0 &&
           Le16(body, rb::kReplyCountLow) == cip::kEmbeddedServiceCount &&
           Le16(body, rb::kReplyOffsetLow) == cip::kEmbeddedReplyOffset &&
           ByteAt(body, rb::kService) == (service | cip::kReplyFlag) &&
           ByteAt(body, rb::kStatus) == 0 && ByteAt(body, rb::kExtendedWords) == 0;
}

}  // namespace

bool DirectReplyAnswers(const Protocol& p, const QByteArray& reply, int len, QByteArray* data) {
    namespace rb = reply_body;
    if (len < kShortestReply || len > reply.size()) return false;
    if (p.frame.size() <= frame_offset::kService) return false;
    const QByteArray body =
        UnstuffReplyBody(reply, frame_offset::kDst, len - frame_offset::kEtxDleFromEnd - 1);
    if (body.size() < rb::kNoDataLength) return false;
    if (!DfHeaderAnswers(p.frame, body) || !CipReplyAnswers(p.frame, body)) return false;

    if (ByteAt(p.frame, frame_offset::kService) != cip::kReadTagFragmented)
        return body.size() == rb::kNoDataLength;
    // A read: its type, then exactly the data bytes it asked for.
    if (p.dataBytes < 0 || body.size() != rb::kData + int64_t{p.dataBytes}) return false;
    if (Le16(body, rb::kTypeLow) != ExpectedReadType(p.var.dataType)) return false;
    if (data) *data = body.mid(rb::kData);
    return true;
}

int NotFixReturnCheck(const QByteArray& reply) {
    const int n = reply.size();
    if (n < kMinimumFirstReply) return 0;
    if (!HasReplyEnvelope(reply, n)) return 0;
    const int check = CheckGetData(reply, n);
    return (check == 1 || check == 2) ? 1 : 0;
}

// Two's complement of the byte sum; a sum whose low byte is 0 gives 256, which
// every caller reads through its low byte as 0.
int CalLRC(const unsigned char* bytes, unsigned short len) {
    if (len == 0 || !bytes) return 256;
    uint32_t sum = 0;
    for (unsigned i = 0; i < len; ++i) sum += bytes[i];
    return static_cast<int>((~sum) & 0xFF) + 1;
}

uint16_t CalSUM(const unsigned char* bytes, unsigned short len) {
    if (len == 0 || !bytes) return 0;
    uint32_t sum = 0;
    for (unsigned i = 0; i < len; ++i) sum += bytes[i];
    return static_cast<uint16_t>(sum);
}

// CRC-16/ARC: polynomial 0xA001 reflected, initial value 0, no final XOR.
uint16_t CalCRC(const unsigned char* bytes, unsigned short len) {
    if (len == 0 || !bytes) return 0;
    uint16_t crc = 0;
    for (unsigned i = 0; i < len; ++i) {
        crc ^= bytes[i];
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc & 1) ? static_cast<uint16_t>((crc >> 1) ^ 0xA001)
                            : static_cast<uint16_t>(crc >> 1);
    }
    return crc;
}

// The first byte is the starting value even for a length of 0 or 1.
uint16_t CalXOR(const unsigned char* bytes, unsigned short len) {
    if (!bytes) return 0;
    uint8_t x = bytes[0];
    for (unsigned i = 1; i < len; ++i) x ^= bytes[i];
    return x;
}

int DigitalToASCII(int value) {
    return value <= 9 ? value + 0x30 : value + 0x37;
}

// '0'..'9' and the six characters after them give 0..15, 'A'..'F' give 10..15;
// lowercase letters are not folded.
int ASCIIToDigital(int character) {
    if (character <= 0x2F) return 0;
    if (character <= 0x3F) return character - 0x30;
    if (character == 0x40) return 0;
    return character - 0x37;
}
