#pragma once

#include <sys/types.h>

#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "platform/linux/preferences/property_list.h"
#include "platform/preferences_store.h"

namespace quorveld::linux_platform {

/// Preferences as XML property lists, /var/mobile/Library/Preferences/DOMAIN.plist below the instance's root.
/// Work queue only.
///
/// Invariants: a file that doesn't parse acts as empty, is logged once for each state in which it is met, and
/// is renamed to DOMAIN.plist.broken before another takes its place; a file that can't be read is never
/// replaced, and the values at hand stay. What was set and could not be written stays set.
class LinuxPreferencesStore final : public platform::PreferencesStore {
 public:
  std::optional<platform::PreferenceValue> value(std::string_view key, std::string_view domain) override;
  void set(std::string_view key, platform::PreferenceValue value, std::string_view domain) override;
  void remove(std::string_view key, std::string_view domain) override;

  /// Of the other domains, those with nothing left to write are read again when next asked.
  void synchronise(std::string_view domain) override;

  platform::PreferenceDictionary managedDictionary(std::string_view path) override;

 private:
  enum class FileState { good, missing, broken, unreadable };

  struct Domain {
    PropertyList onDisk;
    FileState state = FileState::missing;
    bool fresh = false;  // `onDisk` need not be read before it is asked
    std::map<std::string, std::optional<platform::PreferenceValue>, std::less<>> pending;  // nothing: removed
  };

  Domain& domainNamed(std::string_view name);
  void load(Domain& domain, const std::string& path);
  void writeBack(Domain& domain, const std::string& path);
  FileState read(const std::string& path, PropertyList& list);
  void complainOnce(const std::string& path, const std::string& reason);

  std::map<std::string, Domain, std::less<>> domains_;
  std::map<std::string, std::string, std::less<>> complaints_;  // by path: the state that was complained of
};

}  // namespace quorveld::linux_platform
