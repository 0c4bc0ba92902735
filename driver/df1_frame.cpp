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

void FrameWriter::put(int offset, uint8_t byte) { store(offset + shift_, byte); }

// The DLE test looks at the whole value: a name character past 0xFF whose low
// byte is DLE goes out once, undoubled.
void FrameWriter::putStuffed(int offset, int value) {
    store(offset + shift_, static_cast<uint8_t>(value & 0xFF));
    if (value == df1::DLE) {
        ++shift_;
        store(offset + shift_, df1::DLE);
    }
}

QByteArray FrameWriter::finish(int etxOffset) {
    const int etx = etxOffset + shift_;
    if (etx < 1) return QByteArray();
    store(etx, df1::DLE);
    store(etx + 1, df1::ETX);
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
        if (static_cast<uint8_t>(byte) == df1::DLE && i + 1 < frameThroughEtx.size() &&
            static_cast<uint8_t>(frameThroughEtx.at(i + 1)) == df1::DLE)
            ++i;  // a doubled DLE counts once
    }
    // From DST up to the byte before DLE ETX: neither the lead-in nor the trailer.
    constexpr int kLeadIn = 4;
    constexpr int kLeadInAndTrailer = 6;
    if (copy.size() < kLeadInAndTrailer) return 0;
    const int lrc = CalLRC(reinterpret_cast<const unsigned char*>(copy.constData()) + kLeadIn,
                           static_cast<unsigned short>(copy.size() - kLeadInAndTrailer));
    return static_cast<uint8_t>(lrc & 0xFF);
}

void WriteTagRequestHead(FrameWriter& w, uint8_t service, char letter, int nameHigh,
                         int nameLow, int element) {
    // Every request opens with DLE ACK, acknowledging the previous reply.
    w.put(0, df1::DLE);
    w.put(1, df1::ACK);
    w.put(2, df1::DLE);
    w.put(3, df1::STX);
    w.put(4, 0x00);  // DST
    w.put(5, 0x00);  // SRC
    w.put(6, df1::CMD_CIP);
    w.put(7, 0x00);  // STS
    // The transaction byte goes out as it is, even when it is DLE: only the
    // first request after loading can carry that value.
    w.put(8, static_cast<uint8_t>(PLC_driver.tns & 0xFF));
    w.put(9, 0x00);
    w.put(10, 0x00);
    w.put(11, 0x00);
    w.put(12, cip::SERVICE_MULTIPLE_SERVICE_PACKET);
    w.put(13, 0x02);  // request path: 2 words
    w.put(14, cip::LOGICAL_CLASS_8);
    w.put(15, cip::CLASS_MESSAGE_ROUTER);
    w.put(16, cip::LOGICAL_INSTANCE_8);
    w.put(17, 0x01);
    w.put(18, 0x01);  // one embedded service
    w.put(19, 0x00);
    w.put(20, 0x04);  // at offset 4 from the service count
    w.put(21, 0x00);
    w.put(frame_offset::SERVICE, service);
    w.put(23, cip::EMBEDDED_PATH_WORDS);
    w.put(24, cip::SEGMENT_ANSI_SYMBOL);
    w.put(25, cip::TAG_NAME_LENGTH);
    w.put(frame_offset::LETTER, static_cast<uint8_t>(letter));
    w.put(27, '0');
    w.putStuffed(frame_offset::NAME_HIGH, nameHigh);
    w.putStuffed(frame_offset::NAME_LOW, nameLow);
    w.put(30, cip::SEGMENT_MEMBER_16);
    w.put(31, static_cast<uint8_t>((element >> 8) & 0xFF));  // 0xFF only for negative addresses
    w.putStuffed(frame_offset::ELEMENT, element & 0xFF);
}

char WordFileLetter(int dataType) {
    return (dataType == ABCL_BIT_A || dataType == ABCL_WORD_A) ? kLetterBitFile : kLetterIntegerFile;
}

void WriteWordAddressedHead(FrameWriter& w, uint8_t service, char letter, int wordAddress) {
    // The tag is named by a letter, "00" and one file digit: N007, B003, F008.
    WriteTagRequestHead(w, service, letter, DigitalToASCII(0),
                        DigitalToASCII((wordAddress / 256) & 0xFF), wordAddress % 256);
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
