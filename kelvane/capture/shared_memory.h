#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>

#include "kelvane/waits/wait_graph.h"

namespace kelvane {

/// The thread of another process that is called `inside` in the PID namespace of the process of `processDir`,
/// if it has the memory at `address` in common with that. Nothing if there is none.
std::optional<WaitHolder> threadSharing(int processDir, uint64_t address, pid_t inside);

/// Whether the process of `processDir` may have the memory at `address` in common with others.
bool isSharedMemory(int processDir, uint64_t address);

}  // namespace kelvane
