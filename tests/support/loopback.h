// Addresses on 127.0.0.1, for the suites and the benchmarks alike.
#ifndef ZEVD_TESTS_SUPPORT_LOOPBACK_H
#define ZEVD_TESTS_SUPPORT_LOOPBACK_H

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

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

// A sender that is not the DCH: a UDP socket on a port of its own. By
// default on 127.0.0.2, another host as far as the DCH's clients are
// concerned (it reaches this host's sockets as any other host on the
// network would, but is not the DCH's address); given 127.0.0.1, another
// socket of the DCH's own host.
class Stranger {
public:
    explicit Stranger(in_addr_t address = htonl(INADDR_LOOPBACK + 1))
        : fd_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        struct sockaddr_in self = loopbackAddress(0);
        self.sin_addr.s_addr = address;
        if (fd_ >= 0 && bind(fd_, reinterpret_cast<struct sockaddr *>(&self), sizeof self) != 0) {
            close(fd_);
            fd_ = -1;
        }
    }
    ~Stranger() {
        if (fd_ >= 0) close(fd_);
    }
    Stranger(const Stranger &) = delete;
    Stranger &operator=(const Stranger &) = delete;

    bool ready() const { return fd_ >= 0; }
    uint16_t port() const { return boundPort(fd_); }
    // Sends datagram to to (127.0.0.1:port unless another address is given).
    bool sendTo(uint16_t port, const std::vector<char> &datagram,
                in_addr_t address = htonl(INADDR_LOOPBACK)) const {
        struct sockaddr_in to = loopbackAddress(port);
        to.sin_addr.s_addr = address;
        return sendDatagram(fd_, to, datagram);
    }
    int fd() const { return fd_; }

private:
    int fd_;
};

}  // namespace zevd::test

#endif  // ZEVD_TESTS_SUPPORT_LOOPBACK_H
