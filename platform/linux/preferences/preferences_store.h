#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "platform/linux/preferences/property_list_file.h"
#include "platform/preferences_store.h"

namespace quorveld::linux_platform {

/// Preferences as property lists, /var/mobile/Library/Preferences/DOMAIN.plist below the instance's root.
/// Work queue only.
///
/// A file is read when its domain is first asked for, and once at each `synchronise` of it; a managed file
/// each time. What becomes of one that is of no use says PropertyListFile. What was set and could not be
/// written stays set.
class LinuxPreferencesStore final : public platform::PreferencesStore {
 public:
  std::optional<platform::PreferenceValue> value(std::string_view key, std::string_view domain) override;
  void set(std::string_view key, platform::PreferenceValue value, std::string_view domain) override;
  void remove(std::string_view key, std::string_view domain) override;
  void synchronise(std::string_view domain) override;
  platform::PreferenceDictionary managedDictionary(std::string_view path) override;

 private:
  struct Domain {
    PropertyListFile file;
    std::map<std::string, std::optional<platform::PreferenceValue>, std::less<>> pending;  // nothing: removed
  };

  Domain& domainNamed(std::string_view name);
  static void writeBack(Domain& domain);

  std::map<std::string, Domain, std::less<>> domains_;
  std::map<std::string, PropertyListFile, std::less<>> managed_;  // by path
};

}  // namespace quorveld::linux_platform
