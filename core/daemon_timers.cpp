#include "core/daemon_timers.h"

#include <chrono>

#include "base/settings.h"
#include "base/ticks.h"
#include "hangs/qv_process_info.h"
#include "platform/clock.h"
#include "platform/platform.h"
#include "platform/process_table.h"

namespace quorveld {

namespace {

using namespace std::chrono_literals;

constexpr platform::TimerSchedule kHangChecks = {.start = 5s, .period = 5s, .leeway = 1s};

platform::TimerSchedule memoryLogging() {
  const std::chrono::seconds interval(settings().memoryLoggingInterval);
  return {.start = interval, .period = interval, .leeway = 1s};
}

}  // namespace

void DaemonTimers::startHangChecks() {
  if (!hangCheckTimer_) hangCheckTimer_ = workQueue_.repeat(kHangChecks, [this] { checkHangs(); });
}

void DaemonTimers::stopHangChecks() {
  hangCheckTimer_.reset();
}

void DaemonTimers::checkHangs() {
  const uint64_t now = platform::current().clock.absoluteTime();
  if (now - lastCreditReplenishTicks_ > settings().reportPeriod / 4) {
    QVProcessInfo::replenishAppCredits();
    lastCreditReplenishTicks_ = now;
  }
  const bool dayHasBegun = lastDailyResetTicks_ != 0;
  const bool dayIsOver = dayHasBegun && now - lastDailyResetTicks_ > kTicksPerDay;
  if (dayIsOver) {
    QVProcessInfo::resetDailyLogCredits();
    QVProcessInfo::resetDailyActivationKelvaneCredits();
    QVProcessInfo::resetAppActivationKelvaneCredits();
  }
  if (!dayHasBegun || dayIsOver) lastDailyResetTicks_ = now;
  QVProcessInfo::checkForHangTimeouts(now);
}

void DaemonTimers::startMemoryLogging() {
  if (memoryLoggingTimer_) return;
  platform::current().processTables.prepare();
  memoryLoggingTimer_ =
      workQueue_.repeat(memoryLogging(), [this] { memorySnapshots_.take_memory_snapshot(); });
}

void DaemonTimers::stopMemoryLogging() {
  memoryLoggingTimer_.reset();
}

void DaemonTimers::rearmMemoryLogging() {
  if (memoryLoggingTimer_) memoryLoggingTimer_->rearm(memoryLogging());
}

}  // namespace quorveld
