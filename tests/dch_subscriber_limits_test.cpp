// --max-subscribers through the handlers: data and status subscribers share
// one bound; a subscription past it is refused with an error line and
// counted (drops reason subscriber_limit, in the counters lines and on the
// metrics page); a withdraw makes room again.
#include <gtest/gtest.h>

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

std::string counterLine(const Daemon &d, const std::string &name) {
    for (const std::string &line : d.dch.counters().lines())
        if (line.rfind("counter " + name + " ", 0) == 0) return line;
    return "(no line)";
}

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
