// zevdctl as a shell script's provider: register (a text or a file), send
// rows that a watch shows, unregister. zevdchd and every zevdctl run as
// child processes; this process only starts them.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "support/child_program.h"
#include "support/dch_daemon.h"
#include "support/zevdctl_run.h"

namespace zevd::test {
namespace {

using namespace std::chrono_literals;

[[maybe_unused]] const auto *const kEnvironment =
    ::testing::AddGlobalTestEnvironment(new DaemonEnvironment());

// Sends the row with zevdctl until every watch shows seen (the watches
// subscribe a moment after they start); false when one never did.
bool sendUntilShown(const std::vector<std::string> &send,
                    const std::vector<ChildProgram *> &watches, const std::string &seen) {
    for (ChildProgram *watch : watches) {
        bool shown = false;
        for (int i = 0; i < 50 && !shown; ++i) {
            ZevdctlResult sent = runZevdctl(send);
            EXPECT_EQ(sent.code, 0) << sent.err;
            shown = watch->readUntil(seen, 200ms);
        }
        if (!shown) return false;
    }
    return true;
}

TEST(ZevdctlProviderTest, RegisterThenSendThenWatchShowsTheRow) {
    ZevdctlResult registered = runZevdctl(
        {"register", "sh", "GROUP disk Disk usage;ATTR mount D 64 Mount point;ATTR used A 4"});
    ASSERT_EQ(registered.code, 0) << registered.err;
    EXPECT_EQ(registered.out, "STEP         RESULT\ndp_register  status 0\n");
    ZevdctlResult attrs = runZevdctl({"attrs", "sh"});
    EXPECT_EQ(attrs.out,
              "GROUP  ATTRIBUTE  TYPE  SIZE\n"
              "disk   mount      D     64\n"
              "disk   used       A     4\n");

    ChildProgram table({ZEVDCTL_PATH, "watch", "sh", "disk"});
    ChildProgram json({ZEVDCTL_PATH, "--json", "watch", "sh", "disk"});
    ASSERT_TRUE(table.started() && json.started());
    ASSERT_TRUE(sendUntilShown({"send", "sh", "disk", "node-9", "mount=D:/srv", "used=A:55"},
                               {&table, &json}, "/srv"))
        << table.errors() << json.errors();
    // The row the watches show is the one sent.
    EXPECT_TRUE(table.readUntil("\n"));
    EXPECT_EQ(table.output().substr(0, table.output().find('\n') + 1),
              "SOURCE        HANDLE  mount                     used\n");
    EXPECT_NE(table.output().find("node-9        "), std::string::npos) << table.output();
    EXPECT_NE(table.output().find("/srv                      55\n"), std::string::npos)
        << table.output();
    ASSERT_TRUE(json.readUntil("}}\n"));
    std::vector<nlohmann::json> rows;
    std::string problem;
    std::string first = json.output().substr(0, json.output().find('\n') + 1);
    ASSERT_TRUE(jsonLines(first, &rows, &problem)) << problem;
    ASSERT_EQ(rows.size(), 1u);
    EXPECT_EQ(rows[0]["source"], "node-9");
    EXPECT_EQ(rows[0]["values"], nlohmann::json::parse(R"({"mount":"/srv","used":55})"));
    for (ChildProgram *watch : {&table, &json}) {
        kill(watch->pid(), SIGINT);
        EXPECT_EQ(exitCode(watch->wait()), 0);
    }

    ZevdctlResult gone = runZevdctl({"--json", "unregister", "sh"});
    EXPECT_EQ(gone.code, 0) << gone.err;
    EXPECT_EQ(gone.out, "{\"dp_unregister\":0}\n");
    ZevdctlResult none = runZevdctl({"attrs", "sh"});
    EXPECT_EQ(none.code, 0) << none.err;
    EXPECT_EQ(none.out, "");
    ZevdctlResult again = runZevdctl({"unregister", "sh"});
    EXPECT_EQ(again.code, 1);
    EXPECT_EQ(again.err,
              "zevdctl: dp_unregister failed with status 17 (the application is not registered)\n");
    ZevdctlResult unknown = runZevdctl({"send", "sh", "disk", "node-9", "used=A:1"});
    EXPECT_EQ(unknown.code, 1);
    EXPECT_EQ(unknown.out, "STEP       RESULT\ndp_online  status 17\n");
}

TEST(ZevdctlProviderTest, RegisterFromAFileWithOrWithoutItsApplStatement) {
    char path[] = "/tmp/zevdctl-provider-XXXXXX";
    int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    close(fd);
    std::ofstream(path) << "GROUP files Files kept\nATTR size N 4 Bytes\n";
    ZevdctlResult plain = runZevdctl({"register", "fs", std::string("@") + path});
    EXPECT_EQ(plain.code, 0) << plain.err;
    EXPECT_EQ(runZevdctl({"attrs", "fs"}).out,
              "GROUP  ATTRIBUTE  TYPE  SIZE\nfiles  size       N     4\n");
    std::ofstream(path) << "APPL fs File system\nGROUP files Files kept\nATTR count N 4\n";
    ZevdctlResult named = runZevdctl({"register", "fs", std::string("@") + path});
    EXPECT_EQ(named.code, 0) << named.err;
    EXPECT_EQ(runZevdctl({"attrs", "fs"}).out,
              "GROUP  ATTRIBUTE  TYPE  SIZE\nfiles  count      N     4\n");
    EXPECT_EQ(runZevdctl({"help", "fs"}).out,
              "GROUP  ATTRIBUTE  HELP\n"
              "                  File system\n"
              "files             Files kept\n"
              "files  count\n");
    ZevdctlResult other = runZevdctl({"register", "other", std::string("@") + path});
    EXPECT_EQ(other.code, 2);
    EXPECT_EQ(other.err, "zevdctl: the text registers 'fs', not 'other'\nTry 'zevdctl --help'.\n");
    unlink(path);
    EXPECT_EQ(runZevdctl({"unregister", "fs"}).code, 0);
}

}  // namespace
}  // namespace zevd::test
