#include "zevdchd_server.h"

#include <arpa/inet.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>

#include "common/thread_slice.h"
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

// A test hook (ZEVDCHD_TEST_BREAK_LOOP): the port's socket closed under the
// running loop, whose next select then fails for good. A race with the
// loop's receive by design, which a thread checker is told of by this
// function's name; never inlined, so that the name stays on the stack.
[[gnu::noinline]] void closeThePortUnderTheLoop(int fd) {
    close(fd);
}

}  // namespace

namespace {

// Refusals kept at most; beyond, the oldest knowledge is dropped whole.
constexpr size_t kMaxRefusals = 4096;
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
    deliveredSinceCollect_ = false;
    offenders_.clear();
    sock_->takeRefusals(offenders_);
    for (const sockaddr_in &offender : offenders_) {
        if (refused_.size() >= kMaxRefusals) refused_.clear();
        ++refused_[std::make_pair(offender.sin_addr.s_addr, offender.sin_port)];
    }
}

namespace {

// Answers held at most before they are sent anyway.
constexpr size_t kMaxHeld = 64;

}  // namespace

void SocketTransport::holdAnswers() {
    holding_ = true;
}

void SocketTransport::flushAnswers(std::vector<Peer> &unsent) {
    holding_ = false;
    sendHeld();
    unsent.insert(unsent.end(), unsent_.begin(), unsent_.end());
    unsent_.clear();
}

void SocketTransport::sendHeld() {
    if (held_.empty()) return;
    // Kept from flush to flush: a batch of answers allocates nothing.
    outgoing_.clear();
    for (const Held &h : held_)
        outgoing_.push_back(
            {heldBytes_.data() + h.offset, static_cast<int32_t>(h.length), h.peer.addr});
    bool sent[kMaxHeld] = {};
    sock_->ipcSendBatch(outgoing_.data(), static_cast<int32_t>(outgoing_.size()), sent);
    for (size_t i = 0; i < held_.size(); ++i)
        if (!sent[i]) unsent_.push_back(held_[i].peer);
    held_.clear();
    heldBytes_.clear();
}

bool SocketTransport::answer(const Peer &peer, const char *message, size_t length) {
    if (holding_ && peer.fd == 0 && length > 0 && length <= IPC_DATAGRAM_SIZE) {
        if (held_.size() == kMaxHeld) sendHeld();
        held_.push_back({peer, heldBytes_.size(), length});
        heldBytes_.insert(heldBytes_.end(), message, message + length);
        return true;
    }
    // Nothing overtakes an answer held before it.
    sendHeld();
    reportRefusals();
    if (peer.fd == 0 && std::chrono::steady_clock::now() - lastCollected_ >= kCollectEvery)
        collectRefusals();
    return sock_->ipcSendNow(message, static_cast<int32_t>(length), peer.addr, peer.fd) ==
           static_cast<int32_t>(length);
}

void SocketTransport::beginDeliveries() {
    // A refusal that matters here follows a delivery: without one since the
    // last look, the error queue holds nothing to charge (answers' refusals
    // are collected on their own schedule), and a row costs no extra call.
    if (deliveredSinceCollect_) collectRefusals();
}

bool SocketTransport::deliver(const Peer &peer, const char *message, size_t length) {
    ZEVD_TRACE_FUNCTION("SocketTransport::deliver");
    // The answers held go first, as they would have without holding.
    sendHeld();
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
    if (peer.fd == 0) deliveredSinceCollect_ = true;
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
    // A provider that an answer wakes would otherwise preempt the worker
    // between its send and its wait for the next entry: on a processor it
    // shares with its peers each request then costs one more switch.
    if (int refused = setThreadSlice(0, kSliceNs); refused != 0)
        ZEVD_TRACE(trc, TRACE_DETAIL, "The worker keeps the default slice: errno=%d\n", refused);
    // Every entry waiting is taken at once: the loop, when it waits for room,
    // is woken once for all of them instead of once for each.
    constexpr int32_t kBatch = IPC_QSIZE - 1;
    struct Taken {
        char *buffer = nullptr;
        int32_t capacity = 0;
        char address[IPC_CLIENT_ADDR_SIZE] = {};
        char name[IPC_CLIENT_NAME_SIZE] = {};
        int32_t addressLength = 0;
        uint32_t fd = 0;
        int32_t held = 0;
    };
    Taken taken[kBatch];
    ipcEntry entries[kBatch];
    int failures = 0;
    bool stopped = false;
    while (!stopped) {
        for (int32_t i = 0; i < kBatch; ++i) {
            Taken &t = taken[i];
            entries[i] =
                ipcEntry{t.buffer, t.capacity, t.address, &t.addressLength, t.name, &t.fd, t.held};
        }
        // Status reports that still wait go out in slices while no request
        // waits, so that a request waits for one slice at most; when too
        // many wait, before any request.
        while (dch_.statusReportsWaiting() > 0 &&
               (sock_.ipcQueueRoom() == kBatch || dch_.statusReportsOverdue()))
            dch_.sendStatusReports();
        int32_t count = sock_.ipc_get_batch(entries, kBatch);
        for (int32_t i = 0; i < kBatch; ++i) {
            taken[i].buffer = entries[i].buffer;
            taken[i].capacity = entries[i].bufferLen;
            // The requests are read, never written: what the queue cleared
            // stays clear.
            taken[i].held = entries[i].held;
        }
        if (count <= 0) {
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
        // Several requests served in a row answer together over UDP: the
        // peers woken by the answers do not take the worker's processor
        // between one request and the next.
        if (count > 1) dch_.holdAnswers();
        for (int32_t i = 0; i < count && !stopped; ++i)
            stopped = !serve(taken[i].buffer, taken[i].held, taken[i].capacity, taken[i].address,
                             taken[i].name, taken[i].fd);
        if (count > 1) dch_.flushAnswers();
    }
    // The subscribers still get the status reports that wait, as long as
    // the stop can wait for them; what is left is named.
    std::chrono::steady_clock::duration allowed = kStopReportsTime;
    if (const char *test = getenv("ZEVDCHD_TEST_STOP_REPORTS_MS"); test != nullptr)
        allowed = std::chrono::milliseconds(atoi(test));  // a test hook
    auto deadline = std::chrono::steady_clock::now() + allowed;
    while (dch_.statusReportsWaiting() > 0 && std::chrono::steady_clock::now() < deadline)
        dch_.sendStatusReports();
    if (size_t left = dch_.statusReportsWaiting(); left > 0)
        ZEVD_TRACE(trc, TRACE_ERROR, "Error: %zu status reports not sent: the daemon stops\n",
                   left);
    for (Taken &t : taken) delete[] t.buffer;
    trc.exit();
}

bool Worker::serve(const char *buffer, int32_t length, int32_t capacity, const char *address,
                   const char *name, uint32_t fd) {
    ZEVD_TRACE_LEVEL("Worker::run");
    if (isControl(buffer, capacity, name, kStopText)) return false;
    if (isControl(buffer, capacity, name, "IPC-SERVER_READY")) {
        udpSocket_ = sock_.sockUDP();
        applyReceiveBuffer(udpSocket_.load());
        printf("zevdchd ready on port %u\n", static_cast<unsigned>(sock_.sockPortUDP()));
        fflush(stdout);
        notifyServiceManager("READY=1\nSTATUS=serving on port " +
                             std::to_string(sock_.sockPortUDP()) + "\n");
        if (getenv("ZEVDCHD_TEST_BREAK_LOOP") != nullptr)
            closeThePortUnderTheLoop(udpSocket_.load());
        return true;
    }
    if (isControl(buffer, capacity, name, kSnapshotText)) {
        if (board_ != nullptr) {
            auto started = std::chrono::steady_clock::now();
            dch_.counters().drops[kDropKernel] = kernelDrops();
            MetricsSnapshot snapshot = metricsSnapshot(dch_);
            board_->publish(std::move(snapshot), std::chrono::steady_clock::now() - started);
        }
        return true;
    }
    if (isControl(buffer, capacity, name, kTickText)) {
        dch_.expireIdle(std::chrono::steady_clock::now());
        return true;
    }
    if (isControl(buffer, capacity, name, "DP-DISCONNECT")) {
        dch_.disconnect(fd);
        return true;
    }
    Request request;
    memcpy(&request.from.addr, address, sizeof request.from.addr);
    request.from.fd = fd;
    if (fd != 0 && memcmp(buffer, "RESEND_MESSAGE", 15) == 0) {
        // The loop dropped a TCP message that did not match its length.
        ZEVD_TRACE(trc, TRACE_ERROR, "Error: a message from %s on connection %u was cut off\n",
                   name, fd);
        ++dch_.counters().drops[kDropMalformed];
        return true;
    }
    request.data = buffer;
    // What was received, not the buffer: a message cut short of its length
    // word is refused, not read on into the zeros behind it.
    request.size = static_cast<size_t>(std::clamp(length, 0, capacity));
    dch_.handle(request);
    return true;
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
    if (given >= 0 && given / 2 < asked) {
        // Capped by net.core.rmem_max (no CAP_NET_ADMIN): a burst larger than
        // the buffer holds while the worker catches up is dropped. Written
        // once, at start, at the error level so that it is always written.
        ZEVD_TRACE(trc, TRACE_ERROR,
                   "Warning: the DCH port's receive buffer is %d bytes, not the %d asked for: "
                   "raise the limit with sysctl -w net.core.rmem_max=%d (or start zevdchd with "
                   "CAP_NET_ADMIN)\n",
                   given / 2, asked, asked);
    }
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
