// zevdctl's answers and time-outs: an empty answer is success (status 0,
// nothing printed), and where no DCH answers every command ends after its
// time-out with one line that names the address, the port and the time-out.
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "support/child_program.h"
#include "support/dch_daemon.h"
#include "support/free_port.h"
#include "support/zevdctl_run.h"

namespace zevd::test {
namespace {

using namespace std::chrono_literals;

std::vector<std::string> at(uint16_t port, std::vector<std::string> args) {
    args.insert(args.begin(), {"--addr", "127.0.0.1", "--port", std::to_string(port)});
    return args;
}

TEST(ZevdctlAnswerTest, AnEmptyAnswerIsSuccessAndPrintsNothing) {
    DaemonProcess daemon;
    ASSERT_TRUE(daemon.start()) << daemon.trace();
    const std::vector<std::vector<std::string>> commands = {
        {"apps"}, {"--json", "apps"}, {"apps", "nosuch"}, {"attrs", "nosuch"}, {"help", "nosuch"},
    };
    for (const auto &command : commands) {
        ZevdctlResult r = runZevdctl(at(daemon.port(), command));
        EXPECT_EQ(r.code, 0) << command.back() << ": " << r.err;
        EXPECT_EQ(r.out, "") << command.back();
        EXPECT_EQ(r.err, "") << command.back();
    }
    // The same daemon, once it knows something: the answer is not empty.
    ZevdctlResult registered = runZevdctl(at(daemon.port(), {"register", "one", ""}));
    EXPECT_EQ(registered.code, 0) << registered.err;
    ZevdctlResult apps = runZevdctl(at(daemon.port(), {"apps"}));
    EXPECT_EQ(apps.code, 0) << apps.err;
    EXPECT_EQ(apps.out, "APPLICATION\none\n");
    EXPECT_EQ(daemon.stop(SIGTERM), 0);
}

TEST(ZevdctlAnswerTest, WithNoDchEveryCommandEndsAfterItsTimeOutWithOneLine) {
    uint16_t closed = freeLoopbackPort();  // nothing listens there
    ASSERT_NE(closed, 0);
    struct Case {
        std::vector<std::string> args;
        std::vector<std::string> env;
        int seconds;  // the time-out the line names
    };
    const std::vector<Case> cases = {
        {{"--timeout", "1", "apps"}, {}, 1},
        {{"--timeout", "1", "attrs", "x"}, {}, 1},
        {{"--timeout", "1", "help", "x"}, {}, 1},
        {{"--timeout", "1", "--json", "watch", "x", "g"}, {}, 1},
        {{"--timeout", "1", "status"}, {}, 1},
        {{"--timeout", "1", "send", "x", "g", "s", "n=A:1"}, {}, 1},
        {{"--timeout", "1", "register", "x", "GROUP g;ATTR a A 4"}, {}, 1},
        {{"--timeout", "1", "unregister", "x"}, {}, 1},
        {{"--timeout", "1", "action", "7", "node", "restart"}, {}, 1},
        // The option before the variable; the variable before the default.
        {{"--timeout", "1", "apps"}, {"ZEVA_DCH_TIMEOUT=3"}, 1},
        {{"apps"}, {"ZEVA_DCH_TIMEOUT=2"}, 2},
        {{"apps"}, {}, 5},
    };
    // All at once, each bounded: a command that waited longer than a few
    // seconds past its time-out fails here.
    unsetenv("ZEVA_DCH_TIMEOUT");
    std::vector<std::unique_ptr<ChildProgram>> programs;
    for (const Case &c : cases) {
        std::vector<std::string> argv = at(closed, c.args);
        argv.insert(argv.begin(), ZEVDCTL_PATH);
        programs.push_back(std::make_unique<ChildProgram>(argv, c.env));
        ASSERT_TRUE(programs.back()->started());
    }
    for (size_t i = 0; i < cases.size(); ++i) {
        const Case &c = cases[i];
        std::string name;
        for (const std::string &arg : c.args) name += arg + " ";
        int status = programs[i]->wait(std::chrono::seconds(c.seconds + 4));
        ASSERT_NE(status, -1) << name << " did not end";
        EXPECT_EQ(exitCode(status), 1) << name;
        std::string line =
            "zevdctl: no answer from the DCH at 127.0.0.1:" + std::to_string(closed) + " within " +
            std::to_string(c.seconds) + " s\n";
        std::string err = programs[i]->errors();
        ASSERT_GE(err.size(), line.size()) << name << ": " << err;
        EXPECT_EQ(err.substr(err.size() - line.size()), line) << name;
    }
}

}  // namespace
}  // namespace zevd::test
