#include "kelvane/timeline/disk_activity.h"

#include <algorithm>
#include <map>

namespace kelvane {
namespace {

using Intervals = std::vector<std::pair<uint64_t, uint64_t>>;

/// From issue to completion, for each request; those without a completion end with the recording.
Intervals requestTimes(const Recording& recording) {
  using Key = std::pair<uint32_t, uint64_t>;  // device and first sector
  std::map<Key, uint64_t> underWay;
  Intervals times;
  for (const RecordedEvent& event : recording.events) {
    Key key{event.device, event.value};
    if (event.kind == RecordedKind::blockIssue) {
      // If one is under way already, its completion was lost.
      underWay.insert_or_assign(key, event.atNs);
    } else if (event.kind == RecordedKind::blockComplete) {
      auto issued = underWay.find(key);
      if (issued == underWay.end()) continue;
      times.emplace_back(issued->second, event.atNs);
      underWay.erase(issued);
    }
  }
  // A request that never comes back is what a dead disk looks like, unless its completion may have been lost.
  if (recording.lostEvents == 0) {
    for (const auto& [key, issuedNs] : underWay) times.emplace_back(issuedNs, recording.toNs);
  }
  return times;
}

}  // namespace

DiskActivity diskActivity(const Recording& recording, uint64_t fromNs, uint64_t toNs) {
  DiskActivity activity;
  for (const RecordedEvent& event : recording.events) {
    if (event.kind != RecordedKind::blockIssue || event.atNs < fromNs || event.atNs > toNs) continue;
    activity.requests++;
    if (event.state == 'R') activity.readBytes += event.bytes;
    if (event.state == 'W') activity.writtenBytes += event.bytes;
  }
  Intervals times = requestTimes(recording);
  std::sort(times.begin(), times.end());
  for (const auto& [issuedNs, completedNs] : times) {
    uint64_t from = std::max(issuedNs, fromNs);
    uint64_t to = std::min(completedNs, toNs);
    if (from >= to) continue;
    activity.slowestNs = std::max(activity.slowestNs, completedNs - issuedNs);
    if (!activity.busy.empty() && from <= activity.busy.back().second) {
      activity.busy.back().second = std::max(activity.busy.back().second, to);
    } else {
      activity.busy.emplace_back(from, to);
    }
  }
  for (const auto& [from, to] : activity.busy) activity.busyNs += to - from;
  return activity;
}

}  // namespace kelvane
