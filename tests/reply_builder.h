// Test-side peer of the driver: replies framed the way a controller sends
// them, with the peer library's reading of the protocol (peer/df1.h), so the
// driver is checked against rules that share no code with it.
//
// A reply opens with DLE ACK DLE STX and closes with DLE ETX and the block
// check. A read reply carries its data from position 26 (nothing doubled
// before it); a write reply carries no data and is 27 bytes long.
#ifndef ABCL_TESTS_REPLY_BUILDER_H
#define ABCL_TESTS_REPLY_BUILDER_H

#include "ab_controllogix_compactlogix.h"

#include "peer/cip.h"
#include "peer/df1.h"

#include <QtCore/QByteArray>

#include <cstdint>
#include <cstring>
#include <optional>
#include <vector>

namespace replies {

constexpr uint8_t kDle = peer::df1::kDle;

inline std::vector<uint8_t> ToBytes(const QByteArray& bytes) {
    return std::vector<uint8_t>(bytes.begin(), bytes.end());
}

inline QByteArray ToQt(const std::vector<uint8_t>& bytes) {
    return QByteArray(reinterpret_cast<const char*>(bytes.data()), static_cast<int>(bytes.size()));
}

inline uint8_t BlockCheck(const QByteArray& body) {
    return peer::BlockCheck(ToBytes(body));
}

// The body with every DLE doubled, as it goes on the line.
inline QByteArray Stuffed(const QByteArray& body) {
    std::vector<uint8_t> out;
    for (char c : body) peer::AppendStuffed(&out, static_cast<uint8_t>(c));
    return ToQt(out);
}

// DLE ACK DLE STX, the body with every DLE doubled, DLE ETX, block check.
// Requests open with the same four bytes, so expected request frames are
// written with it too (their TNS, the only byte sent undoubled, is never DLE
// in those tests).
inline QByteArray Framed(const QByteArray& body) {
    return ToQt(peer::FrameMessage(ToBytes(body)));
}

// The block check a whole frame must carry: the one of its body as the peer
// reads it (DLE pairs counted once). A frame the peer cannot read has no
// body; its check is then the one of no bytes.
inline uint8_t BlockCheckOfFrame(const QByteArray& frame) {
    const auto body = peer::MessageBody(ToBytes(frame));
    return peer::BlockCheck(body ? *body : std::vector<uint8_t>());
}

// The envelope around bytes taken as they are (already stuffed, or on
// purpose not) and a block check chosen by the test.
inline QByteArray Envelope(const QByteArray& lineBody, uint8_t blockCheck) {
    return ToQt(peer::Envelope(ToBytes(lineBody), blockCheck));
}

// Un-stuffed reply body: DF1 header (DST, SRC, CMD, STS, TNS low, TNS high),
// two zero bytes, the Multiple Service Packet reply (service, reserved,
// status, extended size, one service, its offset 4), then the embedded reply
// header (service | reply flag, reserved, general status, extended size) at
// positions 20..23 of the framed reply, then `payload`.
inline QByteArray ReplyBody(uint8_t tns, uint8_t embeddedService, const QByteArray& payload,
                            uint8_t generalStatus = peer::cip::kSuccess) {
    using peer::cip::kReplyFlag;
    const uint8_t head[] = {0x00,
                            0x00,
                            peer::df1::kCmdCip | peer::df1::kReplyFlag,
                            peer::df1::kStsSuccess,
                            tns,
                            0x00,
                            0x00,
                            0x00,
                            peer::cip::kMultipleServicePacket | kReplyFlag,
                            0x00,
                            peer::cip::kSuccess,
                            0x00,
                            0x01,
                            0x00,
                            0x04,
                            0x00,
                            static_cast<uint8_t>(embeddedService | kReplyFlag),
                            0x00,
                            generalStatus,
                            0x00};
    QByteArray body(reinterpret_cast<const char*>(head), sizeof head);
    body.append(payload);
    return body;
}

// Acknowledgement of a write: 27 bytes when nothing in it is doubled.
inline QByteArray WriteReply(uint8_t tns, uint8_t service = peer::cip::kWriteTagFragmented) {
    return Framed(ReplyBody(tns, service, QByteArray()));
}

inline void AppendLe16(QByteArray& out, uint16_t v) {
    out.append(static_cast<char>(v & 0xFF));
    out.append(static_cast<char>(v >> 8));
}

inline void AppendLe32(QByteArray& out, uint32_t v) {
    for (int i = 0; i < 4; ++i) out.append(static_cast<char>((v >> (8 * i)) & 0xFF));
}

inline QByteArray LeWords(const std::vector<uint16_t>& words) {
    QByteArray out;
    for (uint16_t w : words) AppendLe16(out, w);
    return out;
}

inline QByteArray LeValues(const std::vector<uint32_t>& values) {
    QByteArray out;
    for (uint32_t v : values) AppendLe32(out, v);
    return out;
}

// Reply to a 16-bit read: data type INT, then the words low byte first, the
// first data byte at position 26.
inline QByteArray WordReadReply(uint8_t tns, const std::vector<uint16_t>& words) {
    QByteArray payload;
    AppendLe16(payload, peer::cip::kTypeInt);
    payload.append(LeWords(words));
    return Framed(ReplyBody(tns, peer::cip::kReadTagFragmented, payload));
}

// Reply to a 32-bit read: data type REAL, then the raw values.
inline QByteArray RealReadReply(uint8_t tns, const std::vector<uint32_t>& values) {
    QByteArray payload;
    AppendLe16(payload, peer::cip::kTypeReal);
    payload.append(LeValues(values));
    return Framed(ReplyBody(tns, peer::cip::kReadTagFragmented, payload));
}

inline uint8_t At(const QByteArray& bytes, int i) {
    return i >= 0 && i < bytes.size() ? static_cast<uint8_t>(bytes[i]) : 0;
}

// The transaction byte of a request frame (position 8, never doubled).
inline uint8_t RequestTns(const Protocol& p) {
    return At(p.frame, 8);
}

inline float BitsToFloat(uint32_t bits) {
    float f;
    std::memcpy(&f, &bits, sizeof f);
    return f;
}

inline uint32_t FloatBits(float f) {
    uint32_t bits;
    std::memcpy(&bits, &f, sizeof bits);
    return bits;
}

// A request frame as the controller reads it: the lead-in (DLE ACK DLE STX)
// and the trailer (DLE ETX, block check) as they are, and of every DLE pair
// between them one byte kept. The driver leaves its TNS undoubled, so a frame
// with a TNS of DLE does not read back through the peer; this reading keeps
// a lone DLE as itself.
inline QByteArray UndoubledRequest(const QByteArray& frame) {
    constexpr int kLeadIn = peer::df1::kLeadInSize;
    constexpr int kTrailer = peer::df1::kTrailerSize;
    const int bodyEnd = frame.size() - kTrailer;
    QByteArray out = frame.left(kLeadIn);
    for (int i = kLeadIn; i < bodyEnd; ++i) {
        out.append(frame[i]);
        if (At(frame, i) == kDle && i + 1 < bodyEnd && At(frame, i + 1) == kDle) ++i;
    }
    out.append(frame.mid(bodyEnd > kLeadIn ? bodyEnd : kLeadIn));
    return out;
}

// The one tag service a request frame carries, as the peer reads it: the
// frame's body after the DF1 header and the two bytes before the CIP
// request. Nothing when the frame or its request cannot be read.
inline std::optional<peer::TagRequest> DecodeRequest(const QByteArray& frame) {
    constexpr std::size_t kCipStart = peer::df1::kCipStart;
    const auto body = peer::MessageBody(ToBytes(frame));
    if (!body || body->size() <= kCipStart) return std::nullopt;
    const peer::CipMessage message =
        peer::DecodeCipMessage(body->data() + kCipStart, body->size() - kCipStart);
    if (!message.status.ok() || message.requests.size() != 1) return std::nullopt;
    return message.requests.front();
}

}  // namespace replies

#endif
