// Many threads borrowing from a small UDP socket pool: no socket is ever
// lent to two borrowers at once, and every borrower gets one.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

#include "support/sock_probe.h"

namespace {

using zevd::test::ipcSockProbe;

const bool environmentSet = [] {
    setenv("ZEVA_DCH_ADDR", "127.0.0.1", 1);
    setenv("ZEVA_DCH_PORT", "1919", 1);
    setenv("ZEVA_DCH_UDP_SOCKETS_IN_POOL", "2", 1);
    unsetenv("ZEVA_SETTINGS_FILE");
    return true;
}();

constexpr int kThreads = 8;
constexpr int kMaxRoundsPerThread = 20000;
constexpr auto kRunFor = std::chrono::seconds(2);

TEST(SockPoolConcurrencyTest, NoSocketIsLentTwiceAtOnce) {
    ASSERT_TRUE(environmentSet);
    // The first client object makes the pool of two.
    {
        ipcSockProbe first(3, 0, 1);
        ASSERT_EQ(first.ipcGetError(), 0);
        ASSERT_EQ(first.releaseIPC(), 0);
    }
    ASSERT_EQ(ipcSockProbe::poolSize(), 2);
    const UDPSockElement *pool = ipcSockProbe::pool();
    ASSERT_NE(pool, nullptr);

    // holders[i]: borrowers holding pool socket i right now.
    std::atomic<int> holders[2] = {0, 0};
    std::atomic<int> overlaps{0};
    std::atomic<int> strangers{0};
    std::atomic<int> failures{0};
    std::atomic<int> rounds{0};
    std::atomic<int> maxHeld{0};
    std::atomic<int> held{0};
    auto deadline = std::chrono::steady_clock::now() + kRunFor;

    auto borrower = [&] {
        for (int round = 0; round < kMaxRoundsPerThread; ++round) {
            if (std::chrono::steady_clock::now() >= deadline) break;
            ipcSockProbe sock(3, 0, 1);
            if (sock.ipcGetError() != 0) {
                ++failures;
                continue;
            }
            int slot = -1;
            for (int i = 0; i < 2; ++i)
                if (pool[i].sockUDP == sock.sockUDP()) slot = i;
            if (slot < 0) {
                ++strangers;
                sock.releaseIPC();
                continue;
            }
            if (holders[slot].fetch_add(1) != 0) ++overlaps;
            int now = held.fetch_add(1) + 1;
            int seen = maxHeld.load();
            while (now > seen && !maxHeld.compare_exchange_weak(seen, now)) {
            }
            std::this_thread::yield();
            held.fetch_sub(1);
            // Given up before the socket goes back, so that its next
            // borrower never counts this one.
            holders[slot].fetch_sub(1);
            if (sock.releaseIPC() != 0) ++failures;
            ++rounds;
        }
    };
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) threads.emplace_back(borrower);
    for (auto &t : threads) t.join();

    EXPECT_EQ(overlaps.load(), 0);
    EXPECT_EQ(strangers.load(), 0);
    EXPECT_EQ(failures.load(), 0);
    EXPECT_LE(maxHeld.load(), 2);
    EXPECT_GT(rounds.load(), kThreads);
    EXPECT_EQ(pool[0].inUse, 0);
    EXPECT_EQ(pool[1].inUse, 0);
}

}  // namespace
