// The data waits against the fake DCH: the register and withdraw messages
// on the wire, messages forwarded to the waiting client (sent here to the
// address its register came from, as the DCH does), the cancel from another
// thread, signals, and a client that failed. The DCH time-out of this suite
// is 2 seconds (set by ctest).
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <future>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "support/blocked_thread.h"
#include "support/client_probe.h"
#include "support/fake_dch.h"
#include "support/fake_dch_fixture.h"
#include "support/fresh_process.h"
#include "support/loopback.h"
#include "support/sock_pair.h"
#include "support/trace_capture.h"
#include "support/wait_for.h"
#include "zev0.h"
#include "zevd610.h"

namespace {

using zevd::test::DchRequest;
using zevd::test::hasLine;
using zevd::test::hexText;
using zevd::test::TraceCapture;
using zevd::test::WireMessage;

constexpr auto kLimit = std::chrono::seconds(10);
// The cancel datagram: a length word and one source-name field.
const std::vector<char> kCancel = WireMessage().string(DCH_sourceName, "-TERMINATE-").bytes();

// A message as the DCH forwards it, padded with a field of filler bytes to
// exactly length bytes (at least 28).
std::vector<char> forwarded(size_t length, char filler = 'r') {
    WireMessage message;
    message.int16(DCH_requestType, ZEVD_REQ_DP_DATA).string(DCH_applName, "appl");
    size_t used = message.bytes().size();
    message.field(DCH_attrValue, std::vector<char>(length - used - 6, filler));
    return message.bytes();
}

std::vector<char> registerMessage(const std::string &appl, const std::string &group,
                                  uint32_t status) {
    return WireMessage()
        .int16(DCH_requestType, ZEVD_REQ_DC_WAIT_ON_DATA)
        .string(DCH_applName, appl)
        .string(DCH_attrGroup, group)
        .int32(DCH_status, status)
        .bytes();
}

class ClientDataWaitTest : public zevd::test::FakeDchClientTest {
protected:
    ClientDataWaitTest() : FakeDchClientTest("2") {}

    // Initializes a wait and returns it, with the address its register came
    // from: where the DCH forwards its data. The register is the first one
    // received after the call began (a withdraw of an earlier case that
    // reaches the DCH late has other bytes); its port may be one an earlier
    // client had, which the system is free to give again.
    void *start(const char *appl = "appl", const char *group = "group") {
        size_t mark = dch().received().size();
        void *client = dc_waitOnDataInitialize(appl, group);
        EXPECT_NE(client, nullptr);
        std::vector<char> expected = registerMessage(appl, group, 1);
        EXPECT_TRUE(zevd::test::waitFor(
            [&] {
                std::vector<DchRequest> requests = dch().received();
                for (size_t i = mark; i < requests.size(); ++i) {
                    if (requests[i].bytes == expected) {
                        dataPort_ = ntohs(requests[i].from.sin_port);
                        mark_ = i;
                        return true;
                    }
                }
                return false;
            },
            kLimit));
        return client;
    }
    // The requests that came from the client's socket, once count came.
    std::vector<DchRequest> fromClient(size_t count = 0) {
        return dch().receivedFrom(dataPort_, count, std::chrono::milliseconds(10000), mark_);
    }
    // Sends bytes to the waiting client in datagrams of at most 8192 bytes,
    // from the DCH's port.
    void forward(const std::vector<char> &bytes) {
        ASSERT_TRUE(dch().sendFromPort(dataPort_, bytes));
    }
    // The port of the wait's interrupt socket, as its allocation line in
    // capture gives it; 0 when there is none.
    static uint16_t interruptPort(const TraceCapture &capture) {
        for (const std::string &text : capture.texts())
            if (text.rfind("_interruptFD socket[", 0) == 0)
                return static_cast<uint16_t>(atoi(text.c_str() + text.find("port[") + 5));
        return 0;
    }

    uint16_t dataPort_ = 0;
    size_t mark_ = 0;  // where the current client's requests begin in received()
};

TEST_F(ClientDataWaitTest, InitializeRegistersAndDestroyWithdrawsWithoutReadingAnswers) {
    TraceCapture capture("zevdchcl=all");
    const std::string appl(20, 'a');
    const std::string group(32, 'g');
    void *client = start(appl.c_str(), group.c_str());
    ASSERT_NE(client, nullptr);
    std::vector<DchRequest> requests = fromClient(1);
    ASSERT_EQ(requests.size(), 1u);
    std::vector<char> expected = registerMessage(appl, group, 1);
    EXPECT_EQ(requests[0].bytes, expected) << hexText(requests[0].bytes);
    EXPECT_TRUE(hasLine(capture, "Allocated client_waitOnData @P\n")) << capture.joined();
    EXPECT_TRUE(capture.hasText("Assigned applName <" + appl + "> attrGroup <" + group + ">"));
    EXPECT_TRUE(capture.hasText("DUMP[" + std::to_string(expected.size()) +
                                "] of dc_waitOnDataInitialize request.\n"));
    EXPECT_TRUE(capture.hasText("Writing dc_waitOnDataInitialize message. " +
                                std::to_string(expected.size()) + " bytes\n"));
    EXPECT_EQ(dc_waitOnDataDestroy(client), 0);
    std::vector<DchRequest> sent = fromClient(2);
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_EQ(sent[1].bytes, registerMessage(appl, group, 0));
    EXPECT_TRUE(capture.hasText("Writing dc_waitOnDataDestroy message. " +
                                std::to_string(expected.size()) + " bytes\n"));
    EXPECT_TRUE(hasLine(capture, "Deleting DCHclient object @P\n"));
    // Entry and exit events with the returned value, under the C:: names.
    std::vector<std::string> initialize = capture.textsOf("C::dc_waitOnDataInitialize");
    ASSERT_GE(initialize.size(), 2u);
    EXPECT_EQ(initialize.front(), "Entry\n");
    EXPECT_EQ(initialize.back(), "Exit: " + zevd::test::pointerText(client) + "\n");
    std::vector<std::string> destroy = capture.textsOf("C::dc_waitOnDataDestroy");
    ASSERT_GE(destroy.size(), 2u);
    EXPECT_EQ(destroy.front(), "Entry\n");
    EXPECT_EQ(destroy.back(), "Exit: 0x0\n");
    EXPECT_EQ(capture.textsOf("DCHclient::dc_waitOnDataDestroy").back(), "Exit: 0x0\n");
}

TEST_F(ClientDataWaitTest, OverLongNamesFailInitializeAndSendNothing) {
    TraceCapture capture("error");
    const std::string appl(21, 'a');
    const std::string group(33, 'g');
    EXPECT_EQ(dc_waitOnDataInitialize(appl.c_str(), "group"), nullptr);
    EXPECT_EQ(dc_waitOnDataInitialize("appl", group.c_str()), nullptr);
    EXPECT_TRUE(
        capture.hasText("Error: max length exceeded: applName[21:" + appl + "] attrGroup[5:group]"))
        << capture.joined();
    EXPECT_TRUE(capture.hasText(
        "Error: max length exceeded: applName[4:appl] attrGroup[33:" + group + "]"));
    // Only the next good one registers.
    void *client = start();
    EXPECT_EQ(dc_waitOnDataDestroy(client), 0);
    fromClient(2);
    for (const DchRequest &request : dch().received())
        EXPECT_NE(request.bytes, registerMessage(appl, "group", 1));
}

TEST_F(ClientDataWaitTest, NullNamesFailInitializeAndTheClientIsKept) {
    TraceCapture capture("error");
    EXPECT_EQ(dc_waitOnDataInitialize(nullptr, "group"), nullptr);
    EXPECT_TRUE(capture.hasText("Error: applName and/or attrGroup were NULL\n"));
    // Kept on purpose: the failed client is not freed, and the slot still
    // points at it (read here under the address sanitizer).
    ASSERT_NE(client_waitOnData, nullptr);
    EXPECT_EQ(client_waitOnData->error(), 1);
    EXPECT_EQ(dc_waitOnDataInitialize("appl", nullptr), nullptr);
    EXPECT_EQ(client_waitOnData->error(), 1);
    for (const DchRequest &request : dch().received())
        EXPECT_NE(request.bytes.size(), registerMessage("", "group", 1).size() - 1);
}

TEST_F(ClientDataWaitTest, ForwardedMessageIsCopiedWholeWithItsLengthWord) {
    TraceCapture capture("zevdchcl=all");
    void *client = start();
    std::vector<char> message = forwarded(100);
    forward(message);
    std::vector<char> buffer(200, '#');
    EXPECT_EQ(dc_waitOnData(client, buffer.data(), static_cast<int>(buffer.size())), 0);
    EXPECT_TRUE(std::equal(message.begin(), message.end(), buffer.begin()));
    EXPECT_EQ(buffer[100], '#');  // not zero-terminated
    EXPECT_TRUE(hasLine(capture, "[@P] dc_waitOnData data ready.\n")) << capture.joined();
    EXPECT_TRUE(hasLine(capture, "Deleting _readBuffer<@P>\n"));
    EXPECT_TRUE(capture.contains("Waiting for dc_waitOnData response message for sockUDP["));
    EXPECT_EQ(dc_waitOnDataDestroy(client), 0);
}

TEST_F(ClientDataWaitTest, MessageOfTwoDatagramsIsCopiedWholeIntoALargeBuffer) {
    void *client = start();
    std::vector<char> message = forwarded(9000);
    forward(message);
    std::vector<char> buffer(10000, '#');
    EXPECT_EQ(dc_waitOnData(client, buffer.data(), static_cast<int>(buffer.size())), 0);
    EXPECT_TRUE(std::equal(message.begin(), message.end(), buffer.begin()));
    EXPECT_EQ(buffer[9000], '#');
    EXPECT_EQ(dc_waitOnDataDestroy(client), 0);
}

TEST_F(ClientDataWaitTest, MessageLongerThanTheBufferIsLostAndNothingIsWritten) {
    TraceCapture capture("error");
    void *client = start();
    forward(forwarded(9000));
    constexpr int kBuflen = 2000;
    std::vector<char> buffer(kBuflen + 4096, '#');  // the rest is a guard area
    EXPECT_EQ(dc_waitOnData(client, buffer.data(), kBuflen), 1);
    EXPECT_TRUE(capture.hasText("Error: buflen=2000 > bytesRead=9000.\n")) << capture.joined();
    for (size_t i = 0; i < buffer.size(); ++i) ASSERT_EQ(buffer[i], '#') << i;

    // From now on the client only returns its error: no wait, no cancel,
    // no withdraw.
    forward(forwarded(100));
    EXPECT_EQ(dc_waitOnData(client, buffer.data(), kBuflen), 1);
    EXPECT_EQ(buffer[0], '#');
    EXPECT_EQ(dc_waitOnDataCancel(client), 1);
    EXPECT_EQ(dc_waitOnDataDestroy(client), 1);
    EXPECT_EQ(fromClient().size(), 1u);
}

TEST_F(ClientDataWaitTest, BuflenIsNarrowedToSixteenBits) {
    TraceCapture capture("error");
    void *client = start();
    forward(forwarded(150));
    std::vector<char> buffer(70000, '#');
    // 65636 reads as 100.
    EXPECT_EQ(dc_waitOnData(client, buffer.data(), 65536 + 100), 1);
    EXPECT_TRUE(capture.hasText("Error: buflen=100 > bytesRead=150.\n")) << capture.joined();
    EXPECT_EQ(buffer[0], '#');
    EXPECT_EQ(dc_waitOnDataDestroy(client), 1);

    client = start();
    // 65536 reads as 0.
    EXPECT_EQ(dc_waitOnData(client, buffer.data(), 65536), 1);
    EXPECT_TRUE(hasLine(capture, "Error: received invalid buffer @P buflen 0\n"));
    EXPECT_EQ(dc_waitOnDataDestroy(client), 1);
    client = start();
    EXPECT_EQ(dc_waitOnData(client, nullptr, 100), 1);
    EXPECT_TRUE(hasLine(capture, "Error: received invalid buffer @P buflen 100\n"));
    EXPECT_EQ(dc_waitOnDataDestroy(client), 1);
}

TEST_F(ClientDataWaitTest, CancelFromAnotherThreadEndsTheWaitWithItsDatagram) {
    TraceCapture capture("zevdchcl=error+detail+dump");
    void *client = start();
    std::vector<char> buffer(4096, '#');
    auto wait = std::async(std::launch::async, [&] {
        return dc_waitOnData(client, buffer.data(), static_cast<int>(buffer.size()));
    });
    ASSERT_TRUE(capture.waitFor("Waiting for dc_waitOnData response message", kLimit));
    EXPECT_EQ(dc_waitOnDataCancel(client), 0);
    ASSERT_EQ(wait.wait_for(kLimit), std::future_status::ready);
    EXPECT_EQ(wait.get(), -1);
    ASSERT_EQ(kCancel.size(), 22u);
    EXPECT_TRUE(std::equal(kCancel.begin(), kCancel.end(), buffer.begin()))
        << hexText(std::vector<char>(buffer.begin(), buffer.begin() + 22));
    EXPECT_EQ(buffer[22], '#');
    EXPECT_TRUE(capture.contains("dc_waitOnDataCancel signal ready."));
    EXPECT_TRUE(capture.contains(">> interruptFD="));
    EXPECT_TRUE(capture.hasText("DUMP[22] of dc_waitOnDataCancel request.\n"));
    EXPECT_TRUE(hasLine(capture, "clientObject=@P\n"));
    // Nothing of the cancel reached the DCH.
    EXPECT_EQ(fromClient().size(), 1u);
    EXPECT_EQ(dc_waitOnDataDestroy(client), -1);
}

TEST_F(ClientDataWaitTest, StrangersNeitherEndNorBreakTheWait) {
    TraceCapture capture("zevdchcl=error+storage+detail,zevdsock=error");
    void *client = start();
    uint16_t interruptAt = interruptPort(capture);
    ASSERT_NE(interruptAt, 0) << capture.joined();
    zevd::test::Stranger stranger;
    ASSERT_TRUE(stranger.ready());

    std::vector<char> buffer(4096, '#');
    auto wait = std::async(std::launch::async, [&] {
        return dc_waitOnData(client, buffer.data(), static_cast<int>(buffer.size()));
    });
    ASSERT_TRUE(capture.waitFor("Waiting for dc_waitOnData response message", kLimit));
    // A row and a cancel from another host: both dropped, and the wait goes
    // on, neither failing nor ending.
    std::vector<char> forged = forwarded(64, 'x');
    ASSERT_TRUE(stranger.sendTo(dataPort_, forged));
    ASSERT_TRUE(stranger.sendTo(interruptAt, kCancel));
    const std::string from = " bytes from 127.0.0.2 port " + std::to_string(stranger.port());
    ASSERT_TRUE(capture.waitFor("64" + from + ": only the DCH may answer", kLimit))
        << capture.joined();
    ASSERT_TRUE(
        capture.waitFor("22" + from + ": only dc_waitOnDataCancel may end the wait", kLimit))
        << capture.joined();
    EXPECT_EQ(wait.wait_for(std::chrono::milliseconds(200)), std::future_status::timeout);

    std::vector<char> message = forwarded(64, 'd');
    forward(message);
    ASSERT_EQ(wait.wait_for(kLimit), std::future_status::ready);
    EXPECT_EQ(wait.get(), 0);
    EXPECT_TRUE(std::equal(message.begin(), message.end(), buffer.begin()));
    EXPECT_TRUE(
        capture.hasText("Error: dropped a datagram of 64" + from + ": only the DCH may answer\n"));
    EXPECT_EQ(capture.count("only the DCH may answer"), 1u);
    EXPECT_FALSE(capture.contains("Error: while waiting")) << capture.joined();

    // The client's own cancel still ends the next wait.
    EXPECT_EQ(dc_waitOnDataCancel(client), 0);
    EXPECT_EQ(dc_waitOnData(client, buffer.data(), static_cast<int>(buffer.size())), -1);
    EXPECT_EQ(dc_waitOnDataDestroy(client), -1);
}

TEST_F(ClientDataWaitTest, CancelFromAnotherSocketLeavesTheWaitToTheClientsOwn) {
    TraceCapture capture("zevdchcl=error+storage+detail");
    void *client = start();
    uint16_t interruptAt = interruptPort(capture);
    ASSERT_NE(interruptAt, 0) << capture.joined();
    // A cancel of the client's own first, so that the wait knows where its
    // cancels come from.
    std::vector<char> buffer(4096, '#');
    ASSERT_EQ(dc_waitOnDataCancel(client), 0);
    ASSERT_EQ(dc_waitOnData(client, buffer.data(), static_cast<int>(buffer.size())), -1);

    // Where dc_waitOnDataCancel sends: the local host's address at the
    // interrupt port. A socket of this host that sends the same datagram
    // there leaves from the same address, but from a port of its own.
    struct sockaddr_in to;
    memset(&to, 0, sizeof to);
    const char *host = ZEV0_LocalHostNameString();
    ASSERT_NE(host, nullptr);
    ASSERT_NE(ZEV0_ConvertNameToAddr(host, interruptAt, &to), 0);
    int other = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ASSERT_GE(other, 0);

    capture.clear();
    auto wait = std::async(std::launch::async, [&] {
        return dc_waitOnData(client, buffer.data(), static_cast<int>(buffer.size()));
    });
    ASSERT_TRUE(capture.waitFor("Waiting for dc_waitOnData response message", kLimit));
    EXPECT_EQ(sendto(other, kCancel.data(), kCancel.size(), 0,
                     reinterpret_cast<const struct sockaddr *>(&to), sizeof to),
              static_cast<ssize_t>(kCancel.size()));
    const std::string dropped = " port " + std::to_string(zevd::test::boundPort(other)) +
                                ": only dc_waitOnDataCancel may end the wait\n";
    EXPECT_TRUE(capture.waitFor(dropped, kLimit)) << capture.joined();
    EXPECT_EQ(wait.wait_for(std::chrono::milliseconds(200)), std::future_status::timeout);
    close(other);

    // The flag of a client cancelled before, which the cancel returns.
    EXPECT_EQ(dc_waitOnDataCancel(client), -1);
    ASSERT_EQ(wait.wait_for(kLimit), std::future_status::ready);
    EXPECT_EQ(wait.get(), -1);
    EXPECT_TRUE(std::equal(kCancel.begin(), kCancel.end(), buffer.begin()));
    EXPECT_EQ(capture.count("only dc_waitOnDataCancel may end the wait"), 1u) << capture.joined();
    EXPECT_EQ(dc_waitOnDataDestroy(client), -1);
}

TEST_F(ClientDataWaitTest, CancelWithNoWaiterIsReturnedByTheNextWait) {
    void *client = start();
    EXPECT_EQ(dc_waitOnDataCancel(client), 0);
    std::vector<char> buffer(100, '#');
    EXPECT_EQ(dc_waitOnData(client, buffer.data(), 100), -1);
    EXPECT_TRUE(std::equal(kCancel.begin(), kCancel.end(), buffer.begin()));
    EXPECT_EQ(dc_waitOnDataDestroy(client), -1);
}

TEST_F(ClientDataWaitTest, DataWinsOverACancelReadyAtTheSameTime) {
    void *client = start();
    EXPECT_EQ(dc_waitOnDataCancel(client), 0);
    std::vector<char> message = forwarded(64);
    forward(message);  // both are in their sockets before the wait
    std::vector<char> buffer(100, '#');
    EXPECT_EQ(dc_waitOnData(client, buffer.data(), 100), 0);
    EXPECT_TRUE(std::equal(message.begin(), message.end(), buffer.begin()));
    EXPECT_EQ(dc_waitOnData(client, buffer.data(), 100), -1);
    EXPECT_TRUE(std::equal(kCancel.begin(), kCancel.end(), buffer.begin()));
    EXPECT_EQ(dc_waitOnDataDestroy(client), -1);
}

TEST_F(ClientDataWaitTest, AfterACancelAWaitThatDeliversDataReturnsMinusOne) {
    void *client = start();
    std::vector<char> buffer(100, '#');
    EXPECT_EQ(dc_waitOnDataCancel(client), 0);
    EXPECT_EQ(dc_waitOnData(client, buffer.data(), 100), -1);
    // Kept: the flag stays -1, though the data is copied.
    std::vector<char> message = forwarded(80, 's');
    forward(message);
    EXPECT_EQ(dc_waitOnData(client, buffer.data(), 100), -1);
    EXPECT_TRUE(std::equal(message.begin(), message.end(), buffer.begin()));
    // The withdraw still goes out.
    EXPECT_EQ(dc_waitOnDataDestroy(client), -1);
    std::vector<DchRequest> sent = fromClient(2);
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_EQ(sent[1].bytes, registerMessage("appl", "group", 0));
}

std::atomic<int> signalsSeen{0};
void countSignal(int) {
    signalsSeen.fetch_add(1);
}

// Waits on client in a thread of its own, signals it once the wait blocks,
// and returns the wait's result (-100 when it did not end).
int waitSignalled(TraceCapture &capture, void *client, std::vector<char> &buffer) {
    zevd::test::ScopedSignalAction action(SIGUSR1, countSignal, 0);  // without SA_RESTART
    capture.clear();
    std::promise<int> done;
    std::future<int> result = done.get_future();
    std::thread waiter([&] {
        done.set_value(dc_waitOnData(client, buffer.data(), static_cast<int>(buffer.size())));
    });
    bool waiting = zevd::test::signalInSocketWait(capture, "Waiting for dc_waitOnData response",
                                                  waiter.native_handle(), SIGUSR1, kLimit);
    bool ended = waiting && result.wait_for(kLimit) == std::future_status::ready;
    if (!ended) dc_waitOnDataCancel(client);  // frees the waiter
    waiter.join();
    return ended ? result.get() : -100;
}

TEST_F(ClientDataWaitTest, SignalEndsTheWaitWithItsFlagAndANote) {
    TraceCapture capture("zevdchcl=error+detail");
    void *client = start();
    std::vector<char> buffer(100, '#');
    EXPECT_EQ(waitSignalled(capture, client, buffer), 0);
    EXPECT_EQ(buffer[0], '#');
    EXPECT_TRUE(capture.hasText(
        "Note: interrupted system call detected during socket select for <appl><group>\n"))
        << capture.joined();
    // On a cancelled client the same wait returns -1.
    EXPECT_EQ(dc_waitOnDataCancel(client), 0);
    EXPECT_EQ(dc_waitOnData(client, buffer.data(), 100), -1);
    EXPECT_EQ(waitSignalled(capture, client, buffer), -1);
    EXPECT_TRUE(capture.contains("Note: interrupted system call"));
    EXPECT_EQ(dc_waitOnDataDestroy(client), -1);
}

TEST_F(ClientDataWaitTest, NullClientIsRefusedByEveryCall) {
    TraceCapture capture("error");
    char buffer[16];
    EXPECT_EQ(dc_waitOnData(nullptr, buffer, sizeof buffer), 1);
    EXPECT_EQ(dc_waitOnDataCancel(nullptr), 1);
    EXPECT_EQ(dc_waitOnDataDestroy(nullptr), 1);
    EXPECT_EQ(capture.count("Error: Received NULL clientObject."), 3u);
}

TEST_F(ClientDataWaitTest, TwoWaitsInOneProcessEachGetTheirOwnData) {
    void *first = start("appl", "one");
    uint16_t firstPort = dataPort_;
    void *second = start("appl", "two");
    ASSERT_NE(firstPort, dataPort_);
    std::vector<char> toSecond = forwarded(40, '2');
    forward(toSecond);
    dataPort_ = firstPort;
    std::vector<char> toFirst = forwarded(40, '1');
    forward(toFirst);
    std::vector<char> buffer(64, '#');
    EXPECT_EQ(dc_waitOnData(first, buffer.data(), 64), 0);
    EXPECT_TRUE(std::equal(toFirst.begin(), toFirst.end(), buffer.begin()));
    EXPECT_EQ(dc_waitOnData(second, buffer.data(), 64), 0);
    EXPECT_TRUE(std::equal(toSecond.begin(), toSecond.end(), buffer.begin()));
    // A cancel wakes only its own client.
    EXPECT_EQ(dc_waitOnDataCancel(first), 0);
    forward(toFirst);
    EXPECT_EQ(dc_waitOnData(first, buffer.data(), 64), 0);  // data first
    EXPECT_EQ(dc_waitOnData(first, buffer.data(), 64), -1);
    EXPECT_EQ(dc_waitOnDataDestroy(first), -1);
    EXPECT_EQ(dc_waitOnDataDestroy(second), 0);
}

TEST_F(ClientDataWaitTest, InitializeFromEightThreadsAtOnceGivesEightClients) {
    constexpr int kThreads = 8;
    std::vector<void *> clients = zevd::test::fromThreadsAtOnce(kThreads, [](int t) {
        return dc_waitOnDataInitialize("appl", ("group" + std::to_string(t)).c_str());
    });
    std::set<void *> distinct(clients.begin(), clients.end());
    EXPECT_EQ(distinct.size(), static_cast<size_t>(kThreads));
    EXPECT_EQ(distinct.count(nullptr), 0u);
    EXPECT_EQ(distinct.count(client_waitOnData), 1u);
    for (int t = 0; t < kThreads; ++t) {
        std::string group = "group" + std::to_string(t);
        EXPECT_TRUE(zevd::test::waitFor(
            [&] {
                for (const DchRequest &request : dch().received())
                    if (request.bytes == registerMessage("appl", group, 1)) return true;
                return false;
            },
            kLimit))
            << group;
    }
    for (void *client : clients) EXPECT_EQ(dc_waitOnDataDestroy(client), 0);
}

// The LPC transport carries nothing: its wait and cancel are left unbuilt on
// purpose. In a fresh process, where no socket transport chose the kind
// first.
TEST(ClientDataWaitLpcTest, LpcWaitAndCancelReportThatTheyAreUnfinished) {
    ZEVD_IN_FRESH_PROCESS({
        setenv("ZEVA_DCH_IPCTYPE", "2", 1);
        TraceCapture capture("zevdchcl=all");
        // The LPC write moves nothing, so Initialize fails.
        EXPECT_EQ(dc_waitOnDataInitialize("appl", "group"), nullptr);
        EXPECT_TRUE(
            capture.hasText("Error: writing dc_waitOnDataInitialize message to DCHserver\n"))
            << capture.joined();
        auto *waiting = new zevd::test::DCHclientProbe(1, 0);
        auto *cancelling = new zevd::test::DCHclientProbe(1, 0);
        capture.clear();
        char buffer[16];
        EXPECT_EQ(waiting->dc_waitOnData(buffer, sizeof buffer), 1);
        EXPECT_EQ(cancelling->dc_waitOnDataCancel(), 1);
        // Exactly so: no "Error: " and no line end.
        EXPECT_EQ(capture.count("FINISH ME UP!!!!"), 2u) << capture.joined();
        EXPECT_FALSE(capture.contains("Error: FINISH")) << capture.joined();
        delete waiting;
        delete cancelling;
    });
}

}  // namespace
