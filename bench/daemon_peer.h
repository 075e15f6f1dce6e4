// zevdchd in a child process for the benchmarks that go through it.
#ifndef ZEVD_BENCH_DAEMON_PEER_H
#define ZEVD_BENCH_DAEMON_PEER_H

#include <cstdlib>
#include <string>

#include "peers.h"
#include "support/free_port.h"
#include "zevd610.h"

namespace zevd::bench {

// ZEVD_BENCH_DAEMON runs the benchmarks against another build of the daemon
// (an older one, to measure what a change bought).
inline std::string daemonPath() {
    if (const char *other = getenv("ZEVD_BENCH_DAEMON"); other != nullptr && other[0] != '\0')
        return other;
#ifdef ZEVD_DAEMON_PATH
    return ZEVD_DAEMON_PATH;
#else
    return "zevdchd";
#endif
}

// zevdchd for this process, with the catalogue the benchmarks use; fixed
// before the library reads its configuration.
inline const Child &daemon() {
    static const Child dch = [] {
        uint16_t port = test::freeLoopbackPort();
        Child started =
            startServer(daemonPath(), {"--port", std::to_string(port)}, "zevdchd ready on port %u");
        if (started.pid > 0) {
            setenv("ZEVA_DCH_ADDR", "127.0.0.1", 1);
            setenv("ZEVA_DCH_PORT", std::to_string(started.port).c_str(), 1);
            long status = -1;
            std::string text = "APPL bench;GROUP group;ATTR a A 4;GROUP rows";
            for (int i = 0; i < 5; ++i) text += ";ATTR n" + std::to_string(i) + " A 4";
            for (int i = 0; i < 5; ++i) text += ";ATTR s" + std::to_string(i) + " D 16";
            if (dp_register(&status, text.c_str()) != 0 || status != 0) started.pid = -1;
        }
        return started;
    }();
    return dch;
}

}  // namespace zevd::bench

#endif  // ZEVD_BENCH_DAEMON_PEER_H
