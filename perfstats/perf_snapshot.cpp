#include "perfstats/perf_snapshot.h"

#include <cerrno>
#include <cstring>
#include <new>
#include <utility>

#include "base/log.h"
#include "perfstats/packed_statistics.h"
#include "platform/platform.h"

namespace quorveld {

namespace {

template <typename T>
using CallocArray = std::unique_ptr<T[], StatisticsDeleter>;

template <typename T>
T* callocArray(size_t count) {
  return static_cast<T*>(std::calloc(count, sizeof(T)));
}

/// Fills `task` with what the kernel says of `pid`; false, and a log line, when it is gone.
bool captureTask(platform::ProcessTable& processes, int32_t pid, task_statistics& task) {
  if (const int error = processes.usage(pid, &task.rusage); error != 0) {
    quorvelLog().standard("QVActivationStats: ** Failed to get rusage info for pid %d error:%s number:%d **",
                          pid, std::strerror(error), error);
    return false;
  }
  task.pid = pid;
  if (processes.name(pid, task.name, sizeof task.name) == 0) {
    quorvelLog().standard("QVActivationStats: ** Process name not found for pid %d error:%s**", pid,
                          std::strerror(errno));
    task.name[0] = '\0';
  }
  return true;
}

/// Fills `tasks`, which has room for all of `pids`, without holes; how many it filled.
int32_t captureTasks(platform::ProcessTable& processes, const int32_t* pids, size_t capacity,
                     task_statistics* tasks) {
  int32_t filled = 0;
  bool pidZeroSeen = false;
  for (size_t slot = 0; slot < capacity; ++slot) {
    tasks[filled].name[0] = '^';  // shows an entry that was never filled
    const int32_t pid = pids[slot];
    // The first pid 0 is the kernel's own; the rest is the unused end of the list.
    if (pid == 0 && std::exchange(pidZeroSeen, true)) continue;
    if (captureTask(processes, pid, tasks[filled])) ++filled;
  }
  return filled;
}

}  // namespace

bool get_cpu_stats(cpu_statistics* statistics) {
  const Log log = quorvelLog();
  const std::unique_ptr<platform::ProcessTable> processes = platform::current().processTables.look();
  const int listBytes = processes->listBytes();
  if (listBytes < static_cast<int>(sizeof(int32_t))) {
    log.standard("QVActivationStats: get_cpu_stats: Process count returned less than zero\n");
    return false;
  }
  const size_t capacity = static_cast<size_t>(listBytes) / sizeof(int32_t);
  const CallocArray<int32_t> pids(callocArray<int32_t>(capacity));
  if (!pids) {
    log.standard("QVActivationStats: get_cpu_stats: Failed to allocate memory for pids\n");
    return false;
  }
  if (processes->list(pids.get(), static_cast<int>(capacity * sizeof(int32_t))) < 1) {
    log.standard("get_cpu_stats: Found no processes\n");
    return false;
  }
  statistics->tasks = callocArray<task_statistics>(capacity);
  if (!statistics->tasks) {
    log.standard("QVActivationStats: get_cpu_stats: Failed to allocate memory for tasks\n");
    return false;
  }
  statistics->count = captureTasks(*processes, pids.get(), capacity, statistics->tasks);
  return true;
}

bool get_vm_stats(platform::vm_statistics64* statistics) {
  if (platform::current().hostStatistics.vmStatistics(statistics)) return true;
  quorvelLog().standard("QVActivationStats: get_vm_stats: host_statistics64 failed to get vm stats\n");
  return false;
}

std::unique_ptr<PerfSnapshot> PerfSnapshot::createPerformanceSnapshotWithOptions(uint32_t options) {
  if (options == 0) return nullptr;
  std::unique_ptr<PerfSnapshot> snapshot(new (std::nothrow) PerfSnapshot);
  if (!snapshot) {
    quorvelLog().standard("QVActivationStats: get_performance_snapshot: Failed to allocate memory\n");
    return nullptr;
  }
  if (options & kSnapshotCpu) {
    CpuStatisticsPtr statistics(callocArray<cpu_statistics>(1));
    if (statistics && get_cpu_stats(statistics.get())) snapshot->setCpu_stats(std::move(statistics));
  }
  if (options & kSnapshotVm) {
    VmStatisticsPtr statistics(callocArray<platform::vm_statistics64>(1));
    if (statistics && get_vm_stats(statistics.get())) snapshot->setVm_stats(std::move(statistics));
  }
  return snapshot;
}

PerfSnapshot::PerfSnapshot() = default;
PerfSnapshot::~PerfSnapshot() = default;

cpu_statistics* PerfSnapshot::cpu_stats() {
  if (packed_) {
    cpuStats_ = packed_->unpacked();
    packed_.reset();
  }
  return cpuStats_.get();
}

bool PerfSnapshot::pack(SharedLooks& looks, uint32_t forUid) {
  if (!cpuStats_) return true;
  packed_ = looks.pack(*cpuStats_, forUid);
  cpuStats_.reset();
  return packed_ != nullptr;
}

}  // namespace quorveld
