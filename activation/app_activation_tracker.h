#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "activation/app_activation.h"
#include "base/limits.h"
#include "base/log.h"
#include "base/user_shares.h"
#include "hangs/qv_process_info.h"
#include "perfstats/packed_statistics.h"
#include "platform/notifications.h"
#include "platform/work_queue.h"

namespace quorveld {

/// Pairs the begin and end of app activations, has the finished ones reported, and asks for a trace of slow
/// launches.
///
/// One instance, made on first use. `activationQueue` runs every begin, end and timeout and owns the
/// activations in flight; `logOutputQueue` runs the reports, the midnight timer and the first-unlock handler.
/// The setters may be called from any queue; the two entry points belong to the work queue and return at
/// once. Launchers are as untrusted as any client: what waits, is in flight or is being reported is bounded
/// (limits.h) and shared out among the users who announce; what is beyond is dropped with a log line.
class AppActivationTracker {
 public:
  /// Where reports of slow launches are saved, and a fresh start: no instance.
  static void initialize(platform::WorkQueue& workQueue);
  /// Ends both queues and the instance, if there is one; what waited on them is dropped. Work queue only.
  static void shutDown();
  /// Makes the instance if there is none. Work queue only.
  static AppActivationTracker& sharedInstance();

  ~AppActivationTracker();
  AppActivationTracker(const AppActivationTracker&) = delete;
  AppActivationTracker& operator=(const AppActivationTracker&) = delete;

  /// Turning it on has the process table prepared ahead of the first begin.
  void setShouldCaptureSystemState(bool capture);
  void setShouldReportData(bool report);
  /// Turns slow-launch traces on, for launches of `thresholdMs` or more. Nothing turns them off again.
  void setShouldCaptureKelvanesAtThreshold(uint32_t thresholdMs);

  /// `ownerUid` is the user who announces it. Times in ms since the reference date; state 1 foreground, 0
  /// background; type 1 launch.
  void beginAppActivationTrackingForPID(uint32_t ownerUid, int32_t pid, const char* bundleID, uint64_t timeMs,
                                        uint64_t ipxStartTimeMs, uint32_t activationState,
                                        uint32_t activationType);
  void endAppActivationTrackingForPID(uint32_t ownerUid, int32_t pid, const char* bundleID, uint64_t timeMs,
                                      uint32_t activationState, uint32_t activationResult);

  /// Notes when a process whose activation is in flight connects to the daemon for the first time, for the
  /// report of a slow launch; nothing when there is no instance. `ownerUid` is the process's user. Work queue
  /// only.
  static void noteConnectionOfPID(uint32_t ownerUid, int32_t pid);

  /// Logs what was reported today and what is pending, for whoever asked the daemon for its state; nothing
  /// when there is no instance. Work queue only.
  static void logStatus();

 private:
  /// What identifies an activation, and what its launcher said when it began or ended.
  struct Announcement {
    uint32_t ownerUid;
    int32_t pid;
    std::string bundleID;
    uint64_t timeMs;
    uint64_t ipxStartTimeMs;
    uint32_t state;
    uint32_t typeOrResult;

    std::string key() const;
  };

  class Sampling;

  struct InFlight {
    std::shared_ptr<AppActivation> activation;  ///< with the memory that it was given
    std::shared_ptr<void> place;
    uint64_t connectedTicks = 0;         ///< when its process first connected; 0: it hasn't
    std::shared_ptr<Sampling> sampling;  ///< null: its process isn't sampled
  };

  /// An activation that has ended. What is sampled may be forgotten when its report has been asked for.
  struct Finished {
    std::shared_ptr<AppActivation> activation;
    uint64_t connectedTicks = 0;
    std::shared_ptr<Sampling> sampling;
  };

  explicit AppActivationTracker(platform::WorkQueue& workQueue);

  /// Runs `step` on the activation queue, unless too many steps wait there already.
  void enqueue(uint32_t ownerUid, platform::Task step);
  void begin(const Announcement& announced);
  void end(const Announcement& announced);
  void timeOut(const Announcement& announced);
  /// Null when there is no memory left for what it has to keep.
  std::shared_ptr<AppActivation> tryBegin(const Announcement& announced);
  void forget(std::map<std::string, InFlight>::const_iterator entry);
  Finished finish(const Announcement& announced);
  void noteConnection(int32_t pid, uint64_t atTicks);
  /// Has the activation's process sampled in `delay` if it is in flight by then, and named again as long as
  /// it is. `launch`: who announced it.
  void sampleAfter(std::chrono::milliseconds delay, const std::string& key,
                   const std::weak_ptr<AppActivation>& activation,
                   const QVProcessInfo::SampledLaunch& launch);
  void reportOrSay(const std::shared_ptr<AppActivation>& activation, const Announcement& ended);
  /// Says so to who waits for the activation's record.
  void leaveOut(const AppActivation& activation, uint32_t ownerUid, std::string reason);
  void countLaunch(const AppActivation& activation, uint32_t ownerUid);
  void countLeftOut(const char* reason);
  bool mayBeCaptured(const AppActivation& activation) const;
  void captureIfSlow(const Finished& finished, uint64_t endTimeMs);
  AppActivation* inFlight(const std::string& key) const;

  // launch_signposts.cpp
  void signpostBeginOfLaunch(int32_t pid, const std::string& bundleID) const;
  void signpostEndOfLaunch(int32_t pid, const std::string& bundleID, bool isValidEndOfLaunch) const;

  // day_scope.cpp: what belongs to a day
  void setupMidnightTimer(platform::WallTime dayOf);
  void midnightPassed(platform::WallTime scheduled, std::chrono::seconds waited);
  void handleFirstUnlock();

  platform::WorkQueue& workQueue_;
  const Log signpostLog_;

  // Places of the activations in flight, of the timeouts to come and of the reports that wait are taken on
  // the activation queue, those of waiting steps and connections by whoever announces them.
  UserShares stepPlaces_{kMaxWaitingActivationSteps};
  UserShares connectionPlaces_{kMaxWaitingActivationSteps};
  UserShares activationPlaces_{kMaxActivationsInFlight};
  UserShares timeoutPlaces_{kMaxPendingActivationTimeouts};
  UserShares reportPlaces_{kMaxWaitingActivationReports};
  UserShares memory_{kMaxActivationBytes};
  std::atomic<bool> saidOverload_{false};

  std::map<std::string, InFlight> appActivationDictionary_;  ///< by "pid:bundle ID"
  std::atomic<size_t> inFlightCount_{0};                     ///< its size, for whoever asks for the state
  SharedLooks looks_{memory_};                               ///< activation queue
  uint32_t timeoutsSinceRest_ = 0;                           ///< activation queue

  // Written by the setters, read by whichever step runs next: each stands for itself.
  std::atomic<bool> captureKelvanes_{false};
  std::atomic<uint32_t> statsToCapture_{0};        ///< snapshot kinds of a new activation: 7 all, 0 none
  std::atomic<uint32_t> reportingMethod_{0};       ///< 3 power log, 0 none
  std::atomic<uint32_t> kelvaneTimeThreshold_{0};  ///< ms

  /// Reported since midnight. Written on the log-output queue and read on the activation queue, so the daily
  /// maximum may be passed by the reports that are queued already.
  std::atomic<uint32_t> activationsRecorded_{0};

  std::unique_ptr<platform::Subscription> firstUnlock_;

  // Last, so that they end first: their tasks use everything above.
  std::unique_ptr<platform::WorkQueue> logOutputQueue_;
  std::unique_ptr<platform::WorkQueue> activationQueue_;
};

}  // namespace quorveld
