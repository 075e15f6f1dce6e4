// Requests whose write fails. ctest points this suite's DCH at port 0 of
// 127.0.0.1, to which every UDP send fails (EINVAL): the real transport
// write fails as it would for any unreachable DCH address, without a fake
// transport in its place. The DCH time-out is 1 second.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <future>
#include <string>
#include <vector>

#include "support/client_probe.h"
#include "support/sock_pair.h"
#include "support/trace_capture.h"
#include "zevd610.h"

namespace {

using zevd::test::hasLine;
using zevd::test::pointerText;
using zevd::test::TraceCapture;

constexpr long kUntouched = -4242;

// Lines written by the transport's read: none when nothing was awaited.
size_t readLines(const TraceCapture &capture) {
    size_t n = 0;
    for (const std::string &line : capture.lines())
        if (line.find(" ipcSock::ipcRead:") != std::string::npos) ++n;
    return n;
}

class ClientWriteFailTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_STREQ(getenv("ZEVA_DCH_PORT"), "0")
            << "run through ctest, which sets ZEVA_DCH_PORT=0";
        ASSERT_STREQ(getenv("ZEVA_DCH_TIMEOUT"), "1");
    }
};

TEST_F(ClientWriteFailTest, OfflineReturnsAtOnceWithoutWaiting) {
    TraceCapture capture("zevdchcl=all,zevdsock=all");
    long status = kUntouched;
    EXPECT_EQ(dp_offline(&status, 5), 1);
    EXPECT_EQ(status, 2);
    EXPECT_TRUE(capture.contains("Error: [@")) << capture.joined();  // the send's own line
    EXPECT_TRUE(capture.hasText("Error: writing dp_offline message to DCHserver\n"))
        << capture.joined();
    EXPECT_FALSE(capture.contains("Waiting for dp_offline")) << capture.joined();
    EXPECT_FALSE(capture.contains("Getting Status info")) << capture.joined();
    EXPECT_EQ(readLines(capture), 0u) << capture.joined();
}

TEST_F(ClientWriteFailTest, UnregisterReturnsAtOnceWithoutWaiting) {
    TraceCapture capture("zevdchcl=all,zevdsock=all");
    long status = kUntouched;
    EXPECT_EQ(dp_unregister(&status, "appl"), 1);
    EXPECT_EQ(status, 2);
    EXPECT_TRUE(capture.hasText("Error: writing dp_unregister message to DCHserver\n"))
        << capture.joined();
    EXPECT_FALSE(capture.contains("Waiting for dp_unregister")) << capture.joined();
    EXPECT_EQ(readLines(capture), 0u) << capture.joined();
}

TEST_F(ClientWriteFailTest, OnlineStillWaitsAfterAFailedWrite) {
    TraceCapture capture("zevdchcl=all,zevdsock=detail");
    long status = kUntouched;
    long handle = kUntouched;
    EXPECT_EQ(dp_online(&status, &handle, "appl", "group", "source"), 1);
    // 2 for the write, then 5 for the wait that found nothing.
    EXPECT_EQ(status, 5);
    EXPECT_EQ(handle, kUntouched);
    EXPECT_TRUE(capture.hasText("Error: writing dp_online message to DCHserver\n"))
        << capture.joined();
    EXPECT_TRUE(hasLine(capture, "[@P] Waiting for dp_online response.\n")) << capture.joined();
    EXPECT_TRUE(capture.hasText("Error: ipcRead with wait[1 second] failed\n")) << capture.joined();
    EXPECT_GT(readLines(capture), 0u);
}

TEST_F(ClientWriteFailTest, OnlineAfterAFailedWriteTakesNoAnswerFromAnotherPort) {
    // The wait after the failed write reads the DCH's port only, and no
    // socket can send from port 0: an answer from any port of this host is
    // a stranger's, dropped, and the wait ends with nothing (5).
    TraceCapture capture("zevdchcl=all,zevdsock=error+detail");
    long status = kUntouched;
    long handle = kUntouched;
    std::vector<char> answer =
        zevd::test::hexBytes("00000018 0011 00000004 00000000 0080 00000004 00000009");
    std::future<int> result = std::async(
        std::launch::async, [&] { return dp_online(&status, &handle, "appl", "group", "source"); });
    uint16_t port = zevd::test::waitingReadPort(capture);
    ASSERT_NE(port, 0) << capture.joined();
    zevd::test::RawSender sender(port);
    ASSERT_TRUE(sender.send(answer));
    EXPECT_EQ(result.get(), 1);
    EXPECT_EQ(status, 5);
    EXPECT_EQ(handle, kUntouched);
    EXPECT_TRUE(capture.contains("Error: dropped a datagram of 24 bytes from 127.0.0.1 port " +
                                 std::to_string(sender.port()) + ": only the DCH may answer\n"))
        << capture.joined();
    EXPECT_TRUE(capture.hasText("Error: ipcRead with wait[1 second] failed\n")) << capture.joined();
}

TEST_F(ClientWriteFailTest, RegisterStillWaitsAfterAFailedWrite) {
    TraceCapture capture("zevdchcl=all");
    long status = kUntouched;
    EXPECT_EQ(dp_register(&status, "APPL ab"), 1);
    EXPECT_EQ(status, 5);
    EXPECT_TRUE(capture.hasText("Error: writing dp_register message to DCHserver for [APPL ab]\n"))
        << capture.joined();
    EXPECT_TRUE(hasLine(capture, "[@P] Waiting for dp_register response.\n")) << capture.joined();
    EXPECT_TRUE(capture.hasText("Error: ipcRead with wait[1 second] failed\n")) << capture.joined();
}

TEST_F(ClientWriteFailTest, DataFreesTheRowAndDoesNotWait) {
    char *buffer = nullptr;
    long size = 0;
    long status = kUntouched;
    int32_t value = 3;
    ASSERT_EQ(dp_formatData(&status, &buffer, &size, "v", &value, 4, 'A'), 0);
    ASSERT_NE(buffer, nullptr);
    std::string row = pointerText(buffer);
    TraceCapture capture("zevdchcl=all,zevdsock=all");
    status = kUntouched;
    EXPECT_EQ(dp_data(&status, 1, 0, &buffer), 1);
    EXPECT_EQ(status, 2);
    EXPECT_EQ(buffer, nullptr);
    EXPECT_TRUE(capture.hasText("Error: writing dp_data message to DCHserver\n"))
        << capture.joined();
    EXPECT_TRUE(capture.hasText("Deleting workBuffer @" + row + "\n")) << capture.joined();
    EXPECT_FALSE(capture.contains("Waiting for dp_data")) << capture.joined();
    EXPECT_EQ(readLines(capture), 0u) << capture.joined();
}

TEST_F(ClientWriteFailTest, ActionDataFreesTheRowAndDoesNotWait) {
    char *buffer = nullptr;
    long size = 0;
    long status = kUntouched;
    ASSERT_EQ(dp_formatData(&status, &buffer, &size, "v", "text", 5, 'D'), 0);
    TraceCapture capture("zevdchcl=all,zevdsock=all");
    status = kUntouched;
    EXPECT_EQ(dp_actionData(&status, 1, 0, &buffer, 5, 1), 1);
    EXPECT_EQ(status, 2);
    EXPECT_EQ(buffer, nullptr);
    EXPECT_FALSE(capture.contains("Waiting for dp_data")) << capture.joined();
    EXPECT_EQ(readLines(capture), 0u) << capture.joined();
}

TEST_F(ClientWriteFailTest, ActionResultsStillWaitAfterAFailedWriteAndGiveMinusOne) {
    TraceCapture capture("error,ipcSock::ipcRead=detail");
    // Kept: the wait follows the failed write, and ends by its time-out.
    EXPECT_EQ(dc_waitForActionResults(7), -1);
    EXPECT_TRUE(capture.hasText("Error: writing dc_waitForActionResults message to DCHserver\n"))
        << capture.joined();
    EXPECT_GT(readLines(capture), 0u);
    EXPECT_TRUE(capture.hasText("Error: ipcRead with wait[1 second] failed\n"));
}

TEST_F(ClientWriteFailTest, ConsumerRequestsWithoutAnAnswerFailAtOnce) {
    TraceCapture capture("error,ipcSock::ipcRead=detail");
    EXPECT_EQ(dc_provideAction(1, "o", "n", "s", "a", 1, 0, nullptr), 1);
    EXPECT_TRUE(capture.hasText("Error: dc_provideAction failed.\n")) << capture.joined();
    EXPECT_EQ(dc_deferReportRequest(nullptr, 1, 0, "k", "t", "s"), 1);
    // Kept without a line end.
    EXPECT_TRUE(capture.hasText("Error: writing dc_deferReportRequest message to DCHserver"));
    EXPECT_EQ(dc_sendApplNameList(), -1);
    int length = -1;
    char *text = nullptr;
    EXPECT_EQ(dc_getApplications(&length, &text, nullptr, 1), 1);
    EXPECT_EQ(text, nullptr);
    EXPECT_EQ(readLines(capture), 0u);
}

}  // namespace
