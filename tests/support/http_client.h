// A plain HTTP/1.1 client on loopback for the metrics server's tests and
// benchmark: it sends exactly the bytes it is given, so a test can send what
// no real client would, and reads the answer with a bounded wait.
#ifndef ZEVD_TESTS_SUPPORT_HTTP_CLIENT_H
#define ZEVD_TESTS_SUPPORT_HTTP_CLIENT_H

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <string>

#include "support/loopback.h"

namespace zevd::test {

struct HttpReply {
    int status = 0;       // 0: no status line came
    std::string head;     // the status line and the headers, without the blank line
    std::string body;     // what came after the blank line
    bool closed = false;  // the server closed the connection

    // A header's value ("" when absent); name as the server writes it.
    std::string header(const std::string &name) const {
        size_t at = head.find("\r\n" + name + ": ");
        if (at == std::string::npos) return "";
        at += name.size() + 4;
        return head.substr(at, head.find("\r\n", at) - at);
    }
};

// A blocking TCP connection to 127.0.0.1:port, or -1.
inline int connectLoopback(uint16_t port) {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;
    sockaddr_in to = loopbackAddress(port);
    if (connect(fd, reinterpret_cast<const sockaddr *>(&to), sizeof to) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

// Sends all of bytes on fd; false when the connection refused them.
inline bool sendAll(int fd, const std::string &bytes) {
    for (size_t sent = 0; sent < bytes.size();) {
        ssize_t n = send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (n <= 0) return false;
        sent += static_cast<size_t>(n);
    }
    return true;
}

// Reads one answer from fd: the head, then the body as Content-Length says
// (none for a HEAD request), or up to the close. Gives up after limit.
inline HttpReply readReply(int fd, bool headRequest = false,
                           std::chrono::milliseconds limit = std::chrono::seconds(10)) {
    HttpReply reply;
    std::string in;
    size_t headEnd = std::string::npos;
    long wanted = -1;  // body bytes, once the head is read
    auto deadline = std::chrono::steady_clock::now() + limit;
    for (;;) {
        if (headEnd == std::string::npos && (headEnd = in.find("\r\n\r\n")) != std::string::npos) {
            reply.head = in.substr(0, headEnd);
            if (reply.head.compare(0, 9, "HTTP/1.1 ") == 0 ||
                reply.head.compare(0, 9, "HTTP/1.0 ") == 0)
                reply.status = atoi(reply.head.c_str() + 9);
            std::string length = reply.header("Content-Length");
            wanted = headRequest ? 0 : length.empty() ? -1 : atol(length.c_str());
        }
        if (headEnd != std::string::npos && wanted >= 0 &&
            in.size() >= headEnd + 4 + static_cast<size_t>(wanted))
            break;
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        pollfd p = {fd, POLLIN, 0};
        if (left.count() <= 0 || poll(&p, 1, static_cast<int>(left.count())) != 1) break;
        char chunk[16384];
        ssize_t n = recv(fd, chunk, sizeof chunk, 0);
        if (n <= 0) {
            reply.closed = true;
            break;
        }
        in.append(chunk, static_cast<size_t>(n));
    }
    if (headEnd != std::string::npos) {
        reply.body = in.substr(headEnd + 4);
        if (wanted >= 0 && reply.body.size() > static_cast<size_t>(wanted))
            reply.body.resize(static_cast<size_t>(wanted));
    } else {
        reply.head = in;
    }
    return reply;
}

// One request on a connection of its own.
inline HttpReply httpExchange(uint16_t port, const std::string &request, bool headRequest = false,
                              std::chrono::milliseconds limit = std::chrono::seconds(10)) {
    int fd = connectLoopback(port);
    if (fd < 0) return {};
    HttpReply reply;
    if (sendAll(fd, request)) reply = readReply(fd, headRequest, limit);
    close(fd);
    return reply;
}

inline std::string httpRequestText(const std::string &method, const std::string &path) {
    return method + " " + path + " HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n\r\n";
}

inline HttpReply httpGet(uint16_t port, const std::string &path = "/metrics") {
    return httpExchange(port, httpRequestText("GET", path));
}

}  // namespace zevd::test

#endif  // ZEVD_TESTS_SUPPORT_HTTP_CLIENT_H
