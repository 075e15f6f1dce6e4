// ipcLPC: the inert transport and its trace events.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "ipc/zevdlpc.h"
#include "support/trace_capture.h"

namespace {

using zevd::test::TraceCapture;

// The texts of the lines that one function wrote.
std::vector<std::string> textsOf(const TraceCapture &capture, const std::string &function) {
    std::vector<std::string> out;
    for (const auto &line : capture.lines())
        if (line.find(" " + function + ":") != std::string::npos)
            out.push_back(zevd::test::traceText(line));
    return out;
}

TEST(LPCTest, ClientConstructorStartsAsClientWithErrorZero) {
    TraceCapture capture("zevdlpc=entry zevdipc=detail");
    ipcLPC lpc(1, nullptr, 0);
    EXPECT_EQ(lpc.ipcGetError(), 0);
    EXPECT_EQ(lpc.ipcTypeOfService(), 1);
    EXPECT_TRUE(capture.hasText("DCHipc CLIENT Service initializing.\n")) << capture.joined();
    EXPECT_EQ(textsOf(capture, "ipcLPC::ipcLPC"), (std::vector<std::string>{"Entry\n", "Exit\n"}));
    // startup ran IPCClient, which answers with the LPC error word.
    EXPECT_EQ(textsOf(capture, "ipcLPC::IPCClient"),
              (std::vector<std::string>{"Entry\n", "Exit: 0x0\n"}));
    EXPECT_EQ(lpc.allocateIPC(), 0);
}

TEST(LPCTest, InvalidServiceLeavesStartupErrorInTheBase) {
    TraceCapture capture("error");
    ipcLPC lpc(9, nullptr, 0);
    EXPECT_EQ(lpc.ipcGetError(), 1);
    EXPECT_TRUE(capture.hasText("Error: Invalid type of service for DCHipc: 9\n"))
        << capture.joined();
    // The LPC error word was taken before startup.
    EXPECT_EQ(lpc.allocateIPC(), 0);
}

TEST(LPCTest, DefaultConstructorReportsWithoutLineEndAndFails) {
    // Kept: unlike the base's text, the LPC one carries no line end.
    const std::string text = kLPCDefaultConstructorError;
    ASSERT_FALSE(text.empty());
    EXPECT_NE(text.back(), '\n');
    EXPECT_EQ(text, "Error: this constructor should not be used.");

    TraceCapture capture("error");
    ipcLPC lpc;
    EXPECT_EQ(textsOf(capture, "DCHipc::DCHipc"),
              (std::vector<std::string>{"Error: this constructor should not be used.\n"}));
    // The facility ends the line itself.
    EXPECT_EQ(textsOf(capture, "ipcLPC::ipcLPC"), (std::vector<std::string>{text + "\n"}))
        << capture.joined();
    EXPECT_EQ(lpc.ipcGetError(), 1);
    EXPECT_EQ(lpc.allocateIPC(), 1);
    EXPECT_EQ(lpc.releaseIPC(), 1);
    EXPECT_EQ(lpc.IPCServer(), 1);
    EXPECT_EQ(lpc.IPCClient(nullptr, 0, 1), 1);
}

TEST(LPCTest, ReadLeavesBufferUntouchedWhateverTheWait) {
    ipcLPC lpc(1, nullptr, 0);
    char sentinel[4] = {'k', 'e', 'p', 't'};
    for (int32_t wait : {0, 5, -1}) {
        char *buffer = sentinel;
        EXPECT_EQ(lpc.ipcRead(&buffer, wait), 0) << wait;
        EXPECT_EQ(buffer, sentinel) << wait;
        char *none = nullptr;
        EXPECT_EQ(lpc.ipcRead(&none, wait), 0) << wait;
        EXPECT_EQ(none, nullptr) << wait;
    }
    EXPECT_EQ(memcmp(sentinel, "kept", 4), 0);
}

TEST(LPCTest, WriteAndSetClientAddrDoNothing) {
    ipcLPC lpc(1, nullptr, 0);
    const char message[] = "nothing is sent";
    EXPECT_EQ(lpc.ipcWrite(message, static_cast<int32_t>(sizeof message), 0), 0);
    EXPECT_EQ(lpc.ipcWrite(nullptr, 0, 7), 0);
    unsigned char addr[16] = {2, 0, 7, 127};
    EXPECT_EQ(lpc.setClientAddr(addr, 16), 0);
    EXPECT_EQ(lpc.setClientAddr(nullptr, 0), 0);
    EXPECT_EQ(addr[3], 127);
}

TEST(LPCTest, StubsReturnTheLPCErrorWord) {
    ipcLPC lpc(3, nullptr, 0);
    EXPECT_EQ(lpc.IPCServer(), 0);
    EXPECT_EQ(lpc.IPCClient(nullptr, 0, 3), 0);
    EXPECT_EQ(lpc.allocateIPC(), 0);
    EXPECT_EQ(lpc.releaseIPC(), 0);
}

TEST(LPCTest, TimeoutIsTheBaseDefault) {
    ipcLPC lpc(1, nullptr, 0);
    EXPECT_EQ(lpc.DCHtimeout(), 30);
}

TEST(LPCTest, EveryOperationWritesEntryAndExitEvents) {
    ipcLPC failed;  // its error word is 1, so the stubs return it visibly
    TraceCapture capture("zevdlpc=entry");
    char *buffer = nullptr;
    failed.ipcRead(&buffer, 5);
    failed.ipcWrite("x", 1, 0);
    failed.setClientAddr(nullptr, 0);
    failed.IPCServer();
    failed.IPCClient(nullptr, 0, 1);
    failed.allocateIPC();
    failed.releaseIPC();
    const std::vector<std::string> zero = {"Entry\n", "Exit: 0x0\n"};
    const std::vector<std::string> one = {"Entry\n", "Exit: 0x1\n"};
    EXPECT_EQ(textsOf(capture, "ipcLPC::ipcRead"), zero);
    EXPECT_EQ(textsOf(capture, "ipcLPC::ipcWrite"), zero);
    EXPECT_EQ(textsOf(capture, "ipcLPC::setClientAddr"),
              (std::vector<std::string>{"Entry\n", "Exit\n"}));
    EXPECT_EQ(textsOf(capture, "ipcLPC::IPCServer"), one);
    EXPECT_EQ(textsOf(capture, "ipcLPC::IPCClient"), one);
    EXPECT_EQ(textsOf(capture, "ipcLPC::allocateIPC"), one);
    EXPECT_EQ(textsOf(capture, "ipcLPC::releaseIPC"), one);
    EXPECT_EQ(capture.texts().size(), 14u) << capture.joined();
}

TEST(LPCTest, DestructorWritesItsEventsThenTheBaseOnes) {
    TraceCapture capture("zevdlpc=entry zevdipc=entry");
    { ipcLPC lpc(1, nullptr, 0); }
    auto lines = capture.lines();
    std::vector<std::string> tail;
    for (size_t i = lines.size() >= 4 ? lines.size() - 4 : 0; i < lines.size(); ++i)
        tail.push_back(lines[i]);
    ASSERT_EQ(tail.size(), 4u) << capture.joined();
    EXPECT_NE(tail[0].find(" ipcLPC::~ipcLPC:"), std::string::npos) << capture.joined();
    EXPECT_EQ(zevd::test::traceText(tail[0]), "Entry\n");
    EXPECT_NE(tail[1].find(" ipcLPC::~ipcLPC:"), std::string::npos);
    EXPECT_EQ(zevd::test::traceText(tail[1]), "Exit\n");
    EXPECT_NE(tail[2].find(" DCHipc::~DCHipc:"), std::string::npos);
    EXPECT_NE(tail[3].find(" DCHipc::~DCHipc:"), std::string::npos);
}

TEST(LPCTest, ServerServiceRunsTheStubServerOnItsThread) {
    TraceCapture capture("zevdlpc=entry zevdipc=entry");
    {
        ipcLPC lpc(2, nullptr, 0);
        // The base's receive thread ends at once: IPCServer answers 0.
        ASSERT_TRUE(capture.waitFor("Returning NULL", std::chrono::seconds(30)))
            << capture.joined();
        EXPECT_EQ(lpc.ipcGetError(), 0);
    }
    EXPECT_EQ(textsOf(capture, "ipcLPC::IPCServer"),
              (std::vector<std::string>{"Entry\n", "Exit: 0x0\n"}));
}

}  // namespace
