// The controller's data table: B and N files of 16-bit INT elements and F
// files of 32-bit REAL elements, each a named tag (B003, N007, F008, ...).
#ifndef PEER_TAG_MEMORY_H
#define PEER_TAG_MEMORY_H

#include "peer/profile.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace peer {

// One data file: its letter ('B', 'N' or 'F'), its number and its size in
// elements.
struct DataFile {
    char letter = 'N';
    int number = 0;
    std::size_t elements = 0;
};

// The largest file number a tag name can carry: the last name character runs
// '0'..'9' then 'A' upwards to 0xFF, which is 200.
constexpr int kMaxFileNumber = 200;
constexpr std::size_t kMaxFileElements = 65535;

// Parses "N7:256" (letter, file number, element count). Returns false and an
// explanation for anything else.
bool ParseDataFile(const std::string& text, DataFile* file, std::string* error);

// Bytes per element of a file kind: 2 for 'B' and 'N', 4 for 'F', 0 for any
// other letter.
std::size_t ElementSize(char letter);

// The CIP data type code of a file kind's elements (INT or REAL); 0 for an
// unknown letter.
uint16_t ElementType(char letter);

// Tags that change by themselves when the memory is ticked, so a screen shows
// life. Each is skipped when its file does not exist or is too small.
struct LiveTags {
    bool enabled = true;
    // Counts whole seconds of ticked time (adds to whatever was written).
    char counterLetter = profile::kCounterLetter;
    int counterFile = profile::kCounterFile;
    std::size_t counterElement = profile::kCounterElement;
    // Flips bit 0 of this word every 500 ms of ticked time.
    char toggleLetter = profile::kToggleLetter;
    int toggleFile = profile::kToggleFile;
    std::size_t toggleElement = profile::kToggleElement;
    // A REAL ramp: 0.0 rising to 99.99 over 10 s of ticked time, then again.
    int rampFile = profile::kRampFile;
    std::size_t rampElement = profile::kRampElement;
};

// Result of an access by the protocol side.
enum class Access {
    kOk,
    kNoSuchFile,  // no file with that letter and number
    kOutOfRange,  // the bytes asked for run past the end of the file
};

// Thread-safe: every member may be called from any thread; each call is
// atomic with respect to the others. Values are stored little-endian, as CIP
// carries them.
class TagMemory {
public:
    // B3, N7, F8, F9 and N10, 256 elements each, all zero.
    TagMemory();
    // Files as given; a later entry for the same letter and number replaces an
    // earlier one. Specs with a bad letter, a file number outside 0..200 or
    // a size outside 1..65535 are skipped (ParseDataFile rejects them first).
    explicit TagMemory(const std::vector<DataFile>& layout);

    static std::vector<DataFile> DefaultLayout();

    std::vector<DataFile> layout() const;
    // Element count of a file, or nothing when there is no such file.
    std::optional<std::size_t> elementCount(char letter, int file) const;

    // Byte-level access used by the CIP services: byteOffset counts from the
    // file's first element. A read of n bytes appends them to *out.
    Access read(char letter, int file, std::size_t byteOffset, std::size_t n,
                std::vector<uint8_t>* out) const;
    Access write(char letter, int file, std::size_t byteOffset, const uint8_t* bytes,
                 std::size_t n);
    // new = (old | orMask) & andMask on one 16-bit element, in one step.
    Access modifyWord(char letter, int file, std::size_t element, uint16_t orMask,
                      uint16_t andMask);

    // Element conveniences for tests and for whoever pokes values.
    std::optional<uint16_t> word(char letter, int file, std::size_t element) const;
    bool setWord(char letter, int file, std::size_t element, uint16_t value);
    std::optional<float> real(int file, std::size_t element) const;
    bool setReal(int file, std::size_t element, float value);
    std::optional<bool> bit(char letter, int file, std::size_t element, int bitNumber) const;
    bool setBit(char letter, int file, std::size_t element, int bitNumber, bool value);

    // Advances the live tags by ms milliseconds of simulated time. Nothing
    // else changes memory by itself; the same ticks give the same values.
    void tick(uint32_t ms);
    void setLiveTags(const LiveTags& live);
    LiveTags liveTags() const;
    uint64_t tickedMs() const;

private:
    using Key = std::pair<char, int>;
    std::vector<uint8_t>* find(char letter, int file);
    const std::vector<uint8_t>* find(char letter, int file) const;
    void setWordLocked(char letter, int file, std::size_t element, uint16_t value);
    std::optional<uint16_t> wordLocked(char letter, int file, std::size_t element) const;

    mutable std::mutex mutex_;
    std::map<Key, std::vector<uint8_t>> files_;
    LiveTags live_;
    uint64_t ticked_ = 0;
};

}  // namespace peer

#endif
