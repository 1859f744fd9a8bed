#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <unordered_map>
#include <vector>

#include "kelvane/recording/recording.h"

namespace kelvane {

enum class ThreadState : uint8_t { running, runnable, sleeping, uninterruptible, stopped, unknown };

/// "running", "runnable", …
const char* threadStateName(ThreadState state);

/// The state of a thread that is off the CPU, by its letter of proc(5); unknown if it has ended.
ThreadState stateOfLetter(char letter);

/// What ended a sleep or a stop.
enum class SleepEnd : uint8_t {
  open,       // it has not ended, or that is not known
  thread,     // a thread did
  timeOut,    // the time that the sleeper had given itself was over
  disk,       // a request of a block device came back
  interrupt,  // another one: of a device, the network, the clock
};

/// "thread", "time-out", …; null for `open`.
const char* sleepEndName(SleepEnd end);

/// A stretch of time that a thread spent in one state.
struct StateSpan {
  static constexpr int32_t kNobody = -1;

  uint64_t fromNs = 0;
  uint64_t toNs = 0;
  ThreadState state = ThreadState::unknown;
  /// The CPU that it ran on, or that took it after it had been runnable; -1 if that is not known.
  int32_t cpu = -1;
  SleepEnd end = SleepEnd::open;
  /// The thread that ended it, and where that ran; kNobody and -1 if it was no thread. Whom an interrupt came
  /// upon has nothing to do with it.
  int32_t wokenBy = kNobody;
  int32_t wokenOnCpu = -1;
  uint64_t requestEndNs = 0;  // when the request came back that ended it; 0: none did

  bool isAwake() const { return state == ThreadState::running || state == ThreadState::runnable; }
};

/// How thread `tid` spent the recording's window: spans without gaps, ascending. What the events don't tell
/// is unknown: the time before the recording's coverage, and the time around events that were lost.
///
/// `stateAfterwards` is the thread's letter of proc(5) right after the window: a thread without any event
/// has slept throughout if it still sleeps.
std::vector<StateSpan> threadTimeline(const Recording& recording, int32_t tid, char stateAfterwards);

/// The same of all threads that have events, by their ids, in one go.
using ThreadTimelines = std::unordered_map<int32_t, std::vector<StateSpan>>;
ThreadTimelines threadTimelines(const Recording& recording);

/// Nanoseconds for each ThreadState.
using TimeByState = std::array<uint64_t, 6>;

/// Sums the spans' times within [fromNs, toNs].
TimeByState timeByState(std::span<const StateSpan> spans, uint64_t fromNs, uint64_t toNs);

/// Nanoseconds that [fromNs, toNs] and [otherFromNs, otherToNs] share.
constexpr uint64_t sharedNs(uint64_t fromNs, uint64_t toNs, uint64_t otherFromNs, uint64_t otherToNs) {
  uint64_t from = fromNs > otherFromNs ? fromNs : otherFromNs;
  uint64_t to = toNs < otherToNs ? toNs : otherToNs;
  return to > from ? to - from : 0;
}

}  // namespace kelvane
