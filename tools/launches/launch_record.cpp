#include "tools/launches/launch_record.h"

#include <sys/stat.h>

#include <fstream>
#include <iterator>
#include <optional>
#include <thread>
#include <utility>

#include "tools/launches/activation.h"
#include "tools/preferences/preference_file.h"
#include "tools/preferences/preference_keys.h"

namespace quorvelctl {
namespace {

constexpr auto kLookEvery = std::chrono::microseconds(500);

/// What the boolean preference `key` is set to, under the name `storedAs`, in the list at `path`.
std::optional<bool> stored(const std::string& path, const std::string& key, const std::string& storedAs) {
  std::string error;
  const std::optional<PreferenceFile> file = PreferenceFile::load(path, error);
  const std::optional<StoredValue> value = file ? file->get(storedAs) : std::nullopt;
  if (!value) return std::nullopt;
  if (value->element == "true" || value->element == "false") return value->element == "true";
  const auto meant = typedValue(*findPreferenceKey(key), value->text, error);
  return meant ? std::optional(meant->element == "true") : std::nullopt;
}

}  // namespace

bool activationsAreRecorded(const Context& context) {
  const std::string preferences = context.path("/var/mobile/Library/Preferences/");
  const std::string managed = context.path("/Library/Managed Preferences/mobile/.GlobalPreferences.plist");
  const std::string logging = "QuorvelEnableAppActivationLogging";
  const std::string slow = "QuorvelSlowActKelvanesEnabled";  // instead of them
  const bool on = stored(preferences + "com.corvix.quorvel.plist", logging, logging).value_or(false);
  const auto slowOwn = stored(preferences + "com.corvix.telvo.plist", slow, slow);
  const auto slowManaged = stored(managed, slow, "QVProfile." + slow);
  return on && !slowManaged.value_or(slowOwn.value_or(false));
}

LaunchRecord::LaunchRecord(std::string path) : path_(std::move(path)) {
  struct stat status {};
  if (stat(path_.c_str(), &status) != 0) return;
  file_ = status.st_ino;
  offset_ = static_cast<uint64_t>(status.st_size);
}

bool LaunchRecord::appears(int32_t pid, uint64_t startMs, std::chrono::milliseconds limit) const {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (!isThere(pid, startMs)) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(kLookEvery);
  }
  return true;
}

bool LaunchRecord::isThere(int32_t pid, uint64_t startMs) const {
  struct stat status {};
  if (stat(path_.c_str(), &status) != 0) return false;
  const uint64_t from = status.st_ino == file_ ? offset_ : 0;
  if (static_cast<uint64_t>(status.st_size) <= from) return false;
  std::ifstream file(path_);
  file.seekg(static_cast<std::streamoff>(from));
  ActivationReader reader;
  reader.read(std::string(std::istreambuf_iterator<char>(file), {}));
  for (const Activation& activation : reader.activations()) {
    if (activation.isOf(pid, startMs)) return true;
  }
  return false;
}

}  // namespace quorvelctl
