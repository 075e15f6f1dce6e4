// ipcSock: the client side's set-up: its sockets and the DCH's address.
#include <cerrno>
#include <cstdio>

#include "common/trace.h"
#include "ipc/zevdsock.h"
#include "ipc/zevdsock_internal.h"

ZEVD_TRACE_UNIT(unitZevdsock);

namespace {

using zevd::kSockLabelSize;

}  // namespace

int32_t ipcSock::IPCClient(void * /*addr*/, int32_t connectTo, int32_t typeOfServer) {
    ZEVD_TRACE_FUNCTION("ipcSock::IPCClient");
    _sockError = 0;
    _sockFailure[0] = '\0';
    ZEVD_TRACE(trc, TRACE_STORAGE, "DCHName[%s] DCHPort[%d] connectTo[%d] typeOfServer[%d]\n",
               _envDCHname, _envPortNo.load(), connectTo, typeOfServer);
    if (connectTo == 0) {
        _sockReadsFromDCH = true;
        setClientAddr(nullptr, 0);
        _sockUDP = allocateIPC();
        if (_sockUDP < 0) {
            int udpErrno = errno;
            ZEVD_TRACE(trc, TRACE_ERROR, "Error: _sockUDP[%d]  errno=%d\n", _sockUDP, udpErrno);
            snprintf(_sockFailure, sizeof _sockFailure, "no UDP socket for the DCH (errno %d)",
                     udpErrno);
            _sockError = 1;
        } else {
            if (typeOfServer != IPC_SERVICE_CLIENT_OBJECT) {
                setClientAddr(nullptr, 0);
                int error = 0;
                _sockTCP = ZEV0_OpenLocalSocket(1, 0, &_sockAddress, 0, &error, 0);
                if (_sockTCP < 0) {
                    int tcpErrno = errno;
                    ZEVD_TRACE(trc, TRACE_ERROR, "Error: _sockTCP[%d]  errno=%d\n", _sockTCP,
                               tcpErrno);
                    snprintf(_sockFailure, sizeof _sockFailure,
                             "no TCP socket for the DCH (errno %d)", tcpErrno);
                    _sockError = 1;
                }
            }
            if (_sockError == 0) {
                ZEVD_TRACE(trc, TRACE_DETAIL, "Using DCH port number: %d\n", _envPortNo.load());
                // The address resolved with the configuration, at today's port.
                if (_envDCHresolved.load() == 0) {
                    ZEVD_TRACE(trc, TRACE_ERROR, "Error: ZEV0_ConvertNameToAddr failed for[%s]\n",
                               _envDCHname);
                    if (_envDCHname[0] == '\0')
                        snprintf(_sockFailure, sizeof _sockFailure,
                                 "no DCH address: ZEVA_DCH_ADDR is not set and the local host "
                                 "name is unknown");
                    else
                        snprintf(_sockFailure, sizeof _sockFailure,
                                 "the DCH address \"%s\" does not resolve (ZEVA_DCH_ADDR, or the "
                                 "local host name when it is not set)",
                                 _envDCHname);
                    _sockError = 1;
                } else {
                    _sockAddress = _envDCHaddress;
                    _sockAddress.sin_port = htons(_envPortNo.load());
                    _sockDCHport = _sockAddress.sin_port;
                }
            }
        }
    } else {
        // A socket pair of the object's own, never from the pool, and no
        // address to resolve.
        int error = 0;
        _sockUDP = ZEV0_OpenLocalSocket(2, 0, &_sockAddress, 0, &error, 0);
        if (_sockUDP < 0) {
            int udpErrno = errno;
            ZEVD_TRACE(trc, TRACE_ERROR, "Error: _sockUDP[%d]  errno=%d\n", _sockUDP, udpErrno);
            snprintf(_sockFailure, sizeof _sockFailure, "no UDP socket (errno %d)", udpErrno);
            _sockError = 1;
        } else {
            _sockTCP = ZEV0_OpenLocalSocket(1, 0, &_sockAddress, 0, &error, 0);
            if (_sockTCP < 0) {
                int tcpErrno = errno;
                ZEVD_TRACE(trc, TRACE_ERROR, "Error: _sockTCP[%d]  errno=%d\n", _sockTCP, tcpErrno);
                snprintf(_sockFailure, sizeof _sockFailure, "no TCP socket (errno %d)", tcpErrno);
                _sockError = 1;
            }
        }
    }
    if (_sockError == 0 && trc.on(TRACE_DETAIL)) {
        char label[kSockLabelSize];
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
