// Reaches the protected state of the client object from the tests, and the
// helpers the client suites share.
#ifndef ZEVD_TESTS_SUPPORT_CLIENT_PROBE_H
#define ZEVD_TESTS_SUPPORT_CLIENT_PROBE_H

#include <arpa/inet.h>
#include <sys/socket.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "client/zevdchcl.h"
#include "support/fake_dch.h"
#include "support/loopback.h"
#include "support/sock_pair.h"
#include "support/sock_probe.h"
#include "support/trace_capture.h"

namespace zevd::test {

// final: deleted through its own type.
class DCHclientProbe final : public DCHclient {
public:
    using DCHclient::DCHclient;

    int32_t ipcType() const { return _ipcType; }
    DCHipc *ipcClient() const { return _ipcClient; }
    int32_t interruptFD() const { return _interruptFD; }
    uint16_t interruptPort() const { return _interruptPort; }
    int32_t dchTimeout() const { return _DCHtimeout; }
    int32_t ipcReadTimeout() const { return _ipcReadTimeout; }
    const char *readBuffer() const { return _readBuffer; }
    // A client whose earlier request failed.
    void setError(int32_t error) { _error = error; }
};

// True when some line reads text once its addresses are replaced by "P".
inline bool hasLine(const TraceCapture &capture, const std::string &text) {
    for (const std::string &t : capture.texts())
        if (normalized(t) == text) return true;
    return false;
}

// The bytes of v as the host holds them.
template <typename T>
std::vector<char> hostBytes(T v) {
    std::vector<char> out(sizeof v);
    memcpy(out.data(), &v, sizeof v);
    return out;
}

// Calls make(t) for t = 0 .. count - 1 on count threads that start it at
// the same moment; the results in the order of t.
template <typename Make>
std::vector<void *> fromThreadsAtOnce(int count, Make make) {
    std::vector<void *> results(static_cast<size_t>(count), nullptr);
    std::vector<std::thread> threads;
    std::atomic<int> ready{0};
    for (int t = 0; t < count; ++t) {
        threads.emplace_back([&, t] {
            ready.fetch_add(1);
            while (ready.load() < count) std::this_thread::yield();
            results[static_cast<size_t>(t)] = make(t);
        });
    }
    for (std::thread &thread : threads) thread.join();
    return results;
}

// Bytes given as hex pairs, blanks ignored: "00 10 00 00".
inline std::vector<char> hexBytes(const std::string &hex) {
    std::vector<char> out;
    std::string digits;
    for (char c : hex)
        if (c != ' ' && c != '\n' && c != '|') digits += c;
    for (size_t i = 0; i + 1 < digits.size(); i += 2)
        out.push_back(static_cast<char>(std::stoi(digits.substr(i, 2), nullptr, 16)));
    return out;
}

// A message written byte by byte, apart from the library's encoder: the
// expected side of comparisons with what the library sent.
class WireMessage {
public:
    WireMessage &int16(uint16_t type, uint16_t value) { return field(type, be16(value)); }
    WireMessage &int32(uint16_t type, uint32_t value) { return field(type, be32(value)); }
    // The characters and their terminating zero.
    WireMessage &string(uint16_t type, const std::string &value) {
        std::vector<char> bytes(value.begin(), value.end());
        bytes.push_back('\0');
        return field(type, bytes);
    }
    WireMessage &field(uint16_t type, const std::vector<char> &value) {
        put(type, 2);
        put(static_cast<uint32_t>(value.size()), 4);
        for (char c : value) fields_.push_back(c);
        return *this;
    }
    std::vector<char> bytes() const {
        std::vector<char> out;
        out.reserve(4 + fields_.size());
        for (char c : be32(static_cast<uint32_t>(4 + fields_.size()))) out.push_back(c);
        for (char c : fields_) out.push_back(c);
        return out;
    }

    static std::vector<char> be16(uint16_t v) {
        return {static_cast<char>(v >> 8), static_cast<char>(v & 0xFF)};
    }
    static std::vector<char> be32(uint32_t v) {
        return {static_cast<char>(v >> 24), static_cast<char>((v >> 16) & 0xFF),
                static_cast<char>((v >> 8) & 0xFF), static_cast<char>(v & 0xFF)};
    }

private:
    // The low width bytes of v, most significant first.
    void put(uint32_t v, int width) {
        for (int shift = 8 * (width - 1); shift >= 0; shift -= 8)
            fields_.push_back(static_cast<char>((v >> shift) & 0xFF));
    }
    std::string fields_;
};

// v in network order, as the wire carries it.
inline std::vector<char> be16(uint16_t v) {
    return WireMessage::be16(v);
}

inline std::vector<char> be32(uint32_t v) {
    return WireMessage::be32(v);
}

// A printable form of bytes for failure messages.
inline std::string hexText(const std::vector<char> &bytes) {
    std::string out;
    char pair[4];
    for (size_t i = 0; i < bytes.size(); ++i) {
        snprintf(pair, sizeof pair, "%02x", static_cast<unsigned char>(bytes[i]));
        out += pair;
        out += (i % 16 == 15) ? '\n' : ' ';
    }
    return out;
}

// The port of the socket that a client's read is waiting on, taken from the
// transport read's "Waiting on SELECT" line (the capture must include
// zevdsock=detail); 0 when no read has started within limit.
inline uint16_t waitingReadPort(const TraceCapture &capture,
                                std::chrono::milliseconds limit = std::chrono::seconds(10)) {
    const std::string part = "Waiting on SELECT: UDP[";
    auto deadline = std::chrono::steady_clock::now() + limit;
    // Other functions may write similar lines: take the first of the read's.
    for (size_t times = 1; times <= 1000; ++times) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0 || !capture.waitFor(part, left, times)) return 0;
        for (const std::string &line : capture.lines()) {
            if (line.find(" ipcSock::ipcRead:") == std::string::npos) continue;
            std::string text = traceText(line);
            size_t at = text.find("Port[");
            if (text.rfind(part, 0) == 0 && at != std::string::npos)
                return static_cast<uint16_t>(std::stoi(text.substr(at + 5)));
        }
    }
    return 0;
}

// Runs call on a thread of its own and, once its read waits on a socket,
// sends answer there from the fake DCH's port, as the DCH would answer.
// Returns call's result (-100 when the read never started, after call has
// ended).
template <typename Call>
int answerWhileWaiting(const TraceCapture &capture, const std::vector<char> &answer, Call call) {
    std::future<int> result = std::async(std::launch::async, call);
    uint16_t port = waitingReadPort(capture);
    if (port == 0) {
        result.wait();
        return -100;
    }
    FakeDch::instance().sendFromPort(port, answer);
    return result.get();
}

}  // namespace zevd::test

#endif  // ZEVD_TESTS_SUPPORT_CLIENT_PROBE_H
