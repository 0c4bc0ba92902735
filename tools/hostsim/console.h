// The terminal's input: raw keys with a line editor of its own when the
// table is redrawn in place (typed text would otherwise be overwritten),
// plain lines otherwise.
#ifndef HOSTSIM_CONSOLE_H
#define HOSTSIM_CONSOLE_H

#include <string>
#include <termios.h>
#include <vector>

namespace hostsim {

class Console {
public:
    // interactive: stdin is a terminal; ansi: the screen is redrawn in
    // place, so keys are read raw and echoed by the redraw.
    Console(bool interactive, bool ansi);
    ~Console();
    Console(const Console&) = delete;
    Console& operator=(const Console&) = delete;

    // Gives the terminal its own settings back.
    void restore();

    bool interactive() const { return interactive_; }
    // The line being typed.
    const std::string& line() const { return line_; }

    // Reads what is there; returns complete lines. *eof when input ended.
    std::vector<std::string> read(bool* eof);

private:
    void edit(unsigned char c, std::vector<std::string>* lines, bool* eof);

    bool interactive_;
    bool rawMode_ = false;
    bool escape_ = false;
    termios saved_{};
    std::string line_;
};

}  // namespace hostsim

#endif
