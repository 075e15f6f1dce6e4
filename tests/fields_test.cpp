// Single message fields: the encoder's bytes for every field type and
// attribute letter, the length word, the 4096-byte bound, and the bounded
// reader over untrusted bytes.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "zev0.h"
#include "zevd610.h"

namespace {

uint32_t lengthWord(const char *buffer) {
    uint32_t v;
    memcpy(&v, buffer, 4);
    return ntohl(v);
}

std::string bytes(std::initializer_list<int> list) {
    std::string out;
    for (int b : list) out += static_cast<char>(b);
    return out;
}

std::string header(int type, uint32_t length) {
    return bytes({(type >> 8) & 0xFF, type & 0xFF, static_cast<int>(length >> 24),
                  static_cast<int>((length >> 16) & 0xFF), static_cast<int>((length >> 8) & 0xFF),
                  static_cast<int>(length & 0xFF)});
}

// A request buffer of exactly 4096 bytes on the heap, so a write past it is
// caught by the address sanitizer as well as by the checks.
struct Request {
    std::unique_ptr<char[]> data{new char[ZEV0_REQUEST_SIZE]()};
    char *begin() { return data.get(); }
    char *first() { return data.get() + 4; }
};

// Encodes one field at the start of a fresh buffer, checks the result, the
// length word and the bytes, then reads it back both ways.
void roundTrip(int type, const void *value, int valueLen, const char *attrType,
               const std::string &wantValue) {
    SCOPED_TRACE("type " + std::to_string(type));
    Request req;
    int n = ZEV0_FormatDataField(req.begin(), req.first(), type, value, valueLen, attrType);
    ASSERT_EQ(n, static_cast<int>(ZEV0_FIELD_HEADER + wantValue.size()));
    EXPECT_EQ(lengthWord(req.begin()), 4u + static_cast<uint32_t>(n));
    EXPECT_EQ(std::string(req.first(), static_cast<size_t>(n)),
              header(type, static_cast<uint32_t>(wantValue.size())) + wantValue);
    // Nothing after the field was touched.
    EXPECT_EQ(req.begin()[4 + n], 0);

    char *cursor = req.first();
    char *got = nullptr;
    int gotLen = -1;
    EXPECT_EQ(ZEV0_ExtractDataField(&cursor, &got, &gotLen, 0) & 0xFFFF, type);
    EXPECT_EQ(got, req.first() + ZEV0_FIELD_HEADER);
    EXPECT_EQ(gotLen, static_cast<int>(wantValue.size()));
    EXPECT_EQ(cursor, req.first() + n);

    cursor = req.first();
    got = nullptr;
    gotLen = -1;
    const char *end = req.begin() + lengthWord(req.begin());
    EXPECT_EQ(ZEV0_ExtractDataFieldBounded(&cursor, end, &got, &gotLen), type);
    ASSERT_EQ(gotLen, static_cast<int>(wantValue.size()));
    ASSERT_NE(got, nullptr);
    EXPECT_EQ(std::string(got, static_cast<size_t>(gotLen)), wantValue);
    EXPECT_EQ(cursor, end);
}

TEST(FieldsTest, SixteenBitFieldsRoundTrip) {
    int16_t value = 0x1234;
    for (int type : std::initializer_list<int>{DCH_requestType, DCH_dataFlag, DCH_actionType,
                                               DCH_actionUTF8, ZEV0_FIELD_REG_ATTR_TYPE})
        roundTrip(type, &value, 0, nullptr, bytes({0x12, 0x34}));
    int16_t negative = -2;
    roundTrip(DCH_dataFlag, &negative, 0, nullptr, bytes({0xFF, 0xFE}));
}

TEST(FieldsTest, ThirtyTwoBitFieldsRoundTrip) {
    int32_t value = 0x12345678;
    for (int type :
         std::initializer_list<int>{DCH_status, DCH_handle, DCH_actionID, DCH_currentTime,
                                    DCH_peltoObject, ZEV0_FIELD_REG_ATTR_SIZE})
        roundTrip(type, &value, 0, nullptr, bytes({0x12, 0x34, 0x56, 0x78}));
    int32_t negative = -2;
    roundTrip(DCH_status, &negative, 0, nullptr, bytes({0xFF, 0xFF, 0xFF, 0xFE}));
}

TEST(FieldsTest, StringFieldsCarryTheirTerminatingZero) {
    for (int type : std::initializer_list<int>{
             DCH_applName, DCH_applKey, DCH_sourceName, DCH_attrGroup, DCH_tableName, DCH_hostAddr,
             DCH_hostInfo, DCH_attrName, DCH_actionName, DCH_actionParms, DCH_actionOwner,
             ZEV0_FIELD_REG_HELP})
        roundTrip(type, "abc", 0, nullptr, std::string("abc", 4));
    // An empty string is one zero byte; the value length passed is ignored.
    roundTrip(DCH_applName, "", 0, nullptr, std::string(1, '\0'));
    roundTrip(DCH_applName, "abc", 99, nullptr, std::string("abc", 4));
}

TEST(FieldsTest, ResponseTextHasNoTerminatingZero) {
    roundTrip(DCH_response, "hello", 0, nullptr, "hello");
    roundTrip(DCH_response, "hello", 3, nullptr, "hel");
}

TEST(FieldsTest, IntegerAttributeLettersFollowValueSize) {
    int16_t small = 0x1234;
    int32_t large = 0x12345678;
    for (char letter : std::string("ACGLN")) {
        SCOPED_TRACE(std::string("letter ") + letter);
        roundTrip(DCH_attrValue, &small, 2, &letter, bytes({0x12, 0x34}));
        roundTrip(DCH_attrValue, &large, 4, &letter, bytes({0x12, 0x34, 0x56, 0x78}));
        // Any size other than 2 is a 32-bit value.
        roundTrip(DCH_attrValue, &large, 8, &letter, bytes({0x12, 0x34, 0x56, 0x78}));
    }
    int32_t negative = -3;
    char a = 'A';
    roundTrip(DCH_attrValue, &negative, 4, &a, bytes({0xFF, 0xFF, 0xFF, 0xFD}));
}

TEST(FieldsTest, ShortAttributeLettersAreSixteenBits) {
    int16_t value = -2;
    for (char letter : std::string("IS")) {
        SCOPED_TRACE(std::string("letter ") + letter);
        roundTrip(DCH_attrValue, &value, 2, &letter, bytes({0xFF, 0xFE}));
        roundTrip(DCH_attrValue, &value, 4, &letter, bytes({0xFF, 0xFE}));
    }
}

TEST(FieldsTest, StringAndUnknownAttributeLettersAreTheBytesAsGiven) {
    const char value[] = {'a', 'b', '\0', 'd', 'e'};
    for (char letter : std::string("DRTUZQ?")) {
        SCOPED_TRACE(std::string("letter ") + letter);
        roundTrip(DCH_attrValue, value, 5, &letter, std::string(value, 5));
        roundTrip(DCH_attrValue, value, 2, &letter, "ab");
    }
    roundTrip(DCH_attrValue, value, 3, nullptr, std::string(value, 3));
}

TEST(FieldsTest, UnknownFieldTypeIsTheBytesAsGiven) {
    roundTrip(999, "xyz", 3, nullptr, "xyz");
    roundTrip(999, "xyz", 0, nullptr, "");
}

TEST(FieldsTest, NullValueGivesLengthZero) {
    char d = 'D';
    char a = 'A';
    for (int type : std::initializer_list<int>{DCH_requestType, DCH_status, DCH_response,
                                               DCH_sourceName, DCH_handle, DCH_attrValue, 999}) {
        roundTrip(type, nullptr, 0, nullptr, "");
        roundTrip(type, nullptr, 4, &d, "");
        roundTrip(type, nullptr, 2, &a, "");
    }
}

TEST(FieldsTest, LengthWordFollowsEveryField) {
    Request req;
    char *cursor = req.first();
    int16_t code = 0x1015;
    int n = ZEV0_FormatDataField(req.begin(), cursor, DCH_requestType, &code, 0, nullptr);
    ASSERT_EQ(n, 8);
    EXPECT_EQ(lengthWord(req.begin()), 12u);  // a request of only its code
    cursor += n;
    n = ZEV0_FormatDataField(req.begin(), cursor, DCH_applName, "appl", 0, nullptr);
    ASSERT_EQ(n, 11);
    EXPECT_EQ(lengthWord(req.begin()), 23u);
    cursor += n;
    int32_t handle = 7;
    n = ZEV0_FormatDataField(req.begin(), cursor, DCH_handle, &handle, 0, nullptr);
    ASSERT_EQ(n, 10);
    EXPECT_EQ(lengthWord(req.begin()), 33u);
    cursor += n;
    n = ZEV0_FormatDataField(req.begin(), cursor, DCH_sourceName, nullptr, 0, nullptr);
    ASSERT_EQ(n, 6);
    EXPECT_EQ(lengthWord(req.begin()), 39u);
    EXPECT_EQ(std::string(req.begin(), 4), bytes({0, 0, 0, 39}));
}

TEST(FieldsTest, DataRowOffsetsAreFixed) {
    Request req;
    char *cursor = req.first();
    int16_t code = 0x1030;
    int32_t handle = 0x01020304;
    int16_t flag = 17;
    cursor += ZEV0_FormatDataField(req.begin(), cursor, DCH_requestType, &code, 0, nullptr);
    cursor += ZEV0_FormatDataField(req.begin(), cursor, DCH_handle, &handle, 0, nullptr);
    cursor += ZEV0_FormatDataField(req.begin(), cursor, DCH_dataFlag, &flag, 0, nullptr);
    EXPECT_EQ(cursor, req.begin() + 30);
    EXPECT_EQ(std::string(req.begin() + 18, 4), bytes({1, 2, 3, 4}));
    EXPECT_EQ(std::string(req.begin() + 28, 2), bytes({0, 17}));
}

TEST(FieldsTest, FieldEndingExactlyAt4096IsAccepted) {
    Request req;
    // 4 + 6 + 4085 + 1 = 4096
    std::string text(4085, 'x');
    int n =
        ZEV0_FormatDataField(req.begin(), req.first(), DCH_sourceName, text.c_str(), 0, nullptr);
    EXPECT_EQ(n, 4092);
    EXPECT_EQ(lengthWord(req.begin()), 4096u);
    EXPECT_EQ(req.begin()[4095], '\0');
    EXPECT_EQ(req.begin()[4094], 'x');
}

TEST(FieldsTest, NumberEndingExactlyAt4096IsAcceptedOneLaterRefused) {
    Request req;
    int32_t handle = 5;
    // A 10-byte field at offset 4086 ends at 4096.
    EXPECT_EQ(
        ZEV0_FormatDataField(req.begin(), req.begin() + 4086, DCH_handle, &handle, 0, nullptr), 10);
    EXPECT_EQ(lengthWord(req.begin()), 4096u);
    Request other;
    std::string before(other.begin(), ZEV0_REQUEST_SIZE);
    EXPECT_EQ(
        ZEV0_FormatDataField(other.begin(), other.begin() + 4087, DCH_handle, &handle, 0, nullptr),
        0);
    EXPECT_EQ(std::string(other.begin(), ZEV0_REQUEST_SIZE), before);
}

TEST(FieldsTest, FieldOneBytePast4096IsRefusedAndChangesNothing) {
    Request req;
    int16_t code = 0x1010;
    int n = ZEV0_FormatDataField(req.begin(), req.first(), DCH_requestType, &code, 0, nullptr);
    ASSERT_EQ(n, 8);
    std::string before(req.begin(), ZEV0_REQUEST_SIZE);
    // 12 + 6 + 4078 + 1 = 4097
    std::string text(4078, 'x');
    EXPECT_EQ(ZEV0_FormatDataField(req.begin(), req.first() + n, DCH_sourceName, text.c_str(), 0,
                                   nullptr),
              0);
    EXPECT_EQ(std::string(req.begin(), ZEV0_REQUEST_SIZE), before);
    EXPECT_EQ(lengthWord(req.begin()), 12u);
    // One character less fits exactly.
    text.pop_back();
    EXPECT_EQ(ZEV0_FormatDataField(req.begin(), req.first() + n, DCH_sourceName, text.c_str(), 0,
                                   nullptr),
              4084);
    EXPECT_EQ(lengthWord(req.begin()), 4096u);
}

TEST(FieldsTest, RawValuesAndResponseTextRespectTheBound) {
    Request req;
    std::string before(req.begin(), ZEV0_REQUEST_SIZE);
    std::string big(5000, 'r');
    char d = 'D';
    EXPECT_EQ(ZEV0_FormatDataField(req.begin(), req.first(), DCH_attrValue, big.data(), 4087, &d),
              0);
    EXPECT_EQ(ZEV0_FormatDataField(req.begin(), req.first(), DCH_response, big.c_str(), 0, nullptr),
              0);
    EXPECT_EQ(ZEV0_FormatDataField(req.begin(), req.first(), 999, big.data(), 4087, nullptr), 0);
    EXPECT_EQ(std::string(req.begin(), ZEV0_REQUEST_SIZE), before);
    EXPECT_EQ(ZEV0_FormatDataField(req.begin(), req.first(), DCH_attrValue, big.data(), 4086, &d),
              4092);
    EXPECT_EQ(lengthWord(req.begin()), 4096u);
}

TEST(FieldsTest, HeaderThatDoesNotFitIsRefused) {
    Request req;
    std::string before(req.begin(), ZEV0_REQUEST_SIZE);
    for (int left = 0; left < ZEV0_FIELD_HEADER; ++left)
        EXPECT_EQ(ZEV0_FormatDataField(req.begin(), req.begin() + ZEV0_REQUEST_SIZE - left,
                                       DCH_sourceName, nullptr, 0, nullptr),
                  0)
            << left;
    EXPECT_EQ(std::string(req.begin(), ZEV0_REQUEST_SIZE), before);
    EXPECT_EQ(ZEV0_FormatDataField(req.begin(), req.begin() + ZEV0_REQUEST_SIZE - 6, DCH_sourceName,
                                   nullptr, 0, nullptr),
              6);
}

TEST(FieldsTest, CursorInsideTheLengthWordIsRefused) {
    Request req;
    int16_t code = 1;
    for (int at = 0; at < 4; ++at)
        EXPECT_EQ(
            ZEV0_FormatDataField(req.begin(), req.begin() + at, DCH_requestType, &code, 0, nullptr),
            0);
    EXPECT_EQ(ZEV0_FormatDataField(nullptr, req.first(), DCH_requestType, &code, 0, nullptr), 0);
    EXPECT_EQ(ZEV0_FormatDataField(req.begin(), nullptr, DCH_requestType, &code, 0, nullptr), 0);
}

TEST(FieldsTest, LargerBufferTakesLargerFields) {
    constexpr size_t kCapacity = 64 * 1024;
    std::unique_ptr<char[]> buffer(new char[kCapacity]());
    char *cursor = buffer.get() + 4;
    std::string text(60000, 's');
    int n = ZEV0_FormatDataFieldN(buffer.get(), kCapacity, cursor, DCH_sourceName, text.c_str(), 0,
                                  nullptr);
    ASSERT_EQ(n, 60007);
    EXPECT_EQ(lengthWord(buffer.get()), 60011u);
    cursor += n;
    // The rest up to byte 65536 exactly, then nothing more.
    size_t rest = kCapacity - static_cast<size_t>(cursor - buffer.get()) - ZEV0_FIELD_HEADER;
    std::string raw(rest + 1, 'r');
    std::string before(buffer.get(), kCapacity);
    EXPECT_EQ(ZEV0_FormatDataFieldN(buffer.get(), kCapacity, cursor, 999, raw.data(),
                                    static_cast<int>(rest + 1), nullptr),
              0);
    EXPECT_EQ(std::string(buffer.get(), kCapacity), before);
    EXPECT_EQ(ZEV0_FormatDataFieldN(buffer.get(), kCapacity, cursor, 999, raw.data(),
                                    static_cast<int>(rest), nullptr),
              static_cast<int>(rest + ZEV0_FIELD_HEADER));
    EXPECT_EQ(lengthWord(buffer.get()), kCapacity);

    // The 4096-byte encoder keeps its own bound whatever the real size.
    std::unique_ptr<char[]> other(new char[kCapacity]());
    EXPECT_EQ(ZEV0_FormatDataField(other.get(), other.get() + 4, DCH_sourceName, text.c_str(), 0,
                                   nullptr),
              0);
    EXPECT_EQ(lengthWord(other.get()), 0u);

    // Walk back what was written.
    char *walk = buffer.get() + 4;
    const char *end = buffer.get() + lengthWord(buffer.get());
    char *value = nullptr;
    int valueLen = 0;
    EXPECT_EQ(ZEV0_ExtractDataFieldBounded(&walk, end, &value, &valueLen), DCH_sourceName);
    EXPECT_EQ(valueLen, 60001);
    EXPECT_EQ(ZEV0_ExtractDataFieldBounded(&walk, end, &value, &valueLen), 999);
    EXPECT_EQ(valueLen, static_cast<int>(rest));
    EXPECT_EQ(walk, end);
}

// The bounded reader over bytes that lie.
void expectMissing(const std::string &bytesIn, size_t start = 0) {
    SCOPED_TRACE("size " + std::to_string(bytesIn.size()) + " start " + std::to_string(start));
    // Exactly sized, so a read past the end is caught by the sanitizer too.
    std::unique_ptr<char[]> data(new char[bytesIn.size() + 1]);
    memcpy(data.get(), bytesIn.data(), bytesIn.size());
    const char *end = data.get() + bytesIn.size();
    char *cursor = data.get() + start;
    char sentinel = 0;
    char *value = &sentinel;
    int valueLen = 12345;
    EXPECT_EQ(ZEV0_ExtractDataFieldBounded(&cursor, end, &value, &valueLen), 0);
    EXPECT_EQ(value, nullptr);
    EXPECT_EQ(valueLen, 0);
    EXPECT_EQ(cursor, end);
}

TEST(FieldsTest, BoundedReaderRefusesTruncatedHeaders) {
    std::string full = header(DCH_status, 0);
    for (size_t size = 0; size < ZEV0_FIELD_HEADER; ++size) expectMissing(full.substr(0, size));
}

TEST(FieldsTest, BoundedReaderRefusesLyingLengths) {
    expectMissing(header(DCH_status, 0xFFFFFFFFu) + "abcd");
    expectMissing(header(DCH_status, 0x80000000u) + "abcd");
    expectMissing(header(DCH_status, 5) + "abcd");  // one more than the rest
    expectMissing(header(DCH_applName, 1));         // value wholly missing
    expectMissing(header(16, 2) + bytes({0x10, 0x10}) + header(17, 4) + "abc", 8);
}

TEST(FieldsTest, BoundedReaderAcceptsAValueEndingAtTheEnd) {
    std::string message = header(DCH_status, 4) + bytes({0, 0, 0, 9});
    char *cursor = message.data();
    const char *end = message.data() + message.size();
    char *value = nullptr;
    int valueLen = 0;
    EXPECT_EQ(ZEV0_ExtractDataFieldBounded(&cursor, end, &value, &valueLen), DCH_status);
    EXPECT_EQ(valueLen, 4);
    EXPECT_EQ(value, message.data() + 6);
    EXPECT_EQ(cursor, end);
    // And a field of length 0 as the very last bytes.
    std::string empty = header(DCH_sourceName, 0);
    cursor = empty.data();
    end = empty.data() + empty.size();
    EXPECT_EQ(ZEV0_ExtractDataFieldBounded(&cursor, end, &value, &valueLen), DCH_sourceName);
    EXPECT_EQ(valueLen, 0);
    EXPECT_EQ(cursor, end);
}

TEST(FieldsTest, BoundedReaderAtOrAfterTheEnd) {
    // The message is the first 10 bytes of a larger area, so cursors past
    // its end still point into the area.
    std::string area = header(DCH_status, 4) + bytes({0, 0, 0, 9}) + std::string(128, 'z');
    const char *end = area.data() + 10;
    for (size_t past : {size_t{0}, size_t{1}, size_t{100}}) {
        char *cursor = area.data() + 10 + past;
        char *value = area.data();
        int valueLen = 7;
        EXPECT_EQ(ZEV0_ExtractDataFieldBounded(&cursor, end, &value, &valueLen), 0);
        EXPECT_EQ(value, nullptr);
        EXPECT_EQ(valueLen, 0);
        EXPECT_EQ(cursor, end);
    }
    char *value = area.data();
    int valueLen = 7;
    EXPECT_EQ(ZEV0_ExtractDataFieldBounded(nullptr, end, &value, &valueLen), 0);
    EXPECT_EQ(value, nullptr);
    EXPECT_EQ(valueLen, 0);
    char *nullCursor = nullptr;
    EXPECT_EQ(ZEV0_ExtractDataFieldBounded(&nullCursor, end, nullptr, nullptr), 0);
}

TEST(FieldsTest, BoundedReaderWalksAMessageToItsEnd) {
    Request req;
    char *cursor = req.first();
    int16_t code = 0x2040;
    int32_t status = -1;
    cursor += ZEV0_FormatDataField(req.begin(), cursor, DCH_requestType, &code, 0, nullptr);
    cursor += ZEV0_FormatDataField(req.begin(), cursor, DCH_status, &status, 0, nullptr);
    cursor += ZEV0_FormatDataField(req.begin(), cursor, DCH_response, "a b c", 0, nullptr);
    const char *end = req.begin() + lengthWord(req.begin());
    ASSERT_EQ(cursor, end);
    char *walk = req.first();
    char *value = nullptr;
    int valueLen = 0;
    EXPECT_EQ(ZEV0_ExtractDataFieldBounded(&walk, end, &value, &valueLen), DCH_requestType);
    EXPECT_EQ(ZEV0_ExtractDataFieldBounded(&walk, end, &value, &valueLen), DCH_status);
    int32_t stored;
    memcpy(&stored, value, 4);
    EXPECT_EQ(static_cast<int32_t>(ntohl(static_cast<uint32_t>(stored))), -1);
    EXPECT_EQ(ZEV0_ExtractDataFieldBounded(&walk, end, &value, &valueLen), DCH_response);
    EXPECT_EQ(std::string(value, static_cast<size_t>(valueLen)), "a b c");
    EXPECT_EQ(ZEV0_ExtractDataFieldBounded(&walk, end, &value, &valueLen), 0);
    EXPECT_EQ(walk, end);
}

TEST(FieldsTest, RandomBytesNeverLeadTheReaderOutside) {
    std::mt19937 random(20240601u);
    for (int round = 0; round < 4000; ++round) {
        size_t size = random() % 300;
        std::unique_ptr<char[]> data(new char[size + 1]);
        for (size_t i = 0; i < size; ++i) data[i] = static_cast<char>(random() & 0xFF);
        // Make plausible headers likely: small lengths at random places.
        for (size_t i = 0; i + ZEV0_FIELD_HEADER <= size; i += 1 + random() % 16) {
            if (random() % 2 == 0) {
                uint32_t length = htonl(static_cast<uint32_t>(random() % 24));
                memcpy(data.get() + i + 2, &length, 4);
            }
        }
        const char *begin = data.get();
        const char *end = begin + size;
        char *cursor = data.get();
        // Every accepted field moves the cursor at least a header on.
        size_t steps = 0;
        for (; steps <= size / ZEV0_FIELD_HEADER + 1 && cursor < end; ++steps) {
            char *before = cursor;
            char *value = nullptr;
            int valueLen = -1;
            int type = ZEV0_ExtractDataFieldBounded(&cursor, end, &value, &valueLen);
            ASSERT_GE(cursor, before);
            ASSERT_LE(cursor, end);
            ASSERT_GE(valueLen, 0);
            if (value == nullptr) {
                ASSERT_EQ(type, 0);
                ASSERT_EQ(valueLen, 0);
                ASSERT_EQ(cursor, end);
                break;
            }
            ASSERT_EQ(value, before + ZEV0_FIELD_HEADER);
            ASSERT_LE(value + valueLen, end);
            ASSERT_EQ(cursor, value + valueLen);
            // Touch every byte of the value: a wrong bound shows under the sanitizer.
            unsigned sum = 0;
            for (int i = 0; i < valueLen; ++i) sum += static_cast<unsigned char>(value[i]);
            (void)sum;
        }
        ASSERT_LE(steps, size / ZEV0_FIELD_HEADER + 1) << "round " << round;
        ASSERT_GE(cursor, begin);
    }
}

}  // namespace
