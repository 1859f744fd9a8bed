#pragma once

#include <sys/types.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "kelvane/base/proc_files.h"
#include "kelvane/base/proc_text.h"
#include "kelvane/sampling/sample_store.h"

namespace kelvane {

/// A wait that began with no sample: there were no events yet, or the thread leaves the CPU so often that not
/// each time is sampled.
struct NotedWait {
  ClockMark since;       // it has waited from then on at least
  std::string function;  // of the kernel
};

/// A thread of another process while it is sampled: perf events of its own, whose ring the kernel writes.
///
/// The thread isn't stopped and pays for its samples alone, a few microseconds each. Its events end with
/// this.
class SampledThread {
 public:
  /// Begins to sample the thread that the process calls `threadId`, or its main thread if it has none.
  /// `error` is an errno value if that can't be done. Waits for as long as the process executes a program; a
  /// signal ends the wait.
  static std::unique_ptr<SampledThread> begin(pid_t pid, int64_t threadId, int& error);
  ~SampledThread();
  SampledThread(const SampledThread&) = delete;
  SampledThread& operator=(const SampledThread&) = delete;

  /// Keeps what the ring holds, which the kernel would overwrite sooner or later, and reads the clocks.
  void collect();

  /// False if the events tell no more of what the process executes now: another one is to begin then. What is
  /// kept of a thread that has ended stays.
  bool goesOn() const;

  pid_t pid() const { return pid_; }
  int64_t threadId() const { return threadId_; }
  /// All that is kept, for readKeptSamples.
  std::string encoded() const;

 private:
  SampledThread(pid_t pid, int64_t threadId) : pid_(pid), threadId_(threadId) {}
  /// 0, or an errno value.
  int open();
  /// Of the program that the process executes; nothing if it has ended.
  std::optional<ProcStat> currentStat() const;
  void noteProgram(const ProcStat& stat);
  void noteWait(const ClockMark& since);
  std::array<uint64_t, 3> readClocks() const;
  void markClocks();
  void sampleEach(uint64_t leaves);

  const pid_t pid_;
  const int64_t threadId_;
  pid_t tid_ = 0;
  UniqueFd process_;         // its directory in /proc
  uint64_t startTicks_ = 0;  // when the process was made
  uint64_t startStack_ = 0;  // tells the program that it executes from an earlier one's
  std::string comm_;
  std::vector<NotedWait> waits_;
  uint64_t programNs_ = 0;     // the SampleStore's executedNs of that program
  bool wasNewProgram_ = true;  // when the last collection, or the beginning, noted it
  UniqueFd clock_;             // the group's leader, whose ring both write
  UniqueFd switches_;
  uint64_t switchId_ = 0;
  uint64_t period_ = 1;  // how many leaves from the CPU make a sample
  std::byte* mapped_ = nullptr;
  uint64_t readTo_ = 0;
  SampleStore store_;
  std::vector<ClockMark> marks_;
};

/// What a sampler has handed over of a thread.
struct KeptSamples {
  pid_t pid = 0;
  pid_t tid = 0;
  uint64_t startTicks = 0;  // as ProcStat has them
  uint64_t startStack = 0;
  std::string comm;
  uint64_t executedNs = 0;  // older samples are of another program; 0: there was none
  std::vector<NotedWait> waits;
  std::vector<ClockMark> marks;
  std::vector<ThreadSample> samples;
};

/// Reads SampledThread::encoded; samples that are broken are left out.
KeptSamples readKeptSamples(const std::string& bytes);

}  // namespace kelvane
