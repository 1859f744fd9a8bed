#include "kelvane/verdict/sampled_shares.h"

#include "kelvane/verdict/shares.h"

namespace kelvane {

std::vector<PathShare> sampledShares(const SampledPhases& sampled, pid_t tid) {
  std::vector<PathShare> shares;
  for (size_t i = 0; i < static_cast<size_t>(ThreadState::unknown); i++) {
    if (sampled.spent[i] == 0) continue;
    PathShare& share = shares.emplace_back();
    share.thread.tid = tid;
    share.threads = 1;
    share.doing = threadStateName(static_cast<ThreadState>(i));
    share.ns = sampled.spent[i];
  }
  return shares;
}

void addFunction(const SampledPhases& sampled, PathShare& share) {
  // Where the thread was in that state for longer, it may have been elsewhere when that counted.
  constexpr double kMostElsewhere = 1.25;
  for (size_t i = 0; i < sampled.spent.size(); i++) {
    const auto state = static_cast<ThreadState>(i);
    const bool isIt = share.doing == threadStateName(state) ||
                      (share.doing == kDiskShare && state == ThreadState::uninterruptible);
    const bool isThatTime =
        makesUp(sampled.spent[i], kHalf, share.ns) && !makesUp(sampled.spent[i], kMostElsewhere, share.ns);
    if (isIt && isThatTime) share.function = sampled.placeIn(state).function;
  }
}

}  // namespace kelvane
