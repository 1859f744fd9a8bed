#include "activation/app_activation_tracker.h"
#include "activation/midnight.h"
#include "perfstats/report_state.h"
#include "platform/clock.h"
#include "platform/platform.h"

// What belongs to a day: the count of reported activations, and which processes have been named to the power
// log.

namespace quorveld {

void AppActivationTracker::setupMidnightTimer() {
  const platform::WallTime now = platform::current().clock.wallTime();
  const platform::WallTime midnight = nextLocalMidnight(now);
  quorvelLog().info("QVActivationStats: Setting Timer to fire at %s", dateText(midnight).c_str());
  // A deadline of the wall clock: time spent asleep counts, and a clock that is set takes the timer along.
  logOutputQueue_->atWallTime(now + delayUntilMidnight(now, midnight),
                              [this, midnight] { midnightPassed(midnight); });
}

void AppActivationTracker::midnightPassed(platform::WallTime scheduled) {
  quorvelLog().info("QVActivationStats: Timer Fired at %s. Scheduled date was:%s",
                    dateText(platform::current().clock.wallTime()).c_str(), dateText(scheduled).c_str());
  activationsRecorded_ = 0;
  resetLargestTrackedPid();
  setupMidnightTimer();
}

void AppActivationTracker::handleFirstUnlock() {
  firstUnlock_ = platform::current().notifications.subscribe(
      "com.corvix.mobile.strelld.first_unlock", *logOutputQueue_, [] {
        quorvelLog().info("QVActivationStats: First unlock; resetting largest tracked pid");
        resetLargestTrackedPid();
      });
}

}  // namespace quorveld
