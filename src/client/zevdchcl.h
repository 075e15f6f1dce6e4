// DCHclient: builds one request in its own buffer, writes it through its
// transport and reads the response. The exported dp_ and dc_ functions each
// create one for the length of the call.
#ifndef ZEVD_CLIENT_ZEVDCHCL_H
#define ZEVD_CLIENT_ZEVDCHCL_H

#include <netinet/in.h>
#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <new>

#include "common/message.h"
#include "common/trace.h"
#include "ipc/zevdipc.h"
#include "zev0.h"

// The process-wide mutexes of the data-consumer waits, made by
// DCH_api_init and destroyed by DCH_api_destroy.
extern pthread_mutex_t _dc_waitOnDataLock;
extern pthread_mutex_t _dc_waitOnDataCancelLock;
extern pthread_mutex_t _dc_waitForDPStatusLock;

class DCHclient;
struct DCHqueryTexts;
// The last client each wait family's Initialize made; only ever written.
extern DCHclient *client_waitOnData;
extern DCHclient *client_waitForDPStatus;
// Size of the status line buffer shared by every dc_waitForDPStatus caller.
inline constexpr int kStatusLineSize = 4096;
extern char dc_waitForDPStatusBUF[kStatusLineSize];
// Keeps a client whose Initialize failed: never freed (kept so), but still
// reachable.
void keepAbandonedClient(DCHclient *client);

// The client's error flag. A data wait and the cancel from another thread
// both read and write it, so every access is a relaxed atomic one.
class DCHerrorFlag {
public:
    DCHerrorFlag(int32_t value = 0) : value_(value) {}  // NOLINT(google-explicit-constructor)
    DCHerrorFlag(const DCHerrorFlag &other) : value_(static_cast<int32_t>(other)) {}
    DCHerrorFlag &operator=(const DCHerrorFlag &other) {
        *this = static_cast<int32_t>(other);
        return *this;
    }
    DCHerrorFlag &operator=(int32_t value) {
        value_.store(value, std::memory_order_relaxed);
        return *this;
    }
    operator int32_t() const {  // NOLINT(google-explicit-constructor)
        return value_.load(std::memory_order_relaxed);
    }
    // A cancelled data wait: -1, unless a failure (a cancel that failed on
    // another thread meanwhile) has set 1 or more, which stays.
    void cancelled() {
        int32_t seen = value_.load(std::memory_order_relaxed);
        while (seen < 1 && !value_.compare_exchange_weak(seen, -1, std::memory_order_relaxed)) {
        }
    }

private:
    std::atomic<int32_t> value_;
};

// Texts that tell one request's exchange from another's in the trace.
struct DCHrequestTexts {
    const char *dump;                     // "DUMP[%d] of dp_online request.\n"
    const char *writing;                  // "Writing dp_online message. %d bytes\n"
    const char *waiting;                  // "[@%p] Waiting for dp_online response.\n"
    const char *writeError;               // "Error: writing dp_online message to DCHserver\n"
    const char *writeErrorArg = nullptr;  // the %s of writeError, if it has one
};

// Not polymorphic. A client's _error leaves 0 at most once and never
// returns to 0; at 1 or more every request method only returns it.
class DCHclient {
public:
    // interrupt: non-zero opens an interrupt socket. useFromSockPool: the
    // socket transport borrows its UDP socket from the process's pool.
    // Ends the process (status 1) for an unknown transport kind or a
    // transport that cannot start.
    DCHclient(int interrupt, int useFromSockPool);
    ~DCHclient();
    DCHclient(const DCHclient &) = delete;
    DCHclient &operator=(const DCHclient &) = delete;

    // Read time-out of data requests; 0 restores _DCHtimeout.
    void setReadTimeout(int timeout);
    void setRetryRead(int retry);
    // Unfinished: only reports so.
    void shutdown(int how);

    int dp_register(long *status, const char *registration);
    int dp_online(long *status, long *handle, const char *applName, const char *attrGroup,
                  const char *sourceName);
    int dp_offline(long *status, long handle);
    int dp_unregister(long *status, const char *applName);
    // Unfinished operations: they report so and send nothing.
    int dp_cancel(long *status, long handle);
    void dp_waitForAction(long ignored);
    void dp_provideActionResults(long ignored1, long ignored2);

    int dp_formatData(long *status, char **workBuffer, long *size, const char *attrName,
                      const void *attrValue, long valueSize, char attrType);
    int dp_data(long *status, long handle, short dataFlag, char **workBuffer);

    // Data waits: register interest in a group (nothing is answered), wait
    // for a forwarded message or a cancel, cancel from another thread,
    // withdraw. Each returns the error flag: 0, 1, or -1 once cancelled.
    int dc_waitOnDataInitialize(const char *applName, const char *attrGroup);
    int dc_waitOnData(char *buffer, short buflen);
    int dc_waitOnDataCancel();
    int dc_waitOnDataDestroy();

    // Status waits: register, wait for ever for one status report (the line
    // in the client's request buffer, or NULL), withdraw.
    int dc_waitForDPStatusInitialize();
    char *dc_waitForDPStatus();
    int dc_waitForDPStatusDestroy();

    // Catalogue queries: the length of the DCH's text, handed over in a
    // malloc buffer through *buffer; 0 on most failures.
    int dc_getApplications(char **buffer, const char *applName, int wait);
    int dc_getApplAttributes(char **buffer, const char *applName, int wait);
    int dc_getApplHelp(char **buffer, const char *applName, int wait);
    // Asks the DCH to send its application names on; 0 or -1. Reads nothing.
    int dc_sendApplNameList();

    // Actions and deferred reports. provideAction and deferReportRequest
    // return the error flag; waitForActionResults the DCH's result, or -1.
    int dc_provideAction(short actionType, const char *actionOwner, const char *actionNode,
                         const char *subNode, const char *actionName, long actionID,
                         short actionUTF8, const char *actionParms);
    int dc_waitForActionResults(long actionID);
    int dc_deferReportRequest(void *peltoObject, long actionID, long currentTime,
                              const char *applKey, const char *tableName, const char *sourceName);

    int error() const { return _error; }

protected:
    // Dumps and writes a built request; false after a failed write (error 1,
    // status 2).
    bool writeRequest(zevd::TraceFrame &trc, const char *buffer, uint32_t length, long *status,
                      const DCHrequestTexts &texts);
    // A request whose fields did not all fit: one line naming the field, then
    // the failure of a write.
    void refuseRequest(zevd::TraceFrame &trc, int fieldType, long *status,
                       const DCHrequestTexts &texts);
    // Waits up to timeout seconds for the response into _readBuffer; false
    // when nothing was read (error 1, status 5).
    bool readResponse(zevd::TraceFrame &trc, long *status, const char *waiting, int32_t timeout);
    // The walk over the response just read; never leaves it.
    zevd::FieldReader responseReader() const;
    void freeReadBuffer(zevd::TraceFrame &trc);
    // A data wait's read of the message the DCH forwarded, copied into
    // buffer when it fits; sets _error on failure.
    void readData(zevd::TraceFrame &trc, char *buffer, short buflen);
    // True when sender is this client's interrupt socket as the cancel's
    // datagram shows it: the interrupt port, on the address the last
    // dc_waitOnDataCancel sent to (for a loopback address, any loopback
    // address: the kernel sends to 127.0.1.1 from 127.0.0.1). False before
    // any cancel was sent.
    bool isOwnCancel(const struct sockaddr_in &sender) const;
    // The body the three catalogue queries share.
    int catalogueQuery(zevd::TraceFrame &trc, const DCHqueryTexts &texts, char **buffer,
                       const char *applName, int wait);
    // Writes a request that has no response (the waits' register and
    // withdraw messages); false after a failed write (error 1).
    bool writeOnly(zevd::TraceFrame &trc, const zevd::MessageBuilder &request,
                   const DCHrequestTexts &texts);
    // Reads the status field of a data-provider response: copies it into the
    // status word and writes statusLine, or reports it missing and sets the
    // status to lacking.
    bool readStatus(zevd::TraceFrame &trc, zevd::FieldReader &reader, long *status,
                    const char *statusLine, long lacking);
    // The read of dp_offline, dp_unregister and dp_data: a response that
    // carries only a status (" returnStatus=%d\n"; lacking it gives 1).
    void awaitReturnStatus(zevd::TraceFrame &trc, long *status, const char *waiting,
                           int32_t timeout);

    int32_t _ipcType = 0;
    DCHipc *_ipcClient = nullptr;
    char *_readBuffer = nullptr;
    char _message[zevd::kRequestSize] = {};
    char _applName[21] = {};
    char _attrGroup[33] = {};
    int32_t _interruptFD = IPC_NO_SOCKET;
    int32_t _DCHtimeout = 30;
    int32_t _ipcReadTimeout = 30;
    DCHerrorFlag _error = 0;
    uint16_t _interruptPort = 0;
    // The address (network order) dc_waitOnDataCancel last sent its
    // datagram to, written before the datagram leaves; -1 until then. The
    // waiting thread reads it when the datagram arrives.
    std::atomic<int64_t> _cancelSentTo{-1};
};

namespace zevd {

// The wrapper shared by the exported request functions: a client with
// (interrupt 0, pool 1) for the one call. A client that could not be made
// gives 1.
template <typename Request>
int withClient(zevd::TraceFrame &trc, bool checkValid, Request request) {
    auto *client = new (std::nothrow) DCHclient(0, 1);
    if (client == nullptr) return 1;
    int result = request(*client);
    if (checkValid && ZEV0_IsValidPointer(client) == 0) {
        ZEVD_TRACE(trc, TRACE_ERROR, "Error: client object @%p is no longer valid\n",
                   static_cast<void *>(client));
        return result;
    }
    delete client;
    return result;
}

// Takes the status of a caller that passed none.
inline thread_local long ignoredStatus;

}  // namespace zevd

#endif  // ZEVD_CLIENT_ZEVDCHCL_H
