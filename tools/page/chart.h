#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "tools/page/html.h"

namespace quorvelctl {

/// A name, its values in order of time, and which of the page's ten colours it has.
struct ChartLine {
  std::string name;  ///< may hold anything
  std::vector<double> bytes;
  size_t colour = 0;
};

/// When the values of a chart's lines were taken, at least one; local time, in hours since 1970.
struct ChartTimes {
  std::vector<double> hours;
  /// For each: which start of the machine it is of. No line goes across from one to the next.
  std::vector<size_t> starts;
};

// Sizes over time as SVG that stretches to the page's width; what is written stands beside it as HTML, so
// that it is as large on a narrow page as on a wide one. Needs no script.

/// The lines as areas, the first one at the bottom, each on those before it; up to `topBytes` or more.
Html areaChart(const ChartTimes& times, const std::vector<ChartLine>& lines, double topBytes);

/// Each line from 0.
Html lineChart(const ChartTimes& times, const std::vector<ChartLine>& lines);

}  // namespace quorvelctl
