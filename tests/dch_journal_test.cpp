// The state directory's files on their own: a sealed record's bytes, the
// reader that stops at the first record that does not read whole, a file
// replaced whole, a file set aside, and the writer that refuses to go on
// with a journal that is not the one it made.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "support/temp_dir.h"
#include "zevdchd_journal.h"

namespace {

namespace fs = std::filesystem;
using namespace zevd::dch;
using zevd::test::readFile;
using zevd::test::TempDir;
using zevd::test::writeFile;

// The payloads a reader gives from bytes, and whether it stopped early.
struct Read {
    std::vector<std::string> payloads;
    bool torn = false;
    uint64_t good = 0;
};
Read readAll(const TempDir &dir, const std::string &bytes) {
    writeFile(dir.file("j"), bytes);
    Read out;
    int fd = open(dir.file("j").c_str(), O_RDONLY | O_CLOEXEC);
    EXPECT_GE(fd, 0);
    JournalReader reader(fd, bytes.size());
    std::string payload;
    for (int i = 0; i < 100 && reader.next(&payload); ++i) out.payloads.push_back(payload);
    out.torn = reader.torn();
    out.good = reader.goodLength();
    close(fd);
    return out;
}

TEST(DchJournalTest, RecordIsSealedWithItsLengthAndCrc32c) {
    // The check value of CRC-32C.
    EXPECT_EQ(crc32c(0, "123456789", 9), 0xe3069283u);
    std::string record = sealRecord("abc");
    ASSERT_EQ(record.size(), kRecordHeader + 3);
    EXPECT_EQ(record.substr(0, 4), std::string("\0\0\0\x03", 4));
    uint32_t crc = crc32c(crc32c(0, "\0\0\0\x03", 4), "abc", 3);
    const unsigned char expected[4] = {
        static_cast<unsigned char>(crc >> 24), static_cast<unsigned char>(crc >> 16),
        static_cast<unsigned char>(crc >> 8), static_cast<unsigned char>(crc)};
    EXPECT_EQ(record.substr(4, 4), std::string(reinterpret_cast<const char *>(expected), 4));
    EXPECT_EQ(record.substr(8), "abc");
    EXPECT_EQ(sealRecord("").size(), kRecordHeader);
}

TEST(DchJournalTest, ReaderStopsAtTheFirstRecordThatDoesNotReadWhole) {
    TempDir dir;
    const std::string a = sealRecord("first"), b = sealRecord("second"), c = sealRecord("");
    Read whole = readAll(dir, a + b + c);
    EXPECT_EQ(whole.payloads, (std::vector<std::string>{"first", "second", ""}));
    EXPECT_FALSE(whole.torn);
    EXPECT_EQ(whole.good, a.size() + b.size() + c.size());

    for (size_t cut = 1; cut < b.size(); ++cut) {
        SCOPED_TRACE(cut);
        Read r = readAll(dir, a + b.substr(0, cut));
        EXPECT_EQ(r.payloads, std::vector<std::string>{"first"});
        EXPECT_TRUE(r.torn);
        EXPECT_EQ(r.good, a.size());
    }
    // A changed byte anywhere in the second record ends the replay there,
    // and what follows is never read.
    for (size_t at = 0; at < b.size(); ++at) {
        SCOPED_TRACE(at);
        std::string changed = b;
        changed[at] = static_cast<char>(changed[at] ^ 0x01);
        Read r = readAll(dir, a + changed + c);
        EXPECT_EQ(r.payloads, std::vector<std::string>{"first"});
        EXPECT_TRUE(r.torn);
    }
    // A length word far past the end, or past the largest record.
    Read huge = readAll(dir, a + std::string("\x7f\xff\xff\xff", 4) + "xxxx");
    EXPECT_EQ(huge.payloads, std::vector<std::string>{"first"});
    EXPECT_TRUE(huge.torn);
    Read empty = readAll(dir, "");
    EXPECT_TRUE(empty.payloads.empty());
    EXPECT_FALSE(empty.torn);
}

TEST(DchJournalTest, FileIsReplacedWholeAndNoTemporaryIsLeft) {
    TempDir dir;
    ino_t inode = 0;
    ASSERT_EQ(replaceFile(dir.fd(), "state", "one", &inode), 0);
    EXPECT_EQ(readFile(dir.file("state")), "one");
    struct stat info {};
    ASSERT_EQ(stat(dir.file("state").c_str(), &info), 0);
    EXPECT_EQ(info.st_ino, inode);
    EXPECT_EQ(info.st_mode & 0777, 0600u);
    ASSERT_EQ(replaceFile(dir.fd(), "state", "two"), 0);
    EXPECT_EQ(readFile(dir.file("state")), "two");
    EXPECT_EQ(dir.names(), std::vector<std::string>{"state"});

    // A link at the name is replaced, its target left as it was.
    TempDir elsewhere;
    writeFile(elsewhere.file("target"), "kept");
    ASSERT_EQ(symlink(elsewhere.file("target").c_str(), dir.file("linked").c_str()), 0);
    ASSERT_EQ(replaceFile(dir.fd(), "linked", "new"), 0);
    EXPECT_EQ(readFile(elsewhere.file("target")), "kept");
    EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(dir.file("linked"))));

    // A rename that fails (a directory in the way) leaves no temporary.
    ASSERT_EQ(mkdir(dir.file("blocked").c_str(), 0700), 0);
    EXPECT_EQ(replaceFile(dir.fd(), "blocked", "x"), EISDIR);
    EXPECT_EQ(dir.names(), (std::vector<std::string>{"blocked", "linked", "state"}));
}

TEST(DchJournalTest, FileSetAsideNeverReplacesOneSetAsideBefore) {
    TempDir dir;
    std::vector<std::string> aside(3);
    for (std::string &name : aside) {
        writeFile(dir.file("state"), "bad " + std::to_string(&name - aside.data()));
        ASSERT_TRUE(setAside(dir.fd(), "state", &name));
        EXPECT_EQ(name.rfind("state.bad-", 0), 0u) << name;
    }
    EXPECT_NE(aside[0], aside[1]);
    EXPECT_NE(aside[1], aside[2]);
    EXPECT_EQ(readFile(dir.file(aside[0])), "bad 0");
    EXPECT_EQ(readFile(dir.file(aside[2])), "bad 2");
    EXPECT_FALSE(fs::exists(dir.file("state")));
    std::string none;
    EXPECT_FALSE(setAside(dir.fd(), "state", &none));
}

TEST(DchJournalTest, WriterAppendsAndStopsAtAJournalThatIsNotItsOwn) {
    TempDir dir;
    JournalWriter writer(dir.fd(), "journal");
    EXPECT_FALSE(writer.usable());
    EXPECT_EQ(writer.append("too early"), EINVAL);
    ASSERT_EQ(writer.create("header"), 0);
    EXPECT_TRUE(writer.usable());
    ASSERT_EQ(writer.append("one"), 0);
    ASSERT_EQ(writer.append("two"), 0);
    EXPECT_EQ(readFile(dir.file("journal")),
              sealRecord("header") + sealRecord("one") + sealRecord("two"));
    EXPECT_EQ(writer.size(), readFile(dir.file("journal")).size());

    // Another file in its place, even a copy of it: not written.
    std::string copy = readFile(dir.file("journal"));
    ASSERT_EQ(unlink(dir.file("journal").c_str()), 0);
    writeFile(dir.file("journal"), copy);
    EXPECT_EQ(writer.append("three"), ESTALE);
    EXPECT_FALSE(writer.usable());
    EXPECT_EQ(readFile(dir.file("journal")), copy);
    // A new journal, then bytes added behind the writer's back: not written.
    ASSERT_EQ(writer.create("again"), 0);
    std::ofstream(dir.file("journal"), std::ios::app) << "x";
    EXPECT_EQ(writer.append("four"), ESTALE);
    // Gone: ENOENT, and unusable until a new one is made.
    ASSERT_EQ(writer.create("again"), 0);
    ASSERT_EQ(unlink(dir.file("journal").c_str()), 0);
    EXPECT_EQ(writer.append("five"), ENOENT);
    EXPECT_EQ(writer.append("six"), EINVAL);
    ASSERT_EQ(writer.create("last"), 0);
    EXPECT_EQ(writer.append("seven"), 0);
    EXPECT_EQ(readFile(dir.file("journal")), sealRecord("last") + sealRecord("seven"));
}

// A journal never grows past what a start reads (1 GiB): the record that
// would pass it is refused and the file left as it was. The file here is
// sparse: its length is all it has of 1 GiB.
TEST(DchJournalTest, RecordThatWouldPassTheLimitOfAStateFileIsRefused) {
    TempDir dir;
    const std::string name = dir.file("journal");
    JournalWriter writer(dir.fd(), "journal");
    const uint64_t full = kMaxStateFileBytes - kRecordHeader - 1;
    writeFile(name, "");
    ASSERT_EQ(truncate(name.c_str(), static_cast<off_t>(full)), 0);
    int fd = open(name.c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    writer.resume(fd, full);
    EXPECT_EQ(writer.append("xy"), EFBIG);
    EXPECT_FALSE(writer.usable());
    EXPECT_EQ(fs::file_size(name), full);
    // One byte less: it ends the file at the limit exactly.
    fd = open(name.c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    writer.resume(fd, full);
    EXPECT_EQ(writer.append("x"), 0);
    EXPECT_EQ(fs::file_size(name), kMaxStateFileBytes);
    EXPECT_EQ(writer.append(""), EFBIG);
    EXPECT_EQ(fs::file_size(name), kMaxStateFileBytes);
}

TEST(DchJournalTest, StateFileIsOpenedOnlyWhenItIsARegularFileWithinItsLimit) {
    TempDir dir;
    StateFile file;
    std::string why;
    ASSERT_TRUE(openStateFile(dir.fd(), "missing", &file, &why));
    EXPECT_EQ(file.fd, -1);
    writeFile(dir.file("plain"), "12345");
    ASSERT_TRUE(openStateFile(dir.fd(), "plain", &file, &why)) << why;
    EXPECT_GE(file.fd, 0);
    EXPECT_EQ(file.size, 5u);
    close(file.fd);
    ASSERT_EQ(mkfifo(dir.file("fifo").c_str(), 0600), 0);
    EXPECT_FALSE(openStateFile(dir.fd(), "fifo", &file, &why));
    EXPECT_EQ(why, "it is a FIFO, not a regular file");
    ASSERT_EQ(symlink(dir.file("plain").c_str(), dir.file("link").c_str()), 0);
    EXPECT_FALSE(openStateFile(dir.fd(), "link", &file, &why));
    EXPECT_EQ(why, "it is a symbolic link");
    ASSERT_EQ(truncate(dir.file("plain").c_str(), static_cast<off_t>(kMaxStateFileBytes)), 0);
    ASSERT_TRUE(openStateFile(dir.fd(), "plain", &file, &why)) << why;  // 1 GiB is allowed
    close(file.fd);
    ASSERT_EQ(truncate(dir.file("plain").c_str(), static_cast<off_t>(kMaxStateFileBytes + 1)), 0);
    EXPECT_FALSE(openStateFile(dir.fd(), "plain", &file, &why));
    EXPECT_EQ(why, "it holds 1073741825 bytes, more than 1 GiB");
}

}  // namespace
