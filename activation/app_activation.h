#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "perfstats/perf_snapshot.h"

namespace quorveld {

/// One activation of an app, launch or resume, from its announcement to the moment the app is up.
///
/// Stamps its own times, works out its latencies and its identifier, and takes a snapshot of the system at
/// either end. Made and ended on the activation queue; after its end nothing changes but what reporting it
/// packs into the flags, on the log-output queue.
class AppActivation {
 public:
  /// Results that the daemon itself gives; others come from the launcher and are stored as they are.
  static constexpr uint8_t kResultNoBegin = 32;
  static constexpr uint8_t kResultNoEnd = 33;
  static constexpr uint8_t kTypeLaunch = 1;

  /// Begins an activation and takes its start snapshot, of the kinds in `statisticsType`. Times in ms since
  /// the reference date; a start time of 0 means now.
  AppActivation(uint8_t statisticsType, int32_t pid, std::string bundleID, uint64_t startTimeMs,
                uint64_t ipxStartTimeMs, uint8_t state, uint8_t activationType);

  /// Completes the activation and takes its end snapshot; an end time of 0 means now. Once.
  void activationEndedWithResult(uint8_t result, uint64_t endTimeMs);

  /// Keeps the snapshots as what they don't have in common with others'. False when `forUid` has no memory
  /// left for one: its processes are let go. Until it is reported, then or not, whoever asks a snapshot for
  /// its processes unpacks it.
  [[nodiscard]] bool packSnapshots(SharedLooks& looks, uint32_t forUid);

  /// Reports the finished activation: 1 console, 2 JSON, 3 power log; any other method does nothing.
  /// Log-output queue.
  void logAppActivationData(uint32_t reportingMethod);

  uint8_t snapshotTypesToRecord() const { return snapshotTypesToRecord_; }
  int64_t systemUptime() const { return systemUptime_; }  ///< seconds
  int32_t pid() const { return pid_; }
  const std::optional<std::string>& processName() const { return processName_; }
  const std::string& bundleID() const { return bundleID_; }
  uint64_t appActivationID() const { return appActivationID_; }
  uint64_t startTimestamp() const { return startTimestamp_; }            ///< ms since the reference date
  uint32_t wallTime() const { return wallTime_; }                        ///< ms
  uint32_t ipxStartLatencyInMs() const { return ipxStartLatencyInMs_; }  ///< ms
  uint32_t ipxEndLatencyInMs() const { return ipxEndLatencyInMs_; }      ///< ms
  uint8_t appActivationStartState() const { return appActivationStartState_; }
  uint8_t appActivationResult() const { return appActivationResult_; }
  uint8_t appActivationSource() const { return 0; }  ///< nothing says where an activation came from
  uint8_t appActivationType() const { return appActivationType_; }
  uint64_t appActivationFlags() const { return appActivationFlags_; }
  PerfSnapshot* startSnapshot() const { return startSnapshot_.get(); }
  PerfSnapshot* endSnapshot() const { return endSnapshot_.get(); }

 private:
  uint8_t snapshotTypesToRecord_ = 0;
  int64_t systemUptime_ = 0;
  int32_t pid_ = 0;
  std::optional<std::string> processName_;
  std::string bundleID_;
  uint64_t appActivationID_ = 0;
  uint64_t startTimestamp_ = 0;
  uint32_t wallTime_ = 0;
  uint32_t ipxStartLatencyInMs_ = 0;
  uint32_t ipxEndLatencyInMs_ = 0;
  uint8_t appActivationStartState_ = 0;
  uint8_t appActivationResult_ = 0;
  uint8_t appActivationType_ = 0;
  uint64_t appActivationFlags_ = 0;
  std::unique_ptr<PerfSnapshot> startSnapshot_;
  std::unique_ptr<PerfSnapshot> endSnapshot_;
};

}  // namespace quorveld
