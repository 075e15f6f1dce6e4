// Helpers shared by the socket transport's source files; not part of any
// interface.
#ifndef ZEVD_IPC_ZEVDSOCK_INTERNAL_H
#define ZEVD_IPC_ZEVDSOCK_INTERNAL_H

#include <sys/select.h>

#include <cerrno>

#include <atomic>
#include <cstdint>

namespace zevd {

// Size of the label buffers of the address trace lines.
inline constexpr int kSockLabelSize = 64;

// True when fd may go into an fd_set: FD_SET outside this range writes past
// the set.
inline bool fitsSelectSet(int fd) {
    return fd >= 0 && fd < FD_SETSIZE;
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
