#pragma once

#include <cstddef>
#include <string>

#include "tools/memory/memory_now.h"

namespace quorvelctl {

/// The control groups as a tree, those with the most memory first: what version 2 accounts to each, and what
/// its processes and those below would give back by ending. The `maxRows` largest groups, and all above them;
/// `narrow` leaves columns out.
std::string cgroupTreeText(const MemoryNow& now, size_t maxRows, bool narrow);

}  // namespace quorvelctl
