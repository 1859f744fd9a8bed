#pragma once

#include <memory>

#include "kelvane/base/deadline.h"
#include "kelvane/capture/process_capture.h"

namespace kelvane {

/// Runs captureProcess on a thread of its own, so that a capture which the kernel holds up can be left
/// behind.
///
/// A thread left behind touches nothing of its caller's, publishes nothing any more and ends as soon as the
/// kernel lets it. While one is still around no other capture starts, so there is never more than one.
class CaptureWorker {
 public:
  explicit CaptureWorker(const CaptureTarget& target);
  ~CaptureWorker();
  CaptureWorker(const CaptureWorker&) = delete;
  CaptureWorker& operator=(const CaptureWorker&) = delete;

  /// Waits for the capture's end, at most until `deadline`, and takes what was found by then. Call once.
  ProcessCapture take(const Deadline& deadline);

 private:
  struct Shared;
  std::shared_ptr<Shared> shared_;
};

}  // namespace kelvane
