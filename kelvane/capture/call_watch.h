#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "kelvane/base/proc_text.h"

namespace kelvane {

/// Which events the kernel calls a system call's begin and its end.
struct CallEventIds {
  uint16_t enter = 0;
  uint16_t exit = 0;
};

/// Whether the call asked for something without waiting for it, and in vain: a lock of a file, or the end of
/// a child.
bool isVainTry(const SystemCall& call, int64_t result);

/// Goes through what the kernel has written of a thread's system calls, piece by piece as it comes. A try is
/// repeated if the thread has gone to sleep since the first one. A success between both changes nothing: who
/// asks for a lock of several parts often gets one of them.
class CallReader {
 public:
  explicit CallReader(CallEventIds ids) : ids_(ids) {}
  /// Whole records of perf_event_open(2), each with PERF_SAMPLE_RAW alone. The first vain try in them that is
  /// one of the same thing again.
  std::optional<SystemCall> repeatedTryIn(std::span<const std::byte> records);

 private:
  /// The vain try that the event is the end of.
  std::optional<SystemCall> take(std::span<const std::byte> event);
  bool isRepeated(const SystemCall& vainTry);

  const CallEventIds ids_;
  SystemCall begun_;
  std::optional<SystemCall> tried_;  // in vain, before
  bool hasSlept_ = false;            // since then
};

/// Watches what system calls the thread makes until one is a repeated try, for `longest` at most. The thread
/// is neither stopped nor woken. Nothing if it makes none, or if that can't be watched: `error` is 0, or an
/// errno value then.
std::optional<SystemCall> awaitRepeatedTry(pid_t tid, std::chrono::milliseconds longest, int& error);

}  // namespace kelvane
