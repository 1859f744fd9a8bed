#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>

#include "kelvane/capture/captured_process.h"

namespace kelvane {

/// What to capture.
struct CaptureTarget {
  pid_t pid = 0;
  int64_t threadId = 0;
  bool symbolicate = false;
};

/// Applies an edit to the capture that is being made; false once nobody waits for it any more.
using PublishCapture = std::function<bool(const std::function<void(ProcessCapture&)>& edit)>;

/// Looks at the process and publishes each finding when it is made, the hung thread's first.
///
/// May block for as long as the kernel holds up a look at the process (a mapped file on a dead server, a
/// memory map that a stuck thread has locked), so it runs on a thread that its caller can leave behind. It
/// never leaves a thread of the process stopped or traced.
void captureProcess(const CaptureTarget& target, const PublishCapture& publish);

}  // namespace kelvane
