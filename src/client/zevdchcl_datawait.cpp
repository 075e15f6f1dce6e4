// The data waits: dc_waitOnDataInitialize, dc_waitOnData,
// dc_waitOnDataCancel and dc_waitOnDataDestroy. One client lives from
// Initialize to Destroy; the caller holds it as an opaque pointer.
#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <mutex>
#include <new>
#include <vector>

#include "client/zevdchcl.h"
#include "ipc/zevdsock.h"
#include "zev0.h"
#include "zevd610.h"

ZEVD_TRACE_UNIT(unitZevdchcl);

DCHclient *client_waitOnData = nullptr;

namespace {

// The application and group names a wait keeps, without their zeros.
constexpr size_t kMaxApplName = 20;
constexpr size_t kMaxAttrGroup = 32;
// The text of the cancel datagram.
constexpr char kTerminate[] = "-TERMINATE-";

// The request's texts as the trace shows them.
const DCHrequestTexts kInitializeTexts = {
    "DUMP[%d] of dc_waitOnDataInitialize request.\n",
    "Writing dc_waitOnDataInitialize message. %d bytes\n", nullptr,
    "Error: writing dc_waitOnDataInitialize message to DCHserver\n"};
const DCHrequestTexts kDestroyTexts = {
    "DUMP[%d] of dc_waitOnDataDestroy request.\n",
    "Writing dc_waitOnDataDestroy message. %d bytes\n", nullptr,
    "Error: writing dc_waitOnDataDestroy message to DCHserver\n"};

// The register (status 1) or withdraw (status 0) of a data wait, built in
// buffer; neither is answered.
zevd::MessageBuilder interestMessage(char *buffer, const char *applName, const char *attrGroup,
                                     int32_t status) {
    zevd::MessageBuilder request(buffer);
    request.clear();
    request.add16(DCH_requestType, ZEVD_REQ_DC_WAIT_ON_DATA);
    request.addString(DCH_applName, applName);
    request.addString(DCH_attrGroup, attrGroup);
    request.add32(DCH_status, status);
    return request;
}

}  // namespace

void keepAbandonedClient(DCHclient *client) {
    // Kept on purpose: a client whose Initialize failed is never freed (the
    // caller, holding NULL, cannot free it). It stays reachable here so
    // that it is not mistaken for lost memory.
    static std::mutex lock;
    static auto *kept = new std::vector<DCHclient *>();
    std::lock_guard<std::mutex> guard(lock);
    kept->push_back(client);
}

// ---------------------------------------------------------------------------
// Methods
// ---------------------------------------------------------------------------

int DCHclient::dc_waitOnDataInitialize(const char *applName, const char *attrGroup) {
    ZEVD_TRACE_FUNCTION("DCHclient::dc_waitOnDataInitialize");
    if (_error >= 1) return trc.exit(static_cast<int>(_error));
    // Both checks return at once: nothing is copied and nothing is sent.
    if (applName == nullptr || attrGroup == nullptr) {
        ZEVD_TRACE(trc, TRACE_ERROR, "Error: applName and/or attrGroup were NULL\n");
        _error = 1;
        return trc.exit(static_cast<int>(_error));
    }
    size_t applLength = strlen(applName);
    size_t groupLength = strlen(attrGroup);
    if (applLength > kMaxApplName || groupLength > kMaxAttrGroup) {
        // Kept without a line end.
        ZEVD_TRACE(trc, TRACE_ERROR, "Error: max length exceeded: applName[%d:%s] attrGroup[%d:%s]",
                   static_cast<int>(applLength), applName, static_cast<int>(groupLength),
                   attrGroup);
        _error = 1;
        return trc.exit(static_cast<int>(_error));
    }
    memcpy(_applName, applName, applLength + 1);
    memcpy(_attrGroup, attrGroup, groupLength + 1);
    // Kept without a line end.
    ZEVD_TRACE(trc, TRACE_DETAIL, "Assigned applName <%s> attrGroup <%s>", _applName, _attrGroup);

    // What the DCH forwards arrives later, unsolicited.
    writeOnly(trc, interestMessage(_message, _applName, _attrGroup, 1), kInitializeTexts);
    return trc.exit(static_cast<int>(_error));
}

void DCHclient::readData(zevd::TraceFrame &trc, char *buffer, short buflen) {
    _readBuffer = nullptr;
    int32_t bytesRead = _ipcClient->ipcRead(&_readBuffer, _DCHtimeout);
    if (bytesRead <= 0 || _readBuffer == nullptr) {
        ZEVD_TRACE(trc, TRACE_ERROR,
                   "Error: while waiting %d second(s) for dc_waitOnData response.\n", _DCHtimeout);
        _error = 1;
    } else {
        // The message's own length word, which the read matched with what
        // arrived: a message of several datagrams is never copied past the
        // caller's buffer.
        uint32_t length = zevd::messageLength(_readBuffer);
        if (length > static_cast<uint32_t>(buflen)) {
            // Kept: the words of the line are the wrong way round.
            ZEVD_TRACE(trc, TRACE_ERROR, "Error: buflen=%d > bytesRead=%d.\n",
                       static_cast<int>(buflen), static_cast<int>(length));
            _error = 1;
        } else {
            memcpy(buffer, _readBuffer, length);
        }
    }
    freeReadBuffer(trc);
}

bool DCHclient::isOwnCancel(const struct sockaddr_in &sender) const {
    // The cancel is sent from the interrupt socket to itself, at the address
    // the cancel recorded: no name is resolved here, however many strangers
    // write to the socket. While the interrupt socket holds its port on
    // every address, no other socket of this host can send from that port,
    // and no other host can send from a loopback address or, short of
    // forging, from this host's.
    int64_t sentTo = _cancelSentTo.load();
    if (sentTo < 0 || sender.sin_family != AF_INET || ntohs(sender.sin_port) != _interruptPort)
        return false;
    auto to = static_cast<in_addr_t>(sentTo);
    if (sender.sin_addr.s_addr == to) return true;
    auto isLoopback = [](in_addr_t address) { return (ntohl(address) >> 24) == IN_LOOPBACKNET; };
    return isLoopback(to) && isLoopback(sender.sin_addr.s_addr);
}

int DCHclient::dc_waitOnData(char *buffer, short buflen) {
    ZEVD_TRACE_FUNCTION("DCHclient::dc_waitOnData");
    if (_error >= 1) return trc.exit(static_cast<int>(_error));
    if (_ipcType != 1) {
        // The LPC wait is left unbuilt on purpose; kept without "Error: "
        // and without a line end.
        if (_ipcType == 2)
            ZEVD_TRACE(trc, TRACE_ERROR, "FINISH ME UP!!!!");
        else
            ZEVD_TRACE(trc, TRACE_ERROR, "Error: Unrecognized IPC type %d\n", _ipcType);
        _error = 1;
        return trc.exit(static_cast<int>(_error));
    }
    if (buflen <= 0 || buffer == nullptr) {
        ZEVD_TRACE(trc, TRACE_ERROR, "Error: received invalid buffer @%p buflen %d\n",
                   static_cast<void *>(buffer), static_cast<int>(buflen));
        _error = 1;
        return trc.exit(static_cast<int>(_error));
    }

    auto *sock = static_cast<ipcSock *>(_ipcClient);
    int dataFD = sock->sockUDP();
    ZEVD_TRACE(trc, TRACE_DETAIL,
               "Waiting for dc_waitOnData response message for sockUDP[%d] port[%d] and "
               "interruptFD[%d]\n",
               dataFD, sock->sockPortUDP(), _interruptFD);
    // Bounded only by what arrives: each pass receives at least one
    // stranger's datagram, or ends the wait.
    for (;;) {
        // Any descriptor number will do: poll, not select.
        struct pollfd watched[2] = {{dataFD, POLLIN, 0}, {_interruptFD, POLLIN, 0}};
        int count = -1;
        int selectErrno = EBADF;
        // A missing socket fails like a failed wait, and so does a closed one.
        if (dataFD >= 0 && _interruptFD >= 0) {
            // Kept: no time limit. Only data, a cancel, a signal or a
            // failure ends the wait.
            count = poll(watched, 2, -1);
            selectErrno = errno;
            if (count > 0 && ((watched[0].revents | watched[1].revents) & POLLNVAL) != 0) {
                count = -1;
                selectErrno = EBADF;
            }
        }
        if (count < 0) {
            if (selectErrno == EINTR) {
                // Kept at the error level, and the flag unchanged: the caller
                // sees success (or -1 once cancelled) with nothing copied.
                ZEVD_TRACE(trc, TRACE_ERROR,
                           "Note: interrupted system call detected during socket select for "
                           "<%s><%s>\n",
                           _applName, _attrGroup);
                return trc.exit(static_cast<int>(_error));
            }
            ZEVD_TRACE(trc, TRACE_ERROR, "Error: select (indefinitely) failed, errno: %d\n",
                       selectErrno);
            _error = 1;
            return trc.exit(static_cast<int>(_error));
        }
        // An error or a hang-up counts as ready, as it did for select.
        bool dataReady = count > 0 && watched[0].revents != 0;
        bool cancelReady = count > 0 && watched[1].revents != 0;
        // Only the DCH may answer: strangers' datagrams are dropped first,
        // and a wait woken by nothing else goes on waiting.
        if (dataReady && !sock->dchDatagramWaiting()) {
            if (!cancelReady) continue;
            dataReady = false;
        }

        // Data first: it wins over a cancel that is ready at the same time.
        if (dataReady) {
            ZEVD_TRACE(trc, TRACE_DETAIL, "[@%p] dc_waitOnData data ready.\n",
                       static_cast<void *>(_ipcClient));
            readData(trc, buffer, buflen);
            return trc.exit(static_cast<int>(_error));
        }
        if (cancelReady) {
            ZEVD_TRACE(trc, TRACE_DETAIL, "_interruptFD[%d] dc_waitOnDataCancel signal ready.\n",
                       _interruptFD);
            struct sockaddr_in sender;
            memset(&sender, 0, sizeof sender);
            socklen_t senderLength = sizeof sender;
            char first = 0;
            ssize_t got =
                recvfrom(_interruptFD, &first, sizeof first, MSG_PEEK | MSG_DONTWAIT | MSG_TRUNC,
                         reinterpret_cast<struct sockaddr *>(&sender), &senderLength);
            // Ready, yet nothing to take (a datagram the kernel dropped
            // after poll): back to the wait, not into a blocking receive.
            if (got < 0) continue;
            if (!isOwnCancel(sender)) {
                recv(_interruptFD, &first, sizeof first, MSG_DONTWAIT);
                char dotted[INET_ADDRSTRLEN] = "";
                inet_ntop(AF_INET, &sender.sin_addr, dotted, sizeof dotted);
                ZEVD_TRACE(trc, TRACE_ERROR,
                           "Error: dropped a datagram of %d bytes from %s port %d: only "
                           "dc_waitOnDataCancel may end the wait\n",
                           static_cast<int>(got), dotted, static_cast<int>(ntohs(sender.sin_port)));
                continue;
            }
            recvfrom(_interruptFD, buffer, static_cast<size_t>(buflen), 0,
                     reinterpret_cast<struct sockaddr *>(&sender), &senderLength);
            // Kept: -1 sticks. Nothing sets it back to 0, so every later
            // wait that delivers data returns -1 as well.
            _error.cancelled();
            return trc.exit(-1);
        }
        break;
    }
    ZEVD_TRACE(trc, TRACE_ERROR, "Error: unrecognized FD from select\n");
    _error = 1;
    return trc.exit(static_cast<int>(_error));
}

int DCHclient::dc_waitOnDataCancel() {
    ZEVD_TRACE_FUNCTION("DCHclient::dc_waitOnDataCancel");
    // The flag as this call leaves it: the waiting thread sets it to -1 as
    // soon as the datagram arrives, which must not change this result.
    int32_t flag = _error;
    if (flag >= 1) return trc.exit(static_cast<int>(flag));
    if (_ipcType == 1) {
        struct sockaddr_in address;
        memset(&address, 0, sizeof address);
        const char *host = ZEV0_LocalHostNameString();
        if (host == nullptr) {
            ZEVD_TRACE(trc, TRACE_ERROR, "Error: ZEV0_LocalHostNameString failed.\n");
            flag = 1;
        } else if (ZEV0_ConvertNameToAddr(host, _interruptPort, &address) == 0) {
            ZEVD_TRACE(trc, TRACE_ERROR, "Error: ZEV0_ConvertNameToAddr failed for[%s]\n", host);
            flag = 1;
        } else if (trc.on(TRACE_DETAIL)) {
            char dotted[INET_ADDRSTRLEN] = "";
            inet_ntop(AF_INET, &address.sin_addr, dotted, sizeof dotted);
            ZEVD_TRACE(trc, TRACE_DETAIL, ">> interruptFD=%d, sockAddress <%s[%d]>\n", _interruptFD,
                       dotted, static_cast<int>(ntohs(address.sin_port)));
        }
        if (flag < 1) {
            // The interrupt socket talks to itself over the local host's
            // address: the waiting thread and this one share the client.
            zevd::MessageBuilder request(_message);
            request.clear();
            request.addString(DCH_sourceName, kTerminate);
            uint32_t length = request.length();
            // Recorded first: the waiting thread checks the datagram's
            // sender against it as soon as it arrives.
            _cancelSentTo.store(static_cast<int64_t>(address.sin_addr.s_addr));
            ssize_t sent =
                sendto(_interruptFD, _message, length, MSG_NOSIGNAL,
                       reinterpret_cast<const struct sockaddr *>(&address), sizeof address);
            if (sent != static_cast<ssize_t>(length)) {
                ZEVD_TRACE(trc, TRACE_ERROR, "Error: SENDTO - Sent %d bytes out of %d\n",
                           static_cast<int>(sent), static_cast<int>(length));
                flag = 1;
            }
            if (flag == 0 && trc.on(TRACE_DUMP)) {
                TLG1_Printf(trc.record(), __LINE__, "DUMP[%d] of dc_waitOnDataCancel request.\n",
                            static_cast<int>(length));
                ZEV0_PrintDump(_message, 0, static_cast<int>(length));
            }
        }
    } else {
        // The LPC cancel is left unbuilt on purpose, like the LPC wait.
        if (_ipcType == 2)
            ZEVD_TRACE(trc, TRACE_ERROR, "FINISH ME UP!!!!");
        else
            ZEVD_TRACE(trc, TRACE_ERROR, "Error: Unrecognized IPC type %d\n", _ipcType);
        flag = 1;
    }
    if (flag == 1) _error = 1;
    return trc.exit(static_cast<int>(flag));
}

int DCHclient::dc_waitOnDataDestroy() {
    ZEVD_TRACE_FUNCTION("DCHclient::dc_waitOnDataDestroy");
    // Sent also after a cancel (-1); a client in error (1) sends nothing.
    if (_error < 1) {
        writeOnly(trc, interestMessage(_message, _applName, _attrGroup, 0), kDestroyTexts);
    }
    return trc.exit(static_cast<int>(_error));
}

// ---------------------------------------------------------------------------
// Exported functions
// ---------------------------------------------------------------------------

extern "C" ZEVD_EXPORT void *dc_waitOnDataInitialize(const char *applName, const char *attrGroup) {
    ZEVD_TRACE_FUNCTION("C::dc_waitOnDataInitialize");
    if (ZEVA_GetLock(&_dc_waitOnDataLock, nullptr) != 0) {
        ZEVD_TRACE(trc, TRACE_ERROR, "Error: unable to acquire dc_waitOnDataLock\n");
        return trc.exit(static_cast<void *>(nullptr));
    }
    void *result = nullptr;
    // A UDP socket of its own (no pool) and an interrupt socket.
    auto *client = new (std::nothrow) DCHclient(1, 0);
    client_waitOnData = client;
    if (client != nullptr) {
        ZEVD_TRACE(trc, TRACE_STORAGE, "Allocated client_waitOnData @%p\n",
                   static_cast<void *>(client));
        if (client->dc_waitOnDataInitialize(applName, attrGroup) == 0)
            result = client;
        else
            keepAbandonedClient(client);
    }
    if (ZEVA_ReleaseLock(&_dc_waitOnDataLock, nullptr) != 0)
        return trc.exit(static_cast<void *>(nullptr));
    return trc.exit(result);
}

extern "C" ZEVD_EXPORT int dc_waitOnData(void *clientObject, char *buffer, int buflen) {
    ZEVD_TRACE_FUNCTION("C::dc_waitOnData");
    // No lock: the waiting thread must not hold one that a cancel needs.
    if (clientObject == nullptr) {
        ZEVD_TRACE(trc, TRACE_ERROR, "Error: Received NULL clientObject.\n");
        return trc.exit(1);
    }
    // Narrowed to 16 bits on purpose: 65636 reads as 100.
    auto narrowed = static_cast<short>(buflen);
    return trc.exit(static_cast<DCHclient *>(clientObject)->dc_waitOnData(buffer, narrowed));
}

extern "C" ZEVD_EXPORT int dc_waitOnDataCancel(void *clientObject) {
    ZEVD_TRACE_FUNCTION("C::dc_waitOnDataCancel");
    if (ZEVA_GetLock(&_dc_waitOnDataCancelLock, nullptr) != 0) return trc.exit(1);
    int result = 1;
    if (clientObject == nullptr) {
        ZEVD_TRACE(trc, TRACE_ERROR, "Error: Received NULL clientObject.\n");
    } else {
        ZEVD_TRACE(trc, TRACE_DETAIL, "clientObject=@%p\n", clientObject);
        result = static_cast<DCHclient *>(clientObject)->dc_waitOnDataCancel();
    }
    if (ZEVA_ReleaseLock(&_dc_waitOnDataCancelLock, nullptr) != 0) return trc.exit(1);
    return trc.exit(result);
}

extern "C" ZEVD_EXPORT int dc_waitOnDataDestroy(void *clientObject) {
    ZEVD_TRACE_FUNCTION("C::dc_waitOnDataDestroy");
    // The cancel lock: a client is never deleted while a cancel is being
    // sent from it.
    if (ZEVA_GetLock(&_dc_waitOnDataCancelLock, nullptr) != 0) return trc.exit(1);
    int result = 1;
    if (clientObject == nullptr) {
        ZEVD_TRACE(trc, TRACE_ERROR, "Error: Received NULL clientObject.\n");
    } else {
        auto *client = static_cast<DCHclient *>(clientObject);
        result = client->dc_waitOnDataDestroy();
        ZEVD_TRACE(trc, TRACE_STORAGE, "Deleting DCHclient object @%p\n", clientObject);
        delete client;
    }
    if (ZEVA_ReleaseLock(&_dc_waitOnDataCancelLock, nullptr) != 0) return trc.exit(1);
    return trc.exit(result);
}
