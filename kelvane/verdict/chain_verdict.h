#pragma once

#include <optional>

#include "kelvane/verdict/evidence.h"
#include "kelvane/verdict/verdict.h"

namespace kelvane {

/// Where `waits`, made of what the look has found, lead from the hung thread on; nothing if there are none.
/// Holds of the hang only if the thread still was in the wait of the hang at the look.
std::optional<ChainVerdict> chainVerdict(const Evidence& evidence, const WaitGraph& waits);

/// Who had the CPU most of the time of the hang that the thread `tid`, of `spans`, was ready to run on it.
std::optional<NamedThread> competitor(const Evidence& evidence, const std::vector<StateSpan>& spans,
                                      int32_t tid);

/// Without a recording: who has the CPU that its end is not given, by a further look.
void addRival(const Evidence& evidence, ChainVerdict& verdict);

/// Whether it says who keeps the hung thread stopped.
bool tellsTracer(const ChainVerdict& verdict);

/// Whether it says more than that the thread slept.
bool tellsMore(const ChainVerdict& verdict);

/// What the hang is called by the end of its chain.
Cause causeOfChain(const ChainVerdict& verdict);

}  // namespace kelvane
