// The ZEVA_ helpers that the agent's components share: debug switch,
// transport kind, locks, instance and subnode names, attribute-group
// checksum, help-text cleaning and provider process start.
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/trace.h"

ZEVD_TRACE_UNIT(unitZeva);

namespace {

// Caches filled on first use without a lock: the same environment is read
// by every thread, so a race only repeats the read.
std::atomic<int> cachedIPCtype{0};
std::atomic<char> debugSwitch{'N'};
std::atomic<bool> debugEnvRead{false};
std::atomic<const char *> debugEnvValue{nullptr};
std::atomic<bool> debugOnce{false};

char instanceName[21];  // 20 characters and the terminating zero

pthread_mutex_t envVarsInitLock = PTHREAD_MUTEX_INITIALIZER;  // never destroyed

char sourceName[33];   // SourceName: result of ZEVA_GetSrcNameFromSubNodeName
char checksumStr[64];  // _checksumStr: result of ZEVA_ComputeChecksumOnAttrGroup

// Copies at most size - 1 characters of src into a zeroed dst of size bytes.
void copyCut(char *dst, size_t size, const char *src) {
    memset(dst, 0, size);
    if (src != nullptr) strncpy(dst, src, size - 1);
}

const char *orEmpty(const char *s) {
    return s != nullptr ? s : "";
}

// A text built in a buffer of the caller's without allocating or locking,
// as a forked child must: each piece is cut at the buffer's end, and the
// text always ends with a zero.
class FixedText {
public:
    template <size_t N>
    explicit FixedText(char (&buffer)[N]) : _buffer(buffer), _size(N) {
        buffer[0] = '\0';
    }
    FixedText &add(const char *text) {
        while (*text != '\0' && _used + 1 < _size) _buffer[_used++] = *text++;
        _buffer[_used] = '\0';
        return *this;
    }
    FixedText &add(long value) {
        char digits[24];
        int n = 0;
        unsigned long magnitude =
            value < 0 ? 0UL - static_cast<unsigned long>(value) : static_cast<unsigned long>(value);
        do {
            digits[n++] = static_cast<char>('0' + magnitude % 10);
            magnitude /= 10;
        } while (magnitude != 0);
        if (value < 0) digits[n++] = '-';
        char text[sizeof digits + 1];
        for (int i = 0; i < n; ++i) text[i] = digits[n - 1 - i];
        text[n] = '\0';
        return add(text);
    }

private:
    char *_buffer;
    size_t _size;
    size_t _used = 0;
};

}  // namespace

// Reads ZEVA_VERBOSE once; every call resets the switch from the remembered
// value. Not exported: only VX_Debug calls it.
extern "C" int VX_Debug_Initialize(void) {
    ZEVD_TRACE_FUNCTION("VX_Debug_Initialize");
    if (!debugEnvRead.load(std::memory_order_acquire)) {
        debugEnvValue.store(OSV1_GetEnv("ZEVA_VERBOSE", 0), std::memory_order_relaxed);
        debugEnvRead.store(true, std::memory_order_release);
    }
    char value = 'N';
    const char *text = debugEnvValue.load(std::memory_order_relaxed);
    if (text != nullptr) value = text[0];  // an empty value gives the NUL character
    debugSwitch.store(value, std::memory_order_relaxed);
    return trc.exit(static_cast<int>(value));
}

extern "C" ZEVD_EXPORT int VX_Debug(void) {
    if (!debugOnce.load(std::memory_order_acquire)) {
        VX_Debug_Initialize();
        debugOnce.store(true, std::memory_order_release);
    }
    // Case-sensitive on purpose: "y" and "d" give 0.
    switch (debugSwitch.load(std::memory_order_relaxed)) {
        case 'Y': return 1;
        case 'D': return 2;
        default: return 0;
    }
}

extern "C" ZEVD_EXPORT int ZEVA_GetIPCtype(void) {
    int kind = cachedIPCtype.load(std::memory_order_relaxed);
    if (kind != 0) return kind;
    const char *text = OSV1_GetEnv("ZEVA_DCH_IPCTYPE", 0);
    // Kept: a value that converts to 0 is cached as 0 and so read again next
    // time, and there is no range check (the client rejects kinds other
    // than 1 and 2).
    kind = text != nullptr ? atoi(text) : 1;
    cachedIPCtype.store(kind, std::memory_order_relaxed);
    return kind;
}

extern "C" ZEVD_EXPORT int ZEVA_GetLock(pthread_mutex_t *mutex, void *tag) {
    ZEVD_TRACE_LEVEL("ZEVA_GetLock");
    bool verbose = trc.on(TRACE_ENTRY_EXIT) && VX_Debug() == 1;
    if (verbose) ZEVD_TRACE(trc, TRACE_ENTRY_EXIT, "<<Entry>>\n");
    int result = 0;
    if (mutex == nullptr) {
        ZEVD_TRACE(trc, TRACE_ERROR,
                   "Error: pthread_mutex_lock failed, lock parameter is NULL [@%p]\n", tag);
        result = -1;
    } else {
        int rc = pthread_mutex_lock(mutex);
        if (rc != 0) {
            // Kept: the result is errno, not the return code, although
            // pthread reports through its return code. It is read before
            // the trace line, which may change errno while it writes.
            result = errno;
            ZEVD_TRACE(trc, TRACE_ERROR, "Error: pthread_mutex_lock failed, rc=%d errno=%d [@%p]\n",
                       rc, result, tag);
        }
    }
    if (verbose) ZEVD_TRACE(trc, TRACE_ENTRY_EXIT, "<<Exit: %d>>\n", result);
    return result;
}

extern "C" ZEVD_EXPORT int ZEVA_ReleaseLock(pthread_mutex_t *mutex, void *tag) {
    ZEVD_TRACE_LEVEL("ZEVA_ReleaseLock");
    bool verbose = trc.on(TRACE_ENTRY_EXIT) && VX_Debug() == 1;
    if (verbose) ZEVD_TRACE(trc, TRACE_ENTRY_EXIT, "<<Entry>>\n");
    int result = 0;
    // No NULL check here, unlike ZEVA_GetLock; pthread would fault on NULL,
    // so a NULL mutex is answered as the invalid argument it is.
    int rc = mutex != nullptr ? pthread_mutex_unlock(mutex) : EINVAL;
    if (rc != 0) {
        if (mutex == nullptr) errno = EINVAL;
        result = errno;  // read before the trace line, which may change errno
        ZEVD_TRACE(trc, TRACE_ERROR, "Error: pthread_mutex_unlock failed, rc=%d errno=%d [@%p]\n",
                   rc, result, tag);
    }
    if (verbose) ZEVD_TRACE(trc, TRACE_ENTRY_EXIT, "<<Exit: %d>>\n", result);
    return result;
}

extern "C" ZEVD_EXPORT pthread_mutex_t *ZEVA_GetEnvVarsInitLock(void) {
    return &envVarsInitLock;
}

extern "C" ZEVD_EXPORT void ZEVA_SetInstanceName(const char *name) {
    ZEVD_TRACE_FUNCTION("ZEVA_SetInstanceName");
    memset(instanceName, 0, sizeof instanceName);
    if (name == nullptr) return trc.exit();
    while (*name == ' ') ++name;
    if (*name != '\0') {
        strncpy(instanceName, name, sizeof instanceName - 1);
        ZEVD_TRACE(trc, TRACE_DETAIL, "Storing InstanceName <%s>\n", instanceName);
    } else {
        ZEVD_TRACE(trc, TRACE_ERROR, "*****Nothing stored in InstanceName variable for <%s>\n",
                   name);
    }
    trc.exit();
}

extern "C" ZEVD_EXPORT char *ZEVA_GetInstanceName(void) {
    ZEVD_TRACE_FUNCTION("ZEVA_GetInstanceName");
    if (instanceName[0] != '\0')
        ZEVD_TRACE(trc, TRACE_DETAIL, "Returning InstanceName <%s>\n", instanceName);
    return trc.exit(instanceName);
}

extern "C" ZEVD_EXPORT int ZEVA_SetSubnodeName(const char *applName, const char *attrGroup,
                                               const char *srcName, const char *RR,
                                               char *subnodeName, char *subnodeNameUntouched,
                                               const char *subnodeSuffix) {
    ZEVD_TRACE_FUNCTION("ZEVA_SetSubnodeName");
    // A NULL name part is taken as empty rather than read.
    applName = orEmpty(applName);
    RR = orEmpty(RR);
    if (subnodeSuffix != nullptr)
        ZEVD_TRACE(trc, TRACE_DETAIL,
                   "applName<%s> srcName<%s> attrGroup<%s> RR<%s> subnodeSuffix<%s>\n", applName,
                   srcName, attrGroup, RR, subnodeSuffix);
    else
        ZEVD_TRACE(trc, TRACE_DETAIL, "applName<%s> srcName<%s> attrGroup<%s> RR<%s>\n", applName,
                   srcName, attrGroup, RR);
    char source[33];
    char group[33];
    copyCut(source, sizeof source, srcName);
    copyCut(group, sizeof group, attrGroup);
    if (subnodeName == nullptr) {
        ZEVD_TRACE(trc, TRACE_ERROR, "Error: subnodeName was NULL.\n");
        return trc.exit(1);
    }
    int sourceLen = static_cast<int>(strlen(source));
    int applLen = static_cast<int>(strlen(applName));
    if (subnodeNameUntouched != nullptr) {
        int groupLen = static_cast<int>(strlen(group));
        int rrLen = static_cast<int>(strlen(RR));
        if (sourceLen + applLen + groupLen + rrLen + 2 > 69) {
            ZEVD_TRACE(trc, TRACE_ERROR, "Error: Length ([%d] + [%d] +[%d] +[%d])\n", sourceLen,
                       applLen, groupLen, rrLen);
            return trc.exit(1);
        }
        sprintf(subnodeNameUntouched, "%s:%s%s%s", source, applName, group, RR);
    }
    // The constants count the colon, the underscore and two characters for
    // RR, whatever RR's real length.
    int needed = subnodeSuffix != nullptr
                     ? sourceLen + applLen + static_cast<int>(strlen(subnodeSuffix)) + 4
                     : sourceLen + applLen + 3;
    if (needed > 32) {
        int excess = needed - 32;
        int available = sourceLen - excess;  // may be zero or negative: passed on as it is
        ZEVD_TRACE(trc, TRACE_DETAIL, "Truncating sourceName <%s> length: %d, available: %d\n",
                   source, sourceLen, available);
        ZEV0_TruncateFromLeft(source, sourceLen, available);
        ZEVD_TRACE(trc, TRACE_DETAIL, "sourceName truncated. New name <%s>\n", source);
    }
    if (subnodeSuffix != nullptr)
        sprintf(subnodeName, "%s:%s%s_%s", source, applName, RR, subnodeSuffix);
    else
        sprintf(subnodeName, "%s:%s%s", source, applName, RR);
    if (subnodeNameUntouched != nullptr)
        ZEVD_TRACE(trc, TRACE_DETAIL, "subnodeName<%s> subnodeNameUntouched<%s>\n", subnodeName,
                   subnodeNameUntouched);
    else
        ZEVD_TRACE(trc, TRACE_DETAIL, "subnodeName<%s> subnodeNameUntouched[NULL]\n", subnodeName);
    return trc.exit(0);
}

extern "C" ZEVD_EXPORT char *ZEVA_GetSrcNameFromSubNodeName(const char *subnodeName) {
    ZEVD_TRACE_FUNCTION("ZEVA_GetSrcNameFromSubNodeName");
    if (subnodeName == nullptr) {
        ZEVD_TRACE(trc, TRACE_ERROR, "Error: subnodeName was NULL.\n");
        return trc.exit(static_cast<char *>(nullptr));
    }
    char work[71];
    copyCut(work, sizeof work, subnodeName);
    ZEVD_TRACE(trc, TRACE_FLOW, "subnodeName<%s>\n", work);
    if (strchr(work, ':') == nullptr) {
        ZEVD_TRACE(trc, TRACE_ERROR, "Error: could not determine sourceName from <%s>\n", work);
        return trc.exit(static_cast<char *>(nullptr));
    }
    char *token = ZEV0_strtok(work, ":");
    if (token == nullptr) {
        ZEVD_TRACE(trc, TRACE_ERROR, "Error: could not find ':' token in <%s>\n", subnodeName);
        return trc.exit(static_cast<char *>(nullptr));
    }
    copyCut(sourceName, sizeof sourceName, token);
    return trc.exit(static_cast<char *>(sourceName));
}

extern "C" ZEVD_EXPORT int ZEVA_GetApplKeyFromSubNodeName(const char *subnodeName, char *applKey) {
    ZEVD_TRACE_FUNCTION("ZEVA_GetApplKeyFromSubNodeName");
    if (subnodeName == nullptr || applKey == nullptr) {
        ZEVD_TRACE(trc, TRACE_ERROR, "Error: subnodeName was NULL.\n");
        return trc.exit(1);
    }
    ZEVD_TRACE(trc, TRACE_FLOW, "subnodeName[%s]\n", subnodeName);
    // 33 bytes hold the name; two more zero bytes keep the three-byte key
    // copy inside the buffer when the key starts at its last character.
    char work[33 + 2];
    memset(work, 0, sizeof work);
    strncpy(work, subnodeName, 32);
    if (strchr(work, ':') == nullptr) {
        ZEVD_TRACE(trc, TRACE_ERROR, "Error: could not determine sourceName from[%s]\n", work);
        return trc.exit(1);
    }
    // A plain strtok with a local state: it leaves the per-thread state of
    // ZEV0_strtok alone.
    char *state = nullptr;
    char *token = strtok_r(work, ":", &state);
    if (token == nullptr) return trc.exit(0);  // kept: applKey is left as it was
    // Kept: the step is counted from the start of the buffer, not from the
    // token, so a name that starts with ':' lands further right.
    char *rest = work + strlen(token) + 1;
    state = nullptr;
    char *key = strtok_r(rest, "\n", &state);
    if (key == nullptr) {
        ZEVD_TRACE(trc, TRACE_ERROR, "Error: parsing [%s]\n", subnodeName);
        return trc.exit(1);
    }
    memcpy(applKey, key, 3);
    applKey[3] = '\0';
    ZEVD_TRACE(trc, TRACE_FLOW, "applKey[%s]\n", applKey);
    return trc.exit(0);
}

extern "C" ZEVD_EXPORT char *ZEVA_ComputeChecksumOnAttrGroup(const char *attrGroup) {
    ZEVD_TRACE_FUNCTION("ZEVA_ComputeChecksumOnAttrGroup");
    memset(checksumStr, 0, sizeof checksumStr);
    const char *group = orEmpty(attrGroup);
    unsigned short sum = ZEV0_ComputeCheckSum(group, static_cast<int>(strlen(group)), 0);
    snprintf(checksumStr, sizeof checksumStr, "%d", static_cast<int>(sum));
    int length = static_cast<int>(strlen(checksumStr));
    if (length > 5) {
        // Never reached with a 16-bit checksum; kept as the guard of the
        // 5-character limit. The length is passed so that the line can never
        // read an argument that is not there.
        ZEVD_TRACE(trc, TRACE_DETAIL, "Note: _checksumStr<%s> length=%d. Being truncated.\n",
                   checksumStr, length);
        ZEV0_TruncateFromLeft(checksumStr, length, 5);
    }
    return trc.exit(static_cast<char *>(checksumStr));
}

extern "C" ZEVD_EXPORT void ZEVA_validateHelpText(char *helpText) {
    ZEVD_TRACE_FUNCTION("ZEVA_validateHelpText");
    static const char kReplaced[] = {',', ':', ';', '\'', '"'};
    if (helpText == nullptr) return trc.exit();
    for (char c : kReplaced)
        for (char *p = strchr(helpText, c); p != nullptr; p = strchr(p + 1, c)) *p = ' ';
    trc.exit();
}

extern "C" ZEVD_EXPORT int ZEVA_StartDPprocess(const char *executableName) {
    ZEVD_TRACE_FUNCTION("ZEVA_StartDPprocess");
    int result = -1;
    bool failed = false;
    const char *name = orEmpty(executableName);
    char path[256];
    // A name too long for the work buffer is not tried from the current
    // directory: its cut path would start another program.
    bool pathWhole = snprintf(path, sizeof path, "./%s", name) < static_cast<int>(sizeof path);
    result = fork();
    if (result < 0) {
        ZEVD_TRACE(trc, TRACE_ERROR, "Error: fork failed: errno=%d\n", errno);
        failed = true;
        result = -1;
    } else if (result > 0) {
        ZEVD_TRACE(trc, TRACE_FLOW, "Parent side with childPID is %d\n", result);
    } else {
        if (pathWhole) execlp(path, name, static_cast<char *>(nullptr));
        execlp(name, name, static_cast<char *>(nullptr));
        long error = errno;
        // The child of a threaded caller may find the trace's locks held for
        // ever by threads that did not follow the fork: its lines are
        // written without locking or allocating.
        if (trc.on(TRACE_ERROR)) {
            char text[1024];
            FixedText(text)
                .add("Error: EXEC ")
                .add(name)
                .add(" failed: errno=")
                .add(error)
                .add("\n");
            TLG1_WriteUnlocked(trc.record(), __LINE__, text);
        }
        // The exit event with the result, 0, as TLG1_Event would write it.
        if (trc.takeExit()) TLG1_WriteUnlocked(trc.record(), __LINE__, "Exit: 0x0");
        // Kept: a child that could start neither program returns 0 and goes on
        // running the caller.
        return 0;
    }
    // Kept at the error level: the success line is always seen.
    if (!failed) ZEVD_TRACE(trc, TRACE_ERROR, "Child process <%s> started successfully\n", name);
    return trc.exit(result);
}
