#include "zevdchd_http.h"

#include <arpa/inet.h>
#include <microhttpd.h>
#include <netdb.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "common/trace.h"

namespace zevd::dch {

ZEVD_TRACE_UNIT(dch::unitZevdchd);

namespace {

constexpr char kPagePath[] = "/metrics";
constexpr char kPageType[] = "text/plain; version=0.0.4; charset=utf-8";

// libmicrohttpd's own messages (a refused connection, a request head too
// long, a client that went away). At the detail level: a peer that sends
// rubbish must not be able to fill the trace.
void logServerMessage(void * /*context*/, const char *format, va_list arguments) {
    ZEVD_TRACE_LEVEL("zevdchd::http");
    char text[512];
    vsnprintf(text, sizeof text, format, arguments);
    size_t length = strlen(text);
    while (length > 0 && (text[length - 1] == '\n' || text[length - 1] == '\r'))
        text[--length] = '\0';
    ZEVD_TRACE(trc, TRACE_DETAIL, "metrics server: %s\n", text);
}

MHD_Result queueText(MHD_Connection *connection, unsigned status, const char *text,
                     const char *allow = nullptr) {
    MHD_Response *response = MHD_create_response_from_buffer(strlen(text), const_cast<char *>(text),
                                                             MHD_RESPMEM_PERSISTENT);
    if (response == nullptr) return MHD_NO;
    MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, "text/plain; charset=utf-8");
    if (allow != nullptr) MHD_add_response_header(response, MHD_HTTP_HEADER_ALLOW, allow);
    MHD_Result queued = MHD_queue_response(connection, status, response);
    MHD_destroy_response(response);
    return queued;
}

MHD_Result queuePage(MHD_Connection *connection, std::shared_ptr<const std::string> page) {
    using Page = std::shared_ptr<const std::string>;
    auto *body = new Page(std::move(page));
    MHD_Response *response = MHD_create_response_from_buffer_with_free_callback_cls(
        (*body)->size(), const_cast<char *>((*body)->data()),
        [](void *owned) { delete static_cast<Page *>(owned); }, body);
    if (response == nullptr) {
        delete body;
        return MHD_NO;
    }
    MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, kPageType);
    MHD_Result queued = MHD_queue_response(connection, MHD_HTTP_OK, response);
    MHD_destroy_response(response);
    return queued;
}

// Every request comes here once its head has been read. GET and HEAD are
// answered on a later call, once any body has been read and set aside, so
// that the connection can be kept for the next scrape; other methods are
// answered at once, and their connection closed. A GET of the page waits,
// set aside, for a snapshot taken after it came.
MHD_Result onRequest(void *context, MHD_Connection *connection, const char *url, const char *method,
                     const char * /*version*/, const char * /*upload*/, size_t *uploadSize,
                     void **requestState) noexcept {
    ZEVD_TRACE_FUNCTION("MetricsServer::onRequest");
    auto *server = static_cast<MetricsServer *>(context);
    try {
        bool readable =
            strcmp(method, MHD_HTTP_METHOD_GET) == 0 || strcmp(method, MHD_HTTP_METHOD_HEAD) == 0;
        if (readable && *requestState == nullptr) {
            *requestState = new MetricsServer::Scrape();  // deleted when the request ends
            return trc.exit(MHD_YES);
        }
        if (readable && *uploadSize != 0) {
            *uploadSize = 0;  // a body on a GET means nothing here
            return trc.exit(MHD_YES);
        }
        server->requestWhole(connection);
        if (strcmp(url, kPagePath) != 0)
            return trc.exit(queueText(connection, MHD_HTTP_NOT_FOUND,
                                      "Not found: this server has only /metrics.\n"));
        if (!readable)
            return trc.exit(queueText(connection, MHD_HTTP_METHOD_NOT_ALLOWED,
                                      "Method not allowed: /metrics takes GET.\n", "GET, HEAD"));
        auto *scrape = static_cast<MetricsServer::Scrape *>(*requestState);
        MetricsBoard &board = server->board();
        if (scrape->wanted == 0) {
            scrape->wanted = board.want();
            scrape->deadline = MetricsBoard::Clock::now() + board.wait();
        }
        std::shared_ptr<const MetricsSnapshot> snapshot = board.take(scrape->wanted);
        if (snapshot != nullptr) return trc.exit(queuePage(connection, server->pageOf(snapshot)));
        bool closing = board.closed();
        if (!closing && MetricsBoard::Clock::now() < scrape->deadline &&
            server->park(connection, scrape))
            return trc.exit(MHD_YES);
        if (!closing)
            ZEVD_TRACE(trc, TRACE_ERROR,
                       "Error: no metrics snapshot from the worker within %lld ms; answered 503\n",
                       static_cast<long long>(board.wait().count()));
        return trc.exit(queueText(connection, MHD_HTTP_SERVICE_UNAVAILABLE,
                                  "The DCH did not publish its metrics in time.\n"));
    } catch (...) {
        // Out of memory, most likely: the connection is dropped, the daemon
        // goes on.
        ZEVD_TRACE(trc, TRACE_ERROR, "Error: the metrics request could not be answered\n");
        return trc.exit(MHD_NO);
    }
}

void onCompleted(void *context, MHD_Connection *connection, void **requestState,
                 MHD_RequestTerminationCode /*why*/) noexcept {
    delete static_cast<MetricsServer::Scrape *>(*requestState);
    *requestState = nullptr;
    static_cast<MetricsServer *>(context)->answered(connection);
}

void onConnection(void *context, MHD_Connection *connection, void **socketContext,
                  MHD_ConnectionNotificationCode what) noexcept {
    auto *server = static_cast<MetricsServer *>(context);
    try {
        if (what == MHD_CONNECTION_NOTIFY_STARTED)
            server->opened(connection, socketContext);
        else if (what == MHD_CONNECTION_NOTIFY_CLOSED)
            server->closed(*socketContext);
    } catch (...) {
        // Out of memory: the connection goes untracked, and is closed when idle.
    }
}

bool allDigitsAndDots(const std::string &text) {
    for (char c : text)
        if ((c < '0' || c > '9') && c != '.') return false;
    return true;
}

}  // namespace

bool parseMetricsAddress(const std::string &text, sockaddr_in *address, std::string *why) {
    size_t colon = text.rfind(':');
    std::string host = colon == std::string::npos ? kMetricsDefaultHost : text.substr(0, colon);
    std::string port = colon == std::string::npos ? text : text.substr(colon + 1);
    char *end = nullptr;
    errno = 0;
    long number = strtol(port.c_str(), &end, 10);
    if (port.empty() || port[0] < '0' || port[0] > '9' || *end != '\0' || errno != 0 ||
        number > 65535) {
        *why = "the port '" + port + "' is not 0 to 65535";
        return false;
    }
    if (host.empty()) {
        *why = "no address before ':'";
        return false;
    }
    *address = sockaddr_in{};
    address->sin_family = AF_INET;
    address->sin_port = htons(static_cast<uint16_t>(number));
    if (inet_pton(AF_INET, host.c_str(), &address->sin_addr) == 1) return true;
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo *found = nullptr;
    if (allDigitsAndDots(host) || getaddrinfo(host.c_str(), nullptr, &hints, &found) != 0 ||
        found == nullptr) {
        *why = "'" + host + "' is not an IPv4 address or a host name with one";
        return false;
    }
    address->sin_addr = reinterpret_cast<const sockaddr_in *>(found->ai_addr)->sin_addr;
    freeaddrinfo(found);
    return true;
}

uint64_t MetricsBoard::want() {
    std::lock_guard<std::mutex> lock(mutex_);
    // A request already out is answered no sooner than the requests answered
    // before this call: the worker takes its copy in turn, and a copy taken
    // before them would have been published before them.
    uint64_t wanted = published_ + 1;
    if (wanted_ < wanted) {
        wanted_ = wanted;
        changed_.notify_all();
    }
    return wanted;
}

std::shared_ptr<const MetricsSnapshot> MetricsBoard::take(uint64_t wanted) const {
    std::lock_guard<std::mutex> lock(mutex_);
    return !closed_ && published_ >= wanted ? latest_ : nullptr;
}

void MetricsBoard::publish(MetricsSnapshot snapshot, std::chrono::nanoseconds took) {
    auto shared = std::make_shared<const MetricsSnapshot>(std::move(snapshot));
    {
        std::lock_guard<std::mutex> lock(mutex_);
        latest_ = std::move(shared);
        ++published_;
        asked_ = false;
        publishedAt_ = Clock::now();
        took_ = took;
    }
    changed_.notify_all();
}

MetricsBoard::Clock::duration MetricsBoard::gap() const {
    Clock::duration byCost = took_ * kSnapshotGapFactor;
    return byCost > kMinSnapshotGap ? byCost : Clock::duration(kMinSnapshotGap);
}

void MetricsBoard::runAsker(const std::function<void()> &changed, std::chrono::milliseconds tick) {
    std::unique_lock<std::mutex> lock(mutex_);
    uint64_t seen = published_;
    while (!closed_) {
        Clock::time_point now = Clock::now();
        Clock::time_point earliest = publishedAt_ + gap();
        bool needed = wanted_ > published_;
        bool unanswered = asked_ && now - askedAt_ >= wait_;  // lost, or very late
        if (needed && (!asked_ || unanswered) && now >= earliest) {
            asked_ = true;
            askedAt_ = now;
            lock.unlock();
            ask_();  // may wait for room on the receive queue, never with the lock
            lock.lock();
            continue;
        }
        Clock::time_point until = now + tick;
        if (needed && !asked_ && earliest < until) until = earliest;
        // Woken by a publication, by a want when none was pending (one that
        // was pending waits for until: its gap or the tick), or by close().
        changed_.wait_until(lock, until, [&] {
            return closed_ || published_ != seen || (!needed && wanted_ > published_);
        });
        seen = published_;
        lock.unlock();
        changed();  // after a publication, a new want, or a tick: resumes what is due
        lock.lock();
    }
    lock.unlock();
    changed();
}

void MetricsBoard::close() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        closed_ = true;
    }
    changed_.notify_all();
}

bool MetricsBoard::closed() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return closed_;
}

uint64_t MetricsBoard::published() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return published_;
}

std::shared_ptr<const MetricsSnapshot> MetricsBoard::fresh(std::chrono::milliseconds limit) {
    uint64_t wanted = want();
    std::unique_lock<std::mutex> lock(mutex_);
    if (!changed_.wait_for(lock, limit, [&] { return closed_ || published_ >= wanted; }))
        return nullptr;
    return closed_ ? nullptr : latest_;
}

MetricsServer::~MetricsServer() {
    stop();
}

bool MetricsServer::start(const sockaddr_in &address, std::string *why) {
    ZEVD_TRACE_FUNCTION("MetricsServer::start");
    // The listener is made here, so that its error is the system's own.
    int listener = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    int on = 1;
    if (listener < 0 || setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
        bind(listener, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 ||
        listen(listener, SOMAXCONN) != 0) {
        *why = strerror(errno);
        if (listener >= 0) close(listener);
        return trc.exit(false);
    }
    sockaddr_in bound{};
    socklen_t length = sizeof bound;
    getsockname(listener, reinterpret_cast<sockaddr *>(&bound), &length);
    port_ = ntohs(bound.sin_port);
    // One polling thread, which reads requests a piece at a time as they
    // come, so a slow client holds nothing but its connection; a scrape
    // that waits for the worker is suspended, not waited for. poll(), not
    // epoll: with epoll, connections taken from the backlog once the limit
    // had been reached were not seen to close (libmicrohttpd 0.9.75), and
    // poll() has no bound on descriptor numbers either.
    daemon_ = MHD_start_daemon(
        MHD_USE_INTERNAL_POLLING_THREAD | MHD_USE_POLL | MHD_ALLOW_SUSPEND_RESUME |
            MHD_USE_ERROR_LOG,
        0, nullptr, nullptr, &onRequest, this, MHD_OPTION_EXTERNAL_LOGGER, &logServerMessage,
        nullptr, MHD_OPTION_LISTEN_SOCKET, listener, MHD_OPTION_NOTIFY_COMPLETED, &onCompleted,
        this, MHD_OPTION_NOTIFY_CONNECTION, &onConnection, this, MHD_OPTION_CONNECTION_LIMIT,
        kMetricsConnectionLimit, MHD_OPTION_CONNECTION_TIMEOUT, kMetricsIdleSeconds,
        MHD_OPTION_CONNECTION_MEMORY_LIMIT, kMetricsRequestBytes, MHD_OPTION_END);
    if (daemon_ == nullptr) {
        *why = "the HTTP server did not start";
        close(listener);
        return trc.exit(false);
    }
    asker_ = std::thread([this] {
        board_.runAsker(
            [this] {
                resumeReady();
                cutLateRequests();
            },
            kAskerTick);
    });
    return trc.exit(true);
}

bool MetricsServer::park(MHD_Connection *connection, const Scrape *scrape) {
    std::lock_guard<std::mutex> lock(parkedMutex_);
    if (stopping_) return false;
    // Suspended first, listed second: only a suspended connection may be
    // resumed, and the asker resumes only what is listed.
    MHD_suspend_connection(connection);
    parked_.emplace_back(connection, scrape);
    return true;
}

size_t MetricsServer::waiting() {
    std::lock_guard<std::mutex> lock(parkedMutex_);
    return parked_.size();
}

void MetricsServer::resumeReady() {
    std::lock_guard<std::mutex> lock(parkedMutex_);
    MetricsBoard::Clock::time_point now = MetricsBoard::Clock::now();
    bool all = stopping_ || board_.closed();
    for (size_t i = 0; i < parked_.size();) {
        const Scrape *scrape = parked_[i].second;
        if (all || now >= scrape->deadline || board_.take(scrape->wanted) != nullptr) {
            MHD_resume_connection(parked_[i].first);
            parked_[i] = parked_.back();
            parked_.pop_back();
        } else {
            ++i;
        }
    }
}

std::shared_ptr<const std::string> MetricsServer::pageOf(
    const std::shared_ptr<const MetricsSnapshot> &snapshot) {
    ZEVD_TRACE_FUNCTION("MetricsServer::pageOf");
    std::lock_guard<std::mutex> lock(pageMutex_);
    if (snapshot != renderedFrom_) {
        // The page before goes once the last connection that sends it has.
        rendered_ = std::make_shared<const std::string>(renderMetrics(*snapshot));
        renderedFrom_ = snapshot;
        ZEVD_TRACE(trc, TRACE_DETAIL, "metrics page of %zu bytes rendered\n", rendered_->size());
    }
    trc.exit();
    return rendered_;
}

void MetricsServer::opened(MHD_Connection *connection, void **context) {
    const MHD_ConnectionInfo *info =
        MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD);
    std::lock_guard<std::mutex> lock(trackedMutex_);
    Tracked &added = tracked_.emplace_back();
    added.fd = info != nullptr ? info->connect_fd : -1;
    added.since = Clock::now();
    *context = &added;
    // At the limit the server takes no more connections: the oldest that
    // has not sent a whole request makes room for the next.
    size_t open = 0;
    Tracked *oldest = nullptr;
    for (Tracked &t : tracked_) {
        if (t.cut) continue;
        ++open;
        if (!t.whole && (oldest == nullptr || t.since < oldest->since)) oldest = &t;
    }
    if (open >= kMetricsConnectionLimit && oldest != nullptr)
        cut(*oldest, "closed to make room: the oldest without a whole request");
}

void MetricsServer::closed(void *context) {
    std::lock_guard<std::mutex> lock(trackedMutex_);
    for (auto it = tracked_.begin(); it != tracked_.end(); ++it) {
        if (&*it == context) {
            tracked_.erase(it);
            return;
        }
    }
}

void MetricsServer::requestWhole(MHD_Connection *connection) {
    const MHD_ConnectionInfo *info =
        MHD_get_connection_info(connection, MHD_CONNECTION_INFO_SOCKET_CONTEXT);
    if (info == nullptr || info->socket_context == nullptr) return;
    std::lock_guard<std::mutex> lock(trackedMutex_);
    static_cast<Tracked *>(info->socket_context)->whole = true;
}

void MetricsServer::answered(MHD_Connection *connection) {
    const MHD_ConnectionInfo *info =
        MHD_get_connection_info(connection, MHD_CONNECTION_INFO_SOCKET_CONTEXT);
    if (info == nullptr || info->socket_context == nullptr) return;
    std::lock_guard<std::mutex> lock(trackedMutex_);
    auto *tracked = static_cast<Tracked *>(info->socket_context);
    tracked->whole = false;
    tracked->since = Clock::now();
}

void MetricsServer::cut(Tracked &tracked, const char *why) {
    ZEVD_TRACE_LEVEL("zevdchd::http");
    tracked.cut = true;
    if (tracked.fd < 0) return;
    shutdown(tracked.fd, SHUT_RDWR);
    // At the detail level, like the server's own messages about bad clients.
    ZEVD_TRACE(trc, TRACE_DETAIL, "metrics connection fd %d %s\n", tracked.fd, why);
}

void MetricsServer::cutLateRequests() {
    Clock::time_point late = Clock::now() - requestTime_;
    std::lock_guard<std::mutex> lock(trackedMutex_);
    for (Tracked &t : tracked_)
        if (!t.whole && !t.cut && t.since <= late) cut(t, "closed: no whole request in time");
}

void MetricsServer::stop() {
    if (daemon_ == nullptr) return;
    {
        std::lock_guard<std::mutex> lock(parkedMutex_);
        stopping_ = true;  // nothing is set aside from now on
    }
    board_.close();
    if (asker_.joinable()) asker_.join();  // its last pass resumes every scrape set aside
    resumeReady();
    // Every suspended connection has been resumed: stopping with one set
    // aside is not allowed.
    MHD_stop_daemon(daemon_);
    daemon_ = nullptr;
}

}  // namespace zevd::dch
