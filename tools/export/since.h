#pragma once

#include <ctime>
#include <optional>
#include <string>
#include <string_view>

namespace quorvelctl {

/// Seconds of "90m", "24h", "7d" or "2w"; nothing for anything else.
std::optional<time_t> secondsOfSpan(std::string_view text);

/// The moment that `text` means: "90m", "24h", "7d" or "2w" before `now`, a local date as 2026-03-01, or a
/// UTC time as 2026-03-01T10:00:00Z. Nothing for anything else.
std::optional<time_t> sinceTime(const std::string& text, time_t now);

}  // namespace quorvelctl
