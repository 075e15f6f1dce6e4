#include "zevdchd_http.h"

#include <arpa/inet.h>
#include <microhttpd.h>
#include <netdb.h>
#include <sys/socket.h>

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

MHD_Result queuePage(MHD_Connection *connection, std::string page) {
    auto *body = new std::string(std::move(page));
    MHD_Response *response = MHD_create_response_from_buffer_with_free_callback_cls(
        body->size(), body->data(), [](void *owned) { delete static_cast<std::string *>(owned); },
        body);
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
// answered on the next call, once any body has been read and set aside, so
// that the connection can be kept for the next scrape; other methods are
// answered at once, and their connection closed.
MHD_Result onRequest(void *context, MHD_Connection *connection, const char *url, const char *method,
                     const char * /*version*/, const char * /*upload*/, size_t *uploadSize,
                     void **requestState) {
    ZEVD_TRACE_FUNCTION("MetricsServer::onRequest");
    static int headRead;  // the request state of a GET or HEAD whose head has been read
    bool readable =
        strcmp(method, MHD_HTTP_METHOD_GET) == 0 || strcmp(method, MHD_HTTP_METHOD_HEAD) == 0;
    if (readable && *requestState == nullptr) {
        *requestState = &headRead;
        return trc.exit(MHD_YES);
    }
    if (readable && *uploadSize != 0) {
        *uploadSize = 0;  // a body on a GET means nothing here
        return trc.exit(MHD_YES);
    }
    if (strcmp(url, kPagePath) != 0)
        return trc.exit(queueText(connection, MHD_HTTP_NOT_FOUND,
                                  "Not found: this server has only /metrics.\n"));
    if (!readable)
        return trc.exit(queueText(connection, MHD_HTTP_METHOD_NOT_ALLOWED,
                                  "Method not allowed: /metrics takes GET.\n", "GET, HEAD"));
    auto *board = static_cast<MetricsBoard *>(context);
    std::shared_ptr<const MetricsSnapshot> snapshot = board->fresh(kSnapshotWait);
    if (snapshot == nullptr) {
        ZEVD_TRACE(trc, TRACE_ERROR,
                   "Error: no metrics snapshot from the worker within %lld ms; answered 503\n",
                   static_cast<long long>(kSnapshotWait.count()));
        return trc.exit(queueText(connection, MHD_HTTP_SERVICE_UNAVAILABLE,
                                  "The DCH did not publish its metrics in time.\n"));
    }
    std::string page = renderMetrics(*snapshot);
    ZEVD_TRACE(trc, TRACE_DETAIL, "metrics page of %zu bytes\n", page.size());
    return trc.exit(queuePage(connection, std::move(page)));
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
    if (getaddrinfo(host.c_str(), nullptr, &hints, &found) != 0 || found == nullptr) {
        *why = "'" + host + "' is not an IPv4 address or a host name with one";
        return false;
    }
    address->sin_addr = reinterpret_cast<const sockaddr_in *>(found->ai_addr)->sin_addr;
    freeaddrinfo(found);
    return true;
}

std::shared_ptr<const MetricsSnapshot> MetricsBoard::fresh(std::chrono::milliseconds limit) {
    std::unique_lock<std::mutex> lock(mutex_);
    // Any snapshot published from now on was taken after this call began:
    // the worker takes it when it reaches the request, and a request that is
    // already queued is reached no sooner than the ones answered before.
    uint64_t wanted = published_ + 1;
    if (!asked_ && !closed_) {
        asked_ = true;
        lock.unlock();
        ask_();  // may wait while the receive queue is full; never holds the lock
        lock.lock();
    }
    if (!changed_.wait_for(lock, limit, [&] { return closed_ || published_ >= wanted; }))
        return nullptr;
    return closed_ ? nullptr : latest_;
}

void MetricsBoard::publish(MetricsSnapshot snapshot) {
    auto shared = std::make_shared<const MetricsSnapshot>(std::move(snapshot));
    {
        std::lock_guard<std::mutex> lock(mutex_);
        latest_ = std::move(shared);
        ++published_;
        asked_ = false;
    }
    changed_.notify_all();
}

void MetricsBoard::close() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        closed_ = true;
    }
    changed_.notify_all();
}

uint64_t MetricsBoard::published() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return published_;
}

MetricsServer::~MetricsServer() {
    stop();
}

bool MetricsServer::start(const sockaddr_in &address, std::string *why) {
    ZEVD_TRACE_FUNCTION("MetricsServer::start");
    // One polling thread (epoll), which reads requests a piece at a time as
    // they come, so a slow client holds nothing but its connection.
    errno = 0;
    daemon_ = MHD_start_daemon(
        MHD_USE_INTERNAL_POLLING_THREAD | MHD_USE_EPOLL | MHD_USE_ERROR_LOG, 0, nullptr, nullptr,
        &onRequest, &board_, MHD_OPTION_SOCK_ADDR, &address, MHD_OPTION_CONNECTION_LIMIT,
        kMetricsConnectionLimit, MHD_OPTION_CONNECTION_TIMEOUT, kMetricsIdleSeconds,
        MHD_OPTION_CONNECTION_MEMORY_LIMIT, kMetricsRequestBytes, MHD_OPTION_EXTERNAL_LOGGER,
        &logServerMessage, nullptr, MHD_OPTION_END);
    if (daemon_ == nullptr) {
        *why = errno != 0 ? strerror(errno) : "the HTTP server did not start";
        return trc.exit(false);
    }
    const MHD_DaemonInfo *info = MHD_get_daemon_info(daemon_, MHD_DAEMON_INFO_BIND_PORT);
    port_ = info != nullptr ? info->port : ntohs(address.sin_port);
    return trc.exit(true);
}

void MetricsServer::stop() {
    if (daemon_ == nullptr) return;
    board_.close();  // a scrape waiting for the worker ends now
    MHD_stop_daemon(daemon_);
    daemon_ = nullptr;
}

}  // namespace zevd::dch
