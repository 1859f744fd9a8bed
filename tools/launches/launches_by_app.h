#pragma once

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "tools/launches/activation.h"

namespace quorvelctl {

/// How long launches took, those alone that have come up.
struct LaunchTimes {
  size_t count = 0;
  uint64_t medianMs = 0;
  uint64_t p90Ms = 0;
  uint64_t slowestMs = 0;
};

/// One of them. In seconds since 2001-01-01 00:00:00 UTC.
struct LaunchMoment {
  double startedAt = 0;
  uint64_t durationMs = 0;
};

/// An application's launches on record, and what has become of them.
struct AppLaunches {
  std::string bundleID;
  LaunchTimes all;
  std::optional<LaunchTimes> thisWeek;  ///< the seven days up to now; nothing without launches
  std::optional<LaunchTimes> lastWeek;  ///< the seven before
  std::vector<LaunchMoment> launches;   ///< as the log has them, but for those of impossible times
  size_t misdated = 0;                  ///< of those: how many there are

  /// By how much the median of this week is above last week's, in percent; nothing without either.
  std::optional<double> changePercent() const;
};

/// What has become of it within the week: "+25 %", "new", or "-" for what wasn't launched.
std::string changeText(const AppLaunches& app);

/// By application, the highest median first. `now` is in seconds since 2001-01-01 00:00:00 UTC. A launch from
/// more than a day ahead, or from before that date, was logged while the clock was wrong: it counts among
/// all, and in no week.
std::vector<AppLaunches> launchesByApp(std::span<const Activation> activations, double now);

std::string launchesByAppText(const std::vector<AppLaunches>& apps);
nlohmann::ordered_json launchesByAppJson(const std::vector<AppLaunches>& apps);

}  // namespace quorvelctl
