// Allocation failures on demand, for suites that test what the library does
// when memory runs out: the next nothrow allocation of exactly the armed size
// fails. The library allocates with new (std::nothrow) only.
//
// This header replaces the program's nothrow operator new and new[]: include
// it in one source file of a test program, no more.
#ifndef ZEVD_TESTS_SUPPORT_ALLOC_FAILURE_H
#define ZEVD_TESTS_SUPPORT_ALLOC_FAILURE_H

#include <atomic>
#include <cstddef>
#include <new>

namespace zevd::test {

// The size whose next array (object) allocation fails; 0 once it has.
inline std::atomic<size_t> failArrayOfSize{0};
inline std::atomic<size_t> failObjectOfSize{0};

inline void *allocateOrFail(std::atomic<size_t> &armed, size_t size, bool array) {
    size_t expected = size;
    if (size != 0 && armed.compare_exchange_strong(expected, 0)) return nullptr;
    try {
        return array ? ::operator new[](size) : ::operator new(size);
    } catch (...) {
        return nullptr;
    }
}

}  // namespace zevd::test

void *operator new[](std::size_t size, const std::nothrow_t &) noexcept {
    return zevd::test::allocateOrFail(zevd::test::failArrayOfSize, size, true);
}

void *operator new(std::size_t size, const std::nothrow_t &) noexcept {
    return zevd::test::allocateOrFail(zevd::test::failObjectOfSize, size, false);
}

#endif  // ZEVD_TESTS_SUPPORT_ALLOC_FAILURE_H
