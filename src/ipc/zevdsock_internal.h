// Helpers shared by the socket transport's source files; not part of any
// interface.
#ifndef ZEVD_IPC_ZEVDSOCK_INTERNAL_H
#define ZEVD_IPC_ZEVDSOCK_INTERNAL_H

#include <netinet/in.h>
#include <poll.h>
#include <sys/select.h>

#include <cerrno>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>

namespace zevd {

// Size of the label buffers of the address trace lines.
inline constexpr int kSockLabelSize = 64;

// True when fd may go into an fd_set: FD_SET outside this range writes past
// the set. Only the server's read-mask functions still fill sets; every wait
// polls, so that a process may hold descriptors above FD_SETSIZE.
inline bool fitsSelectSet(int fd) {
    return fd >= 0 && fd < FD_SETSIZE;
}

// The address in dotted-decimal text, as inet_ntop writes it, into name;
// "0.0.0.0" (cut to size) when size cannot hold it. inet_ntoa would share
// one buffer between threads, and inet_ntop goes through the printf
// machinery: the server loop names the sender of every datagram.
inline void dottedAddress(const struct sockaddr_in &address, char *name, size_t size) {
    unsigned char octets[4];
    memcpy(octets, &address.sin_addr.s_addr, sizeof octets);
    char text[INET_ADDRSTRLEN];
    size_t length = 0;
    for (size_t i = 0; i < sizeof octets; ++i) {
        unsigned value = octets[i];
        if (i > 0) text[length++] = '.';
        if (value >= 100) text[length++] = static_cast<char>('0' + value / 100);
        if (value >= 10) text[length++] = static_cast<char>('0' + value / 10 % 10);
        text[length++] = static_cast<char>('0' + value % 10);
    }
    text[length] = '\0';
    if (length < size)
        memcpy(name, text, length + 1);
    else if (size > 0)
        snprintf(name, size, "0.0.0.0");
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
