#include "kelvane/sampling/sample_store.h"

#include <utility>

#include "kelvane/base/limits.h"

namespace kelvane {
namespace {

/// 0 if the thread left the CPU once more before the next sample: there were other waits.
uint64_t waitBetween(const SampleTimes& leaving, const SampleTimes& next) {
  const uint64_t leaves = next.switches - leaving.switches;
  const uint64_t spentNs = next.cpuNs - leaving.cpuNs;
  const uint64_t lengthNs = next.atNs - leaving.atNs;
  const bool isOnlyOne = leaving.leftCpu && leaves == (next.leftCpu ? 1u : 0u);
  return isOnlyOne && spentNs < lengthNs ? lengthNs - spentNs : 0;
}

}  // namespace

void SampleStore::add(RecordBytes record, uint64_t switchId) {
  const auto times = sampleTimes(record, switchId);
  if (!times || (!kept_.empty() && times->atNs < kept_.back().times.atNs)) return;
  if (!kept_.empty()) kept_.back().times.waitNs = waitBetween(kept_.back().times, *times);
  kept_.push_back({*times, std::move(record)});
  if (kept_.size() > kMaxKeptSamples) thinOut();
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
