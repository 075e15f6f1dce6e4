// The platform's socket service under socket activation: sockets a service
// manager passed (LISTEN_FDS descriptors from 3 on, for the process that
// LISTEN_PID names) are handed out for their own type and port, once. The
// service reads the variables at its first use, so each case runs in a
// process of its own and sets them first.
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string>

#include <gtest/gtest.h>

#include "support/free_port.h"
#include "zev0.h"

namespace zevd::test {
namespace {

constexpr int kFirst = 3;

// Places a socket bound to 127.0.0.1:port at descriptor at, as a service
// manager passes it.
bool passAt(int type, uint16_t port, int at) {
    int fd = bindLoopback(type, port);
    if (fd < 0) return false;
    if (fd == at) return true;
    bool placed = dup2(fd, at) == at;
    close(fd);
    return placed;
}

void announce(long pid, int count) {
    setenv("LISTEN_PID", std::to_string(pid).c_str(), 1);
    setenv("LISTEN_FDS", std::to_string(count).c_str(), 1);
}

TEST(SocketActivationTest, TheInheritedSocketsOfThePortAreHandedOutOnce) {
    uint16_t port = freeLoopbackPort();
    ASSERT_NE(port, 0);
    ASSERT_TRUE(passAt(SOCK_DGRAM, port, kFirst));
    ASSERT_TRUE(passAt(SOCK_STREAM, port, kFirst + 1));
    announce(getpid(), 2);

    EXPECT_EQ(ZEV0_HasInheritedSocket(2, htons(port)), 1);
    EXPECT_EQ(ZEV0_HasInheritedSocket(1, htons(port)), 1);
    EXPECT_EQ(ZEV0_HasInheritedSocket(2, htons(static_cast<uint16_t>(port + 1))), 0);
    // Not passed on to the programs this process starts.
    EXPECT_NE(fcntl(kFirst, F_GETFD) & FD_CLOEXEC, 0);
    EXPECT_NE(fcntl(kFirst + 1, F_GETFD) & FD_CLOEXEC, 0);

    sockaddr_in address{};
    int error = -1;
    EXPECT_EQ(ZEV0_OpenLocalSocket(1, htons(port), &address, 0, &error, 0), kFirst + 1);
    EXPECT_EQ(error, 0);
    EXPECT_EQ(ntohs(address.sin_port), port);
    error = -1;
    EXPECT_EQ(ZEV0_OpenLocalSocket(2, htons(port), &address, 1, &error, 0), kFirst);
    EXPECT_EQ(error, 0);

    // Taken: a second open binds anew, and finds the port held.
    EXPECT_EQ(ZEV0_HasInheritedSocket(2, htons(port)), 0);
    EXPECT_EQ(ZEV0_OpenLocalSocket(2, htons(port), &address, 0, &error, 0), -1);
    EXPECT_EQ(error, EADDRINUSE);
}

TEST(SocketActivationTest, SocketsMeantForAnotherProcessAreLeftAlone) {
    uint16_t port = freeLoopbackPort();
    ASSERT_NE(port, 0);
    ASSERT_TRUE(passAt(SOCK_DGRAM, port, kFirst));
    announce(static_cast<long>(getpid()) + 1, 1);
    EXPECT_EQ(ZEV0_HasInheritedSocket(2, htons(port)), 0);
    int error = 0;
    EXPECT_EQ(ZEV0_OpenLocalSocket(2, htons(port), nullptr, 0, &error, 0), -1);
    EXPECT_EQ(error, EADDRINUSE);
}

TEST(SocketActivationTest, AnInheritedSocketOfAnotherTypeIsNotTaken) {
    uint16_t port = freeLoopbackPort();
    ASSERT_NE(port, 0);
    ASSERT_TRUE(passAt(SOCK_DGRAM, port, kFirst));
    announce(getpid(), 1);
    EXPECT_EQ(ZEV0_HasInheritedSocket(1, htons(port)), 0);
    // A stream socket is bound anew beside the inherited datagram socket.
    setenv("ZEVA_DCH_BIND", "127.0.0.1", 1);
    int error = -1;
    int fd = ZEV0_OpenLocalSocket(1, htons(port), nullptr, 0, &error, 0);
    EXPECT_GT(fd, kFirst);
    EXPECT_EQ(error, 0);
    EXPECT_EQ(ZEV0_HasInheritedSocket(2, htons(port)), 1);
    if (fd >= 0) close(fd);
}

TEST(SocketActivationTest, ACountThatIsNotANumberPassesNothing) {
    uint16_t port = freeLoopbackPort();
    ASSERT_NE(port, 0);
    ASSERT_TRUE(passAt(SOCK_DGRAM, port, kFirst));
    setenv("LISTEN_PID", std::to_string(getpid()).c_str(), 1);
    setenv("LISTEN_FDS", "1x", 1);
    EXPECT_EQ(ZEV0_HasInheritedSocket(2, htons(port)), 0);
    // Without a port nothing is looked up.
    EXPECT_EQ(ZEV0_HasInheritedSocket(2, 0), 0);
}

}  // namespace
}  // namespace zevd::test
