// A scriptable DCH for the client suites: a real server transport
// (ipcSock with service 2: the port allocation, the server loop and the
// receive queue) served by one worker thread that records each request (it
// counts them all and keeps the most recent) and answers it with scripted
// bytes, or not at all. Answers leave from the DCH port's own UDP socket,
// the only sender a client takes datagrams from.
//
// The server's receive thread is never joined, so the harness is started
// once per process and lives until the process ends; register the suites
// that use it with zevd_add_test(... ONE_PROCESS) and reset() between cases.
//
// Starting it fixes the process-wide transport configuration: it sets
// ZEVA_DCH_ADDR=127.0.0.1, ZEVA_DCH_BIND=127.0.0.1 and ZEVA_DCH_PORT=<a free
// loopback port> before the first transport of the process is built, and
// leaves every other variable (ZEVA_DCH_TIMEOUT, pool size, ...) as the
// test binary's environment gives it.
#ifndef ZEVD_TESTS_SUPPORT_FAKE_DCH_H
#define ZEVD_TESTS_SUPPORT_FAKE_DCH_H

#include <netinet/in.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <initializer_list>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

class ipcSock;

namespace zevd {
class MessageBuilder;
}

namespace zevd::test {

// One entry taken from the server's receive queue.
struct DchRequest {
    std::vector<char> bytes;   // the message as queued (its own length word first)
    std::string clientName;    // dotted sender address; 255 blanks for control texts
    struct sockaddr_in from;   // sender's address
    uint32_t connectedSockFD;  // TCP connection, 0 for UDP
    // The request code (field 16 of the message), or -1 when it has none.
    int requestType() const;
};

// What the worker does with one request: the bytes to send back (a whole
// message, length word first), or nothing.
using DchReply = std::optional<std::vector<char>>;

// A control text the server loop queued ("DP-DISCONNECT" when a TCP client
// went away, "RESEND_MESSAGE" when a TCP message did not match its length
// word); recorded, never answered.
struct DchControl {
    std::string text;
    std::string clientName;  // 255 blanks for "DP-DISCONNECT"
    uint32_t connectedSockFD;
};

class FakeDch {
public:
    // Starts the harness on first use (blocks until the server reported
    // "IPC-SERVER_READY", at most 10 seconds; fails the test otherwise).
    static FakeDch &instance();

    uint16_t port() const;
    // True once the server reported "IPC-SERVER_READY" as its first entry.
    bool ready() const;

    // Clears the script, the responder and the records. Returns once no
    // call of the old responder is running: a responder that captured a
    // case's locals is never called after the case reset the harness. Not
    // to be called from a responder.
    void reset();
    // Scripts the answer to the next request not yet answered: replies are
    // used in order, one per request. With the script empty, the responder
    // answers; without a responder, requests get no answer.
    void reply(std::vector<char> bytes);
    void noReply();
    // Computes the answer of every request the script does not cover. Waits
    // for a running call of the old responder, as reset does.
    void setResponder(std::function<DchReply(const DchRequest &)> responder);

    // Sends bytes to 127.0.0.1:port from the DCH port's own UDP socket, in
    // datagrams of at most 8192 bytes back to back: what the DCH sends
    // unasked (a row to a data wait, a status report), or an answer to a
    // request that never reached it. A client takes datagrams from the
    // DCH's port only. True when every datagram went whole.
    bool sendFromPort(uint16_t port, const std::vector<char> &bytes) const;

    // How many requests, and how many control texts, the harness keeps: the
    // most recent ones. Older ones are dropped, so that a long run (the
    // benchmark's peer) holds bounded memory; the counts go on.
    static constexpr size_t kKept = 1000;

    // The requests taken from the queue since reset(), control texts
    // excluded: at most kKept, the most recent, oldest first. A request's
    // bytes run to its length word, or to the whole buffer the queue handed
    // over when the word is below 4 or beyond it.
    std::vector<DchRequest> received() const;
    // The kept requests that came from the UDP port given, once at least
    // count of them came or limit has passed.
    // Only the requests from index from of received() on are looked at.
    std::vector<DchRequest> receivedFrom(
        uint16_t port, size_t count = 0,
        std::chrono::milliseconds limit = std::chrono::milliseconds(10000), size_t from = 0) const;
    // How many requests were taken since reset(), the dropped ones included.
    size_t receivedCount() const;
    // Waits until receivedCount() is at least count; false after limit.
    bool waitReceived(size_t count,
                      std::chrono::milliseconds limit = std::chrono::milliseconds(10000)) const;
    // The control texts taken since reset(): at most kKept, the most recent.
    std::vector<DchControl> controls() const;
    // How many control texts were taken since reset().
    size_t controlCount() const;
    // Waits until controlCount() is at least count; false after limit.
    bool waitControls(size_t count,
                      std::chrono::milliseconds limit = std::chrono::milliseconds(10000)) const;

private:
    FakeDch();
    void serve();  // the worker thread

    ipcSock *server_ = nullptr;
    uint16_t port_ = 0;
    mutable std::mutex lock_;
    mutable std::condition_variable changed_;
    std::deque<DchReply> script_;
    std::function<DchReply(const DchRequest &)> responder_;
    // Calls of a responder that are running (outside the lock).
    int responding_ = 0;
    std::deque<DchRequest> received_;  // at most kKept
    size_t receivedCount_ = 0;
    std::deque<DchControl> controls_;  // at most kKept
    size_t controlCount_ = 0;
    bool ready_ = false;
};

// A message built field by field, as the DCH would send it.
class DchMessage {
public:
    DchMessage &int16(int type, int16_t value);
    DchMessage &int32(int type, int32_t value);
    DchMessage &string(int type, const std::string &value);  // with its terminating zero
    // The header and the value's bytes exactly as given, whatever the type
    // (a number of the wrong width, a string without its zero).
    DchMessage &raw(int type, const std::vector<char> &value);
    // The message with its length word; lengthOverride replaces the word.
    std::vector<char> bytes(std::optional<uint32_t> lengthOverride = std::nullopt) const;

private:
    // A builder over buffer (64 KiB) holding the fields so far, and taking
    // back what it appended.
    MessageBuilder resumed(std::vector<char> &buffer) const;
    void keep(const std::vector<char> &buffer);

    std::vector<char> fields_;
};

}  // namespace zevd::test

#endif  // ZEVD_TESTS_SUPPORT_FAKE_DCH_H
