// dp_online's round trip through zevdchd (the whole exported call; median
// and p99 of 20,000), beside its floor from the same run: a plain UDP
// ping-pong of the same sizes with an echo process.
#include <benchmark/benchmark.h>

#include <vector>

#include "daemon_peer.h"
#include "zevd610.h"

namespace {

using namespace zevd::bench;

BENCHMARK(BM_RawUdpPingPongFloor)->Iterations(kRoundTrips)->UseRealTime();

// The whole exported call; each handle is closed again outside the timing so
// the daemon's table stays small.
void BM_DpOnlineThroughZevdchd(benchmark::State &state) {
    if (daemon().pid <= 0) {
        state.SkipWithError(("zevdchd did not start: " + daemonPath()).c_str());
        return;
    }
    std::vector<double> micros;
    micros.reserve(kRoundTrips);
    for (auto _ : state) {
        long status = -1;
        long handle = -1;
        Clock::time_point start = Clock::now();
        int result = dp_online(&status, &handle, "bench", "group", "7");
        double taken = microsSince(start);
        micros.push_back(taken);
        state.SetIterationTime(taken / 1e6);
        if (result != 0 || status != 0 || handle <= 0) {
            state.SkipWithError("dp_online failed");
            break;
        }
        dp_offline(&status, handle);
    }
    reportPercentiles(state, micros, "round_trips");
}
BENCHMARK(BM_DpOnlineThroughZevdchd)->Iterations(kRoundTrips)->UseManualTime();

}  // namespace

BENCHMARK_MAIN();
