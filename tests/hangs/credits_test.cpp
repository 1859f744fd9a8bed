#include <gtest/gtest.h>

#include "tests/sim/world.h"

// How many reports a process and the device may cause.

namespace quorveld {
namespace {

using namespace std::chrono_literals;
using sim::App;
using sim::Level;
using sim::Save;
using sim::World;

constexpr auto kShort = 1500ms;
constexpr auto kLong = 2500ms;

TEST(Credits, FifthShortHangOfAProcessIsRefusedUntilCreditReturns) {
  World world;
  const App viewer = world.startApp("viewer");
  for (int left = 4; left > 0; --left) {
    viewer.reportHang(kShort, Save::yes);
    EXPECT_TRUE(world.logged(
        Level::info, "viewer Log credits: " + std::to_string(left) + " -> " + std::to_string(left - 1)));
  }
  viewer.reportHang(kShort, Save::yes);
  EXPECT_EQ(world.spool().size(), 4u);
  EXPECT_TRUE(world.logged(Level::standard, "viewer is out of credits. Not saving a report!"));
  EXPECT_EQ(world.analytics.added["com.corvix.quorvel.QVLogsMissedDueToProcessLimit.Total"], 1);
  EXPECT_EQ(world.analytics.added["com.corvix.quorvel.QVLogsMissedDueToProcessLimit.viewer"], 1);

  viewer.reportHang(kLong, Save::yes);
  EXPECT_EQ(world.spool().size(), 5u) << "a long hang needs no credit of its process";
  world.startApp("editor").reportHang(kShort, Save::yes);
  EXPECT_EQ(world.spool().size(), 6u) << "nor does another process";
  world.startApp("viewer").reportHang(kShort, Save::yes);
  EXPECT_EQ(world.spool().size(), 6u) << "but a namesake shares it";

  world.replenishCredits();
  EXPECT_TRUE(world.logged(Level::info, "viewer credits increased to: 1"));
  viewer.reportHang(kShort, Save::yes);
  EXPECT_EQ(world.spool().size(), 7u);
  viewer.reportHang(kShort, Save::yes);
  EXPECT_EQ(world.spool().size(), 7u);
  for (int i = 0; i < 4; ++i) world.replenishCredits();
  EXPECT_TRUE(world.logged(Level::info, "viewer credits increased to: 4"));
  EXPECT_EQ(world.logs.count(Level::info, "editor credits increased to: 4"), 1);
  world.logs.clear();
  world.replenishCredits();
  EXPECT_TRUE(world.logs.lines.empty()) << "a full credit is not remembered: " << world.logs.dump();
}

TEST(Credits, TheLongHangThresholdItselfIsLong) {
  World world;
  const App viewer = world.startApp("viewer");
  QVProcessInfo::setLongHangDurationThreshold(0);
  viewer.send({{"command", 3}, {"name", "x"}, {"saveReport", true}});  // 0 ms
  EXPECT_TRUE(world.logged(Level::info, "viewer Log credits: Long Hang does not deduct per-app credits"));
  QVProcessInfo::setLongHangDurationThreshold(0.00001);
  viewer.send({{"command", 3}, {"name", "y"}, {"saveReport", true}});
  EXPECT_TRUE(world.logged(Level::info, "viewer Log credits: 4 -> 3"));
}

TEST(Credits, TheDeviceHasADailyAllowanceOfLongHangs) {
  World world;
  const App viewer = world.startApp("viewer");
  for (int i = 0; i < 26; ++i) viewer.reportHang(kLong, Save::yes);
  EXPECT_EQ(world.spool().size(), 25u);
  EXPECT_TRUE(world.logged(Level::info, "Daily Long Log credits: 1 -> 0"));
  EXPECT_TRUE(world.logged(
      Level::standard,
      "Device is out of Daily Long Log credits, hit the Daily Long Log limit of 25. Not saving a report!"));
  EXPECT_EQ(world.analytics.added["com.corvix.quorvel.QVLogsMissedDueToGlobalLimit.Total"], 1);
  EXPECT_EQ(world.analytics.added["com.corvix.quorvel.QVLogsMissedDueToGlobalLimit.viewer"], 1);
  viewer.reportHang(kShort, Save::yes);
  EXPECT_EQ(world.spool().size(), 26u) << "short hangs have their own";
}

TEST(Credits, ANewDailyMaximumKeepsWhatWasUsedToday) {
  World world;
  const App viewer = world.startApp("viewer");
  for (int i = 0; i < 12; ++i) {
    viewer.reportHang(kShort, Save::yes);
    world.replenishCredits();
  }
  ASSERT_EQ(world.spool().size(), 12u);
  QVProcessInfo::setMaxDailyShortLogs(10);
  EXPECT_TRUE(world.logged(Level::info, "Max Daily Short Log Limit: 25 -> 10"));
  EXPECT_TRUE(world.logged(Level::info, "Daily Short Log credits: 13 -> -2"));
  viewer.reportHang(kShort, Save::yes);
  EXPECT_TRUE(world.logged(
      Level::standard,
      "Device is out of Daily Short Log credits, hit the Daily Short Log limit of 10. Not saving a report!"));
  QVProcessInfo::setMaxDailyShortLogs(30);
  EXPECT_TRUE(world.logged(Level::info, "Daily Short Log credits: -2 -> 18"));
  QVProcessInfo::setMaxDailyLongLogs(0);
  EXPECT_TRUE(world.logged(Level::info, "Max Daily Long Log Limit: 25 -> 0"));
  EXPECT_TRUE(world.logged(Level::info, "Daily Long Log credits: 25 -> 0"));
  // A limit far below zero is none at all, however much was used.
  viewer.reportHang(kShort, Save::yes);
  QVProcessInfo::setMaxDailyShortLogs(INT32_MIN);
  EXPECT_TRUE(world.logged(Level::info, "Daily Short Log credits: 17 -> -2147483648"));
  for (const int32_t odd : {INT32_MAX, INT32_MIN, 25}) QVProcessInfo::setMaxDailyShortLogs(odd);
}

TEST(Credits, ADailyResetRefillsAndSendsTheDaysFigures) {
  World world;
  const App viewer = world.startApp("viewer");
  for (int i = 0; i < 3; ++i) viewer.reportHang(kLong, Save::yes);
  for (int i = 0; i < 5; ++i) {
    viewer.reportHang(kShort, Save::yes);
    world.replenishCredits();
  }
  QVProcessInfo::resetDailyLogCredits();
  EXPECT_EQ(world.analytics.scalars,
            (std::map<std::string, int64_t>{{"com.corvix.quorvel.QVWatchedProcesses", 1},
                                            {"com.corvix.quorvel.QVLogsGeneratedAtDailyReset", 3},
                                            {"com.corvix.quorvel.QVLongLogsGeneratedAtDailyReset", 3},
                                            {"com.corvix.quorvel.QVShortLogsGeneratedAtDailyReset", 5}}));
  EXPECT_TRUE(world.logged(Level::info, "Hang Short Logs Daily Credits reset from 20 to 25"));
  EXPECT_TRUE(world.logged(Level::info, "Hang Long Logs Daily Credits reset from 22 to 25"));
  QVProcessInfo::resetDailyLogCredits();
  EXPECT_TRUE(world.logged(Level::info, "Hang Long Logs Daily Credits reset from 25 to 25"));
}

/// Asks for a report of an activation that took the last 6 s; each at another second.
void saveActivation(World& world, const std::string& bundleID) {
  world.advance(1s);
  const uint64_t endMs = 790'164'000'000 + 1000 * static_cast<uint64_t>((world.clock.uptime - 100s) / 1s);
  QVProcessInfo::saveActivationKelvane("Launch", "slow", bundleID, endMs - 6000, endMs, {});
}

TEST(Credits, SlowActivationsAreRationedPerAppOnceTheMapExistsAndPerDay) {
  World world;
  for (int i = 0; i < 6; ++i) saveActivation(world, "com.a");
  EXPECT_EQ(world.spool().size(), 6u) << "nothing is spent before the first reset";
  EXPECT_EQ(world.logs.count(Level::info, "com.a Launch Log credits: 5 -> 4"), 6);

  QVProcessInfo::setMaxActivationKelvanesPerApp(2);
  EXPECT_TRUE(world.logged(Level::info, "Max Daily Per App Activation Kelvane Limit: 5 -> 2"));
  QVProcessInfo::resetAppActivationKelvaneCredits();
  for (int i = 0; i < 3; ++i) saveActivation(world, "com.a");
  EXPECT_EQ(world.spool().size(), 8u);
  EXPECT_TRUE(world.logged(Level::info, "com.a Launch Log credits: 1 -> 0"));
  EXPECT_TRUE(world.logged(Level::standard, "com.a is out of credits. Not saving a report!"));

  QVProcessInfo::setMaxActivationDailyKelvanes(9);
  EXPECT_TRUE(world.logged(Level::info, "Max Daily Activation Kelvane Limit: 25 -> 9"));
  EXPECT_TRUE(world.logged(Level::info, "Daily Activation Kelvane credits: 17 -> 1"));
  saveActivation(world, "com.b");
  EXPECT_TRUE(world.logged(Level::info, "Daily Launch Log credits: 1 -> 0"));
  saveActivation(world, "com.c");
  EXPECT_EQ(world.spool().size(), 9u);
  EXPECT_TRUE(
      world.logged(Level::standard,
                   "Device is out of Daily Log credits, hit the Daily Log limit of 9. Not saving a report!"));
  QVProcessInfo::resetDailyActivationKelvaneCredits();
  EXPECT_TRUE(world.logged(Level::info, "Launch Logs Daily Credits reset from 0 to 9"));
  saveActivation(world, "com.c");
  EXPECT_EQ(world.spool().size(), 10u);
}

TEST(Credits, AnActivationReportNamesTheAppAndTheTimeInTicks) {
  World world;
  world.traceLibraries.succeeds = false;
  saveActivation(world, "com.a/b");
  EXPECT_TRUE(world.logged(Level::standard, "com.a/b: Unable to save kelvane data to file.\n"));
  world.traceLibraries.succeeds = true;
  saveActivation(world, "com.a/b");
  EXPECT_EQ(world.spool(), std::vector<std::string>{"Launch-com.a_b-2026-01-15-100002.kelvane"});
  EXPECT_EQ(world.logs.count(Level::info, "Daily Launch Log credits: 25 -> 24"), 1)
      << "the failure spent nothing";
  const sim::TraceRequest& request = world.traceLibraries.requests.back();
  EXPECT_NEAR(static_cast<double>(request.maxTimestamp), 102e0 * 24e6, 48'000);
  EXPECT_NEAR(static_cast<double>(request.maxTimestamp - request.minTimestamp), 6.0 * 24e6, 48'000);
  EXPECT_TRUE(request.reason.starts_with(
      "{\"Reason\":\"slow\",\"ServiceName\":\"Launch\",\"ProcessPath\":\"com.a/b\","
      "\"PID\":0,\"ThreadID\":0,\"StartTime\":" +
      std::to_string(request.minTimestamp) + ",\"EndTime\":" + std::to_string(request.maxTimestamp) +
      ",\"DisplayData\":[2400000000,-1"))
      << request.reason;

  world.prefer("QuorvelEnableKelvane", false);
  saveActivation(world, "com.a");
  EXPECT_TRUE(world.logged(Level::standard,
                           "Quorvel kelvane support is disabled, not saving a report for com.a activation!"));
}

TEST(Credits, WithoutTheLibraryNoActivationReportIsTried) {
  World bare;
  bare.traceLibraries.entryPointMissing = true;
  saveActivation(bare, "com.a");
  EXPECT_TRUE(bare.logged(
      Level::standard,
      "Tried to save kelvane for com.a activation, but kelvane support is not present on this device!"));
}

}  // namespace
}  // namespace quorveld
