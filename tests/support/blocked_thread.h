// Finds out whether a thread of this process is blocked in a wait for its
// sockets (poll, or the server loop's select), so that a test signals it
// there and not a moment before.
#ifndef ZEVD_TESTS_SUPPORT_BLOCKED_THREAD_H
#define ZEVD_TESTS_SUPPORT_BLOCKED_THREAD_H

#include <sys/syscall.h>
#include <sys/types.h>

#include <chrono>
#include <fstream>
#include <string>

#include "support/trace_capture.h"
#include "support/wait_for.h"

namespace zevd::test {

// The thread id of the first line whose text contains part ("pid.tid" is
// the line's third word), or 0.
inline pid_t tracedThread(const TraceCapture &capture, const std::string &part) {
    for (const std::string &line : capture.lines()) {
        if (traceText(line).find(part) == std::string::npos) continue;
        size_t first = line.find(' ');
        size_t second = first == std::string::npos ? first : line.find(' ', first + 1);
        size_t dot = second == std::string::npos ? second : line.find('.', second + 1);
        if (dot == std::string::npos) return 0;
        return static_cast<pid_t>(std::stol(line.substr(dot + 1)));
    }
    return 0;
}

// True once thread tid of this process sits in poll or select (ppoll,
// pselect6 too), false after limit.
inline bool waitBlockedInSocketWait(pid_t tid, std::chrono::milliseconds limit) {
    const std::string path = "/proc/self/task/" + std::to_string(tid) + "/syscall";
    return waitFor(
        [&] {
            std::ifstream in(path);
            long number = -1;
            in >> number;
            return number == SYS_poll || number == SYS_ppoll || number == SYS_select ||
                   number == SYS_pselect6;
        },
        limit);
}

}  // namespace zevd::test

#endif  // ZEVD_TESTS_SUPPORT_BLOCKED_THREAD_H
