#include "foundation/time_utils.h"

#include <gtest/gtest.h>

#include <chrono>
#include <ctime>

namespace zel {
namespace {

TEST(TimeUtils, IsoTextsAreUtcWithoutFractions) {
  EXPECT_EQ(toISOTime(0), "1970-01-01T00:00:00Z");
  EXPECT_EQ(toISOTime(1594200000), "2020-07-08T09:20:00Z");
  EXPECT_EQ(toISOTime(1614600000), "2021-03-01T12:00:00Z");
  EXPECT_EQ(getISOTime(), toISOTime(time_now()));
}

TEST(TimeUtils, TimeNowFollowsTheWallClockAndTheTestOffset) {
  long wall = static_cast<long>(std::time(nullptr));
  long before = time_now() - clock_offset();
  EXPECT_LE(std::abs(before - wall), 1);
  advance_clock(100);
  EXPECT_GE(time_now() - wall - clock_offset() + 100, 99);
  advance_clock(-100);
  EXPECT_LE(std::abs(time_now() - clock_offset() - wall), 1);
}

TEST(TimeUtils, RatelimitFiresOncePerPeriod) {
  unsigned stamp = 0;
  EXPECT_EQ(ratelimit(&stamp, 30), 1);  // a zero stamp fires at once
  EXPECT_EQ(stamp, static_cast<unsigned>(time_now()));
  EXPECT_EQ(ratelimit(&stamp, 30), 0);
  advance_clock(29);
  EXPECT_EQ(ratelimit(&stamp, 30), 0);
  advance_clock(1);
  EXPECT_EQ(ratelimit(&stamp, 30), 1);
  EXPECT_EQ(ratelimit(&stamp, 30), 0);
  advance_clock(-30);
}

TEST(TimeUtils, RatelimitWaitsOutAStampInTheFuture) {
  unsigned stamp = static_cast<unsigned>(time_now() + 10);  // clock was set back
  EXPECT_EQ(ratelimit(&stamp, 5), 0);
  advance_clock(14);
  EXPECT_EQ(ratelimit(&stamp, 5), 0);
  advance_clock(1);
  EXPECT_EQ(ratelimit(&stamp, 5), 1);
  advance_clock(-15);
}

}  // namespace
}  // namespace zel
