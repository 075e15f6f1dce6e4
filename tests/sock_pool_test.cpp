// The UDP socket pool (lending, waiting, returning) and the select-mask
// helpers of the server loop.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>

#include "support/fresh_process.h"
#include "support/sock_probe.h"
#include "support/trace_capture.h"
#include "support/wait_for.h"

namespace {

using namespace std::chrono_literals;
using zevd::test::ipcSockProbe;
using zevd::test::TraceCapture;
using zevd::test::waitFor;

// Before the first transport of the process reads its configuration: a
// pool of one socket and a DCH on loopback.
const bool environmentSet = [] {
    setenv("ZEVA_DCH_ADDR", "127.0.0.1", 1);
    setenv("ZEVA_DCH_PORT", "1919", 1);
    setenv("ZEVA_DCH_UDP_SOCKETS_IN_POOL", "1", 1);
    unsetenv("ZEVA_SETTINGS_FILE");
    return true;
}();

bool isOpen(int fd) {
    return fcntl(fd, F_GETFD) != -1;
}

TEST(SockPoolTest, FirstClientObjectMakesThePool) {
    ZEVD_IN_FRESH_PROCESS({
        TraceCapture capture("zevdsock=all");
        EXPECT_EQ(ipcSockProbe::pool(), nullptr);
        // Other kinds of object leave the pool alone.
        { ipcSockProbe server(1, 0, 0); }
        { ipcSockProbe own(3, 1, 1); }
        EXPECT_EQ(ipcSockProbe::envDCHUDPInit(), 0);
        ipcSockProbe sock(3, 0, 1);
        ASSERT_NE(ipcSockProbe::pool(), nullptr);
        EXPECT_EQ(ipcSockProbe::envDCHUDPInit(), 1);
        int fd = sock.sockUDP();
        char expected[160];
        snprintf(expected, sizeof expected,
                 "Initializing mutex[@%p] and Cond[@%p] for ipcSock object @%p\n",
                 ipcSockProbe::poolLock(), ipcSockProbe::poolCond(), static_cast<void *>(&sock));
        EXPECT_TRUE(capture.hasText(expected)) << capture.joined();
        EXPECT_TRUE(capture.hasText("Initializing 1 UDP sockets.\n"));
        snprintf(expected, sizeof expected, "Allocated _UDPSockList @%p\n",
                 static_cast<const void *>(ipcSockProbe::pool()));
        EXPECT_TRUE(capture.hasText(expected)) << capture.joined();
        EXPECT_TRUE(capture.hasText("[0] UDP Socket " + std::to_string(fd) + " allocated.\n"));
        EXPECT_TRUE(capture.hasText("[0] UDP Socket " + std::to_string(fd) + " is available\n"));
        EXPECT_EQ(capture.count("Initializing 1 UDP sockets."), 1u);
        EXPECT_EQ(sock.releaseIPC(), 0);
        // Made once per process.
        ipcSockProbe again(3, 0, 1);
        EXPECT_EQ(capture.count("Initializing 1 UDP sockets."), 1u);
        EXPECT_EQ(again.sockUDP(), fd);
        EXPECT_EQ(again.releaseIPC(), 0);
    });
}

TEST(SockPoolTest, PoolSocketThatFailedToOpenIsLentLikeAnyOther) {
    ZEVD_IN_FRESH_PROCESS({
        // Built once first, so that a sanitizer's checks of this type need
        // no descriptor once the limit below is in force.
        { ipcSockProbe warmUp(3, 1, 1); }
        // No descriptor above those open now: the pool's socket cannot be
        // made.
        int lowest = dup(0);
        ASSERT_GE(lowest, 0);
        close(lowest);
        struct rlimit saved;
        ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &saved), 0);
        struct rlimit tight = saved;
        tight.rlim_cur = static_cast<rlim_t>(lowest);
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &tight), 0);
        TraceCapture capture("zevdsock=all");
        ipcSockProbe sock(3, 0, 1);
        setrlimit(RLIMIT_NOFILE, &saved);
        EXPECT_TRUE(capture.hasText("Error: _UDPSockList[i].sockUDP[-1]  errno=24\n"))
            << capture.joined();
        ASSERT_NE(ipcSockProbe::pool(), nullptr);
        EXPECT_EQ(ipcSockProbe::pool()[0].sockUDP, -1);
        EXPECT_EQ(sock.sockUDP(), -1);
        EXPECT_TRUE(capture.hasText("[0] UDP Socket -1 is available\n")) << capture.joined();
        EXPECT_TRUE(capture.contains("Error: _sockUDP[-1]  errno=")) << capture.joined();
        EXPECT_EQ(sock.ipcGetError(), 1);
        // It goes back to the pool like any other.
        EXPECT_EQ(sock.releaseIPC(), 0);
    });
}

TEST(SockPoolTest, SecondBorrowerWaitsUntilTheFirstReleases) {
    ASSERT_TRUE(environmentSet);
    TraceCapture capture("zevdsock=all");
    auto first = std::make_unique<ipcSockProbe>(3, 0, 1);
    ASSERT_EQ(first->ipcGetError(), 0);
    ASSERT_EQ(ipcSockProbe::poolSize(), 1);
    int lent = first->sockUDP();
    ASSERT_TRUE(ipcSockProbe::inPool(lent));

    std::atomic<bool> done{false};
    std::unique_ptr<ipcSockProbe> second;
    std::thread borrower([&] {
        second = std::make_unique<ipcSockProbe>(3, 0, 1);
        done = true;
    });
    bool waiting = waitFor(
        [&] { return capture.hasText("No UDP sockets available yet. Waiting on signal.\n"); },
        5000ms);
    EXPECT_TRUE(waiting) << capture.joined();
    EXPECT_FALSE(done.load());

    EXPECT_EQ(first->releaseIPC(), 0);
    borrower.join();
    ASSERT_TRUE(done.load());
    EXPECT_EQ(second->ipcGetError(), 0);
    EXPECT_EQ(second->sockUDP(), lent);
    EXPECT_TRUE(capture.hasText("Signal received that UDP socket has become available.\n"))
        << capture.joined();
    EXPECT_TRUE(
        capture.hasText("[0] UDP Socket " + std::to_string(lent) + " made available for use.\n"))
        << capture.joined();
    EXPECT_TRUE(capture.hasText("Signaling UDP socket waiters.\n")) << capture.joined();
    EXPECT_EQ(second->releaseIPC(), 0);
}

TEST(SockPoolTest, WaitThatTimesOutSleepsOutsideTheLockAndLooksAgain) {
    TraceCapture capture("zevdsock=all");
    auto first = std::make_unique<ipcSockProbe>(3, 0, 1);
    ASSERT_EQ(first->ipcGetError(), 0);
    int lent = first->sockUDP();

    std::atomic<bool> done{false};
    std::unique_ptr<ipcSockProbe> second;
    std::thread borrower([&] {
        second = std::make_unique<ipcSockProbe>(3, 0, 1);
        done = true;
    });
    // The ten-second wait runs out; the borrower then sleeps three seconds
    // without the lock, so the release below needs no signal to be seen.
    bool timedOut = waitFor(
        [&] { return capture.hasText("Wait timeout on UDP sock pool - errno=0\n"); }, 20000ms);
    EXPECT_TRUE(timedOut) << capture.joined();
    EXPECT_FALSE(done.load());
    EXPECT_EQ(first->releaseIPC(), 0);
    borrower.join();
    EXPECT_EQ(second->sockUDP(), lent);
    EXPECT_EQ(second->releaseIPC(), 0);
}

TEST(SockPoolTest, PooledSocketOutlivesItsBorrower) {
    auto sock = std::make_unique<ipcSockProbe>(3, 0, 1);
    int fd = sock->sockUDP();
    ASSERT_TRUE(ipcSockProbe::inPool(fd));
    EXPECT_EQ(sock->releaseIPC(), 0);
    sock.reset();
    EXPECT_TRUE(isOpen(fd));
    // The next borrower gets the same socket.
    ipcSockProbe next(3, 0, 1);
    EXPECT_EQ(next.sockUDP(), fd);
    EXPECT_EQ(next.releaseIPC(), 0);
}

TEST(SockPoolTest, ReleaseOfASocketMadeOutsideThePool) {
    // connectTo nonzero: a socket pair of its own although the pool switch
    // is on.
    auto sock = std::make_unique<ipcSockProbe>(3, 1, 1);
    ASSERT_EQ(sock->ipcGetError(), 0);
    int udp = sock->sockUDP();
    int tcp = sock->sockTCP();
    ASSERT_GE(udp, 0);
    ASSERT_GE(tcp, 0);
    EXPECT_FALSE(ipcSockProbe::inPool(udp));

    TraceCapture capture("zevdsock=all");
    EXPECT_EQ(sock->releaseIPC(), 1);
    EXPECT_TRUE(capture.hasText("Error: UDP socket " + std::to_string(udp) + " not found.\n"))
        << capture.joined();
    EXPECT_TRUE(isOpen(udp));
    sock.reset();
    EXPECT_TRUE(capture.hasText("Closing UDP socket " + std::to_string(udp) + "\n"))
        << capture.joined();
    EXPECT_TRUE(
        capture.hasText("Closing TCP socket " + std::to_string(tcp) + " for DCH port 1919\n"))
        << capture.joined();
    errno = 0;
    EXPECT_EQ(fcntl(udp, F_GETFD), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_FALSE(isOpen(tcp));
}

TEST(SockPoolTest, ReleaseWithoutThePoolSwitchDoesNothing) {
    auto sock = std::make_unique<ipcSockProbe>(1, 1, 0);
    int udp = sock->sockUDP();
    TraceCapture capture("zevdsock=all");
    EXPECT_EQ(sock->releaseIPC(), 0);
    EXPECT_FALSE(capture.contains("not found")) << capture.joined();
    EXPECT_TRUE(isOpen(udp));
    sock.reset();
    EXPECT_TRUE(
        capture.hasText("Closing UDP socket " + std::to_string(udp) + " for DCH port 1919\n"))
        << capture.joined();
    EXPECT_FALSE(isOpen(udp));
}

TEST(SockPoolTest, AllocateOutsideThePoolMakesANewSocket) {
    ipcSockProbe sock(1, 1, 0);
    TraceCapture capture("zevdsock=all");
    int fd = sock.allocateIPC();
    ASSERT_GE(fd, 0);
    EXPECT_NE(fd, sock.sockUDP());
    EXPECT_TRUE(capture.hasText("Creating UDP socket from outside of pool.\n"));
    EXPECT_TRUE(capture.hasText("Allocated UDP socket " + std::to_string(fd) +
                                " from outside socket pool\n"))
        << capture.joined();
    close(fd);
}

TEST(SockPoolTest, AvailableIndex) {
    ipcSockProbe sock(1, 1, 0);
    int32_t *slots = sock.clientFD();
    for (int i = 0; i < 64; ++i) slots[i] = 0;
    EXPECT_EQ(sock.sockGetAvailableIndex(), 0);
    for (int i = 0; i < 64; ++i) slots[i] = 100 + i;
    EXPECT_EQ(sock.sockGetAvailableIndex(), -1);
    slots[0] = 0;
    EXPECT_EQ(sock.sockGetAvailableIndex(), 0);
    slots[0] = 100;
    slots[41] = 0;
    slots[63] = 0;
    EXPECT_EQ(sock.sockGetAvailableIndex(), 41);
    // A failed accept leaves a negative value: taken, not free.
    slots[41] = -1;
    EXPECT_EQ(sock.sockGetAvailableIndex(), 63);
    for (int i = 0; i < 64; ++i) slots[i] = 0;
}

TEST(SockPoolTest, ReadMaskWithoutClients) {
    ipcSockProbe sock(1, 1, 0);
    int udp = sock.sockUDP();
    int tcp = sock.sockTCP();
    ASSERT_GT(udp, 0);
    ASSERT_GT(tcp, 0);
    fd_set set;
    EXPECT_EQ(sock.sockSetSelectReadMask(&set), std::max(udp, tcp) + 1);
    EXPECT_TRUE(FD_ISSET(udp, &set));
    EXPECT_TRUE(FD_ISSET(tcp, &set));
    EXPECT_FALSE(FD_ISSET(0, &set));
    int set_bits = 0;
    for (int fd = 0; fd < FD_SETSIZE; ++fd) set_bits += FD_ISSET(fd, &set) ? 1 : 0;
    EXPECT_EQ(set_bits, 2);
}

TEST(SockPoolTest, ReadMaskWithClients) {
    ipcSockProbe sock(1, 1, 0);
    int udp = sock.sockUDP();
    int tcp = sock.sockTCP();
    int32_t *slots = sock.clientFD();
    slots[0] = 300;
    slots[5] = 200;
    slots[63] = 250;
    slots[7] = -3;  // a failed accept: not watched
    fd_set set;
    EXPECT_EQ(sock.sockSetSelectReadMask(&set), 301);
    EXPECT_TRUE(FD_ISSET(300, &set));
    EXPECT_TRUE(FD_ISSET(200, &set));
    EXPECT_TRUE(FD_ISSET(250, &set));
    EXPECT_TRUE(FD_ISSET(udp, &set));
    EXPECT_TRUE(FD_ISSET(tcp, &set));
    // Free slots hold 0, which never goes into the mask.
    EXPECT_FALSE(FD_ISSET(0, &set));
    // A descriptor below the sockets does not lower the maximum.
    slots[0] = 0;
    slots[5] = 0;
    slots[63] = 1;
    EXPECT_EQ(sock.sockSetSelectReadMask(&set), std::max(udp, tcp) + 1);
    EXPECT_TRUE(FD_ISSET(1, &set));
    // One that does not fit a select set is left out of it.
    slots[63] = FD_SETSIZE + 5;
    EXPECT_EQ(sock.sockSetSelectReadMask(&set), std::max(udp, tcp) + 1);
    for (int i = 0; i < 64; ++i) slots[i] = 0;
}

TEST(SockPoolTest, CheckReadMaskScansSlotsZeroTo62) {
    ipcSockProbe sock(1, 1, 0);
    int32_t *slots = sock.clientFD();
    for (int i = 0; i < 64; ++i) slots[i] = 0;
    slots[0] = 100;
    slots[2] = 101;
    slots[62] = 102;
    slots[63] = 103;
    fd_set set;
    FD_ZERO(&set);
    FD_SET(100, &set);
    FD_SET(102, &set);
    FD_SET(103, &set);  // ready, but slot 63 is never reported
    sock.sockResetIndex();
    int32_t index = 77;
    EXPECT_EQ(sock.sockCheckReadMask(&set, &index), 100);
    EXPECT_EQ(index, 0);
    EXPECT_EQ(sock.sockCheckReadMask(&set, &index), 0);  // slot 1: free
    EXPECT_EQ(index, -1);
    index = 77;
    EXPECT_EQ(sock.sockCheckReadMask(&set, &index), 0);  // slot 2: not ready
    EXPECT_EQ(index, -1);
    int ready = 0;
    int steps = 3;
    int32_t result = 0;
    while (steps < 200 && (result = sock.sockCheckReadMask(&set, &index)) != -1) {
        if (result > 0) {
            ++ready;
            EXPECT_EQ(result, 102);
            EXPECT_EQ(index, 62);
        }
        ++steps;
    }
    EXPECT_EQ(result, -1);
    EXPECT_EQ(index, -1);
    EXPECT_EQ(ready, 1);
    EXPECT_EQ(steps, 63);
    // The end stays the end until the scan is reset.
    EXPECT_EQ(sock.sockCheckReadMask(&set, &index), -1);
    sock.sockResetIndex();
    EXPECT_EQ(sock.sockCheckReadMask(&set, &index), 100);
    for (int i = 0; i < 64; ++i) slots[i] = 0;
}

TEST(SockPoolTest, PortsOfTheSockets) {
    ipcSockProbe sock(1, 1, 0);
    EXPECT_GT(sock.sockPortUDP(), 0);
    EXPECT_GT(sock.sockPortTCP(), 0);
    ipcSockProbe pooled(3, 0, 1);
    // A client object has no TCP socket: no port.
    EXPECT_EQ(pooled.sockPortTCP(), 0);
    EXPECT_EQ(pooled.releaseIPC(), 0);
}

}  // namespace
