#pragma once

#include "tools/page/html.h"
#include "tools/report/report.h"

namespace quorvelctl {

/// How a launch went: what it took its time for, its phases and processes. Empty of a report that tells
/// nothing of that.
Html launchHtml(const Report& report);

}  // namespace quorvelctl
