// The client object, the exchange every request shares, and the exported
// frame functions DCH_api_init, DCH_api_destroy and DCH_shutdown.
#include "client/zevdchcl.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <string>

#include "common/process_end.h"
#include "ipc/zevdlpc.h"
#include "ipc/zevdsock.h"
#include "zev0.h"
#include "zevd610.h"

ZEVD_TRACE_UNIT(unitZevdchcl);

pthread_mutex_t _dc_waitOnDataLock;
pthread_mutex_t _dc_waitOnDataCancelLock;
pthread_mutex_t _dc_waitForDPStatusLock;

namespace {

// Taken by the first DCH_api_init and never cleared, so the mutexes are
// made once per process; a call at the same time on another thread returns
// only once they are made.
std::once_flag locksInitialized;

// After the transport could not be had, the trace has a second to reach
// its file before the process ends.
constexpr int kEndPauseSeconds = 1;

}  // namespace

// ---------------------------------------------------------------------------
// The client object
// ---------------------------------------------------------------------------

DCHclient::DCHclient(int interrupt, int useFromSockPool) {
    ZEVD_TRACE_FUNCTION("DCHclientConstructor");
    _error = 0;
    _interruptFD = IPC_NO_SOCKET;
    _ipcType = ZEVA_GetIPCtype();
    if (_ipcType == 1) {
        auto *sock = new (std::nothrow) ipcSock(IPC_SERVICE_CLIENT_OBJECT, 0, useFromSockPool);
        _ipcClient = sock;
        if (sock != nullptr) {
            ZEVD_TRACE(trc, TRACE_DETAIL, "Allocated _ipcClient @%p\n", static_cast<void *>(sock));
            if (interrupt != 0) {
                struct sockaddr_in address;
                memset(&address, 0, sizeof address);
                int addressLen = sizeof address;
                // Kept: the address length stands where the error word goes.
                _interruptFD = ZEV0_OpenLocalSocket(2, 0, &address, 0, &addressLen, 0);
                if (_interruptFD < 0) {
                    ZEVD_TRACE(trc, TRACE_ERROR, "Error: _interruptFD[%d]  errno=%d\n",
                               _interruptFD, errno);
                    _error = 1;
                } else {
                    _interruptPort = ZEV0_RetrieveSockPort(_interruptFD);
                    ZEVD_TRACE(trc, TRACE_STORAGE, "_interruptFD socket[%d] bound to port[%d]\n",
                               _interruptFD, _interruptPort);
                }
            }
            _DCHtimeout = sock->DCHtimeout();
            _ipcReadTimeout = _DCHtimeout;
            ZEVD_TRACE(trc, TRACE_DETAIL, "_DCHtimeout=%d _ipcReadTimeout=%d\n", _DCHtimeout,
                       _ipcReadTimeout);
        } else {
            ZEVD_TRACE(trc, TRACE_ERROR, "Error: ipcSock creation failed.\n");
            _error = 1;
        }
    } else if (_ipcType == 2) {
        auto *lpc = new (std::nothrow) ipcLPC(IPC_SERVICE_CLIENT, nullptr, 0);
        _ipcClient = lpc;
        if (lpc != nullptr) {
            ZEVD_TRACE(trc, TRACE_DETAIL, "Allocated _ipcClient @%p\n", static_cast<void *>(lpc));
        } else {
            // As on the socket path: every request then ends at once with 1
            // instead of reaching for the missing transport.
            ZEVD_TRACE(trc, TRACE_ERROR, "Error: ipcLPC creation failed.\n");
            _error = 1;
        }
        // The LPC path takes no time-outs of its own: the transport's default.
        _DCHtimeout = lpc != nullptr ? lpc->DCHtimeout() : 30;
        _ipcReadTimeout = _DCHtimeout;
    } else {
        ZEVD_TRACE(trc, TRACE_ERROR, "Error: Unrecognized IPC type %d, exiting...\n", _ipcType);
        zevd::endProcess(kEndPauseSeconds,
                         "unknown IPC type %d (ZEVA_DCH_IPCTYPE: 1 for sockets, 2 for LPC)",
                         _ipcType);
    }
    if (_ipcClient != nullptr && _ipcClient->ipcGetError() > 0) {
        ZEVD_TRACE(trc, TRACE_ERROR,
                   "Error: DCH Client cannot continue. IPC initialization failed, exiting...\n");
        const char *reason = _ipcType == 1 ? static_cast<ipcSock *>(_ipcClient)->sockFailure() : "";
        zevd::endProcess(kEndPauseSeconds, "the transport to the DCH cannot start: %s",
                         reason[0] != '\0' ? reason : "its set-up failed");
    }
    ZEVD_TRACE(trc, TRACE_DETAIL, "Allocated DCH Client object @%p, _interruptFD[%d]\n",
               static_cast<void *>(this), _interruptFD);
    trc.exit();
}

DCHclient::~DCHclient() {
    ZEVD_TRACE_FUNCTION("DCHclient::~DCHclient");
    if (_ipcType == 1) {
        if (_ipcClient != nullptr) _ipcClient->releaseIPC();
        if (_interruptFD != IPC_NO_SOCKET) {
            ZEVD_TRACE(trc, TRACE_DETAIL, "Closing socket[%d]\n", _interruptFD);
            ZEV0_CloseTheSocket(_interruptFD);
        }
        if (_ipcClient != nullptr) {
            ZEVD_TRACE(trc, TRACE_DETAIL, "Deleting _ipcClient @%p, _interruptFD[%d]\n",
                       static_cast<void *>(_ipcClient), _interruptFD);
            // Through the concrete type: the base's destructor is not virtual,
            // and nothing derives from the transport that the client made.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdelete-non-virtual-dtor"
            delete static_cast<ipcSock *>(_ipcClient);
#pragma GCC diagnostic pop
            _ipcClient = nullptr;
        }
    } else if (_ipcType == 2) {
        // Kept exactly so: no "Error: " and no line end.
        ZEVD_TRACE(trc, TRACE_ERROR, "FINISH ME UP!!!!");
        if (_ipcClient != nullptr) {
            ZEVD_TRACE(trc, TRACE_DETAIL, "Deleting _ipcClient @%p\n",
                       static_cast<void *>(_ipcClient));
            delete static_cast<ipcLPC *>(_ipcClient);
            _ipcClient = nullptr;
        }
    } else {
        ZEVD_TRACE(trc, TRACE_ERROR, "Error: Unrecognized IPC type %d\n", _ipcType);
    }
    delete[] _readBuffer;  // normally NULL: every request frees its response
    _readBuffer = nullptr;
    ZEVD_TRACE(trc, TRACE_DETAIL, "Deleting DCH Client object @%p\n", static_cast<void *>(this));
    trc.exit();
}

void DCHclient::setReadTimeout(int timeout) {
    _ipcReadTimeout = timeout != 0 ? timeout : _DCHtimeout;
}

void DCHclient::setRetryRead(int retry) {
    if (_ipcClient != nullptr) _ipcClient->ipcSetRetryRead(retry);
}

void DCHclient::shutdown(int /*how*/) {
    ZEVD_TRACE_FUNCTION("DCHclient::shutdown");
    // Unfinished on purpose: it only says so.
    if (_error < 1) ZEVD_TRACE(trc, TRACE_ERROR, "Error: FINISH ME UP!");
    trc.exit();
}

// ---------------------------------------------------------------------------
// The exchange shared by every request
// ---------------------------------------------------------------------------

bool DCHclient::writeRequest(zevd::TraceFrame &trc, const char *buffer, uint32_t length,
                             long *status, const DCHrequestTexts &texts) {
    if (trc.on(TRACE_DUMP)) {
        TLG1_Printf(trc.record(), __LINE__, texts.dump, static_cast<int>(length));
        ZEV0_PrintDump(buffer, 0, static_cast<int>(length));
    }
    ZEVD_TRACE(trc, TRACE_DETAIL, texts.writing, static_cast<int>(length));
    int32_t written = _ipcClient->ipcWrite(buffer, static_cast<int32_t>(length), 0);
    if (written != static_cast<int32_t>(length)) {
        ZEVD_TRACE(trc, TRACE_ERROR, texts.writeError, texts.writeErrorArg);
        _error = 1;
        *status = ZEVD_STATUS_NOT_SENT;
        return false;
    }
    return true;
}

bool DCHclient::writeOnly(zevd::TraceFrame &trc, const zevd::MessageBuilder &request,
                          const DCHrequestTexts &texts) {
    long status = ZEVD_STATUS_OK;  // these requests hand back no status word
    if (!request.ok()) {
        refuseRequest(trc, request.failedType(), &status, texts);
        return false;
    }
    return writeRequest(trc, request.buffer(), request.length(), &status, texts);
}

void DCHclient::refuseRequest(zevd::TraceFrame &trc, int fieldType, long *status,
                              const DCHrequestTexts &texts) {
    ZEVD_TRACE(trc, TRACE_ERROR, "Error: %s does not fit in the %d-byte request buffer\n",
               zevd::fieldName(fieldType), zevd::kRequestSize);
    ZEVD_TRACE(trc, TRACE_ERROR, texts.writeError, texts.writeErrorArg);
    _error = 1;
    *status = ZEVD_STATUS_NOT_SENT;
}

bool DCHclient::readResponse(zevd::TraceFrame &trc, long *status, const char *waiting,
                             int32_t timeout) {
    ZEVD_TRACE(trc, TRACE_DETAIL, waiting, static_cast<void *>(_ipcClient), timeout);
    _readBuffer = nullptr;
    int32_t got = _ipcClient->ipcRead(&_readBuffer, timeout);
    // A positive count without a buffer is a message cut short: no response.
    if (got < 1 || _readBuffer == nullptr) {
        // Kept: only a wait of one second is reported. The companion text
        // "Error: ipcRead with wait[%d seconds] failed\n" is never written.
        if (timeout == 1)
            ZEVD_TRACE(trc, TRACE_ERROR, "Error: ipcRead with wait[1 second] failed\n");
        _error = 1;
        *status = ZEVD_STATUS_NO_RESPONSE;
        return false;
    }
    return true;
}

zevd::FieldReader DCHclient::responseReader() const {
    // The transport hands over a message whose length word it has checked
    // against the bytes it received; the walk stops there.
    if (_readBuffer == nullptr) return zevd::FieldReader(nullptr, 0);
    return zevd::FieldReader(_readBuffer, zevd::messageLength(_readBuffer));
}

void DCHclient::freeReadBuffer(zevd::TraceFrame &trc) {
    if (_readBuffer == nullptr) return;
    ZEVD_TRACE(trc, TRACE_STORAGE, "Deleting _readBuffer<@%p>\n", static_cast<void *>(_readBuffer));
    if (ZEV0_IsValidPointer(_readBuffer)) delete[] _readBuffer;
    _readBuffer = nullptr;
}

bool DCHclient::readStatus(zevd::TraceFrame &trc, zevd::FieldReader &reader, long *status,
                           const char *statusLine, long lacking) {
    int type = reader.next();
    if (type != DCH_status) {
        ZEVD_TRACE(trc, TRACE_ERROR, "Error: dataType of DCH_status missing: %d\n", type);
        _error = 1;
        *status = lacking;
        return false;
    }
    *status = reader.int32();
    ZEVD_TRACE(trc, TRACE_DETAIL, statusLine, static_cast<int>(*status));
    return true;
}

void DCHclient::awaitReturnStatus(zevd::TraceFrame &trc, long *status, const char *waiting,
                                  int32_t timeout) {
    if (readResponse(trc, status, waiting, timeout)) {
        ZEVD_TRACE(trc, TRACE_DETAIL, "Getting Status info.\n");
        zevd::FieldReader reader = responseReader();
        readStatus(trc, reader, status, " returnStatus=%d\n", ZEVD_STATUS_REJECTED);
    }
    freeReadBuffer(trc);
}

// ---------------------------------------------------------------------------
// Exported functions
// ---------------------------------------------------------------------------

extern "C" ZEVD_EXPORT void DCH_api_init(void) {
    ZEVD_TRACE_FUNCTION("C::DCH_api_init");
    std::call_once(locksInitialized, [&trc] {
        ZEVD_TRACE(trc, TRACE_STORAGE, "Initializing DCHclient locks.\n");
        ZEV0_InitializeMutex(&_dc_waitOnDataLock);
        ZEV0_InitializeMutex(&_dc_waitOnDataCancelLock);
        ZEV0_InitializeMutex(&_dc_waitForDPStatusLock);
    });
    trc.exit();
}

extern "C" ZEVD_EXPORT void DCH_api_destroy(void) {
    ZEVD_TRACE_FUNCTION("C::DCH_api_destroy");
    ZEVD_TRACE(trc, TRACE_STORAGE, "Destroying DCHclient locks.\n");
    pthread_mutex_destroy(&_dc_waitOnDataLock);
    pthread_mutex_destroy(&_dc_waitOnDataCancelLock);
    pthread_mutex_destroy(&_dc_waitForDPStatusLock);
    // Kept: the initialised flag stays set, so a later DCH_api_init does
    // not make the mutexes again.
    trc.exit();
}

extern "C" ZEVD_EXPORT void DCH_shutdown(int how) {
    auto *client = new (std::nothrow) DCHclient(0, 1);
    if (client == nullptr) return;
    client->shutdown(how);
    delete client;
}
