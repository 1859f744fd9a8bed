#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "kelvane/timeline/thread_timeline.h"
#include "kelvane/verdict/evidence.h"
#include "kelvane/verdict/verdict.h"

namespace kelvane {

/// The interruptible sleeps of a hang.
struct Sleeps {
  size_t count = 0;
  uint64_t longestNs = 0;
  std::vector<Waker> wakers;  // by the time slept, most first; the first ones only
  /// How much of the sleep the look stands for: the last one if it still went on then, those that were ended
  /// by whom the look found to hold what the thread waited for, those that ended by the very time-out
  /// that the look saw, and those between tries of which the look saw one.
  uint64_t likeTheLookNs = 0;
};

/// `stillAsleep`: the last span is a sleep that the look saw.
Sleeps sleepsOf(const Evidence& evidence, const WaitGraph& waits, std::span<const StateSpan> spans,
                bool stillAsleep);

/// A thread with its name and process as far as they are known.
NamedThread namedThread(const Evidence& evidence, int32_t tid);

}  // namespace kelvane
