// One-way ingest of 100-byte UDP datagrams: 1 or 4 sender processes send a
// batch of 50,000 between them as fast as they can to the DCH port, the
// server loop queues each datagram and a consumer thread takes it out;
// beside it, the floor: one thread in a plain select + recvfrom loop on a
// socket of its own, fed the same way.
//
// The time reported is the time per message received (from the start of the
// batch to the last message taken, divided by the messages taken), so the
// report's ratio is the cost of a message through the DCH side against the
// plain receive. Counters: msgs_per_s (messages taken per second),
// dropped_share (the part of the batch the receiver never saw: the senders
// outrun both receivers on purpose) and kernel_drop_share (the part the
// kernel dropped at the receiving socket for want of buffer, its own count
// in /proc/net/udp).
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "ipc/zevdsock.h"
#include "support/free_port.h"
#include "support/loopback.h"

namespace {

using zevd::test::freeLoopbackPort;
using zevd::test::loopbackAddress;

constexpr int kBatch = 50000;
constexpr int kLength = 100;
constexpr int kBatchesPerRun = 5;

int64_t nowNs() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// What a receiver has taken so far, and when it took the last one.
struct Tally {
    std::atomic<uint64_t> received{0};
    std::atomic<int64_t> lastNs{0};
    void count() {
        received.fetch_add(1, std::memory_order_relaxed);
        lastNs.store(nowNs(), std::memory_order_relaxed);
    }
};

// The DCH side: the server loop and a consumer thread, started once and
// kept for the process (the receive thread is never joined).
struct Dch {
    uint16_t port = 0;
    Tally tally;
    std::atomic<bool> ready{false};

    Dch() {
        port = freeLoopbackPort();
        setenv("ZEVA_DCH_ADDR", "127.0.0.1", 1);
        setenv("ZEVA_DCH_BIND", "127.0.0.1", 1);
        setenv("ZEVA_DCH_PORT", std::to_string(port).c_str(), 1);
        auto *server = new ipcSock(IPC_SERVICE_SERVER, 0, 0);
        std::thread([this, server] {
            char *buffer = nullptr;
            int32_t capacity = 0;
            char address[IPC_CLIENT_ADDR_SIZE];
            char name[IPC_CLIENT_NAME_SIZE];
            int32_t addressLength = 0;
            uint32_t fd = 0;
            server->ipc_get_data(&buffer, &capacity, address, &addressLength, name, &fd);
            ready.store(true);  // "IPC-SERVER_READY"
            // As zevdchd's worker takes them: every waiting entry at once.
            constexpr int32_t kEntries = IPC_QSIZE - 1;
            ipcEntry entries[kEntries] = {};
            for (ipcEntry &entry : entries) {
                entry.clientAddr = address;
                entry.clientAddrLen = &addressLength;
                entry.clientName = name;
                entry.connectedSockFD = &fd;
            }
            for (;;) {
                int32_t taken = server->ipc_get_batch(entries, kEntries);
                for (int32_t i = 0; i < taken; ++i) tally.count();
            }
        }).detach();
        for (int i = 0; i < 1000 && !ready.load(); ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
};

// The floor: one thread, select and recvfrom on a plain UDP socket.
struct Floor {
    uint16_t port = 0;
    Tally tally;

    Floor() {
        int fd = socket(AF_INET, SOCK_DGRAM, 0);
        struct sockaddr_in any = loopbackAddress(0);
        bind(fd, reinterpret_cast<struct sockaddr *>(&any), sizeof any);
        struct sockaddr_in bound;
        socklen_t length = sizeof bound;
        getsockname(fd, reinterpret_cast<struct sockaddr *>(&bound), &length);
        port = ntohs(bound.sin_port);
        std::thread([this, fd] {
            char buffer[4096];
            for (;;) {
                fd_set mask;
                FD_ZERO(&mask);
                FD_SET(fd, &mask);
                if (select(fd + 1, &mask, nullptr, nullptr, nullptr) <= 0) continue;
                struct sockaddr_in from;
                socklen_t fromLength = sizeof from;
                if (recvfrom(fd, buffer, sizeof buffer, 0,
                             reinterpret_cast<struct sockaddr *>(&from), &fromLength) > 0)
                    tally.count();
            }
        }).detach();
    }
};

// What the kernel dropped at the UDP sockets bound to port for want of
// buffer (the drops column of /proc/net/udp).
uint64_t kernelDrops(uint16_t port) {
    std::ifstream table("/proc/net/udp");
    std::string line;
    std::getline(table, line);  // the heading
    uint64_t drops = 0;
    while (std::getline(table, line)) {
        std::istringstream fields(line);
        std::string slot, local, field;
        fields >> slot >> local;
        size_t colon = local.find(':');
        if (colon == std::string::npos || strtoul(local.c_str() + colon + 1, nullptr, 16) != port)
            continue;
        // rem_address st tx:rx tr:when retrnsmt uid timeout inode ref pointer drops
        for (int i = 0; i < 10 && fields >> field; ++i) {
        }
        if (fields >> field) drops += strtoull(field.c_str(), nullptr, 10);
    }
    return drops;
}

// Sends one batch from senders child processes, as fast as they can, all
// started at once.
void sendBatch(uint16_t port, int senders) {
    int go[2];
    if (pipe(go) != 0) return;
    std::vector<pid_t> children;
    for (int s = 0; s < senders; ++s) {
        pid_t child = fork();
        if (child == 0) {
            close(go[1]);
            char start;
            if (read(go[0], &start, 1) < 0) _exit(1);  // end of file: go
            int fd = socket(AF_INET, SOCK_DGRAM, 0);
            struct sockaddr_in to = loopbackAddress(port);
            connect(fd, reinterpret_cast<struct sockaddr *>(&to), sizeof to);
            char datagram[kLength];
            memset(datagram, 'd', sizeof datagram);
            uint32_t word = htonl(kLength);
            memcpy(datagram, &word, sizeof word);
            for (int i = 0; i < kBatch / senders; ++i) send(fd, datagram, sizeof datagram, 0);
            _exit(0);
        }
        if (child > 0) children.push_back(child);
    }
    close(go[0]);
    close(go[1]);
    for (pid_t child : children) waitpid(child, nullptr, 0);
}

struct Batch {
    uint64_t sent;
    uint64_t received;
    uint64_t kernelDrops;
    double seconds;  // start of the batch to the last message taken
};

Batch runBatch(uint16_t port, int senders, Tally &tally) {
    uint64_t before = tally.received.load();
    uint64_t dropsBefore = kernelDrops(port);
    uint64_t sent = static_cast<uint64_t>(kBatch / senders * senders);
    int64_t start = nowNs();
    sendBatch(port, senders);
    // The receiver drains what was queued; the batch is over when nothing
    // more has come for 50 ms (or all of it came), at most 10 s.
    uint64_t seen = tally.received.load();
    for (int quiet = 0, round = 0; quiet < 10 && round < 2000; ++round) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        uint64_t now = tally.received.load();
        quiet = now == seen ? quiet + 1 : 0;
        seen = now;
        if (seen - before >= sent) break;
    }
    uint64_t received = tally.received.load() - before;
    double seconds = static_cast<double>(tally.lastNs.load() - start) / 1e9;
    return {sent, received, kernelDrops(port) - dropsBefore, seconds > 0 ? seconds : 0};
}

// kBatchesPerRun batches from state.range(0) senders.
void ingest(benchmark::State &state, uint16_t port, Tally &tally) {
    int senders = static_cast<int>(state.range(0));
    Batch total = {0, 0, 0, 0};
    for (auto _ : state) {
        Batch batch = runBatch(port, senders, tally);
        if (batch.received == 0) {
            state.SkipWithError("nothing received");
            break;
        }
        state.SetIterationTime(batch.seconds / static_cast<double>(batch.received));
        total.sent += batch.sent;
        total.received += batch.received;
        total.kernelDrops += batch.kernelDrops;
        total.seconds += batch.seconds;
    }
    if (total.sent == 0) return;
    double sent = static_cast<double>(total.sent);
    state.counters["msgs_per_s"] =
        total.seconds > 0 ? static_cast<double>(total.received) / total.seconds : 0;
    state.counters["dropped_share"] = 1.0 - static_cast<double>(total.received) / sent;
    state.counters["kernel_drop_share"] = static_cast<double>(total.kernelDrops) / sent;
}

void BM_UdpIngestFloor(benchmark::State &state) {
    static Floor *floor = new Floor();
    ingest(state, floor->port, floor->tally);
}
BENCHMARK(BM_UdpIngestFloor)
    ->ArgName("senders")
    ->Arg(1)
    ->Arg(4)
    ->UseManualTime()
    ->Iterations(kBatchesPerRun)
    ->Unit(benchmark::kNanosecond);

void BM_DchIngest(benchmark::State &state) {
    static Dch *dch = new Dch();
    if (!dch->ready.load()) {
        state.SkipWithError("the server did not become ready");
        return;
    }
    ingest(state, dch->port, dch->tally);
}
BENCHMARK(BM_DchIngest)
    ->ArgName("senders")
    ->Arg(1)
    ->Arg(4)
    ->UseManualTime()
    ->Iterations(kBatchesPerRun)
    ->Unit(benchmark::kNanosecond);

}  // namespace

BENCHMARK_MAIN();
