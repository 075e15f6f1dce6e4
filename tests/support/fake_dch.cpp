#include "support/fake_dch.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <utility>

#include "common/message.h"
#include "ipc/zevdsock.h"
#include "support/free_port.h"

namespace zevd::test {

namespace {

// The queue entry that announces the server loop, and the two that report
// events on a TCP connection.
constexpr char kServerReady[] = "IPC-SERVER_READY";
constexpr char kDisconnect[] = "DP-DISCONNECT";
constexpr char kResend[] = "RESEND_MESSAGE";

// Largest message the harness builds, as the DCH's own writer allows.
constexpr size_t kMessageCapacity = 64 * 1024;
constexpr auto kReadyLimit = std::chrono::seconds(10);
// connectedSockFD before a take: ipc_get_data writes it only when it hands
// an entry over.
constexpr uint32_t kNothingTaken = 0xFFFFFFFFu;

// The length of a queued message: its length word when that fits the buffer
// the queue handed over, else the whole buffer.
size_t queuedLength(const char *buffer, int32_t capacity) {
    if (capacity < 4) return capacity > 0 ? static_cast<size_t>(capacity) : 0;
    uint32_t length = messageLength(buffer);
    if (length < 4 || length > static_cast<uint32_t>(capacity))
        return static_cast<size_t>(capacity);
    return length;
}

// Appends entry, dropping the oldest once kept holds FakeDch::kKept.
template <typename Entry>
void keepLatest(std::deque<Entry> &kept, Entry entry) {
    if (kept.size() >= FakeDch::kKept) kept.pop_front();
    kept.push_back(std::move(entry));
}

}  // namespace

int DchRequest::requestType() const {
    FieldReader reader(bytes.data(), bytes.size());
    // Each step moves forward or ends at a missing field, so the walk ends.
    for (int type = reader.next(); type != 0; type = reader.next())
        if (type == 16) return static_cast<uint16_t>(reader.int16());
    return -1;
}

FakeDch &FakeDch::instance() {
    // Never deleted: the server's receive thread outlives every test.
    static FakeDch *dch = new FakeDch();
    if (!dch->ready()) ADD_FAILURE() << "the fake DCH did not report IPC-SERVER_READY";
    return *dch;
}

FakeDch::FakeDch() {
    uint16_t port = freeLoopbackPort();
    setenv("ZEVA_DCH_ADDR", "127.0.0.1", 1);
    setenv("ZEVA_DCH_BIND", "127.0.0.1", 1);
    setenv("ZEVA_DCH_PORT", std::to_string(port).c_str(), 1);
    server_ = new ipcSock(IPC_SERVICE_SERVER, 0, 0);
    std::thread(&FakeDch::serve, this).detach();
    std::unique_lock<std::mutex> guard(lock_);
    changed_.wait_for(guard, kReadyLimit, [this] { return ready_; });
}

bool FakeDch::ready() const {
    std::lock_guard<std::mutex> guard(lock_);
    return ready_;
}

uint16_t FakeDch::port() const {
    std::lock_guard<std::mutex> guard(lock_);
    return port_;
}

void FakeDch::reset() {
    std::unique_lock<std::mutex> guard(lock_);
    changed_.wait(guard, [this] { return responding_ == 0; });
    script_.clear();
    responder_ = nullptr;
    received_.clear();
    receivedCount_ = 0;
    controls_.clear();
    controlCount_ = 0;
}

void FakeDch::reply(std::vector<char> bytes) {
    std::lock_guard<std::mutex> guard(lock_);
    script_.emplace_back(std::move(bytes));
}

void FakeDch::noReply() {
    std::lock_guard<std::mutex> guard(lock_);
    script_.emplace_back(std::nullopt);
}

void FakeDch::setResponder(std::function<DchReply(const DchRequest &)> responder) {
    std::unique_lock<std::mutex> guard(lock_);
    changed_.wait(guard, [this] { return responding_ == 0; });
    responder_ = std::move(responder);
}

bool FakeDch::sendFromPort(uint16_t port, const std::vector<char> &bytes) const {
    struct sockaddr_in to;
    memset(&to, 0, sizeof to);
    to.sin_family = AF_INET;
    to.sin_port = htons(port);
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    // The server's socket is shared with its receive loop, which only reads
    // it, and with the worker's answers: each sendto is one datagram whole.
    size_t at = 0;
    do {
        size_t chunk = std::min(bytes.size() - at, static_cast<size_t>(IPC_DATAGRAM_SIZE));
        ssize_t sent = sendto(server_->sockUDP(), bytes.data() + at, chunk, 0,
                              reinterpret_cast<const struct sockaddr *>(&to), sizeof to);
        if (sent != static_cast<ssize_t>(chunk)) return false;
        at += chunk;
    } while (at < bytes.size());
    return true;
}

std::vector<DchRequest> FakeDch::received() const {
    std::lock_guard<std::mutex> guard(lock_);
    return std::vector<DchRequest>(received_.begin(), received_.end());
}

size_t FakeDch::receivedCount() const {
    std::lock_guard<std::mutex> guard(lock_);
    return receivedCount_;
}

std::vector<DchRequest> FakeDch::receivedFrom(uint16_t port, size_t count,
                                              std::chrono::milliseconds limit, size_t from) const {
    std::vector<DchRequest> out;
    auto fromPort = [&] {
        out.clear();
        for (size_t i = from; i < received_.size(); ++i)
            if (ntohs(received_[i].from.sin_port) == port) out.push_back(received_[i]);
        return out.size() >= count;
    };
    std::unique_lock<std::mutex> guard(lock_);
    changed_.wait_for(guard, limit, fromPort);
    return out;
}

bool FakeDch::waitReceived(size_t count, std::chrono::milliseconds limit) const {
    std::unique_lock<std::mutex> guard(lock_);
    return changed_.wait_for(guard, limit, [&] { return receivedCount_ >= count; });
}

std::vector<DchControl> FakeDch::controls() const {
    std::lock_guard<std::mutex> guard(lock_);
    return std::vector<DchControl>(controls_.begin(), controls_.end());
}

size_t FakeDch::controlCount() const {
    std::lock_guard<std::mutex> guard(lock_);
    return controlCount_;
}

bool FakeDch::waitControls(size_t count, std::chrono::milliseconds limit) const {
    std::unique_lock<std::mutex> guard(lock_);
    return changed_.wait_for(guard, limit, [&] { return controlCount_ >= count; });
}

void FakeDch::serve() {
    char *buffer = nullptr;  // grown by the queue, reused for every entry
    int32_t bufferLen = 0;
    bool first = true;
    for (;;) {
        char address[IPC_CLIENT_ADDR_SIZE] = {};
        char name[IPC_CLIENT_NAME_SIZE] = {};
        int32_t addressLen = 0;
        uint32_t fd = kNothingTaken;
        server_->ipc_get_data(&buffer, &bufferLen, address, &addressLen, name, &fd);
        if (fd == kNothingTaken) {
            // An entry the queue cannot hand over stays at its head; wait a
            // little rather than spin on it.
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
            continue;
        }
        // Every slot buffer keeps a zero after its message, so the control
        // texts compare as strings.
        std::string text(buffer, strnlen(buffer, static_cast<size_t>(bufferLen)));
        if (first) {
            first = false;
            if (text == kServerReady) {
                uint16_t port = server_->sockPortUDP();
                std::lock_guard<std::mutex> guard(lock_);
                port_ = port;
                ready_ = true;
                changed_.notify_all();
                continue;
            }
            // Anything else first leaves the harness not ready; it is served
            // as a request all the same.
        }
        if (text == kDisconnect || text == kResend) {
            std::lock_guard<std::mutex> guard(lock_);
            keepLatest(controls_, DchControl{text, name, fd});
            ++controlCount_;
            changed_.notify_all();
            continue;
        }

        DchRequest request;
        request.bytes.assign(buffer, buffer + queuedLength(buffer, bufferLen));
        request.clientName = name;
        memset(&request.from, 0, sizeof request.from);
        memcpy(&request.from, address,
               std::min<size_t>(sizeof request.from, static_cast<size_t>(addressLen)));
        request.connectedSockFD = fd;

        DchReply answer;
        std::function<DchReply(const DchRequest &)> responder;
        {
            std::lock_guard<std::mutex> guard(lock_);
            keepLatest(received_, request);
            ++receivedCount_;
            if (!script_.empty()) {
                answer = std::move(script_.front());
                script_.pop_front();
            } else if (responder_) {
                responder = responder_;
                ++responding_;
            }
            changed_.notify_all();
        }
        // The responder runs outside the lock: it may call back into the
        // harness.
        if (responder) {
            answer = responder(request);
            responder = nullptr;  // its copy of the captures goes with the call
            std::lock_guard<std::mutex> guard(lock_);
            --responding_;
            changed_.notify_all();
        }
        if (!answer.has_value()) continue;
        server_->setClientAddr(&request.from, sizeof request.from);
        server_->ipcWrite(answer->data(), static_cast<int32_t>(answer->size()), fd);
    }
}

DchMessage &DchMessage::int16(int type, int16_t value) {
    std::vector<char> buffer(kMessageCapacity);
    MessageBuilder builder = resumed(buffer);
    if (builder.add16(type, value)) keep(buffer);
    return *this;
}

DchMessage &DchMessage::int32(int type, int32_t value) {
    std::vector<char> buffer(kMessageCapacity);
    MessageBuilder builder = resumed(buffer);
    if (builder.add32(type, value)) keep(buffer);
    return *this;
}

DchMessage &DchMessage::string(int type, const std::string &value) {
    std::vector<char> buffer(kMessageCapacity);
    MessageBuilder builder = resumed(buffer);
    if (builder.addString(type, value.c_str())) keep(buffer);
    return *this;
}

DchMessage &DchMessage::raw(int type, const std::vector<char> &value) {
    // Written by hand: the encoder would give a number field its own width.
    unsigned char header[6];
    uint16_t type16 = htons(static_cast<uint16_t>(type));
    uint32_t length = htonl(static_cast<uint32_t>(value.size()));
    memcpy(header, &type16, sizeof type16);
    memcpy(header + 2, &length, sizeof length);
    fields_.insert(fields_.end(), header, header + sizeof header);
    fields_.insert(fields_.end(), value.begin(), value.end());
    return *this;
}

std::vector<char> DchMessage::bytes(std::optional<uint32_t> lengthOverride) const {
    std::vector<char> message(4 + fields_.size());
    uint32_t word = htonl(lengthOverride.value_or(static_cast<uint32_t>(message.size())));
    memcpy(message.data(), &word, sizeof word);
    std::copy(fields_.begin(), fields_.end(), message.begin() + 4);
    return message;
}

MessageBuilder DchMessage::resumed(std::vector<char> &buffer) const {
    // The fields so far behind their length word, so that the builder goes
    // on after them; a message past the capacity takes no more fields.
    size_t used = std::min(fields_.size(), buffer.size() - 4);
    uint32_t word = htonl(static_cast<uint32_t>(4 + used));
    memcpy(buffer.data(), &word, sizeof word);
    std::copy(fields_.begin(), fields_.begin() + static_cast<long>(used), buffer.begin() + 4);
    MessageBuilder builder(buffer.data(), buffer.size());
    builder.resume();
    return builder;
}

void DchMessage::keep(const std::vector<char> &buffer) {
    uint32_t length = messageLength(buffer.data());
    fields_.assign(buffer.begin() + 4, buffer.begin() + length);
}

}  // namespace zevd::test
