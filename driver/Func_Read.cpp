// Direct-mode read requests: Read Tag Fragmented for a run of elements.
#include "Func_Read.h"

#include "ab_controllogix_compactlogix_p.h"
#include "df1_frame.h"
#include "protocol_constants.h"

namespace {

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
    // The hardened build asks for no run an area cannot hold: such an entry
    // builds no frame, and the scheduler drops it as failed.
    if (kHardened && (var->count < 1 || var->count > kAreaElements)) return;
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
