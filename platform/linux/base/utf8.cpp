#include "platform/linux/base/utf8.h"

#include <algorithm>

namespace quorveld::linux_platform {

namespace {

/// The length of the well-formed UTF-8 sequence at the start of `bytes` (RFC 3629); 0 when there is none.
size_t sequenceLength(std::string_view bytes) {
  const auto at = [&](size_t index) { return static_cast<unsigned char>(bytes[index]); };
  const unsigned char lead = at(0);
  if (lead < 0x80) return 1;
  const size_t length = lead < 0xC2 ? 0 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : lead < 0xF5 ? 4 : 0;
  if (length == 0 || bytes.size() < length) return 0;
  // The second byte alone tells overlong forms, surrogates and what is beyond U+10FFFF.
  const unsigned char low = lead == 0xE0 ? 0xA0 : lead == 0xF0 ? 0x90 : 0x80;
  const unsigned char high = lead == 0xED ? 0x9F : lead == 0xF4 ? 0x8F : 0xBF;
  if (at(1) < low || at(1) > high) return 0;
  for (size_t i = 2; i < length; ++i) {
    if ((at(i) & 0xC0U) != 0x80) return 0;
  }
  return length;
}

}  // namespace

std::string wellFormedUtf8(std::string_view bytes) {
  std::string text;
  while (!bytes.empty()) {
    const size_t length = sequenceLength(bytes);
    text += length > 0 ? bytes.substr(0, length) : std::string_view("\xEF\xBF\xBD");
    bytes.remove_prefix(std::max<size_t>(length, 1));
  }
  return text;
}

}  // namespace quorveld::linux_platform
