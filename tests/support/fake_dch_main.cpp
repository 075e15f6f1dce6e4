// zevd_fake_dch: the fake DCH in a process of its own, for programs that
// need a DCH peer without the reference daemon (the client benchmark).
// Answers dp_online with status 0 and a handle taken from the request (the
// source name's decimal value when it is all digits, else 1), leaves the
// requests that have no answer unanswered (the consumers' registers and
// withdraws, the name list, actions and deferred reports), and answers
// every other request with status 0. Prints "zevd_fake_dch ready on port N" once
// it serves, then runs until it is killed.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "common/message.h"
#include "support/fake_dch.h"
#include "zevd610.h"

namespace {

using zevd::test::DchMessage;
using zevd::test::DchReply;
using zevd::test::DchRequest;

constexpr int kOnline = 0x1015;
constexpr int kStatusField = 17;
constexpr int kSourceNameField = 34;
constexpr int kHandleField = 128;

// The handle for a dp_online request: its source name read as a decimal
// number when it is all digits (and fits), else 1.
int32_t handleFor(const DchRequest &request) {
    zevd::FieldReader reader(request.bytes.data(), request.bytes.size());
    for (int type = reader.next(); type != 0; type = reader.next()) {
        if (type != kSourceNameField || reader.length() < 1) continue;
        std::string name(reader.value(), static_cast<size_t>(reader.length()));
        if (name.back() == '\0') name.pop_back();
        if (name.empty() || name.size() > 9 ||
            name.find_first_not_of("0123456789") != std::string::npos)
            return 1;
        return static_cast<int32_t>(std::stol(name));
    }
    return 1;
}

DchReply answer(const DchRequest &request) {
    switch (request.requestType()) {
        case ZEVD_REQ_DC_WAIT_ON_DATA:
        case ZEVD_REQ_DC_WAIT_FOR_DP_STATUS:
        case ZEVD_REQ_DC_SEND_APPL_NAME_LIST:
        case ZEVD_REQ_DC_PROVIDE_ACTION:
        case ZEVD_REQ_DC_DEFER_REPORT_REQUEST: return std::nullopt;
        default: break;
    }
    if (request.requestType() == kOnline)
        return DchMessage().int32(kStatusField, 0).int32(kHandleField, handleFor(request)).bytes();
    return DchMessage().int32(kStatusField, 0).bytes();
}

}  // namespace

int main() {
    zevd::test::FakeDch &dch = zevd::test::FakeDch::instance();
    if (!dch.ready()) {
        std::fprintf(stderr, "zevd_fake_dch: the server did not become ready\n");
        return 1;
    }
    dch.setResponder(answer);
    std::printf("zevd_fake_dch ready on port %u\n", static_cast<unsigned>(dch.port()));
    std::fflush(stdout);
    for (;;) pause();
}
