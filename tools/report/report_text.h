#pragma once

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
  ReportHeader header;
  std::string problem;  ///< why the header is missing
};

// As it came from the report: not yet fit for a terminal or a page.

/// "sleeping in futex_wait_queue, system call futex"
std::string doingText(const ReportThread& thread);
/// "off from 500 ms before it began, then on from 1.00 s into it"; empty when nothing is known of the
/// display.
std::string displayText(const ReportHeader& header);

/// One line a report, in local time.
std::string reportTable(const std::vector<ReportEntry>& entries);

/// The report in words: what hung and why, when, the hung thread's stacks, one line for each other thread.
std::string reportText(const Report& report);

}  // namespace quorvelctl
