// A row's way from one provider to 1, 10 and 100 consumers through zevdchd:
// the provider sends each row with dp_data; each consumer registered its
// interest with dc_waitOnDataInitialize and waits in dc_waitOnData on a
// thread of its own, all of them in one process of their own (this program
// again). Beside it, its floor from the same run: the same fan-out through a
// plain UDP relay process, which answers each row as the daemon does and then
// sends it to every socket that asked for rows, read by consumers on plain
// sockets. The rows the relay forwards are the daemon's forwarded rows, byte
// for byte.
//
// Each row carries the time it was made (taken just before the provider's
// last dp_formatData, or the relay provider's send), and each consumer takes
// the difference as soon as its wait returns.
// - Latency: one row in flight; the next goes once every consumer has the
//   last, or after 200 ms. Counters: median_us and p99_us of every receipt,
//   last_median_us and last_p99_us of the slowest consumer of each row
//   delivered to all, lost_share.
// - Stream: rows as fast as the provider's answers let it send them.
//   Counters: rows_per_s (rows delivered to every consumer per second: the
//   receipts over the consumers, over the time from the first send to the
//   last receipt), deliveries_per_s, lost_share.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "common/message.h"
#include "daemon_peer.h"
#include "support/free_port.h"
#include "zevd610.h"

namespace {

using namespace zevd::bench;
using zevd::test::bindLoopback;
using zevd::test::loopbackAddress;

constexpr char kAppl[] = "fanout";
constexpr char kSource[] = "p";
// The attribute that carries "sequence time" as text.
constexpr char kStampName[] = "t";
constexpr int kStampBytes = 32;
// The sequence number of the rows that only tell that every consumer is
// subscribed.
constexpr int kProbe = -1;
constexpr int kRowWaitMillis = 200;
constexpr char kConsumerFlag[] = "--fanout-consumers";
// What the relay's consumers send it to be given rows, and what its
// provider sends before a run to forget the consumers of the last.
constexpr char kSubscribe[] = "fanout-subscribe";
constexpr char kReset[] = "fanout-reset";
// The relay's answer to a row: the daemon's answer to dp_data, status 0.
constexpr unsigned char kRowAnswer[] = {0, 0, 0, 14, 0, 17, 0, 0, 0, 4, 0, 0, 0, 0};

int latencyRows(int consumers) {
    return std::max(200, 4000 / consumers);
}
int streamRows(int consumers) {
    return std::max(500, 20000 / consumers);
}
std::string groupFor(int consumers) {
    char name[16];
    snprintf(name, sizeof name, "c%d", consumers);
    return name;
}

int64_t nowNs() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch())
        .count();
}

// What the consumers report, in memory both processes map: a header, then
// for every row the consumers that have it, then every consumer's latency of
// every row in microseconds (negative until it came).
struct BoardHeader {
    std::atomic<int32_t> ready{0};
    std::atomic<int32_t> probed{0};
    std::atomic<uint64_t> receipts{0};
    std::atomic<int64_t> lastNs{0};
};

class Board {
public:
    static size_t bytes(int consumers, int rows) {
        return sizeof(BoardHeader) + sizeof(std::atomic<int32_t>) * static_cast<size_t>(rows) +
               sizeof(float) * static_cast<size_t>(consumers) * static_cast<size_t>(rows);
    }
    Board(void *base, int consumers, int rows)
        : base_(static_cast<char *>(base)), consumers_(consumers), rows_(rows) {}

    int consumers() const { return consumers_; }
    int rows() const { return rows_; }
    BoardHeader &header() { return *reinterpret_cast<BoardHeader *>(base_); }
    std::atomic<int32_t> &arrived(int row) {
        return reinterpret_cast<std::atomic<int32_t> *>(base_ + sizeof(BoardHeader))[row];
    }
    float &latency(int consumer, int row) {
        auto *all =
            reinterpret_cast<float *>(base_ + sizeof(BoardHeader) +
                                      sizeof(std::atomic<int32_t>) * static_cast<size_t>(rows_));
        return all[static_cast<size_t>(consumer) * static_cast<size_t>(rows_) +
                   static_cast<size_t>(row)];
    }

    // Made in fresh (zeroed) memory by the benchmark's process.
    void clear() {
        new (base_) BoardHeader();
        for (int r = 0; r < rows_; ++r) new (&arrived(r)) std::atomic<int32_t>(0);
        for (int c = 0; c < consumers_; ++c)
            for (int r = 0; r < rows_; ++r) latency(c, r) = -1;
    }

private:
    char *base_;
    int consumers_;
    int rows_;
};

// The sequence number and the time a forwarded row carries; false when it
// is not one of this program's rows.
bool readRow(const char *message, size_t length, int *sequence, int64_t *stamp) {
    zevd::FieldReader reader(message, length);
    bool stampNext = false;
    while (!reader.atEnd()) {
        int type = reader.next();
        if (type == 0) return false;
        if (type == DCH_attrName) {
            stampNext = reader.length() >= 1 && reader.value()[0] == kStampName[0];
        } else if (type == DCH_attrValue && stampNext) {
            char text[kStampBytes + 1] = {};
            memcpy(text, reader.value(), std::min(reader.length(), kStampBytes));
            long long at = 0;
            if (sscanf(text, "%d %lld", sequence, &at) != 2) return false;
            *stamp = at;
            return true;
        }
    }
    return false;
}

// ---------------------------------------------------------------------------
// The consumers' process
// ---------------------------------------------------------------------------

// One consumer's handling of what it received.
class Receipts {
public:
    Receipts(Board &board, int consumer, int done)
        : board_(board), consumer_(consumer), done_(done) {}

    void take(const char *message, size_t length) {
        int64_t now = nowNs();
        int sequence = 0;
        int64_t stamp = 0;
        if (!readRow(message, length, &sequence, &stamp)) return;
        BoardHeader &header = board_.header();
        if (sequence == kProbe) {
            if (!probed_) header.probed.fetch_add(1);
            probed_ = true;
            return;
        }
        if (sequence < 0 || sequence >= board_.rows()) return;
        board_.latency(consumer_, sequence) = static_cast<float>(now - stamp) / 1e3f;
        header.receipts.fetch_add(1);
        int64_t last = header.lastNs.load();
        while (last < now && !header.lastNs.compare_exchange_weak(last, now)) {
        }
        if (board_.arrived(sequence).fetch_add(1) + 1 == board_.consumers()) {
            uint64_t one = 1;
            if (write(done_, &one, sizeof one) < 0) return;  // the provider's wait ends by itself
        }
    }

private:
    Board &board_;
    int consumer_;
    int done_;
    bool probed_ = false;
};

// argv: kConsumerFlag, "zevdchd" or "relay", group, consumers, rows, board
// descriptor, done descriptor (eventfd), stop descriptor (end of file:
// stop), relay port.
int consumersMain(char **argv) {
    bool throughDaemon = strcmp(argv[2], "zevdchd") == 0;
    std::string group = argv[3];
    int consumers = atoi(argv[4]);
    int rows = atoi(argv[5]);
    int boardFd = atoi(argv[6]);
    int done = atoi(argv[7]);
    int stop = atoi(argv[8]);
    uint16_t relayPort = static_cast<uint16_t>(atoi(argv[9]));
    size_t size = Board::bytes(consumers, rows);
    void *base = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, boardFd, 0);
    if (base == MAP_FAILED) return 1;
    Board board(base, consumers, rows);

    std::vector<std::thread> threads;
    std::vector<void *> clients;
    std::vector<int> sockets;
    for (int c = 0; c < consumers; ++c) {
        if (throughDaemon) {
            void *client = dc_waitOnDataInitialize(kAppl, group.c_str());
            if (client == nullptr) break;
            clients.push_back(client);
            threads.emplace_back([&board, client, c, done] {
                Receipts receipts(board, c, done);
                std::vector<char> buffer(8192);
                for (;;) {
                    memset(buffer.data(), 0, 4);
                    if (dc_waitOnData(client, buffer.data(), static_cast<int>(buffer.size())) != 0)
                        break;  // cancelled
                    receipts.take(buffer.data(), buffer.size());
                }
            });
        } else {
            int fd = bindLoopback(SOCK_DGRAM, 0);
            struct sockaddr_in relay = loopbackAddress(relayPort);
            if (fd < 0 || sendto(fd, kSubscribe, sizeof kSubscribe, 0,
                                 reinterpret_cast<struct sockaddr *>(&relay), sizeof relay) < 0)
                break;
            sockets.push_back(fd);
            threads.emplace_back([&board, fd, c, done, stop] {
                Receipts receipts(board, c, done);
                std::vector<char> buffer(8192);
                for (;;) {
                    struct pollfd ready[2] = {{fd, POLLIN, 0}, {stop, POLLIN, 0}};
                    if (poll(ready, 2, -1) < 0) continue;
                    if (ready[1].revents != 0) break;
                    ssize_t n = recv(fd, buffer.data(), buffer.size(), 0);
                    if (n > 0) receipts.take(buffer.data(), static_cast<size_t>(n));
                }
            });
        }
        board.header().ready.fetch_add(1);
    }
    char byte;
    while (read(stop, &byte, 1) > 0) {
    }
    for (void *client : clients) dc_waitOnDataCancel(client);
    for (std::thread &thread : threads) thread.join();
    for (void *client : clients) dc_waitOnDataDestroy(client);
    for (int fd : sockets) close(fd);
    return 0;
}

// The consumers' process for one run, started from this program's own file
// and ended when this goes.
class Consumers {
public:
    Consumers(bool throughDaemon, int consumers, int rows, uint16_t relayPort)
        : size_(Board::bytes(consumers, rows)) {
        int boardFd = memfd_create("zevd-bench-fanout", 0);
        done_ = eventfd(0, EFD_CLOEXEC);
        int stop[2] = {-1, -1};
        if (boardFd < 0 || done_ < 0 || ftruncate(boardFd, static_cast<off_t>(size_)) != 0 ||
            pipe(stop) != 0) {
            error_ = "no shared memory, eventfd or pipe for the consumers";
            if (boardFd >= 0) close(boardFd);
            return;
        }
        void *base = mmap(nullptr, size_, PROT_READ | PROT_WRITE, MAP_SHARED, boardFd, 0);
        if (base == MAP_FAILED) {
            error_ = "the consumers' board could not be mapped";
            close(boardFd);
            close(stop[0]);
            close(stop[1]);
            return;
        }
        base_ = base;
        board_.emplace(base, consumers, rows);
        board_->clear();
        stop_ = stop[1];
        fcntl(stop_, F_SETFD, FD_CLOEXEC);
        std::vector<std::string> args = {"bench_zevdchd_fanout",
                                         kConsumerFlag,
                                         throughDaemon ? "zevdchd" : "relay",
                                         groupFor(consumers),
                                         std::to_string(consumers),
                                         std::to_string(rows),
                                         std::to_string(boardFd),
                                         std::to_string(done_),
                                         std::to_string(stop[0]),
                                         std::to_string(relayPort)};
        pid_ = fork();
        if (pid_ == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);  // ends with this program
            fcntl(done_, F_SETFD, 0);          // the one descriptor of the three made to close
            std::vector<char *> argv;
            for (std::string &a : args) argv.push_back(a.data());
            argv.push_back(nullptr);
            execv("/proc/self/exe", argv.data());
            _exit(127);
        }
        close(boardFd);
        close(stop[0]);
        if (pid_ < 0) error_ = "the consumers' process could not be started";
    }
    ~Consumers() {
        if (stop_ >= 0) close(stop_);  // end of file: the consumers withdraw and end
        if (pid_ > 0) {
            // At most 10 seconds for the withdraws, then it is ended.
            auto deadline = Clock::now() + std::chrono::seconds(10);
            while (waitpid(pid_, nullptr, WNOHANG) == 0) {
                if (Clock::now() > deadline) {
                    kill(pid_, SIGKILL);
                    waitpid(pid_, nullptr, 0);
                    break;
                }
                std::this_thread::sleep_for(std::chrono::milliseconds(2));
            }
        }
        if (base_ != nullptr) munmap(base_, size_);
        if (done_ >= 0) close(done_);
    }
    Consumers(const Consumers &) = delete;
    Consumers &operator=(const Consumers &) = delete;

    const std::string &error() const { return error_; }
    Board &board() { return *board_; }

    // Waits up to 10 seconds for every consumer to be set up.
    bool awaitReady() {
        if (!error_.empty()) return false;
        auto deadline = Clock::now() + std::chrono::seconds(10);
        while (board().header().ready.load() < board().consumers()) {
            if (Clock::now() > deadline || waitpid(pid_, nullptr, WNOHANG) != 0) {
                error_ = "the consumers did not all start";
                pid_ = -1;
                return false;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        return true;
    }

    // Waits until every consumer has row, for at most kRowWaitMillis.
    void awaitRow(int row) {
        auto deadline = Clock::now() + std::chrono::milliseconds(kRowWaitMillis);
        while (board().arrived(row).load() < board().consumers()) {
            auto left =
                std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
            if (left.count() <= 0) return;
            struct pollfd ready = {done_, POLLIN, 0};
            if (poll(&ready, 1, static_cast<int>(left.count()) + 1) == 1) {
                uint64_t count;
                if (read(done_, &count, sizeof count) < 0) return;
            }
        }
    }

private:
    size_t size_;
    void *base_ = nullptr;
    std::optional<Board> board_;  // once the memory is there
    int done_ = -1;
    int stop_ = -1;
    pid_t pid_ = -1;
    std::string error_;
};

// ---------------------------------------------------------------------------
// The providers
// ---------------------------------------------------------------------------

// "sequence time" as the row carries it.
void stampText(char (&text)[kStampBytes], int sequence) {
    memset(text, 0, sizeof text);
    snprintf(text, sizeof text, "%d %lld", sequence, static_cast<long long>(nowNs()));
}

// The provider through zevdchd: dp_formatData and dp_data under a handle
// of the run's group.
class DaemonProvider {
public:
    explicit DaemonProvider(int consumers) {
        if (daemon().pid <= 0) {
            error_ = "zevdchd did not start: " + daemonPath();
            return;
        }
        if (!registered()) {
            error_ = "dp_register of the fanout application failed";
            return;
        }
        long status = -1;
        if (dp_online(&status, &handle_, kAppl, groupFor(consumers).c_str(), kSource) != 0 ||
            status != 0)
            error_ = "dp_online failed: status " + std::to_string(status);
    }
    ~DaemonProvider() {
        long status = -1;
        if (handle_ > 0) dp_offline(&status, handle_);
    }
    DaemonProvider(const DaemonProvider &) = delete;
    DaemonProvider &operator=(const DaemonProvider &) = delete;

    const std::string &error() const { return error_; }

    bool send(int sequence) {
        long status = -1;
        char *row = nullptr;
        long size = 0;
        int32_t value = sequence;
        dp_formatData(&status, &row, &size, "v", &value, 4, 'A');
        char text[kStampBytes];
        stampText(text, sequence);
        dp_formatData(&status, &row, &size, kStampName, text, kStampBytes, 'D');
        return dp_data(&status, handle_, 0, &row) == 0 && status == 0;
    }

private:
    // The application, registered once for the process.
    static bool registered() {
        static const bool done = [] {
            std::string text = "APPL " + std::string(kAppl);
            for (int consumers : {1, 10, 100})
                text += ";GROUP " + groupFor(consumers) + ";ATTR v A 4;ATTR t D " +
                        std::to_string(kStampBytes);
            long status = -1;
            return dp_register(&status, text.c_str()) == 0 && status == 0;
        }();
        return done;
    }

    long handle_ = 0;
    std::string error_;
};

// The relay of the floor: answers each row as the daemon answers dp_data,
// then sends it to every socket that asked for rows since the last reset.
const Child &relayPeer() {
    static const Child relay = [] {
        Child child;
        int fd = bindLoopback(SOCK_DGRAM, 0);
        if (fd < 0) return child;
        uint16_t port = zevd::test::boundPort(fd);
        pid_t pid = fork();
        if (pid == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);  // ends with this program
            std::vector<struct sockaddr_in> subscribers;
            char in[8192];
            for (;;) {
                struct sockaddr_in from;
                socklen_t length = sizeof from;
                ssize_t n = recvfrom(fd, in, sizeof in, 0,
                                     reinterpret_cast<struct sockaddr *>(&from), &length);
                if (n <= 0) continue;
                if (n == sizeof kSubscribe && memcmp(in, kSubscribe, sizeof kSubscribe) == 0) {
                    subscribers.push_back(from);
                } else if (n == sizeof kReset && memcmp(in, kReset, sizeof kReset) == 0) {
                    subscribers.clear();
                } else {
                    sendto(fd, kRowAnswer, sizeof kRowAnswer, 0,
                           reinterpret_cast<struct sockaddr *>(&from), length);
                    for (const struct sockaddr_in &to : subscribers)
                        sendto(fd, in, static_cast<size_t>(n), 0,
                               reinterpret_cast<const struct sockaddr *>(&to), sizeof to);
                }
            }
        }
        close(fd);
        if (pid < 0) return child;
        adopt(pid);
        child.pid = pid;
        child.port = port;
        return child;
    }();
    return relay;
}

// The provider of the floor: sends each row, in the form the daemon
// forwards it, to the relay and waits for its answer.
class RelayProvider {
public:
    explicit RelayProvider(int consumers) : group_(groupFor(consumers)) {
        if (relayPeer().pid <= 0) {
            error_ = "the relay process did not start";
            return;
        }
        fd_ = bindLoopback(SOCK_DGRAM, 0);
        relay_ = loopbackAddress(relayPeer().port);
        struct timeval wait = {5, 0};
        if (fd_ < 0 || setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait) != 0 ||
            sendto(fd_, kReset, sizeof kReset, 0, reinterpret_cast<struct sockaddr *>(&relay_),
                   sizeof relay_) < 0)
            error_ = "no socket for the relay's provider";
    }
    ~RelayProvider() {
        if (fd_ >= 0) close(fd_);
    }
    RelayProvider(const RelayProvider &) = delete;
    RelayProvider &operator=(const RelayProvider &) = delete;

    const std::string &error() const { return error_; }

    bool send(int sequence) {
        char row[512];
        zevd::MessageBuilder builder(row, sizeof row);
        builder.clear();
        builder.add16(DCH_requestType, ZEVD_REQ_DP_DATA);
        builder.addString(DCH_applName, kAppl);
        builder.addString(DCH_attrGroup, group_.c_str());
        builder.addString(DCH_sourceName, kSource);
        builder.add32(DCH_handle, 1);
        builder.add16(DCH_dataFlag, 0);
        builder.addString(DCH_attrName, "v");
        int32_t value = sequence;
        builder.addValue(DCH_attrValue, &value, 4, "A");
        builder.addString(DCH_attrName, kStampName);
        char text[kStampBytes];
        stampText(text, sequence);
        builder.addValue(DCH_attrValue, text, kStampBytes, "D");
        if (sendto(fd_, row, builder.length(), 0, reinterpret_cast<struct sockaddr *>(&relay_),
                   sizeof relay_) < 0)
            return false;
        char answer[64];
        return recv(fd_, answer, sizeof answer, 0) == static_cast<ssize_t>(sizeof kRowAnswer);
    }

private:
    std::string group_;
    int fd_ = -1;
    struct sockaddr_in relay_ = {};
    std::string error_;
};

// ---------------------------------------------------------------------------
// The runs
// ---------------------------------------------------------------------------

// Sends probes until every consumer has had one (the subscriptions are then
// in force), for at most 5 seconds.
template <typename Provider>
bool probe(Provider &provider, Consumers &consumers) {
    auto deadline = Clock::now() + std::chrono::seconds(5);
    while (consumers.board().header().probed.load() < consumers.board().consumers()) {
        if (Clock::now() > deadline || !provider.send(kProbe)) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

// The quantile q of sorted values.
double quantile(const std::vector<double> &sorted, double q) {
    size_t i = static_cast<size_t>(q * static_cast<double>(sorted.size() - 1) + 0.5);
    return sorted[std::min(i, sorted.size() - 1)];
}

// Sets up the provider and the consumers of a run; false (and the run
// skipped) when either failed.
template <typename Provider>
bool setUp(benchmark::State &state, Provider &provider, Consumers &consumers) {
    if (!provider.error().empty()) {
        state.SkipWithError(provider.error().c_str());
        return false;
    }
    if (!consumers.awaitReady()) {
        state.SkipWithError(consumers.error().c_str());
        return false;
    }
    if (!probe(provider, consumers)) {
        state.SkipWithError("the consumers did not all receive a row within 5 s");
        return false;
    }
    return true;
}

template <typename Provider>
void latencyRun(benchmark::State &state, bool throughDaemon) {
    int count = static_cast<int>(state.range(0));
    int rows = latencyRows(count);
    for (auto _ : state) {
        Provider provider(count);
        Consumers consumers(throughDaemon, count, rows, relayPeer().port);
        if (!setUp(state, provider, consumers)) return;
        Board &board = consumers.board();
        Clock::time_point start = Clock::now();
        for (int row = 0; row < rows; ++row) {
            if (!provider.send(row)) {
                state.SkipWithError("a row was refused");
                return;
            }
            consumers.awaitRow(row);
        }
        state.SetIterationTime(std::chrono::duration<double>(Clock::now() - start).count());
        std::vector<double> every;
        std::vector<double> slowest;
        for (int row = 0; row < rows; ++row) {
            double last = -1;
            int got = 0;
            for (int c = 0; c < count; ++c) {
                double micros = board.latency(c, row);
                if (micros < 0) continue;
                every.push_back(micros);
                last = std::max(last, micros);
                ++got;
            }
            if (got == count) slowest.push_back(last);
        }
        double expected = static_cast<double>(rows) * count;
        state.counters["lost_share"] = 1.0 - static_cast<double>(every.size()) / expected;
        reportPercentiles(state, every, "receipts");
        if (!slowest.empty()) {
            std::sort(slowest.begin(), slowest.end());
            state.counters["last_median_us"] = quantile(slowest, 0.50);
            state.counters["last_p99_us"] = quantile(slowest, 0.99);
        }
    }
}

template <typename Provider>
void streamRun(benchmark::State &state, bool throughDaemon) {
    int count = static_cast<int>(state.range(0));
    int rows = streamRows(count);
    for (auto _ : state) {
        Provider provider(count);
        Consumers consumers(throughDaemon, count, rows, relayPeer().port);
        if (!setUp(state, provider, consumers)) return;
        BoardHeader &header = consumers.board().header();
        int64_t start = nowNs();
        for (int row = 0; row < rows; ++row) {
            if (!provider.send(row)) {
                state.SkipWithError("a row was refused");
                return;
            }
        }
        // What has not come half a second after the last receipt is lost.
        uint64_t expected = static_cast<uint64_t>(rows) * static_cast<uint64_t>(count);
        uint64_t seen = header.receipts.load();
        auto quietSince = Clock::now();
        auto deadline = Clock::now() + std::chrono::seconds(10);
        while (seen < expected && Clock::now() < deadline &&
               Clock::now() - quietSince < std::chrono::milliseconds(500)) {
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
            uint64_t now = header.receipts.load();
            if (now != seen) quietSince = Clock::now();
            seen = now;
        }
        double seconds = static_cast<double>(header.lastNs.load() - start) / 1e9;
        if (seen == 0 || seconds <= 0) {
            state.SkipWithError("no row arrived");
            return;
        }
        state.SetIterationTime(seconds);
        double receipts = static_cast<double>(seen);
        state.counters["deliveries_per_s"] = receipts / seconds;
        state.counters["rows_per_s"] = receipts / count / seconds;
        state.counters["lost_share"] = 1.0 - receipts / static_cast<double>(expected);
    }
}

void BM_FanoutLatencyFloor(benchmark::State &state) {
    latencyRun<RelayProvider>(state, false);
}
void BM_FanoutLatencyThroughZevdchd(benchmark::State &state) {
    latencyRun<DaemonProvider>(state, true);
}
void BM_FanoutStreamFloor(benchmark::State &state) {
    streamRun<RelayProvider>(state, false);
}
void BM_FanoutStreamThroughZevdchd(benchmark::State &state) {
    streamRun<DaemonProvider>(state, true);
}

void consumerCounts(benchmark::internal::Benchmark *b) {
    b->ArgName("consumers")->Arg(1)->Arg(10)->Arg(100);
    b->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);
}
BENCHMARK(BM_FanoutLatencyFloor)->Apply(consumerCounts);
BENCHMARK(BM_FanoutLatencyThroughZevdchd)->Apply(consumerCounts);
BENCHMARK(BM_FanoutStreamFloor)->Apply(consumerCounts);
BENCHMARK(BM_FanoutStreamThroughZevdchd)->Apply(consumerCounts);

}  // namespace

int main(int argc, char **argv) {
    // The consumers' process is this program again.
    if (argc == 10 && strcmp(argv[1], kConsumerFlag) == 0) return consumersMain(argv);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
