// The scheduler slice of one thread: on kernels whose fair scheduler lets a
// thread ask for a slice of its own, how long it may run before a thread it
// woke takes its processor.
#ifndef ZEVD_COMMON_THREAD_SLICE_H
#define ZEVD_COMMON_THREAD_SLICE_H

#include <sched.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

namespace zevd {

// The kernel's struct sched_attr, first version: the C library declares
// none, and the kernel's own header clashes with <sched.h>.
struct SchedAttr {
    uint32_t size = sizeof(SchedAttr);
    uint32_t policy = 0;
    uint64_t flags = 0;
    int32_t nice = 0;
    uint32_t priority = 0;
    uint64_t runtime = 0;  // a normal thread's slice, in ns
    uint64_t deadline = 0;
    uint64_t period = 0;
};
static_assert(sizeof(SchedAttr) == 48);

// Asks for a slice of nanoseconds for thread tid (0: the calling one). Only
// the slice changes: the thread's policy, nice value and flags are read
// first and given back as they were, so no privilege is needed. A thread
// that is not a normal one (real-time or deadline) is left alone: EINVAL.
// Returns 0, or the errno of a kernel that refuses; one without such slices
// ignores it.
inline int setThreadSlice(pid_t tid, uint64_t nanoseconds) {
    SchedAttr attr;
    if (syscall(SYS_sched_getattr, tid, &attr, sizeof attr, 0) != 0) return errno;
    if (attr.policy != SCHED_OTHER && attr.policy != SCHED_BATCH) return EINVAL;
    attr.size = sizeof attr;
    attr.runtime = nanoseconds;
    return syscall(SYS_sched_setattr, tid, &attr, 0) == 0 ? 0 : errno;
}

// The slice of thread tid, the kernel's default when it asked for none; 0
// when the kernel keeps no slices per thread or the thread is gone.
inline uint64_t threadSlice(pid_t tid) {
    SchedAttr attr;
    if (syscall(SYS_sched_getattr, tid, &attr, sizeof attr, 0) != 0) return 0;
    return attr.runtime;
}

}  // namespace zevd

#endif  // ZEVD_COMMON_THREAD_SLICE_H
