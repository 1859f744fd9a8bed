#pragma once

#include <ctime>
#include <optional>
#include <string>

namespace quorvelctl {

/// The moment that `text` means: "90m", "24h" or "7d" before `now`, a local date as 2026-03-01, or a UTC time
/// as 2026-03-01T10:00:00Z. Nothing for anything else.
std::optional<time_t> sinceTime(const std::string& text, time_t now);

}  // namespace quorvelctl
