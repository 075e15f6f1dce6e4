// The daemon's request handlers without sockets: every request goes through
// Dch::handle, and a transport that records what it is handed shows exactly
// what the daemon would have sent, and to whom.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <optional>
#include <ostream>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "common/message.h"
#include "support/dch_requests.h"
#include "support/trace_capture.h"
#include "zevd610.h"
#include "zevdchd.h"

namespace {

using zevd::FieldReader;
using zevd::MessageBuilder;
using zevd::dch::Dch;
using zevd::dch::Peer;
using zevd::dch::Request;
using zevd::dch::Transport;
using zevd::test::TraceCapture;
namespace dch = zevd::dch;
using namespace zevd::test;  // the requests, the recording transport and Daemon

// ---------------------------------------------------------------------------
// Providers: register, online, offline, unregister, rows
// ---------------------------------------------------------------------------

TEST(DchProviderTest, RegisterStoresTheCatalogue) {
    Daemon d;
    TraceCapture capture("error");
    EXPECT_EQ(d.ask(registerRequest("app", "app help"), kProvider), status(0));
    ASSERT_EQ(d.dch.applications().count("app"), 1u);
    const dch::Application &app = d.dch.applications().at("app");
    EXPECT_EQ(app.name, "app");
    EXPECT_EQ(app.help, "app help");
    EXPECT_EQ(app.registeredBy, kProvider);
    ASSERT_EQ(app.groupCount(), 2u);
    EXPECT_EQ(app.at(0).name(), "grp");
    EXPECT_EQ(app.at(0).help(), "grp help");
    ASSERT_EQ(app.at(0).size(), 2u);
    const dch::Attribute count = app.at(0).at(0);
    EXPECT_EQ(count.name, "count");
    EXPECT_EQ(count.type, 'A');
    EXPECT_EQ(count.size, 4);
    EXPECT_EQ(count.help, "how many");
    EXPECT_EQ(app.at(0).at(1).name, "name");
    EXPECT_EQ(app.at(0).at(1).type, 'D');
    EXPECT_EQ(app.at(0).at(1).size, 8);
    EXPECT_EQ(app.at(1).name(), "other");
    EXPECT_EQ(app.at(1).help(), "");
    ASSERT_EQ(app.at(1).size(), 1u);
    EXPECT_EQ(app.at(1).at(0).type, 'S');
    EXPECT_EQ(d.dch.counters().requests.at(ZEVD_REQ_DP_REGISTER).load(), 1u);
    EXPECT_EQ(d.dch.counters().answers.load(), 1u);
    EXPECT_TRUE(capture.lines().empty()) << capture.joined();

    // Again, with one group: the catalogue is replaced.
    EXPECT_EQ(d.ask(registerRequest("app", "new help", {kGroups[1]}), kOtherProvider), status(0));
    const dch::Application &again = d.dch.applications().at("app");
    EXPECT_EQ(again.help, "new help");
    EXPECT_EQ(again.registeredBy, kOtherProvider);
    ASSERT_EQ(again.groupCount(), 1u);
    EXPECT_EQ(again.at(0).name(), "other");

    // An application without groups.
    EXPECT_EQ(d.ask(registerRequest("bare", "", {}), kProvider), status(0));
    EXPECT_TRUE(d.dch.applications().at("bare").groupCount() == 0);
}

TEST(DchProviderTest, OnlineGivesHandlesCountingUpFromOne) {
    Daemon d;
    d.registerApp("app");
    EXPECT_EQ(d.ask(onlineRequest("app", "grp", "src1"), kProvider), status(0, 1));
    EXPECT_EQ(d.ask(onlineRequest("app", "grp", "src2"), kProvider), status(0, 2));
    EXPECT_EQ(d.ask(onlineRequest("app", "other", "src1"), kOtherProvider), status(0, 3));
    ASSERT_EQ(d.dch.handles().size(), 3u);
    const dch::OpenHandle &third = d.dch.handles().at(3);
    EXPECT_EQ(third.id, 3);
    EXPECT_EQ(third.appl, "app");
    EXPECT_EQ(third.group, "other");
    EXPECT_EQ(third.source, "src1");
    EXPECT_EQ(third.provider, kOtherProvider);
    EXPECT_EQ(d.dch.handles().at(2).source, "src2");
    EXPECT_EQ(d.dch.nextHandle(), 4);
    EXPECT_EQ(d.dch.counters().providersOnline.load(), 3u);
}

TEST(DchProviderTest, OfflineReleasesTheHandleOnce) {
    Daemon d;
    d.registerApp("app");
    ASSERT_EQ(d.online("app", "grp", "src"), 1);
    ASSERT_EQ(d.online("app", "grp", "src2"), 2);
    TraceCapture capture("error");
    EXPECT_EQ(d.ask(offlineRequest(1), kProvider), status(0));
    EXPECT_EQ(d.dch.handles().count(1), 0u);
    EXPECT_EQ(d.dch.handles().count(2), 1u);
    EXPECT_EQ(d.dch.counters().providersOnline.load(), 1u);

    EXPECT_EQ(d.ask(offlineRequest(1), kProvider), status(ZEVD_DCH_UNKNOWN_HANDLE));
    EXPECT_TRUE(capture.hasText("Error: dp_offline from 127.0.0.1 port 40001: no handle 1"))
        << capture.joined();
    EXPECT_EQ(d.drops(dch::kDropUnknownHandle), 1u);
    EXPECT_EQ(d.dch.handles().size(), 1u);
    // A released handle is not given again while the numbers go on.
    EXPECT_EQ(d.online("app", "grp", "src3"), 3);
}

TEST(DchProviderTest, UnregisterReleasesTheApplicationsHandles) {
    Daemon d;
    d.registerApp("app");
    d.registerApp("keep");
    ASSERT_EQ(d.online("app", "grp", "a"), 1);
    ASSERT_EQ(d.online("keep", "grp", "k"), 2);
    ASSERT_EQ(d.online("app", "other", "b"), 3);
    EXPECT_EQ(d.ask(unregisterRequest("app"), kProvider), status(0));
    EXPECT_EQ(d.dch.applications().count("app"), 0u);
    EXPECT_EQ(d.dch.applications().count("keep"), 1u);
    ASSERT_EQ(d.dch.handles().size(), 1u);
    EXPECT_EQ(d.dch.handles().begin()->second.appl, "keep");
    EXPECT_EQ(d.dch.counters().providersOnline.load(), 1u);
    // Its rows are refused from now on.
    EXPECT_EQ(d.ask(dataRequest(1, 0, {}), kProvider), status(ZEVD_DCH_UNKNOWN_HANDLE));
}

TEST(DchProviderTest, OnlineAndUnregisterOfWhatIsNotRegisteredAreRefused) {
    Daemon d;
    d.registerApp("app");
    TraceCapture capture("error");
    EXPECT_EQ(d.ask(onlineRequest("nope", "grp", "src"), kProvider),
              status(ZEVD_DCH_UNKNOWN_APPL, 0));
    EXPECT_TRUE(
        capture.hasText("Error: dp_online nope grp src from 127.0.0.1 port 40001 "
                        "refused (17)"))
        << capture.joined();
    EXPECT_EQ(d.ask(onlineRequest("app", "nogroup", "src"), kProvider),
              status(ZEVD_DCH_UNKNOWN_GROUP, 0));
    EXPECT_EQ(d.ask(unregisterRequest("nope"), kProvider), status(ZEVD_DCH_UNKNOWN_APPL));
    EXPECT_TRUE(
        capture.hasText("Error: dp_unregister from 127.0.0.1 port 40001: no "
                        "application nope"))
        << capture.joined();
    EXPECT_TRUE(d.dch.handles().empty());
    EXPECT_EQ(d.dch.applications().size(), 1u);
    EXPECT_EQ(d.online("app", "grp", "src"), 1);  // no number was spent
}

TEST(DchProviderTest, RowIsForwardedToTheMatchingDataSubscribersOnly) {
    Daemon d;
    d.registerApp("app");
    d.registerApp("app2");
    ASSERT_EQ(d.online("app", "grp", "src"), 1);
    d.subscribeData(kSubscriber, "app", "grp");
    d.subscribeData(kSubscriber2, "app", "grp");
    d.subscribeData(kSubscriber3, "app", "other");
    d.subscribeData(kClient, "app2", "grp");
    d.subscribeStatus(kOtherProvider);

    std::vector<char> row =
        dataRequest(1, 7, {{"count", be32(42)}, {"name", "bob"}, {"name", std::string(8, 'x')}});
    EXPECT_EQ(d.ask(row, kProvider), status(0));

    // The sender, then the pairs as received.
    std::vector<char> expected = encode(
        ZEVD_REQ_DP_DATA, {str(DCH_applName, "app"), str(DCH_attrGroup, "grp"),
                           str(DCH_sourceName, "src"), i32(DCH_handle, 1), i16(DCH_dataFlag, 7)});
    expected.insert(expected.end(), row.begin() + 30, row.end());
    uint32_t word = htonl(static_cast<uint32_t>(expected.size()));
    memcpy(expected.data(), &word, sizeof word);
    EXPECT_EQ(d.transport.deliveredTo(kSubscriber), std::vector<std::vector<char>>{expected});
    EXPECT_EQ(d.transport.deliveredTo(kSubscriber2), std::vector<std::vector<char>>{expected});
    EXPECT_EQ(d.transport.deliveries.size(), 2u);
    Fields forwarded = fieldsOf(expected);
    ASSERT_EQ(forwarded.size(), 12u);
    EXPECT_EQ(forwarded[6], std::make_pair(static_cast<int>(DCH_attrName), z("count")));
    EXPECT_EQ(forwarded[7], std::make_pair(static_cast<int>(DCH_attrValue), be32(42)));
    EXPECT_EQ(d.dch.counters().rowsForwarded.load(), 2u);

    // A row of app2's group grp comes from a handle of app2 only.
    ASSERT_EQ(d.online("app2", "grp", "src"), 2);
    d.transport.deliveries.clear();
    EXPECT_EQ(d.ask(dataRequest(2, 0, {{"count", be16(1)}}), kProvider), status(0));
    ASSERT_EQ(d.transport.deliveries.size(), 1u);
    EXPECT_EQ(d.transport.deliveries[0].peer, kClient);
}

// Over TCP a row may be larger than the largest message the DCH sends.
TEST(DchProviderTest, RowTooLargeToForwardIsRefusedAndNothingIsSent) {
    Daemon d;
    const Peer connection = peerAt("127.0.0.1", 40500, 5);
    std::vector<Grp> groups = {{"g", "", {{"blob", 'D', 4096, ""}}}};
    EXPECT_EQ(d.ask(registerRequest("big", "", groups), connection), status(0));
    ASSERT_EQ(d.online("big", "g", "s", connection), 1);
    d.subscribeData(kSubscriber, "big", "g");
    TraceCapture capture("error");
    Pairs pairs(20, {"blob", std::string(4000, 'v')});
    std::vector<char> row = dataRequest(1, 0, pairs, 128 * 1024);
    ASSERT_GT(row.size(), dch::kReplySize);
    EXPECT_EQ(d.ask(row, connection), status(ZEVD_DCH_FULL));
    EXPECT_TRUE(d.transport.deliveries.empty());
    EXPECT_EQ(d.dch.counters().rowsForwarded.load(), 0u);
    EXPECT_TRUE(capture.hasText("Error: dp_data from 127.0.0.1 port 40500 refused (21): a row of " +
                                std::to_string(row.size()) + " bytes is too large to forward"))
        << capture.joined();
    // Sixteen of them fit.
    EXPECT_EQ(d.ask(dataRequest(1, 0, Pairs(16, {"blob", std::string(4000, 'v')}), 128 * 1024),
                    connection),
              status(0));
    EXPECT_EQ(d.transport.deliveries.size(), 1u);
}

TEST(DchProviderTest, RowsThatDoNotFitTheirGroupAreRefused) {
    struct Case {
        const char *what;
        int32_t handle;
        Pairs pairs;
        int32_t status;
        const char *fault;
    };
    const Case cases[] = {
        {"unknown handle", 9, {{"count", be32(1)}}, ZEVD_DCH_UNKNOWN_HANDLE, "no handle 9"},
        {"attribute of another group",
         1,
         {{"flag", be16(1)}},
         ZEVD_DCH_UNKNOWN_ATTR,
         "no attribute flag in its group"},
        {"no such attribute",
         1,
         {{"count", be32(1)}, {"nope", "x"}},
         ZEVD_DCH_UNKNOWN_ATTR,
         "no attribute nope in its group"},
        {"string longer than its size",
         1,
         {{"name", std::string(9, 'x')}},
         ZEVD_DCH_UNKNOWN_ATTR,
         "attribute name has a value of 9 bytes"},
        {"integer of 3 bytes",
         1,
         {{"count", "abc"}},
         ZEVD_DCH_UNKNOWN_ATTR,
         "attribute count has a value of 3 bytes"},
        {"short integer of 4 bytes",
         2,
         {{"flag", be32(1)}},
         ZEVD_DCH_UNKNOWN_ATTR,
         "attribute flag has a value of 4 bytes"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        Daemon d;
        d.registerApp("app");
        ASSERT_EQ(d.online("app", "grp", "src"), 1);
        ASSERT_EQ(d.online("app", "other", "src"), 2);
        d.subscribeData(kSubscriber, "app", "grp");
        d.subscribeData(kSubscriber2, "app", "other");
        TraceCapture capture("error");
        EXPECT_EQ(d.ask(dataRequest(c.handle, 0, c.pairs), kProvider), status(c.status));
        EXPECT_TRUE(capture.hasText("Error: dp_data from 127.0.0.1 port 40001 refused (" +
                                    std::to_string(c.status) + "): " + c.fault))
            << capture.joined();
        EXPECT_TRUE(d.transport.deliveries.empty());
        EXPECT_EQ(d.drops(dch::kDropUnknownHandle), c.status == ZEVD_DCH_UNKNOWN_HANDLE ? 1u : 0u);
    }

    // The handle's group is gone from a new registration of its application.
    Daemon d;
    d.registerApp("app");
    ASSERT_EQ(d.online("app", "grp", "src"), 1);
    EXPECT_EQ(d.ask(registerRequest("app", "", {kGroups[1]}), kProvider), status(0));
    EXPECT_EQ(d.ask(dataRequest(1, 0, {{"count", be32(1)}}), kProvider),
              status(ZEVD_DCH_UNKNOWN_GROUP));
}

TEST(DchProviderTest, CatalogueRulesAreEnforced) {
    struct Case {
        const char *what;
        std::vector<Grp> groups;
        const char *why;
    };
    const Case cases[] = {
        {"group without attributes",
         {{"g", "", {{"a", 'A', 4, ""}}}, {"empty", "", {}}},
         "group empty has no attributes"},
        {"group twice",
         {{"g", "", {{"a", 'A', 4, ""}}}, {"g", "", {{"b", 'A', 4, ""}}}},
         "group g twice"},
        {"attribute twice",
         {{"g", "", {{"a", 'A', 4, ""}, {"a", 'D', 4, ""}}}},
         "attribute a twice in group g"},
        {"lower-case type",
         {{"g", "", {{"a", 'a', 4, ""}}}},
         "attribute a: its type is not a letter A to Z"},
        {"type before A",
         {{"g", "", {{"a", '@', 4, ""}}}},
         "attribute a: its type is not a letter A to Z"},
        {"type with a high byte",
         {{"g", "", {{"a", 0x141, 4, ""}}}},
         "attribute a: its type is not a letter A to Z"},
        {"A of size 3",
         {{"g", "", {{"a", 'A', 3, ""}}}},
         "attribute a: an integer takes size 2 or 4"},
        {"S of size 4",
         {{"g", "", {{"a", 'S', 4, ""}}}},
         "attribute a: a short integer takes size 2"},
        {"size 0", {{"g", "", {{"a", 'D', 0, ""}}}}, "attribute a: its size is not 1 to 4096"},
        {"size 4097",
         {{"g", "", {{"a", 'D', 4097, ""}}}},
         "attribute a: its size is not 1 to 4096"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        Daemon d;
        d.registerApp("app");  // earlier catalogue, kept
        std::string before = stateOf(d.dch);
        TraceCapture capture("error");
        EXPECT_EQ(d.ask(registerRequest("app", "new", c.groups), kProvider),
                  status(ZEVD_DCH_BAD_CATALOGUE));
        EXPECT_TRUE(capture.hasText(
            std::string("Error: dp_register from 127.0.0.1 port 40001 refused (23): ") + c.why))
            << capture.joined();
        EXPECT_EQ(stateOf(d.dch), before);
        EXPECT_EQ(d.drops(dch::kDropMalformed), 0u);
    }
}

// ---------------------------------------------------------------------------
// Consumers: queries, name list, subscriptions, actions
// ---------------------------------------------------------------------------

TEST(DchConsumerTest, GetApplicationsListsAllOrTheOneNamed) {
    Daemon d;
    EXPECT_EQ(d.ask(queryRequest(ZEVD_REQ_DC_GET_APPLICATIONS, nullptr)), text(""));
    d.registerApp("beta");
    d.registerApp("alpha");
    EXPECT_EQ(d.ask(queryRequest(ZEVD_REQ_DC_GET_APPLICATIONS, nullptr)), text("alpha\nbeta"));
    EXPECT_EQ(d.ask(queryRequest(ZEVD_REQ_DC_GET_APPLICATIONS, "beta")), text("beta"));
    EXPECT_EQ(d.ask(queryRequest(ZEVD_REQ_DC_GET_APPLICATIONS, "gamma")), text(""));
}

TEST(DchConsumerTest, GetApplAttributesGivesOneLinePerAttribute) {
    Daemon d;
    d.registerApp("app");
    EXPECT_EQ(d.ask(queryRequest(ZEVD_REQ_DC_GET_APPL_ATTRIBUTES, "app")),
              text("grp,count,A,4\ngrp,name,D,8\nother,flag,S,2"));
    EXPECT_EQ(d.ask(queryRequest(ZEVD_REQ_DC_GET_APPL_ATTRIBUTES, "nope")), text(""));
    EXPECT_EQ(d.ask(registerRequest("bare", "", {})), status(0));
    EXPECT_EQ(d.ask(queryRequest(ZEVD_REQ_DC_GET_APPL_ATTRIBUTES, "bare")), text(""));
}

TEST(DchConsumerTest, GetApplHelpGivesTheHelpTextsCleanedOfSeparators) {
    Daemon d;
    std::vector<Grp> groups = {
        {"grp", "one,two:three", {{"count", 'A', 4, "it's \"quoted\"; x"}, {"n", 'D', 1, ""}}},
        {"other", "", {{"flag", 'S', 2, "plain text"}}},
    };
    EXPECT_EQ(d.ask(registerRequest("app", "a,b:c;d'e\"f", groups)), status(0));
    EXPECT_EQ(d.ask(queryRequest(ZEVD_REQ_DC_GET_APPL_HELP, "app")),
              text(",,a b c d e f\n"
                   "grp,,one two three\n"
                   "grp,count,it s  quoted   x\n"
                   "grp,n,\n"
                   "other,,\n"
                   "other,flag,plain text"));
    EXPECT_EQ(d.ask(queryRequest(ZEVD_REQ_DC_GET_APPL_HELP, "nope")), text(""));
    EXPECT_EQ(d.ask(registerRequest("bare", "only me", {})), status(0));
    EXPECT_EQ(d.ask(queryRequest(ZEVD_REQ_DC_GET_APPL_HELP, "bare")), text(",,only me"));
}

TEST(DchConsumerTest, ControlCharactersInHelpTextsCannotAddLinesToAnAnswer) {
    Daemon d;
    std::vector<Grp> groups = {{"g", "", {{"a", 'A', 4, "x\ry"}}}};
    EXPECT_EQ(d.ask(registerRequest("app", "one\ngrp2,,forged\x7f", groups)), status(0));
    EXPECT_EQ(d.ask(queryRequest(ZEVD_REQ_DC_GET_APPL_HELP, "app")),
              text(",,one grp2  forged \ng,,\ng,a,x y"));
}

TEST(DchConsumerTest, SendApplNameListReportsEveryApplicationToEveryStatusSubscriber) {
    Daemon d;
    d.registerApp("beta", kOtherProvider);
    d.registerApp("alpha", kProvider);
    d.subscribeStatus(kSubscriber);
    d.subscribeStatus(kSubscriber2);
    d.subscribeData(kSubscriber3, "alpha", "grp");
    EXPECT_TRUE(d.send(nameListRequest()).empty());
    std::vector<Fields> expected = {
        report(ZEVD_REQ_DC_SEND_APPL_NAME_LIST, "alpha", "", "", kProvider),
        report(ZEVD_REQ_DC_SEND_APPL_NAME_LIST, "beta", "", "", kOtherProvider),
    };
    EXPECT_EQ(fieldsOfEach(d.transport.deliveredTo(kSubscriber)), expected);
    EXPECT_EQ(fieldsOfEach(d.transport.deliveredTo(kSubscriber2)), expected);
    EXPECT_TRUE(d.transport.deliveredTo(kSubscriber3).empty());
    EXPECT_EQ(d.dch.counters().statusReports.load(), 4u);
    // A source name given as a string is taken as well.
    EXPECT_TRUE(
        d.send(encode(ZEVD_REQ_DC_SEND_APPL_NAME_LIST, {str(DCH_sourceName, "me")})).empty());
    EXPECT_EQ(d.transport.deliveredTo(kSubscriber).size(), 4u);
}

TEST(DchConsumerTest, DataSubscriptionRegistersAndWithdraws) {
    Daemon d;
    EXPECT_TRUE(d.send(dataWaitRequest("app", "grp", 1), kSubscriber).empty());
    EXPECT_TRUE(d.send(dataWaitRequest("app", "grp", 1), kSubscriber).empty());  // once only
    EXPECT_TRUE(d.send(dataWaitRequest("app", "other", 1), kSubscriber).empty());
    // Forgotten when it had no subscription yet, and when it subscribed to
    // the same again; not for a further subscription.
    EXPECT_EQ(d.transport.forgotten, (std::vector<Peer>{kSubscriber, kSubscriber}));
    d.transport.forgotten.clear();
    ASSERT_EQ(d.dch.dataSubscribers().size(), 2u);
    EXPECT_EQ(d.dch.dataSubscribers()[0].peer, kSubscriber);
    EXPECT_EQ(d.dch.dataSubscribers()[0].appl, "app");
    EXPECT_EQ(d.dch.dataSubscribers()[0].group, "grp");
    EXPECT_EQ(d.dch.counters().dataSubscribers.load(), 2u);

    EXPECT_TRUE(d.send(dataWaitRequest("app", "grp", 0), kSubscriber).empty());
    ASSERT_EQ(d.dch.dataSubscribers().size(), 1u);
    EXPECT_EQ(d.dch.dataSubscribers()[0].group, "other");
    EXPECT_TRUE(d.transport.forgotten.empty()) << "still subscribed to other";
    EXPECT_TRUE(d.send(dataWaitRequest("app", "other", 0), kSubscriber).empty());
    EXPECT_TRUE(d.dch.dataSubscribers().empty());
    EXPECT_EQ(d.transport.forgotten, std::vector<Peer>{kSubscriber});
    EXPECT_EQ(d.dch.counters().dataSubscribers.load(), 0u);
    // Withdrawing what is not there changes nothing.
    EXPECT_TRUE(d.send(dataWaitRequest("app", "grp", 0), kSubscriber).empty());
    EXPECT_EQ(d.transport.forgotten.size(), 1u);
    EXPECT_TRUE(d.transport.answers.empty());
}

TEST(DchConsumerTest, StatusSubscriptionRegistersAndWithdraws) {
    Daemon d;
    d.subscribeStatus(kSubscriber);
    d.subscribeStatus(kSubscriber);
    d.subscribeStatus(kSubscriber2);
    d.subscribeData(kSubscriber2, "app", "grp");
    // Each forgotten when it had no subscription yet; kSubscriber again when
    // it subscribed again.
    EXPECT_EQ(d.transport.forgotten, (std::vector<Peer>{kSubscriber, kSubscriber, kSubscriber2}));
    d.transport.forgotten.clear();
    ASSERT_EQ(d.dch.statusSubscribers().size(), 2u);
    EXPECT_EQ(d.dch.statusSubscribers()[0].peer, kSubscriber);
    EXPECT_EQ(d.dch.counters().statusSubscribers.load(), 2u);

    EXPECT_TRUE(d.send(statusWaitRequest(0), kSubscriber).empty());
    EXPECT_EQ(d.transport.forgotten, std::vector<Peer>{kSubscriber});
    EXPECT_TRUE(d.send(statusWaitRequest(0), kSubscriber2).empty());
    EXPECT_TRUE(d.dch.statusSubscribers().empty());
    EXPECT_EQ(d.transport.forgotten.size(), 1u) << "kSubscriber2 still waits on data";
    EXPECT_EQ(d.dch.counters().statusSubscribers.load(), 0u);
    EXPECT_TRUE(d.transport.answers.empty());
}

TEST(DchConsumerTest, ActionsAreRecordedWithoutTheirParameters) {
    Daemon d;
    TraceCapture capture("all");
    EXPECT_TRUE(d.send(actionRequest(5, "restart", std::string("X=1 LOGONID=hunter2"))).empty());
    ASSERT_EQ(d.dch.actions().size(), 1u);
    const dch::Action &action = d.dch.actions().front();
    EXPECT_EQ(action.id, 5);
    EXPECT_EQ(action.type, 3);
    EXPECT_EQ(action.owner, "owner");
    EXPECT_EQ(action.node, "node");
    EXPECT_EQ(action.subnode, "subnode");
    EXPECT_EQ(action.name, "restart");
    EXPECT_EQ(action.utf8, 1);
    EXPECT_TRUE(action.hasParms);
    EXPECT_FALSE(capture.contains("hunter2")) << capture.joined();
    EXPECT_FALSE(capture.contains("LOGONID")) << capture.joined();
    EXPECT_TRUE(capture.contains("action 5 <restart> recorded for node")) << capture.joined();

    // Without parameters; the same ID again replaces the earlier one.
    EXPECT_TRUE(d.send(actionRequest(6, "stop", std::nullopt)).empty());
    EXPECT_FALSE(d.dch.actions().back().hasParms);
    EXPECT_TRUE(d.send(actionRequest(5, "start", std::nullopt)).empty());
    ASSERT_EQ(d.dch.actions().size(), 2u);
    EXPECT_EQ(d.dch.actions().back().name, "start");
    EXPECT_TRUE(d.transport.answers.empty());

    EXPECT_EQ(d.ask(actionResultsRequest(5)), status(0));
    EXPECT_EQ(d.ask(actionResultsRequest(6)), status(0));
    EXPECT_EQ(d.ask(actionResultsRequest(7)), status(ZEVD_DCH_UNKNOWN_ACTION));
    EXPECT_TRUE(
        capture.contains("Error: dc_waitForActionResults from 127.0.0.1 port 40000: no action 7"))
        << capture.joined();
}

TEST(DchConsumerTest, DeferredReportIsRecorded) {
    Daemon d;
    EXPECT_TRUE(d.send(encode(ZEVD_REQ_DC_DEFER_REPORT_REQUEST,
                              {i32(DCH_actionID, 12), i32(DCH_peltoObject, -2),
                               i32(DCH_currentTime, 1700000000), str(DCH_applKey, "key"),
                               str(DCH_tableName, "table"), str(DCH_sourceName, "src")}))
                    .empty());
    ASSERT_EQ(d.dch.deferredReports().size(), 1u);
    const dch::DeferredReport &r = d.dch.deferredReports().front();
    EXPECT_EQ(r.actionID, 12);
    EXPECT_EQ(r.object, -2);
    EXPECT_EQ(r.time, 1700000000);
    EXPECT_EQ(r.applKey, "key");
    EXPECT_EQ(r.table, "table");
    EXPECT_EQ(r.source, "src");
}

// ---------------------------------------------------------------------------
// Status reports of the providers' lifecycle
// ---------------------------------------------------------------------------

TEST(DchStatusReportTest, LifecycleEventsAreReported) {
    Daemon d;
    d.subscribeStatus(kSubscriber);
    const Peer tcpProvider = peerAt("127.0.0.1", 40100, 6);
    d.registerApp("app", kProvider);
    ASSERT_EQ(d.online("app", "grp", "src", tcpProvider), 1);
    EXPECT_EQ(d.ask(offlineRequest(1), tcpProvider), status(0));
    ASSERT_EQ(d.online("app", "other", "src2", kOtherProvider), 2);
    EXPECT_EQ(d.ask(unregisterRequest("app"), kProvider), status(0));

    std::vector<Fields> expected = {
        report(ZEVD_REQ_DP_REGISTER, "app", "", "", kProvider),
        report(ZEVD_REQ_DP_ONLINE, "app", "grp", "src", tcpProvider),
        report(ZEVD_REQ_DP_OFFLINE, "app", "grp", "src", tcpProvider),
        report(ZEVD_REQ_DP_ONLINE, "app", "other", "src2", kOtherProvider),
        report(ZEVD_REQ_DP_OFFLINE, "app", "other", "src2", kOtherProvider),
        report(ZEVD_REQ_DP_UNREGISTER, "app", "", "", kProvider),
    };
    EXPECT_EQ(fieldsOfEach(d.transport.deliveredTo(kSubscriber)), expected);
    EXPECT_EQ(d.transport.deliveries.size(), expected.size());
    EXPECT_EQ(d.dch.counters().statusReports.load(), expected.size());
}

// ---------------------------------------------------------------------------
// Malformed requests, for every request code
// ---------------------------------------------------------------------------

enum class Answer { status, text, none };

struct RequestCase {
    const char *name;
    int16_t code;
    Answer answer;
    std::vector<ReqField> fields;    // well-formed, after the request code
    std::vector<size_t> incomplete;  // field counts at which the request does not read
};

void PrintTo(const RequestCase &c, std::ostream *out) {
    *out << c.name;
}

// The requests against a daemon made by prepare(): application app with
// groups grp and other, handle 1 on app grp, action 7.
const std::vector<RequestCase> &requestCases() {
    static const std::vector<RequestCase> cases = [] {
        std::vector<ReqField> catalogue =
            catalogueFields("app2", "help", {{"g", "", {{"a", 'A', 4, "x"}}}});
        // A field of another type where an attribute could start ends the
        // attributes: the group then has none.
        catalogue[4].statusIfOtherType = ZEVD_DCH_BAD_CATALOGUE;
        // The name list's source is read as a string of at most 32 characters.
        ReqField sourceWithoutValue = none(DCH_sourceName);
        sourceWithoutValue.maxChars = 32;
        return std::vector<RequestCase>{
            {"dp_register", ZEVD_REQ_DP_REGISTER, Answer::status, catalogue, {0, 1, 3, 5, 6, 7}},
            {"dp_online",
             ZEVD_REQ_DP_ONLINE,
             Answer::status,
             {name(DCH_applName, "app", 20), name(DCH_attrGroup, "grp", 32),
              name(DCH_sourceName, "src", 32)},
             {0, 1, 2}},
            {"dp_unregister",
             ZEVD_REQ_DP_UNREGISTER,
             Answer::status,
             {name(DCH_applName, "app", 20)},
             {0}},
            {"dp_offline", ZEVD_REQ_DP_OFFLINE, Answer::status, {i32(DCH_handle, 1)}, {0}},
            {"dp_data",
             ZEVD_REQ_DP_DATA,
             Answer::status,
             {i32(DCH_handle, 1), i16(DCH_dataFlag, 0), name(DCH_attrName, "name", 32),
              raw(DCH_attrValue, "bob")},
             {0, 1, 3}},
            {"dc_getApplications",
             ZEVD_REQ_DC_GET_APPLICATIONS,
             Answer::text,
             {name(DCH_applName, "app", 20)},
             {}},
            {"dc_getApplHelp",
             ZEVD_REQ_DC_GET_APPL_HELP,
             Answer::text,
             {name(DCH_applName, "app", 20)},
             {0}},
            {"dc_sendApplNameList",
             ZEVD_REQ_DC_SEND_APPL_NAME_LIST,
             Answer::none,
             {sourceWithoutValue},
             {0}},
            {"dc_getApplAttributes",
             ZEVD_REQ_DC_GET_APPL_ATTRIBUTES,
             Answer::text,
             {name(DCH_applName, "app", 20)},
             {0}},
            {"dc_waitOnData",
             ZEVD_REQ_DC_WAIT_ON_DATA,
             Answer::none,
             {name(DCH_applName, "app", 20), name(DCH_attrGroup, "grp", 32), i32(DCH_status, 1)},
             {0, 1, 2}},
            {"dc_waitForDPStatus",
             ZEVD_REQ_DC_WAIT_FOR_DP_STATUS,
             Answer::none,
             {i32(DCH_status, 1)},
             {0}},
            {"dc_provideAction",
             ZEVD_REQ_DC_PROVIDE_ACTION,
             Answer::none,
             {i16(DCH_actionType, 1), longText(DCH_actionOwner, "me"),
              longText(DCH_sourceName, "node"), longText(DCH_sourceName, "sub"),
              longText(DCH_actionName, "act"), i32(DCH_actionID, 9), i16(DCH_actionUTF8, 0),
              longText(DCH_actionParms, "p=1")},
             {0, 1, 2, 3, 4, 5, 6}},
            {"dc_waitForActionResults",
             ZEVD_REQ_DC_WAIT_FOR_ACTION_RESULTS,
             Answer::status,
             {i32(DCH_actionID, 7)},
             {0}},
            {"dc_deferReportRequest",
             ZEVD_REQ_DC_DEFER_REPORT_REQUEST,
             Answer::none,
             {i32(DCH_actionID, 7), i32(DCH_peltoObject, 1), i32(DCH_currentTime, 100),
              longText(DCH_applKey, "key"), longText(DCH_tableName, "tbl"),
              longText(DCH_sourceName, "src")},
             {0, 1, 2, 3, 4, 5}},
        };
    }();
    return cases;
}

void prepare(Daemon &d) {
    d.registerApp("app");
    ASSERT_EQ(d.online("app", "grp", "src"), 1);
    EXPECT_TRUE(d.send(actionRequest(7, "act", std::nullopt)).empty());
    // Subscribers that any stray forwarding or report would reach.
    d.subscribeData(kSubscriber, "app", "grp");
    d.subscribeStatus(kSubscriber2);
    d.transport.answers.clear();
}

// The requests of a code that prepare() sent.
uint64_t preparedRequests(int16_t code) {
    switch (code) {
        case ZEVD_REQ_DP_REGISTER:
        case ZEVD_REQ_DP_ONLINE:
        case ZEVD_REQ_DC_PROVIDE_ACTION:
        case ZEVD_REQ_DC_WAIT_ON_DATA:
        case ZEVD_REQ_DC_WAIT_FOR_DP_STATUS: return 1;
        default: return 0;
    }
}

// One way of breaking a request: what was done, the bytes received, and
// the status a request with a status answer earns.
struct Broken {
    std::string what;
    std::vector<char> bytes;
    int32_t status;
};

std::vector<char> withLengthWord(std::vector<char> bytes, uint32_t length) {
    uint32_t word = htonl(length);
    memcpy(bytes.data(), &word, sizeof word);
    return bytes;
}

std::vector<Broken> brokenForms(const RequestCase &c) {
    std::vector<Broken> out;
    auto with = [&](size_t at, const ReqField &replacement) {
        std::vector<ReqField> fields = c.fields;
        fields[at] = replacement;
        return encode(c.code, fields);
    };
    std::vector<char> whole = encode(c.code, c.fields);
    auto wholeLength = static_cast<uint32_t>(whole.size());
    for (size_t count : c.incomplete) {
        std::vector<ReqField> first(c.fields.begin(), c.fields.begin() + count);
        std::vector<char> cut = encode(c.code, first);
        std::string after = "cut after " + std::to_string(count) + " fields";
        out.push_back({after, cut, ZEVD_DCH_MALFORMED});
        out.push_back({after + ", length word of the whole", withLengthWord(cut, wholeLength),
                       ZEVD_DCH_MALFORMED});
    }
    out.push_back({"last byte missing", std::vector<char>(whole.begin(), whole.end() - 1),
                   ZEVD_DCH_MALFORMED});
    out.push_back(
        {"length word a byte short", withLengthWord(whole, wholeLength - 1), ZEVD_DCH_MALFORMED});
    std::vector<ReqField> longer = c.fields;
    longer.push_back(raw(999, "more"));
    out.push_back({"a field after the last", encode(c.code, longer), ZEVD_DCH_MALFORMED});
    for (size_t i = 0; i < c.fields.size(); ++i) {
        const ReqField &f = c.fields[i];
        std::string at = "field " + std::to_string(i) + " (" + std::to_string(f.type) + ") ";
        out.push_back({at + "of another type", with(i, raw(999, valueOf(f))), f.statusIfOtherType});
        if (f.as == As::string || f.as == As::noValue) {
            std::string value = f.text.empty() ? "x" : f.text;
            out.push_back(
                {at + "without its zero", with(i, raw(f.type, value)), ZEVD_DCH_MALFORMED});
            out.push_back({at + "with a zero inside", with(i, raw(f.type, z(value) + z("b"))),
                           ZEVD_DCH_MALFORMED});
        }
        if (f.as == As::int16)
            out.push_back(
                {at + "of 4 bytes", with(i, raw(f.type, be32(f.number))), ZEVD_DCH_MALFORMED});
        if (f.as == As::int32)
            out.push_back({at + "of 2 bytes", with(i, raw(f.type, be16(1))), ZEVD_DCH_MALFORMED});
        if (f.maxChars != 0)
            out.push_back({at + "one character too long",
                           with(i, str(f.type, std::string(f.maxChars + 1, 'n'))),
                           ZEVD_DCH_MALFORMED});
        if (f.isName)
            for (const char *bad : {"", "a b", "a,b", "a\tb", "a\x7f"})
                out.push_back(
                    {at + "named <" + bad + ">", with(i, str(f.type, bad)), ZEVD_DCH_MALFORMED});
    }
    return out;
}

class DchMalformedTest : public ::testing::TestWithParam<RequestCase> {};

TEST_P(DchMalformedTest, WellFormedRequestIsServed) {
    const RequestCase &c = GetParam();
    Daemon d;
    prepare(d);
    TraceCapture capture("error");
    std::vector<Fields> answers = d.send(encode(c.code, c.fields));
    switch (c.answer) {
        case Answer::status:
            ASSERT_EQ(answers.size(), 1u);
            ASSERT_FALSE(answers[0].empty());
            EXPECT_EQ(answers[0][0], status(0)[0]);
            break;
        case Answer::text:
            ASSERT_EQ(answers.size(), 1u);
            ASSERT_EQ(answers[0].size(), 1u);
            EXPECT_EQ(answers[0][0].first, DCH_response);
            EXPECT_FALSE(answers[0][0].second.empty());
            break;
        case Answer::none: EXPECT_TRUE(answers.empty()); break;
    }
    EXPECT_TRUE(capture.lines().empty()) << capture.joined();
    EXPECT_EQ(d.dch.counters().requests.at(c.code).load(), preparedRequests(c.code) + 1);
    EXPECT_EQ(d.drops(dch::kDropMalformed), 0u);
}

TEST_P(DchMalformedTest, BrokenRequestChangesNothing) {
    const RequestCase &c = GetParam();
    for (const Broken &b : brokenForms(c)) {
        SCOPED_TRACE(b.what);
        Daemon d;
        prepare(d);
        std::string before = stateOf(d.dch);
        size_t deliveries = d.transport.deliveries.size();
        TraceCapture capture("error");
        std::vector<Fields> answers = d.send(b.bytes);
        std::optional<uint64_t> counted = 1;  // malformed drops, when looked at
        switch (c.answer) {
            case Answer::status:
                // A refused dp_online names no handle: 0.
                EXPECT_EQ(answers,
                          std::vector<Fields>{c.code == ZEVD_REQ_DP_ONLINE ? status(b.status, 0)
                                                                           : status(b.status)});
                EXPECT_TRUE(capture.contains(" from 127.0.0.1 port 40000 ")) << capture.joined();
                // Every request that does not read is traced alike.
                if (b.status == ZEVD_DCH_MALFORMED) {
                    EXPECT_TRUE(capture.contains(std::string("Error: ") + c.name +
                                                 " from 127.0.0.1 port 40000 is malformed"))
                        << capture.joined();
                }
                counted = b.status == ZEVD_DCH_MALFORMED ? 1 : 0;
                break;
            case Answer::text:
                EXPECT_EQ(answers, std::vector<Fields>{text("")});
                EXPECT_TRUE(capture.hasText(std::string("Error: ") + c.name +
                                            " from 127.0.0.1 port 40000 is malformed") ||
                            capture.hasText(std::string("Error: ") + c.name +
                                            " from 127.0.0.1 port 40000 is malformed: its length "
                                            "word exceeds the bytes received"))
                    << capture.joined();
                break;
            case Answer::none:
                EXPECT_TRUE(answers.empty());
                EXPECT_TRUE(capture.hasText(std::string("Error: request from 127.0.0.1 port "
                                                        "40000 dropped: ") +
                                            c.name + " does not read") ||
                            capture.hasText("Error: request from 127.0.0.1 port 40000 dropped: "
                                            "its length word exceeds the bytes received"))
                    << capture.joined();
                break;
        }
        for (const std::string &line : capture.texts())
            EXPECT_EQ(line.rfind("Error: ", 0), 0u) << line;
        if (counted) {
            EXPECT_EQ(d.drops(dch::kDropMalformed), *counted);
        }
        EXPECT_EQ(d.dch.counters().requests.at(c.code).load(), preparedRequests(c.code) + 1);
        EXPECT_EQ(stateOf(d.dch), before);
        EXPECT_EQ(d.transport.deliveries.size(), deliveries);
    }
}

TEST_P(DchMalformedTest, RequestCodeOfAnotherWidthOrTypeIsDropped) {
    const RequestCase &c = GetParam();
    std::vector<ReqField> fields = c.fields;
    const std::pair<const char *, ReqField> codes[] = {
        {"code of 4 bytes", raw(DCH_requestType, be32(c.code))},
        {"code of 1 byte", raw(DCH_requestType, std::string(1, '\x10'))},
        {"code as DCH_status", i32(DCH_status, c.code)},
    };
    for (const auto &[what, code] : codes) {
        SCOPED_TRACE(what);
        std::vector<ReqField> all = {code};
        all.insert(all.end(), fields.begin(), fields.end());
        std::vector<char> bytes = encodeFields(all);
        Daemon d;
        prepare(d);
        std::string before = stateOf(d.dch);
        TraceCapture capture("error");
        EXPECT_TRUE(d.send(bytes).empty());
        EXPECT_TRUE(capture.hasText("Error: message of " + std::to_string(bytes.size()) +
                                    " bytes from 127.0.0.1 port 40000 dropped: it does not "
                                    "start with a request code"))
            << capture.joined();
        EXPECT_EQ(d.drops(dch::kDropMalformed), 1u);
        EXPECT_EQ(stateOf(d.dch), before);
    }
}

INSTANTIATE_TEST_SUITE_P(EveryRequest, DchMalformedTest, ::testing::ValuesIn(requestCases()),
                         [](const ::testing::TestParamInfo<RequestCase> &param) {
                             return std::string(param.param.name);
                         });

TEST(DchRefusalTest, SubscriptionOperationOtherThanZeroOrOneIsDropped) {
    for (int32_t operation : {2, -1}) {
        SCOPED_TRACE(operation);
        Daemon d;
        TraceCapture capture("error");
        EXPECT_TRUE(d.send(dataWaitRequest("app", "grp", operation)).empty());
        EXPECT_TRUE(d.send(statusWaitRequest(operation)).empty());
        EXPECT_TRUE(capture.hasText(
            "Error: request from 127.0.0.1 port 40000 dropped: dc_waitOnData does not read"));
        EXPECT_TRUE(capture.hasText(
            "Error: request from 127.0.0.1 port 40000 dropped: dc_waitForDPStatus does not read"));
        EXPECT_TRUE(d.dch.dataSubscribers().empty());
        EXPECT_TRUE(d.dch.statusSubscribers().empty());
        EXPECT_EQ(d.drops(dch::kDropMalformed), 2u);
    }
}

// The fields end cleanly where the bytes end, short of the length word: the
// message is not whole, so it is not read as a shorter request.
TEST(DchRefusalTest, MessageShorterThanItsLengthWordIsMalformedWhereverItIsCut) {
    Daemon d;
    d.registerApp("app");
    ASSERT_EQ(d.online("app", "grp", "src"), 1);
    d.subscribeData(kSubscriber, "app", "grp");
    TraceCapture capture("error");
    std::vector<char> row = dataRequest(1, 0, {{"count", be32(5)}});
    std::vector<char> head(row.begin(), row.begin() + 30);  // length word still the whole row's
    EXPECT_EQ(d.ask(head, kProvider), status(ZEVD_DCH_MALFORMED));
    EXPECT_TRUE(d.transport.deliveries.empty());
    EXPECT_TRUE(
        capture.hasText("Error: dp_data from 127.0.0.1 port 40001 is malformed: its "
                        "length word exceeds the bytes received"))
        << capture.joined();

    std::vector<char> two = registerRequest("two", "", kGroups);
    std::vector<char> one = registerRequest("two", "", {kGroups[0]});
    memcpy(one.data(), two.data(), 4);  // announces the two-group request
    std::string before = stateOf(d.dch);
    EXPECT_EQ(d.ask(one, kProvider), status(ZEVD_DCH_MALFORMED));
    EXPECT_EQ(stateOf(d.dch), before);

    std::vector<char> named = queryRequest(ZEVD_REQ_DC_GET_APPLICATIONS, "zzz");
    std::vector<char> codeOnly(named.begin(), named.begin() + 12);
    EXPECT_EQ(d.ask(codeOnly), text(""));
    EXPECT_EQ(d.drops(dch::kDropMalformed), 3u);
}

TEST(DchRefusalTest, UnknownRequestCodeIsDropped) {
    Daemon d;
    TraceCapture capture("error");
    EXPECT_TRUE(d.send(encode(0x1234, {str(DCH_applName, "app")})).empty());
    EXPECT_TRUE(d.send(encode(-1, {})).empty());
    EXPECT_TRUE(capture.hasText(
        "Error: request code 0x1234 from 127.0.0.1 port 40000 dropped: no such request"))
        << capture.joined();
    EXPECT_TRUE(capture.hasText(
        "Error: request code 0xffff from 127.0.0.1 port 40000 dropped: no such request"))
        << capture.joined();
    EXPECT_EQ(d.dch.counters().unknownRequests.load(), 2u);
    EXPECT_EQ(d.drops(dch::kDropMalformed), 2u);
}

TEST(DchRefusalTest, MessagesTooShortForARequestCodeAreDropped) {
    struct Case {
        const char *what;
        std::vector<char> bytes;
    };
    std::vector<char> valid = queryRequest(ZEVD_REQ_DC_GET_APPLICATIONS, nullptr);
    const Case cases[] = {
        {"no bytes", {}},
        {"one byte", {'\0'}},
        {"three bytes", {'\0', '\0', '\0'}},
        {"length word only", withLengthWord(std::vector<char>(4), 4)},
        {"length word 0", withLengthWord(valid, 0)},
        {"length word 3", withLengthWord(valid, 3)},
        {"length word 11", withLengthWord(valid, 11)},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        Daemon d;
        TraceCapture capture("error");
        EXPECT_TRUE(d.send(c.bytes).empty());
        EXPECT_TRUE(capture.hasText("Error: message of " + std::to_string(c.bytes.size()) +
                                    " bytes from 127.0.0.1 port 40000 dropped: it does not "
                                    "start with a request code"))
            << capture.joined();
        EXPECT_EQ(d.drops(dch::kDropMalformed), 1u);
    }
    // No buffer at all.
    Daemon d;
    d.dch.handle(Request{nullptr, 0, kClient});
    EXPECT_EQ(d.drops(dch::kDropMalformed), 1u);
    EXPECT_TRUE(d.transport.answers.empty());
}

// ---------------------------------------------------------------------------
// Who is served
// ---------------------------------------------------------------------------

TEST(DchAccessTest, SenderOutsideTheAllowedNetworksIsDropped) {
    Daemon d;
    const Peer outside = peerAt("10.1.2.3", 5000);
    std::vector<char> query = queryRequest(ZEVD_REQ_DC_GET_APPLICATIONS, nullptr);
    {
        TraceCapture capture("error");
        EXPECT_TRUE(d.send(query, outside).empty());
        EXPECT_TRUE(
            capture.hasText("Error: request from 10.1.2.3 port 5000 dropped: sender not allowed"))
            << capture.joined();
    }
    EXPECT_EQ(d.drops(dch::kDropRefusedSender), 1u);
    EXPECT_EQ(d.dch.counters().requests.at(ZEVD_REQ_DC_GET_APPLICATIONS).load(), 0u);

    std::string bad = "untouched";
    EXPECT_TRUE(d.dch.allow(" 192.168.0.0/16 , 10.0.0.0/8", &bad));
    EXPECT_EQ(bad, "untouched");
    EXPECT_EQ(d.send(query, outside), std::vector<Fields>{text("")});
    EXPECT_EQ(d.drops(dch::kDropRefusedSender), 1u);
    EXPECT_TRUE(d.dch.allowed(peerAt("192.168.77.1", 1).addr));
    EXPECT_FALSE(d.dch.allowed(peerAt("11.0.0.1", 1).addr));
    EXPECT_TRUE(d.dch.allowed(peerAt("127.200.0.1", 1).addr));

    Daemon single;
    EXPECT_TRUE(single.dch.allow("10.1.2.3", &bad));
    EXPECT_TRUE(single.dch.allowed(outside.addr));
    EXPECT_FALSE(single.dch.allowed(peerAt("10.1.2.4", 1).addr));
}

// The transport asks before a connection takes a client slot.
TEST(DchAccessTest, ConnectionFromOutsideTheAllowedNetworksIsRefusedAtItsAccept) {
    Daemon d;
    {
        TraceCapture capture("error");
        EXPECT_FALSE(d.dch.admitsConnection(peerAt("10.1.2.3", 5000).addr));
        EXPECT_TRUE(
            capture.hasText("Error: connection from 10.1.2.3 port 5000 closed: peer not allowed"))
            << capture.joined();
    }
    EXPECT_EQ(d.drops(dch::kDropRefusedSender), 1u);
    {
        TraceCapture capture("error");
        EXPECT_TRUE(d.dch.admitsConnection(peerAt("127.0.0.1", 5001).addr));
        EXPECT_TRUE(d.dch.admitsConnection(peerAt("127.3.0.9", 5002).addr));
        std::string bad;
        EXPECT_TRUE(d.dch.allow("10.0.0.0/8", &bad));
        EXPECT_TRUE(d.dch.admitsConnection(peerAt("10.1.2.3", 5003).addr));
        EXPECT_TRUE(capture.texts().empty()) << capture.joined();
    }
    EXPECT_EQ(d.drops(dch::kDropRefusedSender), 1u);
}

TEST(DchAccessTest, AllowNamesTheEntryThatDoesNotParse) {
    const std::pair<const char *, const char *> cases[] = {
        {"10.0.0.0/33", "10.0.0.0/33"}, {"nonsense", "nonsense"},
        {"10.0.0.0/", "10.0.0.0/"},     {"10.0.0.0/8x", "10.0.0.0/8x"},
        {"300.1.1.1/8", "300.1.1.1/8"}, {"10.0.0.0/8, bogus ", "bogus"},
    };
    for (const auto &[list, entry] : cases) {
        SCOPED_TRACE(list);
        RecordingTransport transport;
        Dch dch(transport);
        std::string bad;
        EXPECT_FALSE(dch.allow(list, &bad));
        EXPECT_EQ(bad, entry);
    }
}

// ---------------------------------------------------------------------------
// Subscribers that cannot be reached, connections that close
// ---------------------------------------------------------------------------

TEST(DchDeliveryTest, StatusSubscriberIsDroppedAfterThreeFailuresInARow) {
    // F: the send fails, S: it succeeds; 16 successes clear the failures.
    struct Case {
        std::string sends;
        bool kept;
    };
    const Case cases[] = {
        {"FF", true},
        {"FFF", false},
        {"FSFSF", false},
        {"FF" + std::string(15, 'S') + "F", false},
        {"FF" + std::string(16, 'S') + "FF", true},
        {"FF" + std::string(16, 'S') + "FFF", false},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.sends);
        Daemon d;
        d.registerApp("app");
        d.subscribeStatus(kSubscriber);
        d.subscribeStatus(kSubscriber2);
        d.transport.forgotten.clear();  // each subscription forgot its peer first
        TraceCapture capture("error");
        for (char send : c.sends) {
            d.transport.unreachable.clear();
            if (send == 'F') d.transport.unreachable.push_back(kSubscriber);
            EXPECT_TRUE(d.send(nameListRequest()).empty());
        }
        auto failures = static_cast<uint64_t>(std::count(c.sends.begin(), c.sends.end(), 'F'));
        EXPECT_EQ(d.drops(dch::kDropSubscriberUnreachable), failures);
        EXPECT_EQ(d.transport.failedDeliveries.size(), failures);
        EXPECT_EQ(d.transport.deliveredTo(kSubscriber2).size(), c.sends.size());
        ASSERT_EQ(d.dch.statusSubscribers().size(), c.kept ? 2u : 1u);
        EXPECT_EQ(d.dch.statusSubscribers().front().peer, c.kept ? kSubscriber : kSubscriber2);
        EXPECT_EQ(capture.hasText(
                      "Error: status subscriber 127.0.0.1 port 41001 dropped after 3 failed sends"),
                  !c.kept)
            << capture.joined();
        EXPECT_EQ(d.transport.forgotten,
                  c.kept ? std::vector<Peer>{} : std::vector<Peer>{kSubscriber});
        EXPECT_EQ(d.dch.counters().statusSubscribers.load(), c.kept ? 2u : 1u);
    }
}

// A subscriber that subscribes again has just spoken from its address and
// port: the failures counted against it and the refusals kept there were
// an earlier socket's (one that ended without withdrawing).
TEST(DchDeliveryTest, SubscribingAgainClearsTheFailuresAndForgetsTheRefusals) {
    Daemon d;
    d.registerApp("app");
    d.subscribeStatus(kSubscriber);
    d.transport.unreachable = {kSubscriber};
    EXPECT_TRUE(d.send(nameListRequest()).empty());
    EXPECT_TRUE(d.send(nameListRequest()).empty());
    d.transport.unreachable.clear();
    d.transport.forgotten.clear();
    d.subscribeStatus(kSubscriber);
    EXPECT_EQ(d.transport.forgotten, std::vector<Peer>{kSubscriber});
    ASSERT_EQ(d.dch.statusSubscribers().size(), 1u);
    EXPECT_EQ(d.dch.statusSubscribers().front().failures, 0);
    // Two failures more do not drop it: it starts from none.
    TraceCapture capture("error");
    d.transport.unreachable = {kSubscriber};
    EXPECT_TRUE(d.send(nameListRequest()).empty());
    EXPECT_TRUE(d.send(nameListRequest()).empty());
    EXPECT_EQ(d.dch.statusSubscribers().size(), 1u);
    EXPECT_FALSE(capture.contains("dropped after 3 failed sends")) << capture.joined();
}

TEST(DchDeliveryTest, DataSubscriberIsDroppedAfterThreeFailedSends) {
    Daemon d;
    d.registerApp("app");
    ASSERT_EQ(d.online("app", "grp", "src"), 1);
    d.subscribeData(kSubscriber, "app", "grp");
    d.subscribeData(kSubscriber2, "app", "grp");
    d.subscribeStatus(kSubscriber2);
    d.transport.forgotten.clear();  // each subscription forgot its peer first
    d.transport.unreachable = {kSubscriber, kSubscriber2};
    TraceCapture capture("error");
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(d.ask(dataRequest(1, 0, {{"count", be32(i)}}), kProvider), status(0));
    EXPECT_TRUE(d.dch.dataSubscribers().empty());
    EXPECT_TRUE(capture.hasText(
        "Error: data subscriber 127.0.0.1 port 41001 of app grp dropped after 3 failed sends"))
        << capture.joined();
    EXPECT_TRUE(capture.hasText(
        "Error: data subscriber 127.0.0.1 port 41002 of app grp dropped after 3 failed sends"))
        << capture.joined();
    // kSubscriber2 still waits for status reports: its resources stay.
    EXPECT_EQ(d.transport.forgotten, std::vector<Peer>{kSubscriber});
    EXPECT_EQ(d.drops(dch::kDropSubscriberUnreachable), 6u);
    EXPECT_EQ(d.dch.counters().rowsForwarded.load(), 0u);
    EXPECT_EQ(d.dch.counters().dataSubscribers.load(), 0u);
}

TEST(DchDeliveryTest, TcpSubscriberIsDroppedAtItsFirstFailedSend) {
    // Its connection could not take a whole message: nothing more may follow.
    const Peer tcpData = peerAt("127.0.0.1", 41005, 12);
    const Peer tcpStatus = peerAt("127.0.0.1", 41006, 13);
    Daemon d;
    d.registerApp("app");
    ASSERT_EQ(d.online("app", "grp", "src"), 1);
    d.subscribeData(tcpData, "app", "grp");
    d.subscribeStatus(tcpStatus);
    d.transport.forgotten.clear();  // each subscription forgot its peer first
    d.transport.unreachable = {tcpData, tcpStatus};
    TraceCapture capture("error");
    EXPECT_EQ(d.ask(dataRequest(1, 0, {{"count", be32(1)}}), kProvider), status(0));
    EXPECT_TRUE(d.dch.dataSubscribers().empty());
    EXPECT_TRUE(
        capture.hasText("Error: data subscriber 127.0.0.1 port 41005 of app grp on "
                        "connection 12 dropped: the connection could not take a whole "
                        "message"))
        << capture.joined();
    EXPECT_TRUE(d.send(nameListRequest()).empty());
    EXPECT_TRUE(d.dch.statusSubscribers().empty());
    EXPECT_TRUE(
        capture.hasText("Error: status subscriber 127.0.0.1 port 41006 on connection 13 "
                        "dropped: the connection could not take a whole message"))
        << capture.joined();
    EXPECT_EQ(d.drops(dch::kDropSubscriberUnreachable), 2u);
    EXPECT_EQ(d.transport.forgotten, (std::vector<Peer>{tcpData, tcpStatus}));
}

TEST(DchDeliveryTest, DisconnectForgetsWhatTheConnectionOpened) {
    Daemon d;
    const Peer connection7 = peerAt("127.0.0.1", 40200, 7);
    const Peer connection8 = peerAt("127.0.0.1", 40300, 8);
    d.registerApp("app", connection7);
    ASSERT_EQ(d.online("app", "grp", "a", connection7), 1);
    ASSERT_EQ(d.online("app", "grp", "b", connection8), 2);
    ASSERT_EQ(d.online("app", "other", "c", connection7), 3);
    d.subscribeData(connection7, "app", "grp");
    d.subscribeData(connection8, "app", "grp");
    d.subscribeStatus(connection8);
    d.subscribeStatus(connection7);
    d.subscribeStatus(kSubscriber);
    d.transport.deliveries.clear();

    d.dch.disconnect(7);
    ASSERT_EQ(d.dch.handles().size(), 1u);
    EXPECT_EQ(d.dch.handles().count(2), 1u);
    ASSERT_EQ(d.dch.dataSubscribers().size(), 1u);
    EXPECT_EQ(d.dch.dataSubscribers()[0].peer, connection8);
    ASSERT_EQ(d.dch.statusSubscribers().size(), 2u);
    EXPECT_EQ(d.dch.statusSubscribers()[0].peer, connection8);
    EXPECT_EQ(d.dch.statusSubscribers()[1].peer, kSubscriber);
    std::vector<Fields> offline = {
        report(ZEVD_REQ_DP_OFFLINE, "app", "grp", "a", connection7),
        report(ZEVD_REQ_DP_OFFLINE, "app", "other", "c", connection7),
    };
    EXPECT_EQ(fieldsOfEach(d.transport.deliveredTo(kSubscriber)), offline);
    EXPECT_EQ(fieldsOfEach(d.transport.deliveredTo(connection8)), offline);
    // The closed connection's own subscriptions ended first: nothing went to it.
    EXPECT_TRUE(d.transport.deliveredTo(connection7).empty());
    EXPECT_EQ(d.dch.counters().providersOnline.load(), 1u);
    EXPECT_EQ(d.dch.counters().dataSubscribers.load(), 1u);
    EXPECT_EQ(d.dch.counters().statusSubscribers.load(), 2u);
    // The application stays: only handles and subscriptions belong to a
    // connection. A connection that opened nothing changes nothing.
    EXPECT_EQ(d.dch.applications().count("app"), 1u);
    d.dch.disconnect(9);
    EXPECT_EQ(d.dch.handles().size(), 1u);
    EXPECT_EQ(d.dch.statusSubscribers().size(), 2u);
}

TEST(DchDeliveryTest, AnswerThatCannotBeSentClosesItsConnection) {
    Daemon d;
    d.transport.answersGo = false;
    const Peer connection = peerAt("127.0.0.1", 40400, 9);
    TraceCapture capture("error");
    d.send(registerRequest("app", ""), connection);
    EXPECT_EQ(d.transport.closed, std::vector<uint32_t>{9});
    EXPECT_TRUE(capture.hasText("Error: answer to 127.0.0.1 port 40400 fd 9 could not be sent"))
        << capture.joined();
    EXPECT_EQ(d.drops(dch::kDropAnswerUnsent), 1u);
    d.send(queryRequest(ZEVD_REQ_DC_GET_APPLICATIONS, nullptr), connection);
    EXPECT_EQ(d.transport.closed, (std::vector<uint32_t>{9, 9}));
    EXPECT_EQ(d.drops(dch::kDropAnswerUnsent), 2u);
    // Over UDP there is no connection to close.
    d.send(queryRequest(ZEVD_REQ_DC_GET_APPLICATIONS, nullptr), kClient);
    EXPECT_EQ(d.transport.closed.size(), 2u);
    EXPECT_EQ(d.drops(dch::kDropAnswerUnsent), 3u);
    EXPECT_EQ(d.dch.counters().answers.load(), 0u);
}

// ---------------------------------------------------------------------------
// Counters
// ---------------------------------------------------------------------------

TEST(DchCountersTest, LinesAfterASmallScenario) {
    Daemon d;
    d.subscribeStatus(kSubscriber);
    d.registerApp("app");
    ASSERT_EQ(d.online("app", "grp", "src"), 1);
    d.subscribeData(kSubscriber2, "app", "grp");
    EXPECT_EQ(d.ask(dataRequest(1, 0, {{"count", be32(1)}}), kProvider), status(0));
    EXPECT_EQ(d.ask(offlineRequest(99), kProvider), status(ZEVD_DCH_UNKNOWN_HANDLE));
    EXPECT_TRUE(d.send(encode(0x1234, {})).empty());
    EXPECT_TRUE(d.send(statusWaitRequest(1), peerAt("10.1.2.3", 5000)).empty());
    const std::vector<std::string> expected = {
        "counter requests{request=\"dp_register\"} 1",
        "counter requests{request=\"dp_online\"} 1",
        "counter requests{request=\"dp_unregister\"} 0",
        "counter requests{request=\"dp_offline\"} 1",
        "counter requests{request=\"dp_data\"} 1",
        "counter requests{request=\"dc_getApplications\"} 0",
        "counter requests{request=\"dc_getApplHelp\"} 0",
        "counter requests{request=\"dc_sendApplNameList\"} 0",
        "counter requests{request=\"dc_getApplAttributes\"} 0",
        "counter requests{request=\"dc_waitOnData\"} 1",
        "counter requests{request=\"dc_waitForDPStatus\"} 1",
        "counter requests{request=\"dc_provideAction\"} 0",
        "counter requests{request=\"dc_waitForActionResults\"} 0",
        "counter requests{request=\"dc_deferReportRequest\"} 0",
        "counter requests{request=\"unknown\"} 1",
        "counter answers 4",
        "counter rows_forwarded 1",
        "counter status_reports 2",
        "counter subscribers{kind=\"data\"} 1",
        "counter subscribers{kind=\"status\"} 1",
        "counter providers_online 1",
        "counter status_reports_waiting 0",
        "counter drops{reason=\"refused_sender\"} 1",
        "counter drops{reason=\"malformed\"} 1",
        "counter drops{reason=\"unknown_handle\"} 1",
        "counter drops{reason=\"subscriber_unreachable\"} 0",
        "counter drops{reason=\"answer_unsent\"} 0",
        "counter drops{reason=\"subscriber_limit\"} 0",
        "counter drops{reason=\"kernel_receive_buffer\"} 0",
    };
    EXPECT_EQ(d.dch.counters().lines(), expected);
}

}  // namespace
