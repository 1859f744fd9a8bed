// A snapshot of every process, by each of the daemon's sources and by libproc2 asked for the same nine items.
//
// BM_Look/<way>/<processes>/<threads of each>: forked sleepers, beside what the machine runs anyway; "seen"
// is how many processes there were in all. The daemon's are whole snapshots, arrays filled and freed;
// "allocations" and "bytes" are what one took from the heap.

#include <benchmark/benchmark.h>
#include <libproc2/pids.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include "bench/allocations.h"
#include <cstdint>
#include <cstdlib>
#include <iterator>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "perfstats/perf_snapshot.h"
#include "platform/linux/processes/process_table.h"
#include "tests/sim/sim_platform.h"

namespace {

using namespace quorveld;
using namespace quorveld::linux_platform;

/// That many sleeping processes of so many threads each; killed and reaped on destruction.
class Sleepers {
 public:
  Sleepers(int processes, int threads) {
    int ready[2];
    if (pipe(ready) != 0) std::abort();
    for (int i = 0; i < processes; ++i) {
      const pid_t pid = fork();
      if (pid < 0) std::abort();
      if (pid == 0) sleepWith(threads, ready[1]);
      pids_.push_back(pid);
    }
    close(ready[1]);
    char byte = 0;
    for (int i = 0; i < processes; ++i) {
      if (read(ready[0], &byte, 1) != 1) std::abort();
    }
    close(ready[0]);
    usleep(200'000);
  }
  Sleepers(const Sleepers&) = delete;
  Sleepers& operator=(const Sleepers&) = delete;
  ~Sleepers() {
    for (const pid_t pid : pids_) kill(pid, SIGKILL);
    for (const pid_t pid : pids_) waitpid(pid, nullptr, 0);
  }

 private:
  [[noreturn]] static void sleepWith(int threads, int ready) {
    for (int i = 1; i < threads; ++i) {
      std::thread([] {
        for (;;) pause();
      }).detach();
    }
    if (write(ready, "", 1) != 1) _exit(1);
    for (;;) pause();
  }

  std::vector<pid_t> pids_;
};

/// The sleepers that the benchmark at hand wants; those of the one before are ended first.
void wantSleepers(int processes, int threads) {
  static std::unique_ptr<Sleepers> sleepers;
  static std::pair<int, int> have;
  if (sleepers && have == std::pair(processes, threads)) return;
  sleepers.reset();
  if (processes == 0) return;
  sleepers = std::make_unique<Sleepers>(processes, threads);
  have = {processes, threads};
}

void takeSnapshots(benchmark::State& state, sim::SimPlatform& world, std::unique_ptr<ProcessSource> source,
                   const std::string& why) {
  if (!source) {
    state.SkipWithError(why.c_str());
    return;
  }
  LinuxProcessTables tables(std::move(source));
  const platform::Platform platform{
      world.analytics, world.clock,         world.device,       world.files,
      world.kernel,    world.ipc,           world.kernel,       world.kernel,
      world.logs,      world.notifications, world.powerLog,     world.preferences,
      tables,          world.queues,        world.renderServer, world.traceLibraries};
  platform::install(&platform);
  size_t seen = 0;
  const auto takeOne = [&] {
    const auto snapshot = PerfSnapshot::createPerformanceSnapshotWithOptions(kSnapshotCpu);
    seen = static_cast<size_t>(snapshot->cpu_stats()->count);
  };
  takeOne();  // sizes the arrays
  const Allocations before = allocationsSoFar();
  for (auto _ : state) takeOne();
  using benchmark::Counter;
  const Allocations after = allocationsSoFar();
  state.counters["allocations"] =
      Counter(static_cast<double>(after.count - before.count), Counter::kAvgIterations);
  state.counters["bytes"] = Counter(static_cast<double>(after.bytes - before.bytes), Counter::kAvgIterations);
  state.counters["seen"] = static_cast<double>(seen);
}

void libproc2(benchmark::State& state) {
  pids_item items[] = {PIDS_ID_TGID, PIDS_CMD,           PIDS_TICS_USER,      PIDS_TICS_SYSTEM, PIDS_FLT_MAJ,
                       PIDS_VM_RSS,  PIDS_IO_READ_BYTES, PIDS_IO_WRITE_BYTES, PIDS_TICS_BEGAN};
  pids_info* info = nullptr;
  if (procps_pids_new(&info, items, std::size(items)) < 0) {
    state.SkipWithError("procps_pids_new failed");
    return;
  }
  int seen = 0;
  for (auto _ : state) {
    const pids_fetch* fetched = procps_pids_reap(info, PIDS_FETCH_TASKS_ONLY);
    if (fetched) seen = fetched->counts->total;
    benchmark::DoNotOptimize(fetched);
  }
  state.counters["seen"] = seen;
  procps_pids_unref(&info);
}

void BM_Look(benchmark::State& state, std::string_view way) {
  wantSleepers(static_cast<int>(state.range(0)), static_cast<int>(state.range(1)));
  sim::SimPlatform world;  // takes the log's lines
  std::string why;
  if (way == "libproc2") {
    libproc2(state);
  } else if (way == "procfs") {
    takeSnapshots(state, world, openProcfsSource(why), why);
  } else {
    auto source = openBpfSource(way == "bpf_walk" ? BpfPass::taskWalk : BpfPass::taskIterator, why);
    takeSnapshots(state, world, std::move(source), why);
  }
}

void BM_LoadBpf(benchmark::State& state, BpfPass pass) {
  const sim::SimPlatform world;  // takes the log's lines
  std::string why;
  for (auto _ : state) benchmark::DoNotOptimize(openBpfSource(pass, why));
  if (!why.empty()) state.SkipWithError(why.c_str());
}

}  // namespace

int main(int argc, char** argv) {
  // All ways for one crowd before the next crowd, so that it need not be made anew.
  for (const auto& [processes, threads] : {std::pair{100, 1}, {1000, 1}, {4000, 1}, {1000, 8}}) {
    for (const char* way : {"bpf_walk", "bpf_iterator", "procfs", "libproc2"}) {
      const std::string name = std::string("BM_Look/") + way;
      benchmark::RegisterBenchmark(name.c_str(), BM_Look, std::string_view(way))
          ->Args({processes, threads})
          ->Unit(benchmark::kMillisecond)
          ->UseRealTime();
    }
  }
  for (const auto& [name, pass] :
       {std::pair{"BM_LoadBpf/walk", BpfPass::taskWalk}, {"BM_LoadBpf/iterator", BpfPass::taskIterator}}) {
    benchmark::RegisterBenchmark(name, BM_LoadBpf, pass)->Unit(benchmark::kMillisecond)->UseRealTime();
  }
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  wantSleepers(0, 0);
}
