// The daemon's state directory without sockets: what a Dch writes there
// (a snapshot and a journal of the changes since) and what the next Dch on
// the directory reads back; the refusal of a change that cannot be written;
// one source, one handle; idle handles taken offline.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "support/dch_requests.h"
#include "support/temp_dir.h"
#include "support/trace_capture.h"
#include "zevd610.h"
#include "zevdchd.h"
#include "zevdchd_journal.h"
#include "zevdchd_metrics.h"

namespace {

namespace fs = std::filesystem;
using zevd::dch::Dch;
using zevd::test::TraceCapture;
namespace dch = zevd::dch;
using namespace zevd::test;
using namespace std::chrono_literals;

// The state files of a directory.
std::string stateFile(const TempDir &dir) {
    return dir.file("zevdchd.state");
}
std::string journalFile(const TempDir &dir) {
    return dir.file("zevdchd.journal");
}
// The files set aside whose names start with prefix.
std::vector<std::string> setAside(const TempDir &dir,
                                  const std::string &prefix = "zevdchd.state.bad-") {
    return dir.namesStartingWith(prefix);
}

// Puts d on dir, which must succeed.
void use(Daemon &d, const TempDir &dir) {
    std::string why;
    ASSERT_TRUE(d.dch.useStateDir(dir.path(), &why)) << why;
}

// A snapshot of what d holds, written now (as at a clean stop).
void snapshot(Daemon &d) {
    std::string why;
    ASSERT_TRUE(d.dch.writeStateSnapshot(&why)) << why;
}

// A provider's life that touches every kind of change.
void changeEverything(Daemon &d) {
    d.registerApp("app");
    d.registerApp("gone");
    ASSERT_EQ(d.online("app", "grp", "src"), 1);
    ASSERT_EQ(d.online("app", "other", "src2", kOtherProvider), 2);
    ASSERT_EQ(d.online("gone", "grp", "g"), 3);
    EXPECT_EQ(d.ask(offlineRequest(2), kOtherProvider), status(0));
    EXPECT_EQ(d.ask(unregisterRequest("gone"), kProvider), status(0));
    // Registered again with one group: the catalogue is replaced.
    EXPECT_EQ(d.ask(registerRequest("app", "new help", {kGroups[0]}), kOtherProvider), status(0));
    ASSERT_EQ(d.online("app", "grp", "src4"), 4);
}

TEST(DchStateTest, CatalogueAndHandlesOutliveTheDaemon) {
    TempDir dir;
    std::string kept;
    {
        Daemon first;
        use(first, dir);
        first.registerApp("app");
        ASSERT_EQ(first.online("app", "grp", "src"), 1);
        ASSERT_EQ(first.online("app", "other", "src2", kOtherProvider), 2);
        EXPECT_EQ(first.ask(offlineRequest(2), kOtherProvider), status(0));
        kept = stateOf(first.dch);
    }
    {
        Daemon second;
        TraceCapture capture("error");
        use(second, dir);
        EXPECT_EQ(stateOf(second.dch), kept);
        ASSERT_EQ(second.dch.handles().count(1), 1u);
        EXPECT_EQ(second.dch.handles().at(1).provider, kProvider);
        EXPECT_EQ(second.dch.counters().providersOnline.load(), 1u);
        EXPECT_TRUE(capture.hasText("Note: state read from " + dir.path() +
                                    ": 1 applications, 1 handles (4 journal records)"))
            << capture.joined();
        EXPECT_TRUE(setAside(dir).empty());
        // The handle serves on; the next one is 3, as it would have been.
        EXPECT_EQ(second.ask(dataRequest(1, 0, {{"count", be32(1)}}), kProvider), status(0));
        EXPECT_EQ(second.online("app", "grp", "src3"), 3);

        // Unregistered, it is gone for the next daemon too.
        EXPECT_EQ(second.ask(unregisterRequest("app"), kProvider), status(0));
        snapshot(second);
    }
    Daemon third;
    use(third, dir);
    EXPECT_TRUE(third.dch.applications().empty());
    EXPECT_TRUE(third.dch.handles().empty());
    EXPECT_EQ(third.dch.nextHandle(), 4);
}

TEST(DchStateTest, EveryKindOfChangeIsReplayedFromTheJournalAndFromASnapshot) {
    TempDir dir;
    std::string kept;
    {
        Daemon first;
        use(first, dir);
        changeEverything(first);
        kept = stateOf(first.dch);
    }
    // The snapshot written at the first change is empty: all of it is in
    // the journal.
    EXPECT_EQ(readFile(stateFile(dir)).find("appl "), std::string::npos);
    {
        Daemon second;
        use(second, dir);
        EXPECT_EQ(stateOf(second.dch), kept);
        snapshot(second);
    }
    // Now all of it is in the snapshot, and the journal is its header only.
    EXPECT_NE(readFile(stateFile(dir)).find("handle 4 =app =grp =src4 "), std::string::npos);
    EXPECT_EQ(readFile(journalFile(dir)).find("online"), std::string::npos);
    Daemon third;
    TraceCapture capture("error");
    use(third, dir);
    EXPECT_EQ(stateOf(third.dch), kept);
    EXPECT_TRUE(capture.hasText("Note: state read from " + dir.path() +
                                ": 1 applications, 2 handles (0 journal records)"))
        << capture.joined();
    // Nothing but the three files is left in the directory.
    EXPECT_EQ(dir.names(),
              (std::vector<std::string>{"zevdchd.journal", "zevdchd.lock", "zevdchd.state"}));
}

TEST(DchStateTest, TextsWithBlanksPercentAndOtherBytesComeBackWhole) {
    TempDir dir;
    const std::string appl = "caf\xc3\xa9%41=x";
    const std::vector<Grp> groups = {
        {"gr%20p",
         "  lead, and trail\t",
         {{"\xc3\xa9t\xc3\xa9", 'D', 16, "100% \xe2\x82\xac\nsecond line =x %"},
          {"n%", 'N', 2, ""}}},
    };
    std::string kept;
    {
        Daemon first;
        use(first, dir);
        EXPECT_EQ(first.ask(registerRequest(appl, "a b  c %25 \xff\x01", groups), kProvider),
                  status(0));
        ASSERT_EQ(first.online(appl, "gr%20p", "s\xc3\xb8urce%"), 1);
        kept = stateOf(first.dch);
        EXPECT_EQ(readFile(journalFile(dir)).find('\xc3'), std::string::npos);
        snapshot(first);
    }
    std::string file = readFile(stateFile(dir));
    EXPECT_NE(file.find("appl "), std::string::npos) << file;
    EXPECT_EQ(file.find('\xc3'), std::string::npos) << file;
    Daemon second;
    TraceCapture capture("error");
    use(second, dir);
    EXPECT_EQ(stateOf(second.dch), kept);
    ASSERT_EQ(second.dch.applications().count(appl), 1u);
    EXPECT_EQ(second.dch.applications().at(appl).help, "a b  c %25 \xff\x01");
    EXPECT_EQ(second.dch.applications().at(appl).at(0).at(0).help,
              "100% \xe2\x82\xac\nsecond line =x %");
    EXPECT_EQ(second.dch.handles().at(1).source, "s\xc3\xb8urce%");
    EXPECT_FALSE(capture.contains("Error:")) << capture.joined();
}

TEST(DchStateTest, StateFileThatDoesNotReadBackIsSetAsideWithItsJournal) {
    struct Case {
        const char *what;
        std::string (*damage)(const std::string &);
        const char *why;
    };
    const Case cases[] = {
        {"cut before its end line",
         [](const std::string &s) { return s.substr(0, s.rfind("end ")); },
         "no end (the file is cut short) at line 10"},
        {"cut inside a line",
         [](const std::string &s) { return s.substr(0, s.find("group =other") + 5); },
         "a bad group at line 8"},
        {"a garbage line",
         [](const std::string &s) {
             size_t third = s.find('\n', s.find('\n', s.find('\n') + 1) + 1) + 1;
             return s.substr(0, third) + "garbage here\n" + s.substr(third);
         },
         "an unknown record at line 4"},
        {"an end that miscounts",
         [](const std::string &s) { return s.substr(0, s.rfind("end ")) + "end 7\n"; },
         "an end that does not count the records at line 11"},
        {"a bad escape",
         [](const std::string &s) {
             std::string t = s;
             t.replace(t.find("=app"), 4, "=a%G1");
             return t;
         },
         "a bad appl at line 4"},
        {"a changed byte that still parses",
         [](const std::string &s) {
             std::string t = s;
             t.replace(t.find("handle 1 "), 9, "handle 9 ");
             return t;
         },
         "a sum that does not match at line 11"},
        {"a sum changed",
         [](const std::string &s) {
             std::string t = s;
             char &last = t[t.size() - 2];
             last = last == '0' ? '1' : '0';
             return t;
         },
         "a sum that does not match at line 11"},
        {"a bad generation",
         [](const std::string &s) {
             std::string t = s;
             t.replace(t.find("generation "), 11, "generation x");
             return t;
         },
         "a bad generation at line 2"},
        {"the first format, without a sum",
         [](const std::string &s) { return "zevdchd-state 1" + s.substr(s.find('\n')); },
         "no header at line 0"},
        {"a line of 2 MiB",
         [](const std::string &s) { return s.substr(0, 20) + std::string(2 << 20, 'x') + "\n"; },
         "a line longer than 1 MiB at line 1"},
        {"empty", [](const std::string &) { return std::string(); }, "no header at line 0"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        TempDir dir;
        {
            Daemon first;
            use(first, dir);
            first.registerApp("app");
            ASSERT_EQ(first.online("app", "grp", "src"), 1);
            snapshot(first);
        }
        std::string damaged = c.damage(readFile(stateFile(dir)));
        writeFile(stateFile(dir), damaged);
        {
            Daemon second;
            TraceCapture capture("error");
            use(second, dir);
            EXPECT_TRUE(second.dch.applications().empty());
            EXPECT_TRUE(second.dch.handles().empty());
            EXPECT_EQ(second.dch.nextHandle(), 1);
            EXPECT_FALSE(fs::exists(stateFile(dir)));
            EXPECT_FALSE(fs::exists(journalFile(dir)));
            std::vector<std::string> aside = setAside(dir);
            ASSERT_EQ(aside.size(), 1u);
            EXPECT_EQ(readFile(dir.path() + "/" + aside[0]), damaged);
            std::vector<std::string> journalAside = setAside(dir, "zevdchd.journal.bad-");
            ASSERT_EQ(journalAside.size(), 1u);
            std::string start = "Error: state file " + stateFile(dir) + " is not usable (";
            std::string end =
                "); set aside as " + dir.path() + "/" + aside[0] + ", starting empty\n";
            start += c.why;
            EXPECT_TRUE(capture.hasText(start + end)) << capture.joined();
            EXPECT_TRUE(capture.hasText("Note: journal " + journalFile(dir) + " set aside as " +
                                        dir.path() + "/" + journalAside[0] +
                                        " with its snapshot\n"))
                << capture.joined();
            EXPECT_EQ(capture.texts().size(), 2u) << capture.joined();
            // It goes on from nothing, and writes a new state.
            second.registerApp("fresh");
            EXPECT_EQ(second.online("fresh", "grp", "src"), 1);
        }
        {
            Daemon third;
            use(third, dir);
            EXPECT_EQ(third.dch.applications().count("fresh"), 1u);
            EXPECT_EQ(third.dch.handles().size(), 1u);
        }
        // A file that does not read again is set aside beside the first,
        // never over it.
        writeFile(stateFile(dir), "");
        Daemon fourth;
        use(fourth, dir);
        EXPECT_EQ(setAside(dir).size(), 2u);
        EXPECT_EQ(readFile(dir.path() + "/" + setAside(dir)[0]).size() +
                      readFile(dir.path() + "/" + setAside(dir)[1]).size(),
                  damaged.size());
    }
}

// The journal's tail: a record cut short (a crash while it was written) or
// changed is where replay ends; what follows is never read, and the tail is
// cut off so that the next record follows the last whole one.
TEST(DchStateTest, ReplayEndsAtTheFirstRecordThatDoesNotReadWhole) {
    struct Case {
        const char *what;
        // The journal of register, online 1, online 2, online 3, damaged.
        std::string (*damage)(const std::string &, size_t lastRecord);
        size_t handles;  // replayed
    };
    const Case cases[] = {
        {"the last record cut short",
         [](const std::string &j, size_t last) { return j.substr(0, last + 12); }, 2},
        {"the last record's seal cut short",
         [](const std::string &j, size_t last) { return j.substr(0, last + 5); }, 2},
        {"a byte of the last record changed",
         [](const std::string &j, size_t last) {
             std::string t = j;
             t[last + 10] ^= 0x20;
             return t;
         },
         2},
        {"its length word made larger",
         [](const std::string &j, size_t last) {
             std::string t = j;
             t[last + 2] = '\x7f';
             return t;
         },
         2},
        {"garbage after the last record",
         [](const std::string &j, size_t) { return j + std::string("\0\0\0\x05zzzzhello", 13); },
         3},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        TempDir dir;
        size_t lastRecord = 0;
        {
            Daemon first;
            use(first, dir);
            first.registerApp("app");
            ASSERT_EQ(first.online("app", "grp", "a"), 1);
            ASSERT_EQ(first.online("app", "grp", "b"), 2);
            lastRecord = fs::file_size(journalFile(dir));
            ASSERT_EQ(first.online("app", "grp", "c"), 3);
        }
        std::string damaged = c.damage(readFile(journalFile(dir)), lastRecord);
        writeFile(journalFile(dir), damaged);
        {
            Daemon second;
            TraceCapture capture("error");
            use(second, dir);
            EXPECT_EQ(second.dch.handles().size(), c.handles);
            EXPECT_EQ(second.dch.handles().count(3), c.handles == 3 ? 1u : 0u);
            size_t whole = c.handles == 3 ? damaged.size() - 13 : lastRecord;
            EXPECT_TRUE(capture.hasText("Note: journal " + journalFile(dir) + " ends in " +
                                        std::to_string(damaged.size() - whole) +
                                        " bytes that do not read as a record: cut off\n"))
                << capture.joined();
            EXPECT_EQ(fs::file_size(journalFile(dir)), whole);
            // The next change follows the last whole record, and is read back.
            EXPECT_EQ(second.online("app", "grp", "d"), c.handles == 3 ? 4 : 3);
        }
        Daemon third;
        use(third, dir);
        EXPECT_EQ(third.dch.handles().size(), c.handles + 1);
    }
}

// A crash between the new snapshot's rename and the new journal's leaves
// the old journal beside a snapshot that holds all of it already.
// Sealed journal records that this daemon never wrote: replay ends at the
// first that does not apply, and the journal is set aside; the next change
// starts a new snapshot and journal. Among them a record whose unregister
// erases the application its own lines registered before a group of it.
TEST(DchStateTest, JournalRecordThatDoesNotApplyEndsTheReplayAndIsSetAside) {
    struct Case {
        const char *what;
        std::string journal;  // after the header of generation 1
        const char *line;     // what the next start writes
        size_t applications;  // replayed
    };
    const std::string header = dch::sealRecord("zevdchd-journal 1 generation 1");
    const Case cases[] = {
        {"an unregister between an application and its group",
         header + dch::sealRecord("appl =a = 127.0.0.1 1\nunregister =a\ngroup =g =\n"),
         "record 1 does not apply (a bad group): replay ends there", 0},
        {"an attribute after a handle",
         header + dch::sealRecord("appl =a = 127.0.0.1 1\ngroup =g =\n") +
             dch::sealRecord("appl =b = 127.0.0.1 1\ngroup =g =\nonline 1 =b =g =s 127.0.0.1 "
                             "1 2\nattr =v A 4 =\n"),
         "record 2 does not apply (a bad attr): replay ends there", 2},
        {"no header", dch::sealRecord("appl =a = 127.0.0.1 1\n"),
         "does not start with its header: not replayed", 0},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        TempDir dir;
        {
            Daemon first;
            use(first, dir);
            snapshot(first);
        }
        writeFile(journalFile(dir), c.journal);
        {
            Daemon second;
            TraceCapture capture("error");
            use(second, dir);
            EXPECT_EQ(second.dch.applications().size(), c.applications);
            EXPECT_TRUE(capture.contains(c.line)) << capture.joined();
            std::vector<std::string> aside = setAside(dir, "zevdchd.journal.bad-");
            ASSERT_EQ(aside.size(), 1u);
            EXPECT_EQ(readFile(dir.file(aside[0])), c.journal);
            EXPECT_TRUE(capture.hasText("Note: journal " + journalFile(dir) + " set aside as " +
                                        dir.file(aside[0]) + "\n"))
                << capture.joined();
            second.registerApp("app");
        }
        Daemon third;
        use(third, dir);
        EXPECT_EQ(third.dch.applications().count("app"), 1u);
        EXPECT_EQ(third.dch.applications().size(), c.applications + 1);
    }
}

// A crash cuts short only the journal's last record: one that does not read
// whole with more behind it is damage, and what follows may be changes that
// were answered 0. Replay ends there and the journal is kept whole, set
// aside; nothing is cut off.
TEST(DchStateTest, RecordDamagedInsideTheJournalEndsTheReplayAndTheJournalIsSetAsideWhole) {
    const std::string header = dch::sealRecord("zevdchd-journal 1 generation 1");
    const std::string a = dch::sealRecord("appl =a = 127.0.0.1 1\n");
    const std::string b = dch::sealRecord("appl =b = 127.0.0.1 1\n");
    const std::string c = dch::sealRecord("appl =c = 127.0.0.1 1\n");
    std::string changedByte = b;
    changedByte[10] ^= 0x20;
    std::string shorterLength = b;
    shorterLength[3] = static_cast<char>(shorterLength[3] - 4);
    for (const std::string &damaged : {changedByte, shorterLength}) {
        TempDir dir;
        {
            Daemon first;
            use(first, dir);
            snapshot(first);
        }
        const std::string journal = header + a + damaged + c;
        writeFile(journalFile(dir), journal);
        {
            Daemon second;
            TraceCapture capture("error");
            use(second, dir);
            EXPECT_EQ(second.dch.applications().size(), 1u);
            EXPECT_EQ(second.dch.applications().count("a"), 1u);
            EXPECT_TRUE(capture.hasText("Error: journal " + journalFile(dir) +
                                        ": record 2 does not read whole and is not the last: "
                                        "replay ends there\n"))
                << capture.joined();
            EXPECT_FALSE(capture.contains("cut off")) << capture.joined();
            std::vector<std::string> aside = setAside(dir, "zevdchd.journal.bad-");
            ASSERT_EQ(aside.size(), 1u);
            EXPECT_EQ(readFile(dir.file(aside[0])), journal);
            second.registerApp("app");
        }
        Daemon third;
        use(third, dir);
        EXPECT_EQ(third.dch.applications().count("app"), 1u);
        EXPECT_EQ(third.dch.applications().size(), 2u);
    }
}

TEST(DchStateTest, JournalOlderThanTheSnapshotIsNotReplayed) {
    TempDir dir;
    std::string kept;
    {
        Daemon first;
        use(first, dir);
        first.registerApp("app");
        ASSERT_EQ(first.online("app", "grp", "src"), 1);
        std::string oldJournal = readFile(journalFile(dir));
        // Replayed over the snapshot, its register would empty the latest
        // values and its online would be a second one: it must not be.
        EXPECT_EQ(first.ask(offlineRequest(1), kProvider), status(0));
        snapshot(first);
        kept = stateOf(first.dch);
        writeFile(journalFile(dir), oldJournal);
    }
    Daemon second;
    TraceCapture capture("error");
    use(second, dir);
    EXPECT_EQ(stateOf(second.dch), kept);
    EXPECT_TRUE(second.dch.handles().empty());
    EXPECT_TRUE(capture.hasText("Note: journal " + journalFile(dir) +
                                " follows snapshot 1, not 2: not replayed\n"))
        << capture.joined();
    // The next change starts a journal of its own generation.
    ASSERT_EQ(second.online("app", "grp", "new"), 2);
    EXPECT_NE(readFile(journalFile(dir)).find("generation 3"), std::string::npos);
}

// A daemon that ended while it wrote a snapshot leaves its temporary file:
// the next one removes it, and nothing else.
TEST(DchStateTest, TemporaryFilesLeftByAnEarlierDaemonAreRemoved) {
    TempDir dir;
    {
        Daemon first;
        use(first, dir);
        first.registerApp("app");
    }
    writeFile(dir.path() + "/zevdchd.state.tmp-1-2-3", "half a snapshot");
    writeFile(dir.path() + "/zevdchd.journal.tmp-4-5-6", "half a journal");
    writeFile(dir.path() + "/zevdchd.state.kept", "someone else's");
    writeFile(dir.path() + "/zevdchd.tmp-7", "someone else's");
    Daemon second;
    TraceCapture capture("error");
    use(second, dir);
    EXPECT_EQ(second.dch.applications().count("app"), 1u);
    EXPECT_EQ(dir.names(),
              (std::vector<std::string>{"zevdchd.journal", "zevdchd.lock", "zevdchd.state",
                                        "zevdchd.state.kept", "zevdchd.tmp-7"}));
    EXPECT_TRUE(capture.hasText("Note: removed " + dir.path() +
                                "/zevdchd.state.tmp-1-2-3, left by an earlier daemon\n"))
        << capture.joined();
    EXPECT_TRUE(capture.hasText("Note: removed " + dir.path() +
                                "/zevdchd.journal.tmp-4-5-6, left by an earlier daemon\n"))
        << capture.joined();
}

TEST(DchStateTest, ASecondDchOnTheDirectoryIsRefusedWhileTheFirstHoldsIt) {
    TempDir dir;
    auto first = std::make_unique<Daemon>();
    use(*first, dir);
    Daemon second;
    std::string why;
    EXPECT_FALSE(second.dch.useStateDir(dir.path(), &why));
    EXPECT_EQ(
        why, "state directory " + dir.path() + " is in use (pid " + std::to_string(getpid()) + ")");
    first.reset();
    EXPECT_TRUE(second.dch.useStateDir(dir.path(), &why)) << why;
}

// A change whose record cannot be written is answered 24 and not made; the
// daemon serves on and saves again once it can. A link put at the journal's
// name is never followed.
TEST(DchStateTest, ChangeThatCannotBeWrittenIsAnswered24AndNotMade) {
    TempDir dir;
    TempDir elsewhere;
    const std::string target = elsewhere.path() + "/target";
    writeFile(target, "not the daemon's");
    std::string kept;
    {
        Daemon d;
        use(d, dir);
        d.registerApp("app");
        d.registerApp("other");
        ASSERT_EQ(d.online("app", "grp", "src"), 1);
        d.subscribeStatus(kSubscriber);
        d.transport.deliveries.clear();
        std::string before = stateOf(d.dch);
        ASSERT_EQ(unlink(journalFile(dir).c_str()), 0);
        ASSERT_EQ(symlink(target.c_str(), journalFile(dir).c_str()), 0);
        TraceCapture capture("error");
        EXPECT_EQ(d.ask(onlineRequest("app", "grp", "new"), kProvider),
                  status(ZEVD_DCH_NOT_SAVED, 0));
        EXPECT_TRUE(capture.hasText("Error: dp_online from 127.0.0.1 port 40001 not saved in " +
                                    dir.path() +
                                    " (errno 40, Too many levels of symbolic links): answered "
                                    "24, nothing changed\n"))
            << capture.joined();
        EXPECT_EQ(stateOf(d.dch), before);
        // Nothing was reported either.
        EXPECT_TRUE(d.transport.deliveries.empty());
        EXPECT_EQ(readFile(target), "not the daemon's");
        // Once it can, it saves again: the next change writes a new snapshot
        // and journal in the link's place, and is made.
        capture.clear();
        EXPECT_EQ(d.ask(offlineRequest(1), kProvider), status(0));
        EXPECT_EQ(d.ask(unregisterRequest("other"), kProvider), status(0));
        EXPECT_EQ(d.online("app", "grp", "new"), 2);
        EXPECT_FALSE(capture.contains("Error:")) << capture.joined();
        EXPECT_EQ(readFile(target), "not the daemon's");
        struct stat info {};
        ASSERT_EQ(lstat(journalFile(dir).c_str(), &info), 0);
        EXPECT_TRUE(S_ISREG(info.st_mode));

        // Each change that has a record is refused alike.
        ASSERT_EQ(unlink(journalFile(dir).c_str()), 0);
        ASSERT_EQ(mkdir(journalFile(dir).c_str(), 0700), 0);
        before = stateOf(d.dch);
        capture.clear();
        EXPECT_EQ(d.ask(registerRequest("app", "changed"), kProvider), status(ZEVD_DCH_NOT_SAVED));
        EXPECT_EQ(d.ask(offlineRequest(2), kProvider), status(ZEVD_DCH_NOT_SAVED));
        EXPECT_EQ(d.ask(unregisterRequest("app"), kProvider), status(ZEVD_DCH_NOT_SAVED));
        EXPECT_EQ(d.ask(onlineRequest("app", "grp", "src"), kProvider),
                  status(ZEVD_DCH_NOT_SAVED, 0));
        EXPECT_EQ(stateOf(d.dch), before);
        EXPECT_EQ(capture.count("nothing changed"), 4u) << capture.joined();
        EXPECT_TRUE(capture.hasText("Error: dp_register from 127.0.0.1 port 40001 not saved in " +
                                    dir.path() +
                                    " (errno 21, Is a directory): answered 24, nothing changed\n"))
            << capture.joined();
        // What does not change the state is served as before.
        EXPECT_EQ(d.ask(dataRequest(2, 0, {{"count", be32(5)}}), kProvider), status(0));
        ASSERT_EQ(rmdir(journalFile(dir).c_str()), 0);
        // Subscriptions are not kept across a restart.
        EXPECT_TRUE(d.send(statusWaitRequest(0), kSubscriber).empty());
        kept = stateOf(d.dch);
    }
    Daemon next;
    use(next, dir);
    EXPECT_EQ(stateOf(next.dch), kept);
    EXPECT_EQ(next.dch.handles().size(), 1u);
    EXPECT_EQ(next.dch.handles().count(2), 1u);
}

// ---------------------------------------------------------------------------
// One source, one handle
// ---------------------------------------------------------------------------

TEST(DchSourceTest, OnlineOfASourceOnlineAlreadyAnswersItsHandleReportedOnlineAgain) {
    Daemon d;
    d.registerApp("app");
    ASSERT_EQ(d.online("app", "grp", "src"), 1);
    EXPECT_EQ(d.ask(dataRequest(1, 0, {{"count", be32(7)}}), kProvider), status(0));
    d.subscribeStatus(kSubscriber);
    // The provider restarted on another port, without an offline.
    EXPECT_EQ(d.ask(onlineRequest("app", "grp", "src"), kOtherProvider), status(0, 1));
    EXPECT_EQ(fieldsOfEach(d.transport.deliveredTo(kSubscriber)),
              std::vector<Fields>{report(ZEVD_REQ_DP_ONLINE, "app", "grp", "src", kOtherProvider)});
    ASSERT_EQ(d.dch.handles().size(), 1u);
    const dch::OpenHandle &handle = d.dch.handles().at(1);
    EXPECT_EQ(handle.provider, kOtherProvider);
    ASSERT_FALSE(handle.latest.empty());
    EXPECT_EQ(handle.latest[0].number, 7);  // its latest values stay
    EXPECT_EQ(d.dch.nextHandle(), 2);
    // Another source, or the same source in another group, is another handle.
    EXPECT_EQ(d.online("app", "other", "src"), 2);
    EXPECT_EQ(d.online("app", "grp", "src2"), 3);
    // Once offline, the source gets a new number.
    EXPECT_EQ(d.ask(offlineRequest(1), kProvider), status(0));
    EXPECT_EQ(d.online("app", "grp", "src"), 4);
    EXPECT_EQ(d.online("app", "grp", "src"), 4);
    // Unregistered and registered again, likewise.
    EXPECT_EQ(d.ask(unregisterRequest("app"), kProvider), status(0));
    d.registerApp("app");
    EXPECT_EQ(d.online("app", "grp", "src"), 5);
}

TEST(DchSourceTest, SeventyThousandOnlinesOfOneSourceLeaveOneHandleAndOneSeries) {
    Daemon d;
    d.registerApp("app");
    std::vector<char> online = onlineRequest("app", "grp", "restarting");
    const size_t times = 70000;  // more than the 65,536 handles there can be
    size_t answeredOne = 0;
    for (size_t i = 0; i < times; ++i) {
        d.transport.answers.clear();
        std::vector<char> received(online);
        d.dch.handle(Request{received.data(), received.size(), kProvider});
        if (d.transport.answers.size() == 1 &&
            fieldsOf(d.transport.answers[0].bytes) == status(0, 1))
            ++answeredOne;
        if (i == 0) {
            EXPECT_EQ(d.ask(dataRequest(1, 0, {{"count", be32(1)}}), kProvider), status(0));
        }
    }
    EXPECT_EQ(answeredOne, times);
    EXPECT_EQ(d.dch.handles().size(), 1u);
    EXPECT_EQ(d.dch.counters().providersOnline.load(), 1u);
    EXPECT_EQ(dch::metricsSnapshot(d.dch).series.size(), 1u);
    // Anyone else still gets a handle.
    EXPECT_EQ(d.online("app", "grp", "another"), 2);
}

TEST(DchSourceTest, OnlineAgainIsWrittenAndReadBackWithItsNewProvider) {
    TempDir dir;
    {
        Daemon first;
        use(first, dir);
        first.registerApp("app");
        ASSERT_EQ(first.online("app", "grp", "src"), 1);
        ASSERT_EQ(first.online("app", "grp", "src", kOtherProvider), 1);
    }
    Daemon second;
    use(second, dir);
    ASSERT_EQ(second.dch.handles().size(), 1u);
    EXPECT_EQ(second.dch.handles().at(1).provider, kOtherProvider);
    EXPECT_EQ(second.online("app", "grp", "src"), 1);
    EXPECT_EQ(second.online("app", "grp", "src2"), 2);
}

// ---------------------------------------------------------------------------
// --source-ttl
// ---------------------------------------------------------------------------

TEST(DchSourceTest, SourceIdlePastItsTtlIsTakenOfflineAndReportedOffline) {
    TempDir dir;
    using Clock = std::chrono::steady_clock;
    {
        Daemon d;
        use(d, dir);
        d.dch.setSourceTtl(60s);
        d.registerApp("app");
        auto before = Clock::now();
        ASSERT_EQ(d.online("app", "grp", "idle"), 1);
        ASSERT_EQ(d.online("app", "grp", "busy"), 2);
        EXPECT_EQ(d.ask(dataRequest(1, 0, {{"count", be32(1)}}), kProvider), status(0));
        EXPECT_EQ(d.ask(dataRequest(2, 0, {{"count", be32(2)}}), kProvider), status(0));
        EXPECT_EQ(dch::metricsSnapshot(d.dch).series.size(), 2u);
        d.subscribeStatus(kSubscriber);
        TraceCapture capture("error");
        // Within the ttl nothing goes.
        d.dch.expireIdle(before + 59s);
        EXPECT_EQ(d.dch.handles().size(), 2u);
        EXPECT_TRUE(d.transport.deliveries.empty());
        // An online later on keeps the busy handle when the idle one goes.
        auto idleLast = d.dch.handles().at(1).lastActive;
        ASSERT_EQ(d.online("app", "grp", "busy"), 2);
        auto busyLast = d.dch.handles().at(2).lastActive;
        ASSERT_GT(busyLast, idleLast);
        d.transport.deliveries.clear();
        d.dch.expireIdle(idleLast + 60s);
        EXPECT_EQ(d.dch.handles().count(1), 0u);
        EXPECT_EQ(d.dch.handles().count(2), 1u);
        EXPECT_EQ(
            fieldsOfEach(d.transport.deliveredTo(kSubscriber)),
            std::vector<Fields>{report(ZEVD_REQ_DP_OFFLINE, "app", "grp", "idle", kProvider)});
        EXPECT_TRUE(capture.hasText(
            "Note: 1 handles taken offline after 60 seconds without a row or an online\n"))
            << capture.joined();
        // Its series is gone from the page; rows under it are refused.
        std::vector<dch::MetricsSeries> series = dch::metricsSnapshot(d.dch).series;
        ASSERT_EQ(series.size(), 1u);
        EXPECT_EQ(series[0].source, "busy");
        EXPECT_EQ(d.ask(dataRequest(1, 0, {{"count", be32(1)}}), kProvider),
                  status(ZEVD_DCH_UNKNOWN_HANDLE));
        // A row keeps a handle too.
        EXPECT_EQ(d.ask(dataRequest(2, 0, {{"count", be32(3)}}), kProvider), status(0));
        d.dch.expireIdle(busyLast + 60s);
        EXPECT_EQ(d.dch.handles().size(), 1u);
        d.dch.expireIdle(d.dch.handles().at(2).lastActive + 60s);
        EXPECT_TRUE(d.dch.handles().empty());
        EXPECT_EQ(d.dch.counters().providersOnline.load(), 0u);
    }
    // Taken offline on disk too.
    Daemon next;
    use(next, dir);
    EXPECT_TRUE(next.dch.handles().empty());
}

TEST(DchSourceTest, WithoutATtlNothingIsTakenOffline) {
    Daemon d;
    d.registerApp("app");
    ASSERT_EQ(d.online("app", "grp", "src"), 1);
    d.dch.expireIdle(std::chrono::steady_clock::now() + 3650 * 24h);
    EXPECT_EQ(d.dch.handles().size(), 1u);
}

}  // namespace
