// The DCH's host name is resolved once per process, with the configuration,
// not once per request: the resolver's calls are counted through an
// interposed getaddrinfo while a provider makes many requests.
#include <arpa/inet.h>
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <netdb.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "support/client_probe.h"
#include "support/fake_dch.h"
#include "support/loopback.h"
#include "zevd610.h"

namespace {

std::atomic<int> resolverCalls{0};

}  // namespace

// Counts every name the process resolves, then resolves it as usual.
extern "C" int getaddrinfo(const char *node, const char *service, const struct addrinfo *hints,
                           struct addrinfo **res) {
    using Resolver =
        int (*)(const char *, const char *, const struct addrinfo *, struct addrinfo **);
    static auto real = reinterpret_cast<Resolver>(dlsym(RTLD_NEXT, "getaddrinfo"));
    resolverCalls.fetch_add(1);
    return real(node, service, hints, res);
}

namespace {

using zevd::test::DchMessage;

TEST(ClientResolveTest, DchNameIsResolvedOnceForManyRequests) {
    constexpr int kRequests = 50;
    // A DCH that answers every dp_online with status 0 and handle 1.
    int dch = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ASSERT_GE(dch, 0);
    struct sockaddr_in address = zevd::test::loopbackAddress(0);
    ASSERT_EQ(bind(dch, reinterpret_cast<struct sockaddr *>(&address), sizeof address), 0);
    uint16_t port = zevd::test::boundPort(dch);
    std::thread answering([dch] {
        std::vector<char> answer = DchMessage().int32(DCH_status, 0).int32(DCH_handle, 1).bytes();
        char request[8192];
        for (int i = 0; i < kRequests; ++i) {
            struct sockaddr_in from;
            socklen_t fromLength = sizeof from;
            if (recvfrom(dch, request, sizeof request, 0,
                         reinterpret_cast<struct sockaddr *>(&from), &fromLength) <= 0)
                return;
            sendto(dch, answer.data(), answer.size(), 0, reinterpret_cast<struct sockaddr *>(&from),
                   fromLength);
        }
    });

    // A name, not a dotted address: only a name goes to the resolver.
    setenv("ZEVA_DCH_ADDR", "localhost", 1);
    setenv("ZEVA_DCH_PORT", std::to_string(port).c_str(), 1);
    int before = resolverCalls.load();
    int answered = 0;
    for (int i = 0; i < kRequests; ++i) {
        long status = -1;
        long handle = -1;
        if (dp_online(&status, &handle, "appl", "group", "src") == 0 && status == 0 && handle == 1)
            ++answered;
    }
    answering.join();
    close(dch);
    EXPECT_EQ(answered, kRequests);
    EXPECT_EQ(resolverCalls.load() - before, 1);
}

}  // namespace
