#pragma once

#include <optional>

#include "kelvane/capture/descriptor_index.h"
#include "kelvane/waits/wait_graph.h"

namespace kelvane {

/// The file system's server that the party waits for in the kernel: the process behind FUSE, or another
/// machine. Nothing if where it waits doesn't show that it does. Reads the process's memory, which can block
/// in the kernel, but asks no server.
std::optional<PartyWait> serverWait(int processDir, const WaitParty& party, DescriptorIndex& index);

}  // namespace kelvane
