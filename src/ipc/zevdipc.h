// DCHipc: the IPC service base of every transport, with the server side's
// five-slot receive queue and its receive thread.
#ifndef ZEVD_IPC_ZEVDIPC_H
#define ZEVD_IPC_ZEVDIPC_H

#include <pthread.h>

#include <atomic>
#include <cstdint>

// Number of queue slots. The queue counts as full at IPC_QSIZE - 1 waiting
// entries: one slot always stays empty.
inline constexpr int IPC_QSIZE = 5;
// A slot's data buffer grows in steps of this many bytes.
inline constexpr int IPC_BUFFER_STEP = 4096;
// Size of a slot's client name and client address fields.
inline constexpr int IPC_CLIENT_NAME_SIZE = 256;
inline constexpr int IPC_CLIENT_ADDR_SIZE = 256;

// Types of service.
inline constexpr int16_t IPC_SERVICE_CLIENT = 1;
inline constexpr int16_t IPC_SERVICE_SERVER = 2;
inline constexpr int16_t IPC_SERVICE_CLIENT_OBJECT = 3;  // the client object's own

// The no-socket value of every socket member.
inline constexpr int32_t IPC_NO_SOCKET = -999;

struct ipcClientSlot {
    char clientAddr[IPC_CLIENT_ADDR_SIZE];  // sender's socket address as received
    int32_t clientAddrLen;
    char clientName[IPC_CLIENT_NAME_SIZE];  // NUL-terminated
    uint32_t connectedSockFD;               // TCP connection, 0 for UDP
};

// The receive queue of a server transport; every field is guarded by lock.
struct ipcCircularBuffer {
    pthread_mutex_t lock;
    int32_t start_idx;  // oldest filled slot
    int32_t num_full;   // filled slots
    pthread_cond_t slotFreed;
    pthread_cond_t slotFilled;
    ipcClientSlot slot[IPC_QSIZE];
    int32_t dataSize[IPC_QSIZE];  // allocated size of each data buffer
    int32_t dataLen[IPC_QSIZE];   // length of the message held
    char *data[IPC_QSIZE];        // kept and reused once allocated
};

// One message for ipc_put_batch: what ipc_put_data takes as arguments.
struct ipcMessage {
    int32_t length;
    const void *data;
    const void *clientAddr;
    int32_t clientAddrLen;
    const char *clientName;
    uint32_t connectedSockFD;
};

// Where ipc_get_batch puts one entry: what ipc_get_data takes as arguments.
// buffer (NULL or an array of bufferLen bytes that the caller owns) is grown
// here like ipc_get_data's; the other pointers may be NULL to skip a field.
// held: how many bytes at the start of buffer may not be zero; the rest
// must be. 0 for no buffer; bufferLen for a buffer that may hold anything.
// The entry sets it to the message's length, so that a caller that does not
// write into the buffer passes it on to the next batch and only that much is
// cleared again.
struct ipcEntry {
    char *buffer;
    int32_t bufferLen;
    void *clientAddr;
    int32_t *clientAddrLen;
    char *clientName;
    uint32_t *connectedSockFD;
    int32_t held;
};

namespace zevd {
class TraceFrame;
}

// The abstract transport. Its destructor is deliberately not virtual: owners
// delete a transport through its concrete type.
class DCHipc {  // NOLINT(cppcoreguidelines-virtual-class-destructor)
public:
    // Must not be used: reports so and sets the error word to 1.
    DCHipc();
    explicit DCHipc(int16_t typeOfService);
    ~DCHipc();
    DCHipc(const DCHipc &) = delete;
    DCHipc &operator=(const DCHipc &) = delete;

    // Receives one complete message. *buffer receives a new array that the
    // caller owns and frees with delete[]. wait: first wait in seconds, below
    // 1 waits without limit. Returns a byte count, 0 on a time-out without
    // retrying, -1 on failure.
    virtual int32_t ipcRead(char **buffer, int32_t wait) = 0;
    // Sends length bytes of buffer (borrowed) over UDP to the peer address,
    // or over the connected TCP socket connectedSockFD when it is not 0.
    // Returns the bytes sent or -1. May block for pauses between datagrams.
    virtual int32_t ipcWrite(const char *buffer, int32_t length, uint32_t connectedSockFD) = 0;
    // Sets the peer address (16 bytes copied) or clears it when addr is NULL.
    virtual int32_t setClientAddr(const void *addr, int32_t addrLen) = 0;
    // The server's receive loop; runs on the receive thread until the
    // process ends or the loop fails. Returns the transport's error.
    virtual int32_t IPCServer() = 0;
    // Client set-up, called by startup. Returns 0 on success, 1 on failure.
    virtual int32_t IPCClient(void *addr, int32_t connectTo, int32_t typeOfServer) = 0;
    // Obtains the transport's UDP socket; may block while a pool is empty.
    virtual int32_t allocateIPC() = 0;
    // Gives the UDP socket back; 0 on success, 1 on failure.
    virtual int32_t releaseIPC() = 0;
    // The DCH time-out in seconds; 30 unless a transport knows better.
    virtual int32_t DCHtimeout();

    // Server: creates the queue and starts the receive thread. Client: runs
    // IPCClient. Returns the error word.
    int32_t startup(void *addr, int32_t connectTo);
    // Thread routine of the server; never joined.
    static void *IPCServerThread(void *transport);

    // Create and free the queue with its slot buffers. ipc_new_cb sets the
    // error word to 1 when the queue cannot be allocated.
    void ipc_new_cb();
    void ipc_delete_cb();
    // Producer side: blocks while IPC_QSIZE - 1 entries wait. Copies data,
    // at most 256 address bytes and at most 255 name characters (NULL
    // name: 255 blanks); nothing is kept of the caller's pointers. Refuses a
    // negative length, one too large to size a slot for, or NULL data with
    // a length (error 1). Without a queue it reports so and leaves error 0;
    // otherwise the error word ends as the result of releasing the lock.
    void ipc_put_data(int32_t length, const void *data, const void *clientAddr,
                      int32_t clientAddrLen, const char *clientName, uint32_t connectedSockFD);
    // Producer side, for a producer that has several messages at once: each
    // is queued exactly as ipc_put_data would queue it (the same trace
    // lines, waiting while IPC_QSIZE - 1 entries wait), in order, in one
    // hold of the lock; the consumer is signalled once they are in, or
    // before the producer waits for room. A message refused for its length
    // is skipped.
    void ipc_put_batch(const ipcMessage *messages, int32_t count);
    // Consumer side: blocks while the queue is empty. *buffer (NULL or an
    // array of *bufferLen bytes that the caller owns) is replaced here by a
    // larger array when needed; *bufferLen reports its capacity, not the
    // message length. clientAddr takes up to 256 bytes, clientName up to 256
    // characters; NULL skips either. An entry whose client name has 6
    // characters or fewer is never taken: error 1, and it stays at the head.
    void ipc_get_data(char **buffer, int32_t *bufferLen, void *clientAddr, int32_t *clientAddrLen,
                      char *clientName, uint32_t *connectedSockFD);

    // Consumer side, for a consumer that serves several entries in a row:
    // blocks while the queue is empty, then takes every waiting entry, up to
    // count, oldest first, each exactly as ipc_get_data would (the same
    // trace lines, an entry with a short client name left at the head), and
    // signals the producer once for all of them. Returns the entries taken.
    int32_t ipc_get_batch(ipcEntry *entries, int32_t count);

    // Entries the queue takes now before its producer must wait (read
    // without the lock: the consumer may free more meanwhile, never less).
    int32_t ipcQueueRoom() const;

    int32_t ipcGetError() const { return _ipcError.load(std::memory_order_relaxed); }
    void ipcSetError(int32_t error) { _ipcError.store(error, std::memory_order_relaxed); }
    int32_t ipcTypeOfService() const { return _typeOfService; }
    int32_t ipcGetRetryRead() const { return _retryRead; }
    void ipcSetRetryRead(int32_t retry) { _retryRead = retry; }

protected:
    // The consumer's side of the lock: waits for an entry, then takes up to
    // count of them. Returns the entries taken.
    int32_t takeEntries(::zevd::TraceFrame &trc, ipcEntry *entries, int32_t count);
    // Takes the head entry into out, with the queue lock held. Returns 0, or
    // 1 when the entry stays at the head.
    int32_t takeHead(::zevd::TraceFrame &trc, ipcEntry &out);
    // The producer's side of the lock for ipc_put_data and ipc_put_batch.
    // *stored, when given, is the number the last message was stored as
    // (entries are numbered from 1 in the order they are stored), or 0 when
    // it was not stored.
    void putMessages(::zevd::TraceFrame &trc, const ipcMessage *messages, int32_t count,
                     uint64_t *stored = nullptr);
    // Queues one message as ipc_put_data does, and returns the number it
    // was stored as, or 0 when it was not: read under the queue's lock, so
    // no other producer's entry can take it.
    uint64_t ipcPutNumbered(const ipcMessage &message);
    // Stores m in the next free slot, with the queue lock held and room in
    // the queue.
    void storeMessage(::zevd::TraceFrame &trc, const ipcMessage &m);
    void signalFilled(::zevd::TraceFrame &trc);

    // Called on the consumer's thread each time it comes back for an entry,
    // before it waits: the entries it took before, done of them since the
    // queue was made, are finished with.
    virtual void ipcEntriesFinished(uint64_t done);
    // Entries stored since the queue was made, and entries taken.
    uint64_t ipcEntriesQueued() const { return _entriesQueued.load(std::memory_order_acquire); }
    // The entries the consumer had finished with when it last came back
    // (what ipcEntriesFinished was last given).
    uint64_t ipcEntriesDone() const { return _entriesFinished.load(); }

    // Shared by producer and consumer without a lock: last writer wins.
    std::atomic<int32_t> _ipcError;
    std::atomic<uint64_t> _entriesQueued{0};
    std::atomic<uint64_t> _entriesTaken{0};
    std::atomic<uint64_t> _entriesFinished{0};
    // The CPU the consumer ran on when it last took entries (-1: none yet),
    // for a receive thread that keeps to it while the port overflows.
    std::atomic<int32_t> _consumerCpu{-1};
    int16_t _ipcType;
    int16_t _typeOfService;
    ipcCircularBuffer *_ipcCircularBuffer = nullptr;
    int32_t _retryRead;
};

#endif  // ZEVD_IPC_ZEVDIPC_H
