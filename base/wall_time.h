#pragma once

#include <cstdint>
#include <string>

#include "platform/clock.h"

namespace quorveld {

/// Seconds from 2001-01-01 00:00:00 UTC, the reference date of every activation time, to `time`.
double secondsSinceReferenceDate(platform::WallTime time);

/// Milliseconds since the reference date: the seconds × 1000.0, truncated.
uint64_t activationTimeMs(platform::WallTime time);

/// Names reports by date: local time as "yyyy-MM-dd-HHmmss". Follows changes of the time zone. From any
/// thread.
std::string reportDate(platform::WallTime time);

}  // namespace quorveld
