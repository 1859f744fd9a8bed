#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "kelvane/base/deadline.h"
#include "kelvane/base/omission.h"

namespace kelvane {

struct ThreadFacts;

/// A process that holds the other end of what a thread waits at.
struct Peer {
  pid_t pid = 0;
  std::string process;  // its comm
  std::string through;  // "pipe" or "Unix socket"
};

/// The peer that the thread of `facts` waits for: the call it is in reads from, writes to or polls a single
/// pipe or connected Unix socket. The thread's own process only if no other holds the other end. Nothing if
/// it waits for something else, or if the peer can't be told: files of other users' processes are not
/// permitted to all, and sockets of another network namespace are not seen; where the kernel can't be asked
/// about sockets at all, `omissions` says so.
std::optional<Peer> findPeer(int processDir, pid_t pid, const ThreadFacts& facts, const Deadline& deadline,
                             std::vector<Omission>& omissions);

}  // namespace kelvane
