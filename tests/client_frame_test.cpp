// The client object's frame: the process-wide locks of the data-consumer
// waits, construction and destruction with and without an interrupt socket,
// the read time-out settings, the unfinished operations, the LPC transport,
// and the conditions that end the process.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/socket.h>

#include <cstdlib>
#include <string>

#include "support/client_probe.h"
#include "support/fresh_process.h"
#include "support/sock_probe.h"
#include "support/trace_capture.h"
#include "zevd610.h"

namespace {

using zevd::test::DCHclientProbe;
using zevd::test::ipcSockProbe;
using zevd::test::pointerText;
using zevd::test::TraceCapture;

// No request leaves this suite, but every client resolves the DCH's address.
const bool addressSet = [] {
    setenv("ZEVA_DCH_ADDR", "127.0.0.1", 1);
    return true;
}();

bool isOpen(int fd) {
    return fcntl(fd, F_GETFD) != -1;
}

class ClientFrameTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(addressSet);
        const char *timeout = getenv("ZEVA_DCH_TIMEOUT");
        ASSERT_STREQ(timeout, "3") << "run through ctest, which sets ZEVA_DCH_TIMEOUT=3";
    }
};

TEST_F(ClientFrameTest, ApiInitMakesTheLocksOncePerProcess) {
    TraceCapture capture("zevdchcl=all");
    DCH_api_init();
    EXPECT_EQ(capture.count("Initializing DCHclient locks."), 1u) << capture.joined();
    ASSERT_EQ(pthread_mutex_lock(&_dc_waitOnDataLock), 0);
    // A second init would make the held mutex anew, and so free it.
    DCH_api_init();
    EXPECT_EQ(pthread_mutex_trylock(&_dc_waitOnDataLock), EBUSY);
    EXPECT_EQ(pthread_mutex_unlock(&_dc_waitOnDataLock), 0);
    EXPECT_EQ(ZEVA_GetLock(&_dc_waitOnDataCancelLock, nullptr), 0);
    EXPECT_EQ(ZEVA_ReleaseLock(&_dc_waitOnDataCancelLock, nullptr), 0);
    EXPECT_EQ(ZEVA_GetLock(&_dc_waitForDPStatusLock, nullptr), 0);
    EXPECT_EQ(ZEVA_ReleaseLock(&_dc_waitForDPStatusLock, nullptr), 0);
    EXPECT_EQ(capture.count("Initializing DCHclient locks."), 1u) << capture.joined();

    DCH_api_destroy();
    EXPECT_TRUE(capture.hasText("Destroying DCHclient locks.\n")) << capture.joined();
    // The flag stays set: a later init does not make them again.
    DCH_api_init();
    EXPECT_EQ(capture.count("Initializing DCHclient locks."), 1u) << capture.joined();
}

TEST_F(ClientFrameTest, ApiInitTracesAtTheStorageLevel) {
    TraceCapture capture("zevdchcl=error+entry+detail+dump+flow");
    DCH_api_init();
    EXPECT_FALSE(capture.contains("Initializing DCHclient locks.")) << capture.joined();
    EXPECT_TRUE(capture.contains("Entry")) << capture.joined();
}

TEST_F(ClientFrameTest, ReadTimeoutZeroRestoresTheDchTimeout) {
    DCHclientProbe client(0, 1);
    ASSERT_EQ(client.error(), 0);
    EXPECT_EQ(client.dchTimeout(), 3);
    EXPECT_EQ(client.ipcReadTimeout(), 3);
    client.setReadTimeout(9);
    EXPECT_EQ(client.ipcReadTimeout(), 9);
    EXPECT_EQ(client.dchTimeout(), 3);
    client.setReadTimeout(0);
    EXPECT_EQ(client.ipcReadTimeout(), 3);
    client.setReadTimeout(-5);
    EXPECT_EQ(client.ipcReadTimeout(), -5);
    EXPECT_EQ(client.dchTimeout(), 3);
}

TEST_F(ClientFrameTest, RetryReadReachesTheTransport) {
    DCHclientProbe client(0, 1);
    ASSERT_NE(client.ipcClient(), nullptr);
    client.setRetryRead(4);
    EXPECT_EQ(client.ipcClient()->ipcGetRetryRead(), 4);
    client.setRetryRead(0);
    EXPECT_EQ(client.ipcClient()->ipcGetRetryRead(), 0);
}

TEST_F(ClientFrameTest, WithoutInterruptThereIsNoSocketToClose) {
    TraceCapture capture("zevdchcl=all");
    auto *client = new DCHclientProbe(0, 1);
    EXPECT_EQ(client->error(), 0);
    EXPECT_EQ(client->ipcType(), 1);
    EXPECT_EQ(client->interruptFD(), -999);
    EXPECT_EQ(client->readBuffer(), nullptr);
    const DCHipc *transport = client->ipcClient();
    ASSERT_NE(transport, nullptr);
    int pooled = static_cast<const ipcSock *>(transport)->sockUDP();
    EXPECT_TRUE(ipcSockProbe::inPool(pooled));
    std::string self = pointerText(client);
    std::string sock = pointerText(transport);
    EXPECT_TRUE(capture.hasText("Allocated _ipcClient @" + sock + "\n")) << capture.joined();
    EXPECT_TRUE(capture.hasText("_DCHtimeout=3 _ipcReadTimeout=3\n")) << capture.joined();
    EXPECT_TRUE(capture.hasText("Allocated DCH Client object @" + self + ", _interruptFD[-999]\n"))
        << capture.joined();
    EXPECT_FALSE(capture.contains("_interruptFD socket[")) << capture.joined();

    capture.clear();
    delete client;
    EXPECT_FALSE(capture.contains("Closing socket")) << capture.joined();
    EXPECT_TRUE(capture.hasText("Deleting _ipcClient @" + sock + ", _interruptFD[-999]\n"))
        << capture.joined();
    EXPECT_TRUE(capture.hasText("Deleting DCH Client object @" + self + "\n")) << capture.joined();
    // The borrowed socket went back to the pool, open.
    EXPECT_TRUE(isOpen(pooled));
    const UDPSockElement *list = ipcSockProbe::pool();
    for (int i = 0; i < ipcSockProbe::poolSize(); ++i) {
        if (list[i].sockUDP == pooled) {
            EXPECT_EQ(list[i].inUse, 0);
        }
    }
}

TEST_F(ClientFrameTest, InterruptSocketIsOpenedAndClosed) {
    TraceCapture capture("zevdchcl=all");
    auto *client = new DCHclientProbe(1, 0);
    EXPECT_EQ(client->error(), 0);
    int fd = client->interruptFD();
    ASSERT_GE(fd, 0);
    EXPECT_TRUE(isOpen(fd));
    int type = 0;
    socklen_t typeLength = sizeof type;
    ASSERT_EQ(getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &typeLength), 0);
    EXPECT_EQ(type, SOCK_DGRAM);
    EXPECT_NE(client->interruptPort(), 0);
    EXPECT_EQ(client->interruptPort(), zevd::test::boundPort(fd));
    // Not the transport's socket: the interrupt socket is the client's own.
    EXPECT_NE(fd, static_cast<const ipcSock *>(client->ipcClient())->sockUDP());
    std::string fdText = std::to_string(fd);
    EXPECT_TRUE(capture.hasText("_interruptFD socket[" + fdText + "] bound to port[" +
                                std::to_string(client->interruptPort()) + "]\n"))
        << capture.joined();
    EXPECT_TRUE(capture.hasText("Allocated DCH Client object @" + pointerText(client) +
                                ", _interruptFD[" + fdText + "]\n"))
        << capture.joined();

    capture.clear();
    std::string sock = pointerText(client->ipcClient());
    delete client;
    EXPECT_TRUE(capture.hasText("Closing socket[" + fdText + "]\n")) << capture.joined();
    EXPECT_TRUE(
        capture.hasText("Deleting _ipcClient @" + sock + ", _interruptFD[" + fdText + "]\n"))
        << capture.joined();
    EXPECT_FALSE(isOpen(fd));
}

TEST_F(ClientFrameTest, ShutdownOnlyReports) {
    TraceCapture capture("zevdchcl=all,zevdsock=all");
    DCH_shutdown(7);
    EXPECT_EQ(capture.count("FINISH ME UP!"), 1u) << capture.joined();
    // Written without a line end; the trace ends the line.
    EXPECT_TRUE(capture.hasText("Error: FINISH ME UP!")) << capture.joined();
    EXPECT_FALSE(capture.contains("Sent ")) << capture.joined();
    EXPECT_FALSE(capture.contains("Waiting on SELECT")) << capture.joined();

    DCHclientProbe failed(0, 1);
    failed.setError(1);
    capture.clear();
    failed.shutdown(0);
    EXPECT_FALSE(capture.contains("FINISH ME UP!")) << capture.joined();
}

TEST_F(ClientFrameTest, CancelGivesStatusZeroAndSendsNothing) {
    TraceCapture capture("zevdchcl=all,zevdsock=all");
    long status = 77;
    EXPECT_EQ(dp_cancel(&status, 12), 0);
    EXPECT_EQ(status, 0);
    EXPECT_TRUE(capture.hasText("Error: FINISH ME UP!")) << capture.joined();
    EXPECT_EQ(capture.count("FINISH ME UP!"), 1u) << capture.joined();
    EXPECT_FALSE(capture.contains("Sent ")) << capture.joined();
    EXPECT_FALSE(capture.contains("Waiting on SELECT")) << capture.joined();
    EXPECT_TRUE(capture.contains("Exit: 0x0")) << capture.joined();
}

TEST_F(ClientFrameTest, CancelOnAFailedClientReturnsItsError) {
    TraceCapture capture("zevdchcl=all");
    DCHclientProbe client(0, 1);
    client.setError(1);
    long status = 77;
    EXPECT_EQ(client.dp_cancel(&status, 12), 1);
    EXPECT_EQ(status, 0);
    EXPECT_FALSE(capture.contains("FINISH ME UP!")) << capture.joined();
}

TEST_F(ClientFrameTest, WaitForActionAndProvideActionResultsOnlyReport) {
    TraceCapture capture("zevdchcl=all,zevdsock=all");
    dp_waitForAction(5);
    EXPECT_EQ(capture.count("FINISH ME UP!"), 1u) << capture.joined();
    EXPECT_TRUE(capture.hasText("Error: FINISH ME UP!")) << capture.joined();
    dp_provideActionResults(5, 6);
    EXPECT_EQ(capture.count("FINISH ME UP!"), 2u) << capture.joined();
    EXPECT_FALSE(capture.contains("Sent ")) << capture.joined();
    EXPECT_FALSE(capture.contains("Waiting on SELECT")) << capture.joined();
    // No result: their exit events carry no value.
    size_t withValue = 0;
    for (const std::string &line : capture.lines())
        if (line.find("C::dp_") != std::string::npos && line.find("Exit: 0x") != std::string::npos)
            ++withValue;
    EXPECT_EQ(withValue, 0u) << capture.joined();
}

// A data wait that takes its cancel marks the client -1; a failure that a
// cancel on another thread marked meanwhile (1) stands.
TEST_F(ClientFrameTest, ACancelledWaitLeavesAFailureStanding) {
    DCHerrorFlag flag;
    flag.cancelled();
    EXPECT_EQ(static_cast<int32_t>(flag), -1);
    flag.cancelled();
    EXPECT_EQ(static_cast<int32_t>(flag), -1);
    flag = 1;
    flag.cancelled();
    EXPECT_EQ(static_cast<int32_t>(flag), 1);
}

TEST_F(ClientFrameTest, FailedClientMakesEveryRequestReturnAtOnce) {
    TraceCapture capture("zevdchcl=all,zevdsock=all");
    DCHclientProbe client(0, 1);
    client.setError(1);
    capture.clear();
    long status = 9;
    long handle = 9;
    EXPECT_EQ(client.dp_online(&status, &handle, "appl", "group", "source"), 1);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(handle, 9);
    status = 9;
    EXPECT_EQ(client.dp_register(&status, "APPL ab"), 1);
    EXPECT_EQ(status, 0);
    status = 9;
    EXPECT_EQ(client.dp_offline(&status, 1), 1);
    EXPECT_EQ(status, 0);
    status = 9;
    EXPECT_EQ(client.dp_unregister(&status, "ab"), 1);
    EXPECT_EQ(status, 0);
    status = 9;
    char *row = nullptr;
    long size = 0;
    int32_t value = 1;
    EXPECT_EQ(client.dp_formatData(&status, &row, &size, "a", &value, 4, 'A'), 1);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(row, nullptr);
    EXPECT_EQ(size, 0);
    status = 9;
    EXPECT_EQ(client.dp_data(&status, 1, 0, &row), 1);
    EXPECT_EQ(status, 0);
    EXPECT_FALSE(capture.contains("Writing ")) << capture.joined();
    EXPECT_FALSE(capture.contains("Sent ")) << capture.joined();
    EXPECT_FALSE(capture.contains("Waiting")) << capture.joined();
}

// ---------------------------------------------------------------------------
// The LPC transport: selectable, but it moves no data.
// ---------------------------------------------------------------------------

TEST_F(ClientFrameTest, LpcClientTakesTheTransportTimeoutAndNoInterruptSocket) {
    ZEVD_IN_FRESH_PROCESS({
        setenv("ZEVA_DCH_IPCTYPE", "2", 1);
        TraceCapture capture("zevdchcl=all");
        auto *client = new DCHclientProbe(1, 0);
        EXPECT_EQ(client->ipcType(), 2);
        EXPECT_EQ(client->error(), 0);
        EXPECT_EQ(client->interruptFD(), -999);
        EXPECT_EQ(client->dchTimeout(), 30);
        EXPECT_EQ(client->ipcReadTimeout(), 30);
        std::string lpc = pointerText(client->ipcClient());
        EXPECT_TRUE(capture.hasText("Allocated _ipcClient @" + lpc + "\n")) << capture.joined();
        capture.clear();
        delete client;
        // Exactly so: no "Error: " and no line end of its own.
        EXPECT_TRUE(capture.hasText("FINISH ME UP!!!!")) << capture.joined();
        EXPECT_FALSE(capture.contains("Error: FINISH ME UP!!!!")) << capture.joined();
        EXPECT_TRUE(capture.hasText("Deleting _ipcClient @" + lpc + "\n")) << capture.joined();
        EXPECT_FALSE(capture.contains("Closing socket")) << capture.joined();
    });
}

TEST_F(ClientFrameTest, LpcRequestsReadNothing) {
    ZEVD_IN_FRESH_PROCESS({
        setenv("ZEVA_DCH_IPCTYPE", "2", 1);
        TraceCapture capture("zevdchcl=all");
        long status = -1;
        long handle = -1;
        // The LPC write moves nothing, so the write fails; online and register
        // go on to wait and read nothing.
        EXPECT_EQ(dp_online(&status, &handle, "appl", "group", "source"), 1);
        EXPECT_EQ(status, 5);
        EXPECT_EQ(handle, -1);
        EXPECT_TRUE(capture.hasText("Error: writing dp_online message to DCHserver\n"))
            << capture.joined();
        EXPECT_TRUE(capture.contains("Waiting for dp_online response.")) << capture.joined();
        // The wait is the transport's 30 seconds: no line for it.
        EXPECT_FALSE(capture.contains("ipcRead with wait")) << capture.joined();
        EXPECT_EQ(capture.count("FINISH ME UP!!!!"), 1u) << capture.joined();

        status = -1;
        EXPECT_EQ(dp_register(&status, "APPL ab"), 1);
        EXPECT_EQ(status, 5);
        EXPECT_EQ(capture.count("FINISH ME UP!!!!"), 2u) << capture.joined();

        // Offline and unregister do not wait after a failed write.
        status = -1;
        EXPECT_EQ(dp_offline(&status, 3), 1);
        EXPECT_EQ(status, 2);
        status = -1;
        EXPECT_EQ(dp_unregister(&status, "ab"), 1);
        EXPECT_EQ(status, 2);
        EXPECT_FALSE(capture.contains("Waiting for dp_offline")) << capture.joined();
        EXPECT_FALSE(capture.contains("Waiting for dp_unregister")) << capture.joined();

        char *row = nullptr;
        long size = 0;
        int32_t value = 5;
        status = -1;
        EXPECT_EQ(dp_formatData(&status, &row, &size, "a", &value, 4, 'A'), 0);
        EXPECT_EQ(status, 0);
        ASSERT_NE(row, nullptr);
        status = -1;
        EXPECT_EQ(dp_data(&status, 3, 0, &row), 1);
        EXPECT_EQ(status, 2);
        EXPECT_EQ(row, nullptr);
        EXPECT_EQ(capture.count("FINISH ME UP!!!!"), 6u) << capture.joined();
    });
}

// ---------------------------------------------------------------------------
// Paths that end the process. The trace goes to standard error here, where
// the death test reads it.
// ---------------------------------------------------------------------------

void traceToStandardError() {
    unsetenv("ZEVA_TRACE_FILE");
    setenv("ZEVA_TRACE", "error", 1);
    TLG1_Configure(nullptr);
}

TEST_F(ClientFrameTest, UnknownIpcTypeEndsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            setenv("ZEVA_DCH_IPCTYPE", "3", 1);
            traceToStandardError();
            DCHclientProbe client(0, 1);
        },
        ::testing::ExitedWithCode(1),
        " zevdchcl DCHclientConstructor:[0-9]+ Error: Unrecognized IPC type 3, exiting\\.\\.\\.\n");
}

TEST_F(ClientFrameTest, UnknownIpcTypeEndsTheCallingProcessFromAnyRequest) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            setenv("ZEVA_DCH_IPCTYPE", "0x1", 1);  // converts to 0: not a kind
            traceToStandardError();
            long status = 0;
            dp_offline(&status, 1);
        },
        ::testing::ExitedWithCode(1), "Error: Unrecognized IPC type 0, exiting\\.\\.\\.\n");
}

// With the trace off, the reason still reaches standard error, as the one
// line there.
void traceOff() {
    unsetenv("ZEVA_TRACE_FILE");
    setenv("ZEVA_TRACE", "none", 1);
    TLG1_Configure(nullptr);
}

TEST_F(ClientFrameTest, UnresolvableDchAddressEndsTheProcessSayingWhyWithTheTraceOff) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            setenv("ZEVA_DCH_ADDR", "no-such-host.invalid", 1);
            traceOff();
            long status = 0;
            long handle = 0;
            dp_online(&status, &handle, "appl", "group", "source");
        },
        ::testing::ExitedWithCode(1),
        "^[^\n]+: libzevd610: the transport to the DCH cannot start: the DCH address "
        "\"no-such-host\\.invalid\" does not resolve \\(ZEVA_DCH_ADDR, or the local host name "
        "when it is not set\\), exiting\n$");
}

TEST_F(ClientFrameTest, UnknownIpcTypeEndsTheProcessSayingWhyWithTheTraceOff) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            setenv("ZEVA_DCH_IPCTYPE", "7", 1);
            traceOff();
            long status = 0;
            dp_offline(&status, 1);
        },
        ::testing::ExitedWithCode(1),
        "^[^\n]+: libzevd610: unknown IPC type 7 \\(ZEVA_DCH_IPCTYPE: 1 for sockets, 2 for "
        "LPC\\), exiting\n$");
}

TEST_F(ClientFrameTest, TransportThatCannotStartEndsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            setenv("ZEVA_DCH_ADDR", "no-such-host.invalid", 1);
            traceToStandardError();
            long status = 0;
            long handle = 0;
            dp_online(&status, &handle, "appl", "group", "source");
        },
        ::testing::ExitedWithCode(1),
        " zevdchcl DCHclientConstructor:[0-9]+ Error: DCH Client cannot continue\\. IPC "
        "initialization failed, exiting\\.\\.\\.\n");
}

}  // namespace
