#pragma once

#include <cstdint>

#include "perfstats/perf_snapshot.h"

namespace quorveld {

/// What each process spent between two looks, highest user CPU time first (sortByUserTime).
///
/// Each entry's `state` says whether the process is present in both (its usage is the difference), new (all
/// that it has spent) or dead (zero: what it spent last is not known). Sorts the entries of both arguments
/// by pid in place. Null, and a log line, when an argument is null or there is no memory.
[[nodiscard]] CpuStatisticsPtr delta_cpu_statistics(cpu_statistics* start, cpu_statistics* end);

/// Writes what a process used between two readings into a zeroed `difference`.
///
/// Another start time, or a counter that fell, means that another process has the pid now: then `difference`
/// is all that this one used since it started, and a line is logged. System time and the sizes
/// fall in a healthy process too; their differences wrap, so what shrank appears as a huge value.
void delta_task_rusage(const platform::rusage_info_v3& start, const platform::rusage_info_v3& end,
                       platform::rusage_info_v3* difference, int32_t pid);

}  // namespace quorveld
