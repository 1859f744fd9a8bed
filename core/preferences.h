#pragma once

#include <set>
#include <string>

#include "core/daemon_timers.h"
#include "platform/work_queue.h"

namespace quorveld {

/// Where the preferences live.
inline constexpr const char* kPreferencesDomain = "com.corvix.telvo";
inline constexpr const char* kActivationPreferencesDomain = "com.corvix.quorvel";
inline constexpr const char* kManagedPreferencesPath =
    "/Library/Managed Preferences/mobile/.GlobalPreferences.plist";

/// Learns whether this is an internal build and, if so, writes its default preferences. Once, at start-up.
void checkPreferences();

/// Reads every preference and carries it into effect: settings, limits, timers.
///
/// A value that is absent keeps what an earlier run set, except for the flags that are worked out anew each
/// time. A value of an unsuitable type counts as absent, and is logged when it is first met. Work queue only.
class Preferences {
 public:
  Preferences(platform::MainQueue& workQueue, DaemonTimers& timers)
      : workQueue_(workQueue), timers_(timers) {}

  /// Ends the daemon (status 0) when no source is left enabled; false then.
  bool refreshPreferences();

 private:
  struct Fetched;
  Fetched fetch();

  void applyMemoryLogging(const Fetched& fetched);
  void applyHangTracing(const Fetched& fetched);
  static void applyReporting(const Fetched& fetched);
  static void applyActivationLogging(const Fetched& fetched);
  static void applySlowActivations(const Fetched& fetched);
  static void applyReportFolders(const Fetched& fetched);

  platform::MainQueue& workQueue_;
  DaemonTimers& timers_;
  std::set<std::string> ignored_;  // what the last look ignored, as logged
};

}  // namespace quorveld
