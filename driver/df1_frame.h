// The DF1 full-duplex request envelope shared by every direct-mode builder.
#ifndef DF1_FRAME_H
#define DF1_FRAME_H

#include "ab_controllogix_compactlogix.h"

#include <QtCore/QByteArray>
#include <cstdint>
#include <vector>

// Writes a frame byte by byte at the positions of the frame layout. Bytes that
// come from a record or a value are "stuffed": a DLE among them is sent twice,
// and every later position moves up by the number of doublings so far.
//
// The bytes go into a buffer inside the writer (a heap buffer only for the
// rare frame that outgrows it), and finish() hands them back as one
// QByteArray: a frame costs a single allocation.
class FrameWriter {
public:
    FrameWriter() = default;
    FrameWriter(const FrameWriter&) = delete;
    FrameWriter& operator=(const FrameWriter&) = delete;

    // Puts a byte as it is at layout offset `offset` (shifted by the doublings).
    void put(int offset, uint8_t byte) { store(offset + shift_, byte); }
    // Puts the low byte of `value`, doubled when the whole value equals DLE.
    // The DLE test looks at the whole value: a name character past 0xFF whose
    // low byte is DLE goes out once, undoubled.
    void putStuffed(int offset, int value) {
        store(offset + shift_, static_cast<uint8_t>(value & 0xFF));
        if (value == kDle) {
            ++shift_;
            store(offset + shift_, kDle);
        }
    }
    // Puts n bytes as they are from layout offset `offset` on.
    void putPlain(int offset, const uint8_t* bytes, int n);
    // Puts 0x00 at every layout offset from `first` up to, not including, `end`.
    void putZeros(int first, int end);
    // Writes DLE ETX at layout offset `etxOffset` and the block check after it,
    // and cuts the frame there. Returns the finished frame.
    QByteArray finish(int etxOffset);

    int doublings() const { return shift_; }
    int size() const { return size_; }

private:
    // Frames of reads, bit writes and writes of up to about 200 words fit.
    static constexpr int kInlineBytes = 512;
    static constexpr uint8_t kDle = 0x10;

    // Most bytes go to the next position or back over an earlier one.
    void store(int position, uint8_t byte) {
        if (position >= 0 && position < size_) {
            bytes_[position] = byte;
        } else if (position == size_ && size_ < capacity_) {
            bytes_[size_++] = byte;
        } else {
            storeBeyondEnd(position, byte);
        }
    }
    void storeBeyondEnd(int position, uint8_t byte);
    void reserve(int bytes);
    // Makes positions [position, position + n) part of the frame (new ones
    // read 0) and returns where they start; null for a negative position.
    uint8_t* span(int position, int n);

    uint8_t inline_[kInlineBytes];
    std::vector<uint8_t> heap_;
    uint8_t* bytes_ = inline_;
    int capacity_ = kInlineBytes;
    int size_ = 0;
    int shift_ = 0;
};

// The block check over a request frame up to and including its ETX, DLE
// doubling undone, from DST to the byte before DLE ETX.
uint8_t RequestBlockCheck(const uint8_t* frameThroughEtx, int size);
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
