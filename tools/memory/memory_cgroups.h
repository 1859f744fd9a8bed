#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>

namespace quorvelctl {

/// What version 2 of control groups (cgroups(7)) tells of one group and all below it.
struct CgroupMemory {
  uint64_t currentBytes = 0;
  uint64_t anonymousBytes = 0;
  uint64_t fileBytes = 0;  ///< shared memory not included
  uint64_t sharedBytes = 0;
  uint64_t kernelBytes = 0;
  uint64_t socketBytes = 0;
  uint64_t swapBytes = 0;
  std::optional<uint64_t> highBytes;  ///< nothing: no limit
  std::optional<uint64_t> maxBytes;
  uint64_t highEvents = 0;  ///< how often it was held back, met its limit, and lost a process to it
  uint64_t maxEvents = 0;
  uint64_t killEvents = 0;
};

/// By path below the mount, "/system.slice/cron.service".
using CgroupFigures = std::map<std::string, CgroupMemory>;

/// Of all groups below `mount` that account for memory; none where this is not version 2.
CgroupFigures readCgroups(const std::string& mount);

}  // namespace quorvelctl
