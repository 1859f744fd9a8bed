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

/// Goes through what the kernel has written of a thread's system calls, piece by piece as it comes.
class CallReader {
 public:
  explicit CallReader(CallEventIds ids) : ids_(ids) {}
  /// Whole records of perf_event_open(2), each with PERF_SAMPLE_RAW alone. The first vain try in them.
  std::optional<SystemCall> vainTryIn(std::span<const std::byte> records);

 private:
  std::optional<SystemCall> take(std::span<const std::byte> event);

  const CallEventIds ids_;
  SystemCall begun_;
};

/// Watches what system calls the thread makes until one is a vain try, for `longest` at most. The thread is
/// neither stopped nor woken. Nothing if it makes none, or if that can't be watched: `error` is 0, or an
/// errno value then.
std::optional<SystemCall> awaitVainTry(pid_t tid, std::chrono::milliseconds longest, int& error);

}  // namespace kelvane
