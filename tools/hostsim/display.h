// The live table: a header with the link and the exchange statistics, one
// row per tag (address, kind, last result, values).
#ifndef HOSTSIM_DISPLAY_H
#define HOSTSIM_DISPLAY_H

#include "host.h"

#include <string>
#include <vector>

namespace hostsim {

// "word(3)", "bit(0)", "real(4)": the kind and the plug-in's data type.
std::string KindText(const TagAddress& tag);

// The statistics: the exchange counts, then the failure kinds and the
// settings record's counters. Plain output joins them with " | ".
std::vector<std::string> StatsLines(const Snapshot& s);

// The table rows, header row first. width 0: no limit; otherwise each row
// is cut to width characters (a terminal that wraps would spoil the redraw).
std::vector<std::string> TableRows(const Snapshot& s, std::size_t width);

}  // namespace hostsim

#endif
