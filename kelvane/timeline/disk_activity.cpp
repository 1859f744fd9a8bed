#include "kelvane/timeline/disk_activity.h"

#include <algorithm>
#include <map>

namespace kelvane {

DiskActivity diskActivity(const Recording& recording, std::span<const DiskRequest> requests, uint64_t fromNs,
                          uint64_t toNs) {
  DiskActivity activity;
  for (const RecordedEvent& event : recording.events) {
    if (event.kind != RecordedKind::blockIssue || event.atNs < fromNs || event.atNs > toNs) continue;
    activity.requests++;
    if (event.state == 'R') activity.readBytes += event.bytes;
    if (event.state == 'W') activity.writtenBytes += event.bytes;
  }
  uint64_t busyUntilNs = fromNs;
  std::map<int32_t, uint64_t> underWayNs;
  for (const DiskRequest& request : requests) {
    uint64_t from = std::max(request.issuedNs, fromNs);
    uint64_t to = std::min(request.completedNs, toNs);
    if (from >= to) continue;
    activity.slowestNs = std::max(activity.slowestNs, request.completedNs - request.issuedNs);
    if (to > busyUntilNs) activity.busyNs += to - std::max(from, busyUntilNs);
    busyUntilNs = std::max(busyUntilNs, to);
    const uint64_t sumNs = underWayNs[request.issuedBy] += to - from;
    if (!activity.busiest || sumNs > underWayNs[*activity.busiest]) activity.busiest = request.issuedBy;
  }
  return activity;
}

}  // namespace kelvane
