// The DCH port: the configured port after a pause, or the search over
// candidate ports that publishes the one it got. Every case runs its server
// in a forked child, which ends the process on the paths that cannot own a
// port; the parent holds the ports that are to be taken.
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <random>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "support/dch_server.h"
#include "support/fresh_process.h"
#include "support/trace_capture.h"
#include "zev0.h"
#include "zevd610.h"

namespace {

using zevd::test::bindLoopback;
using zevd::test::LoopServer;
using zevd::test::TraceCapture;

constexpr char kFunction[] = " ipcSock::allocateDCHport:";
constexpr int kSearchBase = 46300;
constexpr int kDefaultPort = 1919;
// The search's candidates for a named instance on the default port start
// here (1919 + 46300) and step by item 22.
constexpr int kInstanceBase = kDefaultPort + kSearchBase;

// Ports a case takes on purpose: UDP and a listening TCP socket on
// 127.0.0.1, so that the server's binds fail with EADDRINUSE.
class HeldPorts {
public:
    HeldPorts() = default;
    HeldPorts(const HeldPorts &) = delete;
    HeldPorts &operator=(const HeldPorts &) = delete;
    ~HeldPorts() { releaseAll(); }

    bool hold(int port, bool udp = true, bool tcp = true) {
        int u = udp ? bindLoopback(SOCK_DGRAM, static_cast<uint16_t>(port)) : -1;
        int t = tcp ? bindLoopback(SOCK_STREAM, static_cast<uint16_t>(port)) : -1;
        if ((udp && u < 0) || (tcp && t < 0)) {
            if (u >= 0) close(u);
            if (t >= 0) close(t);
            return false;
        }
        held_.push_back({port, u, t});
        return true;
    }
    void release(int port) {
        for (auto it = held_.begin(); it != held_.end(); ++it) {
            if (it->port != port) continue;
            if (it->udp >= 0) close(it->udp);
            if (it->tcp >= 0) close(it->tcp);
            held_.erase(it);
            return;
        }
    }
    void releaseAll() {
        for (const Held &h : held_) {
            if (h.udp >= 0) close(h.udp);
            if (h.tcp >= 0) close(h.tcp);
        }
        held_.clear();
    }

private:
    struct Held {
        int port, udp, tcp;
    };
    std::vector<Held> held_;
};

// Finds first + k * step (k = 0 .. count-1), with first drawn from [low,
// high], such that every candidate could be held on loopback for both
// protocols, and holds them all in held. Returns first, or 0 when no such
// run turned up in 200 draws.
int holdRun(HeldPorts &held, int low, int high, int count, int step) {
    std::mt19937 random(std::random_device{}());
    std::uniform_int_distribution<int> draw(low, high);
    for (int attempt = 0; attempt < 200; ++attempt) {
        int first = draw(random);
        if (first + (count - 1) * step > 65535) continue;
        int k = 0;
        while (k < count && held.hold(first + k * step)) ++k;
        if (k == count) return first;
        for (int j = 0; j < k; ++j) held.release(first + j * step);
    }
    return 0;
}

// A settings file in a directory of its own.
class SettingsFile {
public:
    explicit SettingsFile(const std::map<int, std::string> &items) {
        char pattern[] = "/tmp/zevd_dch_port_XXXXXX";
        const char *made = mkdtemp(pattern);
        dir_ = made != nullptr ? made : "";
        path_ = dir_ + "/settings";
        std::ofstream out(path_);
        out << "# product settings\n";
        for (const auto &[item, value] : items) out << item << '=' << value << '\n';
    }
    ~SettingsFile() {
        // The file, its rename leftovers and any directory a case put there.
        if (DIR *dir = opendir(dir_.c_str())) {
            while (struct dirent *entry = readdir(dir)) {
                std::string name = entry->d_name;
                if (name == "." || name == "..") continue;
                std::string path = dir_ + "/" + name;
                if (unlink(path.c_str()) != 0) rmdir(path.c_str());
            }
            closedir(dir);
        }
        rmdir(dir_.c_str());
    }
    SettingsFile(const SettingsFile &) = delete;
    SettingsFile &operator=(const SettingsFile &) = delete;

    const std::string &path() const { return path_; }
    std::string text() const {
        std::ifstream in(path_);
        std::stringstream all;
        all << in.rdbuf();
        return all.str();
    }
    // The items as the file holds them now (the last line of an item wins).
    std::map<int, std::string> items() const {
        std::map<int, std::string> found;
        std::istringstream lines(text());
        std::string line;
        while (std::getline(lines, line)) {
            size_t eq = line.find('=');
            if (line.empty() || line[0] == '#' || eq == std::string::npos) continue;
            found[std::stoi(line.substr(0, eq))] = line.substr(eq + 1);
        }
        return found;
    }

private:
    std::string dir_;
    std::string path_;
};

// The environment of one case, applied in the child.
struct PortCase {
    explicit PortCase(int dchPort, const SettingsFile *file = nullptr)
        : port(dchPort), settings(file) {}

    int port = 0;  // ZEVA_DCH_PORT
    const SettingsFile *settings = nullptr;
    std::string instance;
    std::string bind = "127.0.0.1";

    void apply() const {
        setenv("ZEVA_DCH_ADDR", "127.0.0.1", 1);
        setenv("ZEVA_DCH_BIND", bind.c_str(), 1);
        setenv("ZEVA_DCH_PORT", std::to_string(port).c_str(), 1);
        if (settings != nullptr)
            setenv("ZEVA_SETTINGS_FILE", settings->path().c_str(), 1);
        else
            unsetenv("ZEVA_SETTINGS_FILE");
        if (!instance.empty()) ZEVA_SetInstanceName(instance.c_str());
    }
};

// The texts of the port allocation's lines, with the descriptors in the
// socket names replaced by U and T.
std::vector<std::string> portTexts(const std::vector<std::string> &lines) {
    static const std::regex udp("_sockUDP\\[-?[0-9]+\\]");
    static const std::regex tcp("_sockTCP\\[-?[0-9]+\\]");
    std::vector<std::string> texts;
    for (const std::string &line : lines) {
        if (line.find(kFunction) == std::string::npos) continue;
        std::string text = zevd::test::traceText(line);
        text = std::regex_replace(text, udp, "_sockUDP[U]");
        texts.push_back(std::regex_replace(text, tcp, "_sockTCP[T]"));
    }
    return texts;
}

size_t countOf(const std::vector<std::string> &texts, const std::string &part) {
    size_t n = 0;
    for (const std::string &t : texts)
        if (t.find(part) != std::string::npos) ++n;
    return n;
}

bool has(const std::vector<std::string> &texts, const std::string &text) {
    for (const std::string &t : texts)
        if (t == text) return true;
    return false;
}

// The address line of a socket bound to 127.0.0.1:port.
std::string boundLine(const char *socketName, int port) {
    char text[128];
    snprintf(text, sizeof text, "%s bound to: clientAddr <16<0200%04x7f0000010000000000000000>>\n",
             socketName, port);
    return text;
}

// Each trace line the child writes goes to a file at once, one record per
// line ended by a record separator, so the parent reads what was written
// before the process ended.
void sinkToFile(void *ctx, const char *line, size_t len) {
    int fd = *static_cast<int *>(ctx);
    std::string record(line, len);
    record += '\x1e';
    ssize_t ignored = write(fd, record.data(), record.size());
    (void)ignored;
}

std::vector<std::string> readRecords(const std::string &path) {
    std::ifstream in(path);
    std::stringstream all;
    all << in.rdbuf();
    std::vector<std::string> lines;
    std::string record;
    std::istringstream records(all.str());
    while (std::getline(records, record, '\x1e')) lines.push_back(record);
    return lines;
}

// Starts the server in a forked child that is expected to end with status 1;
// returns the lines it traced and the time the child took.
struct Ending {
    std::vector<std::string> lines;
    std::chrono::milliseconds took;
};

Ending expectExit(const PortCase &c) {
    char pattern[] = "/tmp/zevd_dch_trace_XXXXXX";
    int traceFd = mkstemp(pattern);
    EXPECT_GE(traceFd, 0);
    std::string tracePath = pattern;
    auto started = std::chrono::steady_clock::now();
    GTEST_FLAG_SET(death_test_style, "fast");
    EXPECT_EXIT(
        {
            c.apply();
            TLG1_SetSink(sinkToFile, &traceFd);
            TLG1_Configure("error,ipcSock::allocateDCHport=all");
            LoopServer::startAsConfigured();
            // The server ends the process; bounded in case it does not.
            for (int i = 0; i < 300; ++i)
                std::this_thread::sleep_for(std::chrono::milliseconds(100));
        },
        ::testing::ExitedWithCode(1), "");
    auto took = std::chrono::duration_cast<std::chrono::milliseconds>(
        std::chrono::steady_clock::now() - started);
    Ending ending{readRecords(tracePath), took};
    close(traceFd);
    unlink(tracePath.c_str());
    return ending;
}

// Starts the server as the case configured it and waits for its ready entry.
LoopServer &startAndWaitReady(const PortCase &c) {
    c.apply();
    LoopServer &server = LoopServer::startAsConfigured();
    EXPECT_TRUE(server.waitEntries(1)) << "no IPC-SERVER_READY";
    return server;
}

// The port the server bound, and its sockets' close-on-exec flags.
void expectBoundTo(LoopServer &server, int port) {
    EXPECT_EQ(server.sock().sockPortUDP(), port);
    EXPECT_EQ(server.sock().sockPortTCP(), port);
    int udp = server.sock().sockUDP();
    EXPECT_NE(fcntl(udp, F_GETFD) & FD_CLOEXEC, 0);
    // The TCP socket is the other descriptor bound to the port.
    bool tcpSeen = false;
    for (int fd = 0; fd < 1024; ++fd) {
        if (fd == udp || fcntl(fd, F_GETFD) < 0) continue;
        int type = 0;
        socklen_t length = sizeof type;
        if (getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &length) != 0 || type != SOCK_STREAM)
            continue;
        if (zevd::test::boundPort(fd) != port) continue;
        int accepting = 0;
        length = sizeof accepting;
        getsockopt(fd, SOL_SOCKET, SO_ACCEPTCONN, &accepting, &length);
        if (!accepting) continue;
        tcpSeen = true;
        EXPECT_NE(fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
    }
    EXPECT_TRUE(tcpSeen);
}

std::string envPort() {
    const char *value = getenv("ZEVA_DCH_PORT");
    return value != nullptr ? value : "(unset)";
}

// ---------------------------------------------------------------- fixed port

TEST(DchPortTest, FixedPortTakenByBothEndsTheProcessAfterTwoSeconds) {
    HeldPorts held;
    int port = holdRun(held, 20000, 60000, 1, 1);
    ASSERT_NE(port, 0);
    Ending ending = expectExit(PortCase{port});
    std::vector<std::string> texts = portTexts(ending.lines);
    // The pause comes before the one try; a sleep lasts at least its time.
    EXPECT_GE(ending.took.count(), 2000);
    std::string p = std::to_string(port);
    EXPECT_EQ(texts,
              (std::vector<std::string>{
                  "Entry\n",
                  "At entry, DCH using socket port number " + p + "\n",
                  // Each open starts from a cleared address, and a failed
                  // open leaves it so.
                  "_sockUDP[U] bound to: clientAddr <16<00000000000000000000000000000000>>\n",
                  "_sockTCP[T] bound to: clientAddr <16<00000000000000000000000000000000>>\n",
                  "Error: Could not open TCP/UDP sockets bound to zevd DCH port " + p + "\n",
                  "Determine if another copy of zevd is already active on this system.  "
                  "Exiting...\n",
              }));
}

TEST(DchPortTest, FixedPortTakenByTcpAloneEndsTheProcess) {
    HeldPorts held;
    int port = holdRun(held, 20000, 60000, 1, 1);
    ASSERT_NE(port, 0);
    held.release(port);
    ASSERT_TRUE(held.hold(port, false, true));
    Ending ending = expectExit(PortCase{port});
    std::vector<std::string> texts = portTexts(ending.lines);
    std::string p = std::to_string(port);
    EXPECT_TRUE(has(texts, boundLine("_sockUDP[U]", port))) << ::testing::PrintToString(texts);
    EXPECT_TRUE(
        has(texts, "Error: Could not open TCP/UDP sockets bound to zevd DCH port " + p + "\n"));
    EXPECT_TRUE(has(texts,
                    "Determine if another copy of zevd is already active on this system.  "
                    "Exiting...\n"));
    EXPECT_EQ(countOf(texts, "Successfully opened"), 0u);
}

TEST(DchPortTest, FixedPortThatCannotBeBoundEndsTheProcessWithBothErrnos) {
    PortCase c{zevd::test::freeLoopbackPort()};
    ASSERT_NE(c.port, 0);
    // An address the platform cannot parse: nothing is bound at all.
    c.bind = "not-an-address";
    Ending ending = expectExit(c);
    std::vector<std::string> texts = portTexts(ending.lines);
    EXPECT_TRUE(has(texts, "Error: Could not open TCP/UDP sockets bound to zevd DCH port " +
                               std::to_string(c.port) +
                               ", UDP Errno: 22, TCP Errno: 22.  Exiting...\n"))
        << ::testing::PrintToString(texts);
    EXPECT_EQ(countOf(texts, "Determine if another copy"), 0u);
}

TEST(DchPortTest, FreeFixedPortIsOpenedAfterThePauseAndNotPublished) {
    SettingsFile settings({{3, "zevd"}});
    std::string before = settings.text();
    int port = zevd::test::freeLoopbackPort();
    ASSERT_NE(port, 0);
    ZEVD_IN_FORKED_CHILD({
        TraceCapture capture("error,ipcSock::allocateDCHport=all");
        auto started = std::chrono::steady_clock::now();
        LoopServer &server = startAndWaitReady(PortCase{port, &settings});
        EXPECT_GE(std::chrono::steady_clock::now() - started, std::chrono::seconds(2));
        expectBoundTo(server, port);
        std::string p = std::to_string(port);
        EXPECT_EQ(portTexts(capture.lines()),
                  (std::vector<std::string>{
                      "Entry\n",
                      "At entry, DCH using socket port number " + p + "\n",
                      boundLine("_sockUDP[U]", port),
                      boundLine("_sockTCP[T]", port),
                      "Opened DCH port " + p + " _sockUDP[U] _sockTCP[T] for zevd\n",
                      "Successfully opened zevd DCH port " + p + "\n",
                      "Exit: 0x1\n",
                  }));
        EXPECT_EQ(envPort(), p);
    });
    // The fixed path publishes nothing.
    EXPECT_EQ(settings.text(), before);
}

TEST(DchPortTest, NamedInstanceOnAnotherPortKeepsTheFixedPath) {
    int port = zevd::test::freeLoopbackPort();
    ASSERT_NE(port, 0);
    ASSERT_NE(port, kDefaultPort);
    ZEVD_IN_FORKED_CHILD({
        TraceCapture capture("error,ipcSock::allocateDCHport=all");
        PortCase c{port};
        c.instance = "blue";
        LoopServer &server = startAndWaitReady(c);
        expectBoundTo(server, port);
        std::vector<std::string> texts = portTexts(capture.lines());
        EXPECT_TRUE(has(texts, "Instance <blue> of zevd is being started\n"))
            << ::testing::PrintToString(texts);
        EXPECT_TRUE(has(texts, "Opened DCH port " + std::to_string(port) +
                                   " _sockUDP[U] _sockTCP[T] for zevd\n"));
    });
}

// ---------------------------------------------------------------- search

TEST(DchPortTest, NamedInstanceOnTheDefaultPortSearchesAndPublishes) {
    HeldPorts held;
    // The first two candidates 48219 + step and 48219 + 2 x step: the first
    // taken, the second free.
    int step = 0;
    int first = 0;
    std::mt19937 random(std::random_device{}());
    for (int attempt = 0; attempt < 200 && first == 0; ++attempt) {
        step = std::uniform_int_distribution<int>(1, 8000)(random);
        if (!held.hold(kInstanceBase + step)) continue;
        if (held.hold(kInstanceBase + 2 * step)) {
            first = kInstanceBase + step;
        } else {
            held.release(kInstanceBase + step);
        }
    }
    ASSERT_NE(first, 0);
    int second = first + step;
    held.release(second);
    SettingsFile settings({{22, std::to_string(step)}});
    ZEVD_IN_FORKED_CHILD({
        TraceCapture capture("error,ipcSock::allocateDCHport=all");
        PortCase c{kDefaultPort, &settings};
        c.instance = "green";
        LoopServer &server = startAndWaitReady(c);
        expectBoundTo(server, second);
        std::string s = std::to_string(second);
        std::vector<std::string> texts = portTexts(capture.lines());
        std::vector<std::string> expected = {
            "Entry\n",
            "At entry, DCH using socket port number 1919\n",
            "Instance <green> of zevd is being started\n",
            "ZEV2_DP_PORT_OFFSET " + std::to_string(step) + " is currently in effect\n",
            "_sockUDP[U] bound to: clientAddr <16<00000000000000000000000000000000>>\n",
            "_sockTCP[T] bound to: clientAddr <16<00000000000000000000000000000000>>\n",
            "DCH port number " + std::to_string(first) + " is already in use, retrying...\n",
            boundLine("_sockUDP[U]", second),
            boundLine("_sockTCP[T]", second),
            "Opened _sockUDP[U] _sockTCP[T] for zevd\n",
            "Assigned DCH port number to " + s + "\n",
            "ZEVA_DCH_PORT environment variable now equals " + s + "\n",
            "Calling ZEV0_UpdateProductSpec with new port value <" + s + ">\n",
            "Calling ZEV0_UpdateProductSpec with new port offset value <" +
                std::to_string(2 * step) + ">\n",
            "Successfully opened zevd DCH port " + s + "\n",
            "Exit: 0x1\n",
        };
        EXPECT_EQ(texts, expected);
        EXPECT_EQ(envPort(), s);
    });
    std::map<int, std::string> items = settings.items();
    EXPECT_EQ(items[21], std::to_string(second));
    // The offset found: attempt 2 x the step.
    EXPECT_EQ(items[22], std::to_string(2 * step));
    EXPECT_EQ(items.count(0), 0u);
}

TEST(DchPortTest, ItemsZeroAndOffsetStartAtTheConfiguredPortAndKeepTheOffset) {
    HeldPorts held;
    int port = holdRun(held, 20000, 60000, 1, 1);
    ASSERT_NE(port, 0);
    held.release(port);
    SettingsFile settings({{0, "search"}, {22, "7"}});
    ZEVD_IN_FORKED_CHILD({
        TraceCapture capture("error,ipcSock::allocateDCHport=all");
        LoopServer &server = startAndWaitReady(PortCase{port, &settings});
        expectBoundTo(server, port);
        std::vector<std::string> texts = portTexts(capture.lines());
        EXPECT_TRUE(has(texts, "ZEV2_DP_PORT_OFFSET 7 is currently in effect\n"))
            << ::testing::PrintToString(texts);
        // The first candidate is the port itself: one pair of binds.
        EXPECT_EQ(countOf(texts, " bound to: "), 2u);
        EXPECT_EQ(countOf(texts, "retrying"), 0u);
        EXPECT_EQ(countOf(texts, "new port offset value"), 0u);
        EXPECT_TRUE(has(texts, "Successfully opened zevd DCH port " + std::to_string(port) + "\n"));
        EXPECT_EQ(envPort(), std::to_string(port));
    });
    std::map<int, std::string> items = settings.items();
    EXPECT_EQ(items[21], std::to_string(port));
    EXPECT_EQ(items[22], "7");
    EXPECT_EQ(items[0], "search");
}

TEST(DchPortTest, OffsetZeroMeansAStepOfAThousand) {
    HeldPorts held;
    // The configured port, taken, and the candidate 1000 above it, free.
    int port = holdRun(held, 20000, 60000, 2, 1000);
    ASSERT_NE(port, 0);
    held.release(port + 1000);
    SettingsFile settings({{0, "1"}, {22, "0"}});
    ZEVD_IN_FORKED_CHILD({
        TraceCapture capture("error,ipcSock::allocateDCHport=all");
        LoopServer &server = startAndWaitReady(PortCase{port, &settings});
        expectBoundTo(server, port + 1000);
        std::vector<std::string> texts = portTexts(capture.lines());
        EXPECT_TRUE(has(texts, "ZEV2_DP_PORT_OFFSET 0 is currently in effect\n"));
        EXPECT_TRUE(has(
            texts, "DCH port number " + std::to_string(port) + " is already in use, retrying...\n"))
            << ::testing::PrintToString(texts);
        EXPECT_TRUE(
            has(texts, "Successfully opened zevd DCH port " + std::to_string(port + 1000) + "\n"));
        EXPECT_EQ(envPort(), std::to_string(port + 1000));
    });
    std::map<int, std::string> items = settings.items();
    EXPECT_EQ(items[21], std::to_string(port + 1000));
    EXPECT_EQ(items[22], "0");
}

TEST(DchPortTest, ItemZeroAloneStartsAtThePortPlusTheBase) {
    HeldPorts held;
    int candidate = holdRun(held, kSearchBase + 1000, 65000, 1, 1);
    ASSERT_NE(candidate, 0);
    held.release(candidate);
    int port = candidate - kSearchBase;
    SettingsFile settings({{0, "yes"}});
    ZEVD_IN_FORKED_CHILD({
        TraceCapture capture("error,ipcSock::allocateDCHport=all");
        LoopServer &server = startAndWaitReady(PortCase{port, &settings});
        expectBoundTo(server, candidate);
        std::vector<std::string> texts = portTexts(capture.lines());
        EXPECT_EQ(countOf(texts, "ZEV2_DP_PORT_OFFSET"), 0u) << ::testing::PrintToString(texts);
        EXPECT_EQ(countOf(texts, " bound to: "), 2u);
        EXPECT_EQ(countOf(texts, "new port offset value"), 0u);
        EXPECT_TRUE(has(texts, "Assigned DCH port number to " + std::to_string(candidate) + "\n"));
        EXPECT_EQ(envPort(), std::to_string(candidate));
    });
    std::map<int, std::string> items = settings.items();
    EXPECT_EQ(items[21], std::to_string(candidate));
    EXPECT_EQ(items.count(22), 0u);
}

TEST(DchPortTest, CandidateWithOneProtocolTakenIsPassedWithItsErrnos) {
    HeldPorts held;
    int port = holdRun(held, 20000, 60000, 2, 3);
    ASSERT_NE(port, 0);
    held.release(port);
    held.release(port + 3);
    ASSERT_TRUE(held.hold(port, false, true));
    SettingsFile settings({{0, "1"}, {22, "3"}});
    ZEVD_IN_FORKED_CHILD({
        TraceCapture capture("error,ipcSock::allocateDCHport=all");
        LoopServer &server = startAndWaitReady(PortCase{port, &settings});
        expectBoundTo(server, port + 3);
        std::vector<std::string> texts = portTexts(capture.lines());
        EXPECT_TRUE(has(texts, "Error: Could not open TCP/UDP sockets bound to zevd DCH port " +
                                   std::to_string(port) + ", UDP Errno: 0, TCP Errno: 98\n"))
            << ::testing::PrintToString(texts);
        EXPECT_EQ(countOf(texts, "retrying"), 0u);
        EXPECT_EQ(envPort(), std::to_string(port + 3));
    });
}

TEST(DchPortTest, FailedPublishingIsReportedAndIgnored) {
    HeldPorts held;
    int candidate = holdRun(held, kInstanceBase + 1, 65000, 1, 1);
    ASSERT_NE(candidate, 0);
    held.release(candidate);
    int step = candidate - kInstanceBase;
    SettingsFile settings({{22, std::to_string(step)}});
    ZEVD_IN_FORKED_CHILD({
        // The settings writer's temporary file cannot be made when a
        // directory stands at its name.
        std::string blocker = settings.path() + ".tmp." + std::to_string(getpid());
        ASSERT_EQ(mkdir(blocker.c_str(), 0700), 0);
        TraceCapture capture("error,ipcSock::allocateDCHport=all");
        PortCase c{kDefaultPort, &settings};
        c.instance = "red";
        LoopServer &server = startAndWaitReady(c);
        expectBoundTo(server, candidate);
        std::vector<std::string> texts = portTexts(capture.lines());
        EXPECT_TRUE(has(
            texts, "Error: Unable to reset port value to <" + std::to_string(candidate) + ">\n"))
            << ::testing::PrintToString(texts);
        EXPECT_TRUE(has(
            texts, "Error: Unable to reset port offset value to <" + std::to_string(step) + ">\n"));
        EXPECT_TRUE(
            has(texts, "Successfully opened zevd DCH port " + std::to_string(candidate) + "\n"));
        EXPECT_EQ(envPort(), std::to_string(candidate));
    });
    EXPECT_EQ(settings.items(), (std::map<int, std::string>{{22, std::to_string(step)}}));
}

TEST(DchPortTest, FirstCandidateAboveTheHighestPortEndsTheSearchUntried) {
    SettingsFile settings({{22, "30000"}});  // 1919 + 46300 + 30000 > 65535
    PortCase c{kDefaultPort, &settings};
    c.instance = "gold";
    Ending ending = expectExit(c);
    std::vector<std::string> texts = portTexts(ending.lines);
    EXPECT_EQ(texts, (std::vector<std::string>{
                         "Entry\n",
                         "At entry, DCH using socket port number 1919\n",
                         "Instance <gold> of zevd is being started\n",
                         "ZEV2_DP_PORT_OFFSET 30000 is currently in effect\n",
                         "Error: Could not open TCP/UDP sockets bound to zevd\n",
                         "All candidate DCH ports are unavailable.  Exiting...\n\n",
                     }));
}

TEST(DchPortTest, LaterCandidateAboveTheHighestPortEndsTheSearchUntried) {
    HeldPorts held;
    int port = holdRun(held, 20000, 60000, 1, 1);
    ASSERT_NE(port, 0);
    int step = 65536 - port + 10;
    SettingsFile settings({{0, "1"}, {22, std::to_string(step)}});
    Ending ending = expectExit(PortCase{port, &settings});
    std::vector<std::string> texts = portTexts(ending.lines);
    EXPECT_TRUE(
        has(texts, "DCH port number " + std::to_string(port) + " is already in use, retrying...\n"))
        << ::testing::PrintToString(texts);
    // Only the taken candidate was tried.
    EXPECT_EQ(countOf(texts, " bound to: "), 2u);
    ASSERT_GE(texts.size(), 2u);
    EXPECT_EQ(texts[texts.size() - 2], "Error: Could not open TCP/UDP sockets bound to zevd\n");
    EXPECT_EQ(texts.back(), "All candidate DCH ports are unavailable.  Exiting...\n\n");
}

TEST(DchPortTest, EveryCandidateTakenReportsNineRetriesThenEndsTheProcess) {
    HeldPorts held;
    // The ten candidates 48219 + k x step, k = 1 .. 10, all taken.
    int step = 0;
    std::mt19937 random(std::random_device{}());
    for (int attempt = 0; attempt < 200 && step == 0; ++attempt) {
        int s = std::uniform_int_distribution<int>(1, 1700)(random);
        int k = 1;
        while (k <= 10 && held.hold(kInstanceBase + k * s)) ++k;
        if (k > 10) {
            step = s;
        } else {
            held.releaseAll();
        }
    }
    ASSERT_NE(step, 0);
    SettingsFile settings({{22, std::to_string(step)}});
    PortCase c{kDefaultPort, &settings};
    c.instance = "grey";
    Ending ending = expectExit(c);
    std::vector<std::string> texts = portTexts(ending.lines);
    std::vector<std::string> retries;
    for (const std::string &t : texts)
        if (t.find("retrying") != std::string::npos) retries.push_back(t);
    std::vector<std::string> expected;
    for (int k = 1; k <= 9; ++k)
        expected.push_back("DCH port number " + std::to_string(kInstanceBase + k * step) +
                           " is already in use, retrying...\n");
    EXPECT_EQ(retries, expected);
    // Ten candidates tried, the tenth passed over silently.
    EXPECT_EQ(countOf(texts, " bound to: "), 20u);
    ASSERT_GE(texts.size(), 2u);
    EXPECT_EQ(texts[texts.size() - 2], "Error: Could not open TCP/UDP sockets bound to zevd\n");
    EXPECT_EQ(texts.back(), "All candidate DCH ports are unavailable.  Exiting...\n\n");
    EXPECT_EQ(settings.items(), (std::map<int, std::string>{{22, std::to_string(step)}}));
}

}  // namespace
