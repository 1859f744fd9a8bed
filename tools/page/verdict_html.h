#pragma once

#include "tools/page/html.h"
#include "tools/report/report.h"

namespace quorvelctl {

/// The verdict's part of a page: the sentence, how the time was spent, waits, who else ran, on what it rests.
Html verdictHtml(const ReportVerdict& verdict, const ReportHeader& header);

}  // namespace quorvelctl
