// dp_online's round trip through zevdchd (the whole exported call; median
// and p99 of 20,000), beside its floor from the same run: a plain UDP
// ping-pong of the same sizes with an echo process. ZeroMQ and nng REQ/REP
// round trips of the same sizes, over TCP and over Unix-domain sockets, are
// the comparison rows.
//
// bench/report runs this program a second time with it and its children
// (zevdchd, the echo process) on one CPU.
#include <benchmark/benchmark.h>

#include <vector>

#include "daemon_peer.h"
#include "mq_peers.h"
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

void BM_ZeroMqReqRep(benchmark::State &state, MqTransport transport) {
    mqRoundTrips(state, MqLibrary::zeroMq, transport);
}
BENCHMARK_CAPTURE(BM_ZeroMqReqRep, tcp, MqTransport::tcp)->Iterations(kRoundTrips)->UseManualTime();
BENCHMARK_CAPTURE(BM_ZeroMqReqRep, ipc, MqTransport::ipc)->Iterations(kRoundTrips)->UseManualTime();

void BM_NngReqRep(benchmark::State &state, MqTransport transport) {
    mqRoundTrips(state, MqLibrary::nng, transport);
}
BENCHMARK_CAPTURE(BM_NngReqRep, tcp, MqTransport::tcp)->Iterations(kRoundTrips)->UseManualTime();
BENCHMARK_CAPTURE(BM_NngReqRep, ipc, MqTransport::ipc)->Iterations(kRoundTrips)->UseManualTime();

}  // namespace

BENCHMARK_MAIN();
