#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <vector>

#include "kelvane/base/deadline.h"
#include "kelvane/capture/captured_process.h"
#include "kelvane/sampling/perf_records.h"
#include "kelvane/threads/memory_map.h"
#include "kelvane/threads/stack_copy.h"

namespace kelvane {

/// What to capture.
struct CaptureTarget {
  pid_t pid = 0;
  int64_t threadId = 0;
  bool symbolicate = false;
  int samplesSocket = -1;     // over which the hung thread's samples come, if there are any; the caller's
  bool samplesAlone = false;  // nothing else is wanted (lookAtLaunchSamples)
};

struct CopiedStack {
  pid_t tid = 0;
  StackCopy copy;
};

struct CopiedSample {
  ThreadSample sample;
  std::vector<std::string> kernelFrames;  // as in SampledStack
};

/// What was copied of a process's threads, to be unwound.
struct CopiedStacks {
  std::vector<CopiedStack> looks;
  std::vector<CopiedSample> samples;  // of the hung thread
};

/// Takes over a part of the capture that has been found (findings.h).
using PublishCapture = std::function<void(const ProcessCapture& part)>;

/// What was copied of one process.
struct CopiedProcess {
  pid_t pid = 0;
  int dir = -1;  // its directory in /proc
  const std::vector<MappedModule>& modules;
  const CopiedStacks& stacks;
};

/// Makes frames of what was copied; returns at `deadline` at the latest. `number`: 0 for the process that is
/// looked at, then 1 more than the thread's place in ProcessCapture::others.
using ParseStacks =
    std::function<void(size_t number, const CopiedProcess& process, const Deadline& deadline)>;

/// Looks at the process and publishes each finding when it is made, the hung thread's first.
///
/// May block for good where the kernel holds up a look at the process (a mapped file on a dead server, a
/// memory map that a stuck thread has locked), so it runs in a process that can be left behind. It reads no
/// byte of the process's files, and never leaves one of its threads stopped or traced. The same goes for the
/// threads of other processes that it leads to, of which at most kMaxOtherStacks are stopped.
void lookAtProcess(const CaptureTarget& target, const PublishCapture& publish, const ParseStacks& parse);

}  // namespace kelvane
