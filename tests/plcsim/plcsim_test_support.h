// Helpers for the simulator's tests: hex text to bytes and back, written the
// way protocol tables print frames, and small builders for requests.
#ifndef PLCSIM_TEST_SUPPORT_H
#define PLCSIM_TEST_SUPPORT_H

#include "peer/controller.h"
#include "peer/df1.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <random>
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

// The one transmission a controller answers a frame with, as it goes on the
// line; a test failure when there is not exactly one.
inline Bytes OnlyReply(peer::Controller& controller, const Bytes& frame) {
    const auto out = controller.receive(frame, 0);
    if (out.size() != 1) {
        ADD_FAILURE() << "expected one reply, got " << out.size();
        return {};
    }
    return out[0].bytes;
}

// The body of the first complete message in a frame, as the controller's
// receiver takes it; empty when there is none.
inline Bytes FirstBody(const Bytes& frame) {
    peer::Df1Receiver receiver;
    for (uint8_t b : frame) {
        if (auto event = receiver.push(b)) return event->body;
    }
    return {};
}

// n bytes of line noise rich in link symbols: each byte is DLE, STX or ETX
// with a chance of 1 in `spread` each, any value otherwise.
inline Bytes LinkNoise(std::mt19937& random, std::size_t n, unsigned spread) {
    static constexpr uint8_t kSymbols[] = {peer::df1::kDle, peer::df1::kStx, peer::df1::kEtx};
    Bytes noise(n);
    for (auto& b : noise) {
        const unsigned pick = random() % spread;
        b = pick < 3 ? kSymbols[pick] : static_cast<uint8_t>(random());
    }
    return noise;
}

// DF1 header of a request (DST 0, SRC 0, the CIP command, STS 0, TNS) and
// the two zero bytes that precede the CIP request.
inline Bytes Header(uint8_t tns) {
    return {0x00, 0x00, peer::df1::kCmdCip, peer::df1::kStsSuccess, tns, 0x00, 0x00, 0x00};
}

// A Multiple Service Packet to the Message Router (a 2-word path) with one
// embedded request at offset 4.
inline Bytes Multiple(const Bytes& embedded) {
    using namespace peer::cip;
    const Bytes packet = {kMultipleServicePacket,
                          0x02,
                          kLogicalClass8,
                          kClassMessageRouter,
                          kLogicalInstance8,
                          0x01,
                          0x01,
                          0x00,
                          0x04,
                          0x00};
    return Concat(packet, embedded);
}

// An embedded request's service code and its 5-word path: a 4-character
// symbol and a 16-bit member segment.
inline Bytes TagService(uint8_t service, const std::string& name, uint16_t element) {
    Bytes out = {service, 0x05, peer::cip::kAnsiExtendedSymbol, 0x04};
    for (char c : name) out.push_back(static_cast<uint8_t>(c));
    out.push_back(peer::cip::kMember16);
    out.push_back(0x00);
    out.push_back(static_cast<uint8_t>(element & 0xFF));
    out.push_back(static_cast<uint8_t>(element >> 8));
    return out;
}

#endif
