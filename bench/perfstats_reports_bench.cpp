// The three reports of an activation among 1,000 processes: time, and what is allocated on the way. The log
// and the power-logging service throw away what they get.
#include <benchmark/benchmark.h>

#include "bench/allocations.h"
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "perfstats/activation_report.h"
#include "perfstats/report_state.h"
#include "platform/log.h"
#include "tests/sim/sim_platform.h"

namespace quorveld {
namespace {

class NoLog final : public platform::Logs, public platform::LogHandle {
 public:
  platform::LogHandle& handle(std::string_view, std::string_view) override { return *this; }
  uint32_t setSender(uint32_t) override { return 0; }
  void system(std::string_view text) override { benchmark::DoNotOptimize(text.data()); }
  bool enabled(platform::LogLevel level) const override {
    return debug || level != platform::LogLevel::debug;
  }
  void write(platform::LogLevel, std::string_view text, const platform::LogEvent&) override {
    benchmark::DoNotOptimize(text.data());
    largestLine = std::max(largestLine, text.size());
  }
  bool signpostsEnabled() const override { return false; }
  void signpostIntervalBegin(uint64_t, std::string_view) override {}
  void signpostIntervalEnd(uint64_t, std::string_view) override {}

  bool debug = false;
  size_t largestLine = 0;
};

class NoPowerLog final : public platform::PowerLog {
 public:
  void leaveOut(uint64_t, std::string_view) override {}
  void handOver(const platform::ActivationEvent& event) override { benchmark::DoNotOptimize(&event); }
};

constexpr int32_t kProcesses = 1000;
constexpr int32_t kFirstPid = 300;
constexpr int32_t kLastPid = kFirstPid + kProcesses - 1;

/// Two looks at 1,000 processes, of which every twentieth spends more than the power log adds up.
void fill(PerfSnapshot& snapshot, bool atEnd) {
  CpuStatisticsPtr cpu(static_cast<cpu_statistics*>(std::calloc(1, sizeof(cpu_statistics))));
  cpu->count = kProcesses;
  cpu->tasks = static_cast<task_statistics*>(std::calloc(kProcesses, sizeof(task_statistics)));
  for (int32_t i = 0; i < cpu->count; ++i) {
    task_statistics& task = cpu->tasks[i];
    task.pid = kFirstPid + i;
    std::snprintf(task.name, sizeof task.name, "process-%d", i);
    if (!atEnd) continue;
    task.rusage.user_time = static_cast<uint64_t>(i % 20 == 0 ? 2'400'000 + i : i * 997 % 100'000);
    task.rusage.cpu_time_qos_legacy = task.rusage.user_time;
    task.rusage.diskio_bytesread = static_cast<uint64_t>(i) * 4096;
  }
  snapshot.setCpu_stats(std::move(cpu));
  snapshot.setVm_stats(VmStatisticsPtr(
      static_cast<platform::vm_statistics64*>(std::calloc(1, sizeof(platform::vm_statistics64)))));
}

struct Variant {
  uint8_t types = kSnapshotCpu | kSnapshotVm;
  bool debugLines = false;
  bool namesAll = false;  ///< as the first report of a day does
};

void report(benchmark::State& state, void (*output)(const ActivationReport&), Variant variant = {}) {
  sim::SimPlatform world;
  NoLog log;
  log.debug = variant.debugLines;
  NoPowerLog powerLog;
  const platform::Platform platform{world.analytics,     world.clock,  world.device,
                                    world.files,         world.kernel, world.ipc,
                                    world.kernel,        world.kernel, log,
                                    world.notifications, powerLog,     world.preferences,
                                    world.kernel,        world.queues, world.renderServer,
                                    world.traceLibraries};
  platform::install(&platform);
  PerfSnapshot start, end;
  fill(start, false);
  fill(end, true);
  uint64_t flags = 0;
  const ActivationReport activation{.snapshotTypesToRecord = variant.types,
                                    .startSnapshot = &start,
                                    .endSnapshot = &end,
                                    .pid = kLastPid,
                                    .processName = std::nullopt,
                                    .bundleID = "com.example.app",
                                    .appActivationFlags = flags};
  output(activation);  // names every process to the service
  const Allocations before = allocationsSoFar();
  for (auto _ : state) {
    if (variant.namesAll) resetLargestTrackedPid();
    output(activation);
  }
  using benchmark::Counter;
  const Allocations after = allocationsSoFar();
  state.counters["allocations"] =
      Counter(static_cast<double>(after.count - before.count), Counter::kAvgIterations);
  state.counters["bytes"] = Counter(static_cast<double>(after.bytes - before.bytes), Counter::kAvgIterations);
  state.counters["longest_line"] = static_cast<double>(log.largestLine);
}

// Processes only: the tables of pages would stand between the benchmark's own lines.
void BM_Console(benchmark::State& state) {
  report(state, logAppActivationDataToConsole, {.types = kSnapshotCpu});
}
void BM_JSON(benchmark::State& state) {
  report(state, logAppActivationDataAsJSON);
}
void BM_PowerLog(benchmark::State& state) {
  report(state, logAppActivationDataToPelmar);
}
void BM_PowerLogThatNamesAll(benchmark::State& state) {
  report(state, logAppActivationDataToPelmar, {.namesAll = true});
}
void BM_PowerLogWithDebugLines(benchmark::State& state) {
  report(state, logAppActivationDataToPelmar, {.debugLines = true});
}
BENCHMARK(BM_Console)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_JSON)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_PowerLog)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_PowerLogThatNamesAll)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_PowerLogWithDebugLines)->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace quorveld

BENCHMARK_MAIN();
