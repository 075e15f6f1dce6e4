// Finds out whether a thread of this process is blocked in a wait for its
// sockets (poll, or the server loop's select), so that a test signals it
// there and not a moment before; and a signal's handler for a case.
#ifndef ZEVD_TESTS_SUPPORT_BLOCKED_THREAD_H
#define ZEVD_TESTS_SUPPORT_BLOCKED_THREAD_H

#include <pthread.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/types.h>

#include <chrono>
#include <cstring>
#include <fstream>
#include <initializer_list>
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

// True once thread tid of this process sits in one of the system calls
// (their numbers), false after limit.
inline bool waitBlockedIn(pid_t tid, std::initializer_list<long> calls,
                          std::chrono::milliseconds limit) {
    const std::string path = "/proc/self/task/" + std::to_string(tid) + "/syscall";
    return waitFor(
        [&] {
            std::ifstream in(path);
            long number = -1;
            in >> number;
            for (long call : calls)
                if (number == call) return true;
            return false;
        },
        limit);
}

// True once thread tid of this process sits in poll or select (ppoll,
// pselect6 too), false after limit.
inline bool waitBlockedInSocketWait(pid_t tid, std::chrono::milliseconds limit) {
    return waitBlockedIn(tid, {SYS_poll, SYS_ppoll, SYS_select, SYS_pselect6}, limit);
}

// Once the thread that wrote a line containing part sits in a socket wait,
// sends thread the signal; false when it did not within limit (nothing is
// sent then).
inline bool signalInSocketWait(const TraceCapture &capture, const std::string &part,
                               pthread_t thread, int signal, std::chrono::milliseconds limit) {
    pid_t tid = 0;
    if (!waitFor([&] { return (tid = tracedThread(capture, part)) != 0; }, limit)) return false;
    return waitBlockedInSocketWait(tid, limit) && pthread_kill(thread, signal) == 0;
}

// handler for signal (with flags, such as SA_RESTART) while it lives; what
// was there before comes back after.
class ScopedSignalAction {
public:
    ScopedSignalAction(int signal, void (*handler)(int), int flags) : signal_(signal) {
        struct sigaction action;
        memset(&action, 0, sizeof action);
        action.sa_handler = handler;
        action.sa_flags = flags;
        sigemptyset(&action.sa_mask);
        installed_ = sigaction(signal, &action, &previous_) == 0;
    }
    ~ScopedSignalAction() {
        if (installed_) sigaction(signal_, &previous_, nullptr);
    }
    ScopedSignalAction(const ScopedSignalAction &) = delete;
    ScopedSignalAction &operator=(const ScopedSignalAction &) = delete;
    bool installed() const { return installed_; }

private:
    int signal_;
    struct sigaction previous_ {};
    bool installed_ = false;
};

}  // namespace zevd::test

#endif  // ZEVD_TESTS_SUPPORT_BLOCKED_THREAD_H
