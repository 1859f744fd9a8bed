#pragma once

#include <chrono>
#include <cstdint>
#include <optional>

namespace quorveld::platform {

/// A point of the wall clock, in nanoseconds since 1970-01-01 00:00:00 UTC.
using WallTime = std::chrono::sys_time<std::chrono::nanoseconds>;

/// One tick of the absolute-time clock lasts numer / denom nanoseconds.
struct Timebase {
  uint32_t numer;
  uint32_t denom;
};

/// The machine's clocks. Every operation may be called from any thread and never fails but for
/// `bootTimeSeconds`.
class Clock {
 public:
  virtual ~Clock() = default;

  /// Ticks of the monotonic absolute-time clock; the unit of every hang and fence time.
  virtual uint64_t absoluteTime() = 0;

  /// Ticks since the machine booted, while it slept too: what processes' start times count in.
  virtual uint64_t timeSinceBoot() = 0;

  virtual Timebase timebase() = 0;

  virtual WallTime wallTime() = 0;

  /// When the machine booted, in whole seconds since 1970; nothing if the kernel doesn't say.
  virtual std::optional<int64_t> bootTimeSeconds() = 0;
};

}  // namespace quorveld::platform
