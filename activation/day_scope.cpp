#include <algorithm>
#include <chrono>

#include "activation/app_activation_tracker.h"
#include "activation/midnight.h"
#include "perfstats/report_state.h"
#include "platform/clock.h"
#include "platform/platform.h"

// What belongs to a day: the count of reported activations, and which processes have been named to the power
// log.

namespace quorveld {

void AppActivationTracker::setupMidnightTimer(platform::WallTime dayOf) {
  const platform::WallTime now = platform::current().clock.wallTime();
  const platform::WallTime midnight = nextLocalMidnight(dayOf);
  const std::chrono::seconds delay = delayUntilMidnight(now, midnight);
  quorvelLog().info("QVActivationStats: Setting Timer to fire at %s", dateText(midnight).c_str());
  // A deadline of the wall clock: time spent asleep counts, and a clock that is set takes the timer along.
  logOutputQueue_->atWallTime(now + delay, [this, midnight, delay] { midnightPassed(midnight, delay); });
}

/// A timer fires up to a second early, and what it then arms for the rest of that second fires at once: the
/// reset runs twice around such a midnight. The second time the day counts as over, so that it isn't run over
/// and over until it is.
void AppActivationTracker::midnightPassed(platform::WallTime scheduled, std::chrono::seconds waited) {
  const platform::WallTime now = platform::current().clock.wallTime();
  quorvelLog().info("QVActivationStats: Timer Fired at %s. Scheduled date was:%s", dateText(now).c_str(),
                    dateText(scheduled).c_str());
  activationsRecorded_ = 0;
  resetLargestTrackedPid();
  setupMidnightTimer(waited.count() == 0 ? std::max(now, scheduled) : now);
}

void AppActivationTracker::handleFirstUnlock() {
  firstUnlock_ = platform::current().notifications.subscribe(
      "com.corvix.mobile.strelld.first_unlock", *logOutputQueue_, [] {
        quorvelLog().info("QVActivationStats: First unlock; resetting largest tracked pid");
        resetLargestTrackedPid();
      });
}

}  // namespace quorveld
