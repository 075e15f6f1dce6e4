// ipcSock: the socket transport. One UDP socket (borrowed from the
// process-wide pool or made for the object) and, where a stream is needed,
// one TCP socket; the DCH server side and the client side share the class.
#ifndef ZEVD_IPC_ZEVDSOCK_H
#define ZEVD_IPC_ZEVDSOCK_H

#include <netinet/in.h>
#include <pthread.h>
#include <sys/select.h>
#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <vector>

#include "ipc/zevdipc.h"
#include "ipc/zevdsock_assembly.h"

// Accepted TCP connections a server object keeps at once.
inline constexpr int IPC_MAX_TCP_CLIENTS = 64;
// Largest datagram of a message; longer messages are split.
inline constexpr int IPC_DATAGRAM_SIZE = 8192;
// Datagrams one read may join into a message.
inline constexpr int IPC_MAX_DATAGRAMS = 32;
// Defaults of the process-wide configuration.
inline constexpr uint16_t IPC_DEFAULT_DCH_PORT = 1919;
inline constexpr int32_t IPC_DEFAULT_DCH_TIMEOUT = 30;
inline constexpr int32_t IPC_DEFAULT_UDP_POOL = 32;
// Size of the DCH host name buffer, its terminating zero included.
inline constexpr int IPC_DCH_NAME_SIZE = 256;
// Where the DCH's address lies, as seen from this process.
inline constexpr int32_t kDCHremote = 0;
inline constexpr int32_t kDCHlocal = 1;
inline constexpr int32_t kDCHloopback = 2;

// One socket of the UDP pool.
struct UDPSockElement {
    int16_t inUse;    // 0 free, 1 lent out; guarded by _UDPSockLock
    int32_t sockUDP;  // negative when its creation failed
    // 1 when a renewal failed: the answer to its last read may still come,
    // so it is renewed before it is lent again, or not lent. Guarded by
    // _UDPSockLock.
    int16_t stale;
};

// The destructor is not virtual (nor is the base's): owners delete an
// ipcSock through its own type.
class ipcSock : public DCHipc {
public:
    // Must not be used: reports so and sets the object's error to 1.
    ipcSock();
    // service: type of service of the base (2 server, 1 and 3 client).
    // connectTo: 0 talks to the DCH; any other value gives the object a
    // socket pair of its own and resolves no address.
    // useFromSockPool: nonzero borrows the UDP socket from the pool. The
    // first object of service 3 with connectTo 0 and the pool on makes the
    // pool. Never fails outright: check ipcGetError() afterwards.
    // admits: a server's peer filter (see sockSetPeerFilter), in place
    // before its receive thread accepts the first connection.
    ipcSock(int16_t service, int32_t connectTo, int32_t useFromSockPool,
            std::function<bool(const struct sockaddr_in &)> admits = {});
    // Closes the TCP socket and a UDP socket of the object's own; pooled
    // sockets stay open for the life of the process.
    ~ipcSock();
    ipcSock(const ipcSock &) = delete;
    ipcSock &operator=(const ipcSock &) = delete;

    // Receives one message on the UDP socket, joining up to 32 datagrams
    // until its length word is met. Blocks up to wait seconds for the first
    // datagram (below 1: no limit), then 10 seconds for each further one.
    // A timed-out wait is followed by up to ipcGetRetryRead() further waits
    // in all. On success *buffer is a new array (delete[], owned by the
    // caller) that holds the whole message, at least its 4-byte length
    // word, and the result is the byte count of the last datagram. When a
    // wait times out with no retry left, nothing is handed over (*buffer
    // unchanged) and the result is the last datagram's byte count: 0 when
    // nothing came, positive for a message cut short. -1: failure, *buffer
    // unchanged; a first datagram shorter than a length word, or whose
    // length word is 0, smaller than what came, or more than 32 datagrams
    // can carry, is such a failure. Nothing received is read or written
    // outside the bytes that arrived. On an object that talks to the DCH,
    // a datagram from anywhere but the DCH's port (senderIsDCH) is dropped
    // with an error line and the wait goes on with what is left of it.
    int32_t ipcRead(char **buffer, int32_t wait) override;
    // connectedSockFD 0: sends over UDP to the peer address, in datagrams of
    // at most 8192 bytes with a one-second pause between them. Otherwise
    // sends once on that connected TCP socket. buffer stays the caller's.
    // Returns length, or -1.
    int32_t ipcWrite(const char *buffer, int32_t length, uint32_t connectedSockFD) override;
    // The server's send that never waits, for a DCH that serves every peer
    // from one worker. connectedSockFD 0: to `to` from the DCH port's own UDP
    // socket, in datagrams of at most 8192 bytes back to back. Otherwise on
    // that accepted connection, whole at once. Returns length, or -1 with
    // errno set when any of it could not go (a connection may then have
    // taken part of the message: its owner must close it).
    int32_t ipcSendNow(const char *buffer, int32_t length, const struct sockaddr_in &to,
                       uint32_t connectedSockFD);
    // One message of ipcSendBatch: at most one datagram's bytes.
    struct Outgoing {
        const char *buffer;
        int32_t length;
        struct sockaddr_in to;
    };
    // ipcSendNow over UDP for several messages of one datagram each, handed
    // to the kernel in one call, in order, with the same trace lines each.
    // sent[i] tells whether messages[i] went. A message over one datagram
    // is not sent.
    void ipcSendBatch(const Outgoing *messages, int32_t count, bool *sent);
    // Copies 16 bytes of addr into the peer address, or clears it for NULL.
    // addrLen is not used. Returns 0.
    int32_t setClientAddr(const void *addr, int32_t addrLen) override;
    // The server's receive loop, the body of the receive thread: owns the
    // DCH port (allocateDCHport), queues "IPC-SERVER_READY" once it listens,
    // then queues every UDP datagram (cut at 4096 bytes), every TCP message
    // (joined by its length word) and the control texts "DP-DISCONNECT" and
    // "RESEND_MESSAGE", serving one kind of event per pass over up to 63 TCP
    // clients at once (the last of the 64 slots is never handed out).
    // Blocks while the queue is full, and while a TCP message is incomplete
    // for at most the DCH time-out per piece: a peer that stalls longer,
    // announces more than 1023 x 4096 bytes or needs 1024 pieces gets
    // "RESEND_MESSAGE" and its connection closed ("DP-DISCONNECT"). Returns
    // only when select fails (2); ends the process when the port cannot be
    // owned or a receive buffer cannot be allocated.
    // Once the ready entry is queued the loop writes nothing that
    // setClientAddr or ipcWrite read, and reads nothing they write, so the
    // queue's consumer may answer on this object while the loop runs; a
    // connection is closed only under the lock that ipcWrite's sends take.
    int32_t IPCServer() override;
    // Client set-up: gives the object its sockets and, for connectTo 0, the
    // DCH's address. addr is not used. Returns 0 on success, 1 on failure.
    int32_t IPCClient(void *addr, int32_t connectTo, int32_t typeOfServer) override;
    // A UDP socket for this object: from the pool (waiting, possibly without
    // end, while every pooled socket is lent out) or newly made. -999 when
    // the pool cannot be used; the negative result of socket creation
    // without the pool. A pooled socket is lent empty: whatever waits in it
    // is received and dropped first.
    int32_t allocateIPC() override;
    // Gives _sockUDP back to the pool and wakes one waiting borrower. 0 on
    // success and for an object without the pool switch (its destructor
    // closes the socket); 1 when the socket is not the pool's. A pooled
    // socket whose last read handed over no complete message is renewed
    // first (same descriptor, a new socket behind it), so that an answer
    // arriving late finds no socket instead of the next borrower.
    int32_t releaseIPC() override;
    // The configured DCH time-out, passed through 16 bits on purpose: values
    // above 32767 come back negative.
    int32_t DCHtimeout() override;

    // Opens _sockUDP and _sockTCP on the DCH port for the server loop: the
    // configured port after a 2-second pause, or, for a named instance on
    // the default port or with product item 0 set, the first free candidate
    // of a search, which it publishes in ZEVA_DCH_PORT and product items 21
    // (and 22). Returns 1; exits the process (status 1) when it cannot own a
    // port.
    int32_t allocateDCHport();

    int32_t sockUDP() const { return _sockUDP; }
    // Why the client set-up failed, in words for a person ("the DCH address
    // X does not resolve ..."); empty while it has not failed.
    const char *sockFailure() const { return _sockFailure; }
    // The errno of the select that ended the server loop, 0 while it runs.
    int32_t sockEndErrno() const { return _sockEndErrno.load(); }
    // True once the server loop has ended. Set by the loop alone: the
    // transport's error word says so too, but the queue's next put or take
    // writes over it.
    bool sockLoopEnded() const { return _sockLoopEnded.load(); }
    // Where the datagrams the DCH port sent and that were refused went (the
    // port's error queue, filled once its owner sets IP_RECVERR): what the
    // server loop has read of it, then what is left in it, up to a bound.
    // Added to refused, oldest first.
    void takeRefusals(std::vector<struct sockaddr_in> &refused);
    // Who may hold a TCP client slot. Each connection the server loop
    // accepts is offered to admits, on the receive thread, with the peer it
    // came from; one it refuses is closed at once and its slot stays free
    // (no entry is queued for it). Unset, or empty: every connection is
    // kept. A connection accepted before the filter is set is not offered.
    // Setting waits for a call of the old filter that is running: once it
    // returns, the old filter and what it holds may go.
    void sockSetPeerFilter(std::function<bool(const struct sockaddr_in &)> admits);
    // Only the DCH may answer: true when sender is the DCH's port on the
    // DCH's host as this process sees it. The host is the DCH's address
    // and, for a DCH on this host, also the address this host sends to it
    // from and 127.0.0.1; the port is the one this object's requests go to,
    // from which the DCH sends everything (answers, rows, status reports).
    // Any other sender is a stranger, another port of the DCH's host too.
    bool senderIsDCH(const struct sockaddr_in &sender) const;
    // For a wait that watches _sockUDP itself: receives and drops, without
    // blocking, every datagram at the head of the socket that a stranger
    // sent (each traced), and tells whether one from the DCH is waiting.
    bool dchDatagramWaiting();
    // Local ports of the two sockets (host order), cached in _portTCP and
    // _portUDP; 0 when the socket has none.
    uint16_t sockPortTCP();
    uint16_t sockPortUDP();
    // Lowest free _sockClientFD slot, or -1 when all 64 are taken.
    int32_t sockGetAvailableIndex();
    void sockResetIndex();
    // Fills set with the UDP socket, the TCP socket and every client above
    // 0; returns the highest descriptor + 1 for select.
    int32_t sockSetSelectReadMask(fd_set *set);
    // One step of the scan over the client slots after select: the ready
    // descriptor (slot index in *index), 0 for a slot that is not ready
    // (*index -1), -1 at the end of the scan.
    int32_t sockCheckReadMask(fd_set *set, int32_t *index);

protected:
    // Reads the process-wide configuration; the constructor calls it once
    // per process under the env-vars-init lock.
    void getEnvVariables();

    // The server loop's buffers and per-message state, kept on its own
    // stack.
    struct ipcServerState;
    // One pass's event of the server loop: a UDP datagram, a connection on
    // the listener, or one TCP message from the client in slot.
    void sockServeUDP(ipcServerState &state);
    // Receives up to batch datagrams the port has ready and queues each as
    // one entry. A refill fills the slots the consumer freed, without select
    // having said the port is ready. Returns the entries queued.
    int32_t sockQueueUDP(::zevd::TraceFrame &trc, ipcServerState &state, int batch, bool refill);
    // A receive on the UDP port that gave no datagram: a refusal of one
    // the port sent is a note, anything else a level-1 error.
    void sockNoteFailedReceive(int32_t bytesRead, int recvErrno);
    // Reads the port's error queue into what takeRefusals hands over.
    void sockKeepRefusals();
    void sockServeListener(ipcServerState &state);
    // sockServeClient reads what the client has ready into its slot's
    // message, never waiting for more.
    void sockServeClient(ipcServerState &state, int32_t fd, int32_t slot);
    // Closes the ended connections whose "DP-DISCONNECT" the consumer has
    // finished with.
    void ipcEntriesFinished(uint64_t done) override;
    // Closes the ended connections whose entry is done or earlier, under
    // _sockClientLock.
    void closeEnded(uint64_t done);
    // What a client slot's message came to: queued whole, "RESEND_MESSAGE"
    // (and the connection closed when it was cut off), or "DP-DISCONNECT".
    void sockFinishMessage(ipcServerState &state, int32_t fd, int32_t slot,
                           zevd::TcpAssembly::Outcome outcome);
    // Cuts off every message whose deadline has passed.
    void sockCutOffLate(ipcServerState &state);
    // How long a TCP message may take from its first byte: the DCH time-out,
    // at least a second.
    int32_t sockMessageWait() const;
    // One send of length bytes on a client connection, under _sockClientLock.
    ssize_t sockSendClient(int fd, const char *buffer, int32_t length);
    // The slot an accepted connection takes: the lowest free one below the
    // last, or -1. The scan after select never reports the last slot, so a
    // connection there would never be read.
    int32_t sockAcceptIndex();
    // Closes the connection in slot on the server's side and queues its
    // "DP-DISCONNECT".
    void sockDisconnect(ipcServerState &state, int32_t fd, int32_t slot);
    // Receives and drops every datagram waiting in fd, without blocking.
    void sockDrainUDP(int32_t fd);
    // Puts a fresh socket behind the descriptor fd, keeping the old one
    // open a while (see retireSocket); false when none could be opened (the
    // old socket is then kept). Called under _UDPSockLock.
    bool sockRenewUDP(int32_t fd);
    // A UDP socket for talking to the DCH, on a port of the system's choice.
    // For a DCH on a loopback address it listens on the address this host
    // sends to the DCH from, and so on no address another host can reach;
    // otherwise on every address. Fills address as ZEV0_OpenLocalSocket
    // does; -1 with errno in *error on failure.
    static int32_t openClientUDP(struct sockaddr_in *address, int *error);
    // Finds the DCH's host as senderIsDCH sees it; part of reading the
    // configuration.
    static void findDCHhost(uint16_t port);
    // Traces and drops a datagram from a stranger.
    void dropStranger(const struct sockaddr_in &sender, int32_t length);

    // The server loop's severity (0, 1, 2) once the receive thread runs: the
    // constructor's last writes and the loop's meet here, so both go through
    // atomic accesses.
    int32_t _sockError = 0;
    std::atomic<int32_t> _sockEndErrno{0};
    std::atomic<bool> _sockLoopEnded{false};
    // Reads up to limit entries of the UDP port's error queue into refused.
    // Returns how many entries it read (refusals or not).
    int readErrorQueue(std::vector<struct sockaddr_in> &refused, int limit);
    // True when the peer filter admits peer (or there is none).
    bool sockAdmits(const struct sockaddr_in &peer);
    std::mutex _peerFilterLock;
    std::function<bool(const struct sockaddr_in &)> _peerFilter;
    // What the server loop read of the error queue for takeRefusals.
    std::mutex _refusalLock;
    std::vector<struct sockaddr_in> _refusals;
    uint16_t _portTCP = 0;
    uint16_t _portUDP = 0;
    int32_t _sockTCP = IPC_NO_SOCKET;
    int32_t _sockUDP = IPC_NO_SOCKET;
    int32_t _sockIndex = 0;
    int32_t _sockClientFD[IPC_MAX_TCP_CLIENTS] = {};
    struct sockaddr_in _sockAddress = {};
    int32_t _sockAddressLen = sizeof(struct sockaddr_in);
    int32_t _useFromSockPool = 0;
    // True when the last ipcRead handed over no complete message: its
    // answer may still arrive, so the socket is not lent again as it is.
    bool _sockReadIncomplete = false;
    // True for an object that talks to the DCH: its reads take datagrams
    // from the DCH's port only, _sockDCHport (network order) on the DCH's
    // host.
    bool _sockReadsFromDCH = false;
    in_port_t _sockDCHport = 0;
    // Set by IPCClient when it fails: see sockFailure.
    char _sockFailure[IPC_DCH_NAME_SIZE + 128] = {};
    // Held around every send on a client connection (ipcWrite) and around
    // the server loop's closing of one, so that a worker's answer is never
    // sent on a descriptor while the loop closes it.
    pthread_mutex_t _sockClientLock = PTHREAD_MUTEX_INITIALIZER;
    // Connections whose end the loop has queued ("DP-DISCONNECT"): shut
    // down but still open, so that no connection accepted meanwhile gets the
    // same descriptor and with it what is still sent to the one that ended.
    // Each is closed once the consumer comes back for more after taking
    // entry (counted from the queue's first). Guarded by _sockClientLock.
    struct sockEnded {
        int32_t fd;
        uint64_t entry;
    };
    std::vector<sockEnded> _sockEnded;
    std::atomic<int32_t> _sockEndedCount{0};

    // Process-wide state, one copy shared by every object and never freed.
    // The flags are set only under the env-vars-init lock; the values are
    // written there once and read afterwards without it.
    static std::atomic<int32_t> _envVarsInit;
    static std::atomic<int32_t> _envDCHUDPInit;
    static char _envDCHname[IPC_DCH_NAME_SIZE];
    // _envDCHname resolved once, with the configuration; the port is set
    // from _envPortNo for each client. _envDCHresolved is 0 when the name
    // did not resolve.
    static struct sockaddr_in _envDCHaddress;
    static std::atomic<int32_t> _envDCHresolved;
    // Where the DCH lives, found with the address: kDCHremote, kDCHlocal
    // (an address of this host's interfaces) or kDCHloopback; and the
    // address this host sends to it from.
    static std::atomic<int32_t> _envDCHplace;
    static struct in_addr _envDCHsource;
    static std::atomic<uint16_t> _envPortNo;
    static std::atomic<int32_t> _envDCHtimeout;
    static std::atomic<int32_t> _envTRAPEMIT;
    static std::atomic<int32_t> _UDPSocketsInPool;
    // Published (release) once its elements are filled in.
    static std::atomic<UDPSockElement *> _UDPSockList;
    static pthread_mutex_t _UDPSockLock;
    static pthread_cond_t _UDPSockCond;
};

#endif  // ZEVD_IPC_ZEVDSOCK_H
