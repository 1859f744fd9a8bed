#pragma once

#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <variant>

#include "platform/preferences_store.h"

namespace quorveld::linux_platform {

/// The longest property list that is read, in bytes; parsing takes some twenty times as much for a moment.
inline constexpr size_t kMaxPropertyListBytes = size_t{1024} * 1024;

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
  size_t line;  // counted from 1
  std::string reason;
};

/// Reads an XML property list in UTF-8. Booleans, numbers and texts become values; dates, data, arrays,
/// dictionaries and integers beyond 64 signed bits are opaque. The last one of a key counts.
std::variant<PropertyList, PropertyListError> parsePropertyList(std::string_view text);

/// The list as XML, by key; what `parsePropertyList` reads back as the same list. An opaque value that was
/// never parsed has no text and is left out.
std::string formatPropertyList(const PropertyList& list);

}  // namespace quorveld::linux_platform
