// A data provider's whole life over loopback against the fake DCH:
// register, online, 1,000 rows of mixed attribute types, offline,
// unregister. The DCH checks every request against one built here apart from
// the library, byte for byte, and answers a mismatch with a status of its
// own, so a wrong byte shows both in the status words and in the records.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "support/client_probe.h"
#include "support/fake_dch.h"
#include "zevd610.h"

namespace {

using zevd::test::be16;
using zevd::test::be32;
using zevd::test::DchMessage;
using zevd::test::DchReply;
using zevd::test::DchRequest;
using zevd::test::FakeDch;
using zevd::test::hexText;
using zevd::test::hostBytes;
using zevd::test::WireMessage;

constexpr int kRows = 1000;
constexpr int32_t kHandle = 4242;
constexpr int32_t kMismatch = 99;
constexpr const char *kRegistration =
    "APPL prov Test provider;GROUP load;ATTR seq A 4;ATTR small C 2;ATTR level I 2;"
    "ATTR port S 2;ATTR gauge G 4;ATTR count N 4;ATTR total L 2;ATTR host D 32;"
    "ATTR stamp T 16;ATTR note Z 40;ATTR raw X 3";

// One attribute of a row: what the provider hands to dp_formatData, and the
// value bytes the DCH must find for it.
struct Attribute {
    std::string name;
    char type;
    std::vector<char> value;  // the provider's bytes
    std::vector<char> wire;   // the DCH_attrValue value on the wire
};

std::vector<char> textBytes(const std::string &s) {
    return std::vector<char>(s.c_str(), s.c_str() + s.size() + 1);
}

// Row i: a changing mix of 3 to 11 attributes of every kind of letter.
std::vector<Attribute> rowAttributes(int i) {
    std::vector<Attribute> all;
    auto seq = static_cast<int32_t>(i);
    all.push_back({"seq", 'A', hostBytes(seq), be32(static_cast<uint32_t>(seq))});
    auto small = static_cast<int16_t>(i * 37 - 20000);
    all.push_back({"small", 'C', hostBytes(small), be16(static_cast<uint16_t>(small))});
    auto level = static_cast<int16_t>(-i);
    all.push_back({"level", 'I', hostBytes(level), be16(static_cast<uint16_t>(level))});
    auto port = static_cast<int16_t>(1024 + i);
    all.push_back({"port", 'S', hostBytes(port), be16(static_cast<uint16_t>(port))});
    auto gauge = static_cast<int32_t>(i * 1000003 - 500000000);
    all.push_back({"gauge", 'G', hostBytes(gauge), be32(static_cast<uint32_t>(gauge))});
    auto count = static_cast<int32_t>(i * i);
    all.push_back({"count", 'N', hostBytes(count), be32(static_cast<uint32_t>(count))});
    auto total = static_cast<int16_t>(i);  // an integer letter of size 2
    all.push_back({"total", 'L', hostBytes(total), be16(static_cast<uint16_t>(total))});
    std::string host = "host-" + std::to_string(i % 17);
    all.push_back({"host", 'D', textBytes(host), textBytes(host)});
    std::string stamp = "2026-11-22 " + std::to_string(i % 24);
    all.push_back({"stamp", 'T', textBytes(stamp), textBytes(stamp)});
    std::string note(static_cast<size_t>(i % 39), static_cast<char>('a' + i % 26));
    all.push_back({"note", 'Z', textBytes(note), textBytes(note)});
    std::vector<char> raw = {static_cast<char>(i & 0xFF), 0, static_cast<char>(0xFF - (i & 0xFF))};
    all.push_back({"raw", 'X', raw, raw});
    // Rotate the start and vary the count, so rows differ in layout too.
    size_t count_ = 3 + static_cast<size_t>(i % 9);
    std::vector<Attribute> row;
    for (size_t k = 0; k < count_; ++k)
        row.push_back(all[(static_cast<size_t>(i) + k) % all.size()]);
    return row;
}

int16_t rowFlag(int i) {
    return static_cast<int16_t>(i % 3 == 0 ? 1 : -i);
}

std::vector<char> expectedRow(int i) {
    WireMessage row;
    row.int16(DCH_requestType, 0x1030)
        .int32(DCH_handle, kHandle)
        .int16(DCH_dataFlag, static_cast<uint16_t>(rowFlag(i)));
    for (const Attribute &a : rowAttributes(i))
        row.string(DCH_attrName, a.name).field(DCH_attrValue, a.wire);
    return row.bytes();
}

std::vector<char> expectedRegister() {
    // The register request as its layout is documented.
    WireMessage m;
    m.int16(DCH_requestType, 0x1010).string(DCH_applName, "prov").string(0x200, "Test provider");
    m.string(DCH_attrGroup, "load").string(0x200, "");
    const struct {
        const char *name;
        char letter;
        int32_t size;
    } attrs[] = {{"seq", 'A', 4},    {"small", 'C', 2}, {"level", 'I', 2}, {"port", 'S', 2},
                 {"gauge", 'G', 4},  {"count", 'N', 4}, {"total", 'L', 2}, {"host", 'D', 32},
                 {"stamp", 'T', 16}, {"note", 'Z', 40}, {"raw", 'X', 3}};
    for (const auto &a : attrs)
        m.string(DCH_attrName, a.name)
            .int16(0x201, static_cast<uint16_t>(a.letter))
            .int32(0x202, static_cast<uint32_t>(a.size))
            .string(0x200, "");
    return m.bytes();
}

// The requests of the whole life in order.
std::vector<std::vector<char>> expectedLife() {
    std::vector<std::vector<char>> life;
    life.push_back(expectedRegister());
    life.push_back(WireMessage()
                       .int16(DCH_requestType, 0x1015)
                       .string(DCH_applName, "prov")
                       .string(DCH_attrGroup, "load")
                       .string(DCH_sourceName, "node-1")
                       .bytes());
    for (int i = 0; i < kRows; ++i) life.push_back(expectedRow(i));
    life.push_back(WireMessage().int16(DCH_requestType, 0x1025).int32(DCH_handle, kHandle).bytes());
    life.push_back(
        WireMessage().int16(DCH_requestType, 0x1020).string(DCH_applName, "prov").bytes());
    return life;
}

TEST(ClientProviderTest, AProvidersWholeLifeReachesTheDchByteForByte) {
    FakeDch &dch = FakeDch::instance();
    dch.reset();
    // Shared with the DCH's worker, which may outlive this test's frame.
    struct Expected {
        std::mutex lock;
        std::vector<std::vector<char>> life = expectedLife();
        size_t next = 0;
    };
    auto expected = std::make_shared<Expected>();
    const std::vector<std::vector<char>> &life = expected->life;
    dch.setResponder([expected](const DchRequest &request) -> DchReply {
        std::lock_guard<std::mutex> guard(expected->lock);
        size_t at = expected->next++;
        bool same = at < expected->life.size() && request.bytes == expected->life[at];
        DchMessage answer;
        answer.int32(DCH_status, same ? 0 : kMismatch);
        if (request.requestType() == 0x1015) answer.int32(DCH_handle, kHandle);
        return answer.bytes();
    });

    long status = -1;
    ASSERT_EQ(dp_register(&status, kRegistration), 0);
    ASSERT_EQ(status, 0);
    long handle = -1;
    ASSERT_EQ(dp_online(&status, &handle, "prov", "load", "node-1"), 0);
    ASSERT_EQ(status, 0);
    ASSERT_EQ(handle, kHandle);

    int failedRows = 0;
    for (int i = 0; i < kRows; ++i) {
        char *row = nullptr;
        long size = 0;
        bool formatted = true;
        for (const Attribute &a : rowAttributes(i)) {
            long valueSize = static_cast<long>(a.value.size());
            formatted = formatted &&
                        dp_formatData(&status, &row, &size, a.name.c_str(), a.value.data(),
                                      valueSize, a.type) == 0 &&
                        status == 0;
        }
        int result = dp_data(&status, handle, rowFlag(i), &row);
        if (!formatted || result != 0 || status != 0 || row != nullptr) {
            ADD_FAILURE() << "row " << i << ": result " << result << " status " << status;
            if (++failedRows > 5) break;
        }
    }
    ASSERT_EQ(failedRows, 0);

    ASSERT_EQ(dp_offline(&status, handle), 0);
    ASSERT_EQ(status, 0);
    ASSERT_EQ(dp_unregister(&status, "prov"), 0);
    ASSERT_EQ(status, 0);

    ASSERT_TRUE(dch.waitReceived(life.size()));
    ASSERT_EQ(dch.receivedCount(), life.size());
    // The responder compared every request; the harness keeps the latest
    // ones, which are shown byte by byte when they differ.
    std::vector<DchRequest> received = dch.received();
    ASSERT_EQ(received.size(), std::min(life.size(), FakeDch::kKept));
    const size_t first = life.size() - received.size();
    int mismatches = 0;
    for (size_t i = 0; i < received.size() && mismatches < 3; ++i) {
        if (received[i].bytes == life[first + i]) continue;
        ++mismatches;
        ADD_FAILURE() << "request " << first + i << " differs:\nreceived\n"
                      << hexText(received[i].bytes) << "\nexpected\n"
                      << hexText(life[first + i]);
    }
    EXPECT_EQ(mismatches, 0);
    {
        std::lock_guard<std::mutex> guard(expected->lock);
        EXPECT_EQ(expected->next, life.size());
    }
    dch.reset();
}

}  // namespace
