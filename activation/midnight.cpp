#include "activation/midnight.h"

#include <array>
#include <ctime>

namespace quorveld {

namespace {

using platform::WallTime;
using std::chrono::seconds;

struct tm localTime(time_t time) {
  struct tm local {};
  localtime_r(&time, &local);
  return local;
}

}  // namespace

WallTime nextLocalMidnight(WallTime now) {
  tzset();  // the time zone may have changed since the last look
  struct tm tomorrow = localTime(std::chrono::floor<seconds>(now).time_since_epoch().count());
  tomorrow.tm_mday += 1;
  tomorrow.tm_isdst = -1;
  const time_t sameTimeTomorrow = mktime(&tomorrow);

  struct tm midnight = localTime(sameTimeTomorrow);
  const int day = midnight.tm_mday;
  midnight.tm_hour = midnight.tm_min = midnight.tm_sec = 0;
  midnight.tm_isdst = -1;
  time_t start = mktime(&midnight);
  // Where the clocks go forward at midnight there is no 00:00, and mktime may answer with an hour of the day
  // before.
  constexpr time_t kMinute = 60;
  while (localTime(start).tm_mday != day && start < sameTimeTomorrow) start += kMinute;
  return WallTime(seconds(start));
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
