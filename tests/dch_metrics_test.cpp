// The metrics page: rows go through the real handlers, the snapshot copies
// what the Dch holds, and the page written from it is read back by a checker
// that holds it to the text exposition format's rules (one block per family,
// one HELP and one TYPE before its samples, no sample twice, no timestamps,
// a final newline) before any value is looked at.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iostream>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "support/dch_requests.h"
#include "support/metrics_page.h"
#include "support/trace_capture.h"
#include "zevdchd.h"
#include "zevdchd_metrics.h"

namespace {

using namespace zevd::test;  // the requests, the recording transport and Daemon
namespace dch = zevd::dch;

// The page of the daemon, checked: every rule holds.
CheckedPage pageOf(const Daemon &d, std::string *text = nullptr) {
    std::string page = dch::renderMetrics(dch::metricsSnapshot(d.dch));
    CheckedPage checked = check(page);
    EXPECT_TRUE(checked.errors.empty()) << ::testing::PrintToString(checked.errors) << "\n" << page;
    if (text != nullptr) *text = page;
    return checked;
}

Labels at(const std::string &source, int32_t handle, Labels more = {}) {
    more.emplace_back("source", source);
    more.emplace_back("handle", std::to_string(handle));
    return more;
}

void acceptRow(Daemon &d, int32_t handle, const Pairs &pairs, const Peer &from = kProvider) {
    EXPECT_EQ(d.ask(dataRequest(handle, 0, pairs), from), status(0));
}

void registerGroups(Daemon &d, const std::string &appl, const std::vector<Grp> &groups,
                    const Peer &from = kProvider) {
    EXPECT_EQ(d.ask(registerRequest(appl, appl + " help", groups), from), status(0)) << appl;
}

// ---------------------------------------------------------------------------
// Values through the handlers
// ---------------------------------------------------------------------------

// One attribute per type letter: the numbers A C G L N (2 or 4 bytes) and I S
// (2 bytes), text for every other letter.
std::vector<Grp> everyLetter() {
    Grp all{"all", "every letter", {}};
    for (char letter = 'A'; letter <= 'Z'; ++letter)
        all.attributes.push_back(
            {std::string("attr") + letter, letter,
             dch::isNumberType(letter) ? (letter == 'I' || letter == 'S' ? 2 : 4) : 16, ""});
    return {all};
}

TEST(DchMetricsPageTest, RowsOfEveryTypeAreOnThePage) {
    Daemon d;
    registerGroups(d, "every", everyLetter());
    int32_t h = d.online("every", "all", "node-1");
    Pairs pairs = {
        {"attrA", be32(100000)},
        {"attrC", be16(-7)},
        {"attrG", be32(-2000000000)},
        {"attrL", be16(32767)},
        {"attrN", be32(0)},
        {"attrI", be16(-32768)},
        {"attrS", be16(12)},
        {"attrB", "no zero"},
        {"attrD", z("disk")},
        {"attrR", z("r")},
        {"attrT", std::string("ab\0cd", 5)},
        {"attrU", z("")},
        {"attrZ", ""},
    };
    for (char letter : std::string("EFHJKMOPQVWXY"))
        pairs.emplace_back(std::string("attr") + letter, z(std::string("v-") + letter));
    acceptRow(d, h, pairs);

    CheckedPage page = pageOf(d);
    std::map<std::string, std::string> numbers = {
        {"attrA", "100000"}, {"attrC", "-7"},     {"attrG", "-2000000000"}, {"attrL", "32767"},
        {"attrN", "0"},      {"attrI", "-32768"}, {"attrS", "12"},
    };
    for (const auto &[attr, value] : numbers) {
        std::string family = "zevd_every_all_" + attr;
        EXPECT_EQ(page.value(key(family, at("node-1", h))), value) << family;
        EXPECT_EQ(page.types[family], "gauge");
        EXPECT_EQ(page.perFamily[family], 1);
        EXPECT_NE(page.help[family].find("attribute " + attr), std::string::npos);
    }
    Labels texts = {{"attrB", "no zero"}, {"attrD", "disk"}, {"attrR", "r"},
                    {"attrT", "ab"},      {"attrU", ""},     {"attrZ", ""}};
    for (char letter : std::string("EFHJKMOPQVWXY"))
        texts.emplace_back(std::string("attr") + letter, std::string("v-") + letter);
    EXPECT_EQ(page.value(key("zevd_every_all_info", at("node-1", h, texts))), "1");
    EXPECT_EQ(page.types["zevd_every_all_info"], "gauge");
    // Numbers and texts: nothing else of the group.
    EXPECT_EQ(page.keysOf("zevd_every_all_info").size(), 1u);
    size_t families = 0;
    for (const auto &[family, count] : page.perFamily)
        if (family.compare(0, 15, "zevd_every_all_") == 0) ++families;
    EXPECT_EQ(families, numbers.size() + 1);

    // A later row replaces what it names and keeps the rest.
    acceptRow(d, h, {{"attrA", be16(-1)}, {"attrD", z("usr")}});
    page = pageOf(d);
    EXPECT_EQ(page.value(key("zevd_every_all_attrA", at("node-1", h))), "-1");
    EXPECT_EQ(page.value(key("zevd_every_all_attrC", at("node-1", h))), "-7");
    for (auto &[name, value] : texts)
        if (name == "attrD") value = "usr";
    EXPECT_EQ(page.value(key("zevd_every_all_info", at("node-1", h, texts))), "1");
}

TEST(DchMetricsPageTest, OnlyAcceptedRowsChangeTheValues) {
    Daemon d;
    d.registerApp();
    int32_t h = d.online("app", "grp", "src");
    // A handle without rows has nothing on the page.
    EXPECT_TRUE(pageOf(d).keysOf("zevd_app_grp_count").empty());
    acceptRow(d, h, {{"count", be32(5)}, {"name", z("first")}});
    // The first pair fits, the second does not: the row is refused whole.
    EXPECT_EQ(d.ask(dataRequest(h, 0, {{"count", be32(6)}, {"nosuch", z("x")}}), kProvider),
              status(ZEVD_DCH_UNKNOWN_ATTR));
    EXPECT_EQ(
        d.ask(dataRequest(h, 0, {{"count", be32(7)}, {"name", z("far too long")}}), kProvider),
        status(ZEVD_DCH_UNKNOWN_ATTR));
    CheckedPage page = pageOf(d);
    EXPECT_EQ(page.value(key("zevd_app_grp_count", at("src", h))), "5");
    EXPECT_EQ(page.value(key("zevd_app_grp_info", at("src", h, {{"name", "first"}}))), "1");
    // Only what a row named is set: flag of the other group has no value.
    int32_t other = d.online("app", "other", "src");
    EXPECT_TRUE(pageOf(d).keysOf("zevd_app_other_flag").empty());
    acceptRow(d, other, {{"flag", be16(1)}});
    EXPECT_EQ(pageOf(d).value(key("zevd_app_other_flag", at("src", other))), "1");
}

TEST(DchMetricsPageTest, ValuesGoWithTheirHandle) {
    Daemon d;
    d.registerApp();
    d.registerApp("second");
    Peer tcp = peerAt("127.0.0.1", 40005, 9);
    int32_t offline = d.online("app", "grp", "off");
    int32_t kept = d.online("app", "grp", "kept");
    int32_t unregistered = d.online("second", "grp", "unreg");
    int32_t disconnected = d.online("app", "grp", "tcp", tcp);
    for (int32_t h : {offline, kept, unregistered})
        acceptRow(d, h, {{"count", be32(h)}, {"name", z("n")}});
    acceptRow(d, disconnected, {{"count", be32(disconnected)}, {"name", z("n")}}, tcp);
    CheckedPage page = pageOf(d);
    EXPECT_TRUE(page.has(key("zevd_app_grp_count", at("off", offline))));
    EXPECT_TRUE(page.has(key("zevd_second_grp_count", at("unreg", unregistered))));
    EXPECT_TRUE(page.has(key("zevd_app_grp_count", at("tcp", disconnected))));

    EXPECT_EQ(d.ask(offlineRequest(offline), kProvider), status(0));
    page = pageOf(d);
    EXPECT_FALSE(page.has(key("zevd_app_grp_count", at("off", offline))));
    EXPECT_FALSE(page.has(key("zevd_app_grp_info", at("off", offline, {{"name", "n"}}))));

    EXPECT_EQ(d.ask(unregisterRequest("second"), kProvider), status(0));
    page = pageOf(d);
    EXPECT_TRUE(page.keysOf("zevd_second_grp_count").empty());
    EXPECT_TRUE(page.keysOf("zevd_second_grp_info").empty());

    d.dch.disconnect(9);
    page = pageOf(d);
    EXPECT_FALSE(page.has(key("zevd_app_grp_count", at("tcp", disconnected))));
    EXPECT_EQ(page.keysOf("zevd_app_grp_count"),
              std::vector<std::string>{key("zevd_app_grp_count", at("kept", kept))});
    EXPECT_EQ(page.keysOf("zevd_app_grp_info").size(), 1u);

    // A new catalogue drops the values read under the old one; the handle
    // stays and its next row is shown again.
    d.registerApp();
    page = pageOf(d);
    EXPECT_TRUE(page.keysOf("zevd_app_grp_count").empty());
    EXPECT_TRUE(page.keysOf("zevd_app_grp_info").empty());
    acceptRow(d, kept, {{"count", be32(3)}});
    EXPECT_EQ(pageOf(d).value(key("zevd_app_grp_count", at("kept", kept))), "3");
}

TEST(DchMetricsPageTest, CountersAreOnThePage) {
    int64_t before = time(nullptr);
    Daemon d;
    int64_t after = time(nullptr);
    d.subscribeStatus(kSubscriber2);
    d.registerApp();
    int32_t h = d.online("app", "grp", "src");
    d.subscribeData(kSubscriber, "app", "grp");
    acceptRow(d, h, {{"count", be32(1)}});
    EXPECT_EQ(d.ask(offlineRequest(999), kProvider), status(ZEVD_DCH_UNKNOWN_HANDLE));
    EXPECT_EQ(d.ask(encode(ZEVD_REQ_DP_OFFLINE, {}), kProvider), status(ZEVD_DCH_MALFORMED));
    d.send(encode(0x7777, {}));
    d.dch.counters().drops[dch::kDropKernel] = 7;

    CheckedPage page = pageOf(d);
    const dch::Counters &c = d.dch.counters();
    for (const dch::Dch::Handler &handler : dch::Dch::handlerTable())
        EXPECT_EQ(page.value(key("zevd_dch_requests_total", {{"request", handler.name}})),
                  std::to_string(c.requests.at(handler.code).load()))
            << handler.name;
    EXPECT_EQ(page.value(key("zevd_dch_requests_total", {{"request", "dp_data"}})), "1");
    EXPECT_EQ(page.value(key("zevd_dch_requests_total", {{"request", "unknown"}})), "1");
    EXPECT_EQ(page.perFamily["zevd_dch_requests_total"],
              static_cast<int>(dch::Dch::handlerTable().size()) + 1);
    EXPECT_EQ(page.value("zevd_dch_answers_total"), std::to_string(c.answers.load()));
    EXPECT_EQ(page.value("zevd_dch_rows_forwarded_total"), "1");
    EXPECT_EQ(page.value("zevd_dch_status_reports_total"), std::to_string(c.statusReports.load()));
    EXPECT_NE(page.value("zevd_dch_status_reports_total"), "0");
    std::map<std::string, std::string> drops = {
        {"refused_sender", "0"},         {"malformed", "2"},     {"unknown_handle", "1"},
        {"subscriber_unreachable", "0"}, {"answer_unsent", "0"}, {"subscriber_limit", "0"},
        {"kernel_receive_buffer", "7"},
    };
    for (const auto &[reason, value] : drops)
        EXPECT_EQ(page.value(key("zevd_dch_drops_total", {{"reason", reason}})), value) << reason;
    EXPECT_EQ(page.perFamily["zevd_dch_drops_total"], static_cast<int>(drops.size()));
    for (const char *counter :
         {"zevd_dch_requests_total", "zevd_dch_answers_total", "zevd_dch_rows_forwarded_total",
          "zevd_dch_status_reports_total", "zevd_dch_drops_total"})
        EXPECT_EQ(page.types[counter], "counter") << counter;
    EXPECT_EQ(page.value("zevd_dch_providers_online"), "1");
    EXPECT_EQ(page.value(key("zevd_dch_subscribers", {{"kind", "data"}})), "1");
    EXPECT_EQ(page.value(key("zevd_dch_subscribers", {{"kind", "status"}})), "1");
    EXPECT_EQ(page.value("zevd_dch_up"), "1");
    std::string version = dch::metricsSnapshot(d.dch).version;
    EXPECT_FALSE(version.empty());
    EXPECT_EQ(page.value(key("zevd_build_info", {{"version", version}})), "1");
    EXPECT_EQ(page.value("zevd_dch_info_series_dropped"), "0");
    EXPECT_EQ(page.value("zevd_dch_info_labels_dropped"), "0");
    for (const char *gauge : {"zevd_dch_providers_online", "zevd_dch_subscribers", "zevd_dch_up",
                              "zevd_build_info", "zevd_dch_start_time_seconds",
                              "zevd_dch_info_series_dropped", "zevd_dch_info_labels_dropped"})
        EXPECT_EQ(page.types[gauge], "gauge") << gauge;
    EXPECT_GE(d.dch.startTime(), before);
    EXPECT_LE(d.dch.startTime(), after);
    EXPECT_EQ(page.value("zevd_dch_start_time_seconds"), std::to_string(d.dch.startTime()));
    for (const auto &[family, help] : page.help) EXPECT_FALSE(help.empty()) << family;
}

// The page of docs/metrics.md, printed for it.
TEST(DchMetricsPageTest, DocumentedExample) {
    Daemon d;
    d.subscribeStatus(kSubscriber2);
    registerGroups(d, "demo",
                   {{"disk",
                     "Disk usage",
                     {{"mount", 'D', 64, "Mount point"}, {"usedPct", 'A', 4, "Percent used"}}}});
    int32_t h = d.online("demo", "disk", "node-1");
    d.subscribeData(kSubscriber, "demo", "disk");
    acceptRow(d, h, {{"mount", z("/")}, {"usedPct", be32(41)}});
    std::string text;
    CheckedPage page = pageOf(d, &text);
    EXPECT_EQ(page.value(key("zevd_demo_disk_usedPct", at("node-1", h))), "41");
    EXPECT_EQ(page.value(key("zevd_demo_disk_info", at("node-1", h, {{"mount", "/"}}))), "1");
    std::cout << text;
    // The page as docs/metrics.md shows it: the code block after the line
    // that names this test, its start time aside.
    std::ifstream doc(ZEVD_METRICS_DOC);
    std::string line, shown;
    bool named = false, inBlock = false;
    while (std::getline(doc, line)) {
        if (!named) {
            named = line.find("DchMetricsPageTest.DocumentedExample") != std::string::npos;
        } else if (line == "```") {
            if (inBlock) break;
            inBlock = true;
        } else if (inBlock) {
            shown += line + "\n";
        }
    }
    auto withoutStartTime = [](std::string shownPage) {
        const std::string name = "\nzevd_dch_start_time_seconds ";
        size_t at = shownPage.find(name);
        if (at != std::string::npos)
            shownPage.erase(at + name.size(), shownPage.find('\n', at + 1) - at - name.size());
        return shownPage;
    };
    EXPECT_EQ(withoutStartTime(shown), withoutStartTime(text));
}

// ---------------------------------------------------------------------------
// Names
// ---------------------------------------------------------------------------

TEST(DchMetricsNamesTest, CharactersOutsideTheAllowedOnesBecomeUnderscores) {
    Daemon d;
    registerGroups(d, "my-app.v2",
                   {{"disk.io", "", {{"used%/s", 'A', 4, ""}, {"Max", 'N', 2, ""}}}});
    int32_t h = d.online("my-app.v2", "disk.io", "node:1");
    acceptRow(d, h, {{"used%/s", be32(41)}, {"Max", be16(3)}});
    CheckedPage page = pageOf(d);
    EXPECT_EQ(page.value(key("zevd_my_app_v2_disk_io_used__s", at("node:1", h))), "41");
    EXPECT_EQ(page.value(key("zevd_my_app_v2_disk_io_Max", at("node:1", h))), "3");
    EXPECT_NE(page.help["zevd_my_app_v2_disk_io_used__s"].find("attribute used%/s"),
              std::string::npos);
}

TEST(DchMetricsNamesTest, TextLabelNamesAreMadeDistinct) {
    Daemon d;
    std::vector<Attr> attrs;
    for (const char *name :
         {"source", "source_", "handle", "9lives", "9lives_", "__x", "a.b", "a-b", "_", "-"})
        attrs.push_back({name, 'D', 16, ""});
    registerGroups(d, "lab", {{"g", "", attrs}});
    int32_t h = d.online("lab", "g", "s");
    Pairs pairs;
    for (const Attr &a : attrs) pairs.emplace_back(a.name, z("v" + a.name));
    acceptRow(d, h, pairs);
    CheckedPage page = pageOf(d);
    Labels expected = at("s", h,
                         {{"source_", "vsource"},
                          {"source__", "vsource_"},
                          {"handle_", "vhandle"},
                          {"_9lives", "v9lives"},
                          {"_9lives_", "v9lives_"},
                          {"a__x", "v__x"},
                          {"a_b", "va.b"},
                          {"a_b_", "va-b"},
                          {"_", "v_"},
                          {"a__", "v-"}});  // "__" would be reserved
    EXPECT_EQ(page.value(key("zevd_lab_g_info", expected)), "1")
        << ::testing::PrintToString(page.keysOf("zevd_lab_g_info"));
}

TEST(DchMetricsNamesTest, NamesThatMeetStayOneFamilyWithDistinctSamples) {
    Daemon d;
    // Within one group: x.y and x-y meet, and so do info (kept off the
    // group's _info family) and info_.
    registerGroups(d, "n",
                   {{"g",
                     "",
                     {{"x.y", 'A', 4, ""},
                      {"x-y", 'A', 4, ""},
                      {"info", 'S', 2, ""},
                      {"info_", 'S', 2, ""},
                      {"t", 'D', 4, ""}}}});
    // Across applications and groups: a_b/c and a/b_c; and a number c_info of
    // a/b meets the _info family of a/b_c.
    registerGroups(d, "a_b", {{"c", "", {{"v", 'A', 4, ""}}}});
    registerGroups(
        d, "a",
        {{"b_c", "", {{"v", 'A', 4, ""}, {"t", 'D', 4, ""}}}, {"b", "", {{"c_info", 'A', 4, ""}}}});
    int32_t hn = d.online("n", "g", "s");
    int32_t h1 = d.online("a_b", "c", "s");
    int32_t h2 = d.online("a", "b_c", "s");
    int32_t h3 = d.online("a", "b", "s");
    acceptRow(
        d, hn,
        {{"x.y", be32(1)}, {"x-y", be32(2)}, {"info", be16(3)}, {"info_", be16(4)}, {"t", z("w")}});
    acceptRow(d, h1, {{"v", be32(10)}});
    acceptRow(d, h2, {{"v", be32(20)}, {"t", z("")}});
    acceptRow(d, h3, {{"c_info", be32(30)}});
    CheckedPage page = pageOf(d);
    EXPECT_EQ(page.value(key("zevd_n_g_x_y", at("s", hn, {{"attribute", "x.y"}}))), "1");
    EXPECT_EQ(page.value(key("zevd_n_g_x_y", at("s", hn, {{"attribute", "x-y"}}))), "2");
    EXPECT_EQ(page.value(key("zevd_n_g_info_", at("s", hn, {{"attribute", "info"}}))), "3");
    EXPECT_EQ(page.value(key("zevd_n_g_info_", at("s", hn, {{"attribute", "info_"}}))), "4");
    EXPECT_EQ(page.keysOf("zevd_n_g_info"),
              std::vector<std::string>{key("zevd_n_g_info", at("s", hn, {{"t", "w"}}))});
    EXPECT_EQ(page.value(key("zevd_a_b_c_v", at("s", h1))), "10");
    EXPECT_EQ(page.value(key("zevd_a_b_c_v", at("s", h2))), "20");
    EXPECT_EQ(page.value(key("zevd_a_b_c_info", at("s", h2, {{"t", ""}}))), "1");
    EXPECT_EQ(page.value(key("zevd_a_b_c_info", at("s", h3))), "30");
    EXPECT_EQ(page.perFamily["zevd_a_b_c_v"], 2);
    EXPECT_EQ(page.perFamily["zevd_a_b_c_info"], 2);
}

TEST(DchMetricsNamesTest, NamesThatShowTheSameOnceRepairedCarryTheirPlace) {
    Daemon d;
    // Neither name is UTF-8: both show as "x" and U+FFFD on the page.
    registerGroups(d, "u", {{"g", "", {{"x\xfe", 'A', 4, ""}, {"x\xff", 'A', 4, ""}}}});
    int32_t h = d.online("u", "g", "s");
    acceptRow(d, h, {{"x\xfe", be32(1)}, {"x\xff", be32(2)}});
    CheckedPage page = pageOf(d);
    EXPECT_EQ(page.value(key("zevd_u_g_x_", at("s", h, {{"attribute", "x\xef\xbf\xbd #1"}}))), "1")
        << ::testing::PrintToString(page.keysOf("zevd_u_g_x_"));
    EXPECT_EQ(page.value(key("zevd_u_g_x_", at("s", h, {{"attribute", "x\xef\xbf\xbd #2"}}))), "2");
}

// Every family the daemon writes itself is one that data cannot take.
TEST(DchMetricsNamesTest, EveryFamilyOfTheDaemonsOwnIsKeptFromTheData) {
    Daemon d;
    CheckedPage page = pageOf(d);
    ASSERT_GE(page.types.size(), 10u);
    for (const auto &[family, type] : page.types) EXPECT_TRUE(dch::isOwnFamily(family)) << family;
}

TEST(DchMetricsNamesTest, DataNeverTakesTheDaemonsOwnNames) {
    Daemon d;
    registerGroups(d, "dch",
                   {{"providers", "", {{"online", 'A', 4, ""}, {"online_", 'A', 4, ""}}},
                    {"requests", "", {{"total", 'A', 4, ""}}},
                    {"info", "", {{"labels_dropped", 'A', 4, ""}}},
                    {"status", "", {{"reports_waiting", 'A', 4, ""}}}});
    int32_t h1 = d.online("dch", "providers", "s");
    int32_t h2 = d.online("dch", "requests", "s");
    int32_t h3 = d.online("dch", "info", "s");
    acceptRow(d, h1, {{"online", be32(5)}, {"online_", be32(6)}});
    acceptRow(d, h2, {{"total", be32(7)}});
    acceptRow(d, h3, {{"labels_dropped", be32(8)}});
    int32_t h4 = d.online("dch", "status", "s");
    acceptRow(d, h4, {{"reports_waiting", be32(9)}});
    CheckedPage page = pageOf(d);
    EXPECT_EQ(page.value("zevd_dch_providers_online"), "4");
    EXPECT_EQ(page.perFamily["zevd_dch_providers_online"], 1);
    EXPECT_EQ(page.value(key("zevd_dch_providers_online_", at("s", h1, {{"attribute", "online"}}))),
              "5");
    EXPECT_EQ(
        page.value(key("zevd_dch_providers_online_", at("s", h1, {{"attribute", "online_"}}))),
        "6");
    EXPECT_EQ(page.value(key("zevd_dch_requests_total_", at("s", h2))), "7");
    EXPECT_EQ(page.types["zevd_dch_requests_total_"], "gauge");
    EXPECT_EQ(page.value(key("zevd_dch_info_labels_dropped_", at("s", h3))), "8");
    EXPECT_EQ(page.value("zevd_dch_info_labels_dropped"), "0");
    EXPECT_EQ(page.value(key("zevd_dch_status_reports_waiting_", at("s", h4))), "9");
    EXPECT_EQ(page.value("zevd_dch_status_reports_waiting"), "0");
    EXPECT_EQ(page.perFamily["zevd_dch_status_reports_waiting"], 1);
}

// ---------------------------------------------------------------------------
// Escapes
// ---------------------------------------------------------------------------

TEST(DchMetricsEscapeTest, LabelValuesAndHelpAreEscaped) {
    Daemon d;
    registerGroups(d, "ap\\p", {{"g\"q", "", {{"n", 'A', 4, ""}, {"t", 'D', 64, ""}}}});
    std::string source = "q\"s\\";
    int32_t h = d.online("ap\\p", "g\"q", source);
    std::string value = "a\"b\\c\nd\n";
    acceptRow(d, h, {{"n", be32(1)}, {"t", z(value)}});
    std::string text;
    CheckedPage page = pageOf(d, &text);
    EXPECT_EQ(page.value(key("zevd_ap_p_g_q_n", at(source, h))), "1");
    EXPECT_EQ(page.value(key("zevd_ap_p_g_q_info", at(source, h, {{"t", value}}))), "1");
    EXPECT_NE(text.find("t=\"a\\\"b\\\\c\\nd\\n\""), std::string::npos) << text;
    EXPECT_NE(text.find("source=\"q\\\"s\\\\\""), std::string::npos) << text;
    // In HELP only the backslash and the newline are escaped.
    EXPECT_NE(text.find("# HELP zevd_ap_p_g_q_n Latest value of attribute n (type A) of group "
                        "g\"q of application ap\\\\p.\n"),
              std::string::npos)
        << text;
    EXPECT_EQ(page.help["zevd_ap_p_g_q_n"],
              "Latest value of attribute n (type A) of group g\"q of application ap\\p.");
}

TEST(DchMetricsEscapeTest, BytesThatAreNotUtf8AreReplaced) {
    Daemon d;
    registerGroups(d, "u", {{"g", "", {{"t", 'D', 64, ""}}}});
    int32_t h = d.online("u", "g", "s\xe9");
    // A stray byte, a lead byte without its continuation, an overlong form,
    // a surrogate and a cut four-byte form; the two-byte é stays.
    acceptRow(d, h, {{"t", z("ok\xff\xc3(\xc3\xa9\xc0\xaf\xed\xa0\x80\xf0\x9f\x98")}});
    std::string r = "\xef\xbf\xbd";
    CheckedPage page = pageOf(d);
    EXPECT_EQ(
        page.keysOf("zevd_u_g_info"),
        std::vector<std::string>{key(
            "zevd_u_g_info",
            at("s" + r, h, {{"t", "ok" + r + r + "(\xc3\xa9" + r + r + r + r + r + r + r + r}}))});
}

// ---------------------------------------------------------------------------
// Bounds
// ---------------------------------------------------------------------------

TEST(DchMetricsBoundsTest, LongTextsAreCutBetweenCharacters) {
    Daemon d;
    registerGroups(d, "long", {{"g", "", {{"t", 'D', 4096, ""}, {"u", 'D', 4096, ""}}}});
    int32_t h = d.online("long", "g", "s");
    std::string longText(dch::kMaxLabelValue + 44, 'x');
    std::string cutInside = std::string(dch::kMaxLabelValue - 1, 'y') + "\xc3\xa9";
    acceptRow(d, h, {{"t", z(longText)}, {"u", z(cutInside)}});
    CheckedPage page = pageOf(d);
    EXPECT_EQ(page.keysOf("zevd_long_g_info"),
              std::vector<std::string>{
                  key("zevd_long_g_info", at("s", h,
                                             {{"t", std::string(dch::kMaxLabelValue, 'x')},
                                              {"u", std::string(dch::kMaxLabelValue - 1, 'y')}}))});
    // The Dch keeps no more than the page shows.
    EXPECT_EQ(d.dch.handles().at(h).latest[0].text.size(), dch::kLatestTextMax);
}

TEST(DchMetricsBoundsTest, InfoSeriesBeyondTheBoundAreLeftOutAndCounted) {
    Daemon d;
    d.registerApp();
    int32_t last = 0;
    for (size_t i = 0; i <= dch::kMaxInfoSeries; ++i) {
        last = d.online("app", "grp", "s" + std::to_string(i));
        acceptRow(d, last, {{"count", be32(static_cast<int32_t>(i))}, {"name", z("n")}});
    }
    CheckedPage page = pageOf(d);
    EXPECT_EQ(page.perFamily["zevd_app_grp_info"], static_cast<int>(dch::kMaxInfoSeries));
    EXPECT_EQ(page.perFamily["zevd_app_grp_count"], static_cast<int>(dch::kMaxInfoSeries) + 1);
    EXPECT_FALSE(page.has(key("zevd_app_grp_info", at("s" + std::to_string(dch::kMaxInfoSeries),
                                                      last, {{"name", "n"}}))));
    EXPECT_EQ(page.value("zevd_dch_info_series_dropped"), "1");
    EXPECT_EQ(d.ask(offlineRequest(1), kProvider), status(0));
    page = pageOf(d);
    EXPECT_EQ(page.value("zevd_dch_info_series_dropped"), "0");
    EXPECT_TRUE(page.has(key("zevd_app_grp_info", at("s" + std::to_string(dch::kMaxInfoSeries),
                                                     last, {{"name", "n"}}))));
}

TEST(DchMetricsBoundsTest, LabelsBeyondTheBoundAreLeftOutAndCounted) {
    Daemon d;
    std::vector<Attr> attrs;
    Pairs pairs;
    Labels labels;
    for (size_t i = 0; i < dch::kMaxInfoLabels + 2; ++i) {
        std::string name = "t" + std::to_string(i);
        attrs.push_back({name, 'D', 4, ""});
        pairs.emplace_back(name, z("v"));
        if (i < dch::kMaxInfoLabels) labels.emplace_back(name, "v");
    }
    registerGroups(d, "wide", {{"g", "", attrs}});
    int32_t h = d.online("wide", "g", "s");
    acceptRow(d, h, pairs);
    CheckedPage page = pageOf(d);
    EXPECT_EQ(page.keysOf("zevd_wide_g_info"),
              std::vector<std::string>{key("zevd_wide_g_info", at("s", h, labels))});
    EXPECT_EQ(page.value("zevd_dch_info_labels_dropped"), "2");
}

// Groups of 4096 text attributes: each handle's values are counted as
// 4096 values of 256 bytes, and only so many handles keep theirs. The rows
// of the others are served all the same.
TEST(DchMetricsBoundsTest, LatestValuesPastTheirBoundAreNotKeptAndTheRowsAreServed) {
    Daemon d;
    Grp wide{"g", "", {}};
    for (int i = 0; i < 4096; ++i)
        wide.attributes.push_back({"t" + std::to_string(i), 'D', 16, ""});
    std::vector<ReqField> fields = {i16(DCH_requestType, ZEVD_REQ_DP_REGISTER)};
    std::vector<ReqField> catalogue = catalogueFields("wide", "", {wide});
    fields.insert(fields.end(), catalogue.begin(), catalogue.end());
    ASSERT_EQ(d.ask(encodeFields(fields, 1023 * 4096), kProvider), status(0));
    const size_t charge = 4096 * (sizeof(dch::LatestValue) + dch::kLatestTextMax);
    const size_t fit = dch::kMaxLatestBytes / charge;
    ASSERT_GT(fit, 2u);
    TraceCapture capture("error");
    std::vector<int32_t> handles;
    for (size_t i = 0; i < fit + 2; ++i) {
        handles.push_back(d.online("wide", "g", "s" + std::to_string(i)));
        ASSERT_GT(handles.back(), 0);
        acceptRow(d, handles.back(), {{"t7", z("v")}});
    }
    EXPECT_EQ(d.dch.latestBytes(), fit * charge);
    for (size_t i = 0; i < handles.size(); ++i)
        EXPECT_EQ(d.dch.handles().at(handles[i]).latest.size(), i < fit ? 4096u : 0u) << i;
    const int32_t refused = handles[fit];
    EXPECT_TRUE(capture.hasText("Error: the latest values of handle " + std::to_string(refused) +
                                " (wide g s" + std::to_string(fit) +
                                ") are not kept: those of the other handles take " +
                                std::to_string(fit * charge) + " bytes of the " +
                                std::to_string(dch::kMaxLatestBytes) + " they may\n"))
        << capture.joined();
    // Once a handle.
    acceptRow(d, refused, {{"t7", z("w")}});
    EXPECT_EQ(capture.count("are not kept"), 2u) << capture.joined();
    CheckedPage page = pageOf(d);
    EXPECT_TRUE(page.has(key("zevd_wide_g_info", at("s0", handles[0], {{"t7", "v"}}))));
    EXPECT_TRUE(page.keysOf("zevd_wide_g_info").size() == fit);

    // A handle that closes leaves its room to the next row that needs it.
    EXPECT_EQ(d.ask(offlineRequest(handles[0]), kProvider), status(0));
    EXPECT_EQ(d.dch.latestBytes(), (fit - 1) * charge);
    acceptRow(d, refused, {{"t7", z("x")}});
    EXPECT_EQ(d.dch.handles().at(refused).latest.size(), 4096u);
    EXPECT_EQ(d.dch.latestBytes(), fit * charge);
    EXPECT_TRUE(pageOf(d).has(
        key("zevd_wide_g_info", at("s" + std::to_string(fit), refused, {{"t7", "x"}}))));
    // A new catalogue drops them all.
    ASSERT_EQ(d.ask(encodeFields(fields, 1023 * 4096), kProvider), status(0));
    EXPECT_EQ(d.dch.latestBytes(), 0u);
    for (int32_t h : handles) {
        if (d.dch.handles().count(h) != 0) {
            EXPECT_TRUE(d.dch.handles().at(h).latest.empty());
        }
    }
}

// Without the metrics page nothing reads the values: none is kept.
TEST(DchMetricsBoundsTest, WithoutThePageNoValueIsKept) {
    Daemon d;
    d.dch.setKeepLatestValues(false);
    d.registerApp();
    int32_t h = d.online("app", "grp", "src");
    acceptRow(d, h, {{"count", be32(5)}, {"name", z("n")}});
    EXPECT_TRUE(d.dch.handles().at(h).latest.empty());
    EXPECT_EQ(d.dch.latestBytes(), 0u);
    EXPECT_TRUE(pageOf(d).keysOf("zevd_app_grp_count").empty());
}

// ---------------------------------------------------------------------------
// The snapshot
// ---------------------------------------------------------------------------

TEST(DchMetricsSnapshotTest, SnapshotIsACopy) {
    Daemon d;
    d.registerApp();
    int32_t h = d.online("app", "grp", "src");
    acceptRow(d, h, {{"count", be32(9)}, {"name", z("n")}});
    dch::MetricsSnapshot snapshot = dch::metricsSnapshot(d.dch);
    ASSERT_EQ(snapshot.groups.size(), 1u);
    EXPECT_EQ(snapshot.groups[0].appl, "app");
    EXPECT_EQ(snapshot.groups[0].group, "grp");
    ASSERT_EQ(snapshot.groups[0].attributes.size(), 2u);
    EXPECT_EQ(snapshot.groups[0].attributes[1].name, "name");
    EXPECT_EQ(snapshot.groups[0].attributes[1].type, 'D');
    ASSERT_EQ(snapshot.series.size(), 1u);
    EXPECT_EQ(snapshot.series[0].source, "src");
    EXPECT_EQ(snapshot.series[0].handle, h);
    ASSERT_EQ(snapshot.series[0].values.size(), 2u);
    EXPECT_EQ(snapshot.series[0].values[0].number, 9);
    EXPECT_EQ(snapshot.series[0].values[1].text, "n");
    EXPECT_EQ(d.ask(offlineRequest(h), kProvider), status(0));
    d.registerApp();  // the catalogue the snapshot copied is gone too
    EXPECT_EQ(check(dch::renderMetrics(snapshot)).value(key("zevd_app_grp_count", at("src", h))),
              "9");
    EXPECT_TRUE(dch::metricsSnapshot(d.dch).series.empty());
}

TEST(DchMetricsSnapshotTest, SnapshotOfAThousandSeriesIsCheap) {
    Daemon d;
    d.registerApp();
    constexpr int kSeries = 1000;
    for (int i = 0; i < kSeries; ++i) {
        int32_t h = d.online("app", "grp", "node-" + std::to_string(i));
        acceptRow(d, h, {{"count", be32(i)}, {"name", z("disk" + std::to_string(i % 7))}});
    }
    constexpr int kRounds = 200;
    size_t seen = 0;
    auto start = std::chrono::steady_clock::now();
    for (int round = 0; round < kRounds; ++round) seen += dch::metricsSnapshot(d.dch).series.size();
    auto took = std::chrono::steady_clock::now() - start;
    EXPECT_EQ(seen, static_cast<size_t>(kSeries) * kRounds);
    double each = std::chrono::duration<double, std::micro>(took).count() / kRounds;

    dch::MetricsSnapshot snapshot = dch::metricsSnapshot(d.dch);
    start = std::chrono::steady_clock::now();
    std::string page;
    for (int round = 0; round < 20; ++round) page = dch::renderMetrics(snapshot);
    double render =
        std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start)
            .count() /
        20;
    EXPECT_TRUE(check(page).errors.empty());
    std::cout << "snapshot of " << kSeries << " handles (2 attributes each): " << each
              << " us; page of " << page.size() << " bytes rendered in " << render << " us\n";
    RecordProperty("snapshot_us", std::to_string(each));
    RecordProperty("render_us", std::to_string(render));
}

// ---------------------------------------------------------------------------
// The checker itself, and promtool when it is there
// ---------------------------------------------------------------------------

TEST(DchMetricsCheckerTest, CheckerFindsWhatBreaksThePage) {
    const std::string good = "# HELP a A.\n# TYPE a gauge\na{x=\"1\"} 1\na{x=\"2\"} 2\n";
    EXPECT_TRUE(check(good).errors.empty()) << ::testing::PrintToString(check(good).errors);
    const char *const bad[] = {
        "# HELP a A.\n# TYPE a gauge\na 1",                                       // no newline
        "# TYPE a gauge\na 1\n# TYPE b gauge\nb 1\n# HELP a A.\na{x=\"1\"} 1\n",  // two blocks
        "# TYPE a gauge\na{x=\"1\",y=\"2\"} 1\na{y=\"2\",x=\"1\"} 2\n",           // same sample
        "# TYPE a gauge\nb 1\n",                                                  // not its TYPE
        "# TYPE a gauge\na 1 1700000000000\n",                                    // a timestamp
        "# HELP a A.\n# HELP a A.\n# TYPE a gauge\na 1\n",                        // HELP twice
        "# TYPE a gauge\n# TYPE a counter\na 1\n",                                // TYPE twice
        "# TYPE a gauge\na 1\n# HELP a A.\n",                                     // HELP after
        "# TYPE a gauge\na{x=\"\\t\"} 1\n",                                       // bad escape
        "# TYPE a gauge\na{__x=\"1\"} 1\n",                                       // reserved
        "# TYPE a gauge\na{x=\"\xff\"} 1\n",                                      // not UTF-8
        "a 1\n",                                                                  // no TYPE
    };
    for (const char *page : bad) EXPECT_FALSE(check(page).errors.empty()) << page;
}

TEST(DchMetricsPromtoolTest, PromtoolAcceptsThePage) {
    std::string promtool = findPromtool();
    if (promtool.empty()) {
        ASSERT_FALSE(promtoolRequired()) << "promtool is missing: scripts/setup.sh fetches it";
        GTEST_SKIP() << "promtool is not installed";
    }
    Daemon d;
    registerGroups(
        d, "demo",
        {{"disk",
          "",
          {{"used_ratio", 'A', 4, ""}, {"mount", 'D', 64, ""}, {"free_blocks", 'N', 4, ""}}}});
    int32_t h = d.online("demo", "disk", "node-1");
    acceptRow(
        d, h,
        {{"used_ratio", be32(41)}, {"mount", z("/srv \"a\"\\b\nc")}, {"free_blocks", be32(-3)}});
    d.subscribeStatus(kSubscriber);
    std::string page = dch::renderMetrics(dch::metricsSnapshot(d.dch));
    std::string said;
    EXPECT_EQ(promtoolCheck(promtool, page, &said), 0) << said << "\n" << page;
}

}  // namespace
