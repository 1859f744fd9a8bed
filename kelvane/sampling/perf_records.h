#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "kelvane/threads/stack_copy.h"

namespace kelvane {

// What the events of a sampled thread write, as perf_event_open(2) lays it out. Both events of a thread write
// into one ring, newest first, over the oldest:
//
//   header      type 4, misc 2, size 2
//   id          8   of the event: the thread's CPU clock has run on, or it left the CPU
//   time        8   CLOCK_MONOTONIC
//   counters   24   2, then the thread's CPU time in ns, then how often it has left the CPU
//   kernel      8   how many words, then these: the kernel's call chain, innermost first, if it left the CPU
//   registers   8   2 for a 64-bit program, then a word for each bit of userRegistersMask(); or 0
//   stack       8   the size, as many bytes, then how many of these are the thread's (8; not if size is 0)
//
// and, each time that the thread leaves the CPU or is given one, a record of this alone, after the sample of
// the leave if there is one; `misc` says which of both, and whether it could have gone on:
//
//   header      type 4, misc 2, size 2
//   time        8   CLOCK_MONOTONIC
//   id          8
//
// When it gets another name, be it that the process executes a program (`misc` says so), and when it ends,
// there are further ones, which end in the same time and id.

/// PERF_SAMPLE_REGS_USER's mask of this machine; 0: not known here.
uint64_t userRegistersMask();

/// When a sample was taken, by the three clocks that it carries.
struct SampleTimes {
  uint64_t atNs = 0;      // CLOCK_MONOTONIC
  uint64_t cpuNs = 0;     // the thread's CPU time since it is sampled
  uint64_t switches = 0;  // how often it has left the CPU since, this time included
  bool leftCpu = false;   // taken because it left the CPU, not because of CPU time spent

  // What the records of its switches add; told by a store.
  uint64_t preemptedNs =
      0;                // how long, since it is sampled, it had been kept off the CPU though it could go on
  uint64_t awayNs = 0;  // if it left the CPU: for how long; 0: not told
  bool wasPreempted = false;  // it left the CPU to others, not to wait

  bool operator==(const SampleTimes&) const = default;
};

/// A moment at which a thread's clocks were read.
struct ClockMark {
  uint64_t atNs = 0;   // CLOCK_MONOTONIC
  uint64_t cpuNs = 0;  // these as in SampleTimes
  uint64_t switches = 0;
  uint64_t preemptedNs = 0;
  uint64_t readyNs = 0;  // in all its life: ready to run, but not given a CPU
};

/// The thread has left the CPU, or been given one.
struct CpuSwitch {
  uint64_t atNs = 0;  // CLOCK_MONOTONIC
  bool isLeave = false;
  bool isPreemption = false;  // a leave, although it could have gone on
};

struct ThreadSample {
  SampleTimes times;
  std::vector<uint64_t> kernelAddresses;  // innermost first, kMaxKernelFrames at most
  StackCopy stack;
};

/// What makes an end of what was before it.
struct ProgramChange {
  uint64_t atNs = 0;   // CLOCK_MONOTONIC
  bool isEnd = false;  // of the thread; else its process has executed another program
};

using RecordBytes = std::vector<std::byte>;

/// The whole records that a ring of `ring.size()` bytes, a power of two, holds between `head` and `previous`,
/// where reading began the last time (0: never). Oldest first; what was overwritten since is missing.
std::vector<RecordBytes> recordsSince(std::span<const std::byte> ring, uint64_t head, uint64_t previous);

/// The times of a sample; nothing if the record is something else or too short for them.
std::optional<SampleTimes> sampleTimes(std::span<const std::byte> record, uint64_t switchId);

/// Nothing if the record is something else or too short.
std::optional<CpuSwitch> cpuSwitch(std::span<const std::byte> record);

/// Nothing if the record is something else or too short.
std::optional<ProgramChange> programChange(std::span<const std::byte> record);

/// A whole sample; nothing if a length in it leads out of the record, or it is not of a 64-bit program.
std::optional<ThreadSample> parseSample(std::span<const std::byte> record, uint64_t switchId);

}  // namespace kelvane
