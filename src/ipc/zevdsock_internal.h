// Helpers shared by the socket transport's source files; not part of any
// interface.
#ifndef ZEVD_IPC_ZEVDSOCK_INTERNAL_H
#define ZEVD_IPC_ZEVDSOCK_INTERNAL_H

#include <poll.h>
#include <sys/select.h>

#include <cerrno>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <climits>
#include <cstdint>

namespace zevd {

// Size of the label buffers of the address trace lines.
inline constexpr int kSockLabelSize = 64;

// True when fd may go into an fd_set: FD_SET outside this range writes past
// the set. Only the server loop still waits in select; every other wait
// polls, so that a process may hold descriptors above FD_SETSIZE.
inline bool fitsSelectSet(int fd) {
    return fd >= 0 && fd < FD_SETSIZE;
}

// Waits until fd has one of events, or until deadline (nullptr: no limit),
// as select waits on one descriptor: 1 when it is ready (an error or a
// hang-up counts as ready), 0 once the deadline has passed, -1 with errno
// on failure (EINTR for a signal; EBADF for a descriptor that is missing
// or not open).
inline int pollOne(int fd, short events, const std::chrono::steady_clock::time_point *deadline) {
    if (fd < 0) {
        errno = EBADF;
        return -1;
    }
    for (;;) {
        int waitMs = -1;
        if (deadline != nullptr) {
            // Rounded up: poll must not come back before the deadline and
            // report a time-out early.
            auto left = std::chrono::ceil<std::chrono::milliseconds>(
                            *deadline - std::chrono::steady_clock::now())
                            .count();
            waitMs = static_cast<int>(std::clamp<long long>(left, 0, INT_MAX));
        }
        struct pollfd watched = {fd, events, 0};
        int count = poll(&watched, 1, waitMs);
        if (count > 0 && (watched.revents & POLLNVAL) != 0) {
            errno = EBADF;
            return -1;
        }
        if (count != 0) return count;
        // A deadline further off than poll can wait (24 days) is waited
        // for in several steps.
        if (waitMs != INT_MAX) return 0;
    }
}

// A word that the constructing thread and the server's receive thread both
// write; every access after the thread starts goes through here.
inline int32_t loadShared(int32_t &field) {
    return std::atomic_ref<int32_t>(field).load(std::memory_order_relaxed);
}

inline void storeShared(int32_t &field, int32_t value) {
    std::atomic_ref<int32_t>(field).store(value, std::memory_order_relaxed);
}

// The errors a UDP socket that asked for them (IP_RECVERR) reports for a
// datagram it sent earlier, from an ICMP answer, on whatever call comes next:
// they say nothing of the receive or send at hand.
inline bool sentDatagramRefused(int error) {
    return error == ECONNREFUSED || error == EHOSTUNREACH || error == ENETUNREACH ||
           error == EHOSTDOWN || error == ENONET;
}

}  // namespace zevd

#endif  // ZEVD_IPC_ZEVDSOCK_INTERNAL_H
