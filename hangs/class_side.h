#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "hangs/qv_process_info.h"
#include "hangs/trace_capture.h"

namespace quorveld {

/// One daily allowance: what a new maximum and a reset do to it is the same for all of them.
struct DailyAllowance {
  int32_t maximum = 25;
  int32_t credits = 25;
};

/// One display-state change; a timestamp of 0 marks an empty entry.
struct DisplayStateEvent {
  uint64_t timestampTicks = 0;
  int32_t status = 0;
  uint32_t extra = 0;
};

/// QVProcessInfo's class side, private to hangs/.
struct QVProcessInfo::ClassSide {
  explicit ClassSide(platform::WorkQueue& queue) : workQueue(queue) {}

  platform::WorkQueue& workQueue;

  std::vector<std::shared_ptr<QVProcessInfo>> watchedProcesses;  ///< in order of registration

  double hangTimeoutDuration = 5000.0;        ///< ms
  double longHangDurationThreshold = 2000.0;  ///< ms

  /// Credits left by process name; a missing entry is a full credit, so it holds only names that spent one.
  std::map<std::string, uint32_t> appCredits;
  DailyAllowance shortLogs;
  DailyAllowance longLogs;
  DailyAllowance activationKelvanes;
  int32_t maxActivationKelvanesPerApp = 5;
  /// Credits left by bundle ID. There is no map until the first reset, and without a map nothing is ever
  /// spent.
  std::optional<std::map<std::string, uint32_t>> activationAppCredits;

  TraceCapture traceCapture;
  std::vector<kelvane_pending> pending;  ///< at the last hang check: each process's that has lasted longest
  std::map<std::string, kelvane_pending> launches;  ///< in flight, and to be sampled
  size_t pendingHUDClears = 0;                      ///< messages on screen that a timer is to clear
  bool fenceCaptureInFlight = false;                ///< one delayed fence-hang capture may be pending

  std::array<DisplayStateEvent, 10> displayStateRing{};
  size_t displayStateNext = 0;
};

}  // namespace quorveld
