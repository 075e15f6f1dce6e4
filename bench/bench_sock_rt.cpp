// Round trip of a 100-byte message between two socket transports in one
// process (ipcWrite, then ipcRead on the other side, and back), beside the
// same exchange over plain UDP sockets.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <vector>

#include "ipc/zevdsock.h"
#include "support/loopback.h"

namespace {

using zevd::test::boundPort;
using zevd::test::loopbackAddress;

constexpr int kMessageLength = 100;

std::vector<char> message() {
    std::vector<char> bytes(kMessageLength, 'm');
    uint32_t word = htonl(kMessageLength);
    memcpy(bytes.data(), &word, sizeof word);
    return bytes;
}

void BM_RawUdpRoundTripFloor(benchmark::State &state) {
    int a = socket(AF_INET, SOCK_DGRAM, 0);
    int b = socket(AF_INET, SOCK_DGRAM, 0);
    struct sockaddr_in any = loopbackAddress(0);
    bind(a, reinterpret_cast<struct sockaddr *>(&any), sizeof any);
    bind(b, reinterpret_cast<struct sockaddr *>(&any), sizeof any);
    struct sockaddr_in toA = loopbackAddress(boundPort(a));
    struct sockaddr_in toB = loopbackAddress(boundPort(b));
    std::vector<char> out = message();
    char in[8192];
    for (auto _ : state) {
        sendto(a, out.data(), out.size(), 0, reinterpret_cast<struct sockaddr *>(&toB), sizeof toB);
        ssize_t n = recvfrom(b, in, sizeof in, 0, nullptr, nullptr);
        sendto(b, in, static_cast<size_t>(n), 0, reinterpret_cast<struct sockaddr *>(&toA),
               sizeof toA);
        n = recvfrom(a, in, sizeof in, 0, nullptr, nullptr);
        if (n != kMessageLength) state.SkipWithError("short round trip");
        benchmark::DoNotOptimize(in);
    }
    close(a);
    close(b);
}
BENCHMARK(BM_RawUdpRoundTripFloor)->UseRealTime();

void BM_SockTransportRoundTrip(benchmark::State &state) {
    // Sockets of their own: no pool and no DCH address to resolve.
    ipcSock a(1, 1, 0);
    ipcSock b(1, 1, 0);
    struct sockaddr_in toB = loopbackAddress(b.sockPortUDP());
    struct sockaddr_in toA = loopbackAddress(a.sockPortUDP());
    a.setClientAddr(&toB, sizeof toB);
    b.setClientAddr(&toA, sizeof toA);
    std::vector<char> out = message();
    for (auto _ : state) {
        char *received = nullptr;
        a.ipcWrite(out.data(), kMessageLength, 0);
        int32_t n = b.ipcRead(&received, 5);
        b.ipcWrite(received, n, 0);
        delete[] received;
        received = nullptr;
        n = a.ipcRead(&received, 5);
        if (n != kMessageLength) state.SkipWithError("short round trip");
        delete[] received;
    }
}
BENCHMARK(BM_SockTransportRoundTrip)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
