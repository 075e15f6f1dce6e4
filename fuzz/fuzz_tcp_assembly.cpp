// Any bytes as the stream a TCP client sends to the DCH, fed to the server
// loop's message assembly (TcpAssembly) four ways: whole, a byte at a time,
// cut at places drawn from the input, and with a cut inside each length
// word. Each cut is a readiness of its own: what came is ready, then
// nothing more until the next. Nothing may crash, and each way must give
// the same outcomes: the ones worked out once from the stream, as below.
//
// The stream is fed as a client sends requests, one message at a time (a
// read can take bytes of the next message, so a stream sent ahead would be
// joined as the kernel happens to hand it over). A message is what its
// length word announces. A word below 4 is sent alone and gives a
// mismatch; a word above what is joined gives a mismatch that cuts the
// connection off, and the stream ends there; a word that announces more
// than is left, or a stream that ends inside a word, is sent with the end of
// the stream and gives a mismatch, then the close. A stream that ends after
// a whole message gives the close.
//
// Each message takes at most 1000 single bytes, below the 1024 pieces (a
// message cut into more pieces is cut off by design, so it could not give
// the same).
#include <arpa/inet.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <vector>

#include "ipc/zevdsock_assembly.h"
#include "zev0.h"

namespace {

using zevd::TcpAssembly;

constexpr uint32_t kMaxTcpMessage = TcpAssembly::kMaxMessage;
constexpr size_t kSingleBytes = 1000;  // bytes sent one at a time, per message
constexpr size_t kMaxCuts = 16;        // drawn cuts per message

// One outcome the assembly is expected to give.
struct Expected {
    enum Kind { message, resend, disconnect } kind;
    std::vector<char> bytes;  // the message
};

// One message of the stream as a client sends it.
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

// The stream cut into what a client sends, and what each gives.
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

// A connection as the assembly sees it: the bytes that are ready, then
// EAGAIN until more are made ready, or the end of the stream.
class ScriptedSource : public TcpAssembly::Source {
public:
    void ready(const char *bytes, size_t length) {
        ready_.insert(ready_.end(), bytes, bytes + length);
    }
    void end() { ended_ = true; }
    ssize_t receive(char *buffer, size_t size) override {
        if (ready_.empty()) {
            if (ended_) return 0;
            errno = EAGAIN;
            return -1;
        }
        size_t n = std::min(size, ready_.size());
        std::copy(ready_.begin(), ready_.begin() + static_cast<std::ptrdiff_t>(n), buffer);
        ready_.erase(ready_.begin(), ready_.begin() + static_cast<std::ptrdiff_t>(n));
        return static_cast<ssize_t>(n);
    }

private:
    std::deque<char> ready_;
    bool ended_ = false;
};

// Reads what is ready into got, as the loop does on a readiness; false once
// the connection is gone (closed, or cut off).
bool readReady(TcpAssembly &assembly, ScriptedSource &source, char *scratch,
               std::vector<Expected> &got) {
    for (;;) {
        auto outcome = assembly.read(source, 7, scratch, TcpAssembly::Clock::now(), 30);
        switch (outcome) {
            case TcpAssembly::Outcome::kPending: return true;
            case TcpAssembly::Outcome::kWhole: {
                const char *message = assembly.joined();
                got.push_back(
                    {Expected::message, std::vector<char>(message, message + assembly.received())});
                assembly.reset();
                break;
            }
            case TcpAssembly::Outcome::kMismatch: {
                bool cut = assembly.cutOff();
                got.push_back({Expected::resend, {}});
                assembly.reset();
                if (cut) {
                    got.push_back({Expected::disconnect, {}});
                    return false;
                }
                break;
            }
            case TcpAssembly::Outcome::kClosed:
                got.push_back({Expected::disconnect, {}});
                assembly.reset();
                return false;
        }
    }
}

// Feeds the stream split one way and checks what the assembly gave.
void feedSplit(const std::vector<char> &stream, const std::vector<Segment> &segments, Split split) {
    static char scratch[TcpAssembly::kPieceSize];
    Draw draw(stream);
    TcpAssembly assembly;
    ScriptedSource source;
    std::vector<Expected> got;
    std::vector<Expected> wanted;
    bool open = true;
    for (const Segment &segment : segments) {
        wanted.insert(wanted.end(), segment.gives.begin(), segment.gives.end());
        if (!open) break;
        if (segment.begin == segment.end) {
            source.end();
            open = readReady(assembly, source, scratch, got);
            continue;
        }
        std::vector<size_t> cuts = cutsOf(split, segment.end - segment.begin, draw);
        cuts.push_back(segment.end - segment.begin);
        size_t from = 0;
        for (size_t cut : cuts) {
            source.ready(stream.data() + segment.begin + from, cut - from);
            from = cut;
            if (cut == segment.end - segment.begin && segment.endStream) source.end();
            if (!(open = readReady(assembly, source, scratch, got))) break;
        }
        // A message that stops short waits for its end of stream.
        while (open && segment.endStream) open = readReady(assembly, source, scratch, got);
    }
    if (got.size() != wanted.size()) __builtin_trap();
    for (size_t i = 0; i < got.size(); ++i)
        if (got[i].kind != wanted[i].kind || got[i].bytes != wanted[i].bytes) __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int * /*argc*/, char *** /*argv*/) {
    // Only errors are traced: the detail lines would cost a formatted line
    // for each piece.
    unsetenv("ZEVA_TRACE_FILE");
    setenv("ZEVA_TRACE", "none", 1);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static bool initialized = LLVMFuzzerInitialize(nullptr, nullptr) == 0;
    (void)initialized;
    if (size == 0) return 0;
    std::vector<char> stream(data, data + size);
    std::vector<Segment> segments = segmentsOf(stream);
    for (Split split : {Split::whole, Split::bytes, Split::drawn, Split::inWord})
        feedSplit(stream, segments, split);
    return 0;
}
