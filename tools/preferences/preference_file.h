#pragma once

#include <map>
#include <optional>
#include <pugixml.hpp>
#include <string>
#include <string_view>

#include "tools/preferences/preference_value.h"

namespace quorvelctl {

/// One property list whose outermost value is a dictionary. What isn't touched, comments and values of any
/// kind among it, stays as it was; a list that is not XML in UTF-8 becomes that.
class PreferenceFile {
 public:
  /// No bytes are an empty list. Nothing, and the place and the reason, when it is no such list.
  static std::optional<PreferenceFile> parse(std::string_view bytes, std::string& error);

  /// The file at `path`; a missing one is an empty list.
  static std::optional<PreferenceFile> load(const std::string& path, std::string& error);

  std::optional<StoredValue> get(std::string_view key) const;
  void set(std::string_view key, const StoredValue& value);
  /// Whether there was such a key.
  bool unset(std::string_view key);

  std::string text() const;

 private:
  PreferenceFile() = default;
  bool index(std::string& error, std::string_view text);

  pugi::xml_document document_;
  pugi::xml_node dictionary_;
  /// The values by key; of a key that comes twice the last, as the daemon takes it.
  std::map<std::string, pugi::xml_node, std::less<>> values_;
};

}  // namespace quorvelctl
