#pragma once

#include <span>
#include <vector>

#include "perfstats/perf_snapshot.h"
#include "platform/record_order.h"

namespace quorveld {

// Both orders are made on 8-byte keys, and each 272-byte entry is then moved once: moving entries is what a
// sort of them costs. What compares equal keeps its order.

/// Sorts by pid, ascending.
void sortByPid(std::span<task_statistics> tasks);

/// Sorts by user CPU time, whose low 32 bits are the keys, highest first: `a` stands before `b` when b - a,
/// in 32 bits, is negative. Reports are compared across devices in this order, so times that are 2^31 ticks
/// or more apart stay misordered in the same way everywhere. The same input gives the same output always.
void sortByUserTime(std::vector<platform::SortKey>& keys);

}  // namespace quorveld
