#include "perfstats/task_order.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <random>
#include <tuple>

#include "tests/perfstats/statistics.h"
#include "tests/sim/sim_platform.h"

namespace quorveld {
namespace {

/// Entries whose pid and figures belong together, so that a mix-up of two entries shows.
std::vector<task_statistics> tasksOf(const std::vector<int32_t>& pids) {
  std::vector<task_statistics> tasks;
  for (const int32_t pid : pids) {
    tasks.push_back(task(pid, std::to_string(pid), static_cast<uint32_t>(pid)));
    tasks.back().rusage.serviced_system_time = tasks.size();  // where it stood
  }
  return tasks;
}

void expectSortedByPid(std::vector<task_statistics> tasks) {
  std::vector<task_statistics> expected = tasks;
  std::sort(expected.begin(), expected.end(), [](const auto& a, const auto& b) {
    return std::tie(a.pid, a.rusage.serviced_system_time) < std::tie(b.pid, b.rusage.serviced_system_time);
  });
  sortByPid(tasks);
  for (size_t i = 0; i < tasks.size(); ++i) {
    ASSERT_EQ(tasks[i].pid, expected[i].pid) << "entry " << i;
    ASSERT_STREQ(tasks[i].name, expected[i].name) << "entry " << i;
    ASSERT_EQ(std::memcmp(&tasks[i].rusage, &expected[i].rusage, sizeof tasks[i].rusage), 0) << "entry " << i;
  }
}

TEST(TaskOrder, ByPidIsWhatAStableSortOfWholeEntriesGives) {
  const int32_t lowest = std::numeric_limits<int32_t>::min(), highest = std::numeric_limits<int32_t>::max();
  for (const auto& pids : std::vector<std::vector<int32_t>>{
           {}, {4}, {2, 1}, {3, 3, 1, 3, 1}, {1, 2, 3}, {0, highest, -1, lowest, 4'194'304, 2048, 2047}}) {
    expectSortedByPid(tasksOf(pids));
  }
  SCOPED_TRACE("seed " + std::to_string(sim::runSeed()));
  std::mt19937_64 random(sim::runSeed());
  for (const int32_t bound : {1, 40, 5000, 4'194'304}) {
    std::vector<int32_t> pids(1000);
    std::generate(pids.begin(), pids.end(), [&] { return static_cast<int32_t>(random() % bound); });
    expectSortedByPid(tasksOf(pids));
  }
}

std::vector<int32_t> byUserTime(const std::vector<uint64_t>& userTicks) {
  std::vector<platform::SortKey> keys;
  for (const uint64_t ticks : userTicks)
    keys.push_back({static_cast<uint32_t>(ticks), static_cast<uint32_t>(keys.size())});
  sortByUserTime(keys);
  std::vector<int32_t> places;
  for (const platform::SortKey& entry : keys) {
    places.push_back(static_cast<int32_t>(entry.index));
    EXPECT_EQ(entry.key, static_cast<uint32_t>(userTicks[entry.index]));
  }
  return places;
}

TEST(TaskOrder, ByUserTimeSeesTheLow32BitsOfTheDifferenceOnly) {
  using Places = std::vector<int32_t>;
  EXPECT_EQ(byUserTime({10, 30, 20, 30}), (Places{1, 3, 2, 0})) << "highest first, equals in their order";
  EXPECT_EQ(byUserTime({5, uint64_t{1} << 32 | 4}), (Places{0, 1})) << "2^32 more ticks count for nothing";
  EXPECT_EQ(byUserTime({0, 0x7FFF'FFFF}), (Places{1, 0}));
  EXPECT_EQ(byUserTime({0x8000'0001, 0}), (Places{1, 0})) << "2^31 or more apart: misordered";
  // 2^31 apart, each would stand before the other: they stay.
  EXPECT_EQ(byUserTime({0, 0x8000'0000}), (Places{0, 1}));
  EXPECT_EQ(byUserTime({0x8000'0000, 0}), (Places{0, 1}));
}

TEST(TaskOrder, ByUserTimeKeepsEveryEntryOfAnOrderThatRunsInCircles) {
  SCOPED_TRACE("seed " + std::to_string(sim::runSeed()));
  std::mt19937_64 random(sim::runSeed());
  for (size_t count = 0; count < 300; count += 7) {
    std::vector<uint64_t> userTicks(count);
    std::generate(userTicks.begin(), userTicks.end(),
                  [&] { return random() % 3 * 0x5555'5555 + random() % 2; });
    const std::vector<int32_t> places = byUserTime(userTicks);
    EXPECT_EQ(places, byUserTime(userTicks));
    std::vector<int32_t> sorted = places;
    std::sort(sorted.begin(), sorted.end());
    for (size_t i = 0; i < count; ++i) ASSERT_EQ(sorted[i], static_cast<int32_t>(i));
  }
}

}  // namespace
}  // namespace quorveld
