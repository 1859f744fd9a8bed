#pragma once

#include <cstdint>
#include <map>
#include <string>

namespace quorveld::linux_platform {

/// Memory limits of control groups (cgroups(7)), each group read once in the life of this object.
class MemoryCgroups {
 public:
  /// The lowest limit of the process's group and those above it, in MiB; -1: none, or not readable.
  int32_t limitMiB(int32_t pid);

 private:
  std::map<std::string, int32_t> limitByGroup_;
};

}  // namespace quorveld::linux_platform
