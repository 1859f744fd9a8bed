#include <gtest/gtest.h>

#include "perfstats/cpu_statistics_delta.h"
#include "tests/perfstats/failing_calloc.h"
#include "tests/perfstats/statistics.h"
#include "tests/sim/sim_platform.h"

namespace quorveld {
namespace {

using platform::LogLevel;

struct DeltaTest : testing::Test {
  void between(const std::vector<task_statistics>& before, const std::vector<task_statistics>& after) {
    start = statistics(before);
    end = statistics(after);
    delta = delta_cpu_statistics(start.get(), end.get());
  }
  const task_statistics& of(int32_t pid) const {
    for (int32_t i = 0; i < delta->count; ++i) {
      if (delta->tasks[i].pid == pid) return delta->tasks[i];
    }
    ADD_FAILURE() << "no entry of " << pid;
    return delta->tasks[0];
  }

  sim::SimPlatform world;
  CpuStatisticsPtr start, end, delta;
};

TEST_F(DeltaTest, TellsPresentNewAndDeadProcessesApartWhateverTheOrderOfTheLists) {
  between({task(5, "dies", 900), task(1, "stays", 100), task(8, "dies last", 10)},
          {task(7, "born", 40), task(1, "renamed", 150), task(3, "born idle", 20)});
  EXPECT_EQ(pids(*delta), (std::vector<int32_t>{1, 7, 3, 5, 8})) << "by user time, then by pid";
  EXPECT_EQ(pids(*start), (std::vector<int32_t>{1, 5, 8}));
  EXPECT_EQ(pids(*end), (std::vector<int32_t>{1, 3, 7}));

  EXPECT_EQ(of(1).state, kTaskPresent);
  EXPECT_STREQ(of(1).name, "renamed");
  EXPECT_EQ(of(1).rusage.user_time, 50u);
  EXPECT_EQ(of(7).state, kTaskNew);
  EXPECT_EQ(of(7).rusage.user_time, 40u);
  EXPECT_EQ(of(5).state, kTaskDead);
  EXPECT_STREQ(of(5).name, "dies");
  EXPECT_EQ(of(5).rusage.user_time, 0u);
}

TEST_F(DeltaTest, SubtractsWhatReportsShowAndLeavesTheRestZero) {
  task_statistics before = task(4, "worker", 10), after = task(4, "worker", 25);
  uint64_t* counters = &before.rusage.user_time;
  uint64_t* grown = &after.rusage.user_time;
  constexpr int kCounters = 27;
  for (int i = 0; i < kCounters; ++i) counters[i] = 1000, grown[i] = 1001 + static_cast<uint64_t>(i);
  after.rusage.proc_start_abstime = before.rusage.proc_start_abstime;
  after.rusage.system_time = 900;
  after.rusage.wired_size = 999;
  after.rusage.resident_size = 0;
  after.rusage.phys_footprint = 400;
  between({before}, {after});

  platform::rusage_info_v3 expected{};
  expected.user_time = 1;
  expected.system_time = 0 - uint64_t{100};  // what may shrink wraps
  expected.pageins = 5;
  expected.wired_size = 0 - uint64_t{1};
  expected.resident_size = 0 - uint64_t{1000};
  expected.phys_footprint = 0 - uint64_t{600};
  expected.diskio_bytesread = 17;
  expected.diskio_byteswritten = 18;
  expected.cpu_time_qos_default = 19;
  expected.cpu_time_qos_maintenance = 20;
  expected.cpu_time_qos_background = 21;
  expected.cpu_time_qos_utility = 22;
  expected.cpu_time_qos_legacy = 23;
  expected.cpu_time_qos_user_initiated = 24;
  expected.cpu_time_qos_user_interactive = 25;
  EXPECT_EQ(std::memcmp(&of(4).rusage, &expected, sizeof expected), 0);
  EXPECT_TRUE(world.logs.lines.empty());
}

TEST_F(DeltaTest, ReportsAReusedPidWithAllThatItsNewProcessSpent) {
  using Usage = platform::rusage_info_v3;
  for (const auto fallen :
       {&Usage::user_time, &Usage::pageins, &Usage::diskio_bytesread, &Usage::diskio_byteswritten,
        &Usage::cpu_time_qos_default, &Usage::cpu_time_qos_background, &Usage::cpu_time_qos_utility,
        &Usage::cpu_time_qos_legacy, &Usage::cpu_time_qos_user_initiated,
        &Usage::cpu_time_qos_user_interactive, &Usage::cpu_time_qos_maintenance}) {
    task_statistics before = task(4, "old", 10), after = task(4, "new", 25);
    before.rusage.*fallen = 80;
    after.rusage.*fallen = 79;
    after.rusage.proc_start_abstime = 7;
    between({before}, {after});
    EXPECT_EQ(std::memcmp(&of(4).rusage, &after.rusage, sizeof after.rusage), 0);
    EXPECT_EQ(of(4).state, kTaskPresent);
    EXPECT_EQ(world.logs.lines.size(), 1u);
    EXPECT_TRUE(world.logs.hasPrefix(LogLevel::standard,
                                     " ******* QVActivationStats: Start values are greater than end values "
                                     "for Pid:4 StartUserTime:"));
    world.logs.clear();
  }
}

TEST_F(DeltaTest, TellsAReusedPidByItsStartWhateverItsCounters) {
  task_statistics before = task(4, "old", 10), after = task(4, "new", 25);
  before.rusage.proc_start_abstime = 1000;
  after.rusage.proc_start_abstime = 1001;
  between({before}, {after});
  EXPECT_EQ(delta->tasks[0].state, kTaskPresent);
  EXPECT_EQ(delta->tasks[0].rusage.user_time, 25u);
}

TEST_F(DeltaTest, InheritsAStartNameUnlessItIsTheLaunchProxys) {
  between({task(1, "editor"), task(2, "xspawnhopx"), task(3, "spawnhop"), task(4, "old")},
          {task(1, ""), task(2, ""), task(3, "app"), task(4, "new")});
  EXPECT_STREQ(of(1).name, "editor");
  EXPECT_STREQ(of(2).name, "");
  EXPECT_STREQ(of(3).name, "app");
  EXPECT_STREQ(of(4).name, "new");
  ASSERT_EQ(world.logs.lines.size(), 1u);
  EXPECT_TRUE(world.logs.has(
      LogLevel::info,
      "QVActivationStats: Got a valid process name for pid:1 in start snapshot editor. Using that\n"));
}

TEST_F(DeltaTest, IsEmptyForEmptyInputsAndNullForFailures) {
  between({}, {});
  EXPECT_EQ(delta->count, 0);
  between({}, {task(2, "only")});
  EXPECT_EQ(of(2).state, kTaskNew);

  EXPECT_EQ(delta_cpu_statistics(nullptr, end.get()), nullptr);
  EXPECT_EQ(delta_cpu_statistics(end.get(), nullptr), nullptr);
  EXPECT_EQ(world.logs.count(LogLevel::standard,
                             "QVActivationStats: delta_cpu_statistics: Empty start or end CPU stats\n"),
            2);
  failCalloc(sizeof(cpu_statistics));
  EXPECT_EQ(delta_cpu_statistics(end.get(), end.get()), nullptr);
  EXPECT_TRUE(world.logs.has(
      LogLevel::standard, "QVActivationStats: delta_cpu_statistics: Failed to allocate memory for output\n"));
  failCalloc(sizeof(task_statistics));
  EXPECT_EQ(delta_cpu_statistics(end.get(), end.get()), nullptr);
  EXPECT_TRUE(world.logs.has(
      LogLevel::standard, "QVActivationStats: delta_cpu_statistics: Failed to allocate memory for tasks\n"));
}

}  // namespace
}  // namespace quorveld
