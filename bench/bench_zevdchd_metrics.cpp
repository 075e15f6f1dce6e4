// Scrapes of zevdchd --metrics under load, all in one run. A load process
// (this program again, with --load) holds 1,000 handles open, so the page
// has 1,000 series, and sends rows to them round the clock at a fixed pace,
// each answered before the next. Meanwhile:
//   - dp_online's round trip is measured in pairs of one-second blocks,
//     one without scrapes (the floor) and one with a scrape at its start;
//     the two are reported side by side, with their ratio overall and the
//     median of the ratios of the pairs, every repetition anew;
//   - the page is fetched back to back, each fetch on a connection of its
//     own, and its latency reported (median, p99).
#include <benchmark/benchmark.h>
#include <signal.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <numeric>
#include <string>
#include <thread>
#include <vector>

#include "daemon_peer.h"
#include "support/http_client.h"
#include "zevd610.h"

extern char **environ;

namespace {

using namespace zevd::bench;

constexpr int kSeries = 1000;             // handles of the load process, one series each
constexpr int kLoadRowsPerSecond = 4000;  // the load's pace
constexpr auto kBlock = std::chrono::seconds(1);
constexpr int kPairs = 20;  // pairs of blocks, one without scrapes and one with
constexpr int kPageFetches = 300;

// The daemon, with its metrics port; the catalogue registered.
struct MetricsDaemon {
    Child dch;
    uint16_t metricsPort = 0;
};

const MetricsDaemon &metricsDaemon() {
    static const MetricsDaemon started = [] {
        MetricsDaemon d;
        std::vector<std::string> before;
        uint16_t port = zevd::test::freeLoopbackPort();
        d.dch =
            startServer(daemonPath(), {"--port", std::to_string(port), "--metrics", "127.0.0.1:0"},
                        "zevdchd ready on port %u", &before);
        unsigned metrics = 0;
        for (const std::string &line : before)
            if (sscanf(line.c_str(), "zevdchd metrics on http://127.0.0.1:%u/metrics", &metrics) ==
                1)
                d.metricsPort = static_cast<uint16_t>(metrics);
        if (d.dch.pid <= 0 || d.metricsPort == 0) {
            d.dch.pid = -1;
            return d;
        }
        setenv("ZEVA_DCH_ADDR", "127.0.0.1", 1);
        setenv("ZEVA_DCH_PORT", std::to_string(d.dch.port).c_str(), 1);
        long status = -1;
        if (dp_register(&status, "APPL bench;GROUP group;ATTR a A 4") != 0 || status != 0)
            d.dch.pid = -1;
        return d;
    }();
    return started;
}

// The load process: opens kSeries handles, sends each a row, says "ready",
// then sends rows round robin at kLoadRowsPerSecond until it is ended.
int runLoad() {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    std::vector<long> handles;
    for (int i = 0; i < kSeries; ++i) {
        long status = -1;
        long handle = -1;
        std::string source = "load-" + std::to_string(i);
        if (dp_online(&status, &handle, "bench", "group", source.c_str()) != 0 || status != 0)
            return 1;
        handles.push_back(handle);
    }
    auto row = [](long handle, int32_t value) {
        char *buffer = nullptr;
        long size = 0;
        long status = -1;
        dp_formatData(&status, &buffer, &size, "a", &value, 4, 'A');
        dp_data(&status, handle, 0, &buffer);
    };
    for (int i = 0; i < kSeries; ++i) row(handles[static_cast<size_t>(i)], i);
    printf("ready\n");
    fflush(stdout);
    auto next = Clock::now();
    const auto gap = std::chrono::nanoseconds(1000000000 / kLoadRowsPerSecond);
    for (int32_t i = 0;; ++i) {
        row(handles[static_cast<size_t>(i) % handles.size()], i);
        next += gap;
        if (next > Clock::now()) std::this_thread::sleep_until(next);
    }
}

// Starts the load process once; false when it did not get ready.
bool loadRunning() {
    static const bool running = [] {
        int out[2];
        if (metricsDaemon().dch.pid <= 0 || pipe2(out, O_CLOEXEC) != 0) return false;
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
        char self[] = "/proc/self/exe";
        char load[] = "--load";
        char *argv[] = {self, load, nullptr};
        pid_t pid = -1;
        int rc = posix_spawn(&pid, self, &actions, nullptr, argv, environ);
        posix_spawn_file_actions_destroy(&actions);
        close(out[1]);
        if (rc != 0) {
            close(out[0]);
            return false;
        }
        adopt(pid);
        std::string line = readLine(out[0]);
        close(out[0]);
        return line == "ready\n";
    }();
    return running;
}

// dp_data requests the daemon has handled, from its page; -1 when unread.
double rowsHandled() {
    zevd::test::HttpReply reply = zevd::test::httpGet(metricsDaemon().metricsPort);
    const char kSample[] = "\nzevd_dch_requests_total{request=\"dp_data\"} ";
    size_t at = reply.body.find(kSample);
    return at == std::string::npos ? -1 : atof(reply.body.c_str() + at + sizeof kSample - 1);
}

// One fetch of the page: its latency in microseconds, or -1 when it failed;
// *series receives the number of series of the load's family.
double fetchPage(int *series = nullptr) {
    Clock::time_point start = Clock::now();
    zevd::test::HttpReply reply = zevd::test::httpGet(metricsDaemon().metricsPort);
    double micros = microsSince(start);
    if (reply.status != 200 || reply.body.empty() || reply.body.back() != '\n') return -1;
    if (series != nullptr) {
        *series = 0;
        for (size_t at = 0;
             (at = reply.body.find("\nzevd_bench_group_a{", at)) != std::string::npos; ++at)
            ++*series;
    }
    return micros;
}

struct Latencies {
    std::vector<double> micros;
    double median() {
        std::sort(micros.begin(), micros.end());
        return micros.empty() ? 0 : micros[micros.size() / 2];
    }
    double p99() {
        std::sort(micros.begin(), micros.end());
        return micros.empty() ? 0 : micros[std::min(micros.size() - 1, micros.size() * 99 / 100)];
    }
    double mean() const {
        return micros.empty() ? 0
                              : std::accumulate(micros.begin(), micros.end(), 0.0) /
                                    static_cast<double>(micros.size());
    }
};

struct RoundTrips {
    Latencies quiet;       // blocks without scrapes
    Latencies scraped;     // blocks with a scrape every second
    Latencies pairRatios;  // per pair: the scraped block's median over the other's
    int scrapes = 0;
    int failures = 0;
    double loadRowsPerSecond = 0;  // what the load reached meanwhile
};

// dp_online round trips for one block; each handle closed outside the
// timing. The block's median.
double measureBlock(Latencies &into, int &failures) {
    Latencies block;
    auto end = Clock::now() + kBlock;
    while (Clock::now() < end) {
        long status = -1;
        long handle = -1;
        Clock::time_point start = Clock::now();
        int result = dp_online(&status, &handle, "bench", "group", "7");
        block.micros.push_back(microsSince(start));
        if (result != 0 || status != 0) {
            ++failures;
            continue;
        }
        dp_offline(&status, handle);
    }
    into.micros.insert(into.micros.end(), block.micros.begin(), block.micros.end());
    return block.median();
}

// A block with a scrape at its start and every second after.
double measureScrapedBlock(RoundTrips &r) {
    std::atomic<bool> done{false};
    std::atomic<int> scrapes{0};
    std::atomic<int> failed{0};
    std::thread scraper([&] {
        auto next = Clock::now();
        while (!done.load()) {
            if (fetchPage() < 0) ++failed;
            ++scrapes;
            next += std::chrono::seconds(1);
            while (!done.load() && Clock::now() < next)
                std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    });
    double median = measureBlock(r.scraped, r.failures);
    done = true;
    scraper.join();
    r.scrapes += scrapes.load();
    r.failures += failed.load();
    return median;
}

// Pairs of blocks, one of each kind, the kind that goes first alternating
// from pair to pair, so that drift in the machine falls on both alike.
RoundTrips measureRoundTrips() {
    RoundTrips r;
    double rowsBefore = rowsHandled();
    Clock::time_point start = Clock::now();
    for (int pair = 0; pair < kPairs; ++pair) {
        double quiet = 0, scraped = 0;
        if (pair % 2 == 0) {
            quiet = measureBlock(r.quiet, r.failures);
            scraped = measureScrapedBlock(r);
        } else {
            scraped = measureScrapedBlock(r);
            quiet = measureBlock(r.quiet, r.failures);
        }
        if (quiet > 0) r.pairRatios.micros.push_back(scraped / quiet);
    }
    double seconds = microsSince(start) / 1e6;
    double rowsAfter = rowsHandled();
    if (rowsBefore < 0 || rowsAfter < 0) ++r.failures;
    r.loadRowsPerSecond = (rowsAfter - rowsBefore) / seconds;
    return r;
}

bool ready(benchmark::State &state) {
    if (metricsDaemon().dch.pid <= 0) {
        state.SkipWithError(("zevdchd --metrics did not start: " + daemonPath()).c_str());
        return false;
    }
    if (!loadRunning()) {
        state.SkipWithError("the load process did not get ready");
        return false;
    }
    return true;
}

// dp_online under the load with a scrape every second; its floor is the
// same call in the blocks between, without scrapes. The time is the
// scraped blocks' median; the ratios compare them with the floor's.
void BM_DpOnlineScrapedEverySecond(benchmark::State &state) {
    if (!ready(state)) return;
    RoundTrips r;
    for (auto _ : state) {
        r = measureRoundTrips();
        state.SetIterationTime(r.scraped.median() / 1e6);
    }
    if (r.failures != 0) state.SkipWithError("a round trip or a scrape failed");
    state.counters["median_us"] = r.scraped.median();
    state.counters["p99_us"] = r.scraped.p99();
    state.counters["floor_median_us"] = r.quiet.median();
    state.counters["floor_p99_us"] = r.quiet.p99();
    state.counters["median_ratio"] = r.scraped.median() / r.quiet.median();
    state.counters["mean_ratio"] = r.scraped.mean() / r.quiet.mean();
    state.counters["pair_median_ratio"] = r.pairRatios.median();
    state.counters["round_trips"] = static_cast<double>(r.scraped.micros.size());
    state.counters["floor_round_trips"] = static_cast<double>(r.quiet.micros.size());
    state.counters["scrapes"] = r.scrapes;
    state.counters["load_rows_per_s"] = r.loadRowsPerSecond;
}
BENCHMARK(BM_DpOnlineScrapedEverySecond)
    ->Iterations(1)
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond);

// The page under the same load: fetches back to back.
void BM_MetricsPageUnderLoad(benchmark::State &state) {
    if (!ready(state)) return;
    Latencies page;
    int series = 0;
    for (auto _ : state) {
        for (int i = 0; i < kPageFetches; ++i) {
            double micros = fetchPage(i == 0 ? &series : nullptr);
            if (micros < 0) {
                state.SkipWithError("a fetch of the page failed");
                return;
            }
            page.micros.push_back(micros);
        }
        state.SetIterationTime(page.median() / 1e6);
    }
    state.counters["median_ms"] = page.median() / 1e3;
    state.counters["p99_ms"] = page.p99() / 1e3;
    state.counters["series"] = series;
    state.counters["fetches"] = static_cast<double>(page.micros.size());
}
BENCHMARK(BM_MetricsPageUnderLoad)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char **argv) {
    if (argc == 2 && strcmp(argv[1], "--load") == 0) return runLoad();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
