// zevdchd under a service manager: readiness and stopping sent over a real
// AF_UNIX datagram socket (NOTIFY_SOCKET), the DCH port's sockets handed
// over by socket activation with requests already waiting in them, SIGHUP
// after a log rotation, and syslog priorities on the journal's stream.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstddef>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "common/message.h"
#include "support/dch_daemon.h"
#include "support/free_port.h"
#include "support/loopback.h"
#include "support/wait_for.h"
#include "zevd610.h"

namespace zevd::test {
namespace {

using namespace std::chrono_literals;

// A receiving AF_UNIX datagram socket, at a path or (name starting '@') in
// the abstract namespace: what a service manager listens on.
class NotifySocket {
public:
    explicit NotifySocket(bool abstract) {
        char dir[] = "/tmp/zevdchd-notify-XXXXXX";
        if (mkdtemp(dir) != nullptr) dir_ = dir;
        name_ = abstract ? "@" + dir_.substr(5) + "-notify" : dir_ + "/notify";
        fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        memcpy(address.sun_path, name_.data(), name_.size());
        if (abstract) address.sun_path[0] = '\0';
        auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name_.size());
        if (fd_ >= 0 && bind(fd_, reinterpret_cast<sockaddr *>(&address), length) != 0) {
            close(fd_);
            fd_ = -1;
        }
    }
    ~NotifySocket() {
        if (fd_ >= 0) close(fd_);
        if (!dir_.empty()) std::filesystem::remove_all(dir_);
    }
    NotifySocket(const NotifySocket &) = delete;
    NotifySocket &operator=(const NotifySocket &) = delete;

    bool ready() const { return fd_ >= 0; }
    const std::string &name() const { return name_; }
    // The next datagram, or "" when none came within limit.
    std::string receive(std::chrono::milliseconds limit = 20s) const {
        pollfd p = {fd_, POLLIN, 0};
        if (poll(&p, 1, static_cast<int>(limit.count())) != 1) return "";
        char text[4096];
        ssize_t n = recv(fd_, text, sizeof text, 0);
        return n > 0 ? std::string(text, static_cast<size_t>(n)) : "";
    }

private:
    std::string dir_;
    std::string name_;
    int fd_ = -1;
};

// dp_online for an application that no provider registered: the DCH answers
// it with ZEVD_DCH_UNKNOWN_APPL, whoever asks.
std::vector<char> onlineRequest() {
    return buildMessage([](MessageBuilder &b) {
        b.add16(DCH_requestType, ZEVD_REQ_DP_ONLINE);
        b.addString(DCH_applName, "nobody");
        b.addString(DCH_attrGroup, "g");
        b.addString(DCH_sourceName, "s");
    });
}

// The DCH_status of an answer, -1 when there is none.
int32_t answerStatus(const char *data, size_t size) {
    FieldReader r(data, size);
    if (r.next() != DCH_status) return -1;
    return r.int32();
}

// A client's UDP socket on loopback that waits up to 20 s for an answer.
class Client {
public:
    Client() : fd_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        timeval wait = {20, 0};
        setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
    }
    ~Client() { close(fd_); }
    Client(const Client &) = delete;
    Client &operator=(const Client &) = delete;

    bool send(uint16_t port, const std::vector<char> &m) const {
        return sendDatagram(fd_, loopbackAddress(port), m);
    }
    // The status of the next answer, -1 when none came.
    int32_t answer() const {
        char data[4096];
        ssize_t n = recv(fd_, data, sizeof data, 0);
        return n > 0 ? answerStatus(data, static_cast<size_t>(n)) : -1;
    }

private:
    int fd_;
};

// The same request over a TCP connection; connect() succeeds as soon as
// the port listens, before anyone accepts.
class TcpClient {
public:
    explicit TcpClient(uint16_t port) : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in to = loopbackAddress(port);
        connected_ = connect(fd_, reinterpret_cast<sockaddr *>(&to), sizeof to) == 0;
        timeval wait = {20, 0};
        setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
    }
    ~TcpClient() { close(fd_); }
    TcpClient(const TcpClient &) = delete;
    TcpClient &operator=(const TcpClient &) = delete;

    bool send(const std::vector<char> &m) const {
        return connected_ &&
               ::send(fd_, m.data(), m.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(m.size());
    }
    // The status of the answer: its length word first, then the rest.
    int32_t answer() const {
        std::vector<char> data;
        char chunk[4096];
        uint32_t length = 0;
        while (data.size() < 4 || data.size() < length) {
            ssize_t n = recv(fd_, chunk, sizeof chunk, 0);
            if (n <= 0) return -1;
            data.insert(data.end(), chunk, chunk + n);
            if (data.size() >= 4) {
                memcpy(&length, data.data(), 4);
                length = ntohl(length);
                if (length > 65536) return -1;
            }
        }
        return answerStatus(data.data(), data.size());
    }

private:
    int fd_;
    bool connected_ = false;
};

// A program in a child process with its standard output and error on one
// pipe (standard error appended to errorPath instead when one is given),
// the descriptors given placed at 3, 4, ...; environment: this process's
// without its ZEVA_ variables, plus env.
class Child {
public:
    Child(std::vector<std::string> argv, std::vector<std::string> env, std::vector<int> passed,
          const std::string &errorPath = "") {
        std::vector<std::string> all;
        for (char **e = environ; *e != nullptr; ++e)
            if (strncmp(*e, "ZEVA_", 5) != 0) all.emplace_back(*e);
        all.insert(all.end(), env.begin(), env.end());
        std::vector<char *> argvp, envp;
        for (std::string &a : argv) argvp.push_back(a.data());
        argvp.push_back(nullptr);
        for (std::string &e : all) envp.push_back(e.data());
        envp.push_back(nullptr);
        int out[2];
        if (pipe2(out, O_CLOEXEC) != 0) return;
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        // First out of the way of 3, 4, ..., then into place.
        std::vector<int> moved;
        for (int fd : passed) {
            int high = fcntl(fd, F_DUPFD_CLOEXEC, 100);
            moved.push_back(high);
        }
        for (size_t i = 0; i < moved.size(); ++i)
            posix_spawn_file_actions_adddup2(&actions, moved[i], 3 + static_cast<int>(i));
        posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
        if (errorPath.empty())
            posix_spawn_file_actions_adddup2(&actions, out[1], STDERR_FILENO);
        else
            posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, errorPath.c_str(),
                                             O_WRONLY | O_APPEND, 0);
        if (posix_spawnp(&pid_, argvp[0], &actions, nullptr, argvp.data(), envp.data()) != 0)
            pid_ = -1;
        posix_spawn_file_actions_destroy(&actions);
        for (int fd : moved) close(fd);
        close(out[1]);
        out_ = out[0];
    }
    ~Child() {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
        if (out_ >= 0) close(out_);
    }
    Child(const Child &) = delete;
    Child &operator=(const Child &) = delete;

    pid_t pid() const { return pid_; }
    // Reads the output until it holds text; false after limit or at its end.
    bool waitOutput(const std::string &text, std::chrono::milliseconds limit = 20s) {
        return readOutputUntil(out_, output_, text, limit);
    }
    int stop(int sig) {
        kill(pid_, sig);
        int status = waitChild(pid_, 20s);
        if (status != -1) pid_ = -1;
        return status;
    }
    const std::string &output() const { return output_; }

private:
    pid_t pid_ = -1;
    int out_ = -1;
    std::string output_;
};

std::string tempTracePath() {
    char path[] = "/tmp/zevdchd-service-XXXXXX";
    int fd = mkstemp(path);
    if (fd >= 0) close(fd);
    return path;
}

void expectReadinessAndStopping(bool abstract) {
    NotifySocket manager(abstract);
    ASSERT_TRUE(manager.ready());
    DaemonProcess daemon({}, {"NOTIFY_SOCKET=" + manager.name()});
    ASSERT_TRUE(daemon.spawn());
    EXPECT_EQ(manager.receive(),
              "READY=1\nSTATUS=serving on port " + std::to_string(daemon.port()) + "\n")
        << daemon.trace();
    // Ready means the port answers now, without any further wait.
    Client client;
    ASSERT_TRUE(client.send(daemon.port(), onlineRequest()));
    EXPECT_EQ(client.answer(), ZEVD_DCH_UNKNOWN_APPL);
    // The ready line is still there for everything else.
    EXPECT_TRUE(daemon.waitReady(5s));
    EXPECT_EQ(exitCode(daemon.stop(SIGTERM)), 0);
    EXPECT_EQ(manager.receive(), "STOPPING=1\nSTATUS=stopping\n");
}

TEST(DchServiceTest, ReadinessAndStoppingGoToANotifySocketPath) {
    expectReadinessAndStopping(false);
}

TEST(DchServiceTest, ReadinessAndStoppingGoToAnAbstractNotifySocket) {
    expectReadinessAndStopping(true);
}

TEST(DchServiceTest, AnUnreachableNotifySocketIsTracedAndItServesOn) {
    DaemonProcess daemon({}, {"NOTIFY_SOCKET=/nonexistent/notify"});
    ASSERT_TRUE(daemon.start()) << daemon.trace();
    EXPECT_TRUE(
        daemon.waitTrace("Error: the service manager could not be notified at "
                         "</nonexistent/notify>"));
    Client client;
    ASSERT_TRUE(client.send(daemon.port(), onlineRequest()));
    EXPECT_EQ(client.answer(), ZEVD_DCH_UNKNOWN_APPL);
    EXPECT_EQ(exitCode(daemon.stop(SIGTERM)), 0);
}

TEST(DchServiceTest, ANotifySocketThatIsNoAddressIsTracedAndItServesOn) {
    DaemonProcess daemon({}, {"NOTIFY_SOCKET=relative/notify"});
    ASSERT_TRUE(daemon.start()) << daemon.trace();
    EXPECT_TRUE(
        daemon.waitTrace("Error: NOTIFY_SOCKET <relative/notify> is not a socket address\n"));
    EXPECT_EQ(exitCode(daemon.stop(SIGTERM)), 0);
}

// Socket activation as a service manager does it: the UDP and the TCP
// socket of the port bound (and listening) before the daemon starts, a
// datagram and a connection with its request already waiting in them.
TEST(DchServiceTest, InheritedSocketsServeRequestsSentBeforeTheDaemonStarted) {
    uint16_t port = freeLoopbackPort();
    ASSERT_NE(port, 0);
    int udp = bindLoopback(SOCK_DGRAM, port);
    int tcp = bindLoopback(SOCK_STREAM, port);
    ASSERT_GE(udp, 0);
    ASSERT_GE(tcp, 0);
    Client client;
    ASSERT_TRUE(client.send(port, onlineRequest()));
    TcpClient connection(port);
    ASSERT_TRUE(connection.send(onlineRequest()));

    NotifySocket manager(false);
    ASSERT_TRUE(manager.ready());
    std::string trace = tempTracePath();
    Child daemon({ZEVD_LISTEN_LAUNCHER, "2", ZEVD_DAEMON_PATH, "--port", std::to_string(port),
                  "--trace-file", trace, "--trace", "error,ipcSock::allocateDCHport=error+detail"},
                 {"NOTIFY_SOCKET=" + manager.name()}, {udp, tcp});
    close(udp);
    close(tcp);
    ASSERT_GT(daemon.pid(), 0);
    EXPECT_EQ(client.answer(), ZEVD_DCH_UNKNOWN_APPL);
    EXPECT_EQ(connection.answer(), ZEVD_DCH_UNKNOWN_APPL);
    EXPECT_EQ(manager.receive(), "READY=1\nSTATUS=serving on port " + std::to_string(port) + "\n");
    EXPECT_TRUE(daemon.waitOutput("zevdchd ready on port " + std::to_string(port) + "\n"));
    // The allocation took descriptors 3 and 4 and traced as it always does.
    std::string text = fileText(trace);
    EXPECT_NE(text.find("Opened DCH port " + std::to_string(port) +
                        " _sockUDP[3] _sockTCP[4] for zevd\n"),
              std::string::npos)
        << text;
    EXPECT_NE(text.find("Successfully opened zevd DCH port " + std::to_string(port) + "\n"),
              std::string::npos)
        << text;
    EXPECT_EQ(exitCode(daemon.stop(SIGTERM)), 0);
    unlink(trace.c_str());
}

// Sockets handed over for another port are left alone: the daemon binds
// its own.
TEST(DchServiceTest, InheritedSocketsOfAnotherPortAreNotTaken) {
    uint16_t other = freeLoopbackPort();
    ASSERT_NE(other, 0);
    int udp = bindLoopback(SOCK_DGRAM, other);
    ASSERT_GE(udp, 0);
    uint16_t port = freeLoopbackPort();
    ASSERT_NE(port, 0);
    std::string trace = tempTracePath();
    Child daemon({ZEVD_LISTEN_LAUNCHER, "1", ZEVD_DAEMON_PATH, "--port", std::to_string(port),
                  "--trace-file", trace},
                 {"ZEVA_DCH_BIND=127.0.0.1"}, {udp});
    close(udp);
    ASSERT_TRUE(daemon.waitOutput("zevdchd ready on port " + std::to_string(port) + "\n"))
        << fileText(trace);
    Client client;
    ASSERT_TRUE(client.send(port, onlineRequest()));
    EXPECT_EQ(client.answer(), ZEVD_DCH_UNKNOWN_APPL);
    EXPECT_EQ(exitCode(daemon.stop(SIGTERM)), 0);
    unlink(trace.c_str());
}

// Debian's systemd-socket-activate binds the UDP port, waits for the first
// datagram and only then starts the daemon, which takes the socket over (and
// binds TCP itself): that first datagram is answered.
TEST(DchServiceTest, SystemdSocketActivateHandsOverTheUdpPort) {
    const char *tool = "/usr/bin/systemd-socket-activate";
    if (access(tool, X_OK) != 0) GTEST_SKIP() << tool << " is not installed (systemd package)";
    uint16_t port = freeLoopbackPort();
    ASSERT_NE(port, 0);
    std::string trace = tempTracePath();
    std::string address = "127.0.0.1:" + std::to_string(port);
    Child daemon(
        {tool, "--datagram", "--listen", address, ZEVD_DAEMON_PATH, "--port", std::to_string(port),
         "--trace-file", trace, "--trace", "error,ipcSock::allocateDCHport=error+detail"},
        {"ZEVA_DCH_BIND=127.0.0.1"}, {});
    ASSERT_TRUE(daemon.waitOutput("Listening on " + address)) << daemon.output();
    Client client;
    ASSERT_TRUE(client.send(port, onlineRequest()));
    EXPECT_EQ(client.answer(), ZEVD_DCH_UNKNOWN_APPL) << daemon.output() << fileText(trace);
    EXPECT_TRUE(daemon.waitOutput("zevdchd ready on port " + std::to_string(port) + "\n"));
    EXPECT_NE(fileText(trace).find(" _sockUDP[3] "), std::string::npos) << fileText(trace);
    EXPECT_EQ(exitCode(daemon.stop(SIGTERM)), 0);
    unlink(trace.c_str());
}

// A bad item of --trace is named once, and the daemon serves with the rest.
TEST(DchServiceTest, BadTraceItemIsReportedOnce) {
    DaemonProcess daemon({"--trace", "error,bogus=xyz"});
    ASSERT_TRUE(daemon.start()) << daemon.trace();
    const std::string complaint = "Error: ZEVA_TRACE item <bogus=xyz> ignored\n";
    std::string text = daemon.trace();
    size_t first = text.find(complaint);
    ASSERT_NE(first, std::string::npos) << text;
    EXPECT_EQ(text.find(complaint, first + 1), std::string::npos) << text;
}

// A log rotation: the file is renamed, SIGHUP makes the daemon open the
// name again and write its counters there, and it serves on.
TEST(DchServiceTest, SighupReopensTheTraceFileAndWritesTheCounters) {
    DaemonProcess daemon;
    ASSERT_TRUE(daemon.start()) << daemon.trace();
    std::string rotated = daemon.tracePath() + ".1";
    ASSERT_EQ(rename(daemon.tracePath().c_str(), rotated.c_str()), 0);
    ASSERT_EQ(kill(daemon.pid(), SIGHUP), 0);
    EXPECT_TRUE(daemon.waitTrace("counter requests{request=\"dp_online\"} 0\n"));
    EXPECT_EQ(fileText(rotated).find("counter requests{"), std::string::npos);
    Client client;
    ASSERT_TRUE(client.send(daemon.port(), onlineRequest()));
    EXPECT_EQ(client.answer(), ZEVD_DCH_UNKNOWN_APPL);
    EXPECT_EQ(exitCode(daemon.stop(SIGTERM)), 0);
    EXPECT_TRUE(daemon.waitTrace("counter requests{request=\"dp_online\"} 1\n"));
    unlink(rotated.c_str());
}

// After a rotation the new file names a bad item of --trace again, once, as
// the first file did.
TEST(DchServiceTest, SighupNamesABadTraceItemOnceInTheNewFile) {
    DaemonProcess daemon({"--trace", "error,bogus=xyz"});
    ASSERT_TRUE(daemon.start()) << daemon.trace();
    const std::string complaint = "Error: ZEVA_TRACE item <bogus=xyz> ignored\n";
    std::string rotated = daemon.tracePath() + ".1";
    ASSERT_EQ(rename(daemon.tracePath().c_str(), rotated.c_str()), 0);
    ASSERT_EQ(kill(daemon.pid(), SIGHUP), 0);
    EXPECT_TRUE(daemon.waitTrace("counter requests{request=\"dp_online\"} 0\n"));
    for (const std::string &text : {fileText(rotated), daemon.trace()}) {
        size_t first = text.find(complaint);
        ASSERT_NE(first, std::string::npos) << text;
        EXPECT_EQ(text.find(complaint, first + 1), std::string::npos) << text;
    }
    EXPECT_EQ(exitCode(daemon.stop(SIGTERM)), 0);
    unlink(rotated.c_str());
}

// The trace lines a daemon wrote to standard error, with JOURNAL_STREAM
// naming stream, after it served one request it drops.
std::vector<std::string> traceOnStream(const std::string &stream) {
    std::string trace = tempTracePath();
    std::string journal = stream;
    if (journal.empty()) {
        struct stat info {};
        if (stat(trace.c_str(), &info) != 0) return {};
        journal = std::to_string(info.st_dev) + ":" + std::to_string(info.st_ino);
    }
    uint16_t port = freeLoopbackPort();
    std::vector<std::string> lines;
    {
        Child daemon({ZEVD_DAEMON_PATH, "--port", std::to_string(port)},
                     {"JOURNAL_STREAM=" + journal, "ZEVA_DCH_BIND=127.0.0.1"}, {}, trace);
        EXPECT_TRUE(daemon.waitOutput("zevdchd ready on port " + std::to_string(port) + "\n"));
        // A request code that does not exist: dropped with an error line.
        Client client;
        EXPECT_TRUE(client.send(port, {0, 0, 0, 12, 0, 16, 0, 0, 0, 2, 0x7f, 0x7f}));
        EXPECT_TRUE(waitFor(
            [&] { return fileText(trace).find("request code 0x7f7f") != std::string::npos; }, 20s));
        EXPECT_EQ(exitCode(daemon.stop(SIGTERM)), 0);
    }
    std::string text = fileText(trace);
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos) end = text.size();
        lines.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    unlink(trace.c_str());
    return lines;
}

// The line that contains part, or "".
std::string lineWith(const std::vector<std::string> &lines, const std::string &part) {
    for (const std::string &line : lines)
        if (line.find(part) != std::string::npos) return line;
    return "";
}

// Standard error as the journal's stream (JOURNAL_STREAM names its device
// and inode): every line starts with its syslog priority.
TEST(DchServiceTest, OnTheJournalStreamEachLineCarriesItsPriority) {
    std::vector<std::string> lines = traceOnStream("");
    ASSERT_FALSE(lines.empty());
    for (const std::string &line : lines)
        EXPECT_TRUE(line.size() > 3 && line[0] == '<' && line[1] >= '0' && line[1] <= '7' &&
                    line[2] == '>')
            << line;
    EXPECT_EQ(lineWith(lines, "Error: request code 0x7f7f").substr(0, 3), "<3>");
    EXPECT_EQ(lineWith(lines, "Note: receive buffer of the DCH port").substr(0, 3), "<5>");
    EXPECT_EQ(lineWith(lines, "Successfully opened zevd DCH port").substr(0, 3), "<6>");
    EXPECT_EQ(lineWith(lines, "counter requests{request=\"unknown\"} 1").substr(0, 3), "<6>");
}

// A JOURNAL_STREAM inherited from elsewhere names another file: no prefixes.
TEST(DchServiceTest, AJournalStreamOfAnotherFileLeavesTheLinesAsTheyAre) {
    std::vector<std::string> lines = traceOnStream("1:1");
    ASSERT_FALSE(lines.empty());
    for (const std::string &line : lines) EXPECT_NE(line.substr(0, 1), "<") << line;
    EXPECT_NE(lineWith(lines, "Error: request code 0x7f7f"), "");
}

}  // namespace
}  // namespace zevd::test
