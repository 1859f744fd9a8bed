#pragma once

#include <cstdint>
#include <memory>

#include "memsnapshot/memory_snapshot.h"
#include "platform/work_queue.h"

namespace quorveld {

/// The two repeating timers of the work queue, each of which exists while its source is enabled. Work queue
/// only.
class DaemonTimers {
 public:
  explicit DaemonTimers(platform::WorkQueue& workQueue)
      : workQueue_(workQueue), memorySnapshots_(workQueue) {}

  /// Checks for hangs every 5 seconds; also replenishes credits and starts new credit days.
  void startHangChecks();
  void stopHangChecks();

  /// Takes a memory snapshot every `settings().memoryLoggingInterval` seconds.
  void startMemoryLogging();
  void stopMemoryLogging();
  /// Applies a changed interval, counted from now; does nothing while memory logging is off.
  void rearmMemoryLogging();

 private:
  void checkHangs();

  platform::WorkQueue& workQueue_;
  MemorySnapshots memorySnapshots_;
  std::unique_ptr<platform::Timer> hangCheckTimer_;
  std::unique_ptr<platform::Timer> memoryLoggingTimer_;
  uint64_t lastCreditReplenishTicks_ = 0;
  uint64_t lastDailyResetTicks_ = 0;  ///< start of the current credit day; 0: none has begun
};

}  // namespace quorveld
