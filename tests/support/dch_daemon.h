// zevdchd in a child process on a free loopback port: started with
// posix_spawn, ready when it prints its ready line (never a sleep), its trace
// in a file of its own, stopped by a signal with a bounded wait.
#ifndef ZEVD_TESTS_SUPPORT_DCH_DAEMON_H
#define ZEVD_TESTS_SUPPORT_DCH_DAEMON_H

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <functional>

#include "common/message.h"
#include "support/child_program.h"
#include "support/free_port.h"

extern char **environ;

namespace zevd::test {

class DaemonProcess {
public:
    // args: further options; env: further NAME=VALUE entries, each in place
    // of this process's own of that name. port 0 picks a free loopback
    // port.
    explicit DaemonProcess(std::vector<std::string> args = {}, std::vector<std::string> env = {},
                           uint16_t port = 0)
        : args_(std::move(args)),
          env_(std::move(env)),
          port_(port != 0 ? port : freeLoopbackPort()) {
        char path[] = "/tmp/zevdchd-trace-XXXXXX";
        int fd = mkstemp(path);
        if (fd >= 0) close(fd);
        tracePath_ = path;
    }
    ~DaemonProcess() {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
        if (out_ >= 0) close(out_);
        unlink(tracePath_.c_str());
    }
    DaemonProcess(const DaemonProcess &) = delete;
    DaemonProcess &operator=(const DaemonProcess &) = delete;

    uint16_t port() const { return port_; }
    pid_t pid() const { return pid_; }
    const std::string &tracePath() const { return tracePath_; }

    // Starts the program (behind ZEVD_CHILD_WRAPPER); false when it could
    // not be spawned.
    bool spawn() {
        // ZEVD_TEST_DAEMON runs the suites against another build of the
        // daemon (an older one, to measure what a change bought).
        const char *program = getenv("ZEVD_TEST_DAEMON");
        std::vector<std::string> argv = {program != nullptr ? program : ZEVD_DAEMON_PATH, "--port",
                                         std::to_string(port_), "--trace-file", tracePath_};
        argv.insert(argv.end(), args_.begin(), args_.end());
        argv.insert(argv.begin(), prefix_.begin(), prefix_.end());
        argv = wrappedCommand(std::move(argv));
        auto given = [this](const char *entry) {
            const char *equals = strchr(entry, '=');
            size_t name = equals != nullptr ? static_cast<size_t>(equals - entry) + 1 : 0;
            return name > 0 && std::any_of(env_.begin(), env_.end(), [&](const std::string &e) {
                       return e.compare(0, name, entry, name) == 0;
                   });
        };
        std::vector<std::string> env;
        for (char **e = environ; *e != nullptr; ++e)
            if (strncmp(*e, "ZEVA_", 5) != 0 && !given(*e)) env.emplace_back(*e);
        env.emplace_back("ZEVA_DCH_BIND=127.0.0.1");
        env.insert(env.end(), env_.begin(), env_.end());
        std::vector<char *> argvp, envp;
        for (std::string &a : argv) argvp.push_back(a.data());
        argvp.push_back(nullptr);
        for (std::string &e : env) envp.push_back(e.data());
        envp.push_back(nullptr);

        int pipeFds[2];
        if (pipe2(pipeFds, O_CLOEXEC) != 0) return false;
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, pipeFds[1], STDOUT_FILENO);
        posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, tracePath_.c_str(),
                                         O_WRONLY | O_APPEND, 0);
        int rc = posix_spawnp(&pid_, argvp[0], &actions, nullptr, argvp.data(), envp.data());
        posix_spawn_file_actions_destroy(&actions);
        close(pipeFds[1]);
        out_ = pipeFds[0];
        if (rc != 0) pid_ = -1;
        return rc == 0;
    }

    // Reads standard output until the ready line; false after limit or when
    // the program ended first.
    bool waitReady(std::chrono::milliseconds limit = std::chrono::seconds(20)) {
        return readOutputUntil(out_, stdout_,
                               "zevdchd ready on port " + std::to_string(port_) + "\n", limit);
    }

    bool start() { return spawn() && waitReady(); }

    // A command the daemon runs under (its arguments, then the daemon's);
    // set before spawn().
    void runUnder(std::vector<std::string> prefix) { prefix_ = std::move(prefix); }

    // Sends sig and waits for the end; the wait status, or -1 after limit.
    int stop(int sig, std::chrono::milliseconds limit = std::chrono::seconds(20)) {
        if (pid_ <= 0) return -1;
        kill(pid_, sig);
        return waitExit(limit);
    }
    int waitExit(std::chrono::milliseconds limit = std::chrono::seconds(20)) {
        int status = waitChild(pid_, limit);
        if (status != -1) pid_ = -1;
        return status;
    }

    const std::string &output() const { return stdout_; }
    // The port of --metrics 127.0.0.1:PORT, from the line that announces
    // it (printed before the ready line); 0 when there is none.
    uint16_t metricsPort() const {
        const std::string key = "zevdchd metrics on http://127.0.0.1:";
        size_t at = stdout_.find(key);
        return at == std::string::npos
                   ? 0
                   : static_cast<uint16_t>(atoi(stdout_.c_str() + at + key.size()));
    }
    std::string trace() const { return fileText(tracePath_); }
    // Waits until the trace holds part (written by the daemon's own thread,
    // so there is nothing to wait on but the file).
    bool waitTrace(const std::string &part,
                   std::chrono::milliseconds limit = std::chrono::seconds(20)) const {
        auto deadline = std::chrono::steady_clock::now() + limit;
        while (trace().find(part) == std::string::npos) {
            if (std::chrono::steady_clock::now() >= deadline) return false;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return true;
    }

private:
    std::vector<std::string> args_;
    std::vector<std::string> prefix_;
    std::vector<std::string> env_;
    uint16_t port_;
    std::string tracePath_;
    pid_t pid_ = -1;
    int out_ = -1;
    std::string stdout_;
};

// One daemon for a whole test program, with this process's library pointed
// at it (before any request reads the configuration). then runs once the
// daemon is ready.
class DaemonEnvironment : public ::testing::Environment {
public:
    // env: further NAME=VALUE entries of the daemon; then: run once it is
    // ready; args: further options of the daemon.
    explicit DaemonEnvironment(std::vector<std::string> env = {},
                               std::function<void()> then = nullptr,
                               std::vector<std::string> args = {})
        : env_(std::move(env)), then_(std::move(then)), args_(std::move(args)) {}
    static DaemonProcess &daemon() { return *running(); }

    void SetUp() override {
        running() = new DaemonProcess(args_, env_);
        ASSERT_TRUE(daemon().start()) << daemon().trace();
        setenv("ZEVA_DCH_ADDR", "127.0.0.1", 1);
        setenv("ZEVA_DCH_PORT", std::to_string(daemon().port()).c_str(), 1);
        setenv("ZEVA_DCH_TIMEOUT", "5", 1);
        if (then_) then_();
    }
    void TearDown() override {
        EXPECT_EQ(daemon().stop(SIGTERM), 0);
        delete running();
        running() = nullptr;
    }

private:
    static DaemonProcess *&running() {
        static DaemonProcess *process = nullptr;
        return process;
    }
    std::vector<std::string> env_;
    std::function<void()> then_;
    std::vector<std::string> args_;
};

// A message built field by field with the library's writer.
template <typename Build>
std::vector<char> buildMessage(Build build) {
    std::vector<char> m(4096);
    MessageBuilder b(m.data(), m.size());
    b.clear();
    build(b);
    m.resize(b.length());
    return m;
}

}  // namespace zevd::test

#endif  // ZEVD_TESTS_SUPPORT_DCH_DAEMON_H
