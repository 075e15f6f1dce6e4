// Rows from one provider (dp_formatData of 10 attributes + dp_data, each
// answered before the next) through zevdchd to one data subscriber: rows per
// second and the share that did not arrive, beside its floor from the same
// run: a raw one-way UDP stream of datagrams of the forwarded rows' size
// between two sockets.
#include <benchmark/benchmark.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "daemon_peer.h"
#include "zevd610.h"

namespace {

using namespace zevd::bench;

constexpr int kStreamRows = 20000;

// Size of a forwarded 10-attribute row: its header fields (8 + 11 + 11 +
// 8 + 10 + 8) and 5 integer and 5 string pairs (9 + 10, 9 + 22).
constexpr size_t kForwardedRowBytes = 4 + 56 + 5 * 19 + 5 * 31;

// Counts what a receiver got within its deadline and reports the stream.
void reportStream(benchmark::State &state, int sent, int received, double seconds) {
    state.SetIterationTime(seconds);
    state.counters["rows_per_s"] = seconds > 0 ? received / seconds : 0;
    state.counters["lost_share"] = sent > 0 ? 1.0 - static_cast<double>(received) / sent : 0;
    state.counters["rows"] = received;
}

// kStreamRows datagrams as fast as one socket sends them, to a socket read by
// a thread; the time runs from the first send to the last receive.
void BM_RawUdpStreamFloor(benchmark::State &state) {
    for (auto _ : state) {
        int in = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        int out = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_in any = loopbackAddress(0);
        if (in < 0 || out < 0 || bind(in, reinterpret_cast<sockaddr *>(&any), sizeof any) != 0) {
            state.SkipWithError("no sockets for the stream");
            if (in >= 0) close(in);
            if (out >= 0) close(out);
            return;
        }
        sockaddr_in to = loopbackAddress(zevd::test::boundPort(in));
        timeval wait = {1, 0};
        setsockopt(in, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
        std::atomic<int> received{0};
        Clock::time_point start = Clock::now();
        std::atomic<int64_t> lastAt{0};
        std::thread reader([&] {
            char buffer[8192];
            while (received.load() < kStreamRows) {
                if (recv(in, buffer, sizeof buffer, 0) <= 0) break;  // 1 s with nothing
                ++received;
                lastAt = (Clock::now() - start).count();
            }
        });
        std::vector<char> row(kForwardedRowBytes, 'r');
        for (int i = 0; i < kStreamRows; ++i)
            sendto(out, row.data(), row.size(), 0, reinterpret_cast<sockaddr *>(&to), sizeof to);
        reader.join();
        close(in);
        close(out);
        reportStream(state, kStreamRows, received.load(),
                     std::chrono::duration<double>(Clock::duration(lastAt.load())).count());
    }
}
BENCHMARK(BM_RawUdpStreamFloor)->Iterations(1)->UseManualTime();

// One provider sends kStreamRows rows of 10 attributes, each answered before
// the next; one data subscriber receives them on its own thread.
void BM_RowsThroughZevdchd(benchmark::State &state) {
    if (daemon().pid <= 0) {
        state.SkipWithError(("zevdchd did not start: " + daemonPath()).c_str());
        return;
    }
    for (auto _ : state) {
        void *subscriber = dc_waitOnDataInitialize("bench", "rows");
        long status = -1;
        long handle = 0;
        dp_online(&status, &handle, "bench", "rows", "stream");
        if (subscriber == nullptr || status != 0) {
            state.SkipWithError("the subscriber or the provider did not start");
            return;
        }
        std::atomic<int> received{0};
        std::atomic<int64_t> lastAt{0};
        Clock::time_point start = Clock::now();
        std::thread reader([&] {
            std::vector<char> buffer(8192);
            while (received.load() < kStreamRows &&
                   dc_waitOnData(subscriber, buffer.data(), static_cast<int>(buffer.size())) == 0) {
                ++received;
                lastAt = (Clock::now() - start).count();
            }
        });
        int sent = 0;
        for (int i = 0; i < kStreamRows; ++i) {
            char *row = nullptr;
            long size = 0;
            for (int a = 0; a < 5; ++a) {
                int32_t value = i + a;
                const char name[] = {'n', static_cast<char>('0' + a), '\0'};
                dp_formatData(&status, &row, &size, name, &value, 4, 'A');
            }
            for (int a = 0; a < 5; ++a) {
                char text[16] = {};
                snprintf(text, sizeof text, "value-%d", i % 100000);
                const char name[] = {'s', static_cast<char>('0' + a), '\0'};
                dp_formatData(&status, &row, &size, name, text, 13, 'D');
            }
            dp_data(&status, handle, 0, &row);
            if (status == 0) ++sent;
        }
        // What has not come a second after the last row is lost.
        auto deadline = Clock::now() + std::chrono::seconds(1);
        while (received.load() < sent && Clock::now() < deadline)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        dc_waitOnDataCancel(subscriber);
        reader.join();
        dc_waitOnDataDestroy(subscriber);
        dp_offline(&status, handle);
        reportStream(state, sent, received.load(),
                     std::chrono::duration<double>(Clock::duration(lastAt.load())).count());
    }
}
BENCHMARK(BM_RowsThroughZevdchd)->Iterations(1)->UseManualTime();

}  // namespace

BENCHMARK_MAIN();
