// Reading and writing whole messages over the socket transport: UDP in
// datagrams of at most 8192 bytes, TCP in one send, and received length
// words that do not match what came.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "support/sock_pair.h"
#include "support/trace_capture.h"
#include "support/wait_for.h"

namespace {

using namespace std::chrono_literals;
using zevd::test::fillUntilBlocked;
using zevd::test::ipcSockProbe;
using zevd::test::loopbackAddress;
using zevd::test::lyingDatagram;
using zevd::test::makeMessage;
using zevd::test::normalized;
using zevd::test::pointerText;
using zevd::test::RawSender;
using zevd::test::SockPair;
using zevd::test::TraceCapture;
using zevd::test::waitFor;

const bool environmentSet = zevd::test::setPairEnvironment();

// A value *buffer keeps when a read hands nothing over.
char *const kUntouched = reinterpret_cast<char *>(0x5a5a);

std::string addressHex(const struct sockaddr_in &address) {
    std::string hex;
    const auto *bytes = reinterpret_cast<const unsigned char *>(&address);
    char pair[3];
    for (size_t i = 0; i < sizeof address; ++i) {
        snprintf(pair, sizeof pair, "%02x", bytes[i]);
        hex += pair;
    }
    return hex;
}

// Sends message from a to b over UDP, reads it on b, and checks every byte.
void udpRoundTrip(SockPair &pair, size_t length, int32_t expectedResult) {
    std::vector<char> message =
        makeMessage(static_cast<uint32_t>(length), static_cast<int>(length));
    ASSERT_EQ(pair.a->ipcWrite(message.data(), static_cast<int32_t>(length), 0),
              static_cast<int32_t>(length));
    char *received = nullptr;
    ASSERT_EQ(pair.b->ipcRead(&received, 5), expectedResult) << "length " << length;
    ASSERT_NE(received, nullptr);
    EXPECT_EQ(memcmp(received, message.data(), length), 0) << "length " << length;
    delete[] received;
}

TEST(SockRwTest, UdpMessagesOfOneDatagram) {
    ASSERT_TRUE(environmentSet);
    SockPair pair;
    for (size_t length : {4, 100, 4096, 8191, 8192})
        udpRoundTrip(pair, length, static_cast<int32_t>(length));
    // And the other way.
    std::vector<char> message = makeMessage(300, 9);
    ASSERT_EQ(pair.b->ipcWrite(message.data(), 300, 0), 300);
    char *received = nullptr;
    ASSERT_EQ(pair.a->ipcRead(&received, 5), 300);
    EXPECT_EQ(memcmp(received, message.data(), 300), 0);
    delete[] received;
}

TEST(SockRwTest, UdpMessageOf8193BytesTakesTwoDatagrams) {
    SockPair pair;
    TraceCapture capture("zevdsock=all");
    // The result is the byte count of the last datagram.
    udpRoundTrip(pair, 8193, 1);
    EXPECT_EQ(capture.count("Sent<8192> Remaining<1>"), 1u) << capture.joined();
    EXPECT_EQ(capture.count("ipcBufCount=2 totalLen=8193, bytesRead=1, totalRead=8193"), 1u);
}

TEST(SockRwTest, UdpMessageOf20000BytesTakesThreeDatagrams) {
    SockPair pair;
    TraceCapture capture("zevdsock=all");
    udpRoundTrip(pair, 20000, 20000 - 2 * 8192);
    EXPECT_TRUE(
        capture.hasText("[@" + pointerText(pair.a.get()) + "] Sent<8192> Remaining<11808>\n"))
        << capture.joined();
    EXPECT_TRUE(
        capture.hasText("[@" + pointerText(pair.a.get()) + "] Sent<16384> Remaining<3616>\n"));
    EXPECT_TRUE(
        capture.hasText("recvfrom operation had no more data, totalRead: 20000, ipcBufCount: 3\n"));
}

TEST(SockRwTest, ExactTextsOfATwoDatagramExchange) {
    SockPair pair;
    std::vector<char> message = makeMessage(8193);
    TraceCapture capture("zevdsock=all");
    ASSERT_EQ(pair.a->ipcWrite(message.data(), 8193, 0), 8193);
    char *received = nullptr;
    ASSERT_EQ(pair.b->ipcRead(&received, 5), 1);
    ASSERT_NE(received, nullptr);
    EXPECT_EQ(memcmp(received, message.data(), 8193), 0);

    std::string a = pointerText(pair.a.get());
    std::string b = pointerText(pair.b.get());
    struct sockaddr_in toB = loopbackAddress(pair.b->sockPortUDP());
    std::vector<std::string> writeTexts = capture.textsOf("ipcSock::ipcWrite");
    std::vector<std::string> expectedWrite = {
        "Entry\n",
        "[@" + a + "] Using Family=AF_INET, Type=UDP, totalLen=8193\n",
        "_sockAddress set to : clientAddr <16<" + addressHex(toB) + ">>\n",
        "[@" + a + "] Sent<8192> Remaining<1>\n",
        "Sent 8193 bytes out of 8193\n",
        "Exit: 0x2001\n",
    };
    EXPECT_EQ(writeTexts, expectedWrite) << capture.joined();
    // The dump of the whole message: 16 bytes a line.
    EXPECT_EQ(capture.textsOf("ZEV0_PrintDump").size(), (8193u + 15) / 16);

    int udp = pair.b->sockUDP();
    std::string select10 = "Waiting on SELECT: UDP[" + std::to_string(udp) + "] Port[" +
                           std::to_string(pair.b->sockPortUDP()) + "] MaxFD[" +
                           std::to_string(udp + 1) + "] WaitTime[";
    std::vector<std::string> readTexts;
    for (const auto &text : capture.textsOf("ipcSock::ipcRead"))
        readTexts.push_back(normalized(text));
    std::vector<std::string> expectedRead = {
        "Entry\n",
        "[@P] Passed parms: buffer @P, initial wait=5\n",
        select10 + "5]\n",
        "[@P] Select returned - count=1 errno=N\n",
        "Allocated ipcBuffer @P length 8192 in ipcSock @P, storing in ipcBufArray at index: 0\n",
        "ipcBufCount=1 totalLen=8193, bytesRead=8192, totalRead=8192, errno=N\n",
        select10 + "10]\n",
        "[@P] Select returned - count=1 errno=N\n",
        "Allocated ipcBuffer @P length 8192 in ipcSock @P, storing in ipcBufArray at index: 1\n",
        "ipcBufCount=2 totalLen=8193, bytesRead=1, totalRead=8193, errno=N\n",
        "recvfrom operation had no more data, totalRead: 8193, ipcBufCount: 2\n",
        "Allocated 8193 bytes for completeBuffer @P\n",
        "[0] completeBuffer[@P], offset[0], buffer[P], dataLen[8192]\n",
        "[1] completeBuffer[@P], offset[8192], buffer[P], dataLen[1]\n",
        "Deleting ipcBufArray[0]: @P\n",
        "Deleting ipcBufArray[1]: @P\n",
        "*readBuffer set to @P\n",
        "Exit: 0x1\n",
    };
    EXPECT_EQ(readTexts, expectedRead) << capture.joined();
    // The addresses themselves.
    EXPECT_TRUE(capture.hasText("[@" + b + "] Passed parms: buffer @(nil), initial wait=5\n"));
    EXPECT_TRUE(capture.hasText("*readBuffer set to @" + pointerText(received) + "\n"));
    delete[] received;
}

TEST(SockRwTest, OneDatagramIsHandedOverWithoutACopy) {
    SockPair pair;
    std::vector<char> message = makeMessage(100);
    TraceCapture capture("zevdsock=all");
    ASSERT_EQ(pair.a->ipcWrite(message.data(), 100, 0), 100);
    char *received = nullptr;
    ASSERT_EQ(pair.b->ipcRead(&received, 5), 100);
    // The receive block itself, 8192 bytes, zero after the message.
    EXPECT_TRUE(capture.contains("Allocated ipcBuffer @" + pointerText(received) + " length 8192"))
        << capture.joined();
    EXPECT_FALSE(capture.contains("completeBuffer")) << capture.joined();
    EXPECT_EQ(received[100], 0);
    EXPECT_EQ(received[8191], 0);
    delete[] received;
}

// Reads once on b and expects failure with *buffer untouched.
void expectReadFails(SockPair &pair, const std::string &errorPart, TraceCapture &capture) {
    char *received = kUntouched;
    EXPECT_EQ(pair.b->ipcRead(&received, 5), -1);
    EXPECT_EQ(received, kUntouched);
    EXPECT_TRUE(capture.contains(errorPart)) << capture.joined();
}

TEST(SockRwTest, DatagramsTooShortForALengthWordFail) {
    SockPair pair;
    RawSender raw(pair.b->sockPortUDP());
    TraceCapture capture("zevdsock=all");
    ASSERT_TRUE(raw.send(std::vector<char>(1, 0x05)));
    expectReadFails(pair, "] totalLen=0, bytesRead=1 errno=", capture);
    ASSERT_TRUE(raw.send(std::vector<char>(3, static_cast<char>(0xFF))));
    expectReadFails(pair, "] totalLen=0, bytesRead=3 errno=", capture);
    EXPECT_EQ(capture.count("Error: [@" + pointerText(pair.b.get()) + "] totalLen=0"), 2u);
    // The transport goes on with the next message.
    udpRoundTrip(pair, 4, 4);
}

TEST(SockRwTest, LengthWordZeroFails) {
    SockPair pair;
    RawSender raw(pair.b->sockPortUDP());
    TraceCapture capture("zevdsock=all");
    ASSERT_TRUE(raw.send(lyingDatagram(0, 100)));
    expectReadFails(pair, "] totalLen=0, bytesRead=100 errno=", capture);
}

TEST(SockRwTest, LengthWordSmallerThanWhatCameFails) {
    SockPair pair;
    RawSender raw(pair.b->sockPortUDP());
    TraceCapture capture("zevdsock=all");
    ASSERT_TRUE(raw.send(lyingDatagram(10, 100)));
    expectReadFails(
        pair,
        "Error: [@" + pointerText(pair.b.get()) + "] totalLen=10, bytesRead=100 errno=", capture);
    ASSERT_TRUE(raw.send(lyingDatagram(2, 4)));
    expectReadFails(pair, "] totalLen=2, bytesRead=4 errno=", capture);
    // Joined datagrams that pass the length word fail the same way.
    ASSERT_TRUE(raw.send(lyingDatagram(10000, 8192)));
    ASSERT_TRUE(raw.send(lyingDatagram(0, 8192)));
    expectReadFails(pair, "] totalLen=10000, bytesRead=8192 errno=", capture);
}

TEST(SockRwTest, LengthWordLargerThanWhatFollowsEndsAfter32Datagrams) {
    SockPair pair;
    RawSender raw(pair.b->sockPortUDP());
    TraceCapture capture("zevdsock=all");
    // 32 small datagrams fit the receive buffer: sent before the read, so
    // that no ten-second wait runs out.
    ASSERT_TRUE(raw.send(lyingDatagram(200000, 100)));
    for (int i = 1; i < 32; ++i) ASSERT_TRUE(raw.send(std::vector<char>(100, 'y')));
    std::string b = pointerText(pair.b.get());
    expectReadFails(pair, "Error: [@" + b + "] Max 32 number of 16K buffers already read.\n",
                    capture);
    EXPECT_TRUE(capture.contains("Error: [@" + b + "] totalLen=200000, bytesRead=-1 errno="));
    EXPECT_EQ(capture.count("ipcBufCount="), 32u);
    EXPECT_TRUE(capture.contains("WaitTime[10]"));
}

TEST(SockRwTest, LengthWordBeyond32DatagramsFailsAtOnce) {
    SockPair pair;
    RawSender raw(pair.b->sockPortUDP());
    TraceCapture capture("zevdsock=all");
    for (uint32_t word : {32u * 8192u + 1u, 0xFFFFFFFFu, 0x80000000u}) {
        capture.clear();
        ASSERT_TRUE(raw.send(lyingDatagram(word, 64)));
        expectReadFails(pair, "] Max 32 number of 16K buffers already read.\n", capture);
        EXPECT_EQ(capture.count("ipcBufCount="), 1u) << capture.joined();
    }
}

TEST(SockRwTest, MessageOfExactly32DatagramsIsJoined) {
    SockPair pair;
    RawSender raw(pair.b->sockPortUDP());
    TraceCapture capture("zevdsock=all");
    const uint32_t length = 32u * 8192u;
    std::vector<char> message = makeMessage(length);
    std::atomic<int32_t> result{0};
    char *received = nullptr;
    std::thread reader([&] { result = pair.b->ipcRead(&received, 5); });
    // Paced by the reader, so that the receive buffer never overflows.
    bool paced = true;
    for (uint32_t i = 0; i < 32 && paced; ++i) {
        std::vector<char> datagram(message.begin() + i * 8192, message.begin() + (i + 1) * 8192);
        paced = raw.send(datagram) &&
                waitFor([&] { return capture.count("ipcBufCount=") >= i + 1; }, 5000ms);
    }
    reader.join();
    ASSERT_TRUE(paced) << capture.joined();
    ASSERT_EQ(result.load(), 8192);
    ASSERT_NE(received, nullptr);
    EXPECT_EQ(memcmp(received, message.data(), length), 0);
    delete[] received;
}

TEST(SockRwTest, ReadWithoutASocketFailsAtOnce) {
    TraceCapture capture("zevdsock=all");
    ipcSockProbe sock;  // no sockets: every member is -999
    char *received = kUntouched;
    EXPECT_EQ(sock.ipcRead(&received, 0), -1);
    EXPECT_EQ(received, kUntouched);
    EXPECT_TRUE(capture.contains("] select - wait=0 count=-1 errno=9\n")) << capture.joined();
}

// A listening socket on 127.0.0.1 and one accepted connection to it.
struct TcpLink {
    int listener = -1;
    int client = -1;    // the connecting end
    int accepted = -1;  // the listener's end
    // Connects fromFd (or a new socket when -1) to a new listener.
    explicit TcpLink(int fromFd = -1, int receiveBuffer = 0) {
        listener = socket(AF_INET, SOCK_STREAM, 0);
        if (receiveBuffer > 0)
            setsockopt(listener, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof receiveBuffer);
        struct sockaddr_in address = loopbackAddress(0);
        bind(listener, reinterpret_cast<struct sockaddr *>(&address), sizeof address);
        socklen_t len = sizeof address;
        getsockname(listener, reinterpret_cast<struct sockaddr *>(&address), &len);
        listen(listener, 1);
        client = fromFd >= 0 ? fromFd : socket(AF_INET, SOCK_STREAM, 0);
        ownsClient = fromFd < 0;
        connect(client, reinterpret_cast<struct sockaddr *>(&address), sizeof address);
        accepted = accept(listener, nullptr, nullptr);
    }
    ~TcpLink() {
        if (accepted >= 0) close(accepted);
        if (ownsClient && client >= 0) close(client);
        if (listener >= 0) close(listener);
    }
    bool ownsClient = true;
};

// Reads from fd until count bytes came, the peer closed, or 10 s passed.
std::vector<char> receiveAll(int fd, size_t count) {
    std::vector<char> out;
    auto deadline = std::chrono::steady_clock::now() + 10s;
    char chunk[65536];
    while (out.size() < count && std::chrono::steady_clock::now() < deadline) {
        struct pollfd p = {fd, POLLIN, 0};
        if (poll(&p, 1, 100) <= 0) continue;
        ssize_t n = recv(fd, chunk, sizeof chunk, 0);
        if (n <= 0) break;
        out.insert(out.end(), chunk, chunk + n);
    }
    return out;
}

TEST(SockRwTest, TcpMessagesGoInOneSend) {
    SockPair pair;
    TcpLink link;
    ASSERT_GE(link.accepted, 0);
    for (size_t length : {4, 100, 8193, 20000, 300000}) {
        std::vector<char> message = makeMessage(static_cast<uint32_t>(length), 1);
        std::vector<char> got;
        std::thread reader([&] { got = receiveAll(link.client, length); });
        TraceCapture capture("zevdsock=all");
        EXPECT_EQ(pair.a->ipcWrite(message.data(), static_cast<int32_t>(length),
                                   static_cast<uint32_t>(link.accepted)),
                  static_cast<int32_t>(length));
        reader.join();
        ASSERT_EQ(got.size(), length);
        EXPECT_EQ(memcmp(got.data(), message.data(), length), 0);
        std::vector<std::string> expected = {
            "Entry\n",
            "[@" + pointerText(pair.a.get()) +
                "] Using Family=AF_INET, Type=TCP, connectedSockFD set to " +
                std::to_string(link.accepted) + "\n",
            "Sent " + std::to_string(length) + " bytes out of " + std::to_string(length) + "\n",
        };
        std::vector<std::string> texts = capture.textsOf("ipcSock::ipcWrite");
        ASSERT_EQ(texts.size(), 4u) << capture.joined();
        texts.pop_back();  // the exit event
        EXPECT_EQ(texts, expected);
        // No pause: one send, however long the message.
        EXPECT_FALSE(capture.contains("Remaining<"));
    }
}

TEST(SockRwTest, DumpOnlyAtTheDumpLevel) {
    SockPair pair;
    std::vector<char> message = makeMessage(40);
    {
        TraceCapture capture("zevdsock=detail");
        ASSERT_EQ(pair.a->ipcWrite(message.data(), 40, 0), 40);
        EXPECT_TRUE(capture.hasText("Sent 40 bytes out of 40\n")) << capture.joined();
        EXPECT_TRUE(capture.textsOf("ZEV0_PrintDump").empty()) << capture.joined();
    }
    {
        TraceCapture capture("zevdsock=dump");
        ASSERT_EQ(pair.a->ipcWrite(message.data(), 40, 0), 40);
        std::vector<std::string> dump = capture.textsOf("ZEV0_PrintDump");
        ASSERT_EQ(dump.size(), 3u) << capture.joined();
        EXPECT_EQ(dump[0].substr(0, 22), "00000000  00 00 00 28 ");
    }
    char *received = nullptr;
    for (int i = 0; i < 2; ++i) {
        ASSERT_EQ(pair.b->ipcRead(&received, 5), 40);
        delete[] received;
    }
}

TEST(SockRwTest, FailedWritesReport) {
    SockPair pair;
    TraceCapture capture("zevdsock=all");
    std::vector<char> message = makeMessage(100);
    // A peer address of zeroes has no port: sendto refuses it.
    pair.a->setClientAddr(nullptr, 0);
    EXPECT_EQ(pair.a->ipcWrite(message.data(), 100, 0), -1);
    std::string a = pointerText(pair.a.get());
    EXPECT_TRUE(capture.hasText("Error: [@" + a +
                                "] SENDTO - Sent 0 bytes out of 100: errno=22: _sockUDP=" +
                                std::to_string(pair.a->sockUDP()) + "\n"))
        << capture.joined();
    // A TCP send on a socket that is not connected.
    int unconnected = socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_GE(unconnected, 0);
    EXPECT_EQ(pair.a->ipcWrite(message.data(), 100, static_cast<uint32_t>(unconnected)), -1);
    EXPECT_TRUE(capture.hasText("Error: [@" + a + "] SEND - Sent -1 bytes out of 100: errno=32\n"))
        << capture.joined();
    close(unconnected);
    EXPECT_FALSE(capture.contains("Sent 100 bytes out of 100"));
}

TEST(SockRwTest, TcpSendThatWouldBlockWaitsAndSendsTheWholeMessageAgain) {
    // The transport's own TCP socket, connected to a peer that does not read
    // yet: both the socket waited on and the one sent on.
    ipcSockProbe sock(1, 1, 0);
    int own = sock.sockTCP();
    ASSERT_GE(own, 0);
    int small = 4096;
    setsockopt(own, SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
    TcpLink link(own, small);
    ASSERT_GE(link.accepted, 0);
    ASSERT_EQ(fcntl(own, F_SETFL, fcntl(own, F_GETFL) | O_NONBLOCK), 0);
    size_t filled = fillUntilBlocked(own);
    ASSERT_GT(filled, 0u);

    TraceCapture capture("zevdsock=all");
    const size_t length = 100;
    std::vector<char> message = makeMessage(length, 5);
    std::vector<char> got;
    std::thread drainer([&] {
        // Drains only once the write waits, then reads to the end.
        if (!waitFor([&] { return capture.contains("SEND would block"); }, 5000ms)) return;
        got = receiveAll(link.accepted, SIZE_MAX);
    });
    int32_t result =
        sock.ipcWrite(message.data(), static_cast<int32_t>(length), static_cast<uint32_t>(own));
    shutdown(own, SHUT_WR);
    drainer.join();
    EXPECT_EQ(result, static_cast<int32_t>(length));
    EXPECT_TRUE(capture.hasText("SEND would block - waiting on Select for 3 seconds.\n"))
        << capture.joined();
    EXPECT_TRUE(capture.hasText("Select returned. Count=1, errno=11\n")) << capture.joined();
    EXPECT_TRUE(capture.hasText("Sent 100 bytes out of 100\n")) << capture.joined();
    // After the filler: any part the first send took, then the whole
    // message from its first byte.
    ASSERT_GE(got.size(), filled + length);
    size_t partial = got.size() - filled - length;
    RecordProperty("first_send_bytes", static_cast<int>(partial));
    EXPECT_LT(partial, length);
    EXPECT_EQ(memcmp(got.data() + filled, message.data(), partial), 0);
    EXPECT_EQ(memcmp(got.data() + filled + partial, message.data(), length), 0);
    std::vector<char> filler(filled, 'f');
    EXPECT_EQ(memcmp(got.data(), filler.data(), filled), 0);
}

}  // namespace
