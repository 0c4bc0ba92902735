// Direct-mode write requests: Read-Modify-Write Tag for single bits, Write Tag
// Fragmented for INT and REAL runs.
#include "Func_Write.h"

#include "Func_Check.h"
#include "Func_GetOrSetData.h"
#include "ab_controllogix_compactlogix_p.h"
#include "df1_frame.h"
#include "protocol_constants.h"

namespace {

constexpr int kMaskBytes = 2;
// Negative counts move the trailer back over the zero bytes; past this one it
// would land inside the tag path, so no frame is built for them.
constexpr int kMostNegativeWriteCount = -4;

uint8_t DataByteOrZero(const QByteArray& data, int64_t index) {
    return index < data.size() ? static_cast<uint8_t>(data.at(static_cast<int>(index))) : 0;
}

// Writes carry a whole 16-bit element number: its high byte is always 0.
void WriteElementHighByte(FrameWriter& w) { w.put(frame_offset::BUILDER_DATA, 0x00); }

// Data type, count high byte first, and five zero bytes before the values.
void WriteTypeAndCount(FrameWriter& w, uint8_t cipType, int elements) {
    w.put(34, cipType);
    w.putStuffed(35, (elements >> 8) & 0xFF);
    w.putStuffed(36, elements & 0xFF);
    for (int offset = 37; offset < frame_offset::WRITE_VALUES; ++offset) w.put(offset, 0x00);
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
    const int file = address / 4096;
    const int element = (address / 16) % 256;
    const int bit = address % 16;

    FrameWriter w;
    WriteTagRequestHead(w, cip::SERVICE_READ_MODIFY_WRITE_TAG, WordFileLetter(var->dataType),
                        DigitalToASCII((file >> 8) & 0xFF), DigitalToASCII(file & 0xFF), element);
    WriteElementHighByte(w);
    w.put(34, kMaskBytes);
    w.put(35, 0x00);

    // The controller computes (old | OR) & AND, changing the one bit only. A
    // negative address has a negative bit number: no bit, so no change.
    const uint16_t m = (bit >= 0) ? static_cast<uint16_t>(1u << bit) : 0;
    const bool set = !var->data.isEmpty() && static_cast<uint8_t>(var->data.at(0)) == 1;
    const uint16_t orMask = set ? m : 0x0000;
    const uint16_t andMask = set ? 0xFFFF : static_cast<uint16_t>(~m);
    w.putStuffed(36, orMask & 0xFF);
    w.putStuffed(37, orMask >> 8);
    w.putStuffed(38, andMask & 0xFF);
    w.putStuffed(39, andMask >> 8);
    w.put(40, 0x00);
    w.put(41, 0x00);
    QueueWriteFrame(w, frame_offset::READ_TRAILER, *var);
}

void WriteAnalog(RW_VAR* var) {
    if (!var) return;
    const int count = var->count;
    if (count < kMostNegativeWriteCount || count > kMaxWriteCount) return;

    FrameWriter w;
    WriteWordAddressedHead(w, cip::SERVICE_WRITE_TAG_FRAGMENTED, WordFileLetter(var->dataType),
                           var->address);
    WriteElementHighByte(w);
    WriteTypeAndCount(w, cip::TYPE_INT, count);
    // Values go out in the host's order, low byte first; a short array is
    // padded with zero bytes rather than read past its end.
    for (int64_t k = 0; k < count; ++k) {
        w.putStuffed(static_cast<int>(frame_offset::WRITE_VALUES + 2 * k), DataByteOrZero(var->data, 2 * k));
        w.putStuffed(static_cast<int>(frame_offset::WRITE_VALUES + 2 * k + 1),
                     DataByteOrZero(var->data, 2 * k + 1));
    }
    QueueWriteFrame(w, frame_offset::WRITE_VALUES + 2 * count, *var);
}

// The count is in 16-bit words, two per REAL value; a record always writes at
// least one value.
void WriteAnalog_F(RW_VAR* var) {
    if (!var) return;
    const int count = var->count;
    if (count > kMaxWriteCount) return;
    const int elements = count >= 2 ? count / 2 : 1;

    FrameWriter w;
    WriteWordAddressedHead(w, cip::SERVICE_WRITE_TAG_FRAGMENTED, kLetterFloatFile, var->address);
    WriteElementHighByte(w);
    WriteTypeAndCount(w, cip::TYPE_REAL, elements);
    for (int k = 0; k < elements; ++k) {
        // A value whose four bytes are not all there goes out as 0.0.
        const bool complete = var->data.size() >= 4 * static_cast<int64_t>(k) + 4;
        for (int b = 0; b < 4; ++b)
            w.putStuffed(frame_offset::WRITE_VALUES + 4 * k + b,
                         complete ? DataByteOrZero(var->data, 4 * k + b) : 0);
    }
    QueueWriteFrame(w, frame_offset::WRITE_VALUES + 4 * elements, *var);
}
