#pragma once

#include <string>
#include <string_view>

namespace quorveld {

/// True when `bytes` are well-formed UTF-8 (no overlong form, no surrogate, nothing above U+10FFFF).
bool isUtf8(std::string_view bytes);

/// `bytes` with each byte that starts no well-formed UTF-8 sequence replaced by U+FFFD.
std::string toUtf8(std::string_view bytes);

/// `bytes` decoded as ASCII: each byte outside it replaced by U+FFFD.
std::string fromAscii(std::string_view bytes);

/// `text` without what is beyond `maxBytes`; a character that doesn't fit whole goes too.
std::string_view cutAtCharacter(std::string_view text, size_t maxBytes);

/// printf into a string. A null `%s` argument prints as "(null)".
[[gnu::format(printf, 1, 2)]] std::string formatted(const char* format, ...);

/// `name` made fit to be one component of a path: '/', control characters, what turns the direction of text
/// round or breaks lines, and a '.' or '-' at the start become '_', as does an empty name, and what is beyond
/// `maxBytes` is cut off at a character's border.
std::string fileNameComponent(std::string_view name, size_t maxBytes);

}  // namespace quorveld
