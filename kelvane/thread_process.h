#pragma once

#include "kelvane/verdict.h"

namespace kelvane {

/// Fills in the process of a thread, if the thread is still there under the name that was recorded: its id
/// may have passed to another since.
void findProcess(NamedThread& thread);

}  // namespace kelvane
