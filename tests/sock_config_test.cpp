// The socket transport's process-wide configuration: read once from the
// environment, with product item 21 as the port's fall-back. Each case runs
// in a fresh process, since a process reads its configuration only once.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "support/fresh_process.h"
#include "support/sock_probe.h"
#include "support/trace_capture.h"
#include "zev0.h"
#include "zevd610.h"

namespace {

using zevd::test::ipcSockProbe;
using zevd::test::TraceCapture;

void clearDchEnv() {
    for (const char *name :
         {"ZEVA_DCH_ADDR", "ZEVA_DCH_PORT", "ZEVA_DCH_TIMEOUT", "ZEVA_DCH_TRAPEMIT",
          "ZEVA_DCH_UDP_SOCKETS_IN_POOL", "ZEVA_SETTINGS_FILE"})
        unsetenv(name);
}

// Builds a transport of its own (own sockets, no pool, no address to
// resolve): enough to read the configuration.
void readConfiguration() {
    ipcSockProbe sock(1, 1, 0);
    EXPECT_EQ(sock.ipcGetError(), 0);
}

std::string configLine(const std::string &name, int port, int timeout, int trap) {
    return "_envDCHname[" + name + "] _envPortNo[" + std::to_string(port) + "] _envDCHtimeout[" +
           std::to_string(timeout) + "] _envTRAPEMIT[" + std::to_string(trap) + "]\n";
}

// Expects the trap-emit switch that ZEVA_DCH_TRAPEMIT=value gives.
void expectTrapEmit(const char *value, int expected) {
    clearDchEnv();
    setenv("ZEVA_DCH_ADDR", "127.0.0.1", 1);
    setenv("ZEVA_DCH_TRAPEMIT", value, 1);
    readConfiguration();
    EXPECT_EQ(ipcSockProbe::trapEmit(), expected) << "ZEVA_DCH_TRAPEMIT=" << value;
}

TEST(SockConfigTest, DefaultsWithNothingSet) {
    ZEVD_IN_FRESH_PROCESS({
        clearDchEnv();
        TraceCapture capture("zevdsock=all");
        EXPECT_EQ(ipcSockProbe::envVarsInit(), 0);
        readConfiguration();
        const char *host = ZEV0_LocalHostNameString();
        ASSERT_NE(host, nullptr);
        EXPECT_EQ(ipcSockProbe::envVarsInit(), 1);
        EXPECT_EQ(ipcSockProbe::dchName(), host);
        EXPECT_EQ(ipcSockProbe::portNo(), 1919);
        EXPECT_EQ(ipcSockProbe::timeout(), 30);
        EXPECT_EQ(ipcSockProbe::poolSize(), 32);
        EXPECT_EQ(ipcSockProbe::trapEmit(), 0);
        EXPECT_TRUE(capture.hasText("Assigned DCH port number to 1919\n")) << capture.joined();
        EXPECT_TRUE(capture.hasText(configLine(host, 1919, 30, 0))) << capture.joined();
        // Only a client object of service 3 with the pool switch makes the
        // pool.
        EXPECT_EQ(ipcSockProbe::envDCHUDPInit(), 0);
        EXPECT_EQ(ipcSockProbe::pool(), nullptr);
    });
}

TEST(SockConfigTest, EnvironmentValuesAndExactLine) {
    ZEVD_IN_FRESH_PROCESS({
        clearDchEnv();
        setenv("ZEVA_DCH_ADDR", "127.0.0.1", 1);
        setenv("ZEVA_DCH_PORT", "24680", 1);
        setenv("ZEVA_DCH_TIMEOUT", "12", 1);
        setenv("ZEVA_DCH_TRAPEMIT", "Y", 1);
        setenv("ZEVA_DCH_UDP_SOCKETS_IN_POOL", "3", 1);
        TraceCapture capture("zevdsock=all");
        readConfiguration();
        EXPECT_EQ(ipcSockProbe::dchName(), "127.0.0.1");
        EXPECT_EQ(ipcSockProbe::portNo(), 24680);
        EXPECT_EQ(ipcSockProbe::timeout(), 12);
        EXPECT_EQ(ipcSockProbe::poolSize(), 3);
        EXPECT_EQ(ipcSockProbe::trapEmit(), 1);
        EXPECT_TRUE(capture.hasText("Assigned DCH port number to 24680\n")) << capture.joined();
        EXPECT_TRUE(capture.hasText(
            "_envDCHname[127.0.0.1] _envPortNo[24680] _envDCHtimeout[12] _envTRAPEMIT[1]\n"))
            << capture.joined();
    });
}

TEST(SockConfigTest, ReadOnlyOncePerProcess) {
    ZEVD_IN_FRESH_PROCESS({
        clearDchEnv();
        setenv("ZEVA_DCH_ADDR", "127.0.0.1", 1);
        setenv("ZEVA_DCH_PORT", "2001", 1);
        readConfiguration();
        setenv("ZEVA_DCH_PORT", "2002", 1);
        TraceCapture capture("zevdsock=all");
        readConfiguration();
        EXPECT_EQ(ipcSockProbe::portNo(), 2001);
        EXPECT_FALSE(capture.contains("Assigned DCH port number")) << capture.joined();
    });
}

TEST(SockConfigTest, ProductItem21IsThePortFallBack) {
    ZEVD_IN_FRESH_PROCESS({
        clearDchEnv();
        char path[] = "/tmp/zevd_sock_config_XXXXXX";
        int fd = mkstemp(path);
        ASSERT_GE(fd, 0);
        const char text[] = "# product settings\n21=4321\n";
        ASSERT_EQ(write(fd, text, sizeof text - 1), static_cast<ssize_t>(sizeof text - 1));
        close(fd);
        setenv("ZEVA_SETTINGS_FILE", path, 1);
        setenv("ZEVA_DCH_ADDR", "127.0.0.1", 1);
        TraceCapture capture("zevdsock=all");
        readConfiguration();
        unlink(path);
        EXPECT_EQ(ipcSockProbe::portNo(), 4321);
        EXPECT_TRUE(capture.hasText("Assigned DCH port number to 4321\n")) << capture.joined();
    });
}

TEST(SockConfigTest, EnvironmentPortWinsOverItem21) {
    ZEVD_IN_FRESH_PROCESS({
        clearDchEnv();
        char path[] = "/tmp/zevd_sock_config_XXXXXX";
        int fd = mkstemp(path);
        ASSERT_GE(fd, 0);
        const char text[] = "21=4321\n";
        ASSERT_EQ(write(fd, text, sizeof text - 1), static_cast<ssize_t>(sizeof text - 1));
        close(fd);
        setenv("ZEVA_SETTINGS_FILE", path, 1);
        setenv("ZEVA_DCH_ADDR", "127.0.0.1", 1);
        setenv("ZEVA_DCH_PORT", "5555", 1);
        readConfiguration();
        unlink(path);
        EXPECT_EQ(ipcSockProbe::portNo(), 5555);
    });
}

TEST(SockConfigTest, PortIsKeptInSixteenBitsAndTextGivesZero) {
    ZEVD_IN_FRESH_PROCESS({
        clearDchEnv();
        setenv("ZEVA_DCH_ADDR", "127.0.0.1", 1);
        setenv("ZEVA_DCH_PORT", "70000", 1);
        TraceCapture capture("zevdsock=all");
        readConfiguration();
        EXPECT_EQ(ipcSockProbe::portNo(), 70000 - 65536);
        EXPECT_TRUE(capture.hasText("Assigned DCH port number to 4464\n")) << capture.joined();
    });
    ZEVD_IN_FRESH_PROCESS({
        clearDchEnv();
        setenv("ZEVA_DCH_ADDR", "127.0.0.1", 1);
        setenv("ZEVA_DCH_PORT", "abc", 1);
        readConfiguration();
        EXPECT_EQ(ipcSockProbe::portNo(), 0);
    });
}

TEST(SockConfigTest, TrapEmitOnlyForYAndLowerY) {
    ZEVD_IN_FRESH_PROCESS(expectTrapEmit("Y", 1));
    ZEVD_IN_FRESH_PROCESS(expectTrapEmit("y", 1));
    ZEVD_IN_FRESH_PROCESS(expectTrapEmit("yes", 1));
    ZEVD_IN_FRESH_PROCESS(expectTrapEmit("1", 0));
    ZEVD_IN_FRESH_PROCESS(expectTrapEmit("true", 0));
    ZEVD_IN_FRESH_PROCESS(expectTrapEmit("", 0));
    ZEVD_IN_FRESH_PROCESS(expectTrapEmit("no", 0));
}

TEST(SockConfigTest, DCHtimeoutIsNarrowedToSixteenBits) {
    ZEVD_IN_FRESH_PROCESS({
        clearDchEnv();
        setenv("ZEVA_DCH_ADDR", "127.0.0.1", 1);
        setenv("ZEVA_DCH_TIMEOUT", "40000", 1);
        ipcSockProbe sock(1, 1, 0);
        EXPECT_EQ(ipcSockProbe::timeout(), 40000);
        EXPECT_EQ(sock.DCHtimeout(), -25536);
    });
    ZEVD_IN_FRESH_PROCESS({
        clearDchEnv();
        setenv("ZEVA_DCH_ADDR", "127.0.0.1", 1);
        setenv("ZEVA_DCH_TIMEOUT", "45", 1);
        ipcSockProbe sock(1, 1, 0);
        EXPECT_EQ(sock.DCHtimeout(), 45);
    });
}

TEST(SockConfigTest, LongHostNameIsCutAt255Characters) {
    ZEVD_IN_FRESH_PROCESS({
        clearDchEnv();
        std::string name(300, 'h');
        setenv("ZEVA_DCH_ADDR", name.c_str(), 1);
        readConfiguration();
        EXPECT_EQ(ipcSockProbe::dchName(), std::string(255, 'h'));
    });
}

TEST(SockConfigTest, PoolSizeBelowOneFallsBackToTheDefault) {
    for (const char *value : {"0", "-4", "none"}) {
        ZEVD_IN_FRESH_PROCESS({
            clearDchEnv();
            setenv("ZEVA_DCH_ADDR", "127.0.0.1", 1);
            setenv("ZEVA_DCH_UDP_SOCKETS_IN_POOL", value, 1);
            TraceCapture capture("zevdsock=error");
            // The client object makes the pool and borrows from it.
            ipcSockProbe sock(3, 0, 1);
            EXPECT_EQ(sock.ipcGetError(), 0);
            EXPECT_EQ(ipcSockProbe::poolSize(), 32);
            EXPECT_TRUE(ipcSockProbe::inPool(sock.sockUDP()));
            std::string warning = std::string("Warning: ZEVA_DCH_UDP_SOCKETS_IN_POOL=") +
                                  std::to_string(atoi(value)) + " is below 1, using 32.\n";
            EXPECT_TRUE(capture.hasText(warning)) << capture.joined();
            EXPECT_EQ(sock.releaseIPC(), 0);
        });
    }
}

TEST(SockConfigTest, GetEnvVariablesTraceLines) {
    ZEVD_IN_FRESH_PROCESS({
        clearDchEnv();
        setenv("ZEVA_DCH_ADDR", "127.0.0.1", 1);
        TraceCapture capture("zevdsock=all");
        ipcSockProbe sock(1, 1, 0);
        char expected[128];
        // The trace runs before the flag is read back: it reads 1, set just
        // before the call.
        snprintf(expected, sizeof expected, "DCHIpc instance @%p and _envVarsInit=1\n",
                 static_cast<void *>(&sock));
        EXPECT_TRUE(capture.hasText(expected)) << capture.joined();
        snprintf(expected, sizeof expected,
                 "service=1 connectTo=1 _useFromSockPool=0 _envVarsInit=0 _envDCHUDPInit=0\n");
        EXPECT_TRUE(capture.hasText(expected)) << capture.joined();
        snprintf(expected, sizeof expected, "Acquiring EnvVars Init Lock. [@%p]\n",
                 static_cast<void *>(ZEVA_GetEnvVarsInitLock()));
        EXPECT_TRUE(capture.hasText(expected)) << capture.joined();
        snprintf(expected, sizeof expected, "Releasing EnvVars Init Lock. [@%p]\n",
                 static_cast<void *>(ZEVA_GetEnvVarsInitLock()));
        EXPECT_TRUE(capture.hasText(expected)) << capture.joined();
    });
}

}  // namespace
