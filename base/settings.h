#pragma once

#include <atomic>
#include <cstdint>

namespace quorveld {

/// The daemon's process-wide settings, with the values that hold until the first preference read.
///
/// Written by core/preferences on the work queue. Plain fields are read there only; atomic ones from any
/// queue (each stands for itself, so relaxed order is enough).
struct Settings {
  std::atomic<bool> isInternalBuild{false};  ///< answer of the "InternalBuild" capability query

  bool hangWatchEnabled = false;             ///< QuorvelEnabled in effect
  bool memoryLoggingEnabled = false;         ///< QuorvelEnableMemoryLogging in effect
  bool appActivationLoggingEnabled = false;  ///< QuorvelEnableAppActivationLogging in effect
  bool slowActKelvanesEnabled = false;       ///< QuorvelSlowActKelvanesEnabled in effect
  bool enableKelvane = false;                ///< QuorvelEnableKelvane: traces may be saved
  bool enableDisplayData =
      false;               ///< QuorvelEnableDisplayData; true from the first read if the key is absent
  bool enableHUD = false;  ///< QuorvelEnableHUD

  uint32_t memoryLoggingInterval = 3600;  ///< seconds
  uint64_t reportPeriod =
      86'400'000'000;  ///< ticks; a quarter of it is the interval at which app credits are replenished

  std::atomic<uint32_t> reportsMaxMegabytes{256};  ///< of each folder of reports, in units of 2^20 bytes
  std::atomic<uint32_t> reportsMaxDays{30};        ///< age of a report

  std::atomic<uint32_t> activationMaxCount{200};     ///< activations reported per day
  std::atomic<double> activationCPUThreshold{50.0};  ///< ms
};

Settings& settings();

}  // namespace quorveld
