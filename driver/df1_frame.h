// The DF1 full-duplex request envelope shared by every direct-mode builder.
#ifndef DF1_FRAME_H
#define DF1_FRAME_H

#include "ab_controllogix_compactlogix.h"

#include <QtCore/QByteArray>
#include <cstdint>

// Writes a frame byte by byte at the positions of the frame layout. Bytes that
// come from a record or a value are "stuffed": a DLE among them is sent twice,
// and every later position moves up by the number of doublings so far.
class FrameWriter {
public:
    // Puts a byte as it is at layout offset `offset` (shifted by the doublings).
    void put(int offset, uint8_t byte);
    // Puts the low byte of `value`, doubled when the whole value equals DLE.
    void putStuffed(int offset, int value);
    // Puts 0x00 at every layout offset from `first` up to, not including, `end`.
    void putZeros(int first, int end);
    // Writes DLE ETX at layout offset `etxOffset` and the block check after it,
    // and cuts the frame there. Returns the finished frame.
    QByteArray finish(int etxOffset);

    int doublings() const { return shift_; }
    int size() const { return frame_.size(); }

private:
    void store(int position, uint8_t byte);
    QByteArray frame_;
    int shift_ = 0;
};

// The block check over a request frame up to and including its ETX: computed
// on a de-stuffed copy, from DST to the byte before DLE ETX.
uint8_t RequestBlockCheck(const QByteArray& frameThroughEtx);

// Offsets 0 to 32 of a tag request: lead-in, header, Multiple Service Packet to
// the Message Router, the embedded service and its tag path.
// `nameHigh`/`nameLow` are the DigitalToASCII results of the two name characters;
// `element` is the signed element number (its bits 8-15 form the pad byte).
void WriteTagRequestHead(FrameWriter& w, uint8_t service, char letter, int nameHigh, int nameLow,
                         int element);

// Tag letter of a 16-bit file: 'B' for data types 0 and 2, 'N' for 1 and 3.
char WordFileLetter(int dataType);

// Name characters and element of a word address (file x 256 + element).
void WriteWordAddressedHead(FrameWriter& w, uint8_t service, char letter, int wordAddress);

// Stores the finished frame in a Protocol, queues it and re-arms the reply counters.
void QueueProtocol(const QByteArray& frame, int replyLen, int dataPos, int dataBytes,
                   const RW_VAR& var, bool rearmReplyCounters = true);

#endif
