#pragma once

#include <optional>

#include "kelvane/waits/wait_graph.h"

namespace kelvane {

/// The children whose end the party waits for, or, after vfork, whose execution of a program. Nothing if it
/// waits for none. May read the process's memory, which can block in the kernel.
std::optional<PartyWait> childWait(const WaitParty& party);

}  // namespace kelvane
