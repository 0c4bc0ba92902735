#include "peer/numbers.h"

#include <cstddef>
#include <cstdint>

namespace peer {

namespace {
constexpr std::size_t kMaxDigits = 10;
}  // namespace

bool ParseDecimal(const std::string& text, unsigned long max, unsigned long* value) {
    if (text.empty() || text.size() > kMaxDigits) return false;
    // Summed in 64 bits: every text of kMaxDigits digits fits, so nothing
    // wraps before the maximum is checked, whatever the width of long (32
    // bits on the ARM panels).
    uint64_t v = 0;
    for (char c : text) {
        if (c < '0' || c > '9') return false;
        v = v * 10 + static_cast<uint64_t>(c - '0');
    }
    if (v > max) return false;
    *value = static_cast<unsigned long>(v);
    return true;
}

}  // namespace peer
