#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "kelvane/sampling/perf_records.h"

namespace kelvane {

/// What a thread did between two neighbouring samples, or before the first or after the last.
struct Stretch {
  uint64_t fromNs = 0;
  uint64_t toNs = 0;
  uint64_t onCpuNs = 0;
  uint64_t preemptedNs = 0;  // it could have gone on, but others were given the CPU
  uint64_t waitedNs = 0;
  uint64_t wokenNs = 0;  // its wait was over, but it was given no CPU yet
  /// The index of the sample whose stack stands for the CPU time, of the one for what it was preempted in,
  /// and of the one that stands for the rest; nothing: what the thread was in then was not seen.
  std::optional<size_t> ranIn;
  std::optional<size_t> preemptedIn;
  std::optional<size_t> waitedIn;
};

struct SampledTime {
  std::vector<Stretch> stretches;  // in order, without gaps
  /// The thread has not been on a CPU since it is sampled: whatever it is in now, it was in all the while.
  bool neverRan = false;
};

/// Divides the part of `fromNs` to `toNs` in which a thread was sampled. `samples` and `marks` are in order.
///
/// How much CPU time a stretch has is exact, since samples carry it, and so is for how long it was preempted;
/// which stack had it is known for every kSamplesPerSecond-th of a second. How long it was woken and not yet
/// run, the kernel counts over all its wakes: each is taken for as long as any other. A wait belongs to the
/// stack with which the thread left the CPU, if it did so once; where it did so more often than is kept,
/// short waits alone are put down to the one that was seen.
SampledTime divideTime(std::span<const SampleTimes> samples, std::span<const ClockMark> marks,
                       uint64_t fromNs, uint64_t toNs);

}  // namespace kelvane
