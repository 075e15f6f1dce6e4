// The receive queue between one producer thread and one consumer thread:
// every message arrives once, in order, byte for byte, and the producer
// blocks while four entries wait.
#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "ipc/zevdipc.h"
#include "support/server_queue.h"

namespace {

using namespace std::chrono_literals;

// All of them in every build: under the thread sanitizer this takes about
// a minute on two cores.
constexpr int kMessages = 100000;
constexpr int kMaxLength = 20000;
// Every so often the consumer lets the producer fill the queue and checks
// that it is then held inside ipc_put_data.
constexpr int kCheckEvery = 1000;
constexpr auto kWaitLimit = 30s;

using QueueTransport = zevd::test::ServerQueue;

// What message n carries besides its bytes, drawn once from a fixed seed.
struct Plan {
    std::vector<int32_t> lengths;
    std::vector<std::string> names;
};

Plan makePlan() {
    std::mt19937 rng(20060816);
    std::uniform_int_distribution<int32_t> length(1, kMaxLength);
    std::uniform_int_distribution<int> nameLength(7, 40);
    std::uniform_int_distribution<int> letter(0, 61);
    static const char kLetters[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
    Plan plan;
    plan.lengths.reserve(kMessages);
    plan.names.reserve(kMessages);
    for (int n = 0; n < kMessages; ++n) {
        plan.lengths.push_back(length(rng));
        std::string name(static_cast<size_t>(nameLength(rng)), ' ');
        for (char &c : name) c = kLetters[letter(rng)];
        plan.names.push_back(std::move(name));
    }
    return plan;
}

// Byte i of message n: its sequence number first (as much as fits), then a
// pattern that depends on both.
unsigned char payloadByte(uint32_t n, int32_t i) {
    if (i < 4) return static_cast<unsigned char>(n >> (8 * i));
    return static_cast<unsigned char>(n * 131u + static_cast<uint32_t>(i) * 7u + 3u);
}

void fillAddress(uint32_t n, unsigned char *addr) {
    memset(addr, 0, 16);
    addr[0] = 2;
    memcpy(addr + 4, &n, sizeof n);
    addr[15] = static_cast<unsigned char>(n % 251);
}

// The producer's progress, read by the consumer at its check points.
struct Progress {
    std::mutex lock;
    std::condition_variable changed;
    int started = 0;   // puts begun
    int returned = 0;  // puts that came back
};

TEST(QueueConcurrencyTest, OneProducerOneConsumerKeepEveryMessageInOrder) {
    const Plan plan = makePlan();
    QueueTransport q;
    Progress progress;
    std::atomic<int> producerErrors{0};

    std::thread producer([&] {
        std::vector<char> data(kMaxLength);
        unsigned char addr[16];
        for (int n = 0; n < kMessages; ++n) {
            auto seq = static_cast<uint32_t>(n);
            int32_t length = plan.lengths[static_cast<size_t>(n)];
            for (int32_t i = 0; i < length; ++i)
                data[static_cast<size_t>(i)] = static_cast<char>(payloadByte(seq, i));
            fillAddress(seq, addr);
            {
                std::lock_guard<std::mutex> guard(progress.lock);
                ++progress.started;
            }
            progress.changed.notify_all();
            q.ipc_put_data(length, data.data(), addr, 16,
                           plan.names[static_cast<size_t>(n)].c_str(), seq);
            if (q.ipcGetError() != 0) producerErrors.fetch_add(1);
            {
                std::lock_guard<std::mutex> guard(progress.lock);
                ++progress.returned;
            }
        }
    });

    char *buffer = nullptr;
    int32_t bufferLen = 0;
    int received = 0;
    int mismatches = 0;
    int blockedSeen = 0;
    int checkFailures = 0;
    for (int n = 0; n < kMessages && mismatches == 0; ++n) {
        if (n % kCheckEvery == 0 && n + IPC_QSIZE <= kMessages) {
            // Wait until the producer has begun the put after the four that
            // fill the queue: it cannot come back before a slot is freed.
            bool begun;
            {
                std::unique_lock<std::mutex> guard(progress.lock);
                begun = progress.changed.wait_for(guard, kWaitLimit,
                                                  [&] { return progress.started >= n + 5; });
            }
            bool blocked = false;
            q.underQueueLock([&](int32_t numFull) {
                std::lock_guard<std::mutex> guard(progress.lock);
                blocked = begun && numFull == IPC_QSIZE - 1 && progress.returned == n + 4 &&
                          progress.started == n + 5;
            });
            if (blocked)
                ++blockedSeen;
            else
                ++checkFailures;
        }

        char name[IPC_CLIENT_NAME_SIZE];
        unsigned char addr[IPC_CLIENT_ADDR_SIZE];
        int32_t addrLen = -1;
        uint32_t fd = 0;
        q.ipc_get_data(&buffer, &bufferLen, addr, &addrLen, name, &fd);
        auto seq = static_cast<uint32_t>(n);
        int32_t length = plan.lengths[static_cast<size_t>(n)];
        bool ok = q.ipcGetError() == 0 && buffer != nullptr && bufferLen > length;
        for (int32_t i = 0; ok && i < length; ++i)
            ok = static_cast<unsigned char>(buffer[i]) == payloadByte(seq, i);
        ok = ok && buffer[length] == '\0';
        ok = ok && plan.names[static_cast<size_t>(n)] == name;
        unsigned char wantAddr[16];
        fillAddress(seq, wantAddr);
        ok = ok && addrLen == 16 && memcmp(addr, wantAddr, 16) == 0 && fd == seq;
        if (ok) {
            ++received;
        } else {
            ADD_FAILURE() << "message " << n << " differs";
            ++mismatches;
        }
    }
    // On a mismatch the producer may still be blocked: drain what it sends
    // so that it can end.
    for (int n = received + mismatches; n < kMessages; ++n) {
        char name[IPC_CLIENT_NAME_SIZE];
        unsigned char addr[IPC_CLIENT_ADDR_SIZE];
        int32_t addrLen = 0;
        uint32_t fd = 0;
        q.ipc_get_data(&buffer, &bufferLen, addr, &addrLen, name, &fd);
    }
    producer.join();
    delete[] buffer;

    EXPECT_EQ(received, kMessages);
    EXPECT_EQ(mismatches, 0);
    EXPECT_EQ(producerErrors.load(), 0);
    EXPECT_EQ(q.numFull(), 0);
    EXPECT_EQ(checkFailures, 0);
    EXPECT_EQ(blockedSeen, (kMessages - IPC_QSIZE) / kCheckEvery + 1);
    EXPECT_GE(blockedSeen, 1);
}

}  // namespace
