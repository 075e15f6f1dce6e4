// A burst of rows at the DCH port: 8 threads send 10,000 valid dp_data
// datagrams each, all at once and without waiting for the answers, to
// zevdchd with the receive buffer of its UDP port set by --rcvbuf. Reports
// the share of the burst the kernel dropped at the port, as the daemon counts
// it (its counters after SIGUSR1), beside its floor from the same run: the
// same burst at a plain UDP socket with the kernel's default buffer, read by
// a thread that does nothing else.
//
// The daemon as it is started by default (no --rcvbuf: 32 MiB asked for) is
// measured twice: with CAP_NET_ADMIN, as root has it, which lets it pass
// net.core.rmem_max, and without (dropped from the daemon's bounding set when
// this program runs as root), where it gets at most net.core.rmem_max. The
// rcvbuf:212992 row is what it gets without the capability on a host whose
// net.core.rmem_max is the kernel's default.
#include <benchmark/benchmark.h>
#include <linux/capability.h>
#include <linux/sock_diag.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <latch>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "common/message.h"
#include "daemon_peer.h"
#include "support/free_port.h"
#include "zevd610.h"

namespace {

using namespace zevd::bench;
using zevd::test::loopbackAddress;

constexpr int kSenders = 8;
constexpr int kRowsEach = 10000;
constexpr int kBurstRows = kSenders * kRowsEach;

template <typename Build>
std::vector<char> message(Build build) {
    std::vector<char> bytes(4096);
    zevd::MessageBuilder builder(bytes.data(), bytes.size());
    builder.clear();
    build(builder);
    bytes.resize(builder.length());
    return bytes;
}

// One request and its answer over a socket of its own; empty when no answer
// came within 5 seconds.
std::vector<char> askDaemon(uint16_t port, const std::vector<char> &request) {
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in to = loopbackAddress(port);
    timeval wait = {5, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
    std::vector<char> answer(4096);
    ssize_t n = -1;
    if (zevd::test::sendDatagram(fd, to, request)) n = recv(fd, answer.data(), answer.size(), 0);
    close(fd);
    answer.resize(n > 0 ? static_cast<size_t>(n) : 0);
    return answer;
}

// The status of an answer (-1 when it has none), and its handle.
int32_t answerStatus(const std::vector<char> &answer, int32_t *handle = nullptr) {
    zevd::FieldReader reader(answer.data(), answer.size());
    if (reader.next() != DCH_status) return -1;
    int32_t status = reader.int32();
    if (handle != nullptr && reader.next() == DCH_handle) *handle = reader.int32();
    return status;
}

// Registers "burst" with one group and brings a source online: the handle,
// 0 when the daemon refused.
int32_t openHandle(uint16_t port) {
    std::vector<char> registration = message([](zevd::MessageBuilder &b) {
        b.add16(DCH_requestType, ZEVD_REQ_DP_REGISTER);
        b.addString(DCH_applName, "burst");
        b.addString(0x200, "");
        b.addString(DCH_attrGroup, "rows");
        b.addString(0x200, "");
        b.addString(DCH_attrName, "v");
        b.add16(0x201, 'A');
        b.add32(0x202, 4);
        b.addString(0x200, "");
    });
    if (answerStatus(askDaemon(port, registration)) != 0) return 0;
    int32_t handle = 0;
    std::vector<char> online = message([](zevd::MessageBuilder &b) {
        b.add16(DCH_requestType, ZEVD_REQ_DP_ONLINE);
        b.addString(DCH_applName, "burst");
        b.addString(DCH_attrGroup, "rows");
        b.addString(DCH_sourceName, "s");
    });
    return answerStatus(askDaemon(port, online), &handle) == 0 ? handle : 0;
}

std::vector<char> row(int32_t handle) {
    return message([handle](zevd::MessageBuilder &b) {
        b.add16(DCH_requestType, ZEVD_REQ_DP_DATA);
        b.add32(DCH_handle, handle);
        b.add16(DCH_dataFlag, 0);
        b.addString(DCH_attrName, "v");
        int32_t value = 7;
        b.addValue(DCH_attrValue, &value, 4, "A");
    });
}

// kSenders threads, each with a socket of its own, send kRowsEach copies of
// datagram to port, starting together.
void burst(uint16_t port, const std::vector<char> &datagram) {
    std::latch start(kSenders);
    std::vector<std::thread> senders;
    for (int s = 0; s < kSenders; ++s) {
        senders.emplace_back([&] {
            int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
            sockaddr_in to = loopbackAddress(port);
            start.arrive_and_wait();
            for (int i = 0; i < kRowsEach; ++i)
                sendto(fd, datagram.data(), datagram.size(), 0, reinterpret_cast<sockaddr *>(&to),
                       sizeof to);
            close(fd);
        });
    }
    for (std::thread &sender : senders) sender.join();
}

// The last value of counter NAME in the trace text, -1 when there is none.
long long lastCounter(const std::string &trace, const std::string &name) {
    std::string key = "counter " + name + " ";
    size_t at = trace.rfind(key);
    return at == std::string::npos ? -1 : atoll(trace.c_str() + at + key.size());
}

// The rows the daemon took and the datagrams the kernel dropped at its port,
// from the counters it writes on SIGUSR1.
struct Taken {
    long long rows = -1;
    long long kernelDrops = -1;
};

// Whether this process's effective capabilities hold CAP_NET_ADMIN.
bool hasNetAdmin(pid_t pid = 0) {
    std::ifstream in(pid > 0 ? "/proc/" + std::to_string(pid) + "/status"
                             : std::string("/proc/self/status"));
    std::string line;
    while (std::getline(in, line)) {
        if (line.rfind("CapEff:", 0) == 0)
            return (strtoull(line.c_str() + 7, nullptr, 16) >> CAP_NET_ADMIN) & 1;
    }
    return false;
}

// In the daemon's child before it starts: root's programs get no
// CAP_NET_ADMIN once it is out of the bounding set.
void dropNetAdmin() {
    prctl(PR_CAPBSET_DROP, CAP_NET_ADMIN, 0, 0, 0);
}

// zevdchd with --rcvbuf receiveBuffer (its default when 0), without
// CAP_NET_ADMIN when unprivileged.
class TracedDaemon {
public:
    explicit TracedDaemon(long receiveBuffer, bool unprivileged = false) {
        char path[] = "/tmp/zevdchd-burst-XXXXXX";
        int fd = mkstemp(path);
        if (fd >= 0) close(fd);
        tracePath_ = path;
        uint16_t port = zevd::test::freeLoopbackPort();
        std::vector<std::string> args = {"--port", std::to_string(port), "--trace-file",
                                         tracePath_};
        if (receiveBuffer > 0) {
            args.push_back("--rcvbuf");
            args.push_back(std::to_string(receiveBuffer));
        }
        child_ = startServer(daemonPath(), args, "zevdchd ready on port %u", nullptr,
                             unprivileged ? dropNetAdmin : nullptr);
    }
    ~TracedDaemon() {
        if (child_.pid > 0) {
            kill(child_.pid, SIGTERM);
            waitpid(child_.pid, nullptr, 0);
            auto &all = children();
            all.erase(std::remove(all.begin(), all.end(), child_.pid), all.end());
        }
        unlink(tracePath_.c_str());
    }
    TracedDaemon(const TracedDaemon &) = delete;
    TracedDaemon &operator=(const TracedDaemon &) = delete;

    bool started() const { return child_.pid > 0; }
    pid_t pid() const { return child_.pid; }
    uint16_t port() const { return child_.port; }
    std::string trace() const {
        std::ifstream in(tracePath_);
        std::stringstream text;
        text << in.rdbuf();
        return text.str();
    }
    // The counters as of now: SIGUSR1, then the new lines read back.
    Taken counters() {
        std::string last = "counter drops{reason=\"kernel_receive_buffer\"}";
        size_t before = occurrences(trace(), last);
        kill(child_.pid, SIGUSR1);
        auto deadline = Clock::now() + std::chrono::seconds(10);
        std::string text = trace();
        while (occurrences(text, last) == before && Clock::now() < deadline) {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
            text = trace();
        }
        return {lastCounter(text, "requests{request=\"dp_data\"}"),
                lastCounter(text, "drops{reason=\"kernel_receive_buffer\"}")};
    }

private:
    static size_t occurrences(const std::string &text, const std::string &part) {
        size_t count = 0;
        for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
            ++count;
        return count;
    }

    std::string tracePath_;
    Child child_;
};

// The burst at dch. Counters: the buffer the daemon got (the kernel's
// figure, twice what was set), whether it was forced past
// net.core.rmem_max, and whether the daemon held CAP_NET_ADMIN.
void burstAt(benchmark::State &state, TracedDaemon &dch) {
    int32_t handle = dch.started() ? openHandle(dch.port()) : 0;
    if (handle <= 0) {
        state.SkipWithError(("zevdchd did not start or serve: " + daemonPath()).c_str());
        return;
    }
    std::string given = dch.trace();
    size_t note = given.find("receive buffer of the DCH port: ");
    long effective = note == std::string::npos ? -1 : atol(given.c_str() + note + 32);
    bool forced = note != std::string::npos &&
                  given.find("through SO_RCVBUFFORCE", note) < given.find('\n', note);
    bool privileged = hasNetAdmin(dch.pid());
    std::vector<char> datagram = row(handle);
    long long drops = 0;
    for (auto _ : state) {
        Taken before = dch.counters();
        Clock::time_point start = Clock::now();
        burst(dch.port(), datagram);
        // Every datagram is taken or dropped once the counters add up to the
        // burst; what is still missing after 10 seconds stays missing.
        Taken after = before;
        auto deadline = Clock::now() + std::chrono::seconds(10);
        do {
            after = dch.counters();
        } while (after.rows - before.rows + after.kernelDrops - before.kernelDrops < kBurstRows &&
                 Clock::now() < deadline);
        state.SetIterationTime(std::chrono::duration<double>(Clock::now() - start).count());
        drops = after.kernelDrops - before.kernelDrops;
        state.counters["rows_sent"] = kBurstRows;
        state.counters["kernel_drops"] = static_cast<double>(drops);
        state.counters["unaccounted"] =
            static_cast<double>(kBurstRows - (after.rows - before.rows) - drops);
        state.counters["dropped_share"] = static_cast<double>(drops) / kBurstRows;
        state.counters["rcvbuf_effective"] = static_cast<double>(effective);
        state.counters["rcvbuf_forced"] = forced ? 1 : 0;
        state.counters["cap_net_admin"] = privileged ? 1 : 0;
    }
}

// The burst at zevdchd with --rcvbuf state.range(0).
void BM_BurstAtZevdchd(benchmark::State &state) {
    TracedDaemon dch(state.range(0));
    burstAt(state, dch);
}
BENCHMARK(BM_BurstAtZevdchd)
    ->ArgName("rcvbuf")
    ->Arg(212992)
    ->Arg(1 << 20)
    ->Arg(2 << 20)
    ->Arg(4 << 20)
    ->Arg(8 << 20)
    ->Arg(16 << 20)
    ->Arg(24 << 20)
    ->Arg(32 << 20)
    ->Arg(64 << 20)
    ->Iterations(1)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

// The daemon as started by default, with CAP_NET_ADMIN (root).
void BM_BurstAtZevdchdDefault(benchmark::State &state) {
    if (!hasNetAdmin()) {
        state.SkipWithError(
            "not run as root: without CAP_NET_ADMIN the daemon's buffer is capped by "
            "net.core.rmem_max (the Unprivileged row)");
        return;
    }
    TracedDaemon dch(0);
    burstAt(state, dch);
}
BENCHMARK(BM_BurstAtZevdchdDefault)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);

// The daemon as started by default, without CAP_NET_ADMIN.
void BM_BurstAtZevdchdUnprivileged(benchmark::State &state) {
    TracedDaemon dch(0, true);
    burstAt(state, dch);
}
BENCHMARK(BM_BurstAtZevdchdUnprivileged)
    ->Iterations(1)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

// The floor: the same burst at a plain socket with the kernel's default
// buffer, drained by one thread; its drops read as the daemon reads its own.
void BM_BurstAtRawSocketFloor(benchmark::State &state) {
    for (auto _ : state) {
        int in = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_in any = loopbackAddress(0);
        if (in < 0 || bind(in, reinterpret_cast<sockaddr *>(&any), sizeof any) != 0) {
            state.SkipWithError("no socket for the floor");
            if (in >= 0) close(in);
            return;
        }
        timeval wait = {0, 200000};
        setsockopt(in, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
        std::atomic<long> received{0};
        std::atomic<bool> sent{false};
        std::thread reader([&] {
            char buffer[8192];
            // Ends 200 ms after the last datagram once the burst is out.
            while (received.load() < kBurstRows) {
                if (recv(in, buffer, sizeof buffer, 0) > 0)
                    ++received;
                else if (sent.load())
                    break;
            }
        });
        Clock::time_point start = Clock::now();
        burst(zevd::test::boundPort(in), row(1));
        sent = true;
        reader.join();
        state.SetIterationTime(std::chrono::duration<double>(Clock::now() - start).count());
        uint32_t info[SK_MEMINFO_VARS] = {};
        socklen_t length = sizeof info;
        long drops = getsockopt(in, SOL_SOCKET, SO_MEMINFO, info, &length) == 0
                         ? static_cast<long>(info[SK_MEMINFO_DROPS])
                         : -1;
        close(in);
        state.counters["rows_sent"] = kBurstRows;
        state.counters["kernel_drops"] = static_cast<double>(drops);
        state.counters["unaccounted"] = static_cast<double>(kBurstRows - received.load() - drops);
        state.counters["dropped_share"] = static_cast<double>(drops) / kBurstRows;
    }
}
BENCHMARK(BM_BurstAtRawSocketFloor)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
