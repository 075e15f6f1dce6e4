// The catalogue queries and dc_sendApplNameList against the fake DCH: the
// requests on the wire, the text handed to the caller, and what each makes
// of a wrong, empty, long or missing answer. The DCH time-out of this suite
// is 1 second (set by ctest); the queries wait as long as they are told.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <malloc.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "support/client_probe.h"
#include "support/fake_dch.h"
#include "support/fake_dch_fixture.h"
#include "support/fresh_process.h"
#include "support/trace_capture.h"
#include "zevd610.h"

namespace {

using zevd::test::DchMessage;
using zevd::test::hasLine;
using zevd::test::hexText;
using zevd::test::TraceCapture;
using zevd::test::WireMessage;

// An answer of one DCH_response field holding text (without a zero).
std::vector<char> answer(const std::string &text) {
    return DchMessage().raw(DCH_response, std::vector<char>(text.begin(), text.end())).bytes();
}

std::vector<char> query(uint16_t code, const char *applName) {
    WireMessage message;
    message.int16(DCH_requestType, code);
    if (applName != nullptr) message.string(DCH_applName, applName);
    return message.bytes();
}

class ClientCatalogueTest : public zevd::test::FakeDchClientTest {
protected:
    ClientCatalogueTest() : FakeDchClientTest("1") {}
};

TEST_F(ClientCatalogueTest, ApplicationsWithoutANameSendOnlyTheRequestType) {
    TraceCapture capture("zevdchcl=all");
    dch().reply(answer("demo other"));
    int length = -1;
    char *text = nullptr;
    EXPECT_EQ(dc_getApplications(&length, &text, nullptr, 5), 0);
    ASSERT_NE(text, nullptr);
    EXPECT_EQ(length, 10);
    EXPECT_STREQ(text, "demo other");
    std::vector<char> request = onlyRequest();
    EXPECT_EQ(request, query(ZEVD_REQ_DC_GET_APPLICATIONS, nullptr)) << hexText(request);
    for (const char *line :
         {"DUMP[12] of dc_getApplications request.\n",
          "Writing dc_getApplications message. 12 bytes\n", "Getting Application info.\n",
          "Appl Info [10][demo other]\n", "buffer[10][demo other]\n"})
        EXPECT_TRUE(capture.hasText(line)) << line << capture.joined();
    EXPECT_TRUE(hasLine(capture, "[@P] Waiting for dc_getApplications response.\n"));
    EXPECT_TRUE(hasLine(capture, "Allocated applInfo buffer @P\n"));
    EXPECT_TRUE(hasLine(capture, "Deleting _readBuffer<@P>\n"));
    EXPECT_FALSE(capture.contains("wait="));
    std::vector<std::string> exported = capture.textsOf("C::dc_getApplications");
    ASSERT_GE(exported.size(), 2u);
    EXPECT_EQ(exported.front(), "Entry\n");
    EXPECT_EQ(exported.back(), "Exit: 0x0\n");
    EXPECT_EQ(capture.textsOf("DCHclient::dc_getApplications").back(), "Exit: 0xa\n");
    free(text);
}

TEST_F(ClientCatalogueTest, ApplicationsWithANameSendIt) {
    dch().reply(answer("demo"));
    int length = -1;
    char *text = nullptr;
    EXPECT_EQ(dc_getApplications(&length, &text, "demo", 5), 0);
    EXPECT_EQ(onlyRequest(), query(ZEVD_REQ_DC_GET_APPLICATIONS, "demo"));
    EXPECT_STREQ(text, "demo");
    free(text);
}

TEST_F(ClientCatalogueTest, AttributesAndHelpAlwaysSendTheNameAndTraceTheirOwnLines) {
    TraceCapture capture("zevdchcl=all");
    dch().reply(answer("disk,mount,D,64"));
    dch().reply(answer("disk,mount,Mount point"));
    int length = -1;
    char *text = nullptr;
    EXPECT_EQ(dc_getApplAttributes(&length, &text, "demo", 5), 0);
    EXPECT_STREQ(text, "disk,mount,D,64");
    free(text);
    EXPECT_EQ(dc_getApplHelp(&length, &text, "demo", 5), 0);
    EXPECT_STREQ(text, "disk,mount,Mount point");
    EXPECT_EQ(length, 22);
    free(text);
    ASSERT_TRUE(dch().waitReceived(2));
    EXPECT_EQ(dch().received()[0].bytes, query(ZEVD_REQ_DC_GET_APPL_ATTRIBUTES, "demo"));
    EXPECT_EQ(dch().received()[1].bytes, query(ZEVD_REQ_DC_GET_APPL_HELP, "demo"));
    for (const char *line :
         {"applName <demo> wait=5\n", "Getting Attribute characteristics.\n",
          "Attr Info [15][disk,mount,D,64]\n", "[22] helpText[disk,mount,Mount point]\n",
          "Writing dc_getApplAttributes message. 23 bytes\n",
          "Writing dc_getApplHelp message. 23 bytes\n"})
        EXPECT_TRUE(capture.hasText(line)) << line << capture.joined();
    EXPECT_EQ(capture.count("applName <demo> wait=5"), 2u);
    EXPECT_TRUE(hasLine(capture, "Allocated attrInfo buffer @P\n"));
    EXPECT_TRUE(hasLine(capture, "Allocated helpInfo buffer @P\n"));
    // Help has no progress line.
    EXPECT_EQ(capture.count("Getting "), 1u);
    // A NULL name goes as a field of no value.
    dch().reply(answer("x"));
    EXPECT_EQ(dc_getApplHelp(&length, &text, nullptr, 5), 0);
    ASSERT_TRUE(dch().waitReceived(3));
    EXPECT_EQ(dch().received()[2].bytes, WireMessage()
                                             .int16(DCH_requestType, ZEVD_REQ_DC_GET_APPL_HELP)
                                             .field(DCH_applName, {})
                                             .bytes());
    free(text);
}

TEST_F(ClientCatalogueTest, AnswerWithoutTheResponseFieldFails) {
    TraceCapture capture("error");
    dch().reply(DchMessage().int32(DCH_status, 0).bytes());
    int length = -1;
    char *text = reinterpret_cast<char *>(&length);  // must become NULL
    EXPECT_EQ(dc_getApplications(&length, &text, nullptr, 5), 1);
    EXPECT_EQ(text, nullptr);
    EXPECT_EQ(length, 0);
    EXPECT_TRUE(capture.hasText("Error: dataType of DCH_response missing: 17\n"))
        << capture.joined();
    EXPECT_TRUE(capture.hasText("Error: dc_getApplications failed.\n"));
}

TEST_F(ClientCatalogueTest, EmptyAnswerFailsThoughTheDchAnswered) {
    TraceCapture capture("zevdchcl=all");
    dch().reply(answer(""));
    int length = -1;
    char *text = nullptr;
    EXPECT_EQ(dc_getApplAttributes(&length, &text, "demo", 5), 1);
    EXPECT_EQ(text, nullptr);
    EXPECT_EQ(length, 0);
    // Kept: the one-byte block was allocated, and is not freed.
    EXPECT_TRUE(hasLine(capture, "Allocated attrInfo buffer @P\n")) << capture.joined();
    EXPECT_TRUE(capture.hasText("Error: dc_getApplAttributes failed.\n"));
}

TEST_F(ClientCatalogueTest, TextIsZeroTerminatedAndWholeWhenTheAnswerTakesTwoDatagrams) {
    std::string long_(9000 - 10, 'x');
    long_[0] = 'A';
    long_.back() = 'Z';
    std::vector<char> whole = answer(long_);
    ASSERT_EQ(whole.size(), 9000u);
    dch().reply(whole);
    int length = -1;
    char *text = nullptr;
    // Blocks come from malloc filled with non-zero bytes: the terminator is
    // the query's own.
    mallopt(M_PERTURB, 0x7f);
    EXPECT_EQ(dc_getApplHelp(&length, &text, "demo", 15), 0);
    mallopt(M_PERTURB, 0);
    ASSERT_NE(text, nullptr);
    EXPECT_EQ(length, static_cast<int>(long_.size()));
    EXPECT_EQ(std::string(text), long_);
    EXPECT_EQ(text[length], '\0');
    free(text);
}

TEST_F(ClientCatalogueTest, ReadFailureWritesItsLineOnlyForAWaitOfOneSecond) {
    int length = -1;
    char *text = nullptr;
    {
        TraceCapture capture("error");
        dch().noReply();
        EXPECT_EQ(dc_getApplications(&length, &text, nullptr, 1), 1);
        EXPECT_TRUE(capture.hasText("Error: ipcRead with wait[1 second] failed\n"))
            << capture.joined();
    }
    {
        // Kept: any other wait fails without a line of its own.
        TraceCapture capture("error");
        dch().noReply();
        EXPECT_EQ(dc_getApplications(&length, &text, nullptr, 2), 1);
        EXPECT_FALSE(capture.contains("ipcRead with wait")) << capture.joined();
        EXPECT_TRUE(capture.hasText("Error: dc_getApplications failed.\n"));
    }
    {
        // 65537 is narrowed to 16 bits: 1.
        TraceCapture capture("error");
        dch().noReply();
        EXPECT_EQ(dc_getApplications(&length, &text, nullptr, 65537), 1);
        EXPECT_TRUE(capture.hasText("Error: ipcRead with wait[1 second] failed\n"))
            << capture.joined();
    }
    {
        TraceCapture capture("error");
        dch().noReply();
        dch().noReply();
        EXPECT_EQ(dc_getApplAttributes(&length, &text, "demo", 1), 1);
        EXPECT_EQ(dc_getApplHelp(&length, &text, "demo", 1), 1);
        EXPECT_TRUE(capture.hasText(
            "Error: while waiting 1 second(s) for dc_getApplAttributes response.\n"))
            << capture.joined();
        EXPECT_TRUE(
            capture.hasText("Error: while waiting 1 second(s) for dc_getApplHelp response.\n"));
    }
    EXPECT_EQ(text, nullptr);
    EXPECT_EQ(length, 0);
}

TEST_F(ClientCatalogueTest, NowhereToPutTheTextIsRefusedWithoutAsking) {
    TraceCapture capture("error");
    int length = -1;
    char *text = nullptr;
    EXPECT_EQ(dc_getApplications(nullptr, &text, nullptr, 1), 1);
    EXPECT_EQ(dc_getApplHelp(&length, nullptr, "demo", 1), 1);
    EXPECT_EQ(capture.count("Error: length/buffer were NULL"), 2u);
    EXPECT_EQ(dch().receivedCount(), 0u);
}

TEST_F(ClientCatalogueTest, NameListRequestCarriesAnEmptySourceFieldAndReadsNothing) {
    TraceCapture capture("zevdchcl=all");
    EXPECT_EQ(dc_sendApplNameList(), 0);
    std::vector<char> expected = WireMessage()
                                     .int16(DCH_requestType, ZEVD_REQ_DC_SEND_APPL_NAME_LIST)
                                     .field(DCH_sourceName, {})
                                     .bytes();
    EXPECT_EQ(onlyRequest(), expected) << hexText(onlyRequest());
    EXPECT_TRUE(capture.hasText("DUMP[18] of dc_sendApplNameList request.\n"));
    EXPECT_TRUE(capture.hasText("Writing dc_sendApplNameList message. 18 bytes\n"));
    EXPECT_FALSE(capture.contains("Waiting for"));

    // A client already in error sends nothing and says so.
    zevd::test::DCHclientProbe client(0, 1);
    client.setError(1);
    EXPECT_EQ(client.dc_sendApplNameList(), -1);
    EXPECT_TRUE(capture.hasText("Error: Not performing dc_sendApplNameList, error code: 1\n"));
}

TEST_F(ClientCatalogueTest, FailedClientAsksNothing) {
    zevd::test::DCHclientProbe client(0, 1);
    client.setError(1);
    char *text = nullptr;
    EXPECT_EQ(client.dc_getApplications(&text, nullptr, 1), 0);
    EXPECT_EQ(client.dc_getApplAttributes(&text, "demo", 1), 0);
    EXPECT_EQ(client.dc_getApplHelp(&text, "demo", 1), 0);
    EXPECT_EQ(text, nullptr);
    EXPECT_EQ(dch().receivedCount(), 0u);
}

// Under the LPC transport, which carries nothing, every consumer call fails
// without sending.
TEST(ClientConsumerLpcTest, EveryCallFailsWithoutSending) {
    ZEVD_IN_FRESH_PROCESS({
        setenv("ZEVA_DCH_IPCTYPE", "2", 1);
        TraceCapture capture("error");
        int length = -1;
        char *text = nullptr;
        EXPECT_EQ(dc_getApplications(&length, &text, nullptr, 1), 1);
        EXPECT_EQ(dc_getApplAttributes(&length, &text, "demo", 1), 1);
        EXPECT_EQ(dc_getApplHelp(&length, &text, "demo", 1), 1);
        EXPECT_EQ(text, nullptr);
        EXPECT_EQ(dc_sendApplNameList(), -1);
        EXPECT_EQ(dc_provideAction(1, "owner", "node", "sub", "name", 5, 0, "P=1"), 1);
        EXPECT_EQ(dc_waitForActionResults(5), -1);
        EXPECT_EQ(dc_deferReportRequest(nullptr, 5, 0, "key", "table", "source"), 1);
        EXPECT_EQ(dc_waitOnDataInitialize("appl", "group"), nullptr);
        EXPECT_EQ(dc_waitForDPStatusInitialize(), nullptr);
        EXPECT_TRUE(capture.contains("Error: writing dc_getApplications message to DCHserver"))
            << capture.joined();
        EXPECT_TRUE(capture.contains("Error: writing dc_provideAction message to DCHserver"));
        EXPECT_TRUE(capture.contains("Error: writing dc_deferReportRequest message to DCHserver"));
    });
}

}  // namespace
