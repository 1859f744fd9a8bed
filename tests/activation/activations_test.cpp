#include <gtest/gtest.h>

#include <cstdio>

#include "activation/app_activation_tracker.h"
#include "base/limits.h"
#include "base/string_hash.h"
#include "base/value_text.h"
#include "tests/activation/launcher.h"

// Activations from the launcher's messages to the report: who is paired with whom, who is reported, who is
// traced.

namespace quorveld {
namespace {

using namespace std::chrono_literals;
using sim::LauncherWorld;
using sim::Level;
using sim::Shown;

uint64_t numberOf(const platform::Value& value) {
  return std::visit(
      [](const auto& data) -> uint64_t {
        if constexpr (std::is_arithmetic_v<std::decay_t<decltype(data)>>) {
          return static_cast<uint64_t>(data);
        } else {
          return UINT64_MAX;
        }
      },
      value.data);
}

TEST(Activations, AForegroundLaunchIsTimedAndReportedOnce) {
  LauncherWorld world;
  world.kernel.processNames = {{0, "kernel"}, {70312, "viewer"}};
  world.begin();
  world.notifications.post("com.corvix.quorvel.pref_changed");
  world.settle();
  EXPECT_EQ(world.kernel.prepares, 1);        // once, and before anything is launched
  const uint64_t start = world.nowMs() - 30;  // latencies count from now all the same
  world.beginActivation(70312, "com.example.viewer", Shown::foreground, 1, start, 120ms);
  EXPECT_EQ(world.kernel.looks, 1);
  EXPECT_TRUE(
      world.logged(Level::info, "QVActivationStats: com.example.viewer[70312] activation begin (launch)"));
  EXPECT_TRUE(world.logged(Level::debug, "QVActivationStats: Latency to get start message:120 ms"));
  EXPECT_TRUE(world.logged(Level::debug, "ipxStartLatencyInMs 120 ms"));
  world.advance(800ms);
  world.endActivation(70312, "com.example.viewer", Shown::foreground, 5, start + 730);

  const uint64_t id = start << 32 | uint32_t{stringHash("com.example.viewer") << 16} | (70312 & 0xFFFF);
  EXPECT_TRUE(world.logged(Level::debug, "QVActivationStats: Latency to get end message:100 ms"));
  EXPECT_TRUE(world.logged(Level::debug, "ipxEndLatencyInMs 100 ms"));
  EXPECT_TRUE(world.logged(
      Level::debug,
      "QVActivationStats: Activation Complete:Activationid:" + std::to_string(static_cast<int64_t>(id)) +
          " BundleID:com.example.viewer PID:70312 Result:5 Type:1 TimeTaken:730 ms"));
  EXPECT_TRUE(
      world.logged(Level::standard, "QVActivationStats: com.example.viewer FG Launch Duration = 730ms"));
  EXPECT_TRUE(world.logged(Level::debug,
                           "QVActivationStats: Sending activation for com.example.viewer to Pelmar. "
                           "Number Of Activations recorded:1"));
  ASSERT_EQ(world.powerLog.events.size(), 1u);
  EXPECT_EQ(numberOf(world.reported("ActivationID")), id);
  EXPECT_EQ(numberOf(world.reported("ActivationDuration_ms")), 730u);
  EXPECT_EQ(numberOf(world.reported("ActivationResult")), 5u);
  EXPECT_EQ(numberOf(world.reported("SystemUptime")), 100u);
  // In no snapshot, so it has its record's name: that of process 0.
  EXPECT_NE(describe(world.powerLog.events[0].processData).find("ProcessName = kernel;"), std::string::npos);
  // 120 ms and 100 ms in units of 50 ms, at bits 8 and 13.
  EXPECT_EQ(numberOf(world.reported("ActivationFlags")), 2u << 8 | 2u << 13);
  EXPECT_EQ(world.kernel.looks, 2);
}

TEST(Activations, MissingAndFutureTimesAreTakenAsTheyCome) {
  LauncherWorld world;
  world.begin();
  world.beginActivation(1, "a", Shown::foreground, 2, 0, -1ms);
  EXPECT_TRUE(world.logged(Level::standard, "QVActivationStats: We got no Start time for the activation"));
  EXPECT_TRUE(world.logged(Level::info, "QVActivationStats: a[1] activation begin (resume)"));
  world.advance(250ms);
  world.endActivation(1, "a", Shown::foreground, 0, 0);
  EXPECT_TRUE(world.logged(Level::standard, "QVActivationStats: We got no End time for the activation"));
  EXPECT_EQ(numberOf(world.reported("ActivationDuration_ms")), 250u);
  // The proxy's stamp lies in the future: the latency wraps and its field is full; the end's is 0.
  EXPECT_EQ(numberOf(world.reported("ActivationFlags")), 31u << 8);

  world.beginActivation(2, "b");
  world.endActivation(2, "b", Shown::foreground, 0, world.nowMs() - 1);
  EXPECT_EQ(numberOf(world.reported("ActivationDuration_ms")), UINT32_MAX);
}

TEST(Activations, AnyNumberOfALaunchersIsTakenModuloItsWidth) {
  LauncherWorld world;
  world.begin();
  world.prefer("QuorvelSlowActKelvanesEnabled", true);  // so that every time is turned into ticks, too
  const uint64_t times[] = {1, uint64_t{INT64_MAX} + 1, UINT64_MAX};
  for (const uint64_t start : times) {
    for (const uint64_t end : times) {
      world.logs.clear();
      world.beginActivation(INT64_MIN | 7, "a", Shown::foreground, 1, start);
      world.endActivation(INT64_MIN | 7, "a", Shown::foreground, INT64_MAX, end);
      const auto wallTime = static_cast<int>(static_cast<uint32_t>(end - start));
      EXPECT_TRUE(world.logged(
          Level::standard, "QVActivationStats: a FG Launch Duration = " + std::to_string(wallTime) + "ms"));
    }
  }
  EXPECT_FALSE(world.traceLibraries.requests.empty());
  EXPECT_TRUE(world.logged(Level::debug,
                           "QVActivationStats: Activation Complete:Activationid:-3604217849 "
                           "BundleID:a PID:7 Result:-1 Type:1 TimeTaken:0 ms"));
}

TEST(Activations, AnnouncementsThatDontMatchAreSortedOut) {
  LauncherWorld world;
  world.begin();
  world.beginActivation(312, "B");
  world.advance(10s);
  world.beginActivation(312, "B");
  EXPECT_TRUE(
      world.logged(Level::standard,
                   "QVActivationStats: beginActivationTrackingForPID: An entry already exists for 312:B\n"));
  world.beginActivation(313, "B");  // another process: an activation of its own
  world.endActivation(312, "B");
  EXPECT_EQ(numberOf(world.reported("ActivationDuration_ms")), 10'000u);

  // The first begin's timeout takes whatever stands under the key by then.
  world.beginActivation(312, "B");
  world.logs.clear();
  world.advance(50s);
  const std::string lost =
      "QVActivationStats: beginActivationTrackingForPID: Did not find an end call entry for 312:B\n";
  EXPECT_EQ(world.logs.count(Level::standard, lost), 1);
  world.endActivation(312, "B");
  EXPECT_TRUE(world.logged(
      Level::standard,
      "QVActivationStats: endActivationTrackingForPID: Did not find an existing entry for 312:B\n"));
  // An end without a begin is reported like any other, with a result of its own and no duration.
  EXPECT_EQ(numberOf(world.reported("ActivationResult")), 32u);
  EXPECT_EQ(numberOf(world.reported("ActivationDuration_ms")), 0u);
  EXPECT_EQ(world.powerLog.events.size(), 2u);
  world.advance(60s);
  EXPECT_EQ(world.logs.count(Level::standard, lost), 1);
}

TEST(Activations, OnlyForegroundToForegroundIsReported) {
  LauncherWorld world;
  world.begin();
  for (const auto& [from, to] :
       {std::pair(Shown::background, Shown::foreground), std::pair(Shown::foreground, Shown::background),
        std::pair(Shown::background, Shown::background)}) {
    world.beginActivation(7, "quiet", from);
    world.endActivation(7, "quiet", to);
  }
  EXPECT_TRUE(world.powerLog.events.empty());
  EXPECT_FALSE(world.logs.hasPrefix(Level::standard, "QVActivationStats: quiet FG"));
  EXPECT_FALSE(world.logs.hasPrefix(Level::standard, "QVActivationStats: Activation not recorded"));
}

TEST(Activations, TheDailyMaximumHolds) {
  LauncherWorld world;
  world.preferences.userSets("QuorvelAppActivationLoggingMaxActivationCount", int64_t{2});
  world.begin();
  for (int pid = 1; pid <= 3; ++pid) world.activate(pid, "app", 100ms);
  EXPECT_EQ(world.powerLog.events.size(), 2u);
  EXPECT_EQ(world.analytics.distributions["com.corvix.quorvel.QVLaunch.app"].size(),
            3u);  // counted all the same
  EXPECT_EQ(world.analytics.added["com.corvix.quorvel.QVLaunchesLeftOut.daily-limit"], 1);
  EXPECT_TRUE(world.logged(Level::standard,
                           "QVActivationStats: Activation not recorded for:app StartState:Foreground "
                           "EndState:Foreground Number Of Activations:2"));
  ASSERT_EQ(world.powerLog.leftOut.size(), 1u);  // whoever waits for its record is told
  EXPECT_EQ(world.powerLog.leftOut[0].first & 0xFFFF, 3u);
  EXPECT_EQ(world.powerLog.leftOut[0].second, "the day's maximum of 2 is reached");
}

TEST(Activations, SlowLaunchesAreTracedFromTheThresholdOnAndWithinTheirCredits) {
  LauncherWorld world;
  world.preferences.userSets("QuorvelSlowActKelvanesEnabled", true);
  world.preferences.userSets("QuorvelSlowActPerAppMax", int64_t{2});
  world.start();
  EXPECT_TRUE(world.logged(Level::info,
                           "QVActivationStats: CaptureLaunchKelvanes=1 launchTimeThresholdForCapture=5000"));
  world.begin();

  world.activate(1, "slow", 4999ms);
  EXPECT_TRUE(world.spool().empty());
  world.activate(1, "slow", 5000ms);
  EXPECT_TRUE(world.logged(
      Level::standard, "QVActivationStats: slow Launch took 5000ms, will try to grab slow launch kelvane"));
  EXPECT_TRUE(world.logged(Level::info, "Daily Launch Log credits: 25 -> 24"));
  EXPECT_TRUE(world.logged(Level::info, "slow Launch Log credits: 2 -> 1"));
  EXPECT_EQ(world.spool(), std::vector<std::string>{"Launch-slow-2026-01-15-100009.kelvane"});
  ASSERT_EQ(world.traceLibraries.requests.size(), 1u);
  const auto& request = world.traceLibraries.requests[0];
  // The wall-clock times came back to ticks of the same moments, to the millisecond.
  EXPECT_NEAR(static_cast<double>(request.maxTimestamp), static_cast<double>(world.now()), 24'000);
  EXPECT_NEAR(static_cast<double>(request.maxTimestamp - request.minTimestamp), 5000 * 24'000.0, 24'000);

  EXPECT_EQ(request.launch.pid, 1);
  EXPECT_EQ(request.launch.connected_ticks, 0u);

  // When its process connects for the first time is handed over, too.
  sim::App viewer = world.connectApp("viewer");
  world.beginActivation(viewer.pid(), "connecting");
  world.advance(2s);
  const uint64_t connectedAt = world.now();
  viewer.reconnect();
  world.advance(2s);
  viewer.reconnect();
  world.advance(2s);
  world.endActivation(viewer.pid(), "connecting");
  ASSERT_EQ(world.traceLibraries.requests.size(), 2u);
  EXPECT_EQ(world.traceLibraries.requests[1].launch.pid, viewer.pid());
  EXPECT_EQ(world.traceLibraries.requests[1].launch.connected_ticks, connectedAt);

  world.activate(1, "com.corvix.lumora", 9s);  // the launcher itself
  world.activate(1, "slow", 6s);
  world.activate(1, "slow", 6s);
  EXPECT_TRUE(world.logged(Level::standard, "slow is out of credits. Not saving a report!"));
  EXPECT_EQ(world.spool().size(), 3u);
  // Traces only: nothing is snapshot or reported meanwhile.
  EXPECT_EQ(world.kernel.looks, 0);
  EXPECT_EQ(world.kernel.prepares, 0);
  EXPECT_TRUE(world.powerLog.events.empty());
  EXPECT_TRUE(world.logged(Level::standard, "QVActivationStats: slow FG Launch Duration = 6000ms"));
}

/// The processes of the last order to sample.
std::vector<int32_t> sampledPids(LauncherWorld& world) {
  std::vector<int32_t> pids;
  for (const kelvane_pending& pending : world.traceLibraries.sampled.back()) pids.push_back(pending.pid);
  return pids;
}

TEST(Activations, ALaunchInFlightForHalfASecondIsSampledUntilItIsOver) {
  LauncherWorld world;
  world.preferences.userSets("QuorvelSlowActKelvanesEnabled", true);
  auto& sampled = world.traceLibraries.sampled;
  world.begin();
  world.activate(1, "short", 499ms);
  world.activate(1, "com.corvix.lumora", 2s);
  world.beginActivation(1, "hidden", Shown::background);
  world.advance(2s);
  EXPECT_TRUE(sampled.empty()) << "the library isn't even loaded";

  world.beginActivation(7, "slow");
  const uint64_t beganAt = world.now();
  world.advance(500ms);
  ASSERT_EQ(sampled.size(), 1u);
  ASSERT_EQ(sampledPids(world), std::vector<int32_t>{7});
  EXPECT_EQ(sampled[0][0].thread_id, 0u);
  EXPECT_EQ(sampled[0][0].start_ticks, beganAt);
  world.beginActivation(8, "other");
  world.advance(600ms);
  EXPECT_EQ(sampledPids(world), (std::vector<int32_t>{7, 8}));

  // The sampler ends if it hears of nothing, and nobody need be watched for hangs.
  const size_t orders = sampled.size();
  world.advance(5s);
  EXPECT_GE(sampled.size(), orders + 2);
  for (size_t i = orders; i < sampled.size(); ++i)
    EXPECT_EQ(sampled[i].size(), 2u) << "what is kept of one would be forgotten";
  EXPECT_EQ(sampledPids(world), (std::vector<int32_t>{7, 8}));
  world.traceLibraries.atDump = [&] { EXPECT_EQ(sampledPids(world), (std::vector<int32_t>{7, 8})); };
  world.endActivation(7, "slow");
  EXPECT_EQ(world.traceLibraries.requests.size(), 1u);
  world.traceLibraries.atDump = nullptr;
  EXPECT_EQ(sampledPids(world), std::vector<int32_t>{8}) << "once there is a report of it";

  // Another one under the same name is another one, and who never announces an end is forgotten.
  world.endActivation(8, "other");
  EXPECT_TRUE(sampledPids(world).empty());
  world.beginActivation(8, "other");
  world.advance(400ms);
  EXPECT_TRUE(sampledPids(world).empty());
  world.advance(200ms);
  EXPECT_EQ(sampledPids(world), std::vector<int32_t>{8});
  world.advance(60s);
  EXPECT_TRUE(sampledPids(world).empty());
  world.prefer("QuorvelEnableKelvane", false);
  world.activate(9, "unwanted", 3s);
  EXPECT_TRUE(sampledPids(world).empty());
}

TEST(Activations, LaunchesAndHangsAreSampledInTurnAndNoUserHasAllPlaces) {
  LauncherWorld world;
  world.preferences.userSets("QuorvelSlowActKelvanesEnabled", true);
  world.begin();
  for (int32_t i = 0; i < 100; ++i) world.beginActivation(1000 + i, "storm");
  world.advance(1s);
  EXPECT_EQ(sampledPids(world), (std::vector<int32_t>{1000, 1001, 1002, 1003}));
  std::vector<int32_t> hanging;
  for (int age = 1; age < 4; ++age) {
    const sim::App viewer = world.startApp("viewer");
    viewer.begin(0, "Long", std::chrono::seconds(age));
    hanging.push_back(viewer.pid());
  }
  QVProcessInfo::checkForHangTimeouts(world.now());
  EXPECT_EQ(sampledPids(world),
            (std::vector<int32_t>{hanging[2], 1000, hanging[1], 1001, hanging[0], 1002, 1003}));
  world.endActivation(1001, "storm");
  world.advance(5s);
  EXPECT_EQ(sampledPids(world).back(), 1004) << "there is a place";
}

TEST(Activations, AStormOfBeginsIsBoundedAndEveryTimeoutFires) {
  LauncherWorld world;
  world.begin();
  for (int pid = 1; pid <= 3000; ++pid) world.beginActivation(pid, "storm");
  EXPECT_EQ(world.kernel.looks, static_cast<int>(kMaxActivationsInFlight));
  EXPECT_TRUE(world.logged(
      Level::standard, "QVActivationStats: Too many activations at once, ignoring the begin of 1025:storm"));
  EXPECT_EQ(world.analytics.added["com.corvix.quorvel.QVLaunchesLeftOut.in-flight"],
            3000 - int64_t{kMaxActivationsInFlight});
  world.logs.clear();
  world.advance(61s);
  for (size_t pid = 1; pid <= kMaxActivationsInFlight; ++pid) {
    EXPECT_EQ(world.logs.count(
                  Level::standard,
                  "QVActivationStats: beginActivationTrackingForPID: Did not find an end call entry for " +
                      std::to_string(pid) + ":storm\n"),
              1);
  }
  world.activate(9, "after", 100ms);
  EXPECT_EQ(world.powerLog.events.size(), 1u);
}

TEST(Activations, HundredsTogetherAreAllReportedAndTakeLittleMemory) {
  constexpr int32_t kLaunches = 300;
  constexpr int32_t kFirstPid = 2000;  // above all others: each report names new processes alone
  LauncherWorld world;
  world.preferences.userSets("QuorvelAppActivationLoggingMaxActivationCount", int64_t{1000});
  for (int32_t pid = 1; pid <= 1000; ++pid) world.kernel.processes.push_back({pid, "sleeper", {}});
  world.begin();
  for (int32_t pid = 1; pid <= kLaunches; ++pid) {
    world.kernel.processes[static_cast<size_t>(pid)].usage.user_time += 24'000;
    world.beginActivation(kFirstPid + pid, "many");
  }
  AppActivationTracker::logStatus();
  size_t kilobytes = 0;
  for (const auto& line : world.lines(Level::standard))
    std::sscanf(line.c_str(), "Status: 300 activations in flight, %zu KB of snapshots", &kilobytes);
  EXPECT_GT(kilobytes, 0u);
  EXPECT_LT(kilobytes, 16u << 10);

  AppActivationTracker& tracker = AppActivationTracker::sharedInstance();
  for (int32_t pid = 1; pid <= kLaunches; ++pid)
    tracker.endAppActivationTrackingForPID(0, kFirstPid + pid, "many", 0, 1, 0);
  world.settle();
  EXPECT_EQ(world.powerLog.events.size(), static_cast<size_t>(kLaunches));
  EXPECT_EQ(world.kernel.rests, 0);
  world.advance(61s);
  EXPECT_EQ(world.kernel.rests, 1);
  world.logs.clear();
  AppActivationTracker::logStatus();
  EXPECT_TRUE(world.logged(Level::standard,
                           "Status: 0 activations in flight, 0 KB of snapshots, 300 reported today, "
                           "0 timeouts pending"));
}

TEST(Activations, WhatLooksTookIsGivenBackThoughLaunchesNeverPause) {
  LauncherWorld world;
  world.begin();
  for (int32_t pid = 1; pid <= 1700; ++pid) {
    world.beginActivation(pid, "steady");
    world.advance(100ms);
  }
  EXPECT_EQ(world.kernel.rests, 1);
}

TEST(Activations, AnEndWithoutMemoryForItsLookIsRecordedWithoutProcesses) {
  constexpr uint32_t kUser = 1000;
  LauncherWorld world;
  world.begin();
  for (int32_t pid = 1; pid <= 1000; ++pid) world.kernel.processes.push_back({pid, "busy", {}});
  AppActivationTracker& tracker = AppActivationTracker::sharedInstance();
  const std::string refused =
      "QVActivationStats: Too many activations at once for their memory, ignoring the begin of ";
  for (int32_t pid = 1; pid < 300 && !world.logs.hasPrefix(Level::standard, refused); ++pid) {
    tracker.beginAppActivationTrackingForPID(kUser, pid, "app", 0, 0, 1, 1);
    world.settle();
    // No look has anything in common with the one before.
    for (auto& process : world.kernel.processes) process.usage.user_time += 24'000;
  }
  EXPECT_TRUE(world.logs.hasPrefix(Level::standard, refused));
  tracker.endAppActivationTrackingForPID(kUser, 1, "app", 0, 1, 0);
  world.settle();
  EXPECT_TRUE(world.logged(
      Level::standard,
      "QVActivationStats: No memory is left for how 1:app ended, its record names no processes"));
  ASSERT_EQ(world.powerLog.events.size(), 1u);
  EXPECT_EQ(world.analytics.distributions["com.corvix.quorvel.QVLaunch.app"].size(), 1u);
  world.advance(61s);
  AppActivationTracker::logStatus();
  EXPECT_TRUE(
      world.logs.hasPrefix(Level::standard, "Status: 0 activations in flight, 0 KB of snapshots, 1 "));
}

TEST(Activations, ALateLookTakesNothingFromAProcessThatWasMadeForTheLaunch) {
  for (const auto& [bornBefore, expected] : {std::pair(0ms, 300u), std::pair(500ms, 100u)}) {
    LauncherWorld world;
    world.begin();
    world.kernel.processes = {{7, "app", {}}};
    platform::rusage_info_v3& usage = world.kernel.processes[0].usage;
    usage.proc_start_abstime = world.clock.timeSinceBoot() - sim::SimClock::ticks(bornBefore);
    const uint64_t startMs = world.nowMs();
    world.advance(400ms);
    usage.user_time = usage.cpu_time_qos_legacy = sim::SimClock::ticks(200ms);  // before the daemon looks
    world.beginActivation(7, "app", Shown::foreground, 1, startMs);
    usage.user_time = usage.cpu_time_qos_legacy = sim::SimClock::ticks(300ms);
    world.endActivation(7, "app");
    const std::string cpu = describe(world.powerLog.events.back().cpuData);
    EXPECT_NE(cpu.find("TotalCPU_ms = " + std::to_string(expected)), std::string::npos) << cpu;
  }
}

TEST(Activations, UsersThatBeginWithoutEndLeaveRoomForOthersAndForRoot) {
  LauncherWorld world;
  world.begin();
  int32_t pid = 1000;
  const auto begins = [&](uint32_t uid, int count) {
    const auto client = world.ipc.connect(900 + static_cast<int32_t>(uid), uid);
    const int looksBefore = world.kernel.looks;
    for (int i = 0; i < count; ++i) {
      if (i % 100 == 0) world.settle();  // no more than may wait at once
      client.send({{"command", 4},
                   {"pid", int64_t{++pid}},
                   {"bundle-id", "storm"},
                   {"app-activation-state", 1},
                   {"app-activation-type", 1}});
    }
    world.settle();
    return world.kernel.looks - looksBefore;
  };
  // 768 of 1024 places are the users': each may hold as many as are left for the others.
  EXPECT_EQ(begins(1, 400), 384);
  EXPECT_EQ(begins(2, 200), 192);
  EXPECT_EQ(begins(1, 100), 0);
  EXPECT_EQ(begins(3, 100), 96);
  EXPECT_EQ(begins(0, 1000), 1024 - 384 - 192 - 96);

  // What times out comes back.
  world.advance(61s);
  EXPECT_EQ(begins(2, 400), 384);

  // So it is with the steps that wait: what one user piles up doesn't push out another's.
  world.advance(61s);
  world.logs.clear();
  AppActivationTracker& tracker = AppActivationTracker::sharedInstance();
  for (size_t i = 0; i < 2 * kMaxWaitingActivationSteps; ++i) {
    tracker.endAppActivationTrackingForPID(1, 1, "flood", 0, 0, 0);
  }
  tracker.beginAppActivationTrackingForPID(2, 7, "honest", 0, 0, 1, 1);
  tracker.endAppActivationTrackingForPID(2, 7, "honest", 0, 1, 0);
  world.settle();
  EXPECT_EQ(
      world.logs.count(
          Level::standard,
          "QVActivationStats: endActivationTrackingForPID: Did not find an existing entry for 1:flood\n"),
      384);
  EXPECT_EQ(
      world.logs.count(Level::standard,
                       "QVActivationStats: More activation messages than can be handled, dropping some"),
      1);
  EXPECT_TRUE(world.logs.hasPrefix(Level::standard, "QVActivationStats: honest FG Launch Duration"));
}

}  // namespace
}  // namespace quorveld
