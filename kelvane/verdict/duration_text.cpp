#include "kelvane/verdict/duration_text.h"

#include <array>
#include <charconv>
#include <cstring>

namespace kelvane {

std::string decimal(double number) {
  std::array<char, 40> text;
  return {text.data(),
          std::to_chars(text.data(), text.data() + text.size(), number, std::chars_format::fixed, 1).ptr};
}

std::string ofDuration(uint64_t partNs, uint64_t wholeNs) {
  bool seconds = wholeNs >= 1'000'000'000;
  auto text = [&](uint64_t ns) {
    return seconds ? decimal(static_cast<double>(ns) / 1e9) : std::to_string((ns + 500'000) / 1'000'000);
  };
  std::string whole = text(wholeNs) + (seconds ? " s" : " ms");
  return text(partNs) == text(wholeNs) ? "all of " + whole : text(partNs) + " of " + whole;
}

std::string durationText(uint64_t ns) {
  return ofDuration(ns, ns).substr(strlen("all of "));
}

}  // namespace kelvane
