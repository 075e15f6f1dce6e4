// The comparison rows of the round trip: ZeroMQ and nng REQ/REP with the
// sizes of dp_online's exchange (a 44-byte request, a 24-byte answer), over
// TCP on loopback and over Unix-domain sockets. Each REP end runs in a child
// process, as zevdchd does, and answers every request with the same bytes.
//
// Both libraries are optional (libzmq3-dev, libnng-dev): without one, its
// rows are still there and each is skipped with the package it needs, so the
// report says why they are missing.
#ifndef ZEVD_BENCH_MQ_PEERS_H
#define ZEVD_BENCH_MQ_PEERS_H

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#ifdef ZEVD_BENCH_HAVE_ZMQ
#include <zmq.h>
#endif
#ifdef ZEVD_BENCH_HAVE_NNG
#include <nng/nng.h>
#include <nng/protocol/reqrep0/rep.h>
#include <nng/protocol/reqrep0/req.h>
#endif

#include "peers.h"

namespace zevd::bench {

enum class MqLibrary { zeroMq, nng };
enum class MqTransport { tcp, ipc };

// A REP process: its endpoint, or why there is none.
struct MqPeer {
    pid_t pid = -1;
    std::string endpoint;
    std::string error;
};

// How long a request waits for its answer before the run is given up.
constexpr int kMqReceiveMillis = 5000;

// The answer every REP end gives: a dp_online answer's size.
inline const unsigned char kMqAnswer[kAnswerBytes] = {0, 0, 0, 24,  0, 17, 0, 0, 0, 4, 0, 0,
                                                      0, 0, 0, 128, 0, 0,  0, 4, 0, 0, 0, 7};

inline std::string mqSocketPath(const char *library) {
    return "/tmp/zevd-bench-" + std::string(library) + "-" + std::to_string(getpid()) + ".sock";
}

// Serves REP in this (child) process: binds, writes the endpoint as one line
// to ready, then answers for ever. Returns only when the set-up failed.
inline void serveRep(MqLibrary library, MqTransport transport, int ready) {
    char line[256];
#ifdef ZEVD_BENCH_HAVE_ZMQ
    if (library == MqLibrary::zeroMq) {
        void *context = zmq_ctx_new();
        void *rep = zmq_socket(context, ZMQ_REP);
        std::string endpoint = transport == MqTransport::tcp ? std::string("tcp://127.0.0.1:*")
                                                             : "ipc://" + mqSocketPath("zmq");
        if (rep == nullptr || zmq_bind(rep, endpoint.c_str()) != 0) return;
        char bound[256] = {};
        size_t length = sizeof bound;
        if (zmq_getsockopt(rep, ZMQ_LAST_ENDPOINT, bound, &length) != 0) return;
        int n = snprintf(line, sizeof line, "%s\n", bound);
        if (write(ready, line, static_cast<size_t>(n)) != n) return;
        char request[8192];
        for (;;) {
            if (zmq_recv(rep, request, sizeof request, 0) < 0) continue;
            zmq_send(rep, kMqAnswer, sizeof kMqAnswer, 0);
        }
    }
#endif
#ifdef ZEVD_BENCH_HAVE_NNG
    if (library == MqLibrary::nng) {
        nng_socket rep;
        nng_listener listener;
        std::string endpoint = transport == MqTransport::tcp ? std::string("tcp://127.0.0.1:0")
                                                             : "ipc://" + mqSocketPath("nng");
        if (nng_rep0_open(&rep) != 0 || nng_listen(rep, endpoint.c_str(), &listener, 0) != 0)
            return;
        if (transport == MqTransport::tcp) {
            int port = 0;
            if (nng_listener_get_int(listener, NNG_OPT_TCP_BOUND_PORT, &port) != 0) return;
            endpoint = "tcp://127.0.0.1:" + std::to_string(port);
        }
        int n = snprintf(line, sizeof line, "%s\n", endpoint.c_str());
        if (write(ready, line, static_cast<size_t>(n)) != n) return;
        char request[8192];
        for (;;) {
            size_t size = sizeof request;
            if (nng_recv(rep, request, &size, 0) != 0) continue;
            nng_send(rep, const_cast<unsigned char *>(kMqAnswer), sizeof kMqAnswer, 0);
        }
    }
#endif
    (void)library;
    (void)transport;
    (void)ready;
    (void)line;
}

// Why the rows of library cannot run in this build, or empty.
inline std::string mqMissing(MqLibrary library) {
#ifndef ZEVD_BENCH_HAVE_ZMQ
    if (library == MqLibrary::zeroMq)
        return "built without libzmq: install libzmq3-dev and configure again";
#endif
#ifndef ZEVD_BENCH_HAVE_NNG
    if (library == MqLibrary::nng)
        return "built without nng: install libnng-dev and configure again";
#endif
    (void)library;
    return "";
}

inline MqPeer startRep(MqLibrary library, MqTransport transport) {
    MqPeer peer;
    peer.error = mqMissing(library);
    if (!peer.error.empty()) return peer;
    int out[2];
    if (pipe2(out, O_CLOEXEC) != 0) {
        peer.error = "no pipe for the REP process";
        return peer;
    }
    pid_t pid = fork();
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);  // ends with this program
        close(out[0]);
        serveRep(library, transport, out[1]);
        _exit(1);
    }
    close(out[1]);
    if (pid < 0) {
        close(out[0]);
        peer.error = "the REP process could not be started";
        return peer;
    }
    adopt(pid);
    std::string line = readLine(out[0]);
    close(out[0]);
    if (line.empty() || line.back() != '\n') {
        peer.error = "the REP process did not bind";
        return peer;
    }
    line.pop_back();
    peer.pid = pid;
    peer.endpoint = line;
    return peer;
}

// The four REP processes, started together at the first use of any: a
// library's threads in this process are never forked.
inline const MqPeer &mqPeer(MqLibrary library, MqTransport transport) {
    // Never destroyed: the sockets' files are removed at exit, after
    // every destructor has run.
    static const std::vector<MqPeer> *peers = [] {
        auto *started = new std::vector<MqPeer>();
        for (MqLibrary l : {MqLibrary::zeroMq, MqLibrary::nng})
            for (MqTransport t : {MqTransport::tcp, MqTransport::ipc})
                started->push_back(startRep(l, t));
        atexit([] {
            for (const MqPeer &p : *peers)
                if (p.endpoint.rfind("ipc://", 0) == 0) unlink(p.endpoint.c_str() + 6);
        });
        return started;
    }();
    return (*peers)[(library == MqLibrary::nng ? 2 : 0) + (transport == MqTransport::ipc ? 1 : 0)];
}

// One REQ end in this process: open, one round trip that connects, then
// round trips; false, with error set, when any of it failed.
class MqRequester {
public:
    MqRequester(MqLibrary library, const std::string &endpoint) : library_(library) {
#ifdef ZEVD_BENCH_HAVE_ZMQ
        if (library == MqLibrary::zeroMq) {
            context_ = zmq_ctx_new();
            socket_ = context_ != nullptr ? zmq_socket(context_, ZMQ_REQ) : nullptr;
            int linger = 0;
            int wait = kMqReceiveMillis;
            open_ = socket_ != nullptr &&
                    zmq_setsockopt(socket_, ZMQ_LINGER, &linger, sizeof linger) == 0 &&
                    zmq_setsockopt(socket_, ZMQ_RCVTIMEO, &wait, sizeof wait) == 0 &&
                    zmq_connect(socket_, endpoint.c_str()) == 0;
        }
#endif
#ifdef ZEVD_BENCH_HAVE_NNG
        if (library == MqLibrary::nng) {
            open_ = nng_req0_open(&nng_) == 0;
            nngOpened_ = open_;
            open_ = open_ && nng_socket_set_ms(nng_, NNG_OPT_RECVTIMEO, kMqReceiveMillis) == 0 &&
                    nng_dial(nng_, endpoint.c_str(), nullptr, 0) == 0;
        }
#endif
        (void)endpoint;
        if (open_) open_ = roundTrip();
    }
    ~MqRequester() {
#ifdef ZEVD_BENCH_HAVE_ZMQ
        if (socket_ != nullptr) zmq_close(socket_);
        if (context_ != nullptr) zmq_ctx_term(context_);
#endif
#ifdef ZEVD_BENCH_HAVE_NNG
        if (nngOpened_) nng_close(nng_);
#endif
    }
    MqRequester(const MqRequester &) = delete;
    MqRequester &operator=(const MqRequester &) = delete;

    bool open() const {
        return open_;
    }

    // One request and its whole answer.
    bool roundTrip() {
        char answer[256];
#ifdef ZEVD_BENCH_HAVE_ZMQ
        if (library_ == MqLibrary::zeroMq) {
            if (zmq_send(socket_, kOnlineRequest, sizeof kOnlineRequest, 0) !=
                static_cast<int>(sizeof kOnlineRequest))
                return false;
            return zmq_recv(socket_, answer, sizeof answer, 0) == static_cast<int>(kAnswerBytes);
        }
#endif
#ifdef ZEVD_BENCH_HAVE_NNG
        if (library_ == MqLibrary::nng) {
            if (nng_send(nng_, const_cast<unsigned char *>(kOnlineRequest), sizeof kOnlineRequest,
                         0) != 0)
                return false;
            size_t size = sizeof answer;
            return nng_recv(nng_, answer, &size, 0) == 0 && size == kAnswerBytes;
        }
#endif
        (void)answer;
        return false;
    }

private:
    MqLibrary library_;
    bool open_ = false;
#ifdef ZEVD_BENCH_HAVE_ZMQ
    void *context_ = nullptr;
    void *socket_ = nullptr;
#endif
#ifdef ZEVD_BENCH_HAVE_NNG
    nng_socket nng_ = NNG_SOCKET_INITIALIZER;
    bool nngOpened_ = false;
#endif
};

// REQ/REP round trips with the REP process of library over transport.
inline void mqRoundTrips(benchmark::State &state, MqLibrary library, MqTransport transport) {
    std::string missing = mqMissing(library);
    if (!missing.empty()) {
        state.SkipWithError(missing.c_str());
        return;
    }
    const MqPeer &peer = mqPeer(library, transport);
    if (peer.pid <= 0) {
        state.SkipWithError(peer.error.c_str());
        return;
    }
    MqRequester requester(library, peer.endpoint);
    if (!requester.open()) {
        state.SkipWithError(("no REQ connection to " + peer.endpoint).c_str());
        return;
    }
    std::vector<double> micros;
    micros.reserve(kRoundTrips);
    for (auto _ : state) {
        Clock::time_point start = Clock::now();
        bool answered = requester.roundTrip();
        double taken = microsSince(start);
        micros.push_back(taken);
        state.SetIterationTime(taken / 1e6);
        if (!answered) {
            state.SkipWithError("no whole answer");
            break;
        }
    }
    reportPercentiles(state, micros, "round_trips");
}

}  // namespace zevd::bench

#endif  // ZEVD_BENCH_MQ_PEERS_H
