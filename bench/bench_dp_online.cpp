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
#include "percentiles.h"
#include "support/loopback.h"
#include "zevd610.h"

namespace {

using zevd::test::loopbackAddress;

constexpr int kRoundTrips = 20000;
// dp_online("bench", "group", "7") is 44 bytes; its answer (status, handle) 24.
constexpr size_t kRequestBytes = 44;
constexpr size_t kAnswerBytes = 24;

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

// Reads from fd until a whole line has come, for at most 10 seconds.
std::string readLine(int fd) {
    std::string line;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (line.find('\n') == std::string::npos && line.size() < 4096) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        struct pollfd p = {fd, POLLIN, 0};
        if (left.count() <= 0 || poll(&p, 1, static_cast<int>(left.count())) != 1) break;
        char c;
        if (read(fd, &c, 1) != 1) break;
        line += c;
    }
    return line;
}

// A child process that this program ends when it exits.
struct Child {
    pid_t pid = -1;
    uint16_t port = 0;
};

std::vector<pid_t> &children() {
    static std::vector<pid_t> all;
    return all;
}

void endChildren() {
    for (pid_t pid : children()) {
        kill(pid, SIGTERM);
        waitpid(pid, nullptr, 0);
    }
    children().clear();
}

void adopt(pid_t pid) {
    if (children().empty()) atexit(endChildren);
    children().push_back(pid);
}

// zevd_fake_dch on loopback; its port is read from its ready line.
Child startFakeDch() {
    Child child;
    int out[2];
    if (pipe2(out, O_CLOEXEC) != 0) return child;
    std::string path = fakeDchPath();
    pid_t pid = fork();
    if (pid == 0) {
        // Ends with this program, however that ends.
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        dup2(out[1], STDOUT_FILENO);
        int null = open("/dev/null", O_WRONLY);
        if (null >= 0) dup2(null, STDERR_FILENO);
        setenv("ZEVA_DCH_BIND", "127.0.0.1", 1);
        execl(path.c_str(), path.c_str(), static_cast<char *>(nullptr));
        _exit(127);
    }
    close(out[1]);
    if (pid < 0) {
        close(out[0]);
        return child;
    }
    adopt(pid);
    std::string line = readLine(out[0]);
    close(out[0]);
    unsigned port = 0;
    if (sscanf(line.c_str(), "zevd_fake_dch ready on port %u", &port) == 1 && port < 65536) {
        child.pid = pid;
        child.port = static_cast<uint16_t>(port);
    }
    return child;
}

// A process that answers every datagram on a loopback port with the same
// kAnswerBytes bytes, a dp_online answer (status 0, handle 7): the plainest
// peer there is.
Child startEcho() {
    Child child;
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    struct sockaddr_in any = loopbackAddress(0);
    if (fd < 0 || bind(fd, reinterpret_cast<struct sockaddr *>(&any), sizeof any) != 0) {
        if (fd >= 0) close(fd);
        return child;
    }
    struct sockaddr_in bound;
    socklen_t length = sizeof bound;
    getsockname(fd, reinterpret_cast<struct sockaddr *>(&bound), &length);
    pid_t pid = fork();
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);  // ends with this program
        char in[8192];
        const unsigned char answer[kAnswerBytes] = {
            0, 0,   0, 24,                     // length word
            0, 17,  0, 0,  0, 4, 0, 0, 0, 0,   // DCH_status 0
            0, 128, 0, 0,  0, 4, 0, 0, 0, 7};  // DCH_handle 7
        for (;;) {
            struct sockaddr_in from;
            socklen_t fromLength = sizeof from;
            ssize_t n = recvfrom(fd, in, sizeof in, 0, reinterpret_cast<struct sockaddr *>(&from),
                                 &fromLength);
            if (n < 0) continue;
            sendto(fd, answer, sizeof answer, 0, reinterpret_cast<struct sockaddr *>(&from),
                   fromLength);
        }
    }
    close(fd);
    if (pid < 0) return child;
    adopt(pid);
    child.pid = pid;
    child.port = ntohs(bound.sin_port);
    return child;
}

// The DCH of this process, fixed before its first transport reads the
// configuration.
const Child &fakeDch() {
    static const Child dch = [] {
        Child started = startFakeDch();
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

using Clock = std::chrono::steady_clock;

double microsSince(Clock::time_point start) {
    return std::chrono::duration<double, std::micro>(Clock::now() - start).count();
}

// The dp_online request as it goes on the wire.
const unsigned char kOnlineRequest[kRequestBytes] = {
    0, 0,  0, 44,                                      // length word
    0, 16, 0, 0,  0, 2, 0x10, 0x15,                    // DCH_requestType dp_online
    0, 32, 0, 0,  0, 6, 'b',  'e',  'n', 'c', 'h', 0,  // DCH_applName
    0, 35, 0, 0,  0, 6, 'g',  'r',  'o', 'u', 'p', 0,  // DCH_attrGroup
    0, 34, 0, 0,  0, 2, '7',  0};                      // DCH_sourceName

// Plain UDP round trips of the dp_online request and its answer with the
// process at port: no library on this side.
void rawPingPong(benchmark::State &state, uint16_t port) {
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    struct sockaddr_in any = loopbackAddress(0);
    bind(fd, reinterpret_cast<struct sockaddr *>(&any), sizeof any);
    struct sockaddr_in to = loopbackAddress(port);
    char answer[8192];
    std::vector<double> micros;
    micros.reserve(kRoundTrips);
    for (auto _ : state) {
        Clock::time_point start = Clock::now();
        sendto(fd, kOnlineRequest, sizeof kOnlineRequest, 0,
               reinterpret_cast<struct sockaddr *>(&to), sizeof to);
        ssize_t n = recvfrom(fd, answer, sizeof answer, 0, nullptr, nullptr);
        micros.push_back(microsSince(start));
        if (n != static_cast<ssize_t>(kAnswerBytes)) {
            state.SkipWithError("short answer");
            break;
        }
    }
    close(fd);
    zevd::bench::reportPercentiles(state, micros, "round_trips");
}

const Child &echoPeer() {
    static const Child echo = startEcho();
    return echo;
}

void BM_RawUdpPingPongFloor(benchmark::State &state) {
    if (echoPeer().pid <= 0) {
        state.SkipWithError("the echo process did not start");
        return;
    }
    rawPingPong(state, echoPeer().port);
}
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
