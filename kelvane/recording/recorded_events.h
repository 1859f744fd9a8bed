#pragma once

#include <array>
#include <string_view>

#include "kelvane/recording/recording.h"

namespace kelvane {

/// An event that the recorder switches on, and the members of it that are decoded, in the decoder's order.
struct EventSource {
  RecordedKind kind;
  const char* system;
  const char* name;
  /// What the kernel is to keep out of the buffer; null: it records all.
  const char* filter;
  std::array<const char*, 5> fields;
  /// Some kernels have none, and reports go without: `kelvanectl start` says so once, and no report again.
  bool isOptional = false;
};

/// Timers are told apart by the function that they call; Linux 6.1 takes no such filter.
/// sched_waking, not sched_wakeup: it is recorded on the CPU and in the context of the one who wakes.
/// signal_generate, not signal_deliver: it knows the sender. Result 0: neither ignored nor pending already.
inline constexpr EventSource kEventSources[] = {
    {RecordedKind::contextSwitch,
     "sched",
     "sched_switch",
     nullptr,
     {"prev_pid", "prev_state", "prev_comm", "next_pid", "next_comm"}},
    {RecordedKind::wakeup, "sched", "sched_waking", nullptr, {"pid", "comm", "common_flags"}},
    // Both kinds of timers, of which only those that end a thread's sleep are recorded.
    {RecordedKind::timeOut,
     "timer",
     "hrtimer_expire_entry",
     "function.function == hrtimer_wakeup",
     {},
     /*isOptional=*/true},
    {RecordedKind::timeOut,
     "timer",
     "timer_expire_entry",
     "function.function == process_timeout",
     {},
     /*isOptional=*/true},
    {RecordedKind::blockIssue, "block", "block_rq_issue", nullptr, {"dev", "sector", "bytes", "rwbs"}},
    {RecordedKind::blockComplete,
     "block",
     "block_rq_complete",
     nullptr,
     {"dev", "sector", "nr_sector", "rwbs"}},
    {RecordedKind::signal, "signal", "signal_generate", "result == 0", {"pid", "sig"}},
    {RecordedKind::fileFault,
     "filemap",
     "mm_filemap_fault",
     nullptr,
     {"s_dev", "i_ino"},
     /*isOptional=*/true},
    {RecordedKind::reclaimBegin, "vmscan", "mm_vmscan_direct_reclaim_begin", nullptr, {}},
    {RecordedKind::reclaimEnd, "vmscan", "mm_vmscan_direct_reclaim_end", nullptr, {}},
    // The same for the memory of a control group.
    {RecordedKind::reclaimBegin, "vmscan", "mm_vmscan_memcg_reclaim_begin", nullptr, {}, /*isOptional=*/true},
    {RecordedKind::reclaimEnd, "vmscan", "mm_vmscan_memcg_reclaim_end", nullptr, {}, /*isOptional=*/true},
    {RecordedKind::suspendBegin, "power", "suspend_resume", "action == \"machine_suspend\"", {"start"}},
    // Unlike sched_process_fork it tells a thread from a process.
    {RecordedKind::newTask, "task", "task_newtask", nullptr, {"pid", "comm", "clone_flags"}},
    {RecordedKind::execution, "sched", "sched_process_exec", nullptr, {}},
    // Always on: what is written to trace_marker.
    {RecordedKind::mark, "ftrace", "print", nullptr, {"buf"}},
};

}  // namespace kelvane
