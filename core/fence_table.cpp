#include "core/fence_table.h"

#include <algorithm>
#include <limits>

#include "base/ticks.h"

namespace quorveld {

void FenceTable::begin(int64_t name, int64_t startTicks) {
  fences_[nextIndex_] = {name, startTicks, std::numeric_limits<int64_t>::max()};
  lastIndex_ = nextIndex_;
  nextIndex_ = (nextIndex_ + 1) % fences_.size();
}

bool FenceTable::end(int64_t name, int64_t endTicks) {
  if (fences_[lastIndex_].name == name) {
    fences_[lastIndex_].endTicks = endTicks;
    return true;
  }
  const auto found = std::find_if(fences_.rbegin(), fences_.rend(),
                                  [name](const Fence& fence) { return fence.name == name; });
  if (found == fences_.rend()) return false;
  found->endTicks = endTicks;
  return true;
}

uint64_t FenceTable::overlapMs(uint64_t startTicks, uint64_t endTicks) const {
  uint64_t totalMs = 0;
  for (const Fence& fence : fences_) {
    // All comparisons unsigned: a negative time from a client is one far in the future.
    const uint64_t start = std::max(startTicks, static_cast<uint64_t>(fence.startTicks));
    const uint64_t end = std::min(endTicks, static_cast<uint64_t>(fence.endTicks));
    if (start >= end) continue;
    totalMs =
        truncateToUnsigned(static_cast<double>(end - start) * msPerTick() + static_cast<double>(totalMs));
  }
  return totalMs;
}

}  // namespace quorveld
