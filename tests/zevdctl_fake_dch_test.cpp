// zevdctl against a DCH that answers only what the test says (the fake DCH
// of this process; zevdctl a child): Ctrl-C while a watch waits for a
// catalogue answer that does not come, and output that cannot be written.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <atomic>
#include <chrono>
#include <string>
#include <vector>

#include "support/child_program.h"
#include "support/fake_dch.h"
#include "support/wait_for.h"
#include "support/zevdctl_run.h"
#include "zevd610.h"

namespace zevd::test {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

std::vector<char> catalogueAnswer(const std::string &text) {
    return DchMessage().raw(DCH_response, std::vector<char>(text.begin(), text.end())).bytes();
}

// A row as the DCH forwards it, of one attribute.
std::vector<char> row(const std::string &attribute, int32_t value) {
    return DchMessage()
        .int16(DCH_requestType, ZEVD_REQ_DP_DATA)
        .string(DCH_applName, "ctl")
        .string(DCH_attrGroup, "grp")
        .string(DCH_sourceName, "src")
        .int32(DCH_handle, 7)
        .int16(DCH_dataFlag, 0)
        .string(DCH_attrName, attribute)
        .raw(DCH_attrValue, {static_cast<char>(value >> 24), static_cast<char>(value >> 16),
                             static_cast<char>(value >> 8), static_cast<char>(value)})
        .bytes();
}

// The requests of code from the DCH's records.
std::vector<DchRequest> requestsOf(const FakeDch &dch, int code) {
    std::vector<DchRequest> found;
    for (const DchRequest &request : dch.received())
        if (request.requestType() == code) found.push_back(request);
    return found;
}

// The harness reset before and after each case: nothing a case gave it (a
// responder that counts into the case's locals) outlives the case.
class ZevdctlFakeDchTest : public ::testing::Test {
protected:
    void SetUp() override { FakeDch::instance().reset(); }
    void TearDown() override { FakeDch::instance().reset(); }
};

// A watch sees a row with an attribute it has no column for and asks the
// catalogue again; the DCH never answers. Ctrl-C ends it at once, not when
// the question's 30-second time-out is over.
TEST_F(ZevdctlFakeDchTest, CtrlCWhileAWatchAsksTheCatalogueAgainEndsItAtOnce) {
    FakeDch &dch = FakeDch::instance();
    std::atomic<int> questions{0};
    dch.setResponder([&](const DchRequest &request) -> DchReply {
        if (request.requestType() == ZEVD_REQ_DC_GET_APPL_ATTRIBUTES && questions++ == 0)
            return catalogueAnswer("grp,count,A,4");
        return std::nullopt;  // the registration has none; the second question gets none
    });
    ChildProgram watch({ZEVDCTL_PATH, "--addr", "127.0.0.1", "--port", std::to_string(dch.port()),
                        "--timeout", "30", "watch", "ctl", "grp"});
    ASSERT_TRUE(watch.started());
    std::vector<DchRequest> registered;
    ASSERT_TRUE(waitFor(
        [&] { return !(registered = requestsOf(dch, ZEVD_REQ_DC_WAIT_ON_DATA)).empty(); }, 10s));
    uint16_t dataPort = ntohs(registered.front().from.sin_port);
    ASSERT_TRUE(dch.sendFromPort(dataPort, row("count", 41)));
    ASSERT_TRUE(watch.readUntil("41\n")) << watch.output() << watch.errors();
    ASSERT_TRUE(dch.sendFromPort(dataPort, row("other", 42)));
    ASSERT_TRUE(waitFor([&] { return questions.load() >= 2; }, 10s));
    Clock::time_point interrupted = Clock::now();
    kill(watch.pid(), SIGINT);
    EXPECT_EQ(exitCode(watch.wait()), 0) << watch.errors();
    EXPECT_LT(Clock::now() - interrupted, 5s);
    EXPECT_NE(watch.output().find("src           7       41\n"), std::string::npos)
        << watch.output();
}

// Output that cannot be written is a failure, said once on standard error,
// whatever the command.
TEST_F(ZevdctlFakeDchTest, OutputThatCannotBeWrittenEndsWithStatusOneAndSaysWhy) {
    FakeDch &dch = FakeDch::instance();
    dch.setResponder([](const DchRequest &) -> DchReply { return catalogueAnswer("ctl other"); });
    const std::string port = std::to_string(dch.port());
    const std::vector<std::vector<std::string>> commands = {
        {"--help"},
        {"-V"},
        {"--addr", "127.0.0.1", "--port", port, "apps"},
        {"--addr", "127.0.0.1", "--port", port, "--json", "apps"},
    };
    for (const std::vector<std::string> &command : commands) {
        SCOPED_TRACE(command.back());
        std::vector<std::string> args = {"sh", "-c", "exec \"$0\" \"$@\" >/dev/full", ZEVDCTL_PATH};
        args.insert(args.end(), command.begin(), command.end());
        ChildProgram program(args);
        ASSERT_TRUE(program.started());
        EXPECT_EQ(exitCode(program.wait()), 1);
        EXPECT_EQ(program.errors(),
                  "zevdctl: cannot write standard output: " + std::string(strerror(ENOSPC)) + "\n");
    }
}

}  // namespace
}  // namespace zevd::test
