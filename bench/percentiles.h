// The latency counters the latency benchmarks share.
#ifndef ZEVD_BENCH_PERCENTILES_H
#define ZEVD_BENCH_PERCENTILES_H

#include <benchmark/benchmark.h>

#include <algorithm>
#include <vector>

namespace zevd::bench {

// Median and 99th percentile of the latencies, in microseconds, and their
// count under countName.
inline void reportPercentiles(benchmark::State &state, std::vector<double> &micros,
                              const char *countName) {
    if (micros.empty()) return;
    std::sort(micros.begin(), micros.end());
    auto at = [&](double q) {
        size_t i = static_cast<size_t>(q * static_cast<double>(micros.size() - 1) + 0.5);
        return micros[std::min(i, micros.size() - 1)];
    };
    state.counters["median_us"] = at(0.50);
    state.counters["p99_us"] = at(0.99);
    state.counters[countName] = static_cast<double>(micros.size());
}

}  // namespace zevd::bench

#endif  // ZEVD_BENCH_PERCENTILES_H
