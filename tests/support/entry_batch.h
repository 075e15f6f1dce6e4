// Entries for DCHipc::ipc_get_batch, each with its own buffer, name, address
// and descriptor.
#ifndef ZEVD_TESTS_SUPPORT_ENTRY_BATCH_H
#define ZEVD_TESTS_SUPPORT_ENTRY_BATCH_H

#include <cstdint>
#include <string>

#include "ipc/zevdipc.h"

namespace zevd::test {

struct EntryBatch {
    static constexpr int32_t kCount = IPC_QSIZE - 1;
    char names[kCount][IPC_CLIENT_NAME_SIZE] = {};
    char addrs[kCount][IPC_CLIENT_ADDR_SIZE] = {};
    int32_t addrLens[kCount] = {};
    uint32_t fds[kCount] = {};
    ipcEntry entries[kCount] = {};
    EntryBatch() {
        for (int32_t i = 0; i < kCount; ++i)
            entries[i] = ipcEntry{nullptr, 0, addrs[i], &addrLens[i], names[i], &fds[i], 0};
    }
    ~EntryBatch() {
        for (ipcEntry &e : entries) delete[] e.buffer;
    }
    EntryBatch(const EntryBatch &) = delete;
    EntryBatch &operator=(const EntryBatch &) = delete;
    // The buffer of entry i up to its first zero.
    std::string data(int32_t i) const { return entries[i].buffer; }
};

}  // namespace zevd::test

#endif  // ZEVD_TESTS_SUPPORT_ENTRY_BATCH_H
