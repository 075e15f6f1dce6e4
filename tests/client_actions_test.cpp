// Actions and deferred reports against the fake DCH: the requests on the
// wire, the argument lines of the trace, the credential that never reaches
// the trace, and the results of dc_waitForActionResults. The DCH time-out of
// this suite is 1 second (set by ctest).
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "support/client_probe.h"
#include "support/fake_dch.h"
#include "support/fake_dch_fixture.h"
#include "support/trace_capture.h"
#include "zevd610.h"

namespace {

using zevd::test::DchMessage;
using zevd::test::hasLine;
using zevd::test::hexText;
using zevd::test::TraceCapture;
using zevd::test::WireMessage;

// The request dc_provideAction sends; parms NULL leaves its field out.
std::vector<char> provideRequest(int16_t type, const char *owner, const char *node,
                                 const char *subNode, const char *name, int32_t id, int16_t utf8,
                                 const char *parms) {
    auto text = [](WireMessage &m, uint16_t field, const char *value) -> WireMessage & {
        return value != nullptr ? m.string(field, value) : m.field(field, {});
    };
    WireMessage message;
    message.int16(DCH_requestType, ZEVD_REQ_DC_PROVIDE_ACTION)
        .int16(DCH_actionType, static_cast<uint16_t>(type));
    text(message, DCH_actionOwner, owner);
    text(message, DCH_sourceName, node);
    text(message, DCH_sourceName, subNode);
    text(message, DCH_actionName, name);
    message.int32(DCH_actionID, static_cast<uint32_t>(id))
        .int16(DCH_actionUTF8, static_cast<uint16_t>(utf8));
    if (parms != nullptr) message.string(DCH_actionParms, parms);
    return message.bytes();
}

int fieldCount(const std::vector<char> &bytes) {
    zevd::FieldReader reader(bytes.data(), bytes.size());
    int count = 0;
    while (reader.next() != 0) ++count;
    return count;
}

class ClientActionsTest : public zevd::test::FakeDchClientTest {
protected:
    ClientActionsTest() : FakeDchClientTest("1") {}
};

TEST_F(ClientActionsTest, ProvideActionSendsNineFieldsAndTracesItsArgumentsInOrder) {
    TraceCapture capture("zevdchcl=all");
    EXPECT_EQ(dc_provideAction(3, "owner", "node", "sub", "restart", 77, 1,
                               "CMD=restart LOGONID=admin PWD=x"),
              0);
    std::vector<char> request = onlyRequest();
    EXPECT_EQ(request, provideRequest(3, "owner", "node", "sub", "restart", 77, 1,
                                      "CMD=restart LOGONID=admin PWD=x"))
        << hexText(request);
    EXPECT_EQ(fieldCount(request), 9);
    std::vector<std::string> lines;
    for (const std::string &text : capture.textsOf("DCHclient::dc_provideAction"))
        if (text.find(" : <") != std::string::npos || text.rfind("actionParms", 0) == 0)
            lines.push_back(text);
    // Each argument line ends in a blank, and gets its line end from the
    // trace; the subnode comes before the action node.
    const std::vector<std::string> expected = {
        "actionType  : <3> \n",    "actionOwner : <owner> \n",    "subNode     : <sub> \n",
        "actionNode  : <node> \n", "actionName  : <restart> \n",  "actionID    : <77> \n",
        "actionUTF8  : <1> \n",    "actionParms: <CMD=restart>\n"};
    EXPECT_EQ(lines, expected) << capture.joined();
    EXPECT_TRUE(capture.hasText("Writing dc_provideAction message. " +
                                std::to_string(request.size()) + " bytes\n"));
    EXPECT_EQ(capture.textsOf("C::dc_provideAction").back(), "Exit: 0x0\n");
}

TEST_F(ClientActionsTest, ProvideActionWithoutParametersSendsEightFieldsAndNullTextsAsEmpty) {
    EXPECT_EQ(dc_provideAction(-2, nullptr, nullptr, nullptr, nullptr, -5, 0, nullptr), 0);
    std::vector<char> request = onlyRequest();
    EXPECT_EQ(request, provideRequest(-2, nullptr, nullptr, nullptr, nullptr, -5, 0, nullptr))
        << hexText(request);
    EXPECT_EQ(fieldCount(request), 8);
}

TEST_F(ClientActionsTest, ParametersAreTracedOnlyBeforeTheFirstLogonId) {
    struct Case {
        const char *parms;
        const char *line;  // NULL: no parameter line
    };
    const Case cases[] = {
        {"CMD=restart LOGONID=admin PWD=x", "actionParms: <CMD=restart>\n"},
        {"A LOGONID=1 B LOGONID=2", "actionParms: <A>\n"},
        {"CMD=status", nullptr},
        {" LOGONID=admin CMD=x", nullptr},
        {"", nullptr},
    };
    for (const Case &c : cases) {
        TraceCapture capture("zevdchcl=detail");
        size_t before = dch().receivedCount();
        EXPECT_EQ(dc_provideAction(1, "o", "n", "s", "a", 1, 0, c.parms), 0) << c.parms;
        ASSERT_TRUE(dch().waitReceived(before + 1));
        // The message carries the parameters whole.
        EXPECT_EQ(dch().received().back().bytes,
                  provideRequest(1, "o", "n", "s", "a", 1, 0, c.parms))
            << c.parms;
        if (c.line != nullptr) {
            EXPECT_TRUE(capture.hasText(c.line)) << c.parms << capture.joined();
            EXPECT_EQ(capture.count("actionParms"), 1u) << c.parms;
        } else {
            EXPECT_FALSE(capture.contains("actionParms")) << c.parms << capture.joined();
        }
    }
}

TEST_F(ClientActionsTest, CredentialNeverReachesTheTrace) {
    const std::string parms = "CMD=restart LOGONID=s3cretUser PWD=hunter2";
    for (const char *levels : {"error+detail", "all"}) {
        TraceCapture capture(levels);
        size_t before = dch().receivedCount();
        EXPECT_EQ(dc_provideAction(1, "owner", "node", "sub", "restart", 9, 0, parms.c_str()), 0);
        ASSERT_TRUE(dch().waitReceived(before + 1));
        EXPECT_EQ(dch().received().back().bytes,
                  provideRequest(1, "owner", "node", "sub", "restart", 9, 0, parms.c_str()));
        // Every line but the hex dumps: a dump shows the message as sent,
        // which carries the parameters whole by design (it is written only
        // at the dump level, which "error+detail" leaves off).
        size_t dumpLines = 0;
        for (const std::string &line : capture.lines()) {
            if (line.find(" zev0 ZEV0_PrintDump:") != std::string::npos ||
                line.find(" zev0 ") != std::string::npos) {
                ++dumpLines;
                continue;
            }
            for (const char *secret : {"LOGONID", "s3cret", "hunter2", "PWD="})
                EXPECT_EQ(line.find(secret), std::string::npos) << levels << ": " << line;
        }
        EXPECT_TRUE(capture.contains("actionParms: <CMD=restart>")) << levels;
        if (std::string(levels) == "all") {
            EXPECT_GT(dumpLines, 0u);
        } else {
            EXPECT_EQ(dumpLines, 0u);
        }
    }
}

TEST_F(ClientActionsTest, ActionResultIsTheDchsStatus) {
    TraceCapture capture("zevdchcl=all");
    dch().reply(DchMessage().int32(DCH_status, 7).bytes());
    EXPECT_EQ(dc_waitForActionResults(42), 7);
    std::vector<char> request = onlyRequest();
    EXPECT_EQ(request, WireMessage()
                           .int16(DCH_requestType, ZEVD_REQ_DC_WAIT_FOR_ACTION_RESULTS)
                           .int32(DCH_actionID, 42)
                           .bytes());
    for (const char *line :
         {"actionID   : <42>\n", "Getting action results.\n", "actionResults: <7>\n",
          "DUMP[22] of dc_waitForActionResults request.\n",
          "Writing dc_waitForActionResults message. 22 bytes\n"})
        EXPECT_TRUE(capture.hasText(line)) << line << capture.joined();
    EXPECT_TRUE(hasLine(capture, "[@P] Waiting for dc_waitForActionResults response.\n"));
    EXPECT_EQ(capture.textsOf("C::dc_waitForActionResults").back(), "Exit: 0x7\n");
}

TEST_F(ClientActionsTest, EveryFailedExchangeGivesMinusOne) {
    {
        TraceCapture capture("error");
        dch().reply(DchMessage().int32(DCH_handle, 7).bytes());
        EXPECT_EQ(dc_waitForActionResults(1), -1);
        EXPECT_TRUE(capture.hasText("Error: dataType of DCH_status missing: 128\n"))
            << capture.joined();
    }
    {
        // The DCH's own -1 reads the same as a failure.
        dch().reply(DchMessage().int32(DCH_status, -1).bytes());
        EXPECT_EQ(dc_waitForActionResults(2), -1);
    }
    {
        TraceCapture capture("error");
        dch().noReply();
        EXPECT_EQ(dc_waitForActionResults(3), -1);
        EXPECT_TRUE(capture.hasText("Error: ipcRead with wait[1 second] failed\n"))
            << capture.joined();
    }
    {
        zevd::test::DCHclientProbe client(0, 1);
        client.setError(1);
        EXPECT_EQ(client.dc_waitForActionResults(4), -1);
        EXPECT_EQ(client.dc_provideAction(1, "o", "n", "s", "a", 1, 0, nullptr), 1);
        EXPECT_EQ(client.dc_deferReportRequest(nullptr, 1, 0, "k", "t", "s"), 1);
    }
}

TEST_F(ClientActionsTest, DeferredReportSendsTheObjectCutTo32Bits) {
    TraceCapture capture("zevdchcl=all");
    auto *object = reinterpret_cast<void *>(static_cast<uintptr_t>(0x123456789abcdef0ULL));
    EXPECT_EQ(dc_deferReportRequest(object, 12, 1700000000, "KEY", "table", "source"), 0);
    std::vector<char> request = onlyRequest();
    EXPECT_EQ(request, WireMessage()
                           .int16(DCH_requestType, ZEVD_REQ_DC_DEFER_REPORT_REQUEST)
                           .int32(DCH_actionID, 12)
                           .int32(DCH_peltoObject, 0x9abcdef0u)
                           .int32(DCH_currentTime, 1700000000)
                           .string(DCH_applKey, "KEY")
                           .string(DCH_tableName, "table")
                           .string(DCH_sourceName, "source")
                           .bytes())
        << hexText(request);
    std::string size = std::to_string(request.size());
    for (const std::string &line :
         {std::string("actionID    : <12>\n"), std::string("peltoObject : <@0x123456789abcdef0>\n"),
          std::string("currentTime : <1700000000>\n"), std::string("applKey     : <KEY>\n"),
          std::string("tableName   : <table>\n"), std::string("sourceName  : <source>\n"),
          // Kept without line ends: the trace adds them.
          "DUMP[" + size + "] of dc_deferReportRequest:\n",
          "Writing dc_deferReportRequest message. " + size + " bytes\n"})
        EXPECT_TRUE(capture.hasText(line)) << line << capture.joined();
}

}  // namespace
