// The registration request builder: accepted texts with their exact bytes,
// refused texts with their one error line, the 4096-byte bound and the
// per-thread buffer.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <barrier>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "support/trace_capture.h"
#include "zev0.h"

namespace {

using zevd::test::TraceCapture;

constexpr int kHelp = ZEV0_FIELD_REG_HELP;
constexpr int kType = ZEV0_FIELD_REG_ATTR_TYPE;
constexpr int kSize = ZEV0_FIELD_REG_ATTR_SIZE;

uint32_t lengthWord(const char *buffer) {
    uint32_t v;
    memcpy(&v, buffer, 4);
    return ntohl(v);
}

// One field as walked: type and value bytes.
struct Field {
    int type;
    std::string value;
};

// Walks a request with the bounded reader; a field that does not parse
// ends the walk with type 0.
std::vector<Field> walk(const char *buffer) {
    std::vector<Field> fields;
    uint32_t length = lengthWord(buffer);
    if (length < 4 || length > ZEV0_REQUEST_SIZE) return fields;
    char *cursor = const_cast<char *>(buffer) + 4;
    const char *end = buffer + length;
    for (int guard = 0; cursor < end && guard < ZEV0_REQUEST_SIZE; ++guard) {
        char *value = nullptr;
        int valueLen = 0;
        int type = ZEV0_ExtractDataFieldBounded(&cursor, end, &value, &valueLen);
        fields.push_back({type, type == 0 ? std::string() : std::string(value, valueLen)});
        if (type == 0) break;
    }
    return fields;
}

std::string str(const std::string &s) {
    return std::string(s.c_str(), s.size() + 1);  // with the terminating zero
}

std::string be16(uint16_t v) {
    return std::string{static_cast<char>(v >> 8), static_cast<char>(v & 0xFF)};
}

std::string be32(uint32_t v) {
    return be16(static_cast<uint16_t>(v >> 16)) + be16(static_cast<uint16_t>(v & 0xFFFF));
}

void expectFields(const char *buffer, const std::vector<Field> &want) {
    std::vector<Field> got = walk(buffer);
    ASSERT_EQ(got.size(), want.size());
    for (size_t i = 0; i < want.size(); ++i) {
        EXPECT_EQ(got[i].type, want[i].type) << "field " << i;
        EXPECT_EQ(got[i].value, want[i].value) << "field " << i;
    }
}

std::vector<Field> attrFields(const std::string &name, char letter, uint32_t size,
                              const std::string &help) {
    return {{80, str(name)},
            {kType, be16(static_cast<uint16_t>(letter))},
            {kSize, be32(size)},
            {kHelp, str(help)}};
}

std::string build(const char *text) {
    char *buffer = nullptr;
    EXPECT_EQ(ZEVP_ConstructDPregisterBuffer(text, &buffer), 1) << text;
    if (buffer == nullptr) return std::string();
    return std::string(buffer, lengthWord(buffer));
}

class TempDir {
public:
    TempDir() {
        char pattern[] = "/tmp/register_test.XXXXXX";
        char *made = mkdtemp(pattern);
        path_ = made != nullptr ? made : "";
    }
    ~TempDir() {
        for (const auto &file : files_) unlink(file.c_str());
        if (!path_.empty()) rmdir(path_.c_str());
    }
    std::string write(const std::string &name, const std::string &content) {
        std::string file = path_ + "/" + name;
        std::ofstream out(file, std::ios::binary);
        out << content;
        files_.push_back(file);
        return file;
    }
    const std::string &path() const { return path_; }

private:
    std::string path_;
    std::vector<std::string> files_;
};

const char kCatalogue[] =
    "APPL myapp My application\n"
    "GROUP grp1 First group\n"
    "ATTR count A 4 How many\n"
    "ATTR name D 16\n"
    "GROUP grp2\n"
    "ATTR flag S 2 a flag\n";

std::vector<Field> catalogueFields() {
    std::vector<Field> want = {{16, be16(0x1010)},
                               {32, str("myapp")},
                               {kHelp, str("My application")},
                               {35, str("grp1")},
                               {kHelp, str("First group")}};
    for (auto &f : attrFields("count", 'A', 4, "How many")) want.push_back(f);
    for (auto &f : attrFields("name", 'D', 16, "")) want.push_back(f);
    want.push_back({35, str("grp2")});
    want.push_back({kHelp, str("")});
    for (auto &f : attrFields("flag", 'S', 2, "a flag")) want.push_back(f);
    return want;
}

TEST(RegisterTest, SmallTextGivesExactBytes) {
    std::string got = build("APPL ab hi;GROUP g;ATTR x A 4");
    const unsigned char want[] = {
        0x00, 0x00, 0x00, 0x4e,                                      // length word: 78
        0x00, 0x10, 0x00, 0x00, 0x00, 0x02, 0x10, 0x10,              // request code
        0x00, 0x20, 0x00, 0x00, 0x00, 0x03, 'a',  'b',  0x00,        // APPL name
        0x02, 0x00, 0x00, 0x00, 0x00, 0x03, 'h',  'i',  0x00,        // its help
        0x00, 0x23, 0x00, 0x00, 0x00, 0x02, 'g',  0x00,              // GROUP name
        0x02, 0x00, 0x00, 0x00, 0x00, 0x01, 0x00,                    // empty help
        0x00, 0x50, 0x00, 0x00, 0x00, 0x02, 'x',  0x00,              // ATTR name
        0x02, 0x01, 0x00, 0x00, 0x00, 0x02, 0x00, 'A',               // type letter
        0x02, 0x02, 0x00, 0x00, 0x00, 0x04, 0x00, 0x00, 0x00, 0x04,  // size
        0x02, 0x00, 0x00, 0x00, 0x00, 0x01, 0x00,                    // empty help
    };
    ASSERT_EQ(got.size(), sizeof want);
    EXPECT_EQ(got, std::string(reinterpret_cast<const char *>(want), sizeof want));
}

TEST(RegisterTest, NewlineSeparatedCatalogueWalksFieldByField) {
    char *buffer = nullptr;
    ASSERT_EQ(ZEVP_ConstructDPregisterBuffer(kCatalogue, &buffer), 1);
    ASSERT_NE(buffer, nullptr);
    expectFields(buffer, catalogueFields());
    // The walk consumed exactly the length word's bytes.
    size_t total = 4;
    for (const auto &f : walk(buffer)) total += ZEV0_FIELD_HEADER + f.value.size();
    EXPECT_EQ(total, lengthWord(buffer));
}

TEST(RegisterTest, SemicolonsAndNewlinesGiveTheSameRequest) {
    std::string text = kCatalogue;
    for (auto &c : text)
        if (c == '\n') c = ';';
    EXPECT_EQ(build(text.c_str()), build(kCatalogue));
}

TEST(RegisterTest, BlanksAroundStatementsAndWordsAreIgnored) {
    std::string got = build(
        "  APPL   app  \t help  with  inner  blanks ;; \r\n"
        "\tGROUP g ; ATTR   x  Z  4096   \r\n\n");
    std::vector<Field> want = {{16, be16(0x1010)},
                               {32, str("app")},
                               {kHelp, str("help  with  inner  blanks")},
                               {35, str("g")},
                               {kHelp, str("")}};
    for (auto &f : attrFields("x", 'Z', 4096, "")) want.push_back(f);
    expectFields(got.c_str(), want);
}

TEST(RegisterTest, ApplicationAloneIsAccepted) {
    std::string got = build("APPL lonely");
    expectFields(got.c_str(), {{16, be16(0x1010)}, {32, str("lonely")}, {kHelp, str("")}});
}

TEST(RegisterTest, NamesAtTheirLimitsAndEveryLetterAreAccepted) {
    std::string appl(20, 'a'), group(32, 'g'), attr(32, 't');
    std::string text = "APPL " + appl + "\nGROUP " + group + "\nATTR " + attr + " A 2\n";
    std::string letters = "ABCDEFGHIJKLMNOPQRSTUVWXYZ";
    for (char c : letters) {
        int size = (c == 'I' || c == 'S')
                       ? 2
                       : (std::string("ACGLN").find(c) != std::string::npos ? 4 : 7);
        text += std::string("ATTR a") + c + " " + c + " " + std::to_string(size) + "\n";
    }
    std::string got = build(text.c_str());
    std::vector<Field> fields = walk(got.c_str());
    ASSERT_EQ(fields.size(), 5u + 4u * 27u);
    EXPECT_EQ(fields[1].value, str(appl));
    EXPECT_EQ(fields[3].value, str(group));
    EXPECT_EQ(fields[5].value, str(attr));
    for (size_t i = 0; i < letters.size(); ++i) {
        const Field &type = fields[5 + 4 * (i + 1) + 1];
        EXPECT_EQ(type.type, kType);
        EXPECT_EQ(type.value, be16(static_cast<uint16_t>(letters[i])));
    }
}

TEST(RegisterTest, TextFromAFileEqualsTheTextItself) {
    TempDir dir;
    ASSERT_FALSE(dir.path().empty());
    std::string content = kCatalogue;
    std::string crlf;
    for (char c : content) crlf += c == '\n' ? std::string("\r\n") : std::string(1, c);
    std::string path = dir.write("reg.txt", crlf);
    EXPECT_EQ(build(("@" + path).c_str()), build(kCatalogue));
    EXPECT_EQ(build(("  @" + path + " \n").c_str()), build(kCatalogue));
}

TEST(RegisterTest, FileOfExactly64KiBIsAccepted) {
    TempDir dir;
    std::string content = "APPL a;GROUP g;ATTR x A 2\n";
    content.resize(64 * 1024, ' ');
    std::string path = dir.write("big.txt", content);
    std::string got = build(("@" + path).c_str());
    EXPECT_EQ(walk(got.c_str()).size(), 9u);
}

TEST(RegisterTest, RequestEndingExactlyAt4096IsAccepted) {
    // APPL "a" with a 22-character help, GROUP "g", 112 ATTRs "aNNN" of
    // 36 bytes each: 4 + 8 + 37 + 15 + 112 * 36 = 4096.
    std::string text = "APPL a " + std::string(22, 'h') + "\nGROUP g\n";
    for (int i = 0; i < 112; ++i) text += "ATTR a" + std::to_string(100 + i) + " D 8\n";
    char *buffer = nullptr;
    ASSERT_EQ(ZEVP_ConstructDPregisterBuffer(text.c_str(), &buffer), 1);
    EXPECT_EQ(lengthWord(buffer), 4096u);
    std::vector<Field> fields = walk(buffer);
    ASSERT_EQ(fields.size(), 5u + 4u * 112u);
    EXPECT_NE(fields.back().type, 0);
}

TEST(RegisterTest, RequestOneBytePast4096IsRefused) {
    TraceCapture capture("error");
    std::string text = "APPL a " + std::string(23, 'h') + "\nGROUP g\n";
    for (int i = 0; i < 112; ++i) text += "ATTR a" + std::to_string(100 + i) + " D 8\n";
    char sentinel = 0;
    char *buffer = &sentinel;
    EXPECT_EQ(ZEVP_ConstructDPregisterBuffer(text.c_str(), &buffer), 0);
    EXPECT_EQ(buffer, &sentinel);
    // The last ATTR, statement 2 + 112, is the one that does not fit.
    ASSERT_EQ(capture.texts().size(), 1u) << capture.joined();
    EXPECT_TRUE(
        capture.hasText("Error: registration statement 114: request does not fit 4096 bytes"))
        << capture.joined();
}

TEST(RegisterTest, FarTooLargeRequestIsRefusedAtTheFirstStatementThatDoesNotFit) {
    TraceCapture capture("error");
    std::string text = "APPL a\nGROUP g\n";
    for (int i = 0; i < 200; ++i) text += "ATTR a" + std::to_string(100 + i) + " D 8\n";
    char *buffer = nullptr;
    EXPECT_EQ(ZEVP_ConstructDPregisterBuffer(text.c_str(), &buffer), 0);
    EXPECT_EQ(buffer, nullptr);
    // 4 + 8 + 15 + 15 = 42, then 36 per ATTR: the 113th ends at 4110.
    EXPECT_TRUE(
        capture.hasText("Error: registration statement 115: request does not fit 4096 bytes"))
        << capture.joined();
}

TEST(RegisterTest, FailedCallKeepsTheThreadsLastRequest) {
    char *first = nullptr;
    ASSERT_EQ(ZEVP_ConstructDPregisterBuffer("APPL keep", &first), 1);
    std::string before(first, lengthWord(first));
    TraceCapture capture("none");
    char *second = first;
    EXPECT_EQ(ZEVP_ConstructDPregisterBuffer("APPL x;BOGUS", &second), 0);
    EXPECT_EQ(second, first);
    EXPECT_EQ(std::string(first, lengthWord(first)), before);
}

TEST(RegisterTest, NullArgumentsAreRefused) {
    TraceCapture capture("error");
    char *buffer = nullptr;
    EXPECT_EQ(ZEVP_ConstructDPregisterBuffer(nullptr, &buffer), 0);
    EXPECT_EQ(buffer, nullptr);
    EXPECT_EQ(capture.texts().size(), 1u) << capture.joined();
    EXPECT_TRUE(capture.hasText("Error: registration statement 0: no registration text"))
        << capture.joined();
    capture.clear();
    EXPECT_EQ(ZEVP_ConstructDPregisterBuffer("APPL a", nullptr), 0);
    EXPECT_EQ(capture.count("Error: "), 1u) << capture.joined();
}

TEST(RegisterTest, ErrorLineIsWrittenOnlyAtErrorLevelAndFollowsReconfiguration) {
    TraceCapture capture("none");
    char *buffer = nullptr;
    EXPECT_EQ(ZEVP_ConstructDPregisterBuffer("NOPE", &buffer), 0);
    EXPECT_TRUE(capture.lines().empty()) << capture.joined();
    TLG1_Configure("zev0=error");
    EXPECT_EQ(ZEVP_ConstructDPregisterBuffer("NOPE", &buffer), 0);
    ASSERT_EQ(capture.lines().size(), 1u) << capture.joined();
    const std::string line = capture.lines()[0];
    EXPECT_NE(line.find(" zev0 ZEVP_ConstructDPregisterBuffer:"), std::string::npos) << line;
    EXPECT_EQ(zevd::test::traceText(line),
              "Error: registration statement 1: unknown keyword <NOPE>\n");
    TLG1_Configure("zev0=none");
    EXPECT_EQ(ZEVP_ConstructDPregisterBuffer("NOPE", &buffer), 0);
    EXPECT_EQ(capture.lines().size(), 1u) << capture.joined();
}

TEST(RegisterTest, EachThreadGetsItsOwnBuffer) {
    char *mine = nullptr;
    ASSERT_EQ(ZEVP_ConstructDPregisterBuffer("APPL main", &mine), 1);
    std::barrier both(2);
    char *seen[2] = {nullptr, nullptr};
    bool intact[2] = {false, false};
    auto run = [&](int index, const char *text, const char *name) {
        char *buffer = nullptr;
        if (ZEVP_ConstructDPregisterBuffer(text, &buffer) != 1) {
            both.arrive_and_wait();
            both.arrive_and_wait();
            return;
        }
        seen[index] = buffer;
        both.arrive_and_wait();  // both requests are built before either is checked
        std::vector<Field> fields = walk(buffer);
        intact[index] = fields.size() == 3 && fields[1].value == str(name);
        both.arrive_and_wait();  // both buffers stay alive until both are checked
    };
    std::thread one(run, 0, "APPL first", "first");
    std::thread two(run, 1, "APPL second", "second");
    one.join();
    two.join();
    ASSERT_NE(seen[0], nullptr);
    ASSERT_NE(seen[1], nullptr);
    EXPECT_NE(seen[0], seen[1]);
    EXPECT_NE(seen[0], mine);
    EXPECT_NE(seen[1], mine);
    EXPECT_TRUE(intact[0]);
    EXPECT_TRUE(intact[1]);
    expectFields(mine, {{16, be16(0x1010)}, {32, str("main")}, {kHelp, str("")}});
}

// Refused texts: each gives 0, leaves *buffer alone and writes one line.
struct BadText {
    const char *name;
    std::string text;
    std::string line;
};

void PrintTo(const BadText &bad, std::ostream *os) {
    *os << bad.name;
}

class RegisterBadTextTest : public ::testing::TestWithParam<BadText> {};

TEST_P(RegisterBadTextTest, IsRefusedWithOneErrorLine) {
    const BadText &bad = GetParam();
    TraceCapture capture("error");
    char sentinel = 0;
    char *buffer = &sentinel;
    EXPECT_EQ(ZEVP_ConstructDPregisterBuffer(bad.text.c_str(), &buffer), 0);
    EXPECT_EQ(buffer, &sentinel);
    std::vector<std::string> texts = capture.texts();
    ASSERT_EQ(texts.size(), 1u) << capture.joined();
    EXPECT_EQ(texts[0], bad.line + "\n");
}

const std::string kAttr33(33, 't');
const std::string kGroup33(33, 'g');
const std::string kAppl21(21, 'a');

INSTANTIATE_TEST_SUITE_P(
    Rules, RegisterBadTextTest,
    ::testing::Values(
        BadText{"Empty", "", "Error: registration statement 0: no APPL statement"},
        BadText{"OnlyBlanks", "  ;\n \t; \r\n",
                "Error: registration statement 0: no APPL statement"},
        BadText{"UnknownFirst", "FOO x", "Error: registration statement 1: unknown keyword <FOO>"},
        BadText{"UnknownLater", "APPL a\nFOO b",
                "Error: registration statement 2: unknown keyword <FOO>"},
        BadText{"LowerCaseKeyword", "appl a",
                "Error: registration statement 1: unknown keyword <appl>"},
        BadText{"BlankStatementsCount", "APPL a\n\n;GROUP g\nATTR x A 2\nNOPE",
                "Error: registration statement 6: unknown keyword <NOPE>"},
        BadText{"GroupFirst", "GROUP g\nAPPL a",
                "Error: registration statement 1: GROUP before APPL"},
        BadText{"AttrFirst", "ATTR x A 2", "Error: registration statement 1: ATTR before APPL"},
        BadText{"SecondAppl", "APPL a;GROUP g;ATTR x A 2;APPL b",
                "Error: registration statement 4: second APPL statement"},
        BadText{"AttrOutsideGroup", "APPL a;ATTR x A 2",
                "Error: registration statement 2: ATTR outside a GROUP"},
        BadText{"EmptyLastGroup", "APPL a;GROUP g;ATTR x A 2;GROUP h",
                "Error: registration statement 4: GROUP <h> has no ATTR"},
        BadText{"EmptyGroupBeforeGroup", "APPL a;GROUP g;GROUP h;ATTR x A 2",
                "Error: registration statement 2: GROUP <g> has no ATTR"},
        BadText{"ApplWithoutName", "APPL", "Error: registration statement 1: APPL without a name"},
        BadText{"GroupWithoutName", "APPL a; GROUP ",
                "Error: registration statement 2: GROUP without a name"},
        BadText{"AttrWithoutName", "APPL a;GROUP g;ATTR",
                "Error: registration statement 3: ATTR without a name"},
        BadText{"ApplNameTooLong", "APPL " + kAppl21,
                "Error: registration statement 1: APPL name <" + kAppl21 +
                    "> longer than 20 characters"},
        BadText{"GroupNameTooLong", "APPL a;GROUP " + kGroup33 + ";ATTR x A 2",
                "Error: registration statement 2: GROUP name <" + kGroup33 +
                    "> longer than 32 characters"},
        BadText{"AttrNameTooLong", "APPL a;GROUP g;ATTR " + kAttr33 + " A 2",
                "Error: registration statement 3: ATTR name <" + kAttr33 +
                    "> longer than 32 characters"},
        BadText{"NoLetter", "APPL a;GROUP g;ATTR x",
                "Error: registration statement 3: ATTR <x> without a type letter"},
        BadText{"LowerCaseLetter", "APPL a;GROUP g;ATTR x a 2",
                "Error: registration statement 3: ATTR <x>: type <a> is not one letter A-Z"},
        BadText{"TwoLetters", "APPL a;GROUP g;ATTR x AB 2",
                "Error: registration statement 3: ATTR <x>: type <AB> is not one letter A-Z"},
        BadText{"DigitLetter", "APPL a;GROUP g;ATTR x 4 2",
                "Error: registration statement 3: ATTR <x>: type <4> is not one letter A-Z"},
        BadText{"NoSize", "APPL a;GROUP g;ATTR x D",
                "Error: registration statement 3: ATTR <x> without a size"},
        BadText{"SizeZero", "APPL a;GROUP g;ATTR x D 0",
                "Error: registration statement 3: ATTR <x>: size <0> is not a number from 1 to "
                "4096"},
        BadText{"SizeTooLarge", "APPL a;GROUP g;ATTR x D 4097",
                "Error: registration statement 3: ATTR <x>: size <4097> is not a number from 1 "
                "to 4096"},
        BadText{"SizeHuge", "APPL a;GROUP g;ATTR x D 99999999999999999999",
                "Error: registration statement 3: ATTR <x>: size <99999999999999999999> is not a "
                "number from 1 to 4096"},
        BadText{"SizeNegative", "APPL a;GROUP g;ATTR x D -1",
                "Error: registration statement 3: ATTR <x>: size <-1> is not a number from 1 to "
                "4096"},
        BadText{"SizeNotDecimal", "APPL a;GROUP g;ATTR x D 0x10",
                "Error: registration statement 3: ATTR <x>: size <0x10> is not a number from 1 "
                "to 4096"},
        BadText{"IntegerSize3", "APPL a;GROUP g;ATTR x A 3",
                "Error: registration statement 3: ATTR <x>: type A takes size 2 or 4, not 3"},
        BadText{"IntegerSize8C", "APPL a;GROUP g;ATTR x C 8",
                "Error: registration statement 3: ATTR <x>: type C takes size 2 or 4, not 8"},
        BadText{"IntegerSize1G", "APPL a;GROUP g;ATTR x G 1",
                "Error: registration statement 3: ATTR <x>: type G takes size 2 or 4, not 1"},
        BadText{"IntegerSize6L", "APPL a;GROUP g;ATTR x L 6",
                "Error: registration statement 3: ATTR <x>: type L takes size 2 or 4, not 6"},
        BadText{"IntegerSize16N", "APPL a;GROUP g;ATTR x N 16",
                "Error: registration statement 3: ATTR <x>: type N takes size 2 or 4, not 16"},
        BadText{"ShortSize4I", "APPL a;GROUP g;ATTR x I 4",
                "Error: registration statement 3: ATTR <x>: type I takes size 2, not 4"},
        BadText{"ShortSize1S", "APPL a;GROUP g;ATTR x S 1",
                "Error: registration statement 3: ATTR <x>: type S takes size 2, not 1"},
        BadText{"AtWithoutPath", " @  ", "Error: registration statement 0: no file name after @"},
        BadText{"MissingFile", "@/nonexistent/zevd/registration.txt",
                "Error: registration statement 0: cannot read "
                "</nonexistent/zevd/registration.txt>: No such file or directory"},
        BadText{"Directory", "@/",
                "Error: registration statement 0: cannot read </>: Is a "
                "directory"},
        BadText{"AtNotFirst", "APPL a;@/etc/hostname",
                "Error: registration statement 2: unknown keyword <@/etc/hostname>"}),
    [](const ::testing::TestParamInfo<BadText> &p) { return std::string(p.param.name); });

TEST(RegisterTest, FileLargerThan64KiBIsRefused) {
    TempDir dir;
    std::string content = "APPL a;GROUP g;ATTR x A 2\n";
    content.resize(64 * 1024 + 1, ' ');
    std::string path = dir.write("big.txt", content);
    TraceCapture capture("error");
    char *buffer = nullptr;
    EXPECT_EQ(ZEVP_ConstructDPregisterBuffer(("@" + path).c_str(), &buffer), 0);
    EXPECT_EQ(buffer, nullptr);
    ASSERT_EQ(capture.texts().size(), 1u) << capture.joined();
    EXPECT_TRUE(capture.hasText("Error: registration statement 0: file <" + path +
                                "> is larger than 65536 bytes"))
        << capture.joined();
}

TEST(RegisterTest, FileWithAZeroByteIsRefused) {
    TempDir dir;
    std::string content("APPL a;GROUP g;ATTR x A 2 help\0more\n", 36);
    std::string path = dir.write("zero.txt", content);
    TraceCapture capture("error");
    char *buffer = nullptr;
    EXPECT_EQ(ZEVP_ConstructDPregisterBuffer(("@" + path).c_str(), &buffer), 0);
    EXPECT_TRUE(
        capture.hasText("Error: registration statement 0: file <" + path + "> holds a zero byte"))
        << capture.joined();
}

TEST(RegisterTest, ErrorsInAFileCountTheFilesStatements) {
    TempDir dir;
    std::string path = dir.write("bad.txt", "APPL a\nGROUP g\nATTR x A 2\nATTR y Q\n");
    TraceCapture capture("error");
    char *buffer = nullptr;
    EXPECT_EQ(ZEVP_ConstructDPregisterBuffer(("@" + path).c_str(), &buffer), 0);
    EXPECT_TRUE(capture.hasText("Error: registration statement 4: ATTR <y> without a size"))
        << capture.joined();
}

}  // namespace
