// The data-provider status waits against the fake DCH: the register and
// withdraw messages, status reports sent here to the address the register
// came from (as the DCH does) and read strictly in order, malformed and
// oversized reports, and the shared line buffer. A report is always sent
// before the wait starts: the wait has no time limit.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <future>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "support/blocked_thread.h"
#include "support/client_probe.h"
#include "support/fake_dch.h"
#include "support/fake_dch_fixture.h"
#include "support/loopback.h"
#include "support/sock_pair.h"
#include "support/trace_capture.h"
#include "support/wait_for.h"
#include "zevd610.h"

namespace {

using zevd::test::DchMessage;
using zevd::test::DchRequest;
using zevd::test::hasLine;
using zevd::test::hexText;
using zevd::test::TraceCapture;
using zevd::test::WireMessage;

std::vector<char> statusRegister(uint32_t status) {
    return WireMessage()
        .int16(DCH_requestType, ZEVD_REQ_DC_WAIT_FOR_DP_STATUS)
        .int32(DCH_status, status)
        .bytes();
}

// A status report; info empty leaves the host information out.
std::vector<char> report(const std::string &appl, const std::string &group,
                         const std::string &source, const std::string &host,
                         const std::string &info, int16_t requestType) {
    DchMessage message;
    message.string(DCH_applName, appl)
        .string(DCH_attrGroup, group)
        .string(DCH_sourceName, source)
        .string(DCH_hostAddr, host);
    if (!info.empty()) message.string(DCH_hostInfo, info);
    return message.int16(DCH_requestType, requestType).bytes();
}

class ClientStatusWaitTest : public zevd::test::FakeDchClientTest {
protected:
    ClientStatusWaitTest() : FakeDchClientTest("2") {}

    // Initializes a wait and finds the port its register came from (a new
    // one: a withdraw of an earlier case may still reach the DCH late).
    void *start() {
        void *client = dc_waitForDPStatusInitialize();
        EXPECT_NE(client, nullptr);
        EXPECT_TRUE(zevd::test::waitFor(
            [&] {
                for (const DchRequest &request : dch().received()) {
                    uint16_t port = ntohs(request.from.sin_port);
                    if (request.bytes == statusRegister(1) && usedPorts().insert(port).second) {
                        port_ = port;
                        return true;
                    }
                }
                return false;
            },
            std::chrono::seconds(10)));
        return client;
    }
    // The requests that came from the client's socket, once count came.
    std::vector<DchRequest> fromClient(size_t count = 0) {
        return dch().receivedFrom(port_, count);
    }
    static std::set<uint16_t> &usedPorts() {
        static std::set<uint16_t> ports;
        return ports;
    }
    void send(const std::vector<char> &bytes) { ASSERT_TRUE(dch().sendFromPort(port_, bytes)); }
    // The line of one report sent before the wait, or "(null)".
    std::string lineOf(void *client, const std::vector<char> &bytes) {
        send(bytes);
        const char *line = dc_waitForDPStatus(client);
        return line != nullptr ? std::string(line) : std::string("(null)");
    }

    uint16_t port_ = 0;
};

TEST_F(ClientStatusWaitTest, InitializeRegistersAndDestroyWithdraws) {
    TraceCapture capture("zevdchcl=all");
    void *client = start();
    ASSERT_NE(client, nullptr);
    std::vector<char> expected = statusRegister(1);
    ASSERT_EQ(fromClient(1).size(), 1u);
    EXPECT_EQ(fromClient(1)[0].bytes, expected);
    EXPECT_TRUE(hasLine(capture, "Allocated client_waitForDPStatus @P\n")) << capture.joined();
    EXPECT_TRUE(capture.hasText("DUMP[22] of dc_waitForDPStatusInitialize request.\n"));
    EXPECT_TRUE(capture.hasText("Writing dc_waitForDPStatus message. 22 bytes\n"));
    EXPECT_EQ(dc_waitForDPStatusDestroy(client), 0);
    std::vector<DchRequest> sent = fromClient(2);
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_EQ(sent[1].bytes, statusRegister(0)) << hexText(sent[1].bytes);
    EXPECT_TRUE(capture.hasText("DUMP[22] of dc_waitForDPStatusDestroy request.\n"));
    // Kept: this one has no line end of its own.
    EXPECT_TRUE(capture.hasText("Writing dc_waitForDPStatus message. 22 bytes"));
}

TEST_F(ClientStatusWaitTest, ReportWithoutHostInformationGivesFiveValues) {
    TraceCapture capture("zevdchcl=all");
    void *client = start();
    const char *line = nullptr;
    send(report("APP", "GRP", "SRC", "10.0.0.1", "", 4));
    line = dc_waitForDPStatus(client);
    ASSERT_NE(line, nullptr);
    EXPECT_STREQ(line, "APP,GRP,SRC,10.0.0.1,4");
    EXPECT_EQ(line, dc_waitForDPStatusBUF);
    EXPECT_EQ(std::count(line, line + strlen(line), ','), 4);
    for (const char *text :
         {"applName <APP>\n", "attrGroup <GRP>\n", "sourceName <SRC>\n", "hostAddr <10.0.0.1>\n",
          "Note: dataType of DCH_hostInfo not supplied: 16\n", "requestType <4>\n",
          "Returning response <APP,GRP,SRC,10.0.0.1,4>\n"})
        EXPECT_TRUE(capture.hasText(text)) << text << capture.joined();
    EXPECT_TRUE(hasLine(capture, "[@P] Waiting for dc_waitForDPStatus response.\n"));
    EXPECT_TRUE(hasLine(capture, "Deleting _readBuffer<@P>\n"));
    EXPECT_EQ(dc_waitForDPStatusDestroy(client), 0);
}

void ignoreSignal(int) {}

// A status wait on client that SIGUSR1 (its handler installed with flags)
// interrupts in its poll and, with inTheReceive, again in the receive that
// follows: the wait goes on, and its report comes.
void signalTheWait(TraceCapture &capture, void *client, int flags, bool inTheReceive,
                   const std::function<void()> &sendReport) {
    zevd::test::ScopedSignalAction action(SIGUSR1, ignoreSignal, flags);
    ASSERT_TRUE(action.installed());
    std::promise<std::string> done;
    std::future<std::string> result = done.get_future();
    std::thread waiter([&] {
        const char *line = dc_waitForDPStatus(client);
        done.set_value(line != nullptr ? std::string(line) : std::string("(null)"));
    });
    bool signalled =
        zevd::test::signalInSocketWait(capture, "Waiting on SELECT: UDP[", waiter.native_handle(),
                                       SIGUSR1, std::chrono::seconds(10));
    EXPECT_TRUE(signalled);
    EXPECT_TRUE(capture.waitFor("count=-1 errno=4\n", std::chrono::seconds(10)))
        << capture.joined();
    if (signalled && inTheReceive) {
        pid_t tid = zevd::test::tracedThread(capture, "Waiting on SELECT: UDP[");
        EXPECT_TRUE(zevd::test::waitBlockedIn(tid, {SYS_recvfrom}, std::chrono::seconds(10)));
        EXPECT_EQ(pthread_kill(waiter.native_handle(), SIGUSR1), 0);
    }
    bool endedBeforeTheReport =
        result.wait_for(std::chrono::milliseconds(200)) == std::future_status::ready;
    sendReport();
    waiter.join();
    EXPECT_FALSE(endedBeforeTheReport);
    EXPECT_EQ(result.get(), "APP,GRP,SRC,10.0.0.1,4") << capture.joined();
    EXPECT_FALSE(capture.contains("Error: ipcRead with wait[FOREVER] failed"));
}

TEST_F(ClientStatusWaitTest, SignalDuringTheWaitDoesNotEndItNorSpoilTheClient) {
    TraceCapture capture("zevdchcl=all,ipcSock::ipcRead=detail");
    void *client = start();
    // poll is not restarted all the same.
    signalTheWait(capture, client, SA_RESTART, false,
                  [&] { send(report("APP", "GRP", "SRC", "10.0.0.1", "", 4)); });
    // The client goes on waiting for reports.
    EXPECT_EQ(lineOf(client, report("APP", "GRP", "SRC", "10.0.0.1", "", 3)),
              "APP,GRP,SRC,10.0.0.1,3");
    EXPECT_EQ(dc_waitForDPStatusDestroy(client), 0);
}

// With a handler that does not restart system calls, one signal in the
// wait and one in the receive that follows it: the wait goes on all the
// same.
TEST_F(ClientStatusWaitTest, SignalsWithoutRestartInTheWaitAndTheReceiveDoNotEndIt) {
    TraceCapture capture("zevdchcl=all,ipcSock::ipcRead=detail");
    void *client = start();
    signalTheWait(capture, client, 0, true,
                  [&] { send(report("APP", "GRP", "SRC", "10.0.0.1", "", 4)); });
    EXPECT_EQ(dc_waitForDPStatusDestroy(client), 0);
}

TEST_F(ClientStatusWaitTest, ReportWithHostInformationGivesSixValues) {
    TraceCapture capture("zevdchcl=detail");
    void *client = start();
    std::string line = lineOf(client, report("APP", "GRP", "SRC", "127.0.0.1", "40123", 4117));
    EXPECT_EQ(line, "APP,GRP,SRC,127.0.0.1,40123,4117");
    EXPECT_EQ(std::count(line.begin(), line.end(), ','), 5);
    EXPECT_TRUE(capture.hasText("hostInfo <40123>\n"));
    EXPECT_EQ(dc_waitForDPStatusDestroy(client), 0);
}

TEST_F(ClientStatusWaitTest, ReportFromAnotherHostIsDroppedAndTheDchsRead) {
    TraceCapture capture("error");
    void *client = start();
    zevd::test::Stranger stranger;
    ASSERT_TRUE(stranger.ready());
    std::vector<char> forged = report("evil", "g", "s", "1.2.3.4", "", 1);
    ASSERT_TRUE(stranger.sendTo(port_, forged));
    EXPECT_EQ(lineOf(client, report("appl", "group", "src", "127.0.0.1", "", 2)),
              "appl,group,src,127.0.0.1,2");
    EXPECT_TRUE(capture.hasText("Error: dropped a datagram of " + std::to_string(forged.size()) +
                                " bytes from 127.0.0.2 port " + std::to_string(stranger.port()) +
                                ": only the DCH may answer\n"))
        << capture.joined();
    EXPECT_EQ(dc_waitForDPStatusDestroy(client), 0);
}

TEST_F(ClientStatusWaitTest, ReportFromAnotherPortOfTheDchsHostIsDroppedAndTheDchsRead) {
    TraceCapture capture("error");
    void *client = start();
    zevd::test::Stranger neighbour(htonl(INADDR_LOOPBACK));
    ASSERT_TRUE(neighbour.ready());
    std::vector<char> forged = report("evil", "g", "s", "127.0.0.1", "", 1);
    ASSERT_TRUE(neighbour.sendTo(port_, forged));
    EXPECT_EQ(lineOf(client, report("appl", "group", "src", "127.0.0.1", "", 2)),
              "appl,group,src,127.0.0.1,2");
    EXPECT_TRUE(capture.hasText("Error: dropped a datagram of " + std::to_string(forged.size()) +
                                " bytes from 127.0.0.1 port " + std::to_string(neighbour.port()) +
                                ": only the DCH may answer\n"))
        << capture.joined();
    EXPECT_EQ(capture.count("only the DCH may answer"), 1u);
    EXPECT_EQ(dc_waitForDPStatusDestroy(client), 0);
}

TEST_F(ClientStatusWaitTest, NegativeRequestTypeKeepsItsSign) {
    void *client = start();
    EXPECT_EQ(lineOf(client, report("A", "G", "S", "h", "", -7)), "A,G,S,h,-7");
    EXPECT_EQ(lineOf(client, report("A", "G", "S", "h", "i", -32768)), "A,G,S,h,i,-32768");
    EXPECT_EQ(dc_waitForDPStatusDestroy(client), 0);
}

TEST_F(ClientStatusWaitTest, NullClientReturnsNullAndLeavesTheLineCleared) {
    TraceCapture capture("zevdchcl=all");
    memset(dc_waitForDPStatusBUF, 'x', sizeof dc_waitForDPStatusBUF);
    EXPECT_EQ(dc_waitForDPStatus(nullptr), nullptr);
    for (char c : dc_waitForDPStatusBUF) ASSERT_EQ(c, '\0');
    EXPECT_TRUE(capture.hasText("Returning NULL\n"));
    EXPECT_EQ(dc_waitForDPStatusDestroy(nullptr), 1);
    EXPECT_TRUE(capture.hasText("Error: Received NULL clientObject.\n"));
}

// Each position of the report in turn holds a field of the wrong type, or
// the report ends there: the wait gives NULL and the client stays failed.
TEST_F(ClientStatusWaitTest, MissingFieldAtAnyPositionPoisonsTheClient) {
    struct Case {
        std::vector<char> bytes;
        const char *line;
    };
    const Case cases[] = {
        {DchMessage().string(DCH_attrGroup, "G").bytes(),
         "Error: dataType of DCH_applName missing: 35\n"},
        {DchMessage().string(DCH_applName, "A").string(DCH_sourceName, "S").bytes(),
         "Error: dataType of DCH_attrGroup missing: 34\n"},
        {DchMessage().string(DCH_applName, "A").string(DCH_attrGroup, "G").bytes(),
         "Error: dataType of DCH_sourceName missing: 0\n"},
        {DchMessage()
             .string(DCH_applName, "A")
             .string(DCH_attrGroup, "G")
             .string(DCH_sourceName, "S")
             .int16(DCH_requestType, 4)
             .bytes(),
         "Error: dataType of DCH_hostAddr missing: 16\n"},
        // Neither host information nor the request type.
        {DchMessage()
             .string(DCH_applName, "A")
             .string(DCH_attrGroup, "G")
             .string(DCH_sourceName, "S")
             .string(DCH_hostAddr, "h")
             .string(DCH_applName, "A")
             .bytes(),
         "Error: dataType of DCH_requestType missing: 32\n"},
        // Host information, then nothing.
        {DchMessage()
             .string(DCH_applName, "A")
             .string(DCH_attrGroup, "G")
             .string(DCH_sourceName, "S")
             .string(DCH_hostAddr, "h")
             .string(DCH_hostInfo, "i")
             .bytes(),
         "Error: dataType of DCH_requestType missing: 0\n"},
    };
    for (const Case &c : cases) {
        TraceCapture capture("error");
        void *client = start();
        EXPECT_EQ(lineOf(client, c.bytes), "(null)") << c.line;
        EXPECT_TRUE(capture.hasText(c.line)) << c.line << capture.joined();
        // Poisoned: the next wait returns at once, with a report waiting.
        EXPECT_EQ(lineOf(client, report("A", "G", "S", "h", "", 1)), "(null)") << c.line;
        // And no withdraw goes out.
        EXPECT_EQ(dc_waitForDPStatusDestroy(client), 1);
        EXPECT_EQ(fromClient().size(), 1u) << c.line;
    }
}

TEST_F(ClientStatusWaitTest, OversizedStringsAreCutAtTheirBuffers) {
    TraceCapture capture("zevdchcl=detail");
    void *client = start();
    const std::string appl(300, 'a');
    const std::string group(300, 'g');
    const std::string source(300, 's');
    const std::string host(3000, 'h');
    const std::string info(300, 'i');
    std::string line = lineOf(client, report(appl, group, source, host, info, 9));
    EXPECT_EQ(line, std::string(20, 'a') + "," + std::string(32, 'g') + "," + std::string(32, 's') +
                        "," + std::string(256, 'h') + "," + std::string(16, 'i') + ",9");
    EXPECT_TRUE(capture.hasText("applName <" + std::string(20, 'a') + ">\n"));
    // A string field without its terminating zero is cut the same way.
    std::vector<char> bare = DchMessage()
                                 .raw(DCH_applName, std::vector<char>(5, 'b'))
                                 .string(DCH_attrGroup, "G")
                                 .string(DCH_sourceName, "S")
                                 .string(DCH_hostAddr, "h")
                                 .int16(DCH_requestType, 2)
                                 .bytes();
    EXPECT_EQ(lineOf(client, bare), "bbbbb,G,S,h,2");
    EXPECT_EQ(dc_waitForDPStatusDestroy(client), 0);
}

TEST_F(ClientStatusWaitTest, TwoClientsInOneProcessShareTheLineBuffer) {
    void *first = start();
    uint16_t firstPort = port_;
    void *second = start();
    ASSERT_NE(firstPort, port_);
    send(report("B", "G", "S", "h", "", 2));
    port_ = firstPort;
    send(report("A", "G", "S", "h", "", 1));
    char *fromFirst = dc_waitForDPStatus(first);
    ASSERT_NE(fromFirst, nullptr);
    EXPECT_STREQ(fromFirst, "A,G,S,h,1");
    char *fromSecond = dc_waitForDPStatus(second);
    // Kept: one buffer for the process; the second line overwrote the first.
    EXPECT_EQ(fromSecond, fromFirst);
    EXPECT_STREQ(fromFirst, "B,G,S,h,2");
    EXPECT_EQ(dc_waitForDPStatusDestroy(first), 0);
    EXPECT_EQ(dc_waitForDPStatusDestroy(second), 0);
}

TEST_F(ClientStatusWaitTest, InitializeFromEightThreadsAtOnceGivesEightClients) {
    constexpr int kThreads = 8;
    std::vector<void *> clients =
        zevd::test::fromThreadsAtOnce(kThreads, [](int) { return dc_waitForDPStatusInitialize(); });
    std::set<void *> distinct(clients.begin(), clients.end());
    EXPECT_EQ(distinct.size(), static_cast<size_t>(kThreads));
    EXPECT_EQ(distinct.count(nullptr), 0u);
    EXPECT_EQ(distinct.count(client_waitForDPStatus), 1u);
    for (void *client : clients) EXPECT_EQ(dc_waitForDPStatusDestroy(client), 0);
}

}  // namespace
