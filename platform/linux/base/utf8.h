#pragma once

#include <string>
#include <string_view>

namespace quorveld::linux_platform {

/// `bytes` with each byte that belongs to no well-formed UTF-8 sequence (RFC 3629) replaced by U+FFFD.
std::string wellFormedUtf8(std::string_view bytes);

}  // namespace quorveld::linux_platform
