#include "peer/cip.h"

#include "peer/df1.h"

namespace peer {

namespace {

uint32_t Le32(const uint8_t* p) {
    return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) |
           (static_cast<uint32_t>(p[2]) << 16) | (static_cast<uint32_t>(p[3]) << 24);
}

void PutLe16(std::vector<uint8_t>* out, uint16_t v) {
    out->push_back(static_cast<uint8_t>(v & 0xFF));
    out->push_back(static_cast<uint8_t>(v >> 8));
}

bool IsTagService(uint8_t service) {
    return service == cip::kReadTag || service == cip::kWriteTag ||
           service == cip::kReadModifyWriteTag || service == cip::kReadTagFragmented ||
           service == cip::kWriteTagFragmented;
}

// Symbol segment, then at most one member segment, filling the path exactly.
CipStatus DecodeTagPath(const uint8_t* p, std::size_t n, TagPath* path) {
    if (n < 2 || p[0] != cip::kAnsiExtendedSymbol) return CipStatus::Error(cip::kPathSegmentError);
    const std::size_t nameLength = p[1];
    const std::size_t symbolSize = 2 + nameLength + (nameLength & 1);
    if (symbolSize > n) return CipStatus::Error(cip::kPathSegmentError);
    path->symbol.assign(reinterpret_cast<const char*>(p + 2), nameLength);
    path->named = DecodeTagName(path->symbol, &path->letter, &path->file);

    std::size_t i = symbolSize;
    if (i < n) {
        const uint8_t segment = p[i];
        std::size_t size = 0;
        if (segment == cip::kMember8) {
            size = 2;
            if (i + size <= n) path->element = p[i + 1];
        } else if (segment == cip::kMember16) {
            size = 4;  // segment, pad, element low, element high
            if (i + size <= n) path->element = Le16(p + i + 2);
        } else if (segment == cip::kMember32) {
            size = 6;
            if (i + size <= n) path->element = Le32(p + i + 2);
        } else {
            return CipStatus::Error(cip::kPathSegmentError);
        }
        if (i + size > n) return CipStatus::Error(cip::kPathSegmentError);
        i += size;
    }
    if (i != n) return CipStatus::Error(cip::kPathSegmentError);
    return CipStatus::Success();
}

TagReply Fail(uint8_t service, CipStatus status) {
    TagReply reply;
    reply.service = static_cast<uint8_t>(service | cip::kReplyFlag);
    reply.status = status;
    return reply;
}

}  // namespace

CipStatus CipStatus::Extended(uint16_t word) {
    return {cip::kGeneralError, word};
}

bool operator==(const CipStatus& a, const CipStatus& b) {
    return a.general == b.general && a.extended == b.extended;
}

int TagNameDigit(uint8_t c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'A') return c - 'A' + 10;
    return -1;
}

bool DecodeTagName(const std::string& name, char* letter, int* file) {
    if (name.size() != 4) return false;
    if (name[0] != 'B' && name[0] != 'N' && name[0] != 'F') return false;
    if (name[1] != '0') return false;
    const int high = TagNameDigit(static_cast<uint8_t>(name[2]));
    const int low = TagNameDigit(static_cast<uint8_t>(name[3]));
    if (high < 0 || low < 0) return false;
    *letter = name[0];
    *file = high * 256 + low;
    return true;
}

namespace {

// The fields after the path of the read and write services: a write's data
// type, the element count, a fragmented service's byte offset, then a
// write's values. False when the fixed fields do not fit.
bool DecodeReadWriteFields(const uint8_t* data, std::size_t size, TagRequest* request) {
    const bool write =
        request->service == cip::kWriteTag || request->service == cip::kWriteTagFragmented;
    const bool fragmented =
        request->service == cip::kReadTagFragmented || request->service == cip::kWriteTagFragmented;
    const std::size_t countAt = write ? 2 : 0;
    const std::size_t fixed = countAt + 2 + (fragmented ? 4 : 0);
    if (size < fixed) return false;
    if (write) request->dataType = Le16(data);
    request->count = Le16(data + countAt);
    if (fragmented) request->byteOffset = Le32(data + countAt + 2);
    if (write) {
        request->values.assign(data + fixed, data + size);
    } else {
        request->extraBytes = size - fixed;
    }
    return true;
}

}  // namespace

TagRequest DecodeTagRequest(const uint8_t* p, std::size_t n) {
    TagRequest request;
    if (n == 0) {
        request.status = CipStatus::Error(cip::kNotEnoughData);
        return request;
    }
    request.service = p[0];
    if (n < 2) {
        request.status = CipStatus::Error(cip::kNotEnoughData);
        return request;
    }
    const std::size_t pathSize = 2u * p[1];
    if (2 + pathSize > n) {
        request.status = CipStatus::Error(cip::kPathSizeInvalid);
        return request;
    }
    request.status = DecodeTagPath(p + 2, pathSize, &request.path);
    if (!request.status.ok()) return request;

    const uint8_t* data = p + 2 + pathSize;
    const std::size_t size = n - 2 - pathSize;
    auto notEnough = [&] {
        request.status = CipStatus::Error(cip::kNotEnoughData);
        return request;
    };
    switch (request.service) {
        case cip::kReadTag:
        case cip::kReadTagFragmented:
        case cip::kWriteTag:
        case cip::kWriteTagFragmented:
            if (!DecodeReadWriteFields(data, size, &request)) return notEnough();
            break;
        case cip::kReadModifyWriteTag: {
            if (size < 2) return notEnough();
            request.maskSize = Le16(data);
            const std::size_t masks = 2u * request.maskSize;
            if (size - 2 < masks) return notEnough();
            // Masks wider than 32 bits cannot match any tag here; they are
            // refused when carried out, so only the low four bytes are kept.
            for (std::size_t i = 0; i < request.maskSize && i < 4; ++i) {
                request.orMask |= static_cast<uint32_t>(data[2 + i]) << (8 * i);
                request.andMask |= static_cast<uint32_t>(data[2 + request.maskSize + i]) << (8 * i);
            }
            request.extraBytes = size - 2 - masks;
            break;
        }
        default: request.status = CipStatus::Error(cip::kServiceNotSupported); break;
    }
    return request;
}

CipMessage DecodeCipMessage(const uint8_t* p, std::size_t n) {
    CipMessage message;
    if (n < 2) {
        message.service = n ? p[0] : 0;
        message.status = CipStatus::Error(cip::kNotEnoughData);
        return message;
    }
    message.service = p[0];
    if (message.service != cip::kMultipleServicePacket) {
        if (!IsTagService(message.service)) {
            message.status = CipStatus::Error(cip::kServiceNotSupported);
            return message;
        }
        message.requests.push_back(DecodeTagRequest(p, n));
        return message;
    }

    message.multiple = true;
    const std::size_t pathSize = 2u * p[1];
    if (2 + pathSize > n) {
        message.status = CipStatus::Error(cip::kPathSizeInvalid);
        return message;
    }
    static const uint8_t kRouter[] = {cip::kLogicalClass8, cip::kClassMessageRouter,
                                      cip::kLogicalInstance8, 0x01};
    bool router = pathSize == sizeof kRouter;
    for (std::size_t i = 0; router && i < sizeof kRouter; ++i) router = p[2 + i] == kRouter[i];
    if (!router) {
        message.status = CipStatus::Error(cip::kPathDestinationUnknown);
        return message;
    }

    // Service count, offset table, embedded requests; offsets count from the
    // service count field.
    const uint8_t* data = p + 2 + pathSize;
    const std::size_t size = n - 2 - pathSize;
    if (size < 2) {
        message.status = CipStatus::Error(cip::kNotEnoughData);
        return message;
    }
    const std::size_t count = Le16(data);
    const std::size_t table = 2 + 2 * count;
    if (table > size) {
        message.status = CipStatus::Error(cip::kNotEnoughData);
        return message;
    }
    std::vector<std::size_t> offsets(count);
    for (std::size_t i = 0; i < count; ++i) {
        offsets[i] = Le16(data + 2 + 2 * i);
        if (offsets[i] < table || offsets[i] > size || (i && offsets[i] < offsets[i - 1])) {
            message.status = CipStatus::Error(cip::kInvalidParameter);
            return message;
        }
    }
    for (std::size_t i = 0; i < count; ++i) {
        const std::size_t end = i + 1 < count ? offsets[i + 1] : size;
        message.requests.push_back(DecodeTagRequest(data + offsets[i], end - offsets[i]));
    }
    return message;
}

TagReply ExecuteTagRequest(const TagRequest& request, TagMemory& memory, std::size_t replyBudget) {
    const uint8_t service = request.service;
    if (!request.status.ok()) return Fail(service, request.status);

    const TagPath& path = request.path;
    const auto elements = path.named ? memory.elementCount(path.letter, path.file) : std::nullopt;
    if (!elements) return Fail(service, CipStatus::Error(cip::kPathSegmentError));
    if (path.element >= *elements)
        return Fail(service, CipStatus::Error(cip::kPathDestinationUnknown));

    const std::size_t elementSize = ElementSize(path.letter);
    const std::size_t start = static_cast<std::size_t>(path.element) * elementSize;
    const std::size_t total = static_cast<std::size_t>(request.count) * elementSize;
    if (service != cip::kReadModifyWriteTag && path.element + request.count > *elements)
        return Fail(service, CipStatus::Extended(cip::kExtElementsBeyondEnd));

    TagReply reply = Fail(service, CipStatus::Success());
    switch (service) {
        case cip::kReadTag:
        case cip::kReadTagFragmented: {
            if (request.byteOffset > total || (total && request.byteOffset == total))
                return Fail(service, CipStatus::Extended(cip::kExtOffsetBeyondEnd));
            const std::size_t wanted = total - request.byteOffset;
            // Reply header (4) and data type (2) come before the data.
            const std::size_t room = replyBudget > 6 ? replyBudget - 6 : 0;
            std::size_t send = wanted;
            if (wanted > room) {
                send = room - room % elementSize;
                if (service == cip::kReadTag || send == 0)
                    return Fail(service, CipStatus::Error(cip::kReplyDataTooLarge));
                reply.status = CipStatus::Error(cip::kPartialTransfer);
            }
            reply.hasData = true;
            reply.dataType = ElementType(path.letter);
            memory.read(path.letter, path.file, start + request.byteOffset, send, &reply.data);
            return reply;
        }
        case cip::kWriteTag:
        case cip::kWriteTagFragmented: {
            if (request.dataType != ElementType(path.letter))
                return Fail(service, CipStatus::Extended(cip::kExtDataTypeMismatch));
            if (request.byteOffset > total ||
                (request.byteOffset == total && !request.values.empty()))
                return Fail(service, CipStatus::Extended(cip::kExtOffsetBeyondEnd));
            if (request.values.size() > total - request.byteOffset)
                return Fail(service, CipStatus::Error(cip::kTooMuchData));
            // The plain service must carry every element; the fragmented one
            // may carry a part, which is written where its offset says.
            if (service == cip::kWriteTag && request.values.size() < total)
                return Fail(service, CipStatus::Error(cip::kNotEnoughData));
            memory.write(path.letter, path.file, start + request.byteOffset, request.values.data(),
                         request.values.size());
            return reply;
        }
        case cip::kReadModifyWriteTag:
            // The masks must be as wide as the tag's elements: INT only.
            if (elementSize != 2 || request.maskSize != 2)
                return Fail(service, CipStatus::Extended(cip::kExtDataTypeMismatch));
            memory.modifyWord(path.letter, path.file, path.element,
                              static_cast<uint16_t>(request.orMask),
                              static_cast<uint16_t>(request.andMask));
            return reply;
        default: return Fail(service, CipStatus::Error(cip::kServiceNotSupported));
    }
}

void EncodeTagReply(const TagReply& reply, std::vector<uint8_t>* out) {
    out->push_back(reply.service);
    out->push_back(0x00);
    out->push_back(reply.status.general);
    out->push_back(reply.status.extended ? 1 : 0);
    if (reply.status.extended) PutLe16(out, *reply.status.extended);
    if (reply.hasData) {
        PutLe16(out, reply.dataType);
        out->insert(out->end(), reply.data.begin(), reply.data.end());
    }
}

std::vector<uint8_t> AnswerCipMessage(const uint8_t* p, std::size_t n, TagMemory& memory,
                                      std::size_t replyBudget) {
    const CipMessage message = DecodeCipMessage(p, n);
    std::vector<uint8_t> out;
    const auto replyService = static_cast<uint8_t>(message.service | cip::kReplyFlag);
    if (!message.status.ok()) {
        EncodeTagReply(Fail(message.service, message.status), &out);
        return out;
    }
    if (!message.multiple) {
        EncodeTagReply(ExecuteTagRequest(message.requests.front(), memory, replyBudget), &out);
        return out;
    }

    // Run every embedded request, then lay out the offset table.
    const std::size_t count = message.requests.size();
    std::size_t used = 4 + 2 + 2 * count;
    std::vector<std::vector<uint8_t>> replies;
    bool anyFailed = false;
    for (std::size_t i = 0; i < count; ++i) {
        // Leave room for the smallest reply of every later request.
        const std::size_t reserve = used + 4 * (count - 1 - i);
        const std::size_t budget = replyBudget > reserve ? replyBudget - reserve : 0;
        TagReply reply = ExecuteTagRequest(message.requests[i], memory, budget);
        anyFailed = anyFailed || !reply.status.ok();
        std::vector<uint8_t> bytes;
        EncodeTagReply(reply, &bytes);
        used += bytes.size();
        replies.push_back(std::move(bytes));
    }
    out.push_back(replyService);
    out.push_back(0x00);
    out.push_back(anyFailed ? cip::kEmbeddedServiceError : cip::kSuccess);
    out.push_back(0x00);
    PutLe16(&out, static_cast<uint16_t>(count));
    std::size_t offset = 2 + 2 * count;
    for (const auto& bytes : replies) {
        PutLe16(&out, static_cast<uint16_t>(offset));
        offset += bytes.size();
    }
    for (const auto& bytes : replies) out.insert(out.end(), bytes.begin(), bytes.end());
    return out;
}

}  // namespace peer
