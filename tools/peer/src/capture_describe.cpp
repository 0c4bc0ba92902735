// One line about a captured packet, read with the peer's own decoders: the
// DF1 envelope and block check (df1.h), the CIP requests (cip.h) and the
// remote frames (remote_link.h). Only the CIP replies, which the controller
// writes but never reads, are read here.
#include "peer/capture.h"

#include "peer/cip.h"
#include "peer/df1.h"
#include "peer/remote_link.h"

#include <cstdio>
#include <cstring>

namespace peer {

namespace {

// Values and bytes shown before "..." cuts a line short.
constexpr std::size_t kShownValues = 8;
constexpr std::size_t kShownBytes = 16;
constexpr std::size_t kCipReplyHeaderSize = 4;  // service, reserved, status, extended size

std::string Hex2(uint8_t byte) {
    char text[3];
    std::snprintf(text, sizeof text, "%02X", byte);
    return text;
}

std::string Hex4(uint32_t word) {
    char text[5];
    std::snprintf(text, sizeof text, "%04X", word & 0xFFFFu);
    return text;
}

std::string Hex8(uint32_t value) {
    char text[9];
    std::snprintf(text, sizeof text, "%08X", value);
    return text;
}

std::string HexBytes(const uint8_t* bytes, std::size_t n) {
    std::string text;
    for (std::size_t i = 0; i < n && i < kShownBytes; ++i) text += (i ? " " : "") + Hex2(bytes[i]);
    if (n > kShownBytes) text += " ...";
    return text;
}

const char* ServiceName(uint8_t service) {
    switch (service & ~cip::kReplyFlag) {
        case cip::kMultipleServicePacket: return "Multiple Service Packet";
        case cip::kReadTag: return "Read Tag";
        case cip::kWriteTag: return "Write Tag";
        case cip::kReadModifyWriteTag: return "Read-Modify-Write Tag";
        case cip::kReadTagFragmented: return "Read Tag Fragmented";
        case cip::kWriteTagFragmented: return "Write Tag Fragmented";
        default: return nullptr;
    }
}

std::string ServiceText(uint8_t service) {
    const char* name = ServiceName(service);
    return name ? name : "service " + Hex2(service);
}

// "INT 1 -2 3", "REAL 1.5 2", or the type's code and the bytes.
std::string ValuesText(uint16_t type, const uint8_t* data, std::size_t n) {
    std::string text;
    std::size_t size = 0;
    if (type == cip::kTypeInt) {
        text = "INT";
        size = 2;
    } else if (type == cip::kTypeReal) {
        text = "REAL";
        size = 4;
    } else {
        return "type " + Hex4(type) + " " + HexBytes(data, n);
    }
    std::size_t i = 0;
    for (; i + size <= n && i / size < kShownValues; i += size) {
        char value[32];
        if (size == 2) {
            std::snprintf(value, sizeof value, " %d", static_cast<int16_t>(Le16(data + i)));
        } else {
            const uint32_t bits =
                Le16(data + i) | (static_cast<uint32_t>(Le16(data + i + 2)) << 16);
            float real;
            std::memcpy(&real, &bits, sizeof real);
            std::snprintf(value, sizeof value, " %g", static_cast<double>(real));
        }
        text += value;
    }
    if (i + size <= n) text += " ... (" + std::to_string(n / size) + " values)";
    return text;
}

std::string TagRequestText(const TagRequest& request) {
    std::string text = ServiceText(request.service);
    if (!request.status.ok() && request.path.symbol.empty())
        return text + " (not decodable: status " + Hex2(request.status.general) + ")";
    text += " " + request.path.symbol + "[" + std::to_string(request.path.element) + "]";
    switch (request.service) {
        case cip::kReadTag:
        case cip::kReadTagFragmented: text += " x" + std::to_string(request.count); break;
        case cip::kWriteTag:
        case cip::kWriteTagFragmented:
            text += " x" + std::to_string(request.count) + " = " +
                    ValuesText(request.dataType, request.values.data(), request.values.size());
            break;
        case cip::kReadModifyWriteTag:
            text += " OR " + Hex4(request.orMask) + " AND " + Hex4(request.andMask);
            break;
        default: break;
    }
    if (request.byteOffset) text += " offset " + std::to_string(request.byteOffset);
    if (!request.status.ok()) text += " (status " + Hex2(request.status.general) + ")";
    return text;
}

std::string CipRequestText(const uint8_t* cip, std::size_t n) {
    const CipMessage message = DecodeCipMessage(cip, n);
    std::string text;
    if (message.multiple) text = "Multiple Service Packet: ";
    if (!message.status.ok())
        return text + ServiceText(message.service) + " (not decodable: status " +
               Hex2(message.status.general) + ")";
    for (std::size_t i = 0; i < message.requests.size(); ++i)
        text += (i ? "; " : "") + TagRequestText(message.requests[i]);
    return text;
}

// One tag service's reply: service, reserved, general status, extended size
// in words, the extended words, then a read's data type and data.
std::string TagReplyText(const uint8_t* reply, std::size_t n) {
    if (n < kCipReplyHeaderSize) return "CIP reply of " + std::to_string(n) + " bytes";
    std::string text = ServiceText(reply[0]) + " reply status " + Hex2(reply[2]);
    const std::size_t extended = 2u * reply[3];
    if (extended >= 2 && n >= kCipReplyHeaderSize + 2)
        text += " extended " + Hex4(Le16(reply + kCipReplyHeaderSize));
    const std::size_t data = kCipReplyHeaderSize + extended;
    const uint8_t service = reply[0] & ~cip::kReplyFlag;
    const bool read = service == cip::kReadTag || service == cip::kReadTagFragmented;
    if (read && n >= data + 2)
        text += " " + ValuesText(Le16(reply + data), reply + data + 2, n - data - 2);
    return text;
}

std::string CipReplyText(const uint8_t* reply, std::size_t n) {
    constexpr uint8_t kMultipleReply = cip::kMultipleServicePacket | cip::kReplyFlag;
    if (n < kCipReplyHeaderSize || reply[0] != kMultipleReply) return TagReplyText(reply, n);
    std::string text = "Multiple Service Packet reply status " + Hex2(reply[2]);
    const std::size_t table = kCipReplyHeaderSize + 2u * reply[3];
    if (n < table + 2) return text;
    const std::size_t count = Le16(reply + table);
    text += ":";
    for (std::size_t i = 0; i < count; ++i) {
        if (table + 2 + 2 * i + 2 > n) break;
        const std::size_t start = table + Le16(reply + table + 2 + 2 * i);
        const std::size_t end = i + 1 < count && table + 2 + 2 * i + 4 <= n
                                    ? table + Le16(reply + table + 4 + 2 * i)
                                    : n;
        if (start >= end || end > n) break;
        text += (i ? "; " : " ") + TagReplyText(reply + start, end - start);
    }
    return text;
}

// A remote request's reply in the DF1 envelope: DF1-like header, then a
// read's data or a write's acknowledgement.
std::string RemoteReplyText(const std::vector<uint8_t>& body) {
    const uint8_t* data = body.data() + df1::kHeaderSize;
    const std::size_t n = body.size() - df1::kHeaderSize;
    if (body[df1::kHeaderCmd] == remote::kCmdReadReply)
        return "remote read reply: " + HexBytes(data, n);
    if (n == 1 && data[0] == remote::kWriteDone) return "remote write reply: written";
    if (n == 1 && data[0] == remote::kWriteRefused) return "remote write reply: refused";
    return "remote write reply: " + HexBytes(data, n);
}

std::string Df1HeaderText(const std::vector<uint8_t>& body) {
    const uint32_t tns = Le16(body.data() + df1::kHeaderTnsLow);
    return "DST " + Hex2(body[df1::kHeaderDst]) + " SRC " + Hex2(body[df1::kHeaderSrc]) + " CMD " +
           Hex2(body[df1::kHeaderCmd]) + " STS " + Hex2(body[df1::kHeaderSts]) + " TNS " +
           Hex4(tns);
}

std::string MessageText(const std::vector<uint8_t>& body) {
    if (body.size() < static_cast<std::size_t>(df1::kHeaderSize))
        return std::to_string(body.size()) + " body bytes";
    std::string text = Df1HeaderText(body);
    const uint8_t command = body[df1::kHeaderCmd];
    if (command == remote::kCmdReadReply || command == remote::kCmdWriteReply)
        return text + " | " + RemoteReplyText(body);
    const bool cip = (command & ~df1::kReplyFlag) == df1::kCmdCip;
    if (!cip || body.size() <= static_cast<std::size_t>(df1::kCipStart)) return text;
    const uint8_t* message = body.data() + df1::kCipStart;
    const std::size_t n = body.size() - df1::kCipStart;
    return text + " | " +
           (command & df1::kReplyFlag ? CipReplyText(message, n) : CipRequestText(message, n));
}

std::string Df1ItemText(const std::vector<uint8_t>& bytes) {
    if (bytes.size() == 2 && bytes[0] == df1::kDle) {
        if (bytes[1] == df1::kAck) return "DLE ACK";
        if (bytes[1] == df1::kNak) return "DLE NAK";
        if (bytes[1] == df1::kEnq) return "DLE ENQ";
    }
    const auto body = MessageBody(bytes);
    if (!body) return "DF1 item " + HexBytes(bytes.data(), bytes.size());
    std::string text = "DF1 " + MessageText(*body);
    const uint8_t sent = bytes.back();
    const uint8_t expected = BlockCheck(*body);
    if (sent != expected) text += " | bad BCC " + Hex2(sent) + ", the body gives " + Hex2(expected);
    return text;
}

std::string RemoteFrameText(const std::vector<uint8_t>& frame) {
    if (frame.size() < static_cast<std::size_t>(remote::kRequestFixedSize))
        return "remote frame of " + std::to_string(frame.size()) + " bytes";
    // Decoded with the checksum it should have, so a bad one is still read
    // field by field.
    std::vector<uint8_t> checked = frame;
    const uint8_t expected = RemoteChecksum(frame.data(), frame.size() - 1);
    checked.back() = expected;
    const auto r = DecodeRemoteFrame(checked.data(), checked.size());
    if (!r) return "remote frame " + HexBytes(frame.data(), frame.size());
    std::string text = std::string("remote ") + (r->isWrite() ? "write" : "read") + " len " +
                       std::to_string(r->length) + " var " + Hex2(r->varId) + " aux2 " +
                       Hex2(r->aux2) + " link " + Hex2(r->linkNo) + " station " + Hex2(r->station) +
                       " type " + std::to_string(r->dataType) + " address " + Hex8(r->address) +
                       " count " + std::to_string(r->count) + " aux12 " + Hex8(r->aux12) +
                       " aux13 " + Hex8(r->aux13);
    if (!r->data.empty()) text += " data " + HexBytes(r->data.data(), r->data.size());
    text += " sum " + Hex2(frame.back());
    if (frame.back() != expected) text += " | bad checksum, the bytes give " + Hex2(expected);
    return text;
}

}  // namespace

std::string DescribePacket(const CapturedPacket& packet) {
    const std::string direction =
        packet.direction == capture::kHostToController ? "host>ctl " : "ctl>host ";
    switch (packet.kind) {
        case capture::kDf1Item: return direction + Df1ItemText(packet.bytes);
        case capture::kRemoteFrame: return direction + RemoteFrameText(packet.bytes);
        case capture::kUnframed:
            return direction + std::to_string(packet.bytes.size()) +
                   " bytes not a frame: " + HexBytes(packet.bytes.data(), packet.bytes.size());
    }
    return direction + "kind " + std::to_string(packet.kind);
}

}  // namespace peer
