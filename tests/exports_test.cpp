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
    // The version node itself is an absolute symbol, not an export.
    auto symbols = commandLines(std::string("nm -D --defined-only --without-symbol-versions ") +
                                ZEVD_SHARED_LIBRARY + " | awk '$2 != \"A\" {print $3}'");
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

TEST(ExportsTest, EveryExternalFunctionIsExported) {
    auto symbols = commandLines(std::string("nm -D --defined-only --without-symbol-versions ") +
                                ZEVD_SHARED_LIBRARY + " | awk '$2 == \"T\" {print $3}'");
    const char *const functions[] = {
        // The frame.
        "DCH_api_init", "DCH_api_destroy", "DCH_shutdown",
        // Data providers.
        "dp_register", "dp_online", "dp_offline", "dp_unregister", "dp_cancel", "dp_waitForAction",
        "dp_provideActionResults", "dp_formatData", "dp_data", "dp_actionData",
        // Data consumers.
        "dc_waitOnDataInitialize", "dc_waitOnData", "dc_waitOnDataCancel", "dc_waitOnDataDestroy",
        "dc_waitForDPStatusInitialize", "dc_waitForDPStatus", "dc_waitForDPStatusDestroy",
        "dc_getApplications", "dc_getApplAttributes", "dc_getApplHelp", "dc_sendApplNameList",
        "dc_provideAction", "dc_waitForActionResults", "dc_deferReportRequest",
        // The helpers.
        "VX_Debug", "ZEVA_GetIPCtype", "ZEVA_GetLock", "ZEVA_ReleaseLock",
        "ZEVA_GetEnvVarsInitLock", "ZEVA_SetInstanceName", "ZEVA_GetInstanceName",
        "ZEVA_SetSubnodeName", "ZEVA_GetSrcNameFromSubNodeName", "ZEVA_GetApplKeyFromSubNodeName",
        "ZEVA_ComputeChecksumOnAttrGroup", "ZEVA_validateHelpText", "ZEVA_StartDPprocess"};
    for (const char *name : functions) {
        bool found = false;
        for (const auto &symbol : symbols) found = found || symbol == name;
        EXPECT_TRUE(found) << name << " is not exported by " << ZEVD_SHARED_LIBRARY;
    }
}

TEST(ExportsTest, SonameIsVersionSix) {
    auto lines = commandLines(std::string("readelf -d ") + ZEVD_SHARED_LIBRARY + " | grep SONAME");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_NE(lines[0].find("[libzevd610.so.6]"), std::string::npos) << lines[0];
}

TEST(ExportsTest, EveryExportCarriesTheVersionNode) {
    auto symbols = commandLines(std::string("nm -D --defined-only --with-symbol-versions ") +
                                ZEVD_SHARED_LIBRARY + " | awk '$2 != \"A\" {print $3}'");
    ASSERT_FALSE(symbols.empty());
    for (const auto &symbol : symbols) {
        size_t at = symbol.find("@@");
        ASSERT_NE(at, std::string::npos) << "no default version: " << symbol;
        EXPECT_EQ(symbol.substr(at + 2), "ZEVD_6") << symbol;
    }
}
