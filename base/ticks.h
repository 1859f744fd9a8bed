#pragma once

#include <cstdint>

namespace quorveld {

/// Ticks of the absolute-time clock in half a second and in a day, at the 24 MHz that hang times are counted
/// in.
inline constexpr uint64_t kTicksPerHalfSecond = 12'000'000;
inline constexpr uint64_t kTicksPerDay = 2'073'600'000'000;

/// Milliseconds per tick of the absolute-time clock.
///
/// Computed once, in single precision and then widened: reports from different daemons compare equal only if
/// all of them round the same way.
double msPerTick();

/// `value` truncated to an unsigned 64-bit number; what lies outside its range becomes the nearest end of it,
/// NaN 0.
uint64_t truncateToUnsigned(double value);

}  // namespace quorveld
