#pragma once

#include <cstdint>
#include <utility>
#include <vector>

#include "kelvane/recording/recording.h"

namespace kelvane {

/// What the block devices did in a window of time.
struct DiskActivity {
  uint64_t requests = 0;  // issued in the window
  uint64_t readBytes = 0;
  uint64_t writtenBytes = 0;
  uint64_t busyNs = 0;     // with at least one request under way
  uint64_t slowestNs = 0;  // of the requests that ended in the window or were still under way at its end
  /// When at least one request was under way, ascending and apart; within the window.
  std::vector<std::pair<uint64_t, uint64_t>> busy;
};

/// Counts what is recorded of the window: less than there was where the recording doesn't cover it.
DiskActivity diskActivity(const Recording& recording, uint64_t fromNs, uint64_t toNs);

}  // namespace kelvane
