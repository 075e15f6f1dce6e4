#include "zevdchd_server.h"

#include <arpa/inet.h>
#include <linux/errqueue.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>

#include "common/trace.h"
#include "zevdchd_http.h"
#include "zevdchd_metrics.h"
#include "zevdchd_notify.h"

namespace zevd::dch {

ZEVD_TRACE_UNIT(dch::unitZevdchd);

namespace {

// The loop's control texts, told apart by their text and their blank sender.
bool isControl(const char *buffer, int32_t capacity, const char *name, const char *text) {
    size_t length = strlen(text);
    return name[0] == ' ' && static_cast<size_t>(capacity) > length &&
           memcmp(buffer, text, length) == 0 && buffer[length] == '\0';
}

}  // namespace

namespace {

// Refusals kept at most; beyond, the oldest knowledge is dropped whole.
constexpr size_t kMaxRefusals = 4096;
// Refusals read from the error queue in one go.
constexpr int kRefusalsPerCollect = 256;
// Answers collect the refusals no more often than this: they would
// otherwise take room in the port's receive buffer until the next delivery.
constexpr auto kCollectEvery = std::chrono::milliseconds(100);

}  // namespace

void SocketTransport::reportRefusals() {
    if (reporting_ || sock_ == nullptr || sock_->sockUDP() < 0) return;
    int on = 1;
    reporting_ = setsockopt(sock_->sockUDP(), IPPROTO_IP, IP_RECVERR, &on, sizeof on) == 0;
}

void SocketTransport::collectRefusals() {
    reportRefusals();
    if (!reporting_) return;
    lastCollected_ = std::chrono::steady_clock::now();
    for (int i = 0; i < kRefusalsPerCollect; ++i) {
        sockaddr_in offender{};
        char control[512];
        char data[1];
        iovec io{data, sizeof data};
        msghdr header{};
        header.msg_name = &offender;
        header.msg_namelen = sizeof offender;
        header.msg_iov = &io;
        header.msg_iovlen = 1;
        header.msg_control = control;
        header.msg_controllen = sizeof control;
        if (recvmsg(sock_->sockUDP(), &header, MSG_ERRQUEUE | MSG_DONTWAIT) < 0) break;
        bool refusal = false;
        for (cmsghdr *c = CMSG_FIRSTHDR(&header); c != nullptr; c = CMSG_NXTHDR(&header, c)) {
            if (c->cmsg_level != IPPROTO_IP || c->cmsg_type != IP_RECVERR) continue;
            sock_extended_err error{};
            memcpy(&error, CMSG_DATA(c), sizeof error);
            refusal = error.ee_origin == SO_EE_ORIGIN_ICMP;
        }
        // The name is where the refused datagram went.
        if (!refusal || header.msg_namelen < sizeof offender || offender.sin_family != AF_INET)
            continue;
        if (refused_.size() >= kMaxRefusals) refused_.clear();
        ++refused_[std::make_pair(offender.sin_addr.s_addr, offender.sin_port)];
    }
}

bool SocketTransport::answer(const Peer &peer, const char *message, size_t length) {
    reportRefusals();
    if (peer.fd == 0 && std::chrono::steady_clock::now() - lastCollected_ >= kCollectEvery)
        collectRefusals();
    return sock_->ipcSendNow(message, static_cast<int32_t>(length), peer.addr, peer.fd) ==
           static_cast<int32_t>(length);
}

void SocketTransport::beginDeliveries() {
    collectRefusals();
}

bool SocketTransport::deliver(const Peer &peer, const char *message, size_t length) {
    ZEVD_TRACE_FUNCTION("SocketTransport::deliver");
    if (peer.fd == 0) {
        auto it = refused_.find(std::make_pair(peer.addr.sin_addr.s_addr, peer.addr.sin_port));
        if (it != refused_.end()) {
            // Reported as the connected socket of old did: on the next send.
            if (--it->second == 0) refused_.erase(it);
            ZEVD_TRACE(trc, TRACE_DETAIL, "subscriber %s port %d refused an earlier datagram\n",
                       peer.host().c_str(), peer.port());
            return trc.exit(false);
        }
    }
    bool sent = sock_->ipcSendNow(message, static_cast<int32_t>(length), peer.addr, peer.fd) ==
                static_cast<int32_t>(length);
    if (!sent) {
        ZEVD_TRACE(trc, TRACE_DETAIL, "send to subscriber %s port %d fd %u failed: errno=%d\n",
                   peer.host().c_str(), peer.port(), peer.fd, errno);
        // Part of a message may have gone: nothing may follow it.
        if (peer.fd != 0) closeConnection(peer.fd);
    }
    return trc.exit(sent);
}

void SocketTransport::forget(const Peer &peer) {
    if (peer.fd == 0) refused_.erase(std::make_pair(peer.addr.sin_addr.s_addr, peer.addr.sin_port));
}

void SocketTransport::closeConnection(uint32_t fd) {
    ZEVD_TRACE_FUNCTION("SocketTransport::closeConnection");
    // Shut down, not closed: the loop owns the descriptor; it sees the end
    // of the stream, closes it and queues its "DP-DISCONNECT".
    ZEVD_TRACE(trc, TRACE_ERROR,
               "Error: closing connection %u: it could not take a whole message at once\n", fd);
    shutdown(static_cast<int>(fd), SHUT_RDWR);
    trc.exit();
}

void Worker::run() {
    ZEVD_TRACE_FUNCTION("Worker::run");
    char *buffer = nullptr;
    int32_t capacity = 0;
    int failures = 0;
    for (;;) {
        char address[IPC_CLIENT_ADDR_SIZE] = {};
        char name[IPC_CLIENT_NAME_SIZE] = {};
        int32_t addressLength = 0;
        uint32_t fd = 0xFFFFFFFFu;  // written only when an entry is taken
        sock_.ipc_get_data(&buffer, &capacity, address, &addressLength, name, &fd);
        if (fd == 0xFFFFFFFFu || buffer == nullptr) {
            // Not reached with the loop's entries; bounded so it cannot spin.
            ZEVD_TRACE(trc, TRACE_ERROR, "Error: the receive queue gave no entry\n");
            if (++failures == 100) {
                failed_ = true;
                kill(getpid(), SIGTERM);  // the main thread ends the process
                break;
            }
            continue;
        }
        failures = 0;
        if (isControl(buffer, capacity, name, kStopText)) break;
        if (isControl(buffer, capacity, name, "IPC-SERVER_READY")) {
            udpSocket_ = sock_.sockUDP();
            applyReceiveBuffer(udpSocket_.load());
            printf("zevdchd ready on port %u\n", static_cast<unsigned>(sock_.sockPortUDP()));
            fflush(stdout);
            notifyServiceManager("READY=1\nSTATUS=serving on port " +
                                 std::to_string(sock_.sockPortUDP()) + "\n");
            // A test hook: the port's socket closed under the running loop,
            // whose next select then fails for good.
            if (getenv("ZEVDCHD_TEST_BREAK_LOOP") != nullptr) close(udpSocket_.load());
            continue;
        }
        if (isControl(buffer, capacity, name, kSnapshotText)) {
            if (board_ != nullptr) {
                auto started = std::chrono::steady_clock::now();
                dch_.counters().drops[kDropKernel] = kernelDrops();
                MetricsSnapshot snapshot = metricsSnapshot(dch_);
                board_->publish(std::move(snapshot), std::chrono::steady_clock::now() - started);
            }
            continue;
        }
        if (isControl(buffer, capacity, name, kTickText)) {
            dch_.expireIdle(std::chrono::steady_clock::now());
            continue;
        }
        if (isControl(buffer, capacity, name, "DP-DISCONNECT")) {
            dch_.disconnect(fd);
            continue;
        }
        Request request;
        memcpy(&request.from.addr, address, sizeof request.from.addr);
        request.from.fd = fd;
        if (fd != 0 && memcmp(buffer, "RESEND_MESSAGE", 15) == 0) {
            // The loop dropped a TCP message that did not match its length.
            ZEVD_TRACE(trc, TRACE_ERROR, "Error: a message from %s on connection %u was cut off\n",
                       name, fd);
            ++dch_.counters().drops[kDropMalformed];
            continue;
        }
        request.data = buffer;
        request.size = static_cast<size_t>(capacity);
        dch_.handle(request);
    }
    delete[] buffer;
    trc.exit();
}

void Worker::applyReceiveBuffer(int fd) const {
    ZEVD_TRACE_FUNCTION("Worker::applyReceiveBuffer");
    if (fd < 0) return trc.exit();
    // A burst of datagrams waits here while the worker is busy; what does not
    // fit is dropped by the kernel (the kernel_receive_buffer counter).
    // SO_RCVBUFFORCE passes net.core.rmem_max but needs CAP_NET_ADMIN;
    // SO_RCVBUF is capped by it.
    int asked = static_cast<int>(receiveBuffer_);
    const char *how = "SO_RCVBUFFORCE";
    if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &asked, sizeof asked) != 0) {
        how = "SO_RCVBUF";
        if (setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &asked, sizeof asked) != 0) {
            ZEVD_TRACE(trc, TRACE_ERROR,
                       "Error: the receive buffer of the DCH port could not be set: errno=%d\n",
                       errno);
            how = "nothing: kept";
        }
    }
    int given = 0;
    socklen_t length = sizeof given;
    if (getsockopt(fd, SOL_SOCKET, SO_RCVBUF, &given, &length) != 0) given = -1;
    // At the error level, like the other start lines, so that it is always
    // written. The kernel reports twice the size set: it counts its own
    // bookkeeping in the buffer.
    ZEVD_TRACE(trc, TRACE_ERROR,
               "Note: receive buffer of the DCH port: %d bytes (asked for %d through %s)\n", given,
               asked, how);
    trc.exit();
}

void Worker::stop() {
    sock_.ipc_put_data(static_cast<int32_t>(sizeof kStopText), kStopText, nullptr, 0, nullptr, 0);
}

uint64_t Worker::kernelDrops() const {
    int fd = udpSocket_.load();
    if (fd < 0) return 0;
    uint32_t info[SK_MEMINFO_VARS] = {};
    socklen_t length = sizeof info;
    if (getsockopt(fd, SOL_SOCKET, SO_MEMINFO, info, &length) != 0 ||
        length < sizeof(uint32_t) * (SK_MEMINFO_DROPS + 1))
        return 0;
    return info[SK_MEMINFO_DROPS];
}

}  // namespace zevd::dch
