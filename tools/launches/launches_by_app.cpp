#include "tools/launches/launches_by_app.h"

#include <algorithm>
#include <map>
#include <nlohmann/json.hpp>
#include <tuple>

#include "tools/base/table.h"
#include "tools/base/units.h"

namespace quorvelctl {
namespace {

constexpr double kDayS = 24 * 3600;
constexpr double kWeekS = 7 * kDayS;

/// The least value that `percent` of all are not above.
uint64_t percentile(const std::vector<uint64_t>& sorted, size_t percent) {
  return sorted[(sorted.size() * percent + 99) / 100 - 1];
}

std::optional<LaunchTimes> timesOf(std::vector<uint64_t> durationsMs) {
  if (durationsMs.empty()) return std::nullopt;
  std::sort(durationsMs.begin(), durationsMs.end());
  return LaunchTimes{.count = durationsMs.size(),
                     .medianMs = percentile(durationsMs, 50),
                     .p90Ms = percentile(durationsMs, 90),
                     .slowestMs = durationsMs.back()};
}

nlohmann::ordered_json timesJson(const std::optional<LaunchTimes>& times) {
  if (!times) return nullptr;
  return {{"launches", times->count},
          {"medianMs", times->medianMs},
          {"p90Ms", times->p90Ms},
          {"slowestMs", times->slowestMs}};
}

}  // namespace

std::optional<double> AppLaunches::changePercent() const {
  if (!thisWeek || !lastWeek || lastWeek->medianMs == 0) return std::nullopt;
  return (static_cast<double>(thisWeek->medianMs) / static_cast<double>(lastWeek->medianMs) - 1) * 100;
}

std::string changeText(const AppLaunches& app) {
  const std::optional<double> change = app.changePercent();
  if (!change) return app.thisWeek ? "new" : "-";
  return (*change < 0 ? "" : "+") + fixed(*change, 0) + " %";
}

std::vector<AppLaunches> launchesByApp(std::span<const Activation> activations, double now) {
  struct Durations {
    std::vector<uint64_t> all, thisWeek, lastWeek;
    std::vector<LaunchMoment> launches;
    size_t misdated = 0;
  };
  std::map<std::string, Durations> durations;
  for (const Activation& activation : activations) {
    if (!activation.launch || activation.result != 0 || !activation.durationMs) continue;
    Durations& app = durations[activation.bundleID];
    const double age = now - activation.startedAt;
    app.all.push_back(*activation.durationMs);
    if (activation.startedAt < 0 || age < -kDayS) {
      ++app.misdated;
      continue;
    }
    app.launches.push_back({activation.startedAt, *activation.durationMs});
    if (age < kWeekS) app.thisWeek.push_back(*activation.durationMs);
    if (age >= kWeekS && age < 2 * kWeekS) app.lastWeek.push_back(*activation.durationMs);
  }
  std::vector<AppLaunches> apps;
  apps.reserve(durations.size());
  for (auto& [bundleID, app] : durations) {
    apps.push_back({bundleID, timesOf(std::move(app.all)).value_or(LaunchTimes{}),
                    timesOf(std::move(app.thisWeek)), timesOf(std::move(app.lastWeek)),
                    std::move(app.launches), app.misdated});
  }
  std::sort(apps.begin(), apps.end(), [](const AppLaunches& a, const AppLaunches& b) {
    return std::tuple(b.all.medianMs, a.bundleID) < std::tuple(a.all.medianMs, b.bundleID);
  });
  return apps;
}

std::string launchesByAppText(const std::vector<AppLaunches>& apps) {
  std::vector<std::vector<std::string>> rows{
      {"MEDIAN", "90 % IN", "SLOWEST", "LAUNCHES", "THIS WEEK", "LAST WEEK", "CHANGE", "APPLICATION"}};
  const auto text = [](uint64_t ms) { return durationText(static_cast<double>(ms)); };
  const auto week = [&text](const std::optional<LaunchTimes>& times) {
    return times ? text(times->medianMs) : std::string("-");
  };
  for (const AppLaunches& app : apps) {
    rows.push_back({text(app.all.medianMs), text(app.all.p90Ms), text(app.all.slowestMs),
                    std::to_string(app.all.count), week(app.thisWeek), week(app.lastWeek), changeText(app),
                    printable(app.bundleID)});
  }
  return table(rows);
}

nlohmann::ordered_json launchesByAppJson(const std::vector<AppLaunches>& apps) {
  nlohmann::ordered_json json = nlohmann::ordered_json::array();
  for (const AppLaunches& app : apps) {
    nlohmann::ordered_json entry{{"bundleID", app.bundleID},
                                 {"all", timesJson(app.all)},
                                 {"thisWeek", timesJson(app.thisWeek)},
                                 {"lastWeek", timesJson(app.lastWeek)},
                                 {"changePercent", nullptr}};
    if (const std::optional<double> change = app.changePercent()) entry["changePercent"] = *change;
    json.push_back(std::move(entry));
  }
  return json;
}

}  // namespace quorvelctl
