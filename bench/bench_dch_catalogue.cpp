// Registering a large catalogue with the daemon's handlers, without sockets:
// one dp_register of 40,000 attributes in ten groups of 4,000, each with a
// help text (about 3.3 MB of request), handed to Dch::handle as the worker
// would. The floor is the plainest pass over the same request: every field
// read with the field reader, nothing kept.
//
// Counters: attributes_per_s, and bytes_per_text_byte, the heap the
// catalogue holds once registered (mallinfo2 before and after, the request
// itself not counted) over the bytes of its request; 1.0 would be the
// request's text kept as it came.
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "common/message.h"
#include "zevd610.h"
#include "zevdchd.h"

namespace {

constexpr int kGroups = 10;
constexpr int kAttributesPerGroup = 4000;

// Drops everything: the answer of a register is a status.
class NullTransport : public zevd::dch::Transport {
public:
    bool answer(const zevd::dch::Peer &, const char *, size_t) override { return true; }
    bool deliver(const zevd::dch::Peer &, const char *, size_t) override { return true; }
};

// With help texts, or bare: short names and no help at all, where the
// catalogue's own bookkeeping weighs most against its text.
std::vector<char> buildRequest(bool helps) {
    std::vector<char> buffer(8u << 20);
    zevd::MessageBuilder message(buffer.data(), buffer.size());
    message.clear();
    message.add16(DCH_requestType, ZEVD_REQ_DP_REGISTER);
    message.addString(DCH_applName, "bench");
    message.addString(0x200, helps ? "an application of many attributes" : "");
    char name[40], help[80];
    for (int g = 0; g < kGroups; ++g) {
        snprintf(name, sizeof name, "group%02d", g);
        message.addString(DCH_attrGroup, name);
        message.addString(0x200, helps ? "a group of 4000 attributes" : "");
        for (int a = 0; a < kAttributesPerGroup; ++a) {
            snprintf(name, sizeof name, helps ? "attribute%05d" : "a%d", a);
            if (helps)
                snprintf(help, sizeof help, "the reading of attribute %05d of group %02d", a, g);
            else
                help[0] = '\0';
            message.addString(DCH_attrName, name);
            message.add16(0x201, a % 2 == 0 ? 'A' : 'D');
            message.add32(0x202, a % 2 == 0 ? 4 : 32);
            message.addString(0x200, help);
        }
    }
    if (!message.ok()) abort();
    buffer.resize(message.length());
    return buffer;
}

const std::vector<char> &registerRequest(bool helps = true) {
    static const std::vector<char> withHelp = buildRequest(true);
    static const std::vector<char> bare = buildRequest(false);
    return helps ? withHelp : bare;
}

zevd::dch::Peer provider() {
    zevd::dch::Peer peer;
    peer.addr.sin_family = AF_INET;
    peer.addr.sin_port = htons(40001);
    peer.addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return peer;
}

void BM_Floor_ReadFields(benchmark::State &state) {
    const std::vector<char> &request = registerRequest();
    for (auto _ : state) {
        zevd::FieldReader reader(request.data(), request.size());
        size_t bytes = 0;
        while (!reader.atEnd()) {
            if (reader.next() == 0) abort();
            bytes += static_cast<size_t>(reader.length());
        }
        benchmark::DoNotOptimize(bytes);
    }
    state.counters["attributes_per_s"] = benchmark::Counter(
        double(kGroups) * kAttributesPerGroup, benchmark::Counter::kIsIterationInvariantRate);
}

void BM_Register40k(benchmark::State &state) {
    const std::vector<char> &request = registerRequest(state.range(0) != 0);
    NullTransport transport;
    double held = 0;
    for (auto _ : state) {
        state.PauseTiming();
        auto dch = std::make_unique<zevd::dch::Dch>(transport);
        size_t before = mallinfo2().uordblks;
        state.ResumeTiming();
        dch->handle(zevd::dch::Request{request.data(), request.size(), provider()});
        state.PauseTiming();
        if (dch->applications().count("bench") != 1) abort();
        held = double(mallinfo2().uordblks - before);
        dch.reset();
        state.ResumeTiming();
    }
    state.counters["attributes_per_s"] = benchmark::Counter(
        double(kGroups) * kAttributesPerGroup, benchmark::Counter::kIsIterationInvariantRate);
    state.counters["bytes_per_text_byte"] = held / double(request.size());
    state.counters["request_bytes"] = double(request.size());
}

}  // namespace

BENCHMARK(BM_Floor_ReadFields)->Unit(benchmark::kMillisecond);
// 1: with help texts; 0: bare.
BENCHMARK(BM_Register40k)->Arg(1)->Arg(0)->Unit(benchmark::kMillisecond)->Iterations(3);

BENCHMARK_MAIN();
