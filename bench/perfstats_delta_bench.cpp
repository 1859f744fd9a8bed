// delta_cpu_statistics of 1,000 + 1,000 processes beside the straightforward way: std::sort of the whole
// 272-byte entries, before and after merging.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <vector>

#include "perfstats/cpu_statistics_delta.h"
#include "tests/sim/sim_platform.h"

namespace quorveld {
namespace {

constexpr int32_t kProcesses = 1000;
constexpr int32_t kBornAndDead = 20;

enum Order : int64_t { byPid, listOrder, shuffled };
constexpr const char* kOrderNames[] = {"by pid", "list order", "shuffled"};

CpuStatisticsPtr straightforwardDelta(cpu_statistics* start, cpu_statistics* end) {
  const auto byPidLess = [](const task_statistics& a, const task_statistics& b) { return a.pid < b.pid; };
  std::sort(start->tasks, start->tasks + start->count, byPidLess);
  std::sort(end->tasks, end->tasks + end->count, byPidLess);
  CpuStatisticsPtr output(static_cast<cpu_statistics*>(std::calloc(1, sizeof(cpu_statistics))));
  output->tasks = static_cast<task_statistics*>(
      std::calloc(static_cast<size_t>(start->count + end->count), sizeof(task_statistics)));
  int32_t i = 0, j = 0, k = 0;
  while (i < start->count || j < end->count) {
    task_statistics& out = output->tasks[k++];
    if (i == start->count || (j < end->count && end->tasks[j].pid < start->tasks[i].pid)) {
      out = end->tasks[j++];
      out.state = kTaskNew;
    } else if (j == end->count || end->tasks[j].pid > start->tasks[i].pid) {
      out.pid = start->tasks[i].pid;
      std::memcpy(out.name, start->tasks[i++].name, sizeof out.name);
      out.state = kTaskDead;
    } else {
      out.pid = end->tasks[j].pid;
      std::memcpy(out.name, end->tasks[j].name, sizeof out.name);
      delta_task_rusage(start->tasks[i++].rusage, end->tasks[j].rusage, &out.rusage, out.pid);
      ++j;
    }
  }
  output->count = k;
  std::sort(output->tasks, output->tasks + k, [](const task_statistics& a, const task_statistics& b) {
    return static_cast<int32_t>(static_cast<uint32_t>(b.rusage.user_time) -
                                static_cast<uint32_t>(a.rusage.user_time)) < 0;
  });
  return output;
}

/// Two looks at the same processes but for a few that die and are born in between. `busyPercent` of them
/// spend CPU time.
struct Looks {
  Looks(Order order, unsigned busyPercent) : random(42) {
    for (int32_t i = 0; i < kProcesses + kBornAndDead; ++i) {
      task_statistics task{};
      task.pid = 300 + i * 7;
      std::snprintf(task.name, sizeof task.name, "process-%d", i);
      task.rusage.user_time = random() % 1'000'000;
      if (i >= kBornAndDead) start.push_back(task);
      if (random() % 100 < busyPercent) task.rusage.user_time += random() % 50'000'000;
      if (i < kProcesses) end.push_back(task);
    }
    arrange(start, order);
    arrange(end, order);
  }

  /// List order is the order of birth: pids that started over once stand before the small ones.
  void arrange(std::vector<task_statistics>& tasks, Order order) {
    if (order == listOrder) std::rotate(tasks.begin(), tasks.end() - kProcesses / 3, tasks.end());
    if (order == shuffled) std::shuffle(tasks.begin(), tasks.end(), random);
  }

  std::mt19937 random;
  std::vector<task_statistics> start, end;
};

template <CpuStatisticsPtr (*kDelta)(cpu_statistics*, cpu_statistics*)>
void BM_Delta(benchmark::State& state) {
  const sim::SimPlatform world;
  const auto order = static_cast<Order>(state.range(0));
  const Looks looks(order, static_cast<unsigned>(state.range(1)));
  std::vector<task_statistics> start(looks.start), end(looks.end);
  for (auto _ : state) {
    start = looks.start;  // each delta sorts its arguments
    end = looks.end;
    cpu_statistics startRecord{static_cast<int32_t>(start.size()), start.data()};
    cpu_statistics endRecord{static_cast<int32_t>(end.size()), end.data()};
    const auto began = std::chrono::steady_clock::now();
    CpuStatisticsPtr delta = kDelta(&startRecord, &endRecord);
    benchmark::DoNotOptimize(delta->tasks);
    delta.reset();
    const std::chrono::duration<double> spent = std::chrono::steady_clock::now() - began;
    state.SetIterationTime(spent.count());
  }
  state.SetLabel(kOrderNames[order]);
}
BENCHMARK(BM_Delta<delta_cpu_statistics>)
    ->ArgNames({"order", "busy%"})
    ->ArgsProduct({{byPid, listOrder, shuffled}, {20, 100}})
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Delta<straightforwardDelta>)
    ->ArgNames({"order", "busy%"})
    ->ArgsProduct({{byPid, listOrder, shuffled}, {20, 100}})
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace quorveld

BENCHMARK_MAIN();
