// DCH message layout: the length word, field offsets of a data row, and the
// bounded walk over received messages.
#include <arpa/inet.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "common/message.h"
#include "zev0.h"
#include "zevd610.h"

using zevd::FieldReader;

namespace {

struct Request {
    char buffer[zevd::kRequestSize] = {};
    char *cursor = buffer + zevd::kFirstField;

    int add(int type, const void *value, int valueLen = 0, const char *attrType = nullptr) {
        int n = ZEV0_FormatDataField(buffer, cursor, type, value, valueLen, attrType);
        cursor += n;
        return n;
    }
    int add16(int type, int16_t v) { return add(type, &v); }
    int add32(int type, int32_t v) { return add(type, &v); }
};

// The response walk of a request with a status and a handle.
struct StatusAndHandle {
    long status = 0;
    long handle = -77;
    bool lacking = false;
};

StatusAndHandle readStatusAndHandle(const char *message, size_t received) {
    StatusAndHandle out;
    FieldReader reader(message, received);
    if (reader.next() != DCH_status) {
        out.lacking = true;
        return out;
    }
    out.status = reader.int32();
    if (reader.next() != DCH_handle) {
        out.lacking = true;
        return out;
    }
    out.handle = reader.int32();
    return out;
}

}  // namespace

TEST(MessageTest, RequestOfOnlyTheRequestTypeIsTwelveBytes) {
    Request r;
    EXPECT_EQ(r.add16(DCH_requestType, ZEVD_REQ_DP_ONLINE), 8);
    EXPECT_EQ(zevd::messageLength(r.buffer), 12u);
    const unsigned char expected[12] = {0, 0, 0, 12, 0, 16, 0, 0, 0, 2, 0x10, 0x15};
    EXPECT_EQ(memcmp(r.buffer, expected, 12), 0);
    for (int i = 12; i < zevd::kRequestSize; ++i) ASSERT_EQ(r.buffer[i], 0) << "byte " << i;
}

TEST(MessageTest, DataRowHandleAndFlagOffsets) {
    Request r;
    r.add16(DCH_requestType, ZEVD_REQ_DP_DATA);
    r.add32(DCH_handle, 0);
    r.add16(DCH_dataFlag, 17);
    EXPECT_EQ(r.cursor - r.buffer, 30);
    char before[30];
    memcpy(before, r.buffer, 30);
    uint32_t handle = htonl(0x01020304);
    uint16_t flag = htons(0x0506);
    memcpy(r.buffer + 18, &handle, 4);
    memcpy(r.buffer + 28, &flag, 2);
    for (int i = 0; i < 30; ++i) {
        if ((i >= 18 && i <= 21) || i >= 28) continue;
        EXPECT_EQ(r.buffer[i], before[i]) << "byte " << i << " changed";
    }
    FieldReader reader(r.buffer, sizeof r.buffer);
    EXPECT_EQ(reader.next(), DCH_requestType);
    EXPECT_EQ(reader.next(), DCH_handle);
    EXPECT_EQ(reader.int32(), 0x01020304);
    EXPECT_EQ(reader.next(), DCH_dataFlag);
    EXPECT_EQ(reader.int16(), 0x0506);
    EXPECT_EQ(reader.next(), 0);
}

TEST(MessageTest, ResponseWithoutStatusLeavesTheHandleUntouched) {
    Request r;
    r.add32(DCH_handle, 5);
    r.add32(DCH_status, 0);
    StatusAndHandle got = readStatusAndHandle(r.buffer, sizeof r.buffer);
    EXPECT_TRUE(got.lacking);
    EXPECT_EQ(got.handle, -77);
}

TEST(MessageTest, StatusAndHandleAreConvertedFromNetworkOrder) {
    Request r;
    r.add32(DCH_status, -3);
    r.add32(DCH_handle, 4242);
    StatusAndHandle got = readStatusAndHandle(r.buffer, zevd::messageLength(r.buffer));
    EXPECT_FALSE(got.lacking);
    EXPECT_EQ(got.status, -3);
    EXPECT_EQ(got.handle, 4242);
}

TEST(MessageTest, TypeIsTheLowSixteenBits) {
    Request r;
    r.add16(0xFFFF, 1);
    char *cursor = r.buffer + 4;
    char *value = nullptr;
    int length = 0;
    int raw = ZEV0_ExtractDataField(&cursor, &value, &length, 0);
    FieldReader reader(r.buffer, sizeof r.buffer);
    EXPECT_EQ(reader.next(), raw & 0xFFFF);
    EXPECT_EQ(reader.type(), 0xFFFF);
}

TEST(MessageTest, WalkStopsAtTheBytesReceived) {
    Request r;
    r.add32(DCH_status, 1);
    r.add32(DCH_handle, 2);
    // The second field is cut by the receive count although the length word
    // announces it.
    FieldReader reader(r.buffer, 4 + 10 + 9);
    EXPECT_EQ(reader.next(), DCH_status);
    EXPECT_EQ(reader.next(), 0);
    EXPECT_EQ(reader.value(), nullptr);
    EXPECT_EQ(reader.next(), 0);
}

TEST(MessageTest, WalkStopsAtTheLengthWord) {
    Request r;
    r.add32(DCH_status, 1);
    r.add32(DCH_handle, 2);
    uint32_t shorter = htonl(14);
    memcpy(r.buffer, &shorter, 4);
    FieldReader reader(r.buffer, sizeof r.buffer);
    EXPECT_EQ(reader.next(), DCH_status);
    EXPECT_EQ(reader.next(), 0);
}

TEST(MessageTest, LyingLengthsStayInside) {
    // A length word far larger than what arrived, and a field whose value
    // length runs past the end.
    std::vector<char> message = {0x7f, 0, 0, 0, 0, 17, 0x7f, -1, -1, -1, 1, 2};
    FieldReader reader(message.data(), message.size());
    EXPECT_EQ(reader.next(), 0);
    // A length word below 4 leaves nothing to read.
    std::vector<char> tiny = {0, 0, 0, 2, 0, 17, 0, 0, 0, 4, 0, 0, 0, 1};
    FieldReader small(tiny.data(), tiny.size());
    EXPECT_EQ(small.next(), 0);
    FieldReader none(tiny.data(), 3);
    EXPECT_EQ(none.next(), 0);
    FieldReader null(nullptr, 100);
    EXPECT_EQ(null.next(), 0);
}

TEST(MessageTest, ShortNumberIsPaddedAtTheEnd) {
    // A status field of two bytes at the very end of the message.
    std::vector<char> message = {0, 0, 0, 12, 0, 17, 0, 0, 0, 2, 0x12, 0x34};
    FieldReader reader(message.data(), message.size());
    ASSERT_EQ(reader.next(), DCH_status);
    EXPECT_EQ(reader.length(), 2);
    EXPECT_EQ(reader.int32(), 0x12340000);
}

TEST(MessageBuilderTest, BuildsAndRemembersTheFirstRefusal) {
    char buffer[zevd::kRequestSize];
    memset(buffer, 0x5a, sizeof buffer);
    zevd::MessageBuilder b(buffer);
    b.clear();
    EXPECT_TRUE(b.add16(DCH_requestType, ZEVD_REQ_DP_UNREGISTER));
    EXPECT_TRUE(b.addString(DCH_applName, "app"));
    EXPECT_EQ(b.length(), 4u + 8u + 10u);
    std::string huge(5000, 'x');
    EXPECT_FALSE(b.addString(DCH_sourceName, huge.c_str()));
    EXPECT_FALSE(b.ok());
    EXPECT_EQ(b.failedType(), DCH_sourceName);
    EXPECT_STREQ(zevd::fieldName(b.failedType()), "DCH_sourceName");
    EXPECT_FALSE(b.add32(DCH_handle, 1)) << "later fields are refused too";
    EXPECT_EQ(b.length(), 22u) << "a refused field leaves the message as it was";
}

TEST(MessageBuilderTest, ResumeAppendsAtTheLengthWord) {
    char buffer[zevd::kRequestSize] = {};
    zevd::MessageBuilder first(buffer);
    first.clear();
    first.add16(DCH_requestType, ZEVD_REQ_DP_DATA);
    zevd::MessageBuilder again(buffer);
    again.resume();
    again.add32(DCH_handle, 9);
    EXPECT_EQ(again.length(), 22u);
    FieldReader reader(buffer, sizeof buffer);
    EXPECT_EQ(reader.next(), DCH_requestType);
    EXPECT_EQ(reader.next(), DCH_handle);
    EXPECT_EQ(reader.int32(), 9);
}

TEST(MessageBuilderTest, ResumeAtAppendsAtTheGivenLength) {
    char buffer[zevd::kRequestSize] = {};
    zevd::MessageBuilder first(buffer);
    first.clear();
    first.add16(DCH_requestType, ZEVD_REQ_DP_DATA);
    first.add32(DCH_handle, 9);
    ASSERT_EQ(first.length(), 22u);
    // Back over the handle: the next field replaces it.
    zevd::MessageBuilder again(buffer);
    EXPECT_TRUE(again.resumeAt(12));
    EXPECT_EQ(again.offset(), 12u);
    EXPECT_TRUE(again.add16(DCH_dataFlag, 3));
    EXPECT_EQ(again.length(), 20u);
    EXPECT_EQ(again.offset(), 20u);
    FieldReader reader(buffer, sizeof buffer);
    EXPECT_EQ(reader.next(), DCH_requestType);
    EXPECT_EQ(reader.next(), DCH_dataFlag);
    EXPECT_EQ(reader.int16(), 3);
}

TEST(MessageBuilderTest, ResumeAtOutsideTheBufferTakesNoField) {
    char buffer[zevd::kRequestSize] = {};
    zevd::MessageBuilder first(buffer);
    first.clear();
    first.add16(DCH_requestType, ZEVD_REQ_DP_DATA);
    std::vector<char> before(buffer, buffer + sizeof buffer);
    for (size_t at : {size_t{0}, size_t{3}, size_t{zevd::kRequestSize} + 1}) {
        zevd::MessageBuilder again(buffer);
        EXPECT_FALSE(again.resumeAt(at)) << at;
        EXPECT_FALSE(again.ok());
        EXPECT_FALSE(again.add16(DCH_dataFlag, 3)) << at;
        EXPECT_EQ(std::vector<char>(buffer, buffer + sizeof buffer), before) << at;
    }
    // The very end is a place, where nothing more fits.
    zevd::MessageBuilder atEnd(buffer);
    EXPECT_TRUE(atEnd.resumeAt(zevd::kRequestSize));
    EXPECT_FALSE(atEnd.add16(DCH_dataFlag, 3));
}

TEST(MessageBuilderTest, LargerBuffersForTheDaemon) {
    std::vector<char> big(65536);
    zevd::MessageBuilder b(big.data(), big.size());
    b.clear();
    std::string text(30000, 'r');
    EXPECT_TRUE(b.addValue(DCH_response, text.data(), static_cast<int>(text.size()), nullptr));
    EXPECT_EQ(b.length(), 4u + 6u + 30000u);
    EXPECT_STREQ(zevd::fieldName(12345), "field");
}
