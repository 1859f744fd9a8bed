#include "core/preferences.h"

#include <cstdint>
#include <optional>
#include <string>

#include "activation/app_activation_tracker.h"
#include "base/log.h"
#include "base/settings.h"
#include "base/ticks.h"
#include "core/preference_reader.h"
#include "hangs/qv_process_info.h"
#include "platform/platform.h"
#include "platform/preferences_store.h"

namespace quorveld {

/// Every key, read once, before any value is applied: what is applied is one consistent look.
struct Preferences::Fetched {
  std::optional<bool> enabled;
  std::optional<ReportPeriod> reportPeriod;
  std::optional<int32_t> dailyLogLimit;
  std::optional<int32_t> dailyLongLogLimit;
  std::optional<double> longHangDurationThreshold;
  std::optional<double> hangTimeoutDuration;
  std::optional<bool> enableKelvane;
  std::optional<bool> enableDisplayData;
  std::optional<bool> slowActKelvanesEnabled;
  std::optional<int32_t> slowActPerAppMax;
  std::optional<int32_t> slowActDailyLogLimit;
  std::optional<int32_t> slowActLaunchKelvaneThreshold;
  std::optional<uint32_t> reportsMaxSize;
  std::optional<uint32_t> reportsMaxAge;
  std::optional<bool> enableMemoryLogging;
  std::optional<uint32_t> memoryLoggingInterval;
  std::optional<bool> enableHUD;
  std::optional<bool> enableAppActivationLogging;
  std::optional<uint32_t> activationMaxCount;
  std::optional<double> activationCPUThreshold;
};

Preferences::Fetched Preferences::fetch() {
  platform::PreferencesStore& store = platform::current().preferences;
  PreferenceReader reader(store, store.managedDictionary(kManagedPreferencesPath));
  store.synchronise(kPreferencesDomain);
  store.synchronise(kActivationPreferencesDomain);
  Fetched fetched{
      .enabled = reader.fromProfile("QuorvelEnabled", kBoolReading),
      .reportPeriod = reader.fromProfile("QuorvelReportPeriod", kReportPeriodReading),
      .dailyLogLimit = reader.fromProfile("QuorvelDailyLogLimit", kIntReading),
      .dailyLongLogLimit = reader.fromProfile("QuorvelDailyLongLogLimit", kIntReading),
      .longHangDurationThreshold = reader.fromProfile("QuorvelLongHangDurationThreshold", kRealReading),
      .hangTimeoutDuration = reader.fromProfile("QuorvelHangTimeoutDuration", kRealReading),
      .enableKelvane = reader.fromProfile("QuorvelEnableKelvane", kBoolReading),
      .enableDisplayData = reader.fromProfile("QuorvelEnableDisplayData", kBoolReading),
      .slowActKelvanesEnabled = reader.fromProfile("QuorvelSlowActKelvanesEnabled", kBoolReading),
      .slowActPerAppMax = reader.fromProfile("QuorvelSlowActPerAppMax", kIntReading),
      .slowActDailyLogLimit = reader.fromProfile("QuorvelSlowActDailyLogLimit", kIntReading),
      .slowActLaunchKelvaneThreshold =
          reader.fromProfile("QuorvelSlowActLaunchKelvaneThreshold", kIntReading),
      .reportsMaxSize = reader.fromProfile("QuorvelReportsMaxSize", kIntervalReading),
      .reportsMaxAge = reader.fromProfile("QuorvelReportsMaxAge", kIntervalReading),
      .enableMemoryLogging = reader.fromStore("QuorvelEnableMemoryLogging", kBoolReading),
      .memoryLoggingInterval = reader.fromStore("QuorvelMemoryLoggingInterval", kIntervalReading),
      .enableHUD = reader.fromStore("QuorvelEnableHUD", kBoolReading),
      .enableAppActivationLogging =
          reader.fromStore("QuorvelEnableAppActivationLogging", kBoolReading, kActivationPreferencesDomain),
      .activationMaxCount =
          reader.fromStore("QuorvelAppActivationLoggingMaxActivationCount", kUnsignedReading),
      .activationCPUThreshold =
          reader.fromStore("QuorvelAppActivationLoggingCPUUtilizationThreshold", kPositiveRealReading),
  };
  const Log ignoredLog = quorvelLog().about({.kind = platform::LogEventKind::preferenceIgnored});
  for (const std::string& text : reader.ignored()) {
    if (!ignored_.contains(text)) ignoredLog.standard("refreshPreferences: %s", text.c_str());
  }
  ignored_ = {reader.ignored().begin(), reader.ignored().end()};
  return fetched;
}

bool Preferences::refreshPreferences() {
  const Fetched fetched = fetch();
  applyMemoryLogging(fetched);
  applyHangTracing(fetched);
  applyReporting(fetched);
  applyActivationLogging(fetched);
  applySlowActivations(fetched);
  applyReportFolders(fetched);

  const Settings& current = settings();
  if (current.hangWatchEnabled || current.memoryLoggingEnabled || current.appActivationLoggingEnabled)
    return true;
  quorvelLog().standard("quorveld is exiting. All sources turned off");
  workQueue_.quit(0);
  return false;
}

void Preferences::applyMemoryLogging(const Fetched& fetched) {
  const Log log = quorvelLog();
  Settings& current = settings();
  current.memoryLoggingEnabled = fetched.enableMemoryLogging.value_or(false);
  if (current.memoryLoggingEnabled) {
    log.info("refreshPreferences: Memory Logging Enabled");
    timers_.startMemoryLogging();
  } else {
    log.info("refreshPreferences: Memory Logging Disabled");
    timers_.stopMemoryLogging();
  }
  if (fetched.memoryLoggingInterval && *fetched.memoryLoggingInterval != current.memoryLoggingInterval) {
    current.memoryLoggingInterval = *fetched.memoryLoggingInterval;
    timers_.rearmMemoryLogging();
    log.info("refreshPreferences: change memoryLoggingInterval to %u", current.memoryLoggingInterval);
  }
}

void Preferences::applyHangTracing(const Fetched& fetched) {
  const Log log = quorvelLog();
  Settings& current = settings();
  if (fetched.enabled.value_or(false)) {
    log.info("refreshPreferences: Hang Tracing Enabled");
    current.hangWatchEnabled = true;
    timers_.startHangChecks();
  } else {
    log.info("refreshPreferences: Hang Tracing Disabled");
    QVProcessInfo::stopWatchingAllPids();
    current.hangWatchEnabled = false;
    timers_.stopHangChecks();
  }
}

void Preferences::applyReporting(const Fetched& fetched) {
  const Log log = quorvelLog();
  Settings& current = settings();
  if (fetched.enableHUD) {
    current.enableHUD = *fetched.enableHUD;
    log.info("refreshPreferences: QuorvelEnableHUD: %d", current.enableHUD);
  }
  if (fetched.reportPeriod) {
    current.reportPeriod =
        truncateToUnsigned(static_cast<double>(fetched.reportPeriod->seconds) * 1000.0 / msPerTick());
    log.info("refreshPreferences: QuorvelReportPeriod = %d", fetched.reportPeriod->wholeSeconds);
  }
  if (fetched.dailyLogLimit) {
    QVProcessInfo::setMaxDailyShortLogs(*fetched.dailyLogLimit);
    log.info("refreshPreferences: QuorvelDailyLogLimit = %d", *fetched.dailyLogLimit);
  }
  if (fetched.dailyLongLogLimit) {
    QVProcessInfo::setMaxDailyLongLogs(*fetched.dailyLongLogLimit);
    log.info("refreshPreferences: QuorvelDailyLongLogLimit = %d", *fetched.dailyLongLogLimit);
  }
  if (fetched.longHangDurationThreshold) {
    QVProcessInfo::setLongHangDurationThreshold(*fetched.longHangDurationThreshold);
    log.info("refreshPreferences: QuorvelLongHangDurationThreshold = %f", *fetched.longHangDurationThreshold);
  }
  if (fetched.hangTimeoutDuration) {
    QVProcessInfo::setHangTimeoutDuration(*fetched.hangTimeoutDuration);
    log.info("refreshPreferences: QuorvelHangTimeoutDuration = %f", *fetched.hangTimeoutDuration);
  }
  current.enableKelvane = fetched.enableKelvane.value_or(false);
  log.info("refreshPreferences: QuorvelEnableKelvane = %d", current.enableKelvane);
  current.enableDisplayData = fetched.enableDisplayData.value_or(true);
  log.info("refreshPreferences: QuorvelEnableDisplayData = %d", current.enableDisplayData);
}

void Preferences::applyActivationLogging(const Fetched& fetched) {
  const Log log = quorvelLog();
  Settings& current = settings();
  current.appActivationLoggingEnabled = fetched.enableAppActivationLogging.value_or(false);
  if (current.appActivationLoggingEnabled) {
    AppActivationTracker& tracker = AppActivationTracker::sharedInstance();
    tracker.setShouldCaptureSystemState(true);
    tracker.setShouldReportData(true);
  }
  log.info("refreshPreferences: App Activation Logging %s",
           current.appActivationLoggingEnabled ? "Enabled" : "Disabled");
  if (fetched.activationMaxCount) {
    current.activationMaxCount = *fetched.activationMaxCount;
    log.info("refreshPreferences: QuorvelAppActivationLoggingMaxActivationCount = %d",
             static_cast<int>(*fetched.activationMaxCount));
  }
  if (fetched.activationCPUThreshold) {
    current.activationCPUThreshold = *fetched.activationCPUThreshold;
    log.info("refreshPreferences: QuorvelAppActivationLoggingCPUUtilizationThreshold = %f",
             *fetched.activationCPUThreshold);
  }
}

void Preferences::applySlowActivations(const Fetched& fetched) {
  const Log log = quorvelLog();
  Settings& current = settings();
  if (fetched.slowActKelvanesEnabled) current.slowActKelvanesEnabled = *fetched.slowActKelvanesEnabled;
  if (!current.slowActKelvanesEnabled) return;

  log.info("refreshPreferences: __slowActKelvanesEnabled = %i", current.slowActKelvanesEnabled);
  if (fetched.slowActPerAppMax) {
    QVProcessInfo::setMaxActivationKelvanesPerApp(*fetched.slowActPerAppMax);
    QVProcessInfo::resetAppActivationKelvaneCredits();
    log.info("refreshPreferences: setMaxActivationKelvanesPerApp = %i", *fetched.slowActPerAppMax);
  }
  if (fetched.slowActDailyLogLimit) {
    QVProcessInfo::setMaxActivationDailyKelvanes(*fetched.slowActDailyLogLimit);
    log.info("refreshPreferences: setMaxActivationDailyKelvanes = %i", *fetched.slowActDailyLogLimit);
  }
  constexpr int32_t kDefaultThresholdMs = 5000;
  if (fetched.slowActLaunchKelvaneThreshold) {
    log.info("refreshPreferences: slowActLaunchThreshold = %i", *fetched.slowActLaunchKelvaneThreshold);
  }
  // Overrides what activation logging has just set: with slow-activation traces on, the tracker only captures
  // traces.
  AppActivationTracker& tracker = AppActivationTracker::sharedInstance();
  tracker.setShouldCaptureSystemState(false);
  tracker.setShouldReportData(false);
  tracker.setShouldCaptureKelvanesAtThreshold(
      static_cast<uint32_t>(fetched.slowActLaunchKelvaneThreshold.value_or(kDefaultThresholdMs)));
}

void Preferences::applyReportFolders(const Fetched& fetched) {
  const Log log = quorvelLog();
  Settings& current = settings();
  if (fetched.reportsMaxSize) {
    current.reportsMaxMegabytes = *fetched.reportsMaxSize;
    log.info("refreshPreferences: QuorvelReportsMaxSize = %u", *fetched.reportsMaxSize);
  }
  if (fetched.reportsMaxAge) {
    current.reportsMaxDays = *fetched.reportsMaxAge;
    log.info("refreshPreferences: QuorvelReportsMaxAge = %u", *fetched.reportsMaxAge);
  }
}

}  // namespace quorveld
