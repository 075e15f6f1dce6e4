// zevdctl watch whatever the bytes of a value: every --json line is one
// valid JSON object that gives each value back (integers as numbers, texts
// as strings, bytes that are not UTF-8 as U+FFFD), also for rows that come
// before the catalogue knows their group; and a table never hands a raw
// control byte to the terminal. zevdchd runs in a child process, zevdctl
// too; this process is the provider.
#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <cstring>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "support/child_program.h"
#include "support/dch_daemon.h"
#include "support/wait_for.h"
#include "support/zevdctl_run.h"
#include "zevd610.h"

namespace zevd::test {
namespace {

using namespace std::chrono_literals;

[[maybe_unused]] const auto *const kEnvironment =
    ::testing::AddGlobalTestEnvironment(new DaemonEnvironment({}, [] {
        long status = -1;
        dp_register(&status, "APPL js;GROUP g;ATTR s D 64;ATTR n A 4;ATTR h S 2");
        ASSERT_EQ(status, 0);
    }));

// The texts every suite sends: digits that look like numbers, UTF-8,
// JSON's own special characters, control characters and bytes that are not
// UTF-8.
const std::vector<std::string> kTexts = {
    "007", "1-2", "hello", "h\xc3\xa9llo", "\"", "\\", "a\nb", "\x1b[31mred", "x\xff\xfey", "\x7f!",
};

// What JSON gives back for a text: each byte that is not UTF-8 as U+FFFD.
std::string expectedBack(const std::string &text) {
    return text == "x\xff\xfey" ? "x\xef\xbf\xbd\xef\xbf\xbdy" : text;
}

long sendRow(long handle, const std::string &s, int32_t n, int16_t h) {
    char *row = nullptr;
    long size = 0;
    long status = 0;
    dp_formatData(&status, &row, &size, "s", s.c_str(), static_cast<long>(s.size() + 1), 'D');
    dp_formatData(&status, &row, &size, "n", &n, 4, 'A');
    dp_formatData(&status, &row, &size, "h", &h, 2, 'S');
    dp_data(&status, handle, 0, &row);
    return status;
}

size_t countOf(const std::string &text, const std::string &part) {
    size_t count = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
        ++count;
    return count;
}

// Rows sent until every watch shows one: their subscriptions are in place
// then.
void warmUp(long handle, const std::vector<ChildProgram *> &watches) {
    for (ChildProgram *watch : watches) {
        for (int i = 0; i < 200 && !watch->readUntil("warm-up", 100ms); ++i)
            ASSERT_EQ(sendRow(handle, "warm-up", 0, 0), 0);
        ASSERT_NE(watch->output().find("warm-up"), std::string::npos) << watch->errors();
    }
}

// Sends every text, then a last row, and ends the watches once they show it.
void sendTextsAndStop(long handle, const std::vector<ChildProgram *> &watches) {
    for (size_t i = 0; i < kTexts.size(); ++i)
        ASSERT_EQ(sendRow(handle, kTexts[i], -1000 * static_cast<int32_t>(i) - 7,
                          static_cast<int16_t>(i)),
                  0);
    ASSERT_EQ(sendRow(handle, "last", 1, 1), 0);
    for (ChildProgram *watch : watches) {
        ASSERT_TRUE(watch->readUntil("last")) << watch->output() << watch->errors();
        kill(watch->pid(), SIGINT);
        EXPECT_EQ(exitCode(watch->wait()), 0) << watch->errors();
    }
}

// The rows a --json watch printed, warm-up rows left out.
std::vector<nlohmann::json> rowsOf(const ChildProgram &watch) {
    std::vector<nlohmann::json> lines;
    std::string problem;
    EXPECT_TRUE(jsonLines(watch.output(), &lines, &problem)) << problem;
    std::vector<nlohmann::json> rows;
    for (const nlohmann::json &line : lines)
        if (line["values"]["s"] != "warm-up") rows.push_back(line);
    return rows;
}

TEST(ZevdctlJsonTest, EveryLineIsOneObjectAndGivesEachValueBack) {
    long status = -1, handle = 0;
    dp_online(&status, &handle, "js", "g", "src");
    ASSERT_EQ(status, 0);
    ChildProgram lines({ZEVDCTL_PATH, "--json", "watch", "js", "g"});
    ChildProgram table({ZEVDCTL_PATH, "watch", "js", "g"});
    ASSERT_TRUE(lines.started() && table.started());
    warmUp(handle, {&lines, &table});
    sendTextsAndStop(handle, {&lines, &table});

    std::vector<nlohmann::json> rows = rowsOf(lines);
    ASSERT_EQ(rows.size(), kTexts.size() + 1) << lines.output();
    for (size_t i = 0; i < kTexts.size(); ++i) {
        SCOPED_TRACE(kTexts[i]);
        const nlohmann::json &row = rows[i];
        EXPECT_EQ(row["application"], "js");
        EXPECT_EQ(row["source"], "src");
        EXPECT_TRUE(row["handle"].is_number_integer());
        EXPECT_EQ(row["handle"], handle);
        EXPECT_EQ(row["values"]["s"], expectedBack(kTexts[i]));
        ASSERT_TRUE(row["values"]["n"].is_number_integer()) << row.dump();
        EXPECT_EQ(row["values"]["n"], -1000 * static_cast<int>(i) - 7);
        ASSERT_TRUE(row["values"]["h"].is_number_integer()) << row.dump();
        EXPECT_EQ(row["values"]["h"], static_cast<int>(i));
    }
    // The values went to the table too, escaped where they would steer the
    // terminal, UTF-8 as it is.
    EXPECT_EQ(rawControlByte(table.output()), "") << table.output();
    for (const char *shown : {"\\x1b[31mred", "h\xc3\xa9llo", "a\\x0ab", "x\\xff\\xfey", "\\x7f!"})
        EXPECT_NE(table.output().find(shown), std::string::npos) << shown << "\n" << table.output();
    dp_offline(&status, handle);
}

TEST(ZevdctlJsonTest, RowsOfAGroupRegisteredAfterTheWatchBeganGetTheirTypes) {
    // Watched before its application registers: the watch has no types
    // until its first row, which sends it to the catalogue again.
    ChildProgram lines({ZEVDCTL_PATH, "--json", "watch", "early", "g"});
    ChildProgram table({ZEVDCTL_PATH, "watch", "early", "g"});
    ASSERT_TRUE(lines.started() && table.started());
    // Each has asked the catalogue (and found nothing) before the
    // registration.
    for (ChildProgram *watch : {&lines, &table})
        ASSERT_TRUE(waitFor(
            [&] {
                return watch->errors().find("early g is not in the catalogue yet") !=
                       std::string::npos;
            },
            20s))
            << watch->errors();
    long status = -1, handle = 0;
    dp_register(&status, "APPL early;GROUP g;ATTR s D 64;ATTR n A 4;ATTR h S 2");
    ASSERT_EQ(status, 0);
    dp_online(&status, &handle, "early", "g", "src");
    ASSERT_EQ(status, 0);
    warmUp(handle, {&lines, &table});
    sendTextsAndStop(handle, {&lines, &table});

    std::vector<nlohmann::json> rows = rowsOf(lines);
    ASSERT_EQ(rows.size(), kTexts.size() + 1) << lines.output();
    for (size_t i = 0; i < kTexts.size(); ++i) {
        SCOPED_TRACE(kTexts[i]);
        EXPECT_EQ(rows[i]["values"]["s"], expectedBack(kTexts[i]));
        EXPECT_EQ(rows[i]["values"]["n"], -1000 * static_cast<int>(i) - 7) << rows[i].dump();
    }
    EXPECT_EQ(rawControlByte(table.output()), "") << table.output();
    // One header: the columns came from the catalogue with the first row.
    EXPECT_EQ(countOf(table.output(), "SOURCE"), 1u) << table.output();
    dp_offline(&status, handle);
    dp_unregister(&status, "early");
}

// A group registered again with one more attribute while it is watched:
// the first row that names it sends the watch to the catalogue again, and
// the table shows its header again with the new column.
TEST(ZevdctlJsonTest, AttributesRegisteredAfterTheWatchBeganGetColumnsOfTheirOwn) {
    long status = -1, handle = 0;
    dp_register(&status, "APPL grow;GROUP g;ATTR s D 64");
    ASSERT_EQ(status, 0);
    dp_online(&status, &handle, "grow", "g", "src");
    ASSERT_EQ(status, 0);
    ChildProgram lines({ZEVDCTL_PATH, "--json", "watch", "grow", "g"});
    ChildProgram table({ZEVDCTL_PATH, "watch", "grow", "g"});
    ASSERT_TRUE(lines.started() && table.started());
    auto send = [&](const std::string &text, const int32_t *number) {
        char *row = nullptr;
        long size = 0;
        dp_formatData(&status, &row, &size, "s", text.c_str(), static_cast<long>(text.size() + 1),
                      'D');
        if (number != nullptr) dp_formatData(&status, &row, &size, "n", number, 4, 'A');
        dp_data(&status, handle, 0, &row);
        return status;
    };
    for (ChildProgram *watch : {&lines, &table}) {
        for (int i = 0; i < 200 && !watch->readUntil("warm-up", 100ms); ++i)
            ASSERT_EQ(send("warm-up", nullptr), 0);
        ASSERT_NE(watch->output().find("warm-up"), std::string::npos) << watch->errors();
    }
    dp_register(&status, "APPL grow;GROUP g;ATTR s D 64;ATTR n A 4");
    ASSERT_EQ(status, 0);
    const int32_t number = 42;
    ASSERT_EQ(send("grown", &number), 0);
    for (ChildProgram *watch : {&lines, &table}) {
        ASSERT_TRUE(watch->readUntil("grown")) << watch->output() << watch->errors();
        kill(watch->pid(), SIGINT);
        EXPECT_EQ(exitCode(watch->wait()), 0) << watch->errors();
    }
    std::vector<nlohmann::json> rows;
    std::string problem;
    ASSERT_TRUE(jsonLines(lines.output(), &rows, &problem)) << problem;
    ASSERT_FALSE(rows.empty());
    EXPECT_EQ(rows.back()["values"]["s"], "grown");
    EXPECT_EQ(rows.back()["values"]["n"], 42) << rows.back().dump();
    // The header again, with the new column, then the row with its value.
    const std::string &shown = table.output();
    EXPECT_EQ(countOf(shown, "SOURCE"), 2u) << shown;
    size_t header = shown.rfind("SOURCE");
    size_t lineEnd = shown.find('\n', header);
    ASSERT_NE(lineEnd, std::string::npos);
    EXPECT_NE(shown.substr(header, lineEnd - header).find(" n"), std::string::npos) << shown;
    size_t grown = shown.find("grown");
    ASSERT_NE(grown, std::string::npos);
    EXPECT_NE(shown.substr(grown).find("42"), std::string::npos) << shown;
    dp_offline(&status, handle);
    dp_unregister(&status, "grow");
}

}  // namespace
}  // namespace zevd::test
