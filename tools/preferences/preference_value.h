#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "tools/preferences/preference_keys.h"

namespace quorvelctl {

/// A value of a property list: its element's name ("true", "false", "integer", "real", "string", ...) and
/// text.
struct StoredValue {
  std::string element;
  std::string text;

  /// For people: the text, or the element's name when that says it all, or what it is when it is none of
  /// these.
  std::string shown() const;
};

/// `text`, as typed on a command line, as a value of the key's type. Nothing, and what is wrong with it,
/// otherwise; so for a value that the daemon would take and that means nothing, such as a limit below 0.
std::optional<StoredValue> typedValue(const PreferenceKey& key, std::string_view text, std::string& error);

/// Whether the daemon takes `value` for the key's: it is in range, booleans and numbers answer as each other,
/// a text as what it spells in full.
bool answers(const StoredValue& value, const PreferenceKey& key);

}  // namespace quorvelctl
