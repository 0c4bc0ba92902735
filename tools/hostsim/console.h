// The terminal's input: raw keys with a line editor of its own when the
// table is redrawn in place (typed text would otherwise be overwritten),
// plain lines otherwise.
#ifndef HOSTSIM_CONSOLE_H
#define HOSTSIM_CONSOLE_H

#include <cstddef>
#include <string>
#include <termios.h>
#include <vector>

namespace hostsim {

class Console {
public:
    // interactive: stdin is a terminal; ansi: the screen is redrawn in
    // place, so keys are read raw and echoed by the redraw. maxLength: the
    // longest line taken.
    Console(bool interactive, bool ansi, std::size_t maxLength);
    ~Console();
    Console(const Console&) = delete;
    Console& operator=(const Console&) = delete;

    // Gives the terminal its own settings back.
    void restore();

    bool interactive() const { return interactive_; }
    // The line being typed.
    const std::string& line() const { return line_; }

    // Reads what is there; returns complete lines. *eof when input ended.
    // A line longer than maxLength characters is not returned: it is
    // counted and left out whole, so a stuck key or pasted junk cannot fill
    // memory or run as a command cut short.
    std::vector<std::string> read(bool* eof);
    // Lines left out for their length since the last call.
    std::size_t takeOverlongLines();

private:
    void edit(unsigned char c, std::vector<std::string>* lines, bool* eof);
    void endLine(std::vector<std::string>* lines);

    bool interactive_;
    const std::size_t maxLength_;
    bool rawMode_ = false;
    bool escape_ = false;
    bool overlong_ = false;  // the line being typed passed maxLength
    std::size_t overlongLines_ = 0;
    termios saved_{};
    std::string line_;
};

}  // namespace hostsim

#endif
