#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace plist {

/// An XML text in UTF-8. Its encoding is what the byte order mark says, or its first bytes, or its
/// declaration; without any of these it is UTF-8, and a text in UTF-8 stays as it stands. What was converted
/// says UTF-8 in its declaration.
///
/// Nothing, and "line 3: the reason" in `error`, when the C library doesn't know the encoding, the text isn't
/// in it, or its result is longer than kMaxBytes.
std::optional<std::string> textInUtf8(std::string_view bytes, std::string& error);

}  // namespace plist
