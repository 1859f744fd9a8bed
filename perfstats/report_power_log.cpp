#include <algorithm>
#include <map>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "base/log.h"
#include "base/settings.h"
#include "base/text.h"
#include "base/value_text.h"
#include "perfstats/activation_flags.h"
#include "perfstats/activation_report.h"
#include "perfstats/perf_stats_process.h"
#include "perfstats/report_state.h"
#include "perfstats/report_values.h"
#include "platform/platform.h"
#include "platform/power_log.h"

namespace quorveld {

namespace {

using platform::Dictionary;
using platform::Value;

constexpr int32_t kOtherProcessesPid = -1;
constexpr const char* kOtherProcessesName = "OtherProcesses";

void add(Dictionary& dictionary, std::string key, Dictionary inner) {
  dictionary.emplace_back(std::move(key), Value{std::move(inner)});
}

/// Builds the event of one report; made for it and thrown away.
class EventBuilder {
 public:
  explicit EventBuilder(const ActivationReport& report)
      : report_(report), timestampS_(static_cast<double>(report.startTimestamp) / 1000.0) {}

  platform::ActivationEvent build();

 private:
  void addCpuData();
  void keepLargest(const task_statistics& task);
  void addTask(int32_t position, const task_statistics& task, const PerfStatsProcess& process);
  Dictionary cpuDictionary(uint64_t uniqueID, const UsageValues& values, uint8_t state) const;
  void noticeRollover() const;
  void nameToService(PerfStatsProcess process);
  void addVmData(const char* key, int64_t sequenceID, const Vm& vm);
  void addActivationData();
  void addProcessData();
  void addMoreData();

  const ActivationReport& report_;
  const double timestampS_;
  platform::ActivationEvent event_;
  std::map<int32_t, PerfStatsProcess> processes_;  ///< whose names the service is told, by pid
  UsageValues others_{};                           ///< the sums of the processes reported as one
  uint32_t otherCount_ = 0;
  std::vector<task_statistics> largestOthers_;  ///< of those, most CPU time first
  int32_t largestNewPid_ = -1;
};

/// The figures as the service takes them: I/O in kilobytes, and what is no time cut to 32 bits.
UsageValues powerLogValues(const task_statistics& task) {
  UsageValues values = usageValues(task);
  for (size_t i = 0; i < values.size(); ++i) {
    const Unit unit = kUsageColumns[i].unit;
    if (unit == Unit::bytes) values[i] /= 1024;
    if (unit != Unit::ms) values[i] = static_cast<uint32_t>(values[i]);
  }
  return values;
}

Dictionary EventBuilder::cpuDictionary(uint64_t uniqueID, const UsageValues& values, uint8_t state) const {
  Dictionary dictionary;
  dictionary.reserve(values.size() + 4);
  dictionary.emplace_back("Timestamp", Value{timestampS_});
  dictionary.emplace_back("ActivationID", Value{report_.appActivationID});
  dictionary.emplace_back("UniqueID", Value{uniqueID});
  for (size_t i = 0; i < values.size(); ++i) {
    dictionary.emplace_back(kUsageColumns[i].powerLog, Value{values[i]});
  }
  dictionary.emplace_back("ProcessLifecycleState", Value{uint64_t{state}});
  return dictionary;
}

void EventBuilder::addTask(int32_t position, const task_statistics& task, const PerfStatsProcess& process) {
  const UsageValues values = powerLogValues(task);
  const bool isSmall =
      static_cast<double>(values[0]) <= settings().activationCPUThreshold.load(std::memory_order_relaxed);
  if (isSmall && task.state == kTaskPresent && task.pid != report_.pid) {
    for (size_t i = 0; i < values.size(); ++i) others_[i] += values[i];
    ++otherCount_;
    keepLargest(task);
    return;
  }
  add(event_.cpuData, std::to_string(position),
      cpuDictionary(process.uniqueIdentifier(), values, task.state));
}

/// User and system time, which is what the classes add up to.
uint64_t cpuTicks(const task_statistics& task) {
  const Usage& usage = task.rusage;
  return usage.cpu_time_qos_default + usage.cpu_time_qos_maintenance + usage.cpu_time_qos_background +
         usage.cpu_time_qos_utility + usage.cpu_time_qos_legacy + usage.cpu_time_qos_user_initiated +
         usage.cpu_time_qos_user_interactive;
}

/// Who is small is told by user time alone: in the system's calls somebody may have spent seconds.
void EventBuilder::keepLargest(const task_statistics& task) {
  constexpr size_t kMost = 5;
  if (cpuTicks(task) == 0) return;
  const auto isLarger = [](const auto& a, const auto& b) { return cpuTicks(a) > cpuTicks(b); };
  largestOthers_.insert(std::upper_bound(largestOthers_.begin(), largestOthers_.end(), task, isLarger), task);
  if (largestOthers_.size() > kMost) largestOthers_.pop_back();
}

/// An activation below the largest pid that was named means that pids have started over: everything from
/// there on is named again. Once a report, not once a process: a launcher may send any number as the pid.
void EventBuilder::noticeRollover() const {
  int32_t& largestTrackedPid = reportState().largestTrackedPid;
  if (report_.pid >= largestTrackedPid) return;
  quorvelLog().standard(
      " ***** QVActivationStats:Pids rolled over! Resetting our state to track new pids "
      "[App pid: %d. Last Seen:%d] *****",
      report_.pid, largestTrackedPid);
  largestTrackedPid = -1;
}

/// Names the process unless an earlier report did.
void EventBuilder::nameToService(PerfStatsProcess process) {
  const int32_t pid = process.pid();
  if (pid <= reportState().largestTrackedPid) return;
  if (pid > largestNewPid_) largestNewPid_ = pid;
  processes_.insert_or_assign(pid, std::move(process));
}

void EventBuilder::addCpuData() {
  const CpuStatisticsPtr delta = cpuDelta(report_);
  if (!delta) return;
  if (delta->count > 0) noticeRollover();
  for (int32_t n = 0; n < delta->count; ++n) {
    const task_statistics& task = delta->tasks[n];
    PerfStatsProcess process = PerfStatsProcess::processWithPID(task.pid, task.name);
    addTask(n, task, process);
    nameToService(std::move(process));
  }
  if (largestNewPid_ > -1) reportState().largestTrackedPid = largestNewPid_;

  const uint64_t uniqueID = PerfStatsProcess::generateUniqueIDForPID(kOtherProcessesPid, kOtherProcessesName);
  add(event_.cpuData, std::to_string(kOtherProcessesPid), cpuDictionary(uniqueID, others_, kTaskPresent));
  quorvelLog().debug("QVActivationStats: Number of Other Processes:%d", static_cast<int>(otherCount_));
  insert_activation_flag(otherCount_, ActivationFlag::otherProcesses, report_.appActivationFlags);
}

void EventBuilder::addVmData(const char* key, int64_t sequenceID, const Vm& vm) {
  Dictionary dictionary{
      {"FreeQueue", Value{vmFreePages(vm)}},
      {"ActiveQueue", Value{uint64_t{vm.active_count}}},
      {"SpeculativeQueue", Value{uint64_t{vm.speculative_count}}},
      {"InactiveQueue", Value{uint64_t{vm.inactive_count}}},
      {"ThrottledQueue", Value{uint64_t{vm.throttled_count}}},
      {"WiredQueue", Value{uint64_t{vm.wire_count}}},
      {"PurgeableQueue", Value{uint64_t{vm.purgeable_count}}},
      {"FileBackedQueue", Value{uint64_t{vm.external_page_count}}},
      {"AnonymousQueue", Value{uint64_t{vm.internal_page_count}}},
      {"CompressorSize", Value{uint64_t{vm.compressor_page_count}}},
      {"Faults", Value{vm.faults}},
      {"CopyOnWriteFault", Value{vm.cow_faults}},
      {"ZeroFill", Value{vm.zero_fill_count}},
      {"Reactivated", Value{vm.reactivations}},
      {"Purged", Value{vm.purges}},
      {"TotalCompressed", Value{vm.total_uncompressed_pages_in_compressor}},
      {"Decompressions", Value{vm.decompressions}},
      {"Compressions", Value{vm.compressions}},
      {"PageIns", Value{vm.pageins}},
      {"PageOuts", Value{vm.pageouts}},
      {"SwapIns", Value{vm.swapins}},
      {"SwapOuts", Value{vm.swapouts}},
      {"Timestamp", Value{timestampS_}},
      {"ActivationID", Value{report_.appActivationID}},
      {"SequenceID", Value{sequenceID}},
  };
  add(event_.vmData, key, std::move(dictionary));
}

void EventBuilder::addActivationData() {
  const auto named = processes_.try_emplace(report_.pid, report_.pid,
                                            toUtf8(report_.processName.value_or(report_.bundleID)));
  Dictionary& data = event_.activationData;
  data.emplace_back("Timestamp", Value{timestampS_});
  data.emplace_back("ActivationID", Value{report_.appActivationID});
  data.emplace_back("UniqueID", Value{named.first->second.uniqueIdentifier()});
  data.emplace_back("SystemUptime", Value{report_.systemUptime});
  data.emplace_back("BundleID", Value{toUtf8(report_.bundleID)});
  data.emplace_back("ActivationDuration_ms", Value{uint64_t{report_.wallTime}});
  data.emplace_back("ActivationResult", Value{uint64_t{report_.appActivationResult}});
  data.emplace_back("ActivationType", Value{uint64_t{report_.appActivationType}});
  data.emplace_back("ActivationFlags", Value{report_.appActivationFlags});
  quorvelLog().debug("QVActivationStats: Sending Activation Flags:%llx",
                     static_cast<unsigned long long>(report_.appActivationFlags));
  quorvelLog().debug("QVActivationStats: StartTime we got:%.3f", timestampS_);
}

void EventBuilder::addProcessData() {
  event_.processData.reserve(processes_.size());
  for (const auto& [pid, process] : processes_) {
    Dictionary dictionary;
    dictionary.reserve(3);
    dictionary.emplace_back("Timestamp", Value{timestampS_});
    dictionary.emplace_back("UniqueID", Value{process.uniqueIdentifier()});
    dictionary.emplace_back("ProcessName", Value{process.processName()});
    add(event_.processData, std::to_string(process.uniqueIdentifier()), std::move(dictionary));
  }
}

/// What children spent that ended between the snapshots and were waited for: they are in neither, or only in
/// the first, and only their parents tell.
std::vector<std::pair<const task_statistics*, uint64_t>> childrenTicks(const ActivationReport& report) {
  const auto tasksOf = [](PerfSnapshot* snapshot) {
    const cpu_statistics* statistics = snapshot ? snapshot->cpu_stats() : nullptr;
    return statistics ? std::span(statistics->tasks, static_cast<size_t>(statistics->count))
                      : std::span<task_statistics>();
  };
  std::vector<std::pair<const task_statistics*, uint64_t>> parents;
  const std::span<task_statistics> start = tasksOf(report.startSnapshot);
  auto before = start.begin();
  for (const task_statistics& now : tasksOf(report.endSnapshot)) {  // both are sorted by pid
    while (before != start.end() && before->pid < now.pid) ++before;
    const auto spent = [](const task_statistics& task) {
      return task.rusage.child_user_time + task.rusage.child_system_time;
    };
    const bool isKnown = before != start.end() && before->pid == now.pid &&
                         before->rusage.proc_start_abstime == now.rusage.proc_start_abstime;
    const uint64_t then = isKnown ? spent(*before) : 0;
    if (spent(now) > then) parents.emplace_back(&now, spent(now) - then);
  }
  return parents;
}

void EventBuilder::addMoreData() {
  constexpr size_t kMostParents = 20;
  std::map<int32_t, Dictionary> byPid;
  const auto entryOf = [&byPid](const task_statistics& task) -> Dictionary& {
    Dictionary& entry = byPid[task.pid];
    if (entry.empty())
      entry.emplace_back("ProcessName",
                         Value{PerfStatsProcess::processWithPID(task.pid, task.name).processName()});
    return entry;
  };
  for (const task_statistics& task : largestOthers_)
    entryOf(task).emplace_back("CPU_ms", Value{ticksAsMs(cpuTicks(task))});
  auto parents = childrenTicks(report_);
  std::sort(parents.begin(), parents.end(), [](const auto& a, const auto& b) { return a.second > b.second; });
  if (parents.size() > kMostParents) parents.resize(kMostParents);
  for (const auto& [parent, ticks] : parents) {
    if (const uint64_t ms = ticksAsMs(ticks); ms > 0) entryOf(*parent).emplace_back("ChildCPU_ms", Value{ms});
  }
  for (auto& [pid, entry] : byPid) {
    if (entry.size() > 1) add(event_.moreData, std::to_string(pid), std::move(entry));
  }
}

platform::ActivationEvent EventBuilder::build() {
  if (!std::exchange(reportState().otherProcessesNamed, true)) {
    processes_.try_emplace(kOtherProcessesPid, kOtherProcessesPid, kOtherProcessesName);
  }
  if (report_.snapshotTypesToRecord & kSnapshotCpu) {
    addCpuData();
    addMoreData();
  }
  const VmEnds vm = vmEnds(report_);
  if ((report_.snapshotTypesToRecord & kSnapshotVm) && vm.start) {
    addVmData("1", 1, *vm.start);
    addVmData("2", 2, *vm.end);
  }
  addActivationData();
  addProcessData();
  return std::move(event_);
}

void logEvent(const platform::ActivationEvent& event) {
  const Log log = quorvelLog();
  if (!log.handle().enabled(platform::LogLevel::debug)) return;  // the texts are long
  log.debug("QVActivationStats: Activation Data:%s\n", describe(event.activationData).c_str());
  log.debug("QVActivationStats: CPU Data:%s\n", describe(event.cpuData).c_str());
  log.debug("QVActivationStats: VM Data:%s\n", describe(event.vmData).c_str());
  log.debug("QVActivationStats: Process Data:%s\n", describe(event.processData).c_str());
}

}  // namespace

void logAppActivationDataToPelmar(const ActivationReport& report) {
  const platform::ActivationEvent event = EventBuilder(report).build();
  logEvent(event);
  platform::current().powerLog.handOver(event);
}

}  // namespace quorveld
