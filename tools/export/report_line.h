#pragma once

#include <ctime>
#include <nlohmann/json_fwd.hpp>
#include <string>

#include "tools/report/report.h"

namespace quorvelctl {

/// A report as one flat object; a member that nothing is known of is null.
nlohmann::ordered_json reportLine(const Report& report, const std::string& fileName, time_t writtenAt,
                                  const std::string& device);

}  // namespace quorvelctl
