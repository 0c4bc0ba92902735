#include "display.h"

#include <algorithm>
#include <cstdio>

namespace hostsim {

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
                std::to_string(s.stats.cycleDone) + " | zeros in a row " + n(s.stats.zeroStreak)};
}

std::vector<std::string> TableRows(const Snapshot& s, std::size_t width) {
    std::size_t tagWidth = 3;
    for (const TagView& t : s.tags) tagWidth = std::max(tagWidth, t.tag.display().size());
    const auto pad = [](std::string text, std::size_t w) {
        if (text.size() < w) text.append(w - text.size(), ' ');
        return text;
    };
    std::vector<std::string> rows;
    rows.push_back(pad("TAG", tagWidth) + "  " + pad("KIND", 8) + "  " + pad("RESULT", 22) +
                   "  VALUES");
    for (const TagView& t : s.tags) {
        std::string result = "-";
        if (t.lastResult == 0 && t.learning)
            result = "0 no length yet";  // the exchange that learns the length failed
        else if (t.lastResult != INT_MIN)
            result = std::to_string(t.lastResult) + " " + ResultText(t.lastResult);
        rows.push_back(pad(t.tag.display(), tagWidth) + "  " + pad(KindText(t.tag), 8) + "  " +
                       pad(result, 22) + "  " + t.values);
    }
    if (width > 0)
        for (std::string& r : rows)
            if (r.size() > width) r.resize(width);
    return rows;
}

}  // namespace hostsim
