// Product settings: ITEM=VALUE lines in ZEVA_SETTINGS_FILE, atomic updates,
// and memory-only items without the variable.
#include <dirent.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <set>
#include <sstream>
#include <string>

#include "zev0.h"

namespace {

std::string readAll(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

std::set<std::string> entries(const std::string &dir) {
    std::set<std::string> names;
    DIR *d = opendir(dir.c_str());
    if (d == nullptr) return names;
    while (struct dirent *e = readdir(d)) {
        std::string name = e->d_name;
        if (name != "." && name != "..") names.insert(name);
    }
    closedir(d);
    return names;
}

// A fresh directory with ZEVA_SETTINGS_FILE pointing at "settings" in it,
// set before the first query and unset afterwards.
class SettingsTest : public ::testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/settings_test.XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        dir_ = pattern;
        path_ = dir_ + "/settings";
        ASSERT_EQ(setenv("ZEVA_SETTINGS_FILE", path_.c_str(), 1), 0);
    }
    void TearDown() override {
        unsetenv("ZEVA_SETTINGS_FILE");
        for (const auto &name : entries(dir_)) unlink((dir_ + "/" + name).c_str());
        rmdir(dir_.c_str());
    }
    void write(const std::string &content) {
        std::ofstream out(path_, std::ios::binary);
        out << content;
    }
    static std::string query(int item) {
        const char *value = ZEV0_QueryProductSpec(item);
        return value != nullptr ? value : "<absent>";
    }

    std::string dir_;
    std::string path_;
};

const char kFile[] =
    "# product settings\n"
    "3=MyProduct\n"
    "21=1920\n"
    "  # an indented comment\n"
    "22 =5\n"
    "not a setting\n"
    "40=a=b c\n";

TEST_F(SettingsTest, ReadsItemsAndSkipsComments) {
    write(kFile);
    EXPECT_EQ(query(3), "MyProduct");
    EXPECT_EQ(query(21), "1920");
    EXPECT_EQ(query(22), "5");
    EXPECT_EQ(query(40), "a=b c");
    EXPECT_EQ(ZEV0_QueryProductSpec(0), nullptr);
    EXPECT_EQ(ZEV0_QueryProductSpec(99), nullptr);
    EXPECT_EQ(ZEV0_QueryProductSpec(-1), nullptr);
}

TEST_F(SettingsTest, ItemThreeDefaultsToTheProductName) {
    write("21=1920\n");
    EXPECT_EQ(query(3), "zevd");
    EXPECT_EQ(ZEV0_QueryProductSpec(4), nullptr);
}

TEST_F(SettingsTest, MissingFileHoldsNoItems) {
    EXPECT_EQ(ZEV0_QueryProductSpec(21), nullptr);
    EXPECT_EQ(query(3), "zevd");
    EXPECT_TRUE(entries(dir_).empty());
}

TEST_F(SettingsTest, ReadsFollowTheFile) {
    write("21=1920\n");
    EXPECT_EQ(query(21), "1920");
    write("21=1921\n");
    EXPECT_EQ(query(21), "1921");
}

TEST_F(SettingsTest, CarriageReturnsAreNotPartOfValues) {
    write("21=1920\r\n3=Name\r\n");
    EXPECT_EQ(query(21), "1920");
    EXPECT_EQ(query(3), "Name");
}

TEST_F(SettingsTest, UpdateRewritesInPlaceKeepingOtherLines) {
    write(kFile);
    struct stat before;
    ASSERT_EQ(stat(path_.c_str(), &before), 0);
    EXPECT_EQ(ZEV0_UpdateProductSpec(21, "2000"), 1);
    EXPECT_EQ(readAll(path_),
              "# product settings\n"
              "3=MyProduct\n"
              "21=2000\n"
              "  # an indented comment\n"
              "22 =5\n"
              "not a setting\n"
              "40=a=b c\n");
    EXPECT_EQ(query(21), "2000");
    // Written aside and renamed: a new file, and no temporary left behind.
    struct stat after;
    ASSERT_EQ(stat(path_.c_str(), &after), 0);
    EXPECT_NE(after.st_ino, before.st_ino);
    EXPECT_EQ(entries(dir_), std::set<std::string>{"settings"});
}

TEST_F(SettingsTest, UpdateKeepsThePermissions) {
    write("21=1920\n");
    ASSERT_EQ(chmod(path_.c_str(), 0600), 0);
    EXPECT_EQ(ZEV0_UpdateProductSpec(21, "2000"), 1);
    struct stat after;
    ASSERT_EQ(stat(path_.c_str(), &after), 0);
    EXPECT_EQ(after.st_mode & 0777, 0600u);
    EXPECT_EQ(query(21), "2000");
}

TEST_F(SettingsTest, UpdateOfANewItemAppendsIt) {
    write("# head\n21=1920\n");
    EXPECT_EQ(ZEV0_UpdateProductSpec(22, "10"), 1);
    EXPECT_EQ(readAll(path_), "# head\n21=1920\n22=10\n");
    EXPECT_EQ(query(22), "10");
    EXPECT_EQ(query(21), "1920");
    EXPECT_EQ(entries(dir_), std::set<std::string>{"settings"});
}

TEST_F(SettingsTest, UpdateCreatesTheFile) {
    EXPECT_EQ(ZEV0_UpdateProductSpec(3, "Other"), 1);
    EXPECT_EQ(readAll(path_), "3=Other\n");
    EXPECT_EQ(query(3), "Other");
    EXPECT_EQ(entries(dir_), std::set<std::string>{"settings"});
}

TEST_F(SettingsTest, UpdateLeavesOneLinePerItem) {
    write("21=1\n# keep\n21=2\n");
    EXPECT_EQ(query(21), "2");  // the last line of an item wins
    EXPECT_EQ(ZEV0_UpdateProductSpec(21, "3"), 1);
    EXPECT_EQ(readAll(path_), "21=3\n# keep\n");
}

TEST_F(SettingsTest, RefusedUpdatesChangeNothing) {
    write(kFile);
    EXPECT_EQ(ZEV0_UpdateProductSpec(21, "two\nlines"), 0);
    EXPECT_EQ(ZEV0_UpdateProductSpec(21, nullptr), 0);
    EXPECT_EQ(ZEV0_UpdateProductSpec(-1, "x"), 0);
    EXPECT_EQ(readAll(path_), kFile);
    EXPECT_EQ(entries(dir_), std::set<std::string>{"settings"});
}

TEST_F(SettingsTest, UpdateIntoAMissingDirectoryFails) {
    std::string missing = dir_ + "/no/such/dir/settings";
    ASSERT_EQ(setenv("ZEVA_SETTINGS_FILE", missing.c_str(), 1), 0);
    EXPECT_EQ(ZEV0_UpdateProductSpec(21, "1"), 0);
    EXPECT_EQ(ZEV0_QueryProductSpec(21), nullptr);
    EXPECT_TRUE(entries(dir_).empty());
}

TEST_F(SettingsTest, AnswerStaysValidUntilTheNextQueryOfThatItem) {
    write("21=1920\n22=5\n");
    const char *port = ZEV0_QueryProductSpec(21);
    ASSERT_NE(port, nullptr);
    EXPECT_STREQ(ZEV0_QueryProductSpec(22), "5");
    EXPECT_STREQ(port, "1920");
}

TEST(SettingsMemoryTest, WithoutTheVariableItemsLiveInMemory) {
    unsetenv("ZEVA_SETTINGS_FILE");
    EXPECT_EQ(ZEV0_QueryProductSpec(21), nullptr);
    EXPECT_STREQ(ZEV0_QueryProductSpec(3), "zevd");
    EXPECT_EQ(ZEV0_UpdateProductSpec(21, "1930"), 1);
    EXPECT_STREQ(ZEV0_QueryProductSpec(21), "1930");
    EXPECT_EQ(ZEV0_UpdateProductSpec(3, "Mine"), 1);
    EXPECT_STREQ(ZEV0_QueryProductSpec(3), "Mine");
    EXPECT_EQ(ZEV0_UpdateProductSpec(21, "1931"), 1);
    EXPECT_STREQ(ZEV0_QueryProductSpec(21), "1931");
    EXPECT_EQ(ZEV0_QueryProductSpec(22), nullptr);
}

TEST(SettingsMemoryTest, AnEmptyVariableMeansMemoryOnly) {
    ASSERT_EQ(setenv("ZEVA_SETTINGS_FILE", "", 1), 0);
    EXPECT_EQ(ZEV0_UpdateProductSpec(21, "1940"), 1);
    EXPECT_STREQ(ZEV0_QueryProductSpec(21), "1940");
    unsetenv("ZEVA_SETTINGS_FILE");
}

}  // namespace
