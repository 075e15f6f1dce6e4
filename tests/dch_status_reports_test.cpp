// Status reports of events that reach many subscribers, through the
// handlers: a turn sends kStatusSendsPerTurn of them at most, the rest wait
// in order and go out in later slices, each to those that subscribed before
// its event and are still subscribed; too many waiting is written once.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/dch_requests.h"
#include "support/trace_capture.h"
#include "zevd610.h"
#include "zevdchd.h"

namespace {

namespace dch = zevd::dch;
using namespace zevd::test;

// Application app with handles 1 to handles, on sources s1, s2, ...
void onlineMany(Daemon &d, int handles) {
    d.registerApp("app");
    for (int i = 1; i <= handles; ++i)
        ASSERT_EQ(d.online("app", "grp", "s" + std::to_string(i)), i);
}

// The reports of unregistering app with handles 1 to handles.
std::vector<Fields> unregisterReports(int handles) {
    std::vector<Fields> out;
    for (int i = 1; i <= handles; ++i)
        out.push_back(
            report(ZEVD_REQ_DP_OFFLINE, "app", "grp", "s" + std::to_string(i), kProvider));
    out.push_back(report(ZEVD_REQ_DP_UNREGISTER, "app", "", "", kProvider));
    return out;
}

// 400 handles and 3 subscribers: the unregister makes 401 reports, 1203
// sends; its turn sends 1024 (341 reports to all three, the 342nd to the
// first), and 60 reports wait.
constexpr int kHandles = 400;
constexpr size_t kFirstSlice = dch::kStatusSendsPerTurn;
static_assert(kFirstSlice == 1024, "the counts below are worked out for this slice");

// kHandles online, kSubscriber, 2 and 3 subscribed, and app unregistered.
void unregisterBeforeThree(Daemon &d) {
    onlineMany(d, kHandles);
    for (const Peer &p : {kSubscriber, kSubscriber2, kSubscriber3}) d.subscribeStatus(p);
    EXPECT_EQ(d.ask(unregisterRequest("app"), kProvider), status(0));
}

TEST(DchStatusReportsTest, ManyReportsGoOutInSlicesInTheOrderOfTheirEvents) {
    Daemon d;
    TraceCapture capture("detail");
    unregisterBeforeThree(d);
    EXPECT_EQ(d.transport.deliveries.size(), kFirstSlice);
    EXPECT_EQ(d.dch.statusReportsWaiting(), 60u);
    EXPECT_FALSE(d.dch.statusReportsOverdue());
    EXPECT_EQ(d.dch.counters().statusReports.load(), kFirstSlice);
    EXPECT_EQ(counterLine(d, "status_reports_waiting"), "counter status_reports_waiting 60");
    EXPECT_EQ(capture.textsOf("Dch::sendStatusReports"),
              (std::vector<std::string>{"60 status reports wait, sent between requests\n"}));
    EXPECT_EQ(d.transport.deliveredTo(kSubscriber).size(), 342u);
    EXPECT_EQ(d.transport.deliveredTo(kSubscriber3).size(), 341u);

    // The next slice, as the worker sends it while no request waits.
    EXPECT_FALSE(d.dch.sendStatusReports());
    EXPECT_EQ(d.transport.deliveries.size(), 3u * (kHandles + 1));
    EXPECT_EQ(d.dch.statusReportsWaiting(), 0u);
    EXPECT_EQ(counterLine(d, "status_reports_waiting"), "counter status_reports_waiting 0");
    for (const Peer &p : {kSubscriber, kSubscriber2, kSubscriber3})
        EXPECT_EQ(fieldsOfEach(d.transport.deliveredTo(p)), unregisterReports(kHandles))
            << p.port();
    // Nothing more to send: a slice sends nothing and says nothing.
    capture.clear();
    EXPECT_FALSE(d.dch.sendStatusReports());
    EXPECT_EQ(d.transport.deliveries.size(), 3u * (kHandles + 1));
    EXPECT_TRUE(capture.textsOf("Dch::sendStatusReports").empty());
}

TEST(DchStatusReportsTest, ReportOfALaterEventWaitsBehindThoseThatWait) {
    Daemon d;
    unregisterBeforeThree(d);
    ASSERT_EQ(d.dch.statusReportsWaiting(), 60u);

    // Its turn sends what waited first, then its own report.
    d.registerApp("later", kOtherProvider);
    EXPECT_EQ(d.dch.statusReportsWaiting(), 0u);
    std::vector<Fields> expected = unregisterReports(kHandles);
    expected.push_back(report(ZEVD_REQ_DP_REGISTER, "later", "", "", kOtherProvider));
    for (const Peer &p : {kSubscriber, kSubscriber2, kSubscriber3})
        EXPECT_EQ(fieldsOfEach(d.transport.deliveredTo(p)), expected) << p.port();
}

TEST(DchStatusReportsTest, WaitingReportsGoOnlyToThoseSubscribedBeforeTheirEventAndStillSo) {
    Daemon d;
    unregisterBeforeThree(d);
    ASSERT_EQ(d.dch.statusReportsWaiting(), 60u);

    // The third withdraws and a fourth subscribes while 60 reports wait;
    // each request's turn then sends them.
    EXPECT_TRUE(d.send(statusWaitRequest(0), kSubscriber3).empty());
    const Peer fourth = peerAt("127.0.0.1", 41004);
    d.subscribeStatus(fourth);
    EXPECT_EQ(d.dch.statusReportsWaiting(), 0u);
    std::vector<Fields> all = unregisterReports(kHandles);
    EXPECT_EQ(fieldsOfEach(d.transport.deliveredTo(kSubscriber)), all);
    EXPECT_EQ(fieldsOfEach(d.transport.deliveredTo(kSubscriber2)), all);
    std::vector<Fields> before(all.begin(), all.begin() + 341);
    EXPECT_EQ(fieldsOfEach(d.transport.deliveredTo(kSubscriber3)), before);
    EXPECT_TRUE(d.transport.deliveredTo(fourth).empty());
    // The fourth gets what happens from now on.
    d.registerApp("later", kOtherProvider);
    EXPECT_EQ(fieldsOfEach(d.transport.deliveredTo(fourth)),
              (std::vector<Fields>{report(ZEVD_REQ_DP_REGISTER, "later", "", "", kOtherProvider)}));
}

TEST(DchStatusReportsTest, SubscriberDroppedInASliceGetsNoMoreOfItsReports) {
    Daemon d;
    onlineMany(d, kHandles);
    for (const Peer &p : {kSubscriber, kSubscriber2, kSubscriber3}) d.subscribeStatus(p);
    // The second stops taking reports: dropped at its third failed send.
    d.transport.unreachable.push_back(kSubscriber2);
    TraceCapture capture("error");
    EXPECT_EQ(d.ask(unregisterRequest("app"), kProvider), status(0));
    EXPECT_EQ(d.dch.statusSubscribers().size(), 2u);
    EXPECT_EQ(d.transport.failedDeliveries.size(), 3u);
    EXPECT_EQ(capture.texts(), (std::vector<std::string>{
                                   "Error: status subscriber 127.0.0.1 port 41002 dropped after 3 "
                                   "failed sends\n"}));
    // It is taken out of the list at the end of the slice; until then it
    // is passed over, each time counted as a send, so the slice covers 341
    // reports as before and 60 wait. The next slice sends them to the two
    // left.
    EXPECT_EQ(d.dch.statusReportsWaiting(), 60u);
    EXPECT_FALSE(d.dch.sendStatusReports());
    EXPECT_EQ(fieldsOfEach(d.transport.deliveredTo(kSubscriber)), unregisterReports(kHandles));
    EXPECT_EQ(fieldsOfEach(d.transport.deliveredTo(kSubscriber3)), unregisterReports(kHandles));
    EXPECT_EQ(d.transport.failedDeliveries.size(), 3u);
    EXPECT_EQ(d.drops(dch::kDropSubscriberUnreachable), 3u);
}

TEST(DchStatusReportsTest, TooManyWaitingIsWrittenOnceAndReportsForNobodyAreLetGo) {
    Daemon d;
    // 1024 applications and 1024 subscribers: each dc_sendApplNameList
    // makes 1024 reports of 1024 sends, and its turn sends one of them. The
    // subscribers share a connection, so that closing it withdraws them all.
    for (int i = 0; i < 1024; ++i) d.registerApp("a" + std::to_string(i));
    for (int i = 0; i < 1024; ++i)
        d.subscribeStatus(peerAt("127.0.0.1", static_cast<uint16_t>(42000 + i), 9));
    std::vector<char> nameList = encode(ZEVD_REQ_DC_SEND_APPL_NAME_LIST, {str(DCH_sourceName, "")});
    TraceCapture capture("error");
    size_t requests = 0;
    while (!d.dch.statusReportsOverdue() && requests < 200) {
        EXPECT_TRUE(d.send(nameList).empty());
        ++requests;
    }
    ASSERT_TRUE(d.dch.statusReportsOverdue());
    EXPECT_EQ(requests, dch::kMaxWaitingReports / 1023 + 1);
    size_t waiting = requests * 1023;
    EXPECT_EQ(d.dch.statusReportsWaiting(), waiting);
    EXPECT_EQ(capture.texts(),
              (std::vector<std::string>{"Error: " + std::to_string(waiting) +
                                        " status reports wait to be sent: requests wait until they "
                                        "are 131072 or fewer\n"}));
    // Still too many after the next: not written again.
    EXPECT_TRUE(d.send(nameList).empty());
    EXPECT_EQ(capture.texts().size(), 1u);

    // The connection closes: the reports that wait are for nobody now and
    // go at the end of that turn, with no send.
    size_t sent = d.transport.deliveries.size();
    d.dch.disconnect(9);
    EXPECT_TRUE(d.dch.statusSubscribers().empty());
    EXPECT_EQ(d.dch.statusReportsWaiting(), 0u);
    EXPECT_FALSE(d.dch.statusReportsOverdue());
    EXPECT_EQ(d.transport.deliveries.size(), sent);
    EXPECT_EQ(counterLine(d, "status_reports_waiting"), "counter status_reports_waiting 0");
}

}  // namespace
