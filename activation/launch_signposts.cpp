#include <algorithm>
#include <span>

#include "activation/app_activation_tracker.h"
#include "base/settings.h"
#include "base/text.h"
#include "base/ticks.h"
#include "perfstats/cpu_statistics_delta.h"
#include "platform/clock.h"
#include "platform/platform.h"

// Launches as signpost intervals, on internal builds: the end of an interval carries what the app spent.
// Telemetry matches on these texts, blanks included.

namespace quorveld {

namespace {

#define QV_GAP "                                      "

struct LaunchCost {
  uint64_t cpuTimeMs = 0;
  uint64_t ioKB = 0;  ///< thousands of bytes
};

double nsPerTick() {
  static const double value = [] {
    const platform::Timebase timebase = platform::current().clock.timebase();
    return static_cast<double>(timebase.numer) / timebase.denom;
  }();
  return value;
}

/// What the launched process spent between the activation's two snapshots; nothing when it wasn't seen in
/// them.
LaunchCost costOfLaunch(const AppActivation& activation, int32_t pid) {
  if (!(activation.snapshotTypesToRecord() & kSnapshotCpu)) return {};
  const auto cpuStats = [](PerfSnapshot* snapshot) { return snapshot ? snapshot->cpu_stats() : nullptr; };
  const CpuStatisticsPtr delta =
      delta_cpu_statistics(cpuStats(activation.startSnapshot()), cpuStats(activation.endSnapshot()));
  if (!delta) return {};
  const std::span<const task_statistics> tasks(delta->tasks, static_cast<size_t>(delta->count));
  const auto task =
      std::find_if(tasks.begin(), tasks.end(), [pid](const auto& entry) { return entry.pid == pid; });
  if (task == tasks.end()) return {};
  const platform::rusage_info_v3& usage = task->rusage;
  return {.cpuTimeMs = truncateToUnsigned(static_cast<double>(usage.user_time + usage.system_time) *
                                          nsPerTick() / 1'000'000),
          .ioKB = (usage.diskio_bytesread + usage.diskio_byteswritten) / 1000};
}

/// A pid of 0 or -1 is the null or the invalid identifier of a signpost.
bool mayEmit(const Log& log, int32_t pid) {
  return pid != 0 && pid != -1 && log.handle().signpostsEnabled();
}

/// A signpost's identifier is the pid, widened with its sign.
uint64_t signpostID(int32_t pid) {
  return static_cast<uint64_t>(int64_t{pid});
}

void emitEnd(const Log& log, int32_t pid, const std::string& bundleID, const LaunchCost& cost,
             const char* suffix) {
  if (!mayEmit(log, pid)) return;
  log.handle().signpostIntervalEnd(
      signpostID(pid),
      formatted("appLaunch processBundleId=%s" QV_GAP "appCPUTimeInMs=%llu" QV_GAP "appIOInKB=%llu%s",
                bundleID.c_str(), static_cast<unsigned long long>(cost.cpuTimeMs),
                static_cast<unsigned long long>(cost.ioKB), suffix));
}

#undef QV_GAP

}  // namespace

void AppActivationTracker::signpostBeginOfLaunch(int32_t pid, const std::string& bundleID) const {
  if (!settings().isInternalBuild) return;
  if (mayEmit(signpostLog_, pid)) {
    signpostLog_.handle().signpostIntervalBegin(signpostID(pid), "appLaunch processBundleId=" + bundleID);
  }
  signpostLog_.info("os_signpost_interval_begin: processBundleId: %s", bundleID.c_str());
}

void AppActivationTracker::signpostEndOfLaunch(int32_t pid, const std::string& bundleID,
                                               bool isValidEndOfLaunch) const {
  if (!settings().isInternalBuild) return;
  const AppActivation* activation = inFlight(formatted("%d:%s", pid, bundleID.c_str()));
  if (!activation || !isValidEndOfLaunch) {
    emitEnd(signpostLog_, pid, bundleID, {}, "");
    return;
  }
  const LaunchCost cost = costOfLaunch(*activation, pid);
  emitEnd(signpostLog_, pid, bundleID, cost, " enableTelemetry=YES ");
  signpostLog_.info("os_signpost_interval_end: processBundleId: %s", bundleID.c_str());
  signpostLog_.info("stats for processBundleId: %s", bundleID.c_str());
  signpostLog_.info("-----------------------------");
  signpostLog_.info("appCPUTimeInMs:%llu  appIOInKB: %llu", static_cast<unsigned long long>(cost.cpuTimeMs),
                    static_cast<unsigned long long>(cost.ioKB));
}

}  // namespace quorveld
