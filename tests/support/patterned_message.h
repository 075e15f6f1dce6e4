// A message for the transport's suites: its length word, then a pattern of
// non-zero bytes that a seed tells apart from another message's.
#ifndef ZEVD_TESTS_SUPPORT_PATTERNED_MESSAGE_H
#define ZEVD_TESTS_SUPPORT_PATTERNED_MESSAGE_H

#include <arpa/inet.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

namespace zevd::test {

inline std::vector<char> message(uint32_t length, int seed = 0) {
    std::vector<char> bytes(length);
    for (uint32_t i = 0; i < length; ++i)
        bytes[i] = static_cast<char>(1 + (i * 7 + static_cast<uint32_t>(seed) * 13) % 255);
    uint32_t word = htonl(length);
    memcpy(bytes.data(), &word, std::min<size_t>(sizeof word, length));
    return bytes;
}

}  // namespace zevd::test

#endif  // ZEVD_TESTS_SUPPORT_PATTERNED_MESSAGE_H
