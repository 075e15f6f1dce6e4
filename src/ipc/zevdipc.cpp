// DCHipc: what every transport shares, and on the server side the receive
// queue between the receive thread (producer) and the DCH's worker
// (consumer).
#include "ipc/zevdipc.h"

#include <sched.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstring>
#include <new>

#include "common/trace.h"

ZEVD_TRACE_UNIT(unitZevdipc);

namespace {

// The queue is full at this many waiting entries, one less than its slots.
constexpr int32_t kQueueFull = IPC_QSIZE - 1;

// Size of a pointer as the name-copy lines report it.
constexpr int kReportedNameSize = 4;

// Largest message accepted, so that every slot size computed from it
// (length + 1, or the next 4096-byte step above it) fits a signed 32-bit.
constexpr int32_t kMaxPutLength = INT32_MAX - 2 * IPC_BUFFER_STEP;

// start_idx and num_full are written under the queue lock, but their first
// trace lines read them before the lock is taken, so every access is atomic.
int32_t loadIndex(int32_t &field) {
    return std::atomic_ref<int32_t>(field).load(std::memory_order_relaxed);
}

void storeIndex(int32_t &field, int32_t value) {
    std::atomic_ref<int32_t>(field).store(value, std::memory_order_relaxed);
}

// The number of address bytes a slot can take from a given length.
int32_t boundedAddrLen(int32_t clientAddrLen) {
    if (clientAddrLen < 0) return 0;
    return clientAddrLen > IPC_CLIENT_ADDR_SIZE ? IPC_CLIENT_ADDR_SIZE : clientAddrLen;
}

void freeArray(char *block) {
    if (ZEV0_IsValidPointer(block)) delete[] block;
}

}  // namespace

DCHipc::DCHipc() : _ipcError(1), _ipcType(0), _typeOfService(0), _retryRead(1) {
    ZEVD_TRACE_FUNCTION("DCHipc::DCHipc");
    ZEVD_TRACE(trc, TRACE_ERROR, "Error: this constructor should not be used.\n");
    trc.exit();
}

DCHipc::DCHipc(int16_t typeOfService)
    : _ipcError(0), _ipcType(0), _typeOfService(typeOfService), _retryRead(1) {
    ZEVD_TRACE_FUNCTION("DCHipc::DCHipc");
    _ipcType = static_cast<int16_t>(ZEVA_GetIPCtype());
    ZEVD_TRACE(trc, TRACE_DETAIL, "ZEVA_DCH_IPCTYPE<%d> IPC_QSIZE<%d>\n", _ipcType, IPC_QSIZE);
    ZEVD_TRACE(trc, TRACE_DETAIL, "typeOfService<%d>\n", _typeOfService);
    trc.exit();
}

DCHipc::~DCHipc() {
    ZEVD_TRACE_FUNCTION("DCHipc::~DCHipc");
    // The receive thread is not stopped: the owner stops using the
    // transport first.
    if (_typeOfService == IPC_SERVICE_SERVER) ipc_delete_cb();
    trc.exit();
}

int32_t DCHipc::DCHtimeout() {
    ZEVD_TRACE_FUNCTION("DCHipc::DCHtimeout");
    return trc.exit(static_cast<int32_t>(30));
}

int32_t DCHipc::startup(void *addr, int32_t connectTo) {
    ZEVD_TRACE_FUNCTION("DCHipc::startup");
    if (_typeOfService == IPC_SERVICE_SERVER) {
        ZEVD_TRACE(trc, TRACE_DETAIL, "DCHipc SERVER Service initializing.\n");
        // A failure here leaves the error word at 1 for the caller; the
        // thread is started all the same.
        ipc_new_cb();
        pthread_t threadId;
        if (ZEV0_CreateThread(IPCServerThread, this, 1, &threadId) == 0) {
            ZEVD_TRACE(trc, TRACE_STORAGE, "IPCServerThread thread created\n");
        } else {
            ZEVD_TRACE(trc, TRACE_ERROR, "Error: IPCServerThread thread failed creation.\n");
            ipcSetError(1);
        }
    } else if (_typeOfService == IPC_SERVICE_CLIENT ||
               _typeOfService == IPC_SERVICE_CLIENT_OBJECT) {
        ZEVD_TRACE(trc, TRACE_DETAIL, "DCHipc CLIENT Service initializing.\n");
        int32_t rc = IPCClient(addr, connectTo, _typeOfService);
        ipcSetError(rc);
        if (rc != 0) ZEVD_TRACE(trc, TRACE_ERROR, "Error: IPCClient failed.\n");
    } else {
        ZEVD_TRACE(trc, TRACE_ERROR, "Error: Invalid type of service for DCHipc: %d\n",
                   _typeOfService);
        ipcSetError(1);
    }
    return trc.exit(ipcGetError());
}

void *DCHipc::IPCServerThread(void *transport) {
    ZEVD_TRACE_FUNCTION("DCHipc::IPCServerThread");
    auto *self = static_cast<DCHipc *>(transport);
    if (self->IPCServer() != 0) {
        ZEVD_TRACE(trc, TRACE_ERROR,
                   "Error: IPCServer initialization failure, cannot continue processing.\n");
        self->ipcSetError(1);
    }
    ZEVD_TRACE(trc, TRACE_ENTRY_EXIT, "Returning NULL\n");
    return trc.exit(static_cast<void *>(nullptr));
}

void DCHipc::ipc_new_cb() {
    ZEVD_TRACE_FUNCTION("DCHipc::ipc_new_cb");
    _ipcCircularBuffer = new (std::nothrow) ipcCircularBuffer();
    ipcCircularBuffer *cb = _ipcCircularBuffer;
    if (cb == nullptr) {
        ZEVD_TRACE(trc, TRACE_ERROR, "Error: failed to allocate a circular buffer.\n");
        ipcSetError(1);
        return trc.exit();
    }
    ZEV0_InitializeMutex(&cb->lock);
    ZEV0_InitializeCondVar(&cb->slotFreed);
    ZEV0_InitializeCondVar(&cb->slotFilled);
    storeIndex(cb->start_idx, 0);
    storeIndex(cb->num_full, 0);
    for (char *&data : cb->data) data = nullptr;
    ZEVD_TRACE(trc, TRACE_STORAGE, "Allocated ipcCircularBuffer @%p\n", static_cast<void *>(cb));
    trc.exit();
}

void DCHipc::ipc_delete_cb() {
    ZEVD_TRACE_FUNCTION("DCHipc::ipc_delete_cb");
    ipcCircularBuffer *cb = _ipcCircularBuffer;
    // Nothing to release when the queue was never made (or its allocation
    // failed).
    if (cb == nullptr) return trc.exit();
    pthread_mutex_destroy(&cb->lock);
    pthread_cond_destroy(&cb->slotFreed);
    pthread_cond_destroy(&cb->slotFilled);
    for (char *&data : cb->data) {
        freeArray(data);
        data = nullptr;
    }
    ZEVD_TRACE(trc, TRACE_STORAGE, "Deleting ipcCircularBuffer @%p\n", static_cast<void *>(cb));
    delete cb;
    _ipcCircularBuffer = nullptr;
    trc.exit();
}

void DCHipc::ipc_put_data(int32_t length, const void *data, const void *clientAddr,
                          int32_t clientAddrLen, const char *clientName, uint32_t connectedSockFD) {
    ZEVD_TRACE_FUNCTION("DCHipc::ipc_put_data");
    const ipcMessage message{length, data, clientAddr, clientAddrLen, clientName, connectedSockFD};
    putMessages(trc, &message, 1);
    trc.exit();
}

int32_t DCHipc::ipcQueueRoom() const {
    if (_ipcCircularBuffer == nullptr) return 0;
    return kQueueFull - loadIndex(_ipcCircularBuffer->num_full);
}

uint64_t DCHipc::ipcPutNumbered(const ipcMessage &message) {
    ZEVD_TRACE_FUNCTION("DCHipc::ipc_put_data");
    uint64_t stored = 0;
    putMessages(trc, &message, 1, &stored);
    trc.exit();
    return stored;
}

void DCHipc::ipc_put_batch(const ipcMessage *messages, int32_t count) {
    ZEVD_TRACE_FUNCTION("DCHipc::ipc_put_data");
    if (messages != nullptr && count > 0) putMessages(trc, messages, count);
    trc.exit();
}

void DCHipc::putMessages(::zevd::TraceFrame &trc, const ipcMessage *messages, int32_t count,
                         uint64_t *stored) {
    if (stored != nullptr) *stored = 0;
    // The consumer writes the same error word, so this side decides on its
    // own copy and stores each change into the word as it goes.
    ipcSetError(0);
    ipcCircularBuffer *cb = _ipcCircularBuffer;
    if (cb == nullptr) {
        // Kept: the error word stays 0 here.
        ZEVD_TRACE(trc, TRACE_ERROR, "Error: ipcCircularBuffer has not been allocated\n");
        return;
    }
    // One hold of the lock for all of them; the consumer is signalled once
    // they are in, or before this side waits for room, so that it never
    // waits for an entry already stored.
    bool locked = false;
    bool unsignalled = false;
    for (int32_t i = 0; i < count; ++i) {
        const ipcMessage &m = messages[i];
        if (m.length < 0 || m.length > kMaxPutLength || (m.data == nullptr && m.length > 0)) {
            ZEVD_TRACE(trc, TRACE_ERROR, "Error: refusing to queue %d bytes from @%p\n", m.length,
                       m.data);
            ipcSetError(1);
            if (count == 1) return;
            continue;
        }
        ZEVD_TRACE(trc, TRACE_DETAIL, "start_idx=%d and num_full=%d\n", loadIndex(cb->start_idx),
                   loadIndex(cb->num_full));
        if (!locked && ZEVA_GetLock(&cb->lock, this) != 0) {
            ZEVD_TRACE(trc, TRACE_ERROR, "Error: unable to acquire ipcCircularBuffer lock\n");
            ipcSetError(1);
            return;
        }
        locked = true;
        int32_t error = 0;
        while (error == 0 && loadIndex(cb->num_full) == kQueueFull) {
            if (unsignalled) {
                signalFilled(trc);
                unsignalled = false;
            }
            ZEVD_TRACE(trc, TRACE_DETAIL, "Waiting for circular buffers to be freed.\n");
            int rc = pthread_cond_wait(&cb->slotFreed, &cb->lock);
            if (rc != 0) {
                ZEVD_TRACE(trc, TRACE_ERROR, "Error: pthread_cond_wait failed. rc=%d errno=%d\n",
                           rc, errno);
                error = 1;
                ipcSetError(error);
            }
        }
        if (error == 0) {
            uint64_t before = _entriesQueued.load(std::memory_order_relaxed);
            storeMessage(trc, m);
            uint64_t after = _entriesQueued.load(std::memory_order_relaxed);
            if (stored != nullptr) *stored = after != before ? after : 0;
        }
        // Signalled even when the message was not stored.
        unsignalled = true;
        if (error != 0) break;
    }
    if (!locked) return;
    // Kept: the caller sees the release result alone; the failures above
    // and a failed signal below are traced, not returned. The signal comes
    // right after the release, so the woken consumer finds the lock free
    // instead of waking only to wait for it.
    ipcSetError(ZEVA_ReleaseLock(&cb->lock, this));
    if (unsignalled) signalFilled(trc);
}

void DCHipc::signalFilled(::zevd::TraceFrame &trc) {
    int rc = pthread_cond_signal(&_ipcCircularBuffer->slotFilled);
    if (rc != 0)
        ZEVD_TRACE(trc, TRACE_ERROR, "Error: pthread_cond_signal failed. rc=%d errno=%d\n", rc,
                   errno);
}

void DCHipc::storeMessage(::zevd::TraceFrame &trc, const ipcMessage &m) {
    ipcCircularBuffer *cb = _ipcCircularBuffer;
    int32_t length = m.length;
    const void *data = m.data;
    int32_t error = 0;
    int32_t slot = (loadIndex(cb->start_idx) + loadIndex(cb->num_full)) % IPC_QSIZE;
    ZEVD_TRACE(trc, TRACE_DETAIL, "Saving @%p into data<%d>\n", data, slot);
    // A kept buffer is zero past the message it holds: only that much
    // needs clearing for the next.
    int32_t held = cb->data[slot] != nullptr ? cb->dataLen[slot] : 0;
    cb->dataLen[slot] = length;

    if (cb->data[slot] == nullptr) {
        int32_t size = length <= IPC_BUFFER_STEP - 1 ? IPC_BUFFER_STEP : length + 1;
        cb->dataSize[slot] = size;
        cb->data[slot] = new (std::nothrow) char[static_cast<size_t>(size)];
        if (cb->data[slot] == nullptr) {
            // Kept: the line names 4096 whatever size was asked for.
            ZEVD_TRACE(trc, TRACE_ERROR, "Error: allocating %d bytes.\n", IPC_BUFFER_STEP);
            error = 1;
            ipcSetError(error);
        } else {
            ZEVD_TRACE(trc, TRACE_STORAGE, "Allocated ipcCircularBuffer @%p for length %d\n",
                       static_cast<void *>(cb->data[slot]), size);
            memset(cb->data[slot], 0, static_cast<size_t>(size));
            if (length > 0) memcpy(cb->data[slot], data, static_cast<size_t>(length));
            ZEVD_TRACE(trc, TRACE_DETAIL, "Copied %d bytes into new buffer @%p\n", length,
                       static_cast<void *>(cb->data[slot]));
        }
    } else {
        int32_t size = cb->dataSize[slot];
        bool reallocated = size <= length;
        if (reallocated) {
            // The first step of 4096 above size that is strictly greater
            // than length, so a zero byte always follows the message.
            int32_t steps = (length - size) / IPC_BUFFER_STEP + 1;
            int32_t newSize = size + steps * IPC_BUFFER_STEP;
            ZEVD_TRACE(trc, TRACE_DETAIL, "Note: reallocating buffer to %d bytes.\n", newSize);
            ZEVD_TRACE(trc, TRACE_STORAGE, "Deleting ipcCircularBuffer @%p\n",
                       static_cast<void *>(cb->data[slot]));
            freeArray(cb->data[slot]);
            cb->data[slot] = nullptr;
            cb->dataSize[slot] = newSize;
            cb->data[slot] = new (std::nothrow) char[static_cast<size_t>(newSize)];
            if (cb->data[slot] == nullptr) {
                ZEVD_TRACE(trc, TRACE_ERROR, "Error: allocating %d bytes.\n", newSize);
                error = 1;
                ipcSetError(error);
            }
            // Kept: written whether or not the allocation succeeded.
            ZEVD_TRACE(trc, TRACE_STORAGE, "Allocated ipcCircularBuffer @%p for length %d\n",
                       static_cast<void *>(cb->data[slot]), newSize);
        }
        if (error == 0) {
            ZEVD_TRACE(trc, TRACE_DETAIL, "Copying %d bytes into existing buffer @%p of size %d\n",
                       length, static_cast<void *>(cb->data[slot]), cb->dataSize[slot]);
            if (length > 0) memcpy(cb->data[slot], data, static_cast<size_t>(length));
            if (reallocated)
                memset(cb->data[slot] + length, 0,
                       static_cast<size_t>(cb->dataSize[slot] - length));
            else if (held > length)
                memset(cb->data[slot] + length, 0, static_cast<size_t>(held - length));
        }
    }
    if (error != 0) return;

    ipcClientSlot &entry = cb->slot[slot];
    int32_t addrLen = boundedAddrLen(m.clientAddrLen);
    ZEVD_TRACE(trc, TRACE_DETAIL, "%s: clientAddr <%d<%-*.*x>>\n", "Saving clientAddr ", addrLen,
               addrLen, addrLen, m.clientAddr);
    memset(entry.clientAddr, 0, sizeof entry.clientAddr);
    if (m.clientAddr != nullptr && addrLen > 0)
        memcpy(entry.clientAddr, m.clientAddr, static_cast<size_t>(addrLen));
    entry.clientAddrLen = addrLen;
    if (m.clientName != nullptr) {
        memset(entry.clientName, 0, sizeof entry.clientName);
        strncpy(entry.clientName, m.clientName, sizeof entry.clientName - 1);
    } else {
        // An absent name reads as 255 blanks.
        memset(entry.clientName, ' ', sizeof entry.clientName);
        entry.clientName[sizeof entry.clientName - 1] = '\0';
    }
    entry.connectedSockFD = m.connectedSockFD;
    storeIndex(cb->num_full, loadIndex(cb->num_full) + 1);
    _entriesQueued.fetch_add(1, std::memory_order_release);
}

void DCHipc::ipcEntriesFinished(uint64_t /*done*/) {}

void DCHipc::ipc_get_data(char **buffer, int32_t *bufferLen, void *clientAddr,
                          int32_t *clientAddrLen, char *clientName, uint32_t *connectedSockFD) {
    ZEVD_TRACE_FUNCTION("DCHipc::ipc_get_data");
    ipcSetError(0);
    if (_ipcCircularBuffer == nullptr) {
        ZEVD_TRACE(trc, TRACE_ERROR, "Error: ipcCircularBuffer has not been allocated\n");
        ipcSetError(1);
        return trc.exit();
    }
    if (buffer == nullptr || bufferLen == nullptr) {
        ZEVD_TRACE(trc, TRACE_ERROR, "Error: no buffer to receive into: @%p length @%p\n",
                   static_cast<void *>(buffer), static_cast<void *>(bufferLen));
        ipcSetError(1);
        return trc.exit();
    }
    // The caller's buffer may hold anything: cleared whole.
    ipcEntry entry{*buffer,    *bufferLen,      clientAddr, clientAddrLen,
                   clientName, connectedSockFD, *bufferLen};
    takeEntries(trc, &entry, 1);
    *buffer = entry.buffer;
    *bufferLen = entry.bufferLen;
    trc.exit();
}

int32_t DCHipc::ipc_get_batch(ipcEntry *entries, int32_t count) {
    ZEVD_TRACE_FUNCTION("DCHipc::ipc_get_batch");
    ipcSetError(0);
    if (_ipcCircularBuffer == nullptr) {
        ZEVD_TRACE(trc, TRACE_ERROR, "Error: ipcCircularBuffer has not been allocated\n");
        ipcSetError(1);
        return trc.exit(static_cast<int32_t>(0));
    }
    if (entries == nullptr || count < 1) {
        ZEVD_TRACE(trc, TRACE_ERROR, "Error: no entries to receive into: @%p count %d\n",
                   static_cast<void *>(entries), count);
        ipcSetError(1);
        return trc.exit(static_cast<int32_t>(0));
    }
    return trc.exit(takeEntries(trc, entries, count));
}

int32_t DCHipc::takeEntries(::zevd::TraceFrame &trc, ipcEntry *entries, int32_t count) {
    // Where the consumer runs as it comes back for more (a read of the CPU
    // number, no call to the kernel).
    _consumerCpu.store(sched_getcpu(), std::memory_order_relaxed);
    int32_t error = 0;  // this side's own copy, as in ipc_put_data
    ipcCircularBuffer *cb = _ipcCircularBuffer;
    // Back for more: what this side took before is served.
    uint64_t done = _entriesTaken.load(std::memory_order_relaxed);
    // Published before the hook looks (sequentially consistent, as the
    // producer's side reads it): a producer that lists an entry after the
    // hook has looked sees that it is finished already.
    _entriesFinished.store(done);
    ipcEntriesFinished(done);
    ZEVD_TRACE(trc, TRACE_DETAIL, "Entry: start_idx=%d and num_full=%d\n", loadIndex(cb->start_idx),
               loadIndex(cb->num_full));

    if (ZEVA_GetLock(&cb->lock, this) != 0) {
        ZEVD_TRACE(trc, TRACE_ERROR, "Error: unable to acquire ipcCircularBuffer lock\n");
        ipcSetError(1);
        return 0;
    }

    while (error == 0 && loadIndex(cb->num_full) == 0) {
        ZEVD_TRACE(trc, TRACE_DETAIL, "Waiting for circular buffers to be populated.\n");
        int rc = pthread_cond_wait(&cb->slotFilled, &cb->lock);
        if (rc != 0) {
            ZEVD_TRACE(trc, TRACE_ERROR, "Error: pthread_cond_wait failed. rc=%d errno=%d\n", rc,
                       errno);
            error = 1;
            ipcSetError(error);
        }
    }

    // Every entry waiting, up to count, in one hold of the lock: a producer
    // that waits for room is woken once for all of them.
    int32_t taken = 0;
    while (error == 0 && taken < count && loadIndex(cb->num_full) > 0) {
        if (taken > 0)
            ZEVD_TRACE(trc, TRACE_DETAIL, "Entry: start_idx=%d and num_full=%d\n",
                       loadIndex(cb->start_idx), loadIndex(cb->num_full));
        error = takeHead(trc, entries[taken]);
        if (error == 0) ++taken;
    }

    if (ZEVA_ReleaseLock(&cb->lock, this) != 0) {
        ZEVD_TRACE(trc, TRACE_ERROR, "Error: unable to release ipcCircularBuffer lock\n");
        ipcSetError(1);
    }
    // After the release, so the woken producer finds the lock free. Once
    // for each slot freed: the server loop is not the only producer that
    // may wait for room (a daemon queues entries of its own too), and each
    // slot may take one waiter's entry. With nobody waiting a signal costs
    // no call to the kernel.
    for (int32_t i = 0; i < taken; ++i) {
        int rc = pthread_cond_signal(&cb->slotFreed);
        if (rc != 0) {
            ZEVD_TRACE(trc, TRACE_ERROR, "Error: pthread_cond_signal failed. rc=%d errno=%d\n", rc,
                       errno);
            ipcSetError(1);
            break;
        }
    }
    return taken;
}

int32_t DCHipc::takeHead(::zevd::TraceFrame &trc, ipcEntry &out) {
    ipcCircularBuffer *cb = _ipcCircularBuffer;
    int32_t error = 0;
    int32_t slot = loadIndex(cb->start_idx);
    char *data = cb->data[slot];
    int32_t dataLen = cb->dataLen[slot];
    int32_t dataSize = cb->dataSize[slot];
    bool grown = false;  // the buffer is made here
    if (data == nullptr) {
        ZEVD_TRACE(trc, TRACE_ERROR, "Error: _ipcCircularBuffer->data<%d> was NULL\n", slot);
        error = 1;
    } else if (out.buffer == nullptr) {
        grown = true;
        out.bufferLen = dataSize;
        out.buffer = new (std::nothrow) char[static_cast<size_t>(dataSize)];
        if (out.buffer == nullptr) {
            ZEVD_TRACE(trc, TRACE_ERROR, "Error: allocating %d bytes.\n", dataSize);
            error = 1;
        } else {
            ZEVD_TRACE(trc, TRACE_STORAGE, "Allocated *buffer @%p for length %d\n",
                       static_cast<void *>(out.buffer), out.bufferLen);
        }
    } else if (dataSize > out.bufferLen) {
        grown = true;
        out.bufferLen = dataSize;
        ZEVD_TRACE(trc, TRACE_STORAGE, "Note: deleting and reallocating buffer @%p to %d bytes.\n",
                   static_cast<void *>(out.buffer), out.bufferLen);
        freeArray(out.buffer);
        out.buffer = nullptr;
        out.buffer = new (std::nothrow) char[static_cast<size_t>(out.bufferLen)];
        if (out.buffer == nullptr) {
            ZEVD_TRACE(trc, TRACE_ERROR, "Error: reallocating %d bytes.\n", out.bufferLen);
            error = 1;
        } else {
            ZEVD_TRACE(trc, TRACE_STORAGE, "Allocated *buffer @%p\n",
                       static_cast<void *>(out.buffer));
        }
    }
    if (error != 0) {
        if (out.buffer == nullptr) out.held = 0;
        ipcSetError(error);
        return error;
    }
    // *bufferLen reports the buffer's capacity; the message carries its own
    // length.
    // The buffer ends up zero past the message: what may not be zero
    // there is cleared (all of a buffer made here, whose bytes are unset).
    int32_t dirty = grown ? out.bufferLen : std::clamp(out.held, 0, out.bufferLen);
    ZEVD_TRACE(trc, TRACE_DETAIL, "Copying %d bytes from @%p to @%p\n", dataLen,
               static_cast<void *>(data), static_cast<void *>(out.buffer));
    if (dataLen > 0) memcpy(out.buffer, data, static_cast<size_t>(dataLen));
    if (dirty > dataLen) memset(out.buffer + dataLen, 0, static_cast<size_t>(dirty - dataLen));
    out.held = dataLen;

    const ipcClientSlot &entry = cb->slot[slot];
    int nameLen = static_cast<int>(strnlen(entry.clientName, sizeof entry.clientName));
    if (nameLen <= 6) {
        // Kept: a name of 6 characters or fewer is never taken, so the
        // entry stays at the head of the queue.
        ZEVD_TRACE(trc, TRACE_ERROR,
                   "Error: ipcClientName ptr problem: @%p %d <%s> sizeof(clientName) %d\n",
                   static_cast<const void *>(entry.clientName), nameLen, entry.clientName,
                   kReportedNameSize);
        ipcSetError(1);
        return 1;
    }
    ZEVD_TRACE(trc, TRACE_DETAIL,
               "Copying ptr @%p to clientName @%p for length %d sizeof(clientName) %d\n",
               static_cast<const void *>(entry.clientName), static_cast<void *>(out.clientName),
               nameLen, kReportedNameSize);
    if (out.clientName != nullptr) {
        memcpy(out.clientName, entry.clientName, static_cast<size_t>(nameLen));
        out.clientName[nameLen] = '\0';
        ZEVD_TRACE(trc, TRACE_DETAIL, ">> clientName set to <%s>\n", out.clientName);
    }

    int32_t addrLen = boundedAddrLen(entry.clientAddrLen);
    if (out.clientAddrLen != nullptr) *out.clientAddrLen = addrLen;
    if (out.clientAddr != nullptr && addrLen > 0)
        memcpy(out.clientAddr, entry.clientAddr, static_cast<size_t>(addrLen));
    ZEVD_TRACE(trc, TRACE_DETAIL, "%s: clientAddr <%d<%-*.*x>>\n", "clientAddr set to ", addrLen,
               addrLen, addrLen, static_cast<const void *>(entry.clientAddr));

    if (out.connectedSockFD != nullptr) *out.connectedSockFD = entry.connectedSockFD;
    ZEVD_TRACE(trc, TRACE_DETAIL, "connectedSockFD set to <%d>\n",
               static_cast<int>(entry.connectedSockFD));

    // The slot's data buffer stays for the next message.
    storeIndex(cb->start_idx, (slot + 1) % IPC_QSIZE);
    storeIndex(cb->num_full, loadIndex(cb->num_full) - 1);
    _entriesTaken.fetch_add(1, std::memory_order_relaxed);
    ZEVD_TRACE(trc, TRACE_DETAIL, "Exit: start_idx=%d and num_full=%d\n", loadIndex(cb->start_idx),
               loadIndex(cb->num_full));
    return 0;
}
