#pragma once

#include <cstdint>
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

struct RoomForReport {
  std::error_code error;
  uint64_t removed = 0;  ///< reports, yet to be counted
};

/// Makes room for one more report: removes, from those that are finished, what is older than the settings
/// allow and the oldest of what is more than they allow, with a line. An error when either file system is
/// nearly full by then: no report is to be written, as if it were full. From any queue; looks at each file.
[[nodiscard]] RoomForReport makeRoomForReport(const ReportKind& kind);

/// Counts reports that were removed. Work queue only.
void countRemovedReports(const ReportKind& kind, uint64_t removed);

}  // namespace quorveld
