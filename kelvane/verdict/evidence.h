#pragma once

#include <cstdint>
#include <functional>

#include "kelvane/capture/captured_process.h"
#include "kelvane/capture/pressure.h"
#include "kelvane/capture/process_scan.h"
#include "kelvane/capture/rivals.h"
#include "kelvane/capture/surroundings.h"
#include "kelvane/capture/thread_process.h"
#include "kelvane/recording/recording.h"
#include "kelvane/verdict/verdict.h"

namespace kelvane {

/// What there is to judge a hang by.
struct Evidence {
  uint64_t fromNs = 0;  // the hang, in CLOCK_MONOTONIC
  uint64_t toNs = 0;
  const Recording& recording;  // up to the look at the process, at most
  const ProcessCapture& process;
  const ProcessScan& processes;
  Pressure pressure;
  Surroundings before;  // the look at the process, and after it
  Surroundings after;
  /// Asked without a recording of a thread of a process that was not given a CPU: who was.
  std::function<std::optional<Rivals>(pid_t process, pid_t thread)> watchRivals;
  /// Fills in a thread's process; leaves it open where it can't be told.
  std::function<void(NamedThread&)> findProcess;
  /// A launch, which is over at the look: what that has found is another time's.
  bool isLaunch = false;
  /// Who waited for whom in its course, if that is most of what the thread waited for.
  std::optional<ChainVerdict> recordedChain{};
};

}  // namespace kelvane
