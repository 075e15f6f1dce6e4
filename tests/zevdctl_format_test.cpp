// zevdctl's argument parser and its formatting, without a DCH.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <climits>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "zevd610.h"
#include "zevdctl_format.h"

namespace zevdctl {
namespace {

int32_t int32Of(const Pair &p) {
    int32_t v = 0;
    EXPECT_EQ(p.value.size(), 4u);
    memcpy(&v, p.value.data(), 4);
    return v;
}
int16_t int16Of(const Pair &p) {
    int16_t v = 0;
    EXPECT_EQ(p.value.size(), 2u);
    memcpy(&v, p.value.data(), 2);
    return v;
}

TEST(ZevdctlPairTest, EveryTypeLetterTakesItsKindOfValue) {
    for (char letter = 'A'; letter <= 'Z'; ++letter) {
        SCOPED_TRACE(std::string(1, letter));
        Pair p;
        std::string why;
        std::string value = isIntegerType(letter) ? "12" : "text";
        ASSERT_TRUE(parsePair(std::string("x=") + letter + ":" + value, p, &why)) << why;
        EXPECT_EQ(p.name, "x");
        EXPECT_EQ(p.type, letter);
        if (letter == 'I' || letter == 'S')
            EXPECT_EQ(int16Of(p), 12);
        else if (letter == 'A' || letter == 'C' || letter == 'G' || letter == 'L' || letter == 'N')
            EXPECT_EQ(int32Of(p), 12);
        else
            EXPECT_EQ(p.value, (std::vector<char>{'t', 'e', 'x', 't', '\0'}));
    }
}

TEST(ZevdctlPairTest, IntegersAtTheirLimits) {
    Pair p;
    std::string why;
    ASSERT_TRUE(parsePair("n=A:2147483647", p, &why));
    EXPECT_EQ(int32Of(p), INT32_MAX);
    ASSERT_TRUE(parsePair("n=N:-2147483648", p, &why));
    EXPECT_EQ(int32Of(p), INT32_MIN);
    EXPECT_FALSE(parsePair("n=A:2147483648", p, &why));
    EXPECT_EQ(why, "'n=A:2147483648': type A takes an integer from -2147483648 to 2147483647");
    EXPECT_FALSE(parsePair("n=C:-2147483649", p, &why));
    ASSERT_TRUE(parsePair("n=S:32767", p, &why));
    EXPECT_EQ(int16Of(p), 32767);
    ASSERT_TRUE(parsePair("n=I:-32768", p, &why));
    EXPECT_EQ(int16Of(p), -32768);
    EXPECT_FALSE(parsePair("n=S:32768", p, &why));
    EXPECT_EQ(why, "'n=S:32768': type S takes an integer from -32768 to 32767");
    EXPECT_FALSE(parsePair("n=I:-32769", p, &why));
}

TEST(ZevdctlPairTest, TextsAndNamesAtTheirLimits) {
    Pair p;
    std::string why;
    ASSERT_TRUE(parsePair("t=D:", p, &why));
    EXPECT_EQ(p.value, std::vector<char>{'\0'});
    ASSERT_TRUE(parsePair("t=D:" + std::string(4095, 'v'), p, &why));
    EXPECT_EQ(p.value.size(), 4096u);
    EXPECT_FALSE(parsePair("t=D:" + std::string(4096, 'v'), p, &why));
    EXPECT_EQ(why.substr(why.find("': ") + 3), "the text is longer than 4095 characters");
    ASSERT_TRUE(parsePair("t=D:a=b:c", p, &why));  // the value keeps its own '=' and ':'
    EXPECT_EQ(std::string(p.value.data()), "a=b:c");
    ASSERT_TRUE(parsePair(std::string(32, 'n') + "=A:1", p, &why));
    EXPECT_FALSE(parsePair(std::string(33, 'n') + "=A:1", p, &why));
}

TEST(ZevdctlPairTest, MalformedPairsSayWhatIsWrong) {
    struct Case {
        const char *text;
        const char *why;
    };
    const Case cases[] = {
        {"x", "'x': not NAME=TYPE:VALUE"},
        {"=A:1", "'=A:1': NAME '' does not have 1 to 32 characters"},
        {"a b=A:1", "'a b=A:1': NAME 'a b' has a blank, a comma or a control character"},
        {"a,b=A:1", "'a,b=A:1': NAME 'a,b' has a blank, a comma or a control character"},
        {"x=", "'x=': no TYPE: after the '='"},
        {"x=A", "'x=A': no TYPE: after the '='"},
        {"x=AA:1", "'x=AA:1': the type 'AA' is not one letter A to Z"},
        {"x=:1", "'x=:1': no TYPE: after the '='"},
        {"x=1/2", "'x=1/2': no TYPE: after the '='"},
        {"x=a:1", "'x=a:1': the type is not a letter A to Z"},
        {"x=1:1", "'x=1:1': the type is not a letter A to Z"},
        {"x=A:", "'x=A:': type A takes an integer from -2147483648 to 2147483647"},
        {"x=A:1.5", "'x=A:1.5': type A takes an integer from -2147483648 to 2147483647"},
        {"x=A:12abc", "'x=A:12abc': type A takes an integer from -2147483648 to 2147483647"},
        {"x=S: 1", "'x=S: 1': type S takes an integer from -32768 to 32767"},
    };
    for (const Case &c : cases) {
        Pair p;
        std::string why;
        EXPECT_FALSE(parsePair(c.text, p, &why)) << c.text;
        EXPECT_EQ(why, c.why);
    }
}

TEST(ZevdctlFormatTest, TableAlignsColumnsAndEndsLinesWithoutBlanks) {
    EXPECT_EQ(table({"GROUP", "ATTRIBUTE", "TYPE", "SIZE"},
                    {{"disk", "mount", "D", "64"}, {"disk", "usedPct", "A", "4"}}),
              "GROUP  ATTRIBUTE  TYPE  SIZE\n"
              "disk   mount      D     64\n"
              "disk   usedPct    A     4\n");
    EXPECT_EQ(tableLine({"a", "b", "c"}, {3, 3, 3}), "a    b    c\n");
}

TEST(ZevdctlFormatTest, JsonLinesAreValidWhateverTheBytes) {
    Json object = Json::object();
    object["b"] = "q\"b\\n\nt\tc\x01\x1b";
    object["a"] = "h\xc3\xa9llo";
    object["bad"] = std::string("x\xff\xfey");
    object["n"] = -7;
    std::string line = jsonLine(object);
    // Keys in the order given, one line, control characters escaped, UTF-8
    // as it is, each bad byte as U+FFFD.
    EXPECT_EQ(line,
              "{\"b\":\"q\\\"b\\\\n\\nt\\tc\\u0001\\u001b\",\"a\":\"h\xc3\xa9llo\","
              "\"bad\":\"x\xef\xbf\xbd\xef\xbf\xbdy\",\"n\":-7}\n");
    Json back = Json::parse(line);
    EXPECT_EQ(back["b"], "q\"b\\n\nt\tc\x01\x1b");
    EXPECT_EQ(back["bad"], "x\xef\xbf\xbd\xef\xbf\xbdy");
}

TEST(ZevdctlFormatTest, IntegerLettersGiveNumbersAndEverythingElseStrings) {
    EXPECT_EQ(jsonValue(std::string("\xff\xff\xff\xfe", 4), 'A'), Json(-2));
    EXPECT_EQ(jsonValue(std::string("\x80\x00", 2), 'S'), Json(-32768));
    EXPECT_EQ(jsonValue(std::string("007\0", 4), 'D'), Json("007"));
    EXPECT_EQ(jsonValue(std::string("1-2\0", 4), 'T'), Json("1-2"));
    // An integer letter with a value of another width: as read, a string.
    EXPECT_TRUE(jsonValue(std::string("abc\0", 4), 'S').is_string());
    EXPECT_TRUE(jsonValue(std::string("abc", 3), 'A').is_string());
    // No type known: strings, whatever they hold.
    EXPECT_EQ(jsonValue(std::string("007\0", 4), 0), Json("007"));
    EXPECT_EQ(jsonValue(std::string("\0\0\0\x37", 4), 0), Json("55"));
    EXPECT_EQ(jsonValue(std::string("h\xc3\xa9llo\0", 7), 0), Json("h\xc3\xa9llo"));
    EXPECT_EQ(jsonValue(std::string("\x01\x02\x03", 3), 0), Json("010203"));
    // 2 or 4 bytes ending in a zero: a text only when it reads as one.
    EXPECT_EQ(jsonValue(std::string("a\nb\0", 4), 0), Json("a\nb"));
    EXPECT_EQ(jsonValue(std::string("\xff\xff\xff\0", 4), 0), Json("-256"));
    EXPECT_EQ(jsonValue(std::string("\x1b\0", 2), 0), Json("6912"));
}

TEST(ZevdctlFormatTest, TablesEscapeControlCharactersAndBytesThatAreNotUtf8) {
    EXPECT_EQ(terminalText("plain h\xc3\xa9llo \xe2\x82\xac \\"),
              "plain h\xc3\xa9llo \xe2\x82\xac \\");
    EXPECT_EQ(terminalText("a\x1b[31mb\r\nc\x7f\td"), "a\\x1b[31mb\\x0d\\x0ac\\x7f\\x09d");
    // Not UTF-8: a lone continuation byte, a cut sequence, an overlong form,
    // a surrogate; and the C1 control U+009B.
    EXPECT_EQ(terminalText("\x80|\xc3|\xc0\xaf|\xed\xa0\x80|\xc2\x9b"),
              "\\x80|\\xc3|\\xc0\\xaf|\\xed\\xa0\\x80|\\xc2\\x9b");
    EXPECT_EQ(displayWidth("h\xc3\xa9llo"), 5u);
    EXPECT_EQ(table({"A", "B"}, {{"\xc3\xa9", "x"}, {"\x1b", "y"}}),
              "A     B\n"
              "\xc3\xa9     x\n"
              "\\x1b  y\n");
}

TEST(ZevdctlFormatTest, NamesKeepTheirLengthsAndHaveNoBlankCommaOrControl) {
    std::string why;
    EXPECT_TRUE(checkName(NameKind::application, std::string(20, 'a'), &why));
    EXPECT_FALSE(checkName(NameKind::application, std::string(21, 'a'), &why));
    EXPECT_EQ(why, "APPL '" + std::string(21, 'a') + "' does not have 1 to 20 characters");
    EXPECT_TRUE(checkName(NameKind::group, std::string(32, 'g'), &why));
    EXPECT_FALSE(checkName(NameKind::source, std::string(33, 's'), &why));
    EXPECT_FALSE(checkName(NameKind::application, "", &why));
    EXPECT_EQ(why, "APPL '' does not have 1 to 20 characters");
    EXPECT_TRUE(checkName(NameKind::group, "h\xc3\xa9-1.x_y", &why));
    for (const char *bad : {"a b", "a,b", "a\tb", "a\x1b", "a\x7f", "\n"}) {
        EXPECT_FALSE(checkName(NameKind::group, bad, &why)) << bad;
        EXPECT_NE(why.find("has a blank, a comma or a control character"), std::string::npos);
    }
}

Pair pair(const std::string &text) {
    Pair p;
    std::string why;
    EXPECT_TRUE(parsePair(text, p, &why)) << why;
    return p;
}

TEST(ZevdctlFormatTest, ARowFitsUpToTheLastByteOfItsBuffer) {
    // Header 30 bytes; a pair with a one-letter name is 8 + 6 + its value.
    std::string why;
    size_t room = 4096 - 30 - 8 - 6;  // the value of one pair that ends at byte 4096
    EXPECT_TRUE(rowFits({pair("t=D:" + std::string(room - 1, 'v'))}, &why)) << why;
    EXPECT_TRUE(rowFits({pair("n=A:1"), pair("t=D:" + std::string(room - 19, 'v'))}, &why)) << why;
    EXPECT_FALSE(rowFits({pair("n=A:1"), pair("t=D:" + std::string(room - 18, 'v'))}, &why));
    EXPECT_EQ(why, "the row does not fit 4096 bytes from pair 2 (t) on");
    EXPECT_FALSE(rowFits({pair("a=D:" + std::string(3000, 'a')),
                          pair("b=D:" + std::string(1100, 'b')), pair("c=A:1")},
                         &why));
    EXPECT_EQ(why, "the row does not fit 4096 bytes from pair 2 (b) on");
    EXPECT_TRUE(rowFits({}, &why));
}

TEST(ZevdctlFormatTest, ActionTextsFitTheRequestOrNot) {
    std::string parameters(3000, 'p');
    EXPECT_TRUE(actionFits("me", "node-1", "restart", nullptr));
    EXPECT_TRUE(actionFits("me", "node-1", "restart", &parameters));
    std::string more(1100, 'p');
    EXPECT_FALSE(actionFits("me", more, "restart", &parameters));
}

TEST(ZevdctlFormatTest, RegistrationTextsAreCheckedByTheBuilderAndNamedForTheirApplication) {
    std::string text, why;
    ASSERT_TRUE(prepareRegistration("demo", "GROUP disk Disk;ATTR used A 4 Used", text, &why))
        << why;
    EXPECT_EQ(text, "APPL demo\nGROUP disk Disk;ATTR used A 4 Used");
    ASSERT_TRUE(prepareRegistration("demo", " APPL demo Help;GROUP g;ATTR a S 2", text, &why))
        << why;
    EXPECT_EQ(text, " APPL demo Help;GROUP g;ATTR a S 2");
    // One attribute name in two groups is two attributes.
    EXPECT_TRUE(prepareRegistration("demo", "GROUP g;ATTR a A 4;GROUP h;ATTR a A 4", text, &why))
        << why;
    struct Case {
        const char *appl;
        const char *text;
        const char *why;
    };
    const Case cases[] = {
        {"demo", "APPL other;GROUP g;ATTR a A 4", "the text registers 'other', not 'demo'"},
        {"demo", "GROUP g;ATTR a A 8",
         "the registration text does not read: statement 2: ATTR <a>: type A takes size 2 or 4, "
         "not 8"},
        {"demo", "APPL demo;GROUP g",
         "the registration text does not read: statement 2: GROUP <g> "
         "has no ATTR"},
        {"demo", "GROUP g,h;ATTR a A 4", "GROUP 'g,h' has a blank, a comma or a control character"},
        {"demo", "GROUP g;ATTR a,b A 4", "ATTR 'a,b' has a blank, a comma or a control character"},
        {"a b", "GROUP g;ATTR a A 4", "APPL 'a b' has a blank, a comma or a control character"},
        // What the DCH would refuse with status 23.
        {"demo", "GROUP g;ATTR a A 4;GROUP g;ATTR b A 4", "GROUP 'g' is named twice"},
        {"demo", "GROUP g;ATTR a A 4;ATTR a D 8", "ATTR 'a' is named twice in GROUP 'g'"},
        {"demo", "@", "no file name after '@'"},
        {"demo", "@/nonexistent/registration",
         "cannot read /nonexistent/registration: No such file "
         "or directory"},
    };
    for (const Case &c : cases) {
        EXPECT_FALSE(prepareRegistration(c.appl, c.text, text, &why)) << c.text;
        EXPECT_EQ(why, c.why);
    }
}

TEST(ZevdctlFormatTest, RegistrationFromAFile) {
    char path[] = "/tmp/zevdctl-registration-XXXXXX";
    int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    const std::string content = "# not a statement either\nGROUP g Its group\nATTR a A 4\n";
    ASSERT_EQ(write(fd, content.data(), content.size()), static_cast<ssize_t>(content.size()));
    close(fd);
    std::string text, why;
    EXPECT_FALSE(prepareRegistration("f", std::string("@") + path, text, &why));
    EXPECT_EQ(why, "the registration text does not read: statement 1: unknown keyword <#>");
    std::ofstream(path) << "GROUP g Its group\nATTR a A 4\n";
    ASSERT_TRUE(prepareRegistration("f", std::string("@") + path, text, &why)) << why;
    EXPECT_EQ(text, "APPL f\nGROUP g Its group\nATTR a A 4\n");
    unlink(path);
}

TEST(ZevdctlFormatTest, CatalogueTextsSplitIntoTheirColumns) {
    std::vector<CatalogueAttribute> a = parseAttributes("g,x,A,4\ng,y,D,16");
    ASSERT_EQ(a.size(), 2u);
    EXPECT_EQ(a[1].attribute, "y");
    EXPECT_EQ(a[1].type, 'D');
    EXPECT_EQ(a[1].size, 16);
    auto lines = splitLines(",,help, with a comma\ng,,", 3);
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0], (std::vector<std::string>{"", "", "help, with a comma"}));
    EXPECT_EQ(lines[1], (std::vector<std::string>{"g", "", ""}));
}

// A forwarded row as the DCH sends it.
std::vector<char> row() {
    std::vector<char> m;
    auto field = [&](int type, const std::string &value) {
        uint16_t t = htons(static_cast<uint16_t>(type));
        uint32_t l = htonl(static_cast<uint32_t>(value.size()));
        m.insert(m.end(), reinterpret_cast<char *>(&t), reinterpret_cast<char *>(&t) + 2);
        m.insert(m.end(), reinterpret_cast<char *>(&l), reinterpret_cast<char *>(&l) + 4);
        m.insert(m.end(), value.begin(), value.end());
    };
    m.resize(4);
    field(DCH_requestType, std::string("\x10\x30", 2));
    field(DCH_applName, std::string("demo\0", 5));
    field(DCH_attrGroup, std::string("disk\0", 5));
    field(DCH_sourceName, std::string("n1\0", 3));
    field(DCH_handle, std::string("\0\0\0\7", 4));
    field(DCH_dataFlag, std::string("\0\2", 2));
    field(DCH_attrName, std::string("used\0", 5));
    field(DCH_attrValue, std::string("\xff\xff\xff\xfe", 4));
    field(DCH_attrName, std::string("mount\0", 6));
    field(DCH_attrValue, std::string("/var\0\0\0\0", 8));
    uint32_t word = htonl(static_cast<uint32_t>(m.size()));
    memcpy(m.data(), &word, 4);
    return m;
}

TEST(ZevdctlFormatTest, RowsAreReadFieldByFieldAndValuesDecodedByType) {
    std::vector<char> m = row();
    Row r = parseRow(m.data(), m.size());
    ASSERT_TRUE(r.complete);
    EXPECT_EQ(r.application, "demo");
    EXPECT_EQ(r.source, "n1");
    EXPECT_EQ(r.handle, 7);
    EXPECT_EQ(r.flag, 2);
    ASSERT_EQ(r.values.size(), 2u);
    EXPECT_EQ(decodeValue(r.values[0].second, 'A'), "-2");
    EXPECT_EQ(decodeValue(r.values[1].second, 'D'), "/var");
    EXPECT_EQ(decodeValue(std::string("\x80\x00", 2), 'S'), "-32768");
    // Cut anywhere, it never reads past what it was given.
    for (size_t cut = 0; cut < m.size(); ++cut) {
        std::vector<char> part(m.begin(), m.begin() + cut);
        EXPECT_FALSE(parseRow(part.data(), part.size()).complete) << cut;
    }
}

TEST(ZevdctlFormatTest, StatusLinesWithAndWithoutInformation) {
    StatusLine s;
    ASSERT_TRUE(parseStatusLine("demo,disk,n1,127.0.0.1,4000,4117", s));
    EXPECT_TRUE(s.hasInfo);
    EXPECT_EQ(s.info, "4000");
    EXPECT_EQ(s.request, 4117);
    EXPECT_STREQ(eventName(s.request), "online");
    ASSERT_TRUE(parseStatusLine("demo,,,127.0.0.1,4128", s));
    EXPECT_FALSE(s.hasInfo);
    EXPECT_STREQ(eventName(s.request), "unregister");
    EXPECT_FALSE(parseStatusLine("demo,disk", s));
    EXPECT_FALSE(parseStatusLine("a,b,c,d,e,x", s));
}

}  // namespace
}  // namespace zevdctl
