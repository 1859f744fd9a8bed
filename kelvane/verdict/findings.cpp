#include "kelvane/verdict/findings.h"

#include <signal.h>

#include <algorithm>
#include <map>
#include <string_view>
#include <unordered_map>

#include "kelvane/timeline/cpu_runs.h"
#include "kelvane/verdict/likely_enders.h"

namespace kelvane {
namespace {

/// How many waits and busy threads a verdict lists.
constexpr size_t kMaxListed = 10;

/// Pages that a thread has read in again within a look, which takes some tenths of a second: one of a machine
/// with memory to spare comes upon one now and then.
constexpr uint64_t kManyFaults = 20;

using TimeByThread = std::unordered_map<int32_t, uint64_t>;

/// Whether the thread was as awake, or as asleep, at the end of the recording as at the end of the hang, and
/// always between.
bool isSameSince(const std::vector<StateSpan>& spans, uint64_t hangEndNs) {
  if (spans.empty() || spans.back().state == ThreadState::unknown) return false;
  bool awake = spans.back().isAwake();
  for (auto span = spans.rbegin(); span != spans.rend() && span->toNs >= hangEndNs; ++span) {
    if (span->state == ThreadState::unknown || span->isAwake() != awake) return false;
    // A wait that began after the hang's end is another one.
    if (!awake && span == spans.rbegin() && span->fromNs > hangEndNs) return false;
  }
  return true;
}

std::vector<Wait> longestWaits(const Evidence& evidence, const std::vector<StateSpan>& spans,
                               const Findings& findings) {
  std::vector<const StateSpan*> candidates;
  auto length = [&](const StateSpan* span) {
    return sharedNs(span->fromNs, span->toNs, evidence.fromNs, evidence.toNs);
  };
  for (const StateSpan& span : spans) {
    bool isWait = span.state != ThreadState::running && span.state != ThreadState::unknown;
    if (isWait && length(&span) > 0) candidates.push_back(&span);
  }
  auto end = candidates.begin() + static_cast<ptrdiff_t>(std::min(kMaxListed, candidates.size()));
  std::partial_sort(candidates.begin(), end, candidates.end(),
                    [&](auto* a, auto* b) { return length(a) > length(b); });
  std::vector<Wait> waits;
  for (auto span = candidates.begin(); span != end; ++span) {
    Wait wait;
    wait.fromNs = std::max((*span)->fromNs, evidence.fromNs);
    wait.toNs = std::min((*span)->toNs, evidence.toNs);
    wait.state = (*span)->state;
    wait.end = (*span)->end;
    bool isTheLast = *span == &spans.back() && findings.stillAsleep;
    if (isTheLast) wait.waitChannel = findings.thread->facts.waitChannel;
    if (wait.end == SleepEnd::thread) wait.wokenBy = namedThread(evidence, (*span)->wokenBy);
    waits.push_back(std::move(wait));
  }
  return waits;
}

std::vector<BusyThread> busiestOf(const Evidence& evidence, const TimeByThread& times, size_t count) {
  std::vector<std::pair<uint64_t, int32_t>> order;
  for (const auto& [tid, ns] : times) order.emplace_back(ns, tid);
  std::sort(order.rbegin(), order.rend());
  if (order.size() > count) order.resize(count);
  std::vector<BusyThread> busiest;
  busiest.reserve(order.size());
  for (const auto& [ns, tid] : order) busiest.push_back({namedThread(evidence, tid), ns});
  return busiest;
}

bool isOfProcess(const ProcessCapture& process, int32_t tid) {
  return std::any_of(process.threads.begin(), process.threads.end(),
                     [&](const ThreadCapture& thread) { return thread.facts.tid == tid; });
}

Competitors competitorsOf(const Evidence& evidence, const TimeByThread& times) {
  std::map<std::pair<bool, std::string_view>, Competitors> byName;
  Competitors most;
  for (const auto& [tid, ns] : times) {
    auto name = evidence.recording.threadNames.find(tid);
    bool isOwn = isOfProcess(evidence.process, tid);
    Competitors& group =
        byName[{isOwn, name == evidence.recording.threadNames.end() ? std::string_view() : name->second}];
    if (group.count++ == 0 || ns > times.at(group.busiest.tid)) group.busiest.tid = tid;
    group.areOwn = isOwn;
    group.runningNs += ns;
    if (group.runningNs > most.runningNs) most = group;
  }
  if (most.count > 0) most.busiest = namedThread(evidence, most.busiest.tid);
  return most;
}

/// Of processes of the group that hardly anybody else would call busy, their first threads alone are known.
Competitors sharersOf(const Evidence& evidence, const GroupLimits::Quota& quota, const TimeByThread& running,
                      const std::vector<BusyThread>& busiest) {
  TimeByThread ofMembers;
  for (const pid_t pid : quota.members) {
    if (pid == evidence.process.pid) continue;
    if (const auto ran = running.find(pid); ran != running.end()) ofMembers[pid] = ran->second;
    for (const BusyThread& busy : busiest) {
      if (busy.thread.pid == pid) ofMembers[busy.thread.tid] = busy.runningNs;
    }
  }
  return competitorsOf(evidence, ofMembers);
}

/// Who else had CPUs: in all, and while the hung thread was ready to run on them.
void addOthers(const Evidence& evidence, const std::vector<StateSpan>& spans, Findings& findings) {
  std::vector<const StateSpan*> runnable;
  for (const StateSpan& span : spans) {
    if (span.state == ThreadState::runnable && span.toNs > evidence.fromNs && span.fromNs < evidence.toNs)
      runnable.push_back(&span);
  }
  TimeByThread running;
  TimeByThread competing;
  std::unordered_map<uint16_t, size_t> nextOfCpu;  // each CPU's runs ascend, as do the spans
  visitCpuRuns(evidence.recording, [&](const CpuRun& run) {
    uint64_t from = std::max(run.fromNs, evidence.fromNs);
    uint64_t to = std::min(run.toNs, evidence.toNs);
    if (from >= to || (run.tid != 0 && run.tid == evidence.process.hungThread)) return;
    if (run.tid != 0) running[run.tid] += to - from;
    size_t& next = nextOfCpu[run.cpu];
    while (next < runnable.size() && runnable[next]->toNs <= from) next++;
    for (size_t i = next; i < runnable.size() && runnable[i]->fromNs < to; i++) {
      if (runnable[i]->cpu != -1 && runnable[i]->cpu != run.cpu) continue;
      uint64_t ns = sharedNs(from, to, runnable[i]->fromNs, runnable[i]->toNs);
      (run.tid == 0 ? findings.idleRunnableNs : competing[run.tid]) += ns;
    }
  });
  findings.busiest = busiestOf(evidence, running, kMaxListed);
  findings.competitors = competitorsOf(evidence, competing);
  if (evidence.after.limits.quota)
    findings.sharers = sharersOf(evidence, *evidence.after.limits.quota, running, findings.busiest);
}

/// Where the thread waits at the recording's end, as far as the look tells.
WaitPlace lastPlace(const Findings& findings) {
  if (!findings.stillAsleep || findings.thread->facts.waitChannel.empty()) return WaitPlace::unknown;
  return isForDisk(findings.kernelWait) ? WaitPlace::disk : WaitPlace::elsewhere;
}

void addDisk(const Evidence& evidence, const std::vector<StateSpan>& spans, Findings& findings) {
  const std::vector<DiskRequest> requests = diskRequests(evidence.recording);
  uint64_t coveredFromNs = std::max(evidence.fromNs, evidence.recording.coveredFromNs);
  findings.disk =
      diskActivity(evidence.recording, requests, std::min(coveredFromNs, evidence.toNs), evidence.toNs);
  if (!findings.thread) return;
  int32_t hung = evidence.process.hungThread;
  findings.diskWaits = diskWaits(evidence.recording, requests, hung, spans, lastPlace(findings),
                                 evidence.fromNs, evidence.toNs);
  const DiskWaits& waits = findings.diskWaits;
  if (!waits.busiestOther) return;
  findings.diskUsers.busiest = namedThread(evidence, *waits.busiestOther);
  findings.diskUsers.areOwn = isOfProcess(evidence.process, *waits.busiestOther);
  findings.diskUsers.count = waits.othersOfItsName;
}

/// Sums the time between begin and end events; either may lie outside of the recording.
class PairedTime {
 public:
  explicit PairedTime(const Evidence& evidence)
      : evidence_(evidence), sinceNs_(evidence.recording.coveredFromNs) {}

  void begin(uint64_t atNs) {
    if (depth_++ == 0) sinceNs_ = atNs;
    begun_ = true;
  }
  void end(uint64_t atNs) {
    if (depth_ == 0 && begun_) return;  // its begin was lost
    begun_ = true;
    depth_ = std::max(depth_ - 1, 0);
    if (depth_ > 0) return;
    sumNs_ += sharedNs(sinceNs_, atNs, evidence_.fromNs, evidence_.toNs);
  }
  uint64_t sumNs() const {
    uint64_t open = sharedNs(sinceNs_, evidence_.recording.toNs, evidence_.fromNs, evidence_.toNs);
    return depth_ > 0 ? sumNs_ + open : sumNs_;
  }

 private:
  const Evidence& evidence_;
  uint64_t sinceNs_;
  uint64_t sumNs_ = 0;
  int depth_ = 0;
  bool begun_ = false;
};

void addEvents(const Evidence& evidence, Findings& findings) {
  PairedTime reclaim(evidence);
  PairedTime suspend(evidence);
  int32_t hung = evidence.process.hungThread;
  for (const RecordedEvent& event : evidence.recording.events) {
    bool inside = event.atNs >= evidence.fromNs && event.atNs <= evidence.toNs;
    bool own = event.tid == hung;
    if (event.kind == RecordedKind::suspendBegin) suspend.begin(event.atNs);
    if (event.kind == RecordedKind::suspendEnd) suspend.end(event.atNs);
    if (event.kind == RecordedKind::reclaimBegin && own) reclaim.begin(event.atNs);
    if (event.kind == RecordedKind::reclaimEnd && own) reclaim.end(event.atNs);
    if (event.kind == RecordedKind::fileFault && own && inside) findings.pageIns++;
    bool stops =
        event.value == SIGSTOP || event.value == SIGTSTP || event.value == SIGTTIN || event.value == SIGTTOU;
    if (event.kind == RecordedKind::signal && stops && isOfProcess(evidence.process, event.tid))
      findings.stopSignal = event;
  }
  findings.reclaimNs = reclaim.sumNs();
  findings.suspendNs = suspend.sumNs();
  if (findings.stopSignal && findings.stopSignal->other != 0)
    findings.stopSender = namedThread(evidence, findings.stopSignal->other);
}

/// What has become more between the two readings of the limits.
void addLimits(const Evidence& evidence, Findings& findings) {
  const GroupLimits& before = evidence.before.limits;
  const GroupLimits& after = evidence.after.limits;
  if (before.memory && after.memory && before.memory->group == after.memory->group)
    findings.memoryLimitHit =
        after.memory->hits > before.memory->hits && after.memory->refaults > before.memory->refaults;
  const Surroundings& begin = evidence.before;
  const Surroundings& end = evidence.after;
  if (begin.thread == end.thread) {
    findings.faultedAtLook = end.majorFaults >= begin.majorFaults + kManyFaults;
    // They are 0 of a thread that has ended by then.
    findings.inKernelAtLook = end.systemTicks >= begin.systemTicks && end.userTicks >= begin.userTicks &&
                              end.systemTicks - begin.systemTicks > end.userTicks - begin.userTicks;
  }
  if (before.quota && after.quota && before.quota->group == after.quota->group)
    findings.throttledAtLook = after.quota->throttledNs > before.quota->throttledNs;
  if (findings.kernelWait == KernelWait::quota) findings.throttledAtLook = true;
}

}  // namespace

bool isMemoryShort(const Pressure& pressure) {
  // A machine with memory to spare shows below 1 %.
  constexpr double kShortPercent = 20;
  return pressure.memory && pressure.memory->some10 >= kShortPercent;
}

Findings findingsOf(const Evidence& evidence) {
  Findings findings;
  if (!evidence.process.threads.empty()) findings.thread = &evidence.process.threads.front();
  std::vector<StateSpan> spans;
  if (findings.thread) {
    spans = threadTimeline(evidence.recording, evidence.process.hungThread, findings.thread->facts.state);
    findings.spent = timeByState(spans, evidence.fromNs, evidence.toNs);
    for (uint64_t ns : findings.spent) findings.knownNs += ns;
    findings.knownNs -= findings.in(ThreadState::unknown);
    bool same = isSameSince(spans, evidence.toNs);
    findings.stillAwake = same && spans.back().isAwake();
    findings.stillAsleep = same && !findings.stillAwake;
    findings.kernelWait = kernelWait(findings.thread->facts);
    if (findings.stillAsleep)
      findings.lastSleepNs = sharedNs(spans.back().fromNs, spans.back().toNs, evidence.fromNs, evidence.toNs);
    findings.waitGraph = withLikelyEnders(evidence);
    findings.sleeps = sleepsOf(evidence, findings.waitGraph, spans, findings.stillAsleep);
    findings.waits = longestWaits(evidence, spans, findings);
  }
  addOthers(evidence, spans, findings);
  addDisk(evidence, spans, findings);
  addEvents(evidence, findings);
  addLimits(evidence, findings);
  findings.sampled = sampledPhases(evidence.process, evidence.fromNs, evidence.toNs);
  return findings;
}

}  // namespace kelvane
