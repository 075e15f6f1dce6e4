// The cost of a traced function whose levels are off, beside the same body
// without a trace frame.
#include <benchmark/benchmark.h>

#include "common/trace.h"

ZEVD_TRACE_UNIT(unitZeva);

namespace {

__attribute__((noinline)) int untracedBody(int x) {
    benchmark::DoNotOptimize(x);
    return x * 3 + 1;
}

__attribute__((noinline)) int tracedBody(int x) {
    ZEVD_TRACE_FUNCTION("bench::tracedBody");
    benchmark::DoNotOptimize(x);
    ZEVD_TRACE(trc, TRACE_DETAIL, "x <%d>\n", x);
    return trc.exit(x * 3 + 1);
}

void BM_FloorUntracedCall(benchmark::State &state) {
    int x = 1;
    for (auto _ : state) {
        x = untracedBody(x) & 0xFFFF;
        benchmark::DoNotOptimize(x);
    }
}
BENCHMARK(BM_FloorUntracedCall);

void BM_TracedCallLevelsOff(benchmark::State &state) {
    TLG1_Configure("none");
    int x = 1;
    for (auto _ : state) {
        x = tracedBody(x) & 0xFFFF;
        benchmark::DoNotOptimize(x);
    }
}
BENCHMARK(BM_TracedCallLevelsOff);

void BM_TracedCallErrorLevel(benchmark::State &state) {
    TLG1_Configure("error");
    int x = 1;
    for (auto _ : state) {
        x = tracedBody(x) & 0xFFFF;
        benchmark::DoNotOptimize(x);
    }
}
BENCHMARK(BM_TracedCallErrorLevel);

}  // namespace

BENCHMARK_MAIN();
