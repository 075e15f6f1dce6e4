// zevdchd under bad input and hostile peers: garbage datagrams and streams,
// TCP peers that stall. The daemon must serve on, keep its memory and its
// descriptors, and a provider's whole life must still work afterwards.
//
// CI runs a bounded form; ZEVD_RELIABILITY_FULL=1 runs the full counts
// (10,000 datagrams, 1,000 streams, 50 stalled peers).
#include <arpa/inet.h>
#include <dirent.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "support/dch_daemon.h"
#include "support/dch_server.h"
#include "support/loopback.h"
#include "support/reliability.h"
#include "support/wait_for.h"
#include "zevd610.h"

namespace zevd::test {
namespace {

using namespace std::chrono_literals;

// A DCH time-out of 1 second: a stalled peer holds the loop that long.
[[maybe_unused]] const auto *const kEnvironment =
    ::testing::AddGlobalTestEnvironment(new DaemonEnvironment({"ZEVA_DCH_TIMEOUT=1"}));

bool full() {
    return reliabilityFull();
}

// A provider's whole life through the library.
void providerLife(const char *appl) {
    long status = -1, handle = 0;
    std::string text = std::string("APPL ") + appl + ";GROUP g;ATTR v A 4";
    dp_register(&status, text.c_str());
    ASSERT_EQ(status, 0);
    dp_online(&status, &handle, appl, "g", "s");
    ASSERT_EQ(status, 0);
    char *row = nullptr;
    long size = 0;
    int32_t value = 1;
    dp_formatData(&status, &row, &size, "v", &value, 4, 'A');
    dp_data(&status, handle, 0, &row);
    EXPECT_EQ(status, 0);
    dp_offline(&status, handle);
    EXPECT_EQ(status, 0);
    dp_unregister(&status, appl);
    EXPECT_EQ(status, 0);
}

std::vector<char> garbage(std::mt19937 &random, size_t size) {
    std::vector<char> bytes(size);
    for (char &c : bytes) c = static_cast<char>(random());
    if (size >= 4) {
        // Length words that lie: 0, larger, smaller, all ones, or the truth.
        uint32_t words[] = {0, static_cast<uint32_t>(size) + 100, static_cast<uint32_t>(size) / 2,
                            0xFFFFFFFFu, static_cast<uint32_t>(size)};
        uint32_t word = htonl(words[random() % 5]);
        memcpy(bytes.data(), &word, 4);
    }
    if (size >= 12 && random() % 2 == 0) {  // a request code that reads
        const char head[] = {0, 16, 0, 0, 0, 2, 0x10, static_cast<char>(0x10 + random() % 0x30)};
        memcpy(bytes.data() + 4, head, sizeof head);
    }
    return bytes;
}

// One TCP stream of garbage, sent whole, a byte at a time or cut in half,
// then closed.
void garbageStream(std::mt19937 &random, uint16_t port) {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in to = loopbackAddress(port);
    if (connect(fd, reinterpret_cast<sockaddr *>(&to), sizeof to) == 0) {
        std::vector<char> bytes = garbage(random, 1 + random() % 2000);
        switch (random() % 3) {
            case 0: send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL); break;
            case 1:
                for (size_t i = 0; i < bytes.size() && i < 64; ++i)
                    send(fd, &bytes[i], 1, MSG_NOSIGNAL);
                break;
            default: send(fd, bytes.data(), bytes.size() / 2, MSG_NOSIGNAL); break;
        }
    }
    close(fd);
}

void sendGarbage(std::mt19937 &random, int datagrams, int streams) {
    UdpPeer stranger(DaemonEnvironment::daemon().port());
    for (int i = 0; i < datagrams; ++i) {
        stranger.send(garbage(random, random() % 9001));
        if (i % 100 == 0) std::this_thread::yield();
    }
    for (int i = 0; i < streams; ++i) garbageStream(random, DaemonEnvironment::daemon().port());
}

TEST(DchReliabilityTest, GarbageLeavesTheDaemonServingWithItsMemoryAndDescriptors) {
    DaemonProcess &dch = DaemonEnvironment::daemon();
    std::mt19937 random(11);
    int datagrams = full() ? 10000 : 2000;
    int streams = full() ? 1000 : 100;
    // A first round, so that buffers that are kept and reused exist already.
    sendGarbage(random, 500, 20);
    providerLife("warm");
    long rssBefore = residentKiB(dch.pid());
    int fdsBefore = openDescriptors(dch.pid());
    sendGarbage(random, datagrams, streams);
    providerLife("after");
    // The server loop serves what waits at the UDP port before it notices
    // the streams' ends: their descriptors are closed within a few passes,
    // not necessarily before the provider's last answer.
    int fdsAfter = openDescriptors(dch.pid());
    zevd::test::waitFor(
        [&] {
            fdsAfter = openDescriptors(dch.pid());
            return fdsAfter <= fdsBefore;
        },
        std::chrono::seconds(10));
    long rssAfter = residentKiB(dch.pid());
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    // A sanitizer's daemon keeps freed memory in quarantine: only a plain
    // build's resident size says anything.
    EXPECT_LT(rssAfter - rssBefore, 1024) << rssBefore << " KiB before, " << rssAfter << " after";
#endif
    EXPECT_EQ(fdsAfter, fdsBefore);
    RecordProperty("rss_growth_kib", static_cast<int>(rssAfter - rssBefore));
}

TEST(DchReliabilityTest, StalledTcpPeersDelayNoProviderCallBeyondTheTimeOutAndAreClosed) {
    int peers = full() ? 50 : 8;
    std::vector<int> stalled;
    for (int i = 0; i < peers; ++i) {
        int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in to = loopbackAddress(DaemonEnvironment::daemon().port());
        ASSERT_EQ(connect(fd, reinterpret_cast<sockaddr *>(&to), sizeof to), 0);
        const char part[] = {0, 0, 0, 100, 0, 16, 0, 0, 0, 2};  // 10 of 100 bytes
        ASSERT_EQ(send(fd, part, sizeof part, MSG_NOSIGNAL), static_cast<ssize_t>(sizeof part));
        stalled.push_back(fd);
    }
    // While the loop cuts them off one by one, every call is answered within
    // the time-out (1 s) and a second.
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(peers + 5);
    int closed = 0;
    std::vector<bool> seen(stalled.size(), false);
    while (closed < peers && std::chrono::steady_clock::now() < deadline) {
        long status = -1, handle = 0;
        auto start = std::chrono::steady_clock::now();
        dp_online(&status, &handle, "nosuch", "g", "s");
        EXPECT_EQ(status, ZEVD_DCH_UNKNOWN_APPL);
        EXPECT_LT(std::chrono::steady_clock::now() - start, 2s);
        for (size_t i = 0; i < stalled.size(); ++i) {
            if (seen[i]) continue;
            char byte;
            ssize_t n = recv(stalled[i], &byte, 1, MSG_DONTWAIT);
            if (n == 0 || (n < 0 && errno == ECONNRESET)) {
                seen[i] = true;
                ++closed;
            }
        }
    }
    EXPECT_EQ(closed, peers);
    for (int fd : stalled) close(fd);
}

}  // namespace
}  // namespace zevd::test
