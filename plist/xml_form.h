#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace plist {

/// The property list in `bytes`, of any form, as XML in UTF-8: a binary list written anew, a text in another
/// encoding converted, with the declaration naming UTF-8 then; anything else as it stands, be it XML or not.
/// Lines are those of `bytes`.
///
/// Nothing, and "line 3: the reason" or "byte 120: the reason" in `error`, when it can't be had or is longer
/// than kMaxBytes.
std::optional<std::string> xmlForm(std::string_view bytes, std::string& error);

}  // namespace plist
