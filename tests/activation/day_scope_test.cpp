#include <gtest/gtest.h>
#include <stdlib.h>
#include <time.h>

#include "activation/midnight.h"
#include "perfstats/report_state.h"
#include "tests/activation/launcher.h"

// What a day resets, and when a day begins.

namespace quorveld {
namespace {

using namespace std::chrono_literals;
using platform::WallTime;
using sim::LauncherWorld;
using sim::Level;

WallTime utc(int64_t seconds, std::chrono::nanoseconds fraction = 0ns) {
  return WallTime(std::chrono::seconds(seconds) + fraction);
}

TEST(Midnight, IsTheStartOfTheNextDayWhateverItsLength) {
  struct Case {
    const char* zone;
    int64_t now;
    const char* midnight;  ///< UTC
  };
  const Case cases[] = {
      {"UTC0", 1'768'474'800, "2026-01-16 00:00:00 +0000"},
      // 2026-03-28 12:00 UTC, the evening before 23 hours; and the day itself.
      {"CET-1CEST,M3.5.0,M10.5.0/3", 1'774'699'200, "2026-03-28 23:00:00 +0000"},
      {"CET-1CEST,M3.5.0,M10.5.0/3", 1'774'785'600, "2026-03-29 22:00:00 +0000"},
      // 2026-10-25 00:30 UTC, within the day of 25 hours.
      {"CET-1CEST,M3.5.0,M10.5.0/3", 1'792'888'200, "2026-10-25 23:00:00 +0000"},
      // Clocks go forward at midnight of 2026-03-29: that day starts at 01:00 local time, 05:00 UTC.
      {"XST5XDT,M3.5.0/0,M10.5.0/0", 1'774'728'000, "2026-03-29 05:00:00 +0000"},
      // The last day of a month and of a year: 2026-12-31 23:30 at UTC+5:30.
      {"IST-5:30", 1'798'740'000, "2026-12-31 18:30:00 +0000"},
  };
  for (const Case& c : cases) {
    setenv("TZ", c.zone, 1);
    EXPECT_EQ(dateText(nextLocalMidnight(utc(c.now))), c.midnight) << c.zone << " at " << c.now;
  }
  setenv("TZ", "UTC0", 1);
  tzset();
  const WallTime midnight = utc(1'768'521'600);
  EXPECT_EQ(delayUntilMidnight(midnight - 3599'750ms, midnight), 3599s);
  EXPECT_EQ(delayUntilMidnight(midnight - 500ms, midnight), 0s);
  EXPECT_EQ(delayUntilMidnight(midnight, midnight), 60s);
}

TEST(Midnight, ResetsTheDayAndArmsTheNext) {
  LauncherWorld world;
  world.preferences.userSets("QuorvelAppActivationLoggingMaxActivationCount", int64_t{1});
  world.queues.setWallTime(utc(1'768'518'000, 250ms));  // 2026-01-15 23:00:00.250
  world.start();
  EXPECT_TRUE(
      world.logged(Level::info, "QVActivationStats: Setting Timer to fire at 2026-01-16 00:00:00 +0000"));
  world.begin();
  world.activate(5, "app", 1s);
  world.activate(5, "app", 1s);
  EXPECT_EQ(world.powerLog.events.size(), 1u);
  reportState().largestTrackedPid = 77;

  // Fires in the last second of the day, then again within it.
  world.advance(3599s);
  EXPECT_EQ(world.logs.count(
                Level::info,
                "QVActivationStats: Timer Fired at 2026-01-15 23:59:59 +0000. Scheduled date was:2026-01-16 "
                "00:00:00 +0000"),
            2);
  EXPECT_EQ(reportState().largestTrackedPid, -1);
  EXPECT_TRUE(
      world.logged(Level::info, "QVActivationStats: Setting Timer to fire at 2026-01-17 00:00:00 +0000"));
  world.activate(5, "app", 1s);
  EXPECT_EQ(world.powerLog.events.size(), 2u);

  // A clock that is set to just before the deadline, or beyond it, takes the timer along.
  world.logs.clear();
  world.queues.setWallTime(utc(1'768'608'000 + 7200));  // 02:00 of the 17th
  world.advance(1s);
  EXPECT_TRUE(
      world.logged(Level::info, "QVActivationStats: Setting Timer to fire at 2026-01-18 00:00:00 +0000"));
  world.logs.clear();
  world.queues.setWallTime(utc(1'768'608'000 - 86'400));  // back by a day: nothing is due before the 18th
  world.advance(36h);
  EXPECT_FALSE(world.logs.hasPrefix(Level::info, "QVActivationStats: Timer Fired"));
}

TEST(FirstUnlock, ForgetsWhichProcessesWereNamed) {
  LauncherWorld world;
  world.begin();
  reportState().largestTrackedPid = 77;
  world.notifications.post("com.corvix.mobile.strelld.first_unlock");
  world.settle();
  EXPECT_TRUE(world.logged(Level::info, "QVActivationStats: First unlock; resetting largest tracked pid"));
  EXPECT_EQ(reportState().largestTrackedPid, -1);
}

}  // namespace
}  // namespace quorveld
