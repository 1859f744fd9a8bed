#pragma once

#include <string>

#include "tools/report/report.h"

namespace quorvelctl {

// As it came from the report: not yet fit for a terminal or a page.

/// "sleeping in futex_wait_queue, system call futex"
std::string doingText(const ReportThread& thread);
/// "worker", or "worker of server (pid 7)" of a process other than the hung one.
std::string ownerText(const ReportThread& thread);
/// "off from 500 ms before it began, then on from 1.00 s into it"; empty when nothing is known of the
/// display.
std::string displayText(const ReportHeader& header);

/// The report in words: what hung and why, when, the hung thread's stacks, one line for each other thread.
std::string reportText(const Report& report);

}  // namespace quorvelctl
