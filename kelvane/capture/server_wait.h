#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kelvane/capture/descriptor_index.h"
#include "kelvane/waits/wait_graph.h"

namespace kelvane {

/// One line of /proc/PID/mountinfo.
struct Mount {
  uint64_t id = 0;
  unsigned deviceMinor = 0;
  std::string point;
  std::string type;
  std::string source;
};
/// Pure; lines that are broken are left out.
std::vector<Mount> parseMounts(std::string_view text);
/// The mount that a path lies on: the last one of those whose point is its longest beginning. Null: none.
const Mount* mountOfPath(const std::vector<Mount>& mounts, std::string_view path);

/// The file system's server that the party waits for in the kernel: the process behind FUSE, or another
/// machine. Nothing if where it waits doesn't show that it does. Reads the process's memory, which can block
/// in the kernel, but asks no server.
std::optional<PartyWait> serverWait(int processDir, const WaitParty& party, DescriptorIndex& index);

}  // namespace kelvane
