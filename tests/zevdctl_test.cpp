// zevdctl end to end: every command against zevdchd in a child process, the
// program itself a child too; this process is the provider.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "support/child_program.h"
#include "support/dch_daemon.h"
#include "support/zevdctl_run.h"
#include "zevd610.h"

namespace zevd::test {
namespace {

using namespace std::chrono_literals;

// The catalogue the commands look at, registered once the daemon is up.
[[maybe_unused]] const auto *const kEnvironment =
    ::testing::AddGlobalTestEnvironment(new DaemonEnvironment({}, [] {
        long status = -1;
        dp_register(&status,
                    "APPL ctl Control test;GROUP grp Its group;ATTR count A 4 How many;"
                    "ATTR name D 16 Who, or what;ATTR level S 2");
        ASSERT_EQ(status, 0);
    }));
DaemonProcess &theDaemon() {
    return DaemonEnvironment::daemon();
}

using Result = ZevdctlResult;

Result zevdctl(std::vector<std::string> args, const std::vector<std::string> &env = {}) {
    return runZevdctl(std::move(args), env);
}

long sendRow(long handle, int32_t count, const char *name, int16_t level) {
    char *row = nullptr;
    long size = 0;
    long status = 0;
    dp_formatData(&status, &row, &size, "count", &count, 4, 'A');
    dp_formatData(&status, &row, &size, "name", name, static_cast<long>(strlen(name) + 1), 'D');
    dp_formatData(&status, &row, &size, "level", &level, 2, 'S');
    dp_data(&status, handle, 0, &row);
    return status;
}

TEST(ZevdctlTest, HelpNamesEveryCommandAndVersionItsVersion) {
    Result help = zevdctl({"--help"});
    EXPECT_EQ(help.code, 0);
    for (const char *line :
         {"\n  apps [APPL]\n", "\n  attrs APPL\n", "\n  help APPL\n", "\n  watch APPL GROUP\n",
          "\n  status\n", "\n  send APPL GROUP SOURCE NAME=TYPE:VALUE...\n",
          "\n  action ID NODE NAME [PARAMETERS]\n", "      e.g. zevdctl"})
        EXPECT_NE(help.out.find(line), std::string::npos) << line;
    EXPECT_TRUE(help.err.empty());
    Result version = zevdctl({"--version"});
    EXPECT_EQ(version.code, 0);
    EXPECT_EQ(version.out, "zevdctl 6.1.0\n");
}

TEST(ZevdctlTest, BadUsageEndsWithStatusTwoAndOneLineThatNamesIt) {
    struct Case {
        std::vector<std::string> args;
        std::string line;
    };
    const Case cases[] = {
        {{}, "zevdctl: no command"},
        {{"nosuch"}, "zevdctl: unknown command 'nosuch'"},
        {{"--bogus", "apps"}, "zevdctl: unknown option '--bogus'"},
        {{"apps", "--port"}, "zevdctl: --port needs a value"},
        {{"--port", "70000", "apps"}, "zevdctl: --port takes 1 to 65535, not '70000'"},
        {{"--timeout", "0", "apps"}, "zevdctl: --timeout takes 1 to 32767 seconds, not '0'"},
        {{"attrs"}, "zevdctl: usage: zevdctl attrs APPL"},
        {{"apps", "a", "b"}, "zevdctl: usage: zevdctl apps [APPL]"},
        {{"send", "ctl", "grp", "s"},
         "zevdctl: usage: zevdctl send APPL GROUP SOURCE NAME=TYPE:VALUE..."},
        {{"send", "ctl", "grp", "s", "count=A:x"},
         "zevdctl: 'count=A:x': type A takes an integer from -2147483648 to 2147483647"},
        {{"action", "seven", "n", "a"}, "zevdctl: ID 'seven' is not a 32-bit integer"},
    };
    for (const Case &c : cases) {
        Result r = zevdctl(c.args);
        EXPECT_EQ(r.code, 2) << c.line;
        EXPECT_EQ(r.err, c.line + "\nTry 'zevdctl --help'.\n");
        EXPECT_TRUE(r.out.empty()) << r.out;
    }
}

TEST(ZevdctlTest, CatalogueCommandsAsTablesAndAsJson) {
    Result apps = zevdctl({"apps", "ctl"});
    EXPECT_EQ(apps.code, 0) << apps.err;
    EXPECT_EQ(apps.out, "APPLICATION\nctl\n");
    Result attrs = zevdctl({"attrs", "ctl"});
    EXPECT_EQ(attrs.code, 0) << attrs.err;
    EXPECT_EQ(attrs.out,
              "GROUP  ATTRIBUTE  TYPE  SIZE\n"
              "grp    count      A     4\n"
              "grp    name       D     16\n"
              "grp    level      S     2\n");
    Result help = zevdctl({"help", "ctl"});
    EXPECT_EQ(help.code, 0) << help.err;
    EXPECT_EQ(help.out,
              "GROUP  ATTRIBUTE  HELP\n"
              "                  Control test\n"
              "grp               Its group\n"
              "grp    count      How many\n"
              "grp    name       Who  or what\n"
              "grp    level\n");
    // Options after the command, and JSON.
    Result json = zevdctl({"attrs", "ctl", "--json"});
    EXPECT_EQ(json.code, 0);
    EXPECT_EQ(json.out,
              "{\"group\":\"grp\",\"attribute\":\"count\",\"type\":\"A\",\"size\":4}\n"
              "{\"group\":\"grp\",\"attribute\":\"name\",\"type\":\"D\",\"size\":16}\n"
              "{\"group\":\"grp\",\"attribute\":\"level\",\"type\":\"S\",\"size\":2}\n");
    std::string problem;
    EXPECT_TRUE(jsonLines(json.out, &problem)) << problem;
    for (const char *command : {"apps", "help"}) {
        Result r = zevdctl({"--json", command, "ctl"});
        EXPECT_EQ(r.code, 0);
        EXPECT_TRUE(jsonLines(r.out, &problem)) << r.out << problem;
    }
}

TEST(ZevdctlTest, FailedRequestsEndWithStatusOne) {
    Result notRegistered = zevdctl({"send", "nosuch", "g", "s", "x=A:1"});
    EXPECT_EQ(notRegistered.code, 1);
    EXPECT_EQ(notRegistered.err,
              "zevdctl: dp_online failed with status 17 (the application is not registered)\n");
    // --port and --timeout override the environment: nobody answers there.
    uint16_t nobody = freeLoopbackPort();
    Result silent = zevdctl({"apps", "--port", std::to_string(nobody), "--timeout", "1"});
    EXPECT_EQ(silent.code, 1);
    EXPECT_EQ(silent.err, "zevdctl: no answer from the DCH at 127.0.0.1:" + std::to_string(nobody) +
                              " within 1 s\n");
    // ... and --port to the right one works whatever the environment says.
    Result overridden = zevdctl(
        {"--port", std::to_string(theDaemon().port()), "--addr", "127.0.0.1", "apps", "ctl"},
        {"ZEVA_DCH_PORT=1", "ZEVA_DCH_ADDR=192.0.2.1"});
    EXPECT_EQ(overridden.code, 0) << overridden.err;
    EXPECT_EQ(overridden.out, "APPLICATION\nctl\n");
}

TEST(ZevdctlTest, SendBringsOneRowOnlineAndOffline) {
    Result sent =
        zevdctl({"send", "ctl", "grp", "cli", "count=A:7", "name=D:from cli", "level=S:-3"});
    EXPECT_EQ(sent.code, 0) << sent.err;
    EXPECT_EQ(sent.out.substr(0, sent.out.find("handle")), "STEP        RESULT\n");
    EXPECT_NE(sent.out.find("\ndp_online   status 0\ndp_data     status 0\ndp_offline  status 0\n"),
              std::string::npos)
        << sent.out;
    Result json = zevdctl({"--json", "send", "ctl", "grp", "cli", "count=A:7"});
    EXPECT_EQ(json.code, 0);
    std::string problem;
    EXPECT_TRUE(jsonLines(json.out, &problem)) << json.out << problem;
    EXPECT_NE(json.out.find("\"dp_online\":0,\"dp_data\":0,\"dp_offline\":0}"), std::string::npos);
    Result unknownAttribute = zevdctl({"send", "ctl", "grp", "cli", "other=A:7"});
    EXPECT_EQ(unknownAttribute.code, 1);
    EXPECT_EQ(unknownAttribute.err,
              "zevdctl: dp_data failed with status 20 (an attribute the group does not have, or a "
              "value of the wrong size)\n");
}

TEST(ZevdctlTest, ActionIsHandedOverAndItsResultShown) {
    Result r = zevdctl({"action", "77", "node-1", "restart", "now=1"});
    EXPECT_EQ(r.code, 0) << r.err;
    EXPECT_EQ(r.out, "ACTION  STATUS\n77      0\n");
    Result json = zevdctl({"action", "78", "node-1", "restart", "--json"});
    EXPECT_EQ(json.out, "{\"id\":78,\"status\":0}\n");
}

// Rows sent until the watch shows one: its subscription is in place then.
void rowsUntilSeen(ChildProgram &program, long handle, const std::string &seen) {
    for (int i = 0; i < 50 && !program.readUntil(seen, 100ms); ++i)
        ASSERT_EQ(sendRow(handle, -1, "warm-up", 0), 0);
    ASSERT_NE(program.output().find(seen), std::string::npos) << program.errors();
}

TEST(ZevdctlTest, WatchPrintsRowsAsAnAlignedTableUntilCtrlC) {
    long status = -1, handle = 0;
    dp_online(&status, &handle, "ctl", "grp", "w1");
    ASSERT_EQ(status, 0);
    ChildProgram watch({ZEVDCTL_PATH, "watch", "ctl", "grp"});
    ASSERT_TRUE(watch.started());
    rowsUntilSeen(watch, handle, "warm-up");
    ASSERT_EQ(sendRow(handle, 123456, "alpha", 7), 0);
    ASSERT_EQ(sendRow(handle, -5, "b", -32768), 0);
    ASSERT_TRUE(watch.readUntil("-32768\n"));
    kill(watch.pid(), SIGINT);
    EXPECT_EQ(exitCode(watch.wait()), 0);
    std::string h = std::to_string(handle);
    std::string pad(6 - h.size(), ' ');
    std::string out = watch.output();
    EXPECT_EQ(out.substr(0, out.find('\n') + 1),
              "SOURCE        HANDLE  count        name              level\n");
    EXPECT_NE(out.find("w1            " + h + pad + "  123456       alpha             7\n" +
                       "w1            " + h + pad + "  -5           b                 -32768\n"),
              std::string::npos)
        << out;
    dp_offline(&status, handle);
}

TEST(ZevdctlTest, WatchAsJsonGivesOneObjectPerRow) {
    long status = -1, handle = 0;
    dp_online(&status, &handle, "ctl", "grp", "w2");
    ChildProgram watch({ZEVDCTL_PATH, "--json", "watch", "ctl", "grp"});
    rowsUntilSeen(watch, handle, "warm-up");
    ASSERT_EQ(sendRow(handle, 9, "q\" b\\ c\nd", 1), 0);
    ASSERT_TRUE(watch.readUntil("\"level\":1}}\n"));
    kill(watch.pid(), SIGINT);
    EXPECT_EQ(exitCode(watch.wait()), 0);
    std::string problem;
    EXPECT_TRUE(jsonLines(watch.output(), &problem)) << watch.output() << problem;
    EXPECT_NE(
        watch.output().find(
            "{\"application\":\"ctl\",\"group\":\"grp\",\"source\":\"w2\","
            "\"handle\":" +
            std::to_string(handle) +
            ",\"flag\":0,\"values\":{\"count\":9,\"name\":\"q\\\" b\\\\ c\\nd\",\"level\":1}}\n"),
        std::string::npos)
        << watch.output();
    dp_offline(&status, handle);
}

TEST(ZevdctlTest, StatusPrintsLinesAsTheyComeAndCtrlCEndsItByTheSignal) {
    ChildProgram lines({ZEVDCTL_PATH, "status"});
    ChildProgram json({ZEVDCTL_PATH, "status", "--json"});
    // Providers come and go until both have shown one.
    long status = -1, handle = 0;
    for (int i = 0; i < 50; ++i) {
        dp_online(&status, &handle, "ctl", "grp", "st");
        dp_offline(&status, handle);
        if (lines.readUntil(",4133\n", 100ms) && json.readUntil("\"event\":\"offline\"}\n", 100ms))
            break;
    }
    EXPECT_NE(lines.output().find("ctl,grp,st,127.0.0.1,"), std::string::npos) << lines.output();
    std::string problem;
    EXPECT_TRUE(jsonLines(json.output(), &problem)) << json.output() << problem;
    EXPECT_NE(json.output().find("{\"application\":\"ctl\",\"group\":\"grp\",\"source\":\"st\","
                                 "\"host\":\"127.0.0.1\""),
              std::string::npos);
    for (ChildProgram *program : {&lines, &json}) {
        kill(program->pid(), SIGINT);
        int waited = program->wait();
        // Kept: the status wait cannot be cancelled, the signal ends it.
        EXPECT_TRUE(WIFSIGNALED(waited) && WTERMSIG(waited) == SIGINT) << waited;
    }
}

}  // namespace
}  // namespace zevd::test
