// The daemon's worker on the library's server transport: it takes each
// queued message, hands it to the Dch and answers through ipcSendNow, which
// never waits on a peer. Everything sent over UDP, answers, rows and status
// reports, leaves from the DCH port's own socket; a subscriber that has gone
// is seen through the refusals that come back to that socket (IP_RECVERR).
#ifndef ZEVD_DCH_ZEVDCHD_SERVER_H
#define ZEVD_DCH_ZEVDCHD_SERVER_H

#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <string>
#include <utility>

#include "ipc/zevdsock.h"
#include "zevdchd.h"

namespace zevd::dch {

class MetricsBoard;

// The text the daemon queues itself to stop its worker. Like the loop's own
// control texts it carries a blank sender name, which no received message has.
inline constexpr char kStopText[] = "ZEVDCHD-STOP";
// Queued every second with --source-ttl: idle handles are looked for.
inline constexpr char kTickText[] = "ZEVDCHD-TICK";

// The receive buffer asked for on the DCH's UDP port when --rcvbuf and
// ZEVA_DCH_RCVBUF are absent, and the range they may ask for.
inline constexpr long kDefaultReceiveBuffer = 32L << 20;
inline constexpr long kMinReceiveBuffer = 4096;
inline constexpr long kMaxReceiveBuffer = 1L << 30;

class SocketTransport : public Transport {
public:
    SocketTransport() = default;
    SocketTransport(const SocketTransport &) = delete;
    SocketTransport &operator=(const SocketTransport &) = delete;

    bool answer(const Peer &peer, const char *message, size_t length) override;
    // A UDP subscriber whose earlier datagram was refused fails its next
    // delivery, as a connected socket would report it. A connection that
    // cannot take the whole message is closed.
    bool deliver(const Peer &peer, const char *message, size_t length) override;
    void beginDeliveries() override;
    void forget(const Peer &peer) override;
    void closeConnection(uint32_t fd) override;
    void holdAnswers() override;
    void flushAnswers(std::vector<Peer> &unsent) override;
    // The server transport that answers go through; set before serving.
    void attach(ipcSock &sock) { sock_ = &sock; }
    // Refusals waiting to fail a delivery (bounded).
    size_t refusalsHeld() const { return refused_.size(); }

private:
    // Reads the refusals the kernel queued on the DCH port's socket (each
    // names the address a datagram was sent to) into refused_.
    void collectRefusals();
    // Asks for refusal reports on the DCH port's socket once it is open.
    void reportRefusals();
    // Sends the answers held so far, in order; the peers of those that did
    // not go join unsent_.
    void sendHeld();

    // An answer held until the flush: its bytes in heldBytes_.
    struct Held {
        Peer peer;
        size_t offset;
        size_t length;
    };
    bool holding_ = false;
    std::vector<Held> held_;
    std::vector<char> heldBytes_;
    std::vector<ipcSock::Outgoing> outgoing_;  // of sendHeld, kept for its capacity
    std::vector<Peer> unsent_;

    ipcSock *sock_ = nullptr;
    bool reporting_ = false;
    // A datagram went to a subscriber since the error queue was last read.
    bool deliveredSinceCollect_ = false;
    // Refused sends by destination (address, port), not yet charged to a
    // subscriber.
    std::map<std::pair<uint32_t, uint16_t>, int> refused_;
    std::vector<sockaddr_in> offenders_;  // of one collect, kept for its capacity
    std::chrono::steady_clock::time_point lastCollected_{};
};

class Worker {
public:
    // The scheduler slice the worker's thread asks for (ns).
    static constexpr uint64_t kSliceNs = 5'000'000;
    // How long, at the stop, the status reports that still wait may take.
    static constexpr std::chrono::seconds kStopReportsTime{5};

    Worker(ipcSock &sock, Dch &dch) : sock_(sock), dch_(dch) {}

    // Serves the queue until the stop text comes. Prints the ready line when
    // the loop reports the port open. When the queue keeps failing it stops
    // too, marks itself failed and sends the process SIGTERM.
    void run();
    // The receive buffer (bytes) set on the UDP port once it is open, before
    // the ready line; set before run().
    void setReceiveBuffer(long bytes) { receiveBuffer_ = bytes; }
    // Where the snapshots asked for by the metrics server go (kSnapshotText);
    // without one that text is ignored. Set before run().
    void setMetricsBoard(MetricsBoard *board) { board_ = board; }
    bool failed() const { return failed_.load(); }
    // Queues the stop text (from another thread).
    void stop();
    // The DCH's UDP socket once the port is open, else -1.
    int udpSocket() const { return udpSocket_.load(); }
    // Datagrams the kernel dropped at the DCH port for want of buffer room.
    uint64_t kernelDrops() const;

private:
    // Serves one entry of the queue: length bytes received, in a buffer of
    // capacity bytes that is zero past them. False for the stop text.
    bool serve(const char *buffer, int32_t length, int32_t capacity, const char *address,
               const char *name, uint32_t fd);
    // Sets the receive buffer on the UDP port fd and traces what the kernel
    // gave.
    void applyReceiveBuffer(int fd) const;

    ipcSock &sock_;
    Dch &dch_;
    long receiveBuffer_ = kDefaultReceiveBuffer;
    MetricsBoard *board_ = nullptr;
    std::atomic<int> udpSocket_{-1};
    std::atomic<bool> failed_{false};
};

}  // namespace zevd::dch

#endif  // ZEVD_DCH_ZEVDCHD_SERVER_H
