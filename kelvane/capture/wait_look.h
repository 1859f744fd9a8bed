#pragma once

#include <sys/types.h>

#include <map>
#include <string>
#include <vector>

#include "kelvane/base/deadline.h"
#include "kelvane/base/proc_files.h"
#include "kelvane/capture/process_capture.h"

namespace kelvane {

/// The hung process, as it was before its threads were stopped for their copies.
struct LookedAt {
  pid_t pid = 0;
  std::string name;
  int dir = -1;                             // its directory in /proc
  const std::vector<ThreadFacts>& threads;  // the hung one first
};

struct LookedWaits {
  WaitGraph graph;
  std::map<pid_t, UniqueFd> dirs;  // of the other processes in it: each stays bound to the one looked at
};

/// Follows what the hung thread waits for through all processes, and publishes the graph as it finds it
/// (follow_waits.h); then watches its parties for kWatchTime. Returns it without what that has shown. Reads
/// memory of processes, which can block in the kernel for good.
LookedWaits lookAtWaits(const LookedAt& process, const Deadline& deadline, const PublishCapture& publish);

}  // namespace kelvane
