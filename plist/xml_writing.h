#pragma once

#include <string>
#include <string_view>

namespace plist {

/// `text` with what XML gives a meaning, and the control characters that a parser would change, as
/// references.
std::string escaped(std::string_view text);

/// The shortest text that reads back as `number`: "0.1", "inf", "nan".
std::string realText(double number);

}  // namespace plist
