// What hostsim shows: values and result codes in words, the statistics, the
// tag table, the plain report and the screen redrawn in place.
#ifndef HOSTSIM_DISPLAY_H
#define HOSTSIM_DISPLAY_H

#include "host.h"

#include <QtCore/QByteArray>

#include <deque>
#include <string>
#include <vector>

namespace hostsim {

// Result codes of DataCom's record, in words.
std::string ResultText(int code);

// The values of a tag as the image holds them: bits 0/1, N words signed,
// B words in hex, REALs with %g; '?' for a value the bytes do not cover.
std::string FormatValues(const TagAddress& tag, const QByteArray& bytes);

// "word(3)", "bit(0)", "real(4)": the kind and the plug-in's data type.
std::string KindText(const TagAddress& tag);

// The statistics: the exchange counts, then the failure kinds and the
// settings record's counters. Plain output joins them with " | ".
std::vector<std::string> StatsLines(const Snapshot& s);

// The table rows, header row first. width 0: no limit; otherwise each row
// is cut to width characters (a terminal that wraps would spoil the redraw).
std::vector<std::string> TableRows(const Snapshot& s, std::size_t width);

// The statistics on one line after marker, then the table, to stdout.
void PrintPlain(const Snapshot& s, const char* marker);

// Everything the redrawn screen shows besides the snapshot.
struct ScreenParts {
    std::vector<std::string> title;
    std::deque<std::string> events;  // the latest last
    // Interactive: the commands' help line and the prompt with what is
    // being typed.
    bool prompt = false;
    std::string helpLine;
    std::string typed;
};

// Redraws the terminal in place, everything cut to fit its size.
void DrawScreen(const ScreenParts& parts, const Snapshot& s);

}  // namespace hostsim

#endif
