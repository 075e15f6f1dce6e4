// Waits of the socket transport's read and write: time-outs, retries of a
// timed-out wait, a read that waits without limit, and a TCP send whose
// wait runs out. These cases take seconds each by design.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
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
using zevd::test::RawSender;
using zevd::test::SockPair;
using zevd::test::TraceCapture;
using zevd::test::waitFor;

const bool environmentSet = zevd::test::setPairEnvironment();

char *const kUntouched = reinterpret_cast<char *>(0x5a5a);

std::vector<std::string> normalizedTexts(const TraceCapture &capture) {
    std::vector<std::string> out;
    for (const auto &text : capture.texts()) out.push_back(normalized(text));
    return out;
}

size_t countText(const std::vector<std::string> &texts, const std::string &text) {
    size_t n = 0;
    for (const auto &t : texts) n += t == text ? 1 : 0;
    return n;
}

TEST(SockRwTimeoutTest, NothingArrivingWithRetryOffReturnsZero) {
    ASSERT_TRUE(environmentSet);
    SockPair pair;
    pair.b->ipcSetRetryRead(0);
    TraceCapture capture("zevdsock=all");
    char *received = kUntouched;
    EXPECT_EQ(pair.b->ipcRead(&received, 5), 0);
    EXPECT_EQ(received, kUntouched);
    std::vector<std::string> texts = normalizedTexts(capture);
    EXPECT_EQ(countText(texts, "select timed out - wait=5 count=0 errno=N...not retrying\n"), 1u)
        << capture.joined();
    EXPECT_FALSE(capture.contains("trying again")) << capture.joined();
    EXPECT_EQ(capture.count("Waiting on SELECT"), 1u);
    EXPECT_FALSE(capture.contains("Allocated ipcBuffer"));
    EXPECT_FALSE(capture.contains("*readBuffer set to"));
}

TEST(SockRwTimeoutTest, OneRetryGivesOneFurtherWaitThenZero) {
    SockPair pair;
    ASSERT_EQ(pair.b->ipcGetRetryRead(), 1);  // the base's default
    TraceCapture capture("zevdsock=all");
    char *received = kUntouched;
    EXPECT_EQ(pair.b->ipcRead(&received, 1), 0);
    EXPECT_EQ(received, kUntouched);
    std::vector<std::string> texts = normalizedTexts(capture);
    EXPECT_EQ(countText(texts, "select timed out - wait=1 count=0 errno=N...trying again\n"), 1u)
        << capture.joined();
    EXPECT_EQ(countText(texts, "select timed out - wait=1 count=0 errno=N...not retrying\n"), 1u);
    // The further wait runs with what the first left of the time-out.
    EXPECT_EQ(capture.count("WaitTime[1]"), 2u);
}

TEST(SockRwTimeoutTest, RetriesCountFurtherWaits) {
    SockPair pair;
    pair.b->ipcSetRetryRead(3);
    TraceCapture capture("zevdsock=all");
    char *received = kUntouched;
    EXPECT_EQ(pair.b->ipcRead(&received, 1), 0);
    EXPECT_EQ(received, kUntouched);
    std::vector<std::string> texts = normalizedTexts(capture);
    EXPECT_EQ(countText(texts, "select timed out - wait=1 count=0 errno=N...trying again\n"), 3u)
        << capture.joined();
    EXPECT_EQ(countText(texts, "select timed out - wait=1 count=0 errno=N...not retrying\n"), 1u);
    // A negative count retries nothing.
    pair.b->ipcSetRetryRead(-2);
    capture.clear();
    EXPECT_EQ(pair.b->ipcRead(&received, 1), 0);
    EXPECT_FALSE(capture.contains("trying again")) << capture.joined();
}

TEST(SockRwTimeoutTest, WaitZeroBlocksUntilADatagramComes) {
    SockPair pair;
    TraceCapture capture("zevdsock=all");
    // Taken before the read starts: the transport belongs to the reading
    // thread from then on.
    int udp = pair.b->sockUDP();
    std::string waiting = "Waiting on SELECT: UDP[" + std::to_string(udp) + "] Port[" +
                          std::to_string(pair.b->sockPortUDP()) + "] MaxFD[" +
                          std::to_string(udp + 1) + "] WaitTime[0]\n";
    std::atomic<bool> returned{false};
    std::atomic<int32_t> result{-2};
    char *received = nullptr;
    std::thread reader([&] {
        result = pair.b->ipcRead(&received, 0);
        returned = true;
    });
    EXPECT_TRUE(waitFor([&] { return capture.hasText(waiting); }, 5000ms)) << capture.joined();
    EXPECT_FALSE(returned.load());
    std::vector<char> message = makeMessage(100);
    ASSERT_EQ(pair.a->ipcWrite(message.data(), 100, 0), 100);
    reader.join();
    EXPECT_EQ(result.load(), 100);
    ASSERT_NE(received, nullptr);
    EXPECT_EQ(memcmp(received, message.data(), 100), 0);
    delete[] received;
}

TEST(SockRwTimeoutTest, MissingFurtherDatagramEndsAfterTenSeconds) {
    SockPair pair;
    pair.b->ipcSetRetryRead(0);
    RawSender raw(pair.b->sockPortUDP());
    TraceCapture capture("zevdsock=all");
    ASSERT_TRUE(raw.send(lyingDatagram(200, 100)));
    char *received = kUntouched;
    // The time-out answers with the last datagram's byte count and hands
    // nothing over, as designed.
    EXPECT_EQ(pair.b->ipcRead(&received, 5), 100);
    EXPECT_EQ(received, kUntouched);
    std::vector<std::string> texts = normalizedTexts(capture);
    EXPECT_EQ(countText(texts, "select timed out - wait=10 count=0 errno=N...not retrying\n"), 1u)
        << capture.joined();
    EXPECT_FALSE(capture.contains("*readBuffer set to"));
}

TEST(SockRwTimeoutTest, TcpSendWhoseWaitRunsOutFails) {
    ipcSockProbe sock(1, 1, 0);
    int own = sock.sockTCP();
    ASSERT_GE(own, 0);
    int small = 4096;
    setsockopt(own, SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
    int listener = socket(AF_INET, SOCK_STREAM, 0);
    setsockopt(listener, SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
    struct sockaddr_in address = loopbackAddress(0);
    ASSERT_EQ(bind(listener, reinterpret_cast<struct sockaddr *>(&address), sizeof address), 0);
    socklen_t len = sizeof address;
    getsockname(listener, reinterpret_cast<struct sockaddr *>(&address), &len);
    ASSERT_EQ(listen(listener, 1), 0);
    ASSERT_EQ(connect(own, reinterpret_cast<struct sockaddr *>(&address), sizeof address), 0);
    int peer = accept(listener, nullptr, nullptr);
    ASSERT_GE(peer, 0);
    ASSERT_EQ(fcntl(own, F_SETFL, fcntl(own, F_GETFL) | O_NONBLOCK), 0);
    ASSERT_GT(fillUntilBlocked(own), 0u);
    ASSERT_EQ(errno, EAGAIN);

    TraceCapture capture("zevdsock=all");
    std::vector<char> message = makeMessage(100);
    EXPECT_EQ(sock.ipcWrite(message.data(), 100, static_cast<uint32_t>(own)), -1);
    EXPECT_TRUE(capture.hasText("SEND would block - waiting on Select for 3 seconds.\n"))
        << capture.joined();
    char expected[96];
    snprintf(expected, sizeof expected,
             "Error: [@%p] select - count=0 errno=", static_cast<void *>(&sock));
    EXPECT_TRUE(capture.contains(expected)) << capture.joined();
    EXPECT_FALSE(capture.contains("Sent 100 bytes")) << capture.joined();
    close(peer);
    close(listener);
}

}  // namespace
