#include "display.h"

#include <algorithm>
#include <cstdio>
#include <sys/ioctl.h>
#include <unistd.h>
#include <utility>

namespace hostsim {

namespace {

// Columns and rows of the terminal (100 x 30 when it does not say).
std::pair<std::size_t, std::size_t> TerminalSize() {
    winsize ws{};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &ws) == 0 && ws.ws_col > 0 && ws.ws_row > 0)
        return {ws.ws_col, ws.ws_row};
    return {100, 30};
}

std::string Printed(const char* format, double value) {
    char text[32];
    std::snprintf(text, sizeof text, format, value);
    return text;
}

std::string WordText(char letter, uint16_t word) {
    if (letter == 'N') return std::to_string(static_cast<int16_t>(word));
    char text[16];
    std::snprintf(text, sizeof text, "0x%04X", word);
    return text;
}

// Value i of a tag, or "?" when the bytes end before it.
std::string ValueText(const TagAddress& tag, const uint8_t* b, int n, int i) {
    if (tag.isBit()) return i < n ? std::to_string(b[i]) : "?";
    if (tag.letter == 'F')
        return 4 * i + 3 < n ? Printed("%g", static_cast<double>(RealFromBytes(b + 4 * i))) : "?";
    if (2 * i + 1 >= n) return "?";
    return WordText(tag.letter, static_cast<uint16_t>(b[2 * i] | (b[2 * i + 1] << 8)));
}

std::string Padded(std::string text, std::size_t width) {
    if (text.size() < width) text.append(width - text.size(), ' ');
    return text;
}

std::string ResultColumn(const TagView& t) {
    // The exchange that learns the length failed.
    if (t.lastResult == 0 && t.learning) return "0 no length yet";
    if (t.lastResult != INT_MIN)
        return std::to_string(t.lastResult) + " " + ResultText(t.lastResult);
    return "-";
}

// The table rows that fit in room lines; a last row says how many did not.
std::vector<std::string> FittedTable(const Snapshot& s, std::size_t width, std::size_t* room) {
    std::vector<std::string> table = TableRows(s, width);
    if (table.size() <= *room) {
        *room -= table.size();
        return table;
    }
    const std::size_t shown = *room > 1 ? *room - 1 : 0;
    const std::size_t hidden = table.size() - shown;
    table.resize(shown);
    table.push_back("... " + std::to_string(hidden) + " more row(s): enlarge the window");
    *room = 0;
    return table;
}

// The line's state, once it has been down at least once; nothing before, so
// a run on a sound line reads as it always has.
std::string LineStateText(const HostStats& stats) {
    if (stats.lineDownPeriods == 0) return "";
    return " | line-down periods " + std::to_string(stats.lineDownPeriods) + " | down exchanges " +
           std::to_string(stats.downExchanges) + (stats.lineDown ? " | LINE DOWN" : "");
}

}  // namespace

std::string ResultText(int code) {
    if (code == 1) return "good";
    if (code == 100) return "good (remote)";
    if (code == 0) return "retrying";
    // The last digits carry varId + 1 for varId 1 to 11, else 1.
    const auto band = [&](int base, const char* what) -> std::string {
        const int varId = code - base - 1;
        return std::string(what) + (varId ? " (varId " + std::to_string(varId) + ")" : "");
    };
    if (code >= 11 && code <= 22) return band(10, "bad reply");
    if (code >= 41 && code <= 52) return band(40, "no reply");
    if (code >= 71 && code <= 82) return band(70, "wrong length");
    if (code >= 111 && code <= 122) return band(110, "remote bad reply");
    if (code >= 141 && code <= 152) return band(140, "remote no reply");
    if (code >= 171 && code <= 182) return band(170, "remote wrong length");
    return "unknown";
}

std::string FormatValues(const TagAddress& tag, const QByteArray& bytes) {
    const auto* b = reinterpret_cast<const uint8_t*>(bytes.constData());
    std::string out;
    for (int i = 0; i < tag.count; ++i) {
        if (i) out += ' ';
        out += ValueText(tag, b, bytes.size(), i);
    }
    return out;
}

std::string KindText(const TagAddress& tag) {
    const char* kind = tag.isBit() ? "bit" : tag.letter == 'F' ? "real" : "word";
    return std::string(kind) + "(" + std::to_string(tag.dataType()) + ")";
}

std::vector<std::string> StatsLines(const Snapshot& s) {
    const auto n = [](uint64_t v) { return std::to_string(v); };
    char head[64];
    std::snprintf(head, sizeof head, "%.1f s | exchanges %s (%.1f/s)", s.elapsedSeconds,
                  n(s.stats.exchanges).c_str(), s.exchangesPerSecond);
    return {std::string(head) + " | length-learning " + n(s.stats.learning) + " | good " +
                n(s.stats.good) + " | retried " + n(s.stats.retried) + " | failures " +
                n(s.stats.failures),
            "no reply " + n(s.stats.noReply) + " | refused " + n(s.stats.refused) +
                " | cip-rejected " + n(s.stats.cipRejected) + " | cyclic requests " +
                std::to_string(s.cyclicRequests) + " | retryCount " +
                std::to_string(s.stats.retryCount) + " | cycleDone " +
                std::to_string(s.stats.cycleDone) + " | zeros in a row " + n(s.stats.zeroStreak) +
                LineStateText(s.stats)};
}

std::vector<std::string> TableRows(const Snapshot& s, std::size_t width) {
    std::size_t tagWidth = 3;
    for (const TagView& t : s.tags) tagWidth = std::max(tagWidth, t.tag.display().size());
    std::vector<std::string> rows;
    rows.push_back(Padded("TAG", tagWidth) + "  " + Padded("KIND", 8) + "  " +
                   Padded("RESULT", 22) + "  VALUES");
    for (const TagView& t : s.tags)
        rows.push_back(Padded(t.tag.display(), tagWidth) + "  " + Padded(KindText(t.tag), 8) +
                       "  " + Padded(ResultColumn(t), 22) + "  " + t.values);
    if (width > 0)
        for (std::string& r : rows)
            if (r.size() > width) r.resize(width);
    return rows;
}

void PrintPlain(const Snapshot& s, const char* marker) {
    const std::vector<std::string> stats = StatsLines(s);
    std::string out = std::string(marker) + " " + stats[0] + " | " + stats[1] + "\n";
    for (const std::string& row : TableRows(s, 0)) out += "  " + row + "\n";
    std::fputs(out.c_str(), stdout);
    std::fflush(stdout);
}

void DrawScreen(const ScreenParts& parts, const Snapshot& s) {
    const auto [columns, height] = TerminalSize();
    // A copy: a structured binding cannot be captured before C++20.
    const std::size_t width = columns;
    const auto line = [width](std::string text) {
        if (text.size() > width) text.resize(width);
        return text + "\x1b[K\n";
    };
    // Everything must fit on the screen, or the terminal scrolls and the
    // redraw in place falls apart: events give way first, then tag rows.
    std::vector<std::string> head = parts.title;
    for (const std::string& l : StatsLines(s)) head.push_back(l);
    head.push_back("");
    std::vector<std::string> tail;
    if (parts.prompt) tail = {"", parts.helpLine};
    const std::size_t prompt = parts.prompt ? 1 : 0;
    const std::size_t fixed = head.size() + tail.size() + prompt + 2;  // blank + "events:"
    std::size_t room = height > fixed ? height - fixed : 0;
    const std::vector<std::string> table = FittedTable(s, width, &room);
    const std::size_t eventCount = std::min(room, parts.events.size());

    std::string out = "\x1b[H";
    for (const std::string& l : head) out += line(l);
    for (const std::string& l : table) out += line(l);
    out += "\x1b[K\nevents:\x1b[K\n";
    for (std::size_t i = parts.events.size() - eventCount; i < parts.events.size(); ++i)
        out += line("  " + parts.events[i]);
    for (const std::string& l : tail) out += line(l);
    if (parts.prompt) {
        std::string typed = "> " + parts.typed;
        if (typed.size() > width) typed.resize(width);
        out += typed;
    }
    out += "\x1b[J";
    std::fputs(out.c_str(), stdout);
    std::fflush(stdout);
}

}  // namespace hostsim
