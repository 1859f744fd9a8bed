#pragma once

#include <cstdint>

#include "kelvane/waits/wait_graph.h"

namespace kelvane {

/// Whether the call waits for nothing but time to pass.
bool onlySleeps(const SystemCall& call);

/// Nanoseconds until the party goes on by itself from the sleep, or the wait at a futex, that it is in; of
/// one that began anew with its time in full, that time. 0 if it doesn't, or that can't be told. Reads the
/// process's memory, which can block in the kernel.
uint64_t timeLeftNs(const WaitParty& party);

}  // namespace kelvane
