#pragma once

#include <cstddef>
#include <string>
#include <string_view>

/// How often `what` stands in `text`.
inline size_t timesIn(const std::string& text, std::string_view what) {
  size_t count = 0;
  for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++count;
  return count;
}
