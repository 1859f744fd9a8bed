#include <algorithm>
#include <cstdint>

#include "base/log.h"
#include "hangs/class_side.h"
#include "hangs/qv_process_info.h"
#include "platform/analytics.h"
#include "platform/platform.h"

// Trace reports are large and costly to capture, so they are rationed: a small credit per process that
// refills, for short hangs only, and a daily allowance per device for each of short hangs, long hangs and
// slow activations.

namespace quorveld {

namespace {

// In 64 bits: limits come from preferences and may be anything.
int64_t usedToday(const DailyAllowance& allowance) {
  return int64_t{allowance.maximum} - allowance.credits;
}

/// What doesn't fit stays at the nearest end: a limit from far below zero must not turn into plenty.
int32_t saturated(int64_t credits) {
  return static_cast<int32_t>(std::clamp<int64_t>(credits, INT32_MIN, INT32_MAX));
}

/// `what` they are for, as the log names it.
void takeOne(DailyAllowance& allowance, const char* what) {
  const int32_t before = allowance.credits;
  allowance.credits = saturated(int64_t{before} - 1);
  quorvelLog().info("Daily %s credits: %i -> %i", what, before, allowance.credits);
}

/// Keeps what was used today, so that the credits left may become negative.
void setMaximum(DailyAllowance& allowance, const char* what, int32_t maximum) {
  const int32_t credits = saturated(maximum - usedToday(allowance));
  quorvelLog().info("Max Daily %s Limit: %i -> %i", what, allowance.maximum, maximum);
  quorvelLog().info("Daily %s credits: %i -> %i", what, allowance.credits, credits);
  allowance = {maximum, credits};
}

}  // namespace

bool QVProcessInfo::isLongHang(double durationMs) {
  return classSide().longHangDurationThreshold <= durationMs;
}

// --- per-process credits of short hangs ---

bool QVProcessInfo::checkAppCreditForDuration(double durationMs) const {
  if (isLongHang(durationMs)) return true;
  const auto& credits = classSide().appCredits;
  const auto entry = credits.find(processName_);
  return entry == credits.end() || entry->second != 0;
}

void QVProcessInfo::deductAppCreditForDuration(double durationMs) {
  const Log log = quorvelLog();
  if (isLongHang(durationMs)) {
    log.info("%s Log credits: Long Hang does not deduct per-app credits", processName_.c_str());
    return;
  }
  auto& credits = classSide().appCredits;
  const auto entry = credits.find(processName_);
  const uint32_t before = entry == credits.end() ? kMaxAppCredits : entry->second;
  const uint32_t after = before > 0 ? before - 1 : 0;
  log.info("%s Log credits: %u -> %u", processName_.c_str(), before, after);
  if (before > 0) credits[processName_] = after;
}

void QVProcessInfo::replenishAppCredits() {
  auto& credits = classSide().appCredits;
  for (auto& [name, left] : credits) quorvelLog().info("%s credits increased to: %u", name.c_str(), ++left);
  std::erase_if(credits, [](const auto& entry) { return entry.second == kMaxAppCredits; });
}

// --- daily credits of hangs ---

bool QVProcessInfo::checkDailyCreditForDuration(double durationMs) {
  const ClassSide& state = classSide();
  const Log refusal = quorvelLog().about({.kind = platform::LogEventKind::reportRefused});
  if (isLongHang(durationMs)) {
    if (state.longLogs.credits >= 1) return true;
    refusal.standard(
        "Device is out of Daily Long Log credits, hit the Daily Long Log limit of %u. Not saving a report!",
        static_cast<uint32_t>(state.longLogs.maximum));
    return false;
  }
  if (state.shortLogs.credits >= 1) return true;
  refusal.standard(
      "Device is out of Daily Short Log credits, hit the Daily Short Log limit of %u. Not saving a report!",
      static_cast<uint32_t>(state.shortLogs.maximum));
  return false;
}

void QVProcessInfo::deductDailyCreditForDuration(double durationMs) {
  ClassSide& state = classSide();
  if (isLongHang(durationMs)) {
    takeOne(state.longLogs, "Long Log");
  } else {
    takeOne(state.shortLogs, "Short Log");
  }
}

void QVProcessInfo::resetDailyLogCredits() {
  ClassSide& state = classSide();
  platform::Analytics& analytics = platform::current().analytics;
  // The first key carries the long count, not the sum: dashboards have always read it so.
  analytics.setScalar("com.corvix.quorvel.QVLogsGeneratedAtDailyReset", usedToday(state.longLogs));
  analytics.setScalar("com.corvix.quorvel.QVLongLogsGeneratedAtDailyReset", usedToday(state.longLogs));
  analytics.setScalar("com.corvix.quorvel.QVShortLogsGeneratedAtDailyReset", usedToday(state.shortLogs));
  quorvelLog().info("Hang Short Logs Daily Credits reset from %i to %i", state.shortLogs.credits,
                    state.shortLogs.maximum);
  quorvelLog().info("Hang Long Logs Daily Credits reset from %i to %i", state.longLogs.credits,
                    state.longLogs.maximum);
  state.shortLogs.credits = state.shortLogs.maximum;
  state.longLogs.credits = state.longLogs.maximum;
}

void QVProcessInfo::setMaxDailyShortLogs(int32_t maximum) {
  setMaximum(classSide().shortLogs, "Short Log", maximum);
}

void QVProcessInfo::setMaxDailyLongLogs(int32_t maximum) {
  setMaximum(classSide().longLogs, "Long Log", maximum);
}

// --- credits of slow activations ---

void QVProcessInfo::setMaxActivationDailyKelvanes(int32_t maximum) {
  setMaximum(classSide().activationKelvanes, "Activation Kelvane", maximum);
}

void QVProcessInfo::setMaxActivationKelvanesPerApp(int32_t maximum) {
  int32_t& perApp = classSide().maxActivationKelvanesPerApp;
  quorvelLog().info("Max Daily Per App Activation Kelvane Limit: %i -> %i", perApp, maximum);
  perApp = maximum;
}

void QVProcessInfo::resetDailyActivationKelvaneCredits() {
  DailyAllowance& kelvanes = classSide().activationKelvanes;
  quorvelLog().info("Launch Logs Daily Credits reset from %i to %i", kelvanes.credits, kelvanes.maximum);
  kelvanes.credits = kelvanes.maximum;
}

void QVProcessInfo::resetAppActivationKelvaneCredits() {
  classSide().activationAppCredits.emplace();
}

bool QVProcessInfo::checkActivationAppCredit(const std::string& bundleID) {
  const auto& credits = classSide().activationAppCredits;
  if (!credits) return true;
  const auto entry = credits->find(bundleID);
  return entry == credits->end() || entry->second != 0;
}

void QVProcessInfo::deductActivationAppCredit(const std::string& bundleID) {
  ClassSide& state = classSide();
  auto before = static_cast<uint32_t>(std::max(state.maxActivationKelvanesPerApp, 0));
  if (state.activationAppCredits) {
    const auto entry = state.activationAppCredits->find(bundleID);
    if (entry != state.activationAppCredits->end()) before = entry->second;
  }
  const uint32_t after = before > 0 ? before - 1 : 0;
  quorvelLog().info("%s Launch Log credits: %u -> %u", bundleID.c_str(), before, after);
  if (before > 0 && state.activationAppCredits) (*state.activationAppCredits)[bundleID] = after;
}

}  // namespace quorveld
