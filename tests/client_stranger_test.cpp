// Only the DCH may answer: a datagram that reaches a client's socket from
// anywhere but the DCH's port on the DCH's host is dropped (one error line
// each) and never read as the answer to a request or as a row, and a
// client of a DCH on loopback listens on the loopback address only. The
// stranger is a socket on 127.0.0.2, the neighbour one on 127.0.0.1 beside
// the fake DCH, which answers from its port on 127.0.0.1. The DCH time-out
// of this suite is 1 second.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "support/fake_dch.h"
#include "support/fake_dch_fixture.h"
#include "support/loopback.h"
#include "support/sock_probe.h"
#include "support/trace_capture.h"
#include "support/wait_for.h"
#include "zevd610.h"

namespace {

using zevd::test::DchMessage;
using zevd::test::DchReply;
using zevd::test::DchRequest;
using zevd::test::Stranger;
using zevd::test::TraceCapture;

using Clock = std::chrono::steady_clock;

std::vector<char> statusAndHandle(int32_t status, int32_t handle) {
    return DchMessage().int32(DCH_status, status).int32(DCH_handle, handle).bytes();
}

// The handle the DCH of these cases gives a source named "s<n>": n.
int32_t handleFor(const DchRequest &request) {
    zevd::FieldReader reader(request.bytes.data(), request.bytes.size());
    for (int type = reader.next(); type != 0; type = reader.next())
        if (type == DCH_sourceName && reader.length() > 1 && reader.value()[0] == 's')
            return static_cast<int32_t>(strtol(reader.value() + 1, nullptr, 10));
    return -1;
}

std::string droppedLine(size_t bytes, const Stranger &stranger,
                        const std::string &address = "127.0.0.2") {
    return "Error: dropped a datagram of " + std::to_string(bytes) + " bytes from " + address +
           " port " + std::to_string(stranger.port()) + ": only the DCH may answer\n";
}

// A row as the DCH forwards it to a data wait, for the source of handle.
std::vector<char> forwardedRow(int32_t handle) {
    return DchMessage()
        .int16(DCH_requestType, ZEVD_REQ_DP_DATA)
        .string(DCH_applName, "appl")
        .string(DCH_attrGroup, "group")
        .string(DCH_sourceName, "s" + std::to_string(handle))
        .int32(DCH_handle, handle)
        .int16(DCH_dataFlag, 0)
        .bytes();
}

class ClientStrangerTest : public zevd::test::FakeDchClientTest {
protected:
    ClientStrangerTest() : FakeDchClientTest("1") {}
    void SetUp() override {
        FakeDchClientTest::SetUp();
        ASSERT_TRUE(stranger_.ready()) << "127.0.0.2 cannot be bound: errno " << errno;
    }

    // The forged answers the fake DCH's thread has sent. A case waits for
    // them before it ends: that thread reads the stranger's socket and the
    // case's answers, and only an atomic tells a race checker that it is
    // done with them (the answers it sends order it for the kernel alone).
    void waitForgeries(int count) {
        EXPECT_TRUE(zevd::test::waitFor([&] { return forgeries_.load() >= count; },
                                        std::chrono::seconds(10)));
    }

    Stranger stranger_;
    std::atomic<int> forgeries_{0};
};

TEST_F(ClientStrangerTest, ForgedAnswerFromAnotherHostIsDroppedAndTheDchsAnswerRead) {
    TraceCapture capture("error");
    const std::vector<char> forged = statusAndHandle(0, 666);
    dch().setResponder([&](const DchRequest &request) -> DchReply {
        // The forgery reaches the client's socket before the real answer.
        EXPECT_TRUE(stranger_.sendTo(ntohs(request.from.sin_port), forged));
        ++forgeries_;
        return statusAndHandle(0, 42);
    });
    long status = -1;
    long handle = -1;
    EXPECT_EQ(dp_online(&status, &handle, "appl", "group", "s42"), 0);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(handle, 42);
    EXPECT_TRUE(capture.hasText(droppedLine(forged.size(), stranger_))) << capture.joined();
    EXPECT_EQ(capture.count("only the DCH may answer"), 1u);
    waitForgeries(1);
}

TEST_F(ClientStrangerTest, StrangersDatagramBeforeATimeOutLeavesTheReadWithNothing) {
    TraceCapture capture("error");
    zevd::test::ipcSockProbe sock(IPC_SERVICE_CLIENT, 0, 0);
    ASSERT_EQ(sock.ipcGetError(), 0);
    sock.ipcSetRetryRead(0);
    const std::vector<char> forged = statusAndHandle(0, 666);
    ASSERT_TRUE(stranger_.sendTo(static_cast<uint16_t>(sock.sockPortUDP()), forged));
    char *const untouched = reinterpret_cast<char *>(0x5a5a);
    char *received = untouched;
    // Nothing of the DCH's came: 0, as when nothing at all came.
    EXPECT_EQ(sock.ipcRead(&received, 1), 0);
    EXPECT_EQ(received, untouched);
    EXPECT_TRUE(capture.hasText(droppedLine(forged.size(), stranger_))) << capture.joined();
    EXPECT_EQ(capture.count("only the DCH may answer"), 1u);
}

TEST_F(ClientStrangerTest, AnswerFromAnotherPortOfTheDchsHostIsDroppedAndTheDchsAnswerRead) {
    TraceCapture capture("error");
    Stranger neighbour(htonl(INADDR_LOOPBACK));
    ASSERT_TRUE(neighbour.ready());
    const std::vector<char> forged = statusAndHandle(0, 666);
    dch().setResponder([&](const DchRequest &request) -> DchReply {
        // The DCH's host answers first from another of its ports; the DCH's
        // own answer, from its port, follows.
        EXPECT_TRUE(neighbour.sendTo(ntohs(request.from.sin_port), forged));
        ++forgeries_;
        return statusAndHandle(0, 7);
    });
    long status = -1;
    long handle = -1;
    EXPECT_EQ(dp_online(&status, &handle, "appl", "group", "s7"), 0);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(handle, 7);
    EXPECT_TRUE(capture.hasText(droppedLine(forged.size(), neighbour, "127.0.0.1")))
        << capture.joined();
    EXPECT_EQ(capture.count("only the DCH may answer"), 1u);
    waitForgeries(1);
}

TEST_F(ClientStrangerTest, RowFromAnotherPortOfTheDchsHostIsDroppedAndTheDchsRowRead) {
    constexpr auto kLimit = std::chrono::seconds(10);
    TraceCapture capture("error,zevdchcl=error+detail");
    Stranger neighbour(htonl(INADDR_LOOPBACK));
    ASSERT_TRUE(neighbour.ready());
    void *client = dc_waitOnDataInitialize("appl", "group");
    ASSERT_NE(client, nullptr);
    // The wait's register came from the socket the DCH sends its rows to.
    uint16_t dataPort = 0;
    ASSERT_TRUE(zevd::test::waitFor(
        [&] {
            for (const DchRequest &request : dch().received())
                if (request.requestType() == ZEVD_REQ_DC_WAIT_ON_DATA)
                    dataPort = ntohs(request.from.sin_port);
            return dataPort != 0;
        },
        kLimit));

    std::vector<char> buffer(4096, '#');
    auto wait = std::async(std::launch::async, [&] {
        return dc_waitOnData(client, buffer.data(), static_cast<int>(buffer.size()));
    });
    ASSERT_TRUE(capture.waitFor("Waiting for dc_waitOnData response message", kLimit));
    const std::vector<char> forged = forwardedRow(666);
    ASSERT_TRUE(neighbour.sendTo(dataPort, forged));
    ASSERT_TRUE(capture.waitFor(": only the DCH may answer", kLimit)) << capture.joined();
    // Dropped, and the wait goes on.
    EXPECT_EQ(wait.wait_for(std::chrono::milliseconds(200)), std::future_status::timeout);

    const std::vector<char> row = forwardedRow(7);
    ASSERT_TRUE(dch().sendFromPort(dataPort, row));
    ASSERT_EQ(wait.wait_for(kLimit), std::future_status::ready);
    EXPECT_EQ(wait.get(), 0);
    EXPECT_TRUE(std::equal(row.begin(), row.end(), buffer.begin()));
    EXPECT_EQ(buffer[row.size()], '#');
    EXPECT_TRUE(capture.hasText(droppedLine(forged.size(), neighbour, "127.0.0.1")))
        << capture.joined();
    EXPECT_EQ(capture.count("only the DCH may answer"), 1u);
    EXPECT_EQ(dc_waitOnDataDestroy(client), 0);
}

TEST_F(ClientStrangerTest, StrangersAloneLeaveTheCallToItsTimeOutWithStatus5) {
    TraceCapture capture("error");
    std::atomic<uint16_t> clientPort{0};
    dch().setResponder([&](const DchRequest &request) -> DchReply {
        clientPort = ntohs(request.from.sin_port);
        return std::nullopt;
    });
    // Forged answers every 50 ms while the call waits: none is taken for
    // the answer, and none makes the wait longer than its time-out.
    std::atomic<bool> done{false};
    std::atomic<int> sent{0};
    std::thread flood([&] {
        for (int i = 0; i < 200 && !done; ++i) {
            if (clientPort != 0 && stranger_.sendTo(clientPort, statusAndHandle(0, 666))) ++sent;
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
    });
    long status = -1;
    long handle = -1;
    Clock::time_point started = Clock::now();
    int result = dp_online(&status, &handle, "appl", "group", "s1");
    auto took = Clock::now() - started;
    done = true;
    flood.join();
    EXPECT_EQ(result, 1);
    EXPECT_EQ(status, ZEVD_STATUS_NO_RESPONSE);
    EXPECT_NE(handle, 666);
    EXPECT_GE(sent.load(), 5);
    EXPECT_GE(took, std::chrono::milliseconds(900));
    EXPECT_LT(took, std::chrono::milliseconds(2500));
    EXPECT_GE(capture.count("only the DCH may answer"), 5u) << capture.joined();
}

TEST_F(ClientStrangerTest, ClientOfALoopbackDchListensOnTheLoopbackAddressOnly) {
    dch().setResponder([](const DchRequest &) -> DchReply { return statusAndHandle(0, 7); });
    long status = -1;
    long handle = -1;
    ASSERT_EQ(dp_online(&status, &handle, "appl", "group", "s7"), 0);
    ASSERT_TRUE(dch().waitReceived(1));
    DchRequest request = dch().received().front();
    EXPECT_EQ(ntohl(request.from.sin_addr.s_addr), INADDR_LOOPBACK);

    // The same port on another of this host's addresses has no socket: the
    // kernel refuses the datagram, which a connected sender learns.
    int probe = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ASSERT_GE(probe, 0);
    struct sockaddr_in elsewhere = request.from;
    elsewhere.sin_addr.s_addr = htonl(INADDR_LOOPBACK + 1);
    ASSERT_EQ(connect(probe, reinterpret_cast<struct sockaddr *>(&elsewhere), sizeof elsewhere), 0);
    struct timeval wait = {3, 0};
    setsockopt(probe, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
    std::vector<char> forged = statusAndHandle(0, 666);
    ASSERT_EQ(send(probe, forged.data(), forged.size(), 0), static_cast<ssize_t>(forged.size()));
    char scrap[64];
    EXPECT_EQ(recv(probe, scrap, sizeof scrap, 0), -1);
    EXPECT_EQ(errno, ECONNREFUSED);
    close(probe);
}

TEST_F(ClientStrangerTest, ManyThreadsUnderForgedAnswersEachReadTheirOwn) {
    TraceCapture capture("error");
    dch().setResponder([&](const DchRequest &request) -> DchReply {
        EXPECT_TRUE(stranger_.sendTo(ntohs(request.from.sin_port), statusAndHandle(0, 666)));
        ++forgeries_;
        return statusAndHandle(0, handleFor(request));
    });
    constexpr int kThreads = 8;
    constexpr int kCalls = 25;
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t, &wrong] {
            for (int i = 0; i < kCalls; ++i) {
                int n = 1000 * (t + 1) + i;
                std::string source = "s" + std::to_string(n);
                long status = -1;
                long handle = -1;
                if (dp_online(&status, &handle, "appl", "group", source.c_str()) != 0 ||
                    status != 0 || handle != n)
                    ++wrong;
            }
        });
    }
    for (std::thread &thread : threads) thread.join();
    waitForgeries(kThreads * kCalls);
    EXPECT_EQ(wrong.load(), 0);
    EXPECT_EQ(capture.count("only the DCH may answer"), static_cast<size_t>(kThreads * kCalls));
}

}  // namespace
