#pragma once

#include <cstdint>

namespace quorveld {

/// What the reports remember from one to the next, for the life of the daemon.
///
/// Log-output queue only. Not persisted: the power-logging service learns the names again from a restarted
/// daemon.
struct ReportState {
  double nsPerTick = -1.0;           ///< of the absolute-time clock; negative: not yet asked
  bool otherProcessesNamed = false;  ///< the service knows the process that stands for all small ones
  int32_t largestTrackedPid = -1;    ///< processes up to this pid have been named to the service
};

ReportState& reportState();

/// Names every process anew from the next report on: pids may have been used again.
void resetLargestTrackedPid();

}  // namespace quorveld
