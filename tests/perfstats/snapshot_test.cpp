#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "base/string_hash.h"
#include "base/user_shares.h"
#include "perfstats/packed_statistics.h"
#include "perfstats/perf_snapshot.h"
#include "perfstats/perf_stats_process.h"
#include "tests/perfstats/failing_calloc.h"
#include "tests/perfstats/statistics.h"
#include "tests/sim/sim_platform.h"

namespace quorveld {
namespace {

using platform::LogLevel;
using sim::Op;

struct SnapshotTest : testing::Test {
  /// What a snapshot of everything holds of processes; null when that failed.
  const cpu_statistics* capture() {
    snapshot = PerfSnapshot::createPerformanceSnapshotWithOptions(kSnapshotCpu | kSnapshotVm);
    return snapshot->cpu_stats();
  }
  void runs(int32_t pid, std::optional<std::string> name, uint64_t userTicks = 0) {
    platform::rusage_info_v3 usage{};
    usage.user_time = userTicks;
    world.kernel.processes.push_back({pid, std::move(name), usage});
  }
  int logged(const char* text) const { return world.logs.count(LogLevel::standard, text); }

  sim::SimPlatform world;
  std::unique_ptr<PerfSnapshot> snapshot;
};

TEST_F(SnapshotTest, PackedLooksAreWhatTheyWereAndShareWhoSleeps) {
  constexpr int32_t kProcesses = 1000;
  UserShares memory(size_t{1} << 30);
  SharedLooks looks(memory);
  for (int32_t pid = kProcesses; pid > 0; --pid) runs(pid * 2, "sleeper", 7);
  std::vector<std::unique_ptr<PerfSnapshot>> packed;
  std::vector<std::vector<task_statistics>> expected;
  for (int32_t step = 0; step < 200; ++step) {
    if (step > 0) {
      world.kernel.processes[static_cast<size_t>(step)].usage.user_time += 1;
      if (step == 100)
        world.kernel.processes.erase(world.kernel.processes.begin(), world.kernel.processes.begin() + 2);
      if (step % 50 == 0) runs(step * 2 + 1, "born");
    }
    const cpu_statistics* look = capture();
    std::vector<task_statistics> tasks(look->tasks, look->tasks + look->count);
    std::sort(tasks.begin(), tasks.end(), [](const auto& a, const auto& b) { return a.pid < b.pid; });
    expected.push_back(std::move(tasks));
    ASSERT_TRUE(snapshot->pack(looks, 0));
    packed.push_back(std::move(snapshot));
  }
  EXPECT_LT(memory.taken(), 200 * kProcesses * sizeof(task_statistics) / 10);
  looks.forget();
  for (size_t i = 0; i < packed.size(); ++i) {
    const cpu_statistics* look = packed[i]->cpu_stats();
    ASSERT_EQ(static_cast<size_t>(look->count), expected[i].size()) << i;
    EXPECT_EQ(std::memcmp(look->tasks, expected[i].data(), expected[i].size() * sizeof(task_statistics)), 0)
        << i;
  }
}

TEST_F(SnapshotTest, ABaseIsChargedAsLongAsALookSharesIt) {
  constexpr size_t kProcesses = 100;
  constexpr size_t kLook = kProcesses * sizeof(task_statistics);
  constexpr uint32_t kMaker = 1000, kSharer = 1001;
  UserShares memory(16 * kLook);
  SharedLooks looks(memory);
  for (size_t i = 0; i < kProcesses; ++i) runs(static_cast<int32_t>(i + 1), "busy");
  std::vector<std::unique_ptr<PerfSnapshot>> sharing;
  int bases = 0;
  for (int round = 0; round < 100; ++round) {
    for (auto& process : world.kernel.processes) process.usage.user_time += 1;
    capture();
    if (!snapshot->pack(looks, kMaker)) {
      EXPECT_EQ(snapshot->cpu_stats(), nullptr) << "let go";
      continue;
    }
    ++bases;
    capture();
    ASSERT_TRUE(snapshot->pack(looks, kSharer));  // all that is left of the maker's
    sharing.push_back(std::move(snapshot));
  }
  EXPECT_EQ(bases, 5) << "of 12 that aren't root's, half at most, and a little for those who share";
  EXPECT_GE(memory.taken(), static_cast<size_t>(bases) * kLook);
  looks.forget();
  sharing.clear();
  EXPECT_EQ(memory.taken(), 0u);
}

TEST_F(SnapshotTest, HoldsWhatTheOptionsAskFor) {
  runs(7, "shell");
  world.kernel.statistics.faults = 12;
  const int callocs = callocCount();
  EXPECT_EQ(PerfSnapshot::createPerformanceSnapshotWithOptions(0), nullptr);
  EXPECT_EQ(callocCount(), callocs);
  EXPECT_EQ(world.kernel.looks, 0);

  const auto vmOnly = PerfSnapshot::createPerformanceSnapshotWithOptions(kSnapshotVm);
  EXPECT_EQ(vmOnly->cpu_stats(), nullptr);
  EXPECT_EQ(vmOnly->vm_stats()->faults, 12u);
  const auto all = PerfSnapshot::createPerformanceSnapshotWithOptions(7);
  EXPECT_EQ(all->cpu_stats()->count, 1);
  EXPECT_NE(all->vm_stats(), nullptr);
  EXPECT_EQ(all->power_stats(), nullptr);
}

TEST_F(SnapshotTest, LeavesNoHoleForAProcessThatExitsBetweenListAndQuery) {
  runs(30, "first", 300);
  runs(10, "gone");
  runs(20, "last", 200);
  world.faults.failOnce(Op::processUsage, 2, std::errc::no_such_process);
  const cpu_statistics* cpu = capture();
  EXPECT_EQ(pids(*cpu), (std::vector<int32_t>{30, 20}));
  EXPECT_STREQ(cpu->tasks[1].name, "last");
  EXPECT_EQ(cpu->tasks[1].rusage.user_time, 200u);
  EXPECT_EQ(logged("QVActivationStats: ** Failed to get rusage info for pid 10 "
                   "error:No such process number:3 **"),
            1);

  // What the failed last process left behind is never counted, and shows that it was never filled.
  world.faults.failOnce(Op::processUsage, 3);
  cpu = capture();
  EXPECT_EQ(cpu->count, 2);
  EXPECT_STREQ(cpu->tasks[2].name, "^");
}

TEST_F(SnapshotTest, TakesTheFirstPidZeroOnlyAndKeepsNamelessAndLongNamedProcesses) {
  runs(5, std::nullopt, 50);
  runs(0, "kernel");
  runs(9, std::string(40, 'n'));
  runs(0, "kernel");
  runs(0, "kernel");
  const cpu_statistics* cpu = capture();
  EXPECT_EQ(pids(*cpu), (std::vector<int32_t>{5, 0, 9}));
  EXPECT_STREQ(cpu->tasks[0].name, "");
  EXPECT_EQ(cpu->tasks[0].rusage.user_time, 50u);
  EXPECT_EQ(logged("QVActivationStats: ** Process name not found for pid 5 error:No such process**"), 1);
  EXPECT_EQ(std::string(cpu->tasks[2].name), std::string(31, 'n'));
}

TEST_F(SnapshotTest, LosesOnlyTheFiguresThatFail) {
  runs(1, "init");
  world.faults.failOnce(Op::processListBytes);
  EXPECT_EQ(capture(), nullptr);
  EXPECT_NE(snapshot->vm_stats(), nullptr);
  EXPECT_EQ(logged("QVActivationStats: get_cpu_stats: Process count returned less than zero\n"), 1);

  world.faults.failOnce(Op::processList);
  world.faults.failOnce(Op::vmStatistics);
  EXPECT_EQ(capture(), nullptr);
  EXPECT_EQ(snapshot->vm_stats(), nullptr);
  EXPECT_EQ(logged("get_cpu_stats: Found no processes\n"), 1);
  EXPECT_EQ(logged("QVActivationStats: get_vm_stats: host_statistics64 failed to get vm stats\n"), 1);

  world.logs.clear();
  failCalloc(sizeof(int32_t));
  EXPECT_EQ(capture(), nullptr);
  EXPECT_EQ(logged("QVActivationStats: get_cpu_stats: Failed to allocate memory for pids\n"), 1);
  failCalloc(sizeof(task_statistics));
  EXPECT_EQ(capture(), nullptr);
  EXPECT_EQ(logged("QVActivationStats: get_cpu_stats: Failed to allocate memory for tasks\n"), 1);
  failCalloc(sizeof(platform::vm_statistics64));
  EXPECT_NE(capture(), nullptr);
  EXPECT_EQ(snapshot->vm_stats(), nullptr);
  EXPECT_EQ(world.logs.lines.size(), 2u) << "the bare record's failure is silent\n" << world.logs.dump();
}

TEST(PerfStatsProcess, IsIdentifiedByPidAndNameSaveForNegativePids) {
  const uint64_t hash = stringHash("a");
  EXPECT_EQ(PerfStatsProcess::processWithPID(5, "a").uniqueIdentifier(), hash << 32 | 5);
  EXPECT_EQ(PerfStatsProcess(-1, "a").uniqueIdentifier(), ~uint64_t{0});
  EXPECT_EQ(PerfStatsProcess(-2, "b").uniqueIdentifier(), 0xFFFF'FFFF'FFFF'FFFEu);
  EXPECT_EQ(PerfStatsProcess::processWithPID(5, "a\xFF").processName(), "a\xEF\xBF\xBD");
}

}  // namespace
}  // namespace quorveld
