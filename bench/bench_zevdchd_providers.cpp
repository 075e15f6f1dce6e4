// Rows per second from 1, 2, 8 and 16 provider processes, each sending
// dp_data rows of 10 attributes one after the other (every row answered
// before the next), through zevdchd; beside its floor from the same run: the
// same provider processes against one thread doing select, recvfrom and
// sendto on a UDP port of its own, answering every datagram at once.
//
// Every provider is this program started again with --provider, so that each
// reads the library's configuration afresh; the providers start together and
// count the rows answered 0 within the same window.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "daemon_peer.h"
#include "zevd610.h"

namespace {

using namespace zevd::bench;

// How long every provider sends rows, after they have all started
// (ZEVD_BENCH_WINDOW_MS sets another, to profile the daemon at length).
std::chrono::milliseconds window() {
    const char *set = getenv("ZEVD_BENCH_WINDOW_MS");
    long ms = set != nullptr ? atol(set) : 0;
    return std::chrono::milliseconds(ms > 0 ? ms : 1500);
}

std::string selfPath() {
    char path[4096] = {};
    ssize_t n = readlink("/proc/self/exe", path, sizeof path - 1);
    return n > 0 ? std::string(path, static_cast<size_t>(n)) : std::string();
}

// The provider: online, then rows until the window ends; prints the rows
// answered 0. It waits for a byte on standard input before it starts.
int providerMain(const char *port, const char *source) {
    setenv("ZEVA_DCH_ADDR", "127.0.0.1", 1);
    setenv("ZEVA_DCH_PORT", port, 1);
    long status = -1;
    long handle = 0;
    if (dp_online(&status, &handle, "bench", "rows", source) != 0 || status != 0) {
        printf("-1\n");
        return 1;
    }
    printf("ready\n");
    fflush(stdout);
    char go = 0;
    if (read(0, &go, 1) != 1) return 1;
    long rows = 0;
    auto end = std::chrono::steady_clock::now() + window();
    for (long i = 0; std::chrono::steady_clock::now() < end; ++i) {
        char *row = nullptr;
        long size = 0;
        for (int a = 0; a < 5; ++a) {
            int32_t value = static_cast<int32_t>(i + a);
            const char name[] = {'n', static_cast<char>('0' + a), '\0'};
            dp_formatData(&status, &row, &size, name, &value, 4, 'A');
        }
        for (int a = 0; a < 5; ++a) {
            char text[16] = {};
            snprintf(text, sizeof text, "value-%ld", i % 100000);
            const char name[] = {'s', static_cast<char>('0' + a), '\0'};
            dp_formatData(&status, &row, &size, name, text, 13, 'D');
        }
        if (dp_data(&status, handle, 0, &row) == 0 && status == 0) ++rows;
    }
    dp_offline(&status, handle);
    printf("%ld\n", rows);
    return 0;
}

// One provider process: its pid, the write end of its go pipe, the read end
// of its output.
struct Provider {
    pid_t pid = -1;
    int go = -1;
    int out = -1;
};

Provider startProvider(uint16_t port, int index) {
    Provider provider;
    int in[2];
    int out[2];
    if (pipe2(in, O_CLOEXEC) != 0) return provider;
    if (pipe2(out, O_CLOEXEC) != 0) {
        close(in[0]);
        close(in[1]);
        return provider;
    }
    std::string self = selfPath();
    std::string portText = std::to_string(port);
    char source[16];
    snprintf(source, sizeof source, "p%d", index);
    pid_t pid = fork();
    if (pid == 0) {
        dup2(in[0], 0);
        dup2(out[1], 1);
        execl(self.c_str(), self.c_str(), "--provider", portText.c_str(), source,
              static_cast<char *>(nullptr));
        _exit(127);
    }
    close(in[0]);
    close(out[1]);
    if (pid < 0) {
        close(in[1]);
        close(out[0]);
        return provider;
    }
    provider.pid = pid;
    provider.go = in[1];
    provider.out = out[0];
    return provider;
}

// Starts count providers against port, lets them run their window together
// and returns the rows per second of all of them (-1 when one failed).
double runProviders(uint16_t port, int count) {
    std::vector<Provider> providers;
    for (int i = 0; i < count; ++i) providers.push_back(startProvider(port, i));
    bool ready = true;
    for (Provider &p : providers) ready = ready && p.pid > 0 && readLine(p.out) == "ready\n";
    auto start = Clock::now();
    for (Provider &p : providers)
        if (p.go >= 0) (void)!write(p.go, "g", 1);
    long total = 0;
    for (Provider &p : providers) {
        std::string line = p.pid > 0 && ready ? readLine(p.out) : std::string();
        long rows = line.empty() ? -1 : atol(line.c_str());
        if (rows < 0) ready = false;
        total += rows;
    }
    double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    for (Provider &p : providers) {
        if (p.go >= 0) close(p.go);
        if (p.out >= 0) close(p.out);
        int status = 0;
        if (p.pid > 0) waitpid(p.pid, &status, 0);
    }
    // The window is the providers' own; the parent's clock adds their exit.
    double own = std::chrono::duration<double>(window()).count();
    return ready ? static_cast<double>(total) / std::min(seconds, own) : -1;
}

// The floor's server: one thread, select, recvfrom and sendto of a
// dp_online answer (status 0, handle 7), which dp_data takes as its own.
struct EchoFloor {
    uint16_t port = 0;
    EchoFloor() {
        int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_in any = loopbackAddress(0);
        if (fd < 0 || bind(fd, reinterpret_cast<sockaddr *>(&any), sizeof any) != 0) return;
        port = zevd::test::boundPort(fd);
        std::thread([fd] {
            static const unsigned char answer[kAnswerBytes] = {
                0, 0, 0, 24, 0, 17, 0, 0, 0, 4, 0, 0, 0, 0, 0, 128, 0, 0, 0, 4, 0, 0, 0, 7};
            char in[8192];
            for (;;) {
                fd_set mask;
                FD_ZERO(&mask);
                FD_SET(fd, &mask);
                if (select(fd + 1, &mask, nullptr, nullptr, nullptr) <= 0) continue;
                sockaddr_in from;
                socklen_t fromLength = sizeof from;
                if (recvfrom(fd, in, sizeof in, 0, reinterpret_cast<sockaddr *>(&from),
                             &fromLength) <= 0)
                    continue;
                sendto(fd, answer, sizeof answer, 0, reinterpret_cast<sockaddr *>(&from),
                       fromLength);
            }
        }).detach();
    }
};

void report(benchmark::State &state, double rate) {
    if (rate < 0) {
        state.SkipWithError("a provider did not start or failed");
        return;
    }
    state.SetIterationTime(rate > 0 ? 1.0 / rate : 0);
    state.counters["rows_per_s"] = rate;
}

void BM_ProvidersEchoFloor(benchmark::State &state) {
    static EchoFloor *floor = new EchoFloor();
    if (floor->port == 0) {
        state.SkipWithError("no socket for the floor");
        return;
    }
    for (auto _ : state) report(state, runProviders(floor->port, static_cast<int>(state.range(0))));
}

void BM_ProvidersThroughZevdchd(benchmark::State &state) {
    if (daemon().pid <= 0) {
        state.SkipWithError(("zevdchd did not start: " + daemonPath()).c_str());
        return;
    }
    for (auto _ : state) report(state, runProviders(daemon().port, static_cast<int>(state.range(0))));
}

// Floor and figure alternate for each count, so that drift hits both.
void registerAll() {
    for (int count : {1, 2, 8, 16}) {
        benchmark::RegisterBenchmark("BM_ProvidersEchoFloor", BM_ProvidersEchoFloor)
            ->Arg(count)
            ->Iterations(1)
            ->UseManualTime();
        benchmark::RegisterBenchmark("BM_ProvidersThroughZevdchd", BM_ProvidersThroughZevdchd)
            ->Arg(count)
            ->Iterations(1)
            ->UseManualTime();
    }
}

}  // namespace

int main(int argc, char **argv) {
    if (argc == 4 && strcmp(argv[1], "--provider") == 0) return providerMain(argv[2], argv[3]);
    registerAll();
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    endChildren();
    return 0;
}
