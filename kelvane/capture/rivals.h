#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kelvane {

/// CPU time that a process had by now, or a thread of the hung one.
struct CpuUse {
  pid_t id = 0;
  std::string name;
  bool isOwn = false;  // a thread of the hung process
  int cpu = -1;        // that it ran on last; of a process, its main thread
  uint64_t ms = 0;
};

/// Processes, or threads of the hung one, that had the hung thread's CPU while it was ready to run there. All
/// of one name count as one.
struct Rivals {
  std::string name;
  bool areOwn = false;
  size_t count = 0;
  pid_t busiest = 0;
  uint64_t ranMs = 0;
  uint64_t watchedMs = 0;
};

/// Those of one name that ran most between two looks, on the CPU of `thread`; nothing if nobody had much of
/// it.
std::optional<Rivals> rivalsOf(pid_t thread, const std::vector<CpuUse>& before,
                               const std::vector<CpuUse>& after, uint64_t watchedMs);

/// Watches all processes for that long. Without a recording this is the only way to learn who has the CPU: a
/// list of those that are ready to run has everybody in it who is not.
std::optional<Rivals> watchRivals(pid_t process, pid_t thread, std::chrono::milliseconds time);

}  // namespace kelvane
