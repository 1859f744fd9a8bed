#include <gtest/gtest.h>

#include <algorithm>
#include <functional>

#include "base/settings.h"
#include "base/ticks.h"
#include "tests/sim/world.h"

// From start-up to exit: the order of things, the directories, the two timers, the display.

namespace quorveld {
namespace {

using namespace std::chrono_literals;
using sim::App;
using sim::Level;
using sim::Op;
using sim::Save;
using sim::World;

const std::string kCache = "/var/root/Library/Caches/quorveld";
const std::string kDisplayStatus = "com.corvix.drovik.hid.displayStatus";

TEST(StartUp, BringsThePartsUpInOrder) {
  World world(World::Daemon::later);
  world.preferences.userSets("QuorvelEnabled", true);
  world.start();
  EXPECT_EQ(world.files.history(), (std::vector<std::string>{"mkdir " + kCache, "mkdir " + kCache + "/tmp",
                                                             "mkdir " + kCache + "/spool"}));
  EXPECT_EQ(world.files.mode(kCache + "/spool"), 0755u);
  EXPECT_EQ(world.preferences.synchronised,
            (std::vector<std::string>{"com.corvix.telvo", "com.corvix.telvo", "com.corvix.quorvel"}));
  ASSERT_FALSE(world.queues.made().empty());
  EXPECT_EQ(world.queues.made()[0].label, "com.corvix.quorvel");
  EXPECT_EQ(world.queues.made()[0].qos, platform::QoSClass::userInitiated);
  EXPECT_EQ(world.ipc.serviceName(), "com.corvix.quorveld");
  for (const char* name : {"com.corvix.telvo.tasking_changed", "com.corvix.Pravenet.profileListChanged",
                           "com.corvix.quorvel.pref_changed", kDisplayStatus.c_str()}) {
    EXPECT_TRUE(world.notifications.subscribed(name)) << name;
  }
  EXPECT_EQ(world.lines(Level::info),
            (std::vector<std::string>{
                "Create log directory: " + kCache, "Create log directory: " + kCache + "/tmp",
                "Create log directory: " + kCache + "/spool", "refreshPreferences: Memory Logging Disabled",
                "refreshPreferences: Hang Tracing Enabled", "refreshPreferences: QuorvelEnableKelvane = 0",
                "refreshPreferences: QuorvelEnableDisplayData = 1",
                "refreshPreferences: App Activation Logging Disabled"}));
  EXPECT_TRUE(world.lines(Level::standard).empty()) << world.logs.dump();
  EXPECT_FALSE(world.queues.exitStatus());
  for (const sim::LogLine& line : world.logs.lines) EXPECT_EQ(line.subsystem, "com.corvix.quorvel");
}

TEST(StartUp, RemovesWhatADaemonThatWasKilledHasLeftHalfWritten) {
  World world(World::Daemon::later);
  world.preferences.userSets("QuorvelEnabled", true);
  EXPECT_FALSE(world.files.makeDirectory(kCache, 0755));
  EXPECT_FALSE(world.files.makeDirectory(kCache + "/tmp", 0755));
  for (const char* name : {"/tmp/half.kelvane", "/tmp/another's", "/memory-snapshot-2026.ips~"}) {
    world.files.putFile(kCache + name, "half");
  }
  EXPECT_FALSE(world.files.makeDirectory(kCache + "/spool", 0755));
  for (const std::string& folder : {kCache + "/spool", std::string("/Library/Logs/Faultkeep")}) {
    world.files.putFile(folder + "/.quorveld-Xy12Ab", "half a copy");
    world.files.putFile(folder + "/.another's", "whole");
  }
  world.start();
  for (const std::string& folder : {kCache + "/spool", std::string("/Library/Logs/Faultkeep")}) {
    EXPECT_EQ(world.files.list(folder), std::vector<std::string>{".another's"});
  }
  EXPECT_EQ(world.temporaryFiles(), std::vector<std::string>{"another's"});
  EXPECT_EQ(world.files.list(kCache), (std::vector<std::string>{"spool", "tmp"}));
}

TEST(StartUp, RepairsItsDirectoriesAndGoesOnWithoutThem) {
  struct Case {
    const char* what;
    std::function<void(World&)> arrange;
    std::vector<std::string> complaints;
  };
  const std::string tmp = kCache + "/tmp";
  const auto cannotMake = [](const std::string& path, const std::string& reason) {
    return "Cannot create spool directory - " + path + " failed with " + reason + " - continuing anyway.";
  };
  const Case cases[] = {
      {"a file in the way",
       [&](World& world) {
         EXPECT_FALSE(world.files.makeDirectory(kCache, 0755));
         world.files.putFile(tmp, "x");
       },
       {}},
      {"a link in the way",
       [&](World& world) {
         EXPECT_FALSE(world.files.makeDirectory(kCache, 0755));
         world.files.putLink(tmp);
       },
       {}},
      {"a file that stays",
       [&](World& world) {
         EXPECT_FALSE(world.files.makeDirectory(kCache, 0755));
         world.files.putFile(tmp, "x");
         world.faults.failOnce(Op::remove);
       },
       {"Unable to remove previous non-directory at " + tmp, cannotMake(tmp, "File exists")}},
      {"one can't be made",
       [](World& world) { world.faults.failOnce(Op::makeDirectory, 2, std::errc::read_only_file_system); },
       {cannotMake(tmp, "Read-only file system")}},
      {"none can be made",
       [](World& world) { world.faults.failAlways(Op::makeDirectory, std::errc::no_space_on_device); },
       {cannotMake(kCache, "No space left on device"), cannotMake(tmp, "No space left on device"),
        cannotMake(kCache + "/spool", "No space left on device")}},
  };
  for (const Case& item : cases) {
    SCOPED_TRACE(item.what);
    World world(World::Daemon::later);
    item.arrange(world);
    world.preferences.userSets("QuorvelEnabled", true);
    world.start();
    EXPECT_EQ(world.lines(Level::standard), item.complaints);
    EXPECT_EQ(world.files.kind(tmp) == platform::EntryKind::directory, item.complaints.empty());
    world.startApp("viewer");
    EXPECT_TRUE(QVProcessInfo::processForPid(501)) << "the daemon runs all the same";
  }
}

TEST(StartUp, WithEverySourceOffTheDaemonIsUpAndGoneAtOnce) {
  World world(World::Daemon::later);
  world.start();
  EXPECT_EQ(world.queues.exitStatus(), 0);
  EXPECT_TRUE(world.logged(Level::standard, "quorveld is exiting. All sources turned off"));
  EXPECT_EQ(world.ipc.serviceName(), "com.corvix.quorveld") << "the listener comes first";
  EXPECT_FALSE(world.notifications.subscribed(kDisplayStatus));
}

TEST(StartUp, APostIsTakenByTheLookAtThePreferencesThatFollowsIt) {
  const std::string names[] = {"com.corvix.telvo.tasking_changed", "com.corvix.Pravenet.profileListChanged",
                               "com.corvix.quorvel.pref_changed"};
  World world(World::Daemon::later);
  world.preferences.userSets("QuorvelEnabled", true);
  world.notifications.post(names[0]);
  world.start();
  EXPECT_FALSE(world.notifications.posted(names[0])) << "the start looks, too";
  for (const std::string& name : names) {
    world.notifications.post(name);
    world.settle();
    EXPECT_FALSE(world.notifications.posted(name)) << name;
  }
  world.preferences.userSets("QuorvelDailyLogLimit", 7);
  world.queues.requestReload();
  world.settle();
  EXPECT_TRUE(world.logged(Level::info, "refreshPreferences: QuorvelDailyLogLimit = 7"));

  world.preferences.userSets("QuorvelEnabled", false);
  world.notifications.post(names[0]);
  world.settle();
  EXPECT_EQ(world.queues.exitStatus(), 0);
  EXPECT_FALSE(world.notifications.posted(names[0]));
  world.notifications.post(names[1]);
  world.settle();
  EXPECT_TRUE(world.notifications.posted(names[1])) << "nobody looks any more: it waits for the next daemon";
}

TEST(Display, ChangesAreKeptAndTold) {
  World world;
  const auto post = [&](uint64_t state) {
    world.advance(1s);
    world.notifications.post(kDisplayStatus, state);
    world.settle();
  };
  post(0x1'0000'0000);
  EXPECT_TRUE(world.logged(Level::info, "Display state changed 0 -> 4294967296,  time: 2424000000"));
  post(0);
  EXPECT_TRUE(world.logged(Level::info, "Display state changed 1 -> 0,  time: 2448000000"));
  world.faults.failOnce(Op::notificationState);
  world.logs.clear();
  post(1);
  EXPECT_TRUE(world.logs.lines.empty()) << world.logs.dump();
  world.startApp("viewer").reportHang(1500ms, Save::yes);
  ASSERT_EQ(world.traceLibraries.requests.size(), 1u);
  EXPECT_TRUE(world.traceLibraries.requests[0].reason.ends_with(
      "\"DisplayData\":[2400000000,-1,2424000000,1,2448000000,0]}"))
      << world.traceLibraries.requests[0].reason;
}

TEST(Display, IsDecidedAtStartUp) {
  World world(World::Daemon::later);
  world.preferences.userSets("QuorvelEnabled", true);
  world.preferences.userSets("QuorvelEnableDisplayData", false);
  world.start();
  EXPECT_FALSE(world.notifications.subscribed(kDisplayStatus));
  EXPECT_TRUE(QVProcessInfo::displayStateArray().empty());
  world.prefer("QuorvelEnableDisplayData", true);
  EXPECT_FALSE(world.notifications.subscribed(kDisplayStatus));
  EXPECT_TRUE(QVProcessInfo::displayStateArray().empty());
}

TEST(HangChecks, ReplenishCreditsEachQuarterOfTheReportPeriod) {
  World world;  // up for 100 s, and a quarter of the period is 900 s
  const App viewer = world.startApp("viewer");
  viewer.reportHang(1500ms, Save::yes);
  world.advance(900s - (world.clock.uptime - 0s));  // 15 min after boot: not more than a quarter
  EXPECT_EQ(world.logs.count(Level::info, "viewer credits increased to: 4"), 0);
  viewer.reportHang(1500ms, Save::yes);
  world.advance(5s);
  EXPECT_EQ(world.logs.count(Level::info, "viewer credits increased to: 3"), 1);
  world.advance(900s);
  EXPECT_EQ(world.logs.count(Level::info, "viewer credits increased to: 4"), 0);
  world.advance(5s);
  EXPECT_EQ(world.logs.count(Level::info, "viewer credits increased to: 4"), 1);
}

TEST(HangChecks, StartADayAtTheFirstAndResetWhenMoreThanADayHasPassed) {
  World world;
  world.preferences.userSets("QuorvelSlowActKelvanesEnabled", true);
  world.prefer("QuorvelSlowActPerAppMax", 1);
  const uint64_t minuteAgoMs = 790'164'000'000 - 60'000;
  QVProcessInfo::saveActivationKelvane("Launch", "slow", "com.a", minuteAgoMs, minuteAgoMs + 1, {});
  EXPECT_TRUE(world.logged(Level::info, "com.a Launch Log credits: 1 -> 0"));
  world.logs.clear();
  world.advance(5s);  // the day starts here
  world.advance(24h);
  EXPECT_TRUE(world.analytics.scalars.empty()) << "a day is over when more than it has passed";
  EXPECT_FALSE(world.logged(Level::info, "Hang Short Logs Daily Credits reset from 25 to 25"));
  const App viewer = world.startApp("viewer");
  viewer.begin(0, "late", 6s);
  world.logs.clear();
  world.advance(5s);
  const std::vector<std::string> lines = world.lines(Level::info);
  ASSERT_GE(lines.size(), 4u) << world.logs.dump();
  EXPECT_EQ(lines[0], "Hang Short Logs Daily Credits reset from 25 to 25");
  EXPECT_EQ(lines[1], "Hang Long Logs Daily Credits reset from 25 to 25");
  EXPECT_EQ(lines[2], "Launch Logs Daily Credits reset from 24 to 25");
  EXPECT_EQ(world.analytics.scalars.size(), 4u) << "three, and how many processes are watched";
  EXPECT_EQ(world.spool().size(), 2u) << "the check itself follows the reset";
  QVProcessInfo::saveActivationKelvane("Launch", "slow", "com.a", minuteAgoMs, minuteAgoMs + 1, {});
  EXPECT_TRUE(world.logged(Level::info, "com.a Launch Log credits: 1 -> 0"))
      << "the apps' credits are new, too";
  world.logs.clear();
  world.advance(24h);
  EXPECT_EQ(world.logs.count(Level::info, "Launch Logs Daily Credits reset from 24 to 25"), 0);
  world.advance(5s);
  EXPECT_EQ(world.logs.count(Level::info, "Launch Logs Daily Credits reset from 24 to 25"), 1);
}

TEST(HangChecks, LateTimersLoseNoHang) {
  World world;
  world.queues.lateTimers = true;
  world.prefer("QuorvelEnableMemoryLogging", true);  // keeps the daemon while hang tracing is off
  world.prefer("QuorvelEnabled", false);
  world.prefer("QuorvelEnabled", true);
  const App viewer = world.startApp("viewer");
  viewer.begin(0, "late", 0s);
  world.advance(12s);
  EXPECT_EQ(world.spool().size(), 1u);
}

}  // namespace
}  // namespace quorveld
