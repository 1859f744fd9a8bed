#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>
#include <vector>

namespace quorvelctl {

/// `text` fit for a terminal: control characters and marks of direction, which names from applications may
/// hold, become '?'.
std::string printable(std::string_view text);

/// `text`, or its beginning of at most `maxBytes` with "…" behind it, whole characters only.
std::string shortened(std::string text, size_t maxBytes);

/// How wide tables may be, in characters, from now on: a terminal's width, or 60 where that is narrower. At
/// first, and for what isn't shown on a terminal, as wide as they come out: one line a row.
void setTableWidth(size_t characters);

/// Rows of texts as lines of columns, two blanks apart, each as wide as its widest text; the last one isn't
/// padded. The first row is the heading. Where a row is too wide, the columns that don't fit follow on lines
/// of their own, indented; what is wider than a whole line is broken at blanks. Room for two blanks is left,
/// for whoever indents the lines.
std::string table(const std::vector<std::vector<std::string>>& rows);

/// `text`, or null where there is none.
nlohmann::ordered_json textOrNull(const std::string& text);

/// `value` on one or more lines with a line break at the end; what is no UTF-8 in it is replaced.
std::string jsonText(const nlohmann::ordered_json& value);

}  // namespace quorvelctl
