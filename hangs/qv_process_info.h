#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/analytics.h"
#include "platform/ipc.h"
#include "platform/value.h"
#include "platform/work_queue.h"

struct hangEvent;
struct QVSharedHangRegion;

namespace quorveld {

/// A process that is watched for hangs; the class side is the registry of all of them and everything that
/// hang tracking remembers: time-outs, credits, the trace library, the display-state history.
///
/// A record lives while it is in the registry or while a capture that is under way holds it, and with it its
/// mapping of the client's region. The client writes that region at the same time and is hostile until proven
/// otherwise: each field is loaded once, and no index or length comes from it unchecked.
///
/// Everything here belongs to the work queue. Nothing is persisted. The operations stand in a file for each
/// topic.
class QVProcessInfo : public std::enable_shared_from_this<QVProcessInfo> {
 public:
  /// A full per-process credit, in reports of short hangs.
  static constexpr uint32_t kMaxAppCredits = 4;

  /// Starts afresh: no watched process, default limits, full credits, the trace library not yet looked for.
  static void initialize(platform::WorkQueue& workQueue);

  // --- watched_processes.cpp: the registry -----------------------------------------------------------------

  /// Watches `pid`, of user `uid`, whose region is `sharedMem`; null when it is watched already, has no
  /// readable path, or its region is too short or of another version (logged; the region is unmapped then). A
  /// null `bundleID` counts as empty.
  static std::shared_ptr<QVProcessInfo> startWatchingPid(int32_t pid,
                                                         std::unique_ptr<platform::SharedMapping> sharedMem,
                                                         const char* bundleID, uint32_t uid);
  static void stopWatchingPid(int32_t pid);
  static void stopWatchingAllPids();

  /// Null when `pid` isn't watched.
  static std::shared_ptr<QVProcessInfo> processForPid(int32_t pid);

  /// A fence hang is no process's own: one watched process, picked at random, is blamed. Null when there is
  /// none.
  static std::shared_ptr<QVProcessInfo> processForFenceHangs();

  ~QVProcessInfo();
  QVProcessInfo(const QVProcessInfo&) = delete;
  QVProcessInfo& operator=(const QVProcessInfo&) = delete;

  int32_t pid() const { return pid_; }
  const std::string& processName() const { return processName_; }
  const std::string& processPath() const { return processPath_; }
  const std::string& processBundleID() const { return processBundleID_; }
  std::string description() const;

  // --- hang_timeouts.cpp: the scan of the regions ----------------------------------------------------------

  /// Records a hang for each process that has an operation pending for longer than the time-out; one per
  /// process and scan.
  static void checkForHangTimeouts(uint64_t nowTicks);
  static void setHangTimeoutDuration(double ms);
  static void setLongHangDurationThreshold(double ms);

  // --- hang_recorder.cpp and report_saving.cpp: from a hang to a report in the spool -----------------------

  /// Logs, shows and counts a hang, and saves a report of it when `saveKelvane` asks for one and settings,
  /// library and credits allow it. A null `name` stands as "(null)".
  void recordHang(const char* name, uint64_t threadID, uint64_t startTicks, uint64_t endTicks,
                  bool saveKelvane);

  /// The process of an activation, which the header of its report does not name.
  struct ActivatedProcess {
    int32_t pid = 0;              ///< 0: not known
    uint64_t connectedTicks = 0;  ///< when it first connected to the daemon; 0: it did not meanwhile
  };

  /// Saves a report of a slow activation, likewise. Times in ms since the reference date.
  static void saveActivationKelvane(const std::string& type, const std::string& reason,
                                    const std::string& bundleID, uint64_t startTimeMs, uint64_t endTimeMs,
                                    const ActivatedProcess& process);

  // --- sampled_operations.cpp: whose threads are sampled ---------------------------------------------------

  /// How long an operation or a launch is pending before it is sampled: most end before, and cost nothing.
  static constexpr std::chrono::milliseconds kSampledFrom{500};
  /// How often a launch is to be named: the sampler gives up when it hears nothing for much longer.
  static constexpr std::chrono::seconds kSampledAgain{5};

  /// A launch in flight, for its process's first thread to be sampled.
  struct SampledLaunch {
    int32_t pid;
    uint32_t ownerUid;    ///< who announced it: no user gets all places
    uint64_t startTicks;  ///< when that was
  };

  /// Has the launch sampled, from now on and until `stopSamplingLaunch`, if there is a place for it; nothing
  /// while traces are off. `launch` tells it from others. To be called again every kSampledAgain.
  static void sampleLaunch(const std::string& launch, const SampledLaunch& sampled);
  static void stopSamplingLaunch(const std::string& launch);

  // --- report_credits.cpp: how many reports a process and the device may cause -----------------------------

  /// A hang is long when it lasted at least the long-hang threshold; long hangs never use per-process credit.
  bool checkAppCreditForDuration(double durationMs) const;
  void deductAppCreditForDuration(double durationMs);
  static void replenishAppCredits();

  static bool checkDailyCreditForDuration(double durationMs);
  static void deductDailyCreditForDuration(double durationMs);
  static void resetDailyLogCredits();

  /// A new maximum keeps what was used today: the credits left may become negative.
  static void setMaxDailyShortLogs(int32_t maximum);
  static void setMaxDailyLongLogs(int32_t maximum);
  static void setMaxActivationDailyKelvanes(int32_t maximum);
  /// Takes effect for an app with its next `resetAppActivationKelvaneCredits`.
  static void setMaxActivationKelvanesPerApp(int32_t maximum);
  static void resetDailyActivationKelvaneCredits();
  static void resetAppActivationKelvaneCredits();

  // --- display_state_history.cpp: was the screen on around a hang? -----------------------------------------

  static void addDisplayStateChangeEvent(uint64_t timestampTicks, int32_t status, uint32_t extra);

  /// Timestamp, status, timestamp, status, …, oldest first; at most ten pairs.
  static platform::Array displayStateArray();

  // --- status_report.cpp -----------------------------------------------------------------------------------

  /// Logs the watched processes and the credits, a line each, for whoever asked the daemon for its state.
  static void logStatus();

 private:
  struct ClassSide;

  /// The class-side state; asserts that the work queue is current. Aborts before `initialize`.
  static ClassSide& classSide();
  static std::unique_ptr<ClassSide>& classSideSlot();

  QVProcessInfo(int32_t pid, std::unique_ptr<platform::SharedMapping> region, std::string processPath,
                std::string processBundleID, uint32_t uid);
  static std::shared_ptr<QVProcessInfo> create(int32_t pid,
                                               std::unique_ptr<platform::SharedMapping> sharedMem,
                                               const char* bundleID, uint32_t uid);

  /// One scan's measure: what is pending for longer than `timeoutMs` at `nowTicks` has timed out; what began
  /// at `recentTicks` or later has not, and is not sampled.
  struct TimeoutCheck {
    uint64_t nowTicks;
    double timeoutMs;
    uint64_t recentTicks;
  };
  void checkEventsForTimeouts(const TimeoutCheck& check, const QVSharedHangRegion& next);

  /// What the daemon takes from a slot that has timed out.
  struct TimedOutSlot {
    uint64_t startTicks;
    uint64_t threadID;
    bool wantsKelvane;
    std::string hangName;
  };
  static bool takeTimedOutSlot(hangEvent& slot, uint64_t startTicks, TimedOutSlot& taken);

  static void orderSampling();

  static bool isLongHang(double durationMs);
  static bool checkActivationAppCredit(const std::string& bundleID);
  static void deductActivationAppCredit(const std::string& bundleID);

  void showHang(const std::string& hangName, double seconds) const;
  platform::KeyOwner keyOwner() const { return {uid_, pid_}; }
  void countHang(const std::string& hangName, double durationMs) const;
  void countMissed(const std::string& key) const;
  bool mayBeSaved(double durationMs) const;
  void captureFenceHangLater(const std::string& hangName, const std::string& reason, uint64_t threadID,
                             uint64_t startTicks, uint64_t endTicks, double durationMs);
  void saveAndDeduct(const std::string& hangName, const std::string& reason, uint64_t threadID,
                     uint64_t startTicks, uint64_t endTicks, double durationMs);
  bool saveKelvaneForService(const std::string& service, const std::string& reason, uint64_t threadID,
                             uint64_t startTicks, uint64_t endTicks);
  static bool saveKelvaneWithFileName(const std::string& fileName, const platform::Dictionary& infoDict,
                                      uint64_t startTicks, uint64_t endTicks,
                                      const std::string& processString);

  const int32_t pid_;
  const uint32_t uid_;
  const std::unique_ptr<platform::SharedMapping> region_;
  QVSharedHangRegion* const shared_;  ///< what region_ maps
  const size_t slotsInRegion_;  ///< how many slots there is room for; the client's slotCount may claim more
  const std::string processPath_;
  const std::string processName_;
  const std::string processBundleID_;
};

}  // namespace quorveld
