#pragma once

#include "tools/page/html.h"
#include "tools/report/report.h"

namespace quorvelctl {

/// Where the time went, by the verdict: how the hung thread spent it, its waits, who else ran, on what that
/// rests.
Html timeHtml(const ReportVerdict& verdict, const ReportHeader& header);

}  // namespace quorvelctl
