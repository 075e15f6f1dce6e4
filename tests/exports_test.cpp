// The shipped library exports the public C names and nothing else.
#include <cstdio>
#include <regex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

std::vector<std::string> commandLines(const std::string &command) {
    std::vector<std::string> lines;
    FILE *pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) return lines;
    char buffer[1024];
    while (fgets(buffer, sizeof buffer, pipe) != nullptr) {
        std::string line(buffer);
        if (!line.empty() && line.back() == '\n') line.pop_back();
        lines.push_back(line);
    }
    pclose(pipe);
    return lines;
}

}  // namespace

TEST(ExportsTest, OnlyPublicNamesAreExported) {
    auto symbols = commandLines(std::string("nm -D --defined-only ") + ZEVD_SHARED_LIBRARY +
                                " | awk '{print $3}'");
    ASSERT_FALSE(symbols.empty()) << "nm found nothing in " << ZEVD_SHARED_LIBRARY;
    const std::regex publicName("^(dp_|dc_|DCH_|ZEVA_|VX_)[A-Za-z0-9_]*$");
    for (const auto &name : symbols) {
        EXPECT_NE(name.rfind("_Z", 0), 0u) << "mangled C++ symbol exported: " << name;
        EXPECT_TRUE(std::regex_match(name, publicName)) << "not a public name: " << name;
    }
    auto has = [&](const char *name) {
        for (const auto &s : symbols)
            if (s == name) return true;
        return false;
    };
    EXPECT_TRUE(has("VX_Debug"));
    EXPECT_TRUE(has("ZEVA_SetInstanceName"));
    EXPECT_FALSE(has("VX_Debug_Initialize")) << "only VX_Debug calls it";
}

TEST(ExportsTest, SonameIsVersionSix) {
    auto lines = commandLines(std::string("readelf -d ") + ZEVD_SHARED_LIBRARY + " | grep SONAME");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_NE(lines[0].find("[libzevd610.so.6]"), std::string::npos) << lines[0];
}
