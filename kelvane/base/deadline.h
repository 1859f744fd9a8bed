#pragma once

#include <time.h>

#include <algorithm>
#include <chrono>
#include <cstdint>

namespace kelvane {

/// Nanoseconds of CLOCK_MONOTONIC: the clock that hang times are counted on.
inline uint64_t monotonicNs() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<uint64_t>(now.tv_sec) * 1'000'000'000u + static_cast<uint64_t>(now.tv_nsec);
}

/// Nanoseconds of a tick count of 24 MHz, rounded down; for ticks below 2^56.
inline uint64_t nsOfTicks(uint64_t ticks) {
  return ticks / 3 * 125 + ticks % 3 * 125 / 3;
}

/// A moment of std::chrono::steady_clock that work must not outlast.
class Deadline {
 public:
  explicit Deadline(std::chrono::milliseconds fromNow) : at_(std::chrono::steady_clock::now() + fromNow) {}

  bool passed() const { return std::chrono::steady_clock::now() >= at_; }
  /// Milliseconds until then, rounded up, as poll(2) takes them; 0 once it has passed.
  int leftMs() const {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(at_ - std::chrono::steady_clock::now());
    return static_cast<int>(std::max<std::chrono::milliseconds::rep>(left.count(), 0));
  }

 private:
  std::chrono::steady_clock::time_point at_;
};

}  // namespace kelvane
