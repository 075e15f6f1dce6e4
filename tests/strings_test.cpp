// Small string helpers and the checksum.
#include <gtest/gtest.h>

#include <barrier>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "zev0.h"

namespace {

TEST(StringsTest, ChecksumIsXmodemCrc) {
    const char text[] = "123456789";
    EXPECT_EQ(ZEV0_ComputeCheckSum(text, 9, 0), 0x31C3);
    const unsigned char zero = 0;
    EXPECT_EQ(ZEV0_ComputeCheckSum(&zero, 1, 0), 0x0000);
    const unsigned char a = 'A';
    EXPECT_EQ(ZEV0_ComputeCheckSum(&a, 1, 0), 0x58E5);
    // The seed is the initial value, with no final xor: CRC-16/AUG-CCITT.
    EXPECT_EQ(ZEV0_ComputeCheckSum(text, 9, 0x1D0F), 0xE5CC);
}

TEST(StringsTest, ChecksumOfNothingIsTheSeed) {
    const char text[] = "x";
    for (int seed : {0, 0x1D0F, 0xFFFF, 0x1234}) {
        EXPECT_EQ(ZEV0_ComputeCheckSum(text, 0, seed), seed);
        EXPECT_EQ(ZEV0_ComputeCheckSum(text, -5, seed), seed);
        EXPECT_EQ(ZEV0_ComputeCheckSum(nullptr, 9, seed), seed);
    }
}

TEST(StringsTest, ChecksumChainsThroughTheSeed) {
    const char text[] = "123456789";
    unsigned short first = ZEV0_ComputeCheckSum(text, 4, 0);
    EXPECT_EQ(ZEV0_ComputeCheckSum(text + 4, 5, first), 0x31C3);
}

TEST(StringsTest, TruncateFromLeftKeepsTheLastCharacters) {
    char s[] = "abcdef";
    ZEV0_TruncateFromLeft(s, 6, 3);
    EXPECT_STREQ(s, "def");
    char one[] = "abcdef";
    ZEV0_TruncateFromLeft(one, 6, 1);
    EXPECT_STREQ(one, "f");
}

TEST(StringsTest, TruncateFromLeftToNothingEmpties) {
    char zero[] = "abcdef";
    ZEV0_TruncateFromLeft(zero, 6, 0);
    EXPECT_STREQ(zero, "");
    char negative[] = "abcdef";
    ZEV0_TruncateFromLeft(negative, 6, -4);
    EXPECT_STREQ(negative, "");
}

TEST(StringsTest, TruncateFromLeftToTheLengthOrMoreChangesNothing) {
    char same[] = "abcdef";
    ZEV0_TruncateFromLeft(same, 6, 6);
    EXPECT_STREQ(same, "abcdef");
    char more[] = "abcdef";
    ZEV0_TruncateFromLeft(more, 6, 50);
    EXPECT_STREQ(more, "abcdef");
    ZEV0_TruncateFromLeft(nullptr, 6, 2);  // nothing to do, nothing to crash
}

TEST(StringsTest, TruncateFromLeftTrustsTheLengthOnlyUpToTheStringEnd) {
    char s[] = "abc";
    ZEV0_TruncateFromLeft(s, 100, 2);
    EXPECT_STREQ(s, "bc");
}

TEST(StringsTest, StrtokSplitsLikeStrtok) {
    char s[] = "  one two,,three ";
    std::vector<std::string> got;
    for (char *t = ZEV0_strtok(s, " ,"); t != nullptr && got.size() < 10;
         t = ZEV0_strtok(nullptr, " ,"))
        got.push_back(t);
    EXPECT_EQ(got, (std::vector<std::string>{"one", "two", "three"}));
    EXPECT_EQ(ZEV0_strtok(nullptr, " ,"), nullptr);
}

TEST(StringsTest, StrtokKeepsItsStatePerThread) {
    // The two threads take turns, one token each, so a shared state would
    // make each continue the other's string.
    std::barrier turn(2);
    std::vector<std::string> got[2];
    auto run = [&](int index, std::string text, const char *delimiters) {
        std::vector<char> s(text.begin(), text.end());
        s.push_back('\0');
        char *t = nullptr;
        for (int step = 0; step < 5; ++step) {
            for (int turnOf = 0; turnOf < 2; ++turnOf) {
                if (turnOf == index) {
                    t = ZEV0_strtok(step == 0 ? s.data() : nullptr, delimiters);
                    if (t != nullptr) got[index].push_back(t);
                }
                turn.arrive_and_wait();
            }
        }
    };
    std::thread a(run, 0, "a,b,c", ",");
    std::thread b(run, 1, "1;2;3;4", ";");
    a.join();
    b.join();
    EXPECT_EQ(got[0], (std::vector<std::string>{"a", "b", "c"}));
    EXPECT_EQ(got[1], (std::vector<std::string>{"1", "2", "3", "4"}));
}

TEST(StringsTest, ValidPointerIsNonNull) {
    int x = 0;
    EXPECT_EQ(ZEV0_IsValidPointer(nullptr), 0);
    EXPECT_NE(ZEV0_IsValidPointer(&x), 0);
}

}  // namespace
