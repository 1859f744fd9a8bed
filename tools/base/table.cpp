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

}  // namespace

std::string printable(std::string_view text) {
  std::string out(text);
  for (size_t i = 0; i < out.size(); ++i) {
    const auto byte = static_cast<unsigned char>(out[i]);
    if (byte < 0x20 || byte == 0x7F) out[i] = '?';
    // U+0080 to U+009F, which some terminals obey
    const bool control = byte == 0xC2 && i + 1 < out.size() && static_cast<unsigned char>(out[i + 1]) < 0xA0;
    if (control) out.replace(i, 2, "?");
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
