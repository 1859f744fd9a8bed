#include "kelvane/sampling/sample_store.h"

#include <algorithm>
#include <utility>

#include "kelvane/base/limits.h"

namespace kelvane {
void SampleStore::add(RecordBytes record, uint64_t switchId) {
  if (const auto change = cpuSwitch(record)) return note(*change);
  if (const auto change = programChange(record)) {
    (change->isEnd ? endedNs_ : executedNs_) = change->atNs;
    return;
  }
  auto times = sampleTimes(record, switchId);
  if (!times || (!kept_.empty() && times->atNs < kept_.back().times.atNs)) return;
  times->preemptedNs = preemptedNs(times->atNs);
  isOfSample_ = times->leftCpu;
  kept_.push_back({*times, std::move(record)});
  if (kept_.size() > kMaxKeptSamples) thinOut();
}

void SampleStore::note(const CpuSwitch& change) {
  if (change.isLeave) {
    if (isOfSample_) kept_.back().times.wasPreempted = change.isPreemption;
    left_ = change;
    return;
  }
  const uint64_t awayNs = left_ ? change.atNs - std::min(left_->atNs, change.atNs) : 0;
  if (left_ && left_->isPreemption) preemptedNs_ += awayNs;
  if (isOfSample_) kept_.back().times.awayNs = awayNs;
  isOfSample_ = false;
  left_.reset();
}

uint64_t SampleStore::preemptedNs(uint64_t atNs) const {
  const bool goesOn = left_ && left_->isPreemption;
  return preemptedNs_ + (goesOn ? atNs - std::min(left_->atNs, atNs) : 0);
}

void SampleStore::thinOut() {
  const uint64_t spanNs = kept_.back().times.atNs - kept_.front().times.atNs;
  const uint64_t muchNs = 2 * spanNs / (kept_.size() - 1);
  std::vector<Kept> left;
  left.reserve(kMaxKeptSamples + 1);
  bool goes = true;
  for (size_t i = 0; i < kept_.size(); i++) {
    const bool standsForMuch =
        i + 1 == kept_.size() || kept_[i + 1].times.atNs - kept_[i].times.atNs > muchNs;
    goes = !standsForMuch && !goes;
    if (!goes) left.push_back(std::move(kept_[i]));
  }
  kept_ = std::move(left);
}

}  // namespace kelvane
