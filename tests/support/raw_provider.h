// A data provider that speaks to a zevdchd of its own, request by request,
// from a fresh loopback UDP socket each time (so that an answer that comes
// late is never read as the next one's), with a bounded wait for each
// answer. For the suites that restart, kill and starve the daemon under it.
#ifndef ZEVD_TESTS_SUPPORT_RAW_PROVIDER_H
#define ZEVD_TESTS_SUPPORT_RAW_PROVIDER_H

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "common/message.h"
#include "support/dch_daemon.h"
#include "support/loopback.h"
#include "zevd610.h"

namespace zevd::test {

struct RawAnswer {
    bool answered = false;  // false: nothing came within the wait
    int32_t status = -1;
    int32_t handle = -1;  // -1 when the answer has none
};

class RawProvider {
public:
    explicit RawProvider(uint16_t port,
                         std::chrono::milliseconds wait = std::chrono::milliseconds(3000))
        : port_(port), wait_(wait) {}

    void setPort(uint16_t port) { port_ = port; }

    RawAnswer ask(const std::vector<char> &request) const {
        RawAnswer out;
        int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        if (fd < 0) return out;
        if (sendDatagram(fd, loopbackAddress(port_), request)) {
            pollfd p = {fd, POLLIN, 0};
            std::vector<char> answer(4096);
            if (poll(&p, 1, static_cast<int>(wait_.count())) == 1) {
                ssize_t n = recv(fd, answer.data(), answer.size(), MSG_DONTWAIT);
                if (n >= 4) {
                    FieldReader r(answer.data(), static_cast<size_t>(n));
                    if (r.next() == DCH_status) {
                        out.answered = true;
                        out.status = r.int32();
                        if (r.next() == DCH_handle) out.handle = r.int32();
                    }
                }
            }
        }
        close(fd);
        return out;
    }

    // An application with one group g of one 4-byte integer n.
    RawAnswer registerApp(const std::string &appl) const {
        return ask(buildMessage([&](MessageBuilder &b) {
            b.add16(DCH_requestType, ZEVD_REQ_DP_REGISTER);
            b.addString(DCH_applName, appl.c_str());
            b.addString(0x200, "");
            b.addString(DCH_attrGroup, "g");
            b.addString(0x200, "");
            b.addString(DCH_attrName, "n");
            b.add16(0x201, 'A');
            b.add32(0x202, 4);
            b.addString(0x200, "");
        }));
    }
    RawAnswer online(const std::string &appl, const std::string &source) const {
        return ask(buildMessage([&](MessageBuilder &b) {
            b.add16(DCH_requestType, ZEVD_REQ_DP_ONLINE);
            b.addString(DCH_applName, appl.c_str());
            b.addString(DCH_attrGroup, "g");
            b.addString(DCH_sourceName, source.c_str());
        }));
    }
    RawAnswer offline(int32_t handle) const {
        return ask(buildMessage([&](MessageBuilder &b) {
            b.add16(DCH_requestType, ZEVD_REQ_DP_OFFLINE);
            b.add32(DCH_handle, handle);
        }));
    }
    RawAnswer unregister(const std::string &appl) const {
        return ask(buildMessage([&](MessageBuilder &b) {
            b.add16(DCH_requestType, ZEVD_REQ_DP_UNREGISTER);
            b.addString(DCH_applName, appl.c_str());
        }));
    }
    // A row of n = value: answered 0 while the handle is open, 19 when not.
    RawAnswer row(int32_t handle, int32_t value) const {
        return ask(buildMessage([&](MessageBuilder &b) {
            b.add16(DCH_requestType, ZEVD_REQ_DP_DATA);
            b.add32(DCH_handle, handle);
            b.add16(DCH_dataFlag, 0);
            b.addString(DCH_attrName, "n");
            b.addValue(DCH_attrValue, &value, 4, "A");
        }));
    }

private:
    uint16_t port_;
    std::chrono::milliseconds wait_;
};

}  // namespace zevd::test

#endif  // ZEVD_TESTS_SUPPORT_RAW_PROVIDER_H
