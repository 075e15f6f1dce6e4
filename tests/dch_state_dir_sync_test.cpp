// The daemon's state directory when the fsync of the directory itself
// fails (an I/O error of the disk, say) after a snapshot was renamed into
// place: the new snapshot may be what a restart reads, so no change
// answered 0 may go to the journal it has replaced. The failure is made
// here: this program's fsync fails with EIO for a directory when armed.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <fstream>
#include <string>

#include "support/dch_requests.h"
#include "support/temp_dir.h"
#include "support/trace_capture.h"
#include "zevd610.h"
#include "zevdchd.h"

namespace {

// Directory fsyncs to let through before failing, and how many to fail.
std::atomic<int> directorySyncsToPass{0};
std::atomic<int> directorySyncsToFail{0};

bool isDirectory(int fd) {
    struct stat info {};
    return fstat(fd, &info) == 0 && S_ISDIR(info.st_mode);
}

}  // namespace

extern "C" int fsync(int fd) {
    if (directorySyncsToFail.load() > 0 && isDirectory(fd)) {
        if (directorySyncsToPass.load() > 0) {
            directorySyncsToPass.fetch_sub(1);
        } else {
            directorySyncsToFail.fetch_sub(1);
            errno = EIO;
            return -1;
        }
    }
    return static_cast<int>(syscall(SYS_fsync, fd));
}

namespace {

using zevd::test::TraceCapture;
using namespace zevd::test;

void use(Daemon &d, const TempDir &dir) {
    std::string why;
    ASSERT_TRUE(d.dch.useStateDir(dir.path(), &why)) << why;
}

// The generation line of the snapshot on disk.
std::string generationOf(const TempDir &dir) {
    std::ifstream in(dir.file("zevdchd.state"));
    std::string line;
    while (std::getline(in, line))
        if (line.rfind("generation ", 0) == 0) return line;
    return "";
}

// Registers app again and again (each one a journal record) until a new
// snapshot is on disk; false if none came within a bounded number.
bool churnUntilASnapshot(Daemon &d, const TempDir &dir) {
    std::string before = generationOf(dir);
    for (int i = 0; i < 20000; ++i) {
        if (d.ask(registerRequest("app", "help " + std::to_string(i % 2)), kProvider) != status(0))
            return false;
        if (generationOf(dir) != before) return true;
    }
    return false;
}

// Fails the n-th directory fsync from now (1 = the next one) once.
void failDirectorySync(int n) {
    directorySyncsToPass = n - 1;
    directorySyncsToFail = 1;
}

// On a daemon of its own over dir, with handle 1 online, makes the n-th
// directory fsync of the next snapshot fail, then brings a source online
// (answered 0) and, with offlineAfter, takes handle 1 offline (answered 0):
// the new source's handle, which must outlive the daemon.
int32_t onlineAfterAFailedSnapshot(const TempDir &dir, int n, bool offlineAfter) {
    Daemon d;
    use(d, dir);
    d.registerApp("app");
    EXPECT_EQ(d.online("app", "grp", "before"), 1);
    TraceCapture capture("error");
    failDirectorySync(n);
    EXPECT_TRUE(churnUntilASnapshot(d, dir));
    EXPECT_EQ(directorySyncsToFail.load(), 0);
    EXPECT_TRUE(capture.hasText("Error: a new snapshot could not be written in " + dir.path() +
                                " (errno 5, Input/output error): the next change writes a new "
                                "snapshot first\n"))
        << capture.joined();
    EXPECT_FALSE(capture.contains("the journal goes on")) << capture.joined();
    int32_t after = d.online("app", "grp", "after");
    EXPECT_GT(after, 1);
    if (offlineAfter) {
        EXPECT_EQ(d.ask(offlineRequest(1), kProvider), status(0));
    }
    return after;
}

// The first directory fsync of the snapshot written after the churn: the
// snapshot's own, after its rename.
TEST(DchStateDirSyncTest, SnapshotWhoseDirectorySyncFailsTakesNoMoreRecordsInTheOldJournal) {
    TempDir dir;
    int32_t after = onlineAfterAFailedSnapshot(dir, 1, true);
    Daemon next;
    TraceCapture capture("error");
    use(next, dir);
    EXPECT_FALSE(capture.contains("not replayed")) << capture.joined();
    EXPECT_EQ(next.dch.handles().count(after), 1u) << capture.joined();
    EXPECT_EQ(next.dch.handles().count(1), 0u);
}

// The second: the new journal's, after the snapshot was made sure of.
TEST(DchStateDirSyncTest, JournalThatCannotFollowANewSnapshotIsNotSaidToGoOn) {
    TempDir dir;
    int32_t after = onlineAfterAFailedSnapshot(dir, 2, false);
    Daemon next;
    use(next, dir);
    EXPECT_EQ(next.dch.handles().count(after), 1u);
    EXPECT_EQ(next.dch.handles().count(1), 1u);
}

}  // namespace
