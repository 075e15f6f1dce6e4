/* Both public headers compile as C11; built as part of every build. */
#include "zev0.h"
#include "zevd610.h"

int zevd_c_header_check(void);

int zevd_c_header_check(void) {
    long status = ZEVD_STATUS_OK;
    int kind = ZEVA_GetIPCtype();
    char *name = ZEVA_GetInstanceName();
    return (int)status + kind + (name != 0) + DCH_requestType + ZEVD_REQ_DP_ONLINE + TRACE_ERROR;
}
