/* include/zevd610.h on its own, with nothing included before it, as every
 * language standard a user may build with: C99, C11, C++11 and C++20, with
 * -Wall -Wextra -pedantic and warnings as errors. Built with every build. */
#include "zevd610.h"

/* The version macros are numbers a preprocessor can compare, and name the
 * version the project is built as (ZEVD_EXPECTED_VERSION, major * 10000 +
 * minor * 100 + patch). */
#if !defined(ZEVD_VERSION_MAJOR) || !defined(ZEVD_VERSION_MINOR) || !defined(ZEVD_VERSION_PATCH)
#error "zevd610.h lacks a ZEVD_VERSION_ macro"
#endif
#if ZEVD_VERSION_MAJOR * 10000 + ZEVD_VERSION_MINOR * 100 + ZEVD_VERSION_PATCH != \
    ZEVD_EXPECTED_VERSION
#error "the ZEVD_VERSION_ macros do not name the version being built"
#endif

int zevd_header_alone_check(void);

int zevd_header_alone_check(void) {
    long status = ZEVD_STATUS_OK;
    return (int)status + DCH_requestType + ZEVD_REQ_DP_ONLINE + TRACE_ERROR + ZEVD_DCH_FULL;
}
