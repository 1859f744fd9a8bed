#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kelvane {

/// What the scheduler has counted for a thread in its whole life.
struct ScheduleFigures {
  uint64_t ranNs = 0;
  uint64_t waitedNs = 0;  // ready to run, while others were
};
/// /proc/PID/task/TID/schedstat; nothing if the text is none.
std::optional<ScheduleFigures> parseSchedstat(std::string_view text);

/// The path of the control group that a line of /proc/PID/cgroup has for `controller`; empty: the unified
/// hierarchy. Nothing if there is no such line.
std::optional<std::string> parseGroupPath(std::string_view text, std::string_view controller);

/// The number behind `key` and a blank, at the start of a line.
std::optional<uint64_t> parseGroupNumber(std::string_view text, std::string_view key);

/// The limits of a thread's control group, or of one above it, that may hold it back. A group is named by its
/// path in its hierarchy.
struct GroupLimits {
  std::string frozen;  // the process's group, if it is frozen now; else empty

  /// The limit of CPU time that has held back its group for longest.
  struct Quota {
    std::string group;
    double cpus = 0;
    uint64_t throttledNs =
        0;  // in the group's life; of all its CPUs together where the hierarchy is an old one
    std::vector<pid_t> members;  // processes of the group itself
  };
  std::optional<Quota> quota;

  /// The limit of memory that its group has come up against most often.
  struct Memory {
    std::string group;
    uint64_t limitBytes = 0;
    uint64_t hits = 0;      // in the group's life
    uint64_t refaults = 0;  // pages that were wanted back soon after they had been taken, likewise
  };
  std::optional<Memory> memory;

  std::string diskLimit;  // the group whose I/O is limited; empty: none
};

/// What holds a thread back, or not, from outside of it.
struct Surroundings {
  pid_t thread = 0;
  std::optional<ScheduleFigures> schedule;
  uint64_t majorFaults = 0;  // in the thread's life, as are the next two
  uint64_t userTicks = 0;
  uint64_t systemTicks = 0;
  GroupLimits limits;
};

/// What can't be read is missing. Needs no lock of the process.
Surroundings readSurroundings(pid_t pid, pid_t thread);

}  // namespace kelvane
