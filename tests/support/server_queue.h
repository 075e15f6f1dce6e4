// A server transport with trivial operations around the real receive queue,
// for the suites that drive the queue by hand, without a receive thread.
#ifndef ZEVD_TESTS_SUPPORT_SERVER_QUEUE_H
#define ZEVD_TESTS_SUPPORT_SERVER_QUEUE_H

#include <pthread.h>

#include <cstdint>

#include "ipc/zevdipc.h"

namespace zevd::test {

class ServerQueue final : public DCHipc {
public:
    ServerQueue() : DCHipc(IPC_SERVICE_SERVER) { ipc_new_cb(); }
    int32_t ipcRead(char ** /*buffer*/, int32_t /*wait*/) override { return 0; }
    int32_t ipcWrite(const char * /*buffer*/, int32_t /*length*/, uint32_t /*fd*/) override {
        return 0;
    }
    int32_t setClientAddr(const void * /*addr*/, int32_t /*addrLen*/) override { return 0; }
    int32_t IPCServer() override { return 0; }
    int32_t IPCClient(void * /*addr*/, int32_t /*connectTo*/, int32_t /*type*/) override {
        return 0;
    }
    int32_t allocateIPC() override { return 0; }
    int32_t releaseIPC() override { return 0; }

    // num_full, read under the queue lock.
    int32_t numFull() {
        int32_t n = 0;
        underQueueLock([&n](int32_t full) { n = full; });
        return n;
    }
    // Runs f(num_full) while holding the queue lock.
    template <typename F>
    void underQueueLock(F f) {
        pthread_mutex_lock(&_ipcCircularBuffer->lock);
        f(_ipcCircularBuffer->num_full);
        pthread_mutex_unlock(&_ipcCircularBuffer->lock);
    }
};

}  // namespace zevd::test

#endif  // ZEVD_TESTS_SUPPORT_SERVER_QUEUE_H
