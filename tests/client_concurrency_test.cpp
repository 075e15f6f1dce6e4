// Data-provider calls from many threads at once through a pool of four UDP
// sockets (ZEVA_DCH_UDP_SOCKETS_IN_POOL=4, set by ctest). The DCH answers
// every dp_online with a handle read from that request's own source name,
// so a call that read another call's answer, or none, shows as a wrong
// handle; a socket lent to two calls at once would cross their answers.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "support/client_probe.h"
#include "support/fake_dch.h"
#include "support/sock_probe.h"
#include "support/trace_capture.h"
#include "zevd610.h"

namespace {

using zevd::test::DchMessage;
using zevd::test::DchReply;
using zevd::test::DchRequest;
using zevd::test::FakeDch;
using zevd::test::ipcSockProbe;
using zevd::test::TraceCapture;

constexpr int kThreads = 8;
constexpr int kCallsPerThread = 2000;

// The value of the first string field of type wanted, read apart from the
// library; empty when the request has none.
std::string stringField(const std::vector<char> &bytes, int wanted) {
    size_t at = 4;
    while (at + 6 <= bytes.size()) {
        uint16_t type;
        uint32_t length;
        memcpy(&type, bytes.data() + at, 2);
        memcpy(&length, bytes.data() + at + 2, 4);
        type = ntohs(type);
        length = ntohl(length);
        at += 6;
        if (length > bytes.size() - at) break;
        if (type == wanted && length > 0) return std::string(bytes.data() + at, length - 1);
        at += length;
    }
    return std::string();
}

int32_t handleFor(int thread, int call) {
    return thread * 100000 + call;
}

// The first test of the process: inits on eight threads at once: the locks are made once, and every
// call returns with them made (the thread sanitizer's build sees any race).
TEST(ClientConcurrencyTest, ApiInitFromEightThreadsAtOnceMakesTheLocksOnce) {
    TraceCapture capture("zevdchcl=all");
    std::atomic<int> waiting{8};
    std::atomic<int> usable{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i)
        threads.emplace_back([&] {
            waiting.fetch_sub(1);
            for (int spin = 0; spin < 10'000'000 && waiting.load() > 0; ++spin) {
            }
            DCH_api_init();
            if (ZEVA_GetLock(&_dc_waitForDPStatusLock, nullptr) == 0 &&
                ZEVA_ReleaseLock(&_dc_waitForDPStatusLock, nullptr) == 0)
                usable.fetch_add(1);
        });
    for (std::thread &t : threads) t.join();
    EXPECT_EQ(usable.load(), 8);
    EXPECT_EQ(capture.count("Initializing DCHclient locks."), 1u) << capture.joined();
}

TEST(ClientConcurrencyTest, EveryCallGetsItsOwnAnswerThroughAPoolOfFour) {
    ASSERT_STREQ(getenv("ZEVA_DCH_UDP_SOCKETS_IN_POOL"), "4")
        << "run through ctest, which sets ZEVA_DCH_UDP_SOCKETS_IN_POOL=4";
    FakeDch &dch = FakeDch::instance();
    dch.reset();
    // The harness keeps only its latest requests: the responder notes the
    // sender of each. Shared with the DCH's worker, which may outlive this
    // test's frame.
    struct Senders {
        std::mutex lock;
        std::set<uint16_t> ports;
    };
    auto senders = std::make_shared<Senders>();
    dch.setResponder([senders](const DchRequest &request) -> DchReply {
        {
            std::lock_guard<std::mutex> guard(senders->lock);
            senders->ports.insert(ntohs(request.from.sin_port));
        }
        std::string source = stringField(request.bytes, DCH_sourceName);
        if (source.rfind("src-", 0) != 0) return DchMessage().int32(DCH_status, 77).bytes();
        int32_t handle = std::atoi(source.c_str() + 4);
        return DchMessage().int32(DCH_status, 0).int32(DCH_handle, handle).bytes();
    });

    std::atomic<int> wrong{0};
    std::atomic<int> done{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < kCallsPerThread; ++i) {
                std::string source = "src-" + std::to_string(handleFor(t, i));
                long status = -1;
                long handle = -1;
                int result = dp_online(&status, &handle, "appl", "group", source.c_str());
                if (result != 0 || status != 0 || handle != handleFor(t, i)) {
                    if (wrong.fetch_add(1) < 5)
                        ADD_FAILURE() << "thread " << t << " call " << i << ": result " << result
                                      << " status " << status << " handle " << handle;
                }
                done.fetch_add(1);
            }
        });
    }
    for (std::thread &thread : threads) thread.join();
    EXPECT_EQ(wrong.load(), 0);
    EXPECT_EQ(done.load(), kThreads * kCallsPerThread);

    // Every request came from one of the pool's four sockets, and every
    // socket is back in the pool.
    ASSERT_EQ(ipcSockProbe::poolSize(), 4);
    const UDPSockElement *pool = ipcSockProbe::pool();
    ASSERT_NE(pool, nullptr);
    std::set<uint16_t> poolPorts;
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(pool[i].inUse, 0) << "socket " << i;
        poolPorts.insert(zevd::test::boundPort(pool[i].sockUDP));
    }
    ASSERT_TRUE(dch.waitReceived(kThreads * kCallsPerThread));
    EXPECT_EQ(dch.receivedCount(), static_cast<size_t>(kThreads * kCallsPerThread));
    std::lock_guard<std::mutex> guard(senders->lock);
    EXPECT_LE(senders->ports.size(), 4u);
    for (uint16_t port : senders->ports) EXPECT_EQ(poolPorts.count(port), 1u) << "port " << port;
}

}  // namespace
