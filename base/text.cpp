#include "base/text.h"

#include <cstdarg>
#include <cstdint>
#include <cstdio>

namespace quorveld {

namespace {

constexpr std::string_view kReplacement = "\xEF\xBF\xBD";  // U+FFFD

bool isContinuation(char c) {
  return (static_cast<uint8_t>(c) & 0xC0) == 0x80;
}

/// Length in bytes of the well-formed sequence at the start of `bytes`; 0 when there is none.
size_t sequenceLength(std::string_view bytes) {
  const auto lead = static_cast<uint8_t>(bytes[0]);
  if (lead < 0x80) return 1;
  const size_t length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
  if (lead < 0xC2 || lead > 0xF4 || bytes.size() < length) return 0;
  for (size_t i = 1; i < length; ++i) {
    if (!isContinuation(bytes[i])) return 0;
  }
  const auto second = static_cast<uint8_t>(bytes[1]);
  if (lead == 0xE0 && second < 0xA0) return 0;  // overlong
  if (lead == 0xED && second > 0x9F) return 0;  // surrogate
  if (lead == 0xF0 && second < 0x90) return 0;  // overlong
  if (lead == 0xF4 && second > 0x8F) return 0;  // above U+10FFFF
  return length;
}

/// Length in bytes of the character at the start of `text` if it is one that terminals or readers obey rather
/// than show: U+0000 to U+001F, U+007F to U+009F, the marks of direction and the line separators; else 0.
size_t controlLength(std::string_view text) {
  const auto at = [&](size_t i) { return i < text.size() ? static_cast<uint8_t>(text[i]) : uint8_t{0}; };
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

bool isUtf8(std::string_view bytes) {
  while (!bytes.empty()) {
    const size_t length = sequenceLength(bytes);
    if (length == 0) return false;
    bytes.remove_prefix(length);
  }
  return true;
}

std::string toUtf8(std::string_view bytes) {
  std::string text;
  text.reserve(bytes.size());
  while (!bytes.empty()) {
    const size_t length = sequenceLength(bytes);
    text += length == 0 ? kReplacement : bytes.substr(0, length);
    bytes.remove_prefix(length == 0 ? 1 : length);
  }
  return text;
}

std::string fromAscii(std::string_view bytes) {
  std::string text;
  text.reserve(bytes.size());
  for (const char c : bytes) {
    if (static_cast<uint8_t>(c) < 0x80) {
      text += c;
    } else {
      text += kReplacement;
    }
  }
  return text;
}

std::string_view cutAtCharacter(std::string_view text, size_t maxBytes) {
  if (text.size() <= maxBytes) return text;
  size_t border = maxBytes;
  while (border > 0 && isContinuation(text[border])) --border;
  return text.substr(0, border);
}

std::string formatted(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  va_list again;
  va_copy(again, arguments);
  const int length = std::vsnprintf(nullptr, 0, format, arguments);
  va_end(arguments);
  std::string text(length > 0 ? static_cast<size_t>(length) : 0, '\0');
  if (length > 0) std::vsnprintf(text.data(), text.size() + 1, format, again);
  va_end(again);
  return text;
}

std::string fileNameComponent(std::string_view name, size_t maxBytes) {
  std::string_view left = cutAtCharacter(name, maxBytes);
  std::string component;
  while (!left.empty()) {
    const size_t control = controlLength(left);
    const bool misleads = left[0] == '/' || (component.empty() && (left[0] == '.' || left[0] == '-'));
    component += control > 0 || misleads ? '_' : left[0];
    left.remove_prefix(control > 0 ? control : 1);
  }
  return component.empty() ? "_" : component;
}

}  // namespace quorveld
