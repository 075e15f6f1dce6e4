// The DCH's request dispatch: the table from request code to handler, the
// access check, the one message writer and the subscribers' deliveries.
#include "zevdchd.h"

#include <arpa/inet.h>
#include <ifaddrs.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "common/trace.h"
#include "zevdchd_state.h"

namespace zevd::dch {

TraceUnit unitZevdchd = {0, __DATE__, __TIME__, "zevdchd.cpp", "ZEVDCHD", nullptr, 0};

}  // namespace zevd::dch

namespace zevd::dch {

ZEVD_TRACE_UNIT(dch::unitZevdchd);

std::string Peer::host() const {
    char text[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &addr.sin_addr, text, sizeof text);
    return text;
}

int Peer::port() const {
    return ntohs(addr.sin_port);
}

bool Peer::operator==(const Peer &other) const {
    return fd == other.fd && addr.sin_addr.s_addr == other.addr.sin_addr.s_addr &&
           addr.sin_port == other.addr.sin_port;
}

// The table: adding a request is one row here and one handler.
const std::vector<Dch::Handler> &Dch::handlerTable() {
    static const std::vector<Handler> table = {
        {ZEVD_REQ_DP_REGISTER, "dp_register", kStatusAnswer, &Dch::onRegister},
        {ZEVD_REQ_DP_ONLINE, "dp_online", kHandleAnswer, &Dch::onOnline},
        {ZEVD_REQ_DP_UNREGISTER, "dp_unregister", kStatusAnswer, &Dch::onUnregister},
        {ZEVD_REQ_DP_OFFLINE, "dp_offline", kStatusAnswer, &Dch::onOffline},
        {ZEVD_REQ_DP_DATA, "dp_data", kStatusAnswer, &Dch::onData},
        {ZEVD_REQ_DC_GET_APPLICATIONS, "dc_getApplications", kTextAnswer, &Dch::onGetApplications},
        {ZEVD_REQ_DC_GET_APPL_HELP, "dc_getApplHelp", kTextAnswer, &Dch::onGetApplHelp},
        {ZEVD_REQ_DC_SEND_APPL_NAME_LIST, "dc_sendApplNameList", kNoAnswer,
         &Dch::onSendApplNameList},
        {ZEVD_REQ_DC_GET_APPL_ATTRIBUTES, "dc_getApplAttributes", kTextAnswer,
         &Dch::onGetApplAttributes},
        {ZEVD_REQ_DC_WAIT_ON_DATA, "dc_waitOnData", kNoAnswer, &Dch::onWaitOnData},
        {ZEVD_REQ_DC_WAIT_FOR_DP_STATUS, "dc_waitForDPStatus", kNoAnswer, &Dch::onWaitForDPStatus},
        {ZEVD_REQ_DC_PROVIDE_ACTION, "dc_provideAction", kNoAnswer, &Dch::onProvideAction},
        {ZEVD_REQ_DC_WAIT_FOR_ACTION_RESULTS, "dc_waitForActionResults", kStatusAnswer,
         &Dch::onWaitForActionResults},
        {ZEVD_REQ_DC_DEFER_REPORT_REQUEST, "dc_deferReportRequest", kNoAnswer,
         &Dch::onDeferReportRequest},
    };
    return table;
}

const Dch::Handler *Dch::handlerFor(int code) {
    for (const Handler &h : handlerTable())
        if (h.code == static_cast<int16_t>(code)) return &h;
    return nullptr;
}

const char *requestName(int code) {
    const Dch::Handler *h = Dch::handlerFor(code);
    return h != nullptr ? h->name : "unknown";
}

Counters::Counters() {
    for (const Dch::Handler &h : Dch::handlerTable()) requests[h.code];
}

const char *dropReasonName(int reason) {
    static const char *const kReasons[kDropReasons] = {
        "refused_sender", "malformed",        "unknown_handle",       "subscriber_unreachable",
        "answer_unsent",  "subscriber_limit", "kernel_receive_buffer"};
    return reason >= 0 && reason < kDropReasons ? kReasons[reason] : "unknown";
}

std::vector<std::string> Counters::lines() const {
    std::vector<std::string> out;
    char line[160];
    for (const auto &[code, count] : requests) {
        snprintf(line, sizeof line, "counter requests{request=\"%s\"} %llu", requestName(code),
                 static_cast<unsigned long long>(count.load()));
        out.emplace_back(line);
    }
    auto add = [&](const char *name, const std::atomic<uint64_t> &value) {
        snprintf(line, sizeof line, "counter %s %llu", name,
                 static_cast<unsigned long long>(value.load()));
        out.emplace_back(line);
    };
    add("requests{request=\"unknown\"}", unknownRequests);
    add("answers", answers);
    add("rows_forwarded", rowsForwarded);
    add("status_reports", statusReports);
    add("subscribers{kind=\"data\"}", dataSubscribers);
    add("subscribers{kind=\"status\"}", statusSubscribers);
    add("providers_online", providersOnline);
    add("status_reports_waiting", statusReportsWaiting);
    for (int reason = 0; reason < kDropReasons; ++reason) {
        snprintf(line, sizeof line, "counter drops{reason=\"%s\"} %llu", dropReasonName(reason),
                 static_cast<unsigned long long>(drops[reason].load()));
        out.emplace_back(line);
    }
    return out;
}

Dch::Dch(Transport &transport) : transport_(transport), reply_(kReplySize) {}

size_t Dch::catalogueBytes() const {
    size_t bytes = 0;
    for (const auto &[name, application] : applications_) bytes += application.requestBytes();
    return bytes;
}

void Dch::handle(const Request &request) {
    ZEVD_TRACE_FUNCTION("Dch::handle");
    if (!allowed(request.from.addr)) {
        ZEVD_TRACE(trc, TRACE_ERROR, "Error: request from %s port %d dropped: sender not allowed\n",
                   request.from.host().c_str(), request.from.port());
        ++counters_.drops[kDropRefusedSender];
        return trc.exit();
    }
    FieldReader reader(request.data, request.size);
    int16_t code = 0;
    if (reader.next() != DCH_requestType || reader.length() != 2) {
        ZEVD_TRACE(trc, TRACE_ERROR,
                   "Error: message of %u bytes from %s port %d dropped: it does not start with a "
                   "request code\n",
                   static_cast<unsigned>(request.size), request.from.host().c_str(),
                   request.from.port());
        ++counters_.drops[kDropMalformed];
        return trc.exit();
    }
    code = reader.int16();
    const Handler *handler = handlerFor(code);
    if (handler == nullptr) {
        ZEVD_TRACE(trc, TRACE_ERROR,
                   "Error: request code 0x%04x from %s port %d dropped: no such request\n",
                   static_cast<unsigned>(static_cast<uint16_t>(code)), request.from.host().c_str(),
                   request.from.port());
        ++counters_.unknownRequests;
        ++counters_.drops[kDropMalformed];
        return trc.exit();
    }
    ++counters_.requests[handler->code];
    ZEVD_TRACE(trc, TRACE_DETAIL, "%s from %s port %d fd %u\n", handler->name,
               request.from.host().c_str(), request.from.port(), request.from.fd);
    current_ = handler;
    // A message must be whole: fields that end where the bytes received end,
    // short of what the length word announced, would read as a request.
    uint32_t length = messageLength(request.data);
    if (length > request.size)
        refuseMalformed(request, "its length word exceeds the bytes received");
    else
        (this->*handler->run)(reader, request);
    current_ = nullptr;
    sendStatusReports();
    trc.exit();
}

MessageBuilder Dch::startMessage() {
    // Cleared as far as the last message reached, not the whole 64 KiB: its
    // length word covers every byte written since (fields are written whole
    // and move the word with them, and a forwarded row sets it last).
    size_t used = std::min<size_t>(reply_.size(), messageLength(reply_.data()));
    memset(reply_.data(), 0, std::max<size_t>(used, kFirstField));
    return MessageBuilder(reply_.data(), reply_.size());
}

void Dch::sendAnswer(const Request &request, const MessageBuilder &message) {
    ZEVD_TRACE_FUNCTION("Dch::sendAnswer");
    if (transport_.answer(request.from, message.buffer(), message.length())) {
        ++counters_.answers;
    } else {
        ZEVD_TRACE(trc, TRACE_ERROR, "Error: answer to %s port %d fd %u could not be sent\n",
                   request.from.host().c_str(), request.from.port(), request.from.fd);
        ++counters_.drops[kDropAnswerUnsent];
        if (request.from.fd != 0) transport_.closeConnection(request.from.fd);
    }
    trc.exit();
}

void Dch::flushAnswers() {
    unsent_.clear();
    transport_.flushAnswers(unsent_);
    for (const Peer &peer : unsent_) answerUnsent(peer);
}

void Dch::answerUnsent(const Peer &peer) {
    ZEVD_TRACE_FUNCTION("Dch::sendAnswer");
    // Counted as an answer when it was handed over.
    --counters_.answers;
    ZEVD_TRACE(trc, TRACE_ERROR, "Error: answer to %s port %d fd %u could not be sent\n",
               peer.host().c_str(), peer.port(), peer.fd);
    ++counters_.drops[kDropAnswerUnsent];
    trc.exit();
}

void Dch::answerStatus(const Request &request, int32_t status, const int32_t *handle) {
    ZEVD_TRACE_FUNCTION("Dch::answerStatus");
    MessageBuilder message = startMessage();
    message.add32(DCH_status, status);
    if (handle != nullptr) message.add32(DCH_handle, *handle);
    if (status != kOk)
        ZEVD_TRACE(trc, TRACE_DETAIL, "answering status %d to %s port %d\n", status,
                   request.from.host().c_str(), request.from.port());
    sendAnswer(request, message);
    trc.exit();
}

void Dch::answerText(const Request &request, const std::string &text) {
    ZEVD_TRACE_FUNCTION("Dch::answerText");
    MessageBuilder message = startMessage();
    // The text is cut at a line end where the answer would pass its buffer.
    // The text may have been built only a little past that (its builders
    // stop there), so its whole size is not known.
    size_t room = kAnswerTextRoom;
    size_t length = text.size();
    if (length > room) {
        size_t cut = text.rfind('\n', room);
        length = cut == std::string::npos ? room : cut;
        ZEVD_TRACE(trc, TRACE_ERROR, "Error: answer text of more than %u bytes cut to %u bytes\n",
                   static_cast<unsigned>(room), static_cast<unsigned>(length));
    }
    message.addValue(DCH_response, text.data(), static_cast<int>(length), nullptr);
    sendAnswer(request, message);
    trc.exit();
}

void Dch::refuseMalformed(const Request &request, const char *why) {
    ZEVD_TRACE_FUNCTION("Dch::refuseMalformed");
    ++counters_.drops[kDropMalformed];
    Answer answer = current_ != nullptr ? current_->answer : kNoAnswer;
    if (answer == kNoAnswer) {
        ZEVD_TRACE(trc, TRACE_ERROR, "Error: request from %s port %d dropped: %s\n",
                   request.from.host().c_str(), request.from.port(),
                   why != nullptr ? why : "it does not read");
        return trc.exit();
    }
    if (why != nullptr)
        ZEVD_TRACE(trc, TRACE_ERROR, "Error: %s from %s port %d is malformed: %s\n", current_->name,
                   request.from.host().c_str(), request.from.port(), why);
    else
        ZEVD_TRACE(trc, TRACE_ERROR, "Error: %s from %s port %d is malformed\n", current_->name,
                   request.from.host().c_str(), request.from.port());
    static const int32_t kNoHandle = 0;
    if (answer == kTextAnswer)
        answerText(request, "");
    else
        answerStatus(request, kMalformed, answer == kHandleAnswer ? &kNoHandle : nullptr);
    trc.exit();
}

void Dch::deliverToAll(std::vector<Subscriber> &list, const MessageBuilder &message,
                       const std::string *appl, const std::string *group) {
    ZEVD_TRACE_FUNCTION("Dch::deliverToAll");
    bool row = appl != nullptr;
    transport_.beginDeliveries();
    // A row goes to the subscribers of its group alone, found without
    // passing the others.
    auto [it, end] = row ? subscribersOf(list, *appl, *group) : std::pair(list.begin(), list.end());
    while (it != end) deliverTo(it, message.buffer(), message.length(), row);
    removeDropped(list);
    updateGauges();
    trc.exit();
}

std::pair<std::vector<Subscriber>::iterator, std::vector<Subscriber>::iterator> Dch::subscribersOf(
    std::vector<Subscriber> &list, const std::string &appl, const std::string &group) {
    struct Key {
        const std::string &appl;
        const std::string &group;
    };
    struct ByGroup {
        static bool before(const std::string &a1, const std::string &g1, const std::string &a2,
                           const std::string &g2) {
            int c = a1.compare(a2);
            return c < 0 || (c == 0 && g1 < g2);
        }
        bool operator()(const Subscriber &s, const Key &k) const {
            return before(s.appl, s.group, k.appl, k.group);
        }
        bool operator()(const Key &k, const Subscriber &s) const {
            return before(k.appl, k.group, s.appl, s.group);
        }
    };
    return std::equal_range(list.begin(), list.end(), Key{appl, group}, ByGroup());
}

void Dch::deliverTo(std::vector<Subscriber>::iterator &it, const char *message, size_t length,
                    bool row) {
    ZEVD_TRACE_LEVEL("Dch::deliverToAll");
    if (transport_.deliver(it->peer, message, length)) {
        ++(row ? counters_.rowsForwarded : counters_.statusReports);
        if (++it->sendsSinceFailure >= kSendsThatClearFailures) it->failures = 0;
        ++it;
        return;
    }
    ++counters_.drops[kDropSubscriberUnreachable];
    it->sendsSinceFailure = 0;
    if (it->peer.fd != 0) {
        // Its connection could not take the whole message and is closed:
        // the subscriber goes with it, whatever the count.
        if (row)
            ZEVD_TRACE(trc, TRACE_ERROR,
                       "Error: data subscriber %s port %d of %s %s on connection %u dropped: "
                       "the connection could not take a whole message\n",
                       it->peer.host().c_str(), it->peer.port(), it->appl.c_str(),
                       it->group.c_str(), it->peer.fd);
        else
            ZEVD_TRACE(trc, TRACE_ERROR,
                       "Error: status subscriber %s port %d on connection %u dropped: the "
                       "connection could not take a whole message\n",
                       it->peer.host().c_str(), it->peer.port(), it->peer.fd);
        markDropped(*it++);
        return;
    }
    if (++it->failures < kMaxSendFailures) {
        ++it;
        return;
    }
    if (row)
        ZEVD_TRACE(trc, TRACE_ERROR,
                   "Error: data subscriber %s port %d of %s %s dropped after %d failed sends\n",
                   it->peer.host().c_str(), it->peer.port(), it->appl.c_str(), it->group.c_str(),
                   it->failures);
    else
        ZEVD_TRACE(trc, TRACE_ERROR,
                   "Error: status subscriber %s port %d dropped after %d failed sends\n",
                   it->peer.host().c_str(), it->peer.port(), it->failures);
    markDropped(*it++);
}

void Dch::markDropped(Subscriber &subscriber) {
    subscriber.dropped = true;
    ++dropped_;
}

void Dch::removeDropped(std::vector<Subscriber> &list) {
    if (dropped_ == 0) return;
    dropped_ = 0;
    // Taken out together at the end of the round: one pass over the list,
    // however many went.
    std::vector<Peer> gone;
    auto kept = std::remove_if(list.begin(), list.end(), [&gone](const Subscriber &s) {
        if (s.dropped) gone.push_back(s.peer);
        return s.dropped;
    });
    list.erase(kept, list.end());
    for (const Peer &peer : gone) releasePeer(peer, true);
}

void Dch::reportStatus(int16_t requestType, const std::string &appl, const std::string &group,
                       const std::string &source, const Peer &provider) {
    if (statusSubscribers_.empty()) return;
    MessageBuilder message = startMessage();
    message.addString(DCH_applName, appl.c_str());
    message.addString(DCH_attrGroup, group.c_str());
    message.addString(DCH_sourceName, source.c_str());
    message.addString(DCH_hostAddr, provider.host().c_str());
    message.addString(DCH_hostInfo, std::to_string(provider.port()).c_str());
    message.add16(DCH_requestType, requestType);
    // For those subscribed now; sent at the end of the request, or later
    // in slices when there are too many to send at once.
    waitingReports_.push_back({std::string(message.buffer(), message.length()), 0, subscriptions_});
    counters_.statusReportsWaiting = waitingReports_.size();
}

bool Dch::sendStatusReports(size_t sends) {
    // Every request ends here: with nothing waiting it costs no trace frame.
    if (waitingReports_.empty()) return false;
    ZEVD_TRACE_FUNCTION("Dch::sendStatusReports");
    transport_.beginDeliveries();
    auto bySince = [](const Subscriber &s, uint64_t since) { return s.since < since; };
    while (sends > 0 && !waitingReports_.empty()) {
        WaitingReport &report = waitingReports_.front();
        auto it = std::lower_bound(statusSubscribers_.begin(), statusSubscribers_.end(),
                                   report.next, bySince);
        // A subscriber dropped earlier in this slice is passed over; it
        // counts as a send, so that a slice stays as short however many go.
        for (; sends > 0 && it != statusSubscribers_.end() && it->since <= report.last; --sends) {
            report.next = it->since + 1;
            if (it->dropped)
                ++it;
            else
                deliverTo(it, report.message.data(), report.message.size(), false);
        }
        if (it != statusSubscribers_.end() && it->since <= report.last) break;
        waitingReports_.pop_front();
    }
    removeDropped(statusSubscribers_);
    updateGauges();
    size_t waiting = waitingReports_.size();
    // Written once each time so many wait that requests wait for them.
    bool overdue = statusReportsOverdue();
    if (overdue && !reportsOverdue_)
        ZEVD_TRACE(trc, TRACE_ERROR,
                   "Error: %zu status reports wait to be sent: requests wait until they are %zu "
                   "or fewer\n",
                   waiting, kMaxWaitingReports);
    reportsOverdue_ = overdue;
    if (waiting > 0)
        ZEVD_TRACE(trc, TRACE_DETAIL, "%zu status reports wait, sent between requests\n", waiting);
    return trc.exit(waiting > 0);
}

size_t Dch::PeerKeyHash::operator()(const PeerKey &key) const {
    return std::hash<uint64_t>()((uint64_t{key.address} << 32) ^ (uint64_t{key.port} << 16) ^
                                 key.fd);
}

Dch::PeerKey Dch::keyOf(const Peer &peer) {
    return {peer.addr.sin_addr.s_addr, peer.fd, peer.addr.sin_port};
}

void Dch::forgetPeer(const Peer &peer) {
    if (subscriptionsOf_.find(keyOf(peer)) == subscriptionsOf_.end()) transport_.forget(peer);
}

void Dch::holdPeer(const Peer &peer) {
    ++subscriptionsOf_[keyOf(peer)];
}

void Dch::releasePeer(const Peer &peer, bool forget) {
    auto it = subscriptionsOf_.find(keyOf(peer));
    if (it == subscriptionsOf_.end() || --it->second > 0) return;
    subscriptionsOf_.erase(it);
    if (forget) transport_.forget(peer);
}

void Dch::updateGauges() {
    counters_.dataSubscribers = dataSubscribers_.size();
    counters_.statusSubscribers = statusSubscribers_.size();
    counters_.providersOnline = handles_.size();
    counters_.statusReportsWaiting = waitingReports_.size();
}

void Dch::disconnect(uint32_t fd) {
    ZEVD_TRACE_FUNCTION("Dch::disconnect");
    ZEVD_TRACE(trc, TRACE_DETAIL, "connection %u closed\n", fd);
    // Its subscriptions end first: the connection is closed, nothing more
    // may be sent on it.
    for (auto *list : {&dataSubscribers_, &statusSubscribers_})
        list->erase(std::remove_if(list->begin(), list->end(),
                                   [this, fd](const Subscriber &s) {
                                       if (s.peer.fd != fd) return false;
                                       releasePeer(s.peer, false);
                                       return true;
                                   }),
                    list->end());
    std::string record;
    for (const auto &[id, handle] : handles_)
        if (handle.provider.fd == fd) record += offlineRecord(id);
    // Closed whether or not the record is written: the connection is gone.
    if (!record.empty()) saveChange([&record] { return record; }, nullptr);
    for (auto it = handles_.begin(); it != handles_.end();) {
        if (it->second.provider.fd == fd) {
            ZEVD_TRACE(trc, TRACE_DETAIL, "handle %d released with its connection\n",
                       it->second.id);
            auto next = std::next(it);
            releaseHandle(it);
            it = next;
        } else {
            ++it;
        }
    }
    updateGauges();
    if (!record.empty()) savedChange();
    sendStatusReports();
    trc.exit();
}

// ---------------------------------------------------------------------------
// Access
// ---------------------------------------------------------------------------

bool Dch::allow(const std::string &cidrs, std::string *bad) {
    size_t start = 0;
    while (start <= cidrs.size()) {
        size_t comma = cidrs.find(',', start);
        std::string entry =
            cidrs.substr(start, comma == std::string::npos ? std::string::npos : comma - start);
        start = comma == std::string::npos ? cidrs.size() + 1 : comma + 1;
        entry.erase(0, entry.find_first_not_of(" \t"));
        entry.erase(entry.find_last_not_of(" \t") + 1);
        if (entry.empty()) continue;
        std::string address = entry;
        int bits = 32;
        size_t slash = entry.find('/');
        if (slash != std::string::npos) {
            address = entry.substr(0, slash);
            std::string width = entry.substr(slash + 1);
            char *end = nullptr;
            long value = strtol(width.c_str(), &end, 10);
            if (width.empty() || *end != '\0' || value < 0 || value > 32) {
                if (bad != nullptr) *bad = entry;
                return false;
            }
            bits = static_cast<int>(value);
        }
        in_addr parsed{};
        if (inet_pton(AF_INET, address.c_str(), &parsed) != 1) {
            if (bad != nullptr) *bad = entry;
            return false;
        }
        uint32_t mask = bits == 0 ? 0 : ~0u << (32 - bits);
        allowed_.push_back({ntohl(parsed.s_addr) & mask, mask});
    }
    return true;
}

void Dch::allowOwnAddresses() {
    ZEVD_TRACE_FUNCTION("Dch::allowOwnAddresses");
    ifaddrs *list = nullptr;
    if (getifaddrs(&list) != 0) {
        ZEVD_TRACE(trc, TRACE_ERROR, "Error: this host's addresses could not be read: errno=%d\n",
                   errno);
        return trc.exit();
    }
    for (ifaddrs *i = list; i != nullptr; i = i->ifa_next) {
        if (i->ifa_addr == nullptr || i->ifa_addr->sa_family != AF_INET) continue;
        sockaddr_in own{};
        memcpy(&own, i->ifa_addr, sizeof own);
        allowed_.push_back({ntohl(own.sin_addr.s_addr), ~0u});
    }
    freeifaddrs(list);
    trc.exit();
}

bool Dch::admitsConnection(const sockaddr_in &peer) {
    if (allowed(peer)) return true;
    ZEVD_TRACE_LEVEL("Dch::admitsConnection");
    Peer from{peer, 0};
    ZEVD_TRACE(trc, TRACE_ERROR, "Error: connection from %s port %d closed: peer not allowed\n",
               from.host().c_str(), from.port());
    ++counters_.drops[kDropRefusedSender];
    return false;
}

bool Dch::allowed(const sockaddr_in &addr) const {
    if (addr.sin_family != AF_INET) return false;
    uint32_t address = ntohl(addr.sin_addr.s_addr);
    if ((address >> 24) == 127) return true;  // loopback
    for (const Network &n : allowed_)
        if ((address & n.mask) == n.address) return true;
    return false;
}

}  // namespace zevd::dch
