// ZEVA_StartDPprocess: "./name" first, then name on the command path, and a
// child that could start neither goes on as a copy of the caller.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "support/trace_capture.h"
#include "zev0.h"
#include "zevd610.h"

namespace {

using zevd::test::TraceCapture;

constexpr int kWaitMs = 10000;
constexpr int kNotStarted = 42;  // exit status of a child that returned 0

std::string makeTempDir() {
    const char *base = getenv("TMPDIR");
    std::string pattern =
        std::string(base != nullptr && base[0] != '\0' ? base : "/tmp") + "/zevd-start-XXXXXX";
    std::vector<char> buf(pattern.begin(), pattern.end());
    buf.push_back('\0');
    if (mkdtemp(buf.data()) == nullptr) return "";
    return buf.data();
}

std::string readFile(const std::string &path) {
    std::ifstream in(path);
    std::stringstream all;
    all << in.rdbuf();
    return all.str();
}

bool writeScript(const std::string &path, const std::string &body) {
    {
        std::ofstream out(path);
        out << "#!/bin/sh\n" << body;
        if (!out) return false;
    }
    return chmod(path.c_str(), 0755) == 0;
}

// Waits at most kWaitMs for the child to end; -1 if it did not (the child
// is then killed and reaped).
int waitForChild(pid_t pid) {
    int fd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
    if (fd >= 0) {
        struct pollfd ready = {fd, POLLIN, 0};
        int n;
        do {
            n = poll(&ready, 1, kWaitMs);
        } while (n < 0 && errno == EINTR);
        close(fd);
        int status = 0;
        if (n == 1 && waitpid(pid, &status, 0) == pid) return status;
    } else {
        // No pidfd: look again every few milliseconds until the deadline.
        auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kWaitMs);
        while (std::chrono::steady_clock::now() < deadline) {
            int status = 0;
            pid_t done = waitpid(pid, &status, WNOHANG);
            if (done == pid) return status;
            if (done < 0) return -1;
            poll(nullptr, 0, 5);
        }
    }
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
    return -1;
}

// Splits "date time pid.tid unit function:line text" and returns the pid.
long linePid(const std::string &line) {
    std::istringstream in(line);
    std::string date, time, ids;
    in >> date >> time >> ids;
    return strtol(ids.c_str(), nullptr, 10);
}

class StartProcessTest : public ::testing::Test {
protected:
    void SetUp() override {
        char here[4096];
        ASSERT_NE(getcwd(here, sizeof here), nullptr);
        savedCwd_ = here;
        const char *path = getenv("PATH");
        hadPath_ = path != nullptr;
        if (hadPath_) savedPath_ = path;

        workDir_ = makeTempDir();
        pathDir_ = makeTempDir();
        ASSERT_FALSE(workDir_.empty());
        ASSERT_FALSE(pathDir_.empty());
        marker_ = workDir_ + "/marker";
        ASSERT_EQ(chdir(workDir_.c_str()), 0);
    }

    void TearDown() override {
        if (!savedCwd_.empty()) {
            EXPECT_EQ(chdir(savedCwd_.c_str()), 0);
        }
        if (hadPath_)
            setenv("PATH", savedPath_.c_str(), 1);
        else
            unsetenv("PATH");
        for (const auto &file : created_) unlink(file.c_str());
        if (!workDir_.empty()) rmdir(workDir_.c_str());
        if (!pathDir_.empty()) rmdir(pathDir_.c_str());
    }

    // A program that writes its tag and how it was called ($0) to the marker.
    void addProgram(const std::string &dir, const std::string &name, const std::string &tag) {
        std::string path = dir + "/" + name;
        ASSERT_TRUE(writeScript(
            path, "printf '%s %s\\n' '" + tag + "' \"$0\" > '" + marker_ + "'\nexit 0\n"));
        created_.push_back(path);
    }

    // Starts name, which must start and end with status 0; *pid is the
    // child's.
    void startAndEnd(const std::string &name, int *pid) {
        *pid = ZEVA_StartDPprocess(name.c_str());
        if (*pid == 0) _exit(kNotStarted);  // never let a copy of the test run on
        ASSERT_GT(*pid, 0);
        int status = waitForChild(*pid);
        ASSERT_NE(status, -1) << "child " << *pid << " did not end within " << kWaitMs << " ms";
        ASSERT_TRUE(WIFEXITED(status)) << status;
        EXPECT_EQ(WEXITSTATUS(status), 0);
    }

    void prependPathDir() {
        std::string path = pathDir_ + (hadPath_ ? ":" + savedPath_ : std::string());
        setenv("PATH", path.c_str(), 1);
    }

    std::string savedCwd_;
    std::string savedPath_;
    bool hadPath_ = false;
    std::string workDir_;
    std::string pathDir_;
    std::string marker_;
    std::vector<std::string> created_;
};

TEST_F(StartProcessTest, RunsTheCopyInTheCurrentDirectory) {
    const std::string name = "zevd-provider";
    ASSERT_NO_FATAL_FAILURE(addProgram(workDir_, name, "cwd"));
    ASSERT_NO_FATAL_FAILURE(addProgram(pathDir_, name, "path"));
    prependPathDir();
    created_.push_back(marker_);

    TraceCapture capture("error");
    int pid = 0;
    ASSERT_NO_FATAL_FAILURE(startAndEnd(name, &pid));
    EXPECT_EQ(readFile(marker_), "cwd ./" + name + "\n");
    EXPECT_EQ(capture.texts(),
              std::vector<std::string>({"Child process <" + name + "> started successfully\n"}))
        << capture.joined();
}

TEST_F(StartProcessTest, FindsAProgramOnTheCommandPath) {
    const std::string name = "zevd-path-provider";
    ASSERT_NO_FATAL_FAILURE(addProgram(pathDir_, name, "path"));
    prependPathDir();
    created_.push_back(marker_);

    TraceCapture capture("error+flow");
    int pid = 0;
    ASSERT_NO_FATAL_FAILURE(startAndEnd(name, &pid));
    EXPECT_EQ(readFile(marker_), "path " + pathDir_ + "/" + name + "\n");
    EXPECT_EQ(capture.texts(), std::vector<std::string>(
                                   {"Parent side with childPID is " + std::to_string(pid) + "\n",
                                    "Child process <" + name + "> started successfully\n"}))
        << capture.joined();
}

// A name too long for "./name" in the 256-byte work buffer: the program
// whose name is the cut path's is not started; the command path is searched.
TEST_F(StartProcessTest, NameTooLongForTheCurrentDirectoryPathIsSearchedOnTheCommandPath) {
    const std::string name(254, 'p');
    ASSERT_NO_FATAL_FAILURE(addProgram(workDir_, name.substr(0, 253), "cut"));
    ASSERT_NO_FATAL_FAILURE(addProgram(pathDir_, name, "path"));
    prependPathDir();
    created_.push_back(marker_);

    int pid = 0;
    ASSERT_NO_FATAL_FAILURE(startAndEnd(name, &pid));
    EXPECT_EQ(readFile(marker_), "path " + pathDir_ + "/" + name + "\n");
}

TEST_F(StartProcessTest, ProgramFoundNowhereLeavesAChildThatReturnsZero) {
    const std::string name = "zevd-no-such-provider";
    // The command path holds only an empty directory, so the search ends
    // with ENOENT.
    setenv("PATH", pathDir_.c_str(), 1);
    // The child's lines cannot reach a sink in this process: send the trace
    // to a file that both processes append to.
    const std::string traceFile = workDir_ + "/trace.log";
    created_.push_back(traceFile);
    setenv("ZEVA_TRACE_FILE", traceFile.c_str(), 1);
    setenv("ZEVA_TRACE", "error", 1);
    TLG1_SetSink(nullptr, nullptr);
    TLG1_Configure(nullptr);

    const pid_t parent = getpid();
    int pid = ZEVA_StartDPprocess(name.c_str());
    if (pid == 0) _exit(kNotStarted);  // the child: at once, before anything else

    unsetenv("ZEVA_TRACE_FILE");
    unsetenv("ZEVA_TRACE");
    TLG1_Configure(nullptr);  // back to standard error

    ASSERT_GT(pid, 0);
    int status = waitForChild(pid);
    ASSERT_NE(status, -1) << "child " << pid << " did not end within " << kWaitMs << " ms";
    ASSERT_TRUE(WIFEXITED(status)) << status;
    EXPECT_EQ(WEXITSTATUS(status), kNotStarted);

    std::vector<std::string> lines;
    std::istringstream in(readFile(traceFile));
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    const std::string execError =
        "Error: EXEC " + name + " failed: errno=" + std::to_string(ENOENT);
    const std::string started = "Child process <" + name + "> started successfully";
    int execErrors = 0;
    int startedLines = 0;
    for (const auto &line : lines) {
        std::string text = zevd::test::traceText(line);
        if (text == execError) {
            ++execErrors;
            EXPECT_EQ(linePid(line), pid) << line;  // written by the child
        } else if (text == started) {
            ++startedLines;
            EXPECT_EQ(linePid(line), parent) << line;  // and only by the parent
        } else {
            ADD_FAILURE() << "unexpected line: " << line;
        }
    }
    EXPECT_EQ(execErrors, 1) << readFile(traceFile);
    EXPECT_EQ(startedLines, 1) << readFile(traceFile);
}

// Lines that reached the sink. The sink runs under the trace's output lock.
std::atomic<long> sunkLines{0};

void countLine(void * /*ctx*/, const char * /*line*/, size_t /*len*/) {
    sunkLines.fetch_add(1, std::memory_order_relaxed);
}

TEST_F(StartProcessTest, ChildOfABusyThreadedCallerWritesItsLinesAndEnds) {
    constexpr int kChildren = 100;
    const std::string name = "zevd-no-such-provider";
    setenv("PATH", pathDir_.c_str(), 1);
    // The other thread's lines and the parent's go to the sink; a child's,
    // written without the lock, go to the file.
    const std::string traceFile = workDir_ + "/trace.log";
    created_.push_back(traceFile);
    setenv("ZEVA_TRACE_FILE", traceFile.c_str(), 1);
    setenv("ZEVA_TRACE", "error ZEVA_StartDPprocess=error+entry", 1);
    TLG1_Configure(nullptr);
    TLG1_SetSink(countLine, nullptr);

    // A thread that holds the output lock as often as it can, so that some
    // forks happen while it holds it.
    std::atomic<bool> stop{false};
    std::thread writer([&stop] {
        static TraceUnit unit = {0, "", "", "busy.cpp", "TEST", nullptr, 0};
        static TraceFunctionRecord rec = {nullptr, "busy", 4, 1,
                                          &unit,   0x200,  0, TLG1_NEVER_SYNCED};
        for (long i = 0; !stop.load(std::memory_order_relaxed); ++i)
            TLG1_Printf(&rec, 1, "busy %ld", i);
    });
    for (int i = 0; i < 1000 && sunkLines.load() == 0; ++i) poll(nullptr, 0, 1);

    std::vector<pid_t> children;
    for (int i = 0; i < kChildren; ++i) {
        int pid = ZEVA_StartDPprocess(name.c_str());
        if (pid == 0) _exit(kNotStarted);  // the child: at once, before anything else
        if (pid < 0) {
            ADD_FAILURE() << "fork " << i << " failed";
            break;
        }
        int status = waitForChild(pid);
        if (status == -1) {
            // Once is enough: each further one would cost the whole wait.
            ADD_FAILURE() << "child " << i << " (" << pid << ") did not end within " << kWaitMs
                          << " ms";
            break;
        }
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == kNotStarted)
            << "child " << i << ": " << status;
        children.push_back(pid);
    }
    stop = true;
    writer.join();
    TLG1_SetSink(nullptr, nullptr);
    unsetenv("ZEVA_TRACE_FILE");
    unsetenv("ZEVA_TRACE");
    TLG1_Configure(nullptr);  // back to standard error
    ASSERT_EQ(children.size(), static_cast<size_t>(kChildren));
    EXPECT_GT(sunkLines.load(), 0);

    // Every child wrote its error line and its exit event, whole. (A pid
    // used twice carries the lines of both children.)
    std::map<long, std::vector<std::string>> expected;
    for (pid_t pid : children) {
        expected[pid].push_back("Error: EXEC " + name + " failed: errno=" + std::to_string(ENOENT));
        expected[pid].push_back("Exit: 0x0");
    }
    std::map<long, std::vector<std::string>> written;
    std::istringstream in(readFile(traceFile));
    for (std::string line; std::getline(in, line);)
        written[linePid(line)].push_back(zevd::test::traceText(line));
    EXPECT_EQ(written, expected) << readFile(traceFile);
}

}  // namespace
