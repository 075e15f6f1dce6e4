// zevdchd's promise under faults of its state directory: every change
// answered 0 is there after a SIGKILL and a restart, and every change that
// could not be saved was answered 24 and is absent. The faults are real: a
// small tmpfs that fills up and one remounted read-only (mounted by the
// test when it runs as root, skipped otherwise), descriptors run out
// (RLIMIT_NOFILE), and kills at random moments during online/offline churn.
//
// ZEVD_RELIABILITY_FULL=1 runs 25 kills instead of 3.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "support/dch_daemon.h"
#include "support/http_client.h"
#include "support/raw_provider.h"
#include "support/reliability.h"
#include "support/wait_for.h"
#include "zevd610.h"

namespace zevd::test {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

// A directory of its own under /tmp; with a size, a tmpfs of that size is
// mounted on it (root only: mounted() says whether it was).
class StateDir {
public:
    explicit StateDir(const char *tmpfsSize = nullptr) {
        char name[] = "/tmp/zevdchd-fault-XXXXXX";
        path_ = mkdtemp(name) != nullptr ? name : "";
        if (tmpfsSize != nullptr && !path_.empty() && geteuid() == 0)
            mounted_ = mount("tmpfs", path_.c_str(), "tmpfs", 0,
                             (std::string("size=") + tmpfsSize + ",mode=0700").c_str()) == 0;
    }
    ~StateDir() {
        if (mounted_) umount2(path_.c_str(), MNT_DETACH);
        std::error_code ignored;
        if (!path_.empty()) fs::remove_all(path_, ignored);
    }
    StateDir(const StateDir &) = delete;
    StateDir &operator=(const StateDir &) = delete;
    const std::string &path() const { return path_; }
    bool mounted() const { return mounted_; }
    // Remounts the tmpfs read-only (true) or writable again.
    bool remount(bool readOnly) const {
        unsigned long flags = MS_REMOUNT | (readOnly ? MS_RDONLY : 0);
        return mount("tmpfs", path_.c_str(), "tmpfs", flags, nullptr) == 0;
    }

private:
    std::string path_;
    bool mounted_ = false;
};

// What the provider was answered, source by source: the changes answered 0
// must all be found again, those answered 24 must have left no trace.
class Ledger {
public:
    explicit Ledger(std::string appl) : appl_(std::move(appl)) {}

    const std::string &appl() const { return appl_; }

    // Asks for an online of source; records a handle answered 0. The status.
    int32_t online(const RawProvider &provider, const std::string &source) {
        RawAnswer a = provider.online(appl_, source);
        count(a);
        if (a.answered && a.status == 0) open_[source] = a.handle;
        return a.answered ? a.status : -1;
    }
    int32_t offline(const RawProvider &provider, const std::string &source) {
        auto it = open_.find(source);
        if (it == open_.end()) return -1;
        RawAnswer a = provider.offline(it->second);
        count(a);
        if (a.answered && a.status == 0) {
            closed_.push_back(it->second);
            open_.erase(it);
        }
        return a.answered ? a.status : -1;
    }
    bool isOpen(const std::string &source) const { return open_.count(source) != 0; }
    size_t openCount() const { return open_.size(); }
    size_t answered(int32_t status) const {
        auto it = statuses_.find(status);
        return it == statuses_.end() ? 0 : it->second;
    }

    // Every handle answered 0 takes a row; every handle whose offline was
    // answered 0 does not. Returns how many did not hold.
    size_t check(const RawProvider &provider) const {
        size_t wrong = 0;
        for (const auto &[source, handle] : open_) {
            RawAnswer a = provider.row(handle, 1);
            if (!a.answered || a.status != 0) {
                ADD_FAILURE() << "handle " << handle << " of " << source << " answered "
                              << (a.answered ? std::to_string(a.status) : "nothing");
                ++wrong;
            }
        }
        for (int32_t handle : closed_) {
            RawAnswer a = provider.row(handle, 1);
            if (!a.answered || a.status != ZEVD_DCH_UNKNOWN_HANDLE) {
                ADD_FAILURE() << "closed handle " << handle << " answered "
                              << (a.answered ? std::to_string(a.status) : "nothing");
                ++wrong;
            }
        }
        return wrong;
    }

private:
    void count(const RawAnswer &a) { ++statuses_[a.answered ? a.status : -1]; }

    std::string appl_;
    std::map<std::string, int32_t> open_;
    std::vector<int32_t> closed_;
    std::map<int32_t, size_t> statuses_;
};

// The handles a daemon read at start, from its note ("... N handles ..."),
// or -1.
long handlesRead(const DaemonProcess &daemon) {
    std::string trace = daemon.trace();
    size_t at = trace.find("Note: state read from ");
    if (at == std::string::npos) return -1;
    size_t comma = trace.find(" applications, ", at);
    if (comma == std::string::npos) return -1;
    return atol(trace.c_str() + comma + strlen(" applications, "));
}

// Kills daemon, starts a new one on the same directory and port (after
// between, when given), and checks the ledger against it.
std::unique_ptr<DaemonProcess> killAndCheck(std::unique_ptr<DaemonProcess> daemon,
                                            const std::string &dir, const Ledger &ledger,
                                            const RawProvider &provider,
                                            const std::function<void()> &between = nullptr) {
    uint16_t port = daemon->port();
    EXPECT_EQ(WTERMSIG(daemon->stop(SIGKILL)), SIGKILL);
    if (between) between();
    auto next = std::make_unique<DaemonProcess>(std::vector<std::string>{"--state-dir", dir},
                                                std::vector<std::string>{}, port);
    EXPECT_TRUE(next->start()) << next->trace();
    EXPECT_EQ(handlesRead(*next), static_cast<long>(ledger.openCount())) << next->trace();
    EXPECT_EQ(ledger.check(provider), 0u);
    return next;
}

TEST(DchStateFaultTest, DiskThatFillsUpRefusesChangesWith24AndKeepsEveryOneAnswered0) {
    StateDir dir("256k");
    if (!dir.mounted()) GTEST_SKIP() << "skipped: mounting a tmpfs needs root";
    auto daemon =
        std::make_unique<DaemonProcess>(std::vector<std::string>{"--state-dir", dir.path()});
    ASSERT_TRUE(daemon->start()) << daemon->trace();
    RawProvider provider(daemon->port());
    Ledger ledger("full");
    ASSERT_EQ(provider.registerApp("full").status, 0);
    for (int i = 0; i < 20; ++i)
        ASSERT_EQ(ledger.online(provider, "before-" + std::to_string(i)), 0);

    // The rest of the tmpfs taken by another file.
    const std::string filler = dir.path() + "/filler";
    int fd = open(filler.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    ASSERT_GE(fd, 0);
    std::vector<char> block(4096, 'f');
    for (int i = 0; i < 1024 && write(fd, block.data(), block.size()) > 0; ++i) {
    }
    close(fd);

    // Changes go on: each is answered 0 (written into room the journal's
    // last page had) or 24, never left unanswered. Past the first 24 all
    // are 24: the next change must start a new snapshot, for which there is
    // no room.
    for (int i = 0; i < 150; ++i) {
        int32_t status = ledger.online(provider, "full-" + std::to_string(i));
        EXPECT_TRUE(status == 0 || status == ZEVD_DCH_NOT_SAVED) << status;
        if (i % 8 == 0) {
            status = ledger.offline(provider, "before-" + std::to_string(i / 8));
            EXPECT_TRUE(status == 0 || status == ZEVD_DCH_NOT_SAVED) << status;
        }
    }
    EXPECT_GE(ledger.answered(ZEVD_DCH_NOT_SAVED), 50u);
    // A register, by now, cannot be saved either.
    EXPECT_EQ(provider.registerApp("too-late").status, ZEVD_DCH_NOT_SAVED);
    EXPECT_TRUE(
        daemon->waitTrace("(errno 28, No space left on device): answered 24, "
                          "nothing changed\n"))
        << daemon->trace();
    // It serves on: rows and queries need no room.
    EXPECT_EQ(ledger.check(provider), 0u);

    // Room again: it saves again at once.
    ASSERT_EQ(unlink(filler.c_str()), 0);
    for (int i = 0; i < 10; ++i)
        EXPECT_EQ(ledger.online(provider, "after-" + std::to_string(i)), 0);
    EXPECT_EQ(ledger.offline(provider, "before-19"), 0);

    // Full again when it is killed, and started on the full disk.
    fd = open(filler.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    ASSERT_GE(fd, 0);
    for (int i = 0; i < 1024 && write(fd, block.data(), block.size()) > 0; ++i) {
    }
    close(fd);
    for (int i = 0; i < 10; ++i) ledger.online(provider, "last-" + std::to_string(i));
    daemon = killAndCheck(std::move(daemon), dir.path(), ledger, provider);
    EXPECT_EQ(provider.online("too-late", "x").status, ZEVD_DCH_UNKNOWN_APPL);
    printf("disk full: %zu changes answered 0, %zu answered 24\n", ledger.answered(0),
           ledger.answered(ZEVD_DCH_NOT_SAVED));
    EXPECT_EQ(WTERMSIG(daemon->stop(SIGKILL)), SIGKILL);
}

TEST(DchStateFaultTest, DirectoryRemountedReadOnlyRefusesChangesWith24AndKeepsEveryOneAnswered0) {
    StateDir dir("4m");
    if (!dir.mounted()) GTEST_SKIP() << "skipped: mounting a tmpfs needs root";
    auto daemon =
        std::make_unique<DaemonProcess>(std::vector<std::string>{"--state-dir", dir.path()});
    ASSERT_TRUE(daemon->start()) << daemon->trace();
    RawProvider provider(daemon->port());
    Ledger ledger("ro");
    ASSERT_EQ(provider.registerApp("ro").status, 0);
    for (int i = 0; i < 10; ++i) ASSERT_EQ(ledger.online(provider, "a-" + std::to_string(i)), 0);

    // Between changes the daemon holds no file open for writing, so the
    // remount is not refused as busy.
    ASSERT_TRUE(dir.remount(true)) << strerror(errno);
    for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(ledger.online(provider, "ro-" + std::to_string(i)), ZEVD_DCH_NOT_SAVED);
        EXPECT_EQ(ledger.offline(provider, "a-" + std::to_string(i)), ZEVD_DCH_NOT_SAVED);
    }
    EXPECT_EQ(provider.registerApp("other").status, ZEVD_DCH_NOT_SAVED);
    EXPECT_EQ(provider.unregister("ro").status, ZEVD_DCH_NOT_SAVED);
    EXPECT_TRUE(
        daemon->waitTrace("(errno 30, Read-only file system): answered 24, nothing "
                          "changed\n"))
        << daemon->trace();
    EXPECT_EQ(ledger.check(provider), 0u);

    ASSERT_TRUE(dir.remount(false)) << strerror(errno);
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(ledger.online(provider, "rw-" + std::to_string(i)), 0);
        EXPECT_EQ(ledger.offline(provider, "a-" + std::to_string(i)), 0);
    }
    // Read-only again when it is killed; writable again for the start,
    // which refuses a directory it cannot write.
    ASSERT_TRUE(dir.remount(true)) << strerror(errno);
    EXPECT_EQ(ledger.online(provider, "late"), ZEVD_DCH_NOT_SAVED);
    daemon = killAndCheck(std::move(daemon), dir.path(), ledger, provider,
                          [&] { EXPECT_TRUE(dir.remount(false)) << strerror(errno); });
    // The register answered 24 left nothing either.
    EXPECT_EQ(provider.online("other", "x").status, ZEVD_DCH_UNKNOWN_APPL);
    EXPECT_EQ(exitCode(daemon->stop(SIGTERM)), 0);
}

TEST(DchStateFaultTest, DescriptorsRunOutRefusesChangesWith24AndKeepsEveryOneAnswered0) {
    StateDir dir;
    auto daemon =
        std::make_unique<DaemonProcess>(std::vector<std::string>{"--state-dir", dir.path()});
    ASSERT_TRUE(daemon->start()) << daemon->trace();
    RawProvider provider(daemon->port());
    Ledger ledger("fds");
    ASSERT_EQ(provider.registerApp("fds").status, 0);
    for (int i = 0; i < 10; ++i) ASSERT_EQ(ledger.online(provider, "a-" + std::to_string(i)), 0);

    // A few descriptors more than it holds, then TCP clients take them, one
    // at a time until a change cannot open the journal.
    int held = openDescriptors(daemon->pid());
    ASSERT_GT(held, 0);
    rlimit limit{};
    ASSERT_EQ(prlimit(daemon->pid(), RLIMIT_NOFILE, nullptr, &limit), 0);
    rlimit lowered = limit;
    lowered.rlim_cur = static_cast<rlim_t>(held + 4);
    ASSERT_EQ(prlimit(daemon->pid(), RLIMIT_NOFILE, &lowered, nullptr), 0);
    std::vector<int> clients;
    int32_t status = 0;
    for (int i = 0; i < 40 && status == 0; ++i) {
        int fd = connectLoopback(daemon->port());
        ASSERT_GE(fd, 0);
        clients.push_back(fd);
        int before = openDescriptors(daemon->pid());
        // Accepted (one more descriptor), or left in the backlog once none is left.
        waitFor([&] { return openDescriptors(daemon->pid()) > before; }, 300ms);
        status = ledger.online(provider, "try-" + std::to_string(i));
        EXPECT_TRUE(status == 0 || status == ZEVD_DCH_NOT_SAVED) << status;
    }
    ASSERT_EQ(status, ZEVD_DCH_NOT_SAVED);
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(ledger.online(provider, "none-" + std::to_string(i)), ZEVD_DCH_NOT_SAVED);
        EXPECT_EQ(ledger.offline(provider, "a-" + std::to_string(i)), ZEVD_DCH_NOT_SAVED);
    }
    EXPECT_TRUE(
        daemon->waitTrace("(errno 24, Too many open files): answered 24, nothing "
                          "changed\n"))
        << daemon->trace();
    EXPECT_EQ(ledger.check(provider), 0u);

    // Descriptors back: it saves again.
    for (int fd : clients) close(fd);
    EXPECT_TRUE(waitFor([&] { return openDescriptors(daemon->pid()) <= held; }, 10s));
    EXPECT_EQ(ledger.online(provider, "back"), 0);
    EXPECT_EQ(ledger.offline(provider, "a-6"), 0);
    ASSERT_EQ(prlimit(daemon->pid(), RLIMIT_NOFILE, &limit, nullptr), 0);
    daemon = killAndCheck(std::move(daemon), dir.path(), ledger, provider);
    EXPECT_EQ(exitCode(daemon->stop(SIGTERM)), 0);
}

TEST(DchStateFaultTest, KilledAtRandomMomentsOfOnlineOfflineChurnItKeepsWhatItAnswered) {
    StateDir dir;
    const int kills = reliabilityFull() ? 25 : 3;
    std::mt19937 random(20);
    auto daemon =
        std::make_unique<DaemonProcess>(std::vector<std::string>{"--state-dir", dir.path()});
    ASSERT_TRUE(daemon->start()) << daemon->trace();
    RawProvider provider(daemon->port(), 2000ms);
    Ledger ledger("churn");
    ASSERT_EQ(provider.registerApp("churn").status, 0);
    size_t uncertain = 0;
    for (int kill = 0; kill < kills; ++kill) {
        // One provider turns 30 sources online and offline at random while
        // the daemon is killed at a moment of the random's choice. The
        // request in flight then has no answer: its source is left out of
        // the check until it is online again.
        std::atomic<bool> dead{false};
        std::string inFlight;
        std::thread churn([&, seed = random()] {
            std::mt19937 pick(seed);
            for (int i = 0; i < 100000 && !dead.load(); ++i) {
                std::string source = "s" + std::to_string(pick() % 30);
                inFlight = source;
                int32_t status = ledger.isOpen(source) ? ledger.offline(provider, source)
                                                       : ledger.online(provider, source);
                if (status != 0) break;
            }
        });
        std::this_thread::sleep_for(std::chrono::milliseconds(20 + random() % 400));
        uint16_t port = daemon->port();
        EXPECT_EQ(WTERMSIG(daemon->stop(SIGKILL)), SIGKILL);
        dead = true;
        churn.join();
        daemon = std::make_unique<DaemonProcess>(
            std::vector<std::string>{"--state-dir", dir.path()}, std::vector<std::string>{}, port);
        ASSERT_TRUE(daemon->start()) << daemon->trace();
        ASSERT_EQ(daemon->trace().find("is not usable"), std::string::npos) << daemon->trace();
        // The source of the request in flight may be open or not, under its
        // old handle or a new one: an online settles it either way.
        bool wasOpen = ledger.isOpen(inFlight);
        long read = handlesRead(*daemon);
        EXPECT_TRUE(read == static_cast<long>(ledger.openCount()) ||
                    read == static_cast<long>(ledger.openCount()) + (wasOpen ? -1 : 1))
            << read << " handles read, " << ledger.openCount() << " answered open";
        if (wasOpen) {
            // Its offline may have been written: it is checked as open only
            // once it is online again.
            ++uncertain;
            ASSERT_EQ(ledger.online(provider, inFlight), 0);
        } else {
            ASSERT_EQ(ledger.online(provider, inFlight), 0);
        }
        EXPECT_EQ(ledger.check(provider), 0u);
    }
    printf(
        "churn: %d kills, %zu changes answered 0, %zu sources open at the end, %zu offlines "
        "in flight at a kill\n",
        kills, ledger.answered(0), ledger.openCount(), uncertain);
    EXPECT_EQ(exitCode(daemon->stop(SIGTERM)), 0);
}

}  // namespace
}  // namespace zevd::test
