// The catalogue queries: dc_getApplications, dc_getApplAttributes and
// dc_getApplHelp, which hand the DCH's text to the caller in a malloc
// buffer, and dc_sendApplNameList, which only tells the DCH to send its list
// of application names onward.
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <vector>

#include "client/zevdchcl.h"
#include "zev0.h"
#include "zevd610.h"

ZEVD_TRACE_UNIT(unitZevdchcl);

// What tells the three queries apart in the request and in the trace.
struct DCHqueryTexts {
    int16_t requestType;
    bool nameOptional;  // the application name is sent only when given
    bool clearsBuffer;  // the request buffer is cleared before the request
    bool tracesArguments;
    DCHrequestTexts request;
    // The read failure's line (with the wait), or NULL for the line that
    // only a wait of one second writes.
    const char *readFailure;
    const char *progress;  // or NULL
    const char *storage;
    const char *content;
    const char *failed;  // the exported function's line
};

namespace {

const DCHqueryTexts kApplications = {
    ZEVD_REQ_DC_GET_APPLICATIONS,
    true,
    true,
    false,
    {"DUMP[%d] of dc_getApplications request.\n", "Writing dc_getApplications message. %d bytes\n",
     "[@%p] Waiting for dc_getApplications response.\n",
     "Error: writing dc_getApplications message to DCHserver\n"},
    nullptr,
    "Getting Application info.\n",
    "Allocated applInfo buffer @%p\n",
    "Appl Info [%d][%s]\n",
    "Error: dc_getApplications failed.\n"};

const DCHqueryTexts kAttributes = {
    ZEVD_REQ_DC_GET_APPL_ATTRIBUTES,
    false,
    false,
    true,
    {"DUMP[%d] of dc_getApplAttributes request.\n",
     "Writing dc_getApplAttributes message. %d bytes\n",
     "[@%p] Waiting for dc_getApplAttributes response.\n",
     "Error: writing dc_getApplAttributes message to DCHserver\n"},
    "Error: while waiting %d second(s) for dc_getApplAttributes response.\n",
    "Getting Attribute characteristics.\n",
    "Allocated attrInfo buffer @%p\n",
    "Attr Info [%d][%s]\n",
    "Error: dc_getApplAttributes failed.\n"};

const DCHqueryTexts kHelp = {
    ZEVD_REQ_DC_GET_APPL_HELP,
    false,
    false,
    true,
    {"DUMP[%d] of dc_getApplHelp request.\n", "Writing dc_getApplHelp message. %d bytes\n",
     "[@%p] Waiting for dc_getApplHelp response.\n",
     "Error: writing dc_getApplHelp message to DCHserver\n"},
    "Error: while waiting %d second(s) for dc_getApplHelp response.\n",
    nullptr,
    "Allocated helpInfo buffer @%p\n",
    "[%d] helpText[%s]\n",
    "Error: dc_getApplHelp failed.\n"};

const DCHrequestTexts kNameListTexts = {
    "DUMP[%d] of dc_sendApplNameList request.\n", "Writing dc_sendApplNameList message. %d bytes\n",
    nullptr, "Error: writing dc_sendApplNameList message to DCHserver\n"};

// Kept on purpose: the one-byte block of an empty answer is not freed when
// the call fails. It stays reachable here so that it is not mistaken for
// lost memory.
void keepAbandonedBlock(char *block) {
    static std::mutex lock;
    static auto *kept = new std::vector<char *>();
    std::lock_guard<std::mutex> guard(lock);
    kept->push_back(block);
}

using CatalogueMethod = int (DCHclient::*)(char **, const char *, int);

// The exported query: a client for the one call, wait narrowed to 16 bits.
int exportedQuery(zevd::TraceFrame &trc, const DCHqueryTexts &texts, CatalogueMethod method,
                  int *length, char **buffer, const char *applName, int wait) {
    if (length == nullptr || buffer == nullptr) {
        // Nowhere to hand the text: nothing is asked.
        ZEVD_TRACE(trc, TRACE_ERROR, "Error: length/buffer were NULL\n");
        return 1;
    }
    auto *client = new (std::nothrow) DCHclient(0, 1);
    if (client == nullptr) {
        ZEVD_TRACE(trc, TRACE_ERROR, "Error: allocating DCHclient.\n");
        *buffer = nullptr;
        *length = 0;
        return 1;
    }
    char *text = nullptr;
    *length = (client->*method)(&text, applName, static_cast<short>(wait));
    int result = 0;
    if (*length == 0) {
        ZEVD_TRACE(trc, TRACE_ERROR, texts.failed);
        if (text != nullptr) keepAbandonedBlock(text);
        text = nullptr;
        *length = 0;
        result = 1;
    }
    *buffer = text;
    delete client;
    if (result == 0) ZEVD_TRACE(trc, TRACE_DETAIL, "buffer[%d][%s]\n", *length, *buffer);
    return result;
}

}  // namespace

// ---------------------------------------------------------------------------
// Methods
// ---------------------------------------------------------------------------

int DCHclient::catalogueQuery(zevd::TraceFrame &trc, const DCHqueryTexts &texts, char **buffer,
                              const char *applName, int wait) {
    int length = 0;
    if (_error >= 1) return length;
    if (texts.tracesArguments)
        ZEVD_TRACE(trc, TRACE_DETAIL, "applName <%s> wait=%d\n", applName, wait);

    zevd::MessageBuilder request(_message);
    if (texts.clearsBuffer) {
        request.clear();
    } else {
        // Built over what the buffer holds: the length word says where the
        // message ends.
        request.resumeAt(zevd::kFirstField);
    }
    request.add16(DCH_requestType, texts.requestType);
    if (!texts.nameOptional || applName != nullptr) request.addString(DCH_applName, applName);
    long status = ZEVD_STATUS_OK;  // the queries hand back no status word
    if (!request.ok()) {
        refuseRequest(trc, request.failedType(), &status, texts.request);
        return length;
    }
    if (!writeRequest(trc, _message, request.length(), &status, texts.request)) return length;

    ZEVD_TRACE(trc, TRACE_DETAIL, texts.request.waiting, static_cast<void *>(_ipcClient));
    _readBuffer = nullptr;
    int32_t bytesRead = _ipcClient->ipcRead(&_readBuffer, wait);
    if (bytesRead < 1 || _readBuffer == nullptr) {
        if (texts.readFailure != nullptr) {
            ZEVD_TRACE(trc, TRACE_ERROR, texts.readFailure, wait);
        } else if (wait == 1) {
            // Kept: for any other wait nothing is written.
            ZEVD_TRACE(trc, TRACE_ERROR, "Error: ipcRead with wait[1 second] failed\n");
        }
        _error = 1;
    } else {
        if (texts.progress != nullptr) ZEVD_TRACE(trc, TRACE_DETAIL, texts.progress);
        zevd::FieldReader reader = responseReader();
        int type = reader.next();
        if (type != DCH_response) {
            ZEVD_TRACE(trc, TRACE_ERROR, "Error: dataType of DCH_response missing: %d\n", type);
            _error = 1;
        } else {
            length = reader.length();
            auto *text = static_cast<char *>(malloc(static_cast<size_t>(length) + 1));
            if (text == nullptr) {
                // Kept: the length stays, with no buffer, and the flag gets
                // a value of its own.
                ZEVD_TRACE(trc, TRACE_ERROR, "Error: allocating %d bytes for buffer\n", length + 1);
                _error = 4;
            } else {
                ZEVD_TRACE(trc, TRACE_STORAGE, texts.storage, static_cast<void *>(text));
                memset(text, 0, static_cast<size_t>(length) + 1);
                memcpy(text, reader.value(), static_cast<size_t>(length));
                ZEVD_TRACE(trc, TRACE_DETAIL, texts.content, length, text);
            }
            *buffer = text;
        }
    }
    freeReadBuffer(trc);
    return length;
}

int DCHclient::dc_getApplications(char **buffer, const char *applName, int wait) {
    ZEVD_TRACE_FUNCTION("DCHclient::dc_getApplications");
    return trc.exit(catalogueQuery(trc, kApplications, buffer, applName, wait));
}

int DCHclient::dc_getApplAttributes(char **buffer, const char *applName, int wait) {
    ZEVD_TRACE_FUNCTION("DCHclient::dc_getApplAttributes");
    return trc.exit(catalogueQuery(trc, kAttributes, buffer, applName, wait));
}

int DCHclient::dc_getApplHelp(char **buffer, const char *applName, int wait) {
    ZEVD_TRACE_FUNCTION("DCHclient::dc_getApplHelp");
    return trc.exit(catalogueQuery(trc, kHelp, buffer, applName, wait));
}

int DCHclient::dc_sendApplNameList() {
    ZEVD_TRACE_FUNCTION("DCHclient::dc_sendApplNameList");
    if (_error < 1) {
        zevd::MessageBuilder request(_message);
        request.clear();
        request.add16(DCH_requestType, ZEVD_REQ_DC_SEND_APPL_NAME_LIST);
        request.addString(DCH_sourceName, nullptr);  // a field of no value
        // No response is read.
        writeOnly(trc, request, kNameListTexts);
    } else {
        ZEVD_TRACE(trc, TRACE_ERROR, "Error: Not performing dc_sendApplNameList, error code: %d\n",
                   static_cast<int>(_error));
    }
    return trc.exit(_error != 0 ? -1 : 0);
}

// ---------------------------------------------------------------------------
// Exported functions
// ---------------------------------------------------------------------------

extern "C" ZEVD_EXPORT int dc_getApplications(int *length, char **buffer, const char *applName,
                                              int wait) {
    ZEVD_TRACE_FUNCTION("C::dc_getApplications");
    return trc.exit(exportedQuery(trc, kApplications, &DCHclient::dc_getApplications, length,
                                  buffer, applName, wait));
}

extern "C" ZEVD_EXPORT int dc_getApplAttributes(int *length, char **buffer, const char *applName,
                                                int wait) {
    ZEVD_TRACE_FUNCTION("C::dc_getApplAttributes");
    return trc.exit(exportedQuery(trc, kAttributes, &DCHclient::dc_getApplAttributes, length,
                                  buffer, applName, wait));
}

extern "C" ZEVD_EXPORT int dc_getApplHelp(int *length, char **buffer, const char *applName,
                                          int wait) {
    ZEVD_TRACE_FUNCTION("C::dc_getApplHelp");
    return trc.exit(
        exportedQuery(trc, kHelp, &DCHclient::dc_getApplHelp, length, buffer, applName, wait));
}

extern "C" ZEVD_EXPORT int dc_sendApplNameList(void) {
    ZEVD_TRACE_FUNCTION("C::dc_sendApplNameList");
    auto *client = new (std::nothrow) DCHclient(0, 1);
    if (client == nullptr) {
        // Kept: 0, as if it had been sent.
        ZEVD_TRACE(trc, TRACE_ERROR, "Error: allocating DCHclient.\n");
        return trc.exit(0);
    }
    int result = client->dc_sendApplNameList();
    delete client;
    return trc.exit(result);
}
