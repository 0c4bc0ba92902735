// The DF1 request envelope: lead-in, header, the Multiple Service Packet to the
// Message Router, the tag path, DLE doubling, trailer and block check.
#include "df1_frame.h"

#include "Func_Check.h"
#include "ab_controllogix_compactlogix_p.h"
#include "protocol_constants.h"

#include <cstring>

void FrameWriter::store(int position, uint8_t byte) {
    if (position < 0) return;  // builders refuse layouts that would need this
    if (position >= frame_.size()) {
        const int old = frame_.size();
        frame_.resize(position + 1);
        std::memset(frame_.data() + old, 0, static_cast<size_t>(position + 1 - old));
    }
    frame_[position] = static_cast<char>(byte);
}

void FrameWriter::put(int offset, uint8_t byte) {
    store(offset + shift_, byte);
}

// The DLE test looks at the whole value: a name character past 0xFF whose low
// byte is DLE goes out once, undoubled.
void FrameWriter::putStuffed(int offset, int value) {
    store(offset + shift_, static_cast<uint8_t>(value & 0xFF));
    if (value == df1::kDle) {
        ++shift_;
        store(offset + shift_, df1::kDle);
    }
}

void FrameWriter::putZeros(int first, int end) {
    for (int offset = first; offset < end; ++offset) put(offset, 0x00);
}

QByteArray FrameWriter::finish(int etxOffset) {
    const int etx = etxOffset + shift_;
    if (etx < 1) return QByteArray();
    store(etx, df1::kDle);
    store(etx + 1, df1::kEtx);
    frame_.resize(etx + 2);  // a trailer placed early cuts what lies behind it
    frame_.append(static_cast<char>(RequestBlockCheck(frame_)));
    return frame_;
}

uint8_t RequestBlockCheck(const QByteArray& frameThroughEtx) {
    QByteArray copy;
    copy.reserve(frameThroughEtx.size());
    for (int i = 0; i < frameThroughEtx.size(); ++i) {
        const char byte = frameThroughEtx.at(i);
        copy.append(byte);
        if (static_cast<uint8_t>(byte) == df1::kDle && i + 1 < frameThroughEtx.size() &&
            static_cast<uint8_t>(frameThroughEtx.at(i + 1)) == df1::kDle)
            ++i;  // a doubled DLE counts once
    }
    // From DST up to the byte before DLE ETX: neither the lead-in nor the trailer.
    constexpr int kDleEtx = frame_offset::kEtxDleFromEnd - frame_offset::kBccFromEnd;
    constexpr int kLeadInAndTrailer = frame_offset::kDst + kDleEtx;
    if (copy.size() < kLeadInAndTrailer) return 0;
    const int lrc =
        CalLRC(reinterpret_cast<const unsigned char*>(copy.constData()) + frame_offset::kDst,
               static_cast<unsigned short>(copy.size() - kLeadInAndTrailer));
    return static_cast<uint8_t>(lrc & 0xFF);
}

namespace {

// Lead-in and DF1 header, up to the transaction number and the two zero bytes.
void WriteLeadInAndHeader(FrameWriter& w) {
    // Every request opens with DLE ACK, acknowledging the previous reply.
    w.put(frame_offset::kAckDle, df1::kDle);
    w.put(frame_offset::kAck, df1::kAck);
    w.put(frame_offset::kStxDle, df1::kDle);
    w.put(frame_offset::kStx, df1::kStx);
    w.put(frame_offset::kDst, 0x00);
    w.put(frame_offset::kSrc, 0x00);
    w.put(frame_offset::kCmd, df1::kCmdCip);
    w.put(frame_offset::kSts, 0x00);
    // The transaction byte goes out as it is, even when it is DLE: only the
    // first request after loading can carry that value.
    w.put(frame_offset::kTnsLow, static_cast<uint8_t>(PLC_driver.tns & 0xFF));
    w.put(frame_offset::kTnsHigh, 0x00);
    w.put(frame_offset::kZeroLow, 0x00);
    w.put(frame_offset::kZeroHigh, 0x00);
}

// The Multiple Service Packet to the Message Router, wrapping one service.
void WriteServicePacket(FrameWriter& w) {
    w.put(frame_offset::kPacketService, cip::kMultipleServicePacket);
    w.put(frame_offset::kPacketPathWords, cip::kMessageRouterPathWords);
    w.put(frame_offset::kClassSegment, cip::kLogicalClass8);
    w.put(frame_offset::kClass, cip::kClassMessageRouter);
    w.put(frame_offset::kInstanceSegment, cip::kLogicalInstance8);
    w.put(frame_offset::kInstance, cip::kMessageRouterInstance);
    w.put(frame_offset::kServiceCountLow, cip::kEmbeddedServiceCount);
    w.put(frame_offset::kServiceCountHigh, 0x00);
    w.put(frame_offset::kServiceOffsetLow, cip::kEmbeddedServiceOffset);
    w.put(frame_offset::kServiceOffsetHigh, 0x00);
}

}  // namespace

void WriteTagRequestHead(FrameWriter& w, uint8_t service, char letter, int nameHigh, int nameLow,
                         int element) {
    WriteLeadInAndHeader(w);
    WriteServicePacket(w);
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
