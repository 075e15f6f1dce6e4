// What --state-dir holds, in the words of the Dch: the snapshot's text, the
// journal's records of the providers' changes, and the open files behind
// them. The files themselves are zevdchd_journal.h's.
#ifndef ZEVD_DCH_ZEVDCHD_STATE_H
#define ZEVD_DCH_ZEVDCHD_STATE_H

#include <cstdint>
#include <string>

#include "zevdchd.h"
#include "zevdchd_journal.h"

namespace zevd::dch {

// The names the daemon writes in its state directory (besides temporary
// files of unique names, and files set aside as NAME.bad-TIME).
inline constexpr char kStateFile[] = "zevdchd.state";
inline constexpr char kJournalFile[] = "zevdchd.journal";
inline constexpr char kLockFile[] = "zevdchd.lock";
// A journal shorter than this is not worth a new snapshot, however small
// the old one is.
inline constexpr uint64_t kMinJournalForSnapshot = 64 * 1024;

// The journal's records, one per change, each one or more lines of the
// snapshot's own form. Replayed in order, they make the same change again.
std::string registerRecord(const Application &application);
std::string onlineRecord(const OpenHandle &handle, int32_t nextHandle);
std::string offlineRecord(int32_t handle);
std::string unregisterRecord(const std::string &appl);

struct StateStore {
    explicit StateStore(std::string directory) : dir(std::move(directory)) {}
    ~StateStore();
    StateStore(const StateStore &) = delete;
    StateStore &operator=(const StateStore &) = delete;

    std::string path(const char *name) const { return dir + "/" + name; }

    std::string dir;
    int dirFd = -1;
    int lockFd = -1;  // flock held for the daemon's life
    JournalWriter journal{-1, kJournalFile};
    uint64_t generation = 0;     // of the snapshot on disk; its journal's is the same
    uint64_t snapshotBytes = 0;  // of the snapshot on disk
    uint64_t snapshotAt = kMinJournalForSnapshot;  // journal size that asks for a new one
};

// Where a read of the state is: a snapshot (strict) or journal records.
struct StateLoad {
    bool journal = false;
    int line = 0;        // within the snapshot
    size_t records = 0;  // the snapshot's records so far
    Application *application = nullptr;
    bool inGroup = false;  // a group of the application was read
    uint64_t generation = 0;
    int readError = 0;  // the errno of a read of the snapshot that failed
};

}  // namespace zevd::dch

#endif  // ZEVD_DCH_ZEVDCHD_STATE_H
