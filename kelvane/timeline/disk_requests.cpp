#include "kelvane/timeline/disk_requests.h"

#include <algorithm>
#include <map>
#include <tuple>
#include <utility>

namespace kelvane {

std::vector<DiskRequest> diskRequests(const Recording& recording) {
  using Key = std::pair<uint32_t, uint64_t>;  // device and first sector
  std::map<Key, DiskRequest> underWay;
  std::vector<DiskRequest> requests;
  for (const RecordedEvent& event : recording.events) {
    Key key{event.device, event.value};
    if (event.kind == RecordedKind::blockIssue) {
      // If one is under way already, its completion was lost.
      underWay.insert_or_assign(key, DiskRequest{event.atNs, recording.toNs, event.tid, event.device});
    } else if (event.kind == RecordedKind::blockComplete) {
      auto issued = underWay.find(key);
      if (issued == underWay.end()) continue;
      issued->second.completedNs = event.atNs;
      requests.push_back(issued->second);
      underWay.erase(issued);
    }
  }
  if (recording.lostEvents == 0) {
    for (const auto& [key, request] : underWay) requests.push_back(request);
  }
  std::sort(requests.begin(), requests.end(), [](const DiskRequest& a, const DiskRequest& b) {
    return std::tie(a.issuedNs, a.completedNs) < std::tie(b.issuedNs, b.completedNs);
  });
  return requests;
}

}  // namespace kelvane
