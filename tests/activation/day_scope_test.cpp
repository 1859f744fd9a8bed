#include <gtest/gtest.h>
#include <stdlib.h>
#include <time.h>

#include <string>
#include <tuple>
#include <vector>

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

using Midnights = std::vector<std::string>;

/// The midnights that the timer has been set to since the log was cleared.
Midnights armed(const LauncherWorld& world) {
  const std::string prefix = "QVActivationStats: Setting Timer to fire at ";
  Midnights dates;
  for (const std::string& line : world.lines(Level::info)) {
    if (line.starts_with(prefix)) dates.push_back(line.substr(prefix.size()));
  }
  return dates;
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
      // They go back at 01:00 of 2026-11-01: of that day's two midnights it is the first, on the eve and,
      // for the day after, between the two.
      {"CST5CDT,M3.2.0/0,M11.1.0/1", 1'793'462'400, "2026-11-01 04:00:00 +0000"},
      {"CST5CDT,M3.2.0/0,M11.1.0/1", 1'793'507'400, "2026-11-02 05:00:00 +0000"},
      // They go back at 00:01: half a minute into a day that is about to be yesterday for another hour.
      {"NST3:30NDT,M3.2.0/0:01,M11.1.0/0:01", 1'793'500'230, "2026-11-02 03:30:00 +0000"},
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
  EXPECT_EQ(world.logs.count(Level::info,
                             "QVActivationStats: Timer Fired at 2026-01-15 23:59:59 +0000. "
                             "Scheduled date was:2026-01-16 00:00:00 +0000"),
            2);
  EXPECT_EQ(reportState().largestTrackedPid, -1);
  EXPECT_TRUE(
      world.logged(Level::info, "QVActivationStats: Setting Timer to fire at 2026-01-17 00:00:00 +0000"));
  world.activate(5, "app", 1s);
  EXPECT_EQ(world.powerLog.events.size(), 2u);
}

TEST(Midnight, StaysAPointOfAClockThatIsSet) {
  LauncherWorld world;
  world.begin();
  world.queues.setWallTime(utc(1'768'608'000 + 7200));  // 02:00 of the 17th, a day and a midnight later
  world.settle();
  EXPECT_EQ(armed(world), Midnights{"2026-01-18 00:00:00 +0000"});
  world.logs.clear();
  world.queues.setWallTime(utc(1'768'608'000 - 86'400));  // back to the 16th: nothing is due before the 18th
  world.advance(47h);
  EXPECT_EQ(armed(world), Midnights{});
  world.advance(1h);
  EXPECT_EQ(armed(world), Midnights{"2026-01-19 00:00:00 +0000"});
}

TEST(Midnight, PassesWhileTheMachineSleepsAndATimeoutDoesNot) {
  LauncherWorld world;
  world.begin();
  world.beginActivation(5, "app");
  world.queues.setWallTime(world.clock.wallTime() + 20h);  // asleep: the monotonic clock stands still
  world.settle();
  EXPECT_TRUE(world.logged(Level::info,
                           "QVActivationStats: Timer Fired at 2026-01-16 06:00:00 +0000. "
                           "Scheduled date was:2026-01-16 00:00:00 +0000"));
  EXPECT_EQ(armed(world), Midnights{"2026-01-17 00:00:00 +0000"});
  world.endActivation(5, "app");
  EXPECT_TRUE(world.logged(Level::standard, "QVActivationStats: app FG Launch Duration = 72000000ms"));
}

TEST(Midnight, ComesAfter23And25HoursWhereClocksChange) {
  for (const auto& [noon, first, second, third] :
       {std::tuple(1'774'699'200, "2026-03-28 23:00:00 +0000", "2026-03-29 22:00:00 +0000",
                   "2026-03-30 22:00:00 +0000"),
        std::tuple(1'792'843'200, "2026-10-24 22:00:00 +0000", "2026-10-25 23:00:00 +0000",
                   "2026-10-26 23:00:00 +0000")}) {
    LauncherWorld world;
    setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
    world.queues.setWallTime(utc(noon, 250ms));
    world.start();
    world.advance(36h);
    // Each of the two midnights in 36 hours is met twice, from a fraction of a second before it.
    EXPECT_EQ(armed(world), (Midnights{first, first, second, second, third}));
  }
}

TEST(Midnight, IsTheOldZonesOnceMoreAfterAMoveToAnother) {
  LauncherWorld world;
  world.start();
  world.logs.clear();
  setenv("TZ", "IST-5:30", 1);  // where it is 15:30 by now and midnight comes at 18:30 UTC
  world.advance(14h - 1ms);
  EXPECT_EQ(armed(world), Midnights{});
  world.advance(1ms);
  EXPECT_EQ(armed(world), Midnights{"2026-01-16 18:30:00 +0000"});
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
