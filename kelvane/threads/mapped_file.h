#pragma once

#include "kelvane/base/proc_files.h"
#include "kelvane/threads/memory_map.h"

namespace kelvane {

/// Opens the file behind a module of the process with directory `processDir`, if it is a regular one: even if
/// it has been deleted or lies in another mount namespace. Waits for as long as the file's server does.
UniqueFd openMappedFile(int processDir, const MappedModule& module);

}  // namespace kelvane
