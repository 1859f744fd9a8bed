#pragma once

#include <string>

#include "kelvane/report/report.h"

namespace kelvane {

/// Looks at what the request names and judges it. The process is looked at unless `notLooking` says why not;
/// then this process must be one that was started for this report (CaptureWorker).
Report makeReport(DumpRequest request, const std::string& notLooking);

}  // namespace kelvane
