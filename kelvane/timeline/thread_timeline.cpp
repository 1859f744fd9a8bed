#include "kelvane/timeline/thread_timeline.h"

#include <algorithm>
#include <optional>

namespace kelvane {
namespace {

/// Tells who wakes, by what the CPU that a wake-up is recorded on recorded before it.
class WakeUps {
 public:
  void take(const RecordedEvent& event) {
    if (event.cpu >= cpus_.size()) cpus_.resize(size_t{event.cpu} + 1);
    Cpu& cpu = cpus_[event.cpu];
    if (event.kind == RecordedKind::timeOut || event.kind == RecordedKind::blockComplete) {
      cpu = {event.kind, event.atNs};
    } else if (event.kind != RecordedKind::wakeup || cpu.last == RecordedKind::timeOut) {
      // One request can be waited for by many; a time-out wakes one thread.
      cpu = {};
    }
  }

  /// Notes in `sleep` what the wake-up, which has not been taken yet, says of its end.
  void note(const RecordedEvent& wakeup, StateSpan& sleep) const {
    if (wakeup.state != 'i' && wakeup.tid != 0) {
      sleep.end = SleepEnd::thread;
      sleep.wokenBy = wakeup.tid;
      sleep.wokenOnCpu = wakeup.cpu;
      return;
    }
    sleep.end = SleepEnd::interrupt;
    if (wakeup.cpu >= cpus_.size()) return;
    const Cpu& cpu = cpus_[wakeup.cpu];
    const uint64_t sinceNs = wakeup.atNs - cpu.atNs;
    if (cpu.last == RecordedKind::timeOut && sinceNs <= kTimeOutReachNs) sleep.end = SleepEnd::timeOut;
    if (cpu.last == RecordedKind::blockComplete && sinceNs <= kCompletionReachNs) {
      sleep.end = SleepEnd::disk;
      sleep.requestEndNs = cpu.atNs;
    }
  }

 private:
  /// How long after the event its interrupt may still wake threads because of it. A time-out's sleeper comes
  /// at once, those who wait for a request after all of its pages have been seen to.
  static constexpr uint64_t kTimeOutReachNs = 50'000;
  static constexpr uint64_t kCompletionReachNs = 1'000'000;

  struct Cpu {
    RecordedKind last = RecordedKind::contextSwitch;
    uint64_t atNs = 0;
  };
  std::vector<Cpu> cpus_;
};

/// Follows one thread through its events. An event that can't follow the state before it means that events
/// were lost: the time since the last one becomes unknown.
class Follower {
 public:
  Follower(int32_t tid, uint64_t fromNs) : tid_(tid), sinceNs_(fromNs) {}

  /// `wakeUps` has the events before it.
  void take(const RecordedEvent& event, const WakeUps& wakeUps) {
    if (event.kind == RecordedKind::contextSwitch) {
      if (event.tid == tid_) switchedOut(event);
      if (event.other == tid_) switchedIn(event);
    } else if (event.kind == RecordedKind::wakeup && event.other == tid_) {
      woken(event, wakeUps);
    } else if (event.kind == RecordedKind::newTask && event.other == tid_) {
      made(event);
    }
  }

  std::vector<StateSpan> finish(uint64_t toNs, char stateAfterwards) {
    ThreadState last = state_.value_or(stateOfLetter(stateAfterwards));
    // A thread that wants the CPU and never took or left one may have had a CPU to itself, or none.
    if (!state_ && last == ThreadState::runnable) last = ThreadState::unknown;
    close(toNs, last, cpu_);
    return std::move(spans_);
  }

 private:
  void close(uint64_t atNs, ThreadState state, int32_t cpu = -1) {
    if (atNs > sinceNs_) spans_.push_back({.fromNs = sinceNs_, .toNs = atNs, .state = state, .cpu = cpu});
    sinceNs_ = atNs;
  }

  bool isAsleep() const {
    return state_ == ThreadState::sleeping || state_ == ThreadState::uninterruptible ||
           state_ == ThreadState::stopped;
  }

  void switchedIn(const RecordedEvent& event) {
    if (!state_ || state_ == ThreadState::runnable) {
      // Without an event before, its wake-up came before the coverage: it has been runnable throughout.
      close(event.atNs, ThreadState::runnable, event.cpu);
    } else if (isAsleep()) {
      // A wake-up can be recorded just before the switch that begins the sleep, which then was none.
      close(event.atNs, wokenWhileRunning_ ? ThreadState::runnable : *state_,
            wokenWhileRunning_ ? event.cpu : -1);
    } else {
      close(event.atNs, ThreadState::unknown);
    }
    state_ = ThreadState::running;
    cpu_ = event.cpu;
    wokenWhileRunning_ = false;
  }

  void switchedOut(const RecordedEvent& event) {
    bool wasRunning = !state_ || state_ == ThreadState::running;
    close(event.atNs, wasRunning ? ThreadState::running : ThreadState::unknown, wasRunning ? event.cpu : -1);
    state_ = stateOfLetter(event.state);
    cpu_ = -1;
  }

  /// What there was of that number before was another thread.
  void made(const RecordedEvent& event) {
    if (!spans_.empty()) sinceNs_ = spans_.front().fromNs;
    spans_.clear();
    close(event.atNs, ThreadState::unknown);
    state_ = ThreadState::runnable;
    cpu_ = -1;
    wokenWhileRunning_ = false;
  }

  void woken(const RecordedEvent& event, const WakeUps& wakeUps) {
    if (state_ == ThreadState::running) {
      wokenWhileRunning_ = true;
      return;
    }
    if (state_ == ThreadState::runnable) return;
    // Of a sleep that began before the coverage the kind is not known.
    const bool lasted = event.atNs > sinceNs_;
    close(event.atNs, state_.value_or(ThreadState::unknown));
    state_ = ThreadState::runnable;
    if (lasted) wakeUps.note(event, spans_.back());
  }

  int32_t tid_;
  uint64_t sinceNs_;
  std::optional<ThreadState> state_;
  int32_t cpu_ = -1;
  bool wokenWhileRunning_ = false;
  std::vector<StateSpan> spans_;
};

uint64_t coveredFrom(const Recording& recording) {
  return std::clamp(recording.coveredFromNs, recording.fromNs, recording.toNs);
}

std::vector<StateSpan> finished(Follower& follower, const Recording& recording, char stateAfterwards) {
  std::vector<StateSpan> spans = follower.finish(recording.toNs, stateAfterwards);
  if (coveredFrom(recording) > recording.fromNs)
    spans.insert(spans.begin(), {.fromNs = recording.fromNs, .toNs = coveredFrom(recording)});
  return spans;
}

}  // namespace

ThreadState stateOfLetter(char letter) {
  switch (letter) {
    case 'R':
      return ThreadState::runnable;
    case 'S':
    case 'I':
    case 'P':
      return ThreadState::sleeping;
    case 'D':
      return ThreadState::uninterruptible;
    case 'T':
    case 't':
      return ThreadState::stopped;
    default:
      return ThreadState::unknown;  // it has ended, or is something newer than this
  }
}

const char* threadStateName(ThreadState state) {
  constexpr std::array<const char*, 6> kNames = {"running",         "runnable", "sleeping",
                                                 "uninterruptible", "stopped",  "unknown"};
  return kNames[static_cast<size_t>(state)];
}

const char* sleepEndName(SleepEnd end) {
  constexpr std::array<const char*, 5> kNames = {nullptr, "thread", "time-out", "disk", "interrupt"};
  return kNames[static_cast<size_t>(end)];
}

std::vector<StateSpan> threadTimeline(const Recording& recording, int32_t tid, char stateAfterwards) {
  const uint64_t coveredFromNs = coveredFrom(recording);
  Follower follower(tid, coveredFromNs);
  WakeUps wakeUps;
  for (const RecordedEvent& event : recording.events) {
    if (event.atNs < coveredFromNs) continue;
    follower.take(event, wakeUps);
    wakeUps.take(event);
  }
  return finished(follower, recording, stateAfterwards);
}

ThreadTimelines threadTimelines(const Recording& recording) {
  const uint64_t coveredFromNs = coveredFrom(recording);
  std::unordered_map<int32_t, Follower> followers;
  WakeUps wakeUps;
  for (const RecordedEvent& event : recording.events) {
    if (event.atNs < coveredFromNs) continue;
    const auto tell = [&](int32_t tid) {
      if (tid > 0) followers.try_emplace(tid, tid, coveredFromNs).first->second.take(event, wakeUps);
    };
    const bool isSwitch = event.kind == RecordedKind::contextSwitch;
    if (isSwitch) tell(event.tid);
    if ((isSwitch && event.other != event.tid) || event.kind == RecordedKind::wakeup ||
        event.kind == RecordedKind::newTask)
      tell(event.other);
    wakeUps.take(event);
  }
  ThreadTimelines timelines;
  timelines.reserve(followers.size());
  for (auto& [tid, follower] : followers) timelines.emplace(tid, finished(follower, recording, '?'));
  return timelines;
}

TimeByState timeByState(std::span<const StateSpan> spans, uint64_t fromNs, uint64_t toNs) {
  TimeByState sums{};
  for (const StateSpan& span : spans) {
    sums[static_cast<size_t>(span.state)] += sharedNs(span.fromNs, span.toNs, fromNs, toNs);
  }
  return sums;
}

}  // namespace kelvane
