// Client set-up of the socket transport: which sockets a client gets, and
// where its messages go.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "support/fresh_process.h"
#include "support/sock_probe.h"
#include "support/trace_capture.h"

namespace {

using zevd::test::ipcSockProbe;
using zevd::test::TraceCapture;

constexpr int kDchPort = 24816;

const bool environmentSet = [] {
    setenv("ZEVA_DCH_ADDR", "127.0.0.1", 1);
    setenv("ZEVA_DCH_PORT", std::to_string(kDchPort).c_str(), 1);
    setenv("ZEVA_DCH_UDP_SOCKETS_IN_POOL", "4", 1);
    unsetenv("ZEVA_SETTINGS_FILE");
    return true;
}();

bool isOpen(int fd) {
    return fcntl(fd, F_GETFD) != -1;
}

// The address trace line: the label, then the 16 address bytes in hex.
std::string addressLine(const std::string &label, const struct sockaddr_in &address) {
    std::string line = label + ": clientAddr <16<";
    const auto *bytes = reinterpret_cast<const unsigned char *>(&address);
    char hex[3];
    for (size_t i = 0; i < sizeof address; ++i) {
        snprintf(hex, sizeof hex, "%02x", bytes[i]);
        line += hex;
    }
    return line + ">>\n";
}

void expectDchAddress(const struct sockaddr_in &address) {
    EXPECT_EQ(address.sin_family, AF_INET);
    EXPECT_EQ(ntohs(address.sin_port), kDchPort);
    EXPECT_EQ(ntohl(address.sin_addr.s_addr), INADDR_LOOPBACK);
}

TEST(SockClientTest, ClientObjectBorrowsAPooledSocketAndNoTcp) {
    ASSERT_TRUE(environmentSet);
    TraceCapture capture("zevdsock=all");
    ipcSockProbe sock(3, 0, 1);
    EXPECT_EQ(sock.ipcGetError(), 0);
    EXPECT_EQ(sock.sockError(), 0);
    EXPECT_TRUE(ipcSockProbe::inPool(sock.sockUDP()));
    EXPECT_EQ(sock.sockTCP(), -999);
    expectDchAddress(sock.address());

    EXPECT_TRUE(capture.hasText("DCHName[127.0.0.1] DCHPort[" + std::to_string(kDchPort) +
                                "] connectTo[0] typeOfServer[3]\n"))
        << capture.joined();
    EXPECT_TRUE(capture.hasText("Using DCH port number: " + std::to_string(kDchPort) + "\n"));
    EXPECT_TRUE(capture.hasText(addressLine(
        "Created _sockUDP[" + std::to_string(sock.sockUDP()) + "] bound to port", sock.address())))
        << capture.joined();
    EXPECT_FALSE(capture.contains("Created _sockTCP")) << capture.joined();
    // Only pool sockets were used: no socket was made for this object.
    EXPECT_FALSE(capture.contains("from outside socket pool")) << capture.joined();
    EXPECT_EQ(sock.releaseIPC(), 0);
}

TEST(SockClientTest, ServiceOneGetsUdpTcpAndTheDchAddress) {
    TraceCapture capture("zevdsock=all");
    auto *sock = new ipcSockProbe(1, 0, 0);
    EXPECT_EQ(sock->ipcGetError(), 0);
    int udp = sock->sockUDP();
    int tcp = sock->sockTCP();
    ASSERT_GE(udp, 0);
    ASSERT_GE(tcp, 0);
    EXPECT_NE(udp, tcp);
    EXPECT_FALSE(ipcSockProbe::inPool(udp));
    expectDchAddress(sock->address());
    EXPECT_TRUE(capture.hasText("Allocated UDP socket " + std::to_string(udp) +
                                " from outside socket pool\n"))
        << capture.joined();
    std::string udpLabel = "Created _sockUDP[" + std::to_string(udp) + "] bound to port";
    // The TCP line names the UDP socket: a slip kept as it is.
    std::string tcpLabel = "Created _sockTCP[" + std::to_string(udp) + "] bound to port";
    EXPECT_TRUE(capture.hasText(addressLine(udpLabel, sock->address()))) << capture.joined();
    EXPECT_TRUE(capture.hasText(addressLine(tcpLabel, sock->address()))) << capture.joined();
    EXPECT_FALSE(capture.contains("Created _sockTCP[" + std::to_string(tcp) + "]"));
    delete sock;
    EXPECT_FALSE(isOpen(udp));
    EXPECT_FALSE(isOpen(tcp));
}

TEST(SockClientTest, ServiceOneFromThePool) {
    // A client object made the pool first.
    ipcSockProbe owner(3, 0, 1);
    ASSERT_EQ(owner.ipcGetError(), 0);
    ipcSockProbe sock(1, 0, 1);
    EXPECT_EQ(sock.ipcGetError(), 0);
    EXPECT_TRUE(ipcSockProbe::inPool(sock.sockUDP()));
    EXPECT_NE(sock.sockUDP(), owner.sockUDP());
    EXPECT_GE(sock.sockTCP(), 0);
    expectDchAddress(sock.address());
    EXPECT_EQ(sock.releaseIPC(), 0);
    EXPECT_EQ(owner.releaseIPC(), 0);
}

TEST(SockClientTest, NonzeroConnectToMakesItsOwnSocketsAndResolvesNothing) {
    TraceCapture capture("zevdsock=all");
    auto *sock = new ipcSockProbe(3, 7, 1);
    EXPECT_EQ(sock->ipcGetError(), 0);
    int udp = sock->sockUDP();
    int tcp = sock->sockTCP();
    ASSERT_GE(udp, 0);
    ASSERT_GE(tcp, 0);
    // Not from the pool, whatever the pool switch says, and a TCP socket
    // whatever the type of service.
    EXPECT_FALSE(ipcSockProbe::inPool(udp));
    EXPECT_FALSE(capture.contains("Using DCH port number")) << capture.joined();
    EXPECT_FALSE(capture.contains("UDP Socket")) << capture.joined();
    // The address record is what socket creation left in it: the TCP
    // socket's own wildcard address, not the DCH's.
    EXPECT_EQ(sock->address().sin_addr.s_addr, htonl(INADDR_ANY));
    EXPECT_EQ(ntohs(sock->address().sin_port), sock->sockPortTCP());
    EXPECT_TRUE(capture.hasText("DCHName[127.0.0.1] DCHPort[" + std::to_string(kDchPort) +
                                "] connectTo[7] typeOfServer[3]\n"))
        << capture.joined();
    EXPECT_TRUE(capture.hasText(addressLine(
        "Created _sockUDP[" + std::to_string(udp) + "] bound to port", sock->address())));
    EXPECT_FALSE(capture.contains("Created _sockTCP")) << capture.joined();
    delete sock;
    EXPECT_FALSE(isOpen(udp));
    EXPECT_FALSE(isOpen(tcp));
}

TEST(SockClientTest, UnresolvableDchNameStillMakesTheSockets) {
    ZEVD_IN_FRESH_PROCESS({
        setenv("ZEVA_DCH_ADDR", "no-such-host.invalid", 1);
        TraceCapture capture("zevdsock=all,zevdipc=error");
        ipcSockProbe sock(1, 0, 0);
        EXPECT_EQ(sock.ipcGetError(), 1);
        EXPECT_EQ(sock.sockError(), 1);
        EXPECT_TRUE(isOpen(sock.sockUDP()));
        EXPECT_TRUE(isOpen(sock.sockTCP()));
        EXPECT_TRUE(
            capture.hasText("Error: ZEV0_ConvertNameToAddr failed for[no-such-host.invalid]\n"))
            << capture.joined();
        EXPECT_TRUE(capture.hasText("Error: startup failed. _sockError=1\n")) << capture.joined();
        EXPECT_TRUE(capture.hasText("Error: _sockError=1\n")) << capture.joined();
        EXPECT_FALSE(capture.contains("Created _sockUDP")) << capture.joined();
    });
    ZEVD_IN_FRESH_PROCESS({
        setenv("ZEVA_DCH_ADDR", "no-such-host.invalid", 1);
        TraceCapture capture("zevdsock=all");
        ipcSockProbe sock(3, 0, 1);
        EXPECT_EQ(sock.ipcGetError(), 1);
        EXPECT_TRUE(ipcSockProbe::inPool(sock.sockUDP()));
        EXPECT_TRUE(
            capture.hasText("Error: ZEV0_ConvertNameToAddr failed for[no-such-host.invalid]\n"))
            << capture.joined();
        EXPECT_EQ(sock.releaseIPC(), 0);
    });
}

TEST(SockClientTest, PoolSwitchWithoutAPoolFailsAtOnce) {
    ZEVD_IN_FRESH_PROCESS({
        // Service 1 does not make the pool, so there is none to borrow from.
        TraceCapture capture("zevdsock=all");
        ipcSockProbe sock(1, 0, 1);
        EXPECT_EQ(sock.ipcGetError(), 1);
        EXPECT_EQ(sock.sockUDP(), -999);
        EXPECT_EQ(sock.sockTCP(), -999);
        EXPECT_EQ(ipcSockProbe::pool(), nullptr);
        EXPECT_TRUE(capture.hasText("Error: no UDP socket pool has been made.\n"))
            << capture.joined();
        EXPECT_TRUE(capture.contains("Error: _sockUDP[-999]  errno=")) << capture.joined();
        EXPECT_EQ(sock.releaseIPC(), 1);
        EXPECT_TRUE(capture.hasText("Error: UDP socket -999 not found.\n")) << capture.joined();
    });
}

TEST(SockClientTest, DefaultConstructorIsReportedAndFails) {
    TraceCapture capture("zevdsock=error");
    ipcSockProbe sock;
    EXPECT_EQ(sock.sockError(), 1);
    EXPECT_EQ(sock.ipcGetError(), 1);
    EXPECT_EQ(sock.sockUDP(), -999);
    EXPECT_EQ(sock.sockTCP(), -999);
    EXPECT_EQ(capture.count("Error: this constructor should not be used.\n"), 2u)
        << capture.joined();
}

TEST(SockClientTest, SetClientAddrCopiesSixteenBytesOrClears) {
    ipcSockProbe sock(1, 1, 0);
    struct sockaddr_in peer;
    memset(&peer, 0xAB, sizeof peer);
    EXPECT_EQ(sock.setClientAddr(&peer, 3), 0);
    EXPECT_EQ(memcmp(&sock.address(), &peer, sizeof peer), 0);
    EXPECT_EQ(sock.setClientAddr(nullptr, 16), 0);
    struct sockaddr_in zero;
    memset(&zero, 0, sizeof zero);
    EXPECT_EQ(memcmp(&sock.address(), &zero, sizeof zero), 0);
}

}  // namespace
