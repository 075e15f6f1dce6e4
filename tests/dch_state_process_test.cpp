// zevdchd's --state-dir and --source-ttl as a program: what ends the start
// (a directory that is missing, read-only or in use by another daemon; a
// state file that is a link, a FIFO, a directory or too large), the links
// it never follows, and an idle source taken offline over the wire. The
// starts that end do so before the port opens; each case starts daemons
// of its own.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "common/message.h"
#include "support/dch_daemon.h"
#include "support/http_client.h"
#include "support/loopback.h"
#include "support/raw_provider.h"
#include "support/temp_dir.h"
#include "support/wait_for.h"
#include "zevd610.h"

namespace zevd::test {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

// A file of size bytes that takes no room.
void makeSparse(const std::string &path, off_t size) {
    int fd = creat(path.c_str(), 0600);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(ftruncate(fd, size), 0);
    close(fd);
}

// Starts zevdchd on dir and expects it to end with status 1 before its port
// opens, its one line on standard error (the trace file) being line.
void expectStartEnds(const std::string &dir, const std::string &line) {
    DaemonProcess daemon({"--state-dir", dir});
    ASSERT_TRUE(daemon.spawn());
    EXPECT_EQ(exitCode(daemon.waitExit(10s)), 1) << line;
    EXPECT_EQ(daemon.trace(), "zevdchd: " + line + "\n");
    EXPECT_EQ(daemon.output().find("ready"), std::string::npos);
}

TEST(DchStateStartTest, MissingStateDirOrOneThatIsNoDirectoryEndsTheStart) {
    TempDir dir;
    expectStartEnds(dir.file("missing"),
                    "state directory " + dir.file("missing") + " does not exist");
    writeFile(dir.file("plain"), "");
    expectStartEnds(dir.file("plain"),
                    "state directory " + dir.file("plain") + " is not a directory");
    EXPECT_EQ(readFile(dir.file("plain")), "");
}

TEST(DchStateStartTest, ReadOnlyStateDirEndsTheStart) {
    TempDir dir;
    // Root writes through any mode: a read-only filesystem is what stops it.
    bool mounted = false;
    if (geteuid() == 0) {
        mounted = mount("tmpfs", dir.path().c_str(), "tmpfs", MS_RDONLY, "size=64k") == 0;
        if (!mounted) GTEST_SKIP() << "skipped: as root, a read-only tmpfs could not be mounted";
    } else {
        ASSERT_EQ(chmod(dir.path().c_str(), 0555), 0);
    }
    expectStartEnds(dir.path(),
                    "state directory " + dir.path() + " is not writable (errno " +
                        (mounted ? "30, Read-only file system" : "13, Permission denied") + ")");
    if (mounted) umount2(dir.path().c_str(), MNT_DETACH);
    chmod(dir.path().c_str(), 0700);
}

TEST(DchStateStartTest, SecondDaemonOnTheDirectoryEndsWithStatusOneAndTheFirstServesOn) {
    TempDir dir;
    DaemonProcess first({"--state-dir", dir.path()});
    ASSERT_TRUE(first.start()) << first.trace();
    RawProvider provider(first.port());
    ASSERT_EQ(provider.registerApp("two").status, 0);
    RawAnswer online = provider.online("two", "s");
    ASSERT_EQ(online.status, 0);
    expectStartEnds(dir.path(), "state directory " + dir.path() + " is in use (pid " +
                                    std::to_string(first.pid()) + ")");
    EXPECT_EQ(provider.row(online.handle, 1).status, 0);
    EXPECT_EQ(provider.offline(online.handle).status, 0);
    // The lock goes with the process, however it ends.
    EXPECT_EQ(WTERMSIG(first.stop(SIGKILL)), SIGKILL);
    DaemonProcess next({"--state-dir", dir.path()}, {}, first.port());
    ASSERT_TRUE(next.start()) << next.trace();
    EXPECT_EQ(provider.row(online.handle, 1).status, ZEVD_DCH_UNKNOWN_HANDLE);
    EXPECT_EQ(exitCode(next.stop(SIGTERM)), 0);
}

TEST(DchStateStartTest, LinkAtANameTheDaemonWritesEndsTheStartAndItsTargetStaysUnchanged) {
    struct Case {
        const char *name;
        const char *line;  // after the directory
    };
    const Case cases[] = {
        {"zevdchd.state", "/zevdchd.state is not usable: it is a symbolic link"},
        {"zevdchd.journal", "/zevdchd.journal is not usable: it is a symbolic link"},
        {"zevdchd.lock", "/zevdchd.lock is not usable (it is a symbolic link)"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        TempDir dir, elsewhere;
        std::string target = elsewhere.file("target");
        writeFile(target, "not the daemon's");
        ASSERT_EQ(symlink(target.c_str(), dir.file(c.name).c_str()), 0);
        std::string kind = std::string(c.name) == "zevdchd.state"     ? "state file "
                           : std::string(c.name) == "zevdchd.journal" ? "journal "
                                                                      : "lock file ";
        expectStartEnds(dir.path(), kind + dir.path() + c.line);
        EXPECT_EQ(readFile(target), "not the daemon's");
        // A link to a directory, or one that leads nowhere, likewise.
        ASSERT_EQ(unlink(dir.file(c.name).c_str()), 0);
        ASSERT_EQ(symlink(elsewhere.path().c_str(), dir.file(c.name).c_str()), 0);
        expectStartEnds(dir.path(), kind + dir.path() + c.line);
        ASSERT_EQ(unlink(dir.file(c.name).c_str()), 0);
        ASSERT_EQ(symlink(elsewhere.file("nowhere").c_str(), dir.file(c.name).c_str()), 0);
        expectStartEnds(dir.path(), kind + dir.path() + c.line);
        EXPECT_FALSE(fs::exists(elsewhere.file("nowhere")));
    }
}

// Links put in place while the daemon runs: at the journal (its next change
// is refused, the one after writes a new journal in the link's place), at
// the snapshot (replaced at the stop) and at the temporary name of earlier
// versions. No target is ever written.
TEST(DchStateStartTest, LinksPutInPlaceWhileItRunsAreReplacedNeverFollowed) {
    TempDir dir, elsewhere;
    std::vector<std::string> targets;
    for (const char *name : {"journal", "state", "new"}) {
        targets.push_back(elsewhere.file(name));
        writeFile(targets.back(), std::string("target of ") + name);
    }
    DaemonProcess daemon({"--state-dir", dir.path()});
    ASSERT_TRUE(daemon.start()) << daemon.trace();
    RawProvider provider(daemon.port());
    ASSERT_EQ(provider.registerApp("links").status, 0);
    ASSERT_EQ(provider.online("links", "a").status, 0);
    ASSERT_EQ(unlink(dir.file("zevdchd.journal").c_str()), 0);
    ASSERT_EQ(symlink(targets[0].c_str(), dir.file("zevdchd.journal").c_str()), 0);
    ASSERT_EQ(unlink(dir.file("zevdchd.state").c_str()), 0);
    ASSERT_EQ(symlink(targets[1].c_str(), dir.file("zevdchd.state").c_str()), 0);
    ASSERT_EQ(symlink(targets[2].c_str(), dir.file("zevdchd.state.new").c_str()), 0);
    RawAnswer refused = provider.online("links", "b");
    EXPECT_EQ(refused.status, ZEVD_DCH_NOT_SAVED);
    EXPECT_EQ(refused.handle, 0);
    EXPECT_TRUE(daemon.waitTrace("Error: dp_online from 127.0.0.1 port "));
    EXPECT_NE(daemon.trace().find(" not saved in " + dir.path() +
                                  " (errno 40, Too many levels of symbolic links): answered 24, "
                                  "nothing changed\n"),
              std::string::npos)
        << daemon.trace();
    RawAnswer again = provider.online("links", "b");
    EXPECT_EQ(again.status, 0);
    EXPECT_EQ(again.handle, 2);
    EXPECT_EQ(exitCode(daemon.stop(SIGTERM)), 0);
    EXPECT_EQ(readFile(targets[0]), "target of journal");
    EXPECT_EQ(readFile(targets[1]), "target of state");
    EXPECT_EQ(readFile(targets[2]), "target of new");
    for (const char *name : {"zevdchd.journal", "zevdchd.state"})
        EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(dir.file(name)))) << name;
    // Both handles were kept.
    DaemonProcess next({"--state-dir", dir.path()}, {}, daemon.port());
    ASSERT_TRUE(next.start()) << next.trace();
    EXPECT_EQ(provider.row(1, 1).status, 0);
    EXPECT_EQ(provider.row(2, 1).status, 0);
    EXPECT_EQ(exitCode(next.stop(SIGTERM)), 0);
}

TEST(DchStateStartTest, FifoDirectoryOrOversizedStateFileEndsTheStartAtOnce) {
    struct Case {
        const char *what;
        const char *name;
        void (*make)(const std::string &path);
        const char *line;  // after the file's path
    };
    const Case cases[] = {
        {"a FIFO as the snapshot", "zevdchd.state",
         [](const std::string &p) { ASSERT_EQ(mkfifo(p.c_str(), 0600), 0); },
         " is not usable: it is a FIFO, not a regular file"},
        {"a FIFO as the journal", "zevdchd.journal",
         [](const std::string &p) { ASSERT_EQ(mkfifo(p.c_str(), 0600), 0); },
         " is not usable: it is a FIFO, not a regular file"},
        {"a directory as the snapshot", "zevdchd.state",
         [](const std::string &p) { ASSERT_EQ(mkdir(p.c_str(), 0700), 0); },
         " is not usable: it is a directory, not a regular file"},
        {"a directory as the journal", "zevdchd.journal",
         [](const std::string &p) { ASSERT_EQ(mkdir(p.c_str(), 0700), 0); },
         " is not usable: it is a directory, not a regular file"},
        {"a snapshot of 1 GiB and a byte", "zevdchd.state",
         [](const std::string &p) { makeSparse(p, (1LL << 30) + 1); },
         " is not usable: it holds 1073741825 bytes, more than 1 GiB"},
        {"a journal of 2 GiB", "zevdchd.journal",
         [](const std::string &p) { makeSparse(p, 2LL << 30); },
         " is not usable: it holds 2147483648 bytes, more than 1 GiB"},
        {"a FIFO as the lock file", "zevdchd.lock",
         [](const std::string &p) { ASSERT_EQ(mkfifo(p.c_str(), 0600), 0); },
         " is not usable (it is not a regular file)"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        TempDir dir;
        c.make(dir.file(c.name));
        std::string kind = std::string(c.name) == "zevdchd.state"     ? "state file "
                           : std::string(c.name) == "zevdchd.journal" ? "journal "
                                                                      : "lock file ";
        auto started = std::chrono::steady_clock::now();
        expectStartEnds(dir.path(), kind + dir.file(c.name) + c.line);
        // It ended without reading the file: a FIFO without a writer would
        // otherwise hold it for good, a large file take its time.
        EXPECT_LT(std::chrono::steady_clock::now() - started, 8s);
        EXPECT_TRUE(fs::exists(fs::symlink_status(dir.file(c.name))));
    }
}

TEST(DchStateStartTest, SourceTtlThatIsNotSecondsIsBadUsage) {
    for (const char *value : {"-1", "x", "", "1s", "316224001", "99999999999999999999"}) {
        DaemonProcess daemon({"--source-ttl", value});
        ASSERT_TRUE(daemon.spawn());
        EXPECT_EQ(exitCode(daemon.waitExit()), 2) << value;
        EXPECT_NE(daemon.trace().find("zevdchd: --source-ttl takes 0 to 316224000 seconds, not '" +
                                      std::string(value) + "'\nTry 'zevdchd --help'."),
                  std::string::npos)
            << daemon.trace();
    }
}

// The fields of a status report as its subscriber reads them.
struct Report {
    std::string source;
    int16_t requestType = 0;
};

TEST(DchStateStartTest, SourceIdleForItsTtlIsTakenOfflineReportedAndLeavesTheMetricsPage) {
    DaemonProcess daemon({"--source-ttl", "1", "--metrics", "127.0.0.1:0"});
    ASSERT_TRUE(daemon.start()) << daemon.trace();
    ASSERT_NE(daemon.metricsPort(), 0);
    // A status subscriber on a socket of its own.
    int subscriber = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ASSERT_GE(subscriber, 0);
    ASSERT_TRUE(sendDatagram(subscriber, loopbackAddress(daemon.port()),
                             buildMessage([](MessageBuilder &b) {
                                 b.add16(DCH_requestType, ZEVD_REQ_DC_WAIT_FOR_DP_STATUS);
                                 b.add32(DCH_status, 1);
                             })));
    RawProvider provider(daemon.port());
    ASSERT_EQ(provider.registerApp("ttl").status, 0);
    RawAnswer idle = provider.online("ttl", "idle");
    RawAnswer busy = provider.online("ttl", "busy");
    ASSERT_EQ(idle.status, 0);
    ASSERT_EQ(busy.status, 0);
    EXPECT_EQ(provider.row(idle.handle, 1).status, 0);
    EXPECT_EQ(provider.row(busy.handle, 2).status, 0);
    std::string page = httpGet(daemon.metricsPort()).body;
    EXPECT_NE(page.find("source=\"idle\""), std::string::npos) << page;
    EXPECT_NE(page.find("source=\"busy\""), std::string::npos) << page;

    // The busy source sends a row every 200 ms; the idle one nothing, until
    // its offline is reported.
    std::vector<Report> offline;
    auto deadline = std::chrono::steady_clock::now() + 10s;
    int32_t value = 3;
    while (offline.empty() && std::chrono::steady_clock::now() < deadline) {
        EXPECT_EQ(provider.row(busy.handle, value++).status, 0);
        pollfd p = {subscriber, POLLIN, 0};
        while (poll(&p, 1, 200) == 1) {
            std::vector<char> message(4096);
            ssize_t n = recv(subscriber, message.data(), message.size(), 0);
            if (n < 4) break;
            FieldReader r(message.data(), static_cast<size_t>(n));
            Report report;
            for (int type = r.next(); type != 0; type = r.next()) {
                if (type == DCH_sourceName) report.source = r.value();
                if (type == DCH_requestType) report.requestType = r.int16();
            }
            if (report.requestType == ZEVD_REQ_DP_OFFLINE) offline.push_back(report);
        }
    }
    close(subscriber);
    ASSERT_EQ(offline.size(), 1u);
    EXPECT_EQ(offline[0].source, "idle");
    EXPECT_TRUE(daemon.waitTrace(
        "Note: 1 handles taken offline after 1 seconds without a row or an online\n"));
    page = httpGet(daemon.metricsPort()).body;
    EXPECT_EQ(page.find("source=\"idle\""), std::string::npos) << page;
    EXPECT_NE(page.find("source=\"busy\""), std::string::npos) << page;
    EXPECT_EQ(provider.row(idle.handle, 1).status, ZEVD_DCH_UNKNOWN_HANDLE);
    EXPECT_EQ(provider.row(busy.handle, 1).status, 0);
    // Online again, it gets a new handle.
    RawAnswer back = provider.online("ttl", "idle");
    EXPECT_EQ(back.status, 0);
    EXPECT_EQ(back.handle, busy.handle + 1);
    EXPECT_EQ(exitCode(daemon.stop(SIGTERM)), 0);
}

}  // namespace
}  // namespace zevd::test
