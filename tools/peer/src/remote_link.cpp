#include "peer/remote_link.h"

#include "peer/df1.h"

namespace peer {

namespace {

uint16_t Be16(const uint8_t* p) {
    return static_cast<uint16_t>((p[0] << 8) | p[1]);
}

uint32_t Be32(const uint8_t* p) {
    return (static_cast<uint32_t>(p[0]) << 24) | (static_cast<uint32_t>(p[1]) << 16) |
           (static_cast<uint32_t>(p[2]) << 8) | static_cast<uint32_t>(p[3]);
}

// File letter of a remote data type, 0 for an unknown type.
char LetterOf(uint16_t dataType) {
    switch (dataType) {
        case remote::kBitOfB:
        case remote::kWordOfB: return 'B';
        case remote::kBitOfN:
        case remote::kWordOfN: return 'N';
        case remote::kReal: return 'F';
        default: return 0;
    }
}

uint8_t StatusOf(Access access) {
    return access == Access::kOk ? remote::kStsOk : remote::kStsNoSuchAddress;
}

// Bit writes: one byte per bit from the bit address on; the whole run is
// checked before anything changes.
uint8_t WriteBits(const RemoteRequest& request, char letter, TagMemory& memory) {
    const uint32_t first = request.address;
    const int file = static_cast<int>(first / 4096);
    const uint64_t lastBit = (first % 4096) + request.data.size() - 1;
    const auto elements = memory.elementCount(letter, file);
    if (!elements || lastBit / 16 >= *elements) return remote::kStsNoSuchAddress;
    for (std::size_t i = 0; i < request.data.size(); ++i) {
        const uint64_t bitIndex = (first % 4096) + i;
        memory.setBit(letter, file, static_cast<std::size_t>(bitIndex / 16),
                      static_cast<int>(bitIndex % 16), request.data[i] == 1);
    }
    return remote::kStsOk;
}

}  // namespace

std::optional<RemoteRequest> DecodeRemoteFrame(const uint8_t* p, std::size_t n) {
    if (n < static_cast<std::size_t>(remote::kRequestFixedSize)) return std::nullopt;
    if (p[remote::kOffsetLength] != static_cast<uint8_t>(n & 0xFF)) return std::nullopt;
    if (RemoteChecksum(p, n - 1) != p[n - 1]) return std::nullopt;
    RemoteRequest r;
    r.length = p[remote::kOffsetLength];
    r.varId = p[remote::kOffsetVarId];
    r.aux2 = p[remote::kOffsetAux2];
    r.linkNo = p[remote::kOffsetLinkNo];
    r.station = p[remote::kOffsetStation];
    r.dataType = Be16(p + remote::kOffsetDataType);
    r.address = Be32(p + remote::kOffsetAddress);
    r.count = Be16(p + remote::kOffsetCount);
    r.aux12 = Be32(p + remote::kOffsetAux12);
    r.aux13 = Be32(p + remote::kOffsetAux13);
    r.data.assign(p + remote::kOffsetData, p + n - 1);
    r.checksum = p[n - 1];
    return r;
}

void RemoteReceiver::push(uint8_t byte, std::vector<RemoteEvent>* events) {
    buffer_.push_back(byte);
    scan(events);
}

void RemoteReceiver::scan(std::vector<RemoteEvent>* events) {
    while (!buffer_.empty()) {
        const std::size_t length = buffer_[0];
        if (length < static_cast<std::size_t>(remote::kRequestFixedSize)) {
            buffer_.erase(buffer_.begin());
            continue;
        }
        if (buffer_.size() < length) return;
        if (RemoteChecksum(buffer_.data(), length - 1) == buffer_[length - 1]) {
            RemoteEvent event;
            event.frame.assign(buffer_.begin(),
                               buffer_.begin() + static_cast<std::ptrdiff_t>(length));
            buffer_.erase(buffer_.begin(), buffer_.begin() + static_cast<std::ptrdiff_t>(length));
            events->push_back(std::move(event));
            continue;
        }
        RemoteEvent event;
        event.kind = RemoteEvent::Kind::kBadChecksum;
        event.frame.assign(buffer_.begin(), buffer_.begin() + static_cast<std::ptrdiff_t>(length));
        events->push_back(std::move(event));
        buffer_.erase(buffer_.begin());
    }
}

uint8_t NextRemoteTransaction(uint8_t t) {
    unsigned next = t + 1u;
    if (next > 254) next = 1;
    if (next == df1::kDle) next = df1::kDle + 1;
    return static_cast<uint8_t>(next);
}

std::vector<uint8_t> AnswerRemoteRequest(const RemoteRequest& request, TagMemory& memory,
                                         uint8_t transaction) {
    const bool write = request.isWrite();
    std::vector<uint8_t> body = {
        request.station, 0x00,        write ? remote::kCmdWriteReply : remote::kCmdReadReply,
        remote::kStsOk,  transaction, 0x00};
    const int kStatus = 3;
    const char letter = LetterOf(request.dataType);

    if (write) {
        uint8_t status = remote::kStsOk;
        if (!letter) {
            status = remote::kStsTypeNotSupported;
        } else if (request.data.empty()) {
            status = remote::kStsOk;  // nothing to write
        } else if (request.dataType == remote::kBitOfB || request.dataType == remote::kBitOfN) {
            status = WriteBits(request, letter, memory);
        } else {
            const std::size_t size = ElementSize(letter);
            const std::size_t whole = request.data.size() - request.data.size() % size;
            if (whole == 0) {
                status = remote::kStsNotEnoughData;
            } else {
                status = StatusOf(memory.write(letter, static_cast<int>(request.address / 256),
                                               (request.address % 256) * size, request.data.data(),
                                               whole));
            }
        }
        body[kStatus] = status;
        body.push_back(status == remote::kStsOk ? remote::kWriteDone : remote::kWriteRefused);
        return body;
    }

    if (!letter) {
        body[kStatus] = remote::kStsTypeNotSupported;
    } else {
        const std::size_t size = ElementSize(letter);
        const Access access =
            memory.read(letter, static_cast<int>(request.address / 256),
                        (request.address % 256) * size, request.count * size, &body);
        body[kStatus] = StatusOf(access);
    }
    // Lead-in and trailer add 7 bytes; the doubling of a 0x10 byte only
    // makes the framed reply longer, so the body alone decides the minimum.
    const std::size_t minimumBody =
        remote::kMinReadReplySize - df1::kLeadInSize - df1::kTrailerSize;
    if (body.size() < minimumBody) body.resize(minimumBody, 0x00);
    return body;
}

}  // namespace peer
