#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "kelvane/omission.h"
#include "kelvane/peer.h"
#include "kelvane/proc_text.h"

namespace kelvane {

/// What /proc tells of a thread, without stopping it.
struct ThreadFacts {
  pid_t tid = 0;
  std::string comm;
  char state = '?';         // proc(5); '?' if the thread went away
  std::string waitChannel;  // empty: not waiting, or not permitted
  pid_t tracerPid = 0;      // the process that traces it; 0: none
  std::optional<SystemCall> syscall;
  std::vector<std::string> kernelStack;  // innermost first
  uint64_t userMs = 0;
  uint64_t systemMs = 0;
  uint64_t voluntarySwitches = 0;
  uint64_t involuntarySwitches = 0;
};

/// The user stack of a thread at one moment.
struct StackSample {
  uint64_t atNs = 0;  // CLOCK_MONOTONIC
  uint32_t stoppedUs = 0;
  std::vector<uint32_t> frames;  // indices into ProcessCapture::frames, innermost first
  std::string cutOff;            // why the stack ends before the thread's start; empty: it doesn't
};

struct ThreadCapture {
  ThreadFacts facts;
  std::optional<StackSample> stack;
  std::string noStack;  // why there is no stack, if that is known
};

/// A place in the process's code.
struct Frame {
  uint64_t address = 0;  // of the instruction; a return address is lowered by one, into its call
  int32_t module = -1;   // index into ProcessCapture::modules; -1: no file is mapped there
  uint64_t offset = 0;   // in the module's own addresses, as addr2line(1) takes them
  std::string name;      // empty: not asked for, or not known
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
  std::vector<Module> modules;
  /// What the hung thread waits for: the holder of a lock (a thread of the process), or of the other end of a
  /// pipe or socket. 0 and nothing: it doesn't, or that can't be told.
  pid_t lockOwner = 0;
  std::optional<Peer> peer;
  std::vector<Omission> omissions;
};

/// What to capture.
struct CaptureTarget {
  pid_t pid = 0;
  int64_t threadId = 0;
  bool symbolicate = false;
};

/// Applies an edit to the capture that is being made; false once nobody waits for it any more.
using PublishCapture = std::function<bool(const std::function<void(ProcessCapture&)>& edit)>;

/// Looks at the process and publishes each finding when it is made, the hung thread's first.
///
/// May block for as long as the kernel holds up a look at the process (a mapped file on a dead server, a
/// memory map that a stuck thread has locked), so it runs on a thread that its caller can leave behind. It
/// never leaves a thread of the process stopped or traced.
void captureProcess(const CaptureTarget& target, const PublishCapture& publish);

}  // namespace kelvane
