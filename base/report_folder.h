#pragma once

#include <string_view>
#include <system_error>

#include "base/paths.h"

namespace quorveld {

/// A folder and the reports in it, by how their names begin and end; what else is there is others' and stays.
struct ReportFolder {
  std::string_view directory;
  std::string_view prefix;
  std::string_view suffix;
};

/// Reports of one kind: where they are written, and where they are when they are whole.
struct ReportKind {
  ReportFolder unfinished;
  ReportFolder finished;
};

inline constexpr ReportKind kHangReports{{kTemporaryDirectory, "", ".kelvane"},
                                         {kSpoolDirectory, "", ".kelvane"}};
inline constexpr ReportKind kMemoryReports{{kCacheDirectory, "memory-snapshot-", ""},
                                           {kMemoryReportDirectory, "memory-snapshot-", ".ips"}};

/// Removes what a daemon that was killed has left half written. Before the first report.
void removeUnfinishedReports();

/// Makes room for one more report: removes, from those that are finished, what is older than the settings
/// allow and the oldest of what is more than they allow, with a line and a count. An error when either file
/// system is nearly full by then: no report is to be written, as if it were full. Work queue only.
[[nodiscard]] std::error_code makeRoomForReport(const ReportKind& kind);

}  // namespace quorveld
