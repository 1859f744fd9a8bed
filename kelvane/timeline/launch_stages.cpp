#include "kelvane/timeline/launch_stages.h"

#include <algorithm>

namespace kelvane {
namespace {

/// How many makers are gone back to from the thread that came last.
constexpr size_t kMaxStages = 8;

/// The launch's end is told in whole milliseconds, and turned from one clock's into another's.
constexpr uint64_t kEndSlackNs = 3'000'000;

/// How long after a process has ended the launch may be over because of that.
constexpr uint64_t kLastWordNs = 100'000'000;

bool livesOn(const LaunchedProcess& process, uint64_t toNs) {
  return process.endedNs == 0 || process.endedNs + kLastWordNs >= toNs;
}

/// The thread of processes that lived to the end that last woke who made the first of them; else the first
/// thread of the launched process, or, if that has ended long before, of the busiest one that lived on.
int32_t lastThread(const Recording& recording, const LaunchedProcesses& launched, uint64_t toNs) {
  const LaunchedProcess& first = launched.all.front();
  int32_t last = 0;
  const auto making = launched.making.find(first.pid);
  for (const RecordedEvent& event : recording.events) {
    if (making == launched.making.end() || event.atNs > toNs + kEndSlackNs) break;
    const bool isTold =
        event.kind == RecordedKind::wakeup && event.other == making->second.by && event.state != 'i';
    const LaunchedProcess* process = isTold ? launched.processOf(event.tid) : nullptr;
    if (process && livesOn(*process, toNs)) last = event.tid;
  }
  if (last != 0 || livesOn(first, toNs)) return last != 0 ? last : first.pid;
  const auto busiest =
      std::max_element(launched.all.begin(), launched.all.end(), [&](auto& one, auto& other) {
        return (livesOn(one, toNs) ? one.runningNs : 0) < (livesOn(other, toNs) ? other.runningNs : 0);
      });
  return busiest->pid;
}

}  // namespace

std::vector<LaunchStage> launchStages(const Recording& recording, const LaunchedProcesses& launched,
                                      uint64_t fromNs, uint64_t toNs) {
  std::vector<LaunchStage> stages;
  int32_t tid = lastThread(recording, launched, toNs);
  while (stages.size() + 1 < kMaxStages) {
    const auto making = launched.making.find(tid);
    if (making == launched.making.end() || making->second.atNs <= fromNs || making->second.atNs >= toNs)
      break;
    stages.push_back({tid, making->second.atNs, toNs});
    toNs = making->second.atNs;
    tid = making->second.by;
  }
  stages.push_back({tid, fromNs, toNs});
  std::reverse(stages.begin(), stages.end());
  return stages;
}

}  // namespace kelvane
