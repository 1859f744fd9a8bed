#pragma once

#include "platform/power_log.h"

namespace quorveld::linux_platform {

/// Activation events as lines of JSON in <root>/var/log/quorveld/activations.jsonl.
///
/// Each line goes out in one write behind the last whole one. A file that has reached its limit becomes
/// activations.jsonl.1, in place of the one before.
class LinuxPowerLog final : public platform::PowerLog {
 public:
  void handOver(const platform::ActivationEvent& event) override;

 private:
  void append(const std::string& line);

  bool saidFailed_ = false;
};

}  // namespace quorveld::linux_platform
