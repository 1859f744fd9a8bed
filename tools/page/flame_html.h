#pragma once

#include "tools/page/html.h"
#include "tools/report/report_sampled.h"

namespace quorvelctl {

/// The sampled stacks as a flame graph, callers above what they call: lists within lists, each box as wide as
/// its share of the time, with a strip of what it did in it. A box tells its name and times by itself to who
/// points at it, tabs to it or doesn't see it; it needs no script. Nothing of a report without samples.
Html flameHtml(const ReportSampled& sampled);

}  // namespace quorvelctl
