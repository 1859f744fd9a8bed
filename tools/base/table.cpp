#include "tools/base/table.h"

#include <algorithm>
#include <nlohmann/json.hpp>

namespace quorvelctl {
namespace {

/// Characters, counting the bytes that start one.
size_t width(std::string_view text) {
  return static_cast<size_t>(
      std::count_if(text.begin(), text.end(), [](char c) { return (c & 0xC0) != 0x80; }));
}

/// Length in bytes of the character at the start of `text` if terminals may obey it rather than show it:
/// control characters (U+0080 to U+009F among them), marks that turn the direction of text round, line
/// separators; else 0.
size_t obeyedLength(std::string_view text) {
  const auto at = [&](size_t i) { return i < text.size() ? static_cast<unsigned char>(text[i]) : 0U; };
  if (at(0) < 0x20 || at(0) == 0x7F) return 1;
  if (at(0) == 0xC2 && at(1) >= 0x80 && at(1) <= 0x9F) return 2;
  if (at(0) == 0xD8 && at(1) == 0x9C) return 2;  // U+061C
  if (at(0) != 0xE2) return 0;
  const bool obeyed = (at(1) == 0x80 && (at(2) == 0x8E || at(2) == 0x8F)) ||  // U+200E, U+200F
                      (at(1) == 0x80 && at(2) >= 0xA8 && at(2) <= 0xAE) ||    // U+2028 to U+202E
                      (at(1) == 0x81 && at(2) >= 0xA6 && at(2) <= 0xA9);      // U+2066 to U+2069
  return obeyed ? 3 : 0;
}

}  // namespace

std::string printable(std::string_view text) {
  std::string out;
  while (!text.empty()) {
    const size_t obeyed = obeyedLength(text);
    out += obeyed > 0 ? '?' : text[0];
    text.remove_prefix(obeyed > 0 ? obeyed : 1);
  }
  return out;
}

std::string table(const std::vector<std::vector<std::string>>& rows) {
  std::vector<size_t> widths;
  for (const auto& row : rows) {
    widths.resize(std::max(widths.size(), row.size()));
    for (size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], width(row[i]));
  }
  std::string text;
  for (const auto& row : rows) {
    for (size_t i = 0; i < row.size(); ++i) {
      text += row[i];
      if (i + 1 < row.size()) text.append(widths[i] - width(row[i]) + 2, ' ');
    }
    text += '\n';
  }
  return text;
}

std::string jsonText(const nlohmann::ordered_json& value) {
  return value.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + '\n';
}

}  // namespace quorvelctl
