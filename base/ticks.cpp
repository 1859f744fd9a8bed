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

}  // namespace quorveld
