#pragma once

#include <string_view>

#include "platform/clock.h"

namespace quorveld::linux_platform {

/// CLOCK_MONOTONIC in ticks of 24 MHz, CLOCK_REALTIME, and the boot time of proc(5)'s /proc/stat.
class LinuxClock final : public platform::Clock {
 public:
  uint64_t absoluteTime() override;
  platform::Timebase timebase() override { return {125, 3}; }
  uint64_t timeSinceBoot() override;
  platform::WallTime wallTime() override;
  std::optional<int64_t> bootTimeSeconds() override;
};

/// Ticks of 24 MHz in that many nanoseconds, rounded down; exact for every input.
uint64_t ticksOfNanoseconds(uint64_t nanoseconds);

/// The "btime" line of a /proc/stat text: seconds since 1970; nothing when there is none or it is no number.
std::optional<int64_t> parseBootTime(std::string_view procStat);

}  // namespace quorveld::linux_platform
