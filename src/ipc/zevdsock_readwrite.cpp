// ipcSock: reading and writing one message (the length-word framing over
// UDP datagrams and TCP connections).
#include <arpa/inet.h>
#include <linux/sockios.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <new>

#include "common/trace.h"
#include "ipc/zevdsock.h"
#include "ipc/zevdsock_internal.h"

ZEVD_TRACE_UNIT(unitZevdsock);

namespace {

using zevd::pollOne;
using zevd::sentDatagramRefused;

using Clock = std::chrono::steady_clock;

// Every datagram after a message's first is waited for this long.
constexpr int kNextDatagramWait = 10;
// Size of the length word that opens every message.
constexpr int32_t kLengthWordSize = 4;
// The most a message joined from IPC_MAX_DATAGRAMS datagrams can hold.
constexpr uint32_t kMaxMessageLength =
    static_cast<uint32_t>(IPC_MAX_DATAGRAMS) * static_cast<uint32_t>(IPC_DATAGRAM_SIZE);

// One received datagram of a message being read.
struct ipcBufEntry {
    char *buffer;
    int32_t length;
};

// Frees the datagrams a read keeps no more, without trace lines: the paths
// that use it hand nothing over.
void dropPieces(ipcBufEntry *pieces, int count) {
    for (int i = 0; i < count; ++i) {
        if (ZEV0_IsValidPointer(pieces[i].buffer)) delete[] pieces[i].buffer;
        pieces[i].buffer = nullptr;
    }
}

}  // namespace

int32_t ipcSock::ipcRead(char **buffer, int32_t wait) {
    ZEVD_TRACE_FUNCTION("ipcSock::ipcRead");
    ipcBufEntry ipcBufArray[IPC_MAX_DATAGRAMS] = {};
    int32_t ipcBufCount = 0;
    int32_t totalRead = 0;
    uint32_t totalLen = 0;
    int32_t bytesRead = 0;  // also the result of the call
    bool firstToCome = true;
    ZEVD_TRACE(trc, TRACE_DETAIL, "[@%p] Passed parms: buffer @%p, initial wait=%d\n",
               static_cast<void *>(this), static_cast<void *>(*buffer), wait);

    // Set once: a retry of the first wait, or a wait after a stranger's
    // datagram, runs with what is left of it (nothing after a time-out, so
    // the retries end at once), as a select's time-out record would.
    bool limited = wait >= 1;
    Clock::time_point deadline = Clock::now() + std::chrono::seconds(limited ? wait : 0);
    int32_t currentWait = wait;
    // Further waits after a wait that timed out; once used up, a time-out
    // ends the read.
    int32_t retriesLeft = std::max(ipcGetRetryRead(), 0);
    // Until a complete message is handed over, its answer may still come.
    _sockReadIncomplete = true;
    // After a failed bounded wait (a signal, say) the receive must not block.
    int receiveFlags = 0;

    // Set when a datagram of the message was kept: only then does the wait
    // for the next one start afresh, so that strangers' datagrams never
    // lengthen a read.
    bool pieceKept = false;

    for (;;) {
        if (ipcBufCount > IPC_MAX_DATAGRAMS - 1) {
            ZEVD_TRACE(trc, TRACE_ERROR,
                       "Error: [@%p] Max %d number of 16K buffers already read.\n",
                       static_cast<void *>(this), IPC_MAX_DATAGRAMS);
            bytesRead = -1;
            break;
        }
        if (pieceKept) {
            pieceKept = false;
            currentWait = kNextDatagramWait;
            limited = true;
            deadline = Clock::now() + std::chrono::seconds(kNextDatagramWait);
        }

        // The trace keeps the words of the select this wait once was.
        ZEVD_TRACE(trc, TRACE_DETAIL,
                   "Waiting on SELECT: UDP[%d] Port[%d] MaxFD[%d] WaitTime[%d]\n", _sockUDP,
                   sockPortUDP(), _sockUDP + 1, currentWait);
        int count = pollOne(_sockUDP, POLLIN, limited ? &deadline : nullptr);
        int selectErrno = errno;
        ZEVD_TRACE(trc, TRACE_DETAIL, "[@%p] Select returned - count=%d errno=%d\n",
                   static_cast<void *>(this), count, selectErrno);
        if (count == -1) {
            ZEVD_TRACE(trc, TRACE_ERROR, "Error: [@%p] select - wait=%d count=%d errno=%d\n",
                       static_cast<void *>(this), currentWait, count, selectErrno);
            bytesRead = -1;
            // A missing socket is not received from either.
            if (_sockUDP < 0) break;
            // Otherwise the receive is attempted all the same. A bounded read
            // does not wait there: a signal must not turn it into an endless
            // one. A read with no time limit waits there for its datagram.
            if (limited) receiveFlags = MSG_DONTWAIT;
        } else if (count == 0) {
            if (retriesLeft > 0) {
                --retriesLeft;
                ZEVD_TRACE(trc, TRACE_DETAIL,
                           "select timed out - wait=%d count=%d errno=%d...trying again\n",
                           currentWait, count, selectErrno);
                continue;
            }
            ZEVD_TRACE(trc, TRACE_DETAIL,
                       "select timed out - wait=%d count=%d errno=%d...not retrying\n", currentWait,
                       count, selectErrno);
            // Nothing is handed over: the datagrams kept so far are dropped.
            dropPieces(ipcBufArray, ipcBufCount);
            return trc.exit(bytesRead);
        }

        auto *piece = new (std::nothrow) char[IPC_DATAGRAM_SIZE];
        if (piece == nullptr) {
            ZEVD_TRACE(trc, TRACE_ERROR, "Error: allocating %d bytes for ipcBuffer\n",
                       IPC_DATAGRAM_SIZE);
            bytesRead = -1;
            // Ends the read rather than going round again at once, which
            // could spin for as long as memory stays short.
            break;
        }
        ZEVD_TRACE(trc, TRACE_STORAGE,
                   "Allocated ipcBuffer @%p length %d in ipcSock @%p, storing in ipcBufArray at "
                   "index: %d\n",
                   static_cast<void *>(piece), IPC_DATAGRAM_SIZE, static_cast<void *>(this),
                   ipcBufCount);
        ipcBufArray[ipcBufCount].buffer = piece;
        memset(piece, 0, IPC_DATAGRAM_SIZE);
        struct sockaddr_in sender;
        socklen_t senderLen = sizeof sender;
        int32_t readBefore = bytesRead;
        // A read with no time limit waits here for its datagram through any
        // signal, as it would under SA_RESTART.
        do {
            senderLen = sizeof sender;
            bytesRead = static_cast<int32_t>(
                recvfrom(_sockUDP, piece, IPC_DATAGRAM_SIZE, receiveFlags,
                         reinterpret_cast<struct sockaddr *>(&sender), &senderLen));
        } while (bytesRead < 0 && errno == EINTR && !limited);
        int recvErrno = errno;
        receiveFlags = 0;

        if (bytesRead >= 0 && _sockReadsFromDCH && !senderIsDCH(sender)) {
            // Only the DCH may answer: a stranger's datagram is dropped and
            // the wait goes on with what is left of it.
            dropStranger(sender, bytesRead);
            delete[] piece;
            ipcBufArray[ipcBufCount].buffer = nullptr;
            // Nor does it count in the result: a time-out next returns what
            // it would have returned without it.
            bytesRead = readBefore;
            continue;
        }

        if (bytesRead < 1) {
            if (ZEV0_IsValidPointer(piece)) {
                ZEVD_TRACE(trc, TRACE_STORAGE, "Deleting ipcBuffer @%p, bytesRead: %d\n",
                           static_cast<void *>(piece), bytesRead);
                int slot = -1;
                for (int i = 0; i < IPC_MAX_DATAGRAMS && slot < 0; ++i)
                    if (ipcBufArray[i].buffer == piece) slot = i;
                delete[] piece;
                if (slot >= 0) {
                    ZEVD_TRACE(trc, TRACE_DETAIL, "Nulling out ipcBuffer at ipcBufArray index %d\n",
                               slot);
                    ipcBufArray[slot].buffer = nullptr;
                    ipcBufArray[slot].length = 0;
                }
            } else {
                ZEVD_TRACE(trc, TRACE_ERROR, "Error: ipcBuffer object @%p is not valid\n",
                           static_cast<void *>(piece));
            }
            break;
        }

        totalRead += bytesRead;
        ipcBufArray[ipcBufCount].length = bytesRead;
        ++ipcBufCount;
        pieceKept = true;
        if (firstToCome) {
            firstToCome = false;
            // A first datagram too short to hold a length word has none: it
            // counts as length 0 and fails like one.
            if (bytesRead >= kLengthWordSize) {
                uint32_t word;
                memcpy(&word, piece, sizeof word);
                totalLen = ntohl(word);
            }
        }
        ZEVD_TRACE(trc, TRACE_DETAIL,
                   "ipcBufCount=%d totalLen=%d, bytesRead=%d, totalRead=%d, errno=%d\n",
                   ipcBufCount, static_cast<int32_t>(totalLen), bytesRead, totalRead, recvErrno);
        if (totalLen > kMaxMessageLength) {
            // No number of datagrams this read may join can meet it.
            ZEVD_TRACE(trc, TRACE_ERROR,
                       "Error: [@%p] Max %d number of 16K buffers already read.\n",
                       static_cast<void *>(this), IPC_MAX_DATAGRAMS);
            bytesRead = -1;
            break;
        }
        if (totalLen == 0 || totalLen <= static_cast<uint32_t>(totalRead)) break;
    }

    if (ipcBufCount < 1 || totalLen != static_cast<uint32_t>(totalRead)) {
        ZEVD_TRACE(trc, TRACE_ERROR, "Error: [@%p] totalLen=%d, bytesRead=%d errno=%d\n",
                   static_cast<void *>(this), static_cast<int32_t>(totalLen), bytesRead, errno);
        bytesRead = -1;
        dropPieces(ipcBufArray, ipcBufCount);
    } else {
        ZEVD_TRACE(trc, TRACE_DETAIL,
                   "recvfrom operation had no more data, totalRead: %d, ipcBufCount: %d\n",
                   totalRead, ipcBufCount);
        if (ipcBufCount == 1) {
            // Handed over without a copy: an 8192-byte block of which the
            // first totalLen bytes are the message.
            *buffer = ipcBufArray[0].buffer;
            _sockReadIncomplete = false;
        } else {
            auto *completeBuffer = new (std::nothrow) char[totalRead];
            if (completeBuffer == nullptr) {
                ZEVD_TRACE(trc, TRACE_ERROR, "Error: allocating %d bytes for completeBuffer\n",
                           totalRead);
                bytesRead = -1;
                dropPieces(ipcBufArray, ipcBufCount);
            } else {
                ZEVD_TRACE(trc, TRACE_STORAGE, "Allocated %d bytes for completeBuffer @%p\n",
                           totalRead, static_cast<void *>(completeBuffer));
                memset(completeBuffer, 0, totalRead);
                int32_t offset = 0;
                for (int32_t i = 0; i < ipcBufCount; ++i) {
                    ZEVD_TRACE(trc, TRACE_DETAIL,
                               "[%d] completeBuffer[@%p], offset[%d], buffer[%p], dataLen[%d]\n", i,
                               static_cast<void *>(completeBuffer), offset,
                               static_cast<void *>(ipcBufArray[i].buffer), ipcBufArray[i].length);
                    // The lengths add up to totalRead, the block's size.
                    memcpy(completeBuffer + offset, ipcBufArray[i].buffer, ipcBufArray[i].length);
                    offset += ipcBufArray[i].length;
                }
                *buffer = completeBuffer;
                _sockReadIncomplete = false;
                for (int32_t i = 0; i < ipcBufCount; ++i) {
                    if (ZEV0_IsValidPointer(ipcBufArray[i].buffer)) {
                        ZEVD_TRACE(trc, TRACE_STORAGE, "Deleting ipcBufArray[%i]: @%p\n", i,
                                   static_cast<void *>(ipcBufArray[i].buffer));
                        delete[] ipcBufArray[i].buffer;
                        ipcBufArray[i].buffer = nullptr;
                    } else {
                        ZEVD_TRACE(trc, TRACE_ERROR,
                                   "Error: ipcBufArray[%i] object @%p is not valid\n", i,
                                   static_cast<void *>(ipcBufArray[i].buffer));
                    }
                }
            }
        }
    }
    ZEVD_TRACE(trc, TRACE_DETAIL, "*readBuffer set to @%p\n", static_cast<void *>(*buffer));
    return trc.exit(bytesRead);
}

int32_t ipcSock::ipcWrite(const char *buffer, int32_t length, uint32_t connectedSockFD) {
    ZEVD_TRACE_FUNCTION("ipcSock::ipcWrite");
    int32_t sent = 0;
    bool failed = false;
    if (connectedSockFD == 0) {
        ZEVD_TRACE(trc, TRACE_DETAIL, "[@%p] Using Family=AF_INET, Type=UDP, totalLen=%d\n",
                   static_cast<void *>(this), length);
        ZEVD_TRACE(trc, TRACE_DETAIL, "%s: clientAddr <%d<%-*.*x>>\n", "_sockAddress set to ",
                   _sockAddressLen, _sockAddressLen, _sockAddressLen,
                   static_cast<void *>(&_sockAddress));
        int32_t chunk = length;
        while (sent < length) {
            if (chunk > IPC_DATAGRAM_SIZE) chunk = IPC_DATAGRAM_SIZE;
            ssize_t rc = sendto(_sockUDP, buffer + sent, static_cast<size_t>(chunk), 0,
                                reinterpret_cast<const struct sockaddr *>(&_sockAddress),
                                sizeof _sockAddress);
            if (rc < 0) {
                int sendErrno = errno;
                ZEVD_TRACE(trc, TRACE_ERROR,
                           "Error: [@%p] SENDTO - Sent %d bytes out of %d: errno=%d: _sockUDP=%d\n",
                           static_cast<void *>(this), sent, length, sendErrno, _sockUDP);
                failed = true;
                break;
            }
            sent += static_cast<int32_t>(rc);
            chunk = length - sent;
            if (chunk == 0) break;
            // The pause between the datagrams of one message is part of the
            // design: n datagrams take at least n - 1 seconds.
            OSV1_Sleep(1);
            ZEVD_TRACE(trc, TRACE_FLOW, "[@%p] Sent<%d> Remaining<%d>\n", static_cast<void *>(this),
                       sent, chunk);
        }
    } else {
        int fd = static_cast<int>(connectedSockFD);
        ZEVD_TRACE(trc, TRACE_DETAIL,
                   "[@%p] Using Family=AF_INET, Type=TCP, connectedSockFD set to %d\n",
                   static_cast<void *>(this), fd);
        ssize_t rc = sockSendClient(fd, buffer, length);
        int sendErrno = errno;
        if (rc == length) {
            sent = static_cast<int32_t>(rc);
        } else if (sendErrno == EAGAIN) {
            // Waits on the object's own TCP socket, not on connectedSockFD,
            // as designed.
            int32_t timeout = _envDCHtimeout.load();
            ZEVD_TRACE(trc, TRACE_DETAIL, "SEND would block - waiting on Select for %d seconds.\n",
                       timeout);
            int count = -1;
            int selectErrno = EINVAL;  // a negative time-out fails, as select failed it
            if (timeout >= 0) {
                Clock::time_point deadline = Clock::now() + std::chrono::seconds(timeout);
                count = pollOne(_sockTCP, POLLOUT, &deadline);
                selectErrno = errno;
            }
            if (count <= 0) {
                ZEVD_TRACE(trc, TRACE_ERROR, "Error: [@%p] select - count=%d errno=%d\n",
                           static_cast<void *>(this), count, selectErrno);
                failed = true;
            } else {
                ZEVD_TRACE(trc, TRACE_DETAIL, "Select returned. Count=%d, errno=%d\n", count,
                           selectErrno);
                // The whole message again from its first byte: a partial
                // send is never continued.
                rc = sockSendClient(fd, buffer, length);
                sendErrno = errno;
                if (rc == length) {
                    sent = static_cast<int32_t>(rc);
                } else {
                    ZEVD_TRACE(
                        trc, TRACE_ERROR, "Error: [@%p] SEND - Sent %d bytes out of %d: errno=%d\n",
                        static_cast<void *>(this), static_cast<int32_t>(rc), length, sendErrno);
                    failed = true;
                }
            }
        } else {
            ZEVD_TRACE(trc, TRACE_ERROR, "Error: [@%p] SEND - Sent %d bytes out of %d: errno=%d\n",
                       static_cast<void *>(this), static_cast<int32_t>(rc), length, sendErrno);
            failed = true;
        }
    }
    if (failed) return trc.exit(-1);
    ZEVD_TRACE(trc, TRACE_DETAIL, "Sent %d bytes out of %d\n", sent, length);
    if (trc.on(TRACE_DUMP)) ZEV0_PrintDump(buffer, 0, length);
    return trc.exit(sent);
}

int32_t ipcSock::ipcSendNow(const char *buffer, int32_t length, const struct sockaddr_in &to,
                            uint32_t connectedSockFD) {
    ZEVD_TRACE_FUNCTION("ipcSock::ipcSendNow");
    int32_t sent = 0;
    int sendErrno = 0;
    if (connectedSockFD == 0) {
        // Back to back, without the client's pause between datagrams: the
        // DCH's worker never waits on a peer.
        // A refusal of an earlier datagram to someone else fails the next
        // send once and is gone: that datagram is sent again.
        int refusals = 0;
        while (sent < length) {
            int32_t chunk = std::min(length - sent, IPC_DATAGRAM_SIZE);
            ssize_t rc = sendto(_sockUDP, buffer + sent, static_cast<size_t>(chunk), MSG_DONTWAIT,
                                reinterpret_cast<const struct sockaddr *>(&to), sizeof to);
            if (rc != chunk) {
                sendErrno = errno;
                if (rc < 0 && sentDatagramRefused(sendErrno) && ++refusals <= IPC_MAX_DATAGRAMS)
                    continue;
                break;
            }
            sent += chunk;
        }
    } else {
        // Whole at once or not at all: a message goes only where the send
        // buffer holds it with room to spare (the kernel counts its own
        // bookkeeping in the buffer, about as much again as the bytes), so a
        // peer that does not read never receives part of one. The connection
        // is non-blocking, and a partial send is never continued (its owner
        // closes the connection).
        int fd = static_cast<int>(connectedSockFD);
        int queued = 0;
        int room = 0;
        socklen_t roomLength = sizeof room;
        if (ioctl(fd, SIOCOUTQ, &queued) != 0 ||
            getsockopt(fd, SOL_SOCKET, SO_SNDBUF, &room, &roomLength) != 0) {
            sendErrno = errno;
        } else if (static_cast<int64_t>(queued) + length > room / 2) {
            sendErrno = EAGAIN;
        } else {
            ssize_t rc = sockSendClient(fd, buffer, length);
            sendErrno = errno;
            if (rc > 0) sent = static_cast<int32_t>(rc);
        }
    }
    if (sent != length) {
        ZEVD_TRACE(trc, TRACE_ERROR, "Error: [@%p] SEND - Sent %d bytes out of %d: errno=%d\n",
                   static_cast<void *>(this), sent, length, sendErrno);
        errno = sendErrno;
        return trc.exit(-1);
    }
    ZEVD_TRACE(trc, TRACE_DETAIL, "Sent %d bytes out of %d\n", sent, length);
    if (trc.on(TRACE_DUMP)) ZEV0_PrintDump(buffer, 0, length);
    return trc.exit(sent);
}

void ipcSock::ipcSendBatch(const Outgoing *messages, int32_t count, bool *sent) {
    ZEVD_TRACE_FUNCTION("ipcSock::ipcSendNow");
    constexpr int kPerCall = 64;
    struct mmsghdr headers[kPerCall];
    struct iovec pieces[kPerCall];
    int32_t done = 0;
    int refusals = 0;
    while (done < count) {
        const Outgoing &first = messages[done];
        if (first.length <= 0 || first.length > IPC_DATAGRAM_SIZE) {
            ZEVD_TRACE(trc, TRACE_ERROR, "Error: [@%p] SEND - Sent %d bytes out of %d: errno=%d\n",
                       static_cast<void *>(this), 0, first.length, EMSGSIZE);
            sent[done++] = false;
            continue;
        }
        int n = 0;
        memset(headers, 0, sizeof headers);
        for (; n < kPerCall && done + n < count; ++n) {
            const Outgoing &m = messages[done + n];
            if (m.length <= 0 || m.length > IPC_DATAGRAM_SIZE) break;
            pieces[n].iov_base = const_cast<char *>(m.buffer);
            pieces[n].iov_len = static_cast<size_t>(m.length);
            headers[n].msg_hdr.msg_name = const_cast<struct sockaddr_in *>(&m.to);
            headers[n].msg_hdr.msg_namelen = sizeof m.to;
            headers[n].msg_hdr.msg_iov = &pieces[n];
            headers[n].msg_hdr.msg_iovlen = 1;
        }
        int rc = sendmmsg(_sockUDP, headers, static_cast<unsigned>(n), MSG_DONTWAIT);
        if (rc <= 0) {
            // The first of them did not go. A refusal of an earlier datagram
            // to someone else fails the send once and is gone: sent again.
            int sendErrno = errno;
            if (rc < 0 && sentDatagramRefused(sendErrno) && ++refusals <= IPC_MAX_DATAGRAMS)
                continue;
            ZEVD_TRACE(trc, TRACE_ERROR, "Error: [@%p] SEND - Sent %d bytes out of %d: errno=%d\n",
                       static_cast<void *>(this), 0, first.length, sendErrno);
            sent[done++] = false;
            continue;
        }
        for (int i = 0; i < rc; ++i) {
            const Outgoing &m = messages[done + i];
            auto length = static_cast<int32_t>(headers[i].msg_len);
            sent[done + i] = length == m.length;
            if (length != m.length) {
                ZEVD_TRACE(trc, TRACE_ERROR,
                           "Error: [@%p] SEND - Sent %d bytes out of %d: errno=%d\n",
                           static_cast<void *>(this), length, m.length, 0);
                continue;
            }
            ZEVD_TRACE(trc, TRACE_DETAIL, "Sent %d bytes out of %d\n", length, m.length);
            if (trc.on(TRACE_DUMP)) ZEV0_PrintDump(m.buffer, 0, m.length);
        }
        done += rc;
    }
    trc.exit();
}

ssize_t ipcSock::sockSendClient(int fd, const char *buffer, int32_t length) {
    bool locked = ZEVA_GetLock(&_sockClientLock, this) == 0;
    // A partial send sets no errno: it must not read as an older failure.
    errno = 0;
    // MSG_NOSIGNAL: a peer that went away fails the send instead of ending
    // the process with SIGPIPE.
    ssize_t rc = send(fd, buffer, static_cast<size_t>(length), MSG_NOSIGNAL);
    int sendErrno = errno;
    if (locked) ZEVA_ReleaseLock(&_sockClientLock, this);
    errno = sendErrno;
    return rc;
}

void ipcSock::dropStranger(const struct sockaddr_in &sender, int32_t length) {
    ZEVD_TRACE_LEVEL("ipcSock::ipcRead");
    char dotted[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &sender.sin_addr, dotted, sizeof dotted);
    ZEVD_TRACE(trc, TRACE_ERROR,
               "Error: dropped a datagram of %d bytes from %s port %d: only the DCH may answer\n",
               length, dotted, static_cast<int>(ntohs(sender.sin_port)));
}

bool ipcSock::dchDatagramWaiting() {
    // Bounded: a flood of strangers hands the wait back to its caller's
    // poll rather than holding it here.
    for (int i = 0; i < IPC_MAX_DATAGRAMS; ++i) {
        char first = 0;
        struct sockaddr_in sender;
        memset(&sender, 0, sizeof sender);
        socklen_t senderLen = sizeof sender;
        ssize_t got = recvfrom(_sockUDP, &first, sizeof first, MSG_PEEK | MSG_DONTWAIT | MSG_TRUNC,
                               reinterpret_cast<struct sockaddr *>(&sender), &senderLen);
        if (got < 0) return false;
        if (!_sockReadsFromDCH || senderIsDCH(sender)) return true;
        recv(_sockUDP, &first, sizeof first, MSG_DONTWAIT);
        dropStranger(sender, static_cast<int32_t>(got));
    }
    return false;
}
