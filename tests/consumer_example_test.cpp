// examples/consumer.c's program against the fake DCH of this process: it
// registers its two waits, prints the status line and the row the DCH
// forwards to them, and ends with exit status 0 on SIGINT, withdrawing its
// data wait.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <string>
#include <vector>

#include "support/child_program.h"
#include "support/client_probe.h"
#include "support/fake_dch.h"
#include "support/sock_pair.h"
#include "support/wait_for.h"
#include "zevd610.h"

extern char **environ;

namespace {

using zevd::test::DchMessage;
using zevd::test::DchRequest;
using zevd::test::FakeDch;
using zevd::test::WireMessage;

constexpr auto kLimit = std::chrono::seconds(20);

// The program's standard output, read as it comes.
class ChildOutput {
public:
    explicit ChildOutput(int fd) : fd_(fd) {}
    // Reads until text has appeared or limit has passed.
    bool waitFor(const std::string &text, std::chrono::milliseconds limit) {
        auto deadline = std::chrono::steady_clock::now() + limit;
        while (text_.find(text) == std::string::npos) {
            auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
            if (left.count() <= 0) return false;
            struct pollfd ready = {fd_, POLLIN, 0};
            if (poll(&ready, 1, static_cast<int>(left.count())) <= 0) continue;
            char chunk[4096];
            ssize_t got = read(fd_, chunk, sizeof chunk);
            if (got <= 0) return text_.find(text) != std::string::npos;
            text_.append(chunk, static_cast<size_t>(got));
        }
        return true;
    }
    const std::string &text() const { return text_; }

private:
    int fd_;
    std::string text_;
};

// The port of the first request received whose bytes are expected.
uint16_t senderOf(const FakeDch &dch, const std::vector<char> &expected) {
    uint16_t port = 0;
    zevd::test::waitFor(
        [&] {
            for (const DchRequest &request : dch.received())
                if (request.bytes == expected) port = ntohs(request.from.sin_port);
            return port != 0;
        },
        kLimit);
    return port;
}

std::vector<char> dataWait(uint32_t status) {
    return WireMessage()
        .int16(DCH_requestType, ZEVD_REQ_DC_WAIT_ON_DATA)
        .string(DCH_applName, "demo")
        .string(DCH_attrGroup, "disk")
        .int32(DCH_status, status)
        .bytes();
}

TEST(ConsumerExampleTest, PrintsStatusLinesAndRowsAndEndsCleanlyOnSigint) {
    FakeDch &dch = FakeDch::instance();  // sets ZEVA_DCH_ADDR and ZEVA_DCH_PORT
    dch.reset();
    // The catalogue's three answers, in the order asked; the waits'
    // registers get none.
    for (const char *text : {"demo\nother", "disk,mount,D,64", "disk,mount,Mount point"})
        dch.reply(
            DchMessage().raw(DCH_response, std::vector<char>(text, text + strlen(text))).bytes());
    int pipeFDs[2];
    ASSERT_EQ(pipe(pipeFDs), 0);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, pipeFDs[1], STDOUT_FILENO);
    posix_spawn_file_actions_addclose(&actions, pipeFDs[0]);
    std::vector<std::string> command = zevd::test::wrappedCommand({ZEVD_CONSUMER_PROGRAM});
    std::vector<char *> argv;
    for (std::string &word : command) argv.push_back(word.data());
    argv.push_back(nullptr);
    pid_t child = -1;
    ASSERT_EQ(posix_spawnp(&child, argv[0], &actions, nullptr, argv.data(), environ), 0);
    posix_spawn_file_actions_destroy(&actions);
    close(pipeFDs[1]);
    ChildOutput output(pipeFDs[0]);

    EXPECT_TRUE(output.waitFor("waiting for rows of demo disk\n", kLimit)) << output.text();
    EXPECT_EQ(output.text().rfind("applications:\ndemo\nother\n"
                                  "attributes:\ndisk,mount,D,64\n"
                                  "help:\ndisk,mount,Mount point\n"
                                  "waiting for rows of demo disk\n",
                                  0),
              0u)
        << output.text();
    uint16_t dataPort = senderOf(dch, dataWait(1));
    uint16_t statusPort = senderOf(dch, WireMessage()
                                            .int16(DCH_requestType, ZEVD_REQ_DC_WAIT_FOR_DP_STATUS)
                                            .int32(DCH_status, 1)
                                            .bytes());
    ASSERT_NE(dataPort, 0);
    ASSERT_NE(statusPort, 0);

    dch.sendFromPort(statusPort, DchMessage()
                                     .string(DCH_applName, "demo")
                                     .string(DCH_attrGroup, "disk")
                                     .string(DCH_sourceName, "host1")
                                     .string(DCH_hostAddr, "127.0.0.1")
                                     .string(DCH_hostInfo, "40000")
                                     .int16(DCH_requestType, ZEVD_REQ_DP_ONLINE)
                                     .bytes());
    EXPECT_TRUE(output.waitFor("status demo,disk,host1,127.0.0.1,40000,4117\n", kLimit))
        << output.text();

    // A row as the DCH forwards it: a string attribute of its full size and
    // two numbers.
    std::vector<char> mount(64, '\0');
    mount[0] = '/';
    dch.sendFromPort(dataPort, DchMessage()
                                   .int16(DCH_requestType, ZEVD_REQ_DP_DATA)
                                   .string(DCH_applName, "demo")
                                   .string(DCH_attrGroup, "disk")
                                   .string(DCH_sourceName, "host1")
                                   .int32(DCH_handle, 1)
                                   .int16(DCH_dataFlag, 0)
                                   .string(DCH_attrName, "mount")
                                   .raw(DCH_attrValue, mount)
                                   .string(DCH_attrName, "usedPct")
                                   .raw(DCH_attrValue, zevd::test::be32(42))
                                   .string(DCH_attrName, "state")
                                   .raw(DCH_attrValue, zevd::test::be16(0xFFFF))
                                   .bytes());
    const std::string row =
        "row\n"
        "  requestType = 4144\n"
        "  applName = demo\n"
        "  attrGroup = disk\n"
        "  sourceName = host1\n"
        "  handle = 1\n"
        "  dataFlag = 0\n"
        "  mount = /\n"
        "  usedPct = 42\n"
        "  state = -1\n";
    EXPECT_TRUE(output.waitFor(row, kLimit)) << output.text();

    ASSERT_EQ(kill(child, SIGINT), 0);
    EXPECT_TRUE(output.waitFor("cancelled\n", kLimit)) << output.text();
    int status = -1;
    bool ended =
        zevd::test::waitFor([&] { return waitpid(child, &status, WNOHANG) == child; }, kLimit);
    if (!ended) {
        kill(child, SIGKILL);
        waitpid(child, &status, 0);
    }
    EXPECT_TRUE(ended);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    // The data wait was withdrawn on the way out.
    EXPECT_EQ(senderOf(dch, dataWait(0)), dataPort);
    close(pipeFDs[0]);
}

}  // namespace
