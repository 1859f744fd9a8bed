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
  /// Linux 6.1 has none, and reports go without: `kelvanectl start` says so once, and no report again.
  bool isNew = false;
};

/// sched_waking, not sched_wakeup: it is recorded on the CPU and in the context of the one who wakes.
/// signal_generate, not signal_deliver: it knows the sender. Result 0: neither ignored nor pending already.
inline constexpr EventSource kEventSources[] = {
    {RecordedKind::contextSwitch,
     "sched",
     "sched_switch",
     nullptr,
     {"prev_pid", "prev_state", "prev_comm", "next_pid", "next_comm"}},
    {RecordedKind::wakeup, "sched", "sched_waking", nullptr, {"pid", "comm", "common_flags"}},
    {RecordedKind::blockIssue, "block", "block_rq_issue", nullptr, {"dev", "sector", "bytes", "rwbs"}},
    {RecordedKind::blockComplete,
     "block",
     "block_rq_complete",
     nullptr,
     {"dev", "sector", "nr_sector", "rwbs"}},
    {RecordedKind::signal, "signal", "signal_generate", "result == 0", {"pid", "sig"}},
    {RecordedKind::fileFault, "filemap", "mm_filemap_fault", nullptr, {"s_dev", "i_ino"}, /*isNew=*/true},
    {RecordedKind::reclaimBegin, "vmscan", "mm_vmscan_direct_reclaim_begin", nullptr, {}},
    {RecordedKind::reclaimEnd, "vmscan", "mm_vmscan_direct_reclaim_end", nullptr, {}},
    {RecordedKind::suspendBegin, "power", "suspend_resume", "action == \"machine_suspend\"", {"start"}},
    // Always on: what is written to trace_marker.
    {RecordedKind::mark, "ftrace", "print", nullptr, {"buf"}},
};

}  // namespace kelvane
