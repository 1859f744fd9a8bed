#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools/memory/memory_report.h"

namespace quorvelctl {

/// Fewer reports than this tell nothing.
inline constexpr size_t kLeastGrowthReports = 12;

struct GrowthPoint {
  double hours = 0;
  double bytes = 0;
};

/// A line through a series, robust against single reports that stand out.
struct Trend {
  double bytesPerHour = 0;
  double plusMinus = 0;         ///< the true rate is within this of it, 19 times in 20
  double lateBytesPerHour = 0;  ///< the rate of the second half alone

  /// Whether it grew, by more than noise of its kind explains.
  bool grew() const;
  /// Whether it goes on growing as it did: what fills up and stays, as caches do, is not.
  bool goesOn() const;
};

/// The trend of `points`, in order of time; nothing of too few, or of no time at all. More than 120 are
/// taken together first.
std::optional<Trend> trendOf(const std::vector<GrowthPoint>& points);

/// What grew over a series of reports.
struct Growth {
  std::string kind;  ///< "process", "account", "zone"
  std::string name;  ///< may hold anything
  uint64_t nowBytes = 0;
  double spanHours = 0;
  Trend trend;
};

/// All that grew from report to report since the machine started last.
struct MemoryGrowth {
  std::string from;  ///< timestamps of the first and the last report that were looked at
  std::string to;
  size_t reports = 0;
  size_t beforeStart = 0;       ///< reports of earlier starts of the machine, left aside
  std::vector<Growth> growing;  ///< fastest first, as the next
  std::vector<Growth> grown;    ///< grew, and goes on no more or more slowly
};

/// Hours from some moment to the local time of a report's timestamp; nothing when it isn't one.
std::optional<double> hoursOf(const std::string& timestamp);

/// Of reports in order of time. Growth below 1 MiB over all of it is passed over.
MemoryGrowth growthOf(const std::vector<MemoryReport>& reports);

/// In words and tables.
std::string memoryGrowthText(const MemoryGrowth& growth, size_t maxRows);

}  // namespace quorvelctl
