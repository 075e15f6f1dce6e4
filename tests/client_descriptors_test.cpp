// A process that holds many descriptors before its first request: every
// socket the library then opens lies above 1023, where select cannot watch
// it. Register, online, rows, a data wait and a status wait must all work
// against zevdchd all the same. The case holds its descriptors before the
// library's first socket (the pool is made on the first request), so it
// runs in a process of its own, as ctest runs every case.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "common/message.h"
#include "support/dch_daemon.h"
#include "support/row_collector.h"
#include "support/trace_capture.h"
#include "zevd610.h"

namespace zevd::test {
namespace {

using namespace std::chrono_literals;

[[maybe_unused]] const auto *const kEnvironment =
    ::testing::AddGlobalTestEnvironment(new DaemonEnvironment());

// Descriptors the process holds before its first request.
constexpr int kHeld = 1100;

// Opens /dev/null until count descriptors are held, the soft limit raised
// (within the hard one) to make room; closes them all at the end.
class HeldDescriptors {
public:
    explicit HeldDescriptors(int count) {
        struct rlimit limit;
        if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
        rlim_t wanted = static_cast<rlim_t>(count) + 256;
        if (limit.rlim_cur != RLIM_INFINITY && limit.rlim_cur < wanted) {
            if (limit.rlim_max != RLIM_INFINITY && limit.rlim_max < wanted) {
                roomless_ = true;
                return;
            }
            limit.rlim_cur = wanted;
            if (setrlimit(RLIMIT_NOFILE, &limit) != 0) return;
        }
        for (int i = 0; i < count; ++i) {
            int fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
            if (fd < 0) return;
            fds_.push_back(fd);
        }
    }
    ~HeldDescriptors() {
        for (int fd : fds_) close(fd);
    }
    HeldDescriptors(const HeldDescriptors &) = delete;
    HeldDescriptors &operator=(const HeldDescriptors &) = delete;

    size_t count() const { return fds_.size(); }
    // True when the hard limit leaves no room for them.
    bool roomless() const { return roomless_; }

private:
    std::vector<int> fds_;
    bool roomless_ = false;
};

// The number after part in text ("UDP[1204]" gives 1204 for "UDP["), or -1.
int numberAfter(const std::string &text, const std::string &part) {
    size_t at = text.find(part);
    return at == std::string::npos ? -1 : atoi(text.c_str() + at + part.size());
}

// Every status line of one status wait, taken on a thread of its own until
// a given number has come (the wait cannot be cancelled).
class StatusLines {
public:
    explicit StatusLines(size_t count) : client_(dc_waitForDPStatusInitialize()), count_(count) {
        EXPECT_NE(client_, nullptr);
        thread_ = std::thread([this] {
            for (;;) {
                const char *line = dc_waitForDPStatus(client_);
                std::lock_guard<std::mutex> guard(lock_);
                if (line == nullptr) {
                    failed_ = true;
                } else {
                    lines_.emplace_back(line);
                }
                changed_.notify_all();
                if (failed_ || lines_.size() >= count_) return;
            }
        });
    }
    ~StatusLines() {
        // A wait that never got its lines cannot be ended: it is left to the
        // end of the process, with its client.
        if (waitAll(0ms)) {
            thread_.join();
            dc_waitForDPStatusDestroy(client_);
        } else {
            thread_.detach();
        }
    }
    StatusLines(const StatusLines &) = delete;
    StatusLines &operator=(const StatusLines &) = delete;

    bool waitAll(std::chrono::milliseconds limit = 30s) {
        std::unique_lock<std::mutex> guard(lock_);
        return changed_.wait_for(guard, limit, [&] {
            return failed_ || lines_.size() >= count_;
        }) && !failed_;
    }
    std::vector<std::string> lines() {
        std::lock_guard<std::mutex> guard(lock_);
        return lines_;
    }

private:
    void *client_;
    size_t count_;
    std::thread thread_;
    std::mutex lock_;
    std::condition_variable changed_;
    std::vector<std::string> lines_;
    bool failed_ = false;
};

TEST(ClientDescriptorsTest, EveryRequestAndWaitWorksOnSocketsAbove1023) {
    HeldDescriptors held(kHeld);
    if (held.roomless()) GTEST_SKIP() << "the hard descriptor limit is below " << kHeld + 256;
    ASSERT_EQ(held.count(), static_cast<size_t>(kHeld));
    // The next descriptor, and so every socket the library opens from here
    // on, lies beyond what select can watch.
    int probe = open("/dev/null", O_RDONLY | O_CLOEXEC);
    ASSERT_GE(probe, FD_SETSIZE);
    close(probe);

    TraceCapture capture("error,zevdsock=error+detail,zevdchcl=error+detail");
    constexpr size_t kRows = 3;
    // register, online, offline, unregister.
    StatusLines status(4);
    RowCollector rows("fds", "grp", kRows);

    long result = -1;
    ASSERT_EQ(dp_register(&result, "APPL fds;GROUP grp;ATTR v A 4"), 0);
    EXPECT_EQ(result, 0);
    long handle = 0;
    result = -1;
    ASSERT_EQ(dp_online(&result, &handle, "fds", "grp", "src"), 0);
    EXPECT_EQ(result, 0);
    EXPECT_GT(handle, 0);
    for (size_t i = 0; i < kRows; ++i) {
        char *row = nullptr;
        long size = 0;
        auto value = static_cast<int32_t>(100 + i);
        result = -1;
        dp_formatData(&result, &row, &size, "v", &value, 4, 'A');
        ASSERT_EQ(result, 0);
        result = -1;
        EXPECT_EQ(dp_data(&result, handle, 0, &row), 0) << "row " << i;
        EXPECT_EQ(result, 0) << "row " << i;
    }
    ASSERT_TRUE(rows.waitAll());
    std::vector<std::vector<char>> received = rows.rows();
    ASSERT_EQ(received.size(), kRows);
    for (size_t i = 0; i < kRows; ++i) {
        // The row's last field is the value, a 32-bit number in network order.
        const std::vector<char> &message = received[i];
        ASSERT_GE(message.size(), 4u);
        uint32_t word = 0;
        memcpy(&word, message.data() + message.size() - 4, sizeof word);
        EXPECT_EQ(ntohl(word), 100 + i) << "row " << i;
    }

    result = -1;
    EXPECT_EQ(dp_offline(&result, handle), 0);
    EXPECT_EQ(result, 0);
    result = -1;
    EXPECT_EQ(dp_unregister(&result, "fds"), 0);
    EXPECT_EQ(result, 0);

    ASSERT_TRUE(status.waitAll()) << capture.joined();
    std::vector<std::string> lines = status.lines();
    ASSERT_EQ(lines.size(), 4u);
    const char *const expected[4][2] = {{"fds,,,127.0.0.1,", ",4112"},
                                        {"fds,grp,src,127.0.0.1,", ",4117"},
                                        {"fds,grp,src,127.0.0.1,", ",4133"},
                                        {"fds,,,127.0.0.1,", ",4128"}};
    for (size_t i = 0; i < lines.size(); ++i) {
        const std::string prefix = expected[i][0];
        const std::string suffix = expected[i][1];
        EXPECT_EQ(lines[i].rfind(prefix, 0), 0u) << lines[i];
        EXPECT_TRUE(lines[i].size() >= suffix.size() &&
                    lines[i].compare(lines[i].size() - suffix.size(), suffix.size(), suffix) == 0)
            << lines[i];
    }

    // The reads waited on sockets above 1023, and so did the data wait.
    size_t reads = 0;
    for (const std::string &text : capture.texts()) {
        int fd = numberAfter(text, "Waiting on SELECT: UDP[");
        if (fd < 0) continue;
        ++reads;
        EXPECT_GE(fd, FD_SETSIZE) << text;
    }
    EXPECT_GE(reads, 2 + kRows) << capture.joined();
    bool dataWaitSeen = false;
    for (const std::string &text : capture.texts()) {
        if (text.find("Waiting for dc_waitOnData response message") == std::string::npos) continue;
        dataWaitSeen = true;
        EXPECT_GE(numberAfter(text, "sockUDP["), FD_SETSIZE) << text;
        EXPECT_GE(numberAfter(text, "interruptFD["), FD_SETSIZE) << text;
    }
    EXPECT_TRUE(dataWaitSeen) << capture.joined();
    EXPECT_FALSE(capture.contains("Error:")) << capture.joined();
}

}  // namespace
}  // namespace zevd::test
