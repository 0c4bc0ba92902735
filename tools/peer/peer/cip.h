// The CIP side of the controller: decoding the Message Router requests that
// arrive in DF1 messages, carrying them out on the tag memory and encoding
// the replies, errors included, as a Logix controller answers them.
#ifndef PEER_CIP_H
#define PEER_CIP_H

#include "peer/tag_memory.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace peer {

// General status and, for kGeneralError, the extended status word. An
// extended word makes the reply one 16-bit word longer.
struct CipStatus {
    uint8_t general = 0;
    std::optional<uint16_t> extended;

    bool ok() const { return general == 0; }
    static CipStatus Success() { return {}; }
    static CipStatus Error(uint8_t general) { return {general, std::nullopt}; }
    static CipStatus Extended(uint16_t word);
};
bool operator==(const CipStatus& a, const CipStatus& b);

// Value of one tag-name character: '0'..'9' give 0..9, 'A' (0x41) and every
// code above it give 10 upwards; anything else is not a name digit (-1).
int TagNameDigit(uint8_t c);

// Tag names of the data files: the file letter, '0', then two name digits,
// high and low, of the file number: N007 is N7, F00A is F10, B003 is B3.
bool DecodeTagName(const std::string& name, char* letter, int* file);

// The request path of one tag service: an ANSI extended symbol segment and
// at most one member (element) segment of 8, 16 or 32 bits.
struct TagPath {
    std::string symbol;
    bool named = false;  // symbol is a data-file name (DecodeTagName)
    char letter = 0;
    int file = -1;
    uint32_t element = 0;
};

// One decoded tag service request. Fields a service does not carry stay 0.
struct TagRequest {
    uint8_t service = 0;
    TagPath path;
    // Not success when the request cannot be carried out as decoded; the
    // reply then carries this status.
    CipStatus status;
    uint16_t count = 0;           // element count (reads and writes)
    uint32_t byteOffset = 0;      // fragmented services
    uint16_t dataType = 0;        // writes
    std::vector<uint8_t> values;  // writes: the data bytes as received
    uint16_t maskSize = 0;        // read-modify-write
    uint32_t orMask = 0;          // read-modify-write, low maskSize bytes
    uint32_t andMask = 0;
    std::size_t extraBytes = 0;  // request data after the service's own fields
};

// One CIP request as it arrives: either a Multiple Service Packet to the
// Message Router with its embedded requests, or a single tag service.
struct CipMessage {
    uint8_t service = 0;
    bool multiple = false;
    CipStatus status;  // not success: the message as a whole is refused
    std::vector<TagRequest> requests;
};

TagRequest DecodeTagRequest(const uint8_t* bytes, std::size_t n);
CipMessage DecodeCipMessage(const uint8_t* bytes, std::size_t n);

// The outcome of one tag service. Reads that succeed (or transfer part of
// their data) carry the data type and the data.
struct TagReply {
    uint8_t service = 0;  // the request's service code, reply flag set
    CipStatus status;
    bool hasData = false;
    uint16_t dataType = 0;
    std::vector<uint8_t> data;
};

// Carries out one request on the memory. replyBudget is the number of bytes
// this service's whole reply may take on the link; a fragmented read that
// does not fit answers with a partial transfer of whole elements.
TagReply ExecuteTagRequest(const TagRequest& request, TagMemory& memory, std::size_t replyBudget);

// service|0x80, 0, general status, extended size in words, [extended word],
// [data type, data].
void EncodeTagReply(const TagReply& reply, std::vector<uint8_t>* out);

// Decodes, carries out and encodes one CIP request. replyBudget bounds the
// reply as above.
std::vector<uint8_t> AnswerCipMessage(const uint8_t* bytes, std::size_t n, TagMemory& memory,
                                      std::size_t replyBudget);

}  // namespace peer

#endif
