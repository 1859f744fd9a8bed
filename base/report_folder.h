#pragma once

#include <string_view>
#include <system_error>

namespace quorveld {

/// A folder and the reports in it, by how their names begin and end; what else is there is others' and stays.
struct ReportFolder {
  std::string_view directory;
  std::string_view prefix;
  std::string_view suffix;
};

/// Prepares the folders for one more report, which is written in `working` and moved to `finished` when
/// whole.
///
/// Removes what a daemon that was killed has left in `working`; then, from `finished`, what is older than the
/// settings allow and the oldest of what is more than they allow, with a line and a count. An error when
/// either file system is nearly full by then: no report is to be written, as if it were full. Work queue
/// only.
[[nodiscard]] std::error_code makeRoomForReport(const ReportFolder& working, const ReportFolder& finished);

}  // namespace quorveld
