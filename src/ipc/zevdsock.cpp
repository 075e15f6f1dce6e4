// ipcSock: construction, the process-wide configuration and the UDP socket
// pool.
#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

#include "common/trace.h"
#include "ipc/zevdsock.h"
#include "ipc/zevdsock_internal.h"

ZEVD_TRACE_UNIT(unitZevdsock);

std::atomic<int32_t> ipcSock::_envVarsInit{0};
std::atomic<int32_t> ipcSock::_envDCHUDPInit{0};
char ipcSock::_envDCHname[IPC_DCH_NAME_SIZE];
struct sockaddr_in ipcSock::_envDCHaddress;
std::atomic<int32_t> ipcSock::_envDCHresolved{0};
std::atomic<int32_t> ipcSock::_envDCHplace{kDCHremote};
struct in_addr ipcSock::_envDCHsource;
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

using zevd::storeShared;

// A borrower waits this long for a returned socket, then sleeps outside the
// lock before it looks again.
constexpr int kPoolWaitSeconds = 10;
constexpr int kPoolSleepSeconds = 3;
// How soon a borrower tries again to renew a socket that could not be.
constexpr int kStaleRetrySeconds = 1;
// The most datagrams a borrower drops from a socket before using it.
constexpr int kMostDrained = 4096;

// A pooled socket that is renewed keeps its old socket open, unread, for
// this many DCH time-outs (at least kLeastRetiredSeconds): while it holds
// its port, no new socket of any process on this host can be given that
// port and read the late answer as its own. The wire carries no request
// number, so an answer later than that can still reach whoever holds the
// port next.
constexpr int kRetiredTimeOuts = 2;
constexpr time_t kLeastRetiredSeconds = 2;
// At most this many are kept; beyond it the oldest is closed early.
constexpr int kMostRetired = 64;

struct RetiredSocket {
    int fd;
    time_t until;  // CLOCK_MONOTONIC seconds
};

// Guarded by the pool's lock, under which every renewal runs.
RetiredSocket retiredSockets[kMostRetired];
int retiredCount = 0;

time_t monotonicSeconds() {
    struct timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec;
}

// Keeps fd open until its time is up, closing those whose time is up and,
// when full, the oldest.
void retireSocket(int fd, int32_t dchTimeout) {
    time_t now = monotonicSeconds();
    int kept = 0;
    for (int i = 0; i < retiredCount; ++i) {
        if (retiredSockets[i].until <= now)
            close(retiredSockets[i].fd);
        else
            retiredSockets[kept++] = retiredSockets[i];
    }
    retiredCount = kept;
    if (fd < 0) return;
    if (retiredCount == kMostRetired) {
        close(retiredSockets[0].fd);
        std::copy(retiredSockets + 1, retiredSockets + retiredCount, retiredSockets);
        --retiredCount;
    }
    time_t hold =
        std::max<time_t>(static_cast<time_t>(dchTimeout) * kRetiredTimeOuts, kLeastRetiredSeconds);
    retiredSockets[retiredCount++] = {fd, now + hold};
}

}  // namespace

ipcSock::ipcSock() : DCHipc() {
    ZEVD_TRACE_FUNCTION("ipcSock::ipcSock");
    ZEVD_TRACE(trc, TRACE_ERROR, "Error: this constructor should not be used.\n");
    _sockError = 1;
    trc.exit();
}

ipcSock::ipcSock(int16_t service, int32_t connectTo, int32_t useFromSockPool,
                 std::function<bool(const struct sockaddr_in &)> admits)
    : DCHipc(service), _peerFilter(std::move(admits)), _useFromSockPool(useFromSockPool) {
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
                    list[i].stale = 0;
                    // ipcSock's own setClientAddr is the one meant here.
                    // NOLINTNEXTLINE(clang-analyzer-optin.cplusplus.VirtualCall)
                    setClientAddr(nullptr, 0);
                    int error = 0;
                    list[i].sockUDP = openClientUDP(&_sockAddress, &error);
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
    // Connections that ended and were still held for the consumer.
    for (const sockEnded &ended : _sockEnded) ZEV0_CloseTheSocket(ended.fd);
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
    findDCHhost(port);

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

void ipcSock::findDCHhost(uint16_t port) {
    _envDCHplace.store(kDCHremote);
    _envDCHsource.s_addr = htonl(INADDR_LOOPBACK);
    if (_envDCHresolved.load() == 0) return;
    // Connecting a datagram socket sends nothing: it only has the kernel
    // choose the address this host sends to the DCH from.
    struct sockaddr_in to = _envDCHaddress;
    to.sin_port = htons(port != 0 ? port : IPC_DEFAULT_DCH_PORT);
    struct sockaddr_in from;
    memset(&from, 0, sizeof from);
    socklen_t fromLen = sizeof from;
    int probe = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    bool found = probe >= 0 &&
                 connect(probe, reinterpret_cast<struct sockaddr *>(&to), sizeof to) == 0 &&
                 getsockname(probe, reinterpret_cast<struct sockaddr *>(&from), &fromLen) == 0;
    if (probe >= 0) close(probe);
    if (found) _envDCHsource = from.sin_addr;
    if ((ntohl(_envDCHaddress.sin_addr.s_addr) >> 24) == IN_LOOPBACKNET)
        _envDCHplace.store(kDCHloopback);
    else if (found && from.sin_addr.s_addr == _envDCHaddress.sin_addr.s_addr)
        _envDCHplace.store(kDCHlocal);
}

bool ipcSock::senderIsDCH(const struct sockaddr_in &sender) const {
    if (sender.sin_family != AF_INET || _envDCHresolved.load() == 0) return false;
    // The DCH sends from its port's own socket; another socket of its host
    // is not the DCH, whoever owns it.
    if (sender.sin_port != _sockDCHport) return false;
    in_addr_t from = sender.sin_addr.s_addr;
    if (from == _envDCHaddress.sin_addr.s_addr) return true;
    // A DCH on this host that listens on every address answers from the
    // address the kernel picks for the way back, which need not be the one
    // it was asked on (a host name set to 127.0.1.1, say).
    return _envDCHplace.load() != kDCHremote &&
           (from == _envDCHsource.s_addr || from == htonl(INADDR_LOOPBACK));
}

int32_t ipcSock::openClientUDP(struct sockaddr_in *address, int *error) {
    if (_envDCHplace.load() != kDCHloopback)
        return ZEV0_OpenLocalSocket(2, 0, address, 0, error, 0);
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    struct sockaddr_in local;
    memset(&local, 0, sizeof local);
    local.sin_family = AF_INET;
    local.sin_addr = _envDCHsource;
    socklen_t length = sizeof local;
    if (fd < 0 || bind(fd, reinterpret_cast<struct sockaddr *>(&local), sizeof local) != 0 ||
        getsockname(fd, reinterpret_cast<struct sockaddr *>(&local), &length) != 0) {
        int saved = errno;
        if (fd >= 0) close(fd);
        if (error != nullptr) *error = saved;
        errno = saved;
        return -1;
    }
    if (address != nullptr) *address = local;
    if (error != nullptr) *error = 0;
    return fd;
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
        result = openClientUDP(&_sockAddress, &error);
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
        bool staleSkipped = false;
        for (int32_t i = 0; i < count; ++i) {
            // The first free slot wins, even one whose socket failed to open.
            if (list[i].inUse != 0) continue;
            // One whose last answer may still come is lent only once it is
            // renewed: until then borrowers wait, as for a pool lent out,
            // rather than read another request's answer.
            if (list[i].stale != 0) {
                if (!sockRenewUDP(list[i].sockUDP)) {
                    staleSkipped = true;
                    continue;
                }
                list[i].stale = 0;
            }
            list[i].inUse = 1;
            result = list[i].sockUDP;
            ZEVD_TRACE(trc, TRACE_DETAIL, "[%d] UDP Socket %d is available\n", i, result);
            found = true;
            break;
        }
        if (found) break;

        ZEVD_TRACE(trc, TRACE_DETAIL, "No UDP sockets available yet. Waiting on signal.\n");
        struct timespec deadline;
        clock_gettime(CLOCK_REALTIME, &deadline);
        // A socket that could not be renewed is tried again within a
        // second, without the pause.
        deadline.tv_sec += staleSkipped ? kStaleRetrySeconds : kPoolWaitSeconds;
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
        if (staleSkipped) continue;
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

bool ipcSock::sockRenewUDP(int32_t fd) {
    ZEVD_TRACE_LEVEL("ipcSock::releaseIPC");
    struct sockaddr_in address;
    memset(&address, 0, sizeof address);
    int error = 0;
    int fresh = openClientUDP(&address, &error);
    // The old socket, kept open a while under a descriptor of its own (when
    // one is to be had): the late answer lands there and is dropped with it.
    int old = fresh >= 0 ? fcntl(fd, F_DUPFD_CLOEXEC, 0) : -1;
    // dup3 puts the fresh socket behind the descriptor's number, which the
    // pool and this object both hold.
    if (fresh < 0 || dup3(fresh, fd, O_CLOEXEC) < 0) {
        ZEVD_TRACE(trc, TRACE_ERROR, "Error: UDP socket %d could not be renewed. errno=%d\n", fd,
                   fresh < 0 ? error : errno);
        if (fresh >= 0) ZEV0_CloseTheSocket(fresh);
        if (old >= 0) ZEV0_CloseTheSocket(old);
        return false;
    }
    ZEV0_CloseTheSocket(fresh);
    retireSocket(old, _envDCHtimeout.load());
    ZEVD_TRACE(trc, TRACE_DETAIL,
               "Note: UDP socket %d renewed: its last read handed over no complete message.\n", fd);
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
                if (_sockReadIncomplete && _sockUDP >= 0) {
                    list[i].stale = sockRenewUDP(_sockUDP) ? 0 : 1;
                    _sockReadIncomplete = false;
                }
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
