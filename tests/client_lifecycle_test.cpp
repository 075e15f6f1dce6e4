// The data-provider lifecycle requests against the fake DCH: the bytes of
// dp_register, dp_online, dp_offline and dp_unregister as the DCH receives
// them, and what each makes of the answers it may get, or of none. The DCH
// time-out of this suite is 1 second (set by ctest).
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <optional>
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
using zevd::test::hexBytes;
using zevd::test::hexText;
using zevd::test::normalized;
using zevd::test::TraceCapture;

constexpr long kUntouched = -4242;

// Position of the first line that reads text (as hasLine), or -1.
int lineIndex(const TraceCapture &capture, const std::string &text) {
    std::vector<std::string> texts = capture.texts();
    for (size_t i = 0; i < texts.size(); ++i)
        if (normalized(texts[i]) == text) return static_cast<int>(i);
    return -1;
}

std::vector<char> statusAndHandle(int32_t status, int32_t handle) {
    return DchMessage().int32(DCH_status, status).int32(DCH_handle, handle).bytes();
}

std::vector<char> statusOnly(int32_t status) {
    return DchMessage().int32(DCH_status, status).bytes();
}

// The first keep bytes of message, with a length word that says keep.
std::vector<char> cutTo(std::vector<char> message, uint32_t keep) {
    message.resize(keep);
    uint32_t word = htonl(keep);
    memcpy(message.data(), &word, sizeof word);
    return message;
}

class ClientLifecycleTest : public zevd::test::FakeDchClientTest {
protected:
    ClientLifecycleTest() : FakeDchClientTest("1") {}
};

// ---------------------------------------------------------------------------
// dp_online
// ---------------------------------------------------------------------------

TEST_F(ClientLifecycleTest, OnlineSendsItsNamesInOrderAndTakesTheHandle) {
    TraceCapture capture("zevdchcl=all");
    dch().reply(statusAndHandle(0, 42));
    long status = kUntouched;
    long handle = kUntouched;
    EXPECT_EQ(dp_online(&status, &handle, "a", "b", "c"), 0);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(handle, 42);
    std::vector<char> expected = hexBytes(
        "00000024"
        "0010 00000002 1015"
        "0020 00000002 6100"
        "0023 00000002 6200"
        "0022 00000002 6300");
    std::vector<char> request = onlyRequest();
    EXPECT_EQ(request, expected) << hexText(request);

    int dump = lineIndex(capture, "DUMP[36] of dp_online request.\n");
    int writing = lineIndex(capture, "Writing dp_online message. 36 bytes\n");
    int waiting = lineIndex(capture, "[@P] Waiting for dp_online response.\n");
    int statusLine = lineIndex(capture, "status <0>\n");
    int handleLine = lineIndex(capture, "handle <42>\n");
    int deleting = lineIndex(capture, "Deleting _readBuffer<@P>\n");
    EXPECT_GE(dump, 0) << capture.joined();
    EXPECT_LT(dump, writing) << capture.joined();
    EXPECT_LT(writing, waiting) << capture.joined();
    EXPECT_LT(waiting, statusLine) << capture.joined();
    EXPECT_LT(statusLine, handleLine) << capture.joined();
    EXPECT_LT(handleLine, deleting) << capture.joined();
    EXPECT_FALSE(capture.contains("Error:")) << capture.joined();
    // The dump line is followed by the request's 36 bytes, 16 a line.
    std::vector<std::string> lines = capture.lines();
    int dumped = 0;
    for (int i = dump + 1; i < writing; ++i)
        if (lines[static_cast<size_t>(i)].find(" zev0 ") != std::string::npos) ++dumped;
    EXPECT_EQ(dumped, 3) << capture.joined();
}

TEST_F(ClientLifecycleTest, OnlineNamesAtTheirLimitsAreSent) {
    const std::string appl(20, 'a');
    const std::string group(32, 'g');
    const std::string source(32, 's');
    dch().reply(statusAndHandle(0, 7));
    long status = kUntouched;
    long handle = kUntouched;
    EXPECT_EQ(dp_online(&status, &handle, appl.c_str(), group.c_str(), source.c_str()), 0);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(handle, 7);
    std::vector<char> expected = zevd::test::WireMessage()
                                     .int16(DCH_requestType, 0x1015)
                                     .string(DCH_applName, appl)
                                     .string(DCH_attrGroup, group)
                                     .string(DCH_sourceName, source)
                                     .bytes();
    ASSERT_EQ(expected.size(), 117u);
    std::vector<char> request = onlyRequest();
    EXPECT_EQ(request, expected) << hexText(request);
}

TEST_F(ClientLifecycleTest, OnlineNameOverItsLimitIsRejectedAndTheWaitStillRuns) {
    struct Case {
        size_t appl, group, source;
        const char *line;
    };
    const Case cases[] = {
        {21, 32, 32, "Error: max length exceeded: applName[21] attrGroup[32] sourceName[32]\n"},
        {20, 33, 32, "Error: max length exceeded: applName[20] attrGroup[33] sourceName[32]\n"},
        {20, 32, 33, "Error: max length exceeded: applName[20] attrGroup[32] sourceName[33]\n"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.line);
        dch().reset();
        TraceCapture capture("zevdchcl=all");
        const std::string appl(c.appl, 'a');
        const std::string group(c.group, 'g');
        const std::string source(c.source, 's');
        long status = kUntouched;
        long handle = kUntouched;
        EXPECT_EQ(dp_online(&status, &handle, appl.c_str(), group.c_str(), source.c_str()), 1);
        // Rejected (1), then the wait found nothing (5).
        EXPECT_EQ(status, 5);
        EXPECT_EQ(handle, kUntouched);
        EXPECT_TRUE(capture.hasText(c.line)) << capture.joined();
        EXPECT_FALSE(capture.contains("Writing dp_online")) << capture.joined();
        EXPECT_TRUE(hasLine(capture, "[@P] Waiting for dp_online response.\n")) << capture.joined();
        EXPECT_TRUE(capture.hasText("Error: ipcRead with wait[1 second] failed\n"))
            << capture.joined();
        // The wait has ended, so anything sent would have arrived by now.
        EXPECT_TRUE(dch().received().empty());
    }
}

TEST_F(ClientLifecycleTest, OnlineRejectedNameTakesTheStatusOfAnAnswerThatComes) {
    TraceCapture capture("zevdchcl=all,zevdsock=detail");
    const std::string appl(21, 'a');
    long status = kUntouched;
    long handle = kUntouched;
    int result = zevd::test::answerWhileWaiting(capture, statusAndHandle(6, 99), [&] {
        return dp_online(&status, &handle, appl.c_str(), "g", "s");
    });
    EXPECT_EQ(result, 1);
    EXPECT_EQ(status, 6);
    // The handle is read only while the client is healthy.
    EXPECT_EQ(handle, kUntouched);
    EXPECT_TRUE(capture.hasText("status <6>\n")) << capture.joined();
    EXPECT_FALSE(capture.contains("handle <")) << capture.joined();
}

TEST_F(ClientLifecycleTest, OnlineWithANullNameReportsItAndStillWaits) {
    const char *names[3][3] = {
        {nullptr, "g", "s"},
        {"a", nullptr, "s"},
        {"a", "g", nullptr},
    };
    for (const auto &n : names) {
        TraceCapture capture("zevdchcl=all,zevdsock=detail");
        long status = kUntouched;
        long handle = kUntouched;
        EXPECT_EQ(dp_online(&status, &handle, n[0], n[1], n[2]), 1);
        EXPECT_EQ(status, 5);
        EXPECT_EQ(handle, kUntouched);
        EXPECT_TRUE(capture.hasText("Error: applName/attrGroup/sourceName were NULL\n"))
            << capture.joined();
        EXPECT_TRUE(hasLine(capture, "[@P] Waiting for dp_online response.\n")) << capture.joined();
        // The wait is the DCH time-out.
        EXPECT_TRUE(capture.contains("] WaitTime[1]\n")) << capture.joined();
        EXPECT_TRUE(capture.hasText("Error: ipcRead with wait[1 second] failed\n"))
            << capture.joined();
    }
    EXPECT_TRUE(dch().received().empty());
}

TEST_F(ClientLifecycleTest, OnlineWithANullNameTakesTheStatusOfAnAnswerThatComes) {
    TraceCapture capture("zevdchcl=all,zevdsock=detail");
    long status = kUntouched;
    long handle = kUntouched;
    int result = zevd::test::answerWhileWaiting(capture, statusAndHandle(0, 5), [&] {
        return dp_online(&status, &handle, "a", "g", nullptr);
    });
    EXPECT_EQ(result, 1);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(handle, kUntouched);
    EXPECT_TRUE(capture.hasText("status <0>\n")) << capture.joined();
}

struct OnlineAnswer {
    const char *name;
    std::vector<char> answer;
    int result;
    long status;
    long handle;
    const char *line;  // an Error line expected, or nullptr
};

TEST_F(ClientLifecycleTest, OnlineAnswers) {
    const std::vector<char> statusThenCutHandle =
        cutTo(statusAndHandle(0, 42), 4 + 10 + 6 + 2);  // the handle value cut to 2 bytes
    const OnlineAnswer answers[] = {
        {"status and handle", statusAndHandle(0, 42), 0, 0, 42, nullptr},
        {"the DCH's own status", statusAndHandle(9, 43), 0, 9, 43, nullptr},
        {"negative values", statusAndHandle(-1, -7), 0, -1, -7, nullptr},
        {"status only", statusOnly(0), 1, 2, kUntouched,
         "Error: dataType of DCH_handle missing: 0\n"},
        {"handle without status", DchMessage().int32(DCH_handle, 42).bytes(), 1, 2, kUntouched,
         "Error: dataType of DCH_status missing: 128\n"},
        {"status of the wrong type", DchMessage().raw(DCH_response, {0, 0, 0, 0}).bytes(), 1, 2,
         kUntouched, "Error: dataType of DCH_status missing: 18\n"},
        {"handle of the wrong type",
         DchMessage().int32(DCH_status, 0).int32(DCH_status, 42).bytes(), 1, 2, kUntouched,
         "Error: dataType of DCH_handle missing: 17\n"},
        {"empty message", hexBytes("00000004"), 1, 2, kUntouched,
         "Error: dataType of DCH_status missing: 0\n"},
        {"status value cut short", cutTo(statusOnly(0), 4 + 6 + 2), 1, 2, kUntouched,
         "Error: dataType of DCH_status missing: 0\n"},
        {"status header cut short", cutTo(statusOnly(0), 4 + 3), 1, 2, kUntouched,
         "Error: dataType of DCH_status missing: 0\n"},
        {"handle value cut short", statusThenCutHandle, 1, 2, kUntouched,
         "Error: dataType of DCH_handle missing: 0\n"},
    };
    for (const OnlineAnswer &a : answers) {
        SCOPED_TRACE(a.name);
        dch().reset();
        TraceCapture capture("zevdchcl=all");
        dch().reply(a.answer);
        long status = kUntouched;
        long handle = kUntouched;
        EXPECT_EQ(dp_online(&status, &handle, "appl", "group", "source"), a.result);
        EXPECT_EQ(status, a.status);
        EXPECT_EQ(handle, a.handle);
        if (a.line != nullptr) {
            EXPECT_TRUE(capture.hasText(a.line)) << capture.joined();
            EXPECT_EQ(capture.count("Error:"), 1u) << capture.joined();
        } else {
            EXPECT_FALSE(capture.contains("Error:")) << capture.joined();
        }
        // Whatever it held, the answer was freed.
        EXPECT_TRUE(hasLine(capture, "Deleting _readBuffer<@P>\n")) << capture.joined();
    }
}

TEST_F(ClientLifecycleTest, OnlineAnswerThatIsNoMessageCountsAsNone) {
    struct Case {
        const char *name;
        std::vector<char> answer;
    };
    const std::vector<char> answer = statusAndHandle(0, 42);
    const Case cases[] = {
        // The length word says less than the datagram holds.
        {"length word smaller than the bytes",
         DchMessage()
             .int32(DCH_status, 0)
             .int32(DCH_handle, 42)
             .bytes(static_cast<uint32_t>(answer.size() - 4))},
        {"length word 0", DchMessage().int32(DCH_status, 0).bytes(0)},
        {"shorter than a length word", hexBytes("0000")},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        dch().reset();
        TraceCapture capture("zevdchcl=all");
        dch().reply(c.answer);
        long status = kUntouched;
        long handle = kUntouched;
        EXPECT_EQ(dp_online(&status, &handle, "appl", "group", "source"), 1);
        EXPECT_EQ(status, 5);
        EXPECT_EQ(handle, kUntouched);
        EXPECT_TRUE(capture.hasText("Error: ipcRead with wait[1 second] failed\n"))
            << capture.joined();
        EXPECT_FALSE(capture.contains("Deleting _readBuffer")) << capture.joined();
    }
}

// ---------------------------------------------------------------------------
// No answer, and answers without a status: the same for the four requests
// but for the value that a missing status gives.
// ---------------------------------------------------------------------------

struct Lifecycle {
    const char *name;
    // handle: dp_online's, left alone by the others.
    int (*call)(long *status, long *handle);
    long lackingStatus;
};

const Lifecycle kLifecycle[] = {
    {"dp_register", [](long *status, long *) { return dp_register(status, "APPL ab"); }, 2},
    {"dp_online",
     [](long *status, long *handle) {
         return dp_online(status, handle, "appl", "group", "source");
     },
     2},
    {"dp_offline", [](long *status, long *) { return dp_offline(status, 5); }, 1},
    {"dp_unregister", [](long *status, long *) { return dp_unregister(status, "appl"); }, 1},
};

TEST_F(ClientLifecycleTest, NoAnswerGivesStatusFiveAndTheOneSecondLine) {
    for (const Lifecycle &request : kLifecycle) {
        SCOPED_TRACE(request.name);
        dch().reset();
        TraceCapture capture("zevdchcl=all");
        dch().noReply();
        long status = kUntouched;
        long handle = kUntouched;
        EXPECT_EQ(request.call(&status, &handle), 1);
        EXPECT_EQ(status, 5);
        EXPECT_EQ(handle, kUntouched);
        EXPECT_TRUE(capture.hasText("Error: ipcRead with wait[1 second] failed\n"))
            << capture.joined();
        EXPECT_EQ(capture.count("Error:"), 1u) << capture.joined();
        EXPECT_FALSE(capture.contains("Deleting _readBuffer")) << capture.joined();
        EXPECT_TRUE(
            hasLine(capture, std::string("[@P] Waiting for ") + request.name + " response.\n"))
            << capture.joined();
        EXPECT_TRUE(dch().waitReceived(1));
        EXPECT_EQ(dch().received().size(), 1u);
    }
}

TEST_F(ClientLifecycleTest, AnswerWithoutStatusGivesEachRequestsLackingValue) {
    for (const Lifecycle &request : kLifecycle) {
        SCOPED_TRACE(request.name);
        dch().reset();
        TraceCapture capture("zevdchcl=all");
        dch().reply(DchMessage().int32(DCH_handle, 42).bytes());
        long status = kUntouched;
        long handle = kUntouched;
        EXPECT_EQ(request.call(&status, &handle), 1);
        EXPECT_EQ(status, request.lackingStatus);
        EXPECT_EQ(handle, kUntouched);
        EXPECT_TRUE(capture.hasText("Error: dataType of DCH_status missing: 128\n"))
            << capture.joined();
        // An empty message lacks it the same way.
        dch().reply(hexBytes("00000004"));
        status = kUntouched;
        EXPECT_EQ(request.call(&status, &handle), 1);
        EXPECT_EQ(status, request.lackingStatus);
        EXPECT_EQ(handle, kUntouched);
        EXPECT_TRUE(capture.hasText("Error: dataType of DCH_status missing: 0\n"))
            << capture.joined();
    }
}

TEST_F(ClientLifecycleTest, TheDchsStatusIsHandedOverUninterpreted) {
    for (const Lifecycle &request : kLifecycle) {
        SCOPED_TRACE(request.name);
        dch().reset();
        dch().reply(statusAndHandle(-3, -8));
        long status = kUntouched;
        long handle = kUntouched;
        EXPECT_EQ(request.call(&status, &handle), 0);
        // Sign-extended into the long status word.
        EXPECT_EQ(status, -3);
        EXPECT_EQ(handle, std::string(request.name) == "dp_online" ? -8 : kUntouched);
    }
}

// ---------------------------------------------------------------------------
// dp_register
// ---------------------------------------------------------------------------

TEST_F(ClientLifecycleTest, RegisterSendsTheBuildersRequest) {
    TraceCapture capture("zevdchcl=all");
    dch().reply(statusOnly(0));
    long status = kUntouched;
    EXPECT_EQ(dp_register(&status, "APPL ab hi;GROUP g;ATTR x A 4"), 0);
    EXPECT_EQ(status, 0);
    std::vector<char> expected = hexBytes(
        "0000004e"
        "0010 00000002 1010"
        "0020 00000003 616200"
        "0200 00000003 686900"
        "0023 00000002 6700"
        "0200 00000001 00"
        "0050 00000002 7800"
        "0201 00000002 0041"
        "0202 00000004 00000004"
        "0200 00000001 00");
    std::vector<char> request = onlyRequest();
    EXPECT_EQ(request, expected) << hexText(request);
    EXPECT_TRUE(capture.hasText("DUMP[78] of dp_register request.\n")) << capture.joined();
    EXPECT_TRUE(capture.hasText("Writing dp_register message. 78 bytes\n")) << capture.joined();
    EXPECT_TRUE(hasLine(capture, "[@P] Waiting for dp_register response.\n")) << capture.joined();
    EXPECT_TRUE(capture.hasText("status <0>\n")) << capture.joined();
    EXPECT_TRUE(hasLine(capture, "Deleting _readBuffer<@P>\n")) << capture.joined();
}

TEST_F(ClientLifecycleTest, RegisterTextTheBuilderRefusesIsNotSentButTheWaitRuns) {
    for (const char *text : {"NOT A TEXT", static_cast<const char *>(nullptr)}) {
        dch().reset();
        TraceCapture capture("zevdchcl=all");
        long status = kUntouched;
        EXPECT_EQ(dp_register(&status, text), 1);
        EXPECT_EQ(status, 5);
        std::string shown = text != nullptr ? text : "(null)";
        EXPECT_TRUE(
            capture.hasText("Error: ZEVP_ConstructDPregisterBuffer failed: [" + shown + "]\n"))
            << capture.joined();
        EXPECT_FALSE(capture.contains("Writing dp_register")) << capture.joined();
        EXPECT_TRUE(hasLine(capture, "[@P] Waiting for dp_register response.\n"))
            << capture.joined();
        EXPECT_TRUE(capture.hasText("Error: ipcRead with wait[1 second] failed\n"))
            << capture.joined();
        EXPECT_TRUE(dch().received().empty());
    }
}

TEST_F(ClientLifecycleTest, RegisterRefusedTextTakesTheStatusOfAnAnswerThatComes) {
    TraceCapture capture("zevdchcl=all,zevdsock=detail");
    long status = kUntouched;
    int result = zevd::test::answerWhileWaiting(capture, statusOnly(4),
                                                [&] { return dp_register(&status, "APPL"); });
    EXPECT_EQ(result, 1);
    EXPECT_EQ(status, 4);
    EXPECT_TRUE(capture.hasText("status <4>\n")) << capture.joined();
}

// ---------------------------------------------------------------------------
// dp_offline and dp_unregister
// ---------------------------------------------------------------------------

TEST_F(ClientLifecycleTest, OfflineSendsTheHandleCutToThirtyTwoBits) {
    struct Case {
        long handle;
        const char *value;
    };
    const Case cases[] = {
        {0x12345678L, "12345678"},
        {0x180000001L, "80000001"},
        {-2L, "fffffffe"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.value);
        dch().reset();
        TraceCapture capture("zevdchcl=all");
        dch().reply(statusOnly(0));
        long status = kUntouched;
        EXPECT_EQ(dp_offline(&status, c.handle), 0);
        EXPECT_EQ(status, 0);
        std::vector<char> expected =
            hexBytes(std::string("00000016 0010 00000002 1025 0080 00000004") + c.value);
        std::vector<char> request = onlyRequest();
        EXPECT_EQ(request, expected) << hexText(request);
        EXPECT_TRUE(capture.hasText("DUMP[22] of dp_offline request.\n")) << capture.joined();
        EXPECT_TRUE(capture.hasText("Writing dp_offline message. 22 bytes\n")) << capture.joined();
        int waiting = lineIndex(capture, "[@P] Waiting for dp_offline response.\n");
        int getting = lineIndex(capture, "Getting Status info.\n");
        int returned = lineIndex(capture, " returnStatus=0\n");
        EXPECT_GE(waiting, 0) << capture.joined();
        EXPECT_LT(waiting, getting) << capture.joined();
        EXPECT_LT(getting, returned) << capture.joined();
    }
}

TEST_F(ClientLifecycleTest, OfflineAnswers) {
    struct Case {
        const char *name;
        std::vector<char> answer;
        int result;
        long status;
    };
    const Case cases[] = {
        {"status", statusOnly(0), 0, 0},
        {"the DCH's own status", statusOnly(7), 0, 7},
        {"status with more fields", statusAndHandle(0, 1), 0, 0},
        {"no status", DchMessage().int32(DCH_handle, 1).bytes(), 1, 1},
        {"status cut short", cutTo(statusOnly(0), 4 + 6 + 3), 1, 1},
        {"length word smaller than the bytes", DchMessage().int32(DCH_status, 0).bytes(8), 1, 5},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        dch().reset();
        dch().reply(c.answer);
        long status = kUntouched;
        EXPECT_EQ(dp_offline(&status, 1), c.result);
        EXPECT_EQ(status, c.status);
    }
}

TEST_F(ClientLifecycleTest, UnregisterSendsTheApplicationName) {
    TraceCapture capture("zevdchcl=all");
    dch().reply(statusOnly(0));
    long status = kUntouched;
    EXPECT_EQ(dp_unregister(&status, "ab"), 0);
    EXPECT_EQ(status, 0);
    std::vector<char> expected = hexBytes("00000015 0010 00000002 1020 0020 00000003 616200");
    std::vector<char> request = onlyRequest();
    EXPECT_EQ(request, expected) << hexText(request);
    EXPECT_TRUE(capture.hasText("DUMP[21] of dp_unregister request.\n")) << capture.joined();
    EXPECT_TRUE(capture.hasText("Writing dp_unregister message. 21 bytes\n")) << capture.joined();
    EXPECT_TRUE(hasLine(capture, "[@P] Waiting for dp_unregister response.\n")) << capture.joined();
    EXPECT_TRUE(capture.hasText("Getting Status info.\n")) << capture.joined();
    EXPECT_TRUE(capture.hasText(" returnStatus=0\n")) << capture.joined();
}

TEST_F(ClientLifecycleTest, UnregisterWithoutANameSendsAnEmptyField) {
    dch().reply(statusOnly(0));
    long status = kUntouched;
    EXPECT_EQ(dp_unregister(&status, nullptr), 0);
    EXPECT_EQ(status, 0);
    std::vector<char> request = onlyRequest();
    EXPECT_EQ(request, hexBytes("00000012 0010 00000002 1020 0020 00000000")) << hexText(request);
}

TEST_F(ClientLifecycleTest, UnregisterNameThatDoesNotFitIsNotSent) {
    TraceCapture capture("zevdchcl=all");
    const std::string name(5000, 'n');
    long status = kUntouched;
    EXPECT_EQ(dp_unregister(&status, name.c_str()), 1);
    EXPECT_EQ(status, 2);
    EXPECT_TRUE(
        capture.hasText("Error: DCH_applName does not fit in the 4096-byte request buffer\n"))
        << capture.joined();
    EXPECT_TRUE(capture.hasText("Error: writing dp_unregister message to DCHserver\n"))
        << capture.joined();
    EXPECT_FALSE(capture.contains("Waiting for dp_unregister")) << capture.joined();
    EXPECT_TRUE(dch().received().empty());
}

}  // namespace
