#include "activation/app_activation.h"

#include <algorithm>
#include <chrono>
#include <span>
#include <utility>

#include "base/log.h"
#include "base/string_hash.h"
#include "base/wall_time.h"
#include "perfstats/activation_flags.h"
#include "platform/clock.h"
#include "platform/kernel.h"
#include "platform/platform.h"

namespace quorveld {

namespace {

constexpr uint64_t kLatencyUnitMs = 50;

uint64_t nowMs() {
  return activationTimeMs(platform::current().clock.wallTime());
}

/// Whole seconds since boot; 0 when the kernel doesn't say when that was.
int64_t secondsSinceBoot() {
  platform::Clock& clock = platform::current().clock;
  const int64_t boot = clock.bootTimeSeconds().value_or(0);
  if (boot == 0) return 0;
  return std::chrono::floor<std::chrono::seconds>(clock.wallTime()).time_since_epoch().count() - boot;
}

/// The start time above; below it the bundle's hash in the upper half and the pid in the lower.
uint64_t activationID(uint64_t startTimestamp, const std::string& bundleID, int32_t pid) {
  const uint64_t start = startTimestamp << 32;
  const uint32_t bundle = stringHash(bundleID) << 16;
  return start | bundle | static_cast<uint16_t>(pid);
}

/// A look that comes late must not take from a launched process what it has spent by then: one that was made
/// for this activation had spent nothing when that began.
void clearIfBornSince(PerfSnapshot& snapshot, int32_t pid, uint64_t startMs) {
  constexpr uint64_t kStartPrecisionMs = 20;  // start times are told in ticks of 10 ms
  cpu_statistics* const statistics = snapshot.cpu_stats();
  const auto tasks = statistics ? std::span(statistics->tasks, static_cast<size_t>(statistics->count))
                                : std::span<task_statistics>();
  const auto task = std::find_if(tasks.begin(), tasks.end(), [pid](const auto& t) { return t.pid == pid; });
  if (task == tasks.end() || task->rusage.proc_start_abstime == 0) return;
  platform::Clock& clock = platform::current().clock;
  const platform::Timebase timebase = clock.timebase();
  const uint64_t began = task->rusage.proc_start_abstime;
  const uint64_t ageMs = (clock.timeSinceBoot() - began) * timebase.numer / timebase.denom / 1'000'000;
  if (nowMs() + kStartPrecisionMs < startMs + ageMs) return;
  task->rusage = {};
  task->rusage.proc_start_abstime = began;
}

}  // namespace

AppActivation::AppActivation(uint8_t statisticsType, int32_t pid, std::string bundleID, uint64_t startTimeMs,
                             uint64_t ipxStartTimeMs, uint8_t state, uint8_t activationType) {
  const Log log = quorvelLog();
  const uint64_t now = nowMs();
  startTimestamp_ = startTimeMs;
  if (startTimeMs == 0) {
    startTimestamp_ = now;
    log.standard("QVActivationStats: We got no Start time for the activation");
  }
  // Asked before the pid is set, so it names process 0, the kernel; where that has no name, the record has
  // none.
  processName_ = platform::current().kernel.processName(pid_);

  snapshotTypesToRecord_ = statisticsType;
  pid_ = pid;
  bundleID_ = std::move(bundleID);
  appActivationStartState_ = state;
  appActivationType_ = activationType;
  systemUptime_ = secondsSinceBoot();

  // Unsigned: a start time in the future wraps to a latency that saturates the field.
  const uint64_t latencyMs = now - ipxStartTimeMs;
  insert_activation_flag(latencyMs / kLatencyUnitMs, ActivationFlag::startLatency, appActivationFlags_);
  log.debug("QVActivationStats: Latency to get start message:%llu ms",
            static_cast<unsigned long long>(latencyMs));
  ipxStartLatencyInMs_ = static_cast<uint32_t>(latencyMs);
  appActivationID_ = activationID(startTimestamp_, bundleID_, pid_);
  startSnapshot_ = PerfSnapshot::createPerformanceSnapshotWithOptions(snapshotTypesToRecord_);
  if (startSnapshot_) clearIfBornSince(*startSnapshot_, pid_, startTimestamp_);
}

void AppActivation::activationEndedWithResult(uint8_t result, uint64_t endTimeMs) {
  const Log log = quorvelLog();
  if (endTimeMs == 0) log.standard("QVActivationStats: We got no End time for the activation");
  const uint64_t now = nowMs();
  const uint64_t end = endTimeMs == 0 ? now : endTimeMs;
  wallTime_ = static_cast<uint32_t>(end - startTimestamp_);

  const uint64_t latencyMs = now - end;
  insert_activation_flag(latencyMs / kLatencyUnitMs, ActivationFlag::endLatency, appActivationFlags_);
  ipxEndLatencyInMs_ = static_cast<uint32_t>(latencyMs);
  log.debug("QVActivationStats: Latency to get end message:%llu ms",
            static_cast<unsigned long long>(latencyMs));
  appActivationResult_ = result;
  endSnapshot_ = PerfSnapshot::createPerformanceSnapshotWithOptions(snapshotTypesToRecord_);
}

bool AppActivation::packSnapshots(SharedLooks& looks, uint32_t forUid) {
  const bool hasStart = !startSnapshot_ || startSnapshot_->pack(looks, forUid);
  const bool hasEnd =
      !endSnapshot_ || endSnapshot_->pack(looks, forUid);  // even then: neither stays unpacked
  return hasStart && hasEnd;
}

}  // namespace quorveld
