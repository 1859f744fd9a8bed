#pragma once

#include "tools/page/html.h"
#include "tools/report/report.h"
#include "tools/report/report_sampled.h"

namespace quorvelctl {

/// Where the time went, by the verdict: how the hung thread spent it, its waits, who else ran, on what that
/// rests.
Html timeHtml(const ReportVerdict& verdict, const ReportHeader& header);

/// Where the hung thread was for how long; nothing if it was not sampled.
Html sampledHtml(const ReportSampled& sampled);

}  // namespace quorvelctl
