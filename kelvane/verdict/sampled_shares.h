#pragma once

#include <vector>

#include "kelvane/verdict/launch.h"
#include "kelvane/verdict/sampled_phases.h"

namespace kelvane {

/// What a path calls sleeps that were mostly for a disk.
inline constexpr const char* kDiskShare = "disk";

/// What samples alone tell of the thread: a share for each of its states.
std::vector<PathShare> sampledShares(const SampledPhases& sampled, pid_t tid);

/// Says in which function the thread was for most of what was sampled of a share that is its own, if that is
/// half of it, and the thread was in that state at hardly any other time.
void addFunction(const SampledPhases& sampled, PathShare& share);

}  // namespace kelvane
