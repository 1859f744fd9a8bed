#pragma once

#include <string>

namespace quorveld::linux_platform {

/// The path of a program that the daemon starts for itself: in $QUORVELD_LIBEXEC if that is set, else in
/// ../libexec/quorveld beside the folder of this process's own executable.
std::string helperProgram(const std::string& name);

}  // namespace quorveld::linux_platform
