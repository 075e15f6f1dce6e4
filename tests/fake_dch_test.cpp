// The fake DCH harness itself: its script, its responder, what it records,
// and that it answers over UDP and on TCP connections. One process: the
// harness lives as long as it does.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "support/dch_server.h"
#include "support/fake_dch.h"
#include "support/loopback.h"

namespace {

using zevd::test::DchMessage;
using zevd::test::DchReply;
using zevd::test::DchRequest;
using zevd::test::FakeDch;
using zevd::test::TcpPeer;
using zevd::test::UdpPeer;

constexpr int kRequestType = 16;
constexpr int kStatus = 17;
constexpr int kSourceName = 34;
constexpr int kHandle = 128;
constexpr int kOnline = 0x1015;
constexpr int kOffline = 0x1025;
constexpr int kWaitMs = 10000;

FakeDch &freshDch() {
    FakeDch &dch = FakeDch::instance();
    dch.reset();
    return dch;
}

std::vector<char> request(int type, const std::string &source) {
    return DchMessage()
        .int16(kRequestType, static_cast<int16_t>(type))
        .string(kSourceName, source)
        .bytes();
}

// The next datagram or stream bytes on fd, or nothing after kWaitMs.
std::vector<char> receive(int fd) {
    struct pollfd p = {fd, POLLIN, 0};
    if (poll(&p, 1, kWaitMs) != 1) return {};
    std::vector<char> bytes(65536);
    ssize_t n = recv(fd, bytes.data(), bytes.size(), 0);
    bytes.resize(n > 0 ? static_cast<size_t>(n) : 0);
    return bytes;
}

// A UDP client of the harness that can also read what comes back.
class Client {
public:
    Client() : fd_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        struct sockaddr_in local = zevd::test::loopbackAddress(0);
        bind(fd_, reinterpret_cast<struct sockaddr *>(&local), sizeof local);
    }
    ~Client() { close(fd_); }
    Client(const Client &) = delete;
    Client &operator=(const Client &) = delete;

    bool send(const std::vector<char> &bytes) const {
        struct sockaddr_in to = zevd::test::loopbackAddress(FakeDch::instance().port());
        return sendto(fd_, bytes.data(), bytes.size(), 0, reinterpret_cast<struct sockaddr *>(&to),
                      sizeof to) == static_cast<ssize_t>(bytes.size());
    }
    std::vector<char> receive() const { return ::receive(fd_); }
    uint16_t port() const { return zevd::test::boundPort(fd_); }

private:
    int fd_;
};

TEST(FakeDchTest, StartsOnTheLoopbackPortItPublishes) {
    FakeDch &dch = freshDch();
    EXPECT_TRUE(dch.ready());
    EXPECT_NE(dch.port(), 0);
    EXPECT_STREQ(getenv("ZEVA_DCH_PORT"), std::to_string(dch.port()).c_str());
    EXPECT_STREQ(getenv("ZEVA_DCH_BIND"), "127.0.0.1");
    EXPECT_STREQ(getenv("ZEVA_DCH_ADDR"), "127.0.0.1");
}

TEST(FakeDchTest, ScriptedRepliesAnswerRequestsInOrder) {
    FakeDch &dch = freshDch();
    std::vector<char> first = DchMessage().int32(kStatus, 0).int32(kHandle, 11).bytes();
    std::vector<char> second = DchMessage().int32(kStatus, 5).bytes();
    dch.reply(first);
    dch.reply(second);
    Client client;
    ASSERT_TRUE(client.send(request(kOnline, "a")));
    EXPECT_EQ(client.receive(), first);
    ASSERT_TRUE(client.send(request(kOffline, "b")));
    EXPECT_EQ(client.receive(), second);
}

TEST(FakeDchTest, NoReplyLeavesItsRequestUnanswered) {
    FakeDch &dch = freshDch();
    std::vector<char> answer = DchMessage().int32(kStatus, 3).bytes();
    dch.noReply();
    dch.reply(answer);
    Client client;
    ASSERT_TRUE(client.send(request(kOnline, "silent")));
    ASSERT_TRUE(client.send(request(kOnline, "answered")));
    // Requests are served in order: an answer to the first would come
    // before this one.
    EXPECT_EQ(client.receive(), answer);
    ASSERT_TRUE(dch.waitReceived(2));
    EXPECT_EQ(dch.received().size(), 2u);
}

TEST(FakeDchTest, ResponderAnswersWhatTheScriptDoesNotCover) {
    FakeDch &dch = freshDch();
    std::vector<char> scripted = DchMessage().int32(kStatus, 9).bytes();
    dch.reply(scripted);
    dch.setResponder([](const DchRequest &r) -> DchReply {
        return DchMessage().int32(kStatus, 0).int32(kHandle, r.requestType()).bytes();
    });
    Client client;
    ASSERT_TRUE(client.send(request(kOnline, "one")));
    EXPECT_EQ(client.receive(), scripted);
    ASSERT_TRUE(client.send(request(kOffline, "two")));
    EXPECT_EQ(client.receive(), DchMessage().int32(kStatus, 0).int32(kHandle, kOffline).bytes());
    // A responder may decline too.
    dch.setResponder([](const DchRequest &) -> DchReply { return std::nullopt; });
    ASSERT_TRUE(client.send(request(kOffline, "three")));
    ASSERT_TRUE(dch.waitReceived(3));
    dch.reply(scripted);
    ASSERT_TRUE(client.send(request(kOffline, "four")));
    EXPECT_EQ(client.receive(), scripted);
}

TEST(FakeDchTest, RecordsBytesTypeAndSenderOfEachRequest) {
    FakeDch &dch = freshDch();
    Client client;
    std::vector<char> sent = request(kOnline, "source");
    ASSERT_TRUE(client.send(sent));
    std::vector<char> untyped = DchMessage().int32(kStatus, 1).bytes();
    ASSERT_TRUE(client.send(untyped));
    ASSERT_TRUE(dch.waitReceived(2));
    std::vector<DchRequest> got = dch.received();
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(got[0].bytes, sent);
    EXPECT_EQ(got[0].requestType(), kOnline);
    EXPECT_EQ(got[0].clientName, "127.0.0.1");
    EXPECT_EQ(ntohs(got[0].from.sin_port), client.port());
    EXPECT_EQ(got[0].connectedSockFD, 0u);
    EXPECT_EQ(got[1].bytes, untyped);
    EXPECT_EQ(got[1].requestType(), -1);
    dch.reset();
    EXPECT_TRUE(dch.received().empty());
}

TEST(FakeDchTest, KeepsOnlyTheLatestRequestsButCountsThemAll) {
    FakeDch &dch = freshDch();
    constexpr size_t kSent = 10000;
    constexpr size_t kPace = 100;  // then wait, so the socket buffer never overflows
    Client client;
    for (size_t i = 0; i < kSent; ++i) {
        ASSERT_TRUE(client.send(request(kOnline, std::to_string(i)))) << "datagram " << i;
        if ((i + 1) % kPace == 0) {
            ASSERT_TRUE(dch.waitReceived(i + 1)) << "datagram " << i;
        }
    }
    ASSERT_TRUE(dch.waitReceived(kSent));
    EXPECT_EQ(dch.receivedCount(), kSent);
    std::vector<DchRequest> got = dch.received();
    ASSERT_LE(got.size(), FakeDch::kKept);
    ASSERT_FALSE(got.empty());
    // The latest ones, oldest first.
    EXPECT_EQ(got.front().bytes, request(kOnline, std::to_string(kSent - got.size())));
    EXPECT_EQ(got.back().bytes, request(kOnline, std::to_string(kSent - 1)));
    dch.reset();
    EXPECT_EQ(dch.receivedCount(), 0u);
    EXPECT_TRUE(dch.received().empty());
}

TEST(FakeDchTest, TcpRequestIsAnsweredOnItsConnection) {
    FakeDch &dch = freshDch();
    std::vector<char> answer = DchMessage().int32(kStatus, 0).int32(kHandle, 77).bytes();
    dch.reply(answer);
    TcpPeer peer(dch.port());
    ASSERT_TRUE(peer.connected());
    std::vector<char> sent = request(kOnline, "over tcp");
    ASSERT_TRUE(peer.send(sent));
    EXPECT_EQ(receive(peer.fd()), answer);
    std::vector<DchRequest> got = dch.received();
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0].bytes, sent);
    EXPECT_NE(got[0].connectedSockFD, 0u);
    EXPECT_EQ(got[0].clientName, "127.0.0.1");

    // Its end is recorded apart from the requests, and not answered.
    peer.close();
    ASSERT_TRUE(dch.waitControls(1));
    EXPECT_EQ(dch.controlCount(), 1u);
    std::vector<zevd::test::DchControl> controls = dch.controls();
    ASSERT_EQ(controls.size(), 1u);
    EXPECT_EQ(controls[0].text, "DP-DISCONNECT");
    EXPECT_EQ(controls[0].connectedSockFD, got[0].connectedSockFD);
    EXPECT_EQ(controls[0].clientName, std::string(255, ' '));
    EXPECT_EQ(dch.received().size(), 1u);
}

TEST(FakeDchTest, IncompleteTcpMessageIsRecordedAsResend) {
    FakeDch &dch = freshDch();
    TcpPeer peer(dch.port());
    ASSERT_TRUE(peer.connected());
    std::vector<char> sent = request(kOnline, "cut short");
    ASSERT_TRUE(peer.send(sent.data(), sent.size() - 3));
    ASSERT_TRUE(peer.shutdownWrite());
    ASSERT_TRUE(dch.waitControls(2));  // the resend, then the end of the stream
    std::vector<zevd::test::DchControl> controls = dch.controls();
    EXPECT_EQ(controls[0].text, "RESEND_MESSAGE");
    EXPECT_EQ(controls[0].clientName, "127.0.0.1");
    EXPECT_EQ(controls[1].text, "DP-DISCONNECT");
    EXPECT_EQ(controls[0].connectedSockFD, controls[1].connectedSockFD);
    EXPECT_TRUE(dch.received().empty());
}

TEST(DchMessageTest, EncodesFieldsBehindTheirLengthWord) {
    std::vector<char> bytes = DchMessage()
                                  .int16(kRequestType, 0x1015)
                                  .int32(kStatus, -1)
                                  .string(kSourceName, "ab")
                                  .raw(kStatus, {1, 2})
                                  .bytes();
    std::vector<unsigned char> expected = {
        0, 0,  0, 39,                                // length word
        0, 16, 0, 0,  0, 2, 0x10, 0x15,              // request type, 16 bits
        0, 17, 0, 0,  0, 4, 0xff, 0xff, 0xff, 0xff,  // status, 32 bits
        0, 34, 0, 0,  0, 3, 'a',  'b',  0,           // string with its zero
        0, 17, 0, 0,  0, 2, 1,    2,                 // raw: as given
    };
    ASSERT_EQ(bytes.size(), expected.size());
    EXPECT_EQ(memcmp(bytes.data(), expected.data(), expected.size()), 0);
    std::vector<char> overridden = DchMessage().int32(kStatus, 0).bytes(0);
    EXPECT_EQ(overridden.size(), 14u);
    EXPECT_EQ(overridden[3], 0);
}

}  // namespace
