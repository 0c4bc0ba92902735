// The DF1 request envelope: lead-in, header, the Multiple Service Packet to the
// Message Router, the tag path, DLE doubling, trailer and block check.
#include "df1_frame.h"

#include "Func_Check.h"
#include "ab_controllogix_compactlogix_p.h"
#include "protocol_constants.h"

#include <algorithm>
#include <array>
#include <cstring>

void FrameWriter::reserve(int bytes) {
    if (bytes <= capacity_) return;
    // Grows geometrically: a long write frame is written one byte at a time.
    const int capacity = std::max(bytes, 2 * capacity_);
    heap_.resize(static_cast<size_t>(capacity));
    if (bytes_ == inline_) std::memcpy(heap_.data(), inline_, static_cast<size_t>(size_));
    bytes_ = heap_.data();
    capacity_ = capacity;
}

void FrameWriter::storeBeyondEnd(int position, uint8_t byte) {
    if (position < 0) return;  // builders refuse layouts that would need this
    reserve(position + 1);
    // Positions skipped over read 0.
    std::memset(bytes_ + size_, 0, static_cast<size_t>(position - size_));
    size_ = position + 1;
    bytes_[position] = byte;
}

uint8_t* FrameWriter::span(int position, int n) {
    if (position < 0) return nullptr;
    const int end = position + n;
    if (end > size_) {
        reserve(end);
        std::memset(bytes_ + size_, 0, static_cast<size_t>(end - size_));
        size_ = end;
    }
    return bytes_ + position;
}

void FrameWriter::putPlain(int offset, const uint8_t* bytes, int n) {
    uint8_t* to = span(offset + shift_, n);
    if (to) std::memcpy(to, bytes, static_cast<size_t>(n));
}

void FrameWriter::putZeros(int first, int end) {
    if (end <= first) return;
    uint8_t* to = span(first + shift_, end - first);
    if (to) std::memset(to, 0, static_cast<size_t>(end - first));
}

QByteArray FrameWriter::finish(int etxOffset) {
    const int etx = etxOffset + shift_;
    if (etx < 1) return QByteArray();
    store(etx, df1::kDle);
    store(etx + 1, df1::kEtx);
    size_ = etx + 2;  // a trailer placed early cuts what lies behind it
    // The block check sums a 16-bit count of bytes; the hardened build
    // refuses a longer frame rather than send a check of part of it.
    if (kHardened && UnstuffedLength(bytes_, frame_offset::kDst, etx - 1) > kLongestDf1Body)
        return QByteArray();
    QByteArray frame(size_ + 1, Qt::Uninitialized);
    std::memcpy(frame.data(), bytes_, static_cast<size_t>(size_));
    frame.data()[size_] = static_cast<char>(RequestBlockCheck(bytes_, size_));
    return frame;
}

uint8_t RequestBlockCheck(const uint8_t* frameThroughEtx, int size) {
    // From DST up to the byte before DLE ETX: neither the lead-in nor the trailer.
    constexpr int kDleEtx = frame_offset::kEtxDleFromEnd - frame_offset::kBccFromEnd;
    return UnstuffedBlockCheck(frameThroughEtx, 0, size - 1, frame_offset::kDst, kDleEtx);
}

uint8_t RequestBlockCheck(const QByteArray& frameThroughEtx) {
    return RequestBlockCheck(reinterpret_cast<const uint8_t*>(frameThroughEtx.constData()),
                             frameThroughEtx.size());
}

namespace {

// Lead-in, DF1 header and the Multiple Service Packet to the Message Router:
// the bytes every request starts with, the transaction number aside.
constexpr std::array<uint8_t, frame_offset::kService> RequestPrefix() {
    std::array<uint8_t, frame_offset::kService> b{};
    // Every request opens with DLE ACK, acknowledging the previous reply.
    b[frame_offset::kAckDle] = df1::kDle;
    b[frame_offset::kAck] = df1::kAck;
    b[frame_offset::kStxDle] = df1::kDle;
    b[frame_offset::kStx] = df1::kStx;
    b[frame_offset::kDst] = 0x00;
    b[frame_offset::kSrc] = 0x00;
    b[frame_offset::kCmd] = df1::kCmdCip;
    b[frame_offset::kSts] = 0x00;
    b[frame_offset::kTnsLow] = 0x00;  // put per request
    b[frame_offset::kTnsHigh] = 0x00;
    b[frame_offset::kZeroLow] = 0x00;
    b[frame_offset::kZeroHigh] = 0x00;
    // The Multiple Service Packet, wrapping one service.
    b[frame_offset::kPacketService] = cip::kMultipleServicePacket;
    b[frame_offset::kPacketPathWords] = cip::kMessageRouterPathWords;
    b[frame_offset::kClassSegment] = cip::kLogicalClass8;
    b[frame_offset::kClass] = cip::kClassMessageRouter;
    b[frame_offset::kInstanceSegment] = cip::kLogicalInstance8;
    b[frame_offset::kInstance] = cip::kMessageRouterInstance;
    b[frame_offset::kServiceCountLow] = cip::kEmbeddedServiceCount;
    b[frame_offset::kServiceCountHigh] = 0x00;
    b[frame_offset::kServiceOffsetLow] = cip::kEmbeddedServiceOffset;
    b[frame_offset::kServiceOffsetHigh] = 0x00;
    return b;
}
constexpr std::array<uint8_t, frame_offset::kService> kRequestPrefix = RequestPrefix();

}  // namespace

void WriteTagRequestHead(FrameWriter& w, uint8_t service, char letter, int nameHigh, int nameLow,
                         int element) {
    w.putPlain(0, kRequestPrefix.data(), static_cast<int>(kRequestPrefix.size()));
    // The transaction byte goes out as it is, even when it is DLE: only the
    // first request after loading can carry that value.
    w.put(frame_offset::kTnsLow, static_cast<uint8_t>(PLC_driver.tns & 0xFF));
    w.put(frame_offset::kService, service);
    w.put(frame_offset::kPathWords, cip::kEmbeddedPathWords);
    w.put(frame_offset::kSymbolSegment, cip::kAnsiExtendedSymbol);
    w.put(frame_offset::kSymbolLength, cip::kTagNameLength);
    w.put(frame_offset::kLetter, static_cast<uint8_t>(letter));
    w.put(frame_offset::kNameZero, kTagNameZero);
    w.putStuffed(frame_offset::kNameHigh, nameHigh);
    w.putStuffed(frame_offset::kNameLow, nameLow);
    w.put(frame_offset::kMemberSegment, cip::kMember16);
    // 0xFF only for negative addresses.
    w.put(frame_offset::kElementPad, static_cast<uint8_t>((element >> 8) & 0xFF));
    w.putStuffed(frame_offset::kElement, element & 0xFF);
}

char WordFileLetter(int dataType) {
    return (dataType == ABCL_BIT_A || dataType == ABCL_WORD_A) ? kLetterBitFile
                                                               : kLetterIntegerFile;
}

void WriteWordAddressedHead(FrameWriter& w, uint8_t service, char letter, int wordAddress) {
    // The tag is named by a letter, "00" and one file digit: N007, B003, F008.
    WriteTagRequestHead(w, service, letter, DigitalToASCII(0),
                        DigitalToASCII((wordAddress / kElementsPerFile) & 0xFF),
                        wordAddress % kElementsPerFile);
}

void QueueProtocol(const QByteArray& frame, int replyLen, int dataPos, int dataBytes,
                   const RW_VAR& var, bool rearmReplyCounters) {
    Protocol p;
    p.frame = frame;
    p.frameLen = frame.size();
    p.replyLen = replyLen;
    p.dataPos = dataPos;
    p.dataBytes = dataBytes;
    p.var = var;
    PLC_driver.protocolList.append(p);
    if (rearmReplyCounters) {
        // One good reply completes the request.
        ComInfo& s = settings();
        s.replyDone = 0;
        s.replyTotal = 1;
    }
}
