#pragma once

#include <string>
#include <vector>

#include "tools/report/report.h"

namespace quorvelctl {

using TextRows = std::vector<std::vector<std::string>>;

/// How a launch went, in words, for a terminal: its critical path, phases and processes. Empty of a report
/// that tells nothing of that.
std::string launchText(const ReportMetadata& report);

// Its tables, as they came from the report: not yet fit for a terminal or a page. The first row is the
// heading; without another row there is nothing to tell.

TextRows pathRows(const ReportLaunch& launch, const ReportHeader& header);
TextRows phaseRows(const ReportLaunch& launch, const ReportHeader& header);
TextRows processRows(const ReportLaunch& launch, const ReportHeader& header);
/// Of those that are not listed; empty if there are none.
std::string moreProcessesText(const ReportLaunch& launch);

}  // namespace quorvelctl
