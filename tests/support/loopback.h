// Addresses on 127.0.0.1, for the suites and the benchmarks alike.
#ifndef ZEVD_TESTS_SUPPORT_LOOPBACK_H
#define ZEVD_TESTS_SUPPORT_LOOPBACK_H

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdint>
#include <cstring>
#include <vector>

namespace zevd::test {

// 127.0.0.1:port (port in host order; 0 for any).
inline struct sockaddr_in loopbackAddress(uint16_t port) {
    struct sockaddr_in address;
    memset(&address, 0, sizeof address);
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

// The port that the socket fd is bound to (host order), or 0.
inline uint16_t boundPort(int fd) {
    struct sockaddr_in address;
    socklen_t length = sizeof address;
    memset(&address, 0, sizeof address);
    if (getsockname(fd, reinterpret_cast<struct sockaddr *>(&address), &length) != 0) return 0;
    return ntohs(address.sin_port);
}

// Sends datagram whole from the UDP socket fd to to; true when it went.
inline bool sendDatagram(int fd, const struct sockaddr_in &to, const std::vector<char> &datagram) {
    ssize_t n = sendto(fd, datagram.data(), datagram.size(), 0,
                       reinterpret_cast<const struct sockaddr *>(&to), sizeof to);
    return n == static_cast<ssize_t>(datagram.size());
}

}  // namespace zevd::test

#endif  // ZEVD_TESTS_SUPPORT_LOOPBACK_H
