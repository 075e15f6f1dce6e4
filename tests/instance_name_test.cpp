// ZEVA_SetInstanceName and ZEVA_GetInstanceName.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "support/trace_capture.h"
#include "zevd610.h"

namespace {

using zevd::test::TraceCapture;

std::vector<std::string> lines(std::initializer_list<const char *> texts) {
    std::vector<std::string> out;
    for (const char *t : texts) out.push_back(std::string(t) + "\n");
    return out;
}

TEST(InstanceNameTest, LeadingBlanksAreSkipped) {
    ZEVA_SetInstanceName("   abc");
    EXPECT_STREQ(ZEVA_GetInstanceName(), "abc");
}

TEST(InstanceNameTest, StoringWritesEntryStoredNameAndExit) {
    TraceCapture capture("all");
    ZEVA_SetInstanceName("   abc");
    EXPECT_EQ(capture.texts(), lines({"Entry", "Storing InstanceName <abc>", "Exit"}))
        << capture.joined();
}

TEST(InstanceNameTest, OnlySpacesAreSkipped) {
    ZEVA_SetInstanceName("\tabc");
    EXPECT_STREQ(ZEVA_GetInstanceName(), "\tabc");
    ZEVA_SetInstanceName("abc  ");
    EXPECT_STREQ(ZEVA_GetInstanceName(), "abc  ");
}

TEST(InstanceNameTest, LongNameKeepsItsFirstTwentyCharacters) {
    const char *name = "ABCDEFGHIJKLMNOPQRSTUVWXY";  // 25
    ASSERT_EQ(strlen(name), 25u);
    TraceCapture capture("detail");
    ZEVA_SetInstanceName(name);
    EXPECT_STREQ(ZEVA_GetInstanceName(), "ABCDEFGHIJKLMNOPQRST");
    EXPECT_TRUE(capture.hasText("Storing InstanceName <ABCDEFGHIJKLMNOPQRST>")) << capture.joined();
}

TEST(InstanceNameTest, TwentyCharactersAfterBlanksAreKept) {
    ZEVA_SetInstanceName("  ABCDEFGHIJKLMNOPQRSTUVWXY");
    EXPECT_STREQ(ZEVA_GetInstanceName(), "ABCDEFGHIJKLMNOPQRST");
    ZEVA_SetInstanceName("ABCDEFGHIJKLMNOPQRST");
    EXPECT_STREQ(ZEVA_GetInstanceName(), "ABCDEFGHIJKLMNOPQRST");
}

TEST(InstanceNameTest, BlanksOnlyLeaveTheNameEmptyAndReportAnError) {
    ZEVA_SetInstanceName("previous");
    ASSERT_STREQ(ZEVA_GetInstanceName(), "previous");
    TraceCapture capture("error");
    ZEVA_SetInstanceName("   ");
    EXPECT_STREQ(ZEVA_GetInstanceName(), "");
    EXPECT_EQ(capture.texts(), lines({"*****Nothing stored in InstanceName variable for <>"}))
        << capture.joined();
}

TEST(InstanceNameTest, EmptyNameReportsAnError) {
    ZEVA_SetInstanceName("previous");
    TraceCapture capture("error");
    ZEVA_SetInstanceName("");
    EXPECT_STREQ(ZEVA_GetInstanceName(), "");
    EXPECT_TRUE(capture.hasText("*****Nothing stored in InstanceName variable for <>"))
        << capture.joined();
}

TEST(InstanceNameTest, NothingStoredIsAtErrorLevelOnly) {
    TraceCapture capture("0x7f");  // every level but error
    ZEVA_SetInstanceName("   ");
    EXPECT_EQ(capture.texts(), lines({"Entry", "Exit"})) << capture.joined();
}

TEST(InstanceNameTest, NullLeavesTheNameEmptyWithoutAnError) {
    ZEVA_SetInstanceName("previous");
    TraceCapture capture("all");
    ZEVA_SetInstanceName(nullptr);
    EXPECT_EQ(capture.texts(), lines({"Entry", "Exit"})) << capture.joined();
    EXPECT_STREQ(ZEVA_GetInstanceName(), "");
}

TEST(InstanceNameTest, GetReturnsTheSameArrayNeverNull) {
    ZEVA_SetInstanceName(nullptr);
    char *empty = ZEVA_GetInstanceName();
    ASSERT_NE(empty, nullptr);
    EXPECT_STREQ(empty, "");
    ZEVA_SetInstanceName("abc");
    EXPECT_EQ(ZEVA_GetInstanceName(), empty);
    EXPECT_STREQ(empty, "abc");
}

TEST(InstanceNameTest, GetTracesTheNameWhenOneIsStored) {
    ZEVA_SetInstanceName("abc");
    TraceCapture capture("all");
    char *name = ZEVA_GetInstanceName();
    auto texts = capture.texts();
    ASSERT_EQ(texts.size(), 3u) << capture.joined();
    EXPECT_EQ(texts[0], "Entry\n");
    EXPECT_EQ(texts[1], "Returning InstanceName <abc>\n");
    char exitText[64];
    snprintf(exitText, sizeof exitText, "Exit: 0x%lx\n", reinterpret_cast<unsigned long>(name));
    EXPECT_EQ(texts[2], exitText);
}

TEST(InstanceNameTest, GetWritesNothingForAnEmptyName) {
    ZEVA_SetInstanceName("   ");
    TraceCapture capture("detail");
    EXPECT_STREQ(ZEVA_GetInstanceName(), "");
    EXPECT_TRUE(capture.lines().empty()) << capture.joined();
}

}  // namespace
