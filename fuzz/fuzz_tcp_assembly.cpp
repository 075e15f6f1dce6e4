// Any bytes as the stream a TCP client sends to the server loop, sent four
// ways, each on a connection of its own: whole, a byte at a time, cut at
// places drawn from the input, and with a cut inside each length word.
// Nothing may crash, and each way the loop must queue the same entries: the
// ones worked out once from the stream, as below. The loop is started once
// per process (the suites' LoopServer); each input makes four connections.
//
// The stream is sent as a client sends requests: one message at a time,
// each after the loop queued what the last gave (a read can take bytes of
// the next message, so a stream sent ahead would be joined as the kernel
// happens to hand it over). A message is what its length word announces. A
// word below 4 is sent alone and gives RESEND_MESSAGE; a word above what
// the loop joins gives RESEND_MESSAGE and DP-DISCONNECT, and the stream
// ends there; a word that announces more than is left, or a stream that
// ends inside a word, is sent with the end of the stream and gives the same
// two. A stream that ends after a whole message is reset and gives
// DP-DISCONNECT.
//
// Where the cuts must be seen as pieces of their own (the word's cut and
// the drawn cuts), each is sent once the loop read the one before, which
// its trace line tells. The bytes sent one at a time are not waited for:
// how the kernel joins them is left open. Each message takes at most 1000
// of them, below the loop's 1024 pieces (a message cut into more pieces
// is cut off by design, so it could not give the same).
//
// Only a peer that falls silent for the DCH time-out may give a different
// result (the loop cuts its message off): a run where the loop wrote that
// it waited out the time-out is not compared.
#include <arpa/inet.h>
#include <sys/socket.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "support/dch_server.h"
#include "zev0.h"

namespace {

using zevd::test::LoopServer;
using zevd::test::QueueEntry;
using zevd::test::TcpPeer;

constexpr uint32_t kMaxTcpMessage = 1023u * 4096u;  // the longest message the loop joins
constexpr size_t kSingleBytes = 1000;               // bytes sent one at a time, per message
constexpr size_t kMaxCuts = 16;                     // drawn cuts per message
constexpr auto kLimit = std::chrono::seconds(20);
// The loop's error lines tell a time-out; its detail lines each read.
constexpr char kQuietLevels[] = "none,ipcSock::IPCServer=error";
constexpr char kWatchingLevels[] = "none,ipcSock::IPCServer=error+detail";

// What the loop's trace lines tell: how many pieces it read, whether it
// waited out the time-out.
struct LoopWatch {
    std::mutex lock;
    std::condition_variable changed;
    uint64_t reads = 0;
    bool closed = false;  // the loop cut the message off and closed the connection
    std::atomic<bool> stalled{false};
};

LoopWatch &watch() {
    static auto *w = new LoopWatch;
    return *w;
}

void sink(void * /*ctx*/, const char *line, size_t len) {
    std::string text(line, len);
    LoopWatch &w = watch();
    if (text.find(" TCP: totalLen=") != std::string::npos) {
        std::lock_guard<std::mutex> guard(w.lock);
        ++w.reads;
        w.changed.notify_all();
    } else if (text.find("after its cut-off message") != std::string::npos) {
        std::lock_guard<std::mutex> guard(w.lock);
        w.closed = true;
        w.changed.notify_all();
    } else if (text.find("no more of the TCP message within") != std::string::npos) {
        w.stalled = true;
    }
}

uint64_t readsSoFar() {
    std::lock_guard<std::mutex> guard(watch().lock);
    return watch().reads;
}

// Waits until the loop read a piece after the first `before`, or closed the
// connection, after which it reads no more.
void waitRead(uint64_t before) {
    LoopWatch &w = watch();
    std::unique_lock<std::mutex> guard(w.lock);
    w.changed.wait_for(guard, kLimit, [&] { return w.reads > before || w.closed; });
}

// A new connection: the loop has not closed it.
void resetWatch() {
    LoopWatch &w = watch();
    std::lock_guard<std::mutex> guard(w.lock);
    w.closed = false;
    w.stalled = false;
}

LoopServer &server() {
    static LoopServer &s = []() -> LoopServer & {
        LoopServer &started = LoopServer::start();
        if (!started.waitEntries(1, std::chrono::seconds(30))) abort();  // IPC-SERVER_READY
        started.drain();
        return started;
    }();
    return s;
}

// One entry the loop is expected to queue.
struct Expected {
    enum Kind { message, resend, disconnect } kind;
    std::vector<char> bytes;  // the message
};

// One message of the stream as the client sends it.
struct Segment {
    size_t begin;
    size_t end;
    bool endStream;  // the client ends its side after it
    std::vector<Expected> gives;
};

uint32_t wordAt(const std::vector<char> &stream, size_t at) {
    uint32_t word;
    memcpy(&word, stream.data() + at, sizeof word);
    return ntohl(word);
}

// The stream cut into what the client sends, and what each gives.
std::vector<Segment> segmentsOf(const std::vector<char> &stream) {
    std::vector<Segment> segments;
    size_t at = 0;
    while (at < stream.size()) {
        size_t left = stream.size() - at;
        if (left < 4) {  // the stream ends inside a word
            segments.push_back(
                {at, stream.size(), true, {{Expected::resend, {}}, {Expected::disconnect, {}}}});
            return segments;
        }
        uint32_t word = wordAt(stream, at);
        if (word > kMaxTcpMessage) {  // cut off as soon as the word is read
            segments.push_back(
                {at, stream.size(), false, {{Expected::resend, {}}, {Expected::disconnect, {}}}});
            return segments;
        }
        if (word < 4) {
            segments.push_back({at, at + 4, false, {{Expected::resend, {}}}});
            at += 4;
            continue;
        }
        if (word > left) {  // stops short, then ends the stream
            segments.push_back(
                {at, stream.size(), true, {{Expected::resend, {}}, {Expected::disconnect, {}}}});
            return segments;
        }
        segments.push_back({at,
                            at + word,
                            false,
                            {{Expected::message, std::vector<char>(stream.begin() + at,
                                                                   stream.begin() + at + word)}}});
        at += word;
    }
    segments.push_back({at, at, false, {{Expected::disconnect, {}}}});  // closed
    return segments;
}

// A small generator seeded from the input, for the drawn cuts.
struct Draw {
    uint64_t state;
    explicit Draw(const std::vector<char> &stream) : state(1469598103934665603ull) {
        for (char c : stream) state = (state ^ static_cast<unsigned char>(c)) * 1099511628211ull;
    }
    uint64_t next() {
        state = state * 6364136223846793005ull + 1442695040888963407ull;
        return state >> 33;
    }
};

enum class Split { whole, bytes, drawn, inWord };

// The cuts of [begin, end) for the split, as offsets after begin.
std::vector<size_t> cutsOf(Split split, size_t length, Draw &draw) {
    std::vector<size_t> cuts;
    switch (split) {
        case Split::whole: break;
        case Split::bytes:
            for (size_t i = 1; i < length && i <= kSingleBytes; ++i) cuts.push_back(i);
            break;
        case Split::drawn: {
            if (length < 2) break;
            size_t count = 1 + draw.next() % kMaxCuts;
            size_t at = 0;
            for (size_t i = 0; i < count; ++i) {
                // Cuts cluster at the front, where the word is, and reach the end.
                size_t room = length - 1 - at;
                if (room == 0) break;
                size_t step = 1 + draw.next() % (i % 2 == 0 ? std::min<size_t>(room, 6) : room);
                at += step;
                cuts.push_back(at);
            }
            break;
        }
        case Split::inWord:
            if (length >= 2) cuts.push_back(1 + draw.next() % std::min<size_t>(length - 1, 3));
            break;
    }
    return cuts;
}

// The entry is the one wanted, from the peer at port, on the connection
// that the first entry named.
bool sameEntry(const QueueEntry &entry, const Expected &want, uint16_t port, uint32_t *fd) {
    if (*fd == 0) *fd = entry.connectedSockFD;
    if (entry.connectedSockFD != *fd || *fd == 0) return false;
    bool fromPeer = entry.clientName == "127.0.0.1" && ntohs(entry.from.sin_port) == port;
    switch (want.kind) {
        case Expected::message: return entry.holds(want.bytes) && fromPeer;
        case Expected::resend: return entry.text() == "RESEND_MESSAGE" && fromPeer;
        case Expected::disconnect:
            return entry.text() == "DP-DISCONNECT" && entry.clientName == std::string(255, ' ');
    }
    return false;
}

// Sends the stream split one way and checks what the loop queued.
void sendSplit(const std::vector<char> &stream, const std::vector<Segment> &segments, Split split) {
    LoopServer &loop = server();
    Draw draw(stream);
    resetWatch();
    // The detail lines cost a formatted line for each piece: only the splits
    // that wait for each piece read have them.
    bool waitEach = split == Split::drawn || split == Split::inWord;
    TLG1_Configure(waitEach ? kWatchingLevels : kQuietLevels);
    TcpPeer peer(loop.port());
    if (!peer.connected()) abort();
    uint16_t port = peer.localPort();
    size_t queued = loop.count();
    std::vector<QueueEntry> got;
    std::vector<Expected> wanted;
    bool sending = true;
    for (const Segment &segment : segments) {
        if (segment.begin == segment.end && segment.gives[0].kind == Expected::disconnect) {
            // A reset, not a close: thousands of connections a second would
            // otherwise use up the local ports in TIME_WAIT.
            peer.reset();
        } else if (sending) {
            std::vector<size_t> cuts = cutsOf(split, segment.end - segment.begin, draw);
            cuts.push_back(segment.end - segment.begin);
            size_t from = 0;
            for (size_t cut : cuts) {
                uint64_t before = readsSoFar();
                // A loop that closed the connection refuses the rest.
                if (!peer.send(stream.data() + segment.begin + from, cut - from)) {
                    sending = false;
                    break;
                }
                from = cut;
                if (waitEach && cut < segment.end - segment.begin) waitRead(before);
            }
            if (segment.endStream) peer.shutdownWrite();
        }
        wanted.insert(wanted.end(), segment.gives.begin(), segment.gives.end());
        queued += segment.gives.size();
        // What the loop queues for this message, before the next is sent.
        loop.waitEntries(queued, kLimit);
        for (QueueEntry &entry : loop.drain()) got.push_back(std::move(entry));
        if (!got.empty() && got.back().text() == "DP-DISCONNECT") break;
    }
    // The connection's end, whatever came before: its entries are all in.
    while (got.empty() || got.back().text() != "DP-DISCONNECT") {
        peer.reset();
        if (!loop.waitEntries(loop.count() + 1, kLimit)) abort();  // the loop stopped serving
        for (QueueEntry &entry : loop.drain()) got.push_back(std::move(entry));
    }
    peer.reset();
    if (watch().stalled) return;  // fell silent for the time-out: not compared
    if (got.size() != wanted.size()) __builtin_trap();
    uint32_t fd = 0;
    for (size_t i = 0; i < got.size(); ++i)
        if (!sameEntry(got[i], wanted[i], port, &fd)) __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int * /*argc*/, char *** /*argv*/) {
    // A short time-out: a stall costs a second, not thirty. Only the loop
    // is traced, into the sink.
    setenv("ZEVA_DCH_TIMEOUT", "1", 1);
    unsetenv("ZEVA_TRACE_FILE");
    setenv("ZEVA_TRACE", kQuietLevels, 1);
    TLG1_SetSink(sink, nullptr);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static bool initialized = LLVMFuzzerInitialize(nullptr, nullptr) == 0;
    (void)initialized;
    if (size == 0) return 0;
    std::vector<char> stream(data, data + size);
    std::vector<Segment> segments = segmentsOf(stream);
    for (Split split : {Split::whole, Split::bytes, Split::drawn, Split::inWord})
        sendSplit(stream, segments, split);
    return 0;
}
