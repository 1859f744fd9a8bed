#include "plist/xml_writing.h"

#include <array>
#include <charconv>

namespace plist {

std::string escaped(std::string_view text) {
  std::string result;
  for (const char c : text) {
    if (c == '&') {
      result += "&amp;";
    } else if (c == '<') {
      result += "&lt;";
    } else if (c == '>') {
      result += "&gt;";
    } else if (static_cast<unsigned char>(c) < ' ' && c != '\n' && c != '\t') {
      result += "&#" + std::to_string(c) + ";";
    } else {
      result += c;
    }
  }
  return result;
}

std::string realText(double number) {
  std::array<char, 32> digits;
  const auto result = std::to_chars(digits.data(), digits.data() + digits.size(), number);
  return {digits.data(), result.ptr};
}

}  // namespace plist
