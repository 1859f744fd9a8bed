#include "base/wall_time.h"

#include <time.h>

#include <array>

namespace quorveld {

namespace {

// 2001-01-01 00:00:00 UTC in seconds since 1970.
constexpr int64_t kReferenceDateSeconds = 978'307'200;

}  // namespace

double secondsSinceReferenceDate(platform::WallTime time) {
  const std::chrono::nanoseconds since =
      time.time_since_epoch() - std::chrono::seconds(kReferenceDateSeconds);
  return static_cast<double>(since.count()) / 1e9;
}

uint64_t activationTimeMs(platform::WallTime time) {
  // Through the signed type: a clock that stands before 2001 wraps, where a direct conversion would be
  // undefined.
  return static_cast<uint64_t>(static_cast<int64_t>(secondsSinceReferenceDate(time) * 1000.0));
}

std::string reportDate(platform::WallTime time) {
  const time_t seconds = std::chrono::floor<std::chrono::seconds>(time).time_since_epoch().count();
  tzset();  // localtime_r alone need not notice that TZ changed
  struct tm local {};
  localtime_r(&seconds, &local);
  std::array<char, 64> text{};
  const size_t length = strftime(text.data(), text.size(), "%Y-%m-%d-%H%M%S", &local);
  return std::string(text.data(), length);
}

}  // namespace quorveld
