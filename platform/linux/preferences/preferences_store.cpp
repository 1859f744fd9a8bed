#include "platform/linux/preferences/preferences_store.h"

#include <utility>

#include "platform/linux/base/root_path.h"

namespace quorveld::linux_platform {

namespace {

std::string pathOf(std::string_view domain) {
  return rooted("/var/mobile/Library/Preferences/" + std::string(domain) + ".plist");
}

}  // namespace

std::optional<platform::PreferenceValue> LinuxPreferencesStore::value(std::string_view key,
                                                                      std::string_view domain) {
  const Domain& values = domainNamed(domain);
  if (const auto own = values.pending.find(key); own != values.pending.end()) return own->second;
  const auto stored = values.file.values().find(key);
  if (stored == values.file.values().end()) return std::nullopt;
  return stored->second.value;
}

void LinuxPreferencesStore::set(std::string_view key, platform::PreferenceValue value,
                                std::string_view domain) {
  domainNamed(domain).pending.insert_or_assign(std::string(key), std::move(value));
}

void LinuxPreferencesStore::remove(std::string_view key, std::string_view domain) {
  domainNamed(domain).pending.insert_or_assign(std::string(key), std::nullopt);
}

void LinuxPreferencesStore::synchronise(std::string_view domain) {
  const bool known = domains_.contains(domain);
  Domain& values = domainNamed(domain);
  if (known) values.file.read();
  if (!values.pending.empty()) writeBack(values);
}

platform::PreferenceDictionary LinuxPreferencesStore::managedDictionary(std::string_view path) {
  PropertyListFile& file =
      managed_
          .try_emplace(std::string(path), PropertyListFile(rooted(path), PropertyListFile::OfNoUse::isEmpty))
          .first->second;
  file.read();
  platform::PreferenceDictionary dictionary;
  for (const auto& [key, entry] : file.values()) dictionary.emplace(key, entry.value);
  return dictionary;
}

LinuxPreferencesStore::Domain& LinuxPreferencesStore::domainNamed(std::string_view name) {
  const auto found = domains_.find(name);
  if (found != domains_.end()) return found->second;
  Domain& fresh =
      domains_
          .emplace(name, Domain{PropertyListFile(pathOf(name), PropertyListFile::OfNoUse::keepsValues), {}})
          .first->second;
  fresh.file.read();
  return fresh;
}

void LinuxPreferencesStore::writeBack(Domain& domain) {
  PropertyList merged = domain.file.values();
  for (const auto& [key, value] : domain.pending) {
    if (value) {
      merged.insert_or_assign(key, PropertyListEntry{*value, {}});
    } else {
      merged.erase(key);
    }
  }
  if (domain.file.write(std::move(merged))) domain.pending.clear();
}

}  // namespace quorveld::linux_platform
