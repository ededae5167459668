// The last minutes of a row: steps, gaps and changes of the clock.
#include "collector/history.h"

#include <gtest/gtest.h>

namespace tolvane::agent::test {
namespace {

TEST(History, HoldsTheLastQuarterOfAnHour) {
    History history;
    EXPECT_TRUE(history.points(1000).empty());
    history.add(1000, {3, 1, 0.5F, 2});
    history.add(1009, {1, 0, 0.5F, 1});
    history.add(1025, {7, 0, 0, 0});
    auto points = history.points(1040);
    ASSERT_EQ(points.size(), 90U);
    EXPECT_EQ(points[85].requests, 4U);
    EXPECT_EQ(points[85].responses, 3U);
    EXPECT_EQ(points[86].requests, 0U);
    EXPECT_EQ(points[87].requests, 7U);
    EXPECT_EQ(points[89].requests, 0U);
    // A whole turn later the old points are gone, not shown again.
    history.add(1025 + 900, {1, 0, 0, 0});
    points = history.points(1025 + 900);
    EXPECT_EQ(points[89].requests, 1U);
    for (std::size_t i = 0; i < 89; ++i) EXPECT_EQ(points[i].requests, 0U) << i;
    EXPECT_TRUE(history.points(1025 + 1800).empty());
}

TEST(History, StartsAgainWhenTheClockIsSetBack) {
    History history;
    history.add(100000, {5, 0, 0, 0});
    history.add(50000, {2, 0, 0, 0});
    auto points = history.points(50000);
    ASSERT_EQ(points.size(), 90U);
    EXPECT_EQ(points[89].requests, 2U);
    EXPECT_EQ(points[88].requests, 0U);
}

}  // namespace
}  // namespace tolvane::agent::test
