#pragma once

#include <cstdint>
#include <vector>

#include "kelvane/recording/recording.h"
#include "kelvane/timeline/launched_processes.h"

namespace kelvane {

/// A part of a launch with the thread that it was up to.
struct LaunchStage {
  int32_t tid = 0;
  uint64_t fromNs = 0;
  uint64_t toNs = 0;

  uint64_t ns() const { return toNs - fromNs; }
};

/// The launch [fromNs, toNs] from its begin to the thread that ended it, as far as that is known, each stage
/// with the thread that made the next one's.
std::vector<LaunchStage> launchStages(const Recording& recording, const LaunchedProcesses& launched,
                                      uint64_t fromNs, uint64_t toNs);

}  // namespace kelvane
