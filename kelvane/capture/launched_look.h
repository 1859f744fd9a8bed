#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

#include "kelvane/base/proc_text.h"
#include "kelvane/base/process_family.h"
#include "kelvane/capture/surroundings.h"

namespace kelvane {

/// What is there of a launched process when the report of its launch is made.
struct LaunchedLook {
  pid_t pid = 0;
  std::string comm;         // empty: it has gone
  char state = 'X';         // a letter of proc(5)
  uint64_t lookedAtNs = 0;  // CLOCK_MONOTONIC
  uint64_t madeNs = 0;      // when the process was made, to ten milliseconds
  /// CPU time of all its threads, and of its descendants that have ended, in their lives.
  uint64_t ranNs = 0;
  uint64_t childrenRanNs = 0;
  std::vector<pid_t> threads;
  std::vector<Descendant> descendants;  // that the launch had; kMaxDescendants at most
  Surroundings around;                  // of its first thread

  bool isThere() const { return !comm.empty(); }
};

/// A process that was made after `endNs`, the launch's end, has got the number from the launched one, which
/// has gone. Reads no memory of the process, and no file that takes a lock of it.
LaunchedLook lookAtLaunched(pid_t pid, uint64_t endNs);

}  // namespace kelvane
