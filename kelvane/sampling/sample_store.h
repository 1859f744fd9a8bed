#pragma once

#include <cstddef>
#include <cstdint>
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

  /// Samples come in the order of their times; one that doesn't, and whatever is no sample, is dropped.
  void add(RecordBytes record, uint64_t switchId);
  const std::vector<Kept>& kept() const { return kept_; }

 private:
  void thinOut();

  std::vector<Kept> kept_;
};

}  // namespace kelvane
