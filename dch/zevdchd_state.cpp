// --state-dir: a snapshot of the catalogue and the open handles, and a
// journal of the providers' changes since, each written and flushed before
// the change is answered. At start the snapshot is read, then the journal
// replayed up to its first record that does not read whole (a torn tail was
// never answered; anything else is kept aside whole), and a file that
// cannot be read fails the start. When the journal outgrows the snapshot,
// a new snapshot is written and an empty journal started, so a change
// costs one record whatever the catalogue's size.
//
// The snapshot, one text file:
//
//   zevdchd-state 3
//   generation G
//   next-handle N
//   appl NAME HELP HOST PORT
//   group NAME HELP
//   attr NAME TYPE SIZE HELP
//   handle ID APPL GROUP SOURCE HOST PORT
//   end RECORDS SUM
//
// SUM is the 64-bit FNV-1a hash of every byte before the end line, in 16
// hexadecimal digits: a file whose bytes were changed is not trusted even
// when it still parses. (Version 2, without the generation line, reads as
// generation 0.)
//
// The journal's first record is "zevdchd-journal 1 generation G": its
// records follow the snapshot of that generation, and a journal of an older
// one (left by a crash between the two renames) is not replayed. Then one
// record per change, of lines in the snapshot's form:
//
//   register:   appl, group and attr lines (the catalogue is replaced)
//   online:     online ID APPL GROUP SOURCE HOST PORT NEXT-HANDLE
//   offline:    offline ID            (one line per handle closed together)
//   unregister: unregister APPL
//
// Every text is written as '=' followed by its bytes, with '%', blanks,
// control characters and bytes above 0x7e as %XX: a word never holds a
// blank, and the empty text is "=".
#include "zevdchd_state.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sstream>
#include <string_view>
#include <thread>

#include "common/trace.h"

namespace zevd::dch {

ZEVD_TRACE_UNIT(dch::unitZevdchd);

namespace {

constexpr const char *kStateHeader = "zevdchd-state 3";
constexpr const char *kOldStateHeader = "zevdchd-state 2";
constexpr const char *kJournalHeader = "zevdchd-journal 1 generation ";
// A snapshot line longer than this is not one the daemon wrote.
constexpr size_t kMaxLine = 1 << 20;

// 64-bit FNV-1a, continued from sum over text.
uint64_t fnv1a(uint64_t sum, const std::string &text) {
    for (unsigned char c : text) {
        sum ^= c;
        sum *= 0x100000001b3ULL;
    }
    return sum;
}
constexpr uint64_t kFnvStart = 0xcbf29ce484222325ULL;

std::string sumText(uint64_t sum) {
    char text[17];
    snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(sum));
    return text;
}

std::string encode(std::string_view text) {
    std::string out = "=";
    char hex[4];
    for (unsigned char c : text) {
        if (c <= ' ' || c == '%' || c > 0x7e) {
            snprintf(hex, sizeof hex, "%%%02X", c);
            out += hex;
        } else {
            out += static_cast<char>(c);
        }
    }
    return out;
}

int hexValue(char c) {
    return c <= '9' ? c - '0' : (c | 0x20) - 'a' + 10;
}

bool decode(const std::string &word, std::string &out) {
    if (word.empty() || word[0] != '=') return false;
    out.clear();
    for (size_t i = 1; i < word.size(); ++i) {
        if (word[i] != '%') {
            out += word[i];
            continue;
        }
        if (i + 2 >= word.size() || !isxdigit(static_cast<unsigned char>(word[i + 1])) ||
            !isxdigit(static_cast<unsigned char>(word[i + 2])))
            return false;
        out += static_cast<char>(hexValue(word[i + 1]) * 16 + hexValue(word[i + 2]));
        i += 2;
    }
    return true;
}

std::string encodePeer(const Peer &peer) {
    return peer.host() + " " + std::to_string(peer.port());
}

bool decodePeer(std::istringstream &in, Peer &peer) {
    std::string host;
    int port = -1;
    if (!(in >> host >> port) || port < 0 || port > 65535) return false;
    peer.addr.sin_family = AF_INET;
    peer.addr.sin_port = htons(static_cast<uint16_t>(port));
    peer.fd = 0;  // a connection does not outlive the daemon
    return inet_pton(AF_INET, host.c_str(), &peer.addr.sin_addr) == 1;
}

bool nothingMore(std::istringstream &in) {
    std::string rest;
    return !(in >> rest);
}

std::string applicationLines(const Application &a) {
    std::string out =
        "appl " + encode(a.name) + ' ' + encode(a.help) + ' ' + encodePeer(a.registeredBy) + '\n';
    for (Group g : a.groups()) {
        out += "group " + encode(g.name()) + ' ' + encode(g.help()) + '\n';
        for (Attribute at : g.attributes())
            out += "attr " + encode(at.name) + ' ' + at.type + ' ' + std::to_string(at.size) + ' ' +
                   encode(at.help) + '\n';
    }
    return out;
}

std::string handleWords(const OpenHandle &h) {
    return std::to_string(h.id) + ' ' + encode(h.appl) + ' ' + encode(h.group) + ' ' +
           encode(h.source) + ' ' + encodePeer(h.provider);
}

std::string errnoText(int error) {
    return "errno " + std::to_string(error) + ", " + strerror(error);
}

// Lines of at most kMaxLine bytes from a file, read a block at a time: a
// file of any size costs one block and one line of memory.
class LineReader {
public:
    explicit LineReader(int fd) : fd_(fd), block_(64 * 1024) {}

    // The next line without its newline. False at the end of the file, or
    // with *tooLong set at a line longer than kMaxLine. A read that fails
    // ends the file too, and error() says so.
    bool next(std::string &line, bool *tooLong) {
        line.clear();
        for (;;) {
            if (start_ == end_) {
                if (ended_) return !line.empty();
                ssize_t n = read(fd_, block_.data(), block_.size());
                if (n < 0 && errno == EINTR) continue;
                if (n < 0) error_ = errno;
                if (n <= 0) {
                    ended_ = true;
                    continue;
                }
                start_ = 0;
                end_ = static_cast<size_t>(n);
            }
            const char *from = block_.data() + start_;
            const char *newline = static_cast<const char *>(memchr(from, '\n', end_ - start_));
            size_t take = newline != nullptr ? static_cast<size_t>(newline - from) : end_ - start_;
            if (line.size() + take > kMaxLine) {
                *tooLong = true;
                return false;
            }
            line.append(from, take);
            start_ += take;
            if (newline != nullptr) {
                ++start_;
                return true;
            }
        }
    }

    // The errno of the read that failed, 0 while none did.
    int error() const { return error_; }

private:
    int fd_;
    std::vector<char> block_;
    size_t start_ = 0;
    size_t end_ = 0;
    bool ended_ = false;
    int error_ = 0;
};

// The pid written in a lock file, or "unknown". The holder writes it just
// after it takes the lock: a read of nothing is tried again, a bounded
// number of times.
std::string lockHolder(int fd) {
    for (int attempt = 0; attempt < 100; ++attempt) {
        char text[32] = {};
        ssize_t n = pread(fd, text, sizeof text - 1, 0);
        long pid = n > 0 ? strtol(text, nullptr, 10) : 0;
        if (pid > 0) return std::to_string(pid);
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return "unknown";
}

// Removes the temporary files a daemon that ended while it wrote a snapshot
// or journal left in dirFd (they are never read). Only the lock's holder
// calls it, so none of them is being written.
void removeLeftovers(int dirFd, const std::string &dir) {
    ZEVD_TRACE_FUNCTION("removeLeftovers");
    int listFd = openat(dirFd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    DIR *list = listFd >= 0 ? fdopendir(listFd) : nullptr;
    if (list == nullptr) {
        if (listFd >= 0) close(listFd);
        return trc.exit();
    }
    const std::string prefixes[] = {std::string(kStateFile) + ".tmp-",
                                    std::string(kJournalFile) + ".tmp-"};
    for (dirent *entry = readdir(list); entry != nullptr; entry = readdir(list)) {
        std::string name = entry->d_name;
        for (const std::string &prefix : prefixes) {
            if (name.rfind(prefix, 0) != 0) continue;
            if (unlinkat(dirFd, name.c_str(), 0) == 0)
                ZEVD_TRACE(trc, TRACE_ERROR, "Note: removed %s/%s, left by an earlier daemon\n",
                           dir.c_str(), name.c_str());
        }
    }
    closedir(list);
    trc.exit();
}

}  // namespace

std::string registerRecord(const Application &application) {
    return applicationLines(application);
}

std::string onlineRecord(const OpenHandle &handle, int32_t nextHandle) {
    return "online " + handleWords(handle) + ' ' + std::to_string(nextHandle) + '\n';
}

std::string offlineRecord(int32_t handle) {
    return "offline " + std::to_string(handle) + '\n';
}

std::string unregisterRecord(const std::string &appl) {
    return "unregister " + encode(appl) + '\n';
}

StateStore::~StateStore() {
    if (lockFd >= 0) close(lockFd);  // the lock goes with it
    if (dirFd >= 0) close(dirFd);
}

Dch::~Dch() = default;

std::string Dch::sourceKey(const std::string &appl, const std::string &group,
                           const std::string &source) {
    std::string key;
    key.reserve(appl.size() + group.size() + source.size() + 2);
    key.append(appl).append(1, '\0').append(group).append(1, '\0').append(source);
    return key;
}

void Dch::putHandle(OpenHandle handle) {
    auto old = handles_.find(handle.id);
    if (old != handles_.end()) {
        auto indexed =
            bySource_.find(sourceKey(old->second.appl, old->second.group, old->second.source));
        if (indexed != bySource_.end() && indexed->second == handle.id) bySource_.erase(indexed);
    }
    bySource_[sourceKey(handle.appl, handle.group, handle.source)] = handle.id;
    int32_t id = handle.id;
    handles_[id] = std::move(handle);
}

bool Dch::useStateDir(const std::string &dir, std::string *why) {
    ZEVD_TRACE_FUNCTION("Dch::useStateDir");
    struct stat info {};
    if (stat(dir.c_str(), &info) != 0) {
        *why = "state directory " + dir +
               (errno == ENOENT ? std::string(" does not exist")
                                : " cannot be used (" + errnoText(errno) + ")");
        return trc.exit(false);
    }
    if (!S_ISDIR(info.st_mode)) {
        *why = "state directory " + dir + " is not a directory";
        return trc.exit(false);
    }
    if (access(dir.c_str(), W_OK | X_OK) != 0) {
        *why = "state directory " + dir + " is not writable (" + errnoText(errno) + ")";
        return trc.exit(false);
    }
    auto state = std::make_unique<StateStore>(dir);
    state->dirFd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (state->dirFd < 0) {
        *why = "state directory " + dir + " cannot be opened (" + errnoText(errno) + ")";
        return trc.exit(false);
    }
    state->journal = JournalWriter(state->dirFd, kJournalFile);

    // One daemon per directory. The lock file is held open for reading
    // only: the daemon keeps nothing open for writing between changes.
    state->lockFd = openat(state->dirFd, kLockFile,
                           O_RDONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600);
    if (state->lockFd < 0 || fstat(state->lockFd, &info) != 0 || !S_ISREG(info.st_mode)) {
        *why = "lock file " + state->path(kLockFile) + " is not usable (" +
               (state->lockFd < 0 && errno == ELOOP ? std::string("it is a symbolic link")
                : state->lockFd < 0                 ? errnoText(errno)
                                                    : std::string("it is not a regular file")) +
               ")";
        return trc.exit(false);
    }
    if (flock(state->lockFd, LOCK_EX | LOCK_NB) != 0) {
        *why = errno == EWOULDBLOCK
                   ? "state directory " + dir + " is in use (pid " + lockHolder(state->lockFd) + ")"
                   : "state directory " + dir + " cannot be locked (" + errnoText(errno) + ")";
        return trc.exit(false);
    }
    int pidFd = openat(state->dirFd, kLockFile, O_WRONLY | O_TRUNC | O_NOFOLLOW | O_CLOEXEC);
    std::string pid = std::to_string(getpid()) + "\n";
    if (pidFd < 0 || write(pidFd, pid.data(), pid.size()) != static_cast<ssize_t>(pid.size()))
        ZEVD_TRACE(trc, TRACE_ERROR, "Error: the pid could not be written to %s: %s\n",
                   state->path(kLockFile).c_str(), errnoText(errno).c_str());
    if (pidFd >= 0) close(pidFd);

    removeLeftovers(state->dirFd, dir);

    // Both files are checked before either is read: a start that ends
    // leaves them as they were.
    StateFile snapshot, journal;
    if (!openStateFile(state->dirFd, kStateFile, &snapshot, why)) {
        *why = "state file " + state->path(kStateFile) + " is not usable: " + *why;
        return trc.exit(false);
    }
    if (!openStateFile(state->dirFd, kJournalFile, &journal, why)) {
        if (snapshot.fd >= 0) close(snapshot.fd);
        *why = "journal " + state->path(kJournalFile) + " is not usable: " + *why;
        return trc.exit(false);
    }
    state_ = std::move(state);
    StateStore &s = *state_;

    // A file that is there but cannot be read now (an I/O error) is neither
    // torn nor bad: setting it aside or cutting it would lose changes that
    // were answered 0. The start fails instead, leaving both files as they
    // are for the next one.
    auto cannotRead = [&](const char *what, const char *file, int error) {
        *why = what + s.path(file) + " cannot be read (" + errnoText(error) + ")";
        if (journal.fd >= 0) close(journal.fd);
        applications_.clear();
        handles_.clear();
        bySource_.clear();
        nextHandle_ = 1;
        state_.reset();
        return trc.exit(false);
    };
    StateLoad load;
    std::string bad;
    bool snapshotRead = snapshot.fd < 0 || readSnapshot(snapshot.fd, load, &bad);
    if (snapshot.fd >= 0) close(snapshot.fd);
    if (!snapshotRead && load.readError != 0)
        return cannotRead("state file ", kStateFile, load.readError);
    if (snapshotRead) {
        s.generation = load.generation;
        s.snapshotBytes = snapshot.size;
    } else {
        applications_.clear();
        handles_.clear();
        bySource_.clear();
        nextHandle_ = 1;
        std::string aside;
        bool setOff = setAside(s.dirFd, kStateFile, &aside);
        ZEVD_TRACE(trc, TRACE_ERROR,
                   "Error: state file %s is not usable (%s); %s, starting empty\n",
                   s.path(kStateFile).c_str(), bad.c_str(),
                   setOff ? ("set aside as " + s.path(aside.c_str())).c_str()
                          : "it could not be set aside");
        // Its journal's records follow that snapshot: they go with it.
        if (journal.fd >= 0 && setAside(s.dirFd, kJournalFile, &aside))
            ZEVD_TRACE(trc, TRACE_ERROR, "Note: journal %s set aside as %s with its snapshot\n",
                       s.path(kJournalFile).c_str(), s.path(aside.c_str()).c_str());
    }
    size_t replayed = 0;
    bool journalFound = journal.fd >= 0;
    if (snapshotRead && journal.fd >= 0) {
        JournalReader reader(journal.fd, journal.size);
        std::string payload;
        uint64_t journalGeneration = 0;
        bool headed = reader.next(&payload) && payload.rfind(kJournalHeader, 0) == 0;
        if (headed) {
            char *end = nullptr;
            journalGeneration = strtoull(payload.c_str() + strlen(kJournalHeader), &end, 10);
            headed = *end == '\0';
        }
        if (reader.readError() != 0)
            return cannotRead("journal ", kJournalFile, reader.readError());
        // A journal that does not read is kept for whoever looks into it:
        // the next change starts a new one.
        auto setJournalAside = [&] {
            std::string aside;
            if (setAside(s.dirFd, kJournalFile, &aside))
                ZEVD_TRACE(trc, TRACE_ERROR, "Note: journal %s set aside as %s\n",
                           s.path(kJournalFile).c_str(), s.path(aside.c_str()).c_str());
        };
        if (!headed) {
            ZEVD_TRACE(trc, TRACE_ERROR,
                       "Error: journal %s does not start with its header: not replayed\n",
                       s.path(kJournalFile).c_str());
            setJournalAside();
        } else if (journalGeneration != s.generation) {
            // A crash between the snapshot's rename and the journal's: the
            // snapshot holds all of it already.
            ZEVD_TRACE(trc, TRACE_ERROR,
                       "Note: journal %s follows snapshot %llu, not %llu: not replayed\n",
                       s.path(kJournalFile).c_str(),
                       static_cast<unsigned long long>(journalGeneration),
                       static_cast<unsigned long long>(s.generation));
        } else {
            load = StateLoad{};
            load.journal = true;
            bool whole = true;
            while (whole && reader.next(&payload)) {
                std::istringstream lines(payload);
                std::string line;
                load.application = nullptr;
                load.inGroup = false;
                while (whole && std::getline(lines, line)) whole = applyStateLine(line, load, &bad);
                if (whole) ++replayed;
            }
            if (reader.readError() != 0)
                return cannotRead("journal ", kJournalFile, reader.readError());
            if (!whole) {
                // A sealed record that does not apply was not written by
                // this daemon: replay ends there, and the next change
                // starts a new snapshot and journal.
                ZEVD_TRACE(trc, TRACE_ERROR,
                           "Error: journal %s: record %u does not apply (%s): replay ends there\n",
                           s.path(kJournalFile).c_str(), static_cast<unsigned>(replayed + 1),
                           bad.c_str());
                setJournalAside();
            } else if (reader.damagedInside()) {
                // A crash cuts short only the last record: more behind the
                // one that does not read is damage, and may hold changes
                // that were answered. Kept whole for whoever looks into it;
                // the next change starts a new snapshot and journal.
                ZEVD_TRACE(trc, TRACE_ERROR,
                           "Error: journal %s: record %u does not read whole and is not the "
                           "last: replay ends there\n",
                           s.path(kJournalFile).c_str(), static_cast<unsigned>(replayed + 1));
                setJournalAside();
            } else {
                uint64_t good = reader.goodLength();
                bool kept = true;
                if (reader.torn()) {
                    // The tail that does not read was never answered; it is
                    // cut off so that the next record follows the last whole one.
                    int fd = openat(s.dirFd, kJournalFile, O_WRONLY | O_NOFOLLOW | O_CLOEXEC);
                    kept = fd >= 0 && ftruncate(fd, static_cast<off_t>(good)) == 0 &&
                           fdatasync(fd) == 0;
                    if (fd >= 0) close(fd);
                    ZEVD_TRACE(trc, TRACE_ERROR,
                               "Note: journal %s ends in %llu bytes that do not read as a "
                               "record: %s\n",
                               s.path(kJournalFile).c_str(),
                               static_cast<unsigned long long>(journal.size - good),
                               kept ? "cut off" : "they could not be cut off");
                }
                if (kept) {
                    s.journal.resume(journal.fd, good);
                    journal.fd = -1;  // the writer holds it now
                }
            }
        }
    }
    if (journal.fd >= 0) close(journal.fd);
    auto now = std::chrono::steady_clock::now();
    for (auto &[id, handle] : handles_) handle.lastActive = now;
    // Read entry by entry, the catalogues give back what they grew by.
    for (auto &[name, application] : applications_) application.compact();
    s.snapshotAt = s.journal.size() + std::max(s.snapshotBytes, kMinJournalForSnapshot);
    if (snapshotRead && (snapshot.fd >= 0 || journalFound))
        ZEVD_TRACE(trc, TRACE_ERROR,
                   "Note: state read from %s: %u applications, %u handles (%u journal records)\n",
                   dir.c_str(), static_cast<unsigned>(applications_.size()),
                   static_cast<unsigned>(handles_.size()), static_cast<unsigned>(replayed));
    else
        ZEVD_TRACE(trc, TRACE_DETAIL, "no state in %s: starting empty\n", dir.c_str());
    updateGauges();
    return trc.exit(true);
}

bool Dch::readSnapshot(int fd, StateLoad &load, std::string *why) {
    LineReader in(fd);
    std::string line;
    bool tooLong = false;
    bool ended = false;
    auto fail = [&](const char *what) {
        *why = std::string(what) + " at line " + std::to_string(load.line);
        // What a failed read cut short says nothing of the file.
        load.readError = in.error();
        return false;
    };
    if (!in.next(line, &tooLong) || (line != kStateHeader && line != kOldStateHeader))
        return fail("no header");
    bool old = line == kOldStateHeader;
    load.line = 1;
    uint64_t sum = fnv1a(kFnvStart, line + "\n");
    while (in.next(line, &tooLong)) {
        ++load.line;
        if (ended) return fail("text after the end");
        uint64_t sumBefore = sum;
        sum = fnv1a(sum, line + "\n");
        if (line.rfind("end ", 0) == 0) {
            std::istringstream words(line.substr(4));
            size_t count = 0;
            std::string written;
            if (!(words >> count >> written) || !nothingMore(words) || count != load.records)
                return fail("an end that does not count the records");
            if (written != sumText(sumBefore)) return fail("a sum that does not match");
            ended = true;
            continue;
        }
        if (load.line == 2 && !old) {
            std::istringstream words(line);
            std::string kind;
            if (!(words >> kind >> load.generation) || kind != "generation" || !nothingMore(words))
                return fail("a bad generation");
            ++load.records;
            continue;
        }
        std::string what;
        if (!applyStateLine(line, load, &what)) return fail(what.c_str());
        ++load.records;
    }
    if (in.error() != 0) return fail("a read that failed");
    if (tooLong) return fail("a line longer than 1 MiB");
    if (!ended) return fail("no end (the file is cut short)");
    return true;
}

bool Dch::applyStateLine(const std::string &line, StateLoad &load, std::string *why) {
    std::istringstream in(line);
    std::string kind;
    in >> kind;
    auto fail = [&](const char *what) {
        *why = what;
        return false;
    };
    // Groups and attributes follow their application's line directly: any
    // other line ends the application they belong to (an unregister may
    // even have erased it).
    if (kind != "group" && kind != "attr") {
        load.application = nullptr;
        load.inGroup = false;
    }
    if (kind == "next-handle" && !load.journal) {
        if (!(in >> nextHandle_) || nextHandle_ <= 0 || !nothingMore(in))
            return fail("a bad next-handle");
    } else if (kind == "appl") {
        std::string name, help;
        Application a;
        if (!(in >> name >> help) || !decode(name, a.name) || !decode(help, a.help) ||
            !decodePeer(in, a.registeredBy) || !nothingMore(in) || a.name.empty())
            return fail("a bad appl");
        bool known = applications_.count(a.name) != 0;
        // A snapshot names each application once; a journal registers again.
        if ((known && !load.journal) || (!known && applications_.size() >= kMaxApplications))
            return fail("a bad appl");
        load.application = &(applications_[a.name] = std::move(a));
        load.inGroup = false;
    } else if (kind == "group") {
        std::string name, help, groupName, groupHelp;
        if (load.application == nullptr || !(in >> name >> help) || !decode(name, groupName) ||
            !decode(help, groupHelp) || !nothingMore(in) || groupName.empty() ||
            load.application->addGroup(groupName, groupHelp) != Catalogue::kAdded)
            return fail("a bad group");
        load.inGroup = true;
    } else if (kind == "attr") {
        std::string name, type, help, attrName, attrHelp;
        int32_t size = 0;
        if (!load.inGroup || !(in >> name >> type >> size >> help) || !decode(name, attrName) ||
            !decode(help, attrHelp) || type.size() != 1 || type[0] < 'A' || type[0] > 'Z' ||
            size < 1 || size > 4096 || !nothingMore(in) || attrName.empty() ||
            load.application->addAttribute(attrName, type[0], size, attrHelp) != Catalogue::kAdded)
            return fail("a bad attr");
    } else if (kind == "handle" || (kind == "online" && load.journal)) {
        std::string appl, groupName, source;
        OpenHandle h;
        int32_t next = 0;
        bool online = kind == "online";
        if (!(in >> h.id >> appl >> groupName >> source) || h.id <= 0 || !decode(appl, h.appl) ||
            !decode(groupName, h.group) || !decode(source, h.source) ||
            !decodePeer(in, h.provider) || (online && (!(in >> next) || next <= 0)) ||
            !nothingMore(in))
            return fail(online ? "a bad online" : "a bad handle");
        bool known = handles_.count(h.id) != 0;
        if ((known && !online) || (!known && handles_.size() >= kMaxHandles))
            return fail(online ? "a bad online" : "a bad handle");
        if (online) {
            // Online again: the handle keeps its latest values.
            auto it = handles_.find(h.id);
            if (it != handles_.end()) {
                h.latest = std::move(it->second.latest);
                h.latestCharge = std::exchange(it->second.latestCharge, 0);
            }
            nextHandle_ = next;
        }
        putHandle(std::move(h));
    } else if (kind == "offline" && load.journal) {
        int32_t id = 0;
        if (!(in >> id) || !nothingMore(in)) return fail("a bad offline");
        auto it = handles_.find(id);
        if (it != handles_.end()) {
            auto indexed =
                bySource_.find(sourceKey(it->second.appl, it->second.group, it->second.source));
            if (indexed != bySource_.end() && indexed->second == id) bySource_.erase(indexed);
            handles_.erase(it);
        }
    } else if (kind == "unregister" && load.journal) {
        std::string word, appl;
        if (!(in >> word) || !decode(word, appl) || !nothingMore(in))
            return fail("a bad unregister");
        for (auto it = handles_.begin(); it != handles_.end();) {
            if (it->second.appl == appl) {
                bySource_.erase(sourceKey(it->second.appl, it->second.group, it->second.source));
                it = handles_.erase(it);
            } else {
                ++it;
            }
        }
        applications_.erase(appl);
    } else {
        return fail("an unknown record");
    }
    return true;
}

std::string Dch::snapshotText(uint64_t generation) const {
    std::string text = std::string(kStateHeader) + "\ngeneration " + std::to_string(generation) +
                       "\nnext-handle " + std::to_string(nextHandle_) + '\n';
    size_t records = 2;
    for (const auto &[name, a] : applications_) {
        text += applicationLines(a);
        records += 1 + a.groupCount() + a.attributeCount();
    }
    for (const auto &[id, h] : handles_) {
        text += "handle " + handleWords(h) + '\n';
        ++records;
    }
    text += "end " + std::to_string(records) + " " + sumText(fnv1a(kFnvStart, text)) + "\n";
    return text;
}

int Dch::writeSnapshot() {
    StateStore &s = *state_;
    uint64_t generation = s.generation + 1;
    std::string text = snapshotText(generation);
    // Never a snapshot that the next start would refuse to read.
    if (text.size() > kMaxStateFileBytes) return EFBIG;
    bool renamed = false;
    int error = replaceFile(s.dirFd, kStateFile, text, nullptr, &renamed);
    if (!renamed) return error;
    // From here the old journal is behind the snapshot: until a new one is
    // made, no record goes to it. That holds too when only the directory's
    // fsync failed: the new snapshot may be what a restart reads, and it
    // would not replay a record of the old journal.
    s.generation = generation;
    s.snapshotBytes = text.size();
    if (error != 0) {
        s.journal.invalidate();
        return error;
    }
    error = s.journal.create(kJournalHeader + std::to_string(generation));
    if (error != 0) return error;
    s.snapshotAt = s.journal.size() + std::max(s.snapshotBytes, kMinJournalForSnapshot);
    return 0;
}

bool Dch::writeStateSnapshot(std::string *why) {
    ZEVD_TRACE_FUNCTION("Dch::writeStateSnapshot");
    if (!state_) return trc.exit(true);
    int error = writeSnapshot();
    if (error == 0) return trc.exit(true);
    *why = "a snapshot could not be written in " + state_->dir + " (" + errnoText(error) + ")";
    return trc.exit(false);
}

bool Dch::saveChange(const std::function<std::string()> &makeRecord, const Request *request) {
    ZEVD_TRACE_FUNCTION("Dch::saveChange");
    if (!state_) return trc.exit(true);
    std::string record = makeRecord();
    // Answers held for earlier requests do not wait for this one's flush.
    flushAnswers();
    StateStore &s = *state_;
    bool fresh = !s.journal.usable();
    int error = fresh ? writeSnapshot() : 0;
    if (error == 0) error = s.journal.append(record);
    if (error == 0) return trc.exit(true);
    if (request != nullptr) {
        ZEVD_TRACE(trc, TRACE_ERROR,
                   "Error: %s from %s port %d not saved in %s (%s): answered %d, nothing changed\n",
                   current_ != nullptr ? current_->name : "a change", request->from.host().c_str(),
                   request->from.port(), s.dir.c_str(), errnoText(error).c_str(), kNotSaved);
        return trc.exit(false);
    }
    ZEVD_TRACE(trc, TRACE_ERROR,
               "Error: a change no request waits for was not saved in %s (%s): the next change "
               "writes a new snapshot first\n",
               s.dir.c_str(), errnoText(error).c_str());
    s.journal.invalidate();
    return trc.exit(false);
}

void Dch::savedChange() {
    ZEVD_TRACE_FUNCTION("Dch::savedChange");
    if (!state_ || !state_->journal.usable() || state_->journal.size() < state_->snapshotAt)
        return trc.exit();
    StateStore &s = *state_;
    uint64_t journalBytes = s.journal.size();
    int error = writeSnapshot();
    if (error == 0) {
        ZEVD_TRACE(trc, TRACE_DETAIL, "snapshot %llu of %llu bytes after a journal of %llu\n",
                   static_cast<unsigned long long>(s.generation),
                   static_cast<unsigned long long>(s.snapshotBytes),
                   static_cast<unsigned long long>(journalBytes));
        return trc.exit();
    }
    if (!s.journal.usable()) {
        // The snapshot was put in place but not all of it was made sure of
        // (or no new journal could follow it): the next change starts again
        // with a snapshot and a journal of their own.
        ZEVD_TRACE(trc, TRACE_ERROR,
                   "Error: a new snapshot could not be written in %s (%s): the next change "
                   "writes a new snapshot first\n",
                   s.dir.c_str(), errnoText(error).c_str());
        return trc.exit();
    }
    // The journal still holds every change: it goes on, and a new snapshot
    // is tried again once it has grown as much again.
    ZEVD_TRACE(trc, TRACE_ERROR,
               "Error: a new snapshot could not be written in %s (%s): the journal goes on\n",
               s.dir.c_str(), errnoText(error).c_str());
    s.snapshotAt = journalBytes + std::max(s.snapshotBytes, kMinJournalForSnapshot);
    trc.exit();
}

void Dch::expireIdle(std::chrono::steady_clock::time_point now) {
    ZEVD_TRACE_FUNCTION("Dch::expireIdle");
    if (sourceTtl_.count() <= 0) return trc.exit();
    std::string record;
    std::vector<int32_t> idle;
    for (const auto &[id, handle] : handles_) {
        if (now - handle.lastActive < sourceTtl_) continue;
        idle.push_back(id);
        record += offlineRecord(id);
    }
    if (idle.empty()) return trc.exit();
    saveChange([&record] { return record; }, nullptr);
    for (int32_t id : idle) {
        auto it = handles_.find(id);
        ZEVD_TRACE(trc, TRACE_DETAIL, "handle %d (%s %s %s) idle: taken offline\n", id,
                   it->second.appl.c_str(), it->second.group.c_str(), it->second.source.c_str());
        releaseHandle(it);
    }
    ZEVD_TRACE(trc, TRACE_ERROR,
               "Note: %u handles taken offline after %lld seconds without a row or an online\n",
               static_cast<unsigned>(idle.size()), static_cast<long long>(sourceTtl_.count()));
    savedChange();
    sendStatusReports();
    trc.exit();
}

}  // namespace zevd::dch
