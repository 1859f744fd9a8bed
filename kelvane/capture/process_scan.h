#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "kelvane/base/deadline.h"
#include "kelvane/base/omission.h"

namespace kelvane {

/// A process whose main thread was not asleep: running, or in uninterruptible sleep.
struct AwakeProcess {
  pid_t pid = 0;
  std::string comm;
  char state = '?';
  std::string waitChannel;
};

struct ProcessScan {
  size_t processCount = 0;
  std::vector<AwakeProcess> awake;
  std::vector<Omission> omissions;
};

/// Looks at all processes but those of this session, which make the report. Reads only files of /proc that
/// need no lock of the process looked at, so a stuck process never holds this up.
ProcessScan scanProcesses(const Deadline& deadline);

}  // namespace kelvane
