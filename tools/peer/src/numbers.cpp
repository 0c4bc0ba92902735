#include "peer/numbers.h"

#include <cstddef>
#include <cstdint>

namespace peer {

namespace {

constexpr char kMinus = '-';

bool IsDigit(char c) {
    return c >= '0' && c <= '9';
}

// The digits of text from index first as a magnitude no larger than limit;
// false for an empty run, a non-digit or a magnitude past limit. Each step
// is checked before it is taken, so nothing wraps however long the text.
bool ReadMagnitude(const std::string& text, std::size_t first, uint64_t limit, uint64_t* out) {
    if (first >= text.size()) return false;
    uint64_t v = 0;
    for (std::size_t i = first; i < text.size(); ++i) {
        if (!IsDigit(text[i])) return false;
        const uint64_t digit = static_cast<uint64_t>(text[i] - '0');
        // v * 10 + digit <= limit, written so that nothing can wrap.
        if (digit > limit || v > (limit - digit) / 10) return false;
        v = v * 10 + digit;
    }
    *out = v;
    return true;
}

// The magnitude of a negative 64-bit number, INT64_MIN included.
uint64_t NegativeMagnitude(int64_t n) {
    return static_cast<uint64_t>(-(n + 1)) + 1;
}

}  // namespace

bool ParseInteger(const std::string& text, int64_t min, int64_t max, int64_t* value) {
    if (min > max || text.empty()) return false;
    const bool negative = text[0] == kMinus;
    uint64_t magnitude = 0;
    if (!negative) {
        if (max < 0 || !ReadMagnitude(text, 0, static_cast<uint64_t>(max), &magnitude))
            return false;
        const int64_t v = static_cast<int64_t>(magnitude);
        if (v < min) return false;
        *value = v;
        return true;
    }
    // A sign only where negative numbers are allowed: "-0" for a count is a
    // typing error, not a zero.
    if (min >= 0 || !ReadMagnitude(text, 1, NegativeMagnitude(min), &magnitude)) return false;
    const int64_t v = magnitude == 0 ? 0 : -static_cast<int64_t>(magnitude - 1) - 1;
    if (v > max) return false;
    *value = v;
    return true;
}

bool ParseDecimal(const std::string& text, unsigned long max, unsigned long* value) {
    // No sign at all: an unsigned value is written with digits alone.
    if (text.empty() || !IsDigit(text[0])) return false;
    const uint64_t limit = static_cast<uint64_t>(max);
    uint64_t v = 0;
    if (!ReadMagnitude(text, 0, limit, &v)) return false;
    *value = static_cast<unsigned long>(v);
    return true;
}

}  // namespace peer
