#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

namespace quorveld::platform {

/// A process's resource usage, version 3 of the record. Times in ticks, sizes and disk I/O in bytes, page-ins
/// in pages. What the kernel doesn't count is 0.
struct rusage_info_v3 {
  uint8_t uuid[16];
  uint64_t user_time;
  uint64_t system_time;
  uint64_t pkg_idle_wkups;
  uint64_t interrupt_wkups;
  uint64_t pageins;
  uint64_t wired_size;
  uint64_t resident_size;
  uint64_t phys_footprint;
  uint64_t proc_start_abstime;
  uint64_t proc_exit_abstime;
  uint64_t child_user_time;
  uint64_t child_system_time;
  uint64_t child_pkg_idle_wkups;
  uint64_t child_interrupt_wkups;
  uint64_t child_pageins;
  uint64_t child_elapsed_abstime;
  uint64_t diskio_bytesread;
  uint64_t diskio_byteswritten;
  uint64_t cpu_time_qos_default;
  uint64_t cpu_time_qos_maintenance;
  uint64_t cpu_time_qos_background;
  uint64_t cpu_time_qos_utility;
  uint64_t cpu_time_qos_legacy;
  uint64_t cpu_time_qos_user_initiated;
  uint64_t cpu_time_qos_user_interactive;
  uint64_t billed_system_time;
  uint64_t serviced_system_time;
};
static_assert(sizeof(rusage_info_v3) == 232 && alignof(rusage_info_v3) == 8);
static_assert(offsetof(rusage_info_v3, user_time) == 16 && offsetof(rusage_info_v3, phys_footprint) == 72);
static_assert(offsetof(rusage_info_v3, diskio_bytesread) == 144);
static_assert(offsetof(rusage_info_v3, cpu_time_qos_default) == 160);
static_assert(offsetof(rusage_info_v3, serviced_system_time) == 224);

/// One look at every process. What it answers may be of the moment of the look or of the question, whichever
/// is cheaper.
class ProcessTable {
 public:
  virtual ~ProcessTable() = default;

  /// Size of the list of all process ids, in bytes (4 a process; may exceed what `list` then fills); below 4
  /// on failure.
  virtual int listBytes() = 0;

  /// Fills `pids` with at most `sizeBytes` / 4 ids, the rest of the buffer untouched; the bytes filled, below
  /// 1 on failure.
  virtual int list(int32_t* pids, int sizeBytes) = 0;

  /// Fills `usage`; 0, or the errno (ESRCH: the process has gone). Cheapest when asked in the order of
  /// `list`.
  virtual int usage(int32_t pid, rusage_info_v3* usage) = 0;

  /// Fills `buffer` with the process's name, NUL-terminated and cut to fit; its length, or 0 with errno set.
  virtual int name(int32_t pid, char* buffer, size_t sizeBytes) = 0;
};

/// From any thread; at most one look at a time on each thread.
class ProcessTables {
 public:
  virtual ~ProcessTables() = default;

  /// Begins, beside its caller, what would make the first look a slow one: takes tens of milliseconds, once,
  /// and some memory for good. A look meanwhile waits for it; without it the first look does the same.
  virtual void prepare() = 0;

  /// Gives memory back that earlier looks have left unused: the next one takes it anew, what a look under way
  /// uses stays. From any thread, on which it takes milliseconds.
  virtual void rest() = 0;

  /// Never null; a look that failed answers `listBytes` with 0.
  [[nodiscard]] virtual std::unique_ptr<ProcessTable> look() = 0;
};

}  // namespace quorveld::platform
