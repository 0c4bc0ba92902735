// Shared pieces of the fuzz targets: reading typed values off the front of an
// input, checks that stop the run with a message and the driver's reset.
// Replies that are to pass the envelope and block check are framed by the
// peer library (reply_builder.h).
//
// The targets build with libFuzzer (clang, -fsanitize=fuzzer) and, for the
// corpus replay in the test suite, with any compiler and replay_main.cpp.
#ifndef ABCL_FUZZ_SUPPORT_H
#define ABCL_FUZZ_SUPPORT_H

#include "ab_controllogix_compactlogix.h"
#include "ab_controllogix_compactlogix_p.h"
#include "fresh_driver.h"
#include "reply_builder.h"

#include <QtCore/QByteArray>
#include <QtCore/QString>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace fuzz {

// Stops the run: libFuzzer records the input as a crash, the replay fails.
[[noreturn]] inline void Fail(const char* file, int line, const char* what) {
    std::fprintf(stderr, "%s:%d: invariant broken: %s\n", file, line, what);
    std::fflush(stderr);
    std::abort();
}

#define FUZZ_CHECK(condition)                                           \
    do {                                                                \
        if (!(condition)) ::fuzz::Fail(__FILE__, __LINE__, #condition); \
    } while (0)

// Typed values taken from the front of the input; an exhausted input reads 0.
class Input {
public:
    Input(const uint8_t* data, size_t size) : data_(data), size_(size) {}

    size_t remaining() const { return size_ - pos_; }
    bool empty() const { return pos_ >= size_; }

    uint8_t u8() { return pos_ < size_ ? data_[pos_++] : 0; }
    uint16_t u16() {
        const uint16_t lo = u8();
        return static_cast<uint16_t>(lo | (u8() << 8));
    }
    int16_t i16() { return static_cast<int16_t>(u16()); }
    int32_t i32() {
        uint32_t v = 0;
        for (int i = 0; i < 4; ++i) v |= static_cast<uint32_t>(u8()) << (8 * i);
        return static_cast<int32_t>(v);
    }
    // Up to n bytes, fewer when the input ends first.
    QByteArray bytes(size_t n) {
        const size_t take = n < remaining() ? n : remaining();
        QByteArray out(reinterpret_cast<const char*>(data_ + pos_), static_cast<int>(take));
        pos_ += take;
        return out;
    }
    QByteArray rest() { return bytes(remaining()); }

private:
    const uint8_t* data_;
    size_t size_;
    size_t pos_ = 0;
};

// A text made of raw bytes, read as Latin-1 or as UTF-8 (where malformed
// sequences become replacement characters).
inline QString Text(const QByteArray& raw, bool latin1) {
    return latin1 ? QString::fromLatin1(raw) : QString::fromUtf8(raw);
}

inline int32_t Clamp(int64_t v, int64_t lo, int64_t hi) {
    return static_cast<int32_t>(v < lo ? lo : (v > hi ? hi : v));
}

// Two's complement wrap of a 64-bit value to 32 bits.
inline int32_t Wrap32(int64_t v) {
    return static_cast<int32_t>(static_cast<uint32_t>(v));
}

// The settings record every target hands the driver; it outlives each input.
inline ComInfo& Settings() {
    static ComInfo info;
    return info;
}

// The driver as right after loading; the transaction number is fixed so that
// a run does not depend on the time of day.
inline ComInfo& ResetDriver(int maxCount = 32) {
    ComInfo& info = Settings();
    WireFreshDriver(info, maxCount);
    return info;
}

using replies::Framed;
using replies::kDle;

}  // namespace fuzz

#endif
