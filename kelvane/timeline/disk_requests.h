#pragma once

#include <cstdint>
#include <vector>

#include "kelvane/recording/recording.h"

namespace kelvane {

/// A request to a block device, from its issue to its completion.
struct DiskRequest {
  uint64_t issuedNs = 0;
  uint64_t completedNs = 0;  // the recording's end if it was still under way
  int32_t issuedBy = 0;      // a thread; for what was written before, one of the kernel's
  uint32_t device = 0;
};

/// The recording's requests, ascending by their issue. A request that does not come back is under way up to
/// the end, as at a dead disk, unless its completion may have been lost.
std::vector<DiskRequest> diskRequests(const Recording& recording);

}  // namespace kelvane
