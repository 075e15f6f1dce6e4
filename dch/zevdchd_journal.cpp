#include "zevdchd_journal.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <random>

namespace zevd::dch {

namespace {

// A record longer than this is taken for a length word that was cut or
// changed, whatever the file's size.
constexpr uint32_t kMaxRecord = 256u << 20;

std::array<uint32_t, 256> makeCrcTable() {
    std::array<uint32_t, 256> table{};
    for (uint32_t i = 0; i < 256; ++i) {
        uint32_t crc = i;
        for (int bit = 0; bit < 8; ++bit) crc = (crc >> 1) ^ ((crc & 1u) != 0 ? 0x82f63b78u : 0u);
        table[i] = crc;
    }
    return table;
}

// Writes all of bytes at the file's offset; 0 or an errno value.
int writeAll(int fd, const char *bytes, size_t length) {
    size_t done = 0;
    while (done < length) {
        ssize_t n = write(fd, bytes + done, length - done);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return errno;
        if (n == 0) return EIO;
        done += static_cast<size_t>(n);
    }
    return 0;
}

// A temporary name no other writer uses: the process, a count and a random
// part (the create is O_EXCL as well, so a name that exists is never used).
std::string temporaryName(const std::string &name) {
    static std::atomic<uint64_t> count{0};
    static const uint64_t salt = [] {
        std::random_device device;
        return (static_cast<uint64_t>(device()) << 32) ^ device();
    }();
    char suffix[80];
    snprintf(suffix, sizeof suffix, ".tmp-%ld-%llu-%016llx", static_cast<long>(getpid()),
             static_cast<unsigned long long>(++count), static_cast<unsigned long long>(salt));
    return name + suffix;
}

}  // namespace

uint32_t crc32c(uint32_t crc, const void *bytes, size_t length) {
    static const std::array<uint32_t, 256> table = makeCrcTable();
    const auto *p = static_cast<const unsigned char *>(bytes);
    crc = ~crc;
    for (size_t i = 0; i < length; ++i) crc = table[(crc ^ p[i]) & 0xffu] ^ (crc >> 8);
    return ~crc;
}

std::string sealRecord(std::string_view payload) {
    std::string record(kRecordHeader, '\0');
    uint32_t length = htonl(static_cast<uint32_t>(payload.size()));
    memcpy(record.data(), &length, sizeof length);
    uint32_t crc = crc32c(0, &length, sizeof length);
    crc = htonl(crc32c(crc, payload.data(), payload.size()));
    memcpy(record.data() + 4, &crc, sizeof crc);
    record.append(payload);
    return record;
}

bool openStateFile(int dirFd, const char *name, StateFile *file, std::string *why) {
    *file = StateFile{};
    int fd = openat(dirFd, name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0 && errno == ENOENT) return true;
    if (fd < 0) {
        *why = errno == ELOOP ? "it is a symbolic link"
                              : std::string("it cannot be opened: ") + strerror(errno);
        return false;
    }
    struct stat info {};
    if (fstat(fd, &info) != 0) {
        *why = std::string("it cannot be examined: ") + strerror(errno);
        close(fd);
        return false;
    }
    if (!S_ISREG(info.st_mode)) {
        *why = S_ISDIR(info.st_mode)    ? "it is a directory, not a regular file"
               : S_ISFIFO(info.st_mode) ? "it is a FIFO, not a regular file"
                                        : "it is not a regular file";
        close(fd);
        return false;
    }
    if (static_cast<uint64_t>(info.st_size) > kMaxStateFileBytes) {
        *why = "it holds " + std::to_string(info.st_size) + " bytes, more than 1 GiB";
        close(fd);
        return false;
    }
    file->fd = fd;
    file->size = static_cast<uint64_t>(info.st_size);
    return true;
}

bool JournalReader::readAt(uint64_t offset, void *to, size_t length) {
    size_t done = 0;
    while (done < length) {
        ssize_t n = pread(fd_, static_cast<char *>(to) + done, length - done,
                          static_cast<off_t>(offset + done));
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) readError_ = errno;
        if (n <= 0) return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

bool JournalReader::next(std::string *payload) {
    if (torn_ || readError_ != 0 || good_ == size_) return false;
    unsigned char header[kRecordHeader];
    uint32_t length = 0, crc = 0;
    bool whole = size_ - good_ >= kRecordHeader && readAt(good_, header, sizeof header);
    if (whole) {
        memcpy(&length, header, 4);
        memcpy(&crc, header + 4, 4);
        length = ntohl(length);
        crc = ntohl(crc);
        whole = length <= kMaxRecord && size_ - good_ - kRecordHeader >= length;
    }
    bool fits = whole;
    if (whole) {
        payload->resize(length);
        whole = readAt(good_ + kRecordHeader, payload->data(), length) &&
                crc32c(crc32c(0, header, 4), payload->data(), length) == crc;
    }
    if (!whole) {
        // A record that could not be read is not known to be torn.
        torn_ = readError_ == 0;
        damagedInside_ = torn_ && fits && size_ - good_ - kRecordHeader > length;
        return false;
    }
    good_ += kRecordHeader + length;
    return true;
}

int replaceFile(int dirFd, const std::string &name, std::string_view content, ino_t *inode,
                bool *renamed) {
    if (renamed != nullptr) *renamed = false;
    std::string temporary;
    int fd = -1;
    for (int attempt = 0; attempt < 100 && fd < 0; ++attempt) {
        temporary = temporaryName(name);
        fd = openat(dirFd, temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                    0600);
        if (fd < 0 && errno != EEXIST) return errno;
    }
    if (fd < 0) return EEXIST;
    int error = writeAll(fd, content.data(), content.size());
    if (error == 0 && fsync(fd) != 0) error = errno;
    struct stat info {};
    if (error == 0 && fstat(fd, &info) != 0) error = errno;
    if (close(fd) != 0 && error == 0) error = errno;
    if (error == 0 && renameat(dirFd, temporary.c_str(), dirFd, name.c_str()) != 0) error = errno;
    if (error != 0) {
        unlinkat(dirFd, temporary.c_str(), 0);
        return error;
    }
    if (renamed != nullptr) *renamed = true;
    // The rename reaches the disk with the directory.
    if (fsync(dirFd) != 0) return errno;
    if (inode != nullptr) *inode = info.st_ino;
    return 0;
}

bool setAside(int dirFd, const std::string &name, std::string *aside) {
    std::string base = name + ".bad-" + std::to_string(time(nullptr));
    for (int n = 1; n <= 1000; ++n) {
        *aside = n == 1 ? base : base + "-" + std::to_string(n);
        if (renameat2(dirFd, name.c_str(), dirFd, aside->c_str(), RENAME_NOREPLACE) == 0) {
            fsync(dirFd);
            return true;
        }
        if (errno != EEXIST) return false;
    }
    return false;
}

JournalWriter::~JournalWriter() {
    if (pinned_ >= 0) close(pinned_);
}

JournalWriter::JournalWriter(JournalWriter &&other) noexcept
    : dirFd_(other.dirFd_),
      name_(std::move(other.name_)),
      pinned_(other.pinned_),
      length_(other.length_),
      usable_(other.usable_) {
    other.pinned_ = -1;
    other.usable_ = false;
}

JournalWriter &JournalWriter::operator=(JournalWriter &&other) noexcept {
    if (this != &other) {
        if (pinned_ >= 0) close(pinned_);
        dirFd_ = other.dirFd_;
        name_ = std::move(other.name_);
        pinned_ = other.pinned_;
        length_ = other.length_;
        usable_ = other.usable_;
        other.pinned_ = -1;
        other.usable_ = false;
    }
    return *this;
}

void JournalWriter::resume(int fd, uint64_t length) {
    if (pinned_ >= 0) close(pinned_);
    pinned_ = fd;
    length_ = length;
    usable_ = fd >= 0;
}

int JournalWriter::create(std::string_view header) {
    resume(-1, 0);  // the old journal is let go, whatever follows
    std::string first = sealRecord(header);
    ino_t inode = 0;
    int error = replaceFile(dirFd_, name_, first, &inode);
    if (error != 0) return error;
    int fd = openat(dirFd_, name_.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) return errno;
    struct stat info {};
    if (fstat(fd, &info) != 0 || info.st_ino != inode) {
        close(fd);
        return ESTALE;  // replaced between the rename and the open
    }
    resume(fd, first.size());
    return 0;
}

int JournalWriter::append(std::string_view payload) {
    if (!usable_) return EINVAL;
    // Whatever fails below, this journal is written no more: the next
    // change starts a new snapshot and journal, which also replace a file
    // put in its place and a tail whose state on disk is unknown.
    usable_ = false;
    int fd = openat(dirFd_, name_.c_str(), O_WRONLY | O_APPEND | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) return errno;
    // Only the file this daemon made is written: another put in its place
    // (even a regular one) ends this journal.
    struct stat info {
    }, own{};
    int error = fstat(fd, &info) != 0 || fstat(pinned_, &own) != 0 ? errno : 0;
    if (error == 0 && (info.st_ino != own.st_ino || info.st_dev != own.st_dev ||
                       !S_ISREG(info.st_mode) || static_cast<uint64_t>(info.st_size) != length_))
        error = ESTALE;
    std::string record;
    if (error == 0) record = sealRecord(payload);
    // Never a journal that the next start would refuse to read.
    if (error == 0 && length_ + record.size() > kMaxStateFileBytes) error = EFBIG;
    if (error == 0) {
        error = writeAll(fd, record.data(), record.size());
        if (error == 0 && fdatasync(fd) != 0) error = errno;
        // A record cut short is cut off again, so that a start before the
        // new journal is made replays the old one to its last whole record
        // (when even that fails, the new journal's generation leaves the
        // old one unread).
        int cut = error != 0 ? ftruncate(fd, static_cast<off_t>(length_)) : 0;
        (void)cut;
    }
    close(fd);
    if (error == 0) {
        length_ += record.size();
        usable_ = true;
    }
    return error;
}

}  // namespace zevd::dch
