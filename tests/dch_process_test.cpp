// zevdchd as a program: its command line, how it ends, its counters and its
// state directory. Each case starts daemons of its own.
#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "common/message.h"
#include "common/thread_slice.h"
#include "support/child_program.h"
#include "support/dch_daemon.h"
#include "support/dch_server.h"
#include "support/loopback.h"
#include "support/temp_dir.h"
#include "zevd610.h"
#include "zevdchd_server.h"

namespace zevd::test {
namespace {

using namespace std::chrono_literals;

TEST(DchProcessTest, SigtermEndsItWithStatusZeroAndItsCounters) {
    DaemonProcess daemon;
    ASSERT_TRUE(daemon.start()) << daemon.trace();
    EXPECT_EQ(daemon.output(), "zevdchd ready on port " + std::to_string(daemon.port()) + "\n");
    EXPECT_EQ(exitCode(daemon.stop(SIGTERM)), 0);
    std::string trace = daemon.trace();
    EXPECT_NE(trace.find("counter requests{request=\"dp_online\"} 0\n"), std::string::npos)
        << trace;
    EXPECT_NE(trace.find("counter drops{reason=\"kernel_receive_buffer\"} 0\n"), std::string::npos);
}

TEST(DchProcessTest, SigintEndsItWithStatusZero) {
    DaemonProcess daemon;
    ASSERT_TRUE(daemon.start()) << daemon.trace();
    EXPECT_EQ(exitCode(daemon.stop(SIGINT)), 0);
}

TEST(DchProcessTest, SigusrOneWritesTheCountersAndItServesOn) {
    DaemonProcess daemon;
    ASSERT_TRUE(daemon.start()) << daemon.trace();
    // One request that does not read, seen in the counters.
    UdpPeer stranger(daemon.port());
    ASSERT_TRUE(stranger.send({0, 0, 0, 12, 0, 16, 0, 0, 0, 2, 0x7f, 0x7f}));
    ASSERT_TRUE(daemon.waitTrace("request code 0x7f7f"));
    kill(daemon.pid(), SIGUSR1);
    EXPECT_TRUE(daemon.waitTrace("counter requests{request=\"unknown\"} 1\n"));
    EXPECT_TRUE(daemon.waitTrace("counter drops{reason=\"malformed\"} 1\n"));
    EXPECT_EQ(exitCode(daemon.stop(SIGTERM)), 0);
}

TEST(DchProcessTest, OnlyItsWorkerAsksForALongerSlice) {
    // A thread of this test's own shows whether the kernel keeps such slices.
    uint64_t kept = 0;
    std::thread([&kept] {
        if (setThreadSlice(0, 3'000'000) == 0) kept = threadSlice(0);
    }).join();
    if (kept != 3'000'000) GTEST_SKIP() << "this kernel keeps no slice of a thread's own";

    DaemonProcess daemon;
    ASSERT_TRUE(daemon.start()) << daemon.trace();
    std::vector<uint64_t> slices;
    for (const auto &task :
         std::filesystem::directory_iterator("/proc/" + std::to_string(daemon.pid()) + "/task"))
        slices.push_back(threadSlice(static_cast<pid_t>(std::stol(task.path().filename()))));
    EXPECT_GE(slices.size(), 3u);  // the main thread, the loop and the worker
    EXPECT_EQ(std::count(slices.begin(), slices.end(), dch::Worker::kSliceNs), 1)
        << ::testing::PrintToString(slices);
    EXPECT_EQ(exitCode(daemon.stop(SIGTERM)), 0);
}

// Asking for its slice changes nothing else of the worker's scheduling: a
// daemon started at a lower priority keeps it on every thread.
TEST(DchProcessTest, WorkerKeepsTheNiceValueTheDaemonWasStartedWith) {
    constexpr int kNice = 7;
    DaemonProcess daemon;
    bool started = false;
    // A thread's nice value passes to the processes it starts; lowering it
    // needs no privilege and is undone with the thread.
    std::thread([&] {
        auto self = static_cast<id_t>(syscall(SYS_gettid));
        if (setpriority(PRIO_PROCESS, self, kNice) == 0) started = daemon.start();
    }).join();
    ASSERT_TRUE(started) << daemon.trace();
    std::vector<int> nices;
    std::vector<uint64_t> slices;
    for (const auto &task :
         std::filesystem::directory_iterator("/proc/" + std::to_string(daemon.pid()) + "/task")) {
        auto tid = static_cast<pid_t>(std::stol(task.path().filename()));
        errno = 0;
        nices.push_back(getpriority(PRIO_PROCESS, static_cast<id_t>(tid)));
        EXPECT_EQ(errno, 0);
        slices.push_back(threadSlice(tid));
    }
    EXPECT_GE(nices.size(), 3u);  // the main thread, the loop and the worker
    EXPECT_EQ(std::count(nices.begin(), nices.end(), kNice), static_cast<long>(nices.size()))
        << ::testing::PrintToString(nices);
    // Where the kernel keeps slices, the worker has its own all the same.
    uint64_t kept = 0;
    std::thread([&kept] {
        if (setThreadSlice(0, 3'000'000) == 0) kept = threadSlice(0);
    }).join();
    if (kept == 3'000'000) {
        EXPECT_EQ(std::count(slices.begin(), slices.end(), dch::Worker::kSliceNs), 1)
            << ::testing::PrintToString(slices);
    }
    EXPECT_EQ(exitCode(daemon.stop(SIGTERM)), 0);
}

// A real-time thread is not a normal one: asking for a slice leaves its
// policy and priority as they were.
TEST(DchProcessTest, SliceIsNotAskedForARealTimeThread) {
    int refused = -1;
    int policy = -1;
    int priority = -1;
    bool realTime = false;
    std::thread([&] {
        struct sched_param param = {};
        param.sched_priority = 1;
        realTime = pthread_setschedparam(pthread_self(), SCHED_FIFO, &param) == 0;
        if (!realTime) return;
        refused = setThreadSlice(0, 3'000'000);
        pthread_getschedparam(pthread_self(), &policy, &param);
        priority = param.sched_priority;
    }).join();
    if (!realTime) GTEST_SKIP() << "this process may not make a real-time thread";
    EXPECT_EQ(refused, EINVAL);
    EXPECT_EQ(policy, SCHED_FIFO);
    EXPECT_EQ(priority, 1);
}

TEST(DchProcessTest, PortThatIsTakenEndsItWithStatusOneAndItsLines) {
    DaemonProcess daemon;
    int taken = bindLoopback(SOCK_DGRAM, daemon.port());
    ASSERT_GE(taken, 0);
    ASSERT_TRUE(daemon.spawn());
    EXPECT_EQ(exitCode(daemon.waitExit()), 1);
    close(taken);
    std::string trace = daemon.trace();
    EXPECT_NE(trace.find("Error: Could not open TCP/UDP sockets bound to zevd DCH port " +
                         std::to_string(daemon.port())),
              std::string::npos)
        << trace;
    EXPECT_NE(trace.find("Determine if another copy of zevd is already active on this system.  "
                         "Exiting..."),
              std::string::npos);
    // Said on standard error too, whatever the trace levels and its file.
    EXPECT_NE(trace.find("zevdchd: libzevd610: DCH port " + std::to_string(daemon.port()) +
                         " is in use (another copy of zevd may be active), exiting\n"),
              std::string::npos)
        << trace;
    EXPECT_EQ(daemon.output().find("ready"), std::string::npos);
}

// An address of another host to serve on: the reason in words, and the
// setting to look at.
TEST(DchProcessTest, BindAddressOfAnotherHostEndsItWithStatusOneAndTheReasonInWords) {
    // 192.0.2.0/24 is for documentation only: no host has it.
    const std::string p = std::to_string(freeLoopbackPort());
    ChildProgram daemon({ZEVD_DAEMON_PATH, "--port", p}, {"ZEVA_DCH_BIND=192.0.2.1"});
    ASSERT_TRUE(daemon.started());
    EXPECT_EQ(exitCode(daemon.wait()), 1);
    EXPECT_NE(daemon.errors().find("zevdchd: libzevd610: could not open DCH port " + p +
                                   " (UDP: Cannot assign requested address, errno 99; TCP: "
                                   "Cannot assign requested address, errno 99); ZEVA_DCH_BIND "
                                   "must be an address of this host, exiting\n"),
              std::string::npos)
        << daemon.errors();
}

TEST(DchProcessTest, BadUsageEndsItWithStatusTwo) {
    for (const std::vector<std::string> &args :
         std::vector<std::vector<std::string>>{{"--bogus"},
                                               {"--allow", "10.0.0.0/40"},
                                               {"--allow", "nonsense"},
                                               {"extra"},
                                               {"--rcvbuf", "0"},
                                               {"--rcvbuf", "4095"},
                                               {"--rcvbuf", "1073741825"},
                                               {"--rcvbuf", "-65536"},
                                               {"--rcvbuf", "64k"},
                                               {"--rcvbuf", ""},
                                               {"--rcvbuf", "99999999999999999999"},
                                               {"--rcvbuf"}}) {
        DaemonProcess daemon(args);
        ASSERT_TRUE(daemon.spawn());
        EXPECT_EQ(exitCode(daemon.waitExit()), 2) << args.back();
        EXPECT_NE(daemon.trace().find("Try 'zevdchd --help'."), std::string::npos) << args.back();
        EXPECT_EQ(daemon.output().find("ready"), std::string::npos) << args.back();
    }
}

TEST(DchProcessTest, LimitsOutOfTheirRangesAreUsageErrors) {
    const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
        {{"--max-catalogue", "0"}, "--max-catalogue takes 1 to 268435456 bytes, not '0'"},
        {{"--max-catalogue", "268435457"},
         "--max-catalogue takes 1 to 268435456 bytes, not '268435457'"},
        {{"--max-catalogue", "64M"}, "--max-catalogue takes 1 to 268435456 bytes, not '64M'"},
        {{"--max-catalogue", "-1"}, "--max-catalogue takes 1 to 268435456 bytes, not '-1'"},
        {{"--max-subscribers", "0"}, "--max-subscribers takes 1 to 1048576, not '0'"},
        {{"--max-subscribers", "1048577"}, "--max-subscribers takes 1 to 1048576, not '1048577'"},
        {{"--max-subscribers", " 5"}, "--max-subscribers takes 1 to 1048576, not ' 5'"},
        {{"--max-subscribers"}, "--max-subscribers needs a value"},
    };
    for (const auto &[args, said] : cases) {
        DaemonProcess daemon(args);
        ASSERT_TRUE(daemon.spawn());
        EXPECT_EQ(exitCode(daemon.waitExit()), 2) << args.back();
        EXPECT_NE(daemon.trace().find("zevdchd: " + said + "\nTry 'zevdchd --help'."),
                  std::string::npos)
            << daemon.trace();
    }
}

// The environment the library reads is checked as the options are. (A
// daemon of the tests' own always has --port, which then stands.)
TEST(DchProcessTest, PortOrTimeOutFromTheEnvironmentThatIsBadIsAUsageError) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"ZEVA_DCH_PORT=abc", "ZEVA_DCH_PORT takes 1 to 65535, not 'abc'"},
        {"ZEVA_DCH_PORT=0", "ZEVA_DCH_PORT takes 1 to 65535, not '0'"},
        {"ZEVA_DCH_PORT=99999", "ZEVA_DCH_PORT takes 1 to 65535, not '99999'"},
        {"ZEVA_DCH_PORT=20200x", "ZEVA_DCH_PORT takes 1 to 65535, not '20200x'"},
        {"ZEVA_DCH_TIMEOUT=abc", "ZEVA_DCH_TIMEOUT takes 0 to 32767 seconds, not 'abc'"},
        {"ZEVA_DCH_TIMEOUT=-1", "ZEVA_DCH_TIMEOUT takes 0 to 32767 seconds, not '-1'"},
    };
    for (const auto &[env, said] : cases) {
        SCOPED_TRACE(env);
        ChildProgram daemon({ZEVD_DAEMON_PATH}, {env, "ZEVA_DCH_BIND=127.0.0.1"});
        ASSERT_TRUE(daemon.started());
        EXPECT_EQ(exitCode(daemon.wait()), 2);
        EXPECT_NE(daemon.errors().find("zevdchd: " + said + "\nTry 'zevdchd --help'."),
                  std::string::npos)
            << daemon.errors();
    }
    // Without ZEVA_DCH_PORT, the port of the settings file is checked too.
    unsetenv("ZEVA_DCH_PORT");
    zevd::test::TempDir dir;
    for (const char *item : {"abc", "70000", "-5", "", "29204x"}) {
        SCOPED_TRACE(item);
        std::string settings = dir.file("settings");
        std::ofstream(settings) << "21=" << item << "\n";
        ChildProgram daemon({ZEVD_DAEMON_PATH},
                            {"ZEVA_SETTINGS_FILE=" + settings, "ZEVA_DCH_BIND=127.0.0.1"});
        ASSERT_TRUE(daemon.started());
        EXPECT_EQ(exitCode(daemon.wait()), 2);
        EXPECT_NE(daemon.errors().find("zevdchd: settings item 21 takes 1 to 65535, not '" +
                                       std::string(item) + "'\nTry 'zevdchd --help'."),
                  std::string::npos)
            << daemon.errors();
    }
    // With --port, the environment's port is not used.
    DaemonProcess daemon({}, {"ZEVA_DCH_PORT=abc"});
    ASSERT_TRUE(daemon.start()) << daemon.trace();
    EXPECT_EQ(exitCode(daemon.stop(SIGTERM)), 0);
}

TEST(DchProcessTest, MaxCatalogueBoundsWhatARegisterMayAdd) {
    DaemonProcess daemon({"--max-catalogue", "20", "--max-subscribers", "1"});
    ASSERT_TRUE(daemon.start()) << daemon.trace();
    setenv("ZEVA_DCH_ADDR", "127.0.0.1", 1);
    setenv("ZEVA_DCH_PORT", std::to_string(daemon.port()).c_str(), 1);
    setenv("ZEVA_DCH_TIMEOUT", "5", 1);
    long status = -1;
    EXPECT_EQ(dp_register(&status, "APPL a;GROUP g;ATTR x A 4"), 0);
    EXPECT_EQ(status, ZEVD_DCH_FULL);
    EXPECT_NE(daemon.trace().find("refused (21): its "), std::string::npos) << daemon.trace();
    EXPECT_NE(daemon.trace().find(" bytes of every catalogue together (--max-catalogue; 0 held)"),
              std::string::npos)
        << daemon.trace();
    EXPECT_EQ(exitCode(daemon.stop(SIGTERM)), 0);
}

TEST(DchProcessTest, ReceiveBufferFromTheEnvironmentThatIsBadEndsItWithStatusTwo) {
    DaemonProcess daemon({}, {"ZEVA_DCH_RCVBUF=lots"});
    ASSERT_TRUE(daemon.spawn());
    EXPECT_EQ(exitCode(daemon.waitExit()), 2);
    EXPECT_NE(daemon.trace().find("zevdchd: --rcvbuf or ZEVA_DCH_RCVBUF takes 4096 to 1073741824 "
                                  "bytes, not 'lots'\nTry 'zevdchd --help'."),
              std::string::npos)
        << daemon.trace();
}

// The start line gives the kernel's own figure for the buffer: twice the
// size set (a size under net.core.rmem_max, so SO_RCVBUF alone gives it too).
TEST(DchProcessTest, ReceiveBufferIsSetOnThePortAndTraced) {
    const std::string given = "Note: receive buffer of the DCH port: 131072 bytes (asked for 65536";
    DaemonProcess option({"--rcvbuf", "65536"}, {"ZEVA_DCH_RCVBUF=98304"});
    ASSERT_TRUE(option.start()) << option.trace();
    EXPECT_NE(option.trace().find(given), std::string::npos) << option.trace();
    EXPECT_EQ(exitCode(option.stop(SIGTERM)), 0);
    DaemonProcess environment({}, {"ZEVA_DCH_RCVBUF=65536"});
    ASSERT_TRUE(environment.start()) << environment.trace();
    EXPECT_NE(environment.trace().find(given), std::string::npos) << environment.trace();
    EXPECT_EQ(exitCode(environment.stop(SIGTERM)), 0);
}

// Without CAP_NET_ADMIN the buffer stops at net.core.rmem_max: one line at
// start says what it got and how to raise it. As root the capability is
// taken away from the daemon for the test.
TEST(DchProcessTest, ReceiveBufferCappedByTheSystemLimitSaysHowToRaiseIt) {
    DaemonProcess daemon({"--rcvbuf", "1073741824"});
    if (geteuid() == 0) daemon.runUnder({"setpriv", "--bounding-set=-net_admin"});
    ASSERT_TRUE(daemon.start()) << daemon.trace();
    std::string trace = daemon.trace();
    EXPECT_NE(trace.find("(asked for 1073741824 through SO_RCVBUF)"), std::string::npos) << trace;
    size_t at = trace.find("Warning: the DCH port's receive buffer is ");
    ASSERT_NE(at, std::string::npos) << trace;
    EXPECT_NE(trace.find(" bytes, not the 1073741824 asked for: raise the limit with sysctl -w "
                         "net.core.rmem_max=1073741824 (or start zevdchd with CAP_NET_ADMIN)\n",
                         at),
              std::string::npos)
        << trace;
    EXPECT_EQ(trace.find("Warning: the DCH port's receive buffer", at + 1), std::string::npos);
    EXPECT_EQ(exitCode(daemon.stop(SIGTERM)), 0);
}

// A buffer the daemon got whole says nothing more than its start line.
TEST(DchProcessTest, ReceiveBufferGotWholeWritesNoWarning) {
    DaemonProcess daemon({"--rcvbuf", "65536"});
    ASSERT_TRUE(daemon.start()) << daemon.trace();
    EXPECT_EQ(daemon.trace().find("Warning: the DCH port's receive buffer"), std::string::npos)
        << daemon.trace();
    EXPECT_EQ(exitCode(daemon.stop(SIGTERM)), 0);
}

TEST(DchProcessTest, DefaultReceiveBufferIsAskedForWithoutTheOption) {
    DaemonProcess daemon;
    ASSERT_TRUE(daemon.start()) << daemon.trace();
    EXPECT_NE(daemon.trace().find("Note: receive buffer of the DCH port: "), std::string::npos)
        << daemon.trace();
    EXPECT_NE(daemon.trace().find(" bytes (asked for 33554432 through "), std::string::npos)
        << daemon.trace();
    EXPECT_EQ(exitCode(daemon.stop(SIGTERM)), 0);
}

TEST(DchProcessTest, HelpAndVersionAreWrittenAndEndWithStatusZero) {
    DaemonProcess help({"--help"});
    ASSERT_TRUE(help.spawn());
    help.waitReady(5s);  // reads what it printed; there is no ready line
    EXPECT_EQ(exitCode(help.waitExit()), 0);
    EXPECT_EQ(help.output().rfind("usage: zevdchd [--port N]", 0), 0u) << help.output();
    for (const char *option : {"--max-catalogue BYTES", "--max-subscribers N"})
        EXPECT_NE(help.output().find(option), std::string::npos) << option;
    DaemonProcess version({"--version"});
    ASSERT_TRUE(version.spawn());
    version.waitReady(5s);
    EXPECT_EQ(exitCode(version.waitExit()), 0);
    EXPECT_EQ(version.output(), "zevdchd 6.1.0\n");
}

TEST(DchProcessTest, StateDirKeepsTheProvidersOfADaemonThatWasKilled) {
    char dir[] = "/tmp/zevdchd-state-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    uint16_t port = 0;
    int32_t handle = 0;
    // A daemon that is killed after a provider registered and went online:
    // the raw requests of a provider, from one socket.
    auto exchange = [](DaemonProcess &daemon, const std::vector<char> &m) {
        int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_in to = loopbackAddress(daemon.port());
        std::vector<char> answer(4096);
        ssize_t n = -1;
        timeval wait = {10, 0};
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
        if (sendDatagram(fd, to, m)) n = recv(fd, answer.data(), answer.size(), 0);
        close(fd);
        answer.resize(n > 0 ? static_cast<size_t>(n) : 0);
        return answer;
    };
    auto status = [](const std::vector<char> &answer, int32_t *handleOut = nullptr) {
        FieldReader r(answer.data(), answer.size());
        if (r.next() != DCH_status) return -1;
        int32_t s = r.int32();
        if (handleOut != nullptr && r.next() == DCH_handle) *handleOut = r.int32();
        return s;
    };
    {
        DaemonProcess first({"--state-dir", dir});
        ASSERT_TRUE(first.start()) << first.trace();
        port = first.port();
        ASSERT_EQ(status(exchange(first, buildMessage([](MessageBuilder &b) {
                                      b.add16(DCH_requestType, ZEVD_REQ_DP_REGISTER);
                                      b.addString(DCH_applName, "kept");
                                      b.addString(0x200, "kept across restarts");
                                      b.addString(DCH_attrGroup, "g");
                                      b.addString(0x200, "");
                                      b.addString(DCH_attrName, "v");
                                      b.add16(0x201, 'A');
                                      b.add32(0x202, 4);
                                      b.addString(0x200, "a value");
                                  }))),
                  0);
        ASSERT_EQ(status(exchange(first, buildMessage([](MessageBuilder &b) {
                                      b.add16(DCH_requestType, ZEVD_REQ_DP_ONLINE);
                                      b.addString(DCH_applName, "kept");
                                      b.addString(DCH_attrGroup, "g");
                                      b.addString(DCH_sourceName, "s");
                                  })),
                         &handle),
                  0);
        ASSERT_GT(handle, 0);
        EXPECT_EQ(WTERMSIG(first.stop(SIGKILL)), SIGKILL);
    }
    DaemonProcess second({"--state-dir", dir}, {}, port);
    ASSERT_TRUE(second.start()) << second.trace();
    EXPECT_NE(second.trace().find("Note: state read from"), std::string::npos);
    std::vector<char> row = buildMessage([&](MessageBuilder &b) {
        b.add16(DCH_requestType, ZEVD_REQ_DP_DATA);
        b.add32(DCH_handle, handle);
        b.add16(DCH_dataFlag, 0);
        b.addString(DCH_attrName, "v");
        int32_t value = 5;
        b.addValue(DCH_attrValue, &value, 4, "A");
    });
    EXPECT_EQ(status(exchange(second, row)), 0);
    EXPECT_EQ(exitCode(second.stop(SIGTERM)), 0);

    // A state file cut short is set aside and the daemon starts empty.
    std::string path = std::string(dir) + "/zevdchd.state";
    ASSERT_EQ(truncate(path.c_str(), 30), 0);
    DaemonProcess third({"--state-dir", dir}, {}, port);
    ASSERT_TRUE(third.start()) << third.trace();
    EXPECT_NE(third.trace().find("Error: state file " + path + " is not usable"), std::string::npos)
        << third.trace();
    EXPECT_EQ(status(exchange(third, row)), ZEVD_DCH_UNKNOWN_HANDLE);
    EXPECT_EQ(exitCode(third.stop(SIGTERM)), 0);
    std::filesystem::remove_all(dir);
}

}  // namespace
}  // namespace zevd::test
