// A panel's variable list for the list-rebuild measurements: the benchmark
// and the instruction counts rebuild the same variables.
#ifndef ABCL_BENCH_HOST_VARIABLES_H
#define ABCL_BENCH_HOST_VARIABLES_H

#include "ab_controllogix_compactlogix.h"

#include <QtCore/QList>
#include <QtCore/QString>

#include <cstdint>
#include <memory>
#include <random>
#include <vector>

namespace bench {

// The host's variable records, kept alive for the pointers in `list`.
struct HostVariables {
    std::vector<std::unique_ptr<ReadVarItem>> items;
    QList<ReadVarItem*> list;
};

// `n` variables of all five data types at random addresses in 16 files, with
// random sizes: bits 1 to 64, words 1 to 20, REAL values 2 to 20 words.
inline HostVariables RandomVariables(int n, uint32_t seed) {
    std::mt19937 rng(seed);
    std::uniform_int_distribution<int> type(ABCL_BIT_A, ABCL_REAL);
    std::uniform_int_distribution<int> file(0, 15);
    std::uniform_int_distribution<int> element(0, 255);
    std::uniform_int_distribution<int> bit(0, 15);
    std::uniform_int_distribution<int> bitCount(1, 64);
    std::uniform_int_distribution<int> wordCount(1, 20);
    std::uniform_int_distribution<int> realCount(2, 20);
    HostVariables vars;
    for (int i = 0; i < n; ++i) {
        auto item = std::make_unique<ReadVarItem>();
        const int t = type(rng);
        item->dataType = static_cast<uint8_t>(t);
        const int f = file(rng);
        const int e = element(rng);
        if (t == ABCL_BIT_A || t == ABCL_BIT_B) {
            item->addrText = QStringLiteral("%1:%2/%3").arg(f).arg(e).arg(bit(rng));
            item->count = bitCount(rng);
        } else {
            item->addrText = QStringLiteral("%1:%2").arg(f).arg(e);
            item->count = t == ABCL_REAL ? realCount(rng) : wordCount(rng);
        }
        item->addrText2 = QStringLiteral("var%1").arg(i);
        vars.list.append(item.get());
        vars.items.push_back(std::move(item));
    }
    return vars;
}

}  // namespace bench

#endif
