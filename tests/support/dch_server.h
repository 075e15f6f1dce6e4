// The socket transport's server loop on loopback, with a consumer thread
// that takes its queue entries into a list the test reads. For the suites of
// the loop itself; the client suites use the scripted FakeDch instead.
//
// The receive thread is never joined: one LoopServer per process, kept
// until the process ends.
#ifndef ZEVD_TESTS_SUPPORT_DCH_SERVER_H
#define ZEVD_TESTS_SUPPORT_DCH_SERVER_H

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "ipc/zevdsock.h"
#include "support/free_port.h"

namespace zevd::test {

// One entry as ipc_get_data handed it over.
struct QueueEntry {
    std::vector<char> buffer;  // the whole buffer: its capacity, zeros after the message
    std::string clientName;
    struct sockaddr_in from;
    int32_t fromLength;
    uint32_t connectedSockFD;

    // The buffer up to its first zero: the control texts.
    std::string text() const {
        return std::string(buffer.data(), strnlen(buffer.data(), buffer.size()));
    }
    // True when the buffer starts with message and holds only zeros after
    // it: the entry is exactly that message.
    bool holds(const std::vector<char> &message) const {
        if (buffer.size() < message.size()) return false;
        if (memcmp(buffer.data(), message.data(), message.size()) != 0) return false;
        for (size_t i = message.size(); i < buffer.size(); ++i)
            if (buffer[i] != 0) return false;
        return true;
    }
};

class LoopServer {
public:
    // Points the transport at a free loopback port (ZEVA_DCH_BIND and
    // ZEVA_DCH_ADDR 127.0.0.1, no settings file), builds the server and
    // starts a consumer that takes at most budget entries (see grant).
    static LoopServer &start(size_t budget = std::numeric_limits<size_t>::max()) {
        static LoopServer *server = new LoopServer(budget, true);
        return *server;
    }
    // The same with the environment and settings left as the caller set
    // them: port() is then 0, the port is the one the server bound.
    static LoopServer &startAsConfigured() {
        static LoopServer *server = new LoopServer(std::numeric_limits<size_t>::max(), false);
        return *server;
    }

    uint16_t port() const { return port_; }
    ipcSock &sock() { return *sock_; }

    // Lets the consumer take count more entries.
    void grant(size_t count) {
        std::lock_guard<std::mutex> guard(lock_);
        budget_ += count;
        changed_.notify_all();
    }
    void grantAll() {
        std::lock_guard<std::mutex> guard(lock_);
        budget_ = std::numeric_limits<size_t>::max();
        changed_.notify_all();
    }

    size_t budget() const {
        std::lock_guard<std::mutex> guard(lock_);
        return budget_;
    }

    // Waits until at least count entries were taken in all; false after
    // limit.
    bool waitEntries(size_t count,
                     std::chrono::milliseconds limit = std::chrono::seconds(30)) const {
        std::unique_lock<std::mutex> guard(lock_);
        return changed_.wait_for(guard, limit, [&] { return drained_ + entries_.size() >= count; });
    }
    // The entries taken and not yet drained, oldest first.
    std::vector<QueueEntry> entries() const {
        std::lock_guard<std::mutex> guard(lock_);
        return entries_;
    }
    // Hands the entries over and forgets them, for runs too long to keep
    // every entry.
    std::vector<QueueEntry> drain() {
        std::lock_guard<std::mutex> guard(lock_);
        std::vector<QueueEntry> taken = std::move(entries_);
        entries_.clear();
        drained_ += taken.size();
        return taken;
    }
    // Entries taken in all, drained ones included.
    size_t count() const {
        std::lock_guard<std::mutex> guard(lock_);
        return drained_ + entries_.size();
    }

private:
    LoopServer(size_t budget, bool configure) : budget_(budget) {
        if (configure) {
            port_ = freeLoopbackPort();
            setenv("ZEVA_DCH_ADDR", "127.0.0.1", 1);
            setenv("ZEVA_DCH_BIND", "127.0.0.1", 1);
            setenv("ZEVA_DCH_PORT", std::to_string(port_).c_str(), 1);
            unsetenv("ZEVA_SETTINGS_FILE");
        }
        sock_ = new ipcSock(IPC_SERVICE_SERVER, 0, 0);
        std::thread(&LoopServer::consume, this).detach();
    }

    void consume() {
        char *buffer = nullptr;
        int32_t capacity = 0;
        for (;;) {
            {
                std::unique_lock<std::mutex> guard(lock_);
                changed_.wait(guard, [&] { return taken_ < budget_; });
                ++taken_;
            }
            QueueEntry entry;
            char address[IPC_CLIENT_ADDR_SIZE] = {};
            char name[IPC_CLIENT_NAME_SIZE] = {};
            entry.fromLength = 0;
            entry.connectedSockFD = 0xFFFFFFFFu;  // written only when an entry is taken
            sock_->ipc_get_data(&buffer, &capacity, address, &entry.fromLength, name,
                                &entry.connectedSockFD);
            if (entry.connectedSockFD == 0xFFFFFFFFu) {
                std::lock_guard<std::mutex> guard(lock_);
                --taken_;
                continue;
            }
            entry.buffer.assign(buffer, buffer + capacity);
            entry.clientName = name;
            memset(&entry.from, 0, sizeof entry.from);
            memcpy(&entry.from, address, sizeof entry.from);
            std::lock_guard<std::mutex> guard(lock_);
            entries_.push_back(std::move(entry));
            changed_.notify_all();
        }
    }

    uint16_t port_ = 0;
    ipcSock *sock_ = nullptr;
    mutable std::mutex lock_;
    mutable std::condition_variable changed_;
    size_t budget_;
    size_t taken_ = 0;
    std::vector<QueueEntry> entries_;
    size_t drained_ = 0;
};

// A UDP socket bound to a loopback address of its own choosing (any of
// 127.0.0.0/8), sending to the server's port on 127.0.0.1.
class UdpPeer {
public:
    explicit UdpPeer(uint16_t serverPort, const char *localAddress = "127.0.0.1")
        : fd_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        struct sockaddr_in local;
        memset(&local, 0, sizeof local);
        local.sin_family = AF_INET;
        inet_pton(AF_INET, localAddress, &local.sin_addr);
        bound_ = bind(fd_, reinterpret_cast<struct sockaddr *>(&local), sizeof local) == 0;
        to_ = loopbackAddress(serverPort);
    }
    ~UdpPeer() {
        if (fd_ >= 0) close(fd_);
    }
    UdpPeer(const UdpPeer &) = delete;
    UdpPeer &operator=(const UdpPeer &) = delete;

    bool bound() const { return bound_; }
    uint16_t localPort() const { return boundPort(fd_); }
    int fd() const { return fd_; }
    bool send(const std::vector<char> &datagram) const { return sendDatagram(fd_, to_, datagram); }

private:
    int fd_;
    bool bound_ = false;
    struct sockaddr_in to_;
};

// A TCP connection to the server's port on 127.0.0.1, from localAddress
// (any of 127.0.0.0/8) when one is given.
class TcpPeer {
public:
    explicit TcpPeer(uint16_t serverPort, const char *localAddress = nullptr)
        : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        if (localAddress != nullptr) {
            struct sockaddr_in local;
            memset(&local, 0, sizeof local);
            local.sin_family = AF_INET;
            inet_pton(AF_INET, localAddress, &local.sin_addr);
            if (bind(fd_, reinterpret_cast<struct sockaddr *>(&local), sizeof local) != 0) return;
        }
        struct sockaddr_in to = loopbackAddress(serverPort);
        int on = 1;
        setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        connected_ = connect(fd_, reinterpret_cast<struct sockaddr *>(&to), sizeof to) == 0;
    }
    ~TcpPeer() { close(); }
    TcpPeer(const TcpPeer &) = delete;
    TcpPeer &operator=(const TcpPeer &) = delete;

    bool connected() const { return connected_; }
    int fd() const { return fd_; }
    uint16_t localPort() const { return boundPort(fd_); }
    // Sends every byte, in one call or as many as the kernel needs.
    bool send(const char *data, size_t length) const {
        size_t sent = 0;
        while (sent < length) {
            ssize_t n = ::send(fd_, data + sent, length - sent, MSG_NOSIGNAL);
            if (n <= 0) return false;
            sent += static_cast<size_t>(n);
        }
        return true;
    }
    bool send(const std::vector<char> &data) const { return send(data.data(), data.size()); }
    // Ends the write side: the server reads the end of the stream.
    bool shutdownWrite() const { return shutdown(fd_, SHUT_WR) == 0; }
    // Closes with a reset instead of the orderly end.
    void reset() {
        struct linger abortive = {1, 0};
        setsockopt(fd_, SOL_SOCKET, SO_LINGER, &abortive, sizeof abortive);
        close();
    }
    void close() {
        if (fd_ >= 0) ::close(fd_);
        fd_ = -1;
    }

private:
    int fd_;
    bool connected_ = false;
};

}  // namespace zevd::test

#endif  // ZEVD_TESTS_SUPPORT_DCH_SERVER_H
