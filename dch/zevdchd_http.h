// The metrics page over HTTP (zevdchd --metrics ADDR:PORT). The HTTP server
// is libmicrohttpd's, on a thread of its own; it never touches the Dch. A
// scrape asks the worker for a snapshot through the receive queue (a control
// text, like the stop text), waits for the worker to publish it on the
// MetricsBoard, and renders the page from that copy on the HTTP thread. The
// worker's share of a scrape is the copy and a pointer swap.
#ifndef ZEVD_DCH_ZEVDCHD_HTTP_H
#define ZEVD_DCH_ZEVDCHD_HTTP_H

#include <netinet/in.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "zevdchd_metrics.h"

struct MHD_Daemon;

namespace zevd::dch {

// The text a scrape queues to ask the worker for a snapshot. Like the stop
// text it carries a blank sender name, which no received message has.
inline constexpr char kSnapshotText[] = "ZEVDCHD-METRICS";

// The port used when --metrics names none is not guessed: ADDR:PORT or PORT.
// The default address, when only a port is given, is the loopback address.
inline constexpr char kMetricsDefaultHost[] = "127.0.0.1";

// Limits of the HTTP server: connections at once (beyond them a connection is
// closed as soon as it is accepted), seconds a connection may stay idle, the
// bytes of one request's head (a longer request line or header is answered
// by the server itself, 414 or 431), and how long a scrape waits for the
// worker's snapshot before it is answered 503.
inline constexpr unsigned kMetricsConnectionLimit = 1024;
inline constexpr unsigned kMetricsIdleSeconds = 10;
inline constexpr size_t kMetricsRequestBytes = 32 * 1024;
inline constexpr std::chrono::milliseconds kSnapshotWait{5000};

// Reads --metrics' value: "ADDR:PORT" (ADDR a dotted IPv4 address or a host
// name that resolves to one) or "PORT" (on the loopback address). PORT is 0
// to 65535; 0 lets the kernel choose. False with why when it is not one.
bool parseMetricsAddress(const std::string &text, sockaddr_in *address, std::string *why);

// Where the worker publishes snapshots and the HTTP thread takes them.
class MetricsBoard {
public:
    // ask queues the request for a snapshot; it is called at most once
    // until the worker publishes.
    explicit MetricsBoard(std::function<void()> ask) : ask_(std::move(ask)) {}

    // HTTP thread: a snapshot taken after this call began, or nullptr when
    // none came within limit or the board is closed.
    std::shared_ptr<const MetricsSnapshot> fresh(std::chrono::milliseconds limit);
    // Worker: hands over a snapshot taken just now.
    void publish(MetricsSnapshot snapshot);
    // Ends every wait and every later one at once (the worker has stopped).
    void close();
    // Snapshots published so far.
    uint64_t published() const;

private:
    std::function<void()> ask_;
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    bool asked_ = false;  // a request is queued and not yet answered
    bool closed_ = false;
    uint64_t published_ = 0;
    std::shared_ptr<const MetricsSnapshot> latest_;
};

// The HTTP server. GET (and HEAD) /metrics answer the page; any other path
// is 404, any other method on /metrics 405.
class MetricsServer {
public:
    explicit MetricsServer(MetricsBoard &board) : board_(board) {}
    ~MetricsServer();
    MetricsServer(const MetricsServer &) = delete;
    MetricsServer &operator=(const MetricsServer &) = delete;

    // Listens on address; false with why (the errno text) when it cannot.
    bool start(const sockaddr_in &address, std::string *why);
    // The port listened on (the kernel's choice when 0 was asked for).
    uint16_t port() const { return port_; }
    // Closes the listener and every connection; waits for the HTTP thread.
    void stop();

    MetricsBoard &board() { return board_; }

private:
    MetricsBoard &board_;
    MHD_Daemon *daemon_ = nullptr;
    uint16_t port_ = 0;
};

}  // namespace zevd::dch

#endif  // ZEVD_DCH_ZEVDCHD_HTTP_H
