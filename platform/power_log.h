#pragma once

#include <cstdint>
#include <string_view>

#include "platform/value.h"

namespace quorveld::platform {

/// One activation, as the power-logging service takes it. Integer keys of the inner dictionaries are written
/// in decimal.
struct ActivationEvent {
  Dictionary activationData;
  Dictionary cpuData;
  Dictionary vmData;
  Dictionary processData;
  /// By pid, beside what the service takes: `ProcessName` and `CPU_ms` of those that spent most of what the
  /// others did together, and `ChildCPU_ms` of live processes, what children spent that ended meanwhile.
  Dictionary moreData;
};

/// The power-logging service. One queue at a time (the log-output queue).
class PowerLog {
 public:
  virtual ~PowerLog() = default;

  /// Hands one event over; a failure is logged and the event dropped, as `leaveOut` tells.
  virtual void handOver(const ActivationEvent& event) = 0;

  /// Tells whoever waits for the event of `activationID` that none comes, and why.
  virtual void leaveOut(uint64_t activationID, std::string_view reason) = 0;
};

}  // namespace quorveld::platform
