#pragma once

#include <span>

#include "perfstats/perf_snapshot.h"

namespace quorveld {

// Both orders are made on 8-byte keys, and each 272-byte entry is then moved once: moving entries is what a
// sort of them costs. Entries that compare equal keep their order.

/// Sorts by pid, ascending.
void sortByPid(std::span<task_statistics> tasks);

/// Sorts by user CPU time, highest first, as far as the low 32 bits of the times tell: `a` stands before `b`
/// when b - a, in 32 bits, is negative. Reports are compared across devices in this order, so times that
/// are 2^31 ticks or more apart stay misordered in the same way everywhere. The same input gives the same
/// output always.
void sortByUserTime(std::span<task_statistics> tasks);

}  // namespace quorveld
