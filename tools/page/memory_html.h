#pragma once

#include <string>
#include <vector>

#include "tools/memory/memory_report.h"

namespace quorvelctl {

/// Reports in order of time, at least one, as a page that needs nothing else: how the memory was used over
/// the time of all of them, what grows, and the last one in tables. Nothing of a report becomes markup in it.
std::string memoryPage(const std::vector<MemoryReport>& reports);

}  // namespace quorvelctl
