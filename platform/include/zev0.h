/*
 * libzev0: the platform services that libzevd610 runs on.
 *
 * Tracing, environment and sleep, IPv4 sockets, threads, single message
 * fields, hex dumps, product settings, small string helpers and the
 * registration request builder. An agent framework that offers the same
 * functions can replace this library. Callable from C and C++.
 */
#ifndef ZEV0_H
#define ZEV0_H

#include <netinet/in.h>
#include <pthread.h>
#include <stddef.h>

#if defined(_WIN32)
#define ZEV0_EXPORT
#else
#define ZEV0_EXPORT __attribute__((visibility("default")))
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ------------------------------------------------------------------ */
/* Trace                                                               */
/* ------------------------------------------------------------------ */

/* Level bits of a trace mask. */
#define TLG1_ERROR 0x80u
#define TLG1_ENTRY_EXIT 0x40u
#define TLG1_DETAIL 0x10u
#define TLG1_DUMP 0x04u
#define TLG1_STORAGE 0x02u
#define TLG1_FLOW 0x01u

/* Kinds of TLG1_Event. */
#define TLG1_EVENT_ENTRY 0
#define TLG1_EVENT_EXIT_VALUE 1
#define TLG1_EVENT_EXIT 2

/* One record per traced source file. The sync counter belongs to the trace
 * library: it moves whenever the configuration changes. Read and written
 * with atomic builtins only. */
typedef struct TraceUnit {
    unsigned int syncCounter;
    const char *buildDate;
    const char *buildTime;
    const char *fileName;    /* with its extension, e.g. "zevdsock.cpp" */
    const char *componentId; /* e.g. "ZEVD610" */
    struct TraceUnit *next;  /* trace library's list of known units */
    int registered;          /* trace library's own */
} TraceUnit;

/* One record per traced function, defined static inside that function.
 * mask is valid while syncCopy equals the unit's syncCounter. */
typedef struct TraceFunctionRecord {
    void *link; /* trace library's own */
    const char *name;
    int nameLength;
    int line; /* source line of the entry event */
    TraceUnit *unit;
    unsigned int flags;
    unsigned int mask;
    unsigned int syncCopy;
} TraceFunctionRecord;

/* syncCopy value of a record that has never been refreshed. */
#define TLG1_NEVER_SYNCED 0xFFFFFFFFu

/* Reads the configured mask of the record's function, stores it with the
 * unit's current counter, returns it. Safe from any thread. */
ZEV0_EXPORT unsigned int TLG1_Sync(TraceFunctionRecord *rec);
/* Writes one line; the caller has already tested the level. Besides the
 * usual conversions, "%-*.*x" takes a width, a byte count and a pointer and
 * writes that many bytes in hexadecimal. */
ZEV0_EXPORT void TLG1_Printf(TraceFunctionRecord *rec, int line, const char *fmt, ...);
/* kind 0 entry, 1 exit with a long value, 2 exit. */
ZEV0_EXPORT void TLG1_Event(TraceFunctionRecord *rec, int line, int kind, ...);
/* Applies a configuration in ZEVA_TRACE syntax; NULL re-reads ZEVA_TRACE and
 * ZEVA_TRACE_FILE from the environment. Every record refreshes at its next
 * call. */
ZEV0_EXPORT void TLG1_Configure(const char *levels);
/* Calls fn for every record that has been refreshed at least once, under the
 * trace library's lock (fn must not trace). */
ZEV0_EXPORT void TLG1_ForEachRecord(void (*fn)(void *ctx, const TraceFunctionRecord *rec),
                                    void *ctx);
typedef void (*TLG1_Sink)(void *ctx, const char *line, size_t len);
/* Sends whole lines (with their newline) to sink instead of the file; NULL
 * goes back to the file. */
ZEV0_EXPORT void TLG1_SetSink(TLG1_Sink sink, void *ctx);
/* For a forked child: text as one line to the file, one write(2), no lock or malloc, no sink. */
ZEV0_EXPORT void TLG1_WriteUnlocked(const TraceFunctionRecord *rec, int line, const char *text);

/* ------------------------------------------------------------------ */
/* Environment and sleep                                               */
/* ------------------------------------------------------------------ */

ZEV0_EXPORT char *OSV1_GetEnv(const char *name, int reserved);
/* Sleeps whole seconds, resuming after signals. */
ZEV0_EXPORT void OSV1_Sleep(int seconds);

/* ------------------------------------------------------------------ */
/* Message fields                                                      */
/* ------------------------------------------------------------------ */

/* Size of a request buffer; the encoder never writes past it. */
#define ZEV0_REQUEST_SIZE 4096
/* Size of a field header: 16-bit type, 32-bit value length. */
#define ZEV0_FIELD_HEADER 6

/* Appends one field at cursor inside a 4096-byte buffer and sets the length
 * word at buffer to the message length so far. Returns the bytes the field
 * occupies, or 0 (buffer unchanged) when it would pass byte 4096. */
ZEV0_EXPORT int ZEV0_FormatDataField(char *buffer, char *cursor, int dataType, const void *value,
                                     int valueLen, const char *attrType);
/* The same encoder over a buffer of the given capacity. */
ZEV0_EXPORT int ZEV0_FormatDataFieldN(char *buffer, size_t capacity, char *cursor, int dataType,
                                      const void *value, int valueLen, const char *attrType);
/* Reads the field at *cursor, advances *cursor past it and returns its type.
 * Trusts the header: use ZEV0_ExtractDataFieldBounded on received bytes. */
ZEV0_EXPORT int ZEV0_ExtractDataField(char **cursor, char **value, int *valueLen, int reserved);
/* Like ZEV0_ExtractDataField, but never reads at or past end: a field whose
 * header or value would pass end gives type 0, a NULL value, length 0, and
 * moves *cursor to end. */
ZEV0_EXPORT int ZEV0_ExtractDataFieldBounded(char **cursor, const char *end, char **value,
                                             int *valueLen);
/* Hex dump into the trace, 16 bytes a line, unit "zev0". Writes
 * unconditionally: callers test their dump level first. */
ZEV0_EXPORT void ZEV0_PrintDump(const void *buffer, int offset, int length);

/* ------------------------------------------------------------------ */
/* Sockets (IPv4)                                                      */
/* ------------------------------------------------------------------ */

/* type 1 stream, 2 datagram; port in network order (0: any). Binds
 * INADDR_ANY, or ZEVA_DCH_BIND for a non-zero port; close-on-exec; stream
 * sockets on a fixed port get SO_REUSEADDR. The flag is accepted and
 * ignored. Returns the descriptor, or -1 with errno in *error.
 * Socket activation: when the process was started with sockets of its own
 * (LISTEN_FDS and LISTEN_PID, descriptors from 3 on), a non-zero port is
 * first looked up among them: an IPv4 socket of the type bound to that port
 * is returned as it is (bound, a stream socket maybe listening already),
 * once; only a port not among them is bound anew. */
ZEV0_EXPORT int ZEV0_OpenLocalSocket(int type, unsigned short portNetOrder,
                                     struct sockaddr_in *address, int flag, int *error,
                                     int reserved);
/* 1 when an inherited socket (see ZEV0_OpenLocalSocket) of the type, bound
 * to the port (network order), waits to be taken, else 0. */
ZEV0_EXPORT int ZEV0_HasInheritedSocket(int type, unsigned short portNetOrder);
ZEV0_EXPORT int ZEV0_CloseTheSocket(int fd);
/* Local port of a socket in host order, 0 on failure. */
ZEV0_EXPORT unsigned short ZEV0_RetrieveSockPort(int fd);
/* Resolves a host name or dotted address (IPv4) and a host-order port.
 * Non-zero on success. An unresolvable local host name gives 127.0.0.1. */
ZEV0_EXPORT int ZEV0_ConvertNameToAddr(const char *name, unsigned short port,
                                       struct sockaddr_in *address);
/* The local host name (static storage), or NULL. */
ZEV0_EXPORT char *ZEV0_LocalHostNameString(void);
ZEV0_EXPORT int ZEV0_SetCloExecFlag(int fd);

/* ------------------------------------------------------------------ */
/* Threads                                                             */
/* ------------------------------------------------------------------ */

/* Starts a pthread, detached when detached is non-zero. 0 on success. */
ZEV0_EXPORT int ZEV0_CreateThread(void *(*routine)(void *), void *arg, int detached, pthread_t *id);
ZEV0_EXPORT int ZEV0_InitializeMutex(pthread_mutex_t *mutex);
/* Condition variable on CLOCK_REALTIME. */
ZEV0_EXPORT int ZEV0_InitializeCondVar(pthread_cond_t *cond);

/* ------------------------------------------------------------------ */
/* Product settings                                                    */
/* ------------------------------------------------------------------ */

/* Item text, or NULL when absent (item 3 reads "zevd" when unset). The text
 * stays valid in the calling thread until its next query of that item. */
ZEV0_EXPORT char *ZEV0_QueryProductSpec(int item);
/* Stores an item (rewrites ZEVA_SETTINGS_FILE atomically). 1 on success, 0
 * on failure. */
ZEV0_EXPORT int ZEV0_UpdateProductSpec(int item, const char *value);

/* ------------------------------------------------------------------ */
/* Strings and checksum                                                */
/* ------------------------------------------------------------------ */

ZEV0_EXPORT int ZEV0_IsValidPointer(const void *p);
/* Keeps the last newLength characters of s in place; newLength <= 0
 * empties s. */
ZEV0_EXPORT void ZEV0_TruncateFromLeft(char *s, int length, int newLength);
/* CRC-16/XMODEM: polynomial 0x1021, initial value seed, no reflection. */
ZEV0_EXPORT unsigned short ZEV0_ComputeCheckSum(const void *data, int length, int seed);
/* strtok with per-thread state. */
ZEV0_EXPORT char *ZEV0_strtok(char *s, const char *delimiters);

/* ------------------------------------------------------------------ */
/* Registration request                                                */
/* ------------------------------------------------------------------ */

/* Field types of the register request beyond the common table. */
#define ZEV0_FIELD_REG_HELP 0x0200      /* string: help text, may be empty */
#define ZEV0_FIELD_REG_ATTR_TYPE 0x0201 /* 16-bit: attribute type letter */
#define ZEV0_FIELD_REG_ATTR_SIZE 0x0202 /* 32-bit: attribute size */

/* Builds the whole dp_register request from a registration text
 * ("APPL name [help]", "GROUP name [help]", "ATTR name letter size [help]",
 * separated by newlines or ';', or "@path") in a per-thread buffer of its
 * own, stores the buffer's address in *buffer. Non-zero on success, 0 when
 * the text does not parse or the request does not fit 4096 bytes. */
ZEV0_EXPORT int ZEVP_ConstructDPregisterBuffer(const char *registration, char **buffer);

#ifdef __cplusplus
}
#endif

#endif /* ZEV0_H */
