#include "base/ticks.h"

#include "platform/clock.h"
#include "platform/platform.h"

namespace quorveld {

double msPerTick() {
  static const double value = [] {
    const platform::Timebase timebase = platform::current().clock.timebase();
    const float ms = static_cast<float>(timebase.numer) * 0.000001f / static_cast<float>(timebase.denom);
    return static_cast<double>(ms);
  }();
  return value;
}

uint64_t truncateToUnsigned(double value) {
  constexpr double kLimit = 18446744073709551616.0;  // 2^64
  if (!(value > 0)) return 0;
  return value >= kLimit ? UINT64_MAX : static_cast<uint64_t>(value);
}

}  // namespace quorveld
