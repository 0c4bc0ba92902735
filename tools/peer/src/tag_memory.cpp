#include "peer/tag_memory.h"

#include "peer/df1.h"
#include "peer/numbers.h"

#include <cstring>

namespace peer {

namespace {

bool ValidLetter(char letter) {
    return letter == 'B' || letter == 'N' || letter == 'F';
}

bool ValidFile(const DataFile& file) {
    return ValidLetter(file.letter) && file.number >= 0 && file.number <= kMaxFileNumber &&
           file.elements >= 1 && file.elements <= kMaxFileElements;
}

}  // namespace

std::size_t ElementSize(char letter) {
    switch (letter) {
        case 'B':
        case 'N': return 2;
        case 'F': return 4;
        default: return 0;
    }
}

uint16_t ElementType(char letter) {
    switch (letter) {
        case 'B':
        case 'N': return cip::kTypeInt;
        case 'F': return cip::kTypeReal;
        default: return 0;
    }
}

bool ParseDataFile(const std::string& text, DataFile* file, std::string* error) {
    auto fail = [&](const std::string& why) {
        if (error) *error = "bad file '" + text + "': " + why;
        return false;
    };
    if (text.size() < 4) return fail("expected LETTER NUMBER ':' ELEMENTS, such as N7:256");
    const char letter = text[0];
    if (!ValidLetter(letter)) return fail("the letter must be B, N or F");
    const auto colon = text.find(':');
    if (colon == std::string::npos) return fail("missing ':' before the element count");
    unsigned long number = 0;
    unsigned long elements = 0;
    if (!ParseDecimal(text.substr(1, colon - 1), kMaxFileNumber, &number))
        return fail("the file number must be 0 to " + std::to_string(kMaxFileNumber));
    if (!ParseDecimal(text.substr(colon + 1), kMaxFileElements, &elements) || elements < 1)
        return fail("the element count must be 1 to " + std::to_string(kMaxFileElements));
    file->letter = letter;
    file->number = static_cast<int>(number);
    file->elements = static_cast<std::size_t>(elements);
    return true;
}

std::vector<DataFile> TagMemory::DefaultLayout() {
    std::vector<DataFile> files;
    for (const profile::FileSpec& f : profile::kDefaultFiles)
        files.push_back({f.letter, f.file, f.elements});
    return files;
}

TagMemory::TagMemory() : TagMemory(DefaultLayout()) {}

TagMemory::TagMemory(const std::vector<DataFile>& layout) {
    for (const auto& file : layout) {
        if (!ValidFile(file)) continue;
        files_[{file.letter, file.number}] =
            std::vector<uint8_t>(file.elements * ElementSize(file.letter), 0);
    }
}

std::vector<DataFile> TagMemory::layout() const {
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<DataFile> out;
    for (const auto& [key, bytes] : files_)
        out.push_back({key.first, key.second, bytes.size() / ElementSize(key.first)});
    return out;
}

std::vector<uint8_t>* TagMemory::find(char letter, int file) {
    auto it = files_.find({letter, file});
    return it == files_.end() ? nullptr : &it->second;
}

const std::vector<uint8_t>* TagMemory::find(char letter, int file) const {
    auto it = files_.find({letter, file});
    return it == files_.end() ? nullptr : &it->second;
}

std::optional<std::size_t> TagMemory::elementCount(char letter, int file) const {
    std::lock_guard<std::mutex> lock(mutex_);
    const auto* bytes = find(letter, file);
    if (!bytes) return std::nullopt;
    return bytes->size() / ElementSize(letter);
}

Access TagMemory::read(char letter, int file, std::size_t byteOffset, std::size_t n,
                       std::vector<uint8_t>* out) const {
    std::lock_guard<std::mutex> lock(mutex_);
    const auto* bytes = find(letter, file);
    if (!bytes) return Access::kNoSuchFile;
    if (byteOffset > bytes->size() || n > bytes->size() - byteOffset) return Access::kOutOfRange;
    out->insert(out->end(), bytes->begin() + static_cast<std::ptrdiff_t>(byteOffset),
                bytes->begin() + static_cast<std::ptrdiff_t>(byteOffset + n));
    return Access::kOk;
}

Access TagMemory::write(char letter, int file, std::size_t byteOffset, const uint8_t* data,
                        std::size_t n) {
    std::lock_guard<std::mutex> lock(mutex_);
    auto* bytes = find(letter, file);
    if (!bytes) return Access::kNoSuchFile;
    if (byteOffset > bytes->size() || n > bytes->size() - byteOffset) return Access::kOutOfRange;
    if (n) std::memcpy(bytes->data() + byteOffset, data, n);
    return Access::kOk;
}

Access TagMemory::modifyWord(char letter, int file, std::size_t element, uint16_t orMask,
                             uint16_t andMask) {
    std::lock_guard<std::mutex> lock(mutex_);
    auto* bytes = find(letter, file);
    if (!bytes) return Access::kNoSuchFile;
    if (ElementSize(letter) != 2 || element >= bytes->size() / 2) return Access::kOutOfRange;
    const auto old =
        static_cast<uint16_t>((*bytes)[2 * element] | ((*bytes)[2 * element + 1] << 8));
    const auto value = static_cast<uint16_t>((old | orMask) & andMask);
    (*bytes)[2 * element] = static_cast<uint8_t>(value & 0xFF);
    (*bytes)[2 * element + 1] = static_cast<uint8_t>(value >> 8);
    return Access::kOk;
}

std::optional<uint16_t> TagMemory::wordLocked(char letter, int file, std::size_t element) const {
    const auto* bytes = find(letter, file);
    if (!bytes || ElementSize(letter) != 2 || element >= bytes->size() / 2) return std::nullopt;
    return static_cast<uint16_t>((*bytes)[2 * element] | ((*bytes)[2 * element + 1] << 8));
}

void TagMemory::setWordLocked(char letter, int file, std::size_t element, uint16_t value) {
    auto* bytes = find(letter, file);
    if (!bytes || ElementSize(letter) != 2 || element >= bytes->size() / 2) return;
    (*bytes)[2 * element] = static_cast<uint8_t>(value & 0xFF);
    (*bytes)[2 * element + 1] = static_cast<uint8_t>(value >> 8);
}

std::optional<uint16_t> TagMemory::word(char letter, int file, std::size_t element) const {
    std::lock_guard<std::mutex> lock(mutex_);
    return wordLocked(letter, file, element);
}

bool TagMemory::setWord(char letter, int file, std::size_t element, uint16_t value) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!wordLocked(letter, file, element)) return false;
    setWordLocked(letter, file, element, value);
    return true;
}

std::optional<float> TagMemory::real(int file, std::size_t element) const {
    std::lock_guard<std::mutex> lock(mutex_);
    const auto* bytes = find('F', file);
    if (!bytes || element >= bytes->size() / 4) return std::nullopt;
    uint32_t bits = 0;
    for (int i = 3; i >= 0; --i)
        bits = (bits << 8) | (*bytes)[4 * element + static_cast<std::size_t>(i)];
    float value;
    std::memcpy(&value, &bits, sizeof value);
    return value;
}

bool TagMemory::setReal(int file, std::size_t element, float value) {
    std::lock_guard<std::mutex> lock(mutex_);
    auto* bytes = find('F', file);
    if (!bytes || element >= bytes->size() / 4) return false;
    uint32_t bits;
    std::memcpy(&bits, &value, sizeof bits);
    for (std::size_t i = 0; i < 4; ++i)
        (*bytes)[4 * element + i] = static_cast<uint8_t>(bits >> (8 * i));
    return true;
}

std::optional<bool> TagMemory::bit(char letter, int file, std::size_t element,
                                   int bitNumber) const {
    if (bitNumber < 0 || bitNumber > 15) return std::nullopt;
    auto w = word(letter, file, element);
    if (!w) return std::nullopt;
    return ((*w >> bitNumber) & 1) != 0;
}

bool TagMemory::setBit(char letter, int file, std::size_t element, int bitNumber, bool value) {
    if (bitNumber < 0 || bitNumber > 15) return false;
    const auto mask = static_cast<uint16_t>(1u << bitNumber);
    return modifyWord(letter, file, element, value ? mask : 0,
                      value ? 0xFFFF : static_cast<uint16_t>(~mask)) == Access::kOk;
}

void TagMemory::setLiveTags(const LiveTags& live) {
    std::lock_guard<std::mutex> lock(mutex_);
    live_ = live;
}

LiveTags TagMemory::liveTags() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return live_;
}

uint64_t TagMemory::tickedMs() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return ticked_;
}

void TagMemory::tick(uint32_t ms) {
    std::lock_guard<std::mutex> lock(mutex_);
    const uint64_t before = ticked_;
    ticked_ += ms;
    if (!live_.enabled) return;

    // Boundaries crossed since the last tick, so uneven tick sizes give the
    // same values as even ones for the same total time.
    const uint64_t seconds = ticked_ / 1000 - before / 1000;
    if (seconds) {
        if (auto w = wordLocked(live_.counterLetter, live_.counterFile, live_.counterElement))
            setWordLocked(live_.counterLetter, live_.counterFile, live_.counterElement,
                          static_cast<uint16_t>(*w + seconds));
    }
    const uint64_t halves = ticked_ / 500 - before / 500;
    if (halves % 2) {
        if (auto w = wordLocked(live_.toggleLetter, live_.toggleFile, live_.toggleElement))
            setWordLocked(live_.toggleLetter, live_.toggleFile, live_.toggleElement,
                          static_cast<uint16_t>(*w ^ 1u));
    }
    auto* ramp = find('F', live_.rampFile);
    if (ramp && live_.rampElement < ramp->size() / 4) {
        const float value = static_cast<float>(ticked_ % 10000) / 100.0f;
        uint32_t bits;
        std::memcpy(&bits, &value, sizeof bits);
        for (std::size_t i = 0; i < 4; ++i)
            (*ramp)[4 * live_.rampElement + i] = static_cast<uint8_t>(bits >> (8 * i));
    }
}

}  // namespace peer
