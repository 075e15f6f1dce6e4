// zevdchd --metrics end to end: the page fetched over HTTP from the daemon
// in a child process while this process provides rows through the library;
// the requests no scraper would send; and the board through which the worker
// hands its snapshots to the HTTP thread.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "support/dch_daemon.h"
#include "support/http_client.h"
#include "support/metrics_page.h"
#include "support/reliability.h"
#include "support/wait_for.h"
#include "zevd610.h"
#include "zevdchd_http.h"

namespace {

using namespace zevd::test;
namespace dch = zevd::dch;
using std::chrono::milliseconds;
using std::chrono::seconds;

// One daemon with --metrics for the whole program, this process's library
// pointed at it.
class MetricsDaemon : public ::testing::Environment {
public:
    static DaemonProcess &daemon() { return *running(); }
    static uint16_t port() { return daemon().metricsPort(); }

    void SetUp() override {
        running() = new DaemonProcess({"--metrics", "127.0.0.1:0"});
        ASSERT_TRUE(daemon().start()) << daemon().trace();
        ASSERT_NE(port(), 0) << daemon().output();
        setenv("ZEVA_DCH_ADDR", "127.0.0.1", 1);
        setenv("ZEVA_DCH_PORT", std::to_string(daemon().port()).c_str(), 1);
        setenv("ZEVA_DCH_TIMEOUT", "5", 1);
    }
    void TearDown() override {
        EXPECT_EQ(daemon().stop(SIGTERM), 0);
        delete running();
        running() = nullptr;
    }

private:
    static DaemonProcess *&running() {
        static DaemonProcess *process = nullptr;
        return process;
    }
};

const auto *const kEnvironment = ::testing::AddGlobalTestEnvironment(new MetricsDaemon);

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
    EXPECT_EQ(MetricsDaemon::daemon().trace().find("Error"), std::string::npos)
        << MetricsDaemon::daemon().trace();
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
    int rounds = 0;
    while (!sentAll.load()) {
        EXPECT_TRUE(providerRoundTrip());
        EXPECT_EQ(httpGet(port).status, 200);
        ++rounds;
    }
    slow.join();
    EXPECT_GT(rounds, 1);
    for (int fd : fds) {
        EXPECT_EQ(readReply(fd).status, 200);
        close(fd);
    }
}

TEST(DchMetricsHttpBadInputTest, AClientThatStopsMidRequestIsClosedWhenIdle) {
    int fd = connectLoopback(MetricsDaemon::port());
    ASSERT_GE(fd, 0);
    ASSERT_TRUE(sendAll(fd, "GET /metr"));
    auto started = std::chrono::steady_clock::now();
    HttpReply reply = readReply(fd, false, seconds(dch::kMetricsIdleSeconds + 10));
    auto waited = std::chrono::steady_clock::now() - started;
    EXPECT_TRUE(reply.closed);
    EXPECT_EQ(reply.status, 0);
    EXPECT_GE(waited, seconds(dch::kMetricsIdleSeconds - 1));
    EXPECT_LT(waited, seconds(dch::kMetricsIdleSeconds + 10));
    close(fd);
}

TEST(DchMetricsHttpBadInputTest, AThousandConnectionsLeaveTheDchServing) {
    constexpr int kConnections = 1000;
    rlimit limit{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    if (limit.rlim_cur < kConnections + 200) {
        limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, kConnections + 200);
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    }
    if (limit.rlim_cur < kConnections + 200) GTEST_SKIP() << "descriptor limit too low";
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
    // The server has taken every one of them (they count against its limit).
    EXPECT_TRUE(
        waitFor([&] { return openDescriptors(pid) >= descriptors + kConnections; }, seconds(20)))
        << openDescriptors(pid) << " descriptors, " << descriptors << " before";
    for (int i = 0; i < 5; ++i) EXPECT_TRUE(providerRoundTrip()) << i;
    EXPECT_EQ(httpGet(port).status, 200);
    for (int fd : fds) close(fd);
    EXPECT_TRUE(waitFor([&] { return openDescriptors(pid) <= descriptors; }, seconds(20)))
        << openDescriptors(pid) << " descriptors, " << descriptors << " before";
    EXPECT_TRUE(providerRoundTrip());
    scrape();
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

TEST(DchMetricsHttpStartTest, WithoutTheOptionNothingListens) {
    DaemonProcess d;
    ASSERT_TRUE(d.start()) << d.trace();
    EXPECT_EQ(d.output().find("metrics"), std::string::npos) << d.output();
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

dch::MetricsSnapshot snapshotNumbered(uint64_t n) {
    dch::MetricsSnapshot snapshot;
    snapshot.answers = n;
    return snapshot;
}

TEST(DchMetricsBoardTest, ASnapshotPublishedBeforeTheScrapeIsNotServed) {
    std::atomic<int> asked{0};
    dch::MetricsBoard board([&] { ++asked; });
    board.publish(snapshotNumbered(1));  // an answer to nobody
    std::atomic<bool> done{false};
    std::shared_ptr<const dch::MetricsSnapshot> got;
    std::thread scrape([&] {
        got = board.fresh(seconds(10));
        done = true;
    });
    ASSERT_TRUE(waitFor([&] { return asked.load() == 1; }, seconds(10)));
    EXPECT_FALSE(done.load());
    board.publish(snapshotNumbered(2));
    scrape.join();
    ASSERT_NE(got, nullptr);
    EXPECT_EQ(got->answers, 2u);
}

TEST(DchMetricsBoardTest, ScrapesAtOnceNeverHaveMoreThanOneRequestOut) {
    std::atomic<int> outstanding{0};
    std::atomic<int> asked{0};
    std::atomic<int> overlapped{0};
    dch::MetricsBoard board([&] {
        if (outstanding.fetch_add(1) != 0) ++overlapped;
        ++asked;
    });
    std::atomic<bool> stop{false};
    std::atomic<int> published{0};
    // The worker: answers each request, taking a moment over it as a
    // snapshot does.
    std::thread worker([&] {
        while (!stop.load()) {
            if (outstanding.load() == 0) {
                std::this_thread::yield();
                continue;
            }
            std::this_thread::sleep_for(std::chrono::microseconds(200));
            outstanding.fetch_sub(1);
            board.publish(snapshotNumbered(static_cast<uint64_t>(++published)));
        }
    });
    constexpr int kThreads = 8;
    constexpr int kScrapes = 50;
    std::atomic<int> served{0};
    std::vector<std::thread> scrapes;
    for (int i = 0; i < kThreads; ++i)
        scrapes.emplace_back([&] {
            for (int k = 0; k < kScrapes; ++k)
                if (board.fresh(seconds(10)) != nullptr) ++served;
        });
    for (std::thread &t : scrapes) t.join();
    stop = true;
    worker.join();
    EXPECT_EQ(served.load(), kThreads * kScrapes);
    EXPECT_EQ(overlapped.load(), 0);
    EXPECT_EQ(asked.load(), published.load());
}

TEST(DchMetricsBoardTest, AWorkerThatDoesNotAnswerGivesNothingAfterTheLimit) {
    std::atomic<int> asked{0};
    dch::MetricsBoard board([&] { ++asked; });
    auto started = std::chrono::steady_clock::now();
    EXPECT_EQ(board.fresh(milliseconds(100)), nullptr);
    EXPECT_GE(std::chrono::steady_clock::now() - started, milliseconds(100));
    EXPECT_EQ(board.fresh(milliseconds(100)), nullptr);
    EXPECT_EQ(asked.load(), 1);          // the request is still out: it is not asked again
    board.publish(snapshotNumbered(1));  // the worker's late answer
    std::thread worker([&] {
        if (waitFor([&] { return asked.load() == 2; }, seconds(10)))
            board.publish(snapshotNumbered(2));
    });
    std::shared_ptr<const dch::MetricsSnapshot> got = board.fresh(seconds(10));
    worker.join();
    ASSERT_NE(got, nullptr);
    EXPECT_EQ(got->answers, 2u);
}

TEST(DchMetricsBoardTest, CloseEndsEveryWaitAtOnce) {
    dch::MetricsBoard board([] {});
    std::atomic<bool> done{false};
    std::thread scrape([&] {
        EXPECT_EQ(board.fresh(seconds(60)), nullptr);
        done = true;
    });
    auto started = std::chrono::steady_clock::now();
    std::this_thread::sleep_for(milliseconds(20));  // let it wait; either order ends the same
    board.close();
    scrape.join();
    EXPECT_TRUE(done.load());
    EXPECT_LT(std::chrono::steady_clock::now() - started, seconds(10));
    EXPECT_EQ(board.fresh(seconds(60)), nullptr);
}

}  // namespace
