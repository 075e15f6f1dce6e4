// Hex dumps into the trace.
#include <cctype>
#include <cstdio>

#include "zev0.h"

namespace {
TraceUnit dumpUnit = {0, __DATE__, __TIME__, "zev0.c", "ZEV0", nullptr, 0};
TraceFunctionRecord dumpRecord = {nullptr, "ZEV0_PrintDump", 14, __LINE__, &dumpUnit, 0x200,
                                  0,       TLG1_NEVER_SYNCED};
}  // namespace

extern "C" {

// Lines such as
// "00000000  00 00 00 0c 00 10 00 00 00 02 10 15              |............|".
void ZEV0_PrintDump(const void *buffer, int offset, int length) {
    if (buffer == nullptr || length <= 0) return;
    const auto *bytes = static_cast<const unsigned char *>(buffer) + (offset > 0 ? offset : 0);
    for (int row = 0; row < length; row += 16) {
        char hex[16 * 3 + 1];
        char text[17];
        int n = 0;
        for (int i = 0; i < 16; ++i) {
            if (row + i < length) {
                snprintf(hex + i * 3, 4, "%02x ", bytes[row + i]);
                text[i] = isprint(bytes[row + i]) != 0 ? static_cast<char>(bytes[row + i]) : '.';
                n = i + 1;
            } else {
                snprintf(hex + i * 3, 4, "   ");
            }
        }
        hex[16 * 3 - 1] = '\0';
        text[n] = '\0';
        TLG1_Printf(&dumpRecord, __LINE__, "%08x  %s  |%s|\n", static_cast<unsigned>(row), hex,
                    text);
    }
}

}  // extern "C"
