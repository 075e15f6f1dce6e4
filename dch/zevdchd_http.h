// The metrics page over HTTP (zevdchd --metrics ADDR:PORT). The HTTP server
// is libmicrohttpd's, on a thread of its own; it never touches the Dch.
//
// A scrape asks for a snapshot on the MetricsBoard and is set aside
// (suspended) until the worker publishes one; it never blocks the HTTP
// thread. The board's asker thread puts each request on the DCH's receive
// queue as a control text, like the stop text; the worker takes it in turn
// with the requests, copies what the page shows and publishes the copy; the
// asker then resumes the scrapes that waited for it, and the HTTP thread
// renders the page from that copy. The worker's share of a scrape is the copy.
#ifndef ZEVD_DCH_ZEVDCHD_HTTP_H
#define ZEVD_DCH_ZEVDCHD_HTTP_H

#include <netinet/in.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "zevdchd_metrics.h"

struct MHD_Daemon;
struct MHD_Connection;

namespace zevd::dch {

// The text the asker queues to ask the worker for a snapshot. Like the stop
// text it carries a blank sender name, which no received message has.
inline constexpr char kSnapshotText[] = "ZEVDCHD-METRICS";

// The address used when --metrics gives only a port.
inline constexpr char kMetricsDefaultHost[] = "127.0.0.1";

// Limits of the HTTP server: connections at once (scrapers are few; the
// bound keeps the daemon's descriptors well below those its receive loop
// can watch, so the DCH's own TCP clients are never crowded out), seconds a
// connection may stay idle, and the bytes of the memory of one connection,
// which holds its request head (a longer request line or header is
// answered by the server itself, 414 or 431).
inline constexpr unsigned kMetricsConnectionLimit = 256;
inline constexpr unsigned kMetricsIdleSeconds = 10;
inline constexpr size_t kMetricsRequestBytes = 32 * 1024;
// How long a connection may take to send a whole request, from its accept
// or from the end of its last answer.
inline constexpr std::chrono::seconds kMetricsRequestTime{5};
// How long a scrape waits for the worker's snapshot before it is answered
// 503, and how often the asker looks at the scrapes that wait.
inline constexpr std::chrono::milliseconds kSnapshotWait{5000};
inline constexpr std::chrono::milliseconds kAskerTick{100};
// The worker copies at most once per gap after its last copy: ten times
// what that copy took, and at least kMinSnapshotGap. Scrapes that come
// faster share copies, so that at most about a tenth of the worker's time
// goes to them, however often a client asks.
inline constexpr std::chrono::milliseconds kMinSnapshotGap{10};
inline constexpr int kSnapshotGapFactor = 10;

// Reads --metrics' value: "ADDR:PORT" (ADDR a dotted IPv4 address, or a
// host name that resolves to one; a name of digits and dots only is taken
// as an address and never looked up) or "PORT" (on the loopback address).
// PORT is 0 to 65535; 0 lets the kernel choose. False with why otherwise.
bool parseMetricsAddress(const std::string &text, sockaddr_in *address, std::string *why);

// Where scrapes ask for snapshots and the worker publishes them.
class MetricsBoard {
public:
    using Clock = std::chrono::steady_clock;

    // ask queues a request for a snapshot on the receive queue (it may wait
    // while the queue is full); only the asker thread calls it.
    // wait: how long a scrape waits for its snapshot, and a request for
    // one goes unanswered before it is made again.
    explicit MetricsBoard(std::function<void()> ask, std::chrono::milliseconds wait = kSnapshotWait)
        : ask_(std::move(ask)), wait_(wait) {}

    // Never blocks: the number of the snapshot that a scrape beginning now
    // is served from. Every request the worker answered before this call is
    // in that snapshot.
    uint64_t want();
    // That snapshot (or the latest, which is as new) once it is published;
    // nullptr before, and once the board is closed.
    std::shared_ptr<const MetricsSnapshot> take(uint64_t wanted) const;
    // The worker: hands over a copy it has just taken, which took took.
    void publish(MetricsSnapshot snapshot,
                 std::chrono::nanoseconds took = std::chrono::nanoseconds(0));

    // The asker thread's loop, until close(): puts each wanted request out
    // once the gap since the last copy has passed, again when one has gone
    // unanswered for wait(), and calls changed() after each
    // publication, at least every tick, and once more after close().
    void runAsker(const std::function<void()> &changed, std::chrono::milliseconds tick);
    // Ends the asker's loop; take() gives nullptr from now on.
    void close();
    bool closed() const;
    uint64_t published() const;
    std::chrono::milliseconds wait() const { return wait_; }

    // want() and a wait of at most limit for its snapshot (an asker must
    // run); nullptr when none came or the board was closed.
    std::shared_ptr<const MetricsSnapshot> fresh(std::chrono::milliseconds limit);

private:
    Clock::duration gap() const;

    std::function<void()> ask_;
    std::chrono::milliseconds wait_;
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    uint64_t wanted_ = 0;     // the highest snapshot number wanted
    uint64_t published_ = 0;  // snapshots published so far
    bool asked_ = false;      // a request is out and not yet answered
    bool closed_ = false;
    Clock::time_point askedAt_{};
    Clock::time_point publishedAt_{};
    std::chrono::nanoseconds took_{0};
    std::shared_ptr<const MetricsSnapshot> latest_;
};

// The HTTP server. GET (and HEAD) /metrics answer the page; any other path
// is 404, any other method on /metrics 405. A connection that has not sent
// a whole request within requestTime of its accept (or of the end of its
// last answer: an idle kept connection counts as a late one) is closed,
// whatever it trickles; at the connection limit the oldest connection
// without a whole request is closed to make room, so slow clients, however
// many come and go, cannot keep a scrape out.
class MetricsServer {
public:
    explicit MetricsServer(MetricsBoard &board,
                           std::chrono::milliseconds requestTime = kMetricsRequestTime)
        : board_(board), requestTime_(requestTime) {}
    ~MetricsServer();
    MetricsServer(const MetricsServer &) = delete;
    MetricsServer &operator=(const MetricsServer &) = delete;

    // Listens on address and starts the HTTP and asker threads; false with
    // why (the system's text for the error) when it cannot listen.
    bool start(const sockaddr_in &address, std::string *why);
    // The port listened on (the kernel's choice when 0 was asked for).
    uint16_t port() const { return port_; }
    // Answers the scrapes that wait (503), closes the board, the listener
    // and every connection, and joins both threads. Called while the worker
    // still runs: the asker may be waiting for room on its queue.
    void stop();

    // For the request handler: sets the scrape's connection aside until
    // resumeReady() finds its snapshot published or its time up. False
    // (nothing set aside) once stop() has begun.
    struct Scrape {
        uint64_t wanted = 0;
        MetricsBoard::Clock::time_point deadline{};
    };
    bool park(MHD_Connection *connection, const Scrape *scrape);
    // The scrapes set aside now, waiting for their snapshot.
    size_t waiting();
    MetricsBoard &board() { return board_; }

    // For the server's callbacks, on the HTTP thread: a connection was
    // accepted (context is its socket context) or closed; its request is
    // whole; its answer has been sent, and the next request's time begins.
    void opened(MHD_Connection *connection, void **context);
    void closed(void *context);
    void requestWhole(MHD_Connection *connection);
    void answered(MHD_Connection *connection);
    // The page of snapshot: rendered once and shared by every scrape served
    // from it, however many connections still send it.
    std::shared_ptr<const std::string> pageOf(
        const std::shared_ptr<const MetricsSnapshot> &snapshot);

private:
    using Clock = MetricsBoard::Clock;
    struct Tracked {
        int fd = -1;
        Clock::time_point since{};  // accepted, or its last answer sent
        bool whole = false;         // its request is whole
        bool cut = false;           // shut down, not yet closed by the server
    };
    // The asker's changed(): resumes the connections whose snapshot is in,
    // whose time is up, or all of them once stopping.
    void resumeReady();
    // Also the asker's: shuts down the connections whose request is late.
    void cutLateRequests();
    // Shuts tracked down: the server then reads its end and closes it, on
    // its own thread. Called with trackedMutex_ held, so the descriptor is
    // still the connection's (the server closes it only after its close
    // notification, which takes the mutex).
    void cut(Tracked &tracked, const char *why);

    MetricsBoard &board_;
    MHD_Daemon *daemon_ = nullptr;
    uint16_t port_ = 0;
    std::thread asker_;
    std::mutex parkedMutex_;
    std::vector<std::pair<MHD_Connection *, const Scrape *>> parked_;
    bool stopping_ = false;
    std::chrono::milliseconds requestTime_;
    std::mutex trackedMutex_;
    std::list<Tracked> tracked_;  // every open connection, in accept order
    std::mutex pageMutex_;
    std::shared_ptr<const MetricsSnapshot> renderedFrom_;
    std::shared_ptr<const std::string> rendered_;
};

}  // namespace zevd::dch

#endif  // ZEVD_DCH_ZEVDCHD_HTTP_H
