#pragma once

#include <optional>

#include "kelvane/verdict/evidence.h"
#include "kelvane/verdict/verdict.h"

namespace kelvane {

/// Where the waits lead that the look has found, from the hung thread on; nothing if it has found none. Holds
/// of the hang only if the thread still was in the wait of the hang at the look.
std::optional<ChainVerdict> chainVerdict(const Evidence& evidence);

/// Whether it says more than that the thread slept.
bool tellsMore(const ChainVerdict& verdict);

/// What the hang is called by the end of its chain.
Cause causeOfChain(const ChainVerdict& verdict);

}  // namespace kelvane
