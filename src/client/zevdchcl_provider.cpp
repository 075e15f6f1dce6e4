// The data-provider functions: the lifecycle requests (dp_register,
// dp_online, dp_offline, dp_unregister and the unfinished dp_cancel,
// dp_waitForAction, dp_provideActionResults) and the data rows
// (dp_formatData, dp_data, dp_actionData).
#include <arpa/inet.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "client/zevdchcl.h"
#include "zev0.h"
#include "zevd610.h"

ZEVD_TRACE_UNIT(unitZevdchcl);

namespace {

using zevd::ignoredStatus;
using zevd::withClient;

// A row's length word and its three header fields (request type, handle,
// flag): the length of a row without attributes.
constexpr uint32_t kRowHeaderSize = 30;

bool isIntegerLetter(char c) {
    return c != '\0' && strchr("ACGLN", c) != nullptr;
}
bool isShortLetter(char c) {
    return c == 'I' || c == 'S';
}
bool isStringLetter(char c) {
    return c != '\0' && strchr("DRTUZ", c) != nullptr;
}

// The caller's integer of valueSize bytes (1, 2, 4 or 8; others by their
// first four bytes), widened.
int64_t readInteger(const void *value, long valueSize) {
    switch (valueSize) {
        case 1: {
            int8_t v;
            memcpy(&v, value, 1);
            return v;
        }
        case 2: {
            int16_t v;
            memcpy(&v, value, 2);
            return v;
        }
        case 8: {
            int64_t v;
            memcpy(&v, value, 8);
            return v;
        }
        case 4: {
            int32_t v;
            memcpy(&v, value, 4);
            return v;
        }
        default: {
            int32_t v = 0;
            memcpy(&v, value, valueSize < 4 ? static_cast<size_t>(valueSize) : 4);
            return v;
        }
    }
}

}  // namespace

// ---------------------------------------------------------------------------
// Data-provider lifecycle
// ---------------------------------------------------------------------------

int DCHclient::dp_register(long *status, const char *registration) {
    ZEVD_TRACE_FUNCTION("DCHclient::dp_register");
    *status = ZEVD_STATUS_OK;
    if (_error >= 1) return trc.exit(_error);
    const DCHrequestTexts texts = {
        "DUMP[%d] of dp_register request.\n", "Writing dp_register message. %d bytes\n",
        "[@%p] Waiting for dp_register response.\n",
        "Error: writing dp_register message to DCHserver for [%s]\n", registration};
    char *request = nullptr;
    if (ZEVP_ConstructDPregisterBuffer(registration, &request) == 0) {
        ZEVD_TRACE(trc, TRACE_ERROR, "Error: ZEVP_ConstructDPregisterBuffer failed: [%s]\n",
                   registration);
        _error = 1;
        *status = ZEVD_STATUS_REJECTED;
    } else {
        writeRequest(trc, request, zevd::messageLength(request), status, texts);
    }
    // Kept: the response is awaited even after a local failure, so a DCH
    // answer still reaches the status word.
    if (readResponse(trc, status, texts.waiting, _DCHtimeout)) {
        zevd::FieldReader reader = responseReader();
        readStatus(trc, reader, status, "status <%d>\n", ZEVD_STATUS_NOT_SENT);
    }
    freeReadBuffer(trc);
    return trc.exit(_error);
}

int DCHclient::dp_online(long *status, long *handle, const char *applName, const char *attrGroup,
                         const char *sourceName) {
    ZEVD_TRACE_FUNCTION("DCHclient::dp_online");
    *status = ZEVD_STATUS_OK;
    if (_error >= 1) return trc.exit(_error);
    const DCHrequestTexts texts = {"DUMP[%d] of dp_online request.\n",
                                   "Writing dp_online message. %d bytes\n",
                                   "[@%p] Waiting for dp_online response.\n",
                                   "Error: writing dp_online message to DCHserver\n"};
    if (applName == nullptr || attrGroup == nullptr || sourceName == nullptr) {
        ZEVD_TRACE(trc, TRACE_ERROR, "Error: applName/attrGroup/sourceName were NULL\n");
        _error = 1;
        *status = ZEVD_STATUS_NULL_NAME;
    } else if (strlen(applName) > 20 || strlen(attrGroup) > 32 || strlen(sourceName) > 32) {
        ZEVD_TRACE(trc, TRACE_ERROR,
                   "Error: max length exceeded: applName[%d] attrGroup[%d] sourceName[%d]\n",
                   static_cast<int>(strlen(applName)), static_cast<int>(strlen(attrGroup)),
                   static_cast<int>(strlen(sourceName)));
        _error = 1;
        *status = ZEVD_STATUS_REJECTED;
    } else {
        zevd::MessageBuilder request(_message);
        request.clear();
        request.add16(DCH_requestType, ZEVD_REQ_DP_ONLINE);
        request.addString(DCH_applName, applName);
        request.addString(DCH_attrGroup, attrGroup);
        request.addString(DCH_sourceName, sourceName);
        writeRequest(trc, _message, request.length(), status, texts);
    }
    // Kept: the response is awaited even after a failed check or write.
    if (readResponse(trc, status, texts.waiting, _DCHtimeout)) {
        zevd::FieldReader reader = responseReader();
        if (readStatus(trc, reader, status, "status <%d>\n", ZEVD_STATUS_NOT_SENT) && _error == 0) {
            int type = reader.next();
            if (type == DCH_handle) {
                *handle = reader.int32();
                ZEVD_TRACE(trc, TRACE_DETAIL, "handle <%d>\n", static_cast<int>(*handle));
            } else {
                ZEVD_TRACE(trc, TRACE_ERROR, "Error: dataType of DCH_handle missing: %d\n", type);
                _error = 1;
                *status = ZEVD_STATUS_NOT_SENT;
            }
        }
    }
    freeReadBuffer(trc);
    return trc.exit(_error);
}

int DCHclient::dp_offline(long *status, long handle) {
    ZEVD_TRACE_FUNCTION("DCHclient::dp_offline");
    *status = ZEVD_STATUS_OK;
    if (_error >= 1) return trc.exit(_error);
    const DCHrequestTexts texts = {"DUMP[%d] of dp_offline request.\n",
                                   "Writing dp_offline message. %d bytes\n",
                                   "[@%p] Waiting for dp_offline response.\n",
                                   "Error: writing dp_offline message to DCHserver\n"};
    zevd::MessageBuilder request(_message);
    request.clear();
    request.add16(DCH_requestType, ZEVD_REQ_DP_OFFLINE);
    request.add32(DCH_handle, static_cast<int32_t>(handle));  // cut to its low 32 bits
    writeRequest(trc, _message, request.length(), status, texts);
    if (_error == 0) awaitReturnStatus(trc, status, texts.waiting, _DCHtimeout);
    return trc.exit(_error);
}

int DCHclient::dp_unregister(long *status, const char *applName) {
    ZEVD_TRACE_FUNCTION("DCHclient::dp_unregister");
    *status = ZEVD_STATUS_OK;
    if (_error >= 1) return trc.exit(_error);
    const DCHrequestTexts texts = {"DUMP[%d] of dp_unregister request.\n",
                                   "Writing dp_unregister message. %d bytes\n",
                                   "[@%p] Waiting for dp_unregister response.\n",
                                   "Error: writing dp_unregister message to DCHserver\n"};
    zevd::MessageBuilder request(_message);
    request.clear();
    request.add16(DCH_requestType, ZEVD_REQ_DP_UNREGISTER);
    request.addString(DCH_applName, applName);
    if (request.ok())
        writeRequest(trc, _message, request.length(), status, texts);
    else
        refuseRequest(trc, request.failedType(), status, texts);
    if (_error == 0) awaitReturnStatus(trc, status, texts.waiting, _DCHtimeout);
    return trc.exit(_error);
}

int DCHclient::dp_cancel(long *status, long /*handle*/) {
    ZEVD_TRACE_FUNCTION("DCHclient::dp_cancel");
    *status = ZEVD_STATUS_OK;
    // Unfinished on purpose: nothing is sent.
    if (_error < 1) ZEVD_TRACE(trc, TRACE_ERROR, "Error: FINISH ME UP!");
    return trc.exit(_error);
}

void DCHclient::dp_waitForAction(long /*ignored*/) {
    ZEVD_TRACE_FUNCTION("DCHclient::dp_waitForAction");
    if (_error < 1) ZEVD_TRACE(trc, TRACE_ERROR, "Error: FINISH ME UP!");
    trc.exit();
}

void DCHclient::dp_provideActionResults(long /*ignored1*/, long /*ignored2*/) {
    ZEVD_TRACE_FUNCTION("DCHclient::dp_provideActionResults");
    if (_error < 1) ZEVD_TRACE(trc, TRACE_ERROR, "Error: FINISH ME UP!");
    trc.exit();
}

// ---------------------------------------------------------------------------
// Data rows
// ---------------------------------------------------------------------------

int DCHclient::dp_formatData(long *status, char **workBuffer, long *size, const char *attrName,
                             const void *attrValue, long valueSize, char attrType) {
    ZEVD_TRACE_FUNCTION("DCHclient::dp_formatData");
    *status = ZEVD_STATUS_OK;
    if (_error >= 1) return trc.exit(_error);
    ZEVD_TRACE(trc, TRACE_DETAIL, "workBuffer: [%p]\n", static_cast<void *>(*workBuffer));
    ZEVD_TRACE(trc, TRACE_DETAIL, "size      : [%d]\n", static_cast<int>(*size));
    ZEVD_TRACE(trc, TRACE_DETAIL, "attrType  : [%c]\n", attrType);
    ZEVD_TRACE(trc, TRACE_DETAIL, "attrName  : [%s]\n", attrName);
    ZEVD_TRACE(trc, TRACE_DETAIL, "valueSize : [%d]\n", static_cast<int>(valueSize));
    if (valueSize <= 0) return trc.exit(_error);

    // The value as the encoder takes it: integers in a local of the field's
    // own width, strings and other letters as the caller's bytes.
    int16_t value16 = 0;
    int32_t value32 = 0;
    const void *encoded = attrValue;
    if (attrValue != nullptr && (isIntegerLetter(attrType) || isShortLetter(attrType))) {
        int64_t wide = readInteger(attrValue, valueSize);
        value16 = static_cast<int16_t>(wide);
        value32 = static_cast<int32_t>(wide);
        bool narrow = isShortLetter(attrType) || valueSize == 2;
        encoded =
            narrow ? static_cast<const void *>(&value16) : static_cast<const void *>(&value32);
        if (narrow)
            ZEVD_TRACE(trc, TRACE_DETAIL, "attrValue : [%d]\n", static_cast<uint16_t>(value16));
        else
            ZEVD_TRACE(trc, TRACE_DETAIL, "attrValue : [%d]\n", value32);
    } else if (isStringLetter(attrType) && trc.on(TRACE_DETAIL)) {
        const char *text = static_cast<const char *>(attrValue);
        std::string shown = text != nullptr ? std::string(text, strnlen(text, valueSize)) : "";
        ZEVD_TRACE(trc, TRACE_DETAIL, "attrValue : [%s]\n", text != nullptr ? shown.c_str() : text);
    }
    int encodedSize = (isIntegerLetter(attrType) || isShortLetter(attrType))
                          ? (isShortLetter(attrType) || valueSize == 2 ? 2 : 4)
                          : static_cast<int>(valueSize);

    if (*workBuffer == nullptr) {
        *size = 0;
        *workBuffer = new (std::nothrow) char[zevd::kRequestSize];
        if (*workBuffer != nullptr) {
            ZEVD_TRACE(trc, TRACE_STORAGE, "Allocated *workBuffer @%p for length %d\n",
                       static_cast<void *>(*workBuffer), zevd::kRequestSize);
            memset(*workBuffer, 0, zevd::kRequestSize);
        } else {
            ZEVD_TRACE(trc, TRACE_ERROR, "Error: allocation for workBuffer failed.\n");
            _error = 1;
            *status = ZEVD_STATUS_NO_WORKBUF;
        }
    } else {
        ZEVD_TRACE(trc, TRACE_DETAIL, "Using workBuffer @%p\n", static_cast<void *>(*workBuffer));
    }
    // (A buffer that could not be made has set the error.)
    if (_error < 1 && *workBuffer != nullptr) {
        zevd::MessageBuilder row(*workBuffer);
        bool placed = true;
        if (*size != 0) {
            // At the caller's size: a caller that sets it back takes back the
            // pairs after it. A size outside the buffer, or inside the row's
            // header fields, takes no pair.
            placed = *size >= kRowHeaderSize && row.resumeAt(static_cast<size_t>(*size));
        } else {
            ZEVD_TRACE(trc, TRACE_DETAIL, "Placing placeholders in buffer.\n");
            row.add16(DCH_requestType, ZEVD_REQ_DP_DATA);
            row.add32(DCH_handle, 0);
            row.add16(DCH_dataFlag, 17);  // placeholder: dp_data always patches it
        }
        size_t at = row.offset();
        if (!placed || !row.addString(DCH_attrName, attrName) ||
            !row.addValue(DCH_attrValue, encoded, encodedSize, &attrType)) {
            if (placed) {
                // Neither field of the pair stays: the row ends where the pair
                // would have begun, and what the name wrote is cleared again.
                memset(*workBuffer + at, 0, row.offset() - at);
                uint32_t word = htonl(static_cast<uint32_t>(at));
                memcpy(*workBuffer, &word, sizeof word);
            }
            ZEVD_TRACE(trc, TRACE_ERROR,
                       "Error: attribute <%s> does not fit in the %d-byte row buffer\n", attrName,
                       zevd::kRequestSize);
            _error = 1;
            *status = ZEVD_STATUS_REJECTED;
        }
        *size = row.length();
        if (trc.on(TRACE_DUMP)) {
            TLG1_Printf(trc.record(), __LINE__, "DUMP[%d] of buffer.\n", static_cast<int>(*size));
            ZEV0_PrintDump(*workBuffer, 0, static_cast<int>(*size));
        }
    }
    return trc.exit(_error);
}

int DCHclient::dp_data(long *status, long handle, short dataFlag, char **workBuffer) {
    ZEVD_TRACE_FUNCTION("DCHclient::dp_data");
    *status = ZEVD_STATUS_OK;
    if (_error >= 1) return trc.exit(_error);
    char *row = workBuffer != nullptr ? *workBuffer : nullptr;
    if (row != nullptr) {
        uint32_t length = zevd::messageLength(row);
        const DCHrequestTexts texts = {"DUMP[%d] of dp_data request.\n",
                                       "Writing dp_data message. %d bytes\n", nullptr,
                                       "Error: writing dp_data message to DCHserver\n"};
        if (length < kRowHeaderSize || length > static_cast<uint32_t>(zevd::kRequestSize)) {
            // Not a row that dp_formatData built: neither patched nor sent
            // past its buffer.
            ZEVD_TRACE(trc, TRACE_ERROR, "Error: work buffer length %u is not a row's\n", length);
            ZEVD_TRACE(trc, TRACE_ERROR, texts.writeError);
            _error = 1;
            *status = ZEVD_STATUS_NOT_SENT;
        } else {
            // The handle and the flag are patched in place at their fixed
            // offsets.
            uint32_t handleWord = htonl(static_cast<uint32_t>(handle));
            uint16_t flagWord = htons(static_cast<uint16_t>(dataFlag));
            memcpy(row + 18, &handleWord, sizeof handleWord);
            memcpy(row + 28, &flagWord, sizeof flagWord);
            writeRequest(trc, row, length, status, texts);
        }
    }
    // The work buffer is consumed whatever happened to the write.
    if (row != nullptr) {
        ZEVD_TRACE(trc, TRACE_STORAGE, "Deleting workBuffer @%p\n", static_cast<void *>(row));
        delete[] row;
        *workBuffer = nullptr;
    } else {
        ZEVD_TRACE(trc, TRACE_ERROR, "Error: freeing workBuffer storage.\n");
        _error = 1;
        *status = ZEVD_STATUS_NO_WORKBUF;
    }
    if (_error == 0)
        awaitReturnStatus(trc, status, "[@%p] Waiting for dp_data response, timeout: %d seconds\n",
                          _ipcReadTimeout);
    return trc.exit(_error);
}

// ---------------------------------------------------------------------------
// Exported functions
// ---------------------------------------------------------------------------

extern "C" ZEVD_EXPORT int dp_register(long *status, const char *registration) {
    ZEVD_TRACE_FUNCTION("C::dp_register");
    if (status == nullptr) status = &ignoredStatus;
    return trc.exit(
        withClient(trc, false, [&](DCHclient &c) { return c.dp_register(status, registration); }));
}

extern "C" ZEVD_EXPORT int dp_online(long *status, long *handle, const char *applName,
                                     const char *attrGroup, const char *sourceName) {
    ZEVD_TRACE_FUNCTION("C::dp_online");
    if (status == nullptr) status = &ignoredStatus;
    long ignoredHandle = 0;
    if (handle == nullptr) handle = &ignoredHandle;
    return trc.exit(withClient(trc, false, [&](DCHclient &c) {
        return c.dp_online(status, handle, applName, attrGroup, sourceName);
    }));
}

extern "C" ZEVD_EXPORT int dp_offline(long *status, long handle) {
    ZEVD_TRACE_FUNCTION("C::dp_offline");
    if (status == nullptr) status = &ignoredStatus;
    return trc.exit(
        withClient(trc, false, [&](DCHclient &c) { return c.dp_offline(status, handle); }));
}

extern "C" ZEVD_EXPORT int dp_unregister(long *status, const char *applName) {
    ZEVD_TRACE_FUNCTION("C::dp_unregister");
    if (status == nullptr) status = &ignoredStatus;
    return trc.exit(
        withClient(trc, false, [&](DCHclient &c) { return c.dp_unregister(status, applName); }));
}

extern "C" ZEVD_EXPORT int dp_cancel(long *status, long handle) {
    ZEVD_TRACE_FUNCTION("C::dp_cancel");
    if (status == nullptr) status = &ignoredStatus;
    return trc.exit(
        withClient(trc, false, [&](DCHclient &c) { return c.dp_cancel(status, handle); }));
}

extern "C" ZEVD_EXPORT void dp_waitForAction(long ignored) {
    ZEVD_TRACE_FUNCTION("C::dp_waitForAction");
    auto *client = new (std::nothrow) DCHclient(0, 1);
    if (client == nullptr) {
        ZEVD_TRACE(trc, TRACE_ERROR, "Error: failed to instantiate DCHclient.\n");
        return;
    }
    client->dp_waitForAction(ignored);
    delete client;
}

extern "C" ZEVD_EXPORT void dp_provideActionResults(long ignored1, long ignored2) {
    ZEVD_TRACE_FUNCTION("C::dp_provideActionResults");
    auto *client = new (std::nothrow) DCHclient(0, 1);
    if (client == nullptr) {
        ZEVD_TRACE(trc, TRACE_ERROR, "Error: failed to instantiate DCHclient.\n");
        return;
    }
    client->dp_provideActionResults(ignored1, ignored2);
    delete client;
}

extern "C" ZEVD_EXPORT int dp_formatData(long *status, char **workBuffer, long *size,
                                         const char *attrName, const void *attrValue,
                                         long valueSize, char attrType) {
    ZEVD_TRACE_FUNCTION("C::dp_formatData");
    if (status == nullptr) status = &ignoredStatus;
    if (workBuffer == nullptr || size == nullptr) {
        ZEVD_TRACE(trc, TRACE_ERROR, "Error: workBuffer/size were NULL\n");
        *status = ZEVD_STATUS_NO_WORKBUF;
        return trc.exit(1);
    }
    return trc.exit(withClient(trc, true, [&](DCHclient &c) {
        return c.dp_formatData(status, workBuffer, size, attrName, attrValue, valueSize, attrType);
    }));
}

extern "C" ZEVD_EXPORT int dp_data(long *status, long handle, short dataFlag, char **workBuffer) {
    ZEVD_TRACE_FUNCTION("C::dp_data");
    if (status == nullptr) status = &ignoredStatus;
    return trc.exit(withClient(
        trc, true, [&](DCHclient &c) { return c.dp_data(status, handle, dataFlag, workBuffer); }));
}

extern "C" ZEVD_EXPORT int dp_actionData(long *status, long handle, short dataFlag,
                                         char **workBuffer, short timeout, short retry) {
    ZEVD_TRACE_FUNCTION("C::dp_actionData");
    if (status == nullptr) status = &ignoredStatus;
    auto *client = new (std::nothrow) DCHclient(0, 1);
    if (client == nullptr) return trc.exit(1);
    client->setReadTimeout(timeout);
    client->setRetryRead(retry);
    int result = client->dp_data(status, handle, dataFlag, workBuffer);
    if (ZEV0_IsValidPointer(client) == 0) {
        ZEVD_TRACE(trc, TRACE_ERROR, "Error: client object @%p is no longer valid\n",
                   static_cast<void *>(client));
        return trc.exit(result);
    }
    ZEVD_TRACE(trc, TRACE_STORAGE, "Deleting DCHclient @%p\n", static_cast<void *>(client));
    delete client;
    return trc.exit(result);
}
