// The data consumers' requests: the catalogue queries and the name list,
// the data and status subscriptions, the actions and the deferred reports.
#include <algorithm>
#include <string_view>
#include <vector>

#include "common/trace.h"
#include "zevdchd.h"
#include "zevdchd_fields.h"

namespace zevd::dch {

ZEVD_TRACE_UNIT(dch::unitZevdchd);

namespace {

// A catalogue value as the answer carries it: cleaned of the separators,
// and of control characters, which would break its one entry a line.
std::string cleaned(std::string_view value) {
    std::vector<char> text(value.begin(), value.end());
    text.push_back('\0');
    ZEVA_validateHelpText(text.data());
    for (char &c : text)
        if (c != '\0' && (static_cast<unsigned char>(c) < 0x20 || c == 0x7f)) c = ' ';
    return text.data();
}

// The text of a catalogue answer, one entry a line, built only as far as
// one answer carries it: a catalogue may hold megabytes, an answer 64 KiB,
// and a query must not cost the whole catalogue for what is cut off.
class AnswerLines {
public:
    explicit AnswerLines(size_t room) : room_(room) {}

    // Adds a line of values, unless the text is past the room already (the
    // line end before the room is then known, and the answer is cut there).
    void add(std::initializer_list<std::string_view> values) {
        if (full()) return;
        if (!text_.empty()) text_ += '\n';
        bool first = true;
        for (std::string_view value : values) {
            if (!first) text_ += ',';
            text_ += cleaned(value);
            first = false;
        }
    }
    // Past the room: the catalogue need not be walked further.
    bool full() const { return text_.size() > room_; }
    const std::string &text() const { return text_; }

private:
    size_t room_;
    std::string text_;
};

bool readQueried(FieldReader &reader, std::string &name) {
    return readName(reader, DCH_applName, kApplNameMax, name) && reader.atEnd();
}

bool sameSubscription(const Subscriber &a, const Subscriber &b) {
    return a.peer == b.peer && a.appl == b.appl && a.group == b.group;
}

}  // namespace

bool Dch::readQuery(FieldReader &reader, const Request &request, const Application *&application) {
    std::string name;
    if (!readQueried(reader, name)) {
        refuseMalformed(request, nullptr);
        return false;
    }
    auto it = applications_.find(name);
    application = it != applications_.end() ? &it->second : nullptr;
    return true;
}

void Dch::onGetApplications(FieldReader &reader, const Request &request) {
    ZEVD_TRACE_FUNCTION("Dch::onGetApplications");
    AnswerLines lines(kAnswerTextRoom);
    if (reader.atEnd()) {
        for (const auto &[known, application] : applications_) lines.add({known});
    } else if (const Application *application = nullptr; !readQuery(reader, request, application)) {
        return trc.exit();
    } else if (application != nullptr) {
        lines.add({application->name});
    }
    answerText(request, lines.text());
    trc.exit();
}

void Dch::onGetApplAttributes(FieldReader &reader, const Request &request) {
    ZEVD_TRACE_FUNCTION("Dch::onGetApplAttributes");
    AnswerLines lines(kAnswerTextRoom);
    const Application *application = nullptr;
    if (!readQuery(reader, request, application)) return trc.exit();
    if (application != nullptr) {
        for (Group group : application->groups()) {
            for (Attribute a : group.attributes()) {
                if (lines.full()) break;
                lines.add(
                    {group.name(), a.name, std::string_view(&a.type, 1), std::to_string(a.size)});
            }
        }
    }
    answerText(request, lines.text());
    trc.exit();
}

void Dch::onGetApplHelp(FieldReader &reader, const Request &request) {
    ZEVD_TRACE_FUNCTION("Dch::onGetApplHelp");
    AnswerLines lines(kAnswerTextRoom);
    const Application *application = nullptr;
    if (!readQuery(reader, request, application)) return trc.exit();
    if (application != nullptr) {
        // The application's and each group's own help come first, with the
        // names they do not have left empty.
        lines.add({"", "", application->help});
        for (Group group : application->groups()) {
            if (lines.full()) break;
            lines.add({group.name(), "", group.help()});
            for (Attribute a : group.attributes()) {
                if (lines.full()) break;
                lines.add({group.name(), a.name, a.help});
            }
        }
    }
    answerText(request, lines.text());
    trc.exit();
}

void Dch::onSendApplNameList(FieldReader &reader, const Request &request) {
    ZEVD_TRACE_FUNCTION("Dch::onSendApplNameList");
    std::string ignored;
    if (!readString(reader, DCH_sourceName, kSourceNameMax, ignored) || !reader.atEnd()) {
        refuseMalformed(request, "dc_sendApplNameList does not read");
        return trc.exit();
    }
    for (const auto &[name, application] : applications_)
        reportStatus(ZEVD_REQ_DC_SEND_APPL_NAME_LIST, name, "", "", application.registeredBy);
    trc.exit();
}

void Dch::onWaitOnData(FieldReader &reader, const Request &request) {
    ZEVD_TRACE_FUNCTION("Dch::onWaitOnData");
    Subscriber subscriber;
    subscriber.peer = request.from;
    int32_t operation = -1;
    if (!readName(reader, DCH_applName, kApplNameMax, subscriber.appl) ||
        !readName(reader, DCH_attrGroup, kGroupNameMax, subscriber.group) ||
        !read32(reader, DCH_status, operation) || !reader.atEnd() ||
        (operation != 0 && operation != 1)) {
        refuseMalformed(request, "dc_waitOnData does not read");
        return trc.exit();
    }
    subscribe(dataSubscribers_, std::move(subscriber), operation, "data");
    trc.exit();
}

void Dch::onWaitForDPStatus(FieldReader &reader, const Request &request) {
    ZEVD_TRACE_FUNCTION("Dch::onWaitForDPStatus");
    Subscriber subscriber;
    subscriber.peer = request.from;
    int32_t operation = -1;
    if (!read32(reader, DCH_status, operation) || !reader.atEnd() ||
        (operation != 0 && operation != 1)) {
        refuseMalformed(request, "dc_waitForDPStatus does not read");
        return trc.exit();
    }
    subscribe(statusSubscribers_, std::move(subscriber), operation, "status");
    trc.exit();
}

void Dch::subscribe(std::vector<Subscriber> &list, Subscriber subscriber, int32_t operation,
                    const char *kind) {
    ZEVD_TRACE_FUNCTION("Dch::subscribe");
    std::string who = std::string(kind) + " subscriber " + subscriber.peer.host() + " port " +
                      std::to_string(subscriber.peer.port());
    // A list is in the order of (application, group), and of subscription
    // within each: a subscription is looked for among those of its group.
    auto [first, last] = subscribersOf(list, subscriber.appl, subscriber.group);
    auto same = [&](const Subscriber &s) { return sameSubscription(s, subscriber); };
    auto found = std::find_if(first, last, same);
    if (operation == 1 && found == last) {
        // Data and status subscribers share one bound.
        size_t subscribers = dataSubscribers_.size() + statusSubscribers_.size();
        if (subscribers >= maxSubscribers_) {
            ZEVD_TRACE(trc, TRACE_ERROR,
                       "Error: %s refused: %zu subscribers already (--max-subscribers)\n",
                       who.c_str(), subscribers);
            ++counters_.drops[kDropSubscriberLimit];
            return trc.exit();
        }
        if (!subscriber.appl.empty()) who += " of " + subscriber.appl + " " + subscriber.group;
        ZEVD_TRACE(trc, TRACE_DETAIL, "%s\n", who.c_str());
        // A peer with no subscription yet is a socket that has just spoken:
        // what was refused at its address and port before belonged to an
        // earlier one, and must not cost it its first rows.
        forgetPeer(subscriber.peer);
        subscriber.since = ++subscriptions_;
        holdPeer(subscriber.peer);
        list.insert(last, std::move(subscriber));
    } else if (operation == 1) {
        // Subscribed again: the socket at that address and port has just
        // spoken, so what was refused there, and the failures counted
        // against the subscription, belonged to an earlier one (a consumer
        // that ended without withdrawing, its port taken by a new one).
        found->failures = 0;
        found->sendsSinceFailure = 0;
        transport_.forget(found->peer);
    } else if (operation == 0 && found != last) {
        ZEVD_TRACE(trc, TRACE_DETAIL, "%s withdrew\n", who.c_str());
        Peer gone = found->peer;
        list.erase(found);
        releasePeer(gone, true);
    }
    updateGauges();
    trc.exit();
}

void Dch::onProvideAction(FieldReader &reader, const Request &request) {
    ZEVD_TRACE_FUNCTION("Dch::onProvideAction");
    Action action;
    std::string parms;
    if (!read16(reader, DCH_actionType, action.type) ||
        !readString(reader, DCH_actionOwner, kTextMax, action.owner) ||
        !readString(reader, DCH_sourceName, kTextMax, action.node) ||
        !readString(reader, DCH_sourceName, kTextMax, action.subnode) ||
        !readString(reader, DCH_actionName, kTextMax, action.name) ||
        !read32(reader, DCH_actionID, action.id) || !read16(reader, DCH_actionUTF8, action.utf8)) {
        refuseMalformed(request, "dc_provideAction does not read");
        return trc.exit();
    }
    if (!reader.atEnd()) {
        if (!readString(reader, DCH_actionParms, kTextMax, parms) || !reader.atEnd()) {
            refuseMalformed(request, "dc_provideAction does not read");
            return trc.exit();
        }
        action.hasParms = true;
    }
    // Recorded, never executed; the parameters are not kept nor traced.
    ZEVD_TRACE(trc, TRACE_DETAIL, "action %d <%s> recorded for %s\n", action.id,
               action.name.c_str(), action.node.c_str());
    actions_.erase(std::remove_if(actions_.begin(), actions_.end(),
                                  [&](const Action &a) { return a.id == action.id; }),
                   actions_.end());
    if (actions_.size() >= kMaxActions) actions_.pop_front();
    actions_.push_back(std::move(action));
    trc.exit();
}

void Dch::onWaitForActionResults(FieldReader &reader, const Request &request) {
    ZEVD_TRACE_FUNCTION("Dch::onWaitForActionResults");
    int32_t id = 0;
    if (!read32(reader, DCH_actionID, id) || !reader.atEnd()) {
        refuseMalformed(request, nullptr);
        return trc.exit();
    }
    bool known =
        std::any_of(actions_.begin(), actions_.end(), [id](const Action &a) { return a.id == id; });
    if (!known)
        ZEVD_TRACE(trc, TRACE_ERROR,
                   "Error: dc_waitForActionResults from %s port %d: no action %d\n",
                   request.from.host().c_str(), request.from.port(), id);
    answerStatus(request, known ? kOk : kUnknownAction);
    trc.exit();
}

void Dch::onDeferReportRequest(FieldReader &reader, const Request &request) {
    ZEVD_TRACE_FUNCTION("Dch::onDeferReportRequest");
    DeferredReport report;
    if (!read32(reader, DCH_actionID, report.actionID) ||
        !read32(reader, DCH_peltoObject, report.object) ||
        !read32(reader, DCH_currentTime, report.time) ||
        !readString(reader, DCH_applKey, kTextMax, report.applKey) ||
        !readString(reader, DCH_tableName, kTextMax, report.table) ||
        !readString(reader, DCH_sourceName, kTextMax, report.source) || !reader.atEnd()) {
        refuseMalformed(request, "dc_deferReportRequest does not read");
        return trc.exit();
    }
    ZEVD_TRACE(trc, TRACE_DETAIL, "deferred report for action %d recorded\n", report.actionID);
    if (deferred_.size() >= kMaxDeferred) deferred_.pop_front();
    deferred_.push_back(std::move(report));
    trc.exit();
}

}  // namespace zevd::dch
