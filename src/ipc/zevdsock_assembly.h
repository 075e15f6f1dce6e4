// One TCP connection's message as the DCH's server loop assembles it: the
// pieces read so far, the length word, and the deadline set by its first
// byte. The loop never waits on a connection: it hands the assembly what the
// connection has ready, goes back to its select, and comes back on the next
// readiness or when the deadline passes. The class knows nothing of the
// loop's queue or slots, so it can be driven with any bytes.
#ifndef ZEVD_IPC_ZEVDSOCK_ASSEMBLY_H
#define ZEVD_IPC_ZEVDSOCK_ASSEMBLY_H

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <vector>

namespace zevd {

class TcpAssembly {
public:
    using Clock = std::chrono::steady_clock;

    // The receive size of one piece.
    static constexpr int32_t kPieceSize = 4096;
    // Pieces one message may take; a message that reaches this count is cut
    // off.
    static constexpr int32_t kMaxPieces = 1024;
    // The longest message joined: a length word above it is cut off at once.
    static constexpr uint32_t kMaxMessage = static_cast<uint32_t>(kMaxPieces - 1) * 4096u;

    // Where the pieces come from: the connection in the loop, any bytes in
    // a test. Returns as recv does: the bytes received, 0 at the end of the
    // stream, -1 with errno set (EAGAIN or EWOULDBLOCK: nothing more ready).
    class Source {
    public:
        virtual ssize_t receive(char *buffer, size_t size) = 0;

    protected:
        ~Source() = default;
    };

    enum class Outcome {
        kPending,   // not whole, and nothing more is ready now
        kWhole,     // joined() holds the message
        kClosed,    // the stream ended or was reset: the connection is gone
        kMismatch,  // more or fewer bytes than the length word announced
    };

    TcpAssembly() = default;
    ~TcpAssembly();
    TcpAssembly(const TcpAssembly &) = delete;
    TcpAssembly &operator=(const TcpAssembly &) = delete;

    // Reads what source has ready, one piece of at most kPieceSize bytes at
    // a time, until the message is whole, fails, or nothing more is ready.
    // Each piece is traced as the loop traces it; fd names the connection in
    // those lines. The first byte of a message sets its deadline to now +
    // timeoutSeconds. scratch: kPieceSize bytes of the caller's that pieces
    // after the first are received into before they are kept.
    Outcome read(Source &source, int32_t fd, char *scratch, Clock::time_point now,
                 int32_t timeoutSeconds);
    // Ends a message whose deadline passed: traced, and from then on a
    // mismatch that closes the connection.
    void expire(int32_t timeoutSeconds);

    // True while a message is begun and not yet handed over.
    bool begun() const { return ipcBufCount_ > 0; }
    Clock::time_point deadline() const { return deadline_; }
    bool expired(Clock::time_point now) const { return begun() && now >= deadline_; }
    // After kMismatch: the rest of the stream cannot be told from a new
    // message, so the connection must be closed.
    bool cutOff() const { return cutOff_; }
    int32_t received() const { return totalRead_; }
    uint32_t announced() const { return totalLen_; }
    int32_t pieces() const { return ipcBufCount_; }

    // After kWhole: the message, received() bytes. One piece is handed over
    // as it is; several are joined into one block (traced), kept until
    // reset().
    const char *joined();
    // Forgets the message and frees what it held (traced as the loop
    // frees); the assembly is ready for the next one.
    void reset();

private:
    // Keeps a piece of bytesRead bytes received into buffer, then checks
    // the length word and the limits (cutOff_ when one is passed).
    void keep(const char *buffer, int32_t bytesRead);

    struct Piece {
        char *buffer = nullptr;
        int32_t length = 0;
    };
    char firstPiece_[kPieceSize] = {};
    // The pieces of the message; entry 0 is firstPiece_, never freed.
    std::vector<Piece> ipcBufArray_;
    int32_t ipcBufCount_ = 0;
    int32_t totalRead_ = 0;
    uint32_t totalLen_ = 0;
    bool initRead_ = true;  // until the length word's four bytes are in
    bool cutOff_ = false;
    Clock::time_point deadline_{};
    char *completeBuffer_ = nullptr;
};

}  // namespace zevd

#endif  // ZEVD_IPC_ZEVDSOCK_ASSEMBLY_H
