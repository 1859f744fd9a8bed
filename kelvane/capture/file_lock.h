#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

#include "kelvane/capture/descriptor_index.h"
#include "kelvane/capture/mounts.h"
#include "kelvane/waits/wait_graph.h"

namespace kelvane {

/// One line of /proc/locks, or of /proc/PID/fdinfo/FD behind "lock:".
struct FileLock {
  uint64_t number = 0;  // those who wait for a lock have its number
  bool waits = false;
  bool isFlock = false;  // flock(2): whoever has inherited the descriptor has it
  pid_t pid = 0;         // -1: it belongs to an open file, not to a process
  DeviceNumber device;
  uint64_t inode = 0;
};
/// Of either file. Pure; lines that are broken are left out.
std::vector<FileLock> parseFileLocks(std::string_view text);

/// The lock on a file that the party waits for in fcntl(2) or flock(2), and who has it. Nothing if it waits
/// for none.
std::optional<PartyWait> fileLockWait(int processDir, const WaitParty& party, DescriptorIndex& index);
/// The lock that the party has just asked for in vain, without waiting for it, by a call that it is said to
/// be in, and who has any lock on that file.
std::optional<PartyWait> fileLockTry(int processDir, const WaitParty& party, DescriptorIndex& index);

}  // namespace kelvane
