// Every DF1 and CIP number the driver puts on the wire, named once.
#ifndef PROTOCOL_CONSTANTS_H
#define PROTOCOL_CONSTANTS_H

#include <cstdint>

namespace df1 {
constexpr uint8_t DLE = 0x10;
constexpr uint8_t STX = 0x02;
constexpr uint8_t ETX = 0x03;
constexpr uint8_t ACK = 0x06;
constexpr uint8_t CMD_CIP = 0x0B;  // command byte of the requests
}  // namespace df1

namespace cip {
constexpr uint8_t SERVICE_MULTIPLE_SERVICE_PACKET = 0x0A;
constexpr uint8_t SERVICE_READ_TAG_FRAGMENTED = 0x52;
constexpr uint8_t SERVICE_WRITE_TAG_FRAGMENTED = 0x53;
constexpr uint8_t SERVICE_READ_MODIFY_WRITE_TAG = 0x4E;
constexpr uint8_t LOGICAL_CLASS_8 = 0x20;
constexpr uint8_t CLASS_MESSAGE_ROUTER = 0x02;
constexpr uint8_t LOGICAL_INSTANCE_8 = 0x24;
constexpr uint8_t SEGMENT_ANSI_SYMBOL = 0x91;
constexpr uint8_t SEGMENT_MEMBER_16 = 0x29;
constexpr uint8_t TYPE_INT = 0xC3;
constexpr uint8_t TYPE_REAL = 0xCA;
constexpr uint8_t TAG_NAME_LENGTH = 4;     // letter, '0', two name characters
constexpr uint8_t EMBEDDED_PATH_WORDS = 5; // symbol segment and member segment
}  // namespace cip

// Tag letters of the three file kinds.
constexpr char kLetterBitFile = 'B';
constexpr char kLetterIntegerFile = 'N';
constexpr char kLetterFloatFile = 'F';

// Positions of a direct-mode request frame before any DLE doubling.
namespace frame_offset {
constexpr int SERVICE = 22;
constexpr int LETTER = 26;
constexpr int NAME_HIGH = 28;
constexpr int NAME_LOW = 29;
constexpr int ELEMENT = 32;
constexpr int BUILDER_DATA = 33;  // first byte that belongs to the builder
constexpr int READ_TRAILER = 42;  // DLE ETX of read and bit-write frames
constexpr int WRITE_VALUES = 42;  // first value byte of a word or REAL write
}  // namespace frame_offset

// Reply layout the direct-mode builders expect.
constexpr int kReadReplyDataPos = 26;   // first data byte of a read reply
constexpr int kWriteReplyLength = 27;   // every write reply
constexpr int kUnknownReplyLength = -1; // learnt from the first reply
constexpr int kMinimumFirstReply = 27;  // a reply of unknown length is at least this long

// Remote frames.
constexpr int kRemoteHeaderLength = 21;      // length byte and descriptor fields
constexpr int kRemoteReadFrameLength = 22;
constexpr int kRemoteReadDataPos = 10;
constexpr int kRemoteWriteReplyLength = 14;

// Queues and limits.
constexpr int kQueueLimit = 1024;     // write and one-shot queues
constexpr int kBurstLimit = 5;        // priority requests before a cyclic read
// No request list entry is split into more pieces than an area has elements:
// pieces past that could never be stored, and the bound keeps a corrupt count
// from exhausting memory.
constexpr int kMaxPieces = 65536;
// Largest element count a write frame is built for (or a host write accepted):
// more than a whole area in any unit. Larger counts only come from corrupt
// records, and would ask for frames of gigabytes.
constexpr int kMaxWriteCount = 1 << 20;

#endif
