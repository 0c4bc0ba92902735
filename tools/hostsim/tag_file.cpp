// Tag files, read within limits: whatever path is named (a device, a binary,
// a file of one endless line) ends in a reason, never in memory running out.
#include "options.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace hostsim {

namespace {

// Bytes taken from the file per read.
constexpr std::size_t kReadChunk = 65536;
constexpr char kComment = '#';

std::string ByteText(unsigned char c) {
    char text[8];
    std::snprintf(text, sizeof text, "0x%02X", c);
    return text;
}

// A byte no tag file of text holds: control characters other than tab,
// carriage return and line feed.
bool IsBinary(unsigned char c) {
    return (c < 0x20 && c != '\t' && c != '\r' && c != '\n') || c == 0x7F;
}

// Cuts the bytes into lines and the lines into tags, refusing at the first
// limit passed.
class TagFileReader {
public:
    TagFileReader(const std::string& path, std::vector<TagAddress>* tags)
        : path_(path), tags_(tags) {}

    // One chunk of the file; false with the reason in error().
    bool take(const char* bytes, std::size_t n) {
        total_ += n;
        if (total_ > kMaxTagFileBytes)
            return refuse(path_ + ": larger than " + std::to_string(kMaxTagFileBytes) + " bytes");
        for (std::size_t i = 0; i < n; ++i)
            if (!takeByte(static_cast<unsigned char>(bytes[i]))) return false;
        return true;
    }
    // The end of the file: a last line without a line feed still counts.
    bool finish() { return line_.empty() || endLine(); }
    const std::string& error() const { return error_; }

private:
    bool takeByte(unsigned char c) {
        if (c == '\n') return endLine();
        if (IsBinary(c)) return refuse(where() + "not a text file (byte " + ByteText(c) + ")");
        if (line_.size() >= kMaxLineLength)
            return refuse(where() + "line longer than " + std::to_string(kMaxLineLength) +
                          " characters");
        line_.push_back(static_cast<char>(c));
        return true;
    }
    bool endLine() {
        std::string text = line_;
        line_.clear();
        const std::size_t hash = text.find(kComment);
        if (hash != std::string::npos) text.erase(hash);
        text = Trim(text);
        if (text.empty()) return nextLine();
        TagAddress a;
        std::string why;
        if (!ParseTagAddress(text, &a, &why)) return refuse(where() + why);
        if (tags_->size() >= kMaxTags)
            return refuse(path_ + ": more than " + std::to_string(kMaxTags) + " tags");
        tags_->push_back(a);
        return nextLine();
    }
    bool nextLine() {
        ++number_;
        return true;
    }
    // "PATH:LINE: " for the line being read.
    std::string where() const { return path_ + ":" + std::to_string(number_) + ": "; }
    bool refuse(const std::string& why) {
        error_ = why;
        return false;
    }

    const std::string& path_;
    std::vector<TagAddress>* tags_;
    std::string line_;
    std::size_t total_ = 0;
    int number_ = 1;  // the line being read
    std::string error_;
};

}  // namespace

bool ReadTagFile(const std::string& path, std::vector<TagAddress>* tags, std::string* error) {
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        if (error) *error = "cannot read tag file " + path + ": " + std::strerror(errno);
        return false;
    }
    TagFileReader reader(path, tags);
    std::vector<char> buffer(kReadChunk);
    bool ok = true;
    for (;;) {
        const ssize_t n = read(fd, buffer.data(), buffer.size());
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            if (error) *error = "cannot read tag file " + path + ": " + std::strerror(errno);
            close(fd);
            return false;
        }
        if (n == 0) break;
        ok = reader.take(buffer.data(), static_cast<std::size_t>(n));
        if (!ok) break;
    }
    close(fd);
    if (ok) ok = reader.finish();
    if (!ok && error) *error = reader.error();
    return ok;
}

}  // namespace hostsim
