#pragma once

#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "tools/base/context.h"
#include "tools/memory/memory_report.h"

namespace quorvelctl {

inline constexpr const char* kNoMemoryReport =
    "no memory report yet; QuorvelEnableMemoryLogging has the daemon write them";

// The folder of the daemon's memory reports. What can't be read has been told when these return.

/// The reports' paths by the time in their names, in hours as hoursOf tells.
std::multimap<double, std::string> memoryReportPaths(Context& context);

/// Says that there is no report yet.
void tellNoMemoryReport(const Context& context);

/// Reads a report by its path, its name in the folder, or, without a name, the newest; nothing when it can't
/// be.
std::optional<MemoryReport> readMemoryReport(Context& context, const std::string& name);

/// The reports that are no older than `hours` before the newest, in order of time, evenly thinned to `most`;
/// one that can't be read is left out.
std::vector<MemoryReport> memoryReportsSince(Context& context, double hours, size_t most);

}  // namespace quorvelctl
