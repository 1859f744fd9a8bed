#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "kelvane/capture/pressure.h"
#include "kelvane/capture/thread_process.h"
#include "kelvane/timeline/disk_activity.h"
#include "kelvane/timeline/thread_timeline.h"
#include "kelvane/waits/wait_chain.h"

namespace kelvane {

/// Why a thread hung, as far as can be told.
enum class Cause : uint8_t {
  ownCpu,    // it was computing
  starved,   // it was ready to run, and others were given the CPU
  disk,      // it waited for block devices
  lock,      // it waited for a lock whose holder computed or slept
  peer,      // it waited for a process at the other end of a pipe or socket, which computed or slept
  fileLock,  // it waited for a lock on a file
  network,   // it waited for another machine
  deadlock,  // it waited for a thread that waited for it, or for others that wait for each other
  // Somebody less urgent than others, who were given the CPU, held what it waited for.
  priorityInversion,
  memory,     // it had to free memory first, or its files were no longer in memory
  stopped,    // by a signal or a debugger
  suspended,  // the machine was on its way into suspend, or back
  throttled,  // its control group had used up its CPU time
  frozen,     // its control group was
  swapping,   // it waited for memory that had been taken from it
  child,      // it waited for a child process to end, or to execute a program
  server,     // it waited for the server of a file system
  sleeping,   // it waited for something else: time to pass, an event
  unknown,
};

/// The cause's name in a report: "own-cpu", …
inline const char* causeName(Cause cause) {
  constexpr std::array<const char*, 19> kNames = {"own-cpu",   "starved",  "disk",
                                                  "lock",      "peer",     "file-lock",
                                                  "network",   "deadlock", "priority-inversion",
                                                  "memory",    "stopped",  "suspended",
                                                  "throttled", "frozen",   "swapping",
                                                  "child",     "server",   "sleeping",
                                                  "unknown"};
  static_assert(kNames.size() == static_cast<size_t>(Cause::unknown) + 1);
  return kNames[static_cast<size_t>(cause)];
}

/// What the last one of a chain did, or what was done to it.
enum class ChainEnd : uint8_t {
  computed,
  starved,
  throttled,
  frozen,
  stopped,
  disk,
  kernel,  // asleep uninterruptibly, for something else
  slept,
  waited,  // for something that nobody is known to keep from it
  ended,
  deadlock,
};

inline const char* chainEndName(ChainEnd end) {
  constexpr std::array<const char*, 11> kNames = {"computed", "starved", "throttled", "frozen",
                                                  "stopped",  "disk",    "kernel",    "slept",
                                                  "waited",   "ended",   "deadlock"};
  static_assert(kNames.size() == static_cast<size_t>(ChainEnd::deadlock) + 1);
  return kNames[static_cast<size_t>(end)];
}

/// Who waited for whom, from the hung thread on.
struct ChainVerdict {
  WaitChain chain;
  ThreadState state = ThreadState::sleeping;  // in which the hung thread waited
  ChainEnd end = ChainEnd::waited;
  std::optional<NamedThread> ranInstead;  // of one starved
  std::vector<std::string> steps;         // what each link does, for people
  std::optional<NamedThread> diskUser{};  // of one that waited for a disk: who had most requests meanwhile
  std::optional<Cause> cause{};           // if it isn't told by its end and its waits
};

/// A stretch of the hang in which the thread did not run; within the hang's time.
struct Wait {
  uint64_t fromNs = 0;
  uint64_t toNs = 0;
  ThreadState state = ThreadState::unknown;
  std::string waitChannel;  // empty: not known
  SleepEnd end = SleepEnd::open;
  std::optional<NamedThread> wokenBy;
};

/// A part of the hang: the states of one kind, taken together.
struct Phase {
  Cause cause = Cause::unknown;
  ThreadState state = ThreadState::unknown;
  uint64_t ns = 0;
};

/// Who, or what, ended sleeps of the hung thread.
struct Waker {
  SleepEnd end = SleepEnd::open;
  std::optional<NamedThread> thread;  // if it was one
  uint64_t sleptNs = 0;               // the time of those sleeps within the hang
  size_t sleeps = 0;
};

struct BusyThread {
  NamedThread thread;
  uint64_t runningNs = 0;
};

struct Verdict {
  Cause cause = Cause::unknown;
  std::string sentence;  // for people
  // What it rests on.
  bool fromRecorder = false;
  bool fromSamples = false;  // without a recorder; if neither, on one look
  uint64_t windowNs = 0;     // how long the hang was
  uint64_t coveredNs = 0;    // how much of that is recorded, or was sampled
  uint64_t eventsLost = 0;

  // From the recorder or samples.
  std::vector<Phase> phases;  // the parts that make up much of it, longest first
  std::optional<TimeByState> spent;
  // From the recorder, all within the hang.
  std::vector<Wait> waits;          // longest first
  std::vector<Waker> wakers;        // who ended its sleeps, by their time
  std::vector<BusyThread> busiest;  // other threads, most first
  std::optional<DiskActivity> disk;
  std::optional<NamedThread> diskUser;  // DiskActivity::busiest
  /// If it was a disk: who of others asked for most of what it did meanwhile.
  std::optional<NamedThread> diskRival;

  std::optional<ChainVerdict> chain;  // if that is what it was
  Pressure pressure;

  /// Whether it is known how much time the thread spent in what.
  bool hasTimes() const { return fromRecorder || fromSamples; }
};

}  // namespace kelvane
