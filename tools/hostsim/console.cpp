#include "console.h"

#include <unistd.h>

namespace hostsim {

namespace {

constexpr unsigned char kBackspace = 0x08;
constexpr unsigned char kDelete = 0x7F;
constexpr unsigned char kCtrlU = 0x15;  // erases the line
constexpr unsigned char kCtrlD = 0x04;  // ends input at the start of a line
constexpr unsigned char kEscape = 0x1B;

// The byte that ends an escape sequence (arrow keys and the like).
bool EndsEscape(unsigned char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '~';
}

}  // namespace

Console::Console(bool interactive, bool ansi, std::size_t maxLength)
    : interactive_(interactive), maxLength_(maxLength) {
    if (!interactive_ || !ansi || tcgetattr(STDIN_FILENO, &saved_) != 0) return;
    termios raw = saved_;
    raw.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
    raw.c_cc[VMIN] = 0;
    raw.c_cc[VTIME] = 0;
    if (tcsetattr(STDIN_FILENO, TCSANOW, &raw) == 0) rawMode_ = true;
}

Console::~Console() {
    restore();
}

void Console::restore() {
    if (rawMode_) tcsetattr(STDIN_FILENO, TCSANOW, &saved_);
    rawMode_ = false;
}

std::vector<std::string> Console::read(bool* eof) {
    std::vector<std::string> lines;
    char buffer[256];
    const ssize_t n = ::read(STDIN_FILENO, buffer, sizeof buffer);
    if (n == 0) {
        // End of input (a closed pipe, or Ctrl-D at the start of a line).
        *eof = true;
        return lines;
    }
    for (ssize_t i = 0; i < n; ++i) edit(static_cast<unsigned char>(buffer[i]), &lines, eof);
    return lines;
}

std::size_t Console::takeOverlongLines() {
    const std::size_t n = overlongLines_;
    overlongLines_ = 0;
    return n;
}

void Console::endLine(std::vector<std::string>* lines) {
    if (overlong_)
        ++overlongLines_;
    else
        lines->push_back(line_);
    line_.clear();
    overlong_ = false;
}

void Console::edit(unsigned char c, std::vector<std::string>* lines, bool* eof) {
    if (c == '\n' || c == '\r') {
        endLine(lines);
    } else if (c == kDelete || c == kBackspace) {
        if (!line_.empty() && !overlong_) line_.pop_back();
    } else if (c == kCtrlU) {
        line_.clear();
        overlong_ = false;
    } else if (c == kCtrlD) {
        if (line_.empty()) *eof = true;
    } else if (c == kEscape) {
        escape_ = true;
    } else if (escape_) {
        if (EndsEscape(c)) escape_ = false;
    } else if (c >= 0x20) {
        // Past the limit the line is dropped at once; only its end is
        // still waited for.
        if (line_.size() >= maxLength_) {
            overlong_ = true;
            line_.clear();
        }
        if (!overlong_) line_.push_back(static_cast<char>(c));
    }
}

}  // namespace hostsim
