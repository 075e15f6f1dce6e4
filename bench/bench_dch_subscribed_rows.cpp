// A row handled by the daemon's handlers, without sockets, while other
// consumers hold data subscriptions to other groups: 0, 4096 and 65536 of
// them, and one subscriber of the row's own group, which gets the row. The
// floor is the same row with no subscriber besides its own: what the
// others cost a row is the figure over the floor.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "common/message.h"
#include "zev0.h"
#include "zevd610.h"
#include "zevdchd.h"

namespace {

using zevd::dch::Dch;
using zevd::dch::Peer;
using zevd::dch::Request;

// Counts what it is handed and sends nothing.
class CountingTransport : public zevd::dch::Transport {
public:
    bool answer(const Peer &, const char *, size_t) override { return true; }
    bool deliver(const Peer &, const char *, size_t) override {
        ++delivered;
        return true;
    }
    uint64_t delivered = 0;
};

Peer peerAt(uint16_t port) {
    Peer peer;
    peer.addr.sin_family = AF_INET;
    peer.addr.sin_port = htons(port);
    peer.addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return peer;
}

template <typename Fill>
std::vector<char> message(Fill fill) {
    std::vector<char> buffer(zevd::kRequestSize);
    zevd::MessageBuilder b(buffer.data(), buffer.size());
    b.clear();
    fill(b);
    buffer.resize(b.length());
    return buffer;
}

void handle(Dch &dch, std::vector<char> bytes, const Peer &from) {
    dch.handle(Request{bytes.data(), bytes.size(), from});
}

// others subscriptions, each to a group of an application of its own
// that nothing sends; one to the row's group.
void subscribedRow(benchmark::State &state, int others) {
    CountingTransport transport;
    Dch dch(transport);
    dch.setMaxSubscribers(static_cast<size_t>(others) + 1);
    Peer provider = peerAt(40001);
    char *registration = nullptr;
    if (ZEVP_ConstructDPregisterBuffer("APPL app;GROUP grp;ATTR count A 4", &registration) == 0) {
        state.SkipWithError("the registration text does not read");
        return;
    }
    handle(dch, std::vector<char>(registration, registration + zevd::messageLength(registration)),
           provider);
    handle(dch, message([](zevd::MessageBuilder &b) {
               b.add16(DCH_requestType, ZEVD_REQ_DP_ONLINE);
               b.addString(DCH_applName, "app");
               b.addString(DCH_attrGroup, "grp");
               b.addString(DCH_sourceName, "src");
           }),
           provider);
    auto subscribe = [&](const std::string &appl, const std::string &group, uint16_t port) {
        handle(dch, message([&](zevd::MessageBuilder &b) {
                   b.add16(DCH_requestType, ZEVD_REQ_DC_WAIT_ON_DATA);
                   b.addString(DCH_applName, appl.c_str());
                   b.addString(DCH_attrGroup, group.c_str());
                   b.add32(DCH_status, 1);
               }),
               peerAt(port));
    };
    for (int i = 0; i < others; ++i) {
        char appl[32], group[32];
        snprintf(appl, sizeof appl, "other%d", i % 997);
        snprintf(group, sizeof group, "g%d", i);
        subscribe(appl, group, 20000);
    }
    subscribe("app", "grp", 41001);
    if (dch.dataSubscribers().size() != static_cast<size_t>(others) + 1) {
        state.SkipWithError("the subscriptions were not all taken");
        return;
    }
    std::vector<char> row = message([](zevd::MessageBuilder &b) {
        b.add16(DCH_requestType, ZEVD_REQ_DP_DATA);
        b.add32(DCH_handle, 1);
        b.add16(DCH_dataFlag, 0);
        b.addString(DCH_attrName, "count");
        uint32_t value = htonl(7);
        b.addValue(DCH_attrValue, &value, sizeof value, nullptr);
    });
    for (auto _ : state) dch.handle(Request{row.data(), row.size(), provider});
    if (transport.delivered != static_cast<uint64_t>(state.iterations()))
        state.SkipWithError("rows were not delivered");
    state.counters["rows_per_s"] =
        benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}

void BM_Floor_RowWithItsSubscriberAlone(benchmark::State &state) {
    subscribedRow(state, 0);
}
BENCHMARK(BM_Floor_RowWithItsSubscriberAlone);

void BM_RowAmongOtherSubscriptions(benchmark::State &state) {
    subscribedRow(state, static_cast<int>(state.range(0)));
}
BENCHMARK(BM_RowAmongOtherSubscriptions)->ArgName("others")->Arg(4096)->Arg(65536);

}  // namespace

BENCHMARK_MAIN();
