// The debug switch (ZEVA_VERBOSE) and the transport kind (ZEVA_DCH_IPCTYPE).
// Both are read once and cached for the life of the process, so every case
// runs in a child forked before anything has touched the caches.
#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include "support/trace_capture.h"
#include "zevd610.h"

// Not exported; the tests link the static library and reach it directly.
extern "C" int VX_Debug_Initialize(void);

namespace {

using zevd::test::TraceCapture;

// A check made inside the child: on failure the child says why on
// standard error and ends with status 1, which fails the parent's
// expectation of status 0 and shows the text.
#define CHILD_CHECK(cond, why)                                         \
    do {                                                               \
        if (!(cond)) {                                                 \
            std::string text_ = std::string(why);                      \
            fprintf(stderr, "line %d: %s\n", __LINE__, text_.c_str()); \
            fflush(stderr);                                            \
            _exit(1);                                                  \
        }                                                              \
    } while (0)

// Runs body in a fresh child; the child ends with status 0 when every
// CHILD_CHECK held.
void inFreshChild(const std::function<void()> &body) {
    EXPECT_EXIT(
        {
            body();
            fflush(stderr);
            _exit(0);
        },
        ::testing::ExitedWithCode(0), "");
}

void setVerbose(const char *value) {
    if (value == nullptr)
        unsetenv("ZEVA_VERBOSE");
    else
        setenv("ZEVA_VERBOSE", value, 1);
}

std::string joinTexts(const std::vector<std::string> &texts) {
    std::string all;
    for (const auto &t : texts) all += "[" + t + "]";
    return all;
}

TEST(DebugSwitchDeathTest, UnsetGivesZero) {
    inFreshChild([] {
        setVerbose(nullptr);
        int value = VX_Debug();
        CHILD_CHECK(value == 0, "VX_Debug() = " + std::to_string(value));
    });
}

struct VerboseCase {
    const char *value;
    int expected;
};

class VerboseValueDeathTest : public ::testing::TestWithParam<VerboseCase> {};

TEST_P(VerboseValueDeathTest, MapsFirstCharacterCaseSensitively) {
    const VerboseCase c = GetParam();
    inFreshChild([c] {
        setVerbose(c.value);
        int value = VX_Debug();
        CHILD_CHECK(value == c.expected,
                    std::string("ZEVA_VERBOSE=<") + c.value + "> gave " + std::to_string(value));
    });
}

INSTANTIATE_TEST_SUITE_P(Values, VerboseValueDeathTest,
                         ::testing::Values(VerboseCase{"Yes", 1}, VerboseCase{"DEBUG", 2},
                                           VerboseCase{"Y", 1}, VerboseCase{"D", 2},
                                           VerboseCase{"yes", 0}, VerboseCase{"d", 0},
                                           VerboseCase{"", 0}, VerboseCase{"N", 0},
                                           VerboseCase{" Y", 0}));

TEST(DebugSwitchDeathTest, ReadsTheVariableOnlyOnce) {
    inFreshChild([] {
        setVerbose("Yes");
        int first = VX_Debug();
        setVerbose("DEBUG");
        int second = VX_Debug();
        CHILD_CHECK(first == 1, "first VX_Debug() = " + std::to_string(first));
        CHILD_CHECK(second == 1, "VX_Debug() after the change = " + std::to_string(second));
    });
}

TEST(DebugSwitchDeathTest, InitializeReturnsTheSwitchCharacter) {
    inFreshChild([] {
        setVerbose("DEBUG");
        int value = VX_Debug_Initialize();
        CHILD_CHECK(value == 'D', "VX_Debug_Initialize() = " + std::to_string(value));
    });
}

TEST(DebugSwitchDeathTest, InitializeReturnsNWhenUnsetAndNulWhenEmpty) {
    inFreshChild([] {
        setVerbose(nullptr);
        int value = VX_Debug_Initialize();
        CHILD_CHECK(value == 'N', "unset: VX_Debug_Initialize() = " + std::to_string(value));
    });
    inFreshChild([] {
        setVerbose("");
        int value = VX_Debug_Initialize();
        CHILD_CHECK(value == 0, "empty: VX_Debug_Initialize() = " + std::to_string(value));
    });
}

TEST(DebugSwitchDeathTest, InitializeRunsOnceAndItsExitCarriesTheCharacter) {
    inFreshChild([] {
        setVerbose("DEBUG");
        TraceCapture capture("all");
        int first = VX_Debug();
        int second = VX_Debug();
        CHILD_CHECK(first == 2 && second == 2,
                    "VX_Debug() = " + std::to_string(first) + ", " + std::to_string(second));
        auto texts = capture.textsOf("VX_Debug_Initialize");
        CHILD_CHECK(texts == std::vector<std::string>({"Entry\n", "Exit: 0x44\n"}),
                    "VX_Debug_Initialize wrote " + joinTexts(texts));
    });
}

TEST(DebugSwitchDeathTest, UnsetWritesNoVerboseLockLines) {
    inFreshChild([] {
        setVerbose(nullptr);
        TraceCapture capture("all");
        pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
        int locked = ZEVA_GetLock(&mutex, nullptr);
        int released = ZEVA_ReleaseLock(&mutex, nullptr);
        CHILD_CHECK(locked == 0 && released == 0,
                    "lock " + std::to_string(locked) + " release " + std::to_string(released));
        // The capture is live: the switch was read inside ZEVA_GetLock and
        // its exit event ('N') was written.
        CHILD_CHECK(capture.hasText("Exit: 0x4e"), "no switch exit in " + capture.joined());
        auto lockTexts = capture.textsOf("ZEVA_GetLock");
        auto releaseTexts = capture.textsOf("ZEVA_ReleaseLock");
        CHILD_CHECK(lockTexts.empty(), "ZEVA_GetLock wrote " + joinTexts(lockTexts));
        CHILD_CHECK(releaseTexts.empty(), "ZEVA_ReleaseLock wrote " + joinTexts(releaseTexts));
        CHILD_CHECK(!capture.contains("<<Entry>>") && !capture.contains("<<Exit"),
                    capture.joined());
    });
}

TEST(DebugSwitchDeathTest, DebugValueWritesNoVerboseLockLines) {
    inFreshChild([] {
        setVerbose("DEBUG");  // 2: only "Y" turns the lock lines on
        TraceCapture capture("all");
        pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
        int locked = ZEVA_GetLock(&mutex, nullptr);
        int released = ZEVA_ReleaseLock(&mutex, nullptr);
        CHILD_CHECK(locked == 0 && released == 0,
                    "lock " + std::to_string(locked) + " release " + std::to_string(released));
        CHILD_CHECK(capture.hasText("Exit: 0x44"), "no switch exit in " + capture.joined());
        CHILD_CHECK(!capture.contains("<<Entry>>") && !capture.contains("<<Exit"),
                    capture.joined());
    });
}

TEST(DebugSwitchDeathTest, VerboseLockWritesEntryAndExitLines) {
    inFreshChild([] {
        setVerbose("Y");
        TraceCapture capture("all");
        pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
        int locked = ZEVA_GetLock(&mutex, nullptr);
        int released = ZEVA_ReleaseLock(&mutex, nullptr);
        CHILD_CHECK(locked == 0 && released == 0,
                    "lock " + std::to_string(locked) + " release " + std::to_string(released));
        // Plain lines, not entry and exit events.
        auto lockTexts = capture.textsOf("ZEVA_GetLock");
        CHILD_CHECK(lockTexts == std::vector<std::string>({"<<Entry>>\n", "<<Exit: 0>>\n"}),
                    "ZEVA_GetLock wrote " + joinTexts(lockTexts));
        auto releaseTexts = capture.textsOf("ZEVA_ReleaseLock");
        CHILD_CHECK(releaseTexts == std::vector<std::string>({"<<Entry>>\n", "<<Exit: 0>>\n"}),
                    "ZEVA_ReleaseLock wrote " + joinTexts(releaseTexts));
    });
}

TEST(DebugSwitchDeathTest, VerboseLockFailureStatesItsResult) {
    inFreshChild([] {
        setVerbose("Y");
        TraceCapture capture("all");
        int locked = ZEVA_GetLock(nullptr, nullptr);
        CHILD_CHECK(locked == -1, "ZEVA_GetLock(NULL) = " + std::to_string(locked));
        auto texts = capture.textsOf("ZEVA_GetLock");
        CHILD_CHECK(
            texts.size() == 3 && texts.front() == "<<Entry>>\n" && texts.back() == "<<Exit: -1>>\n",
            "ZEVA_GetLock wrote " + joinTexts(texts));
    });
}

TEST(DebugSwitchDeathTest, VerboseWithoutEntryLevelWritesNoLockLines) {
    inFreshChild([] {
        setVerbose("Y");
        TraceCapture capture("error+detail+flow");
        pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
        int locked = ZEVA_GetLock(&mutex, nullptr);
        int released = ZEVA_ReleaseLock(&mutex, nullptr);
        CHILD_CHECK(locked == 0 && released == 0,
                    "lock " + std::to_string(locked) + " release " + std::to_string(released));
        CHILD_CHECK(capture.lines().empty(), "wrote " + capture.joined());
    });
}

void setIPCtype(const char *value) {
    if (value == nullptr)
        unsetenv("ZEVA_DCH_IPCTYPE");
    else
        setenv("ZEVA_DCH_IPCTYPE", value, 1);
}

TEST(IPCtypeDeathTest, UnsetGivesSockets) {
    inFreshChild([] {
        setIPCtype(nullptr);
        int kind = ZEVA_GetIPCtype();
        CHILD_CHECK(kind == 1, "ZEVA_GetIPCtype() = " + std::to_string(kind));
    });
}

TEST(IPCtypeDeathTest, TwoGivesLPC) {
    inFreshChild([] {
        setIPCtype("2");
        int kind = ZEVA_GetIPCtype();
        CHILD_CHECK(kind == 2, "ZEVA_GetIPCtype() = " + std::to_string(kind));
    });
}

TEST(IPCtypeDeathTest, KindIsCachedOnceNotZero) {
    inFreshChild([] {
        setIPCtype("2");
        int first = ZEVA_GetIPCtype();
        setIPCtype("1");
        int second = ZEVA_GetIPCtype();
        unsetenv("ZEVA_DCH_IPCTYPE");
        int third = ZEVA_GetIPCtype();
        CHILD_CHECK(first == 2 && second == 2 && third == 2,
                    "ZEVA_GetIPCtype() = " + std::to_string(first) + ", " + std::to_string(second) +
                        ", " + std::to_string(third));
    });
}

TEST(IPCtypeDeathTest, TextGivesZeroAndIsReadAgain) {
    inFreshChild([] {
        setIPCtype("abc");
        int first = ZEVA_GetIPCtype();
        int second = ZEVA_GetIPCtype();
        setIPCtype("2");
        int third = ZEVA_GetIPCtype();
        CHILD_CHECK(first == 0, "abc: ZEVA_GetIPCtype() = " + std::to_string(first));
        CHILD_CHECK(second == 0, "abc again: ZEVA_GetIPCtype() = " + std::to_string(second));
        CHILD_CHECK(third == 2, "after 2: ZEVA_GetIPCtype() = " + std::to_string(third));
    });
}

TEST(IPCtypeDeathTest, NoRangeCheck) {
    inFreshChild([] {
        setIPCtype("7");
        int kind = ZEVA_GetIPCtype();
        CHILD_CHECK(kind == 7, "ZEVA_GetIPCtype() = " + std::to_string(kind));
    });
}

}  // namespace
