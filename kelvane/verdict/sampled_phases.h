#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "kelvane/capture/captured_process.h"
#include "kelvane/sampling/sample_shares.h"
#include "kelvane/timeline/thread_timeline.h"
#include "kelvane/verdict/kernel_wait.h"

namespace kelvane {

/// The samples of the hung thread in order of time, which its stretches count, and what it did between them.
struct SampledHang {
  std::vector<const SampledStack*> samples;
  SampledTime time;
};

SampledHang sampledHang(const ProcessCapture& process, uint64_t fromNs, uint64_t toNs);

/// How the hung thread spent that part of a hang in which it was sampled, and where.
struct SampledPhases {
  /// Where it spent a state.
  struct Place {
    /// The innermost function of its own that took most of the time, what it called included. Empty: none
    /// did, or that was not seen.
    std::string function;
    bool isAlmostAll = false;    // of the time
    std::string kernelFunction;  // what it waited in there for most of the time; empty: not told
    KernelWait kernelWait = KernelWait::unknown;  // for what, by that
  };

  uint64_t durationNs = 0;  // 0: it was not sampled
  uint64_t knownNs = 0;     // how much of that its state is known
  TimeByState spent{};      // adds up to that
  std::array<Place, TimeByState().size()> places;
  /// For how long it waited as it still did when the process was looked at; 0: it no longer did.
  uint64_t likeTheLookNs = 0;

  const Place& placeIn(ThreadState state) const { return places[static_cast<size_t>(state)]; }
};

/// Samples tell who waits, by the kernel's functions: a wait in none that sleeps uninterruptibly counts as
/// sleep, and one without functions as unknown, unless it is the one that the look found.
SampledPhases sampledPhases(const ProcessCapture& process, uint64_t fromNs, uint64_t toNs);

}  // namespace kelvane
