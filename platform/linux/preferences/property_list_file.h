#pragma once

#include <string>
#include <utility>

#include "platform/linux/preferences/property_list.h"

namespace quorveld::linux_platform {

/// One property-list file and the last good look at it. Work queue only.
///
/// Invariants: a file that is missing is empty; one that can't be read or is broken is empty too or changes
/// nothing in `values` (OfNoUse), which are empty before the first good look; each state of it in which it is
/// of no use is logged once. It is never replaced while it is of no use, save for one that is broken and was
/// never good: that one is renamed to PATH.broken when another takes its place.
class PropertyListFile {
 public:
  /// What becomes of `values` when the file can't be read or is broken.
  enum class OfNoUse { keepsValues, isEmpty };

  PropertyListFile(std::string path, OfNoUse ofNoUse) : path_(std::move(path)), ofNoUse_(ofNoUse) {}

  /// Looks at the file anew.
  void read();

  const PropertyList& values() const { return values_; }

  /// Puts `values` into the file's place, if they aren't what it holds. False, and logged where that is news,
  /// when it must stay or can't be written.
  bool write(PropertyList values);

 private:
  enum class State { good, broken, unreadable };

  State look(PropertyList& list, std::string& problem) const;
  void complainOnce(const std::string& problem);
  bool keepBroken() const;

  std::string path_;
  OfNoUse ofNoUse_;
  PropertyList values_;
  State state_ = State::unreadable;
  bool known_ = false;     // `values_` are of a good look
  std::string complaint_;  // the state that was complained of
};

}  // namespace quorveld::linux_platform
