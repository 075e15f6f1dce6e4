// Random bytes fed to the server loop: datagrams of every size up to past
// the receive buffer, and TCP streams with random length words, cut at
// random. Nothing may crash it or make it read or write outside its buffers
// (the sanitizer build watches that), and it goes on queueing well-formed
// messages afterwards.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "support/dch_server.h"
#include "support/wait_for.h"

namespace {

using zevd::test::LoopServer;
using zevd::test::QueueEntry;
using zevd::test::TcpPeer;
using zevd::test::UdpPeer;

constexpr auto kLimit = std::chrono::seconds(30);
constexpr int kDatagrams = 10000;
constexpr size_t kLongestDatagram = 9000;
constexpr int kStreams = 200;
// Datagrams in flight at once: few enough that the socket's receive buffer
// never drops one, so every one can be checked.
constexpr int kWindow = 8;

std::vector<char> randomBytes(std::mt19937 &random, size_t length) {
    std::vector<char> bytes(length);
    std::uniform_int_distribution<int> byte(0, 255);
    for (char &b : bytes) b = static_cast<char>(byte(random));
    return bytes;
}

std::vector<char> wellFormed(uint32_t length) {
    std::vector<char> bytes(length, 'w');
    uint32_t word = htonl(length);
    memcpy(bytes.data(), &word, sizeof word);
    return bytes;
}

TEST(DchFuzzTest, RandomDatagramsAndStreamsLeaveTheLoopServing) {
    LoopServer &server = LoopServer::start();
    ASSERT_TRUE(server.waitEntries(1, kLimit));
    std::mt19937 random(20061116);  // fixed: every run feeds the same bytes

    // Datagrams: each one not empty is queued as its first 4096 bytes.
    UdpPeer udp(server.port());
    std::uniform_int_distribution<size_t> datagramLength(0, kLongestDatagram);
    server.drain();  // the ready entry
    size_t expected = 1;
    for (int sent = 0; sent < kDatagrams;) {
        std::vector<std::vector<char>> window;
        for (int i = 0; i < kWindow && sent < kDatagrams; ++i, ++sent) {
            std::vector<char> datagram = randomBytes(random, datagramLength(random));
            ASSERT_TRUE(udp.send(datagram)) << sent;
            if (!datagram.empty()) {
                datagram.resize(std::min<size_t>(datagram.size(), 4096));
                window.push_back(std::move(datagram));
            }
        }
        expected += window.size();
        ASSERT_TRUE(server.waitEntries(expected, kLimit)) << "after " << sent << " datagrams";
        std::vector<QueueEntry> entries = server.drain();
        ASSERT_EQ(entries.size(), window.size());
        for (size_t i = 0; i < window.size(); ++i) {
            ASSERT_TRUE(entries[i].holds(window[i])) << "datagram of the window before " << sent;
            ASSERT_EQ(entries[i].connectedSockFD, 0u);
            ASSERT_EQ(entries[i].clientName, "127.0.0.1");
        }
    }
    EXPECT_EQ(server.count(), expected);

    // Streams: random bytes whose first word is random, or nearly right,
    // sent in up to 32 writes and ended in order or by a reset. Each one
    // ends with the disconnect of its connection, whichever side closes it.
    std::uniform_int_distribution<size_t> streamLength(0, 20000);
    std::uniform_int_distribution<int> pick(0, 3);
    size_t disconnects = 0;
    size_t seen = 0;
    for (int s = 0; s < kStreams; ++s) {
        std::vector<char> stream = randomBytes(random, streamLength(random));
        int kind = pick(random);
        if (stream.size() >= 4 && kind != 0) {
            // A word equal to, just above or just below the stream's length.
            uint32_t word = htonl(static_cast<uint32_t>(stream.size()) + (kind == 1   ? 0
                                                                          : kind == 2 ? 1
                                                                                      : -1));
            memcpy(stream.data(), &word, sizeof word);
        }
        TcpPeer peer(server.port());
        ASSERT_TRUE(peer.connected()) << s;
        std::uniform_int_distribution<int> writes(1, 32);
        int pieces = writes(random);
        size_t at = 0;
        for (int w = 0; w < pieces && at < stream.size(); ++w) {
            size_t left = stream.size() - at;
            size_t length =
                w + 1 == pieces ? left : std::uniform_int_distribution<size_t>(1, left)(random);
            // The loop closes a connection whose message it cut off (a
            // length word beyond what it joins): the rest cannot be sent.
            if (!peer.send(stream.data() + at, length)) break;
            at += length;
        }
        if (pick(random) == 0) {
            peer.reset();
        } else {
            peer.close();
        }
        ++disconnects;
        ASSERT_TRUE(zevd::test::waitFor(
            [&] {
                for (const QueueEntry &entry : server.drain())
                    if (entry.text() == "DP-DISCONNECT") ++seen;
                return seen >= disconnects;
            },
            kLimit))
            << "stream " << s;
        EXPECT_EQ(seen, disconnects) << "stream " << s;
    }

    // Still serving: a well-formed message over each protocol.
    size_t before = server.count();
    std::vector<char> overUdp = wellFormed(64);
    ASSERT_TRUE(udp.send(overUdp));
    ASSERT_TRUE(server.waitEntries(before + 1, kLimit));
    EXPECT_TRUE(server.drain().at(0).holds(overUdp));
    TcpPeer last(server.port());
    ASSERT_TRUE(last.connected());
    std::vector<char> overTcp = wellFormed(6000);
    ASSERT_TRUE(last.send(overTcp));
    ASSERT_TRUE(server.waitEntries(before + 2, kLimit));
    std::vector<QueueEntry> entries = server.drain();
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_TRUE(entries[0].holds(overTcp));
    EXPECT_NE(entries[0].connectedSockFD, 0u);
}

}  // namespace
