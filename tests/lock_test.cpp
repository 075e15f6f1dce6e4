// ZEVA_GetLock, ZEVA_ReleaseLock and the environment-variables lock.
#include <gtest/gtest.h>
#include <pthread.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "support/trace_capture.h"
#include "zev0.h"
#include "zevd610.h"

namespace {

using zevd::test::pointerText;
using zevd::test::TraceCapture;

// The tag only names the caller in messages; any address will do.
void *const kTag = reinterpret_cast<void *>(static_cast<uintptr_t>(0x5eed0));

class ErrorCheckMutex {
public:
    ErrorCheckMutex() {
        pthread_mutexattr_t attr;
        pthread_mutexattr_init(&attr);
        pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_ERRORCHECK);
        pthread_mutex_init(&mutex_, &attr);
        pthread_mutexattr_destroy(&attr);
    }
    ~ErrorCheckMutex() { pthread_mutex_destroy(&mutex_); }
    pthread_mutex_t *get() { return &mutex_; }

private:
    pthread_mutex_t mutex_;
};

// Tries the mutex from another thread: EBUSY while someone holds it.
int trylockElsewhere(pthread_mutex_t *mutex) {
    struct Args {
        pthread_mutex_t *mutex;
        int rc;
    } args{mutex, -1};
    pthread_t thread;
    int created = pthread_create(
        &thread, nullptr,
        [](void *p) -> void * {
            auto *a = static_cast<Args *>(p);
            a->rc = pthread_mutex_trylock(a->mutex);
            if (a->rc == 0) pthread_mutex_unlock(a->mutex);
            return nullptr;
        },
        &args);
    if (created != 0) return -2;
    pthread_join(thread, nullptr);
    return args.rc;
}

TEST(LockTest, NullMutexGivesMinusOneAndNamesTheTag) {
    TraceCapture capture("error");
    EXPECT_EQ(ZEVA_GetLock(nullptr, kTag), -1);
    auto texts = capture.texts();
    ASSERT_EQ(texts.size(), 1u) << capture.joined();
    EXPECT_EQ(texts[0], "Error: pthread_mutex_lock failed, lock parameter is NULL [@" +
                            pointerText(kTag) + "]\n");
}

TEST(LockTest, NullMutexWithoutErrorLevelIsSilent) {
    TraceCapture capture("none");
    EXPECT_EQ(ZEVA_GetLock(nullptr, kTag), -1);
    EXPECT_TRUE(capture.lines().empty()) << capture.joined();
}

TEST(LockTest, LockAndReleaseSucceed) {
    TraceCapture capture("error");
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    ASSERT_EQ(ZEVA_GetLock(&mutex, kTag), 0);
    EXPECT_EQ(trylockElsewhere(&mutex), EBUSY);
    EXPECT_EQ(ZEVA_ReleaseLock(&mutex, kTag), 0);
    EXPECT_EQ(trylockElsewhere(&mutex), 0);
    EXPECT_TRUE(capture.lines().empty()) << capture.joined();
}

TEST(LockTest, ReleaseOfAMutexNotOwnedFails) {
    ErrorCheckMutex mutex;
    TraceCapture capture("error");
    // pthread reports through its return code and leaves errno alone; the
    // result is errno all the same, so give it a value that cannot be
    // mistaken for the return code.
    errno = ENOTRECOVERABLE;
    int result = ZEVA_ReleaseLock(mutex.get(), kTag);
    EXPECT_NE(result, 0);
    EXPECT_EQ(result, ENOTRECOVERABLE);
    EXPECT_TRUE(capture.hasText("Error: pthread_mutex_unlock failed, rc=" + std::to_string(EPERM) +
                                " errno=" + std::to_string(ENOTRECOVERABLE) + " [@" +
                                pointerText(kTag) + "]"))
        << capture.joined();
    EXPECT_EQ(capture.lines().size(), 1u) << capture.joined();
}

TEST(LockTest, RelockOfAnErrorCheckMutexFails) {
    ErrorCheckMutex mutex;
    ASSERT_EQ(ZEVA_GetLock(mutex.get(), kTag), 0);
    TraceCapture capture("error");
    errno = ENOTRECOVERABLE;
    int result = ZEVA_GetLock(mutex.get(), kTag);
    EXPECT_EQ(result, ENOTRECOVERABLE);
    EXPECT_TRUE(capture.hasText("Error: pthread_mutex_lock failed, rc=" + std::to_string(EDEADLK) +
                                " errno=" + std::to_string(ENOTRECOVERABLE) + " [@" +
                                pointerText(kTag) + "]"))
        << capture.joined();
    EXPECT_EQ(ZEVA_ReleaseLock(mutex.get(), kTag), 0);
}

// A trace output that changes errno while it writes, as a file that
// cannot be written or a first look-up of the time zone does.
class ErrnoChangingSink {
public:
    ErrnoChangingSink() {
        TLG1_SetSink(&ErrnoChangingSink::sink, this);
        TLG1_Configure("error");
    }
    ~ErrnoChangingSink() { TLG1_SetSink(nullptr, nullptr); }
    ErrnoChangingSink(const ErrnoChangingSink &) = delete;
    ErrnoChangingSink &operator=(const ErrnoChangingSink &) = delete;

    std::vector<std::string> texts;

private:
    static void sink(void *ctx, const char *line, size_t len) {
        static_cast<ErrnoChangingSink *>(ctx)->texts.push_back(
            zevd::test::traceText(std::string(line, len)));
        errno = EIO;
    }
};

TEST(LockTest, FailedReleaseReturnsTheErrnoItReports) {
    ErrorCheckMutex mutex;
    ErrnoChangingSink trace;
    errno = ENOTRECOVERABLE;
    EXPECT_EQ(ZEVA_ReleaseLock(mutex.get(), kTag), ENOTRECOVERABLE);
    EXPECT_EQ(trace.texts, std::vector<std::string>(
                               {"Error: pthread_mutex_unlock failed, rc=" + std::to_string(EPERM) +
                                " errno=" + std::to_string(ENOTRECOVERABLE) + " [@" +
                                pointerText(kTag) + "]\n"}));
}

TEST(LockTest, FailedLockReturnsTheErrnoItReports) {
    ErrorCheckMutex mutex;
    ASSERT_EQ(ZEVA_GetLock(mutex.get(), kTag), 0);
    {
        ErrnoChangingSink trace;
        errno = ENOTRECOVERABLE;
        EXPECT_EQ(ZEVA_GetLock(mutex.get(), kTag), ENOTRECOVERABLE);
        EXPECT_EQ(
            trace.texts,
            std::vector<std::string>(
                {"Error: pthread_mutex_lock failed, rc=" + std::to_string(EDEADLK) +
                 " errno=" + std::to_string(ENOTRECOVERABLE) + " [@" + pointerText(kTag) + "]\n"}));
    }
    EXPECT_EQ(ZEVA_ReleaseLock(mutex.get(), kTag), 0);
}

TEST(LockTest, ReleaseOfNullIsAnInvalidArgument) {
    TraceCapture capture("error");
    EXPECT_EQ(ZEVA_ReleaseLock(nullptr, kTag), EINVAL);
    EXPECT_TRUE(capture.hasText("Error: pthread_mutex_unlock failed, rc=" + std::to_string(EINVAL) +
                                " errno=" + std::to_string(EINVAL) + " [@" + pointerText(kTag) +
                                "]"))
        << capture.joined();
}

TEST(LockTest, EnvVarsInitLockIsOneUsableMutex) {
    pthread_mutex_t *first = ZEVA_GetEnvVarsInitLock();
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(ZEVA_GetEnvVarsInitLock(), first);
    EXPECT_EQ(ZEVA_GetEnvVarsInitLock(), first);

    ASSERT_EQ(ZEVA_GetLock(first, nullptr), 0);
    EXPECT_EQ(trylockElsewhere(ZEVA_GetEnvVarsInitLock()), EBUSY);
    EXPECT_EQ(ZEVA_ReleaseLock(first, nullptr), 0);
    EXPECT_EQ(trylockElsewhere(ZEVA_GetEnvVarsInitLock()), 0);
}

}  // namespace
