#include "kelvane/timeline/disk_waits.h"

#include <algorithm>
#include <array>
#include <map>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

namespace kelvane {
namespace {

/// The share of a wait with its own requests under way, from which on they account for it.
constexpr double kOwnShare = 0.5;
/// The share with any request of the device under way, from which on its own may have stood in a queue.
constexpr double kQueuedShare = 0.9;
/// The share of all requests' time from which on whoever asked for them is told of.
constexpr double kUserShare = 0.2;
/// How many of the kernel's threads are followed.
constexpr size_t kMaxHelpers = 8;

}  // namespace

bool isDiskHelper(std::string_view name) {
  constexpr std::array<std::string_view, 12> kPrefixes = {"kworker/", "jbd2/",      "xfs-",    "xfsaild/",
                                                          "xfs_mru",  "btrfs-",     "dmcrypt", "kcryptd",
                                                          "irq/",     "ksoftirqd/", "f2fs_",   "mmcqd"};
  constexpr std::array<std::string_view, 2> kNumbered = {"md", "loop"};  // md5sum is somebody's program
  const auto isNumbered = [&](std::string_view prefix) {
    if (!name.starts_with(prefix)) return false;
    const size_t end = std::min(name.find_first_not_of("0123456789", prefix.size()), name.size());
    return end > prefix.size() && (end == name.size() || name[end] == '_');  // "md0_raid1", "loop0"
  };
  return std::any_of(kPrefixes.begin(), kPrefixes.end(),
                     [&](auto prefix) { return name.starts_with(prefix); }) ||
         std::any_of(kNumbered.begin(), kNumbered.end(), isNumbered);
}

namespace {

/// The time that requests have in common with a wait, however they overlap.
class Covered {
 public:
  Covered(uint64_t fromNs, uint64_t toNs) : fromNs_(fromNs), toNs_(toNs), untilNs_(fromNs) {}
  /// Ascending by issue.
  void take(const DiskRequest& request) {
    uint64_t to = std::min(request.completedNs, toNs_);
    uint64_t from = std::max({request.issuedNs, fromNs_, untilNs_});
    if (to > from) sumNs_ += to - from;
    untilNs_ = std::max(untilNs_, to);
  }
  bool isAtLeast(double share) const {
    return static_cast<double>(sumNs_) >= share * static_cast<double>(toNs_ - fromNs_);
  }

 private:
  uint64_t fromNs_;
  uint64_t toNs_;
  uint64_t untilNs_;
  uint64_t sumNs_ = 0;
};

/// Threads of one name.
struct Issuers {
  void add(int32_t tid, uint64_t ofItNs) {
    if (count++ == 0 || ofItNs > busiestNs) busiest = tid, busiestNs = ofItNs;
    ns += ofItNs;
  }
  int32_t busiest = 0;
  uint64_t busiestNs = 0;
  size_t count = 0;
  uint64_t ns = 0;
};

class Waits {
 public:
  Waits(const Recording& recording, std::span<const DiskRequest> requests, int32_t tid, WaitPlace lastPlace,
        const ThreadTimelines* timelines)
      : recording_(recording), requests_(requests), timelines_(timelines), tid_(tid), lastPlace_(lastPlace) {
    for (const DiskRequest& request : requests) {
      longestNs_ = std::max(longestNs_, request.completedNs - request.issuedNs);
    }
  }

  void take(const StateSpan& span, bool isLast, uint64_t countedNs) {
    bool isOpen = isLast && span.end == SleepEnd::open && lastPlace_ != WaitPlace::elsewhere;
    bool isHelped = span.end == SleepEnd::thread && !endedByHelper(span).empty();
    if (span.end != SleepEnd::disk && !isHelped && !isOpen) return;
    const std::vector<DiskRequest> own = ownRequests(span);
    if (!isCovered(span, own, isOpen)) {
      if (!isOpen || lastPlace_ == WaitPlace::disk) sums_.heldBackNs += countedNs;
      return;
    }
    sums_.waitedNs += countedNs;
    for (const DiskRequest& request : own) {
      sums_.slowestNs = std::max(sums_.slowestNs, request.completedNs - request.issuedNs);
    }
    visitUnderWay(span, [&](const DiskRequest& request) {
      byIssuer_[request.issuedBy] += sharedNs(request.issuedNs, request.completedNs, span.fromNs, span.toNs);
    });
  }

  DiskWaits sums() {
    uint64_t allNs = 0;
    uint64_t othersNs = 0;
    std::map<std::string_view, Issuers> byName;
    for (const auto& [tid, ns] : byIssuer_) {
      allNs += ns;
      if (tid <= 0 || tid == tid_ || isHelper(tid)) continue;
      othersNs += ns;
      byName[nameOf(tid)].add(tid, ns);
    }
    const auto own = byIssuer_.find(tid_);
    if (own != byIssuer_.end() && own->second > allNs / 2) return sums_;
    for (const auto& [name, issuers] : byName) {
      const auto ns = static_cast<double>(issuers.ns);
      if (issuers.ns <= othersNs / 2 || ns < kUserShare * static_cast<double>(allNs)) continue;
      sums_.busiestOther = issuers.busiest;
      sums_.othersOfItsName = issuers.count;
    }
    return sums_;
  }

 private:
  /// Calls `visit` with each request that was under way in the span.
  template <typename Visit>
  void visitUnderWay(const StateSpan& span, Visit visit) const {
    // None that was issued earlier can reach into it.
    uint64_t earliestNs = span.fromNs - std::min(span.fromNs, longestNs_);
    auto request = std::lower_bound(requests_.begin(), requests_.end(), earliestNs,
                                    [](const DiskRequest& one, uint64_t ns) { return one.issuedNs < ns; });
    for (; request != requests_.end() && request->issuedNs < span.toNs; ++request) {
      if (request->completedNs > span.fromNs) visit(*request);
    }
  }

  /// When requests came back during the span to the helper that ended it; empty if it was no helper.
  std::vector<uint64_t> endedByHelper(const StateSpan& span) {
    std::vector<uint64_t> endsNs;
    const std::vector<StateSpan>* helper = helperTimeline(span.wokenBy);
    if (!helper) return endsNs;
    auto sleep = std::lower_bound(helper->begin(), helper->end(), span.fromNs,
                                  [](const StateSpan& one, uint64_t ns) { return one.toNs < ns; });
    for (; sleep != helper->end() && sleep->toNs <= span.toNs; ++sleep) {
      if (sleep->end == SleepEnd::disk) endsNs.push_back(sleep->requestEndNs);
    }
    return endsNs;
  }

  std::string_view nameOf(int32_t tid) const {
    auto name = recording_.threadNames.find(tid);
    return name == recording_.threadNames.end() ? std::string_view() : name->second;
  }
  bool isHelper(int32_t tid) const { return isDiskHelper(nameOf(tid)); }

  const std::vector<StateSpan>* helperTimeline(int32_t tid) {
    if (!isHelper(tid)) return nullptr;
    if (timelines_) {
      const auto made = timelines_->find(tid);
      return made == timelines_->end() ? nullptr : &made->second;
    }
    auto known = helpers_.find(tid);
    if (known != helpers_.end()) return &known->second;
    if (helpers_.size() == kMaxHelpers) return nullptr;
    return &helpers_.emplace(tid, threadTimeline(recording_, tid, '?')).first->second;
  }

  /// What the thread, or who helped it, issued or was ended by.
  std::vector<DiskRequest> ownRequests(const StateSpan& span) {
    std::vector<uint64_t> endsNs;
    if (span.end == SleepEnd::thread) endsNs = endedByHelper(span);
    if (span.end == SleepEnd::disk) endsNs.push_back(span.requestEndNs);
    std::vector<DiskRequest> own;
    visitUnderWay(span, [&](const DiskRequest& request) {
      bool isOwn = request.issuedBy == tid_ || (span.wokenBy > 0 && request.issuedBy == span.wokenBy) ||
                   std::find(endsNs.begin(), endsNs.end(), request.completedNs) != endsNs.end();
      if (isOwn) own.push_back(request);
    });
    return own;
  }

  bool isCovered(const StateSpan& span, const std::vector<DiskRequest>& own, bool isOpen) const {
    Covered byOwn(span.fromNs, span.toNs);
    for (const DiskRequest& request : own) byOwn.take(request);
    if (!own.empty() && byOwn.isAtLeast(kOwnShare)) return true;
    // One that has not come back is known by the place alone.
    if (isOpen ? lastPlace_ != WaitPlace::disk : own.empty()) return false;
    Covered byDevice(span.fromNs, span.toNs);
    visitUnderWay(span, [&](const DiskRequest& request) {
      if (isOpen || request.device == own.back().device) byDevice.take(request);
    });
    return byDevice.isAtLeast(kQueuedShare);
  }

  const Recording& recording_;
  const std::span<const DiskRequest> requests_;
  const ThreadTimelines* const timelines_;  // null: not made
  const int32_t tid_;
  const WaitPlace lastPlace_;
  uint64_t longestNs_ = 0;
  std::unordered_map<int32_t, std::vector<StateSpan>> helpers_;
  std::map<int32_t, uint64_t> byIssuer_;
  DiskWaits sums_;
};

}  // namespace

DiskWaits diskWaits(const Recording& recording, std::span<const DiskRequest> requests, int32_t tid,
                    std::span<const StateSpan> spans, WaitPlace lastPlace, uint64_t fromNs, uint64_t toNs,
                    const ThreadTimelines* timelines) {
  Waits waits(recording, requests, tid, lastPlace, timelines);
  for (const StateSpan& span : spans) {
    if (span.state != ThreadState::uninterruptible) continue;
    uint64_t ns = sharedNs(span.fromNs, span.toNs, fromNs, toNs);
    if (ns > 0) waits.take(span, &span == &spans.back(), ns);
  }
  return waits.sums();
}

}  // namespace kelvane
