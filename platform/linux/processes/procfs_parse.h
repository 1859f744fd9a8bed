#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace quorveld::linux_platform {

/// What is used of proc(5) `stat`, of a process or of one thread. Times in clock ticks.
struct ProcfsStat {
  std::string_view comm;  ///< raw; points into the text
  char state;             ///< 'R' while it is on a CPU or waits for one
  uint64_t flags;         ///< the kernel's PF_ bits
  uint64_t majorFaults;
  uint64_t childMajorFaults;
  uint64_t userTicks;
  uint64_t systemTicks;
  uint64_t childUserTicks;
  uint64_t childSystemTicks;
  int nice;
  uint64_t threadCount;
  uint64_t startTicks;
  unsigned policy;

  bool isKernelThread() const { return flags & 0x00200000; }  // PF_KTHREAD
  bool isWorkqueueWorker() const { return flags & 0x20; }     // PF_WQ_WORKER
};

/// Nothing when a field up to the scheduling policy is missing or is no number.
std::optional<ProcfsStat> parseStat(std::string_view text);

/// The process's name, at most 15 bytes, as prctl(2) and the kernel keep it.
///
/// proc(5) gives kernel threads a longer name and appends to a workqueue's worker what it works on at this
/// moment; without that the name stays the same from look to look.
std::string_view commOf(const ProcfsStat& stat);

/// Nanoseconds that a thread has run, from its `schedstat`, or where the kernel doesn't count there from its
/// `sched`; 0 when neither says so.
uint64_t parseSchedstat(std::string_view text);
uint64_t parseSched(std::string_view text);

/// What is used of proc(5) `status`, in kB; a line that is missing (a kernel thread has none) reads as 0.
struct ProcfsStatus {
  uint64_t residentKb;
  uint64_t anonymousKb;
  uint64_t swappedKb;
  uint64_t lockedKb;
  uint64_t hugeKb;
  bool hasMemory;  ///< false of a kernel thread, and of a thread that has ended
};
ProcfsStatus parseStatus(std::string_view text);

/// What is used of proc(5) `io`, in bytes; a missing line reads as 0.
struct ProcfsIo {
  uint64_t readBytes;
  uint64_t writeBytes;
};
ProcfsIo parseIo(std::string_view text);

/// Nanoseconds by which a clock of this time namespace is ahead of the kernel's own, from
/// /proc/self/timens_offsets (time_namespaces(7)); 0 for a clock that has no line there.
int64_t parseClockOffset(std::string_view text, std::string_view clock);

/// The decimal number that `text` starts with after blanks; 0 when there is none or it exceeds 64 bits.
uint64_t leadingNumber(std::string_view text);

}  // namespace quorveld::linux_platform
