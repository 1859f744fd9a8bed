#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "kelvane/base/omission.h"
#include "kelvane/frames/frame.h"
#include "kelvane/sampling/perf_records.h"
#include "kelvane/threads/thread_facts.h"
#include "kelvane/waits/wait_graph.h"

namespace kelvane {

/// The user stack of a thread at one moment.
struct StackSample {
  uint64_t atNs = 0;  // CLOCK_MONOTONIC
  uint32_t stoppedUs = 0;
  std::vector<uint32_t> frames;  // indices into ProcessCapture::frames, innermost first
  std::string cutOff;            // why the stack ends before the thread's start; empty: it doesn't
};

/// Where the hung thread was at one of many moments before.
struct SampledStack {
  SampleTimes times;
  std::vector<uint32_t> frames;  // as in StackSample; each stands for its function, not for a place in it
  std::vector<std::string> kernelFrames;  // if it waited: in what of the kernel, innermost first
};

struct ThreadCapture {
  ThreadFacts facts;
  std::optional<StackSample> stack;
  std::string noStack;  // why there is no stack, if that is known
};

/// A thread of another process, on the way to whoever keeps the hung one waiting.
struct OtherThread {
  pid_t pid = 0;
  std::string process;
  ThreadCapture thread;
};

struct Module {
  std::string path;
  std::string buildId;  // hexadecimal; empty: not known
};

/// What was found of the process that a header names.
struct ProcessCapture {
  pid_t pid = 0;
  std::string comm;
  pid_t hungThread = 0;  // always threads[0] if any thread is listed
  size_t threadCount = 0;
  std::vector<ThreadCapture> threads;
  std::vector<Frame> frames;
  std::vector<Module> modules;        // Frame::module counts these
  std::vector<SampledStack> samples;  // of the hung thread, in any order
  std::vector<ClockMark> clockMarks;  // the same; empty: it was not sampled
  WaitGraph waits;                    // from the hung thread on
  std::vector<OtherThread> others;    // whose stacks were asked for; their frames lie among `frames`
  std::vector<Omission> omissions;
};

}  // namespace kelvane
