#pragma once

#include <memory>

#include "platform/work_queue.h"

namespace quorveld {

/// Writes reports of where the machine's memory is into the log directory, one at a time.
///
/// A report takes tens of milliseconds, so it is made on a queue of its own: the work queue has hangs to
/// find. Work queue only. On destruction the report under way is waited for; one that has not begun is none.
class MemorySnapshots {
 public:
  /// `workQueue` must outlive this object.
  explicit MemorySnapshots(platform::WorkQueue& workQueue) : workQueue_(workQueue) {}

  /// Has one report written, beside the caller; none, and a line, while the last one is still being made.
  ///
  /// The report is built in memory, written with one write into the cache directory, and renamed into place
  /// when it is whole; when anything that it must contain can't be had, no file remains.
  void take_memory_snapshot();

 private:
  struct UnderWay {};

  platform::WorkQueue& workQueue_;
  std::weak_ptr<UnderWay> underWay_;            ///< held by the report's task until it is done
  std::unique_ptr<platform::WorkQueue> queue_;  ///< made for the first report
};

}  // namespace quorveld
