#include "activation/app_activation_tracker.h"

#include <chrono>
#include <cstdint>
#include <utility>

#include "base/limits.h"
#include "base/settings.h"
#include "base/text.h"
#include "hangs/qv_process_info.h"
#include "platform/analytics.h"
#include "platform/clock.h"
#include "platform/platform.h"
#include "platform/power_log.h"
#include "platform/process_table.h"

namespace quorveld {

namespace {

using namespace std::chrono_literals;

constexpr auto kActivationTimeout = 60s;
/// Where launches never pause, what a burst of looks took is given back after so many.
constexpr uint32_t kTimeoutsPerRest = 1000;
constexpr uint32_t kAllStatistics = 7;
constexpr uint32_t kReportToPowerLog = 3;
constexpr uint32_t kForeground = 1;
/// A launch whose message came this late, in ms, gets no signpost: the interval would say more about us than
/// about the app.
constexpr uint32_t kMaxSignpostLatencyMs = 200;
/// The launcher itself is never traced.
constexpr const char* kLauncherBundleID = "com.corvix.lumora";

const char* stateName(uint32_t state) {
  return state != 0 ? "Foreground" : "Background";
}

std::unique_ptr<AppActivationTracker>& instanceSlot() {
  static std::unique_ptr<AppActivationTracker> slot;
  return slot;
}

platform::WorkQueue*& workQueueSlot() {
  static platform::WorkQueue* slot = nullptr;
  return slot;
}

/// For lines that tell of an activation that no record will show.
Log lossLog() {
  return quorvelLog().about({.kind = platform::LogEventKind::activationLost});
}

}  // namespace

/// While this is there, a launch's process is sampled; orders go to the work queue.
class AppActivationTracker::Sampling {
 public:
  /// `name` tells the launch from all others.
  Sampling(platform::WorkQueue& workQueue, std::string name)
      : workQueue_(workQueue), name_(std::move(name)) {}
  Sampling(const Sampling&) = delete;
  Sampling& operator=(const Sampling&) = delete;
  ~Sampling() {
    workQueue_.async([name = name_] { QVProcessInfo::stopSamplingLaunch(name); });
  }

  void order(const QVProcessInfo::SampledLaunch& launch) const {
    workQueue_.async([name = name_, launch] { QVProcessInfo::sampleLaunch(name, launch); });
  }

 private:
  platform::WorkQueue& workQueue_;
  const std::string name_;
};

void AppActivationTracker::initialize(platform::WorkQueue& workQueue) {
  instanceSlot().reset();
  workQueueSlot() = &workQueue;
}

void AppActivationTracker::shutDown() {
  instanceSlot().reset();
}

AppActivationTracker& AppActivationTracker::sharedInstance() {
  auto& slot = instanceSlot();
  if (!slot) slot.reset(new AppActivationTracker(*workQueueSlot()));
  return *slot;
}

AppActivationTracker::AppActivationTracker(platform::WorkQueue& workQueue)
    : workQueue_(workQueue),
      signpostLog_(platform::current().logs.handle("com.corvix.quorvel.signposts", "appLaunch")),
      logOutputQueue_(platform::current().queues.create("com.corvix.quorvel.perfstats.logoutput",
                                                        platform::QoSClass::utility)),
      activationQueue_(platform::current().queues.create("com.corvix.quorvel.perfstats.activationqueue",
                                                         platform::QoSClass::userInitiated)) {
  setupMidnightTimer(platform::current().clock.wallTime());
  handleFirstUnlock();
}

AppActivationTracker::~AppActivationTracker() = default;

void AppActivationTracker::setShouldCaptureSystemState(bool capture) {
  const bool captured = statsToCapture_.exchange(capture ? kAllStatistics : 0) != 0;
  if (!capture || captured) return;
  activationQueue_->async([this] {
    if (statsToCapture_ != 0) platform::current().processTables.prepare();
  });
}

void AppActivationTracker::setShouldReportData(bool report) {
  reportingMethod_ = report ? kReportToPowerLog : 0;
}

void AppActivationTracker::setShouldCaptureKelvanesAtThreshold(uint32_t thresholdMs) {
  // The threshold first: a launch that ends meanwhile must not be measured by none.
  kelvaneTimeThreshold_ = thresholdMs;
  captureKelvanes_ = true;
  quorvelLog().info("QVActivationStats: CaptureLaunchKelvanes=%i launchTimeThresholdForCapture=%i", 1,
                    static_cast<int>(thresholdMs));
}

void AppActivationTracker::beginAppActivationTrackingForPID(uint32_t ownerUid, int32_t pid,
                                                            const char* bundleID, uint64_t timeMs,
                                                            uint64_t ipxStartTimeMs, uint32_t activationState,
                                                            uint32_t activationType) {
  enqueue(ownerUid, [this, announced = Announcement{
                               ownerUid, pid, toUtf8(cutAtCharacter(bundleID, kMaxNameBytes)), timeMs,
                               ipxStartTimeMs, activationState, activationType}] { begin(announced); });
}

void AppActivationTracker::endAppActivationTrackingForPID(uint32_t ownerUid, int32_t pid,
                                                          const char* bundleID, uint64_t timeMs,
                                                          uint32_t activationState,
                                                          uint32_t activationResult) {
  enqueue(ownerUid, [this, announced = Announcement{
                               ownerUid, pid, toUtf8(cutAtCharacter(bundleID, kMaxNameBytes)), timeMs, timeMs,
                               activationState, activationResult}] { end(announced); });
}

void AppActivationTracker::noteConnectionOfPID(uint32_t ownerUid, int32_t pid) {
  const auto& tracker = instanceSlot();
  if (!tracker || !tracker->captureKelvanes_) return;
  std::shared_ptr<void> place = tracker->connectionPlaces_.tryTake(ownerUid);
  if (!place) return;  // a report that lacks a mark
  tracker->activationQueue_->async([self = tracker.get(), place = std::move(place), pid,
                                    atTicks = platform::current().clock.absoluteTime()]() mutable {
    place.reset();
    self->noteConnection(pid, atTicks);
  });
}

void AppActivationTracker::enqueue(uint32_t ownerUid, platform::Task step) {
  std::shared_ptr<void> place = stepPlaces_.tryTake(ownerUid);
  if (!place) {
    if (!saidOverload_.exchange(true)) {
      lossLog().standard("QVActivationStats: More activation messages than can be handled, dropping some");
    }
    return;
  }
  activationQueue_->async([this, ownerUid, place = std::move(place), step = std::move(step)]() mutable {
    const LogSender sender(ownerUid);
    place.reset();
    if (stepPlaces_.taken() == 0) saidOverload_ = false;
    step();
  });
}

std::string AppActivationTracker::Announcement::key() const {
  return formatted("%d:%s", pid, bundleID.c_str());
}

AppActivation* AppActivationTracker::inFlight(const std::string& key) const {
  activationQueue_->assertCurrent();
  const auto entry = appActivationDictionary_.find(key);
  return entry == appActivationDictionary_.end() ? nullptr : entry->second.activation.get();
}

void AppActivationTracker::begin(const Announcement& announced) {
  const Log log = quorvelLog();
  const std::string key = announced.key();
  if (inFlight(key)) {
    log.standard("QVActivationStats: beginActivationTrackingForPID: An entry already exists for %s\n",
                 key.c_str());
    return;
  }
  auto place = activationPlaces_.tryTake(announced.ownerUid);
  auto timeoutPlace = timeoutPlaces_.tryTake(announced.ownerUid);
  if (!place || !timeoutPlace) {
    countLeftOut("in-flight");
    lossLog().standard("QVActivationStats: Too many activations at once, ignoring the begin of %s",
                       key.c_str());
    return;
  }
  const std::shared_ptr<AppActivation> activation = tryBegin(announced);
  if (!activation) {
    if (appActivationDictionary_.empty()) looks_.forget();
    countLeftOut("memory");
    lossLog().standard(
        "QVActivationStats: Too many activations at once for their memory, ignoring the begin of %s",
        key.c_str());
    return;
  }
  appActivationDictionary_.emplace(key, InFlight{activation, std::move(place), 0, {}});
  inFlightCount_ = appActivationDictionary_.size();
  if (mayBeCaptured(*activation))
    sampleAfter(QVProcessInfo::kSampledFrom, key, activation,
                {announced.pid, announced.ownerUid, platform::current().clock.absoluteTime()});
  if (announced.typeOrResult == AppActivation::kTypeLaunch) {
    signpostLog_.debug("ipxStartLatencyInMs %u ms", activation->ipxStartLatencyInMs());
    if (activation->ipxStartLatencyInMs() < kMaxSignpostLatencyMs) {
      signpostBeginOfLaunch(announced.pid, announced.bundleID);
    }
  }
  activationQueue_->after(kActivationTimeout, [this, announced, timeoutPlace]() mutable {
    timeoutPlace.reset();
    timeOut(announced);
    // Nothing has begun for a minute: what a burst of looks took may go.
    const bool pauses = timeoutPlaces_.taken() == 0;
    if (!pauses && ++timeoutsSinceRest_ < kTimeoutsPerRest) return;
    timeoutsSinceRest_ = 0;
    platform::current().processTables.rest();
  });
}

std::shared_ptr<AppActivation> AppActivationTracker::tryBegin(const Announcement& announced) {
  struct WithMemory {
    AppActivation activation;
    std::shared_ptr<void> memory;
  };
  auto begun = std::make_shared<WithMemory>(WithMemory{
      AppActivation(static_cast<uint8_t>(statsToCapture_), announced.pid, announced.bundleID,
                    announced.timeMs, announced.ipxStartTimeMs, static_cast<uint8_t>(announced.state),
                    static_cast<uint8_t>(announced.typeOrResult)),
      memory_.tryTake(announced.ownerUid, sizeof(WithMemory))});
  if (!begun->memory || !begun->activation.packSnapshots(looks_, announced.ownerUid)) return nullptr;
  return {begun, &begun->activation};
}

void AppActivationTracker::forget(std::map<std::string, InFlight>::const_iterator entry) {
  appActivationDictionary_.erase(entry);
  inFlightCount_ = appActivationDictionary_.size();
  if (appActivationDictionary_.empty()) looks_.forget();
}

/// Whatever stands under the key by now goes, even when a later begin put it there: launchers that never
/// announce an end are the ones this is for.
void AppActivationTracker::timeOut(const Announcement& announced) {
  const std::string key = announced.key();
  const auto entry = appActivationDictionary_.find(key);
  if (entry == appActivationDictionary_.end()) return;
  if (entry->second.activation->appActivationType() == AppActivation::kTypeLaunch) {
    signpostEndOfLaunch(announced.pid, announced.bundleID, false);
  }
  forget(entry);
  // Ended for its log lines alone.
  AppActivation unfinished(0, announced.pid, announced.bundleID, announced.timeMs, announced.ipxStartTimeMs,
                           static_cast<uint8_t>(announced.state), 0);
  unfinished.activationEndedWithResult(AppActivation::kResultNoEnd, announced.timeMs);
  quorvelLog().standard(
      "QVActivationStats: beginActivationTrackingForPID: Did not find an end call entry for %s\n",
      key.c_str());
}

void AppActivationTracker::end(const Announcement& announced) {
  const Finished finished = finish(announced);
  const std::shared_ptr<AppActivation>& activation = finished.activation;
  if (activation->appActivationStartState() != kForeground || announced.state != kForeground) return;

  reportOrSay(activation, announced);
  countLaunch(*activation, announced.ownerUid);
  quorvelLog().standard("QVActivationStats: %s FG Launch Duration = %ims", announced.bundleID.c_str(),
                        static_cast<int>(activation->wallTime()));
  captureIfSlow(finished, announced.timeMs);
}

/// Ends the activation in flight and takes it off the map; without one, makes up one that began when it
/// ended.
AppActivationTracker::Finished AppActivationTracker::finish(const Announcement& announced) {
  const Log log = quorvelLog();
  const std::string key = announced.key();
  const auto entry = appActivationDictionary_.find(key);
  if (entry == appActivationDictionary_.end()) {
    auto activation =
        std::make_shared<AppActivation>(0, announced.pid, announced.bundleID, announced.timeMs,
                                        announced.timeMs, static_cast<uint8_t>(announced.state), 0);
    activation->activationEndedWithResult(AppActivation::kResultNoBegin, announced.timeMs);
    log.standard("QVActivationStats: endActivationTrackingForPID: Did not find an existing entry for %s\n",
                 key.c_str());
    return {std::move(activation), 0, {}};
  }
  Finished finished{entry->second.activation, entry->second.connectedTicks, entry->second.sampling};
  const std::shared_ptr<AppActivation>& activation = finished.activation;
  activation->activationEndedWithResult(static_cast<uint8_t>(announced.typeOrResult), announced.timeMs);
  if (activation->appActivationType() == AppActivation::kTypeLaunch) {
    signpostLog_.debug("ipxEndLatencyInMs %u ms", activation->ipxEndLatencyInMs());
    if (activation->ipxEndLatencyInMs() < kMaxSignpostLatencyMs) {
      signpostEndOfLaunch(announced.pid, announced.bundleID, true);
    }
  }
  log.debug(
      "QVActivationStats: Activation Complete:Activationid:%lld "
      "BundleID:%s PID:%d Result:%d Type:%d TimeTaken:%d ms",
      static_cast<long long>(activation->appActivationID()), activation->bundleID().c_str(),
      activation->pid(), static_cast<int>(announced.typeOrResult), activation->appActivationType(),
      static_cast<int>(activation->wallTime()));
  if (!activation->packSnapshots(looks_, announced.ownerUid)) {
    log.standard("QVActivationStats: No memory is left for how %s ended, its record names no processes",
                 key.c_str());
  }
  forget(entry);
  return finished;
}

void AppActivationTracker::noteConnection(int32_t pid, uint64_t atTicks) {
  const std::string ofPid = formatted("%d:", pid);
  auto entry = appActivationDictionary_.lower_bound(ofPid);
  for (; entry != appActivationDictionary_.end() && entry->first.starts_with(ofPid); ++entry) {
    // Who is resumed has connected when it was launched.
    const bool isLaunch = entry->second.activation->appActivationType() == AppActivation::kTypeLaunch;
    if (isLaunch && entry->second.connectedTicks == 0) entry->second.connectedTicks = atTicks;
  }
}

void AppActivationTracker::sampleAfter(std::chrono::milliseconds delay, const std::string& key,
                                       const std::weak_ptr<AppActivation>& activation,
                                       const QVProcessInfo::SampledLaunch& launch) {
  activationQueue_->after(delay, [this, key, activation, launch] {
    const auto entry = appActivationDictionary_.find(key);
    if (entry == appActivationDictionary_.end() || entry->second.activation != activation.lock()) return;
    std::shared_ptr<Sampling>& sampling = entry->second.sampling;
    if (!sampling) {
      // Told apart from a later one's of the same key, which may begin before this one's end is heard of.
      const auto begun = static_cast<unsigned long long>(launch.startTicks);
      sampling = std::make_shared<Sampling>(workQueue_, formatted("%llu:%s", begun, key.c_str()));
    }
    sampling->order(launch);
    sampleAfter(QVProcessInfo::kSampledAgain, key, activation, launch);
  });
}

void AppActivationTracker::reportOrSay(const std::shared_ptr<AppActivation>& activation,
                                       const Announcement& ended) {
  const uint32_t recorded = activationsRecorded_;
  if (reportingMethod_ == 0 || recorded >= settings().activationMaxCount) {
    const Log log = reportingMethod_ != 0 ? lossLog() : quorvelLog();
    log.standard(
        "QVActivationStats: Activation not recorded for:%s StartState:%s EndState:%s "
        "Number Of Activations:%d",
        activation->bundleID().c_str(), stateName(activation->appActivationStartState()),
        stateName(ended.state), static_cast<int>(recorded));
    if (reportingMethod_ != 0) {
      countLeftOut("daily-limit");
      leaveOut(*activation, ended.ownerUid, formatted("the day's maximum of %u is reached", recorded));
    }
    return;
  }
  auto place = reportPlaces_.tryTake(ended.ownerUid);
  if (!place) {
    countLeftOut("waiting");
    lossLog().standard("QVActivationStats: Too many activations wait for their report, none is made of %s",
                       ended.key().c_str());
    return;
  }
  logOutputQueue_->async([this, activation, place]() mutable {
    place.reset();
    const uint32_t count = ++activationsRecorded_;
    activation->logAppActivationData(reportingMethod_);
    quorvelLog().debug(
        "QVActivationStats: Sending activation for %s to Pelmar. Number Of Activations recorded:%d",
        activation->bundleID().c_str(), static_cast<int>(count));
  });
}

void AppActivationTracker::leaveOut(const AppActivation& activation, uint32_t ownerUid, std::string reason) {
  auto place = reportPlaces_.tryTake(ownerUid);
  if (!place) return;
  logOutputQueue_->async([id = activation.appActivationID(), reason = std::move(reason), place] {
    platform::current().powerLog.leaveOut(id, reason);
  });
}

/// Of every launch that was seen, whether or not there is room for its record. Counters belong to the work
/// queue.
void AppActivationTracker::countLaunch(const AppActivation& activation, uint32_t ownerUid) {
  const bool isTimed = activation.wallTime() <= uint32_t{INT32_MAX};  // else it ended before it began
  if (activation.appActivationType() != AppActivation::kTypeLaunch || !isTimed) return;
  workQueue_.async(
      [bundleID = activation.bundleID(), ms = activation.wallTime(), ownerUid, pid = activation.pid()] {
        const platform::KeyOwner owner{
            .uid = ownerUid, .pid = pid, .hang = {}, .bundle = bundleID, .process = {}};
        platform::current().analytics.pushDistribution("com.corvix.quorvel.QVLaunch." + bundleID, ms, owner);
      });
}

/// An activation that no record will show, for a `reason` of docs/metrics.md.
void AppActivationTracker::countLeftOut(const char* reason) {
  workQueue_.async([key = std::string("com.corvix.quorvel.QVLaunchesLeftOut.") + reason] {
    platform::current().analytics.addToScalar(key, 1, {});
  });
}

bool AppActivationTracker::mayBeCaptured(const AppActivation& activation) const {
  return captureKelvanes_ && activation.appActivationStartState() == kForeground &&
         activation.bundleID() != kLauncherBundleID;
}

void AppActivationTracker::captureIfSlow(const Finished& finished, uint64_t endTimeMs) {
  const AppActivation& activation = *finished.activation;
  if (!mayBeCaptured(activation) || activation.wallTime() < kelvaneTimeThreshold_) return;
  const auto tookMs = static_cast<int>(activation.wallTime());
  quorvelLog()
      .about({.kind = platform::LogEventKind::slowLaunch,
              .pid = activation.pid(),
              .durationMs = static_cast<double>(tookMs)})
      .standard("QVActivationStats: %s Launch took %ims, will try to grab slow launch kelvane",
                activation.bundleID().c_str(), tookMs);
  // Credits and the trace library belong to the work queue.
  const QVProcessInfo::ActivatedProcess process{activation.pid(), finished.connectedTicks};
  workQueue_.async(
      [bundleID = activation.bundleID(), start = activation.startTimestamp(), endTimeMs, process] {
        QVProcessInfo::saveActivationKelvane("Launch", "Slow-Launch", bundleID, start, endTimeMs, process);
      });
}

void AppActivationTracker::logStatus() {
  const auto& tracker = instanceSlot();
  if (!tracker) return;
  quorvelLog().standard(
      "Status: %zu activations in flight, %zu KB of snapshots, %u reported today, %zu timeouts pending",
      tracker->inFlightCount_.load(), tracker->memory_.taken() / 1024, tracker->activationsRecorded_.load(),
      tracker->timeoutPlaces_.taken());
}

}  // namespace quorveld
