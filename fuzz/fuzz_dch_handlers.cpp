// Any bytes as a request to zevdchd's handlers. The first byte picks the
// request code (one of the table's, or one it does not know) and how the
// message comes: over UDP or a TCP connection, framed here or taken whole
// with whatever length word it carries. The rest is the request's fields.
// A daemon with an application, an open handle and a subscriber of each
// kind takes it, so that rows are forwarded and reports sent. Nothing may
// crash, leak or read past the bytes given.
#include <arpa/inet.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "common/message.h"
#include "zevd610.h"
#include "zevdchd.h"

namespace {

using zevd::dch::Dch;
using zevd::dch::Peer;
using zevd::dch::Request;

// Sends nothing; every seventh delivery fails, so subscribers get dropped.
class FuzzTransport final : public zevd::dch::Transport {
public:
    bool answer(const Peer &, const char *, size_t) override { return ++answers_ % 11 != 0; }
    bool deliver(const Peer &, const char *, size_t) override { return ++deliveries_ % 7 != 0; }

private:
    unsigned answers_ = 0;
    unsigned deliveries_ = 0;
};

Peer peer(uint16_t port, uint32_t fd) {
    Peer p;
    p.addr.sin_family = AF_INET;
    p.addr.sin_port = htons(port);
    p.addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    p.fd = fd;
    return p;
}

// A request made with the library's writer, handed over from peer.
void send(Dch &dch, const Peer &from, int16_t code, auto build) {
    std::vector<char> m(4096);
    zevd::MessageBuilder b(m.data(), m.size());
    b.clear();
    b.add16(DCH_requestType, code);
    build(b);
    dch.handle(Request{m.data(), b.length(), from});
}

// The state every input meets.
void prepare(Dch &dch) {
    send(dch, peer(40001, 0), ZEVD_REQ_DP_REGISTER, [](zevd::MessageBuilder &b) {
        b.addString(DCH_applName, "app");
        b.addString(0x200, "help");
        b.addString(DCH_attrGroup, "grp");
        b.addString(0x200, "");
        for (const char *name : {"a", "b"}) {
            b.addString(DCH_attrName, name);
            b.add16(0x201, name[0] == 'a' ? 'A' : 'D');
            b.add32(0x202, name[0] == 'a' ? 4 : 16);
            b.addString(0x200, "");
        }
    });
    send(dch, peer(40001, 5), ZEVD_REQ_DP_ONLINE, [](zevd::MessageBuilder &b) {
        b.addString(DCH_applName, "app");
        b.addString(DCH_attrGroup, "grp");
        b.addString(DCH_sourceName, "src");
    });
    send(dch, peer(41000, 0), ZEVD_REQ_DC_WAIT_ON_DATA, [](zevd::MessageBuilder &b) {
        b.addString(DCH_applName, "app");
        b.addString(DCH_attrGroup, "grp");
        b.add32(DCH_status, 1);
    });
    send(dch, peer(41001, 6), ZEVD_REQ_DC_WAIT_FOR_DP_STATUS,
         [](zevd::MessageBuilder &b) { b.add32(DCH_status, 1); });
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int * /*argc*/, char *** /*argv*/) {
    setenv("ZEVA_TRACE", "none", 1);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static bool initialized = LLVMFuzzerInitialize(nullptr, nullptr) == 0;
    (void)initialized;
    if (size < 1) return 0;
    const auto &table = Dch::handlerTable();
    uint8_t how = data[0];
    size_t pick = how % (table.size() + 1);
    int16_t code = pick < table.size() ? table[pick].code : static_cast<int16_t>(0x7f7f);
    bool tcp = (how & 0x40) != 0;
    bool whole = (how & 0x80) != 0;

    FuzzTransport transport;
    Dch dch(transport);
    prepare(dch);

    // Exactly the bytes of the message, on a block of their own, so that
    // the sanitizer sees any read past them.
    std::vector<char> message;
    if (whole) {
        message.assign(data + 1, data + size);
    } else {
        size_t length = 4 + 8 + (size - 1);
        message.resize(length);
        uint32_t word = htonl(static_cast<uint32_t>(length));
        memcpy(message.data(), &word, 4);
        const unsigned char head[8] = {0,
                                       16,
                                       0,
                                       0,
                                       0,
                                       2,
                                       static_cast<unsigned char>(code >> 8),
                                       static_cast<unsigned char>(code & 0xff)};
        memcpy(message.data() + 4, head, sizeof head);
        if (size > 1) memcpy(message.data() + 12, data + 1, size - 1);
    }
    auto *bytes = static_cast<char *>(malloc(message.size() + 1));
    if (!message.empty()) memcpy(bytes, message.data(), message.size());
    dch.handle(Request{bytes, message.size(), peer(40001, tcp ? 5 : 0)});
    if (tcp) dch.disconnect(5);
    free(bytes);
    return 0;
}
