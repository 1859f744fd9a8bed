#pragma once

#include <ctime>
#include <nlohmann/json_fwd.hpp>
#include <string>

#include "tools/report/report.h"

namespace quorvelctl {

/// Who kept the hung thread waiting in the end, going by the verdict's chain, or else the innermost function
/// of the hung thread. Empty when nobody is known.
std::string culpritOf(const Report& report);

/// A report as one flat object; a member that nothing is known of is null.
nlohmann::ordered_json reportLine(const Report& report, const std::string& fileName, time_t writtenAt,
                                  const std::string& device);

}  // namespace quorvelctl
