#include "platform/linux/preferences/preferences_store.h"

#include <stdio.h>
#include <sys/stat.h>

#include <utility>

#include "platform/linux/base/file_bytes.h"
#include "platform/linux/base/linux_log.h"
#include "platform/linux/base/root_path.h"

namespace quorveld::linux_platform {

namespace {

std::string pathOf(std::string_view domain) {
  return rooted("/var/mobile/Library/Preferences/" + std::string(domain) + ".plist");
}

/// Changes whenever the file does; empty when there is none.
std::string stampOf(const std::string& path) {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) return {};
  return std::to_string(status.st_dev) + ':' + std::to_string(status.st_ino) + ':' +
         std::to_string(status.st_size) + ':' + std::to_string(status.st_ctim.tv_sec) + '.' +
         std::to_string(status.st_ctim.tv_nsec);
}

/// Moves a broken file out of the way of a good one.
bool keepBroken(const std::string& path) {
  const std::string aside = path + ".broken";
  if (::rename(path.c_str(), aside.c_str()) != 0) {
    logDefault("Can't keep %s as %s: %s", path.c_str(), aside.c_str(), lastError().message().c_str());
    return false;
  }
  logDefault("Keeping the broken %s as %s", path.c_str(), aside.c_str());
  return true;
}

}  // namespace

std::optional<platform::PreferenceValue> LinuxPreferencesStore::value(std::string_view key,
                                                                      std::string_view domain) {
  Domain& values = domainNamed(domain);
  if (const auto own = values.pending.find(key); own != values.pending.end()) return own->second;
  const auto stored = values.onDisk.find(key);
  if (stored == values.onDisk.end()) return std::nullopt;
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
  for (auto& [name, other] : domains_) other.fresh = false;
  Domain& values = domainNamed(domain);
  if (!values.pending.empty()) writeBack(values, pathOf(domain));
}

platform::PreferenceDictionary LinuxPreferencesStore::managedDictionary(std::string_view path) {
  PropertyList list;
  read(rooted(path), list);
  platform::PreferenceDictionary dictionary;
  for (auto& [key, entry] : list) dictionary.emplace(key, std::move(entry.value));
  return dictionary;
}

LinuxPreferencesStore::Domain& LinuxPreferencesStore::domainNamed(std::string_view name) {
  auto found = domains_.find(name);
  if (found == domains_.end()) found = domains_.emplace(name, Domain{}).first;
  if (!found->second.fresh) load(found->second, pathOf(name));
  return found->second;
}

void LinuxPreferencesStore::load(Domain& domain, const std::string& path) {
  PropertyList list;
  domain.state = read(path, list);
  domain.fresh = true;
  if (domain.state != FileState::unreadable) domain.onDisk = std::move(list);
}

void LinuxPreferencesStore::writeBack(Domain& domain, const std::string& path) {
  if (domain.state == FileState::unreadable) return;
  PropertyList merged = domain.onDisk;
  for (const auto& [key, value] : domain.pending) {
    if (value) {
      merged.insert_or_assign(key, PropertyListEntry{*value, {}});
    } else {
      merged.erase(key);
    }
  }
  if (merged != domain.onDisk) {
    if (domain.state == FileState::broken && !keepBroken(path)) return;
    if (const std::error_code error = replaceFile(path, formatPropertyList(merged), Durability::synced)) {
      logDefault("Can't write preferences %s: %s", path.c_str(), error.message().c_str());
      return;
    }
    domain.onDisk = std::move(merged);
    domain.state = FileState::good;
  }
  domain.pending.clear();
}

LinuxPreferencesStore::FileState LinuxPreferencesStore::read(const std::string& path, PropertyList& list) {
  std::error_code error;
  const std::optional<std::string> text = readFile(path, kMaxPropertyListBytes, error);
  if (!text && error == std::errc::no_such_file_or_directory) {
    complaints_.erase(path);
    return FileState::missing;
  }
  if (!text) {
    complainOnce(path, error.message());
    return error == std::errc::file_too_large ? FileState::broken : FileState::unreadable;
  }
  auto parsed = parsePropertyList(*text);
  if (const auto* problem = std::get_if<PropertyListError>(&parsed)) {
    complainOnce(path, "line " + std::to_string(problem->line) + ": " + problem->reason);
    return FileState::broken;
  }
  complaints_.erase(path);
  list = std::get<PropertyList>(std::move(parsed));
  return FileState::good;
}

void LinuxPreferencesStore::complainOnce(const std::string& path, const std::string& reason) {
  std::string state = stampOf(path) + ' ' + reason;
  std::string& known = complaints_[path];
  if (known == state) return;
  known = std::move(state);
  logDefault("Unusable property list %s: %s", path.c_str(), reason.c_str());
}

}  // namespace quorveld::linux_platform
