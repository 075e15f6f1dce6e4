// What a data wait costs from the DCH's send to the consumer's return: a
// sender thread plays the DCH, sending each message from a plain UDP socket
// to the address the consumer's register came from, while the benchmark's
// thread waits for it in dc_waitOnData. Beside it, its floor: the same
// messages from one plain UDP socket to another, taken with a blocking
// poll and recvfrom (the wait's own calls), in the same two threads,
// measured in the same run.
//
// One message is in flight at a time: the consumer asks for the next one
// only after it has taken the last, so each figure is one message's latency,
// never a queue's. Every message carries the time it was sent, and the
// consumer takes the difference as soon as its wait returns. That
// difference is the iteration's time, so the report's ratio compares the
// mean latencies; the median and the 99th percentile are counters.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "percentiles.h"
#include "support/free_port.h"
#include "support/loopback.h"
#include "zevd610.h"

namespace {

using zevd::test::bindLoopback;
using zevd::test::boundPort;
using zevd::test::loopbackAddress;

constexpr int kMessages = 20000;
// The length word, then one DCH_sourceName field (34) whose value fills the
// rest and begins with the time of the send.
constexpr size_t kMessageBytes = 100;
constexpr size_t kStampOffset = 4 + 6;

int64_t nowNs() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

std::vector<char> message() {
    std::vector<char> bytes(kMessageBytes, 'd');
    uint32_t length = htonl(kMessageBytes);
    uint16_t type = htons(34);
    uint32_t valueLength = htonl(kMessageBytes - kStampOffset);
    memcpy(bytes.data(), &length, sizeof length);
    memcpy(bytes.data() + 4, &type, sizeof type);
    memcpy(bytes.data() + 6, &valueLength, sizeof valueLength);
    bytes.back() = 0;
    return bytes;
}

// The consumer's requests for messages, as the sender sees them.
class Handoff {
public:
    // One more message may go.
    void request() {
        {
            std::lock_guard<std::mutex> guard(_lock);
            ++_requested;
        }
        _wake.notify_one();
    }
    // No more messages.
    void stop() {
        {
            std::lock_guard<std::mutex> guard(_lock);
            _stopped = true;
        }
        _wake.notify_one();
    }
    // Waits until the message after the sent ones may go; false once stopped.
    bool await(int sent) {
        std::unique_lock<std::mutex> guard(_lock);
        _wake.wait(guard, [&] { return _stopped || _requested > sent; });
        return !_stopped;
    }

private:
    std::mutex _lock;
    std::condition_variable _wake;
    int _requested = 0;
    bool _stopped = false;
};

// Sends the messages from fd to to on a thread of its own, each when the
// benchmark's thread asks for it, and times each from its send to the return
// of receive (which fills the buffer and returns the message's length, or
// -1).
template <typename Receive>
void oneWay(benchmark::State &state, int fd, const struct sockaddr_in &to, Receive receive) {
    Handoff handoff;
    std::thread sender([&] {
        std::vector<char> out = message();
        for (int sent = 0; handoff.await(sent); ++sent) {
            int64_t stamp = nowNs();
            memcpy(out.data() + kStampOffset, &stamp, sizeof stamp);
            sendto(fd, out.data(), out.size(), 0, reinterpret_cast<const struct sockaddr *>(&to),
                   sizeof to);
        }
    });
    char in[4096];
    std::vector<double> micros;
    micros.reserve(kMessages);
    for (auto _ : state) {
        handoff.request();
        ssize_t n = receive(in, sizeof in);
        int64_t now = nowNs();
        if (n != static_cast<ssize_t>(kMessageBytes)) {
            state.SkipWithError("no whole message");
            break;
        }
        int64_t stamp = 0;
        memcpy(&stamp, in + kStampOffset, sizeof stamp);
        double latency = static_cast<double>(now - stamp) / 1e3;
        micros.push_back(latency);
        state.SetIterationTime(latency / 1e6);
    }
    handoff.stop();
    sender.join();
    zevd::bench::reportPercentiles(state, micros, "messages");
}

void BM_RawUdpOneWayFloor(benchmark::State &state) {
    int from = bindLoopback(SOCK_DGRAM, 0);
    int at = bindLoopback(SOCK_DGRAM, 0);
    if (from >= 0 && at >= 0) {
        oneWay(state, from, loopbackAddress(boundPort(at)), [at](char *buffer, size_t capacity) {
            struct pollfd ready = {at, POLLIN, 0};
            if (poll(&ready, 1, -1) != 1) return ssize_t{-1};
            return recvfrom(at, buffer, capacity, 0, nullptr, nullptr);
        });
    } else {
        state.SkipWithError("no loopback sockets");
    }
    if (from >= 0) close(from);
    if (at >= 0) close(at);
}
BENCHMARK(BM_RawUdpOneWayFloor)->Iterations(kMessages)->UseManualTime();

// The DCH's socket: named in the configuration before the library's first
// call reads it, and kept for the process, since the configuration is read
// once.
int dchSocket() {
    static const int fd = [] {
        int bound = bindLoopback(SOCK_DGRAM, 0);
        if (bound >= 0) {
            setenv("ZEVA_DCH_ADDR", "127.0.0.1", 1);
            setenv("ZEVA_DCH_PORT", std::to_string(boundPort(bound)).c_str(), 1);
        }
        return bound;
    }();
    return fd;
}

// Drops what is waiting on fd: an earlier run's withdraw is not this run's
// register.
void drain(int fd) {
    char datagram[8192];
    while (recv(fd, datagram, sizeof datagram, MSG_DONTWAIT) >= 0) {
    }
}

// Receives the register on the DCH's socket, for at most 5 seconds; its
// sender is the consumer.
bool receiveRegister(int fd, struct sockaddr_in *consumer) {
    struct pollfd ready = {fd, POLLIN, 0};
    if (poll(&ready, 1, 5000) != 1) return false;
    char datagram[8192];
    socklen_t length = sizeof *consumer;
    return recvfrom(fd, datagram, sizeof datagram, 0, reinterpret_cast<struct sockaddr *>(consumer),
                    &length) > 0;
}

void BM_DataWaitOneWay(benchmark::State &state) {
    int dch = dchSocket();
    if (dch < 0) {
        state.SkipWithError("no loopback socket for the DCH");
        return;
    }
    drain(dch);
    void *client = dc_waitOnDataInitialize("bench", "group");
    if (client == nullptr) {
        state.SkipWithError("dc_waitOnDataInitialize failed");
        return;
    }
    struct sockaddr_in consumer;
    if (receiveRegister(dch, &consumer)) {
        oneWay(state, dch, consumer, [client](char *buffer, size_t capacity) {
            if (dc_waitOnData(client, buffer, static_cast<int>(capacity)) != 0) return ssize_t{-1};
            uint32_t length = 0;
            memcpy(&length, buffer, sizeof length);
            return static_cast<ssize_t>(ntohl(length));
        });
    } else {
        state.SkipWithError("no register came");
    }
    dc_waitOnDataDestroy(client);
}
BENCHMARK(BM_DataWaitOneWay)->Iterations(kMessages)->UseManualTime();

}  // namespace

BENCHMARK_MAIN();
