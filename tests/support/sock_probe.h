// Reaches the protected state of the socket transport from the tests.
#ifndef ZEVD_TESTS_SUPPORT_SOCK_PROBE_H
#define ZEVD_TESTS_SUPPORT_SOCK_PROBE_H

#include <netinet/in.h>

#include <string>

#include "ipc/zevdsock.h"

namespace zevd::test {

// final: deleted through its own type, as every transport is.
class ipcSockProbe final : public ipcSock {
public:
    using ipcSock::ipcSock;

    int32_t sockTCP() const { return _sockTCP; }
    int32_t sockError() const { return _sockError; }
    int32_t useFromSockPool() const { return _useFromSockPool; }
    const struct sockaddr_in &address() const { return _sockAddress; }
    int32_t *clientFD() { return _sockClientFD; }

    static std::string dchName() { return _envDCHname; }
    static int portNo() { return _envPortNo.load(); }
    static int timeout() { return _envDCHtimeout.load(); }
    static int trapEmit() { return _envTRAPEMIT.load(); }
    static int poolSize() { return _UDPSocketsInPool.load(); }
    static int envVarsInit() { return _envVarsInit.load(); }
    static int envDCHUDPInit() { return _envDCHUDPInit.load(); }
    static const UDPSockElement *pool() { return _UDPSockList.load(); }
    static void *poolLock() { return &_UDPSockLock; }
    static void *poolCond() { return &_UDPSockCond; }
    // True when fd is one of the pool's sockets.
    static bool inPool(int fd) {
        const UDPSockElement *list = pool();
        if (list == nullptr) return false;
        for (int i = 0; i < poolSize(); ++i)
            if (list[i].sockUDP == fd) return true;
        return false;
    }
};

}  // namespace zevd::test

#endif  // ZEVD_TESTS_SUPPORT_SOCK_PROBE_H
