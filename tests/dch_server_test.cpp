// The server loop of the socket transport over loopback: what it queues for
// UDP datagrams, TCP messages and connections, and how it keeps serving.
// Each case runs in its own process (the receive thread is never joined).
#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <memory>
#include <mutex>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "ipc/zevdsock_internal.h"
#include "support/dch_server.h"
#include "support/entry_batch.h"
#include "support/free_port.h"
#include "support/loopback.h"
#include "support/patterned_message.h"
#include "support/trace_capture.h"
#include "support/wait_for.h"
#include "zev0.h"

namespace {

// When set, this program's listen on the DCH port (ZEVA_DCH_PORT) fails as
// it would for a port another socket listens on already.
std::atomic<bool> listenFails{false};

bool onTheDchPort(int fd) {
    const char *port = getenv("ZEVA_DCH_PORT");
    return port != nullptr && zevd::test::boundPort(fd) == atoi(port);
}

}  // namespace

extern "C" int listen(int fd, int backlog) {
    if (listenFails.load() && onTheDchPort(fd)) {
        errno = EADDRINUSE;
        return -1;
    }
    return static_cast<int>(syscall(SYS_listen, fd, backlog));
}

namespace {

using zevd::test::bindLoopback;
using zevd::test::boundPort;
using zevd::test::loopbackAddress;
using zevd::test::LoopServer;
using zevd::test::QueueEntry;
using zevd::test::TcpPeer;
using zevd::test::TraceCapture;
using zevd::test::UdpPeer;
using zevd::test::waitFor;

constexpr char kLevels[] = "error,ipcSock::IPCServer=all,DCHipc::ipc_put_data=error+detail";
constexpr auto kLimit = std::chrono::seconds(30);
const std::string kNoName = std::string(255, ' ');

using zevd::test::message;

// Starts the server with the capture already on, and takes its ready entry.
LoopServer &startServer(size_t budget = std::numeric_limits<size_t>::max()) {
    LoopServer &server = LoopServer::start(budget);
    EXPECT_TRUE(server.waitEntries(1, kLimit)) << "no ready entry";
    return server;
}

// The server-side descriptor of the n-th accepted connection (from 1), from
// its "_sockClientFD[slot]=[fd]" line.
int acceptedFD(const TraceCapture &capture, size_t n, int *slot = nullptr) {
    static const std::regex accepted("^_sockClientFD\\[([0-9]+)\\]=\\[([0-9]+)\\]\n$");
    size_t seen = 0;
    for (const std::string &text : capture.texts()) {
        std::smatch match;
        if (!std::regex_match(text, match, accepted)) continue;
        if (++seen == n) {
            if (slot != nullptr) *slot = std::stoi(match[1]);
            return std::stoi(match[2]);
        }
    }
    return -1;
}

std::string dotted(const struct sockaddr_in &address) {
    char text[INET_ADDRSTRLEN] = {};
    inet_ntop(AF_INET, &address.sin_addr, text, sizeof text);
    return text;
}

TEST(DchServerTest, ReadyEntryComesFirstWithoutANameAndDescriptorZero) {
    TraceCapture capture(kLevels);
    LoopServer &server = startServer();
    std::vector<QueueEntry> entries = server.entries();
    ASSERT_GE(entries.size(), 1u);
    const QueueEntry &ready = entries[0];
    EXPECT_TRUE(ready.holds(std::vector<char>{'I', 'P', 'C', '-', 'S', 'E', 'R', 'V', 'E', 'R', '_',
                                              'R', 'E', 'A', 'D', 'Y'}));
    EXPECT_EQ(ready.clientName, kNoName);
    EXPECT_EQ(ready.connectedSockFD, 0u);
    // The server's own bound address.
    EXPECT_EQ(ready.fromLength, 16);
    EXPECT_EQ(ready.from.sin_family, AF_INET);
    EXPECT_EQ(ntohs(ready.from.sin_port), server.port());
    EXPECT_EQ(dotted(ready.from), "127.0.0.1");
    EXPECT_TRUE(capture.contains("listen for _sockTCP ")) << capture.joined();
    EXPECT_TRUE(capture.hasText("Successfully opened zevd DCH port " +
                                std::to_string(server.port()) + "\n"));
}

TEST(DchServerTest, DatagramsFromSeveralSendersCarryTheirDottedAddresses) {
    TraceCapture capture(kLevels);
    LoopServer &server = startServer();
    const char *addresses[] = {"127.0.0.2", "127.0.0.3", "127.0.0.1"};
    std::vector<std::unique_ptr<UdpPeer>> peers;
    for (const char *address : addresses) {
        peers.push_back(std::make_unique<UdpPeer>(server.port(), address));
        ASSERT_TRUE(peers.back()->bound()) << address;
    }
    for (size_t i = 0; i < peers.size(); ++i)
        ASSERT_TRUE(peers[i]->send(message(40 + static_cast<uint32_t>(i), static_cast<int>(i))));
    ASSERT_TRUE(server.waitEntries(1 + peers.size(), kLimit));
    std::vector<QueueEntry> entries = server.entries();
    for (size_t i = 0; i < peers.size(); ++i) {
        const QueueEntry &entry = entries[1 + i];
        EXPECT_TRUE(entry.holds(message(40 + static_cast<uint32_t>(i), static_cast<int>(i)))) << i;
        EXPECT_EQ(entry.clientName, addresses[i]);
        EXPECT_EQ(dotted(entry.from), addresses[i]);
        EXPECT_EQ(ntohs(entry.from.sin_port), peers[i]->localPort());
        EXPECT_EQ(entry.fromLength, 16);
        EXPECT_EQ(entry.connectedSockFD, 0u);
    }
    EXPECT_EQ(capture.count("UDP: bytesRead="), peers.size());
}

TEST(DchServerTest, SenderNamesAreTheTextsInetNtopWrites) {
    // Every octet value in every place, beside the others at 0, 7, 42 and 255.
    const unsigned others[] = {0, 7, 42, 255};
    int compared = 0;
    for (int place = 0; place < 4; ++place) {
        for (unsigned other : others) {
            for (unsigned value = 0; value < 256; ++value) {
                unsigned char octets[4] = {
                    static_cast<unsigned char>(other), static_cast<unsigned char>(other),
                    static_cast<unsigned char>(other), static_cast<unsigned char>(other)};
                octets[place] = static_cast<unsigned char>(value);
                struct sockaddr_in address = {};
                memcpy(&address.sin_addr.s_addr, octets, sizeof octets);
                char expected[INET_ADDRSTRLEN];
                ASSERT_NE(inet_ntop(AF_INET, &address.sin_addr, expected, sizeof expected),
                          nullptr);
                char name[INET_ADDRSTRLEN];
                memset(name, 'x', sizeof name);
                zevd::dottedAddress(address, name, sizeof name);
                ASSERT_STREQ(name, expected);
                ++compared;
            }
        }
    }
    EXPECT_EQ(compared, 4 * 4 * 256);

    // A buffer too small for the text gets "0.0.0.0" cut to its size, and
    // nothing past it is written.
    struct sockaddr_in wide = {};
    wide.sin_addr.s_addr = htonl(0xFFFFFFFF);
    char small[9];
    memset(small, 'x', sizeof small);
    zevd::dottedAddress(wide, small, 8);
    EXPECT_STREQ(small, "0.0.0.0");
    EXPECT_EQ(small[8], 'x');
    zevd::dottedAddress(wide, small, 4);
    EXPECT_STREQ(small, "0.0");
    wide.sin_addr.s_addr = htonl(0x7F000001);
    memset(small, 'x', sizeof small);
    zevd::dottedAddress(wide, small, 9);
    EXPECT_STREQ(small, "0.0.0.0");  // "127.0.0.1" and its zero need 10
    zevd::dottedAddress(wide, small, 0);
    EXPECT_EQ(small[0], '0');  // untouched
}

TEST(DchServerTest, RefusalReportsAreReadWhileDatagramsStillWait) {
    TraceCapture capture(kLevels);
    LoopServer &server = LoopServer::start(1);  // the ready entry, then nothing
    ASSERT_TRUE(server.waitEntries(1));
    int port = server.sock().sockUDP();
    int on = 1;
    ASSERT_EQ(setsockopt(port, IPPROTO_IP, IP_RECVERR, &on, sizeof on), 0);

    // More datagrams than the queue holds: the loop fills it and waits for
    // room with one more, and the rest wait in the port.
    UdpPeer peer(server.port());
    constexpr int kSent = 12;
    for (int i = 0; i < kSent; ++i) ASSERT_TRUE(peer.send(message(40, i)));
    ASSERT_TRUE(
        capture.waitFor("Waiting for circular buffers to be freed.\n", std::chrono::seconds(10)))
        << capture.joined();
    // Datagrams from the port to a port nobody holds: their refusals come
    // back to the port's error queue.
    int gone = bindLoopback(SOCK_DGRAM, 0);
    ASSERT_GE(gone, 0);
    sockaddr_in goneAddress = loopbackAddress(boundPort(gone));
    close(gone);
    // A refusal fails the port's next send (the error it left is reported
    // there), so sends are tried until kRefused went.
    constexpr int kRefused = 5;
    int refusedSends = 0;
    for (int attempt = 0; attempt < 100 && refusedSends < kRefused; ++attempt) {
        if (sendto(port, "x", 1, 0, reinterpret_cast<sockaddr *>(&goneAddress),
                   sizeof goneAddress) == 1)
            ++refusedSends;
        else
            ASSERT_EQ(errno, ECONNREFUSED);
    }
    ASSERT_EQ(refusedSends, kRefused);
    auto erring = [port] {
        struct pollfd watched = {port, 0, 0};
        return poll(&watched, 1, 0) == 1 && (watched.revents & POLLERR) != 0;
    };
    ASSERT_TRUE(waitFor(erring, std::chrono::seconds(10)));

    // One entry taken: the loop queues the datagram it held and goes round
    // once more, with datagrams still waiting. The refusals, all in the
    // error queue by now (loopback reports them before the send returns),
    // are read then, in one go.
    server.grant(1);
    EXPECT_TRUE(waitFor([&] { return !erring(); }, std::chrono::seconds(10)));
    // The loop empties the error queue before it keeps what it read: the
    // note says they are kept.
    ASSERT_TRUE(capture.waitFor("report(s) of refused datagrams read", std::chrono::seconds(10)))
        << capture.joined();
    std::vector<struct sockaddr_in> refused;
    server.sock().takeRefusals(refused);
    const std::string note = "Note: UDP - " + std::to_string(refused.size()) +
                             " report(s) of refused datagrams read, " +
                             std::to_string(refused.size()) + " kept\n";
    EXPECT_TRUE(capture.hasText(note)) << capture.joined();
    // The kernel limits its reports host-wide: other suites may have used
    // some of what it grants.
    ASSERT_GE(refused.size(), 1u);
    EXPECT_LE(refused.size(), static_cast<size_t>(kRefused));
    for (const sockaddr_in &offender : refused) {
        EXPECT_EQ(offender.sin_port, goneAddress.sin_port);
        EXPECT_EQ(offender.sin_addr.s_addr, htonl(INADDR_LOOPBACK));
    }

    // Nothing the peer sent was lost to them.
    server.grantAll();
    ASSERT_TRUE(server.waitEntries(1 + kSent));
    std::vector<QueueEntry> entries = server.entries();
    ASSERT_EQ(entries.size(), static_cast<size_t>(1 + kSent));
    for (int i = 0; i < kSent; ++i) EXPECT_TRUE(entries[1 + i].holds(message(40, i))) << i;
}

TEST(DchServerTest, LongDatagramIsDeliveredAsItsFirst4096Bytes) {
    TraceCapture capture(kLevels);
    LoopServer &server = startServer();
    UdpPeer peer(server.port());
    std::vector<char> datagram = message(5000, 3);
    ASSERT_TRUE(peer.send(datagram));
    ASSERT_TRUE(server.waitEntries(2, kLimit));
    const QueueEntry entry = server.entries()[1];
    // Its first 4096 bytes and nothing after them.
    EXPECT_TRUE(entry.holds(std::vector<char>(datagram.begin(), datagram.begin() + 4096)));
    EXPECT_TRUE(capture.hasText("UDP: bytesRead=4096, errno=0\n")) << capture.joined();
}

TEST(DchServerTest, EmptyDatagramIsAnErrorAndTheLoopGoesOn) {
    TraceCapture capture(kLevels);
    LoopServer &server = startServer();
    UdpPeer peer(server.port());
    ASSERT_TRUE(peer.send({}));
    ASSERT_TRUE(peer.send(message(12, 1)));
    ASSERT_TRUE(server.waitEntries(2, kLimit));
    EXPECT_TRUE(server.entries()[1].holds(message(12, 1)));
    EXPECT_TRUE(capture.hasText("Error: UDP - recvfrom failed. bytesRead <0>, sockerr <0>\n"))
        << capture.joined();
    EXPECT_EQ(server.count(), 2u);
}

TEST(DchServerTest, TcpMessageSentInPiecesIsJoinedAndQueuedWithItsConnection) {
    TraceCapture capture(kLevels);
    LoopServer &server = startServer();
    TcpPeer peer(server.port());
    ASSERT_TRUE(peer.connected());
    std::vector<char> whole = message(10000, 5);
    size_t cuts[] = {0, 1000, 4000, 6500, 10000};
    for (size_t i = 0; i + 1 < std::size(cuts); ++i)
        ASSERT_TRUE(peer.send(whole.data() + cuts[i], cuts[i + 1] - cuts[i]));
    ASSERT_TRUE(server.waitEntries(2, kLimit));
    const QueueEntry entry = server.entries()[1];
    EXPECT_TRUE(entry.holds(whole));
    int fd = acceptedFD(capture, 1);
    ASSERT_GT(fd, 0);
    EXPECT_EQ(entry.connectedSockFD, static_cast<uint32_t>(fd));
    EXPECT_EQ(entry.clientName, "127.0.0.1");
    EXPECT_EQ(ntohs(entry.from.sin_port), peer.localPort());

    static const std::regex joined(
        "^recvfrom operation had no more data, totalRead: 10000, ipcBufCount: ([0-9]+)\n$");
    int pieces = 0;
    for (const std::string &text : capture.texts()) {
        std::smatch match;
        if (std::regex_match(text, match, joined)) pieces = std::stoi(match[1]);
    }
    // At most 4096 bytes a piece.
    EXPECT_GE(pieces, 3) << capture.joined();
    EXPECT_TRUE(capture.contains("Allocated <10000> bytes for completeBuffer<@"));
    // Released once queued, which may come after the consumer took it.
    EXPECT_TRUE(capture.waitFor("Deleting completeBuffer @", kLimit));
    EXPECT_TRUE(capture.contains(", totalRead: 10000\n"));

    // The connection goes on carrying messages.
    ASSERT_TRUE(peer.send(message(30, 6)));
    ASSERT_TRUE(server.waitEntries(3, kLimit));
    EXPECT_TRUE(server.entries()[2].holds(message(30, 6)));
    EXPECT_EQ(server.entries()[2].connectedSockFD, static_cast<uint32_t>(fd));
}

TEST(DchServerTest, LengthWordSplitAcrossPiecesIsJoinedWithItsMessage) {
    TraceCapture capture(kLevels);
    LoopServer &server = startServer();
    TcpPeer peer(server.port());
    ASSERT_TRUE(peer.connected());
    std::vector<char> whole = message(40, 7);
    // Two bytes of the word, then one, each read as a piece of its own
    // before the next is sent: the word is whole only with the third piece.
    ASSERT_TRUE(peer.send(whole.data(), 2));
    ASSERT_TRUE(capture.waitFor("bytesRead=2, totalRead=2,", kLimit));
    ASSERT_TRUE(peer.send(whole.data() + 2, 1));
    ASSERT_TRUE(capture.waitFor("bytesRead=1,", kLimit));
    ASSERT_TRUE(peer.send(whole.data() + 3, whole.size() - 3));
    ASSERT_TRUE(server.waitEntries(2, kLimit));
    const QueueEntry entry = server.entries()[1];
    EXPECT_TRUE(entry.holds(whole)) << entry.text() << "\n" << capture.joined();
    EXPECT_EQ(entry.clientName, "127.0.0.1");
    EXPECT_FALSE(capture.contains("Error: TCP received")) << capture.joined();

    // The connection goes on carrying messages.
    ASSERT_TRUE(peer.send(message(30, 8)));
    ASSERT_TRUE(server.waitEntries(3, kLimit));
    EXPECT_TRUE(server.entries()[2].holds(message(30, 8)));
}

TEST(DchServerTest, ClosedPeerGivesDisconnectAndItsSlotIsReused) {
    TraceCapture capture(kLevels);
    LoopServer &server = startServer();
    auto first = std::make_unique<TcpPeer>(server.port());
    ASSERT_TRUE(first->connected());
    ASSERT_TRUE(first->send(message(20, 1)));
    ASSERT_TRUE(server.waitEntries(2, kLimit));
    int slot = -1;
    int fd = acceptedFD(capture, 1, &slot);
    ASSERT_GT(fd, 0);
    EXPECT_EQ(slot, 0);
    EXPECT_EQ(server.entries()[1].connectedSockFD, static_cast<uint32_t>(fd));

    first->close();
    ASSERT_TRUE(server.waitEntries(3, kLimit));
    const QueueEntry disconnect = server.entries()[2];
    EXPECT_EQ(disconnect.text(), "DP-DISCONNECT");
    EXPECT_TRUE(disconnect.holds(
        std::vector<char>{'D', 'P', '-', 'D', 'I', 'S', 'C', 'O', 'N', 'N', 'E', 'C', 'T'}));
    EXPECT_EQ(disconnect.connectedSockFD, static_cast<uint32_t>(fd));
    EXPECT_EQ(disconnect.clientName, kNoName);
    EXPECT_TRUE(capture.hasText("_sockClientFD[0]=" + std::to_string(fd) +
                                " closed TCP connection: continue...\n"))
        << capture.joined();

    TcpPeer second(server.port());
    ASSERT_TRUE(second.connected());
    ASSERT_TRUE(second.send(message(24, 2)));
    ASSERT_TRUE(server.waitEntries(4, kLimit));
    EXPECT_TRUE(server.entries()[3].holds(message(24, 2)));
    int secondSlot = -1;
    EXPECT_GT(acceptedFD(capture, 2, &secondSlot), 0);
    EXPECT_EQ(secondSlot, 0);
}

// A connection that ends keeps its descriptor until the consumer has taken
// its "DP-DISCONNECT" and come back for more: one accepted meanwhile gets a
// number of its own, and what is still sent to the one that ended reaches
// nobody.
TEST(DchServerTest, ConnectionAcceptedBeforeAnEndIsTakenNeverGetsTheEndedDescriptor) {
    TraceCapture capture(kLevels);
    LoopServer &server = startServer(1);  // the ready entry only, for now
    auto first = std::make_unique<TcpPeer>(server.port());
    ASSERT_TRUE(first->connected());
    ASSERT_TRUE(first->send(message(20, 1)));
    ASSERT_TRUE(zevd::test::waitFor([&] { return acceptedFD(capture, 1) > 0; }, kLimit));
    int ended = acceptedFD(capture, 1);
    first->close();
    ASSERT_TRUE(capture.waitFor(
        "_sockClientFD[0]=" + std::to_string(ended) + " closed TCP connection: continue...",
        kLimit));

    TcpPeer second(server.port());
    ASSERT_TRUE(second.connected());
    ASSERT_TRUE(zevd::test::waitFor([&] { return acceptedFD(capture, 2) > 0; }, kLimit));
    EXPECT_NE(acceptedFD(capture, 2), ended);

    server.grant(2);  // the message, then its connection's end
    ASSERT_TRUE(server.waitEntries(3, kLimit));
    EXPECT_EQ(server.entries()[1].connectedSockFD, static_cast<uint32_t>(ended));
    EXPECT_EQ(server.entries()[2].text(), "DP-DISCONNECT");
    const char answer[] = "an answer for the first connection";
    EXPECT_EQ(server.sock().ipcWrite(answer, sizeof answer, static_cast<uint32_t>(ended)), -1);
    char got[64];
    EXPECT_EQ(recv(second.fd(), got, sizeof got, MSG_DONTWAIT), -1);
    EXPECT_EQ(errno, EAGAIN);

    // Back for more: the descriptor goes.
    EXPECT_NE(fcntl(ended, F_GETFD), -1);
    server.grantAll();
    EXPECT_TRUE(zevd::test::waitFor([&] { return fcntl(ended, F_GETFD) == -1; }, kLimit));
}

// Another producer (a daemon's own thread) waits on the full queue before
// the loop queues a connection's end: whichever of the two gets in first,
// the descriptor stays open until the consumer has taken the end itself.
TEST(DchServerTest, EndedDescriptorOutlivesItsDisconnectWhenAnotherProducerQueuesFirst) {
    TraceCapture capture(kLevels);
    LoopServer &server = startServer(1);  // the ready entry only, for now
    TcpPeer peer(server.port());
    ASSERT_TRUE(peer.connected());
    ASSERT_TRUE(zevd::test::waitFor([&] { return acceptedFD(capture, 1) > 0; }, kLimit));
    int ended = acceptedFD(capture, 1);
    UdpPeer udp(server.port());
    for (int i = 0; i < 4; ++i) ASSERT_TRUE(udp.send(message(20, i)));
    ASSERT_TRUE(zevd::test::waitFor([&] { return server.sock().ipcQueueRoom() == 0; }, kLimit));
    const std::string own = "the daemon's own entry";
    std::thread producer([&] {
        server.sock().ipc_put_data(static_cast<int32_t>(own.size()), own.data(), nullptr, 0,
                                   nullptr, 0);
    });
    ASSERT_TRUE(capture.waitFor("Waiting for circular buffers to be freed.", kLimit));
    peer.close();
    ASSERT_TRUE(capture.waitFor("Waiting for circular buffers to be freed.", kLimit, 2));
    bool disconnectSeen = false;
    for (size_t taken = 2; taken <= 7 && !disconnectSeen; ++taken) {
        server.grant(1);
        ASSERT_TRUE(server.waitEntries(taken, kLimit)) << taken;
        const QueueEntry entry = server.entries().back();
        if (entry.text() != "DP-DISCONNECT") continue;
        disconnectSeen = true;
        EXPECT_EQ(entry.connectedSockFD, static_cast<uint32_t>(ended));
        EXPECT_NE(fcntl(ended, F_GETFD), -1) << "closed before its end was served";
    }
    producer.join();
    EXPECT_TRUE(disconnectSeen);
    server.grantAll();
    EXPECT_TRUE(zevd::test::waitFor([&] { return fcntl(ended, F_GETFD) == -1; }, kLimit));
}

// A port that datagrams keep ready does not hold the connections: while
// both wait, the loop gives them turns. Here the consumer takes one entry
// at a time, so datagrams wait at the port on every pass.
TEST(DchServerTest, ConnectionIsServedWhileDatagramsKeepThePortReady) {
    constexpr int kDatagrams = 64;
    LoopServer &server = startServer(1);  // the ready entry only, for now
    UdpPeer udp(server.port());
    for (int i = 0; i < kDatagrams; ++i) ASSERT_TRUE(udp.send(message(20, i)));
    TcpPeer peer(server.port());
    ASSERT_TRUE(peer.connected());
    ASSERT_TRUE(peer.send(message(40, 1000)));
    for (size_t taken = 2; taken <= kDatagrams + 2; ++taken) {
        server.grant(1);
        ASSERT_TRUE(server.waitEntries(taken, kLimit)) << taken;
    }
    std::vector<QueueEntry> entries = server.entries();
    ASSERT_EQ(entries.size(), static_cast<size_t>(kDatagrams + 2));
    size_t message = 0;
    int next = 0;
    for (size_t i = 1; i < entries.size(); ++i) {
        if (entries[i].connectedSockFD != 0) {
            EXPECT_TRUE(entries[i].holds(zevd::test::message(40, 1000)));
            message = i;
        } else {
            EXPECT_TRUE(entries[i].holds(zevd::test::message(20, next))) << i;
            ++next;
        }
    }
    EXPECT_EQ(next, kDatagrams);
    // Accepted on the second pass, read on the fourth: among the first
    // dozen entries, not behind every datagram.
    EXPECT_GT(message, 0u);
    EXPECT_LT(message, 16u);
}

TEST(DchServerTest, ResetPeerGivesDisconnect) {
    TraceCapture capture(kLevels);
    LoopServer &server = startServer();
    TcpPeer peer(server.port());
    ASSERT_TRUE(peer.connected());
    std::vector<char> partial = message(100, 1);
    ASSERT_TRUE(peer.send(partial.data(), 40));
    ASSERT_TRUE(capture.waitFor("TCP: totalLen=100, bytesRead=40, totalRead=40", kLimit));
    int fd = acceptedFD(capture, 1);
    peer.reset();
    ASSERT_TRUE(server.waitEntries(2, kLimit));
    const QueueEntry entry = server.entries()[1];
    EXPECT_EQ(entry.text(), "DP-DISCONNECT");
    EXPECT_EQ(entry.connectedSockFD, static_cast<uint32_t>(fd));
    EXPECT_FALSE(capture.contains("Error: TCP received")) << capture.joined();
}

// A peer that sends a message and resets its connection while the loop is
// held by a full queue: the message is still read, and queued with the
// peer's own address, not that of whoever sent the last datagram.
TEST(DchServerTest, MessageOfAPeerThatResetAfterSendingIsQueuedWithItsOwnAddress) {
    TraceCapture capture(kLevels);
    LoopServer &server = startServer(1);  // the ready entry only, for now
    TcpPeer peer(server.port(), "127.0.0.3");
    ASSERT_TRUE(peer.connected());
    ASSERT_TRUE(zevd::test::waitFor([&] { return acceptedFD(capture, 1) > 0; }, kLimit));
    int fd = acceptedFD(capture, 1);
    UdpPeer udp(server.port(), "127.0.0.2");
    ASSERT_TRUE(udp.bound());
    // Four to fill the queue, and one the loop holds while it waits.
    for (int i = 0; i < 5; ++i) ASSERT_TRUE(udp.send(message(20, i)));
    ASSERT_TRUE(capture.waitFor("Waiting for circular buffers to be freed.", kLimit));
    const std::vector<char> sent = message(30, 99);
    const uint16_t peerPort = peer.localPort();
    ASSERT_TRUE(peer.send(sent));
    peer.reset();
    server.grantAll();
    ASSERT_TRUE(server.waitEntries(1 + 5 + 2, kLimit)) << capture.joined();
    std::vector<QueueEntry> entries = server.entries();
    ASSERT_EQ(entries.size(), 8u);
    EXPECT_TRUE(entries[6].holds(sent));
    EXPECT_EQ(entries[6].clientName, "127.0.0.3");
    EXPECT_EQ(entries[7].text(), "DP-DISCONNECT");
    // Both name the connection and come from its peer.
    for (const QueueEntry &entry : {entries[6], entries[7]}) {
        EXPECT_EQ(entry.connectedSockFD, static_cast<uint32_t>(fd));
        EXPECT_EQ(dotted(entry.from), "127.0.0.3") << entry.text();
        EXPECT_EQ(ntohs(entry.from.sin_port), peerPort) << entry.text();
    }
}

TEST(DchServerTest, MessageShorterThanItsLengthWordGivesResendAndUdpIsServedMeanwhile) {
    TraceCapture capture(kLevels);
    LoopServer &server = startServer();
    TcpPeer peer(server.port());
    ASSERT_TRUE(peer.connected());
    std::vector<char> partial = message(100, 1);
    ASSERT_TRUE(peer.send(partial.data(), 40));
    ASSERT_TRUE(capture.waitFor("TCP: totalLen=100, bytesRead=40, totalRead=40", kLimit));
    // The loop does not wait on the incomplete message: a datagram is
    // queued at once.
    UdpPeer other(server.port());
    ASSERT_TRUE(other.send(message(16, 9)));
    ASSERT_TRUE(server.waitEntries(2, kLimit));
    ASSERT_TRUE(peer.shutdownWrite());

    ASSERT_TRUE(server.waitEntries(4, kLimit));
    std::vector<QueueEntry> entries = server.entries();
    int fd = acceptedFD(capture, 1);
    ASSERT_GT(fd, 0);
    EXPECT_TRUE(entries[1].holds(message(16, 9)));
    EXPECT_EQ(entries[2].text(), "RESEND_MESSAGE");
    EXPECT_TRUE(entries[2].holds(
        std::vector<char>{'R', 'E', 'S', 'E', 'N', 'D', '_', 'M', 'E', 'S', 'S', 'A', 'G', 'E'}));
    EXPECT_EQ(entries[2].connectedSockFD, static_cast<uint32_t>(fd));
    EXPECT_EQ(entries[2].clientName, "127.0.0.1");
    // The end of the stream, read on the next pass.
    EXPECT_EQ(entries[3].text(), "DP-DISCONNECT");
    EXPECT_EQ(entries[3].connectedSockFD, static_cast<uint32_t>(fd));
    EXPECT_TRUE(capture.hasText("Error: TCP received 40 bytes, expected 100 bytes\n"))
        << capture.joined();
    // Ended by the peer, not by the deadline.
    EXPECT_FALSE(capture.contains("no more of the TCP message within")) << capture.joined();
}

TEST(DchServerTest, LengthWordsThatDoNotMatchGiveResend) {
    TraceCapture capture(kLevels);
    LoopServer &server = startServer();
    struct Case {
        std::vector<char> bytes;
        bool endStream;    // the peer shuts its side down after sending
        const char *line;  // the error line it gives
    };
    std::vector<char> zeroWord = message(20, 1);
    memset(zeroWord.data(), 0, 4);
    std::vector<char> moreThanAnnounced = message(20, 2);
    uint32_t eight = htonl(8);
    memcpy(moreThanAnnounced.data(), &eight, 4);
    Case cases[] = {
        {zeroWord, false, "Error: TCP received 20 bytes, expected 0 bytes\n"},
        {moreThanAnnounced, false, "Error: TCP received 20 bytes, expected 8 bytes\n"},
        // A stream that ends within the word gives a word of its bytes
        // followed by zeros.
        {{0x00, 0x01}, true, "Error: TCP received 2 bytes, expected 65536 bytes\n"},
        {{0x00, 0x00, 0x00}, true, "Error: TCP received 3 bytes, expected 0 bytes\n"},
    };
    size_t expected = 1;
    for (const Case &c : cases) {
        TcpPeer peer(server.port());
        ASSERT_TRUE(peer.connected());
        ASSERT_TRUE(peer.send(c.bytes));
        if (c.endStream) {
            ASSERT_TRUE(peer.shutdownWrite());
        }
        // The end of a shut-down stream may already follow it.
        ASSERT_TRUE(server.waitEntries(++expected, kLimit)) << c.line;
        EXPECT_EQ(server.entries()[expected - 1].text(), "RESEND_MESSAGE") << c.line;
        EXPECT_TRUE(capture.hasText(c.line)) << capture.joined();
        peer.close();
        ASSERT_TRUE(server.waitEntries(++expected, kLimit)) << c.line;
        EXPECT_EQ(server.entries()[expected - 1].text(), "DP-DISCONNECT") << c.line;
    }
}

TEST(DchServerTest, SixtyFourthClientWaitsUntilASlotIsFreedWhileTheOthersAreServed) {
    TraceCapture capture(kLevels);
    LoopServer &server = startServer();
    std::vector<std::unique_ptr<TcpPeer>> clients;
    // One at a time: the backlog holds 5. The last of the 64 slots is never
    // handed out (the scan after select would never read it), so 63 are
    // accepted.
    for (size_t i = 0; i < 63; ++i) {
        clients.push_back(std::make_unique<TcpPeer>(server.port()));
        ASSERT_TRUE(clients.back()->connected()) << i;
        ASSERT_TRUE(capture.waitFor("_sockClientFD[" + std::to_string(i) + "]=[", kLimit)) << i;
    }
    TcpPeer waiting(server.port());
    ASSERT_TRUE(waiting.connected());  // in the backlog
    ASSERT_TRUE(capture.waitFor("Error: Maximum of 64 TCP clients has been reached.", kLimit));
    ASSERT_TRUE(waiting.send(message(50, 64)));
    size_t passesBefore = capture.count("Waiting on SELECT: UDP[");

    for (size_t i = 0; i < 63; ++i) ASSERT_TRUE(clients[i]->send(message(30, static_cast<int>(i))));
    ASSERT_TRUE(server.waitEntries(1 + 63, kLimit));

    // A slot freed: its disconnect, then the waiting client accepted into
    // that slot, then its message.
    clients[0]->close();
    ASSERT_TRUE(server.waitEntries(1 + 63 + 2, kLimit));
    std::vector<QueueEntry> entries = server.entries();
    std::vector<bool> seen(63, false);
    for (size_t e = 1; e < 64; ++e) {
        for (size_t i = 0; i < 63; ++i)
            if (entries[e].holds(message(30, static_cast<int>(i)))) seen[i] = true;
    }
    for (size_t i = 0; i < 63; ++i) EXPECT_TRUE(seen[i]) << "client " << i;
    EXPECT_EQ(entries[64].text(), "DP-DISCONNECT");
    EXPECT_TRUE(entries[65].holds(message(50, 64)));
    int slot = -1;
    EXPECT_GT(acceptedFD(capture, 64, &slot), 0);
    EXPECT_EQ(slot, 0);
    EXPECT_FALSE(capture.contains("_sockClientFD[63]=["));
    // Datagrams one at a time, each waited for: a loop that spun on a
    // waiting connection would make many passes meanwhile.
    UdpPeer udp(server.port());
    for (size_t i = 0; i < 20; ++i) {
        ASSERT_TRUE(udp.send(message(12, static_cast<int>(i))));
        ASSERT_TRUE(server.waitEntries(1 + 63 + 2 + i + 1, kLimit));
    }
    // Written once, and no pass without an event: at most one pass per
    // message, disconnect, accept and datagram, and the one under way.
    EXPECT_EQ(capture.count("Error: Maximum of 64 TCP clients has been reached."), 1u);
    size_t passes = capture.count("Waiting on SELECT: UDP[") - passesBefore;
    EXPECT_LE(passes, 63u + 3u + 20u + 2u) << passes;
    EXPECT_TRUE(capture.contains("Note: a TCP client slot is free again"));
}

// Open descriptors of this process.
size_t openDescriptors() {
    size_t count = 0;
    DIR *dir = opendir("/proc/self/fd");
    if (dir == nullptr) return 0;
    while (readdir(dir) != nullptr) ++count;
    closedir(dir);
    return count;
}

TEST(DchServerTest, SixtyFourClientsAtOnceLeaveNoDescriptorBehindWhenTheyClose) {
    TraceCapture capture(kLevels);
    LoopServer &server = startServer();
    size_t before = openDescriptors();
    std::vector<std::unique_ptr<TcpPeer>> clients;
    for (size_t i = 0; i < 64; ++i) {
        clients.push_back(std::make_unique<TcpPeer>(server.port()));
        ASSERT_TRUE(clients.back()->connected()) << i;
        if (i == 63) break;
        ASSERT_TRUE(capture.waitFor("_sockClientFD[" + std::to_string(i) + "]=[", kLimit)) << i;
    }
    ASSERT_TRUE(capture.waitFor("Error: Maximum of 64 TCP clients has been reached.", kLimit));
    for (auto &client : clients) client->close();
    // 63 disconnects, then the last one accepted and its disconnect.
    ASSERT_TRUE(zevd::test::waitFor(
        [&] {
            size_t disconnects = 0;
            for (const QueueEntry &entry : server.entries())
                if (entry.text() == "DP-DISCONNECT") ++disconnects;
            return disconnects == 64;
        },
        kLimit));
    EXPECT_TRUE(zevd::test::waitFor([&] { return openDescriptors() == before; }, kLimit))
        << openDescriptors() << " open, " << before << " before";
}

// A datagram sent now is queued as entry index (from 0): the loop still
// serves.
void expectStillServing(LoopServer &server, size_t index, int seed) {
    UdpPeer udp(server.port());
    ASSERT_TRUE(udp.send(message(20, seed)));
    ASSERT_TRUE(server.waitEntries(index + 1, kLimit));
    EXPECT_TRUE(server.entries()[index].holds(message(20, seed)));
}

// The message was cut off: "RESEND_MESSAGE", then the connection's
// "DP-DISCONNECT", right after the ready entry.
void expectCutOff(LoopServer &server) {
    ASSERT_TRUE(server.waitEntries(3, kLimit));
    std::vector<QueueEntry> entries = server.entries();
    EXPECT_EQ(entries[1].text(), "RESEND_MESSAGE");
    EXPECT_EQ(entries[2].text(), "DP-DISCONNECT");
    EXPECT_EQ(entries[1].connectedSockFD, entries[2].connectedSockFD);
}

TEST(DchServerTest, StalledPeerIsCutOffAtItsDeadlineAndUdpIsServedAtOnce) {
    setenv("ZEVA_DCH_TIMEOUT", "2", 1);
    TraceCapture capture(kLevels);
    LoopServer &server = startServer();
    TcpPeer peer(server.port());
    ASSERT_TRUE(peer.connected());
    std::vector<char> partial = message(100, 1);
    auto first = std::chrono::steady_clock::now();
    ASSERT_TRUE(peer.send(partial.data(), 40));
    ASSERT_TRUE(capture.waitFor("TCP: totalLen=100, bytesRead=40, totalRead=40", kLimit));
    auto sent = std::chrono::steady_clock::now();
    UdpPeer other(server.port());
    ASSERT_TRUE(other.send(message(16, 9)));
    ASSERT_TRUE(server.waitEntries(2, kLimit));
    // Queued at once, not after the stalled message's time-out.
    EXPECT_LT(std::chrono::steady_clock::now() - sent, std::chrono::seconds(1));
    ASSERT_TRUE(server.waitEntries(4, kLimit));
    auto cut = std::chrono::steady_clock::now();
    // Two seconds from its first byte, not from its last.
    EXPECT_GE(cut - first, std::chrono::milliseconds(1900));
    EXPECT_LE(cut - first, std::chrono::seconds(2 + 1));

    std::vector<QueueEntry> entries = server.entries();
    int fd = acceptedFD(capture, 1);
    ASSERT_GT(fd, 0);
    EXPECT_TRUE(entries[1].holds(message(16, 9)));
    EXPECT_EQ(entries[2].text(), "RESEND_MESSAGE");
    EXPECT_EQ(entries[2].connectedSockFD, static_cast<uint32_t>(fd));
    EXPECT_EQ(entries[3].text(), "DP-DISCONNECT");
    EXPECT_EQ(entries[3].connectedSockFD, static_cast<uint32_t>(fd));
    EXPECT_EQ(entries[3].clientName, kNoName);
    EXPECT_TRUE(capture.hasText("Error: no more of the TCP message within 2 seconds\n"));
    EXPECT_TRUE(capture.hasText("Error: TCP received 40 bytes, expected 100 bytes\n"));
    EXPECT_TRUE(capture.hasText("Error: closing _sockClientFD[0]=" + std::to_string(fd) +
                                " after its cut-off message\n"))
        << capture.joined();
    // The DCH closed its end.
    char byte;
    EXPECT_EQ(recv(peer.fd(), &byte, 1, 0), 0);
}

TEST(DchServerTest, TricklingPeerIsCutOffAtTheDeadlineOfItsFirstByteWhileUdpIsServed) {
    setenv("ZEVA_DCH_TIMEOUT", "2", 1);
    TraceCapture capture(kLevels);
    LoopServer &server = startServer();
    TcpPeer peer(server.port());
    ASSERT_TRUE(peer.connected());
    std::vector<char> bytes = message(100, 2);
    ASSERT_TRUE(peer.send(bytes.data(), 4));
    auto first = std::chrono::steady_clock::now();
    UdpPeer other(server.port());
    // A byte every 50 ms keeps the connection busy, never the message
    // whole; a datagram between any two is queued within a second.
    size_t next = 4;
    int datagrams = 0;
    while (!capture.contains("no more of the TCP message within") &&
           std::chrono::steady_clock::now() - first < std::chrono::seconds(10)) {
        if (next < bytes.size() && peer.send(bytes.data() + next, 1)) ++next;
        auto asked = std::chrono::steady_clock::now();
        ASSERT_TRUE(other.send(message(16, datagrams)));
        ++datagrams;
        ASSERT_TRUE(zevd::test::waitFor(
            [&] { return capture.count("UDP: bytesRead=") >= static_cast<size_t>(datagrams); },
            kLimit));
        EXPECT_LT(std::chrono::steady_clock::now() - asked, std::chrono::seconds(1));
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    auto cut = std::chrono::steady_clock::now();
    EXPECT_TRUE(capture.contains("no more of the TCP message within 2 seconds"));
    EXPECT_LE(cut - first, std::chrono::seconds(2 + 1));
    EXPECT_GE(datagrams, 10);
    // Written after the cut-off's own line and its resend entry.
    EXPECT_TRUE(capture.waitFor("Error: closing _sockClientFD[0]=", kLimit));
}

TEST(DchServerTest, LengthWordBeyondWhatTheLoopJoinsIsCutOffAtOnce) {
    TraceCapture capture(kLevels);
    LoopServer &server = startServer();
    TcpPeer peer(server.port());
    ASSERT_TRUE(peer.connected());
    std::vector<char> head = message(4096, 3);
    uint32_t eightMiB = htonl(8u << 20);
    memcpy(head.data(), &eightMiB, sizeof eightMiB);
    ASSERT_TRUE(peer.send(head));
    expectCutOff(server);
    EXPECT_TRUE(
        capture.hasText("Error: TCP message of 8388608 bytes is longer than the 4190208 "
                        "allowed\n"))
        << capture.joined();
    EXPECT_TRUE(capture.hasText("Error: TCP received 4096 bytes, expected 8388608 bytes\n"));
    // Still serving.
    expectStillServing(server, 3, 4);
}

TEST(DchServerTest, MessageSentAByteAtATimeIsCutOffAtThePieceLimitAndTheLoopGoesOn) {
    // A whole message must come within the time-out of its first byte; a
    // thousand pieces, each waited for, take longer than the default in a
    // sanitizer build. The limit under test here is the piece count.
    setenv("ZEVA_DCH_TIMEOUT", "600", 1);
    TraceCapture capture(kLevels);
    LoopServer &server = startServer();
    TcpPeer peer(server.port());
    ASSERT_TRUE(peer.connected());
    std::vector<char> bytes = message(1100, 5);
    // The length word whole, then a byte at a time, each read as a piece of
    // its own before the next is sent.
    ASSERT_TRUE(peer.send(bytes.data(), 4));
    ASSERT_TRUE(capture.waitFor("TCP: totalLen=1100, bytesRead=4", kLimit));
    size_t pieces = 1;
    while (pieces < 4 + bytes.size() && !capture.contains("exceeded allowed limit")) {
        if (!peer.send(bytes.data() + 4 + (pieces - 1), 1)) break;
        ++pieces;
        ASSERT_TRUE(capture.waitFor("TCP: totalLen=", kLimit, pieces));
    }
    expectCutOff(server);
    EXPECT_EQ(pieces, 1024u);
    EXPECT_TRUE(capture.hasText("Error: ipcBufCount 1024 exceeded allowed limit of 1023\n"))
        << capture.joined();
    EXPECT_TRUE(capture.hasText("Error: TCP received 1027 bytes, expected 1100 bytes\n"));
    expectStillServing(server, 3, 6);
}

TEST(DchServerTest, FailedAcceptsLeaveTheirSlotsFree) {
    TraceCapture capture(kLevels);
    LoopServer &server = startServer();
    // No descriptor left for accept: the limit just above the highest open.
    struct rlimit original;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &original), 0);
    // The clients' sockets first: only the server's accept must fail.
    int clients[3];
    for (int &fd : clients) fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int highest = 0;
    DIR *dir = opendir("/proc/self/fd");
    ASSERT_NE(dir, nullptr);
    for (struct dirent *entry; (entry = readdir(dir)) != nullptr;)
        if (entry->d_name[0] != '.') highest = std::max(highest, atoi(entry->d_name));
    closedir(dir);
    struct rlimit tight = original;
    tight.rlim_cur = static_cast<rlim_t>(highest + 1);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &tight), 0);
    // The free numbers below the limit taken too.
    std::vector<int> fillers;
    for (int fd; fillers.size() < 1024 && (fd = dup(STDIN_FILENO)) >= 0;) fillers.push_back(fd);
    struct sockaddr_in to = zevd::test::loopbackAddress(server.port());
    for (int fd : clients)
        ASSERT_EQ(connect(fd, reinterpret_cast<struct sockaddr *>(&to), sizeof to), 0);
    // More failures than the clients waiting: each would have used up a
    // slot for good.
    ASSERT_TRUE(capture.waitFor("Error: accept failed. errno=" + std::to_string(EMFILE), kLimit, 4))
        << capture.joined();
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &original), 0);
    for (int fd : fillers) close(fd);
    for (int i = 0; i < 3; ++i) {
        std::vector<char> bytes = message(24, i);
        ASSERT_EQ(send(clients[i], bytes.data(), bytes.size(), MSG_NOSIGNAL), 24);
    }
    ASSERT_TRUE(server.waitEntries(1 + 3, kLimit));
    int slot = -1;
    EXPECT_GT(acceptedFD(capture, 1, &slot), 0);
    EXPECT_EQ(slot, 0);
    EXPECT_GT(acceptedFD(capture, 3, &slot), 0);
    EXPECT_EQ(slot, 2);
    // The listener rests between failures instead of spinning.
    EXPECT_LE(capture.count("Error: accept failed."), 4u + 60u);
    for (int fd : clients) close(fd);
}

// True once the server has closed peer's connection: its end of the stream
// (or a reset) is read within limit.
bool closedByServer(const TcpPeer &peer, std::chrono::milliseconds limit) {
    struct pollfd wait = {peer.fd(), POLLIN, 0};
    if (poll(&wait, 1, static_cast<int>(limit.count())) != 1) return false;
    char byte;
    return recv(peer.fd(), &byte, 1, MSG_DONTWAIT) <= 0;
}

// A connection the owner's filter refuses is closed at once and never holds
// a slot: more of them than there are slots leave room for the one admitted.
// Takes a case's peer filter away when the case ends, the loop's call of
// it included (the filter is called under the lock that setting it takes):
// a filter that holds the case's locals is never called after them.
struct FilterReset {
    ipcSock &sock;
    ~FilterReset() { sock.sockSetPeerFilter(nullptr); }
};

TEST(DchServerTest, ConnectionsThePeerFilterRefusesAreClosedAtOnceAndHoldNoSlot) {
    TraceCapture capture(kLevels);
    LoopServer &server = startServer();
    std::mutex offeredLock;
    std::vector<struct sockaddr_in> offered;
    server.sock().sockSetPeerFilter([&](const struct sockaddr_in &peer) {
        std::lock_guard<std::mutex> guard(offeredLock);
        offered.push_back(peer);
        return dotted(peer) != "127.0.0.2";
    });
    FilterReset filterReset{server.sock()};
    std::vector<uint16_t> refusedPorts;
    for (int i = 0; i < 70; ++i) {
        TcpPeer refused(server.port(), "127.0.0.2");
        ASSERT_TRUE(refused.connected()) << i;
        refusedPorts.push_back(refused.localPort());
        ASSERT_TRUE(closedByServer(refused, kLimit)) << i;
    }
    TcpPeer admitted(server.port());
    ASSERT_TRUE(admitted.connected());
    ASSERT_TRUE(admitted.send(message(24, 1)));
    ASSERT_TRUE(server.waitEntries(2, kLimit)) << capture.joined();
    EXPECT_TRUE(server.entries()[1].holds(message(24, 1)));
    int slot = -1;
    EXPECT_GT(acceptedFD(capture, 1, &slot), 0);
    EXPECT_EQ(slot, 0);
    EXPECT_EQ(acceptedFD(capture, 2), -1);  // none of the refused got a slot
    EXPECT_EQ(capture.count("closed at once: peer not admitted"), 70u);
    EXPECT_FALSE(capture.contains("Error: Maximum of 64 TCP clients has been reached."));
    EXPECT_FALSE(capture.contains("closed TCP connection"));
    EXPECT_EQ(server.entries().size(), 2u);
    std::lock_guard<std::mutex> guard(offeredLock);
    ASSERT_EQ(offered.size(), 71u);
    for (size_t i = 0; i < 70; ++i) {
        EXPECT_EQ(dotted(offered[i]), "127.0.0.2") << i;
        EXPECT_EQ(ntohs(offered[i].sin_port), refusedPorts[i]) << i;
    }
    EXPECT_EQ(dotted(offered[70]), "127.0.0.1");
    EXPECT_EQ(ntohs(offered[70].sin_port), admitted.localPort());
}

// Connections refused by the filter that keep coming never keep a connected
// client from being read: the listener and the clients take turns. Here
// each refusal makes the next connection, so the listener is ready on every
// pass until the chain ends (at 100,000, or when the test stops it).
TEST(DchServerTest, ClientIsServedWhileRefusedConnectionsKeepTheListenerReady) {
    TraceCapture capture("error");
    LoopServer &server = startServer();
    constexpr uint64_t kChain = 100000;
    std::atomic<uint64_t> refused{0};
    std::atomic<bool> stop{false};
    std::vector<std::unique_ptr<TcpPeer>> chain;  // the filter's own, on the loop's thread
    uint16_t port = server.port();
    server.sock().sockSetPeerFilter([&, port](const struct sockaddr_in &peer) {
        if (dotted(peer) != "127.0.0.2") return true;
        if (refused.fetch_add(1) + 1 < kChain && !stop.load()) {
            if (chain.size() >= 8) chain.erase(chain.begin());
            chain.push_back(std::make_unique<TcpPeer>(port, "127.0.0.2"));
        }
        return false;
    });
    FilterReset filterReset{server.sock()};
    TcpPeer client(server.port());
    ASSERT_TRUE(client.connected());
    ASSERT_TRUE(client.send(message(16, 0)));
    ASSERT_TRUE(server.waitEntries(2, kLimit));

    TcpPeer first(server.port(), "127.0.0.2");
    ASSERT_TRUE(waitFor([&] { return refused.load() >= 100; }, kLimit));
    for (int i = 1; i <= 5; ++i) {
        ASSERT_TRUE(client.send(message(16, i)));
        ASSERT_TRUE(server.waitEntries(2 + static_cast<size_t>(i), kLimit));
        // Served while the chain still ran, not once it had ended.
        EXPECT_LT(refused.load(), kChain / 2) << i;
        EXPECT_TRUE(server.entries()[1 + static_cast<size_t>(i)].holds(message(16, i)));
    }
    uint64_t served = refused.load();
    EXPECT_TRUE(waitFor([&] { return refused.load() > served + 100; }, kLimit));
    stop.store(true);
    // The last of the chain refused, the loop goes on serving the client.
    ASSERT_TRUE(client.send(message(16, 6)));
    ASSERT_TRUE(server.waitEntries(2 + 6, kLimit));
}

// Sends a first message on peer's connection and takes its entry: the
// server's descriptor of the connection, 0 when it did not come.
uint32_t connectedClient(LoopServer &server, TcpPeer &peer) {
    if (!peer.connected() || !peer.send(message(16, 7)) || !server.waitEntries(2, kLimit)) return 0;
    return server.entries()[1].connectedSockFD;
}

TEST(DchServerTest, ClientThatNeverReadsItsAnswersCostsTheWorkerOneTimeOutPerAnswer) {
    setenv("ZEVA_DCH_TIMEOUT", "1", 1);
    TraceCapture capture("error");
    LoopServer &server = startServer();
    TcpPeer peer(server.port());
    uint32_t fd = connectedClient(server, peer);
    ASSERT_NE(fd, 0u);
    // The peer reads nothing: the answers fill both socket buffers, and
    // then a send would block.
    std::vector<char> answer = message(65536, 8);
    // Answers until one takes the would-block path: each comes back, and a
    // failing one within the time-out and a second.
    int answers = 0;
    int failures = 0;
    for (; answers < 10000 && !capture.contains("select - count=0"); ++answers) {
        auto start = std::chrono::steady_clock::now();
        int32_t result =
            server.sock().ipcWrite(answer.data(), static_cast<int32_t>(answer.size()), fd);
        if (result == -1) {
            ++failures;
            EXPECT_LE(std::chrono::steady_clock::now() - start, std::chrono::seconds(1 + 1));
        }
    }
    EXPECT_TRUE(capture.contains("select - count=0")) << answers << capture.joined();
    EXPECT_TRUE(capture.contains("Error: [@")) << capture.joined();
    EXPECT_GE(failures, 1);
    // UDP is still served.
    expectStillServing(server, 2, 9);
}

TEST(DchServerTest, SendNowGivesAClientThatNeverReadsWholeMessagesOnlyAndNeverWaits) {
    TraceCapture capture("error");
    LoopServer &server = startServer();
    TcpPeer peer(server.port());
    uint32_t fd = connectedClient(server, peer);
    ASSERT_NE(fd, 0u);
    // The accepted connection's send buffer holds a megabyte (the kernel
    // reports twice what was set).
    int buffer = 0;
    socklen_t length = sizeof buffer;
    ASSERT_EQ(getsockopt(static_cast<int>(fd), SOL_SOCKET, SO_SNDBUF, &buffer, &length), 0);
    EXPECT_EQ(buffer, 2 << 20);
    std::vector<char> answer = message(60000, 8);
    int sent = 0;
    struct sockaddr_in none = {};
    for (; sent < 1000; ++sent) {
        auto start = std::chrono::steady_clock::now();
        int32_t result =
            server.sock().ipcSendNow(answer.data(), static_cast<int32_t>(answer.size()), none, fd);
        // Never the time-out's 3 seconds (a loaded machine may stall a send
        // for a moment).
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
        if (result == -1) break;
        ASSERT_EQ(result, static_cast<int32_t>(answer.size()));
    }
    EXPECT_LT(sent, 1000);
    EXPECT_GT(sent, 0);
    EXPECT_TRUE(capture.contains("SEND - Sent 0 bytes out of 60000: errno=11")) << capture.joined();
    // What the peer finds is whole messages, nothing after them.
    ASSERT_TRUE(peer.shutdownWrite());
    std::vector<char> stream;
    for (;;) {
        char chunk[65536];
        ssize_t n = recv(peer.fd(), chunk, sizeof chunk, MSG_DONTWAIT);
        if (n <= 0) break;
        stream.insert(stream.end(), chunk, chunk + n);
    }
    EXPECT_EQ(stream.size(), static_cast<size_t>(sent) * answer.size());
}

TEST(DchServerTest, SendNowSendsALongMessageFromThePortInDatagramsBackToBack) {
    LoopServer &server = startServer();
    UdpPeer peer(server.port());
    ASSERT_TRUE(peer.bound());
    std::vector<char> answer = message(20000, 9);
    auto start = std::chrono::steady_clock::now();
    struct sockaddr_in to = zevd::test::loopbackAddress(peer.localPort());
    ASSERT_EQ(server.sock().ipcSendNow(answer.data(), static_cast<int32_t>(answer.size()), to, 0),
              20000);
    // No pause between the datagrams: that is the client's ipcWrite.
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(500));
    std::vector<char> got;
    std::vector<size_t> sizes;
    while (got.size() < answer.size()) {
        char datagram[65536];
        struct sockaddr_in from = {};
        socklen_t fromLength = sizeof from;
        ssize_t n = recvfrom(peer.fd(), datagram, sizeof datagram, 0,
                             reinterpret_cast<struct sockaddr *>(&from), &fromLength);
        ASSERT_GT(n, 0);
        EXPECT_EQ(ntohs(from.sin_port), server.port());
        sizes.push_back(static_cast<size_t>(n));
        got.insert(got.end(), datagram, datagram + n);
    }
    EXPECT_EQ(sizes, (std::vector<size_t>{8192, 8192, 3616}));
    EXPECT_EQ(got, answer);
}

// The server with its ready entry alone taken, and datagrams
// message(20, 0), message(20, 1), ... from one peer: four wait in the queue
// and the fifth holds the loop inside it.
struct FullQueue {
    LoopServer &server = startServer(1);
    UdpPeer peer{server.port()};
    // Sends sent datagrams and waits for the loop to hold the fifth.
    bool fill(const TraceCapture &capture, int sent) {
        for (int i = 0; i < sent; ++i)
            if (!peer.send(message(20, i))) return false;
        return capture.waitFor("Waiting for circular buffers to be freed.", kLimit);
    }
};

TEST(DchServerTest, FullQueueHoldsTheLoopUntilTheConsumerTakesOne) {
    TraceCapture capture(kLevels);
    FullQueue full;
    LoopServer &server = full.server;
    ASSERT_TRUE(full.fill(capture, 6));
    EXPECT_EQ(capture.count("UDP: bytesRead="), 5u) << capture.joined();
    EXPECT_EQ(server.count(), 1u);
    server.grantAll();
    ASSERT_TRUE(server.waitEntries(7, kLimit));
    std::vector<QueueEntry> entries = server.entries();
    for (int i = 0; i < 6; ++i) EXPECT_TRUE(entries[1 + i].holds(message(20, i))) << i;
    EXPECT_EQ(capture.count("UDP: bytesRead="), 6u);
}

// The rest of a message that came in time, while a full queue held the loop
// past the message's deadline, is read before the message would be cut
// off: the delay was the DCH's, not the peer's.
TEST(DchServerTest, RestThatCameWhileAFullQueueHeldTheLoopPastTheDeadlineIsRead) {
    setenv("ZEVA_DCH_TIMEOUT", "1", 1);
    TraceCapture capture(kLevels);
    FullQueue full;
    LoopServer &server = full.server;
    TcpPeer peer(server.port());
    ASSERT_TRUE(peer.connected());
    std::vector<char> whole = message(100, 1);
    ASSERT_TRUE(peer.send(whole.data(), 40));
    ASSERT_TRUE(capture.waitFor("TCP: totalLen=100, bytesRead=40, totalRead=40", kLimit));
    ASSERT_TRUE(full.fill(capture, 5));
    ASSERT_TRUE(peer.send(whole.data() + 40, 60));
    // Held past the message's deadline (1 second from its first byte).
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    server.grantAll();
    ASSERT_TRUE(server.waitEntries(1 + 5 + 1, kLimit)) << capture.joined();
    std::vector<QueueEntry> entries = server.entries();
    for (int i = 0; i < 5; ++i) EXPECT_TRUE(entries[1 + i].holds(message(20, i))) << i;
    EXPECT_TRUE(entries[6].holds(whole));
    EXPECT_EQ(entries[6].connectedSockFD, static_cast<uint32_t>(acceptedFD(capture, 1)));
    EXPECT_FALSE(capture.contains("no more of the TCP message")) << capture.joined();
    EXPECT_FALSE(capture.contains("RESEND_MESSAGE"));
    // The connection goes on.
    ASSERT_TRUE(peer.send(message(24, 2)));
    ASSERT_TRUE(server.waitEntries(1 + 5 + 2, kLimit));
    EXPECT_TRUE(server.entries()[7].holds(message(24, 2)));
}

// The threads of this process whose CPUs are exactly {cpu}.
size_t threadsKeptTo(int cpu) {
    size_t kept = 0;
    DIR *dir = opendir("/proc/self/task");
    if (dir == nullptr) return 0;
    while (struct dirent *entry = readdir(dir)) {
        if (entry->d_name[0] == '.') continue;
        cpu_set_t set;
        CPU_ZERO(&set);
        if (sched_getaffinity(atoi(entry->d_name), sizeof set, &set) == 0 && CPU_COUNT(&set) == 1 &&
            CPU_ISSET(cpu, &set))
            ++kept;
    }
    closedir(dir);
    return kept;
}

// While the port overflows the receive thread keeps to its consumer's CPU,
// so that each hand-off wakes a thread of the same CPU; once the port keeps
// up it may run anywhere again.
TEST(DchServerTest, ReceiveThreadKeepsToItsConsumersCpuWhileThePortOverflows) {
    cpu_set_t mine;
    ASSERT_EQ(sched_getaffinity(0, sizeof mine, &mine), 0);
    if (CPU_COUNT(&mine) < 2) GTEST_SKIP() << "one CPU: nothing to keep to";
    TraceCapture capture(kLevels);
    FullQueue full;
    LoopServer &server = full.server;
    ASSERT_TRUE(full.fill(capture, 5));
    // Far more than the port's buffer holds while the loop waits for room.
    for (int i = 0; i < 2000; ++i) full.peer.send(message(4000, i));
    // A few entries only: the loop finds the queue full again and waits
    // for room, and no pass after it can let the thread go before it is
    // looked at.
    server.grant(16);
    static const std::regex kept(
        "^Note: the port overflows: the receive thread keeps to CPU "
        "([0-9]+) with its consumer\n$");
    int cpu = -1;
    ASSERT_TRUE(waitFor(
        [&] {
            for (const std::string &text : capture.texts()) {
                std::smatch match;
                if (std::regex_match(text, match, kept)) cpu = std::stoi(match[1]);
            }
            return cpu >= 0;
        },
        kLimit))
        << capture.joined();
    EXPECT_TRUE(CPU_ISSET(cpu, &mine));
    EXPECT_EQ(threadsKeptTo(cpu), 1u);
    server.grantAll();
    // Datagrams one at a time: the port keeps up, and after a while the
    // thread is let go.
    size_t expected = server.count();
    ASSERT_TRUE(waitFor(
        [&] {
            if (!full.peer.send(message(20, 1)) || !server.waitEntries(++expected, kLimit))
                return true;  // failed below
            return capture.contains(
                "Note: the port keeps up: the receive thread runs on any "
                "of its CPUs again");
        },
        kLimit));
    EXPECT_TRUE(capture.contains("Note: the port keeps up")) << capture.joined();
    EXPECT_EQ(threadsKeptTo(cpu), 0u);
}

// Entry i of a batch holds exactly the message.
bool batchHolds(const zevd::test::EntryBatch &batch, int32_t i, const std::vector<char> &sent) {
    const ipcEntry &entry = batch.entries[i];
    if (entry.buffer == nullptr || entry.bufferLen < static_cast<int32_t>(sent.size()))
        return false;
    QueueEntry copy;
    copy.buffer.assign(entry.buffer, entry.buffer + entry.bufferLen);
    return copy.holds(sent);
}

TEST(DchServerTest, SlotsFreedAfterAFullQueueAreFilledBeforeTheNextWait) {
    TraceCapture capture(kLevels);
    FullQueue full;
    LoopServer &server = full.server;
    ASSERT_TRUE(full.fill(capture, 8));
    EXPECT_EQ(capture.count("UDP: bytesRead="), 5u) << capture.joined();
    // The four freed in one hold of the lock (the test's consumer is held
    // by its budget meanwhile).
    zevd::test::EntryBatch batch;
    ASSERT_EQ(server.sock().ipc_get_batch(batch.entries, zevd::test::EntryBatch::kCount), 4);
    for (int32_t i = 0; i < 4; ++i) EXPECT_TRUE(batchHolds(batch, i, message(20, i))) << i;
    // The held datagram goes in, and the three the port has ready fill the
    // rest of the freed slots at once: no wait of the loop comes between.
    ASSERT_TRUE(capture.waitFor("UDP: bytesRead=", kLimit, 8)) << capture.joined();
    std::vector<std::string> texts = capture.texts();
    auto freed = std::find_if(texts.begin(), texts.end(), [](const std::string &text) {
        return text.find("Waiting for circular buffers to be freed.") != std::string::npos;
    });
    ASSERT_NE(freed, texts.end());
    size_t reads = 0;
    for (auto at = freed; at != texts.end() && reads < 3; ++at) {
        EXPECT_EQ(at->find("Waiting on SELECT"), std::string::npos) << capture.joined();
        if (at->find("UDP: bytesRead=") != std::string::npos) ++reads;
    }
    EXPECT_EQ(reads, 3u) << capture.joined();
    // Stored (the ready entry, eight datagrams) before the four are taken
    // in one go: the last store holds the lock until the batch is in.
    ASSERT_TRUE(capture.waitFor("Saving @", kLimit, 9)) << capture.joined();
    ASSERT_EQ(server.sock().ipc_get_batch(batch.entries, zevd::test::EntryBatch::kCount), 4);
    for (int32_t i = 0; i < 4; ++i) EXPECT_TRUE(batchHolds(batch, i, message(20, 4 + i))) << i;
}

TEST(DchServerTest, AFullQueuesHeldDatagramIsSignalledWhenThePortHasNoMore) {
    TraceCapture capture(kLevels);
    FullQueue full;
    LoopServer &server = full.server;
    ASSERT_TRUE(full.fill(capture, 5));
    size_t passes = capture.count("Waiting on SELECT");
    zevd::test::EntryBatch batch;
    ASSERT_EQ(server.sock().ipc_get_batch(batch.entries, zevd::test::EntryBatch::kCount), 4);
    // The refill finds the port empty, and the held datagram still reaches
    // the consumer.
    server.grantAll();
    ASSERT_TRUE(server.waitEntries(2, kLimit)) << capture.joined();
    EXPECT_TRUE(server.entries()[1].holds(message(20, 4)));
    // Once the loop waits again, the refill is over: an empty one is no
    // receive, and nothing is traced for it.
    ASSERT_TRUE(capture.waitFor("Waiting on SELECT", kLimit, passes + 1)) << capture.joined();
    EXPECT_EQ(capture.count("UDP: bytesRead="), 5u) << capture.joined();
}

// Lines of the trace, and the thread that writes the server loop's lines.
class LoopThreadSink {
public:
    LoopThreadSink() {
        TLG1_SetSink(&LoopThreadSink::sink, this);
        TLG1_Configure("error,ipcSock::IPCServer=all");
    }
    ~LoopThreadSink() {
        TLG1_Configure("error");
        TLG1_SetSink(nullptr, nullptr);
    }
    LoopThreadSink(const LoopThreadSink &) = delete;
    LoopThreadSink &operator=(const LoopThreadSink &) = delete;

    bool waitLoopThread(pthread_t *thread) {
        std::unique_lock<std::mutex> guard(lock_);
        if (!written_.wait_for(guard, kLimit, [&] { return known_; })) return false;
        *thread = loop_;
        return true;
    }
    bool waitFor(const std::string &part, std::chrono::milliseconds limit) {
        std::unique_lock<std::mutex> guard(lock_);
        return written_.wait_for(guard, limit, [&] {
            return std::any_of(lines_.begin(), lines_.end(), [&](const std::string &line) {
                return line.find(part) != std::string::npos;
            });
        });
    }

private:
    static void sink(void *ctx, const char *line, size_t len) {
        auto *self = static_cast<LoopThreadSink *>(ctx);
        std::string text(line, len);
        {
            std::lock_guard<std::mutex> guard(self->lock_);
            if (!self->known_ && text.find(" ipcSock::IPCServer:") != std::string::npos) {
                self->loop_ = pthread_self();
                self->known_ = true;
            }
            self->lines_.push_back(std::move(text));
        }
        self->written_.notify_all();
    }

    std::mutex lock_;
    std::condition_variable written_;
    std::vector<std::string> lines_;
    pthread_t loop_{};
    bool known_ = false;
};

std::atomic<int> signalsHandled{0};

void countSignal(int) {
    signalsHandled.fetch_add(1);
}

// A TCP socket that could not listen is bound but not listening: it would
// poll ready at once on every pass and every accept fail. It is never
// watched again, and UDP is served as before.
TEST(DchServerTest, ListenerThatCouldNotListenIsLeftOutAndUdpIsServed) {
    TraceCapture capture(kLevels);
    listenFails.store(true);
    LoopServer &server = startServer();
    listenFails.store(false);
    EXPECT_TRUE(
        capture.contains("Error: listen for _sockTCP failed. errno=" + std::to_string(EADDRINUSE)))
        << capture.joined();
    UdpPeer udp(server.port());
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(udp.send(message(12, i)));
        ASSERT_TRUE(server.waitEntries(2 + static_cast<size_t>(i), kLimit));
        EXPECT_TRUE(server.entries()[1 + static_cast<size_t>(i)].holds(message(12, i)));
    }
    EXPECT_FALSE(capture.contains("Error: accept failed.")) << capture.count("accept failed");
    // A pass per datagram and the one under way, no turning.
    EXPECT_LE(capture.count("Waiting on SELECT: UDP["), 3u + 2u);
}

TEST(DchServerTest, SignalDuringSelectIsSurvived) {
    struct sigaction action;
    memset(&action, 0, sizeof action);
    action.sa_handler = countSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = 0;  // no SA_RESTART
    ASSERT_EQ(sigaction(SIGUSR1, &action, nullptr), 0);

    LoopThreadSink trace;
    LoopServer &server = startServer();
    pthread_t loop;
    ASSERT_TRUE(trace.waitLoopThread(&loop));
    ASSERT_TRUE(trace.waitFor("Waiting on SELECT: UDP[", kLimit));
    // The signal may land just before select is entered; send again until
    // one interrupts it.
    bool interrupted = false;
    for (int attempt = 0; attempt < 200 && !interrupted; ++attempt) {
        ASSERT_EQ(pthread_kill(loop, SIGUSR1), 0);
        interrupted = trace.waitFor("Note: interrupted system call detected during socket select",
                                    std::chrono::milliseconds(50));
    }
    EXPECT_TRUE(interrupted);
    EXPECT_GE(signalsHandled.load(), 1);
    UdpPeer peer(server.port());
    ASSERT_TRUE(peer.send(message(14, 4)));
    ASSERT_TRUE(server.waitEntries(2, kLimit));
    EXPECT_TRUE(server.entries()[1].holds(message(14, 4)));
}

TEST(DchServerTest, FailedSelectEndsTheLoop) {
    TraceCapture capture(kLevels);
    LoopServer &server = startServer();
    // Made before the server's UDP socket goes, so that it cannot take the
    // freed descriptor number.
    int client = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_GE(client, 0);
    close(server.sock().sockUDP());
    // A connection wakes the loop; its next select meets the closed socket.
    struct sockaddr_in to = zevd::test::loopbackAddress(server.port());
    ASSERT_EQ(connect(client, reinterpret_cast<struct sockaddr *>(&to), sizeof to), 0);
    ASSERT_TRUE(capture.waitFor("Error: IPCServer initialization failure", kLimit))
        << capture.joined();
    EXPECT_TRUE(capture.hasText("Error: select failed. <9>\n"));
    EXPECT_TRUE(capture.hasText("Error: IPC errors[2], cannot continue.\n"));
    EXPECT_TRUE(zevd::test::waitFor([&] { return server.sock().ipcGetError() == 1; }, kLimit));
    EXPECT_TRUE(server.sock().sockLoopEnded());
    EXPECT_EQ(server.sock().sockEndErrno(), EBADF);
    // Kept: the error word is the queue's too, and the next entry put
    // writes over it; that the loop has ended is asked of the loop.
    const char entry[] = "an entry of the daemon's own";
    server.sock().ipc_put_data(sizeof entry, entry, nullptr, 0, nullptr, 0);
    EXPECT_EQ(server.sock().ipcGetError(), 0);
    EXPECT_TRUE(server.sock().sockLoopEnded());
    close(client);
}

}  // namespace
