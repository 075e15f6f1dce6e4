// Answers that come after the client stopped waiting for them, through the
// pooled UDP sockets: a late answer, a second copy of an answer, or the tail
// of an answer cut short must never be read by the next request on the same
// socket. Built twice: with a pool of one socket and of four
// (ZEVA_DCH_UDP_SOCKETS_IN_POOL, set by ctest), and a DCH time-out of 1 s.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "support/blocked_thread.h"
#include "support/client_probe.h"
#include "support/fake_dch.h"
#include "support/fake_dch_fixture.h"
#include "support/sock_pair.h"
#include "support/trace_capture.h"
#include "support/wait_for.h"
#include "zevd610.h"

namespace {

using zevd::test::DchMessage;
using zevd::test::DchReply;
using zevd::test::DchRequest;
using zevd::test::TraceCapture;

constexpr auto kLimit = std::chrono::seconds(30);

std::vector<char> statusAndHandle(int32_t status, int32_t handle) {
    return DchMessage().int32(DCH_status, status).int32(DCH_handle, handle).bytes();
}

std::vector<char> statusOnly(int32_t status) {
    return DchMessage().int32(DCH_status, status).bytes();
}

// A datagram to a client's socket, sent the way the DCH would answer: from
// its port.
void sendTo(const struct sockaddr_in &to, const std::vector<char> &bytes) {
    zevd::test::FakeDch::instance().sendFromPort(ntohs(to.sin_port), bytes);
}

// The value of the first string field of type wanted; empty when none.
std::string stringField(const std::vector<char> &bytes, int wanted) {
    zevd::FieldReader reader(bytes.data(), bytes.size());
    for (int type = reader.next(); type != 0; type = reader.next())
        if (type == wanted && reader.length() > 0)
            return std::string(reader.value(), strnlen(reader.value(), reader.length()));
    return std::string();
}

// Sends answers once their time has come, from a thread of its own: a DCH
// that answers some requests after the client stopped waiting.
class LateSender {
public:
    LateSender() : thread_([this] { run(); }) {}
    ~LateSender() {
        {
            std::lock_guard<std::mutex> guard(lock_);
            stop_ = true;
        }
        changed_.notify_all();
        thread_.join();
    }
    LateSender(const LateSender &) = delete;
    LateSender &operator=(const LateSender &) = delete;

    void sendAfter(std::chrono::milliseconds delay, const struct sockaddr_in &to,
                   std::vector<char> bytes) {
        std::lock_guard<std::mutex> guard(lock_);
        pending_.push_back({std::chrono::steady_clock::now() + delay, to, std::move(bytes)});
        changed_.notify_all();
    }
    size_t sent() const {
        std::lock_guard<std::mutex> guard(lock_);
        return sent_;
    }

private:
    struct Pending {
        std::chrono::steady_clock::time_point when;
        struct sockaddr_in to;
        std::vector<char> bytes;
    };
    void run() {
        std::unique_lock<std::mutex> guard(lock_);
        while (!stop_ || !pending_.empty()) {
            if (pending_.empty()) {
                changed_.wait(guard);
                continue;
            }
            auto due = pending_.front().when;
            if (std::chrono::steady_clock::now() < due) {
                changed_.wait_until(guard, due);
                continue;
            }
            Pending next = std::move(pending_.front());
            pending_.erase(pending_.begin());
            guard.unlock();
            sendTo(next.to, next.bytes);
            guard.lock();
            ++sent_;
        }
    }

    mutable std::mutex lock_;
    std::condition_variable changed_;
    std::vector<Pending> pending_;  // in the order given; delays only grow
    size_t sent_ = 0;
    bool stop_ = false;
    std::thread thread_;
};

class ClientLateAnswerTest : public zevd::test::FakeDchClientTest {
protected:
    ClientLateAnswerTest() : FakeDchClientTest("1") {}

    // The sender of the n-th request of this case (from 1).
    struct sockaddr_in senderOf(size_t n) {
        EXPECT_TRUE(dch().waitReceived(n));
        std::vector<DchRequest> requests = dch().received();
        if (requests.size() < n) return {};
        return requests[n - 1].from;
    }
};

TEST_F(ClientLateAnswerTest, LateOnlineAnswerIsNotReadByTheNextOnline) {
    TraceCapture capture("error,ipcSock::releaseIPC=detail");
    dch().noReply();
    dch().reply(statusAndHandle(0, 8));
    long status = -1;
    long handle = -1;
    EXPECT_EQ(dp_online(&status, &handle, "appl", "group", "A"), 1);
    EXPECT_EQ(status, ZEVD_STATUS_NO_RESPONSE);
    // Provider A's answer arrives now, after A stopped waiting.
    sendTo(senderOf(1), statusAndHandle(0, 7));

    EXPECT_EQ(dp_online(&status, &handle, "appl", "group", "B"), 0);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(handle, 8);
    EXPECT_TRUE(capture.contains("renewed: its last read handed over no complete message."))
        << capture.joined();
}

TEST_F(ClientLateAnswerTest, LateOfflineAnswerIsNotReadByTheNextOffline) {
    dch().noReply();
    dch().reply(statusOnly(0));
    dch().reply(statusOnly(0));
    long status = -1;
    EXPECT_EQ(dp_offline(&status, 7), 1);
    EXPECT_EQ(status, ZEVD_STATUS_NO_RESPONSE);
    sendTo(senderOf(1), statusOnly(77));
    // And from then on every request reads its own answer.
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(dp_offline(&status, 8), 0) << i;
        EXPECT_EQ(status, 0) << i;
    }
}

TEST_F(ClientLateAnswerTest, LateRowAnswerIsNotReadByTheNextRow) {
    dch().noReply();
    dch().reply(statusOnly(0));
    for (int i = 0; i < 2; ++i) {
        long status = -1;
        long size = 0;
        char *row = nullptr;
        int32_t value = 5;
        ASSERT_EQ(dp_formatData(&status, &row, &size, "count", &value, 4, 'N'), 0);
        int result = dp_actionData(&status, 3, 0, &row, 1, 0);
        EXPECT_EQ(row, nullptr);
        if (i == 0) {
            EXPECT_EQ(result, 1);
            EXPECT_EQ(status, ZEVD_STATUS_NO_RESPONSE);
            sendTo(senderOf(1), statusOnly(77));
        } else {
            EXPECT_EQ(result, 0);
            EXPECT_EQ(status, 0);
        }
    }
}

// Keeps the process from opening any descriptor while it lives.
class NoNewDescriptors {
public:
    NoNewDescriptors() {
        getrlimit(RLIMIT_NOFILE, &saved_);
        int lowestFree = dup(0);
        close(lowestFree);
        struct rlimit tight = saved_;
        tight.rlim_cur = static_cast<rlim_t>(lowestFree);
        setrlimit(RLIMIT_NOFILE, &tight);
    }
    ~NoNewDescriptors() { setrlimit(RLIMIT_NOFILE, &saved_); }
    NoNewDescriptors(const NoNewDescriptors &) = delete;
    NoNewDescriptors &operator=(const NoNewDescriptors &) = delete;

private:
    struct rlimit saved_ = {};
};

// Provider B's dp_online, on a thread of its own started without anything
// that could need a descriptor (a sanitizer's check of a virtual call
// can).
struct OnlineCall {
    long status = -1;
    long handle = -1;
    std::atomic<bool> done{false};
    static void *run(void *arg) {
        auto *call = static_cast<OnlineCall *>(arg);
        dp_online(&call->status, &call->handle, "appl", "group", "B");
        call->done = true;
        return nullptr;
    }
};

TEST_F(ClientLateAnswerTest, SocketThatCannotBeRenewedIsNotLentUntilItIs) {
    TraceCapture capture("error,ipcSock::releaseIPC=error+detail");
    dch().reply(statusAndHandle(0, 6));
    dch().noReply();
    dch().reply(statusAndHandle(0, 8));
    long status = -1;
    long handle = -1;
    // The pool and the configuration are made before descriptors run out.
    ASSERT_EQ(dp_online(&status, &handle, "appl", "group", "W"), 0);
    // Static: a thread that never ends must not outlive what it writes.
    static OnlineCall b;
    pthread_t thread;
    zevd::test::FakeDch &fake = dch();
    {
        NoNewDescriptors none;
        EXPECT_EQ(dp_online(&status, &handle, "appl", "group", "A"), 1);
        EXPECT_EQ(status, ZEVD_STATUS_NO_RESPONSE);
        // A's socket could not be renewed: its answer may still come there.
        ASSERT_TRUE(capture.waitFor("could not be renewed.", std::chrono::seconds(1)))
            << capture.joined();
        ASSERT_TRUE(fake.waitReceived(2));
        sendTo(fake.received()[1].from, statusAndHandle(0, 7));
        // B gets another socket of the pool, or waits for A's to be renewed
        // (and fails to renew it once more here): never the one that holds
        // A's answer.
        ASSERT_EQ(pthread_create(&thread, nullptr, &OnlineCall::run, &b), 0);
        zevd::test::waitFor(
            [&] { return b.done.load() || capture.count("could not be renewed.") >= 2; }, kLimit);
    }
    ASSERT_TRUE(zevd::test::waitFor([&] { return b.done.load(); }, kLimit));
    pthread_join(thread, nullptr);
    EXPECT_EQ(b.status, 0);
    EXPECT_EQ(b.handle, 8);
}

TEST_F(ClientLateAnswerTest, SecondCopyOfAnAnswerIsDroppedBeforeTheSocketIsLentAgain) {
    TraceCapture capture("error,ipcSock::allocateIPC=detail");
    dch().reply(statusAndHandle(0, 7));
    dch().reply(statusAndHandle(0, 8));
    long status = -1;
    long handle = -1;
    EXPECT_EQ(dp_online(&status, &handle, "appl", "group", "A"), 0);
    EXPECT_EQ(handle, 7);
    // The DCH answers A once more; the copy waits in the pooled socket.
    std::vector<char> copy = statusAndHandle(0, 7);
    sendTo(senderOf(1), copy);
    EXPECT_EQ(dp_online(&status, &handle, "appl", "group", "B"), 0);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(handle, 8);
    EXPECT_TRUE(capture.contains("Note: dropped a datagram of " + std::to_string(copy.size()) +
                                 " bytes left in UDP socket"))
        << capture.joined();
}

TEST_F(ClientLateAnswerTest, AnswerCutShortIsNoResponseAndItsTailIsNotReadLater) {
    TraceCapture capture("error");
    dch().noReply();
    dch().reply(statusOnly(0));
    // A status answer padded to 9,000 bytes: two datagrams, of which only
    // the first arrives in time.
    std::vector<char> whole = DchMessage().int32(DCH_status, 0).bytes();
    std::vector<char> padding(9000 - whole.size(), 'x');
    whole = DchMessage().int32(DCH_status, 0).raw(999, padding).bytes();
    ASSERT_EQ(whole.size(), 9000u + 6u);
    long status = -1;
    long size = 0;
    char *row = nullptr;
    int32_t value = 5;
    ASSERT_EQ(dp_formatData(&status, &row, &size, "count", &value, 4, 'N'), 0);
    // No retry: the read gives up 10 seconds after the first datagram.
    auto call =
        std::async(std::launch::async, [&] { return dp_actionData(&status, 3, 0, &row, 2, 0); });
    sendTo(senderOf(1), std::vector<char>(whole.begin(), whole.begin() + 8192));
    EXPECT_EQ(call.get(), 1);
    EXPECT_EQ(status, ZEVD_STATUS_NO_RESPONSE);
    // The rest of it, late.
    sendTo(senderOf(1), std::vector<char>(whole.begin() + 8192, whole.end()));
    ASSERT_EQ(dp_formatData(&status, &row, &size, "count", &value, 4, 'N'), 0);
    EXPECT_EQ(dp_actionData(&status, 3, 0, &row, 1, 0), 0);
    EXPECT_EQ(status, 0);
}

std::atomic<int> signalsSeen{0};
void countSignal(int) {
    signalsSeen.fetch_add(1);
}

TEST_F(ClientLateAnswerTest, SignalDuringTheReadEndsTheCallWithinItsTimeOut) {
    TraceCapture capture("error,ipcSock::ipcRead=detail");
    zevd::test::ScopedSignalAction action(SIGUSR1, countSignal, 0);  // without SA_RESTART
    ASSERT_TRUE(action.installed());
    dch().noReply();
    long status = -1;
    std::promise<int> done;
    std::future<int> result = done.get_future();
    std::thread caller([&] { done.set_value(dp_offline(&status, 7)); });
    uint16_t port = zevd::test::waitingReadPort(capture);
    ASSERT_NE(port, 0);
    // Signalled once it sits in its wait, not a moment before.
    ASSERT_TRUE(zevd::test::signalInSocketWait(capture, "Waiting on SELECT: UDP[",
                                               caller.native_handle(), SIGUSR1,
                                               std::chrono::seconds(10)));
    auto signalled = std::chrono::steady_clock::now();
    bool ended = result.wait_for(std::chrono::seconds(1 + 2)) == std::future_status::ready;
    if (!ended)
        zevd::test::FakeDch::instance().sendFromPort(port, statusOnly(0));  // frees the caller
    caller.join();
    EXPECT_TRUE(ended) << "still blocked after the signal";
    EXPECT_LE(std::chrono::steady_clock::now() - signalled, std::chrono::seconds(1 + 2));
    EXPECT_EQ(result.get(), 1);
    EXPECT_EQ(status, ZEVD_STATUS_NO_RESPONSE);
    EXPECT_EQ(signalsSeen.load(), 1);
}

TEST_F(ClientLateAnswerTest, SignalDuringAReadWithNoTimeLimitDoesNotEndIt) {
    TraceCapture capture("error,ipcSock::ipcRead=detail");
    // poll is not restarted all the same.
    zevd::test::ScopedSignalAction action(SIGUSR1, countSignal, SA_RESTART);
    ASSERT_TRUE(action.installed());
    int before = signalsSeen.load();
    dch().noReply();
    int length = -1;
    char *text = nullptr;
    std::promise<int> done;
    std::future<int> result = done.get_future();
    // A wait of 0 has no time limit.
    std::thread caller([&] { done.set_value(dc_getApplications(&length, &text, nullptr, 0)); });
    uint16_t port = zevd::test::waitingReadPort(capture);
    ASSERT_NE(port, 0);
    ASSERT_TRUE(zevd::test::signalInSocketWait(capture, "Waiting on SELECT: UDP[",
                                               caller.native_handle(), SIGUSR1,
                                               std::chrono::seconds(10)));
    EXPECT_TRUE(capture.waitFor("count=-1 errno=4\n", std::chrono::seconds(10)))
        << capture.joined();
    bool endedBeforeTheAnswer =
        result.wait_for(std::chrono::milliseconds(200)) == std::future_status::ready;
    std::string list = "appl1\nappl2";
    zevd::test::FakeDch::instance().sendFromPort(
        port, DchMessage().raw(DCH_response, std::vector<char>(list.begin(), list.end())).bytes());
    caller.join();
    EXPECT_FALSE(endedBeforeTheAnswer);
    EXPECT_EQ(signalsSeen.load(), before + 1);
    EXPECT_EQ(result.get(), 0) << capture.joined();
    ASSERT_NE(text, nullptr);
    EXPECT_EQ(std::string(text), list);
    EXPECT_EQ(length, static_cast<int>(list.size()));
    free(text);
}

TEST_F(ClientLateAnswerTest, ManyThreadsWithSomeAnswersLateEachReadOnlyTheirOwn) {
    constexpr int kThreads = 8;
    constexpr int kCalls = 12;
    constexpr int kLateEvery = 8;
    auto late = std::make_shared<LateSender>();
    auto answered = std::make_shared<std::atomic<int>>(0);
    // Every eighth request is answered 2 s late (a second after its call
    // gave up), with a handle no call expects; the others at once, with the
    // handle named in their source.
    dch().setResponder([late, answered](const DchRequest &request) -> DchReply {
        std::string source = stringField(request.bytes, DCH_sourceName);
        int32_t handle = std::atoi(source.c_str());
        if (answered->fetch_add(1) % kLateEvery == kLateEvery - 1) {
            late->sendAfter(std::chrono::milliseconds(2000), request.from,
                            statusAndHandle(0, -handle));
            return std::nullopt;
        }
        return statusAndHandle(0, handle);
    });
    std::atomic<int> wrong{0};
    std::atomic<int> timedOut{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < kCalls; ++i) {
                int32_t expected = 1000 * (t + 1) + i;
                long status = -1;
                long handle = -1;
                int result =
                    dp_online(&status, &handle, "appl", "group", std::to_string(expected).c_str());
                if (result == 1 && status == ZEVD_STATUS_NO_RESPONSE) {
                    timedOut.fetch_add(1);
                } else if (result != 0 || status != 0 || handle != expected) {
                    if (wrong.fetch_add(1) < 5)
                        ADD_FAILURE() << "thread " << t << " call " << i << ": result " << result
                                      << " status " << status << " handle " << handle;
                }
            }
        });
    }
    for (std::thread &thread : threads) thread.join();
    EXPECT_EQ(wrong.load(), 0);
    EXPECT_EQ(timedOut.load(), kThreads * kCalls / kLateEvery);
    // Every late answer goes out, to a socket that no longer listens for it.
    dch().setResponder(nullptr);
    late.reset();
}

}  // namespace
