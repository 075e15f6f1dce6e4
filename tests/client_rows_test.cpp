// Data rows: how dp_formatData builds a row in the caller's work buffer,
// and what dp_data and dp_actionData send of it and make of the answer. The
// DCH time-out of this suite is 1 second (set by ctest).
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "support/client_probe.h"
#include "support/fake_dch.h"
#include "support/fake_dch_fixture.h"
#include "support/sock_pair.h"
#include "support/trace_capture.h"
#include "zevd610.h"

namespace {

using zevd::test::be16;
using zevd::test::be32;
using zevd::test::DchMessage;
using zevd::test::hasLine;
using zevd::test::hexBytes;
using zevd::test::hexText;
using zevd::test::hostBytes;
using zevd::test::pointerText;
using zevd::test::TraceCapture;
using zevd::test::WireMessage;

constexpr long kUntouched = -4242;

// "Error:" lines of the client's own unit.
size_t clientErrors(const TraceCapture &capture) {
    size_t n = 0;
    for (const std::string &line : capture.lines())
        if (line.find(" zevdchcl ") != std::string::npos &&
            zevd::test::traceText(line).rfind("Error:", 0) == 0)
            ++n;
    return n;
}

uint32_t lengthWord(const char *buffer) {
    uint32_t word;
    memcpy(&word, buffer, sizeof word);
    return ntohl(word);
}

// A row built apart from the library: the three header fields, then one
// name and value per attribute.
WireMessage rowHeader(int32_t handle, int16_t flag) {
    WireMessage row;
    row.int16(DCH_requestType, 0x1030)
        .int32(DCH_handle, static_cast<uint32_t>(handle))
        .int16(DCH_dataFlag, static_cast<uint16_t>(flag));
    return row;
}

// The caller's side of a row: the buffer pointer and size variables.
struct Row {
    char *buffer = nullptr;
    long size = 0;
    long status = kUntouched;
    ~Row() { delete[] buffer; }  // a row that was never sent
    int add(const char *name, const void *value, long valueSize, char type) {
        status = kUntouched;
        return dp_formatData(&status, &buffer, &size, name, value, valueSize, type);
    }
    std::vector<char> bytes() const {
        return buffer == nullptr ? std::vector<char>()
                                 : std::vector<char>(buffer, buffer + lengthWord(buffer));
    }
};

class ClientRowsTest : public zevd::test::FakeDchClientTest {
protected:
    ClientRowsTest() : FakeDchClientTest("1") {}
};

// ---------------------------------------------------------------------------
// dp_formatData
// ---------------------------------------------------------------------------

TEST_F(ClientRowsTest, ValueSizeZeroAppendsAndAllocatesNothing) {
    TraceCapture capture("zevdchcl=all");
    Row row;
    EXPECT_EQ(row.add("name", "text", 0, 'D'), 0);
    EXPECT_EQ(row.status, 0);
    EXPECT_EQ(row.buffer, nullptr);
    EXPECT_EQ(row.size, 0);
    EXPECT_TRUE(capture.hasText("workBuffer: [(nil)]\n")) << capture.joined();
    EXPECT_TRUE(capture.hasText("size      : [0]\n")) << capture.joined();
    EXPECT_TRUE(capture.hasText("attrType  : [D]\n")) << capture.joined();
    EXPECT_TRUE(capture.hasText("attrName  : [name]\n")) << capture.joined();
    EXPECT_TRUE(capture.hasText("valueSize : [0]\n")) << capture.joined();
    EXPECT_FALSE(capture.contains("attrValue")) << capture.joined();
    EXPECT_FALSE(capture.contains("Allocated *workBuffer")) << capture.joined();

    EXPECT_EQ(row.add("name", "text", -3, 'D'), 0);
    EXPECT_EQ(row.buffer, nullptr);
    EXPECT_EQ(row.size, 0);

    // On a row under way, nothing changes either.
    int32_t value = 1;
    ASSERT_EQ(row.add("a", &value, 4, 'A'), 0);
    std::vector<char> before(row.buffer, row.buffer + 4096);
    long sizeBefore = row.size;
    EXPECT_EQ(row.add("name", "text", 0, 'D'), 0);
    EXPECT_EQ(row.status, 0);
    EXPECT_EQ(row.size, sizeBefore);
    EXPECT_EQ(std::vector<char>(row.buffer, row.buffer + 4096), before);
}

TEST_F(ClientRowsTest, FirstCallOnANullBufferPlacesTheHeaderFields) {
    TraceCapture capture("zevdchcl=all");
    Row row;
    int32_t value = 1234;
    EXPECT_EQ(row.add("cpu", &value, 4, 'A'), 0);
    EXPECT_EQ(row.status, 0);
    ASSERT_NE(row.buffer, nullptr);
    // 30 for the header fields (4 + 8 + 10 + 8), then the two attribute fields.
    EXPECT_EQ(row.size, 30 + (6 + 4) + (6 + 4));
    EXPECT_EQ(lengthWord(row.buffer), 50u);
    std::vector<char> expected = hexBytes(
        "00000032"
        "0010 00000002 1030"
        "0080 00000004 00000000"
        "0070 00000002 0011"
        "0050 00000004 63707500"
        "0051 00000004 000004d2");
    EXPECT_EQ(row.bytes(), expected) << hexText(row.bytes());
    // The rest of the buffer is cleared.
    for (int i = 50; i < 4096; ++i) ASSERT_EQ(row.buffer[i], 0) << "byte " << i;

    std::string buffer = pointerText(row.buffer);
    EXPECT_TRUE(capture.hasText("Allocated *workBuffer @" + buffer + " for length 4096\n"))
        << capture.joined();
    EXPECT_TRUE(capture.hasText("Placing placeholders in buffer.\n")) << capture.joined();
    EXPECT_TRUE(capture.hasText("attrValue : [1234]\n")) << capture.joined();
    EXPECT_TRUE(capture.hasText("DUMP[50] of buffer.\n")) << capture.joined();
    EXPECT_FALSE(capture.contains("Using workBuffer")) << capture.joined();
}

TEST_F(ClientRowsTest, LaterCallsAppendAtTheCurrentSize) {
    Row row;
    int32_t first = 1;
    ASSERT_EQ(row.add("first", &first, 4, 'A'), 0);
    std::vector<char> head = row.bytes();
    TraceCapture capture("zevdchcl=all");
    EXPECT_EQ(row.add("second", "abc", 4, 'D'), 0);
    EXPECT_EQ(row.status, 0);
    EXPECT_EQ(row.size, static_cast<long>(head.size()) + (6 + 7) + (6 + 4));
    EXPECT_EQ(lengthWord(row.buffer), static_cast<uint32_t>(row.size));
    std::vector<char> all = row.bytes();
    EXPECT_TRUE(std::equal(head.begin() + 4, head.end(), all.begin() + 4));
    std::vector<char> tail(all.begin() + static_cast<long>(head.size()), all.end());
    EXPECT_EQ(tail, hexBytes("0050 00000007 7365636f6e6400 0051 00000004 61626300"))
        << hexText(tail);
    EXPECT_TRUE(capture.hasText("Using workBuffer @" + pointerText(row.buffer) + "\n"))
        << capture.joined();
    EXPECT_TRUE(capture.hasText("size      : [" + std::to_string(head.size()) + "]\n"))
        << capture.joined();
    EXPECT_FALSE(capture.contains("Placing placeholders")) << capture.joined();
    EXPECT_FALSE(capture.contains("Allocated *workBuffer")) << capture.joined();
}

TEST_F(ClientRowsTest, TheCallersSizeIsWhereThePairGoes) {
    Row row;
    int32_t value = 1;
    ASSERT_EQ(row.add("a", &value, 4, 'A'), 0);
    long afterFirst = row.size;
    ASSERT_EQ(row.add("b", &value, 4, 'A'), 0);
    // A caller that takes back the last pair sets the size back.
    row.size = afterFirst;
    int16_t small = 7;
    EXPECT_EQ(row.add("c", &small, 2, 'S'), 0);
    EXPECT_EQ(row.size, afterFirst + (6 + 2) + (6 + 2));
    EXPECT_EQ(lengthWord(row.buffer), static_cast<uint32_t>(row.size));
    std::vector<char> tail(row.buffer + afterFirst, row.buffer + row.size);
    EXPECT_EQ(tail, hexBytes("0050 00000002 6300 0051 00000002 0007")) << hexText(tail);
}

TEST_F(ClientRowsTest, ASizeBeyondTheRowLeavesAGapBeforeThePair) {
    Row row;
    int32_t value = 1;
    ASSERT_EQ(row.add("a", &value, 4, 'A'), 0);
    long end = row.size;
    row.size = end + 6;
    int16_t small = 7;
    EXPECT_EQ(row.add("c", &small, 2, 'S'), 0);
    EXPECT_EQ(row.size, end + 6 + (6 + 2) + (6 + 2));
    EXPECT_EQ(lengthWord(row.buffer), static_cast<uint32_t>(row.size));
    std::vector<char> tail(row.buffer + end, row.buffer + row.size);
    EXPECT_EQ(tail, hexBytes("000000000000 0050 00000002 6300 0051 00000002 0007"))
        << hexText(tail);
}

TEST_F(ClientRowsTest, ASizeOutsideTheBufferTakesNoPair) {
    // Inside the header fields (4 to 29) too: a pair there would be
    // overwritten by the handle and the flag that dp_data patches in.
    for (long size : {-1L, 2L, 4L, 18L, 29L, 4097L, 1L << 40}) {
        SCOPED_TRACE(size);
        Row row;
        int32_t value = 1;
        ASSERT_EQ(row.add("a", &value, 4, 'A'), 0);
        std::vector<char> before(row.buffer, row.buffer + 4096);
        TraceCapture capture("zevdchcl=all");
        row.size = size;
        EXPECT_EQ(row.add("b", &value, 4, 'A'), 1);
        EXPECT_EQ(row.status, 1);
        EXPECT_EQ(std::vector<char>(row.buffer, row.buffer + 4096), before);
        EXPECT_EQ(row.size, static_cast<long>(lengthWord(row.buffer)));
        EXPECT_TRUE(
            capture.hasText("Error: attribute <b> does not fit in the 4096-byte row buffer\n"))
            << capture.joined();
    }
}

struct Letter {
    char type;
    long valueSize;
    std::vector<char> value;    // the caller's bytes (host order for integers)
    std::vector<char> encoded;  // the DCH_attrValue field's value
    const char *line;           // the value line, or nullptr for none
};

std::vector<char> text(const char *s, size_t n) {
    return std::vector<char>(s, s + n);
}

TEST_F(ClientRowsTest, EachAttributeTypeLetter) {
    const Letter letters[] = {
        {'A', 2, hostBytes<int16_t>(-2), be16(0xFFFE), "attrValue : [65534]\n"},
        {'C', 2, hostBytes<int16_t>(300), be16(300), "attrValue : [300]\n"},
        {'G', 4, hostBytes<int32_t>(-2), be32(0xFFFFFFFE), "attrValue : [-2]\n"},
        {'L', 4, hostBytes<int32_t>(70000), be32(70000), "attrValue : [70000]\n"},
        {'N', 4, hostBytes<int32_t>(0x7FFFFFFF), be32(0x7FFFFFFF), "attrValue : [2147483647]\n"},
        {'N', 2, hostBytes<int16_t>(-32768), be16(0x8000), "attrValue : [32768]\n"},
        {'I', 2, hostBytes<int16_t>(-1), be16(0xFFFF), "attrValue : [65535]\n"},
        {'S', 2, hostBytes<int16_t>(513), be16(513), "attrValue : [513]\n"},
        // 16-bit letters are 16 bits whatever the size: the low half.
        {'S', 4, hostBytes<int32_t>(0x00011234), be16(0x1234), "attrValue : [4660]\n"},
        {'D', 6, text("hello", 6), text("hello", 6), "attrValue : [hello]\n"},
        // A string is valueSize bytes: the shown value stops there too.
        {'R', 3, text("hello", 6), text("hel", 3), "attrValue : [hel]\n"},
        {'T', 5, text("12:00", 5), text("12:00", 5), "attrValue : [12:00]\n"},
        {'U', 4, text("abc", 4), text("abc", 4), "attrValue : [abc]\n"},
        {'Z', 2, text("z", 2), text("z", 2), "attrValue : [z]\n"},
        {'X', 3, {1, 2, 3}, {1, 2, 3}, nullptr},
        {'a', 2, {0x10, 0x20}, {0x10, 0x20}, nullptr},
    };
    for (const Letter &l : letters) {
        SCOPED_TRACE(std::string("letter ") + l.type + " size " + std::to_string(l.valueSize));
        TraceCapture capture("zevdchcl=all");
        Row row;
        EXPECT_EQ(row.add("v", l.value.data(), l.valueSize, l.type), 0);
        EXPECT_EQ(row.status, 0);
        std::vector<char> expected =
            rowHeader(0, 17).string(DCH_attrName, "v").field(DCH_attrValue, l.encoded).bytes();
        EXPECT_EQ(row.bytes(), expected) << hexText(row.bytes());
        EXPECT_EQ(row.size, static_cast<long>(expected.size()));
        EXPECT_TRUE(capture.hasText(std::string("attrType  : [") + l.type + "]\n"))
            << capture.joined();
        if (l.line != nullptr) {
            EXPECT_TRUE(capture.hasText(l.line)) << capture.joined();
            EXPECT_EQ(capture.count("attrValue :"), 1u) << capture.joined();
        } else {
            EXPECT_FALSE(capture.contains("attrValue :")) << capture.joined();
        }
    }
}

TEST_F(ClientRowsTest, APairThatDoesNotFitAppendsNeitherField) {
    Row row;
    std::string filler(4000, 'x');
    ASSERT_EQ(row.add("big", filler.data(), 4000, 'D'), 0);
    ASSERT_EQ(row.size, 30 + (6 + 4) + (6 + 4000));  // 4046: 50 bytes left
    std::vector<char> before(row.buffer, row.buffer + 4096);

    // The name (17 bytes) would fit, its value (36) would not.
    TraceCapture capture("zevdchcl=all");
    std::string value(30, 'v');
    EXPECT_EQ(row.add("abcdefghij", value.data(), 30, 'D'), 1);
    EXPECT_EQ(row.status, 1);
    EXPECT_EQ(row.size, 4046);
    EXPECT_EQ(lengthWord(row.buffer), 4046u);
    EXPECT_EQ(std::vector<char>(row.buffer, row.buffer + 4096), before);
    EXPECT_TRUE(
        capture.hasText("Error: attribute <abcdefghij> does not fit in the 4096-byte row buffer\n"))
        << capture.joined();
    EXPECT_EQ(capture.count("Error:"), 1u) << capture.joined();

    // A pair that ends at byte 4096 fits.
    EXPECT_EQ(row.add("abcdefghij", value.data(), 27, 'D'), 0);
    EXPECT_EQ(row.status, 0);
    EXPECT_EQ(row.size, 4096);
    EXPECT_EQ(lengthWord(row.buffer), 4096u);

    // Nothing more does, not even a name.
    int16_t small = 1;
    EXPECT_EQ(row.add("n", &small, 2, 'S'), 1);
    EXPECT_EQ(row.status, 1);
    EXPECT_EQ(row.size, 4096);

    // The full row is sent whole.
    dch().reply(DchMessage().int32(DCH_status, 0).bytes());
    long status = kUntouched;
    EXPECT_EQ(dp_data(&status, 3, 0, &row.buffer), 0);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(row.buffer, nullptr);
    std::vector<char> request = onlyRequest();
    ASSERT_EQ(request.size(), 4096u);
    EXPECT_EQ(lengthWord(request.data()), 4096u);
}

TEST_F(ClientRowsTest, APairLargerThanAnyRowLeavesTheHeaderOnly) {
    Row row;
    std::string huge(5000, 'h');
    EXPECT_EQ(row.add("huge", huge.data(), 5000, 'D'), 1);
    EXPECT_EQ(row.status, 1);
    ASSERT_NE(row.buffer, nullptr);
    EXPECT_EQ(row.size, 30);
    EXPECT_EQ(row.bytes(), rowHeader(0, 17).bytes());
}

TEST_F(ClientRowsTest, FormatWithoutBufferOrSizeVariable) {
    TraceCapture capture("zevdchcl=all");
    long status = kUntouched;
    long size = 0;
    int32_t value = 1;
    EXPECT_EQ(dp_formatData(&status, nullptr, &size, "a", &value, 4, 'A'), 1);
    EXPECT_EQ(status, 4);
    char *buffer = nullptr;
    status = kUntouched;
    EXPECT_EQ(dp_formatData(&status, &buffer, nullptr, "a", &value, 4, 'A'), 1);
    EXPECT_EQ(status, 4);
    EXPECT_EQ(buffer, nullptr);
    EXPECT_EQ(capture.count("Error: workBuffer/size were NULL\n"), 2u) << capture.joined();
}

// ---------------------------------------------------------------------------
// dp_data and dp_actionData
// ---------------------------------------------------------------------------

TEST_F(ClientRowsTest, DataSendsTheRowWithHandleAndFlagPatchedIn) {
    struct Case {
        long handle;
        short flag;
        int32_t sentHandle;
    };
    const Case cases[] = {{0x01020304L, 0x0506, 0x01020304}, {-7L, -1, -7}, {0x100000009L, 1, 9}};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.handle);
        dch().reset();
        Row row;
        int32_t count = 12;
        ASSERT_EQ(row.add("count", &count, 4, 'N'), 0);
        ASSERT_EQ(row.add("host", "alpha", 6, 'D'), 0);
        std::string buffer = pointerText(row.buffer);
        long length = row.size;
        TraceCapture capture("zevdchcl=all");
        dch().reply(DchMessage().int32(DCH_status, 0).bytes());
        long status = kUntouched;
        EXPECT_EQ(dp_data(&status, c.handle, c.flag, &row.buffer), 0);
        EXPECT_EQ(status, 0);
        EXPECT_EQ(row.buffer, nullptr);
        std::vector<char> expected = rowHeader(c.sentHandle, c.flag)
                                         .string(DCH_attrName, "count")
                                         .field(DCH_attrValue, be32(12))
                                         .string(DCH_attrName, "host")
                                         .string(DCH_attrValue, "alpha")
                                         .bytes();
        std::vector<char> request = onlyRequest();
        EXPECT_EQ(request, expected) << hexText(request);
        std::string n = std::to_string(length);
        EXPECT_TRUE(capture.hasText("DUMP[" + n + "] of dp_data request.\n")) << capture.joined();
        EXPECT_TRUE(capture.hasText("Writing dp_data message. " + n + " bytes\n"))
            << capture.joined();
        EXPECT_TRUE(capture.hasText("Deleting workBuffer @" + buffer + "\n")) << capture.joined();
        EXPECT_TRUE(hasLine(capture, "[@P] Waiting for dp_data response, timeout: 1 seconds\n"))
            << capture.joined();
        EXPECT_TRUE(capture.hasText("Getting Status info.\n")) << capture.joined();
        EXPECT_TRUE(capture.hasText(" returnStatus=0\n")) << capture.joined();
        EXPECT_TRUE(hasLine(capture, "Deleting _readBuffer<@P>\n")) << capture.joined();
    }
}

TEST_F(ClientRowsTest, DataAnswers) {
    struct Case {
        const char *name;
        std::optional<std::vector<char>> answer;
        int result;
        long status;
        const char *line;
    };
    const Case cases[] = {
        {"status", DchMessage().int32(DCH_status, 0).bytes(), 0, 0, nullptr},
        {"the DCH's own status", DchMessage().int32(DCH_status, 3).bytes(), 0, 3, nullptr},
        {"no status", DchMessage().int32(DCH_handle, 3).bytes(), 1, 1,
         "Error: dataType of DCH_status missing: 128\n"},
        {"empty message", hexBytes("00000004"), 1, 1, "Error: dataType of DCH_status missing: 0\n"},
        {"length word smaller than the bytes", DchMessage().int32(DCH_status, 0).bytes(6), 1, 5,
         "Error: ipcRead with wait[1 second] failed\n"},
        {"no answer", std::nullopt, 1, 5, "Error: ipcRead with wait[1 second] failed\n"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        dch().reset();
        Row row;
        int16_t value = 1;
        ASSERT_EQ(row.add("v", &value, 2, 'I'), 0);
        TraceCapture capture("zevdchcl=all");
        if (c.answer)
            dch().reply(*c.answer);
        else
            dch().noReply();
        long status = kUntouched;
        EXPECT_EQ(dp_data(&status, 1, 0, &row.buffer), c.result);
        EXPECT_EQ(status, c.status);
        EXPECT_EQ(row.buffer, nullptr);
        if (c.line != nullptr) {
            EXPECT_TRUE(capture.hasText(c.line)) << capture.joined();
        }
        EXPECT_EQ(clientErrors(capture), c.line != nullptr ? 1u : 0u) << capture.joined();
        EXPECT_TRUE(dch().waitReceived(1));
        EXPECT_EQ(dch().received().size(), 1u);
    }
}

TEST_F(ClientRowsTest, DataWithoutARowSendsNothing) {
    TraceCapture capture("zevdchcl=all");
    char *buffer = nullptr;
    long status = kUntouched;
    EXPECT_EQ(dp_data(&status, 1, 0, &buffer), 1);
    EXPECT_EQ(status, 4);
    status = kUntouched;
    EXPECT_EQ(dp_data(&status, 1, 0, nullptr), 1);
    EXPECT_EQ(status, 4);
    EXPECT_EQ(capture.count("Error: freeing workBuffer storage.\n"), 2u) << capture.joined();
    EXPECT_FALSE(capture.contains("Writing dp_data")) << capture.joined();
    EXPECT_FALSE(capture.contains("Waiting for dp_data")) << capture.joined();
    EXPECT_TRUE(dch().received().empty());
}

// A buffer whose length word is not a row's is freed, and neither patched
// nor sent: nothing is written past the end of one shorter than a row's
// header fields (the address sanitizer's build would stop there).
TEST_F(ClientRowsTest, DataBufferThatHoldsNoRowIsFreedButNotSent) {
    for (uint32_t size : {4096u, 12u}) {
        SCOPED_TRACE(size);
        TraceCapture capture("zevdchcl=all");
        char *buffer = new char[size]();
        uint32_t length = size == 4096 ? 0 : size;
        uint32_t word = htonl(length);
        memcpy(buffer, &word, sizeof word);
        long status = kUntouched;
        EXPECT_EQ(dp_data(&status, 0x7f7f7f7f, 0x7f7f, &buffer), 1);
        EXPECT_EQ(status, 2);
        EXPECT_EQ(buffer, nullptr);
        EXPECT_TRUE(capture.hasText("Error: work buffer length " + std::to_string(length) +
                                    " is not a row's\n"))
            << capture.joined();
        EXPECT_TRUE(capture.hasText("Error: writing dp_data message to DCHserver\n"))
            << capture.joined();
        EXPECT_FALSE(capture.contains("Waiting for dp_data")) << capture.joined();
        EXPECT_TRUE(dch().received().empty());
    }
}

TEST_F(ClientRowsTest, ActionDataWithTimeoutZeroWaitsTheDchTimeout) {
    Row row;
    int32_t value = 5;
    ASSERT_EQ(row.add("v", &value, 4, 'L'), 0);
    TraceCapture capture("zevdchcl=all,zevdsock=detail");
    dch().noReply();
    long status = kUntouched;
    EXPECT_EQ(dp_actionData(&status, 2, 0, &row.buffer, 0, 0), 1);
    EXPECT_EQ(status, 5);
    EXPECT_EQ(row.buffer, nullptr);
    EXPECT_TRUE(hasLine(capture, "[@P] Waiting for dp_data response, timeout: 1 seconds\n"))
        << capture.joined();
    EXPECT_TRUE(capture.contains("] WaitTime[1]\n")) << capture.joined();
    EXPECT_TRUE(capture.hasText("Error: ipcRead with wait[1 second] failed\n")) << capture.joined();
    // Retry 0: the first wait is the only one.
    EXPECT_EQ(capture.count("...not retrying"), 1u) << capture.joined();
    EXPECT_EQ(capture.count("...trying again"), 0u) << capture.joined();
    EXPECT_TRUE(capture.contains("Deleting DCHclient @")) << capture.joined();
}

TEST_F(ClientRowsTest, ActionDataRetriesAsAsked) {
    Row row;
    int32_t value = 5;
    ASSERT_EQ(row.add("v", &value, 4, 'L'), 0);
    TraceCapture capture("zevdchcl=all,zevdsock=detail");
    dch().noReply();
    long status = kUntouched;
    EXPECT_EQ(dp_actionData(&status, 2, 0, &row.buffer, 1, 2), 1);
    EXPECT_EQ(status, 5);
    EXPECT_EQ(capture.count("...trying again"), 2u) << capture.joined();
    EXPECT_EQ(capture.count("...not retrying"), 1u) << capture.joined();
}

TEST_F(ClientRowsTest, ActionDataSendsTheRowAsDataDoes) {
    Row row;
    int16_t value = -2;
    ASSERT_EQ(row.add("v", &value, 2, 'C'), 0);
    TraceCapture capture("zevdchcl=all");
    dch().reply(DchMessage().int32(DCH_status, 0).bytes());
    long status = kUntouched;
    EXPECT_EQ(dp_actionData(&status, 77, 3, &row.buffer, 4, 0), 0);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(row.buffer, nullptr);
    std::vector<char> expected =
        rowHeader(77, 3).string(DCH_attrName, "v").field(DCH_attrValue, be16(0xFFFE)).bytes();
    std::vector<char> request = onlyRequest();
    EXPECT_EQ(request, expected) << hexText(request);
    EXPECT_TRUE(hasLine(capture, "[@P] Waiting for dp_data response, timeout: 4 seconds\n"))
        << capture.joined();
    EXPECT_TRUE(capture.hasText(" returnStatus=0\n")) << capture.joined();
}

}  // namespace
