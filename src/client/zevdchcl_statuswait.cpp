// The data-provider status waits: dc_waitForDPStatusInitialize,
// dc_waitForDPStatus and dc_waitForDPStatusDestroy. One client lives from
// Initialize to Destroy; its wait has no time limit and no cancel.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <new>

#include "client/zevdchcl.h"
#include "zev0.h"
#include "zevd610.h"

ZEVD_TRACE_UNIT(unitZevdchcl);

DCHclient *client_waitForDPStatus = nullptr;
char dc_waitForDPStatusBUF[kStatusLineSize];

namespace {

const DCHrequestTexts kInitializeTexts = {
    "DUMP[%d] of dc_waitForDPStatusInitialize request.\n",
    "Writing dc_waitForDPStatus message. %d bytes\n", nullptr,
    "Error: writing dc_waitForDPStatus message to DCHserver\n"};
// Kept: this writing line has no line end.
const DCHrequestTexts kDestroyTexts = {"DUMP[%d] of dc_waitForDPStatusDestroy request.\n",
                                       "Writing dc_waitForDPStatus message. %d bytes", nullptr,
                                       "Error: writing dc_waitForDPStatus message to DCHserver\n"};

// Sizes of the local buffers a report's strings are copied into, their
// terminating zeros included.
constexpr size_t kApplNameSize = 21;
constexpr size_t kGroupSize = 33;
constexpr size_t kSourceSize = 33;
constexpr size_t kHostAddrSize = 257;
constexpr size_t kHostInfoSize = 17;

// Copies the field's string into a zeroed buffer of size bytes. The cut at
// the buffer's size is the only departure from a plain copy: a report
// whose strings fit is copied whole, and no report writes past the buffer.
void copyField(const zevd::FieldReader &reader, char *out, size_t size) {
    memset(out, 0, size);
    size_t length = std::min(static_cast<size_t>(reader.length()), size - 1);
    memcpy(out, reader.value(), length);
}

// The register (status 1) or withdraw (status 0) of a status wait, built in
// buffer; neither is answered.
zevd::MessageBuilder statusInterestMessage(char *buffer, int32_t status) {
    zevd::MessageBuilder request(buffer);
    request.clear();
    request.add16(DCH_requestType, ZEVD_REQ_DC_WAIT_FOR_DP_STATUS);
    request.add32(DCH_status, status);
    return request;
}

}  // namespace

// ---------------------------------------------------------------------------
// Methods
// ---------------------------------------------------------------------------

int DCHclient::dc_waitForDPStatusInitialize() {
    ZEVD_TRACE_FUNCTION("DCHclient::dc_waitForDPStatusInitialize");
    if (_error < 1) {
        // The reports come later, unsolicited.
        writeOnly(trc, statusInterestMessage(_message, 1), kInitializeTexts);
    }
    return trc.exit(static_cast<int>(_error));
}

char *DCHclient::dc_waitForDPStatus() {
    ZEVD_TRACE_FUNCTION("DCHclient::dc_waitForDPStatus");
    if (_error < 1) {
        ZEVD_TRACE(trc, TRACE_DETAIL, "[@%p] Waiting for dc_waitForDPStatus response.\n",
                   static_cast<void *>(_ipcClient));
        _readBuffer = nullptr;
        // Kept: a wait of 0 waits for ever.
        int32_t bytesRead = _ipcClient->ipcRead(&_readBuffer, 0);
        if (bytesRead <= 0 || _readBuffer == nullptr) {
            ZEVD_TRACE(trc, TRACE_ERROR, "Error: ipcRead with wait[FOREVER] failed\n");
            _error = 1;
        } else {
            char applName[kApplNameSize];
            char attrGroup[kGroupSize];
            char sourceName[kSourceSize];
            char hostAddr[kHostAddrSize];
            char hostInfo[kHostInfoSize] = {};
            struct Expected {
                int type;
                char *out;
                size_t size;
                const char *missing;
                const char *line;
            };
            const Expected fields[] = {
                {DCH_applName, applName, sizeof applName,
                 "Error: dataType of DCH_applName missing: %d\n", "applName <%s>\n"},
                {DCH_attrGroup, attrGroup, sizeof attrGroup,
                 "Error: dataType of DCH_attrGroup missing: %d\n", "attrGroup <%s>\n"},
                {DCH_sourceName, sourceName, sizeof sourceName,
                 "Error: dataType of DCH_sourceName missing: %d\n", "sourceName <%s>\n"},
                {DCH_hostAddr, hostAddr, sizeof hostAddr,
                 "Error: dataType of DCH_hostAddr missing: %d\n", "hostAddr <%s>\n"},
            };
            // Strictly in order; a field out of place poisons the client
            // and the report is lost.
            zevd::FieldReader reader = responseReader();
            for (const Expected &field : fields) {
                int type = reader.next();
                if (type != field.type) {
                    ZEVD_TRACE(trc, TRACE_ERROR, field.missing, type);
                    _error = 1;
                    break;
                }
                copyField(reader, field.out, field.size);
                ZEVD_TRACE(trc, TRACE_DETAIL, field.line, field.out);
            }
            if (_error < 1) {
                bool withInfo = false;
                int type = reader.next();
                if (type == DCH_hostInfo) {
                    copyField(reader, hostInfo, sizeof hostInfo);
                    ZEVD_TRACE(trc, TRACE_DETAIL, "hostInfo <%s>\n", hostInfo);
                    withInfo = true;
                    type = reader.next();
                } else {
                    ZEVD_TRACE(trc, TRACE_DETAIL,
                               "Note: dataType of DCH_hostInfo not supplied: %d\n", type);
                }
                if (type != DCH_requestType) {
                    ZEVD_TRACE(trc, TRACE_ERROR, "Error: dataType of DCH_requestType missing: %d\n",
                               type);
                    _error = 1;
                } else {
                    int16_t requestType = reader.int16();
                    ZEVD_TRACE(trc, TRACE_DETAIL, "requestType <%d>\n",
                               static_cast<int>(requestType));
                    memset(_message, 0, sizeof _message);
                    if (withInfo)
                        snprintf(_message, sizeof _message, "%s,%s,%s,%s,%s,%d", applName,
                                 attrGroup, sourceName, hostAddr, hostInfo,
                                 static_cast<int>(requestType));
                    else
                        snprintf(_message, sizeof _message, "%s,%s,%s,%s,%d", applName, attrGroup,
                                 sourceName, hostAddr, static_cast<int>(requestType));
                    ZEVD_TRACE(trc, TRACE_DETAIL, "Returning response <%s>\n", _message);
                }
            }
        }
        freeReadBuffer(trc);
    }
    if (_error != 0) {
        ZEVD_TRACE(trc, TRACE_ENTRY_EXIT, "Returning NULL\n");
        return trc.exit(static_cast<char *>(nullptr));
    }
    return trc.exit(static_cast<char *>(_message));
}

int DCHclient::dc_waitForDPStatusDestroy() {
    ZEVD_TRACE_FUNCTION("DCHclient::dc_waitForDPStatusDestroy");
    // A poisoned client sends no withdraw.
    if (_error < 1) {
        writeOnly(trc, statusInterestMessage(_message, 0), kDestroyTexts);
    }
    return trc.exit(static_cast<int>(_error));
}

// ---------------------------------------------------------------------------
// Exported functions
// ---------------------------------------------------------------------------

extern "C" ZEVD_EXPORT void *dc_waitForDPStatusInitialize(void) {
    ZEVD_TRACE_FUNCTION("C::dc_waitForDPStatusInitialize");
    if (ZEVA_GetLock(&_dc_waitForDPStatusLock, nullptr) != 0)
        return trc.exit(static_cast<void *>(nullptr));
    void *result = nullptr;
    // No interrupt socket, and a UDP socket of its own.
    auto *client = new (std::nothrow) DCHclient(0, 0);
    client_waitForDPStatus = client;
    if (client != nullptr) {
        ZEVD_TRACE(trc, TRACE_STORAGE, "Allocated client_waitForDPStatus @%p\n",
                   static_cast<void *>(client));
        if (client->dc_waitForDPStatusInitialize() == 0)
            result = client;
        else
            keepAbandonedClient(client);
    }
    if (ZEVA_ReleaseLock(&_dc_waitForDPStatusLock, nullptr) != 0)
        return trc.exit(static_cast<void *>(nullptr));
    return trc.exit(result);
}

extern "C" ZEVD_EXPORT char *dc_waitForDPStatus(void *clientObject) {
    ZEVD_TRACE_FUNCTION("C::dc_waitForDPStatus");
    // Kept: one buffer for every caller in the process, cleared by each.
    memset(dc_waitForDPStatusBUF, 0, sizeof dc_waitForDPStatusBUF);
    char *line = nullptr;
    if (clientObject != nullptr)
        line = static_cast<DCHclient *>(clientObject)->dc_waitForDPStatus();
    if (line == nullptr) {
        ZEVD_TRACE(trc, TRACE_ENTRY_EXIT, "Returning NULL\n");
        return trc.exit(static_cast<char *>(nullptr));
    }
    // The line was built in a buffer of the same size: it always fits.
    strncpy(dc_waitForDPStatusBUF, line, sizeof dc_waitForDPStatusBUF - 1);
    return trc.exit(static_cast<char *>(dc_waitForDPStatusBUF));
}

extern "C" ZEVD_EXPORT int dc_waitForDPStatusDestroy(void *clientObject) {
    ZEVD_TRACE_FUNCTION("C::dc_waitForDPStatusDestroy");
    if (clientObject == nullptr) {
        ZEVD_TRACE(trc, TRACE_ERROR, "Error: Received NULL clientObject.\n");
        return trc.exit(1);
    }
    auto *client = static_cast<DCHclient *>(clientObject);
    int result = client->dc_waitForDPStatusDestroy();
    delete client;
    return trc.exit(result);
}
