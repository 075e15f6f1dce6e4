// The client object when its transport cannot be allocated: the request
// functions give 1 and say why, on the socket path and on the LPC path.
// The transport kind is read once per process, so each case runs in a
// fresh run of the program.
#include <gtest/gtest.h>

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <new>

#include "client/zevdchcl.h"
#include "ipc/zevdlpc.h"
#include "ipc/zevdsock.h"
#include "support/alloc_failure.h"
#include "support/fresh_process.h"
#include "support/trace_capture.h"
#include "zevd610.h"

using zevd::test::failArrayOfSize;
using zevd::test::failObjectOfSize;

namespace {

using zevd::test::TraceCapture;

// Each request function once with the transport of the given size failing:
// every one gives 1 and writes text once at the error level.
void requestsFailWithout(size_t transportSize, const char *text) {
    // The client object itself must still be had.
    ASSERT_NE(transportSize, sizeof(DCHclient));
    TraceCapture capture("error");

    failObjectOfSize = transportSize;
    long status = -1;
    long handle = -1;
    EXPECT_EQ(dp_online(&status, &handle, "appl", "group", "source"), 1);
    EXPECT_EQ(failObjectOfSize.load(), 0u) << "the transport was never allocated";
    EXPECT_EQ(capture.count(text), 1u) << capture.joined();

    failObjectOfSize = transportSize;
    EXPECT_EQ(dp_offline(&status, 7), 1);
    EXPECT_EQ(failObjectOfSize.load(), 0u) << "the transport was never allocated";
    EXPECT_EQ(capture.count(text), 2u) << capture.joined();
    for (const std::string &line : capture.textsOf("DCHclientConstructor")) EXPECT_EQ(line, text);
}

TEST(ClientAllocTest, SocketTransportThatCannotBeAllocatedFailsTheRequest) {
    ZEVD_IN_FRESH_PROCESS({
        setenv("ZEVA_DCH_IPCTYPE", "1", 1);
        ASSERT_EQ(ZEVA_GetIPCtype(), 1);
        requestsFailWithout(sizeof(ipcSock), "Error: ipcSock creation failed.\n");
    });
}

TEST(ClientAllocTest, LPCTransportThatCannotBeAllocatedFailsTheRequest) {
    ZEVD_IN_FRESH_PROCESS({
        setenv("ZEVA_DCH_IPCTYPE", "2", 1);
        ASSERT_EQ(ZEVA_GetIPCtype(), 2);
        requestsFailWithout(sizeof(ipcLPC), "Error: ipcLPC creation failed.\n");
    });
}

// A client object that cannot be had: each consumer call says so, and the
// three action calls give their own results (1, 1 and 0: kept, a caller
// cannot tell them from answers).
TEST(ClientAllocTest, ConsumerCallsWithoutAClientGiveTheirOwnResults) {
    ZEVD_IN_FRESH_PROCESS({
        setenv("ZEVA_DCH_IPCTYPE", "2", 1);
        TraceCapture capture("error");
        int length = -1;
        char *text = reinterpret_cast<char *>(&length);
        failObjectOfSize = sizeof(DCHclient);
        EXPECT_EQ(dc_getApplications(&length, &text, nullptr, 1), 1);
        EXPECT_EQ(text, nullptr);
        EXPECT_EQ(length, 0);
        failObjectOfSize = sizeof(DCHclient);
        EXPECT_EQ(dc_sendApplNameList(), 0);
        failObjectOfSize = sizeof(DCHclient);
        EXPECT_EQ(dc_provideAction(1, "o", "n", "s", "a", 1, 0, nullptr), 1);
        failObjectOfSize = sizeof(DCHclient);
        EXPECT_EQ(dc_waitForActionResults(1), 1);
        failObjectOfSize = sizeof(DCHclient);
        EXPECT_EQ(dc_deferReportRequest(nullptr, 1, 0, "k", "t", "s"), 0);
        EXPECT_EQ(failObjectOfSize.load(), 0u);
        EXPECT_EQ(capture.count("Error: allocating DCHclient."), 5u) << capture.joined();
    });
}

}  // namespace
