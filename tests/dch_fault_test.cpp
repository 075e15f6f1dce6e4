// zevdchd failing under its providers: killed in the middle of their rows,
// started again (with and without its state directory) at any moment, and
// with every TCP slot taken. The library of this process talks to one port
// for its whole life (its configuration is read once); every case starts
// its own daemons on that port. The DCH time-out is 2 seconds.
//
// ZEVD_RELIABILITY_FULL=1 runs the restarts 50 times instead of 3.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "common/message.h"
#include "support/dch_daemon.h"
#include "support/free_port.h"
#include "support/loopback.h"
#include "support/reliability.h"
#include "support/row_collector.h"
#include "support/wait_for.h"
#include "zevd610.h"

namespace zevd::test {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr int kTimeOutSeconds = 2;
constexpr char kRegistration[] = "APPL fault Faults;GROUP g Rows;ATTR n A 4";

bool full() {
    return reliabilityFull();
}

uint16_t &dchPort() {
    static uint16_t port = 0;
    return port;
}

// A daemon on the process's DCH port, started and ready.
std::unique_ptr<DaemonProcess> startDaemon(std::vector<std::string> args = {}) {
    auto daemon =
        std::make_unique<DaemonProcess>(std::move(args), std::vector<std::string>(), dchPort());
    EXPECT_TRUE(daemon->start()) << daemon->trace();
    return daemon;
}

long sendRow(long handle, int32_t value) {
    char *row = nullptr;
    long size = 0;
    long status = 0;
    dp_formatData(&status, &row, &size, "n", &value, 4, 'A');
    dp_data(&status, handle, 0, &row);
    return status;
}

// The state directory of a case, removed at its end.
class StateDir {
public:
    StateDir() {
        char name[] = "/tmp/zevdchd-fault-XXXXXX";
        path_ = mkdtemp(name) != nullptr ? name : "";
    }
    ~StateDir() {
        if (!path_.empty()) std::filesystem::remove_all(path_);
    }
    StateDir(const StateDir &) = delete;
    StateDir &operator=(const StateDir &) = delete;
    const std::string &path() const { return path_; }

private:
    std::string path_;
};

TEST(DchFaultTest, KilledMidStreamEveryCallEndsWithStatus5WithinItsTimeOut) {
    auto daemon = startDaemon();
    long status = -1;
    ASSERT_EQ(dp_register(&status, kRegistration), 0);
    ASSERT_EQ(status, 0);

    // Four providers send rows without pause; the daemon is killed among
    // them. Every call either is answered or ends with status 5 within the
    // time-out, and none hangs.
    constexpr int kProviders = 4;
    std::atomic<int> rows{0};
    std::atomic<int> ended{0};
    std::atomic<int> wrong{0};
    std::atomic<long> longestMs{0};
    std::vector<std::thread> providers;
    for (int p = 0; p < kProviders; ++p) {
        providers.emplace_back([&, p] {
            long handle = 0;
            long online = -1;
            std::string source = "mid-" + std::to_string(p);
            if (dp_online(&online, &handle, "fault", "g", source.c_str()) != 0 || online != 0) {
                ++wrong;
                ++ended;
                return;
            }
            // Bounded: the daemon is killed within seconds.
            for (int i = 0; i < 1000000; ++i) {
                Clock::time_point started = Clock::now();
                long got = sendRow(handle, i);
                long ms =
                    std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - started)
                        .count();
                long seen = longestMs.load();
                while (ms > seen && !longestMs.compare_exchange_weak(seen, ms)) {
                }
                if (got == ZEVD_STATUS_NO_RESPONSE) break;
                if (got != 0) {
                    ++wrong;
                    break;
                }
                ++rows;
            }
            ++ended;
        });
    }
    ASSERT_TRUE(waitFor([&] { return rows.load() >= 400 || ended.load() > 0; }, 30s));
    EXPECT_EQ(WTERMSIG(daemon->stop(SIGKILL)), SIGKILL);
    bool allEnded = waitFor([&] { return ended.load() == kProviders; },
                            std::chrono::seconds(kTimeOutSeconds + 3));
    EXPECT_TRUE(allEnded) << "a call did not end after the daemon was killed";
    if (!allEnded) std::_Exit(1);  // a hung call cannot be joined
    for (std::thread &provider : providers) provider.join();
    EXPECT_EQ(wrong.load(), 0);
    EXPECT_GE(rows.load(), 400);
    EXPECT_LE(longestMs.load(), (kTimeOutSeconds + 1) * 1000L);
    printf("killed mid-stream: %d rows answered before the kill, longest call %ld ms\n",
           rows.load(), longestMs.load());

    // Started again (empty: no state directory), the provider's next
    // register and online work.
    daemon = startDaemon();
    ASSERT_EQ(dp_register(&status, kRegistration), 0);
    EXPECT_EQ(status, 0);
    long handle = 0;
    EXPECT_EQ(dp_online(&status, &handle, "fault", "g", "mid-0"), 0);
    EXPECT_EQ(status, 0);
    EXPECT_GT(handle, 0);
    EXPECT_EQ(sendRow(handle, 1), 0);
    EXPECT_EQ(daemon->stop(SIGTERM), 0);
}

TEST(DchFaultTest, KilledAtAnyMomentWithItsStateItTakesTheOldHandlesAfterARestart) {
    StateDir dir;
    ASSERT_FALSE(dir.path().empty());
    const int rounds = full() ? 50 : 3;
    std::mt19937 random(23);
    auto daemon = startDaemon({"--state-dir", dir.path()});
    long status = -1;
    ASSERT_EQ(dp_register(&status, kRegistration), 0);
    ASSERT_EQ(status, 0);
    // Handles that a dp_online answered: the daemon wrote them down before
    // it answered, so every one of them must outlive a kill.
    std::vector<std::pair<std::string, long>> answered;
    for (int round = 0; round < rounds; ++round) {
        // A provider goes online and sends rows while the daemon is killed
        // at a moment of the random's choice.
        std::atomic<bool> stop{false};
        std::mutex lock;
        std::thread provider([&, round] {
            for (int i = 0; i < 1000 && !stop.load(); ++i) {
                std::string source = "r" + std::to_string(round) + "-" + std::to_string(i);
                long online = -1;
                long handle = 0;
                if (dp_online(&online, &handle, "fault", "g", source.c_str()) != 0 || online != 0)
                    break;
                {
                    std::lock_guard<std::mutex> guard(lock);
                    answered.emplace_back(source, handle);
                }
                if (sendRow(handle, i) != 0) break;
            }
        });
        std::this_thread::sleep_for(std::chrono::milliseconds(random() % 300));
        EXPECT_EQ(WTERMSIG(daemon->stop(SIGKILL)), SIGKILL);
        stop = true;
        provider.join();
        daemon = startDaemon({"--state-dir", dir.path()});
        ASSERT_NE(daemon->trace().find("Note: state read from"), std::string::npos)
            << daemon->trace();
        ASSERT_EQ(daemon->trace().find("is not usable"), std::string::npos) << daemon->trace();
    }
    ASSERT_FALSE(answered.empty());

    // A subscriber that subscribed again gets the rows sent under handles
    // of every round, and the daemon takes each of them.
    RowCollector rows("fault", "g", answered.size());
    // The subscription was sent before any of these rows, and the daemon
    // takes its requests in the order they came.
    size_t accepted = 0;
    for (size_t i = 0; i < answered.size(); ++i)
        if (sendRow(answered[i].second, static_cast<int32_t>(i)) == 0) ++accepted;
    EXPECT_EQ(accepted, answered.size());
    ASSERT_TRUE(rows.waitAll(30s)) << rows.rows().size() << " of " << answered.size();
    // Each row is forwarded with the source its handle was opened for.
    size_t matched = 0;
    for (const std::vector<char> &row : rows.rows()) {
        FieldReader reader(row.data(), row.size());
        std::string source;
        int32_t handle = 0;
        for (int type = reader.next(); type != 0; type = reader.next()) {
            if (type == DCH_sourceName) source = reader.value();
            if (type == DCH_handle) handle = reader.int32();
        }
        for (const auto &[name, opened] : answered)
            if (opened == handle && name == source) ++matched;
    }
    EXPECT_EQ(matched, rows.rows().size());
    printf("restarts: %d kills, %zu handles answered before them, %zu rows taken and forwarded\n",
           rounds, answered.size(), accepted);
    EXPECT_EQ(daemon->stop(SIGTERM), 0);
}

// A whole dp_online request over a TCP connection, and its answer.
std::vector<char> onlineRequest(const std::string &source) {
    return buildMessage([&](MessageBuilder &b) {
        b.add16(DCH_requestType, ZEVD_REQ_DP_ONLINE);
        b.addString(DCH_applName, "fault");
        b.addString(DCH_attrGroup, "g");
        b.addString(DCH_sourceName, source.c_str());
    });
}

// Waits up to limit for an answer of at least a length word on fd.
bool answered(int fd, std::chrono::milliseconds limit) {
    pollfd p = {fd, POLLIN, 0};
    if (poll(&p, 1, static_cast<int>(limit.count())) != 1) return false;
    char answer[4096];
    return recv(fd, answer, sizeof answer, MSG_DONTWAIT) >= 4;
}

TEST(DchFaultTest, SixtyFiveTcpClientsAtOnceLeaveUdpServedAndAreAllAnswered) {
    auto daemon = startDaemon();
    long status = -1;
    ASSERT_EQ(dp_register(&status, kRegistration), 0);
    constexpr int kClients = 65;
    std::vector<int> clients;
    for (int i = 0; i < kClients; ++i) {
        int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in to = loopbackAddress(dchPort());
        ASSERT_EQ(connect(fd, reinterpret_cast<sockaddr *>(&to), sizeof to), 0) << i;
        clients.push_back(fd);
    }
    // 63 slots are served at once (the last of 64 is never handed out); the
    // 64th and 65th wait in the backlog.
    ASSERT_TRUE(daemon->waitTrace("Error: Maximum of 64 TCP clients has been reached.\n"))
        << daemon->trace();
    for (int i = 0; i < kClients; ++i) {
        std::vector<char> request = onlineRequest("tcp-" + std::to_string(i));
        ASSERT_EQ(
            send(clients[static_cast<size_t>(i)], request.data(), request.size(), MSG_NOSIGNAL),
            static_cast<ssize_t>(request.size()));
    }
    // UDP is served meanwhile, within the time-out.
    Clock::time_point started = Clock::now();
    long handle = 0;
    EXPECT_EQ(dp_online(&status, &handle, "fault", "g", "udp"), 0);
    EXPECT_EQ(status, 0);
    EXPECT_LT(Clock::now() - started, std::chrono::seconds(kTimeOutSeconds));
    for (int i = 0; i < 63; ++i)
        EXPECT_TRUE(answered(clients[static_cast<size_t>(i)], 10s)) << "client " << i;
    // The two in the backlog are answered once slots free.
    close(clients[0]);
    close(clients[1]);
    EXPECT_TRUE(answered(clients[63], 10s)) << "client 63";
    EXPECT_TRUE(answered(clients[64], 10s)) << "client 64";
    for (int i = 2; i < kClients; ++i) close(clients[static_cast<size_t>(i)]);
    EXPECT_EQ(daemon->stop(SIGTERM), 0);
}

}  // namespace
}  // namespace zevd::test

int main(int argc, char **argv) {
    ::testing::InitGoogleTest(&argc, argv);
    // Before the library reads its configuration, once for the process.
    zevd::test::dchPort() = zevd::test::freeLoopbackPort();
    setenv("ZEVA_DCH_ADDR", "127.0.0.1", 1);
    setenv("ZEVA_DCH_PORT", std::to_string(zevd::test::dchPort()).c_str(), 1);
    setenv("ZEVA_DCH_TIMEOUT", std::to_string(zevd::test::kTimeOutSeconds).c_str(), 1);
    return RUN_ALL_TESTS();
}
