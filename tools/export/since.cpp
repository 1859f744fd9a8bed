#include "tools/export/since.h"

#include <charconv>

namespace quorvelctl {
namespace {

constexpr int64_t kMaxAgo = 1'000'000;  ///< of any unit: what lies further back is everything

std::optional<time_t> secondsOf(char unit) {
  switch (unit) {
    case 'm':
      return 60;
    case 'h':
      return 3600;
    case 'd':
      return 24 * 3600;
    case 'w':
      return 7 * 24 * 3600;
    default:
      return std::nullopt;
  }
}

}  // namespace

std::optional<time_t> secondsOfSpan(std::string_view text) {
  if (text.empty()) return std::nullopt;
  int64_t count = 0;
  const auto [stop, error] = std::from_chars(text.data(), text.data() + text.size(), count);
  const std::optional<time_t> unit = secondsOf(text.back());
  if (error != std::errc() || stop != text.data() + text.size() - 1 || !unit) return std::nullopt;
  if (count < 0 || count > kMaxAgo) return std::nullopt;
  return count * *unit;
}

std::optional<time_t> sinceTime(const std::string& text, time_t now) {
  tm parts{};
  const char* end = strptime(text.c_str(), "%Y-%m-%dT%H:%M:%SZ", &parts);
  if (end && *end == '\0') return timegm(&parts);
  parts = {};
  end = strptime(text.c_str(), "%Y-%m-%d", &parts);
  parts.tm_isdst = -1;
  if (end && *end == '\0') return mktime(&parts);
  const std::optional<time_t> ago = secondsOfSpan(text);
  return ago ? std::optional(now - *ago) : std::nullopt;
}

}  // namespace quorvelctl
