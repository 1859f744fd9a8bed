#pragma once

#include <string>
#include <vector>

#include "kelvane/threads/memory_map.h"

namespace kelvane {

struct MemoryMap {
  /// Executable modules by ascending address, none overlapping.
  std::vector<MappedModule> modules;
  std::string problem;  // why it is not whole; empty: it is
};

/// Reads the map of the process whose directory in /proc is `processDir`.
MemoryMap readMemoryMap(int processDir);

}  // namespace kelvane
