// ipcLPC: the local-procedure-call transport. Selectable (IPC type 2) but
// inert: every operation succeeds without moving data.
#ifndef ZEVD_IPC_ZEVDLPC_H
#define ZEVD_IPC_ZEVDLPC_H

#include <cstdint>

#include "ipc/zevdipc.h"

// Text of the default constructor's error line. Kept without a line end,
// unlike the base's; the trace facility ends the line itself.
inline constexpr char kLPCDefaultConstructorError[] = "Error: this constructor should not be used.";

// Deleted through its concrete type like every transport, so its destructor
// is not virtual either; final keeps that safe.
class ipcLPC final : public DCHipc {  // NOLINT(cppcoreguidelines-virtual-class-destructor)
public:
    // Must not be used: reports so and sets the LPC error word to 1.
    ipcLPC();
    // Builds the base with service and runs startup(addr, connectTo); the
    // result of startup is left in the base's error word.
    ipcLPC(int16_t service, void *addr, int32_t connectTo);
    ~ipcLPC();

    // Leaves *buffer untouched and returns 0 at once, whatever wait is.
    int32_t ipcRead(char **buffer, int32_t wait) override;
    // Sends nothing; returns 0.
    int32_t ipcWrite(const char *buffer, int32_t length, uint32_t connectedSockFD) override;
    // Does nothing; returns 0.
    int32_t setClientAddr(const void *addr, int32_t addrLen) override;
    // The four below do nothing and return the LPC error word.
    int32_t IPCServer() override;
    int32_t IPCClient(void *addr, int32_t connectTo, int32_t typeOfServer) override;
    int32_t allocateIPC() override;
    int32_t releaseIPC() override;

private:
    int32_t _lpcError;  // 0 good, 1 failed
};

#endif  // ZEVD_IPC_ZEVDLPC_H
