#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "tools/report/json_access.h"
#include "tools/report/report_frame.h"

namespace quorvelctl {

/// Where the hung thread was in the course of the hang, as far as it was sampled.
struct ReportSampled {
  /// A time in milliseconds: on a CPU, ready for one, or waiting.
  struct Spent {
    double onCpuMs = 0;
    double readyMs = 0;
    double waitedMs = 0;

    double sum() const { return onCpuMs + readyMs + waitedMs; }
  };
  struct Place {
    std::vector<ReportFrame> stack;  ///< innermost first
    Spent spent;
    std::string inKernel = {};  ///< what it waited in there; empty: not said
  };

  double durationMs = 0;  ///< 0: it was not sampled
  size_t samples = 0;
  std::vector<Place> places;  ///< the longest first
  Spent notSeen;              ///< in what, nothing told
};

ReportSampled sampledOf(const Json& report);

/// "Where it was in the last 4.00 s, by 60 samples".
std::string sampledHeading(const ReportSampled& sampled);

/// The longest first, each: the share, how long, how long on a CPU, ready and waiting, in what. Empty for
/// what was not sampled. Names may hold anything but control characters.
std::vector<std::vector<std::string>> sampledRows(const ReportSampled& sampled);

/// The table, with a heading and an empty line before it; empty for what was not sampled.
std::string sampledText(const ReportSampled& sampled);

}  // namespace quorvelctl
