// Waits on a condition that another thread makes true, within a limit.
#ifndef ZEVD_TESTS_SUPPORT_WAIT_FOR_H
#define ZEVD_TESTS_SUPPORT_WAIT_FOR_H

#include <chrono>
#include <thread>

namespace zevd::test {

// Polls condition every millisecond until it holds (true) or limit has
// passed (false).
template <typename Condition>
bool waitFor(Condition condition, std::chrono::milliseconds limit) {
    auto deadline = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

}  // namespace zevd::test

#endif  // ZEVD_TESTS_SUPPORT_WAIT_FOR_H
