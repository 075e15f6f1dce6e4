// The trace facility: configuration, precedence, line format, sinks, the
// hex-area conversion and the frame that every traced function opens.
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <deque>
#include <fstream>
#include <mutex>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "common/trace.h"
#include "support/trace_capture.h"
#include "zev0.h"
#include "zevd610.h"

using zevd::test::TraceCapture;

namespace {

TraceUnit sockUnit = {0, "Aug 16 2006", "02:26:01", "zevdsock.cpp", "ZEVD610", nullptr, 0};
TraceUnit clientUnit = {0, "Aug 16 2006", "02:26:04", "zevdchcl.cpp", "ZEVDC610", nullptr, 0};

// Records live as long as the process, as the library's own static records
// do: the trace library keeps a list of every record it has refreshed.
TraceFunctionRecord &makeRecord(const char *name, TraceUnit *unit) {
    static std::deque<TraceFunctionRecord> records;
    static std::mutex lock;
    std::lock_guard<std::mutex> guard(lock);
    return records.emplace_back(TraceFunctionRecord{nullptr, name, static_cast<int>(strlen(name)),
                                                    1, unit, 0x200, 0, TLG1_NEVER_SYNCED});
}

unsigned int levelOf(const char *config, const char *name, TraceUnit *unit) {
    TLG1_Configure(config);
    TraceFunctionRecord &rec = makeRecord(name, unit);
    return TLG1_Sync(&rec);
}

const std::regex kLineFormat(
    R"(^\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2}\.\d{6} \d+\.\d+ [A-Za-z0-9_]+ [^ ]+:\d+ .*\n$)");

}  // namespace

TEST(TraceConfigTest, UnsetMeansErrorOnly) {
    TraceCapture capture("error");
    EXPECT_EQ(levelOf("", "ipcSock::ipcRead", &sockUnit), 0x80u);
}

TEST(TraceConfigTest, LevelNamesJoinWithPlus) {
    TraceCapture capture("error");
    EXPECT_EQ(levelOf("error+entry", "f", &sockUnit), 0xC0u);
    EXPECT_EQ(levelOf("detail+dump+storage+flow", "f", &sockUnit), 0x17u);
    EXPECT_EQ(levelOf("all", "f", &sockUnit), 0xFFu);
    EXPECT_EQ(levelOf("none", "f", &sockUnit), 0x00u);
}

TEST(TraceConfigTest, HexMasks) {
    TraceCapture capture("error");
    EXPECT_EQ(levelOf("0xd4", "f", &sockUnit), 0xD4u);
    EXPECT_EQ(levelOf("*=0x41", "f", &sockUnit), 0x41u);
}

TEST(TraceConfigTest, MostSpecificScopeWins) {
    TraceCapture capture("error");
    const char *config = "*=entry zevdsock=detail,ipcSock::ipcRead=dump";
    EXPECT_EQ(levelOf(config, "ipcSock::ipcRead", &sockUnit), 0x04u);
    EXPECT_EQ(levelOf(config, "ipcSock::ipcWrite", &sockUnit), 0x10u);
    EXPECT_EQ(levelOf(config, "C::dp_online", &clientUnit), 0x40u);
    // The order of the items does not matter, only their scope.
    EXPECT_EQ(
        levelOf("ipcSock::ipcRead=dump,zevdsock=detail,*=entry", "ipcSock::ipcRead", &sockUnit),
        0x04u);
}

TEST(TraceConfigTest, UnnamedScopesKeepTheDefault) {
    TraceCapture capture("error");
    EXPECT_EQ(levelOf("zevdsock=all", "C::dp_online", &clientUnit), 0x80u);
    EXPECT_EQ(levelOf("C::dp_online=entry", "C::dp_offline", &clientUnit), 0x80u);
    EXPECT_EQ(levelOf("C::dp_online=entry", "C::dp_online", &clientUnit), 0x40u);
}

TEST(TraceConfigTest, BadItemIsIgnoredWithOneErrorLine) {
    TraceCapture capture("error");
    capture.clear();
    unsigned int mask = levelOf("zevdsock=detail,foo=bar", "x", &sockUnit);
    EXPECT_EQ(mask, 0x10u);
    EXPECT_EQ(capture.texts(),
              std::vector<std::string>{"Error: ZEVA_TRACE item <foo=bar> ignored\n"});
    capture.clear();
    EXPECT_EQ(levelOf("=all 0xzz", "x", &sockUnit), 0x80u);
    EXPECT_EQ(capture.count("ignored"), 2u);
}

TEST(TraceConfigTest, ReconfigurationRefreshesAtTheNextCall) {
    TraceCapture capture("error");
    TraceFunctionRecord &rec = makeRecord("ipcSock::ipcRead", &sockUnit);
    EXPECT_EQ(zevd::traceLevel(&rec), 0x80u);
    unsigned int copy = rec.syncCopy;
    EXPECT_EQ(zevd::traceLevel(&rec), 0x80u);
    EXPECT_EQ(rec.syncCopy, copy) << "no refresh while the configuration stands";
    TLG1_Configure("zevdsock=all");
    EXPECT_NE(sockUnit.syncCounter, copy);
    EXPECT_EQ(zevd::traceLevel(&rec), 0xFFu);
    EXPECT_EQ(rec.syncCopy, sockUnit.syncCounter);
}

TEST(TraceConfigTest, ConfigureNullRereadsTheEnvironment) {
    TraceCapture capture("error");
    setenv("ZEVA_TRACE", "zevdsock=flow", 1);
    TLG1_Configure(nullptr);
    TraceFunctionRecord &rec = makeRecord("ipcSock::ipcRead", &sockUnit);
    EXPECT_EQ(TLG1_Sync(&rec), 0x01u);
    unsetenv("ZEVA_TRACE");
}

TEST(TraceLineTest, LineFormatAndUnitToken) {
    TraceCapture capture("all");
    TraceFunctionRecord &rec = makeRecord("ipcSock::ipcRead", &sockUnit);
    TLG1_Printf(&rec, 321, "select timed out - wait=%d\n", 5);
    auto lines = capture.lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_TRUE(std::regex_match(lines[0], kLineFormat)) << lines[0];
    EXPECT_NE(lines[0].find(" zevdsock ipcSock::ipcRead:321 select timed out - wait=5\n"),
              std::string::npos)
        << lines[0];
    std::string pidTid = std::to_string(getpid()) + ".";
    EXPECT_NE(lines[0].find(" " + pidTid), std::string::npos) << lines[0];
}

TEST(TraceLineTest, EveryPrintfIsOneLine) {
    TraceCapture capture("all");
    TraceFunctionRecord &rec = makeRecord("f", &sockUnit);
    TLG1_Printf(&rec, 1, "Error: FINISH ME UP!");
    TLG1_Printf(&rec, 2, "with its own end\n");
    EXPECT_EQ(capture.texts(),
              (std::vector<std::string>{"Error: FINISH ME UP!\n", "with its own end\n"}));
}

// A string argument cannot end its line or start another: a name a peer
// sent with a line feed in it stays on the line of its call.
TEST(TraceLineTest, ControlCharactersOfAStringStayOnItsLine) {
    TraceCapture capture("all");
    TraceFunctionRecord &rec = makeRecord("f", &sockUnit);
    TLG1_Printf(&rec, 1, "name <%s> <%.4s>\n",
                "a\nb\rc\x1b"
                "d\te\x7f",
                "x\ny\nz");
    EXPECT_EQ(capture.texts(),
              (std::vector<std::string>{"name <a\\nb\\rc\\x1bd\te\\x7f> <x\\ny\\n>\n"}));
}

TEST(TraceLineTest, NullStringPrintsAsNull) {
    TraceCapture capture("all");
    TraceFunctionRecord &rec = makeRecord("f", &sockUnit);
    TLG1_Printf(&rec, 1, "name <%s>\n", static_cast<const char *>(nullptr));
    EXPECT_TRUE(capture.hasText("name <(null)>")) << capture.joined();
}

TEST(TraceLineTest, HexAreaConversion) {
    TraceCapture capture("all");
    TraceFunctionRecord &rec = makeRecord("f", &sockUnit);
    const unsigned char addr[16] = {0x02, 0x00, 0x07, 0x7f, 0x7f, 0x00, 0x00, 0x01,
                                    0,    0,    0,    0,    0,    0,    0,    0xff};
    TLG1_Printf(&rec, 1, "%s: clientAddr <%d<%-*.*x>>\n", "Saving clientAddr ", 16, 16, 16, addr);
    TLG1_Printf(&rec, 2, "%s: clientAddr <%d<%-*.*x>>\n", "short ", 2, 2, 2, addr);
    TLG1_Printf(&rec, 3, "%s: clientAddr <%d<%-*.*x>>\n", "none ", 0, 0, 0, addr);
    EXPECT_EQ(capture.texts(),
              (std::vector<std::string>{
                  "Saving clientAddr : clientAddr <16<0200077f7f00000100000000000000ff>>\n",
                  "short : clientAddr <2<0200>>\n", "none : clientAddr <0<>>\n"}));
}

TEST(TraceLineTest, OrdinaryConversionsStillWork) {
    TraceCapture capture("all");
    TraceFunctionRecord &rec = makeRecord("f", &sockUnit);
    TLG1_Printf(&rec, 1, "%d %u %x %5.2f %c %ld %lu %s %% %03d %-4s|", -5, 7u, 255u, 3.14159, 'z',
                -9L, 10UL, "txt", 4, "ab");
    EXPECT_TRUE(capture.hasText("-5 7 ff  3.14 z -9 10 txt % 004 ab  |")) << capture.joined();
}

TEST(TraceEventTest, EntryAndExitTexts) {
    TraceCapture capture("all");
    TraceFunctionRecord &rec = makeRecord("f", &sockUnit);
    TLG1_Event(&rec, 10, TLG1_EVENT_ENTRY);
    TLG1_Event(&rec, 11, TLG1_EVENT_EXIT_VALUE, 255L);
    TLG1_Event(&rec, 12, TLG1_EVENT_EXIT);
    EXPECT_EQ(capture.texts(), (std::vector<std::string>{"Entry\n", "Exit: 0xff\n", "Exit\n"}));
    auto lines = capture.lines();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_NE(lines[1].find(" f:11 "), std::string::npos) << lines[1];
}

TEST(TraceSinkTest, SinkReceivesWholeLinesAndFileTakesOverAgain) {
    std::string path = ::testing::TempDir() + "trace_sink_" + std::to_string(getpid()) + ".log";
    unlink(path.c_str());
    setenv("ZEVA_TRACE_FILE", path.c_str(), 1);
    TLG1_Configure(nullptr);
    {
        TraceCapture capture("all");
        TraceFunctionRecord &rec = makeRecord("f", &sockUnit);
        TLG1_Printf(&rec, 1, "to the sink\n");
        EXPECT_TRUE(capture.hasText("to the sink"));
    }
    TraceFunctionRecord &rec = makeRecord("f", &sockUnit);
    TLG1_Printf(&rec, 1, "to the file\n");
    std::ifstream in(path);
    std::string all((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    EXPECT_EQ(all.find("to the sink"), std::string::npos);
    EXPECT_NE(all.find("to the file\n"), std::string::npos) << all;
    unsetenv("ZEVA_TRACE_FILE");
    TLG1_Configure(nullptr);
    unlink(path.c_str());
}

TEST(TraceFileTest, FileThatCannotBeOpenedIsNamedOnOneLineAndStandardErrorKept) {
    TraceCapture capture("error");
    capture.clear();
    setenv("ZEVA_TRACE_FILE", "/nonexistent-zevd-dir/trace.log", 1);
    TLG1_Configure(nullptr);
    unsetenv("ZEVA_TRACE_FILE");
    EXPECT_EQ(capture.texts(), std::vector<std::string>{"Error: cannot open ZEVA_TRACE_FILE "
                                                        "</nonexistent-zevd-dir/trace.log>: " +
                                                        std::string(strerror(ENOENT)) +
                                                        ", writing to standard error\n"});
    TLG1_Configure(nullptr);
}

TEST(TraceFileTest, LinesFromEightThreadsNeverInterleave) {
    std::string path = ::testing::TempDir() + "trace_threads_" + std::to_string(getpid()) + ".log";
    unlink(path.c_str());
    setenv("ZEVA_TRACE_FILE", path.c_str(), 1);
    TLG1_Configure(nullptr);
    constexpr int kThreads = 8;
    constexpr int kLines = 500;
    const std::string payload(300, 'x');
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t, &payload] {
            TraceFunctionRecord &rec = makeRecord("worker", &sockUnit);
            for (int i = 0; i < kLines; ++i)
                TLG1_Printf(&rec, t, "thread %d line %d %s end\n", t, i, payload.c_str());
        });
    }
    for (auto &thread : threads) thread.join();
    unsetenv("ZEVA_TRACE_FILE");
    TLG1_Configure(nullptr);
    std::ifstream in(path);
    std::string line;
    int count = 0;
    const std::regex body(R"(.* worker:\d thread \d line \d+ x{300} end$)");
    while (std::getline(in, line)) {
        ++count;
        ASSERT_TRUE(std::regex_match(line, body)) << line;
    }
    EXPECT_EQ(count, kThreads * kLines);
    unlink(path.c_str());
}

TEST(TraceFileTest, EnvironmentSwitchesTraceOnForSetInstanceName) {
    // A fresh process reads ZEVA_TRACE and ZEVA_TRACE_FILE at its first line.
    std::string path = ::testing::TempDir() + "trace_env_" + std::to_string(getpid()) + ".log";
    unlink(path.c_str());
    EXPECT_EXIT(
        {
            setenv("ZEVA_TRACE", "all", 1);
            setenv("ZEVA_TRACE_FILE", path.c_str(), 1);
            TLG1_Configure(nullptr);
            ZEVA_SetInstanceName("   abc");
            std::exit(0);
        },
        ::testing::ExitedWithCode(0), "");
    std::ifstream in(path);
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);) lines.push_back(line + "\n");
    ASSERT_EQ(lines.size(), 3u);
    const char *expected[] = {"Entry\n", "Storing InstanceName <abc>\n", "Exit\n"};
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_TRUE(std::regex_match(lines[i], kLineFormat)) << lines[i];
        EXPECT_NE(lines[i].find(" zeva ZEVA_SetInstanceName:"), std::string::npos) << lines[i];
        EXPECT_EQ(zevd::test::traceText(lines[i]), expected[i]);
    }
    unlink(path.c_str());
}

// --- lines written without the facility's locks ------------------------

namespace {

// The lines of a trace file, each with its newline.
std::vector<std::string> fileLines(const std::string &path) {
    std::ifstream in(path);
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);) lines.push_back(line + "\n");
    return lines;
}

// "YYYY-MM-DD HH:MM:SS.uuuuuu pid.tid": what two lines written at once by
// one thread share but for the time.
std::string stampOf(const std::string &line) {
    return line.substr(0, 26);
}
std::string idsOf(const std::string &line) {
    size_t end = line.find(' ', 27);
    return line.substr(27, end - 27);
}

// Writes an ordinary line, an unlocked one and another ordinary one to a
// fresh trace file at path, and checks the unlocked one against the other
// two: same format, same ids, a time between theirs. Returns the file's
// lines.
std::vector<std::string> unlockedBetweenOrdinary(const std::string &path) {
    unlink(path.c_str());
    setenv("ZEVA_TRACE_FILE", path.c_str(), 1);
    TLG1_Configure(nullptr);
    TraceFunctionRecord &rec = makeRecord("ipcSock::ipcRead", &sockUnit);
    TLG1_Printf(&rec, 10, "before");
    TLG1_WriteUnlocked(&rec, 11, "unlocked <abc>");
    TLG1_Printf(&rec, 12, "after");
    unsetenv("ZEVA_TRACE_FILE");
    TLG1_Configure(nullptr);
    std::vector<std::string> lines = fileLines(path);
    unlink(path.c_str());
    EXPECT_EQ(lines.size(), 3u);
    if (lines.size() != 3) return lines;
    EXPECT_TRUE(std::regex_match(lines[1], kLineFormat)) << lines[1];
    EXPECT_NE(lines[1].find(" zevdsock ipcSock::ipcRead:11 unlocked <abc>\n"), std::string::npos)
        << lines[1];
    EXPECT_EQ(idsOf(lines[1]), idsOf(lines[0])) << lines[0] << lines[1];
    EXPECT_LE(stampOf(lines[0]), stampOf(lines[1])) << lines[0] << lines[1];
    EXPECT_LE(stampOf(lines[1]), stampOf(lines[2])) << lines[1] << lines[2];
    return lines;
}

}  // namespace

TEST(TraceUnlockedTest, LineHasThePrefixOfEveryOtherLine) {
    std::string path = ::testing::TempDir() + "trace_unlocked_" + std::to_string(getpid()) + ".log";
    unlockedBetweenOrdinary(path);
}

TEST(TraceUnlockedTest, LocalTimeFollowsTheZoneOfTheOtherLines) {
    // The local time is computed from the offset the facility recorded, in
    // zones east and west of UTC, one of them by half an hour.
    for (const char *zone : {"ZZZ-5:30", "ZZZ+11", "ZZZ-14"}) {
        std::string path = ::testing::TempDir() + "trace_zone_" + std::to_string(getpid()) + ".log";
        EXPECT_EXIT(
            {
                setenv("TZ", zone, 1);
                tzset();
                std::vector<std::string> lines = unlockedBetweenOrdinary(path);
                const ::testing::TestResult *result =
                    ::testing::UnitTest::GetInstance()->current_test_info()->result();
                for (int i = 0; i < result->total_part_count(); ++i)
                    if (result->GetTestPartResult(i).failed()) {
                        fprintf(stderr, "%s\n", result->GetTestPartResult(i).message());
                        std::exit(1);
                    }
                std::exit(0);
            },
            ::testing::ExitedWithCode(0), "")
            << zone;
    }
}

TEST(TraceUnlockedTest, GoesToTheFileEvenWithASink) {
    std::string path =
        ::testing::TempDir() + "trace_unlocked_sink_" + std::to_string(getpid()) + ".log";
    unlink(path.c_str());
    setenv("ZEVA_TRACE_FILE", path.c_str(), 1);
    TLG1_Configure(nullptr);
    {
        TraceCapture capture("all");
        TraceFunctionRecord &rec = makeRecord("f", &sockUnit);
        TLG1_WriteUnlocked(&rec, 1, "not for the sink\n");
        EXPECT_TRUE(capture.lines().empty()) << capture.joined();
    }
    unsetenv("ZEVA_TRACE_FILE");
    TLG1_Configure(nullptr);
    std::vector<std::string> lines = fileLines(path);
    unlink(path.c_str());
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(zevd::test::traceText(lines[0]), "not for the sink\n");  // one newline only
}

TEST(TraceUnlockedTest, NullTextAndOverlongText) {
    std::string path =
        ::testing::TempDir() + "trace_unlocked_long_" + std::to_string(getpid()) + ".log";
    unlink(path.c_str());
    setenv("ZEVA_TRACE_FILE", path.c_str(), 1);
    TLG1_Configure(nullptr);
    TraceFunctionRecord &rec = makeRecord("f", nullptr);
    TLG1_WriteUnlocked(&rec, -3, nullptr);
    const std::string longText(5000, 'x');
    TLG1_WriteUnlocked(&rec, 2, longText.c_str());
    unsetenv("ZEVA_TRACE_FILE");
    TLG1_Configure(nullptr);
    std::vector<std::string> lines = fileLines(path);
    unlink(path.c_str());
    ASSERT_EQ(lines.size(), 2u);
    // No unit: "?", as ordinary lines have it.
    EXPECT_NE(lines[0].find(" ? f:-3 (null)\n"), std::string::npos) << lines[0];
    // Cut, but still one whole line.
    EXPECT_EQ(lines[1].size(), 2048u);
    EXPECT_NE(lines[1].find(" ? f:2 xxx"), std::string::npos) << lines[1];
}

// --- the frame used by every traced function of the library -----------

ZEVD_TRACE_UNIT(unitZevdsock);

namespace {

int tracedDouble(int x) {
    ZEVD_TRACE_FUNCTION("ipcSock::tracedDouble");
    ZEVD_TRACE(trc, TRACE_DETAIL, "x <%d>\n", x);
    if (x < 0) return trc.exit(-1);
    return trc.exit(2 * x);
}

void tracedVoid(bool early) {
    ZEVD_TRACE_FUNCTION("ipcSock::tracedVoid");
    if (early) return;
    ZEVD_TRACE(trc, TRACE_FLOW, "late\n");
}

const TraceFunctionRecord *findRecord(const char *name) {
    struct Search {
        const char *name;
        const TraceFunctionRecord *found;
    } search{name, nullptr};
    TLG1_ForEachRecord(
        [](void *ctx, const TraceFunctionRecord *rec) {
            auto *s = static_cast<Search *>(ctx);
            if (strcmp(rec->name, s->name) == 0) s->found = rec;
        },
        &search);
    return search.found;
}

}  // namespace

TEST(TraceFrameTest, EntryLinesAndExitWithValue) {
    TraceCapture capture("all");
    EXPECT_EQ(tracedDouble(21), 42);
    EXPECT_EQ(tracedDouble(-3), -1);
    EXPECT_EQ(capture.texts(),
              (std::vector<std::string>{"Entry\n", "x <21>\n", "Exit: 0x2a\n", "Entry\n",
                                        "x <-3>\n", "Exit: 0xffffffffffffffff\n"}));
    // The exit event carries the line of its return, not of the entry.
    auto lineOf = [](const std::string &line) {
        size_t colon = line.find("tracedDouble:");
        return std::stoi(line.substr(colon + 13));
    };
    auto lines = capture.lines();
    ASSERT_EQ(lines.size(), 6u);
    EXPECT_GT(lineOf(lines[2]), lineOf(lines[0]));
    EXPECT_GT(lineOf(lines[2]), lineOf(lines[5]));
}

TEST(TraceFrameTest, VoidFunctionsExitAtEveryReturn) {
    TraceCapture capture("all");
    tracedVoid(true);
    tracedVoid(false);
    EXPECT_EQ(capture.texts(),
              (std::vector<std::string>{"Entry\n", "Exit\n", "Entry\n", "late\n", "Exit\n"}));
}

TEST(TraceFrameTest, NothingWrittenWithLevelsOff) {
    TraceCapture capture("none");
    EXPECT_EQ(tracedDouble(1), 2);
    tracedVoid(false);
    EXPECT_TRUE(capture.lines().empty()) << capture.joined();
}

TEST(TraceFrameTest, ExitEventOnlyWhenEntryWasWritten) {
    TraceCapture capture("ipcSock::tracedDouble=detail");
    EXPECT_EQ(tracedDouble(4), 8);
    EXPECT_EQ(capture.texts(), std::vector<std::string>{"x <4>\n"});
}

TEST(TraceFrameTest, RecordsCarryTheirNameUnitAndFlags) {
    TraceCapture capture("error");
    tracedDouble(1);
    ZEVA_SetInstanceName("abc");
    const TraceFunctionRecord *rec = findRecord("ipcSock::tracedDouble");
    ASSERT_NE(rec, nullptr);
    EXPECT_EQ(rec->nameLength, 21);
    EXPECT_EQ(rec->flags, 0x200u);
    EXPECT_EQ(rec->unit, &zevd::unitZevdsock);
    const TraceFunctionRecord *zeva = findRecord("ZEVA_SetInstanceName");
    ASSERT_NE(zeva, nullptr);
    EXPECT_EQ(zeva->nameLength, 20);
    EXPECT_EQ(zeva->flags, 0x200u);
    EXPECT_EQ(zeva->unit, &zevd::unitZeva);
    EXPECT_GT(zeva->line, 0);
}

TEST(TraceUnitTest, TheFiveUnits) {
    struct Expected {
        const TraceUnit *unit;
        const char *file;
        const char *time;
        const char *component;
    } units[] = {{&zevd::unitZevdipc, "zevdipc.cpp", "02:25:59", "ZEVD610"},
                 {&zevd::unitZevdsock, "zevdsock.cpp", "02:26:01", "ZEVD610"},
                 {&zevd::unitZevdlpc, "zevdlpc.cpp", "02:26:03", "ZEVD610"},
                 {&zevd::unitZevdchcl, "zevdchcl.cpp", "02:26:04", "ZEVDC610"},
                 {&zevd::unitZeva, "zeva.cpp", "02:26:08", "ZEVA610"}};
    for (const auto &e : units) {
        EXPECT_STREQ(e.unit->buildDate, "Aug 16 2006");
        EXPECT_STREQ(e.unit->fileName, e.file);
        EXPECT_STREQ(e.unit->buildTime, e.time);
        EXPECT_STREQ(e.unit->componentId, e.component);
    }
}
