// How the library ends the process it is loaded into, for the few
// conditions under which its caller cannot go on (a transport that cannot
// start, an unknown transport kind, a receive buffer that cannot be had).
#ifndef ZEVD_COMMON_PROCESS_END_H
#define ZEVD_COMMON_PROCESS_END_H

#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "zev0.h"

namespace zevd {

// Writes the reason as one line, "PROGRAM: libzevd610: REASON, exiting",
// to standard error whatever the trace levels: the trace may be off, or in
// a file nobody reads, and a process that vanishes without a word is the
// hardest failure to find. Then flushes both standard streams, pauses
// pauseSeconds (the client's second for the trace to reach its file; the
// DCH side does not pause) and exits with status 1. The line is formatted
// on the stack and written with one write(2): no allocation, which may be
// what failed.
[[noreturn]] inline void endProcess(int pauseSeconds, const char *format, ...)
    __attribute__((format(printf, 2, 3)));

inline void endProcess(int pauseSeconds, const char *format, ...) {
    char reason[512];
    va_list args;
    va_start(args, format);
    vsnprintf(reason, sizeof reason, format, args);
    va_end(args);
    char line[640];
    int length = snprintf(line, sizeof line, "%s: libzevd610: %s, exiting\n",
                          program_invocation_short_name, reason);
    if (length > 0) {
        // A line cut to the buffer still ends with its line end.
        if (length >= static_cast<int>(sizeof line)) {
            length = static_cast<int>(sizeof line) - 1;
            line[length - 1] = '\n';
        }
        fflush(stderr);
        ssize_t ignored = write(STDERR_FILENO, line, static_cast<size_t>(length));
        (void)ignored;
    }
    fflush(stderr);
    fflush(stdout);
    if (pauseSeconds > 0) OSV1_Sleep(pauseSeconds);
    exit(1);
}

}  // namespace zevd

#endif  // ZEVD_COMMON_PROCESS_END_H
