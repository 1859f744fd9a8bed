#include "tools/base/table.h"

#include <algorithm>
#include <limits>
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

constexpr size_t kNarrowest = 60;
constexpr size_t kGap = 2;
constexpr size_t kIndent = 2;
constexpr size_t kContinued = 4;  ///< indentation of what didn't fit
size_t tableWidth = std::numeric_limits<size_t>::max();

/// Where each line of a row begins: the first column of every line.
std::vector<size_t> lineStarts(const std::vector<size_t>& widths, size_t room) {
  std::vector<size_t> starts{0};
  size_t used = 0;
  for (size_t i = 0; i < widths.size(); ++i) {
    if (i > starts.back() && used + widths[i] > room) {
      starts.push_back(i);
      used = kContinued;
    }
    used += widths[i] + kGap;
  }
  return starts;
}

/// Appends `text`, which begins in column `column`, broken at blanks where it leaves `room`.
void appendBroken(std::string& out, std::string_view text, size_t column, size_t room) {
  while (column + width(text) > room) {
    size_t taken = 0;  // up to the last blank within the room, or the first beyond
    for (size_t blank = text.find(' '); blank != std::string_view::npos; blank = text.find(' ', blank + 1)) {
      if (taken > 0 && column + width(text.substr(0, blank)) > room) break;
      taken = blank;
    }
    if (taken == 0) break;
    out += text.substr(0, taken);
    out += '\n' + std::string(kContinued, ' ');
    text.remove_prefix(taken + 1);
    column = kContinued;
  }
  out += text;
}

}  // namespace

void setTableWidth(size_t characters) {
  tableWidth = std::max(characters, kNarrowest);
}

std::string printable(std::string_view text) {
  std::string out;
  while (!text.empty()) {
    const size_t obeyed = obeyedLength(text);
    out += obeyed > 0 ? '?' : text[0];
    text.remove_prefix(obeyed > 0 ? obeyed : 1);
  }
  return out;
}

std::string shortened(std::string text, size_t maxBytes) {
  if (text.size() <= maxBytes) return text;
  while (maxBytes > 0 && (text[maxBytes] & 0xC0) == 0x80) --maxBytes;
  return text.substr(0, maxBytes) + "…";
}

std::string table(const std::vector<std::vector<std::string>>& rows) {
  std::vector<size_t> widths;
  for (const auto& row : rows) {
    widths.resize(std::max(widths.size(), row.size()));
    for (size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], width(row[i]));
  }
  const size_t room = tableWidth - kIndent;
  const std::vector<size_t> starts = lineStarts(widths, room);
  std::string text;
  for (const auto& row : rows) {
    size_t line = 0, column = 0;
    for (size_t i = 0; i < row.size(); ++i) {
      const bool endsLine = i + 1 == row.size() || (line + 1 < starts.size() && starts[line + 1] == i + 1);
      appendBroken(text, row[i], column, room);
      if (endsLine) {
        ++line;
        column = kContinued;
        text += i + 1 < row.size() ? '\n' + std::string(kContinued, ' ') : "\n";
      } else {
        text.append(widths[i] - width(row[i]) + kGap, ' ');
        column += widths[i] + kGap;
      }
    }
  }
  return text;
}

nlohmann::ordered_json textOrNull(const std::string& text) {
  return text.empty() ? nlohmann::ordered_json() : nlohmann::ordered_json(text);
}

std::string jsonText(const nlohmann::ordered_json& value) {
  return value.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + '\n';
}

}  // namespace quorvelctl
