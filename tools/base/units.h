#pragma once

#include <cstdint>
#include <ctime>
#include <string>

namespace quorvelctl {

/// `value` with so many digits behind the point.
std::string fixed(double value, int digits);

/// "7.50 s", "401 ms" below a second, "0.15 ms" below a millisecond; "unknown" below 0, where a
/// client's clock or its end was wrong.
std::string durationText(double ms);
/// "2026-03-01T10:00:00Z".
std::string utcTime(time_t time);
/// "512 B", "12 KB", "3.4 MB", "1.25 GB".
std::string sizeText(uint64_t bytes);

}  // namespace quorvelctl
