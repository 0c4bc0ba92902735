// Test-side peer of the driver: frames DF1 replies the way a controller sends
// them, and a small controller model that decodes the driver's request frames
// and answers them from its own memory.
//
// Written from the frame rules alone, independently of the driver's code:
//   - a reply opens with DLE ACK DLE STX (10 06 10 02) and closes with
//     DLE ETX (10 03) and the block check character;
//   - every body byte 0x10 is sent twice;
//   - the block check is the two's complement of the low byte of the sum of
//     the un-stuffed body, from the first header byte (position 4) to the byte
//     before DLE ETX; it is sent as it is, never doubled.
// A read reply carries its data from position 26 (nothing doubled before it);
// a write reply carries no data and is 27 bytes long.
#ifndef ABCL_TESTS_REPLY_BUILDER_H
#define ABCL_TESTS_REPLY_BUILDER_H

#include "ab_controllogix_compactlogix.h"

#include <QtCore/QByteArray>

#include <cstdint>
#include <cstring>
#include <map>
#include <utility>
#include <vector>

namespace replies {

constexpr uint8_t kDle = 0x10;

// Sum of the bytes, two's complement of its low byte.
inline uint8_t BlockCheck(const QByteArray& body) {
    unsigned sum = 0;
    for (char c : body) sum += static_cast<uint8_t>(c);
    return static_cast<uint8_t>((0x100 - (sum & 0xFF)) & 0xFF);
}

// 10 06 10 02, the body with every 0x10 doubled, 10 03, block check.
// Requests open with the same four bytes, so expected request frames are
// written with it too (their TNS, the only byte sent undoubled, is never 0x10
// in those tests).
inline QByteArray Framed(const QByteArray& body) {
    QByteArray out;
    out.append('\x10').append('\x06').append('\x10').append('\x02');
    for (char c : body) {
        out.append(c);
        if (static_cast<uint8_t>(c) == kDle) out.append(c);
    }
    out.append('\x10').append('\x03');
    out.append(static_cast<char>(BlockCheck(body)));
    return out;
}

// Un-stuffed reply body: DF1 header (DST, SRC, CMD 0x4B, STS, TNS low, TNS
// high), two zero bytes, the Multiple Service Packet reply (0x8A, reserved,
// status, extended size, one service, its offset 4), then the embedded reply
// header (service | 0x80, reserved, general status, extended size) at
// positions 20..23 of the framed reply, then `payload`.
inline QByteArray ReplyBody(uint8_t tns, uint8_t embeddedService, const QByteArray& payload,
                            uint8_t generalStatus = 0x00) {
    QByteArray body;
    const uint8_t head[] = {0x00,
                            0x00,
                            0x4B,
                            0x00,
                            tns,
                            0x00,
                            0x00,
                            0x00,
                            0x8A,
                            0x00,
                            0x00,
                            0x00,
                            0x01,
                            0x00,
                            0x04,
                            0x00,
                            static_cast<uint8_t>(embeddedService | 0x80),
                            0x00,
                            generalStatus,
                            0x00};
    body.append(reinterpret_cast<const char*>(head), sizeof head);
    body.append(payload);
    return body;
}

// Acknowledgement of a write: 27 bytes when nothing in it is doubled.
inline QByteArray WriteReply(uint8_t tns, uint8_t service = 0x53) {
    return Framed(ReplyBody(tns, service, QByteArray()));
}

inline void AppendLe16(QByteArray& out, uint16_t v) {
    out.append(static_cast<char>(v & 0xFF));
    out.append(static_cast<char>(v >> 8));
}

inline void AppendLe32(QByteArray& out, uint32_t v) {
    for (int i = 0; i < 4; ++i) out.append(static_cast<char>((v >> (8 * i)) & 0xFF));
}

// Reply to a 16-bit read: data type INT (C3 00), then the words low byte first,
// the first data byte at position 26.
inline QByteArray WordReadReply(uint8_t tns, const std::vector<uint16_t>& words) {
    QByteArray payload;
    payload.append('\xC3').append('\x00');
    for (uint16_t w : words) AppendLe16(payload, w);
    return Framed(ReplyBody(tns, 0x52, payload));
}

// Reply to a 32-bit read: data type REAL (CA 00), then the raw values.
inline QByteArray RealReadReply(uint8_t tns, const std::vector<uint32_t>& values) {
    QByteArray payload;
    payload.append('\xCA').append('\x00');
    for (uint32_t v : values) AppendLe32(payload, v);
    return Framed(ReplyBody(tns, 0x52, payload));
}

// A request frame with its doubled DLE bytes counted once, from the first byte
// up to and including ETX (the block check is left off).
inline QByteArray UnstuffRequest(const QByteArray& frame) {
    QByteArray out;
    const int end = frame.size() - 1;  // position of the block check
    for (int i = 0; i < end; ++i) {
        out.append(frame[i]);
        if (static_cast<uint8_t>(frame[i]) == kDle && i + 1 < end &&
            static_cast<uint8_t>(frame[i + 1]) == kDle)
            ++i;
    }
    return out;
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

// What a request frame asks for, read from its un-stuffed bytes.
struct DecodedRequest {
    bool valid = false;
    uint8_t tns = 0;
    uint8_t service = 0;  // 0x52 read, 0x53 write, 0x4E read-modify-write
    char letter = 0;      // 'B', 'N' or 'F'
    int file = 0;
    int element = 0;
    int count = 0;         // elements read or written
    uint8_t dataType = 0;  // 0xC3 or 0xCA for writes
    uint16_t orMask = 0;
    uint16_t andMask = 0xFFFF;
    QByteArray values;  // write value bytes
};

inline int HexDigitValue(uint8_t c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'A' && c <= 'Z') return c - 'A' + 10;
    return 0;
}

inline DecodedRequest DecodeRequest(const QByteArray& frame) {
    DecodedRequest r;
    const QByteArray u = UnstuffRequest(frame);
    if (u.size() < 44 || At(u, 0) != 0x10 || At(u, 1) != 0x06 || At(u, 2) != 0x10 ||
        At(u, 3) != 0x02 || At(u, u.size() - 2) != 0x10 || At(u, u.size() - 1) != 0x03)
        return r;
    r.tns = At(u, 8);
    r.service = At(u, 22);
    r.letter = static_cast<char>(At(u, 26));
    r.file = HexDigitValue(At(u, 28)) * 256 + HexDigitValue(At(u, 29));
    r.element = At(u, 32);
    if (r.service == 0x52) {
        r.count = At(u, 33) * 256 + At(u, 34);
    } else if (r.service == 0x53) {
        r.dataType = At(u, 34);
        r.count = At(u, 35) * 256 + At(u, 36);
        const int width = r.dataType == 0xCA ? 4 : 2;
        r.values = u.mid(42, r.count * width);
    } else if (r.service == 0x4E) {
        r.count = 1;
        r.orMask = static_cast<uint16_t>(At(u, 36) | (At(u, 37) << 8));
        r.andMask = static_cast<uint16_t>(At(u, 38) | (At(u, 39) << 8));
    } else {
        return r;
    }
    r.valid = true;
    return r;
}

// A controller with 'B' and 'N' files of 16-bit words and 'F' files of 32-bit
// values. It answers each request frame with the reply a controller would
// send, or with nothing while it is silent.
class ControllerModel {
public:
    std::vector<uint16_t>& words(char letter, int file) {
        auto& v = words_[{letter, file}];
        if (v.empty()) v.assign(256, 0);
        return v;
    }
    std::vector<uint32_t>& reals(int file) {
        auto& v = reals_[file];
        if (v.empty()) v.assign(256, 0);
        return v;
    }

    bool silent = false;
    std::vector<DecodedRequest> log;  // every request seen, in order

    // The reply bytes for a request frame; empty while silent or when the
    // frame cannot be decoded.
    QByteArray Answer(const QByteArray& frame) {
        const DecodedRequest r = DecodeRequest(frame);
        log.push_back(r);
        if (silent || !r.valid) return QByteArray();
        if (r.service == 0x52) {
            if (r.letter == 'F') {
                std::vector<uint32_t> out;
                auto& mem = reals(r.file);
                for (int i = 0; i < r.count; ++i) out.push_back(mem[(r.element + i) & 0xFF]);
                return RealReadReply(r.tns, out);
            }
            std::vector<uint16_t> out;
            auto& mem = words(r.letter, r.file);
            for (int i = 0; i < r.count; ++i) out.push_back(mem[(r.element + i) & 0xFF]);
            return WordReadReply(r.tns, out);
        }
        if (r.service == 0x53) {
            if (r.dataType == 0xCA) {
                auto& mem = reals(r.file);
                for (int i = 0; i < r.count && 4 * i + 3 < r.values.size(); ++i) {
                    uint32_t v = 0;
                    for (int b = 0; b < 4; ++b) v |= uint32_t(At(r.values, 4 * i + b)) << (8 * b);
                    mem[(r.element + i) & 0xFF] = v;
                }
            } else {
                auto& mem = words(r.letter, r.file);
                for (int i = 0; i < r.count && 2 * i + 1 < r.values.size(); ++i)
                    mem[(r.element + i) & 0xFF] =
                        static_cast<uint16_t>(At(r.values, 2 * i) | (At(r.values, 2 * i + 1) << 8));
            }
            return WriteReply(r.tns, 0x53);
        }
        // Read-modify-write of one word.
        auto& mem = words(r.letter, r.file);
        uint16_t& w = mem[r.element & 0xFF];
        w = static_cast<uint16_t>((w & r.andMask) | r.orMask);
        return WriteReply(r.tns, 0x4E);
    }

private:
    std::map<std::pair<char, int>, std::vector<uint16_t>> words_;
    std::map<int, std::vector<uint32_t>> reals_;
};

}  // namespace replies

#endif
