// Direct-mode read requests: Read Tag Fragmented for a run of elements.
#include "Func_Read.h"

#include "ab_controllogix_compactlogix_p.h"
#include "df1_frame.h"
#include "protocol_constants.h"

#include <algorithm>

namespace {

// Elements a read of this record asks for, and the bytes each one takes.
struct ReadSize {
    int64_t elements;
    int elementBytes;
};
ReadSize SizeOfRead(const RW_VAR& var) {
    if (var.dataType == ABCL_REAL)
        return {std::max<int64_t>(int64_t{var.count} - 1, 1), cip::kRealBytes};
    return {var.count, cip::kIntBytes};
}

// Hardened build: a count of at least 1, and a reply body (header, type and
// data) within the 16-bit byte count of a DF1 frame's block check, which
// also keeps the element count within its 16 bits on the wire.
bool ReplyFitsAFrame(const RW_VAR& var) {
    if (var.count < 1) return false;
    const ReadSize size = SizeOfRead(var);
    return reply_body::kData + size.elements * size.elementBytes <= kLongestDf1Body;
}

void QueueRead(RW_VAR* var, char letter, int elements, int dataBytes) {
    FrameWriter w;
    WriteWordAddressedHead(w, cip::kReadTagFragmented, letter, var->address);
    // The element count goes high byte first, at the place where a controller
    // reads the element number's high byte and then the count's low byte: for
    // every count below 256 that is element number and count as meant.
    w.putStuffed(frame_offset::kReadCountHigh, (elements >> 8) & 0xFF);
    w.putStuffed(frame_offset::kReadCountLow, elements & 0xFF);
    w.putZeros(frame_offset::kReadZeros, frame_offset::kReadTrailer);
    QueueProtocol(w.finish(frame_offset::kReadTrailer), kUnknownReplyLength, kReadReplyDataPos,
                  dataBytes, *var);
}

}  // namespace

void ReadRegister(RW_VAR* var) {
    if (!var) return;
    // The hardened build asks for no run an area cannot hold, nor one whose
    // reply no DF1 frame can carry: such an entry builds no frame, and the
    // scheduler drops it as failed.
    if (kHardened && !ReplyFitsAFrame(*var)) return;
    switch (var->dataType) {
        case ABCL_BIT_A:
        case ABCL_BIT_B:
        case ABCL_WORD_A:
        case ABCL_WORD_B: ReadAnalog(var); break;
        case ABCL_REAL: ReadAnalog_F(var); break;
        default: break;  // unsupported types build nothing
    }
}

void ReadAnalog(RW_VAR* var) {
    if (!var) return;
    // Byte counts wrap as on the panel; the savers never trust them beyond the reply.
    QueueRead(var, WordFileLetter(var->dataType), var->count,
              Wrap32(int64_t{var->count} * cip::kIntBytes));
}

// A 32-bit record asks for one element less than its count (at least one);
// hosts size their REAL variables with this in mind.
void ReadAnalog_F(RW_VAR* var) {
    if (!var) return;
    const int64_t oneLess = static_cast<int64_t>(var->count) - 1;
    const int elements = oneLess < 1 ? 1 : static_cast<int>(oneLess);
    QueueRead(var, kLetterFloatFile, elements, Wrap32(int64_t{elements} * cip::kRealBytes));
}
