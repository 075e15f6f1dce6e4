// The peers of the round-trip and stream benchmarks: server programs in
// child processes that end with the benchmark, an echo process, and the
// plain UDP ping-pong that is the floor of every round trip.
#ifndef ZEVD_BENCH_PEERS_H
#define ZEVD_BENCH_PEERS_H

#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "percentiles.h"
#include "support/loopback.h"

namespace zevd::bench {

using zevd::test::loopbackAddress;

constexpr int kRoundTrips = 20000;
// dp_online("bench", "group", "7") is 44 bytes; its answer (status, handle) 24.
constexpr size_t kRequestBytes = 44;
constexpr size_t kAnswerBytes = 24;

// Reads from fd until a whole line has come, for at most 10 seconds.
inline std::string readLine(int fd) {
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

inline std::vector<pid_t> &children() {
    static std::vector<pid_t> all;
    return all;
}

inline void endChildren() {
    for (pid_t pid : children()) {
        kill(pid, SIGTERM);
        waitpid(pid, nullptr, 0);
    }
    children().clear();
}

inline void adopt(pid_t pid) {
    if (children().empty()) atexit(endChildren);
    children().push_back(pid);
}

// A server program on loopback (ZEVA_DCH_BIND=127.0.0.1), ended with this
// program; its port is read from its ready line, of the form readyFormat.
// The lines it prints before that one (at most 8) go to *before; inChild,
// when given, runs in the child just before the program starts.
inline Child startServer(const std::string &path, const std::vector<std::string> &args,
                         const char *readyFormat, std::vector<std::string> *before = nullptr,
                         void (*inChild)() = nullptr) {
    Child child;
    int out[2];
    if (pipe2(out, O_CLOEXEC) != 0) return child;
    std::vector<char *> argv = {const_cast<char *>(path.c_str())};
    for (const std::string &a : args) argv.push_back(const_cast<char *>(a.c_str()));
    argv.push_back(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        // Ends with this program, however that ends.
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        dup2(out[1], STDOUT_FILENO);
        int null = open("/dev/null", O_WRONLY);
        if (null >= 0) dup2(null, STDERR_FILENO);
        setenv("ZEVA_DCH_BIND", "127.0.0.1", 1);
        if (inChild != nullptr) inChild();
        execv(path.c_str(), argv.data());
        _exit(127);
    }
    close(out[1]);
    if (pid < 0) {
        close(out[0]);
        return child;
    }
    adopt(pid);
    for (int lines = 0; lines <= 8; ++lines) {
        std::string line = readLine(out[0]);
        unsigned port = 0;
        if (sscanf(line.c_str(), readyFormat, &port) == 1 && port < 65536) {
            child.pid = pid;
            child.port = static_cast<uint16_t>(port);
            break;
        }
        if (line.empty()) break;  // ended, or silent for 10 seconds
        if (before != nullptr) before->push_back(line);
    }
    close(out[0]);
    return child;
}

// A process that answers every datagram on a loopback port with the same
// kAnswerBytes bytes, a dp_online answer (status 0, handle 7): the plainest
// peer there is.
inline Child startEcho() {
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

using Clock = std::chrono::steady_clock;

inline double microsSince(Clock::time_point start) {
    return std::chrono::duration<double, std::micro>(Clock::now() - start).count();
}

// The dp_online request as it goes on the wire.
inline const unsigned char kOnlineRequest[kRequestBytes] = {
    0, 0,  0, 44,                                      // length word
    0, 16, 0, 0,  0, 2, 0x10, 0x15,                    // DCH_requestType dp_online
    0, 32, 0, 0,  0, 6, 'b',  'e',  'n', 'c', 'h', 0,  // DCH_applName
    0, 35, 0, 0,  0, 6, 'g',  'r',  'o', 'u', 'p', 0,  // DCH_attrGroup
    0, 34, 0, 0,  0, 2, '7',  0};                      // DCH_sourceName

// Plain UDP round trips of the dp_online request and its answer with the
// process at port: no library on this side.
inline void rawPingPong(benchmark::State &state, uint16_t port) {
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
    reportPercentiles(state, micros, "round_trips");
}

// The echo process of this program, started at its first use.
inline const Child &echoPeer() {
    static const Child echo = startEcho();
    return echo;
}

// The floor of every round trip: plain UDP ping-pong with the echo process.
inline void BM_RawUdpPingPongFloor(benchmark::State &state) {
    if (echoPeer().pid <= 0) {
        state.SkipWithError("the echo process did not start");
        return;
    }
    rawPingPong(state, echoPeer().port);
}

}  // namespace zevd::bench

#endif  // ZEVD_BENCH_PEERS_H
