// The files behind --state-dir, without knowledge of what they hold: sealed
// records (a length and a checksum before each payload) appended to a
// journal and flushed before the caller goes on, the reader that replays
// them up to the first one that does not read whole, and the whole-file
// replacement that writes a snapshot. Every file is opened relative to the
// directory's descriptor, never through a symbolic link.
#ifndef ZEVD_DCH_ZEVDCHD_JOURNAL_H
#define ZEVD_DCH_ZEVDCHD_JOURNAL_H

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

namespace zevd::dch {

// The largest state file read at start: anything larger is refused.
inline constexpr uint64_t kMaxStateFileBytes = 1ULL << 30;
// A record's seal: its payload's length and a CRC-32C of the length word and
// the payload, both big-endian.
inline constexpr size_t kRecordHeader = 8;

// CRC-32C (Castagnoli) of bytes, continued from crc (0 to start).
uint32_t crc32c(uint32_t crc, const void *bytes, size_t length);

// The payload behind its seal, as it is written.
std::string sealRecord(std::string_view payload);

// A state file opened for reading: O_NOFOLLOW and O_NONBLOCK (a FIFO must
// not hold up the start), then checked to be a regular file of at most
// kMaxStateFileBytes. fd is -1 when the file does not exist.
struct StateFile {
    int fd = -1;
    uint64_t size = 0;
};
// Opens name in dirFd into *file. False, with *why saying what is wrong,
// when it is there but is no state file (a link, a FIFO, a directory, too
// large) or cannot be opened; true with file->fd = -1 when it is not there.
bool openStateFile(int dirFd, const char *name, StateFile *file, std::string *why);

// Replays the sealed records of an open journal, in order.
class JournalReader {
public:
    JournalReader(int fd, uint64_t size) : fd_(fd), size_(size) {}

    // The next whole record's payload. False at the end of the file, or at
    // the first record that does not read whole (cut short, its checksum
    // wrong, its length past the end): what follows it is never read.
    bool next(std::string *payload);
    // The bytes of the whole records read so far.
    uint64_t goodLength() const { return good_; }
    // True when reading stopped before the end of the file at a record
    // that does not read whole.
    bool torn() const { return torn_; }
    // True when the record that does not read whole is followed by more
    // bytes: its length word fits in the file and bytes lie beyond it. A
    // crash leaves only a last record cut short; this is damage inside the
    // journal, and what follows may be changes that were answered.
    bool damagedInside() const { return damagedInside_; }
    // The errno of a read that failed (0: none did). Reading stopped there:
    // what follows is unknown, neither whole nor torn.
    int readError() const { return readError_; }

private:
    bool readAt(uint64_t offset, void *to, size_t length);

    int fd_;
    uint64_t size_;
    uint64_t good_ = 0;
    bool torn_ = false;
    bool damagedInside_ = false;
    int readError_ = 0;
};

// Writes content as name in dirFd: a temporary file of a name no other
// writer uses (O_CREAT|O_EXCL|O_NOFOLLOW), written, fsynced, renamed over
// name, then the directory fsynced. 0, or the errno value of the step that
// failed (the temporary file is removed then). *inode, when given, is the
// new file's. *renamed, when given, says whether the rename was made: when
// only the directory's fsync failed, the new file may be on disk or not.
int replaceFile(int dirFd, const std::string &name, std::string_view content,
                ino_t *inode = nullptr, bool *renamed = nullptr);

// Renames name in dirFd to name.bad-TIME (with -N added when that is taken;
// never over another file). True, with *aside the new name, when it could.
bool setAside(int dirFd, const std::string &name, std::string *aside);

// The writer of one journal file.
//
// The journal is opened for each append and closed after it: between
// changes the daemon holds nothing open for writing, so a directory that
// turns read-only, a file put in the journal's place or descriptors that
// run out are met by the next change, which is then refused, never by a
// change that was already answered.
class JournalWriter {
public:
    JournalWriter(int dirFd, std::string name) : dirFd_(dirFd), name_(std::move(name)) {}
    ~JournalWriter();
    JournalWriter(JournalWriter &&other) noexcept;
    JournalWriter &operator=(JournalWriter &&other) noexcept;
    JournalWriter(const JournalWriter &) = delete;
    JournalWriter &operator=(const JournalWriter &) = delete;

    // Goes on with the journal on disk: fd is open on it for reading (the
    // writer keeps it), length the bytes of its whole records (what follows
    // is cut off before this is called).
    void resume(int fd, uint64_t length);
    // Starts a new journal whose first record is header, written whole
    // (replaceFile) in place of the old one. 0 or an errno value; on
    // failure the journal is unusable.
    int create(std::string_view header);
    // Appends one sealed record and flushes it with fdatasync. 0, or the
    // errno value of the step that failed: then a record cut short is cut
    // off again, and the journal is unusable (a new one must be created).
    int append(std::string_view payload);
    // Marks the journal as no longer describing the state: the next change
    // must start a new one.
    void invalidate() { usable_ = false; }
    bool usable() const { return usable_; }
    // Bytes of the journal's whole records.
    uint64_t size() const { return length_; }
    const std::string &name() const { return name_; }

private:
    int dirFd_;
    std::string name_;
    // The journal's file, held open for reading (never for writing): while
    // it is held, its inode number cannot be given to another file, so a
    // file at the journal's name with that number is this one.
    int pinned_ = -1;
    uint64_t length_ = 0;
    bool usable_ = false;
};

}  // namespace zevd::dch

#endif  // ZEVD_DCH_ZEVDCHD_JOURNAL_H
