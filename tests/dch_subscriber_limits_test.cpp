// --max-subscribers through the handlers: data and status subscribers share
// one bound; a subscription past it is refused with an error line and
// counted (drops reason subscriber_limit, in the counters lines and on the
// metrics page); a withdraw makes room again.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include "support/dch_requests.h"
#include "support/metrics_page.h"
#include "support/trace_capture.h"
#include "zevd610.h"
#include "zevdchd.h"
#include "zevdchd_metrics.h"

namespace {

namespace dch = zevd::dch;
using namespace zevd::test;

TEST(DchSubscriberLimitsTest, DataAndStatusSubscribersShareTheBound) {
    Daemon d;
    d.dch.setMaxSubscribers(3);
    d.subscribeData(kSubscriber, "app", "grp");
    d.subscribeData(kSubscriber2, "app", "other");
    d.subscribeStatus(kSubscriber3);
    ASSERT_EQ(d.dch.dataSubscribers().size(), 2u);
    ASSERT_EQ(d.dch.statusSubscribers().size(), 1u);

    TraceCapture capture("error");
    Peer late = peerAt("127.0.0.1", 41004);
    d.subscribeStatus(late);
    d.subscribeData(late, "app", "grp");
    EXPECT_EQ(d.dch.dataSubscribers().size(), 2u);
    EXPECT_EQ(d.dch.statusSubscribers().size(), 1u);
    EXPECT_EQ(capture.texts(),
              (std::vector<std::string>{
                  "Error: status subscriber 127.0.0.1 port 41004 refused: 3 subscribers already "
                  "(--max-subscribers)\n",
                  "Error: data subscriber 127.0.0.1 port 41004 refused: 3 subscribers already "
                  "(--max-subscribers)\n"}));
    EXPECT_EQ(d.drops(dch::kDropSubscriberLimit), 2u);
    EXPECT_EQ(counterLine(d, "drops{reason=\"subscriber_limit\"}"),
              "counter drops{reason=\"subscriber_limit\"} 2");

    // Subscribing again as a subscriber already is takes no place.
    d.subscribeData(kSubscriber, "app", "grp");
    EXPECT_EQ(d.drops(dch::kDropSubscriberLimit), 2u);

    // A withdraw makes room for one.
    EXPECT_TRUE(d.send(dataWaitRequest("app", "other", 0), kSubscriber2).empty());
    d.subscribeStatus(late);
    EXPECT_EQ(d.dch.statusSubscribers().size(), 2u);
    d.subscribeData(late, "app", "grp");
    EXPECT_EQ(d.drops(dch::kDropSubscriberLimit), 3u);
}

TEST(DchSubscriberLimitsTest, TheDefaultIs4096) {
    Daemon d;
    EXPECT_EQ(dch::kDefaultMaxSubscribers, 4096u);
    // Half of them data subscribers, half status subscribers, each from a
    // port of its own.
    for (uint16_t i = 0; i < 4096; ++i) {
        Peer peer = peerAt("127.0.0.1", static_cast<uint16_t>(20000 + i));
        if (i % 2 == 0)
            d.subscribeData(peer, "app", "grp");
        else
            d.subscribeStatus(peer);
    }
    EXPECT_EQ(d.dch.dataSubscribers().size() + d.dch.statusSubscribers().size(), 4096u);
    EXPECT_EQ(d.drops(dch::kDropSubscriberLimit), 0u);
    TraceCapture capture("error");
    d.subscribeStatus(peerAt("127.0.0.1", 30000));
    EXPECT_TRUE(
        capture.hasText("Error: status subscriber 127.0.0.1 port 30000 refused: 4096 "
                        "subscribers already (--max-subscribers)"))
        << capture.joined();
    EXPECT_EQ(d.drops(dch::kDropSubscriberLimit), 1u);
    EXPECT_EQ(d.dch.counters().statusSubscribers.load(), 2048u);
}

// Subscribers dropped together are taken out of the list together, in one
// pass at the end of the row, and each peer is forgotten once its last
// subscription is gone: the row's cost grows with the subscribers, not with
// their square.
TEST(DchSubscriberLimitsTest, ThousandsDroppedByOneRowAreTakenOutTogether) {
    const int subscribers = 20000;
    Daemon d;
    d.dch.setMaxSubscribers(subscribers + 1);
    d.registerApp("app");
    ASSERT_EQ(d.online("app", "grp", "src"), 1);
    std::vector<Peer> peers;
    for (int i = 0; i < subscribers; ++i) {
        peers.push_back(peerAt("127.0.0.1", static_cast<uint16_t>(20000 + i)));
        d.subscribeData(peers.back(), "app", "grp");
    }
    // The first also waits for status reports: it stays, and is not forgotten.
    d.subscribeStatus(peers.front());
    d.transport.forgotten.clear();
    d.transport.noneReachable = true;
    TraceCapture capture("error");
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(d.ask(dataRequest(1, 0, {{"count", be32(i)}}), kProvider), status(0));
    ASSERT_EQ(d.dch.dataSubscribers().size(), static_cast<size_t>(subscribers));
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(d.ask(dataRequest(1, 0, {{"count", be32(2)}}), kProvider), status(0));
    double ms =
        std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
    printf("figure: a row that drops %d data subscribers: %.1f ms\n", subscribers, ms);
    EXPECT_TRUE(d.dch.dataSubscribers().empty());
    EXPECT_EQ(d.dch.statusSubscribers().size(), 1u);
    EXPECT_EQ(d.dch.counters().dataSubscribers.load(), 0u);
    EXPECT_EQ(capture.count("dropped after 3 failed sends"), static_cast<size_t>(subscribers));
    EXPECT_EQ(d.drops(dch::kDropSubscriberUnreachable), 3u * subscribers);
    std::vector<Peer> expected(peers.begin() + 1, peers.end());
    EXPECT_EQ(d.transport.forgotten, expected);
}

TEST(DchSubscriberLimitsTest, RefusalsAreOnTheMetricsPage) {
    Daemon d;
    d.dch.setMaxSubscribers(1);
    d.subscribeStatus(kSubscriber);
    d.subscribeStatus(kSubscriber2);
    d.subscribeData(kSubscriber3, "app", "grp");
    CheckedPage page = check(dch::renderMetrics(dch::metricsSnapshot(d.dch)));
    EXPECT_TRUE(page.errors.empty()) << ::testing::PrintToString(page.errors);
    EXPECT_EQ(page.value(key("zevd_dch_drops_total", {{"reason", "subscriber_limit"}})), "2");
    EXPECT_EQ(page.value(key("zevd_dch_subscribers", {{"kind", "status"}})), "1");
    EXPECT_EQ(page.value(key("zevd_dch_subscribers", {{"kind", "data"}})), "0");
}

}  // namespace
