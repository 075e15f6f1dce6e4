// Runs part of a test in a new run of the test program, for state that a
// process reads once (the socket transport's configuration and pool).
#ifndef ZEVD_TESTS_SUPPORT_FRESH_PROCESS_H
#define ZEVD_TESTS_SUPPORT_FRESH_PROCESS_H

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>

namespace zevd::test {

// Runs body, writes every failure it recorded to standard error (which the
// parent shows) and ends the process: status 0 when nothing failed.
template <typename Body>
[[noreturn]] void runAndExit(Body body) {
    body();
    const ::testing::TestResult *result =
        ::testing::UnitTest::GetInstance()->current_test_info()->result();
    bool failed = false;
    for (int i = 0; i < result->total_part_count(); ++i) {
        const ::testing::TestPartResult &part = result->GetTestPartResult(i);
        if (!part.failed()) continue;
        failed = true;
        std::fprintf(stderr, "%s:%d: %s\n", part.file_name() ? part.file_name() : "?",
                     part.line_number(), part.message());
    }
    std::fflush(nullptr);
    std::exit(failed ? 1 : 0);
}

}  // namespace zevd::test

// The statements run in a child process of the given death-test style.
// Expectations are checked there; the child ends with status 0 when all of
// them held, and its failures are shown with the test's.
#define ZEVD_IN_CHILD_PROCESS(style, ...)                                                       \
    do {                                                                                        \
        GTEST_FLAG_SET(death_test_style, style);                                                \
        auto zevdChildBody = [&]() { __VA_ARGS__; };                                            \
        EXPECT_EXIT(::zevd::test::runAndExit(zevdChildBody), ::testing::ExitedWithCode(0), ""); \
    } while (0)

// The statements run in a re-executed copy of the program that runs this
// test alone (the "threadsafe" death-test style starts the binary anew
// rather than forking), so nothing read earlier in this process leaks in.
#define ZEVD_IN_FRESH_PROCESS(...) ZEVD_IN_CHILD_PROCESS("threadsafe", __VA_ARGS__)

// The statements run in a forked child (the "fast" style), which keeps what
// this process holds but leaves it behind: for threads that are never joined.
#define ZEVD_IN_FORKED_CHILD(...) ZEVD_IN_CHILD_PROCESS("fast", __VA_ARGS__)

#endif  // ZEVD_TESTS_SUPPORT_FRESH_PROCESS_H
