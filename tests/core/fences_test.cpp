#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "base/ticks.h"
#include "core/fence_table.h"
#include "tests/sim/world.h"

// Fences: when a hang is theirs, and what their times may be.

namespace quorveld {
namespace {

using namespace std::chrono_literals;
using sim::App;
using sim::Level;
using sim::World;

constexpr int64_t kMin = std::numeric_limits<int64_t>::min();
constexpr int64_t kMax = std::numeric_limits<int64_t>::max();

/// The fewest ticks that last at least `ms`.
int64_t ticks(double ms) {
  return static_cast<int64_t>(std::ceil(ms / msPerTick()));
}

/// "NAME START END" of the report that a hang [0, end] leads to; times in ticks after 1,000,000,000.
std::string reportOfHang(World& world, const App& app, int64_t end) {
  constexpr int64_t kBase = 1'000'000'000;
  world.traceLibraries.requests.clear();
  world.replenishCredits();
  app.send({{"command", 3},
            {"startTime", kBase},
            {"endTime", kBase + end},
            {"name", "Own"},
            {"saveReport", true}});
  world.advance(2s);
  if (world.traceLibraries.requests.size() != 1) return "no report";
  const sim::TraceRequest& request = world.traceLibraries.requests[0];
  const bool fence = request.reason.find("\"ServiceName\":\"Fence-hang\"") != std::string::npos;
  return (fence ? "Fence-hang " : "Own ") +
         std::to_string(static_cast<int64_t>(request.minTimestamp) - kBase) + " " +
         std::to_string(static_cast<int64_t>(request.maxTimestamp) - kBase);
}

TEST(Fences, FourHundredAndOneMillisecondsOfAnOpenFenceMakeAHangTheFences) {
  World world;
  const App viewer = world.startApp("viewer");
  const int64_t border = ticks(401);
  const std::string own = std::to_string(border - 1);
  EXPECT_EQ(reportOfHang(world, viewer, border), "Own 0 " + std::to_string(border));
  world.startApp("marker").send({{"command", 6}, {"name", 9}, {"startTime", 5}});
  EXPECT_TRUE(world.logged(Level::info, "QVFenceTracking: Fence begin"));
  EXPECT_EQ(reportOfHang(world, viewer, border - 1), "Own 0 " + own);
  EXPECT_EQ(reportOfHang(world, viewer, border),
            "Fence-hang -12000000 " + std::to_string(border + 12'000'000));
  viewer.send({{"command", 7}, {"name", 8}, {"endTime", 6}});
  EXPECT_TRUE(
      world.logged(Level::standard, "QVFenceTracking: Fence end, failed to find corresponding fence(8)"));
  EXPECT_EQ(reportOfHang(world, viewer, border),
            "Fence-hang -12000000 " + std::to_string(border + 12'000'000));
  viewer.send({{"command", 7}, {"name", 9}, {"endTime", 6}});
  EXPECT_TRUE(world.logged(Level::info, "QVFenceTracking: Fence end"));
  EXPECT_EQ(reportOfHang(world, viewer, border), "Own 0 " + std::to_string(border));
}

TEST(Fences, OverlapsAreSummedEachTruncatedAsItIsAdded) {
  const sim::SimPlatform platform;  // ticks are converted with its timebase
  struct Case {
    const char* what;
    std::vector<std::pair<int64_t, int64_t>> fences;  ///< start, end
    uint64_t start, end;
    uint64_t ms;
  };
  const int64_t part = ticks(80.9);
  const int64_t day = 24 * 3600 * int64_t{24'000'000};
  const Case cases[] = {
      {"none", {}, 0, kMax, 0},
      {"five parts of 80.9 ms", std::vector(5, std::pair(int64_t{0}, part)), 0, 1ull << 40, 400},
      {"the sixth replaces the first", {{0, day}, {0, 0}, {0, 0}, {0, 0}, {0, 0}, {7, 7}}, 0, 1ull << 40, 0},
      {"fence within the hang", {{100, 100 + ticks(50)}}, 0, 1ull << 40, 50},
      {"hang within the fence", {{0, day}}, 500, 500 + static_cast<uint64_t>(ticks(60)), 60},
      {"touching", {{0, 500}}, 500, 1000, 0},
      {"ended before it began", {{500, 100}}, 0, 1000, 0},
      {"hang ended before it began", {{0, day}}, 1000, 500, 0},
      {"negative start lies in the far future", {{-1, kMax}}, 0, kMax, 0},
      {"negative end is far away", {{0, -1}}, 0, static_cast<uint64_t>(ticks(70)), 70},
      {"negative hang", {{0, kMax}}, static_cast<uint64_t>(kMin), static_cast<uint64_t>(-1), 0},
  };
  for (const Case& item : cases) {
    SCOPED_TRACE(item.what);
    FenceTable table;
    for (size_t i = 0; i < item.fences.size(); ++i) {
      table.begin(static_cast<int64_t>(i), item.fences[i].first);
      EXPECT_TRUE(table.end(static_cast<int64_t>(i), item.fences[i].second));
    }
    EXPECT_EQ(table.overlapMs(item.start, item.end), item.ms);
  }
  FenceTable open;
  for (int i = 0; i < 5; ++i) open.begin(i, 0);
  EXPECT_NEAR(static_cast<double>(open.overlapMs(0, ~0ull)), 5 * 9.223372036854775807e18 * msPerTick(), 1e9);
}

TEST(Fences, AnEndFindsTheLastBeginOrElseTheHighestSlotOfThatName) {
  const sim::SimPlatform platform;
  constexpr int64_t kA = 10, kB = 11;
  const auto hundred = static_cast<uint64_t>(ticks(100));
  FenceTable table;
  table.begin(kA, 0);  // slot 0
  table.begin(kB, 0);
  table.begin(kA, 0);  // slot 2
  table.begin(kB, 0);  // slot 3, the last begun
  ASSERT_EQ(table.overlapMs(0, hundred), 400u);
  EXPECT_TRUE(table.end(kA, ticks(10)));  // slot 2: 10 ms now
  EXPECT_EQ(table.overlapMs(0, hundred), 310u);
  EXPECT_TRUE(table.end(kA, ticks(20)));  // slot 2 again
  EXPECT_EQ(table.overlapMs(0, hundred), 320u);
  table.begin(12, 0);
  table.begin(kA, 0);  // slot 0, the last begun though slot 2 is higher
  EXPECT_TRUE(table.end(kA, 0));
  EXPECT_EQ(table.overlapMs(0, hundred), 320u);
  EXPECT_FALSE(table.end(99, 0));
}

TEST(Fences, ABlownFenceBlamesAWatchedProcessAndIsWidened) {
  World world;
  const App marker = world.connectApp("marker");
  world.logs.clear();
  marker.send({{"command", 8}, {"startTime", 1}, {"endTime", 2}});
  EXPECT_EQ(world.lines(Level::standard),
            (std::vector<std::string>{"QVFenceTracking: Fence blown",
                                      "Got Fence Blown message but can't find processForHangs"}));
  world.startApp("viewer");
  marker.send({{"command", 8}, {"startTime", 100'000'000}, {"endTime", 124'000'000}});
  EXPECT_TRUE(world.logged(Level::info, "viewer: Hang detected 2.00s (Fence-hang)"));
  world.advance(1s);
  ASSERT_EQ(world.traceLibraries.requests.size(), 1u);
  EXPECT_EQ(world.traceLibraries.requests[0].minTimestamp, 88'000'000u);
  EXPECT_EQ(world.traceLibraries.requests[0].maxTimestamp, 136'000'000u);
  EXPECT_NE(world.traceLibraries.requests[0].reason.find("\"ThreadID\":0,"), std::string::npos);

  marker.send({{"command", 8}, {"endTime", kMin}, {"startTime", 0}});  // wraps, as unsigned times do
  world.advance(1s);
  EXPECT_EQ(world.traceLibraries.requests.back().minTimestamp, ~0ull - 12'000'000 + 1);
  EXPECT_EQ(world.traceLibraries.requests.back().maxTimestamp, (1ull << 63) + 12'000'000);
  world.prefer("QuorvelEnableKelvane", false);
  world.logs.clear();
  marker.send({{"command", 8}});
  EXPECT_EQ(world.lines(Level::standard), std::vector<std::string>{"QVFenceTracking: Fence blown"})
      << "no trace is asked for, so none is refused";
}

}  // namespace
}  // namespace quorveld
