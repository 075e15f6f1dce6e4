// DCHipc::ipc_get_batch: every waiting entry in one hold of the lock, each
// as ipc_get_data would take it.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "ipc/zevdipc.h"
#include "support/entry_batch.h"
#include "support/server_queue.h"
#include "support/trace_capture.h"
#include "support/wait_for.h"

namespace {

using zevd::test::TraceCapture;
using namespace std::chrono_literals;

using BatchQueue = zevd::test::ServerQueue;

void put(DCHipc &q, const std::string &data, const char *name = "client-one", uint32_t fd = 0) {
    const unsigned char addr[16] = {2, 0, 7, 0x7f, 0x7f, 0, 0, 1};
    q.ipc_put_data(static_cast<int32_t>(data.size()), data.data(), addr, 16, name, fd);
}

using Batch = zevd::test::EntryBatch;

TEST(QueueBatchTest, TakesEveryWaitingEntryInOrderWithItsOwnFields) {
    BatchQueue q;
    put(q, "first", "client-one", 0);
    put(q, "second", "client-two", 7);
    put(q, "third", "client-three", 9);
    Batch batch;
    EXPECT_EQ(q.ipc_get_batch(batch.entries, Batch::kCount), 3);
    EXPECT_EQ(q.ipcGetError(), 0);
    EXPECT_EQ(q.numFull(), 0);
    EXPECT_EQ(batch.data(0), "first");
    EXPECT_EQ(batch.data(1), "second");
    EXPECT_EQ(batch.data(2), "third");
    EXPECT_STREQ(batch.names[1], "client-two");
    EXPECT_EQ(batch.fds[1], 7u);
    EXPECT_EQ(batch.fds[2], 9u);
    EXPECT_EQ(batch.addrLens[0], 16);
    EXPECT_EQ(batch.entries[0].bufferLen, IPC_BUFFER_STEP);
    EXPECT_EQ(batch.entries[3].buffer, nullptr);  // nothing for it to take
}

// Each entry's buffer is zero past its message, batch after batch: what a
// longer message before left there is cleared.
TEST(QueueBatchTest, BufferIsZeroPastTheMessageAfterALongerOne) {
    BatchQueue q;
    put(q, std::string(3000, 'l'));
    Batch batch;
    ASSERT_EQ(q.ipc_get_batch(batch.entries, 1), 1);
    EXPECT_EQ(batch.entries[0].held, 3000);
    put(q, "short");
    ASSERT_EQ(q.ipc_get_batch(batch.entries, 1), 1);
    EXPECT_EQ(batch.entries[0].held, 5);
    const char *buffer = batch.entries[0].buffer;
    ASSERT_EQ(batch.entries[0].bufferLen, IPC_BUFFER_STEP);
    EXPECT_EQ(std::string(buffer, 5), "short");
    for (int i = 5; i < IPC_BUFFER_STEP; ++i) ASSERT_EQ(buffer[i], '\0') << i;
    // A buffer said to hold anything is cleared whole.
    memset(batch.entries[0].buffer, 'x', IPC_BUFFER_STEP);
    batch.entries[0].held = IPC_BUFFER_STEP;
    put(q, "again");
    ASSERT_EQ(q.ipc_get_batch(batch.entries, 1), 1);
    for (int i = 5; i < IPC_BUFFER_STEP; ++i) ASSERT_EQ(buffer[i], '\0') << i;
}

TEST(QueueBatchTest, TakesNoMoreThanAskedAndLeavesTheRest) {
    BatchQueue q;
    for (int i = 0; i < 4; ++i) put(q, "message-" + std::to_string(i));
    Batch batch;
    EXPECT_EQ(q.ipc_get_batch(batch.entries, 2), 2);
    EXPECT_EQ(q.numFull(), 2);
    EXPECT_EQ(batch.data(1), "message-1");
    EXPECT_EQ(q.ipc_get_batch(batch.entries, 4), 2);
    EXPECT_EQ(batch.data(0), "message-2");
    EXPECT_EQ(batch.data(1), "message-3");
}

// Each entry writes the lines ipc_get_data writes for it.
TEST(QueueBatchTest, TracesEachEntryAsASingleGetWould) {
    BatchQueue q;
    put(q, "first");
    put(q, "second");
    TraceCapture capture("zevdipc=detail");
    Batch batch;
    ASSERT_EQ(q.ipc_get_batch(batch.entries, Batch::kCount), 2);
    EXPECT_TRUE(capture.hasText("Entry: start_idx=0 and num_full=2\n")) << capture.joined();
    EXPECT_TRUE(capture.hasText("Entry: start_idx=1 and num_full=1\n")) << capture.joined();
    EXPECT_TRUE(capture.hasText("Exit: start_idx=1 and num_full=1\n")) << capture.joined();
    EXPECT_TRUE(capture.hasText("Exit: start_idx=2 and num_full=0\n")) << capture.joined();
    EXPECT_EQ(capture.count(">> clientName set to <client-one>"), 2u) << capture.joined();
}

// An entry whose name is too short stays at the head, as with ipc_get_data;
// the entries before it are taken.
TEST(QueueBatchTest, ShortNameStopsTheBatchAndStaysAtTheHead) {
    BatchQueue q;
    put(q, "good");
    put(q, "stuck", "abcdef");
    put(q, "behind");
    TraceCapture capture("zevdipc=error");
    Batch batch;
    EXPECT_EQ(q.ipc_get_batch(batch.entries, Batch::kCount), 1);
    EXPECT_EQ(q.ipcGetError(), 1);
    EXPECT_EQ(batch.data(0), "good");
    EXPECT_EQ(q.numFull(), 2);
    EXPECT_EQ(capture.count("Error: ipcClientName ptr problem: @"), 1u) << capture.joined();
    EXPECT_EQ(q.ipc_get_batch(batch.entries, Batch::kCount), 0);
    EXPECT_EQ(q.numFull(), 2);
}

// More messages than the queue holds: the producer signals what it stored
// before it waits for room, so a consumer asleep on the empty queue takes
// them; all arrive in order, and one refused for its length is skipped.
TEST(QueueBatchTest, PutBatchLargerThanTheQueueWakesTheConsumerBeforeItWaits) {
    BatchQueue q;
    std::vector<std::string> texts;
    for (int i = 0; i < 7; ++i) texts.push_back("batch-" + std::to_string(i));
    const unsigned char addr[16] = {2, 0, 7, 0x7f, 0x7f, 0, 0, 1};
    std::vector<ipcMessage> messages;
    for (const std::string &t : texts)
        messages.push_back({static_cast<int32_t>(t.size()), t.data(), addr, 16, "client-one", 0});
    messages.insert(messages.begin() + 2, ipcMessage{-1, nullptr, addr, 16, "client-one", 0});
    TraceCapture capture("zevdipc=error+detail");
    std::thread producer(
        [&] { q.ipc_put_batch(messages.data(), static_cast<int32_t>(messages.size())); });
    std::vector<std::string> got;
    Batch batch;
    for (int round = 0; round < 20 && got.size() < texts.size(); ++round) {
        int32_t n = q.ipc_get_batch(batch.entries, Batch::kCount);
        for (int32_t i = 0; i < n; ++i) got.push_back(batch.data(i));
    }
    producer.join();
    EXPECT_EQ(got, texts);
    EXPECT_TRUE(capture.hasText("Error: refusing to queue -1 bytes from @(nil)\n"))
        << capture.joined();
    EXPECT_GE(capture.count("Waiting for circular buffers to be freed."), 1u) << capture.joined();
    EXPECT_EQ(capture.count("Saving @"), texts.size());
}

TEST(QueueBatchTest, NoEntriesToReceiveIntoIsRefused) {
    BatchQueue q;
    put(q, "waiting");
    TraceCapture capture("zevdipc=error");
    EXPECT_EQ(q.ipc_get_batch(nullptr, 4), 0);
    EXPECT_EQ(q.ipcGetError(), 1);
    Batch batch;
    EXPECT_EQ(q.ipc_get_batch(batch.entries, 0), 0);
    EXPECT_EQ(q.ipcGetError(), 1);
    EXPECT_EQ(capture.count("Error: no entries to receive into"), 2u) << capture.joined();
    EXPECT_EQ(q.numFull(), 1);
}

// A producer blocked on a full queue goes on once a batch has made room for
// all it waits to put.
TEST(QueueBatchTest, BlocksWhileEmptyAndFreesRoomForTheProducer) {
    BatchQueue q;
    Batch batch;
    std::atomic<int32_t> taken{-1};
    TraceCapture capture("zevdipc=detail");
    std::thread consumer([&] { taken = q.ipc_get_batch(batch.entries, Batch::kCount); });
    // The wait is seen through its line, then a put ends it.
    bool waiting = capture.waitFor("Waiting for circular buffers to be populated.", 30s);
    EXPECT_TRUE(waiting) << capture.joined();
    EXPECT_EQ(taken.load(), -1);
    put(q, "wakes");
    consumer.join();
    EXPECT_EQ(taken.load(), 1);
    EXPECT_EQ(batch.data(0), "wakes");

    for (int i = 0; i < 4; ++i) put(q, "full-" + std::to_string(i));
    std::atomic<int> putsDone{0};
    std::thread producer([&] {
        for (int i = 4; i < 8; ++i) {
            put(q, "full-" + std::to_string(i));
            ++putsDone;
        }
    });
    EXPECT_TRUE(capture.waitFor("Waiting for circular buffers to be freed.", 30s));
    EXPECT_EQ(q.ipc_get_batch(batch.entries, Batch::kCount), 4);
    producer.join();
    EXPECT_EQ(putsDone.load(), 4);
    EXPECT_EQ(q.ipc_get_batch(batch.entries, Batch::kCount), 4);
    EXPECT_EQ(batch.data(0), "full-4");
    EXPECT_EQ(batch.data(3), "full-7");
}

// Two producers wait on a full queue (a daemon's own thread beside the
// server loop): a batch that frees four slots lets both in.
TEST(QueueBatchTest, BatchThatFreesSeveralSlotsWakesEveryProducerWaitingForRoom) {
    BatchQueue q;
    Batch batch;
    TraceCapture capture("zevdipc=detail");
    for (int i = 0; i < 4; ++i) put(q, "full-" + std::to_string(i));
    std::atomic<int> putsDone{0};
    std::thread first([&] {
        put(q, "first");
        ++putsDone;
    });
    std::thread second([&] {
        put(q, "second");
        ++putsDone;
    });
    EXPECT_TRUE(capture.waitFor("Waiting for circular buffers to be freed.", 30s, 2))
        << capture.joined();
    EXPECT_EQ(q.ipc_get_batch(batch.entries, Batch::kCount), 4);
    // Both come in without the consumer taking again.
    EXPECT_TRUE(zevd::test::waitFor([&] { return putsDone.load() == 2; }, 10s));
    if (putsDone.load() < 2) {
        EXPECT_EQ(q.ipc_get_batch(batch.entries, 1), 1);  // frees the other
    }
    first.join();
    second.join();
    EXPECT_EQ(q.numFull(), 2);
}

}  // namespace
