#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <thread>

#include "base/ticks.h"
#include "tests/sim/world.h"

// The scan of the regions: which slot has timed out, and what a client may do to its region meanwhile.

namespace quorveld {
namespace {

using namespace std::chrono_literals;
using sim::App;
using sim::Level;
using sim::Save;
using sim::World;

/// How many hangs one scan records.
size_t scan(World& world) {
  world.logs.clear();
  QVProcessInfo::checkForHangTimeouts(world.now());
  size_t hangs = 0;
  for (const std::string& line : world.lines(Level::info))
    hangs += line.find(": Hang detected ") != std::string::npos;
  return hangs;
}

TEST(HangTimeouts, AnOverdueSlotIsReportedOnceByTheFiveSecondCheck) {
  World world;
  const App viewer = world.startApp("viewer");
  world.advance(3s);
  viewer.begin(3, "Render", 0s);
  const uint64_t start = viewer.slot(3).startTime;
  world.logs.clear();
  world.advance(6s);
  EXPECT_TRUE(world.lines(Level::info).empty()) << "the check after 5 s comes too early";
  world.advance(1s);
  EXPECT_TRUE(world.logged(Level::info,
                           "Hang timeout duration of 5000.000000 exceeded, will attempt to record hang "));
  EXPECT_TRUE(world.logged(Level::info, "viewer: Hang detected 7.00s (Render)"));
  EXPECT_EQ(viewer.slot(3).startTime, QV_HANG_REPORTED);
  ASSERT_EQ(world.traceLibraries.requests.size(), 1u);
  const sim::TraceRequest& request = world.traceLibraries.requests[0];
  EXPECT_EQ(request.minTimestamp, start);
  EXPECT_EQ(request.maxTimestamp, world.now());
  EXPECT_NE(request.reason.find("\"ThreadID\":1003,"), std::string::npos);

  world.advance(1h);
  EXPECT_EQ(world.traceLibraries.requests.size(), 1u) << "a reported slot is left alone";
  viewer.begin(3, "Render", 1s, Save::no);
  world.advance(5s);
  EXPECT_EQ(world.traceLibraries.requests.size(), 1u) << "no trace was wanted";
  EXPECT_TRUE(world.logged(Level::info, "viewer: Hang detected 6.00s (Render)"));
}

TEST(HangTimeouts, WhatIsPendingForHalfASecondIsSampledUntilItEndsOrIsReported) {
  World world;
  auto& sampled = world.traceLibraries.sampled;
  const App viewer = world.startApp("viewer");
  const App editor = world.startApp("editor");
  viewer.begin(0, "Short", 499ms);
  scan(world);
  EXPECT_TRUE(sampled.empty()) << "the library isn't even loaded";

  world.traceLibraries.samplingRefusal = "perf events: Permission denied";
  viewer.begin(1, "Long", 700ms);
  viewer.begin(2, "Longest", 2s);
  viewer.begin(3, "Unwanted", 3s, Save::no);
  editor.begin(0, "Other", 600ms);
  scan(world);
  ASSERT_EQ(sampled.size(), 1u);
  ASSERT_EQ(sampled[0].size(), 2u) << "the longest of each";
  EXPECT_EQ(sampled[0][0].pid, viewer.pid());
  EXPECT_EQ(sampled[0][0].thread_id, viewer.slot(2).threadID);
  EXPECT_EQ(sampled[0][0].start_ticks, viewer.slot(2).startTime);
  EXPECT_EQ(sampled[0][1].pid, editor.pid());
  EXPECT_TRUE(world.logged(Level::info,
                           "Threads of pending operations are not sampled: perf events: Permission denied"));

  world.traceLibraries.samplingRefusal = nullptr;
  editor.slot(0).timeoutExempt = 1;
  viewer.begin(2, "Longest", 6s);
  EXPECT_EQ(scan(world), 1u);
  ASSERT_EQ(sampled.size(), 2u);
  ASSERT_EQ(sampled[1].size(), 1u) << "of one that has timed out there is a report already";
  EXPECT_EQ(sampled[1][0].start_ticks, viewer.slot(1).startTime) << "the next one";
  viewer.slot(1).timeoutExempt = 1;
  viewer.slot(3).timeoutExempt = 1;
  scan(world);
  EXPECT_TRUE(sampled.at(2).empty()) << "the library hears that nothing is left";

  viewer.begin(1, "Long", 700ms);
  scan(world);
  EXPECT_EQ(sampled.back().size(), 1u);
  world.prefer("QuorvelEnabled", false);
  EXPECT_TRUE(sampled.back().empty()) << "nobody is watched any more";
}

TEST(HangTimeouts, EqualToTheTimeoutIsNoHangAndATickMoreIs) {
  World world;
  const App viewer = world.startApp("viewer");
  viewer.begin(0, "a", 1s);
  viewer.slot(0).startTime = world.now() - 24'000'000;
  QVProcessInfo::setHangTimeoutDuration(24'000'000.0 * msPerTick());
  EXPECT_EQ(scan(world), 0u);
  --viewer.slot(0).startTime;
  EXPECT_EQ(scan(world), 1u);
}

TEST(HangTimeouts, WhichSlotsCount) {
  struct Case {
    const char* what;
    std::function<void(const App&, World&)> arrange;
    size_t hangs;
  };
  const Case cases[] = {
      {"none in flight", [](const App&, World&) {}, 0},
      {"no slots", [](const App& app, World&) { app.begin(0, "a", 1h), app.region().slotCount = 0; }, 0},
      {"not yet among the slots",
       [](const App& app, World&) { app.begin(7, "a", 90s), app.region().slotCount = 7; }, 0},
      {"last of the slots",
       [](const App& app, World&) { app.begin(7, "a", 90s), app.region().slotCount = 8; }, 1},
      {"exempt", [](const App& app, World&) { app.begin(0, "a", 90s), app.slot(0).timeoutExempt = -1; }, 0},
      {"begun in the future", [](const App& app, World&) { app.begin(0, "a", -90s); }, 0},
      {"reported already",
       [](const App& app, World&) { app.begin(0, "a", 90s), app.slot(0).startTime = ~0ull; }, 0},
      {"start 0, since the clock's origin",
       [](const App& app, World&) { app.begin(0, "a", 1s), app.slot(0).startTime = 0; }, 1},
      {"not for long", [](const App& app, World&) { app.begin(0, "a", 4999ms); }, 0},
      {"more slots than the region holds",
       [](const App& app, World&) { app.begin(19, "a", 90s), app.region().slotCount = ~0u; }, 1},
      {"only beyond the region", [](const App& app, World&) { app.region().slotCount = 1'000'000; }, 0},
  };
  for (const Case& item : cases) {
    SCOPED_TRACE(item.what);
    World world;
    const App viewer = world.startApp("viewer");
    item.arrange(viewer, world);
    EXPECT_EQ(scan(world), item.hangs) << world.logs.dump();
  }
}

TEST(HangTimeouts, ALongerRegionsFurtherSlotsAreScannedWhenTheyAreWholeAndCounted) {
  World world;
  const App app = world.connectApp("wide", sizeof(QVSharedHangRegion) + sizeof(hangEvent) + 359);
  app.registerRegion();
  auto* extra = reinterpret_cast<hangEvent*>(app.memory().bytes() + sizeof(QVSharedHangRegion));
  std::memcpy(extra, &app.slot(0), sizeof *extra);
  extra->startTime = 1;
  extra->timeoutExempt = 0;
  EXPECT_EQ(scan(world), 0u);
  app.region().slotCount = 500;  // the 22nd slot lacks its last byte
  EXPECT_EQ(scan(world), 1u);
  EXPECT_EQ(extra->startTime, QV_HANG_REPORTED);
}

TEST(HangTimeouts, TwoOverdueSlotsTakeTwoScansLowerIndexFirst) {
  World world;
  const App viewer = world.startApp("viewer");
  viewer.begin(9, "ninth", 60s, Save::no);
  viewer.begin(4, "fourth", 50s, Save::no);
  EXPECT_EQ(scan(world), 1u);
  EXPECT_TRUE(world.logged(Level::info, "viewer: Hang detected 50.00s (fourth)"));
  EXPECT_EQ(scan(world), 1u);
  EXPECT_TRUE(world.logged(Level::info, "viewer: Hang detected 60.00s (ninth)"));
  EXPECT_EQ(scan(world), 0u);
}

TEST(HangTimeouts, ASlotsNameNeedsNoEndAndNoManners) {
  struct Case {
    std::string name;
    std::string shown;
  };
  const Case cases[] = {{std::string(64, 'n'), std::string(64, 'n')},
                        {std::string("short\0rest", 10), "short"},
                        {"", ""},
                        {"\xFE", "\xEF\xBF\xBD"},
                        {std::string(63, 'x') + "\xC3", std::string(63, 'x') + "\xEF\xBF\xBD"}};
  for (const Case& item : cases) {
    World world;
    const App viewer = world.startApp("viewer");
    viewer.begin(0, item.name, 6s);
    EXPECT_EQ(scan(world), 1u);
    EXPECT_TRUE(world.logged(Level::info, "viewer: Hang detected 6.00s (" + item.shown + ")"));
    EXPECT_EQ(world.spool().size(), 1u);
  }
}

TEST(HangTimeouts, TheTunablesSayWhatTheyChange) {
  World world;
  QVProcessInfo::setHangTimeoutDuration(250.5);
  EXPECT_TRUE(world.logged(Level::info, "Hang Timeout Duration: 5000.000000 -> 250.500000"));
  QVProcessInfo::setLongHangDurationThreshold(-1);
  EXPECT_TRUE(world.logged(Level::info, "Long Hang Duration Threshold: 2000.000000 -> -1.000000"));
  const App viewer = world.startApp("viewer");
  viewer.begin(0, "a", 251ms, Save::no);
  EXPECT_EQ(scan(world), 1u);
}

// A client that rewrites its region while it is scanned can make the daemon miss or name a hang wrongly,
// never more. The region is as long as it says to the byte, so that AddressSanitizer sees a step beyond it.
TEST(HangTimeouts, ARegionThatChangesDuringTheScanIsHarmless) {
  World world;
  const App hostile = world.startApp("hostile");
  const App honest = world.startApp("honest");
  std::atomic<bool> stop = false;
  std::thread writer([&] {
    for (uint32_t i = 0; !stop; ++i) {
      std::atomic_ref(hostile.region().slotCount).store(i % 3 == 0 ? 0 : i % 3 == 1 ? 20 : 0x7FFFFFFF);
      std::atomic_ref(hostile.slot(19).startTime).store(i);
      std::atomic_ref(hostile.slot(19).timeoutExempt).store(static_cast<int32_t>(i % 2));
      for (char& c : hostile.slot(19).hangName) std::atomic_ref(c).store(static_cast<char>('!' + i % 90));
    }
  });
  for (int i = 0; i < 300; ++i) {
    honest.begin(0, "mine", 6s, Save::no);
    scan(world);
    EXPECT_TRUE(world.logged(Level::info, "honest: Hang detected 6.00s (mine)"));
  }
  stop = true;
  writer.join();
}

}  // namespace
}  // namespace quorveld
