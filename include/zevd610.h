/*
 * libzevd610: the library through which data providers and data consumers
 * talk to the data-collection host (DCH).
 *
 * Every request is a 4096-byte message: a length word (network order, the
 * word itself included) and typed fields with a 6-byte header. Request
 * functions return the client's error flag and put the detailed outcome
 * into the caller's status word. Compiles as C and as C++.
 */
#ifndef ZEVD610_H
#define ZEVD610_H

#include <pthread.h>

/* The library's version. The major number is the ABI generation: it is the
 * SONAME's number (libzevd610.so.6) and changes only when a program built
 * against an older header would no longer work. */
#define ZEVD_VERSION_MAJOR 6
#define ZEVD_VERSION_MINOR 1
#define ZEVD_VERSION_PATCH 0

#if defined(ZEVD_BUILDING_LIBRARY)
#define ZEVD_EXPORT __attribute__((visibility("default")))
#else
#define ZEVD_EXPORT
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* Request codes: the value of DCH_requestType, the first field of every
 * request. Data-provider requests are 0x10xx, data-consumer ones 0x20xx. */
enum {
    ZEVD_REQ_DP_REGISTER = 0x1010,
    ZEVD_REQ_DP_ONLINE = 0x1015,
    ZEVD_REQ_DP_UNREGISTER = 0x1020,
    ZEVD_REQ_DP_OFFLINE = 0x1025,
    ZEVD_REQ_DP_DATA = 0x1030,
    ZEVD_REQ_DC_GET_APPLICATIONS = 0x2040,
    ZEVD_REQ_DC_GET_APPL_HELP = 0x2044,
    ZEVD_REQ_DC_SEND_APPL_NAME_LIST = 0x204C,
    ZEVD_REQ_DC_GET_APPL_ATTRIBUTES = 0x2050,
    ZEVD_REQ_DC_WAIT_ON_DATA = 0x2060,
    ZEVD_REQ_DC_WAIT_FOR_DP_STATUS = 0x2070,
    ZEVD_REQ_DC_PROVIDE_ACTION = 0x2080,
    ZEVD_REQ_DC_WAIT_FOR_ACTION_RESULTS = 0x2090,
    ZEVD_REQ_DC_DEFER_REPORT_REQUEST = 0x20A0
};

/* Field data types. */
enum {
    DCH_requestType = 16,  /* 16-bit request code */
    DCH_status = 17,       /* 32-bit signed status */
    DCH_response = 18,     /* response text, without a terminating zero */
    DCH_applName = 32,     /* string */
    DCH_applKey = 33,      /* string */
    DCH_sourceName = 34,   /* string */
    DCH_attrGroup = 35,    /* string */
    DCH_tableName = 36,    /* string */
    DCH_hostAddr = 40,     /* string */
    DCH_hostInfo = 41,     /* string */
    DCH_attrName = 80,     /* string */
    DCH_attrValue = 81,    /* valueSize bytes, typed by the attribute type letter */
    DCH_dataFlag = 112,    /* 16-bit */
    DCH_handle = 128,      /* 32-bit signed */
    DCH_actionType = 256,  /* 16-bit */
    DCH_actionUTF8 = 257,  /* 16-bit */
    DCH_actionName = 272,  /* string */
    DCH_actionID = 288,    /* 32-bit */
    DCH_actionParms = 304, /* string */
    DCH_actionOwner = 336, /* string */
    DCH_currentTime = 352, /* 32-bit */
    DCH_peltoObject = 368  /* 32-bit */
};

/* Status values that the client itself stores in the caller's status word;
 * any other value is the DCH's own DCH_status. */
enum {
    ZEVD_STATUS_OK = 0,         /* preset; stays when the DCH answers 0 */
    ZEVD_STATUS_REJECTED = 1,   /* argument rejected, or a response of dp_offline,
                                   dp_unregister or dp_data lacks DCH_status */
    ZEVD_STATUS_NOT_SENT = 2,   /* not written in full, or a response of dp_register or
                                   dp_online lacks DCH_status or DCH_handle */
    ZEVD_STATUS_NULL_NAME = 3,  /* a required name was NULL */
    ZEVD_STATUS_NO_WORKBUF = 4, /* row work buffer missing */
    ZEVD_STATUS_NO_RESPONSE = 5 /* nothing was read */
};

/* Status values that the reference DCH (zevdchd) answers in DCH_status when
 * it refuses a request; docs/protocol.md says which request gets which. */
enum {
    ZEVD_DCH_MALFORMED = 16,      /* a field missing, of the wrong type, or too long */
    ZEVD_DCH_UNKNOWN_APPL = 17,   /* the application is not registered */
    ZEVD_DCH_UNKNOWN_GROUP = 18,  /* the group is not in the application's catalogue */
    ZEVD_DCH_UNKNOWN_HANDLE = 19, /* no open handle has that number */
    ZEVD_DCH_UNKNOWN_ATTR = 20,   /* a row names an attribute its group lacks, or a value
                                     longer than the attribute's size */
    ZEVD_DCH_FULL = 21,           /* a limit of the DCH is reached */
    ZEVD_DCH_UNKNOWN_ACTION = 22, /* no action was recorded under that ID */
    ZEVD_DCH_BAD_CATALOGUE = 23,  /* a registration breaks a catalogue rule */
    ZEVD_DCH_NOT_SAVED = 24       /* the change could not be written to the DCH's state
                                     directory: nothing changed, try again */
};

/* Trace level bits. */
#define TRACE_ERROR 0x80
#define TRACE_ENTRY_EXIT 0x40
#define TRACE_DETAIL 0x10
#define TRACE_DUMP 0x04
#define TRACE_STORAGE 0x02
#define TRACE_FLOW 0x01

/* Debug switch from ZEVA_VERBOSE: 1 for "Y...", 2 for "D...", else 0. */
ZEVD_EXPORT int VX_Debug(void);
/* Transport kind from ZEVA_DCH_IPCTYPE: 1 sockets (default), 2 LPC. */
ZEVD_EXPORT int ZEVA_GetIPCtype(void);
/* Lock and unlock with uniform error reporting; tag only names the caller
 * in messages. 0 on success, -1 for a NULL mutex (lock only), else errno. */
ZEVD_EXPORT int ZEVA_GetLock(pthread_mutex_t *mutex, void *tag);
ZEVD_EXPORT int ZEVA_ReleaseLock(pthread_mutex_t *mutex, void *tag);
/* The process-wide mutex held while a transport reads its environment. */
ZEVD_EXPORT pthread_mutex_t *ZEVA_GetEnvVarsInitLock(void);
/* Stores the instance name (leading blanks skipped, at most 20 characters). */
ZEVD_EXPORT void ZEVA_SetInstanceName(const char *name);
/* The stored instance name; never NULL, empty when none is stored. */
ZEVD_EXPORT char *ZEVA_GetInstanceName(void);

/* Composes "source:applRR" or "source:applRR_suffix" in subnodeName and,
 * when subnodeNameUntouched is not NULL, "source:applgroupRR" there. The
 * first 32 characters of srcName and of attrGroup are read. When the name,
 * counting RR as two characters, would pass 32 characters, the source loses
 * as many from its left (all of them if it has fewer); the application
 * name, RR and the suffix are never shortened, so the name can be longer.
 * subnodeName must hold max(32, A + 3 + X) + R - 1 bytes, where A and R are
 * the lengths of applName and RR and X is 0 without a suffix, else the
 * suffix's length + 1: 33 bytes for a two-character RR and A + X <= 29.
 * subnodeNameUntouched must hold 69 bytes: the call fails when the source
 * and group as read, the application name and RR have more than 67
 * characters together, which also keeps subnodeName within 69 + X bytes.
 * 0 on success; 1, with nothing written, when the untouched name would be
 * too long or subnodeName is NULL. */
ZEVD_EXPORT int ZEVA_SetSubnodeName(const char *applName, const char *attrGroup,
                                    const char *srcName, const char *RR, char *subnodeName,
                                    char *subnodeNameUntouched, const char *subnodeSuffix);
/* The source name before the first ':' (a static buffer), or NULL. */
ZEVD_EXPORT char *ZEVA_GetSrcNameFromSubNodeName(const char *subnodeName);
/* The three characters after the ':' into applKey (4 bytes). 0 on success. */
ZEVD_EXPORT int ZEVA_GetApplKeyFromSubNodeName(const char *subnodeName, char *applKey);

/* Decimal text of the attribute group's 16-bit checksum (a static buffer). */
ZEVD_EXPORT char *ZEVA_ComputeChecksumOnAttrGroup(const char *attrGroup);
/* Replaces , : ; ' and " in place by blanks. */
ZEVD_EXPORT void ZEVA_validateHelpText(char *helpText);
/* Starts "./name", else name from the command path, as a child process
 * ("./name" only when it fits 255 bytes). The parent gets the child's pid
 * (-1 when fork fails); a child whose program could not be started gets 0
 * and goes on running the caller. */
ZEVD_EXPORT int ZEVA_StartDPprocess(const char *executableName);

/* ------------------------------------------------------------------ */
/* Frame                                                               */
/* ------------------------------------------------------------------ */

/* Creates the mutexes of the data-consumer waits; once per process. */
ZEVD_EXPORT void DCH_api_init(void);
/* Destroys them; a later DCH_api_init does not create them again. */
ZEVD_EXPORT void DCH_api_destroy(void);
/* Unfinished: only reports so in the trace. */
ZEVD_EXPORT void DCH_shutdown(int how);

/* ------------------------------------------------------------------ */
/* Data providers                                                      */
/* ------------------------------------------------------------------ */
/* Every request function returns 0, or 1 after a failure; the detailed
 * outcome (the DCH's status, or a ZEVD_STATUS_ value) is in *status. */

/* Registers the application described by a registration text:
 * "APPL name [help]", "GROUP name [help]", "ATTR name letter size [help]",
 * separated by newlines or ';', or "@path" to read the text from a file. */
ZEVD_EXPORT int dp_register(long *status, const char *registration);
/* Brings an attribute group of an application online for a source
 * (names of at most 20, 32 and 32 characters); *handle receives the handle
 * under which rows are sent. */
ZEVD_EXPORT int dp_online(long *status, long *handle, const char *applName, const char *attrGroup,
                          const char *sourceName);
ZEVD_EXPORT int dp_offline(long *status, long handle);
ZEVD_EXPORT int dp_unregister(long *status, const char *applName);
/* Unfinished: nothing is sent; *status is 0. */
ZEVD_EXPORT int dp_cancel(long *status, long handle);
/* Unfinished: nothing is sent. */
ZEVD_EXPORT void dp_waitForAction(long ignored);
ZEVD_EXPORT void dp_provideActionResults(long ignored1, long ignored2);

/* Appends one attribute to a row: *workBuffer starts NULL and is allocated
 * (4096 bytes) by the first call; *size receives the row's length. attrType
 * is the attribute type letter: A C G L N integers of valueSize 2 or 4
 * bytes, I S 16-bit integers, D R T U Z strings of valueSize bytes. An
 * attribute that does not fit the row is refused with status 1, and so is
 * one at a *size set back outside the row (below 30, past 4096). */
ZEVD_EXPORT int dp_formatData(long *status, char **workBuffer, long *size, const char *attrName,
                              const void *attrValue, long valueSize, char attrType);
/* Sends the row under a handle and frees it (*workBuffer is NULL after the
 * call, whatever happened). */
ZEVD_EXPORT int dp_data(long *status, long handle, short dataFlag, char **workBuffer);
/* dp_data with a read time-out in seconds (0: the DCH time-out) and a retry
 * setting for the response. */
ZEVD_EXPORT int dp_actionData(long *status, long handle, short dataFlag, char **workBuffer,
                              short timeout, short retry);

/* ------------------------------------------------------------------ */
/* Data waits. A consumer registers its interest in one attribute group of
 * one application, then waits for the messages the DCH forwards for it.
 *
 * Initialize returns the client (NULL on failure; names of at most 20 and 32
 * characters), which the caller keeps until Destroy. */
ZEVD_EXPORT void *dc_waitOnDataInitialize(const char *applName, const char *attrGroup);
/* Blocks without a time limit until a message arrives (copied whole,
 * length word first, into buffer; buflen is narrowed to 16 bits and must
 * hold it) or a cancel does (its 22-byte datagram is copied). 0: data; -1:
 * cancelled, and from then on for every wait of this client; 1: error (the
 * client stays failed). A signal ends the wait with the flag unchanged and
 * nothing copied. */
ZEVD_EXPORT int dc_waitOnData(void *clientObject, char *buffer, int buflen);
/* Wakes the thread waiting on the client, from any other thread; a cancel
 * with no waiter is kept for the next wait. 0 when sent (-1 when the client
 * was cancelled before), 1 otherwise. */
ZEVD_EXPORT int dc_waitOnDataCancel(void *clientObject);
/* Withdraws the interest and frees the client: the withdraw's result (0, 1,
 * or -1 on a cancelled client), 1 for NULL. */
ZEVD_EXPORT int dc_waitOnDataDestroy(void *clientObject);

/* Data-provider status waits.
 *
 * Initialize returns the client, NULL on failure. */
ZEVD_EXPORT void *dc_waitForDPStatusInitialize(void);
/* Blocks for ever until the DCH reports a provider's status; returns the
 * line "appl,group,source,host[,info],requestType" in a static buffer shared
 * by every caller and overwritten by the next call, or NULL (NULL client, or
 * a failed read or malformed report, after which the client stays failed:
 * destroy it and make another). */
ZEVD_EXPORT char *dc_waitForDPStatus(void *clientObject);
/* Withdraws and frees the client: 0 or 1; 1 for NULL. */
ZEVD_EXPORT int dc_waitForDPStatusDestroy(void *clientObject);

/* ------------------------------------------------------------------ */
/* Catalogue queries. Each asks the DCH and waits up to wait seconds
 * (narrowed to 16 bits). 0: *buffer is the DCH's text, zero-terminated, in a
 * malloc block the caller frees, and *length its length; 1: *buffer NULL and
 * *length 0. The name is optional (NULL: all) for dc_getApplications only.
 * (A block that could not be allocated reads as 0 with *buffer NULL.) */
ZEVD_EXPORT int dc_getApplications(int *length, char **buffer, const char *applName, int wait);
ZEVD_EXPORT int dc_getApplAttributes(int *length, char **buffer, const char *applName, int wait);
ZEVD_EXPORT int dc_getApplHelp(int *length, char **buffer, const char *applName, int wait);
/* Asks the DCH to send its application names to the status waiters; reads
 * nothing. 0, or -1 when it could not be written. */
ZEVD_EXPORT int dc_sendApplNameList(void);

/* Actions and deferred reports. */
/* Hands an action to the DCH for its provider (texts may be NULL; the
 * parameters are traced only up to a " LOGONID="). 0 when written, 1
 * otherwise. */
ZEVD_EXPORT int dc_provideAction(short actionType, const char *actionOwner, const char *actionNode,
                                 const char *subNode, const char *actionName, long actionID,
                                 short actionUTF8, const char *actionParms);
/* Waits up to the DCH time-out for the action's result: the DCH's status, -1
 * on any failure (and for a status of -1), 1 when no client could be made. */
ZEVD_EXPORT int dc_waitForActionResults(long actionID);
/* Ties a report request to an action; the object's address travels cut to
 * 32 bits and is never dereferenced. 0 when written (or when no client could
 * be made), 1 on a write failure. */
ZEVD_EXPORT int dc_deferReportRequest(void *peltoObject, long actionID, long currentTime,
                                      const char *applKey, const char *tableName,
                                      const char *sourceName);

#ifdef __cplusplus
}
#endif

#endif /* ZEVD610_H */
