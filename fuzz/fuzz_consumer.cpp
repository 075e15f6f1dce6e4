// Any bytes, as the answer to a data consumer's call that reads one: the
// three catalogue queries, the action result, the status report, and a
// message forwarded to a data wait. The first byte picks the call; the rest
// is what the DCH sent. Nothing may crash, leak or read past those bytes.
//
// The catalogue, action and status calls read through a transport that
// hands the bytes over as the socket transport does once a message is
// complete: its length word then equals what arrived (the framing itself
// is the socket transport's, tested on its own). The data wait reads a real
// datagram on a real socket, since it waits on the socket itself.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "client/zevdchcl.h"
#include "ipc/zevdipc.h"
#include "ipc/zevdsock.h"

namespace {

// Sends nothing; every read hands over the bytes it was given.
class FuzzTransport final : public DCHipc {
public:
    FuzzTransport(const uint8_t *data, size_t size)
        : DCHipc(IPC_SERVICE_CLIENT), data_(data), size_(size) {}

    int32_t ipcRead(char **buffer, int32_t /*wait*/) override {
        if (size_ == 0) return 0;  // nothing came
        if (size_ < 4) return -1;  // no length word
        auto *copy = new char[size_];
        memcpy(copy, data_, size_);
        uint32_t word = htonl(static_cast<uint32_t>(size_));
        memcpy(copy, &word, sizeof word);
        *buffer = copy;
        return static_cast<int32_t>(size_);
    }
    int32_t ipcWrite(const char * /*buffer*/, int32_t length, uint32_t /*fd*/) override {
        return length;
    }
    int32_t setClientAddr(const void * /*addr*/, int32_t /*len*/) override { return 0; }
    int32_t IPCServer() override { return 0; }
    int32_t IPCClient(void * /*addr*/, int32_t /*connectTo*/, int32_t /*type*/) override {
        return 0;
    }
    int32_t allocateIPC() override { return 0; }
    int32_t releaseIPC() override { return 0; }

private:
    const uint8_t *data_;
    size_t size_;
};

// A client whose transport is swapped for the fuzz transport for its life;
// its own is put back before the client's destructor gives it up.
class FuzzClient final : public DCHclient {
public:
    FuzzClient(int interrupt, DCHipc *transport) : DCHclient(interrupt, 0) {
        own_ = _ipcClient;
        if (transport != nullptr) _ipcClient = transport;
    }
    ~FuzzClient() { _ipcClient = own_; }
    FuzzClient(const FuzzClient &) = delete;
    FuzzClient &operator=(const FuzzClient &) = delete;

    // The port of the client's own UDP socket, where data is forwarded.
    uint16_t dataPort() { return static_cast<ipcSock *>(own_)->sockPortUDP(); }
    bool failed() const { return error() >= 1; }

private:
    DCHipc *own_ = nullptr;
};

// The DCH the data wait takes its datagrams from: a socket on 127.0.0.1
// whose port becomes ZEVA_DCH_PORT before the configuration is read (a
// client takes datagrams from the DCH's port only).
int dchSocket() {
    static int fd = [] {
        int sock = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        struct sockaddr_in self;
        memset(&self, 0, sizeof self);
        self.sin_family = AF_INET;
        self.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof self;
        if (sock < 0 || bind(sock, reinterpret_cast<struct sockaddr *>(&self), sizeof self) != 0 ||
            getsockname(sock, reinterpret_cast<struct sockaddr *>(&self), &length) != 0)
            abort();
        return sock;
    }();
    return fd;
}

uint16_t dchPort() {
    struct sockaddr_in self;
    memset(&self, 0, sizeof self);
    socklen_t length = sizeof self;
    getsockname(dchSocket(), reinterpret_cast<struct sockaddr *>(&self), &length);
    return ntohs(self.sin_port);
}

// The data wait: one client, kept across inputs; a client that failed is
// replaced.
struct DataWait {
    FuzzClient *client = nullptr;
    int sender = -1;
};

DataWait &dataWait() {
    static DataWait wait;
    if (wait.sender < 0) wait.sender = dchSocket();
    if (wait.client == nullptr || wait.client->failed()) {
        delete wait.client;
        wait.client = new FuzzClient(1, nullptr);
    }
    return wait;
}

void feedDataWait(const uint8_t *data, size_t size) {
    if (size < 2) return;
    // Two bytes of the caller's buffer length (it is narrowed to 16 bits);
    // the rest goes in one datagram.
    int buflen = (data[0] << 8) | data[1];
    std::vector<char> datagram(data + 2, data + size);
    if (datagram.size() > IPC_DATAGRAM_SIZE) datagram.resize(IPC_DATAGRAM_SIZE);
    // A length word beyond the one datagram would wait for the next, ten
    // seconds: it is cut to what is sent. Shorter words stay as they are.
    if (datagram.size() >= 4) {
        uint32_t word;
        memcpy(&word, datagram.data(), sizeof word);
        if (ntohl(word) > datagram.size()) {
            word = htonl(static_cast<uint32_t>(datagram.size()));
            memcpy(datagram.data(), &word, sizeof word);
        }
    }
    DataWait &wait = dataWait();
    struct sockaddr_in to;
    memset(&to, 0, sizeof to);
    to.sin_family = AF_INET;
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    to.sin_port = htons(wait.client->dataPort());
    // An empty datagram would never wake the wait's read: nothing to feed.
    if (datagram.empty()) return;
    if (sendto(wait.sender, datagram.data(), datagram.size(), 0,
               reinterpret_cast<struct sockaddr *>(&to), sizeof to) < 0)
        return;
    // An exact-size buffer, so a copy past buflen is caught by the sanitizer.
    std::vector<char> buffer(static_cast<size_t>(buflen) + 1);
    wait.client->dc_waitOnData(buffer.data(), static_cast<short>(buflen));
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int * /*argc*/, char *** /*argv*/) {
    // Quiet, and a DCH that is never written to: the fuzz transport sends
    // nothing, and the data wait's client only receives.
    setenv("ZEVA_TRACE", "none", 1);
    setenv("ZEVA_DCH_ADDR", "127.0.0.1", 1);
    setenv("ZEVA_DCH_PORT", std::to_string(dchPort()).c_str(), 1);
    setenv("ZEVA_DCH_TIMEOUT", "1", 1);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static bool initialized = LLVMFuzzerInitialize(nullptr, nullptr) == 0;
    (void)initialized;
    if (size < 1) return 0;
    int call = data[0] % 6;
    const uint8_t *answer = data + 1;
    size_t length = size - 1;
    if (call == 5) {
        feedDataWait(answer, length);
        return 0;
    }
    FuzzTransport transport(answer, length);
    FuzzClient client(0, &transport);
    char *text = nullptr;
    switch (call) {
        case 0: client.dc_getApplications(&text, nullptr, 1); break;
        case 1: client.dc_getApplAttributes(&text, "appl", 1); break;
        case 2: client.dc_getApplHelp(&text, "appl", 1); break;
        case 3: client.dc_waitForActionResults(1); break;
        default: {
            const char *line = client.dc_waitForDPStatus();
            if (line != nullptr && strlen(line) >= kStatusLineSize) abort();
            break;
        }
    }
    free(text);
    return 0;
}
