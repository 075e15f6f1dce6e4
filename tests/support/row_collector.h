// A data consumer that collects the rows forwarded for one application and
// group, from a thread of its own, until it has count of them.
#ifndef ZEVD_TESTS_SUPPORT_ROW_COLLECTOR_H
#define ZEVD_TESTS_SUPPORT_ROW_COLLECTOR_H

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#include "common/message.h"
#include "zevd610.h"

namespace zevd::test {

class RowCollector {
public:
    RowCollector(const char *appl, const char *group, size_t count)
        : client_(dc_waitOnDataInitialize(appl, group)), count_(count) {
        EXPECT_NE(client_, nullptr);
        thread_ = std::thread([this] {
            std::vector<char> buffer(32767);
            for (;;) {
                {
                    std::lock_guard<std::mutex> guard(lock_);
                    if (rows_.size() >= count_) return;
                }
                int result = dc_waitOnData(client_, buffer.data(), static_cast<int>(buffer.size()));
                if (result != 0) return;
                std::lock_guard<std::mutex> guard(lock_);
                rows_.emplace_back(buffer.begin(), buffer.begin() + messageLength(buffer.data()));
                changed_.notify_all();
            }
        });
    }
    ~RowCollector() {
        dc_waitOnDataCancel(client_);
        thread_.join();
        dc_waitOnDataDestroy(client_);
    }
    bool waitAll(std::chrono::milliseconds limit = std::chrono::seconds(30)) {
        std::unique_lock<std::mutex> guard(lock_);
        return changed_.wait_for(guard, limit, [&] { return rows_.size() >= count_; });
    }
    std::vector<std::vector<char>> rows() {
        std::lock_guard<std::mutex> guard(lock_);
        return rows_;
    }

private:
    void *client_;
    size_t count_;
    std::mutex lock_;
    std::condition_variable changed_;
    std::vector<std::vector<char>> rows_;
    std::thread thread_;
};

}  // namespace zevd::test

#endif  // ZEVD_TESTS_SUPPORT_ROW_COLLECTOR_H
