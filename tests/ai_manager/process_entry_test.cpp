#include "process_entry.h"

#include <gtest/gtest.h>

TEST(ProcessEntry, UptimeFloorWaitsOnlyInTheFirstThirtySeconds) {
    EXPECT_EQ(uptimeFloorWaitSeconds(0), 30u);
    EXPECT_EQ(uptimeFloorWaitSeconds(12), 18u);
    EXPECT_EQ(uptimeFloorWaitSeconds(29), 1u);
    EXPECT_EQ(uptimeFloorWaitSeconds(30), 0u);
    EXPECT_EQ(uptimeFloorWaitSeconds(31), 0u);
    EXPECT_EQ(uptimeFloorWaitSeconds(100000), 0u);
}
