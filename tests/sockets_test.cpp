// IPv4 sockets, name resolution, sleep, threads and condition variables.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <pthread.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <future>
#include <string>
#include <thread>

#include "zev0.h"

namespace {

bool closeOnExec(int fd) {
    int flags = fcntl(fd, F_GETFD);
    return flags >= 0 && (flags & FD_CLOEXEC) != 0;
}

int reuseAddr(int fd) {
    int on = -1;
    socklen_t len = sizeof on;
    if (getsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, &len) != 0) return -1;
    return on;
}

// A port that was free on loopback a moment ago: bound to port 0, read, closed.
unsigned short freeLoopbackPort(int sockType) {
    int fd = socket(AF_INET, sockType, 0);
    if (fd < 0) return 0;
    struct sockaddr_in addr;
    memset(&addr, 0, sizeof addr);
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    unsigned short port = 0;
    if (bind(fd, reinterpret_cast<struct sockaddr *>(&addr), sizeof addr) == 0 &&
        getsockname(fd, reinterpret_cast<struct sockaddr *>(&addr), &len) == 0)
        port = ntohs(addr.sin_port);
    close(fd);
    return port;
}

// Sets ZEVA_DCH_BIND for the length of a test.
class BindToLoopback {
public:
    BindToLoopback() { setenv("ZEVA_DCH_BIND", "127.0.0.1", 1); }
    ~BindToLoopback() { unsetenv("ZEVA_DCH_BIND"); }
};

void expectAnyPort(int type) {
    struct sockaddr_in address;
    memset(&address, 0xAB, sizeof address);
    int error = -1;
    int fd = ZEV0_OpenLocalSocket(type, 0, &address, 0, &error, 0);
    ASSERT_GE(fd, 0) << strerror(error);
    EXPECT_EQ(error, 0);
    EXPECT_TRUE(closeOnExec(fd));
    EXPECT_EQ(address.sin_family, AF_INET);
    unsigned short port = ZEV0_RetrieveSockPort(fd);
    EXPECT_NE(port, 0);
    EXPECT_EQ(address.sin_port, htons(port));
    int sockType = 0;
    socklen_t len = sizeof sockType;
    ASSERT_EQ(getsockopt(fd, SOL_SOCKET, SO_TYPE, &sockType, &len), 0);
    EXPECT_EQ(sockType, type == 1 ? SOCK_STREAM : SOCK_DGRAM);
    EXPECT_EQ(reuseAddr(fd), 0);  // only stream sockets on a fixed port reuse
    EXPECT_EQ(ZEV0_CloseTheSocket(fd), 0);
}

TEST(SocketsTest, DatagramSocketOnAnyPort) {
    expectAnyPort(2);
}

TEST(SocketsTest, StreamSocketOnAnyPort) {
    expectAnyPort(1);
}

TEST(SocketsTest, StreamSocketOnAFixedLoopbackPortReusesTheAddress) {
    BindToLoopback loopback;
    unsigned short port = freeLoopbackPort(SOCK_STREAM);
    ASSERT_NE(port, 0);
    struct sockaddr_in address;
    int error = -1;
    int fd = ZEV0_OpenLocalSocket(1, htons(port), &address, 0, &error, 0);
    ASSERT_GE(fd, 0) << strerror(error);
    EXPECT_EQ(address.sin_addr.s_addr, htonl(INADDR_LOOPBACK));
    EXPECT_EQ(address.sin_port, htons(port));
    EXPECT_EQ(ZEV0_RetrieveSockPort(fd), port);
    EXPECT_TRUE(closeOnExec(fd));
    EXPECT_EQ(reuseAddr(fd), 1);
    ZEV0_CloseTheSocket(fd);
}

TEST(SocketsTest, DatagramSocketOnAFixedLoopbackPortDoesNotReuse) {
    BindToLoopback loopback;
    unsigned short port = freeLoopbackPort(SOCK_DGRAM);
    ASSERT_NE(port, 0);
    struct sockaddr_in address;
    int error = -1;
    int fd = ZEV0_OpenLocalSocket(2, htons(port), &address, 0, &error, 0);
    ASSERT_GE(fd, 0) << strerror(error);
    EXPECT_EQ(address.sin_addr.s_addr, htonl(INADDR_LOOPBACK));
    EXPECT_EQ(ZEV0_RetrieveSockPort(fd), port);
    EXPECT_EQ(reuseAddr(fd), 0);
    ZEV0_CloseTheSocket(fd);
}

TEST(SocketsTest, TakenDatagramPortIsAnError) {
    BindToLoopback loopback;
    unsigned short port = freeLoopbackPort(SOCK_DGRAM);
    ASSERT_NE(port, 0);
    struct sockaddr_in first;
    int error = -1;
    int holder = ZEV0_OpenLocalSocket(2, htons(port), &first, 0, &error, 0);
    ASSERT_GE(holder, 0) << strerror(error);
    struct sockaddr_in second;
    memset(&second, 0, sizeof second);
    error = 0;
    EXPECT_EQ(ZEV0_OpenLocalSocket(2, first.sin_port, &second, 0, &error, 0), -1);
    EXPECT_EQ(error, EADDRINUSE);
    ZEV0_CloseTheSocket(holder);
}

TEST(SocketsTest, BadBindAddressOrTypeIsAnError) {
    setenv("ZEVA_DCH_BIND", "not-an-address", 1);
    int error = 0;
    EXPECT_EQ(ZEV0_OpenLocalSocket(2, htons(freeLoopbackPort(SOCK_DGRAM)), nullptr, 0, &error, 0),
              -1);
    EXPECT_EQ(error, EINVAL);
    unsetenv("ZEVA_DCH_BIND");
    error = 0;
    EXPECT_EQ(ZEV0_OpenLocalSocket(3, 0, nullptr, 0, &error, 0), -1);
    EXPECT_EQ(error, EINVAL);
}

TEST(SocketsTest, DatagramsFlowBetweenTwoLoopbackSockets) {
    int error = 0;
    struct sockaddr_in a;
    struct sockaddr_in b;
    int fa = ZEV0_OpenLocalSocket(2, 0, &a, 0, &error, 0);
    int fb = ZEV0_OpenLocalSocket(2, 0, &b, 0, &error, 0);
    ASSERT_GE(fa, 0);
    ASSERT_GE(fb, 0);
    struct sockaddr_in to;
    ASSERT_NE(ZEV0_ConvertNameToAddr("127.0.0.1", ZEV0_RetrieveSockPort(fb), &to), 0);
    ASSERT_EQ(sendto(fa, "ping", 4, 0, reinterpret_cast<struct sockaddr *>(&to), sizeof to), 4);
    char got[8] = {};
    EXPECT_EQ(recv(fb, got, sizeof got, 0), 4);  // blocks until the datagram is there
    EXPECT_STREQ(got, "ping");
    ZEV0_CloseTheSocket(fa);
    ZEV0_CloseTheSocket(fb);
}

TEST(SocketsTest, SetCloExecFlag) {
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    EXPECT_FALSE(closeOnExec(fds[0]));
    EXPECT_EQ(ZEV0_SetCloExecFlag(fds[0]), 0);
    EXPECT_TRUE(closeOnExec(fds[0]));
    close(fds[0]);
    close(fds[1]);
    EXPECT_EQ(ZEV0_SetCloExecFlag(-1), -1);
    EXPECT_EQ(ZEV0_CloseTheSocket(-1), -1);
}

TEST(SocketsTest, ConvertsADottedAddress) {
    struct sockaddr_in address;
    memset(&address, 0xAB, sizeof address);
    ASSERT_NE(ZEV0_ConvertNameToAddr("127.0.0.1", 1919, &address), 0);
    EXPECT_EQ(address.sin_family, AF_INET);
    EXPECT_EQ(address.sin_port, htons(1919));
    EXPECT_EQ(address.sin_addr.s_addr, htonl(INADDR_LOOPBACK));
}

TEST(SocketsTest, ConvertsLocalhost) {
    struct sockaddr_in address;
    ASSERT_NE(ZEV0_ConvertNameToAddr("localhost", 7, &address), 0);
    EXPECT_EQ(address.sin_family, AF_INET);
    EXPECT_EQ(address.sin_port, htons(7));
    EXPECT_EQ(ntohl(address.sin_addr.s_addr) >> 24, 127u);
}

TEST(SocketsTest, ConvertsTheLocalHostName) {
    char *name = ZEV0_LocalHostNameString();
    ASSERT_NE(name, nullptr);
    EXPECT_GT(strlen(name), 0u);
    std::string copy = name;
    struct sockaddr_in address;
    ASSERT_NE(ZEV0_ConvertNameToAddr(copy.c_str(), 1919, &address), 0);
    EXPECT_EQ(address.sin_family, AF_INET);
    EXPECT_EQ(address.sin_port, htons(1919));
    EXPECT_NE(address.sin_addr.s_addr, htonl(INADDR_ANY));
}

TEST(SocketsTest, UnresolvableNameGivesZero) {
    struct sockaddr_in address;
    memset(&address, 0xAB, sizeof address);
    struct sockaddr_in before = address;
    EXPECT_EQ(ZEV0_ConvertNameToAddr("no-such-host.invalid", 1919, &address), 0);
    EXPECT_EQ(memcmp(&address, &before, sizeof address), 0);
    EXPECT_EQ(ZEV0_ConvertNameToAddr(nullptr, 1919, &address), 0);
    EXPECT_EQ(ZEV0_ConvertNameToAddr("127.0.0.1", 1919, nullptr), 0);
}

TEST(SocketsTest, SleepOfZeroReturnsAtOnce) {
    auto start = std::chrono::steady_clock::now();
    OSV1_Sleep(0);
    OSV1_Sleep(-1);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(500));
}

TEST(SocketsTest, EnvironmentLookup) {
    setenv("ZEVD_SOCKETS_TEST_VALUE", "abc", 1);
    ASSERT_NE(OSV1_GetEnv("ZEVD_SOCKETS_TEST_VALUE", 0), nullptr);
    EXPECT_STREQ(OSV1_GetEnv("ZEVD_SOCKETS_TEST_VALUE", 0), "abc");
    unsetenv("ZEVD_SOCKETS_TEST_VALUE");
    EXPECT_EQ(OSV1_GetEnv("ZEVD_SOCKETS_TEST_VALUE", 0), nullptr);
    EXPECT_EQ(OSV1_GetEnv(nullptr, 0), nullptr);
}

struct ThreadReport {
    std::promise<int> detachState;
};

void *reportDetachState(void *arg) {
    auto *report = static_cast<ThreadReport *>(arg);
    pthread_attr_t attr;
    int state = -1;
    if (pthread_getattr_np(pthread_self(), &attr) == 0) {
        pthread_attr_getdetachstate(&attr, &state);
        pthread_attr_destroy(&attr);
    }
    report->detachState.set_value(state);
    return reinterpret_cast<void *>(static_cast<intptr_t>(42));
}

TEST(ThreadsTest, DetachedThreadRuns) {
    static ThreadReport report;  // outlives the detached thread
    std::future<int> state = report.detachState.get_future();
    pthread_t id;
    ASSERT_EQ(ZEV0_CreateThread(reportDetachState, &report, 1, &id), 0);
    ASSERT_EQ(state.wait_for(std::chrono::seconds(30)), std::future_status::ready);
    EXPECT_EQ(state.get(), PTHREAD_CREATE_DETACHED);
}

TEST(ThreadsTest, JoinableThreadIsJoined) {
    ThreadReport report;
    std::future<int> state = report.detachState.get_future();
    pthread_t id;
    ASSERT_EQ(ZEV0_CreateThread(reportDetachState, &report, 0, &id), 0);
    void *result = nullptr;
    ASSERT_EQ(pthread_join(id, &result), 0);
    EXPECT_EQ(result, reinterpret_cast<void *>(static_cast<intptr_t>(42)));
    EXPECT_EQ(state.get(), PTHREAD_CREATE_JOINABLE);
    EXPECT_NE(ZEV0_CreateThread(nullptr, nullptr, 0, &id), 0);
}

timespec realtimeIn(long milliseconds) {
    timespec t;
    clock_gettime(CLOCK_REALTIME, &t);
    t.tv_sec += milliseconds / 1000;
    t.tv_nsec += (milliseconds % 1000) * 1000000L;
    if (t.tv_nsec >= 1000000000L) {
        t.tv_sec += 1;
        t.tv_nsec -= 1000000000L;
    }
    return t;
}

bool reached(const timespec &deadline) {
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    return now.tv_sec > deadline.tv_sec ||
           (now.tv_sec == deadline.tv_sec && now.tv_nsec >= deadline.tv_nsec);
}

struct Signal {
    pthread_mutex_t mutex;
    pthread_cond_t cond;
    bool set = false;
};

void *raiseSignal(void *arg) {
    auto *signal = static_cast<Signal *>(arg);
    pthread_mutex_lock(&signal->mutex);
    signal->set = true;
    pthread_cond_signal(&signal->cond);
    pthread_mutex_unlock(&signal->mutex);
    return nullptr;
}

TEST(ThreadsTest, CondVarTimesOutAtARealtimeDeadline) {
    Signal guard;
    ASSERT_EQ(ZEV0_InitializeMutex(&guard.mutex), 0);
    ASSERT_EQ(ZEV0_InitializeCondVar(&guard.cond), 0);
    // On any other clock a wall-clock deadline lies decades away; the guard
    // wakes such a wait after 10 s so the test fails instead of hanging.
    std::promise<void> done;
    std::future<void> finished = done.get_future();
    std::thread watchdog([&] {
        if (finished.wait_for(std::chrono::seconds(10)) != std::future_status::ready)
            raiseSignal(&guard);
    });
    timespec deadline = realtimeIn(50);
    pthread_mutex_lock(&guard.mutex);
    int rc = 0;
    for (int i = 0; i < 100 && rc == 0 && !guard.set; ++i)
        rc = pthread_cond_timedwait(&guard.cond, &guard.mutex, &deadline);
    bool woken = guard.set;
    pthread_mutex_unlock(&guard.mutex);
    done.set_value();
    watchdog.join();
    EXPECT_FALSE(woken);
    EXPECT_EQ(rc, ETIMEDOUT);
    EXPECT_TRUE(reached(deadline));
    pthread_cond_destroy(&guard.cond);
    pthread_mutex_destroy(&guard.mutex);
}

TEST(ThreadsTest, CondVarWakesBeforeItsDeadline) {
    Signal signal;
    ASSERT_EQ(ZEV0_InitializeMutex(&signal.mutex), 0);
    ASSERT_EQ(ZEV0_InitializeCondVar(&signal.cond), 0);
    pthread_t id;
    pthread_mutex_lock(&signal.mutex);
    ASSERT_EQ(ZEV0_CreateThread(raiseSignal, &signal, 0, &id), 0);
    timespec deadline = realtimeIn(30000);
    int rc = 0;
    while (!signal.set && rc == 0)
        rc = pthread_cond_timedwait(&signal.cond, &signal.mutex, &deadline);
    bool set = signal.set;
    pthread_mutex_unlock(&signal.mutex);
    pthread_join(id, nullptr);
    EXPECT_EQ(rc, 0);
    EXPECT_TRUE(set);
    EXPECT_FALSE(reached(deadline));
    pthread_cond_destroy(&signal.cond);
    pthread_mutex_destroy(&signal.mutex);
}

TEST(ThreadsTest, NullArgumentsAreRefused) {
    EXPECT_NE(ZEV0_InitializeMutex(nullptr), 0);
    EXPECT_NE(ZEV0_InitializeCondVar(nullptr), 0);
}

}  // namespace
