// Actions and deferred reports: dc_provideAction hands an action to the DCH
// for its provider, dc_waitForActionResults asks for its result, and
// dc_deferReportRequest ties a report request to an action.
#include <cstdint>
#include <cstring>
#include <new>

#include "client/zevdchcl.h"
#include "zev0.h"
#include "zevd610.h"

ZEVD_TRACE_UNIT(unitZevdchcl);

namespace {

// What hides a credential in the action parameters: only what comes before
// it is ever traced.
constexpr char kLogonId[] = " LOGONID=";

const DCHrequestTexts kProvideTexts = {"DUMP[%d] of dc_provideAction request.\n",
                                       "Writing dc_provideAction message. %d bytes\n", nullptr,
                                       "Error: writing dc_provideAction message to DCHserver\n"};
const DCHrequestTexts kResultsTexts = {
    "DUMP[%d] of dc_waitForActionResults request.\n",
    "Writing dc_waitForActionResults message. %d bytes\n",
    "[@%p] Waiting for dc_waitForActionResults response.\n",
    "Error: writing dc_waitForActionResults message to DCHserver\n"};
// Kept: these three lines have no line end of their own.
const DCHrequestTexts kDeferTexts = {
    "DUMP[%d] of dc_deferReportRequest:", "Writing dc_deferReportRequest message. %d bytes",
    nullptr, "Error: writing dc_deferReportRequest message to DCHserver"};

}  // namespace

// ---------------------------------------------------------------------------
// Methods
// ---------------------------------------------------------------------------

int DCHclient::dc_provideAction(short actionType, const char *actionOwner, const char *actionNode,
                                const char *subNode, const char *actionName, long actionID,
                                short actionUTF8, const char *actionParms) {
    ZEVD_TRACE_FUNCTION("DCHclient::dc_provideAction");
    if (_error >= 1) return trc.exit(static_cast<int>(_error));
    // Kept: each line ends in a blank, not a line end, and the subnode comes
    // before the action node.
    ZEVD_TRACE(trc, TRACE_DETAIL, "actionType  : <%d> ", static_cast<int>(actionType));
    ZEVD_TRACE(trc, TRACE_DETAIL, "actionOwner : <%s> ", actionOwner);
    ZEVD_TRACE(trc, TRACE_DETAIL, "subNode     : <%s> ", subNode);
    ZEVD_TRACE(trc, TRACE_DETAIL, "actionNode  : <%s> ", actionNode);
    ZEVD_TRACE(trc, TRACE_DETAIL, "actionName  : <%s> ", actionName);
    ZEVD_TRACE(trc, TRACE_DETAIL, "actionID    : <%d> ", static_cast<int>(actionID));
    ZEVD_TRACE(trc, TRACE_DETAIL, "actionUTF8  : <%d> ", static_cast<int>(actionUTF8));
    if (actionParms != nullptr) {
        // Only what comes before the first " LOGONID=" is traced, and
        // nothing when it is absent or first: a credential never reaches the
        // trace. (The whole parameters are never traced here.)
        const char *logon = strstr(actionParms, kLogonId);
        if (logon != nullptr && logon > actionParms)
            ZEVD_TRACE(trc, TRACE_DETAIL, "actionParms: <%.*s>\n",
                       static_cast<int>(logon - actionParms), actionParms);
    }

    zevd::MessageBuilder request(_message);
    request.clear();
    request.add16(DCH_requestType, ZEVD_REQ_DC_PROVIDE_ACTION);
    request.add16(DCH_actionType, actionType);
    request.addString(DCH_actionOwner, actionOwner);
    request.addString(DCH_sourceName, actionNode);
    request.addString(DCH_sourceName, subNode);  // told from the node by its place
    request.addString(DCH_actionName, actionName);
    request.add32(DCH_actionID, static_cast<int32_t>(actionID));  // cut to its low 32 bits
    request.add16(DCH_actionUTF8, actionUTF8);
    // The message carries the parameters whole, credential included.
    if (actionParms != nullptr) request.addString(DCH_actionParms, actionParms);
    writeOnly(trc, request, kProvideTexts);
    return trc.exit(static_cast<int>(_error));
}

int DCHclient::dc_waitForActionResults(long actionID) {
    ZEVD_TRACE_FUNCTION("DCHclient::dc_waitForActionResults");
    int result = -1;
    if (_error < 1) {
        ZEVD_TRACE(trc, TRACE_DETAIL, "actionID   : <%d>\n", static_cast<int>(actionID));
        zevd::MessageBuilder request(_message);
        request.clear();
        request.add16(DCH_requestType, ZEVD_REQ_DC_WAIT_FOR_ACTION_RESULTS);
        request.add32(DCH_actionID, static_cast<int32_t>(actionID));
        // Kept: a failed write still waits, and then normally times out.
        writeOnly(trc, request, kResultsTexts);
        ZEVD_TRACE(trc, TRACE_DETAIL, kResultsTexts.waiting, static_cast<void *>(_ipcClient));
        _readBuffer = nullptr;
        int32_t bytesRead = _ipcClient->ipcRead(&_readBuffer, _DCHtimeout);
        bool failed = true;
        if (bytesRead > 0 && _readBuffer != nullptr) {
            ZEVD_TRACE(trc, TRACE_DETAIL, "Getting action results.\n");
            zevd::FieldReader reader = responseReader();
            int type = reader.next();
            if (type == DCH_status) {
                result = reader.int32();
                ZEVD_TRACE(trc, TRACE_DETAIL, "actionResults: <%d>\n", result);
                failed = false;
            } else {
                ZEVD_TRACE(trc, TRACE_ERROR, "Error: dataType of DCH_status missing: %d\n", type);
            }
        } else if (_DCHtimeout == 1) {
            // Kept: only a one-second wait is reported.
            ZEVD_TRACE(trc, TRACE_ERROR, "Error: ipcRead with wait[1 second] failed\n");
        }
        if (failed) _error = 1;
        freeReadBuffer(trc);
    }
    // Any failure gives -1, even after a status was read.
    if (_error != 0) result = -1;
    return trc.exit(result);
}

int DCHclient::dc_deferReportRequest(void *peltoObject, long actionID, long currentTime,
                                     const char *applKey, const char *tableName,
                                     const char *sourceName) {
    ZEVD_TRACE_FUNCTION("DCHclient::dc_deferReportRequest");
    if (_error < 1) {
        ZEVD_TRACE(trc, TRACE_DETAIL, "actionID    : <%d>\n", static_cast<int>(actionID));
        ZEVD_TRACE(trc, TRACE_DETAIL, "peltoObject : <@%p>\n", peltoObject);
        ZEVD_TRACE(trc, TRACE_DETAIL, "currentTime : <%d>\n", static_cast<int>(currentTime));
        ZEVD_TRACE(trc, TRACE_DETAIL, "applKey     : <%s>\n", applKey);
        ZEVD_TRACE(trc, TRACE_DETAIL, "tableName   : <%s>\n", tableName);
        ZEVD_TRACE(trc, TRACE_DETAIL, "sourceName  : <%s>\n", sourceName);
        zevd::MessageBuilder request(_message);
        request.clear();
        request.add16(DCH_requestType, ZEVD_REQ_DC_DEFER_REPORT_REQUEST);
        request.add32(DCH_actionID, static_cast<int32_t>(actionID));
        // The object's address cut to 32 bits: the DCH only hands it back.
        request.add32(DCH_peltoObject,
                      static_cast<int32_t>(reinterpret_cast<std::uintptr_t>(peltoObject)));
        request.add32(DCH_currentTime, static_cast<int32_t>(currentTime));
        request.addString(DCH_applKey, applKey);
        request.addString(DCH_tableName, tableName);
        request.addString(DCH_sourceName, sourceName);
        writeOnly(trc, request, kDeferTexts);
    }
    return trc.exit(static_cast<int>(_error));
}

// ---------------------------------------------------------------------------
// Exported functions
// ---------------------------------------------------------------------------

extern "C" ZEVD_EXPORT int dc_provideAction(short actionType, const char *actionOwner,
                                            const char *actionNode, const char *subNode,
                                            const char *actionName, long actionID, short actionUTF8,
                                            const char *actionParms) {
    ZEVD_TRACE_FUNCTION("C::dc_provideAction");
    auto *client = new (std::nothrow) DCHclient(0, 1);
    if (client == nullptr) {
        ZEVD_TRACE(trc, TRACE_ERROR, "Error: allocating DCHclient.\n");
        return trc.exit(1);
    }
    int result = client->dc_provideAction(actionType, actionOwner, actionNode, subNode, actionName,
                                          actionID, actionUTF8, actionParms);
    if (result != 0) ZEVD_TRACE(trc, TRACE_ERROR, "Error: dc_provideAction failed.\n");
    delete client;
    return trc.exit(result);
}

extern "C" ZEVD_EXPORT int dc_waitForActionResults(long actionID) {
    ZEVD_TRACE_FUNCTION("C::dc_waitForActionResults");
    auto *client = new (std::nothrow) DCHclient(0, 1);
    if (client == nullptr) {
        // Kept: 1, which a caller cannot tell from a result of 1.
        ZEVD_TRACE(trc, TRACE_ERROR, "Error: allocating DCHclient.\n");
        return trc.exit(1);
    }
    int result = client->dc_waitForActionResults(actionID);
    delete client;
    return trc.exit(result);
}

extern "C" ZEVD_EXPORT int dc_deferReportRequest(void *peltoObject, long actionID, long currentTime,
                                                 const char *applKey, const char *tableName,
                                                 const char *sourceName) {
    ZEVD_TRACE_FUNCTION("C::dc_deferReportRequest");
    auto *client = new (std::nothrow) DCHclient(0, 1);
    if (client == nullptr) {
        // Kept: 0, as if it had been written.
        ZEVD_TRACE(trc, TRACE_ERROR, "Error: allocating DCHclient.\n");
        return trc.exit(0);
    }
    int result = client->dc_deferReportRequest(peltoObject, actionID, currentTime, applKey,
                                               tableName, sourceName);
    delete client;
    return trc.exit(result);
}
