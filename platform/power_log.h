#pragma once

#include "platform/value.h"

namespace quorveld::platform {

/// One activation, as the power-logging service takes it. Integer keys of the inner dictionaries are written
/// in decimal.
struct ActivationEvent {
  Dictionary activationData;
  Dictionary cpuData;
  Dictionary vmData;
  Dictionary processData;
};

/// The power-logging service. One queue at a time (the log-output queue).
class PowerLog {
 public:
  virtual ~PowerLog() = default;

  /// Hands one event over; a failure is logged and the event dropped.
  virtual void handOver(const ActivationEvent& event) = 0;
};

}  // namespace quorveld::platform
