#pragma once

#include <ctime>
#include <optional>
#include <string>
#include <vector>

#include "tools/base/context.h"
#include "tools/report/report_list.h"

namespace quorvelctl {

inline constexpr const char* kSpool = "/var/root/Library/Caches/quorveld/spool";
inline constexpr const char* kNoReport =
    "no report yet; with QuorvelEnabled and QuorvelEnableKelvane set the daemon files them";

/// The spool's reports without their metadata, oldest first. Nothing when it can't be read, which has been
/// told.
std::optional<std::vector<ReportEntry>> spoolEntries(Context& context);

/// The moment that the option --since means, the beginning of time if it isn't given. Nothing when it means
/// none, which has been told.
std::optional<time_t> sinceOption(Context& context, const std::string& since);

}  // namespace quorvelctl
