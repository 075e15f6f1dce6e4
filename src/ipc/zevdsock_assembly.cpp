// TcpAssembly: a TCP message joined by its length word from pieces read as
// they become ready. The lines it writes are the server loop's own (its
// function record), so a message that arrives in one go traces as it always
// did.
#include "ipc/zevdsock_assembly.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "common/process_end.h"
#include "common/trace.h"

ZEVD_TRACE_UNIT(unitZevdsock);

namespace zevd {

TcpAssembly::~TcpAssembly() {
    delete[] completeBuffer_;
    for (size_t i = 1; i < ipcBufArray_.size(); ++i) delete[] ipcBufArray_[i].buffer;
}

TcpAssembly::Outcome TcpAssembly::read(Source &source, int32_t fd, char *scratch,
                                       Clock::time_point now, int32_t timeoutSeconds) {
    ZEVD_TRACE_LEVEL("ipcSock::IPCServer");
    for (;;) {
        ZEVD_TRACE(trc, TRACE_DETAIL, "Waiting on SELECT: connectedSockFD[%d] MaxFD[%d]\n", fd,
                   fd + 1);
        // The first piece goes straight into its own buffer; a later one is
        // kept only once something came.
        char *target = ipcBufCount_ == 0 ? firstPiece_ : scratch;
        errno = 0;
        ssize_t got = source.receive(target, kPieceSize);
        int recvErrno = errno;
        if (got < 0 && (recvErrno == EAGAIN || recvErrno == EWOULDBLOCK || recvErrno == EINTR))
            return Outcome::kPending;  // back to the loop's select: never a wait here
        auto bytesRead = static_cast<int32_t>(std::min<ssize_t>(got, kPieceSize));
        if (ipcBufCount_ == 0)
            ZEVD_TRACE(trc, TRACE_DETAIL, "Back from Select, reusing ipcBuffer @%p\n",
                       static_cast<void *>(firstPiece_));
        if (trc.on(TRACE_FLOW)) {
            ZEVD_TRACE(trc, TRACE_FLOW,
                       "ipcBufCount=%d totalLen=%d totalRead=%d bytesRead=%d initRead=%d "
                       "moreData=%d\n",
                       ipcBufCount_, static_cast<int32_t>(totalLen_), totalRead_, bytesRead,
                       initRead_ ? 1 : 0, 1);
            if (VX_Debug() == 2 && bytesRead > 0) ZEV0_PrintDump(target, 0, bytesRead);
        }
        if (bytesRead <= 0) {
            // The end of the stream, or a failed receive: no more will come.
            ZEVD_TRACE(trc, TRACE_DETAIL,
                       "TCP: totalLen=%d, bytesRead=%d, totalRead=%d, errno=%d\n",
                       static_cast<int32_t>(totalLen_), bytesRead, totalRead_, recvErrno);
            if (recvErrno == ECONNRESET || (totalLen_ == 0 && totalRead_ == 0))
                return Outcome::kClosed;
            return static_cast<uint32_t>(totalRead_) == totalLen_ ? Outcome::kWhole
                                                                  : Outcome::kMismatch;
        }
        if (ipcBufCount_ == 0) deadline_ = now + std::chrono::seconds(timeoutSeconds);
        keep(target, bytesRead);
        ZEVD_TRACE(trc, TRACE_DETAIL, "TCP: totalLen=%d, bytesRead=%d, totalRead=%d, errno=%d\n",
                   static_cast<int32_t>(totalLen_), bytesRead, totalRead_, recvErrno);
        if (cutOff_) return Outcome::kMismatch;
        if (!initRead_ && !(totalLen_ > static_cast<uint32_t>(totalRead_) && totalLen_ > 0))
            return static_cast<uint32_t>(totalRead_) == totalLen_ ? Outcome::kWhole
                                                                  : Outcome::kMismatch;
    }
}

void TcpAssembly::keep(const char *buffer, int32_t bytesRead) {
    ZEVD_TRACE_LEVEL("ipcSock::IPCServer");
    if (ipcBufCount_ == 0) {
        ipcBufArray_.assign(1, Piece{firstPiece_, bytesRead});
    } else {
        // Kept at the size received: a peer that trickles a byte a piece
        // must not make the loop hold 4 KiB for each.
        auto *piece = new (std::nothrow) char[static_cast<size_t>(bytesRead)];
        if (piece == nullptr) {
            ZEVD_TRACE(trc, TRACE_ERROR,
                       "Error: allocating %d bytes for ipcBuffer, current ipcBufCount: %d.  "
                       "Exiting...\n\n",
                       bytesRead, ipcBufCount_);
            endProcess(0, "no memory for %d more bytes of a TCP message", bytesRead);
        }
        ZEVD_TRACE(trc, TRACE_STORAGE,
                   "Allocated ipcBuffer @%p, storing in ipcBufArray at index: %d\n",
                   static_cast<void *>(piece), ipcBufCount_);
        memcpy(piece, buffer, static_cast<size_t>(bytesRead));
        ipcBufArray_.push_back(Piece{piece, bytesRead});
    }
    ++ipcBufCount_;
    totalRead_ += bytesRead;
    if (initRead_) {
        // TCP keeps no boundaries: the word may come in several pieces.
        // Until its four bytes are in, it is taken as the bytes that came
        // followed by zeros; a stream that ends before then keeps that word.
        unsigned char word[4] = {0, 0, 0, 0};
        size_t have = 0;
        for (const Piece &piece : ipcBufArray_) {
            if (have == sizeof word) break;
            size_t n = std::min<size_t>(sizeof word - have, static_cast<size_t>(piece.length));
            memcpy(word + have, piece.buffer, n);
            have += n;
        }
        totalLen_ = (static_cast<uint32_t>(word[0]) << 24) |
                    (static_cast<uint32_t>(word[1]) << 16) | (static_cast<uint32_t>(word[2]) << 8) |
                    static_cast<uint32_t>(word[3]);
        initRead_ = have < sizeof word;
        // The word so far is at most the whole word: one above the limit
        // already is the whole word above it.
        if (totalLen_ > kMaxMessage) {
            ZEVD_TRACE(trc, TRACE_ERROR,
                       "Error: TCP message of %u bytes is longer than the %u allowed\n", totalLen_,
                       kMaxMessage);
            cutOff_ = true;
            return;
        }
    }
    if (ipcBufCount_ >= kMaxPieces && totalLen_ > static_cast<uint32_t>(totalRead_)) {
        ZEVD_TRACE(trc, TRACE_ERROR, "Error: ipcBufCount %d exceeded allowed limit of %d\n",
                   kMaxPieces, kMaxPieces - 1);
        cutOff_ = true;
    }
}

void TcpAssembly::expire(int32_t timeoutSeconds) {
    ZEVD_TRACE_LEVEL("ipcSock::IPCServer");
    ZEVD_TRACE(trc, TRACE_ERROR, "Error: no more of the TCP message within %d seconds\n",
               timeoutSeconds);
    cutOff_ = true;
}

const char *TcpAssembly::joined() {
    ZEVD_TRACE_LEVEL("ipcSock::IPCServer");
    if (ipcBufCount_ <= 1) return firstPiece_;
    if (completeBuffer_ != nullptr) return completeBuffer_;
    completeBuffer_ = new (std::nothrow) char[static_cast<size_t>(totalRead_)];
    if (completeBuffer_ == nullptr) {
        ZEVD_TRACE(trc, TRACE_ERROR,
                   "Error: allocating %d bytes for completeBuffer.  Exiting...\n\n", totalRead_);
        endProcess(0, "no memory to join a TCP message of %d bytes", totalRead_);
    }
    ZEVD_TRACE(trc, TRACE_STORAGE, "Allocated <%d> bytes for completeBuffer<@%p>\n", totalRead_,
               static_cast<void *>(completeBuffer_));
    int32_t offset = 0;
    for (int32_t i = 0; i < ipcBufCount_; ++i) {
        const Piece &piece = ipcBufArray_[static_cast<size_t>(i)];
        ZEVD_TRACE(trc, TRACE_DETAIL,
                   "[%d] completeBuffer[@%p], offset[%d], buffer[@%p], dataLen[%d]\n", i,
                   static_cast<void *>(completeBuffer_), offset, static_cast<void *>(piece.buffer),
                   piece.length);
        // The lengths add up to totalRead_, the block's size.
        memcpy(completeBuffer_ + offset, piece.buffer, static_cast<size_t>(piece.length));
        offset += piece.length;
    }
    return completeBuffer_;
}

void TcpAssembly::reset() {
    ZEVD_TRACE_LEVEL("ipcSock::IPCServer");
    if (completeBuffer_ != nullptr) {
        ZEVD_TRACE(trc, TRACE_STORAGE, "Deleting completeBuffer @%p, totalRead: %d\n",
                   static_cast<void *>(completeBuffer_), totalRead_);
        delete[] completeBuffer_;
        completeBuffer_ = nullptr;
    }
    // Entry 0 is the first-piece buffer, never freed.
    for (size_t i = 1; i < ipcBufArray_.size(); ++i) {
        ZEVD_TRACE(trc, TRACE_STORAGE, "Deleting ipcBufArray[%i]: @%p\n", static_cast<int>(i),
                   static_cast<void *>(ipcBufArray_[i].buffer));
        delete[] ipcBufArray_[i].buffer;
    }
    ipcBufArray_.clear();
    ipcBufCount_ = 0;
    totalRead_ = 0;
    totalLen_ = 0;
    initRead_ = true;
    cutOff_ = false;
}

}  // namespace zevd
