#include "core/preferences.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <tuple>

#include "base/settings.h"
#include "base/ticks.h"
#include "tests/sim/world.h"

// What each preference does, in which order, and what becomes of one that is absent, overridden or of an
// unsuitable type.

namespace quorveld {
namespace {

using namespace std::chrono_literals;
using platform::OpaquePreference;
using platform::PreferenceValue;
using sim::App;
using sim::Level;
using sim::Op;
using sim::Save;
using sim::World;

using Setting = std::pair<const char*, PreferenceValue::Variant>;

constexpr const char* kActivationKey = "QuorvelEnableAppActivationLogging";

/// A value for every key, none of them the default.
const std::vector<Setting>& everyKey() {
  static const std::vector<Setting> all = {
      {"QuorvelEnableMemoryLogging", true},
      {"QuorvelMemoryLoggingInterval", int64_t{600}},
      {"QuorvelEnabled", true},
      {"QuorvelEnableHUD", true},
      {"QuorvelReportPeriod", 7200.5},
      {"QuorvelDailyLogLimit", int64_t{10}},
      {"QuorvelDailyLongLogLimit", int64_t{11}},
      {"QuorvelLongHangDurationThreshold", 1500.5},
      {"QuorvelHangTimeoutDuration", 2500.25},
      {"QuorvelEnableKelvane", true},
      {"QuorvelEnableDisplayData", false},
      {kActivationKey, true},
      {"QuorvelAppActivationLoggingMaxActivationCount", int64_t{33}},
      {"QuorvelAppActivationLoggingCPUUtilizationThreshold", 12.5},
      {"QuorvelSlowActKelvanesEnabled", true},
      {"QuorvelSlowActPerAppMax", int64_t{3}},
      {"QuorvelSlowActDailyLogLimit", int64_t{7}},
      {"QuorvelSlowActLaunchKelvaneThreshold", int64_t{4321}},
      {"QuorvelReportsMaxSize", int64_t{20}},
      {"QuorvelReportsMaxAge", int64_t{2}},
  };
  return all;
}

const char* domainOf(const std::string& key) {
  return key == kActivationKey ? "com.corvix.quorvel" : sim::SimPreferences::kDomain;
}

void userSetsAll(World& world, const std::vector<Setting>& values) {
  for (const auto& [key, value] : values) world.preferences.userSets(key, value, domainOf(key));
}

void manage(World& world, const std::vector<Setting>& values) {
  for (const auto& [key, value] : values) {
    world.preferences.managed[kManagedPreferencesPath].insert_or_assign(std::string("QVProfile.") + key,
                                                                        PreferenceValue(value));
  }
}

/// The lines of the refreshes since the last clear, without the activation tracker's own.
std::vector<std::string> refreshLines(const World& world) {
  std::vector<std::string> lines = world.lines(Level::info);
  std::erase_if(lines, [](const std::string& line) {
    return line.starts_with("QVActivationStats: ") || line.starts_with("Create log directory");
  });
  return lines;
}

const std::vector<std::string> kAllApplied = {
    "refreshPreferences: Memory Logging Enabled",
    "refreshPreferences: change memoryLoggingInterval to 600",
    "refreshPreferences: Hang Tracing Enabled",
    "refreshPreferences: QuorvelEnableHUD: 1",
    "refreshPreferences: QuorvelReportPeriod = 7200",
    "Max Daily Short Log Limit: 25 -> 10",
    "Daily Short Log credits: 25 -> 10",
    "refreshPreferences: QuorvelDailyLogLimit = 10",
    "Max Daily Long Log Limit: 25 -> 11",
    "Daily Long Log credits: 25 -> 11",
    "refreshPreferences: QuorvelDailyLongLogLimit = 11",
    "Long Hang Duration Threshold: 2000.000000 -> 1500.500000",
    "refreshPreferences: QuorvelLongHangDurationThreshold = 1500.500000",
    "Hang Timeout Duration: 5000.000000 -> 2500.250000",
    "refreshPreferences: QuorvelHangTimeoutDuration = 2500.250000",
    "refreshPreferences: QuorvelEnableKelvane = 1",
    "refreshPreferences: QuorvelEnableDisplayData = 0",
    "refreshPreferences: App Activation Logging Enabled",
    "refreshPreferences: QuorvelAppActivationLoggingMaxActivationCount = 33",
    "refreshPreferences: QuorvelAppActivationLoggingCPUUtilizationThreshold = 12.500000",
    "refreshPreferences: __slowActKelvanesEnabled = 1",
    "Max Daily Per App Activation Kelvane Limit: 5 -> 3",
    "refreshPreferences: setMaxActivationKelvanesPerApp = 3",
    "Max Daily Activation Kelvane Limit: 25 -> 7",
    "Daily Activation Kelvane credits: 25 -> 7",
    "refreshPreferences: setMaxActivationDailyKelvanes = 7",
    "refreshPreferences: slowActLaunchThreshold = 4321",
    "refreshPreferences: QuorvelReportsMaxSize = 20",
    "refreshPreferences: QuorvelReportsMaxAge = 2",
};

TEST(Preferences, AreAppliedInOneFixedOrder) {
  World world(World::Daemon::later);
  userSetsAll(world, everyKey());
  world.start();
  EXPECT_EQ(refreshLines(world), kAllApplied);
  const Settings& current = settings();
  EXPECT_TRUE(current.enableHUD);
  EXPECT_FALSE(current.enableDisplayData);
  EXPECT_EQ(current.memoryLoggingInterval, 600u);
  EXPECT_EQ(current.reportPeriod, static_cast<uint64_t>(7200.5 * 1000.0 / msPerTick()));
  EXPECT_EQ(current.activationMaxCount, 33u);
  EXPECT_EQ(current.activationCPUThreshold, 12.5);

  world.logs.clear();
  world.announcePreferences();
  EXPECT_EQ(world.logs.count(Level::info, "refreshPreferences: change memoryLoggingInterval to 600"), 0);

  for (const auto& [key, value] : everyKey()) world.preferences.userRemoves(key, domainOf(key));
  world.prefer("QuorvelEnabled", true);
  EXPECT_TRUE(current.enableHUD && current.slowActKelvanesEnabled) << "what is absent keeps its last value";
  EXPECT_EQ(current.memoryLoggingInterval, 600u);
  EXPECT_EQ(current.activationMaxCount, 33u);
  EXPECT_FALSE(current.enableKelvane) << "… but for the flags that are worked out each time";
  EXPECT_TRUE(current.enableDisplayData);
  EXPECT_FALSE(current.memoryLoggingEnabled || current.appActivationLoggingEnabled);
}

/// An application that stays connected can't know that it is no longer watched; a lost connection tells it.
TEST(Preferences, WhenTrackingComesBackOnWhoWasForgottenIsDisconnected) {
  World world;
  world.prefer("QuorvelEnableMemoryLogging", true);
  const App forgotten = world.startApp("forgotten");
  const App unwatched = world.startApp("unwatched");
  unwatched.send({{"command", 2}});
  const App launcher = world.connectApp("launcher");
  world.prefer("QuorvelEnabled", false);
  const App later = world.startApp("later");
  world.logs.clear();
  world.prefer("QuorvelEnabled", true);
  const auto disconnected = [&](const App& app) {
    return world.logs.count(Level::info, "Client disconnected: " + std::to_string(app.pid()));
  };
  EXPECT_EQ(disconnected(forgotten), 1);
  EXPECT_EQ(disconnected(unwatched) + disconnected(launcher) + disconnected(later), 0);
  EXPECT_TRUE(QVProcessInfo::processForPid(later.pid()));
  world.announcePreferences();
  EXPECT_EQ(disconnected(forgotten), 1);
}

TEST(Preferences, AManagedEntryWinsForTheKeysThatMayBeManaged) {
  World world(World::Daemon::later);
  manage(world, everyKey());
  userSetsAll(world, {{"QuorvelEnabled", false}, {"QuorvelDailyLogLimit", int64_t{99}}});
  world.start();
  std::vector<std::string> expected = kAllApplied;
  std::erase_if(expected, [](const std::string& line) {  // these are the user's alone
    return line.find("MemoryLogging") != std::string::npos ||
           line.find("memoryLogging") != std::string::npos || line.find("HUD") != std::string::npos ||
           line.find("QuorvelAppActivation") != std::string::npos;
  });
  expected[0] = "refreshPreferences: Memory Logging Disabled";
  std::replace(expected.begin(), expected.end(),
               std::string("refreshPreferences: App Activation Logging Enabled"),
               std::string("refreshPreferences: App Activation Logging Disabled"));
  EXPECT_EQ(refreshLines(world), expected);

  userSetsAll(world, {{"QuorvelEnabled", true}, {"QuorvelEnableMemoryLogging", true}});
  manage(world, {{"QuorvelEnabled", false}});
  const App viewer = world.startApp("viewer");
  world.announcePreferences();
  EXPECT_FALSE(settings().hangWatchEnabled);
  EXPECT_EQ(viewer.memory().mappings(), 0);
  world.faults.failOnce(Op::readManaged);
  world.announcePreferences();
  EXPECT_TRUE(settings().hangWatchEnabled) << "a file that can't be read is empty";
  world.announcePreferences();
  EXPECT_FALSE(settings().hangWatchEnabled);
  world.preferences.managed.clear();
  world.announcePreferences();
  EXPECT_TRUE(settings().hangWatchEnabled) << "so is a missing one";
}

TEST(Preferences, AValueOfAnUnsuitableTypeCountsAsAbsent) {
  std::vector<std::string> bare;
  {
    World world(World::Daemon::later);
    manage(world, {{"QuorvelEnabled", true}});
    world.start();
    bare = refreshLines(world);
  }
  const PreferenceValue::Variant unsuitable[] = {OpaquePreference(), std::string("maybe"), std::string(),
                                                 std::string("12 "), std::string("0x10")};
  for (const auto& value : unsuitable) {
    World world(World::Daemon::later);
    for (const auto& [key, suitable] : everyKey()) {
      world.preferences.userSets(key, value, domainOf(key));
      if (key != std::string("QuorvelEnabled")) manage(world, {{key, value}});
    }
    manage(world, {{"QuorvelEnabled", true}});
    world.start();
    EXPECT_EQ(refreshLines(world), bare) << testing::PrintToString(value.index());
  }
  World world(World::Daemon::later);  // an unsuitable managed entry hides no suitable value of the user's
  userSetsAll(world, everyKey());
  for (const auto& [key, suitable] : everyKey()) manage(world, {{key, OpaquePreference()}});
  world.start();
  EXPECT_EQ(refreshLines(world), kAllApplied);
}

TEST(Preferences, NumbersAndTextsAreReadAsWhatIsAskedFor) {
  World world(World::Daemon::later);
  userSetsAll(world, {{"QuorvelEnabled", std::string("YES")},
                      {"QuorvelEnableMemoryLogging", int64_t{-1}},
                      {"QuorvelEnableHUD", 0.0},
                      {"QuorvelDailyLogLimit", 9.99},
                      {"QuorvelDailyLongLogLimit", std::string("-3")},
                      {"QuorvelHangTimeoutDuration", int64_t{7}},
                      {"QuorvelReportPeriod", std::string("60")}});
  world.start();
  for (const char* line : {"Memory Logging Enabled", "Hang Tracing Enabled", "QuorvelEnableHUD: 0",
                           "QuorvelDailyLogLimit = 9", "QuorvelDailyLongLogLimit = -3",
                           "QuorvelHangTimeoutDuration = 7.000000", "QuorvelReportPeriod = 60"}) {
    EXPECT_TRUE(world.logged(Level::info, std::string("refreshPreferences: ") + line));
  }
  EXPECT_NEAR(static_cast<double>(settings().reportPeriod), 60 * 24e6, 200);
}

TEST(Preferences, WhatIsIgnoredIsLoggedOnceForAsLongAsItStays) {
  struct Case {
    Setting setting;
    const char* said;
  };
  constexpr double kInfinity = std::numeric_limits<double>::infinity();
  const Case cases[] = {
      {{"QuorvelEnableHUD", std::string("perhaps\n")}, "expected true or false, found \"perhaps\n\""},
      {{"QuorvelEnableHUD", std::string(65, 'x')},
       "expected true or false, found \"xxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxx...\""},
      {{"QuorvelEnableHUD", std::nan("")}, "expected true or false, found nan"},
      {{kActivationKey, OpaquePreference{"an array"}}, "expected true or false, found an array"},
      {{"QuorvelDailyLogLimit", int64_t{1} << 31},
       "expected a whole number from -2147483648 to 2147483647, found 2147483648"},
      {{"QuorvelMemoryLoggingInterval", int64_t{0}}, "expected a whole number from 1 to 4294967295, found 0"},
      {{"QuorvelReportsMaxSize", int64_t{0}}, "expected a whole number from 1 to 4294967295, found 0"},
      {{"QuorvelMemoryLoggingInterval", false}, "expected a whole number from 1 to 4294967295, found false"},
      {{"QuorvelAppActivationLoggingMaxActivationCount", int64_t{-1}},
       "expected a whole number from 0 to 4294967295, found -1"},
      {{"QuorvelReportPeriod", 2147483648.0},
       "expected a number, whole if it is a text, from -2147483648 to 2147483647, found 2.14748e+09"},
      {{"QuorvelReportPeriod", std::string("60.5")},
       "expected a number, whole if it is a text, from -2147483648 to 2147483647, found \"60.5\""},
      {{"QuorvelHangTimeoutDuration", kInfinity}, "expected a number, found inf"},
      {{"QuorvelLongHangDurationThreshold", std::string("nan")}, "expected a number, found \"nan\""},
      {{"QuorvelAppActivationLoggingCPUUtilizationThreshold", 0.0}, "expected a number above 0, found 0"},
      {{"QuorvelAppActivationLoggingCPUUtilizationThreshold", -1.5}, "expected a number above 0, found -1.5"},
  };
  for (const Case& item : cases) {
    const auto& [key, value] = item.setting;
    World world;
    const auto inForce = [] {
      const Settings& current = settings();
      return std::tuple(current.reportPeriod, current.memoryLoggingInterval,
                        current.activationCPUThreshold.load(), current.activationMaxCount.load(),
                        current.reportsMaxMegabytes.load());
    };
    const auto before = inForce();
    const std::string line =
        "refreshPreferences: " + std::string(key) + " in " + domainOf(key) + " is ignored: " + item.said;
    const auto said = [&] { return world.logs.count(Level::standard, line); };
    world.prefer(key, value, domainOf(key));
    world.announcePreferences();
    EXPECT_EQ(said(), 1) << line << world.logs.dump();
    EXPECT_EQ(inForce(), before);
    world.prefer(key, int64_t{1}, domainOf(key));
    EXPECT_EQ(said(), 1);
    world.prefer(key, value, domainOf(key));
    EXPECT_EQ(said(), 2) << "met anew";
  }
  World world;
  manage(world, {{"QuorvelDailyLogLimit", OpaquePreference{"a date"}},
                 {"QuorvelEnableHUD", std::string("perhaps")}});
  world.prefer("QuorvelDailyLogLimit", std::string("ten"));
  const auto ignored = std::count_if(world.logs.lines.begin(), world.logs.lines.end(), [](const auto& line) {
    return line.text.find(" is ignored: ") != std::string::npos;
  });
  EXPECT_EQ(ignored, 2) << "an entry and what it would have overridden; no entry overrides QuorvelEnableHUD";
  EXPECT_TRUE(
      world.logged(Level::standard,
                   "refreshPreferences: QVProfile.QuorvelDailyLogLimit in /Library/Managed "
                   "Preferences/mobile/.GlobalPreferences.plist is ignored: expected a whole number from "
                   "-2147483648 to 2147483647, found a date"));
  manage(world, {{"QuorvelDailyLogLimit", int64_t{3}}});
  world.logs.clear();
  world.announcePreferences();
  EXPECT_TRUE(world.lines(Level::standard).empty()) << "what is overridden isn't looked at";
}

TEST(Preferences, AReportPeriodIsTakenUpToTheLargestInt) {
  World world;
  world.prefer("QuorvelReportPeriod", 2147483647.0);
  EXPECT_TRUE(world.logged(Level::info, "refreshPreferences: QuorvelReportPeriod = 2147483647"));
  EXPECT_EQ(settings().reportPeriod, static_cast<uint64_t>(2147483648.0F * 1000.0 / msPerTick()));
  world.prefer("QuorvelReportPeriod", -1.0);
  EXPECT_EQ(settings().reportPeriod, 0u);
}

TEST(Preferences, ACPUThresholdThatIsNotPositiveIsNotTaken) {
  for (const double value : {0.0, -1.0}) {
    World world;
    world.prefer("QuorvelAppActivationLoggingCPUUtilizationThreshold", value);
    EXPECT_EQ(settings().activationCPUThreshold, 50.0);
    EXPECT_FALSE(world.logs.hasPrefix(Level::info, "refreshPreferences: QuorvelAppActivationLoggingCPU"));
  }
}

TEST(Preferences, EachSourceAloneKeepsTheDaemonAndSlowActivationsDoNot) {
  struct Case {
    Setting setting;
    const char* domain;
    bool stays;
  };
  const Case cases[] = {
      {{"QuorvelEnabled", true}, "com.corvix.telvo", true},
      {{"QuorvelEnableMemoryLogging", true}, "com.corvix.telvo", true},
      {{kActivationKey, true}, "com.corvix.quorvel", true},
      {{kActivationKey, true}, "com.corvix.telvo", false},
      {{"QuorvelSlowActKelvanesEnabled", true}, "com.corvix.telvo", false},
      {{"QuorvelEnableKelvane", true}, "com.corvix.telvo", false},
  };
  for (const Case& item : cases) {
    SCOPED_TRACE(std::string(item.setting.first) + " in " + item.domain);
    World world(World::Daemon::later);
    world.preferences.userSets(item.setting.first, item.setting.second, item.domain);
    world.start();
    EXPECT_EQ(world.queues.exitStatus(), item.stays ? std::nullopt : std::optional(0));
    if (!item.stays) continue;
    world.prefer(item.setting.first, false, item.domain);
    EXPECT_EQ(world.queues.exitStatus(), 0);
    EXPECT_EQ(world.logs.count(Level::standard, "quorveld is exiting. All sources turned off"), 1);
    world.logs.clear();
    world.advance(1h);
    EXPECT_TRUE(world.logs.lines.empty()) << "nothing runs any more: " << world.logs.dump();
  }
}

TEST(Preferences, EachOfTheThreeNotificationsHasThemReadAgain) {
  World world;
  bool value = true;
  for (const char* name : {"com.corvix.telvo.tasking_changed", "com.corvix.Pravenet.profileListChanged",
                           "com.corvix.quorvel.pref_changed"}) {
    world.preferences.userSets("QuorvelEnableHUD", value);
    world.preferences.userSets(kActivationKey, value, "com.corvix.quorvel");
    EXPECT_NE(settings().enableHUD, value);
    world.notifications.post(name);
    world.settle();
    EXPECT_EQ(settings().enableHUD, value) << name;
    EXPECT_EQ(settings().appActivationLoggingEnabled, value) << name;
    value = !value;
  }
  EXPECT_EQ(world.logs.count(Level::info, "QVActivationStats: Activation Logging preferences changed!"), 1);
  world.preferences.userSets("QuorvelEnableHUD", value);
  world.faults.failOnce(Op::synchronise);
  world.announcePreferences();
  EXPECT_NE(settings().enableHUD, value) << "without the store the values at hand stay";
}

TEST(Preferences, SlowActivationTracesTakeThePlaceOfActivationReports) {
  struct Case {
    std::vector<Setting> settings;
    size_t reports;
    const char* line;  ///< logged, if any
  };
  const Case cases[] = {
      {{}, 0, nullptr},
      {{{kActivationKey, true}}, 1, nullptr},
      {{{kActivationKey, true}, {"QuorvelSlowActKelvanesEnabled", true}},
       0,
       "QVActivationStats: CaptureLaunchKelvanes=1 launchTimeThresholdForCapture=5000"},
      {{{kActivationKey, true},
        {"QuorvelSlowActKelvanesEnabled", true},
        {"QuorvelSlowActLaunchKelvaneThreshold", int64_t{750}}},
       0,
       "QVActivationStats: CaptureLaunchKelvanes=1 launchTimeThresholdForCapture=750"},
  };
  for (const Case& item : cases) {
    World world(World::Daemon::later);
    userSetsAll(world, {{"QuorvelEnabled", true}});
    userSetsAll(world, item.settings);
    world.start();
    const App launcher = world.connectApp("launcher");
    for (const int command : {4, 5}) {
      launcher.send({{"command", command}, {"pid", 9}, {"bundle-id", "b"}, {"app-activation-state", 1}});
    }
    EXPECT_EQ(world.powerLog.events.size(), item.reports);
    EXPECT_TRUE(!item.line || world.logged(Level::info, item.line));
    EXPECT_EQ(world.logs.hasPrefix(Level::info, "QVActivationStats: CaptureLaunchKelvanes"),
              item.line != nullptr);
  }
}

TEST(MemoryLogging, FollowsItsIntervalFromTheMomentOfAChange) {
  World world;
  const auto snapshots = [&] {
    return std::count_if(
        world.files.history().begin(), world.files.history().end(), [](const std::string& change) {
          return change.find("memory-snapshot-") != std::string::npos && change.starts_with("create ");
        });
  };
  world.prefer("QuorvelMemoryLoggingInterval", int64_t{600});
  world.advance(2h);
  EXPECT_EQ(snapshots(), 0);
  EXPECT_EQ(world.kernel.prepares, 0);
  world.prefer("QuorvelEnableMemoryLogging", true);
  world.advance(599s);
  EXPECT_EQ(snapshots(), 0);
  EXPECT_EQ(world.kernel.prepares, 1);  // long before the first one needs it
  world.advance(601s);
  EXPECT_EQ(snapshots(), 2);
  world.advance(300s);
  world.prefer("QuorvelMemoryLoggingInterval", int64_t{400});
  world.advance(399s);
  EXPECT_EQ(snapshots(), 2);
  world.advance(1s);
  EXPECT_EQ(snapshots(), 3);
  world.announcePreferences();  // unchanged: it goes on as it was
  world.advance(400s);
  EXPECT_EQ(snapshots(), 4);
  world.prefer("QuorvelEnableMemoryLogging", false);
  world.advance(1h);
  EXPECT_EQ(snapshots(), 4);
}

}  // namespace
}  // namespace quorveld
