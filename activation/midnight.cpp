#include "activation/midnight.h"

#include <array>
#include <ctime>

namespace quorveld {

namespace {

using platform::WallTime;
using std::chrono::seconds;

/// The local date at `time`, as a number that grows from day to day.
int localDate(std::chrono::sys_seconds time) {
  const time_t whole = time.time_since_epoch().count();
  struct tm local {};
  localtime_r(&whole, &local);
  return local.tm_year * 1000 + local.tm_yday;
}

}  // namespace

/// Looked for minute by minute, as days begin at whole minutes everywhere: mktime answers with the second of
/// two midnights where the clocks go back over it, and with a moment of the day before where a zone has none.
WallTime nextLocalMidnight(WallTime now) {
  tzset();  // the time zone may have changed since the last look
  const int today = localDate(std::chrono::floor<seconds>(now));
  auto minute = std::chrono::floor<std::chrono::minutes>(now);
  do {
    minute += std::chrono::minutes(1);
  } while (localDate(minute) <= today);
  return minute;
}

seconds delayUntilMidnight(WallTime now, WallTime midnight) {
  constexpr seconds kFallback(60);
  return midnight > now ? std::chrono::floor<seconds>(midnight - now) : kFallback;
}

std::string dateText(WallTime time) {
  const time_t whole = std::chrono::floor<seconds>(time).time_since_epoch().count();
  struct tm utc {};
  gmtime_r(&whole, &utc);
  std::array<char, 64> text{};
  const size_t length = strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S +0000", &utc);
  return std::string(text.data(), length);
}

}  // namespace quorveld
