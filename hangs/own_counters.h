#pragma once

#include <cstddef>
#include <string_view>

namespace quorveld {

// What the daemon counts of its own work, beside what it counts of applications. Work queue only.

/// How many processes are watched from now on.
void countWatched(size_t processes);

/// A report of a hang or a slow launch that was refused, for a `reason` of docs/metrics.md.
void countRefused(std::string_view reason);

/// One that was to be had and could not be made or written.
void countLost();

/// How long a capture held the work queue up.
void countCapture(double durationMs);

}  // namespace quorveld
