#pragma once

#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <variant>

#include "platform/preferences_store.h"

namespace quorveld::linux_platform {

struct PropertyListEntry {
  platform::PreferenceValue value;
  /// For an OpaquePreference that was parsed: its element as XML, so that writing the list back loses
  /// nothing.
  std::string xml;

  bool operator==(const PropertyListEntry&) const = default;
};

/// A property list whose outermost value is a dictionary.
using PropertyList = std::map<std::string, PropertyListEntry, std::less<>>;

struct PropertyListError {
  std::string text;  // "line 3: the reason", or of a binary list "byte 120: the reason"
};

/// Reads a property list: XML in any encoding that it names, or binary. Booleans, numbers and texts become
/// values; dates, data, arrays, dictionaries and integers beyond 64 signed bits are opaque. The last one of a
/// key counts.
std::variant<PropertyList, PropertyListError> parsePropertyList(std::string_view bytes);

/// The list as XML, by key; what `parsePropertyList` reads back as the same list. An opaque value that was
/// never parsed has no text and is left out.
std::string formatPropertyList(const PropertyList& list);

}  // namespace quorveld::linux_platform
