#include <gtest/gtest.h>

#include "support/trace_capture.h"
#include "zevd610.h"

TEST(TraceTest, SetInstanceNameWritesEntryStoringExit) {
    zevd::test::TraceCapture capture("all");
    ZEVA_SetInstanceName("   abc");
    auto texts = capture.texts();
    ASSERT_EQ(texts.size(), 3u) << capture.joined();
    EXPECT_EQ(texts[0], "Entry\n");
    EXPECT_EQ(texts[1], "Storing InstanceName <abc>\n");
    EXPECT_EQ(texts[2], "Exit\n");
}
