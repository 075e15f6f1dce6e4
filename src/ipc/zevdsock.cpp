// ipcSock: the socket transport's construction, process-wide configuration
// and UDP socket pool, message read and write, the DCH port and the server
// loop, and client set-up.
#include "ipc/zevdsock.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "common/trace.h"

ZEVD_TRACE_UNIT(unitZevdsock);

std::atomic<int32_t> ipcSock::_envVarsInit{0};
std::atomic<int32_t> ipcSock::_envDCHUDPInit{0};
char ipcSock::_envDCHname[IPC_DCH_NAME_SIZE];
struct sockaddr_in ipcSock::_envDCHaddress;
std::atomic<int32_t> ipcSock::_envDCHresolved{0};
std::atomic<uint16_t> ipcSock::_envPortNo{IPC_DEFAULT_DCH_PORT};
std::atomic<int32_t> ipcSock::_envDCHtimeout{IPC_DEFAULT_DCH_TIMEOUT};
std::atomic<int32_t> ipcSock::_envTRAPEMIT{0};
std::atomic<int32_t> ipcSock::_UDPSocketsInPool{IPC_DEFAULT_UDP_POOL};
std::atomic<UDPSockElement *> ipcSock::_UDPSockList{nullptr};
// Usable before the pool re-initialises them, so that no path can meet an
// uninitialised mutex.
pthread_mutex_t ipcSock::_UDPSockLock = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t ipcSock::_UDPSockCond = PTHREAD_COND_INITIALIZER;

namespace {

// A borrower waits this long for a returned socket, then sleeps outside the
// lock before it looks again.
constexpr int kPoolWaitSeconds = 10;
constexpr int kPoolSleepSeconds = 3;
// Every datagram after a message's first is waited for this long.
constexpr int kNextDatagramWait = 10;
// Size of the length word that opens every message.
constexpr int32_t kLengthWordSize = 4;
// The most a message joined from IPC_MAX_DATAGRAMS datagrams can hold.
constexpr uint32_t kMaxMessageLength =
    static_cast<uint32_t>(IPC_MAX_DATAGRAMS) * static_cast<uint32_t>(IPC_DATAGRAM_SIZE);
// Size of the label buffers of the address trace lines.
constexpr int kLabelSize = 64;
// The most datagrams a borrower drops from a socket before using it.
constexpr int kMostDrained = 4096;

// True when fd may go into an fd_set: FD_SET outside this range writes past
// the set.
bool fitsSelectSet(int fd) {
    return fd >= 0 && fd < FD_SETSIZE;
}

// A word that the constructing thread and the server's receive thread both
// write; every access after the thread starts goes through here.
int32_t loadShared(int32_t &field) {
    return std::atomic_ref<int32_t>(field).load(std::memory_order_relaxed);
}

void storeShared(int32_t &field, int32_t value) {
    std::atomic_ref<int32_t>(field).store(value, std::memory_order_relaxed);
}

// One received datagram of a message being read.
struct ipcBufEntry {
    char *buffer;
    int32_t length;
};

// Frees the datagrams a read keeps no more, without trace lines: the paths
// that use it hand nothing over.
void dropPieces(ipcBufEntry *pieces, int count) {
    for (int i = 0; i < count; ++i) {
        if (ZEV0_IsValidPointer(pieces[i].buffer)) delete[] pieces[i].buffer;
        pieces[i].buffer = nullptr;
    }
}

}  // namespace

ipcSock::ipcSock() : DCHipc() {
    ZEVD_TRACE_FUNCTION("ipcSock::ipcSock");
    ZEVD_TRACE(trc, TRACE_ERROR, "Error: this constructor should not be used.\n");
    _sockError = 1;
    trc.exit();
}

ipcSock::ipcSock(int16_t service, int32_t connectTo, int32_t useFromSockPool)
    : DCHipc(service), _useFromSockPool(useFromSockPool) {
    ZEVD_TRACE_FUNCTION("ipcSock::ipcSock");
    _sockError = 0;
    _sockAddressLen = sizeof(struct sockaddr_in);
    _sockTCP = IPC_NO_SOCKET;
    _sockUDP = IPC_NO_SOCKET;
    pthread_mutex_t *initLock = ZEVA_GetEnvVarsInitLock();
    ZEVD_TRACE(trc, TRACE_FLOW,
               "service=%d connectTo=%d _useFromSockPool=%d _envVarsInit=%d _envDCHUDPInit=%d\n",
               service, connectTo, _useFromSockPool, _envVarsInit.load(), _envDCHUDPInit.load());
    ZEVD_TRACE(trc, TRACE_FLOW, "Acquiring EnvVars Init Lock. [@%p]\n",
               static_cast<void *>(initLock));
    // A lock that cannot be taken skips configuration and pool without a
    // word: a later object does them.
    if (ZEVA_GetLock(initLock, this) == 0) {
        if (_envVarsInit.load() == 0) {
            _envVarsInit.store(1);
            getEnvVariables();
        }
        if (_envDCHUDPInit.load() == 0 && _useFromSockPool != 0 && connectTo == 0 &&
            service == IPC_SERVICE_CLIENT_OBJECT) {
            // Set first: a failed attempt is never repeated.
            _envDCHUDPInit.store(1);
            ZEVD_TRACE(trc, TRACE_STORAGE,
                       "Initializing mutex[@%p] and Cond[@%p] for ipcSock object @%p\n",
                       static_cast<void *>(&_UDPSockLock), static_cast<void *>(&_UDPSockCond),
                       static_cast<void *>(this));
            ZEV0_InitializeMutex(&_UDPSockLock);
            ZEV0_InitializeCondVar(&_UDPSockCond);
            int32_t count = _UDPSocketsInPool.load();
            ZEVD_TRACE(trc, TRACE_DETAIL, "Initializing %d UDP sockets.\n", count);
            auto *list = new (std::nothrow) UDPSockElement[count];
            if (list == nullptr) {
                ZEVD_TRACE(trc, TRACE_ERROR, "Error: allocation of %d UDPSockElement failed\n",
                           count);
                _sockError = 1;
            } else {
                ZEVD_TRACE(trc, TRACE_STORAGE, "Allocated _UDPSockList @%p\n",
                           static_cast<void *>(list));
                for (int32_t i = 0; i < count; ++i) {
                    list[i].inUse = 0;
                    // ipcSock's own setClientAddr is the one meant here.
                    setClientAddr(nullptr,
                                  0);  // NOLINT(clang-analyzer-optin.cplusplus.VirtualCall)
                    int error = 0;
                    list[i].sockUDP = ZEV0_OpenLocalSocket(2, 0, &_sockAddress, 0, &error, 0);
                    // A socket that failed to open stays in the pool.
                    if (list[i].sockUDP < 0)
                        ZEVD_TRACE(trc, TRACE_ERROR,
                                   "Error: _UDPSockList[i].sockUDP[%d]  errno=%d\n",
                                   list[i].sockUDP, errno);
                    else
                        ZEVD_TRACE(trc, TRACE_DETAIL, "[%d] UDP Socket %d allocated.\n", i,
                                   list[i].sockUDP);
                }
                _UDPSockList.store(list, std::memory_order_release);
            }
        }
        ZEVD_TRACE(trc, TRACE_FLOW, "Releasing EnvVars Init Lock. [@%p]\n",
                   static_cast<void *>(initLock));
        ZEVA_ReleaseLock(initLock, this);
    }
    // A server's receive thread is already running here and owns the same
    // word, hence the atomic stores.
    int32_t error = startup(nullptr, connectTo);
    storeShared(_sockError, error);
    if (error != 0) ZEVD_TRACE(trc, TRACE_ERROR, "Error: startup failed. _sockError=%d\n", error);
    // The base's error word has the last say, over the startup result.
    error = ipcGetError();
    storeShared(_sockError, error);
    if (error != 0) ZEVD_TRACE(trc, TRACE_ERROR, "Error: _sockError=%d\n", error);
    trc.exit();
}

ipcSock::~ipcSock() {
    ZEVD_TRACE_FUNCTION("ipcSock::~ipcSock");
    ZEVD_TRACE(trc, TRACE_DETAIL, "_useFromSockPool=%d, _sockTCP=%d, _sockUDP=%d\n",
               _useFromSockPool, _sockTCP, _sockUDP);
    if (_sockTCP != IPC_NO_SOCKET) {
        ZEVD_TRACE(trc, TRACE_FLOW, "Closing TCP socket %d for DCH port %d\n", _sockTCP,
                   _envPortNo.load());
        ZEV0_CloseTheSocket(_sockTCP);
    }
    if (_useFromSockPool == 0) {
        // Closed without testing for -999: closing no socket fails harmlessly.
        ZEVD_TRACE(trc, TRACE_FLOW, "Closing UDP socket %d for DCH port %d\n", _sockUDP,
                   _envPortNo.load());
        ZEV0_CloseTheSocket(_sockUDP);
    }
    ZEVD_TRACE(trc, TRACE_DETAIL, "ipcTypeOfService=%d\n", ipcTypeOfService());
    if (_useFromSockPool != 0 && ipcTypeOfService() == IPC_SERVICE_CLIENT_OBJECT) {
        bool pooled = false;
        UDPSockElement *list = _UDPSockList.load(std::memory_order_acquire);
        if (list != nullptr) {
            int32_t count = _UDPSocketsInPool.load();
            for (int32_t i = 0; i < count && !pooled; ++i) pooled = list[i].sockUDP == _sockUDP;
        }
        // Pooled sockets live as long as the process; only a socket made
        // outside the pool is closed.
        if (!pooled) {
            ZEVD_TRACE(trc, TRACE_FLOW, "Closing UDP socket %d\n", _sockUDP);
            ZEV0_CloseTheSocket(_sockUDP);
        }
    }
    trc.exit();
}

void ipcSock::getEnvVariables() {
    ZEVD_TRACE_FUNCTION("ipcSock::getEnvVariables");
    const char *dchAddr = OSV1_GetEnv("ZEVA_DCH_ADDR", 0);
    const char *dchPort = OSV1_GetEnv("ZEVA_DCH_PORT", 0);
    const char *dchTimeout = OSV1_GetEnv("ZEVA_DCH_TIMEOUT", 0);
    const char *trapEmit = OSV1_GetEnv("ZEVA_DCH_TRAPEMIT", 0);
    const char *poolSize = OSV1_GetEnv("ZEVA_DCH_UDP_SOCKETS_IN_POOL", 0);
    ZEVD_TRACE(trc, TRACE_DETAIL, "DCHIpc instance @%p and _envVarsInit=%d\n",
               static_cast<void *>(this), _envVarsInit.load());

    memset(_envDCHname, 0, sizeof _envDCHname);
    const char *name = dchAddr;
    if (name == nullptr) {
        name = ZEV0_LocalHostNameString();
        if (name == nullptr) {
            ZEVD_TRACE(trc, TRACE_ERROR, "Error: ZEV0_LocalHostNameString failed.\n");
            _sockError = 1;
        }
    }
    // A longer name is cut to what the buffer holds.
    if (name != nullptr) strncpy(_envDCHname, name, sizeof _envDCHname - 1);

    uint16_t port = IPC_DEFAULT_DCH_PORT;
    const char *productPort = nullptr;
    if (dchPort != nullptr) {
        port = static_cast<uint16_t>(atoi(dchPort));
    } else if ((productPort = ZEV0_QueryProductSpec(21)) != nullptr) {
        port = static_cast<uint16_t>(atoi(productPort));
    }
    _envPortNo.store(port);
    ZEVD_TRACE(trc, TRACE_DETAIL, "Assigned DCH port number to %d\n", port);

    // Resolved here once and kept: resolving for every client would read
    // the resolver's files on every request. Clients take the port from
    // _envPortNo, which the DCH's own port search may still change.
    _envDCHresolved.store(_envDCHname[0] != '\0' &&
                                  ZEV0_ConvertNameToAddr(_envDCHname, port, &_envDCHaddress) != 0
                              ? 1
                              : 0);

    _envDCHtimeout.store(dchTimeout != nullptr ? atoi(dchTimeout) : IPC_DEFAULT_DCH_TIMEOUT);

    int32_t sockets = poolSize != nullptr ? atoi(poolSize) : IPC_DEFAULT_UDP_POOL;
    if (sockets < 1) {
        // A pool of no socket would leave every borrower waiting for ever.
        ZEVD_TRACE(trc, TRACE_ERROR,
                   "Warning: ZEVA_DCH_UDP_SOCKETS_IN_POOL=%d is below 1, using %d.\n", sockets,
                   IPC_DEFAULT_UDP_POOL);
        sockets = IPC_DEFAULT_UDP_POOL;
    }
    _UDPSocketsInPool.store(sockets);

    _envTRAPEMIT.store(trapEmit != nullptr && (trapEmit[0] == 'Y' || trapEmit[0] == 'y') ? 1 : 0);

    ZEVD_TRACE(trc, TRACE_DETAIL,
               "_envDCHname[%s] _envPortNo[%d] _envDCHtimeout[%d] _envTRAPEMIT[%d]\n", _envDCHname,
               _envPortNo.load(), _envDCHtimeout.load(), _envTRAPEMIT.load());
    trc.exit();
}

int32_t ipcSock::allocateIPC() {
    ZEVD_TRACE_FUNCTION("ipcSock::allocateIPC");
    int32_t result = IPC_NO_SOCKET;
    ZEVD_TRACE(trc, TRACE_FLOW, "_useFromSockPool[%d] _UDPSockLock[@%p]\n", _useFromSockPool,
               static_cast<void *>(&_UDPSockLock));
    if (_useFromSockPool == 0) {
        ZEVD_TRACE(trc, TRACE_DETAIL, "Creating UDP socket from outside of pool.\n");
        setClientAddr(nullptr, 0);
        int error = 0;
        result = ZEV0_OpenLocalSocket(2, 0, &_sockAddress, 0, &error, 0);
        ZEVD_TRACE(trc, TRACE_STORAGE, "Allocated UDP socket %d from outside socket pool\n",
                   result);
        return trc.exit(result);
    }

    UDPSockElement *list = _UDPSockList.load(std::memory_order_acquire);
    if (list == nullptr) {
        // Without a pool (never made, or its allocation failed) nothing will
        // ever be returned to wait for.
        ZEVD_TRACE(trc, TRACE_ERROR, "Error: no UDP socket pool has been made.\n");
        return trc.exit(result);
    }
    int32_t count = _UDPSocketsInPool.load();

    ZEVD_TRACE(trc, TRACE_FLOW, "Try to get _UDPSockLock[@%p]\n",
               static_cast<void *>(&_UDPSockLock));
    if (ZEVA_GetLock(&_UDPSockLock, this) != 0) {
        ZEVD_TRACE(trc, TRACE_ERROR, "Error: pthread_cond_lock failed. errno=%d\n", errno);
        return trc.exit(result);
    }
    ZEVD_TRACE(trc, TRACE_FLOW, "_UDPSockLock[@%p] taken.\n", static_cast<void *>(&_UDPSockLock));
    for (;;) {
        bool found = false;
        for (int32_t i = 0; i < count; ++i) {
            // The first free slot wins, even one whose socket failed to open.
            if (list[i].inUse == 0) {
                list[i].inUse = 1;
                result = list[i].sockUDP;
                ZEVD_TRACE(trc, TRACE_DETAIL, "[%d] UDP Socket %d is available\n", i, result);
                found = true;
                break;
            }
        }
        if (found) break;

        ZEVD_TRACE(trc, TRACE_DETAIL, "No UDP sockets available yet. Waiting on signal.\n");
        struct timespec deadline;
        clock_gettime(CLOCK_REALTIME, &deadline);
        deadline.tv_sec += kPoolWaitSeconds;
        deadline.tv_nsec = 0;
        // The decision below reads errno, which the wait does not set: start
        // it from 0 so that a stale value cannot turn a time-out into a
        // failure.
        errno = 0;
        int rc = pthread_cond_timedwait(&_UDPSockCond, &_UDPSockLock, &deadline);
        int waitErrno = errno;
        if (rc == 0) {
            ZEVD_TRACE(trc, TRACE_DETAIL,
                       "Signal received that UDP socket has become available.\n");
            continue;
        }
        // Decided on errno, not on the returned code, as designed.
        if (waitErrno != 0 && waitErrno != EAGAIN) {
            ZEVD_TRACE(trc, TRACE_ERROR, "Error: pthread_cond_wait failed. rc=%d errno=%d\n", rc,
                       waitErrno);
            break;
        }
        ZEVD_TRACE(trc, TRACE_DETAIL, "Wait timeout on UDP sock pool - errno=%d\n", waitErrno);
        if (ZEVA_ReleaseLock(&_UDPSockLock, this) == 0) {
            OSV1_Sleep(kPoolSleepSeconds);
            if (ZEVA_GetLock(&_UDPSockLock, this) != 0)
                ZEVD_TRACE(trc, TRACE_ERROR, "Error: unable to re-acquire lock\n");
        }
    }
    ZEVA_ReleaseLock(&_UDPSockLock, this);
    // What an earlier exchange left behind must not be read as this
    // borrower's answer.
    if (result >= 0) sockDrainUDP(result);
    return trc.exit(result);
}

void ipcSock::sockDrainUDP(int32_t fd) {
    ZEVD_TRACE_LEVEL("ipcSock::allocateIPC");
    char scrap[IPC_DATAGRAM_SIZE];
    // Bounded: a sender that floods the socket cannot hold the borrower.
    for (int i = 0; i < kMostDrained; ++i) {
        ssize_t got = recv(fd, scrap, sizeof scrap, MSG_DONTWAIT | MSG_TRUNC);
        if (got < 0) break;
        ZEVD_TRACE(trc, TRACE_DETAIL,
                   "Note: dropped a datagram of %d bytes left in UDP socket %d\n",
                   static_cast<int>(got), fd);
    }
}

bool ipcSock::sockRenewUDP() {
    ZEVD_TRACE_LEVEL("ipcSock::releaseIPC");
    struct sockaddr_in address;
    memset(&address, 0, sizeof address);
    int error = 0;
    int fresh = ZEV0_OpenLocalSocket(2, 0, &address, 0, &error, 0);
    // dup3 closes the old socket and keeps the descriptor's number, which
    // the pool and this object both hold.
    if (fresh < 0 || dup3(fresh, _sockUDP, O_CLOEXEC) < 0) {
        ZEVD_TRACE(trc, TRACE_ERROR, "Error: UDP socket %d could not be renewed. errno=%d\n",
                   _sockUDP, fresh < 0 ? error : errno);
        if (fresh >= 0) ZEV0_CloseTheSocket(fresh);
        return false;
    }
    ZEV0_CloseTheSocket(fresh);
    ZEVD_TRACE(trc, TRACE_DETAIL,
               "Note: UDP socket %d renewed: its last read handed over no complete message.\n",
               _sockUDP);
    return true;
}

int32_t ipcSock::releaseIPC() {
    ZEVD_TRACE_FUNCTION("ipcSock::releaseIPC");
    ZEVD_TRACE(trc, TRACE_FLOW, "_useFromSockPool[%d] _UDPSockLock[@%p]\n", _useFromSockPool,
               static_cast<void *>(&_UDPSockLock));
    // The destructor closes a socket of the object's own.
    if (_useFromSockPool == 0) return trc.exit(0);

    bool found = false;
    UDPSockElement *list = _UDPSockList.load(std::memory_order_acquire);
    if (list != nullptr) {
        if (ZEVA_GetLock(&_UDPSockLock, this) != 0) {
            ZEVD_TRACE(trc, TRACE_ERROR, "Error: pthread_cond_lock failed. errno=%d\n", errno);
            return trc.exit(1);
        }
        int32_t count = _UDPSocketsInPool.load();
        for (int32_t i = 0; i < count; ++i) {
            if (list[i].sockUDP == _sockUDP) {
                // Still lent to this object while the lock is held: no
                // borrower can meet the socket half renewed.
                if (_sockReadIncomplete && _sockUDP >= 0 && sockRenewUDP())
                    _sockReadIncomplete = false;
                list[i].inUse = 0;
                ZEVD_TRACE(trc, TRACE_DETAIL, "[%d] UDP Socket %d made available for use.\n", i,
                           _sockUDP);
                found = true;
                break;
            }
        }
        ZEVA_ReleaseLock(&_UDPSockLock, this);
    }
    if (!found) {
        ZEVD_TRACE(trc, TRACE_ERROR, "Error: UDP socket %d not found.\n", _sockUDP);
        return trc.exit(1);
    }
    ZEVD_TRACE(trc, TRACE_DETAIL, "Signaling UDP socket waiters.\n");
    int rc = pthread_cond_signal(&_UDPSockCond);
    if (rc != 0) {
        ZEVD_TRACE(trc, TRACE_ERROR, "Error: pthread_cond_signal failed. rc=%d errno=%d\n", rc,
                   errno);
        return trc.exit(1);
    }
    return trc.exit(0);
}

int32_t ipcSock::DCHtimeout() {
    // Narrowed to 16 bits and widened again on purpose: 40000 reads -25536.
    return static_cast<int32_t>(static_cast<int16_t>(_envDCHtimeout.load()));
}

uint16_t ipcSock::sockPortTCP() {
    _portTCP = ZEV0_RetrieveSockPort(_sockTCP);
    return _portTCP;
}

uint16_t ipcSock::sockPortUDP() {
    _portUDP = ZEV0_RetrieveSockPort(_sockUDP);
    return _portUDP;
}

int32_t ipcSock::setClientAddr(const void *addr, int32_t /*addrLen*/) {
    if (addr == nullptr)
        memset(&_sockAddress, 0, sizeof _sockAddress);
    else
        memcpy(&_sockAddress, addr, sizeof _sockAddress);
    return 0;
}

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
    char label[kLabelSize];

    if (!(instance && _envPortNo.load() == IPC_DEFAULT_DCH_PORT) && !forceSearch) {
        int port = _envPortNo.load();
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
            while ((fd = sockCheckReadMask(&readMask, &slot)) != -1)
                if (fd > 0) sockServeClient(state, fd, slot);
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

void ipcSock::sockServeClient(ipcServerState &state, int32_t fd, int32_t slot) {
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
            }
            moreData = false;
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
                // A first piece shorter than the word gives a word of the
                // bytes that came, followed by zeros.
                unsigned char word[4] = {0, 0, 0, 0};
                memcpy(word, piece, std::min<size_t>(sizeof word, bytesRead));
                totalLen = (static_cast<uint32_t>(word[0]) << 24) |
                           (static_cast<uint32_t>(word[1]) << 16) |
                           (static_cast<uint32_t>(word[2]) << 8) | static_cast<uint32_t>(word[3]);
                initRead = false;
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
        if (!(totalLen > static_cast<uint32_t>(totalRead) && totalLen > 0)) moreData = false;
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

ssize_t ipcSock::sockSendClient(int fd, const char *buffer, int32_t length) {
    bool locked = ZEVA_GetLock(&_sockClientLock, this) == 0;
    // A partial send sets no errno: it must not read as an older failure.
    errno = 0;
    // MSG_NOSIGNAL: a peer that went away fails the send instead of ending
    // the process with SIGPIPE.
    ssize_t rc = send(fd, buffer, static_cast<size_t>(length), MSG_NOSIGNAL);
    int sendErrno = errno;
    if (locked) ZEVA_ReleaseLock(&_sockClientLock, this);
    errno = sendErrno;
    return rc;
}

int32_t ipcSock::IPCClient(void * /*addr*/, int32_t connectTo, int32_t typeOfServer) {
    ZEVD_TRACE_FUNCTION("ipcSock::IPCClient");
    _sockError = 0;
    ZEVD_TRACE(trc, TRACE_STORAGE, "DCHName[%s] DCHPort[%d] connectTo[%d] typeOfServer[%d]\n",
               _envDCHname, _envPortNo.load(), connectTo, typeOfServer);
    if (connectTo == 0) {
        setClientAddr(nullptr, 0);
        _sockUDP = allocateIPC();
        if (_sockUDP < 0) {
            ZEVD_TRACE(trc, TRACE_ERROR, "Error: _sockUDP[%d]  errno=%d\n", _sockUDP, errno);
            _sockError = 1;
        } else {
            if (typeOfServer != IPC_SERVICE_CLIENT_OBJECT) {
                setClientAddr(nullptr, 0);
                int error = 0;
                _sockTCP = ZEV0_OpenLocalSocket(1, 0, &_sockAddress, 0, &error, 0);
                if (_sockTCP < 0) {
                    ZEVD_TRACE(trc, TRACE_ERROR, "Error: _sockTCP[%d]  errno=%d\n", _sockTCP,
                               errno);
                    _sockError = 1;
                }
            }
            if (_sockError == 0) {
                ZEVD_TRACE(trc, TRACE_DETAIL, "Using DCH port number: %d\n", _envPortNo.load());
                // The address resolved with the configuration, at today's port.
                if (_envDCHresolved.load() == 0) {
                    ZEVD_TRACE(trc, TRACE_ERROR, "Error: ZEV0_ConvertNameToAddr failed for[%s]\n",
                               _envDCHname);
                    _sockError = 1;
                } else {
                    _sockAddress = _envDCHaddress;
                    _sockAddress.sin_port = htons(_envPortNo.load());
                }
            }
        }
    } else {
        // A socket pair of the object's own, never from the pool, and no
        // address to resolve.
        int error = 0;
        _sockUDP = ZEV0_OpenLocalSocket(2, 0, &_sockAddress, 0, &error, 0);
        if (_sockUDP < 0) {
            ZEVD_TRACE(trc, TRACE_ERROR, "Error: _sockUDP[%d]  errno=%d\n", _sockUDP, errno);
            _sockError = 1;
        } else {
            _sockTCP = ZEV0_OpenLocalSocket(1, 0, &_sockAddress, 0, &error, 0);
            if (_sockTCP < 0) {
                ZEVD_TRACE(trc, TRACE_ERROR, "Error: _sockTCP[%d]  errno=%d\n", _sockTCP, errno);
                _sockError = 1;
            }
        }
    }
    if (_sockError == 0 && trc.on(TRACE_DETAIL)) {
        char label[kLabelSize];
        snprintf(label, sizeof label, "Created _sockUDP[%d] bound to port", _sockUDP);
        ZEVD_TRACE(trc, TRACE_DETAIL, "%s: clientAddr <%d<%-*.*x>>\n", label, _sockAddressLen,
                   _sockAddressLen, _sockAddressLen, static_cast<void *>(&_sockAddress));
        if (connectTo == 0 && typeOfServer != IPC_SERVICE_CLIENT_OBJECT) {
            // Prints _sockUDP, not _sockTCP: a slip kept as it is.
            snprintf(label, sizeof label, "Created _sockTCP[%d] bound to port", _sockUDP);
            ZEVD_TRACE(trc, TRACE_DETAIL, "%s: clientAddr <%d<%-*.*x>>\n", label, _sockAddressLen,
                       _sockAddressLen, _sockAddressLen, static_cast<void *>(&_sockAddress));
        }
    }
    return trc.exit(_sockError);
}

int32_t ipcSock::ipcRead(char **buffer, int32_t wait) {
    ZEVD_TRACE_FUNCTION("ipcSock::ipcRead");
    ipcBufEntry ipcBufArray[IPC_MAX_DATAGRAMS] = {};
    int32_t ipcBufCount = 0;
    int32_t totalRead = 0;
    uint32_t totalLen = 0;
    int32_t bytesRead = 0;  // also the result of the call
    bool firstToCome = true;
    ZEVD_TRACE(trc, TRACE_DETAIL, "[@%p] Passed parms: buffer @%p, initial wait=%d\n",
               static_cast<void *>(this), static_cast<void *>(*buffer), wait);

    // Filled once: a retry of the first wait runs with what select has left
    // of it, which on Linux is nothing, so the retries end at once.
    struct timeval timeOut = {wait, 0};
    struct timeval *timeOutRecord = wait >= 1 ? &timeOut : nullptr;
    int32_t currentWait = wait;
    // Further waits after a wait that timed out; once used up, a time-out
    // ends the read.
    int32_t retriesLeft = std::max(ipcGetRetryRead(), 0);
    // Until a complete message is handed over, its answer may still come.
    _sockReadIncomplete = true;
    // After a failed select (a signal, say) the receive must not block.
    int receiveFlags = 0;

    for (;;) {
        if (ipcBufCount > IPC_MAX_DATAGRAMS - 1) {
            ZEVD_TRACE(trc, TRACE_ERROR,
                       "Error: [@%p] Max %d number of 16K buffers already read.\n",
                       static_cast<void *>(this), IPC_MAX_DATAGRAMS);
            bytesRead = -1;
            break;
        }
        if (!firstToCome) {
            currentWait = kNextDatagramWait;
            timeOut = {kNextDatagramWait, 0};
            timeOutRecord = &timeOut;
        }

        fd_set readMask;
        FD_ZERO(&readMask);
        int count = -1;
        int selectErrno = EBADF;
        ZEVD_TRACE(trc, TRACE_DETAIL,
                   "Waiting on SELECT: UDP[%d] Port[%d] MaxFD[%d] WaitTime[%d]\n", _sockUDP,
                   sockPortUDP(), _sockUDP + 1, currentWait);
        if (fitsSelectSet(_sockUDP)) {
            FD_SET(_sockUDP, &readMask);
            count = select(_sockUDP + 1, &readMask, nullptr, nullptr, timeOutRecord);
            selectErrno = errno;
        }
        ZEVD_TRACE(trc, TRACE_DETAIL, "[@%p] Select returned - count=%d errno=%d\n",
                   static_cast<void *>(this), count, selectErrno);
        if (count == -1) {
            ZEVD_TRACE(trc, TRACE_ERROR, "Error: [@%p] select - wait=%d count=%d errno=%d\n",
                       static_cast<void *>(this), currentWait, count, selectErrno);
            bytesRead = -1;
            // A socket that select cannot watch is not received from either.
            if (!fitsSelectSet(_sockUDP)) break;
            // Otherwise the receive is attempted all the same, but without
            // waiting: a signal must not turn a bounded read into an endless
            // one.
            receiveFlags = MSG_DONTWAIT;
        } else if (count == 0) {
            if (retriesLeft > 0) {
                --retriesLeft;
                ZEVD_TRACE(trc, TRACE_DETAIL,
                           "select timed out - wait=%d count=%d errno=%d...trying again\n",
                           currentWait, count, selectErrno);
                continue;
            }
            ZEVD_TRACE(trc, TRACE_DETAIL,
                       "select timed out - wait=%d count=%d errno=%d...not retrying\n", currentWait,
                       count, selectErrno);
            // Nothing is handed over: the datagrams kept so far are dropped.
            dropPieces(ipcBufArray, ipcBufCount);
            return trc.exit(bytesRead);
        }

        auto *piece = new (std::nothrow) char[IPC_DATAGRAM_SIZE];
        if (piece == nullptr) {
            ZEVD_TRACE(trc, TRACE_ERROR, "Error: allocating %d bytes for ipcBuffer\n",
                       IPC_DATAGRAM_SIZE);
            bytesRead = -1;
            // Ends the read rather than going round again at once, which
            // could spin for as long as memory stays short.
            break;
        }
        ZEVD_TRACE(trc, TRACE_STORAGE,
                   "Allocated ipcBuffer @%p length %d in ipcSock @%p, storing in ipcBufArray at "
                   "index: %d\n",
                   static_cast<void *>(piece), IPC_DATAGRAM_SIZE, static_cast<void *>(this),
                   ipcBufCount);
        ipcBufArray[ipcBufCount].buffer = piece;
        memset(piece, 0, IPC_DATAGRAM_SIZE);
        struct sockaddr_in sender;
        socklen_t senderLen = sizeof sender;
        bytesRead = static_cast<int32_t>(recvfrom(_sockUDP, piece, IPC_DATAGRAM_SIZE, receiveFlags,
                                                  reinterpret_cast<struct sockaddr *>(&sender),
                                                  &senderLen));
        int recvErrno = errno;
        receiveFlags = 0;

        if (bytesRead < 1) {
            if (ZEV0_IsValidPointer(piece)) {
                ZEVD_TRACE(trc, TRACE_STORAGE, "Deleting ipcBuffer @%p, bytesRead: %d\n",
                           static_cast<void *>(piece), bytesRead);
                int slot = -1;
                for (int i = 0; i < IPC_MAX_DATAGRAMS && slot < 0; ++i)
                    if (ipcBufArray[i].buffer == piece) slot = i;
                delete[] piece;
                if (slot >= 0) {
                    ZEVD_TRACE(trc, TRACE_DETAIL, "Nulling out ipcBuffer at ipcBufArray index %d\n",
                               slot);
                    ipcBufArray[slot].buffer = nullptr;
                    ipcBufArray[slot].length = 0;
                }
            } else {
                ZEVD_TRACE(trc, TRACE_ERROR, "Error: ipcBuffer object @%p is not valid\n",
                           static_cast<void *>(piece));
            }
            break;
        }

        totalRead += bytesRead;
        ipcBufArray[ipcBufCount].length = bytesRead;
        ++ipcBufCount;
        if (firstToCome) {
            firstToCome = false;
            // A first datagram too short to hold a length word has none: it
            // counts as length 0 and fails like one.
            if (bytesRead >= kLengthWordSize) {
                uint32_t word;
                memcpy(&word, piece, sizeof word);
                totalLen = ntohl(word);
            }
        }
        ZEVD_TRACE(trc, TRACE_DETAIL,
                   "ipcBufCount=%d totalLen=%d, bytesRead=%d, totalRead=%d, errno=%d\n",
                   ipcBufCount, static_cast<int32_t>(totalLen), bytesRead, totalRead, recvErrno);
        if (totalLen > kMaxMessageLength) {
            // No number of datagrams this read may join can meet it.
            ZEVD_TRACE(trc, TRACE_ERROR,
                       "Error: [@%p] Max %d number of 16K buffers already read.\n",
                       static_cast<void *>(this), IPC_MAX_DATAGRAMS);
            bytesRead = -1;
            break;
        }
        if (totalLen == 0 || totalLen <= static_cast<uint32_t>(totalRead)) break;
    }

    if (ipcBufCount < 1 || totalLen != static_cast<uint32_t>(totalRead)) {
        ZEVD_TRACE(trc, TRACE_ERROR, "Error: [@%p] totalLen=%d, bytesRead=%d errno=%d\n",
                   static_cast<void *>(this), static_cast<int32_t>(totalLen), bytesRead, errno);
        bytesRead = -1;
        dropPieces(ipcBufArray, ipcBufCount);
    } else {
        ZEVD_TRACE(trc, TRACE_DETAIL,
                   "recvfrom operation had no more data, totalRead: %d, ipcBufCount: %d\n",
                   totalRead, ipcBufCount);
        if (ipcBufCount == 1) {
            // Handed over without a copy: an 8192-byte block of which the
            // first totalLen bytes are the message.
            *buffer = ipcBufArray[0].buffer;
            _sockReadIncomplete = false;
        } else {
            auto *completeBuffer = new (std::nothrow) char[totalRead];
            if (completeBuffer == nullptr) {
                ZEVD_TRACE(trc, TRACE_ERROR, "Error: allocating %d bytes for completeBuffer\n",
                           totalRead);
                bytesRead = -1;
                dropPieces(ipcBufArray, ipcBufCount);
            } else {
                ZEVD_TRACE(trc, TRACE_STORAGE, "Allocated %d bytes for completeBuffer @%p\n",
                           totalRead, static_cast<void *>(completeBuffer));
                memset(completeBuffer, 0, totalRead);
                int32_t offset = 0;
                for (int32_t i = 0; i < ipcBufCount; ++i) {
                    ZEVD_TRACE(trc, TRACE_DETAIL,
                               "[%d] completeBuffer[@%p], offset[%d], buffer[%p], dataLen[%d]\n", i,
                               static_cast<void *>(completeBuffer), offset,
                               static_cast<void *>(ipcBufArray[i].buffer), ipcBufArray[i].length);
                    // The lengths add up to totalRead, the block's size.
                    memcpy(completeBuffer + offset, ipcBufArray[i].buffer, ipcBufArray[i].length);
                    offset += ipcBufArray[i].length;
                }
                *buffer = completeBuffer;
                _sockReadIncomplete = false;
                for (int32_t i = 0; i < ipcBufCount; ++i) {
                    if (ZEV0_IsValidPointer(ipcBufArray[i].buffer)) {
                        ZEVD_TRACE(trc, TRACE_STORAGE, "Deleting ipcBufArray[%i]: @%p\n", i,
                                   static_cast<void *>(ipcBufArray[i].buffer));
                        delete[] ipcBufArray[i].buffer;
                        ipcBufArray[i].buffer = nullptr;
                    } else {
                        ZEVD_TRACE(trc, TRACE_ERROR,
                                   "Error: ipcBufArray[%i] object @%p is not valid\n", i,
                                   static_cast<void *>(ipcBufArray[i].buffer));
                    }
                }
            }
        }
    }
    ZEVD_TRACE(trc, TRACE_DETAIL, "*readBuffer set to @%p\n", static_cast<void *>(*buffer));
    return trc.exit(bytesRead);
}

int32_t ipcSock::ipcWrite(const char *buffer, int32_t length, uint32_t connectedSockFD) {
    ZEVD_TRACE_FUNCTION("ipcSock::ipcWrite");
    int32_t sent = 0;
    bool failed = false;
    if (connectedSockFD == 0) {
        ZEVD_TRACE(trc, TRACE_DETAIL, "[@%p] Using Family=AF_INET, Type=UDP, totalLen=%d\n",
                   static_cast<void *>(this), length);
        ZEVD_TRACE(trc, TRACE_DETAIL, "%s: clientAddr <%d<%-*.*x>>\n", "_sockAddress set to ",
                   _sockAddressLen, _sockAddressLen, _sockAddressLen,
                   static_cast<void *>(&_sockAddress));
        int32_t chunk = length;
        while (sent < length) {
            if (chunk > IPC_DATAGRAM_SIZE) chunk = IPC_DATAGRAM_SIZE;
            ssize_t rc = sendto(_sockUDP, buffer + sent, static_cast<size_t>(chunk), 0,
                                reinterpret_cast<const struct sockaddr *>(&_sockAddress),
                                sizeof _sockAddress);
            if (rc < 0) {
                int sendErrno = errno;
                ZEVD_TRACE(trc, TRACE_ERROR,
                           "Error: [@%p] SENDTO - Sent %d bytes out of %d: errno=%d: _sockUDP=%d\n",
                           static_cast<void *>(this), sent, length, sendErrno, _sockUDP);
                failed = true;
                break;
            }
            sent += static_cast<int32_t>(rc);
            chunk = length - sent;
            if (chunk == 0) break;
            // The pause between the datagrams of one message is part of the
            // design: n datagrams take at least n - 1 seconds.
            OSV1_Sleep(1);
            ZEVD_TRACE(trc, TRACE_FLOW, "[@%p] Sent<%d> Remaining<%d>\n", static_cast<void *>(this),
                       sent, chunk);
        }
    } else {
        int fd = static_cast<int>(connectedSockFD);
        ZEVD_TRACE(trc, TRACE_DETAIL,
                   "[@%p] Using Family=AF_INET, Type=TCP, connectedSockFD set to %d\n",
                   static_cast<void *>(this), fd);
        ssize_t rc = sockSendClient(fd, buffer, length);
        int sendErrno = errno;
        if (rc == length) {
            sent = static_cast<int32_t>(rc);
        } else if (sendErrno == EAGAIN) {
            // Waits on the object's own TCP socket, not on connectedSockFD,
            // as designed.
            int32_t timeout = _envDCHtimeout.load();
            ZEVD_TRACE(trc, TRACE_DETAIL, "SEND would block - waiting on Select for %d seconds.\n",
                       timeout);
            fd_set writeMask;
            FD_ZERO(&writeMask);
            int count = -1;
            int selectErrno = EBADF;
            if (fitsSelectSet(_sockTCP)) {
                FD_SET(_sockTCP, &writeMask);
                struct timeval timeOut = {timeout, 0};
                count = select(_sockTCP + 1, nullptr, &writeMask, nullptr, &timeOut);
                selectErrno = errno;
            }
            if (count <= 0) {
                ZEVD_TRACE(trc, TRACE_ERROR, "Error: [@%p] select - count=%d errno=%d\n",
                           static_cast<void *>(this), count, selectErrno);
                failed = true;
            } else {
                ZEVD_TRACE(trc, TRACE_DETAIL, "Select returned. Count=%d, errno=%d\n", count,
                           selectErrno);
                // The whole message again from its first byte: a partial
                // send is never continued.
                rc = sockSendClient(fd, buffer, length);
                sendErrno = errno;
                if (rc == length) {
                    sent = static_cast<int32_t>(rc);
                } else {
                    ZEVD_TRACE(
                        trc, TRACE_ERROR, "Error: [@%p] SEND - Sent %d bytes out of %d: errno=%d\n",
                        static_cast<void *>(this), static_cast<int32_t>(rc), length, sendErrno);
                    failed = true;
                }
            }
        } else {
            ZEVD_TRACE(trc, TRACE_ERROR, "Error: [@%p] SEND - Sent %d bytes out of %d: errno=%d\n",
                       static_cast<void *>(this), static_cast<int32_t>(rc), length, sendErrno);
            failed = true;
        }
    }
    if (failed) return trc.exit(-1);
    ZEVD_TRACE(trc, TRACE_DETAIL, "Sent %d bytes out of %d\n", sent, length);
    if (trc.on(TRACE_DUMP)) ZEV0_PrintDump(buffer, 0, length);
    return trc.exit(sent);
}
