// The server loop's TCP message assembly on its own, fed from a script:
// what it gives for each way a message can arrive, its deadline, its limits
// and the lines it writes.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <malloc.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <deque>
#include <string>
#include <vector>

#include "ipc/zevdsock_assembly.h"
#include "support/patterned_message.h"
#include "support/trace_capture.h"

namespace {

using zevd::TcpAssembly;
using zevd::test::TraceCapture;
using Outcome = TcpAssembly::Outcome;

constexpr char kLevels[] = "error,ipcSock::IPCServer=all";
constexpr int32_t kFd = 9;
constexpr int32_t kWait = 2;

using zevd::test::message;

// Hands out what was made ready, up to the size asked for; then EAGAIN, the
// end of the stream, or a given error.
class Script : public TcpAssembly::Source {
public:
    void ready(const std::vector<char> &bytes, size_t from = 0, size_t to = SIZE_MAX) {
        to = std::min(to, bytes.size());
        ready_.insert(ready_.end(), bytes.begin() + static_cast<std::ptrdiff_t>(from),
                      bytes.begin() + static_cast<std::ptrdiff_t>(to));
    }
    void end(int error = 0) {
        ended_ = true;
        error_ = error;
    }
    ssize_t receive(char *buffer, size_t size) override {
        ++receives;
        if (ready_.empty()) {
            if (!ended_) {
                errno = EAGAIN;
                return -1;
            }
            if (error_ != 0) {
                errno = error_;
                return -1;
            }
            return 0;
        }
        size_t n = std::min(size, ready_.size());
        std::copy(ready_.begin(), ready_.begin() + static_cast<std::ptrdiff_t>(n), buffer);
        ready_.erase(ready_.begin(), ready_.begin() + static_cast<std::ptrdiff_t>(n));
        return static_cast<ssize_t>(n);
    }
    size_t left() const { return ready_.size(); }
    int receives = 0;

private:
    std::deque<char> ready_;
    bool ended_ = false;
    int error_ = 0;
};

class TcpAssemblyTest : public ::testing::Test {
protected:
    Outcome read(TcpAssembly::Clock::time_point now = TcpAssembly::Clock::now()) {
        return assembly.read(script, kFd, scratch, now, kWait);
    }
    std::vector<char> joined() {
        const char *bytes = assembly.joined();
        return std::vector<char>(bytes, bytes + assembly.received());
    }
    TcpAssembly assembly;
    Script script;
    char scratch[TcpAssembly::kPieceSize] = {};
};

TEST_F(TcpAssemblyTest, MessageThatArrivesInOneGoTracesAsTheLoopAlwaysDid) {
    TraceCapture capture(kLevels);
    std::vector<char> whole = message(100, 1);
    script.ready(whole);
    ASSERT_EQ(read(), Outcome::kWhole);
    EXPECT_EQ(joined(), whole);
    EXPECT_EQ(assembly.pieces(), 1);
    std::vector<std::string> expected = {
        "Waiting on SELECT: connectedSockFD[9] MaxFD[10]\n",
        "Back from Select, reusing ipcBuffer @" + zevd::test::pointerText(assembly.joined()) + "\n",
        "ipcBufCount=0 totalLen=0 totalRead=0 bytesRead=100 initRead=1 moreData=1\n",
        "TCP: totalLen=100, bytesRead=100, totalRead=100, errno=0\n",
    };
    EXPECT_EQ(capture.texts(), expected);
    // Read only what the message needed: nothing more was asked for.
    EXPECT_EQ(script.receives, 1);
}

TEST_F(TcpAssemblyTest, MessageInPiecesWaitsForNothingAndIsJoinedOnceWhole) {
    TraceCapture capture(kLevels);
    std::vector<char> whole = message(10000, 2);
    script.ready(whole, 0, 3000);
    EXPECT_EQ(read(), Outcome::kPending);
    EXPECT_TRUE(assembly.begun());
    script.ready(whole, 3000, 9000);
    EXPECT_EQ(read(), Outcome::kPending);
    script.ready(whole, 9000);
    ASSERT_EQ(read(), Outcome::kWhole);
    EXPECT_EQ(joined(), whole);
    EXPECT_EQ(assembly.pieces(), 4);  // 3000, 4096, 1904, 1000
    EXPECT_TRUE(capture.contains("Allocated <10000> bytes for completeBuffer<@"));
    assembly.reset();
    EXPECT_TRUE(capture.contains("Deleting completeBuffer @"));
    EXPECT_EQ(capture.count("Deleting ipcBufArray["), 3u);
    EXPECT_FALSE(assembly.begun());
}

TEST_F(TcpAssemblyTest, LengthWordInPiecesIsJoinedBeforeItIsRead) {
    std::vector<char> whole = message(30, 3);
    script.ready(whole, 0, 2);
    EXPECT_EQ(read(), Outcome::kPending);
    script.ready(whole, 2, 3);
    EXPECT_EQ(read(), Outcome::kPending);
    script.ready(whole, 3);
    ASSERT_EQ(read(), Outcome::kWhole);
    EXPECT_EQ(joined(), whole);
}

TEST_F(TcpAssemblyTest, FirstByteSetsTheDeadlineThatLaterPiecesDoNotMove) {
    TraceCapture capture(kLevels);
    auto start = TcpAssembly::Clock::now();
    std::vector<char> whole = message(100, 4);
    script.ready(whole, 0, 10);
    EXPECT_EQ(read(start), Outcome::kPending);
    EXPECT_EQ(assembly.deadline(), start + std::chrono::seconds(kWait));
    script.ready(whole, 10, 20);
    EXPECT_EQ(read(start + std::chrono::seconds(1)), Outcome::kPending);
    EXPECT_EQ(assembly.deadline(), start + std::chrono::seconds(kWait));
    EXPECT_FALSE(assembly.expired(start + std::chrono::milliseconds(1999)));
    EXPECT_TRUE(assembly.expired(start + std::chrono::seconds(kWait)));
    assembly.expire(kWait);
    EXPECT_TRUE(assembly.cutOff());
    EXPECT_TRUE(capture.hasText("Error: no more of the TCP message within 2 seconds\n"));
    EXPECT_EQ(assembly.received(), 20);
    EXPECT_EQ(assembly.announced(), 100u);
}

TEST_F(TcpAssemblyTest, NothingBegunNeverExpires) {
    EXPECT_FALSE(assembly.expired(TcpAssembly::Clock::time_point::max()));
    EXPECT_EQ(read(), Outcome::kPending);
    EXPECT_FALSE(assembly.begun());
}

TEST_F(TcpAssemblyTest, StreamThatEndsWithNothingBegunIsClosed) {
    script.end();
    EXPECT_EQ(read(), Outcome::kClosed);
}

TEST_F(TcpAssemblyTest, ResetInTheMiddleOfAMessageIsClosed) {
    std::vector<char> whole = message(100, 5);
    script.ready(whole, 0, 40);
    script.end(ECONNRESET);
    EXPECT_EQ(read(), Outcome::kClosed);
}

TEST_F(TcpAssemblyTest, StreamThatEndsShortOfItsWordIsAMismatchThatKeepsTheConnection) {
    TraceCapture capture(kLevels);
    std::vector<char> whole = message(100, 6);
    script.ready(whole, 0, 40);
    script.end();
    EXPECT_EQ(read(), Outcome::kMismatch);
    EXPECT_FALSE(assembly.cutOff());
    EXPECT_TRUE(capture.hasText("TCP: totalLen=100, bytesRead=0, totalRead=40, errno=0\n"));
    assembly.reset();
    // The end of the stream once more: now nothing is begun.
    EXPECT_EQ(read(), Outcome::kClosed);
}

TEST_F(TcpAssemblyTest, MoreThanTheWordSaysIsAMismatch) {
    std::vector<char> bytes = message(20, 7);
    uint32_t word = htonl(10);
    memcpy(bytes.data(), &word, sizeof word);
    script.ready(bytes);
    EXPECT_EQ(read(), Outcome::kMismatch);
    EXPECT_EQ(assembly.received(), 20);
    EXPECT_FALSE(assembly.cutOff());
}

TEST_F(TcpAssemblyTest, WordBelowItsOwnSizeIsAMismatch) {
    std::vector<char> bytes = {0, 0, 0, 2};
    script.ready(bytes);
    EXPECT_EQ(read(), Outcome::kMismatch);
    EXPECT_EQ(assembly.received(), 4);
}

TEST_F(TcpAssemblyTest, WordAboveTheLimitIsCutOffAtOnce) {
    TraceCapture capture(kLevels);
    std::vector<char> bytes = message(4096, 8);
    uint32_t word = htonl(8u << 20);
    memcpy(bytes.data(), &word, sizeof word);
    script.ready(bytes);
    EXPECT_EQ(read(), Outcome::kMismatch);
    EXPECT_TRUE(assembly.cutOff());
    EXPECT_TRUE(capture.hasText(
        "Error: TCP message of 8388608 bytes is longer than the 4190208 allowed\n"));
}

TEST_F(TcpAssemblyTest, FirstByteOfAnOverlongWordIsEnoughToCutItOff) {
    script.ready(std::vector<char>{0x01});
    EXPECT_EQ(read(), Outcome::kMismatch);
    EXPECT_TRUE(assembly.cutOff());
}

TEST_F(TcpAssemblyTest, MessageInMorePiecesThanAllowedIsCutOff) {
    TraceCapture capture("error");
    std::vector<char> bytes = message(1100, 9);
    script.ready(bytes, 0, 4);
    ASSERT_EQ(read(), Outcome::kPending);
    Outcome last = Outcome::kPending;
    size_t at = 4;
    for (; at < bytes.size() && last == Outcome::kPending; ++at) {
        script.ready(bytes, at, at + 1);
        last = read();
    }
    EXPECT_EQ(last, Outcome::kMismatch);
    EXPECT_TRUE(assembly.cutOff());
    EXPECT_EQ(assembly.pieces(), 1024);
    EXPECT_EQ(assembly.received(), 1027);
    EXPECT_TRUE(capture.hasText("Error: ipcBufCount 1024 exceeded allowed limit of 1023\n"));
}

// A peer that trickles a byte a piece costs the bytes it sent, not a
// receive buffer for each: the heap grows by far less than the 4 MiB that
// 1,023 pieces of 4 KiB would hold.
TEST_F(TcpAssemblyTest, PiecesAreKeptAtTheSizeReceived) {
    std::vector<char> bytes = message(2000, 13);
    script.ready(bytes, 0, 4);
    ASSERT_EQ(read(), Outcome::kPending);
    size_t before = mallinfo2().uordblks;
    for (size_t at = 4; at < 4 + 1000; ++at) {
        script.ready(bytes, at, at + 1);
        ASSERT_EQ(read(), Outcome::kPending);
    }
    size_t grown = mallinfo2().uordblks - before;
    EXPECT_LT(grown, 200u * 1024) << grown;
    EXPECT_EQ(assembly.pieces(), 1001);
    script.ready(bytes, 1004);
    ASSERT_EQ(read(), Outcome::kWhole);
    EXPECT_EQ(joined(), bytes);
}

TEST_F(TcpAssemblyTest, LargestMessageIsJoinedWhole) {
    std::vector<char> whole = message(TcpAssembly::kMaxMessage, 10);
    script.ready(whole);
    ASSERT_EQ(read(), Outcome::kWhole);
    EXPECT_EQ(assembly.pieces(), 1023);
    EXPECT_EQ(joined(), whole);
}

TEST_F(TcpAssemblyTest, NextMessageAfterAResetStartsClean) {
    std::vector<char> first = message(5000, 11);
    script.ready(first);
    ASSERT_EQ(read(), Outcome::kWhole);
    assembly.reset();
    std::vector<char> second = message(12, 12);
    script.ready(second);
    ASSERT_EQ(read(), Outcome::kWhole);
    EXPECT_EQ(joined(), second);
    EXPECT_EQ(script.left(), 0u);
}

}  // namespace
