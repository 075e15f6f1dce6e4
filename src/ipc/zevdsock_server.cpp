// ipcSock: the DCH side: the select masks over the client slots, the DCH
// port's allocation and the server loop.
#include <arpa/inet.h>
#include <linux/errqueue.h>
#include <linux/sock_diag.h>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <utility>

#include "common/process_end.h"
#include "common/trace.h"
#include "ipc/zevdsock.h"
#include "ipc/zevdsock_assembly.h"
#include "ipc/zevdsock_internal.h"

ZEVD_TRACE_UNIT(unitZevdsock);

namespace {

using zevd::dottedAddress;
using zevd::fitsSelectSet;
using zevd::kSockLabelSize;
using zevd::loadShared;
using zevd::sentDatagramRefused;
using zevd::storeShared;

}  // namespace

int32_t ipcSock::sockGetAvailableIndex() {
    for (int32_t i = 0; i < IPC_MAX_TCP_CLIENTS; ++i)
        if (_sockClientFD[i] == 0) return i;
    return -1;
}

void ipcSock::sockResetIndex() {
    _sockIndex = 0;
}

int32_t ipcSock::sockSetSelectReadMask(fd_set *set) {
    FD_ZERO(set);
    int32_t maxFD = std::max(_sockTCP, _sockUDP);
    // A descriptor that does not fit a select set is left out of it.
    if (fitsSelectSet(_sockTCP)) FD_SET(_sockTCP, set);
    if (fitsSelectSet(_sockUDP)) FD_SET(_sockUDP, set);
    for (int32_t fd : _sockClientFD) {
        if (fd > 0 && fitsSelectSet(fd)) {
            FD_SET(fd, set);
            if (fd > maxFD) maxFD = fd;
        }
    }
    if (maxFD >= FD_SETSIZE) maxFD = FD_SETSIZE - 1;
    return maxFD + 1;
}

int32_t ipcSock::sockCheckReadMask(fd_set *set, int32_t *index) {
    // The scan ends after slot 62: slot 63 is put in the mask but never
    // reported ready. The limit is kept as designed.
    if (_sockIndex < 0 || _sockIndex > IPC_MAX_TCP_CLIENTS - 2) {
        *index = -1;
        ++_sockIndex;
        return -1;
    }
    int32_t fd = _sockClientFD[_sockIndex];
    if (fd > 0 && fitsSelectSet(fd) && FD_ISSET(fd, set)) {
        *index = _sockIndex;
        ++_sockIndex;
        return fd;
    }
    *index = -1;
    ++_sockIndex;
    return 0;
}

namespace {

// The DCH port's search: candidates are the configured port + base +
// attempt x step.
constexpr long kSearchBase = 46300;
constexpr long kDefaultPortStep = 1000;
constexpr int kLastAttempt = 10;
// Attempts up to this one report a taken candidate; the last passes silently.
constexpr int kLastReportedAttempt = 9;
constexpr long kHighestPort = 65535;
// The fixed port is tried once, after this pause; the search pauses once.
constexpr int kFixedPortPause = 2;
constexpr int kSearchPause = 1;

// The server loop's receive size of UDP datagrams.
constexpr int kServerBufferSize = 4096;
// Datagrams received in one call at most while the port has them ready (the
// queue's room bounds it further): the loop waits once for all of them, and
// a busy port still lets the connections in between batches.
constexpr int kUdpBatch = IPC_QSIZE - 1;
// While accept fails for want of resources, the listener rests this long.
constexpr int kAcceptRestSeconds = 1;
constexpr int kListenBacklog = 5;
// Control texts the loop queues beside the messages, without their zeros.
constexpr char kServerReady[] = "IPC-SERVER_READY";
constexpr char kDisconnect[] = "DP-DISCONNECT";
constexpr char kResend[] = "RESEND_MESSAGE";
constexpr int32_t kQueuedAddressLength = sizeof(struct sockaddr_in);

// Each accepted connection's send buffer: the DCH sends an answer or a row
// to a connection whole at once or not at all, so the buffer must hold the
// largest message it builds many times over.
constexpr int kClientSendBuffer = 1 << 20;

}  // namespace

struct ipcSock::ipcServerState {
    char workBuffer[kServerBufferSize];  // the control texts
    // The datagrams of one receive, and their senders.
    char datagrams[kUdpBatch][kServerBufferSize];
    struct sockaddr_in senders[kUdpBatch];
    char senderNames[kUdpBatch][INET_ADDRSTRLEN];
    // Where the pieces of a TCP message after its first are received.
    char scratch[zevd::TcpAssembly::kPieceSize];
    struct sockaddr_in sockClientAddr;  // the last sender
    char clientName[INET_ADDRSTRLEN];
    // The message each client slot is assembling, and the peer its
    // connection was accepted from: the sender of all that comes on it.
    zevd::TcpAssembly assemblies[IPC_MAX_TCP_CLIENTS];
    struct sockaddr_in peers[IPC_MAX_TCP_CLIENTS];
    // The listener is left out of the read mask while all client slots are
    // taken.
    bool listenerParked;
    // The listener is left out for one timed pass after accept failed for
    // want of descriptors or memory, which select would report again at
    // once.
    bool listenerResting;
    // The last pass served the UDP port while the listener or a client was
    // ready too: this pass is theirs if they still are.
    bool tcpTurn;
    // The last pass found the queue full.
    bool queueFull = false;
    // The same between the listener and the connected clients: connections
    // that come faster than they are accepted (or refused) never keep the
    // clients from being read.
    bool clientsTurn;
    // listen failed: the TCP socket, bound but not listening, would poll
    // ready for ever and every accept fail. Never watched.
    bool listenerBroken;
};

int32_t ipcSock::allocateDCHport() {
    ZEVD_TRACE_FUNCTION("ipcSock::allocateDCHport");
    int udpError = 0;
    int tcpError = 0;
    bool instance = false;
    ZEVD_TRACE(trc, TRACE_DETAIL, "At entry, DCH using socket port number %d\n", _envPortNo.load());
    char productName[IPC_DCH_NAME_SIZE];
    const char *product = ZEV0_QueryProductSpec(3);
    snprintf(productName, sizeof productName, "%s", product != nullptr ? product : "(null)");

    const char *instanceName = ZEVA_GetInstanceName();
    if (instanceName != nullptr && instanceName[0] != '\0') {
        ZEVD_TRACE(trc, TRACE_DETAIL, "Instance <%s> of %s is being started\n", instanceName,
                   productName);
        instance = true;
    }
    bool forceSearch = ZEV0_QueryProductSpec(0) != nullptr;
    char label[kSockLabelSize];

    if (!(instance && _envPortNo.load() == IPC_DEFAULT_DCH_PORT) && !forceSearch) {
        int port = _envPortNo.load();
        // The pause lets an earlier copy release the port. A port that the
        // service manager bound and handed over (ZEV0_OpenLocalSocket takes
        // it) has no earlier copy to wait for.
        if (ZEV0_HasInheritedSocket(2, htons(static_cast<uint16_t>(port))) == 0)
            OSV1_Sleep(kFixedPortPause);
        setClientAddr(nullptr, 0);
        _sockUDP = ZEV0_OpenLocalSocket(2, htons(static_cast<uint16_t>(port)), &_sockAddress, 0,
                                        &udpError, 0);
        if (trc.on(TRACE_DETAIL)) {
            snprintf(label, sizeof label, "_sockUDP[%d] bound to", _sockUDP);
            ZEVD_TRACE(trc, TRACE_DETAIL, "%s: clientAddr <%d<%-*.*x>>\n", label, _sockAddressLen,
                       _sockAddressLen, _sockAddressLen, static_cast<void *>(&_sockAddress));
        }
        setClientAddr(nullptr, 0);
        _sockTCP = ZEV0_OpenLocalSocket(1, htons(static_cast<uint16_t>(port)), &_sockAddress, 0,
                                        &tcpError, 0);
        if (trc.on(TRACE_DETAIL)) {
            snprintf(label, sizeof label, "_sockTCP[%d] bound to", _sockTCP);
            ZEVD_TRACE(trc, TRACE_DETAIL, "%s: clientAddr <%d<%-*.*x>>\n", label, _sockAddressLen,
                       _sockAddressLen, _sockAddressLen, static_cast<void *>(&_sockAddress));
        }
        if (udpError == EADDRINUSE || tcpError == EADDRINUSE || !(_sockUDP > 0 && _sockTCP > 0)) {
            // The port taken by either protocol means another copy owns it.
            if (udpError == EADDRINUSE || tcpError == EADDRINUSE) {
                ZEVD_TRACE(trc, TRACE_ERROR,
                           "Error: Could not open TCP/UDP sockets bound to %s DCH port %d\n",
                           productName, port);
                ZEVD_TRACE(trc, TRACE_ERROR,
                           "Determine if another copy of %s is already active on this system.  "
                           "Exiting...\n",
                           productName);
            } else {
                ZEVD_TRACE(trc, TRACE_ERROR,
                           "Error: Could not open TCP/UDP sockets bound to %s DCH port %d, UDP "
                           "Errno: %d, TCP Errno: %d.  Exiting...\n",
                           productName, port, udpError, tcpError);
            }
            if (udpError == EADDRINUSE || tcpError == EADDRINUSE)
                zevd::endProcess(0, "DCH port %d is in use (another copy of %s may be active)",
                                 port, productName);
            // The reasons in words, and the setting that most often causes
            // an address that cannot be assigned.
            zevd::endProcess(0,
                             "could not open DCH port %d (UDP: %s, errno %d; TCP: %s, errno %d)%s",
                             port, strerror(udpError), udpError, strerror(tcpError), tcpError,
                             udpError == EADDRNOTAVAIL || tcpError == EADDRNOTAVAIL
                                 ? "; ZEVA_DCH_BIND must be an address of this host"
                                 : "");
        }
        ZEVD_TRACE(trc, TRACE_DETAIL, "Opened DCH port %d _sockUDP[%d] _sockTCP[%d] for %s\n", port,
                   _sockUDP, _sockTCP, productName);
        ZEV0_SetCloExecFlag(_sockUDP);
        ZEV0_SetCloExecFlag(_sockTCP);
    } else {
        long base = kSearchBase;
        long offset = 0;
        if (const char *step = ZEV0_QueryProductSpec(22)) {
            offset = atoi(step);
            // The configured port itself comes first only when both are set.
            if (forceSearch) base = 0;
            ZEVD_TRACE(trc, TRACE_DETAIL, "ZEV2_DP_PORT_OFFSET %d is currently in effect\n",
                       static_cast<int>(offset));
        }
        if (offset == 0) offset = kDefaultPortStep;
        int attempt = forceSearch ? 0 : 1;
        OSV1_Sleep(kSearchPause);
        bool opened = false;
        for (; attempt <= kLastAttempt && !opened; ++attempt) {
            // Full width: a large step must not wrap into a valid port.
            long port = static_cast<long>(_envPortNo.load()) + base + attempt * offset;
            // A candidate below 1 (a negative step) is as unusable as one
            // above the highest port.
            if (port > kHighestPort || port < 1) break;
            uint16_t portNet = htons(static_cast<uint16_t>(port));
            _sockUDP = ZEV0_OpenLocalSocket(2, portNet, &_sockAddress, 1, &udpError, 0);
            if (trc.on(TRACE_DETAIL)) {
                snprintf(label, sizeof label, "_sockUDP[%d] bound to", _sockUDP);
                ZEVD_TRACE(trc, TRACE_DETAIL, "%s: clientAddr <%d<%-*.*x>>\n", label,
                           _sockAddressLen, _sockAddressLen, _sockAddressLen,
                           static_cast<void *>(&_sockAddress));
            }
            _sockTCP = ZEV0_OpenLocalSocket(1, portNet, &_sockAddress, 1, &tcpError, 0);
            if (trc.on(TRACE_DETAIL)) {
                snprintf(label, sizeof label, "_sockTCP[%d] bound to", _sockTCP);
                ZEVD_TRACE(trc, TRACE_DETAIL, "%s: clientAddr <%d<%-*.*x>>\n", label,
                           _sockAddressLen, _sockAddressLen, _sockAddressLen,
                           static_cast<void *>(&_sockAddress));
            }
            if (udpError == EADDRINUSE && tcpError == EADDRINUSE) {
                if (attempt <= kLastReportedAttempt)
                    ZEVD_TRACE(trc, TRACE_ERROR,
                               "DCH port number %d is already in use, retrying...\n",
                               static_cast<int>(port));
                continue;
            }
            if (!(_sockUDP > 0 && _sockTCP > 0)) {
                // Kept as designed: the socket of the pair that did open stays
                // open, holding its half of the candidate.
                ZEVD_TRACE(trc, TRACE_ERROR,
                           "Error: Could not open TCP/UDP sockets bound to %s DCH port %d, UDP "
                           "Errno: %d, TCP Errno: %d\n",
                           productName, static_cast<int>(port), udpError, tcpError);
                continue;
            }
            opened = true;
            ZEVD_TRACE(trc, TRACE_DETAIL, "Opened _sockUDP[%d] _sockTCP[%d] for %s\n", _sockUDP,
                       _sockTCP, productName);
            ZEV0_SetCloExecFlag(_sockUDP);
            ZEV0_SetCloExecFlag(_sockTCP);
            _envPortNo.store(static_cast<uint16_t>(port));
            ZEVD_TRACE(trc, TRACE_DETAIL, "Assigned DCH port number to %d\n",
                       static_cast<int>(port));

            char text[32];
            snprintf(text, sizeof text, "%d", static_cast<int>(port));
            // setenv keeps its own copy, so the entry outlives this call and
            // processes the DCH starts inherit it.
            setenv("ZEVA_DCH_PORT", text, 1);
            ZEVD_TRACE(trc, TRACE_DETAIL, "ZEVA_DCH_PORT environment variable now equals %s\n",
                       OSV1_GetEnv("ZEVA_DCH_PORT", 0));
            ZEVD_TRACE(trc, TRACE_DETAIL,
                       "Calling ZEV0_UpdateProductSpec with new port value <%s>\n", text);
            if (ZEV0_UpdateProductSpec(21, text) == 0)
                ZEVD_TRACE(trc, TRACE_ERROR, "Error: Unable to reset port value to <%s>\n", text);
            if (!forceSearch) {
                snprintf(text, sizeof text, "%d", static_cast<int>(attempt * offset));
                ZEVD_TRACE(trc, TRACE_DETAIL,
                           "Calling ZEV0_UpdateProductSpec with new port offset value <%s>\n",
                           text);
                if (ZEV0_UpdateProductSpec(22, text) == 0)
                    ZEVD_TRACE(trc, TRACE_ERROR,
                               "Error: Unable to reset port offset value to <%s>\n", text);
            }
        }
        if (!opened) {
            ZEVD_TRACE(trc, TRACE_ERROR, "Error: Could not open TCP/UDP sockets bound to %s\n",
                       productName);
            ZEVD_TRACE(trc, TRACE_ERROR,
                       "All candidate DCH ports are unavailable.  Exiting...\n\n");
            zevd::endProcess(0, "all candidate DCH ports are unavailable");
        }
    }
    // At the error level so that it is always written.
    ZEVD_TRACE(trc, TRACE_ERROR, "Successfully opened %s DCH port %d\n", productName,
               _envPortNo.load());
    return trc.exit(static_cast<int32_t>(1));
}

namespace {

// Keeps the receive thread on the CPU of its consumer while the port
// overflows. Under a flood the loop hands the consumer a full queue at a
// time and waits for room; each hand-off is a wake-up, cheap between two
// threads of one CPU and dear across two, where each must also wait for
// its turn behind the senders. The port overflowing (the kernel's count of
// its drops has grown while the queue was full) says the hand-off is what
// limits the loop; then the thread keeps to the CPU the consumer last took
// entries on, and the scheduler wakes each on the other's CPU. Once the
// port keeps up again for a while, the thread may run anywhere it could
// before. Synchronous requests, however many, never overflow the port, so
// the loop and its consumer stay free to run side by side.
class ConsumerCpuFollower {
public:
    ConsumerCpuFollower() {
        CPU_ZERO(&allowed_);
        usable_ = pthread_getaffinity_np(pthread_self(), sizeof allowed_, &allowed_) == 0 &&
                  CPU_COUNT(&allowed_) > 1;
    }

    // Before each pass: queueFull tells whether the pass before found the
    // queue full; consumerCpu is where the consumer last took entries.
    void beforePass(::zevd::TraceFrame &trc, bool queueFull, int udpFd, int consumerCpu) {
        if (!usable_) return;
        if (queueFull && dropsGrew(udpFd)) {
            lastOverflow_ = std::chrono::steady_clock::now();
            if (consumerCpu < 0 || consumerCpu == kept_ || consumerCpu >= CPU_SETSIZE ||
                !CPU_ISSET(consumerCpu, &allowed_))
                return;
            cpu_set_t one;
            CPU_ZERO(&one);
            CPU_SET(consumerCpu, &one);
            if (pthread_setaffinity_np(pthread_self(), sizeof one, &one) != 0) return;
            kept_ = consumerCpu;
            ZEVD_TRACE(trc, TRACE_DETAIL,
                       "Note: the port overflows: the receive thread keeps to CPU %d with its "
                       "consumer\n",
                       consumerCpu);
        } else if (kept_ >= 0 && std::chrono::steady_clock::now() - lastOverflow_ > kQuiet) {
            if (pthread_setaffinity_np(pthread_self(), sizeof allowed_, &allowed_) != 0) return;
            kept_ = -1;
            ZEVD_TRACE(trc, TRACE_DETAIL,
                       "Note: the port keeps up: the receive thread runs on any of its CPUs "
                       "again\n");
        }
    }

private:
    // How long the port keeps up before the thread is let go.
    static constexpr std::chrono::milliseconds kQuiet{100};

    bool dropsGrew(int udpFd) {
        uint32_t info[SK_MEMINFO_VARS] = {};
        socklen_t length = sizeof info;
        if (getsockopt(udpFd, SOL_SOCKET, SO_MEMINFO, info, &length) != 0 ||
            length < sizeof(uint32_t) * (SK_MEMINFO_DROPS + 1))
            return false;
        bool grew = info[SK_MEMINFO_DROPS] != drops_;
        drops_ = info[SK_MEMINFO_DROPS];
        return grew;
    }

    cpu_set_t allowed_;
    bool usable_ = false;
    int kept_ = -1;  // the CPU the thread keeps to, -1 for none
    std::chrono::steady_clock::time_point lastOverflow_{};
    uint32_t drops_ = 0;
};

}  // namespace

int32_t ipcSock::IPCServer() {
    ZEVD_TRACE_FUNCTION("ipcSock::IPCServer");
    // About 270 KiB with a first-piece buffer per client slot, so on the
    // heap; nothing of it is shared with the consumer.
    auto owned = std::make_unique<ipcServerState>();
    ipcServerState &state = *owned;
    memset(state.workBuffer, 0, sizeof state.workBuffer);
    memset(&state.sockClientAddr, 0, sizeof state.sockClientAddr);
    memset(state.peers, 0, sizeof state.peers);
    memset(state.clientName, 0, sizeof state.clientName);
    state.listenerParked = false;
    state.listenerResting = false;
    state.tcpTurn = false;
    state.clientsTurn = false;
    state.listenerBroken = false;
    for (int32_t &fd : _sockClientFD) fd = 0;

    allocateDCHport();

    if (listen(_sockTCP, kListenBacklog) != 0) {
        ZEVD_TRACE(trc, TRACE_ERROR, "Error: listen for _sockTCP failed. errno=%d\n", errno);
        // UDP keeps working.
        storeShared(_sockError, 1);
        state.listenerBroken = true;
    } else {
        ZEVD_TRACE(trc, TRACE_DETAIL, "listen for _sockTCP %d successful. errno=%d\n", _sockTCP,
                   errno);
    }

    // _sockAddress is read here for the last time: from now on it belongs to
    // the consumer's setClientAddr.
    memset(state.workBuffer, 0, sizeof state.workBuffer);
    memcpy(state.workBuffer, kServerReady, sizeof kServerReady - 1);
    ipc_put_data(sizeof kServerReady - 1, state.workBuffer, &_sockAddress, kQueuedAddressLength,
                 nullptr, 0);

    ConsumerCpuFollower follower;
    while (loadShared(_sockError) <= 1) {
        // The levels are looked up again on every pass: the loop runs for
        // the life of the process.
        ::zevd::TraceFrame pass(trc.record(), false);
        follower.beforePass(pass, state.queueFull, _sockUDP,
                            _consumerCpu.load(std::memory_order_relaxed));
        state.queueFull = false;
        // poll where the loop was once described with select (the same
        // trace words and time-outs), so the DCH may hold descriptors of any
        // number. Watched: the UDP port, the listener, then the client
        // slots in order up to the last one ever filled (see
        // sockAcceptIndex).
        struct pollfd watched[2 + IPC_MAX_TCP_CLIENTS];
        int32_t slotOf[2 + IPC_MAX_TCP_CLIENTS];
        nfds_t watching = 0;
        int32_t maxFD = std::max(_sockTCP, _sockUDP);
        auto watch = [&](int32_t fd, int32_t slot) {
            watched[watching] = {fd, POLLIN, 0};
            slotOf[watching] = slot;
            return static_cast<int>(watching++);
        };
        int udpAt = _sockUDP >= 0 ? watch(_sockUDP, -1) : -1;
        bool listening = _sockTCP >= 0 && !state.listenerBroken;
        if (state.listenerParked) {
            if (sockAcceptIndex() == -1) {
                // A waiting connection would make the wait return at once on
                // every pass and starve the connected clients.
                listening = false;
            } else {
                state.listenerParked = false;
                ZEVD_TRACE(pass, TRACE_DETAIL,
                           "Note: a TCP client slot is free again, accepting connections.\n");
            }
        }
        // The wait lasts no longer than the first deadline of a message
        // being assembled, or the listener's rest.
        auto now = zevd::TcpAssembly::Clock::now();
        auto until = zevd::TcpAssembly::Clock::time_point::max();
        for (const zevd::TcpAssembly &assembly : state.assemblies)
            if (assembly.begun()) until = std::min(until, assembly.deadline());
        if (state.listenerResting) {
            state.listenerResting = false;
            listening = false;
            until = std::min(until, now + std::chrono::seconds(kAcceptRestSeconds));
        }
        int tcpAt = listening ? watch(_sockTCP, -1) : -1;
        for (int32_t slot = 0; slot < IPC_MAX_TCP_CLIENTS - 1; ++slot) {
            int32_t fd = _sockClientFD[slot];
            if (fd <= 0) continue;
            watch(fd, slot);
            maxFD = std::max(maxFD, fd);
        }
        int timeOut = -1;
        if (until != zevd::TcpAssembly::Clock::time_point::max()) {
            // Rounded up: waking before the deadline would only wait again.
            auto left = std::chrono::ceil<std::chrono::milliseconds>(until - now).count();
            timeOut = static_cast<int>(std::clamp<int64_t>(left, 0, INT32_MAX));
        }

        ZEVD_TRACE(pass, TRACE_DETAIL, "[@%p] Waiting on SELECT: UDP[%d] TCP[%d] MaxFD[%d]\n",
                   static_cast<void *>(this), _sockUDP, _sockTCP, maxFD + 1);
        int count = poll(watched, watching, timeOut);
        int selectErrno = errno;
        // A descriptor closed under the loop fails the wait as select
        // failed on it, for good.
        for (nfds_t i = 0; count > 0 && i < watching; ++i)
            if ((watched[i].revents & POLLNVAL) != 0) count = -1, selectErrno = EBADF;
        if (count == 0 && timeOut >= 0) {
            // A deadline or the listener's rest, with nothing to read.
            sockCutOffLate(state);
            continue;
        }
        if (count <= 0) {
            if (selectErrno == EINTR) {
                ZEVD_TRACE(pass, TRACE_FLOW,
                           "Note: interrupted system call detected during socket select\n");
                fflush(stderr);
                fflush(stdout);
                continue;
            }
            ZEVD_TRACE(pass, TRACE_ERROR, "Error: select failed. <%d>\n", selectErrno);
            _sockEndErrno.store(selectErrno);
            storeShared(_sockError, 2);
            continue;
        }

        // One kind of event per pass: UDP first, then the listener, then
        // every ready client; while several wait, they take turns. Nothing
        // here waits on a peer: a client's read takes what it has ready and
        // the pass goes on. Ready as select reads it: data, an error or the
        // peer's end.
        auto ready = [&watched](int at) {
            return at >= 0 && (watched[at].revents & (POLLIN | POLLERR | POLLHUP)) != 0;
        };
        bool clientsReady = false;
        for (nfds_t i = 0; !clientsReady && i < watching; ++i)
            clientsReady = slotOf[i] >= 0 && ready(static_cast<int>(i));
        bool tcpReady = ready(tcpAt) || clientsReady;
        // A port that datagrams keep ready would otherwise never let the
        // connections in: while both wait, they take turns.
        if (ready(udpAt) && !(state.tcpTurn && tcpReady)) {
            state.tcpTurn = tcpReady;
            // Reports of refused datagrams take room in the port's receive
            // buffer: read as soon as they come, not once the datagrams run
            // out, or a port kept busy would drop datagrams for them.
            if ((watched[udpAt].revents & POLLERR) != 0) sockKeepRefusals();
            sockServeUDP(state);
        } else if (ready(tcpAt) && !(state.clientsTurn && clientsReady)) {
            state.tcpTurn = false;
            state.clientsTurn = clientsReady;
            sockServeListener(state);
        } else {
            state.tcpTurn = false;
            state.clientsTurn = false;
            for (nfds_t i = 0; i < watching; ++i)
                if (slotOf[i] >= 0 && ready(static_cast<int>(i)))
                    sockServeClient(state, watched[i].fd, slotOf[i]);
        }
        // However busy the port, a message is cut off once its deadline
        // passed.
        sockCutOffLate(state);
    }

    int32_t severity = loadShared(_sockError);
    ::zevd::TraceFrame last(trc.record(), false);
    ZEVD_TRACE(last, TRACE_ERROR, "Error: IPC errors[%d], cannot continue.\n", severity);
    _sockLoopEnded.store(true);
    return trc.exit(severity);
}

void ipcSock::sockServeUDP(ipcServerState &state) {
    ZEVD_TRACE_LEVEL("ipcSock::IPCServer");
    // Only as many as the queue takes now, one at least: a full queue
    // leaves the datagrams in the port's buffer, as one receive at a time
    // did.
    int room = ipcQueueRoom();
    if (room > 0) {
        sockQueueUDP(trc, state, std::min(room, kUdpBatch), false);
        return;
    }
    state.queueFull = true;
    // Full: one datagram is read and waits inside the put until the
    // consumer frees its slots. The slots it freed are then filled at once
    // from what the port has ready, without a pass through poll: under a
    // flood that is one poll for every four datagrams instead of two.
    if (sockQueueUDP(trc, state, 1, false) > 0) {
        int more = std::min(ipcQueueRoom(), kUdpBatch);
        if (more > 0) sockQueueUDP(trc, state, more, true);
    }
}

int32_t ipcSock::sockQueueUDP(::zevd::TraceFrame &trc, ipcServerState &state, int batch,
                              bool refill) {
    // Every datagram the port has ready, up to a batch, in one call; each
    // still traces and queues as one receive. The buffers are not cleared:
    // only the bytes received are queued.
    struct mmsghdr headers[kUdpBatch];
    struct iovec pieces[kUdpBatch];
    memset(headers, 0, sizeof headers);
    for (int i = 0; i < kUdpBatch; ++i) {
        pieces[i].iov_base = state.datagrams[i];
        pieces[i].iov_len = sizeof state.datagrams[i];
        headers[i].msg_hdr.msg_name = &state.senders[i];
        headers[i].msg_hdr.msg_namelen = sizeof state.senders[i];
        headers[i].msg_hdr.msg_iov = &pieces[i];
        headers[i].msg_hdr.msg_iovlen = 1;
    }
    errno = 0;
    // Never waits: a batch takes only what has come (select said the port
    // is ready, or a refill finds what came meanwhile). A longer datagram
    // is cut to its buffer: the loop never joins datagrams.
    int count = recvmmsg(_sockUDP, headers, static_cast<unsigned>(batch), MSG_DONTWAIT, nullptr);
    int recvErrno = errno;
    if (count < 0 && (recvErrno == EAGAIN || recvErrno == EWOULDBLOCK)) {
        // Ready with no datagram: reports of refused datagrams wait in the
        // error queue, and select would say so again at once until they are
        // read. They are kept for the port's owner (takeRefusals). A
        // refill was not asked for by select: it only found the port empty.
        if (!refill) sockKeepRefusals();
        return 0;
    }
    if (count <= 0) {
        ZEVD_TRACE(trc, TRACE_DETAIL, "_sockUDP[%d] SET for reading, clearing workBuffer @%p\n",
                   _sockUDP, static_cast<void *>(state.datagrams[0]));
        ZEVD_TRACE(trc, TRACE_DETAIL, "UDP: bytesRead=%d, errno=%d\n", count, recvErrno);
        sockNoteFailedReceive(count, recvErrno);
        return 0;
    }
    // Queued together: one hold of the queue's lock and one wake of the
    // consumer for the batch, each datagram still one entry, in order.
    ipcMessage messages[kUdpBatch];
    int32_t queued = 0;
    for (int i = 0; i < count; ++i) {
        auto bytesRead = static_cast<int32_t>(headers[i].msg_len);
        ZEVD_TRACE(trc, TRACE_DETAIL, "_sockUDP[%d] SET for reading, clearing workBuffer @%p\n",
                   _sockUDP, static_cast<void *>(state.datagrams[i]));
        ZEVD_TRACE(trc, TRACE_DETAIL, "UDP: bytesRead=%d, errno=%d\n", bytesRead, 0);
        if (bytesRead <= 0) {
            sockNoteFailedReceive(bytesRead, 0);
            continue;
        }
        state.sockClientAddr = state.senders[i];
        ZEVD_TRACE(trc, TRACE_DETAIL, "%s: clientAddr <%d<%-*.*x>>\n", "sockClientAddr set to",
                   kQueuedAddressLength, kQueuedAddressLength, kQueuedAddressLength,
                   static_cast<void *>(&state.sockClientAddr));
        dottedAddress(state.senders[i], state.senderNames[i], sizeof state.senderNames[i]);
        messages[queued++] = ipcMessage{bytesRead,
                                        state.datagrams[i],
                                        &state.senders[i],
                                        kQueuedAddressLength,
                                        state.senderNames[i],
                                        0};
    }
    if (queued > 0) ipc_put_batch(messages, queued);
    return queued;
}

namespace {

// Refusals kept for the port's owner at most; past it the oldest go.
constexpr size_t kRefusalsKept = 4096;
// Error-queue entries read in one go.
constexpr int kRefusalsPerRead = 256;

}  // namespace

void ipcSock::sockKeepRefusals() {
    ZEVD_TRACE_LEVEL("ipcSock::IPCServer");
    std::vector<struct sockaddr_in> read;
    int reports = readErrorQueue(read, kRefusalsPerRead);
    if (reports == 0) return;
    {
        std::lock_guard<std::mutex> guard(_refusalLock);
        if (_refusals.size() + read.size() > kRefusalsKept) _refusals.clear();
        _refusals.insert(_refusals.end(), read.begin(), read.end());
    }
    // Written once they are kept: takeRefusals finds them from then on.
    ZEVD_TRACE(trc, TRACE_DETAIL, "Note: UDP - %d report(s) of refused datagrams read, %d kept\n",
               reports, static_cast<int>(read.size()));
}

void ipcSock::sockSetPeerFilter(std::function<bool(const struct sockaddr_in &)> admits) {
    std::lock_guard<std::mutex> guard(_peerFilterLock);
    _peerFilter = std::move(admits);
}

bool ipcSock::sockAdmits(const struct sockaddr_in &peer) {
    std::lock_guard<std::mutex> guard(_peerFilterLock);
    return !_peerFilter || _peerFilter(peer);
}

void ipcSock::takeRefusals(std::vector<struct sockaddr_in> &refused) {
    {
        std::lock_guard<std::mutex> guard(_refusalLock);
        refused.insert(refused.end(), _refusals.begin(), _refusals.end());
        _refusals.clear();
    }
    readErrorQueue(refused, kRefusalsPerRead);
}

int ipcSock::readErrorQueue(std::vector<struct sockaddr_in> &refused, int limit) {
    int read = 0;
    for (; read < limit; ++read) {
        struct sockaddr_in offender;
        memset(&offender, 0, sizeof offender);
        char control[512];
        char data[1];
        struct iovec io = {data, sizeof data};
        struct msghdr header;
        memset(&header, 0, sizeof header);
        header.msg_name = &offender;
        header.msg_namelen = sizeof offender;
        header.msg_iov = &io;
        header.msg_iovlen = 1;
        header.msg_control = control;
        header.msg_controllen = sizeof control;
        if (recvmsg(_sockUDP, &header, MSG_ERRQUEUE | MSG_DONTWAIT) < 0) break;
        bool refusal = false;
        for (struct cmsghdr *c = CMSG_FIRSTHDR(&header); c != nullptr;
             c = CMSG_NXTHDR(&header, c)) {
            if (c->cmsg_level != IPPROTO_IP || c->cmsg_type != IP_RECVERR) continue;
            struct sock_extended_err error;
            memcpy(&error, CMSG_DATA(c), sizeof error);
            refusal = error.ee_origin == SO_EE_ORIGIN_ICMP;
        }
        // The name is where the refused datagram went.
        if (refusal && header.msg_namelen >= sizeof offender && offender.sin_family == AF_INET)
            refused.push_back(offender);
    }
    return read;
}

void ipcSock::sockNoteFailedReceive(int32_t bytesRead, int recvErrno) {
    ZEVD_TRACE_LEVEL("ipcSock::IPCServer");
    if (bytesRead < 0 && sentDatagramRefused(recvErrno)) {
        // Not a failed receive: a datagram the DCH sent from this port was
        // refused on its way (the owner of the port asked for such reports
        // with IP_RECVERR and reads them from the error queue itself).
        ZEVD_TRACE(trc, TRACE_DETAIL,
                   "Note: UDP - a datagram sent from the port was refused <%d>\n", recvErrno);
        return;
    }
    ZEVD_TRACE(trc, TRACE_ERROR, "Error: UDP - recvfrom failed. bytesRead <%d>, sockerr <%d>\n",
               bytesRead, recvErrno);
    storeShared(_sockError, 1);
}

void ipcSock::sockServeListener(ipcServerState &state) {
    ZEVD_TRACE_LEVEL("ipcSock::IPCServer");
    ZEVD_TRACE(trc, TRACE_DETAIL, "_sockTCP[%d] SET for reading", _sockTCP);
    int32_t slot = sockAcceptIndex();
    if (slot == -1) {
        // Written once: the listener stays out of the read mask until a
        // slot is freed, and the connection waits in the backlog.
        ZEVD_TRACE(trc, TRACE_ERROR, "Error: Maximum of %d TCP clients has been reached.\n",
                   IPC_MAX_TCP_CLIENTS);
        state.listenerParked = true;
        return;
    }
    socklen_t addressLength = sizeof state.sockClientAddr;
    // Close-on-exec, like the DCH port's own sockets: a provider process
    // the DCH starts must not hold a client's connection open. Non-blocking,
    // so that an answer to a client that does not read takes the bounded
    // would-block path of ipcWrite instead of holding the DCH's worker.
    int fd = accept4(_sockTCP, reinterpret_cast<struct sockaddr *>(&state.sockClientAddr),
                     &addressLength, SOCK_CLOEXEC | SOCK_NONBLOCK);
    int acceptErrno = errno;
    if (fd < 0) {
        // The slot stays free: failed accepts must not use up the slots.
        ZEVD_TRACE(trc, TRACE_ERROR, "Error: accept failed. errno=%d\n", acceptErrno);
        storeShared(_sockError, 1);
        if (acceptErrno == EMFILE || acceptErrno == ENFILE || acceptErrno == ENOBUFS ||
            acceptErrno == ENOMEM)
            state.listenerResting = true;
        return;
    }
    if (!sockAdmits(state.sockClientAddr)) {
        // Refused by the transport's owner: it never holds a slot, so
        // connections it may not serve cannot keep out those it may.
        ZEVD_TRACE(trc, TRACE_DETAIL, "Note: connection [%d] closed at once: peer not admitted\n",
                   fd);
        close(fd);
        return;
    }
    _sockClientFD[slot] = fd;
    state.peers[slot] = state.sockClientAddr;
    // SO_SNDBUFFORCE passes net.core.wmem_max where the process may.
    int sendBuffer = kClientSendBuffer;
    if (setsockopt(fd, SOL_SOCKET, SO_SNDBUFFORCE, &sendBuffer, sizeof sendBuffer) != 0)
        setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &sendBuffer, sizeof sendBuffer);
    ZEVD_TRACE(trc, TRACE_DETAIL, "_sockClientFD[%d]=[%d]\n", slot, fd);
    ZEVD_TRACE(trc, TRACE_DETAIL, "%s: clientAddr <%d<%-*.*x>>\n", "sockClientAddr set to",
               kQueuedAddressLength, kQueuedAddressLength, kQueuedAddressLength,
               static_cast<void *>(&state.sockClientAddr));
}

namespace {

// A client connection as the assembly's source: a receive that never waits
// (the accepted sockets are non-blocking, and MSG_DONTWAIT says it again).
class ConnectionSource : public zevd::TcpAssembly::Source {
public:
    explicit ConnectionSource(int fd) : fd_(fd) {}
    ssize_t receive(char *buffer, size_t size) override {
        return recv(fd_, buffer, size, MSG_DONTWAIT);
    }

private:
    int fd_;
};

}  // namespace

void ipcSock::sockServeClient(ipcServerState &state, int32_t fd, int32_t slot) {
    ZEVD_TRACE_LEVEL("ipcSock::IPCServer");
    ZEVD_TRACE(trc, TRACE_DETAIL, "_sockClientFD[%d]=%d SET for reading\n", slot, fd);
    // recvfrom names no sender on a stream: the peer the connection was
    // accepted from is the sender of what arrives on it. Kept from the
    // accept, not asked again: a connection reset by its peer has none any
    // more, though what it sent before is still there to read.
    state.sockClientAddr = state.peers[slot];
    ConnectionSource source(fd);
    zevd::TcpAssembly &assembly = state.assemblies[slot];
    auto outcome = assembly.read(source, fd, state.scratch, zevd::TcpAssembly::Clock::now(),
                                 sockMessageWait());
    if (outcome != zevd::TcpAssembly::Outcome::kPending)
        sockFinishMessage(state, fd, slot, outcome);
}

int32_t ipcSock::sockMessageWait() const {
    // At least a second, so that a time-out of 0 does not cut off every
    // message that comes in two pieces.
    return std::max(_envDCHtimeout.load(), 1);
}

void ipcSock::sockCutOffLate(ipcServerState &state) {
    auto now = zevd::TcpAssembly::Clock::now();
    for (int32_t slot = 0; slot < IPC_MAX_TCP_CLIENTS; ++slot) {
        zevd::TcpAssembly &assembly = state.assemblies[slot];
        int32_t fd = _sockClientFD[slot];
        if (fd <= 0 || !assembly.expired(now)) continue;
        // The rest may be waiting unread because the loop itself was held
        // (by a full queue) past the deadline: the delay was not the
        // peer's. What is ready is read once more before the cut.
        state.sockClientAddr = state.peers[slot];
        ConnectionSource source(fd);
        auto outcome = assembly.read(source, fd, state.scratch, now, sockMessageWait());
        if (outcome != zevd::TcpAssembly::Outcome::kPending) {
            sockFinishMessage(state, fd, slot, outcome);
            continue;
        }
        assembly.expire(sockMessageWait());
        state.sockClientAddr = state.peers[slot];
        sockFinishMessage(state, fd, slot, zevd::TcpAssembly::Outcome::kMismatch);
    }
}

void ipcSock::sockFinishMessage(ipcServerState &state, int32_t fd, int32_t slot,
                                zevd::TcpAssembly::Outcome outcome) {
    ZEVD_TRACE_LEVEL("ipcSock::IPCServer");
    zevd::TcpAssembly &assembly = state.assemblies[slot];
    int32_t totalRead = assembly.received();
    if (outcome == zevd::TcpAssembly::Outcome::kClosed) {
        ZEVD_TRACE(trc, TRACE_DETAIL, "_sockClientFD[%d]=%d closed TCP connection: continue...",
                   slot, fd);
        sockDisconnect(state, fd, slot);
    } else if (outcome == zevd::TcpAssembly::Outcome::kWhole) {
        ZEVD_TRACE(trc, TRACE_DETAIL,
                   "recvfrom operation had no more data, totalRead: %d, ipcBufCount: %d\n",
                   totalRead, assembly.pieces());
        ZEVD_TRACE(trc, TRACE_DETAIL, "%s: clientAddr <%d<%-*.*x>>\n", "sockClientAddr set to",
                   kQueuedAddressLength, kQueuedAddressLength, kQueuedAddressLength,
                   static_cast<void *>(&state.sockClientAddr));
        dottedAddress(state.sockClientAddr, state.clientName, sizeof state.clientName);
        ipc_put_data(totalRead, assembly.joined(), &state.sockClientAddr, kQueuedAddressLength,
                     state.clientName, static_cast<uint32_t>(fd));
    } else {
        // More or less than announced: the consumer may ask the sender to
        // send again. The partial data is dropped.
        ZEVD_TRACE(trc, TRACE_ERROR, "Error: TCP received %d bytes, expected %d bytes\n", totalRead,
                   static_cast<int32_t>(assembly.announced()));
        dottedAddress(state.sockClientAddr, state.clientName, sizeof state.clientName);
        memset(state.workBuffer, 0, sizeof state.workBuffer);
        memcpy(state.workBuffer, kResend, sizeof kResend - 1);
        ipc_put_data(sizeof kResend - 1, state.workBuffer, &state.sockClientAddr,
                     kQueuedAddressLength, state.clientName, static_cast<uint32_t>(fd));
        if (assembly.cutOff()) {
            ZEVD_TRACE(trc, TRACE_ERROR,
                       "Error: closing _sockClientFD[%d]=%d after its cut-off message\n", slot, fd);
            sockDisconnect(state, fd, slot);
        }
    }
    assembly.reset();
}

void ipcSock::sockDisconnect(ipcServerState &state, int32_t fd, int32_t slot) {
    // Not while a worker sends its answer on this connection. The
    // descriptor is shut down now and closed only once the consumer has
    // served every entry up to this "DP-DISCONNECT": an answer or a row
    // still on its way to it then fails instead of reaching a connection
    // accepted meanwhile under the same number.
    bool locked = ZEVA_GetLock(&_sockClientLock, this) == 0;
    shutdown(fd, SHUT_RDWR);
    if (locked) ZEVA_ReleaseLock(&_sockClientLock, this);
    _sockClientFD[slot] = 0;
    state.assemblies[slot].reset();
    memset(state.workBuffer, 0, sizeof state.workBuffer);
    memcpy(state.workBuffer, kDisconnect, sizeof kDisconnect - 1);
    // The entry's own number, taken as it is stored: a daemon's own threads
    // queue entries too, and one of theirs may come in first.
    uint64_t entry = ipcPutNumbered({static_cast<int32_t>(sizeof kDisconnect - 1), state.workBuffer,
                                     &state.sockClientAddr, kQueuedAddressLength, nullptr,
                                     static_cast<uint32_t>(fd)});
    // Not stored (memory ran out): closed once what is queued now is served.
    if (entry == 0) entry = ipcEntriesQueued();
    locked = ZEVA_GetLock(&_sockClientLock, this) == 0;
    _sockEnded.push_back({fd, entry});
    _sockEndedCount.store(static_cast<int32_t>(_sockEnded.size()));
    // The consumer may have finished with it already, before it was listed
    // (the count above and its own, published before it looks, are read in
    // one order by both sides): then it is closed here, not left open until
    // the consumer comes back again.
    if (entry <= ipcEntriesDone()) closeEnded(entry);
    if (locked) ZEVA_ReleaseLock(&_sockClientLock, this);
}

void ipcSock::closeEnded(uint64_t done) {
    auto finished = [done](const sockEnded &ended) { return ended.entry <= done; };
    for (const sockEnded &ended : _sockEnded)
        if (finished(ended)) ZEV0_CloseTheSocket(ended.fd);
    std::erase_if(_sockEnded, finished);
    _sockEndedCount.store(static_cast<int32_t>(_sockEnded.size()));
}

void ipcSock::ipcEntriesFinished(uint64_t done) {
    if (_sockEndedCount.load() == 0) return;
    bool locked = ZEVA_GetLock(&_sockClientLock, this) == 0;
    closeEnded(done);
    if (locked) ZEVA_ReleaseLock(&_sockClientLock, this);
}

int32_t ipcSock::sockAcceptIndex() {
    int32_t slot = sockGetAvailableIndex();
    return slot == IPC_MAX_TCP_CLIENTS - 1 ? -1 : slot;
}
