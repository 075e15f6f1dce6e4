// The catalogue's bounds and lookups, through the handlers: a register of
// 40,000 attributes is taken and every attribute found; 1,024 groups an
// application, 4,096 attributes a group and --max-catalogue bytes of
// registration text for every catalogue together, past which a register is
// answered 21 and nothing changes; the memory a catalogue holds against its
// text; the answers in catalogue order whatever the hash; a query of a
// catalogue larger than one answer, cut at a line end, at the cost of what
// it answers.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <new>
#include <string>
#include <vector>

#include "support/dch_requests.h"
#include "support/trace_capture.h"
#include "zevd610.h"
#include "zevdchd.h"

// Bytes asked of operator new while counting is on. This program replaces
// every plain form of new and delete (malloc and free underneath, so that
// each pair matches), so that a case can weigh what one request costs.
std::atomic<bool> countingNew{false};
std::atomic<size_t> bytesNewed{0};

namespace {

void *counted(size_t size) noexcept {
    if (countingNew.load(std::memory_order_relaxed))
        bytesNewed.fetch_add(size, std::memory_order_relaxed);
    return std::malloc(size == 0 ? 1 : size);
}

}  // namespace

void *operator new(size_t size) {
    if (void *p = counted(size)) return p;
    throw std::bad_alloc();
}
void *operator new[](size_t size) {
    if (void *p = counted(size)) return p;
    throw std::bad_alloc();
}
void *operator new(size_t size, const std::nothrow_t &) noexcept {
    return counted(size);
}
void *operator new[](size_t size, const std::nothrow_t &) noexcept {
    return counted(size);
}
void operator delete(void *p) noexcept {
    std::free(p);
}
void operator delete[](void *p) noexcept {
    std::free(p);
}
void operator delete(void *p, size_t) noexcept {
    std::free(p);
}
void operator delete[](void *p, size_t) noexcept {
    std::free(p);
}

namespace {

namespace dch = zevd::dch;
using namespace zevd::test;

// Big requests go over TCP: up to 1023 pieces of 4096 bytes.
constexpr size_t kLargestRequest = 1023 * 4096;

std::vector<char> largeRegister(const std::string &appl, const std::vector<Grp> &groups,
                                const std::string &help = "") {
    std::vector<ReqField> fields = {i16(DCH_requestType, ZEVD_REQ_DP_REGISTER)};
    std::vector<ReqField> catalogue = catalogueFields(appl, help, groups);
    fields.insert(fields.end(), catalogue.begin(), catalogue.end());
    return encodeFields(fields, kLargestRequest);
}

// count groups of perGroup attributes; with helps, or bare (the shortest
// names, no help at all: where the catalogue's own entries weigh most).
std::vector<Grp> manyAttributes(size_t count, size_t perGroup, bool helps) {
    std::vector<Grp> groups;
    for (size_t g = 0; g < count; ++g) {
        Grp group{
            "group" + std::to_string(g), helps ? "group number " + std::to_string(g) : "", {}};
        for (size_t a = 0; a < perGroup; ++a) {
            std::string name = helps ? "attribute" + std::to_string(a) : std::to_string(a);
            std::string help = helps ? "the reading of attribute " + std::to_string(a) : "";
            group.attributes.push_back(
                {name, static_cast<int16_t>(a % 2 ? 'A' : 'D'), a % 2 ? 4 : 16, help});
        }
        groups.push_back(std::move(group));
    }
    return groups;
}

std::string attributesText(Daemon &d, const char *appl) {
    Fields answer = d.ask(queryRequest(ZEVD_REQ_DC_GET_APPL_ATTRIBUTES, appl));
    return answer.size() == 1 ? answer[0].second : "(no text)";
}

// ---------------------------------------------------------------------------
// Large catalogues
// ---------------------------------------------------------------------------

// 40,000 attributes in one register, in ten groups of 4,000: one group
// cannot hold them (4,096 at most). bench_dch_catalogue gives the time.
TEST(DchCatalogueTest, FortyThousandAttributesAreTakenAndEachIsFound) {
    Daemon d;
    TraceCapture capture("error");
    std::vector<Grp> groups = manyAttributes(10, 4000, true);
    std::vector<char> request = largeRegister("big", groups);
    ASSERT_GT(request.size(), 4096u * 100);
    EXPECT_EQ(d.ask(request, kProvider), status(0));
    const dch::Application &app = d.dch.applications().at("big");
    EXPECT_EQ(app.groupCount(), 10u);
    EXPECT_EQ(app.attributeCount(), 40000u);
    EXPECT_EQ(app.requestBytes(), request.size());
    for (const Grp &g : groups) {
        std::optional<dch::Group> group = app.find(g.name);
        ASSERT_TRUE(group) << g.name;
        EXPECT_EQ(group->name(), g.name);
        ASSERT_EQ(group->size(), g.attributes.size());
        for (size_t i = 0; i < g.attributes.size(); ++i) {
            ASSERT_EQ(group->find(g.attributes[i].name), i) << g.name << " " << i;
            dch::Attribute a = group->at(i);
            ASSERT_EQ(a.name, g.attributes[i].name);
            ASSERT_EQ(a.help, g.attributes[i].help);
            ASSERT_EQ(a.type, g.attributes[i].letter);
            ASSERT_EQ(a.size, g.attributes[i].size);
        }
        EXPECT_EQ(group->find("attribute4000"), dch::Group::kNone);
    }
    EXPECT_FALSE(app.find("group10"));
    // A row of the last group is taken, by its attributes' names.
    int32_t handle = d.online("big", "group9", "src");
    ASSERT_NE(handle, 0);
    EXPECT_EQ(d.ask(dataRequest(handle, 0, {{"attribute3999", be32(7)}}), kProvider), status(0));
    EXPECT_EQ(d.ask(dataRequest(handle, 0, {{"attribute4000", be32(7)}}), kProvider),
              status(ZEVD_DCH_UNKNOWN_ATTR));
    EXPECT_TRUE(capture.hasText("Error: dp_data from 127.0.0.1 port 40001 refused (" +
                                std::to_string(ZEVD_DCH_UNKNOWN_ATTR) +
                                "): no attribute attribute4000 in its group"))
        << capture.joined();
}

TEST(DchCatalogueTest, ACatalogueHoldsLessThanTwiceItsText) {
    Daemon d;
    for (bool helps : {true, false}) {
        std::vector<char> request = largeRegister("app", manyAttributes(10, 4000, helps));
        ASSERT_EQ(d.ask(request, kProvider), status(0));
        const dch::Application &app = d.dch.applications().at("app");
        EXPECT_EQ(app.requestBytes(), request.size());
        EXPECT_LT(app.heapBytes(), 2 * request.size()) << (helps ? "with helps" : "bare");
        // Neither does a small one, beyond the fixed cost of its indexes.
        ASSERT_EQ(d.ask(registerRequest("small", "", {kGroups[1]}), kProvider), status(0));
        EXPECT_LT(d.dch.applications().at("small").heapBytes(), 2 * 128u);
    }
}

// The hash decides where a name is kept, never the order of the answers.
TEST(DchCatalogueTest, AnswersKeepTheCatalogueOrder) {
    Daemon d;
    std::vector<Grp> groups;
    std::string expected;
    for (const char *g : {"zeta", "alpha", "mid"}) {
        Grp group{g, "", {}};
        for (const char *a : {"z", "b", "y", "a", "x"}) {
            group.attributes.push_back({a, 'A', 4, ""});
            expected += std::string(expected.empty() ? "" : "\n") + g + "," + a + ",A,4";
        }
        groups.push_back(group);
    }
    ASSERT_EQ(d.ask(registerRequest("app", "", groups), kProvider), status(0));
    EXPECT_EQ(attributesText(d, "app"), expected);
}

// A catalogue of about 2 MB: its attributes and help do not fit in one
// answer (64 KiB). The answer is cut at a line end, and the query builds
// little more than what it answers.
TEST(DchCatalogueTest, QueryOfACatalogueLargerThanAnAnswerIsCutAtALineEndAndCostsTheAnswer) {
    Daemon d;
    std::vector<Grp> groups = manyAttributes(10, 4000, true);
    ASSERT_EQ(d.ask(largeRegister("big", groups, "the big one"), kProvider), status(0));
    std::string attributes;
    // The application's own line first, with the names it has not left empty.
    std::string help = ",,the big one";
    for (const Grp &g : groups) {
        help += "\n" + g.name + ",," + g.help;
        for (const Attr &a : g.attributes) {
            std::string size = std::to_string(a.size);
            attributes += (attributes.empty() ? "" : "\n") + g.name + "," + a.name + "," +
                          std::string(1, static_cast<char>(a.letter)) + "," + size;
            help += "\n" + g.name + "," + a.name + "," + a.help;
        }
    }
    ASSERT_GT(attributes.size(), 4 * 65536u);
    ASSERT_GT(help.size(), 20 * 65536u);
    const size_t room = dch::kAnswerTextRoom;
    ASSERT_LT(room, 65536u);
    for (const auto &[code, whole] : {std::pair{ZEVD_REQ_DC_GET_APPL_ATTRIBUTES, attributes},
                                      std::pair{ZEVD_REQ_DC_GET_APPL_HELP, help}}) {
        TraceCapture capture("error");
        bytesNewed = 0;
        countingNew = true;
        Fields answer = d.ask(queryRequest(code, "big"));
        countingNew = false;
        ASSERT_EQ(answer.size(), 1u) << code;
        const std::string &text = answer[0].second;
        // Cut where the whole text has a line end, at most room bytes in.
        size_t cut = whole.rfind('\n', room);
        EXPECT_EQ(text, whole.substr(0, cut)) << code;
        EXPECT_LE(text.size(), room);
        EXPECT_EQ(whole[text.size()], '\n');
        EXPECT_TRUE(capture.hasText("Error: answer text of more than " + std::to_string(room) +
                                    " bytes cut to " + std::to_string(text.size()) + " bytes\n"))
            << capture.joined();
        // The text built, its growth and the answer: well under the whole.
        EXPECT_LT(bytesNewed.load(), 16 * 65536u) << code;
    }
}

// The same attribute name in two groups: each group finds its own.
TEST(DchCatalogueTest, AnAttributeIsFoundInItsOwnGroupOnly) {
    Daemon d;
    ASSERT_EQ(d.ask(registerRequest("app", "",
                                    {{"g1", "", {{"a", 'A', 4, ""}, {"b", 'D', 8, "in g1"}}},
                                     {"g2", "", {{"b", 'A', 4, "in g2"}}}}),
                    kProvider),
              status(0));
    const dch::Application &app = d.dch.applications().at("app");
    EXPECT_EQ(app.find("g1")->find("b"), 1u);
    EXPECT_EQ(app.find("g1")->at(1).help, "in g1");
    EXPECT_EQ(app.find("g2")->find("b"), 0u);
    EXPECT_EQ(app.find("g2")->at(0).help, "in g2");
    EXPECT_EQ(app.find("g2")->find("a"), dch::Group::kNone);
}

// ---------------------------------------------------------------------------
// The limits
// ---------------------------------------------------------------------------

TEST(DchCatalogueLimitsTest, AGroupOfMoreThan4096AttributesIsAnswered21) {
    Daemon d;
    d.registerApp("app");
    std::string before = attributesText(d, "app");
    TraceCapture capture("error");
    std::vector<Grp> groups = manyAttributes(1, 4097, false);
    EXPECT_EQ(d.ask(largeRegister("app", groups), kProvider), status(ZEVD_DCH_FULL));
    EXPECT_TRUE(
        capture.hasText("Error: dp_register from 127.0.0.1 port 40001 refused (21): group "
                        "group0 has more than 4096 attributes"))
        << capture.joined();
    EXPECT_EQ(attributesText(d, "app"), before);
    // 4,096 are taken.
    groups[0].attributes.pop_back();
    EXPECT_EQ(d.ask(largeRegister("app", groups), kProvider), status(0));
    EXPECT_EQ(d.dch.applications().at("app").attributeCount(), 4096u);
}

TEST(DchCatalogueLimitsTest, MoreThan1024GroupsAreAnswered21) {
    Daemon d;
    d.registerApp("app");
    std::string before = attributesText(d, "app");
    TraceCapture capture("error");
    std::vector<Grp> groups = manyAttributes(1025, 1, false);
    EXPECT_EQ(d.ask(largeRegister("app", groups), kProvider), status(ZEVD_DCH_FULL));
    EXPECT_TRUE(capture.hasText(
        "Error: dp_register from 127.0.0.1 port 40001 refused (21): more than 1024 groups"))
        << capture.joined();
    EXPECT_EQ(attributesText(d, "app"), before);
    groups.pop_back();
    EXPECT_EQ(d.ask(largeRegister("app", groups), kProvider), status(0));
    EXPECT_EQ(d.dch.applications().at("app").groupCount(), 1024u);
}

TEST(DchCatalogueLimitsTest, EveryCatalogueTogetherStaysWithinMaxCatalogue) {
    Daemon d;
    std::vector<char> first = registerRequest("one", "");
    std::vector<char> second = registerRequest("two", "");
    ASSERT_EQ(first.size(), second.size());
    size_t limit = first.size() + second.size() + 10;
    d.dch.setMaxCatalogue(limit);
    EXPECT_EQ(d.ask(first, kProvider), status(0));
    EXPECT_EQ(d.ask(second, kProvider), status(0));
    EXPECT_EQ(d.dch.catalogueBytes(), first.size() + second.size());

    // A third does not fit: answered 21, nothing changes.
    TraceCapture capture("error");
    EXPECT_EQ(d.ask(registerRequest("thr", "")), status(ZEVD_DCH_FULL));
    std::string line = "Error: dp_register from 127.0.0.1 port 40000 refused (21): its " +
                       std::to_string(first.size()) +
                       " bytes of registration text would pass the " + std::to_string(limit) +
                       " bytes of every catalogue together (--max-catalogue; " +
                       std::to_string(first.size() + second.size()) + " held)";
    EXPECT_TRUE(capture.hasText(line)) << capture.joined();
    EXPECT_EQ(d.dch.applications().count("thr"), 0u);
    EXPECT_EQ(d.dch.catalogueBytes(), first.size() + second.size());

    // An application registered again counts once: its new catalogue
    // replaces the old, within the room the old one leaves.
    std::vector<char> larger = registerRequest("two", "0123456789");
    EXPECT_EQ(d.ask(larger, kProvider), status(0));
    EXPECT_EQ(d.dch.applications().at("two").help, "0123456789");
    std::vector<char> tooLarge = registerRequest("two", "0123456789-");
    EXPECT_EQ(d.ask(tooLarge, kProvider), status(ZEVD_DCH_FULL));
    EXPECT_EQ(d.dch.applications().at("two").help, "0123456789");

    // An unregister makes room.
    EXPECT_EQ(d.ask(unregisterRequest("one"), kProvider), status(0));
    EXPECT_EQ(d.ask(registerRequest("thr", "")), status(0));
    EXPECT_EQ(d.dch.catalogueBytes(), first.size() + larger.size());
}

TEST(DchCatalogueLimitsTest, TheDefaultIs64MiB) {
    Daemon d;
    EXPECT_EQ(dch::kDefaultMaxCatalogue, 64u << 20);
    // As many applications of about 3 MB each as 64 MiB holds, not one more.
    std::vector<char> request = largeRegister("app00", manyAttributes(10, 4000, true));
    size_t taken = 0;
    int32_t last = 0;
    for (int i = 0; i < 40 && last == 0; ++i) {
        char appl[8];
        snprintf(appl, sizeof appl, "app%02d", i);
        memcpy(request.data() + 4 + 8 + 6, appl, 5);  // the name field's value
        Fields answer = d.ask(request, kProvider);
        ASSERT_EQ(answer.size(), 1u);
        last = answer == status(0) ? 0 : ZEVD_DCH_FULL;
        EXPECT_TRUE(answer == status(0) || answer == status(ZEVD_DCH_FULL));
        if (last == 0) ++taken;
    }
    EXPECT_EQ(taken, (size_t{64} << 20) / request.size());
    EXPECT_LE(d.dch.catalogueBytes(), size_t{64} << 20);
}

}  // namespace
