// zevdchd: the reference DCH daemon. Runs in the foreground until SIGINT or
// SIGTERM; SIGUSR1 writes its counters to the trace, SIGHUP opens the trace
// file again and writes them there.
#include <arpa/inet.h>
#include <getopt.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include "common/trace.h"
#include "ipc/zevdsock.h"
#include "zev0.h"
#include "zevdchd.h"
#include "zevdchd_http.h"
#include "zevdchd_notify.h"
#include "zevdchd_server.h"

namespace zevd::dch {

ZEVD_TRACE_UNIT(dch::unitZevdchd);

namespace {

constexpr int kExitUsage = 2;
// How often the main thread looks whether the receive loop still runs.
constexpr long kLoopCheckNanoseconds = 250L * 1000 * 1000;

const char kUsage[] =
    "usage: zevdchd [--port N] [--allow CIDR,...] [--state-dir DIR] [--source-ttl SECONDS]\n"
    "               [--rcvbuf BYTES] [--metrics [ADDR:]PORT] [--max-catalogue BYTES]\n"
    "               [--max-subscribers N] [--trace LEVELS] [--trace-file PATH]\n"
    "               [--help] [--version]\n"
    "\n"
    "The reference DCH: serves data providers and consumers on one UDP and TCP\n"
    "port, in the foreground, until SIGINT or SIGTERM (exit status 0).\n"
    "\n"
    "  --port N          the DCH port (default: ZEVA_DCH_PORT, settings item 21, 1919)\n"
    "  --allow CIDR,...  networks served besides loopback and this host's own\n"
    "                    addresses (default: ZEVA_DCH_ALLOW)\n"
    "  --state-dir DIR   keep the catalogue and the open handles in DIR: every\n"
    "                    change answered 0 is on disk first; one daemon per DIR\n"
    "  --source-ttl SECONDS\n"
    "                    take a handle offline after SECONDS without a row or an\n"
    "                    online (default: 0, never)\n"
    "  --rcvbuf BYTES    receive buffer of the UDP port, 4096 to 1073741824\n"
    "                    (default: ZEVA_DCH_RCVBUF, else 33554432; beyond\n"
    "                    net.core.rmem_max only with CAP_NET_ADMIN)\n"
    "  --metrics [ADDR:]PORT\n"
    "                    serve GET /metrics (Prometheus text format) over HTTP on\n"
    "                    ADDR:PORT, 127.0.0.1 when only PORT is given; port 0\n"
    "                    lets the system choose (default: off); a connection that\n"
    "                    has not sent a whole request within 5 s is closed, and\n"
    "                    at 256 connections the oldest such one makes room\n"
    "  --max-catalogue BYTES\n"
    "                    registration text of every catalogue together, 1 to\n"
    "                    268435456 (default: 67108864); a register past it,\n"
    "                    or past 1024 groups or 4096 attributes a group, is\n"
    "                    answered 21 and changes nothing\n"
    "  --max-subscribers N\n"
    "                    data and status subscribers together, 1 to 1048576\n"
    "                    (default: 4096); a subscription past it is refused,\n"
    "                    traced and counted (drops reason subscriber_limit)\n"
    "  --trace LEVELS    trace levels, as ZEVA_TRACE (e.g. zevdchd=all)\n"
    "  --trace-file PATH append the trace to PATH (default: standard error)\n"
    "  --help            this text\n"
    "  --version         the version\n"
    "\n"
    "Prints \"zevdchd metrics on http://ADDR:PORT/metrics\" once that listens, and\n"
    "\"zevdchd ready on port N\" once the DCH port is open (and tells a service\n"
    "manager through NOTIFY_SOCKET). SIGUSR1 writes the counters to the trace;\n"
    "SIGHUP opens --trace-file again (after a rotation) and writes them there.\n"
    "Exit status 1 when a port cannot be owned, the state directory cannot be\n"
    "used or the receive loop ends, 2 for bad usage.\n";

int usageError(const std::string &what) {
    fprintf(stderr, "zevdchd: %s\nTry 'zevdchd --help'.\n", what.c_str());
    return kExitUsage;
}

// The longest --source-ttl: ten years.
constexpr long kMaxSourceTtl = 10L * 366 * 24 * 3600;
// How often idle handles are looked for when --source-ttl is set.
constexpr auto kTick = std::chrono::seconds(1);

// A receive buffer size in bytes, as --rcvbuf and ZEVA_DCH_RCVBUF give it:
// a decimal number within the range; -1 when it is not one.
long receiveBufferBytes(const char *text) {
    char *end = nullptr;
    errno = 0;
    long bytes = strtol(text, &end, 10);
    if (*text == '\0' || *end != '\0' || errno != 0 || bytes < kMinReceiveBuffer ||
        bytes > kMaxReceiveBuffer)
        return -1;
    return bytes;
}

// The largest --max-catalogue: the state files of a catalogue this large
// (the snapshot holds its text with a byte escaped as three at worst, and
// the journal grows to about the snapshot's size) stay within the 1 GiB
// that a start reads.
constexpr unsigned long long kMostCatalogue = 256ULL << 20;

// A limit as --max-catalogue and --max-subscribers take it: a decimal
// number from 1 to most; 0 when it is not one.
size_t limitValue(const char *text, unsigned long long most) {
    char *end = nullptr;
    errno = 0;
    unsigned long long value = strtoull(text, &end, 10);
    if (*text < '0' || *text > '9' || *end != '\0' || errno != 0 || value < 1 || value > most)
        return 0;
    return static_cast<size_t>(value);
}

void writeCounters(Dch &dch, const Worker &worker) {
    ZEVD_TRACE_LEVEL("zevdchd::counters");
    dch.counters().drops[kDropKernel] = worker.kernelDrops();
    // Written whatever the levels: they are asked for.
    for (const std::string &line : dch.counters().lines())
        TLG1_Printf(trc.record(), __LINE__, "%s", line.c_str());
}

int run(int argc, char **argv) {
    static const option kOptions[] = {
        {"port", required_argument, nullptr, 'p'},
        {"allow", required_argument, nullptr, 'a'},
        {"state-dir", required_argument, nullptr, 's'},
        {"source-ttl", required_argument, nullptr, 'T'},
        {"rcvbuf", required_argument, nullptr, 'r'},
        {"metrics", required_argument, nullptr, 'm'},
        {"max-catalogue", required_argument, nullptr, 'C'},
        {"max-subscribers", required_argument, nullptr, 'S'},
        {"trace", required_argument, nullptr, 't'},
        {"trace-file", required_argument, nullptr, 'f'},
        {"help", no_argument, nullptr, 'h'},
        {"version", no_argument, nullptr, 'V'},
        {nullptr, 0, nullptr, 0},
    };
    const char *allowList = getenv("ZEVA_DCH_ALLOW");
    std::string stateDir;
    const char *receiveBuffer = nullptr;
    const char *metrics = nullptr;
    size_t maxCatalogue = kDefaultMaxCatalogue;
    size_t maxSubscribers = kDefaultMaxSubscribers;
    long sourceTtl = 0;
    opterr = 0;
    int option = 0;
    while ((option = getopt_long(argc, argv, ":", kOptions, nullptr)) != -1) {
        switch (option) {
            case 'p': {
                char *end = nullptr;
                long port = strtol(optarg, &end, 10);
                if (*optarg == '\0' || *end != '\0' || port < 1 || port > 65535)
                    return usageError(std::string("--port takes 1 to 65535, not '") + optarg + "'");
                setenv("ZEVA_DCH_PORT", optarg, 1);
                break;
            }
            case 'a': allowList = optarg; break;
            case 's': stateDir = optarg; break;
            case 'T': {
                char *end = nullptr;
                errno = 0;
                sourceTtl = strtol(optarg, &end, 10);
                if (*optarg == '\0' || *end != '\0' || errno != 0 || sourceTtl < 0 ||
                    sourceTtl > kMaxSourceTtl)
                    return usageError(std::string("--source-ttl takes 0 to ") +
                                      std::to_string(kMaxSourceTtl) + " seconds, not '" + optarg +
                                      "'");
                break;
            }
            case 'r': receiveBuffer = optarg; break;
            case 'm': metrics = optarg; break;
            case 'C':
                if ((maxCatalogue = limitValue(optarg, kMostCatalogue)) == 0)
                    return usageError(std::string("--max-catalogue takes 1 to 268435456 bytes, "
                                                  "not '") +
                                      optarg + "'");
                break;
            case 'S':
                if ((maxSubscribers = limitValue(optarg, 1ULL << 20)) == 0)
                    return usageError(std::string("--max-subscribers takes 1 to 1048576, not '") +
                                      optarg + "'");
                break;
            case 't': setenv("ZEVA_TRACE", optarg, 1); break;
            case 'f': setenv("ZEVA_TRACE_FILE", optarg, 1); break;
            case 'h': fputs(kUsage, stdout); return 0;
            case 'V': printf("zevdchd %s\n", ZEVD_VERSION); return 0;
            case ':': return usageError(std::string(argv[optind - 1]) + " needs a value");
            default: return usageError(std::string("unknown option '") + argv[optind - 1] + "'");
        }
    }
    if (optind < argc) return usageError(std::string("unexpected argument '") + argv[optind] + "'");
    // The environment the library reads is checked as the options are: a
    // port that is no port would otherwise open one of the system's choice.
    if (const char *port = getenv("ZEVA_DCH_PORT");
        port != nullptr && *port != '\0' && limitValue(port, 65535) == 0)
        return usageError(std::string("ZEVA_DCH_PORT takes 1 to 65535, not '") + port + "'");
    // Without ZEVA_DCH_PORT the library takes the port from the settings
    // file, read the same way: an item that is no port is refused too.
    if (const char *item = getenv("ZEVA_DCH_PORT") == nullptr ? ZEV0_QueryProductSpec(21) : nullptr;
        item != nullptr && limitValue(item, 65535) == 0)
        return usageError(std::string("settings item 21 takes 1 to 65535, not '") + item + "'");
    if (const char *timeout = getenv("ZEVA_DCH_TIMEOUT"); timeout != nullptr && *timeout != '\0' &&
                                                          strcmp(timeout, "0") != 0 &&
                                                          limitValue(timeout, 32767) == 0)
        return usageError(std::string("ZEVA_DCH_TIMEOUT takes 0 to 32767 seconds, not '") +
                          timeout + "'");
    long receiveBufferSize = kDefaultReceiveBuffer;
    if (receiveBuffer == nullptr) receiveBuffer = getenv("ZEVA_DCH_RCVBUF");
    if (receiveBuffer != nullptr && (receiveBufferSize = receiveBufferBytes(receiveBuffer)) < 0)
        return usageError(std::string("--rcvbuf or ZEVA_DCH_RCVBUF takes 4096 to 1073741824 "
                                      "bytes, not '") +
                          receiveBuffer + "'");
    sockaddr_in metricsAddress{};
    std::string why;
    if (metrics != nullptr && !parseMetricsAddress(metrics, &metricsAddress, &why))
        return usageError(std::string("--metrics takes [ADDR:]PORT, not '") + metrics +
                          "': " + why);
    TLG1_Configure(nullptr);  // the trace options are in the environment now

    // Blocked before any thread starts, so every thread inherits the mask and
    // only the sigwait below takes them.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGUSR1);
    sigaddset(&signals, SIGHUP);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    signal(SIGPIPE, SIG_IGN);

    // Never deleted: the receive thread runs until the process ends.
    static SocketTransport *transport = new SocketTransport();
    static Dch *dch = new Dch(*transport);
    std::string bad;
    if (allowList != nullptr && !dch->allow(allowList, &bad))
        return usageError("--allow or ZEVA_DCH_ALLOW: '" + bad + "' is not a network a.b.c.d/n");
    dch->allowOwnAddresses();
    dch->setMaxCatalogue(maxCatalogue);
    dch->setKeepLatestValues(metrics != nullptr);
    dch->setMaxSubscribers(maxSubscribers);
    dch->setSourceTtl(std::chrono::seconds(sourceTtl));
    // Before the port opens: a daemon that cannot keep what it answers
    // does not serve.
    if (!stateDir.empty() && !dch->useStateDir(stateDir, &why)) {
        fprintf(stderr, "zevdchd: %s\n", why.c_str());
        return 1;
    }

    // Peers outside the served networks never hold one of the TCP client
    // slots (their requests would be dropped anyway), from the first
    // connection on: one waiting in a listener handed over by the service
    // manager is accepted as soon as the loop runs.
    auto *sock = new ipcSock(IPC_SERVICE_SERVER, 0, 0,
                             [](const sockaddr_in &peer) { return dch->admitsConnection(peer); });
    if (sock->ipcGetError() != 0) {
        fprintf(stderr, "zevdchd: the server transport could not start\n");
        return 1;
    }
    transport->attach(*sock);
    static Worker *worker = new Worker(*sock, *dch);
    worker->setReceiveBuffer(receiveBufferSize);
    // The metrics server asks the worker for each snapshot through the
    // queue. Never deleted, like the worker: see the end of run().
    static auto *board = new MetricsBoard([sock] {
        sock->ipc_put_data(static_cast<int32_t>(sizeof kSnapshotText), kSnapshotText, nullptr, 0,
                           nullptr, 0);
    });
    static auto *server = new MetricsServer(*board);
    if (metrics != nullptr) {
        if (!server->start(metricsAddress, &why)) {
            fprintf(stderr, "zevdchd: cannot serve metrics on %s: %s\n", metrics, why.c_str());
            return 1;
        }
        char host[INET_ADDRSTRLEN] = {};
        inet_ntop(AF_INET, &metricsAddress.sin_addr, host, sizeof host);
        printf("zevdchd metrics on http://%s:%u/metrics\n", host,
               static_cast<unsigned>(server->port()));
        fflush(stdout);
        worker->setMetricsBoard(board);
    }
    std::thread serving([] { worker->run(); });
    bool deaf = false;
    auto lastTick = std::chrono::steady_clock::now();
    for (;;) {
        // The receive loop ends only when its select fails for good; a
        // daemon that can no longer hear must not stay up. Asked of the
        // loop itself: the queue's error word, which says so too, is
        // written over by the next entry put or taken (a tick, a metrics
        // snapshot, the worker's next take).
        if (sock->sockLoopEnded()) {
            ZEVD_TRACE_LEVEL("zevdchd");
            ZEVD_TRACE(trc, TRACE_ERROR,
                       "Error: the receive loop ended (select failed: errno %d): exiting\n",
                       sock->sockEndErrno());
            fprintf(stderr, "zevdchd: the receive loop ended (select failed: %s): exiting\n",
                    strerror(sock->sockEndErrno()));
            deaf = true;
            break;
        }
        timespec wait = {0, kLoopCheckNanoseconds};
        int received = sigtimedwait(&signals, nullptr, &wait);
        // With --source-ttl the worker is asked every second to look for
        // idle handles between two requests.
        auto now = std::chrono::steady_clock::now();
        if (sourceTtl > 0 && now - lastTick >= kTick) {
            lastTick = now;
            sock->ipc_put_data(static_cast<int32_t>(sizeof kTickText), kTickText, nullptr, 0,
                               nullptr, 0);
        }
        if (received < 0) continue;
        if (received == SIGUSR1) {
            writeCounters(*dch, *worker);
            continue;
        }
        if (received == SIGHUP) {
            // After a log rotation: the trace file is opened again under its
            // name, and the counters start it.
            TLG1_Configure(nullptr);
            writeCounters(*dch, *worker);
            continue;
        }
        break;
    }
    notifyServiceManager("STOPPING=1\nSTATUS=stopping\n");
    // The metrics server stops first, while the worker still takes what its
    // asker may be queueing. A worker that failed takes nothing more: then
    // the server is left to end with the process.
    if (!worker->failed()) {
        server->stop();
        worker->stop();
    }
    serving.join();
    // The worker has stopped: nothing changes the state any more.
    if (!worker->failed() && !dch->writeStateSnapshot(&why))
        fprintf(stderr, "zevdchd: at the stop, %s; the journal keeps every change\n", why.c_str());
    writeCounters(*dch, *worker);
    return worker->failed() || deaf ? 1 : 0;
}

}  // namespace
}  // namespace zevd::dch

int main(int argc, char **argv) {
    int status = zevd::dch::run(argc, argv);
    fflush(stdout);
    fflush(stderr);
    // The receive thread is never joined: the process ends around it, without
    // running destructors that it could still be using.
    _exit(status);
}
