#include "commands.h"

namespace hostsim {

const char kPromptHelp[] =
    "commands: N7:3=1234 | N7:3=1,2,3 | B3:0/5=1 | F8:1=2.5 | read N7:10 x4 | tag N7:20 x2 | quit";

namespace {

// The text after "word " when command starts with that word and a blank.
bool ArgumentOf(const std::string& command, const std::string& word, std::string* argument) {
    const std::size_t n = word.size();
    if (command.compare(0, n, word) != 0 || command.size() <= n || command[n] != ' ') return false;
    *argument = command.substr(n + 1);
    return true;
}

// "read ADDRESS" queues a one-shot read, "tag ADDRESS" adds a tag.
void ReadOrAddTag(Host& host, bool read, const std::string& address) {
    std::string message;
    TagAddress a;
    if (ParseTagAddress(address, &a, &message)) {
        if (read)
            host.queueRead(a, &message);
        else
            host.addTag(a, &message);
    }
    host.note(message);
}

}  // namespace

bool Execute(Host& host, const std::string& line) {
    const std::string command = Trim(line);
    if (command.empty()) return true;
    if (command == "quit" || command == "exit" || command == "q") return false;
    if (command == "help" || command == "?") {
        host.note(kPromptHelp);
        return true;
    }
    std::string argument;
    if (ArgumentOf(command, "read", &argument) || ArgumentOf(command, "tag", &argument)) {
        ReadOrAddTag(host, command[0] == 'r', argument);
        return true;
    }
    if (command.find('=') != std::string::npos) {
        std::string message;
        WriteRequest w;
        if (ParseWriteRequest(command, &w, &message)) host.queueWrite(w, &message);
        host.note(message);
        return true;
    }
    host.note("unknown command '" + command + "'; " + kPromptHelp);
    return true;
}

}  // namespace hostsim
