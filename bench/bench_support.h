// Shared pieces of the benchmark programs: a driver wired to a settings record
// as a panel would configure it, controller replies framed the DF1 way, and the
// counters that relate the driver's CPU time to the serial link's capacity.
#ifndef ABCL_BENCH_SUPPORT_H
#define ABCL_BENCH_SUPPORT_H

#include "ab_controllogix_compactlogix.h"
#include "ab_controllogix_compactlogix_p.h"
#include "fresh_driver.h"
#include "host_variables.h"

#include <benchmark/benchmark.h>

// Replies are framed by the test suite's controller-side builder.
#include "reply_builder.h"

#include <QtCore/QByteArray>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace bench {

// Settings a single-station panel uses; the record outlives every benchmark.
inline ComInfo& Settings() {
    static ComInfo info;
    return info;
}

// Transaction number of every benchmark's requests and replies: fixed, so
// every run builds the same frames.
constexpr uint8_t kTns = kFirstTns;

inline void ResetDriver(int maxCount = 32) {
    WireFreshDriver(Settings(), maxCount);
}

// Exchanges per second a serial line carries when each exchange puts
// `lineBytes` characters on it (request and reply; each already opens with
// the DLE ACK for the message before it), at 10 bits per character,
// stop-and-wait, before the controller's own turnaround. A read of ten words
// (45-byte request, 49-byte reply: 94 characters) gives the ceilings 20.4
// exchanges/s at 19,200 baud and 122.6/s at 115,200.
inline double LineExchangesPerSecond(double baud, int lineBytes) {
    return baud / (10.0 * lineBytes);
}

// Counters for a benchmark whose every iteration carries `exchanges` exchanges
// of `lineBytes` characters each (inverted rate counters report
// cpu_time / (iterations * value); the console shows them with the unit "s"):
//   cpu_per_exch          driver CPU time per exchange
//   exch_per_cpu_s        exchanges the driver could serve per CPU second
//   line_exch_s@N         exchanges per second the line carries at N baud
//   cpu_per_line_s@N      driver CPU time per second of a line kept busy at N
//                         baud: its share of each exchange's time on the line
//                         (1us here is one part per million)
inline void SetExchangeCounters(benchmark::State& state, double exchanges, int lineBytes) {
    using benchmark::Counter;
    const auto perCpuTime = Counter::kIsIterationInvariantRate;
    const auto cpuTimePer =
        static_cast<Counter::Flags>(Counter::kIsIterationInvariantRate | Counter::kInvert);
    state.counters["cpu_per_exch"] = Counter(exchanges, cpuTimePer);
    state.counters["exch_per_cpu_s"] = Counter(exchanges, perCpuTime);
    for (const int baud : {19200, 115200}) {
        const double ceiling = LineExchangesPerSecond(baud, lineBytes);
        const std::string at = "@" + std::to_string(baud);
        state.counters["line_exch_s" + at] = ceiling;
        state.counters["cpu_per_line_s" + at] = Counter(exchanges / ceiling, cpuTimePer);
    }
}

}  // namespace bench

#endif
