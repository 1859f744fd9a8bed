#pragma once

#include <optional>
#include <vector>

#include "tools/base/context.h"
#include "tools/report/report_text.h"

namespace quorvelctl {

inline constexpr const char* kSpool = "/var/root/Library/Caches/quorveld/spool";
inline constexpr const char* kNoReport =
    "no report yet; with QuorvelEnabled and QuorvelEnableKelvane set the daemon files them";

/// The spool's reports without their headers, oldest first. Nothing when it can't be read, which has been
/// told.
std::optional<std::vector<ReportEntry>> spoolEntries(Context& context);

}  // namespace quorvelctl
