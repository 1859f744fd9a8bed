#pragma once

#include <string>

#include "platform/clock.h"

namespace quorveld {

/// The start of the day after `now` in the local time zone, whatever the lengths of the two days.
platform::WallTime nextLocalMidnight(platform::WallTime now);

/// How long a timer for `midnight` waits: whole seconds, the fraction dropped, so it may fire up to a second
/// early and then once more; 60 seconds when midnight isn't ahead.
std::chrono::seconds delayUntilMidnight(platform::WallTime now, platform::WallTime midnight);

/// A date as log lines show it, in UTC.
std::string dateText(platform::WallTime time);

}  // namespace quorveld
