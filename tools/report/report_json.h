#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "tools/report/json_access.h"

namespace quorvelctl {

/// The JSON of a report but for its trace events, of which there may be hundreds of thousands: each goes to
/// `take`, and is forgotten. Nothing, and why, when `bytes` is no JSON.
std::optional<Json> parseReportJson(std::string_view bytes, const std::function<void(const Json&)>& take,
                                    std::string& error);

/// The member `metadata` of a report's JSON, without a look at what follows it: a report has it first. Null
/// when there is none; nothing, and why, when `bytes` is no JSON up to there.
std::optional<Json> parseMetadataJson(std::string_view bytes, std::string& error);

}  // namespace quorvelctl
