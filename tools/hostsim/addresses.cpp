#include "addresses.h"

#include <cctype>
#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <sstream>

namespace hostsim {

namespace {

bool IsBlank(char c) {
    return c == ' ' || c == '\t';
}

// Reads decimal digits at text[*pos]; false when there are none or the number
// exceeds limit.
bool ReadNumber(const std::string& text, std::size_t* pos, long limit, long* value) {
    std::size_t p = *pos;
    long v = 0;
    if (p >= text.size() || !std::isdigit(static_cast<unsigned char>(text[p]))) return false;
    while (p < text.size() && std::isdigit(static_cast<unsigned char>(text[p]))) {
        v = v * 10 + (text[p] - '0');
        if (v > limit) return false;
        ++p;
    }
    *pos = p;
    *value = v;
    return true;
}

bool Fail(std::string* error, const std::string& text, const std::string& why) {
    if (error) *error = "invalid address '" + text + "': " + why;
    return false;
}

// Parses letter, file, ':' element and an optional "/bit"; leaves *pos after
// them. count is not touched.
bool ParseLocation(const std::string& text, std::size_t* pos, TagAddress* out, std::string* error) {
    std::size_t p = *pos;
    if (p >= text.size()) return Fail(error, text, "empty");
    const char letter = static_cast<char>(std::toupper(static_cast<unsigned char>(text[p])));
    if (letter != 'B' && letter != 'N' && letter != 'F')
        return Fail(error, text, "the file letter must be B, N or F");
    ++p;
    long file = 0;
    if (!ReadNumber(text, &p, kMaxFileNumber, &file))
        return Fail(
            error, text,
            "expected a file number 0 to " + std::to_string(kMaxFileNumber) + " after the letter");
    if (p >= text.size() || text[p] != ':')
        return Fail(error, text, "expected ':' after the file number");
    ++p;
    long element = 0;
    if (!ReadNumber(text, &p, kElementsPerFile - 1, &element))
        return Fail(error, text, "expected an element number 0 to 255 after ':'");
    int bit = -1;
    if (p < text.size() && text[p] == '/') {
        if (letter == 'F') return Fail(error, text, "REAL (F) elements have no bits");
        ++p;
        long b = 0;
        if (!ReadNumber(text, &p, 15, &b))
            return Fail(error, text, "expected a bit number 0 to 15 after '/'");
        bit = static_cast<int>(b);
    }
    out->letter = letter;
    out->file = static_cast<int>(file);
    out->element = static_cast<int>(element);
    out->bit = bit;
    *pos = p;
    return true;
}

bool CheckRunFitsFile(const std::string& text, const TagAddress& a, std::string* error) {
    const long last = static_cast<long>(a.element) + a.wordCount();
    if (last > kElementsPerFile)
        return Fail(error, text,
                    "the run goes past element 255 of its file (the plug-in would carry it "
                    "into the next file)");
    return true;
}

}  // namespace

std::string Trim(const std::string& text) {
    std::size_t b = 0, e = text.size();
    while (b < e && std::isspace(static_cast<unsigned char>(text[b]))) ++b;
    while (e > b && std::isspace(static_cast<unsigned char>(text[e - 1]))) --e;
    return text.substr(b, e - b);
}

int TagAddress::dataType() const {
    if (letter == 'F') return kReal;
    if (letter == 'B') return isBit() ? kBitA : kWordA;
    return isBit() ? kBitB : kWordB;
}

std::string TagAddress::driverText() const {
    std::string t = std::to_string(file) + ":" + std::to_string(element);
    if (isBit()) t += "/" + std::to_string(bit);
    return t;
}

std::string TagAddress::display() const {
    std::string t(1, letter);
    t += driverText();
    if (count != 1) t += " x" + std::to_string(count);
    return t;
}

int TagAddress::wordCount() const {
    if (isBit()) return (bit + count + 15) / 16;
    return count;
}

int TagAddress::packedAddress() const {
    const int word = file * kElementsPerFile + element;
    return isBit() ? word * 16 + bit : word;
}

bool ParseTagAddress(const std::string& raw, TagAddress* out, std::string* error) {
    const std::string text = Trim(raw);
    TagAddress a;
    std::size_t p = 0;
    if (!ParseLocation(text, &p, &a, error)) return false;
    while (p < text.size() && IsBlank(text[p])) ++p;
    if (p < text.size()) {
        if (text[p] != 'x' && text[p] != 'X')
            return Fail(error, text,
                        "unexpected '" + text.substr(p) + "' (a count is written x10)");
        ++p;
        long count = 0;
        if (!ReadNumber(text, &p, 65535, &count) || count < 1)
            return Fail(error, text, "expected a count of at least 1 after 'x'");
        a.count = static_cast<int>(count);
        while (p < text.size() && IsBlank(text[p])) ++p;
        if (p < text.size()) return Fail(error, text, "unexpected '" + text.substr(p) + "'");
    }
    if (!CheckRunFitsFile(text, a, error)) return false;
    *out = a;
    return true;
}

std::string WriteRequest::display() const {
    std::ostringstream s;
    TagAddress one = address;
    one.count = 1;
    s << one.display() << "=";
    if (address.letter == 'F') {
        for (std::size_t i = 0; i < reals.size(); ++i) s << (i ? "," : "") << reals[i];
    } else {
        for (std::size_t i = 0; i < words.size(); ++i) s << (i ? "," : "") << words[i];
    }
    return s.str();
}

bool ParseWriteRequest(const std::string& raw, WriteRequest* out, std::string* error) {
    const std::string text = Trim(raw);
    const std::size_t eq = text.find('=');
    if (eq == std::string::npos) {
        if (error) *error = "invalid write '" + text + "': expected ADDRESS=VALUE, e.g. N7:3=1234";
        return false;
    }
    const std::string location = Trim(text.substr(0, eq));
    WriteRequest w;
    std::size_t p = 0;
    if (!ParseLocation(location, &p, &w.address, error)) return false;
    if (p != location.size())
        return Fail(error, location, "unexpected '" + location.substr(p) + "' before '='");

    std::string values = text.substr(eq + 1);
    std::vector<std::string> pieces;
    std::size_t start = 0;
    while (true) {
        const std::size_t comma = values.find(',', start);
        pieces.push_back(Trim(
            values.substr(start, comma == std::string::npos ? std::string::npos : comma - start)));
        if (comma == std::string::npos) break;
        start = comma + 1;
    }
    for (const std::string& piece : pieces) {
        const auto bad = [&](const std::string& why) {
            if (error) *error = "invalid value '" + piece + "' in '" + text + "': " + why;
            return false;
        };
        if (piece.empty()) return bad("empty value");
        char* end = nullptr;
        errno = 0;
        if (w.address.letter == 'F') {
            const float v = std::strtof(piece.c_str(), &end);
            if (*end != '\0' || errno == ERANGE || !std::isfinite(v))
                return bad("expected a finite number such as 2.5");
            w.reals.push_back(v);
        } else {
            const long v = std::strtol(piece.c_str(), &end, 0);
            if (*end != '\0' || errno == ERANGE) return bad("expected an integer");
            if (w.address.isBit() && v != 0 && v != 1) return bad("a bit takes 0 or 1");
            if (!w.address.isBit() && (v < -32768 || v > 65535))
                return bad("a 16-bit word takes -32768 to 65535");
            w.words.push_back(static_cast<int32_t>(v));
        }
    }
    w.address.count = static_cast<int>(pieces.size());
    if (!CheckRunFitsFile(location, w.address, error)) return false;
    *out = w;
    return true;
}

std::vector<uint8_t> WriteBytes(const WriteRequest& request) {
    std::vector<uint8_t> bytes;
    for (int32_t v : request.words) {
        if (request.address.isBit()) {
            bytes.push_back(static_cast<uint8_t>(v));
        } else {
            const uint16_t word = static_cast<uint16_t>(v);
            bytes.push_back(static_cast<uint8_t>(word & 0xFF));
            bytes.push_back(static_cast<uint8_t>(word >> 8));
        }
    }
    return bytes;
}

std::vector<uint8_t> RealBytes(float value) {
    uint32_t bits = 0;
    static_assert(sizeof(bits) == sizeof(value), "REAL is 32 bits");
    std::memcpy(&bits, &value, sizeof(bits));
    return {static_cast<uint8_t>(bits), static_cast<uint8_t>(bits >> 8),
            static_cast<uint8_t>(bits >> 16), static_cast<uint8_t>(bits >> 24)};
}

float RealFromBytes(const uint8_t* bytes) {
    const uint32_t bits = static_cast<uint32_t>(bytes[0]) | (static_cast<uint32_t>(bytes[1]) << 8) |
                          (static_cast<uint32_t>(bytes[2]) << 16) |
                          (static_cast<uint32_t>(bytes[3]) << 24);
    float value = 0;
    std::memcpy(&value, &bits, sizeof(value));
    return value;
}

}  // namespace hostsim
