#include <gtest/gtest.h>

#include "base/limits.h"
#include "tests/sim/world.h"

// Which processes are watched, and what a registration has to bring.

namespace quorveld {
namespace {

using namespace std::chrono_literals;
using sim::App;
using sim::Level;
using sim::Op;
using sim::Save;
using sim::World;

TEST(WatchedProcesses, ARegistrationIsCheckedAndARefusedRegionIsUnmapped) {
  struct Case {
    const char* what;
    size_t regionBytes;
    uint32_t version;
    std::optional<std::string> path;
    std::optional<std::string> line;  ///< nothing: accepted
    std::string description;
  };
  const std::string refused = "(null)";
  const Case cases[] = {
      {"one byte short", 7207, 4, "/apps/a", "Shared memory region smaller than expected: 7207 < 7208",
       refused},
      {"exact", 7208, 4, "/apps/a", {}, "a(501)"},
      {"longer", 100'000, 4, "/apps/a", {}, "a(501)"},
      {"tiny", 1, 4, "/apps/a", "Shared memory region smaller than expected: 1 < 7208", refused},
      {"old", 7208, 3, "/apps/a", "Client is not vending the current protocol version: 3", refused},
      {"new", 7208, 5, "/apps/a", "Client is not vending the current protocol version: 5", refused},
      {"no path", 7208, 4, {}, "Unable to identify process name of pid 0", refused},
      {"odd path", 7208, 4, "/apps/v\x01ie\xC3\xA9w", {}, "v~ie~~w(501)"},
      {"no name", 7208, 4, "/apps/", {}, "[Unknown](501)"},
      {"NUL in path", 7208, 4, std::string("/apps/a\0b", 9), {}, "a(501)"},
      {"long path", 7208, 4, "/" + std::string(5000, 'p'), {}, std::string(4095, 'p') + "(501)"},
  };
  for (const Case& item : cases) {
    SCOPED_TRACE(item.what);
    World world;
    const App app = world.connectApp("a", item.regionBytes);
    if (item.regionBytes >= 4) app.region().protocolVersion = item.version;
    world.kernel.executablePaths.erase(app.pid());
    if (item.path) world.kernel.executablePaths[app.pid()] = *item.path;
    world.logs.clear();
    app.send({{"command", 1}, {"shmem", &app.memory()}, {"bundle-id", "com.\xC3\xA9"}, {"name", "n"}});
    if (item.line) {
      EXPECT_TRUE(world.logged(Level::standard, *item.line));
      EXPECT_EQ(app.memory().mappings(), 0);
      EXPECT_FALSE(QVProcessInfo::processForPid(app.pid()));
    } else {
      EXPECT_TRUE(world.logs.hasPrefix(Level::info, "New proc: ")) << world.logs.dump();
      EXPECT_EQ(app.memory().mappings(), 1);
      EXPECT_EQ(QVProcessInfo::processForPid(app.pid())->processBundleID(), "com.\xEF\xBF\xBD\xEF\xBF\xBD");
      EXPECT_EQ(QVProcessInfo::processForPid(app.pid())->description(), item.description);
    }
    std::string line = "Initialization complete now watching hangs for " + item.description + " | n";
    if (line.size() > kMaxLogTextBytes) line.replace(kMaxLogTextBytes, std::string::npos, "...");
    EXPECT_TRUE(world.logged(Level::info, line));
  }
}

TEST(WatchedProcesses, ASecondRegistrationKeepsTheFirstRegion) {
  World world;
  const App viewer = world.startApp("viewer");
  EXPECT_TRUE(world.logged(Level::info, "New proc: /apps/viewer(501)"));
  sim::SimMemory second(sizeof(QVSharedHangRegion), world.faults);
  viewer.send({{"command", 1}, {"shmem", &second}, {"bundle-id", "com.example.second"}});
  EXPECT_TRUE(world.logged(Level::standard, "WARNING: viewer(501) was already being watched."));
  EXPECT_TRUE(world.logged(Level::info, "Initialization complete now watching hangs for (null) | (null)"));
  EXPECT_EQ(second.mappings(), 0);
  EXPECT_EQ(viewer.memory().mappings(), 1);
  EXPECT_EQ(QVProcessInfo::processForPid(viewer.pid())->processBundleID(), "com.example.viewer");

  viewer.send({{"command", 2}});
  EXPECT_EQ(viewer.memory().mappings(), 0);
  EXPECT_TRUE(world.logged(Level::debug, "dealloc for viewer"));
  world.logs.clear();
  viewer.send({{"command", 2}});  // no longer watched: nothing to do, nothing to say
  EXPECT_TRUE(world.logs.lines.empty()) << world.logs.dump();
  viewer.registerRegion();
  EXPECT_EQ(viewer.memory().mappings(), 1);
}

TEST(WatchedProcesses, MemoryThatCantBeMappedIsRefused) {
  World world;
  const App viewer = world.connectApp("viewer");
  world.faults.failOnce(Op::mapMemory);
  viewer.registerRegion();
  EXPECT_EQ(world.logs.count(Level::standard, "Something wrong w/shmem"), 1);
  viewer.memory().mapsToNull = true;
  viewer.registerRegion();
  EXPECT_EQ(world.logs.count(Level::standard, "Something wrong w/shmem"), 2);
  viewer.memory().mapsToNull = false;
  const App empty = world.connectApp("empty", 0);
  empty.registerRegion();
  EXPECT_EQ(world.logs.count(Level::standard, "Something wrong w/shmem"), 3);
  EXPECT_EQ(viewer.memory().mappings() + empty.memory().mappings(), 0);
}

TEST(WatchedProcesses, AFenceHangIsBlamedOnAnyWatchedProcess) {
  World world;
  EXPECT_FALSE(QVProcessInfo::processForFenceHangs());
  const App first = world.startApp("first");
  for (int i = 0; i < 10; ++i) EXPECT_EQ(QVProcessInfo::processForFenceHangs()->pid(), first.pid());
  world.startApp("second");
  world.startApp("third");
  std::set<int32_t> blamed;
  for (int i = 0; i < 200; ++i) blamed.insert(QVProcessInfo::processForFenceHangs()->pid());
  EXPECT_EQ(blamed.size(), 3u);
}

TEST(WatchedProcesses, AThousandProcessesAreWatchedAndLetGo) {
  World world;
  std::vector<App> apps;
  for (int i = 0; i < 1000; ++i) {
    apps.push_back(world.startApp("app" + std::to_string(i)));
    apps.back().begin(i % 20, "busy", 6s, Save::no);
  }
  world.logs.clear();
  QVProcessInfo::checkForHangTimeouts(world.now());
  const std::vector<std::string> infos = world.lines(Level::info);
  ASSERT_EQ(infos.size(), 2000u);
  EXPECT_EQ(infos[1], "app0: Hang detected 6.00s (busy)");
  EXPECT_EQ(infos[1999], "app999: Hang detected 6.00s (busy)");
  for (const App& app : apps) app.disconnect();
  EXPECT_FALSE(QVProcessInfo::processForFenceHangs());
  int mappings = 0;
  for (const App& app : apps) mappings += app.memory().mappings();
  EXPECT_EQ(mappings, 0);
}

TEST(WatchedProcesses, TurningHangTracingOffLetsEveryoneGo) {
  World world;
  world.prefer("QuorvelEnableMemoryLogging", true);
  const App viewer = world.startApp("viewer");
  const App editor = world.startApp("editor");
  viewer.begin(0, "busy", 6s);
  world.prefer("QuorvelEnabled", false);
  EXPECT_EQ(viewer.memory().mappings() + editor.memory().mappings(), 0);
  world.logs.clear();
  world.advance(20s);
  EXPECT_TRUE(world.logs.lines.empty()) << "no check runs: " << world.logs.dump();
  world.prefer("QuorvelEnabled", true);
  world.startApp("viewer").begin(0, "busy", 6s);
  world.advance(5s);
  EXPECT_EQ(world.spool().size(), 1u);
}

TEST(WatchedProcesses, WhoeverAsksForTheStateGetsItInOneBlock) {
  World world;
  world.startApp("viewer").reportHang(1500ms, Save::yes);
  world.logs.clear();
  world.queues.requestStatus();
  world.settle();
  EXPECT_TRUE(world.logged(Level::standard, "Status: 1 watched processes"));
  EXPECT_TRUE(world.logged(Level::standard, "Status:   viewer(501) com.example.viewer"));
  EXPECT_TRUE(world.logged(Level::standard, "Status:   viewer has 3 of 4 credits for short hangs"));
}

}  // namespace
}  // namespace quorveld
