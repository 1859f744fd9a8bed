#include <algorithm>
#include <cstddef>
#include <utility>
#include <vector>

#include "base/limits.h"
#include "base/settings.h"
#include "hangs/class_side.h"
#include "hangs/qv_process_info.h"

// What is sampled: operations that the last hang check found pending, and launches in flight. The library
// takes them as one list and samples no others, so both come from here.

namespace quorveld {

namespace {

void sortLongestFirst(std::vector<kelvane_pending>& pending) {
  std::stable_sort(pending.begin(), pending.end(),
                   [](const auto& a, const auto& b) { return a.start_ticks < b.start_ticks; });
}

/// In turn: there are more of either, at times, than can be sampled, and neither may keep all places from the
/// other. Of a kind the longest pending goes first.
std::vector<kelvane_pending> inTurn(std::vector<kelvane_pending> hangs,
                                    std::vector<kelvane_pending> launches) {
  sortLongestFirst(hangs);
  sortLongestFirst(launches);
  std::vector<kelvane_pending> all;
  all.reserve(hangs.size() + launches.size());
  for (size_t i = 0; i < std::max(hangs.size(), launches.size()); ++i) {
    if (i < hangs.size()) all.push_back(hangs[i]);
    if (i < launches.size()) all.push_back(launches[i]);
  }
  return all;
}

}  // namespace

void QVProcessInfo::sampleLaunch(const std::string& launch, const SampledLaunch& sampled) {
  auto& launches = classSide().launches;
  const auto ofUser = std::count_if(launches.begin(), launches.end(), [&](const auto& entry) {
    return entry.first != launch && entry.second.uid == sampled.ownerUid;
  });
  if (static_cast<size_t>(ofUser) >= kMaxSampledLaunchesOfUser) return;
  launches[launch] = {
      .pid = sampled.pid, .uid = sampled.ownerUid, .thread_id = 0, .start_ticks = sampled.startTicks};
  orderSampling();
}

void QVProcessInfo::stopSamplingLaunch(const std::string& launch) {
  if (classSide().launches.erase(launch) > 0) orderSampling();
}

void QVProcessInfo::orderSampling() {
  ClassSide& state = classSide();
  std::vector<kelvane_pending> launches;
  launches.reserve(state.launches.size());
  for (const auto& [launch, pending] : state.launches) {
    if (settings().enableKelvane) launches.push_back(pending);
  }
  state.traceCapture.samplePending(inTurn(state.pending, std::move(launches)));
}

}  // namespace quorveld
