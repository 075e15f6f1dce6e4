// The data providers' requests: register, online, offline, unregister and
// the rows, with the forwarding of every accepted row.
#include <arpa/inet.h>

#include <algorithm>
#include <cstring>

#include "common/trace.h"
#include "zevdchd.h"
#include "zevdchd_fields.h"
#include "zevdchd_state.h"

namespace zevd::dch {

ZEVD_TRACE_UNIT(dch::unitZevdchd);

namespace {

// Offset of a row's first attribute pair: length word, request code,
// handle and data flag, each at its own width.
constexpr size_t kRowPairs = 4 + 8 + 10 + 8;
// A refused dp_online still carries a handle: the client reads the status
// and the handle together, and reports a missing handle as its own status 2.
constexpr int32_t kNoHandle = 0;

bool isIntegerLetter(char type) {
    return type == 'A' || type == 'C' || type == 'G' || type == 'L' || type == 'N';
}
bool isShortLetter(char type) {
    return type == 'I' || type == 'S';
}

// Why an attribute's declaration breaks the catalogue's rules, or nullptr.
const char *attributeFault(int16_t letter, int32_t size) {
    if (letter < 'A' || letter > 'Z') return "its type is not a letter A to Z";
    char type = static_cast<char>(letter);
    if (size < 1 || size > 4096) return "its size is not 1 to 4096";
    if (isIntegerLetter(type) && size != 2 && size != 4) return "an integer takes size 2 or 4";
    if (isShortLetter(type) && size != 2) return "a short integer takes size 2";
    return nullptr;
}

// Reads the register request into application. Returns kOk, kMalformed
// (the fields do not read), kBadCatalogue or kFull (past a limit of one
// catalogue), the last two with *why. Stops at the first fault: a request
// past a limit costs no more than the limit.
int32_t readCatalogue(FieldReader &reader, Application &application, std::string &why) {
    if (!readName(reader, DCH_applName, kApplNameMax, application.name) ||
        !readString(reader, 0x200, kTextMax, application.help)) {
        why = "no application name and help";
        return kMalformed;
    }
    // Reused from entry to entry: the catalogue keeps its own copy.
    std::string name, help;
    while (!reader.atEnd()) {
        if (!readName(reader, DCH_attrGroup, kGroupNameMax, name) ||
            !readString(reader, 0x200, kTextMax, help)) {
            why = "a group without a name and help";
            return kMalformed;
        }
        if (application.groupCount() >= kMaxGroups) {
            why = "more than " + std::to_string(kMaxGroups) + " groups";
            return kFull;
        }
        Catalogue::Added added = application.addGroup(name, help);
        if (added != Catalogue::kAdded) {
            why = added == Catalogue::kTwice ? "group " + name + " twice" : "a catalogue too large";
            return added == Catalogue::kTwice ? kBadCatalogue : kFull;
        }
        std::string group = name;
        size_t attributes = 0;
        for (;;) {
            FieldReader probe = reader;
            if (reader.atEnd() || probe.next() != DCH_attrName) break;
            int16_t letter = 0;
            int32_t size = 0;
            if (!readName(reader, DCH_attrName, kAttrNameMax, name) ||
                !read16(reader, 0x201, letter) || !read32(reader, 0x202, size) ||
                !readString(reader, 0x200, kTextMax, help)) {
                why = "an attribute without its name, type, size and help";
                return kMalformed;
            }
            const char *fault = attributeFault(letter, size);
            if (fault != nullptr) {
                why = "attribute " + name + ": " + fault;
                return kBadCatalogue;
            }
            if (attributes == kMaxAttributes) {
                why = "group " + group + " has more than " + std::to_string(kMaxAttributes) +
                      " attributes";
                return kFull;
            }
            added = application.addAttribute(name, static_cast<char>(letter), size, help);
            if (added == Catalogue::kTwice) {
                why = "attribute " + name;
                why += " twice in group ";
                why += group;
                return kBadCatalogue;
            }
            if (added != Catalogue::kAdded) {
                why = "a catalogue too large";
                return kFull;
            }
            ++attributes;
        }
        if (attributes == 0) {
            why = "group " + group + " has no attributes";
            return kBadCatalogue;
        }
    }
    application.compact();
    return kOk;
}

}  // namespace

bool isNumberType(char type) {
    return isIntegerLetter(type) || isShortLetter(type);
}

void Dch::onRegister(FieldReader &reader, const Request &request) {
    ZEVD_TRACE_FUNCTION("Dch::onRegister");
    Application application;
    std::string why;
    int32_t status = readCatalogue(reader, application, why);
    if (status == kOk && applications_.count(application.name) == 0 &&
        applications_.size() >= kMaxApplications) {
        why = "the catalogue holds " + std::to_string(kMaxApplications) + " applications";
        status = kFull;
    }
    if (status == kOk) {
        // Within --max-catalogue once the application's old catalogue, if
        // any, has made room.
        auto old = applications_.find(application.name);
        size_t others =
            catalogueBytes() - (old != applications_.end() ? old->second.requestBytes() : 0);
        size_t bytes = application.requestBytes();
        if (bytes > maxCatalogue_ || others > maxCatalogue_ - bytes) {
            why = "its " + std::to_string(bytes) + " bytes of registration text would pass the " +
                  std::to_string(maxCatalogue_) +
                  " bytes of every catalogue together (--max-catalogue; " + std::to_string(others) +
                  " held)";
            status = kFull;
        }
    }
    if (status == kMalformed) {
        refuseMalformed(request, why.c_str());
        return trc.exit();
    }
    if (status != kOk) {
        ZEVD_TRACE(trc, TRACE_ERROR, "Error: dp_register from %s port %d refused (%d): %s\n",
                   request.from.host().c_str(), request.from.port(), status, why.c_str());
        answerStatus(request, status);
        return trc.exit();
    }
    // A registration again replaces the catalogue; open handles stay.
    application.registeredBy = request.from;
    if (!saveChange([&application] { return registerRecord(application); }, &request)) {
        answerStatus(request, kNotSaved);
        return trc.exit();
    }
    std::string name = application.name;
    ZEVD_TRACE(trc, TRACE_DETAIL, "application %s registered with %u groups\n", name.c_str(),
               static_cast<unsigned>(application.groupCount()));
    applications_[name] = std::move(application);
    // The values kept under the old catalogue may name attributes it no
    // longer has, or with another type.
    for (auto &[id, handle] : handles_) {
        if (handle.appl != name) continue;
        dropLatest(handle);
        handle.latestRefused = false;
    }
    answerStatus(request, kOk);
    reportStatus(ZEVD_REQ_DP_REGISTER, name, "", "", request.from);
    savedChange();
    trc.exit();
}

void Dch::onOnline(FieldReader &reader, const Request &request) {
    ZEVD_TRACE_FUNCTION("Dch::onOnline");
    OpenHandle handle;
    if (!readName(reader, DCH_applName, kApplNameMax, handle.appl) ||
        !readName(reader, DCH_attrGroup, kGroupNameMax, handle.group) ||
        !readName(reader, DCH_sourceName, kSourceNameMax, handle.source) || !reader.atEnd()) {
        refuseMalformed(request, nullptr);
        return trc.exit();
    }
    auto application = applications_.find(handle.appl);
    auto open = bySource_.find(sourceKey(handle.appl, handle.group, handle.source));
    int32_t status = kOk;
    if (application == applications_.end())
        status = kUnknownAppl;
    else if (application->second.find(handle.group) == std::nullopt)
        status = kUnknownGroup;
    else if (open == bySource_.end() && handles_.size() >= kMaxHandles)
        status = kFull;
    if (status != kOk) {
        ZEVD_TRACE(trc, TRACE_ERROR, "Error: dp_online %s %s %s from %s port %d refused (%d)\n",
                   handle.appl.c_str(), handle.group.c_str(), handle.source.c_str(),
                   request.from.host().c_str(), request.from.port(), status);
        answerStatus(request, status, &kNoHandle);
        return trc.exit();
    }
    handle.provider = request.from;
    handle.lastActive = std::chrono::steady_clock::now();
    int32_t next = nextHandle_;
    if (open != bySource_.end()) {
        // A source online already (its provider restarted without an
        // offline) gets its handle again: handles stay as many as the
        // sources. The handle keeps its latest values; its provider is the
        // one that asked now.
        handle.id = open->second;
    } else {
        // Handles count up from 1 and are not given again while open; past
        // the largest they start again at 1.
        while (handles_.count(next) != 0 || next <= 0)
            next = next <= 0 || next == INT32_MAX ? 1 : next + 1;
        handle.id = next;
        next = next == INT32_MAX ? 1 : next + 1;
    }
    if (!saveChange([&handle, next] { return onlineRecord(handle, next); }, &request)) {
        answerStatus(request, kNotSaved, &kNoHandle);
        return trc.exit();
    }
    nextHandle_ = next;
    int32_t id = handle.id;
    if (open != bySource_.end()) {
        OpenHandle &again = handles_.at(id);
        again.provider = handle.provider;
        again.lastActive = handle.lastActive;
        ZEVD_TRACE(trc, TRACE_DETAIL, "handle %d online again: %s %s %s\n", id, handle.appl.c_str(),
                   handle.group.c_str(), handle.source.c_str());
    } else {
        ZEVD_TRACE(trc, TRACE_DETAIL, "handle %d: %s %s %s\n", id, handle.appl.c_str(),
                   handle.group.c_str(), handle.source.c_str());
        putHandle(std::move(handle));
        updateGauges();
    }
    const OpenHandle &kept = handles_.at(id);
    answerStatus(request, kOk, &id);
    reportStatus(ZEVD_REQ_DP_ONLINE, kept.appl, kept.group, kept.source, kept.provider);
    savedChange();
    trc.exit();
}

bool Dch::makeLatest(OpenHandle &handle, const Group &group) {
    ZEVD_TRACE_FUNCTION("Dch::makeLatest");
    dropLatest(handle);
    size_t charge = 0;
    for (Attribute a : group.attributes())
        charge += sizeof(LatestValue) + (isNumberType(a.type) ? 0 : kLatestTextMax);
    if (charge > kMaxLatestBytes - latestBytes_) {
        if (!handle.latestRefused)
            ZEVD_TRACE(trc, TRACE_ERROR,
                       "Error: the latest values of handle %d (%s %s %s) are not kept: those of "
                       "the other handles take %llu bytes of the %llu they may\n",
                       handle.id, handle.appl.c_str(), handle.group.c_str(), handle.source.c_str(),
                       static_cast<unsigned long long>(latestBytes_),
                       static_cast<unsigned long long>(kMaxLatestBytes));
        handle.latestRefused = true;
        return trc.exit(false);
    }
    handle.latest.assign(group.size(), LatestValue{});
    handle.latestCharge = charge;
    latestBytes_ += charge;
    return trc.exit(true);
}

void Dch::dropLatest(OpenHandle &handle) {
    std::vector<LatestValue>().swap(handle.latest);
    latestBytes_ -= handle.latestCharge;
    handle.latestCharge = 0;
}

void Dch::releaseHandle(std::map<int32_t, OpenHandle>::iterator it) {
    dropLatest(it->second);
    OpenHandle handle = std::move(it->second);
    auto indexed = bySource_.find(sourceKey(handle.appl, handle.group, handle.source));
    if (indexed != bySource_.end() && indexed->second == it->first) bySource_.erase(indexed);
    handles_.erase(it);
    updateGauges();
    reportStatus(ZEVD_REQ_DP_OFFLINE, handle.appl, handle.group, handle.source, handle.provider);
}

void Dch::onOffline(FieldReader &reader, const Request &request) {
    ZEVD_TRACE_FUNCTION("Dch::onOffline");
    int32_t id = 0;
    if (!read32(reader, DCH_handle, id) || !reader.atEnd()) {
        refuseMalformed(request, nullptr);
        return trc.exit();
    }
    auto it = handles_.find(id);
    if (it == handles_.end()) {
        ZEVD_TRACE(trc, TRACE_ERROR, "Error: dp_offline from %s port %d: no handle %d\n",
                   request.from.host().c_str(), request.from.port(), id);
        ++counters_.drops[kDropUnknownHandle];
        answerStatus(request, kUnknownHandle);
        return trc.exit();
    }
    if (!saveChange([id] { return offlineRecord(id); }, &request)) {
        answerStatus(request, kNotSaved);
        return trc.exit();
    }
    ZEVD_TRACE(trc, TRACE_DETAIL, "handle %d released\n", id);
    answerStatus(request, kOk);
    releaseHandle(it);
    savedChange();
    trc.exit();
}

void Dch::onUnregister(FieldReader &reader, const Request &request) {
    ZEVD_TRACE_FUNCTION("Dch::onUnregister");
    std::string appl;
    if (!readName(reader, DCH_applName, kApplNameMax, appl) || !reader.atEnd()) {
        refuseMalformed(request, nullptr);
        return trc.exit();
    }
    auto application = applications_.find(appl);
    if (application == applications_.end()) {
        ZEVD_TRACE(trc, TRACE_ERROR, "Error: dp_unregister from %s port %d: no application %s\n",
                   request.from.host().c_str(), request.from.port(), appl.c_str());
        answerStatus(request, kUnknownAppl);
        return trc.exit();
    }
    if (!saveChange([&appl] { return unregisterRecord(appl); }, &request)) {
        answerStatus(request, kNotSaved);
        return trc.exit();
    }
    answerStatus(request, kOk);
    for (auto it = handles_.begin(); it != handles_.end();) {
        auto next = std::next(it);
        if (it->second.appl == appl) releaseHandle(it);
        it = next;
    }
    applications_.erase(application);
    ZEVD_TRACE(trc, TRACE_DETAIL, "application %s unregistered\n", appl.c_str());
    reportStatus(ZEVD_REQ_DP_UNREGISTER, appl, "", "", request.from);
    savedChange();
    trc.exit();
}

void Dch::onData(FieldReader &reader, const Request &request) {
    ZEVD_TRACE_FUNCTION("Dch::onData");
    int32_t id = 0;
    int16_t flag = 0;
    int32_t status = kOk;
    std::string fault;
    if (!read32(reader, DCH_handle, id) || !read16(reader, DCH_dataFlag, flag)) {
        status = kMalformed;
        fault = "no handle and data flag";
    }
    auto it = handles_.find(id);
    std::optional<Group> group;
    if (status == kOk && it == handles_.end()) {
        status = kUnknownHandle;
        fault = "no handle " + std::to_string(id);
    } else if (status == kOk) {
        auto application = applications_.find(it->second.appl);
        if (application != applications_.end()) group = application->second.find(it->second.group);
        if (group == std::nullopt) {
            status = kUnknownGroup;
            fault = "the group of handle " + std::to_string(id) + " is no longer registered";
        }
    }
    rowValues_.clear();
    while (status == kOk && !reader.atEnd()) {
        std::string name;
        if (!readName(reader, DCH_attrName, kAttrNameMax, name) || reader.next() != DCH_attrValue) {
            status = kMalformed;
            fault = "an attribute pair does not read";
            break;
        }
        size_t index = group->find(name);
        std::optional<Attribute> attribute;
        if (index != Group::kNone) attribute = group->at(index);
        int length = reader.length();
        bool fits = attribute && (isIntegerLetter(attribute->type) ? length == 2 || length == 4
                                  : isShortLetter(attribute->type) ? length == 2
                                                                   : length <= attribute->size);
        if (!fits) {
            status = kUnknownAttr;
            fault = !attribute ? "no attribute " + name + " in its group"
                               : "attribute " + name + " has a value of " + std::to_string(length) +
                                     " bytes";
            break;
        }
        RowValue value{index, 0, nullptr, 0};
        if (isNumberType(attribute->type)) {
            value.number = length == 2 ? reader.int16() : reader.int32();
        } else {
            value.text = length == 0 ? "" : reader.value();
            value.length =
                std::min(strnlen(value.text, static_cast<size_t>(length)), kLatestTextMax);
        }
        rowValues_.push_back(value);
    }
    if (status == kMalformed) {
        refuseMalformed(request, fault.c_str());
        return trc.exit();
    }
    if (status != kOk) {
        ZEVD_TRACE(trc, TRACE_ERROR, "Error: dp_data from %s port %d refused (%d): %s\n",
                   request.from.host().c_str(), request.from.port(), status, fault.c_str());
        if (status == kUnknownHandle) ++counters_.drops[kDropUnknownHandle];
        answerStatus(request, status);
        return trc.exit();
    }
    // Forwarded as one message: who sent it, then the pairs as received. A
    // row over TCP can be larger than the largest message the DCH sends.
    const OpenHandle &handle = it->second;
    size_t end = messageLength(request.data);
    size_t pairs = end > kRowPairs ? end - kRowPairs : 0;
    size_t header = kFirstField + 8 + (handle.appl.size() + 7) + (handle.group.size() + 7) +
                    (handle.source.size() + 7) + 10 + 8;
    if (header + pairs > reply_.size()) {
        ZEVD_TRACE(trc, TRACE_ERROR,
                   "Error: dp_data from %s port %d refused (%d): a row of %u bytes is too large "
                   "to forward\n",
                   request.from.host().c_str(), request.from.port(), kFull,
                   static_cast<unsigned>(end));
        answerStatus(request, kFull);
        return trc.exit();
    }
    // Only now is the row accepted: its values become the handle's latest.
    OpenHandle &kept = it->second;
    kept.lastActive = std::chrono::steady_clock::now();
    if (keepLatest_ && (kept.latest.size() == group->size() || makeLatest(kept, *group))) {
        for (const RowValue &value : rowValues_) {
            LatestValue &latest = kept.latest[value.attribute];
            latest.set = true;
            latest.number = value.number;
            if (value.text != nullptr) latest.text.assign(value.text, value.length);
        }
    }
    answerStatus(request, kOk);
    MessageBuilder row = startMessage();
    row.add16(DCH_requestType, ZEVD_REQ_DP_DATA);
    row.addString(DCH_applName, handle.appl.c_str());
    row.addString(DCH_attrGroup, handle.group.c_str());
    row.addString(DCH_sourceName, handle.source.c_str());
    row.add32(DCH_handle, handle.id);
    row.add16(DCH_dataFlag, flag);
    size_t at = row.offset();  // the header counted above
    memcpy(reply_.data() + at, request.data + kRowPairs, pairs);
    uint32_t word = htonl(static_cast<uint32_t>(at + pairs));
    memcpy(reply_.data(), &word, sizeof word);
    std::string appl = handle.appl;
    std::string groupName = handle.group;
    deliverToAll(dataSubscribers_, row, &appl, &groupName);
    trc.exit();
}

}  // namespace zevd::dch
