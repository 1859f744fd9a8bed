#pragma once

#include <sys/types.h>

#include <array>
#include <vector>

#include "kelvane/base/deadline.h"
#include "kelvane/base/limits.h"
#include "kelvane/base/proc_files.h"
#include "kelvane/capture/findings_area.h"
#include "kelvane/capture/process_capture.h"

namespace kelvane {

/// Runs lookAtProcess (or lookAtLaunchSamples) in a process of its own, which starts a further one for
/// parsing (StackParsing), and one for each other process whose stacks it takes, one after the other: any may
/// crash, or be held up by the kernel for good, and what has been found by then is there all the same.
///
/// Both end with this process at the latest, unless the kernel holds them up. They keep no descriptor of this
/// process's but the standard error output, kLifeDescriptor and kSamplesDescriptor. Only for a process that
/// has no other child.
class CaptureWorker {
 public:
  explicit CaptureWorker(const CaptureTarget& target);
  CaptureWorker(const CaptureWorker&) = delete;
  CaptureWorker& operator=(const CaptureWorker&) = delete;

  /// Waits for the end of both, at most until `deadline`, and takes what was found by then. Call once.
  ProcessCapture take(const Deadline& deadline);

 private:
  [[noreturn]] void look(pid_t parent, int ended);
  /// False if they go on beyond the deadline.
  bool awaitEnd(const Deadline& deadline) const;
  /// Ends both, as far as the kernel lets them.
  void end() const;
  /// Adds what was made of the stacks of others.
  void takeOthers();
  /// Collects those that have ended (WNOHANG), or both (0), and says how those did that didn't do their part.
  void collect(int option);

  const CaptureTarget target_;
  FindingsArea look_;
  std::array<FindingsArea, 1 + kMaxOtherStacks> parsed_;  // by ParseStacks' numbers
  ProcessCapture capture_;
  pid_t lookPid_ = 0;
  std::vector<pid_t> collected_;
  UniqueFd ended_;  // readable, at its end, once both have ended
};

}  // namespace kelvane
