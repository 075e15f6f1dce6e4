// Loopback ports for test servers: found free by binding, never fixed.
#ifndef ZEVD_TESTS_SUPPORT_FREE_PORT_H
#define ZEVD_TESTS_SUPPORT_FREE_PORT_H

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <random>

#include "support/loopback.h"

namespace zevd::test {

// Binds a socket of type (SOCK_DGRAM, SOCK_STREAM) to 127.0.0.1:port and
// returns it, or -1 when the port is taken. A stream socket listens, so that
// nothing else can bind the port while it is held.
inline int bindLoopback(int type, uint16_t port) {
    int fd = socket(AF_INET, type | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;
    struct sockaddr_in address = loopbackAddress(port);
    if (bind(fd, reinterpret_cast<struct sockaddr *>(&address), sizeof address) != 0 ||
        (type == SOCK_STREAM && listen(fd, 16) != 0)) {
        close(fd);
        return -1;
    }
    return fd;
}

// The first port the kernel hands out on its own (bind to port 0, connect):
// the low end of /proc/sys/net/ipv4/ip_local_port_range, 32768 if unknown.
inline int firstEphemeralPort() {
    int low = 32768;
    if (FILE *range = std::fopen("/proc/sys/net/ipv4/ip_local_port_range", "r")) {
        if (std::fscanf(range, "%d", &low) != 1) low = 32768;
        std::fclose(range);
    }
    return low;
}

// A port that is free on 127.0.0.1 for UDP and TCP alike (the DCH binds
// both), chosen at random below the kernel's own range: the DCH binds it a
// couple of seconds later, and in that time no socket of a test running
// beside this one may be given it by the kernel. 0 when none turned up in
// 100 tries.
inline uint16_t freeLoopbackPort() {
    int high = std::min(firstEphemeralPort(), 65536) - 1;
    int low = std::min(10000, high - 1000);
    std::random_device seed;
    std::mt19937 random(seed());
    std::uniform_int_distribution<int> pick(low, high);
    for (int attempt = 0; attempt < 100; ++attempt) {
        auto port = static_cast<uint16_t>(pick(random));
        int udp = bindLoopback(SOCK_DGRAM, port);
        if (udp < 0) continue;
        int tcp = bindLoopback(SOCK_STREAM, port);
        close(udp);
        if (tcp >= 0) {
            close(tcp);
            return port;
        }
    }
    return 0;
}

}  // namespace zevd::test

#endif  // ZEVD_TESTS_SUPPORT_FREE_PORT_H
