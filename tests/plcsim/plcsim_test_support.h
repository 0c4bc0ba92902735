// Helpers for the simulator's tests: hex text to bytes and back, written the
// way protocol tables print frames, and small builders for requests.
#ifndef PLCSIM_TEST_SUPPORT_H
#define PLCSIM_TEST_SUPPORT_H

#include <cstdint>
#include <string>
#include <vector>

using Bytes = std::vector<uint8_t>;

// "10 06 10 02" -> bytes. Blanks are ignored.
inline Bytes Hex(const std::string& text) {
    Bytes out;
    int high = -1;
    for (char c : text) {
        int v;
        if (c >= '0' && c <= '9')
            v = c - '0';
        else if (c >= 'A' && c <= 'F')
            v = c - 'A' + 10;
        else if (c >= 'a' && c <= 'f')
            v = c - 'a' + 10;
        else
            continue;
        if (high < 0) {
            high = v;
        } else {
            out.push_back(static_cast<uint8_t>(high * 16 + v));
            high = -1;
        }
    }
    return out;
}

// bytes -> "10 06 10 02", upper case, for readable failure messages.
inline std::string ToHex(const Bytes& bytes) {
    static const char digits[] = "0123456789ABCDEF";
    std::string out;
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        if (i) out += ' ';
        out += digits[bytes[i] >> 4];
        out += digits[bytes[i] & 15];
    }
    return out;
}

inline Bytes Concat(Bytes a, const Bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// A request frame as a requester sends it: DLE ACK DLE STX, the body with
// every DLE doubled, DLE ETX, then the two's complement of the body's sum.
// Written out here rather than borrowed from the library under test.
inline Bytes RequestFrame(const Bytes& body) {
    Bytes out = {0x10, 0x06, 0x10, 0x02};
    unsigned sum = 0;
    for (uint8_t b : body) {
        out.push_back(b);
        if (b == 0x10) out.push_back(b);
        sum += b;
    }
    out.push_back(0x10);
    out.push_back(0x03);
    out.push_back(static_cast<uint8_t>((0x100 - (sum & 0xFF)) & 0xFF));
    return out;
}

// DF1 header of a request (DST 0, SRC 0, CMD 0x0B, STS 0, TNS) and the two
// zero bytes that precede the CIP request.
inline Bytes Header(uint8_t tns) {
    return {0x00, 0x00, 0x0B, 0x00, tns, 0x00, 0x00, 0x00};
}

// A Multiple Service Packet to the Message Router with one embedded request.
inline Bytes Multiple(const Bytes& embedded) {
    return Concat(Hex("0A 02 20 02 24 01 01 00 04 00"), embedded);
}

// An embedded request's service code and its 5-word path: symbol and
// 16-bit member segment.
inline Bytes TagService(uint8_t service, const std::string& name, uint16_t element) {
    Bytes out = {service, 0x05, 0x91, 0x04};
    for (char c : name) out.push_back(static_cast<uint8_t>(c));
    out.push_back(0x29);
    out.push_back(0x00);
    out.push_back(static_cast<uint8_t>(element & 0xFF));
    out.push_back(static_cast<uint8_t>(element >> 8));
    return out;
}

#endif
