#pragma once

#include <array>
#include <string>
#include <vector>

#include "kelvane/base/proc_files.h"

namespace kelvane {

/// What the program's descriptors 0 to 5 are to be.
using ProgramDescriptors = std::array<int, 6>;

/// With what status a process ends that could not execute the program.
inline constexpr int kNotExecuted = 127;

/// Starts the program kelvane-capture, which lies in quorveld/ beside the library's own file, and returns its
/// pidfd; none, and why in `problem`, if that failed.
///
/// It has a session of its own, and nothing else of this process's: no descriptor, no signal's handling, no
/// environment but QUORVELD_ROOT. It ends with this thread at the latest. This process sees nothing of it: it
/// sends no SIGCHLD, and only who knows its pidfd can wait for it.
UniqueFd startOwnProgram(const std::vector<std::string>& options, const ProgramDescriptors& descriptors,
                         std::string& problem);

}  // namespace kelvane
