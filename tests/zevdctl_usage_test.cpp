// zevdctl's bad usage: every name and value is checked before the first
// request, so a command that ends with status 2 has sent nothing. The DCH
// here is the fake one of this process, which records every request it
// receives; zevdctl runs as a child program pointed at it.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/fake_dch.h"
#include "support/zevdctl_run.h"
#include "zevd610.h"

namespace zevd::test {
namespace {

using namespace std::chrono_literals;

class ZevdctlUsageTest : public ::testing::Test {
protected:
    void SetUp() override {
        dch_ = &FakeDch::instance();
        ASSERT_TRUE(dch_->ready());
        dch_->reset();
        // The one answer any request gets: a catalogue text naming "known".
        dch_->setResponder([](const DchRequest &) -> DchReply {
            return DchMessage().raw(DCH_response, {'k', 'n', 'o', 'w', 'n'}).bytes();
        });
    }

    // Proves that nothing came before: a good request is sent and must be
    // the first and only one the DCH has taken.
    void expectNothingSentBefore() {
        ZevdctlResult good = runZevdctl({"apps"}, {"ZEVA_DCH_TIMEOUT=5"});
        EXPECT_EQ(good.code, 0) << good.err;
        EXPECT_EQ(good.out, "APPLICATION\nknown\n");
        ASSERT_TRUE(dch_->waitReceived(1));
        std::vector<DchRequest> requests = dch_->received();
        ASSERT_EQ(requests.size(), 1u);
        EXPECT_EQ(requests[0].requestType(), ZEVD_REQ_DC_GET_APPLICATIONS);
    }

    FakeDch *dch_ = nullptr;
};

// Each must end with status 2, one line that says why and the hint, and
// nothing on standard output.
void expectUsage(const std::vector<std::string> &args, const std::string &line,
                 const std::vector<std::string> &env = {}) {
    ZevdctlResult r = runZevdctl(args, env);
    EXPECT_EQ(r.code, 2) << line;
    EXPECT_EQ(r.err, "zevdctl: " + line + "\nTry 'zevdctl --help'.\n");
    EXPECT_EQ(r.out, "");
}

TEST_F(ZevdctlUsageTest, BadNamesSendNothing) {
    expectUsage({"watch", "a b", "g"}, "APPL 'a b' has a blank, a comma or a control character");
    expectUsage({"attrs", ""}, "APPL '' does not have 1 to 20 characters");
    expectUsage({"apps", "a b"}, "APPL 'a b' has a blank, a comma or a control character");
    expectUsage({"apps", std::string(21, 'a')},
                "APPL '" + std::string(21, 'a') + "' does not have 1 to 20 characters");
    expectUsage({"help", "a,b"}, "APPL 'a,b' has a blank, a comma or a control character");
    // A control character in a message is shown escaped too.
    expectUsage({"watch", "a", "g\x1b"},
                "GROUP 'g\\x1b' has a blank, a comma or a control character");
    expectUsage({"watch", "a", std::string(33, 'g')},
                "GROUP '" + std::string(33, 'g') + "' does not have 1 to 32 characters");
    expectUsage({"send", "a", "g", "s p", "x=A:1"},
                "SOURCE 's p' has a blank, a comma or a control character");
    expectUsage({"send", "a", "g", "s", "x y=A:1"},
                "'x y=A:1': NAME 'x y' has a blank, a comma or a control character");
    expectUsage({"send", "a", "g", "s", "x=S:40000"},
                "'x=S:40000': type S takes an integer from -32768 to 32767");
    expectUsage({"unregister", "a\tb"},
                "APPL 'a\\x09b' has a blank, a comma or a control character");
    expectUsage({"register", "a b", "GROUP g;ATTR x A 4"},
                "APPL 'a b' has a blank, a comma or a control character");
    expectUsage({"register", "a", "GROUP g;ATTR x A 8"},
                "the registration text does not read: statement 2: ATTR <x>: type A takes size 2 "
                "or 4, not 8");
    expectUsage({"register", "a", "APPL b;GROUP g;ATTR x A 4"}, "the text registers 'b', not 'a'");
    expectUsage({"register", "a", "GROUP g,h;ATTR x A 4"},
                "GROUP 'g,h' has a blank, a comma or a control character");
    expectUsage({"action", "1", "", "restart"}, "NODE and NAME take at least a character");
    expectUsage({"apps"}, "ZEVA_DCH_TIMEOUT takes 1 to 32767 seconds, not 'soon'",
                {"ZEVA_DCH_TIMEOUT=soon"});
    expectUsage({"apps"}, "ZEVA_DCH_PORT takes a port from 1 to 65535, not '0'",
                {"ZEVA_DCH_PORT=0"});
    expectNothingSentBefore();
}

TEST_F(ZevdctlUsageTest, ARowThatDoesNotFitSendsNothingNotEvenOnline) {
    // Each text alone is allowed; together they pass the 4096 bytes of a row.
    expectUsage({"send", "a", "g", "s", "x=D:" + std::string(3000, 'x'),
                 "y=D:" + std::string(1100, 'y'), "z=A:1"},
                "the row does not fit 4096 bytes from pair 2 (y) on");
    expectUsage({"action", "1", "node", "restart", std::string(4090, 'p')},
                "the action's texts do not fit the library's 4096-byte request");
    expectNothingSentBefore();
}

TEST_F(ZevdctlUsageTest, ShortOptionsForHelpAndVersion) {
    ZevdctlResult help = runZevdctl({"-h"});
    EXPECT_EQ(help.code, 0);
    EXPECT_EQ(help.err, "");
    EXPECT_EQ(help.out, runZevdctl({"--help"}).out);
    for (const char *line :
         {"\n  apps [APPL]\n", "\n  attrs APPL\n", "\n  help APPL\n", "\n  watch APPL GROUP\n",
          "\n  status\n", "\n  register APPL TEXT|@FILE\n",
          "\n  send APPL GROUP SOURCE NAME=TYPE:VALUE...\n", "\n  unregister APPL\n",
          "\n  action ID NODE NAME [PARAMETERS]\n", "  -h, --help ", "  -V, --version "})
        EXPECT_NE(help.out.find(line), std::string::npos) << line;
    ZevdctlResult version = runZevdctl({"attrs", "x", "-V"});
    EXPECT_EQ(version.code, 0);
    EXPECT_EQ(version.out, "zevdctl 6.1.0\n");
    EXPECT_EQ(runZevdctl({"-V"}).out, "zevdctl 6.1.0\n");
    expectUsage({"-x", "apps"}, "unknown option '-x'");
    expectNothingSentBefore();
}

}  // namespace
}  // namespace zevd::test
