// The metrics snapshot and its page. The page is built family by family: a
// sample goes into the block of its family whatever order the handles come
// in, so no family is written twice, and the names the data would give are
// made distinct from the daemon's own and from each other before any sample
// is written (docs/metrics.md has the rules).
#include "zevdchd_metrics.h"

#include <algorithm>
#include <map>
#include <optional>
#include <string_view>
#include <utility>

namespace zevd::dch {

MetricsSnapshot metricsSnapshot(const Dch &dch) {
    MetricsSnapshot snapshot;
    const Counters &counters = dch.counters();
    snapshot.requests.reserve(counters.requests.size() + 1);
    for (const auto &[code, count] : counters.requests)
        snapshot.requests.push_back({requestName(code), count.load()});
    snapshot.requests.push_back({"unknown", counters.unknownRequests.load()});
    snapshot.answers = counters.answers.load();
    snapshot.rowsForwarded = counters.rowsForwarded.load();
    snapshot.statusReports = counters.statusReports.load();
    for (int reason = 0; reason < kDropReasons; ++reason)
        snapshot.drops[reason] = counters.drops[reason].load();
    snapshot.providersOnline = counters.providersOnline.load();
    snapshot.statusReportsWaiting = counters.statusReportsWaiting.load();
    snapshot.dataSubscribers = counters.dataSubscribers.load();
    snapshot.statusSubscribers = counters.statusSubscribers.load();
    snapshot.startTime = dch.startTime();
    snapshot.version = ZEVD_VERSION;

    // Handles of one group mostly follow each other: the last group found
    // is tried first.
    std::map<std::pair<const Catalogue *, size_t>, size_t> groupIndex;
    const OpenHandle *last = nullptr;
    std::optional<Group> group;
    size_t index = 0;
    snapshot.series.reserve(dch.handles().size());
    for (const auto &[id, handle] : dch.handles()) {
        if (handle.latest.empty()) continue;  // no row yet
        if (last == nullptr || handle.appl != last->appl || handle.group != last->group) {
            last = &handle;
            group.reset();
            auto application = dch.applications().find(handle.appl);
            if (application != dch.applications().end())
                group = application->second.find(handle.group);
            if (!group) continue;
            auto key = std::make_pair(&group->catalogue(), group->index());
            auto found = groupIndex.find(key);
            if (found != groupIndex.end()) {
                index = found->second;
            } else {
                index = snapshot.groups.size();
                groupIndex.emplace(key, index);
                MetricsGroup &copy = snapshot.groups.emplace_back();
                copy.appl = handle.appl;
                copy.group = handle.group;
                copy.attributes.reserve(group->size());
                for (Attribute attribute : group->attributes())
                    copy.attributes.push_back({std::string(attribute.name), attribute.type});
            }
        }
        if (!group || group->size() != handle.latest.size()) continue;
        snapshot.series.push_back({index, handle.source, handle.id, handle.latest});
    }
    return snapshot;
}

namespace {

// The daemon's own families. A family the data would name like one of these
// gets '_' appended instead.
const char *const kOwnFamilies[] = {
    "zevd_build_info",
    "zevd_dch_answers_total",
    "zevd_dch_drops_total",
    "zevd_dch_info_labels_dropped",
    "zevd_dch_info_series_dropped",
    "zevd_dch_providers_online",
    "zevd_dch_requests_total",
    "zevd_dch_rows_forwarded_total",
    "zevd_dch_start_time_seconds",
    "zevd_dch_status_reports_total",
    "zevd_dch_status_reports_waiting",
    "zevd_dch_subscribers",
    "zevd_dch_up",
};

}  // namespace

bool isOwnFamily(const std::string &name) {
    for (const char *own : kOwnFamilies)
        if (name == own) return true;
    return false;
}

namespace {

// Characters outside [a-zA-Z0-9_] become '_'.
std::string mapped(std::string_view text) {
    std::string out(text);
    for (char &c : out)
        if (!((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9'))) c = '_';
    return out;
}

// A label name: mapped, '_' in front of a leading digit, 'a' in front of a
// leading "__" (names starting so are reserved for the scraper's own use).
std::string labelName(std::string_view text) {
    std::string out = mapped(text);
    if (!out.empty() && out[0] >= '0' && out[0] <= '9') out.insert(0, 1, '_');
    if (out.compare(0, 2, "__") == 0) out.insert(0, 1, 'a');
    return out;
}

// The length of the well-formed UTF-8 sequence at text[at], 0 when the
// bytes there do not form one (overlong forms and surrogates included).
size_t sequenceLength(std::string_view text, size_t at) {
    auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
    unsigned char first = byte(at);
    if (first < 0x80) return 1;
    size_t length = 0;
    unsigned char low = 0x80, high = 0xbf;  // the second byte's range
    if (first >= 0xc2 && first <= 0xdf) {
        length = 2;
    } else if (first >= 0xe0 && first <= 0xef) {
        length = 3;
        if (first == 0xe0) low = 0xa0;
        if (first == 0xed) high = 0x9f;
    } else if (first >= 0xf0 && first <= 0xf4) {
        length = 4;
        if (first == 0xf0) low = 0x90;
        if (first == 0xf4) high = 0x8f;
    } else {
        return 0;
    }
    if (at + length > text.size() || byte(at + 1) < low || byte(at + 1) > high) return 0;
    for (size_t i = 2; i < length; ++i)
        if (byte(at + i) < 0x80 || byte(at + i) > 0xbf) return 0;
    return length;
}

// Appends text as well-formed UTF-8 (a byte that starts no well-formed
// sequence becomes U+FFFD) of at most limit bytes, cut between characters,
// with backslash and newline escaped, and the double quote too in a label
// value.
void appendEscaped(std::string &out, std::string_view text, size_t limit, bool quote) {
    static const char kReplacement[] = "\xef\xbf\xbd";
    size_t written = 0;
    for (size_t at = 0; at < text.size();) {
        size_t length = sequenceLength(text, at);
        size_t bytes = length == 0 ? sizeof kReplacement - 1 : length;
        if (written + bytes > limit) break;
        written += bytes;
        if (length == 0) {
            out += kReplacement;
            ++at;
            continue;
        }
        char c = text[at];
        if (c == '\\')
            out += "\\\\";
        else if (c == '\n')
            out += "\\n";
        else if (c == '"' && quote)
            out += "\\\"";
        else
            out.append(text.substr(at, length));
        at += length;
    }
}

void addLabel(std::string &labels, std::string_view name, std::string_view value) {
    if (!labels.empty()) labels += ',';
    labels.append(name);
    labels += "=\"";
    appendEscaped(labels, value, kMaxLabelValue, true);
    labels += '"';
}

std::string labelled(std::string_view name, std::string_view value) {
    std::string labels;
    addLabel(labels, name, value);
    return labels;
}

// The families of one page, each a block of its own.
class Page {
public:
    // Adds a sample to family name; the family's type and help are those of
    // its first sample.
    void add(const std::string &name, const char *type, const std::string &help,
             const std::string &labels, const std::string &value) {
        auto [at, added] = families_.try_emplace(name);
        Family &family = at->second;
        if (added) {
            family.type = type;
            family.help = help;
        }
        family.samples += name;
        if (!labels.empty()) family.samples += '{' + labels + '}';
        family.samples += ' ' + value + '\n';
    }

    std::string text() const {
        std::string out;
        for (const auto &[name, family] : families_) {
            out += "# HELP " + name + ' ';
            appendEscaped(out, family.help, std::string::npos, false);
            out += "\n# TYPE " + name + ' ' + family.type + '\n';
            out += family.samples;
        }
        return out;
    }

private:
    struct Family {
        const char *type = nullptr;
        std::string help;
        std::string samples;
    };
    std::map<std::string, Family> families_;
};

// What the attributes of one group are called on the page.
struct GroupNames {
    std::string info;                         // its _info family
    std::string infoHelp;                     // and that family's help
    std::vector<std::string> family;          // a number's family ("" for a text)
    std::vector<std::string> help;            // a number's family help
    std::vector<bool> marked;                 // a number that carries the attribute label
    std::vector<std::string> attributeLabel;  // and that label's value
    std::vector<std::string> label;           // a text's label ("" for a number, or past the bound)
};

GroupNames namesOf(const MetricsGroup &group) {
    GroupNames names;
    size_t count = group.attributes.size();
    names.family.resize(count);
    names.help.resize(count);
    names.marked.resize(count);
    names.label.resize(count);
    std::string prefix = "zevd_" + mapped(group.appl) + '_' + mapped(group.group) + '_';
    names.info = prefix + "info";
    while (isOwnFamily(names.info)) names.info += '_';
    names.infoHelp = "Latest text attributes of group " + group.group + " of application " +
                     group.appl + ", one label each; the value is always 1.";
    std::map<std::string, int> uses;  // numbers per family name
    std::vector<std::string> taken = {"source", "handle"};
    size_t texts = 0;
    for (size_t i = 0; i < count; ++i) {
        const MetricsGroup::Attribute &attribute = group.attributes[i];
        if (isNumberType(attribute.type)) {
            std::string name = prefix + mapped(attribute.name);
            while (isOwnFamily(name) || name == names.info) name += '_';
            ++uses[name];
            names.help[i] = "Latest value of attribute " + attribute.name + " (type " +
                            attribute.type + ") of group " + group.group + " of application " +
                            group.appl + ".";
            names.family[i] = std::move(name);
        } else if (texts++ < kMaxInfoLabels) {
            std::string name = labelName(attribute.name);
            while (std::find(taken.begin(), taken.end(), name) != taken.end()) {
                name += '_';
                // "_" made distinct is "__": reserved, so it becomes "a__".
                if (name.compare(0, 2, "__") == 0) name.insert(0, 1, 'a');
            }
            taken.push_back(name);
            names.label[i] = std::move(name);
        }
    }
    // Two attributes of the group that come to the same name tell their
    // samples apart by their own names.
    for (size_t i = 0; i < count; ++i)
        names.marked[i] = !names.family[i].empty() && uses[names.family[i]] > 1;
    // Names that are not UTF-8 may still show the same once repaired ("x\xfe"
    // and "x\xff" are both "x\uFFFD"): those get their place in the
    // catalogue too. Names hold no blanks, so " #2" is no other's name.
    names.attributeLabel.resize(count);
    std::map<std::pair<std::string, std::string>, int> shown;
    std::vector<std::string> shownAs(count);
    for (size_t i = 0; i < count; ++i) {
        if (!names.marked[i]) continue;
        appendEscaped(shownAs[i], group.attributes[i].name, kMaxLabelValue, true);
        ++shown[{names.family[i], shownAs[i]}];
    }
    for (size_t i = 0; i < count; ++i) {
        if (!names.marked[i]) continue;
        names.attributeLabel[i] = group.attributes[i].name;
        if (shown[{names.family[i], shownAs[i]}] > 1)
            names.attributeLabel[i] += " #" + std::to_string(i + 1);
    }
    return names;
}

}  // namespace

std::string renderMetrics(const MetricsSnapshot &snapshot) {
    Page page;
    page.add("zevd_build_info", "gauge", "The version of zevdchd, as its label; always 1.",
             labelled("version", snapshot.version), "1");
    page.add("zevd_dch_up", "gauge", "1 while zevdchd serves.", "", "1");
    page.add("zevd_dch_start_time_seconds", "gauge",
             "When zevdchd started, in seconds since the epoch.", "",
             std::to_string(snapshot.startTime));
    for (const MetricsSnapshot::RequestCount &request : snapshot.requests)
        page.add("zevd_dch_requests_total", "counter",
                 "Requests handled, by request; unknown counts codes that have no handler.",
                 labelled("request", request.request), std::to_string(request.count));
    page.add("zevd_dch_answers_total", "counter", "Answers sent.", "",
             std::to_string(snapshot.answers));
    page.add("zevd_dch_rows_forwarded_total", "counter", "Rows sent to data subscribers.", "",
             std::to_string(snapshot.rowsForwarded));
    page.add("zevd_dch_status_reports_total", "counter",
             "Status reports sent to status subscribers.", "",
             std::to_string(snapshot.statusReports));
    for (int reason = 0; reason < kDropReasons; ++reason)
        page.add("zevd_dch_drops_total", "counter",
                 "Requests, answers, sends and datagrams dropped, by reason.",
                 labelled("reason", dropReasonName(reason)),
                 std::to_string(snapshot.drops[reason]));
    page.add("zevd_dch_providers_online", "gauge", "Open handles.", "",
             std::to_string(snapshot.providersOnline));
    page.add("zevd_dch_status_reports_waiting", "gauge",
             "Status reports not yet sent to every subscriber they are for.", "",
             std::to_string(snapshot.statusReportsWaiting));
    const char *subscribersHelp = "Subscribers, by kind.";
    page.add("zevd_dch_subscribers", "gauge", subscribersHelp, labelled("kind", "data"),
             std::to_string(snapshot.dataSubscribers));
    page.add("zevd_dch_subscribers", "gauge", subscribersHelp, labelled("kind", "status"),
             std::to_string(snapshot.statusSubscribers));

    std::vector<GroupNames> names;
    names.reserve(snapshot.groups.size());
    for (const MetricsGroup &group : snapshot.groups) names.push_back(namesOf(group));
    size_t infoSeries = 0, infoSeriesDropped = 0, infoLabelsDropped = 0;
    for (const MetricsSeries &series : snapshot.series) {
        if (series.group >= snapshot.groups.size()) continue;
        const MetricsGroup &group = snapshot.groups[series.group];
        const GroupNames &named = names[series.group];
        if (series.values.size() != group.attributes.size()) continue;
        std::string own = labelled("source", series.source);
        addLabel(own, "handle", std::to_string(series.handle));
        std::string texts;
        size_t textsLeftOut = 0;
        for (size_t i = 0; i < series.values.size(); ++i) {
            const LatestValue &value = series.values[i];
            if (!value.set) continue;
            if (!named.family[i].empty()) {
                std::string labels = own;
                if (named.marked[i]) addLabel(labels, "attribute", named.attributeLabel[i]);
                page.add(named.family[i], "gauge", named.help[i], labels,
                         std::to_string(value.number));
            } else if (!named.label[i].empty()) {
                addLabel(texts, named.label[i], value.text);
            } else {
                ++textsLeftOut;
            }
        }
        if (texts.empty()) {
            infoLabelsDropped += textsLeftOut;
        } else if (infoSeries >= kMaxInfoSeries) {
            ++infoSeriesDropped;
        } else {
            ++infoSeries;
            infoLabelsDropped += textsLeftOut;
            own += ',';
            own += texts;
            page.add(named.info, "gauge", named.infoHelp, own, "1");
        }
    }
    page.add(
        "zevd_dch_info_series_dropped", "gauge",
        "_info series left off this page: beyond the first " + std::to_string(kMaxInfoSeries) + ".",
        "", std::to_string(infoSeriesDropped));
    page.add("zevd_dch_info_labels_dropped", "gauge",
             "Text attributes left off the _info series of this page: beyond the first " +
                 std::to_string(kMaxInfoLabels) + " of a group.",
             "", std::to_string(infoLabelsDropped));
    return page.text();
}

}  // namespace zevd::dch
