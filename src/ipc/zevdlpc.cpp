// ipcLPC: a transport behind the common interface that carries nothing.
#include "ipc/zevdlpc.h"

#include "common/trace.h"

ZEVD_TRACE_UNIT(unitZevdlpc);

ipcLPC::ipcLPC() : DCHipc(), _lpcError(1) {
    ZEVD_TRACE_FUNCTION("ipcLPC::ipcLPC");
    ZEVD_TRACE(trc, TRACE_ERROR, kLPCDefaultConstructorError);
    trc.exit();
}

ipcLPC::ipcLPC(int16_t service, void *addr, int32_t connectTo) : DCHipc(service), _lpcError(0) {
    ZEVD_TRACE_FUNCTION("ipcLPC::ipcLPC");
    _lpcError = ipcGetError();
    // The result stays in the base's error word, where the owner reads it.
    startup(addr, connectTo);
    trc.exit();
}

ipcLPC::~ipcLPC() {
    ZEVD_TRACE_FUNCTION("ipcLPC::~ipcLPC");
    trc.exit();
}

int32_t ipcLPC::ipcRead(char ** /*buffer*/, int32_t /*wait*/) {
    ZEVD_TRACE_FUNCTION("ipcLPC::ipcRead");
    return trc.exit(static_cast<int32_t>(0));
}

int32_t ipcLPC::ipcWrite(const char * /*buffer*/, int32_t /*length*/,
                         uint32_t /*connectedSockFD*/) {
    ZEVD_TRACE_FUNCTION("ipcLPC::ipcWrite");
    return trc.exit(static_cast<int32_t>(0));
}

int32_t ipcLPC::setClientAddr(const void * /*addr*/, int32_t /*addrLen*/) {
    ZEVD_TRACE_FUNCTION("ipcLPC::setClientAddr");
    // Has no result of its own: the exit event carries no value.
    trc.exit();
    return 0;
}

int32_t ipcLPC::IPCServer() {
    ZEVD_TRACE_FUNCTION("ipcLPC::IPCServer");
    return trc.exit(_lpcError);
}

int32_t ipcLPC::IPCClient(void * /*addr*/, int32_t /*connectTo*/, int32_t /*typeOfServer*/) {
    ZEVD_TRACE_FUNCTION("ipcLPC::IPCClient");
    return trc.exit(_lpcError);
}

int32_t ipcLPC::allocateIPC() {
    ZEVD_TRACE_FUNCTION("ipcLPC::allocateIPC");
    return trc.exit(_lpcError);
}

int32_t ipcLPC::releaseIPC() {
    ZEVD_TRACE_FUNCTION("ipcLPC::releaseIPC");
    return trc.exit(_lpcError);
}
