// Loopback ports for test servers: found free by binding, never fixed.
#ifndef ZEVD_TESTS_SUPPORT_FREE_PORT_H
#define ZEVD_TESTS_SUPPORT_FREE_PORT_H

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>

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

// A port that is free on 127.0.0.1 for UDP and TCP alike (the DCH binds
// both), found by binding UDP port 0 and then TCP on the same number; 0 when
// none turned up in 100 tries.
inline uint16_t freeLoopbackPort() {
    for (int attempt = 0; attempt < 100; ++attempt) {
        int udp = bindLoopback(SOCK_DGRAM, 0);
        if (udp < 0) continue;
        uint16_t port = boundPort(udp);
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
