#include "kelvane/timeline/critical_path.h"

#include <algorithm>
#include <map>
#include <utility>

#include "kelvane/timeline/disk_waits.h"

namespace kelvane {
namespace {

constexpr size_t kMaxDepth = 8;
/// Shorter sleeps are not worth following.
constexpr uint64_t kShortNs = 100'000;

class Walk {
 public:
  Walk(const Recording& recording, const ThreadTimelines& timelines)
      : recording_(recording), timelines_(timelines) {}

  CriticalPath from(int32_t tid, const std::vector<StateSpan>& spans, uint64_t fromNs, uint64_t toNs) {
    route_.push_back(tid);
    follow(spans, fromNs, toNs);
    return std::move(path_);
  }

 private:
  /// Of the route's last thread.
  void follow(const std::vector<StateSpan>& spans, uint64_t fromNs, uint64_t toNs) {
    auto span = std::lower_bound(spans.begin(), spans.end(), fromNs,
                                 [](const StateSpan& one, uint64_t ns) { return one.toNs <= ns; });
    for (; span != spans.end() && span->fromNs < toNs; ++span) {
      StateSpan part = *span;
      part.fromNs = std::max(part.fromNs, fromNs);
      part.toNs = std::min(part.toNs, toNs);
      if (route_.size() == 1) firstState_ = part.state;
      if (part.toNs < span->toNs) part.end = SleepEnd::open;
      const std::vector<StateSpan>* waker = timelineOfWaker(part);
      if (!waker) {
        path_.pieces.push_back({part, currentRoute()});
        continue;
      }
      route_.push_back(part.wokenBy);
      follow(*waker, part.fromNs, part.toNs);
      route_.pop_back();
    }
  }

  /// Null if the sleep is to be followed no further.
  const std::vector<StateSpan>* timelineOfWaker(const StateSpan& sleep) {
    const bool isSleep = sleep.state == ThreadState::sleeping || sleep.state == ThreadState::uninterruptible;
    if (!isSleep || sleep.end != SleepEnd::thread || sleep.toNs - sleep.fromNs < kShortNs) return nullptr;
    const bool isOnRoute = std::find(route_.begin(), route_.end(), sleep.wokenBy) != route_.end();
    const auto name = recording_.threadNames.find(sleep.wokenBy);
    const bool isHelper = name != recording_.threadNames.end() && isDiskHelper(name->second);
    if (isOnRoute || isHelper || route_.size() == kMaxDepth) return nullptr;
    const auto known = timelines_.find(sleep.wokenBy);
    return known == timelines_.end() ? nullptr : &known->second;
  }

  size_t currentRoute() {
    const auto [known, isNew] = routes_.try_emplace({firstState_, route_}, path_.routes.size());
    if (isNew) path_.routes.push_back({route_, firstState_});
    return known->second;
  }

  const Recording& recording_;
  const ThreadTimelines& timelines_;
  std::vector<int32_t> route_;
  ThreadState firstState_ = ThreadState::unknown;
  std::map<std::pair<ThreadState, std::vector<int32_t>>, size_t> routes_;
  CriticalPath path_;
};

}  // namespace

CriticalPath criticalPath(const Recording& recording, const ThreadTimelines& timelines, int32_t tid,
                          const std::vector<StateSpan>& spans, uint64_t fromNs, uint64_t toNs) {
  return Walk(recording, timelines).from(tid, spans, fromNs, toNs);
}

}  // namespace kelvane
