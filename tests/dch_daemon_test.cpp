// End to end: the library's providers and consumers against zevdchd in a
// child process, over UDP and TCP. One daemon serves the whole program.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <mutex>
#include <random>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "common/message.h"
#include "support/dch_daemon.h"
#include "support/dch_server.h"
#include "support/loopback.h"
#include "support/raw_provider.h"
#include "support/row_collector.h"
#include "zevd610.h"

namespace zevd::test {
namespace {

using namespace std::chrono_literals;

// A short DCH time-out in the daemon, for the peer that stalls.
[[maybe_unused]] const auto *const kEnvironment =
    ::testing::AddGlobalTestEnvironment(new DaemonEnvironment({"ZEVA_DCH_TIMEOUT=2"}));
DaemonProcess &theDaemon() {
    return DaemonEnvironment::daemon();
}

// Every provider status line of the run, from one status wait that lives as
// long as the process (a status wait cannot be cancelled).
class StatusFeed {
public:
    static StatusFeed &get() {
        static StatusFeed *feed = new StatusFeed();
        return *feed;
    }
    // Waits until a line that starts with prefix and ends with suffix has
    // come; takes it and everything before it. False after limit.
    bool take(const std::string &prefix, const std::string &suffix,
              std::chrono::milliseconds limit = 10s) {
        std::unique_lock<std::mutex> guard(lock_);
        return changed_.wait_for(guard, limit, [&] {
            for (size_t i = 0; i < lines_.size(); ++i) {
                const std::string &l = lines_[i];
                if (l.rfind(prefix, 0) == 0 && l.size() >= suffix.size() &&
                    l.compare(l.size() - suffix.size(), suffix.size(), suffix) == 0) {
                    lines_.erase(lines_.begin(), lines_.begin() + static_cast<long>(i) + 1);
                    return true;
                }
            }
            return false;
        });
    }
    // The lines not taken yet that start with prefix.
    std::vector<std::string> pending(const std::string &prefix) {
        std::lock_guard<std::mutex> guard(lock_);
        std::vector<std::string> out;
        for (const std::string &l : lines_)
            if (l.rfind(prefix, 0) == 0) out.push_back(l);
        return out;
    }

private:
    StatusFeed() {
        void *client = dc_waitForDPStatusInitialize();
        EXPECT_NE(client, nullptr);
        std::thread([this, client] {
            for (;;) {
                const char *line = dc_waitForDPStatus(client);
                if (line == nullptr) return;
                std::lock_guard<std::mutex> guard(lock_);
                lines_.emplace_back(line);
                changed_.notify_all();
            }
        }).detach();
    }
    std::mutex lock_;
    std::condition_variable changed_;
    std::deque<std::string> lines_;
};

// The forwarded message the daemon makes of a row.
std::vector<char> forwarded(const char *appl, const char *group, const char *source, int32_t handle,
                            int16_t flag, const std::vector<char> &pairs) {
    std::vector<char> message(8192);
    MessageBuilder b(message.data(), message.size());
    b.clear();
    b.add16(DCH_requestType, ZEVD_REQ_DP_DATA);
    b.addString(DCH_applName, appl);
    b.addString(DCH_attrGroup, group);
    b.addString(DCH_sourceName, source);
    b.add32(DCH_handle, handle);
    b.add16(DCH_dataFlag, flag);
    size_t at = b.offset();
    memcpy(message.data() + at, pairs.data(), pairs.size());
    uint32_t word = htonl(static_cast<uint32_t>(at + pairs.size()));
    memcpy(message.data(), &word, 4);
    message.resize(at + pairs.size());
    return message;
}

// Formats row i of the mixed-type group and sends it; pairs receives the
// attribute pairs as they left.
long sendMixedRow(long handle, int i, short flag, std::vector<char> &pairs) {
    char *row = nullptr;
    long size = 0;
    long status = 0;
    std::string text = "row-" + std::to_string(i);
    int32_t count = i * 7;
    int16_t small = static_cast<int16_t>(i % 300 - 150);
    int32_t wide = -i * 1000;
    int16_t half = static_cast<int16_t>(i);
    dp_formatData(&status, &row, &size, "text", text.c_str(), static_cast<long>(text.size() + 1),
                  'D');
    dp_formatData(&status, &row, &size, "count", &count, 4, 'A');
    dp_formatData(&status, &row, &size, "small", &small, 2, 'S');
    dp_formatData(&status, &row, &size, "wide", &wide, 4, 'N');
    dp_formatData(&status, &row, &size, "half", &half, 2, 'A');
    EXPECT_EQ(status, 0);
    pairs.assign(row + 30, row + size);
    dp_data(&status, handle, flag, &row);
    return status;
}

long registerText(const char *text) {
    long status = -1;
    EXPECT_EQ(dp_register(&status, text), 0);
    return status;
}

long online(long &handle, const char *appl, const char *group, const char *source) {
    long status = -1;
    dp_online(&status, &handle, appl, group, source);
    return status;
}

long sendOne(long handle, const char *name, int32_t value) {
    char *row = nullptr;
    long size = 0;
    long status = 0;
    dp_formatData(&status, &row, &size, name, &value, 4, 'A');
    dp_data(&status, handle, 0, &row);
    return status;
}

TEST(DchDaemonTest, WithoutTheMetricsOptionNoMetricsServerIsAnnounced) {
    EXPECT_EQ(theDaemon().output().find("metrics"), std::string::npos) << theDaemon().output();
    EXPECT_EQ(theDaemon().metricsPort(), 0);
}

TEST(DchDaemonTest, ProviderWholeLifeReachesTheSubscribersByteForByteAndInOrder) {
    StatusFeed &feed = StatusFeed::get();
    constexpr int kRows = 1000;
    RowCollector data("life", "grp", kRows);

    EXPECT_EQ(registerText("APPL life Whole life;GROUP grp Mixed;ATTR text D 32;ATTR count A 4;"
                           "ATTR small S 2;ATTR wide N 4;ATTR half A 2"),
              0);
    long handle = 0;
    ASSERT_EQ(online(handle, "life", "grp", "src"), 0);
    EXPECT_GT(handle, 0);
    std::vector<std::vector<char>> expected;
    for (int i = 0; i < kRows; ++i) {
        std::vector<char> pairs;
        auto flag = static_cast<int16_t>(i % 3);
        ASSERT_EQ(sendMixedRow(handle, i, flag, pairs), 0) << "row " << i;
        expected.push_back(
            forwarded("life", "grp", "src", static_cast<int32_t>(handle), flag, pairs));
    }
    long status = -1;
    dp_offline(&status, handle);
    EXPECT_EQ(status, 0);
    dp_unregister(&status, "life");
    EXPECT_EQ(status, 0);

    ASSERT_TRUE(data.waitAll());
    std::vector<std::vector<char>> rows = data.rows();
    ASSERT_EQ(rows.size(), expected.size());
    for (size_t i = 0; i < rows.size(); ++i) ASSERT_EQ(rows[i], expected[i]) << "row " << i;

    // Every lifecycle event, in order.
    EXPECT_TRUE(feed.take("life,,,127.0.0.1,", ",4112"));
    EXPECT_TRUE(feed.take("life,grp,src,127.0.0.1,", ",4117"));
    EXPECT_TRUE(feed.take("life,grp,src,127.0.0.1,", ",4133"));
    EXPECT_TRUE(feed.take("life,,,127.0.0.1,", ",4128"));
    EXPECT_TRUE(feed.pending("life,").empty());
}

TEST(DchDaemonTest, CatalogueTextsOfARegisteredApplication) {
    ASSERT_EQ(registerText("APPL cat Catalogue: app;GROUP g1 First group;ATTR a1 A 4 Count of "
                           "things;ATTR a2 D 16 Name, with comma;GROUP g2;ATTR b1 S 2"),
              0);
    int length = 0;
    char *text = nullptr;
    ASSERT_EQ(dc_getApplications(&length, &text, "cat", 5), 0);
    EXPECT_STREQ(text, "cat");
    free(text);
    text = nullptr;
    ASSERT_EQ(dc_getApplications(&length, &text, nullptr, 5), 0);
    EXPECT_NE(std::string(text).find("cat"), std::string::npos);
    free(text);
    text = nullptr;
    ASSERT_EQ(dc_getApplAttributes(&length, &text, "cat", 5), 0);
    EXPECT_STREQ(text, "g1,a1,A,4\ng1,a2,D,16\ng2,b1,S,2");
    EXPECT_EQ(length, static_cast<int>(strlen(text)));
    free(text);
    text = nullptr;
    ASSERT_EQ(dc_getApplHelp(&length, &text, "cat", 5), 0);
    EXPECT_STREQ(text,
                 ",,Catalogue  app\ng1,,First group\ng1,a1,Count of things\ng1,a2,Name  with "
                 "comma\ng2,,\ng2,b1,");
    free(text);
    text = nullptr;
    // An unknown application has an empty text, which the client reports as
    // a failure.
    EXPECT_EQ(dc_getApplAttributes(&length, &text, "nosuch", 5), 1);
    EXPECT_EQ(text, nullptr);
    EXPECT_EQ(dc_getApplications(&length, &text, "nosuch", 5), 1);

    // The name list: one report per application to the status waiters.
    StatusFeed &feed = StatusFeed::get();
    EXPECT_EQ(dc_sendApplNameList(), 0);
    EXPECT_TRUE(feed.take("cat,,,127.0.0.1,", ",8268"));
    long status = -1;
    dp_unregister(&status, "cat");
    EXPECT_EQ(status, 0);
}

TEST(DchDaemonTest, ActionsAreRecordedAndAnsweredNeverExecuted) {
    EXPECT_EQ(dc_provideAction(1, "owner", "node", "sub", "restart", 4242, 0,
                               "now=1 LOGONID=secret-word"),
              0);
    EXPECT_EQ(dc_waitForActionResults(4242), 0);
    EXPECT_EQ(dc_waitForActionResults(4243), ZEVD_DCH_UNKNOWN_ACTION);
    int object = 0;
    EXPECT_EQ(dc_deferReportRequest(&object, 4242, 1700000000, "key", "table", "src"), 0);
    // The request's parameters never reach the daemon's trace.
    EXPECT_EQ(theDaemon().trace().find("secret-word"), std::string::npos);
    EXPECT_TRUE(theDaemon().waitTrace("no action 4243"));
}

TEST(DchDaemonTest, TwoProvidersAndTwoSubscribersSeeOnlyTheirOwnRows) {
    constexpr int kRows = 20;
    ASSERT_EQ(registerText("APPL two;GROUP ga;ATTR v A 4;GROUP gb;ATTR v A 4"), 0);
    RowCollector a("two", "ga", kRows + 1);
    RowCollector b("two", "gb", kRows + 1);
    long ha = 0, hb = 0;
    ASSERT_EQ(online(ha, "two", "ga", "pa"), 0);
    ASSERT_EQ(online(hb, "two", "gb", "pb"), 0);
    EXPECT_NE(ha, hb);
    for (int i = 0; i < kRows; ++i) {
        ASSERT_EQ(sendOne(ha, "v", i), 0);
        ASSERT_EQ(sendOne(hb, "v", 1000 + i), 0);
    }
    // A last row for each: a foreign row would have come before it.
    ASSERT_EQ(sendOne(ha, "v", -1), 0);
    ASSERT_EQ(sendOne(hb, "v", -2), 0);
    ASSERT_TRUE(a.waitAll());
    ASSERT_TRUE(b.waitAll());
    auto check = [](const std::vector<std::vector<char>> &rows, long handle, const char *group,
                    int first, int last) {
        ASSERT_EQ(rows.size(), static_cast<size_t>(kRows + 1));
        for (size_t i = 0; i < rows.size(); ++i) {
            FieldReader r(rows[i].data(), rows[i].size());
            ASSERT_EQ(r.next(), DCH_requestType);
            ASSERT_EQ(r.next(), DCH_applName);
            ASSERT_EQ(r.next(), DCH_attrGroup);
            EXPECT_STREQ(r.value(), group);
            ASSERT_EQ(r.next(), DCH_sourceName);
            ASSERT_EQ(r.next(), DCH_handle);
            EXPECT_EQ(r.int32(), handle);
            ASSERT_EQ(r.next(), DCH_dataFlag);
            ASSERT_EQ(r.next(), DCH_attrName);
            ASSERT_EQ(r.next(), DCH_attrValue);
            EXPECT_EQ(r.int32(), i < kRows ? first + static_cast<int>(i) : last);
        }
    };
    check(a.rows(), ha, "ga", 0, -1);
    check(b.rows(), hb, "gb", 1000, -2);
    long status = -1;
    dp_unregister(&status, "two");
    EXPECT_EQ(status, 0);
}

TEST(DchDaemonTest, UnknownHandlesApplicationsGroupsAndAttributesHaveTheirStatus) {
    long status = -1;
    long handle = 0;
    EXPECT_EQ(online(handle, "nosuch", "g", "s"), ZEVD_DCH_UNKNOWN_APPL);
    dp_unregister(&status, "nosuch");
    EXPECT_EQ(status, ZEVD_DCH_UNKNOWN_APPL);
    dp_offline(&status, 999999);
    EXPECT_EQ(status, ZEVD_DCH_UNKNOWN_HANDLE);
    EXPECT_EQ(sendOne(999999, "v", 1), ZEVD_DCH_UNKNOWN_HANDLE);
    ASSERT_EQ(registerText("APPL known;GROUP g;ATTR v A 4"), 0);
    EXPECT_EQ(online(handle, "known", "other", "s"), ZEVD_DCH_UNKNOWN_GROUP);
    ASSERT_EQ(online(handle, "known", "g", "s"), 0);
    EXPECT_EQ(sendOne(handle, "notInGroup", 1), ZEVD_DCH_UNKNOWN_ATTR);
    EXPECT_EQ(sendOne(handle, "v", 1), 0);
    // A registration that breaks a rule the builder does not check.
    EXPECT_EQ(registerText("APPL dup;GROUP g;ATTR v A 4;ATTR v A 4"), ZEVD_DCH_BAD_CATALOGUE);
    dp_unregister(&status, "known");
    EXPECT_EQ(status, 0);
    // Unregistering released the handle.
    dp_offline(&status, handle);
    EXPECT_EQ(status, ZEVD_DCH_UNKNOWN_HANDLE);
}

// A raw TCP client of the daemon port.
class TcpClient {
public:
    TcpClient() : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in to = loopbackAddress(theDaemon().port());
        connected_ = connect(fd_, reinterpret_cast<sockaddr *>(&to), sizeof to) == 0;
    }
    ~TcpClient() { closeNow(); }
    TcpClient(const TcpClient &) = delete;
    TcpClient &operator=(const TcpClient &) = delete;
    bool connected() const { return connected_; }
    bool send(const std::vector<char> &m) {
        return ::send(fd_, m.data(), m.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(m.size());
    }
    // One message: its length word, then the rest; empty after 10 s.
    std::vector<char> receive() {
        std::vector<char> m(4);
        if (!readExactly(m.data(), 4)) return {};
        uint32_t length = messageLength(m.data());
        if (length < 4 || length > 65536) return {};
        m.resize(length);
        if (!readExactly(m.data() + 4, length - 4)) return {};
        return m;
    }
    // True when the other side closes the connection within limit (what
    // arrives before is skipped).
    bool endsWithin(std::chrono::milliseconds limit) {
        auto deadline = std::chrono::steady_clock::now() + limit;
        for (;;) {
            auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
            pollfd p = {fd_, POLLIN, 0};
            if (left.count() <= 0 || poll(&p, 1, static_cast<int>(left.count())) != 1) return false;
            char skipped[256];
            ssize_t n = recv(fd_, skipped, sizeof skipped, 0);
            if (n == 0 || (n < 0 && errno == ECONNRESET)) return true;
            if (n < 0) return false;
        }
    }
    void closeNow() {
        if (fd_ >= 0) close(fd_);
        fd_ = -1;
    }

private:
    bool readExactly(char *at, size_t count) {
        while (count > 0) {
            pollfd p = {fd_, POLLIN, 0};
            if (poll(&p, 1, 10000) != 1) return false;
            ssize_t n = recv(fd_, at, count, 0);
            if (n <= 0) return false;
            at += n;
            count -= static_cast<size_t>(n);
        }
        return true;
    }
    int fd_;
    bool connected_ = false;
};

TEST(DchDaemonTest, TcpRequestsAreAnsweredOnTheirConnectionAndItsEndReleasesItsHandles) {
    StatusFeed &feed = StatusFeed::get();
    ASSERT_EQ(registerText("APPL tcp;GROUP g;ATTR v A 4"), 0);
    // A subscriber on a connection of its own gets the rows on it.
    TcpClient subscriber;
    ASSERT_TRUE(subscriber.connected());
    ASSERT_TRUE(subscriber.send(buildMessage([](MessageBuilder &b) {
        b.add16(DCH_requestType, ZEVD_REQ_DC_WAIT_ON_DATA);
        b.addString(DCH_applName, "tcp");
        b.addString(DCH_attrGroup, "g");
        b.add32(DCH_status, 1);
    })));

    TcpClient provider;
    ASSERT_TRUE(provider.connected());
    ASSERT_TRUE(provider.send(buildMessage([](MessageBuilder &b) {
        b.add16(DCH_requestType, ZEVD_REQ_DP_ONLINE);
        b.addString(DCH_applName, "tcp");
        b.addString(DCH_attrGroup, "g");
        b.addString(DCH_sourceName, "t1");
    })));
    std::vector<char> answer = provider.receive();
    FieldReader r(answer.data(), answer.size());
    ASSERT_EQ(r.next(), DCH_status);
    EXPECT_EQ(r.int32(), 0);
    ASSERT_EQ(r.next(), DCH_handle);
    int32_t handle = r.int32();
    EXPECT_TRUE(feed.take("tcp,g,t1,127.0.0.1,", ",4117"));

    std::vector<char> row = buildMessage([&](MessageBuilder &b) {
        b.add16(DCH_requestType, ZEVD_REQ_DP_DATA);
        b.add32(DCH_handle, handle);
        b.add16(DCH_dataFlag, 5);
        b.addString(DCH_attrName, "v");
        int32_t value = 77;
        b.addValue(DCH_attrValue, &value, 4, "A");
    });
    ASSERT_TRUE(provider.send(row));
    answer = provider.receive();
    FieldReader r2(answer.data(), answer.size());
    ASSERT_EQ(r2.next(), DCH_status);
    EXPECT_EQ(r2.int32(), 0);
    std::vector<char> got = subscriber.receive();
    EXPECT_EQ(got, forwarded("tcp", "g", "t1", handle, 5,
                             std::vector<char>(row.begin() + 30, row.end())));

    // The connection's end is its provider going offline.
    provider.closeNow();
    EXPECT_TRUE(feed.take("tcp,g,t1,127.0.0.1,", ",4133"));
    long status = -1;
    dp_offline(&status, handle);
    EXPECT_EQ(status, ZEVD_DCH_UNKNOWN_HANDLE);
    dp_unregister(&status, "tcp");
    EXPECT_EQ(status, 0);
}

TEST(DchDaemonTest, TcpPeerThatStallsIsCutOffAndUdpIsServedMeanwhile) {
    TcpClient stalled;
    ASSERT_TRUE(stalled.connected());
    // The first 10 bytes of a 100-byte message, then nothing.
    ASSERT_TRUE(stalled.send({0, 0, 0, 100, 0, 16, 0, 0, 0, 2}));
    auto start = std::chrono::steady_clock::now();
    long handle = 0;
    EXPECT_EQ(online(handle, "nosuch", "g", "s"), ZEVD_DCH_UNKNOWN_APPL);
    // Served within the daemon's time-out (2 s) and a second.
    EXPECT_LT(std::chrono::steady_clock::now() - start, 3s);
    // The daemon's side closes the connection: the peer reads its end.
    EXPECT_TRUE(stalled.endsWithin(10s));
    EXPECT_TRUE(theDaemon().waitTrace("Error: TCP received 10 bytes, expected 100 bytes"));
}

TEST(DchDaemonTest, SubscriberThatStopsAcceptingIsDropped) {
    ASSERT_EQ(registerText("APPL gone;GROUP g;ATTR v A 4"), 0);
    uint16_t port = 0;
    {
        UdpPeer subscriber(theDaemon().port());
        ASSERT_TRUE(subscriber.bound());
        port = subscriber.localPort();
        ASSERT_TRUE(subscriber.send(buildMessage([](MessageBuilder &b) {
            b.add16(DCH_requestType, ZEVD_REQ_DC_WAIT_ON_DATA);
            b.addString(DCH_applName, "gone");
            b.addString(DCH_attrGroup, "g");
            b.add32(DCH_status, 1);
        })));
    }  // closed: its port refuses from now on
    long handle = 0;
    ASSERT_EQ(online(handle, "gone", "g", "s"), 0);
    std::string line = "Error: data subscriber 127.0.0.1 port " + std::to_string(port) +
                       " of gone g dropped after 3 failed sends";
    for (int i = 0; i < 12 && theDaemon().trace().find(line) == std::string::npos; ++i)
        EXPECT_EQ(sendOne(handle, "v", i), 0);  // the provider never notices
    EXPECT_TRUE(theDaemon().waitTrace(line));
    long status = -1;
    dp_unregister(&status, "gone");
    EXPECT_EQ(status, 0);
}

TEST(DchDaemonTest, GarbageDatagramsAreDroppedAndTheDaemonServesOn) {
    UdpPeer stranger(theDaemon().port());
    std::mt19937 random(7);
    for (int i = 0; i < 200; ++i) {
        std::vector<char> bytes(random() % 300);
        for (char &c : bytes) c = static_cast<char>(random());
        if (bytes.size() >= 10 && i % 2 == 0) {  // a request code that reads, then garbage
            const char head[] = {0, 0, 0, 0, 0, 16, 0, 0, 0, 2};
            memcpy(bytes.data(), head, sizeof head);
        }
        stranger.send(bytes);
    }
    ASSERT_EQ(registerText("APPL after;GROUP g;ATTR v A 4"), 0);
    long handle = 0;
    EXPECT_EQ(online(handle, "after", "g", "s"), 0);
    long status = -1;
    dp_unregister(&status, "after");
    EXPECT_EQ(status, 0);
    EXPECT_NE(theDaemon().trace().find("dropped"), std::string::npos);
}

// Waits for the daemon's line that refuses a request cut short, from any
// port of 127.0.0.1.
bool waitCutLine(const std::string &request) {
    const std::regex line("Error: " + request +
                          " from 127\\.0\\.0\\.1 port [0-9]+ is malformed: its length word "
                          "exceeds the bytes received");
    for (int i = 0; i < 2000; ++i) {
        if (std::regex_search(theDaemon().trace(), line)) return true;
        std::this_thread::sleep_for(10ms);
    }
    return false;
}

// A datagram that ends short of what its length word announces is not whole:
// it is refused as malformed, never read on into the zeros of the worker's
// buffer behind it.
TEST(DchDaemonTest, DatagramCutShortOfItsLengthWordIsRefusedAndChangesNothing) {
    ASSERT_EQ(registerText("APPL cut;GROUP g;ATTR n A 4"), 0);
    long handle = 0;
    ASSERT_EQ(online(handle, "cut", "g", "s"), 0);
    ASSERT_GT(handle, 0);
    RawProvider raw(theDaemon().port());
    std::vector<char> offline = buildMessage([&](MessageBuilder &b) {
        b.add16(DCH_requestType, ZEVD_REQ_DP_OFFLINE);
        b.add32(DCH_handle, static_cast<int32_t>(handle));
    });
    offline.pop_back();  // the handle's last byte; the length word still counts it
    RawAnswer answer = raw.ask(offline);
    EXPECT_TRUE(answer.answered);
    EXPECT_EQ(answer.status, ZEVD_DCH_MALFORMED);
    EXPECT_TRUE(waitCutLine("dp_offline")) << theDaemon().trace();

    // A row cut inside its value is neither answered 0 nor taken.
    std::vector<char> row = buildMessage([&](MessageBuilder &b) {
        b.add16(DCH_requestType, ZEVD_REQ_DP_DATA);
        b.add32(DCH_handle, static_cast<int32_t>(handle));
        b.add16(DCH_dataFlag, 0);
        b.addString(DCH_attrName, "n");
        int32_t value = 7;
        b.addValue(DCH_attrValue, &value, 4, "A");
    });
    row.resize(row.size() - 2);
    answer = raw.ask(row);
    EXPECT_TRUE(answer.answered);
    EXPECT_EQ(answer.status, ZEVD_DCH_MALFORMED);
    EXPECT_TRUE(waitCutLine("dp_data")) << theDaemon().trace();

    // The handle is still online: the whole request takes it offline.
    long status = -1;
    dp_offline(&status, handle);
    EXPECT_EQ(status, 0);
    dp_unregister(&status, "cut");
    EXPECT_EQ(status, 0);
}

}  // namespace
}  // namespace zevd::test
