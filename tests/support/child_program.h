// A program of the build run as a child process: its standard output read
// through a pipe as it comes, its standard error kept in a file, its end
// waited for with a bound.
#ifndef ZEVD_TESTS_SUPPORT_CHILD_PROGRAM_H
#define ZEVD_TESTS_SUPPORT_CHILD_PROGRAM_H

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

extern char **environ;

namespace zevd::test {

// Waits up to limit for the child pid to end (a pidfd turns readable when it
// does) and reaps it: its wait status, or -1 when it has not ended.
inline int waitChild(pid_t pid, std::chrono::milliseconds limit) {
    int pidfd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
    int status = 0;
    if (pidfd >= 0) {
        pollfd p = {pidfd, POLLIN, 0};
        poll(&p, 1, static_cast<int>(std::max<long>(limit.count(), 0)));
        close(pidfd);
    } else {
        // No pidfd_open (a test run under valgrind 3.19 does not have it):
        // the end is polled for instead, every 10 ms up to the limit.
        auto deadline = std::chrono::steady_clock::now() + limit;
        for (;;) {
            pid_t ended = waitpid(pid, &status, WNOHANG);
            if (ended != 0) return ended == pid ? status : -1;
            if (std::chrono::steady_clock::now() >= deadline) return -1;
            usleep(10000);
        }
    }
    return waitpid(pid, &status, WNOHANG) == pid ? status : -1;
}

// The command line of a program of the build that a test starts: argv
// behind the words of ZEVD_CHILD_WRAPPER (split at blanks), so that a
// memory checker can run every child too. argv alone when it is not set.
inline std::vector<std::string> wrappedCommand(std::vector<std::string> argv) {
    const char *wrapper = getenv("ZEVD_CHILD_WRAPPER");
    std::vector<std::string> command;
    std::istringstream words(wrapper != nullptr ? wrapper : "");
    for (std::string word; words >> word;) command.push_back(word);
    command.insert(command.end(), argv.begin(), argv.end());
    return command;
}

// A whole file as text (empty when it cannot be read).
inline std::string fileText(const std::string &path) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

// Reads fd into output until output holds text (true), or limit has passed
// or the output ended (false).
inline bool readOutputUntil(int fd, std::string &output, const std::string &text,
                            std::chrono::milliseconds limit) {
    auto deadline = std::chrono::steady_clock::now() + limit;
    while (output.find(text) == std::string::npos) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) return false;
        pollfd p = {fd, POLLIN, 0};
        if (poll(&p, 1, static_cast<int>(left.count())) <= 0) continue;
        char chunk[256];
        ssize_t n = read(fd, chunk, sizeof chunk);
        if (n <= 0) return false;
        output.append(chunk, static_cast<size_t>(n));
    }
    return true;
}

class ChildProgram {
public:
    // argv[0] is the program's path; env entries NAME=VALUE are added to (or
    // replace) this process's environment. Runs behind ZEVD_CHILD_WRAPPER.
    ChildProgram(std::vector<std::string> argv, const std::vector<std::string> &env = {}) {
        argv = wrappedCommand(std::move(argv));
        char path[] = "/tmp/zevd-child-stderr-XXXXXX";
        int fd = mkstemp(path);
        if (fd >= 0) close(fd);
        errPath_ = path;
        std::vector<std::string> environment;
        for (char **e = environ; *e != nullptr; ++e) {
            std::string entry = *e;
            bool replaced = false;
            for (const std::string &added : env)
                if (entry.compare(0, entry.find('=') + 1, added, 0, added.find('=') + 1) == 0)
                    replaced = true;
            if (!replaced) environment.push_back(entry);
        }
        environment.insert(environment.end(), env.begin(), env.end());
        std::vector<char *> argvp, envp;
        for (std::string &a : argv) argvp.push_back(a.data());
        argvp.push_back(nullptr);
        for (std::string &e : environment) envp.push_back(e.data());
        envp.push_back(nullptr);
        int pipeFds[2];
        if (pipe2(pipeFds, O_CLOEXEC) != 0) return;
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, pipeFds[1], STDOUT_FILENO);
        posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, errPath_.c_str(),
                                         O_WRONLY | O_APPEND, 0);
        if (posix_spawnp(&pid_, argvp[0], &actions, nullptr, argvp.data(), envp.data()) != 0)
            pid_ = -1;
        posix_spawn_file_actions_destroy(&actions);
        close(pipeFds[1]);
        out_ = pipeFds[0];
    }
    ~ChildProgram() {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
        if (out_ >= 0) close(out_);
        unlink(errPath_.c_str());
    }
    ChildProgram(const ChildProgram &) = delete;
    ChildProgram &operator=(const ChildProgram &) = delete;

    bool started() const { return pid_ > 0; }
    pid_t pid() const { return pid_; }

    // Reads standard output until it holds part (true) or limit has passed,
    // or the output ended.
    bool readUntil(const std::string &part,
                   std::chrono::milliseconds limit = std::chrono::seconds(10)) {
        auto deadline = std::chrono::steady_clock::now() + limit;
        while (output_.find(part) == std::string::npos) {
            auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
            if (left.count() <= 0 || !readSome(static_cast<int>(left.count()))) return false;
        }
        return true;
    }
    // Waits for the end, reading all of standard output; the wait status, or
    // -1 after limit.
    int wait(std::chrono::milliseconds limit = std::chrono::seconds(20)) {
        auto deadline = std::chrono::steady_clock::now() + limit;
        for (;;) {
            auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
            if (left.count() <= 0 || !readSome(static_cast<int>(left.count()))) break;
        }
        int status = waitChild(pid_, std::chrono::duration_cast<std::chrono::milliseconds>(
                                         deadline - std::chrono::steady_clock::now()));
        if (status != -1) pid_ = -1;
        return status;
    }
    const std::string &output() const { return output_; }
    std::string errors() const { return fileText(errPath_); }

private:
    // One read within limitMs; false at the end of the output or the limit.
    bool readSome(int limitMs) {
        pollfd p = {out_, POLLIN, 0};
        if (poll(&p, 1, limitMs) != 1) return false;
        char chunk[4096];
        ssize_t n = read(out_, chunk, sizeof chunk);
        if (n <= 0) return false;
        output_.append(chunk, static_cast<size_t>(n));
        return true;
    }

    pid_t pid_ = -1;
    int out_ = -1;
    std::string errPath_;
    std::string output_;
};

// The exit code of a wait status, -1 when the program did not exit.
inline int exitCode(int status) {
    return status >= 0 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace zevd::test

#endif  // ZEVD_TESTS_SUPPORT_CHILD_PROGRAM_H
