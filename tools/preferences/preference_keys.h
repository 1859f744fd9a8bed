#pragma once

#include <cstdint>
#include <span>
#include <string_view>

namespace quorvelctl {

enum class PreferenceType {
  boolean,
  integer,
  real,
  positive,  ///< a real number above 0
  seconds,   ///< a real number whose whole part is one of the key's; as a text a whole number
};

/// A key that the daemon reads.
struct PreferenceKey {
  std::string_view name;
  std::string_view domain;
  PreferenceType type;
  int64_t least;  ///< of an integer, and of seconds
  int64_t most;
  std::string_view absent;  ///< what holds while the key is absent
  bool profile;             ///< the managed file's QVProfile entry wins over it
  std::string_view meaning;
};

/// All of them, by domain.
std::span<const PreferenceKey> preferenceKeys();

/// Null when the daemon knows no such key.
const PreferenceKey* findPreferenceKey(std::string_view name);

std::string_view typeName(PreferenceType type);

}  // namespace quorvelctl
