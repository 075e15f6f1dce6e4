// zevdchd --metrics end to end: the page fetched over HTTP from the daemon
// in a child process while this process provides rows through the library;
// the requests no scraper would send; and the board through which the worker
// hands its snapshots to the HTTP thread.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/resource.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "support/dch_daemon.h"
#include "support/http_client.h"
#include "support/metrics_page.h"
#include "support/reliability.h"
#include "support/trace_capture.h"
#include "support/wait_for.h"
#include "zevd610.h"
#include "zevdchd_http.h"

namespace {

using namespace zevd::test;
namespace dch = zevd::dch;
using std::chrono::milliseconds;
using std::chrono::seconds;
using zevd::FieldReader;
using zevd::MessageBuilder;
using zevd::messageLength;
using zevd::test::TraceCapture;

// One daemon with --metrics for the whole program, this process's library
// pointed at it.
struct MetricsDaemon {
    static DaemonProcess &daemon() { return DaemonEnvironment::daemon(); }
    static uint16_t port() { return daemon().metricsPort(); }
};

const auto *const kEnvironment = ::testing::AddGlobalTestEnvironment(new DaemonEnvironment(
    {}, [] { ASSERT_NE(MetricsDaemon::port(), 0); }, {"--metrics", "127.0.0.1:0"}));

// The page, fetched and checked against the format's rules.
CheckedPage scrape(std::string *text = nullptr) {
    HttpReply reply = httpGet(MetricsDaemon::port());
    EXPECT_EQ(reply.status, 200) << reply.head;
    EXPECT_EQ(reply.header("Content-Type"), "text/plain; version=0.0.4; charset=utf-8");
    CheckedPage checked = check(reply.body);
    EXPECT_TRUE(checked.errors.empty()) << ::testing::PrintToString(checked.errors) << "\n"
                                        << reply.body;
    if (text != nullptr) *text = reply.body;
    return checked;
}

Labels at(const std::string &source, long handle, Labels more = {}) {
    more.emplace_back("source", source);
    more.emplace_back("handle", std::to_string(handle));
    return more;
}

long registered(const std::string &text) {
    long status = -1;
    EXPECT_EQ(dp_register(&status, text.c_str()), 0) << text;
    return status;
}

long online(const char *appl, const char *group, const char *source) {
    long status = -1;
    long handle = -1;
    EXPECT_EQ(dp_online(&status, &handle, appl, group, source), 0);
    EXPECT_EQ(status, 0);
    return handle;
}

void addNumber(char **row, long *size, const char *name, int32_t value, long bytes, char type) {
    long status = -1;
    if (bytes == 2) {
        auto half = static_cast<int16_t>(value);
        dp_formatData(&status, row, size, name, &half, 2, type);
    } else {
        dp_formatData(&status, row, size, name, &value, 4, type);
    }
    EXPECT_EQ(status, 0) << name;
}

void addText(char **row, long *size, const char *name, const std::string &value, char type) {
    long status = -1;
    dp_formatData(&status, row, size, name, value.c_str(), static_cast<long>(value.size() + 1),
                  type);
    EXPECT_EQ(status, 0) << name;
}

long sent(long handle, char **row) {
    long status = -1;
    dp_data(&status, handle, 0, row);
    return status;
}

// dp_online, a row and dp_offline of the group "probe" of application
// "probe": true when every answer was status 0.
bool providerRoundTrip() {
    static const bool kRegistered = registered("APPL probe;GROUP probe;ATTR v A 4") == 0;
    long status = -1;
    long handle = -1;
    if (!kRegistered || dp_online(&status, &handle, "probe", "probe", "p") != 0 || status != 0)
        return false;
    char *row = nullptr;
    long size = 0;
    addNumber(&row, &size, "v", 1, 4, 'A');
    bool rowTaken = sent(handle, &row) == 0;
    return dp_offline(&status, handle) == 0 && status == 0 && rowTaken;
}

// The application of the end-to-end cases: one attribute of every type
// letter, names that need mapping, texts that need escaping.
const char kApplication[] =
    "APPL web-01.app Web;GROUP disk.io Disk;"
    "ATTR n-A A 4;ATTR half A 2;ATTR n-C C 4;ATTR n-G G 4;ATTR n-L L 4;ATTR n-N N 4;"
    "ATTR n-I16 I 2;ATTR n-S16 S 2;ATTR 5min A 4;"
    "ATTR t.D D 64;ATTR t.R R 64;ATTR t.T T 64;ATTR t.U U 64;ATTR t.Z Z 64;ATTR 9lives D 16";
const char kFamily[] = "zevd_web_01_app_disk_io_";
const std::string kQuoted = "say \"hi\" \\ to\nline two";

void sendEveryType(long handle) {
    char *row = nullptr;
    long size = 0;
    addNumber(&row, &size, "n-A", -7, 4, 'A');
    addNumber(&row, &size, "half", -2, 2, 'A');
    addNumber(&row, &size, "n-C", 2147483647, 4, 'C');
    addNumber(&row, &size, "n-G", -2147483647 - 1, 4, 'G');
    addNumber(&row, &size, "n-L", 12345, 4, 'L');
    addNumber(&row, &size, "n-N", -1, 4, 'N');
    addNumber(&row, &size, "n-I16", 32767, 2, 'I');
    addNumber(&row, &size, "n-S16", -32768, 2, 'S');
    addNumber(&row, &size, "5min", 5, 4, 'A');
    addText(&row, &size, "t.D", kQuoted, 'D');
    addText(&row, &size, "t.R", "r", 'R');
    addText(&row, &size, "t.T", "14:05:00", 'T');
    addText(&row, &size, "t.U", "gr\xc3\xbc\xc3\x9f", 'U');
    addText(&row, &size, "t.Z", "z", 'Z');
    addText(&row, &size, "9lives", "cat", 'D');
    EXPECT_EQ(sent(handle, &row), 0);
}

// ---------------------------------------------------------------------------
// The page over HTTP
// ---------------------------------------------------------------------------

TEST(DchMetricsHttpTest, RowsOfEveryTypeAreServedAndGoneAfterDpOffline) {
    ASSERT_EQ(registered(kApplication), 0);
    const char *source = "rack\"7\"\\b";
    long handle = online("web-01.app", "disk.io", source);
    sendEveryType(handle);

    std::string text;
    CheckedPage page = scrape(&text);
    const std::vector<std::pair<std::string, std::string>> numbers = {
        {"n_A", "-7"},          {"half", "-2"},      {"n_C", "2147483647"},
        {"n_G", "-2147483648"}, {"n_L", "12345"},    {"n_N", "-1"},
        {"n_I16", "32767"},     {"n_S16", "-32768"}, {"5min", "5"}};
    for (const auto &[name, value] : numbers) {
        std::string family = kFamily + name;
        EXPECT_EQ(page.value(key(family, at(source, handle))), value) << family << "\n" << text;
        EXPECT_EQ(page.types[family], "gauge") << family;
    }
    Labels info = at(source, handle,
                     {{"t_D", kQuoted},
                      {"t_R", "r"},
                      {"t_T", "14:05:00"},
                      {"t_U", "gr\xc3\xbc\xc3\x9f"},
                      {"t_Z", "z"},
                      {"_9lives", "cat"}});
    EXPECT_EQ(page.value(key(std::string(kFamily) + "info", info)), "1") << text;
    // The escapes as they stand on the page.
    EXPECT_NE(text.find("source=\"rack\\\"7\\\"\\\\b\""), std::string::npos) << text;
    EXPECT_NE(text.find("t_D=\"say \\\"hi\\\" \\\\ to\\nline two\""), std::string::npos) << text;
    EXPECT_EQ(page.value("zevd_dch_up"), "1");

    long status = -1;
    ASSERT_EQ(dp_offline(&status, handle), 0);
    ASSERT_EQ(status, 0);
    // The offline was answered, so the next snapshot is taken after it.
    CheckedPage after = scrape(&text);
    for (const auto &[k, v] : after.samples)
        EXPECT_EQ(k.find(kFamily), std::string::npos) << k << " outlived its handle";
    EXPECT_EQ(after.value("zevd_dch_providers_online"), "0") << text;
}

TEST(DchMetricsHttpTest, SeriesStopWithDpUnregister) {
    ASSERT_EQ(registered("APPL gone;GROUP g;ATTR x A 4"), 0);
    long handle = online("gone", "g", "s");
    char *row = nullptr;
    long size = 0;
    addNumber(&row, &size, "x", 42, 4, 'A');
    ASSERT_EQ(sent(handle, &row), 0);
    EXPECT_EQ(scrape().value(key("zevd_gone_g_x", at("s", handle))), "42");
    long status = -1;
    ASSERT_EQ(dp_unregister(&status, "gone"), 0);
    ASSERT_EQ(status, 0);
    EXPECT_TRUE(scrape().keysOf("zevd_gone_g_x").empty());
}

TEST(DchMetricsHttpTest, CountersFollowTheRequests) {
    CheckedPage before = scrape();
    const std::string online = key("zevd_dch_requests_total", {{"request", "dp_online"}});
    ASSERT_TRUE(before.has(online));
    for (int i = 0; i < 3; ++i) ASSERT_TRUE(providerRoundTrip());
    CheckedPage after = scrape();
    EXPECT_EQ(std::stoll(after.value(online)), std::stoll(before.value(online)) + 3);
    EXPECT_EQ(after.types["zevd_dch_requests_total"], "counter");
    EXPECT_TRUE(after.has(key("zevd_dch_drops_total", {{"reason", "kernel_receive_buffer"}})));
    EXPECT_TRUE(after.has(key("zevd_build_info", {{"version", ZEVD_VERSION}})));
    auto started = std::stoll(after.value("zevd_dch_start_time_seconds"));
    EXPECT_LE(started, static_cast<long long>(time(nullptr)));
    EXPECT_GT(started, static_cast<long long>(time(nullptr)) - 3600);
}

TEST(DchMetricsHttpTest, PromtoolAcceptsTheServedPage) {
    std::string promtool = findPromtool();
    if (promtool.empty()) {
        ASSERT_FALSE(promtoolRequired()) << "promtool is missing: scripts/setup.sh fetches it";
        GTEST_SKIP() << "promtool is not installed";
    }
    ASSERT_EQ(registered(kApplication), 0);
    long first = online("web-01.app", "disk.io", "a\"quoted\"\\source");
    long second = online("web-01.app", "disk.io", "plain");
    sendEveryType(first);
    sendEveryType(second);
    std::string text;
    scrape(&text);
    std::string said;
    EXPECT_EQ(promtoolCheck(promtool, text, &said), 0) << said << "\n" << text;
    long status = -1;
    dp_offline(&status, first);
    dp_offline(&status, second);
}

TEST(DchMetricsHttpTest, OnlyGetAndHeadOfMetricsAreServed) {
    uint16_t port = MetricsDaemon::port();
    HttpReply head = httpExchange(port, httpRequestText("HEAD", "/metrics"), true);
    EXPECT_EQ(head.status, 200) << head.head;
    EXPECT_EQ(head.body, "");
    for (const char *method : {"POST", "PUT", "DELETE", "OPTIONS", "PATCH", "BREW"}) {
        HttpReply reply = httpExchange(port, httpRequestText(method, "/metrics"));
        EXPECT_EQ(reply.status, 405) << method;
        EXPECT_EQ(reply.header("Allow"), "GET, HEAD") << method;
        EXPECT_EQ(reply.body, "Method not allowed: /metrics takes GET.\n") << method;
    }
    for (const char *path : {"/", "/metrics/", "/metricsx", "/Metrics", "/favicon.ico"}) {
        HttpReply reply = httpGet(port, path);
        EXPECT_EQ(reply.status, 404) << path;
        EXPECT_EQ(reply.body, "Not found: this server has only /metrics.\n") << path;
        EXPECT_EQ(httpExchange(port, httpRequestText("POST", path)).status, 404) << path;
    }
    // A query is not part of the path.
    EXPECT_EQ(httpGet(port, "/metrics?x=1").status, 200);
    // A body sent with a POST is never read, and the connection is closed.
    HttpReply post = httpExchange(port,
                                  "POST /metrics HTTP/1.1\r\nHost: h\r\nContent-Length: 5\r\n\r\n"
                                  "hello");
    EXPECT_EQ(post.status, 405);
    // HTTP/1.0 is served too.
    EXPECT_EQ(httpExchange(port, "GET /metrics HTTP/1.0\r\n\r\n").status, 200);
}

TEST(DchMetricsHttpTest, ScrapesShareAKeptConnection) {
    int fd = connectLoopback(MetricsDaemon::port());
    ASSERT_GE(fd, 0);
    const std::string request = "GET /metrics HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n";
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(sendAll(fd, request));
        HttpReply reply = readReply(fd);
        EXPECT_EQ(reply.status, 200) << i;
        EXPECT_FALSE(reply.closed) << i;
        EXPECT_TRUE(check(reply.body).errors.empty()) << i;
    }
    close(fd);
}

// ---------------------------------------------------------------------------
// What no scraper sends
// ---------------------------------------------------------------------------

TEST(DchMetricsHttpBadInputTest, LongLinesAndGarbageAreRefusedAndTheServerGoesOn) {
    uint16_t port = MetricsDaemon::port();
    size_t traced = MetricsDaemon::daemon().trace().size();
    HttpReply longLine =
        httpExchange(port, "GET /" + std::string(100000, 'a') + " HTTP/1.1\r\nHost: h\r\n\r\n");
    EXPECT_EQ(longLine.status, 414) << longLine.head;
    HttpReply longHeader = httpExchange(port, "GET /metrics HTTP/1.1\r\nHost: h\r\nX-Long: " +
                                                  std::string(100000, 'b') + "\r\n\r\n");
    EXPECT_EQ(longHeader.status, 431) << longHeader.head;
    std::string manyHeaders = "GET /metrics HTTP/1.1\r\nHost: h\r\n";
    for (int i = 0; i < 5000; ++i) manyHeaders += "X-" + std::to_string(i) + ": v\r\n";
    EXPECT_EQ(httpExchange(port, manyHeaders + "\r\n").status, 431);
    std::string garbage;
    for (int i = 0; i < 4096; ++i) garbage += static_cast<char>((i * 131 + 7) % 256);
    HttpReply junk = httpExchange(port, garbage + "\r\n\r\n");
    EXPECT_EQ(junk.status, 400) << junk.head;
    HttpReply noTarget = httpExchange(port, "GET\r\n\r\n");
    EXPECT_EQ(noTarget.status, 0);  // closed without an answer
    EXPECT_TRUE(noTarget.closed);
    EXPECT_EQ(httpExchange(port, "GET /metrics\r\n\r\n").status, 400);
    EXPECT_EQ(httpExchange(port, "GET /metrics HTTP/1.1\r\nnot a header\r\n\r\n").status, 400);
    EXPECT_EQ(httpExchange(port, "GET /metrics HTTP/9.9\r\nHost: h\r\n\r\n").status, 505);

    EXPECT_TRUE(providerRoundTrip());
    scrape();
    // None of it is an error of the daemon's: nothing in its trace says so.
    std::string trace = MetricsDaemon::daemon().trace().substr(traced);
    EXPECT_EQ(trace.find("Error"), std::string::npos) << trace;
}

TEST(DchMetricsHttpBadInputTest, SlowClientsHoldNothingButTheirConnection) {
    uint16_t port = MetricsDaemon::port();
    constexpr int kSlow = 50;
    std::vector<int> fds;
    for (int i = 0; i < kSlow; ++i) {
        int fd = connectLoopback(port);
        ASSERT_GE(fd, 0);
        fds.push_back(fd);
    }
    // Every slow client sends its request a byte at a time, all in step,
    // while this thread keeps the DCH and the page busy.
    const std::string request = httpRequestText("GET", "/metrics");
    std::atomic<bool> sentAll{false};
    std::thread slow([&] {
        for (char c : request) {
            for (int fd : fds) sendAll(fd, std::string(1, c));
            std::this_thread::sleep_for(milliseconds(20));
        }
        sentAll = true;
    });
    do {
        EXPECT_TRUE(providerRoundTrip());
        EXPECT_EQ(httpGet(port).status, 200);
    } while (!sentAll.load());
    slow.join();
    for (int fd : fds) {
        EXPECT_EQ(readReply(fd).status, 200);
        close(fd);
    }
}

TEST(DchMetricsHttpBadInputTest, AClientThatTricklesIsClosedWhenItsRequestIsLate) {
    // A byte every half second keeps the connection from ever being idle:
    // only the request's own deadline ends it.
    int fd = connectLoopback(MetricsDaemon::port());
    ASSERT_GE(fd, 0);
    auto started = std::chrono::steady_clock::now();
    const std::string head = "GET /metrics HTTP/1.1\r\nX-Slow: " + std::string(40, 'x');
    HttpReply reply;
    for (size_t i = 0; i < head.size() && !reply.closed; ++i) {
        if (!sendAll(fd, head.substr(i, 1))) break;
        reply = readReply(fd, false, milliseconds(500));
    }
    if (!reply.closed) reply = readReply(fd, false, seconds(10));
    auto waited = std::chrono::steady_clock::now() - started;
    EXPECT_TRUE(reply.closed);
    EXPECT_EQ(reply.status, 0);
    EXPECT_GE(waited, dch::kMetricsRequestTime - milliseconds(200));
    EXPECT_LT(waited, dch::kMetricsRequestTime + seconds(5));
    close(fd);
}

TEST(DchMetricsHttpBadInputTest, SlowlorisClientsAtTheLimitLeaveScrapesAnswered) {
    // As many clients as the server takes, each sending its request head a
    // byte every two seconds, never idle long enough to be closed for it.
    uint16_t port = MetricsDaemon::port();
    pid_t pid = MetricsDaemon::daemon().pid();
    int descriptors = openDescriptors(pid);
    std::vector<int> fds;
    std::vector<std::chrono::steady_clock::time_point> connected;
    for (unsigned i = 0; i < dch::kMetricsConnectionLimit; ++i) {
        int fd = connectLoopback(port);
        ASSERT_GE(fd, 0) << i;
        connected.push_back(std::chrono::steady_clock::now());
        sendAll(fd, "G");
        fds.push_back(fd);
    }
    std::atomic<bool> done{false};
    std::thread trickle([&] {
        const std::string rest = "ET /metrics HTTP/1.1\r\nX-Slow: " + std::string(100, 'x');
        for (size_t i = 0; !done.load() && i < rest.size(); ++i) {
            for (int fd : fds) send(fd, &rest[i], 1, MSG_NOSIGNAL | MSG_DONTWAIT);
            for (int tick = 0; tick < 20 && !done.load(); ++tick)
                std::this_thread::sleep_for(milliseconds(100));
        }
    });
    // The server has taken them (all but the one or two that made room).
    EXPECT_TRUE(waitFor(
        [&] { return openDescriptors(pid) >= descriptors + int{dch::kMetricsConnectionLimit} - 2; },
        seconds(10)))
        << openDescriptors(pid) << " descriptors, " << descriptors << " before";
    // A scrape now is answered, well before the slow clients' deadlines.
    auto asked = std::chrono::steady_clock::now();
    HttpReply reply = httpExchange(port, httpRequestText("GET", "/metrics"), false, seconds(4));
    auto latency =
        std::chrono::duration_cast<milliseconds>(std::chrono::steady_clock::now() - asked);
    EXPECT_EQ(reply.status, 200) << "no answer within " << latency.count() << " ms";
    RecordProperty("scrape_ms", static_cast<int>(latency.count()));
    printf("scrape beside %u slow clients answered in %lld ms\n", dch::kMetricsConnectionLimit,
           static_cast<long long>(latency.count()));
    // The last slow client is closed once its request is late, and so is
    // every other; then a new scrape finds every place free.
    HttpReply last = readReply(fds.back(), false, seconds(10));
    auto lived = std::chrono::steady_clock::now() - connected.back();
    EXPECT_TRUE(last.closed);
    EXPECT_GE(lived, dch::kMetricsRequestTime - milliseconds(200));
    EXPECT_LT(lived, dch::kMetricsRequestTime + seconds(5));
    done = true;
    trickle.join();
    for (int fd : fds) close(fd);
    EXPECT_TRUE(waitFor([&] { return openDescriptors(pid) <= descriptors; }, seconds(10)))
        << openDescriptors(pid) << " descriptors, " << descriptors << " before";
    EXPECT_EQ(httpGet(port).status, 200);
}

// A dp_online over a TCP connection of its own to the DCH port: its status,
// or -1 when no answer came within 10 seconds.
int32_t onlineOverTcp() {
    int fd = connectLoopback(MetricsDaemon::daemon().port());
    if (fd < 0) return -1;
    std::vector<char> request = buildMessage([](MessageBuilder &b) {
        b.add16(DCH_requestType, ZEVD_REQ_DP_ONLINE);
        b.addString(DCH_applName, "probe");
        b.addString(DCH_attrGroup, "probe");
        b.addString(DCH_sourceName, "tcp");
    });
    int32_t status = -1;
    if (sendAll(fd, std::string(request.begin(), request.end()))) {
        std::string answer;
        auto deadline = std::chrono::steady_clock::now() + seconds(10);
        while (answer.size() < 4 || answer.size() < messageLength(answer.data())) {
            auto left = std::chrono::duration_cast<milliseconds>(deadline -
                                                                 std::chrono::steady_clock::now());
            pollfd p = {fd, POLLIN, 0};
            if (left.count() <= 0 || poll(&p, 1, static_cast<int>(left.count())) != 1) break;
            char chunk[512];
            ssize_t n = recv(fd, chunk, sizeof chunk, 0);
            if (n <= 0) break;
            answer.append(chunk, static_cast<size_t>(n));
        }
        FieldReader r(answer.data(), answer.size());
        if (answer.size() >= 4 && r.next() == DCH_status) status = r.int32();
    }
    close(fd);
    return status;
}

TEST(DchMetricsHttpBadInputTest, AThousandConnectionsLeaveTheDchServing) {
    constexpr int kConnections = 1000;
    rlimit limit{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    if (limit.rlim_cur < kConnections + 200) {
        limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, kConnections + 200);
        setrlimit(RLIMIT_NOFILE, &limit);
        ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    }
    if (limit.rlim_cur < kConnections + 200) GTEST_SKIP() << "descriptor limit too low";
    ASSERT_TRUE(providerRoundTrip());  // registers "probe"
    pid_t pid = MetricsDaemon::daemon().pid();
    int descriptors = openDescriptors(pid);
    uint16_t port = MetricsDaemon::port();
    std::vector<int> fds;
    for (int i = 0; i < kConnections; ++i) {
        int fd = connectLoopback(port);
        ASSERT_GE(fd, 0) << i;
        fds.push_back(fd);
        // Half of them send the start of a request and stall.
        if (i % 2 == 0) sendAll(fd, "GET /metrics HTTP/1.1\r\n");
    }
    // The server takes up to its limit, the oldest connection without a
    // whole request making room for each one it takes at the limit; the
    // rest wait in the kernel's backlog, costing the daemon nothing.
    EXPECT_TRUE(waitFor(
        [&] { return openDescriptors(pid) >= descriptors + int{dch::kMetricsConnectionLimit} - 2; },
        seconds(20)))
        << openDescriptors(pid) << " descriptors, " << descriptors << " before";
    EXPECT_LE(openDescriptors(pid), descriptors + int{dch::kMetricsConnectionLimit} + 2);
    // Meanwhile the DCH serves, over UDP and over TCP.
    for (int i = 0; i < 5; ++i) EXPECT_TRUE(providerRoundTrip()) << i;
    EXPECT_EQ(onlineOverTcp(), 0);
    for (int fd : fds) close(fd);
    EXPECT_TRUE(waitFor([&] { return openDescriptors(pid) <= descriptors; }, seconds(30)))
        << openDescriptors(pid) << " descriptors, " << descriptors << " before";
    EXPECT_TRUE(providerRoundTrip());
    scrape();
}

TEST(DchMetricsHttpBadInputTest, ScrapesInALoopLeaveTheDchServing) {
    // Back to back from four threads: the worker copies at most once per
    // gap, and the scrapes share the copies.
    std::atomic<bool> done{false};
    std::atomic<int> served{0};
    std::vector<std::thread> scrapers;
    for (int i = 0; i < 4; ++i)
        scrapers.emplace_back([&] {
            while (!done.load())
                if (httpGet(MetricsDaemon::port()).status == 200) ++served;
        });
    for (int i = 0; i < 20; ++i) EXPECT_TRUE(providerRoundTrip()) << i;
    done = true;
    for (std::thread &t : scrapers) t.join();
    EXPECT_GT(served.load(), 0);
}

TEST(DchMetricsHttpStopTest, SigtermWhileScrapesAndRowsRunEndsTheDaemon) {
    DaemonProcess d({"--metrics", "127.0.0.1:0"});
    ASSERT_TRUE(d.start()) << d.trace();
    std::atomic<bool> done{false};
    std::vector<std::thread> scrapers;
    for (int i = 0; i < 4; ++i)
        scrapers.emplace_back([&] {
            while (!done.load()) httpGet(d.metricsPort(), "/metrics");
        });
    // Rows at the daemon's port without pause, so that its queue is busy.
    std::thread rows([&] {
        int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        std::vector<char> row = buildMessage([](MessageBuilder &b) {
            b.add16(DCH_requestType, ZEVD_REQ_DP_DATA);
            b.add32(DCH_handle, 1);
            b.add16(DCH_dataFlag, 0);
        });
        while (!done.load()) sendDatagram(fd, loopbackAddress(d.port()), row);
        close(fd);
    });
    ASSERT_TRUE(
        waitFor([&] { return d.trace().find("dp_data") != std::string::npos; }, seconds(20)));
    int status = d.stop(SIGTERM);
    done = true;
    for (std::thread &t : scrapers) t.join();
    rows.join();
    ASSERT_NE(status, -1) << "zevdchd did not end within 20 s of SIGTERM";
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

// ---------------------------------------------------------------------------
// Starting with --metrics
// ---------------------------------------------------------------------------

TEST(DchMetricsHttpStartTest, BadAddressesAreUsageErrors) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"abc", "the port 'abc' is not 0 to 65535"},
        {"65536", "the port '65536' is not 0 to 65535"},
        {"-1", "the port '-1' is not 0 to 65535"},
        {"127.0.0.1:", "the port '' is not 0 to 65535"},
        {":9464", "no address before ':'"},
        {"300.1.1.1:9464", "'300.1.1.1' is not an IPv4 address or a host name with one"},
    };
    for (const auto &[value, why] : cases) {
        DaemonProcess d({"--metrics", value});
        ASSERT_TRUE(d.spawn());
        int status = d.waitExit();
        ASSERT_TRUE(WIFEXITED(status)) << value;
        EXPECT_EQ(WEXITSTATUS(status), 2) << value;
        EXPECT_EQ(d.trace(), "zevdchd: --metrics takes [ADDR:]PORT, not '" + value + "': " + why +
                                 "\nTry 'zevdchd --help'.\n")
            << value;
    }
}

TEST(DchMetricsHttpStartTest, APortInUseEndsTheStart) {
    std::string taken = "127.0.0.1:" + std::to_string(MetricsDaemon::port());
    DaemonProcess d({"--metrics", taken});
    ASSERT_TRUE(d.spawn());
    int status = d.waitExit();
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 1);
    EXPECT_NE(
        d.trace().find("zevdchd: cannot serve metrics on " + taken + ": Address already in use\n"),
        std::string::npos)
        << d.trace();
    EXPECT_EQ(d.output(), "");
}

TEST(DchMetricsHttpStartTest, OnlyAPortMeansLoopback) {
    DaemonProcess d({"--metrics", "0"});
    ASSERT_TRUE(d.start()) << d.trace();
    EXPECT_NE(d.metricsPort(), 0) << d.output();
    EXPECT_EQ(httpGet(d.metricsPort()).status, 200);
    EXPECT_EQ(d.stop(SIGTERM), 0);
}

TEST(DchMetricsAddressTest, AddressesAndPortsAreRead) {
    sockaddr_in address{};
    std::string why;
    ASSERT_TRUE(dch::parseMetricsAddress("9464", &address, &why)) << why;
    EXPECT_EQ(ntohl(address.sin_addr.s_addr), INADDR_LOOPBACK);
    EXPECT_EQ(ntohs(address.sin_port), 9464);
    ASSERT_TRUE(dch::parseMetricsAddress("0.0.0.0:80", &address, &why)) << why;
    EXPECT_EQ(address.sin_addr.s_addr, htonl(INADDR_ANY));
    EXPECT_EQ(ntohs(address.sin_port), 80);
    ASSERT_TRUE(dch::parseMetricsAddress("localhost:0", &address, &why)) << why;
    EXPECT_EQ(ntohl(address.sin_addr.s_addr) >> 24, 127u);
    EXPECT_EQ(ntohs(address.sin_port), 0);
    EXPECT_FALSE(dch::parseMetricsAddress("", &address, &why));
    EXPECT_EQ(why, "the port '' is not 0 to 65535");
    EXPECT_FALSE(dch::parseMetricsAddress("1:2:3", &address, &why));
    EXPECT_EQ(why, "'1:2' is not an IPv4 address or a host name with one");
    EXPECT_FALSE(dch::parseMetricsAddress("99999999999999999999", &address, &why));
    EXPECT_FALSE(dch::parseMetricsAddress("+80", &address, &why));
    EXPECT_FALSE(dch::parseMetricsAddress("80 ", &address, &why));
}

// ---------------------------------------------------------------------------
// The board between the worker and the HTTP thread
// ---------------------------------------------------------------------------

// The wait of the boards made here: the daemon's 5 s, shortened, so that
// the cases that wait it out are quick.
constexpr milliseconds kShortWait{500};

dch::MetricsSnapshot snapshotNumbered(uint64_t n) {
    dch::MetricsSnapshot snapshot;
    snapshot.answers = n;
    return snapshot;
}

// A board with its asker thread, which counts what it asks; joined at the end.
struct AskedBoard {
    std::atomic<int> asked{0};
    std::function<void()> onAsk;
    std::function<void()> onChange;
    dch::MetricsBoard board{[this] {
                                ++asked;
                                if (onAsk) onAsk();
                            },
                            kShortWait};
    std::thread asker;

    void start() {
        asker = std::thread([this] {
            board.runAsker(
                [this] {
                    if (onChange) onChange();
                },
                milliseconds(20));
        });
    }
    ~AskedBoard() {
        board.close();
        if (asker.joinable()) asker.join();
    }
};

TEST(DchMetricsBoardTest, ASnapshotPublishedBeforeTheScrapeIsNotServed) {
    AskedBoard b;
    b.start();
    b.board.publish(snapshotNumbered(1));  // an answer to nobody
    std::atomic<bool> done{false};
    std::shared_ptr<const dch::MetricsSnapshot> got;
    std::thread scrape([&] {
        got = b.board.fresh(seconds(10));
        done = true;
    });
    ASSERT_TRUE(waitFor([&] { return b.asked.load() == 1; }, seconds(10)));
    EXPECT_FALSE(done.load());
    b.board.publish(snapshotNumbered(2));
    scrape.join();
    ASSERT_NE(got, nullptr);
    EXPECT_EQ(got->answers, 2u);
}

TEST(DchMetricsBoardTest, ScrapesAtOnceNeverHaveMoreThanOneRequestOut) {
    AskedBoard b;
    std::atomic<int> outstanding{0};
    std::atomic<int> overlapped{0};
    b.onAsk = [&] {
        if (outstanding.fetch_add(1) != 0) ++overlapped;
    };
    b.start();
    std::atomic<bool> stop{false};
    std::atomic<int> published{0};
    // The worker: answers each request, taking a moment over it as a copy
    // does.
    std::thread worker([&] {
        while (!stop.load()) {
            if (outstanding.load() == 0) {
                std::this_thread::yield();
                continue;
            }
            std::this_thread::sleep_for(std::chrono::microseconds(200));
            outstanding.fetch_sub(1);
            b.board.publish(snapshotNumbered(static_cast<uint64_t>(++published)));
        }
    });
    constexpr int kThreads = 8;
    constexpr int kScrapes = 20;
    std::atomic<int> served{0};
    std::vector<std::thread> scrapes;
    for (int i = 0; i < kThreads; ++i)
        scrapes.emplace_back([&] {
            for (int k = 0; k < kScrapes; ++k)
                if (b.board.fresh(seconds(10)) != nullptr) ++served;
        });
    for (std::thread &t : scrapes) t.join();
    stop = true;
    worker.join();
    EXPECT_EQ(served.load(), kThreads * kScrapes);
    EXPECT_EQ(overlapped.load(), 0);
    EXPECT_EQ(b.asked.load(), published.load());
    // Shared: far fewer copies than scrapes.
    EXPECT_LT(published.load(), kThreads * kScrapes);
}

TEST(DchMetricsBoardTest, CopiesAreAskedForNoSoonerThanTheGapAfterTheLast) {
    AskedBoard b;
    std::vector<std::chrono::steady_clock::time_point> asks;
    std::mutex asksMutex;
    b.onAsk = [&] {
        std::lock_guard<std::mutex> lock(asksMutex);
        asks.push_back(std::chrono::steady_clock::now());
    };
    b.start();
    // Each copy "took" 5 ms: the next is asked for 50 ms after it at the
    // soonest, however often the scrapes come.
    const auto took = milliseconds(5);
    std::atomic<bool> stop{false};
    std::thread worker([&] {
        int answered = 0;
        while (!stop.load()) {
            if (b.asked.load() == answered) {
                std::this_thread::sleep_for(milliseconds(1));
                continue;
            }
            ++answered;
            b.board.publish(snapshotNumbered(static_cast<uint64_t>(answered)), took);
        }
    });
    for (int i = 0; i < 5; ++i) ASSERT_NE(b.board.fresh(seconds(10)), nullptr) << i;
    stop = true;
    worker.join();
    std::lock_guard<std::mutex> lock(asksMutex);
    ASSERT_EQ(asks.size(), 5u);
    for (size_t i = 1; i < asks.size(); ++i)
        EXPECT_GE(asks[i] - asks[i - 1], took * dch::kSnapshotGapFactor) << i;
}

TEST(DchMetricsBoardTest, AWorkerThatDoesNotAnswerGivesNothingAfterTheLimit) {
    AskedBoard b;
    b.start();
    auto started = std::chrono::steady_clock::now();
    EXPECT_EQ(b.board.fresh(milliseconds(50)), nullptr);
    EXPECT_GE(std::chrono::steady_clock::now() - started, milliseconds(50));
    EXPECT_EQ(b.board.fresh(milliseconds(50)), nullptr);
    EXPECT_EQ(b.asked.load(), 1);          // the request is still out: it is not asked again
    b.board.publish(snapshotNumbered(1));  // the worker's late answer
    std::thread worker([&] {
        if (waitFor([&] { return b.asked.load() == 2; }, seconds(10)))
            b.board.publish(snapshotNumbered(2));
    });
    std::shared_ptr<const dch::MetricsSnapshot> got = b.board.fresh(seconds(10));
    worker.join();
    ASSERT_NE(got, nullptr);
    EXPECT_EQ(got->answers, 2u);
}

TEST(DchMetricsBoardTest, ARequestLeftUnansweredIsAskedAgain) {
    AskedBoard b;
    b.start();
    std::thread worker([&] {
        // The first request is lost; the second is answered.
        if (waitFor([&] { return b.asked.load() == 2; }, kShortWait + seconds(10)))
            b.board.publish(snapshotNumbered(1));
    });
    auto started = std::chrono::steady_clock::now();
    std::shared_ptr<const dch::MetricsSnapshot> got = b.board.fresh(kShortWait + seconds(10));
    worker.join();
    ASSERT_NE(got, nullptr);
    EXPECT_GE(std::chrono::steady_clock::now() - started, kShortWait);
}

TEST(DchMetricsBoardTest, CloseEndsEveryWaitAtOnce) {
    AskedBoard b;
    b.start();
    std::atomic<bool> done{false};
    std::thread scrape([&] {
        EXPECT_EQ(b.board.fresh(seconds(60)), nullptr);
        done = true;
    });
    ASSERT_TRUE(waitFor([&] { return b.asked.load() == 1; }, seconds(10)));
    auto started = std::chrono::steady_clock::now();
    b.board.close();
    scrape.join();
    EXPECT_TRUE(done.load());
    EXPECT_LT(std::chrono::steady_clock::now() - started, seconds(10));
    EXPECT_EQ(b.board.fresh(seconds(60)), nullptr);
}

// ---------------------------------------------------------------------------
// The server with a worker of the test's own
// ---------------------------------------------------------------------------

// A MetricsServer on a free loopback port whose board's requests are
// answered only when the test says so.
struct ServerWithoutWorker {
    std::atomic<int> asked{0};
    dch::MetricsBoard board;
    dch::MetricsServer server;
    uint16_t port = 0;

    // workerWait: how long a scrape waits for the worker's snapshot.
    explicit ServerWithoutWorker(milliseconds requestTime = dch::kMetricsRequestTime,
                                 milliseconds workerWait = kShortWait)
        : board([this] { ++asked; }, workerWait), server(board, requestTime) {
        std::string why;
        sockaddr_in address = loopbackAddress(0);
        EXPECT_TRUE(server.start(address, &why)) << why;
        port = server.port();
    }
};

TEST(DchMetricsServerTest, ScrapesWaitingForTheWorkerHoldUpNoOtherRequest) {
    // The scrapes wait for the worker longer than the other requests take,
    // however slow the build: the 503 of a scrape nobody answers has its
    // own case below.
    ServerWithoutWorker s(dch::kMetricsRequestTime, seconds(30));
    std::vector<std::thread> waiting;
    std::atomic<int> ok{0};
    for (int i = 0; i < 3; ++i)
        waiting.emplace_back([&] {
            if (httpGet(s.port).status == 200) ++ok;
        });
    ASSERT_TRUE(waitFor([&] { return s.asked.load() == 1; }, seconds(10)));
    // All three wait for the snapshot before it is published: one that came
    // after it would rightly wait for the next.
    ASSERT_TRUE(waitFor([&] { return s.server.waiting() == 3; }, seconds(10)));
    EXPECT_EQ(s.asked.load(), 1);
    // While they wait, the server answers everything else at once.
    for (int i = 0; i < 5; ++i) {
        auto started = std::chrono::steady_clock::now();
        EXPECT_EQ(httpGet(s.port, "/other").status, 404);
        EXPECT_EQ(httpExchange(s.port, httpRequestText("POST", "/metrics")).status, 405);
        EXPECT_LT(std::chrono::steady_clock::now() - started, seconds(2));
    }
    EXPECT_EQ(ok.load(), 0);
    s.board.publish(snapshotNumbered(1));
    for (std::thread &t : waiting) t.join();
    EXPECT_EQ(ok.load(), 3);
}

// Scrapes served from one snapshot share one page: it is rendered once,
// however many connections send it.
TEST(DchMetricsServerTest, ScrapesOfOneSnapshotShareOneRenderedPage) {
    TraceCapture capture("MetricsServer::pageOf=detail");
    ServerWithoutWorker s(dch::kMetricsRequestTime, seconds(30));
    std::vector<std::thread> waiting;
    std::vector<std::string> bodies(3);
    for (int i = 0; i < 3; ++i)
        waiting.emplace_back([&s, &bodies, i] {
            HttpReply reply = httpGet(s.port);
            if (reply.status == 200) bodies[i] = reply.body;
        });
    ASSERT_TRUE(waitFor([&] { return s.server.waiting() == 3; }, seconds(10)));
    s.board.publish(snapshotNumbered(1));
    for (std::thread &t : waiting) t.join();
    EXPECT_NE(bodies[0], "");
    EXPECT_EQ(bodies[1], bodies[0]);
    EXPECT_EQ(bodies[2], bodies[0]);
    EXPECT_EQ(capture.count(" bytes rendered"), 1u) << capture.joined();
    // The next snapshot has a page of its own.
    std::thread next([&s, &bodies] { bodies[0] = httpGet(s.port).body; });
    ASSERT_TRUE(waitFor([&] { return s.server.waiting() == 1; }, seconds(10)));
    s.board.publish(snapshotNumbered(2));
    next.join();
    EXPECT_NE(bodies[0], bodies[1]);
    EXPECT_EQ(capture.count(" bytes rendered"), 2u) << capture.joined();
}

TEST(DchMetricsServerTest, AScrapeTheWorkerNeverAnswersIs503AfterItsWait) {
    TraceCapture capture("error");
    ServerWithoutWorker s;
    auto started = std::chrono::steady_clock::now();
    HttpReply reply =
        httpExchange(s.port, httpRequestText("GET", "/metrics"), false, kShortWait + seconds(10));
    auto waited = std::chrono::steady_clock::now() - started;
    EXPECT_EQ(reply.status, 503);
    EXPECT_EQ(reply.body, "The DCH did not publish its metrics in time.\n");
    EXPECT_GE(waited, kShortWait - milliseconds(50));
    EXPECT_LT(waited, kShortWait + seconds(5));
    EXPECT_TRUE(
        capture.hasText("Error: no metrics snapshot from the worker within 500 ms; answered 503"))
        << capture.joined();
}

TEST(DchMetricsServerTest, BadClientsAreTracedAtTheDetailLevelOnly) {
    const std::string longLine = "GET /" + std::string(100000, 'a') + " HTTP/1.1\r\n\r\n";
    {
        TraceCapture capture("error");
        ServerWithoutWorker s;
        EXPECT_EQ(httpExchange(s.port, longLine).status, 414);
        EXPECT_TRUE(capture.texts().empty()) << capture.joined();
    }
    TraceCapture capture("zevdchd=all");
    ServerWithoutWorker s;
    EXPECT_EQ(httpExchange(s.port, longLine).status, 414);
    EXPECT_TRUE(capture.waitFor("metrics server: ", seconds(10))) << capture.joined();
}

TEST(DchMetricsServerTest, StopAnswersTheScrapesThatWait) {
    auto s = std::make_unique<ServerWithoutWorker>();
    std::vector<std::thread> waiting;
    std::atomic<int> unavailable{0};
    std::atomic<int> sent{0};
    for (int i = 0; i < 3; ++i)
        waiting.emplace_back([&, port = s->port] {
            int fd = connectLoopback(port);
            bool asking = fd >= 0 && sendAll(fd, httpRequestText("GET", "/metrics"));
            ++sent;
            HttpReply reply = asking ? readReply(fd) : HttpReply{};
            if (fd >= 0) close(fd);
            if (reply.status == 503 || reply.closed) ++unavailable;
        });
    // Every scrape is on its way before the stop, not only the first.
    ASSERT_TRUE(waitFor([&] { return s->asked.load() == 1 && sent.load() == 3; }, seconds(10)));
    auto started = std::chrono::steady_clock::now();
    TraceCapture capture("error");
    s->server.stop();
    for (std::thread &t : waiting) t.join();
    EXPECT_EQ(unavailable.load(), 3);
    // Answered because the daemon stops: not an error of the worker's.
    EXPECT_FALSE(capture.contains("no metrics snapshot")) << capture.joined();
    EXPECT_LT(std::chrono::steady_clock::now() - started, seconds(3));
}

// With a request time far longer than the test, only the making of room
// closes anything: the oldest silent connection goes when the last place is
// taken, and a request finds a place.
TEST(DchMetricsServerTest, AtTheLimitTheOldestSilentConnectionMakesRoom) {
    rlimit limit{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    if (limit.rlim_cur < 3 * dch::kMetricsConnectionLimit) {
        limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, 3 * dch::kMetricsConnectionLimit);
        setrlimit(RLIMIT_NOFILE, &limit);
        ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    }
    if (limit.rlim_cur < 3 * dch::kMetricsConnectionLimit)
        GTEST_SKIP() << "descriptor limit too low";
    TraceCapture capture("zevdchd=all");
    ServerWithoutWorker s(seconds(600));
    std::vector<int> fds;
    for (unsigned i = 0; i + 1 < dch::kMetricsConnectionLimit; ++i) {
        int fd = connectLoopback(s.port);
        ASSERT_GE(fd, 0) << i;
        fds.push_back(fd);
    }
    // The first one has not been closed: there was room for every one.
    pollfd first = {fds.front(), POLLIN, 0};
    EXPECT_EQ(poll(&first, 1, 200), 0);
    EXPECT_FALSE(capture.contains("closed to make room"));
    // The last place: the oldest silent connection makes room for the next.
    int last = connectLoopback(s.port);
    ASSERT_GE(last, 0);
    fds.push_back(last);
    HttpReply oldest = readReply(fds.front(), false, seconds(10));
    EXPECT_TRUE(oldest.closed);
    EXPECT_TRUE(
        capture.waitFor("closed to make room: the oldest without a whole request", seconds(10)))
        << capture.joined();
    // A request beyond the limit is answered, each taking the place of the
    // then oldest.
    for (int i = 0; i < 3; ++i) EXPECT_EQ(httpGet(s.port, "/other").status, 404) << i;
    HttpReply second = readReply(fds[1], false, seconds(10));
    EXPECT_TRUE(second.closed);
    pollfd newest = {fds.back(), POLLIN, 0};
    EXPECT_EQ(poll(&newest, 1, 0), 0);
    for (int fd : fds) close(fd);
}

// An idle kept connection counts as one whose next request is late.
TEST(DchMetricsServerTest, AKeptConnectionIdlePastTheRequestTimeIsClosed) {
    ServerWithoutWorker s(milliseconds(300));
    int fd = connectLoopback(s.port);
    ASSERT_GE(fd, 0);
    ASSERT_TRUE(sendAll(fd, "GET /other HTTP/1.1\r\nHost: h\r\n\r\n"));
    HttpReply reply = readReply(fd);
    EXPECT_EQ(reply.status, 404);
    EXPECT_FALSE(reply.closed);
    auto answered = std::chrono::steady_clock::now();
    HttpReply next = readReply(fd, false, seconds(10));
    EXPECT_TRUE(next.closed);
    EXPECT_GE(std::chrono::steady_clock::now() - answered, milliseconds(250));
    close(fd);
}

}  // namespace
