#pragma once

#include <sys/types.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <span>

#include "kelvane/base/deadline.h"
#include "kelvane/base/limits.h"

namespace kelvane {

/// A thread's user registers as unwinding needs them, numbered as DWARF does on this machine.
struct UnwindRegisters {
  std::array<uint64_t, 32> dwarf{};
  size_t count = 0;
  uint64_t pc = 0;
  uint64_t sp = 0;
  /// The bits of a code address in which the machine may have signed it (pointer authentication).
  uint64_t signatureBits = 0;
};

enum class CopyResult {
  pending,  // not begun
  begun,    // still at it: the kernel holds it up
  copied,
  refused,      // `error` says with which errno value
  ended,        // the thread has
  didNotStop,   // within its wait
  noRegisters,  // not a 64-bit program, or ended after it had stopped
};

/// One thread to copy, and what came of it.
struct ThreadCopy {
  pid_t tid = 0;
  std::chrono::milliseconds wait{};  // for it to stop
  CopyResult result = CopyResult::pending;
  int error = 0;
  UnwindRegisters registers;
  uint64_t stackBase = 0;  // address of the first byte that was copied
  size_t offset = 0;       // of the stack in CopyArea::bytes
  size_t length = 0;
  uint64_t atNs = 0;
  uint64_t stoppedNs = 0;
};

/// Memory that the copier shares with its parent.
struct CopyArea {
  size_t count = 0;
  std::array<ThreadCopy, kMaxThreadsWithStack> threads;
  /// When the copier began with the thread that it is at (CLOCK_MONOTONIC).
  std::atomic<uint64_t> busySinceNs{0};
  std::array<std::byte, kMaxCopiedBytes> bytes;
};

/// Copies the registers and stacks of the area's threads, one after the other, until its bytes are used up, a
/// thread could not be copied, or the deadline has passed. That one may still be traced then: the end of this
/// process releases it.
///
/// Runs in a forked process of a program with threads: nothing here allocates or takes a lock.
void copyThreads(int processDir, pid_t pid, const Deadline& deadline, CopyArea& area);

}  // namespace kelvane
