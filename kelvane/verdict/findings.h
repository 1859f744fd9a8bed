#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "kelvane/verdict/evidence.h"
#include "kelvane/verdict/verdict.h"

namespace kelvane {

/// Threads of one name, which mostly are of one program, that had the CPU while another was ready to run on
/// it.
struct Competitors {
  NamedThread busiest;
  size_t count = 0;
  uint64_t runningNs = 0;  // all of them
};

/// What a recording tells of a hung thread and of the machine around it. Times are of the hang's window.
struct Findings {
  const ThreadCapture* thread = nullptr;  // the hung thread at the look; null: there is none
  TimeByState spent{};
  uint64_t knownNs = 0;  // how long the thread's state is known
  /// At the look the thread was still in the sleep that the hang ended in, or still awake as at the hang's
  /// end: what the look saw is what the thread hung in.
  bool stillAsleep = false;
  bool stillAwake = false;
  std::vector<Wait> waits;          // longest first
  std::vector<BusyThread> busiest;  // other threads, most first
  DiskActivity disk;
  uint64_t diskWaitNs = 0;                  // asleep uninterruptibly while a request was under way
  uint64_t pageIns = 0;                     // pages of files that the thread had read in
  uint64_t reclaimNs = 0;                   // the thread itself freed memory
  uint64_t suspendNs = 0;                   // the machine went into suspend or came back
  Competitors competitors;                  // those who most of all kept the thread from running
  uint64_t idleRunnableNs = 0;              // the CPU idled although the thread was ready to run on it
  std::optional<RecordedEvent> stopSignal;  // the last one before the look that stops a process

  uint64_t in(ThreadState state) const { return spent[static_cast<size_t>(state)]; }
};

Findings findingsOf(const Evidence& evidence);

}  // namespace kelvane
