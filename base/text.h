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

/// `name` made fit to be one component of a path: '/', control characters and a leading '.' become '_', and
/// what is beyond `maxBytes` is cut off at a character's border.
std::string fileNameComponent(std::string_view name, size_t maxBytes);

}  // namespace quorveld
