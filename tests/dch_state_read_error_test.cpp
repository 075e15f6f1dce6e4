// The daemon's state directory when a state file is there but a read of it
// fails at the start (an I/O error of the disk): the file is neither torn
// nor bad, so it is not cut, not set aside and not replaced; the start
// fails with a line that names the file, and the next start reads all of
// it. The failure is made here: this program's read and pread fail with
// EIO on one file, from one offset on, when armed.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "support/dch_requests.h"
#include "support/temp_dir.h"
#include "support/trace_capture.h"
#include "zevd610.h"
#include "zevdchd.h"

namespace {

// The file whose reads fail (its inode; 0: none), and from which offset.
std::atomic<ino_t> failingInode{0};
std::atomic<off_t> failingFrom{0};

// True when a read of count bytes at offset of fd reaches the failing part.
bool fails(int fd, off_t offset, size_t count) {
    ino_t inode = failingInode.load();
    if (inode == 0) return false;
    struct stat info {};
    return fstat(fd, &info) == 0 && info.st_ino == inode &&
           offset + static_cast<off_t>(count) > failingFrom.load();
}

}  // namespace

extern "C" ssize_t pread(int fd, void *buffer, size_t count, off_t offset) {
    if (fails(fd, offset, count)) {
        errno = EIO;
        return -1;
    }
    return syscall(SYS_pread64, fd, buffer, count, offset);
}

extern "C" ssize_t read(int fd, void *buffer, size_t count) {
    if (failingInode.load() != 0 && fails(fd, lseek(fd, 0, SEEK_CUR), count)) {
        errno = EIO;
        return -1;
    }
    return syscall(SYS_read, fd, buffer, count);
}

namespace {

namespace fs = std::filesystem;
using zevd::test::TraceCapture;
using namespace zevd::test;

std::string contents(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// Reads of path fail from offset on while it lives.
class FailingReads {
public:
    FailingReads(const std::string &path, off_t offset) {
        struct stat info {};
        EXPECT_EQ(stat(path.c_str(), &info), 0) << path;
        failingFrom.store(offset);
        failingInode.store(info.st_ino);
    }
    ~FailingReads() { failingInode.store(0); }
    FailingReads(const FailingReads &) = delete;
    FailingReads &operator=(const FailingReads &) = delete;
};

// The start on dir fails while the reads fail, naming the file; the files
// are left byte for byte as they were, nothing is set aside, and the next
// start reads every change back.
void expectStartFailsAndLeavesTheFiles(const TempDir &dir, const std::string &file, off_t offset,
                                       const std::string &what, size_t handles) {
    std::string state = contents(dir.file("zevdchd.state"));
    std::string journal = contents(dir.file("zevdchd.journal"));
    {
        FailingReads failing(dir.file(file), offset);
        Daemon d;
        TraceCapture capture("error");
        std::string why;
        EXPECT_FALSE(d.dch.useStateDir(dir.path(), &why));
        EXPECT_EQ(why,
                  what + " " + dir.file(file) + " cannot be read (errno 5, " + strerror(EIO) + ")");
        EXPECT_TRUE(d.dch.applications().empty());
        EXPECT_TRUE(d.dch.handles().empty());
        EXPECT_FALSE(capture.contains("set aside")) << capture.joined();
        EXPECT_FALSE(capture.contains("cut off")) << capture.joined();
    }
    EXPECT_EQ(contents(dir.file("zevdchd.state")), state);
    EXPECT_EQ(contents(dir.file("zevdchd.journal")), journal);
    EXPECT_TRUE(dir.namesStartingWith("zevdchd.state.bad-").empty());
    EXPECT_TRUE(dir.namesStartingWith("zevdchd.journal.bad-").empty());
    // The failed start let go of the directory.
    Daemon next;
    std::string why;
    ASSERT_TRUE(next.dch.useStateDir(dir.path(), &why)) << why;
    EXPECT_EQ(next.dch.handles().size(), handles);
    EXPECT_EQ(next.dch.applications().count("app"), 1u);
}

TEST(DchStateReadErrorTest, JournalThatCannotBeReadAtARecordFailsTheStartAndIsKeptWhole) {
    TempDir dir;
    off_t secondOnline = 0;
    {
        Daemon d;
        std::string why;
        ASSERT_TRUE(d.dch.useStateDir(dir.path(), &why)) << why;
        d.registerApp("app");
        ASSERT_EQ(d.online("app", "grp", "a"), 1);
        secondOnline = static_cast<off_t>(fs::file_size(dir.file("zevdchd.journal")));
        ASSERT_EQ(d.online("app", "grp", "b"), 2);
        ASSERT_EQ(d.online("app", "grp", "c"), 3);
    }
    // Before, the record that did not read was taken for a torn tail: the
    // journal was cut there and two changes answered 0 were lost.
    expectStartFailsAndLeavesTheFiles(dir, "zevdchd.journal", secondOnline + 10, "journal", 3);
}

TEST(DchStateReadErrorTest, JournalWhoseHeaderCannotBeReadFailsTheStartAndIsNotSetAside) {
    TempDir dir;
    {
        Daemon d;
        std::string why;
        ASSERT_TRUE(d.dch.useStateDir(dir.path(), &why)) << why;
        d.registerApp("app");
        ASSERT_EQ(d.online("app", "grp", "a"), 1);
    }
    expectStartFailsAndLeavesTheFiles(dir, "zevdchd.journal", 0, "journal", 1);
}

TEST(DchStateReadErrorTest, SnapshotThatCannotBeReadFailsTheStartAndIsNotSetAside) {
    TempDir dir;
    {
        Daemon d;
        std::string why;
        ASSERT_TRUE(d.dch.useStateDir(dir.path(), &why)) << why;
        // A snapshot of several blocks of the reader (64 KiB each).
        d.registerApp("app");
        for (int i = 0; i < 200; ++i)
            EXPECT_EQ(d.ask(registerRequest("app" + std::to_string(i), std::string(1000, 'h')),
                            kProvider),
                      status(0));
        ASSERT_EQ(d.online("app", "grp", "a"), 1);
        ASSERT_TRUE(d.dch.writeStateSnapshot(&why)) << why;
        ASSERT_EQ(d.online("app", "grp", "b"), 2);
    }
    ASSERT_GT(fs::file_size(dir.file("zevdchd.state")), 3u * 64 * 1024);
    for (off_t offset : {off_t{0}, off_t{64 * 1024}, off_t{2 * 64 * 1024 + 100}}) {
        SCOPED_TRACE(offset);
        expectStartFailsAndLeavesTheFiles(dir, "zevdchd.state", offset, "state file", 2);
    }
}

}  // namespace
