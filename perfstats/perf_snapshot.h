#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <type_traits>

#include "platform/process_table.h"
#include "platform/vm_statistics.h"

namespace quorveld {

/// Where a process stands between two snapshots; what `task_statistics::state` and the reports carry.
enum TaskState : uint8_t {
  kTaskPresent = 0,  ///< in both snapshots
  kTaskNew = 1,      ///< in the end snapshot only
  kTaskDead = 2,     ///< in the start snapshot only
};

/// One process of a snapshot or of a delta; copied and moved whole.
struct task_statistics {
  int32_t pid;
  char name[32];  ///< NUL-terminated
  uint8_t state;  ///< a TaskState in a delta; 0 in a snapshot
  alignas(8) platform::rusage_info_v3 rusage;
};
static_assert(sizeof(task_statistics) == 272 && alignof(task_statistics) == 8);
static_assert(offsetof(task_statistics, pid) == 0 && offsetof(task_statistics, name) == 4);
static_assert(offsetof(task_statistics, state) == 36 && offsetof(task_statistics, rusage) == 40);
static_assert(std::is_trivially_copyable_v<task_statistics>);

/// An array of processes with its length.
struct cpu_statistics {
  int32_t count;           ///< entries that hold a process; more may be allocated
  task_statistics* tasks;  ///< calloc'ed
};

struct power_statistics {};

/// Frees with the C allocator: an array before the record that holds it.
struct StatisticsDeleter {
  void operator()(void* memory) const { std::free(memory); }
  void operator()(cpu_statistics* statistics) const {
    std::free(statistics->tasks);
    std::free(statistics);
  }
};
using CpuStatisticsPtr = std::unique_ptr<cpu_statistics, StatisticsDeleter>;
using VmStatisticsPtr = std::unique_ptr<platform::vm_statistics64, StatisticsDeleter>;

/// The kinds of statistics that a snapshot can hold and a report can show.
inline constexpr uint32_t kSnapshotCpu = 1u << 0;
inline constexpr uint32_t kSnapshotVm = 1u << 1;

class PackedStatistics;
class SharedLooks;

/// What the whole system had spent at one moment: the usage of every process, and the host's VM counters.
///
/// Taken when an activation begins and when it ends, on whatever queue asks, and then one queue's at a time.
/// A figure that the kernel refused is null. Nothing changes but the order of `cpu_stats`' entries, which a
/// delta and packing sort by pid.
class PerfSnapshot {
 public:
  PerfSnapshot();
  ~PerfSnapshot();
  PerfSnapshot(const PerfSnapshot&) = delete;
  PerfSnapshot& operator=(const PerfSnapshot&) = delete;

  /// Looks at what `options` asks for, in kSnapshot… bits. Null for no bits at all; otherwise a snapshot,
  /// even when every figure in it failed (each failure is logged).
  static std::unique_ptr<PerfSnapshot> createPerformanceSnapshotWithOptions(uint32_t options);

  /// Unpacked, if need be; null without memory for that.
  cpu_statistics* cpu_stats();
  void setCpu_stats(CpuStatisticsPtr statistics) { cpuStats_ = std::move(statistics); }
  /// Keeps the processes as their difference to other looks' until they are asked for. False when `forUid`
  /// has no memory left for that: they are let go, as if the kernel had refused them.
  [[nodiscard]] bool pack(SharedLooks& looks, uint32_t forUid);
  platform::vm_statistics64* vm_stats() const { return vmStats_.get(); }
  void setVm_stats(VmStatisticsPtr statistics) { vmStats_ = std::move(statistics); }
  /// Always null: nothing fills it.
  power_statistics* power_stats() const { return powerStats_; }
  void setPower_stats(power_statistics* statistics) { powerStats_ = statistics; }

 private:
  CpuStatisticsPtr cpuStats_;
  std::unique_ptr<PackedStatistics> packed_;  ///< while `cpuStats_` is null: what it was
  VmStatisticsPtr vmStats_;
  power_statistics* powerStats_ = nullptr;
};

/// Fills a zeroed record with one entry per process, in the kernel's order; its `tasks` are the caller's to
/// free. False, and a log line, when there is no list of processes or no memory for it; a process that is
/// gone before its usage is read leaves no entry.
[[nodiscard]] bool get_cpu_stats(cpu_statistics* statistics);

/// Fills the record with the host's VM counters; false, and a log line, when the kernel doesn't tell.
[[nodiscard]] bool get_vm_stats(platform::vm_statistics64* statistics);

}  // namespace quorveld
