#pragma once

#include <cstdint>
#include <functional>
#include <utility>

#include "kelvane/verdict/evidence.h"
#include "kelvane/verdict/launch.h"

namespace kelvane {

/// What there is to judge a launch by.
struct LaunchEvidence {
  uint64_t fromNs = 0;  // the launch, in CLOCK_MONOTONIC
  uint64_t toNs = 0;
  const Recording& recording;
  const ProcessScan& processes;
  Pressure pressure;
  LaunchedLook look;
  uint64_t connectedNs = 0;  // when the launched process connected to the daemon; 0: not known
  std::function<void(NamedThread&)> findProcess;
  const ProcessCapture* sampled = nullptr;  // where its first thread was; null: it was not sampled
};

/// Who was launched, how that went, and why it took so long.
std::pair<Launch, Verdict> judgeLaunch(const LaunchEvidence& evidence);

}  // namespace kelvane
