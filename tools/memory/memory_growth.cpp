#include "tools/memory/memory_growth.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <map>
#include <utility>

#include "tools/memory/memory_series.h"

namespace quorvelctl {
namespace {

constexpr size_t kMostPoints = 120;
/// Growth by less than this many standard errors may be noise: hundreds of series are looked at.
constexpr double kSureErrors = 4;
constexpr double kErrorsOf95Percent = 1.96;
/// What grows in its second half at less than this part of its whole rate is filling up.
constexpr double kGoesOnPart = 0.5;
constexpr double kLeastGrowthBytes = 1 << 20;
/// A spread of normal noise, in units of its median deviation.
constexpr double kSpreadOfDeviation = 1.4826;

double medianOf(std::vector<double> values) {
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

/// At most kMostPoints, each the median of neighbours.
std::vector<GrowthPoint> thinned(const std::vector<GrowthPoint>& points) {
  if (points.size() <= kMostPoints) return points;
  std::vector<GrowthPoint> thin;
  for (size_t i = 0; i < kMostPoints; ++i) {
    std::vector<double> hours;
    std::vector<double> bytes;
    for (size_t j = i * points.size() / kMostPoints; j < (i + 1) * points.size() / kMostPoints; ++j) {
      hours.push_back(points[j].hours);
      bytes.push_back(points[j].bytes);
    }
    thin.push_back({medianOf(hours), medianOf(bytes)});
  }
  return thin;
}

/// The median of the slopes between all pairs of points: up to a quarter of them may be anywhere.
double slopeOf(const std::vector<GrowthPoint>& points) {
  std::vector<double> slopes;
  for (size_t i = 0; i < points.size(); ++i) {
    for (size_t j = i + 1; j < points.size(); ++j) {
      const double hours = points[j].hours - points[i].hours;
      if (hours > 0) slopes.push_back((points[j].bytes - points[i].bytes) / hours);
    }
  }
  return slopes.empty() ? 0 : medianOf(std::move(slopes));
}

/// The standard error of a slope through `points`. Noise that lasts from one to the next tells less than as
/// many points of their own.
double errorOf(const std::vector<GrowthPoint>& points, double slope) {
  std::vector<double> residuals;
  residuals.reserve(points.size());
  for (const GrowthPoint& point : points) residuals.push_back(point.bytes - slope * point.hours);
  const double level = medianOf(residuals);
  double meanHours = 0;
  for (const GrowthPoint& point : points) meanHours += point.hours / static_cast<double>(points.size());
  std::vector<double> deviations;
  double squares = 0;
  double variance = 0;
  double lagged = 0;
  for (size_t i = 0; i < points.size(); ++i) {
    residuals[i] -= level;
    deviations.push_back(std::abs(residuals[i]));
    squares += (points[i].hours - meanHours) * (points[i].hours - meanHours);
    variance += residuals[i] * residuals[i];
    if (i > 0) lagged += residuals[i] * residuals[i - 1];
  }
  const double lasting = variance > 0 ? std::clamp(lagged / variance, 0.0, 0.95) : 0;
  const double spread = medianOf(std::move(deviations)) * kSpreadOfDeviation;
  return squares > 0 ? spread / std::sqrt(squares) * std::sqrt((1 + lasting) / (1 - lasting)) : 0;
}

/// The names' series, each with a point a report; what a report doesn't name was nothing then.
class SeriesByName {
 public:
  explicit SeriesByName(const std::vector<double>& hours) : hours_(hours) {}

  void add(size_t report, const std::string& kind, const std::string& name, uint64_t bytes) {
    auto [series, isNew] = byName_.try_emplace({kind, name});
    if (isNew) {
      for (const double hours : hours_) series->second.push_back({hours, 0});
    }
    series->second[report].bytes += static_cast<double>(bytes);
  }

  std::vector<Growth> grown() const {
    std::vector<Growth> all;
    const double span = hours_.back() - hours_.front();
    for (const auto& [name, points] : byName_) {
      const std::optional<Trend> trend = trendOf(points);
      if (!trend || !trend->grew() || trend->bytesPerHour * span < kLeastGrowthBytes) continue;
      all.push_back({name.first, name.second, static_cast<uint64_t>(points.back().bytes), span, *trend});
    }
    std::stable_sort(all.begin(), all.end(), [](const Growth& a, const Growth& b) {
      return a.trend.bytesPerHour > b.trend.bytesPerHour;
    });
    return all;
  }

 private:
  const std::vector<double>& hours_;
  std::map<std::pair<std::string, std::string>, std::vector<GrowthPoint>> byName_;
};

/// The index of the first report after the machine's last start.
size_t firstOfThisStart(const std::vector<MemoryReport>& reports) {
  const std::vector<size_t> starts = startsOf(reports);
  return static_cast<size_t>(std::find(starts.begin(), starts.end(), starts.back()) - starts.begin());
}

}  // namespace

bool Trend::grew() const {
  return bytesPerHour > 0 && bytesPerHour > plusMinus * kSureErrors / kErrorsOf95Percent;
}

bool Trend::goesOn() const {
  return lateBytesPerHour >= bytesPerHour * kGoesOnPart;
}

std::optional<Trend> trendOf(const std::vector<GrowthPoint>& allPoints) {
  if (allPoints.size() < kLeastGrowthReports) return std::nullopt;
  const std::vector<GrowthPoint> points = thinned(allPoints);
  if (points.back().hours <= points.front().hours) return std::nullopt;
  Trend trend;
  trend.bytesPerHour = slopeOf(points);
  trend.plusMinus = errorOf(points, trend.bytesPerHour) * kErrorsOf95Percent;
  trend.lateBytesPerHour =
      slopeOf({points.begin() + static_cast<std::ptrdiff_t>(points.size() / 2), points.end()});
  return trend;
}

std::optional<double> hoursOf(const std::string& timestamp) {
  tm local{};
  int length = 0;
  const int fields = std::sscanf(timestamp.c_str(), "%4d-%2d-%2d-%2d%2d%2d%n", &local.tm_year, &local.tm_mon,
                                 &local.tm_mday, &local.tm_hour, &local.tm_min, &local.tm_sec, &length);
  if (fields != 6 || static_cast<size_t>(length) != timestamp.size()) return std::nullopt;
  local.tm_year -= 1900;
  local.tm_mon -= 1;
  local.tm_isdst = -1;
  const time_t seconds = mktime(&local);
  return seconds == -1 ? std::nullopt : std::optional(static_cast<double>(seconds) / 3600);
}

MemoryGrowth growthOf(const std::vector<MemoryReport>& reports) {
  MemoryGrowth growth;
  if (reports.empty()) return growth;
  growth.beforeStart = firstOfThisStart(reports);
  growth.reports = reports.size() - growth.beforeStart;
  growth.from = reports[growth.beforeStart].timestamp;
  growth.to = reports.back().timestamp;
  std::vector<double> hours;
  for (size_t i = growth.beforeStart; i < reports.size(); ++i)
    hours.push_back(hoursOf(reports[i].timestamp).value_or(0));

  SeriesByName series(hours);
  for (size_t i = 0; i < growth.reports; ++i) {
    const MemoryReport& report = reports[growth.beforeStart + i];
    for (const MemoryProcess& process : report.processes)
      series.add(i, "process", process.name, process.footprintBytes);
    for (const NamedBytes& zone : report.zones) series.add(i, "zone", zone.name, zone.bytes);
    const std::optional<MemoryAccount> account = accountOf(report);
    if (!account) continue;
    for (const NamedBytes& part : account->parts) {
      if (part.name != "free") series.add(i, "account", part.name, part.bytes);
    }
    series.add(i, "account", kUnaccounted,
               static_cast<uint64_t>(std::max<int64_t>(account->unaccountedBytes, 0)));
  }
  for (Growth& found : series.grown()) {
    (found.trend.goesOn() ? growth.growing : growth.grown).push_back(std::move(found));
  }
  return growth;
}

}  // namespace quorvelctl
