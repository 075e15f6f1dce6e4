// What --state-dir costs a change: dp_online + dp_offline round trips (one
// pair an iteration, median and p99 of 2,000 pairs) through two zevdchd of
// this run, one with --state-dir and one without, first empty, then with a
// 1 MB catalogue (256 applications of about 4 KB), then with 60,000 open
// handles as well. Beside them, the floor: one small append and fdatasync
// in the state directory's filesystem. Each pair with the state is given
// against its limit, 3 times the pair without the state plus one fdatasync
// per change, both measured again just after it (the disk's latency moves
// with whatever else the machine does).
//
// ZEVD_BENCH_STATE_DIR names the directory under which the state goes
// (default /tmp, a directory of its own is made there).
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "common/message.h"
#include "daemon_peer.h"
#include "zevd610.h"

namespace {

using namespace zevd::bench;
using zevd::FieldReader;
using zevd::MessageBuilder;

constexpr int kPairs = 2000;
constexpr int kCatalogueApplications = 256;
constexpr int kOpenHandles = 60000;
constexpr int kWindow = 64;  // requests in flight while the state is filled

std::string stateParent() {
    const char *parent = getenv("ZEVD_BENCH_STATE_DIR");
    return parent != nullptr && parent[0] != '\0' ? parent : "/tmp";
}

std::vector<char> message(const std::function<void(MessageBuilder &)> &build) {
    std::vector<char> m(4096);
    MessageBuilder b(m.data(), m.size());
    b.clear();
    build(b);
    m.resize(b.length());
    return m;
}

std::vector<char> onlineRequest(const std::string &appl, const std::string &source) {
    return message([&](MessageBuilder &b) {
        b.add16(DCH_requestType, ZEVD_REQ_DP_ONLINE);
        b.addString(DCH_applName, appl.c_str());
        b.addString(DCH_attrGroup, "g");
        b.addString(DCH_sourceName, source.c_str());
    });
}

// A register of about 4 KB: long help texts.
std::vector<char> registerRequest(const std::string &appl, size_t helpLength) {
    std::string help(helpLength, 'h');
    return message([&](MessageBuilder &b) {
        b.add16(DCH_requestType, ZEVD_REQ_DP_REGISTER);
        b.addString(DCH_applName, appl.c_str());
        b.addString(0x200, help.c_str());
        b.addString(DCH_attrGroup, "g");
        b.addString(0x200, help.c_str());
        for (const char *name : {"a0", "a1"}) {
            b.addString(DCH_attrName, name);
            b.add16(0x201, 'A');
            b.add32(0x202, 4);
            b.addString(0x200, help.c_str());
        }
    });
}

// One daemon and a socket to it; requests answered one at a time, or many
// in flight.
class Peer {
public:
    explicit Peer(std::vector<std::string> args) {
        uint16_t port = zevd::test::freeLoopbackPort();
        args.insert(args.begin(), {"--port", std::to_string(port)});
        dch_ = startServer(daemonPath(), args, "zevdchd ready on port %u");
        fd_ = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_in any = loopbackAddress(0);
        bind(fd_, reinterpret_cast<sockaddr *>(&any), sizeof any);
        to_ = loopbackAddress(dch_.port);
    }
    bool ok() const { return dch_.pid > 0; }

    void send(const std::vector<char> &request) {
        sendto(fd_, request.data(), request.size(), 0, reinterpret_cast<const sockaddr *>(&to_),
               sizeof to_);
    }
    // The status of the next answer (its handle in *handle), -1 after 10 s.
    int32_t receive(int32_t *handle = nullptr) {
        pollfd p = {fd_, POLLIN, 0};
        if (poll(&p, 1, 10000) != 1) return -1;
        char answer[256];
        ssize_t n = recv(fd_, answer, sizeof answer, 0);
        if (n < 4) return -1;
        FieldReader r(answer, static_cast<size_t>(n));
        if (r.next() != DCH_status) return -1;
        int32_t status = r.int32();
        if (handle != nullptr && r.next() == DCH_handle) *handle = r.int32();
        return status;
    }
    int32_t ask(const std::vector<char> &request, int32_t *handle = nullptr) {
        send(request);
        return receive(handle);
    }
    // Sends all of requests with up to kWindow in flight; false when one was
    // not answered 0.
    bool askAll(const std::vector<std::vector<char>> &requests) {
        size_t sent = 0, answered = 0;
        while (answered < requests.size()) {
            while (sent < requests.size() && sent - answered < kWindow) send(requests[sent++]);
            if (receive() != 0) return false;
            ++answered;
        }
        return true;
    }

private:
    Child dch_;
    int fd_ = -1;
    sockaddr_in to_{};
};

struct Setup {
    std::string dir;
    Peer plain{{}};
    Peer saved;
    int stage = 0;  // 0 empty, 1 with the catalogue, 2 with the handles too

    Setup() : dir(makeDir()), saved({"--state-dir", dir}) {
        for (Peer *p : {&plain, &saved})
            if (p->ok()) p->ask(registerRequest("bench", 10));
    }
    // The state's directory, removed when the program ends.
    static std::string makeDir() {
        static std::string made;
        std::string pattern = stateParent() + "/zevdchd-bench-XXXXXX";
        std::vector<char> name(pattern.begin(), pattern.end());
        name.push_back('\0');
        if (mkdtemp(name.data()) == nullptr) return "";
        made = name.data();
        std::atexit([] {
            std::error_code ignored;
            std::filesystem::remove_all(made, ignored);
        });
        return made;
    }
    bool reach(int wanted) {
        for (; stage < wanted; ++stage) {
            std::vector<std::vector<char>> requests;
            if (stage == 0)
                for (int i = 0; i < kCatalogueApplications; ++i)
                    requests.push_back(registerRequest("cat" + std::to_string(i), 950));
            else
                for (int i = 0; i < kOpenHandles; ++i)
                    requests.push_back(onlineRequest("bench", "open-" + std::to_string(i)));
            for (Peer *p : {&plain, &saved})
                if (!p->askAll(requests)) return false;
        }
        return true;
    }
};

Setup &setup() {
    static Setup *s = new Setup();  // the daemons live as long as the program
    return *s;
}

// One small append to a file beside the state, flushed with fdatasync:
// microseconds, or a negative value when it failed.
class SyncProbe {
public:
    explicit SyncProbe(const std::string &dir) : path_(dir + "/floor") {
        fd_ = open(path_.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    }
    ~SyncProbe() {
        if (fd_ >= 0) close(fd_);
        unlink(path_.c_str());
    }
    double once() {
        const std::string record(64, 'r');
        Clock::time_point start = Clock::now();
        bool written =
            fd_ >= 0 &&
            write(fd_, record.data(), record.size()) == static_cast<ssize_t>(record.size()) &&
            fdatasync(fd_) == 0;
        return written ? microsSince(start) : -1;
    }

private:
    std::string path_;
    int fd_ = -1;
};

double median(std::vector<double> values) {
    if (values.empty()) return 0;
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

void BM_FdatasyncFloor(benchmark::State &state) {
    SyncProbe probe(setup().dir);
    std::vector<double> micros;
    for (auto _ : state) {
        double taken = probe.once();
        if (taken < 0) {
            state.SkipWithError("write or fdatasync failed beside the state");
            break;
        }
        micros.push_back(taken);
        state.SetIterationTime(taken / 1e6);
    }
    reportPercentiles(state, micros, "fdatasyncs");
}
BENCHMARK(BM_FdatasyncFloor)->Iterations(kPairs)->UseManualTime();

// dp_online then dp_offline of one source, at the given stage, through the
// daemon with the state (saved) or without.
void onlineOffline(benchmark::State &state, int stage, bool saved) {
    Setup &s = setup();
    if (!s.plain.ok() || !s.saved.ok()) {
        state.SkipWithError(("zevdchd did not start: " + daemonPath()).c_str());
        return;
    }
    if (!s.reach(stage)) {
        state.SkipWithError("the daemons could not be filled");
        return;
    }
    std::vector<char> online = onlineRequest("bench", "on-and-off");
    // One pair: microseconds, or a negative value when a change failed.
    auto pair = [&](Peer &peer) {
        int32_t handle = 0;
        Clock::time_point start = Clock::now();
        int32_t onlineStatus = peer.ask(online, &handle);
        int32_t offlineStatus = peer.ask(message([&](MessageBuilder &b) {
            b.add16(DCH_requestType, ZEVD_REQ_DP_OFFLINE);
            b.add32(DCH_handle, handle);
        }));
        double taken = microsSince(start);
        return onlineStatus == 0 && offlineStatus == 0 ? taken : -1.0;
    };
    std::vector<double> micros;
    micros.reserve(kPairs);
    for (auto _ : state) {
        double taken = pair(saved ? s.saved : s.plain);
        if (taken < 0) {
            state.SkipWithError("dp_online or dp_offline failed");
            break;
        }
        micros.push_back(taken);
        state.SetIterationTime(taken / 1e6);
    }
    reportPercentiles(state, micros, "pairs");
    if (!saved) return;
    // Its limit, from the disk and the daemon as they are now: pairs
    // without the state and single fdatasyncs beside the state, taken in
    // turns just after. Two changes a pair: each may cost 3 times its
    // round trip without the state, plus one fdatasync.
    SyncProbe probe(s.dir);
    std::vector<double> plain, syncs;
    for (int i = 0; i < kPairs / 4; ++i) {
        plain.push_back(pair(s.plain));
        syncs.push_back(probe.once());
    }
    double limit = 3 * median(plain) + 2 * median(syncs);
    state.counters["plain_us"] = median(plain);
    state.counters["fdatasync_us"] = median(syncs);
    state.counters["limit_us"] = limit;
    state.counters["of_limit"] = limit > 0 ? state.counters["median_us"] / limit : 0;
}

void BM_PairEmpty(benchmark::State &state) {
    onlineOffline(state, 0, false);
}
void BM_PairEmptyWithState(benchmark::State &state) {
    onlineOffline(state, 0, true);
}
void BM_PairCatalogue1MB(benchmark::State &state) {
    onlineOffline(state, 1, false);
}
void BM_PairCatalogue1MBWithState(benchmark::State &state) {
    onlineOffline(state, 1, true);
}
void BM_PairCatalogueAnd60000Handles(benchmark::State &state) {
    onlineOffline(state, 2, false);
}
void BM_PairCatalogueAnd60000HandlesWithState(benchmark::State &state) {
    onlineOffline(state, 2, true);
}
BENCHMARK(BM_PairEmpty)->Iterations(kPairs)->UseManualTime();
BENCHMARK(BM_PairEmptyWithState)->Iterations(kPairs)->UseManualTime();
BENCHMARK(BM_PairCatalogue1MB)->Iterations(kPairs)->UseManualTime();
BENCHMARK(BM_PairCatalogue1MBWithState)->Iterations(kPairs)->UseManualTime();
BENCHMARK(BM_PairCatalogueAnd60000Handles)->Iterations(kPairs)->UseManualTime();
BENCHMARK(BM_PairCatalogueAnd60000HandlesWithState)->Iterations(kPairs)->UseManualTime();

}  // namespace

BENCHMARK_MAIN();
