#pragma once

#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

#include "kelvane/base/deadline.h"
#include "kelvane/base/omission.h"

namespace kelvane {

/// What happened. "tid" and the like are RecordedEvent's members.
enum class RecordedKind : uint8_t {
  contextSwitch,  // tid leaves the CPU in `state`, other takes it
  wakeup,         // tid wakes other; `state` 'i': an interrupt on top of tid did, else 'R'
  timeOut,        // an interrupt on top of tid finds a thread's time to sleep over; it wakes it next
  // A request goes to `device`: `bytes`, sector `value`, `state` 'R' read, 'W' write, 'F' flush, 'D' discard,
  // '?'.
  blockIssue,
  blockComplete,  // the same request comes back; tid is whoever was interrupted
  // Number `value` is sent to tid and not ignored; other: whoever was on the CPU, mostly the sender.
  signal,
  fileFault,     // tid faults on a page of the file with inode `value` on `device`
  reclaimBegin,  // tid reclaims memory directly
  reclaimEnd,
  suspendBegin,  // of the machine
  suspendEnd,
  newTask,    // tid makes other, by clone(2) with the flags `value`
  execution,  // tid has become another program
  mark,       // text written to trace_marker; `value` indexes Recording::texts
};

/// One event of the flight recorder.
struct RecordedEvent {
  uint64_t atNs = 0;  // CLOCK_MONOTONIC
  RecordedKind kind = RecordedKind::contextSwitch;
  char state = '?';  // of a switch: a letter of proc(5), 'R' for preempted or yielded. Else: see kind
  uint16_t cpu = 0;
  int32_t tid = 0;    // who was on the CPU, except of a signal; 0: the idle task
  int32_t other = 0;  // see kind; 0: nobody, or the idle task
  uint32_t bytes = 0;
  uint32_t device = 0;  // the kernel's number: major << 20 | minor
  uint64_t value = 0;
};

/// What the flight recorder knows of a window of time.
struct Recording {
  std::vector<RecordedEvent> events;                     // ascending in time, all within the window
  std::unordered_map<int32_t, std::string> threadNames;  // the last known comm of each thread seen
  std::vector<std::string> texts;
  uint64_t fromNs = 0;  // the window asked for, in CLOCK_MONOTONIC
  uint64_t toNs = 0;
  uint64_t coveredFromNs = 0;       // from here on every CPU's events are there; == toNs: nothing is covered
  uint64_t lostEvents = 0;          // overwritten unread, where that is what cuts the covered span short
  std::vector<Omission> omissions;  // e.g. {"flight recorder", "it is not running: kelvanectl start"}
};

/// Reads the events of [fromNs, toNs] without stopping the recorder; what was read stays readable for the
/// next call. Never fails: without a recorder the recording is empty and says why in `omissions`, and a
/// deadline that passes leaves out the oldest events.
Recording readRecording(uint64_t fromNs, uint64_t toNs, const Deadline& deadline);

}  // namespace kelvane
