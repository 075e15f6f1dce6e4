// ipcSock: the DCH side: the select masks over the client slots, the DCH
// port's allocation and the server loop.
#include <arpa/inet.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "common/trace.h"
#include "ipc/zevdsock.h"
#include "ipc/zevdsock_internal.h"

ZEVD_TRACE_UNIT(unitZevdsock);

namespace {

using zevd::fitsSelectSet;
using zevd::kSockLabelSize;
using zevd::loadShared;
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

// The server loop's receive size, of UDP datagrams and of TCP pieces alike.
constexpr int kServerBufferSize = 4096;
// Pieces one TCP message may take; a message that reaches this count is cut
// off.
constexpr int kMaxPieces = 1024;
// The longest TCP message the loop joins: a length word above it is cut off
// at once.
constexpr uint32_t kMaxTcpMessage = static_cast<uint32_t>(kMaxPieces - 1) * 4096u;
// While accept fails for want of resources, the listener rests this long.
constexpr int kAcceptRestSeconds = 1;
constexpr int kListenBacklog = 5;
// Control texts the loop queues beside the messages, without their zeros.
constexpr char kServerReady[] = "IPC-SERVER_READY";
constexpr char kDisconnect[] = "DP-DISCONNECT";
constexpr char kResend[] = "RESEND_MESSAGE";
constexpr int32_t kQueuedAddressLength = sizeof(struct sockaddr_in);

// Flushes both standard streams and ends the process with status 1: the
// resource exits of the DCH side.
[[noreturn]] void exitProcess() {
    fflush(stderr);
    fflush(stdout);
    exit(1);
}

// The sender's address in dotted-decimal text. inet_ntoa would share one
// buffer between threads; this writes the same text into the caller's.
void dottedAddress(const struct sockaddr_in &address, char *name, socklen_t size) {
    if (inet_ntop(AF_INET, &address.sin_addr, name, size) == nullptr)
        snprintf(name, size, "0.0.0.0");
}

}  // namespace

struct ipcSock::ipcServerState {
    // One piece of a TCP message being read.
    struct ipcServerPiece {
        char *buffer;
        int32_t length;
    };

    char workBuffer[kServerBufferSize];  // UDP datagrams and the control texts
    char firstPiece[kServerBufferSize];  // the first piece of every TCP message
    struct sockaddr_in sockClientAddr;   // the last sender
    char clientName[INET_ADDRSTRLEN];
    ipcServerPiece ipcBufArray[kMaxPieces];
    // The listener is left out of the read mask while all client slots are
    // taken.
    bool listenerParked;
    // The listener is left out for one timed pass after accept failed for
    // want of descriptors or memory, which select would report again at
    // once.
    bool listenerResting;
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
            exitProcess();
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
            exitProcess();
        }
    }
    // At the error level so that it is always written.
    ZEVD_TRACE(trc, TRACE_ERROR, "Successfully opened %s DCH port %d\n", productName,
               _envPortNo.load());
    return trc.exit(static_cast<int32_t>(1));
}

int32_t ipcSock::IPCServer() {
    ZEVD_TRACE_FUNCTION("ipcSock::IPCServer");
    // About 25 KiB, on the receive thread's own stack: nothing of it is
    // shared with the consumer.
    ipcServerState state;
    memset(&state, 0, sizeof state);
    for (int32_t &fd : _sockClientFD) fd = 0;

    allocateDCHport();

    if (listen(_sockTCP, kListenBacklog) != 0) {
        ZEVD_TRACE(trc, TRACE_ERROR, "Error: listen for _sockTCP failed. errno=%d\n", errno);
        // UDP keeps working.
        storeShared(_sockError, 1);
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

    while (loadShared(_sockError) <= 1) {
        // The levels are looked up again on every pass: the loop runs for
        // the life of the process.
        ::zevd::TraceFrame pass(trc.record(), false);
        fd_set readMask;
        int32_t maxFD = sockSetSelectReadMask(&readMask);
        if (state.listenerParked) {
            if (sockAcceptIndex() == -1) {
                // A waiting connection would make select return at once on
                // every pass and starve the connected clients.
                if (fitsSelectSet(_sockTCP)) FD_CLR(_sockTCP, &readMask);
            } else {
                state.listenerParked = false;
                ZEVD_TRACE(pass, TRACE_DETAIL,
                           "Note: a TCP client slot is free again, accepting connections.\n");
            }
        }
        struct timeval rest = {kAcceptRestSeconds, 0};
        struct timeval *timeOut = nullptr;
        if (state.listenerResting) {
            state.listenerResting = false;
            if (fitsSelectSet(_sockTCP)) FD_CLR(_sockTCP, &readMask);
            timeOut = &rest;
        }

        ZEVD_TRACE(pass, TRACE_DETAIL, "[@%p] Waiting on SELECT: UDP[%d] TCP[%d] MaxFD[%d]\n",
                   static_cast<void *>(this), _sockUDP, _sockTCP, maxFD);
        int count = select(maxFD, &readMask, nullptr, nullptr, timeOut);
        int selectErrno = errno;
        // The listener's rest ended with nothing else to serve.
        if (count == 0 && timeOut != nullptr) continue;
        if (count <= 0) {
            if (selectErrno == EINTR) {
                ZEVD_TRACE(pass, TRACE_FLOW,
                           "Note: interrupted system call detected during socket select\n");
                fflush(stderr);
                fflush(stdout);
                continue;
            }
            ZEVD_TRACE(pass, TRACE_ERROR, "Error: select failed. <%d>\n", selectErrno);
            storeShared(_sockError, 2);
            continue;
        }

        // One kind of event per pass: UDP first, then the listener, then
        // every ready client.
        if (fitsSelectSet(_sockUDP) && FD_ISSET(_sockUDP, &readMask)) {
            sockServeUDP(state);
        } else if (fitsSelectSet(_sockTCP) && FD_ISSET(_sockTCP, &readMask)) {
            sockServeListener(state);
        } else {
            sockResetIndex();
            int32_t slot = -1;
            int32_t fd;
            // A client that stalled has held the loop for a whole time-out:
            // the pass ends there, so UDP is served before the next client,
            // however many stall.
            while ((fd = sockCheckReadMask(&readMask, &slot)) != -1)
                if (fd > 0 && sockServeClient(state, fd, slot)) break;
        }
    }

    int32_t severity = loadShared(_sockError);
    ::zevd::TraceFrame last(trc.record(), false);
    ZEVD_TRACE(last, TRACE_ERROR, "Error: IPC errors[%d], cannot continue.\n", severity);
    return trc.exit(severity);
}

void ipcSock::sockServeUDP(ipcServerState &state) {
    ZEVD_TRACE_LEVEL("ipcSock::IPCServer");
    ZEVD_TRACE(trc, TRACE_DETAIL, "_sockUDP[%d] SET for reading, clearing workBuffer @%p\n",
               _sockUDP, static_cast<void *>(state.workBuffer));
    memset(state.workBuffer, 0, sizeof state.workBuffer);
    socklen_t addressLength = sizeof state.sockClientAddr;
    errno = 0;
    // A longer datagram is cut to the buffer: the loop never joins datagrams.
    auto bytesRead = static_cast<int32_t>(
        recvfrom(_sockUDP, state.workBuffer, sizeof state.workBuffer, 0,
                 reinterpret_cast<struct sockaddr *>(&state.sockClientAddr), &addressLength));
    int recvErrno = errno;
    ZEVD_TRACE(trc, TRACE_DETAIL, "UDP: bytesRead=%d, errno=%d\n", bytesRead, recvErrno);
    if (bytesRead <= 0) {
        ZEVD_TRACE(trc, TRACE_ERROR, "Error: UDP - recvfrom failed. bytesRead <%d>, sockerr <%d>\n",
                   bytesRead, recvErrno);
        storeShared(_sockError, 1);
        return;
    }
    ZEVD_TRACE(trc, TRACE_DETAIL, "%s: clientAddr <%d<%-*.*x>>\n", "sockClientAddr set to",
               kQueuedAddressLength, kQueuedAddressLength, kQueuedAddressLength,
               static_cast<void *>(&state.sockClientAddr));
    dottedAddress(state.sockClientAddr, state.clientName, sizeof state.clientName);
    ipc_put_data(bytesRead, state.workBuffer, &state.sockClientAddr, kQueuedAddressLength,
                 state.clientName, 0);
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
    _sockClientFD[slot] = fd;
    if (!fitsSelectSet(fd)) {
        // select could never watch it: refuse the connection, keep the slot.
        ZEVD_TRACE(trc, TRACE_ERROR, "Error: accepted descriptor %d is above the select limit %d\n",
                   fd, FD_SETSIZE);
        ZEV0_CloseTheSocket(fd);
        _sockClientFD[slot] = 0;
        return;
    }
    ZEVD_TRACE(trc, TRACE_DETAIL, "_sockClientFD[%d]=[%d]\n", slot, fd);
    ZEVD_TRACE(trc, TRACE_DETAIL, "%s: clientAddr <%d<%-*.*x>>\n", "sockClientAddr set to",
               kQueuedAddressLength, kQueuedAddressLength, kQueuedAddressLength,
               static_cast<void *>(&state.sockClientAddr));
}

bool ipcSock::sockServeClient(ipcServerState &state, int32_t fd, int32_t slot) {
    ZEVD_TRACE_LEVEL("ipcSock::IPCServer");
    ZEVD_TRACE(trc, TRACE_DETAIL, "_sockClientFD[%d]=%d SET for reading\n", slot, fd);
    // recvfrom names no sender on a stream: the connection's peer is the
    // sender of what arrives on it.
    struct sockaddr_in peer;
    socklen_t peerLength = sizeof peer;
    if (getpeername(fd, reinterpret_cast<struct sockaddr *>(&peer), &peerLength) == 0 &&
        peer.sin_family == AF_INET)
        state.sockClientAddr = peer;

    ipcServerState::ipcServerPiece *pieces = state.ipcBufArray;
    int32_t totalRead = 0;
    uint32_t totalLen = 0;
    int32_t ipcBufCount = 0;
    int32_t bytesRead = 0;
    bool initRead = true;
    bool moreData = true;
    int lastErrno = 0;  // of the last receive or select that failed
    // Set when the loop gives up on the message: the rest of it would be read
    // as a new one, so the connection is closed after the mismatch.
    bool cutOff = false;
    bool stalled = false;  // the time-out ran out waiting for a piece
    // Each piece is waited for up to the DCH time-out (at least a second):
    // the loop serves no one else meanwhile, so no peer may hold it longer.
    int32_t pieceWait = std::max(_envDCHtimeout.load(), 1);
    while (moreData) {
        fd_set connectionMask;
        FD_ZERO(&connectionMask);
        FD_SET(fd, &connectionMask);
        ZEVD_TRACE(trc, TRACE_DETAIL, "Waiting on SELECT: connectedSockFD[%d] MaxFD[%d]\n", fd,
                   fd + 1);
        struct timeval timeOut = {pieceWait, 0};
        errno = 0;
        int count = select(fd + 1, &connectionMask, nullptr, nullptr, &timeOut);
        if (count <= 0) {
            lastErrno = errno;
            ZEVD_TRACE(trc, TRACE_ERROR, "Warning: select returned. errno[%d]\n", lastErrno);
            if (count == 0) {
                ZEVD_TRACE(trc, TRACE_ERROR,
                           "Error: no more of the TCP message within %d seconds\n", pieceWait);
                cutOff = true;
                stalled = true;
            }
            break;
        }

        char *piece;
        if (ipcBufCount == 0) {
            piece = state.firstPiece;
            ZEVD_TRACE(trc, TRACE_DETAIL, "Back from Select, reusing ipcBuffer @%p\n",
                       static_cast<void *>(piece));
        } else {
            piece = new (std::nothrow) char[kServerBufferSize];
            if (piece == nullptr) {
                ZEVD_TRACE(trc, TRACE_ERROR,
                           "Error: allocating %d bytes for ipcBuffer, current ipcBufCount: %d.  "
                           "Exiting...\n\n",
                           kServerBufferSize, ipcBufCount);
                exitProcess();
            }
            ZEVD_TRACE(trc, TRACE_STORAGE,
                       "Allocated ipcBuffer @%p, storing in ipcBufArray at index: %d\n",
                       static_cast<void *>(piece), ipcBufCount);
        }
        pieces[ipcBufCount].buffer = piece;
        pieces[ipcBufCount].length = 0;
        memset(piece, 0, kServerBufferSize);
        socklen_t addressLength = sizeof state.sockClientAddr;
        errno = 0;
        bytesRead = static_cast<int32_t>(
            recvfrom(fd, piece, kServerBufferSize, 0,
                     reinterpret_cast<struct sockaddr *>(&state.sockClientAddr), &addressLength));
        int recvErrno = errno;
        if (bytesRead < 0) lastErrno = recvErrno;

        if (trc.on(TRACE_FLOW)) {
            ZEVD_TRACE(trc, TRACE_FLOW,
                       "ipcBufCount=%d totalLen=%d totalRead=%d bytesRead=%d initRead=%d "
                       "moreData=%d\n",
                       ipcBufCount, static_cast<int32_t>(totalLen), totalRead, bytesRead,
                       initRead ? 1 : 0, moreData ? 1 : 0);
            if (VX_Debug() == 2 && bytesRead > 0) ZEV0_PrintDump(piece, 0, bytesRead);
        }

        if (bytesRead > 0) {
            totalRead += bytesRead;
            pieces[ipcBufCount].length = bytesRead;
            ++ipcBufCount;
            if (initRead) {
                // TCP keeps no boundaries: the word may come in several
                // pieces. Until its four bytes are in, it is taken as the
                // bytes that came followed by zeros, and the read goes on;
                // a stream that ends before then keeps that word.
                unsigned char word[4] = {0, 0, 0, 0};
                size_t have = 0;
                for (int32_t i = 0; i < ipcBufCount && have < sizeof word; ++i) {
                    size_t n =
                        std::min<size_t>(sizeof word - have, static_cast<size_t>(pieces[i].length));
                    memcpy(word + have, pieces[i].buffer, n);
                    have += n;
                }
                totalLen = (static_cast<uint32_t>(word[0]) << 24) |
                           (static_cast<uint32_t>(word[1]) << 16) |
                           (static_cast<uint32_t>(word[2]) << 8) | static_cast<uint32_t>(word[3]);
                initRead = have < sizeof word;
                // The word so far is at most the whole word: one above the
                // limit already is the whole word above it.
                if (totalLen > kMaxTcpMessage) {
                    ZEVD_TRACE(trc, TRACE_ERROR,
                               "Error: TCP message of %u bytes is longer than the %u allowed\n",
                               totalLen, kMaxTcpMessage);
                    cutOff = true;
                    moreData = false;
                }
            }
            if (!cutOff && ipcBufCount >= kMaxPieces &&
                totalLen > static_cast<uint32_t>(totalRead)) {
                ZEVD_TRACE(trc, TRACE_ERROR, "Error: ipcBufCount %d exceeded allowed limit of %d\n",
                           kMaxPieces, kMaxPieces - 1);
                cutOff = true;
                moreData = false;
            }
        } else {
            if (ipcBufCount > 0) {
                if (ZEV0_IsValidPointer(piece)) {
                    ZEVD_TRACE(trc, TRACE_STORAGE, "Deleting ipcBuffer @%p, bytesRead: %d\n",
                               static_cast<void *>(piece), bytesRead);
                    delete[] piece;
                    // Kept: only entries 1 to 31 are searched for the line.
                    for (int i = 1; i < 32; ++i) {
                        if (pieces[i].buffer == piece) {
                            ZEVD_TRACE(trc, TRACE_DETAIL,
                                       "Nulling out ipcBuffer at ipcBufArray index %d\n", i);
                            pieces[i].buffer = nullptr;
                            break;
                        }
                    }
                    // Whatever the search found, no entry keeps the freed piece.
                    pieces[ipcBufCount].buffer = nullptr;
                } else {
                    ZEVD_TRACE(trc, TRACE_ERROR,
                               "Error: ipcBuffer object at address @%p is not valid\n",
                               static_cast<void *>(piece));
                }
            }
            moreData = false;
        }
        ZEVD_TRACE(trc, TRACE_DETAIL, "TCP: totalLen=%d, bytesRead=%d, totalRead=%d, errno=%d\n",
                   static_cast<int32_t>(totalLen), bytesRead, totalRead, recvErrno);
        if (!initRead && !(totalLen > static_cast<uint32_t>(totalRead) && totalLen > 0))
            moreData = false;
    }

    if (!cutOff && (lastErrno == ECONNRESET || (totalLen == 0 && totalRead == 0))) {
        ZEVD_TRACE(trc, TRACE_DETAIL, "_sockClientFD[%d]=%d closed TCP connection: continue...",
                   slot, fd);
        sockDisconnect(state, fd, slot);
    } else if (!cutOff && static_cast<uint32_t>(totalRead) == totalLen) {
        ZEVD_TRACE(trc, TRACE_DETAIL,
                   "recvfrom operation had no more data, totalRead: %d, ipcBufCount: %d\n",
                   totalRead, ipcBufCount);
        ZEVD_TRACE(trc, TRACE_DETAIL, "%s: clientAddr <%d<%-*.*x>>\n", "sockClientAddr set to",
                   kQueuedAddressLength, kQueuedAddressLength, kQueuedAddressLength,
                   static_cast<void *>(&state.sockClientAddr));
        dottedAddress(state.sockClientAddr, state.clientName, sizeof state.clientName);
        if (ipcBufCount == 1) {
            ipc_put_data(totalRead, state.firstPiece, &state.sockClientAddr, kQueuedAddressLength,
                         state.clientName, static_cast<uint32_t>(fd));
        } else {
            auto *completeBuffer = new (std::nothrow) char[static_cast<size_t>(totalRead)];
            if (completeBuffer == nullptr) {
                ZEVD_TRACE(trc, TRACE_ERROR,
                           "Error: allocating %d bytes for completeBuffer.  Exiting...\n\n",
                           totalRead);
                exitProcess();
            }
            ZEVD_TRACE(trc, TRACE_STORAGE, "Allocated <%d> bytes for completeBuffer<@%p>\n",
                       totalRead, static_cast<void *>(completeBuffer));
            memset(completeBuffer, 0, static_cast<size_t>(totalRead));
            int32_t offset = 0;
            for (int32_t i = 0; i < ipcBufCount; ++i) {
                ZEVD_TRACE(trc, TRACE_DETAIL,
                           "[%d] completeBuffer[@%p], offset[%d], buffer[@%p], dataLen[%d]\n", i,
                           static_cast<void *>(completeBuffer), offset,
                           static_cast<void *>(pieces[i].buffer), pieces[i].length);
                // The lengths add up to totalRead, the block's size.
                memcpy(completeBuffer + offset, pieces[i].buffer,
                       static_cast<size_t>(pieces[i].length));
                offset += pieces[i].length;
            }
            ipc_put_data(totalRead, completeBuffer, &state.sockClientAddr, kQueuedAddressLength,
                         state.clientName, static_cast<uint32_t>(fd));
            if (ZEV0_IsValidPointer(completeBuffer)) {
                ZEVD_TRACE(trc, TRACE_STORAGE, "Deleting completeBuffer @%p, totalRead: %d\n",
                           static_cast<void *>(completeBuffer), totalRead);
                delete[] completeBuffer;
            } else {
                ZEVD_TRACE(trc, TRACE_ERROR, "Error: completeBuffer object @%p is not valid\n",
                           static_cast<void *>(completeBuffer));
            }
        }
    } else {
        // More or less than announced: the consumer may ask the sender to
        // send again. The partial data is dropped.
        ZEVD_TRACE(trc, TRACE_ERROR, "Error: TCP received %d bytes, expected %d bytes\n", totalRead,
                   static_cast<int32_t>(totalLen));
        dottedAddress(state.sockClientAddr, state.clientName, sizeof state.clientName);
        memset(state.workBuffer, 0, sizeof state.workBuffer);
        memcpy(state.workBuffer, kResend, sizeof kResend - 1);
        ipc_put_data(sizeof kResend - 1, state.workBuffer, &state.sockClientAddr,
                     kQueuedAddressLength, state.clientName, static_cast<uint32_t>(fd));
        if (cutOff) {
            ZEVD_TRACE(trc, TRACE_ERROR,
                       "Error: closing _sockClientFD[%d]=%d after its cut-off message\n", slot, fd);
            sockDisconnect(state, fd, slot);
        }
    }

    // Entry 0 is the first-piece buffer, never freed.
    for (int32_t i = 1; i < ipcBufCount; ++i) {
        if (pieces[i].buffer != nullptr && ZEV0_IsValidPointer(pieces[i].buffer)) {
            ZEVD_TRACE(trc, TRACE_STORAGE, "Deleting ipcBufArray[%i]: @%p\n", i,
                       static_cast<void *>(pieces[i].buffer));
            delete[] pieces[i].buffer;
            pieces[i].buffer = nullptr;
        } else {
            ZEVD_TRACE(trc, TRACE_ERROR, "Error: ipcBufArray[%i] object @%p is not valid\n", i,
                       static_cast<void *>(pieces[i].buffer));
        }
    }
    return stalled;
}

void ipcSock::sockDisconnect(ipcServerState &state, int32_t fd, int32_t slot) {
    // Not while a worker sends its answer on this connection.
    bool locked = ZEVA_GetLock(&_sockClientLock, this) == 0;
    ZEV0_CloseTheSocket(fd);
    if (locked) ZEVA_ReleaseLock(&_sockClientLock, this);
    _sockClientFD[slot] = 0;
    memset(state.workBuffer, 0, sizeof state.workBuffer);
    memcpy(state.workBuffer, kDisconnect, sizeof kDisconnect - 1);
    ipc_put_data(sizeof kDisconnect - 1, state.workBuffer, &state.sockClientAddr,
                 kQueuedAddressLength, nullptr, static_cast<uint32_t>(fd));
}

int32_t ipcSock::sockAcceptIndex() {
    int32_t slot = sockGetAvailableIndex();
    return slot == IPC_MAX_TCP_CLIENTS - 1 ? -1 : slot;
}
