#include <chrono>

#include "base/limits.h"
#include "base/log.h"
#include "base/settings.h"
#include "base/text.h"
#include "base/ticks.h"
#include "hangs/class_side.h"
#include "hangs/hud_message.h"
#include "hangs/own_counters.h"
#include "hangs/qv_process_info.h"
#include "platform/analytics.h"
#include "platform/platform.h"

namespace quorveld {

namespace {

using namespace std::chrono_literals;
using platform::LogEventKind;

constexpr auto kHUDDuration = 2s;
constexpr auto kFenceCaptureDelay = 1s;
constexpr const char* kFenceHangName = "Fence-hang";

}  // namespace

void QVProcessInfo::recordHang(const char* name, uint64_t threadID, uint64_t startTicks, uint64_t endTicks,
                               bool saveKelvane) {
  const std::string hangName = toUtf8(cutAtCharacter(name ? name : "(null)", kMaxNameBytes));
  const double durationMs = static_cast<double>(endTicks - startTicks) * msPerTick();
  const double seconds = durationMs / 1000;
  quorvelLog()
      .about({.kind = LogEventKind::hang, .pid = pid_, .durationMs = durationMs})
      .info("%s: Hang detected %.2fs (%s)", processName_.c_str(), seconds, hangName.c_str());

  showHang(hangName, seconds);
  countHang(hangName, durationMs);
  if (!saveKelvane || !mayBeSaved(durationMs)) return;

  const std::string reason =
      formatted("%s-%s: timeout %.0fms", hangName.c_str(), processName_.c_str(), durationMs);
  if (hangName == kFenceHangName) {
    captureFenceHangLater(hangName, reason, threadID, startTicks, endTicks, durationMs);
  } else {
    saveAndDeduct(hangName, reason, threadID, startTicks, endTicks, durationMs);
  }
}

/// On the screen for two seconds. The clear is due whether or not the message could be shown: who may show it
/// is asked anew by then. It keeps a timer; a flood of hangs shows no more than kMaxPendingHUDClears
/// messages.
void QVProcessInfo::showHang(const std::string& hangName, double seconds) const {
  ClassSide& state = classSide();
  if (state.pendingHUDClears >= kMaxPendingHUDClears) return;
  setHUDMessage("HANG:%s %.10s %.2fs", hangName.c_str(), processName_.c_str(), seconds);
  ++state.pendingHUDClears;
  state.workQueue.after(kHUDDuration, [] {
    --classSide().pendingHUDClears;
    clearHUDMessage();
  });
}

void QVProcessInfo::countHang(const std::string& hangName, double durationMs) const {
  platform::Analytics& analytics = platform::current().analytics;
  if (hangName == kFenceHangName) {
    analytics.addToScalar("com.corvix.quorvel.QVLogsFenceHang.PreKelvane", 1, {});
  } else {
    platform::KeyOwner owner = keyOwner();
    owner.hang = hangName;
    owner.bundle = processBundleID_;
    owner.process = processName_;
    analytics.pushDistribution("com.corvix.quorvel." + hangName + "." + processBundleID_, durationMs, owner);
  }
}

/// Counts a report that was refused, for all and for this process.
void QVProcessInfo::countMissed(const std::string& key) const {
  platform::Analytics& analytics = platform::current().analytics;
  platform::KeyOwner owner = keyOwner();
  owner.process = processName_;
  analytics.addToScalar(key + ".Total", 1, {});
  analytics.addToScalar(key + "." + processName_, 1, owner);
}

/// Whether setting, library and credits allow a report; a refusal is logged and, where credits refuse,
/// counted.
bool QVProcessInfo::mayBeSaved(double durationMs) const {
  const Log log = quorvelLog().about({.kind = LogEventKind::reportRefused, .pid = pid_});
  if (!settings().enableKelvane) {
    log.standard("%s: Quorvel kelvane support is disabled, not saving a report!", processName_.c_str());
    countRefused("disabled");
    return false;
  }
  if (!classSide().traceCapture.isKelvaneAvailable()) {
    log.standard("%s: Tried to save kelvane, but kelvane support is not present on this device!",
                 processName_.c_str());
    countRefused("no-library");
    return false;
  }
  if (!checkAppCreditForDuration(durationMs)) {
    log.standard("%s is out of credits. Not saving a report!", processName_.c_str());
    countMissed("com.corvix.quorvel.QVLogsMissedDueToProcessLimit");
    countRefused("process-limit");
    return false;
  }
  if (!checkDailyCreditForDuration(durationMs)) {
    countMissed("com.corvix.quorvel.QVLogsMissedDueToGlobalLimit");
    countRefused("daily-limit");
    return false;
  }
  return true;
}

/// A blown fence usually comes in several messages: the capture waits a moment, and one pending capture
/// serves them all.
void QVProcessInfo::captureFenceHangLater(const std::string& hangName, const std::string& reason,
                                          uint64_t threadID, uint64_t startTicks, uint64_t endTicks,
                                          double durationMs) {
  ClassSide& state = classSide();
  if (state.fenceCaptureInFlight) {
    const platform::LogEvent refused{.kind = LogEventKind::reportRefused, .pid = pid_};
    quorvelLog().about(refused).standard(
        "%s: Fence-hang, but waiting for FenceHangCapture - not saving another report!",
        processName_.c_str());
    countRefused("fence-pending");
    return;
  }
  state.fenceCaptureInFlight = true;
  state.workQueue.after(kFenceCaptureDelay, [self = shared_from_this(), hangName, reason, threadID,
                                             startTicks, endTicks, durationMs] {
    self->saveAndDeduct(hangName, reason, threadID, startTicks, endTicks, durationMs);
    classSide().fenceCaptureInFlight = false;
  });
}

/// Credits are tested before a capture and spent only by a saved report.
void QVProcessInfo::saveAndDeduct(const std::string& hangName, const std::string& reason, uint64_t threadID,
                                  uint64_t startTicks, uint64_t endTicks, double durationMs) {
  if (!saveKelvaneForService(hangName, reason, threadID, startTicks, endTicks)) {
    countLost();
    return;
  }
  deductAppCreditForDuration(durationMs);
  deductDailyCreditForDuration(durationMs);
}

}  // namespace quorveld
