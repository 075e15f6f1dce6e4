// DCHipc: construction, startup, the server thread and the receive queue.
#include <gtest/gtest.h>
#include <pthread.h>

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "ipc/zevdipc.h"
#include "support/alloc_failure.h"
#include "support/trace_capture.h"
#include "zevd610.h"

using zevd::test::failArrayOfSize;
using zevd::test::failObjectOfSize;

namespace {

using zevd::test::pointerText;
using zevd::test::TraceCapture;
using namespace std::chrono_literals;

constexpr auto kWaitLimit = 30s;

std::string hexText(const void *p, size_t n) {
    std::string out;
    char two[3];
    for (size_t i = 0; i < n; ++i) {
        snprintf(two, sizeof two, "%02x", static_cast<const unsigned char *>(p)[i]);
        out += two;
    }
    return out;
}

// A transport with trivial operations. IPCServer records its thread, may
// queue a first message, and returns a chosen result; IPCClient records
// its arguments and returns a chosen result.
class QueueTransport final : public DCHipc {
public:
    explicit QueueTransport(int16_t service) : DCHipc(service) {}
    QueueTransport() = default;

    int32_t ipcRead(char ** /*buffer*/, int32_t /*wait*/) override { return 0; }
    int32_t ipcWrite(const char * /*buffer*/, int32_t /*length*/, uint32_t /*fd*/) override {
        return 0;
    }
    int32_t setClientAddr(const void * /*addr*/, int32_t /*addrLen*/) override { return 0; }
    int32_t IPCServer() override {
        serverThread = std::this_thread::get_id();
        if (!serverMessage.empty())
            ipc_put_data(static_cast<int32_t>(serverMessage.size()), serverMessage.data(), nullptr,
                         0, "receive-thread", 0);
        serverRuns.fetch_add(1);
        return serverResult;
    }
    int32_t IPCClient(void *addr, int32_t connectTo, int32_t typeOfServer) override {
        clientAddrSeen = addr;
        connectToSeen = connectTo;
        typeOfServerSeen = typeOfServer;
        ++clientRuns;
        return clientResult;
    }
    int32_t allocateIPC() override { return 0; }
    int32_t releaseIPC() override { return 0; }

    ipcCircularBuffer *queue() const { return _ipcCircularBuffer; }
    int16_t ipcType() const { return _ipcType; }

    // num_full and start_idx read under the queue lock.
    int32_t numFull() {
        pthread_mutex_lock(&_ipcCircularBuffer->lock);
        int32_t n = _ipcCircularBuffer->num_full;
        pthread_mutex_unlock(&_ipcCircularBuffer->lock);
        return n;
    }
    int32_t startIdx() {
        pthread_mutex_lock(&_ipcCircularBuffer->lock);
        int32_t n = _ipcCircularBuffer->start_idx;
        pthread_mutex_unlock(&_ipcCircularBuffer->lock);
        return n;
    }

    int32_t serverResult = 0;
    std::string serverMessage;
    std::atomic<int> serverRuns{0};
    std::thread::id serverThread;
    int32_t clientResult = 0;
    int clientRuns = 0;
    void *clientAddrSeen = nullptr;
    int32_t connectToSeen = -1;
    int32_t typeOfServerSeen = -1;
};

// A 16-byte IPv4 socket address as a receive loop would pass it.
constexpr std::array<unsigned char, 16> kAddr = {0x02, 0x00, 0x07, 0x7f, 0x7f, 0x00, 0x00, 0x01,
                                                 0,    0,    0,    0,    0,    0,    0,    0};

void put(DCHipc &q, const std::string &data, const char *name = "client-one", uint32_t fd = 0,
         const void *addr = kAddr.data(), int32_t addrLen = 16) {
    q.ipc_put_data(static_cast<int32_t>(data.size()), data.data(), addr, addrLen, name, fd);
}

struct Received {
    std::string data;  // the message, as long as it was put
    std::string name;
    std::string addr;
    int32_t addrLen = -1;
    uint32_t fd = 0xFFFFFFFF;
    int32_t error = -1;
};

// One ipc_get_data into a caller buffer kept across calls.
class Consumer {
public:
    ~Consumer() { delete[] buffer; }
    Consumer() = default;
    Consumer(const Consumer &) = delete;
    Consumer &operator=(const Consumer &) = delete;

    Received take(DCHipc &q, size_t expectedLength) {
        Received r;
        char name[IPC_CLIENT_NAME_SIZE];
        memset(name, 'z', sizeof name);
        unsigned char addr[IPC_CLIENT_ADDR_SIZE];
        memset(addr, 0xEE, sizeof addr);
        q.ipc_get_data(&buffer, &bufferLen, addr, &r.addrLen, name, &r.fd);
        r.error = q.ipcGetError();
        if (buffer != nullptr && static_cast<size_t>(bufferLen) >= expectedLength)
            r.data.assign(buffer, expectedLength);
        if (r.error == 0) {
            r.name.assign(name, strnlen(name, sizeof name));
            if (r.addrLen >= 0 && r.addrLen <= IPC_CLIENT_ADDR_SIZE)
                r.addr.assign(reinterpret_cast<char *>(addr), static_cast<size_t>(r.addrLen));
        }
        return r;
    }

    char *buffer = nullptr;
    int32_t bufferLen = 0;
};

std::string addrString() {
    return std::string(reinterpret_cast<const char *>(kAddr.data()), kAddr.size());
}

// A queue made directly, without a receive thread.
class QueueTest : public ::testing::Test {
protected:
    void SetUp() override {
        q.ipc_new_cb();
        ASSERT_NE(q.queue(), nullptr);
    }
    // Puts and takes one message per slot until the next put lands in slot.
    void cycleTo(int32_t slot) {
        for (int i = 0; i < IPC_QSIZE && q.startIdx() != slot; ++i) {
            put(q, "cycle");
            ASSERT_EQ(consumer.take(q, 5).error, 0);
        }
        ASSERT_EQ(q.startIdx(), slot);
    }

    QueueTransport q{IPC_SERVICE_SERVER};
    Consumer consumer;
};

// Waits for the server thread's last line, after which it no longer touches
// the transport.
bool waitForServerThreadEnd(const TraceCapture &capture) {
    return capture.waitFor("Returning NULL", kWaitLimit);
}

TEST(DCHipcConstructionTest, TypedConstructorTracesTypeAndQueueSize) {
    TraceCapture capture("zevdipc=all");
    QueueTransport q(IPC_SERVICE_SERVER);
    std::vector<std::string> want = {
        "Entry\n",
        "ZEVA_DCH_IPCTYPE<" + std::to_string(ZEVA_GetIPCtype()) + "> IPC_QSIZE<5>\n",
        "typeOfService<2>\n",
        "Exit\n",
    };
    EXPECT_EQ(capture.texts(), want) << capture.joined();
    EXPECT_NE(capture.joined().find(" DCHipc::DCHipc:"), std::string::npos);
    EXPECT_EQ(q.ipcGetError(), 0);
    EXPECT_EQ(q.ipcTypeOfService(), 2);
    EXPECT_EQ(q.ipcType(), ZEVA_GetIPCtype());
    EXPECT_EQ(q.ipcGetRetryRead(), 1);
}

TEST(DCHipcConstructionTest, TypedConstructorKeepsAnyService) {
    TraceCapture capture("zevdipc=detail");
    QueueTransport q(3);
    EXPECT_TRUE(capture.hasText("typeOfService<3>\n")) << capture.joined();
    EXPECT_EQ(q.ipcTypeOfService(), 3);
    EXPECT_EQ(q.queue(), nullptr);
}

TEST(DCHipcConstructionTest, DefaultConstructorReportsErrorAndSetsErrorOne) {
    TraceCapture capture("zevdipc=error");
    QueueTransport q;
    EXPECT_EQ(capture.texts(),
              std::vector<std::string>{"Error: this constructor should not be used.\n"})
        << capture.joined();
    EXPECT_EQ(q.ipcGetError(), 1);
    EXPECT_EQ(q.ipcGetRetryRead(), 1);
    EXPECT_EQ(q.queue(), nullptr);
}

TEST(DCHipcConstructionTest, AccessorsReadAndWriteTheirMembers) {
    QueueTransport q(IPC_SERVICE_CLIENT);
    q.ipcSetError(7);
    EXPECT_EQ(q.ipcGetError(), 7);
    q.ipcSetRetryRead(4);
    EXPECT_EQ(q.ipcGetRetryRead(), 4);
    EXPECT_EQ(q.ipcTypeOfService(), 1);
}

TEST(DCHipcConstructionTest, BaseTimeoutIsThirtySeconds) {
    TraceCapture capture("zevdipc=entry");
    QueueTransport q(IPC_SERVICE_CLIENT);
    capture.clear();
    EXPECT_EQ(q.DCHipc::DCHtimeout(), 30);
    EXPECT_EQ(q.DCHtimeout(), 30);
    EXPECT_EQ(capture.count("Exit: 0x1e"), 2u) << capture.joined();
}

TEST(DCHipcStartupTest, InvalidServiceIsRejected) {
    for (int16_t service : {int16_t{0}, int16_t{4}, int16_t{-2}}) {
        TraceCapture capture("zevdipc=error+detail+entry");
        QueueTransport q(service);
        capture.clear();
        EXPECT_EQ(q.startup(nullptr, 0), 1);
        EXPECT_EQ(q.ipcGetError(), 1);
        EXPECT_EQ(q.clientRuns, 0);
        EXPECT_EQ(q.queue(), nullptr);
        std::vector<std::string> want = {
            "Entry\n",
            "Error: Invalid type of service for DCHipc: " + std::to_string(service) + "\n",
            "Exit: 0x1\n",
        };
        EXPECT_EQ(capture.texts(), want) << capture.joined();
    }
}

TEST(DCHipcStartupTest, ClientServicesRunIPCClient) {
    for (int16_t service : {IPC_SERVICE_CLIENT, IPC_SERVICE_CLIENT_OBJECT}) {
        TraceCapture capture("zevdipc=all");
        QueueTransport q(service);
        capture.clear();
        int marker = 0;
        EXPECT_EQ(q.startup(&marker, 5), 0);
        EXPECT_EQ(q.clientRuns, 1);
        EXPECT_EQ(q.clientAddrSeen, &marker);
        EXPECT_EQ(q.connectToSeen, 5);
        EXPECT_EQ(q.typeOfServerSeen, service);
        EXPECT_EQ(q.queue(), nullptr);
        EXPECT_EQ(q.ipcGetError(), 0);
        std::vector<std::string> want = {"Entry\n", "DCHipc CLIENT Service initializing.\n",
                                         "Exit: 0x0\n"};
        EXPECT_EQ(capture.texts(), want) << capture.joined();
    }
}

TEST(DCHipcStartupTest, FailedIPCClientIsReportedAndReturned) {
    TraceCapture capture("zevdipc=error");
    QueueTransport q(IPC_SERVICE_CLIENT_OBJECT);
    q.clientResult = 5;
    EXPECT_EQ(q.startup(nullptr, 0), 5);
    EXPECT_EQ(q.ipcGetError(), 5);
    EXPECT_EQ(capture.texts(), std::vector<std::string>{"Error: IPCClient failed.\n"})
        << capture.joined();
}

TEST(DCHipcStartupTest, ServerCreatesQueueAndRunsIPCServerOnItsThread) {
    TraceCapture capture("zevdipc=all");
    QueueTransport q(IPC_SERVICE_SERVER);
    q.serverMessage = "IPC-SERVER_READY";
    EXPECT_EQ(q.startup(nullptr, 0), 0);
    ASSERT_NE(q.queue(), nullptr);
    // The message that IPCServer queued arrives through the queue.
    Consumer consumer;
    Received r = consumer.take(q, q.serverMessage.size());
    EXPECT_EQ(r.error, 0);
    EXPECT_EQ(r.data, "IPC-SERVER_READY");
    EXPECT_EQ(r.name, "receive-thread");
    EXPECT_EQ(r.addrLen, 0);
    ASSERT_TRUE(waitForServerThreadEnd(capture)) << capture.joined();
    EXPECT_EQ(q.serverRuns.load(), 1);
    EXPECT_NE(q.serverThread, std::this_thread::get_id());
    EXPECT_EQ(q.ipcGetError(), 0);
    EXPECT_TRUE(capture.hasText("DCHipc SERVER Service initializing.\n"));
    EXPECT_TRUE(capture.hasText("Allocated ipcCircularBuffer @" + pointerText(q.queue()) + "\n"));
    EXPECT_TRUE(capture.hasText("IPCServerThread thread created\n"));
    EXPECT_FALSE(capture.contains("Error: ")) << capture.joined();
    EXPECT_EQ(q.clientRuns, 0);
}

TEST(DCHipcStartupTest, ServerThreadEndsWithNullAndItsEvents) {
    TraceCapture capture("zevdipc=entry");
    QueueTransport q(IPC_SERVICE_SERVER);
    q.startup(nullptr, 0);
    ASSERT_TRUE(waitForServerThreadEnd(capture)) << capture.joined();
    ASSERT_TRUE(capture.waitFor("Exit: 0x0", kWaitLimit, 2)) << capture.joined();
    std::vector<std::string> thread;
    for (const auto &line : capture.lines())
        if (line.find(" DCHipc::IPCServerThread:") != std::string::npos)
            thread.push_back(zevd::test::traceText(line));
    std::vector<std::string> want = {"Entry\n", "Returning NULL\n", "Exit: 0x0\n"};
    EXPECT_EQ(thread, want) << capture.joined();
}

TEST(DCHipcStartupTest, FailedIPCServerSetsErrorOne) {
    TraceCapture capture("zevdipc=error+entry");
    QueueTransport q(IPC_SERVICE_SERVER);
    q.serverResult = 2;
    q.startup(nullptr, 0);
    ASSERT_TRUE(waitForServerThreadEnd(capture)) << capture.joined();
    EXPECT_TRUE(
        capture.hasText("Error: IPCServer initialization failure, cannot continue processing.\n"))
        << capture.joined();
    EXPECT_EQ(q.ipcGetError(), 1);
    EXPECT_EQ(q.serverRuns.load(), 1);
}

TEST(DCHipcStartupTest, ServerWithoutQueueStillStartsAndReportsIt) {
    TraceCapture capture("zevdipc=error+storage+entry");
    failObjectOfSize = sizeof(ipcCircularBuffer);
    QueueTransport q(IPC_SERVICE_SERVER);
    EXPECT_EQ(q.startup(nullptr, 0), 1);
    EXPECT_EQ(failObjectOfSize.load(), 0u);
    ASSERT_TRUE(waitForServerThreadEnd(capture)) << capture.joined();
    EXPECT_EQ(q.queue(), nullptr);
    EXPECT_EQ(q.serverRuns.load(), 1);
    EXPECT_EQ(q.ipcGetError(), 1);
    EXPECT_TRUE(capture.hasText("Error: failed to allocate a circular buffer.\n"));
    EXPECT_TRUE(capture.hasText("IPCServerThread thread created\n")) << capture.joined();
}

TEST(DCHipcLifetimeTest, ServerDestructorFreesQueue) {
    auto *q = new QueueTransport(IPC_SERVICE_SERVER);
    q->ipc_new_cb();
    put(*q, std::string(5000, 'a'));
    put(*q, "second");
    ipcCircularBuffer *cb = q->queue();
    TraceCapture capture("zevdipc=storage+entry");
    delete q;
    EXPECT_TRUE(capture.hasText("Deleting ipcCircularBuffer @" + pointerText(cb) + "\n"))
        << capture.joined();
    EXPECT_EQ(capture.count("Deleting "), 1u);
    EXPECT_NE(capture.joined().find(" DCHipc::~DCHipc:"), std::string::npos);
    EXPECT_NE(capture.joined().find(" DCHipc::ipc_delete_cb:"), std::string::npos);
}

TEST(DCHipcLifetimeTest, DeleteCbClearsTheQueueAndMayBeRepeated) {
    QueueTransport q(IPC_SERVICE_SERVER);
    q.ipc_new_cb();
    put(q, "message");
    TraceCapture capture("zevdipc=storage");
    q.ipc_delete_cb();
    EXPECT_EQ(q.queue(), nullptr);
    q.ipc_delete_cb();
    EXPECT_EQ(capture.count("Deleting ipcCircularBuffer"), 1u) << capture.joined();
}

TEST(DCHipcLifetimeTest, ClientDestructorLeavesQueueAlone) {
    TraceCapture capture("zevdipc=storage+entry");
    ipcCircularBuffer *cb = nullptr;
    {
        QueueTransport q(IPC_SERVICE_CLIENT);
        q.ipc_new_cb();
        cb = q.queue();
        capture.clear();
    }
    ASSERT_NE(cb, nullptr);
    EXPECT_EQ(capture.count("Deleting "), 0u) << capture.joined();
    EXPECT_NE(capture.joined().find(" DCHipc::~DCHipc:"), std::string::npos);
    // Only a server frees its queue: this one is freed by hand.
    pthread_mutex_destroy(&cb->lock);
    pthread_cond_destroy(&cb->slotFreed);
    pthread_cond_destroy(&cb->slotFilled);
    delete cb;
}

TEST(DCHipcLifetimeTest, NewCbStartsEmpty) {
    TraceCapture capture("zevdipc=storage");
    QueueTransport q(IPC_SERVICE_SERVER);
    q.ipc_new_cb();
    ipcCircularBuffer *cb = q.queue();
    ASSERT_NE(cb, nullptr);
    EXPECT_EQ(q.numFull(), 0);
    EXPECT_EQ(q.startIdx(), 0);
    for (char *data : cb->data) EXPECT_EQ(data, nullptr);
    EXPECT_EQ(capture.texts(),
              std::vector<std::string>{"Allocated ipcCircularBuffer @" + pointerText(cb) + "\n"});
    EXPECT_EQ(q.ipcGetError(), 0);
}

TEST(DCHipcLifetimeTest, NewCbFailureSetsErrorOne) {
    TraceCapture capture("zevdipc=error");
    QueueTransport q(IPC_SERVICE_SERVER);
    failObjectOfSize = sizeof(ipcCircularBuffer);
    q.ipc_new_cb();
    EXPECT_EQ(q.queue(), nullptr);
    EXPECT_EQ(q.ipcGetError(), 1);
    EXPECT_EQ(capture.texts(),
              std::vector<std::string>{"Error: failed to allocate a circular buffer.\n"});
}

TEST(DCHipcQueueTest, PutWithoutQueueReportsAndLeavesErrorZero) {
    TraceCapture capture("zevdipc=error");
    QueueTransport q(IPC_SERVICE_SERVER);
    q.ipcSetError(1);
    put(q, "message");
    EXPECT_EQ(q.ipcGetError(), 0);
    EXPECT_EQ(capture.texts(),
              std::vector<std::string>{"Error: ipcCircularBuffer has not been allocated\n"});
}

TEST(DCHipcQueueTest, GetWithoutQueueReportsErrorOne) {
    TraceCapture capture("zevdipc=error");
    QueueTransport q(IPC_SERVICE_SERVER);
    Consumer consumer;
    EXPECT_EQ(consumer.take(q, 0).error, 1);
    EXPECT_EQ(consumer.buffer, nullptr);
    EXPECT_EQ(capture.texts(),
              std::vector<std::string>{"Error: ipcCircularBuffer has not been allocated\n"});
}

TEST_F(QueueTest, PutRefusesNegativeLength) {
    const char *data = "abc";
    TraceCapture capture("zevdipc=error");
    q.ipc_put_data(-1, data, kAddr.data(), 16, "client-one", 0);
    EXPECT_EQ(q.ipcGetError(), 1);
    EXPECT_EQ(q.numFull(), 0);
    EXPECT_EQ(capture.texts(), std::vector<std::string>{"Error: refusing to queue -1 bytes from @" +
                                                        pointerText(data) + "\n"})
        << capture.joined();
}

TEST_F(QueueTest, PutRefusesNullDataWithALength) {
    TraceCapture capture("zevdipc=error");
    q.ipc_put_data(3, nullptr, kAddr.data(), 16, "client-one", 0);
    EXPECT_EQ(q.ipcGetError(), 1);
    EXPECT_EQ(q.numFull(), 0);
    EXPECT_EQ(capture.texts(), std::vector<std::string>{"Error: refusing to queue 3 bytes from @" +
                                                        pointerText(nullptr) + "\n"});
}

TEST_F(QueueTest, PutOfNothingQueuesAnEmptyMessage) {
    q.ipc_put_data(0, nullptr, kAddr.data(), 16, "client-one", 0);
    EXPECT_EQ(q.ipcGetError(), 0);
    ASSERT_EQ(q.numFull(), 1);
    EXPECT_EQ(q.queue()->dataSize[0], 4096);
    Received r = consumer.take(q, 0);
    EXPECT_EQ(r.error, 0);
    EXPECT_EQ(consumer.bufferLen, 4096);
    EXPECT_EQ(consumer.buffer[0], '\0');
}

TEST_F(QueueTest, ExactPutAndGetTraceAtDetailAndStorage) {
    const std::string message = "hello queue";
    TraceCapture capture("zevdipc=detail+storage");
    put(q, message, "client-one", 9);
    char *slotBuffer = q.queue()->data[0];
    std::string addrHex = hexText(kAddr.data(), kAddr.size());
    std::vector<std::string> wantPut = {
        "start_idx=0 and num_full=0\n",
        "Saving @" + pointerText(message.data()) + " into data<0>\n",
        "Allocated ipcCircularBuffer @" + pointerText(slotBuffer) + " for length 4096\n",
        "Copied 11 bytes into new buffer @" + pointerText(slotBuffer) + "\n",
        "Saving clientAddr : clientAddr <16<" + addrHex + ">>\n",
    };
    EXPECT_EQ(capture.texts(), wantPut) << capture.joined();
    EXPECT_EQ(q.ipcGetError(), 0);

    capture.clear();
    char name[IPC_CLIENT_NAME_SIZE];
    unsigned char addr[IPC_CLIENT_ADDR_SIZE];
    int32_t addrLen = 0;
    uint32_t fd = 0;
    q.ipc_get_data(&consumer.buffer, &consumer.bufferLen, addr, &addrLen, name, &fd);
    std::vector<std::string> wantGet = {
        "Entry: start_idx=0 and num_full=1\n",
        "Allocated *buffer @" + pointerText(consumer.buffer) + " for length 4096\n",
        "Copying 11 bytes from @" + pointerText(slotBuffer) + " to @" +
            pointerText(consumer.buffer) + "\n",
        "Copying ptr @" + pointerText(q.queue()->slot[0].clientName) + " to clientName @" +
            pointerText(name) + " for length 10 sizeof(clientName) 4\n",
        ">> clientName set to <client-one>\n",
        "clientAddr set to : clientAddr <16<" + addrHex + ">>\n",
        "connectedSockFD set to <9>\n",
        "Exit: start_idx=1 and num_full=0\n",
    };
    EXPECT_EQ(capture.texts(), wantGet) << capture.joined();
    EXPECT_EQ(q.ipcGetError(), 0);
    EXPECT_EQ(std::string(consumer.buffer, message.size()), message);
    EXPECT_STREQ(name, "client-one");
    EXPECT_EQ(addrLen, 16);
    EXPECT_EQ(memcmp(addr, kAddr.data(), 16), 0);
    EXPECT_EQ(fd, 9u);
}

TEST_F(QueueTest, PutAndGetWriteEntryAndExitEvents) {
    TraceCapture capture("zevdipc=entry");
    put(q, "message");
    consumer.take(q, 7);
    std::vector<std::string> want = {"Entry\n", "Exit\n", "Entry\n", "Exit\n"};
    EXPECT_EQ(capture.texts(), want) << capture.joined();
    EXPECT_NE(capture.joined().find(" DCHipc::ipc_put_data:"), std::string::npos);
    EXPECT_NE(capture.joined().find(" DCHipc::ipc_get_data:"), std::string::npos);
}

TEST_F(QueueTest, MessageOf4095BytesGetsA4096ByteSlot) {
    TraceCapture capture("zevdipc=storage");
    put(q, std::string(4095, 'x'));
    EXPECT_EQ(q.queue()->dataSize[0], 4096);
    EXPECT_EQ(q.queue()->dataLen[0], 4095);
    EXPECT_EQ(q.queue()->data[0][4095], '\0');
    EXPECT_TRUE(capture.hasText("Allocated ipcCircularBuffer @" + pointerText(q.queue()->data[0]) +
                                " for length 4096\n"))
        << capture.joined();
}

TEST_F(QueueTest, MessageOf4096BytesGetsA4097ByteSlot) {
    TraceCapture capture("zevdipc=storage");
    put(q, std::string(4096, 'x'));
    EXPECT_EQ(q.queue()->dataSize[0], 4097);
    EXPECT_EQ(q.queue()->data[0][4096], '\0');
    EXPECT_TRUE(capture.hasText("Allocated ipcCircularBuffer @" + pointerText(q.queue()->data[0]) +
                                " for length 4097\n"))
        << capture.joined();
    Received r = consumer.take(q, 4096);
    EXPECT_EQ(r.data, std::string(4096, 'x'));
    EXPECT_EQ(consumer.bufferLen, 4097);
}

TEST_F(QueueTest, Existing4096SlotReceiving4096IsReallocatedTo8192) {
    put(q, "first");
    ASSERT_EQ(consumer.take(q, 5).error, 0);
    cycleTo(0);
    char *old = q.queue()->data[0];
    ASSERT_EQ(q.queue()->dataSize[0], 4096);
    const std::string message(4096, 'm');
    TraceCapture capture("zevdipc=detail+storage");
    put(q, message);
    char *fresh = q.queue()->data[0];
    EXPECT_EQ(q.queue()->dataSize[0], 8192);
    std::vector<std::string> want = {
        "start_idx=0 and num_full=0\n",
        "Saving @" + pointerText(message.data()) + " into data<0>\n",
        "Note: reallocating buffer to 8192 bytes.\n",
        "Deleting ipcCircularBuffer @" + pointerText(old) + "\n",
        "Allocated ipcCircularBuffer @" + pointerText(fresh) + " for length 8192\n",
        "Copying 4096 bytes into existing buffer @" + pointerText(fresh) + " of size 8192\n",
        "Saving clientAddr : clientAddr <16<" + hexText(kAddr.data(), 16) + ">>\n",
    };
    EXPECT_EQ(capture.texts(), want) << capture.joined();
    EXPECT_EQ(consumer.take(q, 4096).data, message);
    EXPECT_EQ(consumer.bufferLen, 8192);
}

TEST_F(QueueTest, Existing4096SlotReceiving4095IsKept) {
    put(q, "first");
    ASSERT_EQ(consumer.take(q, 5).error, 0);
    cycleTo(0);
    char *old = q.queue()->data[0];
    TraceCapture capture("zevdipc=detail+storage");
    put(q, std::string(4095, 'k'));
    EXPECT_EQ(q.queue()->data[0], old);
    EXPECT_EQ(q.queue()->dataSize[0], 4096);
    EXPECT_FALSE(capture.contains("Note: reallocating")) << capture.joined();
    EXPECT_TRUE(capture.hasText("Copying 4095 bytes into existing buffer @" + pointerText(old) +
                                " of size 4096\n"))
        << capture.joined();
    EXPECT_EQ(consumer.take(q, 4095).data, std::string(4095, 'k'));
}

TEST_F(QueueTest, ExistingSlotGrowsToFirstStepAboveLength) {
    put(q, std::string(4096, 'a'));  // slot 0 holds 4097 bytes
    ASSERT_EQ(consumer.take(q, 4096).error, 0);
    cycleTo(0);
    TraceCapture capture("zevdipc=detail");
    put(q, std::string(4097, 'b'));  // equal to the size: grows by one step
    EXPECT_EQ(q.queue()->dataSize[0], 8193);
    EXPECT_TRUE(capture.hasText("Note: reallocating buffer to 8193 bytes.\n"));
    ASSERT_EQ(consumer.take(q, 4097).data, std::string(4097, 'b'));
    cycleTo(0);
    put(q, std::string(20000, 'c'));  // 8193 + 3 * 4096 = 20481
    EXPECT_EQ(q.queue()->dataSize[0], 20481);
    EXPECT_TRUE(capture.hasText("Note: reallocating buffer to 20481 bytes.\n")) << capture.joined();
    EXPECT_EQ(consumer.take(q, 20000).data, std::string(20000, 'c'));
}

TEST_F(QueueTest, ExistingSlotGrowsOnlyPastTheLength) {
    put(q, "first");  // slot 0 holds 4096 bytes
    ASSERT_EQ(consumer.take(q, 5).error, 0);
    cycleTo(0);
    put(q, std::string(8191, 'p'));  // 8192 is already greater
    EXPECT_EQ(q.queue()->dataSize[0], 8192);
    ASSERT_EQ(consumer.take(q, 8191).data, std::string(8191, 'p'));
    cycleTo(0);
    put(q, std::string(8192, 'q'));  // equal: one more step
    EXPECT_EQ(q.queue()->dataSize[0], 12288);
    EXPECT_EQ(consumer.take(q, 8192).data, std::string(8192, 'q'));
}

TEST_F(QueueTest, ExistingSlotIsZeroedBehindAShorterMessage) {
    put(q, std::string(3000, 'l'));
    ASSERT_EQ(consumer.take(q, 3000).error, 0);
    cycleTo(0);
    put(q, "short");
    const char *slot = q.queue()->data[0];
    EXPECT_EQ(std::string(slot, 5), "short");
    for (int i = 5; i < 4096; ++i) ASSERT_EQ(slot[i], '\0') << i;
}

TEST_F(QueueTest, FailedFirstAllocationReports4096AndKeepsQueue) {
    TraceCapture capture("zevdipc=error+storage");
    failArrayOfSize = 10001;
    put(q, std::string(10000, 'f'));
    EXPECT_EQ(failArrayOfSize.load(), 0u);
    // Kept: the line names 4096, and the error word is the release result.
    EXPECT_EQ(capture.texts(), std::vector<std::string>{"Error: allocating 4096 bytes.\n"})
        << capture.joined();
    EXPECT_EQ(q.ipcGetError(), 0);
    EXPECT_EQ(q.numFull(), 0);
    EXPECT_EQ(q.queue()->data[0], nullptr);
    put(q, std::string(10000, 'g'));
    ASSERT_EQ(q.numFull(), 1);
    EXPECT_EQ(q.queue()->dataSize[0], 10001);
    EXPECT_EQ(consumer.take(q, 10000).data, std::string(10000, 'g'));
}

TEST_F(QueueTest, FailedReallocationKeepsQueueAndLaterPutsWork) {
    put(q, "first");
    ASSERT_EQ(consumer.take(q, 5).error, 0);
    cycleTo(0);
    char *old = q.queue()->data[0];
    TraceCapture capture("zevdipc=error+storage");
    failArrayOfSize = 8192;
    put(q, std::string(4096, 'r'));
    EXPECT_EQ(failArrayOfSize.load(), 0u);
    // Kept: the allocation line follows even when the allocation failed.
    std::vector<std::string> want = {
        "Deleting ipcCircularBuffer @" + pointerText(old) + "\n",
        "Error: allocating 8192 bytes.\n",
        "Allocated ipcCircularBuffer @" + pointerText(nullptr) + " for length 8192\n",
    };
    EXPECT_EQ(capture.texts(), want) << capture.joined();
    EXPECT_EQ(q.ipcGetError(), 0);  // the release result
    EXPECT_EQ(q.numFull(), 0);
    EXPECT_EQ(q.queue()->data[0], nullptr);
    put(q, "again");
    ASSERT_EQ(q.numFull(), 1);
    EXPECT_EQ(q.queue()->dataSize[0], 4096);
    EXPECT_EQ(consumer.take(q, 5).data, "again");
}

TEST_F(QueueTest, AbsentClientNameArrivesAs255Blanks) {
    put(q, "anonymous", nullptr);
    Received r = consumer.take(q, 9);
    EXPECT_EQ(r.error, 0);
    EXPECT_EQ(r.name, std::string(255, ' '));
    EXPECT_EQ(r.data, "anonymous");
}

TEST_F(QueueTest, ShortClientNameIsNeverTaken) {
    put(q, "stuck", "abcdef", 3);
    put(q, "behind", "client-two");
    const char *slotName = q.queue()->slot[0].clientName;
    TraceCapture capture("zevdipc=error");
    for (int attempt = 0; attempt < 3; ++attempt) {
        // Checked first, so that a taken entry cannot leave a get waiting.
        ASSERT_EQ(q.numFull(), 2);
        Received r = consumer.take(q, 5);
        EXPECT_EQ(r.error, 1);
        // The data was copied before the name was checked.
        EXPECT_EQ(r.data, "stuck");
        EXPECT_EQ(q.numFull(), 2);
        EXPECT_EQ(q.startIdx(), 0);
    }
    std::string line = "Error: ipcClientName ptr problem: @" + pointerText(slotName) +
                       " 6 <abcdef> sizeof(clientName) 4\n";
    EXPECT_EQ(capture.count(line.substr(0, line.size() - 1)), 3u) << capture.joined();
    EXPECT_TRUE(capture.hasText(line));
}

TEST_F(QueueTest, EmptyClientNameIsNeverTaken) {
    put(q, "stuck", "");
    TraceCapture capture("zevdipc=error");
    EXPECT_EQ(consumer.take(q, 5).error, 1);
    EXPECT_EQ(q.numFull(), 1);
    EXPECT_TRUE(capture.contains(" 0 <> sizeof(clientName) 4")) << capture.joined();
}

TEST_F(QueueTest, ClientNameOfSevenCharactersIsTaken) {
    put(q, "taken", "abcdefg", 4);
    Received r = consumer.take(q, 5);
    EXPECT_EQ(r.error, 0);
    EXPECT_EQ(r.name, "abcdefg");
    EXPECT_EQ(r.fd, 4u);
    EXPECT_EQ(q.numFull(), 0);
}

TEST_F(QueueTest, LongClientNameIsCutAt255Characters) {
    std::string longName(300, 'n');
    put(q, "message", longName.c_str());
    EXPECT_EQ(consumer.take(q, 7).name, std::string(255, 'n'));
}

TEST_F(QueueTest, ClientAddressLengthIsBounded) {
    std::vector<unsigned char> big(400);
    for (size_t i = 0; i < big.size(); ++i) big[i] = static_cast<unsigned char>(i);
    put(q, "wide", "client-one", 0, big.data(), 400);
    Received r = consumer.take(q, 4);
    EXPECT_EQ(r.addrLen, 256);
    EXPECT_EQ(r.addr, std::string(reinterpret_cast<char *>(big.data()), 256));

    put(q, "negative", "client-one", 0, big.data(), -5);
    r = consumer.take(q, 8);
    EXPECT_EQ(r.error, 0);
    EXPECT_EQ(r.addrLen, 0);

    put(q, "none", "client-one", 0, nullptr, 16);
    r = consumer.take(q, 4);
    EXPECT_EQ(r.addrLen, 16);
    EXPECT_EQ(r.addr, std::string(16, '\0'));
}

TEST_F(QueueTest, GetWithNullBufferGetsTheSlotCapacity) {
    put(q, "ten bytes!");
    TraceCapture capture("zevdipc=storage");
    ASSERT_EQ(consumer.buffer, nullptr);
    Received r = consumer.take(q, 10);
    EXPECT_EQ(r.error, 0);
    ASSERT_NE(consumer.buffer, nullptr);
    EXPECT_EQ(consumer.bufferLen, 4096);  // capacity, not the message length
    EXPECT_EQ(r.data, "ten bytes!");
    for (int i = 10; i < 4096; ++i) ASSERT_EQ(consumer.buffer[i], '\0') << i;
    EXPECT_EQ(capture.texts(),
              std::vector<std::string>{"Allocated *buffer @" + pointerText(consumer.buffer) +
                                       " for length 4096\n"});
}

TEST_F(QueueTest, SmallerCallerBufferIsReplaced) {
    consumer.buffer = new char[100];
    consumer.bufferLen = 100;
    char *old = consumer.buffer;
    put(q, std::string(5000, 'w'));
    TraceCapture capture("zevdipc=storage");
    Received r = consumer.take(q, 5000);
    EXPECT_EQ(r.error, 0);
    EXPECT_EQ(consumer.bufferLen, 5001);
    EXPECT_EQ(r.data, std::string(5000, 'w'));
    std::vector<std::string> want = {
        "Note: deleting and reallocating buffer @" + pointerText(old) + " to 5001 bytes.\n",
        "Allocated *buffer @" + pointerText(consumer.buffer) + "\n",
    };
    EXPECT_EQ(capture.texts(), want) << capture.joined();
}

TEST_F(QueueTest, LargerCallerBufferIsKeptAndCleared) {
    consumer.buffer = new char[8000];
    consumer.bufferLen = 8000;
    memset(consumer.buffer, 'x', 8000);
    char *old = consumer.buffer;
    put(q, "fits");
    TraceCapture capture("zevdipc=storage");
    Received r = consumer.take(q, 4);
    EXPECT_EQ(consumer.buffer, old);
    EXPECT_EQ(consumer.bufferLen, 8000);
    EXPECT_EQ(r.data, "fits");
    for (int i = 4; i < 8000; ++i) ASSERT_EQ(consumer.buffer[i], '\0') << i;
    EXPECT_TRUE(capture.texts().empty()) << capture.joined();
}

TEST_F(QueueTest, FailedCallerBufferAllocationLeavesMessageQueued) {
    put(q, "kept");
    TraceCapture capture("zevdipc=error");
    failArrayOfSize = 4096;
    Received r = consumer.take(q, 4);
    EXPECT_EQ(r.error, 1);
    EXPECT_EQ(consumer.buffer, nullptr);
    EXPECT_EQ(capture.texts(), std::vector<std::string>{"Error: allocating 4096 bytes.\n"});
    EXPECT_EQ(q.numFull(), 1);
    EXPECT_EQ(q.startIdx(), 0);
    r = consumer.take(q, 4);
    EXPECT_EQ(r.error, 0);
    EXPECT_EQ(r.data, "kept");
}

TEST_F(QueueTest, FailedCallerBufferReallocationLeavesMessageQueued) {
    consumer.buffer = new char[10];
    consumer.bufferLen = 10;
    put(q, std::string(5000, 'e'));
    TraceCapture capture("zevdipc=error");
    failArrayOfSize = 5001;
    Received r = consumer.take(q, 5000);
    EXPECT_EQ(r.error, 1);
    EXPECT_EQ(consumer.buffer, nullptr);
    EXPECT_EQ(consumer.bufferLen, 5001);
    EXPECT_EQ(capture.texts(), std::vector<std::string>{"Error: reallocating 5001 bytes.\n"});
    EXPECT_EQ(q.numFull(), 1);
    r = consumer.take(q, 5000);
    EXPECT_EQ(r.error, 0);
    EXPECT_EQ(r.data, std::string(5000, 'e'));
}

TEST_F(QueueTest, GetWithoutBufferPointerIsRefused) {
    put(q, "kept");
    TraceCapture capture("zevdipc=error");
    int32_t len = 0;
    q.ipc_get_data(nullptr, &len, nullptr, nullptr, nullptr, nullptr);
    EXPECT_EQ(q.ipcGetError(), 1);
    char *buffer = nullptr;
    q.ipc_get_data(&buffer, nullptr, nullptr, nullptr, nullptr, nullptr);
    EXPECT_EQ(q.ipcGetError(), 1);
    EXPECT_EQ(buffer, nullptr);
    EXPECT_EQ(capture.count("Error: no buffer to receive into: "), 2u) << capture.joined();
    EXPECT_EQ(q.numFull(), 1);
}

TEST_F(QueueTest, OptionalOutputsMayBeNull) {
    put(q, "message", "client-one", 6);
    q.ipc_get_data(&consumer.buffer, &consumer.bufferLen, nullptr, nullptr, nullptr, nullptr);
    EXPECT_EQ(q.ipcGetError(), 0);
    EXPECT_EQ(std::string(consumer.buffer, 7), "message");
    EXPECT_EQ(q.numFull(), 0);
}

TEST_F(QueueTest, FilledSlotWithoutBufferIsReported) {
    // A state no put makes: one entry counted, no buffer behind it.
    q.queue()->num_full = 1;
    TraceCapture capture("zevdipc=error");
    EXPECT_EQ(consumer.take(q, 0).error, 1);
    EXPECT_EQ(capture.texts(),
              std::vector<std::string>{"Error: _ipcCircularBuffer->data<0> was NULL\n"});
    EXPECT_EQ(q.numFull(), 1);
    q.queue()->num_full = 0;
}

TEST_F(QueueTest, MessagesArriveInOrderAcrossTheWrap) {
    int taken = 0;
    for (int i = 0; i < 23; ++i) {
        put(q, "message-" + std::to_string(i), ("client-" + std::to_string(i)).c_str(),
            static_cast<uint32_t>(i));
        // Lets between 0 and 3 entries wait, so the next put never blocks.
        while (q.numFull() > i % 4 && taken <= i) {
            std::string want = "message-" + std::to_string(taken);
            Received r = consumer.take(q, want.size());
            ASSERT_EQ(r.data, want);
            ASSERT_EQ(r.name, "client-" + std::to_string(taken));
            ASSERT_EQ(r.fd, static_cast<uint32_t>(taken));
            ASSERT_EQ(r.addr, addrString());
            ++taken;
        }
    }
    while (q.numFull() > 0 && taken < 23) {
        std::string want = "message-" + std::to_string(taken);
        ASSERT_EQ(consumer.take(q, want.size()).data, want);
        ++taken;
    }
    EXPECT_EQ(taken, 23);
    EXPECT_EQ(q.startIdx(), 23 % IPC_QSIZE);
}

TEST_F(QueueTest, FifthPutBlocksWhileFourWaitUntilAGet) {
    for (int i = 0; i < 4; ++i) put(q, "message-" + std::to_string(i));
    ASSERT_EQ(q.numFull(), 4);
    TraceCapture capture("zevdipc=detail");
    std::mutex lock;
    std::condition_variable changed;
    std::atomic<bool> returned{false};
    std::thread producer([&] {
        put(q, "message-4");
        {
            std::lock_guard<std::mutex> guard(lock);
            returned = true;
        }
        changed.notify_all();
    });
    bool waiting = capture.waitFor("Waiting for circular buffers to be freed.", kWaitLimit);
    EXPECT_TRUE(waiting) << capture.joined();
    EXPECT_FALSE(returned.load());
    EXPECT_EQ(q.numFull(), 4);

    Received first = consumer.take(q, 9);
    EXPECT_EQ(first.data, "message-0");
    bool done;
    {
        std::unique_lock<std::mutex> guard(lock);
        done = changed.wait_for(guard, kWaitLimit, [&] { return returned.load(); });
    }
    EXPECT_TRUE(done);
    // Should the put still be blocked, free the queue so the thread ends.
    for (int i = 0; i < 4 && !done; ++i) {
        consumer.take(q, 0);
        std::unique_lock<std::mutex> guard(lock);
        done = changed.wait_for(guard, kWaitLimit, [&] { return returned.load(); });
    }
    producer.join();
    EXPECT_EQ(q.numFull(), 4);
    EXPECT_EQ(q.ipcGetError(), 0);
    for (int i = 1; i <= 4; ++i) {
        std::string want = "message-" + std::to_string(i);
        EXPECT_EQ(consumer.take(q, want.size()).data, want);
    }
}

TEST_F(QueueTest, GetBlocksWhileTheQueueIsEmptyUntilAPut) {
    TraceCapture capture("zevdipc=detail");
    std::mutex lock;
    std::condition_variable changed;
    bool returned = false;
    Received r;
    std::thread reader([&] {
        Consumer own;
        Received got = own.take(q, 5);
        std::lock_guard<std::mutex> guard(lock);
        r = got;
        returned = true;
        changed.notify_all();
    });
    bool waiting = capture.waitFor("Waiting for circular buffers to be populated.", kWaitLimit);
    EXPECT_TRUE(waiting) << capture.joined();
    {
        std::lock_guard<std::mutex> guard(lock);
        EXPECT_FALSE(returned);
    }
    put(q, "wakes");
    bool done;
    {
        std::unique_lock<std::mutex> guard(lock);
        done = changed.wait_for(guard, kWaitLimit, [&] { return returned; });
    }
    EXPECT_TRUE(done);
    reader.join();
    EXPECT_EQ(r.error, 0);
    EXPECT_EQ(r.data, "wakes");
    EXPECT_EQ(q.numFull(), 0);
}

}  // namespace
