#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools/memory/memory_report.h"

namespace quorvelctl {

/// For each report, in order of time, which start of the machine it is of: 0 for the first one's, and one
/// more from each on whose `faults`, counted since the start, have begun anew.
std::vector<size_t> startsOf(const std::vector<std::optional<uint64_t>>& faults);
std::vector<size_t> startsOf(const std::vector<MemoryReport>& reports);

/// Reports in order of time, as numbers to draw.
struct MemorySeries {
  /// What one name held, in bytes, in each report; 0 where a report doesn't have it.
  struct Line {
    std::string name;  ///< may hold anything
    std::vector<double> bytes;
  };

  std::vector<double> hours;  ///< as hoursOf tells
  std::vector<size_t> starts;
  double totalBytes = 0;        ///< the most that the kernel handed out, or that an account adds up to
  std::vector<Line> account;    ///< the largest first; last unaccounted for, and free
  std::vector<Line> processes;  ///< those of one name together; the largest first, as the next
  std::vector<Line> zones;
};

/// At most `maxLines` lines each; of the account what is left over is one more, and so are the two at its
/// end. Reports without an account are left out.
MemorySeries seriesOf(const std::vector<MemoryReport>& reports, size_t maxLines);

}  // namespace quorvelctl
