#pragma once

#include <cstdint>
#include <optional>
#include <span>

#include "kelvane/recording/recording.h"
#include "kelvane/timeline/disk_requests.h"

namespace kelvane {

/// What the block devices did in a window of time.
struct DiskActivity {
  uint64_t requests = 0;  // issued in the window
  uint64_t readBytes = 0;
  uint64_t writtenBytes = 0;
  uint64_t busyNs = 0;     // with at least one request under way
  uint64_t slowestNs = 0;  // of the requests that ended in the window or were still under way at its end
  std::optional<int32_t> busiest;  // the thread whose requests were under way for longest, all added up
};

/// Counts what is recorded of the window: less than there was where the recording doesn't cover it.
/// `requests` are those of the recording.
DiskActivity diskActivity(const Recording& recording, std::span<const DiskRequest> requests, uint64_t fromNs,
                          uint64_t toNs);

}  // namespace kelvane
