// The round trip of dp_online, the whole exported call (client object,
// pooled socket, request, wait, answer), against the fake DCH in a process
// of its own, beside its floor: a plain UDP ping-pong of the same sizes with
// an echo process, measured in the same run. Between the two, the client's
// own share: the same work as the exported call against the echo process,
// which answers as the DCH would but with nothing behind it; and the DCH's
// share: the plain ping-pong with the fake DCH in the echo's place. Each
// benchmark times every round trip and reports their median and 99th
// percentile as counters.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <limits.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "client/zevdchcl.h"
#include "peers.h"
#include "support/loopback.h"
#include "zevd610.h"

namespace {

using namespace zevd::bench;

// The fake DCH program: beside this one in the build's bin directory.
std::string fakeDchPath() {
#ifdef ZEVD_FAKE_DCH
    return ZEVD_FAKE_DCH;
#else
    char self[PATH_MAX] = {};
    ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
    std::string path = n > 0 ? std::string(self, static_cast<size_t>(n)) : std::string();
    size_t slash = path.rfind('/');
    return (slash == std::string::npos ? std::string(".") : path.substr(0, slash)) +
           "/zevd_fake_dch";
#endif
}

// The DCH of this process, fixed before its first transport reads the
// configuration.
const Child &fakeDch() {
    static const Child dch = [] {
        Child started = startServer(fakeDchPath(), {}, "zevd_fake_dch ready on port %u");
        if (started.pid > 0) {
            setenv("ZEVA_DCH_ADDR", "127.0.0.1", 1);
            setenv("ZEVA_DCH_PORT", std::to_string(started.port).c_str(), 1);
        }
        return started;
    }();
    return dch;
}

// A client object whose transport sends to a peer of the caller's choice.
class DCHclientPeer final : public DCHclient {
public:
    using DCHclient::DCHclient;
    void peer(const struct sockaddr_in *to) { _ipcClient->setClientAddr(to, sizeof *to); }
};

BENCHMARK(BM_RawUdpPingPongFloor)->Iterations(kRoundTrips)->UseRealTime();

// The DCH's share: the floor's exchange, answered by the fake DCH.
void BM_RawUdpPingPongWithFakeDch(benchmark::State &state) {
    if (fakeDch().pid <= 0) {
        state.SkipWithError(("zevd_fake_dch did not start: " + fakeDchPath()).c_str());
        return;
    }
    rawPingPong(state, fakeDch().port);
}
BENCHMARK(BM_RawUdpPingPongWithFakeDch)->Iterations(kRoundTrips)->UseRealTime();

void BM_DpOnlineRoundTrip(benchmark::State &state) {
    if (fakeDch().pid <= 0) {
        state.SkipWithError(("zevd_fake_dch did not start: " + fakeDchPath()).c_str());
        return;
    }
    std::vector<double> micros;
    micros.reserve(kRoundTrips);
    for (auto _ : state) {
        long status = -1;
        long handle = -1;
        Clock::time_point start = Clock::now();
        int result = dp_online(&status, &handle, "bench", "group", "7");
        micros.push_back(microsSince(start));
        if (result != 0 || status != 0 || handle != 7) {
            state.SkipWithError("dp_online failed");
            break;
        }
    }
    zevd::bench::reportPercentiles(state, micros, "round_trips");
}
BENCHMARK(BM_DpOnlineRoundTrip)->Iterations(kRoundTrips)->UseRealTime();

// What dp_online does around its client object, with the transport's peer
// address set to the echo process: the library's work on the client side,
// with no DCH behind the answer.
void BM_DpOnlineClientWithEchoPeer(benchmark::State &state) {
    if (fakeDch().pid <= 0 || echoPeer().pid <= 0) {
        state.SkipWithError("a peer process did not start");
        return;
    }
    struct sockaddr_in to = loopbackAddress(echoPeer().port);
    std::vector<double> micros;
    micros.reserve(kRoundTrips);
    for (auto _ : state) {
        long status = -1;
        long handle = -1;
        Clock::time_point start = Clock::now();
        auto *client = new DCHclientPeer(0, 1);
        client->peer(&to);
        int result = client->dp_online(&status, &handle, "bench", "group", "7");
        delete client;
        micros.push_back(microsSince(start));
        if (result != 0 || status != 0 || handle != 7) {
            state.SkipWithError("dp_online failed");
            break;
        }
    }
    zevd::bench::reportPercentiles(state, micros, "round_trips");
}
BENCHMARK(BM_DpOnlineClientWithEchoPeer)->Iterations(kRoundTrips)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
