// The server loop of the socket transport over loopback: what it queues for
// UDP datagrams, TCP messages and connections, and how it keeps serving.
// Each case runs in its own process (the receive thread is never joined).
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
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

#include "support/dch_server.h"
#include "support/loopback.h"
#include "support/trace_capture.h"
#include "support/wait_for.h"
#include "zev0.h"

namespace {

using zevd::test::LoopServer;
using zevd::test::QueueEntry;
using zevd::test::TcpPeer;
using zevd::test::TraceCapture;
using zevd::test::UdpPeer;

constexpr char kLevels[] = "error,ipcSock::IPCServer=all,DCHipc::ipc_put_data=error+detail";
constexpr auto kLimit = std::chrono::seconds(30);
const std::string kNoName = std::string(255, ' ');

// A message of length bytes with its length word and a pattern of non-zero
// bytes after it; seed tells messages apart.
std::vector<char> message(uint32_t length, int seed = 0) {
    std::vector<char> bytes(length);
    for (uint32_t i = 0; i < length; ++i)
        bytes[i] = static_cast<char>(1 + (i * 7 + static_cast<uint32_t>(seed) * 13) % 255);
    uint32_t word = htonl(length);
    memcpy(bytes.data(), &word, std::min<size_t>(sizeof word, length));
    return bytes;
}

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

TEST(DchServerTest, MessageShorterThanItsLengthWordGivesResendAndHoldsTheLoopMeanwhile) {
    TraceCapture capture(kLevels);
    LoopServer &server = startServer();
    TcpPeer peer(server.port());
    ASSERT_TRUE(peer.connected());
    std::vector<char> partial = message(100, 1);
    ASSERT_TRUE(peer.send(partial.data(), 40));
    // The loop now waits on this connection alone.
    ASSERT_TRUE(capture.waitFor("TCP: totalLen=100, bytesRead=40, totalRead=40", kLimit));
    UdpPeer other(server.port());
    ASSERT_TRUE(other.send(message(16, 9)));
    ASSERT_TRUE(peer.shutdownWrite());

    ASSERT_TRUE(server.waitEntries(4, kLimit));
    std::vector<QueueEntry> entries = server.entries();
    int fd = acceptedFD(capture, 1);
    ASSERT_GT(fd, 0);
    // The datagram waited behind the incomplete message, though UDP comes
    // first in every pass.
    EXPECT_EQ(entries[1].text(), "RESEND_MESSAGE");
    EXPECT_TRUE(entries[1].holds(
        std::vector<char>{'R', 'E', 'S', 'E', 'N', 'D', '_', 'M', 'E', 'S', 'S', 'A', 'G', 'E'}));
    EXPECT_EQ(entries[1].connectedSockFD, static_cast<uint32_t>(fd));
    EXPECT_EQ(entries[1].clientName, "127.0.0.1");
    EXPECT_TRUE(entries[2].holds(message(16, 9)));
    // The end of the stream, read on the next pass.
    EXPECT_EQ(entries[3].text(), "DP-DISCONNECT");
    EXPECT_EQ(entries[3].connectedSockFD, static_cast<uint32_t>(fd));
    EXPECT_TRUE(capture.hasText("Error: TCP received 40 bytes, expected 100 bytes\n"))
        << capture.joined();
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
        // A first piece shorter than the word gives a word of its bytes
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

TEST(DchServerTest, SixtyFifthClientWaitsUntilASlotIsFreedWhileTheOthersAreServed) {
    TraceCapture capture(kLevels);
    LoopServer &server = startServer();
    std::vector<std::unique_ptr<TcpPeer>> clients;
    // One at a time: the backlog holds 5.
    for (size_t i = 0; i < 64; ++i) {
        clients.push_back(std::make_unique<TcpPeer>(server.port()));
        ASSERT_TRUE(clients.back()->connected()) << i;
        ASSERT_TRUE(capture.waitFor("_sockClientFD[" + std::to_string(i) + "]=[", kLimit)) << i;
    }
    TcpPeer waiting(server.port());
    ASSERT_TRUE(waiting.connected());  // in the backlog
    ASSERT_TRUE(capture.waitFor("Error: Maximum of 64 TCP clients has been reached.", kLimit));
    ASSERT_TRUE(waiting.send(message(50, 65)));
    size_t passesBefore = capture.count("Waiting on SELECT: UDP[");

    // Every client sends. The scan over the slots stops before the last
    // one (a limit kept as designed), so slot 63 is never read: 63 served.
    for (size_t i = 0; i < 64; ++i) ASSERT_TRUE(clients[i]->send(message(30, static_cast<int>(i))));
    ASSERT_TRUE(server.waitEntries(1 + 63, kLimit));

    // A slot freed: its disconnect, then the waiting client accepted into
    // that slot, then its message.
    clients[0]->close();
    ASSERT_TRUE(server.waitEntries(1 + 63 + 2, kLimit));
    std::vector<QueueEntry> entries = server.entries();
    std::vector<bool> seen(64, false);
    for (size_t e = 1; e < 64; ++e) {
        for (size_t i = 0; i < 64; ++i)
            if (entries[e].holds(message(30, static_cast<int>(i)))) seen[i] = true;
    }
    for (size_t i = 0; i < 63; ++i) EXPECT_TRUE(seen[i]) << "client " << i;
    EXPECT_FALSE(seen[63]);
    EXPECT_EQ(entries[64].text(), "DP-DISCONNECT");
    EXPECT_TRUE(entries[65].holds(message(50, 65)));
    int slot = -1;
    EXPECT_GT(acceptedFD(capture, 65, &slot), 0);
    EXPECT_EQ(slot, 0);
    // Datagrams one at a time, each waited for: a loop that spun on the
    // unread last slot would make many passes meanwhile.
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

TEST(DchServerTest, FullQueueHoldsTheLoopUntilTheConsumerTakesOne) {
    TraceCapture capture(kLevels);
    LoopServer &server = startServer(1);  // the ready entry alone
    UdpPeer peer(server.port());
    for (int i = 0; i < 6; ++i) ASSERT_TRUE(peer.send(message(20, i)));
    // Four wait; the fifth holds the loop inside the queue.
    ASSERT_TRUE(capture.waitFor("Waiting for circular buffers to be freed.", kLimit));
    EXPECT_EQ(capture.count("UDP: bytesRead="), 5u) << capture.joined();
    EXPECT_EQ(server.count(), 1u);
    server.grantAll();
    ASSERT_TRUE(server.waitEntries(7, kLimit));
    std::vector<QueueEntry> entries = server.entries();
    for (int i = 0; i < 6; ++i) EXPECT_TRUE(entries[1 + i].holds(message(20, i))) << i;
    EXPECT_EQ(capture.count("UDP: bytesRead="), 6u);
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
    close(client);
}

TEST(DchServerTest, MessageOfAThousandPiecesEndsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            LoopServer &server = startServer();
            TcpPeer peer(server.port());
            // A length word no stream meets, then 1025 x 4096 bytes: at most
            // 4096 a piece, so the piece count reaches the limit.
            std::vector<char> bytes(1025 * 4096, 'p');
            memset(bytes.data(), 0xFF, 4);
            peer.send(bytes);
            for (int i = 0; i < 300; ++i)
                std::this_thread::sleep_for(std::chrono::milliseconds(100));
        },
        ::testing::ExitedWithCode(1),
        "Error: ipcBufCount 1024 exceeded allowed limit of 1023\\.  Exiting\\.\\.\\.\n\n");
}

}  // namespace
