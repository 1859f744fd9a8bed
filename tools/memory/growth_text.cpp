#include <cmath>

#include "tools/base/table.h"
#include "tools/base/units.h"
#include "tools/memory/memory_growth.h"
#include "tools/memory/memory_text.h"

namespace quorvelctl {
namespace {

using Rows = std::vector<std::vector<std::string>>;

/// Rates of less than this an hour are told for a day.
constexpr double kHourlyBytes = 1 << 20;

std::string rateText(const Trend& trend) {
  const bool hourly = trend.bytesPerHour >= kHourlyBytes;
  const double hours = hourly ? 1 : 24;
  const auto size = [&](double bytesPerHour) {
    return sizeText(static_cast<uint64_t>(bytesPerHour * hours));
  };
  return size(trend.bytesPerHour) + (hourly ? "/h" : "/day") + " +- " + size(trend.plusMinus);
}

std::string growthTable(const char* title, const std::vector<Growth>& all, size_t maxRows) {
  if (all.empty()) return "";
  Rows rows{{"RATE", "GREW BY", "NOW", "KIND", "NAME"}};
  for (const Growth& growth : all) {
    if (rows.size() > maxRows) break;
    rows.push_back({rateText(growth.trend),
                    sizeText(static_cast<uint64_t>(growth.trend.bytesPerHour * growth.spanHours)),
                    sizeText(growth.nowBytes), growth.kind, printable(growth.name)});
  }
  std::string text = std::string("\n") + title + "\n" + table(rows);
  if (all.size() > maxRows) text += "and " + std::to_string(all.size() - maxRows) + " more (--all)\n";
  return text;
}

}  // namespace

std::string memoryGrowthText(const MemoryGrowth& growth, size_t maxRows) {
  std::string text = std::to_string(growth.reports) + " reports from " + timeText(growth.from) + " to " +
                     timeText(growth.to) + "\n";
  if (growth.beforeStart > 0) {
    text += std::to_string(growth.beforeStart) + " before the machine's last start are left aside\n";
  }
  if (growth.reports < kLeastGrowthReports) {
    return text + "Too few to tell growth from noise: it takes " + std::to_string(kLeastGrowthReports) + "\n";
  }
  if (growth.growing.empty()) text += "\nNothing grows steadily.\n";
  return text + growthTable("Grows steadily", growth.growing, maxRows) +
         growthTable("Grew, and goes on no more or more slowly: as what fills up does", growth.grown,
                     maxRows);
}

}  // namespace quorvelctl
