// The trace units of libzevd610: one per source file, with the build stamp
// and component id that the trace reports for it.
#include "common/trace.h"

namespace zevd {

TraceUnit unitZevdipc = {0, "Aug 16 2006", "02:25:59", "zevdipc.cpp", "ZEVD610", nullptr, 0};
TraceUnit unitZevdsock = {0, "Aug 16 2006", "02:26:01", "zevdsock.cpp", "ZEVD610", nullptr, 0};
TraceUnit unitZevdlpc = {0, "Aug 16 2006", "02:26:03", "zevdlpc.cpp", "ZEVD610", nullptr, 0};
TraceUnit unitZevdchcl = {0, "Aug 16 2006", "02:26:04", "zevdchcl.cpp", "ZEVDC610", nullptr, 0};
TraceUnit unitZeva = {0, "Aug 16 2006", "02:26:08", "zeva.cpp", "ZEVA610", nullptr, 0};

}  // namespace zevd
