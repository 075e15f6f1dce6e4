// Subnode names: ZEVA_SetSubnodeName composes them,
// ZEVA_GetSrcNameFromSubNodeName and ZEVA_GetApplKeyFromSubNodeName take
// them apart.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "support/trace_capture.h"
#include "zevd610.h"

namespace {

using zevd::test::TraceCapture;

std::vector<std::string> lines(std::initializer_list<std::string> texts) {
    std::vector<std::string> out;
    for (const auto &t : texts) out.push_back(t + "\n");
    return out;
}

// n characters cycling through A..Z, 0..9.
std::string nameOf(size_t n) {
    static const char kChars[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
    std::string s;
    for (size_t i = 0; i < n; ++i) s += kChars[i % 36];
    return s;
}

std::string exitPointer(const void *p) {
    char text[64];
    snprintf(text, sizeof text, "Exit: 0x%lx", static_cast<unsigned long>(uintptr_t(p)));
    return text;
}

constexpr const char kUnchanged[] = "unchanged";

// Output buffers of ZEVA_SetSubnodeName, preset so that a name that was
// not built shows.
struct Outputs {
    char name[128];
    char untouched[128];
    Outputs() {
        strcpy(name, kUnchanged);
        strcpy(untouched, kUnchanged);
    }
};

// ---------------------------------------------------------------------
// ZEVA_SetSubnodeName

TEST(SetSubnodeNameTest, JoinsSourceApplicationAndRR) {
    Outputs out;
    EXPECT_EQ(
        ZEVA_SetSubnodeName("APP01", "GRP", "ABCDEFGHIJ", "00", out.name, out.untouched, nullptr),
        0);
    EXPECT_STREQ(out.name, "ABCDEFGHIJ:APP0100");
    EXPECT_STREQ(out.untouched, "ABCDEFGHIJ:APP01GRP00");
}

TEST(SetSubnodeNameTest, TracesArgumentsAndResult) {
    Outputs out;
    TraceCapture capture("all");
    ASSERT_EQ(
        ZEVA_SetSubnodeName("APP01", "GRP", "ABCDEFGHIJ", "00", out.name, out.untouched, nullptr),
        0);
    EXPECT_EQ(capture.texts(),
              lines({"Entry", "applName<APP01> srcName<ABCDEFGHIJ> attrGroup<GRP> RR<00>",
                     "subnodeName<ABCDEFGHIJ:APP0100> subnodeNameUntouched<ABCDEFGHIJ:APP01GRP00>",
                     "Exit: 0x0"}))
        << capture.joined();
}

TEST(SetSubnodeNameTest, WithoutUntouchedBufferTracesNull) {
    Outputs out;
    TraceCapture capture("detail");
    ASSERT_EQ(ZEVA_SetSubnodeName("APP01", "GRP", "ABCDEFGHIJ", "00", out.name, nullptr, nullptr),
              0);
    EXPECT_STREQ(out.name, "ABCDEFGHIJ:APP0100");
    EXPECT_STREQ(out.untouched, kUnchanged);
    EXPECT_EQ(capture.texts(),
              lines({"applName<APP01> srcName<ABCDEFGHIJ> attrGroup<GRP> RR<00>",
                     "subnodeName<ABCDEFGHIJ:APP0100> subnodeNameUntouched[NULL]"}))
        << capture.joined();
}

TEST(SetSubnodeNameTest, SuffixFollowsAnUnderscore) {
    Outputs out;
    TraceCapture capture("detail");
    ASSERT_EQ(ZEVA_SetSubnodeName("APP01", "GRP", "SRC", "00", out.name, out.untouched, "X1"), 0);
    EXPECT_STREQ(out.name, "SRC:APP0100_X1");
    EXPECT_STREQ(out.untouched, "SRC:APP01GRP00");  // the untouched form has no suffix
    EXPECT_EQ(capture.texts(),
              lines({"applName<APP01> srcName<SRC> attrGroup<GRP> RR<00> subnodeSuffix<X1>",
                     "subnodeName<SRC:APP0100_X1> subnodeNameUntouched<SRC:APP01GRP00>"}))
        << capture.joined();
}

TEST(SetSubnodeNameTest, ThirtyCharacterSourceIsShortenedFromTheLeft) {
    const std::string source = "ABCDEFGHIJKLMNOPQRSTUVWXYZ0123";
    ASSERT_EQ(source.size(), 30u);
    Outputs out;
    TraceCapture capture("detail");
    ASSERT_EQ(
        ZEVA_SetSubnodeName("APP01", "GRP", source.c_str(), "00", out.name, out.untouched, nullptr),
        0);
    EXPECT_STREQ(out.name, "GHIJKLMNOPQRSTUVWXYZ0123:APP0100");
    EXPECT_EQ(strlen(out.name), 32u);
    EXPECT_EQ(std::string(out.untouched), source + ":APP01GRP00");  // built before shortening
    EXPECT_EQ(capture.texts(),
              lines({"applName<APP01> srcName<" + source + "> attrGroup<GRP> RR<00>",
                     "Truncating sourceName <" + source + "> length: 30, available: 24",
                     "sourceName truncated. New name <GHIJKLMNOPQRSTUVWXYZ0123>",
                     "subnodeName<GHIJKLMNOPQRSTUVWXYZ0123:APP0100> subnodeNameUntouched<" +
                         source + ":APP01GRP00>"}))
        << capture.joined();
}

TEST(SetSubnodeNameTest, NeededLengthOfThirtyTwoIsKept) {
    const std::string source = nameOf(24);  // 24 + 5 + 3 = 32
    Outputs out;
    TraceCapture capture("detail");
    ASSERT_EQ(ZEVA_SetSubnodeName("APP01", "GRP", source.c_str(), "00", out.name, nullptr, nullptr),
              0);
    EXPECT_EQ(std::string(out.name), source + ":APP0100");
    EXPECT_EQ(strlen(out.name), 32u);
    EXPECT_FALSE(capture.contains("Truncating")) << capture.joined();
}

TEST(SetSubnodeNameTest, NeededLengthOfThirtyThreeDropsOneCharacter) {
    const std::string source = nameOf(25);
    Outputs out;
    TraceCapture capture("detail");
    ASSERT_EQ(ZEVA_SetSubnodeName("APP01", "GRP", source.c_str(), "00", out.name, nullptr, nullptr),
              0);
    EXPECT_EQ(std::string(out.name), source.substr(1) + ":APP0100");
    EXPECT_TRUE(capture.hasText("Truncating sourceName <" + source + "> length: 25, available: 24"))
        << capture.joined();
}

TEST(SetSubnodeNameTest, SuffixCountsWithItsUnderscore) {
    const std::string source = nameOf(20);  // 20 + 5 + 5 + 4 = 34
    Outputs out;
    TraceCapture capture("detail");
    ASSERT_EQ(
        ZEVA_SetSubnodeName("APP01", "GRP", source.c_str(), "00", out.name, out.untouched, "SFX01"),
        0);
    EXPECT_EQ(std::string(out.name), source.substr(2) + ":APP0100_SFX01");
    EXPECT_EQ(strlen(out.name), 32u);
    EXPECT_TRUE(capture.hasText("Truncating sourceName <" + source + "> length: 20, available: 18"))
        << capture.joined();
    EXPECT_TRUE(capture.hasText("sourceName truncated. New name <" + source.substr(2) + ">"))
        << capture.joined();
}

TEST(SetSubnodeNameTest, RRIsCountedAsTwoCharacters) {
    const std::string source = nameOf(24);  // needed 32 whatever RR's length
    Outputs out;
    TraceCapture capture("detail");
    ASSERT_EQ(
        ZEVA_SetSubnodeName("APP01", "GRP", source.c_str(), "0000", out.name, nullptr, nullptr), 0);
    EXPECT_EQ(std::string(out.name), source + ":APP010000");
    EXPECT_EQ(strlen(out.name), 34u);
    EXPECT_FALSE(capture.contains("Truncating")) << capture.joined();
}

TEST(SetSubnodeNameTest, AvailableZeroEmptiesTheSource) {
    const std::string appl = nameOf(29);  // 3 + 29 + 3 = 35, excess 3, available 0
    Outputs out;
    TraceCapture capture("detail");
    ASSERT_EQ(ZEVA_SetSubnodeName(appl.c_str(), "G", "SRC", "00", out.name, out.untouched, nullptr),
              0);
    EXPECT_EQ(std::string(out.name), ":" + appl + "00");
    EXPECT_EQ(std::string(out.untouched), "SRC:" + appl + "G00");
    EXPECT_TRUE(capture.hasText("Truncating sourceName <SRC> length: 3, available: 0"))
        << capture.joined();
    EXPECT_TRUE(capture.hasText("sourceName truncated. New name <>")) << capture.joined();
}

TEST(SetSubnodeNameTest, AvailableNegativeEmptiesTheSource) {
    const std::string appl = nameOf(20);
    const std::string suffix = "SUFFIX012345";  // 6 + 20 + 12 + 4 = 42, excess 10
    Outputs out;
    TraceCapture capture("detail");
    ASSERT_EQ(
        ZEVA_SetSubnodeName(appl.c_str(), "G", "SOURCE", "00", out.name, nullptr, suffix.c_str()),
        0);
    // The application name, RR and suffix are kept whole.
    EXPECT_EQ(std::string(out.name), ":" + appl + "00_" + suffix);
    EXPECT_TRUE(capture.hasText("Truncating sourceName <SOURCE> length: 6, available: -4"))
        << capture.joined();
    EXPECT_TRUE(capture.hasText("sourceName truncated. New name <>")) << capture.joined();
}

TEST(SetSubnodeNameTest, UntouchedLengthsSummingToSixtySevenAreAccepted) {
    const std::string source = nameOf(20);
    const std::string appl = "APPLICATION0123";  // 15
    const std::string group = nameOf(30);
    Outputs out;
    TraceCapture capture("error");
    ASSERT_EQ(ZEVA_SetSubnodeName(appl.c_str(), group.c_str(), source.c_str(), "00", out.name,
                                  out.untouched, nullptr),
              0);
    EXPECT_EQ(std::string(out.untouched), source + ":" + appl + group + "00");
    EXPECT_EQ(strlen(out.untouched), 68u);
    // 20 + 15 + 3 = 38: the source loses 6 characters.
    EXPECT_EQ(std::string(out.name), source.substr(6) + ":" + appl + "00");
    EXPECT_TRUE(capture.lines().empty()) << capture.joined();
}

TEST(SetSubnodeNameTest, UntouchedLengthsSummingToSixtyEightBuildNothing) {
    const std::string source = nameOf(20);
    const std::string appl = "APPLICATION0123";
    const std::string group = nameOf(31);
    Outputs out;
    TraceCapture capture("all");
    EXPECT_EQ(ZEVA_SetSubnodeName(appl.c_str(), group.c_str(), source.c_str(), "00", out.name,
                                  out.untouched, nullptr),
              1);
    EXPECT_STREQ(out.name, kUnchanged);
    EXPECT_STREQ(out.untouched, kUnchanged);
    EXPECT_EQ(capture.texts(), lines({"Entry",
                                      "applName<" + appl + "> srcName<" + source + "> attrGroup<" +
                                          group + "> RR<00>",
                                      "Error: Length ([20] + [15] +[31] +[2])", "Exit: 0x1"}))
        << capture.joined();
}

TEST(SetSubnodeNameTest, LengthRuleAppliesOnlyWithAnUntouchedBuffer) {
    const std::string source = nameOf(20);
    const std::string appl = "APPLICATION0123";
    const std::string group = nameOf(31);
    Outputs out;
    EXPECT_EQ(ZEVA_SetSubnodeName(appl.c_str(), group.c_str(), source.c_str(), "00", out.name,
                                  nullptr, nullptr),
              0);
    EXPECT_EQ(std::string(out.name), source.substr(6) + ":" + appl + "00");
}

TEST(SetSubnodeNameTest, LengthErrorIsAtErrorLevel) {
    const std::string group = nameOf(31);
    Outputs out;
    TraceCapture capture("error");
    EXPECT_EQ(ZEVA_SetSubnodeName("APPLICATION0123", group.c_str(), nameOf(20).c_str(), "00",
                                  out.name, out.untouched, nullptr),
              1);
    EXPECT_EQ(capture.texts(), lines({"Error: Length ([20] + [15] +[31] +[2])"}))
        << capture.joined();
}

TEST(SetSubnodeNameTest, OverlongSourceIsCutToThirtyTwo) {
    const std::string source = nameOf(40);
    Outputs out;
    TraceCapture capture("detail");
    ASSERT_EQ(ZEVA_SetSubnodeName("APP", "GRP", source.c_str(), "00", out.name, nullptr, nullptr),
              0);
    // 32 + 3 + 3 = 38: six more characters go from the left of the cut copy.
    EXPECT_EQ(std::string(out.name), source.substr(6, 26) + ":APP00");
    EXPECT_TRUE(capture.hasText("Truncating sourceName <" + source.substr(0, 32) +
                                "> length: 32, available: 26"))
        << capture.joined();
}

TEST(SetSubnodeNameTest, OverlongGroupIsCutToThirtyTwo) {
    const std::string group = nameOf(40);
    Outputs out;
    ASSERT_EQ(ZEVA_SetSubnodeName("A", group.c_str(), "S", "00", out.name, out.untouched, nullptr),
              0);
    EXPECT_EQ(std::string(out.untouched), "S:A" + group.substr(0, 32) + "00");
    EXPECT_STREQ(out.name, "S:A00");
}

// A buffer of exactly size bytes followed by a guard area, to show a write
// past its end.
class GuardedBuffer {
public:
    explicit GuardedBuffer(size_t size) : size_(size), bytes_(size + kGuard, kFill) {}
    char *data() { return bytes_.data(); }
    // The text written, read no further than the buffer's own bytes.
    std::string text() const { return std::string(bytes_.data(), strnlen(bytes_.data(), size_)); }
    bool guardIntact() const {
        for (size_t i = size_; i < bytes_.size(); ++i)
            if (bytes_[i] != kFill) return false;
        return true;
    }

private:
    static constexpr size_t kGuard = 64;
    static constexpr char kFill = '#';
    size_t size_;
    std::vector<char> bytes_;
};

// The size that the header gives for subnodeName: max(32, A + 3 + X) + R - 1.
size_t subnodeNameBytes(const std::string &appl, const std::string &rr, const char *suffix) {
    size_t x = suffix != nullptr ? strlen(suffix) + 1 : 0;
    return std::max<size_t>(32, appl.size() + 3 + x) + rr.size() - 1;
}

// The size that the header gives for subnodeNameUntouched.
constexpr size_t kUntouchedBytes = 69;

struct LongestCase {
    std::string appl;
    std::string source;
    std::string rr;
    const char *suffix;
    std::string expected;
};

TEST(SetSubnodeNameTest, LongestNamesFillTheDocumentedSizeExactly) {
    const std::string appl40 = nameOf(40);
    const std::string source40 = nameOf(40);
    const LongestCase cases[] = {
        // A long source is cut to 32 characters, then to what is left.
        {"APP01", source40, "00", nullptr, source40.substr(8, 24) + ":APP0100"},
        {"APP01", source40, "0000", nullptr, source40.substr(8, 24) + ":APP010000"},
        {"APP01", source40, "00", "SFX", source40.substr(12, 20) + ":APP0100_SFX"},
        // A long application name empties the source and is kept whole.
        {appl40, "SOURCE", "00", nullptr, ":" + appl40 + "00"},
        {appl40, "SOURCE", "00", "SFX", ":" + appl40 + "00_SFX"},
        {appl40, source40, "0000", "SFX", ":" + appl40 + "0000_SFX"},
    };
    for (const LongestCase &c : cases) {
        size_t size = subnodeNameBytes(c.appl, c.rr, c.suffix);
        GuardedBuffer name(size);
        ASSERT_EQ(ZEVA_SetSubnodeName(c.appl.c_str(), "GRP", c.source.c_str(), c.rr.c_str(),
                                      name.data(), nullptr, c.suffix),
                  0);
        EXPECT_EQ(name.text(), c.expected);
        EXPECT_EQ(name.text().size() + 1, size) << c.expected;
        EXPECT_TRUE(name.guardIntact()) << c.expected;
    }
}

TEST(SetSubnodeNameTest, LongestNamesBesideAnUntouchedNameFitSixtyNineBytes) {
    // 65 + 2 = 67 characters of parts, the most the call accepts: both
    // names have 68 characters.
    const std::string appl = nameOf(65);
    GuardedBuffer name(kUntouchedBytes);
    GuardedBuffer untouched(kUntouchedBytes);
    ASSERT_EQ(
        ZEVA_SetSubnodeName(appl.c_str(), "", "", "00", name.data(), untouched.data(), nullptr), 0);
    EXPECT_EQ(name.text(), ":" + appl + "00");
    EXPECT_EQ(untouched.text(), ":" + appl + "00");
    EXPECT_EQ(name.text().size() + 1, kUntouchedBytes);
    EXPECT_EQ(untouched.text().size() + 1, kUntouchedBytes);
    EXPECT_TRUE(name.guardIntact());
    EXPECT_TRUE(untouched.guardIntact());

    // The longest untouched name with every part present.
    const std::string source = nameOf(20);
    const std::string group = nameOf(30);
    GuardedBuffer name2(subnodeNameBytes("APPLICATION0123", "00", nullptr));
    GuardedBuffer untouched2(kUntouchedBytes);
    ASSERT_EQ(ZEVA_SetSubnodeName("APPLICATION0123", group.c_str(), source.c_str(), "00",
                                  name2.data(), untouched2.data(), nullptr),
              0);
    EXPECT_EQ(untouched2.text(), source + ":APPLICATION0123" + group + "00");
    EXPECT_EQ(untouched2.text().size() + 1, kUntouchedBytes);
    EXPECT_TRUE(untouched2.guardIntact());
    EXPECT_EQ(name2.text(), source.substr(6) + ":APPLICATION012300");
    EXPECT_TRUE(name2.guardIntact());

    // One character more is refused, and neither buffer is written.
    GuardedBuffer name3(kUntouchedBytes);
    GuardedBuffer untouched3(kUntouchedBytes);
    const std::string appl66 = nameOf(66);
    TraceCapture capture("error");
    EXPECT_EQ(
        ZEVA_SetSubnodeName(appl66.c_str(), "", "", "00", name3.data(), untouched3.data(), nullptr),
        1);
    EXPECT_EQ(name3.text(), std::string(kUntouchedBytes, '#'));
    EXPECT_EQ(untouched3.text(), std::string(kUntouchedBytes, '#'));
}

// ---------------------------------------------------------------------
// ZEVA_GetSrcNameFromSubNodeName

TEST(GetSrcNameTest, ReturnsTheTextBeforeTheColon) {
    TraceCapture capture("all");
    char *source = ZEVA_GetSrcNameFromSubNodeName("SRC:APP00");
    ASSERT_NE(source, nullptr);
    EXPECT_STREQ(source, "SRC");
    EXPECT_EQ(capture.texts(), lines({"Entry", "subnodeName<SRC:APP00>", exitPointer(source)}))
        << capture.joined();
}

TEST(GetSrcNameTest, FlowLineIsAtFlowLevel) {
    TraceCapture capture("flow");
    ASSERT_NE(ZEVA_GetSrcNameFromSubNodeName("SRC:APP00"), nullptr);
    EXPECT_EQ(capture.texts(), lines({"subnodeName<SRC:APP00>"})) << capture.joined();
}

TEST(GetSrcNameTest, OneSharedBufferOverwrittenByEachSuccess) {
    char *first = ZEVA_GetSrcNameFromSubNodeName("SRC:APP00");
    ASSERT_NE(first, nullptr);
    char *second = ZEVA_GetSrcNameFromSubNodeName("OTHER:APP00");
    EXPECT_EQ(second, first);
    EXPECT_STREQ(first, "OTHER");
    // A failure leaves it alone.
    EXPECT_EQ(ZEVA_GetSrcNameFromSubNodeName("NOCOLON"), nullptr);
    EXPECT_STREQ(first, "OTHER");
}

TEST(GetSrcNameTest, NullNameGivesNull) {
    TraceCapture capture("error");
    EXPECT_EQ(ZEVA_GetSrcNameFromSubNodeName(nullptr), nullptr);
    EXPECT_EQ(capture.texts(), lines({"Error: subnodeName was NULL."})) << capture.joined();
}

TEST(GetSrcNameTest, NameWithoutColonGivesNull) {
    TraceCapture capture("error");
    EXPECT_EQ(ZEVA_GetSrcNameFromSubNodeName("SRCAPP00"), nullptr);
    EXPECT_EQ(capture.texts(), lines({"Error: could not determine sourceName from <SRCAPP00>"}))
        << capture.joined();
}

TEST(GetSrcNameTest, ColonsOnlyGiveNull) {
    TraceCapture capture("error");
    EXPECT_EQ(ZEVA_GetSrcNameFromSubNodeName(":::"), nullptr);
    EXPECT_EQ(capture.texts(), lines({"Error: could not find ':' token in <:::>"}))
        << capture.joined();
}

TEST(GetSrcNameTest, LeadingColonIsSkipped) {
    char *source = ZEVA_GetSrcNameFromSubNodeName(":SRC:APP00");
    ASSERT_NE(source, nullptr);
    EXPECT_STREQ(source, "SRC");
}

TEST(GetSrcNameTest, SourceIsCutToThirtyTwo) {
    const std::string source = nameOf(40);
    char *result = ZEVA_GetSrcNameFromSubNodeName((source + ":APP00").c_str());
    ASSERT_NE(result, nullptr);
    EXPECT_EQ(std::string(result), source.substr(0, 32));
}

TEST(GetSrcNameTest, OnlySeventyCharactersAreRead) {
    const std::string name = nameOf(70) + ":APP00";  // the colon is the 71st character
    TraceCapture capture("error");
    EXPECT_EQ(ZEVA_GetSrcNameFromSubNodeName(name.c_str()), nullptr);
    EXPECT_TRUE(capture.hasText("Error: could not determine sourceName from <" + nameOf(70) + ">"))
        << capture.joined();
}

// ---------------------------------------------------------------------
// ZEVA_GetApplKeyFromSubNodeName

// Key buffer with room to show what is written past the four bytes.
struct Key {
    char bytes[8];
    Key() { memset(bytes, 'x', sizeof bytes); }
    bool untouched() const { return std::string(bytes, 8) == std::string(8, 'x'); }
};

TEST(GetApplKeyTest, KeyIsTheFirstThreeCharactersAfterTheColon) {
    Key key;
    TraceCapture capture("all");
    EXPECT_EQ(ZEVA_GetApplKeyFromSubNodeName("SRC:APP00", key.bytes), 0);
    EXPECT_EQ(std::string(key.bytes, 8), std::string("APP\0xxxx", 8));
    EXPECT_EQ(capture.texts(),
              lines({"Entry", "subnodeName[SRC:APP00]", "applKey[APP]", "Exit: 0x0"}))
        << capture.joined();
}

TEST(GetApplKeyTest, FlowLinesAreAtFlowLevel) {
    Key key;
    TraceCapture capture("flow");
    EXPECT_EQ(ZEVA_GetApplKeyFromSubNodeName("SRC:APP00", key.bytes), 0);
    EXPECT_EQ(capture.texts(), lines({"subnodeName[SRC:APP00]", "applKey[APP]"}))
        << capture.joined();
}

TEST(GetApplKeyTest, NothingAfterTheColonFails) {
    Key key;
    TraceCapture capture("error");
    EXPECT_EQ(ZEVA_GetApplKeyFromSubNodeName("SRC:", key.bytes), 1);
    EXPECT_TRUE(key.untouched());
    EXPECT_EQ(capture.texts(), lines({"Error: parsing [SRC:]"})) << capture.joined();
}

TEST(GetApplKeyTest, NullArgumentsFail) {
    Key key;
    TraceCapture capture("error");
    EXPECT_EQ(ZEVA_GetApplKeyFromSubNodeName(nullptr, key.bytes), 1);
    EXPECT_TRUE(key.untouched());
    EXPECT_EQ(ZEVA_GetApplKeyFromSubNodeName("SRC:APP00", nullptr), 1);
    EXPECT_EQ(capture.texts(),
              lines({"Error: subnodeName was NULL.", "Error: subnodeName was NULL."}))
        << capture.joined();
}

TEST(GetApplKeyTest, NameWithoutColonFails) {
    Key key;
    TraceCapture capture("error");
    EXPECT_EQ(ZEVA_GetApplKeyFromSubNodeName("SRCAPP00", key.bytes), 1);
    EXPECT_TRUE(key.untouched());
    EXPECT_EQ(capture.texts(), lines({"Error: could not determine sourceName from[SRCAPP00]"}))
        << capture.joined();
}

TEST(GetApplKeyTest, ColonsOnlySucceedWithoutAKey) {
    Key key;
    TraceCapture capture("all");
    EXPECT_EQ(ZEVA_GetApplKeyFromSubNodeName(":::", key.bytes), 0);
    EXPECT_TRUE(key.untouched());
    EXPECT_EQ(capture.texts(), lines({"Entry", "subnodeName[:::]", "Exit: 0x0"}))
        << capture.joined();
}

TEST(GetApplKeyTest, LeadingColonLandsOnTheTokenEnd) {
    // The first token is "SRC" at offset 1; the step of its length plus one
    // counted from the start lands on the zero that ended it.
    Key key;
    TraceCapture capture("error");
    EXPECT_EQ(ZEVA_GetApplKeyFromSubNodeName(":SRC:APP00", key.bytes), 1);
    EXPECT_TRUE(key.untouched());
    EXPECT_EQ(capture.texts(), lines({"Error: parsing [:SRC:APP00]"})) << capture.joined();
}

TEST(GetApplKeyTest, TwoLeadingColonsTakeTheKeyFromInsideTheSource) {
    // The token "SRC" sits at offset 2; the step lands on its last character.
    Key key;
    TraceCapture capture("flow");
    EXPECT_EQ(ZEVA_GetApplKeyFromSubNodeName("::SRC:APP00", key.bytes), 0);
    EXPECT_EQ(std::string(key.bytes, 8), std::string("C\0A\0xxxx", 8));
    EXPECT_TRUE(capture.hasText("applKey[C]")) << capture.joined();
}

TEST(GetApplKeyTest, ShortKeyCopiesItsTerminator) {
    Key two;
    EXPECT_EQ(ZEVA_GetApplKeyFromSubNodeName("SRC:AB", two.bytes), 0);
    EXPECT_EQ(std::string(two.bytes, 8), std::string("AB\0\0xxxx", 8));
    Key one;
    EXPECT_EQ(ZEVA_GetApplKeyFromSubNodeName("SRC:A", one.bytes), 0);
    EXPECT_EQ(std::string(one.bytes, 8), std::string("A\0\0\0xxxx", 8));
}

TEST(GetApplKeyTest, KeyEndsAtANewline) {
    Key key;
    EXPECT_EQ(ZEVA_GetApplKeyFromSubNodeName("SRC:AP\nP00", key.bytes), 0);
    EXPECT_EQ(std::string(key.bytes, 8), std::string("AP\0\0xxxx", 8));
}

TEST(GetApplKeyTest, OnlyThirtyTwoCharactersAreRead) {
    const std::string source = nameOf(33);
    const std::string name = source + ":APP00";
    Key key;
    TraceCapture capture("error+flow");
    EXPECT_EQ(ZEVA_GetApplKeyFromSubNodeName(name.c_str(), key.bytes), 1);
    EXPECT_TRUE(key.untouched());
    // The flow line shows the name as given, the error line the copy.
    EXPECT_EQ(capture.texts(),
              lines({"subnodeName[" + name + "]",
                     "Error: could not determine sourceName from[" + source.substr(0, 32) + "]"}))
        << capture.joined();
}

TEST(GetApplKeyTest, KeyAtTheEndOfTheCopyStaysInside) {
    const std::string name = nameOf(30) + ":APP00";  // the copy ends after "A"
    Key key;
    EXPECT_EQ(ZEVA_GetApplKeyFromSubNodeName(name.c_str(), key.bytes), 0);
    EXPECT_EQ(std::string(key.bytes, 8), std::string("A\0\0\0xxxx", 8));
}

}  // namespace
