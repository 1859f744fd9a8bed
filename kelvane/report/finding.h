#pragma once

#include "abi/kelvane.h"
#include "kelvane/report/report.h"

namespace kelvane {

/// The verdict in short, for logs. All empty without one.
kelvane_finding findingOf(const Report& report);

/// What `fd` holds, which `writeFinding` has written; all empty if that is no finding.
kelvane_finding readFinding(int fd);
void writeFinding(int fd, const kelvane_finding& finding);

}  // namespace kelvane
