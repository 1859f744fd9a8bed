#pragma once

#include <cstdint>
#include <map>
#include <string>

namespace quorveld::linux_platform {

/// Memory limits of control groups (cgroups(7)), as of one look at the processes: each group is read once in
/// the life of this object.
class MemoryCgroups {
 public:
  /// The lowest limit of the process's group and those above it, in MiB; -1: none, or not readable.
  /// `cgroups` as in process_sample: one process answers for all that share it.
  int32_t limitMiB(int32_t pid, uint64_t cgroups);

 private:
  std::map<uint64_t, int32_t> limitByCgroups_;
  std::map<std::string, int32_t> limitByGroup_;
};

}  // namespace quorveld::linux_platform
