// Reply validation, checksums and hex-digit conversions.
#ifndef FUNC_CHECK_H
#define FUNC_CHECK_H

#include <QtCore/QByteArray>
#include <cstdint>

// 0 bad reply; 1 good, carrying data to store; 2 good, nothing to store.
int CheckGetData(const QByteArray& reply, int len);
// 1 when a reply of not-yet-known length is good, else 0.
int NotFixReturnCheck(const QByteArray& reply);

// The hardened build's reply matching. True when a direct reply of `len`
// bytes answers the request `p` on the wire: DF1 source and destination
// swapped, the command with its reply flag, the same transaction number, DF1
// status 0; one embedded reply to the request's service, general status 0
// without extended status; and, for a read, the data type asked for and
// exactly the data bytes asked for. Then *data, when given, holds those data
// bytes with DLE doubling undone. The envelope and block check are
// CheckGetData's part.
struct Protocol;
bool DirectReplyAnswers(const Protocol& p, const QByteArray& reply, int len, QByteArray* data);

// DF1 block check (two's complement of the byte sum): 1 to 256, only its low byte is sent.
int CalLRC(const unsigned char* bytes, unsigned short len);
// Byte sum truncated to 16 bits.
uint16_t CalSUM(const unsigned char* bytes, unsigned short len);
// CRC-16/ARC: poly 0xA001 reflected, init 0, no final XOR.
uint16_t CalCRC(const unsigned char* bytes, unsigned short len);
// XOR of the bytes, starting from the first one.
uint16_t CalXOR(const unsigned char* bytes, unsigned short len);

int DigitalToASCII(int value);
int ASCIIToDigital(int character);

// DLE de-stuffing of reply body positions [first, last]: a doubled DLE counts once,
// a lone DLE is kept.
QByteArray UnstuffReplyBody(const QByteArray& reply, int first, int last);

// Calls visit(index, byte) for every byte of positions [first, last] with DLE
// doubling undone (of two DLEs in a row the second is dropped, pairing from
// `first` on), index counting the kept bytes. Returns how many are kept.
template <typename Visit>
int ForEachUnstuffed(const uint8_t* bytes, int first, int last, Visit visit) {
    constexpr uint8_t kDle = 0x10;
    int kept = 0;
    bool previousWasKeptDle = false;
    for (int i = first; i <= last; ++i) {
        const uint8_t b = bytes[i];
        if (b == kDle && previousWasKeptDle) {
            previousWasKeptDle = false;  // the second DLE of a pair
            continue;
        }
        previousWasKeptDle = b == kDle;
        visit(kept++, b);
    }
    return kept;
}

// How many bytes positions [first, last] hold with DLE doubling undone.
int UnstuffedLength(const uint8_t* bytes, int first, int last);

// The low byte of CalLRC over positions [first, last] with DLE doubling
// undone, leaving out the first `skip` and the last `drop` (0 to 2) of the
// kept bytes; 0 when nothing is left. Taken in place, without a copy.
uint8_t UnstuffedBlockCheck(const uint8_t* bytes, int first, int last, int skip, int drop);

#endif
