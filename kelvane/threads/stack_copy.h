#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "kelvane/threads/thread_copier.h"

namespace kelvane {

/// The registers of a stopped thread and the stack above its stack pointer.
struct StackCopy {
  UnwindRegisters registers;
  uint64_t base = 0;  // address of bytes[0]
  std::vector<std::byte> bytes;
  uint64_t atNs = 0;
  uint32_t stoppedUs = 0;
};

struct StackOutcome {
  pid_t tid = 0;
  std::optional<StackCopy> copy;
  std::string failure;          // why there is no copy
  bool processRefused = false;  // the failure holds for every thread of the process
};

/// Copies stacks of the process behind `processDir`, in order, each thread stopped only while it is copied.
///
/// Returns the outcomes of the first threads of `tids`, at least one if there is any: it ends early when
/// enough bytes are held, after a thread that could not be copied, and at the deadline. Once it returns, none
/// of the threads is traced or stopped by it, and none ever was for longer than kCopyLimit; one that a signal
/// had stopped before is so again.
std::vector<StackOutcome> copyStacks(int processDir, pid_t pid, std::span<const pid_t> tids, pid_t hungThread,
                                     const Deadline& deadline);

}  // namespace kelvane
