// Every DF1 and CIP number the controller side reads or writes, named once.
#ifndef PLCSIM_PROTOCOL_H
#define PLCSIM_PROTOCOL_H

#include <cstdint>

namespace plcsim {

namespace df1 {
constexpr uint8_t kDle = 0x10;
constexpr uint8_t kStx = 0x02;
constexpr uint8_t kEtx = 0x03;
constexpr uint8_t kAck = 0x06;
constexpr uint8_t kNak = 0x15;

// Command byte of a message that carries a CIP request; a reply carries the
// same command with kReplyFlag set.
constexpr uint8_t kCmdCip = 0x0B;
constexpr uint8_t kReplyFlag = 0x40;

// Header status: the command was understood / it was not.
constexpr uint8_t kStsSuccess = 0x00;
constexpr uint8_t kStsIllegalCommand = 0x10;

// DST SRC CMD STS TNS-low TNS-high.
constexpr int kHeaderSize = 6;
constexpr int kHeaderTnsLow = 4;

// Reply lead-in: DLE ACK for the request, then DLE STX.
constexpr int kLeadInSize = 4;
// DLE ETX and the block check character.
constexpr int kTrailerSize = 3;
}  // namespace df1

namespace cip {
// Services.
constexpr uint8_t kMultipleServicePacket = 0x0A;
constexpr uint8_t kReadTag = 0x4C;
constexpr uint8_t kWriteTag = 0x4D;
constexpr uint8_t kReadModifyWriteTag = 0x4E;
constexpr uint8_t kReadTagFragmented = 0x52;
constexpr uint8_t kWriteTagFragmented = 0x53;
constexpr uint8_t kReplyFlag = 0x80;

// Path segments.
constexpr uint8_t kLogicalClass8 = 0x20;
constexpr uint8_t kLogicalInstance8 = 0x24;
constexpr uint8_t kClassMessageRouter = 0x02;
constexpr uint8_t kAnsiExtendedSymbol = 0x91;
constexpr uint8_t kMember8 = 0x28;
constexpr uint8_t kMember16 = 0x29;
constexpr uint8_t kMember32 = 0x2A;

// Elementary data types (16-bit codes, low byte first on the wire).
constexpr uint16_t kTypeInt = 0x00C3;
constexpr uint16_t kTypeReal = 0x00CA;

// General status codes.
constexpr uint8_t kSuccess = 0x00;
constexpr uint8_t kPathSegmentError = 0x04;
constexpr uint8_t kPathDestinationUnknown = 0x05;
constexpr uint8_t kPartialTransfer = 0x06;
constexpr uint8_t kServiceNotSupported = 0x08;
constexpr uint8_t kReplyDataTooLarge = 0x11;
constexpr uint8_t kNotEnoughData = 0x13;
constexpr uint8_t kTooMuchData = 0x15;
constexpr uint8_t kEmbeddedServiceError = 0x1E;
constexpr uint8_t kInvalidParameter = 0x20;
constexpr uint8_t kPathSizeInvalid = 0x26;
constexpr uint8_t kGeneralError = 0xFF;

// Extended status words that go with kGeneralError.
constexpr uint16_t kExtOffsetBeyondEnd = 0x2104;
constexpr uint16_t kExtElementsBeyondEnd = 0x2105;
constexpr uint16_t kExtDataTypeMismatch = 0x2107;
}  // namespace cip

namespace remote {
// Request: length, varId, aux2, linkNo, station, dataType(2), address(4),
// count(2), aux12(4), aux13(4), [data], checksum.
constexpr int kRequestFixedSize = 22;
constexpr int kOffsetLength = 0;
constexpr int kOffsetVarId = 1;
constexpr int kOffsetAux2 = 2;
constexpr int kOffsetLinkNo = 3;
constexpr int kOffsetStation = 4;
constexpr int kOffsetDataType = 5;
constexpr int kOffsetAddress = 7;
constexpr int kOffsetCount = 11;
constexpr int kOffsetAux12 = 13;
constexpr int kOffsetAux13 = 17;
constexpr int kOffsetData = 21;

// Reply header commands and the write acknowledgement byte.
constexpr uint8_t kCmdReadReply = 0x41;
constexpr uint8_t kCmdWriteReply = 0x42;
constexpr uint8_t kWriteDone = 0x06;
constexpr uint8_t kWriteRefused = 0x15;

// Reply header status: never 0x10, so the header never grows by doubling
// except through the station and transaction bytes.
constexpr uint8_t kStsOk = 0x00;
constexpr uint8_t kStsNoSuchAddress = 0x05;
constexpr uint8_t kStsTypeNotSupported = 0x08;
constexpr uint8_t kStsNotEnoughData = 0x13;

// A reply to a read is padded to this many bytes: the requester takes a
// first reply of unknown length only when it has at least this size.
constexpr int kMinReadReplySize = 27;
}  // namespace remote

}  // namespace plcsim

#endif
