#include "kelvane/timeline/launched_processes.h"

#include <sched.h>

#include <algorithm>

#include "kelvane/timeline/cpu_runs.h"
#include "kelvane/timeline/thread_timeline.h"

namespace kelvane {
namespace {

class Gathering {
 public:
  Gathering(pid_t launched, std::span<const pid_t> threads, std::span<const Descendant> descendants) {
    addProcess(launched, 0);
    for (const pid_t tid : threads) addThread(tid, 0);
    for (const Descendant& known : descendants) {
      if (found_.ofTid.contains(known.pid)) continue;
      addProcess(known.pid, known.parent);
      for (const pid_t tid : known.threads) addThread(tid, found_.all.size() - 1);
    }
  }

  void take(const RecordedEvent& event) {
    switch (event.kind) {
      case RecordedKind::newTask:
        return made(event);
      case RecordedKind::execution:
        if (LaunchedProcess* process = known(event.tid)) process->executedNs.push_back(event.atNs);
        return;
      case RecordedKind::contextSwitch:
        note(event.tid, event.atNs, event.state == 'X' || event.state == 'Z');
        return note(event.other, event.atNs, false);
      default:
        return;
    }
  }

  LaunchedProcesses finish() {
    for (LaunchedProcess& process : found_.all) process.endedNs = endOf(process);
    return std::move(found_);
  }

 private:
  LaunchedProcess* known(int32_t tid) {
    const auto index = found_.ofTid.find(tid);
    return index == found_.ofTid.end() ? nullptr : &found_.all[index->second];
  }

  void addProcess(pid_t pid, pid_t parent) {
    LaunchedProcess& process = found_.all.emplace_back();
    process.pid = pid;
    process.parent = parent;
    addThread(pid, found_.all.size() - 1);
  }

  void addThread(int32_t tid, size_t process) {
    if (!found_.ofTid.try_emplace(tid, process).second) return;
    found_.all[process].threads.push_back(tid);
  }

  void made(const RecordedEvent& event) {
    if (event.tid == 0) return;  // by nobody who is known
    const auto maker = found_.ofTid.find(event.tid);
    const bool isLaunched = event.other == found_.all.front().pid;
    if (maker == found_.ofTid.end() && !isLaunched) return;
    if (maker != found_.ofTid.end() && !isLaunched) {
      if ((event.value & CLONE_THREAD) != 0)
        addThread(event.other, maker->second);
      else if (!found_.ofTid.contains(event.other))
        addProcess(event.other, found_.all[maker->second].pid);
    }
    if (!found_.making.try_emplace(event.other, LaunchedProcesses::Making{event.atNs, event.tid}).second)
      return;
    LaunchedProcess* process = known(event.other);
    if (process->pid == event.other) process->madeNs = event.atNs;
  }

  void note(int32_t tid, uint64_t atNs, bool isEnd) {
    if (found_.ofTid.contains(tid)) lastSeen_[tid] = {atNs, isEnd};
  }

  /// Its first thread may end before the others do.
  uint64_t endOf(const LaunchedProcess& process) const {
    const auto first = lastSeen_.find(process.pid);
    if (first == lastSeen_.end() || !first->second.isEnd) return 0;
    uint64_t endNs = first->second.atNs;
    for (const int32_t tid : process.threads) {
      const auto last = lastSeen_.find(tid);
      if (last == lastSeen_.end()) continue;
      if (!last->second.isEnd) return 0;
      endNs = std::max(endNs, last->second.atNs);
    }
    return endNs;
  }

  struct LastSeen {
    uint64_t atNs = 0;
    bool isEnd = false;
  };

  LaunchedProcesses found_;
  std::unordered_map<int32_t, LastSeen> lastSeen_;  // on a CPU, or leaving it
};

}  // namespace

const LaunchedProcess* LaunchedProcesses::processOf(int32_t tid) const {
  const auto index = ofTid.find(tid);
  return index == ofTid.end() ? nullptr : &all[index->second];
}

void addMissingMaking(Recording& recording, pid_t launched) {
  auto& events = recording.events;
  const auto isMaking = [&](const RecordedEvent& event) {
    return event.kind == RecordedKind::newTask && event.other == launched;
  };
  if (std::any_of(events.begin(), events.end(), isMaking)) return;
  const auto first = std::find_if(events.begin(), events.end(), [&](const RecordedEvent& event) {
    return event.tid == launched || (event.kind == RecordedKind::contextSwitch && event.other == launched);
  });
  if (first == events.end()) return;
  events.insert(first, {first->atNs, RecordedKind::newTask, '?', first->cpu, 0, launched, 0, 0, 0});
}

LaunchedProcesses launchedProcesses(const Recording& recording, pid_t launched,
                                    std::span<const pid_t> threads, std::span<const Descendant> descendants,
                                    uint64_t fromNs, uint64_t toNs) {
  Gathering gathering(launched, threads, descendants);
  for (const RecordedEvent& event : recording.events) {
    if (event.atNs <= toNs) gathering.take(event);
  }
  LaunchedProcesses found = gathering.finish();
  visitCpuRuns(recording, [&](const CpuRun& run) {
    const auto index = found.ofTid.find(run.tid);
    if (index == found.ofTid.end()) return;
    found.all[index->second].runningNs += sharedNs(run.fromNs, run.toNs, fromNs, toNs);
  });
  return found;
}

}  // namespace kelvane
