#include <gtest/gtest.h>

#include "tests/activation/launcher.h"

// Launches as signpost intervals on internal builds, and what the end of one says that the app spent.

namespace quorveld {
namespace {

using namespace std::chrono_literals;
using sim::LauncherWorld;
using sim::Level;
using sim::Shown;

const std::string kGap(38, ' ');

std::string endText(const std::string& bundleID, int cpuMs, int ioKB, const char* suffix) {
  return "appLaunch processBundleId=" + bundleID + kGap + "appCPUTimeInMs=" + std::to_string(cpuMs) + kGap +
         "appIOInKB=" + std::to_string(ioKB) + suffix;
}

TEST(Signposts, ALaunchOnAnInternalBuildIsAnIntervalWithItsCost) {
  LauncherWorld world;
  world.device.capabilities.insert("InternalBuild");
  world.kernel.processes = {{.pid = 1, .name = "init"}, {.pid = 42, .name = "viewer"}};
  world.begin();
  world.beginActivation(42, "viewer");
  ASSERT_EQ(world.logs.signposts.size(), 1u);
  EXPECT_TRUE(world.logs.signposts[0].begin);
  EXPECT_EQ(world.logs.signposts[0].id, 42u);
  EXPECT_EQ(world.logs.signposts[0].text, "appLaunch processBundleId=viewer");
  EXPECT_TRUE(world.logged(Level::info, "os_signpost_interval_begin: processBundleId: viewer"));

  auto& usage = world.kernel.processes[1].usage;
  usage.user_time = 24'000 * 30;
  usage.system_time = 24'000 * 12 + 23'999;
  usage.diskio_bytesread = 2000;
  usage.diskio_byteswritten = 47;
  world.advance(1s);
  world.logs.clear();
  world.endActivation(42, "viewer");
  ASSERT_EQ(world.logs.signposts.size(), 2u);
  EXPECT_FALSE(world.logs.signposts[1].begin);
  EXPECT_EQ(world.logs.signposts[1].text, endText("viewer", 42, 2, " enableTelemetry=YES "));
  std::vector<std::string> tail;
  for (const auto& line : world.logs.lines) {
    if (line.subsystem == "com.corvix.quorvel.signposts" && line.level == Level::info)
      tail.push_back(line.text);
  }
  EXPECT_EQ(tail,
            (std::vector<std::string>{"os_signpost_interval_end: processBundleId: viewer",
                                      "stats for processBundleId: viewer", "-----------------------------",
                                      "appCPUTimeInMs:42  appIOInKB: 2"}));
}

TEST(Signposts, LateTimedOutAndNumberlessLaunches) {
  LauncherWorld world;
  world.device.capabilities.insert("InternalBuild");
  world.begin();
  world.beginActivation(50, "late", Shown::foreground, 1, {}, 200ms);
  EXPECT_TRUE(world.logs.signposts.empty());
  world.advance(61s);
  ASSERT_EQ(world.logs.signposts.size(), 1u);
  EXPECT_EQ(world.logs.signposts[0].text, endText("late", 0, 0, ""));

  // 0 and -1 are no identifiers: only the log speaks. A process that no snapshot holds costs nothing.
  world.beginActivation(-1, "invalid");
  world.endActivation(-1, "invalid");
  EXPECT_EQ(world.logs.signposts.size(), 1u);
  EXPECT_TRUE(world.logged(Level::info, "os_signpost_interval_begin: processBundleId: invalid"));
  EXPECT_TRUE(world.logged(Level::info, "appCPUTimeInMs:0  appIOInKB: 0"));
  world.beginActivation(-5, "negative");
  EXPECT_EQ(world.logs.signposts.back().id, static_cast<uint64_t>(int64_t{-5}));
  world.beginActivation(51, "resumed", Shown::foreground, 2);
  EXPECT_EQ(world.logs.signposts.size(), 2u);
}

TEST(Signposts, OtherBuildsSaySoNowhere) {
  LauncherWorld world;
  world.begin();
  world.activate(42, "viewer", 1s);
  EXPECT_TRUE(world.logs.signposts.empty());
  for (const auto& line : world.lines(Level::info))
    EXPECT_EQ(line.find("os_signpost"), std::string::npos) << line;
}

}  // namespace
}  // namespace quorveld
