// The attribute-group checksum text and the cleaning of help texts.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "support/trace_capture.h"
#include "zevd610.h"

namespace {

using zevd::test::TraceCapture;

// CRC-16/XMODEM computed here independently: polynomial 0x1021, initial
// value 0, no reflection, no final xor.
unsigned crc16xmodem(const std::string &data) {
    unsigned crc = 0;
    for (unsigned char byte : data) {
        crc ^= static_cast<unsigned>(byte) << 8;
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc & 0x8000u) != 0 ? ((crc << 1) ^ 0x1021u) & 0xFFFFu : (crc << 1) & 0xFFFFu;
    }
    return crc;
}

bool isDecimal1to5(const char *text) {
    size_t n = strlen(text);
    if (n < 1 || n > 5) return false;
    for (size_t i = 0; i < n; ++i)
        if (text[i] < '0' || text[i] > '9') return false;
    return true;
}

// Attribute-group names of many shapes: short, long, with blanks and
// punctuation, and bytes above 0x7f.
std::vector<std::string> groups() {
    std::vector<std::string> out = {"",
                                    "A",
                                    "GRP",
                                    "Disk_Usage",
                                    "a b c",
                                    "\xff\xfe\x80",
                                    std::string(32, 'Z'),
                                    std::string(200, '\x7f')};
    for (int i = 0; i < 2000; ++i) out.push_back("Group" + std::to_string(i * 7919));
    return out;
}

TEST(ChecksumTest, KnownCheckValue) {
    // The check value of CRC-16/XMODEM.
    EXPECT_EQ(crc16xmodem("123456789"), 0x31C3u);
    EXPECT_STREQ(ZEVA_ComputeChecksumOnAttrGroup("123456789"), "12739");
}

TEST(ChecksumTest, EmptyGroupGivesZero) {
    EXPECT_STREQ(ZEVA_ComputeChecksumOnAttrGroup(""), "0");
}

TEST(ChecksumTest, TextIsOneToFiveDigitsWithoutSign) {
    bool sawFiveDigits = false;
    bool sawHighHalf = false;  // values above 32767 would show a sign if read as signed
    for (const auto &group : groups()) {
        const char *text = ZEVA_ComputeChecksumOnAttrGroup(group.c_str());
        ASSERT_NE(text, nullptr);
        ASSERT_TRUE(isDecimal1to5(text)) << "<" << group << "> gave <" << text << ">";
        sawFiveDigits = sawFiveDigits || strlen(text) == 5;
        sawHighHalf = sawHighHalf || crc16xmodem(group) > 0x7FFFu;
    }
    EXPECT_TRUE(sawFiveDigits);
    EXPECT_TRUE(sawHighHalf);
}

TEST(ChecksumTest, TextIsTheChecksumInDecimal) {
    for (const auto &group : groups()) {
        const char *text = ZEVA_ComputeChecksumOnAttrGroup(group.c_str());
        ASSERT_EQ(std::string(text), std::to_string(crc16xmodem(group))) << "<" << group << ">";
    }
}

TEST(ChecksumTest, SameGroupSameTextSameBuffer) {
    char *first = ZEVA_ComputeChecksumOnAttrGroup("Disk_Usage");
    const std::string firstText = first;
    char *other = ZEVA_ComputeChecksumOnAttrGroup("Processes");
    EXPECT_EQ(other, first);
    EXPECT_NE(std::string(other), firstText);  // the shared buffer was overwritten
    char *again = ZEVA_ComputeChecksumOnAttrGroup("Disk_Usage");
    EXPECT_EQ(again, first);
    EXPECT_EQ(std::string(again), firstText);
}

TEST(ChecksumTest, ShorterTextLeavesNoDigitsBehind) {
    // Find a group with a five-digit text and one with a one-digit text.
    std::string longGroup;
    std::string shortGroup;
    for (int i = 0; i < 100000 && (longGroup.empty() || shortGroup.empty()); ++i) {
        std::string group = "G";
        group += std::to_string(i);
        unsigned sum = crc16xmodem(group);
        if (sum >= 10000 && longGroup.empty()) longGroup = group;
        if (sum < 10 && shortGroup.empty()) shortGroup = group;
    }
    ASSERT_FALSE(longGroup.empty());
    ASSERT_FALSE(shortGroup.empty());
    char *text = ZEVA_ComputeChecksumOnAttrGroup(longGroup.c_str());
    ASSERT_EQ(strlen(text), 5u);
    text = ZEVA_ComputeChecksumOnAttrGroup(shortGroup.c_str());
    EXPECT_EQ(std::string(text, 6), std::to_string(crc16xmodem(shortGroup)) + std::string(5, '\0'));
}

TEST(ChecksumTest, TracesEntryAndExitOnly) {
    TraceCapture capture("all");
    char *text = ZEVA_ComputeChecksumOnAttrGroup("Disk_Usage");
    char exitText[64];
    snprintf(exitText, sizeof exitText, "Exit: 0x%lx\n",
             static_cast<unsigned long>(reinterpret_cast<uintptr_t>(text)));
    EXPECT_EQ(capture.texts(), std::vector<std::string>({"Entry\n", exitText})) << capture.joined();
}

TEST(HelpTextTest, SeparatorsBecomeBlanks) {
    char text[] = "a,b:c;d'e\"f";
    const size_t length = strlen(text);
    ZEVA_validateHelpText(text);
    EXPECT_STREQ(text, "a b c d e f");
    EXPECT_EQ(strlen(text), length);
}

TEST(HelpTextTest, EveryOccurrenceIsReplaced) {
    char text[] = ",,a::b;;c''d\"\"e,:;'\"";
    ZEVA_validateHelpText(text);
    EXPECT_STREQ(text, "  a  b  c  d  e     ");
}

TEST(HelpTextTest, TextWithoutSeparatorsIsUnchanged) {
    const char original[] = "Free space (MB) in % - per disk/volume! <ok> [x] {y} `z` \\ |";
    char text[sizeof original];
    memcpy(text, original, sizeof original);
    ZEVA_validateHelpText(text);
    EXPECT_STREQ(text, original);
}

TEST(HelpTextTest, EmptyTextIsUnchanged) {
    char text[] = "";
    ZEVA_validateHelpText(text);
    EXPECT_STREQ(text, "");
}

TEST(HelpTextTest, NothingPastTheTerminatorIsTouched) {
    char text[] = "a,b\0,:;'\"";
    ZEVA_validateHelpText(text);
    EXPECT_EQ(std::string(text, sizeof text), std::string("a b\0,:;'\"\0", sizeof text));
}

TEST(HelpTextTest, TracesEntryAndExitWithoutValue) {
    char text[] = "a,b:c";
    TraceCapture capture("all");
    ZEVA_validateHelpText(text);
    EXPECT_EQ(capture.texts(), std::vector<std::string>({"Entry\n", "Exit\n"})) << capture.joined();
}

}  // namespace
