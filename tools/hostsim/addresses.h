// Tag, write and read texts as an operator types them (N7:0 x10, B3:0/5=1,
// F8:1=2.5, read N7:10 x4), and their translation into what the plug-in
// takes: a data type, the plug-in's address text ("7:0", "3:0/5"), counts in
// the plug-in's units and value bytes.
#ifndef HOSTSIM_ADDRESSES_H
#define HOSTSIM_ADDRESSES_H

#include <cstdint>
#include <string>
#include <vector>

namespace hostsim {

// The plug-in's data types (the header's AbclDataType values).
constexpr int kBitA = 0;   // a bit of a B file
constexpr int kBitB = 1;   // a bit of an N file
constexpr int kWordA = 2;  // a 16-bit word of a B file
constexpr int kWordB = 3;  // a 16-bit word of an N file
constexpr int kReal = 4;   // a 32-bit REAL of an F file

// A file holds elements 0 to 255: the plug-in packs file x 256 + element, so a
// run past element 255 would continue in the next file.
constexpr int kElementsPerFile = 256;
constexpr int kMaxFileNumber = 200;  // the highest a tag name's digit can carry

// One run of elements: letter, file, element, optional bit, and how many.
struct TagAddress {
    char letter = 'N';  // 'B', 'N' or 'F'
    int file = 0;
    int element = 0;
    int bit = -1;   // -1: a word or REAL run; 0..15: a run of bits from this one
    int count = 1;  // elements (bits for a bit run, REALs for F)

    bool isBit() const { return bit >= 0; }
    int dataType() const;
    // The plug-in's address text: "7:0" or "7:0/5".
    std::string driverText() const;
    // The operator's form: "N7:0", "B3:0/5"; with " xN" when count is not 1.
    std::string display() const;
    // Words of the run in the local image (bits round up to whole words).
    int wordCount() const;
    // The packed index the plug-in gives this address: file x 256 + element
    // for words and REALs, (file x 256 + element) x 16 + bit for bits.
    int packedAddress() const;
};

// Parses "N7:0", "N7:0 x10", "N7:0x10", "B3:0/5", "b3:0/5 x8", "F8:0 x4".
// Returns false with an explanation for anything else, or for a run that
// leaves its file.
bool ParseTagAddress(const std::string& text, TagAddress* out, std::string* error);

// "N7:3=1234", "N7:3=1,2,3", "B3:0/5=1", "F8:1=2.5,-1e3".
struct WriteRequest {
    TagAddress address;          // count = number of values
    std::vector<int32_t> words;  // word and bit writes (bits: 0 or 1)
    std::vector<float> reals;    // REAL writes

    std::string display() const;  // "N7:3=1234"
};
bool ParseWriteRequest(const std::string& text, WriteRequest* out, std::string* error);

// Little-endian value bytes of one word/bit run as the plug-in takes them:
// two bytes per word, one byte per bit.
std::vector<uint8_t> WriteBytes(const WriteRequest& request);
// The four bytes of one REAL, least significant first.
std::vector<uint8_t> RealBytes(float value);
float RealFromBytes(const uint8_t* bytes);

// Trims blanks at both ends.
std::string Trim(const std::string& text);

}  // namespace hostsim

#endif
