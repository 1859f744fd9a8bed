#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "kelvane/sampling/perf_records.h"

namespace kelvane {

/// What is kept of a thread's samples, oldest first: kMaxKeptSamples at most.
///
/// When there are more, some go: as each one carries the counters, the time that it stood for is still known,
/// and merely falls to its neighbour. Those that stand for much are kept, so that the one stack of a long
/// wait never goes for the hundreds of a computation.
class SampleStore {
 public:
  struct Kept {
    SampleTimes times;
    RecordBytes record;
  };

  /// Records come in the order of their times. A sample that doesn't is dropped, and so is whatever is
  /// none of those above.
  void add(RecordBytes record, uint64_t switchId);
  const std::vector<Kept>& kept() const { return kept_; }
  /// When the process last executed another program: older samples are of one that has gone. 0: it hasn't.
  uint64_t executedNs() const { return executedNs_; }
  /// When the thread ended; 0: it hasn't.
  uint64_t endedNs() const { return endedNs_; }
  /// SampleTimes::preemptedNs at `atNs`, after all records added.
  uint64_t preemptedNs(uint64_t atNs) const;

 private:
  void note(const CpuSwitch& change);
  void thinOut();

  std::vector<Kept> kept_;
  std::optional<CpuSwitch> left_;  // it has not been given a CPU since
  bool isOfSample_ = false;   // the last sample is of that leave, or of the one that will be told of next
  uint64_t preemptedNs_ = 0;  // without the one that may be going on
  uint64_t executedNs_ = 0;
  uint64_t endedNs_ = 0;
};

}  // namespace kelvane
