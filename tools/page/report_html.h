#pragma once

#include <string>

#include "tools/report/report.h"

namespace quorvelctl {

/// The report as one page that needs nothing else: verdict, timeline, stacks. Nothing of the report becomes
/// markup or script in it, whatever it holds.
std::string reportPage(const Report& report);

}  // namespace quorvelctl
