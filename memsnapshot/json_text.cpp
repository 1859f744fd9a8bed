#include "memsnapshot/json_text.h"

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdint>
#include <cstdio>

#include "base/text.h"

namespace quorveld {

void appendFormatted(std::string& text, const char* format, ...) {
  std::array<char, 512> piece;  // names go through appendEscaped, so what is formatted here is short
  va_list arguments;
  va_start(arguments, format);
  const int length = std::vsnprintf(piece.data(), piece.size(), format, arguments);
  va_end(arguments);
  if (length > 0) text.append(piece.data(), std::min(static_cast<size_t>(length), piece.size() - 1));
}

void appendEscaped(std::string& text, std::string_view bytes) {
  for (const char c : toUtf8(bytes)) {
    if (c == '"' || c == '\\') {
      text += '\\';
      text += c;
    } else if (static_cast<uint8_t>(c) < 0x20) {
      appendFormatted(text, "\\u%04x", static_cast<unsigned>(static_cast<uint8_t>(c)));
    } else {
      text += c;
    }
  }
}

}  // namespace quorveld
