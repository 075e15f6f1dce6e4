// How long the requests wait for an answer, and what a wait that ends
// without one writes, with a DCH time-out other than 1 second (2, set by
// ctest). The waits here run their full length: the suite is labelled slow.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "support/client_probe.h"
#include "support/fake_dch.h"
#include "support/fake_dch_fixture.h"
#include "support/sock_pair.h"
#include "support/trace_capture.h"
#include "zevd610.h"

namespace {

using zevd::test::DchMessage;
using zevd::test::hasLine;
using zevd::test::TraceCapture;

constexpr long kUntouched = -4242;

class ClientWaitTest : public zevd::test::FakeDchClientTest {
protected:
    ClientWaitTest() : FakeDchClientTest("2") {}
};

TEST_F(ClientWaitTest, NoAnswerWithATimeoutOtherThanOneWritesNoLine) {
    struct Request {
        const char *name;
        int (*call)(long *status);
    };
    const Request requests[] = {
        {"dp_register", [](long *status) { return dp_register(status, "APPL ab"); }},
        {"dp_online",
         [](long *status) {
             long handle = kUntouched;
             return dp_online(status, &handle, "appl", "group", "source");
         }},
        {"dp_offline", [](long *status) { return dp_offline(status, 1); }},
        {"dp_unregister", [](long *status) { return dp_unregister(status, "appl"); }},
        {"dp_data",
         [](long *status) {
             char *row = nullptr;
             long size = 0;
             int16_t value = 1;
             dp_formatData(status, &row, &size, "v", &value, 2, 'S');
             return dp_data(status, 1, 0, &row);
         }},
    };
    for (const Request &r : requests) {
        SCOPED_TRACE(r.name);
        dch().reset();
        TraceCapture capture("zevdchcl=all,zevdsock=detail");
        dch().noReply();
        long status = kUntouched;
        EXPECT_EQ(r.call(&status), 1);
        EXPECT_EQ(status, 5);
        EXPECT_TRUE(capture.contains("] WaitTime[2]\n")) << capture.joined();
        // Only a wait of exactly one second is reported.
        EXPECT_FALSE(capture.contains("ipcRead with wait")) << capture.joined();
        EXPECT_FALSE(capture.contains("Error:")) << capture.joined();
        EXPECT_TRUE(dch().waitReceived(1));
        EXPECT_EQ(dch().received().size(), 1u);
    }
}

TEST_F(ClientWaitTest, OnlineWithANullNameWaitsTheDchTimeout) {
    TraceCapture capture("zevdchcl=all,zevdsock=detail");
    long status = kUntouched;
    long handle = kUntouched;
    EXPECT_EQ(dp_online(&status, &handle, "appl", "group", nullptr), 1);
    EXPECT_EQ(status, 5);
    EXPECT_TRUE(capture.hasText("Error: applName/attrGroup/sourceName were NULL\n"))
        << capture.joined();
    EXPECT_TRUE(hasLine(capture, "[@P] Waiting for dp_online response.\n")) << capture.joined();
    EXPECT_TRUE(capture.contains("] WaitTime[2]\n")) << capture.joined();
    EXPECT_EQ(capture.count("Error:"), 1u) << capture.joined();
    EXPECT_TRUE(dch().received().empty());
}

TEST_F(ClientWaitTest, OnlineWithANullNameReadsAnAnswerThatComesDuringTheWait) {
    TraceCapture capture("zevdchcl=all,zevdsock=detail");
    long status = kUntouched;
    long handle = kUntouched;
    std::vector<char> answer = DchMessage().int32(DCH_status, 11).int32(DCH_handle, 3).bytes();
    int result = zevd::test::answerWhileWaiting(
        capture, answer, [&] { return dp_online(&status, &handle, "appl", nullptr, "source"); });
    EXPECT_EQ(result, 1);
    EXPECT_EQ(status, 11);
    EXPECT_EQ(handle, kUntouched);
    EXPECT_TRUE(capture.hasText("status <11>\n")) << capture.joined();
}

// A row of one attribute, sent by dp_actionData with the given settings.
int sendRow(long *status, short timeout, short retry) {
    char *row = nullptr;
    long size = 0;
    int32_t value = 9;
    dp_formatData(status, &row, &size, "v", &value, 4, 'G');
    int result = dp_actionData(status, 1, 0, &row, timeout, retry);
    EXPECT_EQ(row, nullptr);
    return result;
}

TEST_F(ClientWaitTest, ActionDataWithTimeoutZeroWaitsTheDchTimeout) {
    TraceCapture capture("zevdchcl=all,zevdsock=detail");
    dch().noReply();
    long status = kUntouched;
    EXPECT_EQ(sendRow(&status, 0, 0), 1);
    EXPECT_EQ(status, 5);
    EXPECT_TRUE(hasLine(capture, "[@P] Waiting for dp_data response, timeout: 2 seconds\n"))
        << capture.joined();
    EXPECT_TRUE(capture.contains("] WaitTime[2]\n")) << capture.joined();
    EXPECT_FALSE(capture.contains("ipcRead with wait")) << capture.joined();
}

TEST_F(ClientWaitTest, ActionDataWithTimeoutFiveWaitsFiveSeconds) {
    TraceCapture capture("zevdchcl=all,zevdsock=detail");
    dch().noReply();
    long status = kUntouched;
    EXPECT_EQ(sendRow(&status, 5, 0), 1);
    EXPECT_EQ(status, 5);
    EXPECT_TRUE(hasLine(capture, "[@P] Waiting for dp_data response, timeout: 5 seconds\n"))
        << capture.joined();
    EXPECT_TRUE(capture.contains("] WaitTime[5]\n")) << capture.joined();
    EXPECT_EQ(capture.count("...not retrying"), 1u) << capture.joined();
    EXPECT_FALSE(capture.contains("ipcRead with wait")) << capture.joined();
}

TEST_F(ClientWaitTest, ActionDataReadsAnAnswerThatComesDuringItsWait) {
    TraceCapture capture("zevdchcl=all,zevdsock=detail");
    dch().noReply();
    long status = kUntouched;
    std::vector<char> answer = DchMessage().int32(DCH_status, 0).bytes();
    int result =
        zevd::test::answerWhileWaiting(capture, answer, [&] { return sendRow(&status, 5, 0); });
    EXPECT_EQ(result, 0);
    EXPECT_EQ(status, 0);
    EXPECT_TRUE(capture.contains("] WaitTime[5]\n")) << capture.joined();
}

TEST_F(ClientWaitTest, ActionDataWithTimeoutOneWritesTheOneSecondLine) {
    // The line follows the wait of the call, not the DCH time-out.
    TraceCapture capture("zevdchcl=all");
    dch().noReply();
    long status = kUntouched;
    EXPECT_EQ(sendRow(&status, 1, 0), 1);
    EXPECT_EQ(status, 5);
    EXPECT_TRUE(capture.hasText("Error: ipcRead with wait[1 second] failed\n")) << capture.joined();
}

TEST_F(ClientWaitTest, AnswerLongerThanItsBytesIsNoResponse) {
    // The length word promises more than came: the read waits for the rest
    // (10 seconds) and hands nothing over, so nothing was read.
    TraceCapture capture("zevdchcl=all");
    std::vector<char> answer = DchMessage().int32(DCH_status, 0).int32(DCH_handle, 4).bytes(100);
    dch().reply(answer);
    long status = kUntouched;
    long handle = kUntouched;
    EXPECT_EQ(dp_online(&status, &handle, "appl", "group", "source"), 1);
    EXPECT_EQ(status, ZEVD_STATUS_NO_RESPONSE);
    EXPECT_EQ(handle, kUntouched);
    EXPECT_FALSE(capture.contains("dataType of DCH_status missing")) << capture.joined();
}

}  // namespace
