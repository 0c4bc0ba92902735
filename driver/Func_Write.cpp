// Direct-mode write requests: Read-Modify-Write Tag for single bits, Write Tag
// Fragmented for INT and REAL runs.
#include "Func_Write.h"

#include "Func_Check.h"
#include "Func_GetOrSetData.h"
#include "ab_controllogix_compactlogix_p.h"
#include "df1_frame.h"
#include "protocol_constants.h"

namespace {

// Negative counts move the trailer back over the zero bytes; past this one it
// would land inside the tag path, so no frame is built for them.
constexpr int kMostNegativeWriteCount = -4;

uint8_t DataByteOrZero(const QByteArray& data, int64_t index) {
    return index < data.size() ? static_cast<uint8_t>(data.at(static_cast<int>(index))) : 0;
}

// Writes carry a whole 16-bit element number: its high byte is always 0.
void WriteElementHighByte(FrameWriter& w) {
    w.put(frame_offset::kWriteElementHigh, 0x00);
}

// Data type, count high byte first, and five zero bytes before the values.
void WriteTypeAndCount(FrameWriter& w, uint8_t cipType, int elements) {
    w.put(frame_offset::kDataType, cipType);
    w.putStuffed(frame_offset::kWriteCountHigh, (elements >> 8) & 0xFF);
    w.putStuffed(frame_offset::kWriteCountLow, elements & 0xFF);
    w.putZeros(frame_offset::kWriteZeros, frame_offset::kWriteValues);
}

void QueueWriteFrame(FrameWriter& w, int etxOffset, const RW_VAR& var) {
    const QByteArray frame = w.finish(etxOffset);
    if (frame.isEmpty()) return;
    QueueProtocol(frame, kWriteReplyLength, 0, 0, var);
}

}  // namespace

void WriteRegister(RW_VAR* var) {
    if (!var) return;
    switch (var->dataType) {
        case ABCL_BIT_A:
        case ABCL_BIT_B: WriteBool(var); break;
        case ABCL_WORD_A:
        case ABCL_WORD_B: WriteAnalog(var); break;
        case ABCL_REAL: WriteAnalog_F(var); break;
        default: break;
    }
    // While the link is failing the value was mirrored when the host queued it,
    // and rebuilt frames of a retried write must not mirror it again.
    if (commErrorSet()) return;
    WriteDataToLocal(var);
}

void WriteBool(RW_VAR* var) {
    if (!var) return;
    const int address = var->address;  // file x 4096 + element x 16 + bit
    const int file = address / (kElementsPerFile * kBitsPerWord);
    const int element = (address / kBitsPerWord) % kElementsPerFile;
    const int bit = address % kBitsPerWord;

    FrameWriter w;
    WriteTagRequestHead(w, cip::kReadModifyWriteTag, WordFileLetter(var->dataType),
                        DigitalToASCII((file >> 8) & 0xFF), DigitalToASCII(file & 0xFF), element);
    WriteElementHighByte(w);
    w.put(frame_offset::kMaskSizeLow, cip::kMaskBytes);
    w.put(frame_offset::kMaskSizeHigh, 0x00);

    // The controller computes (old | OR) & AND, changing the one bit only. A
    // negative address has a negative bit number: no bit, so no change.
    const uint16_t m = (bit >= 0) ? static_cast<uint16_t>(1u << bit) : 0;
    const bool set = !var->data.isEmpty() && static_cast<uint8_t>(var->data.at(0)) == 1;
    const uint16_t orMask = set ? m : 0x0000;
    const uint16_t andMask = set ? 0xFFFF : static_cast<uint16_t>(~m);
    w.putStuffed(frame_offset::kOrMaskLow, orMask & 0xFF);
    w.putStuffed(frame_offset::kOrMaskHigh, orMask >> 8);
    w.putStuffed(frame_offset::kAndMaskLow, andMask & 0xFF);
    w.putStuffed(frame_offset::kAndMaskHigh, andMask >> 8);
    w.putZeros(frame_offset::kBitWriteZeros, frame_offset::kBitWriteTrailer);
    QueueWriteFrame(w, frame_offset::kBitWriteTrailer, *var);
}

void WriteAnalog(RW_VAR* var) {
    if (!var) return;
    const int count = var->count;
    if (count < kMostNegativeWriteCount || count > kMaxWriteCount) return;
    if (kHardened && count < 1) return;  // a count below 1 writes nothing sound

    FrameWriter w;
    WriteWordAddressedHead(w, cip::kWriteTagFragmented, WordFileLetter(var->dataType),
                           var->address);
    WriteElementHighByte(w);
    WriteTypeAndCount(w, cip::kTypeInt, count);
    // Values go out in the host's order, low byte first; a short array is
    // padded with zero bytes rather than read past its end.
    const int valueBytes = cip::kIntBytes * count;
    for (int i = 0; i < valueBytes; ++i)
        w.putStuffed(frame_offset::kWriteValues + i, DataByteOrZero(var->data, i));
    QueueWriteFrame(w, frame_offset::kWriteValues + valueBytes, *var);
}

// The count is in 16-bit words, two per REAL value; a record always writes at
// least one value.
void WriteAnalog_F(RW_VAR* var) {
    if (!var) return;
    const int count = var->count;
    if (count > kMaxWriteCount) return;
    // The hardened build writes no 0.0 for a count below 1.
    if (kHardened && count < 1) return;
    const int elements = count >= 2 ? count / 2 : 1;

    FrameWriter w;
    WriteWordAddressedHead(w, cip::kWriteTagFragmented, kLetterFloatFile, var->address);
    WriteElementHighByte(w);
    WriteTypeAndCount(w, cip::kTypeReal, elements);
    for (int k = 0; k < elements; ++k) {
        // A value whose four bytes are not all there goes out as 0.0.
        const int first = cip::kRealBytes * k;
        const bool complete = var->data.size() >= int64_t{first} + cip::kRealBytes;
        for (int b = 0; b < cip::kRealBytes; ++b)
            w.putStuffed(frame_offset::kWriteValues + first + b,
                         complete ? DataByteOrZero(var->data, first + b) : 0);
    }
    QueueWriteFrame(w, frame_offset::kWriteValues + cip::kRealBytes * elements, *var);
}
