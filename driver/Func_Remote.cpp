// Remote-mode requests: the variable's own descriptor fields, big-endian, for a
// partner that performs the controller access. No DLE framing, no doubling.
#include "Func_Remote.h"

#include "Func_Check.h"
#include "Func_GetOrSetData.h"
#include "ab_controllogix_compactlogix_p.h"
#include "df1_frame.h"
#include "protocol_constants.h"

namespace {

void PutBigEndian(QByteArray& frame, int offset, uint32_t value, int bytes) {
    for (int i = 0; i < bytes; ++i)
        frame[offset + i] = static_cast<char>((value >> (8 * (bytes - 1 - i))) & 0xFF);
}

// Offsets 0 to 20; the length byte at offset 0 is filled in last.
QByteArray DescriptorFields(const RW_VAR& var) {
    QByteArray frame(kRemoteHeaderLength, '\0');
    PutBigEndian(frame, 1, static_cast<uint32_t>(var.varId), 1);
    PutBigEndian(frame, 2, static_cast<uint32_t>(var.aux2), 1);
    PutBigEndian(frame, 3, static_cast<uint32_t>(var.linkNo), 1);
    PutBigEndian(frame, 4, static_cast<uint32_t>(var.station), 1);
    PutBigEndian(frame, 5, static_cast<uint32_t>(var.dataType), 2);
    PutBigEndian(frame, 7, static_cast<uint32_t>(var.address), 4);
    PutBigEndian(frame, 11, static_cast<uint32_t>(var.count), 2);
    PutBigEndian(frame, 13, static_cast<uint32_t>(var.aux12), 4);
    PutBigEndian(frame, 17, static_cast<uint32_t>(var.aux13), 4);
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
    return ((var.station & 0xFF) == df1::DLE ? 1 : 0) + ((PLC_driver.tns & 0xFF) == df1::DLE ? 1 : 0);
}

}  // namespace

void Remote_ReadVar(RW_VAR* var) {
    if (!var) return;
    QByteArray frame = DescriptorFields(*var);
    frame[0] = static_cast<char>(kRemoteReadFrameLength);
    AppendChecksum(frame);

    // A remote 32-bit read asks for `count` values as they stand. Types the
    // partner cannot serve expect no data.
    int dataBytes = 0;
    if (var->dataType >= ABCL_BIT_A && var->dataType <= ABCL_WORD_B)
        dataBytes = Wrap32(int64_t{var->count} * 2);
    else if (var->dataType == ABCL_REAL)
        dataBytes = Wrap32(int64_t{var->count} * 4);
    QueueProtocol(frame, kUnknownReplyLength, kRemoteReadDataPos + DoubledReplyBytes(*var),
                  dataBytes, *var);
}

void Remote_WriteVar(RW_VAR* var) {
    if (!var) return;
    QByteArray frame = DescriptorFields(*var);
    frame.append(var->data);
    frame[0] = static_cast<char>((frame.size() + 1) & 0xFF);  // low 8 bits only
    AppendChecksum(frame);
    // The reply counters are left as they are: a host in remote mode sets
    // replyDone back to 0 before each exchange.
    QueueProtocol(frame, kRemoteWriteReplyLength + DoubledReplyBytes(*var), 0, 0, *var,
                  /*rearmReplyCounters=*/false);
    // Shown in the image at once, whatever the link's state.
    WriteDataToLocal(var);
}
