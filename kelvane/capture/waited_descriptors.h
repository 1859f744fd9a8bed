#pragma once

#include <sys/types.h>

#include <vector>

#include "kelvane/base/proc_text.h"

namespace kelvane {

/// A descriptor that a call waits at, and in which direction.
struct WaitedDescriptor {
  int fd = -1;
  bool writing = false;
};

struct WaitedDescriptors {
  std::vector<WaitedDescriptor> all;
  bool isAny = false;  // it waits until something happens at any of them: poll, select, epoll
};

/// Those of a call that a thread of the process is in; none of a call that waits at none. Reads the process's
/// memory, which can block in the kernel.
WaitedDescriptors waitedDescriptors(int processDir, pid_t pid, const SystemCall& call);

}  // namespace kelvane
