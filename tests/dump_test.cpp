// Hex dumps into the trace: 16 bytes a line, written whatever the levels.
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "support/trace_capture.h"
#include "zev0.h"

namespace {

using zevd::test::TraceCapture;

std::vector<unsigned char> counting(int n) {
    std::vector<unsigned char> bytes;
    for (int i = 0; i < n; ++i) bytes.push_back(static_cast<unsigned char>(i));
    return bytes;
}

// The fourth word of a line is its unit token, the fifth "function:line".
std::vector<std::string> words(const std::string &line) {
    std::istringstream in(line);
    std::vector<std::string> out;
    std::string word;
    while (out.size() < 5 && in >> word) out.push_back(word);
    return out;
}

TEST(DumpTest, SixteenBytesALine) {
    TraceCapture capture("all");
    const unsigned char data[] = {0x00, 0x00, 0x00, 0x0c, 0x00, 0x10, 0x00, 0x00, 0x00, 0x02,
                                  0x10, 0x15, 'A',  'b',  ' ',  '~',  0x7f, 0x80, 0xff, 'z'};
    ZEV0_PrintDump(data, 0, sizeof data);
    std::vector<std::string> texts = capture.texts();
    ASSERT_EQ(texts.size(), 2u) << capture.joined();
    EXPECT_EQ(texts[0],
              "00000000  00 00 00 0c 00 10 00 00 00 02 10 15 41 62 20 7e  |............Ab ~|\n");
    EXPECT_EQ(texts[1], "00000010  7f 80 ff 7a                                      |...z|\n");
}

TEST(DumpTest, ShortLastLineKeepsTheColumns) {
    TraceCapture capture("all");
    std::vector<unsigned char> data = counting(12);
    data[0] = 'h';
    ZEV0_PrintDump(data.data(), 0, static_cast<int>(data.size()));
    std::vector<std::string> texts = capture.texts();
    ASSERT_EQ(texts.size(), 1u);
    EXPECT_EQ(texts[0],
              "00000000  68 01 02 03 04 05 06 07 08 09 0a 0b              |h...........|\n");
    EXPECT_EQ(texts[0].find('|'), std::string("00000000  ").size() + 16 * 3 + 1);
}

TEST(DumpTest, LineCountFollowsTheLength) {
    std::vector<unsigned char> data = counting(64);
    for (int length : {1, 15, 16, 17, 32, 33, 64}) {
        TraceCapture capture("all");
        ZEV0_PrintDump(data.data(), 0, length);
        std::vector<std::string> texts = capture.texts();
        ASSERT_EQ(texts.size(), static_cast<size_t>((length + 15) / 16)) << length;
        for (size_t i = 0; i < texts.size(); ++i) {
            char offset[16];
            snprintf(offset, sizeof offset, "%08zx  ", i * 16);
            EXPECT_EQ(texts[i].rfind(offset, 0), 0u) << texts[i];
        }
    }
}

TEST(DumpTest, NothingToDumpWritesNothing) {
    TraceCapture capture("all");
    const char data[] = "abc";
    ZEV0_PrintDump(data, 0, 0);
    ZEV0_PrintDump(data, 0, -3);
    ZEV0_PrintDump(nullptr, 0, 16);
    EXPECT_TRUE(capture.lines().empty()) << capture.joined();
}

TEST(DumpTest, WrittenEvenWhenEveryLevelIsNone) {
    for (const char *levels : {"none", "zev0=none", "none,zev0=none"}) {
        TraceCapture capture(levels);
        std::vector<unsigned char> data = counting(20);
        ZEV0_PrintDump(data.data(), 0, 20);
        EXPECT_EQ(capture.lines().size(), 2u) << levels;
    }
}

TEST(DumpTest, LinesCarryTheUnitZev0) {
    TraceCapture capture("none");
    std::vector<unsigned char> data = counting(4);
    ZEV0_PrintDump(data.data(), 0, 4);
    std::vector<std::string> lines = capture.lines();
    ASSERT_EQ(lines.size(), 1u);
    std::vector<std::string> w = words(lines[0]);
    ASSERT_EQ(w.size(), 5u) << lines[0];
    EXPECT_EQ(w[3], "zev0");
    EXPECT_EQ(w[4].rfind("ZEV0_PrintDump:", 0), 0u) << lines[0];
}

}  // namespace
