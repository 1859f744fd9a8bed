#include "platform/linux/host/os_release.h"

#include <algorithm>
#include <optional>

namespace quorveld::linux_platform {

namespace {

std::string_view withoutBlanks(std::string_view text) {
  constexpr std::string_view kBlanks = " \t\r";
  const size_t first = text.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

bool isName(std::string_view text) {
  const auto allowed = [](char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_';
  };
  return !text.empty() && std::all_of(text.begin(), text.end(), allowed);
}

/// The shell's quoting as far as os-release(5) allows it: one quoted or unquoted word; a backslash takes the
/// next character as it is, save within single quotes.
std::optional<std::string> unquoted(std::string_view text) {
  const char quote = text.empty() ? '\0' : text.front();
  const bool quoted = quote == '"' || quote == '\'';
  if (quoted) {
    text.remove_prefix(1);
    if (text.empty() || text.back() != quote) return std::nullopt;
    text.remove_suffix(1);
  }
  std::string value;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\\' && quote != '\'' && i + 1 < text.size()) ++i;
    value += text[i];
  }
  return value;
}

}  // namespace

std::map<std::string, std::string, std::less<>> parseOsRelease(std::string_view text) {
  std::map<std::string, std::string, std::less<>> values;
  while (!text.empty()) {
    const size_t end = std::min(text.find('\n'), text.size());
    const std::string_view line = withoutBlanks(text.substr(0, end));
    text.remove_prefix(std::min(end + 1, text.size()));

    const size_t equals = line.find('=');
    if (equals == std::string_view::npos || !isName(line.substr(0, equals))) continue;
    if (std::optional<std::string> value = unquoted(line.substr(equals + 1))) {
      values.insert_or_assign(std::string(line.substr(0, equals)), *std::move(value));
    }
  }
  return values;
}

}  // namespace quorveld::linux_platform
