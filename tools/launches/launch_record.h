#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "tools/base/context.h"

namespace quorvelctl {

/// Whether the daemon records activations, as far as its preferences tell.
bool activationsAreRecorded(const Context& context);

/// Waits for one activation to appear in the daemon's log.
class LaunchRecord {
 public:
  /// Looks at what is appended to the log at `path` from now on.
  explicit LaunchRecord(std::string path);

  /// Whether the activation of process `pid` that began at `startMs` is there within `limit`.
  bool appears(int32_t pid, uint64_t startMs, std::chrono::milliseconds limit) const;

 private:
  bool isThere(int32_t pid, uint64_t startMs) const;

  std::string path_;
  uint64_t file_ = 0;    ///< its inode number; another one, a new file, is looked at from the beginning on
  uint64_t offset_ = 0;  ///< bytes
};

}  // namespace quorvelctl
