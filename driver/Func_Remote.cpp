// Remote-mode requests: the variable's own descriptor fields, big-endian, for a
// partner that performs the controller access. No DLE framing, no doubling.
#include "Func_Remote.h"

#include "Func_Check.h"
#include "Func_GetOrSetData.h"
#include "ab_controllogix_compactlogix_p.h"
#include "df1_frame.h"
#include "protocol_constants.h"

namespace {

// Puts the low bits of `value` that fit a `Field`, most significant byte first.
template <typename Field>
void PutBigEndian(QByteArray& frame, int offset, int value) {
    const auto field = static_cast<Field>(value);
    for (size_t i = 0; i < sizeof(Field); ++i)
        frame[offset + static_cast<int>(i)] =
            static_cast<char>((field >> (8 * (sizeof(Field) - 1 - i))) & 0xFF);
}

// Every field but the length byte, which is filled in last.
QByteArray DescriptorFields(const RW_VAR& var) {
    QByteArray frame(kRemoteHeaderLength, '\0');
    PutBigEndian<uint8_t>(frame, remote_offset::kVarId, var.varId);
    PutBigEndian<uint8_t>(frame, remote_offset::kAux2, var.aux2);
    PutBigEndian<uint8_t>(frame, remote_offset::kLinkNo, var.linkNo);
    PutBigEndian<uint8_t>(frame, remote_offset::kStation, var.station);
    PutBigEndian<uint16_t>(frame, remote_offset::kDataType, var.dataType);
    PutBigEndian<uint32_t>(frame, remote_offset::kAddress, var.address);
    PutBigEndian<uint16_t>(frame, remote_offset::kCount, var.count);
    PutBigEndian<uint32_t>(frame, remote_offset::kAux12, var.aux12);
    PutBigEndian<uint32_t>(frame, remote_offset::kAux13, var.aux13);
    return frame;
}

void AppendChecksum(QByteArray& frame) {
    const uint16_t sum = CalSUM(reinterpret_cast<const unsigned char*>(frame.constData()),
                                static_cast<unsigned short>(frame.size()));
    frame.append(static_cast<char>(sum & 0xFF));
}

// The partner's reply carries the station and the transaction number; each of
// them that is DLE arrives doubled and moves the reply one byte on.
int DoubledReplyBytes(const RW_VAR& var) {
    return ((var.station & 0xFF) == df1::kDle ? 1 : 0) +
           ((PLC_driver.tns & 0xFF) == df1::kDle ? 1 : 0);
}

}  // namespace

void Remote_ReadVar(RW_VAR* var) {
    if (!var) return;
    QByteArray frame = DescriptorFields(*var);
    frame[remote_offset::kLength] = static_cast<char>(kRemoteReadFrameLength);
    AppendChecksum(frame);

    // A remote 32-bit read asks for `count` values as they stand. Types the
    // partner cannot serve expect no data.
    int dataBytes = 0;
    if (var->dataType >= ABCL_BIT_A && var->dataType <= ABCL_WORD_B)
        dataBytes = Wrap32(int64_t{var->count} * cip::kIntBytes);
    else if (var->dataType == ABCL_REAL)
        dataBytes = Wrap32(int64_t{var->count} * cip::kRealBytes);
    QueueProtocol(frame, kUnknownReplyLength, kRemoteReadDataPos + DoubledReplyBytes(*var),
                  dataBytes, *var);
}

void Remote_WriteVar(RW_VAR* var) {
    if (!var) return;
    QByteArray frame = DescriptorFields(*var);
    frame.append(var->data);
    // The hardened build refuses a frame its length byte cannot count, rather
    // than send a wrapped length.
    if (kHardened && frame.size() + 1 > kLongestRemoteFrame) return;
    // The length counts the checksum still to come; only its low 8 bits are sent.
    frame[remote_offset::kLength] = static_cast<char>((frame.size() + 1) & 0xFF);
    AppendChecksum(frame);
    // The reply counters are left as they are: a host in remote mode sets
    // replyDone back to 0 before each exchange.
    QueueProtocol(frame, kRemoteWriteReplyLength + DoubledReplyBytes(*var), 0, 0, *var,
                  /*rearmReplyCounters=*/false);
    // Shown in the image at once, whatever the link's state.
    WriteDataToLocal(var);
}
