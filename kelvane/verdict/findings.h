#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "kelvane/timeline/disk_waits.h"
#include "kelvane/verdict/evidence.h"
#include "kelvane/verdict/kernel_wait.h"
#include "kelvane/verdict/sampled_phases.h"
#include "kelvane/verdict/verdict.h"
#include "kelvane/verdict/wakers.h"

namespace kelvane {

/// Threads of one name, which mostly are of one program, that had the CPU while another was ready to run on
/// it.
struct Competitors {
  NamedThread busiest;
  bool areOwn = false;  // of the hung process
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
  uint64_t lastSleepNs = 0;                     // how long that sleep has lasted; 0: it was not asleep
  KernelWait kernelWait = KernelWait::unknown;  // at the look
  WaitGraph waitGraph;                          // the look's, with those who are likely to end waits
  Sleeps sleeps;
  SampledPhases sampled;
  bool bySamples = false;  // `spent` and what else a recording would tell of the thread's states is theirs
  std::optional<ChainVerdict> chain;  // if it says more than that the thread slept
  std::vector<Wait> waits;            // longest first
  std::vector<BusyThread> busiest;    // other threads, most first
  DiskActivity disk;
  DiskWaits diskWaits;
  Competitors diskUsers;         // most of what others asked of the disk meanwhile; none: count 0
  uint64_t pageIns = 0;          // pages of files that the thread had read in
  bool memoryLimitHit = false;   // during the look its control group, at its limit, lost what it uses
  bool faultedAtLook = false;    // during the look the thread had many pages read in again
  bool inKernelAtLook = false;   // on the CPU, it mostly was in the kernel then
  bool throttledAtLook = false;  // its control group was kept from the CPU then
  uint64_t reclaimNs = 0;        // the thread itself freed memory
  uint64_t suspendNs = 0;        // the machine went into suspend or came back
  std::optional<Rivals> rivals;  // without a recording, who had the thread's CPU after the look
  Competitors competitors;       // those who most of all kept the thread from running
  Competitors sharers;           // those who most of all used up its group's CPU time
  uint64_t idleRunnableNs = 0;   // the CPU idled although the thread was ready to run on it
  std::optional<RecordedEvent> stopSignal;  // the last one before the look that stops a process
  std::optional<NamedThread> stopSender;

  uint64_t in(ThreadState state) const { return spent[static_cast<size_t>(state)]; }
};

/// Whether in the last ten seconds some task waited for memory for much of the time.
bool isMemoryShort(const Pressure& pressure);

Findings findingsOf(const Evidence& evidence);

}  // namespace kelvane
