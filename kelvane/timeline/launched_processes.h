#pragma once

#include <sys/types.h>

#include <cstdint>
#include <span>
#include <unordered_map>
#include <vector>

#include "kelvane/base/process_family.h"
#include "kelvane/recording/recording.h"

namespace kelvane {

/// A process that was launched, or that one of these made.
struct LaunchedProcess {
  pid_t pid = 0;
  pid_t parent = 0;  // of the launch; 0: it is the launched one
  /// When it was made, executed its programs and ended; 0 and none where that is not recorded.
  uint64_t madeNs = 0;
  std::vector<uint64_t> executedNs;
  uint64_t endedNs = 0;          // the last of its threads that are known
  std::vector<int32_t> threads;  // its first one first
  uint64_t runningNs = 0;        // of all its threads, within the window
};

/// Who was launched.
struct LaunchedProcesses {
  struct Making {
    uint64_t atNs = 0;
    int32_t by = 0;  // a thread
  };

  std::vector<LaunchedProcess> all;            // as they were made, the launched one first
  std::unordered_map<int32_t, size_t> ofTid;   // indices into `all`
  std::unordered_map<int32_t, Making> making;  // of threads that were made in the recording

  const LaunchedProcess* processOf(int32_t tid) const;
};

/// Puts in that `launched` was made by nobody who is known, when it is first seen, if its making is not
/// recorded: by a recorder of an earlier version, or because the kernel kept it back. For a process that is
/// not known to be older than the recording: it has not been waiting for a CPU before.
void addMissingMaking(Recording& recording, pid_t launched);

/// The process `launched` and its descendants up to `toNs`, as far as they are recorded. `threads` are those
/// that it is known to have besides, `descendants` those processes, each behind its parent. Times of running
/// are those within [fromNs, toNs].
LaunchedProcesses launchedProcesses(const Recording& recording, pid_t launched,
                                    std::span<const pid_t> threads, std::span<const Descendant> descendants,
                                    uint64_t fromNs, uint64_t toNs);

}  // namespace kelvane
