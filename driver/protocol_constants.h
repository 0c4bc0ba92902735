// Every DF1 and CIP number the driver puts on the wire, and every position it
// puts one at, named once.
#ifndef PROTOCOL_CONSTANTS_H
#define PROTOCOL_CONSTANTS_H

#include <cstdint>

namespace df1 {
constexpr uint8_t kDle = 0x10;
constexpr uint8_t kStx = 0x02;
constexpr uint8_t kEtx = 0x03;
constexpr uint8_t kAck = 0x06;
constexpr uint8_t kCmdCip = 0x0B;  // command byte of the requests
}  // namespace df1

namespace cip {
// Services.
constexpr uint8_t kMultipleServicePacket = 0x0A;
constexpr uint8_t kReadTagFragmented = 0x52;
constexpr uint8_t kWriteTagFragmented = 0x53;
constexpr uint8_t kReadModifyWriteTag = 0x4E;

// The Multiple Service Packet's path: class 0x02, instance 1, two words.
constexpr uint8_t kLogicalClass8 = 0x20;
constexpr uint8_t kClassMessageRouter = 0x02;
constexpr uint8_t kLogicalInstance8 = 0x24;
constexpr uint8_t kMessageRouterInstance = 1;
constexpr uint8_t kMessageRouterPathWords = 2;
// It carries one service, 4 bytes after the start of the service count.
constexpr uint8_t kEmbeddedServiceCount = 1;
constexpr uint8_t kEmbeddedServiceOffset = 4;

// The embedded service's tag path: symbol segment and member segment.
constexpr uint8_t kEmbeddedPathWords = 5;
constexpr uint8_t kAnsiExtendedSymbol = 0x91;
constexpr uint8_t kTagNameLength = 4;  // letter, '0', two name characters
constexpr uint8_t kMember16 = 0x29;

// Data types of the value writes.
constexpr uint8_t kTypeInt = 0xC3;
constexpr uint8_t kTypeReal = 0xCA;
constexpr int kIntBytes = 2;
constexpr int kRealBytes = 4;

// Read-Modify-Write Tag: size of each of the OR and AND masks.
constexpr uint8_t kMaskBytes = 2;
}  // namespace cip

// Tag letters of the three file kinds, and the character after the letter.
constexpr char kLetterBitFile = 'B';
constexpr char kLetterIntegerFile = 'N';
constexpr char kLetterFloatFile = 'F';
constexpr char kTagNameZero = '0';

// Positions of a direct-mode frame before any DLE doubling. Requests and
// replies share the lead-in and the trailer.
namespace frame_offset {
// Lead-in: DLE ACK for the previous message, then DLE STX.
constexpr int kAckDle = 0;
constexpr int kAck = 1;
constexpr int kStxDle = 2;
constexpr int kStx = 3;

// DF1 header; DST is the first byte the block check covers.
constexpr int kDst = 4;
constexpr int kSrc = 5;
constexpr int kCmd = 6;
constexpr int kSts = 7;
constexpr int kTnsLow = 8;
constexpr int kTnsHigh = 9;
constexpr int kZeroLow = 10;
constexpr int kZeroHigh = 11;

// Multiple Service Packet to the Message Router.
constexpr int kPacketService = 12;
constexpr int kPacketPathWords = 13;
constexpr int kClassSegment = 14;
constexpr int kClass = 15;
constexpr int kInstanceSegment = 16;
constexpr int kInstance = 17;
constexpr int kServiceCountLow = 18;
constexpr int kServiceCountHigh = 19;
constexpr int kServiceOffsetLow = 20;
constexpr int kServiceOffsetHigh = 21;

// The embedded service and its tag path.
constexpr int kService = 22;
constexpr int kPathWords = 23;
constexpr int kSymbolSegment = 24;
constexpr int kSymbolLength = 25;
constexpr int kLetter = 26;
constexpr int kNameZero = 27;
constexpr int kNameHigh = 28;
constexpr int kNameLow = 29;
constexpr int kMemberSegment = 30;
constexpr int kElementPad = 31;
constexpr int kElement = 32;
constexpr int kBuilderData = 33;  // last byte of the path; from here on the builder's own

// Reads: the element count goes high byte first from the path's last byte on.
constexpr int kReadCountHigh = kBuilderData;
constexpr int kReadCountLow = 34;
constexpr int kReadZeros = 35;
constexpr int kReadTrailer = 42;

// Writes close the path with the element number's high byte.
constexpr int kWriteElementHigh = kBuilderData;

// Bit writes: mask size, OR mask, AND mask, low bytes first.
constexpr int kMaskSizeLow = 34;
constexpr int kMaskSizeHigh = 35;
constexpr int kOrMaskLow = 36;
constexpr int kOrMaskHigh = 37;
constexpr int kAndMaskLow = 38;
constexpr int kAndMaskHigh = 39;
constexpr int kBitWriteZeros = 40;
constexpr int kBitWriteTrailer = 42;

// Word and REAL writes: type, count high byte first, zeros, the values.
constexpr int kDataType = 34;
constexpr int kWriteCountHigh = 35;
constexpr int kWriteCountLow = 36;
constexpr int kWriteZeros = 37;
constexpr int kWriteValues = 42;

// Trailer, counted back from the end of the whole frame: DLE ETX BCC.
constexpr int kEtxDleFromEnd = 3;
constexpr int kEtxFromEnd = 2;
constexpr int kBccFromEnd = 1;
}  // namespace frame_offset

// Reply layout the direct-mode builders expect.
constexpr int kReadReplyDataPos = 26;    // first data byte of a read reply
constexpr int kWriteReplyLength = 27;    // every write reply
constexpr int kUnknownReplyLength = -1;  // learnt from the first reply
constexpr int kMinimumFirstReply = 27;   // a reply of unknown length is at least this long

// Positions in a direct reply's body (from DST, DLE doubling undone), which
// the hardened build reads to match a reply to its request.
namespace reply_body {
constexpr int kDst = 0;
constexpr int kSrc = 1;
constexpr int kCmd = 2;
constexpr int kSts = 3;
constexpr int kTnsLow = 4;
constexpr int kTnsHigh = 5;
constexpr int kPacketService = 8;
constexpr int kPacketStatus = 10;
constexpr int kPacketExtendedWords = 11;
// The 16-bit fields below are read low byte first from the position named.
constexpr int kReplyCountLow = 12;
constexpr int kReplyOffsetLow = 14;
constexpr int kService = 16;
constexpr int kStatus = 18;
constexpr int kExtendedWords = 19;
constexpr int kNoDataLength = 20;  // a write's whole reply body
constexpr int kTypeLow = 20;       // a read's data type, then its data
constexpr int kData = 22;
}  // namespace reply_body

namespace df1 {
constexpr uint8_t kReplyFlag = 0x40;  // set in the command byte of a reply
}
namespace cip {
constexpr uint8_t kReplyFlag = 0x80;  // set in the service code of a reply
// The one embedded reply starts right after the count and its one offset.
constexpr int kEmbeddedReplyOffset = 4;
}  // namespace cip

// Positions of a remote frame: the record's descriptor fields, big-endian.
namespace remote_offset {
constexpr int kLength = 0;
constexpr int kVarId = 1;
constexpr int kAux2 = 2;
constexpr int kLinkNo = 3;
constexpr int kStation = 4;
constexpr int kDataType = 5;  // 2 bytes
constexpr int kAddress = 7;   // 4 bytes
constexpr int kCount = 11;    // 2 bytes
constexpr int kAux12 = 13;    // 4 bytes
constexpr int kAux13 = 17;    // 4 bytes
constexpr int kValues = 21;   // writes only; the checksum follows
}  // namespace remote_offset

// Remote frames.
constexpr int kRemoteHeaderLength = remote_offset::kValues;
constexpr int kRemoteReadFrameLength = kRemoteHeaderLength + 1;  // and the checksum
constexpr int kRemoteReadDataPos = 10;
constexpr int kRemoteWriteReplyLength = 14;
constexpr int kLongestRemoteFrame = 0xFF;  // what the one length byte counts

// The longest body (DST to the byte before DLE ETX, DLE doubling undone) whose
// block check counts every byte: the check's byte count is 16 bits.
constexpr int kLongestDf1Body = 0xFFFF;

// Queues and limits.
constexpr int kQueueLimit = 1024;  // write and one-shot queues
constexpr int kBurstLimit = 5;     // priority requests before a cyclic read
// No request list entry is split into more pieces than an area has elements:
// pieces past that could never be stored, and the bound keeps a corrupt count
// from exhausting memory.
constexpr int kMaxPieces = 65536;
// Largest element count a write frame is built for (or a host write accepted):
// more than a whole area in any unit. Larger counts only come from corrupt
// records, and would ask for frames of gigabytes.
constexpr int kMaxWriteCount = 1 << 20;

#endif
