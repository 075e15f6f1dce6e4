// Any names and values through zevdchd's handlers onto the metrics page.
// The input is cut at its zero bytes into pieces: an application name, a
// group name, up to six attribute names (each piece's first byte picks the
// attribute's type letter), two source names, then the values of the rows,
// taken in turn as texts or as the bytes of numbers. Both sources send a
// row; the page must then obey every rule of the text format (the suites'
// checker reads it back), and once the first source's handle is offline no
// sample of it may be left.
#include <arpa/inet.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "common/message.h"
#include "quiet_transport.h"
#include "support/metrics_page.h"
#include "zevd610.h"
#include "zevdchd.h"
#include "zevdchd_metrics.h"

namespace {

using zevd::dch::Dch;
using zevd::dch::Peer;
using zevd::dch::Request;

using zevd::fuzz::QuietTransport;

constexpr char kLetters[] = "ACGLNISDRTUZ";

Peer provider() {
    Peer p;
    p.addr.sin_family = AF_INET;
    p.addr.sin_port = htons(40001);
    p.addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return p;
}

void send(Dch &dch, int16_t code, auto build) {
    std::vector<char> m(64 * 1024);
    zevd::MessageBuilder b(m.data(), m.size());
    b.clear();
    b.add16(DCH_requestType, code);
    build(b);
    dch.handle(Request{m.data(), b.length(), provider()});
}

int32_t openHandle(Dch &dch, const std::string &appl, const std::string &group,
                   const std::string &source) {
    send(dch, ZEVD_REQ_DP_ONLINE, [&](zevd::MessageBuilder &b) {
        b.addString(DCH_applName, appl.c_str());
        b.addString(DCH_attrGroup, group.c_str());
        b.addString(DCH_sourceName, source.c_str());
    });
    for (const auto &[handle, open] : dch.handles())
        if (open.source == source && open.appl == appl && open.group == group) return handle;
    return 0;
}

void fail(const char *what, const std::string &page) {
    fprintf(stderr, "%s\n%s\n", what, page.c_str());
    abort();
}

zevd::test::CheckedPage checkedPage(const Dch &dch) {
    std::string page = zevd::dch::renderMetrics(zevd::dch::metricsSnapshot(dch));
    zevd::test::CheckedPage checked = zevd::test::check(page);
    for (const std::string &error : checked.errors) fprintf(stderr, "%s\n", error.c_str());
    if (!checked.errors.empty()) fail("the page breaks the format", page);
    return checked;
}

// The handlers trace every refusal: set before the first input, so that a
// run does not spend its time writing them.
[[maybe_unused]] const int kQuietTrace = setenv("ZEVA_TRACE", "none", 1);

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    std::vector<std::string> pieces;
    std::string piece;
    for (size_t i = 0; i < size && pieces.size() < 64; ++i) {
        if (data[i] != 0) {
            piece += static_cast<char>(data[i]);
            continue;
        }
        pieces.push_back(piece);
        piece.clear();
    }
    pieces.push_back(piece);
    auto at = [&](size_t i) { return i < pieces.size() ? pieces[i] : std::string("x"); };

    QuietTransport transport;
    Dch dch(transport);
    const std::string appl = at(0), group = at(1);
    struct Attr {
        std::string name;
        char type;
        int32_t size;
    };
    std::vector<Attr> attributes;
    for (size_t i = 2; i < 8 && i < pieces.size(); ++i) {
        std::string name = pieces[i];
        char type = kLetters[(name.empty() ? 0 : static_cast<unsigned char>(name[0])) %
                             (sizeof kLetters - 1)];
        bool number = zevd::dch::isNumberType(type);
        int32_t width = type == 'I' || type == 'S' ? 2 : (name.size() % 2 == 0 ? 4 : 2);
        attributes.push_back({name, type, number ? width : 300});
    }
    send(dch, ZEVD_REQ_DP_REGISTER, [&](zevd::MessageBuilder &b) {
        b.addString(DCH_applName, appl.c_str());
        b.addString(0x200, "");
        b.addString(DCH_attrGroup, group.c_str());
        b.addString(0x200, "help\\ with\nlines");
        for (const Attr &a : attributes) {
            b.addString(DCH_attrName, a.name.c_str());
            b.add16(0x201, a.type);
            b.add32(0x202, a.size);
            b.addString(0x200, "");
        }
    });
    int32_t first = openHandle(dch, appl, group, at(8));
    int32_t second = openHandle(dch, appl, group, at(9));
    size_t next = 10;
    for (int32_t handle : {first, second}) {
        if (handle == 0) continue;
        send(dch, ZEVD_REQ_DP_DATA, [&](zevd::MessageBuilder &b) {
            b.add32(DCH_handle, handle);
            b.add16(DCH_dataFlag, 0);
            for (const Attr &a : attributes) {
                std::string value = at(next++);
                b.addString(DCH_attrName, a.name.c_str());
                char type[2] = {a.type, '\0'};
                if (zevd::dch::isNumberType(a.type)) {
                    unsigned char bytes[4] = {};
                    memcpy(bytes, value.data(), value.size() < 4 ? value.size() : 4);
                    b.addValue(DCH_attrValue, bytes, a.size, type);
                } else {
                    std::string text = value.substr(0, 299);
                    b.addValue(DCH_attrValue, text.c_str(), static_cast<int>(text.size() + 1),
                               type);
                }
            }
        });
    }
    checkedPage(dch);
    if (first == 0) return 0;
    send(dch, ZEVD_REQ_DP_OFFLINE, [&](zevd::MessageBuilder &b) { b.add32(DCH_handle, first); });
    // In a sample's key a label's own quotes are bare; those of a value
    // that happens to hold the same text are escaped.
    std::string label = "handle=\"" + std::to_string(first) + "\"";
    for (const auto &[key, value] : checkedPage(dch).samples)
        if (key.find("{" + label) != std::string::npos ||
            key.find("," + label) != std::string::npos)
            fail("a series outlived its handle", key);
    return 0;
}
