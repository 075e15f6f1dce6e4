// Two socket transports on loopback that send to each other, raw sockets
// beside them, and message builders for the read and write tests.
#ifndef ZEVD_TESTS_SUPPORT_SOCK_PAIR_H
#define ZEVD_TESTS_SUPPORT_SOCK_PAIR_H

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <regex>
#include <string>
#include <vector>

#include "support/loopback.h"
#include "support/sock_probe.h"

namespace zevd::test {

// The transport configuration of the read and write suites, set before the
// first transport of the process reads it: the DCH on 127.0.0.1, a
// time-out of 3 seconds, the default pool and no settings file. Returns
// true, for a namespace-scope constant that the cases check.
inline bool setPairEnvironment() {
    setenv("ZEVA_DCH_ADDR", "127.0.0.1", 1);
    setenv("ZEVA_DCH_TIMEOUT", "3", 1);
    unsetenv("ZEVA_DCH_UDP_SOCKETS_IN_POOL");
    unsetenv("ZEVA_SETTINGS_FILE");
    return true;
}

// Two transports with sockets of their own, each sending to the other's
// UDP port on 127.0.0.1.
struct SockPair {
    std::unique_ptr<ipcSockProbe> a = std::make_unique<ipcSockProbe>(1, 1, 0);
    std::unique_ptr<ipcSockProbe> b = std::make_unique<ipcSockProbe>(1, 1, 0);
    SockPair() {
        struct sockaddr_in toB = loopbackAddress(b->sockPortUDP());
        struct sockaddr_in toA = loopbackAddress(a->sockPortUDP());
        a->setClientAddr(&toB, sizeof toB);
        b->setClientAddr(&toA, sizeof toA);
    }
};

// A message of length bytes: the length word, then a pattern that differs
// from one message to the next through seed.
inline std::vector<char> makeMessage(uint32_t length, int seed = 0) {
    std::vector<char> message(length);
    for (uint32_t i = 0; i < length; ++i) message[i] = static_cast<char>((i * 7 + 3 + seed) & 0xFF);
    uint32_t word = htonl(length);
    memcpy(message.data(), &word, std::min<size_t>(sizeof word, length));
    return message;
}

// A datagram of size bytes whose first four bytes announce lengthWord.
inline std::vector<char> lyingDatagram(uint32_t lengthWord, size_t size) {
    std::vector<char> datagram(size, 'x');
    uint32_t word = htonl(lengthWord);
    memcpy(datagram.data(), &word, std::min(sizeof word, size));
    return datagram;
}

// A plain UDP socket that sends raw datagrams to a transport's UDP port.
class RawSender {
public:
    explicit RawSender(uint16_t port)
        : fd_(socket(AF_INET, SOCK_DGRAM, 0)), to_(loopbackAddress(port)) {}
    ~RawSender() {
        if (fd_ >= 0) close(fd_);
    }
    RawSender(const RawSender &) = delete;
    RawSender &operator=(const RawSender &) = delete;
    bool send(const std::vector<char> &datagram) const { return sendDatagram(fd_, to_, datagram); }
    // The port it sends from (host order), once it has sent; 0 before.
    uint16_t port() const { return boundPort(fd_); }

private:
    int fd_;
    struct sockaddr_in to_;
};

// Fills the non-blocking socket fd until the kernel takes nothing more,
// also after 300 ms for acknowledgements to free what they can (loopback
// delays them by up to 40 ms). Returns the bytes taken; errno is EAGAIN
// when the socket ended up blocked.
inline size_t fillUntilBlocked(int fd) {
    size_t filled = 0;
    std::vector<char> chunk(1024, 'f');
    for (int round = 0; round < 100; ++round) {
        for (int i = 0; i < 100000; ++i) {
            ssize_t n = send(fd, chunk.data(), chunk.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
            if (n <= 0) break;
            filled += static_cast<size_t>(n);
        }
        struct pollfd p = {fd, POLLOUT, 0};
        if (poll(&p, 1, 300) != 0) continue;
        if (send(fd, chunk.data(), 1, MSG_DONTWAIT | MSG_NOSIGNAL) == 1) {
            ++filled;
            continue;
        }
        if (errno == EAGAIN) return filled;
    }
    return filled;
}

// A trace text with its addresses (after '@' or '[') and errno values
// replaced, for
// comparing whole sequences of lines.
inline std::string normalized(const std::string &text) {
    static const std::regex pointer("(@|\\[)(0x[0-9a-f]+|\\(nil\\))");
    static const std::regex errnoValue("errno=[0-9]+");
    return std::regex_replace(std::regex_replace(text, pointer, "$1P"), errnoValue, "errno=N");
}

}  // namespace zevd::test

#endif  // ZEVD_TESTS_SUPPORT_SOCK_PAIR_H
