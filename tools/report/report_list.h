#pragma once

#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

#include "tools/report/report.h"

namespace quorvelctl {

/// A report file of the spool.
struct ReportEntry {
  std::string fileName;
  time_t writtenAt = 0;
  uint64_t sizeBytes = 0;
  ReportMetadata metadata;
  std::string problem;  ///< why there is none
};

/// Which reports are wanted; what is empty leaves out none. None without metadata is of a cause or an
/// application.
struct ReportFilter {
  time_t since = 0;
  std::string cause;
  std::string app;  ///< a process's name, or a launched application's

  bool takes(const ReportEntry& entry) const;
};

/// By what reports can be sorted.
const std::vector<std::string>& reportSortKeys();

/// Reports of one key come by date; those that have none come last. `key` is one of reportSortKeys():
/// by duration and size the largest comes first, by date the oldest.
void sortReports(std::vector<ReportEntry>& entries, const std::string& key);

/// One line a report, in local time.
std::string reportTable(const std::vector<ReportEntry>& entries);

/// Reports of one signature.
struct ReportGroup {
  const ReportEntry* longest = nullptr;
  size_t reports = 0;
  double totalMs = 0;
  std::vector<std::string> apps;  ///< by name
};

/// What cost the most time first. Reports without a signature are in none; `entries` must outlive them.
std::vector<ReportGroup> reportGroups(const std::vector<ReportEntry>& entries);

/// One line a group, told by its longest report.
std::string groupTable(const std::vector<ReportGroup>& groups);

}  // namespace quorvelctl
