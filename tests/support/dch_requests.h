// The daemon's request handlers driven without sockets: requests written
// field by field with the library's writer (or byte for byte where a test
// needs a field the writer would not produce), a transport that records what
// the handlers send and to whom, and a Dch to talk to through it.
#ifndef ZEVD_TESTS_SUPPORT_DCH_REQUESTS_H
#define ZEVD_TESTS_SUPPORT_DCH_REQUESTS_H

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <optional>
#include <ostream>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "common/message.h"
#include "zevd610.h"
#include "zevdchd.h"

namespace zevd::dch {

// Readable peers in the failure messages.
inline void PrintTo(const Peer &peer, std::ostream *out) {
    *out << peer.host() << " port " << peer.port() << " fd " << peer.fd;
}

}  // namespace zevd::dch

namespace zevd::test {

using dch::Dch;
using dch::Peer;
using dch::Request;
using dch::Transport;

// ---------------------------------------------------------------------------
// Peers and the recording transport
// ---------------------------------------------------------------------------

inline Peer peerAt(const char *host, uint16_t port, uint32_t fd = 0) {
    Peer peer;
    peer.addr.sin_family = AF_INET;
    peer.addr.sin_port = htons(port);
    EXPECT_EQ(inet_pton(AF_INET, host, &peer.addr.sin_addr), 1) << host;
    peer.fd = fd;
    return peer;
}

// Consumers ask from the client port, providers from ports of their own,
// subscribers listen on theirs.
inline const Peer kClient = peerAt("127.0.0.1", 40000);
inline const Peer kProvider = peerAt("127.0.0.1", 40001);
inline const Peer kOtherProvider = peerAt("127.0.0.1", 40002);
inline const Peer kSubscriber = peerAt("127.0.0.1", 41001);
inline const Peer kSubscriber2 = peerAt("127.0.0.1", 41002);
inline const Peer kSubscriber3 = peerAt("127.0.0.1", 41003);

struct Sent {
    Peer peer;
    std::vector<char> bytes;
};

class RecordingTransport : public Transport {
public:
    bool answer(const Peer &peer, const char *message, size_t length) override {
        answers.push_back({peer, std::vector<char>(message, message + length)});
        return answersGo;
    }
    bool deliver(const Peer &peer, const char *message, size_t length) override {
        bool fails = noneReachable ||
                     std::find(unreachable.begin(), unreachable.end(), peer) != unreachable.end();
        (fails ? failedDeliveries : deliveries)
            .push_back({peer, std::vector<char>(message, message + length)});
        return !fails;
    }
    void forget(const Peer &peer) override { forgotten.push_back(peer); }
    void closeConnection(uint32_t fd) override { closed.push_back(fd); }

    // What peer was sent, in order.
    std::vector<std::vector<char>> deliveredTo(const Peer &peer) const {
        std::vector<std::vector<char>> out;
        for (const Sent &sent : deliveries)
            if (sent.peer == peer) out.push_back(sent.bytes);
        return out;
    }

    bool answersGo = true;          // answer() reports success
    std::vector<Peer> unreachable;  // deliver() fails for these
    bool noneReachable = false;     // deliver() fails for every peer
    std::vector<Sent> answers;      // every answer, sent or not
    std::vector<Sent> deliveries;   // the deliveries that succeeded
    std::vector<Sent> failedDeliveries;
    std::vector<Peer> forgotten;
    std::vector<uint32_t> closed;
};

// ---------------------------------------------------------------------------
// Reading what the daemon sent
// ---------------------------------------------------------------------------

inline std::string be16(int16_t value) {
    uint16_t word = htons(static_cast<uint16_t>(value));
    return std::string(reinterpret_cast<const char *>(&word), sizeof word);
}

inline std::string be32(int32_t value) {
    uint32_t word = htonl(static_cast<uint32_t>(value));
    return std::string(reinterpret_cast<const char *>(&word), sizeof word);
}

// A string value as it travels: its characters and the terminating zero.
inline std::string z(const std::string &text) {
    return text + '\0';
}

// A message's fields in order, as (type, value bytes); a field that does not
// read ends the list as type 0.
using Fields = std::vector<std::pair<int, std::string>>;

inline Fields fieldsOf(const std::vector<char> &message) {
    Fields out;
    if (message.size() < 4) {
        ADD_FAILURE() << "a message of " << message.size() << " bytes";
        return out;
    }
    EXPECT_EQ(zevd::messageLength(message.data()), message.size()) << "the length word";
    FieldReader reader(message.data(), message.size());
    while (!reader.atEnd()) {
        int type = reader.next();
        out.emplace_back(type,
                         type == 0 ? std::string() : std::string(reader.value(), reader.length()));
    }
    return out;
}

inline Fields status(int32_t value) {
    return {{DCH_status, be32(value)}};
}
inline Fields status(int32_t value, int32_t handle) {
    return {{DCH_status, be32(value)}, {DCH_handle, be32(handle)}};
}
inline Fields text(const std::string &value) {
    return {{DCH_response, value}};
}

// A status report as a status subscriber gets it.
inline Fields report(int16_t requestType, const std::string &appl, const std::string &group,
                     const std::string &source, const Peer &provider) {
    return {{DCH_applName, z(appl)},
            {DCH_attrGroup, z(group)},
            {DCH_sourceName, z(source)},
            {DCH_hostAddr, z(provider.host())},
            {DCH_hostInfo, z(std::to_string(provider.port()))},
            {DCH_requestType, be16(requestType)}};
}

inline std::vector<Fields> fieldsOfEach(const std::vector<std::vector<char>> &messages) {
    std::vector<Fields> out;
    out.reserve(messages.size());
    for (const auto &message : messages) out.push_back(fieldsOf(message));
    return out;
}

// ---------------------------------------------------------------------------
// Writing requests
// ---------------------------------------------------------------------------

enum class As { int16, int32, string, noValue, bytes };

// One field of a request. maxChars, when not 0, is the longest value the
// daemon takes in it; a name also has to be one word of at least one
// character. statusIfOtherType is the status a field of another type in its
// place earns.
struct ReqField {
    int type = 0;
    As as = As::bytes;
    std::string text;  // string and byte values
    int32_t number = 0;
    size_t maxChars = 0;
    bool isName = false;
    int32_t statusIfOtherType = ZEVD_DCH_MALFORMED;
};

inline ReqField field(int type, As as, std::string value, int32_t number) {
    ReqField f;
    f.type = type;
    f.as = as;
    f.text = std::move(value);
    f.number = number;
    return f;
}
inline ReqField i16(int type, int16_t value) {
    return field(type, As::int16, "", value);
}
inline ReqField i32(int type, int32_t value) {
    return field(type, As::int32, "", value);
}
inline ReqField str(int type, std::string value) {
    return field(type, As::string, std::move(value), 0);
}
inline ReqField none(int type) {
    return field(type, As::noValue, "", 0);
}
inline ReqField raw(int type, std::string bytes) {
    return field(type, As::bytes, std::move(bytes), 0);
}
inline ReqField name(int type, std::string value, size_t maxChars) {
    ReqField f = str(type, std::move(value));
    f.maxChars = maxChars;
    f.isName = true;
    return f;
}
// A help or action text: at most 4096 characters.
inline ReqField longText(int type, std::string value) {
    ReqField f = str(type, std::move(value));
    f.maxChars = 4096;
    return f;
}

// The value bytes a field carries.
inline std::string valueOf(const ReqField &f) {
    switch (f.as) {
        case As::int16: return be16(static_cast<int16_t>(f.number));
        case As::int32: return be32(f.number);
        case As::string: return z(f.text);
        case As::noValue: return "";
        case As::bytes: return f.text;
    }
    return "";
}

// Writes the fields through the library's message writer; a raw field (a
// string without its zero, a number of another width) is written byte for
// byte in its place.
inline std::vector<char> encodeFields(const std::vector<ReqField> &fields,
                                      size_t capacity = zevd::kRequestSize) {
    std::vector<char> buffer(capacity);
    MessageBuilder builder(buffer.data(), buffer.size());
    builder.clear();
    for (const ReqField &f : fields) {
        switch (f.as) {
            case As::int16: builder.add16(f.type, static_cast<int16_t>(f.number)); break;
            case As::int32: builder.add32(f.type, f.number); break;
            case As::string: builder.addString(f.type, f.text.c_str()); break;
            case As::noValue: builder.addString(f.type, nullptr); break;
            case As::bytes: {
                size_t at = builder.offset();
                size_t end = at + 6 + f.text.size();
                if (!builder.ok() || end > buffer.size()) {
                    ADD_FAILURE() << "field " << f.type << " does not fit";
                    return {};
                }
                uint16_t type = htons(static_cast<uint16_t>(f.type));
                uint32_t length = htonl(static_cast<uint32_t>(f.text.size()));
                uint32_t word = htonl(static_cast<uint32_t>(end));
                memcpy(&buffer[at], &type, sizeof type);
                memcpy(&buffer[at + 2], &length, sizeof length);
                if (!f.text.empty()) memcpy(&buffer[at + 6], f.text.data(), f.text.size());
                memcpy(buffer.data(), &word, sizeof word);
                builder.resumeAt(end);
                break;
            }
        }
    }
    EXPECT_TRUE(builder.ok()) << "field " << builder.failedType() << " did not fit";
    return std::vector<char>(buffer.begin(), buffer.begin() + builder.length());
}

// Over TCP a request may be longer than a datagram's 4096 bytes.
inline constexpr size_t kTcpRequestSize = 16 * 1024;

inline std::vector<char> encode(int16_t code, const std::vector<ReqField> &fields) {
    std::vector<ReqField> all = {i16(DCH_requestType, code)};
    all.insert(all.end(), fields.begin(), fields.end());
    return encodeFields(all, kTcpRequestSize);
}

// A catalogue as dp_register declares it.
struct Attr {
    std::string name;
    int16_t letter;
    int32_t size;
    std::string help;
};
struct Grp {
    std::string name;
    std::string help;
    std::vector<Attr> attributes;
};

// The catalogue most tests register: count and name in grp, flag in other.
inline const std::vector<Grp> kGroups = {
    {"grp", "grp help", {{"count", 'A', 4, "how many"}, {"name", 'D', 8, "who"}}},
    {"other", "", {{"flag", 'S', 2, ""}}},
};

inline std::vector<ReqField> catalogueFields(const std::string &appl, const std::string &help,
                                             const std::vector<Grp> &groups) {
    std::vector<ReqField> fields = {name(DCH_applName, appl, 20), longText(0x200, help)};
    for (const Grp &g : groups) {
        fields.push_back(name(DCH_attrGroup, g.name, 32));
        fields.push_back(longText(0x200, g.help));
        for (const Attr &a : g.attributes) {
            fields.push_back(name(DCH_attrName, a.name, 32));
            fields.push_back(i16(0x201, a.letter));
            fields.push_back(i32(0x202, a.size));
            fields.push_back(longText(0x200, a.help));
        }
    }
    return fields;
}

inline std::vector<char> registerRequest(const std::string &appl, const std::string &help,
                                         const std::vector<Grp> &groups = kGroups) {
    return encode(ZEVD_REQ_DP_REGISTER, catalogueFields(appl, help, groups));
}
inline std::vector<char> onlineRequest(const std::string &appl, const std::string &group,
                                       const std::string &source) {
    return encode(ZEVD_REQ_DP_ONLINE, {str(DCH_applName, appl), str(DCH_attrGroup, group),
                                       str(DCH_sourceName, source)});
}
inline std::vector<char> offlineRequest(int32_t handle) {
    return encode(ZEVD_REQ_DP_OFFLINE, {i32(DCH_handle, handle)});
}
inline std::vector<char> unregisterRequest(const std::string &appl) {
    return encode(ZEVD_REQ_DP_UNREGISTER, {str(DCH_applName, appl)});
}

// A row's attribute pairs: the name, and the value's bytes as they travel.
using Pairs = std::vector<std::pair<std::string, std::string>>;

inline std::vector<char> dataRequest(int32_t handle, int16_t flag, const Pairs &pairs,
                                     size_t capacity = zevd::kRequestSize) {
    std::vector<ReqField> fields = {i16(DCH_requestType, ZEVD_REQ_DP_DATA), i32(DCH_handle, handle),
                                    i16(DCH_dataFlag, flag)};
    for (const auto &[attr, value] : pairs) {
        fields.push_back(str(DCH_attrName, attr));
        fields.push_back(raw(DCH_attrValue, value));
    }
    return encodeFields(fields, capacity);
}
inline std::vector<char> queryRequest(int16_t code, const char *appl) {
    return encode(code, appl != nullptr ? std::vector<ReqField>{str(DCH_applName, appl)}
                                        : std::vector<ReqField>{});
}
inline std::vector<char> nameListRequest() {
    return encode(ZEVD_REQ_DC_SEND_APPL_NAME_LIST, {none(DCH_sourceName)});
}
inline std::vector<char> dataWaitRequest(const std::string &appl, const std::string &group,
                                         int32_t operation) {
    return encode(ZEVD_REQ_DC_WAIT_ON_DATA,
                  {str(DCH_applName, appl), str(DCH_attrGroup, group), i32(DCH_status, operation)});
}
inline std::vector<char> statusWaitRequest(int32_t operation) {
    return encode(ZEVD_REQ_DC_WAIT_FOR_DP_STATUS, {i32(DCH_status, operation)});
}
inline std::vector<char> actionRequest(int32_t id, const std::string &action,
                                       const std::optional<std::string> &parms) {
    std::vector<ReqField> fields = {
        i16(DCH_actionType, 3),         str(DCH_actionOwner, "owner"), str(DCH_sourceName, "node"),
        str(DCH_sourceName, "subnode"), str(DCH_actionName, action),   i32(DCH_actionID, id),
        i16(DCH_actionUTF8, 1),
    };
    if (parms) fields.push_back(str(DCH_actionParms, *parms));
    return encode(ZEVD_REQ_DC_PROVIDE_ACTION, fields);
}
inline std::vector<char> actionResultsRequest(int32_t id) {
    return encode(ZEVD_REQ_DC_WAIT_FOR_ACTION_RESULTS, {i32(DCH_actionID, id)});
}

// ---------------------------------------------------------------------------
// What the daemon holds
// ---------------------------------------------------------------------------

// Everything the daemon holds, as text: equal texts, nothing changed.
inline std::string stateOf(const Dch &dch) {
    auto quoted = [](std::string_view value) {
        std::string out = "<";
        char hex[8];
        for (unsigned char c : value) {
            if (c > ' ' && c < 0x7f && c != '\\' && c != '>') {
                out += static_cast<char>(c);
            } else {
                snprintf(hex, sizeof hex, "\\x%02x", c);
                out += hex;
            }
        }
        return out + ">";
    };
    auto peer = [](const Peer &p) {
        return p.host() + ":" + std::to_string(p.port()) + "/" + std::to_string(p.fd);
    };
    std::ostringstream out;
    for (const auto &[key, a] : dch.applications()) {
        out << "appl " << quoted(key) << quoted(a.name) << quoted(a.help) << peer(a.registeredBy)
            << '\n';
        for (dch::Group g : a.groups()) {
            out << " group " << quoted(g.name()) << quoted(g.help()) << '\n';
            for (dch::Attribute at : g.attributes())
                out << "  attr " << quoted(at.name) << at.type << at.size << quoted(at.help)
                    << '\n';
        }
    }
    for (const auto &[id, h] : dch.handles())
        out << "handle " << id << '=' << h.id << quoted(h.appl) << quoted(h.group)
            << quoted(h.source) << peer(h.provider) << '\n';
    for (const dch::Subscriber &s : dch.dataSubscribers())
        out << "data " << peer(s.peer) << quoted(s.appl) << quoted(s.group) << s.failures << '\n';
    for (const dch::Subscriber &s : dch.statusSubscribers())
        out << "status " << peer(s.peer) << s.failures << '\n';
    for (const dch::Action &a : dch.actions())
        out << "action " << a.id << ' ' << a.type << quoted(a.owner) << quoted(a.node)
            << quoted(a.subnode) << quoted(a.name) << a.utf8 << a.hasParms << '\n';
    for (const dch::DeferredReport &r : dch.deferredReports())
        out << "deferred " << r.actionID << ' ' << r.object << ' ' << r.time << quoted(r.applKey)
            << quoted(r.table) << quoted(r.source) << '\n';
    out << "next-handle " << dch.nextHandle() << '\n';
    return out.str();
}

// ---------------------------------------------------------------------------
// A daemon to talk to
// ---------------------------------------------------------------------------

struct Daemon {
    RecordingTransport transport;
    Dch dch{transport};

    // Hands the bytes to the daemon as received from peer and returns the
    // answers it gave. They are handed over as a block of their own size, so
    // that the sanitizer build sees any read past the bytes received.
    std::vector<Fields> send(const std::vector<char> &message, const Peer &from = kClient) {
        size_t before = transport.answers.size();
        std::vector<char> received(message);
        dch.handle(Request{received.data(), received.size(), from});
        std::vector<Fields> out;
        for (size_t i = before; i < transport.answers.size(); ++i) {
            EXPECT_EQ(transport.answers[i].peer, from) << "an answer to someone else";
            out.push_back(fieldsOf(transport.answers[i].bytes));
        }
        return out;
    }
    // The one answer of a request that has one.
    Fields ask(const std::vector<char> &message, const Peer &from = kClient) {
        std::vector<Fields> answers = send(message, from);
        EXPECT_EQ(answers.size(), 1u) << "answers";
        return answers.empty() ? Fields{} : answers.front();
    }

    void registerApp(const std::string &appl = "app", const Peer &from = kProvider) {
        EXPECT_EQ(ask(registerRequest(appl, appl + " help"), from), status(0)) << appl;
    }
    // The handle dp_online gave, or 0.
    int32_t online(const std::string &appl, const std::string &group, const std::string &source,
                   const Peer &from = kProvider) {
        Fields answer = ask(onlineRequest(appl, group, source), from);
        if (answer.size() != 2 || answer[0] != status(0)[0] || answer[1].first != DCH_handle ||
            answer[1].second.size() != 4) {
            ADD_FAILURE() << "dp_online " << appl << " " << group << " " << source << " refused";
            return 0;
        }
        uint32_t word;
        memcpy(&word, answer[1].second.data(), sizeof word);
        return static_cast<int32_t>(ntohl(word));
    }
    void subscribeData(const Peer &peer, const std::string &appl, const std::string &group) {
        EXPECT_TRUE(send(dataWaitRequest(appl, group, 1), peer).empty());
    }
    void subscribeStatus(const Peer &peer) {
        EXPECT_TRUE(send(statusWaitRequest(1), peer).empty());
    }
    uint64_t drops(dch::DropReason reason) { return dch.counters().drops[reason].load(); }
};

// The counters line of name ("counter NAME VALUE"), or "(no line)".
inline std::string counterLine(const Daemon &d, const std::string &name) {
    for (const std::string &line : d.dch.counters().lines())
        if (line.rfind("counter " + name + " ", 0) == 0) return line;
    return "(no line)";
}

}  // namespace zevd::test

#endif  // ZEVD_TESTS_SUPPORT_DCH_REQUESTS_H
