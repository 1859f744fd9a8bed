#pragma once

#include <cstdint>
#include <vector>

#include "kelvane/recording/recording.h"
#include "kelvane/timeline/thread_timeline.h"

namespace kelvane {

/// What a stretch of time was spent on, for the sake of one thread: what that did itself, and while it slept
/// until another thread woke it, what that one did, and so on.
struct CriticalPath {
  /// The threads that wait for each other, from the followed one to whose piece it is.
  struct Route {
    std::vector<int32_t> threads;
    ThreadState firstState = ThreadState::unknown;  // the followed one's meanwhile
  };
  struct Piece {
    StateSpan span;  // of the route's last thread; its times are those of the piece
    size_t route = 0;

    uint64_t ns() const { return span.toNs - span.fromNs; }
  };

  std::vector<Route> routes;
  std::vector<Piece> pieces;  // ascending, without gaps
};

/// Follows `tid`, of `spans`, through [fromNs, toNs]; `timelines` are the recording's. Who brings a disk's
/// requests back is not followed: the sleeper waited for the disk. Sleeps of which the recording tells no
/// waker, and those too deep or too short, end a route.
CriticalPath criticalPath(const Recording& recording, const ThreadTimelines& timelines, int32_t tid,
                          const std::vector<StateSpan>& spans, uint64_t fromNs, uint64_t toNs);

}  // namespace kelvane
