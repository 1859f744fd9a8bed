#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools/memory/memory_cgroups.h"
#include "tools/memory/memory_report.h"

namespace quorvelctl {

/// A process at this moment. Names and command line may hold anything.
struct NowProcess {
  int32_t pid = 0;
  std::string user;
  std::string program;  ///< its file's name
  std::string name;     ///< the program, or the script that it runs with the program in parentheses
  std::string commandLine;
  std::string cgroup;
  uint64_t residentBytes = 0;
  uint64_t anonymousBytes = 0;
  uint64_t fileBytes = 0;    ///< resident of mapped files
  uint64_t sharedBytes = 0;  ///< resident of shared memory
  uint64_t swapBytes = 0;
  uint64_t hugeBytes = 0;
  uint64_t tableBytes = 0;
  bool isTwin = false;  ///< runs in the memory of a process that is listed before it

  // Where the shares may be read: proportional and unique set size, and what ending it would give back.
  std::optional<uint64_t> pssBytes;
  std::optional<uint64_t> ussBytes;
  std::optional<uint64_t> shareBytes;

  /// What ending it would give back; without leave to read shares an upper bound.
  uint64_t ownBytes() const {
    return isTwin ? 0 : shareBytes.value_or(anonymousBytes + swapBytes + hugeBytes);
  }
};

/// Something that memory is in and that processes may have together, with those that have it open or mapped.
struct SharedObject {
  std::string kind;  ///< "memfd", "file", "SysV", "mapping", "pipe"
  std::string name;
  uint64_t bytes = 0;
  std::vector<int32_t> pids;
};

struct TmpfsUse {
  std::string path;
  uint64_t usedBytes = 0;
  uint64_t sizeBytes = 0;  ///< 0: no limit
};

/// Where the machine's memory is at this moment.
struct MemoryNow {
  MemoryReport report;  ///< as a report would have it; its processes are those below
  std::vector<NowProcess> processes;
  std::vector<SharedObject> shared;  ///< largest first
  std::vector<TmpfsUse> tmpfs;       ///< those that hold something, largest first
  CgroupFigures cgroups;
  size_t refused = 0;  ///< processes whose shares and descriptors may not be read
};

/// Reads what is told to this user; nothing, and why, when not even /proc is there. Takes some milliseconds
/// for each hundred megabytes that processes have, for page tables are walked.
std::optional<MemoryNow> readMemoryNow(std::string& error);

}  // namespace quorvelctl
