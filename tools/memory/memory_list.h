#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools/memory/memory_report.h"

namespace quorvelctl {

/// What a list says of a report.
struct MemoryListEntry {
  std::string fileName;
  uint64_t fileBytes = 0;
  std::string timestamp;
  int64_t boot = 0;  ///< 0: of the same start of the machine as the newest, -1: of the one before
  std::optional<uint64_t>
      totalBytes;  ///< that the kernel hands out; like the next nothing without an account
  std::optional<uint64_t> freeBytes;
  std::string biggest;  ///< the process with the largest footprint; empty: there is none
  uint64_t biggestBytes = 0;
  std::optional<uint64_t> faults;  ///< since the start
};

/// Of one report; `boot` takes all of them.
MemoryListEntry listEntryOf(const MemoryReport& report);

/// Sets `boot` of each of `entries`, which are in order of time.
void tellBoots(std::vector<MemoryListEntry>& entries);

/// In order of time; `older` more are not among them.
std::string memoryListText(const std::vector<MemoryListEntry>& entries, size_t older);

}  // namespace quorvelctl
