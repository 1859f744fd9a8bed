#include "platform/linux/preferences/property_list_file.h"

#include <stdio.h>
#include <sys/stat.h>

#include <optional>
#include <utility>

#include "platform/linux/base/file_bytes.h"
#include "platform/linux/base/linux_log.h"
#include "plist/limits.h"

namespace quorveld::linux_platform {

namespace {

/// Changes whenever the file does; empty when there is none.
std::string stampOf(const std::string& path) {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) return {};
  return std::to_string(status.st_dev) + ':' + std::to_string(status.st_ino) + ':' +
         std::to_string(status.st_size) + ':' + std::to_string(status.st_ctim.tv_sec) + '.' +
         std::to_string(status.st_ctim.tv_nsec);
}

}  // namespace

void PropertyListFile::read() {
  PropertyList list;
  std::string problem;
  state_ = look(list, problem);
  if (state_ != State::good) {
    if (ofNoUse_ == OfNoUse::isEmpty) {
      values_.clear();
      known_ = false;
    }
    complainOnce(problem);
    return;
  }
  values_ = std::move(list);
  known_ = true;
  complaint_.clear();
}

bool PropertyListFile::write(PropertyList values) {
  if (state_ == State::unreadable || (state_ == State::broken && known_)) return false;
  if (values == values_) return true;
  if (state_ == State::broken && !keepBroken()) return false;
  if (const std::error_code error = replaceFile(path_, formatPropertyList(values), Durability::synced)) {
    logDefault("Can't write preferences %s: %s", path_.c_str(), error.message().c_str());
    return false;
  }
  values_ = std::move(values);
  state_ = State::good;
  known_ = true;
  return true;
}

PropertyListFile::State PropertyListFile::look(PropertyList& list, std::string& problem) const {
  std::error_code error;
  const std::optional<std::string> bytes = readFile(path_, plist::kMaxBytes, error);
  if (!bytes && error == std::errc::no_such_file_or_directory) return State::good;
  if (!bytes) {
    problem = error.message();
    return error == std::errc::file_too_large ? State::broken : State::unreadable;
  }
  auto parsed = parsePropertyList(*bytes);
  if (auto* wrong = std::get_if<PropertyListError>(&parsed)) {
    problem = std::move(wrong->text);
    return State::broken;
  }
  list = std::get<PropertyList>(std::move(parsed));
  return State::good;
}

void PropertyListFile::complainOnce(const std::string& problem) {
  std::string state = stampOf(path_) + ' ' + problem;
  if (complaint_ == state) return;
  complaint_ = std::move(state);
  logDefault("Unusable property list %s: %s; %s", path_.c_str(), problem.c_str(),
             known_ ? "its last good values stay in force" : "it counts as empty");
}

/// Moves a broken file out of the way of a good one.
bool PropertyListFile::keepBroken() const {
  const std::string aside = path_ + ".broken";
  if (::rename(path_.c_str(), aside.c_str()) != 0) {
    logDefault("Can't keep %s as %s: %s", path_.c_str(), aside.c_str(), lastError().message().c_str());
    return false;
  }
  logDefault("Keeping the broken %s as %s", path_.c_str(), aside.c_str());
  return true;
}

}  // namespace quorveld::linux_platform
